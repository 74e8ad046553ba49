// Byte ring buffer with a time stamp (see Pal_RingBuf.h).
//
// Owns: the record and its storage (one allocation each, made at create).
// Threads: one writer, one reader, and Reset / SetSync / SetTimeStamp from
// any third thread. m_lock guards the indices, the fill level, the stamp,
// the read count and the armed wake; it is held for the copy too, which keeps a Reset from
// landing in the middle of a read or write (copies are a few KB of memory,
// never I/O).
#include "Pal_RingBuf.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <new>

struct PAL_RINGBUF_T {
    pthread_mutex_t m_lock;
    unsigned char* m_pData;
    unsigned long m_capacity;
    unsigned long m_readPos;   // next byte to read
    unsigned long m_used;      // bytes held
    unsigned int m_timeStamp;  // content position (s) of the first byte read after stamping
    unsigned long m_readSize;  // bytes read since the stamp was set or the buffer reset
    PAL_SEM* m_roomSem;        // armed wake (Pal_RingBufNotifyRoom), null when none
    unsigned long m_roomWanted;
};

namespace {

// Copies n bytes between the buffer's circular storage at pos and a flat
// block, in one or two pieces.
void _copy_out_l(const PAL_RINGBUF* rb, unsigned long pos, unsigned char* dst, unsigned long n) {
    unsigned long first = rb->m_capacity - pos;
    if (first > n) first = n;
    memcpy(dst, rb->m_pData + pos, first);
    memcpy(dst + first, rb->m_pData, n - first);
}

void _copy_in_l(PAL_RINGBUF* rb, unsigned long pos, const unsigned char* src, unsigned long n) {
    unsigned long first = rb->m_capacity - pos;
    if (first > n) first = n;
    memcpy(rb->m_pData + pos, src, first);
    memcpy(rb->m_pData, src + first, n - first);
}

// One field (or a value made of fields) read under the lock; none for a
// null buffer.
template <typename T, typename GET>
T _get_locked(PAL_RINGBUF* rb, T none, GET get) {
    if (!rb) return none;
    pthread_mutex_lock(&rb->m_lock);
    T value = get(rb);
    pthread_mutex_unlock(&rb->m_lock);
    return value;
}

// After a read or reset: the armed wake, disarmed, when the free space now
// reaches what its writer wants; null otherwise. Signalled by the caller
// once the lock is released.
PAL_SEM* _take_room_wake_l(PAL_RINGBUF* rb) {
    PAL_SEM* sem = rb->m_roomSem;
    if (!sem || rb->m_capacity - rb->m_used < rb->m_roomWanted) return nullptr;
    rb->m_roomSem = nullptr;
    return sem;
}

}  // namespace

PAL_RINGBUF* Pal_RingBufCreate(unsigned long capacity) {
    if (capacity == 0) return nullptr;
    PAL_RINGBUF* rb = new (std::nothrow) PAL_RINGBUF;
    if (!rb) return nullptr;
    rb->m_pData = static_cast<unsigned char*>(malloc(capacity));
    if (!rb->m_pData) {
        delete rb;
        return nullptr;
    }
    pthread_mutex_init(&rb->m_lock, nullptr);
    rb->m_capacity = capacity;
    rb->m_readPos = 0;
    rb->m_used = 0;
    rb->m_timeStamp = 0;
    rb->m_readSize = 0;
    rb->m_roomSem = nullptr;
    rb->m_roomWanted = 0;
    return rb;
}

void Pal_RingBufClose(PAL_RINGBUF* rb) {
    if (!rb) return;
    pthread_mutex_destroy(&rb->m_lock);
    free(rb->m_pData);
    delete rb;
}

unsigned long Pal_RingBufAvailable(PAL_RINGBUF* rb) {
    return _get_locked<unsigned long>(
        rb, 0, [](const PAL_RINGBUF* r) { return r->m_capacity - r->m_used; });
}

unsigned long Pal_RingBufUsed(PAL_RINGBUF* rb) {
    return _get_locked<unsigned long>(rb, 0, [](const PAL_RINGBUF* r) { return r->m_used; });
}

int Pal_RingBufWrite(PAL_RINGBUF* rb, const void* src, unsigned long n) {
    if (!rb || (!src && n)) return -1;
    int rc = -1;
    pthread_mutex_lock(&rb->m_lock);
    if (n <= rb->m_capacity - rb->m_used) {
        unsigned long writePos = (rb->m_readPos + rb->m_used) % rb->m_capacity;
        _copy_in_l(rb, writePos, static_cast<const unsigned char*>(src), n);
        rb->m_used += n;
        rc = 0;
    }
    pthread_mutex_unlock(&rb->m_lock);
    return rc;
}

int Pal_RingBufRead(PAL_RINGBUF* rb, void* dst, unsigned long n) {
    if (!rb) return -1;
    int rc = -1;
    pthread_mutex_lock(&rb->m_lock);
    if (n <= rb->m_used) {
        if (dst) _copy_out_l(rb, rb->m_readPos, static_cast<unsigned char*>(dst), n);
        rb->m_readPos = (rb->m_readPos + n) % rb->m_capacity;
        rb->m_used -= n;
        rb->m_readSize += n;
        rc = 0;
    }
    PAL_SEM* wake = _take_room_wake_l(rb);
    pthread_mutex_unlock(&rb->m_lock);
    if (wake) PAL_SemSignal(wake, 1);
    return rc;
}

void Pal_RingBufReset(PAL_RINGBUF* rb) {
    if (!rb) return;
    pthread_mutex_lock(&rb->m_lock);
    rb->m_readPos = 0;
    rb->m_used = 0;
    rb->m_readSize = 0;
    PAL_SEM* wake = _take_room_wake_l(rb);
    pthread_mutex_unlock(&rb->m_lock);
    if (wake) PAL_SemSignal(wake, 1);
}

int Pal_RingBufNotifyRoom(PAL_RINGBUF* rb, unsigned long room, PAL_SEM* sem) {
    if (!rb) return -1;
    pthread_mutex_lock(&rb->m_lock);
    rb->m_roomSem = nullptr;
    int rc = sem ? 1 : -1;
    if (sem && rb->m_capacity - rb->m_used < room) {
        rb->m_roomSem = sem;
        rb->m_roomWanted = room;
        rc = 0;
    }
    pthread_mutex_unlock(&rb->m_lock);
    return rc;
}

void Pal_RingBufSetTimeStamp(PAL_RINGBUF* rb, unsigned int ts) {
    if (!rb) return;
    pthread_mutex_lock(&rb->m_lock);
    if (ts != rb->m_timeStamp) {
        rb->m_timeStamp = ts;
        rb->m_readSize = 0;
    }
    pthread_mutex_unlock(&rb->m_lock);
}

unsigned int Pal_RingBufGetTimeStamp(PAL_RINGBUF* rb) {
    return _get_locked<unsigned int>(rb, 0, [](const PAL_RINGBUF* r) { return r->m_timeStamp; });
}

unsigned long Pal_RingBufGetReadSize(PAL_RINGBUF* rb) {
    return _get_locked<unsigned long>(rb, 0, [](const PAL_RINGBUF* r) { return r->m_readSize; });
}

void Pal_RingBufSetSync(PAL_RINGBUF* rb, unsigned int ts, unsigned long readSize) {
    if (!rb) return;
    pthread_mutex_lock(&rb->m_lock);
    rb->m_timeStamp = ts;
    rb->m_readSize = readSize;
    pthread_mutex_unlock(&rb->m_lock);
}
