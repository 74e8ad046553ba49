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
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ReceiverEmulator.h"
#include "ReceiverProcess.h"
#include "RecordingNotify.h"
#include "RxWav.h"
#include "SonvaraMgr.h"
#include "TempDir.h"
#include "dlna_peers.h"

namespace {

// A 16-bit stereo WAV of the given length: a slow ramp, so no packet is silent.
std::string MakeWav(const std::string& dir, int seconds) {
    std::string path = dir + "/tone_" + std::to_string(seconds) + ".wav";
    std::vector<short> pcm(2 * 44100 * (size_t)seconds);
    for (size_t i = 0; i < pcm.size(); i++) pcm[i] = (short)(1000 + (i / 2 % 44100 % 2000));
    rx_wav_write(path.c_str(), 44100, 2, 16, pcm.data(), (uint32_t)(pcm.size() * 2));
    return path;
}

std::unique_ptr<ReceiverEmulator> Receiver(int i) {
    ReceiverConfig cfg;
    std::string ip = "127.0.0." + std::to_string(2 + i);
    ReceiverConfigDefaults(&cfg, ip.c_str());
    cfg.pcmLimitBytes = 4 << 20;
    std::unique_ptr<ReceiverEmulator> rx(new ReceiverEmulator(cfg));
    return rx->Start() == 0 ? std::move(rx) : nullptr;
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
    std::vector<unsigned char> got = r->Pcm();
    FILE* f = fopen(wav.c_str(), "rb");
    ASSERT_TRUE(f != nullptr);
    std::vector<unsigned char> want(got.size());
    fseek(f, 44, SEEK_SET);
    want.resize(fread(want.data(), 1, want.size(), f));
    fclose(f);
    ASSERT_GT(got.size(), 0u);
    ASSERT_EQ(want.size(), got.size()) << r->Config().address;
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

    // Emulators 0..n-1, found by a search (with `others` receivers of the
    // test's own).
    void Receivers(int n, int others = 0) {
        for (int i = 0; i < n; i++) {
            rx.push_back(Receiver(i));
            ASSERT_TRUE(rx.back());
        }
        // A receiver process may still be starting: search again for it (a
        // search reports only the devices it finds anew).
        for (int tries = 0; tries < 10; tries++) {
            ASSERT_EQ(0, mgr->SearchDevice(true));
            if (events.Count("Device ") >= n + others) break;
        }
        ASSERT_EQ(n + others, events.Count("Device "));
    }
    // Stop returns 0 within 3.5 s whatever the receivers do.
    void StopPromptly(int g) {
        unsigned int t0 = PAL_GetClock();
        EXPECT_EQ(0, mgr->Stop(g, 0));
        EXPECT_LT(PAL_GetClock() - t0, 3500u);
    }
    const char* Ip(int i) { return rx[i]->Config().address; }
    const char* Mac(int i) { return rx[i]->Config().mac; }
    int Group(const char* name, std::vector<int> members, int type = AV_CHANNEL_PARTY) {
        int g = mgr->CreateGroup(name);
        for (int i : members) EXPECT_EQ(0, mgr->AddDevice(g, Ip(i), Mac(i), type, 1));
        return g;
    }

    TempDir dir;
    std::unique_ptr<PlurafonMgr> mgr;
    RecordingNotify events;
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
};

std::unique_ptr<DlnaPeers> Peers(int count) {
    std::unique_ptr<DlnaPeers> peers(new DlnaPeers());
    for (int i = 0; i < count; i++) {
        std::string n = std::to_string(i);
        peers->Add(DlnaPeers::Ip(i), DlnaPeers::Answer("aa:" + n, "g-" + n, "Room " + n, i, 5 + i));
    }
    peers->Start();
    return peers;
}

int HandleOfMac(PlurafonMgr& mgr, const std::string& mac) {
    for (int i = 0; i < mgr.GetDeviceCount(); i++) {
        int h = mgr.GetDeviceHandle(i);
        if (mac == mgr.GetDeviceMac(h)) return h;
    }
    return 0;
}

}  // namespace

