// The receiver emulator against a scripted sender on loopback. Every engine
// end-to-end test has it as the peer, so what those reach (its JOIN, EXIT,
// DEVICE answers and requests) is left to them, and the demo's runs in the
// suite check its WAV files; here are what they cannot tell: that its
// misbehaviours happen, that its report counts the faults it is shown, that
// it keeps every payload across the sequence's wrap and that hostile bytes
// do not stop it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "PAL.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"
#include "TimeSyncInitiator.h"

namespace {

const char* kGroup = "224.1.2.4";
const unsigned short kControlPort = 1554;

// Reads from fd until the text holds `end` (or 3 s pass without a byte).
std::string read_until(int fd, const char* end = "\r\n\r\n") {
    std::string got;
    char buf[4096];
    for (ssize_t n = 1; n > 0 && got.find(end) == std::string::npos;) {
        n = rx_wait_readable(fd, 3000) == 1 ? recv(fd, buf, sizeof(buf), 0) : 0;
        if (n > 0) got.append(buf, (size_t)n);
    }
    return got;
}

void send_text(int fd, const std::string& text) {
    ASSERT_EQ((ssize_t)text.size(), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// Plays the sender: a control server on 127.0.0.1 and datagrams from there.
struct ScriptedSender {
    int listener = PAL_SockCreate(PAL_SOCK_TCP), udp = rx_udp_bind("127.0.0.1", 0), conn = -1;
    unsigned int reqTs = 100;  // a new one for each SEARCH
    ScriptedSender() {
        EXPECT_EQ(0,
                  PAL_SockServerOpen(listener, nullptr, kControlPort, PAL_SOCK_TCP, PAL_NET_UNI));
    }
    ~ScriptedSender() {
        for (int fd : {conn, listener, udp}) close(fd);
    }
    void Send(const std::string& msg, const char* to, unsigned short port = 1234) {
        struct sockaddr_in sa;
        rx_sockaddr(to, port, &sa);
        sendto(udp, msg.data(), msg.size(), 0, (struct sockaddr*)&sa, sizeof(sa));
    }
    // A SEARCH from this sender listing the given receivers.
    void Search(const std::vector<const char*>& clients, const char* to) {
        std::string msg = "SEARCH\r\nGUID: sender-guid\r\nREQ_TS: " + std::to_string(++reqTs) +
                          "\r\nServer: 127.0.0.1:" + std::to_string(kControlPort) + "\r\nClient: ";
        for (const char* c : clients) {
            in_addr_t a = inet_addr(c);
            msg.append((const char*)&a, 4);
        }
        Send(msg, to);
    }
    // Accepts one connection and gives its peer's address ("" when none comes).
    std::string Accept(int timeoutMs = 3000) {
        if (rx_wait_readable(listener, timeoutMs) != 1) return "";
        if (conn >= 0) close(conn);
        struct sockaddr_in from;
        socklen_t len = sizeof(from);
        conn = accept(listener, (struct sockaddr*)&from, &len);
        return conn < 0 ? "" : inet_ntoa(from.sin_addr);
    }
};

ReceiverEmulator* start_receiver(const char* addr, bool timeSync = false, long long offsetUs = 0) {
    ReceiverConfig cfg;
    ReceiverConfigDefaults(&cfg, addr);
    cfg.timeSync = timeSync;
    cfg.clockOffsetUs = offsetUs;
    cfg.replyTimeoutMs = 1500;
    ReceiverEmulator* rx = new ReceiverEmulator(cfg);
    EXPECT_EQ(0, rx->Start());
    return rx;
}

// An RTP packet: sequence number seq, time stamp ts (ms), payload byte i
// fill + i (fill 0: a silent packet).
std::string rtp_packet(unsigned int seq, unsigned char fill, unsigned int ts, size_t len = 1412,
                       int pt = 96, unsigned char first = 0x80) {
    std::string p = {(char)first, (char)(0x80 | pt), (char)(seq >> 8), (char)seq};
    p.resize(len);
    for (int i = 0; i < 4; i++) p[4 + i] = (char)(ts >> (24 - 8 * i));
    for (size_t i = 12; i < len; i++) p[i] = (char)(fill ? fill + i : 0);
    return p;
}

// Where a packet belongs on the sender's clock: 44.1 kHz 16-bit stereo from
// 5000 ms on, the sender's count running on past the sequence's wrap.
unsigned int ts_of(unsigned int seq) {
    const unsigned long long ext = seq < 1000 ? seq + 65536ULL : seq;
    return 5000 + (unsigned int)((ext - 1) * 1400 * 1000 / 176400);
}

}  // namespace

// A receiver and a scripted sender: a stream with faults in it, each
// misbehaviour switched on and off, then hostile bytes.
TEST(ReceiverEmulator, StreamFaultsMisbehavioursAndHostileBytes) {
    std::unique_ptr<ReceiverEmulator> rx(start_receiver("127.0.0.3"));
    ScriptedSender tx;
    tx.Search({"127.0.0.9", "127.0.0.3"}, kGroup);
    ASSERT_EQ("127.0.0.3", tx.Accept());
    EXPECT_EQ("CHANNEL\r\nSyncPort: 5000\r\n\r\n", read_until(tx.conn));

    // Every payload lands in memory, byte for byte, across the sequence's
    // wrap; then every fault in the stream is counted.
    for (unsigned int k = 0, seq = 65530; k < 10; k++, seq = (seq + 1) & 0xFFFF) {
        tx.Send(rtp_packet(seq, (unsigned char)(k + 1), ts_of(seq)), "127.0.0.3", rx->RtpPort());
        PAL_ThreadSleep(1);
    }
    ASSERT_TRUE(rx->WaitForPackets(10, 3000));
    std::vector<unsigned char> pcm = rx->Pcm();
    ASSERT_EQ(10u * 1400, pcm.size());
    for (unsigned int k = 0; k < 10; k++) EXPECT_EQ((unsigned char)(k + 13), pcm[k * 1400]);
    const struct {
        unsigned int seq;
        unsigned char fill;
        size_t len;
        int pt, tsSkew;
        unsigned char first;
    } faults[] = {
        {7, 1, 1412, 96, 0, 0x80},   // 4, 5, 6 lost
        {8, 0, 1412, 96, 0, 0x80},   // silent
        {9, 1, 1000, 96, 0, 0x80},   // short
        {10, 1, 1412, 97, 0, 0x80},  // wrong payload type
        {11, 1, 1412, 96, 0, 0xA0},  // padding bit: not version-2-plain
        {8, 1, 1412, 96, 0, 0x80},   // repeated
        {12, 1, 1412, 96, 0, 0x80},  // a gap: 9-11 were unusable
        {13, 1, 1412, 96, 5, 0x80},  // 5 ms off its place on the sender's clock
    };
    for (const auto& k : faults) {
        tx.Send(rtp_packet(k.seq, k.fill, ts_of(k.seq) + k.tsSkew, k.len, k.pt, k.first),
                "127.0.0.3", rx->RtpPort());
        PAL_ThreadSleep(1);
    }
    ASSERT_TRUE(rx->WaitForPackets(14, 3000));
    ReceiverReport r = rx->Report();
    // packets, gaps, lost, short, payload type, version, repeated, silent,
    // off the clock, the last sequence number
    EXPECT_EQ((std::vector<unsigned int>{14, 2, 6, 1, 1, 1, 1, 1, 1, 13}),
              (std::vector<unsigned int>{r.packets, r.seqGaps, r.lostPackets, r.badLength,
                                         r.badPayloadType, r.badVersion, r.outOfOrder,
                                         r.silentPackets, r.timestampErrors, r.lastSeq}));
    // BYE is answered unless switched off.
    send_text(tx.conn, "BYE RTSP/1.0\r\n\r\n");
    EXPECT_NE(std::string::npos, read_until(tx.conn).find("BYE_ACK\r\n\r\n"));
    rx->SetAnswerBye(false);
    send_text(tx.conn, "BYE RTSP/1.0\r\n\r\n");
    EXPECT_EQ(0, rx_wait_readable(tx.conn, 300)) << "BYE answered although switched off";

    // Stopped reading, commands wait in the socket until reading resumes; a
    // dropped connection reads as end of stream; refusing, a SEARCH listing
    // it brings no connection; not answering, a DEVICE request no answer.
    rx->SetStopReading(true);
    PAL_ThreadSleep(100);
    send_text(tx.conn, "DEVICETYPE: 4\r\n\r\n");
    EXPECT_FALSE(rx->WaitForCommand("DEVICETYPE", 300));
    rx->SetStopReading(false);
    EXPECT_TRUE(rx->WaitForCommand("DEVICETYPE", 3000));
    rx->DropConnection();
    EXPECT_EQ("", read_until(tx.conn));
    EXPECT_TRUE(rx->WaitForDisconnect(3000));
    rx->SetRefuseConnect(true);
    tx.Search({"127.0.0.3"}, "127.0.0.3");  // unicast, to its own port
    EXPECT_EQ("", tx.Accept(500));
    rx->SetRefuseConnect(false);
    tx.Search({"127.0.0.3"}, kGroup);
    ASSERT_EQ("127.0.0.3", tx.Accept());
    int answers = rx_udp_bind("127.0.0.1", 9090);
    for (bool on : {true, false}) {
        rx->SetAnswerDiscovery(on);
        tx.Send("DEVICE 127.0.0.1:9090\r\nGUID: g\r\nREQ_TS: 1\r\n", "127.0.0.3");
        char b[1500];
        EXPECT_EQ(on, rx_wait_readable(answers, on ? 3000 : 500) == 1 &&
                          recv(answers, b, sizeof(b), 0) > 0);
    }
    close(answers);

    // Hostile bytes: text that starts like the real thing and goes wrong, on
    // every port and on the connection, then an endless message. The
    // receiver still answers, and its report stays bounded.
    const char* heads[] = {"DEVICE ", "SEARCH\r\nGUID: ", "DEVICE 1.2.3.4:", "VOLUME: ", ""};
    std::string bad = "RTSP/1.0 200 OK\r\nCseq: 99999999999999999999\r\nContent-Length: -5\r\n\r\n";
    for (unsigned int i = 0, seed = 12345; i < 300; i++) {
        std::string d = heads[i % 5];
        for (size_t k = (seed = seed * 1103515245u + 12345u) % 1500; k > 0; k--)
            d += (char)((seed = seed * 1103515245u + 12345u) >> 16);
        tx.Send(d, i % 2 ? kGroup : "127.0.0.3");
        tx.Send(d, "127.0.0.3", rx->RtpPort());
        bad += d.substr(0, 300) + "\r\n\r\n";
    }
    bad += std::string(20000, 'A') + "\r\n\r\nALIVE\r\n\r\n";
    send(tx.conn, bad.data(), bad.size(), MSG_NOSIGNAL);
    EXPECT_NE(std::string::npos, read_until(tx.conn, "ALIVED\r\n\r\n").find("ALIVED\r\n\r\n"));
    r = rx->Report();
    EXPECT_GT(r.protocolErrors, 100u);
    EXPECT_EQ(ReceiverReport::kMaxErrors, r.nErrors);
    for (int i = 0; i < r.nErrors; i++) EXPECT_LT(strlen(r.errors[i]), sizeof(r.errors[i]));
}

// The clock offset it finds, and packets stamped 400 ms ahead of the master
// clock arriving ~400 ms early, the last one 30 ms behind its place in the
// sequence's schedule.
TEST(ReceiverEmulator, ClockOffsetAndPlayoutMarginOnTheMasterClock) {
    ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr(kGroup), 1235, inet_addr("127.0.0.1"),
                                          PAL_GetBootTimeUsec));
    ASSERT_EQ(0, TimeSyncInitiator_Start());
    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 1000000));
    std::unique_ptr<ReceiverEmulator> rx(start_receiver("127.0.0.2", true, -3217654321LL));
    ASSERT_TRUE(rx->WaitForClockSync(3000));
    PAL_ThreadSleep(300);  // a few more exchanges
    EXPECT_LT(llabs(rx->Report().clockOffsetUs - 3217654321LL), 1000);

    ScriptedSender tx;
    for (unsigned int s = 1; s <= 10; s++) {
        tx.Send(rtp_packet(s, 0, TimeSyncInitiator_GetCurrentClock() + 400), "127.0.0.2",
                rx->RtpPort());
        PAL_ThreadSleep(s == 9 ? 38 : 8);
    }
    ASSERT_TRUE(rx->WaitForPackets(10, 3000));
    ReceiverReport r = rx->Report();
    EXPECT_EQ(10u, r.marginCount);
    EXPECT_NEAR(400.0, r.marginMedianMs, 5.0);
    EXPECT_GT(r.marginMinMs, 350.0);
    EXPECT_GE(r.latenessMaxMs, 29.0);
    rx->Stop();
    TimeSyncInitiator_Delete();
}
