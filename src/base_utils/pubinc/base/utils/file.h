/// @file
/// File: the owner of one POSIX file descriptor, with a fixed error vocabulary, open-mode bits,
/// best-effort and single-shot transfers, seeking, truncation, flushing, whole-file advisory
/// locks and stat queries; plus the three file-time queries. All calls are synchronous and
/// nothing is buffered. A File belongs to one thread at a time.
///
///     velmora::base::utils::File file("/tmp/a", File::FILE_FLAG_OPEN_ALWAYS |
///                                                 File::FILE_FLAG_READ | File::FILE_FLAG_WRITE);
///     if (!file.IsValid()) { ... File::ErrorToString(file.error()) ... }
///     file.Write(0, "abc", 3);
///
/// Deliberate behaviours callers must know:
/// - Seek on a File without descriptor returns 0, not -1.
/// - ReadNoBestEffort passes a negative size through to pread (as a huge count), while every other
///   transfer returns -1 at once for a negative size.
/// - A best-effort transfer that fails after partial progress reports the partial count.
/// - Opening again through Initialize forgets (does not close) the descriptor held before, as
///   does SetPlatformFile.
/// - GetLength and Info::size hold only the low 32 bits of the size.
/// - The file-time queries open the path for reading, so a file that exists but is not readable
///   by the caller gives -1.0 although stat could read its times, and a FIFO without a writer
///   makes them wait until one opens it.
///
/// `<fcntl.h>` defines LOCK_READ and LOCK_WRITE as macros (with _GNU_SOURCE, GCC's default for
/// C++). This header includes it once and removes those two macros, so File::LOCK_READ and
/// File::LOCK_WRITE stay usable whether a translation unit includes <fcntl.h> before or after
/// this header (its include guard keeps a later inclusion from defining them again).
#ifndef VELMORA_BASE_UTILS_FILE_H
#define VELMORA_BASE_UTILS_FILE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "base/export.h"

#ifdef LOCK_READ
#undef LOCK_READ
#endif
#ifdef LOCK_WRITE
#undef LOCK_WRITE
#endif

namespace velmora {
namespace base {
namespace utils {

/// The owner of one POSIX file descriptor; see the file's description. No operation reports a
/// failure by exception: opening records its outcome in error(), transfers report -1 or a short
/// count, bool operations false, and errno is left as the failing call set it. Only an
/// allocation failure throws (std::bad_alloc, from the constructors, Initialize and
/// ErrorToString), and it loses no descriptor.
class VELMORA_BASE_EXPORT File {
 public:
  /// The outcome of an open and the mapped form of errno values; ErrorToString gives the
  /// enumerator's own name as text. -10 to -15 are never produced by the library.
  enum Error : int32_t {
    FILE_OK = 0,                         ///< success
    FILE_ERROR_FAILED = -1,              ///< any unlisted errno; also a default File's error
    FILE_ERROR_IN_USE = -2,              ///< EBUSY, ETXTBSY
    FILE_ERROR_EXISTS = -3,              ///< EEXIST
    FILE_ERROR_NOT_FOUND = -4,           ///< ENOENT
    FILE_ERROR_ACCESS_DENIED = -5,       ///< EPERM, EACCES, EISDIR, EROFS
    FILE_ERROR_TOO_MANY_OPENED = -6,     ///< ENFILE, EMFILE
    FILE_ERROR_NO_MEMORY = -7,           ///< ENOMEM
    FILE_ERROR_NO_SPACE = -8,            ///< ENOSPC
    FILE_ERROR_NOT_A_DIRECTORY = -9,     ///< ENOTDIR
    FILE_ERROR_INVALID_OPERATION = -10,  ///< for callers
    FILE_ERROR_SECURITY = -11,           ///< for callers
    FILE_ERROR_ABORT = -12,              ///< for callers
    FILE_ERROR_NOT_A_FILE = -13,         ///< for callers
    FILE_ERROR_NOT_EMPTY = -14,          ///< for callers
    FILE_ERROR_INVALID_URL = -15,        ///< for callers
    FILE_ERROR_IO = -16,                 ///< EIO
  };

  /// Passed to lseek unchanged.
  enum Whence : int32_t {
    WHENCE_BEGIN = 0,    ///< SEEK_SET
    WHENCE_CURRENT = 1,  ///< SEEK_CUR
    WHENCE_END = 2,      ///< SEEK_END
  };

