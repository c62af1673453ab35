// File and the file-time queries under allocation failure: every allocation point of the
// constructors, Initialize, ErrorToString and the file times either completes or throws
// std::bad_alloc with nothing opened, created, truncated or unlinked and no descriptor lost; the
// transfers, locks and queries allocate nothing. Each run works in a scratch folder of its own.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "../utils/log_line.h"
#include "atomic_sweep.h"
#include "base/utils/file.h"
#include "log_capture.h"

namespace {

using velmora::base::utils::File;
using velmora::testing::completesOrKeepsState;
using velmora::testing::FaultRun;
using velmora::testing::LogCapture;
using velmora::testing::noState;
using velmora::testing::ScratchFolder;
using velmora::testing::sweepAllocations;
using velmora::testing::sweepAllocationsOf;

const std::string kContent = "0123456789";

void writeFile(const std::string& path, const std::string& content) {
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
  close(fd);
}

// The names and sizes of the folder's entries, sorted: what an open may have changed. (The 64-bit
// calls: the 32-bit ones of a 32-bit process fail on a 64-bit kernel's large inode numbers.)
std::string listing(const ScratchFolder& folder) {
  std::set<std::string> entries;
  DIR* dir = opendir(folder.path().c_str());
  while (const dirent64* entry = dir != nullptr ? readdir64(dir) : nullptr) {
    struct stat64 st;
    if (entry->d_name[0] != '.' && stat64((folder / entry->d_name).c_str(), &st) == 0) {
      entries.insert(std::string(entry->d_name) + ":" + std::to_string(st.st_size));
    }
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  std::string text;
  for (const std::string& entry : entries) {
    text += entry + ";";
  }
  return text;
}

std::string fieldsOf(const File& file) {
  return std::string(file.IsValid() ? "valid" : "invalid") + " error " +
         std::to_string(file.error()) + (file.created() ? " created" : "") +
         (file.async() ? " async" : "");
}

// What the descriptor of a valid File reads from its start.
std::string contentOf(File& file) {
  char buffer[64] = {};
  const int got = file.Read(0, buffer, sizeof(buffer));
  return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
}

// Sweeps the path constructor with flags on a folder holding "data" (kContent); the file named
// target is opened. A failed run leaves the folder as it was; the repeat gives a File with the
// expected fields and the folder the expected listing.
long sweepPathConstructor(const std::string& target, unsigned int flags,
                          const std::string& expected_fields, const std::string& expected_listing) {
  return sweepAllocations([&](FaultRun& run) {
    ScratchFolder folder;
    writeFile(folder / "data", kContent);
    const std::string path = folder / target;
    File file = completesOrKeepsState(
        run, [&] { return listing(folder); }, [&] { return File(path, flags); });
    EXPECT_EQ(expected_fields, fieldsOf(file));
    EXPECT_EQ(expected_listing, listing(folder));
  });
}

TEST(FileFaultSweep, PathConstructorOpeningAnExistingFile) {
  EXPECT_GT(sweepPathConstructor("data", 0x21, "valid error 0", "data:10;"), 0);
}

TEST(FileFaultSweep, PathConstructorCreatingAFile) {
  EXPECT_GT(sweepPathConstructor("new", 0x2 | 0x40, "valid error 0 created", "data:10;new:0;"), 0);
}

TEST(FileFaultSweep, PathConstructorTruncatingWithCreateAlways) {
  EXPECT_GT(sweepPathConstructor("data", 0x8 | 0x40, "valid error 0 created", "data:0;"), 0);
}

TEST(FileFaultSweep, PathConstructorOpenAlwaysCreatingAFile) {
  EXPECT_GT(sweepPathConstructor("new", 0x4 | 0x20 | 0x40 | 0x400, "valid error 0 created async",
                                 "data:10;new:0;"),
            0);
}

TEST(FileFaultSweep, PathConstructorDeletingOnClose) {
  EXPECT_GT(sweepPathConstructor("data", 0x1 | 0x20 | 0x2000, "valid error 0", ""), 0);
}

TEST(FileFaultSweep, PathConstructorOfAMissingPath) {
  EXPECT_GT(sweepPathConstructor("missing", 0x21, "invalid error -4", "data:10;"), 0);
}

TEST(FileFaultSweep, PathConstructorWithoutOpenModeLogsOnce) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              ScratchFolder folder;
              LogCapture::reset();
              const std::string path = folder / "data";
              const File file = completesOrKeepsState(
                  run, [&] { return LogCapture::entries().size(); },
                  [&] { return File(path, 0x20); });
              EXPECT_EQ("invalid error -1", fieldsOf(file));
              EXPECT_EQ(1u, velmora::testing::countLogLines("file_posix.cpp", "DoInitialize",
                                                            "Should Not Reached here.\n"));
            }),
            0);
}

TEST(FileFaultSweep, InitializeOfADefaultFile) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              ScratchFolder folder;
              writeFile(folder / "data", kContent);
              const std::string path = folder / "data";
              File file;
              completesOrKeepsState(
                  run, [&] { return fieldsOf(file) + listing(folder); },
                  [&] { file.Initialize(path, 0x21); });
              EXPECT_EQ("valid error 0", fieldsOf(file));
              EXPECT_EQ(kContent, contentOf(file));
            }),
            0);
}

