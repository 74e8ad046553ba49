// The streamer's control server: the TCP listener its receivers connect to,
// the socket on the multicast group, the RTP/RTCP sockets, the thread that
// waits on all of them, the receivers' text requests and the replies.
//
// Allocates: the 1600-byte RTP send buffer, one RTP socket, one 409600-byte
// ring buffer and one 64 KB outgoing queue per accepted session (kept for
// reuse until ServerClose, the queue until the object goes).
// Runs on: ServerListenThread (requests, accepts, time-outs, every send on a
// control connection: it is the one writer of each; and the progress events
// the stream thread hands over); the caller's thread for init/open/close.
// Locks: one session `_lpmutex` at a time, only to read or change the
// session; never across poll(), a socket call or an event. Accepted
// connections are non-blocking, so a receiver that stops reading holds up
// nobody: its queue fills and it is dropped (AV_OUT_QUEUE_SIZE,
// AV_OUT_STALL_MS), as is a receiver that connects but never asks to PLAY
// within AV_ACCEPT_WAIT_MS of its search.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "AVStreamer.h"

// A decimal field of a request, read the way a "%hu" scan would (a leading
// sign or blanks accepted, the value cut to 16 bits) but with no undefined
// overflow. 0 when there are no digits.
static unsigned short parse_u16(const char* p) {
    if (p == nullptr) return 0;
    char* end = nullptr;
    unsigned long v = strtoul(p, &end, 10);
    return end == p ? 0 : (unsigned short)v;
}

// The value after "<key>" in req, or 0 when the key is absent.
// How long the close waits for each of the streamer's threads before it
// logs it as late (and waits on): one pass of its loop, after the wake-up.
static const unsigned int kThreadStopMs = 2000;

static unsigned short header_u16(const char* req, const char* key) {
    const char* p = strstr(req, key);
    return p ? parse_u16(p + strlen(key)) : 0;
}

bool CAVStreamer::ServerInit() {
    debug_UI("[AVStreamer m_groupId : %d] ServerInit() Start", m_groupId);
    m_RtpPacket.nPayloadType = RTP_PT_AUDIO;
    m_RtpPacket.bMarker = 1;
    m_RtpPacket.unSeqNum = 1;
    m_RtpPacket.unSsrc = PAL_rand(0x7FFFFFFF);
    m_pSendBuf = nullptr;
    m_bStreamReady = false;
    m_bSerExit = false;
    AV_STREAMER_SOCK* socks[4] = {&m_TcpSvr, &m_MulticastSvr, &m_RtpSvr, &m_RtcpSvr};
    for (AV_STREAMER_SOCK* s : socks) memset(s, 0, sizeof(*s));
    m_TcpSvr.nType = PAL_SOCK_TCP;
    m_MulticastSvr.nType = PAL_SOCK_UDP;
    m_MulticastSvr.nNetType = PAL_NET_MULTI;
    m_RtpSvr.nType = PAL_SOCK_UDP;
    m_RtcpSvr.nType = PAL_SOCK_UDP;
    for (AV_STREAMER_SOCK* s : socks) {
        s->nSock = PAL_SockCreate(s->nType);
        if (s->nSock == -1) return false;
    }
    debug_UI("[AVStreamer m_groupId : %d] ServerInit() End", m_groupId);
    return true;
}

