// Allocation and thread-creation faults in the checksums and MD5: the CRCs and the digest's
// computation never allocate and give their exact results under any fault; the text results
// either throw std::bad_alloc, leaving the object as it was, or come out exact.
#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include "base/utils/checksum.h"
#include "base/utils/md5.h"
#include "fault_injection.h"

namespace {

using velmora::base::utils::CheckSum;
using velmora::base::utils::MD5;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::sweepFaults;

const char kQuickFox[] = "The quick brown fox jumps over the lazy dog";
const char kQuickFoxDigest[] = "9e107d9d372bb6826bd81d3542a419d6";

// Sweeps an operation that must neither allocate nor throw: it completes under every fault and
// check() finds its exact outcome. It has no fault point at all.
template <typename Operation, typename Check>
void sweepNeverFailing(FaultKind kind, Operation operation, Check check) {
  const auto report = sweepFaults(kind, [&](FaultRun& run) {
    run.armed(operation);
    check();
  });
  EXPECT_EQ(report.points, 0);
}

TEST(Md5FaultSweep, ComputationNeverAllocates) {
  const std::string text = kQuickFox;
  MD5 from_text;
  MD5 in_pieces;
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        new (&from_text) MD5(text);
        new (&in_pieces) MD5();
        in_pieces.update(text.data(), 10);
        in_pieces.update(reinterpret_cast<const unsigned char*>(text.data()) + 10,
                         static_cast<unsigned int>(text.size() - 10));
        in_pieces.update(static_cast<const char*>(nullptr), 5);
        in_pieces.finalize();
        in_pieces.finalize();
      },
      [&] {
        EXPECT_EQ(from_text.hexDigest(), kQuickFoxDigest);
        EXPECT_EQ(in_pieces.hexDigest(), kQuickFoxDigest);
      });
}

TEST(Md5FaultSweep, InitNeverAllocates) {
  MD5 md5(kQuickFox);
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { md5.init(); },
      [&] {
        EXPECT_EQ(md5.hexDigest(), "");
        EXPECT_EQ(md5.finalize().hexDigest(), "d41d8cd98f00b204e9800998ecf8427e");
      });
}

// Sweeps one text result of a finalized object: std::bad_alloc with the object unchanged (the
// same call then gives the text), or the exact text.
template <typename Result>
void sweepTextResult(Result result, const std::string& expected) {
  const auto report = sweepFaults(FaultKind::kAllocation, [&](FaultRun& run) {
    const MD5 md5(kQuickFox);
    std::string text = "unset";
    const bool threw = run.throws<std::bad_alloc>([&] { text = result(md5); });
    EXPECT_EQ(threw, run.injected());
    EXPECT_EQ(text, threw ? "unset" : expected);
    EXPECT_EQ(result(md5), expected);
  });
  EXPECT_GT(report.points, 0);
}

std::string hexOf(const std::string& bytes) {
  std::string hex;
  char pair[3];
  for (unsigned char byte : bytes) {
    snprintf(pair, sizeof(pair), "%02x", byte);
    hex += pair;
  }
  return hex;
}

TEST(Md5FaultSweep, HexDigestThrowsOrIsExact) {
  sweepTextResult([](const MD5& md5) { return md5.hexDigest(); }, kQuickFoxDigest);
}

TEST(Md5FaultSweep, Md5ThrowsOrIsExact) {
  sweepTextResult([](const MD5& md5) { return md5.md5(); }, kQuickFoxDigest);
}

TEST(Md5FaultSweep, BinDigestThrowsOrIsExact) {
  const std::string bytes = MD5(kQuickFox).binDigest();
  ASSERT_EQ(hexOf(bytes), kQuickFoxDigest);
  sweepTextResult([](const MD5& md5) { return md5.binDigest(); }, bytes);
}

// The stream operator: std::bad_alloc from the digest's text, or a failure the stream itself
// reports through its bad state (the standard streams' way), or the exact text.
TEST(Md5FaultSweep, StreamOperatorThrowsReportsABadStreamOrWritesTheExactText) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    const MD5 md5(kQuickFox);
    std::ostringstream out;
    out << "digest ";
    const bool threw = run.throws<std::bad_alloc>([&] { out << md5; });
    EXPECT_EQ(threw || out.bad(), run.injected());
    if (threw) {
      EXPECT_EQ(out.str(), "digest ");
    } else if (!out.bad()) {
      EXPECT_EQ(out.str(), std::string("digest ") + kQuickFoxDigest);
    }
    std::ostringstream again;
    again << md5;
    EXPECT_EQ(again.str(), kQuickFoxDigest);
  });
  EXPECT_GT(report.points, 0);
}

