/// @file
/// The MD5 message digest of RFC 1321 over data given in one or more pieces.
///
///     velmora::base::utils::MD5 digest;
///     digest.update(piece1, length1);
///     digest.update(piece2, length2);
///     std::string hex = digest.finalize().hexDigest();  // 32 lower-case hex characters
///
///     std::string same = velmora::base::utils::MD5(text).md5();  // one piece at once
///
/// A plain value class: no locks, no logging, no heap use of its own.
///
/// Deliberate behaviour: update() after finalize() is not refused. It changes the buffered input
/// and the bit count, but the digest and the finalized flag stay, so the results keep showing the
/// first digest until init() starts a new computation. finalize() clears the buffered input and
/// the count, so no input remains in the object.
#ifndef VELMORA_BASE_UTILS_MD5_H
#define VELMORA_BASE_UTILS_MD5_H

#include <iosfwd>
#include <string>

#include "base/export.h"

namespace velmora {
namespace base {
namespace utils {

/// An MD5 computation: init(), any number of update() calls, finalize(), then the results.
class VELMORA_BASE_EXPORT MD5 {
 public:
  /// Ready for input (init()).
  MD5();
  /// Holds the digest of text at once (init, update, finalize).
  explicit MD5(const std::string& text);

  /// Starts a new computation: not finalized, no input, the RFC's initial chaining values.
  void init();
  /// Absorbs length more bytes of input. After finalize() the input is still absorbed but no
  /// longer changes the results (see the file's description). A null input is refused, whatever
  /// the length: nothing is absorbed.
  void update(const unsigned char* input, unsigned int length);
  /// The same for char data (a null input refused the same way).
  void update(const char* input, unsigned int length);
  /// Pads, appends the bit count and computes the digest, then clears the buffered input and the
  /// count; does nothing when already finalized. Returns *this.
  MD5& finalize();
  /// The digest as 32 lower-case hex characters, or "" before finalize().
  std::string hexDigest() const;
  /// The same as hexDigest().
  std::string md5() const;
  /// The 16 digest bytes (which may include NUL), or "" before finalize().
  std::string binDigest() const;

 private:
  static constexpr unsigned int kBlockSize = 64;
  static constexpr unsigned int kDigestSize = 16;

  // The steps of the computation, kept out of line and exported with the rest of the class.

  // The four rounds of sixteen steps on one 64-byte block, folded into the chaining values.
  void transform(const unsigned char block[kBlockSize]);
  // Little-endian bytes to words; length in bytes, a multiple of 4.
  static void decode(unsigned int* output, const unsigned char* input, unsigned int length);
  // Words to little-endian bytes; length in bytes, a multiple of 4.
  static void encode(unsigned char* output, const unsigned int* input, unsigned int length);

  bool finalized;
  unsigned char buffer[kBlockSize];  // input not yet processed
  unsigned int count[2];             // number of input bits, low word first
  unsigned int state[4];             // the chaining values A, B, C, D
  unsigned char digest[kDigestSize];
};

/// Writes md5.hexDigest() (the empty string before finalize()) to out and returns out.
VELMORA_BASE_EXPORT std::ostream& operator<<(std::ostream& out, MD5 md5);

}  // namespace utils
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_MD5_H
