// The content readers on the encoders' fixtures and on hostile files built
// byte by byte. WAV: where the samples start, the format, the reads and the
// time seek, with discovery's content information agreeing with what the
// streamer opens. MP3: the frame header, the parser's frame walk, durations,
// seeks (by table and by bit rate) and hostile files (tags, false syncs, far
// frames, cut frames, format changes, lying sizes); the reader frame by frame
// with the decoded tone and the mpg123 player's decode checked, the byte
// seek, the decoder on bad frames and the reset a parser seek needs; the
// content information by extension and MIME type.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "AVRepDlna.h"
#include "AVStreamer.h"
#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL.h"
#include "PAL_File.h"
#include "audio_check.h"
#include "netns_rig.h"
#include "streamer_probe.h"

namespace {

typedef CAVStreamerProbe Probe;

void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

long long file_pos(long fd) {
    return PAL_FileSeek(fd, 0, FSEEK_CURRENT);
}

// The whole PCM equals the mpg123 player's decode of the file (so no frame
// is held back, dropped or trimmed), where the player is installed.
// Natively the player is the same libmpg123 build: bit-exact. Under the
// emulator it is the host's build, whose floating-point code rounds a few
// samples one step the other way; a frame held back, dropped or shifted
// still shows as far more than one step.
void expect_player_decode(const std::vector<int16_t>& pcm, const char* name) {
    if (system("mpg123 --version >/dev/null 2>&1") != 0) return;
    const std::string raw =
        testing::TempDir() + "sonvara_" + std::to_string(getpid()) + "_mp3dec_ref.raw";
    const std::string cmd =
        "mpg123 -q --no-gapless -e s16 -O '" + raw + "' '" + fixture_path(name) + "' 2>/dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
    const std::vector<unsigned char> ref = read_whole_file(raw);
    remove(raw.c_str());
    ASSERT_EQ(ref.size(), pcm.size() * 2) << name;
    const int step = sonvara_emulator() ? 1 : 0;
    const int16_t* r = reinterpret_cast<const int16_t*>(ref.data());
    size_t off = 0;
    while (off < pcm.size() && abs(r[off] - pcm[off]) <= step) off++;
    EXPECT_EQ(off, pcm.size()) << name << ": first difference at sample " << off;
}

// MPEG-1 Layer III stereo headers and the frame sizes the standard gives.
const unsigned long kH128 = 0xFFFB9000, kH128Pad = 0xFFFB9200;  // 128 kbit/s 44.1 kHz
const unsigned long kH160 = 0xFFFBA000, kH48k = 0xFFFB9400;     // 160 kbit/s; 48 kHz
const size_t kSize128 = 417, kSize128Pad = 418, kSize160 = 522, kSize48k = 384;

void put_be32(std::vector<unsigned char>& v, size_t at, unsigned long x) {
    for (int i = 0; i < 4; i++) v[at + i] = (unsigned char)(x >> (24 - 8 * i));
}

void add_frames(std::vector<unsigned char>& v, unsigned long header, size_t size, int n = 1) {
    for (int i = 0; i < n; i++) {
        v.resize(v.size() + size, 0);
        put_be32(v, v.size() - size, header);
    }
}

void add_id3(std::vector<unsigned char>& v, unsigned body) {
    const unsigned char head[6] = {'I', 'D', '3', 4, 0, 0};
    v.insert(v.end(), head, head + 6);
    for (int shift = 21; shift >= 0; shift -= 7) v.push_back((unsigned char)(body >> shift & 0x7F));
    v.resize(v.size() + body, 0);
}

// A parser on a file, with the file handle's lifetime.
struct OpenParser {
    explicit OpenParser(const std::string& path) : fd(PAL_FileOpen(path.c_str(), FOPEN_READ, 0)) {
        if (fd > 0) parser = new MP3Parser(fd);
    }
    ~OpenParser() {
        delete parser;
        if (fd > 0) PAL_FileClose(fd);
    }
    long fd;
    MP3Parser* parser = nullptr;
};

long frame_start(const MP3Parser& p, const MediaBuffer* buf) {
    return p.mCurrentPos - (long)buf->range_length();
}

// Reads frames to the end (at most `limit`); where each one started.
std::vector<long> read_all(MP3Parser& p, size_t limit = 100000) {
    std::vector<long> starts;
    MediaBuffer* buf = nullptr;
    int rc;
    while (starts.size() < limit && (rc = p.read(&buf)) == 0) starts.push_back(frame_start(p, buf));
    if (starts.size() < limit) {
        EXPECT_EQ(rc, 64);
        EXPECT_EQ(buf, nullptr);
    }
    return starts;
}

bool is_frame_start(const std::vector<MpegFrameRef>& frames, long pos) {
    for (const MpegFrameRef& r : frames)
        if ((long)r.offset == pos) return true;
    return false;
}

// A 36-byte WAV head (RIFF, WAVE and the fmt chunk's fields).
std::vector<unsigned char> wav_head(uint16_t format, uint16_t channels, uint32_t rate,
                                    uint16_t bits, uint32_t fmtSize) {
    std::vector<unsigned char> v(36, 0);
    memcpy(&v[0], "RIFF", 4);
    memcpy(&v[8], "WAVEfmt ", 8);
    auto put = [&v](size_t at, uint32_t x, int n) {
        for (int i = 0; i < n; i++) v[at + i] = (unsigned char)(x >> (8 * i));
    };
    put(16, fmtSize, 4);
    put(20, format, 2);
    put(22, channels, 2);
    put(24, rate, 4);
    put(28, rate * 4, 4);
    put(34, bits, 2);
    return v;
}

// v behind a 40-byte extensible fmt chunk, then a chunk head and body bytes.
std::vector<unsigned char> wav_chunk(std::vector<unsigned char> v, const char* id, uint32_t size,
                                     size_t body) {
    v.resize(60, 0);
    v.insert(v.end(), id, id + 4);
    v.insert(v.end(), (unsigned char*)&size, (unsigned char*)&size + 4);
    v.resize(v.size() + body, 0);
    return v;
}

}  // namespace

