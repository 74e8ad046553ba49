// Receiver-side estimate of the master clock from time-sync exchanges.
//
// A pure component: it is fed the four time stamps of each completed
// exchange (t1 request sent and t4 response received on the receiver's own
// clock, t2 request received and t3 response sent on the master's clock, all
// microseconds) and answers "master time at this local time" and the
// reverse. It opens no socket and reads no clock, so it can be driven from
// recorded or synthetic exchanges. Not thread-safe: the owner serialises
// calls (the time-sync client holds its lock around every call). No
// allocation; fixed size.
//
// How (docs/time-sync-protocol.md has the full rules and error bounds):
// every exchange bounds the true offset (master minus local) between
// t3 - t4 and t2 - t1, because neither one-way delay can be negative, and
// the exchanges with the least delays bind hardest (the delay filter is
// built in: a slow exchange's loose bounds bind nothing). Over a window of
// the last CE_WINDOW exchanges the drift (rate difference) is the slope that
// leaves the most room between all the bounds (a minimax fit); the bounds,
// carried to the newest exchange along that drift and widened by its
// uncertainty, are put to a vote (the region most of them agree on, so a
// lone wrong exchange is outvoted), and the target offset is the middle of
// that region. The clock handed out steps to the target only while
// acquiring; after that it slews towards it at a bounded rate, so it never
// runs backwards. Exchanges beyond CE_STEP_US from the clock handed out are
// a master whose clock jumped once two agree: the estimate restarts (and
// steps).
#ifndef CLOCKESTIMATOR_H
#define CLOCKESTIMATOR_H

enum {
    CE_WINDOW = 128,  // exchanges kept
    CE_ACQUIRE = 8,   // exchanges during which the clock may step
};

// A target further than this from the clock handed out is a jump of the
// master's clock, not a measurement error (microseconds).
const long long CE_STEP_US = 20000;
// Longest round trip worth using: one second of queueing says nothing.
const long long CE_MAX_DELAY_US = 1000000;

// AddExchange results.
enum ClockExchangeResult {
    CE_USED = 0,       // taken into the estimate
    CE_RESTARTED = 1,  // the master's clock jumped; the estimate restarted from this one
    CE_REJECTED = -1,  // impossible or useless time stamps; nothing changed
};

struct ClockEstimatorStatus {
    bool have;              // at least one exchange used
    bool acquired;          // past acquisition: corrections slew, never step
    unsigned int used;      // exchanges used since construction
    unsigned int rejected;  // exchanges refused
    unsigned int restarts;  // jumps of the master's clock seen
    unsigned int inWindow;  // exchanges in the window now
    long long minDelayUs;   // least round trip in the window, -1 = none
    long long targetUs;     // estimated offset (master - local) at the newest exchange
    long long boundUs;      // half-width of the agreed region: the target's error bound
    double driftPpm;        // master rate against local, parts per million
    double driftSigmaPpm;   // uncertainty of that drift (half the spread of drifts that fit)
};

class ClockEstimator {
public:
    ClockEstimator();
    void Reset();
    // One completed exchange; see ClockExchangeResult.
    int AddExchange(long long t1, long long t2, long long t3, long long t4);
    // Master time at a local time; false before the first exchange.
    bool ToMaster(long long localUs, long long* masterUs) const;
    // Local time at which the master clock reads masterUs; false likewise.
    bool ToLocal(long long masterUs, long long* localUs) const;
    ClockEstimatorStatus Status() const;

private:
    struct Sample {
        long long t1, t4;  // local send and receive
        long long upper;   // t2 - t1: offset plus the forward delay
        long long lower;   // t3 - t4: offset minus the backward delay
        long long delay;   // upper - lower
        bool outvoted;     // outside the region agreed at the last update
    };

    long long _offset_at(long long localUs) const;
    long long _width(long long ref, double b) const;
    void _restart();
    void _fit_drift(long long ref);
    bool _agree(long long ref, long long* lo, long long* hi);
    void _steer(long long now);

    Sample m_win[CE_WINDOW];
    int m_n;        // samples in m_win
    int m_next;     // slot of the next sample
    Sample m_jump;  // an exchange far from the clock, held until a second agrees
    bool m_haveJump;
    ClockEstimatorStatus m_st;
    double m_drift;       // master rate - 1 (not ppm)
    double m_driftSigma;  // half the spread of drifts that fit; before a fit, the widest credible
    // The clock handed out: offset(t) = m_o0 + m_rate * (t - m_origin) plus a
    // correction growing at m_slew per us up to m_corr (signed).
    long long m_origin;
    long long m_o0;
    double m_rate;
    double m_slew;
    long long m_corr;
};

#endif
