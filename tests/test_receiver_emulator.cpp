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

#include <string>
#include <vector>

#include "PAL_Clock.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"
#include "TimeSyncInitiator.h"

namespace {

// Reads from fd until the text holds `end` (or time runs out).
std::string read_until(int fd, const char* end = "\r\n\r\n", int timeoutMs = 3000) {
    std::string got;
    while (got.find(end) == std::string::npos && rx_wait_readable(fd, timeoutMs) == 1) {
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) break;
        got.append(buf, (size_t)n);
    }
    return got;
}

void send_text(int fd, const std::string& text) {
    ASSERT_EQ((ssize_t)text.size(), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// Plays the sender: a control server on 127.0.0.1 and the SEARCH datagram.
class ScriptedSender {
public:
    ScriptedSender() {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in sa;
        rx_sockaddr("127.0.0.1", 0, &sa);
        bind(listener, (struct sockaddr*)&sa, sizeof(sa));
        listen(listener, 8);
        port = rx_local_port(listener);
        udp = rx_udp_bind("127.0.0.1", 0);
    }
    ~ScriptedSender() {
        if (conn >= 0) close(conn);
        close(listener);
        close(udp);
    }
    std::string Search(const std::vector<const char*>& clients) {
        char text[256];
        snprintf(text, sizeof(text),
                 "SEARCH\r\nGUID: sender-guid\r\nREQ_TS: %u\r\nServer: 127.0.0.1:%u\r\nClient: ",
                 ++reqTs, port);
        std::string msg = text;
        for (const char* c : clients) {
            in_addr_t a = inet_addr(c);
            msg.append((const char*)&a, 4);
        }
        return msg;
    }
    void SendTo(const std::string& msg, const char* addr, unsigned short toPort = 1234) {
        struct sockaddr_in to;
        rx_sockaddr(addr, toPort, &to);
        sendto(udp, msg.data(), msg.size(), 0, (struct sockaddr*)&to, sizeof(to));
    }
    // Accepts one connection; its peer address text goes to *peer.
    bool Accept(std::string* peer, int timeoutMs = 3000) {
        if (rx_wait_readable(listener, timeoutMs) != 1) return false;
        struct sockaddr_in from;
        socklen_t len = sizeof(from);
        conn = accept(listener, (struct sockaddr*)&from, &len);
        if (peer) *peer = inet_ntoa(from.sin_addr);
        return conn >= 0;
    }
    int listener = -1, udp = -1, conn = -1;
    unsigned short port = 0;
    unsigned int reqTs = 100;
};

ReceiverConfig config(const char* addr) {
    ReceiverConfig cfg;
    ReceiverConfigDefaults(&cfg, addr);
    cfg.timeSync = false;
    cfg.replyTimeoutMs = 1500;
    return cfg;
}

// Reads the next request, which must start with `method`, and answers it
// with `reply`, its "%d" replaced by the request's sequence number.
std::string reply_to(int fd, const char* method, std::string reply) {
    std::string req = read_until(fd);
    EXPECT_EQ(0u, req.find(method)) << req;
    size_t p = req.find("CSeq: ");
    reply.replace(reply.find("%d"), 2,
                  p == std::string::npos ? "-1" : req.substr(p + 6, req.find('\r', p) - p - 6));
    send_text(fd, reply);
    return req;
}

// RTP straight to an emulator's client port: payload byte i of packet seq is
// fill + i (0 = a silent packet); ts follows the sequence at 44.1 kHz 16-bit
// stereo from 5000 ms on, tsSkew ms off when given.
void send_rtp(int sock, const struct sockaddr_in& to, unsigned int seq, unsigned char fill,
              size_t len = 1412, int pt = 96, int tsSkew = 0, unsigned char first = 0x80) {
    std::vector<unsigned char> p(len, fill);
    p[0] = first;
    p[1] = (unsigned char)(0x80 | pt);
    p[2] = (unsigned char)(seq >> 8);
    p[3] = (unsigned char)seq;
    unsigned long long ext = seq < 1000 ? seq + 65536ULL : seq;  // the sender's count runs on
    unsigned int ts = 5000 + tsSkew + (unsigned int)((ext - 1) * 1400 * 1000 / 176400);
    for (int i = 0; i < 4; i++) p[4 + i] = (unsigned char)(ts >> (24 - 8 * i));
    for (size_t i = 12; i < len; i++) p[i] = (unsigned char)(fill ? fill + i : 0);
    sendto(sock, p.data(), p.size(), 0, (struct sockaddr*)&to, sizeof(to));
    PAL_ThreadSleep(1);
}

}  // namespace

TEST(ReceiverEmulator, DiscoveryAndEveryMisbehaviourItIsAskedFor) {
    ReceiverEmulator rx2(config("127.0.0.2")), rx3(config("127.0.0.3"));
    ASSERT_EQ(0, rx2.Start());
    ASSERT_EQ(0, rx3.Start());
    // One answer per receiver and DEVICE request; malformed ones are counted.
    int answers = rx_udp_bind("127.0.0.1", 9090);
    ASSERT_GE(answers, 0);
    ScriptedSender tx;
    tx.SendTo("DEVICE 127.0.0.1:9090\r\nGUID: sender-guid\r\nREQ_TS: 42\r\n", "224.1.2.4");
    int got = 0;
    for (char b[1500]; rx_wait_readable(answers, got < 2 ? 3000 : 300) == 1; got++)
        recv(answers, b, sizeof(b), 0);
    EXPECT_EQ(2, got) << "one answer per receiver and request";
    tx.SendTo("DEVICE no-port-here\r\n", "224.1.2.4");
    tx.SendTo(std::string("SEARCH\r\nGUID: x\r\nClient: \x7f\x00", 22), "224.1.2.4");

    // A SEARCH on the group listing only .3: only .3 connects.
    tx.SendTo(tx.Search({"127.0.0.3"}), "224.1.2.4");
    std::string peer;
    ASSERT_TRUE(tx.Accept(&peer));
    EXPECT_EQ("127.0.0.3", peer);
    EXPECT_EQ("CHANNEL\r\nSyncPort: 5000\r\n\r\n", read_until(tx.conn));
    EXPECT_FALSE(tx.Accept(nullptr, 500)) << "an unlisted receiver connected";

    // Stopped reading, commands wait in the socket until reading resumes; a
    // dropped connection reads as end of stream; refusing, a SEARCH listing
    // it brings no connection; not answering, a DEVICE request no answer.
    rx3.SetStopReading(true);
    PAL_ThreadSleep(100);
    send_text(tx.conn, "VOLUME: 3\r\n\r\n");
    EXPECT_FALSE(rx3.WaitForCommand("VOLUME", 300));
    rx3.SetStopReading(false);
    EXPECT_TRUE(rx3.WaitForCommand("VOLUME", 3000));
    rx3.DropConnection();
    EXPECT_EQ("", read_until(tx.conn));
    EXPECT_TRUE(rx3.WaitForDisconnect(3000));
    rx3.SetRefuseConnect(true);
    rx3.SetAnswerDiscovery(false);
    tx.SendTo(tx.Search({"127.0.0.3"}), "127.0.0.3");  // unicast, to its own port
    EXPECT_FALSE(tx.Accept(nullptr, 500));
    tx.SendTo("DEVICE 127.0.0.1:9090\r\nGUID: g\r\nREQ_TS: 1\r\n", "127.0.0.3");
    EXPECT_EQ(0, rx_wait_readable(answers, 500));
    close(answers);

    ReceiverReport r2 = rx2.Report(), r3 = rx3.Report();
    EXPECT_EQ(1u, r2.deviceRequests);
    EXPECT_EQ(1u, r3.deviceRequests);
    EXPECT_EQ(0u, r2.searchesForMe);
    EXPECT_EQ(2u, r3.searchesForMe);
    EXPECT_EQ(1u, r3.connects);
    EXPECT_GE(r2.protocolErrors, 2u);  // the malformed DEVICE and SEARCH
}

TEST(ReceiverEmulator, StreamFaultsCountedPayloadsKeptAndHostileBytesSurvived) {
    ReceiverEmulator rx(config("127.0.0.2"));
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    tx.SendTo(tx.Search({"127.0.0.9", "127.0.0.2"}), "224.1.2.4");
    ASSERT_TRUE(tx.Accept(nullptr));
    read_until(tx.conn);
    // START and a setting command in one write: the receiver must split them.
    send_text(tx.conn, "START\r\nRef: 127.0.0.2:5000\r\nRole: Woofer\r\n\r\nVOLUME: 11\r\n\r\n");
    const std::string sdp = "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L16/44100/2\r\n";
    reply_to(tx.conn, "DESCRIBE ",
             "RTSP/1.0 200 OK\r\nCseq: %d\r\nContent-Type: application/sdp\r\nContent-Length: " +
                 std::to_string(sdp.size()) + "\r\n\r\n" + sdp + "DEVICETYPE: 4\r\n\r\n");
    const std::string ports =
        "client_port=" + std::to_string(rx.RtpPort()) + "-" + std::to_string(rx.RtpPort() + 1);
    std::string setup = reply_to(tx.conn, "SETUP ",
                                 "RTSP/1.0 200 OK\r\nCseq: %d\r\nTransport: RTP/AVP;unicast;" +
                                     ports + ";server_port=15000-15001\r\n\r\n");
    EXPECT_NE(std::string::npos, setup.find(ports)) << setup;
    // The PLAY reply arrives together with the commands the sender sends next.
    reply_to(tx.conn, "PLAY ",
             "RTSP/1.0 200 OK\r\nCseq: %d\r\n\r\nVOLUME: 9\r\n\r\nUITYPE: 3\r\n\r\n");
    ASSERT_TRUE(rx.WaitForHandshake(RX_HS_PLAYING, 3000));
    ASSERT_TRUE(rx.WaitForCommand("UITYPE", 3000));
    ReceiverReport r = rx.Report();
    EXPECT_EQ(0u, r.handshakeErrors) << (r.nErrors ? r.errors[0] : "");
    EXPECT_EQ(44100, r.sdpRate);
    EXPECT_EQ(16, r.sdpBits);
    std::vector<ReceiverCommand> cmds = rx.Commands();
    const char* order[] = {"START", "VOLUME", "DEVICETYPE", "VOLUME", "UITYPE"};
    ASSERT_EQ(5u, cmds.size());
    for (int i = 0; i < 5; i++) EXPECT_STREQ(order[i], cmds[i].keyword);
    EXPECT_EQ(11, cmds[1].value);

    // Every payload lands in memory, byte for byte, across the sequence's wrap.
    int sock = rx_udp_bind("127.0.0.1", 0);
    struct sockaddr_in to;
    rx_sockaddr("127.0.0.2", rx.RtpPort(), &to);
    for (unsigned int k = 0; k < 10; k++)
        send_rtp(sock, to, (65530 + k) & 0xFFFF, (unsigned char)(k + 1));
    ASSERT_TRUE(rx.WaitForPackets(10, 3000));
    std::vector<unsigned char> pcm = rx.Pcm();
    ASSERT_EQ(10u * 1400, pcm.size());
    for (unsigned int k = 0; k < 10; k++) EXPECT_EQ((unsigned char)(k + 13), pcm[k * 1400]);
    // Every fault in the stream is counted.
    send_rtp(sock, to, 7, 1);                      // 4, 5, 6 lost
    send_rtp(sock, to, 8, 0);                      // silent
    send_rtp(sock, to, 9, 1, 1000);                // short
    send_rtp(sock, to, 10, 1, 1412, 97);           // wrong payload type
    send_rtp(sock, to, 11, 1, 1412, 96, 0, 0xA0);  // padding bit: not version-2-plain
    send_rtp(sock, to, 8, 1);                      // repeated
    send_rtp(sock, to, 12, 1);
    send_rtp(sock, to, 13, 1, 1412, 96, 5);  // 5 ms off its place on the sender's clock
    close(sock);
    ASSERT_TRUE(rx.WaitForPackets(14, 3000));
    r = rx.Report();
    EXPECT_EQ(14u, r.packets);
    EXPECT_EQ(2u, r.seqGaps);  // 7 after 3, and 12 after 8 (9-11 were unusable)
    EXPECT_EQ(6u, r.lostPackets);
    EXPECT_EQ(1u, r.badLength);
    EXPECT_EQ(1u, r.badPayloadType);
    EXPECT_EQ(1u, r.badVersion);
    EXPECT_EQ(1u, r.outOfOrder);
    EXPECT_EQ(1u, r.silentPackets);
    EXPECT_EQ(1u, r.timestampErrors);
    EXPECT_EQ(13, r.lastSeq);
    // BYE is answered unless switched off.
    send_text(tx.conn, "BYE RTSP/1.0\r\n\r\n");
    EXPECT_NE(std::string::npos, read_until(tx.conn).find("BYE_ACK\r\n\r\n"));
    rx.SetAnswerBye(false);
    send_text(tx.conn, "BYE RTSP/1.0\r\n\r\n");
    EXPECT_EQ(0, rx_wait_readable(tx.conn, 300)) << "BYE answered although switched off";

    // Hostile bytes: text that starts like the real thing and goes wrong, on
    // every port and on the connection, then an endless message. The
    // receiver still answers, and its report stays bounded.
    unsigned int seed = 12345;
    auto garbage = [&seed](int i, size_t maxLen) {
        const char* heads[] = {"DEVICE ", "SEARCH\r\nGUID: ", "DEVICE 1.2.3.4:", "VOLUME: ", ""};
        std::string s = heads[i % 5];
        for (size_t k = (seed = seed * 1103515245u + 12345u) % maxLen; k > 0; k--)
            s += (char)((seed = seed * 1103515245u + 12345u) >> 16);
        return s;
    };
    for (int i = 0; i < 300; i++) {
        std::string d = garbage(i, 1500);
        tx.SendTo(d, i % 2 ? "224.1.2.4" : "127.0.0.2");
        tx.SendTo(d, "127.0.0.2", rx.RtpPort());
    }
    std::string bad =
        "RTSP/1.0 200 OK\r\nCseq: 99999999999999999999\r\nContent-Length: -5\r\n\r\n"
        "RTSP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\nshort";
    for (int i = 0; i < 200; i++) bad += garbage(i, 300) + "\r\n\r\n";
    bad += std::string(20000, 'A') + "\r\n\r\nALIVE\r\n\r\n";
    send(tx.conn, bad.data(), bad.size(), MSG_NOSIGNAL);
    EXPECT_NE(std::string::npos, read_until(tx.conn, "ALIVED\r\n\r\n").find("ALIVED\r\n\r\n"));
    r = rx.Report();
    EXPECT_GT(r.protocolErrors, 100u);
    EXPECT_GT(r.handshakeErrors, 0u);
    EXPECT_EQ(ReceiverReport::kMaxErrors, r.nErrors);
    for (int i = 0; i < r.nErrors; i++) EXPECT_LT(strlen(r.errors[i]), sizeof(r.errors[i]));
    std::string json = rx.ReportJson();
    EXPECT_EQ('{', json.front());
    EXPECT_EQ('}', json.back());

    close(tx.conn);  // the sender closing the connection is seen
    tx.conn = -1;
    EXPECT_TRUE(rx.WaitForDisconnect(3000));
}

TEST(ReceiverEmulator, ClockOffsetAndPlayoutMarginOnTheMasterClock) {
    ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          PAL_GetBootTimeUsec));
    ASSERT_EQ(0, TimeSyncInitiator_Start());
    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 1000000));
    ReceiverConfig cfg = config("127.0.0.2");
    cfg.timeSync = true;
    cfg.clockOffsetUs = -3217654321LL;
    ReceiverEmulator rx(cfg);
    ASSERT_EQ(0, rx.Start());
    ASSERT_TRUE(rx.WaitForClockSync(3000));
    PAL_ThreadSleep(300);  // a few more exchanges
    ReceiverReport r = rx.Report();
    EXPECT_LT(llabs(r.clockOffsetUs - 3217654321LL), 1000) << r.clockOffsetUs;

    // Packets stamped 400 ms ahead of the master clock arrive ~400 ms early.
    // The last one leaves 30 ms behind its place in the sequence's schedule.
    int sock = rx_udp_bind("127.0.0.1", 0);
    struct sockaddr_in to;
    rx_sockaddr("127.0.0.2", rx.RtpPort(), &to);
    for (unsigned int s = 1; s <= 10; s++) {
        unsigned char p[1412] = {0x80, 0xE0, 0, (unsigned char)s};
        unsigned int ts = TimeSyncInitiator_GetCurrentClock() + 400;
        for (int i = 0; i < 4; i++) p[4 + i] = (unsigned char)(ts >> (24 - 8 * i));
        sendto(sock, p, sizeof(p), 0, (struct sockaddr*)&to, sizeof(to));
        PAL_ThreadSleep(s == 9 ? 38 : 8);
    }
    close(sock);
    ASSERT_TRUE(rx.WaitForPackets(10, 3000));
    r = rx.Report();
    EXPECT_EQ(10u, r.marginCount);
    EXPECT_NEAR(400.0, r.marginMedianMs, 5.0);
    EXPECT_GT(r.marginMinMs, 350.0);
    EXPECT_GE(r.latenessMaxMs, 29.0);
    rx.Stop();
    TimeSyncInitiator_Delete();
}
