// CommonValue: tags, every cell of the conversion table, text forms, vectors, and the storage
// rules of the setters, copies, moves and assignments.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/container/common_value.h"

namespace {

using velmora::base::container::CommonValue;
using velmora::base::container::Point;

using Texts = std::vector<std::string>;
using Numbers = std::vector<unsigned int>;
using Values = std::vector<CommonValue>;

const std::array<int32_t, 4> kReserved = {0, 0, -1, -1};

bool samePoint(const Point& a, const Point& b) {
  return a.x == b.x && a.y == b.y;
}

CommonValue stringValue(const char* text) {
  return CommonValue(std::string(text));
}

// Every numeric conversion of value gives zero.
void expectZeroNumbers(const CommonValue& value) {
  EXPECT_FALSE(static_cast<bool>(value));
  EXPECT_EQ(0, static_cast<int>(value));
  EXPECT_EQ(0u, static_cast<unsigned int>(value));
  EXPECT_EQ(0, static_cast<short>(value));
  EXPECT_EQ(0u, static_cast<unsigned short>(value));
  EXPECT_EQ(0LL, static_cast<long long>(value));
  EXPECT_EQ(0ULL, static_cast<unsigned long long>(value));
  EXPECT_EQ(0.0f, static_cast<float>(value));
  EXPECT_EQ(0.0, static_cast<double>(value));
}

// One value of every tag that converts to zero.
std::vector<CommonValue> nonNumericValues() {
  return {CommonValue(), CommonValue::makeNull(), stringValue("12"), CommonValue(Point{3, -4}),
          CommonValue(Values{CommonValue(7)})};
}

// ---------------------------------------------------------------- tags

TEST(CommonValueTest, EachConstructorAndSetterSetsItsTag) {
  EXPECT_EQ(255, CommonValue().type());
  EXPECT_EQ(0, CommonValue::makeNull().type());
  EXPECT_EQ(1, CommonValue(5).type());
  EXPECT_EQ(2, CommonValue(5u).type());
  EXPECT_EQ(3, CommonValue(static_cast<short>(5)).type());
  EXPECT_EQ(4, CommonValue(static_cast<unsigned short>(5)).type());
  EXPECT_EQ(5, CommonValue(5LL).type());
  EXPECT_EQ(6, CommonValue(5ULL).type());
  EXPECT_EQ(7, CommonValue(true).type());
  EXPECT_EQ(8, CommonValue(5.0f).type());
  EXPECT_EQ(9, CommonValue(5.0).type());
  EXPECT_EQ(10, stringValue("5").type());
  EXPECT_EQ(11, CommonValue(Point{5, 5}).type());
  EXPECT_EQ(12, CommonValue(Values{}).type());

  CommonValue value;
  EXPECT_EQ(1, (value = 5).type());
  EXPECT_EQ(2, (value = 5u).type());
  EXPECT_EQ(3, (value = static_cast<short>(5)).type());
  EXPECT_EQ(4, (value = static_cast<unsigned short>(5)).type());
  EXPECT_EQ(5, (value = 5LL).type());
  EXPECT_EQ(6, (value = 5ULL).type());
  EXPECT_EQ(7, (value = false).type());
  EXPECT_EQ(8, (value = 5.0f).type());
  EXPECT_EQ(9, (value = 5.0).type());
  EXPECT_EQ(10, (value = std::string("5")).type());
  EXPECT_EQ(11, (value = Point{1, 2}).type());
  EXPECT_EQ(12, (value = Values{CommonValue(1)}).type());
  EXPECT_EQ(0, value.setNull().type());
}

TEST(CommonValueTest, DefaultValueIsUndefinedWithZeroConversionsAndText) {
  const CommonValue value;
  EXPECT_EQ(255, value.type());
  expectZeroNumbers(value);
  EXPECT_TRUE(samePoint(Point{0, 0}, static_cast<Point>(value)));
  EXPECT_EQ("Undefined[]", value.convertToStringType());
  EXPECT_EQ("Undefined[]", static_cast<std::string>(value));
  EXPECT_EQ(kReserved, value.reservedBlock());
  EXPECT_EQ("", value.textStorage());
  EXPECT_TRUE(value.arrayStorage().empty());
}

// ---------------------------------------------------------------- to bool

TEST(CommonValueTest, ToBoolIsNonZeroOfEachScalar) {
  EXPECT_TRUE(static_cast<bool>(CommonValue(-1)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0)));
  EXPECT_TRUE(static_cast<bool>(CommonValue(0x80000000u)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0u)));
  EXPECT_TRUE(static_cast<bool>(CommonValue(static_cast<short>(-2))));
  EXPECT_FALSE(static_cast<bool>(CommonValue(static_cast<short>(0))));
  EXPECT_TRUE(static_cast<bool>(CommonValue(static_cast<unsigned short>(0x8000))));
  EXPECT_FALSE(static_cast<bool>(CommonValue(static_cast<unsigned short>(0))));
  EXPECT_TRUE(static_cast<bool>(CommonValue(true)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(false)));
  EXPECT_TRUE(static_cast<bool>(CommonValue(0.5f)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0.0f)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(-0.0f)));
  EXPECT_TRUE(static_cast<bool>(CommonValue(1e-300)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0.0)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(-0.0)));
}

