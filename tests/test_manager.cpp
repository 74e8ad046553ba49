// The session manager through its public operations: device registry, the
// phone's own record, groups and members with their codes, the service
// registry, JOIN requests and dead receivers as the streamer and discovery
// report them, the group file through a fresh manager, and the checks Open
// makes before any streamer exists.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

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
void Join(PlurafonMgr& mgr, const std::string& ip, const std::string& text, int streamer = 0) {
    PlurafonMgr::sender_notify((intptr_t)&mgr, AVMSG_RECEIVER_FOUND, (intptr_t)ip.c_str(),
                               (intptr_t)text.c_str(), streamer, 0);
}

struct Phone {
    char mac[AV_MAC_LEN] = {0};
    char ip[AV_IP_LEN] = {0};
    Phone() { GetNICInfo(mac, ip); }
};

std::string Str(const char* text) {
    return text ? text : "(null)";
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

TEST_F(Manager, DeviceRegistryAndThePhonesOwnRecord) {
    EXPECT_EQ(0, mgr->GetDeviceCount());
    EXPECT_EQ(0, mgr->GetDeviceHandle(0));

    Join(*mgr, "127.0.0.2", JoinText("aa:01", "g-1", "Kitchen \xE2\x99\xAB", "VOL: 12\r\n"));
    ASSERT_EQ(1, mgr->GetDeviceCount());
    int h = mgr->GetDeviceHandle(0);
    ASSERT_NE(0, h);
    EXPECT_EQ(0, mgr->GetDeviceHandle(1));
    EXPECT_STREQ("127.0.0.2", mgr->GetDeviceIp(h));
    EXPECT_STREQ("aa:01", mgr->GetDeviceMac(h));
    EXPECT_STREQ("g-1", mgr->GetDeviceGuid(h));
    EXPECT_STREQ("Kitchen \xE2\x99\xAB", mgr->GetDeviceName(h));
    EXPECT_EQ(1, mgr->GetDeviceReceiverType(h));  // a receiver that joined
    EXPECT_EQ(12, mgr->GetDeviceVolume(h));

    // The phone: LoadMyDevice appends itself each time it finds itself present.
    Phone phone;
    EXPECT_EQ(0, mgr->LoadMyDevice());
    EXPECT_EQ(0, mgr->LoadMyDevice());
    ASSERT_EQ(3, mgr->GetDeviceCount());
    EXPECT_STREQ(phone.mac, mgr->GetDeviceMac(mgr->GetDeviceHandle(1)));
    EXPECT_STREQ(phone.mac, mgr->GetDeviceMac(mgr->GetDeviceHandle(2)));
    EXPECT_STREQ(phone.ip, mgr->GetDeviceIp(mgr->GetDeviceHandle(1)));
    EXPECT_STREQ("sender-guid", mgr->GetDeviceGuid(mgr->GetDeviceHandle(1)));

    // AddMyDevice: the phone becomes a party speaker in service, once, and
    // cannot be taken out again.
    int g = mgr->CreateGroup("Mine");
    EXPECT_EQ(-1, mgr->AddMyDevice(0));
    EXPECT_EQ(-1, mgr->AddMyDevice(g + 1000));
    ASSERT_EQ(0, mgr->AddDevice(g, "127.0.0.2", "aa:01", AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddMyDevice(g));
    EXPECT_EQ(3, mgr->GetDeviceCount());  // the existing record was reused
    ASSERT_EQ(2, mgr->GetDeviceCountInGroup(g));
    EXPECT_STREQ(phone.mac, mgr->GetDeviceMacInGroup(g, 1));
    EXPECT_EQ(AV_CHANNEL_PARTY, mgr->GetDeviceTypeInGroup(g, 1));
    EXPECT_EQ(1, mgr->IsDeviceServiceInGroup(g, 1));
    EXPECT_EQ(0, mgr->SetDeviceEnableInGroup(g, phone.ip, phone.mac, 1));
    ASSERT_EQ(0, mgr->UpdateDeviceChannelType(g, phone.ip, phone.mac, AV_CHANNEL_CENTER));
    ASSERT_EQ(0, mgr->AddMyDevice(g));
    EXPECT_EQ(2, mgr->GetDeviceCountInGroup(g));
    EXPECT_EQ(AV_CHANNEL_PARTY, mgr->GetDeviceTypeInGroup(g, 1));
    EXPECT_EQ(0, mgr->DeleteDevice(g, phone.ip, phone.mac));
    EXPECT_EQ(2, mgr->GetDeviceCountInGroup(g));
}

TEST_F(Manager, GroupsMembersAndTheirCodes) {
    std::string a = AddReceiver(0), b = AddReceiver(1), c = AddReceiver(2);
    int g1 = mgr->CreateGroup("Living");
    int g2 = mgr->CreateGroup("Living");
    int g3 = mgr->CreateGroup(std::string(100, 'x').c_str());
    ASSERT_TRUE(g1 && g2 && g3);
    EXPECT_NE(g1, g2);
    EXPECT_EQ(g1, mgr->GetGroupIDByName("Living"));  // the earlier of two
    EXPECT_EQ(0, mgr->GetGroupIDByName("living"));
    EXPECT_EQ(std::string(63, 'x'), Str(mgr->GetGroupName(g3)));
    EXPECT_EQ(g1, mgr->GetGroupID(0));
    EXPECT_EQ(g3, mgr->GetGroupID(2));
    EXPECT_EQ(0, mgr->GetGroupID(3));
    EXPECT_EQ(0, mgr->GetGroupID(-1));

    // The first member decides the mode; an unknown MAC still sets it.
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID,
              mgr->AddDevice(0, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 1));
    EXPECT_EQ(PLURAFON_ERR_DEVICE_NOT_FOUND,
              mgr->AddDevice(g2, "127.0.0.9", "zz:99", AV_CHANNEL_FRONT_LEFT, 1));
    EXPECT_EQ(0, mgr->GetDeviceCountInGroup(g2));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 1));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_FRONT_LEFT, 0));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.4", c.c_str(), AV_CHANNEL_WOOFER, 1));
    // Adding a member again changes its role and flag, not the count.
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_REAR_RIGHT, 1));
    ASSERT_EQ(3, mgr->GetDeviceCountInGroup(g1));
    EXPECT_EQ(AV_CHANNEL_REAR_RIGHT, mgr->GetDeviceTypeInGroup(g1, 1));
    EXPECT_EQ(1, mgr->IsDeviceServiceInGroup(g1, 1));
    EXPECT_STREQ("127.0.0.3", mgr->GetDeviceIpInGroup(g1, 1));
    EXPECT_STREQ("g-1", mgr->GetDeviceGuidInGroup(g1, 1));
    EXPECT_STREQ("Speaker 1", mgr->GetDeviceNameInGroup(g1, 1));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g1, 1));
    // By-index queries past the end (made-up ids: the JVM tests).
    for (int idx : {3, -1}) {
        int id = g1;
        EXPECT_EQ(nullptr, mgr->GetDeviceIpInGroup(id, idx));
        EXPECT_EQ(nullptr, mgr->GetDeviceMacInGroup(id, idx));
        EXPECT_EQ(nullptr, mgr->GetDeviceGuidInGroup(id, idx));
        EXPECT_EQ(nullptr, mgr->GetDeviceNameInGroup(id, idx));
        EXPECT_EQ(0, mgr->GetDeviceTypeInGroup(id, idx));
        EXPECT_EQ(0, mgr->IsDeviceServiceInGroup(id, idx));
        EXPECT_EQ(0, mgr->GetDeviceStateInGroup(id, idx));
        EXPECT_EQ(0, mgr->GetDeviceServiceIsPlayInGroup(id, idx));
    }
    EXPECT_EQ(0, mgr->GetDeviceCountInGroup(0));

    // Channel role updates.
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID,
              mgr->UpdateDeviceChannelType(0, "127.0.0.2", a.c_str(), AV_CHANNEL_CENTER));
    EXPECT_EQ(PLURAFON_ERR_DEVICE_NOT_FOUND,
              mgr->UpdateDeviceChannelType(g1, "127.0.0.9", "zz:99", AV_CHANNEL_CENTER));
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND,
              mgr->UpdateDeviceChannelType(g2, "127.0.0.2", a.c_str(), AV_CHANNEL_CENTER));
    EXPECT_EQ(0, mgr->UpdateDeviceChannelType(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_CENTER));
    EXPECT_EQ(AV_CHANNEL_CENTER, mgr->GetDeviceTypeInGroup(g1, 0));

    // Service flag: kept even though the group has no stream to tell.
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND,
              mgr->SetDeviceEnableInGroup(g2, "127.0.0.2", a.c_str(), 0));
    EXPECT_EQ(0, mgr->SetDeviceEnableInGroup(g1, "127.0.0.2", a.c_str(), 1));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->SetDeviceEnableInGroup(g1, "127.0.0.2", a.c_str(), 0));
    EXPECT_EQ(0, mgr->IsDeviceServiceInGroup(g1, 0));

    // Controls of a group without a stream.
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g1, 0));
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID, mgr->Stop(0, 0));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Pause(g1));
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID, mgr->Pause(0));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Resume(g1));
    EXPECT_EQ(PLURAFON_ERR_SEEK_GROUP_ID, mgr->seekTo(0, 10));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->seekTo(g1, 10));
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID, mgr->stopPlayer(g1));
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND, mgr->SetReceiverUITypeAll(0, 1));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->SetReceiverUITypeAll(g1, 1));
    EXPECT_EQ(PLURAFON_ERR_DEVICE_NOT_FOUND, mgr->SetReceiverUIType("127.0.0.9", "zz:99", 1));
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND,
              mgr->SetReceiverUIType("127.0.0.2", a.c_str(), 1));  // not playing
    EXPECT_EQ(PLURAFON_ERR_DEVICE_NOT_FOUND,
              mgr->ReceiverDeviceVolumeControl("127.0.0.9", "zz:99", 5));
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND,
              mgr->ReceiverDeviceVolumeControl("127.0.0.2", a.c_str(), 5));
    EXPECT_EQ(0, mgr->ReceiverVolumeControl(g1, 5));
    EXPECT_EQ(PLURAFON_ERR_ITEM_NOT_FOUND,
              mgr->DevicePlay(g2, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 5));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER,
              mgr->DevicePlay(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 5));
    EXPECT_EQ(DEVICE_STATE_PLAY, mgr->GetDeviceStateInGroup(g1, 0));  // kept on failure
    EXPECT_EQ(0, mgr->DevicePlay(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 5));  // already

    // Removing members: ReceiverOut removes, then finds no stream.
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID, mgr->DeleteDevice(0, "127.0.0.2", a.c_str()));
    EXPECT_EQ(0, mgr->DeleteDevice(g1, "127.0.0.9", "zz:99"));
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->ReceiverOut(g1, "127.0.0.3", b.c_str()));
    EXPECT_EQ(2, mgr->GetDeviceCountInGroup(g1));
    EXPECT_STREQ(c.c_str(), mgr->GetDeviceMacInGroup(g1, 1));
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID, mgr->ReceiverOut(0, "127.0.0.3", b.c_str()));

    // Renaming and deleting: a deleted group's id is unknown afterwards.
    EXPECT_EQ(PLURAFON_ERR_SEEK_GROUP_ID, mgr->ChangeGroupName(0, "x"));
    EXPECT_EQ(0, mgr->ChangeGroupName(g2, "Kitchen"));
    EXPECT_EQ(g2, mgr->GetGroupIDByName("Kitchen"));
    EXPECT_EQ(0, mgr->DeleteGroup(g1));
    EXPECT_EQ(nullptr, mgr->GetGroupName(g1));
    EXPECT_EQ(PLURAFON_ERR_GROUP_ID,
              mgr->AddDevice(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 1));
    EXPECT_EQ(0, mgr->DeleteGroup(g1));
    EXPECT_EQ(g2, mgr->GetGroupID(0));
    EXPECT_EQ(g3, mgr->GetGroupID(1));
    EXPECT_EQ(0, mgr->_debug_print_all_group());
}

