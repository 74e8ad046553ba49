// MP3Parser on the encoders' fixtures (frame walk, formats, durations, seeks)
// and on hostile files built byte by byte (tags, false syncs, far frames, cut
// frames, format changes, lying sizes).
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL_Clock.h"
#include "PAL_File.h"
#include "audio_check.h"

namespace {

const unsigned long kH128 = 0xFFFB9000;     // MPEG-1 Layer III 128 kbit/s 44.1 kHz stereo
const unsigned long kH128Pad = 0xFFFB9200;  // the same, padded
const unsigned long kH160 = 0xFFFBA000;     // 160 kbit/s
const unsigned long kH48k = 0xFFFB9400;     // 128 kbit/s at 48 kHz
const size_t kSize128 = 417, kSize128Pad = 418, kSize160 = 522, kSize48k = 384;

void put_be32(std::vector<unsigned char>& v, size_t at, unsigned long x) {
    v[at] = x >> 24;
    v[at + 1] = x >> 16;
    v[at + 2] = x >> 8;
    v[at + 3] = x;
}

void add_frame(std::vector<unsigned char>& v, unsigned long header, size_t size) {
    const size_t at = v.size();
    v.resize(at + size, 0);
    put_be32(v, at, header);
}

void add_frames(std::vector<unsigned char>& v, unsigned long header, size_t size, int n) {
    for (int i = 0; i < n; i++) add_frame(v, header, size);
}

void add_id3(std::vector<unsigned char>& v, unsigned body) {
    const unsigned char head[10] = {'I',
                                    'D',
                                    '3',
                                    4,
                                    0,
                                    0,
                                    (unsigned char)((body >> 21) & 0x7F),
                                    (unsigned char)((body >> 14) & 0x7F),
                                    (unsigned char)((body >> 7) & 0x7F),
                                    (unsigned char)(body & 0x7F)};
    v.insert(v.end(), head, head + 10);
    v.resize(v.size() + body, 0);
}

// A Xing frame (MPEG-1 Layer III stereo, tag at +36) with the given fields.
void add_xing(std::vector<unsigned char>& v, unsigned flags, unsigned long frames,
              unsigned long bytes, const unsigned char* toc) {
    const size_t at = v.size();
    add_frame(v, kH128, kSize128);
    memcpy(&v[at + 36], "Xing", 4);
    size_t p = at + 40;
    put_be32(v, p, flags);
    p += 4;
    if (flags & 1) put_be32(v, p, frames), p += 4;
    if (flags & 2) put_be32(v, p, bytes), p += 4;
    if (flags & 4) memcpy(&v[p], toc, 100);
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

// Reads frames to the end; the positions at which they started.
std::vector<long> read_all(MP3Parser& p, size_t limit = 100000) {
    std::vector<long> starts;
    MediaBuffer* buf = nullptr;
    for (;;) {
        const int rc = p.read(&buf);
        if (rc != 0) {
            EXPECT_EQ(rc, 64);
            EXPECT_EQ(buf, nullptr);
            break;
        }
        starts.push_back(p.mCurrentPos - (long)buf->range_length());
        if (starts.size() > limit) break;
    }
    return starts;
}

struct FixtureCase {
    const char* name;
    bool infoFrame;
    unsigned samplesPerFrame;
};

const FixtureCase kMpegFixtures[] = {
    {"sine_cbr128_id3.mp3", false, 1152}, {"sine_cbr128_info.mp3", true, 1152},
    {"sine_mono_44k.mp3", true, 1152},    {"sine_mono_22k.mp3", false, 576},
    {"sine_stereo_11k.mp3", true, 576},   {"sine_vbr_xing.mp3", true, 1152},
    {"sine_layer2.mp2", false, 1152},
};

}  // namespace

TEST(MP3Parser, FrameHeaderSizesRatesAndRejections) {
    unsigned long size = 0;
    int rate = 0, ch = 0, br = 0;
    ASSERT_TRUE(get_mp3_frame_size(kH128, &size, &rate, &ch, &br));
    EXPECT_EQ(size, 417u);
    EXPECT_EQ(rate, 44100);
    EXPECT_EQ(ch, 2);
    EXPECT_EQ(br, 128);
    ASSERT_TRUE(get_mp3_frame_size(kH128Pad | 0xC0, &size, &rate, &ch, &br));
    EXPECT_EQ(size, 418u);
    EXPECT_EQ(ch, 1);
    // 417 bytes at 128 kbit/s last 26062 us in the parser's time keeping.
    EXPECT_EQ(417LL * 8000 / 128, 26062);

    struct {
        unsigned long header;
        unsigned long size;
        int rate, bitrate;
    } ok[] = {
        {0xFFF38000, 72000 * 64 / 22050, 22050, 64},        // MPEG-2 Layer III
        {0xFFE34000, 72000 * 32 / 11025, 11025, 32},        // MPEG-2.5 Layer III
        {0xFFF58000, 72000 * 64 / 22050, 22050, 64},        // MPEG-2 Layer II: 72000 too
        {0xFFFD8000, 144000 * 128 / 44100, 44100, 128},     // MPEG-1 Layer II
        {0xFFFF1000, (12000 * 32 / 44100) * 4, 44100, 32},  // MPEG-1 Layer I
        {0xFFFFE600, (12000 * 448 / 48000 + 1) * 4, 48000, 448},
        {0xFFF7E800, (12000 * 256 / 16000) * 4, 16000, 256},  // MPEG-2 Layer I
        {0xFFE3E800, 72000 * 160 / 8000, 8000, 160},
    };
    for (const auto& c : ok) {
        EXPECT_TRUE(get_mp3_frame_size(c.header, &size, &rate, nullptr, &br))
            << std::hex << c.header;
        EXPECT_EQ(size, c.size) << std::hex << c.header;
        EXPECT_EQ(rate, c.rate) << std::hex << c.header;
        EXPECT_EQ(br, c.bitrate) << std::hex << c.header;
    }
    const unsigned long bad[] = {
        0xFFDB9000,  // a sync bit missing
        0xFFEB9000,  // version 1 (reserved)
        0xFFF99000,  // layer 0
        0xFFFB0000,  // free format
        0xFFFBF000,  // bit-rate index 15
        0xFFFB9C00,  // sampling-rate index 3
        0x00000000,
    };
    for (unsigned long h : bad) {
        size = 7, rate = 7, ch = 7, br = 7;
        EXPECT_FALSE(get_mp3_frame_size(h, &size, &rate, &ch, &br)) << std::hex << h;
        EXPECT_EQ(size + rate + ch + br, 0u) << "outputs are zeroed";
    }
    EXPECT_TRUE(get_mp3_frame_size(kH128, &size, nullptr, nullptr, nullptr));
}

TEST(MP3Parser, FixturesWalkFrameByFrameWithTheEncodersCountsAndDurations) {
    for (const FixtureCase& fx : kMpegFixtures) {
        long frames = 0;
        int rate = 0, channels = 0;
        ASSERT_TRUE(fixture_facts(fx.name, &frames, &rate, &channels)) << fx.name;
        const std::vector<unsigned char> file = read_whole_file(fixture_path(fx.name));
        const std::vector<MpegFrameRef> oracle = split_mpeg_frames(file);

        OpenParser op(fixture_path(fx.name));
        ASSERT_NE(op.parser, nullptr);
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

        // Time keeping goes by bytes and bit rate; it stays within a frame of
        // the samples the encoder wrote.
        const double encoded = (double)frames * fx.samplesPerFrame * 1e6 / rate;
        EXPECT_NEAR((double)p.getCurrentTime(), encoded + (fx.infoFrame ? encoded / frames : 0),
                    encoded * 0.01)
            << fx.name;
        if (fx.infoFrame)
            EXPECT_EQ(p.mDuration, (long long)frames * fx.samplesPerFrame * 1000000 / rate)
                << fx.name;
        else
            EXPECT_EQ(p.mDuration, 0) << fx.name;
    }
    // The VBR file carries a full table of contents.
    OpenParser vbr(fixture_path("sine_vbr_xing.mp3"));
    EXPECT_GT(vbr.parser->mByteNumber, 30000);
    EXPECT_NE(vbr.parser->mTableOfContents[0], 0);
}

TEST(MP3Parser, SeeksByTableOfContentsAndByBitrate) {
    // VBR with a Xing table: 116 frames of 26122 us.
    const std::vector<unsigned char> vbrFile = read_whole_file(fixture_path("sine_vbr_xing.mp3"));
    const std::vector<MpegFrameRef> oracle = split_mpeg_frames(vbrFile);
    OpenParser vbr(fixture_path("sine_vbr_xing.mp3"));
    MP3Parser& p = *vbr.parser;
    MediaBuffer* buf = nullptr;
    auto frame_index = [&](long start) {
        for (size_t i = 0; i < oracle.size(); i++)
            if ((long)oracle[i].offset == start) return (long)i;
        return -1L;
    };
    read_all(p, 10);
    p.setSeekTo(0);
    ASSERT_EQ(p.read(&buf), 0);
    EXPECT_EQ(p.mCurrentPos - (long)buf->range_length(), p.mFirstFramePos);
    long long target = 0;
    EXPECT_TRUE(p.getSeekTo(&target)) << "the caller clears the pending seek, not read";
    p.clearSeekTo();
    EXPECT_FALSE(p.getSeekTo(&target));
    EXPECT_EQ(target, 0);

    p.setSeekTo(1500000);
    ASSERT_EQ(p.read(&buf), 0);
    p.clearSeekTo();
    const long idx = frame_index(p.mCurrentPos - (long)buf->range_length());
    EXPECT_NEAR(idx, 1 + 1500000 / 26122, 3) << "a frame start near 1.5 s";
    int br = 0;
    unsigned long fsize = 0;
    ASSERT_TRUE(
        get_mp3_frame_size(U32_AT((unsigned char*)buf->data()), &fsize, nullptr, nullptr, &br));
    EXPECT_EQ(fsize, buf->range_length());
    EXPECT_EQ(p.getCurrentTime(), 1500000 + (long long)fsize * 8000 / br);
    p.setSeekTo(p.mDuration + 5000000);
    EXPECT_EQ(p.read(&buf), 64) << "past the end: the end of the stream bytes";
    p.clearSeekTo();

    // CBR without a table goes by the first frame's bit rate: 16000 bytes a
    // second at 128 kbit/s.
    OpenParser cbr(fixture_path("sine_cbr128_id3.mp3"));
    MP3Parser& c = *cbr.parser;
    const std::vector<MpegFrameRef> cbrOracle =
        split_mpeg_frames(read_whole_file(fixture_path("sine_cbr128_id3.mp3")));
    c.setSeekTo(1000000);
    ASSERT_EQ(c.read(&buf), 0);
    const long start = c.mCurrentPos - (long)buf->range_length();
    EXPECT_GE(start, c.mFirstFramePos + 16000);
    EXPECT_LT(start, c.mFirstFramePos + 16000 + 418);
    bool isFrame = false;
    for (const MpegFrameRef& r : cbrOracle) isFrame |= (long)r.offset == start;
    EXPECT_TRUE(isFrame) << "resynchronised on a frame start";
    c.clearSeekTo();
    c.setSeekTo(0);
    ASSERT_EQ(c.read(&buf), 0);
    EXPECT_EQ(c.mCurrentPos - (long)buf->range_length(), c.mFirstFramePos);
    c.setSeekTo(60000000);
    EXPECT_EQ(c.read(&buf), 64);
    c.setSeekTo(-5000000);  // a wrapped offset
    EXPECT_EQ(c.read(&buf), 64);
    c.clearSeekTo();
    EXPECT_EQ(c.start(), 0);
    EXPECT_EQ(read_all(c).size(), cbrOracle.size());
}

TEST(MP3Parser, XingNumbersAndTableEdgeCases) {
    unsigned char toc[100];
    for (int i = 0; i < 100; i++) toc[i] = (unsigned char)(i * 256 / 100);
    std::vector<unsigned char> v;
    add_xing(v, 1 | 2 | 4, 10000, 0, toc);
    add_frames(v, kH128, kSize128, 200);
    put_be32(v, 44 + 4, v.size());  // stream bytes
    {
        TempFile f("xing10000.mp3", v);
        OpenParser op(f.path);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mDuration, 261224489LL);
        EXPECT_EQ(p.mByteNumber, (long)v.size());
        EXPECT_EQ((unsigned char)p.mTableOfContents[49], toc[50]);
        // Half the duration: entry 50 of 256 of the stream bytes, then the
        // next frame start.
        p.setSeekTo(p.mDuration / 2);
        MediaBuffer* buf = nullptr;
        ASSERT_EQ(p.read(&buf), 0);
        const long expect = (long)(toc[50] / 256.0f * (float)v.size());
        const long start = p.mCurrentPos - (long)buf->range_length();
        EXPECT_NEAR(start, expect, (long)kSize128);
        EXPECT_EQ(start % (long)kSize128, 0);
    }
    // A table without a frame count is no usable table: the bit rate decides.
    v.clear();
    add_xing(v, 2 | 4, 0, 0, toc);
    add_frames(v, kH128, kSize128, 100);
    put_be32(v, 44, v.size());
    {
        TempFile f("xing_nocount.mp3", v);
        OpenParser op(f.path);
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mDuration, 0);
        p.setSeekTo(500000);
        MediaBuffer* buf = nullptr;
        ASSERT_EQ(p.read(&buf), 0);
        const long start = p.mCurrentPos - (long)buf->range_length();
        EXPECT_GE(start, 8000);
        EXPECT_LT(start, 8000 + (long)kSize128);
    }
    // A table cut by the end of the file.
    v.clear();
    add_frames(v, kH128, kSize128, 4);
    memcpy(&v[36], "Info", 4);
    put_be32(v, 40, 7);
    v.resize(44 + 4 + 4 + 50);
    {
        TempFile f("xing_cut.mp3", v);
        long fd = PAL_FileOpen(f.path.c_str(), FOPEN_READ, 0);
        long bytes = -1;
        long long dur = -1;
        char t[MP3_TOC_ENTRIES];
        EXPECT_FALSE(parse_xing_header(fd, 0, &bytes, t, &dur));
        PAL_FileClose(fd);
    }
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

    add_id3(v, 100);
    add_id3(v, 50);
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"two ID3 tags in a row", v, 110 + 60, 5});

    v.clear();
    add_id3(v, 4086);
    add_frames(v, kH128Pad, kSize128Pad, 5);
    cases.push_back({"a 4096-byte tag", v, 4096, 5});

    v.clear();
    add_frame(v, kH128, 600);  // a header whose next frame is not there
    for (size_t i = 4; i < 600; i++) v[i] = (unsigned char)(i * 7);
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"a false sync and garbage", v, 600, 5});

    v.assign(131071, 0);
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"the first frame at the window's last byte", v, 131071, 5});

    v.assign(131072, 0);
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"the first frame beyond the window", v, -1, 0});

    v.clear();
    add_id3(v, 10);
    v.resize(20 + 131072, 0);
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"the window counts from the tag's end", v, -1, 0});

    v.clear();
    add_frames(v, kH128, kSize128, 6);
    v.resize(v.size() - 100);
    cases.push_back({"a cut last frame", v, 0, 5});

    v.clear();
    add_frames(v, kH128, kSize128, 4);
    add_frames(v, kH48k, kSize48k, 4);
    add_frames(v, kH128, kSize128, 4);
    cases.push_back({"a sampling-rate change and back", v, 0, 8});

    v.clear();
    add_frames(v, kH128, kSize128, 4);
    add_frames(v, kH48k, kSize48k, 6);
    cases.push_back({"a sampling-rate change to the end", v, 0, 4});

    v.clear();
    add_frames(v, kH128, kSize128, 3);
    add_frames(v, kH160, kSize160, 3);
    add_frames(v, kH128Pad, kSize128Pad, 3);
    cases.push_back({"bit rate and padding change", v, 0, 9});

    v.clear();
    add_id3(v, 0);
    v[6] = v[7] = v[8] = v[9] = 0x7F;
    add_frames(v, kH128, kSize128, 5);
    cases.push_back({"an ID3 size past the end", v, -1, 0});

    v.clear();
    add_frames(v, kH128, kSize128, 3);
    cases.push_back({"too few frames to confirm", v, -1, 0});

    cases.push_back({"an empty file", {}, -1, 0});
    cases.push_back({"one byte", {0xFF}, -1, 0});

    v.assign(3000, 0xFF);
    cases.push_back({"all sync bits", v, -1, 0});

    for (const Case& c : cases) {
        TempFile f("hostile.mp3", c.bytes);
        OpenParser op(f.path);
        ASSERT_NE(op.parser, nullptr) << c.what;
        MP3Parser& p = *op.parser;
        EXPECT_EQ(p.mFirstFramePos, c.firstFrame) << c.what;
        EXPECT_EQ(p.mpBuffer == nullptr, c.firstFrame < 0) << c.what;
        EXPECT_EQ(read_all(p).size(), c.frames) << c.what;
        if (c.firstFrame < 0) {
            int ch = -1, sr = -1;
            EXPECT_EQ(p.GetFileInfo(&ch, &sr), 65) << c.what;
            p.setSeekTo(1000000);
            MediaBuffer* buf = reinterpret_cast<MediaBuffer*>(1);
            EXPECT_EQ(p.read(&buf), 64);
            EXPECT_EQ(buf, nullptr);
        }
    }

    MP3Parser empty;
    MediaBuffer* buf = nullptr;
    EXPECT_EQ(empty.m_nfd, -1);
    EXPECT_EQ(empty.mFirstFramePos, -1);
    EXPECT_EQ(empty.read(&buf), 64);
    EXPECT_EQ(empty.mSeekMode, MP3Parser::SEEK_CLOSEST_SYNC);
}