TEST(CommonValueTest, ToBoolOfSixtyFourBitsLooksAtBothHalves) {
  EXPECT_TRUE(static_cast<bool>(CommonValue(0x100000000LL)));  // high half only
  EXPECT_TRUE(static_cast<bool>(CommonValue(1LL)));            // low half only
  EXPECT_TRUE(static_cast<bool>(CommonValue(0x8000000000000000ULL)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0LL)));
  EXPECT_FALSE(static_cast<bool>(CommonValue(0ULL)));
}

// ---------------------------------------------------------------- to int / unsigned int

TEST(CommonValueTest, ToIntReinterpretsThirtyTwoBitsAndExtendsSixteen) {
  EXPECT_EQ(-1, static_cast<int>(CommonValue(-1)));
  EXPECT_EQ(INT_MIN, static_cast<int>(CommonValue(INT_MIN)));
  EXPECT_EQ(-1, static_cast<int>(CommonValue(4294967295u)));
  EXPECT_EQ(-2, static_cast<int>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535, static_cast<int>(CommonValue(static_cast<unsigned short>(65535))));
}

TEST(CommonValueTest, ToIntTakesTheLowThirtyTwoBitsOfSixtyFour) {
  EXPECT_EQ(5, static_cast<int>(CommonValue(0x100000005LL)));
  EXPECT_EQ(0, static_cast<int>(CommonValue(0x100000000LL)));
  EXPECT_EQ(-1, static_cast<int>(CommonValue(-1LL)));
  EXPECT_EQ(1, static_cast<int>(CommonValue(0xFFFFFFFF00000001ULL)));
  EXPECT_EQ(INT_MIN, static_cast<int>(CommonValue(0x80000000ULL)));
}

TEST(CommonValueTest, ToIntOfBoolAndFloatingPoint) {
  EXPECT_EQ(1, static_cast<int>(CommonValue(true)));
  EXPECT_EQ(0, static_cast<int>(CommonValue(false)));
  EXPECT_EQ(-2, static_cast<int>(CommonValue(-2.7f)));
  EXPECT_EQ(2, static_cast<int>(CommonValue(2.9f)));
  EXPECT_EQ(-2, static_cast<int>(CommonValue(-2.7)));
  EXPECT_EQ(2, static_cast<int>(CommonValue(2.9999)));
  // Beyond 32 bits a truncated value keeps its low 32 bits, as the integer narrowings do.
  EXPECT_EQ(static_cast<int>(3000000000u), static_cast<int>(CommonValue(3e9)));
}

