// One worker thread the engine's way: Start makes the exit semaphore and the
// thread; the body runs until Exiting() (or its owner's own flag) says to
// end; the helper signals the semaphore when the body returns, so no body
// can forget to; Stop sets the flag, waits on the semaphore and releases the
// thread.
//
// Owns: the thread handle and the semaphore, from Start to Stop.
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
    // Starts body(arg) on a new thread; nothing is left started on failure
    // (a worker that runs already counts as kNoThread). name (a literal)
    // names the worker in log lines.
    StartResult Start(const char* name, PAL_THREAD_FUNC body, void* arg);
    // True from Start until Stop; the owner's test for "is there a worker".
    // Any thread may ask (another of the owner's threads, say, while the
    // owner starts or stops it).
    bool Started() const { return m_thread.load() != nullptr; }
    // For the body: its owner has asked it to end.
    bool Exiting() const { return m_exit.load(); }
    // Asks the body to end without waiting (the owner then wakes it if it
    // sleeps on something of its own, and calls Stop).
    void RequestExit() { m_exit.store(true); }
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
};

#endif
