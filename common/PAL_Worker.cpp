// The worker-thread helper (see PAL_Worker.h).
#include "PAL_Worker.h"

#include <fcntl.h>
#include <unistd.h>

#include "debug_UI.h"

namespace {

void _close_pipe(int fds[2]) {
    for (int i = 0; i < 2; i++) {
        if (fds[i] >= 0) close(fds[i]);
        fds[i] = -1;
    }
}

// Non-blocking at both ends, not inherited by programs the process starts.
bool _open_pipe(int fds[2]) {
    if (pipe(fds) != 0) {
        fds[0] = fds[1] = -1;
        return false;
    }
    for (int i = 0; i < 2; i++) {
        fcntl(fds[i], F_SETFL, fcntl(fds[i], F_GETFL, 0) | O_NONBLOCK);
        fcntl(fds[i], F_SETFD, FD_CLOEXEC);
    }
    return true;
}

}  // namespace

PalWorker::PalWorker()
    : m_thread(nullptr),
      m_doneSem(nullptr),
      m_exit(false),
      m_body(nullptr),
      m_arg(nullptr),
      m_name("") {
    m_exitFd[0] = m_exitFd[1] = -1;
}

PalWorker::~PalWorker() {
    Stop(1000);
}

PalWorker::StartResult PalWorker::Start(const char* name, PAL_THREAD_FUNC body, void* arg,
                                        int flags) {
    if (m_thread.load() != nullptr || body == nullptr) return kNoThread;
    m_name = name != nullptr ? name : "";
    m_body = body;
    m_arg = arg;
    m_exit.store(false);
    if ((flags & kExitFd) && !_open_pipe(m_exitFd)) return kNoSemaphore;
    if (!PAL_SemCreate(&m_doneSem, 0)) {
        m_doneSem = nullptr;
        _close_pipe(m_exitFd);
        return kNoSemaphore;
    }
    PAL_THREAD thread = nullptr;
    if (!PAL_ThreadCreate(&thread, _main, this, PAL_THREAD_PRIO_TIMESHARE)) {
        // No thread will ever signal it: the owner must not wait.
        PAL_SemDelete(m_doneSem);
        m_doneSem = nullptr;
        _close_pipe(m_exitFd);
        return kNoThread;
    }
    m_thread = thread;
    return kStarted;
}

void PalWorker::RequestExit() {
    m_exit.store(true);
    // One byte is enough: the body never reads it, so the pipe stays
    // readable until Stop closes it.
    if (m_exitFd[1] >= 0) {
        char one = 1;
        ssize_t n = write(m_exitFd[1], &one, 1);
        (void)n;  // a full pipe is readable already
    }
}

int PalWorker::_main(void* self) {
    PalWorker* w = static_cast<PalWorker*>(self);
    int ret = w->m_body(w->m_arg);
    PAL_SemSignal(w->m_doneSem, 1);
    return ret;
}

void PalWorker::Stop(unsigned int boundMs) {
    PAL_THREAD thread = m_thread.load();
    if (thread == nullptr) return;
    RequestExit();
    if (PAL_SemTimedWait(m_doneSem, boundMs) != 0) {
        debug_UI("worker %s still running after %u ms: waiting for it to end", m_name, boundMs);
        PAL_SemWait(m_doneSem, 1);
    }
    PAL_SemDelete(m_doneSem);
    m_doneSem = nullptr;
    m_thread = nullptr;
    PAL_ThreadExit(thread);
    _close_pipe(m_exitFd);
}
