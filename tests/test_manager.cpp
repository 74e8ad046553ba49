// The session manager through its public operations, without any stream:
// device records and the phone's own, groups and members with the codes of
// every operation, the service registry, JOIN requests and dead receivers as
// the streamer and discovery report them, the group file through a fresh
// manager, Open's checks before any streamer exists, and content queries.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "Grouprw.h"
#include "RecordingNotify.h"
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

class Manager : public ::testing::Test {
protected:
    void SetUp() override {
        mgr = new PlurafonMgr("sender-guid", nullptr);
        ASSERT_EQ(0, mgr->initCheck());
        mgr->SetNoitfyObject(&events);
    }
    void TearDown() override { delete mgr; }

    // A known, present receiver 127.0.0.<2+i> with MAC aa:<i>.
    std::string AddReceiver(int i) {
        std::string mac = "aa:" + std::to_string(i);
        Join(*mgr, "127.0.0." + std::to_string(2 + i),
             JoinText(mac, "g-" + std::to_string(i), "Speaker " + std::to_string(i), ""));
        return mac;
    }

    PlurafonMgr* mgr = nullptr;
    RecordingNotify events;
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

    // The phone: LoadMyDevice appends itself each time it finds itself
    // present; AddMyDevice makes it a party speaker in service, once, that
    // cannot be taken out again.
    EXPECT_EQ(0, mgr->LoadMyDevice());
    EXPECT_EQ(0, mgr->LoadMyDevice());
    ASSERT_EQ(5, mgr->GetDeviceCount());
    char mac[AV_MAC_LEN] = {0}, ip[AV_IP_LEN] = {0};
    GetNICInfo(mac, ip);
    const std::string phone = std::string(ip) + " " + mac + " sender-guid ";
    EXPECT_EQ(phone + " 0 0", Device(*mgr, mgr->GetDeviceHandle(3)));
    EXPECT_EQ(phone + " 0 0", Device(*mgr, mgr->GetDeviceHandle(4)));
    EXPECT_EQ(-1, mgr->AddMyDevice(0));
    EXPECT_EQ(-1, mgr->AddMyDevice(g3 + 1000));
    ExpectCodes({
        {mgr->AddDevice(g3, "127.0.0.2", a, AV_CHANNEL_FRONT_LEFT, 1), 0},
        {mgr->AddMyDevice(g3), 0},
        {mgr->SetDeviceEnableInGroup(g3, ip, mac, 1), 0},
        {mgr->UpdateDeviceChannelType(g3, ip, mac, AV_CHANNEL_CENTER), 0},
        {mgr->AddMyDevice(g3), 0},
        {mgr->DeleteDevice(g3, ip, mac), 0},
        {mgr->GetDeviceCount(), 5},  // the existing record was reused
    });
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
    EXPECT_EQ(0, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.7"));

    mgr->ServiceDeviceDeleteReceiver("127.0.0.2");  // the first of two
    EXPECT_EQ(5, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.2"));
    EXPECT_EQ(4, mgr->ServiceDeviceGetCntList());
    mgr->ServiceDeviceDeleteGroup(5);
    EXPECT_EQ(std::vector<std::string>({"127.0.0.3", "127.0.0.4"}), list());
    for (const char* ip : {"127.0.0.4", "127.0.0.3", "127.0.0.3"})
        mgr->ServiceDeviceDeleteReceiver(ip);
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    mgr->ServiceDeviceAdd(1, "127.0.0.5");
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
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_FOUND, 0, (intptr_t) "MAC: m", 0, 0);
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
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.2", 0);
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.99", 0);
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_MASTER_FOUND, (intptr_t) "127.0.0.9", 0);
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, 0, 0);
    EXPECT_EQ(std::vector<std::string>(
                  {"(null) aa:01 g-1 Kitchen 1 1 off", "127.0.0.9 aa:02 g-2b Bath 2 2 1 standby"}),
              Members(*mgr, g1));
    EXPECT_EQ(std::vector<std::string>({"(null) aa:01 g-1 Kitchen 7 1 off"}), Members(*mgr, g2));
    EXPECT_EQ("(null) aa:01 g-1 Kitchen 1 7", Device(*mgr, mgr->GetDeviceHandle(0)));

    // The streamer's events, passed through; a volume change of an unknown
    // address, and a reset from a receiver in no playing group, tell nobody.
    const intptr_t m = (intptr_t)mgr;
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_LEAVE, (intptr_t) "127.0.0.9", g1, 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_LEAVE, 0, g1, 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_PLAY_PROGRESS, g1, 42, 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_SERVICE_STOP, g1, 1, 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_VOLUMECHANGED, 0x10005, (intptr_t) "127.0.0.9", 0,
                               0);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_VOLUMECHANGED, 3, (intptr_t) "127.0.0.77", 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_RESET, (intptr_t) "127.0.0.9", 0, 0, 0);
    PlurafonMgr::sender_notify(m, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.9", 0, 0, 0);
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
    TempDir dir, out;
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
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.3", 0);
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
    TempDir dir;
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
    ExpectCodes({{mgr->GetContentSampleRate(mp3.c_str()), 22050},
                 {mgr->GetContentChannel(mp3.c_str()), 1},
                 {mgr->IsContentValid("/tmp/a.ogg"), PLURAFON_ERR_CONTENTS},
                 {mgr->IsContentValidFromMime(mp3.c_str(), "audio/ogg"), PLURAFON_ERR_CONTENTS},
                 {mgr->IsContentValidFromMime(mp3.c_str(), "audio/mpeg"), 0}});
    events.Clear();
    EXPECT_EQ(0, mgr->GetContentInfo(mp3.c_str()));
    EXPECT_NE(0, mgr->GetContentInfo("/nonexistent.mp3"));
    EXPECT_EQ(std::vector<std::string>({"Contents 1 22050", "Contents 0 0"}), events.Lines());
}
