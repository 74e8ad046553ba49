// A receiver in software (see ReceiverEmulator.h). Written from the protocol
// as a receiver sees it (docs/protocol.md), not from the sender's code.
#include "ReceiverEmulator.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "PAL_Clock.h"
#include "RxSocket.h"
#include "RxWav.h"

namespace {

const int kRtpPacketLen = 1412;
const int kRtpPayloadLen = 1400;
const size_t kCtrlBufLen = 8192;
const size_t kMaxMargins = 1 << 20;

const char* const kRoles[] = {"None",   "Front_Left", "Front_Right", "Center",
                              "Woofer", "Rear_Left",  "Rear_Right",  "Party"};

// First occurrence of needle in the first len bytes of hay (hay may hold NULs).
const char* find_in(const char* hay, size_t len, const char* needle) {
    size_t n = strlen(needle);
    if (n == 0 || len < n) return nullptr;
    for (size_t i = 0; i + n <= len; i++) {
        if (hay[i] == needle[0] && memcmp(hay + i, needle, n) == 0) return hay + i;
    }
    return nullptr;
}

// Copies the text after `label` up to CR, LF or NUL into dst (size bytes,
// bounded); false when the label is missing.
bool header_value(const char* msg, const char* label, char* dst, size_t size) {
    const char* p = strstr(msg, label);
    if (!p) return false;
    p += strlen(label);
    size_t n = strcspn(p, "\r\n");
    if (n > size - 1) n = size - 1;
    memcpy(dst, p, n);
    dst[n] = 0;
    return true;
}

bool header_int(const char* msg, const char* label, long* out) {
    char text[24];
    if (!header_value(msg, label, text, sizeof(text))) return false;
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text) return false;
    *out = v;
    return true;
}

