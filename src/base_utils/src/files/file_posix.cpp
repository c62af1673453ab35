// The POSIX file wrapper and the file-time queries built on it.
#include "base/utils/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "base/logging.h"

namespace velmora {
namespace base {
namespace utils {

namespace {

constexpr mode_t kCreateMode = S_IRUSR | S_IWUSR;

// The low 32 bits of a 64-bit size, as a signed value.
int32_t low32(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// The base open mode chosen by the open-mode bits; 0 when none of them asks for one.
int baseOpenMode(unsigned int flags) {
  int mode = 0;
  if (flags & File::FILE_FLAG_CREATE_ALWAYS) {
    mode = O_CREAT | O_TRUNC;
  } else if (flags & File::FILE_FLAG_CREATE) {
    mode = O_CREAT | O_EXCL;
  }
  if (flags & File::FILE_FLAG_OPEN_TRUNCATED) {
    mode = O_TRUNC;
  }
  return mode;
}

// Adds the access mode, terminal and append bits of flags to mode.
int withAccessMode(int mode, unsigned int flags) {
  const bool read = flags & File::FILE_FLAG_READ;
  const bool write = flags & File::FILE_FLAG_WRITE;
  if (read && write) {
    mode |= O_RDWR;
  } else if (write) {
    mode |= O_WRONLY;
  } else if (!(flags & (File::FILE_FLAG_READ | File::FILE_FLAG_APPEND |
                        File::FILE_FLAG_OPEN_ALWAYS | File::FILE_FLAG_WRITE_ATTRIBUTES))) {
    VELMORA_LOG_FULL("B-LOG", kLogError, __LINE__, "DoInitialize", "Should Not Reached here.\n");
  }
  if (flags & File::FILE_FLAG_TERMINAL_DEVICE) {
    mode |= O_NOCTTY | O_NDELAY;
  }
  if (flags & File::FILE_FLAG_APPEND) {
    mode |= read ? (O_APPEND | O_RDWR) : (O_APPEND | O_WRONLY);
  }
  return mode;
}

int openRetrying(const std::string& path, int mode) {
  int fd;
  do {
    fd = open(path.c_str(), mode, kCreateMode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Repeats a transfer while it fails with EINTR.
template <typename Transfer>
ssize_t retryOnInterrupt(Transfer transfer) {
  ssize_t result;
  do {
    result = transfer();
  } while (result == -1 && errno == EINTR);
  return result;
}

// The best-effort loop: transfer(done) moves up to size - done bytes starting done bytes in.
// The result is the count moved if non-zero, else the last call's result.
template <typename Transfer>
int transferAll(int size, Transfer transfer) {
  int done = 0;
  for (;;) {
    const ssize_t result = transfer(done);
    if (result == -1 && errno == EINTR) {
      continue;
    }
    if (result <= 0) {
      return done != 0 ? done : static_cast<int>(result);
    }
    done += static_cast<int>(result);
    if (done >= size) {
      return done;
    }
  }
}

// Sets or releases a whole-file lock without waiting; 0 or the mapped error.
int CallFcntlFlock(int fd, File::LockMode mode) {
  struct flock lock = {};
  switch (mode) {
    case File::LOCK_READ:
      lock.l_type = F_RDLCK;
      break;
    case File::LOCK_WRITE:
      lock.l_type = F_WRLCK;
      break;
    default:
      lock.l_type = F_UNLCK;
      break;
  }
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  int result;
  do {
    result = fcntl(fd, F_SETLK, &lock);
  } while (result == -1 && errno == EINTR);
  if (result == 0) {
    return 0;
  }
  const int error = errno;
  const File::Error mapped = File::OSErrorToFileError(error);
  VELMORA_LOG(kLogError, "===========  err: %d  %d \n\n\n", error, static_cast<int>(mapped));
  return mapped;
}

// A new holder cell for fd, which the File owns from this call on: when the cell cannot be
// allocated, fd is closed before std::bad_alloc leaves, so that no descriptor is lost.
int* holderOwning(int fd) {
  try {
    return new int(fd);
  } catch (...) {
    close(fd);
    throw;
  }
}

File::Time timeOf(time_t seconds, long nanoseconds) {
  File::Time time;
  time.seconds = seconds;
  time.nanoseconds = nanoseconds;
  return time;
}

double secondsOf(const File::Time& time) {
  return static_cast<double>(time.seconds) + static_cast<double>(time.nanoseconds) * 1e-9;
}

// Opens path for reading and picks one time out of its Info; -1.0 when that fails.
template <typename Pick>
double fileTime(const std::string& path, Pick pick) {
  File file(path, File::FILE_FLAG_OPEN | File::FILE_FLAG_READ);
  File::Info info;
  if (!file.GetInfo(&info)) {
    return -1.0;
  }
  return secondsOf(pick(info));
}

}  // namespace

File::Info::Info() : size(0), isDirectory(false), isSymbolicLink(false) {}

File::Info::~Info() = default;

void File::Info::FromStat(const struct stat64& st) {
  size = low32(st.st_size);
  isDirectory = S_ISDIR(st.st_mode);
  isSymbolicLink = S_ISLNK(st.st_mode);
  lastModified = timeOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  lastAccessed = timeOf(st.st_atim.tv_sec, st.st_atim.tv_nsec);
  creationTime = timeOf(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
}

File::File() : m_file(nullptr), m_error(FILE_ERROR_FAILED), m_created(false), m_async(false) {}

File::File(int fd) : File(fd, false) {}

File::File(int fd, bool async)
    : m_file(holderOwning(fd)), m_error(FILE_OK), m_created(false), m_async(async) {}

File::File(Error error) : m_file(nullptr), m_error(error), m_created(false), m_async(false) {}

File::File(const std::string& path, unsigned int flags)
    : m_file(nullptr), m_error(FILE_OK), m_created(false), m_async(false) {
  Initialize(path, flags);
}

File::File(File&& other)
    : m_file(other.TakePlatformFile()),
      m_error(other.m_error),
      m_created(other.m_created),
      m_async(other.m_async) {}

File& File::operator=(File&& other) {
  if (this != &other) {
    Close();
    m_file = other.TakePlatformFile();
    m_error = other.m_error;
    m_created = other.m_created;
    m_async = other.m_async;
  }
  return *this;
}

File::~File() {
  Close();
}

void File::Initialize(const std::string& path, unsigned int flags) {
  DoInitialize(path, flags);
}

void File::DoInitialize(const std::string& path, unsigned int flags) {
  // The holder cell comes first, before anything is opened, created, truncated or unlinked: a
  // failed allocation then leaves this File and the file system as they were.
  std::unique_ptr<int> holder(new int(-1));
  m_created = false;
  int mode = baseOpenMode(flags);
  if (!(flags & FILE_FLAG_OPEN_TRUNCATED) && mode == 0 &&
      !(flags & (FILE_FLAG_OPEN | FILE_FLAG_OPEN_ALWAYS))) {
    VELMORA_LOG(kLogError, "Should Not Reached here.\n");
    errno = EOPNOTSUPP;
    m_error = FILE_ERROR_FAILED;
    return;
  }
  mode = withAccessMode(mode, flags);

  int fd = openRetrying(path, mode);
  if (fd < 0 && (flags & FILE_FLAG_OPEN_ALWAYS)) {
    mode |= O_CREAT;
    if (flags & (FILE_FLAG_EXCLUSIVE_READ | FILE_FLAG_EXCLUSIVE_WRITE)) {
      mode |= O_EXCL;
    }
    fd = openRetrying(path, mode);
    if (fd >= 0) {
      m_created = true;
    }
  }
  if (fd < 0) {
    m_error = GetLastFileError();
    return;
  }

  if (flags & (FILE_FLAG_CREATE | FILE_FLAG_CREATE_ALWAYS)) {
    m_created = true;
  }
  if (flags & FILE_FLAG_DELETE_ON_CLOSE) {
    unlink(path.c_str());
  }
  m_async = (flags & FILE_FLAG_ASYNC) != 0;
  m_error = FILE_OK;
  *holder = fd;
  SetPlatformFile(holder.release());
}

bool File::IsValid() const {
  return m_file != nullptr;
}

int File::GetPlatformFile() const {
  return *m_file;
}

int* File::TakePlatformFile() {
  int* holder = m_file;
  m_file = nullptr;
  return holder;
}

void File::SetPlatformFile(int* holder) {
  delete m_file;
  m_file = holder;
}

void File::Close() {
  if (IsValid()) {
    close(*m_file);
    delete m_file;
    m_file = nullptr;
  }
}

int File::Seek(Whence whence, int offset) {
  if (!IsValid()) {
    return 0;
  }
  return static_cast<int>(lseek(*m_file, offset, whence));
}

int File::Read(int offset, char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  return transferAll(size,
                     [&](int done) { return pread(fd, data + done, size - done, offset + done); });
}

int File::ReadAtCurrentPos(char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  return transferAll(size, [&](int done) { return read(fd, data + done, size - done); });
}

int File::WriteAtCurrentPos(const char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  return transferAll(size, [&](int done) { return write(fd, data + done, size - done); });
}

int File::Write(int offset, const char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  if (fcntl(fd, F_GETFL) & O_APPEND) {
    return WriteAtCurrentPos(data, size);
  }
  return transferAll(size,
                     [&](int done) { return pwrite(fd, data + done, size - done, offset + done); });
}

int File::ReadNoBestEffort(int offset, char* data, int size) {
  if (!IsValid()) {
    return -1;
  }
  const int fd = *m_file;
  return static_cast<int>(retryOnInterrupt(
      [&] { return pread(fd, data, static_cast<size_t>(static_cast<ssize_t>(size)), offset); }));
}

int File::ReadAtCurrentPosNoBestEffort(char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  return static_cast<int>(retryOnInterrupt([&] { return read(fd, data, size); }));
}

int File::WriteAtCurrentPosNoBestEffort(const char* data, int size) {
  if (!IsValid() || size < 0) {
    return -1;
  }
  const int fd = *m_file;
  return static_cast<int>(retryOnInterrupt([&] { return write(fd, data, size); }));
}

bool File::SetLength(int length) {
  if (!IsValid()) {
    return false;
  }
  const int fd = *m_file;
  return retryOnInterrupt([&] { return ftruncate(fd, length); }) == 0;
}

bool File::Flush() {
  if (!IsValid()) {
    return false;
  }
  const int fd = *m_file;
  return retryOnInterrupt([&] { return fdatasync(fd); }) == 0;
}

int File::Lock(LockMode mode) {
  if (!IsValid()) {
    return -1;
  }
  return CallFcntlFlock(*m_file, mode);
}

int File::Unlock() {
  if (!IsValid()) {
    return -1;
  }
  return CallFcntlFlock(*m_file, LOCK_NONE);
}

int File::GetLength() {
  struct stat64 st;
  if (!IsValid() || Fstat(*m_file, &st) != 0) {
    return -1;
  }
  return low32(st.st_size);
}

bool File::GetInfo(Info* info) {
  struct stat64 st;
  if (info == nullptr || !IsValid() || Fstat(*m_file, &st) != 0) {
    return false;
  }
  info->FromStat(st);
  return true;
}

std::string File::ErrorToString(Error error) {
  switch (error) {
    case FILE_OK:
      return "FILE_OK";
    case FILE_ERROR_FAILED:
      return "FILE_ERROR_FAILED";
    case FILE_ERROR_IN_USE:
      return "FILE_ERROR_IN_USE";
    case FILE_ERROR_EXISTS:
      return "FILE_ERROR_EXISTS";
    case FILE_ERROR_NOT_FOUND:
      return "FILE_ERROR_NOT_FOUND";
    case FILE_ERROR_ACCESS_DENIED:
      return "FILE_ERROR_ACCESS_DENIED";
    case FILE_ERROR_TOO_MANY_OPENED:
      return "FILE_ERROR_TOO_MANY_OPENED";
    case FILE_ERROR_NO_MEMORY:
      return "FILE_ERROR_NO_MEMORY";
    case FILE_ERROR_NO_SPACE:
      return "FILE_ERROR_NO_SPACE";
    case FILE_ERROR_NOT_A_DIRECTORY:
      return "FILE_ERROR_NOT_A_DIRECTORY";
    case FILE_ERROR_INVALID_OPERATION:
      return "FILE_ERROR_INVALID_OPERATION";
    case FILE_ERROR_SECURITY:
      return "FILE_ERROR_SECURITY";
    case FILE_ERROR_ABORT:
      return "FILE_ERROR_ABORT";
    case FILE_ERROR_NOT_A_FILE:
      return "FILE_ERROR_NOT_A_FILE";
    case FILE_ERROR_NOT_EMPTY:
      return "FILE_ERROR_NOT_EMPTY";
    case FILE_ERROR_INVALID_URL:
      return "FILE_ERROR_INVALID_URL";
    case FILE_ERROR_IO:
      return "FILE_ERROR_IO";
  }
  return "";
}

File::Error File::OSErrorToFileError(int errnoValue) {
  switch (errnoValue) {
    case 0:
      return FILE_OK;
    case EPERM:
    case EACCES:
    case EISDIR:
    case EROFS:
      return FILE_ERROR_ACCESS_DENIED;
    case ENOENT:
      return FILE_ERROR_NOT_FOUND;
    case EIO:
      return FILE_ERROR_IO;
    case ENOMEM:
      return FILE_ERROR_NO_MEMORY;
    case EBUSY:
    case ETXTBSY:
      return FILE_ERROR_IN_USE;
    case EEXIST:
      return FILE_ERROR_EXISTS;
    case ENOTDIR:
      return FILE_ERROR_NOT_A_DIRECTORY;
    case ENFILE:
    case EMFILE:
      return FILE_ERROR_TOO_MANY_OPENED;
    case ENOSPC:
      return FILE_ERROR_NO_SPACE;
    default:
      return FILE_ERROR_FAILED;
  }
}

File::Error File::GetLastFileError() {
  return OSErrorToFileError(errno);
}

int File::Stat(const char* path, struct stat64* buf) {
  return stat64(path, buf);
}

int File::Fstat(int fd, struct stat64* buf) {
  return fstat64(fd, buf);
}

int File::Lstat(const char* path, struct stat64* buf) {
  return lstat64(path, buf);
}

double getFileCreateTime(std::string path) {
  return fileTime(path, [](const File::Info& info) { return info.creationTime; });
}

double getFileAccessTime(std::string path) {
  return fileTime(path, [](const File::Info& info) { return info.lastAccessed; });
}

double getFileModifyTime(std::string path) {
  File file(path, File::FILE_FLAG_OPEN | File::FILE_FLAG_READ);
  File::Info info;
  if (!file.IsValid() || !file.GetInfo(&info)) {
    return -1.0;
  }
  return secondsOf(info.lastModified);
}

}  // namespace utils
}  // namespace base
}  // namespace velmora
