// PlurafonMgr: the service device registry (receivers being served a
// stream, by group id) and the service group registry, which is declared but
// never created and so stays inert.
//
// Owns: the registry headers and their items (C allocator). Threads: any.
// Locks: each registry's own pMutex, taken inside each operation only; a
// caller may hold _lpmutex (order: _lpmutex, then the registry's mutex).
#include <stdlib.h>
#include <string.h>

#include "SonvaraMgr.h"

namespace {

// Circular doubly linked lists: the same two steps serve both registries.
template <class ITEM>
void _ring_append(ITEM** list, ITEM* item) {
    if (!*list) {
        item->pPrev = item->pNext = item;
        *list = item;
        return;
    }
    ITEM* last = (*list)->pPrev;
    item->pPrev = last;
    item->pNext = *list;
    last->pNext = item;
    (*list)->pPrev = item;
}

// Unlinks item and returns the item after it (null when the ring is empty).
template <class ITEM>
ITEM* _ring_unlink(ITEM** list, ITEM* item) {
    ITEM* next = item->pNext;
    if (next == item) {
        *list = nullptr;
        return nullptr;
    }
    item->pPrev->pNext = next;
    next->pPrev = item->pPrev;
    if (*list == item) *list = next;
    return next;
}

// Both registries' headers: created with their mutex, closed, emptied.
template <class LIST>
int _registry_create(LIST** out) {
    LIST* header = (LIST*)calloc(1, sizeof(LIST));
    if (!header) return PLURAFON_ERR_NO_MEMORY;
    if (!PAL_MutexCreate(&header->pMutex)) {
        free(header);
        return PLURAFON_ERR_MUTEX;
    }
    *out = header;
    return 0;
}

template <class LIST>
void _registry_close(LIST** pp) {
    if (!*pp) return;
    PAL_MutexDelete((*pp)->pMutex);
    free(*pp);
    *pp = nullptr;
}

template <class LIST>
void _registry_clear(LIST* header, int LIST::*count) {
    if (!header) return;
    PalLock lock(header->pMutex);
    while (header->list) {
        auto* item = header->list;
        _ring_unlink(&header->list, item);
        free(item);
    }
    header->*count = 0;
}

}  // namespace

// ------------------------------------------------------------ service devices

int PlurafonMgr::ServiceDeviceInit() {
    return _registry_create(&m_pDeviceList);
}

void PlurafonMgr::ServiceDeviceClose() {
    _registry_close(&m_pDeviceList);
}

void PlurafonMgr::ServiceDeviceAdd(int groupId, const char* ip) {
    if (!m_pDeviceList) return;
    debug_UI("[PlurafonMgr] ServiceDeviceAdd >>>>>>>>>>");
    SERVICE_DEVICE_ITEM* item = (SERVICE_DEVICE_ITEM*)calloc(1, sizeof(SERVICE_DEVICE_ITEM));
    if (!item) return;
    item->groupId = groupId;
    CopyField(item->pIP, sizeof(item->pIP), ip);
    {
        PalLock lock(m_pDeviceList->pMutex);
        debug_UI("[PlurafonMgr] ServiceDeviceAdd pList : %d", m_pDeviceList->list ? 1 : 0);
        _ring_append(&m_pDeviceList->list, item);
        m_pDeviceList->DeviceCnt++;
    }
    debug_UI("[PlurafonMgr] ServiceDeviceAdd <<<<<<<<<<<<<<");
}

void PlurafonMgr::ServiceDeviceDeleteReceiver(const char* ip) {
    if (!m_pDeviceList || !ip) return;
    PalLock lock(m_pDeviceList->pMutex);
    SERVICE_DEVICE_ITEM* first = m_pDeviceList->list;
    SERVICE_DEVICE_ITEM* item = first;
    while (item) {
        if (strcmp(item->pIP, ip) == 0) {
            _ring_unlink(&m_pDeviceList->list, item);
            free(item);
            m_pDeviceList->DeviceCnt--;
            break;
        }
        item = item->pNext;
        if (item == first) break;
    }
}

