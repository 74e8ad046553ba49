// Commands the streamer originates towards its receivers: the SEARCH
// invitation (multicast to the group, or unicast to one joining receiver),
// join and leave of single receivers, and seek, pause, resume, stop, quit,
// clock and alive on the receivers' control connections.
//
// Allocates nothing. Runs on the caller's thread (the sender facade) while
// the control-server, RTP and music source threads run.
// Locks: each session's `_lpmutex` in turn, never two, only to read the
// session or queue a command (the control-server thread sends it); the leave
// wait and the seek wait hold none. Every wait here is bounded.
#include <stdio.h>
#include <string.h>

#include "AVStreamer.h"

static const char kRuleLine[] = "====================================";
static const char kBye[] = "BYE RTSP/1.0\r\n\r\n";

// The identity every SEARCH carries, shared by all streamers: at most 39
// characters, always terminated.
void CAVStreamer::SetGUID(const char* guid) {
    memset(mguid, 0, sizeof(mguid));
    if (guid != nullptr) strncpy(mguid, guid, sizeof(mguid) - 1);
}

// The SEARCH text followed by the 4-byte network-order address of every
// listed receiver whose address converts. Returns the datagram length.
static int build_search(char* buf, size_t size, const char* guid, unsigned int reqTs,
                        const char* myIp, unsigned short tcpPort, const char* const* ips,
                        int count) {
    memset(buf, 0, size);
    int len =
        snprintf(buf, size, "SEARCH\r\nGUID: %s\r\nREQ_TS: %u\r\nServer: %s:%d\r\nClient: ", guid,
                 reqTs, myIp, tcpPort);
    if (len < 0 || (size_t)len >= size) return 0;
    for (int i = 0; i < count && (size_t)len + 4 <= size; i++) {
        unsigned int addr = PAL_inet_addr(ips[i]);
        static_assert(sizeof(addr) == 4, "each Client entry is a 4-byte IPv4 address");
        if (addr == 0) continue;
        memcpy(buf + len, &addr, 4);
        len += 4;
    }
    return len;
}

int CAVStreamer::ReceiverSearch(AV_RECEIVER_INFO* lpReceiverInfo) {
    if (lpReceiverInfo == nullptr) return 0;
    unsigned int reqTs = PAL_GetClock();
    int count = lpReceiverInfo->nAVReceiverCnt;
    if (count < 0) count = 0;
    if (count > AV_MAX_RECEIVER) count = AV_MAX_RECEIVER;
    char ipText[AV_MAX_RECEIVER][AV_IP_LEN];
    const char* ips[AV_MAX_RECEIVER];
    for (int i = 0; i < count; i++) {
        memcpy(ipText[i], lpReceiverInfo->AVReceiver[i].pReceiverIP, AV_IP_LEN - 1);
        ipText[i][AV_IP_LEN - 1] = 0;
        ips[i] = ipText[i];
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        m_AVReceiverInfo.AVReceiver[i].SearchTs = reqTs;
    }
    char msg[AV_CMD_BUF_SIZE];
    int len = build_search(msg, sizeof(msg), mguid, reqTs, m_pMyIP, m_TcpSvr.uwPort, ips, count);
    m_unSearchBaseClock = PAL_GetClock();
    for (int n = 0; n < 8; n++) {
        debug_UI("[AVStreamer m_groupId : %d] Search[%d]========", m_groupId, n);
        PAL_SockWrite(m_MulticastSvr.nSock, PAL_SOCK_UDP, msg, len, m_pMulticastIP,
                      m_MulticastPort);
        PAL_ThreadSleep(40);
    }
    return 0;
}

int CAVStreamer::ReceiverAddSearch(int nIndex) {
    unsigned int reqTs = PAL_GetClock();
    char ip[AV_IP_LEN] = {0};
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[nIndex];
    {
        PalLock lock(s._lpmutex);
        memcpy(ip, m_AVReceiverInfo.AVReceiver[nIndex].pReceiverIP, sizeof(ip) - 1);
        m_AVReceiverInfo.AVReceiver[nIndex].SearchTs = reqTs;
    }
    const char* ips[1] = {ip};
    char msg[AV_CMD_BUF_SIZE];
    int len = build_search(msg, sizeof(msg), mguid, reqTs, m_pMyIP, m_TcpSvr.uwPort, ips, 1);
    for (int n = 0; n < 8; n++) {
        debug_UI("[AVStreamer m_groupId : %d] Search[%d]========", m_groupId, n);
        PAL_SockWrite(m_MulticastSvr.nSock, PAL_SOCK_UDP, msg, len, ip, m_MulticastPort);
        PAL_ThreadSleep(10);
    }
    return 1;
}

