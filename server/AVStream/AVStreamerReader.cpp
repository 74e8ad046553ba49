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
// Files come from the user's phone: the WAV head is checked by the content
// probe (ContentFile.h), the same check discovery's content information
// makes, before any length from it is used; formats the receivers cannot
// take are refused at open.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <new>

#include "AVStreamer.h"
#include "ContentFile.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"

namespace {

const unsigned kMp3ScanSize = 10240;
const unsigned kMp3SeekSearchSize = 8192;

// MPEG-1 Layer III bit rate in bit/s by index (0 and 15: none), and the
// MPEG-1 sampling rate by index (3: none).
uint32_t mpeg1_l3_bitrate(uint32_t index) {
    return (uint32_t)MpegBitrateKbps(3, 1, index) * 1000u;
}

uint32_t mpeg1_samplerate(uint32_t index) {
    return (uint32_t)MpegSampleRate(3, index);
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

}  // namespace

void CAVStreamer::_release_mp3_reader() {
    if (m_pMp3Decoder != nullptr) {
        m_pMp3Decoder->MP3Dec_Release();
        delete m_pMp3Decoder;
        m_pMp3Decoder = nullptr;
    }
    delete m_pMP3Parser;
    m_pMP3Parser = nullptr;
}

// ---- WAV

long CAVStreamer::Wav_FileOpen(const char* szFilePath) {
    long fd = PAL_FileOpen(szFilePath, FOPEN_READ, 0);
    if (fd < 1) return AV_READ_NOT_OPENED;

    WaveFormat fmt;
    long n = 0;
    const int probe = ContentWaveReadHead(fd, &fmt, &n);
    if (n > 0) {
        waveDataStartPos = WAVE_HEAD_LEN;
        debug_UI("xxxbitrate byte rate %d", (int)fmt.byteRate);
    }
    // Formats the receivers cannot take are refused here for every channel
    // role rather than sent as noise (see ProbeWaveHead).
    if (probe == WAVE_PROBE_UNPLAYABLE)
        debug_UI("wave format not playable: channels %u, samplerate %u, bits %u",
                 (unsigned)fmt.numChannels, (unsigned)fmt.sampleRate, (unsigned)fmt.bitsPerSample);
    if (probe != WAVE_PROBE_OK || !ContentWaveSeekSamples(fd, fmt, &waveDataStartPos)) {
        PAL_FileClose(fd);
        return AV_READ_NOT_OPENED;
    }
    m_ContentInfo.NumChannels = fmt.numChannels;
    m_ContentInfo.SampleRate = fmt.sampleRate;
    m_AVMusicInfo.BytesPerSample = fmt.bytesPerSample;
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
        return AV_ERR_WAV_SEEK;
    }
    return 0;
}

// ---- MP3

long CAVStreamer::Mp3ToPcm_FileOpen(const char* szFilePath) {
    memset(&m_Mp3Inst, 0, sizeof m_Mp3Inst);
    _release_mp3_reader();
    long fd = PAL_FileOpen(szFilePath, FOPEN_READ, 0);
    if (fd < 1) return AV_READ_NOT_OPENED;

    m_pMP3Parser = new (std::nothrow) MP3Parser(fd);
    if (m_pMP3Parser != nullptr) m_pMp3Decoder = new (std::nothrow) MP3Decoder();
    if (m_pMp3Decoder == nullptr || !m_pMp3Decoder->MP3Dec_Create()) {
        PAL_FileClose(fd);
        _release_mp3_reader();
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
    if (m_pMP3Parser == nullptr || m_pMp3Decoder == nullptr || pDest == nullptr)
        return AV_READ_NOT_OPENED;
    MP3DEC_DATA& d = m_Mp3Inst.audiodata;
    // An Info/Xing frame decodes to no samples; it is passed over so that a
    // read always hands out one frame of PCM (no PCM means the end).
    do {
        MediaBuffer* frame = nullptr;
        const int rc = m_pMP3Parser->read(&frame);
        const uint32_t options = m_pMP3Parser->mOptions;
        m_pMP3Parser->clearSeekTo();
        if (rc != 0 || frame == nullptr) return AV_READ_NOT_OPENED;

        d.src = static_cast<unsigned char*>(frame->data());
        d.srcSize = (unsigned int)frame->range_length();
        d.dstUsed = 0;
        d.dst = reinterpret_cast<unsigned char*>(pDest);
        // The output area is 12288 bytes, enough for any frame; a caller that
        // says it has less is believed.
        d.dstSize = unSize < AV_MP3_BUF_SIZE ? (unsigned int)unSize : AV_MP3_BUF_SIZE;
        if (options & 1u) m_pMp3Decoder->MP3Dec_Reset();
        if (!m_pMp3Decoder->MP3Dec_Decode(&d)) return AV_READ_DECODE_FAILED;
        const MP3FILE_INFO info = m_pMp3Decoder->MP3Dec_GetInfo();
        m_ContentInfo.NumChannels = (uint8_t)info.num_channels;
        m_ContentInfo.SampleRate = (uint32_t)info.samplingRate;
    } while (d.dstUsed == 0);
    return (long)d.dstUsed;
}

int CAVStreamer::Mp3ToPcm_FileClose(long nFD) {
    _release_mp3_reader();
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
        return AV_READ_SEEK_FAILED;
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
    if (work == nullptr) return AV_ERR_NO_MEMORY;
    m_ContentInfo.NumChannels = 0;
    m_ContentInfo.SampleRate = 0;
    int ret = 0;
    const long fd = Mp3ToPcm_FileOpen(pUri);
    if (fd < 1) {
        ret = AV_READ_NOT_OPENED;
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
    if (ext == nullptr || pAVContentInfo == nullptr) return AV_ERR_CONTENT_UNSUPPORTED;
    if (strncmp(ext, ".mp3", 4) == 0 || strncmp(ext, ".MP3", 4) == 0)
        return GetMp3Info(pUri, pAVContentInfo);
    if (strncmp(ext, ".wav", 4) == 0 || strncmp(ext, ".WAV", 4) == 0)
        return GetWaveInfo(pUri, pAVContentInfo);
    return AV_ERR_CONTENT_UNSUPPORTED;
}
