// toLowerCase: a copy of the same length in which exactly the bytes 'A' to 'Z' are lowered (the
// process runs in the "C" locale); applying it twice changes nothing more.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/utils.h"
#include "support/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string expected = text;
  for (char& c : expected) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  const std::string lowered = velmora::base::toLowerCase(text);
  const std::string detail = "toLowerCase(\"" + velmora::fuzzing::escaped(text) + "\") gave \"" +
                             velmora::fuzzing::escaped(lowered) + "\"";
  FUZZ_CHECK(lowered == expected, detail);
  FUZZ_CHECK(velmora::base::toLowerCase(lowered) == lowered, detail + " (idempotent)");
  return 0;
}
