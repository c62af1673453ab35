// The stand-in debug-output library: a threshold from VEX_DEBUG_LEVEL, output on standard error.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/logging.h"

namespace {

void logEachLevel() {
  for (unsigned int index = 0; index < 5; ++index) {
    print_browser_log(index, "T", "f.c", static_cast<int>(index), "g", "level index %u", index);
  }
  exit(0);
}

void logWithThreshold(const char* value) {
  if (value == nullptr) {
    unsetenv("VEX_DEBUG_LEVEL");
  } else {
    setenv("VEX_DEBUG_LEVEL", value, 1);
  }
  logEachLevel();
}

TEST(PlatformStandInDeathTest, UnsetThresholdLetsThroughSevereLinesAndErrors) {
  EXPECT_EXIT(logWithThreshold(nullptr), ::testing::ExitedWithCode(0),
              "^\\[T\\]f.c:0:g:level index 0\n\\[T\\]f.c:1:g:level index 1\n$");
}

TEST(PlatformStandInDeathTest, ThresholdZeroSilencesEverything) {
  EXPECT_EXIT(logWithThreshold("0"), ::testing::ExitedWithCode(0), "^$");
}

TEST(PlatformStandInDeathTest, Threshold5000LetsEverythingThrough) {
  EXPECT_EXIT(
      logWithThreshold("5000"), ::testing::ExitedWithCode(0),
      "level index 0\n.*level index 1\n.*level index 2\n.*level index 3\n.*level index 4\n$");
}

TEST(PlatformStandInDeathTest, Threshold3000StopsInformationalLines) {
  EXPECT_EXIT(logWithThreshold("3000"), ::testing::ExitedWithCode(0),
              "^\\[T\\]f.c:0:g:level index 0\n\\[T\\]f.c:1:g:level index 1\n"
              "\\[T\\]f.c:2:g:level index 2\n$");
}

TEST(PlatformStandInTest, CheckAnswersByLevel) {
  setenv("VEX_DEBUG_LEVEL", "3000", 1);
  LogFrame wanted = {3000, 95, 0, 0};
  LogFrame unwanted = {3001, 95, 0, 0};
  EXPECT_NE(vexDebugCheckLevelGetFrameAndChunk(&wanted), 0);
  EXPECT_EQ(vexDebugCheckLevelGetFrameAndChunk(&unwanted), 0);
}

}  // namespace
