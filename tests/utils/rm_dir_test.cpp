// Recursive folder removal on real trees in a temporary folder: what is removed, what is left,
// the return codes and the log lines.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "base/utils.h"
#include "interpose.h"
#include "log_capture.h"
#include "log_line.h"

namespace {
// unlink fails with EACCES for paths whose last component is this name.
std::mutex g_unlink_mutex;
std::string g_undeletable_name;

bool isUndeletable(const char* path) {
  std::lock_guard<std::mutex> lock(g_unlink_mutex);
  if (g_undeletable_name.empty()) {
    return false;
  }
  const char* slash = strrchr(path, '/');
  return g_undeletable_name == (slash != nullptr ? slash + 1 : path);
}
}  // namespace

extern "C" __attribute__((visibility("default"))) int unlink(const char* path) {
  if (isUndeletable(path)) {
    errno = EACCES;
    return -1;
  }
  return VELMORA_REAL(unlink)(path);
}

namespace {

using velmora::base::rmDir;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnceFrom;

class RmDirTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    char pattern[] = "/tmp/velmora-rmdir-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    root_ = pattern;
  }

  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(g_unlink_mutex);
      g_undeletable_name.clear();
    }
    const std::string command = "rm -rf '" + root_ + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  std::string path(const std::string& relative) const { return root_ + "/" + relative; }

  void makeDir(const std::string& relative) const {
    ASSERT_EQ(0, mkdir(path(relative).c_str(), 0755)) << relative;
  }

  void makeFile(const std::string& relative) const {
    const int fd = open(path(relative).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << relative;
    ASSERT_EQ(5, write(fd, "hello", 5));
    close(fd);
  }

  static bool exists(const std::string& full_path) {
    struct stat st;
    return lstat(full_path.c_str(), &st) == 0;
  }

  static std::string notEmptyLine(const std::string& dir) {
    return "Fail to delete dir:'" + dir + "', error:(" + std::to_string(ENOTEMPTY) + "-'" +
           strerror(ENOTEMPTY) + "').\n\n";
  }

  std::string root_;
};

TEST_F(RmDirTest, NullPathLogsAndReturnsMinusOne) {
  EXPECT_EQ(-1, rmDir(nullptr));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", "dirPath is NULL.\n\n"));
  EXPECT_EQ(1u, LogCapture::entries().size());
}

TEST_F(RmDirTest, MissingFolderLogsAndReturnsMinusTwo) {
  const std::string missing = path("missing");
  EXPECT_EQ(-2, rmDir(missing.c_str()));
  EXPECT_TRUE(
      LoggedOnceFrom(1000, "utils.cpp", "rmDir", "Fail to opendir('" + missing + "').\n\n"));
}

TEST_F(RmDirTest, RegularFileIsNotAFolderAndReturnsMinusTwo) {
  makeFile("plain");
  EXPECT_EQ(-2, rmDir(path("plain").c_str()));
  EXPECT_TRUE(exists(path("plain")));
}

