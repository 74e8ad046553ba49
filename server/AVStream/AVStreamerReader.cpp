// Content readers of CAVStreamer: open a WAV or MP3 file, report its channel
// count and sampling rate, hand out its PCM piece by piece, move to a time
// position, close it.
//
// The WAV reader passes the file's samples through; the MP3 reader cuts the
// file into frames with MP3Parser and decodes each with MP3Decoder, both
// owned from MP3 open to MP3 close. The decode workspace m_Mp3Inst is part of
// the streamer; get_mp3_info and mp3_seek allocate one scan buffer for the
// length of the call. Runs on the music source thread during playback, on the
// caller's thread for the info queries and at init; no locks (the callers
// never overlap on one streamer).
//
// Files come from the user's phone: the WAV head is checked before any
// length from it is used, a chunk walk ends at the first failed read, and
// formats the streamer cannot send as 16-bit PCM are refused at open (see
// Wav_FileOpen).
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <new>

#include "AVStreamer.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"

namespace {

// "RIFF", "WAVE", "fmt " and "data" as little-endian 32-bit words.
const uint32_t kRiff = 0x46464952u;
const uint32_t kWave = 0x45564157u;
const uint32_t kFmt = 0x20746D66u;
const uint32_t kData = 0x61746164u;
const uint16_t kWavePcm = 1;
const uint16_t kWaveExtensible = 0xFFFE;
const uint32_t kMaxWaveRate = 384000;

const int kWavHeaderSize = 36;
static_assert(sizeof(wav_header) == kWavHeaderSize, "wav_header is the file's 36-byte head");
// The head is taken as it lies in the file: every field at its file offset,
// in the file's (and the phone's) little-endian order.
static_assert(offsetof(wav_header, audio_format) == 20 && offsetof(wav_header, sample_rate) == 24 &&
                  offsetof(wav_header, block_align) == 32,
              "wav_header fields sit at their file offsets, with no padding");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "wav_header is read on a little-endian CPU");

const unsigned kMp3ScanSize = 10240;
const unsigned kMp3SeekSearchSize = 8192;

// MPEG-1 Layer III bit rates in bit/s by index (0 and 15: none), and the
// MPEG-1 sampling rates by index (3: none).
uint32_t mpeg1_l3_bitrate(uint32_t index) {
    static const uint32_t kRates[16] = {0,      32000,  40000,  48000,  56000,  64000,
                                        80000,  96000,  112000, 128000, 160000, 192000,
                                        224000, 256000, 320000, 0};
    return index < 16 ? kRates[index] : 0;
}

uint32_t mpeg1_samplerate(uint32_t index) {
    static const uint32_t kRates[4] = {44100, 48000, 32000, 0};
    return index < 4 ? kRates[index] : 0;
}

// Float to unsigned 32 bits, saturating (a plain cast of an out-of-range
// value is undefined).
uint32_t float_to_u32(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 4294967295.0f) return 0xFFFFFFFFu;
    return (uint32_t)v;
}

// The Layer III header scan of get_mp3_info: 0xFF, three more sync bits and
// layer bits 01, a bit-rate index 1..14, a sampling-rate index 0..2.
bool is_layer3_header(const unsigned char* p) {
    const unsigned bri = p[2] >> 4;
    return p[0] == 0xFF && (p[1] & 0xE0) == 0xE0 && (p[1] & 0x06) == 0x02 && bri >= 1 &&
           bri <= 14 && ((p[2] >> 2) & 3) != 3;
}

// Destroys the MP3 reader's decoder and parser, if any.
void release_mp3_reader(CAVStreamer* s) {
    if (s->m_pMp3Decoder != nullptr) {
        s->m_pMp3Decoder->MP3Dec_Release();
        delete s->m_pMp3Decoder;
        s->m_pMp3Decoder = nullptr;
    }
    delete s->m_pMP3Parser;
    s->m_pMP3Parser = nullptr;
}

}  // namespace

// ---- WAV