  /// The kind of whole-file advisory lock that Lock takes.
  enum LockMode : int32_t {
    LOCK_NONE = 0,   ///< release
    LOCK_READ = 1,   ///< shared lock
    LOCK_WRITE = 2,  ///< exclusive lock
  };

  /// Open-mode bits of the flags word of the path constructor and Initialize.
  enum Flags : unsigned int {
    FILE_FLAG_OPEN = 0x1,                 ///< open an existing file
    FILE_FLAG_CREATE = 0x2,               ///< create, fail if it exists
    FILE_FLAG_OPEN_ALWAYS = 0x4,          ///< open, create if missing
    FILE_FLAG_CREATE_ALWAYS = 0x8,        ///< create or truncate
    FILE_FLAG_OPEN_TRUNCATED = 0x10,      ///< open existing and truncate (overrides 0x2 and 0x8)
    FILE_FLAG_READ = 0x20,                ///< read access
    FILE_FLAG_WRITE = 0x40,               ///< write access
    FILE_FLAG_APPEND = 0x80,              ///< append mode
    FILE_FLAG_EXCLUSIVE_READ = 0x100,     ///< with OPEN_ALWAYS: create exclusively
    FILE_FLAG_EXCLUSIVE_WRITE = 0x200,    ///< as EXCLUSIVE_READ
    FILE_FLAG_ASYNC = 0x400,              ///< recorded only
    FILE_FLAG_DELETE_ON_CLOSE = 0x2000,   ///< the path is unlinked right after a successful open
    FILE_FLAG_WRITE_ATTRIBUTES = 0x4000,  ///< accepted as an access mode without read or write
    FILE_FLAG_TERMINAL_DEVICE = 0x10000,  ///< O_NOCTTY and O_NDELAY
  };

  /// A point in time: seconds (time_t) and nanoseconds.
  struct Time {
    time_t seconds = 0;       ///< seconds since the epoch
    int64_t nanoseconds = 0;  ///< nanoseconds within the second
  };

  /// What fstat tells about an open file; all zero after construction.
  struct VELMORA_BASE_EXPORT Info {
    /// All fields zero.
    Info();
    /// Nothing to release.
    ~Info();

    /// Fills this Info from st: the low 32 bits of the size, the directory and symbolic-link
    /// bits, and the modification, access and status-change (creationTime) times.
    void FromStat(const struct stat64& st);

    int32_t size;         ///< the low 32 bits of the file size
    bool isDirectory;     ///< the file is a directory
    bool isSymbolicLink;  ///< the file is a symbolic link
    Time lastModified;    ///< st_mtime with its nanoseconds
    Time lastAccessed;    ///< st_atime with its nanoseconds
    Time creationTime;    ///< the status-change time (st_ctime)
  };

  /// No descriptor, error FILE_ERROR_FAILED.
  File();
  /// Takes ownership of fd; error FILE_OK. Ownership passes even when the holder cell cannot be
  /// allocated: fd is then closed and std::bad_alloc thrown.
  explicit File(int fd);
  /// Takes ownership of fd and records async; error FILE_OK. As File(int), fd is closed when
  /// std::bad_alloc is thrown.
  File(int fd, bool async);
  /// No descriptor, the given error.
  explicit File(Error error);
  /// Opens path with the open-mode bits of flags (see DoInitialize); check IsValid(). May throw
  /// std::bad_alloc, before anything is opened.
  File(const std::string& path, unsigned int flags);
  /// The moves take the other File's descriptor (leaving it without one) and its other fields;
  /// the assignment first closes this File's own descriptor. Self-assignment changes nothing.
  File(File&& other);
  /// See the move constructor.
  File& operator=(File&& other);
  /// Closes the descriptor, if any.
  ~File();

  /// Not copyable: a File owns its descriptor.
  File(const File&) = delete;
  /// Not assignable.
  File& operator=(const File&) = delete;

  /// DoInitialize(path, flags).
  void Initialize(const std::string& path, unsigned int flags);
  /// Opens path: the open-mode bits choose O_CREAT/O_EXCL/O_TRUNC, the access bits the access
  /// mode; permission bits 0600; EINTR is retried; OPEN_ALWAYS opens a second time with O_CREAT
  /// (setting created()).
  /// - A flags word without any open mode logs `"Should Not Reached here.\n"` (level 1000) and
  ///   fails with errno EOPNOTSUPP and FILE_ERROR_FAILED.
  /// - One with none of READ, WRITE, APPEND, OPEN_ALWAYS and WRITE_ATTRIBUTES logs the same
  ///   line and opens read-only.
  /// - A failed open puts the mapped errno in error() and leaves the descriptor cell as it was
  ///   (none for a fresh File); a successful one forgets, without closing, a descriptor held
  ///   before.
  /// - The holder cell is allocated first: std::bad_alloc leaves this File and the file system
  ///   as they were (nothing opened, created, truncated or unlinked).
  void DoInitialize(const std::string& path, unsigned int flags);

