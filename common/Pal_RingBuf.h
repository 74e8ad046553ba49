// Byte ring buffer with a time stamp, one per receiver session.
//
// Capacity is fixed at create. Writes and reads are whole or nothing.
// The buffer keeps a time stamp (the content position, in seconds, of the
// first byte read after the stamp was set) and the number of bytes read since
// the stamp was set, so that stamp + bytes read / byte rate is the play
// position even right after a seek.
// Threads: one writer thread and one reader thread at once, plus Reset /
// SetSync from a third thread; a small internal mutex guards the indices.
// A writer waiting for room is woken by the reader (Pal_RingBufNotifyRoom).
#ifndef PAL_RINGBUF_H
#define PAL_RINGBUF_H

#include "PAL_Export.h"
#include "PAL_Sync.h"

extern "C" {

typedef struct PAL_RINGBUF_T PAL_RINGBUF;

// A new empty buffer of capacity bytes with stamp 0, or null.
SONVARA_COMMON_API PAL_RINGBUF* Pal_RingBufCreate(unsigned long capacity);
SONVARA_COMMON_API void Pal_RingBufClose(PAL_RINGBUF* rb);

// Free space in bytes.
SONVARA_COMMON_API unsigned long Pal_RingBufAvailable(PAL_RINGBUF* rb);
// Bytes held (capacity - free space).
SONVARA_COMMON_API unsigned long Pal_RingBufUsed(PAL_RINGBUF* rb);

// Writes all n bytes, or nothing when they do not fit: 0 on success, -1.
SONVARA_COMMON_API int Pal_RingBufWrite(PAL_RINGBUF* rb, const void* src, unsigned long n);
// Copies and consumes n bytes, or nothing when fewer are held: 0 or -1.
// dst may be null to discard n bytes.
SONVARA_COMMON_API int Pal_RingBufRead(PAL_RINGBUF* rb, void* dst, unsigned long n);

// Empties the buffer and restarts the read count; the stamp is kept.
SONVARA_COMMON_API void Pal_RingBufReset(PAL_RINGBUF* rb);

// Lets a writer sleep until there is room instead of polling: arms a
// one-shot wake, so that the first read or reset that leaves at least room
// bytes free signals sem once (PAL_SemSignal(sem, 1), from the reading
// thread, after the buffer's lock is released) and disarms. 1 when that
// much is free already (nothing armed), 0 when armed, -1 for a null buffer
// or semaphore. Arming again replaces the previous wake; the semaphore must
// outlive the buffer or be disarmed with Pal_RingBufNotifyRoom(rb, 0, null).
SONVARA_COMMON_API int Pal_RingBufNotifyRoom(PAL_RINGBUF* rb, unsigned long room, PAL_SEM* sem);

// A value other than the current stamp is stored and restarts the read
// count; the same value changes nothing.
SONVARA_COMMON_API void Pal_RingBufSetTimeStamp(PAL_RINGBUF* rb, unsigned int ts);
SONVARA_COMMON_API unsigned int Pal_RingBufGetTimeStamp(PAL_RINGBUF* rb);
// Bytes read since the stamp was last set (or the buffer reset).
SONVARA_COMMON_API unsigned long Pal_RingBufGetReadSize(PAL_RINGBUF* rb);
// Sets stamp and read count together (lines a late receiver up with another).
SONVARA_COMMON_API void Pal_RingBufSetSync(PAL_RINGBUF* rb, unsigned int ts,
                                           unsigned long readSize);
}

#endif
