/// @file
/// Free utility functions of the library: thread identity and the string, number and path helpers.
/// They keep no state and take no lock; any thread may call them with arguments it does not share.
/// Failures are answered by return values (and, where stated, a log line), never by exceptions.
/// Only an allocation failure throws (std::bad_alloc), and it leaves the strings and vectors the
/// caller passed in as they were (for rmDir, see there).
///
///     int port = 0;
///     if (velmora::base::dstoi(text, port) == 0) { ... }
///     std::vector<std::string> parts = velmora::base::strSplit("a,b", ",");
///
/// Deliberate behaviours callers must know:
/// - The dsto* parsers stop at the first non-digit and wrap around silently: "12abc" gives 12,
///   "abc" gives 0 (both succeed); only "" and a lone "+" or "-" fail. The unsigned forms apply
///   the sign too ("-1" gives the largest value). dstol and dstoul work in the width of long of
///   the machine (32 bits on the device, 64 on a 64-bit host).
/// - convert2HexStr REPLACES out with the single digit for values 0 to 15, but APPENDS the digits
///   to out for values of 16 and above.
/// - strSplit moves on by the length of the whole delimiter string after each match, so a
///   delimiter string of several characters skips as many characters as it holds.
/// - hasSuffix is false when the suffix is exactly as long as the path (hasSuffix(".txt", ".txt")
///   is false); the suffix is compared from the path's last '.' on, so it includes the dot.
/// - generateUUID prints the first three groups from the native-order integers of the random
///   bytes, so their bytes appear reversed against the usual text form of the same 16 bytes.
#ifndef VELMORA_BASE_UTILS_H
#define VELMORA_BASE_UTILS_H

#include <string>
#include <vector>

#include "base/export.h"

