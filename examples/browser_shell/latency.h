// Hand-off latencies: how long an event waits between sendEvent and its handler, or a task
// between its due time and the start of its body. Any thread may record; the summary reads the
// median and the worst case once everything has been handled.
#ifndef BROWSER_SHELL_LATENCY_H
#define BROWSER_SHELL_LATENCY_H

#include <cstddef>
#include <mutex>
#include <vector>

namespace browser_shell {

// Seconds on the monotonic clock: the clock of the library's task due times.
double monotonicSeconds();

class LatencyRecorder {
 public:
  // Records one hand-off that took the given number of seconds.
  void record(double seconds);

  std::size_t count() const;
  // Both in milliseconds; 0 when nothing was recorded.
  double medianMs() const;
  double worstMs() const;

 private:
  mutable std::mutex mutex_;
  std::vector<double> samples_;
};

}  // namespace browser_shell

#endif  // BROWSER_SHELL_LATENCY_H
