// Start-up options of the shell, read with utils::CommandLine: the browser's default options
// (--url, --sw, --hw-dfb, --hw-gles, --quit-on-render-crash, --disable-input, -h) plus the
// shell's own (--run-time, --events, --tasks, --heartbeat).
#ifndef BROWSER_SHELL_SHELL_OPTIONS_H
#define BROWSER_SHELL_SHELL_OPTIONS_H

#include <string>

namespace browser_shell {

struct ShellOptions {
  std::string startPage;      // a file path (a "file://" prefix of --url is removed)
  std::string renderBackend;  // "software", "directfb" or "gles2"
  bool quitOnRenderCrash = false;
  bool inputDisabled = false;
  double runSeconds = 3.0;    // until the end-of-run timer fires
  int eventsPerModule = 200;  // events each of the three modules sends
  int workerTasks = 48;       // tasks spread over the pool's workers
  int heartbeatMs = 500;      // period of the progress line
};

// Parses the command line. "-h" prints the usage and ends the process with status 0. False
// (after saying why on standard error) when a value is out of range.
bool parseShellOptions(int argc, char** argv, ShellOptions& options);

}  // namespace browser_shell

#endif  // BROWSER_SHELL_SHELL_OPTIONS_H
