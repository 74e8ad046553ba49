// CAVStreamer construction, reset, the streamer state machine and the release
// of receiver sessions with the hand-over of the reference role.
//
// Allocates nothing. Runs on the caller's thread (construction, state) and on
// the control-server thread and the caller's thread (session release).
// Locks: one session `_lpmutex` at a time; _receiver_release_l expects the
// caller to hold the session's lock. The session mutexes are created with
// the object and deleted with it.
#include "AVStreamer.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

char CAVStreamer::mguid[AV_GUID_LEN];

// Allowed actions per state: row = current STATE, column = STREAM_ACTION.
static const unsigned char kStateActionTable[STREAM_STATE_MAX * STREAM_ACTION_MAX] = {
    // INIT OPEN PLAY STOP PAUSE RESUME CLOSE SEEK
    1, 0, 0, 0, 0, 0, 0, 0,  // IDLE
    0, 1, 0, 0, 0, 0, 1, 0,  // INIT
    0, 0, 1, 1, 1, 0, 1, 1,  // OPEN
    0, 1, 0, 1, 1, 0, 1, 0,  // PLAY
    0, 0, 0, 0, 0, 0, 1, 0,  // STOP
    0, 0, 0, 1, 0, 1, 1, 1,  // PAUSE
    0, 0, 0, 1, 1, 0, 1, 1,  // RESUME
    1, 0, 0, 0, 0, 0, 1, 0,  // CLOSE
};

CAVStreamer::CAVStreamer(AV_NOTIFY_MSG notify, void* parent, int groupId) {
    debug_UI("[AVStreamer] CAVStreamer groupId : %d", groupId);
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        s._lpmutex = nullptr;
        s.pOutQ = nullptr;
        s.hStaleSock = -1;
    }
    AVStreamerSetDefault();
    // The session mutexes live as long as the object: a close that races a
    // late call from discovery (a receiver's EXIT) still finds them. A
    // failed creation leaves nullptr, on which the platform's lock calls do
    // nothing, and AVStreamerInit refuses to run.
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if (!PAL_MutexCreate(&m_AVRcvSessInfo.AVRcvSess[i]._lpmutex))
            m_AVRcvSessInfo.AVRcvSess[i]._lpmutex = nullptr;
    }
    // The control server's wake-up pipe, non-blocking at both ends; made
    // here so that no late caller can write to a descriptor already reused.
    // The seek's completion signal too (AVStreamerInit refuses to run
    // without it).
    if (!PAL_SemCreate(&m_pSeekDoneSem, 0)) m_pSeekDoneSem = nullptr;
    m_wakeFd[0] = m_wakeFd[1] = -1;
    if (pipe(m_wakeFd) == 0) {
        for (int fd : m_wakeFd) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    } else {
        m_wakeFd[0] = m_wakeFd[1] = -1;  // the control server then waits out its deadlines
    }
    // The feed lock and the music source's wake-up live with the object too.
    if (!PAL_MutexCreate(&m_pFeedLock)) m_pFeedLock = nullptr;
    if (!PAL_SemCreate(&m_pMusicWakeSem, 0)) m_pMusicWakeSem = nullptr;
    // What does not start at zero.
    m_unSyncSeqNum = 1;
    mp3BitrateIdx = 15;  // invalid header values: format not known yet
    mp3SamplerateIdx = 3;
    m_NotifyMsg = notify;
    m_pParent = parent;
    m_groupId = groupId;
}

CAVStreamer::~CAVStreamer() {
    debug_UI("[AVStreamer] CAVStreamer delete");
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        if (s._lpmutex != nullptr) PAL_MutexDelete(s._lpmutex);
        s._lpmutex = nullptr;
        free(s.pOutQ);
        s.pOutQ = nullptr;
    }
    for (int fd : m_wakeFd)
        if (fd >= 0) close(fd);
    if (m_pSeekDoneSem != nullptr) PAL_SemDelete(m_pSeekDoneSem);
    m_pSeekDoneSem = nullptr;
    if (m_pMusicWakeSem != nullptr) PAL_SemDelete(m_pMusicWakeSem);
    if (m_pFeedLock != nullptr) PAL_MutexDelete(m_pFeedLock);
}

