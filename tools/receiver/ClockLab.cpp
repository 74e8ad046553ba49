// The emulator's network and clock lab (see ClockLab.h).
//
// Owns fixed arrays only; no thread, no lock, no I/O, no clock reads.
#include "ClockLab.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

namespace {

// An error within this of the truth counts as converged.
const long long kConvergedUs = 100;

bool parse_double(const char* text, double lo, double hi, double* out) {
    char* end = nullptr;
    double v = strtod(text, &end);
    if (!text[0] || *end || !(v >= lo && v <= hi)) return false;
    *out = v;
    return true;
}

}  // namespace

const char kNetLabHelp[] =
    "Network lab (time-sync datagrams, both ways; for measuring the clock):\n"
    "  --net-delay-us N    add N us to every datagram\n"
    "  --net-jitter-us N   plus a random delay per datagram (default: uniform 0..N)\n"
    "  --net-jitter KIND   uniform | exp (exponential, mean N: Wi-Fi's long tail)\n"
    "  --net-loss PCT      drop PCT % of the datagrams\n"
    "  --net-reorder PCT   hold PCT % back 5 ms longer, so later ones overtake\n"
    "  --net-dup PCT       deliver PCT % twice\n"
    "  --net-seed N        seed of the random choices (default fixed)\n";

void NetLabDefaults(NetLabConfig* cfg) {
    memset(cfg, 0, sizeof(*cfg));
    cfg->reorderUs = 5000;
}

bool NetLabActive(const NetLabConfig* cfg) {
    return cfg->delayUs > 0 || cfg->jitterUs > 0 || cfg->lossPct > 0 || cfg->reorderPct > 0 ||
           cfg->dupPct > 0;
}

int NetLabOption(NetLabConfig* cfg, const char* opt, const char* val) {
    if (strcmp(opt, "--net-jitter") == 0) {
        if (strcmp(val, "uniform") == 0)
            cfg->jitter = LAB_JITTER_UNIFORM;
        else if (strcmp(val, "exp") == 0)
            cfg->jitter = LAB_JITTER_EXP;
        else
            return -1;
        return 1;
    }
    struct {
        const char* name;
        double hi;
        long long* integer;
        double* real;
    } opts[] = {{"--net-delay-us", 10e6, &cfg->delayUs, nullptr},
                {"--net-jitter-us", 10e6, &cfg->jitterUs, nullptr},
                {"--net-loss", 100, nullptr, &cfg->lossPct},
                {"--net-reorder", 100, nullptr, &cfg->reorderPct},
                {"--net-dup", 100, nullptr, &cfg->dupPct},
                {"--net-seed", 4294967295.0, nullptr, nullptr}};
    for (auto& o : opts) {
        if (strcmp(opt, o.name) != 0) continue;
        double v = 0;
        if (!parse_double(val, 0, o.hi, &v)) return -1;
        if (o.integer)
            *o.integer = (long long)v;
        else if (o.real)
            *o.real = v;
        else
            cfg->seed = (unsigned int)v;
        return 1;
    }
    return 0;
}

NetLab::NetLab() : m_active(false), m_rng(0) {
    NetLabDefaults(&m_cfg);
    memset(m_slots, 0, sizeof(m_slots));
    memset(&m_stats, 0, sizeof(m_stats));
}

void NetLab::Configure(const NetLabConfig& cfg) {
    m_cfg = cfg;
    m_active = NetLabActive(&cfg);
    m_rng = 0x9E3779B97F4A7C15ULL ^ (cfg.seed ? cfg.seed : 12345u);
    memset(m_slots, 0, sizeof(m_slots));
    memset(&m_stats, 0, sizeof(m_stats));
}

// In [0, 1): xorshift64*, plenty for choosing delays.
double NetLab::_uniform() {
    m_rng ^= m_rng >> 12;
    m_rng ^= m_rng << 25;
    m_rng ^= m_rng >> 27;
    return (double)((m_rng * 2685821657736338717ULL) >> 11) / 9007199254740992.0;
}

long long NetLab::_delay() {
    double j = (double)m_cfg.jitterUs;
    double r = m_cfg.jitter == LAB_JITTER_EXP ? -j * log(1.0 - _uniform()) : j * _uniform();
    return m_cfg.delayUs + (long long)r;
}

