// The RTP stream thread: paces the group's stream by the wall clock, cuts
// every receiver's ring buffer into 1400-byte packets behind a 12-byte RTP
// header and sends them by UDP; lines up receivers that join late, reports
// the play position, and does its half of a seek. Also the channel filters
// the music source uses to cut each receiver's channel out of the PCM.
//
// Allocates nothing (the send buffer belongs to the control server).
// Runs on: RtpStreamThread; the filters on the music source thread.
// Locks: each session's `_lpmutex` while serving that session; never two.
// Inside it, m_pFeedLock while lining a receiver up.
// The packet is sent with no lock held. The progress event is handed to the
// control server after the pass (never raised here: the application may keep
// the thread that raises an event waiting).
#include <arpa/inet.h>
#include <string.h>

#include "AVStreamer.h"

// Started once; a start that failed leaves no thread for the close to wait
// for (the receivers then get no RTP, as when their stream never started).
bool CAVStreamer::AddRtpStreamer() {
    if (!m_rtpWorker.Started()) m_rtpWorker.Start("stream", RtpStreamThread, this);
    return true;
}

uint64_t CAVStreamer::_pcm_bytes_to_ms(uint64_t bytes) {
    uint64_t rate = (uint64_t)m_AVMusicInfo.SampleRate * 2 * m_AVMusicInfo.BytesPerSample;
    return rate ? bytes * 1000 / rate : 0;
}

int CAVStreamer::RtpStreamThread(void* streamer) {
    CAVStreamer* self = (CAVStreamer*)streamer;
    AV_RCV_SESS* sess = self->m_AVRcvSessInfo.AVRcvSess;
    debug_UI("[AVStreamer m_groupId : %d] RtpStreamThread", self->m_groupId);
    // A packet is due every 7.9 ms: on a busy phone the thread must get its
    // core at the deadline, as the phone's own audio threads do. Refused:
    // it runs at the normal priority.
    PAL_ThreadSetOwnPriority(PAL_THREAD_PRIO_URGENT_AUDIO);
    self->commonSeqNum = 1;
    self->m_bStreamReady = true;
    self->_wake_music_source();

    // Every connected receiver must have asked to PLAY before the clock runs,
    // but once the late-start point has passed those that did play without
    // the others (who are dropped by the control server at the no-show
    // limit, or lined up when they do ask).
    while (!self->m_bSerExit) {
        int ready = 0, fed = 0;
        // A released session's state means nothing (a LEAVE can carry more
        // keywords behind it): only connected sessions count. The clock also
        // waits for the music source's first chunk in every playing buffer:
        // this thread may start only after the last PLAY (a loaded phone),
        // and a first pass before that chunk would send silence ahead of the
        // music. Both waits end at the late-start point, whatever is fed.
        for (int i = 0; i < AV_MAX_RECEIVER; i++) {
            if (!sess[i].bActive || sess[i].ServerState != AV_STREAMER_STATE_PLAY) continue;
            ready++;
            PAL_RINGBUF* rb = sess[i].pFD;
            if (rb != nullptr &&
                RING_BUFFER_TOTAL_SIZE - Pal_RingBufAvailable(rb) >= AV_STREAM_PACKET_SIZE)
                fed++;
        }
        int sessCnt = self->m_AVRcvSessInfo.nAVRcvSessCnt;
        int waited = (int)(PAL_GetClock() - self->m_unSearchBaseClock);
        if ((ready == sessCnt && fed == ready) || (ready > 0 && waited > AV_SEARCH_WAIT_MS)) {
            debug_UI("nReadyCnt %d", ready);
            self->m_unSvrStartClock = PAL_GetClock();
            break;
        }
        debug_UI("wait nReadyCnt(%d) == pAVStreamer->m_AVRcvSessInfo.nAVRcvSessCnt(%d)", ready,
                 sessCnt);
        PAL_ThreadSleep(10);
    }

    while (!self->m_bSerExit) {
        unsigned int now = PAL_GetClock();
        if (self->bSeekReqRtpStreamT) {
            self->bSeekReqRtpStreamT = false;
            debug_UI("xxxseek [RtpStreamThread] seek flag set");
            for (int i = 0; i < AV_MAX_RECEIVER; i++) {
                PalLock lock(sess[i]._lpmutex);
                if (sess[i].bActive) {
                    PAL_RINGBUF* rb = sess[i].pFD;
                    if (rb != nullptr) Pal_RingBufReset(rb);
                    sess[i].bIsSync = 0;
                }
            }
            debug_UI("xxxseek [RtpStreamThread] Pal_RingBufReset Complete");
            self->_wake_music_source();  // its seek waits for this
        }
        uint64_t due = self->_pcm_bytes_to_ms(self->m_szSent);
        if ((uint64_t)(unsigned int)(now - self->m_unSvrStartClock) >= due) {
            // While paused the stream clock and the sequence numbers keep
            // running; receivers see the gap after a resume.
            if (!self->_bpause) {
                unsigned char report = 1;
                self->m_bProgressDue = false;
                for (int i = 0; i < AV_MAX_RECEIVER; i++) {
                    // A slot that never had a receiver has nothing to serve
                    // and costs no lock (a released one keeps its buffer and
                    // is still served, to be emptied).
                    if (sess[i].pFD.load() == nullptr && !sess[i].bActive) continue;
                    self->m_rtpOutSock = -1;
                    PalLock lock(sess[i]._lpmutex);
                    self->_serve_session_l(i, &report);
                    lock.Unlock();
                    self->_send_ready_packet(i);
                }
                if (self->m_bProgressDue) self->_post_progress(self->m_pendingProgress);
            }
            self->m_szSent += AV_STREAM_PACKET_SIZE;
            self->commonSeqNum++;
        }
        // Asleep until the next packet is due (at once when late, so that a
        // late pass is caught up on); a seek, pause or exit is seen there,
        // at most one packet's time (7.9 ms at 44.1 kHz) after it was asked.
        PAL_ThreadSleepUntil(self->_next_due_clock());
    }
    debug_UI("RtpStreamThread---");  // the helper signals the close on the way out
    return 0;
}