TEST(AVStreamerReader, WavHeadsOpenAtTheirSamplesWithTheFormatDiscoveryReports) {
    auto fixture = [](const char* name) { return read_whole_file(fixture_path(name)); };
    std::vector<unsigned char> notWave = wav_head(1, 2, 44100, 16, 16);
    notWave[8] = 'X';
    const std::vector<unsigned char> ext = wav_head(0xFFFE, 2, 44100, 16, 40);
    const struct {
        const char* what;
        std::vector<unsigned char> bytes;
        long long start;  // where the samples start (0: refused)
        unsigned channels, rate, bytesPerSample;
    } cases[] = {
        {"wav16_stereo_44k.wav", fixture("wav16_stereo_44k.wav"), 44, 2, 44100, 2},
        {"wav8_mono_8k.wav", fixture("wav8_mono_8k.wav"), 44, 1, 8000, 1},
        // The PCM reader never looks for "data": the LIST chunk is played.
        {"wav16_stereo_list_8k.wav", fixture("wav16_stereo_list_8k.wav"), 44, 2, 8000, 2},
        // Extensible: the walk passes the fact chunk and stops behind "data".
        {"wav16_6ch_ext_8k.wav", fixture("wav16_6ch_ext_8k.wav"), 80, 6, 8000, 2},
        // 24 bits cannot be sent to any receiver as it is: refused at open.
        {"wav24_stereo_ext_8k.wav", fixture("wav24_stereo_ext_8k.wav"), 0, 0, 0, 0},
        {"empty", {}, 0, 0, 0, 0},
        {"RIFF only", {'R', 'I', 'F', 'F'}, 0, 0, 0, 0},
        {"not WAVE", notWave, 0, 0, 0, 0},
        {"float samples", wav_head(3, 2, 44100, 32, 16), 0, 0, 0, 0},
        {"no channels", wav_head(1, 0, 44100, 16, 16), 0, 0, 0, 0},
        {"no sampling rate", wav_head(1, 2, 0, 16, 16), 0, 0, 0, 0},
        {"32-bit PCM", wav_head(1, 2, 44100, 32, 16), 0, 0, 0, 0},
        {"24-bit PCM", wav_head(1, 2, 44100, 24, 16), 0, 0, 0, 0},
        {"a rate beyond any receiver", wav_head(1, 2, 384001, 16, 16), 0, 0, 0, 0},
        {"a head cut short", std::vector<unsigned char>(ext.begin(), ext.begin() + 35), 0, 0, 0, 0},
        // A sample takes whole bytes on disk: 12 bits are 16-bit PCM, 20
        // bits take 3 bytes, which no receiver plays.
        {"12-bit PCM", wav_head(1, 1, 8000, 12, 16), 44, 1, 8000, 2},
        {"20-bit PCM", wav_head(1, 2, 44100, 20, 16), 0, 0, 0, 0},
        {"extensible fmt shorter than 16", wav_head(0xFFFE, 2, 44100, 16, 8), 0, 0, 0, 0},
        {"PCM head without a data header", wav_head(1, 2, 44100, 16, 16), 44, 2, 44100, 2},
        {"extensible without data", wav_chunk(ext, "fact", 4, 4), 60 + 12 + 8, 2, 44100, 2},
        {"a chunk size past the end", wav_chunk(ext, "huge", 0xFFFFFFF0u, 16),
         60 + 8 + 0xFFFFFFF0ll + 8, 2, 44100, 2},
        {"an fmt size past the end", wav_head(0xFFFE, 2, 44100, 16, 0xFFFFFFF0u),
         36 + 0xFFFFFFF0ll - 16 + 8, 2, 44100, 2},
    };
    for (const auto& c : cases) {
        TempFile f("content.wav", c.bytes);
        char* path = const_cast<char*>(f.path.c_str());
        // Discovery's content information calls valid exactly what the
        // streamer opens, with the same format; a refusal leaves the
        // caller's record alone.
        CAVRepDlna d;
        AV_CONTENT_INFO info = {99, 99}, own = {99, 99};
        const int valid = d.GetContentInfo(path, &info);
        CAVStreamer s(no_notify, nullptr, 1);
        EXPECT_EQ(s.GetContentInfo(path, &own), valid) << c.what;
        const long fd = s.Wav_FileOpen(path);
        if (c.start == 0) {
            EXPECT_EQ(fd, AV_READ_NOT_OPENED) << c.what;
            EXPECT_EQ(valid, AV_READ_NOT_OPENED) << c.what;
            EXPECT_EQ(info.NumChannels + own.NumChannels, 2 * 99) << c.what;
            continue;
        }
        ASSERT_GE(fd, 1) << c.what;
        EXPECT_EQ(valid, 0) << c.what;
        EXPECT_EQ(Probe::WaveStart(&s), (uint32_t)c.start) << c.what;  // kept in 32 bits
        for (const AV_CONTENT_INFO& x : {info, own, Probe::Content(&s)}) {
            EXPECT_EQ(x.NumChannels, c.channels) << c.what;
            EXPECT_EQ(x.SampleRate, c.rate) << c.what;
        }
        EXPECT_EQ(Probe::Music(&s).BytesPerSample, c.bytesPerSample) << c.what;

        // Reads hand out the file from the start position to its end, and
        // discovery's reader stands at the same first sample.
        const size_t from = (size_t)std::min<long long>(c.start, (long long)c.bytes.size());
        std::vector<unsigned char> got;
        char buf[6144];
        long n;
        while ((n = s.Wav_FileRead(fd, buf, sizeof buf)) > 0) got.insert(got.end(), buf, buf + n);
        EXPECT_TRUE(got == std::vector<unsigned char>(c.bytes.begin() + from, c.bytes.end()))
            << c.what;
        const long h = d.Wav_FileOpen(path);
        ASSERT_GT(h, 0) << c.what;
        EXPECT_EQ(d.Wav_FileRead(h, buf, 16), std::min<long>(16, (long)got.size())) << c.what;
        EXPECT_TRUE(std::equal(got.begin(), got.begin() + std::min<long>(16, (long)got.size()),
                               (const unsigned char*)buf))
            << c.what;
        EXPECT_EQ(d.Wav_FileClose(h), 0);
        if (c.rate == 44100 && c.start == 44 && !got.empty()) {
            // The seek goes by the music info: 10 s of 44.1 kHz stereo 16-bit.
            Probe::Music(&s).SampleRate = 44100;
            Probe::Music(&s).NumChannels = 2;
            EXPECT_EQ(s.wav_seek(fd, 10), 0);
            EXPECT_EQ(file_pos(fd), 44 + 1764000);
        }
        EXPECT_EQ(s.Wav_FileClose(fd), 0);
    }
    CAVStreamer s(no_notify, nullptr, 1);
    EXPECT_EQ(s.wav_seek(-1, 1), AV_ERR_WAV_SEEK);
}

