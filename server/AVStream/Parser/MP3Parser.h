// MP3Parser: cuts an MPEG audio file (MPEG-1/2/2.5, Layers I-III) into whole
// frames, one per read(), keeps the play position in bytes and microseconds,
// and moves to a time position on request, by the Xing/Info table of contents
// when the file has one, else by the first frame's bit rate.
//
// Works on a platform file handle it does not own, with positioned reads
// only. Allocates one 10240-byte frame buffer per parser (when a frame was
// found), handed out by read() and reused by the next read(). Used by one
// thread at a time (the music source thread or an info query); no locks.
#ifndef MP3PARSER_H
#define MP3PARSER_H

#include <stdint.h>

class MediaBuffer;

#define MP3_PARSER_READ_END 64      // read(): end of stream or any failure
#define MP3_PARSER_BAD_CHANNELS 65  // GetFileInfo(): channel count not 1 or 2
#define MP3_FRAME_BUFFER_SIZE 10240
#define MP3_RESYNC_WINDOW 131072  // bytes searched for a frame start
#define MP3_HEADER_MATCH_MASK 0xFFFE0CC0u
#define MP3_TOC_ENTRIES 99

// True when `header` (big-endian, first byte in bits 31-24) is a valid frame
// header; then writes its frame size in bytes and, where given, its sampling
// rate (Hz), channel count and bit rate (kbit/s).
bool get_mp3_frame_size(unsigned long header, unsigned long* frame_size,
                        int* out_sampling_rate = nullptr, int* out_channels = nullptr,
                        int* out_bitrate = nullptr);

// Finds a frame start confirmed by three following frames, from *inout_pos
// (ID3v2 tags skipped when it is 0) within 128 KiB. With a non-zero
// match_header, only frames of the same stream count.
bool Resync(long nfd, unsigned long match_header, long* inout_pos, unsigned long* out_header);

// Reads the Xing/Info header of the first frame: stream bytes, table of
// contents entries 1 to 99 (table_of_contents holds 99 bytes), duration in us.
bool parse_xing_header(long nfd, long first_frame_pos, long* byte_number, char* table_of_contents,
                       long long* duration);

class MP3Parser {
public:
    enum SeekMode {
        SEEK_PREVIOUS_SYNC = 0,
        SEEK_NEXT_SYNC = 1,
        SEEK_CLOSEST_SYNC = 2,
        SEEK_CLOSEST = 3,
    };

    MP3Parser();
    explicit MP3Parser(long nfd);
    virtual ~MP3Parser();
    MP3Parser(const MP3Parser&) = delete;
    MP3Parser& operator=(const MP3Parser&) = delete;

    int start();
    int stop();
    void reset();
    void setSeekTo(long long time_us);
    void clearSeekTo();
    long long getCurrentTime() { return mCurrentTimeUs; }
    int GetFileInfo(int* pNumChannel, int* pSampleRate);
    // Next frame in *out (valid until the next read); 0, or 64 with *out null.
    int read(MediaBuffer** out);

    int32_t m_nfd;
    int32_t mFirstFramePos;
    uint32_t mFixedHeader;
    int32_t mBitrate;
    int64_t mDuration;
    int32_t mCurrentPos;
    int64_t mCurrentTimeUs;
    bool mStarted;
    int mSampleRate;
    int mNumChannels;
    int32_t mByteNumber;
    char mTableOfContents[MP3_TOC_ENTRIES];
    MediaBuffer* mpBuffer;
    uint32_t mOptions;  // bit 0: a seek is pending
    int64_t mSeekTimeUs;
    SeekMode mSeekMode;

private:
    bool _seek_position(int64_t* pos) const;
};

#endif
