// File against interposed system calls: the exact open modes, EINTR retries, short transfers and
// failures after partial progress, lock failures, fstat failures, and descriptors closed exactly
// once through moves.
//
// The interposers define the C library's own symbols, so the inline wrappers that
// _FORTIFY_SOURCE declares for some of them (read, pread) must not be in scope here.
#undef _FORTIFY_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../utils/log_line.h"
#include "base/utils/file.h"
#include "interpose.h"
#include "log_capture.h"

namespace {

// What an interposed call does: pass a number of calls through, then fail a number of calls
// with error; transfers are cut to at most chunk bytes (0: no limit). Calls are counted.
struct Plan {
  std::atomic<int> pass{0};
  velmora::testing::Fault fault;
  std::atomic<int> error{EINTR};
  std::atomic<long> chunk{0};
  std::atomic<int> calls{0};

  bool shouldFail() {
    ++calls;
    int left = pass.load();
    while (left > 0) {
      if (pass.compare_exchange_weak(left, left - 1)) {
        return false;
      }
    }
    if (fault.shouldFail()) {
      errno = error.load();
      return true;
    }
    return false;
  }
  size_t cut(size_t count) const {
    const long limit = chunk.load();
    return (limit > 0 && count > static_cast<size_t>(limit)) ? static_cast<size_t>(limit) : count;
  }
  void reset() {
    pass = 0;
    fault.off();
    error = EINTR;
    chunk = 0;
    calls = 0;
  }
};

Plan g_open;
Plan g_read;
Plan g_write;
Plan g_pread;
Plan g_pwrite;
Plan g_ftruncate;
Plan g_fdatasync;
Plan g_setlk;
Plan g_fstat;

// The folder of the running test: only calls on paths below it are recorded.
std::mutex g_record_mutex;
std::string g_record_prefix;
std::vector<std::pair<int, mode_t>> g_open_calls;
std::map<int, int> g_closes;

bool recorded(const char* path) {
  return !g_record_prefix.empty() &&
         strncmp(path, g_record_prefix.c_str(), g_record_prefix.size()) == 0;
}

}  // namespace

extern "C" VELMORA_TEST_INTERPOSER int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    if (recorded(path)) {
      g_open_calls.emplace_back(flags, mode);
    } else {
      return VELMORA_REAL(open)(path, flags, mode);
    }
  }
  if (g_open.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(open)(path, flags, mode);
}

extern "C" VELMORA_TEST_INTERPOSER int close(int fd) {
  {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    auto found = g_closes.find(fd);
    if (found != g_closes.end()) {
      ++found->second;
    }
  }
  return VELMORA_REAL(close)(fd);
}

