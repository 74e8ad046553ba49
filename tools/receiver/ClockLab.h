// The emulator's network and clock lab, in user space (this machine has no
// netem): impairments on the time-sync datagrams a receiver sends and
// receives, and the record of its clock's error against the truth.
//
// NetLab is a delay line: every datagram handed to it is dropped, delayed
// (a fixed delay plus a random jitter), held back further so that later ones
// overtake it, or doubled, as configured; the owner sends or reads it when it
// falls due. ClockErrorLog keeps the error of the receiver's estimate of the
// master clock (estimate minus truth) as a histogram, so a run of any length
// costs fixed memory. Both are pure (no sockets, no clock reads, no
// allocation) and not thread-safe: the time-sync client's thread owns them,
// and reads of the log go through the client's lock.
#ifndef CLOCKLAB_H
#define CLOCKLAB_H

#include <stddef.h>

enum NetLabJitter {
    LAB_JITTER_UNIFORM = 0,  // 0 .. jitterUs, evenly
    LAB_JITTER_EXP = 1,      // exponential with mean jitterUs (Wi-Fi's long tail)
};

struct NetLabConfig {
    long long delayUs;   // added to every datagram, each way
    long long jitterUs;  // plus a random part, independent per datagram
    int jitter;          // NetLabJitter
    double lossPct;      // datagrams dropped, percent
    double reorderPct;   // datagrams held reorderUs longer, so later ones overtake
    double dupPct;       // datagrams that arrive twice (each copy its own delay)
    long long reorderUs;
    unsigned int seed;  // 0 = fixed default
};

// No impairment (reorderUs 5 ms for when reordering is switched on).
void NetLabDefaults(NetLabConfig* cfg);
bool NetLabActive(const NetLabConfig* cfg);
// Applies one command-line option ("--net-delay-us" 300, "--net-jitter-us"
// 2000, "--net-jitter" uniform|exp, "--net-loss" 1.5, "--net-reorder",
// "--net-dup", "--net-seed"): 1 applied, 0 not a lab option, -1 bad value.
int NetLabOption(NetLabConfig* cfg, const char* opt, const char* val);
// Help text lines for those options.
extern const char kNetLabHelp[];

struct NetLabStats {
    unsigned int passed, dropped, reordered, duplicated, overflow;
};

class NetLab {
public:
    enum { kSlots = 64, kMaxBytes = 64 };
    NetLab();
    void Configure(const NetLabConfig& cfg);
    bool Active() const { return m_active; }
    // One datagram sent or received at nowUs: queues none, one or two copies.
    // tag and addr are the owner's (what it is, where it goes or came from).
    void Push(int tag, unsigned int addr, const unsigned char* data, size_t len, long long nowUs);
    // Earliest due time, or -1 when nothing is queued.
    long long NextDue() const;
    // Takes the earliest datagram due at or before nowUs; false when none.
    // data must hold kMaxBytes; heldUs is the delay it was given.
    bool Pop(long long nowUs, int* tag, unsigned int* addr, unsigned char* data, size_t* len,
             long long* dueUs, long long* heldUs);
    NetLabStats Stats() const { return m_stats; }

private:
    struct Slot {
        bool used;
        int tag;
        unsigned int addr;
        long long due;
        long long held;
        size_t len;
        unsigned char data[kMaxBytes];
    };
    double _uniform();
    long long _delay();
    void _queue(int tag, unsigned int addr, const unsigned char* data, size_t len, long long now,
                long long due);

    NetLabConfig m_cfg;
    bool m_active;
    unsigned long long m_rng;
    Slot m_slots[kSlots];
    NetLabStats m_stats;
};

struct ClockErrorSummary {
    unsigned int count;    // samples in the steady part
    long long p50Us;       // median of estimate - truth (signed)
    long long p95Us;       // 95th percentile of |estimate - truth|
    long long maxUs;       // largest |estimate - truth|
    long long convergeUs;  // from the first announcement until |error| <= 100 us; -1 never
    long long lastOutUs;   // last time after convergence it was beyond 100 us; -1 never
};

class ClockErrorLog {
public:
    // Errors within +-kRangeUs are kept to the microsecond; beyond, in the
    // end bins (the maximum stays exact).
    enum { kRangeUs = 5000 };
    ClockErrorLog();
    void Reset();
    // The first announcement heard: convergence is timed from here, and the
    // steady part begins settleUs later. Later calls do nothing.
    void Start(long long nowUs, long long settleUs);
    bool Started() const { return m_start >= 0; }
    void Add(long long nowUs, long long errUs);
    // Adds another receiver's steady-part samples (a summary over many);
    // the times stay this log's own.
    void Merge(const ClockErrorLog& other);
    ClockErrorSummary Summary() const;

private:
    unsigned int m_hist[2 * kRangeUs + 1];
    unsigned int m_count;
    long long m_max;
    long long m_start;
    long long m_settle;
    long long m_converge;
    long long m_lastOut;
};

#endif
