// The string, number and identifier helpers: every branch, the deliberate quirks, the log lines.
#include <errno.h>
#include <uuid/uuid.h>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "base/utils.h"
#include "interpose.h"
#include "log_capture.h"
#include "log_line.h"

namespace {
// When set, uuid_generate yields the bytes 0x00, 0x01, ..., 0x0F.
std::atomic<bool> g_counting_uuid{false};
}  // namespace

extern "C" __attribute__((visibility("default"))) void uuid_generate(unsigned char* out) {
  if (g_counting_uuid.load()) {
    for (int i = 0; i < 16; ++i) {
      out[i] = static_cast<unsigned char>(i);
    }
    return;
  }
  VELMORA_REAL(uuid_generate)(out);
}

namespace {

using namespace velmora::base;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnceFrom;

using StringList = std::vector<std::string>;

class UtilsTest : public LogCaptureTest {};

constexpr bool kLong32 = sizeof(long) == 4;

// ---------------------------------------------------------------- toLowerCase

TEST_F(UtilsTest, ToLowerCaseLowersAsciiAndKeepsOtherBytes) {
  const std::string input = std::string("AbC-Z09 \xC4\xE4") + '\0' + "Q";
  EXPECT_EQ(std::string("abc-z09 \xC4\xE4") + '\0' + "q", toLowerCase(input));
  EXPECT_EQ("", toLowerCase(""));
}

// ---------------------------------------------------------------- dsto*

TEST_F(UtilsTest, DstoiRefusesEmptyAndLoneSignLeavingOutUntouched) {
  int out = 77;
  EXPECT_EQ(-1, dstoi("", out));
  EXPECT_EQ(-1, dstoi("+", out));
  EXPECT_EQ(-1, dstoi("-", out));
  EXPECT_EQ(77, out);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, DstoiParsesSignAndDigitsUpToTheFirstNonDigit) {
  int out = 77;
  EXPECT_EQ(0, dstoi("+5", out));
  EXPECT_EQ(5, out);
  EXPECT_EQ(0, dstoi("-12x3", out));
  EXPECT_EQ(-12, out);
  EXPECT_EQ(0, dstoi("12abc", out));
  EXPECT_EQ(12, out);
  EXPECT_EQ(0, dstoi("007", out));
  EXPECT_EQ(7, out);
  EXPECT_EQ(0, dstoi("-0", out));
  EXPECT_EQ(0, out);
}

TEST_F(UtilsTest, DstoiSucceedsWithZeroWhenNoDigitFollows) {
  int out = 77;
  EXPECT_EQ(0, dstoi("x", out));
  EXPECT_EQ(0, out);
  out = 77;
  EXPECT_EQ(0, dstoi("abc", out));
  EXPECT_EQ(0, out);
  out = 77;
  EXPECT_EQ(0, dstoi("+x", out));
  EXPECT_EQ(0, out);
  out = 77;
  EXPECT_EQ(0, dstoi(" 5", out));  // a blank is not skipped
  EXPECT_EQ(0, out);
  out = 77;
  EXPECT_EQ(0, dstoi("--5", out));
  EXPECT_EQ(0, out);
}

TEST_F(UtilsTest, DstoiWrapsAroundIn32Bits) {
  int out = 0;
  EXPECT_EQ(0, dstoi("2147483647", out));
  EXPECT_EQ(2147483647, out);
  EXPECT_EQ(0, dstoi("2147483648", out));
  EXPECT_EQ(INT_MIN, out);
  EXPECT_EQ(0, dstoi("-2147483648", out));
  EXPECT_EQ(INT_MIN, out);
  EXPECT_EQ(0, dstoi("4294967297", out));
  EXPECT_EQ(1, out);
}

TEST_F(UtilsTest, DstouiAppliesTheSignAndWrapsIn32Bits) {
  unsigned int out = 5;
  EXPECT_EQ(0, dstoui("-1", out));
  EXPECT_EQ(4294967295u, out);
  EXPECT_EQ(0, dstoui("4294967296", out));
  EXPECT_EQ(0u, out);
  EXPECT_EQ(0, dstoui("+4294967295", out));
  EXPECT_EQ(4294967295u, out);
  out = 5;
  EXPECT_EQ(-1, dstoui("-", out));
  EXPECT_EQ(5u, out);
}

TEST_F(UtilsTest, DstollAndDstoullWorkIn64Bits) {
  long long value = 0;
  EXPECT_EQ(0, dstoll("-9223372036854775808", value));
  EXPECT_EQ(LLONG_MIN, value);
  EXPECT_EQ(0, dstoll("4294967296", value));
  EXPECT_EQ(4294967296LL, value);
  EXPECT_EQ(0, dstoll("18446744073709551617", value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(-1, dstoll("", value));
  EXPECT_EQ(1, value);

  unsigned long long unsigned_value = 0;
  EXPECT_EQ(0, dstoull("-1", unsigned_value));
  EXPECT_EQ(ULLONG_MAX, unsigned_value);
  EXPECT_EQ(0, dstoull("18446744073709551615", unsigned_value));
  EXPECT_EQ(ULLONG_MAX, unsigned_value);
  EXPECT_EQ(-1, dstoull("+", unsigned_value));
  EXPECT_EQ(ULLONG_MAX, unsigned_value);
}

TEST_F(UtilsTest, DstolFollowsTheWidthOfLongOnThisMachine) {
  long out = 0;
  EXPECT_EQ(0, dstol("4294967296", out));
  if (kLong32) {
    EXPECT_EQ(0L, out);
  } else {
    EXPECT_EQ(static_cast<long>(4294967296LL), out);
  }
  EXPECT_EQ(0, dstol("2147483648", out));
  if (kLong32) {
    EXPECT_EQ(static_cast<long>(INT_MIN), out);
  } else {
    EXPECT_EQ(static_cast<long>(2147483648LL), out);
  }
  EXPECT_EQ(0, dstol("-12x", out));
  EXPECT_EQ(-12L, out);
  EXPECT_EQ(-1, dstol("-", out));
  EXPECT_EQ(-12L, out);
}

TEST_F(UtilsTest, DstoulFollowsTheWidthOfLongOnThisMachine) {
  unsigned long out = 0;
  EXPECT_EQ(0, dstoul("-1", out));
  if (kLong32) {
    EXPECT_EQ(4294967295UL, out);
  } else {
    EXPECT_EQ(static_cast<unsigned long>(18446744073709551615ULL), out);
  }
  EXPECT_EQ(0, dstoul("4294967296", out));
  if (kLong32) {
    EXPECT_EQ(0UL, out);
  } else {
    EXPECT_EQ(static_cast<unsigned long>(4294967296ULL), out);
  }
  EXPECT_EQ(-1, dstoul("", out));
}

// ---------------------------------------------------------------- strToInt / strToReal

TEST_F(UtilsTest, StrToIntParsesInTheGivenBase) {
  EXPECT_EQ(26, strToInt("0x1A", 16, -1));
  EXPECT_EQ(26, strToInt("1a", 16, -1));
  EXPECT_EQ(8, strToInt("010", 0, -1));
  EXPECT_EQ(-42, strToInt("  -42", 10, -1));
  EXPECT_EQ(12, strToInt("12abc", 10, -1));
  EXPECT_EQ(LLONG_MAX, strToInt("9223372036854775807", 10, -1));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, StrToIntOfEmptyTextLogsInvalidArgument) {
  EXPECT_EQ(7, strToInt("", 10, 7));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToInt", "Invalid argument\n"));
  EXPECT_EQ(1u, LogCapture::entries().size());
}

TEST_F(UtilsTest, StrToIntWithoutDigitsLogsInvalidArgumentWithFullStop) {
  EXPECT_EQ(7, strToInt("zz", 10, 7));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToInt", "Invalid argument.\n"));
  EXPECT_EQ(1u, LogCapture::entries().size());
}

TEST_F(UtilsTest, StrToIntWithAnInvalidBaseConsumesNothing) {
  EXPECT_EQ(9, strToInt("12", 1, 9));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToInt", "Invalid argument.\n"));
  EXPECT_EQ(9, strToInt("12", 37, 9));
  EXPECT_EQ(9, strToInt("12", -1, 9));
  EXPECT_EQ(3u, velmora::testing::countLogLines("utils.cpp", "strToInt", "Invalid argument.\n"));
  EXPECT_EQ(3u, LogCapture::entries().size());
  EXPECT_EQ(35, strToInt("z", 36, 9));
  EXPECT_EQ(2, strToInt("10", 2, 9));
}

TEST_F(UtilsTest, StrToIntOutOfRangeLogsTheConversionFailure) {
  EXPECT_EQ(7, strToInt("99999999999999999999", 10, 7));
  const std::string message = std::string(" Conversion failed: ") + std::to_string(ERANGE) + " ( " +
                              strerror(ERANGE) + " )  [99999999999999999999] \n";
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToInt", message));
  EXPECT_EQ(7, strToInt("-99999999999999999999", 10, 7));
}

TEST_F(UtilsTest, StrToRealParsesAndIgnoresTrailingText) {
  EXPECT_DOUBLE_EQ(1.5, strToReal("1.5", -1.0));
  EXPECT_DOUBLE_EQ(2.5, strToReal("2.5xyz", -1.0));
  EXPECT_DOUBLE_EQ(-1e3, strToReal(" -1e3", -1.0));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, StrToRealOfEmptyTextLogsInvalidArgument) {
  EXPECT_DOUBLE_EQ(4.5, strToReal("", 4.5));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToReal", "Invalid argument\n"));
}

TEST_F(UtilsTest, StrToRealWithoutNumberLogsInvalidArgumentWithFullStop) {
  EXPECT_DOUBLE_EQ(4.5, strToReal("abc", 4.5));
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToReal", "Invalid argument.\n"));
}

TEST_F(UtilsTest, StrToRealOutOfRangeLogsTheConversionFailureWithoutTrailingBlank) {
  EXPECT_DOUBLE_EQ(4.5, strToReal("1e999", 4.5));
  const std::string message = std::string("Conversion failed: ") + std::to_string(ERANGE) + " ( " +
                              strerror(ERANGE) + " )  [1e999]\n";
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "strToReal", message));
}

// ---------------------------------------------------------------- trimming

TEST_F(UtilsTest, TrimRemovesTheDefaultSetFromBothEnds) {
  std::string s = "\t a b \n";
  EXPECT_EQ(&s, &trim(s));
  EXPECT_EQ("a b", s);
  std::string blanks = "   ";
  EXPECT_EQ("", trim(blanks));
  std::string all_six = " \t\f\v\r\nx y\n\r\v\f\t ";
  EXPECT_EQ("x y", trim(all_six));
  std::string empty;
  EXPECT_EQ("", trim(empty));
}

TEST_F(UtilsTest, LtrimAndRtrimWorkOnOneEndOnly) {
  std::string left = "  a  ";
  EXPECT_EQ(&left, &ltrim(left));
  EXPECT_EQ("a  ", left);
  std::string right = "  a  ";
  EXPECT_EQ(&right, &rtrim(right));
  EXPECT_EQ("  a", right);
}

TEST_F(UtilsTest, TrimWithCharactersUsesOnlyThoseCharacters) {
  std::string left = "xyxaxy b";
  EXPECT_EQ("axy b", ltrim(left, "xy"));
  std::string right = " bxayxy";
  EXPECT_EQ(" bxa", rtrim(right, "xy"));
  std::string only = "xyyx";
  EXPECT_EQ("", ltrim(only, "xy"));
  std::string only_right = "xyyx";
  EXPECT_EQ("", rtrim(only_right, "xy"));
  std::string untouched = " a ";
  EXPECT_EQ(" a ", ltrim(untouched, ""));
}

// ---------------------------------------------------------------- hasSuffix

TEST_F(UtilsTest, HasSuffixComparesFromTheLastDotIncludingTheDot) {
  EXPECT_TRUE(hasSuffix("a/b.json", ".json"));
  EXPECT_FALSE(hasSuffix("a/b.json", "json"));
  EXPECT_TRUE(hasSuffix("a.tar.gz", ".gz"));
  EXPECT_FALSE(hasSuffix("a.tar.gz", ".tar.gz"));
  EXPECT_FALSE(hasSuffix("a/b.JSON", ".json"));
  EXPECT_TRUE(hasSuffix("a.", "."));
}

TEST_F(UtilsTest, HasSuffixIsFalseForASuffixAsLongAsThePath) {
  EXPECT_FALSE(hasSuffix(".txt", ".txt"));
  EXPECT_TRUE(hasSuffix("x.txt", ".txt"));
}

TEST_F(UtilsTest, HasSuffixIsFalseForEmptyPathOrPathWithoutDot) {
  EXPECT_FALSE(hasSuffix("", ""));
  EXPECT_FALSE(hasSuffix("", ".a"));
  EXPECT_FALSE(hasSuffix("abc", ""));
  EXPECT_FALSE(hasSuffix("abc", "c"));
}

// ---------------------------------------------------------------- generateUUID

// Whether text is five groups of 8, 4, 4, 4 and 12 upper-case hex digits joined by dashes.
bool isUuidText(const std::string& text) {
  if (text.size() != 36) {
    return false;
  }
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash_place = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    if (dash_place ? c != '-' : !hex) {
      return false;
    }
  }
  return true;
}

