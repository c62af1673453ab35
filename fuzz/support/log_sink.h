// The platform's debug-output calls for the fuzz targets: every line the library writes is kept
// in memory (nothing reaches standard error, which would slow fuzzing down), so that a target
// can assert which lines an input produced.
#ifndef VELMORA_FUZZ_SUPPORT_LOG_SINK_H
#define VELMORA_FUZZ_SUPPORT_LOG_SINK_H

#include <cstddef>
#include <string>
#include <vector>

namespace velmora {
namespace fuzzing {

struct LogLine {
  int level;
  std::string text;
};

// Forgets the lines written so far.
void clearLog();
// The lines written since the last clearLog(), in order.
const std::vector<LogLine>& loggedLines();
// How many lines of this level end with text (the message after the line's prefix).
std::size_t countEndingWith(int level, const std::string& text);

}  // namespace fuzzing
}  // namespace velmora

#endif  // VELMORA_FUZZ_SUPPORT_LOG_SINK_H
