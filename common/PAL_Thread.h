// Threads.
//
// A PAL_THREAD is an opaque handle (null = none). The engine's pattern is:
// PAL_ThreadCreate, the body runs until an exit flag is set and signals a
// semaphore on its way out, the owner waits on that semaphore and then
// releases the handle with PAL_ThreadExit (which joins and frees it).
// Threads: any thread may create; exactly one thread releases a handle.
#ifndef PAL_THREAD_H
#define PAL_THREAD_H

#include "PAL_Export.h"

extern "C" {

typedef struct PAL_THREAD_T* PAL_THREAD;
typedef int (*PAL_THREAD_FUNC)(void* arg);

enum PAL_THREAD_PRIO {
    PAL_THREAD_PRIO_TIMESHARE = 1,
    // Still time-sharing (never a real-time class that could starve the
    // phone), at the niceness the phone gives its audio threads: decoding
    // (-16) and the thread that must meet a deadline per packet (-19).
    PAL_THREAD_PRIO_AUDIO = 2,
    PAL_THREAD_PRIO_URGENT_AUDIO = 3,
};

// Starts body(arg) on a new thread and stores its handle in *pThread.
// Returns non-zero on success, 0 on failure (*pThread is then null).
SONVARA_COMMON_API int PAL_ThreadCreate(PAL_THREAD* pThread, PAL_THREAD_FUNC body, void* arg,
                                        int prio);

// Gives the calling thread one of the priorities above. Returns 1 when it
// has it, 0 when the platform refuses (no right to raise it, or no per-thread
// priority): the thread then keeps the one it had, and the first refusal in
// the process is logged once.
SONVARA_COMMON_API int PAL_ThreadSetOwnPriority(int prio);

// wait = 1: blocks until the thread's body has returned, then returns 0.
// wait = 0: returns 0 if the body has already returned, 1 if it still runs.
// Does not release the handle. Returns -1 for a null handle.
SONVARA_COMMON_API int PAL_ThreadJoin(PAL_THREAD thread, int wait);

// Releases the handle: joins the thread (its body must be leaving or gone)
// and frees the handle. A null handle is ignored. Called from the thread
// itself, it detaches instead of joining.
SONVARA_COMMON_API void PAL_ThreadExit(PAL_THREAD thread);
}

#endif