TEST_F(UtilsTest, UuidTextCheckRejectsOtherForms) {
  EXPECT_TRUE(isUuidText("03020100-0504-0706-0809-0A0B0C0D0E0F"));
  EXPECT_FALSE(isUuidText("03020100-0504-0706-0809-0a0B0C0D0E0F"));
  EXPECT_FALSE(isUuidText("03020100-0504-0706-08090A0B0C0D0E0F0"));
  EXPECT_FALSE(isUuidText("03020100-0504-0706-0809-0A0B0C0D0E0"));
}

TEST_F(UtilsTest, GenerateUuidPrintsTheFirstGroupsInNativeByteOrder) {
  g_counting_uuid = true;
  const std::string uuid = generateUUID();
  g_counting_uuid = false;
  EXPECT_EQ("03020100-0504-0706-0809-0A0B0C0D0E0F", uuid);
}

TEST_F(UtilsTest, GenerateUuidGivesThirtySixUpperCaseHexCharactersInFiveGroups) {
  const std::string first = generateUUID();
  const std::string second = generateUUID();
  EXPECT_EQ(36u, first.size());
  EXPECT_TRUE(isUuidText(first)) << first;
  EXPECT_TRUE(isUuidText(second)) << second;
  EXPECT_NE(first, second);
  // Byte 6 holds the version (4, random) in its high half; printed in native order it is the
  // third character of the third group. Byte 8 holds the variant (binary 10xx).
  EXPECT_EQ('4', first[16]) << first;
  EXPECT_NE(std::string::npos, std::string("89AB").find(first[19])) << first;
}

