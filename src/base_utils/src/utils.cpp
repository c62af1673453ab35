// Thread identity and the string, number and path helpers.
#include "base/utils.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "base/logging.h"

namespace velmora {
namespace base {

namespace {

const char kDefaultTrimSet[] = " \t\f\v\r\n";

// The bases strtoll accepts; with any other it consumes nothing and leaves its end pointer
// unset.
bool isUsableBase(int base) {
  return base == 0 || (base >= 2 && base <= 36);
}

// The decimal parse shared by the dsto* family, in the unsigned arithmetic of Out's width.
template <typename Out>
int parseDecimal(const std::string& s, Out& out) {
  using Unsigned = std::make_unsigned_t<Out>;
  if (s.empty()) {
    return -1;
  }
  if (s.size() == 1 && (s[0] == '+' || s[0] == '-')) {
    return -1;
  }
  size_t pos = 0;
  bool negative = false;
  if (s[0] == '+') {
    pos = 1;
  } else if (s[0] == '-') {
    negative = true;
    pos = 1;
  }
  Unsigned value = 0;
  for (; pos < s.size() && s[pos] >= '0' && s[pos] <= '9'; ++pos) {
    value = static_cast<Unsigned>(value * 10u + static_cast<Unsigned>(s[pos] - '0'));
  }
  out = static_cast<Out>(negative ? static_cast<Unsigned>(0u - value) : value);
  return 0;
}

// Hex digits of value as unsigned of its own width: 0-15 replace out, larger values append.
template <typename T>
int hexDigits(T value, std::string& out, bool upper) {
  using Unsigned = std::make_unsigned_t<T>;
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  Unsigned bits = static_cast<Unsigned>(value);
  if (bits < 16) {
    out.assign(1, digits[bits]);
    return 0;
  }
  // The digits are laid out from the end of the buffer, then appended in one call, so that a
  // failed allocation leaves out as it was.
  char text[sizeof(Unsigned) * 2];
  size_t first = sizeof(text);
  while (bits != 0) {
    text[--first] = digits[bits & 0xF];
    bits = static_cast<Unsigned>(bits >> 4);
  }
  out.append(text + first, sizeof(text) - first);
  return 0;
}

// closedir for a directory stream that a unique_ptr holds.
struct DirectoryCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

// Removes one entry of a folder being removed: folders recursively, regular files by unlink;
// anything else, or an entry that cannot be stat'ed or deleted, is logged and left.
void removeEntry(const std::string& path) {
  struct stat64 st;
  errno = 0;
  if (stat64(path.c_str(), &st) != 0) {
    const int error = errno;
    VELMORA_LOG_FULL("B-LOG", kLogError, __LINE__, "rmDir",
                     "Fail to get stat of path.error:(%d-'%s').\n\n", error, strerror(error));
    return;
  }
  if (S_ISDIR(st.st_mode)) {
    rmDir(path.c_str());
  } else if (S_ISREG(st.st_mode)) {
    if (unlink(path.c_str()) != 0) {
      const int error = errno;
      VELMORA_LOG_FULL("B-LOG", kLogError, __LINE__, "rmDir",
                       "Fail to delete:'%s', error:(%d-'%s').\n\n", path.c_str(), error,
                       strerror(error));
    }
  } else {
    VELMORA_LOG_FULL("B-LOG", kLogVerbose, __LINE__, "rmDir", "name:'%s', MODE:%d, ISOTHER.\n\n",
                     path.c_str(), static_cast<int>(st.st_mode));
  }
}

}  // namespace

int currentThread() {
  return static_cast<int>(syscall(SYS_gettid));
}

std::string toLowerCase(const std::string& s) {
  std::string lower(s);
  for (char& c : lower) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

int dstoi(const std::string& s, int& out) {
  return parseDecimal(s, out);
}
int dstol(const std::string& s, long& out) {
  return parseDecimal(s, out);
}
int dstoll(const std::string& s, long long& out) {
  return parseDecimal(s, out);
}
int dstoui(const std::string& s, unsigned int& out) {
  return parseDecimal(s, out);
}
int dstoul(const std::string& s, unsigned long& out) {
  return parseDecimal(s, out);
}
int dstoull(const std::string& s, unsigned long long& out) {
  return parseDecimal(s, out);
}

long long strToInt(const std::string& s, int base, long long fallback) {
  if (s.empty()) {
    VELMORA_LOG(kLogError, "Invalid argument\n");
    return fallback;
  }
  const char* start = s.c_str();
  // With a base strtoll refuses nothing is consumed: end stays at the start.
  char* end = const_cast<char*>(start);
  errno = 0;
  long long value = 0;
  if (isUsableBase(base)) {
    value = strtoll(start, &end, base);
  }
  const int error = errno;
  if (end == start) {
    VELMORA_LOG(kLogError, "Invalid argument.\n");
    return fallback;
  }
  if (error != 0) {
    VELMORA_LOG(kLogError, " Conversion failed: %d ( %s )  [%s] \n", error, strerror(error), start);
    return fallback;
  }
  return value;
}

double strToReal(const std::string& s, double fallback) {
  if (s.empty()) {
    VELMORA_LOG(kLogError, "Invalid argument\n");
    return fallback;
  }
  const char* start = s.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = strtod(start, &end);
  const int error = errno;
  if (end == start) {
    VELMORA_LOG(kLogError, "Invalid argument.\n");
    return fallback;
  }
  if (error != 0) {
    VELMORA_LOG(kLogError, "Conversion failed: %d ( %s )  [%s]\n", error, strerror(error), start);
    return fallback;
  }
  return value;
}

std::string& ltrim(std::string& s, const std::string& chars) {
  s.erase(0, s.find_first_not_of(chars));
  return s;
}

std::string& rtrim(std::string& s, const std::string& chars) {
  const size_t last = s.find_last_not_of(chars);
  s.erase(last == std::string::npos ? 0 : last + 1);
  return s;
}

std::string& ltrim(std::string& s) {
  return ltrim(s, kDefaultTrimSet);
}

std::string& rtrim(std::string& s) {
  return rtrim(s, kDefaultTrimSet);
}

std::string& trim(std::string& s) {
  return rtrim(ltrim(s));
}

bool hasSuffix(const std::string& path, const std::string& suffix) {
  if (path.empty() || suffix.size() == path.size()) {
    return false;
  }
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos) {
    return false;
  }
  return path.compare(dot, std::string::npos, suffix) == 0;
}

std::string generateUUID() {
  uuid_t bytes;
  uuid_generate(bytes);
  uint32_t first;
  uint16_t second;
  uint16_t third;
  memcpy(&first, bytes, sizeof(first));
  memcpy(&second, bytes + 4, sizeof(second));
  memcpy(&third, bytes + 6, sizeof(third));
  char text[256];
  snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           static_cast<unsigned int>(first), static_cast<unsigned int>(second),
           static_cast<unsigned int>(third), bytes[8], bytes[9], bytes[10], bytes[11], bytes[12],
           bytes[13], bytes[14], bytes[15]);
  return text;
}

bool isPathExists(const char* path) {
  if (path == nullptr) {
    return false;
  }
  errno = 0;
  const int result = access(path, F_OK);
  if (result == 0) {
    return true;
  }
  const int error = errno;
  VELMORA_LOG(kLogError, "filePath:'%s', ret:%d, error:'%s'.\n", path, result, strerror(error));
  return false;
}

int rmDir(const char* path) {
  if (path == nullptr) {
    VELMORA_LOG(kLogError, "dirPath is NULL.\n\n");
    return -1;
  }
  // Held so that an allocation failure below, which ends the removal with std::bad_alloc, still
  // closes the stream of every level.
  const DirectoryStream dir(opendir(path));
  if (dir == nullptr) {
    VELMORA_LOG(kLogError, "Fail to opendir('%s').\n\n", path);
    return -2;
  }
  // The 64-bit form: a 32-bit process on a 64-bit kernel cannot read entries whose directory
  // offsets do not fit the 32-bit form (readdir would stop there with EOVERFLOW).
  while (const struct dirent64* entry = readdir64(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
      continue;
    }
    removeEntry(std::string(path) + "/" + entry->d_name);
  }
  errno = 0;
  if (rmdir(path) != 0) {
    const int error = errno;
    VELMORA_LOG(kLogError, "Fail to delete dir:'%s', error:(%d-'%s').\n\n", path, error,
                strerror(error));
    return -3;
  }
  return 0;
}

bool exactIniKeyValue(const std::string& line, std::string& key, std::string& value) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) {
    VELMORA_LOG(kLogError, "Invalid format, Can't find =\n");
    return false;
  }
  std::string foundKey = line.substr(0, equals);
  std::string foundValue = line.substr(equals + 1);
  const size_t comment = foundValue.find('#');
  if (comment != std::string::npos) {
    foundValue.erase(comment);
  }
  // Both are made before either is handed over, so that a failed allocation changes neither.
  key.swap(trim(foundKey));
  value.swap(trim(foundValue));
  return true;
}

