// Device discovery against emulated receivers on 127.0.0.x in the private
// namespace: searches, the request sent, hostile answers, EXIT
// announcements, the TCP collector and the sync trigger. (Content
// information is checked beside the streamer's readers.)
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AVRepDlna.h"
#include "ReceiverEmulator.h"
#include "dlna_peers.h"

// Drives the TCP collector, which no search path starts.
struct CAVRepDlnaProbe {
    static void StartTcp(CAVRepDlna* d, int listenSock) {
        memset(&d->m_DeviceSearch, 0, sizeof(d->m_DeviceSearch));
        d->m_nTcpSock = listenSock;
        ASSERT_EQ(0,
                  d->_start_worker(&d->m_searchWorker, "tcp collector", CAVRepDlna::DeviceThread));
    }
    static AV_DEVICE_SEARCH_INFO StopTcp(CAVRepDlna* d) {
        d->m_searchWorker.Stop(2000);
        return d->m_DeviceSearch.AVDeviceSearchInfo;
    }
};

namespace {

const char* kGroupAddr = "224.1.2.4:1234";

struct Event {
    intptr_t msg;
    std::string word;
    std::string mac;
};

struct Owner {
    std::mutex lock;
    std::vector<Event> events;
};

void owner_notify(intptr_t parent, intptr_t msg, intptr_t p1, intptr_t p2) {
    Owner* o = (Owner*)parent;
    std::lock_guard<std::mutex> hold(o->lock);
    o->events.push_back(Event{msg, (const char*)p1, (const char*)p2});
}

void expect_terminated(const AV_DEVICE& d) {
    EXPECT_LT(strnlen(d.pReceiverIP, sizeof(d.pReceiverIP)), sizeof(d.pReceiverIP));
    EXPECT_LT(strnlen(d.pReceiverMac, sizeof(d.pReceiverMac)), sizeof(d.pReceiverMac));
    EXPECT_LT(strnlen(d.pReceiverGuid, sizeof(d.pReceiverGuid)), sizeof(d.pReceiverGuid));
    EXPECT_LT(strnlen(d.pReceiverName, sizeof(d.pReceiverName)), sizeof(d.pReceiverName));
}

// Times each thread of this process has gone to sleep, by thread id.
std::map<int, long> ThreadSleeps() {
    std::map<int, long> sleeps;
    DIR* dir = opendir("/proc/self/task");
    for (struct dirent* e = dir ? readdir(dir) : nullptr; e; e = readdir(dir)) {
        std::ifstream status(std::string("/proc/self/task/") + e->d_name + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                sleeps[atoi(e->d_name)] = atol(line.c_str() + line.find(':') + 1);
            }
        }
    }
    if (dir) closedir(dir);
    return sleeps;
}

int search(CAVRepDlna* d, AV_DEVICE_INFO* out, int waitMs, const char* addr = kGroupAddr) {
    memset(out, 0, sizeof(*out));
    return d->GetDeviceInfo(addr, out, waitMs);
}

}  // namespace

