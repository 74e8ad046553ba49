// Fuzzes the time-sync wire decoders: whatever arrives on the engine's own
// time-sync port (requests) and what receivers built in this tree read
// (announcements, responses). Any datagram can reach any decoder.
//
// Input: one datagram, held in a buffer exactly its size so that a read past
// it shows under AddressSanitizer.
// At most one decoder accepts it, only when it is long enough and carries
// the header of its type; encoding what was decoded gives back the same
// bytes except the reserved ones, and decoding that gives the same message.
#include <stdint.h>
#include <string.h>

#include <memory>

#include "TimeSyncWire.h"
#include "fuzz_support.h"

namespace {

// Bytes a decoder does not look at, which an encoder writes as zero.
bool _reserved(int type, size_t i) {
    if (i == 6 || i == 7) return true;
    if (type == TSW_TYPE_ANNOUNCE) return i == 18 || i == 19;
    return i >= 12 && i < 16;
}

bool _same(const TswAnnounce& a, const TswAnnounce& b) {
    return a.seq == b.seq && a.masterAddr == b.masterAddr && a.port == b.port &&
           a.masterUs == b.masterUs && a.nextMs == b.nextMs;
}
bool _same(const TswRequest& a, const TswRequest& b) {
    return a.id == b.id && a.t1 == b.t1;
}
bool _same(const TswResponse& a, const TswResponse& b) {
    return a.id == b.id && a.t1 == b.t1 && a.t2 == b.t2 && a.t3 == b.t3;
}

// One decoder on the input: 1 when it accepts. What it accepts must be long
// enough and of its type, and survive a round trip through the encoder.
template <typename Msg, size_t Len>
int _decode(const unsigned char* in, size_t size, int type, Msg* m,
            int (*get)(const unsigned char*, size_t, Msg*),
            void (*put)(unsigned char*, const Msg*)) {
    if (get(in, size, m) != 0) return 0;
    fuzz_require(size >= Len && memcmp(in, "SVTS", 4) == 0 && in[4] == TSW_VERSION &&
                 in[5] == type);
    unsigned char out[Len];
    put(out, m);
    for (size_t i = 0; i < Len; i++) fuzz_require(_reserved(type, i) || in[i] == out[i]);
    Msg again;
    fuzz_require(get(out, Len, &again) == 0 && _same(again, *m));
    return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<unsigned char[]> in(new unsigned char[size ? size : 1]);
    if (size > 0) memcpy(in.get(), data, size);
    TswAnnounce a;
    TswRequest r;
    TswResponse p;
    const int accepted =
        _decode<TswAnnounce, TSW_ANNOUNCE_LEN>(in.get(), size, TSW_TYPE_ANNOUNCE, &a,
                                               tsw_get_announce, tsw_put_announce) +
        _decode<TswRequest, TSW_REQUEST_LEN>(in.get(), size, TSW_TYPE_REQUEST, &r, tsw_get_request,
                                             tsw_put_request) +
        _decode<TswResponse, TSW_RESPONSE_LEN>(in.get(), size, TSW_TYPE_RESPONSE, &p,
                                               tsw_get_response, tsw_put_response);
    fuzz_require(accepted <= 1);
    if (accepted == 1 && in[5] == TSW_TYPE_REQUEST) {
        // The master's answer echoes the request: id and t1 come back intact.
        TswResponse res = {r.id, r.t1, 0, 0};
        unsigned char answer[TSW_RESPONSE_LEN];
        tsw_put_response(answer, &res);
        TswResponse back;
        fuzz_require(tsw_get_response(answer, sizeof answer, &back) == 0 && _same(back, res));
    }
    return 0;
}
