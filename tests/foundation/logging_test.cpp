#include "base/logging.h"

#include <errno.h>
#include <time.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "interpose.h"
#include "log_capture.h"

namespace {
velmora::testing::Fault g_clock_fault;
}  // namespace

extern "C" VELMORA_TEST_INTERPOSER int clock_gettime(clockid_t clock, struct timespec* time) {
  if (g_clock_fault.shouldFail()) {
    errno = EINVAL;
    return -1;
  }
  return VELMORA_REAL(clock_gettime)(clock, time);
}

namespace {

using velmora::base::kLogError;
using velmora::base::kLogVerbose;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnce;

class LoggingTest : public LogCaptureTest {};

std::vector<std::string> texts() {
  std::vector<std::string> result;
  for (const auto& entry : LogCapture::entries()) {
    result.push_back(entry.text);
  }
  return result;
}

TEST(BlogBaseNameTest, ReturnsTextAfterLastSlash) {
  const char* path = "a/b/c.txt";
  EXPECT_EQ(blog_base_name(path), path + 4);
  EXPECT_STREQ(blog_base_name(path), "c.txt");
}

TEST(BlogBaseNameTest, PathWithoutSlashIsReturnedItself) {
  const char* path = "c.txt";
  EXPECT_EQ(blog_base_name(path), path);
}

TEST(BlogBaseNameTest, TrailingSlashGivesTheTerminator) {
  const char* path = "dir/";
  EXPECT_EQ(blog_base_name(path), path + 4);
  EXPECT_STREQ(blog_base_name(path), "");
}

TEST(BlogBaseNameTest, EmptyPathIsReturnedItself) {
  const char* path = "";
  EXPECT_EQ(blog_base_name(path), path);
}

TEST_F(LoggingTest, EntryPointWritesPrefixMessageAndNewlineInThreeCalls) {
  print_browser_log(1, "TAG", "/x/y/file.cpp", 42, "func", "value %d", 7);
  EXPECT_EQ(texts(), (std::vector<std::string>{"[TAG]file.cpp:42:func:", "value 7", "\n"}));
  for (const auto& entry : LogCapture::entries()) {
    EXPECT_EQ(entry.level, 1000);
    EXPECT_EQ(entry.module, 95);
  }
}

TEST_F(LoggingTest, HbbtvEntryPointBehavesLikeBrowserEntryPoint) {
  print_hbbtv_controller_log(3, "HBB", "dir/ctl.cpp", 9, "go", "%s!", "now");
  EXPECT_EQ(texts(), (std::vector<std::string>{"[HBB]ctl.cpp:9:go:", "now!", "\n"}));
  EXPECT_EQ(LogCapture::entries().front().level, 4000);
}

TEST_F(LoggingTest, NullFormatPrintsNothing) {
  print_browser_log(0, "TAG", "f.cpp", 1, "f", nullptr);
  print_hbbtv_controller_log(0, "TAG", "f.cpp", 1, "f", nullptr);
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(LogCapture::checkCount(), 0u);
}

TEST_F(LoggingTest, NullTagFileAndFunctionPrintAsEmpty) {
  print_browser_log(2, nullptr, nullptr, 17, nullptr, "text");
  EXPECT_EQ(texts(), (std::vector<std::string>{"[]:17::", "text", "\n"}));
}

TEST_F(LoggingTest, EachLevelIndexMapsToItsLevelValueAndModule95) {
  const uint16_t expected[] = {1, 1000, 3000, 4000, 5000};
  for (unsigned int index = 0; index < 5; ++index) {
    LogCapture::reset();
    print_browser_log(index, "T", "f", 1, "g", "x");
    const auto frames = LogCapture::frames();
    ASSERT_EQ(frames.size(), 3u);
    for (const LogFrame& frame : frames) {
      EXPECT_EQ(frame.level, expected[index]);
      EXPECT_EQ(frame.module, 95);
      EXPECT_EQ(frame.word0, 0u);
      EXPECT_EQ(frame.word1, 0u);
    }
  }
}

TEST_F(LoggingTest, LevelTableHoldsThePlatformLevels) {
  EXPECT_EQ(velmora::base::kLogLevelTable[0], 1);
  EXPECT_EQ(velmora::base::kLogLevelTable[1], 1000);
  EXPECT_EQ(velmora::base::kLogLevelTable[2], 3000);
  EXPECT_EQ(velmora::base::kLogLevelTable[3], 4000);
  EXPECT_EQ(velmora::base::kLogLevelTable[4], 5000);
}

TEST_F(LoggingTest, LevelIndexOutsideTheTablePrintsNothingAndAsksNothing) {
  for (unsigned int index : {5u, 6u, 100u, 0xFFFFFFFFu}) {
    print_browser_log(index, "T", "f", 1, "g", "x");
    print_hbbtv_controller_log(index, "T", "f", 1, "g", "x");
  }
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(LogCapture::checkCount(), 0u);
}

TEST_F(LoggingTest, PlatformAnswerIsAskedBeforeEachPieceOfTheLine) {
  std::atomic<int> calls{0};
  // Wanted, refused, wanted: the line comes out without its message.
  LogCapture::setAnswer([&calls](const LogFrame&) { return ++calls == 2 ? 0 : 1; });
  print_browser_log(1, "T", "f.c", 3, "g", "message");
  EXPECT_EQ(calls.load(), 3);
  EXPECT_EQ(texts(), (std::vector<std::string>{"[T]f.c:3:g:", "\n"}));
}

TEST_F(LoggingTest, PlatformRefusingOnlyThePrefixDropsIt) {
  std::atomic<int> calls{0};
  LogCapture::setAnswer([&calls](const LogFrame&) { return ++calls == 1 ? 0 : 1; });
  print_browser_log(1, "T", "f.c", 3, "g", "message");
  EXPECT_EQ(texts(), (std::vector<std::string>{"message", "\n"}));
}

TEST_F(LoggingTest, PlatformRefusingOnlyTheNewlineDropsIt) {
  std::atomic<int> calls{0};
  LogCapture::setAnswer([&calls](const LogFrame&) { return ++calls == 3 ? 0 : 1; });
  print_browser_log(1, "T", "f.c", 3, "g", "message");
  EXPECT_EQ(texts(), (std::vector<std::string>{"[T]f.c:3:g:", "message"}));
}

TEST_F(LoggingTest, SuppressedEntryPointLineAsksThreeTimesAndWritesNothing) {
  LogCapture::setThreshold(0);
  print_browser_log(4, "T", "f.c", 3, "g", "message");
  EXPECT_EQ(LogCapture::checkCount(), 3u);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(LoggingTest, EachPieceOfTheLineFollowsItsOwnCheck) {
  // At each check, how many pieces had been written before it.
  std::vector<size_t> written_before_check;
  LogCapture::setAnswer([&written_before_check](const LogFrame&) {
    written_before_check.push_back(LogCapture::entries().size());
    return 1;
  });
  print_browser_log(3, "T", "/a/b/f.c", 8, "g", "n=%d", 5);
  EXPECT_EQ(written_before_check, (std::vector<size_t>{0, 1, 2}));
  EXPECT_EQ(texts(), (std::vector<std::string>{"[T]f.c:8:g:", "n=5", "\n"}));
}

TEST_F(LoggingTest, SuppressedLineOfEitherEntryPointPassesTheSameFrameThreeTimes) {
  LogCapture::setThreshold(0);
  print_browser_log(4, "T", "/a/b/f.c", 3, "g", "message %d", 1);
  print_hbbtv_controller_log(3, nullptr, nullptr, 3, nullptr, "message");
  const auto frames = LogCapture::frames();
  ASSERT_EQ(frames.size(), 6u);
  const uint16_t expected_levels[] = {5000, 5000, 5000, 4000, 4000, 4000};
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].level, expected_levels[i]);
    EXPECT_EQ(frames[i].module, 95);
    EXPECT_EQ(frames[i].word0, 0u);
    EXPECT_EQ(frames[i].word1, 0u);
  }
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(LoggingTest, BaseNameIsTakenFromThePathAsItIsWhenThePrefixIsWritten) {
  // The check puts a last slash into the path: the prefix shows the base name of the path as it
  // is once the platform has said yes, not as it was when the entry point was called.
  for (auto entry_point : {&print_browser_log, &print_hbbtv_controller_log}) {
    LogCapture::reset();
    char path[] = "dir/sub_file.c";
    LogCapture::setAnswer([&path](const LogFrame&) {
      path[7] = '/';
      return 1;
    });
    entry_point(1, "T", path, 4, "g", "x");
    EXPECT_EQ(texts(), (std::vector<std::string>{"[T]file.c:4:g:", "x", "\n"}));
  }
}

