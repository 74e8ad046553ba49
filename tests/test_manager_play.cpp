// Searches and group playback through the manager alone, against answering
// peers and emulated receivers on 127.0.0.x: what each search reports and
// marks absent, Wi-Fi coming and going; Open's codes and what it hands the
// receivers, the service registry, controls of a playing group, Stop, two
// groups at once, Wi-Fi loss, the events of a whole play in order, and
// receivers that misbehave.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ReceiverEmulator.h"
#include "ReceiverProcess.h"
#include "RecordingNotify.h"
#include "RxWav.h"
#include "SonvaraMgr.h"
#include "TempDir.h"

namespace {

// A 16-bit stereo WAV of the given length: a slow ramp, so no packet is silent.
std::string MakeWav(const std::string& dir, int seconds) {
    std::string path = dir + "/tone_" + std::to_string(seconds) + ".wav";
    std::vector<short> pcm(2 * 44100 * (size_t)seconds);
    for (size_t i = 0; i < pcm.size(); i++) pcm[i] = (short)(1000 + (i / 2 % 44100 % 2000));
    rx_wav_write(path.c_str(), 44100, 2, 16, pcm.data(), (uint32_t)(pcm.size() * 2));
    return path;
}

// The longest time, in ms, in which one of the receivers got no packet while
// they are watched for ms. A late look by the watcher finds new packets and
// counts no silence: only the receivers' own silence shows. Unloaded it is a
// few packet times (8 ms each); the tests allow kMaxSilenceMs, far below the
// seconds a receiver used to hold the stream up for, and far above what a
// busy machine adds.
const unsigned int kMaxSilenceMs = 1000;

unsigned int LongestSilence(const std::vector<ReceiverEmulator*>& who, unsigned int ms) {
    unsigned int start = PAL_GetClock(), longest = 0;
    std::vector<unsigned int> count(who.size(), 0), since(who.size(), start);
    while (PAL_GetClock() - start < ms) {
        PAL_ThreadSleep(5);
        unsigned int now = PAL_GetClock();
        for (size_t k = 0; k < who.size(); k++) {
            unsigned int c = who[k]->Report().packets;
            if (c != count[k]) {
                count[k] = c;
                since[k] = now;
            } else if (now - since[k] > longest) {
                longest = now - since[k];
            }
        }
    }
    return longest;
}

// What a receiver got is the start of the file's audio, byte for byte (the
// tone has equal channels, so every role gets the file's own frames).
void ExpectFilePrefix(ReceiverEmulator* r, const std::string& wav) {
    std::vector<unsigned char> got = r->Pcm(), want(got.size());
    FILE* f = fopen(wav.c_str(), "rb");
    ASSERT_TRUE(f != nullptr);
    fseek(f, 44, SEEK_SET);
    want.resize(fread(want.data(), 1, want.size(), f));
    fclose(f);
    ASSERT_GT(got.size(), 0u);
    EXPECT_TRUE(want == got) << r->Config().address;
    EXPECT_EQ(0u, r->Report().lostPackets) << r->Config().address;
}

class Play : public ::testing::Test {
protected:
    void SetUp() override {
        mgr.reset(new PlurafonMgr("sender-guid", nullptr));
        ASSERT_EQ(0, mgr->initCheck());
        mgr->SetNoitfyObject(&events);
        ASSERT_EQ(0, mgr->ConnectedWiFi());
    }
    void TearDown() override { mgr.reset(); }

