// MD5 against OpenSSL's MD5 through the EVP interface (test-only dependency).
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "base/utils/md5.h"

namespace {

using velmora::base::utils::MD5;

std::string opensslDigest(const std::vector<unsigned char>& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
  return std::string(reinterpret_cast<const char*>(digest), length);
}

TEST(Md5OpenSslTest, EqualsOpenSslOnRandomInputsFedInRandomPieces) {
  std::mt19937 random(41);
  int compared = 0;
  for (int round = 0; round < 400; ++round) {
    const size_t length = round < 200 ? static_cast<size_t>(round) : random() % 20000;
    std::vector<unsigned char> data(length);
    for (auto& byte : data) {
      byte = static_cast<unsigned char>(random());
    }
    MD5 md5;
    for (size_t offset = 0; offset < length;) {
      const size_t piece = std::min<size_t>(length - offset, random() % 150);
      md5.update(data.data() + offset, static_cast<unsigned int>(piece));
      offset += piece;
    }
    ASSERT_EQ(md5.finalize().binDigest(), opensslDigest(data)) << "length " << length;
    ++compared;
  }
  EXPECT_EQ(compared, 400);
}

TEST(Md5OpenSslTest, EqualsOpenSslOnOneMebibyteInOnePiece) {
  std::mt19937 random(43);
  std::vector<unsigned char> data(1 << 20);
  for (auto& byte : data) {
    byte = static_cast<unsigned char>(random());
  }
  MD5 md5;
  md5.update(data.data(), static_cast<unsigned int>(data.size()));
  EXPECT_EQ(md5.finalize().binDigest(), opensslDigest(data));
}

}  // namespace