TEST(ManagerSearch, BlockingAndBackgroundSearches) {
    PlurafonMgr mgr("sender-guid", nullptr);
    ASSERT_EQ(0, mgr.initCheck());
    RecordingNotify events;
    mgr.SetNoitfyObject(&events);
    ASSERT_EQ(0, mgr.ConnectedWiFi());
    ASSERT_EQ(0, mgr.LoadMyDevice());
    int phone = mgr.GetDeviceHandle(0);

    // A blocking search reports each new device once, with its index.
    auto peers = Peers(2);
    ASSERT_TRUE(peers->ok());
    ASSERT_EQ(0, mgr.SearchDevice(true));
    std::set<std::string> reported;
    for (auto& line : events.Lines())
        reported.insert(line.substr(0, line.rfind(' ', line.rfind(' ') - 1)));
    EXPECT_EQ((std::set<std::string>{"Device 127.0.0.2 aa:0", "Device 127.0.0.3 aa:1"}), reported);
    EXPECT_EQ(2, events.Count("Device "));
    ASSERT_EQ(3, mgr.GetDeviceCount());
    ASSERT_EQ(0, mgr.SearchDevice(true));
    EXPECT_EQ(2, events.Count("Device "));
    int a = HandleOfMac(mgr, "aa:0"), b = HandleOfMac(mgr, "aa:1");
    ASSERT_TRUE(a && b);
    EXPECT_STREQ("g-1", mgr.GetDeviceGuid(b));
    EXPECT_STREQ("", mgr.GetDeviceName(b));  // a blocking search adds address, MAC and GUID only

    int g = mgr.CreateGroup("G");
    ASSERT_EQ(0, mgr.AddDevice(g, "127.0.0.2", "aa:0", AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr.AddDevice(g, "127.0.0.3", "aa:1", AV_CHANNEL_FRONT_RIGHT, 1));

    // Receiver 1 stops answering: a blocking search leaves it present...
    peers = Peers(1);
    ASSERT_EQ(0, mgr.SearchDevice(false));
    EXPECT_STREQ("127.0.0.3", mgr.GetDeviceIpInGroup(g, 1));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr.GetDeviceStateInGroup(g, 1));

    // ...a background search marks it absent (never the phone), fills in
    // what the answers say, and reports its end once.
    events.Clear();
    EXPECT_EQ(0, mgr.SearchDeviceAsync(500));
    EXPECT_EQ(0, mgr.SearchDeviceAsync(500));  // already running: left alone
    ASSERT_TRUE(events.WaitFor("SearchComplete 1"));
    EXPECT_FALSE(events.WaitFor("SearchComplete ", 2, 1500));
    EXPECT_EQ(0, events.Count("Device "));
    EXPECT_EQ(nullptr, mgr.GetDeviceIp(b));
    EXPECT_EQ(nullptr, mgr.GetDeviceIpInGroup(g, 1));
    EXPECT_EQ(DEVICE_STATE_OFF, mgr.GetDeviceStateInGroup(g, 1));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr.GetDeviceStateInGroup(g, 0));
    EXPECT_NE(nullptr, mgr.GetDeviceIp(phone));
    EXPECT_STREQ("Room 0", mgr.GetDeviceName(a));
    EXPECT_EQ(5, mgr.GetDeviceVolume(a));
    EXPECT_EQ(0, mgr.GetDeviceReceiverType(a));  // the master answers MASTER: 0

    // Wi-Fi lost: every member off, discovery closed; back: searches work.
    ASSERT_EQ(0, mgr.DisconnectedWiFi());
    EXPECT_EQ(DEVICE_STATE_OFF, mgr.GetDeviceStateInGroup(g, 0));
    ASSERT_EQ(0, mgr.ConnectedWiFi());
    peers = Peers(3);
    events.Clear();
    ASSERT_EQ(0, mgr.SearchDevice(true));
    EXPECT_EQ(1, events.Count("Device 127.0.0.4 aa:2 "));
    EXPECT_EQ(1, events.Count("Device "));
    EXPECT_STREQ("127.0.0.3", mgr.GetDeviceIpInGroup(g, 1));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr.GetDeviceStateInGroup(g, 1));
}

