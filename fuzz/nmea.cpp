// checksum_NMEA: the XOR of the sentence's bytes after one optional leading '$', up to the first
// NUL, CR, LF or '*', written as two upper-case hex digits and a NUL into a 3-byte buffer (an
// exactly sized heap buffer, so that AddressSanitizer sees any write beyond it).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/utils/checksum.h"
#include "support/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<unsigned char> sentence(data, data + size);
  sentence.push_back('\0');

  unsigned int expected = 0;
  size_t i = sentence[0] == '$' ? 1 : 0;
  for (; sentence[i] != '\0' && sentence[i] != '\r' && sentence[i] != '\n' && sentence[i] != '*';
       ++i) {
    expected ^= sentence[i];
  }
  char expectedText[3];
  snprintf(expectedText, sizeof(expectedText), "%02X", expected);

  velmora::base::utils::CheckSum sum;
  std::unique_ptr<unsigned char[]> out(new unsigned char[3]);
  unsigned char* result = sum.checksum_NMEA(sentence.data(), out.get());
  const std::string detail = "checksum_NMEA(\"" +
                             velmora::fuzzing::escaped(std::string(data, data + size)) +
                             "\") expected \"" + expectedText + "\"";
  FUZZ_CHECK(result == out.get(), detail + " (returns out)");
  FUZZ_CHECK(memcmp(out.get(), expectedText, 3) == 0,
             detail + ", gave \"" +
                 velmora::fuzzing::escaped(std::string(reinterpret_cast<char*>(out.get()), 3)) +
                 "\"");
  FUZZ_CHECK(sum.checksum_NMEA(nullptr, out.get()) == nullptr, std::string("null sentence"));
  FUZZ_CHECK(sum.checksum_NMEA(sentence.data(), nullptr) == nullptr, std::string("null out"));
  return 0;
}
