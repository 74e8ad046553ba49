// HandleTable: see HandleTable.h.
#include "HandleTable.h"

#include <climits>
#include <new>

#include "PAL_Clock.h"

HandleTable::HandleTable(int first)
    : m_mutex(nullptr), m_first(first > 0 ? first : 1), m_next(m_first) {
    // Without it (no memory) the table still works for one thread at a time.
    if (!PAL_MutexCreate(&m_mutex)) m_mutex = nullptr;
}

HandleTable::~HandleTable() {
    if (m_mutex != nullptr) PAL_MutexDelete(m_mutex);
}

int HandleTable::Add(void* obj) {
    if (!obj) return 0;
    PalLock guard(m_mutex);
    // After two thousand million handles the counter starts again from the
    // base, stepping over those still in use.
    int handle = 0;
    do {
        handle = m_next;
        m_next = (m_next == INT_MAX) ? m_first : m_next + 1;
    } while (m_map.find(handle) != m_map.end());
    try {
        m_map.emplace(handle, Slot{obj, 0, false, nullptr});
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return handle;
}

void* HandleTable::Find(int handle) const {
    if (handle <= 0) return nullptr;
    PalLock guard(m_mutex);
    auto it = m_map.find(handle);
    return (it == m_map.end() || it->second.removed) ? nullptr : it->second.obj;
}

int HandleTable::HandleOf(const void* obj) const {
    if (!obj) return 0;
    PalLock guard(m_mutex);
    for (const auto& entry : m_map) {
        if (entry.second.obj == obj && !entry.second.removed) return entry.first;
    }
    return 0;
}

void* HandleTable::Acquire(int handle) {
    if (handle <= 0) return nullptr;
    PalLock guard(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end() || it->second.removed) return nullptr;
    it->second.refs++;
    return it->second.obj;
}

void HandleTable::Release(int handle) {
    PalLock guard(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end() || it->second.refs <= 0) return;
    if (--it->second.refs == 0 && it->second.removed) PAL_SemSignal(it->second.lastGone, 1);
}

void* HandleTable::Remove(int handle) {
    if (handle <= 0) return nullptr;
    PAL_SEM* lastGone = nullptr;
    {
        PalLock guard(m_mutex);
        auto it = m_map.find(handle);
        if (it == m_map.end() || it->second.removed) return nullptr;
        it->second.removed = true;
        if (it->second.refs > 0 && PAL_SemCreate(&lastGone, 0)) it->second.lastGone = lastGone;
    }
    // The holders are calls in flight, each bounded; the last one's Release
    // signals. Without a semaphore (no memory), short sleeps instead.
    for (;;) {
        {
            PalLock guard(m_mutex);
            Slot& slot = m_map.at(handle);
            if (slot.refs == 0) {
                void* obj = slot.obj;
                m_map.erase(handle);
                if (lastGone != nullptr) PAL_SemDelete(lastGone);
                return obj;
            }
        }
        if (lastGone != nullptr)
            PAL_SemWait(lastGone, 1);
        else
            PAL_ThreadSleep(1);
    }
}

int HandleTable::Count() const {
    PalLock guard(m_mutex);
    return (int)m_map.size();
}
