// Mutexes and counting semaphores.
//
// Mutexes are recursive (a thread that holds one may take it again), because
// several engine operations send on a session's connection through a helper
// that takes the session lock the caller may already hold.
// Threads: any.
#ifndef PAL_SYNC_H
#define PAL_SYNC_H

#include "PAL_Export.h"

extern "C" {

typedef struct PAL_MUTEX_T PAL_MUTEX;
typedef struct PAL_SEM_T PAL_SEM;

// Create: non-zero on success with *pp set, 0 on failure (*pp null).
SONVARA_COMMON_API int PAL_MutexCreate(PAL_MUTEX** pp);
SONVARA_COMMON_API void PAL_MutexDelete(PAL_MUTEX* m);
// wait = 1 blocks; wait = 0 tries. 0 when taken, -1 otherwise (or null m).
SONVARA_COMMON_API int PAL_MutexLock(PAL_MUTEX* m, int wait);
SONVARA_COMMON_API int PAL_MutexUnLock(PAL_MUTEX* m);

SONVARA_COMMON_API int PAL_SemCreate(PAL_SEM** pp, int initialCount);
SONVARA_COMMON_API void PAL_SemDelete(PAL_SEM* s);
// wait = 1 blocks until the count is positive and takes one; wait = 0 tries.
// 0 when taken, -1 otherwise (or null s).
SONVARA_COMMON_API int PAL_SemWait(PAL_SEM* s, int wait);
// Waits at most timeoutMs; 0 when taken, -1 on time-out.
SONVARA_COMMON_API int PAL_SemTimedWait(PAL_SEM* s, unsigned int timeoutMs);
// Adds count to the semaphore. 0 on success.
SONVARA_COMMON_API int PAL_SemSignal(PAL_SEM* s, int count);
}

// Holds a mutex for one scope: the engine's one way to take a lock. A null
// mutex (its creation failed) is not taken and not released. Unlock() ends
// the hold early, for a function that works on what it read under the lock
// (a send, an event) once it is released; the scope's end then does nothing.
class PalLock {
public:
    explicit PalLock(PAL_MUTEX* m) : m_mutex(m), m_held(PAL_MutexLock(m, 1) == 0) {}
    ~PalLock() { Unlock(); }
    void Unlock() {
        if (m_held) PAL_MutexUnLock(m_mutex);
        m_held = false;
    }
    // Takes it back after Unlock (a wait done without it); nothing if held.
    // Only this guard's take is released and taken back: a recursive holder
    // from an outer frame keeps the mutex throughout.
    void Lock() {
        if (!m_held) m_held = PAL_MutexLock(m_mutex, 1) == 0;
    }
    PalLock(const PalLock&) = delete;
    PalLock& operator=(const PalLock&) = delete;

private:
    PAL_MUTEX* m_mutex;
    bool m_held;
};

#endif
