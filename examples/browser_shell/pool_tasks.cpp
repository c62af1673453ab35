#include "pool_tasks.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/process_property.h"
#include "base/timer/timer_task.h"
#include "base/timer/timer_thread_pool.h"
#include "base/utils.h"
#include "base/utils/checksum.h"
#include "base/utils/file.h"
#include "base/utils/md5.h"

namespace browser_shell {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThreadPool;
using velmora::base::utils::CheckSum;
using velmora::base::utils::File;
using velmora::base::utils::MD5;

const char* roleName(int role) {
  static const char* const kNames[kRoleCount] = {"main", "foreground", "background", "workers"};
  return role >= 0 && role < kRoleCount ? kNames[role] : "?";
}

// ---------------------------------------------------------------------------------------------
// The ledger

namespace {

// Whether the calling thread is the pool thread of this role (workers: none of the named ones).
bool onThreadOfRole(PoolRole role) {
  switch (role) {
    case kMainRole:
      return TimerThreadPool::isMainThread();
    case kForegroundRole:
      return TimerThreadPool::isForegroundThread();
    case kBackgroundRole:
      return TimerThreadPool::isBackgroundThread();
    default:
      return !TimerThreadPool::isMainThread() && !TimerThreadPool::isForegroundThread() &&
             !TimerThreadPool::isBackgroundThread();
  }
}

}  // namespace

void TaskLedger::expect(PoolRole role, int count) {
  std::lock_guard<std::mutex> lock(mutex_);
  expected_[role] += count;
}

void TaskLedger::started(PoolRole role, double dueTime) {
  latency_.record(monotonicSeconds() - dueTime);
  const bool rightThread = onThreadOfRole(role);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!rightThread) {
    ++wrongThread_;
  }
  if (role == kWorkerRole) {
    workerThreads_.insert(velmora::base::currentThread());
  }
}

void TaskLedger::finished(PoolRole role) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++finished_[role];
  if (allFinishedLocked()) {
    allFinished_.notify_all();
  }
}

bool TaskLedger::allFinishedLocked() const {
  for (int role = 0; role < kRoleCount; ++role) {
    if (finished_[role] < expected_[role]) {
      return false;
    }
  }
  return true;
}

bool TaskLedger::waitUntilAllFinished(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return allFinished_.wait_for(lock, limit, [this] { return allFinishedLocked(); });
}

int TaskLedger::expected(PoolRole role) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return expected_[role];
}

int TaskLedger::finishedCount(PoolRole role) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return finished_[role];
}

int TaskLedger::finishedTotal() const {
  std::lock_guard<std::mutex> lock(mutex_);
  int total = 0;
  for (int count : finished_) {
    total += count;
  }
  return total;
}

int TaskLedger::expectedTotal() const {
  std::lock_guard<std::mutex> lock(mutex_);
  int total = 0;
  for (int count : expected_) {
    total += count;
  }
  return total;
}

int TaskLedger::wrongThreadCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return wrongThread_;
}

void TaskLedger::wrongResult() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++wrongResults_;
}

int TaskLedger::wrongResultCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return wrongResults_;
}

int TaskLedger::workerThreadCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(workerThreads_.size());
}

void TaskLedger::setPage(const PageReport& page) {
  std::lock_guard<std::mutex> lock(mutex_);
  page_ = page;
}

PageReport TaskLedger::page() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return page_;
}

// ---------------------------------------------------------------------------------------------
// The tasks

namespace {

// Base of the shell's tasks: reports its start and end to the ledger around doWork(). A task is
// due as soon as it is made, unless dueIn() says otherwise.
class ShellTask : public TimerTaskBase {
 public:
  ShellTask(std::shared_ptr<TaskLedger> ledger, PoolRole role)
      : ledger_(std::move(ledger)), role_(role) {
    setNextFireTime(monotonicSeconds());
  }

  // Makes the task due the given number of seconds from now.
  void dueIn(double seconds) { setNextFireTime(monotonicSeconds() + seconds); }

  void execute() override {
    ledger_->started(role_, getNextFireTime());
    doWork();
    ledger_->finished(role_);
  }

 protected:
  virtual void doWork() = 0;
  TaskLedger& ledger() { return *ledger_; }
  const std::shared_ptr<TaskLedger>& sharedLedger() const { return ledger_; }

 private:
  std::shared_ptr<TaskLedger> ledger_;
  PoolRole role_;
};

// Foreground thread: the page is on screen.
class PresentPageTask : public ShellTask {
 public:
  explicit PresentPageTask(std::shared_ptr<TaskLedger> ledger)
      : ShellTask(std::move(ledger), kForegroundRole) {}