int convert2HexStr(char value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}
int convert2HexStr(unsigned char value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}
int convert2HexStr(int value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}
int convert2HexStr(unsigned int value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}
int convert2HexStr(long value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}
int convert2HexStr(unsigned long value, std::string& out, bool upper) {
  return hexDigits(value, out, upper);
}

std::vector<std::string> strSplit(const std::string& s, const std::string& delims) {
  std::vector<std::string> pieces;
  if (s.empty()) {
    return pieces;
  }
  size_t pos = 0;
  while (pos < s.size()) {
    const size_t match = s.find_first_of(delims, pos);
    if (match == std::string::npos) {
      break;
    }
    if (match > pos) {
      pieces.emplace_back(s, pos, match - pos);
    }
    pos = match + delims.size();
  }
  if (pos < s.size()) {
    pieces.emplace_back(s, pos);
  }
  return pieces;
}

int separateStr(const std::string& s, const std::string& delims, std::vector<std::string>& out) {
  size_t match = s.find_first_of(delims);
  if (match == std::string::npos) {
    return -1;
  }
  // The fields are collected first, and out makes room for them all before any is moved in: a
  // failed allocation leaves out as it was, and the moves that follow cannot fail.
  std::vector<std::string> fields;
  size_t start = 0;
  while (match != std::string::npos) {
    fields.emplace_back(s, start, match - start);
    start = match + 1;
    match = s.find_first_of(delims, start);
  }
  fields.emplace_back(s, start);
  out.reserve(out.size() + fields.size());
  for (std::string& field : fields) {
    out.push_back(std::move(field));
  }
  return 0;
}

}  // namespace base
}  // namespace velmora
