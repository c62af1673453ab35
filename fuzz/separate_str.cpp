// separateStr: -1 with the output untouched when the text holds no delimiter; otherwise every
// field between single-character delimiters (empty ones included) is appended behind what the
// output already held, and the fields joined with the delimiters found give the text back.
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

std::vector<std::string> expectedFields(const std::string& text, const std::string& delims) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (std::size_t match = text.find_first_of(delims); match != std::string::npos;
       match = text.find_first_of(delims, start)) {
    fields.push_back(text.substr(start, match - start));
    start = match + 1;
  }
  fields.push_back(text.substr(start));
  return fields;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string delims = provider.ConsumeRandomLengthString(4);
  const std::string before = provider.ConsumeRandomLengthString(8);
  const std::string text = provider.ConsumeRemainingBytesAsString();

  std::vector<std::string> out;
  if (!before.empty()) {
    out.push_back(before);
  }
  const std::vector<std::string> initial = out;
  const int result = velmora::base::separateStr(text, delims, out);
  const std::string detail = "separateStr(\"" + escaped(text) + "\", \"" + escaped(delims) +
                             "\") gave " + std::to_string(result) + " and " + escapedList(out);

  if (text.find_first_of(delims) == std::string::npos) {
    FUZZ_CHECK(result == -1, detail);
    FUZZ_CHECK(out == initial, detail + " (output untouched)");
    return 0;
  }
  std::vector<std::string> expected = initial;
  const std::vector<std::string> fields = expectedFields(text, delims);
  expected.insert(expected.end(), fields.begin(), fields.end());
  FUZZ_CHECK(result == 0, detail);
  FUZZ_CHECK(out == expected, detail + ", expected " + escapedList(expected));

  std::string joined;
  std::size_t delimiter = text.find_first_of(delims);
  for (std::size_t i = initial.size(); i < out.size(); ++i) {
    joined += out[i];
    if (delimiter != std::string::npos) {
      joined += text[delimiter];
      delimiter = text.find_first_of(delims, delimiter + 1);
    }
  }
  FUZZ_CHECK(joined == text, detail + " (fields and delimiters give the text back)");
  return 0;
}
