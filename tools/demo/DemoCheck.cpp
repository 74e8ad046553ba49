// The demo's reference audio per role and its packet-by-packet comparison
// (see DemoCheck.h). No threads, no locks; allocations are the output vectors.
#include "DemoCheck.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <new>

#include "AVStreamerDef.h"
#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL_File.h"

namespace {

const size_t kPcmBufferBytes = 12288;  // one decoded frame always fits
const unsigned int kMaxFailedSearches = 32;
const size_t kMinTailBytes = 32;  // shorter pieces of audio may match anywhere

uint32_t le32(const unsigned char* p) {
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}

uint16_t le16(const unsigned char* p) {
    return (uint16_t)(p[0] | (p[1] << 8));
}

// Whole file, capped. 0, or -1 with err.
int _read_file(const char* path, std::vector<unsigned char>* out, std::string* err) {
    int ret = -1;
    FILE* f = fopen(path, "rb");
    long size = -1;
    if (f == nullptr) {
        *err = std::string("cannot open ") + path;
    } else if (fseek(f, 0, SEEK_END) != 0 || (size = ftell(f)) < 0 || fseek(f, 0, SEEK_SET) != 0) {
        *err = std::string("cannot size ") + path;
    } else if ((unsigned long)size > DEMO_MAX_CONTENT_BYTES) {
        *err = std::string("too large: ") + path;
    } else {
        out->resize((size_t)size);
        if (size == 0 || fread(out->data(), 1, (size_t)size, f) == (size_t)size) {
            ret = 0;
        } else {
            *err = std::string("cannot read ") + path;
        }
    }
    if (f != nullptr) fclose(f);
    return ret;
}

// The sender's WAV reader: a 36-byte head, then sample bytes from byte 44 for
// plain PCM (no chunk search, by design) or after a chunk walk to "data" for
// the extensible format; everything to the end of the file is played.
int _load_wav_as_sender(const std::vector<unsigned char>& file, DemoPcm* out, std::string* err) {
    if (file.size() < 44 || memcmp(&file[0], "RIFF", 4) != 0 || memcmp(&file[8], "WAVE", 4) != 0 ||
        memcmp(&file[12], "fmt ", 4) != 0) {
        *err = "not a RIFF/WAVE file";
        return -1;
    }
    unsigned int format = le16(&file[20]);
    size_t start = 44;
    if (format == 0xFFFE) {
        uint32_t fmtSize = le32(&file[16]);
        if (fmtSize < 16 || fmtSize > file.size()) {
            *err = "bad fmt chunk";
            return -1;
        }
        size_t pos = 36 + (fmtSize - 16);
        while (pos + 8 <= file.size()) {
            uint32_t chunk = le32(&file[pos + 4]);
            bool isData = memcmp(&file[pos], "data", 4) == 0;
            pos += 8;
            if (isData) break;
            if (chunk > file.size() - pos) {
                pos = file.size();
                break;
            }
            pos += chunk;
        }
        start = pos < file.size() ? pos : file.size();
    } else if (format != 1) {
        *err = "not PCM";
        return -1;
    }
    out->channels = file[22];
    out->rate = (int)le32(&file[24]);
    out->bytesPerSample = le16(&file[34]) >> 3;
    if (out->channels < 1 || out->rate < 1 || out->rate > 384000 ||
        (out->bytesPerSample != 1 && out->bytesPerSample != 2)) {
        *err = "unsupported WAV format (8 or 16-bit PCM only)";
        return -1;
    }
    out->bytes.assign(file.begin() + (long)start, file.end());
    return 0;
}

// Frames cut by the engine's parser, decoded one by one by the platform's
// decoder, as the sender's MP3 reader does.
int _load_mp3_as_sender(const char* path, long long seekUs, DemoPcm* out, std::string* err) {
    int ret = -1;
    long fd = PAL_FileOpen(path, FOPEN_READ, 0);
    MP3Parser* parser = nullptr;
    MP3Decoder* decoder = nullptr;
    std::vector<unsigned char> pcm(kPcmBufferBytes);
    if (fd < 1) {
        *err = std::string("cannot open ") + path;
        return -1;
    }
    parser = new (std::nothrow) MP3Parser(fd);
    decoder = new (std::nothrow) MP3Decoder();
    if (parser != nullptr && seekUs > 0) parser->setSeekTo(seekUs);
    if (parser == nullptr || decoder == nullptr || !decoder->MP3Dec_Create()) {
        *err = "MP3 decoder cannot be created";
    } else {
        out->bytes.clear();
        out->channels = 0;
        out->rate = 0;
        out->bytesPerSample = 2;
        ret = 0;
        for (;;) {
            MediaBuffer* frame = nullptr;
            uint32_t options = parser->mOptions;
            int r = parser->read(&frame);
            parser->clearSeekTo();
            if (r != 0 || frame == nullptr) break;
            MP3DEC_DATA data;
            memset(&data, 0, sizeof(data));
            data.src = (unsigned char*)frame->data() + frame->range_offset();
            data.srcSize = (unsigned int)frame->range_length();
            data.dst = pcm.data();
            data.dstSize = (unsigned int)pcm.size();
            if (options & 1u) decoder->MP3Dec_Reset();
            if (!decoder->MP3Dec_Decode(&data)) break;  // the sender ends its stream here too
            if (data.dstUsed > pcm.size() ||
                out->bytes.size() + data.dstUsed > DEMO_MAX_CONTENT_BYTES) {
                *err = "MP3 decodes to too much audio";
                ret = -1;
                break;
            }
            out->bytes.insert(out->bytes.end(), pcm.begin(), pcm.begin() + data.dstUsed);
            MP3FILE_INFO info = decoder->MP3Dec_GetInfo();
            if (info.num_channels > 0) out->channels = info.num_channels;
            if (info.samplingRate > 0) out->rate = info.samplingRate;
        }
        if (ret == 0 && (out->channels < 1 || out->rate < 1)) {
            *err = "no MPEG audio frame could be decoded";
            ret = -1;
        }
        decoder->MP3Dec_Release();
    }
    delete decoder;
    delete parser;
    PAL_FileClose(fd);
    return ret;
}

// Source channel of a role, written as the receivers' table rather than taken
// from the sender, so that the check stays independent of the code it checks.
// Columns: sources of 6 or more channels, 4-5, 2-3, 1.
int _source_channel(int role, int channels) {
    static const signed char kTable[8][4] = {
        {0, 0, 0, 0},  // None
        {0, 0, 0, 0},  // Front_Left
        {1, 1, 1, 0},  // Front_Right
        {2, 0, 0, 0},  // Center
        {3, 0, 0, 0},  // Woofer
        {4, 4, 0, 0},  // Rear_Left
        {5, 5, 0, 0},  // Rear_Right
        {0, 0, 0, 0},  // Party (other than stereo or more: the first channel)
    };
    int column = channels >= 6 ? 0 : channels >= 4 ? 1 : channels >= 2 ? 2 : 3;
    return role >= 0 && role < 8 ? kTable[role][column] : 0;
}

bool _all_zero(const unsigned char* p, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (p[i] != 0) return false;
    }
    return true;
}

