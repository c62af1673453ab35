/// @file
/// Cyclic redundancy checks and the NMEA sentence checksum.
///
/// CheckSum has no state: default-construct one and call the function for the check you need,
/// either over a whole buffer or byte by byte through the matching update_* step:
///
///     velmora::base::utils::CheckSum sum;
///     unsigned int crc = sum.crc_32(data, length);
///
///     unsigned int running = 0xFFFFFFFF;  // CRC-32's initial value
///     for (...) running = sum.update_crc_32(running, byte);
///     unsigned int same = running ^ 0xFFFFFFFF;  // CRC-32's final XOR, applied by the caller
///
/// A whole-buffer function returns its "empty" value at once for a null pointer or a length of 0
/// (see each function). The update_* steps apply no initial value, no final XOR and no byte swap:
/// the caller starts from the initial value and finishes by hand.
///
/// Deliberate quirks: crc_dnp, crc_kermit and crc_sick return their value with the two bytes
/// swapped after the final XOR, so that the value's in-memory order on a little-endian machine is
/// the order in which those protocols send the two bytes. crc_dnp of empty input is 0xFFFF.
///
/// All look-up tables are constant data computed at compile time: no CRC needs start-up work and
/// every function may be called from any thread.
#ifndef VELMORA_BASE_UTILS_CHECKSUM_H
#define VELMORA_BASE_UTILS_CHECKSUM_H

#include "base/export.h"

namespace velmora {
namespace base {
namespace utils {

/// The CRC family and the NMEA checksum; a stateless class whose members ignore `this`.
class VELMORA_BASE_EXPORT CheckSum {
 public:
  /// @name Whole-buffer checks
  /// Each comment gives width; polynomial; initial value; reflected in/out; final XOR; then the
  /// result for a null data pointer or a length of 0 ("Empty") and the check value of the nine
  /// bytes "123456789".
  /// @{

  /// 8; 0x31; 0x00; no/no; 0x00. Empty: 0. "123456789": 0xA2.
  unsigned char crc_8(const unsigned char* data, unsigned int length);
  /// CRC-16/ARC: 16; 0x8005; 0x0000; yes/yes; 0x0000. Empty: 0. "123456789": 0xBB3D.
  unsigned short crc_16(const unsigned char* data, unsigned int length);
  /// CRC-16/MODBUS: 16; 0x8005; 0xFFFF; yes/yes; 0x0000. Empty: 0xFFFF. "123456789": 0x4B37.
  unsigned short crc_modbus(const unsigned char* data, unsigned int length);
  /// CRC-32 (ISO-HDLC): 32; 0x04C11DB7; all ones; yes/yes; all ones. Empty: 0.
  /// "123456789": 0xCBF43926.
  unsigned int crc_32(const unsigned char* data, unsigned int length);
  /// CRC-64/ECMA-182: 64; 0x42F0E1EBA9EA3693; 0; no/no; 0. Empty: 0.
  /// "123456789": 0x6C40DF5F0B497347.
  unsigned long long crc_64_ecma(const unsigned char* data, unsigned int length);
  /// CRC-64/WE: 64; 0x42F0E1EBA9EA3693; all ones; no/no; all ones. Empty: 0.
  /// "123456789": 0x62EC59E3F1A4F00A.
  unsigned long long crc_64_we(const unsigned char* data, unsigned int length);
  /// CRC-16/XMODEM: 16; 0x1021; 0x0000; no/no; 0. Empty: 0. "123456789": 0x31C3.
  unsigned short crc_xmodem(const unsigned char* data, unsigned int length);
  /// CRC-16/SPI-FUJITSU: 16; 0x1021; 0x1D0F; no/no; 0. Empty: 0x1D0F. "123456789": 0xE5CC.
  unsigned short crc_ccitt_1d0f(const unsigned char* data, unsigned int length);
  /// CRC-16/IBM-3740: 16; 0x1021; 0xFFFF; no/no; 0. Empty: 0xFFFF. "123456789": 0x29B1.
  unsigned short crc_ccitt_ffff(const unsigned char* data, unsigned int length);
  /// CRC-16/DNP, bytes swapped: 16; 0x3D65; 0; yes/yes; 0xFFFF; then the two bytes swapped.
  /// Empty: 0xFFFF. "123456789": 0x82EA.
  unsigned short crc_dnp(const unsigned char* data, unsigned int length);
  /// CRC-16/KERMIT, bytes swapped: 16; 0x1021; 0; yes/yes; 0; then the two bytes swapped.
  /// Empty: 0. "123456789": 0x8921.
  unsigned short crc_kermit(const unsigned char* data, unsigned int length);
  /// The bitwise SICK sensor check (no table), then the two bytes swapped. Empty: 0.
  /// "123456789": 0x56A6.
  unsigned short crc_sick(const unsigned char* data, unsigned int length);
  /// @}

  /// Writes the NMEA checksum of sentence into out as two upper-case hex digits and a NUL
  /// (3 bytes) and returns out; null when either pointer is null. One leading '$' is skipped;
  /// the XOR stops at NUL, CR, LF or '*'.
  unsigned char* checksum_NMEA(const unsigned char* sentence, unsigned char* out);

  /// @name Byte steps
  /// Each folds c into the running value crc and returns the new running value; no initial
  /// value, final XOR or byte swap is applied (see the file's description).
  /// @{

  /// The step of crc_8.
  unsigned char update_crc_8(unsigned char crc, unsigned char c);
  /// Serves crc_16 and crc_modbus.
  unsigned short update_crc_16(unsigned short crc, unsigned char c);
  /// The step of crc_32: start from 0xFFFFFFFF, invert the result.
  unsigned int update_crc_32(unsigned int crc, unsigned char c);
  /// Serves crc_64_ecma and crc_64_we.
  unsigned long long update_crc_64(unsigned long long crc, unsigned char c);
  /// Serves crc_xmodem, crc_ccitt_1d0f and crc_ccitt_ffff.
  unsigned short update_crc_ccitt(unsigned short crc, unsigned char c);
  /// The step of crc_dnp (finish with XOR 0xFFFF and the byte swap).
  unsigned short update_crc_dnp(unsigned short crc, unsigned char c);
  /// The step of crc_kermit (finish with the byte swap).
  unsigned short update_crc_kermit(unsigned short crc, unsigned char c);
  /// One step of crc_sick, prev being the byte before c (0 before the first byte); the result is
  /// the running value before any byte swap.
  unsigned short update_crc_sick(unsigned short crc, unsigned char c, unsigned char prev);
  /// @}
};

}  // namespace utils
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_CHECKSUM_H
