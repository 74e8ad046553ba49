// Threads over pthreads (see PAL_Thread.h).
//
// Owns: one heap record per thread handle, shared by the owner and the thread
// itself (reference counted, so that a thread releasing its own handle does
// not free the record under its own feet).
// Threads: each record has a small mutex guarding its done flag (so that
// PAL_ThreadJoin can wait on a condition); the reference count is atomic.
#include "PAL_Thread.h"

#include <errno.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>
#if defined(__linux__) || defined(__ANDROID__)
#include <sys/syscall.h>
#endif

#include <atomic>
#include <new>

#include "debug_UI.h"

struct PAL_THREAD_T {
    pthread_t m_tid;
    PAL_THREAD_FUNC m_body;
    void* m_arg;
    pthread_mutex_t m_lock;  // guards m_done
    pthread_cond_t m_doneCond;
    int m_done;               // 1 once the body has returned
    std::atomic<int> m_refs;  // owner + running thread
};

namespace {

void _release_ref(PAL_THREAD_T* t) {
    if (t->m_refs.fetch_sub(1) != 1) return;
    pthread_cond_destroy(&t->m_doneCond);
    pthread_mutex_destroy(&t->m_lock);
    delete t;
}

void* _thread_main(void* p) {
    PAL_THREAD_T* t = static_cast<PAL_THREAD_T*>(p);
    t->m_body(t->m_arg);
    pthread_mutex_lock(&t->m_lock);
    t->m_done = 1;
    pthread_cond_broadcast(&t->m_doneCond);
    pthread_mutex_unlock(&t->m_lock);
    _release_ref(t);
    return nullptr;
}

}  // namespace

int PAL_ThreadCreate(PAL_THREAD* pThread, PAL_THREAD_FUNC body, void* arg, int prio) {
    (void)prio;  // every engine thread runs in the normal time-sharing class
    if (!pThread) return 0;
    *pThread = nullptr;
    if (!body) return 0;
    PAL_THREAD_T* t = new (std::nothrow) PAL_THREAD_T;
    if (!t) return 0;
    t->m_body = body;
    t->m_arg = arg;
    t->m_done = 0;
    t->m_refs.store(2);
    pthread_mutex_init(&t->m_lock, nullptr);
    pthread_cond_init(&t->m_doneCond, nullptr);
    if (pthread_create(&t->m_tid, nullptr, _thread_main, t) != 0) {
        t->m_refs.store(1);  // the thread never ran: only the owner's reference is left
        _release_ref(t);
        return 0;
    }
    *pThread = t;
    return 1;
}

int PAL_ThreadSetOwnPriority(int prio) {
    int nice = prio == PAL_THREAD_PRIO_URGENT_AUDIO ? -19 : prio == PAL_THREAD_PRIO_AUDIO ? -16 : 0;
    int err = ENOSYS;
#if defined(__linux__) || defined(__ANDROID__)
    // On these kernels a thread id names one thread to setpriority, and
    // the niceness is that thread's alone.
    id_t tid = (id_t)syscall(SYS_gettid);
    if (setpriority(PRIO_PROCESS, tid, nice) == 0) return 1;
    err = errno;
#endif
    static std::atomic<bool> s_logged(false);
    if (!s_logged.exchange(true))
        debug_UI(
            "PAL_ThreadSetOwnPriority: nice %d refused (errno %d); threads keep their priority",
            nice, err);
    return 0;
}

int PAL_ThreadJoin(PAL_THREAD thread, int wait) {
    if (!thread) return -1;
    // Waiting without joining keeps the handle releasable by PAL_ThreadExit.
    pthread_mutex_lock(&thread->m_lock);
    while (wait && !thread->m_done) pthread_cond_wait(&thread->m_doneCond, &thread->m_lock);
    int running = thread->m_done ? 0 : 1;
    pthread_mutex_unlock(&thread->m_lock);
    return running;
}

void PAL_ThreadExit(PAL_THREAD thread) {
    if (!thread) return;
    if (pthread_equal(thread->m_tid, pthread_self())) {
        pthread_detach(thread->m_tid);
    } else {
        pthread_join(thread->m_tid, nullptr);
    }
    _release_ref(thread);
}