// First frame-aligned place of the packet in the reference, or SIZE_MAX.
size_t _find(const std::vector<unsigned char>& ref, const unsigned char* pkt, size_t n,
             size_t step) {
    if (n == 0 || ref.size() < n) return SIZE_MAX;
    for (size_t pos = 0; pos + n <= ref.size(); pos += step) {
        if (ref[pos] == pkt[0] && memcmp(&ref[pos], pkt, n) == 0) return pos;
    }
    return SIZE_MAX;
}

}  // namespace

bool DemoIsMp3(const char* path) {
    const char* dot = strrchr(path, '.');
    return dot != nullptr && (strncmp(dot, ".mp3", 4) == 0 || strncmp(dot, ".MP3", 4) == 0);
}

int DemoLoadContentFrom(const char* path, unsigned int seconds, DemoPcm* out, std::string* err) {
    if (!DemoIsMp3(path)) {
        *err = "only MP3 content restarts its decoder on a seek";
        return -1;
    }
    return _load_mp3_as_sender(path, (long long)seconds * 1000000LL, out, err);
}

int DemoLoadContent(const char* path, DemoPcm* out, std::string* err) {
    const char* dot = strrchr(path, '.');
    if (DemoIsMp3(path)) return _load_mp3_as_sender(path, 0, out, err);
    if (dot != nullptr && (strncmp(dot, ".wav", 4) == 0 || strncmp(dot, ".WAV", 4) == 0)) {
        std::vector<unsigned char> file;
        if (_read_file(path, &file, err) != 0) return -1;
        return _load_wav_as_sender(file, out, err);
    }
    *err = "the sender plays only files named .mp3/.MP3 or .wav/.WAV";
    return -1;
}

int DemoRoleFromName(const char* name) {
    static const char* const kNames[] = {"None",   "Front_Left", "Front_Right", "Center",
                                         "Woofer", "Rear_Left",  "Rear_Right",  "Party"};
    for (int i = 0; i < (int)(sizeof(kNames) / sizeof(kNames[0])); i++) {
        if (strcasecmp(name, kNames[i]) == 0) return i;
    }
    return -1;
}

