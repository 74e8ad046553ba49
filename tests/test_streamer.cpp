// The streamer through its own operations, against receivers on loopback.
// Scripted receivers (the control protocol played by the test, each from its
// own 127.0.0.x address): the control handshake byte for byte, hostile
// requests, the commands the streamer sends (settings, playback, the search
// and join invitations), when the stream starts and who is dropped, session
// release, the channel filters, and a close racing a receiver's exit.
// Receiver emulators with real WAV / MP3 content: a streamer's whole life
// (init, open, search, play, seek, pause, join, leave, close), what every
// role gets, the failures of init and open, and lives that leave nothing
// behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "AVStreamer.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"
#include "audio_check.h"
#include "position_wav.h"
#include "streamer_probe.h"

typedef CAVStreamerProbe Probe;
const unsigned short kTcpPort = 31554, kRtpPort = 35000, kGroupPort = 21234;
const char* kUrl = "224.1.2.4:21234";

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
inline int StartServer(CAVStreamer* s, const std::vector<RxSpec>& rx) {
    AV_RECEIVER_INFO ri = {};
    for (size_t i = 0; i < rx.size(); i++)
        ri.AVReceiver[i] = MakeReceiver(rx[i].ip, rx[i].type, rx[i].volume);
    ri.nAVReceiverCnt = (char)rx.size();
    Probe::Prepare(s, ri, AV_MUSIC_INFO{"", "Test Song", "audio/x-wav", 2, 44100, 2});
    return Probe::OpenServer(s, kTcpPort, kRtpPort, kGroupPort);
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
class StreamerCore : public ::testing::Test {
protected:
    void SetUp() override { st = new CAVStreamer(&EventLog::Notify, &events, 42); }
    void TearDown() override {
        if (opened) Probe::CloseServer(st);
        delete st;
    }
    void Open(const std::vector<RxSpec>& rx) {
        ASSERT_EQ(0, StartServer(st, rx));
        opened = true;
    }
    AV_RCV_SESS& Sess(int i) { return Probe::Sess(st, i); }
    AV_RECEIVER& Entry(int i) { return Probe::Receivers(st).AVReceiver[i]; }
    // The bound of the used entries, the connected sessions, the listed
    // receivers.
    std::tuple<int, int, int> Counts() {
        return std::make_tuple(Probe::MaxIdx(st), Probe::SessionCount(st),
                               Probe::ReceiverCount(st));
    }
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

namespace {

// A datagram to the streamer's multicast group from a receiver's address.
void SendToGroup(const char* from, const std::string& text) {
    int fd = rx_udp_bind(from, 0);
    struct sockaddr_in sa;
    rx_sockaddr("224.1.2.4", kGroupPort, &sa);
    sendto(fd, text.data(), text.size(), 0, (struct sockaddr*)&sa, sizeof(sa));
    close(fd);
}

// All datagrams that arrive on fd within ms; fd is closed.
std::vector<std::string> Datagrams(int fd, int ms) {
    std::vector<std::string> got;
    const unsigned int end = PAL_GetClock() + ms;
    char buf[2048];
    ssize_t n;
    while ((int)(end - PAL_GetClock()) > 0 &&
           rx_wait_readable(fd, (int)(end - PAL_GetClock())) == 1)
        if ((n = recv(fd, buf, sizeof(buf), 0)) > 0) got.emplace_back(buf, (size_t)n);
    close(fd);
    return got;
}

std::string Addr4(const char* ip) {
    in_addr_t a = inet_addr(ip);
    return std::string((const char*)&a, 4);
}

std::string Sdp(int cseq) {
    const std::string body =
        "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L16/44100/2\r\ni=Test Song\r\n";
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) +
           "\r\nContent-Type: application/sdp\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

// The SETUP reply for the client ports as the server read them.
std::string SetupReply(int cseq, const std::string& ports) {
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) +
           "\r\nTransport: RTP/AVP;unicast;client_port=" + ports +
           ";server_port=35000-35001\r\n\r\n";
}

std::string Start(const char* ref, const char* role) {
    return "START\r\nRef: " + std::string(ref) + "\r\nRole: " + role + "\r\n\r\n";
}

std::string Ok(int cseq) {
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) + "\r\n\r\n";
}

}  // namespace

TEST_F(StreamerCore, ReleaseShrinksTopOnlyAndHandsOverReference) {
    // Entries 0 and 3 share an address; 2, 4, 5 and 7 connect, 7 first.
    const char* ips[8] = {"127.0.0.50", "127.0.0.11", "127.0.0.12", "127.0.0.50",
                          "127.0.0.14", "127.0.0.15", "127.0.0.16", "127.0.0.17"};
    std::vector<RxSpec> listed;
    for (const char* ip : ips) listed.push_back({ip, AV_CHANNEL_FRONT_LEFT, 5});
    Open(listed);
    std::vector<std::unique_ptr<ScriptedReceiver>> rx =
        ConnectAll({ips[7], ips[2], ips[4], ips[5]});
    for (auto& r : rx)
        EXPECT_EQ(Start("127.0.0.17:5000", "Front_Left"),
                  r->Ask("CHANNEL\r\nSyncPort: 5000\r\n\r\n"));
    ASSERT_TRUE(st->ReceiverMediaWrite(5, (char*)"abcd", 4));
    EXPECT_EQ(1, st->ReceiverRelease(5));
    // Its queue emptied and kept for reuse; released once only.
    EXPECT_EQ(std::make_tuple(false, false, 0u, 0),
              std::make_tuple((bool)Sess(5).bActive, (bool)Sess(5).bIsPlayable,
                              Pal_RingBufUsed(Sess(5).pFD), (int)Entry(5).bActive));
    EXPECT_TRUE(rx[3]->ClosedByPeer());
    EXPECT_EQ(1, st->ReceiverRelease(5));
    EXPECT_EQ(std::make_tuple(8, 3, 7), Counts());

    EXPECT_EQ(1, st->ReceiverRelease(7));
    EXPECT_EQ(7, Probe::MaxIdx(st));
    EXPECT_EQ(std::make_tuple(false, true, false),
              std::make_tuple((bool)Sess(7).bRefRcv, (bool)Sess(2).bRefRcv, (bool)Sess(4).bRefRcv));

    // Receivers that never connected: a connected address is kept, a twice
    // listed one loses its lowest entry only, the top entry shrinks the bound.
    EXPECT_EQ(std::vector<int>({0, 1, 1, 0, 0}),
              std::vector<int>({st->ResetAcceptWaitReceiverInfo("127.0.0.12"),
                                st->ResetAcceptWaitReceiverInfo("127.0.0.50"),
                                st->ResetAcceptWaitReceiverInfo("127.0.0.16"),
                                st->ResetAcceptWaitReceiverInfo("127.0.0.99"),
                                st->ResetAcceptWaitReceiverInfo(nullptr)}));
    EXPECT_EQ(std::make_tuple(0, 1), std::make_tuple((int)Entry(0).bActive, (int)Entry(3).bActive));
    EXPECT_EQ(std::make_tuple(6, 2, 4), Counts());

    // Every release lowers the ready count: once all are gone, the next
    // CHANNEL report counts as the first and names itself.
    st->ReceiverRelease(2);
    st->ReceiverRelease(4);
    ScriptedReceiver next("127.0.0.11");
    ASSERT_TRUE(next.Connect(kTcpPort));
    EXPECT_EQ(Start("127.0.0.11:5001", "Front_Left"),
              next.Ask("CHANNEL\r\nSyncPort: 5001\r\n\r\n"));
    EXPECT_TRUE(Sess(1).bRefRcv);
}

