// HandleTable: see HandleTable.h.
#include "HandleTable.h"

#include <climits>
#include <new>

HandleTable::HandleTable(int first) : m_first(first > 0 ? first : 1), m_next(m_first) {}

HandleTable::~HandleTable() {}

int HandleTable::Add(void* obj) {
    if (!obj) return 0;
    std::lock_guard<std::mutex> guard(m_mutex);
    // After two thousand million handles the counter starts again from the
    // base, stepping over those still in use.
    int handle = 0;
    do {
        handle = m_next;
        m_next = (m_next == INT_MAX) ? m_first : m_next + 1;
    } while (m_map.find(handle) != m_map.end());
    try {
        m_map.emplace(handle, Slot{obj, 0, false});
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return handle;
}

void* HandleTable::Find(int handle) const {
    if (handle <= 0) return nullptr;
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_map.find(handle);
    return (it == m_map.end() || it->second.removed) ? nullptr : it->second.obj;
}

int HandleTable::HandleOf(const void* obj) const {
    if (!obj) return 0;
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto& entry : m_map) {
        if (entry.second.obj == obj && !entry.second.removed) return entry.first;
    }
    return 0;
}

void* HandleTable::Acquire(int handle) {
    if (handle <= 0) return nullptr;
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end() || it->second.removed) return nullptr;
    it->second.refs++;
    return it->second.obj;
}

void HandleTable::Release(int handle) {
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end() || it->second.refs <= 0) return;
    if (--it->second.refs == 0 && it->second.removed) m_released.notify_all();
}

void* HandleTable::Remove(int handle) {
    if (handle <= 0) return nullptr;
    std::unique_lock<std::mutex> lock(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end() || it->second.removed) return nullptr;
    it->second.removed = true;
    m_released.wait(lock, [&] { return m_map.at(handle).refs == 0; });
    void* obj = m_map.at(handle).obj;
    m_map.erase(handle);
    return obj;
}

int HandleTable::Count() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return (int)m_map.size();
}
