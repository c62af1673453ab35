// Costs of the foundation's fast paths: a suppressed log statement against a bare call of the
// platform's check, and Singleton::get() after creation against a plain atomic acquire load.
//
// Run without VEX_DEBUG_LEVEL (the stand-in then lets through level 1000 and below), so the
// verbose statements measured here are suppressed.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>

#include "base/logging.h"
#include "base/singleton.h"

namespace {

void BM_BareCheckCall(benchmark::State& state) {
  for (auto _ : state) {
    LogFrame frame = {velmora::base::kLogVerbose, velmora::base::kLogModule, 0, 0};
    benchmark::DoNotOptimize(vexDebugCheckLevelGetFrameAndChunk(&frame));
  }
}
BENCHMARK(BM_BareCheckCall);

void BM_SuppressedLogStatement(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    VELMORA_LOG(velmora::base::kLogVerbose, "value %d of %s\n", value, "bench");
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_SuppressedLogStatement);

void BM_SuppressedScopeTrace(benchmark::State& state) {
  for (auto _ : state) {
    VELMORA_TRACE_SCOPE();
  }
}
BENCHMARK(BM_SuppressedScopeTrace);

struct Service {
  int value = 7;
};

void BM_AtomicAcquireLoad(benchmark::State& state) {
  static Service service;
  static std::atomic<Service*> published{&service};
  for (auto _ : state) {
    benchmark::DoNotOptimize(published.load(std::memory_order_acquire));
  }
}
BENCHMARK(BM_AtomicAcquireLoad);

void BM_SingletonGetAfterCreation(benchmark::State& state) {
  velmora::base::Singleton<Service>::get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(velmora::base::Singleton<Service>::get());
  }
}
BENCHMARK(BM_SingletonGetAfterCreation);

}  // namespace

BENCHMARK_MAIN();
