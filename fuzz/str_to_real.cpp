// strToReal against strtod itself: the parsed value when strtod consumed something without a
// range error, otherwise the caller's fallback together with exactly one error line naming the
// reason ("Invalid argument", "Invalid argument." or the conversion failure with errno).
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils.h"
#include "support/conversion_check.h"
#include "support/fuzz_check.h"
#include "support/log_sink.h"

namespace {

using velmora::fuzzing::escaped;

// Equal as values, or both NaN (strtod gives NaN for "nan").
bool sameReal(double a, double b) {
  return (std::isnan(a) && std::isnan(b)) || a == b;
}

std::string show(double value) {
  char text[64];
  snprintf(text, sizeof(text), "%.17g", value);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const double fallback = provider.ConsumeFloatingPoint<double>();
  std::string text = provider.ConsumeRemainingBytesAsString();
  text = text.substr(0, text.find('\0'));  // the parser sees the text up to its first NUL

  errno = 0;
  char* end = const_cast<char*>(text.c_str());
  const double parsed = strtod(text.c_str(), &end);
  const int error = errno;

  const std::string message = velmora::fuzzing::expectedConversionLine(
      text, end, error, "Conversion failed: %d ( %s )  [%s]\n");
  const double expected = message.empty() ? parsed : fallback;

  velmora::fuzzing::clearLog();
  const double result = velmora::base::strToReal(text, fallback);
  const std::string detail = "strToReal(\"" + escaped(text) + "\", " + show(fallback) + ") gave " +
                             show(result) + ", expected " + show(expected);
  FUZZ_CHECK(sameReal(result, expected), detail);
  velmora::fuzzing::checkConversionLog(message, detail);
  return 0;
}
