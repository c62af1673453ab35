// File on real files in a temporary folder: open flags, transfers, seeking, truncation,
// flushing, locks against another process, lengths, Info, the static stat calls and the error
// vocabulary.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "../utils/log_line.h"
#include "base/utils/file.h"
#include "log_capture.h"

namespace {

using velmora::base::utils::File;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnceFrom;

class FileTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    char pattern[] = "/tmp/velmora-file-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
  }

  void TearDown() override {
    const std::string command = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Creates name holding content; returns its path.
  std::string makeFile(const std::string& name, const std::string& content) const {
    const std::string full = path(name);
    const int fd = open(full.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    close(fd);
    return full;
  }

  static std::string contentOf(const std::string& full) {
    std::string content;
    const int fd = open(full.c_str(), O_RDONLY);
    char buffer[256];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof(buffer))) > 0) {
      content.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return content;
  }

  static bool exists(const std::string& full) {
    struct stat st;
    return stat(full.c_str(), &st) == 0;
  }

  static int statusFlags(const File& file) { return fcntl(file.GetPlatformFile(), F_GETFL); }
  static int accessMode(const File& file) { return statusFlags(file) & O_ACCMODE; }

  static bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

  static size_t shouldNotReachCount() {
    return velmora::testing::countLogLines("file_posix.cpp", "DoInitialize",
                                           "Should Not Reached here.\n");
  }

  std::string dir_;
};

// ---------------------------------------------------------------- error vocabulary

TEST_F(FileTest, ErrorToStringGivesTheNameOfEveryError) {
  const char* names[] = {"FILE_OK",
                         "FILE_ERROR_FAILED",
                         "FILE_ERROR_IN_USE",
                         "FILE_ERROR_EXISTS",
                         "FILE_ERROR_NOT_FOUND",
                         "FILE_ERROR_ACCESS_DENIED",
                         "FILE_ERROR_TOO_MANY_OPENED",
                         "FILE_ERROR_NO_MEMORY",
                         "FILE_ERROR_NO_SPACE",
                         "FILE_ERROR_NOT_A_DIRECTORY",
                         "FILE_ERROR_INVALID_OPERATION",
                         "FILE_ERROR_SECURITY",
                         "FILE_ERROR_ABORT",
                         "FILE_ERROR_NOT_A_FILE",
                         "FILE_ERROR_NOT_EMPTY",
                         "FILE_ERROR_INVALID_URL",
                         "FILE_ERROR_IO"};
  for (int value = 0; value >= -16; --value) {
    EXPECT_EQ(names[-value], File::ErrorToString(static_cast<File::Error>(value)));
  }
  EXPECT_EQ("FILE_ERROR_IO", File::ErrorToString(File::FILE_ERROR_IO));
  EXPECT_EQ(-16, File::FILE_ERROR_IO);
  EXPECT_EQ(-10, File::FILE_ERROR_INVALID_OPERATION);
}

TEST_F(FileTest, ErrorToStringOfAnyOtherValueIsEmpty) {
  EXPECT_EQ("", File::ErrorToString(static_cast<File::Error>(5)));
  EXPECT_EQ("", File::ErrorToString(static_cast<File::Error>(1)));
  EXPECT_EQ("", File::ErrorToString(static_cast<File::Error>(-17)));
}

TEST_F(FileTest, OSErrorToFileErrorMapsEveryRow) {
  EXPECT_EQ(File::FILE_OK, File::OSErrorToFileError(0));
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, File::OSErrorToFileError(EPERM));
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, File::OSErrorToFileError(EACCES));
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, File::OSErrorToFileError(EISDIR));
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, File::OSErrorToFileError(EROFS));
  EXPECT_EQ(File::FILE_ERROR_NOT_FOUND, File::OSErrorToFileError(ENOENT));
  EXPECT_EQ(File::FILE_ERROR_IO, File::OSErrorToFileError(EIO));
  EXPECT_EQ(File::FILE_ERROR_NO_MEMORY, File::OSErrorToFileError(ENOMEM));
  EXPECT_EQ(File::FILE_ERROR_IN_USE, File::OSErrorToFileError(EBUSY));
  EXPECT_EQ(File::FILE_ERROR_IN_USE, File::OSErrorToFileError(ETXTBSY));
  EXPECT_EQ(File::FILE_ERROR_EXISTS, File::OSErrorToFileError(EEXIST));
  EXPECT_EQ(File::FILE_ERROR_NOT_A_DIRECTORY, File::OSErrorToFileError(ENOTDIR));
  EXPECT_EQ(File::FILE_ERROR_TOO_MANY_OPENED, File::OSErrorToFileError(ENFILE));
  EXPECT_EQ(File::FILE_ERROR_TOO_MANY_OPENED, File::OSErrorToFileError(EMFILE));
  EXPECT_EQ(File::FILE_ERROR_NO_SPACE, File::OSErrorToFileError(ENOSPC));
}

