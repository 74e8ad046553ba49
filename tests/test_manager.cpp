// The session manager through its public operations. Without any stream:
// device records and the phone's own, groups and members with the codes of
// every operation, the service registry, JOIN requests and dead receivers as
// the streamer and discovery report them, the group file (damaged ones too)
// through a fresh manager, Open's checks, and content queries. With emulated
// receivers on 127.0.0.x: searches, two groups playing at once with their
// controls, members leaving every way, Wi-Fi loss, Stop, and receivers that
// misbehave.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Grouprw.h"
#include "ReceiverEmulator.h"
#include "ReceiverProcess.h"
#include "RecordingNotify.h"
#include "RxWav.h"
#include "SonvaraMgr.h"
#include "TempDir.h"

namespace {

std::string JoinText(const std::string& mac, const std::string& guid, const std::string& name,
                     const std::string& tail = "VOL: 9\r\nREQ_TS: 100\r\n") {
    return "JOIN * RTSP/1.0\r\nMAC: " + mac + "\r\nGUID: " + guid + "\r\nNAME: " + name + "\r\n" +
           tail;
}

// What the streamer hands up when a receiver asks to join its stream.
void Join(PlurafonMgr& mgr, const std::string& ip, const std::string& text) {
    PlurafonMgr::sender_notify((intptr_t)&mgr, AVMSG_RECEIVER_FOUND, (intptr_t)ip.c_str(),
                               (intptr_t)text.c_str(), 0, 0);
}

std::string Str(const char* text) {
    return text ? text : "(null)";
}

// A device record as one line: "ip mac guid name type volume".
std::string Device(PlurafonMgr& m, int h) {
    return Str(m.GetDeviceIp(h)) + " " + Str(m.GetDeviceMac(h)) + " " + Str(m.GetDeviceGuid(h)) +
           " " + Str(m.GetDeviceName(h)) + " " + std::to_string(m.GetDeviceReceiverType(h)) + " " +
           std::to_string(m.GetDeviceVolume(h));
}

// A group's members, one line each: "ip mac guid name role service state".
std::vector<std::string> Members(PlurafonMgr& m, int g, int from = 0, int to = -1) {
    static const char* kState[] = {"standby", "play", "off"};
    std::vector<std::string> out;
    for (int i = from; i < (to < 0 ? m.GetDeviceCountInGroup(g) : to); i++) {
        int state = m.GetDeviceStateInGroup(g, i);
        out.push_back(Str(m.GetDeviceIpInGroup(g, i)) + " " + Str(m.GetDeviceMacInGroup(g, i)) +
                      " " + Str(m.GetDeviceGuidInGroup(g, i)) + " " +
                      Str(m.GetDeviceNameInGroup(g, i)) + " " +
                      std::to_string(m.GetDeviceTypeInGroup(g, i)) + " " +
                      std::to_string(m.IsDeviceServiceInGroup(g, i)) + " " +
                      (state >= 0 && state <= 2 ? kState[state] : "?") +
                      (m.GetDeviceServiceIsPlayInGroup(g, i) ? " playing" : ""));
    }
    return out;
}

// The codes of a run of calls, made in order: {what came, what must}.
void ExpectCodes(std::initializer_list<std::pair<int, int>> rows) {
    int row = 0;
    for (const auto& r : rows) EXPECT_EQ(r.second, r.first) << "row " << row++;
}

// A 16-bit stereo WAV of the given length: a slow ramp, so no packet is silent.
std::string MakeWav(const std::string& dir, int seconds) {
    std::string path = dir + "/tone_" + std::to_string(seconds) + ".wav";
    std::vector<short> pcm(2 * 44100 * (size_t)seconds);
    for (size_t i = 0; i < pcm.size(); i++) pcm[i] = (short)(1000 + (i / 2 % 44100 % 2000));
    rx_wav_write(path.c_str(), 44100, 2, 16, pcm.data(), (uint32_t)(pcm.size() * 2));
    return path;
}

// How late a packet may reach a receiver that nobody holds up, against its
// time from its sequence number (the receiver's own lateness figure, from
// its earliest packet). Unloaded it is a few packet times (8 ms each); the
// tests allow kLateMs, far below the seconds a receiver used to hold the
// stream up for, and far above what a busy machine adds.
const double kLateMs = 1000;

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

class Manager : public ::testing::Test {
protected:
    void SetUp() override {
        mgr.reset(new PlurafonMgr("sender-guid", nullptr));
        ASSERT_EQ(0, mgr->initCheck());
        mgr->SetNoitfyObject(&events);
    }
    void TearDown() override { mgr.reset(); }

