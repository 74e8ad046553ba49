// CAVStreamerProbe: the one friend of CAVStreamer. Tests, fuzz targets and
// benchmarks use it to bring a streamer's control server up without a
// content file, to drive the control server's steps by hand, and to look at
// the sessions and counters the wire does not show. Header-only; no lock of
// its own: Locked() runs a look or a change under a session's lock, where
// the control thread may touch the same fields.
#ifndef STREAMER_PROBE_H
#define STREAMER_PROBE_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "AVStreamer.h"

struct CAVStreamerProbe {
    static AV_RCV_SESS& Sess(CAVStreamer* s, int i) { return s->m_AVRcvSessInfo.AVRcvSess[i]; }
    static AV_RECEIVER_INFO& Receivers(CAVStreamer* s) { return s->m_AVReceiverInfo; }
    static AV_MUSIC_INFO& Music(CAVStreamer* s) { return s->m_AVMusicInfo; }
    static AV_CONTENT_INFO& Content(CAVStreamer* s) { return s->m_ContentInfo; }
    static MP3Parser* Parser(CAVStreamer* s) { return s->m_pMP3Parser; }
    static uint32_t WaveStart(CAVStreamer* s) { return s->waveDataStartPos; }
    static int SessionCount(CAVStreamer* s) { return s->m_AVRcvSessInfo.nAVRcvSessCnt; }
    static int ReceiverCount(CAVStreamer* s) { return s->_receiver_count(); }
    static int MaxIdx(CAVStreamer* s) { return s->m_max_idx; }
    // Payload bytes sent per receiver, and the clock of the first packet (0
    // before): written by the stream thread.
    static uint32_t SentBytes(CAVStreamer* s) {
        return __atomic_load_n(&s->m_szSent, __ATOMIC_RELAXED);
    }
    static uint32_t StartClock(CAVStreamer* s) {
        return __atomic_load_n(&s->m_unSvrStartClock, __ATOMIC_RELAXED);
    }
    template <typename F>
    static auto Locked(CAVStreamer* s, int i, F f) {
        PalLock hold(Sess(s, i)._lpmutex);
        return f();
    }

    // What init leaves behind, without a content file or a music source:
    // the receiver table and the music format, every session free.
    static void Prepare(CAVStreamer* s, const AV_RECEIVER_INFO& rx, const AV_MUSIC_INFO& music) {
        s->m_AVReceiverInfo = rx;
        s->m_max_idx = rx.nAVReceiverCnt;
        s->m_AVMusicInfo = music;
        for (int i = 0; i < AV_MAX_RECEIVER; i++) s->_session_clear(i);
    }
    // What open does, without time sync: the control server up on the
    // ports, the multicast socket on the group's port, the search begun now.
    // 0 or the server's error.
    static int OpenServer(CAVStreamer* s, unsigned short tcpPort, unsigned short rtpPort,
                          unsigned short mcastPort) {
        s->m_pMulticastIP = strdup("224.1.2.4");
        s->m_MulticastPort = mcastPort;
        snprintf(s->m_pMyIP, sizeof(s->m_pMyIP), "127.0.0.1");
        s->m_unSearchBaseClock = PAL_GetClock();
        if (!s->ServerInit()) return AV_ERR_SERVER_INIT;
        return s->ServerOpen(tcpPort, rtpPort);
    }
    static void CloseServer(CAVStreamer* s) {
        s->m_bSerExit = true;
        s->ServerClose();
        free(s->m_pMulticastIP);
        s->m_pMulticastIP = nullptr;
    }

    // What an accept does for receiver entry i, on a connection the caller
    // made: session i active on sock with its outgoing queue.
    static void Accept(CAVStreamer* s, int i, int sock) {
        AV_RCV_SESS& x = Sess(s, i);
        const AV_RECEIVER& r = s->m_AVReceiverInfo.AVReceiver[i];
        memcpy(x.pReceiverIP, r.pReceiverIP, sizeof(x.pReceiverIP));
        x.ChannelType = r.ChannelType;
        x.hTcpClientSock = sock;
        if (x.pOutQ == nullptr) x.pOutQ = (char*)malloc(AV_OUT_QUEUE_SIZE);
        if (x.pOutQ == nullptr) abort();
        x.bActive = true;
        s->m_AVRcvSessInfo.nAVRcvSessCnt++;
    }

    // The control server's steps, for the request and multicast fuzzing.
    static int ReadRequest(CAVStreamer* s, int index) { return s->OnTcpCmdRead(index); }
    static int ReadMulticast(CAVStreamer* s, int sock) {
        s->m_MulticastSvr.nSock = sock;
        return s->OnMulticastCmdRead();
    }
    static void Flush(CAVStreamer* s, int index) {
        s->_flush_session(index);
        s->_close_stale_sockets();
    }
};

#endif