TEST(AVStreamerReader, Mp3FixturesWalkAndDecodeFrameByFrameToTheEncodersTones) {
    for (const MpegFixture& fx : kMpegFixtures) {
        long frames = 0;
        int rate = 0, channels = 0;
        ASSERT_TRUE(fixture_facts(fx.name, &frames, &rate, &channels)) << fx.name;
        const std::vector<MpegFrameRef> oracle =
            split_mpeg_frames(read_whole_file(fixture_path(fx.name)));
        ASSERT_FALSE(oracle.empty());
        {
            // The parser: every frame where the encoder put it.
            OpenParser op(fixture_path(fx.name));
            MP3Parser& p = *op.parser;
            EXPECT_EQ(p.mFirstFramePos, (long)oracle[0].offset) << fx.name;
            int ch = 0, sr = 0;
            EXPECT_EQ(p.GetFileInfo(&ch, &sr), 0);
            EXPECT_EQ(ch, channels) << fx.name;
            EXPECT_EQ(sr, rate) << fx.name;
            const std::vector<long> starts = read_all(p);
            ASSERT_EQ(starts.size(), (size_t)frames + (fx.infoFrame ? 1 : 0)) << fx.name;
            for (size_t i = 0; i < starts.size(); i++)
                ASSERT_EQ(starts[i], (long)oracle[i].offset) << fx.name << " frame " << i;
            // Time kept from bytes and bit rates stays within 1% of the
            // samples the encoder wrote; the Xing/Info frame count gives the
            // duration.
            const double encoded = (double)frames * fx.samplesPerFrame * 1e6 / rate;
            EXPECT_NEAR((double)p.getCurrentTime(), encoded + (fx.infoFrame ? encoded / frames : 0),
                        encoded * 0.01)
                << fx.name;
            EXPECT_EQ(p.mDuration,
                      fx.infoFrame ? frames * fx.samplesPerFrame * 1000000LL / rate : 0)
                << fx.name;
        }
        // The reader: one decoded frame per read, the Info frame passed over.
        CAVStreamer s(no_notify, nullptr, 1);
        const long fd = s.Mp3ToPcm_FileOpen(fixture_path(fx.name).c_str());
        ASSERT_GE(fd, 1) << fx.name;
        EXPECT_EQ(Probe::Music(&s).BytesPerSample, 2);
        std::vector<int16_t> pcm;
        std::vector<char> out(AV_MP3_BUF_SIZE);
        long reads = 0, n;
        while ((n = s.Mp3ToPcm_FileRead(fd, out.data(), out.size())) > 0) {
            ASSERT_EQ(n, (long)(fx.samplesPerFrame * fx.channels * 2)) << fx.name;
            EXPECT_EQ(Probe::Content(&s).NumChannels, fx.channels) << fx.name;
            EXPECT_EQ(Probe::Content(&s).SampleRate, (uint32_t)fx.rate) << fx.name;
            const int16_t* p = reinterpret_cast<const int16_t*>(out.data());
            pcm.insert(pcm.end(), p, p + n / 2);
            reads++;
        }
        EXPECT_EQ(n, AV_READ_NOT_OPENED) << fx.name;
        EXPECT_EQ(reads, frames) << fx.name;
        expect_fixture_tones(pcm, fx.channels, fx.rate, fx.name);
        expect_player_decode(pcm, fx.name);
        EXPECT_EQ(s.Mp3ToPcm_FileClose(fd), 0);
        EXPECT_EQ(Probe::Parser(&s), nullptr);
        EXPECT_EQ(s.Mp3ToPcm_FileRead(fd, out.data(), out.size()), AV_READ_NOT_OPENED) << "closed";
    }
}

