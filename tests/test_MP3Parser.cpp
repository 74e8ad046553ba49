// MP3Parser on the encoders' fixtures (frame walk, formats, durations, seeks)
// and on hostile files built byte by byte (tags, false syncs, far frames, cut
// frames, format changes, lying sizes).
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL_File.h"
#include "audio_check.h"

namespace {

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
    const unsigned char head[10] = {'I',
                                    'D',
                                    '3',
                                    4,
                                    0,
                                    0,
                                    (unsigned char)(body >> 21 & 0x7F),
                                    (unsigned char)(body >> 14 & 0x7F),
                                    (unsigned char)(body >> 7 & 0x7F),
                                    (unsigned char)(body & 0x7F)};
    v.insert(v.end(), head, head + 10);
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

}  // namespace

TEST(MP3Parser, FrameHeaderSizesRatesAndRejections) {
    const struct {
        unsigned long header;
        unsigned long size;
        int rate, channels, bitrate;
    } ok[] = {
        {kH128, 417, 44100, 2, 128},
        {kH128Pad | 0xC0, 418, 44100, 1, 128},                 // padded, mono
        {0xFFF38000, 72000 * 64 / 22050, 22050, 2, 64},        // MPEG-2 Layer III
        {0xFFE34000, 72000 * 32 / 11025, 11025, 2, 32},        // MPEG-2.5 Layer III
        {0xFFF58000, 72000 * 64 / 22050, 22050, 2, 64},        // MPEG-2 Layer II: 72000 too
        {0xFFFD8000, 144000 * 128 / 44100, 44100, 2, 128},     // MPEG-1 Layer II
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

TEST(MP3Parser, FixturesWalkFrameByFrameWithTheEncodersCountsAndDurations) {
    for (const MpegFixture& fx : kMpegFixtures) {
        long frames = 0;
        int rate = 0, channels = 0;
        ASSERT_TRUE(fixture_facts(fx.name, &frames, &rate, &channels)) << fx.name;
        const std::vector<MpegFrameRef> oracle =
            split_mpeg_frames(read_whole_file(fixture_path(fx.name)));
        OpenParser op(fixture_path(fx.name));
        MP3Parser& p = *op.parser;
        ASSERT_FALSE(oracle.empty());
        EXPECT_EQ(p.mFirstFramePos, (long)oracle[0].offset) << fx.name;
        int ch = 0, sr = 0;
        EXPECT_EQ(p.GetFileInfo(&ch, &sr), 0);
        EXPECT_EQ(ch, channels) << fx.name;
        EXPECT_EQ(sr, rate) << fx.name;

        const std::vector<long> starts = read_all(p);
        ASSERT_EQ(starts.size(), (size_t)frames + (fx.infoFrame ? 1 : 0)) << fx.name;
        for (size_t i = 0; i < starts.size(); i++)
            ASSERT_EQ(starts[i], (long)oracle[i].offset) << fx.name << " frame " << i;

        // Time kept from bytes and bit rates stays within 1% of the samples
        // the encoder wrote; the Xing/Info frame count gives the duration.
        const double encoded = (double)frames * fx.samplesPerFrame * 1e6 / rate;
        EXPECT_NEAR((double)p.getCurrentTime(), encoded + (fx.infoFrame ? encoded / frames : 0),
                    encoded * 0.01)
            << fx.name;
        EXPECT_EQ(p.mDuration, fx.infoFrame ? frames * fx.samplesPerFrame * 1000000LL / rate : 0)
            << fx.name;
    }
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

    // CBR without a table goes by the first frame's bit rate: 16000 bytes a
    // second at 128 kbit/s.
    const std::vector<MpegFrameRef> cbrFrames =
        split_mpeg_frames(read_whole_file(fixture_path("sine_cbr128_id3.mp3")));
    OpenParser cbr(fixture_path("sine_cbr128_id3.mp3"));
    MP3Parser& c = *cbr.parser;
    c.setSeekTo(1000000);
    ASSERT_EQ(c.read(&buf), 0);
    EXPECT_TRUE(is_frame_start(cbrFrames, frame_start(c, buf)));
    EXPECT_GE(frame_start(c, buf), c.mFirstFramePos + 16000);
    EXPECT_LT(frame_start(c, buf), c.mFirstFramePos + 16000 + 418);
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
