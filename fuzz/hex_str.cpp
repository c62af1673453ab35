// convert2HexStr for all six value types: the value as unsigned of its own width in hex without
// leading zeros, upper or lower case; values 0 to 15 replace the output with their one digit,
// larger values append their digits to it; the result is always 0.
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/fuzz_check.h"

namespace {

using velmora::fuzzing::escaped;

template <typename T>
std::string expectedText(T value, const std::string& before, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  auto remaining = static_cast<std::make_unsigned_t<T>>(value);
  if (remaining < 16) {
    return std::string(1, digits[remaining]);
  }
  std::string hex;
  while (remaining != 0) {
    hex.insert(hex.begin(), digits[remaining & 0xF]);
    remaining = static_cast<std::make_unsigned_t<T>>(remaining >> 4);
  }
  return before + hex;
}

template <typename T>
void check(FuzzedDataProvider& provider, const char* type) {
  const T value = provider.ConsumeIntegral<T>();
  const bool upper = provider.ConsumeBool();
  const std::string before = provider.ConsumeRandomLengthString(6);
  std::string out = before;
  const int result = velmora::base::convert2HexStr(value, out, upper);
  const std::string expected = expectedText(value, before, upper);
  const std::string detail = std::string("convert2HexStr((") + type + ")" + std::to_string(value) +
                             ", \"" + escaped(before) + "\", " + (upper ? "upper" : "lower") +
                             ") gave " + std::to_string(result) + " and \"" + escaped(out) +
                             "\", expected \"" + escaped(expected) + "\"";
  FUZZ_CHECK(result == 0, detail);
  FUZZ_CHECK(out == expected, detail);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  while (provider.remaining_bytes() > 0) {
    switch (provider.ConsumeIntegralInRange<int>(0, 5)) {
      case 0:
        check<char>(provider, "char");
        break;
      case 1:
        check<unsigned char>(provider, "unsigned char");
        break;
      case 2:
        check<int>(provider, "int");
        break;
      case 3:
        check<unsigned int>(provider, "unsigned int");
        break;
      case 4:
        check<long>(provider, "long");
        break;
      default:
        check<unsigned long>(provider, "unsigned long");
        break;
    }
  }
  return 0;
}
