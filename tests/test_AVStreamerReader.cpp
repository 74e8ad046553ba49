// The content readers on the encoders' fixtures and on hostile files built
// byte by byte. WAV: where the samples start, the format, the reads and the
// time seek, with discovery's content information agreeing with what the
// streamer opens. MP3: the frame header, the parser's frame walk, durations,
// seeks (by table and by bit rate) and hostile files (tags, false syncs, far
// frames, cut frames, format changes, lying sizes); the reader frame by frame
// with the decoded tone checked, the byte seek, the decoder on bad frames and
// the reset a parser seek needs; the content information by extension and
// MIME type.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "AVRepDlna.h"
#include "AVStreamer.h"
#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL.h"
#include "PAL_File.h"
#include "audio_check.h"
#include "streamer_probe.h"

namespace {

typedef CAVStreamerProbe Probe;
typedef std::vector<unsigned char> Bytes;

void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

long long file_pos(long fd) {
    return PAL_FileSeek(fd, 0, FSEEK_CURRENT);
}

// PCM bytes one decode call gives, -1 for a failure.
long decode(MP3Decoder& dec, const unsigned char* src, size_t n, unsigned char* dst,
            unsigned dstSize) {
    MP3DEC_DATA d = {const_cast<unsigned char*>(src), (unsigned)n, 0, dst, dstSize, 0};
    return dec.MP3Dec_Decode(&d) ? (long)d.dstUsed : -1L;
}

// MPEG-1 Layer III stereo headers and the frame sizes the standard gives.
const unsigned long kH128 = 0xFFFB9000, kH128Pad = 0xFFFB9200;  // 128 kbit/s 44.1 kHz
const unsigned long kH160 = 0xFFFBA000, kH48k = 0xFFFB9400;     // 160 kbit/s; 48 kHz
const size_t kSize128 = 417, kSize128Pad = 418, kSize160 = 522, kSize48k = 384;

void put_be32(Bytes& v, size_t at, unsigned long x) {
    for (int i = 0; i < 4; i++) v[at + i] = (unsigned char)(x >> (24 - 8 * i));
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// n frames of one header, each `size` bytes.
Bytes frames(unsigned long header, size_t size, int n) {
    Bytes v(size * n, 0);
    for (int i = 0; i < n; i++) put_be32(v, size * i, header);
    return v;
}

// An ID3v2 tag with `body` bytes behind its 10-byte head.
Bytes id3(unsigned body) {
    Bytes v = {'I', 'D', '3', 4, 0, 0};
    for (int shift = 21; shift >= 0; shift -= 7) v.push_back((unsigned char)(body >> shift & 0x7F));
    return v + Bytes(body, 0);
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

// The index of the frame starting at pos, -1 when none does.
long frame_index(const std::vector<MpegFrameRef>& frames, long pos) {
    for (size_t i = 0; i < frames.size(); i++)
        if ((long)frames[i].offset == pos) return (long)i;
    return -1;
}

// x in n little-endian bytes.
Bytes le(uint32_t x, int n) {
    Bytes v;
    for (int i = 0; i < n; i++) v.push_back((unsigned char)(x >> (8 * i)));
    return v;
}

// A 36-byte WAV head (RIFF, WAVE and the fmt chunk's fields).
Bytes wav_head(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits, uint32_t fmtSize) {
    return Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' '} +
           le(fmtSize, 4) + le(format, 2) + le(channels, 2) + le(rate, 4) + le(rate * 4, 4) +
           le(0, 2) + le(bits, 2);
}

// v behind a 40-byte extensible fmt chunk, then a chunk head and body bytes.
Bytes wav_chunk(Bytes v, const char* id, uint32_t size, size_t body) {
    v.resize(60, 0);
    return v + Bytes(id, id + 4) + le(size, 4) + Bytes(body, 0);
}

}  // namespace

TEST(AVStreamerReader, WavHeadsOpenAtTheirSamplesWithTheFormatDiscoveryReports) {
    auto fixture = [](const char* name) { return read_whole_file(fixture_path(name)); };
    Bytes notWave = wav_head(1, 2, 44100, 16, 16);
    notWave[8] = 'X';
    const Bytes ext = wav_head(0xFFFE, 2, 44100, 16, 40);
    const struct {
        const char* what;
        Bytes bytes;
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
        {"a head cut short", Bytes(ext.begin(), ext.begin() + 35), 0, 0, 0, 0},
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
        SCOPED_TRACE(c.what);
        TempFile f("content.wav", c.bytes);
        char* path = const_cast<char*>(f.path.c_str());
        // Discovery's content information calls valid exactly what the
        // streamer opens, with the same format; a refusal leaves the
        // caller's record alone.
        CAVRepDlna d;
        AV_CONTENT_INFO info = {99, 99}, own = {99, 99};
        CAVStreamer s(no_notify, nullptr, 1);
        const int valid = d.GetContentInfo(path, &info), ownValid = s.GetContentInfo(path, &own);
        const long fd = s.Wav_FileOpen(path);
        const bool ok = c.start != 0;
        const unsigned ch = ok ? c.channels : 99, rate = ok ? c.rate : 99;
        EXPECT_EQ(std::make_tuple(valid, ownValid, (unsigned)info.NumChannels, info.SampleRate,
                                  (unsigned)own.NumChannels, own.SampleRate),
                  std::make_tuple(ok ? 0 : AV_READ_NOT_OPENED, ok ? 0 : AV_READ_NOT_OPENED, ch,
                                  rate, ch, rate));
        if (!ok) {
            EXPECT_EQ(fd, AV_READ_NOT_OPENED);
            continue;
        }
        ASSERT_GE(fd, 1);
        EXPECT_EQ(
            std::make_tuple(Probe::WaveStart(&s),  // kept in 32 bits
                            (unsigned)Probe::Content(&s).NumChannels, Probe::Content(&s).SampleRate,
                            (unsigned)Probe::Music(&s).BytesPerSample),
            std::make_tuple((uint32_t)c.start, c.channels, c.rate, c.bytesPerSample));

        // Reads hand out the file from the start position to its end, and
        // discovery's reader stands at the same first sample.
        const size_t from = (size_t)std::min<long long>(c.start, (long long)c.bytes.size());
        Bytes got;
        char buf[6144];
        long n;
        while ((n = s.Wav_FileRead(fd, buf, sizeof buf)) > 0) got.insert(got.end(), buf, buf + n);
        EXPECT_TRUE(got == Bytes(c.bytes.begin() + from, c.bytes.end()));
        const long h = d.Wav_FileOpen(path);
        ASSERT_GT(h, 0);
        n = d.Wav_FileRead(h, buf, 16);
        EXPECT_EQ(Bytes(buf, buf + std::max(n, 0L)),
                  Bytes(got.begin(), got.begin() + std::min<size_t>(16, got.size())));
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
        SCOPED_TRACE(fx.name);
        long frames = 0;
        int rate = 0, channels = 0, ch = 0, sr = 0;
        ASSERT_TRUE(fixture_facts(fx.name, &frames, &rate, &channels));
        const std::vector<MpegFrameRef> oracle =
            split_mpeg_frames(read_whole_file(fixture_path(fx.name)));
        ASSERT_FALSE(oracle.empty());
        {
            // The parser: every frame where the encoder put it.
            OpenParser op(fixture_path(fx.name));
            MP3Parser& p = *op.parser;
            EXPECT_EQ(p.GetFileInfo(&ch, &sr), 0);
            EXPECT_EQ(std::make_tuple(ch, sr), std::make_tuple(channels, rate));
            const std::vector<long> starts = read_all(p);
            ASSERT_EQ(starts.size(), (size_t)frames + (fx.infoFrame ? 1 : 0));
            for (size_t i = 0; i < starts.size(); i++)
                ASSERT_EQ(starts[i], (long)oracle[i].offset) << "frame " << i;
            // Time kept from bytes and bit rates stays within 1% of the
            // samples the encoder wrote; the Xing/Info frame count gives the
            // duration.
            const double encoded = (double)frames * fx.samplesPerFrame * 1e6 / rate;
            EXPECT_NEAR((double)p.getCurrentTime(), encoded + (fx.infoFrame ? encoded / frames : 0),
                        encoded * 0.01);
            EXPECT_EQ(p.mDuration,
                      fx.infoFrame ? frames * fx.samplesPerFrame * 1000000LL / rate : 0);
        }
        // The reader: one decoded frame per read, the Info frame passed over.
        CAVStreamer s(no_notify, nullptr, 1);
        const long fd = s.Mp3ToPcm_FileOpen(fixture_path(fx.name).c_str());
        ASSERT_GE(fd, 1);
        EXPECT_EQ(Probe::Music(&s).BytesPerSample, 2);
        std::vector<int16_t> pcm;
        std::vector<char> out(AV_MP3_BUF_SIZE);
        long reads = 0, n;
        while ((n = s.Mp3ToPcm_FileRead(fd, out.data(), out.size())) > 0) {
            ASSERT_EQ(n, (long)(fx.samplesPerFrame * fx.channels * 2));
            EXPECT_EQ(std::make_tuple((int)Probe::Content(&s).NumChannels,
                                      (int)Probe::Content(&s).SampleRate),
                      std::make_tuple(fx.channels, fx.rate));
            const int16_t* p = reinterpret_cast<const int16_t*>(out.data());
            pcm.insert(pcm.end(), p, p + n / 2);
            reads++;
        }
        EXPECT_EQ(std::make_tuple(n, reads), std::make_tuple((long)AV_READ_NOT_OPENED, frames));
        expect_fixture_tones(pcm, fx.channels, fx.rate, fx.name);
        EXPECT_EQ(s.Mp3ToPcm_FileClose(fd), 0);
        EXPECT_EQ(Probe::Parser(&s), nullptr);
        EXPECT_EQ(s.Mp3ToPcm_FileRead(fd, out.data(), out.size()), AV_READ_NOT_OPENED) << "closed";
    }
}

TEST(MP3Decoder, BadInputFailsCleanlyAndTheFirstFrameAfterASeekIsDecodedFromAReset) {
    const std::string path = fixture_path("sine_cbr128_id3.mp3");
    const Bytes file = read_whole_file(path);
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(file);
    ASSERT_GT(frames.size(), 60u);
    Bytes out(12288), junk(400, 0x5A);
    MP3Decoder dec;
    auto frame = [&](size_t i, unsigned dstSize = 12288, size_t size = 0) {
        return decode(dec, &file[frames[i].offset], size ? size : frames[i].size, out.data(),
                      dstSize);
    };
    EXPECT_EQ(frame(5), -1) << "decode before create";
    ASSERT_TRUE(dec.MP3Dec_Create());

    // Junk, an empty frame, a cut frame and a too-small output area fail;
    // none leaves bytes behind that would spoil the next frame.
    EXPECT_EQ(decode(dec, junk.data(), junk.size(), out.data(), 12288), -1);
    EXPECT_EQ(decode(dec, &file[frames[5].offset], 0, out.data(), 12288), -1);
    EXPECT_EQ(frame(5, 12288, frames[5].size / 2), -1);
    EXPECT_EQ(frame(5, 1000), -1);
    EXPECT_EQ(frame(6), 4608);
    EXPECT_EQ(frame(7), 4608);

    // The reader, after a parser seek to 1 s at 128 kbit/s (the frame at or
    // after byte 16000 of the stream), gives what a reset decoder gives for
    // the same two frames: the first decoded without the frames before the
    // seek, the second with it.
    CAVStreamer s(no_notify, nullptr, 1);
    const long fd = s.Mp3ToPcm_FileOpen(path.c_str());
    ASSERT_GE(fd, 1);
    std::vector<char> pcm(2 * AV_MP3_BUF_SIZE);
    for (int i = 0; i < 10; i++) ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, pcm.data(), 12288), 4608);
    Probe::Parser(&s)->setSeekTo(1000000);
    ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, pcm.data(), 12288), 4608);
    EXPECT_FALSE(Probe::Parser(&s)->mOptions & 1u) << "the reader clears the pending seek";
    ASSERT_EQ(s.Mp3ToPcm_FileRead(fd, pcm.data() + 4608, 12288), 4608);
    size_t k = 0;
    while ((long)frames[k].offset < 16000 + Probe::Parser(&s)->mFirstFramePos) k++;
    s.Mp3ToPcm_FileClose(fd);
    ASSERT_TRUE(dec.MP3Dec_Reset());
    for (size_t j = 0; j < 2; j++) {
        ASSERT_EQ(frame(k + j), 4608);
        EXPECT_EQ(memcmp(out.data(), pcm.data() + 4608 * j, 4608), 0) << j;
    }
    dec.MP3Dec_Release();
    EXPECT_EQ(frame(42), -1);
}