TEST(CommonValueTest, ToUnsignedIntOfEachTag) {
  EXPECT_EQ(4294967295u, static_cast<unsigned int>(CommonValue(-1)));
  EXPECT_EQ(0x12345678u, static_cast<unsigned int>(CommonValue(0x12345678u)));
  EXPECT_EQ(4294967294u, static_cast<unsigned int>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535u, static_cast<unsigned int>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(4294967295u, static_cast<unsigned int>(CommonValue(-1LL)));
  EXPECT_EQ(0x9ABCDEF0u, static_cast<unsigned int>(CommonValue(0x123456789ABCDEF0ULL)));
  EXPECT_EQ(1u, static_cast<unsigned int>(CommonValue(true)));
  EXPECT_EQ(2u, static_cast<unsigned int>(CommonValue(2.9f)));
  EXPECT_EQ(3000000000u, static_cast<unsigned int>(CommonValue(3e9)));
  // A negative value truncates toward zero and wraps like the integer conversions.
  EXPECT_EQ(4294967294u, static_cast<unsigned int>(CommonValue(-2.7)));
}

// ---------------------------------------------------------------- to short / unsigned short

TEST(CommonValueTest, ToShortTakesTheLowSixteenBits) {
  EXPECT_EQ(4464, static_cast<short>(CommonValue(70000)));
  EXPECT_EQ(-1, static_cast<short>(CommonValue(-1)));
  EXPECT_EQ(0x5678, static_cast<short>(CommonValue(0x12345678u)));
  EXPECT_EQ(-2, static_cast<short>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(-1, static_cast<short>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(0x2345, static_cast<short>(CommonValue(0x12345LL)));
  EXPECT_EQ(-1, static_cast<short>(CommonValue(0xFFFFFFFFFFFFFFFFULL)));
  EXPECT_EQ(1, static_cast<short>(CommonValue(true)));
  EXPECT_EQ(-2, static_cast<short>(CommonValue(-2.7f)));
  EXPECT_EQ(4464, static_cast<short>(CommonValue(70000.9)));
}

TEST(CommonValueTest, ToUnsignedShortTakesTheLowSixteenBits) {
  EXPECT_EQ(65535, static_cast<unsigned short>(CommonValue(-1)));
  EXPECT_EQ(4464, static_cast<unsigned short>(CommonValue(70000u)));
  EXPECT_EQ(65534, static_cast<unsigned short>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535, static_cast<unsigned short>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(0, static_cast<unsigned short>(CommonValue(0x10000LL)));
  EXPECT_EQ(0xBEEF, static_cast<unsigned short>(CommonValue(0xDEADBEEFULL)));
  EXPECT_EQ(0, static_cast<unsigned short>(CommonValue(false)));
  EXPECT_EQ(2, static_cast<unsigned short>(CommonValue(2.9f)));
  EXPECT_EQ(65535, static_cast<unsigned short>(CommonValue(65535.5)));
}

// ---------------------------------------------------------------- to long long / ull

TEST(CommonValueTest, ToLongLongExtendsBySignednessOfTheTag) {
  EXPECT_EQ(-1LL, static_cast<long long>(CommonValue(-1)));
  EXPECT_EQ(4294967295LL, static_cast<long long>(CommonValue(4294967295u)));
  EXPECT_EQ(-2LL, static_cast<long long>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535LL, static_cast<long long>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(LLONG_MIN, static_cast<long long>(CommonValue(LLONG_MIN)));
  EXPECT_EQ(-1LL, static_cast<long long>(CommonValue(ULLONG_MAX)));
  EXPECT_EQ(1LL, static_cast<long long>(CommonValue(true)));
  EXPECT_EQ(10000000000LL, static_cast<long long>(CommonValue(1e10f)));
  EXPECT_EQ(-2LL, static_cast<long long>(CommonValue(-2.7)));
}

TEST(CommonValueTest, ToUnsignedLongLongExtendsBySignednessOfTheTag) {
  EXPECT_EQ(ULLONG_MAX, static_cast<unsigned long long>(CommonValue(-1)));
  EXPECT_EQ(4294967295ULL, static_cast<unsigned long long>(CommonValue(4294967295u)));
  EXPECT_EQ(0xFFFFFFFFFFFFFFFEULL,
            static_cast<unsigned long long>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535ULL,
            static_cast<unsigned long long>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(ULLONG_MAX, static_cast<unsigned long long>(CommonValue(-1LL)));
  EXPECT_EQ(ULLONG_MAX, static_cast<unsigned long long>(CommonValue(ULLONG_MAX)));
  EXPECT_EQ(0ULL, static_cast<unsigned long long>(CommonValue(false)));
  EXPECT_EQ(2ULL, static_cast<unsigned long long>(CommonValue(2.9f)));
  EXPECT_EQ(10000000000000000000ULL, static_cast<unsigned long long>(CommonValue(1e19)));
}

// ---------------------------------------------------------------- to float / double

TEST(CommonValueTest, ToFloatConvertsSignedOrUnsignedByTag) {
  EXPECT_EQ(-3.0f, static_cast<float>(CommonValue(-3)));
  EXPECT_EQ(4294967296.0f, static_cast<float>(CommonValue(4294967295u)));
  EXPECT_EQ(-2.0f, static_cast<float>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535.0f, static_cast<float>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(-5.0f, static_cast<float>(CommonValue(-5LL)));
  EXPECT_EQ(18446744073709551616.0f, static_cast<float>(CommonValue(ULLONG_MAX)));
  EXPECT_EQ(1.0f, static_cast<float>(CommonValue(true)));
  EXPECT_EQ(0.5f, static_cast<float>(CommonValue(0.5f)));
  EXPECT_EQ(0.1f, static_cast<float>(CommonValue(0.1)));  // the double narrowed
}

TEST(CommonValueTest, ToDoubleConvertsSignedOrUnsignedByTag) {
  EXPECT_EQ(-1.0, static_cast<double>(CommonValue(-1)));
  EXPECT_EQ(4294967295.0, static_cast<double>(CommonValue(4294967295u)));
  EXPECT_EQ(-2.0, static_cast<double>(CommonValue(static_cast<short>(-2))));
  EXPECT_EQ(65535.0, static_cast<double>(CommonValue(static_cast<unsigned short>(65535))));
  EXPECT_EQ(-9223372036854775808.0, static_cast<double>(CommonValue(LLONG_MIN)));
  EXPECT_EQ(18446744073709551616.0, static_cast<double>(CommonValue(ULLONG_MAX)));
  EXPECT_EQ(1.0, static_cast<double>(CommonValue(true)));
  EXPECT_EQ(0.0, static_cast<double>(CommonValue(false)));
  EXPECT_EQ(static_cast<double>(0.1f), static_cast<double>(CommonValue(0.1f)));  // widened
  EXPECT_EQ(-2.7, static_cast<double>(CommonValue(-2.7)));
}

TEST(CommonValueTest, NonNumericTagsConvertToZeroEverywhere) {
  for (const CommonValue& value : nonNumericValues()) {
    SCOPED_TRACE(value.type());
    expectZeroNumbers(value);
  }
}

TEST(CommonValueTest, StringsAreNeverParsed) {
  const CommonValue value = stringValue("12");
  EXPECT_EQ(0, static_cast<int>(value));
  EXPECT_FALSE(static_cast<bool>(value));
  EXPECT_FALSE(static_cast<bool>(stringValue("true")));
}

// ---------------------------------------------------------------- to Point

TEST(CommonValueTest, ToPointOnlyForThePointTag) {
  EXPECT_TRUE(samePoint(Point{3, -4}, static_cast<Point>(CommonValue(Point{3, -4}))));
  EXPECT_TRUE(samePoint(Point{0, 0}, static_cast<Point>(CommonValue(5))));
  CommonValue value(Point{3, -4});
  value = 5;
  EXPECT_TRUE(samePoint(Point{0, 0}, static_cast<Point>(value)));
  EXPECT_TRUE(samePoint(Point{3, -4}, value.pointStorage()));
}

// ---------------------------------------------------------------- text

TEST(CommonValueTest, TextOfIntegers) {
  EXPECT_EQ("-2147483648", CommonValue(INT_MIN).convertToStringType());
  EXPECT_EQ("4294967295", CommonValue(4294967295u).convertToStringType());
  EXPECT_EQ("-2", CommonValue(static_cast<short>(-2)).convertToStringType());
  EXPECT_EQ("65535", CommonValue(static_cast<unsigned short>(65535)).convertToStringType());
  EXPECT_EQ("-9223372036854775808", CommonValue(LLONG_MIN).convertToStringType());
  EXPECT_EQ("18446744073709551615", CommonValue(ULLONG_MAX).convertToStringType());
}

TEST(CommonValueTest, TextOfBoolIsUpperCaseWord) {
  EXPECT_EQ("TRUE", CommonValue(true).convertToStringType());
  EXPECT_EQ("FALSE", CommonValue(false).convertToStringType());
  const CommonValue value(true);
  EXPECT_EQ(1, static_cast<int>(value));
  EXPECT_EQ(1.0, static_cast<double>(value));
}

TEST(CommonValueTest, TextOfFloatingPointUsesDefaultStreamFormatting) {
  EXPECT_EQ("0.5", CommonValue(0.5f).convertToStringType());
  EXPECT_EQ("1e+10", CommonValue(1e10f).convertToStringType());
  EXPECT_EQ("0.1", CommonValue(0.1f).convertToStringType());
  EXPECT_EQ("3.14159", CommonValue(3.14159265).convertToStringType());
  EXPECT_EQ("-2.7", CommonValue(-2.7).convertToStringType());
  EXPECT_EQ("1e-07", CommonValue(1e-7).convertToStringType());
  EXPECT_EQ("1.23457e+06", CommonValue(1234567.0).convertToStringType());
}

TEST(CommonValueTest, TextOfStringPointNullAndUndefined) {
  EXPECT_EQ("a b,c", stringValue("a b,c").convertToStringType());
  EXPECT_EQ("", stringValue("").convertToStringType());
  EXPECT_EQ("(3,-4)", CommonValue(Point{3, -4}).convertToStringType());
  EXPECT_EQ("null", CommonValue::makeNull().convertToStringType());
  EXPECT_EQ("Undefined[]", CommonValue().convertToStringType());
}

TEST(CommonValueTest, TextOfArraysRecursesWithoutBlanks) {
  const CommonValue nested(Values{
      CommonValue(1), CommonValue(Values{CommonValue(2), CommonValue(3)}), CommonValue(true)});
  EXPECT_EQ("[1,[2,3],TRUE]", nested.convertToStringType());
  EXPECT_EQ("[]", CommonValue(Values{}).convertToStringType());
  const CommonValue mixed(Values{stringValue("x"), CommonValue(Point{1, 2}), CommonValue(),
                                 CommonValue::makeNull(), CommonValue(0.5)});
  EXPECT_EQ("[x,(1,2),Undefined[],null,0.5]", mixed.convertToStringType());
  EXPECT_EQ("[1,[2,3],TRUE]", static_cast<std::string>(nested));
}

// ---------------------------------------------------------------- vectors

TEST(CommonValueTest, VectorOfUnsignedFromAScalarHoldsThatValue) {
  EXPECT_EQ(Numbers({5}), CommonValue(5).convertToVectorT<unsigned int>());
  EXPECT_EQ(Numbers({2}), CommonValue(2.9f).convertToVectorT<unsigned int>());
  EXPECT_EQ(Numbers({4294967295u}), CommonValue(-1).convertToVectorT<unsigned int>());
  EXPECT_EQ(Numbers({0}), stringValue("7").convertToVectorT<unsigned int>());
  EXPECT_EQ(Numbers({0}), CommonValue().convertToVectorT<unsigned int>());
}

TEST(CommonValueTest, VectorOfUnsignedFromAnArrayConvertsEachElement) {
  const CommonValue array(Values{CommonValue(1), stringValue("s"), CommonValue(3.7),
                                 CommonValue(-1), CommonValue(Values{CommonValue(9)})});
  EXPECT_EQ(Numbers({1, 0, 3, 4294967295u, 0}), array.convertToVectorT<unsigned int>());
  EXPECT_EQ(Numbers(), CommonValue(Values{}).convertToVectorT<unsigned int>());
  const std::vector<unsigned int> converted = array;
  EXPECT_EQ(Numbers({1, 0, 3, 4294967295u, 0}), converted);
}

TEST(CommonValueTest, VectorOfTextsFromAScalarHoldsItsText) {
  EXPECT_EQ(Texts({"5"}), CommonValue(5).convertToVectorT<std::string>());
  EXPECT_EQ(Texts({"Undefined[]"}), CommonValue().convertToVectorT<std::string>());
  EXPECT_EQ(Texts({"(1,2)"}), CommonValue(Point{1, 2}).convertToVectorT<std::string>());
}

TEST(CommonValueTest, VectorOfTextsFromAnArrayGivesEachElementsText) {
  const CommonValue array(
      Values{CommonValue(true), stringValue("x"), CommonValue(Values{CommonValue(1)})});
  EXPECT_EQ(Texts({"TRUE", "x", "[1]"}), array.convertToVectorT<std::string>());
  const std::vector<std::string> converted = array;
  EXPECT_EQ(Texts({"TRUE", "x", "[1]"}), converted);
}

// ---------------------------------------------------------------- arrays

TEST(CommonValueTest, ArrayConstructedFromAVectorStartsFromTheDefaultMembers) {
  const CommonValue array(Values{CommonValue(1), stringValue("two")});
  EXPECT_EQ(12, array.type());
  EXPECT_EQ("[1,two]", array.convertToStringType());
  EXPECT_EQ(2u, array.arrayStorage().size());
  EXPECT_EQ("", array.textStorage());
  EXPECT_TRUE(samePoint(Point{0, 0}, array.pointStorage()));
  EXPECT_EQ(kReserved, array.reservedBlock());
}

TEST(CommonValueTest, ArrayAssignedFromAVectorLeavesTheOtherMembersInPlace) {
  CommonValue value = stringValue("abc");
  value = Point{1, 2};
  value = 5;
  value = Values{CommonValue(7), CommonValue(Values{CommonValue(8)})};
  EXPECT_EQ(12, value.type());
  EXPECT_EQ("[7,[8]]", value.convertToStringType());
  EXPECT_EQ("abc", value.textStorage());
  EXPECT_TRUE(samePoint(Point{1, 2}, value.pointStorage()));
  EXPECT_EQ(kReserved, value.reservedBlock());
  value = Values{};
  EXPECT_EQ("[]", value.convertToStringType());
  value = 5;
  EXPECT_EQ(5, static_cast<int>(value)) << "the scalar stayed where it was";
}

TEST(CommonValueTest, EveryNumericConversionOfAnArrayIsZeroWhateverItsElements) {
  CommonValue array(-9);
  array = Values{CommonValue(3), CommonValue(2.5), CommonValue(true)};
  expectZeroNumbers(array);
  EXPECT_TRUE(samePoint(Point{0, 0}, static_cast<Point>(array)));
}

TEST(CommonValueTest, UndefinedValuesInAnArrayShowTheirFallThroughText) {
  const CommonValue array(Values{CommonValue(), CommonValue(Values{CommonValue()})});
  EXPECT_EQ("[Undefined[],[Undefined[]]]", array.convertToStringType());
  EXPECT_EQ(Texts({"Undefined[]", "[Undefined[]]"}), array.convertToVectorT<std::string>());
  EXPECT_EQ(Numbers({0, 0}), array.convertToVectorT<unsigned int>());
}

TEST(CommonValueTest, CopyConstructionCopiesTheArrayElementByElement) {
  CommonValue element = stringValue("hidden");
  element = 4;
  Values elements;
  elements.reserve(2);
  elements.emplace_back();
  elements[0] = element;  // copy assignment carries the hidden string along
  elements.emplace_back(Values{CommonValue(5)});
  const CommonValue array(std::move(elements));
  ASSERT_EQ("hidden", array.arrayStorage()[0].textStorage());

  const CommonValue copy(array);
  EXPECT_EQ("[4,[5]]", copy.convertToStringType());
  EXPECT_NE(array.arrayStorage().data(), copy.arrayStorage().data());
  EXPECT_NE(array.arrayStorage()[1].arrayStorage().data(),
            copy.arrayStorage()[1].arrayStorage().data());
  EXPECT_EQ("", copy.arrayStorage()[0].textStorage()) << "elements keep their live member only";
  EXPECT_EQ("hidden", array.arrayStorage()[0].textStorage());
}

TEST(CommonValueTest, CopyAssignmentCopiesTheArrayAndLeavesTheSourceAlone) {
  const CommonValue array(Values{CommonValue(1), CommonValue(Values{stringValue("n")})});
  CommonValue target(Values{CommonValue(9), CommonValue(9), CommonValue(9)});
  target = array;
  EXPECT_EQ("[1,[n]]", target.convertToStringType());
  EXPECT_NE(array.arrayStorage().data(), target.arrayStorage().data());
  EXPECT_EQ("[1,[n]]", array.convertToStringType());
}

TEST(CommonValueTest, MoveAssignmentOfAnArrayTakesItsElements) {
  CommonValue source(Values{CommonValue(1), CommonValue(Values{CommonValue(2)})});
  const CommonValue* elements = source.arrayStorage().data();
  CommonValue target(Values{CommonValue(9)});
  target = std::move(source);
  EXPECT_EQ(12, target.type());
  EXPECT_EQ("[1,[2]]", target.convertToStringType());
  EXPECT_EQ(elements, target.arrayStorage().data());
  EXPECT_EQ(12, source.type());  // NOLINT(bugprone-use-after-move): the rule under test
  EXPECT_EQ("[]", source.convertToStringType());
}

// ---------------------------------------------------------------- setters and storage

TEST(CommonValueTest, SetterLeavesTheOtherMembersInPlace) {
  CommonValue value = stringValue("abc");
  value = 5;
  EXPECT_EQ(1, value.type());
  EXPECT_EQ("5", value.convertToStringType());
  EXPECT_EQ("abc", value.textStorage());
  value = Point{1, 2};
  EXPECT_EQ("abc", value.textStorage());
  value = Values{CommonValue(1), CommonValue(2)};
  value = 7u;
  EXPECT_EQ(2u, value.arrayStorage().size());
  EXPECT_EQ("abc", value.textStorage());
  EXPECT_TRUE(samePoint(Point{1, 2}, value.pointStorage()));
  value.setNull();
  EXPECT_EQ("null", value.convertToStringType());
  EXPECT_EQ(2u, value.arrayStorage().size());
  EXPECT_EQ(kReserved, value.reservedBlock());
}

TEST(CommonValueTest, PointSetterFromTheValuesOwnPoint) {
  CommonValue value(Point{3, 4});
  value = 1;
  value = value.pointStorage();
  EXPECT_EQ(11, value.type());
  EXPECT_EQ("(3,4)", value.convertToStringType());
}

TEST(CommonValueTest, ChangingTheScalarTypeReadsOnlyTheNewMember) {
  CommonValue value(-1LL);
  value = static_cast<short>(5);
  EXPECT_EQ(5LL, static_cast<long long>(value));
  value = 2.5f;
  EXPECT_EQ(2, static_cast<int>(value));
  value = true;
  EXPECT_EQ(1u, static_cast<unsigned int>(value));
}

// ---------------------------------------------------------------- copy construction

TEST(CommonValueTest, CopyConstructionCopiesOnlyTheLiveMember) {
  CommonValue source = stringValue("abc");
  source = Point{1, 2};
  source = 42;
  const CommonValue copy(source);
  EXPECT_EQ(1, copy.type());
  EXPECT_EQ(42, static_cast<int>(copy));
  EXPECT_EQ("", copy.textStorage());
  EXPECT_TRUE(samePoint(Point{0, 0}, copy.pointStorage()));
  EXPECT_EQ("abc", source.textStorage());
  EXPECT_EQ(kReserved, copy.reservedBlock());
}

TEST(CommonValueTest, CopyConstructionOfEachScalarTagKeepsItsValue) {
  const std::vector<CommonValue> values = {CommonValue(-7),
                                           CommonValue(4000000000u),
                                           CommonValue(static_cast<short>(-3)),
                                           CommonValue(static_cast<unsigned short>(65000)),
                                           CommonValue(-5000000000LL),
                                           CommonValue(ULLONG_MAX),
                                           CommonValue(true),
                                           CommonValue(-2.5f),
                                           CommonValue(1e300)};
  for (const CommonValue& value : values) {
    const CommonValue copy(value);
    EXPECT_EQ(value.type(), copy.type());
    EXPECT_EQ(value.convertToStringType(), copy.convertToStringType());
    EXPECT_EQ(static_cast<unsigned long long>(value), static_cast<unsigned long long>(copy));
  }
}

TEST(CommonValueTest, CopyConstructionOfStringPointAndArray) {
  const CommonValue text = stringValue("abc");
  EXPECT_EQ("abc", CommonValue(text).textStorage());
  EXPECT_EQ("abc", text.textStorage());
  EXPECT_EQ("(3,-4)", CommonValue(CommonValue(Point{3, -4})).convertToStringType());
  const CommonValue array(Values{CommonValue(1), CommonValue(Values{stringValue("n")})});
  const CommonValue copy(array);
  EXPECT_EQ("[1,[n]]", copy.convertToStringType());
  EXPECT_EQ("[1,[n]]", array.convertToStringType());
}

TEST(CommonValueTest, CopyConstructionOfNullAndUndefinedCopiesOnlyTheTag) {
  CommonValue null_value = CommonValue::makeNull();
  null_value = std::string("hidden");
  null_value.setNull();
  const CommonValue copy(null_value);
  EXPECT_EQ(0, copy.type());
  EXPECT_EQ("", copy.textStorage());
  EXPECT_EQ(255, CommonValue(CommonValue()).type());
}

// ---------------------------------------------------------------- move construction

TEST(CommonValueTest, MoveConstructionStealsTheStringAndLeavesTheSourceTag) {
  CommonValue source = stringValue("a string too long for any small-string buffer");
  const CommonValue moved(std::move(source));
  EXPECT_EQ(10, moved.type());
  EXPECT_EQ("a string too long for any small-string buffer", moved.convertToStringType());
  EXPECT_EQ(10, source.type());  // NOLINT(bugprone-use-after-move): the rule under test
  EXPECT_EQ("", source.textStorage());
  EXPECT_EQ(kReserved, moved.reservedBlock());
}

TEST(CommonValueTest, MoveConstructionStealsTheArray) {
  CommonValue source(Values{CommonValue(1), CommonValue(Values{CommonValue(2)})});
  const CommonValue* elements = source.arrayStorage().data();
  const CommonValue moved(std::move(source));
  EXPECT_EQ("[1,[2]]", moved.convertToStringType());
  EXPECT_EQ(elements, moved.arrayStorage().data());
  EXPECT_EQ(12, source.type());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ("[]", source.convertToStringType());
  EXPECT_TRUE(source.arrayStorage().empty());
}

TEST(CommonValueTest, MoveConstructionOfAScalarCopiesOnlyTheLiveMember) {
  CommonValue source = stringValue("abc");
  source = 9;
  const CommonValue moved(std::move(source));
  EXPECT_EQ(9, static_cast<int>(moved));
  EXPECT_EQ("", moved.textStorage());
  EXPECT_EQ("abc", source.textStorage());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ("(5,6)", CommonValue(CommonValue(Point{5, 6})).convertToStringType());
}

TEST(CommonValueTest, MoveConstructionNeverThrows) {
  EXPECT_TRUE(std::is_nothrow_move_constructible<CommonValue>::value);
}

// ---------------------------------------------------------------- copy assignment

TEST(CommonValueTest, CopyAssignmentCarriesEveryMemberAlong) {
  CommonValue source = stringValue("abc");
  source = Values{CommonValue(1)};
  source = Point{7, 8};
  source = 3;
  CommonValue target = stringValue("old");
  target = source;
  EXPECT_EQ(1, target.type());
  EXPECT_EQ(3, static_cast<int>(target));
  EXPECT_EQ("abc", target.textStorage());
  EXPECT_EQ(1u, target.arrayStorage().size());
  EXPECT_TRUE(samePoint(Point{7, 8}, target.pointStorage()));
  EXPECT_EQ(kReserved, target.reservedBlock());
  EXPECT_EQ("abc", source.textStorage());
  EXPECT_EQ(1u, source.arrayStorage().size());
}

TEST(CommonValueTest, CopyAssignmentOfEachTag) {
  const std::vector<CommonValue> values = {CommonValue::makeNull(),
                                           CommonValue(-7),
                                           CommonValue(7u),
                                           CommonValue(static_cast<short>(-7)),
                                           CommonValue(static_cast<unsigned short>(7)),
                                           CommonValue(-7LL),
                                           CommonValue(7ULL),
                                           CommonValue(true),
                                           CommonValue(0.5f),
                                           CommonValue(0.25),
                                           stringValue("s"),
                                           CommonValue(Point{1, -1}),
                                           CommonValue(Values{CommonValue(1)}),
                                           CommonValue()};
  for (const CommonValue& value : values) {
    CommonValue target(123);
    target = value;
    EXPECT_EQ(value.type(), target.type());
    EXPECT_EQ(value.convertToStringType(), target.convertToStringType());
  }
}

TEST(CommonValueTest, CopyAssignmentToItselfChangesNothing) {
  CommonValue value(Values{stringValue("x")});
  value = std::string("text");
  CommonValue& same = value;
  value = same;
  EXPECT_EQ("text", value.convertToStringType());
  EXPECT_EQ(1u, value.arrayStorage().size());
}

TEST(CommonValueTest, CopyAssignmentFromAnElementOfItsOwnArray) {
  CommonValue value(Values{CommonValue(Values{CommonValue(1), CommonValue(2)}), CommonValue(3)});
  value = value.arrayStorage()[0];
  EXPECT_EQ("[1,2]", value.convertToStringType());
}

// ---------------------------------------------------------------- move assignment

TEST(CommonValueTest, MoveAssignmentTakesArrayAndStringAndCopiesTheRest) {
  CommonValue source = stringValue("abc");
  source = Values{CommonValue(1), CommonValue(2)};
  source = Point{4, 5};
  source = 6;
  CommonValue target(Values{CommonValue(9)});
  target = std::move(source);
  EXPECT_EQ(1, target.type());
  EXPECT_EQ(6, static_cast<int>(target));
  EXPECT_EQ("abc", target.textStorage());
  EXPECT_EQ(2u, target.arrayStorage().size());
  EXPECT_TRUE(samePoint(Point{4, 5}, target.pointStorage()));
  EXPECT_EQ(kReserved, target.reservedBlock());
  // NOLINTNEXTLINE(bugprone-use-after-move): the rule under test
  EXPECT_TRUE(source.arrayStorage().empty());
  EXPECT_EQ("", source.textStorage());
  EXPECT_EQ(1, source.type());
  EXPECT_TRUE(samePoint(Point{4, 5}, source.pointStorage()));
}

TEST(CommonValueTest, MoveAssignmentOfEachTag) {
  std::vector<CommonValue> values = {CommonValue::makeNull(),
                                     CommonValue(-7),
                                     CommonValue(7u),
                                     CommonValue(static_cast<short>(-7)),
                                     CommonValue(static_cast<unsigned short>(7)),
                                     CommonValue(-7LL),
                                     CommonValue(7ULL),
                                     CommonValue(false),
                                     CommonValue(0.5f),
                                     CommonValue(0.25),
                                     stringValue("s"),
                                     CommonValue(Point{1, -1}),
                                     CommonValue(Values{CommonValue(1)}),
                                     CommonValue()};
  for (CommonValue& value : values) {
    const std::string text = value.convertToStringType();
    CommonValue target(123);
    target = std::move(value);
    EXPECT_EQ(text, target.convertToStringType());
  }
}

TEST(CommonValueTest, MoveAssignmentToItselfChangesNothing) {
  CommonValue value(Values{CommonValue(1)});
  value = std::string("kept");
  CommonValue& same = value;
  value = std::move(same);
  EXPECT_EQ("kept", value.convertToStringType());
  EXPECT_EQ(1u, value.arrayStorage().size());
}

TEST(CommonValueTest, MoveAssignmentIsNoexcept) {
  EXPECT_TRUE(std::is_nothrow_move_assignable<CommonValue>::value);
}

TEST(CommonValueTest, ReservedBlockKeepsItsInitialWordsThroughEveryOperation) {
  CommonValue a(1);
  CommonValue b(a);
  CommonValue c(std::move(b));
  CommonValue d = stringValue("x");
  d = c;
  CommonValue e;
  e = std::move(d);
  e = 2.5;
  for (const CommonValue* value : {&a, &b, &c, &d, &e}) {
    EXPECT_EQ(kReserved, value->reservedBlock());
  }
}

}  // namespace