TEST_F(StreamerCore, HandshakeIsExactHostileRequestsDisturbNobodyAndLeavesAreGuarded) {
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 7}, {"127.0.0.3", AV_CHANNEL_WOOFER, 9}});
    ScriptedReceiver r1("127.0.0.2"), r2("127.0.0.3"), stranger("127.0.0.9");
    ASSERT_TRUE(stranger.Connect(kTcpPort));
    EXPECT_TRUE(stranger.ClosedByPeer());
    ASSERT_TRUE(r1.Connect(kTcpPort));
    ASSERT_TRUE(WaitUntil([&] { return Sess(0).bActive.load(); }));
    ScriptedReceiver twice("127.0.0.2");  // must not take over its own live session
    ASSERT_TRUE(twice.Connect(kTcpPort));
    EXPECT_TRUE(twice.ClosedByPeer());
    std::string junk(1023, 'x');
    for (size_t i = 0; i < junk.size(); i++) junk[i] = (char)(1 + (i * 131) % 250);
    r1.Send(junk);
    r1.Send(std::string(3000, 'A'));  // longer than one read
    EXPECT_TRUE(r1.Quiet(300));

    const std::string ports = std::to_string(r1.m_rtpPort) + "-" + std::to_string(r1.m_rtpPort + 1);
    EXPECT_EQ(std::vector<std::string>({Start("127.0.0.2:5000", "Front_Left"), Sdp(1),
                                        SetupReply(2, ports), Ok(3), "VOLUME: 7\r\n\r\n"}),
              r1.Handshake(5000));
    EXPECT_EQ(AV_STREAMER_STATE_PLAY, Sess(0).ServerState);
    EXPECT_TRUE(Sess(0).bIsPlayable);
    // CSeq and ports cut to 16 bits like the receivers' own.
    EXPECT_EQ(Sdp(70000 & 0xFFFF), r1.Ask("DESCRIBE\r\nCSeq: 70000\r\n\r\n"));
    EXPECT_EQ(0u, r1.Ask("DESCRIBE\r\nCSeq: 99999999999999999999999999\r\n\r\n")
                      .find("RTSP/1.0 200 OK\r\nCseq: 65535\r\n"));
    EXPECT_EQ(SetupReply(2, "34463-0"),
              r1.Ask("SETUP\r\nCSeq: 2\r\nTransport: client_port=99999-\r\n\r\n"));
    EXPECT_EQ(SetupReply(3, "0-0"), r1.Ask("SETUP\r\nCSeq: 3\r\nTransport: client_port=\r\n\r\n"));
    r1.Send("VOLUME_CHANGED\r\n\r\n");
    EXPECT_TRUE(events.WaitFor("Volume", 1, 5000));
    const std::string join = "JOIN " + std::string(100, '7') + "\r\nREQ_TS: 1\r\n\r\n";
    SendToGroup("127.0.0.5", join);
    EXPECT_TRUE(events.WaitFor("Found", 1, 5000));
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(2000, 'n'));
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(300, 'n') + "\r\n\r\n");
    SendToGroup("127.0.0.5", std::string(1500, 'J'));

    // The second to report CHANNEL is told about the first.
    ASSERT_TRUE(r2.Connect(kTcpPort));
    EXPECT_EQ(Start("127.0.0.2:5000", "Woofer"), r2.Ask("CHANNEL\r\nSyncPort: 6000\r\n\r\n"));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_START));

    // Keyword precedence: SETUP beats PLAY, DESCRIBE beats PLAY.
    EXPECT_EQ(SetupReply(4, "7000-7001"),
              r2.Ask("SETUP PLAY\r\nCSeq: 4\r\nTransport: RTP/AVP;unicast;client_port=7000-7001"
                     "\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_SETUP, Sess(1).ServerState);
    EXPECT_FALSE(Sess(1).bIsPlayable);
    EXPECT_EQ(Sdp(5), r2.Ask("DESCRIBE PLAY\r\nCSeq: 5\r\n\r\n"));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_SEND_SDP));

    // No CSeq, or CSeq 0: no reply, nothing changes.
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\n\r\n");
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 0\r\n\r\n");
    EXPECT_TRUE(r2.Quiet(300));
    EXPECT_EQ(AV_STREAMER_STATE_SEND_SDP, Sess(1).ServerState);
    EXPECT_EQ(Ok(6), r2.Ask("PAUSE\r\nCSeq: 6\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_PAUSE, Sess(1).ServerState);

    // ALIVED and VOLUME_CHANGED fall through to the next keyword.
    EXPECT_EQ(Ok(7), r2.Ask("ALIVED\r\nVOLUME_CHANGED 12\r\nPLAY\r\nCSeq: 7\r\n\r\n"));
    EXPECT_EQ("VOLUME: 9\r\n\r\n", r2.Next());
    EXPECT_TRUE(events.WaitFor("Volume", 2, 5000));
    EXPECT_NE(0u, Probe::Locked(st, 1, [&] { return Sess(1).uwAliveClock; }));
    ScriptedReceiver third("127.0.0.2");  // every receiver has its session now
    ASSERT_TRUE(third.Connect(kTcpPort));
    EXPECT_TRUE(third.ClosedByPeer());

    // A JOIN's time stamp guards against an older LEAVE; TEARDOWN of the
    // last one ends the service.
    const std::string rejoin = "JOIN 127.0.0.3\r\nREQ_TS: 5000\r\n\r\n";
    SendToGroup("127.0.0.3", rejoin);
    EXPECT_TRUE(events.WaitFor("Found", 2, 5000));
    r2.Send("LEAVE\r\nREQ_TS: 4000\r\n\r\n");  // older than the JOIN: dropped
    EXPECT_FALSE(r2.ClosedByPeer(400));
    r2.Send("LEAVE\r\nREQ_TS: 6000\r\n\r\n");
    EXPECT_TRUE(r2.ClosedByPeer());
    EXPECT_EQ(std::make_tuple(false, AV_STREAMER_STATE_BYE),
              std::make_tuple((bool)Sess(1).bActive, (int)Sess(1).ServerState));
    r1.Send("TEARDOWN rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 9\r\n\r\n");
    EXPECT_TRUE(r1.ClosedByPeer());
    EXPECT_TRUE(events.WaitFor("Stop", 1, 5000));
    // One event per JOIN (the address cut to its field), none for the
    // other datagrams, and the service stopped by the last one out only.
    EXPECT_EQ(std::vector<std::string>({"Volume 0 127.0.0.2",
                                        "Found " + std::string(19, '7') + " " + join,
                                        "Volume 12 127.0.0.3", "Found 127.0.0.3 " + rejoin,
                                        "Leave 127.0.0.3 42", "Reset 127.0.0.2 0", "Stop 42 0"}),
              events.All());
    EXPECT_EQ(std::make_tuple(0, 0),
              std::make_tuple(Probe::SessionCount(st), Probe::ReceiverCount(st)));
}

TEST(StreamerFilters, EveryRoleAndChannelCountPicksItsChannel) {
    CAVStreamer st(nullptr, nullptr, 1);
    // Expected source channel per role (index = AV_CHANNEL_TYPE) and count.
    struct Case {
        int channels;
        int chan[8];
    } cases[] = {
        {1, {0, 0, 0, 0, 0, 0, 0, 0}}, {2, {0, 0, 1, 0, 0, 0, 0, 0}}, {4, {0, 0, 1, 0, 0, 4, 5, 0}},
        {5, {0, 0, 1, 0, 0, 4, 5, 0}}, {6, {0, 0, 1, 2, 3, 4, 5, 0}},
    };
    const int frames = 8;
    for (const Case& c : cases) {
        // Source sample of frame k, channel c: 100 * k + c (+1 so none is 0),
        // with room for the kept over-reads.
        std::vector<short> src((frames + 2) * c.channels);
        for (size_t i = 0; i < src.size(); i++)
            src[i] = (short)(100 * (i / c.channels) + i % c.channels + 1);
        std::vector<char> src8(src.begin(), src.end());
        // The party filter: the first two source samples (on mono the right
        // one is the next frame's).
        std::vector<short> party(2 * frames), firstTwo(2 * frames);
        for (int k = 0; k < 2 * frames; k++) firstTwo[k] = src[k / 2 * c.channels + k % 2];
        st.PcmPartyChannelFilter(src.data(), frames, c.channels, party.data());
        EXPECT_EQ(firstTwo, party) << c.channels;
        for (int type = 0; type < 8; type++) {
            SCOPED_TRACE("channels " + std::to_string(c.channels) + " type " +
                         std::to_string(type));
            const AV_CHANNEL_TYPE t = (AV_CHANNEL_TYPE)type;
            std::vector<short> pick(2 * frames), d1(2 * frames), d2(2 * frames);
            std::vector<char> d8(2 * frames);
            for (int k = 0; k < 2 * frames; k++) pick[k] = src[k / 2 * c.channels + c.chan[type]];
            st.PcmChannelFilter(src.data(), frames, c.channels, t, d1.data());
            st.PcmChannelFilter2Channel(src.data(), frames, c.channels, t, d2.data());
            st.Pcm8BitChannelFilter2Channel(src8.data(), frames, c.channels, t, d8.data());
            EXPECT_EQ(t == AV_CHANNEL_PARTY ? firstTwo : pick, d1);
            EXPECT_EQ(pick, d2);
            EXPECT_EQ(std::vector<char>(pick.begin(), pick.end()), d8);
        }
    }
    // The frame counter is 16 bits: a call stops after 65535 frames.
    std::vector<short> big(70000 * 2, 7), out(70000 * 2, 0);
    st.PcmChannelFilter2Channel(big.data(), 70000, 2, AV_CHANNEL_FRONT_LEFT, out.data());
    EXPECT_EQ(std::make_tuple(7, 0), std::make_tuple(out[2 * 65534 + 1], out[2 * 65535]));
}

TEST_F(StreamerCore, AnAbsentReceiverDelaysTheStartTwoSecondsAndIsDroppedAtFive) {
    const unsigned int search = PAL_GetClock();
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1}, {"127.0.0.3", AV_CHANNEL_FRONT_RIGHT, 2}});
    for (int i = 0; i < 2; i++)
        Probe::Locked(st, i, [&] {
            Entry(i).bIsSync = 1;
            return Entry(i).SearchTs = search;
        });
    ScriptedReceiver r1("127.0.0.2");
    ASSERT_TRUE(r1.Connect(kTcpPort));
    static char pcm[16384];  // the line-up wants 14001 bytes queued
    ASSERT_TRUE(st->ReceiverMediaWrite(0, pcm, sizeof(pcm)));
    ASSERT_EQ(5u, r1.Handshake().size());
    ASSERT_EQ(1412u, r1.Rtp(10000));  // started without the absent one ...
    EXPECT_GE(PAL_GetClock() - search, 2000u);
    // ... which loses its sync, and later its entry, after the event.
    auto synced = [&](int i) {
        return Probe::Locked(st, i, [&] { return (int)Entry(i).bIsSync; });
    };
    EXPECT_TRUE(WaitUntil([&] { return synced(1) == 0; }, 3000));
    EXPECT_EQ(1, synced(0));
    ASSERT_TRUE(events.WaitFor("Reset", 1, 15000));
    EXPECT_GE(PAL_GetClock() - search, 5000u);
    EXPECT_TRUE(WaitUntil([&] { return Counts() == std::make_tuple(1, 1, 1); }, 3000));
    EXPECT_EQ(std::vector<std::string>({"Reset 127.0.0.3 0"}), events.All());
}

