// Throughput of the CRC family and of MD5 over a 1 MiB buffer, each against its baseline in the
// same run:
// - crc_32 against zlib's crc32;
// - every other table-driven CRC against the simple loop with one look-up per byte and one
//   256-entry table, built here, for the same CRC (the loop whose serial dependency the library's
//   block-wise tables remove);
// - MD5 against OpenSSL's MD5 through the EVP interface.
// The rates are reported as bytes per second; the ratios in the closing note come from them.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "base/utils/checksum.h"
#include "base/utils/md5.h"

#if __has_include(<zlib.h>)
#include <zlib.h>
#define VELMORA_BENCH_HAVE_ZLIB 1
#endif
#if __has_include(<openssl/evp.h>)
#include <openssl/evp.h>
#define VELMORA_BENCH_HAVE_OPENSSL 1
#endif

namespace {

using velmora::base::utils::CheckSum;
using velmora::base::utils::MD5;

constexpr size_t kBufferSize = 1 << 20;

const std::vector<unsigned char>& buffer() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> bytes(kBufferSize);
    std::mt19937 random(12345);
    for (auto& byte : bytes) {
      byte = static_cast<unsigned char>(random());
    }
    return bytes;
  }();
  return data;
}

void setRate(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kBufferSize));
}

// One 256-entry table and one look-up per byte, as a plain implementation of a CRC would do.
template <typename T, int kWidth, bool kReflected, uint64_t kPoly>
struct SimpleCrc {
  using Value = T;
  T table[256];

  SimpleCrc() {
    const uint64_t mask = kWidth == 64 ? ~uint64_t{0} : (uint64_t{1} << kWidth) - 1;
    for (unsigned int i = 0; i < 256; ++i) {
      uint64_t c = i;
      if (kReflected) {
        for (int bit = 0; bit < 8; ++bit) {
          c = (c & 1) ? (c >> 1) ^ kPoly : c >> 1;
        }
      } else {
        c <<= kWidth - 8;
        for (int bit = 0; bit < 8; ++bit) {
          c = (((c >> (kWidth - 1)) & 1) ? (c << 1) ^ kPoly : c << 1) & mask;
        }
      }
      table[i] = static_cast<T>(c);
    }
  }

  T run(T crc, const unsigned char* data, size_t length) const {
    const uint64_t mask = kWidth == 64 ? ~uint64_t{0} : (uint64_t{1} << kWidth) - 1;
    for (size_t i = 0; i < length; ++i) {
      if (kReflected) {
        crc = static_cast<T>((uint64_t{crc} >> 8) ^ table[(crc ^ data[i]) & 0xFF]);
      } else {
        crc = static_cast<T>(((uint64_t{crc} << 8) & mask) ^
                             table[((uint64_t{crc} >> (kWidth - 8)) ^ data[i]) & 0xFF]);
      }
    }
    return crc;
  }
};

// The simple loop for one CRC, started from `init`.
template <typename Crc>
void SimpleLoop(benchmark::State& state, const Crc* crc, typename Crc::Value init) {
  const auto& data = buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc->run(init, data.data(), data.size()));
  }
  setRate(state);
}

// The library's whole-buffer function for one CRC.
template <typename T>
void Library(benchmark::State& state, T (CheckSum::*function)(const unsigned char*, unsigned int)) {
  CheckSum sum;
  const auto& data = buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize((sum.*function)(data.data(), static_cast<unsigned int>(data.size())));
  }
  setRate(state);
}

const SimpleCrc<unsigned char, 8, false, 0x31> kSimple8;
const SimpleCrc<unsigned short, 16, true, 0xA001> kSimple16;
const SimpleCrc<unsigned int, 32, true, 0xEDB88320> kSimple32;
const SimpleCrc<unsigned long long, 64, false, 0x42F0E1EBA9EA3693> kSimple64;
const SimpleCrc<unsigned short, 16, false, 0x1021> kSimpleCcitt;
const SimpleCrc<unsigned short, 16, true, 0xA6BC> kSimpleDnp;
const SimpleCrc<unsigned short, 16, true, 0x8408> kSimpleKermit;

