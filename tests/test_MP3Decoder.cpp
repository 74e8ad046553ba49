// MP3Decoder on frames of a real file made by lame: what bad input does, and
// the reset a seek needs. (Whole files, frame by frame against the mpg123
// player, go through the streamer's reader: test_AVStreamerReader.)
#include <gtest/gtest.h>

#include <vector>

#include "MP3Decoder.h"
#include "audio_check.h"

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