long CAVStreamer::Wav_FileOpen(const char* szFilePath) {
    long fd = PAL_FileOpen(szFilePath, FOPEN_READ, 0);
    if (fd < 1) return -2;

    wav_header hdr;
    memset(&hdr, 0, sizeof hdr);
    bool ok = PAL_FileRead(fd, &hdr, kWavHeaderSize) > 0;
    if (ok) {
        waveDataStartPos = kWavHeaderSize;
        debug_UI("xxxbitrate byte rate %d", (int)hdr.byte_rate);
        ok = hdr.riff_id == kRiff && hdr.riff_fmt == kWave && hdr.fmt_id == kFmt &&
             (hdr.audio_format == kWavePcm || hdr.audio_format == kWaveExtensible);
    }
    // Receivers take 8- or 16-bit PCM: other sample widths (24, 32 bits) are
    // refused here for every channel role rather than sent as noise, and a
    // format with no channels or no rate would stop the pacing arithmetic.
    if (ok &&
        ((hdr.num_channels & 0xFF) == 0 || hdr.sample_rate == 0 || hdr.sample_rate > kMaxWaveRate ||
         (hdr.bits_per_sample != 8 && hdr.bits_per_sample != 16))) {
        debug_UI("wave format not playable: channels %u, samplerate %u, bits %u",
                 (unsigned)hdr.num_channels, (unsigned)hdr.sample_rate,
                 (unsigned)hdr.bits_per_sample);
        ok = false;
    }
    if (ok && hdr.audio_format == kWavePcm) {
        // A 16-byte fmt chunk followed directly by the data chunk header is
        // taken on trust: no chunk is looked for.
        PAL_FileSeek(fd, 8, FSEEK_CURRENT);
        waveDataStartPos += 8;
    } else if (ok) {
        ok = hdr.fmt_sz >= 16 && PAL_FileSeek(fd, (long long)hdr.fmt_sz - 16, FSEEK_CURRENT) >= 0;
        waveDataStartPos = kWavHeaderSize + hdr.fmt_sz - 16;
        long nId = 4, nSize = 4;
        while (ok && (nId & nSize) != 0) {
            uint32_t id = 0, size = 0;
            nId = PAL_FileRead(fd, &id, 4);
            waveDataStartPos += 4;
            nSize = PAL_FileRead(fd, &size, 4);
            waveDataStartPos += 4;
            // A failed read ends the walk like the end of the file.
            if (id == kData || nId < 0 || nSize < 0) break;
            PAL_FileSeek(fd, size, FSEEK_CURRENT);
            waveDataStartPos += size;
        }
    }
    if (!ok) {
        PAL_FileClose(fd);
        return -2;
    }
    m_ContentInfo.NumChannels = (uint8_t)(hdr.num_channels & 0xFF);
    m_ContentInfo.SampleRate = hdr.sample_rate;
    m_AVMusicInfo.BytesPerSample = (uint8_t)(hdr.bits_per_sample >> 3);
    debug_UI("wave info: start: %u, # of channels: %u, samplerate: %u, BytesPerSample : %u",
             waveDataStartPos, (unsigned)m_ContentInfo.NumChannels, m_ContentInfo.SampleRate,
             (unsigned)m_AVMusicInfo.BytesPerSample);
    return fd;
}

long CAVStreamer::Wav_FileRead(long nFD, char* pDest, unsigned long unSize) {
    return PAL_FileRead(nFD, pDest, unSize);
}

int CAVStreamer::Wav_FileClose(long nFD) {
    PAL_FileClose(nFD);
    return 0;
}

int CAVStreamer::GetWaveInfo(const char* pUri, AV_CONTENT_INFO* pAVContentInfo) {
    m_ContentInfo.NumChannels = 0;
    m_ContentInfo.SampleRate = 0;
    const long fd = Wav_FileOpen(pUri);
    if (fd < 0) return (int)fd;
    Wav_FileClose(fd);
    pAVContentInfo->NumChannels = m_ContentInfo.NumChannels;
    pAVContentInfo->SampleRate = m_ContentInfo.SampleRate;
    return 0;
}

int CAVStreamer::wav_seek(long _fd, unsigned int _skipTimeSec) {
    // Unsigned 32-bit arithmetic, factors from the music info.
    const uint32_t pos = waveDataStartPos + _skipTimeSec * m_AVMusicInfo.SampleRate *
                                                m_AVMusicInfo.BytesPerSample *
                                                m_AVMusicInfo.NumChannels;
    if (PAL_FileSeek(_fd, pos, FSEEK_START) < 0) {
        debug_UI("[wav_seek] PAL_FileSeek fail");
        return 275;
    }
    return 0;
}

// ---- MP3

