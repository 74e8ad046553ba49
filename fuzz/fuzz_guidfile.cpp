// Fuzzes the GUID file loader with whatever a damaged or hand-edited GUID
// file may hold, and the save that follows a load.
//
// Input: the file's bytes.
// A load gives at most 39 characters with no line end in them, terminated;
// what the Java bridge makes of it for NewStringUTF is well-formed modified
// UTF-8; saving what was loaded and loading it again gives the same text.
#include <stdint.h>
#include <string.h>

#include "Guidrw.h"
#include "JniHelper.h"
#include "fuzz_support.h"

namespace {

// Modified UTF-8 as a checking VM wants it: no NUL byte, no 4-byte form,
// every lead byte followed by its continuation bytes.
bool _modified_utf8(const unsigned char* s) {
    while (*s != 0) {
        int more = *s < 0x80 ? 0 : (*s & 0xE0) == 0xC0 ? 1 : (*s & 0xF0) == 0xE0 ? 2 : -1;
        if (more < 0) return false;
        s++;
        for (int i = 0; i < more; i++, s++)
            if ((*s & 0xC0) != 0x80) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = fuzz_write_scratch("fuzz_guidfile", data, size);
    if (path == nullptr) return 0;
    Guidrw rw;
    char guid[40];
    memset(guid, 0x5a, sizeof guid);
    if (rw.LoadGuid(path, guid) != 0) {
        fuzz_require(size == 0 && guid[0] == 0);
        return 0;
    }
    fuzz_require(fuzz_terminated(guid, sizeof guid));
    const size_t len = strlen(guid);
    fuzz_require(strpbrk(guid, "\r\n") == nullptr);
    // What was loaded is the start of the file, up to a line end or a NUL.
    fuzz_require(len <= size && memcmp(guid, data, len) == 0);
    char java[64];
    jniToModifiedUtf8(guid, java, sizeof java);
    fuzz_require(_modified_utf8((const unsigned char*)java));

    fuzz_require(rw.SaveGuid(path, guid) == 0);
    char again[40];
    memset(again, 0x5a, sizeof again);
    fuzz_require(rw.LoadGuid(path, again) == 0 && strcmp(again, guid) == 0);
    return 0;
}
