// Helpers shared by the fuzz targets: the failure trap, the terminated-text
// and device-list checks, and the scratch file through which targets hand an input to readers
// that take a path. Header-only; each target is one single-threaded process.
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

// A broken invariant: trap, so that libFuzzer keeps the input as a crash.
inline void fuzz_require(bool ok) {
    if (!ok) __builtin_trap();
}

// True when a fixed text field ends inside its array.
inline bool fuzz_terminated(const char* field, size_t size) {
    return strnlen(field, size) < size;
}

// A discovery device list (any of its record types): count at most `max`,
// every text terminated inside its field, no address counted twice.
template <class List>
inline void fuzz_check_device_list(const List& list, int max) {
    const int count = (unsigned char)list.nAVDeviceCnt;
    fuzz_require(count <= max);
    for (int i = 0; i < max; i++) {
        const auto& d = list.AVDeviceDlna[i];
        fuzz_require(fuzz_terminated(d.pReceiverIP, sizeof(d.pReceiverIP)) &&
                     fuzz_terminated(d.pReceiverMac, sizeof(d.pReceiverMac)) &&
                     fuzz_terminated(d.pReceiverGuid, sizeof(d.pReceiverGuid)) &&
                     fuzz_terminated(d.pReceiverName, sizeof(d.pReceiverName)));
        for (int j = 0; j < i && i < count; j++)
            fuzz_require(strcmp(d.pReceiverIP, list.AVDeviceDlna[j].pReceiverIP) != 0);
    }
}

// Writes the input to this process's scratch file for `tag` (one per target,
// reused for every input) and returns its path, or nullptr when the file
// cannot be written. The file goes when the process exits normally.
inline const char* fuzz_write_scratch(const char* tag, const uint8_t* data, size_t size) {
    static char path[96];
    if (path[0] == 0) {
        // Memory-backed when the machine has it: a file system on disk makes
        // every write and rename of a target cost milliseconds.
        const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        snprintf(path, sizeof(path), "%s/%s_%d", dir, tag, (int)getpid());
        atexit([] { remove(path); });
    }
    FILE* f = fopen(path, "wb");
    if (f == nullptr) return nullptr;
    bool ok = size == 0 || fwrite(data, 1, size, f) == size;
    ok = fclose(f) == 0 && ok;
    return ok ? path : nullptr;
}

#endif