TEST(Md5FaultSweep, NothingStartsAThread) {
  std::string hex;
  sweepNeverFailing(
      FaultKind::kThreadCreation,
      [&] {
        MD5 md5(kQuickFox);
        std::ostringstream out;
        out << md5;
        hex = md5.hexDigest() + hexOf(md5.binDigest()) + md5.md5() + out.str();
      },
      [&] {
        EXPECT_EQ(hex, std::string(kQuickFoxDigest) + kQuickFoxDigest + kQuickFoxDigest +
                           kQuickFoxDigest);
      });
}

// Every CRC, whole and byte by byte, and the NMEA checksum, the lazily built tables included:
// each run is a fresh process, so the first use of every table happens under the fault.
TEST(CheckSumFaultSweep, EveryFunctionNeverAllocatesAndGivesItsCheckValue) {
  for (const FaultKind kind : {FaultKind::kAllocation, FaultKind::kThreadCreation}) {
    const auto* check = reinterpret_cast<const unsigned char*>("123456789");
    const auto* sentence =
        reinterpret_cast<const unsigned char*>("$GPGLL,5057.970,N,00146.110,E,142451,A*27");
    unsigned long long results[13] = {};
    unsigned char nmea[3] = {};
    unsigned int folded_crc32 = 0;
    unsigned short folded_kermit = 0;
    unsigned long long folded[6] = {};
    sweepNeverFailing(
        kind,
        [&] {
          CheckSum sum;
          results[0] = sum.crc_8(check, 9);
          results[1] = sum.crc_16(check, 9);
          results[2] = sum.crc_modbus(check, 9);
          results[3] = sum.crc_32(check, 9);
          results[4] = sum.crc_64_ecma(check, 9);
          results[5] = sum.crc_64_we(check, 9);
          results[6] = sum.crc_xmodem(check, 9);
          results[7] = sum.crc_ccitt_1d0f(check, 9);
          results[8] = sum.crc_ccitt_ffff(check, 9);
          results[9] = sum.crc_dnp(check, 9);
          results[10] = sum.crc_kermit(check, 9);
          results[11] = sum.crc_sick(check, 9);
          results[12] = sum.checksum_NMEA(sentence, nmea) == nmea;
          folded_crc32 = 0xFFFFFFFF;
          folded_kermit = 0;
          unsigned char crc8 = 0;
          unsigned short crc16 = 0;
          unsigned long long crc64 = 0;
          unsigned short ccitt = 0;
          unsigned short dnp = 0;
          unsigned short sick = 0;
          for (int i = 0; i < 9; ++i) {
            folded_crc32 = sum.update_crc_32(folded_crc32, check[i]);
            folded_kermit = sum.update_crc_kermit(folded_kermit, check[i]);
            crc8 = sum.update_crc_8(crc8, check[i]);
            crc16 = sum.update_crc_16(crc16, check[i]);
            crc64 = sum.update_crc_64(crc64, check[i]);
            ccitt = sum.update_crc_ccitt(ccitt, check[i]);
            dnp = sum.update_crc_dnp(dnp, check[i]);
            sick = sum.update_crc_sick(sick, check[i], i == 0 ? 0 : check[i - 1]);
          }
          folded[0] = crc8;
          folded[1] = crc16;
          folded[2] = crc64;
          folded[3] = ccitt;
          folded[4] = dnp ^ 0xFFFF;
          folded[5] = sick;
        },
        [&] {
          const unsigned long long expected[13] = {0xA2,
                                                   0xBB3D,
                                                   0x4B37,
                                                   0xCBF43926,
                                                   0x6C40DF5F0B497347ULL,
                                                   0x62EC59E3F1A4F00AULL,
                                                   0x31C3,
                                                   0xE5CC,
                                                   0x29B1,
                                                   0x82EA,
                                                   0x8921,
                                                   0x56A6,
                                                   1};
          for (int i = 0; i < 13; ++i) {
            EXPECT_EQ(results[i], expected[i]) << "function " << i;
          }
          EXPECT_STREQ(reinterpret_cast<const char*>(nmea), "27");
          EXPECT_EQ(~folded_crc32, 0xCBF43926u);
          EXPECT_EQ(folded_kermit, 0x2189);
          const unsigned long long expected_folded[6] = {0xA2,   0xBB3D, 0x6C40DF5F0B497347ULL,
                                                         0x31C3, 0xEA82, 0xA656};
          for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(folded[i], expected_folded[i]) << "step " << i;
          }
        });
  }
}

}  // namespace