TEST_F(Manager, ServiceRegistryKeepsOrderAndDuplicates) {
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    mgr->ServiceDeviceAdd(5, "127.0.0.2");
    mgr->ServiceDeviceAdd(6, "127.0.0.3");
    mgr->ServiceDeviceAdd(5, "127.0.0.2");
    mgr->ServiceDeviceAdd(5, std::string(30, '9').c_str());
    mgr->ServiceDeviceAdd(6, "127.0.0.4");
    ASSERT_EQ(5, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(6, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.3"));
    EXPECT_EQ(0, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.7"));

    char bufs[5][AV_IP_LEN] = {};
    char* list[5] = {bufs[0], bufs[1], bufs[2], bufs[3], bufs[4]};
    mgr->ServiceDeviceGetList(list);
    EXPECT_STREQ("127.0.0.2", bufs[0]);
    EXPECT_STREQ("127.0.0.3", bufs[1]);
    EXPECT_EQ(std::string(19, '9'), bufs[3]);
    EXPECT_STREQ("127.0.0.4", bufs[4]);

    mgr->ServiceDeviceDeleteReceiver("127.0.0.2");  // the first of two
    EXPECT_EQ(4, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(5, mgr->ServiceDeviceGetGroupIdOfReceiver("127.0.0.2"));
    mgr->ServiceDeviceDeleteGroup(5);
    ASSERT_EQ(2, mgr->ServiceDeviceGetCntList());
    memset(bufs, 0, sizeof(bufs));
    mgr->ServiceDeviceGetList(list);
    EXPECT_STREQ("127.0.0.3", bufs[0]);
    EXPECT_STREQ("127.0.0.4", bufs[1]);
    mgr->ServiceDeviceDeleteReceiver("127.0.0.4");
    mgr->ServiceDeviceDeleteReceiver("127.0.0.3");
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    mgr->ServiceDeviceDeleteReceiver("127.0.0.3");
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

TEST_F(Manager, JoinRequestsAreHandledOncePerTimeStamp) {
    std::string first = JoinText("aa:01", "g-1", "Kitchen", "VOL: 7\r\nREQ_TS: 1000\r\n");
    Join(*mgr, "127.0.0.2", first);
    Join(*mgr, "127.0.0.2", first);  // a multicast retry
    EXPECT_EQ(1, events.Count("Join "));
    Join(*mgr, "127.0.0.2", JoinText("aa:01", "g-1", "Kitchen", "VOL: 7\r\nREQ_TS: 1001\r\n"));
    EXPECT_EQ(2, events.Count("Join "));
    Join(*mgr, "127.0.0.2", first);  // the old stamp is new again now
    EXPECT_EQ(3, events.Count("Join "));
    EXPECT_EQ(1, mgr->GetDeviceCount());
    EXPECT_EQ("Join 0 127.0.0.2 aa:01 g-1 Kitchen", events.Lines()[0]);

    // Without a time stamp every request is acted on.
    std::string noTs = JoinText("aa:02", "g-2", "Bath", "");
    Join(*mgr, "127.0.0.3", noTs);
    Join(*mgr, "127.0.0.3", noTs);
    EXPECT_EQ(5, events.Count("Join "));

    // A known receiver that joins from a new address takes it.
    Join(*mgr, "127.0.0.9", JoinText("aa:02", "g-2b", "Bath 2", "VOL: 3\r\nREQ_TS: 5\r\n"));
    int h = mgr->GetDeviceHandle(1);
    EXPECT_STREQ("127.0.0.9", mgr->GetDeviceIp(h));
    EXPECT_STREQ("Bath 2", mgr->GetDeviceName(h));
    EXPECT_EQ(3, mgr->GetDeviceVolume(h));
    EXPECT_EQ(2, mgr->GetDeviceCount());

    // Broken requests change nothing and never crash.
    events.Clear();
    const char* bad[] = {
        "",
        "MAC: only",
        "MAC: m\r\nGUID: g\r\n",
        "GUID: g\r\nMAC: m\r\nNAME: n\r\n",  // GUID must follow MAC
        "MAC: \r\nGUID: \r\nNAME: \r\n",
        "MAC: m3\r\nGUID: g3\r\nNAME: \r\nVOL: x\r\nREQ_TS: y\r\n",
    };
    for (const char* text : bad) Join(*mgr, "127.0.0.4", text);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_FOUND, 0, (intptr_t) "MAC: m", 0, 0);
    PlurafonMgr::sender_notify(0, AVMSG_RECEIVER_FOUND, (intptr_t) "1.2.3.4", (intptr_t) "x", 0, 0);
    EXPECT_EQ(0, events.Count("Join "));
    EXPECT_EQ(2, mgr->GetDeviceCount());

    // A name without CR LF, fields far past their arrays (the address too),
    // numbers out of range.
    Join(*mgr, std::string(25, '1'),
         "MAC: " + std::string(5000, 'M') + "\r\nGUID: " + std::string(5000, 'G') +
             "\r\nNAME: " + std::string(5000, 'N'));
    Join(*mgr, "127.0.0.6",
         JoinText("aa:06", "g-6", "Six",
                  "VOL: 99999999999999\r\nREQ_TS: " + std::string(200, '7') + "\r\n"));
    ASSERT_EQ(2, events.Count("Join "));
    EXPECT_EQ("Join 0 " + std::string(19, '1') + " " + std::string(19, 'M') + " " +
                  std::string(39, 'G') + " " + std::string(243, 'N'),
              events.Lines()[0]);
    EXPECT_EQ(4, mgr->GetDeviceCount());
}

TEST_F(Manager, StreamerAndDiscoveryEventsReachTheNotifier) {
    std::string a = AddReceiver(0), b = AddReceiver(1);
    int g1 = mgr->CreateGroup("One");
    int g2 = mgr->CreateGroup("Two");
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_FRONT_RIGHT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g2, "127.0.0.2", a.c_str(), AV_CHANNEL_PARTY, 1));
    events.Clear();

    // A receiver that died is off in every group and absent.
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.2", 0);
    EXPECT_EQ(DEVICE_STATE_OFF, mgr->GetDeviceStateInGroup(g1, 0));
    EXPECT_EQ(DEVICE_STATE_OFF, mgr->GetDeviceStateInGroup(g2, 0));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g1, 1));
    EXPECT_EQ(nullptr, mgr->GetDeviceIpInGroup(g1, 0));
    EXPECT_STREQ(a.c_str(), mgr->GetDeviceMacInGroup(g1, 0));
    EXPECT_EQ(nullptr, mgr->GetDeviceIp(mgr->GetDeviceHandle(0)));
    EXPECT_STREQ(a.c_str(), mgr->GetDeviceMac(mgr->GetDeviceHandle(0)));
    // Told even when no member matched; other discovery events are ignored.
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.99", 0);
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_MASTER_FOUND, (intptr_t) "127.0.0.3", 0);
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, 0, 0);

    // The streamer's events, passed through.
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_LEAVE, (intptr_t) "127.0.0.3", g1, 0,
                               0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_LEAVE, 0, g1, 0, 0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_PLAY_PROGRESS, g1, 42, 0, 0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_SERVICE_STOP, g1, 1, 0, 0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_VOLUMECHANGED, 0x10007,
                               (intptr_t) "127.0.0.3", 0, 0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_VOLUMECHANGED, 3,
                               (intptr_t) "127.0.0.77", 0, 0);
    // A reset from a receiver in no playing group tells nobody.
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_RESET, (intptr_t) "127.0.0.3", 0, 0,
                               0);
    PlurafonMgr::sender_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.3", 0, 0, 0);
    std::vector<std::string> want = {
        "Die 127.0.0.2",
        "Die 127.0.0.99",
        "Leave " + std::to_string(g1) + " 127.0.0.3",
        "Progress " + std::to_string(g1) + " 42",
        "ServiceStop " + std::to_string(g1) + " 1",
        "Volume 0 127.0.0.3 aa:1 g-1 Speaker 1 7",
    };
    EXPECT_EQ(want, events.Lines());
}