TEST_F(LoggingTest, DumpOfZeroBytesPrintsOnlyTheHeader) {
  const unsigned char data[1] = {0};
  dump_memory("empty", data, 0);
  const auto lines = texts();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "[]:0::");
  EXPECT_EQ(lines[1].size(), std::string("DUMPMEM(01234567d):, empty").size());
  EXPECT_EQ(lines[1].substr(0, 8), "DUMPMEM(");
  EXPECT_EQ(lines[1].substr(16), "d):, empty");
  EXPECT_EQ(lines[2], "\n");
  EXPECT_EQ(LogCapture::entries()[1].level, 5000);
}

TEST_F(LoggingTest, DumpOfNegativeLengthPrintsOnlyTheHeader) {
  const unsigned char data[1] = {0};
  dump_memory("negative", data, -5);
  EXPECT_EQ(texts().size(), 3u);
}

TEST_F(LoggingTest, DumpOfNullDataWithAPositiveLengthIsRefusedAndPrintsNothing) {
  dump_memory("null", nullptr, 17);
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(LogCapture::checkCount(), 0u);
}

TEST_F(LoggingTest, DumpOfNullDataWithZeroLengthPrintsOnlyTheHeader) {
  dump_memory("null", nullptr, 0);
  const auto lines = texts();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].substr(16), "d):, null");
}

