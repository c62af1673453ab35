// CommandLine under allocation failure: the constructors, every declaration, Parse() and the
// queries either complete as on an undisturbed twin, or throw std::bad_alloc with the object,
// argv and getopt_long's state as they were, so that the repeat gives the twin's result.
//
// The state of a CommandLine is observed from outside, in a probe process forked from the run:
// it parses the object's argv with "help" added, and reports the usage text that "help" prints
// and every option's value. The probe changes nothing in the run's own process.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "atomic_sweep.h"
#include "base/utils/command_line.h"
#include "log_capture.h"

namespace {

using velmora::base::utils::CommandLine;
using velmora::testing::Arguments;
using velmora::testing::completesOrKeepsState;
using velmora::testing::FaultRun;
using velmora::testing::LogCapture;
using velmora::testing::sweepAllocations;
using velmora::testing::sweepAllocationsOf;

// Long enough to allocate wherever it is copied.
const char kHeader[] = "Usage: a browser started with a header long enough to allocate\n";
const char* const kNames[] = {"help",          "url",     "sw",
                              "hw-dfb",        "hw-gles", "quit-on-render-crash",
                              "disable-input", "proxy",   "user-agent"};

// One object under test with its own argv; result holds what a query returned.
struct Subject {
  Arguments arguments{"prog",
                      "-s",
                      "--url=http://a.host.example/a/start/page.html",
                      "-p",
                      "a.proxy.host.example:8080",
                      "--bogus",
                      "-dg",
                      "--disable-input",
                      "rest"};
  std::optional<CommandLine> line;
  std::string result;
};

void construct(Subject& subject, bool addDefaults) {
  subject.line.emplace(subject.arguments.argc(), subject.arguments.argv(), kHeader,
                       "a second text long enough to allocate", addDefaults);
}

// The option values the object answers for every name the scenarios use.
std::string valuesOf(const CommandLine& line) {
  std::string text;
  for (const char* name : kNames) {
    if (line.HasOption(name)) {
      text += std::string(name) + "=" + line.GetOptionValue(name) + ";";
    }
  }
  return text;
}

// Runs probe in a child process whose standard error goes into a pipe; returns what it wrote
// and how it ended.
std::string probed(const std::function<void()>& probe) {
  fflush(stdout);
  fflush(stderr);
  int ends[2];
  if (pipe(ends) != 0) {
    ADD_FAILURE() << "pipe failed";
    return std::string();
  }
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    dup2(ends[1], 2);
    close(ends[1]);
    probe();
    _exit(3);
  }
  close(ends[1]);
  std::string text;
  char buffer[512];
  ssize_t got;
  while ((got = read(ends[0], buffer, sizeof(buffer))) > 0) {
    text.append(buffer, static_cast<size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return text + " (exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")";
}

// The object a probe process parses, for the report at its exit.
const CommandLine* g_probed_line = nullptr;

void reportProbedValues() {
  fprintf(stderr, "values %s", valuesOf(*g_probed_line).c_str());
}

// Everything observable of a subject: its argv and answers, and, from a probe process, the usage
// text that "help" prints and the values that parsing gives (argv[1] "-s" becomes "-hs").
std::string describe(Subject& subject) {
  if (!subject.line.has_value()) {
    return "no object; argv " + subject.arguments.text();
  }
  CommandLine& line = *subject.line;
  const std::string probe = probed([&] {
    static char help_and_sw[] = "-hs";
    g_probed_line = &line;
    atexit(reportProbedValues);
    line.argv()[1] = help_and_sw;
    line.Parse();
    reportProbedValues();
  });
  return "argv " + subject.arguments.text() + "\nanswers " + valuesOf(line) + "\nresult " +
         subject.result + "\nprobe " + probe;
}

void nothing(Subject&) {}

// The description of a subject that prepare() and then operation() have set up, made in a probe
// process: only one CommandLine per process can parse.
std::string describedAfter(const std::function<void(Subject&)>& prepare,
                           const std::function<void(Subject&)>& operation) {
  return probed([&] {
    Subject twin;
    prepare(twin);
    operation(twin);
    fprintf(stderr, "%s", describe(twin).c_str());
  });
}

// Sweeps operation on a subject that prepare() has set up: a failed run leaves it as an
// untouched twin is, and the run that completes leaves it as a twin on which the operation
// completed is. Returns the allocation points.
long sweepLine(const std::function<void(Subject&)>& prepare,
               const std::function<void(Subject&)>& operation, const std::string& name = "") {
  const std::string before = describedAfter(prepare, nothing);
  const std::string after = describedAfter(prepare, operation);
  return sweepAllocationsOf(name, [&](FaultRun& run) {
    Subject subject;
    prepare(subject);
    const bool threw = run.throws<std::bad_alloc>([&] { operation(subject); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(before, describe(subject) + " (exit 3)") << "fault " << run.nth();
      operation(subject);
    }
    EXPECT_EQ(after, describe(subject) + " (exit 3)") << "fault " << run.nth();
  });
}

void withDefaults(Subject& subject) {
  construct(subject, true);
}

// A line of the caller's own, "user-agent" taking the letter "u" that "url" wants.
void ownOptionsOnly(Subject& subject) {
  construct(subject, false);
  subject.line->AddOption("proxy", 'p', true, "Use this proxy", true, nullptr);
  subject.line->AddOption("user-agent", 'u', true, "Send this user agent", true, nullptr);
}

void declaredInFull(Subject& subject) {
  construct(subject, true);
  subject.line->AddOption("proxy", 'p', true, "Use this proxy", true, nullptr);
}

void parsed(Subject& subject) {
  declaredInFull(subject);
  subject.line->Parse();
}

TEST(CommandLineFaultSweep, ConstructorWithDefaults) {
  EXPECT_GT(sweepLine(nothing, withDefaults), 0);
}

TEST(CommandLineFaultSweep, ConstructorWithoutDefaults) {
  EXPECT_GT(sweepLine(nothing, [](Subject& subject) { construct(subject, false); }), 0);
}

TEST(CommandLineFaultSweep, AddOptionWithAliases) {
  const std::vector<const char*> aliases = {"proxy-server", nullptr, "a-long-proxy-alias"};
  EXPECT_GT(sweepLine(withDefaults,
                      [&](Subject& subject) {
                        subject.line->AddOption("proxy", 'p', true,
                                                "Use this proxy for every request", true, aliases);
                      }),
            0);
}

TEST(CommandLineFaultSweep, AddOptionWithOneAlias) {
  EXPECT_GT(sweepLine(withDefaults,
                      [](Subject& subject) {
                        subject.line->AddOption("proxy", 'p', true,
                                                "Use this proxy for every request", true, "px");
                      }),
            0);
}

TEST(CommandLineFaultSweep, AddOptionTakingOverALetterLogsOnce) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              Subject subject;
              withDefaults(subject);
              LogCapture::reset();
              completesOrKeepsState(
                  run, [&] { return describe(subject); },
                  [&] {
                    subject.line->AddOption("user-agent", 'u', true, "Send this user agent", true,
                                            nullptr);
                  });
              EXPECT_EQ(1u, LogCapture::countContaining(
                                "Command line argument -u is already used for --url\n"));
              EXPECT_NE(std::string::npos, describe(subject).find("user-agent=http://a.host"))
                  << describe(subject);
            }),
            0);
}

