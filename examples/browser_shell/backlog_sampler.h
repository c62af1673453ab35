// A Threading::Runnable in the shell: run on a thread of its own, it samples how many event
// deliveries are in flight (sent but not yet handled) every few milliseconds and keeps the peak.
// The shell pauses and resumes it once while the events go out.
#ifndef BROWSER_SHELL_BACKLOG_SAMPLER_H
#define BROWSER_SHELL_BACKLOG_SAMPLER_H

#include <atomic>
#include <functional>
#include <thread>

#include "base/threading/runnable.h"

namespace browser_shell {

class BacklogSampler : public velmora::base::Threading::Runnable {
 public:
  // measure: returns the current backlog; called on the sampler's thread every intervalMs.
  BacklogSampler(int intervalMs, std::function<int()> measure);
  ~BacklogSampler() override;

  // Runs run() on a thread of its own.
  void startThread();
  // Stops the loop and joins its thread.
  void stopAndJoin();
  // pause() and resume() that also count how often they were called.
  void pauseSampling();
  void resumeSampling();

  void runOnce() override;

  int samples() const { return samples_.load(); }
  int peak() const { return peak_.load(); }
  int pauses() const { return pauses_.load(); }
  int resumes() const { return resumes_.load(); }

 private:
  std::function<int()> measure_;
  std::thread thread_;
  std::atomic<int> samples_{0};
  std::atomic<int> peak_{0};
  std::atomic<int> pauses_{0};
  std::atomic<int> resumes_{0};
};

}  // namespace browser_shell

#endif  // BROWSER_SHELL_BACKLOG_SAMPLER_H