// One scene: four emulated receivers and four that answer broken texts, one
// search among them, then EXIT announcements from anyone.
TEST(AVRepDlna, OneSearchAmongGoodAndHostileReceiversThenExitAnnouncements) {
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
    for (int i = 0; i < 4; i++) {
        ReceiverConfig cfg;
        ReceiverConfigDefaults(&cfg, DlnaPeers::Ip(i).c_str());
        cfg.timeSync = false;
        cfg.keepPcm = false;
        cfg.master = i == 2 ? 0 : 1;
        cfg.volume = 10 + i;
        if (i == 1) snprintf(cfg.name, sizeof(cfg.name), "Salon \xC3\xA9t\xC3\xA9 \xE2\x99\xAA");
        rx.emplace_back(new ReceiverEmulator(cfg));
        ASSERT_EQ(0, rx.back()->Start());
    }
    // Broken answers: only the oversized one is complete; none spills over
    // its field.
    DlnaPeers peers;
    ASSERT_TRUE(peers.ok());
    const std::string big(300, 'X');
    peers.Add(DlnaPeers::Ip(4), "DEVICE\r\nMAC: " + big + "\r\nGUID: " + big + "\r\nNAME: " + big +
                                    "\r\nMASTER: 70000\r\nVOL: 99999999999\r\n");
    peers.Add(DlnaPeers::Ip(5), "DEVICE MAC: m GUID: g NAME: no line end MASTER: 1 VOL: 2");
    peers.Add(DlnaPeers::Ip(6), "VOL: 1\r\nMASTER: 1\r\nNAME: n\r\nGUID: g\r\nMAC: m DEVICE");
    peers.Add(DlnaPeers::Ip(7), "hello");
    peers.Start();
    Owner owner;
    CAVRepDlna::SetGUID("sender-guid-1");
    CAVRepDlna d(owner_notify, &owner);
    ASSERT_EQ(0, d.CAVRepDlnaInit(kGroupAddr));
    ASSERT_EQ(0, d.ReceiveMsgOpen());
    memset(gmasterip, 0, sizeof(gmasterip));
    AV_DEVICE_INFO out;

    // A malformed address returns 1 and sends nothing; Init refuses it too.
    const std::string len256(256, '1');
    for (const char* bad : {"", "224.1.2.4", ":1234", "224.1.2.4:", len256.c_str()}) {
        EXPECT_EQ(1, search(&d, &out, 100, bad)) << bad;
    }
    CAVRepDlna e;
    EXPECT_EQ(1, e.CAVRepDlnaInit("224.1.2.4"));
    EXPECT_EQ(1, e.CAVRepDlnaInit(len256.c_str()));

    // waitMs 0 collects for the default 2000 ms. Our own DEVICE requests loop
    // back to the receive socket and are ignored there.
    unsigned int seq = CAVRepDlna::device_search_seq;
    unsigned int t0 = PAL_GetClock();
    ASSERT_EQ(0, search(&d, &out, 0));
    unsigned int took = PAL_GetClock() - t0;
    peers.Stop();
    EXPECT_GE(took, 2000u);
    EXPECT_LT(took, 8000u);
    EXPECT_EQ(seq + 1, CAVRepDlna::device_search_seq);

    // The request: 8 identical copies naming this phone and the answer port.
    std::vector<std::string> req = peers.Requests();
    ASSERT_EQ(8u, req.size());
    const std::string head = "DEVICE 127.0.0.1:9090\r\nGUID: sender-guid-1\r\nREQ_TS: ";
    ASSERT_EQ(head, req[0].substr(0, head.size()));
    std::string ts = req[0].substr(head.size());
    ASSERT_GE(ts.size(), 3u);
    EXPECT_EQ("\r\n", ts.substr(ts.size() - 2));
    EXPECT_EQ(std::string::npos, ts.substr(0, ts.size() - 2).find_first_not_of("0123456789"));
    for (const std::string& r : req) EXPECT_EQ(req[0], r);

    ASSERT_EQ(5, out.nAVDeviceCnt);
    for (int i = 0; i < 5; i++) {
        const AV_DEVICE& dev = out.AVDevice[i];
        expect_terminated(dev);
        int k = dev.pReceiverIP[8] - '2';
        ASSERT_TRUE(k >= 0 && k <= 4) << dev.pReceiverIP;
        if (k == 4) {  // the oversized answer is complete and counts too
            EXPECT_EQ(std::string(19, 'X'), dev.pReceiverMac);
            EXPECT_EQ(std::string(243, 'X'), dev.pReceiverName);
            EXPECT_EQ(70000 & 0xFFFF, dev.isMaster);
            continue;
        }
        const ReceiverConfig& cfg = rx[k]->Config();
        EXPECT_STREQ(cfg.mac, dev.pReceiverMac);
        EXPECT_STREQ(cfg.guid, dev.pReceiverGuid);
        EXPECT_STREQ(cfg.name, dev.pReceiverName);
        EXPECT_EQ(cfg.master, dev.isMaster);
        EXPECT_EQ(cfg.volume, dev._vol);
        EXPECT_EQ(8u, rx[k]->Report().deviceRequests);  // the good search's only
    }
    EXPECT_STREQ("127.0.0.4", gmasterip);

    // EXIT announcements from anyone reach the owner, each field cut.
    int tx = rx_udp_bind("127.0.0.9", 0);
    ASSERT_GE(tx, 0);
    struct sockaddr_in group;
    ASSERT_TRUE(rx_sockaddr("224.1.2.4", 1234, &group));
    const std::string msgs[] = {"EXIT 127.0.0.5\r\nMAC: aa:bb:cc\r\nGUID: gx\r\n", "EXIT 127.0.0.6",
                                "EXIT " + big + " MAC: " + big};
    for (const std::string& m : msgs) {
        ASSERT_GT(sendto(tx, m.data(), m.size(), 0, (struct sockaddr*)&group, sizeof(group)), 0);
    }
    for (int i = 0; i < 500; i++) {
        {
            std::lock_guard<std::mutex> hold(owner.lock);
            if (owner.events.size() >= 3) break;
        }
        PAL_ThreadSleep(10);
    }
    t0 = PAL_GetClock();
    EXPECT_EQ(0, d.ReceiveMsgClose());
    EXPECT_LT(PAL_GetClock() - t0, 2500u);
    close(tx);
    EXPECT_EQ(0, d.CAVRepDlnaClose());

    std::lock_guard<std::mutex> hold(owner.lock);
    ASSERT_EQ(3u, owner.events.size());
    for (const Event& ev : owner.events) EXPECT_EQ(AVMSG_RECEIVER_DIED, ev.msg);
    EXPECT_EQ("127.0.0.5", owner.events[0].word);
    EXPECT_EQ("aa:bb:cc", owner.events[0].mac);
    EXPECT_EQ("127.0.0.6", owner.events[1].word);
    EXPECT_EQ("", owner.events[1].mac);
    EXPECT_EQ(std::string(19, 'X'), owner.events[2].word);
    EXPECT_EQ(std::string(19, 'X'), owner.events[2].mac);
}