int DemoRoleFilter(const DemoPcm& src, int role, std::vector<unsigned char>* out) {
    const int c = src.channels;
    const int b = src.bytesPerSample;
    if (c < 1 || (b != 1 && b != 2)) return -1;
    const size_t frameIn = (size_t)c * (size_t)b;
    const size_t frames = src.bytes.size() / frameIn;
    out->resize(frames * 2 * (size_t)b);
    if (role == AV_CHANNEL_PARTY && c == 2) {  // stereo goes out as it is
        memcpy(out->data(), src.bytes.data(), out->size());
        return 0;
    }
    // A party receiver gets the first two channels; a mono source is doubled.
    const bool party = role == AV_CHANNEL_PARTY && c > 2;
    const size_t left = (size_t)(party ? 0 : _source_channel(role, c)) * (size_t)b;
    const size_t right = (size_t)(party ? 1 : _source_channel(role, c)) * (size_t)b;
    for (size_t k = 0; k < frames; k++) {
        const size_t at = k * frameIn;
        unsigned char* d = &(*out)[k * 2 * (size_t)b];
        // A rear role of a 5-channel source reads into the next frame, as the
        // sender does; past the last frame there is nothing, which reads as 0.
        for (int side = 0; side < 2; side++) {
            const size_t from = at + (side == 0 ? left : right);
            if (from + (size_t)b <= src.bytes.size()) {
                memcpy(d + side * b, &src.bytes[from], (size_t)b);
            } else {
                memset(d + side * b, 0, (size_t)b);
            }
        }
    }
    return 0;
}

int DemoLoadReceived(const char* path, DemoPcm* out, std::string* err) {
    std::vector<unsigned char> file;
    if (_read_file(path, &file, err) != 0) return -1;
    if (file.size() < 12 || memcmp(&file[0], "RIFF", 4) != 0 || memcmp(&file[8], "WAVE", 4) != 0) {
        *err = std::string("not a RIFF/WAVE file: ") + path;
        return -1;
    }
    bool haveFmt = false;
    size_t pos = 12;
    while (pos + 8 <= file.size()) {
        uint32_t size = le32(&file[pos + 4]);
        size_t body = pos + 8;
        size_t avail = file.size() - body;
        if (memcmp(&file[pos], "fmt ", 4) == 0 && size >= 16 && size <= avail) {
            haveFmt = le16(&file[body]) == 1;
            out->channels = le16(&file[body + 2]);
            out->rate = (int)le32(&file[body + 4]);
            out->bytesPerSample = le16(&file[body + 14]) >> 3;
        } else if (memcmp(&file[pos], "data", 4) == 0 && haveFmt) {
            // A writer that stopped early leaves the size too large: take what is there.
            size_t n = size < avail ? size : avail;
            out->bytes.assign(file.begin() + (long)body, file.begin() + (long)(body + n));
            if (out->channels < 1 || out->channels > 8 || out->rate < 1 ||
                (out->bytesPerSample != 1 && out->bytesPerSample != 2)) {
                *err = std::string("unsupported PCM format in ") + path;
                return -1;
            }
            return 0;
        }
        if (size > avail) break;
        pos = body + size + (size & 1u);
    }
    *err = std::string("no PCM fmt/data chunk in ") + path;
    return -1;
}

void DemoCompare(const std::vector<unsigned char>& reference,
                 const std::vector<unsigned char>& received, int frameBytes, DemoMatch* out) {
    DemoCompareAny(std::vector<const std::vector<unsigned char>*>{&reference}, received, frameBytes,
                   out);
}

