#include "latency.h"

#include <algorithm>
#include <chrono>

namespace browser_shell {

double monotonicSeconds() {
  // steady_clock is CLOCK_MONOTONIC on Linux, the clock TimerTaskBase due times use.
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

void LatencyRecorder::record(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  samples_.push_back(seconds);
}

std::size_t LatencyRecorder::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return samples_.size();
}

double LatencyRecorder::medianMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (samples_.empty()) {
    return 0.0;
  }
  std::vector<double> sorted = samples_;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end());
  return *middle * 1000.0;
}

double LatencyRecorder::worstMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (samples_.empty()) {
    return 0.0;
  }
  return *std::max_element(samples_.begin(), samples_.end()) * 1000.0;
}

}  // namespace browser_shell
