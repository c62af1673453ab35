// browser_shell: a browser start-up in miniature, and a live health check of the base library.
//
// It starts the way the browser does and then keeps every subsystem busy for a few seconds:
//   1. start-up    parse the command line (utils::CommandLine), switch memory debugging on when
//                  SHOW_MEMORY_DEBUG_INFO asks for it, record settings as process properties;
//   2. events      three modules exchange events through their EventHubs (module_events.h);
//   3. tasks       the start page is loaded, checksummed and rendered by tasks on the
//                  TimerThreadPool, and a batch of tasks due over the first half of the run
//                  is spread over its workers (pool_tasks.h);
//   4. timers      a CONTINUE simple timer prints a heartbeat, a ONCE simple timer ends the run
//                  (shell_timers.h), and a Runnable samples the event backlog
//                  (backlog_sampler.h);
//   5. shut-down   stop the timers, join the sampler, unregister the hubs, print the summary.
// The exit status is 0 only when every event and every task arrived where it was sent.
//
// Run with VEX_DEBUG_LEVEL=5000 to see the library's own log lines (on standard error) as well;
// the default 1000 shows only its errors and thread start/stop lines.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "backlog_sampler.h"
#include "base/debug/debug_memory.h"
#include "base/logging.h"
#include "base/process_property.h"
#include "base/utils.h"
#include "module_events.h"
#include "pool_tasks.h"
#include "shell_options.h"
#include "shell_timers.h"

using namespace browser_shell;

