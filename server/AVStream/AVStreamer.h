// CAVStreamer: plays one local music file to one group of receivers.
//
// Owns: a TCP control server the receivers connect to, a UDP socket on the
// multicast group, the RTP and RTCP sockets, up to 30 receiver sessions (each
// with its mutex, its 409600-byte PCM ring buffer, its control connection and
// its RTP socket), the open content reader (WAV file, or MP3 file with its
// MP3Parser and MP3Decoder), the 1600-byte RTP send buffer and the multicast
// address text.
// Threads: the caller's thread (init, open, close, commands from the sender
// facade), the music source thread (decodes and fills the ring buffers), the
// control-server thread (accepts receivers and answers their requests) and
// the RTP stream thread (paces and sends the ring buffers as RTP).
// Locks: one mutex per session (`_lpmutex`, made with the object and deleted
// with it), guarding that session, its outgoing queue's counts and the
// receiver entry of the same index. No two session locks are ever held at
// once, and none is held across a socket call, an event, poll() or a sleep:
// what must be sent is queued under the lock and sent by the control-server
// thread, the one writer and closer of every control connection; events are
// raised once the lock is released. The session, receiver and ready counters
// and m_max_idx change under whichever single session lock the caller holds,
// so they are updated with atomic operations. Flags shared by threads are
// std::atomic.
// Waits: every wait is bounded (no-show at PLAY AV_ACCEPT_WAIT_MS, a stalled
// control connection AV_OUT_STALL_MS, a seek AV_SEEK_WAIT_MS, a leave's BYE
// 20 x 50 ms), so no receiver can hold up the application or the group.
#ifndef AVSTREAMER_H
#define AVSTREAMER_H

#include <stdint.h>

#include <atomic>

#include "AVStreamerDef.h"
#include "PAL.h"
#include "PAL_Worker.h"

class MP3Parser;

#define AV_STREAM_PACKET_SIZE 1400  // RTP payload bytes per packet
#define AV_RTP_HEADER_SIZE 12
#define AV_RTP_SEND_BUF_SIZE 1600
#define RING_BUFFER_TOTAL_SIZE 409600  // per receiver session
#define AV_TCP_REQ_BUF_SIZE 1024       // one control request
#define AV_MULTICAST_REQ_BUF_SIZE 1400
#define AV_CMD_BUF_SIZE 1400  // commands the sender writes to receivers
#define AV_SEARCH_WAIT_MS 2000
#define AV_ACCEPT_WAIT_MS 5000
// A receiver's control connection never holds up the engine: what the sender
// writes is queued (at most this much per session) and sent by the
// control-server thread as the socket takes it. A receiver whose queue
// overflows, or that has not taken a byte for AV_OUT_STALL_MS, is dropped.
#define AV_OUT_QUEUE_SIZE 65536  // a power of two
#define AV_OUT_STALL_MS 3000
// A seek waits this long for the music source and the stream thread.
#define AV_SEEK_WAIT_MS 3000
// The music source sleeps at most this long (waiting for room in a
// receiver's buffer, for the stream to start, for a resume) before it looks
// at every buffer and flag again; whatever it waits for also wakes it, so
// the bound only sees to what nothing signals (a buffer nobody reads).
#define AV_MUSIC_WAIT_MS 1000
// It waits for room for this much beyond the chunk (about 0.74 s at 44.1 kHz
// stereo, a third of a buffer: the buffer still holds 1.5 s when it wakes),
// so that one wake moves many chunks: about 1.4 wakes a second.
#define AV_MUSIC_ROOM_BATCH 131072

// Progress values the stream thread may hand the control server before it
// raises them (one a second: eight seconds of a control server held up in
// the application's callback). When it is full the newest value waits for
// the next second's.
#define AV_PROGRESS_QUEUE 8

// Streamer state, gated by canAction().
typedef enum _STATE {
    STREAM_STATE_IDLE = 0,
    STREAM_STATE_INIT = 1,
    STREAM_STATE_OPEN = 2,
    STREAM_STATE_PLAY = 3,
    STREAM_STATE_STOP = 4,
    STREAM_STATE_PAUSE = 5,
    STREAM_STATE_RESUME = 6,
    STREAM_STATE_CLOSE = 7,
    STREAM_STATE_MAX = 8,
} STATE;

