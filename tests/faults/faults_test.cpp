// Failures of the system calls that no other suite provokes: lseek (File::Seek), opendir, stat,
// rmdir (rmDir), access (isPathExists), fopen and fread (showFileContents) and the creation of a
// std::thread (an event hub's handler thread, the simple-timer engine's handler threads). Each
// call is interposed in this executable and made to fail on demand, only for the paths,
// descriptors or calls the test names; the test asserts the return value and the exact log line
// that the failure must produce, or that the failure propagates as documented.
//
// The interposers define the C library's own symbols, so the inline wrappers that
// _FORTIFY_SOURCE declares for some of them (fread) must not be in scope here.
#undef _FORTIFY_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "base/debug/debug_memory.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/simple_timer/timer.h"
#include "base/utils.h"
#include "base/utils/file.h"
#include "interpose.h"
#include "log_capture.h"

namespace {

using velmora::testing::Fault;

// The folder whose paths the path-based interposers fail; empty: none.
std::mutex g_rootMutex;
std::string g_failingRoot;

bool underFailingRoot(const char* path) {
  std::lock_guard<std::mutex> lock(g_rootMutex);
  return path != nullptr && !g_failingRoot.empty() &&
         strncmp(path, g_failingRoot.c_str(), g_failingRoot.size()) == 0;
}

Fault g_lseekFault;
std::atomic<int> g_lseekFd{-1};
Fault g_opendirFault;
Fault g_statFault;
Fault g_rmdirFault;
Fault g_accessFault;
Fault g_fopenFault;
Fault g_freadFault;
Fault g_threadFault;

}  // namespace

#define FAULTS_INTERPOSER extern "C" __attribute__((visibility("default")))

FAULTS_INTERPOSER off_t lseek(int fd, off_t offset, int whence) {
  if (fd == g_lseekFd.load() && g_lseekFault.shouldFail()) {
    errno = ESPIPE;
    return -1;
  }
  return VELMORA_REAL(lseek)(fd, offset, whence);
}

FAULTS_INTERPOSER DIR* opendir(const char* path) {
  if (underFailingRoot(path) && g_opendirFault.shouldFail()) {
    errno = EMFILE;
    return nullptr;
  }
  return VELMORA_REAL(opendir)(path);
}

FAULTS_INTERPOSER int stat64(const char* path, struct stat64* buf) {
  if (underFailingRoot(path) && g_statFault.shouldFail()) {
    errno = EACCES;
    return -1;
  }
  return VELMORA_REAL(stat64)(path, buf);
}

FAULTS_INTERPOSER int rmdir(const char* path) {
  if (underFailingRoot(path) && g_rmdirFault.shouldFail()) {
    errno = EBUSY;
    return -1;
  }
  return VELMORA_REAL(rmdir)(path);
}

FAULTS_INTERPOSER int access(const char* path, int mode) {
  if (underFailingRoot(path) && g_accessFault.shouldFail()) {
    errno = EACCES;
    return -1;
  }
  return VELMORA_REAL(access)(path, mode);
}

FAULTS_INTERPOSER FILE* fopen(const char* path, const char* mode) {
  if (underFailingRoot(path) && g_fopenFault.shouldFail()) {
    errno = EMFILE;
    return nullptr;
  }
  return VELMORA_REAL(fopen)(path, mode);
}

FAULTS_INTERPOSER size_t fread(void* data, size_t size, size_t count, FILE* file) {
  if (g_freadFault.shouldFail()) {
    errno = EIO;
    return 0;
  }
  return VELMORA_REAL(fread)(data, size, count, file);
}

// std::thread starts its threads through pthread_create.
FAULTS_INTERPOSER int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*entry)(void*), void* argument) {
  if (g_threadFault.shouldFail()) {
    return EAGAIN;
  }
  return VELMORA_REAL(pthread_create)(thread, attributes, entry, argument);
}