void CAVStreamer::_session_clear(int index) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    s.pFD = nullptr;
    s.ServerState = AV_STREAMER_STATE_NA;
    s.bActive = false;
    s.bRefRcv = false;
    memset(s.pReceiverIP, 0, sizeof(s.pReceiverIP));
    s.ChannelType = AV_CHANNEL_NA;
    s.NumChannels = 0;
    s.szSent = 0;
    s.startSeqNum = 0;
    s.bIsSync = 0;
    s.hTcpClientSock = -1;  // no connection
    s._rtp_sock = -1;
    memset(&s._rtp_dest, 0, sizeof(s._rtp_dest));
    s.nDeviceVolume = 0;
    s.uwClientRtpPort = 0;
    s.uwClientRtcpPort = 0;
    s.uwClientSyncPort = 0;
    s.uwAliveClock = 0;
    s.bIsPlayable = false;
    s.ReqTs = 0;
    s.outHead = s.outTail = 0;
    s.outProgressClock = 0;
    s.outFault = AV_OUT_FAULT_NONE;
    s.bReachedPlay = false;
}

// The one list of the streamer's starting values: every member zero, null,
// false or "none", the per-playback part by _reset_stream (which init runs
// again). The session mutexes, the outgoing queues, the wake-up pipe, the
// feed lock, the music source's wake-up and the three thread helpers live
// with the object and are not touched.
void CAVStreamer::AVStreamerSetDefault() {
    m_NotifyMsg = nullptr;
    m_pParent = nullptr;
    m_pMp3Decoder = nullptr;
    m_pMP3Parser = nullptr;
    m_CurrentState = STREAM_STATE_IDLE;
    m_groupId = 0;
    m_MusicSrcFd = 0;
    m_unSyncSeqNum = 0;
    memset(&m_TcpSvr, 0, sizeof(m_TcpSvr));
    memset(&m_MulticastSvr, 0, sizeof(m_MulticastSvr));
    memset(&m_RtpSvr, 0, sizeof(m_RtpSvr));
    memset(&m_RtcpSvr, 0, sizeof(m_RtcpSvr));
    memset(&m_AVReceiverInfo, 0, sizeof(m_AVReceiverInfo));
    memset(&m_AVMusicInfo, 0, sizeof(m_AVMusicInfo));
    for (int i = 0; i < AV_MAX_RECEIVER; i++) _session_clear(i);
    memset(&m_Mp3Inst, 0, sizeof(m_Mp3Inst));
    memset(&m_ContentInfo, 0, sizeof(m_ContentInfo));
    m_pMulticastIP = nullptr;
    m_MulticastPort = 0;
    memset(m_pMyIP, 0, sizeof(m_pMyIP));
    m_unRefBaseClock = 0;
    m_unSvrBaseClock = 0;
    m_unSvrStartClock = 0;
    m_pSendBuf = nullptr;
    memset(&m_RtpPacket, 0, sizeof(m_RtpPacket));
    m_nVolume = 0;
    m_unSearchBaseClock = 0;
    m_NumChannels = 0;
    memset(&m_logReadError, 0, sizeof(m_logReadError));
    memset(&m_logSendError, 0, sizeof(m_logSendError));
    mp3FrameStartPos = 0;
    mp3LayerIdx = 0;
    mp3BitrateIdx = 0;
    mp3SamplerateIdx = 0;
    mp3FrameLen = 0.0f;
    waveDataStartPos = 0;
    m_nOffsetTime = 0;
    m_max_idx = 0;
    m_bTimeSyncOn = false;
    m_pendingProgress = 0;
    m_bProgressDue = false;
    memset(m_progressQ, 0, sizeof(m_progressQ));
    m_progressHead = 0;
    m_progressTail = 0;
    m_rtpOutSock = -1;  // nothing to send
    memset(&m_rtpOutDest, 0, sizeof(m_rtpOutDest));
    _reset_stream();
}

int CAVStreamer::GetStreamState() {
    return m_CurrentState;
}

void CAVStreamer::SetStreamState(int state) {
    m_CurrentState = state;
    switch (state) {
        case STREAM_STATE_IDLE:
            debug_UI("[Stream] State STREAM_STATE_IDLE");
            break;
        case STREAM_STATE_INIT:
            debug_UI("[Stream] State STREAM_STATE_INIT");
            break;
        case STREAM_STATE_OPEN:
            debug_UI("[Stream] State STREAM_STATE_OPEN");
            break;
        case STREAM_STATE_PLAY:
            debug_UI("[Stream] State STREAM_STATE_PLAY");
            break;
        case STREAM_STATE_STOP:
            debug_UI("[Stream] State STREAM_STATE_STOP");
            break;
        case STREAM_STATE_CLOSE:
            debug_UI("[Stream] State STREAM_STATE_CLOSE");
            break;
        default:  // PAUSE and RESUME change often and stay out of the log
            break;
    }
}