TEST_F(FileTest, OSErrorToFileErrorOfAnyOtherValueIsFailed) {
  for (int value : {EAGAIN, EINVAL, EFAULT, EINTR, EBADF, ENOTEMPTY, EOPNOTSUPP, -1, 100000}) {
    EXPECT_EQ(File::FILE_ERROR_FAILED, File::OSErrorToFileError(value)) << value;
  }
}

TEST_F(FileTest, GetLastFileErrorMapsTheCurrentErrno) {
  errno = ENOSPC;
  EXPECT_EQ(File::FILE_ERROR_NO_SPACE, File::GetLastFileError());
  errno = 0;
  EXPECT_EQ(File::FILE_OK, File::GetLastFileError());
}

TEST_F(FileTest, EnumeratorValuesAreTheDescribedOnes) {
  EXPECT_EQ(0, File::WHENCE_BEGIN);
  EXPECT_EQ(1, File::WHENCE_CURRENT);
  EXPECT_EQ(2, File::WHENCE_END);
  EXPECT_EQ(0, File::LOCK_NONE);
  EXPECT_EQ(1, File::LOCK_READ);
  EXPECT_EQ(2, File::LOCK_WRITE);
  EXPECT_EQ(0x10000u, File::FILE_FLAG_TERMINAL_DEVICE);
  EXPECT_EQ(0x2000u, File::FILE_FLAG_DELETE_ON_CLOSE);
}

// ---------------------------------------------------------------- constructors

TEST_F(FileTest, DefaultFileHasNoDescriptorAndErrorFailed) {
  File file;
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_FAILED, file.error());
  EXPECT_FALSE(file.created());
  EXPECT_FALSE(file.async());
}

TEST_F(FileTest, ErrorConstructorRecordsTheError) {
  File file(File::FILE_ERROR_IO);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_IO, file.error());
}

TEST_F(FileTest, DescriptorConstructorTakesOwnership) {
  const int fd = open(makeFile("a", "x").c_str(), O_RDONLY);
  {
    File file(fd);
    EXPECT_TRUE(file.IsValid());
    EXPECT_EQ(fd, file.GetPlatformFile());
    EXPECT_EQ(File::FILE_OK, file.error());
    EXPECT_FALSE(file.created());
    EXPECT_FALSE(file.async());
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST_F(FileTest, DescriptorConstructorRecordsAsync) {
  File file(open(makeFile("a", "x").c_str(), O_RDONLY), true);
  EXPECT_TRUE(file.async());
}

TEST_F(FileTest, AnyDescriptorValueMakesTheFileValid) {
  File file(-1);
  EXPECT_TRUE(file.IsValid());
  EXPECT_EQ(-1, file.GetPlatformFile());
  char byte;
  EXPECT_EQ(-1, file.Read(0, &byte, 1));
  EXPECT_EQ(EBADF, errno);
}

// ---------------------------------------------------------------- open flags

TEST_F(FileTest, OpenReadOnMissingPathIsNotFound) {
  File file(path("missing"), 0x21);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_NOT_FOUND, file.error());
  EXPECT_EQ("FILE_ERROR_NOT_FOUND", File::ErrorToString(file.error()));
  EXPECT_EQ(0u, shouldNotReachCount());
}

TEST_F(FileTest, FlagsWithoutOpenModeLogAndFailWithEopnotsupp) {
  makeFile("a", "x");
  errno = 0;
  File file(path("a"), 0x20);
  EXPECT_EQ(EOPNOTSUPP, errno);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_FAILED, file.error());
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "DoInitialize", "Should Not Reached here.\n"));
  EXPECT_EQ(1u, LogCapture::entries().size());
}

TEST_F(FileTest, CreateFlagWithOpenAlwaysOnExistingPathIsExists) {
  makeFile("a", "x");
  File file(path("a"), 0x6);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_EXISTS, file.error());
}

TEST_F(FileTest, OpenAlwaysWriteOnMissingPathCreatesWithMode0600) {
  const mode_t mask = umask(0);
  umask(mask);
  File file(path("new"), 0x44);
  ASSERT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_EQ(File::FILE_OK, file.error());
  EXPECT_EQ(O_WRONLY, accessMode(file));
  struct stat st;
  ASSERT_EQ(0, stat(path("new").c_str(), &st));
  EXPECT_EQ(static_cast<mode_t>(0600 & ~mask), st.st_mode & 0777);
  EXPECT_EQ(0u, shouldNotReachCount());
}

TEST_F(FileTest, OpenAlwaysOnExistingPathOpensWithoutCreating) {
  makeFile("a", "content");
  File file(path("a"), 0x44);
  ASSERT_TRUE(file.IsValid());
  EXPECT_FALSE(file.created());
  EXPECT_EQ("content", contentOf(path("a")));
}

TEST_F(FileTest, OpenAlwaysWithoutAccessBitsIsReadOnlyWithoutLog) {
  File file(path("new"), 0x4);
  ASSERT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_EQ(O_RDONLY, accessMode(file));
  EXPECT_EQ(0u, shouldNotReachCount());
}