TEST(MP3Decoder, BadInputFailsCleanlyAndResetRecovers) {
    const std::vector<unsigned char> file = read_whole_file(fixture_path("sine_cbr128_info.mp3"));
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(file);
    ASSERT_GT(frames.size(), 42u);
    std::vector<unsigned char> out(12288), junk(400, 0x5A);
    MP3Decoder dec;
    // PCM bytes of one call, -1 for a failure.
    auto feed = [&](const unsigned char* p, size_t n, unsigned dstSize) {
        MP3DEC_DATA d = {const_cast<unsigned char*>(p), (unsigned)n, 0, out.data(), dstSize, 0};
        return dec.MP3Dec_Decode(&d) ? (long)d.dstUsed : -1L;
    };
    auto frame = [&](size_t i, unsigned dstSize = 12288) {
        return feed(&file[frames[i].offset], frames[i].size, dstSize);
    };
    EXPECT_EQ(frame(5), -1) << "decode before create";
    ASSERT_TRUE(dec.MP3Dec_Create());

    // Junk, an empty frame, a cut frame and a too-small output area fail;
    // none leaves bytes behind that would spoil the next frame.
    EXPECT_EQ(feed(junk.data(), junk.size(), 12288), -1);
    EXPECT_EQ(feed(&file[frames[5].offset], 0, 12288), -1);
    EXPECT_EQ(feed(&file[frames[5].offset], frames[5].size / 2, 12288), -1);
    EXPECT_EQ(frame(5, 1000), -1);
    EXPECT_EQ(frame(6), 4608);
    EXPECT_EQ(frame(7), 4608);
    // After a reset (a seek) any frame decodes at once; an Info frame gives
    // no samples anywhere in the stream.
    ASSERT_TRUE(dec.MP3Dec_Reset());
    EXPECT_EQ(frame(40), 4608);
    EXPECT_EQ(frame(0), 0);
    EXPECT_EQ(frame(41), 4608);
    dec.MP3Dec_Release();
    EXPECT_EQ(frame(42), -1);
}