void PlurafonMgr::ServiceDeviceDeleteGroup(int groupId) {
    if (!m_pDeviceList) return;
    debug_UI("[PlurafonMgr] ServiceDeviceDeleteGroup groupId : %d", groupId);
    PalLock lock(m_pDeviceList->pMutex);
    int n = m_pDeviceList->DeviceCnt;
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    // One turn of the ring: n items, each visited once.
    for (int i = 0; i < n && item; i++) {
        SERVICE_DEVICE_ITEM* next = item->pNext;
        if (item->groupId == groupId) {
            debug_UI("[PlurafonMgr] ServiceDeviceDeleteGroup remove groupId : %d", item->groupId);
            next = _ring_unlink(&m_pDeviceList->list, item);
            free(item);
            m_pDeviceList->DeviceCnt--;
        }
        item = next;
    }
    debug_UI("[PlurafonMgr] ServiceDeviceDeleteGroup DeviceCnt : %d", m_pDeviceList->DeviceCnt);
}

void PlurafonMgr::ServiceDeviceDeleteAll() {
    _registry_clear(m_pDeviceList, &SERVICE_DEVICE_LIST::DeviceCnt);
}

int PlurafonMgr::ServiceDeviceGetCntList() {
    if (!m_pDeviceList) return 0;
    PalLock lock(m_pDeviceList->pMutex);
    int n = m_pDeviceList->DeviceCnt;
    return n;
}

void PlurafonMgr::ServiceDeviceGetList(char** buffers) {
    if (!m_pDeviceList || !buffers) return;
    PalLock lock(m_pDeviceList->pMutex);
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt; i++, item = item->pNext) {
        // At most 19 characters: the buffer's zero fill ends the text.
        memcpy(buffers[i], item->pIP, strnlen(item->pIP, AV_IP_LEN - 1));
    }
}

int PlurafonMgr::ServiceDeviceGetGroupIdOfReceiver(const char* ip) {
    if (!m_pDeviceList || !ip) return 0;
    PalLock lock(m_pDeviceList->pMutex);
    int groupId = 0;
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt; i++, item = item->pNext) {
        if (strcmp(item->pIP, ip) == 0) {
            groupId = item->groupId;
            break;
        }
    }
    return groupId;
}

bool PlurafonMgr::_is_exist_servicedevice(const char* ip) {
    if (!m_pDeviceList || !ip) return false;
    PalLock lock(m_pDeviceList->pMutex);
    bool found = false;
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt && !found; i++, item = item->pNext) {
        found = strcmp(item->pIP, ip) == 0;
    }
    return found;
}

// ------------------------------------------------------------ service groups
// Never created (ServiceGroupInit has no caller), so each of these returns
// at its first test.

int PlurafonMgr::ServiceGroupInit() {
    return _registry_create(&m_pGroupList);
}

void PlurafonMgr::ServiceGroupClose() {
    _registry_close(&m_pGroupList);
}

void PlurafonMgr::ServiceGroupAdd(int group_id) {
    if (!m_pGroupList) return;
    SERVICE_GROUP_ITEM* item = (SERVICE_GROUP_ITEM*)calloc(1, sizeof(SERVICE_GROUP_ITEM));
    if (!item) return;
    item->group_id = group_id;
    PalLock lock(m_pGroupList->pMutex);
    _ring_append(&m_pGroupList->list, item);
    m_pGroupList->GroupCnt++;
}

void PlurafonMgr::ServiceGroupDelete(int group_id) {
    if (!m_pGroupList) return;
    PalLock lock(m_pGroupList->pMutex);
    SERVICE_GROUP_ITEM* item = m_pGroupList->list;
    for (int i = 0; item && i < m_pGroupList->GroupCnt; i++, item = item->pNext) {
        if (item->group_id == group_id) {
            _ring_unlink(&m_pGroupList->list, item);
            free(item);
            m_pGroupList->GroupCnt--;
            break;
        }
    }
}

void PlurafonMgr::ServiceGroupDeleteAll() {
    _registry_clear(m_pGroupList, &SERVICE_GROUP_LIST::GroupCnt);
}

void PlurafonMgr::SetServiceGroup(int group_id, int bIsPlay) {
    if (!m_pGroupList) return;
    PalLock lock(m_pGroupList->pMutex);
    SERVICE_GROUP_ITEM* item = m_pGroupList->list;
    for (int i = 0; item && i < m_pGroupList->GroupCnt; i++, item = item->pNext) {
        if (item->group_id == group_id) {
            item->bIsPlay = bIsPlay;
            break;
        }
    }
}