namespace {

using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LogEntry;

// Whether text is "[<tag>] <file>:<digits>:<function>(): <message>" (the line number of these
// statements is not pinned).
bool isLine(const std::string& text, const std::string& tag, const std::string& file,
            const std::string& function, const std::string& message) {
  const std::string head = "[" + tag + "] " + file + ":";
  const std::string tail = ":" + function + "(): " + message;
  if (text.size() <= head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
      text.compare(text.size() - tail.size(), tail.size(), tail) != 0) {
    return false;
  }
  for (size_t i = head.size(); i < text.size() - tail.size(); ++i) {
    if (!isdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

// Exactly one such line, at this level and for module 95.
::testing::AssertionResult LoggedOnceAt(uint16_t level, const std::string& file,
                                        const std::string& function, const std::string& message,
                                        const std::string& tag = "B-LOG") {
  size_t matches = 0;
  bool rightFrame = true;
  for (const LogEntry& entry : LogCapture::entries()) {
    if (isLine(entry.text, tag, file, function, message)) {
      ++matches;
      rightFrame = rightFrame && entry.level == level && entry.module == 95;
    }
  }
  if (matches == 1 && rightFrame) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "expected once at level " << level << ": \"[" << tag << "] " << file
         << ":<line>:" << function << "(): " << message << "\", found " << matches
         << (rightFrame ? "" : " (wrong level or module)") << "; all output:\n"
         << LogCapture::allText();
}

std::string errorText(int error) {
  return strerror(error);
}

// A fresh folder under /tmp whose paths the interposers may fail.
class FaultTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    char pattern[] = "/tmp/velmora-faults-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    root_ = pattern;
    std::lock_guard<std::mutex> lock(g_rootMutex);
    g_failingRoot = root_;
  }

  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(g_rootMutex);
      g_failingRoot.clear();
    }
    for (Fault* fault : {&g_lseekFault, &g_opendirFault, &g_statFault, &g_rmdirFault,
                         &g_accessFault, &g_fopenFault, &g_freadFault, &g_threadFault}) {
      fault->off();
    }
    const std::string command = "rm -rf '" + root_ + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  std::string path(const std::string& name) const { return root_ + "/" + name; }

  void makeFile(const std::string& name, const std::string& content) {
    FILE* file = VELMORA_REAL(fopen)(path(name).c_str(), "wb");
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(content.size(), fwrite(content.data(), 1, content.size(), file));
    ASSERT_EQ(0, fclose(file));
  }

  void makeFolder(const std::string& name) { ASSERT_EQ(0, mkdir(path(name).c_str(), 0700)); }

  bool exists(const std::string& name) const {
    struct stat64 st;
    return VELMORA_REAL(stat64)(path(name).c_str(), &st) == 0;
  }

  std::string root_;
};

// --- lseek ---

using velmora::base::utils::File;

TEST_F(FaultTest, SeekReturnsTheFailedLseekResultAndLeavesErrno) {
  makeFile("data", "0123456789");
  File file(path("data"), File::FILE_FLAG_OPEN | File::FILE_FLAG_READ);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(4, file.Seek(File::WHENCE_BEGIN, 4));

  g_lseekFd.store(file.GetPlatformFile());
  g_lseekFault.failNext();
  errno = 0;
  EXPECT_EQ(-1, file.Seek(File::WHENCE_CURRENT, 2));
  EXPECT_EQ(ESPIPE, errno);
  EXPECT_EQ(1, g_lseekFault.failures());
  g_lseekFd.store(-1);

  EXPECT_EQ(6, file.Seek(File::WHENCE_CURRENT, 2)) << "the failed seek moved nothing";
  EXPECT_EQ("", LogCapture::allText()) << "a seek logs nothing";
}

// --- opendir, stat and rmdir in rmDir ---

TEST_F(FaultTest, RmDirReportsAFolderItCannotOpenWithMinusTwo) {
  makeFolder("tree");
  makeFile("tree/a", "x");
  g_opendirFault.failAlways();

  EXPECT_EQ(-2, velmora::base::rmDir(path("tree").c_str()));

  EXPECT_TRUE(
      LoggedOnceAt(1000, "utils.cpp", "rmDir", "Fail to opendir('" + path("tree") + "').\n\n"));
  EXPECT_TRUE(exists("tree/a")) << "nothing was removed";
}

TEST_F(FaultTest, RmDirGoesOnPastAnEntryItCannotStatAndThenCannotRemoveTheFolder) {
  makeFolder("tree");
  makeFile("tree/a", "x");
  g_statFault.failNext();

  EXPECT_EQ(-3, velmora::base::rmDir(path("tree").c_str()));

  EXPECT_EQ(1, g_statFault.failures());
  EXPECT_TRUE(LoggedOnceAt(1000, "utils.cpp", "rmDir",
                           "Fail to get stat of path.error:(" + std::to_string(EACCES) + "-'" +
                               errorText(EACCES) + "').\n\n"));
  EXPECT_TRUE(LoggedOnceAt(1000, "utils.cpp", "rmDir",
                           "Fail to delete dir:'" + path("tree") + "', error:(" +
                               std::to_string(ENOTEMPTY) + "-'" + errorText(ENOTEMPTY) +
                               "').\n\n"));
  EXPECT_TRUE(exists("tree/a")) << "the entry that could not be examined is left";
}

TEST_F(FaultTest, RmDirSkipsTheUnstattableEntryButRemovesTheOthers) {
  makeFolder("tree");
  makeFolder("tree/sub");
  makeFile("tree/sub/b", "y");
  makeFile("tree/c", "z");
  // Only the first stat fails, whichever entry readdir gives first; the rest is removed.
  g_statFault.failNext();

  EXPECT_EQ(-3, velmora::base::rmDir(path("tree").c_str()));

  EXPECT_EQ(1, g_statFault.failures());
  EXPECT_NE(exists("tree/sub"), exists("tree/c")) << "exactly one of the two entries is left";
  EXPECT_TRUE(exists("tree"));
}

TEST_F(FaultTest, RmDirReportsAFolderItCannotRemoveWithMinusThree) {
  makeFolder("empty");
  g_rmdirFault.failAlways();

  EXPECT_EQ(-3, velmora::base::rmDir(path("empty").c_str()));

  EXPECT_TRUE(LoggedOnceAt(1000, "utils.cpp", "rmDir",
                           "Fail to delete dir:'" + path("empty") + "', error:(" +
                               std::to_string(EBUSY) + "-'" + errorText(EBUSY) + "').\n\n"));
  g_rmdirFault.off();
  EXPECT_TRUE(exists("empty"));
}

TEST_F(FaultTest, RmDirIgnoresTheResultOfASubfolderItCannotRemove) {
  makeFolder("tree");
  makeFolder("tree/sub");
  g_rmdirFault.failNext();  // the deepest folder is removed first

  EXPECT_EQ(-3, velmora::base::rmDir(path("tree").c_str()));

  EXPECT_TRUE(LoggedOnceAt(1000, "utils.cpp", "rmDir",
                           "Fail to delete dir:'" + path("tree/sub") + "', error:(" +
                               std::to_string(EBUSY) + "-'" + errorText(EBUSY) + "').\n\n"));
  EXPECT_TRUE(LoggedOnceAt(1000, "utils.cpp", "rmDir",
                           "Fail to delete dir:'" + path("tree") + "', error:(" +
                               std::to_string(ENOTEMPTY) + "-'" + errorText(ENOTEMPTY) +
                               "').\n\n"));
}

// --- access in isPathExists ---

TEST_F(FaultTest, IsPathExistsIsFalseAndLogsWhenAccessFails) {
  makeFile("present", "x");
  g_accessFault.failAlways();

  EXPECT_FALSE(velmora::base::isPathExists(path("present").c_str()));

  EXPECT_TRUE(LoggedOnceAt(
      1000, "utils.cpp", "isPathExists",
      "filePath:'" + path("present") + "', ret:-1, error:'" + errorText(EACCES) + "'.\n"));
  g_accessFault.off();
  EXPECT_TRUE(velmora::base::isPathExists(path("present").c_str()));
}

// --- fopen and fread in showFileContents ---

TEST_F(FaultTest, ShowFileContentsLogsAFileItCannotOpenAndPrintsNothing) {
  velmora::base::debug::debug_init();  // the text buffer exists from here on
  makeFile("info", "MemTotal: 1 kB\n");
  g_fopenFault.failAlways();

  ::testing::internal::CaptureStdout();
  velmora::base::debug::showFileContents("Info:", path("info").c_str());
  const std::string printed = ::testing::internal::GetCapturedStdout();

  EXPECT_EQ(1, g_fopenFault.failures());
  EXPECT_TRUE(LoggedOnceAt(1000, "debug_memory.cpp", "showFileContents",
                           "Error opening " + path("info") + "\n"));
  EXPECT_EQ("", printed);
  EXPECT_EQ(0u, LogCapture::countContaining("==Info:=="));
}

TEST_F(FaultTest, ShowFileContentsLogsAFileItCannotReadAndPrintsNothing) {
  velmora::base::debug::debug_init();
  makeFile("info", "MemTotal: 1 kB\n");
  g_freadFault.failNext();

  ::testing::internal::CaptureStdout();
  velmora::base::debug::showFileContents("Info:", path("info").c_str());
  const std::string printed = ::testing::internal::GetCapturedStdout();

  EXPECT_EQ(1, g_freadFault.failures());
  EXPECT_TRUE(LoggedOnceAt(1000, "debug_memory.cpp", "showFileContents",
                           "Error reading " + path("info") + "\n"));
  EXPECT_EQ("", printed);
  EXPECT_EQ(0u, LogCapture::countContaining("==Info:=="));
}

TEST_F(FaultTest, ShowFileContentsWorksAgainOnceReadingSucceeds) {
  velmora::base::debug::debug_init();
  makeFile("info", "MemTotal: 1 kB\n");
  g_freadFault.failNext();
  ::testing::internal::CaptureStdout();
  velmora::base::debug::showFileContents("Info:", path("info").c_str());
  velmora::base::debug::showFileContents("Info:", path("info").c_str());
  const std::string printed = ::testing::internal::GetCapturedStdout();

  EXPECT_NE(std::string::npos, printed.find("==Info:==\n MemTotal: 1 kB\n")) << printed;
  EXPECT_EQ(1u, LogCapture::countContaining("==Info:==\n MemTotal: 1 kB\n"));
}

// --- std::thread creation in an event hub ---

namespace ev = velmora::base::event_dispatcher;

TEST_F(FaultTest, HubHandlerThreadThatCannotStartThrowsAndRegistersNothing) {
  ev::EventHub hub(7);
  g_threadFault.failNext();

  EXPECT_THROW(hub.registerHandler(3, [](std::shared_ptr<ev::BrowserEvent>) {}), std::system_error);

  EXPECT_EQ(1, g_threadFault.failures());
  EXPECT_EQ(-1, hub.receiveEvent(hub.createEvent(3))) << "no handler was registered";
  // Nothing was logged for the failure: the exception is the report.
  EXPECT_EQ(0u, LogCapture::countContaining("Fail to create EventHandlerThread."));
}

TEST_F(FaultTest, HubStartsItsThreadAtTheNextRegistrationAfterAFailedStart) {
  ev::EventHub hub(7);
  g_threadFault.failNext();
  EXPECT_THROW(hub.registerHandler(3, [](std::shared_ptr<ev::BrowserEvent>) {}), std::system_error);

  std::mutex mutex;
  std::condition_variable handled;
  int calls = 0;
  // The thread mutex was released by the failed call, or this would block for ever.
  EXPECT_EQ(0, hub.registerHandler(3, [&](std::shared_ptr<ev::BrowserEvent>) {
    std::lock_guard<std::mutex> lock(mutex);
    ++calls;
    handled.notify_all();
  }));
  ASSERT_EQ(0, ev::evtdispch_register_hub(&hub));
  EXPECT_EQ(0, hub.sendEvent(hub.createEvent(3), 7));
  {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(handled.wait_for(lock, std::chrono::seconds(10), [&] { return calls == 1; }));
  }
  EXPECT_EQ(0, ev::evtdispch_unregister_hub(&hub));
  EXPECT_EQ(1, calls);
}

// --- std::thread creation in the simple-timer engine ---

namespace st = velmora::base::simple_timer;

// The engine starts a thread for each expiry and does not catch a failure to do so: the
// exception leaves the engine thread and ends the process.
TEST(FaultDeathTest, SimpleTimerExpiryWhoseHandlerThreadCannotStartEndsTheProcess) {
  EXPECT_DEATH(
      {
        std::mutex mutex;
        std::condition_variable fired;
        bool called = false;
        st::Timer timer(
            "doomed", st::TimeoutTime{0, 1, 0},
            [&](st::Timer*, void*) {
              std::lock_guard<std::mutex> lock(mutex);
              called = true;
              fired.notify_all();
            },
            nullptr, st::ONCE);  // the engine thread exists from here on
        g_threadFault.failAlways();
        timer.start();
        std::unique_lock<std::mutex> lock(mutex);
        fired.wait_for(lock, std::chrono::seconds(10), [&] { return called; });
        g_threadFault.off();
        fprintf(stderr, "the process survived the failed thread start\n");
      },
      "std::system_error");
}

// The number of descriptors this process has open.
int openDescriptorCount() {
  int count = 0;
  DIR* folder = opendir("/proc/self/fd");
  while (folder != nullptr && readdir(folder) != nullptr) {
    ++count;
  }
  if (folder != nullptr) {
    closedir(folder);
  }
  return count;
}

// The engine thread is started by the first Timer, and a failure to start it is not caught: the
// std::system_error leaves the constructor, and the pipe made for the engine is closed again.
// (That a later Timer tries again is the simple-timer fault sweep's to check.)
TEST(FaultEngineTest, TimerConstructorPassesOnAFailureToStartTheEngineThread) {
  velmora::testing::LogCapture::reset();
  const int descriptors_before = openDescriptorCount();
  g_threadFault.failNext();
  EXPECT_THROW(st::Timer(
                   "first", st::TimeoutTime{0, 1, 0}, [](st::Timer*, void*) {}, nullptr, st::ONCE),
               std::system_error);
  EXPECT_EQ(1, g_threadFault.failures());
  g_threadFault.off();
  EXPECT_EQ(descriptors_before, openDescriptorCount());
}

}  // namespace
