#include "shell_options.h"

#include <cstdio>

#include "base/utils.h"
#include "base/utils/command_line.h"

#ifndef BROWSER_SHELL_DEFAULT_PAGE
#define BROWSER_SHELL_DEFAULT_PAGE "start_page.html"
#endif

namespace browser_shell {

using velmora::base::utils::CommandLine;

namespace {

const char kUsageHeader[] =
    "browser_shell: starts the way the browser does and exercises the base library.\n"
    "Usage: browser_shell [options]\n";

// The shell's own options, declared beside the browser's defaults.
void addShellOptions(CommandLine& commandLine) {
  commandLine.AddOption("run-time", 'r', true, "Seconds until the run ends (default 3)", true,
                        nullptr);
  commandLine.AddOption("events", 'e', true, "Events each of the three modules sends (default 200)",
                        true, nullptr);
  commandLine.AddOption("tasks", 't', true, "Tasks spread over the pool's workers (default 48)",
                        true, nullptr);
  commandLine.AddOption("heartbeat", 'b', true,
                        "Milliseconds between two progress lines (default 500)", true, nullptr);
}

// The value of a whole-number option within [low, high]; false when given and not a number in
// range.
bool readInt(const CommandLine& commandLine, const char* name, int low, int high, int& value) {
  if (!commandLine.HasOption(name)) {
    return true;
  }
  const std::string text = commandLine.GetOptionValue(name);
  const long long parsed = velmora::base::strToInt(text, 10, static_cast<long long>(low) - 1);
  if (parsed < low || parsed > high) {
    std::fprintf(stderr, "browser_shell: --%s must be a number from %d to %d, not '%s'\n", name,
                 low, high, text.c_str());
    return false;
  }
  value = static_cast<int>(parsed);
  return true;
}

bool readSeconds(const CommandLine& commandLine, const char* name, double& value) {
  if (!commandLine.HasOption(name)) {
    return true;
  }
  const std::string text = commandLine.GetOptionValue(name);
  const double parsed = velmora::base::strToReal(text, -1.0);
  if (parsed < 0.1 || parsed > 3600.0) {
    std::fprintf(stderr, "browser_shell: --%s must be seconds from 0.1 to 3600, not '%s'\n", name,
                 text.c_str());
    return false;
  }
  value = parsed;
  return true;
}

// The file a --url names: "file:///a/b.html" and "/a/b.html" both give "/a/b.html".
std::string startPageOf(const CommandLine& commandLine) {
  if (!commandLine.HasOption("url")) {
    return BROWSER_SHELL_DEFAULT_PAGE;
  }
  std::string url = commandLine.GetOptionValue("url");
  velmora::base::trim(url);
  const std::string kFileScheme = "file://";
  if (velmora::base::toLowerCase(url.substr(0, kFileScheme.size())) == kFileScheme) {
    url.erase(0, kFileScheme.size());
  }
  return url;
}

std::string renderBackendOf(const CommandLine& commandLine) {
  if (commandLine.HasOption("hw-gles")) {
    return "gles2";
  }
  if (commandLine.HasOption("hw-dfb")) {
    return "directfb";
  }
  return "software";  // --sw, and the default
}

}  // namespace

bool parseShellOptions(int argc, char** argv, ShellOptions& options) {
  CommandLine commandLine(argc, argv, kUsageHeader, "", true);
  addShellOptions(commandLine);
  commandLine.Parse();  // prints the usage and exits for -h

  options.startPage = startPageOf(commandLine);
  options.renderBackend = renderBackendOf(commandLine);
  options.quitOnRenderCrash = commandLine.HasOption("quit-on-render-crash");
  options.inputDisabled = commandLine.HasOption("disable-input");
  return readSeconds(commandLine, "run-time", options.runSeconds) &&
         readInt(commandLine, "events", 0, 100000, options.eventsPerModule) &&
         readInt(commandLine, "tasks", 0, 100000, options.workerTasks) &&
         readInt(commandLine, "heartbeat", 10, 60000, options.heartbeatMs);
}

}  // namespace browser_shell