namespace velmora {
namespace base {

/// The calling thread's kernel thread id (gettid), not a pthread_t.
VELMORA_BASE_EXPORT int currentThread();

/// A copy of s with every byte passed through tolower.
VELMORA_BASE_EXPORT std::string toLowerCase(const std::string& s);

/// Decimal parser into int: an optional leading '+' or '-', then digits up to the first
/// non-digit, wrapping around silently. 0 with out set (0 when no digit follows), -1 with out
/// untouched for "" or a lone "+" or "-". Nothing is logged. The other dsto* forms are alike.
VELMORA_BASE_EXPORT int dstoi(const std::string& s, int& out);
/// dstoi into long, in the width of long of the machine.
VELMORA_BASE_EXPORT int dstol(const std::string& s, long& out);
/// dstoi into long long (64-bit accumulation).
VELMORA_BASE_EXPORT int dstoll(const std::string& s, long long& out);
/// dstoi into unsigned int; the sign applies ("-1" gives 4294967295).
VELMORA_BASE_EXPORT int dstoui(const std::string& s, unsigned int& out);
/// dstoui into unsigned long, in the width of long of the machine.
VELMORA_BASE_EXPORT int dstoul(const std::string& s, unsigned long& out);
/// dstoui into unsigned long long (64-bit accumulation).
VELMORA_BASE_EXPORT int dstoull(const std::string& s, unsigned long long& out);

/// strtoll in the given base; trailing characters are ignored ("12abc" gives 12). Returns
/// fallback, with a log line at level 1000, for an empty text (`"Invalid argument\n"`), a text
/// with no number at its start (`"Invalid argument.\n"`), or a value out of range
/// (`" Conversion failed: %d ( %s )  [%s] \n"` with errno, its text and the input).
VELMORA_BASE_EXPORT long long strToInt(const std::string& s, int base, long long fallback);
/// strtod, with the fallback rules of strToInt; the range message is
/// `"Conversion failed: %d ( %s )  [%s]\n"` (no leading or trailing blank).
VELMORA_BASE_EXPORT double strToReal(const std::string& s, double fallback);

/// Erases the characters of chars from the front of s, in place; returns s.
VELMORA_BASE_EXPORT std::string& ltrim(std::string& s, const std::string& chars);
/// Erases the characters of chars from the back of s, in place; returns s.
VELMORA_BASE_EXPORT std::string& rtrim(std::string& s, const std::string& chars);
/// ltrim with the default set `" \t\f\v\r\n"`.
VELMORA_BASE_EXPORT std::string& ltrim(std::string& s);
/// rtrim with the default set `" \t\f\v\r\n"`.
VELMORA_BASE_EXPORT std::string& rtrim(std::string& s);
/// Both ends, with the default set; a string of only such characters becomes empty.
VELMORA_BASE_EXPORT std::string& trim(std::string& s);

/// Whether the text from path's last '.' to its end equals suffix ("a/b.json" has ".json").
/// False for an empty path, a path without '.', and a suffix exactly as long as the path.
VELMORA_BASE_EXPORT bool hasSuffix(const std::string& path, const std::string& suffix);

/// A new random identifier: 36 upper-case hex characters in groups 8-4-4-4-12 (the first three
/// groups in native byte order, see the file's description).
VELMORA_BASE_EXPORT std::string generateUUID();

/// Whether path exists (access F_OK). false for null without a message; any other failure is
/// logged as `"filePath:'%s', ret:%d, error:'%s'.\n"` (level 1000).
VELMORA_BASE_EXPORT bool isPathExists(const char* path);

/// Removes the folder path with everything below it that is a folder or a regular file. Entries
/// it cannot stat or delete, and special files (devices, pipes, sockets), are logged and left.
/// Symbolic links are followed: a link to a folder has that folder's contents removed (the link
/// itself then stays, as rmdir refuses it); a dangling link cannot be stat'ed and stays.
/// Returns, with the message logged (all with the function name "rmDir"):
/// - 0 on success;
/// - -1 for a null path: `"dirPath is NULL.\n\n"` (level 1000);
/// - -2 when the folder cannot be opened: `"Fail to opendir('%s').\n\n"` (level 1000);
/// - -3 when it cannot be removed at the end (for example because something was left in it):
///   `"Fail to delete dir:'%s', error:(%d-'%s').\n\n"` (level 1000).
///
/// Entries left are logged as `"Fail to get stat of path.error:(%d-'%s').\n\n"` and
/// `"Fail to delete:'%s', error:(%d-'%s').\n\n"` (level 1000), and special files as
/// `"name:'%s', MODE:%d, ISOTHER.\n\n"` (level 5000).
///
/// An allocation failure ends the removal with std::bad_alloc: what was removed until then stays
/// removed, no directory stream is left open, and a later call removes the rest.
VELMORA_BASE_EXPORT int rmDir(const char* path);

/// Splits "key = value # comment" at its first '='. The value is cut at its first '#'; both are
/// trimmed of the default set. False (key and value untouched) when there is no '=', logged as
/// `"Invalid format, Can't find =\n"` (level 1000).
VELMORA_BASE_EXPORT bool exactIniKeyValue(const std::string& line, std::string& key,
                                          std::string& value);

/// Hex digits of value, taken as unsigned of its own width, without prefix or padding; upper or
/// lower case letters. Values 0 to 15 REPLACE out with their digit; larger values APPEND their
/// digits to out. Always 0.
VELMORA_BASE_EXPORT int convert2HexStr(char value, std::string& out, bool upper);
/// convert2HexStr for unsigned char.
VELMORA_BASE_EXPORT int convert2HexStr(unsigned char value, std::string& out, bool upper);
/// convert2HexStr for int (a negative value prints as eight digits).
VELMORA_BASE_EXPORT int convert2HexStr(int value, std::string& out, bool upper);
/// convert2HexStr for unsigned int.
VELMORA_BASE_EXPORT int convert2HexStr(unsigned int value, std::string& out, bool upper);
/// convert2HexStr for long, in the width of long of the machine.
VELMORA_BASE_EXPORT int convert2HexStr(long value, std::string& out, bool upper);
/// convert2HexStr for unsigned long, in the width of long of the machine.
VELMORA_BASE_EXPORT int convert2HexStr(unsigned long value, std::string& out, bool upper);

/// The non-empty pieces of s between characters of delims. After each match the scan moves on
/// by delims.size() characters, not by one ("a:b:c" with "::" gives only "a").
VELMORA_BASE_EXPORT std::vector<std::string> strSplit(const std::string& s,
                                                      const std::string& delims);

/// Appends to out (not cleared) every field of s between single-character delimiters, empty
/// fields and the last field included. -1 with out untouched when s holds no delimiter, else 0.
VELMORA_BASE_EXPORT int separateStr(const std::string& s, const std::string& delims,
                                    std::vector<std::string>& out);

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_H