    // Emulators up to n-1 on 127.0.0.<2+i>, and searches until `found`
    // devices were reported.
    void Receivers(int n, int found = -1) {
        while ((int)rx.size() < n) {
            ReceiverConfig cfg;
            ReceiverConfigDefaults(&cfg, ("127.0.0." + std::to_string(2 + rx.size())).c_str());
            cfg.pcmLimitBytes = 4 << 20;
            rx.emplace_back(new ReceiverEmulator(cfg));
            ASSERT_EQ(0, rx.back()->Start());
        }
        // A receiver process may still be starting: search again for it (a
        // search reports only the devices it finds anew).
        found = found < 0 ? n : found;
        for (int tries = 0; tries < 10 && events.Count("Device ") < found; tries++)
            ASSERT_EQ(0, mgr->SearchDevice(true));
        ASSERT_EQ(found, events.Count("Device "));
    }
    // Stop returns 0 within 3.5 s whatever the receivers do.
    void StopPromptly(int g) {
        unsigned int t0 = PAL_GetClock();
        EXPECT_EQ(0, mgr->Stop(g, 0));
        EXPECT_LT(PAL_GetClock() - t0, 3500u);
    }
    const char* Ip(int i) { return rx[i]->Config().address; }
    const char* Mac(int i) { return rx[i]->Config().mac; }
    // A group of receivers, in service, each with its role (default party).
    int Group(const char* name, std::vector<int> members, std::vector<int> roles = {}) {
        int g = mgr->CreateGroup(name);
        for (size_t k = 0; k < members.size(); k++) {
            int role = k < roles.size() ? roles[k] : AV_CHANNEL_PARTY;
            EXPECT_EQ(0, mgr->AddDevice(g, Ip(members[k]), Mac(members[k]), role, 1));
        }
        return g;
    }
    int Open(int g, const std::string& wav, int volume = 5, int reuse = 0) {
        return mgr->Open(g, wav.c_str(), "Tone", "audio/x-wav", 2, 44100, volume, 0, reuse);
    }
    // The members' states, in order: "S" standby, "P" play, "O" off.
    std::string States(int g) {
        std::string s;
        for (int i = 0; i < mgr->GetDeviceCountInGroup(g); i++)
            s += "SPO"[mgr->GetDeviceStateInGroup(g, i) % 3];
        return s;
    }
    // Each receiver, by index, gets its command within 5 s.
    void ExpectCommands(std::vector<std::pair<int, const char*>> want) {
        for (auto& w : want) EXPECT_TRUE(rx[w.first]->WaitForCommand(w.second, 5000)) << w.second;
    }

    TempDir dir;
    std::unique_ptr<PlurafonMgr> mgr;
    RecordingNotify events;
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
};

}  // namespace

