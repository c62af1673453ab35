// CommonValue under allocation failure: every constructor, assignment, conversion and text form,
// arrays included, either completes with the result an undisturbed run gives, or throws
// std::bad_alloc and leaves the value it works on exactly as it was. The scalar operations and
// the moves allocate nothing.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "atomic_sweep.h"
#include "base/container/common_value.h"

namespace {

using velmora::base::container::CommonValue;
using velmora::base::container::Point;
using velmora::testing::completesOrKeepsState;
using velmora::testing::FaultRun;
using velmora::testing::sweepAllocationsOf;

using Values = std::vector<CommonValue>;

// Longer than any string kept inside the string object itself, so that copies allocate.
const std::string kLongText = "a text too long to be kept without an allocation";
const std::string kOtherLongText = "another text too long to be kept without an allocation";

// Every member a caller can observe, the storage of the members the tag does not show included.
std::string describe(const CommonValue& value) {
  std::string text = "type " + std::to_string(value.type()) + " text '" +
                     value.convertToStringType() + "' storage '" + value.textStorage() +
                     "' point (" + std::to_string(value.pointStorage().x) + "," +
                     std::to_string(value.pointStorage().y) + ") array [";
  for (const CommonValue& element : value.arrayStorage()) {
    text += describe(element) + ";";
  }
  text += "] reserved";
  for (const int32_t word : value.reservedBlock()) {
    text += " " + std::to_string(word);
  }
  return text;
}

std::string shown(const CommonValue& value) {
  return describe(value);
}
std::string shown(const std::string& text) {
  return text;
}
template <typename T>
std::string shown(const std::vector<T>& elements) {
  std::string text;
  for (const T& element : elements) {
    if constexpr (std::is_same_v<T, std::string>) {
      text += element + ";";
    } else {
      text += std::to_string(element) + ";";
    }
  }
  return text;
}

// A nested array of every kind of element, with strings that allocate.
CommonValue nestedArray() {
  return CommonValue(Values{CommonValue(1), CommonValue(kLongText),
                            CommonValue(Values{CommonValue(2u), CommonValue(3.5)}),
                            CommonValue(true), CommonValue(Point{3, -4}), CommonValue()});
}

// A value whose tag is int but whose string and array storage still hold what it held before.
CommonValue intOverHiddenStorage() {
  CommonValue value(kLongText);
  value = nestedArray();
  value = 7;
  return value;
}

// Sweeps operation on a value made as subject (by copy assignment, which keeps every member):
// a failed run leaves the value as it was; the run that completes gives the result and leaves
// the value as the same operation does before arming, on a twin. Returns the allocation points.
template <typename Operation>
long sweepOn(const CommonValue& subject, Operation operation, const std::string& name = "") {
  return sweepAllocationsOf(name, [&](FaultRun& run) {
    CommonValue twin;
    twin = subject;
    CommonValue value;
    value = subject;
    const auto state = [&] { return describe(value); };
    if constexpr (std::is_void_v<decltype(operation(value))>) {
      operation(twin);
      completesOrKeepsState(run, state, [&] { operation(value); });
    } else {
      const auto expected = operation(twin);
      const auto result = completesOrKeepsState(run, state, [&] { return operation(value); });
      EXPECT_EQ(shown(expected), shown(result));
    }
    EXPECT_EQ(describe(twin), describe(value));
  });
}

// ---------------------------------------------------------------- constructors

TEST(CommonValueFaultSweep, ConstructorFromAString) {
  EXPECT_GT(sweepOn(CommonValue(), [](CommonValue&) { return CommonValue(kLongText); }), 0);
}

TEST(CommonValueFaultSweep, ConstructorFromAnArray) {
  const Values elements = {CommonValue(kLongText), CommonValue(Values{CommonValue(1)})};
  EXPECT_GT(sweepOn(CommonValue(), [&](CommonValue&) { return CommonValue(elements); }), 0);
}

TEST(CommonValueFaultSweep, CopyConstructorOfAString) {
  EXPECT_GT(sweepOn(CommonValue(kLongText), [](CommonValue& value) { return CommonValue(value); }),
            0);
}

TEST(CommonValueFaultSweep, CopyConstructorOfANestedArray) {
  EXPECT_GT(sweepOn(nestedArray(), [](CommonValue& value) { return CommonValue(value); }), 0);
}

// ---------------------------------------------------------------- assignments

TEST(CommonValueFaultSweep, CopyAssignmentOfANestedArray) {
  const CommonValue source = nestedArray();
  EXPECT_GT(sweepOn(CommonValue(kOtherLongText), [&](CommonValue& value) { value = source; }), 0);
}

TEST(CommonValueFaultSweep, CopyAssignmentCarryingHiddenStorage) {
  const CommonValue source = intOverHiddenStorage();
  EXPECT_GT(sweepOn(nestedArray(), [&](CommonValue& value) { value = source; }), 0);
}

TEST(CommonValueFaultSweep, StringSetter) {
  EXPECT_GT(sweepOn(intOverHiddenStorage(), [](CommonValue& value) { value = kOtherLongText; }), 0);
}

TEST(CommonValueFaultSweep, ArraySetter) {
  const Values elements = {CommonValue(kLongText), CommonValue(2)};
  EXPECT_GT(sweepOn(CommonValue(kOtherLongText), [&](CommonValue& value) { value = elements; }), 0);
}

// ---------------------------------------------------------------- text forms and vectors

TEST(CommonValueFaultSweep, TextOfANestedArray) {
  EXPECT_GT(sweepOn(nestedArray(), [](CommonValue& value) { return value.convertToStringType(); }),
            0);
}

TEST(CommonValueFaultSweep, StringConversionOfANestedArray) {
  EXPECT_GT(sweepOn(nestedArray(), [](CommonValue& value) { return std::string(value); }), 0);
}

// A text of up to 15 characters fits in the string objects themselves: only longer ones
// allocate.
TEST(CommonValueFaultSweep, TextOfEveryOtherTag) {
  struct Subject {
    const char* name;
    CommonValue value;
    bool allocates;
  };
  const std::vector<Subject> subjects = {
      {"int", CommonValue(-2147483647 - 1), false},
      {"unsigned int", CommonValue(4294967295u), false},
      {"short", CommonValue(static_cast<short>(-3)), false},
      {"unsigned short", CommonValue(static_cast<unsigned short>(3)), false},
      {"long long", CommonValue(-1234567890123456789LL), true},
      {"unsigned long long", CommonValue(18446744073709551615ULL), true},
      {"float", CommonValue(-1.5e-30f), false},
      {"double", CommonValue(-1.25e300), false},
      {"string", CommonValue(kLongText), true},
      {"point", CommonValue(Point{-2147483647 - 1, 2147483647}), true},
      {"undefined", CommonValue(), false},
  };
  for (const Subject& subject : subjects) {
    SCOPED_TRACE(subject.name);
    printf("%s:\n", subject.name);
    const long points = sweepOn(
        subject.value, [](CommonValue& value) { return value.convertToStringType(); },
        subject.name);
    EXPECT_EQ(subject.allocates, points > 0) << subject.name;
  }
}

TEST(CommonValueFaultSweep, UnsignedVectorOfAnArray) {
  EXPECT_GT(sweepOn(nestedArray(),
                    [](CommonValue& value) { return value.convertToVectorT<unsigned int>(); }),
            0);
}

TEST(CommonValueFaultSweep, UnsignedVectorOfAScalar) {
  EXPECT_GT(sweepOn(CommonValue(2.9f),
                    [](CommonValue& value) { return std::vector<unsigned int>(value); }),
            0);
}

TEST(CommonValueFaultSweep, TextVectorOfAnArray) {
  EXPECT_GT(sweepOn(nestedArray(),
                    [](CommonValue& value) { return value.convertToVectorT<std::string>(); }),
            0);
}

TEST(CommonValueFaultSweep, TextVectorOfAScalar) {
  EXPECT_GT(sweepOn(CommonValue(kLongText),
                    [](CommonValue& value) { return std::vector<std::string>(value); }),
            0);
}

// ---------------------------------------------------------------- operations without allocation

// One operation that must not allocate, on a value made as subject.
struct QuietOperation {
  const char* name;
  CommonValue subject;
  std::function<void(CommonValue&)> operation;
};

// Stores conversion's result back into the value, so that the twin comparison sees it.
template <typename T>
QuietOperation converting(const char* name, CommonValue subject) {
  return {name, subject, [](CommonValue& value) { value = static_cast<T>(value); }};
}

TEST(CommonValueFaultSweep, ScalarOperationsAndMovesAllocateNothing) {
  const std::vector<QuietOperation> operations = {
      {"default constructor", CommonValue(), [](CommonValue& value) { value = CommonValue(); }},
      {"scalar constructors", CommonValue(),
       [](CommonValue& value) {
         value = CommonValue(true);
         value = CommonValue(static_cast<short>(1));
         value = CommonValue(static_cast<unsigned short>(2));
         value = CommonValue(3);
         value = CommonValue(4u);
         value = CommonValue(5LL);
         value = CommonValue(6ULL);
         value = CommonValue(7.5f);
         value = CommonValue(8.5);
         value = CommonValue(Point{9, 10});
       }},
      {"scalar setters", CommonValue(kLongText),
       [](CommonValue& value) {
         value = true;
         value = static_cast<short>(1);
         value = static_cast<unsigned short>(2);
         value = 3;
         value = 4u;
         value = 5LL;
         value = 6ULL;
         value = 7.5f;
         value = 8.5;
         value = Point{9, 10};
       }},
      {"null", CommonValue(kLongText),
       [](CommonValue& value) { value = CommonValue::makeNull().setNull(); }},
      {"move constructor and move assignment", nestedArray(),
       [](CommonValue& value) {
         CommonValue moved(std::move(value));
         value = std::move(moved);
       }},
      {"text of a bool", CommonValue(true),
       [](CommonValue& value) { value = value.convertToStringType() == "TRUE"; }},
      {"text of null", CommonValue::makeNull(),
       [](CommonValue& value) { value = value.convertToStringType() == "null"; }},
      converting<bool>("operator bool", CommonValue(2.5)),
      converting<int>("operator int", CommonValue(-2.7)),
      converting<unsigned int>("operator unsigned int", CommonValue(-1)),
      converting<short>("operator short", CommonValue(70000)),
      converting<unsigned short>("operator unsigned short", CommonValue(70000)),
      converting<long long>("operator long long", CommonValue(-5)),
      converting<unsigned long long>("operator unsigned long long", CommonValue(5u)),
      converting<float>("operator float", CommonValue(1e10)),
      converting<double>("operator double", CommonValue(0.25f)),
      converting<Point>("operator Point", CommonValue(Point{3, -4})),
  };
  for (const QuietOperation& quiet : operations) {
    EXPECT_EQ(0, sweepOn(quiet.subject, quiet.operation, quiet.name)) << quiet.name;
  }
}

}  // namespace