extern "C" VELMORA_TEST_INTERPOSER ssize_t read(int fd, void* data, size_t count) {
  if (g_read.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(read)(fd, data, g_read.cut(count));
}

extern "C" VELMORA_TEST_INTERPOSER ssize_t write(int fd, const void* data, size_t count) {
  if (g_write.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(write)(fd, data, g_write.cut(count));
}

extern "C" VELMORA_TEST_INTERPOSER ssize_t pread(int fd, void* data, size_t count, off_t offset) {
  if (g_pread.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(pread)(fd, data, g_pread.cut(count), offset);
}

extern "C" VELMORA_TEST_INTERPOSER ssize_t pwrite(int fd, const void* data, size_t count,
                                                  off_t offset) {
  if (g_pwrite.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(pwrite)(fd, data, g_pwrite.cut(count), offset);
}

extern "C" VELMORA_TEST_INTERPOSER int ftruncate(int fd, off_t length) {
  if (g_ftruncate.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(ftruncate)(fd, length);
}

extern "C" VELMORA_TEST_INTERPOSER int fdatasync(int fd) {
  if (g_fdatasync.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(fdatasync)(fd);
}

extern "C" VELMORA_TEST_INTERPOSER int fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (command == F_SETLK && g_setlk.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(fcntl)(fd, command, argument);
}

extern "C" VELMORA_TEST_INTERPOSER int fstat64(int fd, struct stat64* buf) {
  if (g_fstat.shouldFail()) {
    return -1;
  }
  return VELMORA_REAL(fstat64)(fd, buf);
}

namespace {

using velmora::base::utils::File;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnceFrom;

class FileSyscallTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    for (Plan* plan : {&g_open, &g_read, &g_write, &g_pread, &g_pwrite, &g_ftruncate, &g_fdatasync,
                       &g_setlk, &g_fstat}) {
      plan->reset();
    }
    char pattern[] = "/tmp/velmora-sys-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
    file_ = dir_ + "/file";
    const int fd = VELMORA_REAL(open)(file_.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(10, VELMORA_REAL(write)(fd, "0123456789", 10));
    VELMORA_REAL(close)(fd);
    std::lock_guard<std::mutex> lock(g_record_mutex);
    g_record_prefix = dir_ + "/";
    g_open_calls.clear();
    g_closes.clear();
  }

  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(g_record_mutex);
      g_record_prefix.clear();
    }
    const std::string command = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  static std::vector<std::pair<int, mode_t>> openCalls() {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    return g_open_calls;
  }

  // The open modes passed by one open of path with flags.
  std::vector<int> modesOf(const std::string& path, unsigned int flags) {
    {
      std::lock_guard<std::mutex> lock(g_record_mutex);
      g_open_calls.clear();
    }
    File file(path, flags);
    std::vector<int> modes;
    for (const auto& call : openCalls()) {
      modes.push_back(call.first);
    }
    return modes;
  }

  static void watchCloses(int fd) {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    g_closes[fd] = 0;
  }

  static int closesOf(int fd) {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    return g_closes[fd];
  }

  std::string dir_;
  std::string file_;
};

using Modes = std::vector<int>;

// ---------------------------------------------------------------- open modes

TEST_F(FileSyscallTest, OpenModeOfEachAccessCombination) {
  EXPECT_EQ(Modes({O_RDONLY}), modesOf(file_, 0x1 | 0x20));
  EXPECT_EQ(Modes({O_RDWR}), modesOf(file_, 0x1 | 0x20 | 0x40));
  EXPECT_EQ(Modes({O_WRONLY}), modesOf(file_, 0x1 | 0x40));
  EXPECT_EQ(Modes({O_RDONLY}), modesOf(file_, 0x1));
  EXPECT_EQ(Modes({O_RDONLY}), modesOf(file_, 0x1 | 0x4000));
  EXPECT_EQ(Modes({O_APPEND | O_WRONLY}), modesOf(file_, 0x1 | 0x80));
  EXPECT_EQ(Modes({O_APPEND | O_WRONLY}), modesOf(file_, 0x1 | 0x40 | 0x80));
  EXPECT_EQ(Modes({O_APPEND | O_RDWR}), modesOf(file_, 0x1 | 0x20 | 0x80));
  EXPECT_EQ(Modes({O_APPEND | O_RDWR}), modesOf(file_, 0x1 | 0x20 | 0x40 | 0x80));
  EXPECT_EQ(Modes({O_NOCTTY | O_NDELAY}), modesOf(file_, 0x1 | 0x20 | 0x10000));
}

TEST_F(FileSyscallTest, OpenModeOfEachOpenMode) {
  EXPECT_EQ(Modes({O_CREAT | O_EXCL | O_WRONLY, O_CREAT | O_EXCL | O_WRONLY}),
            modesOf(file_, 0x2 | 0x4 | 0x40));
  EXPECT_EQ(Modes({O_CREAT | O_EXCL | O_WRONLY}), modesOf(dir_ + "/c", 0x2 | 0x40));
  EXPECT_EQ(Modes({O_CREAT | O_TRUNC | O_WRONLY}), modesOf(file_, 0x8 | 0x40));
  EXPECT_EQ(Modes({O_CREAT | O_TRUNC | O_WRONLY}), modesOf(file_, 0x8 | 0x2 | 0x40));
  EXPECT_EQ(Modes({O_TRUNC | O_WRONLY}), modesOf(file_, 0x10 | 0x40));
  EXPECT_EQ(Modes({O_TRUNC | O_WRONLY}), modesOf(file_, 0x10 | 0x8 | 0x2 | 0x40));
  EXPECT_EQ(Modes(), modesOf(file_, 0x20));
}

TEST_F(FileSyscallTest, OpenAlwaysOpensAgainWithCreateWhenTheFirstOpenFails) {
  EXPECT_EQ(Modes({O_WRONLY, O_WRONLY | O_CREAT}), modesOf(dir_ + "/a", 0x4 | 0x40));
  EXPECT_EQ(Modes({O_WRONLY}), modesOf(dir_ + "/a", 0x4 | 0x40));
  EXPECT_EQ(Modes({O_WRONLY, O_WRONLY | O_CREAT | O_EXCL}),
            modesOf(dir_ + "/b", 0x4 | 0x40 | 0x100));
  EXPECT_EQ(Modes({O_RDONLY, O_RDONLY | O_CREAT | O_EXCL}), modesOf(dir_ + "/c", 0x4 | 0x200));
}

TEST_F(FileSyscallTest, OpenPassesPermissionBits0600) {
  File file(dir_ + "/new", 0x8 | 0x40);
  const auto calls = openCalls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(static_cast<mode_t>(0600), calls[0].second);
}

TEST_F(FileSyscallTest, OpenIsRetriedAfterEintr) {
  g_open.fault.failNext(2);
  File file(file_, 0x21);
  EXPECT_TRUE(file.IsValid());
  EXPECT_EQ(3, g_open.calls.load());
}

TEST_F(FileSyscallTest, SecondOpenOfOpenAlwaysIsRetriedAfterEintr) {
  g_open.pass = 1;  // the first open fails naturally (missing file)
  g_open.fault.failNext(2);
  File file(dir_ + "/new", 0x44);
  EXPECT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_EQ(4, g_open.calls.load());
}

TEST_F(FileSyscallTest, OpenFailureRecordsTheMappedError) {
  g_open.error = EMFILE;
  g_open.fault.failNext(1);
  File file(file_, 0x21);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_TOO_MANY_OPENED, file.error());
  g_open.error = ENOSPC;
  g_open.fault.failNext(2);
  File created(dir_ + "/new", 0x44);
  EXPECT_EQ(File::FILE_ERROR_NO_SPACE, created.error());
  EXPECT_FALSE(created.created());
}

// ---------------------------------------------------------------- best-effort transfers

TEST_F(FileSyscallTest, ReadGathersShortTransfers) {
  File file(file_, 0x21);
  g_pread.chunk = 3;
  char buffer[10];
  EXPECT_EQ(10, file.Read(0, buffer, 10));
  EXPECT_EQ(0, memcmp("0123456789", buffer, 10));
  EXPECT_EQ(4, g_pread.calls.load());
}

TEST_F(FileSyscallTest, ReadIsRetriedAfterEintr) {
  File file(file_, 0x21);
  g_pread.fault.failNext(3);
  char buffer[4];
  EXPECT_EQ(4, file.Read(2, buffer, 4));
  EXPECT_EQ(0, memcmp("2345", buffer, 4));
  EXPECT_EQ(4, g_pread.calls.load());
}

TEST_F(FileSyscallTest, ErrorAfterPartialProgressReportsThePartialCount) {
  File file(file_, 0x21);
  g_pread.chunk = 3;
  g_pread.pass = 1;
  g_pread.error = EIO;
  g_pread.fault.failNext(1);
  char buffer[10];
  EXPECT_EQ(3, file.Read(0, buffer, 10));
  EXPECT_EQ(2, g_pread.calls.load());
}

TEST_F(FileSyscallTest, ErrorWithoutProgressReportsMinusOne) {
  File file(file_, 0x21);
  g_pread.error = EIO;
  g_pread.fault.failNext(1);
  char buffer[10];
  EXPECT_EQ(-1, file.Read(0, buffer, 10));
  EXPECT_EQ(EIO, errno);
}

TEST_F(FileSyscallTest, EndOfFileAfterPartialProgressReportsTheCount) {
  File file(file_, 0x21);
  g_pread.chunk = 4;
  char buffer[20];
  EXPECT_EQ(6, file.Read(4, buffer, 20));
  EXPECT_EQ(3, g_pread.calls.load());  // 4, 2, then 0 at the end
}

TEST_F(FileSyscallTest, ReadAtCurrentPosGathersShortTransfersAndRetries) {
  File file(file_, 0x21);
  g_read.chunk = 4;
  g_read.fault.failNext(1);
  char buffer[10];
  EXPECT_EQ(10, file.ReadAtCurrentPos(buffer, 10));
  EXPECT_EQ(4, g_read.calls.load());
  g_read.error = EIO;
  g_read.fault.failNext(1);
  EXPECT_EQ(-1, file.ReadAtCurrentPos(buffer, 10));
}

TEST_F(FileSyscallTest, WriteGathersShortTransfersAndRetries) {
  File file(file_, 0x1 | 0x20 | 0x40);
  g_pwrite.chunk = 2;
  g_pwrite.fault.failNext(1);
  EXPECT_EQ(5, file.Write(3, "abcde", 5));
  EXPECT_EQ(4, g_pwrite.calls.load());
  char buffer[10];
  EXPECT_EQ(10, file.Read(0, buffer, 10));
  EXPECT_EQ(0, memcmp("012abcde89", buffer, 10));
  g_pwrite.pass = 1;
  g_pwrite.error = ENOSPC;
  g_pwrite.fault.failNext(1);
  EXPECT_EQ(2, file.Write(0, "xyzw", 4));
}

TEST_F(FileSyscallTest, WriteAtCurrentPosGathersShortTransfers) {
  File file(file_, 0x1 | 0x40 | 0x80);
  g_write.chunk = 3;
  EXPECT_EQ(7, file.WriteAtCurrentPos("abcdefg", 7));
  EXPECT_EQ(3, g_write.calls.load());
  EXPECT_EQ(17, file.GetLength());
  // In append mode Write takes the same path.
  g_write.calls = 0;
  EXPECT_EQ(4, file.Write(0, "wxyz", 4));
  EXPECT_EQ(2, g_write.calls.load());
  EXPECT_EQ(0, g_pwrite.calls.load());
}

// ---------------------------------------------------------------- single-shot transfers

TEST_F(FileSyscallTest, SingleShotFormsMakeOneTransferRetriedOnlyAfterEintr) {
  File file(file_, 0x1 | 0x20 | 0x40);
  char buffer[10];
  g_pread.chunk = 3;
  g_pread.fault.failNext(2);
  EXPECT_EQ(3, file.ReadNoBestEffort(0, buffer, 10));
  EXPECT_EQ(3, g_pread.calls.load());
  g_read.chunk = 4;
  g_read.fault.failNext(1);
  EXPECT_EQ(4, file.ReadAtCurrentPosNoBestEffort(buffer, 10));
  EXPECT_EQ(2, g_read.calls.load());
  g_write.chunk = 2;
  g_write.fault.failNext(1);
  EXPECT_EQ(2, file.WriteAtCurrentPosNoBestEffort("abcdef", 6));
  EXPECT_EQ(2, g_write.calls.load());
}

TEST_F(FileSyscallTest, SingleShotFormsReturnMinusOneOnOtherFailures) {
  File file(file_, 0x1 | 0x20 | 0x40);
  char buffer[10];
  g_pread.error = EIO;
  g_pread.fault.failNext(1);
  EXPECT_EQ(-1, file.ReadNoBestEffort(0, buffer, 10));
  g_read.error = EIO;
  g_read.fault.failNext(1);
  EXPECT_EQ(-1, file.ReadAtCurrentPosNoBestEffort(buffer, 10));
  g_write.error = ENOSPC;
  g_write.fault.failNext(1);
  EXPECT_EQ(-1, file.WriteAtCurrentPosNoBestEffort("a", 1));
  EXPECT_EQ(ENOSPC, errno);
}

// ---------------------------------------------------------------- length, flush

TEST_F(FileSyscallTest, SetLengthAndFlushAreRetriedAfterEintr) {
  File file(file_, 0x1 | 0x40);
  g_ftruncate.fault.failNext(2);
  EXPECT_TRUE(file.SetLength(4));
  EXPECT_EQ(3, g_ftruncate.calls.load());
  EXPECT_EQ(4, file.GetLength());
  g_fdatasync.fault.failNext(2);
  EXPECT_TRUE(file.Flush());
  EXPECT_EQ(3, g_fdatasync.calls.load());
}

TEST_F(FileSyscallTest, SetLengthAndFlushReportOtherFailures) {
  File file(file_, 0x1 | 0x40);
  g_ftruncate.error = EIO;
  g_ftruncate.fault.failNext(1);
  EXPECT_FALSE(file.SetLength(4));
  g_fdatasync.error = EIO;
  g_fdatasync.fault.failNext(1);
  EXPECT_FALSE(file.Flush());
  EXPECT_EQ(10, file.GetLength());
}

TEST_F(FileSyscallTest, FailingFstatFailsGetLengthGetInfoAndTheFileTimes) {
  File file(file_, 0x21);
  g_fstat.error = EIO;
  g_fstat.fault.failAlways();
  EXPECT_EQ(-1, file.GetLength());
  File::Info info;
  EXPECT_FALSE(file.GetInfo(&info));
  EXPECT_EQ(0, info.size);
  EXPECT_EQ(-1.0, velmora::base::utils::getFileModifyTime(file_));
  EXPECT_EQ(-1.0, velmora::base::utils::getFileAccessTime(file_));
  EXPECT_EQ(-1.0, velmora::base::utils::getFileCreateTime(file_));
  g_fstat.fault.off();
  EXPECT_EQ(10, file.GetLength());
}

TEST_F(FileSyscallTest, GetInfoRefusesANullInfoWithoutCallingFstat) {
  File file(file_, 0x21);
  EXPECT_FALSE(file.GetInfo(nullptr));
  EXPECT_EQ(0, g_fstat.calls.load());
  File::Info info;
  EXPECT_TRUE(file.GetInfo(&info));
  EXPECT_EQ(10, info.size);
}

// ---------------------------------------------------------------- locks

TEST_F(FileSyscallTest, LockIsRetriedAfterEintr) {
  File file(file_, 0x1 | 0x20 | 0x40);
  g_setlk.fault.failNext(2);
  EXPECT_EQ(0, file.Lock(File::LOCK_WRITE));
  EXPECT_EQ(3, g_setlk.calls.load());
  g_setlk.fault.failNext(1);
  EXPECT_EQ(0, file.Unlock());
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(FileSyscallTest, LockFailureLogsErrnoAndTheMappedError) {
  File file(file_, 0x1 | 0x20 | 0x40);
  g_setlk.error = EACCES;
  g_setlk.fault.failNext(1);
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, file.Lock(File::LOCK_READ));
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "CallFcntlFlock",
                             "===========  err: " + std::to_string(EACCES) + "  -5 \n\n\n"));
  g_setlk.error = ENOLCK;
  g_setlk.fault.failNext(1);
  EXPECT_EQ(File::FILE_ERROR_FAILED, file.Unlock());
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "CallFcntlFlock",
                             "===========  err: " + std::to_string(ENOLCK) + "  -1 \n\n\n"));
}

