// Fuzzes the JOIN request a receiver multicasts to a running stream, as the
// manager reads it. The way there (the streamer's multicast socket) and the
// de-duplication by GUID and time stamp that follows are fuzzed by
// fuzz_streamer_request.
//
// Input: one request text (a NUL is added after it; embedded NULs end the
// text as they would in a datagram read as a string).
// Every field must end inside its array; an accepted request has a MAC, a
// GUID and a name.
#include <stdint.h>
#include <string.h>

#include <string>

#include "SonvaraMgrRecord.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text((const char*)data, size);
    JOIN_REQ req;
    memset(&req, 0xa5, sizeof(req));
    int r = ParseJoinReq(text.c_str(), &req);
    fuzz_require(fuzz_terminated(req.mac, sizeof(req.mac)));
    fuzz_require(fuzz_terminated(req.guid, sizeof(req.guid)));
    fuzz_require(fuzz_terminated(req.name, sizeof(req.name)));
    if (r == 0) {
        fuzz_require(strstr(text.c_str(), "MAC: ") && strstr(text.c_str(), "GUID: ") &&
                     strstr(text.c_str(), "NAME: "));
    }
    return 0;
}