    // A known, present receiver 127.0.0.<2+i> with MAC aa:<i>.
    std::string AddReceiver(int i) {
        std::string mac = "aa:" + std::to_string(i);
        Join(*mgr, "127.0.0." + std::to_string(2 + i),
             JoinText(mac, "g-" + std::to_string(i), "Speaker " + std::to_string(i), ""));
        return mac;
    }

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
    RecordingNotify events;  // outlives the manager that tells it
    std::unique_ptr<PlurafonMgr> mgr;
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
};

}  // namespace

TEST_F(Manager, RecordsGroupsMembersAndTheCodesOfEveryOperationWithoutAStream) {
    EXPECT_EQ(0, mgr->GetDeviceHandle(0));
    Join(*mgr, "127.0.0.2", JoinText("aa:0", "g-0", "Kitchen \xE2\x99\xAB", "VOL: 12\r\n"));
    const char *a = "aa:0", *zz = "zz:99";
    std::string b = AddReceiver(1), c = AddReceiver(2);
    EXPECT_EQ("127.0.0.2 aa:0 g-0 Kitchen \xE2\x99\xAB 1 12",
              Device(*mgr, mgr->GetDeviceHandle(0)));
    EXPECT_EQ(0, mgr->GetDeviceHandle(3));

    int g1 = mgr->CreateGroup("Living"), g2 = mgr->CreateGroup("Living");
    int g3 = mgr->CreateGroup(std::string(100, 'x').c_str());
    ASSERT_TRUE(g1 && g2 && g3 && g1 != g2);
    // The earlier of two names; names are case-sensitive; ids by list index.
    EXPECT_EQ(std::vector<int>({g1, 0, g1, g3, 0, 0}),
              std::vector<int>({mgr->GetGroupIDByName("Living"), mgr->GetGroupIDByName("living"),
                                mgr->GetGroupID(0), mgr->GetGroupID(2), mgr->GetGroupID(3),
                                mgr->GetGroupID(-1)}));
    EXPECT_EQ(std::string(63, 'x'), Str(mgr->GetGroupName(g3)));

    // The first member decides the mode; adding a member again changes its
    // role and flag, not the count.
    ExpectCodes({
        {mgr->AddDevice(0, "127.0.0.2", a, AV_CHANNEL_PARTY, 1), PLURAFON_ERR_GROUP_ID},
        {mgr->AddDevice(g2, "127.0.0.9", zz, AV_CHANNEL_FRONT_LEFT, 1),
         PLURAFON_ERR_DEVICE_NOT_FOUND},
        {mgr->AddDevice(g1, "127.0.0.2", a, AV_CHANNEL_PARTY, 1), 0},
        {mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_FRONT_LEFT, 0), 0},
        {mgr->AddDevice(g1, "127.0.0.4", c.c_str(), AV_CHANNEL_WOOFER, 1), 0},
        {mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_REAR_RIGHT, 1), 0},
        {mgr->UpdateDeviceChannelType(0, "127.0.0.2", a, AV_CHANNEL_CENTER), PLURAFON_ERR_GROUP_ID},
        {mgr->UpdateDeviceChannelType(g1, "127.0.0.9", zz, AV_CHANNEL_CENTER),
         PLURAFON_ERR_DEVICE_NOT_FOUND},
        {mgr->UpdateDeviceChannelType(g2, "127.0.0.2", a, AV_CHANNEL_CENTER),
         PLURAFON_ERR_ITEM_NOT_FOUND},
        {mgr->UpdateDeviceChannelType(g1, "127.0.0.2", a, AV_CHANNEL_CENTER), 0},
        // The service flag is kept although there is no stream to tell.
        {mgr->SetDeviceEnableInGroup(g2, "127.0.0.2", a, 0), PLURAFON_ERR_ITEM_NOT_FOUND},
        {mgr->SetDeviceEnableInGroup(g1, "127.0.0.2", a, 1), 0},
        {mgr->SetDeviceEnableInGroup(g1, "127.0.0.2", a, 0), PLURAFON_ERR_NO_STREAMER},
        // Controls of a group without a stream.
        {mgr->Stop(g1, 0), PLURAFON_ERR_NO_STREAMER},
        {mgr->Stop(0, 0), PLURAFON_ERR_GROUP_ID},
        {mgr->Pause(g1), PLURAFON_ERR_NO_STREAMER},
        {mgr->Pause(0), PLURAFON_ERR_GROUP_ID},
        {mgr->Resume(g1), PLURAFON_ERR_NO_STREAMER},
        {mgr->seekTo(0, 10), PLURAFON_ERR_SEEK_GROUP_ID},
        {mgr->seekTo(g1, 10), PLURAFON_ERR_NO_STREAMER},
        {mgr->stopPlayer(g1), PLURAFON_ERR_GROUP_ID},
        {mgr->SetReceiverUITypeAll(0, 1), PLURAFON_ERR_ITEM_NOT_FOUND},
        {mgr->SetReceiverUITypeAll(g1, 1), PLURAFON_ERR_NO_STREAMER},
        {mgr->SetReceiverUIType("127.0.0.9", zz, 1), PLURAFON_ERR_DEVICE_NOT_FOUND},
        {mgr->SetReceiverUIType("127.0.0.2", a, 1), PLURAFON_ERR_ITEM_NOT_FOUND},  // not playing
        {mgr->ReceiverDeviceVolumeControl("127.0.0.9", zz, 5), PLURAFON_ERR_DEVICE_NOT_FOUND},
        {mgr->ReceiverDeviceVolumeControl("127.0.0.2", a, 5), PLURAFON_ERR_ITEM_NOT_FOUND},
        {mgr->ReceiverVolumeControl(g1, 5), 0},
        {mgr->DevicePlay(g2, "127.0.0.2", a, AV_CHANNEL_PARTY, 5), PLURAFON_ERR_ITEM_NOT_FOUND},
        // The member's state is set to play although the play failed.
        {mgr->DevicePlay(g1, "127.0.0.2", a, AV_CHANNEL_PARTY, 5), PLURAFON_ERR_NO_STREAMER},
        {mgr->DevicePlay(g1, "127.0.0.2", a, AV_CHANNEL_PARTY, 5), 0},  // already playing
    });
    const std::string none = "(null) (null) (null) (null) 0 0 standby";
    EXPECT_EQ(std::vector<std::string>({"127.0.0.2 aa:0 g-0 Kitchen \xE2\x99\xAB 3 0 play",
                                        "127.0.0.3 aa:1 g-1 Speaker 1 6 1 standby",
                                        "127.0.0.4 aa:2 g-2 Speaker 2 4 1 standby", none}),
              Members(*mgr, g1, 0, 4));
    EXPECT_EQ(std::vector<std::string>({none}), Members(*mgr, g1, -1, 0));
    EXPECT_EQ(0, mgr->GetDeviceCountInGroup(0) + mgr->GetDeviceCountInGroup(g2));

    // Removing members (ReceiverOut removes, then finds no stream); renaming
    // and deleting groups.
    ExpectCodes({
        {mgr->DeleteDevice(0, "127.0.0.2", a), PLURAFON_ERR_GROUP_ID},
        {mgr->DeleteDevice(g1, "127.0.0.9", zz), 0},
        {mgr->ReceiverOut(g1, "127.0.0.3", b.c_str()), PLURAFON_ERR_NO_STREAMER},
        {mgr->ReceiverOut(0, "127.0.0.3", b.c_str()), PLURAFON_ERR_GROUP_ID},
        {mgr->GetDeviceCountInGroup(g1), 2},
        {mgr->ChangeGroupName(0, "x"), PLURAFON_ERR_SEEK_GROUP_ID},
        {mgr->ChangeGroupName(g2, "Kitchen"), 0},
        {mgr->GetGroupIDByName("Kitchen"), g2},
        {mgr->DeleteGroup(g1), 0},
        {mgr->AddDevice(g1, "127.0.0.2", a, AV_CHANNEL_PARTY, 1), PLURAFON_ERR_GROUP_ID},
        {mgr->DeleteGroup(g1), 0},
        {mgr->GetGroupID(0), g2},
        {mgr->_debug_print_all_group(), 0},
    });
    EXPECT_EQ(nullptr, mgr->GetGroupName(g1));

    // The phone: AddMyDevice makes it a party speaker in service, once, that
    // cannot be taken out again; LoadMyDevice appends it each time it finds
    // itself present, and AddMyDevice then reuses the record.
    char mac[AV_MAC_LEN] = {0}, ip[AV_IP_LEN] = {0};
    GetNICInfo(mac, ip);
    const std::string phone = std::string(ip) + " " + mac + " sender-guid ";
    ExpectCodes({
        {mgr->AddMyDevice(0), -1},
        {mgr->AddMyDevice(g3 + 1000), -1},
        {mgr->AddDevice(g3, "127.0.0.2", a, AV_CHANNEL_FRONT_LEFT, 1), 0},
        {mgr->AddMyDevice(g3), 0},
        {mgr->GetDeviceCount(), 4},
        {mgr->LoadMyDevice(), 0},
        {mgr->LoadMyDevice(), 0},
        {mgr->GetDeviceCount(), 6},
        {mgr->SetDeviceEnableInGroup(g3, ip, mac, 1), 0},
        {mgr->UpdateDeviceChannelType(g3, ip, mac, AV_CHANNEL_CENTER), 0},
        {mgr->AddMyDevice(g3), 0},
        {mgr->DeleteDevice(g3, ip, mac), 0},
        {mgr->GetDeviceCount(), 6},
    });
    EXPECT_EQ(phone + " 0 0", Device(*mgr, mgr->GetDeviceHandle(5)));
    EXPECT_EQ(std::vector<std::string>({phone + " 7 1 standby"}), Members(*mgr, g3, 1));
}

