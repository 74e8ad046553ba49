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
    const unsigned int count = rw.GetGroupCount();
    std::set<LPDEVICE_INFO> known;
    for (LPDEVICE_INFO d = rw.GetDeviceList(); d; d = d->_next) {
        fuzz_require(fuzz_terminated(d->_MacAddr, sizeof(d->_MacAddr)));
        known.insert(d);
    }
    unsigned int seen = 0;
    for (LPGROUP_INFO g = rw.GetGroupList(), next; g; g = next, seen++) {
        next = g->_next;
        fuzz_require(fuzz_terminated(g->group_name, sizeof(g->group_name)));
        int members = 0;
        for (LPGITEM item = g->_lpdevice_list; item; item = item->_next, members++)
            fuzz_require(known.count(item->_lpdevice) == 1);
        fuzz_require(members == g->_gitem_cnt);
        FreeGroupInfo(g);
    }
    fuzz_require(seen == count);
    for (LPDEVICE_INFO d : known) delete d;
    return 0;
}