int CAVStreamer::ServerOpen(unsigned short tcpPort, unsigned short rtpPort) {
    debug_UI("[AVStreamer m_groupId : %d] ServerOpen() Start", m_groupId);
    m_pSendBuf = (char*)calloc(1, AV_RTP_SEND_BUF_SIZE);
    if (m_pSendBuf == nullptr) return AV_ERR_NO_MEMORY;

    // Another streamer may hold the port: drift upwards by a random step.
    unsigned short port = tcpPort;
    int res = PAL_SockServerOpen(m_TcpSvr.nSock, nullptr, port, PAL_SOCK_TCP, PAL_NET_UNI);
    for (int retry = 0; res != 0 && retry < 3; retry++) {
        port = (unsigned short)(port + PAL_rand(4000));
        res = PAL_SockServerOpen(m_TcpSvr.nSock, nullptr, port, PAL_SOCK_TCP, PAL_NET_UNI);
    }
    if (res == -1) return AV_ERR_TCP_PORT;
    m_TcpSvr.uwPort = port;

    m_MulticastSvr.uwPort = m_MulticastPort;
    if (PAL_SockServerOpen(m_MulticastSvr.nSock, m_pMulticastIP, m_MulticastPort, PAL_SOCK_UDP,
                           PAL_NET_MULTI) == -1)
        return AV_ERR_MULTICAST_OPEN;
    if (PAL_SockJoinGroup(m_MulticastSvr.nSock, m_pMulticastIP, m_pMyIP) == -1)
        return AV_ERR_GROUP_JOIN;

    m_RtpSvr.uwPort = rtpPort;
    m_RtcpSvr.uwPort = (unsigned short)(rtpPort + 1);
    if (PAL_SockServerOpen(m_RtpSvr.nSock, nullptr, m_RtpSvr.uwPort, PAL_SOCK_UDP, PAL_NET_UNI) ==
            -1 ||
        PAL_SockServerOpen(m_RtcpSvr.nSock, nullptr, m_RtcpSvr.uwPort, PAL_SOCK_UDP, PAL_NET_UNI) ==
            -1)
        return AV_ERR_RTP_PORT;

    int ret = ServerListen();
    if (ret == 0) debug_UI("[AVStreamer m_groupId : %d] ServerOpen() End", m_groupId);
    return ret;
}

int CAVStreamer::ServerListen() {
    debug_UI("[AVStreamer m_groupId : %d] ServerListen()", m_groupId);
    return _start_worker(&m_serverWorker, "control server", ServerListenThread);
}

void CAVStreamer::_accept_receiver(bool* rtpStarted) {
    struct sockaddr_in peer;
    socklen_t len = sizeof(peer);
    memset(&peer, 0, sizeof(peer));
    int conn = accept(m_TcpSvr.nSock, (struct sockaddr*)&peer, &len);
    if (conn < 0) {
        int err = errno;
        debug_UI("[AVStreamer m_groupId : %d] ServerListenThread Socket accept Fail code : %s/%d",
                 m_groupId, strerror(err), err);
        return;
    }
    if (m_AVRcvSessInfo.nAVRcvSessCnt >= _receiver_count()) {
        PAL_SockClose(conn);
        return;
    }
    char ip[AV_IP_LEN] = {0};
    if (inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip)) == nullptr) ip[0] = 0;

    // The first entry of this address that is not connected yet: a receiver
    // that connects twice must not take over its own live session.
    int index = -1;
    int type = AV_CHANNEL_NA;
    int maxIdx = m_max_idx;
    for (int i = 0; i < maxIdx && i < AV_MAX_RECEIVER && index < 0; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        const AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[i];
        PalLock lock(s._lpmutex);
        if (!r.bActive || s.bActive || strcmp(r.pReceiverIP, ip) != 0) continue;
        if (!_take_connection_l(i, conn, ip)) break;  // closed below, unlocked
        index = i;
        type = s.ChannelType;
    }
    if (index < 0) {
        PAL_SockClose(conn);
        return;
    }
    debug_UI(
        "[AVStreamer m_groupId : %d] PAL_SockOpen TCP accept  Ip "
        "pAVStreamer->m_AVRcvSessInfo.AVRcvSess[%d].ChannelType = %d",
        m_groupId, index, type);
    if (_receiver_count() == m_AVRcvSessInfo.nAVRcvSessCnt && !*rtpStarted) {
        AddRtpStreamer();
        *rtpStarted = true;
    }
}