bool CAVStreamer::canAction(int action) {
    int state = m_CurrentState;
    if (action < 0 || action >= STREAM_ACTION_MAX || state < 0 || state >= STREAM_STATE_MAX)
        return false;
    return kStateActionTable[state * STREAM_ACTION_MAX + action] != 0;
}

bool CAVStreamer::AVStreamerIsStreamReceiverExist() {
    debug_UI("[AVStreamerIsStreamReceiverExist] m_AVRcvSessInfo.nAVRcvSessCnt %d",
             (int)m_AVRcvSessInfo.nAVRcvSessCnt);
    return m_AVRcvSessInfo.nAVRcvSessCnt != 0;
}

int CAVStreamer::_receiver_count_add(int delta) {
    return (char)__atomic_add_fetch(&m_AVReceiverInfo.nAVReceiverCnt, (char)delta,
                                    __ATOMIC_SEQ_CST);
}

int CAVStreamer::_receiver_count() {
    return __atomic_load_n(&m_AVReceiverInfo.nAVReceiverCnt, __ATOMIC_SEQ_CST);
}

// Session index becomes the reference receiver, and the only one: a release
// may have handed the role on while the ready count (which every release
// lowers) fell back, so that the next CHANNEL report counts as the first.
// Takes each session's lock in turn, never two at once.
void CAVStreamer::_take_reference(int index) {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        s.bRefRcv = i == index && s.bActive;
    }
}

int CAVStreamer::ResetAcceptWaitReceiverInfo(const char* ip) {
    if (ip == nullptr) return 0;
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        AV_RECEIVER& r = m_AVReceiverInfo.AVReceiver[i];
        PalLock lock(s._lpmutex);
        if (r.bActive && !s.bActive && strcmp(r.pReceiverIP, ip) == 0) {
            memset(&r, 0, sizeof(r));
            _receiver_count_add(-1);
            int top = i + 1;
            m_max_idx.compare_exchange_strong(top, i);
            lock.Unlock();
            debug_UI("xxxcheck ResetAcceptWaitReceiverInfo reset");
            return 1;
        }
    }
    return 0;
}

int CAVStreamer::_receiver_release_l(int index) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    // The ready count drops with every release, counted or not.
    m_AVRcvSessInfo.nAVRcvSessCnt--;
    _receiver_count_add(-1);
    nAVRcvReadyCnt--;
    memset(&m_AVReceiverInfo.AVReceiver[index], 0, sizeof(AV_RECEIVER));
    s.bIsPlayable = false;
    s.bActive = false;
    s.bIsSync = 0;
    memset(&s._rtp_dest, 0, sizeof(s._rtp_dest));  // the slot's next receiver is resolved anew
    debug_UI("[_receiver_release_l] m_AVRcvSessInfo.nAVRcvSessCnt %d",
             (int)m_AVRcvSessInfo.nAVRcvSessCnt);
    int top = index + 1;
    m_max_idx.compare_exchange_strong(top, index);
    // No socket I/O under the lock: the control-server thread, the only one
    // that sends on or closes control connections, closes it once woken. The
    // RTP socket stays with the slot for its next receiver.
    int sock = s.hTcpClientSock;
    if (sock >= 0) {
        debug_UI("xxxcheck [ReceiverRelease] session index %d close __socket %d", index, sock);
        s.hStaleSock = sock;
        s.hTcpClientSock = -1;
    }
    PAL_RINGBUF* rb = s.pFD;
    if (rb != nullptr) Pal_RingBufReset(rb);
    if (s.bRefRcv) {
        s.bRefRcv = false;
        for (int j = 0; j < AV_MAX_RECEIVER; j++) {
            if (m_AVRcvSessInfo.AVRcvSess[j].bActive) {
                m_AVRcvSessInfo.AVRcvSess[j].bRefRcv = true;
                break;
            }
        }
    }
    return 0;
}

int CAVStreamer::ReceiverRelease(int index) {
    debug_UI("[AVStreamer m_groupId : %d] ReceiverRelease #%d Start", m_groupId, index);
    {
        PalLock lock(m_AVRcvSessInfo.AVRcvSess[index]._lpmutex);
        // A session already released (its BYE acknowledged meanwhile) must
        // not be counted out twice.
        if (m_AVRcvSessInfo.AVRcvSess[index].bActive) _receiver_release_l(index);
    }
    _wake_server();  // closes the connection
    debug_UI("[AVStreamer m_groupId : %d] ReceiverRelease #%d End", m_groupId, index);
    return 1;
}

void CAVStreamer::_notify(int code, intptr_t a, intptr_t b, intptr_t c, intptr_t d) {
    if (m_NotifyMsg != nullptr) m_NotifyMsg((intptr_t)m_pParent, code, a, b, c, d);
}
