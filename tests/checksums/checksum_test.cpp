#include "base/utils/checksum.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using velmora::base::utils::CheckSum;

const unsigned char* bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

constexpr const char* kCheckText = "123456789";

uint64_t reflect(uint64_t value, int width) {
  uint64_t result = 0;
  for (int bit = 0; bit < width; ++bit) {
    if ((value >> bit) & 1) {
      result |= uint64_t{1} << (width - 1 - bit);
    }
  }
  return result;
}

uint64_t maskOf(int width) {
  return width == 64 ? ~uint64_t{0} : (uint64_t{1} << width) - 1;
}

uint16_t swap16(uint64_t value) {
  return static_cast<uint16_t>(((value & 0xFF) << 8) | ((value >> 8) & 0xFF));
}

// A CRC in the usual parameter model, computed one bit at a time: the independent reference.
struct CrcModel {
  int width;
  uint64_t poly;  // normal (MSB-first) form
  uint64_t init;
  bool reflected;
  uint64_t xorout;
  bool swapped;

  // One byte folded into a register (reflected registers hold the reflected value).
  uint64_t stepBitwise(uint64_t reg, unsigned char c) const {
    if (reflected) {
      const uint64_t rpoly = reflect(poly, width);
      reg ^= c;
      for (int bit = 0; bit < 8; ++bit) {
        reg = (reg & 1) ? (reg >> 1) ^ rpoly : reg >> 1;
      }
      return reg;
    }
    reg ^= uint64_t{c} << (width - 8);
    for (int bit = 0; bit < 8; ++bit) {
      const bool top = (reg >> (width - 1)) & 1;
      reg = ((reg << 1) ^ (top ? poly : 0)) & maskOf(width);
    }
    return reg;
  }

  uint64_t finish(uint64_t reg) const {
    reg ^= xorout;
    return swapped ? swap16(reg) : reg;
  }

  uint64_t bitwise(const unsigned char* data, size_t length) const {
    uint64_t reg = init;
    for (size_t i = 0; i < length; ++i) {
      reg = stepBitwise(reg, data[i]);
    }
    return finish(reg);
  }
};

// One CRC of the family: its model, results and the library's functions.
struct CrcCase {
  const char* name;
  CrcModel model;
  uint64_t empty;
  uint64_t check;
  std::function<uint64_t(const unsigned char*, unsigned int)> whole;
  std::function<uint64_t(uint64_t, unsigned char)> update;
};

