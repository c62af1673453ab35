/// @file
/// Logging and tracing: every diagnostic line of the library goes through the platform's
/// debug-output library (vex_debug.h), which decides per level and module 95 what is printed.
///
/// Log statements inside the library use the macros below. They build a LogFrame on the stack,
/// ask the platform whether the line is wanted and only then format it, so a suppressed line
/// costs one check call and evaluates none of its arguments:
///
///   VELMORA_LOG(velmora::base::kLogError, "Fail to open %s\n", path);
///   VELMORA_TRACE_SCOPE();
///
/// Callers outside the library use the exported entry points print_browser_log and
/// print_hbbtv_controller_log, which take a level index (0..4) into the level table.
#ifndef VELMORA_BASE_LOGGING_H
#define VELMORA_BASE_LOGGING_H

#include <cstdint>
#include <string>

#include "base/export.h"
#include "vex_debug.h"

extern "C" {

/// Returns a pointer just past the last '/' of path, or path itself when it has none.
VELMORA_BASE_EXPORT const char* blog_base_name(const char* path);

/// Writes one line "[tag]file:line:function:" + format + "\n" at kLogLevelTable[level_index].
/// Null tag, file and function print as ""; a null format prints nothing; an index outside 0..4
/// prints nothing. The platform is asked before each of the three pieces of the line.
VELMORA_BASE_EXPORT void print_browser_log(unsigned int level_index, const char* tag,
                                           const char* file, int line, const char* function,
                                           const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/// The HbbTV controller's entry point; behaves exactly as print_browser_log.
VELMORA_BASE_EXPORT void print_hbbtv_controller_log(unsigned int level_index, const char* tag,
                                                    const char* file, int line,
                                                    const char* function, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/// Hex dump at level index 4: a header "DUMPMEM(%08Xd):, title" and one line per 16 bytes, all
/// tagged with the nanoseconds of the monotonic clock so interleaved dumps can be told apart.
/// A length below 1 prints the header only. Null data with a positive length is refused: nothing
/// is printed.
VELMORA_BASE_EXPORT void dump_memory(const char* title, const unsigned char* data, int length);
}

/// Returns "file:line:function():". A null file gives "", a null function gives "file:line:".
/// Exported under this C++ name and under the plain name dbg_location as well, for callers that
/// declare it with C linkage.
/// Throws std::bad_alloc when memory runs out: the text is never returned cut short.
VELMORA_BASE_EXPORT std::string dbg_location(const char* file, int line, const char* function);

namespace velmora {
namespace base {

/// The level values of the platform: a smaller value is more severe.
enum LogLevel : uint16_t {
  kLogCritical = 1,    ///< thread start and exit, worker creation, stop hand-shakes
  kLogError = 1000,    ///< caught exceptions, failed system calls, refused operations
  kLogWarning = 3000,  ///< unusual but handled situations
  kLogInfo = 4000,     ///< informational decisions
  kLogVerbose = 5000,  ///< traces, state changes, memory dumps
};

/// The library's module number in the platform's debug configuration.
constexpr uint16_t kLogModule = 95;

/// Level values indexed by the level index of print_browser_log.
VELMORA_BASE_EXPORT extern const uint16_t kLogLevelTable[5];

/// A per-process identifier: the nanoseconds of the monotonic clock at the first call (4660 when
/// the clock fails), constant afterwards.
VELMORA_BASE_EXPORT unsigned int bootID();

/// Traces scope entry and exit at level 5000 as "TRACE -> [function(IN)] :file:line " and
/// "TRACE <- [function(OUT)] :file:line ", with the file printed as given.
class VELMORA_BASE_EXPORT FunctionTracer {
 public:
  /// Stores the three arguments (not copied: they must outlive the tracer) and traces the entry.
  FunctionTracer(const char* function, const char* file, int line);
  /// Traces the exit; never throws.
  ~FunctionTracer();

  FunctionTracer(const FunctionTracer&) = delete;
  FunctionTracer& operator=(const FunctionTracer&) = delete;

 private:
  const char* function_;
  const char* file_;
  int line_;
};

namespace internal {

/// Asks the platform whether a line of this level is wanted for the library's module.
inline bool logWanted(uint16_t level) {
  LogFrame frame = {level, kLogModule, 0, 0};
  return vexDebugCheckLevelGetFrameAndChunk(&frame) != 0;
}

/// The scope trace of VELMORA_TRACE_SCOPE: one line on entry and one on every exit.
class ScopeTrace {
 public:
  ScopeTrace(const char* function, const char* file, int line)
      : function_(function), file_(file), line_(line) {
    if (logWanted(kLogVerbose)) {
      vexDebugOutput0("[TRACE -> %s(IN)] %s:%d:%s() \n", function_, blog_base_name(file_), line_,
                      function_);
    }
  }
  ~ScopeTrace() {
    if (logWanted(kLogVerbose)) {
      vexDebugOutput0("[TRACE <- %s(OUT)] %s:%d:%s() \n", function_, blog_base_name(file_), line_,
                      function_);
    }
  }

  ScopeTrace(const ScopeTrace&) = delete;
  ScopeTrace& operator=(const ScopeTrace&) = delete;

 private:
  const char* function_;
  const char* file_;
  int line_;
};

/// Lets the compiler check a log statement's arguments against its format without calling
/// anything at run time.
inline void checkLogFormat(const char*, ...) __attribute__((format(printf, 1, 2)));
inline void checkLogFormat(const char*, ...) {}

}  // namespace internal
}  // namespace base
}  // namespace velmora

/// The log-line convention with everything explicit: "[tag] base:line:function(): " + message.
/// The message is a string literal ending in "\n"; its arguments are evaluated only when the
/// platform wants the line.
#define VELMORA_LOG_FULL(tag, level, line, function, format, ...)                               \
  do {                                                                                          \
    if (::velmora::base::internal::logWanted(level)) {                                          \
      vexDebugOutput0("[%s] %s:%d:%s(): " format, tag, ::blog_base_name(__FILE__), (int)(line), \
                      function, ##__VA_ARGS__);                                                 \
    } else if (false) {                                                                         \
      ::velmora::base::internal::checkLogFormat(format, ##__VA_ARGS__);                         \
    }                                                                                           \
  } while (0)

/// The usual statement: tag "B-LOG", this line, this function.
#define VELMORA_LOG(level, format, ...) \
  VELMORA_LOG_FULL("B-LOG", level, __LINE__, __func__, format, ##__VA_ARGS__)

/// A statement whose printed line number is fixed, so the text stays the same when code moves.
#define VELMORA_LOG_AT(level, line, format, ...) \
  VELMORA_LOG_FULL("B-LOG", level, line, __func__, format, ##__VA_ARGS__)

/// The point trace "[TRACE] base:line:decorated function" at level 5000.
#define VELMORA_TRACE_POINT_FULL(line, decorated_function)                           \
  do {                                                                               \
    if (::velmora::base::internal::logWanted(::velmora::base::kLogVerbose)) {        \
      vexDebugOutput0("[TRACE] %s:%d:%s\n", ::blog_base_name(__FILE__), (int)(line), \
                      decorated_function);                                           \
    }                                                                                \
  } while (0)

/// The point trace at this line, in this function.
#define VELMORA_TRACE_POINT() VELMORA_TRACE_POINT_FULL(__LINE__, __PRETTY_FUNCTION__)
/// The point trace with a fixed line number, in this function.
#define VELMORA_TRACE_POINT_AT(line) VELMORA_TRACE_POINT_FULL(line, __PRETTY_FUNCTION__)

/// @cond INTERNAL
#define VELMORA_LOG_CONCAT_INNER(a, b) a##b
#define VELMORA_LOG_CONCAT(a, b) VELMORA_LOG_CONCAT_INNER(a, b)
/// @endcond

/// The scope trace at level 5000 for the rest of the enclosing scope.
#define VELMORA_TRACE_SCOPE_FULL(line, function)                                            \
  ::velmora::base::internal::ScopeTrace VELMORA_LOG_CONCAT(velmora_scope_trace_, __LINE__)( \
      function, __FILE__, line)

/// The scope trace for the rest of the enclosing scope, at this line, named after this function.
#define VELMORA_TRACE_SCOPE() VELMORA_TRACE_SCOPE_FULL(__LINE__, __func__)
/// The scope trace with a fixed line number, named after this function.
#define VELMORA_TRACE_SCOPE_AT(line) VELMORA_TRACE_SCOPE_FULL(line, __func__)

#endif  // VELMORA_BASE_LOGGING_H