unsigned int CAVStreamer::_next_due_clock() {
    uint64_t rate = (uint64_t)m_AVMusicInfo.SampleRate * 2 * m_AVMusicInfo.BytesPerSample;
    if (rate == 0) return PAL_GetClock() + 2;  // no stream clock: the old 2 ms step
    return m_unSvrStartClock + (unsigned int)_pcm_bytes_to_ms(m_szSent);
}

void CAVStreamer::_serve_session_l(int index, unsigned char* reportFlag) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PAL_RINGBUF* rb = s.pFD;
    if (s.bActive && s.bIsPlayable) {
        if (s.bIsSync == 1) {
            if (streamStartTime == 0) streamStartTime = TimeSyncInitiator_GetCurrentClock();
            SendRTP(index, *reportFlag);
            *reportFlag = 0;  // only the first receiver served reports progress
        } else {
            _line_up_session_l(index);
        }
    } else if (rb != nullptr) {
        if (s.bIsSync == 1)
            Pal_RingBufRead(rb, nullptr, AV_STREAM_PACKET_SIZE);  // stay in step
        else if (RING_BUFFER_TOTAL_SIZE - Pal_RingBufAvailable(rb) < 20480)
            Pal_RingBufReset(rb);
    }
}

// Gives session index the stream position of the first synchronised session
// j by dropping the PCM it holds beyond j's. Both buffers are fed the same
// chunks, so equal fill levels mean equal positions, but only between two
// chunks: the music source feeds the buffers one after the other, so they
// are compared, and the excess dropped, under the feed lock (a wait of at
// most one chunk's copies, during which the music source never waits). A j still to be served in
// this pass will have sent one more packet by the time index is next served, hence the one-packet
// lead. The session is sent to from the next pass on.
void CAVStreamer::_line_up_session_l(int index) {
    AV_RCV_SESS* sess = m_AVRcvSessInfo.AVRcvSess;
    AV_RCV_SESS& s = sess[index];
    PAL_RINGBUF* rb = s.pFD;
    if (rb == nullptr) return;
    int j = 0;
    while (j < AV_MAX_RECEIVER && (j == index || sess[j].bIsSync != 1)) j++;
    if (j == AV_MAX_RECEIVER) {
        // Nobody plays yet: start once enough PCM is queued.
        if (RING_BUFFER_TOTAL_SIZE - Pal_RingBufAvailable(rb) >= 14001) {
            s.bIsSync = 1;
            Pal_RingBufSetSync(rb, (unsigned int)m_nOffsetTime, 0);
        }
        return;
    }
    PAL_RINGBUF* rbj = sess[j].pFD;
    if (rbj == nullptr) return;
    long long lead = j < index ? 0 : AV_STREAM_PACKET_SIZE;
    // Until it is marked lined up the music source may drop this buffer's
    // oldest PCM to make room (it is not read): the drop and the mark are
    // made under the same lock as the comparison.
    PalLock feed(m_pFeedLock);
    long long excess =
        (long long)Pal_RingBufAvailable(rbj) - (long long)Pal_RingBufAvailable(rb) + lead;
    if (excess < 0) return;  // not enough queued yet to catch up
    if (excess > 0 && Pal_RingBufRead(rb, nullptr, (unsigned long)excess) != 0)
        Pal_RingBufReset(rb);
    s.szSent = sess[j].szSent + (uint32_t)lead;
    s.bIsSync = 1;
    Pal_RingBufSetSync(rb, Pal_RingBufGetTimeStamp(rbj),
                       Pal_RingBufGetReadSize(rbj) + (unsigned long)lead);
}

