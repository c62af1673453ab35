#include "backlog_sampler.h"

#include <utility>

namespace browser_shell {

BacklogSampler::BacklogSampler(int intervalMs, std::function<int()> measure)
    : Runnable(intervalMs), measure_(std::move(measure)) {}

BacklogSampler::~BacklogSampler() {
  stopAndJoin();
}

void BacklogSampler::startThread() {
  thread_ = std::thread([this] { run(); });
}

void BacklogSampler::stopAndJoin() {
  stop();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void BacklogSampler::pauseSampling() {
  pause();
  ++pauses_;
}

void BacklogSampler::resumeSampling() {
  resume();
  ++resumes_;
}

void BacklogSampler::runOnce() {
  const int backlog = measure_();
  ++samples_;
  int peak = peak_.load();
  while (backlog > peak && !peak_.compare_exchange_weak(peak, backlog)) {
  }
}

}  // namespace browser_shell
