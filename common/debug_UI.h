// The engine's one log call.
//
// One printf-style line per call, no levels. Android: logcat, tag
// "SonvaraSender". Elsewhere: stderr by default; SONVARA_LOG=off silences it,
// SONVARA_LOG=<path> appends to that file. A capture sink (tests) receives
// every formatted line in addition.
// Threads: any; lines are never interleaved.
#ifndef DEBUG_UI_H
#define DEBUG_UI_H

#include "PAL_Export.h"

extern "C" {

SONVARA_COMMON_API void debug_UI(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

typedef void (*DEBUG_UI_SINK)(const char* line, void* ctx);
// Installs (or with null removes) the capture sink.
SONVARA_COMMON_API void debug_UI_SetSink(DEBUG_UI_SINK sink, void* ctx);
}

#endif
