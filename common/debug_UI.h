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

// A line on a path that can meet the same fault on every packet: the first
// goes out; the next ones within a second are only counted; the first one
// after that second goes out behind a line giving the count held back. One
// zero-initialised record per kind of line, used by one thread at a time.
typedef struct _DEBUG_UI_RATE {
    unsigned int m_since;  // PAL_GetClock() of the last line that went out
    unsigned int m_held;   // lines held back since then
    int m_started;
} DEBUG_UI_RATE;
SONVARA_COMMON_API void debug_UI_Rate(DEBUG_UI_RATE* rate, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

typedef void (*DEBUG_UI_SINK)(const char* line, void* ctx);
// Installs (or with null removes) the capture sink.
SONVARA_COMMON_API void debug_UI_SetSink(DEBUG_UI_SINK sink, void* ctx);
}

#endif
