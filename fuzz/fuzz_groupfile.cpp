// Fuzzes the group file reader with whatever a hand-edited, truncated or
// corrupted multi_group_play.ini may hold.
//
// Input: the file's bytes.
// The groups read must be well formed: every name and MAC terminated inside
// its array, member counts equal to the members linked, every member
// pointing at one of the device records read; the result is one of the
// reader's codes.
#include <stdint.h>
#include <string.h>

#include <set>

#include "Grouprw.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    GroupRW rw;
    int r = rw.LoadBuffer((const char*)data, (unsigned int)size);
    fuzz_require(r == GROUP_RW_OK || r == GROUP_RW_ERR_INVALID_DATA);
    unsigned int count = rw.GetGroupCount();
    LPGROUP_INFO groups = rw.GetGroupList();
    LPDEVICE_INFO devices = rw.GetDeviceList();

    std::set<LPDEVICE_INFO> known;
    for (LPDEVICE_INFO d = devices; d; d = d->_next) {
        fuzz_require(fuzz_terminated(d->_MacAddr, sizeof(d->_MacAddr)));
        known.insert(d);
    }
    unsigned int seen = 0;
    while (groups) {
        LPGROUP_INFO next = groups->_next;
        fuzz_require(fuzz_terminated(groups->group_name, sizeof(groups->group_name)));
        int members = 0;
        for (LPGITEM item = groups->_lpdevice_list; item; item = item->_next, members++) {
            fuzz_require(known.count(item->_lpdevice) == 1);
        }
        fuzz_require(members == groups->_gitem_cnt);
        FreeGroupInfo(groups);
        groups = next;
        seen++;
    }
    fuzz_require(seen == count);
    while (devices) {
        LPDEVICE_INFO next = devices->_next;
        delete devices;
        devices = next;
    }
    return 0;
}
