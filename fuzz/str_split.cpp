// strSplit against a model of its rule: pieces end at the next character of the delimiter set,
// the scan then moves on by the length of the whole delimiter string, empty pieces are dropped
// and a non-empty tail is the last piece. Every piece is non-empty and free of delimiters.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/fuzz_check.h"

namespace {

using velmora::fuzzing::escaped;
using velmora::fuzzing::escapedList;

std::vector<std::string> expectedPieces(const std::string& text, const std::string& delims) {
  std::vector<std::string> pieces;
  if (text.empty()) {
    return pieces;
  }
  std::size_t position = 0;
  for (;;) {
    const std::size_t match = text.find_first_of(delims, position);
    if (match == std::string::npos) {
      break;
    }
    if (match > position) {
      pieces.push_back(text.substr(position, match - position));
    }
    position = match + delims.size();
    if (position >= text.size()) {
      return pieces;
    }
  }
  if (position < text.size()) {
    pieces.push_back(text.substr(position));
  }
  return pieces;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string delims = provider.ConsumeRandomLengthString(4);
  const std::string text = provider.ConsumeRemainingBytesAsString();

  const std::vector<std::string> pieces = velmora::base::strSplit(text, delims);
  const std::vector<std::string> expected = expectedPieces(text, delims);
  const std::string detail = "strSplit(\"" + escaped(text) + "\", \"" + escaped(delims) +
                             "\") gave " + escapedList(pieces) + ", expected " +
                             escapedList(expected);
  FUZZ_CHECK(pieces == expected, detail);
  for (const std::string& piece : pieces) {
    FUZZ_CHECK(!piece.empty() && piece.find_first_of(delims) == std::string::npos, detail);
  }
  return 0;
}
