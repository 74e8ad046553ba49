// Receiver side of the time-synchronisation protocol (docs/time-sync-protocol.md).
//
// Owns two UDP sockets bound to the receiver's own address (one on the group's
// time-sync port for the master's announcements, one on an ephemeral port for
// requests and responses), one thread that sends requests and reads
// responses, and the ClockEstimator fed with every usable exchange. Arrivals
// are stamped by the kernel, so t4 does not depend on when the thread ran.
// The local clock is pluggable, so tests can give the receiver an
// artificial offset and drift; the lab (ClockLab) can impair its datagrams
// both ways and log the estimate's error against the truth.
// Locks: m_lock guards the estimator, the error log and the counters; never
// held across I/O. The lab is the thread's alone.
#ifndef TIMESYNCCLIENT_H
#define TIMESYNCCLIENT_H

#include <atomic>
#include <mutex>
#include <thread>

#include "ClockEstimator.h"
#include "ClockLab.h"

// The receiver's own clock in microseconds.
typedef long long (*TimeSyncLocalClock)(void* ctx);

struct TimeSyncClientConfig {
    char ownAddr[20];          // bind address, e.g. "127.0.0.2"
    char groupAddr[20];        // "224.1.2.4"
    unsigned short port;       // 1235
    char masterAddr[20];       // "" = learn from the first announcement
    TimeSyncLocalClock clock;  // null = PAL_GetBootTimeUsec
    void* clockCtx;
    unsigned int fastIntervalMs;    // request pace while acquiring (20)
    unsigned int fastCount;         // requests sent at the fast pace (150: 3 s)
    unsigned int steadyIntervalMs;  // request pace afterwards (250)
    NetLabConfig lab;               // impairments on every datagram (none)
    // Sample the estimate's error against this host's boot clock (right
    // when the master runs on this host), from the first announcement on;
    // the steady part's summary starts settleUs later (3 s).
    bool measureError;
    long long settleUs;
};

// Defaults above for ownAddr.
void TimeSyncClientDefaults(TimeSyncClientConfig* cfg, const char* ownAddr);

struct TimeSyncClientStats {
    unsigned int requests;    // requests sent
    unsigned int responses;   // well-formed responses used
    unsigned int announces;   // well-formed announcements heard
    unsigned int malformed;   // datagrams that failed to parse or were not for us
    unsigned int stale;       // well-formed answers to an older request, not used
    unsigned int rejected;    // exchanges with impossible time stamps, not used
    unsigned int clockSteps;  // times the master clock jumped and the estimate restarted
    long long minDelayUs;     // best round trip in the estimator's window (-1 = none yet)
    long long lastOffsetUs;   // master - local of the clock handed out, now
    long long boundUs;        // the estimator's own error bound (see ClockEstimator)
    double driftPpm;          // estimated rate of master against local
    bool haveEstimate;
    ClockErrorSummary errors;  // estimate minus truth (when measured)
};

class TimeSyncClient {
public:
    TimeSyncClient();
    ~TimeSyncClient();
    // Opens the sockets and starts the thread. 0 on success, -1 on failure.
    int Start(const TimeSyncClientConfig& cfg);
    void Stop();
    // Where requests go when announcements are not heard (e.g. from SEARCH).
    void SetMaster(const char* addr);

    long long LocalNowUs() const;
    // Master clock now / at a local time; false until the first response.
    bool MasterNowUs(long long* masterUs);
    bool LocalToMasterUs(long long localUs, long long* masterUs);
    TimeSyncClientStats Stats();
    ClockErrorLog ErrorLog();  // a copy of the error log (when measured)

private:
    void _thread_main();
    void _send_request();
    void _transmit(const unsigned char* buf, size_t len);
    void _transmit_late(unsigned char* buf, size_t len, long long heldUs);
    void _read(int sock, int tag);
    void _deliver_due(long long now);
    void _on_datagram(int tag, unsigned int fromAddr, const unsigned char* buf, size_t n,
                      long long arrived);
    void _on_response(const unsigned char* buf, size_t n, long long t4);
    void _on_announce(const unsigned char* buf, size_t n, unsigned int fromAddr);
    void _sample_error();

    TimeSyncClientConfig m_cfg;
    int m_groupSock;
    int m_reqSock;
    std::thread m_thread;
    std::atomic<bool> m_exit;
    NetLab m_lab;          // the thread's own
    long long m_lastSent;  // the thread's own: t1 of the last request

    std::mutex m_lock;  // guards everything below
    char m_master[20];
    unsigned int m_reqId;
    long long m_lastT1;
    bool m_answered;  // the latest request has had its answer
    ClockEstimator m_est;
    ClockErrorLog m_errors;
    TimeSyncClientStats m_stats;
};

#endif