  /// True while a descriptor is held.
  bool IsValid() const;
  /// The descriptor; only for a valid File.
  int GetPlatformFile() const;
  /// Hands the descriptor's holder cell to the caller, who then owns it and the descriptor.
  int* TakePlatformFile();
  /// Adopts holder; a previous holder is freed without closing its descriptor.
  void SetPlatformFile(int* holder);
  /// Closes the descriptor, if any (the close result is ignored).
  void Close();

  /// lseek's result; 0 when there is no descriptor.
  int Seek(Whence whence, int offset);

  /// Best-effort read at offset (pread): repeats until size bytes moved, end of file or an
  /// error. The result is the count moved if non-zero, else the last call's result (0 at end of
  /// file, -1 on error); -1 at once without descriptor or for a negative size. The other three
  /// best-effort transfers follow the same rules.
  int Read(int offset, char* data, int size);
  /// Best-effort read at the descriptor's offset.
  int ReadAtCurrentPos(char* data, int size);
  /// Best-effort write at the descriptor's offset.
  int WriteAtCurrentPos(const char* data, int size);
  /// Best-effort write at offset (pwrite); on a descriptor in append mode offset is ignored and
  /// the data appended.
  int Write(int offset, const char* data, int size);

  /// One pread (retried only after EINTR) and its result. A negative size is passed through to
  /// pread, unlike every other transfer.
  int ReadNoBestEffort(int offset, char* data, int size);
  /// One read at the descriptor's offset (retried only after EINTR) and its result; -1 for a
  /// negative size.
  int ReadAtCurrentPosNoBestEffort(char* data, int size);
  /// One write at the descriptor's offset (retried only after EINTR) and its result; -1 for a
  /// negative size.
  int WriteAtCurrentPosNoBestEffort(const char* data, int size);

  /// ftruncate, retried after EINTR.
  bool SetLength(int length);
  /// fdatasync, retried after EINTR.
  bool Flush();

  /// Whole-file advisory lock through fcntl(F_SETLK), never waiting: 0 on success, else the
  /// mapped error, logged as `"===========  err: %d  %d \n\n\n"` (errno, the mapped error;
  /// level 1000); -1 without descriptor.
  int Lock(LockMode mode);
  /// Releases the lock, as Lock(LOCK_NONE).
  int Unlock();

  /// The low 32 bits of the size; -1 without descriptor or when fstat fails.
  int GetLength();
  /// fstat into info; false without descriptor or when fstat fails. A null info is refused:
  /// false, and nothing is done.
  bool GetInfo(Info* info);

  /// The outcome of the last open.
  Error error() const { return m_error; }
  /// Whether the last open created the file.
  bool created() const { return m_created; }
  /// Whether the last open asked for asynchronous use.
  bool async() const { return m_async; }

  /// "FILE_OK" ... "FILE_ERROR_IO"; "" for any other value.
  static std::string ErrorToString(Error error);
  /// Maps an errno value to an Error (FILE_ERROR_FAILED for the unlisted ones).
  static Error OSErrorToFileError(int errnoValue);
  /// OSErrorToFileError(errno).
  static Error GetLastFileError();
  /// The 64-bit stat call and its result.
  static int Stat(const char* path, struct stat64* buf);
  /// The 64-bit fstat call and its result.
  static int Fstat(int fd, struct stat64* buf);
  /// The 64-bit lstat call and its result.
  static int Lstat(const char* path, struct stat64* buf);

 private:
  int* m_file;
  Error m_error;
  bool m_created;
  bool m_async;
};

/// A file's status-change time in seconds since the epoch (nanoseconds as the fraction); -1.0
/// when the path cannot be opened for reading or fstat fails. Nothing is logged. An allocation
/// failure throws std::bad_alloc before the path is opened.
VELMORA_BASE_EXPORT double getFileCreateTime(std::string path);
/// The last access time, as getFileCreateTime.
VELMORA_BASE_EXPORT double getFileAccessTime(std::string path);
/// The last modification time, as getFileCreateTime.
VELMORA_BASE_EXPORT double getFileModifyTime(std::string path);

}  // namespace utils
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_FILE_H
