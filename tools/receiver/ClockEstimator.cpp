// Receiver-side estimate of the master clock (see ClockEstimator.h).
//
// Owns nothing but its fixed window; no thread of its own, no lock (the
// owner serialises calls), no clock reads, no I/O.
#include "ClockEstimator.h"

#include <math.h>
#include <string.h>

#include <algorithm>

namespace {

// Time stamps beyond this are nonsense (about 36 000 years in us); keeping
// them out also keeps every difference below inside 64 bits.
const long long kMaxTimeUs = 1LL << 60;
// No crystal a speaker or phone runs on is off by more: the drift credited
// before it is measured, and the largest drift believed.
const double kMaxDrift = 500e-6;
// Least uncertainty credited to a measured drift, and the resolution the
// drift is searched to.
const double kMinDriftSigma = 0.2e-6;
const double kDriftStep = 0.05e-6;
// The drift is fitted only over exchanges spanning at least this long.
const long long kFitSpanUs = 500000;
const int kFitMin = 4;
// Slewing: a correction is spread over at least kSlewUs, and the clock
// handed out never runs faster or slower than the drift by more than kMaxSlew.
const double kSlewUs = 250000.0;
const double kMaxSlew = 500e-6;

bool time_ok(long long t) {
    return t > -kMaxTimeUs && t < kMaxTimeUs;
}

struct Edge {
    long long at;
    int step;  // +1 an interval opens, -1 one closes
};

bool edge_before(const Edge& a, const Edge& b) {
    return a.at != b.at ? a.at < b.at : a.step > b.step;  // opens first: touching agrees
}

}  // namespace

ClockEstimator::ClockEstimator() {
    Reset();
}

void ClockEstimator::Reset() {
    memset(m_win, 0, sizeof(m_win));
    memset(&m_st, 0, sizeof(m_st));
    memset(&m_jump, 0, sizeof(m_jump));
    m_haveJump = false;
    _restart();
}

void ClockEstimator::_restart() {
    m_n = 0;
    m_next = 0;
    m_drift = 0;
    m_driftSigma = kMaxDrift;
    m_origin = 0;
    m_o0 = 0;
    m_rate = 0;
    m_slew = 0;
    m_corr = 0;
    m_st.have = false;
    m_st.acquired = false;
    m_st.minDelayUs = -1;
    m_st.targetUs = 0;
    m_st.boundUs = 0;
}

long long ClockEstimator::_offset_at(long long localUs) const {
    // Only the change since the origin goes through double, so a large
    // offset keeps its microseconds.
    double dt = (double)(localUs - m_origin);
    double change = m_rate * dt;
    if (dt > 0 && m_corr != 0)
        change += m_corr > 0 ? std::min(m_slew * dt, (double)m_corr)
                             : std::max(m_slew * dt, (double)m_corr);
    return m_o0 + (long long)llround(change);
}

bool ClockEstimator::ToMaster(long long localUs, long long* masterUs) const {
    if (!m_st.have || !time_ok(localUs)) return false;
    *masterUs = localUs + _offset_at(localUs);
    return true;
}

bool ClockEstimator::ToLocal(long long masterUs, long long* localUs) const {
    if (!m_st.have || !time_ok(masterUs)) return false;
    // The offset changes by under 0.1 % of any change of t, so each round
    // cuts the error a thousandfold: a handful settle even a far-off time.
    long long t = masterUs - m_o0;
    for (int i = 0; i < 10; i++) {
        long long next = masterUs - _offset_at(t);
        if (next == t) break;
        t = next;
    }
    *localUs = t;
    return true;
}

ClockEstimatorStatus ClockEstimator::Status() const {
    ClockEstimatorStatus s = m_st;
    s.inWindow = (unsigned int)m_n;
    s.driftPpm = m_drift * 1e6;
    s.driftSigmaPpm = m_driftSigma * 1e6;
    return s;
}

int ClockEstimator::AddExchange(long long t1, long long t2, long long t3, long long t4) {
    if (!time_ok(t1) || !time_ok(t2) || !time_ok(t3) || !time_ok(t4) || t4 < t1 || t3 < t2) {
        m_st.rejected++;
        return CE_REJECTED;
    }
    Sample s;
    s.t1 = t1;
    s.t4 = t4;
    s.upper = t2 - t1;
    s.lower = t3 - t4;
    s.delay = s.upper - s.lower;  // = (t4 - t1) - (t3 - t2)
    s.outvoted = false;
    const Sample* newest = m_n > 0 ? &m_win[(m_next + CE_WINDOW - 1) % CE_WINDOW] : nullptr;
    if (s.delay < 0 || s.delay > CE_MAX_DELAY_US || (newest && t4 < newest->t4)) {
        m_st.rejected++;
        return CE_REJECTED;
    }
    int result = CE_USED;
    if (m_st.have) {
        long long cur = _offset_at(t4);
        long long off = cur > s.upper ? cur - s.upper : cur < s.lower ? s.lower - cur : 0;
        if (off > CE_STEP_US) {
            // One exchange this far out is more likely wrong than the master
            // restarted: it takes a second one that agrees with it.
            long long mid = s.lower + s.delay / 2, was = m_jump.lower + m_jump.delay / 2;
            if (!m_haveJump || llabs(mid - was) > CE_STEP_US) {
                m_jump = s;
                m_haveJump = true;
                m_st.rejected++;
                return CE_REJECTED;
            }
            _restart();
            m_st.restarts++;
            m_win[m_next] = m_jump;
            m_next = (m_next + 1) % CE_WINDOW;
            m_n++;
            result = CE_RESTARTED;
        }
    }
    m_haveJump = false;
    m_win[m_next] = s;
    m_next = (m_next + 1) % CE_WINDOW;
    if (m_n < CE_WINDOW) m_n++;
    m_st.used++;
    _fit_drift(t4);
    long long lo = m_st.targetUs, hi = m_st.targetUs;
    _agree(t4, &lo, &hi);
    m_st.targetUs = lo + (hi - lo) / 2;
    m_st.boundUs = (hi - lo) / 2;
    _steer(t4);
    return result;
}

