// Fuzzes a receiver's control request as the streamer's control server reads
// it: one read of up to 1023 bytes on the session's connection, the request
// table with its fall-throughs, and the replies it writes back.
//
// Input: the bytes the receiver sends. The session's connection is one end
// of a socket pair, so no network is involved.
// Every request must leave the session's address terminated, the counters
// within the group, and the other session untouched.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "AVStreamer.h"
#include "fuzz_support.h"

namespace {

void _nop_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

void _setup(CAVStreamer* st, int sock) {
    for (int i = 0; i < 2; i++) {
        AV_RECEIVER& r = st->m_AVReceiverInfo.AVReceiver[i];
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.0.%d", 2 + i);
        r.ChannelType = AV_CHANNEL_FRONT_LEFT;
        r._volume = 5;
        r.bActive = 1;
        AV_RCV_SESS& s = st->m_AVRcvSessInfo.AVRcvSess[i];
        memcpy(s.pReceiverIP, r.pReceiverIP, sizeof(s.pReceiverIP));
        s.bActive = true;
        s.ChannelType = AV_CHANNEL_FRONT_LEFT;
    }
    st->m_AVRcvSessInfo.AVRcvSess[0].hTcpClientSock = sock;
    // Replies are queued for the control-server thread to send; the queue is
    // the streamer's from here on.
    st->m_AVRcvSessInfo.AVRcvSess[0].pOutQ = (char*)malloc(AV_OUT_QUEUE_SIZE);
    st->m_AVReceiverInfo.nAVReceiverCnt = 2;
    st->m_AVRcvSessInfo.nAVRcvSessCnt = 2;
    st->m_max_idx = 2;
    st->m_AVMusicInfo.SampleRate = 44100;
    st->m_AVMusicInfo.BytesPerSample = 2;
    snprintf(st->m_AVMusicInfo.pContentTitle, sizeof(st->m_AVMusicInfo.pContentTitle), "t");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SONVARA_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int sp[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sp) != 0) return 0;
    CAVStreamer st(_nop_notify, nullptr, 1);
    _setup(&st, sp[0]);
    if (size > 0) {
        if (write(sp[1], data, size > 1023 ? 1023 : size) < 0) return 0;
        st.OnTcpCmdRead(0);
    }
    AV_RCV_SESS& s0 = st.m_AVRcvSessInfo.AVRcvSess[0];
    AV_RCV_SESS& s1 = st.m_AVRcvSessInfo.AVRcvSess[1];
    fuzz_require(strnlen(s0.pReceiverIP, AV_IP_LEN) < AV_IP_LEN);
    fuzz_require(s1.bActive && strcmp(s1.pReceiverIP, "127.0.0.3") == 0);
    fuzz_require(s1.ServerState == AV_STREAMER_STATE_NA && s1.hTcpClientSock == -1);
    int sess = st.m_AVRcvSessInfo.nAVRcvSessCnt;
    fuzz_require(sess == 1 || sess == 2);
    fuzz_require(sess == 2 ? s0.bActive.load() : !s0.bActive.load());
    // A released connection waits for the control-server thread to close it.
    int sock = s0.hTcpClientSock >= 0 ? s0.hTcpClientSock.load() : s0.hStaleSock.load();
    if (sock >= 0) close(sock);
    close(sp[1]);
    return 0;
}
