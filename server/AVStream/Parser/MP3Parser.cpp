// MP3Parser and its free functions (see MP3Parser.h).
//
// The file is hostile until parsed: every length taken from it (ID3 sizes,
// frame sizes, Xing counts, seek targets) is checked against the reads that
// follow and the one frame buffer, positions are kept in 64 bits while they
// are computed, and every loop advances or ends at a short read.
#include "MP3Parser.h"

#include <limits.h>
#include <math.h>
#include <string.h>
#include <new>

#include "ContentProbe.h"
#include "MediaBuffer.h"
#include "PAL_Clock.h"
#include "PAL_File.h"

namespace {

// Reads exactly n bytes at pos; false on a short read or an error.
bool read_exact(long nfd, long long pos, void* dst, unsigned long n) {
    if (pos < 0) return false;
    return PAL_FileReadAt(nfd, pos, dst, n) == static_cast<long>(n);
}

bool read_header(long nfd, long long pos, unsigned long* header) {
    unsigned char b[4];
    if (!read_exact(nfd, pos, b, sizeof b)) return false;
    *header = U32_AT(b);
    return true;
}

bool same_stream(unsigned long a, unsigned long b) {
    return (a & MP3_HEADER_MATCH_MASK) == (b & MP3_HEADER_MATCH_MASK);
}

// Syncsafe size of an ID3v2 tag header: 7 bits from each of bytes 6 to 9.
long long id3_body_size(const unsigned char* p) {
    return (long long)(p[6] & 0x7F) << 21 | (p[7] & 0x7F) << 14 | (p[8] & 0x7F) << 7 |
           (p[9] & 0x7F);
}

// Three frames of the same stream must follow the candidate at pos.
bool confirmed(long nfd, unsigned long candidate, long long pos, unsigned long size) {
    long long test_pos = pos + (long long)size;
    for (int i = 0; i < 3; i++) {
        unsigned long next = 0, next_size = 0;
        if (!read_header(nfd, test_pos, &next) || !same_stream(next, candidate) ||
            !get_mp3_frame_size(next, &next_size, nullptr, nullptr, nullptr))
            return false;
        test_pos += (long long)next_size;
    }
    return true;
}

}  // namespace

bool get_mp3_frame_size(unsigned long header, unsigned long* frame_size, int* out_sampling_rate,
                        int* out_channels, int* out_bitrate) {
    MpegFrame f;
    const bool ok = header <= 0xFFFFFFFFul && ProbeMpegHeader((uint32_t)header, &f);
    if (frame_size) *frame_size = f.frameSize;
    if (out_sampling_rate) *out_sampling_rate = f.sampleRate;
    if (out_channels) *out_channels = f.channels;
    if (out_bitrate) *out_bitrate = f.bitrateKbps;
    return ok;
}

bool Resync(long nfd, unsigned long match_header, long* inout_pos, unsigned long* out_header) {
    if (inout_pos == nullptr) return false;
    long long pos = *inout_pos;
    if (pos == 0) {
        for (;;) {
            unsigned char id3[10];
            if (!read_exact(nfd, pos, id3, sizeof id3)) return false;
            if (memcmp(id3, "ID3", 3) != 0) break;
            pos += 10 + id3_body_size(id3);
        }
    }
    const long long last = pos + (MP3_RESYNC_WINDOW - 1);
    for (; pos <= last && pos <= LONG_MAX; pos++) {
        unsigned long header = 0, size = 0;
        if (!read_header(nfd, pos, &header)) return false;
        if (match_header != 0 && !same_stream(header, match_header)) continue;
        if (!get_mp3_frame_size(header, &size, nullptr, nullptr, nullptr)) continue;
        if (!confirmed(nfd, header, pos, size)) continue;
        *inout_pos = static_cast<long>(pos);
        if (out_header) *out_header = header;
        return true;
    }
    return false;
}

