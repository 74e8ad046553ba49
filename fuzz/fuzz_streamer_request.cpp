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

#include <string>

#include "AVStreamer.h"
#include "fuzz_support.h"
#include "streamer_probe.h"

namespace {

const int kReceivers = 3;
const int kSessions = kReceivers + 1;  // the sessions a datagram may touch
const size_t kMaxRequest = 4096, kMaxDatagram = 2048;
const size_t kReadMax = 1399;  // what the streamer reads of a datagram

// While a request is read: the address its events must name. While a
// datagram is read (g_sender null): the JOIN events it raised.
const char* g_sender = "";
struct Found {
    int count;
    char addr[AV_IP_LEN + 8];
    std::string text;
} g_found;

void _notify(intptr_t, intptr_t msg, intptr_t a, intptr_t b, intptr_t, intptr_t) {
    if (g_sender == nullptr) {
        fuzz_require(msg == AVMSG_RECEIVER_FOUND);
        fuzz_require(fuzz_terminated((const char*)a, AV_IP_LEN));
        g_found.count++;
        snprintf(g_found.addr, sizeof g_found.addr, "%s", (const char*)a);
        g_found.text = (const char*)b;
        return;
    }
    const char* ip = msg == AVMSG_RECEIVER_VOLUMECHANGED ? (const char*)b : (const char*)a;
    if (msg == AVMSG_RECEIVER_LEAVE || msg == AVMSG_RECEIVER_RESET ||
        msg == AVMSG_RECEIVER_VOLUMECHANGED)
        fuzz_require(strcmp(ip, g_sender) == 0);
    else
        fuzz_require(msg == AVMSG_SERVICE_STOP);
}

typedef CAVStreamerProbe Probe;

void _setup(CAVStreamer* st, int* peers) {
    static const AV_CHANNEL_TYPE kRoles[kReceivers] = {AV_CHANNEL_FRONT_LEFT,
                                                       AV_CHANNEL_FRONT_RIGHT, AV_CHANNEL_PARTY};
    AV_RECEIVER_INFO ri;
    memset(&ri, 0, sizeof ri);
    AV_MUSIC_INFO mi;
    memset(&mi, 0, sizeof mi);
    mi.SampleRate = 44100;
    mi.BytesPerSample = 2;
    mi.NumChannels = 2;
    snprintf(mi.pContentTitle, sizeof(mi.pContentTitle), "t");
    for (int i = 0; i < kReceivers; i++) {
        AV_RECEIVER& r = ri.AVReceiver[i];
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.0.%d", 2 + i);
        r.ChannelType = kRoles[i];
        r._volume = 5 + i;
        r.bActive = 1;
    }
    ri.nAVReceiverCnt = kReceivers;
    Probe::Prepare(st, ri, mi);
    // A session that knows its address but has not connected.
    AV_RCV_SESS& idle = Probe::Sess(st, kReceivers);
    snprintf(idle.pReceiverIP, sizeof(idle.pReceiverIP), "127.0.0.%d", 2 + kReceivers);
    for (int i = 0; i < kReceivers; i++) {
        int sp[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sp) != 0) __builtin_trap();
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
        fuzz_require(s.ServerState <= AV_STREAMER_STATE_BYE);
        fuzz_require(fuzz_terminated(s.pReceiverIP, sizeof(s.pReceiverIP)));
        if (!s.bActive) fuzz_require(s.hTcpClientSock == -1 && !s.bRefRcv);
        if (s.bActive) fuzz_require(i < Probe::MaxIdx(st));
    }
    fuzz_require(refs <= 1);
    fuzz_require(Probe::SessionCount(st) == active);
    fuzz_require(Probe::ReceiverCount(st) == entries);
}