TEST(AVStreamerReader, Mp3GeometryAndByteSeek) {
    const std::string path = fixture_path("sine_cbr128_id3.mp3");
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(read_whole_file(path));
    // A 4096-byte tag in front of 128 kbit/s frames, and a file without any.
    TempFile tagged("tag4096.mp3",
                    id3(4086) + read_whole_file(fixture_path("sine_cbr128_info.mp3")));
    TempFile empty("empty.mp3", {});
    // Where a byte seek to `sec` seconds leaves the file.
    auto seek = [](CAVStreamer& s, long fd, unsigned sec) {
        EXPECT_EQ(s.mp3_seek(fd, sec), 0);
        return file_pos(fd);
    };
    CAVStreamer s(no_notify, nullptr, 1), t(no_notify, nullptr, 1), u(no_notify, nullptr, 1);
    const long fd = s.Mp3ToPcm_FileOpen(path.c_str());
    s.get_mp3_info(fd);
    // The geometry shows in the byte seek: 1 s = 38 frames of 417.5 bytes
    // from the first frame, then the next header of the same stream.
    EXPECT_NEAR(frame_index(frames, (long)seek(s, fd, 1)), 38.5, 0.5);
    EXPECT_EQ(seek(s, fd, 0), (long long)frames[0].offset);
    seek(s, fd, 100);  // past the end
    s.Mp3ToPcm_FileClose(fd);

    const long tfd = PAL_FileOpen(tagged.path.c_str(), FOPEN_READ, 0);
    const long efd = PAL_FileOpen(empty.path.c_str(), FOPEN_READ, 0);
    t.get_mp3_info(tfd);
    EXPECT_GE(seek(t, tfd, 1), 4096 + 38 * 417);
    // Known geometry is not scanned again, even for a file without frames;
    // without any geometry the byte seek stays at the start.
    t.get_mp3_info(efd);
    EXPECT_EQ(seek(t, tfd, 0), 4096);
    u.get_mp3_info(efd);
    EXPECT_EQ(seek(u, efd, 30), 0);
    PAL_FileClose(tfd);
    PAL_FileClose(efd);
}

