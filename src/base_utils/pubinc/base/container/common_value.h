// CommonValue: a small tagged value holding one scalar (int, unsigned int, short, unsigned short,
// long long, unsigned long long, bool, float, double), a string, a Point or an array of further
// CommonValues, converting on demand to any of those types and to text. A plain value type: no
// locks, no logging, no allocation beyond its string and array.
//
//   velmora::base::container::CommonValue value(42);
//   int n = value;                              // 42
//   std::string text = value;                   // "42"
//   CommonValue list = CommonValue::makeArray({CommonValue(1), CommonValue(true)});
//   list.convertToStringType();                 // "[1,TRUE]"
//
// Deliberate behaviours callers must know:
// - Conversions never parse or saturate: a string converts to 0; narrowing takes the low bits
//   (70000 as short is 4464); floating point truncates toward zero. Conversions from a floating
//   value outside the range of a 64-bit integer are not defined by this interface.
// - A setter changes the tag and its own member only; the other members keep what they held
//   (unreachable through the tag) and copy assignment carries them along.
// - A default-constructed value (tag 255) formats as "Undefined[]": "Undefined" followed by the
//   text of its (empty) array.
// - The copy and move constructors copy only the live member; the assignments copy every member.
// - There is no constructor from const char*: CommonValue("abc") picks the bool constructor (a
//   pointer converts to bool before it converts to std::string); write std::string("abc").
#ifndef VELMORA_BASE_CONTAINER_COMMON_VALUE_H
#define VELMORA_BASE_CONTAINER_COMMON_VALUE_H

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/export.h"

namespace velmora {
namespace base {
namespace container {

// A pair of signed 32-bit values.
struct Point {
  int32_t x = 0;
  int32_t y = 0;
};

class VELMORA_BASE_EXPORT CommonValue {
 public:
  // The tags type() returns.
  enum Type : int32_t {
    kNull = 0,
    kInt = 1,
    kUnsignedInt = 2,
    kShort = 3,
    kUnsignedShort = 4,
    kLongLong = 5,
    kUnsignedLongLong = 6,
    kBool = 7,
    kFloat = 8,
    kDouble = 9,
    kString = 10,
    kPoint = 11,
    kArray = 12,
    kUndefined = 255,
  };

  // Tag 255 (undefined).
  CommonValue();
  CommonValue(bool value);
  CommonValue(short value);
  CommonValue(unsigned short value);
  CommonValue(int value);
  CommonValue(unsigned int value);
  CommonValue(long long value);
  CommonValue(unsigned long long value);
  CommonValue(float value);
  CommonValue(double value);
  CommonValue(const std::string& value);
  CommonValue(const Point& value);

  // Copies the tag and, for tags 1 to 12, the live member only; the reserved block keeps its
  // initial values.
  CommonValue(const CommonValue& other);
  // As the copy, but a string or an array is taken from other, which is left empty (other
  // keeps its tag).
  CommonValue(CommonValue&& other) noexcept;
  ~CommonValue();

  // Copies every member whatever the tag: tag, scalar bytes, array, point, reserved block,
  // string.
  CommonValue& operator=(const CommonValue& other);
  // Copies tag and scalar bytes, takes other's array and string (leaving them empty there),
  // copies point and reserved block. Self-assignment changes nothing.
  CommonValue& operator=(CommonValue&& other) noexcept;

  // Setters: the tag and the member of that type; other members are left as they are.
  CommonValue& operator=(bool value);
  CommonValue& operator=(short value);
  CommonValue& operator=(unsigned short value);
  CommonValue& operator=(int value);
  CommonValue& operator=(unsigned int value);
  CommonValue& operator=(long long value);
  CommonValue& operator=(unsigned long long value);
  CommonValue& operator=(float value);
  CommonValue& operator=(double value);
  CommonValue& operator=(const std::string& value);
  CommonValue& operator=(const Point& value);

  // Makes this value an array (tag 12) of elements; other members are left as they are.
  CommonValue& setArray(std::vector<CommonValue> elements) {
    m_type = kArray;
    m_array = std::move(elements);
    return *this;
  }
  // Makes this value null (tag 0); the members are left as they are.
  CommonValue& setNull() {
    m_type = kNull;
    return *this;
  }
  // A new array value (tag 12) of elements.
  static CommonValue makeArray(std::vector<CommonValue> elements) {
    CommonValue value;
    value.setArray(std::move(elements));
    return value;
  }
  // A new null value (tag 0), formatted as "null".
  static CommonValue makeNull() {
    CommonValue value;
    value.setNull();
    return value;
  }

  // The tag (see Type).
  int type() const;

  // Numeric conversions; any tag outside 1 to 9 gives zero.
  operator bool() const;
  operator int() const;
  operator unsigned int() const;
  operator short() const;
  operator unsigned short() const;
  operator long long() const;
  operator unsigned long long() const;
  operator float() const;
  operator double() const;
  // The point for tag 11, else (0, 0).
  operator Point() const;
  operator std::string() const;
  operator std::vector<unsigned int>() const;
  operator std::vector<std::string>() const;

  // The text form: decimal numbers, "TRUE"/"FALSE", "(x,y)", "[a,b]" for arrays, "null",
  // "Undefined[]" for a default-constructed value, "" for an unknown tag.
  std::string convertToStringType() const;

  // For an array, one element per array element (its unsigned int, or its text); for any other
  // tag a single element made from this value. Defined for unsigned int and std::string.
  template <typename T>
  std::vector<T> convertToVectorT() const;

  // The stored members, whatever the tag: for callers that inspect a value's storage.
  const std::string& textStorage() const { return m_string; }
  const Point& pointStorage() const { return m_point; }
  const std::vector<CommonValue>& arrayStorage() const { return m_array; }
  std::array<int32_t, 4> reservedBlock() const {
    return {m_reserved[0], m_reserved[1], m_reserved[2], m_reserved[3]};
  }

 private:
  // The 8-byte scalar storage; every member starts at the first byte.
  union Scalar {
    int32_t i32;
    uint32_t u32;
    int16_t i16;
    uint16_t u16;
    int64_t i64;
    uint64_t u64;
    bool b;
    float f;
    double d;
  };

  // The tag's scalar as 64 bits: signed tags sign-extended, unsigned zero-extended, bool 0 or 1;
  // floating point truncated toward zero.
  uint64_t integerBits() const;
  void copyLiveMember(const CommonValue& other);

  int32_t m_type;
  Scalar m_scalar;
  int32_t m_reserved[4];
  Point m_point;
  std::string m_string;
  std::vector<CommonValue> m_array;
};

extern template VELMORA_BASE_EXPORT std::vector<unsigned int>
CommonValue::convertToVectorT<unsigned int>() const;
extern template VELMORA_BASE_EXPORT std::vector<std::string>
CommonValue::convertToVectorT<std::string>() const;

}  // namespace container
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_CONTAINER_COMMON_VALUE_H
