// The CRC family and the NMEA checksum.
//
// Every table-driven CRC keeps the rule of one table look-up per input byte, but reads the input
// in blocks of 8 or 16 bytes and looks each byte of a block up in its own table (the byte's
// contribution shifted by its distance from the end of the block). The look-ups of one block
// are independent of each other, so only one short chain per block depends on the previous
// running value instead of one per byte. Inputs of 4 KiB and more are also cut into three equal
// lanes that advance side by side, so that three such chains overlap; the lane values are joined
// at the end by multiplying with a power of x modulo the generator (a few dozen bit steps per
// call, no table look-ups). Bytes that do not fill a block go through the plain byte step, which
// is also what the update_* functions do.
//
// The block and the three lanes are written out: each byte of a block is its own expression,
// expanded from a compile-time index sequence, and the helpers are forced inline. So the speed
// does not depend on the loop unrolling and inlining that only the highest optimisation level
// does, and -O2 and -Os builds (the device's) run the same straight-line code as -O3.
//
// All tables are computed by the compiler and live in read-only data (46 KiB in all).
#include "base/utils/checksum.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

// Inlined at every optimisation level: the block step is built from many small helpers.
#define VELMORA_CRC_INLINE inline __attribute__((always_inline))

namespace velmora {
namespace base {
namespace utils {

namespace {

enum class BitOrder { kReflected, kMsbFirst };

// Loads eight bytes so that the first byte ends up in the lowest eight bits.
VELMORA_CRC_INLINE uint64_t loadLittleEndian64(const unsigned char* p) {
  uint64_t word;
  memcpy(&word, p, sizeof(word));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  return word;
}

// A CRC of kWidth bits kept in T, with its (possibly reflected) polynomial, read kSlices bytes
// per block through kSlices tables of 256 entries.
template <typename T, int kWidth, BitOrder kOrder, uint64_t kPoly, int kSlices>
class CrcEngine {
 public:
  static_assert(kSlices % 8 == 0 && kSlices * 8 >= kWidth, "a block covers the register");

  struct Tables {
    // entry[k][i]: byte i followed by k zero bytes, folded into a zero register.
    T entry[kSlices][256];
  };

  static constexpr uint64_t kMask = kWidth == 64 ? ~uint64_t{0} : (uint64_t{1} << kWidth) - 1;

  // The plain byte step through the first table.
  static constexpr T step(const Tables& tables, T crc, unsigned char c) {
    if constexpr (kOrder == BitOrder::kReflected) {
      return static_cast<T>((uint64_t{crc} >> 8) ^ tables.entry[0][(crc ^ c) & 0xFF]);
    } else {
      return static_cast<T>(((uint64_t{crc} << 8) & kMask) ^
                            tables.entry[0][((uint64_t{crc} >> (kWidth - 8)) ^ c) & 0xFF]);
    }
  }

  static T step(T crc, unsigned char c) { return step(kTables, crc, c); }

  // Folds length bytes into crc. Long inputs are cut into three equal lanes whose running
  // values advance side by side (independent dependency chains) and are joined afterwards by
  // shifting each over the length of the lanes that follow it; the rest goes block by block,
  // then byte by byte.
  static T run(T crc, const unsigned char* data, size_t length) {
    if (length >= kLaneThreshold) {
      const size_t lane = length / (3 * kSlices) * kSlices;
      crc = threeLanes(crc, data, lane);
      data += 3 * lane;
      length -= 3 * lane;
    }
    for (; length >= kSlices; data += kSlices, length -= kSlices) {
      crc = block(crc, data);
    }
    while (length-- > 0) {
      crc = step(crc, *data++);
    }
    return crc;
  }

  // Folds a whole string at compile time through the byte step of freshly built tables (for the
  // checks below; the static member itself cannot appear in a constant expression everywhere).
  static constexpr T fold(T crc, const char* text) {
    const Tables tables = build();
    while (*text != '\0') {
      crc = step(tables, crc, static_cast<unsigned char>(*text++));
    }
    return crc;
  }

