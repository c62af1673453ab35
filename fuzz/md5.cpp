// MD5: the digest of the input fed in fuzzed pieces equals the digest of one piece, the digest
// of the string constructor, and the digest computed by OpenSSL; the hex, binary and stream
// forms agree; update after finalize leaves the digest; init starts afresh.
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils/md5.h"
#include "support/fuzz_check.h"

namespace {

using velmora::base::utils::MD5;

std::string opensslDigest(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  return std::string(reinterpret_cast<char*>(digest), length);
}

std::string hexOf(const std::string& bytes) {
  std::string hex;
  char pair[3];
  for (unsigned char c : bytes) {
    snprintf(pair, sizeof(pair), "%02x", c);
    hex += pair;
  }
  return hex;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const size_t pieces = provider.ConsumeIntegralInRange<size_t>(0, 16);
  std::vector<size_t> cuts;
  for (size_t i = 0; i < pieces; ++i) {
    cuts.push_back(provider.ConsumeIntegralInRange<size_t>(0, 200));
  }
  const bool signedUpdate = provider.ConsumeBool();
  const std::string text = provider.ConsumeRemainingBytesAsString();

  const std::string expectedBinary = opensslDigest(text);
  const std::string expectedHex = hexOf(expectedBinary);

  MD5 piecewise;
  FUZZ_CHECK(piecewise.hexDigest().empty() && piecewise.binDigest().empty(),
             std::string("no digest before finalize"));
  size_t offset = 0;
  for (size_t cut : cuts) {
    const size_t length = std::min(cut, text.size() - offset);
    if (signedUpdate) {
      piecewise.update(text.data() + offset, static_cast<unsigned int>(length));
    } else {
      piecewise.update(reinterpret_cast<const unsigned char*>(text.data()) + offset,
                       static_cast<unsigned int>(length));
    }
    offset += length;
  }
  piecewise.update(text.data() + offset, static_cast<unsigned int>(text.size() - offset));
  const std::string hex = piecewise.finalize().hexDigest();
  const std::string detail = "MD5 of " + std::to_string(text.size()) + " bytes in " +
                             std::to_string(pieces + 1) + " pieces gave " + hex + ", expected " +
                             expectedHex;
  FUZZ_CHECK(hex == expectedHex, detail);
  FUZZ_CHECK(piecewise.binDigest() == expectedBinary, detail + " (binary form)");
  FUZZ_CHECK(piecewise.md5() == expectedHex, detail + " (md5())");
  FUZZ_CHECK(MD5(text).hexDigest() == expectedHex, detail + " (string constructor)");

  std::ostringstream stream;
  stream << piecewise;
  FUZZ_CHECK(stream.str() == expectedHex, detail + " (stream output)");

  piecewise.update(text.data(), static_cast<unsigned int>(text.size()));
  FUZZ_CHECK(piecewise.finalize().hexDigest() == expectedHex,
             detail + " (update after finalize keeps the digest)");

  piecewise.init();
  FUZZ_CHECK(piecewise.hexDigest().empty(), detail + " (init forgets the digest)");
  piecewise.update(text.data(), static_cast<unsigned int>(text.size()));
  FUZZ_CHECK(piecewise.finalize().binDigest() == expectedBinary, detail + " (after init)");
  return 0;
}