TEST_F(Play, OpenControlAndStopOneGroup) {
    Receivers(3);
    std::string wav = MakeWav(dir.path, 20);
    int g = mgr->CreateGroup("Stereo");
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(0), Mac(0), AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(1), Mac(1), AV_CHANNEL_FRONT_RIGHT, 1));

    ASSERT_EQ(0, mgr->Open(g, wav.c_str(), "Tone", "audio/x-wav", 2, 44100, 20, 0, 0));
    for (int i : {0, 1}) ASSERT_TRUE(rx[i]->WaitForPackets(20, 15000));
    ReceiverReport left = rx[0]->Report();
    EXPECT_STREQ("Front_Left", left.startRole);
    EXPECT_EQ(15, left.volume);  // 20 is capped
    EXPECT_STREQ("Front_Right", rx[1]->Report().startRole);
    EXPECT_EQ(DEVICE_STATE_PLAY, mgr->GetDeviceStateInGroup(g, 0));
    EXPECT_EQ(DEVICE_STATE_PLAY, mgr->GetDeviceStateInGroup(g, 1));
    EXPECT_EQ(2, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(g, mgr->ServiceDeviceGetGroupIdOfReceiver(Ip(1)));

    // A playing group can't be opened again or deleted.
    EXPECT_EQ(PLURAFON_ERR_ALREADY_PLAY,
              mgr->Open(g, wav.c_str(), "Tone", "audio/x-wav", 2, 44100, 5, 0, 0));
    EXPECT_EQ(PLURAFON_ERR_GROUP_PLAYING, mgr->DeleteGroup(g));
    ASSERT_TRUE(events.WaitFor("Progress " + std::to_string(g) + " ", 2));
    // A listener that dwells in its progress event holds up no packet.
    std::atomic<int> during(-1);
    events.OnProgress([&](int) {
        if (during >= 0) return;
        unsigned int before = rx[0]->Report().packets;
        PAL_ThreadSleep(1500);
        during = (int)(rx[0]->Report().packets - before);
    });
    for (unsigned int t0 = PAL_GetClock(); during < 0 && PAL_GetClock() - t0 < 10000;)
        PAL_ThreadSleep(10);
    events.OnProgress(nullptr);
    EXPECT_GE(during.load(), 50);  // about 190 are due

    // What a receiver tells the stream reaches the application.
    ASSERT_GE(rx[0]->SendVolumeChanged(9), 0);
    std::string gs = std::to_string(g);
    // (a blocking search learns no names)
    EXPECT_TRUE(events.WaitFor("Volume " + gs + " " + Ip(0) + " " + Mac(0) + " " +
                               rx[0]->Config().guid + "  9"));

    // Controls pass through to the receivers.
    EXPECT_EQ(0, mgr->ReceiverDeviceVolumeControl(Ip(0), Mac(0), 4));
    EXPECT_TRUE(rx[0]->WaitForCommand("VOLUME", 5000));
    EXPECT_EQ(0, mgr->ReceiverVolumeControl(g, 6));
    EXPECT_EQ(0, mgr->SetReceiverUITypeAll(g, 2));
    EXPECT_EQ(0, mgr->SetReceiverUIType(Ip(1), Mac(1), 3));
    EXPECT_TRUE(rx[1]->WaitForCommand("UITYPE", 5000));
    EXPECT_EQ(0, mgr->Pause(g));
    EXPECT_TRUE(rx[0]->WaitForCommand("PAUSE", 5000));
    EXPECT_EQ(0, mgr->Resume(g));
    EXPECT_TRUE(rx[0]->WaitForCommand("RESUME", 5000));
    EXPECT_EQ(0, mgr->seekTo(g, 5));
    EXPECT_TRUE(rx[1]->WaitForCommand("SEEK", 5000));

    // A member taken out of service leaves the stream and the registry.
    EXPECT_EQ(0, mgr->SetDeviceEnableInGroup(g, Ip(1), Mac(1), 0));
    EXPECT_EQ(1, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g, 1));
    EXPECT_EQ(1, mgr->SetDeviceEnableInGroup(g, Ip(1), Mac(1), 1));
    EXPECT_EQ(0, mgr->DevicePlay(g, Ip(1), Mac(1), AV_CHANNEL_FRONT_RIGHT, 30));
    EXPECT_EQ(2, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(0, mgr->DevicePlay(g, Ip(1), Mac(1), AV_CHANNEL_FRONT_RIGHT, 30));  // already

    // A member removed from a playing group leaves its stream too.
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(2), Mac(2), AV_CHANNEL_WOOFER, 1));
    ASSERT_EQ(0, mgr->DevicePlay(g, Ip(2), Mac(2), AV_CHANNEL_WOOFER, 5));
    ASSERT_TRUE(rx[2]->WaitForPackets(10, 15000));
    EXPECT_EQ(3, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(0, mgr->ReceiverOut(g, Ip(2), Mac(2)));
    EXPECT_EQ(2, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(2, mgr->GetDeviceCountInGroup(g));
    EXPECT_TRUE(rx[2]->WaitForCommand("BYE", 10000));

    // Stop blocks until the streamer is gone; members go back to standby.
    ASSERT_EQ(0, mgr->Stop(g, 0));
    EXPECT_TRUE(rx[0]->WaitForDisconnect(5000));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g, 0));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g, 1));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g, 0));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Pause(g));
    EXPECT_EQ(0, mgr->DeleteGroup(g));
}

