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

}  // namespace

// ------------------------------------------------------------ service devices

int PlurafonMgr::ServiceDeviceInit() {
    SERVICE_DEVICE_LIST* header = (SERVICE_DEVICE_LIST*)calloc(1, sizeof(SERVICE_DEVICE_LIST));
    if (!header) return PLURAFON_ERR_NO_MEMORY;
    if (!PAL_MutexCreate(&header->pMutex)) {
        free(header);
        return PLURAFON_ERR_MUTEX;
    }
    m_pDeviceList = header;
    return 0;
}

void PlurafonMgr::ServiceDeviceClose() {
    if (!m_pDeviceList) return;
    PAL_MutexDelete(m_pDeviceList->pMutex);
    free(m_pDeviceList);
    m_pDeviceList = nullptr;
}

void PlurafonMgr::ServiceDeviceAdd(int groupId, const char* ip) {
    if (!m_pDeviceList) return;
    debug_UI("[PlurafonMgr] ServiceDeviceAdd >>>>>>>>>>");
    SERVICE_DEVICE_ITEM* item = (SERVICE_DEVICE_ITEM*)calloc(1, sizeof(SERVICE_DEVICE_ITEM));
    if (!item) return;
    item->groupId = groupId;
    CopyField(item->pIP, sizeof(item->pIP), ip);
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    debug_UI("[PlurafonMgr] ServiceDeviceAdd pList : %d", m_pDeviceList->list ? 1 : 0);
    _ring_append(&m_pDeviceList->list, item);
    m_pDeviceList->DeviceCnt++;
    PAL_MutexUnLock(m_pDeviceList->pMutex);
    debug_UI("[PlurafonMgr] ServiceDeviceAdd <<<<<<<<<<<<<<");
}

void PlurafonMgr::ServiceDeviceDeleteReceiver(const char* ip) {
    if (!m_pDeviceList || !ip) return;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
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
    PAL_MutexUnLock(m_pDeviceList->pMutex);
}

void PlurafonMgr::ServiceDeviceDeleteGroup(int groupId) {
    if (!m_pDeviceList) return;
    debug_UI("[PlurafonMgr] ServiceDeviceDeleteGroup groupId : %d", groupId);
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
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
    PAL_MutexUnLock(m_pDeviceList->pMutex);
}

void PlurafonMgr::ServiceDeviceDeleteAll() {
    if (!m_pDeviceList) return;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    while (m_pDeviceList->list) {
        SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
        _ring_unlink(&m_pDeviceList->list, item);
        free(item);
    }
    m_pDeviceList->DeviceCnt = 0;
    PAL_MutexUnLock(m_pDeviceList->pMutex);
}

int PlurafonMgr::ServiceDeviceGetCntList() {
    if (!m_pDeviceList) return 0;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    int n = m_pDeviceList->DeviceCnt;
    PAL_MutexUnLock(m_pDeviceList->pMutex);
    return n;
}

void PlurafonMgr::ServiceDeviceGetList(char** buffers) {
    if (!m_pDeviceList || !buffers) return;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt; i++, item = item->pNext) {
        // At most 19 characters: the buffer's zero fill ends the text.
        memcpy(buffers[i], item->pIP, strnlen(item->pIP, AV_IP_LEN - 1));
    }
    PAL_MutexUnLock(m_pDeviceList->pMutex);
}

int PlurafonMgr::ServiceDeviceGetGroupIdOfReceiver(const char* ip) {
    if (!m_pDeviceList || !ip) return 0;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    int groupId = 0;
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt; i++, item = item->pNext) {
        if (strcmp(item->pIP, ip) == 0) {
            groupId = item->groupId;
            break;
        }
    }
    PAL_MutexUnLock(m_pDeviceList->pMutex);
    return groupId;
}

bool PlurafonMgr::_is_exist_servicedevice(const char* ip) {
    if (!m_pDeviceList || !ip) return false;
    PAL_MutexLock(m_pDeviceList->pMutex, 1);
    bool found = false;
    SERVICE_DEVICE_ITEM* item = m_pDeviceList->list;
    for (int i = 0; item && i < m_pDeviceList->DeviceCnt && !found; i++, item = item->pNext) {
        found = strcmp(item->pIP, ip) == 0;
    }
    PAL_MutexUnLock(m_pDeviceList->pMutex);
    return found;
}

// ------------------------------------------------------------ service groups
// Never created (ServiceGroupInit has no caller), so each of these returns
// at its first test.

int PlurafonMgr::ServiceGroupInit() {
    SERVICE_GROUP_LIST* header = (SERVICE_GROUP_LIST*)calloc(1, sizeof(SERVICE_GROUP_LIST));
    if (!header) return PLURAFON_ERR_NO_MEMORY;
    if (!PAL_MutexCreate(&header->pMutex)) {
        free(header);
        return PLURAFON_ERR_MUTEX;
    }
    m_pGroupList = header;
    return 0;
}

void PlurafonMgr::ServiceGroupClose() {
    if (!m_pGroupList) return;
    PAL_MutexDelete(m_pGroupList->pMutex);
    free(m_pGroupList);
    m_pGroupList = nullptr;
}

void PlurafonMgr::ServiceGroupAdd(int group_id) {
    if (!m_pGroupList) return;
    SERVICE_GROUP_ITEM* item = (SERVICE_GROUP_ITEM*)calloc(1, sizeof(SERVICE_GROUP_ITEM));
    if (!item) return;
    item->group_id = group_id;
    PAL_MutexLock(m_pGroupList->pMutex, 1);
    _ring_append(&m_pGroupList->list, item);
    m_pGroupList->GroupCnt++;
    PAL_MutexUnLock(m_pGroupList->pMutex);
}

void PlurafonMgr::ServiceGroupDelete(int group_id) {
    if (!m_pGroupList) return;
    PAL_MutexLock(m_pGroupList->pMutex, 1);
    SERVICE_GROUP_ITEM* item = m_pGroupList->list;
    for (int i = 0; item && i < m_pGroupList->GroupCnt; i++, item = item->pNext) {
        if (item->group_id == group_id) {
            _ring_unlink(&m_pGroupList->list, item);
            free(item);
            m_pGroupList->GroupCnt--;
            break;
        }
    }
    PAL_MutexUnLock(m_pGroupList->pMutex);
}

void PlurafonMgr::ServiceGroupDeleteAll() {
    if (!m_pGroupList) return;
    PAL_MutexLock(m_pGroupList->pMutex, 1);
    while (m_pGroupList->list) {
        SERVICE_GROUP_ITEM* item = m_pGroupList->list;
        _ring_unlink(&m_pGroupList->list, item);
        free(item);
    }
    m_pGroupList->GroupCnt = 0;
    PAL_MutexUnLock(m_pGroupList->pMutex);
}

void PlurafonMgr::SetServiceGroup(int group_id, int bIsPlay) {
    if (!m_pGroupList) return;
    PAL_MutexLock(m_pGroupList->pMutex, 1);
    SERVICE_GROUP_ITEM* item = m_pGroupList->list;
    for (int i = 0; item && i < m_pGroupList->GroupCnt; i++, item = item->pNext) {
        if (item->group_id == group_id) {
            item->bIsPlay = bIsPlay;
            break;
        }
    }
    PAL_MutexUnLock(m_pGroupList->pMutex);
}
