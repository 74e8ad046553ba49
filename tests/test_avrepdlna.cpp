// Device discovery against emulated receivers on 127.0.0.x in the private
// namespace: searches, the request sent, hostile answers, EXIT
// announcements, the TCP collector and the sync trigger. (Content
// information is checked beside the streamer's readers.)
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AVRepDlna.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"

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

// The owner's events as "died word mac" lines (other events: "msg N").
struct Owner {
    std::mutex lock;
    std::vector<std::string> events;
    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> hold(lock);
        return events;
    }
};

void owner_notify(intptr_t parent, intptr_t msg, intptr_t p1, intptr_t p2) {
    Owner* o = (Owner*)parent;
    std::lock_guard<std::mutex> hold(o->lock);
    o->events.push_back(msg == AVMSG_RECEIVER_DIED
                            ? std::string("died ") + (const char*)p1 + " " + (const char*)p2
                            : "msg " + std::to_string(msg));
}

// A text field up to its terminator, never past its array: a field left
// unterminated shows as one character too long.
template <size_t N>
std::string Field(const char (&f)[N]) {
    return std::string(f, strnlen(f, N));
}

// A found device as one line: "ip mac guid name master volume".
template <class Device>
std::string Text(const Device& d) {
    return Field(d.pReceiverIP) + " " + Field(d.pReceiverMac) + " " + Field(d.pReceiverGuid) + " " +
           Field(d.pReceiverName) + " " + std::to_string(d.isMaster) + " " + std::to_string(d._vol);
}

// Times each thread of this process has gone to sleep, by thread id.
std::map<int, long> ThreadSleeps() {
    std::map<int, long> sleeps;
    DIR* dir = opendir("/proc/self/task");
    for (struct dirent* e = dir ? readdir(dir) : nullptr; e; e = readdir(dir)) {
        std::ifstream status(std::string("/proc/self/task/") + e->d_name + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                sleeps[atoi(e->d_name)] = atol(line.c_str() + line.find(':') + 1);
        }
    }
    if (dir) closedir(dir);
    return sleeps;
}

}  // namespace

