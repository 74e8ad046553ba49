// Time synchronisation accuracy: the initiator on 127.0.0.1, a receiver-side
// client on 127.0.0.2 whose own clock has an artificial offset and drift.
// Every 10 ms the client's estimate of the master clock is compared with the
// master clock itself. Reports the error median and p95 (target p95 <= 50 us)
// and the time from the first request to a stable estimate (target <= 1 s):
// the first moment from which 95 % of all later errors are within 50 us.
// Run: scripts/netns-run build/bench/bench_timesync
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "PAL_Clock.h"
#include "TimeSyncClient.h"
#include "TimeSyncInitiator.h"

namespace {

struct Skew {
    long long offsetUs;
    double drift;  // local runs (1 + drift) as fast as the master
    long long startUs;
};

long long skewed_clock(void* ctx) {
    const Skew* s = (const Skew*)ctx;
    long long now = PAL_GetBootTimeUsec();
    return now + s->offsetUs + (long long)((double)(now - s->startUs) * s->drift);
}

long long percentile(std::vector<long long> v, double p) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    size_t i = (size_t)(p * (double)(v.size() - 1) + 0.5);
    return v[i];
}

const long long kStableUs = 50;

struct Point {
    long long t;    // since the client started, us
    long long err;  // |estimate - master|, us; -1 = no estimate yet
};

// First point from which 95 % of all later errors are within kStableUs.
long long stable_time(const std::vector<Point>& pts) {
    long long when = -1;
    size_t within = 0;
    for (size_t i = pts.size(); i-- > 0;) {
        if (pts[i].err >= 0 && pts[i].err <= kStableUs) within++;
        size_t total = pts.size() - i;
        if (pts[i].err >= 0 && within * 100 >= total * 95) when = pts[i].t;
    }
    return when;
}

bool run_trial(long long offsetUs, double driftPpm, int seconds, std::vector<long long>* errs,
               long long* stableUs) {
    Skew skew = {offsetUs, driftPpm * 1e-6, PAL_GetBootTimeUsec()};
    TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                             PAL_GetBootTimeUsec);
    if (TimeSyncInitiator_Start() != 0) return false;
    TimeSyncInitiator_StartSync(20000, 3000000, 1000000);  // as a playing stream asks
    TimeSyncClient client;
    TimeSyncClientConfig cfg;
    TimeSyncClientDefaults(&cfg, "127.0.0.2");
    cfg.clock = skewed_clock;
    cfg.clockCtx = &skew;
    long long start = PAL_GetBootTimeUsec();
    if (client.Start(cfg) != 0) return false;
    std::vector<Point> pts;
    while (PAL_GetBootTimeUsec() - start < seconds * 1000000LL) {
        PAL_ThreadSleep(10);
        long long est = 0;
        long long local = skewed_clock(&skew);
        long long master = PAL_GetBootTimeUsec();
        bool have = client.LocalToMasterUs(local, &est);
        pts.push_back({master - start, have ? llabs(est - master) : -1});
    }
    client.Stop();
    TimeSyncInitiator_Delete();
    *stableUs = stable_time(pts);
    for (const Point& p : pts) {
        if (p.t >= 1000000 && p.err >= 0) errs->push_back(p.err);
    }
    return true;
}

}  // namespace

int main() {
    if (!getenv("SONVARA_NETNS")) {
        fprintf(stderr, "run me inside the private namespace: scripts/netns-run %s\n",
                "bench_timesync");
        return 2;
    }
    struct {
        long long offsetUs;
        double ppm;
    } cases[] = {{123456789LL, 100.0}, {-987654321LL, -80.0}, {42000LL, 0.0}};
    printf("%-14s %8s %10s %10s %10s %12s\n", "offset_us", "drift", "median_us", "p95_us", "max_us",
           "stable_ms");
    std::vector<long long> all;
    long long worstStable = 0;
    for (auto& c : cases) {
        std::vector<long long> errs;
        long long stable = -1;
        if (!run_trial(c.offsetUs, c.ppm, 6, &errs, &stable)) {
            fprintf(stderr, "trial failed to start\n");
            return 1;
        }
        printf("%-14lld %7.0fppm %10lld %10lld %10lld %12.1f\n", c.offsetUs, c.ppm,
               percentile(errs, 0.5), percentile(errs, 0.95), percentile(errs, 1.0),
               stable < 0 ? -1.0 : stable / 1000.0);
        all.insert(all.end(), errs.begin(), errs.end());
        if (stable < 0 || stable > worstStable) worstStable = stable < 0 ? 1LL << 40 : stable;
    }
    long long p95 = percentile(all, 0.95);
    printf(
        "all: median %lld us, p95 %lld us (target <= 50), worst stable %.1f ms (target <= 1000)\n",
        percentile(all, 0.5), p95, worstStable / 1000.0);
    return 0;
}