TEST_F(StreamerCore, DroppingTheLastReceiverStopsTheService) {
    Open({{"127.0.0.5", AV_CHANNEL_PARTY, 1}});
    Probe::Locked(st, 0, [&] { return Entry(0).SearchTs = PAL_GetClock() - 4800; });
    ASSERT_TRUE(events.WaitFor("Stop", 1, 10000));
    EXPECT_EQ(std::vector<std::string>({"Reset 127.0.0.5 0", "Stop 42 0"}), events.All());
    EXPECT_EQ(std::make_tuple(0, 0, 0), Counts());
}

TEST_F(StreamerCore, CommandsAreExactReachEveryMatchingSessionAndFollowTheStateTable) {
    // One address twice (two emulated receivers on one host) and a third.
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"127.0.0.2", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.3", AV_CHANNEL_WOOFER, 3}});
    std::vector<std::unique_ptr<ScriptedReceiver>> rx =
        ConnectAll({"127.0.0.2", "127.0.0.2", "127.0.0.3"});

    EXPECT_EQ(0, st->SetReceiverUIType("127.0.0.2", 4));
    EXPECT_EQ(0, st->ReceiverDeviceVolumeControl("127.0.0.2", 11));
    EXPECT_EQ(0, st->SetReceiverUITypeAll(2));
    EXPECT_EQ(0, st->ReceiverVolumeControl(20));
    EXPECT_EQ(15, Entry(2)._volume);
    EXPECT_EQ(0, st->ReceiverVolumeControl(-3));
    EXPECT_EQ(1, st->ReceiverVolume(2, 40));  // the single-session form is not clamped
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_WOOFER));  // unchanged
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_REAR_LEFT));
    EXPECT_EQ(AV_CHANNEL_REAR_LEFT, Sess(2).ChannelType.load());
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_FOUND,
              st->ReceiverUpdateChannelType("127.0.0.77", AV_CHANNEL_PARTY));
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_FOUND, st->ReceiverUpdateChannelType(nullptr, AV_CHANNEL_PARTY));
    // Without a connection the single-session forms report success.
    EXPECT_EQ(1, st->SetReceiverUIType(5, 1));
    EXPECT_EQ(1, st->ReceiverAddStart(5));
    EXPECT_EQ(AV_STREAMER_STATE_NA, Sess(5).ServerState);

    // Not yet open: pause, resume and seek are refused, stop is silent.
    st->AVStreamerPause();
    st->AVStreamerResume();
    st->AVStreamerSeek(5);
    st->AVStreamerStop();
    EXPECT_FALSE(st->canAction(-1));
    EXPECT_FALSE(st->canAction(STREAM_ACTION_MAX));

    st->SetStreamState(STREAM_STATE_OPEN);
    st->AVStreamerPause();
    EXPECT_EQ(STREAM_STATE_PAUSE, st->GetStreamState());
    st->AVStreamerPause();  // not allowed twice
    st->AVStreamerResume();
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());
    // No stream thread yet: the seek does not wait for the music source.
    st->AVStreamerSeek(30);
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());

    EXPECT_TRUE(st->SendReqClock(2));
    EXPECT_TRUE(st->ReceiverAlive(0));
    EXPECT_FALSE(st->SendReqClock(7));  // no connection
    // A session put into CLOCK takes its next text as the clock answer.
    Sess(2).ServerState = AV_STREAMER_STATE_CLOCK;
    rx[2]->Send("Clock: 123456\r\n\r\n");
    EXPECT_TRUE(StateBecomes(2, AV_STREAMER_STATE_PLAY));

    st->AVSenderStopNotify();
    st->AVStreamerStop();
    EXPECT_EQ(STREAM_STATE_STOP, st->GetStreamState());
    EXPECT_EQ(3, Probe::SessionCount(st));  // sessions stay until they answer
    st->AVStreamerSeek(1);                  // refused after stop

    // What each receiver got, in order, up to the BYE every one gets last,
    // and nothing after it.
    auto got = [&](int i) {
        std::vector<std::string> texts;
        for (std::string m;
             (texts.empty() || texts.back() != "BYE RTSP/1.0") && !(m = rx[i]->Next()).empty();)
            texts.push_back(m.substr(0, m.size() - 4));
        EXPECT_TRUE(rx[i]->Quiet(150)) << "receiver " << i;
        return texts;
    };
    const std::vector<std::string> both = {"UITYPE: 4",  "VOLUME: 11", "UITYPE: 2", "VOLUME: 15",
                                           "VOLUME: -3", "PAUSE",      "RESUME",    "SEEK"};
    std::vector<std::string> first = both, second = both;
    first.insert(first.end(), {"ALIVE", "QUIT_SENDER", "BYE RTSP/1.0"});
    second.insert(second.end(), {"QUIT_SENDER", "BYE RTSP/1.0"});
    EXPECT_EQ(first, got(0));
    EXPECT_EQ(second, got(1));
    EXPECT_EQ(std::vector<std::string>({"UITYPE: 2", "VOLUME: 15", "VOLUME: -3", "VOLUME: 40",
                                        "DEVICETYPE: 5", "PAUSE", "RESUME", "SEEK",
                                        "CLOCK RTSP/1.0", "QUIT_SENDER", "BYE RTSP/1.0"}),
              got(2));
}

