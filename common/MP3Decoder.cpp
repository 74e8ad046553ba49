// MP3Decoder: one complete MPEG audio frame in, its interleaved signed 16-bit
// PCM out, over libmpg123 in feed mode.
//
// Owns one mpg123 handle (allocated by MP3Dec_Create, freed by
// MP3Dec_Release or the destructor); the library keeps its own small input
// pool. Runs on whichever thread owns the decoder (the music source thread or
// an info query), one at a time; no locks.
//
// The library is set up so that every frame fed gives its full PCM at once:
// no gapless trimming (it would cut the encoder delay and padding and shift
// the audio against the frame clock), no resampling (every rate is allowed at
// the stream's own channel count, so the native format always wins), and no
// read-ahead (otherwise the first frame is held back until the next header
// confirms it). A Xing/Info frame gives no samples and is not an error; it is
// recognised here rather than by the library, which only looks for one at the
// start of a stream and would decode it as a frame of silence anywhere else.
#include "MP3Decoder.h"

#include <mpg123.h>
#include <string.h>
#include <sys/types.h>

#include <mutex>

#include "ContentProbe.h"

namespace {

std::once_flag g_mpg123_init_once;

mpg123_handle* as_mh(void* h) {
    return static_cast<mpg123_handle*>(h);
}

bool configure(mpg123_handle* mh) {
    if (mpg123_param(mh, MPG123_REMOVE_FLAGS, MPG123_GAPLESS | MPG123_AUTO_RESAMPLE, 0) !=
        MPG123_OK)
        return false;
    if (mpg123_param(mh, MPG123_ADD_FLAGS, MPG123_QUIET | MPG123_NO_READAHEAD, 0) != MPG123_OK)
        return false;
    if (mpg123_format_none(mh) != MPG123_OK) return false;
    const long* rates = nullptr;
    size_t nrates = 0;
    mpg123_rates(&rates, &nrates);
    for (size_t i = 0; i < nrates; i++) {
        if (mpg123_format(mh, rates[i], MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16) !=
            MPG123_OK)
            return false;
    }
    return mpg123_open_feed(mh) == MPG123_OK;
}

// True when the frame carries a Xing or Info tag where encoders put it:
// behind the side information, whose size depends on version and channels.
// The frame's own header then gives the stream's format.
bool info_frame_format(const unsigned char* p, unsigned int n, MP3FILE_INFO* info) {
    if (n < 4 || p[0] != 0xFF || (p[1] & 0xE0) != 0xE0) return false;
    const unsigned version = (p[1] >> 3) & 3;
    const int rate = MpegSampleRate(version, (p[2] >> 2) & 3);
    if (rate == 0) return false;
    const bool mono = ((p[3] >> 6) & 3) == 3;
    const unsigned int off = MpegXingOffset(version, mono);
    if (n < off + 4) return false;
    if (memcmp(p + off, "Xing", 4) != 0 && memcmp(p + off, "Info", 4) != 0) return false;
    info->num_channels = mono ? 1 : 2;
    info->samplingRate = rate;
    return true;
}

}  // namespace

MP3Decoder::MP3Decoder() : mHandle(nullptr), mInfo{0, 0} {}

MP3Decoder::~MP3Decoder() {
    MP3Dec_Release();
}

bool MP3Decoder::MP3Dec_Create() {
    MP3Dec_Release();
    std::call_once(g_mpg123_init_once, [] { mpg123_init(); });
    mInfo.num_channels = 0;
    mInfo.samplingRate = 0;
    int err = MPG123_OK;
    mpg123_handle* mh = mpg123_new(nullptr, &err);
    if (mh != nullptr && !configure(mh)) {
        mpg123_delete(mh);
        mh = nullptr;
    }
    mHandle = mh;
    return mh != nullptr;
}

bool MP3Decoder::MP3Dec_Decode(MP3DEC_DATA* data) {
    if (mHandle == nullptr || data == nullptr || data->src == nullptr || data->dst == nullptr)
        return false;
    mpg123_handle* mh = as_mh(mHandle);
    data->dstUsed = 0;
    data->srcUsed = 0;
    if (data->srcSize == 0) return false;
    if (info_frame_format(data->src, data->srcSize, &mInfo)) {
        data->srcUsed = data->srcSize;
        return true;
    }
    if (mpg123_feed(mh, data->src, data->srcSize) != MPG123_OK) return false;
    data->srcUsed = data->srcSize;

    bool ok = true;
    bool decoded = false;
    for (;;) {
        off_t num = 0;
        unsigned char* audio = nullptr;
        size_t bytes = 0;
        const int rc = mpg123_decode_frame(mh, &num, &audio, &bytes);
        if (rc == MPG123_NEW_FORMAT) {
            long rate = 0;
            int channels = 0, enc = 0;
            mpg123_getformat(mh, &rate, &channels, &enc);
            mInfo.num_channels = static_cast<short>(channels);
            mInfo.samplingRate = static_cast<int>(rate);
            continue;
        }
        if (rc == MPG123_NEED_MORE || rc == MPG123_DONE) break;
        if (rc != MPG123_OK) {
            ok = false;
            break;
        }
        if (bytes == 0) continue;
        if (bytes > data->dstSize - data->dstUsed) {
            ok = false;
            break;
        }
        memcpy(data->dst + data->dstUsed, audio, bytes);
        data->dstUsed += static_cast<unsigned int>(bytes);
        decoded = true;
    }
    if (!decoded) ok = false;

    // Whatever the library still holds (a cut frame, junk behind the frame)
    // would be glued to the next frame fed; start clean instead.
    long held = 0;
    double fheld = 0;
    if (!ok || (mpg123_getstate(mh, MPG123_BUFFERFILL, &held, &fheld) == MPG123_OK && held > 0))
        MP3Dec_Reset();
    if (!ok) data->dstUsed = 0;
    return ok;
}

bool MP3Decoder::MP3Dec_Reset() {
    if (mHandle == nullptr) return false;
    mpg123_handle* mh = as_mh(mHandle);
    mpg123_close(mh);
    return mpg123_open_feed(mh) == MPG123_OK;
}

void MP3Decoder::MP3Dec_Release() {
    if (mHandle == nullptr) return;
    mpg123_handle* mh = as_mh(mHandle);
    mpg123_close(mh);
    mpg123_delete(mh);
    mHandle = nullptr;
}
