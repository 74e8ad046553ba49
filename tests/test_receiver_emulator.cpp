// The receiver emulator against scripted peers on loopback: a test socket
// plays the sender's part (discovery requests, SEARCH, the control server,
// RTP) and the emulator's report must tell exactly what it saw.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "PAL_Clock.h"
#include "ReceiverEmulator.h"
#include "ReceiverProcess.h"
#include "RxSocket.h"
#include "TimeSyncInitiator.h"
#include "tool_path.h"

namespace {

// Reads from fd until the text holds an empty line (or time runs out).
std::string read_message(int fd, int timeoutMs = 3000) {
    std::string got;
    while (got.find("\r\n\r\n") == std::string::npos && rx_wait_readable(fd, timeoutMs) == 1) {
        char buf[2048];
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
        int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
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
    void SendTo(const std::string& msg, const char* addr, unsigned short toPort) {
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

const char* kSdpBody22k =
    "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L16/22050/2\r\ni=Song \xc3\xa9t\xc3\xa9\r\n";

std::string sdp_reply(int cseq, const char* body) {
    char head[160];
    snprintf(head, sizeof(head),
             "RTSP/1.0 200 OK\r\nCseq: %d\r\nContent-Type: application/sdp\r\nContent-Length: "
             "%d\r\n\r\n",
             cseq, (int)strlen(body));
    return std::string(head) + body;
}

int cseq_of(const std::string& req) {
    size_t p = req.find("CSeq: ");
    return p == std::string::npos ? -1 : atoi(req.c_str() + p + 6);
}

// Runs the whole handshake from the sender's side; the PLAY reply is given.
void run_handshake(ScriptedSender& tx, ReceiverEmulator& rx, const std::string& playReplyFmt) {
    tx.SendTo(tx.Search({"127.0.0.9", rx.Config().address}), "224.1.2.4", 1234);
    std::string peer;
    ASSERT_TRUE(tx.Accept(&peer));
    EXPECT_EQ(rx.Config().address, peer);
    std::string channel = read_message(tx.conn);
    EXPECT_EQ("CHANNEL\r\nSyncPort: 5000\r\n\r\n", channel);
    // START and a setting command in one write: the receiver must split them.
    send_text(tx.conn, "START\r\nRef: 127.0.0.2:5000\r\nRole: Woofer\r\n\r\nVOLUME: 11\r\n\r\n");
    std::string describe = read_message(tx.conn);
    ASSERT_EQ(0u, describe.find("DESCRIBE ")) << describe;
    send_text(tx.conn, sdp_reply(cseq_of(describe), kSdpBody22k) + "DEVICETYPE: 4\r\n\r\n");
    std::string setup = read_message(tx.conn);
    ASSERT_EQ(0u, setup.find("SETUP ")) << setup;
    char expectPorts[64];
    snprintf(expectPorts, sizeof(expectPorts), "client_port=%u-%u", rx.RtpPort(), rx.RtpPort() + 1);
    EXPECT_NE(std::string::npos, setup.find(expectPorts)) << setup;
    char reply[200];
    snprintf(reply, sizeof(reply),
             "RTSP/1.0 200 OK\r\nCseq: %d\r\nTransport: "
             "RTP/AVP;unicast;%s;server_port=15000-15001\r\n\r\n",
             cseq_of(setup), expectPorts);
    send_text(tx.conn, reply);
    std::string play = read_message(tx.conn);
    ASSERT_EQ(0u, play.find("PLAY ")) << play;
    snprintf(reply, sizeof(reply), playReplyFmt.c_str(), cseq_of(play));
    send_text(tx.conn, reply);
}

TEST(ReceiverEmulator, AnswersDiscoveryByteForByteAndOnlyTheListedOneConnects) {
    ReceiverConfig c2 = config("127.0.0.2"), c3 = config("127.0.0.3");
    snprintf(c3.name, sizeof(c3.name),
             "K\xc3\xbc"
             "che \xe2\x99\xab");  // UTF-8 name
    c3.master = 0;
    c3.volume = 12;
    ReceiverEmulator rx2(c2), rx3(c3);
    ASSERT_EQ(0, rx2.Start());
    ASSERT_EQ(0, rx3.Start());

    int answers = rx_udp_bind("127.0.0.1", 9090);
    ASSERT_GE(answers, 0);
    ScriptedSender tx;
    tx.SendTo("DEVICE 127.0.0.1:9090\r\nGUID: sender-guid\r\nREQ_TS: 42\r\n", "224.1.2.4", 1234);
    std::vector<std::string> got(2);
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(1, rx_wait_readable(answers, 3000));
        char buf[1500];
        struct sockaddr_in from;
        socklen_t len = sizeof(from);
        ssize_t n = recvfrom(answers, buf, sizeof(buf), 0, (struct sockaddr*)&from, &len);
        ASSERT_GT(n, 0);
        int idx = from.sin_addr.s_addr == inet_addr("127.0.0.2") ? 0 : 1;
        got[idx].assign(buf, (size_t)n);
    }
    EXPECT_EQ(0, rx_wait_readable(answers, 300)) << "one answer per receiver and request";
    EXPECT_EQ(
        "DEVICE\r\nMAC: 02:00:7f:00:00:02\r\nGUID: emulated-receiver-127-0-0-2\r\n"
        "NAME: Speaker 2\r\nMASTER: 1\r\nVOL: 7\r\n",
        got[0]);
    EXPECT_EQ(
        "DEVICE\r\nMAC: 02:00:7f:00:00:03\r\nGUID: emulated-receiver-127-0-0-3\r\n"
        "NAME: K\xc3\xbc"
        "che \xe2\x99\xab\r\nMASTER: 0\r\nVOL: 12\r\n",
        got[1]);
    close(answers);

    // A malformed request is reported, not answered; nobody crashes.
    tx.SendTo("DEVICE no-port-here\r\n", "224.1.2.4", 1234);
    tx.SendTo(std::string("SEARCH\r\nGUID: x\r\nClient: \x7f\x00", 22), "224.1.2.4", 1234);

    // SEARCH on the group listing only .3: only .3 connects.
    tx.SendTo(tx.Search({"127.0.0.3"}), "224.1.2.4", 1234);
    std::string peer;
    ASSERT_TRUE(tx.Accept(&peer));
    EXPECT_EQ("127.0.0.3", peer);
    EXPECT_EQ("CHANNEL\r\nSyncPort: 5000\r\n\r\n", read_message(tx.conn));
    EXPECT_FALSE(tx.Accept(nullptr, 500)) << "an unlisted receiver connected";
    // A unicast SEARCH to .2's own port 1234 reaches .2 alone.
    tx.SendTo(tx.Search({"127.0.0.2"}), "127.0.0.2", 1234);
    ASSERT_TRUE(tx.Accept(&peer));
    EXPECT_EQ("127.0.0.2", peer);

    ReceiverReport r2 = rx2.Report(), r3 = rx3.Report();
    EXPECT_EQ(1u, r2.deviceRequests);
    EXPECT_EQ(1u, r3.deviceRequests);
    EXPECT_EQ(1u, r3.searchesForMe);
    EXPECT_EQ(1u, r2.searchesForMe);
    EXPECT_EQ(1u, r3.connects);
    EXPECT_GE(r2.protocolErrors, 2u);  // the malformed DEVICE and SEARCH
}

TEST(ReceiverEmulator, HandshakeCoalescedCommandsAndReplies) {
    ReceiverEmulator rx(config("127.0.0.2"));
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    // The PLAY reply arrives together with the volume the sender sends next.
    run_handshake(tx, rx, "RTSP/1.0 200 OK\r\nCseq: %d\r\n\r\nVOLUME: 9\r\n\r\nUITYPE: 3\r\n\r\n");
    ASSERT_TRUE(rx.WaitForHandshake(RX_HS_PLAYING, 3000));
    ASSERT_TRUE(rx.WaitForCommand("UITYPE", 3000));
    ReceiverReport r = rx.Report();
    EXPECT_EQ(0u, r.handshakeErrors) << (r.nErrors ? r.errors[0] : "");
    EXPECT_EQ(22050, r.sdpRate);
    EXPECT_EQ(16, r.sdpBits);
    EXPECT_STREQ("Song \xc3\xa9t\xc3\xa9", r.sdpTitle);
    EXPECT_STREQ("Woofer", r.startRole);
    EXPECT_STREQ("127.0.0.2:5000", r.startRef);
    EXPECT_EQ(9, r.volume);
    EXPECT_EQ(4, r.deviceType);
    EXPECT_EQ(3, r.uiType);
    std::vector<ReceiverCommand> cmds = rx.Commands();
    const char* order[] = {"START", "VOLUME", "DEVICETYPE", "VOLUME", "UITYPE"};
    ASSERT_EQ(5u, cmds.size());
    for (int i = 0; i < 5; i++) EXPECT_STREQ(order[i], cmds[i].keyword);
    EXPECT_EQ(11, cmds[1].value);
    EXPECT_LE(cmds[0].localUs, cmds[4].localUs);

    // Commands that want an answer, several in one read.
    send_text(tx.conn, "ALIVE\r\n\r\nCLOCK RTSP/1.0\r\n\r\nBYE RTSP/1.0\r\n\r\n");
    std::string answers;
    while (answers.find("BYE_ACK") == std::string::npos && rx_wait_readable(tx.conn, 3000) == 1) {
        char buf[256];
        ssize_t n = recv(tx.conn, buf, sizeof(buf), 0);
        if (n <= 0) break;
        answers.append(buf, (size_t)n);
    }
    size_t alived = answers.find("ALIVED\r\n\r\n"), clock = answers.find("Clock: "),
           bye = answers.find("BYE_ACK\r\n\r\n");
    ASSERT_NE(std::string::npos, alived) << answers;
    ASSERT_NE(std::string::npos, clock) << answers;
    ASSERT_NE(std::string::npos, bye) << answers;
    EXPECT_LT(alived, clock);
    EXPECT_LT(clock, bye);

    // Faults: BYE unanswered; garbage is reported; SEEK, PAUSE, RESUME, QUIT_SENDER recorded.
    rx.SetAnswerBye(false);
    send_text(tx.conn, "BYE RTSP/1.0\r\n\r\n");
    send_text(tx.conn,
              "FROBNICATE\r\n\r\nVOLUME: "
              "loud\r\n\r\nSEEK\r\n\r\nPAUSE\r\n\r\nRESUME\r\n\r\nQUIT_SENDER\r\n\r\n");
    ASSERT_TRUE(rx.WaitForCommand("QUIT_SENDER", 3000));
    EXPECT_EQ(0, rx_wait_readable(tx.conn, 300)) << "BYE answered although switched off";
    r = rx.Report();
    EXPECT_EQ(2u, r.protocolErrors);
    EXPECT_EQ(15u, r.commands);

    // The sender closing the connection is seen.
    close(tx.conn);
    tx.conn = -1;
    EXPECT_TRUE(rx.WaitForDisconnect(3000));
}

TEST(ReceiverEmulator, ReplyWithoutCseqIsAHandshakeError) {
    ReceiverEmulator rx(config("127.0.0.4"));
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    run_handshake(tx, rx, "RTSP/1.0 200 OK\r\n\r\n%d");  // no Cseq: header at all
    // The "%d" tail has no empty line after it and is never a message.
    ASSERT_TRUE(rx.WaitForHandshake(RX_HS_PLAYING, 3000));
    ReceiverReport r = rx.Report();
    EXPECT_EQ(1u, r.handshakeErrors);
    ASSERT_EQ(1, r.nErrors);
    EXPECT_NE(nullptr, strstr(r.errors[0], "PLAY reply without \"Cseq: \"")) << r.errors[0];
}

TEST(ReceiverEmulator, SilentSenderIsAHandshakeErrorAfterTheTimeout) {
    ReceiverEmulator rx(config("127.0.0.5"));
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    tx.SendTo(tx.Search({"127.0.0.5"}), "224.1.2.4", 1234);
    ASSERT_TRUE(tx.Accept(nullptr));
    read_message(tx.conn);
    send_text(tx.conn, "START\r\nRef: :0\r\nRole: Sideways\r\n\r\n");  // unknown role
    read_message(tx.conn);                                             // DESCRIBE, never answered
    for (int i = 0; i < 60 && rx.Report().handshakeErrors < 2; i++) PAL_ThreadSleep(50);
    ReceiverReport r = rx.Report();
    EXPECT_EQ(2u, r.handshakeErrors);
    EXPECT_EQ(RX_HS_WAIT_SDP, r.handshake);
}

// Reads one datagram from a group listener.
std::string next_datagram(int sock, std::string* from = nullptr) {
    if (rx_wait_readable(sock, 3000) != 1) return "";
    char buf[1500];
    struct sockaddr_in sa;
    socklen_t len = sizeof(sa);
    ssize_t n = recvfrom(sock, buf, sizeof(buf), 0, (struct sockaddr*)&sa, &len);
    if (from) *from = inet_ntoa(sa.sin_addr);
    return n > 0 ? std::string(buf, (size_t)n) : "";
}

TEST(ReceiverEmulator, AnnouncementsRequestsAndFaultSwitches) {
    int group = rx_udp_group("224.1.2.4", 1234, "127.0.0.1");
    ASSERT_GE(group, 0);
    ReceiverEmulator rx(config("127.0.0.6"));
    ASSERT_EQ(0, rx.Start());
    const std::string id = "MAC: 02:00:7f:00:00:06\r\nGUID: emulated-receiver-127-0-0-6\r\n";
    EXPECT_EQ(555u, rx.SendJoin(555, 2));
    std::string from;
    for (int i = 0; i < 2; i++) {  // retries repeat the same REQ_TS
        EXPECT_EQ("JOIN 127.0.0.6\r\n" + id + "NAME: Speaker 6\r\nVOL: 7\r\nREQ_TS: 555\r\n\r\n",
                  next_datagram(group, &from));
        EXPECT_EQ("127.0.0.6", from);
    }
    unsigned int ts = rx.SendJoin();
    EXPECT_GT(ts, 555u);
    EXPECT_NE(std::string::npos,
              next_datagram(group).find("REQ_TS: " + std::to_string(ts) + "\r\n"));
    ASSERT_EQ(0, rx.SendExit());
    EXPECT_EQ("EXIT 127.0.0.6\r\n" + id + "\r\n", next_datagram(group));

    // Requests on the connection; LEAVE carries the last JOIN's REQ_TS.
    EXPECT_EQ(-1, rx.SendAlived()) << "no connection yet";
    ScriptedSender tx;
    tx.SendTo(tx.Search({"127.0.0.6"}), "224.1.2.4", 1234);
    ASSERT_TRUE(tx.Accept(nullptr));
    read_message(tx.conn);
    ASSERT_EQ(0, rx.SendLeave());
    ASSERT_EQ(0, rx.SendTeardown());
    ASSERT_EQ(0, rx.SendVolumeChanged(4));
    ASSERT_EQ(0, rx.SendAlived());
    std::string want = "LEAVE\r\nREQ_TS: " + std::to_string(ts) +
                       "\r\n\r\nTEARDOWN RTSP/1.0\r\n\r\nVOLUME_CHANGED 4\r\n\r\nALIVED\r\n\r\n";
    std::string got;
    while (got.size() < want.size() && rx_wait_readable(tx.conn, 3000) == 1) {
        char buf[512];
        ssize_t n = recv(tx.conn, buf, sizeof(buf), 0);
        if (n <= 0) break;
        got.append(buf, (size_t)n);
    }
    EXPECT_EQ(want, got);

    // Stopped reading: commands wait in the socket until reading resumes.
    rx.SetStopReading(true);
    PAL_ThreadSleep(100);
    send_text(tx.conn, "VOLUME: 3\r\n\r\n");
    EXPECT_FALSE(rx.WaitForCommand("VOLUME", 300));
    rx.SetStopReading(false);
    EXPECT_TRUE(rx.WaitForCommand("VOLUME", 3000));

    // Dropped connection: the sender reads end of stream.
    rx.DropConnection();
    ASSERT_EQ(1, rx_wait_readable(tx.conn, 3000));
    char c;
    EXPECT_EQ(0, recv(tx.conn, &c, 1, 0));
    EXPECT_TRUE(rx.WaitForDisconnect(3000));

    // Refusing: a new SEARCH listing it brings no connection; no discovery answer either.
    rx.SetRefuseConnect(true);
    rx.SetAnswerDiscovery(false);
    tx.SendTo(tx.Search({"127.0.0.6"}), "224.1.2.4", 1234);
    EXPECT_FALSE(tx.Accept(nullptr, 500));
    int answers = rx_udp_bind("127.0.0.1", 9091);
    tx.SendTo("DEVICE 127.0.0.1:9091\r\nGUID: g\r\nREQ_TS: 1\r\n", "224.1.2.4", 1234);
    EXPECT_EQ(0, rx_wait_readable(answers, 500));
    close(answers);
    close(group);
    EXPECT_EQ(2u, rx.Report().searchesForMe);
}

TEST(ReceiverEmulator, HostileBytesAreReportedNeverFatal) {
    ReceiverEmulator rx(config("127.0.0.7"));
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    unsigned int seed = 12345;
    auto rnd = [&seed]() { return (seed = seed * 1103515245u + 12345u) >> 16; };
    // Datagrams that start like the real ones and go wrong, plus noise.
    const char* prefixes[] = {"DEVICE ", "SEARCH\r\n", "SEARCH\r\nGUID: ", "DEVICE 1.2.3.4:", ""};
    for (int i = 0; i < 300; i++) {
        std::string d = prefixes[i % 5];
        size_t len = rnd() % 1500;
        for (size_t k = 0; k < len; k++) d += (char)rnd();
        tx.SendTo(d, i % 2 ? "224.1.2.4" : "127.0.0.7", 1234);
        tx.SendTo(d, "127.0.0.7", rx.RtpPort());
    }
    // A connection fed with broken replies, commands and an endless message.
    // The noise may have filled the socket: send SEARCH 8 times as senders do.
    std::string search = tx.Search({"127.0.0.7"});
    for (int i = 0; i < 8; i++) {
        tx.SendTo(search, "224.1.2.4", 1234);
        PAL_ThreadSleep(40);
    }
    ASSERT_TRUE(tx.Accept(nullptr));
    read_message(tx.conn);
    send_text(tx.conn, "START\r\nRef: \r\nRole: \r\n\r\n");
    read_message(tx.conn);
    send_text(tx.conn,
              "RTSP/1.0 200 OK\r\nCseq: 99999999999999999999\r\nContent-Length: -5\r\n\r\n");
    send_text(tx.conn, "RTSP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\nshort");
    for (int i = 0; i < 200; i++) {
        std::string m = i % 3 ? "VOLUME: " : "";
        size_t len = rnd() % 300;
        for (size_t k = 0; k < len; k++) m += (char)rnd();
        m += "\r\n\r\n";
        send(tx.conn, m.data(), m.size(), MSG_NOSIGNAL);
    }
    std::string endless(20000, 'A');
    send(tx.conn, endless.data(), endless.size(), MSG_NOSIGNAL);
    send_text(tx.conn, "\r\n\r\nALIVE\r\n\r\n");
    // Still alive and still answering.
    std::string answer;
    while (answer.find("ALIVED") == std::string::npos && rx_wait_readable(tx.conn, 3000) == 1) {
        char buf[4096];
        ssize_t n = recv(tx.conn, buf, sizeof(buf), 0);
        if (n <= 0) break;
        answer.append(buf, (size_t)n);
    }
    EXPECT_NE(std::string::npos, answer.find("ALIVED\r\n\r\n"));
    ReceiverReport r = rx.Report();
    EXPECT_GT(r.protocolErrors, 100u);
    EXPECT_GT(r.handshakeErrors, 0u);
    EXPECT_GT(r.badLength + r.badVersion + r.badPayloadType, 0u);
    EXPECT_EQ(ReceiverReport::kMaxErrors, r.nErrors);
    for (int i = 0; i < r.nErrors; i++) EXPECT_LT(strlen(r.errors[i]), sizeof(r.errors[i]));
    std::string json = rx.ReportJson();
    EXPECT_EQ('{', json.front());
    EXPECT_EQ('}', json.back());
}

// RTP from the test straight to the emulator's client port.
class RtpSource {
public:
    explicit RtpSource(unsigned short port) : sock(rx_udp_bind("127.0.0.1", 0)) {
        rx_sockaddr("127.0.0.2", port, &to);
    }
    ~RtpSource() { close(sock); }
    // ts follows the sequence at 44.1 kHz 16-bit stereo unless given.
    void Send(unsigned int seq, unsigned char fill, size_t len = 1412, int pt = 96, int tsSkew = 0,
              unsigned char first = 0x80) {
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
    int sock;
    struct sockaddr_in to;
};

TEST(ReceiverEmulator, RtpChecksCatchGapsWrongLengthAndPayloadType) {
    ReceiverEmulator rx(config("127.0.0.2"));
    ASSERT_EQ(0, rx.Start());
    RtpSource src(rx.RtpPort());
    for (unsigned int s = 65530; s != 4; s = (s + 1) & 0xFFFF) src.Send(s, 1);  // wraps cleanly
    src.Send(7, 1);                                                             // 4, 5, 6 lost
    src.Send(8, 0);                                                             // silent
    src.Send(9, 1, 1000);                                                       // short
    src.Send(10, 1, 1412, 97);           // wrong payload type
    src.Send(11, 1, 1412, 96, 0, 0xA0);  // padding bit set: not version-2-plain
    src.Send(8, 1);                      // repeated
    src.Send(12, 1);
    src.Send(13, 1, 1412, 96, 5);  // 5 ms off its place on the sender's clock
    ASSERT_TRUE(rx.WaitForPackets(14, 3000));
    ReceiverReport r = rx.Report();
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
}

TEST(ReceiverEmulator, WavFileIsValidAndHoldsThePayloads) {
    char path[] = "/tmp/rx-wav-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ReceiverConfig cfg = config("127.0.0.2");
    rx_copy_text(cfg.wavPath, sizeof(cfg.wavPath), path);
    ReceiverEmulator rx(cfg);
    ASSERT_EQ(0, rx.Start());
    ScriptedSender tx;
    run_handshake(tx, rx, "RTSP/1.0 200 OK\r\nCseq: %d\r\n\r\n");  // announces 22050 Hz
    ASSERT_TRUE(rx.WaitForHandshake(RX_HS_PLAYING, 3000));
    RtpSource src(rx.RtpPort());
    for (unsigned int s = 1; s <= 20; s++) src.Send(s, (unsigned char)s);
    ASSERT_TRUE(rx.WaitForPackets(20, 3000));
    std::vector<unsigned char> pcm = rx.Pcm();
    ASSERT_EQ(20u * 1400, pcm.size());
    for (unsigned int s = 1; s <= 20; s++) EXPECT_EQ((unsigned char)(s + 12), pcm[(s - 1) * 1400]);
    rx.Stop();

    FILE* f = fopen(path, "rb");
    ASSERT_NE(nullptr, f);
    std::vector<unsigned char> file(44 + pcm.size() + 1);
    size_t n = fread(file.data(), 1, file.size(), f);
    fclose(f);
    unlink(path);
    ASSERT_EQ(44 + pcm.size(), n);
    auto le = [&](int off, int bytes) {
        unsigned int v = 0;
        for (int i = bytes - 1; i >= 0; i--) v = v << 8 | file[off + i];
        return v;
    };
    EXPECT_EQ(0, memcmp(file.data(), "RIFF", 4));
    EXPECT_EQ(36 + pcm.size(), le(4, 4));
    EXPECT_EQ(0, memcmp(file.data() + 8, "WAVEfmt ", 8));
    EXPECT_EQ(16u, le(16, 4));
    EXPECT_EQ(1u, le(20, 2));  // PCM
    EXPECT_EQ(2u, le(22, 2));  // channels
    EXPECT_EQ(22050u, le(24, 4));
    EXPECT_EQ(22050u * 4, le(28, 4));
    EXPECT_EQ(4u, le(32, 2));
    EXPECT_EQ(16u, le(34, 2));
    EXPECT_EQ(0, memcmp(file.data() + 36, "data", 4));
    EXPECT_EQ(pcm.size(), le(40, 4));
    EXPECT_EQ(0, memcmp(file.data() + 44, pcm.data(), pcm.size()));
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
    EXPECT_TRUE(r.clockSynced);
    EXPECT_LT(llabs(r.clockOffsetUs - 3217654321LL), 1000) << r.clockOffsetUs;

    // Packets stamped 400 ms ahead of the master clock arrive ~400 ms early.
    // The last one leaves 30 ms behind its place in the sequence's schedule.
    int sock = rx_udp_bind("127.0.0.1", 0);
    struct sockaddr_in to;
    rx_sockaddr("127.0.0.2", rx.RtpPort(), &to);
    for (unsigned int s = 1; s <= 10; s++) {
        unsigned char p[1412] = {0x80, 0xE0};
        p[2] = 0;
        p[3] = (unsigned char)s;
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
    EXPECT_LE(r.marginMinMs, r.marginMedianMs);
    EXPECT_GT(r.marginMinMs, 350.0);
    EXPECT_GE(r.latenessMaxMs, 29.0);
    EXPECT_LE(r.latenessMedianMs, r.latenessP99Ms);
    EXPECT_LE(r.latenessP99Ms, r.latenessMaxMs);
    rx.Stop();
    TimeSyncInitiator_Delete();
}

}  // namespace

namespace {

std::string run_output(const std::string& cmd, int* status) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    *status = pclose(p);
    return out;
}

TEST(ReceiverCommand, HelpBadOptionsAndAJsonReportAsAChildProcess) {
    std::string cmd = tool_path("sonvara-receiver");
    ASSERT_EQ(0, access(cmd.c_str(), X_OK)) << cmd << " is missing: build the whole tree";
    int status = -1;
    std::string help = run_output(cmd + " --help", &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, help.find("--address"));
    EXPECT_NE(std::string::npos, help.find("scripts/netns-run"));
    run_output(cmd + " --address 127.0.0.2 --volume loud 2>/dev/null", &status);
    EXPECT_EQ(2, WEXITSTATUS(status));
    run_output(cmd + " --name x 2>/dev/null", &status);  // no address
    EXPECT_EQ(2, WEXITSTATUS(status));

    // A real run (we are inside the test namespace): it answers discovery
    // and reports it.
    int answers = rx_udp_bind("127.0.0.1", 9092);
    ASSERT_GE(answers, 0);
    FILE* p = popen((cmd + " --address 127.0.0.8 --name Den --duration 2 --quiet").c_str(), "r");
    ASSERT_NE(nullptr, p);
    ScriptedSender tx;
    std::string answer;
    for (int i = 0; i < 40 && answer.empty(); i++) {  // until the child listens
        tx.SendTo("DEVICE 127.0.0.1:9092\r\nGUID: g\r\nREQ_TS: 9\r\n", "127.0.0.8", 1234);
        if (rx_wait_readable(answers, 100) == 1) answer = next_datagram(answers);
    }
    EXPECT_NE(std::string::npos, answer.find("NAME: Den\r\n"));
    std::string json;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) json.append(buf, n);
    EXPECT_EQ(0, pclose(p));
    close(answers);
    EXPECT_EQ(0u, json.find("{\"address\":\"127.0.0.8\",\"name\":\"Den\""));
    EXPECT_NE(std::string::npos, json.find("\"device_requests\":"));
    EXPECT_EQ(std::string::npos, json.find("\"device_requests\":0,"));
}

}  // namespace