  static constexpr Tables build() {
    Tables tables{};
    for (unsigned int i = 0; i < 256; ++i) {
      tables.entry[0][i] = firstTableEntry(i);
    }
    for (int k = 1; k < kSlices; ++k) {
      for (unsigned int i = 0; i < 256; ++i) {
        tables.entry[k][i] = step(tables, tables.entry[k - 1][i], 0);
      }
    }
    return tables;
  }

  // Defined below the class: the compiler needs the whole class before it can run build().
  static const Tables kTables;

 private:
  static constexpr size_t kLaneThreshold = 4096;
  static constexpr int kRegisterBytes = kWidth / 8;

  // The width in which a block's look-ups are combined.
  using Sum = std::conditional_t<(kWidth > 32), uint64_t, uint32_t>;

  // The three lanes of lane bytes each, the first continuing crc, the others starting from 0;
  // joined as crc(first) * x^(8 lane) + crc(second), times x^(8 lane) again, + crc(third).
  static T threeLanes(T crc, const unsigned char* data, size_t lane) {
    T second = 0;
    T third = 0;
    for (size_t offset = 0; offset < lane; offset += kSlices) {
      crc = block(crc, data + offset);
      second = block(second, data + lane + offset);
      third = block(third, data + 2 * lane + offset);
    }
    const uint64_t shift = powerOfX(lane);
    return static_cast<T>(multiply(multiply(crc, shift) ^ second, shift) ^ third);
  }

  // One block of kSlices bytes, one look-up per byte: the bytes that do not meet the running
  // value are looked up while the previous block's value is still being computed, then the
  // first kWidth / 8 bytes, XORed with the running value, are looked up and joined in a tree.
  static VELMORA_CRC_INLINE T block(T crc, const unsigned char* data) {
    const uint64_t head = loadLittleEndian64(data) ^ inStreamOrder(crc);
    const Sum free = freeBytes(data, std::make_integer_sequence<int, kSlices - kRegisterBytes>());
    return static_cast<T>(free ^ registerBytes<0, kRegisterBytes>(head));
  }

  // The contribution of byte j of a block whose value is b.
  template <int j>
  static VELMORA_CRC_INLINE Sum lookUp(unsigned int b) {
    return kTables.entry[kSlices - 1 - j][b];
  }

  // The bytes kRegisterBytes.. of a block: those of the first eight read one by one, those of
  // further words shifted out of whole words (spreading the work over load and arithmetic
  // units). A block of no more bytes than the register has none.
  template <int... i>
  static VELMORA_CRC_INLINE Sum freeBytes([[maybe_unused]] const unsigned char* data,
                                          std::integer_sequence<int, i...>) {
    return (Sum{0} ^ ... ^ freeByte<kRegisterBytes + i>(data));
  }

  template <int j>
  static VELMORA_CRC_INLINE Sum freeByte(const unsigned char* data) {
    if constexpr (j < 8) {
      return lookUp<j>(data[j]);
    } else {
      return lookUp<j>(byteOf<j % 8>(loadLittleEndian64(data + 8 * (j / 8))));
    }
  }

  // The look-ups of bytes kFirst..kFirst + kCount - 1 of head, joined as a balanced tree.
  template <int kFirst, int kCount>
  static VELMORA_CRC_INLINE Sum registerBytes(uint64_t head) {
    if constexpr (kCount == 1) {
      return lookUp<kFirst>(byteOf<kFirst>(head));
    } else {
      return registerBytes<kFirst, kCount / 2>(head) ^
             registerBytes<kFirst + kCount / 2, kCount - kCount / 2>(head);
    }
  }

  template <int j>
  static VELMORA_CRC_INLINE unsigned int byteOf(uint64_t word) {
    return static_cast<unsigned int>(word >> (8 * j)) & 0xFF;
  }