// Session index takes the accepted connection conn from ip: its outgoing
// queue, its RTP socket and ring buffer (made once, kept for the slot's
// next receivers), its role from the receiver entry. False, with nothing
// changed but what is kept for reuse, when one of them cannot be had.
bool CAVStreamer::_take_connection_l(int index, int conn, const char* ip) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    const AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[index];
    if (s.pOutQ == nullptr) s.pOutQ = (char*)malloc(AV_OUT_QUEUE_SIZE);
    if (s.pOutQ == nullptr || PAL_SetBlockingMode(conn, 0) != 0) return false;
    if (s._rtp_sock < 0) {
        int rtp = PAL_SockCreate(PAL_SOCK_UDP);
        if (rtp == -1) return false;
        debug_UI("rtp open __socket %d", rtp);
        PAL_SetBlockingMode(rtp, 0);
        int sndbuf = 0;
        socklen_t optlen = sizeof(sndbuf);
        if (getsockopt(rtp, SOL_SOCKET, SO_SNDBUF, &sndbuf, &optlen) == 0) {
            sndbuf *= 2;
            setsockopt(rtp, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));
        }
        s._rtp_sock = rtp;
    }
    memcpy(s.pReceiverIP, ip, sizeof(s.pReceiverIP) - 1);
    s.pReceiverIP[sizeof(s.pReceiverIP) - 1] = 0;
    s.ServerState = AV_STREAMER_STATE_NA;
    s.bActive = true;
    s.ChannelType = r.ChannelType;
    s.bIsSync = r.bIsSync;
    s.bIsPlayable = false;
    if (r.ChannelType == AV_CHANNEL_PARTY)
        s.NumChannels = m_AVMusicInfo.NumChannels < 2 ? m_AVMusicInfo.NumChannels : 2;
    else
        s.NumChannels = 1;
    m_NumChannels = s.NumChannels;
    s.hTcpClientSock = conn;
    s.outHead = s.outTail = 0;
    s.outFault = AV_OUT_FAULT_NONE;
    s.bReachedPlay = false;
    if (s.pFD == nullptr) s.pFD = Pal_RingBufCreate(RING_BUFFER_TOTAL_SIZE);
    if (s.pFD != nullptr) Pal_RingBufReset(s.pFD);
    m_AVRcvSessInfo.nAVRcvSessCnt++;
    return true;
}

// Milliseconds from stamp to now. Searches and joins stamp their entries on
// other threads, so a stamp may be newer than now: it is then not yet due
// (negative), instead of wrapping around to some 49 days.
static int elapsed_ms(unsigned int now, unsigned int stamp) {
    return (int)(now - stamp);
}

// Milliseconds from now until deadline (at least 1), or keeps *wait when
// that is sooner.
static void sooner(unsigned int* wait, unsigned int now, unsigned int deadline) {
    int left = (int)(deadline - now);
    unsigned int ms = left < 1 ? 1u : (unsigned int)left;
    if (ms < *wait) *wait = ms;
}

// The connection deadlines: the late start of the stream, receivers that
// never connect and receivers that connect but never reach PLAY. Returns the
// milliseconds until the next deadline (the poll bound).
unsigned int CAVStreamer::_check_waiting_receivers(bool* rtpStarted) {
    unsigned int now = PAL_GetClock();
    unsigned int wait = 1000;
    int sessCnt = m_AVRcvSessInfo.nAVRcvSessCnt;
    // Some receivers are slow or gone: start with those that came.
    if (!*rtpStarted && sessCnt > 0 && sessCnt < _receiver_count()) {
        if (elapsed_ms(now, m_unSearchBaseClock) > AV_SEARCH_WAIT_MS) {
            AddRtpStreamer();
            int maxIdx = m_max_idx;
            for (int i = 0; i < maxIdx && i < AV_MAX_RECEIVER; i++) {
                AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
                PalLock lock(s._lpmutex);
                if (!s.bActive) m_AVReceiverInfo.AVReceiver[i].bIsSync = 0;
            }
            *rtpStarted = true;
        } else {
            sooner(&wait, now, m_unSearchBaseClock + AV_SEARCH_WAIT_MS + 1);
        }
    }
    // Receivers that never connected after being searched are dropped, and
    // so are those that connected but have not asked to PLAY by the same
    // limit: the stream thread waits for nobody beyond it. Events go out
    // after the lock is released.
    int maxIdx = m_max_idx;
    for (int i = 0; i < maxIdx && i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[i];
        char ip[AV_IP_LEN] = {0};
        int left = -1;
        bool noShow = false;
        PalLock lock(s._lpmutex);
        bool waiting = r.bActive && r.SearchTs != 0 && !s.bReachedPlay;
        unsigned int deadline = r.SearchTs + AV_ACCEPT_WAIT_MS;
        if (waiting && elapsed_ms(now, r.SearchTs) > AV_ACCEPT_WAIT_MS) {
            if (!s.bActive) {
                memcpy(ip, r.pReceiverIP, sizeof(ip) - 1);
                memset(&r, 0, sizeof(r));
                left = _receiver_count_add(-1);
                int top = i + 1;
                m_max_idx.compare_exchange_strong(top, i);
            } else {
                noShow = true;
            }
        } else if (waiting) {
            sooner(&wait, now, deadline + 1);
        }
        lock.Unlock();
        if (noShow) _drop_session(i, "no PLAY within the no-show limit");
        if (left < 0) continue;
        _notify(AVMSG_RECEIVER_RESET, (intptr_t)ip, 0, 0, 0);
        if (left == 0) _notify(AVMSG_SERVICE_STOP, m_groupId, 0, 0, 0);
    }
    return wait;
}

