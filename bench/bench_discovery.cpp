// Device search with 30 emulated receivers answering (127.0.0.2 ..
// 127.0.0.31), then again with 30 more hostile ones (127.0.0.32 ..
// 127.0.0.61) flooding garbage at the answer port for the whole search.
// Reports per scenario the search time (min / median / max over the runs)
// and the devices found. Target: all 30 found, every search returns within
// waitMs + 200 ms.
// Run: scripts/netns-run build/bench/bench_discovery [waitMs] [runs]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "../tests/support/dlna_peers.h"
#include "AVRepDlna.h"

namespace {

const int kGood = 30;
const int kHostile = 30;

struct Result {
    std::vector<unsigned int> ms;
    int minFound = kGood;
};

bool run(bool bHostile, int waitMs, int runs, Result* r) {
    DlnaPeers peers;
    if (!peers.ok()) return false;
    for (int i = 0; i < kGood; i++) {
        std::string n = std::to_string(i);
        if (!peers.Add(DlnaPeers::Ip(i), DlnaPeers::Answer("02:00:00:00:00:" + n, "guid-" + n,
                                                           "Speaker " + n, i == 0 ? 0 : 1, 20))) {
            return false;
        }
    }
    for (int i = 0; bHostile && i < kHostile; i++) {
        if (!peers.AddFlooder(DlnaPeers::Ip(kGood + i))) return false;
    }
    CAVRepDlna dlna;
    if (dlna.CAVRepDlnaInit("224.1.2.4:1234") != 0) return false;
    peers.Start();
    for (int i = 0; i < runs; i++) {
        AV_DEVICE_INFO out;
        memset(&out, 0, sizeof(out));
        unsigned int t0 = PAL_GetClock();
        int ret = dlna.GetDeviceInfo("224.1.2.4:1234", &out, waitMs);
        r->ms.push_back(PAL_GetClock() - t0);
        if (ret != 0) return false;
        r->minFound = std::min(r->minFound, (int)out.nAVDeviceCnt);
    }
    peers.Stop();
    dlna.CAVRepDlnaClose();
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (!getenv("SONVARA_NETNS")) {
        fprintf(stderr, "run me inside the private namespace: scripts/netns-run %s\n", argv[0]);
        return 2;
    }
    int waitMs = argc > 1 ? atoi(argv[1]) : 1000;
    int runs = argc > 2 ? atoi(argv[2]) : 5;
    if (waitMs <= 0 || runs <= 0) return 2;

    bool ok = true;
    for (bool bHostile : {false, true}) {
        Result r;
        if (!run(bHostile, waitMs, runs, &r)) {
            printf("%s: set-up failed\n", bHostile ? "hostile" : "quiet");
            return 1;
        }
        std::sort(r.ms.begin(), r.ms.end());
        bool pass = r.minFound == kGood && r.ms.back() <= (unsigned int)waitMs + 200;
        printf(
            "%-7s waitMs %d, %d runs: search %u / %u / %u ms (min/median/max, limit %d), "
            "found at least %d of %d  %s\n",
            bHostile ? "hostile" : "quiet", waitMs, runs, r.ms.front(), r.ms[r.ms.size() / 2],
            r.ms.back(), waitMs + 200, r.minFound, kGood, pass ? "PASS" : "FAIL");
        ok = ok && pass;
    }
    return ok ? 0 : 1;
}