  // Register values as polynomials over GF(2) modulo the generator: an MSB-first register holds
  // the coefficient of x^i in bit i, a reflected one in bit kWidth - 1 - i.

  // The register of the polynomial 1.
  static constexpr uint64_t kOne = kOrder == BitOrder::kReflected ? uint64_t{1} << (kWidth - 1) : 1;

  // r * x, the register after one more zero bit.
  static constexpr uint64_t timesX(uint64_t r) {
    if constexpr (kOrder == BitOrder::kReflected) {
      return (r >> 1) ^ ((r & 1) != 0 ? kPoly : 0);
    } else {
      return ((r << 1) & kMask) ^ (((r >> (kWidth - 1)) & 1) != 0 ? kPoly : 0);
    }
  }

  static constexpr bool coefficient(uint64_t r, int degree) {
    const int bit = kOrder == BitOrder::kReflected ? kWidth - 1 - degree : degree;
    return ((r >> bit) & 1) != 0;
  }

  // a * b, by Horner's rule from the highest coefficient of b.
  static constexpr uint64_t multiply(uint64_t a, uint64_t b) {
    uint64_t product = 0;
    for (int degree = kWidth - 1; degree >= 0; --degree) {
      product = timesX(product);
      if (coefficient(b, degree)) {
        product ^= a;
      }
    }
    return product;
  }

  struct Powers {
    // value[k]: x to the power 8 * 2^k, the shift over 2^k zero bytes.
    uint64_t value[32];
  };

  static constexpr Powers buildPowers() {
    Powers powers{};
    uint64_t r = kOne;
    for (int bit = 0; bit < 8; ++bit) {
      r = timesX(r);
    }
    powers.value[0] = r;
    for (int k = 1; k < 32; ++k) {
      powers.value[k] = multiply(powers.value[k - 1], powers.value[k - 1]);
    }
    return powers;
  }

  static const Powers kPowers;

  // x to the power 8 * bytes: multiplying a register by it shifts it over that many zero bytes.
  static T powerOfX(size_t bytes) {
    uint64_t power = kOne;
    for (int k = 0; bytes != 0; ++k, bytes >>= 1) {
      if ((bytes & 1) != 0) {
        power = multiply(power, kPowers.value[k]);
      }
    }
    return static_cast<T>(power);
  }

  // The standard byte-wise table entry: eight shifts, each followed by an XOR with the
  // polynomial when the bit shifted out was set.
  static constexpr T firstTableEntry(unsigned int i) {
    uint64_t c = i;
    if constexpr (kOrder == BitOrder::kReflected) {
      for (int bit = 0; bit < 8; ++bit) {
        c = (c & 1) ? (c >> 1) ^ kPoly : c >> 1;
      }
    } else {
      c <<= kWidth - 8;
      for (int bit = 0; bit < 8; ++bit) {
        const bool top = ((c >> (kWidth - 1)) & 1) != 0;
        c = ((c << 1) ^ (top ? kPoly : 0)) & kMask;
      }
    }
    return static_cast<T>(c);
  }

  // The register laid over the first bytes of a block in the order the bytes arrive.
  static VELMORA_CRC_INLINE uint64_t inStreamOrder(T crc) {
    if constexpr (kOrder == BitOrder::kReflected || kWidth == 8) {
      return crc;
    } else if constexpr (kWidth == 16) {
      return static_cast<uint16_t>((crc >> 8) | (crc << 8));
    } else {
      return __builtin_bswap64(crc);
    }
  }

