// Receiver side of the time-synchronisation protocol (see TimeSyncClient.h).
//
// Estimation: every exchange gives (t1, t2, t3, t4); its offset is
// ((t2 - t1) + (t3 - t4)) / 2 and its delay (t4 - t1) - (t3 - t2). Queueing
// only ever adds delay, so exchanges near the smallest delay of the window are
// the trustworthy ones; a straight line fitted through them (offset against
// local time) gives both the offset and the drift of the master.
#include "TimeSyncClient.h"

#include <arpa/inet.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "PAL_Clock.h"
#include "RxSocket.h"
#include "TimeSyncWire.h"

namespace {

// A sample is kept for the fit when its delay is within this of the best.
long long delay_margin(long long minDelay) {
    return std::max(20LL, minDelay / 2);
}

// Least announcements-driven request spacing, so a flood of announcements
// cannot make us flood the master.
const long long kMinRequestGapUs = 5000;

// A change of the offset beyond this is a step of the master's clock.
const double kStepUs = 20000;

}  // namespace

void TimeSyncClientDefaults(TimeSyncClientConfig* cfg, const char* ownAddr) {
    memset(cfg, 0, sizeof(*cfg));
    rx_copy_text(cfg->ownAddr, sizeof(cfg->ownAddr), ownAddr);
    rx_copy_text(cfg->groupAddr, sizeof(cfg->groupAddr), "224.1.2.4");
    cfg->port = 1235;
    cfg->fastIntervalMs = 20;
    cfg->fastCount = 50;
    cfg->steadyIntervalMs = 1000;
}

TimeSyncClient::TimeSyncClient()
    : m_groupSock(-1),
      m_reqSock(-1),
      m_exit(false),
      m_nSamples(0),
      m_next(0),
      m_reqId(0),
      m_lastT1(0),
      m_have(false),
      m_refLocal(0),
      m_a(0),
      m_b(0) {
    memset(&m_cfg, 0, sizeof(m_cfg));
    memset(m_master, 0, sizeof(m_master));
    memset(&m_stats, 0, sizeof(m_stats));
    m_stats.minDelayUs = -1;
}

TimeSyncClient::~TimeSyncClient() {
    Stop();
}

int TimeSyncClient::Start(const TimeSyncClientConfig& cfg) {
    if (m_thread.joinable()) return -1;
    m_cfg = cfg;
    m_cfg.ownAddr[sizeof(m_cfg.ownAddr) - 1] = 0;
    m_cfg.groupAddr[sizeof(m_cfg.groupAddr) - 1] = 0;
    m_cfg.masterAddr[sizeof(m_cfg.masterAddr) - 1] = 0;
    SetMaster(m_cfg.masterAddr);
    m_groupSock = rx_udp_group(m_cfg.groupAddr, m_cfg.port, m_cfg.ownAddr);
    m_reqSock = rx_udp_bind(m_cfg.ownAddr, 0);
    if (m_groupSock < 0 || m_reqSock < 0) {
        Stop();
        return -1;
    }
    m_exit = false;
    m_thread = std::thread(&TimeSyncClient::_thread_main, this);
    return 0;
}

void TimeSyncClient::Stop() {
    m_exit = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_groupSock >= 0) close(m_groupSock);
    if (m_reqSock >= 0) close(m_reqSock);
    m_groupSock = m_reqSock = -1;
}

void TimeSyncClient::SetMaster(const char* addr) {
    std::lock_guard<std::mutex> g(m_lock);
    rx_copy_text(m_master, sizeof(m_master), addr);
}

long long TimeSyncClient::LocalNowUs() const {
    return m_cfg.clock ? m_cfg.clock(m_cfg.clockCtx) : PAL_GetBootTimeUsec();
}

bool TimeSyncClient::LocalToMasterUs(long long localUs, long long* masterUs) {
    std::lock_guard<std::mutex> g(m_lock);
    if (!m_have) return false;
    *masterUs = localUs + (long long)(m_a + m_b * (double)(localUs - m_refLocal));
    return true;
}

bool TimeSyncClient::MasterNowUs(long long* masterUs) {
    return LocalToMasterUs(LocalNowUs(), masterUs);
}

TimeSyncClientStats TimeSyncClient::Stats() {
    std::lock_guard<std::mutex> g(m_lock);
    TimeSyncClientStats s = m_stats;
    s.haveEstimate = m_have;
    s.lastOffsetUs = m_have ? (long long)(m_a + m_b * (double)(LocalNowUs() - m_refLocal)) : 0;
    s.driftPpm = m_b * 1e6;
    return s;
}

void TimeSyncClient::_thread_main() {
    long long nextOwn = LocalNowUs();
    long long lastSent = 0;
    while (!m_exit) {
        long long now = LocalNowUs();
        if (now >= nextOwn) {
            _send_request();
            lastSent = now;
            unsigned int sent;
            {
                std::lock_guard<std::mutex> g(m_lock);
                sent = m_stats.requests;
            }
            bool fast = sent < m_cfg.fastCount;
            nextOwn = now + 1000LL * (fast ? m_cfg.fastIntervalMs : m_cfg.steadyIntervalMs);
        }
        long long waitMs = (nextOwn - now) / 1000;
        struct pollfd pfd[2] = {{m_groupSock, POLLIN, 0}, {m_reqSock, POLLIN, 0}};
        int r = poll(pfd, 2, (int)std::max(0LL, std::min(waitMs, 100LL)));
        if (r <= 0) continue;
        if (pfd[1].revents & POLLIN) _read_response();
        if (pfd[0].revents & POLLIN) {
            _read_announce();
            // An announcement asks every receiver to measure now.
            long long t = LocalNowUs();
            if (t - lastSent >= kMinRequestGapUs) {
                _send_request();
                lastSent = t;
            }
        }
    }
}