// ---------------------------------------------------------------- isPathExists

TEST_F(UtilsTest, IsPathExistsOfNullIsFalseWithoutLog) {
  EXPECT_FALSE(isPathExists(nullptr));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, IsPathExistsOfAnExistingPathIsTrue) {
  EXPECT_TRUE(isPathExists("/"));
  EXPECT_TRUE(isPathExists("/proc/self"));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, IsPathExistsOfAMissingPathLogsTheFailure) {
  const char* path = "/proc/self/no-such-entry";
  EXPECT_FALSE(isPathExists(path));
  const std::string message =
      std::string("filePath:'") + path + "', ret:-1, error:'" + strerror(ENOENT) + "'.\n";
  EXPECT_TRUE(LoggedOnceFrom(1000, "utils.cpp", "isPathExists", message));
}

// ---------------------------------------------------------------- exactIniKeyValue

TEST_F(UtilsTest, ExactIniKeyValueSplitsTrimsAndCutsTheComment) {
  std::string key = "k0";
  std::string value = "v0";
  EXPECT_TRUE(exactIniKeyValue("name = value # note", key, value));
  EXPECT_EQ("name", key);
  EXPECT_EQ("value", value);
  EXPECT_TRUE(exactIniKeyValue(" \tk\t=\r v w \n", key, value));
  EXPECT_EQ("k", key);
  EXPECT_EQ("v w", value);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(UtilsTest, ExactIniKeyValueTakesTheFirstEqualsSignOnly) {
  std::string key;
  std::string value;
  EXPECT_TRUE(exactIniKeyValue("=x", key, value));
  EXPECT_EQ("", key);
  EXPECT_EQ("x", value);
  EXPECT_TRUE(exactIniKeyValue("a=b=c", key, value));
  EXPECT_EQ("a", key);
  EXPECT_EQ("b=c", value);
  EXPECT_TRUE(exactIniKeyValue("k#x=v#w#z", key, value));
  EXPECT_EQ("k#x", key);
  EXPECT_EQ("v", value);
  EXPECT_TRUE(exactIniKeyValue("k=#only a comment", key, value));
  EXPECT_EQ("k", key);
  EXPECT_EQ("", value);
}

TEST_F(UtilsTest, ExactIniKeyValueWithoutEqualsSignLogsAndLeavesTheOutputs) {
  std::string key = "k0";
  std::string value = "v0";
  EXPECT_FALSE(exactIniKeyValue("no pair here", key, value));
  EXPECT_EQ("k0", key);
  EXPECT_EQ("v0", value);
  EXPECT_TRUE(
      LoggedOnceFrom(1000, "utils.cpp", "exactIniKeyValue", "Invalid format, Can't find =\n"));
}

// ---------------------------------------------------------------- convert2HexStr

TEST_F(UtilsTest, Convert2HexStrAppendsValuesFromSixteenOn) {
  std::string s = "x";
  EXPECT_EQ(0, convert2HexStr(255, s, true));
  EXPECT_EQ("xFF", s);
  s = "p";
  EXPECT_EQ(0, convert2HexStr(16, s, true));
  EXPECT_EQ("p10", s);
  s = "";
  EXPECT_EQ(0, convert2HexStr(0xABCDEF, s, false));
  EXPECT_EQ("abcdef", s);
}

TEST_F(UtilsTest, Convert2HexStrReplacesTheTextForValuesBelowSixteen) {
  std::string s = "x";
  EXPECT_EQ(0, convert2HexStr(10, s, false));
  EXPECT_EQ("a", s);
  s = "abc";
  EXPECT_EQ(0, convert2HexStr(0, s, true));
  EXPECT_EQ("0", s);
  s = "abc";
  EXPECT_EQ(0, convert2HexStr(15u, s, true));
  EXPECT_EQ("F", s);
}

TEST_F(UtilsTest, Convert2HexStrBuildingSeveralValuesLosesTextAtASmallValue) {
  std::string s;
  convert2HexStr(255, s, true);
  convert2HexStr(171, s, true);
  EXPECT_EQ("FFAB", s);
  convert2HexStr(5, s, true);
  EXPECT_EQ("5", s);
}

TEST_F(UtilsTest, Convert2HexStrTakesNegativeValuesAsUnsignedOfTheirWidth) {
  std::string s;
  convert2HexStr(-1, s, true);
  EXPECT_EQ("FFFFFFFF", s);
  s.clear();
  convert2HexStr(static_cast<char>(-1), s, true);
  EXPECT_EQ("FF", s);
  s.clear();
  convert2HexStr(static_cast<char>(-2), s, false);
  EXPECT_EQ("fe", s);
  s = "x";
  convert2HexStr(static_cast<char>(10), s, true);
  EXPECT_EQ("A", s);
  s.clear();
  convert2HexStr(static_cast<unsigned char>(200), s, true);
  EXPECT_EQ("C8", s);
  s.clear();
  convert2HexStr(0x80000000u, s, true);
  EXPECT_EQ("80000000", s);
}

TEST_F(UtilsTest, Convert2HexStrOfLongFollowsTheWidthOfLongOnThisMachine) {
  std::string s;
  convert2HexStr(-1L, s, true);
  EXPECT_EQ(kLong32 ? "FFFFFFFF" : "FFFFFFFFFFFFFFFF", s);
  s.clear();
  convert2HexStr(std::numeric_limits<unsigned long>::max(), s, false);
  EXPECT_EQ(kLong32 ? "ffffffff" : "ffffffffffffffff", s);
  s = "y";
  convert2HexStr(0x1234UL, s, true);
  EXPECT_EQ("y1234", s);
  s = "y";
  convert2HexStr(7L, s, true);
  EXPECT_EQ("7", s);
}

// ---------------------------------------------------------------- strSplit

TEST_F(UtilsTest, StrSplitKeepsOnlyNonEmptyPieces) {
  EXPECT_EQ(StringList({"a", "b"}), strSplit("a,,b", ","));
  EXPECT_EQ(StringList({"a"}), strSplit("a,", ","));
  EXPECT_EQ(StringList({"a"}), strSplit(",a,", ","));
  EXPECT_EQ(StringList({"abc"}), strSplit("abc", ","));
  EXPECT_EQ(StringList({"a", "b", "c"}), strSplit("a,b,c", ","));
  EXPECT_EQ(StringList(), strSplit("", ","));
  EXPECT_EQ(StringList(), strSplit(",,,", ","));
}

TEST_F(UtilsTest, StrSplitMovesOnByTheLengthOfTheDelimiterString) {
  EXPECT_EQ(StringList({"a", "b"}), strSplit("a::b", "::"));
  EXPECT_EQ(StringList({"a"}), strSplit("a:b:c", "::"));
  // Either character delimits, but each match skips two characters: "b" is lost.
  EXPECT_EQ(StringList({"a"}), strSplit("a:b;c", ":;"));
  EXPECT_EQ(StringList({"a", "bc"}), strSplit("a:xbc", ":;"));
}

TEST_F(UtilsTest, StrSplitWithoutDelimitersGivesTheWholeText) {
  EXPECT_EQ(StringList({"a,b"}), strSplit("a,b", ""));
}

// ---------------------------------------------------------------- separateStr

TEST_F(UtilsTest, SeparateStrKeepsEmptyFields) {
  StringList out;
  EXPECT_EQ(0, separateStr("a,b,", ",", out));
  EXPECT_EQ(StringList({"a", "b", ""}), out);
  out.clear();
  EXPECT_EQ(0, separateStr(",a", ",", out));
  EXPECT_EQ(StringList({"", "a"}), out);
  out.clear();
  EXPECT_EQ(0, separateStr("a,,b", ",", out));
  EXPECT_EQ(StringList({"a", "", "b"}), out);
  out.clear();
  EXPECT_EQ(0, separateStr(",", ",", out));
  EXPECT_EQ(StringList({"", ""}), out);
}

TEST_F(UtilsTest, SeparateStrTreatsEachDelimiterCharacterAlone) {
  StringList out;
  EXPECT_EQ(0, separateStr("a;b,c", ",;", out));
  EXPECT_EQ(StringList({"a", "b", "c"}), out);
}

TEST_F(UtilsTest, SeparateStrAppendsToWhatOutHolds) {
  StringList out = {"x"};
  EXPECT_EQ(0, separateStr("a,b", ",", out));
  EXPECT_EQ(StringList({"x", "a", "b"}), out);
}

TEST_F(UtilsTest, SeparateStrWithoutDelimiterFailsAndLeavesOut) {
  StringList out = {"keep"};
  EXPECT_EQ(-1, separateStr("abc", ",", out));
  EXPECT_EQ(-1, separateStr("", ",", out));
  EXPECT_EQ(-1, separateStr("a,b", "", out));
  EXPECT_EQ(StringList({"keep"}), out);
  EXPECT_TRUE(LogCapture::entries().empty());
}

}  // namespace
