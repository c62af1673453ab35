// The three file-time queries against stat: nanoseconds, directories, missing paths and files
// the caller cannot read.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/utils/file.h"
#include "log_capture.h"

namespace {

using velmora::base::utils::getFileAccessTime;
using velmora::base::utils::getFileCreateTime;
using velmora::base::utils::getFileModifyTime;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;

double secondsOf(const struct timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Sets the access and modification times of path.
void setTimes(const std::string& path, struct timespec access, struct timespec modify) {
  const struct timespec times[2] = {access, modify};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

class FileTimesTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    char pattern[] = "/tmp/velmora-times-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
    file_ = dir_ + "/file";
    const int fd = open(file_.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }

  void TearDown() override {
    const std::string command = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  std::string dir_;
  std::string file_;
};

TEST_F(FileTimesTest, ModifyTimeCarriesTheNanosecondsAsFraction) {
  setTimes(file_, {1600000000, 500000000}, {1700000000, 250000000});
  EXPECT_EQ(1700000000.25, getFileModifyTime(file_));
  EXPECT_EQ(1600000000.5, getFileAccessTime(file_));
}

TEST_F(FileTimesTest, AllThreeTimesMatchStatToTheNanosecond) {
  setTimes(file_, {1500000000, 123456789}, {1400000000, 987654321});
  struct stat st;
  ASSERT_EQ(0, stat(file_.c_str(), &st));
  EXPECT_EQ(secondsOf(st.st_atim), getFileAccessTime(file_));
  EXPECT_EQ(secondsOf(st.st_mtim), getFileModifyTime(file_));
  EXPECT_EQ(secondsOf(st.st_ctim), getFileCreateTime(file_));
  EXPECT_EQ(1500000000.0 + 123456789 * 1e-9, getFileAccessTime(file_));
  EXPECT_EQ(1400000000.0 + 987654321 * 1e-9, getFileModifyTime(file_));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(FileTimesTest, CreateTimeIsTheStatusChangeTime) {
  setTimes(file_, {1000, 0}, {2000, 0});
  ASSERT_EQ(0, chmod(file_.c_str(), 0640));  // changes the status-change time only
  struct stat st;
  ASSERT_EQ(0, stat(file_.c_str(), &st));
  EXPECT_EQ(secondsOf(st.st_ctim), getFileCreateTime(file_));
  EXPECT_GT(getFileCreateTime(file_), 2000.0);
  EXPECT_EQ(2000.0, getFileModifyTime(file_));
}

TEST_F(FileTimesTest, DirectoryYieldsItsTimes) {
  setTimes(dir_, {1100000000, 1}, {1200000000, 2});
  struct stat st;
  ASSERT_EQ(0, stat(dir_.c_str(), &st));
  EXPECT_EQ(secondsOf(st.st_atim), getFileAccessTime(dir_));
  EXPECT_EQ(secondsOf(st.st_mtim), getFileModifyTime(dir_));
  EXPECT_EQ(secondsOf(st.st_ctim), getFileCreateTime(dir_));
  EXPECT_EQ(1200000000.0 + 2e-9, getFileModifyTime(dir_));
}

TEST_F(FileTimesTest, MissingPathYieldsMinusOneFromAllThree) {
  const std::string missing = dir_ + "/missing";
  EXPECT_EQ(-1.0, getFileCreateTime(missing));
  EXPECT_EQ(-1.0, getFileAccessTime(missing));
  EXPECT_EQ(-1.0, getFileModifyTime(missing));
  EXPECT_EQ(-1.0, getFileModifyTime(""));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(FileTimesTest, QueriesLeaveNoDescriptorOpen) {
  const int before = open("/dev/null", O_RDONLY);
  close(before);
  for (int i = 0; i < 100; ++i) {
    getFileCreateTime(file_);
    getFileAccessTime(file_);
    getFileModifyTime(file_);
  }
  const int after = open("/dev/null", O_RDONLY);
  close(after);
  EXPECT_EQ(before, after);
}

// Exit codes of the unprivileged child.
enum ChildResult { kAllMinusOne = 0, kCannotDrop = 10, kStatFailed = 11, kTimeReturned = 12 };

// In a child process without privileges: stat can read the times of path, the queries cannot.
int unreadableCheckInChild(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
      _exit(kCannotDrop);
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      _exit(kStatFailed);
    }
    if (getFileCreateTime(path) != -1.0 || getFileAccessTime(path) != -1.0 ||
        getFileModifyTime(path) != -1.0) {
      _exit(kTimeReturned);
    }
    _exit(kAllMinusOne);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FileTimesTest, FileThatCannotBeReadYieldsMinusOneAlthoughStatWorks) {
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  ASSERT_EQ(0, chmod(file_.c_str(), geteuid() == 0 ? 0600 : 0200));
  const int result = unreadableCheckInChild(file_);
  if (result == kCannotDrop) {
    GTEST_SKIP() << "running as root without the right to drop privileges (setuid failed)";
  }
  EXPECT_EQ(kAllMinusOne, result);
  struct stat st;
  ASSERT_EQ(0, stat(file_.c_str(), &st));
  EXPECT_EQ(secondsOf(st.st_mtim), getFileModifyTime(file_)) << "readable by the test itself";
}

TEST_F(FileTimesTest, DirectoryThatCannotBeReadYieldsMinusOne) {
  const std::string closed = dir_ + "/closed";
  ASSERT_EQ(0, mkdir(closed.c_str(), 0711));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  if (geteuid() != 0) {
    ASSERT_EQ(0, chmod(closed.c_str(), 0311));
  }
  const int result = unreadableCheckInChild(closed);
  if (result == kCannotDrop) {
    GTEST_SKIP() << "running as root without the right to drop privileges (setuid failed)";
  }
  EXPECT_EQ(kAllMinusOne, result);
  ASSERT_EQ(0, chmod(closed.c_str(), 0755));
}

}  // namespace