void DemoCompareAny(const std::vector<const std::vector<unsigned char>*>& refs,
                    const std::vector<unsigned char>& received, int frameBytes, DemoMatch* out) {
    memset(out, 0, sizeof(*out));
    const size_t step = frameBytes > 0 ? (size_t)frameBytes : 1;
    const std::vector<unsigned char>* ref = nullptr;  // where the stream is, once placed
    size_t pos = 0;
    unsigned int failedSearches = 0;
    for (size_t at = 0; at < received.size(); at += DEMO_PACKET_BYTES) {
        const unsigned char* pkt = &received[at];
        const size_t n =
            received.size() - at < DEMO_PACKET_BYTES ? received.size() - at : DEMO_PACKET_BYTES;
        out->packets++;
        if (ref != nullptr && pos + n <= ref->size() && memcmp(&(*ref)[pos], pkt, n) == 0) {
            out->matched++;
            pos += n;
            continue;
        }
        if (_all_zero(pkt, n)) {  // underrun, or the stream running on after the end
            out->silent++;
            continue;
        }
        // A packet may also be cut where the sender dropped a chunk (a pause
        // abandons one for a full buffer): its head continues the run and
        // its tail, if long enough to be told apart, starts the next one.
        size_t head = 0;
        if (ref != nullptr && pos < ref->size()) {
            const size_t most = ref->size() - pos < n ? ref->size() - pos : n;
            while (head < most && (*ref)[pos + head] == pkt[head]) head++;
            head -= head % step;
            if (n - head < kMinTailBytes) head = 0;
        }
        const std::vector<unsigned char>* foundIn = nullptr;
        size_t found = SIZE_MAX;
        for (size_t r = 0; r < refs.size() && found == SIZE_MAX; r++) {
            if (failedSearches >= kMaxFailedSearches || refs[r] == nullptr) break;
            found = _find(*refs[r], pkt + head, n - head, step);
            foundIn = refs[r];
        }
        if (found == SIZE_MAX) {
            failedSearches++;
            out->differing++;
            if (ref != nullptr) pos += n;  // assume it stood in its place
            continue;
        }
        if (ref == nullptr) {
            // Silence before the first sound of the content counts as received.
            out->startOffset = _all_zero(foundIn->data(), found) ? 0 : found;
        } else {
            out->jumps++;
        }
        ref = foundIn;
        out->matched++;
        pos = found + (n - head);
    }
    out->endOffset = ref != nullptr ? pos : 0;
    out->referenceBytes = ref != nullptr ? ref->size() : refs.empty() ? 0 : refs[0]->size();
    if (ref == nullptr) {
        out->verdict = out->differing > 0 ? DEMO_DIFFERS : DEMO_NOTHING;
    } else if (out->differing > 0) {
        out->verdict = DEMO_DIFFERS;
    } else if (out->jumps > 0) {
        out->verdict = DEMO_EXACT_RUNS;
    } else if (out->startOffset == 0 && ref->size() - pos < DEMO_PACKET_BYTES) {
        // The sender keeps back a last piece shorter than one packet.
        out->verdict = DEMO_EXACT;
    } else {
        out->verdict = DEMO_EXACT_PART;
    }
}

std::string DemoDescribe(const DemoMatch& m, int rate, int frameBytes) {
    char line[160];
    double perSec = (double)rate * (double)(frameBytes > 0 ? frameBytes : 1);
    if (perSec <= 0) perSec = 1;
    switch (m.verdict) {
        case DEMO_EXACT:
            snprintf(line, sizeof(line), "bit-exact");
            break;
        case DEMO_EXACT_PART:
            snprintf(line, sizeof(line), "bit-exact, %.2f s to %.2f s of %.2f s",
                     m.startOffset / perSec, m.endOffset / perSec, m.referenceBytes / perSec);
            break;
        case DEMO_EXACT_RUNS:
            snprintf(line, sizeof(line), "bit-exact in %u runs (seek/pause)", m.jumps + 1);
            break;
        case DEMO_DIFFERS:
            snprintf(line, sizeof(line), "DIFFERS: %u of %u packets", m.differing, m.packets);
            break;
        default:
            snprintf(line, sizeof(line), "NO AUDIO");
            break;
    }
    return line;
}

bool DemoJsonNumber(const std::string& json, const char* key, double* out) {
    std::string quoted = std::string("\"") + key + "\"";
    size_t at = json.find(quoted);
    while (at != std::string::npos) {
        size_t p = at + quoted.size();
        while (p < json.size() && (json[p] == ' ' || json[p] == '\t')) p++;
        if (p < json.size() && json[p] == ':') {
            p++;
            while (p < json.size() && (json[p] == ' ' || json[p] == '\t')) p++;
            char buf[40];
            size_t n = 0;
            while (p + n < json.size() && n + 1 < sizeof(buf) &&
                   strchr("+-0123456789.eE", json[p + n]) != nullptr) {
                buf[n] = json[p + n];
                n++;
            }
            buf[n] = 0;
            char* end = nullptr;
            double v = strtod(buf, &end);
            if (n == 0 || end == buf) return false;
            *out = v;
            return true;
        }
        at = json.find(quoted, at + 1);
    }
    return false;
}

bool DemoReadSmallFile(const char* path, size_t maxBytes, std::string* out) {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) return false;
    out->assign(maxBytes + 1, '\0');
    size_t n = fread(&(*out)[0], 1, maxBytes + 1, f);
    fclose(f);
    out->resize(n);
    return n <= maxBytes;
}

