// Fuzzes the time-sync wire decoders: whatever arrives on the engine's own
// time-sync port (requests) and what receivers built in this tree read
// (announcements, responses). Any datagram can reach any decoder.
//
// Input: one datagram, held in a buffer exactly its size so that a read past
// it shows under AddressSanitizer.
// At most one decoder accepts it, only when it is long enough and carries
// the header of its type; the master's answer to an accepted request gives
// back its id and t1 intact. (That encoders and decoders agree field by
// field, the time-sync tests' clients show.)
#include <stdint.h>
#include <string.h>

#include <memory>

#include "TimeSyncWire.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<unsigned char[]> in(new unsigned char[size ? size : 1]);
    if (size > 0) memcpy(in.get(), data, size);
    TswAnnounce a;
    TswRequest r;
    TswResponse p;
    const bool isAnnounce = tsw_get_announce(in.get(), size, &a) == 0;
    const bool isRequest = tsw_get_request(in.get(), size, &r) == 0;
    const bool isResponse = tsw_get_response(in.get(), size, &p) == 0;
    fuzz_require(isAnnounce + isRequest + isResponse <= 1);
    if (!isAnnounce && !isRequest && !isResponse) return 0;
    const int type = isAnnounce  ? TSW_TYPE_ANNOUNCE
                     : isRequest ? TSW_TYPE_REQUEST
                                 : TSW_TYPE_RESPONSE;
    const size_t need = isAnnounce  ? TSW_ANNOUNCE_LEN
                        : isRequest ? TSW_REQUEST_LEN
                                    : TSW_RESPONSE_LEN;
    fuzz_require(size >= need && memcmp(in.get(), "SVTS", 4) == 0 && in[4] == TSW_VERSION &&
                 in[5] == type);
    if (isRequest) {
        TswResponse res = {r.id, r.t1, 0, 0}, back;
        unsigned char answer[TSW_RESPONSE_LEN];
        tsw_put_response(answer, &res);
        fuzz_require(tsw_get_response(answer, sizeof answer, &back) == 0 && back.id == r.id &&
                     back.t1 == r.t1);
    }
    return 0;
}