TEST(AVRepDlna, AnswerParserCutsEveryField) {
    AV_DEVICE_SEARCH_INFO list;
    memset(&list, 0, sizeof(list));
    const std::string big(300, 'Y');
    const std::string noCrLf = "DEVICE MAC: a GUID: b NAME: " + big + " MASTER: 1 VOL: 2";
    EXPECT_EQ(AV_DLNA_ANSWER_PARTIAL,
              CAVRepDlna::AddDeviceAnswer(&list, noCrLf.c_str(), "1.1.1.1"));
    EXPECT_EQ(0, list.nAVDeviceCnt);
    EXPECT_EQ(243u, strlen(list.AVDeviceDlna[0].pReceiverName));  // left in the uncounted slot

    // A name of exactly 244 bytes still leaves room for the terminator.
    std::string a244 = DlnaPeers::Answer("a", "b", std::string(244, 'N'), 1, 2);
    EXPECT_EQ(AV_DLNA_ANSWER_RECORDED, CAVRepDlna::AddDeviceAnswer(&list, a244.c_str(), "1.1.1.1"));
    EXPECT_EQ(243u, strlen(list.AVDeviceDlna[0].pReceiverName));
    EXPECT_EQ(AV_DLNA_ANSWER_DUPLICATE,
              CAVRepDlna::AddDeviceAnswer(&list, a244.c_str(), "1.1.1.1"));

    // Out-of-range numbers keep what scanf would keep; labels in the wrong
    // order or missing are partial; no DEVICE is not an answer at all.
    std::string neg = "DEVICE MAC: a GUID: b NAME: c\r\nMASTER: -1\r\nVOL: -5\r\n";
    EXPECT_EQ(AV_DLNA_ANSWER_RECORDED, CAVRepDlna::AddDeviceAnswer(&list, neg.c_str(), "1.1.1.2"));
    EXPECT_EQ(65535, list.AVDeviceDlna[1].isMaster);
    EXPECT_EQ(-5, list.AVDeviceDlna[1]._vol);
    const char* partial[] = {"DEVICE GUID: b NAME: c\r\nMASTER: 1 VOL: 1",
                             "DEVICE MAC: a NAME: c\r\nMASTER: 1 VOL: 1",
                             "DEVICE MAC: a GUID: b\r\nMASTER: 1 VOL: 1",
                             "DEVICE MAC: a GUID: b NAME: c\r\nVOL: 1",
                             "DEVICE MAC: a GUID: b NAME: c\r\nMASTER: 1",
                             "VOL: 1 MASTER: 1 DEVICE MAC: a NAME: c\r\nGUID: b"};
    for (const char* p : partial) {
        EXPECT_EQ(AV_DLNA_ANSWER_PARTIAL, CAVRepDlna::AddDeviceAnswer(&list, p, "1.1.1.3")) << p;
    }
    EXPECT_EQ(AV_DLNA_ANSWER_NOT_DEVICE, CAVRepDlna::AddDeviceAnswer(&list, "", "1.1.1.3"));
    EXPECT_EQ(2, list.nAVDeviceCnt);

    // A full list takes nothing more.
    for (int i = 2; i < AV_MAX_DEVICE; i++) {
        std::string ip = "10.0.0." + std::to_string(i);
        ASSERT_EQ(AV_DLNA_ANSWER_RECORDED,
                  CAVRepDlna::AddDeviceAnswer(&list, neg.c_str(), ip.c_str()));
    }
    EXPECT_EQ(AV_DLNA_ANSWER_FULL, CAVRepDlna::AddDeviceAnswer(&list, neg.c_str(), "10.1.1.1"));
    EXPECT_EQ(AV_MAX_DEVICE, list.nAVDeviceCnt);

    // EXIT: the word, MAC and GUID, each cut to its field.
    char word[20], mac[20], guid[40];
    std::string exitBig = "EXIT " + big + " MAC: " + big + " GUID: " + big;
    EXPECT_EQ(1, CAVRepDlna::ParseExitMessage(exitBig.c_str(), word, mac, guid));
    EXPECT_EQ(19u, strlen(word));
    EXPECT_EQ(19u, strlen(mac));
    EXPECT_EQ(39u, strlen(guid));
    EXPECT_EQ(1, CAVRepDlna::ParseExitMessage("EXIT", word, mac, guid));
    EXPECT_STREQ("", word);
    EXPECT_EQ(0, CAVRepDlna::ParseExitMessage("EXI T 1.2.3.4", word, mac, guid));
}