TEST_F(Manager, GroupFileSavedAndLoadedByAFreshManager) {
    std::string a = AddReceiver(0), b = AddReceiver(1);
    int g1 = mgr->CreateGroup("Living");
    int g2 = mgr->CreateGroup("Party\r\n[GROUP]\r\nname:forged");
    mgr->CreateGroup("Empty");
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.2", a.c_str(), AV_CHANNEL_FRONT_LEFT, 1));
    ASSERT_EQ(0, mgr->AddDevice(g1, "127.0.0.3", b.c_str(), AV_CHANNEL_FRONT_RIGHT, 0));
    ASSERT_EQ(0, mgr->AddDevice(g2, "127.0.0.3", b.c_str(), AV_CHANNEL_PARTY, 1));
    TempDir dir;
    ASSERT_EQ(GROUP_RW_OK, mgr->SaveGroup(dir.path.c_str()));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, mgr->SaveGroup("/nonexistent/dir"));
    // CR LF blocks in list and member order; a name cannot forge a block.
    std::ifstream in(dir.path + "/multi_group_play.ini", std::ios::binary);
    std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(
        "[GROUP]\r\nname:Living\r\nmode:1\r\ndevice:aa:0|1|1\r\ndevice:aa:1|2|0\r\n"
        "[GROUP]\r\nname:Party\r\nmode:2\r\ndevice:aa:1|7|1\r\n"
        "[GROUP]\r\nname:Empty\r\nmode:0\r\n",
        file);
    delete mgr;
    mgr = nullptr;

    PlurafonMgr fresh("other-guid", nullptr);
    ASSERT_EQ(0, fresh.initCheck());
    RecordingNotify seen;
    fresh.SetNoitfyObject(&seen);
    ASSERT_EQ(3, fresh.LoadGroup(dir.path.c_str()));
    int l = fresh.GetGroupIDByName("Living");
    int p = fresh.GetGroupIDByName("Party");
    ASSERT_TRUE(l && p);
    EXPECT_EQ(l, fresh.GetGroupID(0));
    ASSERT_EQ(2, fresh.GetDeviceCountInGroup(l));
    // Members come back in reverse; devices carry only their MAC, absent.
    EXPECT_STREQ(b.c_str(), fresh.GetDeviceMacInGroup(l, 0));
    EXPECT_EQ(AV_CHANNEL_FRONT_RIGHT, fresh.GetDeviceTypeInGroup(l, 0));
    EXPECT_EQ(0, fresh.IsDeviceServiceInGroup(l, 0));
    EXPECT_STREQ(a.c_str(), fresh.GetDeviceMacInGroup(l, 1));
    EXPECT_EQ(nullptr, fresh.GetDeviceIpInGroup(l, 0));
    EXPECT_EQ(2, fresh.GetDeviceCount());  // b is one record in both groups
    EXPECT_EQ(AV_CHANNEL_PARTY, fresh.GetDeviceTypeInGroup(p, 0));
    // Loaded members are usable: a join brings the device back.
    Join(fresh, "127.0.0.3", JoinText(b, "g-1", "Speaker 1", ""));
    EXPECT_STREQ("127.0.0.3", fresh.GetDeviceIpInGroup(p, 0));
    EXPECT_EQ(2, fresh.GetDeviceCount());
    // Loading starts a background search, which reports its end.
    EXPECT_TRUE(seen.WaitFor("SearchComplete "));

    // No file: no groups, and still a search.
    PlurafonMgr empty("x", nullptr);
    RecordingNotify seen2;
    empty.SetNoitfyObject(&seen2);
    EXPECT_EQ(0, empty.LoadGroup("/nonexistent/dir"));
    EXPECT_TRUE(seen2.WaitFor("SearchComplete "));
}