TEST_F(StreamerCore, SearchAndJoinsInviteByMulticastAndUnicastUpToThirty) {
    CAVStreamer::SetGUID("0123456789abcdef0123456789abcdef0123456789");  // 42 characters
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"not-an-address", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.4", AV_CHANNEL_PARTY, 3}});
    const std::string search =
        "SEARCH\r\nGUID: 0123456789abcdef0123456789abcdef0123456\r\nREQ_TS: ";
    const std::string server = "\r\nServer: 127.0.0.1:31554\r\nClient: ";
    int listener = rx_udp_group("224.1.2.4", kGroupPort, "127.0.0.9");
    ASSERT_GE(listener, 0);
    const unsigned int before = PAL_GetClock();
    EXPECT_EQ(0, st->ReceiverSearch(&Probe::Receivers(st)));
    const uint32_t reqTs = Entry(0).SearchTs;
    EXPECT_GE(reqTs, before);
    EXPECT_EQ(std::make_tuple(reqTs, reqTs), std::make_tuple(Entry(1).SearchTs, Entry(2).SearchTs));
    EXPECT_EQ(std::vector<std::string>(8, search + std::to_string(reqTs) + server +
                                              Addr4("127.0.0.2") + Addr4("127.0.0.4")),
              Datagrams(listener, 1000));

    // A join takes the first free slot and is invited by unicast only.
    int joiner = rx_udp_bind("127.0.0.7", kGroupPort);
    ASSERT_GE(joiner, 0);
    AV_RECEIVER r = MakeReceiver("127.0.0.7", AV_CHANNEL_WOOFER, 5);
    const unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(0, st->AVStreamerReceiverIn(r));
    const std::vector<std::string> got = Datagrams(joiner, 400);
    EXPECT_LT(PAL_GetClock() - t0, 2000u);
    AV_RECEIVER& e = Entry(3);
    EXPECT_EQ(std::make_tuple(std::string("127.0.0.7"), 1, AV_CHANNEL_WOOFER),
              std::make_tuple(std::string(e.pReceiverIP), (int)e.bActive, e.ChannelType));
    EXPECT_EQ(std::make_tuple(4, 0, 4), Counts());
    EXPECT_EQ(std::vector<std::string>(
                  8, search + std::to_string(e.SearchTs) + server + Addr4("127.0.0.7")),
              got);

    // A join stamping its entry just after the server read its clock: the
    // newer stamp is not yet due, not 49 days overdue.
    Probe::Locked(st, 0, [&] { return Entry(0).SearchTs = PAL_GetClock() + 3000; });
    PAL_ThreadSleep(600);  // the server checks every 200 ms
    EXPECT_EQ(4, Probe::ReceiverCount(st));

    for (int i = 4; i < AV_MAX_RECEIVER; i++) {
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.2.%d", i);
        EXPECT_EQ(0, st->AVStreamerReceiverIn(r));
    }
    snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.3.1");
    EXPECT_EQ(AV_ERR_NO_FREE_SLOT, st->AVStreamerReceiverIn(r));
    EXPECT_EQ(30, Probe::ReceiverCount(st));
}