void CAVStreamer::_wake_server() {
    if (m_wakeFd[1] < 0) return;
    char c = 1;
    // A full pipe already holds a wake-up.
    if (write(m_wakeFd[1], &c, 1) < 0) return;
}

void CAVStreamer::_close_stale_sockets() {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        int sock = m_AVRcvSessInfo.AVRcvSess[i].hStaleSock.exchange(-1);
        if (sock >= 0) PAL_SockClose(sock);
    }
}

// Sends what session index's queue holds, as far as the socket takes it.
// Runs on the control-server thread only, which is also the only closer of
// control connections: the descriptor taken under the lock stays valid, and
// the queued bytes are not touched by appends. False on a failed write.
bool CAVStreamer::_flush_session(int index) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PalLock lock(s._lpmutex);
    int sock = s.hTcpClientSock;
    uint32_t head = s.outHead;
    uint32_t tail = s.outTail;
    const char* q = s.pOutQ;
    lock.Unlock();
    if (sock < 0 || q == nullptr || head == tail) return true;
    uint32_t sent = head;
    bool failed = false;
    while (sent != tail) {
        uint32_t at = sent & (AV_OUT_QUEUE_SIZE - 1);
        uint32_t chunk = tail - sent;
        if (chunk > AV_OUT_QUEUE_SIZE - at) chunk = AV_OUT_QUEUE_SIZE - at;
        ssize_t n = send(sock, q + at, chunk, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += (uint32_t)n;
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            failed = n < 0 && errno != EAGAIN && errno != EWOULDBLOCK;
            break;
        }
    }
    PalLock relock(s._lpmutex);
    if (s.hTcpClientSock == sock) {  // not released meanwhile
        if (sent != head) {
            s.outHead = sent;
            s.outProgressClock = PAL_GetClock();
        }
        if (failed) s.outFault = AV_OUT_FAULT_ERROR;
    }
    return !failed;
}

// Drops a receiver that holds the group up, as one that never connected:
// its slot is released, its connection closed, AVMSG_RECEIVER_RESET raised.
void CAVStreamer::_drop_session(int index, const char* why) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    char ip[AV_IP_LEN] = {0};
    PalLock lock(s._lpmutex);
    bool active = s.bActive;
    if (active) {
        memcpy(ip, s.pReceiverIP, sizeof(ip) - 1);
        s.ServerState = AV_STREAMER_STATE_BYE;
        _receiver_release_l(index);
    }
    s.outFault = AV_OUT_FAULT_NONE;
    int left = _receiver_count();
    lock.Unlock();
    if (!active) return;
    debug_UI("[AVStreamer m_groupId : %d] receiver %s dropped: %s", m_groupId, ip, why);
    _close_stale_sockets();
    _notify(AVMSG_RECEIVER_RESET, (intptr_t)ip, 0, 0, 0);
    if (left == 0) _notify(AVMSG_SERVICE_STOP, m_groupId, 0, 0, 0);
}

