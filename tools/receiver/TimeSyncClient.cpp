// Receiver side of the time-synchronisation protocol (see TimeSyncClient.h).
//
// The estimate itself is the ClockEstimator's; this file does the I/O.
#include "TimeSyncClient.h"

#include <arpa/inet.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "PAL_Clock.h"
#include "RxSocket.h"
#include "TimeSyncWire.h"

namespace {

// Least announcements-driven request spacing, so a flood of announcements
// cannot make us flood the master.
const long long kMinRequestGapUs = 5000;
// How often the error against the truth is sampled when that is measured.
const long long kErrorSampleUs = 50000;
// Longest a pair of clock reads for one error sample may take.
const long long kSampleReadUs = 20;
// What a datagram in the lab is.
enum { kTagRequest = 1, kTagResponse = 2, kTagAnnounce = 3 };

}  // namespace

void TimeSyncClientDefaults(TimeSyncClientConfig* cfg, const char* ownAddr) {
    memset(cfg, 0, sizeof(*cfg));
    rx_copy_text(cfg->ownAddr, sizeof(cfg->ownAddr), ownAddr);
    rx_copy_text(cfg->groupAddr, sizeof(cfg->groupAddr), "224.1.2.4");
    cfg->port = 1235;
    cfg->fastIntervalMs = 20;
    cfg->fastCount = 150;
    cfg->steadyIntervalMs = 250;
    NetLabDefaults(&cfg->lab);
    cfg->settleUs = 3000000;
}

TimeSyncClient::TimeSyncClient()
    : m_groupSock(-1), m_reqSock(-1), m_exit(false), m_reqId(0), m_lastT1(0), m_answered(false) {
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
    tsw_stamp_arrivals(m_reqSock);
    tsw_stamp_arrivals(m_groupSock);
    m_lab.Configure(m_cfg.lab);
    m_errors.Reset();
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
    return m_est.ToMaster(localUs, masterUs);
}

bool TimeSyncClient::MasterNowUs(long long* masterUs) {
    return LocalToMasterUs(LocalNowUs(), masterUs);
}

TimeSyncClientStats TimeSyncClient::Stats() {
    long long local = LocalNowUs(), master = 0;
    std::lock_guard<std::mutex> g(m_lock);
    TimeSyncClientStats s = m_stats;
    ClockEstimatorStatus e = m_est.Status();
    s.haveEstimate = m_est.ToMaster(local, &master);
    s.lastOffsetUs = s.haveEstimate ? master - local : 0;
    s.rejected = e.rejected;
    s.clockSteps = e.restarts;
    s.minDelayUs = e.minDelayUs;
    s.boundUs = e.boundUs;
    s.driftPpm = e.driftPpm;
    s.errors = m_errors.Summary();
    return s;
}

ClockErrorLog TimeSyncClient::ErrorLog() {
    std::lock_guard<std::mutex> g(m_lock);
    return m_errors;
}

void TimeSyncClient::_thread_main() {
    long long nextOwn = LocalNowUs();
    long long nextSample = nextOwn;
    while (!m_exit) {
        long long now = LocalNowUs();
        if (now >= nextOwn) {
            _send_request();
            unsigned int sent;
            {
                std::lock_guard<std::mutex> g(m_lock);
                sent = m_stats.requests;
            }
            bool fast = sent < m_cfg.fastCount;
            nextOwn = now + 1000LL * (fast ? m_cfg.fastIntervalMs : m_cfg.steadyIntervalMs);
        }
        _deliver_due(now);
        if (m_cfg.measureError && now >= nextSample) {
            _sample_error();
            nextSample = now + kErrorSampleUs;
        }
        // Sleep until the next request, lab delivery or error sample is due
        // (at most 100 ms, so that Stop is seen promptly).
        long long due = nextOwn, labDue = m_lab.NextDue();
        if (labDue >= 0 && labDue < due) due = labDue;
        if (m_cfg.measureError && nextSample < due) due = nextSample;
        long long waitMs = (due - now + 999) / 1000;
        struct pollfd pfd[2] = {{m_groupSock, POLLIN, 0}, {m_reqSock, POLLIN, 0}};
        int r = poll(pfd, 2, (int)std::max(0LL, std::min(waitMs, 100LL)));
        if (r <= 0) continue;
        if (pfd[1].revents & POLLIN) _read(m_reqSock, kTagResponse);
        if (pfd[0].revents & POLLIN) _read(m_groupSock, kTagAnnounce);
    }
}

void TimeSyncClient::_send_request() {
    TswRequest req;
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (!m_master[0]) return;
        req.id = ++m_reqId;
        m_stats.requests++;
    }
    unsigned char buf[TSW_REQUEST_LEN];
    req.t1 = LocalNowUs();
    m_lastSent = req.t1;
    {
        std::lock_guard<std::mutex> g(m_lock);
        m_lastT1 = req.t1;
        m_answered = false;
    }
    tsw_put_request(buf, &req);
    if (m_lab.Active()) {
        m_lab.Push(kTagRequest, 0, buf, sizeof(buf), req.t1);
    } else {
        _transmit(buf, sizeof(buf));
    }
}

