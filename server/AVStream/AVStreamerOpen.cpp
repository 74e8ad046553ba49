// Streamer initialisation, open and close: takes over the receiver list and
// the music description, opens and positions the content and starts the
// music source thread (init); starts the control and RTP servers and the
// time synchronisation (open); stops everything in order (close).
//
// Allocates: the content reader, the music source thread and its semaphore
// (init); the multicast address text (open). All are released by close.
// Runs on: the caller's thread (the sender facade).
// Locks: none of its own; runs before the threads exist (init) or after
// they have been told to exit (close).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "AVStreamer.h"
#include "MP3Parser.h"

bool CAVStreamer::_is_mime(const char* mime) {
    return strncmp(m_AVMusicInfo.pMime, mime, strlen(mime)) == 0;
}

void CAVStreamer::_close_content() {
    if (m_send_file <= 0) return;
    if (_is_mime("audio/mpeg"))
        Mp3ToPcm_FileClose(m_send_file);
    else
        PAL_FileClose(m_send_file);
    m_send_file = 0;
}

void CAVStreamer::_reset_stream() {
    m_bSerExit = false;
    m_bStreamReady = false;
    _bpause = false;
    _bseek_complete = false;
    bSeekReqMusicSrcT = false;
    bSeekReqRtpStreamT = false;
    m_szSent = 0;
    commonSeqNum = 0;
    streamStartTime = 0;
    lastReportedProgress = 0;
    m_progressHead = m_progressTail.load();  // a closed life's values are not raised
    nAVRcvReadyCnt = 0;
    m_AVRcvSessInfo.nAVRcvSessCnt = 0;
    m_send_file = 0;
}

int CAVStreamer::AVStreamerInit(AV_RECEIVER_INFO* pAVReceiverInfo, AV_MUSIC_INFO* pAVMusicInfo,
                                int offset_time) {
    debug_UI("[AVStreamer] AVStreamerInit Start");
    if (!canAction(STREAM_ACTION_INIT)) {
        debug_UI("!canAction(STREAM_ACTION_INIT)");
        return AV_ERR_INIT_REFUSED;
    }
    if (pAVMusicInfo == nullptr) return AV_ERR_NO_MUSIC_INFO;
    SetStreamState(STREAM_STATE_INIT);
    m_MusicSrcFd = 0;
    m_pMp3Decoder = nullptr;
    m_pMP3Parser = nullptr;
    memset(&m_AVReceiverInfo, 0, sizeof(m_AVReceiverInfo));
    for (int i = 0; i < AV_MAX_RECEIVER; i++) _session_clear(i);
    memset(&m_Mp3Inst, 0, sizeof(m_Mp3Inst));
    _reset_stream();

    if (pAVReceiverInfo != nullptr) m_AVReceiverInfo = *pAVReceiverInfo;
    int count = m_AVReceiverInfo.nAVReceiverCnt;
    if (count < 0 || count > AV_MAX_RECEIVER) {
        count = count < 0 ? 0 : AV_MAX_RECEIVER;
        m_AVReceiverInfo.nAVReceiverCnt = (char)count;
    }
    for (int i = 0; i < AV_MAX_RECEIVER; i++)
        m_AVReceiverInfo.AVReceiver[i].pReceiverIP[AV_IP_LEN - 1] = 0;
    m_AVMusicInfo = *pAVMusicInfo;
    m_AVMusicInfo.pMusicURI[AV_URI_LEN - 1] = 0;
    m_AVMusicInfo.pContentTitle[AV_TITLE_LEN - 1] = 0;
    m_AVMusicInfo.pMime[AV_MIME_LEN - 1] = 0;
    m_max_idx = count;

    // The session mutexes, the feed lock and the two wake-ups come with the
    // object; one that could not be made (no memory) leaves the streamer
    // unusable, so no thread ever has to poll in place of a wake-up.
    bool made = m_pFeedLock != nullptr && m_pMusicWakeSem != nullptr && m_pSeekDoneSem != nullptr;
    for (int i = 0; i < AV_MAX_RECEIVER; i++)
        made = made && m_AVRcvSessInfo.AVRcvSess[i]._lpmutex != nullptr;
    if (!made) return AV_ERR_NO_MUTEX;
    m_nOffsetTime = offset_time;

    const char* uri = m_AVMusicInfo.pMusicURI;
    if (_is_mime("audio/mpeg")) {
        m_send_file = Mp3ToPcm_FileOpen(uri);
        if (m_send_file < 1) return AV_ERR_CONTENT_OPEN;
        get_mp3_info(m_send_file);
        // Formed in 32 bits: offsets beyond 2147 s wrap, as they always have.
        int us = (int)((unsigned int)offset_time * 1000000u);
        m_pMP3Parser->setSeekTo((long long)us);
    } else if (_is_mime("audio/x-wav")) {
        m_send_file = Wav_FileOpen(uri);
        if (m_send_file < 1) return AV_ERR_CONTENT_OPEN;
        wav_seek(m_send_file, (unsigned int)offset_time);
    } else {
        m_send_file = PAL_FileOpen(uri, FOPEN_READ, 0);  // raw PCM
        if (m_send_file < 1) {
            m_send_file = 0;
            return AV_ERR_CONTENT_OPEN;
        }
    }

    // A failed start leaves the content open for the close.
    int started = _start_worker(&m_musicWorker, "music source", MusicSourceThread);
    if (started != 0) return started;
    for (int i = 0; i < count; i++)
        debug_UI("[AVStreamer] m_AVReceiverInfo.AVReceiver[%d].ChannelType = %d", i,
                 m_AVReceiverInfo.AVReceiver[i].ChannelType);
    debug_UI("[AVStreamer] AVStreamerInit End");
    return 0;
}