typedef enum _STREAM_ACTION {
    STREAM_ACTION_INIT = 0,
    STREAM_ACTION_OPEN = 1,
    STREAM_ACTION_PLAY = 2,
    STREAM_ACTION_STOP = 3,
    STREAM_ACTION_PAUSE = 4,
    STREAM_ACTION_RESUME = 5,
    STREAM_ACTION_CLOSE = 6,
    STREAM_ACTION_SEEK = 7,
    STREAM_ACTION_MAX = 8,
} STREAM_ACTION;

// Protocol state of one receiver session.
typedef enum _AV_STREAMER_STATE {
    AV_STREAMER_STATE_NA = 0,
    AV_STREAMER_STATE_SEARCH = 1,
    AV_STREAMER_STATE_START = 2,
    AV_STREAMER_STATE_DESCRIBE = 3,
    AV_STREAMER_STATE_SEND_SDP = 4,
    AV_STREAMER_STATE_SETUP = 5,
    AV_STREAMER_STATE_PLAY = 6,
    AV_STREAMER_STATE_CLOCK = 7,
    AV_STREAMER_STATE_PAUSE = 8,
    AV_STREAMER_STATE_BYE = 9,
} AV_STREAMER_STATE;

typedef enum _RTP_PAYLOAD_TYPE {
    RTP_PT_UNKNOWN = -1,
    RTP_PT_AUDIO = 96,
    RTP_PT_VIDEO = 97,
    RTP_PT_H264 = 102,
} RTP_PAYLOAD_TYPE;

// The streamer's live view of one connected receiver. Session i and receiver
// entry i of m_AVReceiverInfo describe the same receiver. `_lpmutex` guards
// the session and entry i; the fields that other threads glance at without
// that lock (state, flags, counters, buffer and socket handles) are atomics.
// The record is never copied or memset: _session_clear() resets it.
typedef struct _AV_RCV_SESS {
    std::atomic<PAL_RINGBUF*> pFD;     // this receiver's channel-filtered PCM
    std::atomic<uint8_t> ServerState;  // AV_STREAMER_STATE
    std::atomic<bool> bActive;         // a receiver is connected on TCP
    std::atomic<bool> bRefRcv;         // reference receiver (at most one session)
    char pReceiverIP[AV_IP_LEN];
    std::atomic<AV_CHANNEL_TYPE> ChannelType;
    uint8_t NumChannels;
    std::atomic<uint32_t> szSent;         // payload bytes consumed for this receiver
    uint32_t startSeqNum;                 // RTP sequence number at which this stream started
    std::atomic<uint8_t> bIsSync;         // lined up with the group's stream position
    std::atomic<int32_t> hTcpClientSock;  // accepted control connection, -1 when none
    int32_t _rtp_sock;                    // RTP socket, -1 when none
    PAL_SOCK_DEST _rtp_dest;  // pReceiverIP:uwClientRtpPort, resolved at the first packet
    uint16_t nDeviceVolume;
    uint16_t uwClientRtpPort;
    uint16_t uwClientRtcpPort;
    uint16_t uwClientSyncPort;
    uint32_t uwAliveClock;          // PAL_GetClock() of the last "ALIVED"
    std::atomic<bool> bIsPlayable;  // may be fed RTP
    uint32_t ReqTs;                 // REQ_TS of the receiver's last multicast JOIN
    PAL_MUTEX* _lpmutex;            // guards this session and receiver entry i
    // Outgoing queue of the control connection. Any thread appends at
    // outTail under the lock; only the control-server thread sends, from
    // outHead, and it reads the queued bytes without the lock (appends never
    // touch them). Allocated at the first accept, kept for reuse.
    char* pOutQ;
    uint32_t outHead;  // free-running byte counts
    uint32_t outTail;
    uint32_t outProgressClock;        // PAL_GetClock() of the last byte taken or first queued
    std::atomic<uint8_t> outFault;    // AV_OUT_FAULT: why the session must be dropped
    std::atomic<int32_t> hStaleSock;  // released connection the control server still closes
    std::atomic<bool> bReachedPlay;   // asked to PLAY since it connected
} AV_RCV_SESS;

typedef enum _AV_OUT_FAULT {
    AV_OUT_FAULT_NONE = 0,
    AV_OUT_FAULT_OVERFLOW = 1,  // queue full: the receiver stopped reading
    AV_OUT_FAULT_ERROR = 2,     // the connection failed under a write
} AV_OUT_FAULT;

