#include "base/logging.h"
#include "log_capture.h"
using velmora::testing::LogCapture;
TEST(Smoke, x) {
  LogCapture::reset();
  VELMORA_LOG(velmora::base::kLogError, "hi %d\n", 3);
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}
