// One-frame-in, PCM-out MPEG audio decoder (Layers I-III, MPEG-1/2/2.5).
//
// Every frame fed gives its full PCM at once (no gapless trimming, no
// resampling, no frame held back); a Xing/Info frame gives no samples and is
// not an error. Owns one decoder instance.
// Threads: one at a time.
#ifndef MP3DECODER_H
#define MP3DECODER_H

#include "PAL_Export.h"

struct MP3DEC_DATA {
    unsigned char* src;  // one complete compressed frame
    unsigned int srcSize;
    unsigned int srcUsed;  // bytes consumed
    unsigned char* dst;    // interleaved signed 16-bit PCM
    unsigned int dstSize;
    unsigned int dstUsed;  // PCM bytes produced
};

struct MP3FILE_INFO {
    short num_channels;
    int samplingRate;
};

class SONVARA_COMMON_API MP3Decoder {
public:
    MP3Decoder();
    ~MP3Decoder();
    MP3Decoder(const MP3Decoder&) = delete;
    MP3Decoder& operator=(const MP3Decoder&) = delete;

    bool MP3Dec_Create();
    // Decodes the frame at data->src into data->dst; true on success.
    bool MP3Dec_Decode(MP3DEC_DATA* data);
    // Forgets the bit reservoir and overlap state (after a seek).
    bool MP3Dec_Reset();
    void MP3Dec_Release();
    // Format of the last decoded frame (zeros before the first).
    MP3FILE_INFO MP3Dec_GetInfo() const { return mInfo; }

private:
    void* mHandle;
    MP3FILE_INFO mInfo;
};

#endif