// Width of the region every exchange allows for the offset at local time
// ref, if the drift were b (negative: no line fits them all). It is a
// concave function of b, largest at the drift that fits best.
long long ClockEstimator::_width(long long ref, double b) const {
    long long up = 0, low = 0;
    bool any = false;
    for (int i = 0; i < m_n; i++) {
        const Sample& s = m_win[i];
        if (s.outvoted) continue;
        long long u = s.upper + (long long)llround(b * (double)(ref - s.t1));
        long long l = s.lower + (long long)llround(b * (double)(ref - s.t4));
        up = any ? std::min(up, u) : u;
        low = any ? std::max(low, l) : l;
        any = true;
    }
    return up - low;
}

// The drift is the slope of the line that leaves the most room between the
// exchanges' bounds (a minimax fit through the low-delay exchanges, which
// are the only ones that bind). Its uncertainty is the spread of slopes that
// still fit them all.
void ClockEstimator::_fit_drift(long long ref) {
    long long minDelay = m_win[0].delay, oldest = m_win[0].t1;
    int voters = 0;
    for (int i = 0; i < m_n; i++) {
        minDelay = std::min(minDelay, m_win[i].delay);
        oldest = std::min(oldest, m_win[i].t1);
        voters += m_win[i].outvoted ? 0 : 1;
    }
    m_st.minDelayUs = minDelay;
    if (voters < kFitMin || ref - oldest < kFitSpanUs) return;  // keep what we had
    // Golden-section search: one new width per round.
    const double g = 0.6180339887498949;
    double lo = -kMaxDrift, hi = kMaxDrift;
    double a = hi - g * (hi - lo), b = lo + g * (hi - lo);
    long long wa = _width(ref, a), wb = _width(ref, b);
    while (hi - lo > kDriftStep) {
        if (wa < wb) {
            lo = a;
            a = b;
            wa = wb;
            b = lo + g * (hi - lo);
            wb = _width(ref, b);
        } else {
            hi = b;
            b = a;
            wb = wa;
            a = hi - g * (hi - lo);
            wa = _width(ref, a);
        }
    }
    double best = (lo + hi) / 2;
    if (_width(ref, best) < 0) return;  // nothing fits: an outlier; the vote sorts it
    // Slopes that still fit: bisect for the zero of the width on each side.
    double edge[2] = {-kMaxDrift, kMaxDrift};
    for (int side = 0; side < 2; side++) {
        double in = best, out = edge[side];
        if (_width(ref, out) >= 0) continue;
        while (fabs(out - in) > kDriftStep) {
            double mid = (in + out) / 2;
            if (_width(ref, mid) >= 0)
                in = mid;
            else
                out = mid;
        }
        edge[side] = in;
    }
    m_drift = best;
    m_driftSigma = std::max(kMinDriftSigma, (edge[1] - edge[0]) / 2);
}

// Carries every exchange's bounds to local time ref along the drift, widened
// by the drift's uncertainty over their age, and finds the region inside the
// most of them (ties: the one nearest the current target). Exchanges that do
// not cover it are marked outvoted and left out of the next drift fit.
bool ClockEstimator::_agree(long long ref, long long* lo, long long* hi) {
    Edge edges[2 * CE_WINDOW];
    long long ilo[CE_WINDOW], ihi[CE_WINDOW];
    for (int i = 0; i < m_n; i++) {
        const Sample& s = m_win[i];
        double up = (double)(ref - s.t1), down = (double)(ref - s.t4);
        double widen = m_driftSigma;
        ilo[i] = s.lower + (long long)llround(m_drift * down - widen * down);
        ihi[i] = s.upper + (long long)llround(m_drift * up + widen * up);
        edges[2 * i] = {ilo[i], +1};
        edges[2 * i + 1] = {ihi[i], -1};
    }
    std::sort(edges, edges + 2 * m_n, edge_before);
    int count = 0, best = 0;
    for (int k = 0; k + 1 < 2 * m_n; k++) {
        count += edges[k].step;
        if (edges[k].step < 0 || count < best) continue;
        long long mid = edges[k].at + (edges[k + 1].at - edges[k].at) / 2;
        long long was = *lo + (*hi - *lo) / 2;
        if (count > best || llabs(mid - m_st.targetUs) < llabs(was - m_st.targetUs)) {
            best = count;
            *lo = edges[k].at;
            *hi = edges[k + 1].at;
        }
    }
    for (int i = 0; i < m_n; i++) m_win[i].outvoted = !(ilo[i] <= *lo && ihi[i] >= *hi);
    return best > 0;
}

// Moves the clock handed out towards the target: a step while acquiring,
// afterwards a slew from where it is now, so it stays continuous.
void ClockEstimator::_steer(long long now) {
    long long cur = m_st.have ? _offset_at(now) : m_st.targetUs;
    long long err = m_st.targetUs - cur;
    m_origin = now;
    m_rate = m_drift;
    if (!m_st.acquired) {
        m_o0 = m_st.targetUs;
        m_corr = 0;
        m_slew = 0;
        m_st.acquired = m_n >= CE_ACQUIRE;
    } else {
        m_o0 = cur;
        m_corr = err;
        double rate = std::min(kMaxSlew, fabs((double)err) / kSlewUs);
        m_slew = err >= 0 ? rate : -rate;
    }
    m_st.have = true;
}
