// MP3Decoder on real files made by lame and twolame: every frame gives its
// full PCM at once, the format is the stream's own, the decoded sines have the
// source's frequency and level, and the whole output equals the mpg123
// player's own (so no frame is held back, dropped or trimmed).
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "MP3Decoder.h"
#include "audio_check.h"

namespace {

struct Fixture {
    const char* name;
    int channels;
    int rate;
    unsigned samplesPerFrame;
    bool infoFrame;  // the encoder put a Xing/Info frame first
};

const Fixture kFixtures[] = {
    {"sine_cbr128_id3.mp3", 2, 44100, 1152, false}, {"sine_cbr128_info.mp3", 2, 44100, 1152, true},
    {"sine_mono_44k.mp3", 1, 44100, 1152, true},    {"sine_mono_22k.mp3", 1, 22050, 576, false},
    {"sine_stereo_11k.mp3", 2, 11025, 576, true},   {"sine_vbr_xing.mp3", 2, 44100, 1152, true},
    {"sine_layer2.mp2", 2, 44100, 1152, false},
};

// Decodes every frame of a fixture one by one, checking each as it comes.
std::vector<int16_t> decode_all(const Fixture& fx, MP3Decoder& dec) {
    const std::vector<unsigned char> file = read_whole_file(fixture_path(fx.name));
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(file);
    EXPECT_GT(frames.size(), 20u);
    std::vector<int16_t> pcm;
    std::vector<unsigned char> in, out(12288);
    for (size_t i = 0; i < frames.size(); i++) {
        in.assign(file.begin() + frames[i].offset,
                  file.begin() + frames[i].offset + frames[i].size);
        MP3DEC_DATA d = {in.data(), (unsigned)in.size(), 0, out.data(), (unsigned)out.size(), 0};
        EXPECT_TRUE(dec.MP3Dec_Decode(&d)) << fx.name << " frame " << i;
        const bool tag = fx.infoFrame && i == 0;
        EXPECT_EQ(d.dstUsed, tag ? 0u : fx.samplesPerFrame * fx.channels * 2)
            << fx.name << " frame " << i;
        EXPECT_EQ(d.srcUsed, in.size());
        // The Info frame reports the stream's format too.
        EXPECT_EQ(dec.MP3Dec_GetInfo().num_channels, fx.channels) << fx.name;
        EXPECT_EQ(dec.MP3Dec_GetInfo().samplingRate, fx.rate) << fx.name;
        const int16_t* s = reinterpret_cast<const int16_t*>(out.data());
        pcm.insert(pcm.end(), s, s + d.dstUsed / 2);
    }
    return pcm;
}

}  // namespace

TEST(MP3Decoder, EveryFrameGivesItsPcmWithTheSourceToneAndLevel) {
    for (const Fixture& fx : kFixtures) {
        MP3Decoder dec;
        ASSERT_TRUE(dec.MP3Dec_Create());
        const std::vector<int16_t> pcm = decode_all(fx, dec);
        const size_t perChannel = pcm.size() / fx.channels;
        // Leave out the encoder's delay at the start and the fade at the end.
        const size_t skip = fx.rate / 10;
        ASSERT_GT(perChannel, 3 * skip) << fx.name;
        const int16_t* mid = pcm.data() + skip * fx.channels;
        const size_t n = perChannel - 2 * skip;
        const double freqs[2] = {fx.channels == 1 ? 440.0 : 440.0, 1000.0};
        for (int ch = 0; ch < fx.channels; ch++) {
            const ToneStats st = tone_stats(mid, n, fx.channels, ch, fx.rate);
            EXPECT_NEAR(st.frequency, freqs[ch], freqs[ch] * 0.005) << fx.name << " ch " << ch;
            EXPECT_NEAR(st.rms, kFixtureSineRms, kFixtureSineRms * 0.08) << fx.name << " ch " << ch;
        }
    }
}

TEST(MP3Decoder, OutputEqualsTheMpg123PlayerWithoutGaplessTrimming) {
    if (system("mpg123 --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no mpg123 player";
    for (const Fixture& fx : kFixtures) {
        MP3Decoder dec;
        ASSERT_TRUE(dec.MP3Dec_Create());
        const std::vector<int16_t> ours = decode_all(fx, dec);
        const std::string raw =
            testing::TempDir() + "sonvara_" + std::to_string(getpid()) + "_mp3dec_ref.raw";
        const std::string cmd = "mpg123 -q --no-gapless -e s16 -O '" + raw + "' '" +
                                fixture_path(fx.name) + "' 2>/dev/null";
        ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
        const std::vector<unsigned char> ref = read_whole_file(raw);
        remove(raw.c_str());
        ASSERT_EQ(ref.size(), ours.size() * 2) << fx.name;
        EXPECT_TRUE(memcmp(ref.data(), ours.data(), ref.size()) == 0) << fx.name;
    }
}

TEST(MP3Decoder, BadInputFailsCleanlyAndResetRecovers) {
    const std::vector<unsigned char> file = read_whole_file(fixture_path("sine_cbr128_info.mp3"));
    const std::vector<MpegFrameRef> frames = split_mpeg_frames(file);
    ASSERT_GT(frames.size(), 10u);
    std::vector<unsigned char> out(12288);
    MP3Decoder dec;
    MP3DEC_DATA d = {nullptr, 0, 0, out.data(), (unsigned)out.size(), 0};
    EXPECT_FALSE(dec.MP3Dec_Decode(&d)) << "decode before create";
    ASSERT_TRUE(dec.MP3Dec_Create());

    auto feed = [&](const unsigned char* p, size_t n, unsigned dstSize) {
        std::vector<unsigned char> in(p, p + n);
        MP3DEC_DATA dd = {in.data(), (unsigned)n, 0, out.data(), dstSize, 0};
        const bool ok = dec.MP3Dec_Decode(&dd);
        return ok ? (long)dd.dstUsed : -1L;
    };
    const unsigned char* f5 = &file[frames[5].offset];
    // Junk, an empty frame, a cut frame and a too-small output area are
    // failures; none of them leaves bytes behind that spoil the next frame.
    std::vector<unsigned char> junk(400, 0x5A);
    EXPECT_EQ(feed(junk.data(), junk.size(), 12288), -1);
    EXPECT_EQ(feed(f5, 0, 12288), -1);
    EXPECT_EQ(feed(f5, frames[5].size / 2, 12288), -1);
    EXPECT_EQ(feed(f5, frames[5].size, 1000), -1);
    EXPECT_EQ(feed(&file[frames[6].offset], frames[6].size, 12288), 4608);
    EXPECT_EQ(feed(&file[frames[7].offset], frames[7].size, 12288), 4608);

    // After a reset (a seek) the next frame decodes at once, any frame will do.
    ASSERT_TRUE(dec.MP3Dec_Reset());
    EXPECT_EQ(feed(&file[frames[40].offset], frames[40].size, 12288), 4608);
    // The Info frame gives no samples, even in the middle of a stream.
    EXPECT_EQ(feed(&file[frames[0].offset], frames[0].size, 12288), 0);
    EXPECT_EQ(feed(&file[frames[41].offset], frames[41].size, 12288), 4608);
    dec.MP3Dec_Release();
    EXPECT_EQ(feed(f5, frames[5].size, 12288), -1);
}