std::vector<std::string> dumpMessages() {
  std::vector<std::string> messages;
  const auto lines = texts();
  for (size_t i = 1; i < lines.size(); i += 3) {
    messages.push_back(lines[i]);
  }
  return messages;
}

TEST_F(LoggingTest, DumpOfSeventeenBytesPrintsAFullLineAndALineOfOneByte) {
  unsigned char data[17];
  for (int i = 0; i < 17; ++i) {
    data[i] = static_cast<unsigned char>(0xA0 + i);
  }
  dump_memory("seventeen", data, 17);
  const auto messages = dumpMessages();
  ASSERT_EQ(messages.size(), 3u);
  const std::string id = messages[0].substr(8, 8);
  for (char c : id) {
    EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')) << id;
  }
  EXPECT_EQ(messages[0], "DUMPMEM(" + id + "d):, seventeen");
  EXPECT_EQ(messages[1], "DUMPMEM(" + id + "d):, A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF ");
  EXPECT_EQ(messages[2], "DUMPMEM(" + id + "d):, B0 ");
}

TEST_F(LoggingTest, DumpOfFortyBytesPrintsLinesOfSixteenSixteenAndEight) {
  unsigned char data[40] = {};
  for (int i = 0; i < 40; ++i) {
    data[i] = static_cast<unsigned char>(i);
  }
  dump_memory("forty", data, 40);
  const auto messages = dumpMessages();
  ASSERT_EQ(messages.size(), 4u);
  const size_t prefix = std::string("DUMPMEM(01234567d):, ").size();
  EXPECT_EQ(messages[1].size() - prefix, 48u);
  EXPECT_EQ(messages[2].size() - prefix, 48u);
  EXPECT_EQ(messages[3].substr(prefix), "20 21 22 23 24 25 26 27 ");
}

TEST(DbgLocationTest, BuildsFileLineAndFunction) {
  EXPECT_EQ(dbg_location("f.txt", 12, "g"), "f.txt:12:g():");
}

TEST(DbgLocationTest, NullFunctionStopsAfterTheLine) {
  EXPECT_EQ(dbg_location("f.txt", 12, nullptr), "f.txt:12:");
}

TEST(DbgLocationTest, NullFileGivesEmptyText) {
  EXPECT_EQ(dbg_location(nullptr, 12, "g"), "");
}

TEST(BootIdTest, SameValueOnEveryCall) {
  const unsigned int first = velmora::base::bootID();
  ASSERT_NE(first, 0u);
  EXPECT_LT(first, 1000000000u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(velmora::base::bootID(), first);
  }
}

TEST(BootIdTest, FailingClockGives4660) {
  g_clock_fault.failNext();
  EXPECT_EQ(velmora::base::bootID(), 4660u);
  EXPECT_EQ(g_clock_fault.failures(), 1);
  EXPECT_EQ(velmora::base::bootID(), 4660u);
}

TEST_F(LoggingTest, DumpWithFailingClockStillPrintsEveryLine) {
  g_clock_fault.failNext();
  const unsigned char data[3] = {1, 2, 3};
  dump_memory("clockless", data, 3);
  EXPECT_EQ(g_clock_fault.failures(), 1);
  EXPECT_EQ(LogCapture::countContaining("d):, clockless"), 1u);
  EXPECT_EQ(LogCapture::countContaining("d):, 01 02 03 "), 1u);
}

TEST(BootIdTest, SameValueOnEveryThread) {
  constexpr int kThreads = 8;
  std::vector<unsigned int> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = velmora::base::bootID(); });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const unsigned int main_value = velmora::base::bootID();
  for (unsigned int value : seen) {
    EXPECT_EQ(value, main_value);
  }
}

