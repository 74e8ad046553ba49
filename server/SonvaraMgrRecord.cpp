// The manager's records: allocation and release of device records, groups
// and group members, shared by the manager and the group file reader.
// Records are created zero-filled; a group owns its members, a member only
// points at its device record. Threads: any; no locks.
#include "SonvaraMgr.h"

#include <string.h>

#include <new>

LPDEVICE_INFO NewDeviceInfo() {
    return new (std::nothrow) _device_info();
}

LPGITEM NewGroupItem() {
    return new (std::nothrow) _gitem();
}

LPGROUP_INFO NewGroupInfo() {
    return new (std::nothrow) _group_info();
}

void FreeGroupInfo(LPGROUP_INFO group) {
    if (!group) return;
    LPGITEM item = group->_lpdevice_list;
    while (item) {
        LPGITEM next = item->_next;
        delete item;
        item = next;
    }
    delete group;
}

void CopyField(char* dst, size_t dstSize, const char* src) {
    if (!dst || dstSize == 0) return;
    size_t n = src ? strnlen(src, dstSize - 1) : 0;
    if (n) memcpy(dst, src, n);
    dst[n] = '\0';
}
