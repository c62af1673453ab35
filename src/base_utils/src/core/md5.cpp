// MD5 as RFC 1321 describes it: 64-byte blocks, four rounds of sixteen steps, padding with 0x80
// and zeros to 56 mod 64 followed by the 64-bit bit count, little-endian throughout.
//
// The rounds are written out step by step and their helpers are forced inline, so that -O2 and
// -Os builds run the same straight-line code as -O3. Words are read and written whole through
// memcpy (any alignment, either byte order).
#include "base/utils/md5.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>

// Inlined at every optimisation level: a step is a handful of instructions.
#define VELMORA_MD5_INLINE inline __attribute__((always_inline))

namespace velmora {
namespace base {
namespace utils {

namespace {

constexpr unsigned int kInitA = 0x67452301;
constexpr unsigned int kInitB = 0xEFCDAB89;
constexpr unsigned int kInitC = 0x98BADCFE;
constexpr unsigned int kInitD = 0x10325476;

constexpr unsigned int kPaddingLimit = 56;
constexpr unsigned int kCountBytes = 8;

// The padding: one 0x80 byte, then zeros.
constexpr unsigned char kPadding[64] = {0x80};

VELMORA_MD5_INLINE unsigned int loadLittleEndian32(const unsigned char* p) {
  uint32_t word;
  memcpy(&word, p, sizeof(word));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap32(word);
#endif
  return word;
}

VELMORA_MD5_INLINE void storeLittleEndian32(unsigned char* p, unsigned int value) {
  uint32_t word = value;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap32(word);
#endif
  memcpy(p, &word, sizeof(word));
}

// Bytes to little-endian words and back; length in bytes, a multiple of 4.
VELMORA_MD5_INLINE void decodeWords(unsigned int* output, const unsigned char* input,
                                    unsigned int length) {
  for (unsigned int i = 0; i < length / 4; ++i) {
    output[i] = loadLittleEndian32(input + 4 * i);
  }
}

VELMORA_MD5_INLINE void encodeWords(unsigned char* output, const unsigned int* input,
                                    unsigned int length) {
  for (unsigned int i = 0; i < length / 4; ++i) {
    storeLittleEndian32(output + 4 * i, input[i]);
  }
}

VELMORA_MD5_INLINE unsigned int rotateLeft(unsigned int x, int n) {
  return (x << n) | (x >> (32 - n));
}

// The four auxiliary functions, in forms that leave as few operations as possible waiting for
// x (the value computed by the step before): G's two terms never overlap, so they may be added
// instead of ORed, and the term without x is ready early.
VELMORA_MD5_INLINE unsigned int F(unsigned int x, unsigned int y, unsigned int z) {
  return z ^ (x & (y ^ z));
}
VELMORA_MD5_INLINE unsigned int G(unsigned int x, unsigned int y, unsigned int z) {
  return (x & z) + (y & ~z);
}
VELMORA_MD5_INLINE unsigned int H(unsigned int x, unsigned int y, unsigned int z) {
  return x ^ y ^ z;
}
VELMORA_MD5_INLINE unsigned int I(unsigned int x, unsigned int y, unsigned int z) {
  return y ^ (x | ~z);
}

// One step: a = b + ((a + f(b, c, d) + x + t) <<< s). The message word and the constant are
// added first, while b is still being computed.
template <unsigned int (*f)(unsigned int, unsigned int, unsigned int)>
VELMORA_MD5_INLINE void step(unsigned int& a, unsigned int b, unsigned int c, unsigned int d,
                             unsigned int x, int s, unsigned int t) {
  a += x + t;
  a += f(b, c, d);
  a = b + rotateLeft(a, s);
}

}  // namespace

MD5::MD5() {
  init();
}

MD5::MD5(const std::string& text) {
  init();
  update(text.data(), static_cast<unsigned int>(text.size()));
  finalize();
}

void MD5::init() {
  finalized = false;
  memset(buffer, 0, sizeof(buffer));
  count[0] = 0;
  count[1] = 0;
  state[0] = kInitA;
  state[1] = kInitB;
  state[2] = kInitC;
  state[3] = kInitD;
  memset(digest, 0, sizeof(digest));
}

void MD5::update(const unsigned char* input, unsigned int length) {
  if (input == nullptr) {
    return;
  }
  unsigned int index = (count[0] >> 3) % kBlockSize;

  const unsigned int added_bits = length << 3;
  count[0] += added_bits;
  if (count[0] < added_bits) {
    ++count[1];
  }
  count[1] += length >> 29;

  unsigned int consumed = 0;
  const unsigned int room = kBlockSize - index;
  if (length >= room) {
    memcpy(&buffer[index], input, room);
    transform(buffer);
    for (consumed = room; consumed + kBlockSize <= length; consumed += kBlockSize) {
      transform(&input[consumed]);
    }
    index = 0;
  }
  if (consumed < length) {
    memcpy(&buffer[index], &input[consumed], length - consumed);
  }
}

void MD5::update(const char* input, unsigned int length) {
  update(reinterpret_cast<const unsigned char*>(input), length);
}

MD5& MD5::finalize() {
  if (finalized) {
    return *this;
  }
  unsigned char bits[kCountBytes];
  encode(bits, count, kCountBytes);

  const unsigned int index = (count[0] >> 3) % kBlockSize;
  const unsigned int padding =
      index < kPaddingLimit ? kPaddingLimit - index : kBlockSize + kPaddingLimit - index;
  update(kPadding, padding);
  update(bits, kCountBytes);

  encode(digest, state, kDigestSize);

  memset(buffer, 0, sizeof(buffer));
  count[0] = 0;
  count[1] = 0;
  finalized = true;
  return *this;
}

std::string MD5::hexDigest() const {
  if (!finalized) {
    return "";
  }
  char text[2 * kDigestSize + 1];
  for (unsigned int i = 0; i < kDigestSize; ++i) {
    snprintf(&text[2 * i], 3, "%02x", digest[i]);
  }
  return std::string(text, 2 * kDigestSize);
}

std::string MD5::md5() const {
  return hexDigest();
}

std::string MD5::binDigest() const {
  if (!finalized) {
    return "";
  }
  return std::string(reinterpret_cast<const char*>(digest), kDigestSize);
}

void MD5::decode(unsigned int* output, const unsigned char* input, unsigned int length) {
  decodeWords(output, input, length);
}

void MD5::encode(unsigned char* output, const unsigned int* input, unsigned int length) {
  encodeWords(output, input, length);
}

void MD5::transform(const unsigned char block[kBlockSize]) {
  unsigned int a = state[0];
  unsigned int b = state[1];
  unsigned int c = state[2];
  unsigned int d = state[3];
  // The words are decoded here by the same code as decode(), inline: a call per block through
  // the exported symbol would cost more than the decoding itself.
  unsigned int x[16];
  decodeWords(x, block, kBlockSize);

  // Round 1
  step<F>(a, b, c, d, x[0], 7, 0xd76aa478);
  step<F>(d, a, b, c, x[1], 12, 0xe8c7b756);
  step<F>(c, d, a, b, x[2], 17, 0x242070db);
  step<F>(b, c, d, a, x[3], 22, 0xc1bdceee);
  step<F>(a, b, c, d, x[4], 7, 0xf57c0faf);
  step<F>(d, a, b, c, x[5], 12, 0x4787c62a);
  step<F>(c, d, a, b, x[6], 17, 0xa8304613);
  step<F>(b, c, d, a, x[7], 22, 0xfd469501);
  step<F>(a, b, c, d, x[8], 7, 0x698098d8);
  step<F>(d, a, b, c, x[9], 12, 0x8b44f7af);
  step<F>(c, d, a, b, x[10], 17, 0xffff5bb1);
  step<F>(b, c, d, a, x[11], 22, 0x895cd7be);
  step<F>(a, b, c, d, x[12], 7, 0x6b901122);
  step<F>(d, a, b, c, x[13], 12, 0xfd987193);
  step<F>(c, d, a, b, x[14], 17, 0xa679438e);
  step<F>(b, c, d, a, x[15], 22, 0x49b40821);

  // Round 2
  step<G>(a, b, c, d, x[1], 5, 0xf61e2562);
  step<G>(d, a, b, c, x[6], 9, 0xc040b340);
  step<G>(c, d, a, b, x[11], 14, 0x265e5a51);
  step<G>(b, c, d, a, x[0], 20, 0xe9b6c7aa);
  step<G>(a, b, c, d, x[5], 5, 0xd62f105d);
  step<G>(d, a, b, c, x[10], 9, 0x02441453);
  step<G>(c, d, a, b, x[15], 14, 0xd8a1e681);
  step<G>(b, c, d, a, x[4], 20, 0xe7d3fbc8);
  step<G>(a, b, c, d, x[9], 5, 0x21e1cde6);
  step<G>(d, a, b, c, x[14], 9, 0xc33707d6);
  step<G>(c, d, a, b, x[3], 14, 0xf4d50d87);
  step<G>(b, c, d, a, x[8], 20, 0x455a14ed);
  step<G>(a, b, c, d, x[13], 5, 0xa9e3e905);
  step<G>(d, a, b, c, x[2], 9, 0xfcefa3f8);
  step<G>(c, d, a, b, x[7], 14, 0x676f02d9);
  step<G>(b, c, d, a, x[12], 20, 0x8d2a4c8a);

  // Round 3
  step<H>(a, b, c, d, x[5], 4, 0xfffa3942);
  step<H>(d, a, b, c, x[8], 11, 0x8771f681);
  step<H>(c, d, a, b, x[11], 16, 0x6d9d6122);
  step<H>(b, c, d, a, x[14], 23, 0xfde5380c);
  step<H>(a, b, c, d, x[1], 4, 0xa4beea44);
  step<H>(d, a, b, c, x[4], 11, 0x4bdecfa9);
  step<H>(c, d, a, b, x[7], 16, 0xf6bb4b60);
  step<H>(b, c, d, a, x[10], 23, 0xbebfbc70);
  step<H>(a, b, c, d, x[13], 4, 0x289b7ec6);
  step<H>(d, a, b, c, x[0], 11, 0xeaa127fa);
  step<H>(c, d, a, b, x[3], 16, 0xd4ef3085);
  step<H>(b, c, d, a, x[6], 23, 0x04881d05);
  step<H>(a, b, c, d, x[9], 4, 0xd9d4d039);
  step<H>(d, a, b, c, x[12], 11, 0xe6db99e5);
  step<H>(c, d, a, b, x[15], 16, 0x1fa27cf8);
  step<H>(b, c, d, a, x[2], 23, 0xc4ac5665);

  // Round 4
  step<I>(a, b, c, d, x[0], 6, 0xf4292244);
  step<I>(d, a, b, c, x[7], 10, 0x432aff97);
  step<I>(c, d, a, b, x[14], 15, 0xab9423a7);
  step<I>(b, c, d, a, x[5], 21, 0xfc93a039);
  step<I>(a, b, c, d, x[12], 6, 0x655b59c3);
  step<I>(d, a, b, c, x[3], 10, 0x8f0ccc92);
  step<I>(c, d, a, b, x[10], 15, 0xffeff47d);
  step<I>(b, c, d, a, x[1], 21, 0x85845dd1);
  step<I>(a, b, c, d, x[8], 6, 0x6fa87e4f);
  step<I>(d, a, b, c, x[15], 10, 0xfe2ce6e0);
  step<I>(c, d, a, b, x[6], 15, 0xa3014314);
  step<I>(b, c, d, a, x[13], 21, 0x4e0811a1);
  step<I>(a, b, c, d, x[4], 6, 0xf7537e82);
  step<I>(d, a, b, c, x[11], 10, 0xbd3af235);
  step<I>(c, d, a, b, x[2], 15, 0x2ad7d2bb);
  step<I>(b, c, d, a, x[9], 21, 0xeb86d391);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

std::ostream& operator<<(std::ostream& out, MD5 md5) {
  return out << md5.hexDigest();
}

}  // namespace utils
}  // namespace base
}  // namespace velmora