std::vector<CrcCase> crcCases() {
  static CheckSum sum;
  return {
      {"Crc8",
       {8, 0x31, 0, false, 0, false},
       0,
       0xA2,
       [](const unsigned char* d, unsigned int n) { return sum.crc_8(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_8(static_cast<unsigned char>(r), c);
       }},
      {"Crc16Arc",
       {16, 0x8005, 0, true, 0, false},
       0,
       0xBB3D,
       [](const unsigned char* d, unsigned int n) { return sum.crc_16(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_16(static_cast<unsigned short>(r), c);
       }},
      {"Crc16Modbus",
       {16, 0x8005, 0xFFFF, true, 0, false},
       0xFFFF,
       0x4B37,
       [](const unsigned char* d, unsigned int n) { return sum.crc_modbus(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_16(static_cast<unsigned short>(r), c);
       }},
      {"Crc32",
       {32, 0x04C11DB7, 0xFFFFFFFF, true, 0xFFFFFFFF, false},
       0,
       0xCBF43926,
       [](const unsigned char* d, unsigned int n) { return sum.crc_32(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_32(static_cast<unsigned int>(r), c);
       }},
      {"Crc64Ecma",
       {64, 0x42F0E1EBA9EA3693, 0, false, 0, false},
       0,
       0x6C40DF5F0B497347,
       [](const unsigned char* d, unsigned int n) { return sum.crc_64_ecma(d, n); },
       [](uint64_t r, unsigned char c) { return sum.update_crc_64(r, c); }},
      {"Crc64We",
       {64, 0x42F0E1EBA9EA3693, ~uint64_t{0}, false, ~uint64_t{0}, false},
       0,
       0x62EC59E3F1A4F00A,
       [](const unsigned char* d, unsigned int n) { return sum.crc_64_we(d, n); },
       [](uint64_t r, unsigned char c) { return sum.update_crc_64(r, c); }},
      {"CrcXmodem",
       {16, 0x1021, 0, false, 0, false},
       0,
       0x31C3,
       [](const unsigned char* d, unsigned int n) { return sum.crc_xmodem(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_ccitt(static_cast<unsigned short>(r), c);
       }},
      {"CrcCcitt1d0f",
       {16, 0x1021, 0x1D0F, false, 0, false},
       0x1D0F,
       0xE5CC,
       [](const unsigned char* d, unsigned int n) { return sum.crc_ccitt_1d0f(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_ccitt(static_cast<unsigned short>(r), c);
       }},
      {"CrcCcittFfff",
       {16, 0x1021, 0xFFFF, false, 0, false},
       0xFFFF,
       0x29B1,
       [](const unsigned char* d, unsigned int n) { return sum.crc_ccitt_ffff(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_ccitt(static_cast<unsigned short>(r), c);
       }},
      {"CrcDnpSwapped",
       {16, 0x3D65, 0, true, 0xFFFF, true},
       0xFFFF,
       0x82EA,
       [](const unsigned char* d, unsigned int n) { return sum.crc_dnp(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_dnp(static_cast<unsigned short>(r), c);
       }},
      {"CrcKermitSwapped",
       {16, 0x1021, 0, true, 0, true},
       0,
       0x8921,
       [](const unsigned char* d, unsigned int n) { return sum.crc_kermit(d, n); },
       [](uint64_t r, unsigned char c) {
         return sum.update_crc_kermit(static_cast<unsigned short>(r), c);
       }},
  };
}

// Random bytes with room for a start at any alignment.
std::vector<unsigned char> randomBytes(size_t length, std::mt19937& random) {
  std::vector<unsigned char> data(length);
  for (auto& byte : data) {
    byte = static_cast<unsigned char>(random());
  }
  return data;
}

// Every length from 0 to 300, then lengths up to 4 KiB, then some beyond it (long inputs are
// processed in lanes, so lengths around the lane and block sizes are included).
std::vector<size_t> testLengths() {
  std::vector<size_t> lengths;
  for (size_t length = 0; length <= 300; ++length) {
    lengths.push_back(length);
  }
  for (size_t length = 301; length < 4096; length += 37) {
    lengths.push_back(length);
  }
  for (size_t length : {4095, 4096, 4097, 4104, 4111, 4112, 4113, 12287, 12288, 12289, 49151, 49152,
                        65543, 100003}) {
    lengths.push_back(length);
  }
  return lengths;
}

class CrcTest : public ::testing::TestWithParam<CrcCase> {};

TEST_P(CrcTest, CheckValueOf123456789IsTheStandardOne) {
  EXPECT_EQ(GetParam().whole(bytes(kCheckText), 9), GetParam().check);
}

TEST_P(CrcTest, BitwiseReferenceGivesTheSameCheckValue) {
  EXPECT_EQ(GetParam().model.bitwise(bytes(kCheckText), 9), GetParam().check);
}

TEST_P(CrcTest, NullDataReturnsTheEmptyValue) {
  EXPECT_EQ(GetParam().whole(nullptr, 5), GetParam().empty);
  EXPECT_EQ(GetParam().whole(nullptr, 0), GetParam().empty);
}

TEST_P(CrcTest, ZeroLengthReturnsTheEmptyValue) {
  EXPECT_EQ(GetParam().whole(bytes(kCheckText), 0), GetParam().empty);
}

TEST_P(CrcTest, UpdateStepMatchesTheBitwiseStepForEveryByte) {
  const CrcCase& crc = GetParam();
  std::mt19937_64 random(7);
  for (int round = 0; round < 16; ++round) {
    const uint64_t reg = round == 0 ? 0 : random() & maskOf(crc.model.width);
    for (unsigned int c = 0; c < 256; ++c) {
      ASSERT_EQ(crc.update(reg, static_cast<unsigned char>(c)),
                crc.model.stepBitwise(reg, static_cast<unsigned char>(c)))
          << "register " << reg << " byte " << c;
    }
  }
}

TEST_P(CrcTest, ByteFoldFromInitialValueEqualsWholeBufferOnRandomUnalignedBuffers) {
  const CrcCase& crc = GetParam();
  std::mt19937 random(11);
  for (size_t length : testLengths()) {
    const size_t start = random() % 16;
    const std::vector<unsigned char> buffer = randomBytes(length + 16, random);
    const unsigned char* data = buffer.data() + start;
    uint64_t reg = crc.model.init;
    for (size_t i = 0; i < length; ++i) {
      reg = crc.update(reg, data[i]);
    }
    ASSERT_EQ(crc.model.finish(reg), crc.whole(data, static_cast<unsigned int>(length)))
        << "length " << length << " start " << start;
  }
}

TEST_P(CrcTest, WholeBufferMatchesTheBitwiseDefinitionOnRandomUnalignedBuffers) {
  const CrcCase& crc = GetParam();
  std::mt19937 random(13);
  for (size_t length : testLengths()) {
    if (length == 0) {
      continue;  // empty input returns the empty value, checked above
    }
    const size_t start = random() % 16;
    const std::vector<unsigned char> buffer = randomBytes(length + 16, random);
    const unsigned char* data = buffer.data() + start;
    ASSERT_EQ(crc.model.bitwise(data, length), crc.whole(data, static_cast<unsigned int>(length)))
        << "length " << length << " start " << start;
  }
}

TEST_P(CrcTest, AllZeroAndAllOnesBuffersMatchTheBitwiseDefinition) {
  const CrcCase& crc = GetParam();
  for (unsigned char fill : {0x00, 0xFF}) {
    const std::vector<unsigned char> data(70001, fill);
    EXPECT_EQ(crc.whole(data.data(), static_cast<unsigned int>(data.size())),
              crc.model.bitwise(data.data(), data.size()))
        << "fill " << static_cast<int>(fill);
  }
}

INSTANTIATE_TEST_SUITE_P(CheckSum, CrcTest, ::testing::ValuesIn(crcCases()),
                         [](const ::testing::TestParamInfo<CrcCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(CheckSumEdgeTest, ModbusOfNullDataWithLengthIsFFFF) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_modbus(nullptr, 5), 0xFFFF);
}

TEST(CheckSumEdgeTest, DnpOfZeroLengthIsFFFFNotZero) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_dnp(bytes("abc"), 0), 0xFFFF);
}

TEST(CheckSumEdgeTest, Ccitt1d0fOfZeroLengthIsItsInitialValue) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_ccitt_1d0f(bytes("abc"), 0), 0x1D0F);
}

TEST(CheckSumEdgeTest, Crc32OfZeroLengthIsZero) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_32(bytes("abc"), 0), 0u);
}

TEST(CheckSumEdgeTest, FoldingCheckTextThroughUpdateCrc32AndInvertingGivesCrc32) {
  CheckSum sum;
  unsigned int crc = 0xFFFFFFFF;
  for (const char* p = kCheckText; *p != '\0'; ++p) {
    crc = sum.update_crc_32(crc, static_cast<unsigned char>(*p));
  }
  EXPECT_EQ(~crc, 0xCBF43926u);
  EXPECT_EQ(~crc, sum.crc_32(bytes(kCheckText), 9));
}

TEST(CheckSumEdgeTest, FoldingCheckTextThroughUpdateKermitGives2189WhoseSwapIsCrcKermit) {
  CheckSum sum;
  unsigned short crc = 0;
  for (const char* p = kCheckText; *p != '\0'; ++p) {
    crc = sum.update_crc_kermit(crc, static_cast<unsigned char>(*p));
  }
  EXPECT_EQ(crc, 0x2189);
  EXPECT_EQ(sum.crc_kermit(bytes(kCheckText), 9), 0x8921);
}

TEST(CheckSumEdgeTest, DnpIsTheStandardValueWithItsBytesSwapped) {
  CheckSum sum;
  // CRC-16/DNP of "123456789" is 0xEA82 in the usual convention.
  EXPECT_EQ(sum.crc_dnp(bytes(kCheckText), 9), 0x82EA);
}

TEST(CheckSumSickTest, CheckValueOf123456789Is56A6) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_sick(bytes(kCheckText), 9), 0x56A6);
}