// One scene: four emulated receivers and four that answer broken texts, one
// search among them, then EXIT announcements from anyone.
TEST(AVRepDlna, OneSearchAmongGoodAndHostileReceiversThenExitAnnouncements) {
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
    std::vector<std::string> want;
    for (int i = 0; i < 4; i++) {
        ReceiverConfig cfg;
        ReceiverConfigDefaults(&cfg, ("127.0.0." + std::to_string(2 + i)).c_str());
        cfg.timeSync = cfg.keepPcm = false;
        cfg.master = i == 2 ? 0 : 1;
        cfg.volume = 10 + i;
        if (i == 1) snprintf(cfg.name, sizeof(cfg.name), "Salon \xC3\xA9t\xC3\xA9 \xE2\x99\xAA");
        rx.emplace_back(new ReceiverEmulator(cfg));
        ASSERT_EQ(0, rx.back()->Start());
        want.push_back(std::string(cfg.address) + " " + cfg.mac + " " + cfg.guid + " " + cfg.name +
                       " " + std::to_string(cfg.master) + " " + std::to_string(cfg.volume));
    }
    // Broken answers, sent from their own addresses as soon as the first
    // request is heard on the group: only the oversized one is complete, and
    // counts with every field cut; none spills over its field.
    const std::string big(300, 'X');
    const std::string broken[] = {
        "DEVICE\r\nMAC: " + big + "\r\nGUID: " + big + "\r\nNAME: " + big +
            "\r\nMASTER: 70000\r\nVOL: 99999999999\r\n",
        "DEVICE MAC: m GUID: g NAME: no line end MASTER: 1 VOL: 2",
        "VOL: 1\r\nMASTER: 1\r\nNAME: n\r\nGUID: g\r\nMAC: m DEVICE", "hello"};
    want.push_back("127.0.0.6 " + std::string(19, 'X') + " " + std::string(39, 'X') + " " +
                   std::string(243, 'X') + " 4464 1215752191");  // the low 16 and 32 bits
    int requests = rx_udp_group("224.1.2.4", 1234, "127.0.0.1");
    ASSERT_GE(requests, 0);
    std::thread hostile([&] {
        struct sockaddr_in to;
        if (rx_wait_readable(requests, 10000) != 1 ||
            !rx_sockaddr("127.0.0.1", AV_DLNA_ANSWER_PORT, &to))
            return;
        for (size_t k = 0; k < 4; k++) {
            int s = rx_udp_bind(("127.0.0." + std::to_string(6 + k)).c_str(), 0);
            sendto(s, broken[k].data(), broken[k].size(), 0, (struct sockaddr*)&to, sizeof(to));
            close(s);
        }
    });
    Owner owner;
    CAVRepDlna::SetGUID("sender-guid-1");
    CAVRepDlna d(owner_notify, &owner);
    ASSERT_EQ(0, d.CAVRepDlnaInit(kGroupAddr));
    ASSERT_EQ(0, d.ReceiveMsgOpen());
    memset(gmasterip, 0, sizeof(gmasterip));
    AV_DEVICE_INFO out;

    // A malformed address returns 1 and sends nothing; Init refuses it too.
    const std::string len256(256, '1');
    for (const char* bad : {"", "224.1.2.4", ":1234", "224.1.2.4:", len256.c_str()})
        EXPECT_EQ(1, d.GetDeviceInfo(bad, &out, 100)) << bad;
    CAVRepDlna e;
    EXPECT_EQ(1, e.CAVRepDlnaInit("224.1.2.4"));
    EXPECT_EQ(1, e.CAVRepDlnaInit(len256.c_str()));

    // waitMs 0 collects for the default 2000 ms. Our own DEVICE requests loop
    // back to the receive socket and are ignored there.
    unsigned int seq = CAVRepDlna::device_search_seq, t0 = PAL_GetClock();
    memset(&out, 0, sizeof(out));
    ASSERT_EQ(0, d.GetDeviceInfo(kGroupAddr, &out, 0));
    unsigned int took = PAL_GetClock() - t0;
    hostile.join();
    EXPECT_GE(took, 2000u);
    EXPECT_LT(took, 8000u);
    EXPECT_EQ(seq + 1, CAVRepDlna::device_search_seq);

    // The request: 8 identical copies naming this phone and the answer port.
    std::vector<std::string> req;
    char buf[2048];
    for (ssize_t n;
         rx_wait_readable(requests, 0) == 1 && (n = recv(requests, buf, sizeof(buf), 0)) > 0;)
        req.emplace_back(buf, (size_t)n);
    close(requests);
    ASSERT_FALSE(req.empty());
    EXPECT_EQ(std::vector<std::string>(8, req[0]), req);
    const std::string head = "DEVICE 127.0.0.1:9090\r\nGUID: sender-guid-1\r\nREQ_TS: ";
    const size_t end = req[0].find_first_not_of("0123456789", head.size());
    EXPECT_TRUE(req[0].compare(0, head.size(), head) == 0 && end > head.size() &&
                end != std::string::npos && req[0].substr(end) == "\r\n")
        << req[0];

    std::vector<std::string> got;
    for (int i = 0; i < out.nAVDeviceCnt; i++) got.push_back(Text(out.AVDevice[i]));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(want, got);
    for (auto& r : rx) EXPECT_EQ(8u, r->Report().deviceRequests);  // the good search's only
    EXPECT_STREQ("127.0.0.4", gmasterip);

    // EXIT announcements from anyone reach the owner, each field cut.
    int tx = rx_udp_bind("127.0.0.9", 0);
    ASSERT_GE(tx, 0);
    struct sockaddr_in group;
    ASSERT_TRUE(rx_sockaddr("224.1.2.4", 1234, &group));
    for (const std::string& m : {std::string("EXIT 127.0.0.5\r\nMAC: aa:bb:cc\r\nGUID: gx\r\n"),
                                 std::string("EXIT 127.0.0.6"), "EXIT " + big + " MAC: " + big})
        ASSERT_GT(sendto(tx, m.data(), m.size(), 0, (struct sockaddr*)&group, sizeof(group)), 0);
    for (int i = 0; i < 500 && owner.Events().size() < 3; i++) PAL_ThreadSleep(10);
    t0 = PAL_GetClock();
    EXPECT_EQ(0, d.ReceiveMsgClose());
    EXPECT_LT(PAL_GetClock() - t0, 2500u);
    close(tx);
    EXPECT_EQ(0, d.CAVRepDlnaClose());
    EXPECT_EQ(
        std::vector<std::string>({"died 127.0.0.5 aa:bb:cc", "died 127.0.0.6 ",
                                  "died " + std::string(19, 'X') + " " + std::string(19, 'X')}),
        owner.Events());
}

