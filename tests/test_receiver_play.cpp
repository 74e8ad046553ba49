// sonvara-receiver --play end to end without a sound card: the manager
// plays a noise WAV to two receiver processes (front left and front right),
// each playing through ALSA's `default`, which its own configuration routes
// to the `file` plugin over the clock-paced speaker (sonvara_clock). The
// written files must hold each role's audio bit-exact apart from the frames
// the scheduler reports it inserted or dropped (and any jump it reports), and
// the content must start on the shared clock, within 1 ms, in both.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>

#include "DemoCheck.h"
#include "PAL_Clock.h"
#include "ReceiverEmulator.h"
#include "ReceiverProcess.h"
#include "RecordingNotify.h"
#include "RxWav.h"
#include "SonvaraMgr.h"
#include "TempDir.h"

namespace {

// Stereo 16-bit 44.1 kHz noise, different on each side: any misplaced frame shows.
bool write_noise_wav(const std::string& path, int seconds) {
    std::vector<int16_t> pcm((size_t)seconds * 44100 * 2);
    uint32_t x = 12345;
    for (int16_t& s : pcm) {
        x = x * 1103515245u + 12345u;
        s = (int16_t)(x >> 16);
    }
    return rx_wav_write(path.c_str(), 44100, 2, 16, pcm.data(), (uint32_t)(pcm.size() * 2)) == 0;
}

struct Speaker {
    const char* address;
    const char* role;
    AV_CHANNEL_TYPE type;
    std::string base;  // dir/<address>: .conf .wav (played) .net.wav (received) .starts .json
};

// A receiver process whose ALSA `default` is the file plugin over the
// clock-paced speaker.
ReceiverProcess* start_speaker(Speaker* sp, const std::string& dir) {
    sp->base = dir + "/" + sp->address;
    FILE* conf = fopen((sp->base + ".conf").c_str(), "w");
    if (!conf) return nullptr;
    fprintf(conf,
            "pcm_type.sonvara_clock { lib \"%s\" }\n"
            "pcm.!default { type file file \"%s.wav\" format \"wav\"\n"
            "  slave.pcm { type sonvara_clock log \"%s.starts\" } }\n",
            tool_path("libasound_module_pcm_sonvara_clock.so").c_str(), sp->base.c_str(),
            sp->base.c_str());
    fclose(conf);
    return new ReceiverProcess(sp->address,
                               {"--name", sp->role, "--play", "--json", sp->base + ".json", "--wav",
                                sp->base + ".net.wav"},
                               "ALSA_CONFIG_PATH=" + sp->base + ".conf");
}

double json_number(const std::string& json, const char* key) {
    double v = -1;
    EXPECT_TRUE(DemoJsonNumber(json, key, &v)) << key;
    return v;
}

}  // namespace