namespace {

bool frame_eq(const unsigned char* a, const unsigned char* b, int fb) {
    return memcmp(a, b, (size_t)fb) == 0;
}

bool frame_silent(const unsigned char* a, int fb) {
    for (int i = 0; i < fb; i++) {
        if (a[i] != 0) return false;
    }
    return true;
}

// Where played frames [i, i+n) appear in the reference from frame `from`
// within `reach` frames; -1 when nowhere.
long long find_run(const unsigned char* ref, size_t nRef, const unsigned char* p, size_t n,
                   size_t from, size_t reach, int fb) {
    for (size_t j = from; j + n <= nRef && j < from + reach; j++) {
        if (memcmp(ref + j * fb, p, n * (size_t)fb) == 0) return (long long)j;
    }
    return -1;
}

}  // namespace

void DemoComparePlayed(const std::vector<unsigned char>& reference,
                       const std::vector<unsigned char>& played, int frameBytes,
                       DemoPlayMatch* out) {
    memset(out, 0, sizeof(*out));
    out->startFrame = -1;
    const int fb = frameBytes > 0 ? frameBytes : 4;
    const size_t nR = reference.size() / fb, nP = played.size() / fb;
    const unsigned char* R = reference.data();
    const unsigned char* P = played.data();
    out->referenceFrames = nR;
    // The start: the first audible reference frames, found in the played
    // stream (what comes before them in the reference is silence).
    size_t j0 = 0;
    while (j0 < nR && frame_silent(R + j0 * fb, fb)) j0++;
    const size_t key = std::min<size_t>(16, nR - j0);
    if (key == 0) return;
    long long at = find_run(P, nP, R + j0 * fb, key, 0, nP, fb);
    if (at < 0 || (size_t)at < j0) return;
    out->startFrame = at - (long long)j0;
    // Longer jumps (an underrun, a clock step) are looked for this far ahead;
    // a stream that differs for this many frames is not looked at further.
    const size_t kReach = 1 << 18, kGiveUp = 4096;
    size_t i = (size_t)at, j = j0;
    out->matched = j0;  // the leading silence is where it belongs
    size_t quiet = 0;   // silent frames not yet followed by audio (the end's do not count)
    while (i < nP && j < nR && out->differing < kGiveUp) {
        const unsigned char* p = P + i * fb;
        if (!frame_silent(p, fb)) {
            out->silence += quiet;
            quiet = 0;
        }
        if (frame_eq(p, R + j * fb, fb)) {
            out->matched++;
            i++;
            j++;
        } else if (frame_silent(p, fb)) {
            quiet++;
            i++;
        } else if (i > 0 && frame_eq(p, p - fb, fb)) {
            out->inserted++;
            i++;
        } else if (j + 1 < nR && frame_eq(p, R + (j + 1) * fb, fb)) {
            out->dropped++;
            j++;
        } else {
            size_t n = std::min<size_t>(8, nP - i);
            long long to = find_run(R, nR, p, n, j + 2, kReach, fb);
            if (to >= 0) {
                out->skipped += (size_t)to - j;
                j = (size_t)to;
            } else {
                out->differing++;
                i++;
                j++;
            }
        }
    }
    out->referenceReached = j;
}

bool DemoPlayedToTheEnd(const DemoPlayMatch& m, int frameBytes) {
    const size_t perPacket = DEMO_PACKET_BYTES / (size_t)(frameBytes > 0 ? frameBytes : 4);
    return m.referenceReached >= m.referenceFrames / perPacket * perPacket;
}

long long DemoStartLateUs(long long startUs, unsigned int firstTimestampMs, long long streamFrame,
                          int rate) {
    long long sinceStampUs =
        (long long)(int)((unsigned int)(startUs / 1000) - firstTimestampMs) * 1000 + startUs % 1000;
    return sinceStampUs - (rate > 0 ? streamFrame * 1000000LL / rate : 0);
}

bool DemoPlayedFrameTime(const std::string& startLog, long long frame, int rate, long long* us) {
    bool found = false;
    size_t pos = 0;
    while (pos < startLog.size() && rate > 0) {
        size_t end = startLog.find('\n', pos);
        if (end == std::string::npos) end = startLog.size();
        std::string line = startLog.substr(pos, std::min<size_t>(end - pos, 80));
        long long startUs = 0, before = 0;
        if (sscanf(line.c_str(), "start %lld %lld", &startUs, &before) == 2 && before <= frame) {
            *us = startUs + (frame - before) * 1000000LL / rate;
            found = true;
        }
        pos = end + 1;
    }
    return found;
}
