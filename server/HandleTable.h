// HandleTable: the int handles that name live objects to callers that can
// only carry a 32-bit int (the Java application, the manager's records, the
// facade's streamers and discovery object).
//
// Owns: the map from handle to object pointer (not the objects). Handles are
// positive ints counted up from a base and never handed out twice while the
// table lives, so a removed or made-up handle finds nothing instead of a
// freed object. A caller that uses an object while another thread may
// delete it holds it with Acquire/Release: Remove then waits until the last
// holder has released it, so the object is never freed under a caller.
// Allocates: map nodes, and a semaphore per Remove that has to wait. Threads:
// any. Locks: m_mutex (a PAL mutex), guarding the map and the counter, held
// only inside each call (Remove waits on its slot's semaphore with it
// released).
#ifndef HANDLETABLE_H
#define HANDLETABLE_H

#include <unordered_map>

#include "PAL_Sync.h"

class HandleTable {
public:
    explicit HandleTable(int first = 1);
    ~HandleTable();

    // A new handle for obj, or 0 when obj is null or memory ran out.
    int Add(void* obj);
    // The object behind handle, or null (also once its removal has begun).
    void* Find(int handle) const;
    // The handle of obj, or 0 when obj is not in the table.
    int HandleOf(const void* obj) const;
    // Like Find, and keeps the object from being removed until Release.
    void* Acquire(int handle);
    void Release(int handle);
    // Forgets handle and returns its object (null if unknown), after every
    // holder has released it. Must not be called by a holder of handle.
    void* Remove(int handle);
    int Count() const;

private:
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    struct Slot {
        void* obj;
        int refs;           // Acquire calls not yet released
        bool removed;       // Remove has begun: no new holders
        PAL_SEM* lastGone;  // Remove waits on it; the last Release signals it
    };

    PAL_MUTEX* m_mutex;  // guards m_map and m_next
    std::unordered_map<int, Slot> m_map;
    int m_first;
    int m_next;
};

#endif