TEST_F(FileTest, OpenAlwaysExclusiveCreatesAMissingFile) {
  File read_exclusive(path("r"), 0x4 | 0x40 | 0x100);
  EXPECT_TRUE(read_exclusive.IsValid());
  EXPECT_TRUE(read_exclusive.created());
  File write_exclusive(path("w"), 0x4 | 0x40 | 0x200);
  EXPECT_TRUE(write_exclusive.IsValid());
  EXPECT_TRUE(write_exclusive.created());
  File existing(path("w"), 0x4 | 0x40 | 0x200);
  EXPECT_TRUE(existing.IsValid());
  EXPECT_FALSE(existing.created());
}

TEST_F(FileTest, OpenWithReadAndWriteIsReadWrite) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x20 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_RDWR, accessMode(file));
  EXPECT_FALSE(file.created());
}

TEST_F(FileTest, OpenWithWriteAloneIsWriteOnly) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_WRONLY, accessMode(file));
}

TEST_F(FileTest, OpenWithReadAloneIsReadOnly) {
  makeFile("a", "x");
  File file(path("a"), 0x21);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_RDONLY, accessMode(file));
  EXPECT_EQ(0, statusFlags(file) & (O_APPEND | O_NONBLOCK));
}

TEST_F(FileTest, OpenWithoutAnyAccessBitLogsAndContinuesReadOnly) {
  makeFile("a", "x");
  File file(path("a"), 0x1);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_RDONLY, accessMode(file));
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "DoInitialize", "Should Not Reached here.\n"));
}

TEST_F(FileTest, WriteAttributesIsAnAccessModeWithoutLog) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x4000);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_RDONLY, accessMode(file));
  EXPECT_EQ(0u, shouldNotReachCount());
}

TEST_F(FileTest, AppendAloneIsAppendWriteOnly) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x80);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_WRONLY, accessMode(file));
  EXPECT_EQ(O_APPEND, statusFlags(file) & O_APPEND);
  EXPECT_EQ(0u, shouldNotReachCount());
}

TEST_F(FileTest, AppendWithReadIsAppendReadWrite) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x20 | 0x80);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_RDWR, accessMode(file));
  EXPECT_EQ(O_APPEND, statusFlags(file) & O_APPEND);
}

TEST_F(FileTest, AppendWithWriteIsAppendWriteOnly) {
  makeFile("a", "x");
  File file(path("a"), 0x1 | 0x40 | 0x80);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_WRONLY, accessMode(file));
  EXPECT_EQ(O_APPEND, statusFlags(file) & O_APPEND);
}

TEST_F(FileTest, CreateOnMissingPathCreates) {
  File file(path("new"), 0x2 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_TRUE(exists(path("new")));
}

TEST_F(FileTest, CreateOnExistingPathIsExists) {
  makeFile("a", "x");
  File file(path("a"), 0x2 | 0x40);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_EXISTS, file.error());
}

