// Every CRC of CheckSum, three ways: the whole-buffer function, the fold of its update_* step
// (with the initial value, final XOR and byte swap applied by hand), and an independent bitwise
// computation from the CRC's parameters (width, polynomial, initial value, reflection, final
// XOR). All three must agree; a null buffer or a length of 0 gives the function's empty value.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/utils/checksum.h"
#include "support/fuzz_check.h"

namespace {

using velmora::base::utils::CheckSum;

struct Parameters {
  int width;
  uint64_t poly;
  uint64_t init;
  bool reflected;
  uint64_t xorOut;
};

uint64_t reflect(uint64_t value, int bits) {
  uint64_t out = 0;
  for (int i = 0; i < bits; ++i) {
    if (value & (uint64_t{1} << i)) {
      out |= uint64_t{1} << (bits - 1 - i);
    }
  }
  return out;
}

// The textbook bit-at-a-time CRC.
uint64_t bitwise(const Parameters& p, const uint8_t* data, size_t size) {
  const uint64_t mask = p.width == 64 ? ~uint64_t{0} : (uint64_t{1} << p.width) - 1;
  const uint64_t top = uint64_t{1} << (p.width - 1);
  uint64_t crc = p.init;
  for (size_t i = 0; i < size; ++i) {
    const uint64_t byte = p.reflected ? reflect(data[i], 8) : data[i];
    crc ^= byte << (p.width - 8);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & top) ? ((crc << 1) ^ p.poly) : (crc << 1);
      crc &= mask;
    }
  }
  if (p.reflected) {
    crc = reflect(crc, p.width);
  }
  return crc ^ p.xorOut;
}

// The SICK sensor check as its protocol describes it, before the byte swap.
unsigned short sickModel(const uint8_t* data, size_t size) {
  unsigned int crc = 0;
  unsigned int prev = 0;
  for (size_t i = 0; i < size; ++i) {
    crc = (crc & 0x8000) ? (((crc << 1) ^ 0x8005) & 0xFFFF) : ((crc << 1) & 0xFFFF);
    crc ^= data[i] | (prev << 8);
    prev = data[i];
  }
  return static_cast<unsigned short>(crc & 0xFFFF);
}

unsigned short swapped(unsigned int value) {
  return static_cast<unsigned short>(((value & 0xFF) << 8) | ((value >> 8) & 0xFF));
}