TEST(ReceiverPlay, TwoSpeakersPlayTheirRolesOnTheSharedClock) {
#ifndef SONVARA_HAVE_ALSA
    GTEST_SKIP() << "sonvara-receiver was built without ALSA";
#endif
    TempDir dir("sonvara_play");
    const std::string content = dir.path + "/noise.wav";
    ASSERT_TRUE(write_noise_wav(content, 3));
    Speaker sp[2] = {{"127.0.0.2", "Front_Left", AV_CHANNEL_FRONT_LEFT, ""},
                     {"127.0.0.3", "Front_Right", AV_CHANNEL_FRONT_RIGHT, ""}};
    std::unique_ptr<ReceiverProcess> proc[2];
    for (int k = 0; k < 2; k++) {
        proc[k].reset(start_speaker(&sp[k], dir.path));
        ASSERT_TRUE(proc[k] && proc[k]->Started());
    }
    {
        PlurafonMgr mgr("sender-guid", nullptr);
        ASSERT_EQ(0, mgr.initCheck());
        RecordingNotify events;
        mgr.SetNoitfyObject(&events);
        ASSERT_EQ(0, mgr.ConnectedWiFi());
        // The processes may still be starting: search until both answered.
        for (int tries = 0; tries < 20 && events.Count("Device ") < 2; tries++) {
            ASSERT_EQ(0, mgr.SearchDevice(true));
        }
        int g = mgr.CreateGroup("Stereo");
        for (Speaker& s : sp) {
            ReceiverConfig cfg;
            ReceiverConfigDefaults(&cfg, s.address);  // the process's own identity
            ASSERT_EQ(0, mgr.AddDevice(g, s.address, cfg.mac, s.type, 1));
        }
        ASSERT_EQ(0, mgr.Open(g, content.c_str(), "Noise", "audio/x-wav", 2, 44100, 5, 0, 0));
        EXPECT_TRUE(events.WaitFor("ServiceStop ", 1, 30000));
        PAL_ThreadSleep(1500);  // the last packets are due a second after they were sent
        EXPECT_EQ(0, mgr.Stop(g, 0));
    }
    for (auto& p : proc) p->Stop();

    DemoPcm src;
    std::string err;
    ASSERT_EQ(0, DemoLoadContent(content.c_str(), &src, &err)) << err;
    long long startUs[2] = {0, 0};
    for (int k = 0; k < 2; k++) {
        SCOPED_TRACE(sp[k].role);
        std::string json, starts;
        ASSERT_TRUE(DemoReadSmallFile((sp[k].base + ".json").c_str(), 1 << 20, &json));
        ASSERT_TRUE(DemoReadSmallFile((sp[k].base + ".starts").c_str(), 1 << 16, &starts));
        DemoPcm played;
        ASSERT_EQ(0, DemoLoadReceived((sp[k].base + ".wav").c_str(), &played, &err)) << err;
        std::vector<unsigned char> ref;
        ASSERT_EQ(0, DemoRoleFilter(src, sp[k].type, &ref));
        DemoPlayMatch m;
        DemoComparePlayed(ref, played.bytes, 4, &m);
        ASSERT_GE(m.startFrame, 0);
        EXPECT_EQ(0u, m.differing);
        EXPECT_TRUE(DemoPlayedToTheEnd(m, 4)) << m.referenceReached << " of " << m.referenceFrames;
        EXPECT_EQ(json_number(json, "play_inserted"), (double)m.inserted);
        EXPECT_EQ(json_number(json, "play_dropped"), (double)m.dropped);
        // Jumps happen only when the machine stalls a player; they are
        // counted too, and then account for what was skipped or held back.
        if (json_number(json, "play_resyncs") == 0) {
            EXPECT_EQ(0u, m.skipped + m.silence);
        } else {
            EXPECT_NEAR(json_number(json, "play_resync_frames"), (double)(m.skipped + m.silence),
                        10.0 * json_number(json, "play_resyncs"));
        }
        // The content's first frame left at its time: the time stamp is that
        // time rounded down to the millisecond, so the start must lie within
        // 1 ms of [stamp, stamp + 1 ms). (On a busy machine the stream may
        // begin with silent packets: the received stream says where it is.)
        DemoPcm received;
        ASSERT_EQ(0, DemoLoadReceived((sp[k].base + ".net.wav").c_str(), &received, &err)) << err;
        DemoPlayMatch net;
        DemoComparePlayed(ref, received.bytes, 4, &net);
        ASSERT_GE(net.startFrame, 0);
        ASSERT_TRUE(DemoPlayedFrameTime(starts, m.startFrame, 44100, &startUs[k]));
        long long offUs = DemoStartLateUs(
            startUs[k], (unsigned int)json_number(json, "first_timestamp"), net.startFrame, 44100);
        EXPECT_GT(offUs, -1000) << "content started " << offUs << " us before its time stamp";
        EXPECT_LT(offUs, 2000) << "content started " << offUs << " us after its time stamp";
    }
    EXPECT_LE(llabs(startUs[0] - startUs[1]), 1000) << "the two speakers started apart";
}
