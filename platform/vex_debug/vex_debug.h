/**
 * @file
 * The platform's debug-output interface. On the device a closed library provides these three
 * calls; this folder holds a stand-in with the same interface for development machines.
 *
 * A caller fills a LogFrame with the level and module of a line, asks
 * vexDebugCheckLevelGetFrameAndChunk whether that line is wanted, and only then formats it with
 * vexDebugOutput0 or vexDebugOutputV.
 */
#ifndef VEX_DEBUG_H
#define VEX_DEBUG_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What a log line is: built on the stack for each line and passed to the check. */
typedef struct LogFrame {
  uint16_t level;  /**< 1 (most severe) ... 5000 (verbose) */
  uint16_t module; /**< 95 for this library */
  uint32_t word0;  /**< the platform's; 0 on entry */
  uint32_t word1;  /**< the platform's; 0 on entry */
} LogFrame;

int vexDebugCheckLevelGetFrameAndChunk(LogFrame* frame); /**< non-zero: this line is wanted */
int vexDebugOutput0(const char* format, ...);            /**< printf-style output */
int vexDebugOutputV(const char* format, va_list args);   /**< the same with a va_list */

#ifdef __cplusplus
}
#endif

#endif /* VEX_DEBUG_H */