int CAVStreamer::AVStreamerReceiverIn(AV_RECEIVER AVReceiver) {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        // A slot whose entry was cleared by a leave still waiting for its
        // BYE acknowledgement is not free yet.
        if (m_AVReceiverInfo.AVReceiver[i].pReceiverIP[0] != 0 || s.bActive) continue;
        // The slot keeps its mutex and its ring buffer (emptied) for reuse.
        PAL_RINGBUF* rb = s.pFD;
        _session_clear(i);
        if (rb != nullptr) Pal_RingBufReset(rb);
        s.pFD = rb;
        AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[i];
        r = AVReceiver;
        r.pReceiverIP[AV_IP_LEN - 1] = 0;
        r.bActive = 1;
        int count = _receiver_count_add(1);
        int top = m_max_idx;
        while (count > top && !m_max_idx.compare_exchange_weak(top, count)) {
        }
        lock.Unlock();
        ReceiverAddSearch(i);
        return 0;
    }
    return AV_ERR_NO_FREE_SLOT;
}

int CAVStreamer::_receiver_leave_l(int nIndex) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[nIndex];
    debug_UI("[AVStreamer m_groupId : %d] Leave[%d]========", m_groupId, nIndex);
    debug_UI("%s", kBye);
    debug_UI("%s", kRuleLine);
    // Queued only: the caller wakes the control server once unlocked.
    int res = _queue_l(nIndex, kBye, (int)strlen(kBye)) == AV_WRITE_FAIL ? -1 : 0;
    s.bIsPlayable = false;
    s.bIsSync = 0;
    return res;
}

int CAVStreamer::ReceiverLeave(int nIndex) {
    {
        PalLock lock(m_AVRcvSessInfo.AVRcvSess[nIndex]._lpmutex);
        _receiver_leave_l(nIndex);
    }
    _wake_server();
    return 1;
}

int CAVStreamer::AVStreamerReceiverOut(const char* pReceiverIP) {
    int index = -1;
    for (int i = 0; i < AV_MAX_RECEIVER && pReceiverIP != nullptr; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[i];
        PalLock lock(s._lpmutex);
        if (s.bActive && strcmp(r.pReceiverIP, pReceiverIP) == 0) {
            _receiver_leave_l(i);
            memset(&r, 0, sizeof(r));
            index = i;
            break;
        }
    }
    if (index < 0) {
        debug_UI("AVStreamerReceiverOut--- Ret %d", AV_ERR_RECEIVER_NOT_ACTIVE);
        return AV_ERR_RECEIVER_NOT_ACTIVE;
    }
    _wake_server();
    // The control server releases the session when the BYE is acknowledged.
    // It sets BYE and releases under one hold of the session lock, so BYE
    // read under the lock means the release (and its count) is done.
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    // 20 rounds of 50 ms, and no more than a second however late the sleeps
    // wake.
    int check_try = 20;
    unsigned int start = PAL_GetClock();
    for (;;) {
        PAL_ThreadSleep(50);
        if (--check_try == 0) break;
        if (PAL_GetClock() - start >= 1000) {
            check_try = 0;
            break;
        }
        PalLock lock(s._lpmutex);
        if (s.ServerState == AV_STREAMER_STATE_BYE) break;
    }
    if (check_try == 0) ReceiverRelease(index);
    debug_UI("AVStreamerReceiverOut BYE_ACK check_try count %d", check_try);
    if (_receiver_count() == 0) _notify(AVMSG_SERVICE_STOP, m_groupId, 0, 0, 0);
    return 0;
}

void CAVStreamer::AVStreamerSeek(int offset) {
    debug_UI(
        "xxxseek [AVStreamerSeek] [AVStreamer m_groupId : %d] AVStreamerSeek() Start offset %d",
        m_groupId, offset);
    if (!canAction(STREAM_ACTION_SEEK)) {
        debug_UI(
            "xxxseek [AVStreamerSeek] [AVStreamer m_groupId : %d] canAction(STREAM_ACTION_SEEK) "
            "ERROR",
            m_groupId);
        return;
    }
    m_nOffsetTime = offset;
    // Signals of an earlier seek are spent first. Cleared before the request
    // is raised, so that a completion of this very seek cannot be wiped out.
    while (PAL_SemTimedWait(m_pSeekDoneSem, 0) == 0) {
    }
    _bseek_complete = false;
    bSeekReqMusicSrcT = true;
    _wake_music_source();
    debug_UI("xxxseek [AVStreamerSeek] bSeekReqMusicSrcT = TRUE set");
    // Asleep until the music source reports the seek done (or the stream
    // ends), and bounded: the application must get its call back whatever the
    // receivers do. At the bound the receivers are told to seek anyway; the
    // music source still carries the request out when it next runs.
    unsigned int start = PAL_GetClock();
    while (!m_bSerExit && m_rtpWorker.Started() && !_bseek_complete) {
        unsigned int waited = PAL_GetClock() - start;
        if (waited > AV_SEEK_WAIT_MS) {
            debug_UI("xxxseek [AVStreamerSeek] no completion within %d ms", AV_SEEK_WAIT_MS);
            break;
        }
        PAL_SemTimedWait(m_pSeekDoneSem, AV_SEEK_WAIT_MS + 1 - waited);
    }
    debug_UI("xxxseek complete empties ring buffers");
    ReceiverSeekRequest();
    debug_UI("xxxseek [AVStreamer m_groupId : %d] AVStreamerSeek() End", m_groupId);
}