// Discovery's EXIT handling takes a receiver out of its stream (a leave that
// waits for BYE_ACK) while the application closes that stream: the two meet
// on the session mutexes, the queue and the connection, in every order.
TEST_F(StreamerCore, CloseRacingAnExitOfAPlayingMemberIsSafe) {
#if defined(__SANITIZE_THREAD__)
    const int kRounds = 500;
#else
    const int kRounds = 50;  // the ThreadSanitizer build runs the full 500
#endif
    for (int round = 0; round < kRounds; round++) {
        CAVStreamer* s = new CAVStreamer(&EventLog::Notify, &events, 42);
        ASSERT_EQ(0, StartServer(s, {{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1}}));
        ScriptedReceiver rx("127.0.0.2");
        ASSERT_TRUE(rx.Connect(kTcpPort));
        ASSERT_EQ(5u, rx.Handshake().size());
        // Fed enough to start: the stream thread runs once the packets come.
        static char pcm[16384];
        ASSERT_TRUE(s->ReceiverMediaWrite(0, pcm, sizeof(pcm)));
        ASSERT_EQ(1412u, rx.Rtp(5000));
        std::thread exitPath([&] { s->AVStreamerReceiverOut("127.0.0.2"); });
        if (round % 2) PAL_ThreadSleep(round % 7);
        Probe::CloseServer(s);
        exitPath.join();
        delete s;
    }
}

