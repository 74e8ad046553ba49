// Clock, sleep, random numbers and U32_AT (see PAL_Clock.h).
//
// Owns: the process-wide random state, seeded from the monotonic clock on
// first use. Allocates nothing.
// Threads: any; g_rand_lock guards the random state (held for a few
// arithmetic steps only).
#include "PAL_Clock.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>

namespace {

pthread_mutex_t g_rand_lock = PTHREAD_MUTEX_INITIALIZER;
uint64_t g_rand_state = 0;  // guarded by g_rand_lock

long long clock_usec(clockid_t id) {
    struct timespec ts;
    clock_gettime(id, &ts);
    return (long long)ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

}  // namespace

unsigned int PAL_GetClock(void) {
    return (unsigned int)(clock_usec(CLOCK_MONOTONIC) / 1000);
}

long long PAL_GetBootTimeUsec(void) {
#ifdef CLOCK_BOOTTIME
    return clock_usec(CLOCK_BOOTTIME);
#else
    return clock_usec(CLOCK_MONOTONIC);
#endif
}

void PAL_ThreadSleep(unsigned int ms) {
    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (long)(ms % 1000) * 1000000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void PAL_ThreadSleepUntil(unsigned int clockMs) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long nowMs = (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
    int ahead = (int)(clockMs - (unsigned int)nowMs);
    if (ahead <= 0) return;
    // The first nanosecond at which the millisecond clock reads clockMs.
    long long target = nowMs + ahead;
    struct timespec ts;
    ts.tv_sec = (time_t)(target / 1000);
    ts.tv_nsec = (long)(target % 1000) * 1000000L;
#if defined(__linux__) || defined(__ANDROID__)
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
#else
    PAL_ThreadSleep((unsigned int)ahead);
#endif
}

unsigned int PAL_rand(unsigned int limit) {
    if (limit == 0) return 0;
    pthread_mutex_lock(&g_rand_lock);
    if (g_rand_state == 0) g_rand_state = (uint64_t)clock_usec(CLOCK_MONOTONIC) | 1;
    // xorshift64*: small, fast and good enough for ports and SSRCs.
    g_rand_state ^= g_rand_state >> 12;
    g_rand_state ^= g_rand_state << 25;
    g_rand_state ^= g_rand_state >> 27;
    uint64_t r = g_rand_state * 2685821657736338717ULL;
    pthread_mutex_unlock(&g_rand_lock);
    return (unsigned int)((r >> 32) % limit);
}

unsigned int U32_AT(const unsigned char* p) {
    return ((unsigned int)p[0] << 24) | ((unsigned int)p[1] << 16) | ((unsigned int)p[2] << 8) |
           p[3];
}