TEST(AVStreamerReader, ContentInfoOfStreamerAndDiscoveryByExtensionAndMime) {
    // How the file is named (or its MIME type, which only discovery is asked
    // by) picks the reader; both refuse what cannot be played, and a refused
    // file leaves the caller's record alone. (What the WAV reader makes of a
    // head: the test above.)
    const int kNotAsked = 12345, U = AV_ERR_CONTENT_UNSUPPORTED, N = AV_READ_NOT_OPENED;
    const char* wav = "wav16_stereo_44k.wav";
    const struct {
        const char* fixture;  // null: no such file
        const char* as;
        const char* mime;  // null: by the extension
        int streamer, discovery;
        unsigned channels, rate;  // 99: refused, the record left alone
    } cases[] = {
        {"wav8_mono_8k.wav", "b.WAV", nullptr, 0, 0, 1, 8000},
        {"sine_cbr128_info.mp3", "f.mp3", nullptr, 0, 0, 2, 44100},  // starts with an Info frame
        {"sine_mono_22k.mp3", "g.MP3", nullptr, 0, 0, 1, 22050},
        {"sine_stereo_11k.mp3", "h.mp3x", nullptr, 0, 0, 2, 11025},  // a four-character test
        {"sine_mono_44k.mp3", "i.Mp3", nullptr, U, U, 99, 99},
        {wav, "j.Wav", nullptr, U, U, 99, 99},
        {wav, "k.mp", nullptr, U, U, 99, 99},
        {wav, "noextension", nullptr, U, 1, 99, 99},
        {wav, "fake.mp3", nullptr, N, MP3_PARSER_BAD_CHANNELS, 99, 99},
        {"sine_cbr128_id3.mp3", "l.wav", nullptr, N, N, 99, 99},
        {nullptr, "missing.wav", nullptr, N, N, 99, 99},
        {nullptr, "missing.mp3", nullptr, N, N, 99, 99},
        {wav, "m.mp3", "audio/x-wav", kNotAsked, 0, 2, 44100},
        {"sine_vbr_xing.mp3", "track", "audio/mpeg", kNotAsked, 0, 2, 44100},
        {wav, "n.wav", "audio/ogg", kNotAsked, U, 99, 99},
        {wav, "o.wav", "audio/x-wa", kNotAsked, U, 99, 99},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.as);
        TempFile f(c.as, c.fixture ? read_whole_file(fixture_path(c.fixture)) : Bytes());
        const std::string path = c.fixture ? f.path : "/nonexistent/" + std::string(c.as);
        char* p = const_cast<char*>(path.c_str());
        const auto expected = std::make_tuple(c.channels, c.rate);
        CAVRepDlna d;
        AV_CONTENT_INFO info = {99, 99};
        EXPECT_EQ(c.discovery, c.mime
                                   ? d.GetContentInfoFromMime(p, const_cast<char*>(c.mime), &info)
                                   : d.GetContentInfo(p, &info));
        EXPECT_EQ(std::make_tuple((unsigned)info.NumChannels, info.SampleRate), expected);
        if (c.streamer == kNotAsked) continue;
        CAVStreamer s(no_notify, nullptr, 1);
        info = {99, 99};
        EXPECT_EQ(s.GetContentInfo(path.c_str(), &info), c.streamer);
        EXPECT_EQ(std::make_tuple((unsigned)info.NumChannels, info.SampleRate), expected);
        EXPECT_EQ(Probe::Parser(&s), nullptr);
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
    // Headers the fixtures do not have (theirs: the fixture walk): {header,
    // size, rate, channels, bit rate}, and all zero for a refused one.
    typedef std::tuple<unsigned long, unsigned long, int, int, int> Facts;
    const Facts cases[] = {
        Facts{kH128Pad | 0xC0, 418, 44100, 1, 128},                 // padded, mono
        Facts{0xFFF58000, 72000 * 64 / 22050, 22050, 2, 64},        // MPEG-2 Layer II: 72000 too
        Facts{0xFFFF1000, (12000 * 32 / 44100) * 4, 44100, 2, 32},  // MPEG-1 Layer I
        Facts{0xFFFFE600, (12000 * 448 / 48000 + 1) * 4, 48000, 2, 448},
        Facts{0xFFF7E800, (12000 * 256 / 16000) * 4, 16000, 2, 256},  // MPEG-2 Layer I
        // A missing sync bit, version 1, layer 0, free format, bit-rate
        // index 15, sampling-rate index 3, nothing.
        Facts{0xFFDB9000, 0, 0, 0, 0},
        Facts{0xFFEB9000, 0, 0, 0, 0},
        Facts{0xFFF99000, 0, 0, 0, 0},
        Facts{0xFFFB0000, 0, 0, 0, 0},
        Facts{0xFFFBF000, 0, 0, 0, 0},
        Facts{0xFFFB9C00, 0, 0, 0, 0},
        Facts{0, 0, 0, 0, 0},
    };
    for (const Facts& c : cases) {
        unsigned long size = 7;
        int rate = 7, ch = 7, br = 7;
        const bool ok = get_mp3_frame_size(std::get<0>(c), &size, &rate, &ch, &br);
        EXPECT_EQ(Facts(std::get<0>(c), size, rate, ch, br), c) << std::hex << std::get<0>(c);
        EXPECT_EQ(ok, std::get<1>(c) != 0);
    }
    unsigned long size = 0;
    EXPECT_TRUE(get_mp3_frame_size(kH128, &size, nullptr, nullptr, nullptr));
}

