// The demo's verdict logic on known data: per-role references from real
// files must equal what the streamer's own filters make, and the
// packet-by-packet comparison must tell the faults a real run shows (late
// start, underruns, seeks) from wrong audio.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "AVStreamer.h"
#include "AVStreamerDef.h"
#include "DemoCheck.h"
#include "audio_check.h"

namespace {

std::vector<unsigned char> packets(const std::vector<unsigned char>& ref, size_t from,
                                   size_t count) {
    size_t end = from + count * DEMO_PACKET_BYTES;
    if (end > ref.size()) end = ref.size();
    return std::vector<unsigned char>(ref.begin() + (long)from, ref.begin() + (long)end);
}

std::vector<unsigned char> cat(std::initializer_list<std::vector<unsigned char>> parts) {
    std::vector<unsigned char> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// A receiver's stream as the streamer's own channel filters make it, chunk
// by chunk in the music source's way (a WAV read of 6144 bytes at a time).
std::vector<unsigned char> streamer_stream(CAVStreamer* st, const DemoPcm& src, int role) {
    const size_t chunk = 6144;
    std::vector<short> origin(chunk * 2), divide(chunk * 2);  // room for any filter's reach
    std::vector<unsigned char> out;
    const unsigned short c = (unsigned short)src.channels;
    for (size_t at = 0; at < src.bytes.size(); at += chunk) {
        const size_t n = src.bytes.size() - at < chunk ? src.bytes.size() - at : chunk;
        std::fill(origin.begin(), origin.end(), 0);
        memcpy(origin.data(), &src.bytes[at], n);
        const unsigned char* from = reinterpret_cast<unsigned char*>(divide.data());
        size_t len = 2 * (n / c);
        if (role == AV_CHANNEL_PARTY && c == 2) {
            from = reinterpret_cast<unsigned char*>(origin.data());
            len = n;
        } else if (role == AV_CHANNEL_PARTY && c >= 3) {
            st->PcmPartyChannelFilter(origin.data(), (n / c) / 2, c, divide.data());
            len = 2 * n / c;
        } else {
            st->PcmChannelFilter2Channel(origin.data(), n / c, c, (AV_CHANNEL_TYPE)role,
                                         divide.data());
        }
        out.insert(out.end(), from, from + len);
    }
    return out;
}

}  // namespace

TEST(DemoCheck, RolesAreTheStreamersAndFilesAreCheckedNotTrusted) {
    // The demo's role rule is written independently of the streamer's
    // filters; on mono, stereo and six-channel audio, the bundled sample
    // included, both must give the same bytes. (That the reference is what
    // the streamer's readers send, the demo's own runs in the suite show.)
    const std::string sample = std::string(SONVARA_SOURCE_DIR) + "/samples/sonvara-demo";
    DemoPcm pcm, tune, out;
    std::string err;
    const std::string files[] = {sample + ".mp3",
                                 sample + ".wav",
                                 fixture_path("sine_mono_44k.mp3"),
                                 fixture_path("sine_vbr_xing.mp3"),
                                 fixture_path("wav16_stereo_list_8k.wav"),
                                 fixture_path("wav16_6ch_ext_8k.wav")};
    for (const std::string& f : files) {
        SCOPED_TRACE(f);
        ASSERT_EQ(0, DemoLoadContent(f.c_str(), &pcm, &err)) << err;
        CAVStreamer st(nullptr, nullptr, 1);
        pcm.bytes.resize(pcm.bytes.size() / (2 * pcm.channels) * (2 * pcm.channels));
        for (int role = AV_CHANNEL_FRONT_LEFT; role <= AV_CHANNEL_PARTY; role++) {
            std::vector<unsigned char> ref;
            ASSERT_EQ(0, DemoRoleFilter(pcm, role, &ref));
            EXPECT_TRUE(ref == streamer_stream(&st, pcm, role)) << "role " << role;
        }
    }

    // The sample's two channels are different parts, so roles can be told
    // apart; what the sender refuses has no reference either.
    std::vector<unsigned char> left, right;
    ASSERT_EQ(0, DemoLoadContent((sample + ".wav").c_str(), &tune, &err)) << err;
    ASSERT_EQ(0, DemoRoleFilter(tune, AV_CHANNEL_FRONT_LEFT, &left));
    ASSERT_EQ(0, DemoRoleFilter(tune, AV_CHANNEL_FRONT_RIGHT, &right));
    EXPECT_FALSE(left == right);
    EXPECT_EQ(-1, DemoLoadContent(fixture_path("wav24_stereo_ext_8k.wav").c_str(), &out, &err));
    EXPECT_EQ(-1, DemoLoadContent(fixture_path("sine_layer2.mp2").c_str(), &out, &err));
    EXPECT_EQ(-1, DemoLoadContent("/nonexistent/x.wav", &out, &err));

    // Received WAV files are checked, not trusted.
    std::vector<unsigned char> file = read_whole_file(fixture_path("wav16_stereo_44k.wav"));
    // A writer that stopped before completing its header: data size too large.
    TempFile partial("partial.wav", std::vector<unsigned char>(file.begin(), file.begin() + 1044));
    ASSERT_EQ(0, DemoLoadReceived(partial.path.c_str(), &pcm, &err)) << err;
    EXPECT_EQ(1000u, pcm.bytes.size());
    EXPECT_EQ(44100, pcm.rate);
    // A chunk size running past the end, garbage, no data chunk.
    std::vector<unsigned char> lying = file;
    memcpy(&lying[16], "\xff\xff\xff\x7f", 4);
    for (const auto& bad : {lying, std::vector<unsigned char>(100, 0x52),
                            std::vector<unsigned char>(file.begin(), file.begin() + 36)}) {
        TempFile f("bad.wav", bad);
        EXPECT_EQ(-1, DemoLoadReceived(f.path.c_str(), &pcm, &err)) << bad.size();
    }
}

// The whole stream with underruns and a silent tail; started late; the
// other channel, one flipped bit, nothing; a seek in an MP3, whose restarted
// decoder's first frame is not in a whole decode but is exactly what the
// sender sends after the seek.
TEST(DemoCheck, ComparisonTellsFaultsFromWrongAudio) {
    const std::string path = fixture_path("sine_cbr128_id3.mp3");
    DemoPcm mp3, after;
    std::string err;
    ASSERT_EQ(0, DemoLoadContent(path.c_str(), &mp3, &err)) << err;
    EXPECT_EQ(-1,
              DemoLoadContentFrom(fixture_path("wav16_stereo_44k.wav").c_str(), 1, &after, &err));
    ASSERT_EQ(0, DemoLoadContentFrom(path.c_str(), 1, &after, &err)) << err;
    EXPECT_LT(after.bytes.size(), mp3.bytes.size() * 3 / 4);
    EXPECT_GT(after.bytes.size(), mp3.bytes.size() / 4);
    std::vector<unsigned char> ref, left, seekRef;
    ASSERT_EQ(0, DemoRoleFilter(mp3, AV_CHANNEL_FRONT_RIGHT, &ref));
    ASSERT_EQ(0, DemoRoleFilter(mp3, AV_CHANNEL_FRONT_LEFT, &left));
    ASSERT_EQ(0, DemoRoleFilter(after, AV_CHANNEL_FRONT_RIGHT, &seekRef));
    const size_t P = DEMO_PACKET_BYTES, whole = ref.size() / P;
    const std::vector<unsigned char> silence(P, 0);
    std::vector<unsigned char> flipped = packets(ref, 0, 30);
    flipped[15 * P + 77] ^= 1;
    const std::vector<unsigned char> seek = cat({packets(ref, 0, 20), packets(seekRef, 0, 20)});
    const struct {
        std::vector<unsigned char> rx;
        bool withSeek;
        int verdict;
        unsigned int accounted, differing, jumps;  // accounted: matched or silent
    } cases[] = {
        {cat({packets(ref, 0, 10), silence, packets(ref, 10 * P, whole - 10), silence}), false,
         DEMO_EXACT, (unsigned int)whole + 2, 0, 0},
        {packets(ref, 30 * P + 8, 40), false, DEMO_EXACT_PART, 40, 0, 0},
        {packets(left, 0, 30), false, DEMO_DIFFERS, 0, 30, 0},
        {flipped, false, DEMO_DIFFERS, 29, 1, 0},
        {{}, false, DEMO_NOTHING, 0, 0, 0},
        {silence, false, DEMO_NOTHING, 1, 0, 0},
        // a restart may begin with silent frames
        {seek, true, DEMO_EXACT_RUNS, 40, 0, 1},
    };
    for (const auto& c : cases) {
        DemoMatch m;
        DemoCompareAny({&ref, c.withSeek ? &seekRef : &ref}, c.rx, 4, &m);
        EXPECT_EQ(
            (std::vector<unsigned int>{(unsigned int)c.verdict, c.accounted, c.differing, c.jumps}),
            (std::vector<unsigned int>{(unsigned int)m.verdict, m.matched + m.silent, m.differing,
                                       m.jumps}))
            << &c - cases;
    }
    DemoMatch m;
    DemoCompare(ref, packets(ref, 30 * P + 8, 40), 4, &m);
    EXPECT_EQ(30u * P + 8, m.startOffset);
    DemoCompare(ref, cases[0].rx, 4, &m);
    EXPECT_EQ("bit-exact", DemoDescribe(m, mp3.rate, 4));
    DemoCompare(ref, seek, 4, &m);
    EXPECT_EQ(DEMO_DIFFERS, m.verdict);
}
