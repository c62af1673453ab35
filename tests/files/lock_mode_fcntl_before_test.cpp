// File::LOCK_READ and File::LOCK_WRITE in a translation unit that includes <fcntl.h> BEFORE the
// File header (glibc defines LOCK_READ and LOCK_WRITE as macros there).
#include <fcntl.h>

#include "base/utils/file.h"

#include <gtest/gtest.h>

namespace {

using velmora::base::utils::File;

TEST(LockModeWithFcntlBefore, EnumeratorsKeepTheirValues) {
  EXPECT_EQ(1, File::LOCK_READ);
  EXPECT_EQ(2, File::LOCK_WRITE);
  EXPECT_EQ(0, File::LOCK_NONE);
  const File::LockMode mode = File::LOCK_WRITE;
  File file;
  EXPECT_EQ(-1, file.Lock(mode));
  // <fcntl.h> stays usable.
  EXPECT_NE(O_RDONLY, O_RDWR);
}

}  // namespace
