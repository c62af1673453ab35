/// @file
/// CommonValue: a small tagged value holding one scalar (int, unsigned int, short, unsigned short,
/// long long, unsigned long long, bool, float, double), a string, a Point or an array of further
/// CommonValues, converting on demand to any of those types and to text. A plain value type: no
/// locks, no logging, no allocation beyond its string and array.
///
///     velmora::base::container::CommonValue value(42);
///     int n = value;             // 42
///     std::string text = value;  // "42"
///     CommonValue list(std::vector<CommonValue>{CommonValue(1), CommonValue(true)});
///     list.convertToStringType();  // "[1,TRUE]"
///
/// Deliberate behaviours callers must know:
/// - Conversions never parse or saturate: a string converts to 0; narrowing takes the low bits
///   (70000 as short is 4464); floating point truncates toward zero. Conversions from a floating
///   value outside the range of a 64-bit integer are not defined by this interface.
/// - A setter changes the tag and its own member only; the other members keep what they held
///   (unreachable through the tag) and copy assignment carries them along.
/// - A default-constructed value (tag 255) formats as "Undefined[]": "Undefined" followed by the
///   text of its (empty) array.
/// - The copy and move constructors copy only the live member; the assignments copy every member.
/// - There is no constructor from const char*: CommonValue("abc") picks the bool constructor (a
///   pointer converts to bool before it converts to std::string); write std::string("abc").
/// - An array value (tag 12) is made from a std::vector<CommonValue>, by construction or
///   assignment. Name the vector type: a bare braced list of two or more values is ambiguous
///   (it could as well build a Point or a string) and does not compile, and CommonValue({a})
///   is a copy of a, not an array.
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

/// A pair of signed 32-bit values; (0, 0) by default.
struct Point {
  int32_t x = 0;  ///< the first value
  int32_t y = 0;  ///< the second value
};

/// A tagged value with on-demand conversions; see the file's description. No operation reports
/// an error: a mismatch gives the zero value of the target. Only an allocation failure throws
/// (std::bad_alloc, from the operations on strings and arrays and the text forms): a setter or
/// assignment that throws leaves the value as it was, and a text form throws rather than return
/// a text cut short. The moves never throw.
class VELMORA_BASE_EXPORT CommonValue {
 public:
  /// The tags type() returns; the values are part of the interface.
  enum Type : int32_t {
    kNull = 0,              ///< no value; formatted as "null"
    kInt = 1,               ///< int
    kUnsignedInt = 2,       ///< unsigned int
    kShort = 3,             ///< short
    kUnsignedShort = 4,     ///< unsigned short
    kLongLong = 5,          ///< long long
    kUnsignedLongLong = 6,  ///< unsigned long long
    kBool = 7,              ///< bool
    kFloat = 8,             ///< float
    kDouble = 9,            ///< double
    kString = 10,           ///< std::string
    kPoint = 11,            ///< Point
    kArray = 12,            ///< an array of CommonValues
    kUndefined = 255,       ///< a default-constructed value
  };

  /// Tag 255 (undefined).
  CommonValue();
  /// Tag 7.
  CommonValue(bool value);
  /// Tag 3.
  CommonValue(short value);
  /// Tag 4.
  CommonValue(unsigned short value);
  /// Tag 1.
  CommonValue(int value);
  /// Tag 2.
  CommonValue(unsigned int value);
  /// Tag 5.
  CommonValue(long long value);
  /// Tag 6.
  CommonValue(unsigned long long value);
  /// Tag 8.
  CommonValue(float value);
  /// Tag 9.
  CommonValue(double value);
  /// Tag 10, a copy of value.
  CommonValue(const std::string& value);
  /// Tag 11.
  CommonValue(const Point& value);
  /// Tag 12, an array holding elements (see the assignment from a vector).
  CommonValue(std::vector<CommonValue> elements) : CommonValue() { *this = std::move(elements); }

  /// Copies the tag and, for tags 1 to 12, the live member only; the reserved block keeps its
  /// initial values.
  CommonValue(const CommonValue& other);
  /// As the copy, but a string or an array is taken from other, which is left empty (other
  /// keeps its tag).
  CommonValue(CommonValue&& other) noexcept;
  /// Releases the string and the array.
  ~CommonValue();

  /// Copies every member whatever the tag: tag, scalar bytes, array, point, reserved block,
  /// string.
  CommonValue& operator=(const CommonValue& other);
  /// Copies tag and scalar bytes, takes other's array and string (leaving them empty there),
  /// copies point and reserved block. Self-assignment changes nothing.
  CommonValue& operator=(CommonValue&& other) noexcept;

