// Fuzzes receivers' control requests as the streamer's control server reads
// them, as sequences across the session states: CHANNEL/START, DESCRIBE/SDP,
// SETUP, PLAY, PAUSE, the clock reply, LEAVE/TEARDOWN/BYE_ACK and a closed
// connection, with the table's fall-throughs and the replies queued and sent
// back as the control-server thread sends them.
//
// Input: requests split on the byte 0xFF (never in a request's text: it is
// not UTF-8). The first byte of each is a control byte: its value modulo 3
// picks one of the three receivers; 0x04 puts that session into the clock
// state first (the state in which any text is the clock reply); 0x08 closes
// the receiver's side after the text. The rest (cut to 4096 bytes) is what
// the receiver sends; the server reads it as TCP gives it, 1023 bytes at a
// time. Each receiver's connection is one end of a socket pair: no network.
// After every request: at most one reference receiver; the session and
// receiver counts match the active sessions and entries; a released session
// has no connection; every state is a known one; the replies a receiver got
// are whole 200 OKs (an SDP as long as its Content-Length says), START or
// VOLUME commands; every event names the receiver that sent the request.
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
const size_t kMaxRequest = 4096;

// The address the events of the request being read must name.
const char* g_sender = "";

void _notify(intptr_t, intptr_t msg, intptr_t a, intptr_t b, intptr_t, intptr_t) {
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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SONVARA_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
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
        const int index = piece[0] % kReceivers;
        AV_RCV_SESS& s = Probe::Sess(&st, index);
        if (s.hTcpClientSock < 0) continue;  // this receiver has left
        const size_t textLen = len - 1 < kMaxRequest ? len - 1 : kMaxRequest;
        if (piece[0] & 0x04) s.ServerState = AV_STREAMER_STATE_CLOCK;
        if (textLen > 0 && send(peers[index], piece + 1, textLen, MSG_NOSIGNAL) != (ssize_t)textLen)
            continue;
        if (piece[0] & 0x08) shutdown(peers[index], SHUT_WR);
        char sender[AV_IP_LEN];
        memcpy(sender, s.pReceiverIP, sizeof sender);
        g_sender = sender;
        _serve(&st, index);
        _check_sessions(&st);
        Probe::Flush(&st, index);
        _check_replies(peers[index]);
    }
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = Probe::Sess(&st, i);
        if (s.hTcpClientSock >= 0) close(s.hTcpClientSock);
    }
    for (int peer : peers) close(peer);
    return 0;
}