namespace {

// Play() tells which step failed by adding these to its result.
const int kInitFailed = 1000, kOpenFailed = 2000;

// Position audio (position_wav.h) in a file of this process's own.
std::string PositionWav(int seconds) {
    std::string path = "/tmp/sonvara_position_" + std::to_string(seconds) + "s_" +
                       std::to_string(getpid()) + ".wav";
    if (!position_wav_write(path, seconds)) path.clear();
    return path;
}

// Frame index of a position-WAV frame as a party receiver gets it.
uint32_t FrameAt(const std::vector<unsigned char>& pcm, size_t byteOffset) {
    uint16_t lr[2];
    memcpy(lr, pcm.data() + byteOffset, 4);
    return ((uint32_t)lr[1] << 16) | lr[0];
}

// The first packet at or after byte `from` that starts with frame `frame`
// (the end when none does); from there on every packet goes on where the
// one before stopped.
size_t FindAndFollow(const std::vector<unsigned char>& pcm, size_t from, uint32_t frame) {
    size_t at = from;
    while (at < pcm.size() && FrameAt(pcm, at) != frame) at += 1400;
    for (size_t off = at + 1400; off + 4 <= pcm.size(); off += 1400)
        EXPECT_EQ(FrameAt(pcm, off - 4) + 1, FrameAt(pcm, off)) << off;
    return std::min(at, pcm.size());
}

// The expected stream of a receiver: source frames of width-byte samples,
// channel c on both sides (c >= 0) or the first two as they are (c < 0).
std::vector<unsigned char> Role(const std::vector<unsigned char>& src, int channels, int width,
                                int c) {
    std::vector<unsigned char> out;
    for (size_t k = 0; k < src.size() / (width * channels); k++) {
        const unsigned char* f = src.data() + k * width * channels;
        for (int side : {c < 0 ? 0 : c, c < 0 ? 1 : c})
            out.insert(out.end(), f + width * side, f + width * side + width);
    }
    return out;
}

// SEEK commands a receiver has had.
int Seeks(ReceiverEmulator* r) {
    std::vector<ReceiverCommand> c = r->Commands();
    return (int)std::count_if(c.begin(), c.end(), [](const ReceiverCommand& x) {
        return strcmp(x.keyword, "SEEK") == 0;
    });
}

int CountEntries(const char* dir) {
    DIR* d = opendir(dir);
    int n = 0;
    while (readdir(d) != nullptr) n++;
    closedir(d);
    return n;
}

class Playback : public ::testing::Test {
protected:
    void TearDown() override { Finish(); }
    // The streamer closed and deleted, the receivers stopped and unlisted.
    void Finish() {
        if (st != nullptr) st->AVStreamerClose();
        delete st;
        st = nullptr;
        for (auto& r : rx) r->Stop();
        rx.clear();
        ri = AV_RECEIVER_INFO{};
    }
    ReceiverEmulator* AddReceiver(const char* ip, AV_CHANNEL_TYPE type, bool listed = true) {
        ReceiverConfig cfg;
        ReceiverConfigDefaults(&cfg, ip);
        cfg.discoveryPort = kGroupPort;
        cfg.timeSync = false;
        rx.emplace_back(new ReceiverEmulator(cfg));
        EXPECT_EQ(0, rx.back()->Start());
        if (listed) ri.AVReceiver[(int)ri.nAVReceiverCnt++] = MakeReceiver(ip, type, 5);
        return rx.back().get();
    }
    // Init, open and search, as the sender facade does for one playback.
    int Play(const std::string& path, const char* mime, uint8_t channels, uint32_t rate,
             int offset = 0, const char* url = kUrl) {
        mi = AV_MUSIC_INFO{"", "Song", "", channels, rate, 0};
        snprintf(mi.pMusicURI, sizeof(mi.pMusicURI), "%s", path.c_str());
        snprintf(mi.pMime, sizeof(mi.pMime), "%s", mime);
        if (st == nullptr) st = new CAVStreamer(&EventLog::Notify, &events, 42);
        int ret = st->AVStreamerInit(&ri, &mi, offset);
        if (ret != 0) return kInitFailed + ret;
        ret = st->AVStreamerOpen(kTcpPort, kRtpPort, url, 9, offset);
        if (ret != 0) return kOpenFailed + ret;
        return st->ReceiverSearch(&ri);
    }
    // Checks a receiver got exactly the expected stream (whole packets of it,
    // then silence) with a clean handshake, well-formed packets and no loss.
    void ExpectStream(ReceiverEmulator* r, const std::vector<unsigned char>& expect) {
        SCOPED_TRACE(r->Config().address);
        const std::vector<unsigned char> got = r->Pcm();
        const size_t whole = expect.size() / 1400 * 1400;
        ASSERT_GE(got.size(), whole);
        EXPECT_TRUE(std::equal(expect.begin(), expect.begin() + (long)whole, got.begin()));
        EXPECT_TRUE(std::all_of(got.begin() + (long)whole, got.end(),
                                [](unsigned char b) { return b == 0; }));
        const ReceiverReport rep = r->Report();
        EXPECT_EQ(0u, rep.handshakeErrors + rep.badLength + rep.badVersion + rep.badPayloadType +
                          rep.badMarker + rep.seqGaps + rep.lostPackets + rep.outOfOrder +
                          rep.timestampErrors);
    }

    EventLog events;
    CAVStreamer* st = nullptr;
    AV_RECEIVER_INFO ri{};
    AV_MUSIC_INFO mi{};
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
};

}  // namespace