// Group One plays a short file to its end while group Two plays on and
// loses members; then Wi-Fi loss, and a manager destroyed while playing.
TEST_F(Play, TwoGroupsAtOnceEndOfContentExitLeaveWiFiLossAndDestruction) {
    Receivers(4);
    std::string shortWav = MakeWav(dir.path, 3), wav = MakeWav(dir.path, 20);
    int g1 = Group("One", {0}, 99);  // a role no receiver knows plays as "None"
    int g2 = Group("Two", {1, 2, 3});
    std::string g1s = std::to_string(g1);
    ASSERT_EQ(0, mgr->Open(g1, shortWav.c_str(), "A", "audio/x-wav", 2, 44100, 5, 0, 0));
    ASSERT_EQ(0, mgr->Open(g2, wav.c_str(), "B", "audio/x-wav", 2, 44100, 5, 0, 0));
    for (auto& r : rx) ASSERT_TRUE(r->WaitForPackets(10, 15000));
    EXPECT_STREQ("None", rx[0]->Report().startRole);
    EXPECT_STREQ("Party", rx[1]->Report().startRole);
    EXPECT_EQ(4, mgr->ServiceDeviceGetCntList());
    rx[0]->SendJoin(4242, 3);  // three copies of one request: acted on once

    // An EXIT announcement takes its receiver out of the stream.
    ASSERT_EQ(0, rx[1]->SendExit());
    ASSERT_TRUE(events.WaitFor(std::string("Die ") + Ip(1)));
    EXPECT_EQ(DEVICE_STATE_OFF, mgr->GetDeviceStateInGroup(g2, 0));
    EXPECT_EQ(3, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(0, mgr->ServiceDeviceGetGroupIdOfReceiver(Ip(1)));
    EXPECT_TRUE(rx[1]->WaitForCommand("BYE", 10000));
    // A receiver that leaves is reported.
    rx[2]->SendJoin();
    ASSERT_GE(rx[2]->SendLeave(), 0);
    EXPECT_TRUE(events.WaitFor("Leave " + std::to_string(g2) + " " + Ip(2)));

    // The listener stops One from inside its end-of-content event, on the
    // streamer's own thread, as a player does: Stop answers at once (the
    // close would wait for that very thread), and the streamer still ends.
    std::atomic<int> stopped(-1);
    events.OnServiceStop([&](int g) {
        if (g == g1) stopped = mgr->Stop(g, 0);
    });
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
    unsigned int before = rx[3]->Report().packets;
    EXPECT_TRUE(rx[3]->WaitForPackets(before + 20, 10000));
    ASSERT_EQ(0, mgr->DisconnectedWiFi());
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g2, 0));
    EXPECT_EQ(DEVICE_STATE_OFF, mgr->GetDeviceStateInGroup(g2, 2));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    // The destructor stops what still plays.
    ASSERT_EQ(0, mgr->ConnectedWiFi());
    ASSERT_EQ(0, mgr->SearchDevice(true));
    ASSERT_EQ(0, mgr->Open(g1, wav.c_str(), "A", "audio/x-wav", 2, 44100, 5, 0, 1));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());  // opened for reuse
    before = rx[0]->Report().packets;
    ASSERT_TRUE(rx[0]->WaitForPackets(before + 20, 15000));
    mgr.reset();
    EXPECT_TRUE(rx[0]->WaitForDisconnect(10000));
}

