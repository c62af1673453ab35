// Matching of the library's log lines whose line number is not fixed: a line
// "[B-LOG] <file>:<line>:<function>(): <message>" is recognised whatever its line number.
#ifndef VELMORA_TESTS_UTILS_LOG_LINE_H
#define VELMORA_TESTS_UTILS_LOG_LINE_H

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <string>

#include "log_capture.h"

namespace velmora {
namespace testing {

// Whether text is "[B-LOG] file:<digits>:function(): message".
inline bool isLogLine(const std::string& text, const std::string& file, const std::string& function,
                      const std::string& message) {
  const std::string head = "[B-LOG] " + file + ":";
  const std::string tail = ":" + function + "(): " + message;
  if (text.size() <= head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
      text.compare(text.size() - tail.size(), tail.size(), tail) != 0) {
    return false;
  }
  for (size_t i = head.size(); i < text.size() - tail.size(); ++i) {
    if (!isdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

// The number of captured lines of this form (at any level).
inline size_t countLogLines(const std::string& file, const std::string& function,
                            const std::string& message) {
  size_t matches = 0;
  for (const LogEntry& entry : LogCapture::entries()) {
    matches += isLogLine(entry.text, file, function, message) ? 1 : 0;
  }
  return matches;
}

// Exactly one captured line of this form, written at level for module 95.
inline ::testing::AssertionResult LoggedOnceFrom(uint16_t level, const std::string& file,
                                                 const std::string& function,
                                                 const std::string& message) {
  size_t matches = 0;
  bool right_frame = true;
  for (const LogEntry& entry : LogCapture::entries()) {
    if (isLogLine(entry.text, file, function, message)) {
      ++matches;
      right_frame = right_frame && entry.level == level && entry.module == 95;
    }
  }
  if (matches == 1 && right_frame) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "expected once at level " << level << ": \"[B-LOG] " << file << ":<line>:" << function
         << "(): " << message << "\", found " << matches
         << (right_frame ? "" : " (wrong level or module)") << "; all output:\n"
         << LogCapture::allText();
}

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_UTILS_LOG_LINE_H