void TimeSyncClient::_transmit(const unsigned char* buf, size_t len) {
    struct sockaddr_in to;
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (!rx_sockaddr(m_master, m_cfg.port, &to)) return;
    }
    sendto(m_reqSock, buf, len, 0, (struct sockaddr*)&to, sizeof(to));
}

// Sends a request the lab held back for heldUs. Its t1 becomes the time it
// would have left to arrive now through the lab's delay: the thread waking
// late then does not lengthen the forward trip more than the backward one
// (whose t4 is the exact due time).
void TimeSyncClient::_transmit_late(unsigned char* buf, size_t len, long long heldUs) {
    TswRequest req;
    if (tsw_get_request(buf, len, &req) != 0) return;
    req.t1 = LocalNowUs() - heldUs;
    tsw_put_request(buf, &req);
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (req.id == m_reqId) m_lastT1 = req.t1;
    }
    _transmit(buf, len);
}

// Reads one datagram with its arrival time; through the lab when it is on.
void TimeSyncClient::_read(int sock, int tag) {
    unsigned char buf[128];
    struct sockaddr_in from;
    socklen_t fromLen = sizeof(from);
    long long age = 0;
    ssize_t n = tsw_recv_stamped(sock, buf, sizeof(buf), &from, &fromLen, &age);
    long long arrived = LocalNowUs() - age;  // when it came, not when we got to it
    if (n < 0) return;
    if (m_lab.Active()) {
        m_lab.Push(tag, from.sin_addr.s_addr, buf, (size_t)n, arrived);
    } else {
        _on_datagram(tag, from.sin_addr.s_addr, buf, (size_t)n, arrived);
    }
}

// Sends or takes in whatever the lab has let through by now.
void TimeSyncClient::_deliver_due(long long now) {
    unsigned char buf[NetLab::kMaxBytes];
    int tag;
    unsigned int addr;
    size_t len;
    long long due, held;
    while (m_lab.Pop(now, &tag, &addr, buf, &len, &due, &held)) {
        if (tag == kTagRequest) {
            _transmit_late(buf, len, held);
        } else {
            _on_datagram(tag, addr, buf, len, due);  // it "arrived" when it fell due
        }
    }
}

void TimeSyncClient::_on_datagram(int tag, unsigned int fromAddr, const unsigned char* buf,
                                  size_t n, long long arrived) {
    if (tag == kTagResponse) {
        _on_response(buf, n, arrived);
        return;
    }
    _on_announce(buf, n, fromAddr);
    // An announcement asks every receiver to measure now.
    if (LocalNowUs() - m_lastSent >= kMinRequestGapUs) _send_request();
}

void TimeSyncClient::_on_response(const unsigned char* buf, size_t n, long long t4) {
    TswResponse res;
    std::lock_guard<std::mutex> g(m_lock);
    if (tsw_get_response(buf, n, &res) != 0 || res.id > m_reqId) {
        m_stats.malformed++;
        return;
    }
    // Only the first answer to our latest request counts: a late answer to
    // an older one, or a copy, would carry a queueing delay we can no longer
    // bound. On a busy phone that is normal, not a fault of the master.
    if (res.id != m_reqId || res.t1 != m_lastT1 || m_answered) {
        m_stats.stale++;
        return;
    }
    m_answered = true;
    if (m_est.AddExchange(res.t1, res.t2, res.t3, t4) == CE_REJECTED) return;
    m_stats.responses++;
}

void TimeSyncClient::_on_announce(const unsigned char* buf, size_t n, unsigned int fromAddr) {
    TswAnnounce a;
    long long truth = PAL_GetBootTimeUsec();
    std::lock_guard<std::mutex> g(m_lock);
    if (tsw_get_announce(buf, n, &a) != 0) {
        m_stats.malformed++;
        return;
    }
    m_stats.announces++;
    if (m_cfg.measureError) m_errors.Start(truth, m_cfg.settleUs);
    struct in_addr addr;
    addr.s_addr = a.masterAddr != 0 ? a.masterAddr : fromAddr;
    char text[INET_ADDRSTRLEN] = {0};
    if (inet_ntop(AF_INET, &addr, text, sizeof(text)))
        rx_copy_text(m_master, sizeof(m_master), text);
}

// Estimate minus truth now. The truth is this host's boot-time clock, which
// is the master's clock when the sender runs on the same machine.
void TimeSyncClient::_sample_error() {
    // The two clocks are read back to back; a read that lost the core in
    // between would measure the wait, not the estimate: read again.
    long long before = 0, local = 0, after = 0;
    for (int i = 0; i < 3; i++) {
        before = PAL_GetBootTimeUsec();
        local = LocalNowUs();
        after = PAL_GetBootTimeUsec();
        if (after - before <= kSampleReadUs) break;
    }
    if (after - before > kSampleReadUs) return;
    long long truth = before + (after - before) / 2;
    long long master = 0;
    std::lock_guard<std::mutex> g(m_lock);
    if (m_est.ToMaster(local, &master)) m_errors.Add(truth, master - truth);
}
