// Fuzzes the receiver's clock estimator with sequences of exchanges, the
// four time stamps of each taken from the input as a master or a network
// could make them: anything at all.
//
// Input: records of 17 bytes: a mode byte, then t1 and a 64-bit word. Mode
// bit 0 set: the word is raw and t2, t3, t4 follow from the next bytes
// (hostile stamps); clear: small delays and an offset are taken from it
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
    while (size >= 17) {
        uint8_t mode = data[0];
        long long a = _word(data + 1), w = _word(data + 9);
        data += 17;
        size -= 17;
        long long t1, t2, t3, t4;
        if (mode & 1) {
            if (size < 24) break;
            t1 = a;
            t2 = w;
            t3 = _word(data);
            t4 = _word(data + 8);
            data += 24;
            size -= 24;
            // The local time the caller would be at is the newest t4.
            if (t4 > local && t4 < (1LL << 59)) local = t4;
        } else {
            uint64_t u = (uint64_t)w;
            local += (long long)((uint64_t)a % 2000000);  // up to 2 s between exchanges
            long long fwd = (long long)(u & 0xFFF), back = (long long)((u >> 12) & 0xFFF);
            long long hold = (long long)((u >> 24) & 0xFF);
            long long offset = (long long)((int32_t)(u >> 32)) * 16;
            t1 = local;
            t2 = local + fwd + offset;
            t3 = t2 + hold;
            t4 = local + fwd + hold + back;
            local = t4;
        }
        bool current = t4 == local;  // steered now, evaluated now
        bool acquired = e.Status().acquired;
        unsigned int restarts = e.Status().restarts;
        e.AddExchange(t1, t2, t3, t4);
        ClockEstimatorStatus st = e.Status();
        long long out = 0;
        if (!e.ToMaster(local, &out)) continue;
        if (haveLast && current && acquired && st.acquired && st.restarts == restarts)
            fuzz_require(out >= lastOut - 1);
        lastOut = out;
        haveLast = true;
        long long back = 0;
        fuzz_require(e.ToLocal(out, &back));
        fuzz_require(back - local <= 2 && local - back <= 2);
    }
    return 0;
}