TEST(AVStreamerReader, FirstFrameAfterAParserSeekIsDecodedFromAReset) {
    const std::string path = fixture_path("sine_cbr128_id3.mp3");
    std::vector<unsigned char> file = read_whole_file(path);
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(file);
    CAVStreamer s(no_notify, nullptr, 1);
    const long fd = s.Mp3ToPcm_FileOpen(path.c_str());
    ASSERT_GE(fd, 1);
    std::vector<char> out(2 * AV_MP3_BUF_SIZE);
    for (int i = 0; i < 10; i++) ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, out.data(), 12288), 4608);
    // 1 s at 128 kbit/s: the frame at or after byte 16000 of the stream.
    Probe::Parser(&s)->setSeekTo(1000000);
    ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, out.data(), 12288), 4608);
    EXPECT_FALSE(Probe::Parser(&s)->mOptions & 1u) << "the reader clears the pending seek";
    ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, out.data() + 4608, 12288), 4608);
    size_t k = 0;
    while ((long)frames[k].offset < 16000 + Probe::Parser(&s)->mFirstFramePos) k++;

    // A fresh decoder fed the same two frames gives the same PCM: the first
    // was decoded without the frames before the seek, the second with it.
    MP3Decoder fresh;
    ASSERT_TRUE(fresh.MP3Dec_Create());
    std::vector<unsigned char> ref(AV_MP3_BUF_SIZE);
    for (size_t j = 0; j < 2; j++) {
        MP3DEC_DATA d = {&file[frames[k + j].offset],
                         (unsigned)frames[k + j].size,
                         0,
                         ref.data(),
                         (unsigned)ref.size(),
                         0};
        ASSERT_TRUE(fresh.MP3Dec_Decode(&d));
        EXPECT_EQ(memcmp(ref.data(), out.data() + 4608 * j, 4608), 0) << j;
    }
    s.Mp3ToPcm_FileClose(fd);
}

TEST(AVStreamerReader, Mp3GeometryAndByteSeek) {
    const std::string path = fixture_path("sine_cbr128_id3.mp3");
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(read_whole_file(path));
    CAVStreamer s(no_notify, nullptr, 1);
    const long fd = s.Mp3ToPcm_FileOpen(path.c_str());
    s.get_mp3_info(fd);
    // The geometry shows in the byte seek: 1 s = 38 frames of 417.5 bytes
    // from the first frame, then the next header of the same stream.
    ASSERT_EQ(s.mp3_seek(fd, 1), 0);
    EXPECT_GE(file_pos(fd), (long long)frames[0].offset + 38 * 417);
    EXPECT_LT(file_pos(fd), (long long)frames[0].offset + 39 * 418);
    EXPECT_TRUE(is_frame_start(frames, (long)file_pos(fd))) << file_pos(fd);
    ASSERT_EQ(s.mp3_seek(fd, 0), 0);
    EXPECT_EQ(file_pos(fd), (long long)frames[0].offset);
    EXPECT_EQ(s.mp3_seek(fd, 100), 0) << "past the end";
    s.Mp3ToPcm_FileClose(fd);

    // A 4096-byte tag (syncsafe 4086) in front of 128 kbit/s frames.
    std::vector<unsigned char> v = {'I', 'D', '3', 3, 0, 0, 0, 0, 0x1F, 0x76};
    v.resize(4096, 0);
    const std::vector<unsigned char> body = read_whole_file(fixture_path("sine_cbr128_info.mp3"));
    v.insert(v.end(), body.begin(), body.end());
    TempFile tagged("tag4096.mp3", v);
    CAVStreamer t(no_notify, nullptr, 1);
    const long tfd = PAL_FileOpen(tagged.path.c_str(), FOPEN_READ, 0);
    t.get_mp3_info(tfd);
    ASSERT_EQ(t.mp3_seek(tfd, 1), 0);
    EXPECT_GE(file_pos(tfd), 4096 + 38 * 417);
    // Known geometry is not scanned again, even for a file without frames.
    TempFile empty("empty.mp3", {});
    const long efd = PAL_FileOpen(empty.path.c_str(), FOPEN_READ, 0);
    t.get_mp3_info(efd);
    ASSERT_EQ(t.mp3_seek(tfd, 0), 0);
    EXPECT_EQ(file_pos(tfd), 4096);
    PAL_FileClose(tfd);

    // Without any geometry the byte seek stays at the start.
    CAVStreamer u(no_notify, nullptr, 1);
    u.get_mp3_info(efd);
    EXPECT_EQ(u.mp3_seek(efd, 30), 0);
    EXPECT_EQ(file_pos(efd), 0);
    PAL_FileClose(efd);
}

