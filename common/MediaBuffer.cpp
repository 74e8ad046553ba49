// A byte buffer with a valid range (see MediaBuffer.h).
//
// Owns: its storage, allocated once by the constructor. A failed allocation
// leaves a buffer of size 0 (no range can then be set).
// Threads: one at a time; no locks.
#include "MediaBuffer.h"

#include <stdlib.h>

MediaBuffer::MediaBuffer(size_t capacity)
    : mData(capacity ? malloc(capacity) : nullptr),
      mSize(mData ? capacity : 0),
      mRangeOffset(0),
      mRangeLength(mSize) {}

MediaBuffer::~MediaBuffer() {
    free(mData);
}

void MediaBuffer::set_range(size_t offset, size_t length) {
    if (offset > mSize || length > mSize - offset) return;
    mRangeOffset = offset;
    mRangeLength = length;
}
