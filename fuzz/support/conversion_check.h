// What the number parsers must log for a text, derived from what the C library's own parser did
// with it, and the check that exactly that was logged. Shared by the strToInt and strToReal
// targets, whose refusals differ only in the wording of the conversion-failure line.
#ifndef VELMORA_FUZZ_SUPPORT_CONVERSION_CHECK_H
#define VELMORA_FUZZ_SUPPORT_CONVERSION_CHECK_H

#include <cstdio>
#include <cstring>
#include <string>

#include "support/fuzz_check.h"
#include "support/log_sink.h"

namespace velmora {
namespace fuzzing {

// The error line for `text` after the C parser stopped at `end` with `error` in errno, or "" when
// it converted cleanly and the parser logs nothing. `failurePattern` takes the errno value, its
// strerror text and the input text.
inline std::string expectedConversionLine(const std::string& text, const char* end, int error,
                                          const char* failurePattern) {
  if (text.empty()) {
    return "Invalid argument\n";
  }
  if (end == text.c_str()) {
    return "Invalid argument.\n";
  }
  if (error == 0) {
    return "";
  }
  const int length = snprintf(nullptr, 0, failurePattern, error, strerror(error), text.c_str());
  std::string line(static_cast<std::size_t>(length) + 1, '\0');
  snprintf(&line[0], line.size(), failurePattern, error, strerror(error), text.c_str());
  line.resize(static_cast<std::size_t>(length));
  return line;
}

// Checks that the parser logged nothing when `expectedLine` is empty, else exactly that one line
// at the error level.
inline void checkConversionLog(const std::string& expectedLine, const std::string& detail) {
  constexpr int kLevelError = 1000;
  const std::size_t lines = loggedLines().size();
  if (expectedLine.empty()) {
    FUZZ_CHECK(lines == 0, detail + " with no log line");
  } else {
    FUZZ_CHECK(lines == 1 && countEndingWith(kLevelError, expectedLine) == 1,
               detail + " with the one error line \"" + escaped(expectedLine) + "\"");
  }
}

}  // namespace fuzzing
}  // namespace velmora

#endif  // VELMORA_FUZZ_SUPPORT_CONVERSION_CHECK_H
