// Fuzzes the receiver's clock estimator with sequences of exchanges, the
// four time stamps of each taken from the input as a master or a network
// could make them: anything at all.
//
// Input: records of 17 bytes: a mode byte, then two 64-bit words. Mode
// bit 0 set: the words are t1 and t2 and 16 more bytes give t3 and t4
// (hostile stamps); clear: small delays and an offset are taken from them
// (plausible exchanges, so the estimate gets built and steered).
// Checked: no crash or overflow; once acquired, and with no restart in
// between, the clock handed out never runs backwards across an exchange
// that is current; ToLocal inverts ToMaster.
#include <stdint.h>
#include <string.h>

#include "ClockEstimator.h"
#include "fuzz_support.h"

namespace {

long long _word(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, sizeof(v));
    return (long long)v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ClockEstimator e;
    long long local = 1000000, lastOut = 0;
    bool haveLast = false;
    for (size_t len = 17; size >= 17; data += len, size -= len) {
        len = 17;
        const long long a = _word(data + 1);
        const uint64_t u = (uint64_t)_word(data + 9);
        long long t1 = a, t2 = (long long)u, t3, t4;
        if (data[0] & 1) {
            if (size < (len = 41)) break;
            t3 = _word(data + 17);
            t4 = _word(data + 25);
            // The local time the caller would be at is the newest t4.
            if (t4 > local && t4 < (1LL << 59)) local = t4;
        } else {
            local += (long long)((uint64_t)a % 2000000);  // up to 2 s between exchanges
            const long long fwd = (long long)(u & 0xFFF), bwd = (long long)((u >> 12) & 0xFFF);
            t1 = local;
            t2 = local + fwd + (long long)((int32_t)(u >> 32)) * 16;  // the master's offset
            t3 = t2 + (long long)((u >> 24) & 0xFF);                  // held by the master
            t4 = local = t1 + fwd + (t3 - t2) + bwd;
        }
        const bool current = t4 == local;  // steered now, evaluated now
        const ClockEstimatorStatus before = e.Status();
        e.AddExchange(t1, t2, t3, t4);
        const ClockEstimatorStatus st = e.Status();
        long long out = 0, back = 0;
        if (!e.ToMaster(local, &out)) continue;
        if (haveLast && current && before.acquired && st.acquired && st.restarts == before.restarts)
            fuzz_require(out >= lastOut - 1);
        lastOut = out;
        haveLast = true;
        fuzz_require(e.ToLocal(out, &back));
        fuzz_require(back - local <= 2 && local - back <= 2);
    }
    return 0;
}