TEST(MP3Parser, SeeksByTableOfContentsOrByBitrateStayInTheStream) {
    // A Xing frame (tag at +36: flags, frames, bytes, table) with linear
    // table entries, ahead of 200 frames.
    unsigned char toc[100];
    for (int i = 0; i < 100; i++) toc[i] = (unsigned char)(i * 256 / 100);
    Bytes v = frames(kH128, kSize128, 201);
    memcpy(&v[36], "Xing", 4);
    put_be32(v, 40, 7);
    put_be32(v, 44, 10000);
    put_be32(v, 48, v.size());
    memcpy(&v[52], toc, 100);
    MediaBuffer* buf = nullptr;
    // The start, a target, and past the end of the stream bytes (the
    // caller clears the pending seek, not read).
    auto seek = [&](MP3Parser& p, long long us) {
        p.setSeekTo(us);
        const int rc = p.read(&buf);
        EXPECT_TRUE(p.mOptions & 1u);
        p.clearSeekTo();
        return rc == 0 ? frame_start(p, buf) : -rc;
    };
    {
        TempFile f("xing10000.mp3", v);
        OpenParser op(f.path);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(std::make_tuple(p.mDuration, p.mByteNumber),
                  std::make_tuple((int64_t)261224489, (int32_t)v.size()));
        read_all(p, 10);
        EXPECT_EQ(seek(p, 0), p.mFirstFramePos);
        // Half the duration: entry 50 of 256 of the stream bytes, then the
        // next frame start; the time goes on from the target.
        EXPECT_NEAR(seek(p, p.mDuration / 2), toc[50] / 256.0 * v.size(), kSize128);
        EXPECT_NEAR((double)p.getCurrentTime(), p.mDuration / 2 + 26062, 500);
        EXPECT_EQ(seek(p, p.mDuration + 5000000), -64);
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
        EXPECT_NEAR(seek(p, 500000), 8000 + kSize128 / 2.0, kSize128 / 2.0);
        EXPECT_EQ(seek(p, 0), p.mFirstFramePos);
        EXPECT_EQ(seek(p, 60000000), -64);
        EXPECT_EQ(seek(p, -5000000), -64) << "a wrapped offset";
        EXPECT_EQ(p.start(), 0);
        EXPECT_EQ(read_all(p).size(), 201u);
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
    auto cbr = [](int n) { return frames(kH128, kSize128, n); };
    Bytes falseSync = frames(kH128, 600, 1);  // a header whose next frame is not there
    for (size_t i = 4; i < 600; i++) falseSync[i] = (unsigned char)(i * 7);
    const Bytes cut = cbr(6);
    const struct Case {
        const char* what;
        Bytes bytes;
        long firstFrame;  // -1: none
        size_t frames;
    } cases[] = {
        {"two ID3 tags in a row", id3(100) + id3(50) + cbr(5), 110 + 60, 5},
        {"a 4096-byte tag", id3(4086) + frames(kH128Pad, kSize128Pad, 5), 4096, 5},
        {"a false sync and garbage", falseSync + cbr(5), 600, 5},
        {"the first frame at the window's last byte", Bytes(131071) + cbr(5), 131071, 5},
        {"the first frame beyond the window", Bytes(131072) + cbr(5), -1, 0},
        {"the window counts from the tag's end", id3(10) + Bytes(131072) + cbr(5), -1, 0},
        {"a cut last frame", Bytes(cut.begin(), cut.end() - 100), 0, 5},
        {"a sampling-rate change and back", cbr(4) + frames(kH48k, kSize48k, 4) + cbr(4), 0, 8},
        {"a sampling-rate change to the end", cbr(4) + frames(kH48k, kSize48k, 6), 0, 4},
        {"bit rate and padding change",
         cbr(3) + frames(kH160, kSize160, 3) + frames(kH128Pad, kSize128Pad, 3), 0, 9},
        {"an ID3 size past the end", Bytes{'I', 'D', '3', 4, 0, 0, 0x7F, 0x7F, 0x7F, 0x7F} + cbr(5),
         -1, 0},
        {"too few frames to confirm", cbr(3), -1, 0},
        {"an empty file", {}, -1, 0},
        {"all sync bits", Bytes(3000, 0xFF), -1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempFile f("hostile.mp3", c.bytes);
        OpenParser op(f.path);
        ASSERT_NE(op.parser, nullptr);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(std::make_tuple(p.mFirstFramePos, p.mpBuffer == nullptr),
                  std::make_tuple((int32_t)c.firstFrame, c.firstFrame < 0));
        EXPECT_EQ(read_all(p).size(), c.frames);
        if (c.firstFrame >= 0) continue;
        int ch = -1, sr = -1;
        EXPECT_EQ(p.GetFileInfo(&ch, &sr), 65);
        p.setSeekTo(1000000);
        MediaBuffer* buf = reinterpret_cast<MediaBuffer*>(1);
        EXPECT_EQ(p.read(&buf), 64);
        EXPECT_EQ(buf, nullptr);
    }
    MP3Parser empty;
    MediaBuffer* buf = nullptr;
    EXPECT_EQ(empty.read(&buf), 64);
}