int CAVStreamer::SendRTP(int nRcv, unsigned char report) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[nRcv];
    if (m_pSendBuf == nullptr) return 0;
    char* payload = m_pSendBuf + AV_RTP_HEADER_SIZE;
    PAL_RINGBUF* rb = s.pFD;
    int res = rb ? Pal_RingBufRead(rb, payload, AV_STREAM_PACKET_SIZE) : -1;
    if (res != 0) {
        debug_UI_Rate(&m_logReadError,
                      "[AVStreamer m_groupId : %d] nRcv : %d, Pal_RingBufRead Error nRes1 = %d ",
                      m_groupId, nRcv, res);
        memset(payload, 0, AV_STREAM_PACKET_SIZE);  // silence keeps the position moving
    }
    m_RtpPacket.unSeqNum = commonSeqNum;
    // Play-out time on the shared clock: one second after the first packet,
    // plus this packet's position in the stream.
    m_RtpPacket.unTimestamp = streamStartTime + 1000 + (uint32_t)_pcm_bytes_to_ms(m_szSent);
    AddRTPHeader(m_pSendBuf, m_RtpPacket);
    s.szSent += AV_STREAM_PACKET_SIZE;

    if (s.ServerState == AV_STREAMER_STATE_PLAY) {
        // The address text becomes a socket address once, at the first
        // packet after the receiver's RTP port became known.
        if (s._rtp_dest.addr == 0 || s._rtp_dest.port != htons(s.uwClientRtpPort))
            PAL_SockDestSet(&s._rtp_dest, s.pReceiverIP, s.uwClientRtpPort);
        m_rtpOutSock = s._rtp_sock;
        m_rtpOutDest = s._rtp_dest;
    }
    if (report != 1) return 1;
    if (m_RtpPacket.unSeqNum % 100 == 0)
        debug_UI("xxxxsending send rtp  nRecv:%d seq_num:%u ts:%u  ts-timesync:%u udp_write---",
                 nRcv, m_RtpPacket.unSeqNum, m_RtpPacket.unTimestamp,
                 m_RtpPacket.unTimestamp - TimeSyncInitiator_GetCurrentClock());
    if (rb == nullptr) return 1;
    float rate = (float)m_AVMusicInfo.SampleRate * 2.0f * (float)m_AVMusicInfo.BytesPerSample;
    unsigned int seconds =
        rate > 0.0f ? (unsigned int)((float)Pal_RingBufGetReadSize(rb) / rate) : 0;
    uint32_t position = Pal_RingBufGetTimeStamp(rb) + seconds;
    if (position == lastReportedProgress) return 1;
    debug_UI("xxxseek send rtp  nRecv:%d notify+++ %u", nRcv, position);
    // Handed to the control server once the pass is over and no lock is held.
    m_pendingProgress = position;
    m_bProgressDue = true;
    lastReportedProgress = position;
    return 1;
}

// Hands a progress value to the control server, which raises the event.
// Never waits: a queue still full of values the control server has not
// raised (its thread held up in the application for seconds) keeps those
// and skips this one.
void CAVStreamer::_post_progress(uint32_t position) {
    uint32_t tail = m_progressTail.load(std::memory_order_relaxed);
    if (tail - m_progressHead.load(std::memory_order_acquire) < AV_PROGRESS_QUEUE) {
        m_progressQ[tail % AV_PROGRESS_QUEUE] = position;
        m_progressTail.store(tail + 1, std::memory_order_release);
    }
    _wake_server();
}

// Raises the progress values handed over, oldest first, on the control
// server's thread (no lock held).
void CAVStreamer::_raise_progress() {
    uint32_t head = m_progressHead.load(std::memory_order_relaxed);
    while (head != m_progressTail.load(std::memory_order_acquire)) {
        uint32_t position = m_progressQ[head % AV_PROGRESS_QUEUE];
        m_progressHead.store(++head, std::memory_order_release);
        _notify(AVMSG_PLAY_PROGRESS, m_groupId, position, 0, 0);
    }
}