namespace {

constexpr int kSamplerIntervalMs = 20;
// How long the shut-down waits for events and tasks still under way before calling them lost.
constexpr std::chrono::seconds kDrainLimit(20);

// ---------------------------------------------------------------------------------------------
// 1. Start-up

// Switches memory debugging on when the environment asks for it; shows the memory status if so.
bool startMemoryDebug() {
  const bool enabled = velmora::base::debug::debug_init();
  if (enabled) {
    velmora::base::debug::debug_dump_system_memory_status();
  }
  return enabled;
}

// Settings that the browser's modules read later (the page tasks read the backend).
void recordProcessProperties(const ShellOptions& options) {
  base::set_process_property("browser.session", velmora::base::generateUUID().c_str());
  base::set_process_property("browser.render_backend", options.renderBackend.c_str());
  base::set_process_property("browser.start_url", ("file://" + options.startPage).c_str());
  base::set_process_property("browser.input", options.inputDisabled ? "disabled" : "enabled");
  base::set_process_property("browser.quit_on_render_crash",
                             options.quitOnRenderCrash ? "yes" : "no");
}

void printBanner(const ShellOptions& options) {
  print_browser_log(0, "Shell", __FILE__, __LINE__, __func__, "browser shell starting, boot id %u",
                    velmora::base::bootID());
  std::printf("browser_shell session %s\n", base::get_process_property("browser.session").c_str());
  std::printf("  start url %s, backend %s, input %s, quit on render crash %s\n",
              base::get_process_property("browser.start_url").c_str(),
              base::get_process_property("browser.render_backend").c_str(),
              base::get_process_property("browser.input").c_str(),
              base::get_process_property("browser.quit_on_render_crash").c_str());
  std::printf("  run %.1f s: %d events per module, %d worker tasks, heartbeat every %d ms\n",
              options.runSeconds, options.eventsPerModule, options.workerTasks,
              options.heartbeatMs);
  std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// 2. Events, paced over the first half of the run

// Sends rounds [first, last) evenly spread between now and now + span.
void sendRoundsOver(EventExchange& exchange, int first, int last, std::chrono::milliseconds span) {
  const auto begin = std::chrono::steady_clock::now();
  const int rounds = last - first;
  for (int round = first; round < last; ++round) {
    std::this_thread::sleep_until(begin + span * (round - first) / rounds);
    exchange.sendRound(round);
  }
}

// The first half of the rounds goes out with the sampler running, the second half while it is
// paused; it is resumed for the rest of the run.
void exchangeEvents(EventExchange& exchange, BacklogSampler& sampler, const ShellOptions& options) {
  const auto quarter =
      std::chrono::milliseconds(static_cast<int>(options.runSeconds * 1000.0 / 4.0));
  const int half = options.eventsPerModule / 2;
  sendRoundsOver(exchange, 0, half, quarter);
  sampler.pauseSampling();
  sendRoundsOver(exchange, half, options.eventsPerModule, quarter);
  sampler.resumeSampling();
}

std::string progressLine(const EventExchange& exchange, const TaskLedger& ledger) {
  char line[160];
  std::snprintf(line, sizeof(line), "events handled %d/%d, tasks run %d/%d, in flight %d",
                exchange.handledTotal(), exchange.expectedTotal(), ledger.finishedTotal(),
                ledger.expectedTotal(), exchange.inFlight());
  return line;
}

// ---------------------------------------------------------------------------------------------
// 5. The summary

void printPage(const PageReport& page, const ShellOptions& options) {
  std::printf("start page: %s\n", options.startPage.c_str());
  if (!page.loaded) {
    std::printf("  not loaded: %s\n", page.error.c_str());
    return;
  }
  std::printf("  size %d bytes, CRC-32 0x%08X, MD5 %s\n", page.size, page.crc32, page.md5.c_str());
  std::printf("  rendered with %s backend, presented %s\n", page.renderedWith.c_str(),
              page.presented ? "yes" : "no");
}

void printEvents(const EventExchange& exchange) {
  std::printf("events sent:");
  for (int module = 0; module < kModuleCount; ++module) {
    std::printf(" %s %d,", EventExchange::moduleName(module), exchange.counts(module).sent);
  }
  std::printf(" total %d\n", exchange.sentTotal());
  std::printf("events handled:");
  for (int module = 0; module < kModuleCount; ++module) {
    const EventExchange::Counts counts = exchange.counts(module);
    std::printf(" %s %d/%d,", EventExchange::moduleName(module), counts.handled, counts.expected);
  }
  std::printf(" total %d/%d, bad %d\n", exchange.handledTotal(), exchange.expectedTotal(),
              exchange.badEventCount());
  std::printf("event latency: median %.3f ms, worst %.3f ms\n", exchange.latency().medianMs(),
              exchange.latency().worstMs());
}

void printTasks(const TaskLedger& ledger) {
  std::printf("tasks run:");
  for (int role = 0; role < kRoleCount; ++role) {
    const PoolRole poolRole = static_cast<PoolRole>(role);
    std::printf(" %s %d/%d,", roleName(role), ledger.finishedCount(poolRole),
                ledger.expected(poolRole));
  }
  std::printf(" total %d/%d, on a wrong thread %d, wrong results %d\n", ledger.finishedTotal(),
              ledger.expectedTotal(), ledger.wrongThreadCount(), ledger.wrongResultCount());
  std::printf("worker threads used: %d\n", ledger.workerThreadCount());
  std::printf("task latency: median %.3f ms, worst %.3f ms\n", ledger.latency().medianMs(),
              ledger.latency().worstMs());
}

void printTiming(const Heartbeat& heartbeat, const EndOfRun& endOfRun,
                 const BacklogSampler& sampler) {
  std::printf("timer expiries: heartbeat %d, end-of-run %d\n", heartbeat.expiries(),
              endOfRun.expiries());
  std::printf("backlog sampler: %d samples, peak %d in flight, paused %d, resumed %d\n",
              sampler.samples(), sampler.peak(), sampler.pauses(), sampler.resumes());
}

// Whether everything sent arrived and every check held.
bool runSucceeded(const EventExchange& exchange, const TaskLedger& ledger,
                  const EndOfRun& endOfRun) {
  const PageReport page = ledger.page();
  return exchange.handledTotal() == exchange.expectedTotal() && exchange.badEventCount() == 0 &&
         ledger.finishedTotal() == ledger.expectedTotal() && ledger.wrongThreadCount() == 0 &&
         ledger.wrongResultCount() == 0 && page.loaded && page.presented &&
         endOfRun.expiries() == 1;
}

}  // namespace

int main(int argc, char** argv) {
  // 1. Start-up
  ShellOptions options;
  if (!parseShellOptions(argc, argv, options)) {
    return 2;
  }
  const bool memoryDebug = startMemoryDebug();
  recordProcessProperties(options);
  if (!velmora::base::isPathExists(options.startPage.c_str())) {
    std::fprintf(stderr, "browser_shell: no start page at '%s'\n", options.startPage.c_str());
    return 2;
  }
  printBanner(options);

  // 2. Events: the modules come up first, so that they are listening when work starts.
  EventExchange exchange(options.eventsPerModule);
  exchange.start();

  // 3. Tasks
  auto ledger = std::make_shared<TaskLedger>();
  startPageLoad(ledger, options.startPage);
  spreadWorkerTasks(ledger, options.workerTasks, options.runSeconds / 2.0);

  // 4. Timers and the sampler
  Heartbeat heartbeat(options.heartbeatMs, [&] { return progressLine(exchange, *ledger); });
  EndOfRun endOfRun(options.runSeconds);
  BacklogSampler sampler(kSamplerIntervalMs, [&] { return exchange.inFlight(); });
  if (!heartbeat.start() || !endOfRun.start()) {
    std::fprintf(stderr, "browser_shell: a simple timer did not start\n");
  }
  sampler.startThread();

  exchangeEvents(exchange, sampler, options);
  const auto runLimit = std::chrono::milliseconds(static_cast<int>(options.runSeconds * 1000.0));
  endOfRun.waitForEnd(runLimit + kDrainLimit);

  // 5. Shut-down: timers and sampler first (they look at the modules), then drain and
  //    unregister the hubs.
  heartbeat.stop();
  sampler.stopAndJoin();
  exchange.waitUntilAllHandled(kDrainLimit);
  ledger->waitUntilAllFinished(kDrainLimit);
  exchange.stop();
  if (memoryDebug) {
    velmora::base::debug::debug_dump_system_memory_status();
  }

  std::printf("== browser_shell summary ==\n");
  printPage(ledger->page(), options);
  printEvents(exchange);
  printTasks(*ledger);
  printTiming(heartbeat, endOfRun, sampler);
  const bool succeeded = runSucceeded(exchange, *ledger, endOfRun);
  std::printf("result: %s\n", succeeded ? "OK" : "FAILED (something went missing)");
  return succeeded ? 0 : 1;
}