void TimeSyncClient::_send_request() {
    struct sockaddr_in to;
    TswRequest req;
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (!m_master[0] || !rx_sockaddr(m_master, m_cfg.port, &to)) return;
        req.id = ++m_reqId;
        m_stats.requests++;
    }
    unsigned char buf[TSW_REQUEST_LEN];
    req.t1 = LocalNowUs();
    {
        std::lock_guard<std::mutex> g(m_lock);
        m_lastT1 = req.t1;
    }
    tsw_put_request(buf, &req);
    sendto(m_reqSock, buf, sizeof(buf), 0, (struct sockaddr*)&to, sizeof(to));
}

void TimeSyncClient::_read_response() {
    unsigned char buf[128];
    ssize_t n = recv(m_reqSock, buf, sizeof(buf), 0);
    long long t4 = LocalNowUs();
    if (n < 0) return;
    TswResponse res;
    std::lock_guard<std::mutex> g(m_lock);
    if (tsw_get_response(buf, (size_t)n, &res) != 0 || res.id > m_reqId || t4 < res.t1 ||
        res.t3 < res.t2) {
        m_stats.malformed++;
        return;
    }
    // Only the answer to our latest request counts: a late answer to an
    // older one would carry a queueing delay we can no longer bound. On a
    // busy phone that is normal, not a fault of the master.
    if (res.id != m_reqId || res.t1 != m_lastT1) {
        m_stats.stale++;
        return;
    }
    Sample s;
    s.delay = (t4 - res.t1) - (res.t3 - res.t2);
    s.offset = ((res.t2 - res.t1) + (res.t3 - t4)) / 2;
    s.local = res.t1 + (t4 - res.t1) / 2;
    m_stats.responses++;
    _add_sample_l(s);
}

void TimeSyncClient::_read_announce() {
    unsigned char buf[128];
    struct sockaddr_in from;
    socklen_t fromLen = sizeof(from);
    ssize_t n = recvfrom(m_groupSock, buf, sizeof(buf), 0, (struct sockaddr*)&from, &fromLen);
    if (n < 0) return;
    TswAnnounce a;
    std::lock_guard<std::mutex> g(m_lock);
    if (tsw_get_announce(buf, (size_t)n, &a) != 0) {
        m_stats.malformed++;
        return;
    }
    m_stats.announces++;
    struct in_addr addr;
    addr.s_addr = a.masterAddr != 0 ? a.masterAddr : from.sin_addr.s_addr;
    char text[INET_ADDRSTRLEN] = {0};
    if (inet_ntop(AF_INET, &addr, text, sizeof(text)))
        rx_copy_text(m_master, sizeof(m_master), text);
}

void TimeSyncClient::_add_sample_l(const Sample& s) {
    // A master that restarted with another clock: forget the old line. A
    // jump this large cannot be queueing, which is bounded by the delay.
    double predicted = m_a + m_b * (double)(s.local - m_refLocal);
    if (m_have && std::abs((double)s.offset - predicted) > kStepUs + (double)s.delay) {
        m_nSamples = 0;
        m_next = 0;
        m_b = 0;
        m_stats.minDelayUs = -1;
        m_stats.clockSteps++;
    }
    m_samples[m_next] = s;
    m_next = (m_next + 1) % kMaxSamples;
    if (m_nSamples < kMaxSamples) m_nSamples++;
    if (m_stats.minDelayUs < 0 || s.delay < m_stats.minDelayUs) m_stats.minDelayUs = s.delay;
    _refit_l();
}

void TimeSyncClient::_refit_l() {
    long long minDelay = m_samples[0].delay;
    for (int i = 1; i < m_nSamples; i++) minDelay = std::min(minDelay, m_samples[i].delay);
    long long limit = minDelay + delay_margin(minDelay);
    // Centre on the newest sample so the line is most exact where it is used.
    long long ref = m_samples[(m_next + kMaxSamples - 1) % kMaxSamples].local;
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    long long first = 0, last = 0;
    for (int i = 0; i < m_nSamples; i++) {
        const Sample& s = m_samples[i];
        if (s.delay > limit) continue;
        double x = (double)(s.local - ref), y = (double)s.offset;
        if (n == 0 || s.local < first) first = s.local;
        if (n == 0 || s.local > last) last = s.local;
        n++;
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    double b = m_b;
    double den = n * sxx - sx * sx;
    // A slope needs a spread of samples; before that keep the last one.
    if (n >= 8 && last - first >= 200000 && den > 0) b = (n * sxy - sx * sy) / den;
    if (b > 1e-3 || b < -1e-3) b = 0;  // no real clock drifts by 0.1 %
    m_a = (sy - b * sx) / n;
    m_b = b;
    m_refLocal = ref;
    m_have = true;
}
