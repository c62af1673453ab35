// Memory debug: the switch variable, the shared buffer and the file display. Every test case
// runs in its own process, so the globals start at 0 and null in each.
#include "base/debug/debug_memory.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/logging.h"
#include "log_capture.h"

namespace {

namespace debug = velmora::base::debug;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;

constexpr const char* kVariable = "SHOW_MEMORY_DEBUG_INFO";

// A file in a fresh temporary directory, removed afterwards.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& contents) {
    char pattern[] = "/tmp/debug_memory_test.XXXXXX";
    const int fd = mkstemp(pattern);
    path_ = pattern;
    if (fd >= 0) {
      if (!contents.empty()) {
        EXPECT_EQ(write(fd, contents.data(), contents.size()),
                  static_cast<ssize_t>(contents.size()));
      }
      close(fd);
    }
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

// What showFileContents printed to standard output.
std::string shownOnStdout(const char* title, const char* path) {
  ::testing::internal::CaptureStdout();
  debug::showFileContents(title, path);
  fflush(stdout);
  return ::testing::internal::GetCapturedStdout();
}

// Reads a run of decimal digits at position (exactly that many when exactly is not 0).
bool skipDigits(const std::string& text, size_t& position, size_t exactly = 0) {
  const size_t start = position;
  while (position < text.size() && isdigit(static_cast<unsigned char>(text[position]))) {
    ++position;
  }
  return position > start && (exactly == 0 || position - start == exactly);
}

bool skipText(const std::string& text, size_t& position, const std::string& expected) {
  if (text.compare(position, expected.size(), expected) != 0) {
    return false;
  }
  position += expected.size();
  return true;
}

// Whether text is before, a decimal line number, then after.
bool isLineWithNumber(const std::string& text, const std::string& before,
                      const std::string& after) {
  size_t position = 0;
  return skipText(text, position, before) && skipDigits(text, position) &&
         text.substr(position) == after;
}

// Whether shown is exactly "{bootID-seconds.micros}[B-LOG] debug_memory.cpp:N:showFileContents():
// ==title==\n text\n", whatever the time and the line number.
bool isShownLine(const std::string& shown, const std::string& title, const std::string& text) {
  size_t position = 0;
  return skipText(shown, position,
                  "{" + std::to_string(static_cast<int>(velmora::base::bootID())) + "-") &&
         skipDigits(shown, position) && skipText(shown, position, ".") &&
         skipDigits(shown, position, 6) &&
         isLineWithNumber(shown.substr(position), "}[B-LOG] debug_memory.cpp:",
                          ":showFileContents(): ==" + title + "==\n " + text + "\n");
}

class DebugMemoryTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    unsetenv(kVariable);
  }
};

TEST_F(DebugMemoryTest, GlobalsStartCleared) {
  EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 0);
  EXPECT_EQ(debug::g_brovana_memory_debug_info, nullptr);
  EXPECT_FALSE(debug::debug_memory_debug_enabled());
}

TEST_F(DebugMemoryTest, UpperCaseTrueSwitchesDebuggingOn) {
  setenv(kVariable, "TRUE", 1);
  EXPECT_TRUE(debug::debug_init());
  EXPECT_TRUE(debug::debug_memory_debug_enabled());
  EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 1);
}

TEST_F(DebugMemoryTest, OneSwitchesDebuggingOn) {
  setenv(kVariable, "1", 1);
  EXPECT_TRUE(debug::debug_init());
  EXPECT_TRUE(debug::debug_memory_debug_enabled());
  EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 1);
}

TEST_F(DebugMemoryTest, LowerCaseTrueSwitchesDebuggingOn) {
  setenv(kVariable, "true", 1);
  EXPECT_TRUE(debug::debug_init());
  EXPECT_TRUE(debug::debug_memory_debug_enabled());
  EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 1);
}

TEST_F(DebugMemoryTest, OtherSpellingsLeaveDebuggingOff) {
  for (const char* value : {"True", "yes", "YES", "0", "", "2", "TRUE ", " true", "false"}) {
    setenv(kVariable, value, 1);
    EXPECT_FALSE(debug::debug_init()) << "'" << value << "'";
    EXPECT_FALSE(debug::debug_memory_debug_enabled()) << "'" << value << "'";
    EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 0);
  }
}