long long percentile_sorted(const std::vector<long long>& v, double p) {
    if (v.empty()) return 0;
    size_t i = (size_t)(p * (double)(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

}  // namespace

void ReceiverConfigDefaults(ReceiverConfig* cfg, const char* address) {
    memset(cfg, 0, sizeof(*cfg));
    rx_copy_text(cfg->address, sizeof(cfg->address), address);
    unsigned int a = 0, b = 0, c = 0, d = 0;
    sscanf(cfg->address, "%u.%u.%u.%u", &a, &b, &c, &d);
    snprintf(cfg->mac, sizeof(cfg->mac), "02:00:%02x:%02x:%02x:%02x", a & 0xFF, b & 0xFF, c & 0xFF,
             d & 0xFF);
    snprintf(cfg->guid, sizeof(cfg->guid), "emulated-receiver-%u-%u-%u-%u", a & 0xFF, b & 0xFF,
             c & 0xFF, d & 0xFF);
    snprintf(cfg->name, sizeof(cfg->name), "Speaker %u", d & 0xFF);
    cfg->master = 1;
    cfg->volume = 7;
    cfg->syncPort = 5000;
    rx_copy_text(cfg->group, sizeof(cfg->group), "224.1.2.4");
    cfg->discoveryPort = 1234;
    cfg->timeSyncPort = 1235;
    cfg->keepPcm = true;
    cfg->pcmLimitBytes = 64u << 20;
    cfg->timeSync = true;
    NetLabDefaults(&cfg->net);
    cfg->replyTimeoutMs = 5000;
}

class ReceiverEmulator::Impl {
public:
    explicit Impl(ReceiverConfig* cfg);
    int Start(unsigned short* rtpPort);
    void Stop();
    long long Now() const;
    long long MasterOf(long long local);

    // Public operations, called from any thread.
    bool WaitFor(unsigned int timeoutMs, bool (Impl::*pred)(const void*) const, const void* arg);
    bool HasPackets(const void* n) const { return rep.packets >= *(const unsigned int*)n; }
    bool InHandshake(const void* st) const { return rep.handshake == *(const int*)st; }
    bool HasCommand(const void* kw) const;
    bool Disconnected(const void*) const { return rep.handshake == RX_HS_IDLE && rep.connects > 0; }
    ReceiverReport Report();
    std::string Json();
    int SendCtrl(const char* text, int len);
    // Formats a short message and sends all of it: 0, or -1 on failure.
    int SendCtrlf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    int SendGroup(const char* text, int len);
    void Wake();
    // Sets one of the switches below and lets the worker see it at once.
    void SetFlag(bool Impl::*flag, bool on) {
        {
            std::lock_guard<std::mutex> g(lock);
            this->*flag = on;
        }
        Wake();
    }

    ReceiverConfig* cfg;
    TimeSyncClient clock;
    long long clockBase;
    std::mutex lock;  // guards everything from here to the worker's own state
    std::condition_variable changed;
    ReceiverReport rep;
    std::vector<ReceiverCommand> cmds;
    std::vector<unsigned char> pcm;
    std::vector<long long> margins;  // us
    std::vector<long long> lates;    // us, arrival against the packet's place in the schedule
    bool refuseConnect, stopReading, answerBye, answerDiscovery, dropRequested;
    bool floodDescribe, stopAtSetup;
    unsigned int lastJoinTs;

private:
    void _worker();
    void _on_group_datagram(int sock);
    void _on_search(const char* buf, size_t n);
    void _connect(const char* server, unsigned short port);
    void _close_ctrl(const char* why);
    void _on_ctrl_readable();
    bool _next_message(std::string* msg);
    void _on_message(const std::string& msg, long long local);
    void _on_reply(const std::string& msg);
    void _on_command(const std::string& msg, long long local);
    bool _check_status_l(const char* msg, const char* step);
    void _parse_sdp_l(const char* msg);
    void _send_request(const char* method, const char* extra);
    void _on_rtp();
    void _drain(int sock);
    void _error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _error_l(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _verror_l(const char* fmt, va_list ap);
    void _step_l(int state);
    void _flood_describe();

    std::thread m_worker;
    std::atomic<bool> m_exit;
    int m_wake[2];
    int m_groupSock, m_uniSock, m_sendSock, m_rtpSock, m_rtcpSock;
    std::mutex m_writeLock;  // guards m_ctrlSock for writers and for closing
    int m_ctrlSock;
    // Worker-only state (no lock needed).
    char m_ctrlBuf[kCtrlBufLen];
    size_t m_ctrlLen;
    unsigned int m_lastSearchTs;
    char m_lastSearchServer[20];
    bool m_expectGap;       // a PAUSE or SEEK was seen: the next jump is the sender's
    long long m_lastGapUs;  // when the last unexplained jump happened
    bool m_haveSeq;
    long long m_extSeq, m_firstExtSeq;
    FILE* m_wav;
    unsigned long long m_wavBytes;
    int m_cseq;
    long long m_deadline;  // local us; 0 = no step pending
};

ReceiverEmulator::Impl::Impl(ReceiverConfig* c)
    : cfg(c),
      clockBase(PAL_GetBootTimeUsec()),
      refuseConnect(false),
      stopReading(false),
      answerBye(true),
      answerDiscovery(true),
      dropRequested(false),
      floodDescribe(false),
      stopAtSetup(false),
      lastJoinTs(0),
      m_exit(false),
      m_groupSock(-1),
      m_uniSock(-1),
      m_sendSock(-1),
      m_rtpSock(-1),
      m_rtcpSock(-1),
      m_ctrlSock(-1),
      m_ctrlLen(0),
      m_lastSearchTs(0),
      m_expectGap(false),
      m_lastGapUs(0),
      m_haveSeq(false),
      m_extSeq(0),
      m_firstExtSeq(0),
      m_wav(nullptr),
      m_wavBytes(0),
      m_cseq(0),
      m_deadline(0) {
    m_wake[0] = m_wake[1] = -1;
    memset(m_lastSearchServer, 0, sizeof(m_lastSearchServer));
    memset(&rep, 0, sizeof(rep));
    rep.volume = rep.deviceType = rep.uiType = -1;
}

namespace {

long long impl_clock(void* ctx) {
    return ((const ReceiverEmulator::Impl*)ctx)->Now();
}

void close_fd(int* fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

}  // namespace

long long ReceiverEmulator::Impl::Now() const {
    long long now = PAL_GetBootTimeUsec();
    return now + cfg->clockOffsetUs +
           (long long)((double)(now - clockBase) * cfg->clockDriftPpm * 1e-6);
}

long long ReceiverEmulator::Impl::MasterOf(long long local) {
    long long master = 0;
    return clock.LocalToMasterUs(local, &master) ? master : 0;
}

void ReceiverEmulator::Impl::_verror_l(const char* fmt, va_list ap) {
    if (rep.nErrors == ReceiverReport::kMaxErrors) {
        memmove(rep.errors[0], rep.errors[1],
                sizeof(rep.errors[0]) * (ReceiverReport::kMaxErrors - 1));
        rep.nErrors--;
    }
    vsnprintf(rep.errors[rep.nErrors], sizeof(rep.errors[0]), fmt, ap);
    rep.nErrors++;
    changed.notify_all();
}

void ReceiverEmulator::Impl::_error_l(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    _verror_l(fmt, ap);
    va_end(ap);
}

void ReceiverEmulator::Impl::_error(const char* fmt, ...) {
    std::lock_guard<std::mutex> g(lock);
    va_list ap;
    va_start(ap, fmt);
    _verror_l(fmt, ap);
    va_end(ap);
}

int ReceiverEmulator::Impl::Start(unsigned short* rtpPort) {
    m_groupSock = rx_udp_group(cfg->group, cfg->discoveryPort, cfg->address);
    m_uniSock = rx_udp_bind(cfg->address, cfg->discoveryPort);
    m_sendSock = rx_udp_bind(cfg->address, 0);
    for (int attempt = 0; attempt < 20 && m_rtcpSock < 0; attempt++) {
        close_fd(&m_rtpSock);
        m_rtpSock = rx_udp_bind(cfg->address, cfg->rtpPort);
        unsigned short port = m_rtpSock >= 0 ? rx_local_port(m_rtpSock) : 0;
        if (port != 0 && port != 65535) m_rtcpSock = rx_udp_bind(cfg->address, port + 1);
        if (cfg->rtpPort != 0) break;  // a fixed pair either works or not
    }
    // Arrival is the kernel's receive time, not the moment this process got
    // its core: lateness then measures the sender, whatever the load.
    int on = 1;
    if (m_rtpSock >= 0) setsockopt(m_rtpSock, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    int ok = m_groupSock >= 0 && m_uniSock >= 0 && m_sendSock >= 0 && m_rtpSock >= 0 &&
             m_rtcpSock >= 0 && pipe(m_wake) == 0;
    if (ok && cfg->wavPath[0]) {
        m_wav = rx_wav_open(cfg->wavPath);
        if (!m_wav) _error("cannot write %s", cfg->wavPath);
    }
    if (ok && cfg->timeSync) {
        TimeSyncClientConfig tc;
        TimeSyncClientDefaults(&tc, cfg->address);
        rx_copy_text(tc.groupAddr, sizeof(tc.groupAddr), cfg->group);
        tc.port = cfg->timeSyncPort;
        tc.clock = impl_clock;
        tc.clockCtx = this;
        tc.lab = cfg->net;
        tc.measureError = true;
        if (clock.Start(tc) != 0) _error("time sync: cannot open its sockets");
    }
    if (!ok) {
        _error("cannot open the sockets on %s (discovery port %u)", cfg->address,
               cfg->discoveryPort);
        Stop();
        return -1;
    }
    fcntl(m_wake[0], F_SETFL, O_NONBLOCK);
    fcntl(m_wake[1], F_SETFL, O_NONBLOCK);
    {
        std::lock_guard<std::mutex> g(lock);
        rep.rtpPort = rx_local_port(m_rtpSock);
        rep.rtcpPort = rx_local_port(m_rtcpSock);
        *rtpPort = rep.rtpPort;
    }
    m_exit = false;
    m_worker = std::thread(&Impl::_worker, this);
    return 0;
}

void ReceiverEmulator::Impl::Stop() {
    m_exit = true;
    Wake();
    if (m_worker.joinable()) m_worker.join();
    clock.Stop();
    _close_ctrl(nullptr);
    int* fds[] = {&m_groupSock, &m_uniSock, &m_sendSock, &m_rtpSock,
                  &m_rtcpSock,  &m_wake[0], &m_wake[1]};
    for (int* fd : fds) close_fd(fd);
    if (m_wav) {
        std::lock_guard<std::mutex> g(lock);
        int bits = rep.sdpBits ? rep.sdpBits : 16;
        int rate = rep.sdpRate ? rep.sdpRate : 44100;
        if (rx_wav_close(m_wav, rate, 2, bits, (uint32_t)m_wavBytes) != 0) {
            _error_l("cannot complete %s", cfg->wavPath);
        }
        m_wav = nullptr;
    }
}

void ReceiverEmulator::Impl::Wake() {
    if (m_wake[1] >= 0) {
        char c = 1;
        ssize_t n = write(m_wake[1], &c, 1);
        (void)n;
    }
}

void ReceiverEmulator::Impl::_worker() {
    while (!m_exit) {
        bool reading, drop, flood;
        {
            std::lock_guard<std::mutex> g(lock);
            reading = !stopReading && !floodDescribe;
            drop = dropRequested;
            dropRequested = false;
            flood = floodDescribe;
        }
        if (drop) _close_ctrl("dropped by request");
        if (flood) _flood_describe();
        struct pollfd pfd[6] = {{m_wake[0], POLLIN, 0},  {m_groupSock, POLLIN, 0},
                                {m_uniSock, POLLIN, 0},  {m_rtpSock, POLLIN, 0},
                                {m_rtcpSock, POLLIN, 0}, {reading ? m_ctrlSock : -1, POLLIN, 0}};
        int r = poll(pfd, 6, flood ? 1 : 50);
        if (r > 0) {
            if (pfd[0].revents & POLLIN) _drain(m_wake[0]);
            if (pfd[1].revents & POLLIN) _on_group_datagram(m_groupSock);
            if (pfd[2].revents & POLLIN) _on_group_datagram(m_uniSock);
            if (pfd[3].revents & POLLIN) _on_rtp();
            if (pfd[4].revents & POLLIN) _drain(m_rtcpSock);
            if (pfd[5].revents & (POLLIN | POLLHUP | POLLERR)) _on_ctrl_readable();
        }
        std::lock_guard<std::mutex> g(lock);
        if (m_deadline != 0 && Now() > m_deadline) {
            static const char* const steps[] = {"", "CHANNEL", "DESCRIBE", "SETUP", "PLAY", ""};
            _error_l("no reply to %s within %u ms", steps[rep.handshake], cfg->replyTimeoutMs);
            rep.handshakeErrors++;
            m_deadline = 0;
        }
    }
}

// One burst of DESCRIBE requests, as many as the socket takes at once.
void ReceiverEmulator::Impl::_flood_describe() {
    static const char kDescribe[] = "DESCRIBE rtsp://flood/ RTSP/1.0\r\nCSeq: 7\r\n\r\n";
    std::lock_guard<std::mutex> w(m_writeLock);
    for (int i = 0; i < 64 && m_ctrlSock >= 0; i++) {
        if (send(m_ctrlSock, kDescribe, sizeof(kDescribe) - 1, MSG_NOSIGNAL | MSG_DONTWAIT) <= 0)
            break;
    }
}

void ReceiverEmulator::Impl::_drain(int sock) {
    char buf[2048];
    while (recv(sock, buf, sizeof(buf), MSG_DONTWAIT) > 0) {
    }
}

void ReceiverEmulator::Impl::_on_group_datagram(int sock) {
    char buf[1400];
    struct sockaddr_in from;
    socklen_t fromLen = sizeof(from);
    ssize_t n =
        recvfrom(sock, buf, sizeof(buf) - 1, MSG_DONTWAIT, (struct sockaddr*)&from, &fromLen);
    if (n <= 0) return;
    buf[n] = 0;
    if (strncmp(buf, "DEVICE ", 7) == 0) {
        char addr[20] = {0};
        unsigned short port = 0;
        struct sockaddr_in to;
        if (sscanf(buf, "DEVICE %19[^:\r\n]:%hu", addr, &port) != 2 || port == 0 ||
            !rx_sockaddr(addr, port, &to)) {
            std::lock_guard<std::mutex> g(lock);
            rep.protocolErrors++;
            _error_l("malformed DEVICE request (%zd bytes)", n);
            return;
        }
        char answer[1400];
        bool answerIt;
        {
            std::lock_guard<std::mutex> g(lock);
            answerIt = answerDiscovery;
        }
        if (!answerIt) return;
        int len = snprintf(answer, sizeof(answer),
                           "DEVICE\r\nMAC: %s\r\nGUID: %s\r\nNAME: %s\r\nMASTER: %d\r\nVOL: %d\r\n",
                           cfg->mac, cfg->guid, cfg->name, cfg->master, cfg->volume);
        if (len > (int)sizeof(answer) - 1) len = (int)sizeof(answer) - 1;
        sendto(m_sendSock, answer, (size_t)len, 0, (struct sockaddr*)&to, sizeof(to));
        std::lock_guard<std::mutex> g(lock);
        rep.deviceRequests++;
        changed.notify_all();
    } else if (strncmp(buf, "SEARCH", 6) == 0) {
        _on_search(buf, (size_t)n);
    }
    // JOIN, EXIT and MASTERSEARCH are other receivers talking to senders.
}

void ReceiverEmulator::Impl::_on_search(const char* buf, size_t n) {
    const char* client = find_in(buf, n, "Client: ");
    char text[1400];
    size_t textLen = client ? (size_t)(client - buf) : n;
    memcpy(text, buf, textLen);
    text[textLen] = 0;
    char guid[40] = {0}, server[64] = {0}, addr[20] = {0};
    long reqTs = 0;
    unsigned short port = 0;
    bool ok = client && header_value(text, "GUID: ", guid, sizeof(guid)) &&
              header_int(text, "REQ_TS: ", &reqTs) &&
              header_value(text, "Server: ", server, sizeof(server)) &&
              sscanf(server, "%19[^:]:%hu", addr, &port) == 2 && port != 0;
    struct in_addr own;
    inet_pton(AF_INET, cfg->address, &own);
    bool listed = false;
    if (client) {
        const char* list = client + 8;
        size_t listLen = n - (size_t)(list - buf);
        if (listLen % 4 != 0) ok = false;
        for (size_t i = 0; i + 4 <= listLen; i += 4) {
            if (memcmp(list + i, &own.s_addr, 4) == 0) listed = true;
        }
    }
    bool connect;
    {
        std::lock_guard<std::mutex> g(lock);
        rep.searchesSeen++;
        if (!ok) {
            rep.protocolErrors++;
            _error_l("malformed SEARCH (%zu bytes)", n);
            return;
        }
        if (listed) rep.searchesForMe++;
        connect = listed && !refuseConnect && m_ctrlSock < 0 &&
                  !((unsigned int)reqTs == m_lastSearchTs && strcmp(addr, m_lastSearchServer) == 0);
        if (connect) {
            rx_copy_text(rep.serverAddr, sizeof(rep.serverAddr), addr);
            rep.serverPort = port;
        }
        changed.notify_all();
    }
    if (!connect) return;
    // The 8 copies of one SEARCH lead to one connection.
    m_lastSearchTs = (unsigned int)reqTs;
    rx_copy_text(m_lastSearchServer, sizeof(m_lastSearchServer), addr);
    _connect(addr, port);
}

void ReceiverEmulator::Impl::_connect(const char* server, unsigned short port) {
    int sock = rx_tcp_connect(cfg->address, server, port, 2000);
    if (sock < 0) {
        std::lock_guard<std::mutex> g(lock);
        rep.handshakeErrors++;
        _error_l("cannot connect to %s:%u", server, port);
        return;
    }
    {
        std::lock_guard<std::mutex> w(m_writeLock);
        m_ctrlSock = sock;
    }
    if (cfg->timeSync) clock.SetMaster(server);
    if (cfg->playSink) cfg->playSink->OnPlayEvent(RX_PLAY_NEW_STREAM);
    m_ctrlLen = 0;
    m_cseq = 0;
    m_haveSeq = false;  // a new connection is a new stream
    m_expectGap = false;
    {
        std::lock_guard<std::mutex> g(lock);
        rep.connects++;
        _step_l(RX_HS_WAIT_START);
    }
    if (SendCtrlf("CHANNEL\r\nSyncPort: %u\r\n\r\n", cfg->syncPort) != 0) {
        _close_ctrl("cannot send CHANNEL");
    }
}

void ReceiverEmulator::Impl::_step_l(int state) {
    rep.handshake = state;
    m_deadline =
        (state == RX_HS_IDLE || state == RX_HS_PLAYING) ? 0 : Now() + 1000LL * cfg->replyTimeoutMs;
    changed.notify_all();
}

void ReceiverEmulator::Impl::_close_ctrl(const char* why) {
    int sock;
    {
        std::lock_guard<std::mutex> w(m_writeLock);
        sock = m_ctrlSock;
        m_ctrlSock = -1;
    }
    if (sock < 0) return;
    close(sock);
    m_ctrlLen = 0;
    if (cfg->playSink) cfg->playSink->OnPlayEvent(RX_PLAY_STOP);
    std::lock_guard<std::mutex> g(lock);
    if (why && rep.handshake != RX_HS_PLAYING && rep.handshake != RX_HS_IDLE) {
        rep.handshakeErrors++;
        _error_l("connection closed during the handshake: %s", why);
    }
    _step_l(RX_HS_IDLE);
}

int ReceiverEmulator::Impl::SendCtrl(const char* text, int len) {
    std::lock_guard<std::mutex> w(m_writeLock);
    if (m_ctrlSock < 0 || len < 0) return -1;
    int sent = 0;
    while (sent < len) {
        ssize_t n =
            send(m_ctrlSock, text + sent, (size_t)(len - sent), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
            rx_wait_writable(m_ctrlSock, 1000) == 1)
            continue;
        if (n <= 0) return -1;
        sent += (int)n;
    }
    return sent;
}

int ReceiverEmulator::Impl::SendCtrlf(const char* fmt, ...) {
    char msg[256];
    va_list ap;
    va_start(ap, fmt);
    int len = vsnprintf(msg, sizeof(msg), fmt, ap);
    va_end(ap);
    if (len < 0 || len >= (int)sizeof(msg)) return -1;
    return SendCtrl(msg, len) == len ? 0 : -1;
}

int ReceiverEmulator::Impl::SendGroup(const char* text, int len) {
    struct sockaddr_in to;
    if (m_sendSock < 0 || !rx_sockaddr(cfg->group, cfg->discoveryPort, &to)) return -1;
    return (int)sendto(m_sendSock, text, (size_t)len, 0, (struct sockaddr*)&to, sizeof(to));
}

void ReceiverEmulator::Impl::_on_ctrl_readable() {
    int sock;
    {
        std::lock_guard<std::mutex> w(m_writeLock);
        sock = m_ctrlSock;
    }
    if (sock < 0) return;
    if (m_ctrlLen >= sizeof(m_ctrlBuf) - 1) {
        _error("control message longer than %zu bytes without an end: dropped", sizeof(m_ctrlBuf));
        std::lock_guard<std::mutex> g(lock);
        rep.protocolErrors++;
        m_ctrlLen = 0;
    }
    ssize_t n = recv(sock, m_ctrlBuf + m_ctrlLen, sizeof(m_ctrlBuf) - 1 - m_ctrlLen, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        _close_ctrl("closed by the sender");
        return;
    }
    if (n < 0) return;
    long long local = Now();
    m_ctrlLen += (size_t)n;
    std::string msg;
    while (_next_message(&msg)) _on_message(msg, local);
}

// One message off the front of the control buffer: text up to an empty
// line, plus Content-Length bytes of body for a reply that has one.
bool ReceiverEmulator::Impl::_next_message(std::string* msg) {
    const char* end = find_in(m_ctrlBuf, m_ctrlLen, "\r\n\r\n");
    if (!end) return false;
    size_t headLen = (size_t)(end - m_ctrlBuf) + 4;
    size_t bodyLen = 0;
    std::string head(m_ctrlBuf, headLen);
    long cl = 0;
    if (head.compare(0, 8, "RTSP/1.0") == 0 && header_int(head.c_str(), "Content-Length: ", &cl)) {
        if (cl < 0 || cl > (long)(sizeof(m_ctrlBuf) / 2)) {
            _error("reply with Content-Length %ld: body ignored", cl);
            std::lock_guard<std::mutex> g(lock);
            rep.handshakeErrors++;
        } else {
            bodyLen = (size_t)cl;
        }
    }
    if (m_ctrlLen < headLen + bodyLen) return false;
    msg->assign(m_ctrlBuf, headLen + bodyLen);
    memmove(m_ctrlBuf, m_ctrlBuf + headLen + bodyLen, m_ctrlLen - headLen - bodyLen);
    m_ctrlLen -= headLen + bodyLen;
    return true;
}

void ReceiverEmulator::Impl::_on_message(const std::string& msg, long long local) {
    if (msg.compare(0, 5, "RTSP/") == 0) {
        _on_reply(msg);
    } else {
        _on_command(msg, local);
    }
}

bool ReceiverEmulator::Impl::_check_status_l(const char* msg, const char* step) {
    bool ok = true;
    if (strncmp(msg, "RTSP/1.0 200 OK\r\n", 17) != 0) {
        char line[48];
        header_value(msg, "", line, sizeof(line));
        _error_l("%s reply: status line \"%s\"", step, line);
        ok = false;
    }
    long cseq = 0;
    if (!strstr(msg, "Cseq: ")) {
        _error_l("%s reply without \"Cseq: \"", step);
        ok = false;
    } else if (!header_int(msg, "Cseq: ", &cseq) || cseq != m_cseq) {
        _error_l("%s reply with Cseq %ld, expected %d", step, cseq, m_cseq);
        ok = false;
    }
    if (!ok) rep.handshakeErrors++;
    return ok;
}

void ReceiverEmulator::Impl::_parse_sdp_l(const char* msg) {
    const char* body = strstr(msg, "\r\n\r\n");
    long cl = -1;
    char type[40] = {0};
    if (!header_value(msg, "Content-Type: ", type, sizeof(type)) ||
        strcmp(type, "application/sdp") != 0) {
        _error_l("SDP reply: Content-Type \"%s\"", type);
        rep.handshakeErrors++;
    }
    if (!body || !header_int(msg, "Content-Length: ", &cl) || (size_t)cl != strlen(body + 4)) {
        _error_l("SDP reply: Content-Length %ld does not match the body", cl);
        rep.handshakeErrors++;
    }
    body = body ? body + 4 : "";
    int bits = 0, rate = 0, channels = 0;
    const char* map = strstr(body, "a=rtpmap:96 L");
    if (strncmp(body, "v=0\r\n", 5) != 0 || !strstr(body, "m=audio 0 RTP/AVP 96\r\n") || !map ||
        sscanf(map, "a=rtpmap:96 L%d/%d/%d", &bits, &rate, &channels) != 3 ||
        (bits != 8 && bits != 16) || rate < 8000 || rate > 192000 || channels != 2) {
        _error_l("SDP body not as announced (L%d/%d/%d)", bits, rate, channels);
        rep.handshakeErrors++;
    }
    if (bits == 8 || bits == 16) rep.sdpBits = bits;
    if (rate >= 8000 && rate <= 192000) rep.sdpRate = rate;
    rep.sdpChannels = channels;
    header_value(body, "i=", rep.sdpTitle, sizeof(rep.sdpTitle));
}

void ReceiverEmulator::Impl::_send_request(const char* method, const char* extra) {
    char msg[256];
    int len;
    {
        std::lock_guard<std::mutex> g(lock);
        len = snprintf(msg, sizeof(msg), "%s rtsp://%s:%u/ RTSP/1.0\r\nCSeq: %d\r\n%s\r\n", method,
                       rep.serverAddr, rep.serverPort, ++m_cseq, extra);
    }
    if (SendCtrl(msg, len) < 0) _close_ctrl("cannot send a request");
}

void ReceiverEmulator::Impl::_on_reply(const std::string& msg) {
    const char* text = msg.c_str();
    int next = -1;
    int sdpRate = 0, sdpBits = 0;
    {
        std::lock_guard<std::mutex> g(lock);
        switch (rep.handshake) {
            case RX_HS_WAIT_SDP:
                _check_status_l(text, "DESCRIBE");
                _parse_sdp_l(text);
                sdpRate = rep.sdpRate;
                sdpBits = rep.sdpBits;
                next = RX_HS_WAIT_SETUP;
                break;
            case RX_HS_WAIT_SETUP: {
                _check_status_l(text, "SETUP");
                unsigned int c1 = 0, c2 = 0, s1 = 0, s2 = 0;
                const char* t = strstr(text, "Transport: RTP/AVP;unicast;client_port=");
                if (!t ||
                    sscanf(t, "Transport: RTP/AVP;unicast;client_port=%u-%u;server_port=%u-%u", &c1,
                           &c2, &s1, &s2) != 4 ||
                    c1 != rep.rtpPort || c2 != rep.rtcpPort) {
                    _error_l("SETUP reply: transport not as requested (client_port=%u-%u)", c1, c2);
                    rep.handshakeErrors++;
                }
                next = RX_HS_WAIT_PLAY;
                break;
            }
            case RX_HS_WAIT_PLAY:
                _check_status_l(text, "PLAY");
                next = RX_HS_PLAYING;
                break;
            default:
                rep.protocolErrors++;
                _error_l("reply while no request is pending");
                return;
        }
        _step_l(next);
    }
    if (sdpRate && sdpBits && cfg->playSink) cfg->playSink->OnPlayFormat(sdpRate, sdpBits);
    char extra[96];
    if (next == RX_HS_WAIT_SETUP) {
        snprintf(extra, sizeof(extra), "Transport: RTP/AVP;unicast;client_port=%u-%u\r\n",
                 rx_local_port(m_rtpSock), rx_local_port(m_rtcpSock));
        _send_request("SETUP", extra);
    } else if (next == RX_HS_WAIT_PLAY) {
        std::unique_lock<std::mutex> g(lock);
        if (stopAtSetup) {
            m_deadline = 0;  // silent on purpose: not a handshake error
            return;
        }
        g.unlock();
        _send_request("PLAY", "");
    }
}

bool ReceiverEmulator::Impl::HasCommand(const void* kw) const {
    for (const ReceiverCommand& c : cmds) {
        if (strcmp(c.keyword, (const char*)kw) == 0) return true;
    }
    return false;
}

void ReceiverEmulator::Impl::_on_command(const std::string& msg, long long local) {
    static const char* const known[] = {"DEVICETYPE",  "UITYPE", "VOLUME", "START",
                                        "SEEK",        "PAUSE",  "RESUME", "BYE",
                                        "QUIT_SENDER", "CLOCK",  "ALIVE"};
    ReceiverCommand c;
    memset(&c, 0, sizeof(c));
    rx_copy_text(c.text, sizeof(c.text), msg.c_str());
    size_t wordLen = strcspn(c.text, " :\r\n");
    const char* keyword = "?";
    for (const char* k : known) {
        if (strlen(k) == wordLen && strncmp(c.text, k, wordLen) == 0) keyword = k;
    }
    rx_copy_text(c.keyword, sizeof(c.keyword), keyword);
    c.localUs = local;
    c.masterUs = cfg->timeSync ? MasterOf(local) : 0;
    const char* reply = nullptr;
    char clockReply[48];
    bool startHandshake = false;
    {
        std::lock_guard<std::mutex> g(lock);
        rep.commands++;
        long v = 0;
        bool numeric = strcmp(keyword, "DEVICETYPE") == 0 || strcmp(keyword, "UITYPE") == 0 ||
                       strcmp(keyword, "VOLUME") == 0;
        if (numeric) {
            char label[20];
            snprintf(label, sizeof(label), "%s: ", keyword);
            if (!header_int(c.text, label, &v) || (keyword[0] == 'D' && (v < 0 || v > 7))) {
                rep.protocolErrors++;
                _error_l("malformed %s command", keyword);
            }
            c.value = (int)v;
            if (keyword[0] == 'D') rep.deviceType = c.value;
            if (keyword[0] == 'U') rep.uiType = c.value;
            if (keyword[0] == 'V') rep.volume = c.value;
        } else if (strcmp(keyword, "START") == 0) {
            char role[20] = {0}, ref[40] = {0}, refAddr[20] = {0};
            unsigned int refPort = 0;
            bool roleOk = false;
            header_value(c.text, "\r\nRole: ", role, sizeof(role));
            for (const char* r : kRoles) roleOk = roleOk || strcmp(role, r) == 0;
            bool refOk = header_value(c.text, "\r\nRef: ", ref, sizeof(ref)) &&
                         sscanf(ref, "%19[^:]:%u", refAddr, &refPort) >= 1 && refPort < 65536;
            // With no reference receiver the address may be empty: "Ref: :0".
            if (!refOk && strcmp(ref, ":0") == 0) refOk = true;
            if (!roleOk || !refOk) {
                rep.handshakeErrors++;
                _error_l("START not as expected (Ref \"%s\", Role \"%s\")", ref, role);
            }
            rx_copy_text(rep.startRef, sizeof(rep.startRef), ref);
            rx_copy_text(rep.startRole, sizeof(rep.startRole), role);
            startHandshake = rep.handshake == RX_HS_WAIT_START;
            if (startHandshake) _step_l(RX_HS_WAIT_SDP);
        } else if (strcmp(keyword, "BYE") == 0) {
            if (answerBye) reply = "BYE_ACK\r\n\r\n";
        } else if (strcmp(keyword, "ALIVE") == 0) {
            reply = "ALIVED\r\n\r\n";
        } else if (strcmp(keyword, "CLOCK") == 0) {
            long long master = c.masterUs ? c.masterUs : local;
            snprintf(clockReply, sizeof(clockReply), "Clock: %u\r\n\r\n",
                     (unsigned int)(master / 1000));
            reply = clockReply;
        } else if (strcmp(keyword, "PAUSE") == 0 || strcmp(keyword, "SEEK") == 0) {
            m_expectGap = true;
            // A seek's gap comes before its SEEK command: explain a fresh one.
            if (keyword[1] == 'E' && m_lastGapUs != 0 && local - m_lastGapUs < 3000000 &&
                rep.seqGaps > 0) {
                rep.seqGaps--;
                rep.expectedGaps++;
                m_lastGapUs = 0;
            }
        } else if (keyword[0] == '?') {
            rep.protocolErrors++;
            _error_l("unknown command \"%.40s\"", c.text);
        }
        cmds.push_back(c);
        changed.notify_all();
    }
    if (startHandshake) _send_request("DESCRIBE", "");
    if (reply) SendCtrl(reply, (int)strlen(reply));
    if (cfg->playSink) {
        static const struct {
            const char* keyword;
            int event;
        } plays[] = {{"SEEK", RX_PLAY_SEEK},
                     {"PAUSE", RX_PLAY_PAUSE},
                     {"RESUME", RX_PLAY_RESUME},
                     {"BYE", RX_PLAY_STOP}};
        for (const auto& p : plays) {
            if (strcmp(keyword, p.keyword) == 0) cfg->playSink->OnPlayEvent(p.event);
        }
    }
}

void ReceiverEmulator::Impl::_on_rtp() {
    unsigned char buf[2048];
    struct iovec iov = {buf, sizeof(buf)};
    alignas(struct cmsghdr) char ctl[CMSG_SPACE(sizeof(struct timespec))];
    struct msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctl;
    msg.msg_controllen = sizeof(ctl);
    ssize_t n = recvmsg(m_rtpSock, &msg, MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) return;
    long long local = Now();
    // The kernel stamps on the wall clock: back-date by the datagram's age.
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_TIMESTAMPNS) continue;
        struct timespec at, wall;
        memcpy(&at, CMSG_DATA(c), sizeof(at));
        clock_gettime(CLOCK_REALTIME, &wall);
        long long ageUs =
            (wall.tv_sec - at.tv_sec) * 1000000LL + (wall.tv_nsec - at.tv_nsec) / 1000;
        if (ageUs > 0 && ageUs < 10000000LL) local -= ageUs;
    }
    long long master = cfg->timeSync ? MasterOf(local) : 0;
    const unsigned char* payload = buf + 12;
    bool silent = true;
    if (n == kRtpPacketLen) {
        for (int i = 0; i < kRtpPayloadLen && silent; i++) silent = payload[i] == 0;
    }
    unsigned short seq = (unsigned short)((buf[2] << 8) | buf[3]);
    unsigned int ts = ((unsigned int)buf[4] << 24) | ((unsigned int)buf[5] << 16) |
                      ((unsigned int)buf[6] << 8) | buf[7];
    bool keep;
    {
        std::lock_guard<std::mutex> g(lock);
        if (n != kRtpPacketLen) {
            if (rep.badLength++ == 0)
                _error_l("RTP datagram of %zd bytes (expected %d)", n, kRtpPacketLen);
            changed.notify_all();
            return;
        }
        if (buf[0] != 0x80) {
            if (rep.badVersion++ == 0) _error_l("RTP first byte 0x%02x (expected 0x80)", buf[0]);
            return;
        }
        if ((buf[1] & 0x7F) != 96) {
            if (rep.badPayloadType++ == 0)
                _error_l("RTP payload type %d (expected 96)", buf[1] & 0x7F);
            return;
        }
        if (!(buf[1] & 0x80) && rep.badMarker++ == 0) _error_l("RTP marker bit clear");
        long long ext = seq;
        long long bps = (long long)(rep.sdpRate ? rep.sdpRate : 44100) * 2 *
                        ((rep.sdpBits ? rep.sdpBits : 16) / 8);
        if (m_haveSeq) {
            unsigned short diff = (unsigned short)(seq - (unsigned short)m_extSeq);
            if (diff == 0 || diff >= 0x8000) {
                rep.outOfOrder++;
                return;
            }
            ext = m_extSeq + diff;
            if (diff > 1) {
                rep.lostPackets += diff - 1u;
                if (m_expectGap) {
                    rep.expectedGaps++;
                } else {
                    rep.seqGaps++;
                    m_lastGapUs = local;
                }
            }
            m_expectGap = false;
            // Timestamps are the sequence's position on the sender's clock.
            long long expect =
                (long long)rep.firstTimestamp + (ext - m_firstExtSeq) * kRtpPayloadLen * 1000 / bps;
            long long off = (long long)(int)(ts - (unsigned int)expect);
            if (off > 1 || off < -1) {
                if (rep.timestampErrors++ == 0)
                    _error_l("RTP timestamp %u, expected %lld", ts, expect);
            }
        } else {
            m_haveSeq = true;
            m_firstExtSeq = ext;
            rep.firstTimestamp = ts;
        }
        m_extSeq = ext;
        rep.lastSeq = seq;
        rep.lastTimestamp = ts;
        rep.packets++;
        rep.bytes += kRtpPayloadLen;
        if (silent) rep.silentPackets++;
        if (master != 0 && margins.size() < kMaxMargins) {
            long long masterMs = master / 1000;
            long long diffMs = (int)(ts - (unsigned int)masterMs);
            margins.push_back(diffMs * 1000 - master % 1000);
        }
        // Arrival on the own clock against the packet's place in the schedule
        // (its sequence's position, to the microsecond): only differences
        // count, so no clock estimate that may still be settling comes in.
        if (lates.size() < kMaxMargins)
            lates.push_back(local - (ext - m_firstExtSeq) * kRtpPayloadLen * 1000000LL / bps);
        keep = cfg->keepPcm && pcm.size() + kRtpPayloadLen <= cfg->pcmLimitBytes;
        if (keep) pcm.insert(pcm.end(), payload, payload + kRtpPayloadLen);
        changed.notify_all();
    }
    if (m_wav && fwrite(payload, 1, kRtpPayloadLen, m_wav) == (size_t)kRtpPayloadLen)
        m_wavBytes += kRtpPayloadLen;
    if (cfg->playSink) cfg->playSink->OnPlayPacket(seq, ts, payload, kRtpPayloadLen);
}

bool ReceiverEmulator::Impl::WaitFor(unsigned int timeoutMs, bool (Impl::*pred)(const void*) const,
                                     const void* arg) {
    std::unique_lock<std::mutex> g(lock);
    return changed.wait_for(g, std::chrono::milliseconds(timeoutMs),
                            [&] { return (this->*pred)(arg); });
}

ReceiverReport ReceiverEmulator::Impl::Report() {
    std::vector<long long> sorted, late;
    ReceiverReport r;
    {
        std::lock_guard<std::mutex> g(lock);
        r = rep;
        sorted = margins;
        late = lates;
    }
    TimeSyncClientStats st = clock.Stats();
    r.clockSynced = cfg->timeSync && st.haveEstimate;
    r.clockOffsetUs = st.lastOffsetUs;
    r.clockErrorCount = st.errors.count;
    r.clockErrorP50Us = st.errors.p50Us;
    r.clockErrorP95Us = st.errors.p95Us;
    r.clockErrorMaxUs = st.errors.maxUs;
    r.clockConvergeMs = st.errors.convergeUs < 0 ? -1 : st.errors.convergeUs / 1000;
    std::sort(sorted.begin(), sorted.end());
    r.marginCount = (unsigned int)sorted.size();
    r.marginMinMs = sorted.empty() ? 0 : sorted.front() / 1000.0;
    r.marginMedianMs = percentile_sorted(sorted, 0.5) / 1000.0;
    r.marginP99Ms = percentile_sorted(sorted, 0.01) / 1000.0;  // 99 % arrive at least this early
    std::sort(late.begin(), late.end());
    long long onTime = late.empty() ? 0 : late.front();
    r.latenessMedianMs = (percentile_sorted(late, 0.5) - onTime) / 1000.0;
    r.latenessP99Ms = (percentile_sorted(late, 0.99) - onTime) / 1000.0;
    r.latenessMaxMs = late.empty() ? 0 : (late.back() - onTime) / 1000.0;
    return r;
}

namespace {

// Length of the well-formed UTF-8 sequence at p, 0 when it is not one.
size_t utf8_len(const unsigned char* p) {
    size_t n = p[0] < 0x80         ? 1
               : (p[0] >> 5) == 6  ? 2
               : (p[0] >> 4) == 14 ? 3
               : (p[0] >> 3) == 30 ? 4
                                   : 0;
    if (n == 0 || (n > 1 && p[0] < 0xC2)) return 0;  // stray continuation or overlong
    for (size_t i = 1; i < n; i++) {
        if ((p[i] & 0xC0) != 0x80) return 0;  // also stops at the terminating NUL
    }
    return n;
}

// "key":"text", with the text escaped; bytes that are not UTF-8 (the
// sender's texts are not trusted to be) become U+FFFD.
void json_text(std::string* out, const char* key, const char* text) {
    *out += '"';
    *out += key;
    *out += "\":\"";
    for (const unsigned char* p = (const unsigned char*)text; *p;) {
        size_t n = utf8_len(p);
        char esc[8];
        if (n == 0) {
            *out += "\\ufffd";
            n = 1;
        } else if (*p == '"' || *p == '\\') {
            *out += '\\';
            *out += (char)*p;
        } else if (*p < 0x20) {
            snprintf(esc, sizeof(esc), "\\u%04x", *p);
            *out += esc;
        } else {
            out->append((const char*)p, n);
        }
        p += n;
    }
    *out += "\",";
}

void json_num(std::string* out, const char* key, double v) {
    char num[64];
    snprintf(num, sizeof(num), "\"%s\":%.15g,", key, v);
    *out += num;
}

}  // namespace

std::string ReceiverEmulator::Impl::Json() {
    ReceiverReport r = Report();
    std::string s = "{";
    json_text(&s, "address", cfg->address);
    json_text(&s, "name", cfg->name);
    const struct {
        const char* key;
        double v;
    } nums[] = {{"packets", (double)r.packets},
                {"bytes", (double)r.bytes},
                {"seq_gaps", (double)r.seqGaps},
                {"lost_packets", (double)r.lostPackets},
                {"expected_gaps", (double)r.expectedGaps},
                {"out_of_order", (double)r.outOfOrder},
                {"bad_length", (double)r.badLength},
                {"bad_version", (double)r.badVersion},
                {"bad_payload_type", (double)r.badPayloadType},
                {"bad_marker", (double)r.badMarker},
                {"timestamp_errors", (double)r.timestampErrors},
                {"silent_packets", (double)r.silentPackets},
                {"first_timestamp", (double)r.firstTimestamp},
                {"last_timestamp", (double)r.lastTimestamp},
                {"commands", (double)r.commands},
                {"handshake", (double)r.handshake},
                {"handshake_errors", (double)r.handshakeErrors},
                {"protocol_errors", (double)r.protocolErrors},
                {"device_requests", (double)r.deviceRequests},
                {"searches_for_me", (double)r.searchesForMe},
                {"connects", (double)r.connects},
                {"sdp_rate", (double)r.sdpRate},
                {"sdp_bits", (double)r.sdpBits},
                {"volume", (double)r.volume},
                {"device_type", (double)r.deviceType},
                {"clock_synced", r.clockSynced ? 1.0 : 0.0},
                {"clock_offset_us", (double)r.clockOffsetUs},
                {"clock_error_count", (double)r.clockErrorCount},
                {"clock_error_p50_us", (double)r.clockErrorP50Us},
                {"clock_error_p95_us", (double)r.clockErrorP95Us},
                {"clock_error_max_us", (double)r.clockErrorMaxUs},
                {"clock_converge_ms", (double)r.clockConvergeMs},
                {"margin_count", (double)r.marginCount},
                {"margin_min_ms", r.marginMinMs},
                {"margin_median_ms", r.marginMedianMs},
                {"margin_p99_ms", r.marginP99Ms},
                {"lateness_median_ms", r.latenessMedianMs},
                {"lateness_p99_ms", r.latenessP99Ms},
                {"lateness_max_ms", r.latenessMaxMs}};
    for (const auto& n : nums) json_num(&s, n.key, n.v);
    json_text(&s, "sdp_title", r.sdpTitle);
    json_text(&s, "start_role", r.startRole);
    s += "\"commands_received\":[";
    std::vector<ReceiverCommand> list;
    {
        std::lock_guard<std::mutex> g(lock);
        list = cmds;
    }
    for (size_t i = 0; i < list.size(); i++) {
        std::string one = "{";
        json_text(&one, "keyword", list[i].keyword);
        json_num(&one, "value", list[i].value);
        json_num(&one, "master_ms", (double)(list[i].masterUs / 1000));
        one.back() = '}';
        s += one;
        if (i + 1 < list.size()) s += ',';
    }
    s += "],\"errors\":[";
    for (int i = 0; i < r.nErrors; i++) {
        std::string one;
        json_text(&one, "e", r.errors[i]);
        one.pop_back();      // the comma
        s += one.substr(4);  // just the quoted text
        if (i + 1 < r.nErrors) s += ',';
    }
    s += "]}";
    return s;
}

// ---- The public face: forwards to the implementation. ----

ReceiverEmulator::ReceiverEmulator(const ReceiverConfig& cfg)
    : m(nullptr), m_cfg(cfg), m_rtpPort(0) {
    m_cfg.address[sizeof(m_cfg.address) - 1] = 0;
    m_cfg.mac[sizeof(m_cfg.mac) - 1] = 0;
    m_cfg.guid[sizeof(m_cfg.guid) - 1] = 0;
    m_cfg.name[sizeof(m_cfg.name) - 1] = 0;
    m_cfg.group[sizeof(m_cfg.group) - 1] = 0;
    m_cfg.wavPath[sizeof(m_cfg.wavPath) - 1] = 0;
    m = new Impl(&m_cfg);
}

ReceiverEmulator::~ReceiverEmulator() {
    Stop();
    delete m;
}

int ReceiverEmulator::Start() {
    return m->Start(&m_rtpPort);
}
void ReceiverEmulator::Stop() {
    m->Stop();
}
long long ReceiverEmulator::LocalNowUs() const {
    return m->Now();
}
bool ReceiverEmulator::MasterNowUs(long long* masterUs) {
    return m_cfg.timeSync && m->clock.MasterNowUs(masterUs);
}

bool ReceiverEmulator::WaitForPackets(unsigned int n, unsigned int timeoutMs) {
    return m->WaitFor(timeoutMs, &Impl::HasPackets, &n);
}
bool ReceiverEmulator::WaitForHandshake(int state, unsigned int timeoutMs) {
    return m->WaitFor(timeoutMs, &Impl::InHandshake, &state);
}
bool ReceiverEmulator::WaitForCommand(const char* keyword, unsigned int timeoutMs) {
    return m->WaitFor(timeoutMs, &Impl::HasCommand, keyword);
}
bool ReceiverEmulator::WaitForDisconnect(unsigned int timeoutMs) {
    return m->WaitFor(timeoutMs, &Impl::Disconnected, nullptr);
}
bool ReceiverEmulator::WaitForClockSync(unsigned int timeoutMs) {
    for (unsigned int waited = 0;; waited += 10) {
        if (m->clock.Stats().haveEstimate) return true;
        if (waited >= timeoutMs) return false;
        PAL_ThreadSleep(10);
    }
}

ReceiverReport ReceiverEmulator::Report() {
    return m->Report();
}
std::string ReceiverEmulator::ReportJson() {
    return m->Json();
}

ClockErrorLog ReceiverEmulator::ClockErrors() {
    return m->clock.ErrorLog();
}

std::vector<ReceiverCommand> ReceiverEmulator::Commands() {
    std::lock_guard<std::mutex> g(m->lock);
    return m->cmds;
}

std::vector<unsigned char> ReceiverEmulator::Pcm() {
    std::lock_guard<std::mutex> g(m->lock);
    return m->pcm;
}

int ReceiverEmulator::WriteWav(const char* path) {
    std::vector<unsigned char> data;
    int rate, bits;
    {
        std::lock_guard<std::mutex> g(m->lock);
        data = m->pcm;
        rate = m->rep.sdpRate ? m->rep.sdpRate : 44100;
        bits = m->rep.sdpBits ? m->rep.sdpBits : 16;
    }
    return rx_wav_write(path, rate, 2, bits, data.data(), (uint32_t)data.size());
}

unsigned int ReceiverEmulator::SendJoin(unsigned int reqTs, int repeat) {
    {
        std::lock_guard<std::mutex> g(m->lock);
        if (reqTs == 0) reqTs = std::max(PAL_GetClock(), m->lastJoinTs + 1);
        m->lastJoinTs = reqTs;
    }
    char msg[1400];
    int len =
        snprintf(msg, sizeof(msg),
                 "JOIN %s\r\nMAC: %s\r\nGUID: %s\r\nNAME: %s\r\nVOL: %d\r\nREQ_TS: %u\r\n\r\n",
                 m_cfg.address, m_cfg.mac, m_cfg.guid, m_cfg.name, m_cfg.volume, reqTs);
    for (int i = 0; i < repeat; i++) m->SendGroup(msg, std::min(len, (int)sizeof(msg) - 1));
    return reqTs;
}

int ReceiverEmulator::SendExit() {
    char msg[128];
    int len = snprintf(msg, sizeof(msg), "EXIT %s\r\nMAC: %s\r\nGUID: %s\r\n\r\n", m_cfg.address,
                       m_cfg.mac, m_cfg.guid);
    return m->SendGroup(msg, len) == len ? 0 : -1;
}

int ReceiverEmulator::SendLeave(unsigned int reqTs) {
    if (reqTs == 0) {
        std::lock_guard<std::mutex> g(m->lock);
        reqTs = m->lastJoinTs ? m->lastJoinTs : PAL_GetClock();
    }
    return m->SendCtrlf("LEAVE\r\nREQ_TS: %u\r\n\r\n", reqTs);
}

int ReceiverEmulator::SendTeardown() {
    return m->SendCtrlf("TEARDOWN RTSP/1.0\r\n\r\n");
}

int ReceiverEmulator::SendVolumeChanged(int volume) {
    return m->SendCtrlf("VOLUME_CHANGED %d\r\n\r\n", volume);
}

int ReceiverEmulator::SendAlived() {
    return m->SendCtrlf("ALIVED\r\n\r\n");
}

int ReceiverEmulator::SendRaw(const char* text, int len) {
    return m->SendCtrl(text, len) == len ? 0 : -1;
}

void ReceiverEmulator::DropConnection() {
    m->SetFlag(&Impl::dropRequested, true);
}
void ReceiverEmulator::SetRefuseConnect(bool on) {
    m->SetFlag(&Impl::refuseConnect, on);
}
void ReceiverEmulator::SetStopReading(bool on) {
    m->SetFlag(&Impl::stopReading, on);
}
void ReceiverEmulator::SetAnswerBye(bool on) {
    m->SetFlag(&Impl::answerBye, on);
}
void ReceiverEmulator::SetAnswerDiscovery(bool on) {
    m->SetFlag(&Impl::answerDiscovery, on);
}
void ReceiverEmulator::SetFloodDescribe(bool on) {
    m->SetFlag(&Impl::floodDescribe, on);
}
void ReceiverEmulator::SetStopAtSetup(bool on) {
    m->SetFlag(&Impl::stopAtSetup, on);
}
