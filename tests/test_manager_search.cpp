// Device searches through the manager against answering peers on
// 127.0.0.x: what each search reports, which devices it marks absent, the
// member states it leaves, and Wi-Fi coming and going.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <set>
#include <string>

#include "RecordingNotify.h"
#include "SonvaraMgr.h"
#include "dlna_peers.h"

namespace {

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