TEST_F(DebugMemoryTest, UnsetVariableIsFalseButTheBufferIsAllocated) {
  EXPECT_FALSE(debug::debug_init());
  EXPECT_FALSE(debug::debug_memory_debug_enabled());
  EXPECT_NE(debug::g_brovana_memory_debug_info, nullptr);
}

TEST_F(DebugMemoryTest, UnsetVariableStillLetsSystemMemoryStatusPrint) {
  EXPECT_FALSE(debug::debug_init());
  ::testing::internal::CaptureStdout();
  debug::debug_dump_system_memory_status();
  fflush(stdout);
  const std::string shown = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(shown.find("showFileContents(): ==System MemInfo:==\n MemTotal:"), std::string::npos)
      << shown;
  EXPECT_EQ(LogCapture::count(1, shown), 1u);
}

TEST_F(DebugMemoryTest, LaterInitKeepsTheBufferAndNeverClearsTheFlag) {
  setenv(kVariable, "1", 1);
  EXPECT_TRUE(debug::debug_init());
  char* const buffer = debug::g_brovana_memory_debug_info;
  setenv(kVariable, "no", 1);
  EXPECT_FALSE(debug::debug_init());
  EXPECT_TRUE(debug::debug_memory_debug_enabled());
  unsetenv(kVariable);
  EXPECT_FALSE(debug::debug_init());
  EXPECT_TRUE(debug::debug_memory_debug_enabled());
  EXPECT_EQ(debug::g_brovana_memory_debug_info, buffer);
}

TEST_F(DebugMemoryTest, BeforeInitShowFileContentsPrintsAndLogsNothing) {
  TemporaryFile file("some text\n");
  EXPECT_EQ(shownOnStdout("Title", file.path()), "");
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(debug::g_brovana_memory_debug_info, nullptr);
}

