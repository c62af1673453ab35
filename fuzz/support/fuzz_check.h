// Property checks of the fuzz targets: a failed check prints what was expected and aborts, which
// libFuzzer reports as a crash and saves the input that caused it.
#ifndef VELMORA_FUZZ_SUPPORT_FUZZ_CHECK_H
#define VELMORA_FUZZ_SUPPORT_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace velmora {
namespace fuzzing {

// A printable form of a byte string: printable ASCII as is, every other byte as \xHH.
inline std::string escaped(const std::string& text) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += kDigits[c >> 4];
      out += kDigits[c & 0xF];
    }
  }
  return out;
}

// A printable form of a list of byte strings: each escaped and quoted, in braces.
inline std::string escapedList(const std::vector<std::string>& pieces) {
  std::string text = "{";
  for (const std::string& piece : pieces) {
    text += "\"" + escaped(piece) + "\" ";
  }
  return text + "}";
}

[[noreturn]] inline void failCheck(const char* file, int line, const char* condition,
                                   const std::string& detail) {
  fprintf(stderr, "%s:%d: property violated: %s\n  %s\n", file, line, condition, detail.c_str());
  abort();
}

}  // namespace fuzzing
}  // namespace velmora

// Aborts with the condition and a detail text (a std::string expression) when cond is false.
#define FUZZ_CHECK(cond, detail)                                          \
  do {                                                                    \
    if (!(cond)) {                                                        \
      ::velmora::fuzzing::failCheck(__FILE__, __LINE__, #cond, (detail)); \
    }                                                                     \
  } while (0)

#endif  // VELMORA_FUZZ_SUPPORT_FUZZ_CHECK_H