TEST(CommandLineFaultSweep, AddDefaultOptionsTogether) {
  EXPECT_GT(sweepLine(ownOptionsOnly, [](Subject& subject) { subject.line->AddDefaultOptions(); }),
            0);
}

TEST(CommandLineFaultSweep, Parse) {
  EXPECT_GT(sweepLine(declaredInFull, [](Subject& subject) { subject.line->Parse(); }), 0);
}

TEST(CommandLineFaultSweep, GetOptionValue) {
  EXPECT_GT(
      sweepLine(parsed,
                [](Subject& subject) { subject.result = subject.line->GetOptionValue("url"); }),
      0);
}

TEST(CommandLineFaultSweep, ParseAgainHasOptionAndArgumentsAllocateNothing) {
  const std::string given = "disable-input";
  const std::string absent = "quit-on-render-crash";
  const std::vector<std::pair<const char*, std::function<void(Subject&)>>> operations = {
      {"Parse again", [](Subject& subject) { subject.line->Parse(); }},
      {"HasOption",
       [&](Subject& subject) {
         subject.result =
             subject.line->HasOption(given) && !subject.line->HasOption(absent) ? "yes" : "no";
       }},
      {"GetOptionValue of an absent option",
       [&](Subject& subject) { subject.result = subject.line->GetOptionValue(absent); }},
      {"argc and argv",
       [](Subject& subject) {
         subject.result = subject.line->argc() == subject.arguments.argc() &&
                                  subject.line->argv() == subject.arguments.argv()
                              ? "same"
                              : "other";
       }},
  };
  for (const auto& operation : operations) {
    EXPECT_EQ(0, sweepLine(parsed, operation.second, operation.first)) << operation.first;
  }
}

}  // namespace
