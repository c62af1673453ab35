// The tagged value: storage rules, conversions and text forms.
#include "base/container/common_value.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace velmora {
namespace base {
namespace container {

namespace {

constexpr int32_t kReservedInit[4] = {0, 0, -1, -1};

// A floating value truncated toward zero, as the bits of a 64-bit integer: negative values
// through int64_t, larger ones through uint64_t. NaN gives 0 and values beyond the 64-bit range
// are clamped, so that no conversion is undefined.
uint64_t truncatedBits(double value) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  constexpr double kTwoTo64 = 18446744073709551616.0;
  if (value != value) {
    return 0;
  }
  if (value >= kTwoTo64) {
    return std::numeric_limits<uint64_t>::max();
  }
  if (value >= kTwoTo63) {
    return static_cast<uint64_t>(value);
  }
  if (value < -kTwoTo63) {
    return static_cast<uint64_t>(std::numeric_limits<int64_t>::min());
  }
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}

// One element of convertToVectorT: its unsigned int, or its text.
template <typename T>
T elementAs(const CommonValue& value) {
  if constexpr (std::is_same_v<T, std::string>) {
    return value.convertToStringType();
  } else {
    return static_cast<unsigned int>(value);
  }
}

}  // namespace

static_assert(sizeof(double) == 8 && sizeof(int64_t) == 8, "the scalar storage holds 8 bytes");

CommonValue::CommonValue() : m_type(kUndefined), m_scalar(), m_point() {
  memcpy(m_reserved, kReservedInit, sizeof(m_reserved));
  m_scalar.u64 = 0;
}

CommonValue::CommonValue(bool value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(short value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(unsigned short value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(int value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(unsigned int value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(long long value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(unsigned long long value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(float value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(double value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(const std::string& value) : CommonValue() {
  *this = value;
}
CommonValue::CommonValue(const Point& value) : CommonValue() {
  *this = value;
}

CommonValue::CommonValue(const CommonValue& other) : CommonValue() {
  m_type = other.m_type;
  copyLiveMember(other);
}

CommonValue::CommonValue(CommonValue&& other) noexcept : CommonValue() {
  m_type = other.m_type;
  if (m_type == kString) {
    m_string.swap(other.m_string);
  } else if (m_type == kArray) {
    m_array.swap(other.m_array);
  } else {
    copyLiveMember(other);
  }
}

CommonValue::~CommonValue() = default;

void CommonValue::copyLiveMember(const CommonValue& other) {
  switch (other.m_type) {
    case kInt:
    case kUnsignedInt:
    case kFloat:
      memcpy(&m_scalar, &other.m_scalar, 4);
      break;
    case kShort:
    case kUnsignedShort:
      memcpy(&m_scalar, &other.m_scalar, 2);
      break;
    case kLongLong:
    case kUnsignedLongLong:
    case kDouble:
      memcpy(&m_scalar, &other.m_scalar, 8);
      break;
    case kBool:
      memcpy(&m_scalar, &other.m_scalar, 1);
      break;
    case kString:
      m_string = other.m_string;
      break;
    case kPoint:
      m_point = other.m_point;
      break;
    case kArray:
      m_array = other.m_array;
      break;
    default:
      break;
  }
}

CommonValue& CommonValue::operator=(const CommonValue& other) {
  if (this == &other) {
    return *this;
  }
  // Copies first: other may live inside this value's own array.
  std::vector<CommonValue> array(other.m_array);
  std::string text(other.m_string);
  m_type = other.m_type;
  memcpy(&m_scalar, &other.m_scalar, sizeof(m_scalar));
  m_point = other.m_point;
  memcpy(m_reserved, other.m_reserved, sizeof(m_reserved));
  m_string.swap(text);
  m_array.swap(array);
  return *this;
}

CommonValue& CommonValue::operator=(CommonValue&& other) noexcept {
  if (this == &other) {
    return *this;
  }
  // Everything is taken from other before this value's old array (which may hold other) is
  // destroyed at the end of the function.
  std::vector<CommonValue> array;
  array.swap(other.m_array);
  m_type = other.m_type;
  memcpy(&m_scalar, &other.m_scalar, sizeof(m_scalar));
  m_point = other.m_point;
  memcpy(m_reserved, other.m_reserved, sizeof(m_reserved));
  m_string = std::move(other.m_string);
  other.m_string.clear();
  m_array.swap(array);
  return *this;
}

CommonValue& CommonValue::operator=(bool value) {
  m_type = kBool;
  m_scalar.b = value;
  return *this;
}

CommonValue& CommonValue::operator=(short value) {
  m_type = kShort;
  m_scalar.i16 = value;
  return *this;
}

CommonValue& CommonValue::operator=(unsigned short value) {
  m_type = kUnsignedShort;
  m_scalar.u16 = value;
  return *this;
}

CommonValue& CommonValue::operator=(int value) {
  m_type = kInt;
  m_scalar.i32 = value;
  return *this;
}

CommonValue& CommonValue::operator=(unsigned int value) {
  m_type = kUnsignedInt;
  m_scalar.u32 = value;
  return *this;
}

CommonValue& CommonValue::operator=(long long value) {
  m_type = kLongLong;
  m_scalar.i64 = value;
  return *this;
}

CommonValue& CommonValue::operator=(unsigned long long value) {
  m_type = kUnsignedLongLong;
  m_scalar.u64 = value;
  return *this;
}

CommonValue& CommonValue::operator=(float value) {
  m_type = kFloat;
  m_scalar.f = value;
  return *this;
}

CommonValue& CommonValue::operator=(double value) {
  m_type = kDouble;
  m_scalar.d = value;
  return *this;
}

CommonValue& CommonValue::operator=(const std::string& value) {
  // The copy first: if it cannot be allocated, the value keeps its tag as well as its text.
  m_string = value;
  m_type = kString;
  return *this;
}

CommonValue& CommonValue::operator=(const Point& value) {
  m_type = kPoint;
  if (&value != &m_point) {
    m_point = value;
  }
  return *this;
}

int CommonValue::type() const {
  return m_type;
}

uint64_t CommonValue::integerBits() const {
  switch (m_type) {
    case kInt:
      return static_cast<uint64_t>(static_cast<int64_t>(m_scalar.i32));
    case kUnsignedInt:
      return m_scalar.u32;
    case kShort:
      return static_cast<uint64_t>(static_cast<int64_t>(m_scalar.i16));
    case kUnsignedShort:
      return m_scalar.u16;
    case kLongLong:
    case kUnsignedLongLong:
      return m_scalar.u64;
    case kBool:
      return m_scalar.b ? 1 : 0;
    case kFloat:
      return truncatedBits(m_scalar.f);
    case kDouble:
      return truncatedBits(m_scalar.d);
    default:
      return 0;
  }
}

CommonValue::operator bool() const {
  switch (m_type) {
    case kInt:
    case kUnsignedInt:
      return m_scalar.u32 != 0;
    case kShort:
    case kUnsignedShort:
      return m_scalar.u16 != 0;
    case kLongLong:
    case kUnsignedLongLong:
      return m_scalar.u64 != 0;
    case kBool:
      return m_scalar.b;
    case kFloat:
      return m_scalar.f != 0.0f;
    case kDouble:
      return m_scalar.d != 0.0;
    default:
      return false;
  }
}

CommonValue::operator int() const {
  return static_cast<int32_t>(integerBits());
}

CommonValue::operator unsigned int() const {
  return static_cast<uint32_t>(integerBits());
}

CommonValue::operator short() const {
  return static_cast<int16_t>(integerBits());
}

CommonValue::operator unsigned short() const {
  return static_cast<uint16_t>(integerBits());
}

CommonValue::operator long long() const {
  return static_cast<int64_t>(integerBits());
}

CommonValue::operator unsigned long long() const {
  return integerBits();
}

namespace {

// The value of a scalar union as a floating type R, by tag.
template <typename R, typename Scalar>
R realValue(int32_t type, const Scalar& scalar) {
  switch (type) {
    case CommonValue::kInt:
      return static_cast<R>(scalar.i32);
    case CommonValue::kUnsignedInt:
      return static_cast<R>(scalar.u32);
    case CommonValue::kShort:
      return static_cast<R>(scalar.i16);
    case CommonValue::kUnsignedShort:
      return static_cast<R>(scalar.u16);
    case CommonValue::kLongLong:
      return static_cast<R>(scalar.i64);
    case CommonValue::kUnsignedLongLong:
      return static_cast<R>(scalar.u64);
    case CommonValue::kBool:
      return scalar.b ? R(1) : R(0);
    case CommonValue::kFloat:
      return static_cast<R>(scalar.f);
    case CommonValue::kDouble:
      return static_cast<R>(scalar.d);
    default:
      return R(0);
  }
}

}  // namespace

CommonValue::operator float() const {
  return realValue<float>(m_type, m_scalar);
}

CommonValue::operator double() const {
  return realValue<double>(m_type, m_scalar);
}

CommonValue::operator Point() const {
  return m_type == kPoint ? m_point : Point();
}

CommonValue::operator std::string() const {
  return convertToStringType();
}

CommonValue::operator std::vector<unsigned int>() const {
  return convertToVectorT<unsigned int>();
}

CommonValue::operator std::vector<std::string>() const {
  return convertToVectorT<std::string>();
}

std::string CommonValue::convertToStringType() const {
  std::ostringstream text;
  // A stream swallows an exception thrown while it writes (its buffer failing to grow) and only
  // marks itself bad, which would cut the text short without a word; with badbit in its
  // exception mask it passes the original exception (std::bad_alloc) on instead.
  text.exceptions(std::ios::badbit);
  switch (m_type) {
    case kNull:
      return "null";
    case kInt:
      text << m_scalar.i32;
      break;
    case kUnsignedInt:
      text << m_scalar.u32;
      break;
    case kShort:
      text << m_scalar.i16;
      break;
    case kUnsignedShort:
      text << m_scalar.u16;
      break;
    case kLongLong:
      text << m_scalar.i64;
      break;
    case kUnsignedLongLong:
      text << m_scalar.u64;
      break;
    case kBool:
      return m_scalar.b ? "TRUE" : "FALSE";
    case kFloat:
      text << static_cast<double>(m_scalar.f);
      break;
    case kDouble:
      text << m_scalar.d;
      break;
    case kString:
      return m_string;
    case kPoint:
      text << "(" << m_point.x << "," << m_point.y << ")";
      break;
    case kUndefined:
      // An undefined value shows "Undefined" followed by its array's text, on purpose.
      text << "Undefined";
      [[fallthrough]];
    case kArray:
      text << "[";
      for (size_t i = 0; i < m_array.size(); ++i) {
        if (i != 0) {
          text << ",";
        }
        text << m_array[i].convertToStringType();
      }
      text << "]";
      break;
    default:
      return std::string();
  }
  return text.str();
}

template <typename T>
std::vector<T> CommonValue::convertToVectorT() const {
  std::vector<T> result;
  if (m_type == kArray) {
    result.reserve(m_array.size());
    for (const CommonValue& element : m_array) {
      result.push_back(elementAs<T>(element));
    }
  } else {
    result.push_back(elementAs<T>(*this));
  }
  return result;
}

template std::vector<unsigned int> CommonValue::convertToVectorT<unsigned int>() const;
template std::vector<std::string> CommonValue::convertToVectorT<std::string>() const;

}  // namespace container
}  // namespace base
}  // namespace velmora
