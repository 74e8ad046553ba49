// Files over POSIX descriptors (see PAL_File.h).
//
// Owns: nothing beyond the descriptors it opens. A handle is the descriptor
// plus one, so that a valid handle is never 0 and a failure is never mistaken
// for one.
// Threads: no shared state; positioned reads use pread and leave the
// descriptor's position alone.
#define _FILE_OFFSET_BITS 64  // 64-bit positions on 32-bit ARM too

#include "PAL_File.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The descriptor of a handle, or -1 for a value no open ever returned.
int _fd_of(long handle) {
    if (handle < 1 || handle > (long)0x7fffffff) return -1;
    return (int)(handle - 1);
}

int _open_flags(int mode) {
    if (mode & FOPEN_APPEND) return O_WRONLY | O_CREAT | O_APPEND;
    if (mode & FOPEN_CREATE) {
        int access = (mode & (FOPEN_READ | FOPEN_READWRITE)) ? O_RDWR : O_WRONLY;
        return access | O_CREAT | O_TRUNC;
    }
    if (mode & FOPEN_READWRITE) return O_RDWR;
    if (mode & FOPEN_READ) return O_RDONLY;
    return -1;
}

}  // namespace

long PAL_FileOpen(const char* path, int mode, int flags) {
    (void)flags;  // reserved by the platform; callers pass 0
    if (!path || !path[0]) return -1;
    int oflags = _open_flags(mode);
    if (oflags < 0) return -1;
    int fd;
    do {
        fd = open(path, oflags | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(fd);
        return -1;
    }
    return (long)fd + 1;
}

int PAL_FileClose(long handle) {
    int fd = _fd_of(handle);
    if (fd < 0) return -1;
    return close(fd) == 0 ? 0 : -1;
}

long PAL_FileRead(long handle, void* dst, unsigned long size) {
    int fd = _fd_of(handle);
    if (fd < 0 || (!dst && size)) return -1;
    ssize_t n;
    do {
        n = read(fd, dst, size);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : (long)n;
}

long PAL_FileWrite(long handle, const void* src, unsigned long size) {
    int fd = _fd_of(handle);
    if (fd < 0 || (!src && size)) return -1;
    const char* p = static_cast<const char*>(src);
    unsigned long done = 0;
    while (done < size) {
        ssize_t n = write(fd, p + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        done += (unsigned long)n;
    }
    return (long)done;
}

long long PAL_FileSeek(long handle, long long offset, int origin) {
    int fd = _fd_of(handle);
    if (fd < 0) return -1;
    int whence;
    switch (origin) {
        case FSEEK_START:
            whence = SEEK_SET;
            break;
        case FSEEK_END:
            whence = SEEK_END;
            break;
        case FSEEK_CURRENT:
            whence = SEEK_CUR;
            break;
        default:
            return -1;
    }
    off_t pos = lseek(fd, (off_t)offset, whence);
    return pos < 0 ? -1 : (long long)pos;
}

long PAL_FileReadAt(long handle, long long pos, void* dst, unsigned long size) {
    int fd = _fd_of(handle);
    if (fd < 0 || pos < 0 || (!dst && size)) return -1;
    ssize_t n;
    do {
        n = pread(fd, dst, size, (off_t)pos);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : (long)n;
}

long long PAL_FileSize(long handle) {
    int fd = _fd_of(handle);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) return -1;
    return (long long)st.st_size;
}