  /// Setter, tag 7. Each setter changes the tag and the member of that type only; the other
  /// members are left as they are.
  CommonValue& operator=(bool value);
  /// Setter, tag 3.
  CommonValue& operator=(short value);
  /// Setter, tag 4.
  CommonValue& operator=(unsigned short value);
  /// Setter, tag 1.
  CommonValue& operator=(int value);
  /// Setter, tag 2.
  CommonValue& operator=(unsigned int value);
  /// Setter, tag 5.
  CommonValue& operator=(long long value);
  /// Setter, tag 6.
  CommonValue& operator=(unsigned long long value);
  /// Setter, tag 8.
  CommonValue& operator=(float value);
  /// Setter, tag 9.
  CommonValue& operator=(double value);
  /// Setter, tag 10 (a copy of value; the tag changes only once the copy is made).
  CommonValue& operator=(const std::string& value);
  /// Setter, tag 11.
  CommonValue& operator=(const Point& value);

  /// Setter, tag 12: the value becomes an array holding elements. Its text is "[", the
  /// elements' texts separated by "," and "]" ("[1,[2,3],TRUE]"); convertToVectorT converts it
  /// element by element; every numeric conversion gives 0. Copies copy the elements, nested
  /// arrays included; moves take the array over and leave the source's empty. Like the other
  /// setters it leaves the string, the point and the scalar as they are.
  CommonValue& operator=(std::vector<CommonValue> elements) {
    m_type = kArray;
    m_array = std::move(elements);
    return *this;
  }
  /// Makes this value null (tag 0); the members are left as they are.
  CommonValue& setNull() {
    m_type = kNull;
    return *this;
  }
  /// A new null value (tag 0), formatted as "null".
  static CommonValue makeNull() {
    CommonValue value;
    value.setNull();
    return value;
  }

  /// The tag (see Type).
  int type() const;

  /// Non-zero for tags 1 to 9 (a 64-bit value is true when either half is non-zero); false for
  /// every other tag, strings included (they are never parsed).
  operator bool() const;
  /// Tags 1 to 9 as int: the low 32 bits, or sign- or zero-extended; bool 0 or 1; floating point
  /// truncated toward zero. Any other tag gives 0. The other integer conversions follow the same
  /// rules in their own width.
  operator int() const;
  /// As operator int(), as unsigned int (-1 gives 4294967295).
  operator unsigned int() const;
  /// As operator int(), keeping the low 16 bits (70000 gives 4464).
  operator short() const;
  /// As operator short(), unsigned.
  operator unsigned short() const;
  /// As operator int(), in 64 bits.
  operator long long() const;
  /// As operator long long(), unsigned.
  operator unsigned long long() const;
  /// The value of tags 1 to 9 as float (signed or unsigned as its tag); 0.0 for other tags.
  operator float() const;
  /// The value of tags 1 to 9 as double (signed or unsigned as its tag); 0.0 for other tags.
  operator double() const;
  /// The point for tag 11, else (0, 0).
  operator Point() const;
  /// convertToStringType().
  operator std::string() const;
  /// convertToVectorT<unsigned int>().
  operator std::vector<unsigned int>() const;
  /// convertToVectorT<std::string>().
  operator std::vector<std::string>() const;

  /// The text form: decimal numbers, "TRUE"/"FALSE", "(x,y)", "[a,b]" for arrays, "null",
  /// "Undefined[]" for a default-constructed value, "" for an unknown tag.
  std::string convertToStringType() const;

  /// For an array, one element per array element (its unsigned int, or its text); for any other
  /// tag a single element made from this value. Defined for unsigned int and std::string.
  template <typename T>
  std::vector<T> convertToVectorT() const;

  /// The stored string, whatever the tag: for callers that inspect a value's storage.
  const std::string& textStorage() const { return m_string; }
  /// The stored point, whatever the tag.
  const Point& pointStorage() const { return m_point; }
  /// The stored array, whatever the tag.
  const std::vector<CommonValue>& arrayStorage() const { return m_array; }
  /// The reserved block: 0, 0, -1, -1 from every constructor, carried by the assignments, read
  /// by no operation.
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

/// convertToVectorT for unsigned int, instantiated in the library.
extern template VELMORA_BASE_EXPORT std::vector<unsigned int>
CommonValue::convertToVectorT<unsigned int>() const;
/// convertToVectorT for std::string, instantiated in the library.
extern template VELMORA_BASE_EXPORT std::vector<std::string>
CommonValue::convertToVectorT<std::string>() const;

}  // namespace container
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_CONTAINER_COMMON_VALUE_H