// File(fd) and File(fd, async) own fd from the call on: a failed one has closed it.
void sweepDescriptorConstructor(const std::function<File(int)>& construct) {
  EXPECT_GT(sweepAllocations([&](FaultRun& run) {
              ScratchFolder folder;
              writeFile(folder / "data", kContent);
              const std::string path = folder / "data";
              const int fd = open(path.c_str(), O_RDONLY);
              std::optional<File> file;
              const bool threw = run.throws<std::bad_alloc>([&] { file.emplace(construct(fd)); });
              EXPECT_EQ(threw, run.injected());
              if (threw) {
                EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the descriptor was not closed";
                file.emplace(construct(open(path.c_str(), O_RDONLY)));
              }
              EXPECT_EQ(kContent, contentOf(*file));
            }),
            0);
}

TEST(FileFaultSweep, DescriptorConstructor) {
  sweepDescriptorConstructor([](int fd) { return File(fd); });
}

TEST(FileFaultSweep, DescriptorConstructorWithAsync) {
  sweepDescriptorConstructor([](int fd) { return File(fd, true); });
}

TEST(FileFaultSweep, ErrorToString) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              EXPECT_EQ("FILE_ERROR_TOO_MANY_OPENED", completesOrKeepsState(run, noState, [] {
                          return File::ErrorToString(File::FILE_ERROR_TOO_MANY_OPENED);
                        }));
            }),
            0);
}