TEST(AVStreamerReader, ContentInfoOfStreamerAndDiscoveryByExtensionAndMime) {
    // How the file is named (or its MIME type, which only discovery is asked
    // by) picks the reader; both refuse what cannot be played, and a refused
    // file leaves the caller's record alone. (What the WAV reader makes of a
    // head: the test above.)
    const int kNotAsked = 12345;
    const struct {
        const char* fixture;  // null: no such file
        const char* as;
        const char* mime;  // null: by the extension
        int streamer, discovery;
        unsigned channels, rate;
    } cases[] = {
        {"wav8_mono_8k.wav", "b.WAV", nullptr, 0, 0, 1, 8000},
        {"sine_cbr128_info.mp3", "f.mp3", nullptr, 0, 0, 2, 44100},  // starts with an Info frame
        {"sine_mono_22k.mp3", "g.MP3", nullptr, 0, 0, 1, 22050},
        {"sine_stereo_11k.mp3", "h.mp3x", nullptr, 0, 0, 2, 11025},  // a four-character test
        {"sine_mono_44k.mp3", "i.Mp3", nullptr, AV_ERR_CONTENT_UNSUPPORTED,
         AV_ERR_CONTENT_UNSUPPORTED, 99, 99},
        {"wav16_stereo_44k.wav", "j.Wav", nullptr, AV_ERR_CONTENT_UNSUPPORTED,
         AV_ERR_CONTENT_UNSUPPORTED, 99, 99},
        {"wav16_stereo_44k.wav", "k.mp", nullptr, AV_ERR_CONTENT_UNSUPPORTED,
         AV_ERR_CONTENT_UNSUPPORTED, 99, 99},
        {"wav16_stereo_44k.wav", "noextension", nullptr, AV_ERR_CONTENT_UNSUPPORTED, 1, 99, 99},
        {"wav16_stereo_44k.wav", "fake.mp3", nullptr, AV_READ_NOT_OPENED, MP3_PARSER_BAD_CHANNELS,
         99, 99},
        {"sine_cbr128_id3.mp3", "l.wav", nullptr, AV_READ_NOT_OPENED, AV_READ_NOT_OPENED, 99, 99},
        {nullptr, "missing.wav", nullptr, AV_READ_NOT_OPENED, AV_READ_NOT_OPENED, 99, 99},
        {nullptr, "missing.mp3", nullptr, AV_READ_NOT_OPENED, AV_READ_NOT_OPENED, 99, 99},
        {"wav16_stereo_44k.wav", "m.mp3", "audio/x-wav", kNotAsked, 0, 2, 44100},
        {"sine_vbr_xing.mp3", "track", "audio/mpeg", kNotAsked, 0, 2, 44100},
        {"wav16_stereo_44k.wav", "n.wav", "audio/ogg", kNotAsked, AV_ERR_CONTENT_UNSUPPORTED, 99,
         99},
        {"wav16_stereo_44k.wav", "o.wav", "audio/x-wa", kNotAsked, AV_ERR_CONTENT_UNSUPPORTED, 99,
         99},
    };
    for (const auto& c : cases) {
        TempFile f(c.as, c.fixture ? read_whole_file(fixture_path(c.fixture))
                                   : std::vector<unsigned char>());
        const std::string path = c.fixture ? f.path : "/nonexistent/" + std::string(c.as);
        char* p = const_cast<char*>(path.c_str());
        CAVRepDlna d;
        AV_CONTENT_INFO info = {99, 99};
        EXPECT_EQ(c.discovery, c.mime
                                   ? d.GetContentInfoFromMime(p, const_cast<char*>(c.mime), &info)
                                   : d.GetContentInfo(p, &info))
            << c.as;
        EXPECT_EQ(info.NumChannels, c.channels) << c.as;
        EXPECT_EQ(info.SampleRate, c.rate) << c.as;
        if (c.streamer == kNotAsked) continue;
        CAVStreamer s(no_notify, nullptr, 1);
        info = {99, 99};
        EXPECT_EQ(s.GetContentInfo(path.c_str(), &info), c.streamer) << c.as;
        EXPECT_EQ(info.NumChannels, c.channels) << c.as;
        EXPECT_EQ(info.SampleRate, c.rate) << c.as;
        EXPECT_EQ(Probe::Parser(&s), nullptr) << c.as;
    }
    CAVStreamer s(no_notify, nullptr, 1);
    EXPECT_EQ(s.Mp3ToPcm_FileOpen("/nonexistent/x.mp3"), AV_READ_NOT_OPENED);
    TempFile empty("empty.mp3", {});
    const long fd = s.Mp3ToPcm_FileOpen(empty.path.c_str());
    ASSERT_GE(fd, 1) << "a parser without frames is still a parser";
    char out[AV_MP3_BUF_SIZE];
    EXPECT_EQ(s.Mp3ToPcm_FileRead(fd, out, sizeof out), AV_READ_NOT_OPENED);
    EXPECT_EQ(s.Mp3ToPcm_FileClose(fd), 0);
}

