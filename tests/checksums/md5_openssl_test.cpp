// MD5 against OpenSSL's MD5 through the EVP interface (test-only dependency).
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "base/utils/md5.h"

#if defined(__SANITIZE_THREAD__)
#define VELMORA_UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELMORA_UNDER_THREAD_SANITIZER 1
#endif
#endif

#ifdef VELMORA_UNDER_THREAD_SANITIZER
// ThreadSanitizer's own annotations.
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#endif

namespace {

using velmora::base::utils::MD5;

// A stretch of one thread's work that no other thread touches: ThreadSanitizer skips its checks
// of this thread's reads and writes meanwhile, since they can find nothing there, and checking
// hundreds of mebibytes of reads would take most of a test case's time. Elsewhere it does nothing.
class SingleThreadedStretch {
 public:
  SingleThreadedStretch() {
#ifdef VELMORA_UNDER_THREAD_SANITIZER
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
  }
  ~SingleThreadedStretch() {
#ifdef VELMORA_UNDER_THREAD_SANITIZER
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
  }
  SingleThreadedStretch(const SingleThreadedStretch&) = delete;
  SingleThreadedStretch& operator=(const SingleThreadedStretch&) = delete;
};

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
  // 2^29 bytes and a few more: 2^32 bits and more, so the count's low word wraps and carries into
  // the high word, which is 1 when the count is appended, low word first. Only the count matters
  // here, so the bulk is zeros, fed again and again from a buffer that stays in the cache.
  const std::vector<unsigned char> zeros(64 * 1024, 0);
  const size_t rounds = (size_t{1} << 29) / zeros.size();
  const unsigned char tail[] = {'c', 'a', 'r', 'r', 'y'};
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ASSERT_NE(context, nullptr);
  EVP_DigestInit_ex(context, EVP_md5(), nullptr);
  MD5 md5;
  {
    const SingleThreadedStretch stretch;
    for (size_t i = 0; i < rounds; ++i) {
      md5.update(zeros.data(), static_cast<unsigned int>(zeros.size()));
      EVP_DigestUpdate(context, zeros.data(), zeros.size());
    }
  }
  md5.update(tail, sizeof(tail));
  EVP_DigestUpdate(context, tail, sizeof(tail));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context, digest, &length);
  EVP_MD_CTX_free(context);
  EXPECT_EQ(md5.finalize().binDigest(), std::string(reinterpret_cast<const char*>(digest), length));
}

}  // namespace
