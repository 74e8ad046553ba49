// A byte buffer with a valid range, handed out by the MP3 frame parser.
// Owns its storage. Threads: one at a time.
#ifndef MEDIABUFFER_H
#define MEDIABUFFER_H

#include <stddef.h>

#include "PAL_Export.h"

class SONVARA_COMMON_API MediaBuffer {
public:
    explicit MediaBuffer(size_t capacity);
    ~MediaBuffer();
    MediaBuffer(const MediaBuffer&) = delete;
    MediaBuffer& operator=(const MediaBuffer&) = delete;

    void* data() const { return mData; }
    size_t size() const { return mSize; }
    size_t range_offset() const { return mRangeOffset; }
    size_t range_length() const { return mRangeLength; }
    // Ignored (range unchanged) when offset + length exceeds the capacity.
    void set_range(size_t offset, size_t length);

    void* mData;
    size_t mSize;
    size_t mRangeOffset;
    size_t mRangeLength;
};

#endif