TEST(AVRepDlna, AnswerAndExitParsersSayWhatTheyGotAndCutEveryField) {
    AV_DEVICE_SEARCH_INFO list = {};
    const std::string a244 = "DEVICE\r\nMAC: a\r\nGUID: b\r\nNAME: " + std::string(244, 'N') +
                             "\r\nMASTER: 1\r\nVOL: 2\r\n";
    const std::string neg = "DEVICE MAC: a GUID: b NAME: c\r\nMASTER: -1\r\nVOL: -5\r\n";
    // Out-of-range numbers keep what scanf would keep; labels in the wrong
    // order or missing are partial; no DEVICE is not an answer at all.
    const struct {
        std::string text;
        const char* ip;
        int want;
    } rows[] = {
        {"DEVICE MAC: a GUID: b NAME: " + std::string(300, 'Y') + " MASTER: 1 VOL: 2", "1.1.1.1",
         AV_DLNA_ANSWER_PARTIAL},
        {a244, "1.1.1.1", AV_DLNA_ANSWER_RECORDED},
        {a244, "1.1.1.1", AV_DLNA_ANSWER_DUPLICATE},
        {neg, "1.1.1.2", AV_DLNA_ANSWER_RECORDED},
        {"DEVICE GUID: b NAME: c\r\nMASTER: 1 VOL: 1", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"DEVICE MAC: a NAME: c\r\nMASTER: 1 VOL: 1", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"DEVICE MAC: a GUID: b\r\nMASTER: 1 VOL: 1", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"DEVICE MAC: a GUID: b NAME: c\r\nVOL: 1", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"DEVICE MAC: a GUID: b NAME: c\r\nMASTER: 1", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"VOL: 1 MASTER: 1 DEVICE MAC: a NAME: c\r\nGUID: b", "1.1.1.3", AV_DLNA_ANSWER_PARTIAL},
        {"", "1.1.1.3", AV_DLNA_ANSWER_NOT_DEVICE},
    };
    for (const auto& r : rows)
        EXPECT_EQ(r.want, CAVRepDlna::AddDeviceAnswer(&list, r.text.c_str(), r.ip)) << r.text;
    ASSERT_EQ(2, list.nAVDeviceCnt);
    EXPECT_EQ("1.1.1.1 a b " + std::string(243, 'N') + " 1 2", Text(list.AVDeviceDlna[0]));
    EXPECT_EQ("1.1.1.2 a b c 65535 -5", Text(list.AVDeviceDlna[1]));
    // A full list takes nothing more.
    for (int i = 2; i <= AV_MAX_DEVICE; i++) {
        std::string ip = "10.0.0." + std::to_string(i);
        EXPECT_EQ(i < AV_MAX_DEVICE ? AV_DLNA_ANSWER_RECORDED : AV_DLNA_ANSWER_FULL,
                  CAVRepDlna::AddDeviceAnswer(&list, neg.c_str(), ip.c_str()));
    }
    EXPECT_EQ(AV_MAX_DEVICE, list.nAVDeviceCnt);

    // EXIT: the word, MAC and GUID, each cut to its field.
    char word[AV_IP_LEN], mac[AV_MAC_LEN], guid[AV_GUID_LEN];
    const std::string big(300, 'Y'), exitBig = "EXIT " + big + " MAC: " + big + " GUID: " + big;
    EXPECT_EQ(1, CAVRepDlna::ParseExitMessage(exitBig.c_str(), word, mac, guid));
    EXPECT_EQ(big.substr(0, 19) + " " + big.substr(0, 19) + " " + big.substr(0, 39),
              Field(word) + " " + Field(mac) + " " + Field(guid));
    EXPECT_EQ(1, CAVRepDlna::ParseExitMessage("EXIT", word, mac, guid));
    EXPECT_STREQ("", word);
    EXPECT_EQ(0, CAVRepDlna::ParseExitMessage("EXI T 1.2.3.4", word, mac, guid));
}

TEST(AVRepDlna, TcpCollectorRecordsConnectedReceivers) {
    CAVRepDlna d(owner_notify, nullptr);
    int lsn = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_EQ(0, PAL_SockServerOpen(lsn, "127.0.0.1", 9090, PAL_SOCK_TCP, PAL_NET_UNI));
    CAVRepDlnaProbe::StartTcp(&d, lsn);

    // Three receivers, a broken one, and our own address, which is dropped;
    // the collector closes each connection once it has read it.
    std::vector<int> conns;
    for (int i = 0; i < 5; i++) {
        int c = rx_tcp_connect(("127.0.0." + std::to_string(i == 4 ? 1 : 2 + i)).c_str(),
                               "127.0.0.1", 9090, 5000);
        ASSERT_GE(c, 0);
        std::string text =
            i == 3 ? "DEVICE MAC: x"
                   : "DEVICE MAC: m" + std::to_string(i) + " GUID: g NAME: n\r\nMASTER: 1\r\n";
        ASSERT_EQ((ssize_t)text.size(), send(c, text.data(), text.size(), 0));
        conns.push_back(c);
    }
    for (int c : conns) {
        char b;
        ASSERT_EQ(1, rx_wait_readable(c, 5000));
        EXPECT_EQ(0, recv(c, &b, 1, 0));
        close(c);
    }
    AV_DEVICE_SEARCH_INFO got = CAVRepDlnaProbe::StopTcp(&d);
    std::vector<std::string> macs;
    for (int i = 0; i < got.nAVDeviceCnt; i++)
        macs.push_back(Field(got.AVDeviceDlna[i].pReceiverMac) + " " +
                       std::to_string(got.AVDeviceDlna[i].hTcpClientSock));
    std::sort(macs.begin(), macs.end());
    EXPECT_EQ(std::vector<std::string>({"m0 0", "m1 0", "m2 0"}), macs);
    PAL_SockClose(lsn);
}

TEST(AVRepDlna, GuidIsCutAndIdleThreadsSleepUntilWorkOrTheEnd) {
    CAVRepDlna::SetGUID(std::string(50, 'G').c_str());
    EXPECT_EQ(std::string(39, 'G'), CAVRepDlna::mguid);
    CAVRepDlna::SetGUID("short");
    EXPECT_STREQ("short", CAVRepDlna::mguid);
    CAVRepDlna d;

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