// One member floods requests and stops reading, another (a receiver
// process) stops dead without closing anything: the others hear no gap, get
// the file byte for byte and still obey; the flooder is dropped.
TEST_F(Play, AFlooderAndAVanishedReceiverHoldUpNobody) {
    const char* kGone = "127.0.0.9";
    ReceiverProcess gone(kGone);
    ASSERT_TRUE(gone.Started());
    Receivers(3, 1);
    ReceiverConfig cfg;
    ReceiverConfigDefaults(&cfg, kGone);  // the process's own identity
    std::string wav = MakeWav(dir.path, 20);
    int g = mgr->CreateGroup("Flood");
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(0), Mac(0), AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(1), Mac(1), AV_CHANNEL_FRONT_RIGHT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g, Ip(2), Mac(2), AV_CHANNEL_PARTY, 1));
    ASSERT_EQ(0, mgr->AddDevice(g, kGone, cfg.mac, AV_CHANNEL_PARTY, 1));
    ASSERT_EQ(0, mgr->Open(g, wav.c_str(), "Tone", "audio/x-wav", 2, 44100, 5, 0, 0));
    for (auto& r : rx) ASSERT_TRUE(r->WaitForPackets(50, 15000));
    ASSERT_EQ(4, mgr->ServiceDeviceGetCntList());

    ASSERT_EQ(0, gone.Signal(SIGSTOP));
    rx[2]->SetFloodDescribe(true);
    EXPECT_LT(LongestSilence({rx[0].get(), rx[1].get()}, 10000), kMaxSilenceMs);
    EXPECT_TRUE(events.WaitFor("Reset " + std::to_string(g) + " " + Ip(2), 1, 5000));
    EXPECT_EQ(0, events.Count("Reset " + std::to_string(g) + " " + Ip(0)));
    for (int i : {0, 1}) ExpectFilePrefix(rx[i].get(), wav);
    // Controls still reach those that read.
    EXPECT_EQ(0, mgr->ReceiverVolumeControl(g, 3));
    EXPECT_TRUE(rx[1]->WaitForCommand("VOLUME", 5000));
    EXPECT_EQ(0, mgr->Pause(g));
    EXPECT_EQ(0, mgr->Resume(g));
    StopPromptly(g);
}

TEST_F(Play, AReceiverThatNeverPlaysDelaysTheOthersTwoSecondsAndIsDroppedAtFive) {
    Receivers(3);
    rx[2]->SetStopAtSetup(true);
    std::string wav = MakeWav(dir.path, 20);
    int g = Group("Stuck", {0, 1, 2});
    unsigned int t0 = PAL_GetClock();
    ASSERT_EQ(0, mgr->Open(g, wav.c_str(), "Tone", "audio/x-wav", 2, 44100, 5, 0, 0));
    ASSERT_TRUE(rx[2]->WaitForHandshake(RX_HS_WAIT_PLAY, 5000));
    // Nothing streams yet; a seek still comes back in time.
    unsigned int t1 = PAL_GetClock();
    EXPECT_EQ(0, mgr->seekTo(g, 2));
    EXPECT_LT(PAL_GetClock() - t1, 3500u);
    for (int i : {0, 1}) ASSERT_TRUE(rx[i]->WaitForPackets(1, 8000));
    EXPECT_GE(PAL_GetClock() - t0, 1900u);  // the late-start point
    ASSERT_TRUE(events.WaitFor("Reset " + std::to_string(g) + " " + Ip(2), 1, 10000));
    EXPECT_GE(PAL_GetClock() - t0, 4900u);
    EXPECT_TRUE(rx[2]->WaitForDisconnect(3000));
    unsigned int before = rx[0]->Report().packets;
    EXPECT_TRUE(rx[0]->WaitForPackets(before + 50, 5000));
    // The buffer nobody read held the music source: not one packet of the
    // others ran dry meanwhile.
    for (int i : {0, 1}) EXPECT_EQ(0u, rx[i]->Report().silentPackets) << Ip(i);
    t1 = PAL_GetClock();
    EXPECT_EQ(0, mgr->seekTo(g, 4));
    EXPECT_LT(PAL_GetClock() - t1, 3500u);
    StopPromptly(g);
}
