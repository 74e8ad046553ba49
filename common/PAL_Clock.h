// Clock, sleep and random numbers.
//
// Owns: the process-wide random state (seeded once, guarded internally).
// Threads: callable from any thread.
#ifndef PAL_CLOCK_H
#define PAL_CLOCK_H

#include "PAL_Export.h"

extern "C" {

// Milliseconds of a monotonic clock (CLOCK_MONOTONIC); wraps after ~49 days,
// callers compare with unsigned subtraction.
SONVARA_COMMON_API unsigned int PAL_GetClock(void);

// Microseconds of the boot-time clock (CLOCK_BOOTTIME where it exists,
// CLOCK_MONOTONIC otherwise).
SONVARA_COMMON_API long long PAL_GetBootTimeUsec(void);

// Sleeps the calling thread for ms milliseconds (0 yields).
SONVARA_COMMON_API void PAL_ThreadSleep(unsigned int ms);

// Sleeps until PAL_GetClock() reaches clockMs (an absolute deadline, so
// that a thread pacing itself does not drift by the time it spends
// working). Returns at once when the deadline is not ahead of the clock;
// one more than 2^31 ms ahead counts as passed.
SONVARA_COMMON_API void PAL_ThreadSleepUntil(unsigned int clockMs);

// A pseudo-random number in [0, limit); 0 when limit is 0.
SONVARA_COMMON_API unsigned int PAL_rand(unsigned int limit);

// Big-endian 32-bit value of the four bytes at p.
SONVARA_COMMON_API unsigned int U32_AT(const unsigned char* p);
}

#endif
