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

TEST(Md5OpenSslTest, EqualsOpenSslWhenTheBitCountOutgrowsItsLowWord) {
  // 2^29 bytes and a few more: 2^32 bits and more, so the count's high word is 1 when it is
  // appended, low word first.
  std::mt19937 random(47);
  std::vector<unsigned char> chunk(1 << 20);
  for (auto& byte : chunk) {
    byte = static_cast<unsigned char>(random());
  }
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ASSERT_NE(context, nullptr);
  EVP_DigestInit_ex(context, EVP_md5(), nullptr);
  MD5 md5;
  const size_t kChunks = (size_t{1} << 29) / chunk.size();
  for (size_t i = 0; i < kChunks; ++i) {
    md5.update(chunk.data(), static_cast<unsigned int>(chunk.size()));
    EVP_DigestUpdate(context, chunk.data(), chunk.size());
  }
  md5.update(chunk.data(), 5);
  EVP_DigestUpdate(context, chunk.data(), 5);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context, digest, &length);
  EVP_MD_CTX_free(context);
  EXPECT_EQ(md5.finalize().binDigest(), std::string(reinterpret_cast<const char*>(digest), length));
}

}  // namespace