TEST_F(Playback, EveryRoleGetsItsChannelsBitExactAndPaced) {
    const std::string mp3 = fixture_path("sine_mono_44k.mp3");
    std::vector<unsigned char> decoded;  // the reference: the streamer's own MP3 reader
    {
        CAVStreamer ref(nullptr, nullptr, 0);
        long fd = ref.Mp3ToPcm_FileOpen(mp3.c_str());
        ASSERT_GE(fd, 1);
        std::vector<char> frame(AV_MP3_BUF_SIZE);
        for (long n; (n = ref.Mp3ToPcm_FileRead(fd, frame.data(), frame.size())) >= 0;)
            decoded.insert(decoded.end(), frame.begin(), frame.begin() + n);
        ref.Mp3ToPcm_FileClose(fd);
    }
    ASSERT_GT(decoded.size(), 100000u);
    // The control port is taken: each server drifts upwards and the SEARCH
    // tells the receivers where.
    int blocker = socket(AF_INET, SOCK_STREAM, 0), one = 1;
    setsockopt(blocker, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in sa;
    rx_sockaddr("0.0.0.0", kTcpPort, &sa);
    ASSERT_EQ(0, bind(blocker, (struct sockaddr*)&sa, sizeof(sa)));
    ASSERT_EQ(0, listen(blocker, 1));
    const struct {
        const char* file;
        const char* mime;
        int channels, rate, width;
    } cases[] = {
        {"wav16_stereo_44k.wav", "audio/x-wav", 2, 44100, 2},
        {"wav8_mono_8k.wav", "audio/x-wav", 1, 8000, 1},  // mono: doubled to both sides
        {"sine_mono_44k.mp3", "audio/mpeg", 1, 44100, 2},
    };
    const AV_CHANNEL_TYPE roles[3] = {AV_CHANNEL_FRONT_LEFT, AV_CHANNEL_FRONT_RIGHT,
                                      AV_CHANNEL_PARTY};
    const char* ips[3] = {"127.0.0.2", "127.0.0.3", "127.0.0.4"};
    const int stereoPick[3] = {0, 1, -1};
    int played = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        for (int i = 0; i < 3; i++) AddReceiver(ips[i], roles[i]);
        const unsigned int t0 = PAL_GetClock();
        ASSERT_EQ(0, Play(fixture_path(c.file), c.mime, (uint8_t)c.channels, (uint32_t)c.rate));
        ASSERT_TRUE(events.WaitFor("Stop 42 1", ++played, 20000)) << "the end of the content";
        const unsigned int elapsed = PAL_GetClock() - t0;
        PAL_ThreadSleep(300);
        std::vector<unsigned char> src = decoded;
        if (strcmp(c.mime, "audio/mpeg") != 0) {
            src = read_whole_file(fixture_path(c.file));
            src.erase(src.begin(), src.begin() + 44);  // the header
        }
        for (int i = 0; i < 3; i++)
            ExpectStream(rx[i].get(),
                         Role(src, c.channels, c.width, c.channels == 1 ? 0 : stereoPick[i]));
        // Paced by the clock: no faster than the audio plays.
        EXPECT_GE(elapsed * 10ull,
                  src.size() * 2 / c.channels * 9000ull / (2ull * c.rate * c.width));
        const ReceiverReport rep = rx[0]->Report();
        EXPECT_EQ(std::make_tuple(8 * c.width, c.rate), std::make_tuple(rep.sdpBits, rep.sdpRate));
        EXPECT_GT(rep.serverPort, kTcpPort);
        EXPECT_STREQ("Front_Right", rx[1]->Report().startRole);
        // After the end a seek is acknowledged at once and still announced.
        const unsigned int t1 = PAL_GetClock();
        st->AVStreamerSeek(2);
        EXPECT_LT(PAL_GetClock() - t1, 1000u);
        EXPECT_TRUE(WaitUntil([&] { return Seeks(rx[0].get()) == 1; }));
        Finish();  // the next case: a new streamer and new receivers, as the manager does
    }
    close(blocker);
}

TEST_F(Playback, PauseSeekJoinAndLeaveMoveTheAudioAndTheProgress) {
    std::string path = PositionWav(20);
    ReceiverEmulator* a = AddReceiver("127.0.0.2", AV_CHANNEL_PARTY);
    ReceiverEmulator* b = AddReceiver("127.0.0.3", AV_CHANNEL_PARTY);
    ReceiverEmulator* joiner = AddReceiver("127.0.0.4", AV_CHANNEL_PARTY, false);
    ASSERT_EQ(0, Play(path, "audio/x-wav", 2, 44100, 1));  // starts 1 s in
    ASSERT_TRUE(a->WaitForPackets(60, 10000));
    EXPECT_EQ(44100u, FrameAt(a->Pcm(), 0));

    st->AVStreamerPause();
    ASSERT_TRUE(a->WaitForCommand("PAUSE", 3000));
    ASSERT_TRUE(b->WaitForCommand("PAUSE", 3000));
    PAL_ThreadSleep(100);
    unsigned int pausedAt = a->Report().packets;
    PAL_ThreadSleep(500);
    EXPECT_EQ(pausedAt, a->Report().packets);  // no audio while paused
    st->AVStreamerResume();
    ASSERT_TRUE(a->WaitForCommand("RESUME", 3000));
    ASSERT_TRUE(a->WaitForPackets(pausedAt + 20, 5000));
    // The sequence ran on while paused, and the only jump is the one the
    // pause explains; the audio itself goes on where it stopped.
    EXPECT_EQ(std::make_tuple(true, 0u),
              std::make_tuple(a->Report().expectedGaps >= 1, a->Report().seqGaps));
    EXPECT_EQ(0u, FindAndFollow(a->Pcm(), 0, 44100));

    // Seek while playing, and again to the same offset: after each SEEK the
    // audio starts at the new position and progress follows it.
    for (int round = 0; round < 2; round++) {
        size_t before = a->Pcm().size();
        st->AVStreamerSeek(5);
        ASSERT_TRUE(WaitUntil([&] { return Seeks(a) == round + 1 && Seeks(b) == round + 1; }));
        ASSERT_TRUE(a->WaitForPackets(a->Report().packets + 40, 5000));
        const std::vector<unsigned char> pcm = a->Pcm();
        ASSERT_LT(FindAndFollow(pcm, before, 5u * 44100), pcm.size()) << "round " << round;
        ASSERT_TRUE(WaitUntil(
            [&] {
                std::vector<std::string> all = events.All();
                int second = 0;
                return !all.empty() && sscanf(all.back().c_str(), "Progress 42 %d", &second) == 1 &&
                       second >= 5;
            },
            5000));
    }

    // Seek while paused is allowed by the state table; after resume the audio
    // comes from the new place.
    st->AVStreamerPause();
    size_t before = a->Pcm().size();
    st->AVStreamerSeek(7);
    st->AVStreamerResume();
    ASSERT_TRUE(a->WaitForPackets(a->Report().packets + 20, 5000));
    std::vector<unsigned char> pcm = a->Pcm();
    EXPECT_LT(FindAndFollow(pcm, before, 7u * 44100), pcm.size());

    // Leave with the acknowledgement (the emulator answers BYE).
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.2"));
    EXPECT_TRUE(a->WaitForDisconnect(3000));
    EXPECT_EQ(1, Probe::ReceiverCount(st));

    // Join: searched by unicast, takes the freed lower slot, connects, and
    // is lined up with the one playing above it.
    EXPECT_EQ(0, st->AVStreamerReceiverIn(MakeReceiver("127.0.0.4", AV_CHANNEL_PARTY, 3)));
    EXPECT_STREQ("127.0.0.4", Probe::Receivers(st).AVReceiver[0].pReceiverIP);
    ASSERT_TRUE(joiner->WaitForHandshake(RX_HS_PLAYING, 5000));
    ASSERT_TRUE(joiner->WaitForPackets(50, 15000));
    EXPECT_GE(joiner->Report().searchesForMe, 1u);
    // Held still by a pause, both have the packets of the same last pass:
    // the same sequence number carries the same position.
    st->AVStreamerPause();
    ASSERT_TRUE(joiner->WaitForCommand("PAUSE", 3000));
    PAL_ThreadSleep(200);
    std::vector<unsigned char> pb = b->Pcm(), pj = joiner->Pcm();
    EXPECT_EQ(std::make_tuple(b->Report().lastSeq, FrameAt(pb, pb.size() - 1400)),
              std::make_tuple(joiner->Report().lastSeq, FrameAt(pj, pj.size() - 1400)));
    st->AVStreamerResume();

    // Leave without an acknowledgement: released after a second; the last
    // one out ends the service with 0.
    b->SetAnswerBye(false);
    unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.3"));
    EXPECT_GE(PAL_GetClock() - t0, 900u);
    EXPECT_TRUE(b->WaitForDisconnect(3000));
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.4"));
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_ACTIVE, st->AVStreamerReceiverOut("127.0.0.4"));
    EXPECT_TRUE(events.WaitFor("Stop 42 0", 1, 3000));
    EXPECT_EQ(0, Probe::ReceiverCount(st));
    unlink(path.c_str());
}