std::string hex(uint64_t value) {
  char text[32];
  snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

void expectSame(const char* name, const char* how, uint64_t got, uint64_t expected, size_t size) {
  FUZZ_CHECK(got == expected, std::string(name) + " over " + std::to_string(size) + " bytes gave " +
                                  hex(got) + ", " + how + " gives " + hex(expected));
}

template <typename T, typename Step>
T fold(T initial, Step step, const uint8_t* data, size_t size) {
  T crc = initial;
  for (size_t i = 0; i < size; ++i) {
    crc = step(crc, data[i]);
  }
  return crc;
}

void checkEmpty(CheckSum& sum, const uint8_t* data) {
  const unsigned char* none = nullptr;
  const unsigned int length = 0;
  for (const unsigned char* pointer : {none, static_cast<const unsigned char*>(data)}) {
    const unsigned int size = pointer == nullptr ? 7 : length;
    expectSame("crc_8(empty)", "the rule", sum.crc_8(pointer, size), 0, 0);
    expectSame("crc_16(empty)", "the rule", sum.crc_16(pointer, size), 0, 0);
    expectSame("crc_modbus(empty)", "the rule", sum.crc_modbus(pointer, size), 0xFFFF, 0);
    expectSame("crc_32(empty)", "the rule", sum.crc_32(pointer, size), 0, 0);
    expectSame("crc_64_ecma(empty)", "the rule", sum.crc_64_ecma(pointer, size), 0, 0);
    expectSame("crc_64_we(empty)", "the rule", sum.crc_64_we(pointer, size), 0, 0);
    expectSame("crc_xmodem(empty)", "the rule", sum.crc_xmodem(pointer, size), 0, 0);
    expectSame("crc_ccitt_1d0f(empty)", "the rule", sum.crc_ccitt_1d0f(pointer, size), 0x1D0F, 0);
    expectSame("crc_ccitt_ffff(empty)", "the rule", sum.crc_ccitt_ffff(pointer, size), 0xFFFF, 0);
    expectSame("crc_dnp(empty)", "the rule", sum.crc_dnp(pointer, size), 0xFFFF, 0);
    expectSame("crc_kermit(empty)", "the rule", sum.crc_kermit(pointer, size), 0, 0);
    expectSame("crc_sick(empty)", "the rule", sum.crc_sick(pointer, size), 0, 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckSum sum;
  if (size == 0) {
    checkEmpty(sum, data);
    return 0;
  }
  const auto length = static_cast<unsigned int>(size);
  const uint64_t ones64 = ~uint64_t{0};
  const uint64_t poly64 = 0x42F0E1EBA9EA3693ull;

  auto step8 = [&](unsigned char crc, uint8_t c) { return sum.update_crc_8(crc, c); };
  auto step16 = [&](unsigned short crc, uint8_t c) { return sum.update_crc_16(crc, c); };
  auto step32 = [&](unsigned int crc, uint8_t c) { return sum.update_crc_32(crc, c); };
  auto step64 = [&](unsigned long long crc, uint8_t c) { return sum.update_crc_64(crc, c); };
  auto stepCcitt = [&](unsigned short crc, uint8_t c) { return sum.update_crc_ccitt(crc, c); };
  auto stepDnp = [&](unsigned short crc, uint8_t c) { return sum.update_crc_dnp(crc, c); };
  auto stepKermit = [&](unsigned short crc, uint8_t c) { return sum.update_crc_kermit(crc, c); };

  const uint64_t crc8 = sum.crc_8(data, length);
  expectSame("crc_8", "the fold", crc8, fold<unsigned char>(0, step8, data, size), size);
  expectSame("crc_8", "bitwise", crc8, bitwise({8, 0x31, 0, false, 0}, data, size), size);

  const uint64_t crc16 = sum.crc_16(data, length);
  expectSame("crc_16", "the fold", crc16, fold<unsigned short>(0, step16, data, size), size);
  expectSame("crc_16", "bitwise", crc16, bitwise({16, 0x8005, 0, true, 0}, data, size), size);

  const uint64_t modbus = sum.crc_modbus(data, length);
  expectSame("crc_modbus", "the fold", modbus, fold<unsigned short>(0xFFFF, step16, data, size),
             size);
  expectSame("crc_modbus", "bitwise", modbus, bitwise({16, 0x8005, 0xFFFF, true, 0}, data, size),
             size);

  const uint64_t crc32 = sum.crc_32(data, length);
  expectSame("crc_32", "the fold", crc32,
             fold<unsigned int>(0xFFFFFFFFu, step32, data, size) ^ 0xFFFFFFFFu, size);
  expectSame("crc_32", "bitwise", crc32,
             bitwise({32, 0x04C11DB7, 0xFFFFFFFF, true, 0xFFFFFFFF}, data, size), size);

  const uint64_t ecma = sum.crc_64_ecma(data, length);
  expectSame("crc_64_ecma", "the fold", ecma, fold<unsigned long long>(0, step64, data, size),
             size);
  expectSame("crc_64_ecma", "bitwise", ecma, bitwise({64, poly64, 0, false, 0}, data, size), size);

  const uint64_t we = sum.crc_64_we(data, length);
  expectSame("crc_64_we", "the fold", we,
             fold<unsigned long long>(ones64, step64, data, size) ^ ones64, size);
  expectSame("crc_64_we", "bitwise", we, bitwise({64, poly64, ones64, false, ones64}, data, size),
             size);

  const struct {
    const char* name;
    unsigned short (CheckSum::*function)(const unsigned char*, unsigned int);
    unsigned short init;
  } ccitt[] = {{"crc_xmodem", &CheckSum::crc_xmodem, 0},
               {"crc_ccitt_1d0f", &CheckSum::crc_ccitt_1d0f, 0x1D0F},
               {"crc_ccitt_ffff", &CheckSum::crc_ccitt_ffff, 0xFFFF}};
  for (const auto& variant : ccitt) {
    const uint64_t value = (sum.*variant.function)(data, length);
    expectSame(variant.name, "the fold", value,
               fold<unsigned short>(variant.init, stepCcitt, data, size), size);
    expectSame(variant.name, "bitwise", value,
               bitwise({16, 0x1021, variant.init, false, 0}, data, size), size);
  }

  const uint64_t dnp = sum.crc_dnp(data, length);
  expectSame("crc_dnp", "the fold", dnp,
             swapped(fold<unsigned short>(0, stepDnp, data, size) ^ 0xFFFFu), size);
  expectSame("crc_dnp", "bitwise", dnp,
             swapped(static_cast<unsigned int>(bitwise({16, 0x3D65, 0, true, 0xFFFF}, data, size))),
             size);

  const uint64_t kermit = sum.crc_kermit(data, length);
  expectSame("crc_kermit", "the fold", kermit,
             swapped(fold<unsigned short>(0, stepKermit, data, size)), size);
  expectSame("crc_kermit", "bitwise", kermit,
             swapped(static_cast<unsigned int>(bitwise({16, 0x1021, 0, true, 0}, data, size))),
             size);

  const uint64_t sick = sum.crc_sick(data, length);
  unsigned short running = 0;
  unsigned char prev = 0;
  for (size_t i = 0; i < size; ++i) {
    running = sum.update_crc_sick(running, data[i], prev);
    prev = data[i];
  }
  expectSame("crc_sick", "the fold", sick, swapped(running), size);
  expectSame("crc_sick", "the protocol's rule", sick, swapped(sickModel(data, size)), size);
  return 0;
}
