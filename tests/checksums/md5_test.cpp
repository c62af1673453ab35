#include "base/utils/md5.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>

namespace {

using velmora::base::utils::MD5;

std::string hexOf(const std::string& raw) {
  static const char* kDigits = "0123456789abcdef";
  std::string hex;
  for (unsigned char byte : raw) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0xF];
  }
  return hex;
}

std::string digestInPieces(const std::string& text, size_t piece) {
  MD5 md5;
  for (size_t offset = 0; offset < text.size(); offset += piece) {
    const size_t length = std::min(piece, text.size() - offset);
    md5.update(text.data() + offset, static_cast<unsigned int>(length));
  }
  return md5.finalize().hexDigest();
}

struct Vector {
  const char* input;
  const char* digest;
};

// The test suite of RFC 1321, appendix A.5.
const Vector kRfc1321Suite[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    // "1234567890" eight times.
    {"1234567890123456789012345678901234567890"
     "1234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(Md5Test, Rfc1321SuiteGivesItsSevenDigests) {
  for (const Vector& vector : kRfc1321Suite) {
    EXPECT_EQ(MD5(std::string(vector.input)).hexDigest(), vector.digest) << vector.input;
  }
}

TEST(Md5Test, Rfc1321SuiteFedByteByByteGivesTheSameDigests) {
  for (const Vector& vector : kRfc1321Suite) {
    EXPECT_EQ(digestInPieces(vector.input, 1), vector.digest) << vector.input;
  }
}

TEST(Md5Test, EmptyAbcAndQuickBrownFoxGiveTheirKnownDigests) {
  EXPECT_EQ(MD5(std::string("")).hexDigest(), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(MD5(std::string("abc")).hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(MD5(std::string("The quick brown fox jumps over the lazy dog")).hexDigest(),
            "9e107d9d372bb6826bd81d3542a419d6");
}

TEST(Md5Test, DefaultConstructedObjectHasNoDigestUntilFinalize) {
  MD5 md5;
  EXPECT_EQ(md5.hexDigest(), "");
  EXPECT_EQ(md5.binDigest(), "");
  EXPECT_EQ(md5.md5(), "");
  md5.update("abc", 3);
  EXPECT_EQ(md5.hexDigest(), "");
  EXPECT_EQ(md5.binDigest(), "");
  md5.finalize();
  EXPECT_EQ(md5.hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5Test, MillionAsInPiecesOf1_63_64_65AndOneGiveTheSameDigest) {
  const std::string text(1000000, 'a');
  for (size_t piece : {size_t{1}, size_t{63}, size_t{64}, size_t{65}, text.size()}) {
    EXPECT_EQ(digestInPieces(text, piece), "7707d6ae4e027c70eea2a935c2296f21") << piece;
  }
}

TEST(Md5Test, BlocksReadFromAnyAddressGiveTheSameDigest) {
  // Whole blocks are read straight from the caller's data, at whatever alignment it has.
  const std::string text(1000000, 'a');
  for (size_t misalignment = 1; misalignment < 8; ++misalignment) {
    const std::string shifted = std::string(misalignment, 'x') + text;
    MD5 md5;
    md5.update(shifted.data() + misalignment, static_cast<unsigned int>(text.size()));
    EXPECT_EQ(md5.finalize().hexDigest(), "7707d6ae4e027c70eea2a935c2296f21") << misalignment;
  }
}

TEST(Md5Test, BinDigestHasSixteenBytesThatMayIncludeNul) {
  // Search deterministically for an input whose digest holds a zero byte.
  for (int i = 0; i < 10000; ++i) {
    const MD5 md5(std::to_string(i));
    const std::string raw = md5.binDigest();
    ASSERT_EQ(raw.size(), 16u);
    if (raw.find('\0') != std::string::npos) {
      EXPECT_EQ(hexOf(raw), md5.hexDigest());
      EXPECT_EQ(std::strlen(raw.c_str()), raw.find('\0'));
      return;
    }
  }
  FAIL() << "no digest with a zero byte among 10000 inputs";
}

TEST(Md5Test, HexDigestIsThirtyTwoLowerCaseDigitsOfBinDigest) {
  const MD5 md5(std::string("message digest"));
  const std::string hex = md5.hexDigest();
  ASSERT_EQ(hex.size(), 32u);
  EXPECT_EQ(hex.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(hexOf(md5.binDigest()), hex);
  EXPECT_EQ(md5.md5(), hex);
}

TEST(Md5Test, StreamOperatorWritesHexDigestOrNothingBeforeFinalize) {
  std::ostringstream finished;
  finished << MD5(std::string("abc"));
  EXPECT_EQ(finished.str(), "900150983cd24fb0d6963f7d28e17f72");
  std::ostringstream open;
  MD5 md5;
  md5.update("abc", 3);
  open << "[" << md5 << "]";
  EXPECT_EQ(open.str(), "[]");
}

TEST(Md5Test, FinalizeReturnsTheObjectItself) {
  MD5 md5;
  EXPECT_EQ(&md5.finalize(), &md5);
  EXPECT_EQ(&md5.finalize(), &md5);
}

TEST(Md5Test, UpdateAfterFinalizeKeepsTheFirstDigest) {
  MD5 md5;
  md5.update("abc", 3);
  md5.finalize();
  md5.update("more input that is ignored by the digest, longer than one block of sixty-four", 78);
  EXPECT_EQ(md5.hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
  md5.finalize();
  EXPECT_EQ(md5.hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5Test, InitStartsANewComputation) {
  MD5 md5(std::string("abc"));
  md5.init();
  EXPECT_EQ(md5.hexDigest(), "");
  md5.update("message digest", 14);
  EXPECT_EQ(md5.finalize().hexDigest(), "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(Md5Test, CharAndUnsignedCharUpdatesAgree) {
  const char text[] = "abcdefghijklmnopqrstuvwxyz";
  MD5 signed_input;
  signed_input.update(text, 26);
  MD5 unsigned_input;
  unsigned_input.update(reinterpret_cast<const unsigned char*>(text), 26);
  EXPECT_EQ(signed_input.finalize().hexDigest(), unsigned_input.finalize().hexDigest());
  EXPECT_EQ(signed_input.hexDigest(), "c3fcd3d76192e4007dfb496cca67e13b");
}

TEST(Md5Test, ZeroLengthUpdatesChangeNothing) {
  MD5 md5;
  md5.update("", 0);
  md5.update("abc", 3);
  md5.update(static_cast<const unsigned char*>(nullptr), 0);
  EXPECT_EQ(md5.finalize().hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5Test, NullInputOfAnyLengthIsRefusedAndAbsorbsNothing) {
  MD5 md5;
  md5.update("ab", 2);
  md5.update(static_cast<const unsigned char*>(nullptr), 64);
  md5.update(static_cast<const char*>(nullptr), 3);
  md5.update("c", 1);
  EXPECT_EQ(md5.finalize().hexDigest(), "900150983cd24fb0d6963f7d28e17f72");
}

// Whether the bytes of the object contain the pattern anywhere.
bool objectHolds(const MD5& md5, const std::string& pattern) {
  static_assert(std::is_standard_layout<MD5>::value, "the object is plain bytes");
  const std::string bytes(reinterpret_cast<const char*>(&md5), sizeof(md5));
  return bytes.find(pattern) != std::string::npos;
}

TEST(Md5Test, FinalizeClearsTheBufferedInput) {
  const std::string secret = "secret input that stays in the buffer!";  // shorter than a block
  MD5 md5;
  md5.update(secret.data(), static_cast<unsigned int>(secret.size()));
  ASSERT_TRUE(objectHolds(md5, secret)) << "the partial block is buffered before finalize";
  md5.finalize();
  EXPECT_FALSE(objectHolds(md5, secret));
  EXPECT_FALSE(objectHolds(md5, secret.substr(0, 8)));
}

TEST(Md5Test, LengthsAroundThePaddingBoundaryDifferAndAreStableAcrossPieces) {
  // Inputs of 55, 56, 57, 63, 64, 65, 119 and 120 bytes take both padding branches; byte-wise
  // and whole feeding agree for each.
  std::string previous;
  for (size_t length : {55, 56, 57, 63, 64, 65, 119, 120}) {
    const std::string text(length, 'x');
    const std::string whole = MD5(text).hexDigest();
    EXPECT_EQ(digestInPieces(text, 1), whole) << length;
    EXPECT_EQ(digestInPieces(text, 7), whole) << length;
    EXPECT_NE(whole, previous);
    previous = whole;
  }
}

}  // namespace