TEST_F(Playback, OpenAndInitFailuresGiveTheirCodes) {
    AddReceiver("127.0.0.2", AV_CHANNEL_PARTY);
    const std::string wav = fixture_path("wav16_stereo_44k.wav");
    auto retry = [&](const char* file, const char* mime, const char* url) {
        if (st != nullptr) st->AVStreamerClose();
        return Play(file, mime, 2, 44100, 0, url);
    };
    EXPECT_EQ(kInitFailed + AV_ERR_CONTENT_OPEN,
              retry("/nonexistent/song.wav", "audio/x-wav", kUrl));
    EXPECT_EQ(kInitFailed + AV_ERR_CONTENT_OPEN,
              retry("/nonexistent/song.mp3", "audio/mpeg", kUrl));
    st->AVStreamerClose();
    EXPECT_EQ(AV_ERR_NO_MUSIC_INFO, st->AVStreamerInit(&ri, nullptr, 0));
    // Another type is read as raw PCM; then the open's own checks.
    EXPECT_EQ(kOpenFailed + AV_ERR_MULTICAST_URL, retry(wav.c_str(), "audio/L16", "224.1.2.4"));
    setenv("SONVARA_IFACE", "nosuch0", 1);
    EXPECT_EQ(kOpenFailed + AV_ERR_NO_NETWORK_ADDRESS, retry(wav.c_str(), "audio/L16", kUrl));
    unsetenv("SONVARA_IFACE");
    EXPECT_EQ(0, retry(wav.c_str(), "audio/L16", kUrl));
    EXPECT_EQ(AV_ERR_INIT_REFUSED, st->AVStreamerInit(&ri, &mi, 0));
    EXPECT_EQ(AV_ERR_OPEN_REFUSED, st->AVStreamerOpen(kTcpPort, kRtpPort, kUrl, 9, 0));
}

TEST_F(Playback, RepeatedLivesLeaveNoThreadDescriptorOrMemoryBehind) {
    ReceiverEmulator* r = AddReceiver("127.0.0.2", AV_CHANNEL_FRONT_LEFT);
    st = new CAVStreamer(&EventLog::Notify, &events, 42);
    auto life = [&](const char* file, const char* mime) {
        ASSERT_EQ(0, Play(fixture_path(file), mime, 2, 44100));
        unsigned int packets = r->Report().packets;
        ASSERT_TRUE(r->WaitForPackets(packets + 3, 10000));
        st->AVStreamerClose();
        ASSERT_TRUE(r->WaitForDisconnect(3000));
    };
    // The first lives warm up the allocator and the emulator.
    life("wav16_stereo_44k.wav", "audio/x-wav");
    life("sine_cbr128_id3.mp3", "audio/mpeg");
    int threads = CountEntries("/proc/self/task"), fds = CountEntries("/proc/self/fd");
    size_t heap = mallinfo2().uordblks;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int kLives = 40;  // the sanitizers slow every life several times over
#else
    const int kLives = 200;
#endif
    for (int i = 0; i < kLives; i++)
        life(i % 2 ? "sine_cbr128_id3.mp3" : "wav16_stereo_44k.wav",
             i % 2 ? "audio/mpeg" : "audio/x-wav");
    // Under qemu-user a joined thread may stay listed a moment longer (the
    // emulator wakes the joiner before its host thread is gone); a leaked
    // one stays for good.
    EXPECT_TRUE(WaitUntil([&] { return CountEntries("/proc/self/task") == threads; }, 5000))
        << CountEntries("/proc/self/task") << " threads, " << threads << " before";
    EXPECT_EQ(fds, CountEntries("/proc/self/fd"));
    // The emulator keeps what it receives; allow for that, not for a leak
    // per life.
    size_t kept = r->Pcm().size();
    EXPECT_LT(mallinfo2().uordblks, heap + kept + 256 * 1024);
}
