// Test harness for CAVStreamer: an event recorder, a scripted receiver that
// talks the control protocol over real loopback sockets (bound to its own
// 127.0.0.x address), and helpers to bring a streamer's server up without a
// content file. Header-only; used by the streamer tests.
#ifndef STREAMER_HARNESS_H
#define STREAMER_HARNESS_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AVStreamer.h"
#include "RxSocket.h"
#include "streamer_probe.h"

typedef CAVStreamerProbe Probe;

// One event as the streamer raised it; texts copied during the call.
struct StreamerEvent {
    int code;
    intptr_t a, b, c, d;
    std::string textA, textB;
};

class EventLog {
public:
    static void Notify(intptr_t parent, intptr_t code, intptr_t a, intptr_t b, intptr_t c,
                       intptr_t d) {
        EventLog* self = (EventLog*)parent;
        StreamerEvent e{(int)code, a, b, c, d, "", ""};
        if (code == AVMSG_RECEIVER_FOUND || code == AVMSG_RECEIVER_LEAVE ||
            code == AVMSG_RECEIVER_RESET) {
            e.textA = (const char*)a;
        }
        if (code == AVMSG_RECEIVER_FOUND || code == AVMSG_RECEIVER_VOLUMECHANGED)
            e.textB = (const char*)b;
        std::lock_guard<std::mutex> g(self->m_lock);
        self->m_events.push_back(e);
        self->m_cv.notify_all();
    }
    // Waits for the n-th (1-based) event of the code; false on time-out.
    bool WaitFor(int code, int n = 1, int timeoutMs = 10000, StreamerEvent* out = nullptr) {
        std::unique_lock<std::mutex> g(m_lock);
        return m_cv.wait_for(g, std::chrono::milliseconds(timeoutMs), [&] {
            int seen = 0;
            for (const StreamerEvent& e : m_events) {
                if (e.code == code && ++seen == n) {
                    if (out) *out = e;
                    return true;
                }
            }
            return false;
        });
    }
    int Count(int code) {
        std::lock_guard<std::mutex> g(m_lock);
        int n = 0;
        for (const StreamerEvent& e : m_events) n += e.code == code;
        return n;
    }
    std::vector<StreamerEvent> All() {
        std::lock_guard<std::mutex> g(m_lock);
        return m_events;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_cv;
    std::vector<StreamerEvent> m_events;
};

inline unsigned int NowMs() {
    return PAL_GetClock();
}

struct RxSpec {
    const char* ip;
    AV_CHANNEL_TYPE type;
    int volume;
};

// A listed receiver as the manager hands it over.
inline AV_RECEIVER MakeReceiver(const char* ip, AV_CHANNEL_TYPE type, int volume) {
    AV_RECEIVER r;
    memset(&r, 0, sizeof(r));
    snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "%s", ip);
    r.ChannelType = type;
    r._volume = volume;
    r.bActive = 1;
    return r;
}

