// The trims, with a fuzzed character set and the default one: each returns its argument, keeps
// exactly the middle of the text from the first (ltrim) or up to the last (rtrim) character
// outside the set, and trim is rtrim of ltrim.
#include <cstddef>
#include <cstdint>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/fuzz_check.h"

namespace {

using velmora::fuzzing::escaped;

const std::string kDefaultSet(" \t\f\v\r\n");

std::string expectedLeft(const std::string& text, const std::string& chars) {
  const std::size_t first = text.find_first_not_of(chars);
  return first == std::string::npos ? std::string() : text.substr(first);
}

std::string expectedRight(const std::string& text, const std::string& chars) {
  const std::size_t last = text.find_last_not_of(chars);
  return last == std::string::npos ? std::string() : text.substr(0, last + 1);
}

void checkTrim(const char* name, std::string& (*trimmer)(std::string&), const std::string& text,
               const std::string& expected) {
  std::string subject = text;
  std::string& result = trimmer(subject);
  const std::string detail = std::string(name) + "(\"" + escaped(text) + "\") gave \"" +
                             escaped(subject) + "\", expected \"" + escaped(expected) + "\"";
  FUZZ_CHECK(&result == &subject, detail + " (returns its argument)");
  FUZZ_CHECK(subject == expected, detail);
}

void checkTrimSet(const char* name, std::string& (*trimmer)(std::string&, const std::string&),
                  const std::string& text, const std::string& chars, const std::string& expected) {
  std::string subject = text;
  std::string& result = trimmer(subject, chars);
  const std::string detail = std::string(name) + "(\"" + escaped(text) + "\", \"" + escaped(chars) +
                             "\") gave \"" + escaped(subject) + "\", expected \"" +
                             escaped(expected) + "\"";
  FUZZ_CHECK(&result == &subject, detail + " (returns its argument)");
  FUZZ_CHECK(subject == expected, detail);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string chars = provider.ConsumeRandomLengthString(8);
  const std::string text = provider.ConsumeRemainingBytesAsString();

  std::string& (*ltrimSet)(std::string&, const std::string&) = velmora::base::ltrim;
  std::string& (*rtrimSet)(std::string&, const std::string&) = velmora::base::rtrim;
  std::string& (*ltrimDefault)(std::string&) = velmora::base::ltrim;
  std::string& (*rtrimDefault)(std::string&) = velmora::base::rtrim;

  checkTrimSet("ltrim", ltrimSet, text, chars, expectedLeft(text, chars));
  checkTrimSet("rtrim", rtrimSet, text, chars, expectedRight(text, chars));
  checkTrim("ltrim", ltrimDefault, text, expectedLeft(text, kDefaultSet));
  checkTrim("rtrim", rtrimDefault, text, expectedRight(text, kDefaultSet));
  checkTrim("trim", velmora::base::trim, text,
            expectedRight(expectedLeft(text, kDefaultSet), kDefaultSet));
  return 0;
}
