// Fuzzes what anyone on the multicast group can send to a playing streamer:
// JOIN (address, REQ_TS), MASTERSEARCH (name) and anything else, read from
// the streamer's multicast socket. (The manager's handling of the JOIN text
// that goes on is fuzz_join's.)
//
// Input: a run of datagrams, each [length lo][length hi][bytes], the length
// cut to 2048 and to the input left. Each is sent twice on the streamer's
// multicast socket (one end of a datagram socket pair), as receivers repeat
// their multicasts.
// Checks: one event per copy of a datagram whose text (as read: at most 1399
// bytes, up to a NUL) holds "JOIN", none otherwise, with the address
// terminated and the text as read; REQ_TS lands only in the session of that
// address, and nothing else of any session changes.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "AVStreamer.h"
#include "fuzz_support.h"
#include "streamer_probe.h"

namespace {

const int kSessions = 4;
const size_t kReadMax = 1399;  // what the streamer reads of a datagram

// The last event of the streamer.
struct Found {
    int count;
    char addr[AV_IP_LEN + 8];
    std::string text;
} g_found;

void _notify(intptr_t, intptr_t msg, intptr_t a, intptr_t b, intptr_t, intptr_t) {
    fuzz_require(msg == AVMSG_RECEIVER_FOUND);
    const char* addr = (const char*)a;
    fuzz_require(fuzz_terminated(addr, AV_IP_LEN));
    g_found.count++;
    snprintf(g_found.addr, sizeof g_found.addr, "%s", addr);
    g_found.text = (const char*)b;
}

struct Snapshot {
    char ip[AV_IP_LEN];
    bool active;
    int state;
    int sock;
    uint32_t reqTs;
};

void _snap(CAVStreamer* st, Snapshot* out) {
    for (int i = 0; i < kSessions; i++) {
        const AV_RCV_SESS& s = CAVStreamerProbe::Sess(st, i);
        memcpy(out[i].ip, s.pReceiverIP, AV_IP_LEN);
        out[i].active = s.bActive;
        out[i].state = s.ServerState;
        out[i].sock = s.hTcpClientSock;
        out[i].reqTs = s.ReqTs;
    }
}

// One copy of the datagram through the streamer.
void _deliver(CAVStreamer* st, int sock, int peer, const uint8_t* data, size_t len) {
    Snapshot before[kSessions], after[kSessions];
    _snap(st, before);
    g_found.count = 0;
    if (send(peer, data, len, 0) != (ssize_t)len) return;
    fuzz_require(CAVStreamerProbe::ReadMulticast(st, sock) == (len > 0 ? 1 : 0));

    const std::string asRead(
        std::string((const char*)data, len < kReadMax ? len : kReadMax).c_str());
    const bool join = asRead.find("JOIN") != std::string::npos;
    fuzz_require(g_found.count == (join ? 1 : 0));
    if (join) fuzz_require(g_found.text == asRead);
    const bool ts = join && asRead.find("REQ_TS:") != std::string::npos;
    _snap(st, after);
    for (int i = 0; i < kSessions; i++) {
        fuzz_require(memcmp(after[i].ip, before[i].ip, AV_IP_LEN) == 0);
        fuzz_require(after[i].active == before[i].active && after[i].state == before[i].state &&
                     after[i].sock == before[i].sock);
        fuzz_require(after[i].reqTs == before[i].reqTs ||
                     (ts && strcmp(after[i].ip, g_found.addr) == 0));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SONVARA_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int sp[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sp) != 0) return 0;
    CAVStreamer st(_notify, nullptr, 1);
    AV_RECEIVER_INFO ri;
    memset(&ri, 0, sizeof ri);
    ri.nAVReceiverCnt = kSessions;
    AV_MUSIC_INFO mi;
    memset(&mi, 0, sizeof mi);
    CAVStreamerProbe::Prepare(&st, ri, mi);
    for (int i = 0; i < kSessions; i++) {
        AV_RCV_SESS& s = CAVStreamerProbe::Sess(&st, i);
        snprintf(s.pReceiverIP, sizeof(s.pReceiverIP), "127.0.0.%d", 2 + i);
        s.bActive = i < 3;  // the last one has not connected yet
        s.ReqTs = 100;
    }

    size_t pos = 0;
    while (pos + 2 <= size) {
        size_t len = (size_t)data[pos] | ((size_t)data[pos + 1] << 8);
        pos += 2;
        if (len > 2048) len = 2048;
        if (len > size - pos) len = size - pos;
        _deliver(&st, sp[0], sp[1], data + pos, len);
        _deliver(&st, sp[0], sp[1], data + pos, len);
        pos += len;
    }
    close(sp[0]);
    close(sp[1]);
    return 0;
}
