// GUID file store (see Guidrw.h).
//
// Owns: nothing between calls. A save writes a temporary file beside the
// target and renames it over, so that a crash never leaves half a GUID.
// Threads: any; no state, no locks.
#include "Guidrw.h"

#include <stdio.h>
#include <string.h>

namespace {

const size_t kGuidMax = 39;  // the caller's buffer is 40 bytes

// Length of guid's first line, at most kGuidMax.
size_t _line_length(const char* text) {
    size_t n = 0;
    while (n < kGuidMax && text[n] && text[n] != '\r' && text[n] != '\n') n++;
    return n;
}

}  // namespace

int Guidrw::LoadGuid(const char* path, char* buf) {
    if (!path || !path[0] || !buf) return -1;
    buf[0] = 0;
    FILE* f = fopen(path, "r");
    if (!f) return -1;
    char line[kGuidMax + 1];
    int rc = -1;
    if (fgets(line, sizeof(line), f)) {
        size_t n = _line_length(line);
        memcpy(buf, line, n);
        buf[n] = 0;
        rc = 0;
    }
    fclose(f);
    return rc;
}

int Guidrw::SaveGuid(const char* path, const char* guid) {
    if (!path || !path[0] || !guid) return -1;
    char tmp[4096];
    int len = snprintf(tmp, sizeof(tmp), "%s.tmp", path);
    if (len < 0 || (size_t)len >= sizeof(tmp)) return -1;
    FILE* f = fopen(tmp, "w");
    if (!f) return -1;
    size_t n = _line_length(guid);
    bool ok = fwrite(guid, 1, n, f) == n && fputc('\n', f) != EOF;
    ok = (fclose(f) == 0) && ok;
    if (ok && rename(tmp, path) == 0) return 0;
    remove(tmp);
    return -1;
}