long CAVStreamer::Mp3ToPcm_FileOpen(const char* szFilePath) {
    memset(&m_Mp3Inst, 0, sizeof m_Mp3Inst);
    release_mp3_reader(this);
    long fd = PAL_FileOpen(szFilePath, FOPEN_READ, 0);
    if (fd < 1) return -2;

    m_pMP3Parser = new (std::nothrow) MP3Parser(fd);
    if (m_pMP3Parser != nullptr) m_pMp3Decoder = new (std::nothrow) MP3Decoder();
    if (m_pMp3Decoder == nullptr || !m_pMp3Decoder->MP3Dec_Create()) {
        PAL_FileClose(fd);
        release_mp3_reader(this);
        return 0;
    }
    m_AVMusicInfo.BytesPerSample = 2;
    m_Mp3Inst.audiodata.src = m_Mp3Inst.bitbuffer;
    m_Mp3Inst.audiodata.srcSize = AV_MP3_BUF_SIZE;
    m_Mp3Inst.audiodata.dst = m_Mp3Inst.pcmbuffer;
    return fd;
}

long CAVStreamer::Mp3ToPcm_FileRead(long nFD, char* pDest, unsigned long unSize) {
    (void)nFD;  // the parser reads through its own copy of the handle
    if (m_pMP3Parser == nullptr || m_pMp3Decoder == nullptr || pDest == nullptr) return -2;
    MP3DEC_DATA& d = m_Mp3Inst.audiodata;
    // An Info/Xing frame decodes to no samples; it is passed over so that a
    // read always hands out one frame of PCM (no PCM means the end).
    do {
        MediaBuffer* frame = nullptr;
        const int rc = m_pMP3Parser->read(&frame);
        const uint32_t options = m_pMP3Parser->mOptions;
        m_pMP3Parser->clearSeekTo();
        if (rc != 0 || frame == nullptr) return -2;

        d.src = static_cast<unsigned char*>(frame->data());
        d.srcSize = (unsigned int)frame->range_length();
        d.dstUsed = 0;
        d.dst = reinterpret_cast<unsigned char*>(pDest);
        // The output area is 12288 bytes, enough for any frame; a caller that
        // says it has less is believed.
        d.dstSize = unSize < AV_MP3_BUF_SIZE ? (unsigned int)unSize : AV_MP3_BUF_SIZE;
        if (options & 1u) m_pMp3Decoder->MP3Dec_Reset();
        if (!m_pMp3Decoder->MP3Dec_Decode(&d)) return -3;
        const MP3FILE_INFO info = m_pMp3Decoder->MP3Dec_GetInfo();
        m_ContentInfo.NumChannels = (uint8_t)info.num_channels;
        m_ContentInfo.SampleRate = (uint32_t)info.samplingRate;
    } while (d.dstUsed == 0);
    return (long)d.dstUsed;
}

int CAVStreamer::Mp3ToPcm_FileClose(long nFD) {
    release_mp3_reader(this);
    PAL_FileClose(nFD);
    return 0;
}

void CAVStreamer::get_mp3_info(long _fd) {
    if (mp3LayerIdx != 0 && mp3BitrateIdx != 0 && mp3BitrateIdx != 15 && mp3SamplerateIdx != 3)
        return;
    PAL_FileSeek(_fd, 0, FSEEK_START);
    unsigned char* buf = static_cast<unsigned char*>(calloc(1, kMp3ScanSize));
    if (buf == nullptr) return;

    bool scan = true;
    const long n = PAL_FileRead(_fd, buf, kMp3ScanSize);
    if (n == (long)kMp3ScanSize && memcmp(buf, "ID3", 3) == 0) {
        mp3FrameStartPos = ((uint32_t)(buf[6] & 0x7F) << 21 | (uint32_t)(buf[7] & 0x7F) << 14 |
                            (uint32_t)(buf[8] & 0x7F) << 7 | (uint32_t)(buf[9] & 0x7F)) +
                           10;
        PAL_FileSeek(_fd, mp3FrameStartPos, FSEEK_START);
        memset(buf, 0, kMp3ScanSize);
        scan = PAL_FileRead(_fd, buf, kMp3ScanSize) == (long)kMp3ScanSize;
    } else if (n != (long)kMp3ScanSize) {
        // A short file: scan what arrived, the rest of the buffer is zero.
        if (n < 0) memset(buf, 0, kMp3ScanSize);
        mp3FrameStartPos = 0;
    }
    if (scan) {
        for (unsigned i = 0; i + 4 <= kMp3ScanSize; i++) {
            if (!is_layer3_header(buf + i)) continue;
            mp3LayerIdx = (buf[i + 1] & 0x06) >> 1;
            mp3BitrateIdx = buf[i + 2] >> 4;
            mp3SamplerateIdx = (buf[i + 2] >> 2) & 3;
            const uint32_t bitrate = mpeg1_l3_bitrate(mp3BitrateIdx);
            const uint32_t rate = mpeg1_samplerate(mp3SamplerateIdx);
            mp3FrameLen = (float)((double)(144 * bitrate / rate) + 0.5);
            break;
        }
        debug_UI("mp3 info: layer idx: %u, bitrate idx: %u, samplerate idx: %u, framelen: %f",
                 mp3LayerIdx, mp3BitrateIdx, mp3SamplerateIdx, (double)mp3FrameLen);
    }
    free(buf);
}