// Flushes every queue and drops the receivers that stopped taking their
// bytes. Returns the milliseconds until the next stall deadline.
unsigned int CAVStreamer::_check_sessions() {
    unsigned int wait = 1000;
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        if (s.hTcpClientSock < 0) continue;
        _flush_session(i);
        unsigned int now = PAL_GetClock();
        PalLock lock(s._lpmutex);
        int fault = s.outFault;
        bool pending = s.outHead != s.outTail;
        unsigned int since = s.outProgressClock;
        lock.Unlock();
        if (fault == AV_OUT_FAULT_OVERFLOW) {
            _drop_session(i, "its control queue overflowed (it does not read)");
        } else if (fault == AV_OUT_FAULT_ERROR) {
            _drop_session(i, "its control connection failed");
        } else if (pending && now - since > AV_OUT_STALL_MS) {
            _drop_session(i, "it took no byte of its control queue for 3000 ms");
        } else if (pending) {
            sooner(&wait, now, since + AV_OUT_STALL_MS + 1);
        }
    }
    return wait;
}

int CAVStreamer::ServerListenThread(void* param) {
    CAVStreamer* self = (CAVStreamer*)param;
    debug_UI("ServerListenThread+++");
    AV_RCV_SESS* sess = self->m_AVRcvSessInfo.AVRcvSess;
    for (int i = 0; i < AV_MAX_RECEIVER; i++) sess[i].hTcpClientSock = -1;
    enum { LISTENER, MCAST, WAKE, FIRST_SESSION };
    struct pollfd fds[FIRST_SESSION + AV_MAX_RECEIVER];
    int owner[FIRST_SESSION + AV_MAX_RECEIVER];
    bool rtpStarted = false;
    unsigned int waitMs = 0;
    while (!self->m_bSerExit) {
        fds[LISTENER] = {self->m_TcpSvr.nSock, POLLIN, 0};
        fds[MCAST] = {self->m_MulticastSvr.nSock, POLLIN, 0};
        fds[WAKE] = {self->m_wakeFd[0], POLLIN, 0};
        int n = FIRST_SESSION;
        for (int i = 0; i < AV_MAX_RECEIVER; i++) {
            PalLock lock(sess[i]._lpmutex);
            int sock = sess[i].hTcpClientSock;
            bool pending = sess[i].outHead != sess[i].outTail;
            lock.Unlock();
            if (sock < 0) continue;
            fds[n] = {sock, (short)(POLLIN | (pending ? POLLOUT : 0)), 0};
            owner[n++] = i;
        }
        // Bounded by the next deadline; a command queued by another thread,
        // a release or the close wakes it through the pipe.
        if (poll(fds, (nfds_t)n, (int)waitMs) < 0)
            for (int k = 0; k < n; k++) fds[k].revents = 0;

        if (fds[WAKE].revents & POLLIN) {
            char drain[64];
            while (read(self->m_wakeFd[0], drain, sizeof(drain)) > 0) {
            }
        }
        self->_raise_progress();
        self->_close_stale_sockets();
        if (fds[LISTENER].revents & POLLIN) self->_accept_receiver(&rtpStarted);
        for (int k = FIRST_SESSION; k < n; k++) {
            if (fds[k].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))
                self->OnTcpCmdRead(owner[k]);
        }
        if (fds[MCAST].revents & POLLIN) self->OnMulticastCmdRead();
        waitMs = self->_check_waiting_receivers(&rtpStarted);
        unsigned int stall = self->_check_sessions();
        if (stall < waitMs) waitMs = stall;
    }
    // Whatever was queued last (BYE, QUIT_SENDER) goes out if the socket
    // takes it now; the close does not wait for it.
    for (int i = 0; i < AV_MAX_RECEIVER; i++) self->_flush_session(i);
    debug_UI("ServerListenThread---");
    return 0;
}

void CAVStreamer::_release_bye(int index) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PalLock lock(s._lpmutex);
    s.ServerState = AV_STREAMER_STATE_BYE;
    if (s.bActive) _receiver_release_l(index);
}

// A control connection that ended (closed by the receiver, or failed: a
// failed descriptor would otherwise wake every poll) releases its session.
void CAVStreamer::_release_closed(int index, int sock) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PalLock lock(s._lpmutex);
    if (s.hTcpClientSock == sock) {
        s.ServerState = AV_STREAMER_STATE_BYE;
        if (s.bActive) _receiver_release_l(index);
    }
}

