// The library reaches the platform only through the three calls resolved at load time: an
// executable that defines them receives every line, and the stand-in library sees nothing.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/logging.h"
#include "log_capture.h"

namespace {

using velmora::testing::LogCapture;

std::string readAll(int fd) {
  std::string text;
  char buffer[256];
  lseek(fd, 0, SEEK_SET);
  ssize_t got;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0) {
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

TEST(PlatformReplacementTest, ExecutableDefinitionsReceiveEveryLineAndStandInNone) {
  setenv("VEX_DEBUG_LEVEL", "5000", 1);
  char path[] = "/tmp/velmora_stderr_XXXXXX";
  const int capture_fd = mkstemp(path);
  ASSERT_GE(capture_fd, 0);
  unlink(path);
  fflush(stderr);
  const int saved_stderr = dup(STDERR_FILENO);
  dup2(capture_fd, STDERR_FILENO);

  LogCapture::reset();
  print_browser_log(0, "T", "f.cpp", 1, "g", "entry point");
  print_hbbtv_controller_log(1, "T", "f.cpp", 2, "g", "hbbtv");
  const unsigned char bytes[3] = {1, 2, 3};
  dump_memory("dump", bytes, 3);
  { velmora::base::FunctionTracer tracer("scope", "f.cpp", 3); }

  fflush(stderr);
  dup2(saved_stderr, STDERR_FILENO);
  close(saved_stderr);
  EXPECT_EQ(readAll(capture_fd), "");
  close(capture_fd);

  // Three pieces per entry-point line: two lines, the dump's header and data line, two traces.
  EXPECT_EQ(LogCapture::entries().size(), 3u * 4 + 2);
  EXPECT_EQ(LogCapture::count("entry point"), 1u);
  EXPECT_EQ(LogCapture::count("hbbtv"), 1u);
  EXPECT_EQ(LogCapture::countContaining("01 02 03 "), 1u);
  EXPECT_EQ(LogCapture::count("TRACE <- [scope(OUT)] :f.cpp:3 \n"), 1u);
}

}  // namespace