typedef struct _AV_RCV_SESS_INFO {
    AV_RCV_SESS AVRcvSess[AV_MAX_RECEIVER];
    std::atomic<char> nAVRcvSessCnt;
} AV_RCV_SESS_INFO;

// One server socket.
typedef struct _AV_STREAMER_SOCK {
    int32_t nSock;
    int nType;     // PAL_SOCK
    int nNetType;  // PAL_NET
    uint16_t uwPort;
} AV_STREAMER_SOCK;

// Header values of the next RTP packet.
typedef struct _RTP_PACKET {
    int8_t bMarker;
    int32_t nPayloadType;
    uint32_t unTimestamp;
    uint32_t unSeqNum;
    uint32_t unSsrc;
} RTP_PACKET;

// Callers: "the caller's thread" is the sender facade's caller (a Java
// thread under the bridge's mutex, or the manager's stop thread). No public
// operation holds a session lock when it returns, and none waits without a
// bound. Session locks named below are taken one at a time, never across a
// socket call or an event.
class CAVStreamer {
public:
    // Caller's thread. Creates the 30 session mutexes and the wake-up pipe.
    CAVStreamer(AV_NOTIFY_MSG notify, void* parent, int groupId);
    // Caller's thread, after AVStreamerClose (or when never opened).
    ~CAVStreamer();
    CAVStreamer(const CAVStreamer&) = delete;
    CAVStreamer& operator=(const CAVStreamer&) = delete;

    // ---- state machine (AVStreamer.cpp). Any thread; no lock (the state
    // is atomic).
    int GetStreamState();
    void SetStreamState(int state);
    bool canAction(int action);

    // ---- receiver bookkeeping (AVStreamer.cpp). Caller's thread.
    // Any active session; no lock.
    bool AVStreamerIsStreamReceiverExist();
    // Drops a receiver that never connected; each session's lock in turn.
    int ResetAcceptWaitReceiverInfo(const char* ip);
    // Releases session index (a leave that got no BYE_ACK); takes that
    // session's lock and wakes the control server to close the connection.
    int ReceiverRelease(int index);

    // ---- initialisation, open and close (AVStreamerOpen.cpp). Caller's
    // thread, in this order; no session lock (the threads are not running
    // yet, or are stopped and waited for first).
    int AVStreamerInit(AV_RECEIVER_INFO* pAVReceiverInfo, AV_MUSIC_INFO* pAVMusicInfo,
                       int offset_time);
    int AVStreamerOpen(unsigned short TcpSvrPort, unsigned short UdpSvrPort,
                       const char* pMulticastUrl, int nVolume, int offset_time);
    // Never on one of the streamer's own threads (AVStreamerIsOwnThread):
    // the close waits for each of them to end.
    void AVStreamerClose();
    // Any thread; no lock. True on one of the streamer's three threads,
    // which is where its events reach their listener.
    bool AVStreamerIsOwnThread();
    // Caller's thread, before any streamer exists; no lock.
    static void SetGUID(const char* guid);

    // ---- receiver setting commands (AVStreamerCommand.cpp). Caller's
    // thread (ReceiverAddStart and ReceiverVolume also the control server's,
    // at CHANNEL and PLAY). Each write takes the addressed session's lock to
    // queue the text; the control server sends it.
    int ReceiverUpdateChannelType(const char* ip, int type);
    int SetReceiverUIType(int index, int type);
    int SetReceiverUIType(const char* ip, int type);
    int SetReceiverUITypeAll(int type);
    int ReceiverVolume(int index, int volume);
    int ReceiverDeviceVolumeControl(const char* ip, int volume);
    int ReceiverVolumeControl(int volume);
    int ReceiverAddStart(int index);

    // ---- search, join and playback commands (AVStreamerControl.cpp).
    // Caller's thread. Each session's lock in turn, to stamp or queue.
    int ReceiverSearch(AV_RECEIVER_INFO* lpReceiverInfo);
    int AVStreamerReceiverIn(AV_RECEIVER AVReceiver);
    // Waits at most 20 x 50 ms for the BYE_ACK, without a lock.
    int AVStreamerReceiverOut(const char* pReceiverIP);
    // Waits at most AV_SEEK_WAIT_MS for the music source, without a lock.
    void AVStreamerSeek(int offset);
    void AVStreamerPause();
    void AVStreamerResume();
    void AVStreamerStop();
    void AVSenderStopNotify();
    bool SendReqClock(int nRcv);
    bool ReceiverAlive(int nRcv);

