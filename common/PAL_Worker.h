// One worker thread the engine's way: Start makes the exit semaphore and the
// thread; the body runs until Exiting() (or its owner's own flag) says to
// end; the helper signals the semaphore when the body returns, so no body
// can forget to; Stop sets the flag, waits on the semaphore and releases the
// thread.
//
// A body that blocks in poll on sockets of its own can ask for an exit
// descriptor (kExitFd): it turns readable when the owner asks the body to
// end, so the body sleeps until a datagram comes, its next piece of work is
// due or it must end, and never wakes just to look at its flag.
//
// Owns: the thread handle, the semaphore and the exit pipe, from Start to
// Stop.
// Threads: Start and Stop on the owner's thread (one owner per worker);
// Exiting from the body; Started from any. Locks: none (the flag and the
// handle are atomic).
#ifndef PAL_WORKER_H
#define PAL_WORKER_H

#include <atomic>

#include "PAL_Export.h"
#include "PAL_Sync.h"
#include "PAL_Thread.h"

class SONVARA_COMMON_API PalWorker {
public:
    PalWorker();
    // Stops a worker still running, as Stop does.
    ~PalWorker();

    enum StartResult { kStarted, kNoSemaphore, kNoThread };
    enum StartFlags { kPlain = 0, kExitFd = 1 };
    // Starts body(arg) on a new thread; nothing is left started on failure
    // (a worker that runs already counts as kNoThread; a semaphore or exit
    // pipe that cannot be made, as kNoSemaphore). name (a literal) names
    // the worker in log lines.
    StartResult Start(const char* name, PAL_THREAD_FUNC body, void* arg, int flags = kPlain);
    // True from Start until Stop; the owner's test for "is there a worker".
    // Any thread may ask (another of the owner's threads, say, while the
    // owner starts or stops it).
    bool Started() const { return m_thread.load() != nullptr; }
    // For the body: its owner has asked it to end.
    bool Exiting() const { return m_exit.load(); }
    // Started with kExitFd: readable (POLLIN) from the owner's request to
    // end until Stop; the body polls it beside its own descriptors and
    // never reads it. -1 otherwise.
    int ExitFd() const { return m_exitFd[0]; }
    // Asks the body to end without waiting (the owner then wakes it if it
    // sleeps on something of its own other than the exit descriptor, and
    // calls Stop).
    void RequestExit();
    // Asks the body to end and waits for it: up to boundMs, then one log line
    // naming the worker, then on, since what the body uses cannot be freed
    // under it (every wait of an engine body is bounded, so it does end).
    // Then the thread is released. Nothing started: nothing to do.
    void Stop(unsigned int boundMs);

private:
    PalWorker(const PalWorker&) = delete;
    PalWorker& operator=(const PalWorker&) = delete;
    static int _main(void* self);

    std::atomic<PAL_THREAD> m_thread;
    PAL_SEM* m_doneSem;  // signalled once the body has returned
    std::atomic<bool> m_exit;
    PAL_THREAD_FUNC m_body;
    void* m_arg;
    const char* m_name;
    int m_exitFd[2];  // the exit pipe (kExitFd), -1 without
};

#endif