TEST(MP3Parser, FrameHeaderSizesRatesAndRejections) {
    // Headers the fixtures do not have (theirs: the fixture walk).
    const struct {
        unsigned long header;
        unsigned long size;
        int rate, channels, bitrate;
    } ok[] = {
        {kH128Pad | 0xC0, 418, 44100, 1, 128},                 // padded, mono
        {0xFFF58000, 72000 * 64 / 22050, 22050, 2, 64},        // MPEG-2 Layer II: 72000 too
        {0xFFFF1000, (12000 * 32 / 44100) * 4, 44100, 2, 32},  // MPEG-1 Layer I
        {0xFFFFE600, (12000 * 448 / 48000 + 1) * 4, 48000, 2, 448},
        {0xFFF7E800, (12000 * 256 / 16000) * 4, 16000, 2, 256},  // MPEG-2 Layer I
    };
    unsigned long size = 0;
    int rate = 0, ch = 0, br = 0;
    for (const auto& c : ok) {
        EXPECT_TRUE(get_mp3_frame_size(c.header, &size, &rate, &ch, &br)) << std::hex << c.header;
        EXPECT_EQ(size, c.size) << std::hex << c.header;
        EXPECT_EQ(rate, c.rate) << std::hex << c.header;
        EXPECT_EQ(ch, c.channels) << std::hex << c.header;
        EXPECT_EQ(br, c.bitrate) << std::hex << c.header;
    }
    // A missing sync bit, version 1, layer 0, free format, bit-rate index 15,
    // sampling-rate index 3, nothing.
    for (unsigned long h : {0xFFDB9000ul, 0xFFEB9000ul, 0xFFF99000ul, 0xFFFB0000ul, 0xFFFBF000ul,
                            0xFFFB9C00ul, 0ul}) {
        size = 7, rate = 7, ch = 7, br = 7;
        EXPECT_FALSE(get_mp3_frame_size(h, &size, &rate, &ch, &br)) << std::hex << h;
        EXPECT_EQ(size + rate + ch + br, 0u) << "outputs are zeroed";
    }
    EXPECT_TRUE(get_mp3_frame_size(kH128, &size, nullptr, nullptr, nullptr));
}

TEST(MP3Parser, SeeksByTableOfContentsAndByBitrate) {
    MediaBuffer* buf = nullptr;
    long long target = -1;
    // VBR with a Xing table: 116 frames of 26122 us after the Xing frame.
    const std::vector<MpegFrameRef> vbrFrames =
        split_mpeg_frames(read_whole_file(fixture_path("sine_vbr_xing.mp3")));
    OpenParser vbr(fixture_path("sine_vbr_xing.mp3"));
    MP3Parser& p = *vbr.parser;
    EXPECT_GT(p.mByteNumber, 30000);
    read_all(p, 10);
    p.setSeekTo(0);
    ASSERT_EQ(p.read(&buf), 0);
    EXPECT_EQ(frame_start(p, buf), p.mFirstFramePos);
    EXPECT_TRUE(p.getSeekTo(&target)) << "the caller clears the pending seek, not read";
    p.clearSeekTo();
    EXPECT_FALSE(p.getSeekTo(&target));
    EXPECT_EQ(target, 0);
    p.setSeekTo(1500000);
    ASSERT_EQ(p.read(&buf), 0);
    p.clearSeekTo();
    ASSERT_TRUE(is_frame_start(vbrFrames, frame_start(p, buf)));
    size_t idx = 0;
    while ((long)vbrFrames[idx].offset != frame_start(p, buf)) idx++;
    EXPECT_NEAR((double)idx, 1 + 1500000 / 26122, 3) << "a frame near 1.5 s";
    EXPECT_NEAR((double)p.getCurrentTime(), 1500000 + 26122, 500);
    p.setSeekTo(p.mDuration + 5000000);
    EXPECT_EQ(p.read(&buf), 64) << "past the end: the end of the stream bytes";

    // CBR without a table goes by the first frame's bit rate (where 1 s
    // lands: the reader's seek test); its ends.
    const std::vector<MpegFrameRef> cbrFrames =
        split_mpeg_frames(read_whole_file(fixture_path("sine_cbr128_id3.mp3")));
    OpenParser cbr(fixture_path("sine_cbr128_id3.mp3"));
    MP3Parser& c = *cbr.parser;
    read_all(c, 10);
    c.setSeekTo(0);
    ASSERT_EQ(c.read(&buf), 0);
    EXPECT_EQ(frame_start(c, buf), c.mFirstFramePos);
    c.setSeekTo(60000000);
    EXPECT_EQ(c.read(&buf), 64);
    c.setSeekTo(-5000000);  // a wrapped offset
    EXPECT_EQ(c.read(&buf), 64);
    c.clearSeekTo();
    EXPECT_EQ(c.start(), 0);
    EXPECT_EQ(read_all(c).size(), cbrFrames.size());
}

