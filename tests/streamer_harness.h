// Test harness for CAVStreamer: an event recorder, a scripted receiver that
// talks the control protocol over real loopback sockets (bound to its own
// 127.0.0.x address), and a fixture that brings a streamer's control server
// up without a content file. Header-only; used by the streamer tests.
#ifndef STREAMER_HARNESS_H
#define STREAMER_HARNESS_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AVStreamer.h"
#include "RxSocket.h"
#include "streamer_probe.h"

typedef CAVStreamerProbe Probe;

// Polls cond every 5 ms for up to timeoutMs.
template <typename F>
bool WaitUntil(F cond, int timeoutMs = 10000) {
    const unsigned int start = PAL_GetClock();
    while (!cond()) {
        if (PAL_GetClock() - start > (unsigned int)timeoutMs) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// The streamer's events as lines, in order: the event's name, then its
// first two arguments, an address or a text where the event carries one
// ("Reset 127.0.0.3 0", "Leave 127.0.0.3 42", "Stop 42 1", "Progress 42 5",
// "Volume 12 127.0.0.3", "Found <address> <the JOIN text>").
class EventLog {
public:
    static void Notify(intptr_t parent, intptr_t code, intptr_t a, intptr_t b, intptr_t, intptr_t) {
        static const char* kNames[] = {"",      "Found",    "Died",   "Stop",  "Leave",
                                       "Reset", "Progress", "Master", "Volume"};
        const bool textA = code == AVMSG_RECEIVER_FOUND || code == AVMSG_RECEIVER_LEAVE ||
                           code == AVMSG_RECEIVER_RESET;
        const bool textB = code == AVMSG_RECEIVER_FOUND || code == AVMSG_RECEIVER_VOLUMECHANGED;
        const std::string line = std::string(kNames[code]) + " " +
                                 (textA ? (const char*)a : std::to_string(a)) + " " +
                                 (textB ? (const char*)b : std::to_string(b));
        EventLog* self = (EventLog*)parent;
        std::lock_guard<std::mutex> g(self->m_lock);
        self->m_lines.push_back(line);
    }
    // Waits until n lines start with prefix; false on time-out.
    bool WaitFor(const std::string& prefix, int n = 1, int timeoutMs = 10000) {
        return WaitUntil([&] { return Count(prefix) >= n; }, timeoutMs);
    }
    int Count(const std::string& prefix) {
        std::vector<std::string> all = All();
        return (int)std::count_if(all.begin(), all.end(), [&](const std::string& l) {
            return l.compare(0, prefix.size(), prefix) == 0;
        });
    }
    std::vector<std::string> All() {
        std::lock_guard<std::mutex> g(m_lock);
        return m_lines;
    }

private:
    std::mutex m_lock;
    std::vector<std::string> m_lines;
};

// A listed receiver as the manager hands it over.
inline AV_RECEIVER MakeReceiver(const char* ip, AV_CHANNEL_TYPE type, int volume) {
    AV_RECEIVER r = {{0}, type, 0, volume, 1, 0};
    snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "%s", ip);
    return r;
}

struct RxSpec {
    const char* ip;
    AV_CHANNEL_TYPE type;
    int volume;
};

// Fills the streamer's receiver table and music description (44.1 kHz
// 16-bit stereo) as init does, without a content file, and brings its
// control server up on the test's ports, multicast on the group.
inline int StartServer(CAVStreamer* s, const std::vector<RxSpec>& rx, unsigned short tcpPort,
                       unsigned short rtpPort) {
    AV_RECEIVER_INFO ri = {};
    for (size_t i = 0; i < rx.size(); i++)
        ri.AVReceiver[i] = MakeReceiver(rx[i].ip, rx[i].type, rx[i].volume);
    ri.nAVReceiverCnt = (char)rx.size();
    Probe::Prepare(s, ri, AV_MUSIC_INFO{"", "Test Song", "audio/x-wav", 2, 44100, 2});
    return Probe::OpenServer(s, tcpPort, rtpPort, 21234);
}

// A receiver played by the test: one control connection and one RTP socket,
// both from its own address.
class ScriptedReceiver {
public:
    explicit ScriptedReceiver(const char* ip) : m_ip(ip) {
        m_rtp = rx_udp_bind(ip, 0);
        m_rtpPort = rx_local_port(m_rtp);
    }
    ~ScriptedReceiver() {
        if (m_tcp >= 0) close(m_tcp);
        if (m_rtp >= 0) close(m_rtp);
    }
    bool Connect(unsigned short port) {
        m_tcp = rx_tcp_connect(m_ip.c_str(), "127.0.0.1", port, 3000);
        return m_tcp >= 0;
    }
    bool Send(const std::string& text) {
        return m_tcp >= 0 &&
               send(m_tcp, text.data(), text.size(), MSG_NOSIGNAL) == (ssize_t)text.size();
    }
    // The next whole message from the sender ("\r\n\r\n"-terminated, plus a
    // Content-Length body), or "" on time-out / close.
    std::string Next(int timeoutMs = 5000) {
        const unsigned int start = PAL_GetClock();
        for (;;) {
            const size_t end = m_buf.find("\r\n\r\n"), cl = m_buf.find("Content-Length: ");
            const size_t len = end == std::string::npos
                                   ? std::string::npos
                                   : end + 4 + (cl < end ? atoi(&m_buf[cl + 16]) : 0);
            if (m_buf.size() >= len) {
                const std::string msg = m_buf.substr(0, len);
                m_buf.erase(0, len);
                return msg;
            }
            const int left = timeoutMs - (int)(PAL_GetClock() - start);
            char tmp[4096];
            ssize_t n = 0;
            if (left > 0 && m_tcp >= 0 && rx_wait_readable(m_tcp, left) == 1)
                n = recv(m_tcp, tmp, sizeof(tmp), 0);
            if (n <= 0) return "";
            m_buf.append(tmp, (size_t)n);
        }
    }
    // Sends text and returns the next whole message.
    std::string Ask(const std::string& text) {
        Send(text);
        return Next();
    }
    // True when the sender closed the connection within timeoutMs.
    bool ClosedByPeer(int timeoutMs = 3000) {
        char c;
        return rx_wait_readable(m_tcp, timeoutMs) == 1 && recv(m_tcp, &c, 1, MSG_PEEK) == 0;
    }
    // Nothing arrives on the control connection within ms.
    bool Quiet(int ms) { return m_buf.empty() && rx_wait_readable(m_tcp, ms) == 0; }

    // The RTSP-like set-up up to PLAY; returns the texts received in order.
    std::vector<std::string> Handshake(unsigned short syncPort = 5000) {
        const std::string ports = std::to_string(m_rtpPort) + "-" + std::to_string(m_rtpPort + 1);
        std::vector<std::string> got = {
            Ask("CHANNEL\r\nSyncPort: " + std::to_string(syncPort) + "\r\n\r\n"),
            Ask("DESCRIBE rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 1\r\n\r\n"),
            Ask("SETUP rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 2\r\nTransport: "
                "RTP/AVP;unicast;client_port=" +
                ports + "\r\n\r\n"),
            Ask("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 3\r\n\r\n")};
        got.push_back(Next());  // the volume that follows PLAY
        return got;
    }

    // The size of the next RTP datagram, 0 on time-out.
    size_t Rtp(int timeoutMs = 3000) {
        char pkt[2048];
        const ssize_t n =
            rx_wait_readable(m_rtp, timeoutMs) == 1 ? recv(m_rtp, pkt, sizeof pkt, 0) : 0;
        return n > 0 ? (size_t)n : 0;
    }

    std::string m_ip;
    int m_tcp = -1;
    int m_rtp = -1;
    unsigned short m_rtpPort = 0;
    std::string m_buf;
};

// A streamer (group 42) whose control server the test brings up; its events
// are recorded and it is closed and deleted after the test.
class StreamerTest : public ::testing::Test {
public:
    static const unsigned short kTcpPort = 31554;
    static const unsigned short kRtpPort = 35000;

protected:
    void SetUp() override { st = new CAVStreamer(&EventLog::Notify, &events, 42); }
    void TearDown() override {
        if (opened) Probe::CloseServer(st);
        delete st;
    }
    void Open(const std::vector<RxSpec>& rx) {
        ASSERT_EQ(0, StartServer(st, rx, kTcpPort, kRtpPort));
        opened = true;
    }
    AV_RCV_SESS& Sess(int i) { return Probe::Sess(st, i); }
    // The server sets a state once its reply is written, so the peer may see
    // the reply first.
    bool StateBecomes(int i, int state) {
        return WaitUntil([&] { return Sess(i).ServerState == state; }, 3000);
    }

    // Scripted receivers connected one after the other, each waited for,
    // so that receivers sharing an address take their entries in order.
    std::vector<std::unique_ptr<ScriptedReceiver>> ConnectAll(const std::vector<const char*>& ips) {
        std::vector<std::unique_ptr<ScriptedReceiver>> rx;
        for (const char* ip : ips) {
            const int before = Probe::SessionCount(st);
            rx.emplace_back(new ScriptedReceiver(ip));
            EXPECT_TRUE(rx.back()->Connect(kTcpPort));
            EXPECT_TRUE(WaitUntil([&] { return Probe::SessionCount(st) == before + 1; }));
        }
        return rx;
    }

    CAVStreamer* st = nullptr;
    EventLog events;
    bool opened = false;
};

#endif
