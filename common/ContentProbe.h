// What the leading bytes of a content file say about its format: the 36-byte
// head of a RIFF/WAVE file, a WAV chunk header, and an MPEG audio frame
// header, with the one set of MPEG bit-rate and sampling-rate tables. Also
// the rule of which WAV formats the engine plays, so that discovery's content
// information calls valid exactly what the streamer's reader opens.
//
// Pure functions from bytes to format: no file I/O, no state, no allocation;
// header-only, safe on any thread. Used by discovery's content information
// and the streamer's readers (through server/AVStream/ContentFile.h), the MP3
// frame parser, the MP3 decoder and the tests.
#ifndef CONTENTPROBE_H
#define CONTENTPROBE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

enum {
    WAVE_HEAD_LEN = 36,       // RIFF, WAVE and the fmt chunk up to bits per sample
    WAVE_CHUNK_HEAD_LEN = 8,  // chunk id and size
    WAVE_FORMAT_PCM = 1,
    WAVE_FORMAT_EXTENSIBLE = 0xFFFE,
    WAVE_MAX_RATE = 384000,
};

// Results of ProbeWaveHead.
enum {
    WAVE_PROBE_OK = 0,
    WAVE_PROBE_NOT_WAVE = 1,    // short, not RIFF/WAVE/"fmt ", not PCM or extensible
    WAVE_PROBE_UNPLAYABLE = 2,  // a WAV file in a format the engine does not send
};

// The fields of the head the engine uses (offsets in the file: fmt size 16,
// format 20, channels 22, rate 24, byte rate 28, bits per sample 34).
struct WaveFormat {
    uint32_t fmtSize;
    uint16_t audioFormat;
    uint8_t numChannels;  // the low byte of the 16-bit count
    uint32_t sampleRate;
    uint32_t byteRate;
    uint16_t bitsPerSample;
    uint8_t bytesPerSample;  // bytes each sample takes in the file (whole bytes)
};

inline uint32_t ProbeLe32(const unsigned char* p) {
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

inline uint16_t ProbeLe16(const unsigned char* p) {
    return (uint16_t)(p[0] | p[1] << 8);
}

// Reads the head (n bytes at p, of which WAVE_HEAD_LEN are needed). The
// fields are filled whenever the head is complete. A PCM sample takes whole
// bytes in the file, left-justified: 12 bits are stored in 2 bytes and play
// as 16-bit PCM. Receivers take 8- or 16-bit samples, so 1 to 16 bits play
// and wider ones do not; a format with no channels, no rate or a rate beyond
// any real device would stop the pacing arithmetic. Those are
// WAVE_PROBE_UNPLAYABLE.
inline int ProbeWaveHead(const unsigned char* p, size_t n, WaveFormat* out) {
    memset(out, 0, sizeof *out);
    if (p == nullptr || n < WAVE_HEAD_LEN) return WAVE_PROBE_NOT_WAVE;
    out->fmtSize = ProbeLe32(p + 16);
    out->audioFormat = ProbeLe16(p + 20);
    out->numChannels = p[22];
    out->sampleRate = ProbeLe32(p + 24);
    out->byteRate = ProbeLe32(p + 28);
    out->bitsPerSample = ProbeLe16(p + 34);
    out->bytesPerSample = (uint8_t)((out->bitsPerSample + 7u) >> 3);
    if (memcmp(p, "RIFF", 4) != 0 || memcmp(p + 8, "WAVE", 4) != 0 ||
        memcmp(p + 12, "fmt ", 4) != 0 ||
        (out->audioFormat != WAVE_FORMAT_PCM && out->audioFormat != WAVE_FORMAT_EXTENSIBLE))
        return WAVE_PROBE_NOT_WAVE;
    // The extensible walk starts behind the fmt chunk: it cannot end inside
    // the fields just read.
    if (out->audioFormat == WAVE_FORMAT_EXTENSIBLE && out->fmtSize < 16) return WAVE_PROBE_NOT_WAVE;
    if (out->numChannels == 0 || out->sampleRate == 0 || out->sampleRate > WAVE_MAX_RATE ||
        (out->bytesPerSample != 1 && out->bytesPerSample != 2))
        return WAVE_PROBE_UNPLAYABLE;
    return WAVE_PROBE_OK;
}

// True when the chunk id at p (4 bytes) is "data".
inline bool ProbeWaveIsDataChunk(const unsigned char* p) {
    return memcmp(p, "data", 4) == 0;
}

// ---- MPEG audio

// One frame header's fields. version: 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5;
// layer: 3 Layer I, 2 Layer II, 1 Layer III (the header's own bit values).
struct MpegFrame {
    unsigned version;
    unsigned layer;
    unsigned bitrateIndex;
    unsigned rateIndex;
    int bitrateKbps;
    int sampleRate;
    int channels;
    unsigned padding;
    unsigned long frameSize;  // bytes, header included
};

// Bit rate in kbit/s by version, layer and index; 0 for index 0 ("free"),
// 15 and reserved versions or layers.
inline int MpegBitrateKbps(unsigned version, unsigned layer, unsigned index) {
    static const short kRates[5][16] = {
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // V1 L1
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // V1 L2
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // V1 L3
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},     // V2 L1
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},          // V2 L2, L3
    };
    if (version == 1 || layer == 0 || layer > 3 || index > 15) return 0;
    const int row = version == 3 ? 3 - (int)layer : (layer == 3 ? 3 : 4);
    return kRates[row][index];
}