int CAVStreamer::OnTcpCmdRead(int index) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    char req[AV_TCP_REQ_BUF_SIZE] = {0};
    char ip[AV_IP_LEN] = {0};
    PalLock lock(s._lpmutex);
    int sock = s.hTcpClientSock;
    memcpy(ip, s.pReceiverIP, sizeof(ip) - 1);
    lock.Unlock();
    // Read without the lock: this thread alone closes the descriptor.
    if (sock < 0) return 0;
    ssize_t n = recv(sock, req, AV_TCP_REQ_BUF_SIZE - 1, MSG_DONTWAIT);
    if (n == 0) {
        debug_UI("xxxcheck socket read 0  sockfd %d", sock);
        _release_closed(index, sock);
        return 0;
    }
    if (n < 0) {
        int err = errno;
        if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR) {
            debug_UI("xxxcheck socket read error %s sockfd %d", strerror(err), sock);
            _release_closed(index, sock);
        }
        return 0;
    }
    req[n] = 0;
    debug_UI("[AVStreamer m_groupId : %d] AVRcvSess[%d]==============", m_groupId, index);

    if (strstr(req, "LEAVE") != nullptr) {
        unsigned long long reqTs = 0;
        const char* p = strstr(req, "REQ_TS:");
        char num[20] = {0};
        if (p != nullptr && sscanf(p, "REQ_TS: %19s", num) == 1) reqTs = strtoull(num, nullptr, 10);
        PalLock leave(s._lpmutex);
        bool stale = reqTs < s.ReqTs;
        leave.Unlock();
        if (stale) return 0;  // an older LEAVE overtaken by a newer JOIN
        _release_bye(index);
        _notify(AVMSG_RECEIVER_LEAVE, (intptr_t)ip, m_groupId, 0, 0);
        if (_receiver_count() == 0) _notify(AVMSG_SERVICE_STOP, m_groupId, 0, 0, 0);
    }
    if (strstr(req, "TEARDOWN") != nullptr) {
        debug_UI("[AVStreamer m_groupId : %d] TEARDOWN", m_groupId);
        _release_bye(index);
        _notify(AVMSG_RECEIVER_RESET, (intptr_t)ip, 0, 0, 0);
        if (_receiver_count() == 0) _notify(AVMSG_SERVICE_STOP, m_groupId, 0, 0, 0);
        return 1;
    }
    if (strstr(req, "BYE_ACK") != nullptr) {
        debug_UI(">>>>> BYE_ACK ServerState %d ", (int)s.ServerState);
        _release_bye(index);
        if (m_AVRcvSessInfo.nAVRcvSessCnt == 0)
            debug_UI("BYE_ACK complete  current clock %llu", (unsigned long long)PAL_GetClock());
        return 1;
    }
    if (strstr(req, "ALIVED") != nullptr) {
        PalLock alive(s._lpmutex);
        s.uwAliveClock = PAL_GetClock();
    }
    const char* vol = strstr(req, "VOLUME_CHANGED");
    if (vol != nullptr) {
        PalLock changed(s._lpmutex);
        if (vol[14] == ' ') s.nDeviceVolume = parse_u16(vol + 15);
        int v = s.nDeviceVolume;
        changed.Unlock();
        _notify(AVMSG_RECEIVER_VOLUMECHANGED, v, (intptr_t)ip, 0, 0);
    }
    if (strstr(req, "CHANNEL") != nullptr) {
        debug_UI("[AVStreamer m_groupId : %d] CHANNEL", m_groupId);
        PalLock channel(s._lpmutex);
        s.uwClientSyncPort = header_u16(req, "SyncPort:");
        const bool ref = ++nAVRcvReadyCnt == 1;
        s.ServerState = AV_STREAMER_STATE_SEARCH;
        channel.Unlock();
        if (ref) _take_reference(index);
        ReceiverAddStart(index);
        return 1;
    }
    if (s.ServerState == AV_STREAMER_STATE_CLOCK) {
        // Whatever the receiver sends now is its answer to the clock request.
        const char* p = strstr(req, "Clock: ");
        if (p != nullptr) m_unRefBaseClock = (uint32_t)strtoul(p + 7, nullptr, 10);
        m_unSvrBaseClock = PAL_GetClock();
        s.ServerState = AV_STREAMER_STATE_PLAY;
        return 1;
    }
    const char* cs = strstr(req, "CSeq: ");
    unsigned short cseq = cs ? parse_u16(cs + 6) : 0;
    if (cseq == 0) return 1;
    if (strstr(req, "DESCRIBE") != nullptr) {
        debug_UI("[AVStreamer m_groupId : %d] DESCRIBE", m_groupId);
        s.ServerState = AV_STREAMER_STATE_DESCRIBE;
        SendSDP(index, cseq);
    } else if (strstr(req, "SETUP") != nullptr) {
        unsigned short rtpPort = 0, rtcpPort = 0;
        const char* p = strstr(req, "client_port=");
        if (p != nullptr) {
            char* end = nullptr;
            p += strlen("client_port=");
            unsigned long a = strtoul(p, &end, 10);
            if (end != p) {
                rtpPort = (unsigned short)a;
                if (*end == '-') rtcpPort = parse_u16(end + 1);
            }
        }
        {
            PalLock setup(s._lpmutex);
            s.uwClientRtpPort = rtpPort;
            s.uwClientRtcpPort = rtcpPort;
        }
        debug_UI("[AVStreamer m_groupId : %d] SETUP", m_groupId);
        s.ServerState = AV_STREAMER_STATE_SETUP;
        SendResSetup(index, cseq);
    } else if (strstr(req, "PLAY") != nullptr) {
        debug_UI("[AVStreamer m_groupId : %d] PLAY", m_groupId);
        PalLock play(s._lpmutex);
        s.ServerState = AV_STREAMER_STATE_PLAY;
        s.bIsPlayable = true;
        s.bReachedPlay = true;
        int volume = m_AVReceiverInfo.AVReceiver[index]._volume;
        play.Unlock();
        SendResponse(index, cseq);
        ReceiverVolume(index, volume);
    } else if (strstr(req, "PAUSE") != nullptr) {
        s.ServerState = AV_STREAMER_STATE_PAUSE;
        SendResponse(index, cseq);
    }
    return 1;
}