int CAVStreamer::_start_worker(PalWorker* worker, const char* name, PAL_THREAD_FUNC body) {
    switch (worker->Start(name, body, this)) {
        case PalWorker::kStarted:
            return 0;
        case PalWorker::kNoSemaphore:
            return AV_ERR_SEMAPHORE;
        default:
            return AV_ERR_THREAD_START;
    }
}

// "group:port" into m_pMulticastIP and m_MulticastPort, the way a
// "%[^:]:%hu" scan reads it, bounded to the text given. 0, 4 or 9.
int CAVStreamer::_parse_multicast_url(const char* url) {
    // Taken in 8 bits: a text of exactly 256 characters counts as empty.
    unsigned char len = (unsigned char)(url ? strlen(url) : 0);
    if (len == 0) return 0;
    free(m_pMulticastIP);
    m_pMulticastIP = (char*)calloc(1, (size_t)len + 1);
    if (m_pMulticastIP == nullptr) return AV_ERR_NO_MEMORY;
    size_t host = strcspn(url, ":");
    if (host == 0 || url[host] != ':') return AV_ERR_MULTICAST_URL;
    memcpy(m_pMulticastIP, url, host < len ? host : len);
    const char* p = url + host + 1;
    char* end = nullptr;
    unsigned long port = strtoul(p, &end, 10);
    if (end == p) return AV_ERR_MULTICAST_URL;
    m_MulticastPort = (uint16_t)port;
    return 0;
}

int CAVStreamer::AVStreamerOpen(unsigned short TcpSvrPort, unsigned short UdpSvrPort,
                                const char* pMulticastUrl, int nVolume, int offset_time) {
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerOpen() Start", m_groupId);
    m_bSerExit = false;
    if (!canAction(STREAM_ACTION_OPEN)) return AV_ERR_OPEN_REFUSED;
    SetStreamState(STREAM_STATE_OPEN);
    int ret = _parse_multicast_url(pMulticastUrl);
    if (ret != 0) return ret;
    m_nVolume = _cap_volume(nVolume);
    m_nOffsetTime = offset_time;
    char mac[AV_MAC_LEN] = {0};
    memset(m_pMyIP, 0, sizeof(m_pMyIP));
    if (!GetNICInfo(mac, m_pMyIP)) {
        debug_UI("[AVStreamer m_groupId : %d] AVStreamerOpen() End GetNICInfo Error", m_groupId);
        return AV_ERR_NO_NETWORK_ADDRESS;
    }
    if (!ServerInit()) {
        debug_UI("[AVStreamer m_groupId : %d] AVStreamerOpen() End ServerInit Error", m_groupId);
        return AV_ERR_SERVER_INIT;
    }
    ret = ServerOpen(TcpSvrPort, UdpSvrPort);
    if (ret != 0) {
        debug_UI("[AVStreamer m_groupId : %d] AVStreamerOpen() End ServerOpen Error", m_groupId);
        return ret;
    }
    // Closed with a matching StopSync only when this start was counted.
    m_bTimeSyncOn = TimeSyncInitiator_StartSync(20000, 3000000, 60000000) == 0;
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerOpen() End", m_groupId);
    return 0;
}

bool CAVStreamer::AVStreamerIsOwnThread() {
    return m_musicWorker.IsCurrent() || m_serverWorker.IsCurrent() || m_rtpWorker.IsCurrent();
}

void CAVStreamer::AVStreamerClose() {
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerClose() Start", m_groupId);
    SetStreamState(STREAM_STATE_CLOSE);
    m_bSerExit = true;
    PAL_SemSignal(m_pSeekDoneSem, 1);  // a seek still waiting sees the end now
    _wake_music_source();              // it sees the exit now, not at the end of a wait
    ServerClose();
    // The music source closes the content on its way out; an init that
    // failed before starting it left the content open.
    _close_content();
    free(m_pMulticastIP);
    m_pMulticastIP = nullptr;
    if (m_bTimeSyncOn) TimeSyncInitiator_StopSync();
    m_bTimeSyncOn = false;
    debug_UI("[AVStreamer m_groupId : %d] AVStreamerClose() End", m_groupId);
}
