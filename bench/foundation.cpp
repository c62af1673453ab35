// Costs of the foundation's fast paths: a suppressed log statement and a suppressed line of the
// exported entry points against a bare call of the platform's check, and Singleton::get() after
// creation against a plain atomic acquire load.
//
// The entry points ask the platform once before each of the three pieces of a line, also when
// the answer is no, so their suppressed line is compared with three bare calls as well.
//
// Run without VEX_DEBUG_LEVEL (the stand-in then lets through level 1000 and below), so the
// verbose statements measured here are suppressed.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>

#include "base/logging.h"
#include "base/singleton.h"

namespace {

int bareCheck() {
  LogFrame frame = {velmora::base::kLogVerbose, velmora::base::kLogModule, 0, 0};
  return vexDebugCheckLevelGetFrameAndChunk(&frame);
}

void BM_BareCheckCall(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(bareCheck());
  }
}
BENCHMARK(BM_BareCheckCall);

void BM_ThreeBareCheckCalls(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(bareCheck());
    benchmark::DoNotOptimize(bareCheck());
    benchmark::DoNotOptimize(bareCheck());
  }
}
BENCHMARK(BM_ThreeBareCheckCalls);

// A suppressed line of an entry point, called as a client does: level index 4 (5000), the full
// path of the source file.
using EntryPoint = void (*)(unsigned int, const char*, const char*, int, const char*, const char*,
                            ...);

void SuppressedEntryPointLine(benchmark::State& state, EntryPoint entry_point) {
  int value = 0;
  for (auto _ : state) {
    entry_point(4, "B-LOG", __FILE__, __LINE__, __func__, "value %d of %s", value, "bench");
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK_CAPTURE(SuppressedEntryPointLine, BrowserLog, &print_browser_log);
BENCHMARK_CAPTURE(SuppressedEntryPointLine, HbbtvControllerLog, &print_hbbtv_controller_log);

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