int CAVStreamer::OnMulticastCmdRead() {
    char msg[AV_MULTICAST_REQ_BUF_SIZE] = {0};
    char from[AV_IP_LEN] = {0};
    int n =
        PAL_SockRecvFrom(m_MulticastSvr.nSock, msg, AV_MULTICAST_REQ_BUF_SIZE - 1, from, nullptr);
    if (n <= 0) return 0;
    msg[n] = 0;
    const char* join = strstr(msg, "JOIN");
    if (join != nullptr) {
        debug_UI("JOIN");
        char addr[AV_IP_LEN] = {0};
        if (sscanf(join, "JOIN %19s", addr) != 1) addr[0] = 0;
        const char* ts = strstr(msg, "REQ_TS:");
        int maxIdx = m_max_idx;
        for (int i = 0; i < maxIdx && i < AV_MAX_RECEIVER; i++) {
            AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
            PalLock lock(s._lpmutex);
            if (strcmp(s.pReceiverIP, addr) != 0) continue;
            if (ts != nullptr) s.ReqTs = (uint32_t)strtoul(ts + 7, nullptr, 10);
            break;
        }
        _notify(AVMSG_RECEIVER_FOUND, (intptr_t)addr, (intptr_t)msg, (intptr_t)this, 0);
    } else if (strstr(msg, "MASTERSEARCH") != nullptr) {
        // Receivers elect their master among themselves; the sender only
        // reads the announcement (sender address in from) and stays silent.
        char name[AV_NAME_LEN] = {0};
        const char* p = strstr(msg, "NAME: ");
        if (p != nullptr) {
            p += strlen("NAME: ");
            const char* end = strstr(p, "\r\n");
            size_t len = end ? (size_t)(end - p) : strlen(p);
            if (len > sizeof(name) - 1) len = sizeof(name) - 1;
            memcpy(name, p, len);
        }
    }
    return 1;
}

int CAVStreamer::SendResponse(int index, unsigned short cseq) {
    char reply[AV_TCP_REQ_BUF_SIZE] = {0};
    snprintf(reply, sizeof(reply), "RTSP/1.0 200 OK\r\nCseq: %d\r\n\r\n", cseq);
    return _session_write(index, reply) == AV_WRITE_OK ? 1 : 0;
}

