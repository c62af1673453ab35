// strToInt against strtoll itself: the parsed value when strtoll consumed something without a
// range error, otherwise the caller's fallback together with exactly one error line naming the
// reason ("Invalid argument", "Invalid argument." or the conversion failure with errno).
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/conversion_check.h"
#include "support/fuzz_check.h"
#include "support/log_sink.h"

using velmora::fuzzing::escaped;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  // Bases 0 and 2 to 36 are valid; a few invalid ones are tried as well.
  const int base = provider.ConsumeIntegralInRange<int>(-1, 40);
  const long long fallback = provider.ConsumeIntegral<long long>();
  std::string text = provider.ConsumeRemainingBytesAsString();
  text = text.substr(0, text.find('\0'));  // the parser sees the text up to its first NUL

  // The C library refuses bases other than 0 and 2 to 36 without consuming anything (it then
  // leaves the end pointer alone, which the sanitizer's interceptor does not), so the oracle
  // does not ask it for those.
  const bool usableBase = base == 0 || (base >= 2 && base <= 36);
  char* end = const_cast<char*>(text.c_str());
  errno = 0;
  const long long parsed = usableBase ? strtoll(text.c_str(), &end, base) : 0;
  const int error = errno;

  const std::string message = velmora::fuzzing::expectedConversionLine(
      text, end, error, " Conversion failed: %d ( %s )  [%s] \n");
  const long long expected = message.empty() ? parsed : fallback;

  velmora::fuzzing::clearLog();
  const long long result = velmora::base::strToInt(text, base, fallback);
  const std::string detail = "strToInt(\"" + escaped(text) + "\", " + std::to_string(base) + ", " +
                             std::to_string(fallback) + ") gave " + std::to_string(result) +
                             ", expected " + std::to_string(expected);
  FUZZ_CHECK(result == expected, detail);
  velmora::fuzzing::checkConversionLog(message, detail);
  return 0;
}