TEST_F(Manager, ServiceRegistryKeepsOrderAndDuplicates) {
    auto list = [&] {
        char bufs[8][AV_IP_LEN] = {};
        char* ptrs[8] = {bufs[0], bufs[1], bufs[2], bufs[3], bufs[4], bufs[5], bufs[6], bufs[7]};
        mgr->ServiceDeviceGetList(ptrs);
        return std::vector<std::string>(bufs, bufs + mgr->ServiceDeviceGetCntList());
    };
    const std::string long30(30, '9');
    for (auto& s : std::vector<std::pair<int, std::string>>{
             {5, "127.0.0.2"}, {6, "127.0.0.3"}, {5, "127.0.0.2"}, {5, long30}, {6, "127.0.0.4"}})
        mgr->ServiceDeviceAdd(s.first, s.second.c_str());
    EXPECT_EQ(std::vector<std::string>(
                  {"127.0.0.2", "127.0.0.3", "127.0.0.2", std::string(19, '9'), "127.0.0.4"}),
              list());
    EXPECT_EQ(6, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.3"));
    mgr->ServiceDeviceDeleteReceiver("127.0.0.2");  // the first of two
    EXPECT_EQ(5, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.2"));
    mgr->ServiceDeviceDeleteGroup(5);
    EXPECT_EQ(std::vector<std::string>({"127.0.0.3", "127.0.0.4"}), list());
    mgr->ServiceDeviceDeleteReceiver("127.0.0.7");  // unknown: nothing
    mgr->ServiceDeviceDeleteAll();
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    // The service group registry is never created: its calls do nothing.
    mgr->ServiceGroupAdd(1);
    mgr->SetServiceGroup(1, 1);
    mgr->ServiceGroupDelete(1);
    mgr->ServiceGroupDeleteAll();
    mgr->ServiceGroupClose();
}

TEST_F(Manager, JoinRequestsOncePerTimeStampHostileOnesCutAndStreamerEventsPassedOn) {
    const intptr_t m = (intptr_t)mgr.get(), ip9 = (intptr_t) "127.0.0.9";
    std::string first = JoinText("aa:01", "g-1", "Kitchen", "VOL: 7\r\nREQ_TS: 1000\r\n");
    std::string noTs = JoinText("aa:02", "g-2", "Bath", "");
    // A multicast retry is dropped; a new stamp is acted on, and the old one
    // is new again after it; without a stamp every request is acted on.
    for (const std::string& text :
         {first, first, JoinText("aa:01", "g-1", "Kitchen", "VOL: 7\r\nREQ_TS: 1001\r\n"), first})
        Join(*mgr, "127.0.0.2", text);
    Join(*mgr, "127.0.0.3", noTs);
    Join(*mgr, "127.0.0.3", noTs);
    EXPECT_EQ(5, events.Count("Join "));
    EXPECT_EQ("Join 0 127.0.0.2 aa:01 g-1 Kitchen", events.Lines()[0]);
    // A known receiver that joins from a new address takes it.
    Join(*mgr, "127.0.0.9", JoinText("aa:02", "g-2b", "Bath 2", "VOL: 3\r\nREQ_TS: 5\r\n"));
    EXPECT_EQ("127.0.0.9 aa:02 g-2b Bath 2 1 3", Device(*mgr, mgr->GetDeviceHandle(1)));

    // Broken requests change nothing; fields far past their arrays (the
    // address too) are cut, numbers out of range do no harm.
    events.Clear();
    for (const char* text : {"", "MAC: only", "MAC: m\r\nGUID: g\r\n",
                             "GUID: g\r\nMAC: m\r\nNAME: n\r\n",  // GUID must follow MAC
                             "MAC: \r\nGUID: \r\nNAME: \r\n",
                             "MAC: m3\r\nGUID: g3\r\nNAME: \r\nVOL: x\r\nREQ_TS: y\r\n"})
        Join(*mgr, "127.0.0.4", text);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_FOUND, 0, (intptr_t) "MAC: m", 0, 0);
    PlurafonMgr::sender_notify(0, AVMSG_RECEIVER_FOUND, (intptr_t) "1.2.3.4", (intptr_t) "x", 0, 0);
    EXPECT_EQ(2, mgr->GetDeviceCount());
    Join(*mgr, std::string(25, '1'),
         "MAC: " + std::string(5000, 'M') + "\r\nGUID: " + std::string(5000, 'G') +
             "\r\nNAME: " + std::string(5000, 'N'));
    Join(*mgr, "127.0.0.6",
         JoinText("aa:06", "g-6", "Six",
                  "VOL: 99999999999999\r\nREQ_TS: " + std::string(200, '7') + "\r\n"));
    EXPECT_EQ(4, mgr->GetDeviceCount());
    std::vector<std::string> want = {"Join 0 " + std::string(19, '1') + " " + std::string(19, 'M') +
                                         " " + std::string(39, 'G') + " " + std::string(243, 'N'),
                                     "Join 0 127.0.0.6 aa:06 g-6 Six"};

    // A receiver that died is off in every group and absent; told even when
    // no member matched; other discovery events are ignored.
    int g1 = mgr->CreateGroup("One"), g2 = mgr->CreateGroup("Two");
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.2", "aa:01", AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.9", "aa:02", AV_CHANNEL_FRONT_RIGHT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g2, "127.0.0.2", "aa:01", AV_CHANNEL_PARTY, 1));
    PlurafonMgr::dlna_notify(m, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.2", 0);
    PlurafonMgr::dlna_notify(m, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.99", 0);
    PlurafonMgr::dlna_notify(m, AVMSG_MASTER_FOUND, ip9, 0);
    PlurafonMgr::dlna_notify(m, AVMSG_RECEIVER_DIED, 0, 0);
    EXPECT_EQ(std::vector<std::string>(
                  {"(null) aa:01 g-1 Kitchen 1 1 off", "127.0.0.9 aa:02 g-2b Bath 2 2 1 standby"}),
              Members(*mgr, g1));
    EXPECT_EQ(std::vector<std::string>({"(null) aa:01 g-1 Kitchen 7 1 off"}), Members(*mgr, g2));
    EXPECT_EQ("(null) aa:01 g-1 Kitchen 1 7", Device(*mgr, mgr->GetDeviceHandle(0)));

    // The streamer's events, passed through; a volume change of an unknown
    // address, and a reset from a receiver in no playing group, tell nobody.
    const std::vector<std::vector<intptr_t>> streamer = {
        {AVMSG_RECEIVER_LEAVE, ip9, g1},
        {AVMSG_RECEIVER_LEAVE, 0, g1},
        {AVMSG_PLAY_PROGRESS, g1, 42},
        {AVMSG_SERVICE_STOP, g1, 1},
        {AVMSG_RECEIVER_VOLUMECHANGED, 0x10005, ip9},
        {AVMSG_RECEIVER_VOLUMECHANGED, 3, (intptr_t) "127.0.0.77"},
        {AVMSG_RECEIVER_RESET, ip9, 0},
        {AVMSG_RECEIVER_DIED, ip9, 0}};
    for (const auto& e : streamer) PlurafonMgr::sender_notify(m, e[0], e[1], e[2], 0, 0);
    std::string s1 = std::to_string(g1);
    want.insert(want.end(), {"Die 127.0.0.2", "Die 127.0.0.99", "Leave " + s1 + " 127.0.0.9",
                             "Progress " + s1 + " 42", "ServiceStop " + s1 + " 1",
                             "Volume 0 127.0.0.9 aa:02 g-2b Bath 2 5"});
    EXPECT_EQ(want, events.Lines());
}

TEST_F(Manager, GroupFileWrittenReadBackAndDamagedFilesLoadWhatPrecedesTheDamage) {
    std::string a = AddReceiver(0), b = AddReceiver(1);
    int g1 = mgr->CreateGroup("Living");
    int g2 = mgr->CreateGroup("Party\r\n[GROUP]\r\nname:forged");
    mgr->CreateGroup("Empty");
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_FRONT_RIGHT, 0));
    ASSERT_EQ(0, mgr->AddDevice(g2, "127.0.0.3", b.c_str(), AV_CHANNEL_PARTY, 1));
    TempDir out;
    const std::string file = dir.path + "/multi_group_play.ini";
    // What a manager writes, as the file's text.
    auto saved = [&](PlurafonMgr& m) {
        EXPECT_EQ(GROUP_RW_OK, m.SaveGroup(out.path.c_str()));
        std::ifstream in(out.path + "/multi_group_play.ini", std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    ASSERT_EQ(GROUP_RW_OK, mgr->SaveGroup(dir.path.c_str()));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, mgr->SaveGroup("/nonexistent/dir"));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, mgr->SaveGroup(nullptr));
    // CR LF blocks in list and member order; a name cannot forge a block.
    EXPECT_EQ(
        "[GROUP]\r\nname:Living\r\nmode:1\r\ndevice:aa:0|1|1\r\ndevice:aa:1|2|0\r\n"
        "[GROUP]\r\nname:Party\r\nmode:2\r\ndevice:aa:1|7|1\r\n"
        "[GROUP]\r\nname:Empty\r\nmode:0\r\n",
        saved(*mgr));

    // Members come back in reverse, as records that carry only their MAC
    // (one record for b in both groups), absent until a join brings them
    // back. Loading starts a background search, which reports its end; with
    // no file there are no groups, and still a search.
    RecordingNotify seen, seen2;  // outlive the managers that tell them
    PlurafonMgr fresh("other-guid", nullptr), empty("x", nullptr);
    fresh.SetNoitfyObject(&seen);
    empty.SetNoitfyObject(&seen2);
    ASSERT_EQ(3, fresh.LoadGroup(dir.path.c_str()));
    EXPECT_EQ(0, empty.LoadGroup("/nonexistent/dir"));
    int l = fresh.GetGroupIDByName("Living"), p = fresh.GetGroupIDByName("Party");
    EXPECT_EQ(l, fresh.GetGroupID(0));
    EXPECT_EQ(std::vector<std::string>({"(null) aa:1   2 0 standby", "(null) aa:0   1 1 standby"}),
              Members(fresh, l));
    EXPECT_EQ(2, fresh.GetDeviceCount());
    Join(fresh, "127.0.0.3", JoinText(b, "g-1", "Speaker 1", ""));
    EXPECT_EQ(std::vector<std::string>({"127.0.0.3 aa:1 g-1 Speaker 1 7 1 standby"}),
              Members(fresh, p));
    EXPECT_EQ(2, fresh.GetDeviceCount());
    EXPECT_TRUE(seen.WaitFor("SearchComplete "));
    EXPECT_TRUE(seen2.WaitFor("SearchComplete "));

    // Hand-edited and damaged files, loaded alone and written back: what
    // precedes the damage is kept; over-long lines keep their first 1023
    // bytes, fields their arrays.
    const std::string longName(3000, 'n'), longMac(500, 'm');
    const struct {
        const char* what;
        std::string bytes, back;
    } cases[] = {
        // Text before the first header, LF-only lines, trailing blanks, blank
        // lines, unknown keys, a mode with text after it, two-digit roles.
        {"hand-edited",
         "junk\nname:ignored\ndevice:nobar\n"
         "[GROUP]   \nname:Kitchen  \n\nmode:2abc\ncolour:blue\n"
         "device:k1|12|1\ndevice:k2|7|1   \ndevice:k3|99|1|1\ndevice:k4|\n"
         "  [GROUP]\n[GROUP]\r\nmode:\r\n[GROUP]\r\nname:  lead\tblanks\r\nmode:-1\r\n",
         "[GROUP]\r\nname:Kitchen\r\nmode:2\r\ndevice:k4|0|0\r\ndevice:k3|99|0\r\n"
         "device:k2|7|1\r\ndevice:k1|12|0\r\n[GROUP]\r\nname:\r\nmode:0\r\n"
         "[GROUP]\r\nname:  lead\tblanks\r\nmode:-1\r\n"},
        {"empty", "", ""},
        {"cut short after the header", "[GROUP]", "[GROUP]\r\nname:\r\nmode:0\r\n"},
        // A device line without a bar drops its group and ends the load.
        {"a device line without a bar",
         "[GROUP]\r\nname:Good\r\nmode:1\r\ndevice:g1|1|1\r\n"
         "[GROUP]\r\nname:Bad\r\ndevice:b1|1|1\r\ndevice:no-bar-here\r\n[GROUP]\r\nname:After\r\n",
         "[GROUP]\r\nname:Good\r\nmode:1\r\ndevice:g1|1|1\r\n"},
        {"an empty device line", "[GROUP]\r\nname:A\r\n[GROUP]\r\nname:B\r\ndevice:\r\n",
         "[GROUP]\r\nname:A\r\nmode:0\r\n"},
        {"a 2000-byte line without a bar",
         "[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac +
             "|1|1\r\ndevice:" + std::string(2000, 'x') + "\r\ndevice:ok|2|1\r\n",
         ""},
        {"a bar past the 1023 bytes kept",
         "[GROUP]\r\nname:A\r\ndevice:" + std::string(1100, 'm') + "|1|1\r\n", ""},
        {"long name and MAC",
         "[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac + "|1|1\r\ndevice:ok|2|1\r\n",
         "[GROUP]\r\nname:" + std::string(63, 'n') +
             "\r\nmode:0\r\ndevice:ok|2|1\r\ndevice:" + std::string(19, 'm') + "|1|1\r\n"},
    };
    for (const auto& c : cases) {
        while (int g = fresh.GetGroupID(0)) fresh.DeleteGroup(g);
        std::ofstream(file, std::ios::binary) << c.bytes;
        fresh.LoadGroup(dir.path.c_str());
        EXPECT_EQ(c.back, saved(fresh)) << c.what;
    }
    EXPECT_EQ(0, empty.LoadGroup(std::string(2000, 'd').c_str()));  // a path too long to form
    EXPECT_EQ(0, empty.LoadGroup(nullptr));
    // The group store's buffer entry (the fuzz target's): empty, or no buffer.
    GroupRW rw;
    EXPECT_EQ(GROUP_RW_OK, rw.LoadBuffer("", 0));
    EXPECT_EQ(GROUP_RW_ERR_INVALID_DATA, rw.LoadBuffer(nullptr, 1));
}

