// GUID file store: the phone's GUID as one line of text in a file.
// Threads: any; no state.
#ifndef GUIDRW_H
#define GUIDRW_H

#include "PAL_Export.h"

class SONVARA_COMMON_API Guidrw {
public:
    // Reads the first line of the file into buf (40 bytes: at most 39
    // characters, zero-terminated, line end stripped). 0 on success.
    int LoadGuid(const char* path, char* buf);
    // Writes guid and a line end, replacing the file. 0 on success.
    int SaveGuid(const char* path, const char* guid);
};

#endif
