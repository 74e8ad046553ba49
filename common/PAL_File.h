// Files.
//
// A file handle is a long, at least 1 on success; 0 or below is a failure.
// Threads: a handle is used by one thread at a time; PAL_FileReadAt does not
// move the handle's position and so may run beside sequential reads.
#ifndef PAL_FILE_H
#define PAL_FILE_H

#include "PAL_Export.h"

extern "C" {

// The platform's own numbering (not the C library's).
enum FOpenMode {
    FOPEN_READ = 1,
    FOPEN_READWRITE = 2,
    FOPEN_CREATE = 4,  // create or truncate, write
    FOPEN_APPEND = 8,  // create if missing, write at the end
};

enum FSeekOrigin {
    FSEEK_START = 0,
    FSEEK_END = 1,
    FSEEK_CURRENT = 2,
};

SONVARA_COMMON_API long PAL_FileOpen(const char* path, int mode, int flags);
SONVARA_COMMON_API int PAL_FileClose(long handle);
// Bytes read (0 at the end), -1 on error.
SONVARA_COMMON_API long PAL_FileRead(long handle, void* dst, unsigned long size);
SONVARA_COMMON_API long PAL_FileWrite(long handle, const void* src, unsigned long size);
// New absolute position, or a negative value on failure.
SONVARA_COMMON_API long long PAL_FileSeek(long handle, long long offset, int origin);
// Reads at an absolute position without moving the handle's position.
// Bytes read (short or 0 at the end), negative on error.
SONVARA_COMMON_API long PAL_FileReadAt(long handle, long long pos, void* dst, unsigned long size);
// Size in bytes, negative on error.
SONVARA_COMMON_API long long PAL_FileSize(long handle);
}

#endif