TEST_F(DebugMemoryTest, NullTitleOrPathDoesNothing) {
  debug::debug_init();
  TemporaryFile file("some text\n");
  EXPECT_EQ(shownOnStdout(nullptr, file.path()), "");
  EXPECT_EQ(shownOnStdout("Title", nullptr), "");
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(DebugMemoryTest, ShowsTextWithoutItsLastByteOnStdoutAndAtLevelOne) {
  debug::debug_init();
  TemporaryFile file("line one\nline two\n");
  const std::string shown = shownOnStdout("My Title", file.path());
  EXPECT_TRUE(isShownLine(shown, "My Title", "line one\nline two")) << shown;
  ASSERT_EQ(LogCapture::entries().size(), 1u);
  EXPECT_EQ(LogCapture::entries()[0].text, shown);
  EXPECT_EQ(LogCapture::entries()[0].level, 1);
  EXPECT_EQ(LogCapture::entries()[0].module, 95);
}

TEST_F(DebugMemoryTest, PrintedLineCarriesBootIdAndMonotonicSeconds) {
  debug::debug_init();
  TemporaryFile file("abc\n");
  struct timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const std::string shown = shownOnStdout("T", file.path());
  struct timespec after;
  clock_gettime(CLOCK_MONOTONIC, &after);
  const size_t dash = shown.find('-');
  const size_t brace = shown.find('}');
  ASSERT_EQ(shown[0], '{') << shown;
  ASSERT_NE(dash, std::string::npos);
  ASSERT_NE(brace, std::string::npos);
  EXPECT_EQ(std::stoul(shown.substr(1, dash - 1)), velmora::base::bootID());
  const double seconds = std::stod(shown.substr(dash + 1, brace - dash - 1));
  EXPECT_GE(seconds, before.tv_sec + before.tv_nsec * 1e-9 - 1e-6);
  EXPECT_LE(seconds, after.tv_sec + after.tv_nsec * 1e-9 + 1e-6);
  EXPECT_TRUE(isShownLine(shown, "T", "abc")) << shown;
}

TEST_F(DebugMemoryTest, FileWithoutFinalNewlineLosesItsLastCharacter) {
  debug::debug_init();
  TemporaryFile file("abc");
  const std::string shown = shownOnStdout("T", file.path());
  EXPECT_TRUE(isShownLine(shown, "T", "ab")) << shown;
}

TEST_F(DebugMemoryTest, OneByteFilePrintsAnEmptyText) {
  debug::debug_init();
  TemporaryFile file("x");
  const std::string shown = shownOnStdout("One", file.path());
  EXPECT_TRUE(isShownLine(shown, "One", "")) << shown;
  EXPECT_EQ(shown.substr(shown.size() - 10), "==One==\n \n");
  EXPECT_EQ(LogCapture::count(1, shown), 1u);
}

TEST_F(DebugMemoryTest, EmptyFileLogsErrorReading) {
  debug::debug_init();
  TemporaryFile file("");
  EXPECT_EQ(shownOnStdout("Empty", file.path()), "");
  ASSERT_EQ(LogCapture::entries().size(), 1u);
  EXPECT_EQ(LogCapture::entries()[0].level, 1000);
  EXPECT_TRUE(
      isLineWithNumber(LogCapture::entries()[0].text, "[B-LOG] debug_memory.cpp:",
                       ":showFileContents(): Error reading " + std::string(file.path()) + "\n"))
      << LogCapture::entries()[0].text;
}

TEST_F(DebugMemoryTest, MissingFileLogsErrorOpening) {
  debug::debug_init();
  const std::string path = "/tmp/debug_memory_test.missing/none";
  EXPECT_EQ(shownOnStdout("Missing", path.c_str()), "");
  ASSERT_EQ(LogCapture::entries().size(), 1u);
  EXPECT_EQ(LogCapture::entries()[0].level, 1000);
  EXPECT_TRUE(isLineWithNumber(LogCapture::entries()[0].text, "[B-LOG] debug_memory.cpp:",
                               ":showFileContents(): Error opening " + path + "\n"))
      << LogCapture::entries()[0].text;
}

TEST_F(DebugMemoryTest, FileLongerThan4095BytesIsCutAndLosesIts4095thByte) {
  debug::debug_init();
  std::string contents;
  for (int i = 0; i < 5000; ++i) {
    contents += static_cast<char>('a' + i % 26);
  }
  TemporaryFile file(contents);
  const std::string shown = shownOnStdout("Long", file.path());
  EXPECT_TRUE(isShownLine(shown, "Long", contents.substr(0, 4094)));
  const std::string marker = "==Long==\n ";
  ASSERT_NE(shown.find(marker), std::string::npos);
  EXPECT_EQ(shown.size() - shown.find(marker) - marker.size(), 4094u + 1u);
}

TEST_F(DebugMemoryTest, LogLineIsWrittenEvenWhenOnlySevereLinesAreWanted) {
  debug::debug_init();
  LogCapture::setThreshold(1);
  TemporaryFile file("abc\n");
  const std::string shown = shownOnStdout("T", file.path());
  EXPECT_EQ(LogCapture::count(1, shown), 1u);
}

TEST_F(DebugMemoryTest, NoLogLineWhenThePlatformWantsNothingButStdoutStillShows) {
  debug::debug_init();
  LogCapture::setThreshold(0);
  TemporaryFile file("abc\n");
  const std::string shown = shownOnStdout("T", file.path());
  EXPECT_TRUE(isShownLine(shown, "T", "abc")) << shown;
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(DebugMemoryTest, AllocatorHooksArePlaceholders) {
  EXPECT_TRUE(debug::debug_init_tcmalloc_extension());
  ::testing::internal::CaptureStdout();
  debug::debug_dump_tcmalloc_status();
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(debug::g_brovana_memory_debug_info, nullptr);
}

TEST_F(DebugMemoryTest, ConcurrentShowsNeverMixTheirTexts) {
  debug::debug_init();
  constexpr int kThreads = 4;
  constexpr int kCalls = 50;
  std::vector<std::unique_ptr<TemporaryFile>> files;
  for (int t = 0; t < kThreads; ++t) {
    files.push_back(std::make_unique<TemporaryFile>(std::string(1000 + t, 'A' + t) + "\n"));
  }
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&files, t] {
      const std::string title = "File " + std::to_string(t);
      for (int i = 0; i < kCalls; ++i) {
        debug::showFileContents(title.c_str(), files[t]->path());
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  fflush(stdout);
  ::testing::internal::GetCapturedStdout();
  const auto entries = LogCapture::entries();
  ASSERT_EQ(entries.size(), static_cast<size_t>(kThreads * kCalls));
  std::vector<int> per_file(kThreads, 0);
  for (const auto& entry : entries) {
    for (int t = 0; t < kThreads; ++t) {
      if (isShownLine(entry.text, "File " + std::to_string(t), std::string(1000 + t, 'A' + t))) {
        ++per_file[t];
      }
    }
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(per_file[t], kCalls) << "file " << t;
  }
}

}  // namespace
