// The play-out scheduler of sonvara-receiver --play on made-up streams: each
// frame carries its own stream index, so the output tells exactly which frame
// went out when. A simulated device consumes frames in real time; the clock
// estimate and the device delay are what the scheduler is given.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "PlayScheduler.h"

namespace {

const int kRate = 44100;
const int kFpp = 350;  // frames per 1400-byte packet at 16-bit stereo

// Packet n of a stream that starts at master millisecond startMs, as the
// sender stamps it; frame i of the stream holds i + 1 (0 is silence).
struct Stream {
    unsigned short seq0;
    unsigned int startMs;
    uint32_t base;  // value of the stream's frame 0, minus 1
    void Push(PlayScheduler* s, long long n) const {
        uint32_t pcm[kFpp];
        for (int i = 0; i < kFpp; i++) pcm[i] = base + (uint32_t)(n * kFpp + i) + 1;
        unsigned int ts = startMs + (unsigned int)(n * kFpp * 4 * 1000 / (kRate * 4));
        s->Push((unsigned short)(seq0 + n), ts, (const unsigned char*)pcm, sizeof(pcm));
    }
    void PushRange(PlayScheduler* s, long long from, long long to) const {
        for (long long n = from; n < to; n++) Push(s, n);
    }
};

// A device that plays from masterStartUs on, `delay` frames behind the
// writer; `clockErrUs` is added to every clock reading handed over.
struct Device {
    explicit Device(long long startUs, long delayFrames = 441)
        : masterStartUs(startUs), written(0), delay(delayFrames), clockErrUs(0) {}
    long long masterStartUs;
    long long written;
    long delay;
    long long clockErrUs;
    std::vector<uint32_t> out;
    void Write(PlayScheduler* s, int frames) {
        long long now = masterStartUs + (written - delay) * 1000000LL / kRate + clockErrUs;
        std::vector<uint32_t> buf((size_t)frames);
        s->Fill(now, delay, (unsigned char*)buf.data(), frames);
        out.insert(out.end(), buf.begin(), buf.end());
        written += frames;
    }
};

PlayScheduler* make() {
    static PlayScheduler* s = new PlayScheduler();  // 1.4 MB: not on the stack
    PlaySchedulerConfig cfg;
    PlaySchedulerDefaults(&cfg, kRate, 4);
    s->Configure(cfg);
    return s;
}

}  // namespace

TEST(PlayScheduler, StartsOnTheExactFrameAndFillsGapsWithSilence) {
    PlayScheduler* s = make();
    Stream st = {65530, 100000, 0};  // the sequence wraps after 6 packets
    st.PushRange(s, 0, 3);
    st.PushRange(s, 4, 40);  // packet 3 is lost
    EXPECT_EQ(-1, s->Push(1, 1, (const unsigned char*)"x", 1));
    // The device starts 10 ms (441 frames) before the stream is due.
    Device d(100000000LL - 10000);
    for (int i = 0; i < 20; i++) d.Write(s, 441);
    for (int i = 0; i < 441; i++) ASSERT_EQ(0u, d.out[(size_t)i]) << i;
    for (int i = 441; i < 441 + 3 * kFpp; i++) ASSERT_EQ((uint32_t)(i - 440), d.out[(size_t)i]);
    for (int i = 441 + 3 * kFpp; i < 441 + 4 * kFpp; i++) ASSERT_EQ(0u, d.out[(size_t)i]);
    for (size_t i = 441 + 4 * kFpp; i < d.out.size(); i++) ASSERT_EQ((uint32_t)(i - 440), d.out[i]);
    const PlayStats& st1 = s->Stats();
    EXPECT_EQ(100000000LL, st1.startMasterUs);
    EXPECT_EQ(1u, st1.starts);
    EXPECT_EQ(1u, st1.badPackets);
    EXPECT_EQ(0u, st1.inserted + st1.dropped + st1.resyncs);

    // Joining later: the first packet heard has a rounded-down timestamp;
    // the following ones pin the sub-millisecond part, so the start is still
    // on the right frame (packet 5 is due 39.68 ms after the stream's start).
    s = make();
    st.PushRange(s, 5, 60);
    Device late(100039000LL, 0);
    for (int i = 0; i < 4; i++) late.Write(s, 441);
    size_t first = 0;
    while (late.out[first] == 0) first++;
    EXPECT_EQ((uint32_t)(5 * kFpp + 1), late.out[first]);
    EXPECT_NEAR(0.68 * kRate / 1000, (double)first, 1.0);
}

TEST(PlayScheduler, CorrectsASmallErrorFrameByFrame) {
    PlayScheduler* s = make();
    Stream st = {7, 5000, 0};
    Device d(5000000LL);
    long long sent = 0;
    auto run = [&](int periods) {
        for (int i = 0; i < periods; i++) {
            long long want = (d.written + 40 * 441) / kFpp + 1;  // ~400 ms ahead
            st.PushRange(s, sent, want);
            sent = want;
            d.Write(s, 441);
        }
    };
    run(50);
    // The clock estimate moves by 1 ms: 44 frames are skipped, one at a
    // time and at least 10 ms apart, and the stream is on time again.
    d.clockErrUs = 1000;
    run(300);
    const PlayStats& r = s->Stats();
    EXPECT_NEAR(44.0, (double)r.dropped - r.inserted, 3.0);
    EXPECT_EQ(0u, r.resyncs);
    long long lastCorrection = -100000;
    for (size_t i = 1; i < d.out.size(); i++) {
        uint32_t step = d.out[i] - d.out[i - 1];
        ASSERT_TRUE(step == 1 || step == 2 || step == 0) << i << " step " << step;
        if (step != 1) {
            EXPECT_GE((long long)i - lastCorrection, kRate / 100) << i;
            lastCorrection = (long long)i;
        }
    }
    long long playing = (long long)d.out.size() - 1;
    EXPECT_NEAR((double)(playing - d.delay) + 0.001 * kRate, (double)d.out.back() - 441 - 1, 12.0);
}