bool parse_xing_header(long nfd, long first_frame_pos, long* byte_number, char* table_of_contents,
                       long long* duration) {
    if (byte_number) *byte_number = 0;
    if (duration) *duration = 0;
    if (table_of_contents) memset(table_of_contents, 0, MP3_TOC_ENTRIES);

    unsigned long header = 0;
    if (!read_header(nfd, first_frame_pos, &header)) return false;
    // The bit rate is not looked at: a free-format first frame may carry
    // the table too.
    const unsigned version = (header >> 19) & 3, layer = (header >> 17) & 3;
    const int rate = MpegSampleRate(version, (header >> 10) & 3);
    if (layer == 0 || rate == 0) return false;

    const bool v1 = version == 3;
    long long pos = (long long)first_frame_pos + MpegXingOffset(version, ((header >> 6) & 3) == 3);
    unsigned char b[4];
    if (!read_exact(nfd, pos, b, 4) || (memcmp(b, "Xing", 4) != 0 && memcmp(b, "Info", 4) != 0))
        return false;
    pos += 4;
    if (!read_exact(nfd, pos, b, 4)) return false;
    const unsigned int flags = U32_AT(b);
    pos += 4;

    if (flags & 1) {
        if (!read_exact(nfd, pos, b, 4)) return false;
        pos += 4;
        const long long frames = U32_AT(b);
        const long long samples = layer == 3 ? 384 : (layer == 2 || v1) ? 1152 : 576;
        if (duration) *duration = frames * samples * 1000000LL / rate;
    }
    if (flags & 2) {
        if (!read_exact(nfd, pos, b, 4)) return false;
        pos += 4;
        const unsigned int bytes = U32_AT(b);
        // Kept in 32 signed bits; a count that does not fit is no count.
        if (byte_number) *byte_number = bytes > INT32_MAX ? 0 : static_cast<long>(bytes);
    }
    if (flags & 4) {
        char toc[MP3_TOC_ENTRIES];
        const bool ok = read_exact(nfd, pos + 1, toc, sizeof toc);
        if (ok && table_of_contents) memcpy(table_of_contents, toc, sizeof toc);
        return ok;
    }
    return true;
}

MP3Parser::MP3Parser()
    : m_nfd(-1),
      mFirstFramePos(-1),
      mFixedHeader(0),
      mBitrate(0),
      mDuration(0),
      mCurrentPos(0),
      mCurrentTimeUs(0),
      mStarted(false),
      mSampleRate(0),
      mNumChannels(0),
      mByteNumber(0),
      mTableOfContents{},
      mpBuffer(nullptr),
      mOptions(0),
      mSeekTimeUs(0),
      mSeekMode(SEEK_CLOSEST_SYNC) {}

MP3Parser::MP3Parser(long nfd) : MP3Parser() {
    m_nfd = static_cast<int32_t>(nfd);
    long pos = 0;
    unsigned long header = 0;
    if (!Resync(nfd, 0, &pos, &header) || pos > INT32_MAX) return;

    MediaBuffer* buffer = new (std::nothrow) MediaBuffer(MP3_FRAME_BUFFER_SIZE);
    if (buffer != nullptr &&
        (buffer->data() == nullptr || buffer->size() < MP3_FRAME_BUFFER_SIZE)) {
        delete buffer;
        buffer = nullptr;
    }
    if (buffer == nullptr) return;
    mpBuffer = buffer;
    mFirstFramePos = static_cast<int32_t>(pos);
    mFixedHeader = static_cast<uint32_t>(header);

    unsigned long size = 0;
    int bitrate = 0;
    get_mp3_frame_size(header, &size, &mSampleRate, &mNumChannels, &bitrate);
    mBitrate = bitrate;

    long bytes = 0;
    long long duration = 0;
    parse_xing_header(nfd, pos, &bytes, mTableOfContents, &duration);
    mByteNumber = static_cast<int32_t>(bytes);
    mDuration = duration;

    mCurrentPos = mFirstFramePos;
    mCurrentTimeUs = 0;
    mStarted = true;
}

MP3Parser::~MP3Parser() {
    delete mpBuffer;
}