int CAVStreamer::SendResSetup(int index, unsigned short cseq) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    char reply[AV_TCP_REQ_BUF_SIZE] = {0};
    {
        PalLock lock(s._lpmutex);
        snprintf(reply, sizeof(reply),
                 "RTSP/1.0 200 OK\r\nCseq: %d\r\nTransport: "
                 "RTP/AVP;unicast;client_port=%d-%d;server_port=%d-%d\r\n\r\n",
                 cseq, s.uwClientRtpPort, s.uwClientRtcpPort, m_RtpSvr.uwPort, m_RtcpSvr.uwPort);
    }
    debug_UI("[AVStreamer m_groupId : %d] AVRcvSess[%d]==============", m_groupId, index);
    debug_UI("[AVStreamer m_groupId : %d] SETUP ACK", m_groupId);
    return _session_write(index, reply) == AV_WRITE_OK ? 1 : 0;
}

int CAVStreamer::SendSDP(int index, unsigned short cseq) {
    char body[512] = {0};
    char reply[AV_TCP_REQ_BUF_SIZE] = {0};
    // Receivers are always sent 2-channel PCM, whatever the file holds.
    snprintf(body, sizeof(body), "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L%d/%d/%d\r\ni=%s\r\n",
             m_AVMusicInfo.BytesPerSample * 8, (int)m_AVMusicInfo.SampleRate, 2,
             m_AVMusicInfo.pContentTitle);
    snprintf(reply, sizeof(reply),
             "RTSP/1.0 200 OK\r\nCseq: %d\r\nContent-Type: application/sdp\r\nContent-Length: "
             "%d\r\n\r\n%s",
             cseq, (int)strlen(body), body);
    debug_UI("[AVStreamer m_groupId : %d] m_AVMusicInfo.BytesPerSample[%d]==============",
             m_groupId, m_AVMusicInfo.BytesPerSample);
    debug_UI("[AVStreamer m_groupId : %d] AVRcvSess[%d]==============", m_groupId, index);
    debug_UI("[AVStreamer m_groupId : %d] SDP", m_groupId);
    return _session_write(index, reply, AV_STREAMER_STATE_SEND_SDP) == AV_WRITE_OK ? 1 : 0;
}

static void close_server_sock(AV_STREAMER_SOCK* s) {
    if (s->nSock > 0) PAL_SockClose(s->nSock);
    s->nSock = -1;
}

int CAVStreamer::ServerClose() {
    _wake_server();  // the control server sees m_bSerExit now, not at its next deadline
    // Woken by the close, each thread ends within one pass of its loop: the
    // music source within one wait on its semaphore (AV_MUSIC_WAIT_MS) or
    // one chunk, the control server within one poll, the stream thread
    // within one packet's time. At the bound the close logs the thread as
    // late and waits on: what it uses is freed below.
    m_musicWorker.Stop(kThreadStopMs);
    debug_UI("ServerClose ServerListen Thread quit2");
    m_serverWorker.Stop(kThreadStopMs);
    m_rtpWorker.Stop(kThreadStopMs);

    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        int sock = s.hTcpClientSock;
        s.hTcpClientSock = -1;
        if (sock >= 0) s.hStaleSock = sock;
        // A leave still waiting for this receiver's BYE_ACK (discovery's
        // EXIT path) ends now instead of at its time-out.
        if (s.bActive) s.ServerState = AV_STREAMER_STATE_BYE;
        s.outHead = s.outTail = 0;
        PAL_RINGBUF* rb = s.pFD;
        if (rb != nullptr) Pal_RingBufClose(rb);
        s.pFD = nullptr;
        int rtp = s._rtp_sock;
        s._rtp_sock = -1;
        lock.Unlock();
        // The mutex stays: discovery may still ask for this receiver.
        if (rtp >= 0) PAL_SockClose(rtp);
    }
    _close_stale_sockets();

    close_server_sock(&m_TcpSvr);
    if (m_MulticastSvr.nSock > 0) PAL_SockLeaveGroup(m_MulticastSvr.nSock, m_pMulticastIP, m_pMyIP);
    close_server_sock(&m_MulticastSvr);
    close_server_sock(&m_RtpSvr);
    close_server_sock(&m_RtcpSvr);
    free(m_pSendBuf);
    m_pSendBuf = nullptr;
    return 1;
}