TEST(AVRepDlna, TcpCollectorRecordsConnectedReceivers) {
    CAVRepDlna d(owner_notify, nullptr);
    int lsn = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_EQ(0, PAL_SockServerOpen(lsn, "127.0.0.1", 9090, PAL_SOCK_TCP, PAL_NET_UNI));
    CAVRepDlnaProbe::StartTcp(&d, lsn);

    // Three receivers, a broken one, and our own address, which is dropped.
    std::vector<int> conns;
    for (int i = 0; i < 5; i++) {
        std::string ip = i == 4 ? "127.0.0.1" : DlnaPeers::Ip(i);
        int c = rx_tcp_connect(ip.c_str(), "127.0.0.1", 9090, 5000);
        ASSERT_GE(c, 0);
        std::string text =
            i == 3 ? "DEVICE MAC: x"
                   : "DEVICE MAC: m" + std::to_string(i) + " GUID: g NAME: n\r\nMASTER: 1\r\n";
        ASSERT_EQ((ssize_t)text.size(), send(c, text.data(), text.size(), 0));
        conns.push_back(c);
    }
    // The collector closes each connection once it has read it.
    for (int c : conns) {
        char b;
        ASSERT_EQ(1, rx_wait_readable(c, 5000));
        EXPECT_EQ(0, recv(c, &b, 1, 0));
    }
    AV_DEVICE_SEARCH_INFO got = CAVRepDlnaProbe::StopTcp(&d);
    ASSERT_EQ(3, got.nAVDeviceCnt);
    std::set<std::string> macs;
    for (int i = 0; i < 3; i++) {
        macs.insert(got.AVDeviceDlna[i].pReceiverMac);
        EXPECT_EQ(0, got.AVDeviceDlna[i].hTcpClientSock);
    }
    EXPECT_EQ((std::set<std::string>{"m0", "m1", "m2"}), macs);
    for (int c : conns) close(c);
    PAL_SockClose(lsn);
}

TEST(AVRepDlna, IdentityAndSyncTrigger) {
    CAVRepDlna::SetGUID(std::string(50, 'G').c_str());
    EXPECT_EQ(std::string(39, 'G'), CAVRepDlna::mguid);
    CAVRepDlna::SetGUID("short");
    EXPECT_STREQ("short", CAVRepDlna::mguid);

    CAVRepDlna d;
    AV_DEVICE me;
    memset(&me, 0, sizeof(me));
    me.isMaster = 5;
    ASSERT_EQ(0, d.GetMyDevice(&me));
    EXPECT_STREQ("127.0.0.1", me.pReceiverIP);
    EXPECT_EQ(17u, strlen(me.pReceiverMac));
    EXPECT_EQ(5, me.isMaster);  // nothing else touched

    // Idle, the listener and the sync trigger sleep until a datagram comes
    // or a sync step is due (one a second): over a quiet 1.5 s the two
    // threads wake a few times, not once every few milliseconds. Asked to
    // end, both wake at once.
    // (A first thread first: a sanitizer starts its own helper thread then.)
    std::thread([] {}).join();
    std::map<int, long> others = ThreadSleeps();
    ASSERT_EQ(0, d.CAVRepDlnaInit(kGroupAddr));
    ASSERT_EQ(0, d.ReceiveMsgOpen());
    EXPECT_EQ(0, d.SyncTrigOpen());
    PAL_ThreadSleep(50);
    std::map<int, long> before = ThreadSleeps();
    PAL_ThreadSleep(1500);
    long woke = 0;
    for (const auto& t : ThreadSleeps()) {
        if (!others.count(t.first) && before.count(t.first)) woke += t.second - before[t.first];
    }
    EXPECT_LE(woke, 5);
    unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(0, d.SyncTrigClose());
    EXPECT_EQ(0, d.ReceiveMsgClose());
    EXPECT_LT(PAL_GetClock() - t0, 500u);
    EXPECT_EQ(0, d.SyncTrigClose());  // a second close has nothing to stop
    EXPECT_EQ(0, d.CAVRepDlnaClose());
}