// One session of the manager with five receivers and two groups: searches
// (blocking ones report and add, a background one marks the silent absent
// and fills in names), then One plays a short file to its end while Two
// plays on, is controlled, and loses members one way after another; then
// Wi-Fi loss, Stop, and a manager destroyed while playing.
TEST_F(Play, SearchesTwoGroupsControlsMembersLeavingWiFiLossStopAndDestruction) {
    ASSERT_EQ(0, mgr->LoadMyDevice());
    int phone = mgr->GetDeviceHandle(0);
    Receivers(6);
    int g1 = Group("One", {0}, {99});  // a role no receiver knows plays as "None"
    int g2 = Group("Two", {1, 2, 3, 4, 5}, {AV_CHANNEL_FRONT_LEFT});
    std::string g1s = std::to_string(g1), g2s = std::to_string(g2);
    EXPECT_STREQ("", mgr->GetDeviceNameInGroup(g1, 0));  // a blocking search learns no names

    // Receiver 5 stops answering: a blocking search leaves it present; a
    // background search marks it absent (never the phone), fills in what
    // the answers say, and reports its end once. Answering again, it is
    // present again after the next search.
    rx[5]->SetAnswerDiscovery(false);
    ASSERT_EQ(0, mgr->SearchDevice(false));
    EXPECT_EQ("SSSSS", States(g2));
    events.Clear();
    EXPECT_EQ(0, mgr->SearchDeviceAsync(500));
    EXPECT_EQ(0, mgr->SearchDeviceAsync(500));  // already running: left alone
    ASSERT_TRUE(events.WaitFor("SearchComplete 1"));
    EXPECT_FALSE(events.WaitFor("SearchComplete ", 2, 1500));
    EXPECT_EQ(0, events.Count("Device "));
    EXPECT_EQ(nullptr, mgr->GetDeviceIpInGroup(g2, 4));
    EXPECT_EQ("SSSSO", States(g2));
    EXPECT_NE(nullptr, mgr->GetDeviceIp(phone));
    EXPECT_STREQ(rx[0]->Config().name, mgr->GetDeviceNameInGroup(g1, 0));
    rx[5]->SetAnswerDiscovery(true);
    ASSERT_EQ(0, mgr->SearchDevice(true));
    EXPECT_STREQ(Ip(5), mgr->GetDeviceIpInGroup(g2, 4));

    // The listener stops One from inside its end-of-content event, on the
    // streamer's own thread, as a player does: Stop answers at once (the
    // close would wait for that very thread), and the streamer still ends.
    std::atomic<int> stopped(-1);
    events.OnServiceStop([&](int g) {
        if (g == g1) stopped = mgr->Stop(g, 0);
    });
    std::string shortWav = MakeWav(dir.path, 3), wav = MakeWav(dir.path, 20);
    ASSERT_EQ(0, Open(g1, shortWav));
    ASSERT_EQ(0, Open(g2, wav, 20));
    for (auto& r : rx) ASSERT_TRUE(r->WaitForPackets(10, 15000));
    EXPECT_STREQ("None", rx[0]->Report().startRole);
    EXPECT_STREQ("Front_Left", rx[1]->Report().startRole);
    EXPECT_EQ(15, rx[1]->Report().volume);  // 20 is capped
    EXPECT_EQ(6, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(PLURAFON_ERR_ALREADY_PLAY, Open(g2, wav));
    EXPECT_EQ(PLURAFON_ERR_GROUP_PLAYING, mgr->DeleteGroup(g2));
    rx[0]->SendJoin(4242, 3);  // three copies of one request: acted on once

    // Controls pass through to the receivers.
    EXPECT_EQ(0, mgr->ReceiverDeviceVolumeControl(Ip(1), Mac(1), 4));
    EXPECT_EQ(0, mgr->ReceiverVolumeControl(g2, 6));
    EXPECT_EQ(0, mgr->SetReceiverUITypeAll(g2, 2));
    EXPECT_EQ(0, mgr->SetReceiverUIType(Ip(2), Mac(2), 3));
    EXPECT_EQ(0, mgr->Pause(g2));
    EXPECT_EQ(0, mgr->Resume(g2));
    EXPECT_EQ(0, mgr->seekTo(g2, 5));
    ExpectCommands({{1, "VOLUME"}, {2, "UITYPE"}, {1, "PAUSE"}, {1, "RESUME"}, {2, "SEEK"}});

    // A member taken out of service leaves the stream and the registry, and
    // comes back through DevicePlay; a member removed leaves its stream too.
    EXPECT_EQ(0, mgr->SetDeviceEnableInGroup(g2, Ip(2), Mac(2), 0));
    EXPECT_EQ(5, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ("PSPPP", States(g2));
    EXPECT_EQ(1, mgr->SetDeviceEnableInGroup(g2, Ip(2), Mac(2), 1));
    EXPECT_EQ(0, mgr->DevicePlay(g2, Ip(2), Mac(2), AV_CHANNEL_PARTY, 30));
    EXPECT_EQ(0, mgr->DevicePlay(g2, Ip(2), Mac(2), AV_CHANNEL_PARTY, 30));  // already
    EXPECT_EQ(6, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(0, mgr->ReceiverOut(g2, Ip(4), Mac(4)));
    EXPECT_EQ(5, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(4, mgr->GetDeviceCountInGroup(g2));
    EXPECT_TRUE(rx[4]->WaitForCommand("BYE", 10000));

    // An EXIT announcement takes its receiver out of the stream; a receiver
    // that leaves is reported.
    ASSERT_EQ(0, rx[1]->SendExit());
    ASSERT_TRUE(events.WaitFor(std::string("Die ") + Ip(1)));
    EXPECT_EQ("OPPP", States(g2));
    EXPECT_EQ(4, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(0, mgr->ServiceDeviceGetGroupIdOfReceiver(Ip(1)));
    EXPECT_TRUE(rx[1]->WaitForCommand("BYE", 10000));
    rx[5]->SendJoin();
    ASSERT_GE(rx[5]->SendLeave(), 0);
    EXPECT_TRUE(events.WaitFor("Leave " + g2s + " " + Ip(5)));

    ASSERT_TRUE(events.WaitFor("ServiceStop " + g1s, 1, 30000));
    for (unsigned int t0 = PAL_GetClock(); stopped < 0 && PAL_GetClock() - t0 < 5000;)
        PAL_ThreadSleep(10);
    events.OnServiceStop(nullptr);
    EXPECT_EQ(0, stopped.load());
    EXPECT_TRUE(rx[0]->WaitForCommand("BYE", 10000));
    EXPECT_TRUE(rx[0]->WaitForDisconnect(10000));

    // One's events: progress climbs second by second; the stop is reported
    // once and comes after every other event of One but progress: when the
    // drain ends by its wait limit (a machine too slow to play in real
    // time), packets still queued go out, and report progress, after it.
    EXPECT_EQ(1, events.Count("ServiceStop "));
    int last = -1, joins = 0;
    std::string lastOther;
    for (auto& line : events.Lines()) {
        std::string kind, id;
        int sec = -1;
        std::istringstream(line) >> kind >> id >> sec;
        if (kind == "Progress" && id == g1s) {
            EXPECT_GT(sec, last);
            last = sec;
        } else if (kind != "Progress" && (id == g1s || line.find(Ip(0)) != std::string::npos)) {
            lastOther = line;
            joins += kind == "Join";
        }
    }
    EXPECT_EQ(1, joins);
    EXPECT_GE(last, 1);
    EXPECT_EQ(0u, lastOther.find("ServiceStop " + g1s));

    // Two plays on to its last member; Wi-Fi loss stops it.
    EXPECT_TRUE(rx[3]->WaitForPackets(rx[3]->Report().packets + 20, 10000));
    ASSERT_EQ(0, mgr->DisconnectedWiFi());
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g2, 0));
    EXPECT_EQ("OOOO", States(g2));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());

    // Stop blocks until the streamer is gone; members go back to standby.
    ASSERT_EQ(0, mgr->ConnectedWiFi());
    ASSERT_EQ(0, mgr->SearchDevice(true));
    ASSERT_EQ(0, Open(g1, wav));
    ASSERT_TRUE(rx[0]->WaitForPackets(rx[0]->Report().packets + 20, 15000));
    ASSERT_EQ(0, mgr->Stop(g1, 0));
    EXPECT_TRUE(rx[0]->WaitForDisconnect(5000));
    EXPECT_EQ("S", States(g1));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g1, 0));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Pause(g1));
    EXPECT_EQ(0, mgr->DeleteGroup(g1));
    // The destructor stops what still plays (a stream opened for reuse).
    ASSERT_EQ(0, Open(g2, wav, 5, 1));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    ASSERT_TRUE(rx[3]->WaitForPackets(rx[3]->Report().packets + 20, 15000));
    mgr.reset();
    EXPECT_TRUE(rx[3]->WaitForDisconnect(10000));
}