TEST_F(Manager, OpenChecksTheGroupBeforeAnyStreamer) {
    const std::string wav = std::string(SONVARA_FIXTURES_DIR) + "/wav16_stereo_44k.wav";
    int g = mgr->CreateGroup("G");
    EXPECT_EQ(PLURAFON_ERR_CONTENTS,
              mgr->Open(g, "/tmp/song.txt", "t", "text/plain", 2, 44100, 5, 0, 0));
    EXPECT_EQ(PLURAFON_ERR_CONTENTS,
              mgr->Open(g, "/nonexistent.wav", "t", "audio/x-wav", 2, 44100, 5, 0, 0));
    EXPECT_EQ(PLURAFON_ERR_NO_PLAY_DEVICE,
              mgr->Open(g, wav.c_str(), "t", "audio/x-wav", 2, 44100, 5, 0, 0));

    // 31 members fail even with one in service; 30 pass that check.
    for (int i = 0; i < 31; i++) {
        std::string mac = AddReceiver(i);
        ASSERT_EQ(0, mgr->AddDevice(g, "", mac.c_str(), AV_CHANNEL_PARTY, i == 0));
    }
    EXPECT_EQ(PLURAFON_ERR_TOO_MANY_DEVICE,
              mgr->Open(g, wav.c_str(), "t", "audio/x-wav", 2, 44100, 5, 0, 0));
    ASSERT_EQ(0, mgr->DeleteDevice(g, "", "aa:30"));
    // Nobody able to play: the states are set all the same.
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->SetDeviceEnableInGroup(g, "127.0.0.2", "aa:0", 0));
    PlurafonMgr::dlna_notify((intptr_t)mgr, AVMSG_RECEIVER_DIED, (intptr_t) "127.0.0.3", 0);
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->SetDeviceEnableInGroup(g, "127.0.0.3", "aa:1", 1));
    EXPECT_EQ(PLURAFON_ERR_NO_PLAY_DEVICE,
              mgr->Open(g, wav.c_str(), "t", "audio/x-wav", 2, 44100, 5, 0, 0));
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g, 0));  // out of service
    EXPECT_EQ(DEVICE_STATE_OFF, mgr->GetDeviceStateInGroup(g, 1));      // in service, gone
    EXPECT_EQ(DEVICE_STATE_STANDBY, mgr->GetDeviceStateInGroup(g, 2));
    EXPECT_EQ(0, mgr->ServiceDeviceGetCntList());
    EXPECT_EQ(PLURAFON_ERR_NO_STREAMER, mgr->Stop(g, 0));
}

TEST_F(Manager, ContentQueriesAndTheirCache) {
    const std::string fixtures = SONVARA_FIXTURES_DIR;
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

    std::string mp3 = fixtures + "/sine_mono_22k.mp3";
    EXPECT_EQ(22050, mgr->GetContentSampleRate(mp3.c_str()));
    EXPECT_EQ(1, mgr->GetContentChannel(mp3.c_str()));
    EXPECT_EQ(PLURAFON_ERR_CONTENTS, mgr->IsContentValid("/tmp/a.ogg"));
    EXPECT_EQ(PLURAFON_ERR_CONTENTS, mgr->IsContentValidFromMime(mp3.c_str(), "audio/ogg"));
    EXPECT_EQ(0, mgr->IsContentValidFromMime(mp3.c_str(), "audio/mpeg"));

    events.Clear();
    EXPECT_EQ(0, mgr->GetContentInfo(mp3.c_str()));
    EXPECT_NE(0, mgr->GetContentInfo("/nonexistent.mp3"));
    std::vector<std::string> want = {"Contents 1 22050", "Contents 0 0"};
    EXPECT_EQ(want, events.Lines());
}
