// File::LOCK_READ and File::LOCK_WRITE in a translation unit that includes <fcntl.h> AFTER the
// File header (glibc defines LOCK_READ and LOCK_WRITE as macros there).
#include "base/utils/file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <gtest/gtest.h>

namespace {

using velmora::base::utils::File;

TEST(LockModeWithFcntlAfter, EnumeratorsKeepTheirValues) {
  EXPECT_EQ(1, File::LOCK_READ);
  EXPECT_EQ(2, File::LOCK_WRITE);
  const File::LockMode mode = File::LOCK_READ;
  File file;
  EXPECT_EQ(-1, file.Lock(mode));
  // The rest of <fcntl.h> and <sys/file.h> stays usable.
  EXPECT_NE(0, O_CREAT);
  EXPECT_NE(LOCK_SH, LOCK_EX);
}

}  // namespace
