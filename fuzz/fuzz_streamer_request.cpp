// Fuzzes what a streamer's control server reads from outside: receivers'
// control requests, as sequences across the session states (CHANNEL/START,
// DESCRIBE/SDP, SETUP, PLAY, PAUSE, the clock reply, LEAVE/TEARDOWN/BYE_ACK
// and a closed connection, with the table's fall-throughs and the replies
// queued and sent back as the control-server thread sends them), and what
// anyone on the multicast group sends (JOIN with address and REQ_TS,
// MASTERSEARCH with a name, anything else). (The manager's handling of the
// JOIN text that goes on is fuzz_join's.)
//
// Input: pieces split on the byte 0xFF (never in a request's text: it is
// not UTF-8). The first byte of each is a control byte. With 0x10 set, the
// rest (cut to 2048 bytes) is a datagram on the streamer's multicast socket
// (one end of a datagram socket pair), sent twice as receivers repeat their
// multicasts. Otherwise its value modulo 3 picks one of the three
// receivers; 0x04 puts that session into the clock state first (the state
// in which any text is the clock reply); 0x08 closes the receiver's side
// after the text. The rest (cut to 4096 bytes) is what the receiver sends;
// the server reads it as TCP gives it, 1023 bytes at a time. Each
// receiver's connection is one end of a socket pair: no network.
// After every request: at most one reference receiver; the session and
// receiver counts match the active sessions and entries; a released session
// has no connection; every state is a known one; the replies a receiver got
// are whole 200 OKs (an SDP as long as its Content-Length says), START or
// VOLUME commands; every event names the receiver that sent the request.
// After every copy of a datagram: one event if its text (as read: at most
// 1399 bytes, up to a NUL) holds "JOIN", none otherwise, with the address
// terminated and the text as read; REQ_TS lands only in the session of that
// address, and nothing else of any session changes.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "AVStreamer.h"
#include "fuzz_support.h"
#include "streamer_probe.h"

namespace {

typedef CAVStreamerProbe Probe;
const int kReceivers = 3;
const int kSessions = kReceivers + 1;  // the sessions a datagram may touch

// While a request is read: the address its events must name. While a
// datagram is read (g_sender null): the JOIN events it raised.
const char* g_sender = "";
int g_joins;
std::string g_joinAddr, g_joinText;

void _notify(intptr_t, intptr_t msg, intptr_t a, intptr_t b, intptr_t, intptr_t) {
    if (g_sender == nullptr) {
        fuzz_require(msg == AVMSG_RECEIVER_FOUND && fuzz_terminated((const char*)a, AV_IP_LEN));
        g_joins++;
        g_joinAddr = (const char*)a;
        g_joinText = (const char*)b;
    } else if (msg != AVMSG_SERVICE_STOP) {
        fuzz_require(msg == AVMSG_RECEIVER_LEAVE || msg == AVMSG_RECEIVER_RESET ||
                     msg == AVMSG_RECEIVER_VOLUMECHANGED);
        fuzz_require(strcmp(msg == AVMSG_RECEIVER_VOLUMECHANGED ? (const char*)b : (const char*)a,
                            g_sender) == 0);
    }
}

// Three receivers connected through socket pairs, and a session that knows
// its address but has not connected.
void _setup(CAVStreamer* st, int* peers) {
    static const AV_CHANNEL_TYPE kRoles[kReceivers] = {AV_CHANNEL_FRONT_LEFT,
                                                       AV_CHANNEL_FRONT_RIGHT, AV_CHANNEL_PARTY};
    AV_RECEIVER_INFO ri = {};
    for (int i = 0; i < kReceivers; i++) {
        ri.AVReceiver[i] = AV_RECEIVER{{0}, kRoles[i], 0, 5 + i, 1, 0};
        snprintf(ri.AVReceiver[i].pReceiverIP, AV_IP_LEN, "127.0.0.%d", 2 + i);
    }
    ri.nAVReceiverCnt = kReceivers;
    Probe::Prepare(st, ri, AV_MUSIC_INFO{"", "t", "", 2, 44100, 2});
    snprintf(Probe::Sess(st, kReceivers).pReceiverIP, AV_IP_LEN, "127.0.0.%d", 2 + kReceivers);
    for (int i = 0; i < kReceivers; i++) {
        int sp[2];
        fuzz_require(socketpair(AF_UNIX, SOCK_STREAM, 0, sp) == 0);
        Probe::Accept(st, i, sp[0]);
        peers[i] = sp[1];
    }
}

void _check_sessions(CAVStreamer* st) {
    int refs = 0, active = 0, entries = 0;
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = Probe::Sess(st, i);
        refs += s.bRefRcv ? 1 : 0;
        active += s.bActive ? 1 : 0;
        entries += Probe::Receivers(st).AVReceiver[i].bActive ? 1 : 0;
        fuzz_require(s.ServerState <= AV_STREAMER_STATE_BYE &&
                     fuzz_terminated(s.pReceiverIP, sizeof(s.pReceiverIP)));
        fuzz_require(s.bActive ? i < Probe::MaxIdx(st) : s.hTcpClientSock == -1 && !s.bRefRcv);
    }
    fuzz_require(refs <= 1 && Probe::SessionCount(st) == active &&
                 Probe::ReceiverCount(st) == entries);
}

