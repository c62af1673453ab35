// hasSuffix: false for an empty path and for a suffix exactly as long as the path; otherwise
// whether the text from the path's last '.' to its end equals the suffix.
#include <cstddef>
#include <cstdint>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/fuzz_check.h"

namespace {

using velmora::fuzzing::escaped;

bool expectedAnswer(const std::string& path, const std::string& suffix) {
  if (path.empty() || suffix.size() == path.size()) {
    return false;
  }
  const std::size_t dot = path.rfind('.');
  return dot != std::string::npos && path.compare(dot, std::string::npos, suffix) == 0;
}

void check(const std::string& path, const std::string& suffix) {
  const bool answer = velmora::base::hasSuffix(path, suffix);
  const bool expected = expectedAnswer(path, suffix);
  FUZZ_CHECK(answer == expected, "hasSuffix(\"" + escaped(path) + "\", \"" + escaped(suffix) +
                                     "\") gave " + (answer ? "true" : "false"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string suffix = provider.ConsumeRandomLengthString(16);
  const std::string path = provider.ConsumeRemainingBytesAsString();
  check(path, suffix);
  // The path's own extension, which the answer must accept unless the lengths are equal.
  const std::size_t dot = path.rfind('.');
  if (dot != std::string::npos) {
    check(path, path.substr(dot));
  }
  check(path + suffix, suffix);
  return 0;
}