// ---------------------------------------------------------------- closing

TEST_F(FileSyscallTest, MovesCloseTheDescriptorExactlyOnce) {
  const int fd = VELMORA_REAL(open)(file_.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  watchCloses(fd);
  {
    File first(fd);
    File second(std::move(first));
    File third;
    third = std::move(second);
    File fourth(std::move(third));
    EXPECT_EQ(0, closesOf(fd));
  }
  EXPECT_EQ(1, closesOf(fd));
}

TEST_F(FileSyscallTest, CloseThenDestructionClosesOnce) {
  File file(file_, 0x21);
  const int fd = file.GetPlatformFile();
  watchCloses(fd);
  file.Close();
  file.Close();
  EXPECT_EQ(1, closesOf(fd));
  EXPECT_FALSE(file.IsValid());
}

TEST_F(FileSyscallTest, MoveAssignmentClosesTheTargetsOwnDescriptorOnce) {
  File target(file_, 0x21);
  File source(file_, 0x21);
  const int target_fd = target.GetPlatformFile();
  const int source_fd = source.GetPlatformFile();
  watchCloses(target_fd);
  watchCloses(source_fd);
  target = std::move(source);
  EXPECT_EQ(1, closesOf(target_fd));
  EXPECT_EQ(0, closesOf(source_fd));
  target.Close();
  EXPECT_EQ(1, closesOf(source_fd));
}

TEST_F(FileSyscallTest, TakenDescriptorIsNeverClosedByTheFile) {
  int* holder = nullptr;
  int fd = -1;
  {
    File file(file_, 0x21);
    fd = file.GetPlatformFile();
    watchCloses(fd);
    holder = file.TakePlatformFile();
  }
  EXPECT_EQ(0, closesOf(fd));
  VELMORA_REAL(close)(*holder);
  delete holder;
}

}  // namespace