TEST_F(RmDirTest, EmptyFolderIsRemoved) {
  makeDir("empty");
  EXPECT_EQ(0, rmDir(path("empty").c_str()));
  EXPECT_FALSE(exists(path("empty")));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(RmDirTest, TreeOfNestedFoldersAndFilesIsRemovedCompletely) {
  makeDir("tree");
  makeDir("tree/a");
  makeDir("tree/a/b");
  makeDir("tree/a/b/c");
  makeDir("tree/empty");
  makeFile("tree/top.txt");
  makeFile("tree/a/one");
  makeFile("tree/a/b/two");
  makeFile("tree/a/b/c/three");
  makeFile("tree/.hidden");
  EXPECT_EQ(0, rmDir(path("tree").c_str()));
  EXPECT_FALSE(exists(path("tree")));
  EXPECT_TRUE(LogCapture::entries().empty()) << LogCapture::allText();
}

TEST_F(RmDirTest, FifoIsLoggedAndLeftSoTheFolderStays) {
  makeDir("tree");
  makeDir("tree/sub");
  makeFile("tree/file");
  makeFile("tree/sub/file");
  const std::string fifo = path("tree/fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
  struct stat st;
  ASSERT_EQ(0, stat(fifo.c_str(), &st));

  EXPECT_EQ(-3, rmDir(path("tree").c_str()));

  EXPECT_TRUE(exists(fifo));
  EXPECT_FALSE(exists(path("tree/file")));
  EXPECT_FALSE(exists(path("tree/sub")));
  EXPECT_TRUE(
      LoggedOnceFrom(5000, "utils.cpp", "rmDir",
                     "name:'" + fifo + "', MODE:" + std::to_string(st.st_mode) + ", ISOTHER.\n\n"));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree"))));
  EXPECT_EQ(2u, LogCapture::entries().size()) << LogCapture::allText();
}

TEST_F(RmDirTest, FifoInANestedFolderKeepsEveryFolderAboveIt) {
  makeDir("tree");
  makeDir("tree/a");
  makeDir("tree/a/b");
  makeFile("tree/a/b/file");
  makeFile("tree/other");
  ASSERT_EQ(0, mkfifo(path("tree/a/b/fifo").c_str(), 0600));

  EXPECT_EQ(-3, rmDir(path("tree").c_str()));

  EXPECT_TRUE(exists(path("tree/a/b/fifo")));
  EXPECT_FALSE(exists(path("tree/a/b/file")));
  EXPECT_FALSE(exists(path("tree/other")));
  // Each level logs its own failure; the nested results are ignored by the level above.
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree/a/b"))));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree/a"))));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree"))));
  EXPECT_EQ(4u, LogCapture::entries().size()) << LogCapture::allText();
}

TEST_F(RmDirTest, FileThatCannotBeDeletedIsLoggedAndTheRestRemoved) {
  makeDir("tree");
  makeDir("tree/sub");
  makeFile("tree/sub/keep.dat");
  makeFile("tree/sub/gone.dat");
  makeFile("tree/gone2.dat");
  {
    std::lock_guard<std::mutex> lock(g_unlink_mutex);
    g_undeletable_name = "keep.dat";
  }

  EXPECT_EQ(-3, rmDir(path("tree").c_str()));

  EXPECT_TRUE(exists(path("tree/sub/keep.dat")));
  EXPECT_FALSE(exists(path("tree/sub/gone.dat")));
  EXPECT_FALSE(exists(path("tree/gone2.dat")));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir",
                             "Fail to delete:'" + path("tree/sub/keep.dat") + "', error:(" +
                                 std::to_string(EACCES) + "-'" + strerror(EACCES) + "').\n\n"));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree/sub"))));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree"))));
}

TEST_F(RmDirTest, DanglingSymbolicLinkCannotBeStatedAndStays) {
  makeDir("tree");
  ASSERT_EQ(0, symlink(path("nowhere").c_str(), path("tree/dangling").c_str()));

  EXPECT_EQ(-3, rmDir(path("tree").c_str()));

  EXPECT_TRUE(exists(path("tree/dangling")));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir",
                             "Fail to get stat of path.error:(" + std::to_string(ENOENT) + "-'" +
                                 strerror(ENOENT) + "').\n\n"));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree"))));
}

TEST_F(RmDirTest, SymbolicLinkToAFolderIsFollowedAndEmptiesThatFolder) {
  makeDir("tree");
  makeDir("outside");
  makeFile("outside/victim");
  ASSERT_EQ(0, symlink(path("outside").c_str(), path("tree/link").c_str()));

  EXPECT_EQ(-3, rmDir(path("tree").c_str()));

  EXPECT_FALSE(exists(path("outside/victim")));
  EXPECT_TRUE(exists(path("outside")));
  EXPECT_TRUE(exists(path("tree/link")));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir",
                             "Fail to delete dir:'" + path("tree/link") + "', error:(" +
                                 std::to_string(ENOTDIR) + "-'" + strerror(ENOTDIR) + "').\n\n"));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "rmDir", notEmptyLine(path("tree"))));
}

}  // namespace