TEST(CheckSumSickTest, EmptyOrNullInputGivesZero) {
  CheckSum sum;
  EXPECT_EQ(sum.crc_sick(nullptr, 3), 0);
  EXPECT_EQ(sum.crc_sick(bytes("abc"), 0), 0);
}

TEST(CheckSumSickTest, ShortInputsFollowTheBitwiseAlgorithmByHand) {
  CheckSum sum;
  const unsigned char one[] = {0x01};
  // crc = 0 ^ (0x01 | 0 << 8) = 0x0001, swapped.
  EXPECT_EQ(sum.crc_sick(one, 1), 0x0100);
  const unsigned char two[] = {0x01, 0x02};
  // crc = (0x0001 << 1) ^ (0x02 | 0x01 << 8) = 0x0100, swapped.
  EXPECT_EQ(sum.crc_sick(two, 2), 0x0001);
  const unsigned char top[] = {0x80, 0x00, 0x00};
  // 0x0080, then 0x0100 ^ 0x8000 = 0x8100, then bit 15 set: (0x0200 ^ 0x8005) = 0x8205.
  EXPECT_EQ(sum.crc_sick(top, 3), 0x0582);
}

TEST(CheckSumSickTest, UpdateStepShiftsXorsPolynomialWhenBit15IsSetAndMixesInPrev) {
  CheckSum sum;
  EXPECT_EQ(sum.update_crc_sick(0x8000, 0x00, 0x00), 0x8005);
  EXPECT_EQ(sum.update_crc_sick(0x4000, 0x00, 0x00), 0x8000);
  EXPECT_EQ(sum.update_crc_sick(0x0000, 0x12, 0x34), 0x3412);
  EXPECT_EQ(sum.update_crc_sick(0xFFFF, 0xFF, 0xFF), ((0xFFFE ^ 0x8005) ^ 0xFFFF) & 0xFFFF);
}

