// Task scheduling in the shell: work handed to the process-wide TimerThreadPool.
//
// The start page travels through the three named threads the way a page does in the browser:
// the background thread loads it (utils::File) and checksums it (CheckSum, MD5), the main
// thread "renders" it, the foreground thread "presents" it. Independent work (decoding image
// tiles here) is spread over the pool's workers and over time. A TaskLedger counts what ran
// where, checks that every task ran on a thread of its role, and measures the hand-off latency
// (from a task's due time to the start of its body).
#ifndef BROWSER_SHELL_POOL_TASKS_H
#define BROWSER_SHELL_POOL_TASKS_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "latency.h"

namespace browser_shell {

enum PoolRole { kMainRole, kForegroundRole, kBackgroundRole, kWorkerRole, kRoleCount };

// Printable name of a role: "main", "foreground", "background", "workers".
const char* roleName(int role);

// What the page tasks found out about the start page.
struct PageReport {
  bool loaded = false;
  std::string error;  // why it was not loaded
  int size = 0;
  unsigned int crc32 = 0;
  std::string md5;
  std::string renderedWith;  // the rendering backend the main thread found
  bool presented = false;
};

// Shared by the shell and every task it posts (through std::shared_ptr, so that a task never
// outlives what it reports to).
class TaskLedger {
 public:
  // Announces that count more tasks of this role will be posted.
  void expect(PoolRole role, int count);
  // Called at the start of a task body: records its latency and whether its thread fits.
  void started(PoolRole role, double dueTime);
  // Called as the last step of a task body.
  void finished(PoolRole role);
  // Called by a task whose own check of its result failed.
  void wrongResult();
  // Waits until every expected task has finished; false when the limit passed first.
  bool waitUntilAllFinished(std::chrono::milliseconds limit);

  int expected(PoolRole role) const;
  int finishedCount(PoolRole role) const;
  int finishedTotal() const;
  int expectedTotal() const;
  int wrongThreadCount() const;
  int wrongResultCount() const;
  int workerThreadCount() const;
  const LatencyRecorder& latency() const { return latency_; }

  void setPage(const PageReport& page);
  PageReport page() const;

 private:
  bool allFinishedLocked() const;

  mutable std::mutex mutex_;
  std::condition_variable allFinished_;
  int expected_[kRoleCount] = {};
  int finished_[kRoleCount] = {};
  int wrongThread_ = 0;
  int wrongResults_ = 0;
  std::set<int> workerThreads_;  // kernel thread ids that ran worker tasks
  PageReport page_;
  LatencyRecorder latency_;
};

// Posts the page load to the background thread; it hands on to the main and the foreground
// thread. The page is read from path.
void startPageLoad(const std::shared_ptr<TaskLedger>& ledger, const std::string& path);

// Posts count tile-decoding tasks to the pool's workers at once, due evenly spread over the next
// spanSeconds: the workers hold them queued in due-time order until each is due.
void spreadWorkerTasks(const std::shared_ptr<TaskLedger>& ledger, int count, double spanSeconds);

}  // namespace browser_shell

#endif  // BROWSER_SHELL_POOL_TASKS_H
