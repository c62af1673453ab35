// Allocation and thread-creation faults in the memory debug: none of its functions allocates
// through operator new or starts a thread, so under every fault each completes with its exact
// outcome (a memory report comes out when memory is short).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "base/debug/debug_memory.h"
#include "base/logging.h"
#include "fault_injection.h"
#include "log_capture.h"

namespace {

namespace debug = velmora::base::debug;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::LogCapture;
using velmora::testing::sweepFaults;

constexpr const char* kVariable = "SHOW_MEMORY_DEBUG_INFO";

// A file with the given contents, removed afterwards.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& contents) {
    char pattern[] = "/tmp/debug_memory_fault_sweep.XXXXXX";
    const int fd = mkstemp(pattern);
    path_ = pattern;
    EXPECT_GE(fd, 0);
    if (fd >= 0) {
      EXPECT_EQ(write(fd, contents.data(), contents.size()), static_cast<ssize_t>(contents.size()));
      close(fd);
    }
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

// Sweeps an operation that must neither allocate nor throw: standard output is captured around
// it, and check() gets what was printed. It has no fault point at all.
template <typename Operation, typename Check>
void sweepNeverFailing(FaultKind kind, Operation operation, Check check) {
  const auto report = sweepFaults(kind, [&](FaultRun& run) {
    LogCapture::reset();
    ::testing::internal::CaptureStdout();
    run.armed(operation);
    fflush(stdout);
    check(::testing::internal::GetCapturedStdout());
  });
  EXPECT_EQ(report.points, 0);
}

// Whether shown is the line showFileContents prints for this title and text.
bool isShownLine(const std::string& shown, const std::string& title, const std::string& text) {
  const std::string start = "{" + std::to_string(static_cast<int>(velmora::base::bootID())) + "-";
  const std::string middle = "}[B-LOG] debug_memory.cpp:";
  const std::string end = ":showFileContents(): ==" + title + "==\n " + text + "\n";
  return shown.compare(0, start.size(), start) == 0 && shown.find(middle) != std::string::npos &&
         shown.size() > end.size() &&
         shown.compare(shown.size() - end.size(), end.size(), end) == 0;
}

TEST(DebugMemoryFaultSweep, FirstInitSwitchesOnWithoutOperatorNew) {
  setenv(kVariable, "true", 1);
  bool result = false;
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { result = debug::debug_init(); },
      [&](const std::string& printed) {
        EXPECT_TRUE(result);
        EXPECT_NE(debug::g_brovana_memory_debug_info, nullptr);
        EXPECT_EQ(debug::g_brovana_memory_debug_enabled, 1);
        EXPECT_TRUE(debug::debug_memory_debug_enabled());
        EXPECT_EQ(printed, "");
      });
}

TEST(DebugMemoryFaultSweep, LaterInitKeepsBufferAndFlagWithoutOperatorNew) {
  setenv(kVariable, "1", 1);
  ASSERT_TRUE(debug::debug_init());
  char* const buffer = debug::g_brovana_memory_debug_info;
  unsetenv(kVariable);
  bool result = true;
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { result = debug::debug_init(); },
      [&](const std::string&) {
        EXPECT_FALSE(result);
        EXPECT_EQ(debug::g_brovana_memory_debug_info, buffer);
        EXPECT_TRUE(debug::debug_memory_debug_enabled());
      });
}

TEST(DebugMemoryFaultSweep, ShownFileIsPrintedAndLoggedExactlyWithoutOperatorNew) {
  unsetenv(kVariable);
  debug::debug_init();
  const std::string contents(3000, 'm');
  TemporaryFile file(contents + "\n");
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { debug::showFileContents("Title", file.path()); },
      [&](const std::string& printed) {
        EXPECT_TRUE(isShownLine(printed, "Title", contents)) << printed.substr(0, 200);
        EXPECT_EQ(LogCapture::count(1, printed), 1u);
        EXPECT_EQ(LogCapture::entries().size(), 1u);
      });
}

TEST(DebugMemoryFaultSweep, SystemMemoryStatusIsPrintedWithoutOperatorNew) {
  debug::debug_init();
  sweepNeverFailing(
      FaultKind::kAllocation, [] { debug::debug_dump_system_memory_status(); },
      [](const std::string& printed) {
        EXPECT_NE(printed.find("showFileContents(): ==System MemInfo:==\n MemTotal:"),
                  std::string::npos);
        EXPECT_EQ(LogCapture::count(1, printed), 1u);
      });
}

TEST(DebugMemoryFaultSweep, UnreadableFilesLogTheirErrorsWithoutOperatorNew) {
  debug::debug_init();
  TemporaryFile empty("");
  const std::string missing = "/tmp/debug_memory_fault_sweep.missing/none";
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        debug::showFileContents("Empty", empty.path());
        debug::showFileContents("Missing", missing.c_str());
      },
      [&](const std::string& printed) {
        EXPECT_EQ(printed, "");
        ASSERT_EQ(LogCapture::entries().size(), 2u);
        EXPECT_EQ(LogCapture::entries()[0].level, 1000);
        EXPECT_NE(LogCapture::entries()[0].text.find(":showFileContents(): Error reading " +
                                                     std::string(empty.path()) + "\n"),
                  std::string::npos);
        EXPECT_EQ(LogCapture::entries()[1].level, 1000);
        EXPECT_NE(LogCapture::entries()[1].text.find(":showFileContents(): Error opening " +
                                                     missing + "\n"),
                  std::string::npos);
      });
}

TEST(DebugMemoryFaultSweep, QueriesPlaceholdersAndCallsBeforeInitDoNothingWithoutOperatorNew) {
  TemporaryFile file("text\n");
  bool enabled = true;
  bool extension = false;
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        debug::showFileContents("Before init", file.path());
        enabled = debug::debug_memory_debug_enabled();
        extension = debug::debug_init_tcmalloc_extension();
        debug::debug_dump_tcmalloc_status();
      },
      [&](const std::string& printed) {
        EXPECT_EQ(printed, "");
        EXPECT_TRUE(LogCapture::entries().empty());
        EXPECT_FALSE(enabled);
        EXPECT_TRUE(extension);
        EXPECT_EQ(debug::g_brovana_memory_debug_info, nullptr);
      });
}

TEST(DebugMemoryFaultSweep, NothingStartsAThread) {
  setenv(kVariable, "TRUE", 1);
  TemporaryFile file("abc\n");
  sweepNeverFailing(
      FaultKind::kThreadCreation,
      [&] {
        debug::debug_init();
        debug::showFileContents("T", file.path());
        debug::debug_dump_system_memory_status();
      },
      [&](const std::string& printed) {
        EXPECT_TRUE(debug::debug_memory_debug_enabled());
        EXPECT_NE(printed.find("==T==\n abc\n"), std::string::npos);
        EXPECT_EQ(LogCapture::entries().size(), 2u);
      });
}

}  // namespace