TEST_F(LoggingTest, FunctionTracerWritesEntryAndExitWithFileAsGiven) {
  {
    velmora::base::FunctionTracer tracer("doWork", "src/dir/work.cpp", 77);
    EXPECT_EQ(texts(), (std::vector<std::string>{"TRACE -> [doWork(IN)] :src/dir/work.cpp:77 \n"}));
  }
  EXPECT_EQ(texts(), (std::vector<std::string>{"TRACE -> [doWork(IN)] :src/dir/work.cpp:77 \n",
                                               "TRACE <- [doWork(OUT)] :src/dir/work.cpp:77 \n"}));
  for (const auto& entry : LogCapture::entries()) {
    EXPECT_EQ(entry.level, 5000);
    EXPECT_EQ(entry.module, 95);
  }
}

TEST_F(LoggingTest, FunctionTracerIsSilentBelowVerbose) {
  LogCapture::setThreshold(4000);
  { velmora::base::FunctionTracer tracer("doWork", "work.cpp", 1); }
  EXPECT_TRUE(LogCapture::entries().empty());
  EXPECT_EQ(LogCapture::checkCount(), 2u);
}

int g_statement_line = 0;

void logFromHere(int value) {
  // clang-format off
  g_statement_line = __LINE__; VELMORA_LOG(kLogError, "value is %d\n", value);
  // clang-format on
}

TEST_F(LoggingTest, InlineConventionPrefixesTagBaseNameLineAndFunction) {
  logFromHere(5);
  const int line = g_statement_line;
  EXPECT_TRUE(LoggedOnce(kLogError, "[B-LOG] logging_test.cpp:" + std::to_string(line) +
                                        ":logFromHere(): value is 5\n"));
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}

TEST_F(LoggingTest, PinnedLineAndFunctionArePrintedAsGiven) {
  VELMORA_LOG_FULL("EventDispatcher", velmora::base::kLogWarning, 31, "Named", "x=%s\n", "y");
  VELMORA_LOG_AT(velmora::base::kLogInfo, 142, "pinned\n");
  EXPECT_TRUE(LoggedOnce(velmora::base::kLogWarning,
                         "[EventDispatcher] logging_test.cpp:31:Named(): x=y\n"));
  EXPECT_TRUE(
      LoggedOnce(velmora::base::kLogInfo, "[B-LOG] logging_test.cpp:142:TestBody(): pinned\n"));
}

int g_evaluations = 0;
int countedArgument() {
  return ++g_evaluations;
}

TEST_F(LoggingTest, SuppressedStatementMakesOneCheckAndEvaluatesNoArgument) {
  LogCapture::setThreshold(1000);
  g_evaluations = 0;
  VELMORA_LOG(kLogVerbose, "never %d\n", countedArgument());
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_EQ(LogCapture::checkCount(), 1u);
  EXPECT_TRUE(LogCapture::entries().empty());
  VELMORA_LOG(kLogError, "now %d\n", countedArgument());
  EXPECT_EQ(g_evaluations, 1);
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}

// The decorated name is the compiler's own: "void {anonymous}::tracedPoint()" with GCC,
// "void (anonymous namespace)::tracedPoint()" with clang.
const char* g_tracedPointName = nullptr;

void tracedPoint() {
  g_tracedPointName = __PRETTY_FUNCTION__;
  VELMORA_TRACE_POINT_AT(88);
}

TEST_F(LoggingTest, PointTraceCarriesTheDecoratedFunctionName) {
  tracedPoint();
  ASSERT_NE(std::string(g_tracedPointName).find("tracedPoint()"), std::string::npos);
  EXPECT_TRUE(LoggedOnce(kLogVerbose,
                         "[TRACE] logging_test.cpp:88:" + std::string(g_tracedPointName) + "\n"));
}

void tracedScope() {
  VELMORA_TRACE_SCOPE_AT(120);
}

TEST_F(LoggingTest, ScopeTraceWritesEntryAndExit) {
  tracedScope();
  EXPECT_EQ(texts(), (std::vector<std::string>{
                         "[TRACE -> tracedScope(IN)] logging_test.cpp:120:tracedScope() \n",
                         "[TRACE <- tracedScope(OUT)] logging_test.cpp:120:tracedScope() \n"}));
}

int earlyReturn(bool early) {
  VELMORA_TRACE_SCOPE_FULL(7, "earlyReturn");
  if (early) {
    return 1;
  }
  return 2;
}

TEST_F(LoggingTest, ScopeTraceWritesExitOnEveryReturn) {
  earlyReturn(true);
  earlyReturn(false);
  EXPECT_EQ(LogCapture::count("[TRACE <- earlyReturn(OUT)] logging_test.cpp:7:earlyReturn() \n"),
            2u);
}

}  // namespace