// Everything a receiver got since the last look must be whole replies or
// commands.
void _check_replies(int peer) {
    std::string got;
    char buf[4096];
    ssize_t n;
    while ((n = recv(peer, buf, sizeof buf, MSG_DONTWAIT)) > 0) got.append(buf, (size_t)n);
    size_t pos = 0;
    while (pos < got.size()) {
        const std::string rest = got.substr(pos);
        fuzz_require(rest.compare(0, 17, "RTSP/1.0 200 OK\r\n") == 0 ||
                     rest.compare(0, 7, "START\r\n") == 0 || rest.compare(0, 8, "VOLUME: ") == 0);
        const size_t end = rest.find("\r\n\r\n");
        fuzz_require(end != std::string::npos);
        size_t len = end + 4;
        const size_t cl = rest.find("Content-Length: ");
        if (cl != std::string::npos && cl < end) {
            len += strtoul(rest.c_str() + cl + 16, nullptr, 10);
            fuzz_require(len <= rest.size());
        }
        pos += len;
    }
}

// Reads what the receiver sent, as the control thread does when the
// connection is readable, until nothing is left.
void _serve(CAVStreamer* st, int index) {
    for (int reads = 0; reads < 16; reads++) {
        const int sock = Probe::Sess(st, index).hTcpClientSock;
        if (sock < 0) return;
        int pending = 0;
        char probe;
        if (ioctl(sock, FIONREAD, &pending) != 0) return;
        // Nothing pending and not closed: not readable, nothing to do.
        if (pending == 0 && recv(sock, &probe, 1, MSG_PEEK | MSG_DONTWAIT) != 0) return;
        Probe::ReadRequest(st, index);
    }
}

// One request from receiver piece[0] % 3.
void _request(CAVStreamer* st, int* peers, const uint8_t* piece, size_t len) {
    const int index = piece[0] % kReceivers;
    AV_RCV_SESS& s = Probe::Sess(st, index);
    if (s.hTcpClientSock < 0) return;  // this receiver has left
    const size_t textLen = len - 1 < kMaxRequest ? len - 1 : kMaxRequest;
    if (piece[0] & 0x04) s.ServerState = AV_STREAMER_STATE_CLOCK;
    if (textLen > 0 && send(peers[index], piece + 1, textLen, MSG_NOSIGNAL) != (ssize_t)textLen)
        return;
    if (piece[0] & 0x08) shutdown(peers[index], SHUT_WR);
    char sender[AV_IP_LEN];
    memcpy(sender, s.pReceiverIP, sizeof sender);
    g_sender = sender;
    _serve(st, index);
    _check_sessions(st);
    Probe::Flush(st, index);
    _check_replies(peers[index]);
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
        const AV_RCV_SESS& s = Probe::Sess(st, i);
        memcpy(out[i].ip, s.pReceiverIP, AV_IP_LEN);
        out[i].active = s.bActive;
        out[i].state = s.ServerState;
        out[i].sock = s.hTcpClientSock;
        out[i].reqTs = s.ReqTs;
    }
}

// One copy of a datagram through the streamer's multicast socket.
void _datagram(CAVStreamer* st, const int* group, const uint8_t* data, size_t len) {
    Snapshot before[kSessions], after[kSessions];
    _snap(st, before);
    g_sender = nullptr;
    g_found.count = 0;
    if (send(group[1], data, len, 0) != (ssize_t)len) return;
    fuzz_require(Probe::ReadMulticast(st, group[0]) == (len > 0 ? 1 : 0));

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
    int group[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, group) != 0) return 0;
    CAVStreamer st(_notify, nullptr, 1);
    int peers[kReceivers];
    _setup(&st, peers);
    size_t pos = 0;
    while (pos < size) {
        const uint8_t* end = (const uint8_t*)memchr(data + pos, 0xFF, size - pos);
        const size_t len = end ? (size_t)(end - (data + pos)) : size - pos;
        const uint8_t* piece = data + pos;
        pos += len + 1;
        if (len == 0) continue;
        if (piece[0] & 0x10) {
            const size_t dgLen = len - 1 < kMaxDatagram ? len - 1 : kMaxDatagram;
            _datagram(&st, group, piece + 1, dgLen);
            _datagram(&st, group, piece + 1, dgLen);
        } else {
            _request(&st, peers, piece, len);
        }
    }
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = Probe::Sess(&st, i);
        if (s.hTcpClientSock >= 0) close(s.hTcpClientSock);
    }
    for (int peer : peers) close(peer);
    close(group[0]);
    close(group[1]);
    return 0;
}