int CAVStreamer::mp3_seek(long _fd, unsigned int _skipTimeSec) {
    const float bitrate = (float)mpeg1_l3_bitrate(mp3BitrateIdx);
    const uint32_t frames =
        mp3FrameLen > 0.0f ? float_to_u32((float)_skipTimeSec * bitrate / (mp3FrameLen * 8.0f)) : 0;
    uint32_t skipLen = float_to_u32(mp3FrameLen * (float)frames);
    if (PAL_FileSeek(_fd, (uint32_t)(skipLen + mp3FrameStartPos), FSEEK_START) < 0) {
        debug_UI("Cannot move to designated position in mp3: %s", strerror(errno));
        return -1;
    }
    unsigned char* buf = static_cast<unsigned char*>(malloc(kMp3SeekSearchSize));
    if (buf == nullptr) return 0;

    // Two bytes stay zero behind the search so a match test never reads
    // past what was read.
    uint32_t searchLen = float_to_u32(mp3FrameLen + 4.0f);
    if (searchLen > kMp3SeekSearchSize - 2) searchLen = kMp3SeekSearchSize - 2;
    memset(buf, 0, kMp3SeekSearchSize);
    const long n = PAL_FileRead(_fd, buf, searchLen);
    if (n == (long)searchLen && searchLen != 0) {
        for (uint32_t i = 0; i < searchLen; i++) {
            const unsigned char* p = buf + i;
            if (p[0] == 0xFF && (p[1] & 0xE0) == 0xE0 &&
                (uint32_t)((p[1] & 0x06) >> 1) == mp3LayerIdx &&
                (uint32_t)(p[2] >> 4) == mp3BitrateIdx &&
                (uint32_t)((p[2] >> 2) & 3) == mp3SamplerateIdx) {
                debug_UI("mp3seek: found at %u + %u", skipLen, i);
                break;
            }
            skipLen++;
        }
    }
    int ret = 0;
    if (PAL_FileSeek(_fd, (uint32_t)(skipLen + mp3FrameStartPos), FSEEK_START) < 0) {
        debug_UI("Cannot move to designated position in mp3: %s", strerror(errno));
        ret = -1;
    } else {
        m_Mp3Inst.dec_pos = 0;
    }
    free(buf);
    return ret;
}

int CAVStreamer::GetMp3Info(const char* pUri, AV_CONTENT_INFO* pAVContentInfo) {
    // One decoded frame goes here: 12288 bytes, the reader's full output area,
    // although the read is told 10240.
    char* work = static_cast<char*>(malloc(AV_MP3_BUF_SIZE));
    if (work == nullptr) return 4;
    m_ContentInfo.NumChannels = 0;
    m_ContentInfo.SampleRate = 0;
    int ret = 0;
    const long fd = Mp3ToPcm_FileOpen(pUri);
    if (fd < 1) {
        ret = -2;
    } else {
        const long n = Mp3ToPcm_FileRead(fd, work, kMp3ScanSize);
        Mp3ToPcm_FileClose(fd);
        if (n < 0) {
            ret = (int)n;
        } else {
            pAVContentInfo->NumChannels = m_ContentInfo.NumChannels;
            pAVContentInfo->SampleRate = m_ContentInfo.SampleRate;
        }
    }
    free(work);
    return ret;
}

int CAVStreamer::GetContentInfo(const char* pUri, AV_CONTENT_INFO* pAVContentInfo) {
    const char* ext = pUri != nullptr ? strrchr(pUri, '.') : nullptr;
    if (ext == nullptr || pAVContentInfo == nullptr) return 100;
    if (strncmp(ext, ".mp3", 4) == 0 || strncmp(ext, ".MP3", 4) == 0)
        return GetMp3Info(pUri, pAVContentInfo);
    if (strncmp(ext, ".wav", 4) == 0 || strncmp(ext, ".WAV", 4) == 0)
        return GetWaveInfo(pUri, pAVContentInfo);
    return 100;
}
