// The manager's records: allocation and release of device records, groups
// and group members, shared by the manager and the group file reader, and
// the reading of a JOIN request text. Records are created zero-filled; a
// group owns its members, a member only points at its device record.
// Threads: any; no locks.
#include "SonvaraMgrRecord.h"

#include <stdio.h>
#include <string.h>

#include <new>

#include "debug_UI.h"

namespace {

// Decimal number at text: digits only, saturating; none gives 0.
unsigned int _read_unsigned(const char* text) {
    unsigned long long v = 0;
    for (; *text >= '0' && *text <= '9'; text++) {
        v = v * 10 + (unsigned)(*text - '0');
        if (v > 0xffffffffull) return 0xffffffffu;
    }
    return (unsigned int)v;
}

}  // namespace

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

int ParseJoinReq(const char* text, JOIN_REQ* out) {
    memset(out, 0, sizeof(*out));
    if (!text) return 1;
    const char* mac = strstr(text, "MAC: ");
    if (!mac) {
        debug_UI("invalid join pack(not found mac)");
        return 1;
    }
    sscanf(mac, "MAC: %19s", out->mac);
    const char* guid = strstr(mac, "GUID: ");
    if (!guid) {
        debug_UI("invalid join pack(not found guid)");
        return 2;
    }
    sscanf(guid, "GUID: %39s", out->guid);
    const char* name = strstr(guid, "NAME: ");
    if (!name) {
        debug_UI("invalid join pack(not found name)");
        return 3;
    }
    name += 6;
    const char* crlf = strstr(name, "\r\n");
    size_t len = crlf ? (size_t)(crlf - name) : strlen(name);
    if (len > sizeof(out->name) - 1) len = sizeof(out->name) - 1;
    memcpy(out->name, name, len);
    out->name[len] = '\0';
    if (!crlf) return 0;

    const char* vol = strstr(crlf, "VOL: ");
    if (vol) out->vol = _read_unsigned(vol + 5);
    const char* ts = strstr(vol ? vol : crlf, "REQ_TS: ");
    if (vol && ts) {
        char tsText[JOIN_REQ_TS_LEN] = {0};
        sscanf(ts, "REQ_TS: %63s", tsText);
        out->req_ts = _read_unsigned(tsText);
        out->bHasTs = true;
    }
    return 0;
}