// Sampling rate in Hz by version and index; 0 for index 3 and the reserved
// version.
inline int MpegSampleRate(unsigned version, unsigned index) {
    static const int kRates[3] = {44100, 48000, 32000};
    if (version == 1 || version > 3 || index > 2) return 0;
    return kRates[index] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
}

// Where an encoder puts the Xing or Info tag in a stream's first frame:
// behind the header and the side information, whose size depends on the
// version and on mono or not.
inline unsigned MpegXingOffset(unsigned version, bool mono) {
    return 4 + (version == 3 ? (mono ? 17 : 32) : (mono ? 9 : 17));
}

// Reads a frame header (big-endian, first byte in bits 31-24). False, with
// *out zeroed, when it is not a valid header: no 11-bit sync, a reserved
// version or layer, a free or bad bit-rate index, or a reserved rate.
inline bool ProbeMpegHeader(uint32_t h, MpegFrame* out) {
    memset(out, 0, sizeof *out);
    const unsigned version = (h >> 19) & 3, layer = (h >> 17) & 3;
    const unsigned bri = (h >> 12) & 15, sri = (h >> 10) & 3;
    const int bitrate = MpegBitrateKbps(version, layer, bri);
    const int rate = MpegSampleRate(version, sri);
    if ((h & 0xFFE00000u) != 0xFFE00000u || bitrate == 0 || rate == 0) return false;
    out->version = version;
    out->layer = layer;
    out->bitrateIndex = bri;
    out->rateIndex = sri;
    out->bitrateKbps = bitrate;
    out->sampleRate = rate;
    out->channels = ((h >> 6) & 3) == 3 ? 1 : 2;
    out->padding = (h >> 9) & 1;
    if (layer == 3) {
        out->frameSize = (unsigned long)((12000L * bitrate / rate + out->padding) * 4);
    } else {
        // MPEG-2/2.5 Layer II takes 72000 like Layer III: the frame walk and
        // the time keeping both go by these sizes.
        out->frameSize =
            (unsigned long)((version == 3 ? 144000L : 72000L) * bitrate / rate + out->padding);
    }
    return true;
}

// The same from the first four bytes of a frame.
inline bool ProbeMpegBytes(const unsigned char* p, MpegFrame* out) {
    return ProbeMpegHeader((uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3],
                           out);
}

#endif
