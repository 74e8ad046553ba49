// The streamer's content readers on the encoders' fixtures: WAV heads (PCM,
// LIST before data, extensible with fact), refused sample widths, MP3 frame
// by frame with the decoded tone and the mpg123 player's decode checked,
// frame geometry, both seeks, the decoder on bad frames and the reset a
// parser seek needs; the content information of the streamer and of
// discovery, which must agree, by extension and MIME type, and on hostile
// WAV heads built byte by byte.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "AVRepDlna.h"
#include "AVStreamer.h"
#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "PAL.h"
#include "audio_check.h"
#include "debug_UI.h"
#include "netns_rig.h"
#include "streamer_probe.h"

namespace {

typedef CAVStreamerProbe Probe;

void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

// The log lines written while it lives, one text.
struct LogCapture {
    LogCapture() { debug_UI_SetSink(&LogCapture::sink, this); }
    ~LogCapture() { debug_UI_SetSink(nullptr, nullptr); }
    static void sink(const char* line, void* ctx) {
        static_cast<LogCapture*>(ctx)->text += std::string(line) + "\n";
    }
    std::string text;
};

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

}  // namespace

TEST(AVStreamerReader, WavHeadsStartsReadsSeeksAndRefusedWidths) {
    const struct {
        const char* name;
        uint32_t start;  // 0: refused
        unsigned channels, rate, bytesPerSample;
    } cases[] = {
        {"wav16_stereo_44k.wav", 44, 2, 44100, 2},
        {"wav8_mono_8k.wav", 44, 1, 8000, 1},
        // The PCM reader never looks for "data": the LIST chunk is played.
        {"wav16_stereo_list_8k.wav", 44, 2, 8000, 2},
        // Extensible: the walk passes the fact chunk and stops behind "data".
        {"wav16_6ch_ext_8k.wav", 80, 6, 8000, 2},
        // 24 bits cannot be sent to any receiver as it is: refused at open.
        {"wav24_stereo_ext_8k.wav", 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        CAVStreamer s(no_notify, nullptr, 1);
        const std::string path = fixture_path(c.name);
        AV_CONTENT_INFO info = {0, 0};
        const long fd = s.Wav_FileOpen(path.c_str());
        if (c.start == 0) {
            EXPECT_EQ(fd, AV_READ_NOT_OPENED) << c.name;
            EXPECT_EQ(s.GetWaveInfo(path.c_str(), &info), AV_READ_NOT_OPENED) << c.name;
            continue;
        }
        ASSERT_GE(fd, 1) << c.name;
        EXPECT_EQ(file_pos(fd), (long long)c.start) << c.name;
        EXPECT_EQ(Probe::Music(&s).BytesPerSample, c.bytesPerSample) << c.name;

        // Reads hand out the file from the start position to its end.
        const std::vector<unsigned char> file = read_whole_file(path);
        std::vector<unsigned char> got;
        char buf[6144];
        long n;
        while ((n = s.Wav_FileRead(fd, buf, sizeof buf)) > 0) got.insert(got.end(), buf, buf + n);
        ASSERT_EQ(got.size(), file.size() - c.start) << c.name;
        EXPECT_EQ(memcmp(got.data(), file.data() + c.start, got.size()), 0) << c.name;
        if (c.rate == 44100) {
            // The seek goes by the music info: 10 s of 44.1 kHz stereo 16-bit.
            Probe::Music(&s).SampleRate = 44100;
            Probe::Music(&s).NumChannels = 2;
            EXPECT_EQ(s.wav_seek(fd, 10), 0);
            EXPECT_EQ(file_pos(fd), 44 + 1764000);
        }
        EXPECT_EQ(s.Wav_FileClose(fd), 0);
        // Discovery's reader stands at the same first sample.
        CAVRepDlna d;
        const long h = d.Wav_FileOpen(const_cast<char*>(path.c_str()));
        ASSERT_GT(h, 0) << c.name;
        ASSERT_EQ(d.Wav_FileRead(h, buf, 16), 16) << c.name;
        EXPECT_EQ(memcmp(buf, file.data() + c.start, 16), 0) << c.name;
        EXPECT_EQ(d.Wav_FileClose(h), 0);
        EXPECT_EQ(s.GetWaveInfo(path.c_str(), &info), 0) << c.name;
        EXPECT_EQ(info.NumChannels, c.channels) << c.name;
        EXPECT_EQ(info.SampleRate, c.rate) << c.name;
    }
    CAVStreamer s(no_notify, nullptr, 1);
    EXPECT_EQ(s.wav_seek(-1, 1), AV_ERR_WAV_SEEK);
    EXPECT_EQ(s.Wav_FileOpen("/nonexistent/x.wav"), AV_READ_NOT_OPENED);
}

TEST(AVStreamerReader, HostileWavHeadsAreRefusedOrEndCleanly) {
    auto head = [](uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits,
                   uint32_t fmtSize) {
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
    };
    auto chunk = [](std::vector<unsigned char> v, const char* id, uint32_t size, size_t body) {
        v.resize(60, 0);  // behind a 40-byte extensible fmt chunk
        v.insert(v.end(), id, id + 4);
        v.insert(v.end(), (unsigned char*)&size, (unsigned char*)&size + 4);
        v.resize(v.size() + body, 0);
        return v;
    };
    std::vector<unsigned char> notWave = head(1, 2, 44100, 16, 16);
    notWave[8] = 'X';
    const std::vector<unsigned char> ext = head(0xFFFE, 2, 44100, 16, 40);
    const struct {
        const char* what;
        std::vector<unsigned char> bytes;
        uint32_t start;               // 0: refused
        unsigned bytesPerSample = 0;  // 0: not looked at
    } cases[] = {
        {"empty", {}, 0},
        {"RIFF only", {'R', 'I', 'F', 'F'}, 0},
        {"not WAVE", notWave, 0},
        {"float samples", head(3, 2, 44100, 32, 16), 0},
        {"no channels", head(1, 0, 44100, 16, 16), 0},
        {"no sampling rate", head(1, 2, 0, 16, 16), 0},
        {"32-bit PCM", head(1, 2, 44100, 32, 16), 0},
        {"24-bit PCM", head(1, 2, 44100, 24, 16), 0},
        {"a rate beyond any receiver", head(1, 2, 384001, 16, 16), 0},
        {"a head cut short", std::vector<unsigned char>(ext.begin(), ext.begin() + 35), 0},
        // A sample takes whole bytes on disk: 12 bits are 16-bit PCM, 20
        // bits take 3 bytes, which no receiver plays.
        {"12-bit PCM", head(1, 1, 8000, 12, 16), 44, 2},
        {"8-bit PCM", head(1, 1, 8000, 8, 16), 44, 1},
        {"20-bit PCM", head(1, 2, 44100, 20, 16), 0},
        {"extensible fmt shorter than 16", head(0xFFFE, 2, 44100, 16, 8), 0},
        {"PCM head without a data header", head(1, 2, 44100, 16, 16), 44},
        {"extensible without data", chunk(ext, "fact", 4, 4), 60 + 12 + 8},
        {"a chunk size past the end", chunk(ext, "huge", 0xFFFFFFF0u, 16),
         60 + 8 + 0xFFFFFFF0u + 8},
        {"an fmt size past the end", head(0xFFFE, 2, 44100, 16, 0xFFFFFFF0u),
         36 + 0xFFFFFFF0u - 16 + 8},
    };
    for (const auto& c : cases) {
        TempFile f("hostile.wav", c.bytes);
        CAVStreamer s(no_notify, nullptr, 1);
        // Discovery's content information calls valid exactly what the
        // streamer opens, with the same format.
        CAVRepDlna d;
        AV_CONTENT_INFO info = {0, 0};
        const int valid = d.GetWaveInfo(const_cast<char*>(f.path.c_str()), &info);
        LogCapture log;
        const long fd = s.Wav_FileOpen(f.path.c_str());
        if (c.start == 0) {
            EXPECT_EQ(fd, AV_READ_NOT_OPENED) << c.what;
            EXPECT_EQ(valid, AV_READ_NOT_OPENED) << c.what;
            continue;
        }
        EXPECT_EQ(valid, 0) << c.what;
        EXPECT_EQ(info.NumChannels, Probe::Content(&s).NumChannels) << c.what;
        EXPECT_EQ(info.SampleRate, Probe::Content(&s).SampleRate) << c.what;
        ASSERT_GE(fd, 1) << c.what;
        const std::string start = "wave info: start: " + std::to_string(c.start) + ",";
        EXPECT_NE(log.text.find(start), std::string::npos) << c.what;
        if (c.bytesPerSample != 0) {
            EXPECT_EQ(c.bytesPerSample, Probe::Music(&s).BytesPerSample) << c.what;
        }
        char buf[64];
        EXPECT_EQ(s.Wav_FileRead(fd, buf, sizeof buf), 0) << c.what;
        s.Wav_FileClose(fd);
    }
}

TEST(AVStreamerReader, Mp3FixturesReadOneFrameOfTheSourceToneAtATime) {
    for (const MpegFixture& fx : kMpegFixtures) {
        long frames = 0;
        int rate = 0, channels = 0;
        ASSERT_TRUE(fixture_facts(fx.name, &frames, &rate, &channels));
        CAVStreamer s(no_notify, nullptr, 1);
        const long fd = s.Mp3ToPcm_FileOpen(fixture_path(fx.name).c_str());
        ASSERT_GE(fd, 1) << fx.name;
        EXPECT_EQ(Probe::Music(&s).BytesPerSample, 2);
        std::vector<int16_t> pcm;
        std::vector<char> out(AV_MP3_BUF_SIZE);
        long reads = 0, n;
        while ((n = s.Mp3ToPcm_FileRead(fd, out.data(), out.size())) > 0) {
            // One frame per read; the Info frame is passed over.
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
    bool onFrame = false;
    for (const MpegFrameRef& r : frames) onFrame |= (long long)r.offset == file_pos(fd);
    EXPECT_TRUE(onFrame) << file_pos(fd);
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
    // file leaves the caller's record alone.
    const int kNotAsked = 12345;
    const struct {
        const char* fixture;  // null: no such file
        const char* as;
        const char* mime;  // null: by the extension
        int streamer, discovery;
        unsigned channels, rate;
    } cases[] = {
        {"wav16_stereo_44k.wav", "a.wav", nullptr, 0, 0, 2, 44100},
        {"wav8_mono_8k.wav", "b.WAV", nullptr, 0, 0, 1, 8000},
        {"wav16_6ch_ext_8k.wav", "c.wav", nullptr, 0, 0, 6, 8000},
        {"wav16_stereo_list_8k.wav", "d.wav", nullptr, 0, 0, 2, 8000},
        {"wav24_stereo_ext_8k.wav", "e.wav", nullptr, AV_READ_NOT_OPENED, AV_READ_NOT_OPENED, 99,
         99},
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
