// Log capture for tests: this library defines the platform's three debug-output calls, so a
// test executable linked with it receives every line the library writes, instead of the
// stand-in. Each output call is recorded with the level and module of the frame that the same
// thread checked last.
//
//   velmora::testing::LogCapture::reset();
//   ... exercise the library ...
//   EXPECT_TRUE(velmora::testing::LoggedOnce(1000, "[B-LOG] file.cpp:12:f(): text\n"));
#ifndef VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H
#define VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vex_debug.h"

namespace velmora {
namespace testing {

// One output call: the text it produced and the frame checked before it.
struct LogEntry {
  uint16_t level;
  uint16_t module;
  std::string text;
};

class LogCapture {
 public:
  // Forgets all entries and frames, lets every level through, drops any answer override.
  static void reset();
  // Lines whose level is at most this are wanted (the platform's answer).
  static void setThreshold(int level);
  // Replaces the platform's answer: called for every check with the frame as passed.
  static void setAnswer(std::function<int(const LogFrame&)> answer);

  static std::vector<LogEntry> entries();
  // Every frame passed to the check, in order.
  static std::vector<LogFrame> frames();
  static size_t checkCount();
  // Number of entries whose text equals text (at the given level, for the second form).
  static size_t count(const std::string& text);
  static size_t count(uint16_t level, const std::string& text);
  // Number of entries whose text contains the fragment.
  static size_t countContaining(const std::string& fragment);
  // Waits until text has been written at least times times; false on timeout.
  static bool waitFor(const std::string& text, size_t times = 1,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // All output of the test so far, concatenated.
  static std::string allText();
};

// Exactly one entry with this text, and it is at this level and module 95.
::testing::AssertionResult LoggedOnce(uint16_t level, const std::string& text);
// At least one entry with this text at this level.
::testing::AssertionResult Logged(uint16_t level, const std::string& text);
// No entry with this text.
::testing::AssertionResult NotLogged(const std::string& text);

// True on a thread that is inside one of the three platform calls this capture implements.
bool insidePlatformCall();

// A fixture that starts each test with a fresh capture.
class LogCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::reset(); }
};

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H
