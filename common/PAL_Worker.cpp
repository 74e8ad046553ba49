// The worker-thread helper (see PAL_Worker.h).
#include "PAL_Worker.h"

#include "debug_UI.h"

PalWorker::PalWorker()
    : m_thread(nullptr),
      m_doneSem(nullptr),
      m_exit(false),
      m_body(nullptr),
      m_arg(nullptr),
      m_name("") {}

PalWorker::~PalWorker() {
    Stop(1000);
}

PalWorker::StartResult PalWorker::Start(const char* name, PAL_THREAD_FUNC body, void* arg) {
    if (m_thread.load() != nullptr || body == nullptr) return kNoThread;
    m_name = name != nullptr ? name : "";
    m_body = body;
    m_arg = arg;
    m_exit.store(false);
    if (!PAL_SemCreate(&m_doneSem, 0)) {
        m_doneSem = nullptr;
        return kNoSemaphore;
    }
    PAL_THREAD thread = nullptr;
    if (!PAL_ThreadCreate(&thread, _main, this, PAL_THREAD_PRIO_TIMESHARE)) {
        // No thread will ever signal it: the owner must not wait.
        PAL_SemDelete(m_doneSem);
        m_doneSem = nullptr;
        return kNoThread;
    }
    m_thread = thread;
    return kStarted;
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
    m_exit.store(true);
    if (PAL_SemTimedWait(m_doneSem, boundMs) != 0) {
        debug_UI("worker %s still running after %u ms: waiting for it to end", m_name, boundMs);
        PAL_SemWait(m_doneSem, 1);
    }
    PAL_SemDelete(m_doneSem);
    m_doneSem = nullptr;
    m_thread = nullptr;
    PAL_ThreadExit(thread);
}