    // ---- channel filters (AVStreamerRtp.cpp). Any thread; pure, no lock.
    void PcmChannelFilter(short* src, unsigned long count, unsigned short channels,
                          AV_CHANNEL_TYPE type, short* dst);
    void PcmChannelFilter2Channel(short* src, unsigned long count, unsigned short channels,
                                  AV_CHANNEL_TYPE type, short* dst);
    void Pcm8BitChannelFilter2Channel(char* src, unsigned long count, unsigned short channels,
                                      AV_CHANNEL_TYPE type, char* dst);
    void PcmPartyChannelFilter(short* src, unsigned long count, unsigned short channels,
                               short* dst);

    // ---- music source (AVStreamerMusicSrc.cpp). The music source thread
    // (the one writer of every ring buffer); no lock.
    bool ReceiverMediaWrite(unsigned char nIndex, char* pBuffer, unsigned long unLength);

    // ---- content readers (AVStreamerReader.cpp). File handles are the
    // platform's (PAL_FileOpen), at least 1 when open. The caller's thread
    // at init and close, the music source thread in between; no lock.
    long Wav_FileOpen(const char* szFilePath);
    long Wav_FileRead(long nFD, char* pDest, unsigned long unSize);
    int Wav_FileClose(long nFD);
    int GetWaveInfo(const char* pUri, AV_CONTENT_INFO* pAVContentInfo);
    int wav_seek(long _fd, unsigned int _skipTimeSec);
    long Mp3ToPcm_FileOpen(const char* szFilePath);
    long Mp3ToPcm_FileRead(long nFD, char* pDest, unsigned long unSize);
    int Mp3ToPcm_FileClose(long nFD);
    void get_mp3_info(long _fd);
    int mp3_seek(long _fd, unsigned int _skipTimeSec);
    int GetMp3Info(const char* pUri, AV_CONTENT_INFO* pAVContentInfo);
    int GetContentInfo(const char* pUri, AV_CONTENT_INFO* pAVContentInfo);

private:
    friend struct CAVStreamerProbe;  // tests, fuzzing and benchmarks look inside

    // ---- data model and state machine (AVStreamer.cpp)
    void AVStreamerSetDefault();
    int _receiver_release_l(int index);

    // ---- receiver setting commands (AVStreamerCommand.cpp)
    int _send_comman_packet(int index, const char* text);

    // ---- search, join and playback commands (AVStreamerControl.cpp)
    int ReceiverAddSearch(int nIndex);
    int ReceiverSeekRequest();
    int ReceiverPauseRequest(int idx);
    int ReceiverResumeRequest();
    int ReceiverStop();
    int _receiver_leave_l(int nIndex);
    int ReceiverLeave(int nIndex);

    // ---- control server and receiver requests (AVStreamerServer.cpp)
    bool ServerInit();
    int ServerOpen(unsigned short tcpPort, unsigned short rtpPort);
    int ServerListen();
    static int ServerListenThread(void* param);
    int OnTcpCmdRead(int index);
    int OnMulticastCmdRead();
    int SendResponse(int index, unsigned short cseq);
    int SendResSetup(int index, unsigned short cseq);
    int SendSDP(int index, unsigned short cseq);
    int ServerClose();

    // ---- RTP stream thread and packetiser (AVStreamerRtp.cpp)
    bool AddRtpStreamer();
    static int RtpStreamThread(void* streamer);
    int SendRTP(int nRcv, unsigned char report);
    int AddRTPHeader(char* buf, RTP_PACKET packet);

    // ---- music source thread (AVStreamerMusicSrc.cpp)
    static int MusicSourceThread(void* param);