void NetLab::_queue(int tag, unsigned int addr, const unsigned char* data, size_t len,
                    long long now, long long due) {
    for (Slot& s : m_slots) {
        if (s.used) continue;
        s.used = true;
        s.tag = tag;
        s.addr = addr;
        s.due = due;
        s.held = due - now;
        s.len = len < (size_t)kMaxBytes ? len : (size_t)kMaxBytes;
        memcpy(s.data, data, s.len);
        return;
    }
    m_stats.overflow++;  // a full line drops, as a full queue would
}

void NetLab::Push(int tag, unsigned int addr, const unsigned char* data, size_t len,
                  long long nowUs) {
    if (_uniform() * 100 < m_cfg.lossPct) {
        m_stats.dropped++;
        return;
    }
    long long due = nowUs + _delay();
    if (_uniform() * 100 < m_cfg.reorderPct) {
        due += m_cfg.reorderUs;
        m_stats.reordered++;
    }
    _queue(tag, addr, data, len, nowUs, due);
    if (_uniform() * 100 < m_cfg.dupPct) {
        m_stats.duplicated++;
        _queue(tag, addr, data, len, nowUs, nowUs + _delay());
    }
}

long long NetLab::NextDue() const {
    long long next = -1;
    for (const Slot& s : m_slots) {
        if (s.used && (next < 0 || s.due < next)) next = s.due;
    }
    return next;
}

bool NetLab::Pop(long long nowUs, int* tag, unsigned int* addr, unsigned char* data, size_t* len,
                 long long* dueUs, long long* heldUs) {
    Slot* first = nullptr;
    for (Slot& s : m_slots) {
        if (s.used && s.due <= nowUs && (!first || s.due < first->due)) first = &s;
    }
    if (!first) return false;
    *tag = first->tag;
    *addr = first->addr;
    *len = first->len;
    *dueUs = first->due;
    *heldUs = first->held;
    memcpy(data, first->data, first->len);
    first->used = false;
    m_stats.passed++;
    return true;
}

ClockErrorLog::ClockErrorLog() {
    Reset();
}

void ClockErrorLog::Reset() {
    memset(m_hist, 0, sizeof(m_hist));
    m_count = 0;
    m_max = 0;
    m_start = -1;
    m_settle = 0;
    m_converge = -1;
    m_lastOut = -1;
}

void ClockErrorLog::Start(long long nowUs, long long settleUs) {
    if (m_start >= 0) return;
    m_start = nowUs;
    m_settle = settleUs;
}

void ClockErrorLog::Add(long long nowUs, long long errUs) {
    if (m_start < 0) return;
    long long mag = llabs(errUs);
    if (m_converge < 0 && mag <= kConvergedUs) m_converge = nowUs - m_start;
    if (m_converge >= 0 && mag > kConvergedUs) m_lastOut = nowUs - m_start;
    if (nowUs - m_start < m_settle) return;
    const long long range = kRangeUs;
    long long bin = errUs < -range ? -range : errUs > range ? range : errUs;
    m_hist[bin + range]++;
    m_count++;
    if (mag > m_max) m_max = mag;
}

void ClockErrorLog::Merge(const ClockErrorLog& other) {
    for (int i = 0; i <= 2 * kRangeUs; i++) m_hist[i] += other.m_hist[i];
    m_count += other.m_count;
    if (other.m_max > m_max) m_max = other.m_max;
}

ClockErrorSummary ClockErrorLog::Summary() const {
    ClockErrorSummary s;
    memset(&s, 0, sizeof(s));
    s.count = m_count;
    s.maxUs = m_max;
    s.convergeUs = m_converge;
    s.lastOutUs = m_lastOut;
    if (m_count == 0) return s;
    // Median of the signed error.
    unsigned int seen = 0;
    for (int i = 0; i <= 2 * kRangeUs; i++) {
        seen += m_hist[i];
        if (seen * 2 >= m_count) {
            s.p50Us = i - kRangeUs;
            break;
        }
    }
    // 95th percentile of the magnitude: fold the two sides together.
    seen = m_hist[kRangeUs];
    for (int d = 0; d <= kRangeUs; d++) {
        if (d > 0) seen += m_hist[kRangeUs - d] + m_hist[kRangeUs + d];
        if ((unsigned long long)seen * 100 >= (unsigned long long)m_count * 95) {
            s.p95Us = d;
            break;
        }
    }
    return s;
}