// Everything a receiver got since the last look must be whole replies or
// commands.
void _check_replies(int peer) {
    std::string got;
    char buf[4096];
    ssize_t n;
    while ((n = recv(peer, buf, sizeof buf, MSG_DONTWAIT)) > 0) got.append(buf, (size_t)n);
    for (size_t pos = 0; pos < got.size();) {
        const char* rest = got.c_str() + pos;
        fuzz_require(strncmp(rest, "RTSP/1.0 200 OK\r\n", 17) == 0 ||
                     strncmp(rest, "START\r\n", 7) == 0 || strncmp(rest, "VOLUME: ", 8) == 0);
        const char* end = strstr(rest, "\r\n\r\n");
        const char* cl = strstr(rest, "Content-Length: ");
        fuzz_require(end != nullptr);
        pos += (size_t)(end + 4 - rest) + (cl && cl < end ? strtoul(cl + 16, nullptr, 10) : 0);
        fuzz_require(pos <= got.size());
    }
}

// One request from receiver piece[0] % 3, read as the control thread reads
// a readable connection, until nothing is left.
void _request(CAVStreamer* st, int* peers, const uint8_t* piece, size_t len) {
    const int index = piece[0] % kReceivers;
    AV_RCV_SESS& s = Probe::Sess(st, index);
    if (s.hTcpClientSock < 0) return;  // this receiver has left
    const size_t textLen = len - 1 < 4096 ? len - 1 : 4096;
    if (piece[0] & 0x04) s.ServerState = AV_STREAMER_STATE_CLOCK;
    if (textLen > 0 && send(peers[index], piece + 1, textLen, MSG_NOSIGNAL) != (ssize_t)textLen)
        return;
    if (piece[0] & 0x08) shutdown(peers[index], SHUT_WR);
    const std::string sender = s.pReceiverIP;
    g_sender = sender.c_str();
    for (int reads = 0; reads < 16 && s.hTcpClientSock >= 0; reads++) {
        int pending = 0;
        char c;
        // Nothing pending and not closed: not readable, nothing to do.
        if (ioctl(s.hTcpClientSock, FIONREAD, &pending) != 0 ||
            (pending == 0 && recv(s.hTcpClientSock, &c, 1, MSG_PEEK | MSG_DONTWAIT) != 0))
            break;
        Probe::ReadRequest(st, index);
    }
    _check_sessions(st);
    Probe::Flush(st, index);
    _check_replies(peers[index]);
}

// What a datagram may not change of a session, and its REQ_TS.
std::vector<std::tuple<std::string, bool, int, int, uint32_t>> _snap(CAVStreamer* st) {
    std::vector<std::tuple<std::string, bool, int, int, uint32_t>> v;
    for (int i = 0; i < kSessions; i++) {
        const AV_RCV_SESS& s = Probe::Sess(st, i);
        v.emplace_back(std::string(s.pReceiverIP), s.bActive, s.ServerState, s.hTcpClientSock,
                       s.ReqTs);
    }
    return v;
}

// One copy of a datagram through the streamer's multicast socket.
void _datagram(CAVStreamer* st, const int* group, const uint8_t* data, size_t len) {
    auto before = _snap(st);
    g_sender = nullptr;
    g_joins = 0;
    if (send(group[1], data, len, 0) != (ssize_t)len) return;
    fuzz_require(Probe::ReadMulticast(st, group[0]) == (len > 0 ? 1 : 0));

    const std::string asRead(std::string((const char*)data, len < 1399 ? len : 1399).c_str());
    const bool join = asRead.find("JOIN") != std::string::npos;
    fuzz_require(g_joins == (join ? 1 : 0) && (!join || g_joinText == asRead));
    const bool ts = join && asRead.find("REQ_TS:") != std::string::npos;
    auto after = _snap(st);
    for (int i = 0; i < kSessions; i++) {
        const bool mayStamp = ts && std::get<0>(after[i]) == g_joinAddr;
        if (mayStamp) std::get<4>(after[i]) = std::get<4>(before[i]);
        fuzz_require(after[i] == before[i]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SONVARA_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int group[2], peers[kReceivers];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, group) != 0) return 0;
    CAVStreamer st(_notify, nullptr, 1);
    _setup(&st, peers);
    for (size_t pos = 0, len; pos < size; pos += len + 1) {
        const uint8_t* piece = data + pos;
        const uint8_t* end = (const uint8_t*)memchr(piece, 0xFF, size - pos);
        len = end ? (size_t)(end - piece) : size - pos;
        if (len == 0) continue;
        if (!(piece[0] & 0x10)) {
            _request(&st, peers, piece, len);
            continue;
        }
        for (int copy = 0; copy < 2; copy++)
            _datagram(&st, group, piece + 1, std::min(len - 1, (size_t)2048));
    }
    for (int i = 0; i < AV_MAX_RECEIVER; i++)
        if (Probe::Sess(&st, i).hTcpClientSock >= 0) close(Probe::Sess(&st, i).hTcpClientSock);
    for (int fd : {peers[0], peers[1], peers[2], group[0], group[1]}) close(fd);
    return 0;
}