double secondsOf(const struct timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Sweeps one file-time query of "data" (or of a missing path); expected picks the time the query
// must give from stat's answer for "data" (-1.0 for the missing path).
void sweepFileTime(double (*query)(std::string), const char* target,
                   const std::function<double(const struct stat64&)>& expected) {
  EXPECT_GT(sweepAllocations([&](FaultRun& run) {
              ScratchFolder folder;
              writeFile(folder / "data", kContent);
              const struct timespec times[2] = {{1600000000, 500000000}, {1700000000, 250000000}};
              ASSERT_EQ(0, utimensat(AT_FDCWD, (folder / "data").c_str(), times, 0));
              const std::string path = folder / target;
              const double seconds =
                  completesOrKeepsState(run, noState, [&] { return query(path); });
              struct stat64 st;
              ASSERT_EQ(0, stat64((folder / "data").c_str(), &st));
              EXPECT_EQ(expected(st), seconds);
            }),
            0);
}

TEST(FileFaultSweep, GetFileCreateTime) {
  sweepFileTime(velmora::base::utils::getFileCreateTime, "data",
                [](const struct stat64& st) { return secondsOf(st.st_ctim); });
}

TEST(FileFaultSweep, GetFileAccessTime) {
  sweepFileTime(velmora::base::utils::getFileAccessTime, "data",
                [](const struct stat64& st) { return secondsOf(st.st_atim); });
}

TEST(FileFaultSweep, GetFileModifyTime) {
  sweepFileTime(velmora::base::utils::getFileModifyTime, "data",
                [](const struct stat64& st) { return secondsOf(st.st_mtim); });
}

TEST(FileFaultSweep, FileTimesOfAMissingPath) {
  sweepFileTime(velmora::base::utils::getFileModifyTime, "missing",
                [](const struct stat64&) { return -1.0; });
}

// One operation on a valid File opened read-write on "data" (kContent): it runs armed, and must
// not meet the fault, since it allocates nothing.
struct QuietOperation {
  const char* name;
  std::function<void(FaultRun&, File&, const ScratchFolder&)> run;
};

// A read into a buffer that must give expected.
QuietOperation reading(const char* name, std::function<int(File&, char*)> read,
                       std::string expected) {
  return {name, [read, expected](FaultRun& run, File& file, const ScratchFolder&) {
            char data[16] = {};
            int got = 0;
            run.armed([&] { got = read(file, data); });
            EXPECT_EQ(expected, std::string(data, got > 0 ? static_cast<size_t>(got) : 0));
          }};
}

// A write that must move all its bytes and leave the file holding expected.
QuietOperation writing(const char* name, std::function<int(File&)> write, std::string expected) {
  return {name, [write, expected](FaultRun& run, File& file, const ScratchFolder&) {
            int put = 0;
            run.armed([&] { put = write(file); });
            EXPECT_GT(put, 0);
            EXPECT_EQ(expected, contentOf(file));
          }};
}

const std::vector<QuietOperation>& quietOperations() {
  static const std::vector<QuietOperation> operations = {
      {"Seek",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         int at = 0;
         run.armed([&] { at = file.Seek(File::WHENCE_END, -3); });
         EXPECT_EQ(7, at);
       }},
      reading(
          "Read", [](File& file, char* data) { return file.Read(2, data, 4); }, "2345"),
      reading(
          "ReadAtCurrentPos", [](File& file, char* data) { return file.ReadAtCurrentPos(data, 3); },
          "012"),
      reading(
          "ReadNoBestEffort",
          [](File& file, char* data) { return file.ReadNoBestEffort(8, data, 2); }, "89"),
      reading(
          "ReadAtCurrentPosNoBestEffort",
          [](File& file, char* data) { return file.ReadAtCurrentPosNoBestEffort(data, 2); }, "01"),
      writing(
          "Write", [](File& file) { return file.Write(8, "xyz", 3); }, "01234567xyz"),
      writing(
          "WriteAtCurrentPos", [](File& file) { return file.WriteAtCurrentPos("ab", 2); },
          "ab23456789"),
      writing(
          "WriteAtCurrentPosNoBestEffort",
          [](File& file) { return file.WriteAtCurrentPosNoBestEffort("ab", 2); }, "ab23456789"),
      {"SetLengthAndFlush",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         bool done = false;
         run.armed([&] { done = file.SetLength(4) && file.Flush(); });
         EXPECT_TRUE(done);
         EXPECT_EQ(4, file.GetLength());
       }},
      {"LockAndUnlock",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         int locked = -1;
         int unlocked = -1;
         run.armed([&] {
           locked = file.Lock(File::LOCK_WRITE);
           unlocked = file.Unlock();
         });
         EXPECT_EQ(0, locked);
         EXPECT_EQ(0, unlocked);
       }},
      {"GetLength",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         int length = 0;
         run.armed([&] { length = file.GetLength(); });
         EXPECT_EQ(10, length);
       }},
      {"GetInfo",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         File::Info info;
         bool got = false;
         run.armed([&] { got = file.GetInfo(&info); });
         EXPECT_TRUE(got);
         EXPECT_EQ(10, info.size);
         EXPECT_FALSE(info.isDirectory);
       }},
      {"GetInfoOfNull",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         bool got = true;
         run.armed([&] { got = file.GetInfo(nullptr); });
         EXPECT_FALSE(got);
       }},
      {"MovesAndPlatformFile",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         File other;
         run.armed([&] {
           File moved(std::move(file));
           other = std::move(moved);
           int* holder = other.TakePlatformFile();
           file.SetPlatformFile(holder);
         });
         EXPECT_FALSE(other.IsValid());
         EXPECT_EQ(kContent, contentOf(file));
       }},
      {"Close",
       [](FaultRun& run, File& file, const ScratchFolder&) {
         const int fd = file.GetPlatformFile();
         run.armed([&] { file.Close(); });
         EXPECT_FALSE(file.IsValid());
         EXPECT_EQ(-1, fcntl(fd, F_GETFD));
       }},
      {"StatFstatLstat",
       [](FaultRun& run, File& file, const ScratchFolder& folder) {
         struct stat64 by_path;
         struct stat64 by_fd;
         struct stat64 by_link;
         const std::string path = folder / "data";
         int results = -1;
         run.armed([&] {
           results = File::Stat(path.c_str(), &by_path) +
                     File::Fstat(file.GetPlatformFile(), &by_fd) +
                     File::Lstat(path.c_str(), &by_link);
         });
         EXPECT_EQ(0, results);
         EXPECT_EQ(by_path.st_ino, by_fd.st_ino);
         EXPECT_EQ(by_path.st_ino, by_link.st_ino);
       }},
      {"ErrorMappingAndInfoFromStat",
       [](FaultRun& run, File&, const ScratchFolder&) {
         File::Error mapped = File::FILE_OK;
         File::Info info;
         struct stat64 st = {};
         st.st_size = 5;
         run.armed([&] {
           mapped = File::OSErrorToFileError(ENOSPC);
           info.FromStat(st);
         });
         EXPECT_EQ(File::FILE_ERROR_NO_SPACE, mapped);
         EXPECT_EQ(5, info.size);
       }},
      {"DefaultAndErrorConstructors",
       [](FaultRun& run, File&, const ScratchFolder&) {
         std::optional<File> plain;
         std::optional<File> failed;
         run.armed([&] {
           plain.emplace();
           failed.emplace(File::FILE_ERROR_IO);
         });
         EXPECT_EQ("invalid error -1", fieldsOf(*plain));
         EXPECT_EQ("invalid error -16", fieldsOf(*failed));
       }},
      {"ErrorToStringOfAShortName",
       [](FaultRun& run, File&, const ScratchFolder&) {
         std::string text;
         run.armed([&] { text = File::ErrorToString(File::FILE_OK); });
         EXPECT_EQ("FILE_OK", text);
       }},
  };
  return operations;
}

TEST(FileFaultSweep, TransfersLocksAndQueriesAllocateNothing) {
  for (const QuietOperation& operation : quietOperations()) {
    EXPECT_EQ(0, sweepAllocationsOf(operation.name,
                                    [&](FaultRun& run) {
                                      ScratchFolder folder;
                                      writeFile(folder / "data", kContent);
                                      File file(folder / "data", 0x1 | 0x20 | 0x40);
                                      ASSERT_TRUE(file.IsValid());
                                      operation.run(run, file, folder);
                                    }))
        << operation.name;
  }
}

}  // namespace