void CAVStreamer::_seek_done() {
    _bseek_complete = true;
    PAL_SemSignal(m_pSeekDoneSem, 1);
}

int CAVStreamer::_broadcast_until_failure(const char* text) {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if (m_AVRcvSessInfo.AVRcvSess[i].bActive && _session_write(i, text) == AV_WRITE_FAIL)
            return 0;
    }
    return 0;
}

int CAVStreamer::ReceiverSeekRequest() {
    return _broadcast_until_failure("SEEK\r\n\r\n");
}

int CAVStreamer::ReceiverResumeRequest() {
    return _broadcast_until_failure("RESUME\r\n\r\n");
}

void CAVStreamer::AVStreamerPause() {
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerPause() Start", m_groupId);
    if (!canAction(STREAM_ACTION_PAUSE)) {
        debug_UI("[AVStreamer m_groupId : %d] canAction(STREAM_ACTION_PAUSE) ERROR", m_groupId);
        return;
    }
    SetStreamState(STREAM_STATE_PAUSE);
    _bpause = true;
    _wake_music_source();  // a chunk waiting for room is abandoned now
    ReceiverPauseRequest(-1);
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerPause() End", m_groupId);
}

int CAVStreamer::ReceiverPauseRequest(int idx) {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if ((idx >= 0 && i != idx) || !m_AVRcvSessInfo.AVRcvSess[i].bActive) continue;
        if (_send_comman_packet(i, "PAUSE\r\n\r\n") == AV_ERR_WRITE_FAILED)
            debug_UI("fail send pause packet");
    }
    return 0;
}

void CAVStreamer::AVStreamerResume() {
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerResume() Start", m_groupId);
    if (!canAction(STREAM_ACTION_RESUME)) {
        debug_UI("[AVStreamer m_groupId : %d] canAction(STREAM_ACTION_RESUME) ERROR", m_groupId);
        return;
    }
    SetStreamState(STREAM_STATE_RESUME);
    _bpause = false;
    _wake_music_source();
    ReceiverResumeRequest();
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerResume() End", m_groupId);
}

void CAVStreamer::AVStreamerStop() {
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerStop() Start", m_groupId);
    if (!canAction(STREAM_ACTION_STOP)) return;
    SetStreamState(STREAM_STATE_STOP);
    ReceiverStop();
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerStop() End", m_groupId);
}

int CAVStreamer::ReceiverStop() {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        if (!s.bActive) continue;
        debug_UI("[AVStreamer m_groupId : %d] Stop[%d]========", m_groupId, i);
        debug_UI("%s", kBye);
        debug_UI("%s", kRuleLine);
        _session_write(i, kBye);  // a receiver that cannot hear it is gone anyway
    }
    return 1;
}

void CAVStreamer::AVSenderStopNotify() {
    static const char kQuit[] = "QUIT_SENDER\r\n\r\n";
    debug_UI("[AVStreamer m_groupId : %d] AVSenderStopNotify() Start", m_groupId);
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if (!m_AVRcvSessInfo.AVRcvSess[i].bActive) continue;
        debug_UI("QUIT_SENDER AVRcvSess[%d]==============", i);
        if (_session_write(i, kQuit) == AV_WRITE_FAIL)
            debug_UI("[AVStreamer] Send AVSenderStopNotify nRes = %d", -1);
    }
    debug_UI("[AVStreamer m_groupId : %d] AVSenderStopNotify() End", m_groupId);
}

bool CAVStreamer::SendReqClock(int nRcv) {
    if (nRcv < 0 || nRcv >= AV_MAX_RECEIVER) return false;
    char cmd[AV_TCP_REQ_BUF_SIZE] = {0};
    snprintf(cmd, sizeof(cmd), "CLOCK RTSP/1.0\r\n\r\n");
    debug_UI("[AVStreamer m_groupId : %d] AVRcvSess[%d]==============", m_groupId, nRcv);
    return _session_write(nRcv, cmd) == AV_WRITE_OK;
}

bool CAVStreamer::ReceiverAlive(int nRcv) {
    if (nRcv < 0 || nRcv >= AV_MAX_RECEIVER) return false;
    static const char kAlive[] = "ALIVE\r\n\r\n";
    debug_UI("[AVStreamer m_groupId : %d] ALIVE[%d]========", m_groupId, nRcv);
    debug_UI("%s", kAlive);
    debug_UI("%s", kRuleLine);
    return _session_write(nRcv, kAlive) == AV_WRITE_OK;
}
