// The engine's log line (see debug_UI.h).
//
// Owns: the log file descriptor when SONVARA_LOG names a file (opened on the
// first line, kept for the life of the process) and the capture sink.
// Threads: any. g_sinkLock guards the sink and is held while the sink runs
// (a sink must not log itself); the line itself goes out in one write, which
// keeps lines whole without a lock around the I/O.
#include "debug_UI.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifdef __ANDROID__
#include <android/log.h>
#endif

#include "PAL_Clock.h"

namespace {

const int kLineMax = 1024;

pthread_mutex_t g_sinkLock = PTHREAD_MUTEX_INITIALIZER;
DEBUG_UI_SINK g_sink = nullptr;  // guarded by g_sinkLock
void* g_sinkCtx = nullptr;       // guarded by g_sinkLock

#ifndef __ANDROID__
pthread_once_t g_outputOnce = PTHREAD_ONCE_INIT;
int g_outputFd = -1;  // -1: silenced; set once under g_outputOnce

void _choose_output() {
    const char* target = getenv("SONVARA_LOG");
    if (!target || !target[0]) {
        g_outputFd = STDERR_FILENO;
    } else if (strcmp(target, "off") != 0) {
        g_outputFd = open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }
}
#endif

void _emit(char* line, size_t len) {
#ifdef __ANDROID__
    (void)len;
    __android_log_print(ANDROID_LOG_INFO, "SonvaraSender", "%s", line);
#else
    pthread_once(&g_outputOnce, _choose_output);
    if (g_outputFd < 0) return;
    // The line still holds room for its line end (see debug_UI).
    line[len] = '\n';
    ssize_t rc = write(g_outputFd, line, len + 1);
    (void)rc;  // nowhere to report a failed log write
    line[len] = 0;
#endif
}

void _vlog(const char* fmt, va_list ap) {
    char line[kLineMax + 1];  // + 1 keeps room for the line end
    int n = vsnprintf(line, kLineMax, fmt, ap);
    if (n < 0) return;
    size_t len = strlen(line);
    while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = 0;
    _emit(line, len);
    pthread_mutex_lock(&g_sinkLock);
    if (g_sink) g_sink(line, g_sinkCtx);
    pthread_mutex_unlock(&g_sinkLock);
}

}  // namespace

void debug_UI(const char* fmt, ...) {
    if (!fmt) return;
    va_list ap;
    va_start(ap, fmt);
    _vlog(fmt, ap);
    va_end(ap);
}

void debug_UI_Rate(DEBUG_UI_RATE* rate, const char* fmt, ...) {
    if (!rate || !fmt) return;
    unsigned int now = PAL_GetClock();
    if (rate->m_started && now - rate->m_since < 1000) {
        rate->m_held++;
        return;
    }
    if (rate->m_held > 0)
        debug_UI("(%u more of the next line in %u ms)", rate->m_held, now - rate->m_since);
    rate->m_started = 1;
    rate->m_since = now;
    rate->m_held = 0;
    va_list ap;
    va_start(ap, fmt);
    _vlog(fmt, ap);
    va_end(ap);
}

void debug_UI_SetSink(DEBUG_UI_SINK sink, void* ctx) {
    pthread_mutex_lock(&g_sinkLock);
    g_sink = sink;
    g_sinkCtx = ctx;
    pthread_mutex_unlock(&g_sinkLock);
}