    // ---- data, in the order the streamer has always kept it
    AV_NOTIFY_MSG m_NotifyMsg;
    MP3Decoder* m_pMp3Decoder;
    std::atomic<int> m_CurrentState;  // STATE; written only by SetStreamState
    int m_groupId;
    std::atomic<bool> m_bSerExit;  // asks the control-server and stream threads to end
    void* m_pParent;               // passed back as the callback's first argument
    long m_MusicSrcFd;
    AV_MP3_INST m_Mp3Inst;
    AV_CONTENT_INFO m_ContentInfo;  // kept right behind m_Mp3Inst
    // The three threads, each with its exit semaphore: started by init
    // (music source), open (control server) and the control server (stream
    // thread, once receivers play); stopped in that order by the close.
    PalWorker m_musicWorker;
    PalWorker m_serverWorker;
    PalWorker m_rtpWorker;  // Started() while the stream thread exists
    uint32_t m_unSyncSeqNum;
    AV_STREAMER_SOCK m_TcpSvr;
    AV_STREAMER_SOCK m_MulticastSvr;
    AV_STREAMER_SOCK m_RtpSvr;
    AV_STREAMER_SOCK m_RtcpSvr;
    AV_RECEIVER_INFO m_AVReceiverInfo;
    AV_MUSIC_INFO m_AVMusicInfo;
    AV_RCV_SESS_INFO m_AVRcvSessInfo;
    std::atomic<char> nAVRcvReadyCnt;  // receivers that reported "CHANNEL"
    char* m_pMulticastIP;              // owned, allocated by AVStreamerOpen
    uint16_t m_MulticastPort;
    char m_pMyIP[AV_IP_LEN];
    uint32_t m_unRefBaseClock;
    uint32_t m_unSvrBaseClock;
    uint32_t m_unSvrStartClock;
    char* m_pSendBuf;  // AV_RTP_SEND_BUF_SIZE bytes, allocated by ServerOpen
    RTP_PACKET m_RtpPacket;
    int m_nVolume;  // the group's: open's, then the last one sent to all (caller's thread)
    std::atomic<uint32_t> m_unSearchBaseClock;
    std::atomic<bool> m_bStreamReady;
    uint8_t m_NumChannels;
    uint32_t m_szSent;
    std::atomic<uint32_t> streamStartTime;  // sync clock at the first packet sent
    uint32_t mp3FrameStartPos;
    uint32_t mp3LayerIdx;
    uint32_t mp3BitrateIdx;
    uint32_t mp3SamplerateIdx;
    float mp3FrameLen;
    uint32_t waveDataStartPos;
    std::atomic<bool> bSeekReqMusicSrcT;
    std::atomic<bool> bSeekReqRtpStreamT;
    std::atomic<int> m_nOffsetTime;  // whole seconds
    uint32_t commonSeqNum;
    uint32_t lastReportedProgress;
    std::atomic<bool> _bpause;
    std::atomic<bool> _bseek_complete;
    PAL_SEM* m_pSeekDoneSem;     // made with the object: a completed seek or the end signals it
    std::atomic<int> m_max_idx;  // one past the highest session index in use
    MP3Parser* m_pMP3Parser;
    long m_send_file;  // the open content handle; 0 once closed

    static char mguid[AV_GUID_LEN];

    // m_AVReceiverInfo.nAVReceiverCnt lives in a plain shared record but is
    // changed by several threads, each under a different session lock.
    int _receiver_count_add(int delta);
    int _receiver_count();
    void _take_reference(int index);

    // Resets session index to free, keeping its mutex.
    void _session_clear(int index);

    // Control-server thread steps that the request fuzzing drives too: send
    // what a session's queue holds, close released connections.
    bool _flush_session(int index);
    void _close_stale_sockets();