TEST(CheckSumSickTest, ByteFoldWithPreviousByteEqualsWholeBufferOnRandomBuffers) {
  CheckSum sum;
  std::mt19937 random(19);
  for (size_t length : testLengths()) {
    const size_t start = random() % 16;
    const std::vector<unsigned char> buffer = randomBytes(length + 16, random);
    const unsigned char* data = buffer.data() + start;
    unsigned short crc = 0;
    unsigned char prev = 0;
    for (size_t i = 0; i < length; ++i) {
      crc = sum.update_crc_sick(crc, data[i], prev);
      prev = data[i];
    }
    ASSERT_EQ(swap16(crc), sum.crc_sick(data, static_cast<unsigned int>(length)))
        << "length " << length;
  }
}

std::string nmea(const char* sentence) {
  CheckSum sum;
  unsigned char out[8];
  memset(out, 'Z', sizeof(out));
  const unsigned char* result = sum.checksum_NMEA(bytes(sentence), out);
  EXPECT_EQ(result, out);
  EXPECT_EQ(out[3], 'Z') << "writes at most three bytes";
  return reinterpret_cast<const char*>(out);
}

TEST(CheckSumNmeaTest, GpgllSentenceGives27) {
  EXPECT_EQ(nmea("$GPGLL,5057.970,N,00146.110,E,142451,A*27"), "27");
}

TEST(CheckSumNmeaTest, TextWithoutDollarOrStarIsXoredWhole) {
  EXPECT_EQ(nmea("ABC"), "40");
}

TEST(CheckSumNmeaTest, EmptyStringGives00) {
  EXPECT_EQ(nmea(""), "00");
}

TEST(CheckSumNmeaTest, LoneDollarGives00) {
  EXPECT_EQ(nmea("$"), "00");
}

TEST(CheckSumNmeaTest, OnlyOneLeadingDollarIsSkipped) {
  // '$' ^ 'A' = 0x24 ^ 0x41.
  EXPECT_EQ(nmea("$$A"), "65");
}

TEST(CheckSumNmeaTest, CarriageReturnLineFeedAndStarEndTheSentence) {
  EXPECT_EQ(nmea("$AB\rC"), "03");
  EXPECT_EQ(nmea("$AB\nC"), "03");
  EXPECT_EQ(nmea("$AB*C"), "03");
}

TEST(CheckSumNmeaTest, DigitsAreUpperCaseHex) {
  // 'J' ^ '@' = 0x4A ^ 0x40 = 0x0A.
  EXPECT_EQ(nmea("J@"), "0A");
}

TEST(CheckSumNmeaTest, NullSentenceOrOutputGivesNull) {
  CheckSum sum;
  unsigned char out[3] = {'x', 'y', 'z'};
  EXPECT_EQ(sum.checksum_NMEA(nullptr, out), nullptr);
  EXPECT_EQ(out[0], 'x');
  EXPECT_EQ(sum.checksum_NMEA(bytes("ABC"), nullptr), nullptr);
}

TEST(CheckSumConcurrencyTest, ManyThreadsComputeEveryCrcWithIdenticalResults) {
  // The tables are constant data: no first-use work that threads could race on.
  std::mt19937 random(23);
  const std::vector<unsigned char> data = randomBytes(9000, random);
  const std::vector<CrcCase> cases = crcCases();
  std::vector<uint64_t> expected;
  for (const CrcCase& crc : cases) {
    expected.push_back(crc.model.bitwise(data.data(), data.size()));
  }
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::atomic<int> matches{0};
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < cases.size(); ++i) {
          const uint64_t value =
              cases[i].whole(data.data(), static_cast<unsigned int>(data.size()));
          (value == expected[i] ? matches : mismatches).fetch_add(1);
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(matches.load(), kThreads * kRounds * static_cast<int>(cases.size()));
}

}  // namespace