TEST_F(Manager, OpenChecksTheGroupBeforeAnyStreamer) {
    const std::string wav = std::string(SONVARA_FIXTURES_DIR) + "/wav16_stereo_44k.wav";
    int g = mgr->CreateGroup("G");
    auto open = [&](const char* path, const char* mime) {
        return mgr->Open(g, path, "t", mime, 2, 44100, 5, 0, 0);
    };
    // 31 members fail even with one in service; 30 pass that check, and with
    // nobody able to play the states are set all the same.
    ExpectCodes({{open("/tmp/song.txt", "text/plain"), PLURAFON_ERR_CONTENTS},
                 {open("/nonexistent.wav", "audio/x-wav"), PLURAFON_ERR_CONTENTS},
                 {open(wav.c_str(), "audio/x-wav"), PLURAFON_ERR_NO_PLAY_DEVICE}});
    for (int i = 0; i < 31; i++)
        ASSERT_EQ(0, mgr->AddDevice(g, "", AddReceiver(i).c_str(), AV_CHANNEL_PARTY, i == 0));
    PlurafonMgr::dlna_notify((intptr_t)mgr.get(), AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.3", 0);
    ExpectCodes({{open(wav.c_str(), "audio/x-wav"), PLURAFON_ERR_TOO_MANY_DEVICE},
                 {mgr->DeleteDevice(g, "", "aa:30"), 0},
                 {mgr->SetDeviceEnableInGroup(g, "127.0.0.2", "aa:0", 0), PLURAFON_ERR_NO_STREAMER},
                 {mgr->SetDeviceEnableInGroup(g, "127.0.0.3", "aa:1", 1), PLURAFON_ERR_NO_STREAMER},
                 {open(wav.c_str(), "audio/x-wav"), PLURAFON_ERR_NO_PLAY_DEVICE},
                 {mgr->ServiceDeviceGetCntList(), 0},
                 {mgr->Stop(g, 0), PLURAFON_ERR_NO_STREAMER}});
    // Out of service; in service but gone; out of service.
    EXPECT_EQ(std::vector<std::string>({"127.0.0.2 aa:0 g-0 Speaker 0 7 0 standby",
                                        "(null) aa:1 g-1 Speaker 1 7 1 off",
                                        "127.0.0.4 aa:2 g-2 Speaker 2 7 0 standby"}),
              Members(*mgr, g, 0, 3));
}

TEST_F(Manager, ContentQueriesAndTheirCache) {
    const std::string fixtures = SONVARA_FIXTURES_DIR, mp3 = fixtures + "/sine_mono_22k.mp3";
    std::string wav = dir.path + "/song.wav";
    ASSERT_EQ(0, system(("cp " + fixtures + "/wav16_stereo_44k.wav " + wav).c_str()));
    EXPECT_EQ(0, mgr->IsContentValid(wav.c_str()));
    EXPECT_EQ(44100, mgr->GetContentSampleRate(wav.c_str()));
    // The same path again is answered from the cache, without the file; a
    // fresh question about a file that is gone answers 0.
    ASSERT_EQ(0, unlink(wav.c_str()));
    EXPECT_EQ(2, mgr->GetContentChannel(wav.c_str()));
    EXPECT_NE(0, mgr->IsContentValid(wav.c_str()));
    EXPECT_EQ(0, mgr->GetContentSampleRate(wav.c_str()));
    EXPECT_EQ(PLURAFON_ERR_CONTENTS, mgr->IsContentValid("/tmp/a.ogg"));
    events.Clear();
    EXPECT_EQ(0, mgr->GetContentInfo(mp3.c_str()));
    EXPECT_NE(0, mgr->GetContentInfo("/nonexistent.mp3"));
    EXPECT_EQ(std::vector<std::string>({"Contents 1 22050", "Contents 0 0"}), events.Lines());
}

// One session of the manager with five receivers and two groups: searches
// (blocking ones report and add, a background one marks the silent absent
// and fills in names), then One plays a short file to its end while Two
// plays on, is controlled, and loses members one way after another; then
// Wi-Fi loss, Stop, and a manager destroyed while playing.
TEST_F(Manager, SearchesTwoGroupsControlsMembersLeavingWiFiLossStopAndDestruction) {
    ASSERT_EQ(0, mgr->ConnectedWiFi());
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

    // Two plays on to its last member, even while the listener dwells in
    // its progress event; Wi-Fi loss stops it.
    std::atomic<int> during(-1);
    events.OnProgress([&](int g) {
        if (g != g2 || during >= 0) return;
        unsigned int before = rx[3]->Report().packets;
        PAL_ThreadSleep(1500);
        during = (int)(rx[3]->Report().packets - before);
    });
    for (unsigned int t0 = PAL_GetClock(); during < 0 && PAL_GetClock() - t0 < 10000;)
        PAL_ThreadSleep(10);
    events.OnProgress(nullptr);
    EXPECT_GE(during.load(), 50);  // about 190 are due
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
TEST_F(Manager, FloodingVanishedAndStuckReceiversHoldUpNobody) {
    ASSERT_EQ(0, mgr->ConnectedWiFi());
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
    // Ten seconds of stream under the flood: no packet to the others late.
    ASSERT_TRUE(rx[0]->WaitForPackets(rx[0]->Report().packets + 1250, 30000));
    for (int i : {0, 1}) EXPECT_LT(rx[i]->Report().latenessMaxMs, kLateMs) << Ip(i);
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
    // The buffers nobody read held the music source: not one packet of the
    // others ran dry meanwhile.
    for (int i : {0, 1}) EXPECT_EQ(0u, rx[i]->Report().silentPackets) << Ip(i);
    seekInTime(4);
    StopPromptly(g);
}