void CAVStreamer::_send_ready_packet(int index) {
    if (m_rtpOutSock < 0) return;
    // A malformed address resolves to nothing: the send fails like any other.
    int sent = m_rtpOutDest.addr == 0
                   ? -1
                   : PAL_SockWriteDest(m_rtpOutSock, m_pSendBuf,
                                       AV_RTP_HEADER_SIZE + AV_STREAM_PACKET_SIZE, &m_rtpOutDest);
    if (sent == -1)
        debug_UI_Rate(&m_logSendError,
                      "xxxxsending [AVStreamer m_groupId : %d] Send error  nRcv = %d, nRes2 = %d",
                      m_groupId, index, sent);
    m_rtpOutSock = -1;
}

// One datagram: the 12-byte header, then the payload; the SSRC goes out as
// the four bytes of a 32-bit value.
static_assert(AV_RTP_HEADER_SIZE == 12 && AV_RTP_HEADER_SIZE + AV_STREAM_PACKET_SIZE == 1412,
              "an RTP datagram is a 12-byte header and 1400 bytes of PCM");
static_assert(sizeof(RTP_PACKET::unSsrc) == 4, "the SSRC is 4 bytes on the wire");

int CAVStreamer::AddRTPHeader(char* buf, RTP_PACKET packet) {
    unsigned char* b = (unsigned char*)buf;
    b[0] = 0x80;  // version 2, no padding, no extension, no CSRC
    b[1] = (unsigned char)(((packet.bMarker & 1) << 7) | (packet.nPayloadType & 0x7F));
    b[2] = (unsigned char)(packet.unSeqNum >> 8);
    b[3] = (unsigned char)packet.unSeqNum;
    b[4] = (unsigned char)(packet.unTimestamp >> 24);
    b[5] = (unsigned char)(packet.unTimestamp >> 16);
    b[6] = (unsigned char)(packet.unTimestamp >> 8);
    b[7] = (unsigned char)packet.unTimestamp;
    memcpy(b + 8, &packet.unSsrc, 4);  // receivers expect the sender's own byte order
    return AV_RTP_HEADER_SIZE;
}

// Source channel a receiver of this role plays. The thresholds are the
// receivers' long-standing expectations: a 4- or 5-channel source gives the
// rear roles channels 4 and 5 even where the source has fewer.
static unsigned int role_channel(AV_CHANNEL_TYPE type, unsigned short channels) {
    switch (type) {
        case AV_CHANNEL_FRONT_RIGHT:
            return channels > 1 ? 1 : 0;
        case AV_CHANNEL_CENTER:
            return channels >= 6 ? 2 : 0;
        case AV_CHANNEL_WOOFER:
            return channels >= 6 ? 3 : 0;
        case AV_CHANNEL_REAR_LEFT:
            return channels > 3 ? 4 : 0;
        case AV_CHANNEL_REAR_RIGHT:
            return channels > 3 ? 5 : 0;
        default:
            return 0;
    }
}

// The frame counter of the filters is 16 bits wide: one call converts at most
// 65535 frames.
static unsigned long frame_limit(unsigned long count) {
    return count > 0xFFFF ? 0xFFFF : count;
}

// One source channel on both output channels.
template <typename T>
static void mono_to_both(const T* src, unsigned long count, unsigned short channels, unsigned int c,
                         T* dst) {
    unsigned long n = frame_limit(count);
    for (unsigned long k = 0; k < n; k++) dst[2 * k] = dst[2 * k + 1] = src[k * channels + c];
}

// The source's first two channels as stereo. A mono source reads the next
// frame's sample as its right channel, so the source must hold one sample
// beyond the last frame.
static void first_two(const short* src, unsigned long count, unsigned short channels, short* dst) {
    unsigned long n = frame_limit(count);
    for (unsigned long k = 0; k < n; k++) {
        dst[2 * k] = src[k * channels];
        dst[2 * k + 1] = src[k * channels + 1];
    }
}

void CAVStreamer::PcmChannelFilter(short* src, unsigned long count, unsigned short channels,
                                   AV_CHANNEL_TYPE type, short* dst) {
    if (type == AV_CHANNEL_PARTY)
        first_two(src, count, channels, dst);
    else
        mono_to_both(src, count, channels, role_channel(type, channels), dst);
}

void CAVStreamer::PcmChannelFilter2Channel(short* src, unsigned long count, unsigned short channels,
                                           AV_CHANNEL_TYPE type, short* dst) {
    mono_to_both(src, count, channels, role_channel(type, channels), dst);
}

void CAVStreamer::Pcm8BitChannelFilter2Channel(char* src, unsigned long count,
                                               unsigned short channels, AV_CHANNEL_TYPE type,
                                               char* dst) {
    mono_to_both(src, count, channels, role_channel(type, channels), dst);
}

void CAVStreamer::PcmPartyChannelFilter(short* src, unsigned long count, unsigned short channels,
                                        short* dst) {
    first_two(src, count, channels, dst);
}
