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
    for (;;) {
        handle = m_next;
        m_next = (m_next == INT_MAX) ? m_first : m_next + 1;
        if (m_map.find(handle) == m_map.end()) break;
    }
    try {
        m_map.emplace(handle, obj);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return handle;
}

void* HandleTable::Find(int handle) const {
    if (handle <= 0) return nullptr;
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_map.find(handle);
    return it == m_map.end() ? nullptr : it->second;
}

void* HandleTable::Remove(int handle) {
    if (handle <= 0) return nullptr;
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_map.find(handle);
    if (it == m_map.end()) return nullptr;
    void* obj = it->second;
    m_map.erase(it);
    return obj;
}

int HandleTable::Count() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return (int)m_map.size();
}
