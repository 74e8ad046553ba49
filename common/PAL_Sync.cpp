// Mutexes and counting semaphores over pthreads (see PAL_Sync.h).
//
// Owns: one heap record per mutex or semaphore.
// Threads: any. A semaphore's record holds a mutex guarding its count; a
// waiter sleeps on a condition bound to the monotonic clock, so that time-outs
// do not move when the wall clock is set.
#include "PAL_Sync.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <new>

struct PAL_MUTEX_T {
    pthread_mutex_t m_mutex;
};

struct PAL_SEM_T {
    pthread_mutex_t m_lock;  // guards m_count
    pthread_cond_t m_cond;
    long m_count;
};

int PAL_MutexCreate(PAL_MUTEX** pp) {
    if (!pp) return 0;
    *pp = nullptr;
    PAL_MUTEX* m = new (std::nothrow) PAL_MUTEX;
    if (!m) return 0;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    int rc = pthread_mutex_init(&m->m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        delete m;
        return 0;
    }
    *pp = m;
    return 1;
}

void PAL_MutexDelete(PAL_MUTEX* m) {
    if (!m) return;
    pthread_mutex_destroy(&m->m_mutex);
    delete m;
}

int PAL_MutexLock(PAL_MUTEX* m, int wait) {
    if (!m) return -1;
    int rc = wait ? pthread_mutex_lock(&m->m_mutex) : pthread_mutex_trylock(&m->m_mutex);
    return rc == 0 ? 0 : -1;
}

int PAL_MutexUnLock(PAL_MUTEX* m) {
    if (!m) return -1;
    return pthread_mutex_unlock(&m->m_mutex) == 0 ? 0 : -1;
}

int PAL_SemCreate(PAL_SEM** pp, int initialCount) {
    if (!pp) return 0;
    *pp = nullptr;
    if (initialCount < 0) return 0;
    PAL_SEM* s = new (std::nothrow) PAL_SEM;
    if (!s) return 0;
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    int rc = pthread_cond_init(&s->m_cond, &attr);
    pthread_condattr_destroy(&attr);
    if (rc != 0) {
        delete s;
        return 0;
    }
    pthread_mutex_init(&s->m_lock, nullptr);
    s->m_count = initialCount;
    *pp = s;
    return 1;
}

void PAL_SemDelete(PAL_SEM* s) {
    if (!s) return;
    pthread_cond_destroy(&s->m_cond);
    pthread_mutex_destroy(&s->m_lock);
    delete s;
}

namespace {

// Takes one count; waits until the deadline (null: forever). 0 or -1.
int _sem_take(PAL_SEM* s, const struct timespec* deadline) {
    int taken = -1;
    pthread_mutex_lock(&s->m_lock);
    for (;;) {
        if (s->m_count > 0) {
            s->m_count--;
            taken = 0;
            break;
        }
        int rc = deadline ? pthread_cond_timedwait(&s->m_cond, &s->m_lock, deadline)
                          : pthread_cond_wait(&s->m_cond, &s->m_lock);
        if (rc == ETIMEDOUT) {
            // A count that arrived together with the time-out is still taken.
            if (s->m_count > 0) continue;
            break;
        }
    }
    pthread_mutex_unlock(&s->m_lock);
    return taken;
}

}  // namespace

int PAL_SemWait(PAL_SEM* s, int wait) {
    if (!s) return -1;
    if (wait) return _sem_take(s, nullptr);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return _sem_take(s, &now);
}

int PAL_SemTimedWait(PAL_SEM* s, unsigned int timeoutMs) {
    if (!s) return -1;
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += (long)(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000L;
    }
    return _sem_take(s, &deadline);
}

int PAL_SemSignal(PAL_SEM* s, int count) {
    if (!s || count <= 0) return -1;
    pthread_mutex_lock(&s->m_lock);
    s->m_count += count;
    pthread_cond_broadcast(&s->m_cond);
    pthread_mutex_unlock(&s->m_lock);
    return 0;
}