int MP3Parser::start() {
    mStarted = true;
    mCurrentPos = mFirstFramePos;
    mCurrentTimeUs = 0;
    return 0;
}

int MP3Parser::stop() {
    mStarted = false;
    return 0;
}

void MP3Parser::reset() {
    mSeekTimeUs = 0;
    mOptions = 0;
}

void MP3Parser::setSeekTo(long long time_us) {
    mSeekTimeUs = time_us;
    mOptions |= 1u;
}

void MP3Parser::clearSeekTo() {
    mSeekTimeUs = 0;
    mOptions &= ~1u;
}

int MP3Parser::GetFileInfo(int* pNumChannel, int* pSampleRate) {
    if (pNumChannel) *pNumChannel = mNumChannels;
    if (pSampleRate) *pSampleRate = mSampleRate;
    return (mNumChannels < 1 || mNumChannels > 2) ? MP3_PARSER_BAD_CHANNELS : 0;
}

// Byte position of the pending seek target: by the table of contents when
// there is a usable one, else by the first frame's bit rate.
bool MP3Parser::_seek_position(int64_t* pos) const {
    const bool table = mByteNumber >= 1 && mTableOfContents[0] != 0 && mDuration > 0;
    double offset;
    if (!table) {
        // In double: a hostile target times the bit rate must not overflow.
        offset = trunc((double)mSeekTimeUs * mBitrate / 8000.0);
    } else {
        const float percent = (float)mSeekTimeUs * 100.0f / (float)mDuration;
        float fx;
        if (percent <= 0.0f) {
            fx = 0.0f;
        } else if (percent >= 100.0f) {
            fx = 256.0f;
        } else {
            const int a = (int)percent;
            const float fa = a == 0 ? 0.0f : (float)(unsigned char)mTableOfContents[a - 1];
            const float fb = a > 98 ? 256.0f : (float)(unsigned char)mTableOfContents[a];
            fx = fa + (fb - fa) * (percent - (float)a);
        }
        offset = trunc(fx / 256.0f * (float)mByteNumber);
    }
    const double target = (double)mFirstFramePos + offset;
    if (!(target >= 0.0 && target <= (double)INT32_MAX)) return false;
    *pos = (int64_t)target;
    return true;
}

int MP3Parser::read(MediaBuffer** out) {
    if (out == nullptr) return MP3_PARSER_READ_END;
    *out = nullptr;
    if (mpBuffer == nullptr) return MP3_PARSER_READ_END;

    if (mOptions & 1u) {
        mCurrentTimeUs = mSeekTimeUs;
        int64_t pos = 0;
        if (!_seek_position(&pos)) return MP3_PARSER_READ_END;
        mCurrentPos = static_cast<int32_t>(pos);
    }

    unsigned char* data = static_cast<unsigned char*>(mpBuffer->data());
    unsigned long header = 0, size = 0;
    int bitrate = 0;
    // A lost sync is looked for once; Resync answers with a position whose
    // header passes the same test, so a second miss means the file changed.
    for (int attempt = 0;; attempt++) {
        if (!read_exact(m_nfd, mCurrentPos, data, 4)) return MP3_PARSER_READ_END;
        header = U32_AT(data);
        if (same_stream(header, mFixedHeader) &&
            get_mp3_frame_size(header, &size, nullptr, nullptr, &bitrate))
            break;
        long pos = mCurrentPos;
        if (attempt > 0 || !Resync(m_nfd, mFixedHeader, &pos, nullptr) || pos > INT32_MAX)
            return MP3_PARSER_READ_END;
        mCurrentPos = static_cast<int32_t>(pos);
    }

    if (size > mpBuffer->size() || (int64_t)mCurrentPos + (int64_t)size > INT32_MAX ||
        !read_exact(m_nfd, mCurrentPos, data, size))
        return MP3_PARSER_READ_END;
    mpBuffer->set_range(0, size);
    mCurrentPos += static_cast<int32_t>(size);
    mCurrentTimeUs += (int64_t)size * 8000 / bitrate;
    *out = mpBuffer;
    return 0;
}
