// HandleTable: the int handles that name live objects to callers that can
// only carry a 32-bit int (the Java application, the manager's records).
//
// Owns: the map from handle to object pointer (not the objects). Handles are
// positive ints counted up from a base and never handed out twice while the
// table lives, so a removed or made-up handle finds nothing instead of a
// freed object. Allocates: map nodes. Threads: any. Locks: m_mutex, guarding
// the map and the counter, held only inside each call.
#ifndef HANDLETABLE_H
#define HANDLETABLE_H

#include <mutex>
#include <unordered_map>

class HandleTable {
public:
    explicit HandleTable(int first = 1);
    ~HandleTable();

    // A new handle for obj, or 0 when obj is null or memory ran out.
    int Add(void* obj);
    // The object behind handle, or null.
    void* Find(int handle) const;
    // Forgets handle and returns its object (null if unknown).
    void* Remove(int handle);
    int Count() const;

private:
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    mutable std::mutex m_mutex;  // guards m_map and m_next
    std::unordered_map<int, void*> m_map;
    int m_first;
    int m_next;
};

#endif
