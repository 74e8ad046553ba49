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
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AVRepDlna.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"

namespace {

const int kGood = 30;
const int kHostile = 30;

struct Result {
    std::vector<unsigned int> ms;
    int minFound = kGood;
};

std::string address(int i) {
    return "127.0.0." + std::to_string(2 + i);
}

// Hostile receivers: each sends 300 bytes of garbage to the answer port from
// its own address, round after round, until told to stop.
class Flooder {
public:
    explicit Flooder(int count) {
        for (int i = 0; i < count; i++)
            m_socks.push_back(rx_udp_bind(address(kGood + i).c_str(), 0));
        for (int i = 0; i < 300; i++) m_junk += (char)(' ' + (i * 7) % 90);
        if (count > 0) m_thread = std::thread([this] { _flood(); });
    }
    ~Flooder() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        for (int s : m_socks) close(s);
    }
    bool ok() const { return std::find(m_socks.begin(), m_socks.end(), -1) == m_socks.end(); }

private:
    void _flood() {
        struct sockaddr_in to;
        rx_sockaddr("127.0.0.1", AV_DLNA_ANSWER_PORT, &to);
        while (!m_stop) {
            for (int s : m_socks)
                sendto(s, m_junk.data(), m_junk.size(), 0, (struct sockaddr*)&to, sizeof(to));
        }
    }

    std::vector<int> m_socks;
    std::string m_junk;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

bool run(bool bHostile, int waitMs, int runs, Result* r) {
    // The good receivers: the project's emulator, answering DEVICE requests
    // only (no clock sync, nothing kept).
    std::vector<std::unique_ptr<ReceiverEmulator>> good;
    for (int i = 0; i < kGood; i++) {
        ReceiverConfig cfg;
        ReceiverConfigDefaults(&cfg, address(i).c_str());
        cfg.timeSync = cfg.keepPcm = false;
        cfg.master = i == 0 ? 0 : 1;
        good.emplace_back(new ReceiverEmulator(cfg));
        if (good.back()->Start() != 0) return false;
    }
    CAVRepDlna dlna;
    if (dlna.CAVRepDlnaInit("224.1.2.4:1234") != 0) return false;
    Flooder flood(bHostile ? kHostile : 0);
    if (!flood.ok()) return false;
    for (int i = 0; i < runs; i++) {
        AV_DEVICE_INFO out;
        memset(&out, 0, sizeof(out));
        unsigned int t0 = PAL_GetClock();
        int ret = dlna.GetDeviceInfo("224.1.2.4:1234", &out, waitMs);
        r->ms.push_back(PAL_GetClock() - t0);
        if (ret != 0) return false;
        r->minFound = std::min(r->minFound, (int)out.nAVDeviceCnt);
    }
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