 public:
  // The bytes of constant data this CRC uses: its look-up tables and its shift powers.
  static constexpr size_t kTableBytes = sizeof(Tables) + sizeof(Powers);
};

template <typename T, int kWidth, BitOrder kOrder, uint64_t kPoly, int kSlices>
constexpr typename CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::Tables
    CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::kTables =
        CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::build();

template <typename T, int kWidth, BitOrder kOrder, uint64_t kPoly, int kSlices>
constexpr typename CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::Powers
    CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::kPowers =
        CrcEngine<T, kWidth, kOrder, kPoly, kSlices>::buildPowers();

using Crc8 = CrcEngine<unsigned char, 8, BitOrder::kMsbFirst, 0x31, 16>;
using Crc16 = CrcEngine<unsigned short, 16, BitOrder::kReflected, 0xA001, 8>;
using Crc32 = CrcEngine<unsigned int, 32, BitOrder::kReflected, 0xEDB88320, 8>;
using Crc64 = CrcEngine<unsigned long long, 64, BitOrder::kMsbFirst, 0x42F0E1EBA9EA3693, 8>;
using CrcCcitt = CrcEngine<unsigned short, 16, BitOrder::kMsbFirst, 0x1021, 8>;
using CrcDnp = CrcEngine<unsigned short, 16, BitOrder::kReflected, 0xA6BC, 8>;
using CrcKermit = CrcEngine<unsigned short, 16, BitOrder::kReflected, 0x8408, 8>;

constexpr size_t kTotalTableBytes = Crc8::kTableBytes + Crc16::kTableBytes + Crc32::kTableBytes +
                                    Crc64::kTableBytes + CrcCcitt::kTableBytes +
                                    CrcDnp::kTableBytes + CrcKermit::kTableBytes;
static_assert(kTotalTableBytes <= 64 * 1024, "the CRC tables stay under 64 KiB");

// The compiler proves the tables against the check values of "123456789".
constexpr const char* kCheckText = "123456789";
static_assert(Crc8::fold(0, kCheckText) == 0xA2, "CRC-8");
static_assert(Crc16::fold(0, kCheckText) == 0xBB3D, "CRC-16/ARC");
static_assert(Crc32::fold(0xFFFFFFFF, kCheckText) == (0xCBF43926 ^ 0xFFFFFFFF), "CRC-32");
static_assert(Crc64::fold(0, kCheckText) == 0x6C40DF5F0B497347, "CRC-64/ECMA-182");
static_assert(CrcCcitt::fold(0xFFFF, kCheckText) == 0x29B1, "CRC-16/IBM-3740");
static_assert(CrcDnp::fold(0, kCheckText) == (0xEA82 ^ 0xFFFF), "CRC-16/DNP");
static_assert(CrcKermit::fold(0, kCheckText) == 0x2189, "CRC-16/KERMIT");

constexpr unsigned int kCrc32Ones = 0xFFFFFFFF;
constexpr unsigned long long kCrc64Ones = ~0ULL;
constexpr unsigned short kModbusInit = 0xFFFF;
constexpr unsigned short kCcitt1d0fInit = 0x1D0F;
constexpr unsigned short kCcittFfffInit = 0xFFFF;
constexpr unsigned short kDnpFinalXor = 0xFFFF;
constexpr unsigned short kDnpEmpty = 0xFFFF;
constexpr unsigned short kSickPolynomial = 0x8005;

inline bool isEmpty(const unsigned char* data, unsigned int length) {
  return data == nullptr || length == 0;
}

inline unsigned short swapBytes(unsigned short value) {
  return static_cast<unsigned short>((value >> 8) | (value << 8));
}

// The three CCITT variants differ only in their initial value, which empty input returns.
unsigned short ccitt(unsigned short init, const unsigned char* data, unsigned int length) {
  if (isEmpty(data, length)) {
    return init;
  }
  return CrcCcitt::run(init, data, length);
}

unsigned short sickStep(unsigned short crc, unsigned char c, unsigned char prev) {
  if ((crc & 0x8000) != 0) {
    crc = static_cast<unsigned short>((crc << 1) ^ kSickPolynomial);
  } else {
    crc = static_cast<unsigned short>(crc << 1);
  }
  return static_cast<unsigned short>(crc ^ (c | (prev << 8)));
}

bool endsNmeaSentence(unsigned char c) {
  return c == '\0' || c == '\r' || c == '\n' || c == '*';
}

}  // namespace

unsigned char CheckSum::crc_8(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : Crc8::run(0, data, length);
}

unsigned short CheckSum::crc_16(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : Crc16::run(0, data, length);
}

unsigned short CheckSum::crc_modbus(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? kModbusInit : Crc16::run(kModbusInit, data, length);
}

unsigned int CheckSum::crc_32(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : Crc32::run(kCrc32Ones, data, length) ^ kCrc32Ones;
}

unsigned long long CheckSum::crc_64_ecma(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : Crc64::run(0, data, length);
}

unsigned long long CheckSum::crc_64_we(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : Crc64::run(kCrc64Ones, data, length) ^ kCrc64Ones;
}

unsigned short CheckSum::crc_xmodem(const unsigned char* data, unsigned int length) {
  return ccitt(0, data, length);
}

unsigned short CheckSum::crc_ccitt_1d0f(const unsigned char* data, unsigned int length) {
  return ccitt(kCcitt1d0fInit, data, length);
}

unsigned short CheckSum::crc_ccitt_ffff(const unsigned char* data, unsigned int length) {
  return ccitt(kCcittFfffInit, data, length);
}

unsigned short CheckSum::crc_dnp(const unsigned char* data, unsigned int length) {
  if (isEmpty(data, length)) {
    return kDnpEmpty;
  }
  return swapBytes(static_cast<unsigned short>(CrcDnp::run(0, data, length) ^ kDnpFinalXor));
}

unsigned short CheckSum::crc_kermit(const unsigned char* data, unsigned int length) {
  return isEmpty(data, length) ? 0 : swapBytes(CrcKermit::run(0, data, length));
}

unsigned short CheckSum::crc_sick(const unsigned char* data, unsigned int length) {
  if (isEmpty(data, length)) {
    return 0;
  }
  unsigned short crc = 0;
  unsigned char prev = 0;
  for (unsigned int i = 0; i < length; ++i) {
    crc = sickStep(crc, data[i], prev);
    prev = data[i];
  }
  return swapBytes(crc);
}

unsigned char* CheckSum::checksum_NMEA(const unsigned char* sentence, unsigned char* out) {
  if (sentence == nullptr || out == nullptr) {
    return nullptr;
  }
  if (*sentence == '$') {
    ++sentence;
  }
  unsigned char sum = 0;
  for (; !endsNmeaSentence(*sentence); ++sentence) {
    sum ^= *sentence;
  }
  snprintf(reinterpret_cast<char*>(out), 3, "%02hhX", sum);
  return out;
}

unsigned char CheckSum::update_crc_8(unsigned char crc, unsigned char c) {
  return Crc8::step(crc, c);
}

unsigned short CheckSum::update_crc_16(unsigned short crc, unsigned char c) {
  return Crc16::step(crc, c);
}

unsigned int CheckSum::update_crc_32(unsigned int crc, unsigned char c) {
  return Crc32::step(crc, c);
}

unsigned long long CheckSum::update_crc_64(unsigned long long crc, unsigned char c) {
  return Crc64::step(crc, c);
}

unsigned short CheckSum::update_crc_ccitt(unsigned short crc, unsigned char c) {
  return CrcCcitt::step(crc, c);
}

unsigned short CheckSum::update_crc_dnp(unsigned short crc, unsigned char c) {
  return CrcDnp::step(crc, c);
}

unsigned short CheckSum::update_crc_kermit(unsigned short crc, unsigned char c) {
  return CrcKermit::step(crc, c);
}

unsigned short CheckSum::update_crc_sick(unsigned short crc, unsigned char c, unsigned char prev) {
  return sickStep(crc, c, prev);
}

}  // namespace utils
}  // namespace base
}  // namespace velmora