// Fills the streamer's receiver table and music description (44.1 kHz
// 16-bit stereo) as init does, without a content file, and brings its
// control server up on the test's ports, multicast on the group.
inline int StartServer(CAVStreamer* s, const std::vector<RxSpec>& rx, unsigned short tcpPort,
                       unsigned short rtpPort, unsigned int searchAgoMs = 0) {
    AV_RECEIVER_INFO ri;
    memset(&ri, 0, sizeof(ri));
    for (size_t i = 0; i < rx.size(); i++)
        ri.AVReceiver[i] = MakeReceiver(rx[i].ip, rx[i].type, rx[i].volume);
    ri.nAVReceiverCnt = (char)rx.size();
    AV_MUSIC_INFO mi;
    memset(&mi, 0, sizeof(mi));
    snprintf(mi.pContentTitle, sizeof(mi.pContentTitle), "Test Song");
    snprintf(mi.pMime, sizeof(mi.pMime), "audio/x-wav");
    mi.SampleRate = 44100;
    mi.NumChannels = 2;
    mi.BytesPerSample = 2;
    Probe::Prepare(s, ri, mi);
    return Probe::OpenServer(s, tcpPort, rtpPort, 21234, searchAgoMs);
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
        Disconnect();
        if (m_rtp >= 0) close(m_rtp);
    }
    bool Connect(unsigned short port) {
        m_tcp = rx_tcp_connect(m_ip.c_str(), "127.0.0.1", port, 3000);
        return m_tcp >= 0;
    }
    void Disconnect() {
        if (m_tcp >= 0) close(m_tcp);
        m_tcp = -1;
    }
    bool Send(const std::string& text) {
        return m_tcp >= 0 &&
               send(m_tcp, text.data(), text.size(), MSG_NOSIGNAL) == (ssize_t)text.size();
    }
    // The next whole message from the sender ("\r\n\r\n"-terminated, plus a
    // Content-Length body), or "" on time-out / close.
    std::string Next(int timeoutMs = 5000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            size_t end = m_buf.find("\r\n\r\n");
            if (end != std::string::npos) {
                size_t len = end + 4;
                size_t cl = m_buf.find("Content-Length: ");
                if (cl != std::string::npos && cl < end) len += atoi(m_buf.c_str() + cl + 16);
                if (m_buf.size() >= len) {
                    std::string msg = m_buf.substr(0, len);
                    m_buf.erase(0, len);
                    return msg;
                }
            }
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(
                           deadline - std::chrono::steady_clock::now())
                           .count();
            if (left <= 0 || m_tcp < 0 || rx_wait_readable(m_tcp, left) != 1) return "";
            char tmp[4096];
            ssize_t n = recv(m_tcp, tmp, sizeof(tmp), 0);
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
        if (rx_wait_readable(m_tcp, timeoutMs) != 1) return false;
        char c;
        return recv(m_tcp, &c, 1, MSG_PEEK) == 0;
    }
    // Nothing arrives on the control connection within ms.
    bool Quiet(int ms) { return m_buf.empty() && rx_wait_readable(m_tcp, ms) == 0; }

    // The RTSP-like set-up up to PLAY; returns the texts received in order.
    std::vector<std::string> Handshake(unsigned short syncPort = 5000, bool channel = true) {
        std::vector<std::string> got;
        if (channel) {
            Send("CHANNEL\r\nSyncPort: " + std::to_string(syncPort) + "\r\n\r\n");
            got.push_back(Next());
        }
        Send("DESCRIBE rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 1\r\n\r\n");
        got.push_back(Next());
        Send(
            "SETUP rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 2\r\nTransport: "
            "RTP/AVP;unicast;client_port=" +
            std::to_string(m_rtpPort) + "-" + std::to_string(m_rtpPort + 1) + "\r\n\r\n");
        got.push_back(Next());
        Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 3\r\n\r\n");
        got.push_back(Next());
        got.push_back(Next());  // the volume that follows PLAY
        return got;
    }

    // One RTP datagram, or an empty vector on time-out.
    std::vector<unsigned char> Rtp(int timeoutMs = 3000) {
        std::vector<unsigned char> pkt(2048);
        if (rx_wait_readable(m_rtp, timeoutMs) != 1) return {};
        ssize_t n = recv(m_rtp, pkt.data(), pkt.size(), 0);
        pkt.resize(n > 0 ? (size_t)n : 0);
        return pkt;
    }

    std::string m_ip;
    int m_tcp = -1;
    int m_rtp = -1;
    unsigned short m_rtpPort = 0;
    std::string m_buf;
};

// Polls cond every 5 ms for up to timeoutMs.
template <typename F>
bool WaitUntil(F cond, int timeoutMs = 10000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

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
    void Open(const std::vector<RxSpec>& rx, unsigned int searchAgoMs = 0) {
        ASSERT_EQ(0, StartServer(st, rx, kTcpPort, kRtpPort, searchAgoMs));
        opened = true;
    }
    AV_RCV_SESS& Sess(int i) { return Probe::Sess(st, i); }
    // The server sets a state once its reply is written, so the peer may see
    // the reply first.
    bool StateBecomes(int i, int state) {
        return WaitUntil([&] { return Sess(i).ServerState == state; }, 3000);
    }
    // f() under session i's lock: the control thread writes these fields.
    template <typename F>
    auto Locked(int i, F f) {
        PAL_MutexLock(Sess(i)._lpmutex, 1);
        auto v = f();
        PAL_MutexUnLock(Sess(i)._lpmutex);
        return v;
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
