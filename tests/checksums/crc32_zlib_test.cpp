// crc_32 against zlib's crc32, the reference implementation of CRC-32 (test-only dependency).
#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

#include "base/utils/checksum.h"

namespace {

using velmora::base::utils::CheckSum;

TEST(Crc32ZlibTest, EqualsZlibOnRandomBuffersOfManyLengthsAndAlignments) {
  CheckSum sum;
  std::mt19937 random(29);
  std::vector<unsigned char> buffer(300000);
  for (auto& byte : buffer) {
    byte = static_cast<unsigned char>(random());
  }
  int compared = 0;
  for (size_t length = 0; length < 270000; length = length < 600 ? length + 1 : length * 5 / 4) {
    for (size_t start = 0; start < 8; start += 3) {
      const unsigned char* data = buffer.data() + start + random() % 1000;
      const uLong expected = crc32(0L, data, static_cast<uInt>(length));
      ASSERT_EQ(sum.crc_32(data, static_cast<unsigned int>(length)), expected)
          << "length " << length;
      ++compared;
    }
  }
  EXPECT_GT(compared, 1800);
}

TEST(Crc32ZlibTest, EqualsZlibOnOneMebibyte) {
  CheckSum sum;
  std::mt19937 random(31);
  std::vector<unsigned char> data(1 << 20);
  for (auto& byte : data) {
    byte = static_cast<unsigned char>(random());
  }
  EXPECT_EQ(sum.crc_32(data.data(), static_cast<unsigned int>(data.size())),
            crc32(0L, data.data(), static_cast<uInt>(data.size())));
}

TEST(Crc32ZlibTest, ByteFoldEqualsZlibRunningCrcAfterEveryPrefix) {
  // zlib continues a CRC from a finished value; the fold keeps the raw register instead.
  CheckSum sum;
  std::mt19937 random(37);
  unsigned int reg = 0xFFFFFFFF;
  uLong running = crc32(0L, Z_NULL, 0);
  for (int i = 0; i < 5000; ++i) {
    const unsigned char byte = static_cast<unsigned char>(random());
    reg = sum.update_crc_32(reg, byte);
    running = crc32(running, &byte, 1);
    ASSERT_EQ(reg ^ 0xFFFFFFFF, running) << "after " << i + 1 << " bytes";
  }
}

}  // namespace
