// Receiver side of the time-synchronisation protocol (docs/time-sync-protocol.md).
//
// Owns two UDP sockets bound to the receiver's own address (one on the group's
// time-sync port for the master's announcements, one on an ephemeral port for
// requests and responses) and one thread that sends requests, reads responses
// and keeps the estimate of the master clock. The local clock is pluggable,
// so tests can give the receiver an artificial offset and drift.
// Locks: m_lock guards the samples and the estimate; never held across I/O.
#ifndef TIMESYNCCLIENT_H
#define TIMESYNCCLIENT_H

#include <atomic>
#include <mutex>
#include <thread>

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
    unsigned int fastCount;         // requests sent at the fast pace (50)
    unsigned int steadyIntervalMs;  // request pace afterwards (1000)
};

// Defaults above for ownAddr.
void TimeSyncClientDefaults(TimeSyncClientConfig* cfg, const char* ownAddr);

struct TimeSyncClientStats {
    unsigned int requests;    // requests sent
    unsigned int responses;   // well-formed responses used
    unsigned int announces;   // well-formed announcements heard
    unsigned int malformed;   // datagrams that failed to parse or were not for us
    unsigned int stale;       // well-formed answers to an older request, not used
    unsigned int clockSteps;  // times the master clock jumped and the estimate restarted
    long long minDelayUs;     // best round trip seen (-1 = none yet)
    long long lastOffsetUs;   // master - local of the latest estimate
    double driftPpm;          // estimated rate of master against local
    bool haveEstimate;
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

private:
    struct Sample {
        long long local;   // local midpoint of the exchange
        long long offset;  // master - local
        long long delay;   // round trip less the master's own time
    };
    enum { kMaxSamples = 64 };

    void _thread_main();
    void _send_request();
    void _read_response();
    void _read_announce();
    void _add_sample_l(const Sample& s);
    void _refit_l();

    TimeSyncClientConfig m_cfg;
    int m_groupSock;
    int m_reqSock;
    std::thread m_thread;
    std::atomic<bool> m_exit;

    std::mutex m_lock;  // guards everything below
    char m_master[20];
    Sample m_samples[kMaxSamples];
    int m_nSamples;
    int m_next;
    unsigned int m_reqId;
    long long m_lastT1;
    bool m_have;
    long long m_refLocal;  // estimate: offset = m_a + m_b * (local - m_refLocal)
    double m_a;
    double m_b;
    TimeSyncClientStats m_stats;
};

#endif