BENCHMARK_CAPTURE(Library, Crc8, &CheckSum::crc_8);
BENCHMARK_CAPTURE(SimpleLoop, Crc8, &kSimple8, 0);
BENCHMARK_CAPTURE(Library, Crc16, &CheckSum::crc_16);
BENCHMARK_CAPTURE(SimpleLoop, Crc16, &kSimple16, 0);
BENCHMARK_CAPTURE(Library, CrcModbus, &CheckSum::crc_modbus);
BENCHMARK_CAPTURE(SimpleLoop, CrcModbus, &kSimple16, 0xFFFF);
BENCHMARK_CAPTURE(Library, Crc32, &CheckSum::crc_32);
BENCHMARK_CAPTURE(SimpleLoop, Crc32, &kSimple32, 0xFFFFFFFF);
BENCHMARK_CAPTURE(Library, Crc64Ecma, &CheckSum::crc_64_ecma);
BENCHMARK_CAPTURE(SimpleLoop, Crc64Ecma, &kSimple64, 0);
BENCHMARK_CAPTURE(Library, Crc64We, &CheckSum::crc_64_we);
BENCHMARK_CAPTURE(SimpleLoop, Crc64We, &kSimple64, ~0ULL);
BENCHMARK_CAPTURE(Library, CrcXmodem, &CheckSum::crc_xmodem);
BENCHMARK_CAPTURE(SimpleLoop, CrcXmodem, &kSimpleCcitt, 0);
BENCHMARK_CAPTURE(Library, CrcCcitt1d0f, &CheckSum::crc_ccitt_1d0f);
BENCHMARK_CAPTURE(SimpleLoop, CrcCcitt1d0f, &kSimpleCcitt, 0x1D0F);
BENCHMARK_CAPTURE(Library, CrcCcittFfff, &CheckSum::crc_ccitt_ffff);
BENCHMARK_CAPTURE(SimpleLoop, CrcCcittFfff, &kSimpleCcitt, 0xFFFF);
BENCHMARK_CAPTURE(Library, CrcDnp, &CheckSum::crc_dnp);
BENCHMARK_CAPTURE(SimpleLoop, CrcDnp, &kSimpleDnp, 0);
BENCHMARK_CAPTURE(Library, CrcKermit, &CheckSum::crc_kermit);
BENCHMARK_CAPTURE(SimpleLoop, CrcKermit, &kSimpleKermit, 0);
// The bitwise check, for reference (it has no table).
BENCHMARK_CAPTURE(Library, CrcSick, &CheckSum::crc_sick);

// Folding through the exported byte step, for reference: one call per byte.
void BM_Crc32_UpdateStepPerByte(benchmark::State& state) {
  CheckSum sum;
  const auto& data = buffer();
  for (auto _ : state) {
    unsigned int crc = 0xFFFFFFFF;
    for (unsigned char byte : data) {
      crc = sum.update_crc_32(crc, byte);
    }
    benchmark::DoNotOptimize(crc ^ 0xFFFFFFFF);
  }
  setRate(state);
}
BENCHMARK(BM_Crc32_UpdateStepPerByte);

#ifdef VELMORA_BENCH_HAVE_ZLIB
void BM_Crc32_Zlib(benchmark::State& state) {
  const auto& data = buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc32(0L, data.data(), static_cast<uInt>(data.size())));
  }
  setRate(state);
}
BENCHMARK(BM_Crc32_Zlib);
#endif

void BM_Md5_Library(benchmark::State& state) {
  const auto& data = buffer();
  for (auto _ : state) {
    MD5 md5;
    md5.update(data.data(), static_cast<unsigned int>(data.size()));
    benchmark::DoNotOptimize(md5.finalize().binDigest());
  }
  setRate(state);
}
BENCHMARK(BM_Md5_Library);

#ifdef VELMORA_BENCH_HAVE_OPENSSL
void BM_Md5_OpenSslEvp(benchmark::State& state) {
  const auto& data = buffer();
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_length = 0;
  for (auto _ : state) {
    EVP_DigestInit_ex(context, EVP_md5(), nullptr);
    EVP_DigestUpdate(context, data.data(), data.size());
    EVP_DigestFinal_ex(context, digest, &digest_length);
    benchmark::DoNotOptimize(digest);
  }
  EVP_MD_CTX_free(context);
  setRate(state);
}
BENCHMARK(BM_Md5_OpenSslEvp);
#endif

}  // namespace

BENCHMARK_MAIN();
