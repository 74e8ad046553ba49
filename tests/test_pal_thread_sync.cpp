// Threads, mutexes and semaphores in the engine's own pattern: a body that
// runs until an exit flag is set and signals a semaphore on its way out.
#include <gtest/gtest.h>

#include <atomic>

#include "PAL.h"

namespace {

struct WORKER {
    std::atomic<bool> bExit{false};
    PAL_SEM* pDoneSem = nullptr;
    PAL_SEM* pWorkSem = nullptr;
    PAL_MUTEX* pMutex = nullptr;
    long counter = 0;  // guarded by pMutex
};

int worker_body(void* arg) {
    WORKER* w = static_cast<WORKER*>(arg);
    while (!w->bExit.load()) {
        if (PAL_SemTimedWait(w->pWorkSem, 50) == 0) {
            PAL_MutexLock(w->pMutex, 1);
            PAL_MutexLock(w->pMutex, 1);  // recursive: a helper re-taking the caller's lock
            w->counter++;
            PAL_MutexUnLock(w->pMutex);
            PAL_MutexUnLock(w->pMutex);
        }
    }
    PAL_SemSignal(w->pDoneSem, 1);
    return 0;
}

int self_releasing_body(void* arg) {
    std::atomic<PAL_THREAD>* self = static_cast<std::atomic<PAL_THREAD>*>(arg);
    while (self->load() == nullptr) PAL_ThreadSleep(1);
    PAL_ThreadExit(self->load());
    return 0;
}

}  // namespace

TEST(ThreadSync, SemaphoresCountAndAWorkerStopsByItsFlag) {
    PAL_SEM* s = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&s, 2));
    EXPECT_EQ(0, PAL_SemWait(s, 0));
    EXPECT_EQ(0, PAL_SemWait(s, 1));
    EXPECT_EQ(-1, PAL_SemWait(s, 0));
    unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(-1, PAL_SemTimedWait(s, 100));
    EXPECT_GE(PAL_GetClock() - t0, 95u);
    PAL_SemDelete(s);

    WORKER w;
    ASSERT_NE(0, PAL_SemCreate(&w.pDoneSem, 0));
    ASSERT_NE(0, PAL_SemCreate(&w.pWorkSem, 0));
    ASSERT_NE(0, PAL_MutexCreate(&w.pMutex));
    PAL_THREAD th = nullptr;
    ASSERT_NE(0, PAL_ThreadCreate(&th, worker_body, &w, PAL_THREAD_PRIO_TIMESHARE));
    EXPECT_EQ(0, PAL_SemSignal(w.pWorkSem, 5));
    long c = 0;
    for (int i = 0; i < 500 && c != 5; i++) {
        PAL_ThreadSleep(10);
        PAL_MutexLock(w.pMutex, 1);
        c = w.counter;
        PAL_MutexUnLock(w.pMutex);
    }
    EXPECT_EQ(5, c);
    EXPECT_EQ(1, PAL_ThreadJoin(th, 0));  // still running
    EXPECT_EQ(-1, PAL_SemWait(w.pDoneSem, 0));
    w.bExit = true;
    EXPECT_EQ(0, PAL_SemWait(w.pDoneSem, 1));
    EXPECT_EQ(0, PAL_ThreadJoin(th, 1));
    EXPECT_EQ(0, PAL_ThreadJoin(th, 0));
    PAL_ThreadExit(th);
    PAL_SemDelete(w.pDoneSem);
    PAL_SemDelete(w.pWorkSem);
    PAL_MutexDelete(w.pMutex);

    // A thread may release its own handle: it detaches and frees itself.
    // Given time to finish, leak checkers see the record freed.
    static std::atomic<PAL_THREAD> s_handle;  // outlives the thread
    s_handle = nullptr;
    ASSERT_NE(0, PAL_ThreadCreate(&th, self_releasing_body, &s_handle, PAL_THREAD_PRIO_TIMESHARE));
    s_handle = th;
    PAL_ThreadSleep(200);
}