    bool m_bTimeSyncOn;          // this streamer holds a TimeSyncInitiator_StartSync
    int m_wakeFd[2];             // pipe: other threads wake the control server with a byte
    uint32_t m_pendingProgress;  // progress found by SendRTP, handed over after the pass
    bool m_bProgressDue;
    // Progress values on their way from the stream thread (the one writer,
    // at m_progressTail) to the control server (the one reader, at
    // m_progressHead), which raises them: the event goes up into the
    // application, which may keep the thread that raises it waiting (a
    // JVM attaching a thread waits out a safepoint), and the stream thread
    // must send its next packet on time. Free-running counts.
    uint32_t m_progressQ[AV_PROGRESS_QUEUE];
    std::atomic<uint32_t> m_progressHead;
    std::atomic<uint32_t> m_progressTail;
    // Held by the music source while it writes one chunk into the receivers'
    // buffers (one after the other, never waiting), and by the stream thread
    // while it compares two buffers' fill levels to line a receiver up:
    // levels taken half-way through a chunk belong to different chunks.
    // Lives as long as the streamer.
    PAL_MUTEX* m_pFeedLock;
    // The packet SendRTP made ready in m_pSendBuf, sent by the stream thread
    // once the session lock is released (the RTP socket lives as long as
    // the slot's thread does, so the descriptor stays valid).
    int m_rtpOutSock;  // -1: nothing to send
    PAL_SOCK_DEST m_rtpOutDest;
    // Faults the pacing path can meet on every packet, logged at most once
    // a second each.
    DEBUG_UI_RATE m_logReadError;
    DEBUG_UI_RATE m_logSendError;
    // The music source sleeps on it; a ring buffer's reader that made room,
    // a seek, pause, resume, the stream start and the close signal it. Lives
    // as long as the streamer (null: the music source sleeps in 5 ms steps).
    PAL_SEM* m_pMusicWakeSem;

    // Content and stream set-up (AVStreamerOpen.cpp).
    // Starts one of the three threads on this streamer: 0, or
    // AV_ERR_SEMAPHORE / AV_ERR_THREAD_START with nothing started.
    int _start_worker(PalWorker* worker, const char* name, PAL_THREAD_FUNC body);
    bool _is_mime(const char* mime);
    void _close_content();
    // Destroys the MP3 reader's decoder and parser, if any.
    void _release_mp3_reader();
    void _reset_stream();
    int _parse_multicast_url(const char* url);

    // Music source steps (AVStreamerMusicSrc.cpp).
    void _music_seek();
    bool _seek_pending();
    void _seek_done();  // the music source has carried a seek out: wake AVStreamerSeek
    long _read_chunk(char* origin);
    enum { FEED_DONE, FEED_NOBODY, FEED_ABANDONED };
    int _feed_chunk(char* origin, long n, char* divide);
    long long _tightest_l(long n, bool* anyLinedUp, PAL_RINGBUF** tightest, unsigned long* need);
    void _fit_unread_l(int index, unsigned long len);
    void _music_idle(unsigned int ms);
    void _wake_music_source();
    const char* _convert_for(int index, char* origin, long n, char* divide, unsigned long* len);
    bool _drained(long nReadSize, int* nCntReadEnd, unsigned int* unEndStartClk);

    void _notify(int code, intptr_t a, intptr_t b, intptr_t c, intptr_t d);
    void _post_progress(uint32_t position);  // stream thread
    void _raise_progress();                  // control server

    // Queues text on session index's control connection and wakes the
    // control server to send it. On success the session's ServerState
    // becomes newState unless that is negative. A full queue marks the
    // session for dropping and fails.
    enum { AV_WRITE_OK = 0, AV_WRITE_NO_CONN = 1, AV_WRITE_FAIL = 2 };
    int _session_write(int index, const char* text, int newState = -1);
    int _queue_l(int index, const char* text, int len);
    void _wake_server();
    // Index of the first active session at or after from whose address is
    // ip, or -1.
    int _find_session(const char* ip, int from);
    void _store_and_send_volume(int index, int volume);
    // Volumes from the application are capped at 15 at the top only; a
    // negative value passes unchanged.
    static int _cap_volume(int volume) { return volume < 15 ? volume : 15; }

    // Writes text to every active session; stops at the first failed write.
    int _broadcast_until_failure(const char* text);

    // Control server steps (ServerListenThread).
    void _accept_receiver(bool* rtpStarted);
    bool _take_connection_l(int index, int conn, const char* ip);
    unsigned int _check_waiting_receivers(bool* rtpStarted);
    void _release_bye(int index);
    void _drop_session(int index, const char* why);
    unsigned int _check_sessions();
    void _release_closed(int index, int sock);

    // RTP stream thread steps.
    void _serve_session_l(int index, unsigned char* reportFlag);
    void _send_ready_packet(int index);
    void _line_up_session_l(int index);
    // Milliseconds of PCM that bytes of the sent stream play for (0 when the
    // music format is not known).
    uint64_t _pcm_bytes_to_ms(uint64_t bytes);
    // PAL_GetClock() value at which the next packet is due.
    unsigned int _next_due_clock();
};

#endif
