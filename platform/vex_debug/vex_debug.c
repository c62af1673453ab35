/*
 * Stand-in for the device's debug-output library: prints to standard error every line whose
 * level is at most the threshold taken from VEX_DEBUG_LEVEL (0 silences everything, 5000 lets
 * everything through, unset means 1000: the severe lines and errors).
 */
#include "vex_debug.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#define VEX_DEFAULT_THRESHOLD 1000L

static long g_threshold = VEX_DEFAULT_THRESHOLD;
static pthread_once_t g_threshold_once = PTHREAD_ONCE_INIT;

static void read_threshold(void) {
  const char* text = getenv("VEX_DEBUG_LEVEL");
  if (text == NULL || *text == '\0') {
    return;
  }
  char* end = NULL;
  long value = strtol(text, &end, 10);
  if (end != text && value >= 0) {
    g_threshold = value;
  }
}

int vexDebugCheckLevelGetFrameAndChunk(LogFrame* frame) {
  if (frame == NULL) {
    return 0;
  }
  pthread_once(&g_threshold_once, read_threshold);
  return frame->level <= g_threshold;
}

int vexDebugOutputV(const char* format, va_list args) {
  return vfprintf(stderr, format, args);
}

int vexDebugOutput0(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int written = vexDebugOutputV(format, args);
  va_end(args);
  return written;
}