// Misbehaving receivers. One member floods requests and stops reading,
// another (a receiver process) stops dead without closing anything: the
// others hear no gap, get the file byte for byte and still obey; the flooder
// is dropped. Then a group with a member that never plays (it stops
// answering after SETUP): the others start two seconds late, it is dropped
// at five, and seeks and Stop come back in time throughout.
TEST_F(Play, FloodingVanishedAndStuckReceiversHoldUpNobody) {
    const char* kGone = "127.0.0.9";
    ReceiverProcess gone(kGone);
    ASSERT_TRUE(gone.Started());
    Receivers(4, 5);
    ReceiverConfig cfg;
    ReceiverConfigDefaults(&cfg, kGone);  // the process's own identity
    std::string wav = MakeWav(dir.path, 20);
    int g = Group("Flood", {0, 1, 2}, {AV_CHANNEL_FRONT_LEFT, AV_CHANNEL_FRONT_RIGHT});
    std::string gs = std::to_string(g);
    ASSERT_EQ(0, mgr->AddDevice(g, kGone, cfg.mac, AV_CHANNEL_PARTY, 1));
    ASSERT_EQ(0, Open(g, wav));
    for (int i : {0, 1, 2}) ASSERT_TRUE(rx[i]->WaitForPackets(50, 15000));
    ASSERT_EQ(4, mgr->ServiceDeviceGetCntList());

    ASSERT_EQ(0, gone.Signal(SIGSTOP));
    rx[2]->SetFloodDescribe(true);
    EXPECT_LT(LongestSilence({rx[0].get(), rx[1].get()}, 10000), kMaxSilenceMs);
    EXPECT_TRUE(events.WaitFor("Reset " + gs + " " + Ip(2), 1, 5000));
    EXPECT_EQ(0, events.Count("Reset " + gs + " " + Ip(0)));
    for (int i : {0, 1}) ExpectFilePrefix(rx[i].get(), wav);
    // Controls still reach those that read.
    EXPECT_EQ(0, mgr->ReceiverVolumeControl(g, 3));
    EXPECT_TRUE(rx[1]->WaitForCommand("VOLUME", 5000));
    EXPECT_EQ(0, mgr->Pause(g));
    EXPECT_EQ(0, mgr->Resume(g));
    StopPromptly(g);

    rx[3]->SetStopAtSetup(true);
    g = Group("Stuck", {0, 1, 3});
    gs = std::to_string(g);
    auto seekInTime = [&](int sec) {
        unsigned int t1 = PAL_GetClock();
        EXPECT_EQ(0, mgr->seekTo(g, sec));
        EXPECT_LT(PAL_GetClock() - t1, 3500u);
    };
    unsigned int t0 = PAL_GetClock(),
                 before[2] = {rx[0]->Report().packets, rx[1]->Report().packets};
    ASSERT_EQ(0, Open(g, wav));
    ASSERT_TRUE(rx[3]->WaitForHandshake(RX_HS_WAIT_PLAY, 5000));
    seekInTime(2);  // nothing streams yet
    for (int i : {0, 1}) ASSERT_TRUE(rx[i]->WaitForPackets(before[i] + 1, 8000));
    EXPECT_GE(PAL_GetClock() - t0, 1900u);  // the late-start point
    ASSERT_TRUE(events.WaitFor("Reset " + gs + " " + Ip(3), 1, 10000));
    EXPECT_GE(PAL_GetClock() - t0, 4900u);
    EXPECT_TRUE(rx[3]->WaitForDisconnect(3000));
    EXPECT_TRUE(rx[0]->WaitForPackets(rx[0]->Report().packets + 50, 5000));
    seekInTime(4);
    StopPromptly(g);
}