TEST(MP3Parser, XingNumbersAndTableEdgeCases) {
    // A Xing frame (tag at +36: flags, frames, bytes, table) with linear
    // table entries, ahead of 200 frames.
    unsigned char toc[100];
    for (int i = 0; i < 100; i++) toc[i] = (unsigned char)(i * 256 / 100);
    std::vector<unsigned char> v;
    add_frames(v, kH128, kSize128, 201);
    memcpy(&v[36], "Xing", 4);
    put_be32(v, 40, 7);
    put_be32(v, 44, 10000);
    put_be32(v, 48, v.size());
    memcpy(&v[52], toc, 100);
    MediaBuffer* buf = nullptr;
    {
        TempFile f("xing10000.mp3", v);
        OpenParser op(f.path);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mDuration, 261224489LL);
        EXPECT_EQ(p.mByteNumber, (long)v.size());
        // Half the duration: entry 50 of 256 of the stream bytes, then the
        // next frame start.
        p.setSeekTo(p.mDuration / 2);
        ASSERT_EQ(p.read(&buf), 0);
        EXPECT_NEAR(frame_start(p, buf), toc[50] / 256.0 * v.size(), kSize128);
    }
    // A table without a frame count is no usable table: the bit rate decides.
    put_be32(v, 40, 2 | 4);
    put_be32(v, 44, v.size());
    memcpy(&v[48], toc, 100);
    {
        TempFile f("xing_nocount.mp3", v);
        OpenParser op(f.path);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mDuration, 0);
        p.setSeekTo(500000);
        ASSERT_EQ(p.read(&buf), 0);
        EXPECT_GE(frame_start(p, buf), 8000);
        EXPECT_LT(frame_start(p, buf), 8000 + (long)kSize128);
    }
    // A table cut by the end of the file.
    put_be32(v, 40, 7);
    v.resize(100);
    TempFile f("xing_cut.mp3", v);
    const long fd = PAL_FileOpen(f.path.c_str(), FOPEN_READ, 0);
    long bytes = -1;
    long long duration = -1;
    char t[MP3_TOC_ENTRIES];
    EXPECT_FALSE(parse_xing_header(fd, 0, &bytes, t, &duration));
    PAL_FileClose(fd);
}

TEST(MP3Parser, HostileFilesNeverCrashAndFindWhatIsThere) {
    struct Case {
        const char* what;
        std::vector<unsigned char> bytes;
        long firstFrame;  // -1: none
        size_t frames;
    };
    std::vector<Case> cases;
    std::vector<unsigned char> v;
    auto add = [&](const char* what, long firstFrame, size_t frames) {
        cases.push_back({what, v, firstFrame, frames});
        v.clear();
    };
    add_id3(v, 100);
    add_id3(v, 50);
    add_frames(v, kH128, kSize128, 5);
    add("two ID3 tags in a row", 110 + 60, 5);
    add_id3(v, 4086);
    add_frames(v, kH128Pad, kSize128Pad, 5);
    add("a 4096-byte tag", 4096, 5);
    add_frames(v, kH128, 600);  // a header whose next frame is not there
    for (size_t i = 4; i < 600; i++) v[i] = (unsigned char)(i * 7);
    add_frames(v, kH128, kSize128, 5);
    add("a false sync and garbage", 600, 5);
    v.assign(131071, 0);
    add_frames(v, kH128, kSize128, 5);
    add("the first frame at the window's last byte", 131071, 5);
    v.assign(131072, 0);
    add_frames(v, kH128, kSize128, 5);
    add("the first frame beyond the window", -1, 0);
    add_id3(v, 10);
    v.resize(20 + 131072, 0);
    add_frames(v, kH128, kSize128, 5);
    add("the window counts from the tag's end", -1, 0);
    add_frames(v, kH128, kSize128, 6);
    v.resize(v.size() - 100);
    add("a cut last frame", 0, 5);
    add_frames(v, kH128, kSize128, 4);
    add_frames(v, kH48k, kSize48k, 4);
    add_frames(v, kH128, kSize128, 4);
    add("a sampling-rate change and back", 0, 8);
    add_frames(v, kH128, kSize128, 4);
    add_frames(v, kH48k, kSize48k, 6);
    add("a sampling-rate change to the end", 0, 4);
    add_frames(v, kH128, kSize128, 3);
    add_frames(v, kH160, kSize160, 3);
    add_frames(v, kH128Pad, kSize128Pad, 3);
    add("bit rate and padding change", 0, 9);
    add_id3(v, 0);
    v[6] = v[7] = v[8] = v[9] = 0x7F;
    add_frames(v, kH128, kSize128, 5);
    add("an ID3 size past the end", -1, 0);
    add_frames(v, kH128, kSize128, 3);
    add("too few frames to confirm", -1, 0);
    add("an empty file", -1, 0);
    v.assign(3000, 0xFF);
    add("all sync bits", -1, 0);

    for (const Case& c : cases) {
        TempFile f("hostile.mp3", c.bytes);
        OpenParser op(f.path);
        ASSERT_NE(op.parser, nullptr) << c.what;
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mFirstFramePos, c.firstFrame) << c.what;
        EXPECT_EQ(p.mpBuffer == nullptr, c.firstFrame < 0) << c.what;
        EXPECT_EQ(read_all(p).size(), c.frames) << c.what;
        if (c.firstFrame >= 0) continue;
        int ch = -1, sr = -1;
        EXPECT_EQ(p.GetFileInfo(&ch, &sr), 65) << c.what;
        p.setSeekTo(1000000);
        MediaBuffer* buf = reinterpret_cast<MediaBuffer*>(1);
        EXPECT_EQ(p.read(&buf), 64);
        EXPECT_EQ(buf, nullptr);
    }
    MP3Parser empty;
    MediaBuffer* buf = nullptr;
    EXPECT_EQ(empty.read(&buf), 64);
}
