// The decimal parsers dstoi, dstol, dstoll, dstoui, dstoul and dstoull against a model of their
// rule: "" and a lone sign fail with the output untouched; otherwise an optional sign, then the
// digits up to the first non-digit, accumulated with wrap-around in the width of the result.
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "base/utils.h"
#include "support/fuzz_check.h"

namespace {

using velmora::fuzzing::escaped;

// What the parser must give for text: false for a failure, else true with value set.
template <typename T>
bool expectedParse(const std::string& text, T& value) {
  if (text.empty() || text == "+" || text == "-") {
    return false;
  }
  using Unsigned = std::make_unsigned_t<T>;
  std::size_t position = 0;
  bool negative = false;
  if (text[0] == '+' || text[0] == '-') {
    negative = text[0] == '-';
    position = 1;
  }
  Unsigned accumulated = 0;
  for (; position < text.size() && text[position] >= '0' && text[position] <= '9'; ++position) {
    accumulated =
        static_cast<Unsigned>(accumulated * 10u + static_cast<Unsigned>(text[position] - '0'));
  }
  if (negative) {
    accumulated = static_cast<Unsigned>(Unsigned(0) - accumulated);
  }
  value = static_cast<T>(accumulated);
  return true;
}

template <typename T>
void checkParser(int (*parser)(const std::string&, T&), const char* name, const std::string& text,
                 T sentinel) {
  T out = sentinel;
  const int result = parser(text, out);
  T expected = sentinel;
  const bool ok = expectedParse(text, expected);
  const std::string detail = std::string(name) + "(\"" + escaped(text) + "\") gave " +
                             std::to_string(result) + ", " + std::to_string(out) + "; expected " +
                             (ok ? "0, " + std::to_string(expected) : "-1");
  FUZZ_CHECK(result == (ok ? 0 : -1), detail);
  FUZZ_CHECK(out == (ok ? expected : sentinel), detail);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // The untouched-output sentinel varies with the input so that a parser cannot hit it by luck.
  const unsigned long long sentinel = 0x5A5A5A5A5A5A5A5Aull ^ size;
  checkParser<int>(velmora::base::dstoi, "dstoi", text, static_cast<int>(sentinel));
  checkParser<long>(velmora::base::dstol, "dstol", text, static_cast<long>(sentinel));
  checkParser<long long>(velmora::base::dstoll, "dstoll", text, static_cast<long long>(sentinel));
  checkParser<unsigned int>(velmora::base::dstoui, "dstoui", text,
                            static_cast<unsigned int>(sentinel));
  checkParser<unsigned long>(velmora::base::dstoul, "dstoul", text,
                             static_cast<unsigned long>(sentinel));
  checkParser<unsigned long long>(velmora::base::dstoull, "dstoull", text, sentinel);
  return 0;
}
