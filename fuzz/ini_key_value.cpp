// exactIniKeyValue: without '=' it fails, logs "Invalid format, Can't find =" once at level 1000
// and leaves key and value alone; otherwise the key is the trimmed text before the first '=',
// the value the trimmed text after it up to its first '#', and nothing is logged.
#include <cstddef>
#include <cstdint>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/fuzz_check.h"
#include "support/log_sink.h"

namespace {

using velmora::fuzzing::escaped;

const std::string kDefaultSet(" \t\f\v\r\n");

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(kDefaultSet);
  if (first == std::string::npos) {
    return std::string();
  }
  return text.substr(first, text.find_last_not_of(kDefaultSet) - first + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string oldKey = provider.ConsumeRandomLengthString(8);
  const std::string oldValue = provider.ConsumeRandomLengthString(8);
  const std::string line = provider.ConsumeRemainingBytesAsString();

  std::string key = oldKey;
  std::string value = oldValue;
  velmora::fuzzing::clearLog();
  const bool found = velmora::base::exactIniKeyValue(line, key, value);
  const std::string detail = "exactIniKeyValue(\"" + escaped(line) + "\") gave " +
                             (found ? "true" : "false") + ", key \"" + escaped(key) +
                             "\", value \"" + escaped(value) + "\"";
  const std::size_t lines = velmora::fuzzing::loggedLines().size();

  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) {
    FUZZ_CHECK(!found, detail);
    FUZZ_CHECK(key == oldKey && value == oldValue, detail + " (untouched)");
    FUZZ_CHECK(lines == 1 &&
                   velmora::fuzzing::countEndingWith(1000, "Invalid format, Can't find =\n") == 1,
               detail + " (one error line)");
    return 0;
  }
  const std::string rest = line.substr(equals + 1);
  const std::string expectedKey = trimmed(line.substr(0, equals));
  const std::string expectedValue = trimmed(rest.substr(0, rest.find('#')));
  FUZZ_CHECK(found, detail);
  FUZZ_CHECK(key == expectedKey && value == expectedValue, detail + ", expected \"" +
                                                               escaped(expectedKey) + "\" and \"" +
                                                               escaped(expectedValue) + "\"");
  FUZZ_CHECK(lines == 0, detail + " (no log line)");
  return 0;
}
