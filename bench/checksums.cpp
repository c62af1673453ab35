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

template <typename Crc, typename T>
void runSimple(benchmark::State& state, T init) {
  static const Crc crc;
  const auto& data = buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc.run(init, data.data(), data.size()));
  }
  setRate(state);
}

template <typename T>
void runLibrary(benchmark::State& state,
                T (CheckSum::*function)(const unsigned char*, unsigned int)) {
  CheckSum sum;
  const auto& data = buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize((sum.*function)(data.data(), static_cast<unsigned int>(data.size())));
  }
  setRate(state);
}

using Simple8 = SimpleCrc<unsigned char, 8, false, 0x31>;
using Simple16 = SimpleCrc<unsigned short, 16, true, 0xA001>;
using Simple32 = SimpleCrc<unsigned int, 32, true, 0xEDB88320>;
using Simple64 = SimpleCrc<unsigned long long, 64, false, 0x42F0E1EBA9EA3693>;
using SimpleCcitt = SimpleCrc<unsigned short, 16, false, 0x1021>;
using SimpleDnp = SimpleCrc<unsigned short, 16, true, 0xA6BC>;
using SimpleKermit = SimpleCrc<unsigned short, 16, true, 0x8408>;

void BM_Crc8_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_8);
}
void BM_Crc8_SimpleLoop(benchmark::State& s) {
  runSimple<Simple8, unsigned char>(s, 0);
}
void BM_Crc16_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_16);
}
void BM_Crc16_SimpleLoop(benchmark::State& s) {
  runSimple<Simple16, unsigned short>(s, 0);
}
void BM_CrcModbus_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_modbus);
}
void BM_CrcModbus_SimpleLoop(benchmark::State& s) {
  runSimple<Simple16, unsigned short>(s, 0xFFFF);
}
void BM_Crc32_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_32);
}
void BM_Crc32_SimpleLoop(benchmark::State& s) {
  runSimple<Simple32, unsigned int>(s, 0xFFFFFFFF);
}
void BM_Crc64Ecma_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_64_ecma);
}
void BM_Crc64Ecma_SimpleLoop(benchmark::State& s) {
  runSimple<Simple64, unsigned long long>(s, 0);
}
void BM_Crc64We_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_64_we);
}
void BM_Crc64We_SimpleLoop(benchmark::State& s) {
  runSimple<Simple64, unsigned long long>(s, ~0ULL);
}
void BM_CrcXmodem_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_xmodem);
}
void BM_CrcXmodem_SimpleLoop(benchmark::State& s) {
  runSimple<SimpleCcitt, unsigned short>(s, 0);
}
void BM_CrcCcitt1d0f_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_ccitt_1d0f);
}
void BM_CrcCcitt1d0f_SimpleLoop(benchmark::State& s) {
  runSimple<SimpleCcitt, unsigned short>(s, 0x1D0F);
}
void BM_CrcCcittFfff_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_ccitt_ffff);
}
void BM_CrcCcittFfff_SimpleLoop(benchmark::State& s) {
  runSimple<SimpleCcitt, unsigned short>(s, 0xFFFF);
}
void BM_CrcDnp_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_dnp);
}
void BM_CrcDnp_SimpleLoop(benchmark::State& s) {
  runSimple<SimpleDnp, unsigned short>(s, 0);
}
void BM_CrcKermit_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_kermit);
}
void BM_CrcKermit_SimpleLoop(benchmark::State& s) {
  runSimple<SimpleKermit, unsigned short>(s, 0);
}
// The bitwise check, for reference (it has no table).
void BM_CrcSick_Library(benchmark::State& s) {
  runLibrary(s, &CheckSum::crc_sick);
}

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

BENCHMARK(BM_Crc8_Library);
BENCHMARK(BM_Crc8_SimpleLoop);
BENCHMARK(BM_Crc16_Library);
BENCHMARK(BM_Crc16_SimpleLoop);
BENCHMARK(BM_CrcModbus_Library);
BENCHMARK(BM_CrcModbus_SimpleLoop);
BENCHMARK(BM_Crc32_Library);
BENCHMARK(BM_Crc32_SimpleLoop);
BENCHMARK(BM_Crc32_UpdateStepPerByte);
BENCHMARK(BM_Crc64Ecma_Library);
BENCHMARK(BM_Crc64Ecma_SimpleLoop);
BENCHMARK(BM_Crc64We_Library);
BENCHMARK(BM_Crc64We_SimpleLoop);
BENCHMARK(BM_CrcXmodem_Library);
BENCHMARK(BM_CrcXmodem_SimpleLoop);
BENCHMARK(BM_CrcCcitt1d0f_Library);
BENCHMARK(BM_CrcCcitt1d0f_SimpleLoop);
BENCHMARK(BM_CrcCcittFfff_Library);
BENCHMARK(BM_CrcCcittFfff_SimpleLoop);
BENCHMARK(BM_CrcDnp_Library);
BENCHMARK(BM_CrcDnp_SimpleLoop);
BENCHMARK(BM_CrcKermit_Library);
BENCHMARK(BM_CrcKermit_SimpleLoop);
BENCHMARK(BM_CrcSick_Library);

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