 private:
  void doWork() override {
    PageReport page = ledger().page();
    page.presented = page.loaded;
    ledger().setPage(page);
  }
};

// Main thread: lays the page out with the backend that start-up recorded as a process property,
// then hands it to the foreground thread.
class RenderPageTask : public ShellTask {
 public:
  explicit RenderPageTask(std::shared_ptr<TaskLedger> ledger)
      : ShellTask(std::move(ledger), kMainRole) {}

 private:
  void doWork() override {
    PageReport page = ledger().page();
    page.renderedWith = base::get_process_property("browser.render_backend");
    ledger().setPage(page);
    TimerThreadPool::postForegroundTask(std::make_shared<PresentPageTask>(sharedLedger()));
  }
};

// Reads the whole file; false (with the reason in error) when it cannot be opened or read.
bool readWholeFile(const std::string& path, std::vector<char>& content, std::string& error) {
  File file(path, File::FILE_FLAG_OPEN | File::FILE_FLAG_READ);
  if (!file.IsValid()) {
    error = File::ErrorToString(file.error());
    return false;
  }
  const int length = file.GetLength();
  if (length < 0) {
    error = "cannot stat the file";
    return false;
  }
  content.resize(static_cast<size_t>(length));
  if (length > 0 && file.Read(0, content.data(), length) != length) {
    error = "short read";
    return false;
  }
  return true;
}

// The MD5 of content, fed in pieces as data arriving from a network would be.
std::string md5InPieces(const std::vector<char>& content) {
  const size_t kPiece = 512;
  MD5 digest;
  for (size_t offset = 0; offset < content.size(); offset += kPiece) {
    const size_t piece = std::min(kPiece, content.size() - offset);
    digest.update(content.data() + offset, static_cast<unsigned int>(piece));
  }
  return digest.finalize().hexDigest();
}

// Background thread: loads and checksums the start page, then hands it to the main thread.
class LoadPageTask : public ShellTask {
 public:
  LoadPageTask(std::shared_ptr<TaskLedger> ledger, std::string path)
      : ShellTask(std::move(ledger), kBackgroundRole), path_(std::move(path)) {}

 private:
  void doWork() override {
    PageReport page;
    std::vector<char> content;
    if (readWholeFile(path_, content, page.error)) {
      page.loaded = true;
      page.size = static_cast<int>(content.size());
      page.crc32 = CheckSum().crc_32(reinterpret_cast<const unsigned char*>(content.data()),
                                     static_cast<unsigned int>(content.size()));
      page.md5 = md5InPieces(content);
    }
    ledger().setPage(page);
    TimerThreadPool::postMainThreadTask(std::make_shared<RenderPageTask>(sharedLedger()));
  }

  std::string path_;
};

// A worker task: "decodes" one image tile and checks it with CRC-32 computed twice, over the
// whole tile and byte by byte; a mismatch counts as a wrong result.
class DecodeTileTask : public ShellTask {
 public:
  DecodeTileTask(std::shared_ptr<TaskLedger> ledger, int tile)
      : ShellTask(std::move(ledger), kWorkerRole), tile_(tile) {}

 private:
  void doWork() override {
    std::vector<unsigned char> pixels(4096);
    uint32_t seed = static_cast<uint32_t>(tile_) * 2654435761u + 1u;
    for (unsigned char& pixel : pixels) {
      seed = seed * 1664525u + 1013904223u;
      pixel = static_cast<unsigned char>(seed >> 24);
    }
    CheckSum sum;
    const unsigned int whole = sum.crc_32(pixels.data(), static_cast<unsigned int>(pixels.size()));
    unsigned int running = 0xFFFFFFFFu;
    for (unsigned char pixel : pixels) {
      running = sum.update_crc_32(running, pixel);
    }
    if ((running ^ 0xFFFFFFFFu) != whole) {
      ledger().wrongResult();
    }
  }

  int tile_;
};

}  // namespace

void startPageLoad(const std::shared_ptr<TaskLedger>& ledger, const std::string& path) {
  ledger->expect(kBackgroundRole, 1);
  ledger->expect(kMainRole, 1);
  ledger->expect(kForegroundRole, 1);
  TimerThreadPool::postBackgroundTask(std::make_shared<LoadPageTask>(ledger, path));
}

void spreadWorkerTasks(const std::shared_ptr<TaskLedger>& ledger, int count, double spanSeconds) {
  ledger->expect(kWorkerRole, count);
  for (int tile = 0; tile < count; ++tile) {
    auto task = std::make_shared<DecodeTileTask>(ledger, tile);
    task->dueIn(spanSeconds * tile / count);
    TimerThreadPool::postWorkerTask(task);
  }
}

}  // namespace browser_shell