TEST_F(FileTest, CreateAlwaysTruncatesAnExistingFileAndCountsAsCreated) {
  makeFile("a", "old content");
  File file(path("a"), 0x8 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_EQ("", contentOf(path("a")));
}

TEST_F(FileTest, CreateAlwaysOnMissingPathCreates) {
  File file(path("new"), 0x8 | 0x20 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_TRUE(file.created());
  EXPECT_EQ(O_RDWR, accessMode(file));
}

TEST_F(FileTest, OpenTruncatedEmptiesAnExistingFileWithoutCreating) {
  makeFile("a", "old content");
  File file(path("a"), 0x10 | 0x40);
  ASSERT_TRUE(file.IsValid());
  EXPECT_FALSE(file.created());
  EXPECT_EQ("", contentOf(path("a")));
}

TEST_F(FileTest, OpenTruncatedOverridesCreateSoAMissingFileIsNotFound) {
  File file(path("missing"), 0x10 | 0x8 | 0x2 | 0x40);
  EXPECT_FALSE(file.IsValid());
  EXPECT_EQ(File::FILE_ERROR_NOT_FOUND, file.error());
  EXPECT_FALSE(exists(path("missing")));
}

TEST_F(FileTest, AsyncFlagIsRecorded) {
  makeFile("a", "x");
  File async_file(path("a"), 0x21 | 0x400);
  EXPECT_TRUE(async_file.async());
  File plain(path("a"), 0x21);
  EXPECT_FALSE(plain.async());
}

TEST_F(FileTest, DeleteOnCloseUnlinksRightAfterOpening) {
  File file(path("temp"), 0x8 | 0x20 | 0x40 | 0x2000);
  ASSERT_TRUE(file.IsValid());
  EXPECT_FALSE(exists(path("temp")));
  EXPECT_EQ(4, file.Write(0, "data", 4));
  char buffer[4];
  EXPECT_EQ(4, file.Read(0, buffer, 4));
  EXPECT_EQ(0, memcmp("data", buffer, 4));
}

TEST_F(FileTest, TerminalDeviceFlagAddsNonBlocking) {
  makeFile("a", "x");
  File file(path("a"), 0x21 | 0x10000);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(O_NONBLOCK, statusFlags(file) & O_NONBLOCK);
}

TEST_F(FileTest, DirectoryOpensReadOnly) {
  File file(dir_, 0x21);
  EXPECT_TRUE(file.IsValid());
  File for_writing(dir_, 0x1 | 0x40);
  EXPECT_FALSE(for_writing.IsValid());
  EXPECT_EQ(File::FILE_ERROR_ACCESS_DENIED, for_writing.error());
}

TEST_F(FileTest, PathThroughAFileIsNotADirectory) {
  makeFile("a", "x");
  File file(path("a") + "/b", 0x21);
  EXPECT_EQ(File::FILE_ERROR_NOT_A_DIRECTORY, file.error());
}

TEST_F(FileTest, OpeningAgainForgetsThePreviousDescriptorWithoutClosingIt) {
  makeFile("a", "x");
  makeFile("b", "y");
  File file(path("a"), 0x21);
  const int first = file.GetPlatformFile();
  file.Initialize(path("b"), 0x21);
  ASSERT_TRUE(file.IsValid());
  EXPECT_NE(first, file.GetPlatformFile());
  EXPECT_TRUE(isOpen(first));
  close(first);
}

TEST_F(FileTest, FailedOpenKeepsThePreviousDescriptor) {
  makeFile("a", "x");
  File file(path("a"), 0x21);
  const int first = file.GetPlatformFile();
  file.Initialize(path("missing"), 0x21);
  EXPECT_EQ(File::FILE_ERROR_NOT_FOUND, file.error());
  EXPECT_TRUE(file.IsValid());
  EXPECT_EQ(first, file.GetPlatformFile());
}

// ---------------------------------------------------------------- ownership

TEST_F(FileTest, MoveConstructionTakesTheDescriptorAndFields) {
  File source(path("a"), 0x44 | 0x400);
  const int fd = source.GetPlatformFile();
  File moved(std::move(source));
  EXPECT_FALSE(source.IsValid());  // NOLINT(bugprone-use-after-move): the rule under test
  ASSERT_TRUE(moved.IsValid());
  EXPECT_EQ(fd, moved.GetPlatformFile());
  EXPECT_TRUE(moved.created());
  EXPECT_TRUE(moved.async());
  EXPECT_EQ(File::FILE_OK, moved.error());
}

TEST_F(FileTest, MoveAssignmentClosesTheOwnDescriptorFirst) {
  makeFile("a", "x");
  makeFile("b", "y");
  File target(path("a"), 0x21);
  const int old_fd = target.GetPlatformFile();
  File source(path("b"), 0x21 | 0x400);
  const int fd = source.GetPlatformFile();
  target = std::move(source);
  EXPECT_FALSE(isOpen(old_fd));
  EXPECT_FALSE(source.IsValid());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(fd, target.GetPlatformFile());
  EXPECT_TRUE(target.async());
}

TEST_F(FileTest, MoveAssignmentFromAFileWithoutDescriptorCopiesItsError) {
  makeFile("a", "x");
  File target(path("a"), 0x21);
  target = File(File::FILE_ERROR_NO_SPACE);
  EXPECT_FALSE(target.IsValid());
  EXPECT_EQ(File::FILE_ERROR_NO_SPACE, target.error());
}

TEST_F(FileTest, SelfMoveAssignmentKeepsTheDescriptor) {
  makeFile("a", "x");
  File file(path("a"), 0x21);
  const int fd = file.GetPlatformFile();
  File& same = file;
  file = std::move(same);
  EXPECT_TRUE(file.IsValid());
  EXPECT_TRUE(isOpen(fd));
}

TEST_F(FileTest, TakePlatformFileHandsOverTheHolder) {
  makeFile("a", "x");
  File file(path("a"), 0x21);
  const int fd = file.GetPlatformFile();
  int* holder = file.TakePlatformFile();
  EXPECT_FALSE(file.IsValid());
  ASSERT_NE(nullptr, holder);
  EXPECT_EQ(fd, *holder);
  file.Close();
  EXPECT_TRUE(isOpen(fd));
  close(*holder);
  delete holder;
}

TEST_F(FileTest, SetPlatformFileForgetsThePreviousDescriptor) {
  makeFile("a", "x");
  makeFile("b", "y");
  File file(path("a"), 0x21);
  const int first = file.GetPlatformFile();
  const int second = open(path("b").c_str(), O_RDONLY);
  file.SetPlatformFile(new int(second));
  EXPECT_EQ(second, file.GetPlatformFile());
  EXPECT_TRUE(isOpen(first));
  close(first);
  file.Close();
  EXPECT_FALSE(isOpen(second));
  EXPECT_FALSE(file.IsValid());
  file.Close();
}

// ---------------------------------------------------------------- seeking

TEST_F(FileTest, SeekReturnsTheNewOffset) {
  File file(makeFile("a", "0123456789"), 0x21);
  EXPECT_EQ(10, file.Seek(File::WHENCE_END, 0));
  EXPECT_EQ(3, file.Seek(File::WHENCE_BEGIN, 3));
  EXPECT_EQ(5, file.Seek(File::WHENCE_CURRENT, 2));
  EXPECT_EQ(8, file.Seek(File::WHENCE_END, -2));
  EXPECT_EQ(-1, file.Seek(File::WHENCE_BEGIN, -1));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(FileTest, SeekWithoutDescriptorReturnsZero) {
  File file;
  EXPECT_EQ(0, file.Seek(File::WHENCE_END, 100));
}

// ---------------------------------------------------------------- transfers

TEST_F(FileTest, WriteAndReadAtOffsets) {
  File file(path("a"), 0x44 | 0x20);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(11, file.Write(0, "hello world", 11));
  EXPECT_EQ(3, file.Write(6, "WOR", 3));
  char buffer[16] = {};
  EXPECT_EQ(5, file.Read(6, buffer, 5));
  EXPECT_EQ("WORld", std::string(buffer, 5));
  EXPECT_EQ(0, file.Seek(File::WHENCE_CURRENT, 0));  // positional forms keep the offset
  EXPECT_EQ(0, file.Read(0, buffer, 0));
}

TEST_F(FileTest, ReadNearTheEndIsPartialAndAtOrAfterTheEndIsZero) {
  const std::string content(50, 'c');
  File file(makeFile("a", content), 0x21);
  char buffer[100];
  EXPECT_EQ(10, file.Read(40, buffer, 100));
  EXPECT_EQ(0, file.Read(50, buffer, 100));
  EXPECT_EQ(0, file.Read(60, buffer, 100));
}

TEST_F(FileTest, WritePastTheEndLeavesAHoleOfZeros) {
  File file(path("a"), 0x44 | 0x20);
  EXPECT_EQ(2, file.Write(4, "xy", 2));
  EXPECT_EQ(6, file.GetLength());
  EXPECT_EQ(std::string("\0\0\0\0xy", 6), contentOf(path("a")));
}

TEST_F(FileTest, TransfersRefuseANegativeSizeWithoutSystemCall) {
  File file(path("a"), 0x44 | 0x20);
  char buffer[4];
  errno = 0;
  EXPECT_EQ(-1, file.Read(0, buffer, -1));
  EXPECT_EQ(-1, file.ReadAtCurrentPos(buffer, -1));
  EXPECT_EQ(-1, file.Write(0, "x", -1));
  EXPECT_EQ(-1, file.WriteAtCurrentPos("x", -1));
  EXPECT_EQ(-1, file.ReadAtCurrentPosNoBestEffort(buffer, -1));
  EXPECT_EQ(-1, file.WriteAtCurrentPosNoBestEffort("x", -1));
  EXPECT_EQ(0, errno);
}

TEST_F(FileTest, ReadNoBestEffortPassesANegativeSizeToPread) {
  File file(makeFile("a", "hello"), 0x21);
  char buffer[16];
  errno = 0;
  EXPECT_EQ(-1, file.ReadNoBestEffort(0, buffer, -1));
  EXPECT_EQ(EFAULT, errno);  // a huge count reached the system call
}

TEST_F(FileTest, TransfersWithoutDescriptorReturnMinusOne) {
  File file;
  char buffer[4];
  EXPECT_EQ(-1, file.Read(0, buffer, 4));
  EXPECT_EQ(-1, file.ReadAtCurrentPos(buffer, 4));
  EXPECT_EQ(-1, file.Write(0, "x", 1));
  EXPECT_EQ(-1, file.WriteAtCurrentPos("x", 1));
  EXPECT_EQ(-1, file.ReadNoBestEffort(0, buffer, 4));
  EXPECT_EQ(-1, file.ReadAtCurrentPosNoBestEffort(buffer, 4));
  EXPECT_EQ(-1, file.WriteAtCurrentPosNoBestEffort("x", 1));
}

TEST_F(FileTest, TransfersAtTheCurrentPositionMoveIt) {
  File file(path("a"), 0x44 | 0x20);
  EXPECT_EQ(5, file.WriteAtCurrentPos("hello", 5));
  EXPECT_EQ(6, file.WriteAtCurrentPosNoBestEffort(" world", 6));
  EXPECT_EQ(11, file.Seek(File::WHENCE_CURRENT, 0));
  EXPECT_EQ(6, file.Seek(File::WHENCE_BEGIN, 6));
  char buffer[16] = {};
  EXPECT_EQ(3, file.ReadAtCurrentPos(buffer, 3));
  EXPECT_EQ("wor", std::string(buffer, 3));
  EXPECT_EQ(2, file.ReadAtCurrentPosNoBestEffort(buffer, 10));
  EXPECT_EQ("ld", std::string(buffer, 2));
  EXPECT_EQ(0, file.ReadAtCurrentPos(buffer, 10));
  EXPECT_EQ(0, file.ReadAtCurrentPosNoBestEffort(buffer, 10));
}

TEST_F(FileTest, ReadNoBestEffortReadsAtTheOffset) {
  File file(makeFile("a", "0123456789"), 0x21);
  char buffer[16] = {};
  EXPECT_EQ(4, file.ReadNoBestEffort(6, buffer, 10));
  EXPECT_EQ("6789", std::string(buffer, 4));
  EXPECT_EQ(0, file.ReadNoBestEffort(10, buffer, 10));
}

TEST_F(FileTest, WriteInAppendModeIgnoresTheOffset) {
  makeFile("a", "hello");
  File file(path("a"), 0x1 | 0x40 | 0x80);
  EXPECT_EQ(3, file.Write(0, "XYZ", 3));
  EXPECT_EQ(2, file.Write(1, "!!", 2));
  EXPECT_EQ("helloXYZ!!", contentOf(path("a")));
}

TEST_F(FileTest, WritesOnAReadOnlyDescriptorFail) {
  File file(makeFile("a", "hello"), 0x21);
  EXPECT_EQ(-1, file.Write(0, "x", 1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, file.WriteAtCurrentPos("x", 1));
  EXPECT_EQ(-1, file.WriteAtCurrentPosNoBestEffort("x", 1));
  EXPECT_EQ("hello", contentOf(path("a")));
}

TEST_F(FileTest, ReadsOnAWriteOnlyDescriptorFail) {
  File file(makeFile("a", "hello"), 0x1 | 0x40);
  char buffer[4];
  EXPECT_EQ(-1, file.Read(0, buffer, 4));
  EXPECT_EQ(-1, file.ReadAtCurrentPos(buffer, 4));
  EXPECT_EQ(-1, file.ReadNoBestEffort(0, buffer, 4));
  EXPECT_EQ(-1, file.ReadAtCurrentPosNoBestEffort(buffer, 4));
}

// ---------------------------------------------------------------- length, flush

TEST_F(FileTest, SetLengthGrowsAndShrinks) {
  File file(makeFile("a", "hello world"), 0x1 | 0x20 | 0x40);
  EXPECT_TRUE(file.SetLength(100));
  EXPECT_EQ(100, file.GetLength());
  EXPECT_TRUE(file.SetLength(3));
  EXPECT_EQ(3, file.GetLength());
  EXPECT_EQ("hel", contentOf(path("a")));
}

TEST_F(FileTest, SetLengthFailsOnAReadOnlyDescriptorOrWithoutOne) {
  File file(makeFile("a", "hello"), 0x21);
  EXPECT_FALSE(file.SetLength(1));
  EXPECT_EQ(5, file.GetLength());
  File none;
  EXPECT_FALSE(none.SetLength(1));
}

TEST_F(FileTest, FlushSucceedsOnAFileAndFailsOnAPipe) {
  File file(path("a"), 0x44);
  EXPECT_EQ(1, file.Write(0, "x", 1));
  EXPECT_TRUE(file.Flush());
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  File read_end(fds[0]);
  File write_end(fds[1]);
  EXPECT_FALSE(write_end.Flush());
  EXPECT_EQ(EINVAL, errno);
  File none;
  EXPECT_FALSE(none.Flush());
}

TEST_F(FileTest, GetLengthOfAFiveGigabyteSparseFileIsTheLowThirtyTwoBits) {
  const int fd = open(path("big").c_str(), O_CREAT | O_RDWR | O_LARGEFILE, 0600);
  ASSERT_GE(fd, 0);
  const long long size = (5LL << 30) + 123;
  ASSERT_EQ(0, ftruncate64(fd, size));
  File file(fd);
  EXPECT_EQ(static_cast<int>(size & 0xFFFFFFFFLL), file.GetLength());
  EXPECT_EQ((1 << 30) + 123, file.GetLength());
  File::Info info;
  ASSERT_TRUE(file.GetInfo(&info));
  EXPECT_EQ((1 << 30) + 123, info.size);
  struct stat64 st;
  ASSERT_EQ(0, File::Fstat(fd, &st));
  EXPECT_EQ(size, static_cast<long long>(st.st_size));
}

TEST_F(FileTest, GetLengthWithBitThirtyOneSetIsNegative) {
  const int fd = open(path("big").c_str(), O_CREAT | O_RDWR | O_LARGEFILE, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ftruncate64(fd, 6LL << 30));
  File file(fd);
  EXPECT_EQ(static_cast<int>(0x80000000u), file.GetLength());
}

TEST_F(FileTest, GetLengthAndGetInfoWithoutDescriptorFail) {
  File file;
  EXPECT_EQ(-1, file.GetLength());
  File::Info info;
  EXPECT_FALSE(file.GetInfo(&info));
  File bad(-1);
  EXPECT_EQ(-1, bad.GetLength());
  EXPECT_FALSE(bad.GetInfo(&info));
}

// ---------------------------------------------------------------- Info and stat

TEST_F(FileTest, InfoStartsAtZero) {
  const File::Info info;
  EXPECT_EQ(0, info.size);
  EXPECT_FALSE(info.isDirectory);
  EXPECT_FALSE(info.isSymbolicLink);
  EXPECT_EQ(0, info.lastModified.seconds);
  EXPECT_EQ(0, info.lastModified.nanoseconds);
  EXPECT_EQ(0, info.lastAccessed.seconds);
  EXPECT_EQ(0, info.lastAccessed.nanoseconds);
  EXPECT_EQ(0, info.creationTime.seconds);
  EXPECT_EQ(0, info.creationTime.nanoseconds);
}

TEST_F(FileTest, InfoFromStatMapsEveryField) {
  struct stat64 st = {};
  st.st_size = 0x100000005LL;
  st.st_mode = S_IFDIR | 0755;
  st.st_mtim.tv_sec = 1000;
  st.st_mtim.tv_nsec = 1;
  st.st_atim.tv_sec = 2000;
  st.st_atim.tv_nsec = 2;
  st.st_ctim.tv_sec = 3000;
  st.st_ctim.tv_nsec = 999999999;
  File::Info info;
  info.FromStat(st);
  EXPECT_EQ(5, info.size);
  EXPECT_TRUE(info.isDirectory);
  EXPECT_FALSE(info.isSymbolicLink);
  EXPECT_EQ(1000, info.lastModified.seconds);
  EXPECT_EQ(1, info.lastModified.nanoseconds);
  EXPECT_EQ(2000, info.lastAccessed.seconds);
  EXPECT_EQ(2, info.lastAccessed.nanoseconds);
  EXPECT_EQ(3000, info.creationTime.seconds);
  EXPECT_EQ(999999999, info.creationTime.nanoseconds);

  st.st_mode = S_IFLNK | 0777;
  info.FromStat(st);
  EXPECT_FALSE(info.isDirectory);
  EXPECT_TRUE(info.isSymbolicLink);
}

TEST_F(FileTest, GetInfoMatchesStat) {
  File file(makeFile("a", "twelve bytes"), 0x21);
  File::Info info;
  ASSERT_TRUE(file.GetInfo(&info));
  struct stat64 st;
  ASSERT_EQ(0, stat64(path("a").c_str(), &st));
  EXPECT_EQ(12, info.size);
  EXPECT_FALSE(info.isDirectory);
  EXPECT_FALSE(info.isSymbolicLink);
  EXPECT_EQ(st.st_mtim.tv_sec, info.lastModified.seconds);
  EXPECT_EQ(st.st_mtim.tv_nsec, info.lastModified.nanoseconds);
  EXPECT_EQ(st.st_atim.tv_sec, info.lastAccessed.seconds);
  EXPECT_EQ(st.st_atim.tv_nsec, info.lastAccessed.nanoseconds);
  EXPECT_EQ(st.st_ctim.tv_sec, info.creationTime.seconds);
  EXPECT_EQ(st.st_ctim.tv_nsec, info.creationTime.nanoseconds);
}

TEST_F(FileTest, GetInfoOfADirectory) {
  File file(dir_, 0x21);
  File::Info info;
  ASSERT_TRUE(file.GetInfo(&info));
  EXPECT_TRUE(info.isDirectory);
}

TEST_F(FileTest, GetInfoOfALinkItselfReportsASymbolicLink) {
  makeFile("target", "x");
  ASSERT_EQ(0, symlink(path("target").c_str(), path("link").c_str()));
  File file(open(path("link").c_str(), O_PATH | O_NOFOLLOW));
  File::Info info;
  ASSERT_TRUE(file.GetInfo(&info));
  EXPECT_TRUE(info.isSymbolicLink);
  EXPECT_FALSE(info.isDirectory);
}

TEST_F(FileTest, StaticStatCallsFollowOrNotFollowLinks) {
  makeFile("target", "abc");
  ASSERT_EQ(0, symlink(path("target").c_str(), path("link").c_str()));
  struct stat64 st;
  ASSERT_EQ(0, File::Stat(path("link").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(3, st.st_size);
  ASSERT_EQ(0, File::Lstat(path("link").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  const int fd = open(path("target").c_str(), O_RDONLY);
  ASSERT_EQ(0, File::Fstat(fd, &st));
  EXPECT_EQ(3, st.st_size);
  close(fd);
  EXPECT_EQ(-1, File::Stat(path("missing").c_str(), &st));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, File::Lstat(path("missing").c_str(), &st));
  EXPECT_EQ(-1, File::Fstat(-1, &st));
  EXPECT_EQ(EBADF, errno);
}

// ---------------------------------------------------------------- locks

// A child process holding a whole-file lock of type on path until released.
class LockHolder {
 public:
  LockHolder(const std::string& path, short type) {
    int ready[2];
    int release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) {
      ADD_FAILURE() << "pipe";
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(release[1]);
      const int fd = open(path.c_str(), type == F_RDLCK ? O_RDONLY : O_RDWR);
      struct flock lock = {};
      lock.l_type = type;
      lock.l_whence = SEEK_SET;
      const char status = (fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0) ? 'L' : 'E';
      if (write(ready[1], &status, 1) != 1) {
        _exit(2);
      }
      char byte;
      while (read(release[0], &byte, 1) < 0 && errno == EINTR) {
      }
      _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    release_ = release[1];
    char status = 0;
    locked_ = read(ready[0], &status, 1) == 1 && status == 'L';
    close(ready[0]);
  }

  ~LockHolder() { release(); }

  bool locked() const { return locked_; }

  // Lets the child end and waits for it.
  void release() {
    if (pid_ <= 0) {
      return;
    }
    close(release_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool locked_ = false;
};

// Tries a whole-file lock of type on path from a child process: 0 when it was granted, else
// the errno of the refusal.
int lockFromOtherProcess(const std::string& path, short type) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(path.c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    _exit(fcntl(fd, F_SETLK, &lock) == 0 ? 0 : errno);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string lockErrorLine(int error) {
  return "===========  err: " + std::to_string(error) + "  " +
         std::to_string(File::OSErrorToFileError(error)) + " \n\n\n";
}

TEST_F(FileTest, WriteLockHeldByAnotherProcessFailsAtOnceWithTheMappedError) {
  File file(makeFile("a", "x"), 0x1 | 0x20 | 0x40);
  LockHolder holder(path("a"), F_WRLCK);
  ASSERT_TRUE(holder.locked());

  const auto start = std::chrono::steady_clock::now();
  const int result = file.Lock(File::LOCK_WRITE);
  const int error = errno;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  ASSERT_TRUE(error == EAGAIN || error == EACCES) << error;
  EXPECT_EQ(File::OSErrorToFileError(error), result);
  EXPECT_NE(0, result);
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "CallFcntlFlock", lockErrorLine(error)));
  EXPECT_NE(0, file.Lock(File::LOCK_READ));

  holder.release();
  EXPECT_EQ(0, file.Lock(File::LOCK_WRITE));
}

TEST_F(FileTest, ReadLockSharesWithAnotherReaderButExcludesAWriter) {
  File file(makeFile("a", "x"), 0x1 | 0x20 | 0x40);
  LockHolder holder(path("a"), F_RDLCK);
  ASSERT_TRUE(holder.locked());
  EXPECT_EQ(0, file.Lock(File::LOCK_READ));
  EXPECT_NE(0, file.Lock(File::LOCK_WRITE));
}

TEST_F(FileTest, LockExcludesOtherProcessesUntilUnlocked) {
  File file(makeFile("a", "x"), 0x1 | 0x20 | 0x40);
  EXPECT_EQ(0, file.Lock(File::LOCK_WRITE));
  const int refused = lockFromOtherProcess(path("a"), F_RDLCK);
  EXPECT_TRUE(refused == EAGAIN || refused == EACCES) << refused;
  EXPECT_EQ(0, file.Unlock());
  EXPECT_EQ(0, lockFromOtherProcess(path("a"), F_WRLCK));

  EXPECT_EQ(0, file.Lock(File::LOCK_READ));
  EXPECT_EQ(0, lockFromOtherProcess(path("a"), F_RDLCK));
  EXPECT_NE(0, lockFromOtherProcess(path("a"), F_WRLCK));
  EXPECT_EQ(0, file.Lock(File::LOCK_NONE));
  EXPECT_EQ(0, lockFromOtherProcess(path("a"), F_WRLCK));
  EXPECT_TRUE(LogCapture::entries().empty()) << LogCapture::allText();
}

TEST_F(FileTest, UnknownLockModeReleases) {
  File file(makeFile("a", "x"), 0x1 | 0x20 | 0x40);
  EXPECT_EQ(0, file.Lock(File::LOCK_WRITE));
  EXPECT_EQ(0, file.Lock(static_cast<File::LockMode>(7)));
  EXPECT_EQ(0, lockFromOtherProcess(path("a"), F_WRLCK));
}

TEST_F(FileTest, LockOfTheWrongAccessModeIsRefusedAndLogged) {
  File file(makeFile("a", "x"), 0x21);
  EXPECT_EQ(File::FILE_ERROR_FAILED, file.Lock(File::LOCK_WRITE));
  EXPECT_TRUE(LoggedOnceFrom(1000, "file_posix.cpp", "CallFcntlFlock", lockErrorLine(EBADF)));
}

TEST_F(FileTest, LockAndUnlockWithoutDescriptorReturnMinusOne) {
  File file;
  EXPECT_EQ(-1, file.Lock(File::LOCK_WRITE));
  EXPECT_EQ(-1, file.Unlock());
  EXPECT_TRUE(LogCapture::entries().empty());
}

}  // namespace
