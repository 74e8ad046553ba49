// The music source thread: turns the open content into PCM, cuts it per
// receiver to the receiver's channel role and fills each session's ring
// buffer; carries out the source side of a seek and reports the end of the
// content.
//
// Allocates its two work buffers once per thread (nothing per chunk).
// Runs on: MusicSourceThread (started by AVStreamerInit).
// Locks: a session's `_lpmutex` only while scanning for the end of a seek;
// m_pFeedLock while choosing the buffer that sets the pace and writing one
// chunk into the buffers (no wait inside).
// Waits: on m_pMusicWakeSem, each wait bounded: for room in the buffer
// shortest of it among those the stream thread reads (signalled by that
// read; AV_MUSIC_WAIT_MS),
// during a seek for the stream thread to empty the buffers (signalled by it;
// AV_SEEK_WAIT_MS), and while idle for the stream start, a resume, a seek or
// the close (AV_MUSIC_WAIT_MS). The close signals every one of them.
#include <string.h>

#include "AVStreamer.h"
#include "MP3Parser.h"

bool CAVStreamer::ReceiverMediaWrite(unsigned char nIndex, char* pBuffer, unsigned long unLength) {
    if (nIndex >= AV_MAX_RECEIVER) return true;
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[nIndex];
    PAL_RINGBUF* rb = s.pFD;
    if (!s.bActive || rb == nullptr) return true;  // nobody to deliver to: counts as done
    if (Pal_RingBufAvailable(rb) < unLength) return false;
    Pal_RingBufWrite(rb, pBuffer, unLength);
    return true;
}

// Bytes of PCM a receiver of this role gets from a chunk of n source bytes,
// and the conversion that produces them. 0 bytes: nothing fits this role
// (3- or 4-byte samples for a single-channel role).
enum { CONV_NONE, CONV_8BIT, CONV_16BIT, CONV_PARTY_MULTI, CONV_SKIP };

static int pick_conversion(AV_CHANNEL_TYPE type, unsigned c, unsigned b) {
    if (type == AV_CHANNEL_PARTY) {
        if (c == 1) return b == 1 ? CONV_8BIT : b == 2 ? CONV_16BIT : CONV_SKIP;
        if (c <= 2) return CONV_NONE;
        return CONV_PARTY_MULTI;
    }
    if (b == 1) return CONV_8BIT;
    if (b == 2) return CONV_16BIT;
    return CONV_SKIP;
}

static unsigned long converted_length(int conv, long n, unsigned c) {
    switch (conv) {
        case CONV_NONE:
            return (unsigned long)n;
        case CONV_PARTY_MULTI:
            return (unsigned long)(2 * n) / c;
        case CONV_SKIP:
            return 0;
        default:
            return 2 * ((unsigned long)n / c);
    }
}

// The work buffers, sized for the largest chunk with room to spare: a filter
// may read one sample beyond the chunk (a party receiver of a mono source)
// and writes up to twice it (a mono chunk doubled). The 16-bit filters read
// and write them as arrays of short, which ARM may fetch with instructions
// that need the sample's alignment.
struct MusicSrcBuffers {
    alignas(short) char origin[2 * AV_MP3_BUF_SIZE + 64];
    alignas(short) char divide[4 * AV_MP3_BUF_SIZE];
};

const char* CAVStreamer::_convert_for(int index, char* origin, long n, char* divide,
                                      unsigned long* len) {
    AV_CHANNEL_TYPE type = m_AVRcvSessInfo.AVRcvSess[index].ChannelType;
    unsigned c = m_AVMusicInfo.NumChannels ? m_AVMusicInfo.NumChannels : 1;
    unsigned b = m_AVMusicInfo.BytesPerSample;
    int conv = pick_conversion(type, c, b);
    *len = converted_length(conv, n, c);
    switch (conv) {
        case CONV_NONE:
            return origin;
        case CONV_8BIT:
            Pcm8BitChannelFilter2Channel(origin, (unsigned long)n / c, (unsigned short)c, type,
                                         divide);
            return divide;
        case CONV_16BIT:
            // Only the frames that make up *len bytes (4 bytes each).
            PcmChannelFilter2Channel((short*)origin, (*len + 3) / 4, (unsigned short)c, type,
                                     (short*)divide);
            return divide;
        case CONV_PARTY_MULTI:
            PcmPartyChannelFilter((short*)origin, ((unsigned long)n / c) / 2, (unsigned short)c,
                                  (short*)divide);
            return divide;
        default:
            return divide;
    }
}

// The buffer that sets the pace of the next chunk of n source bytes: the
// one shortest of room for its share among those the stream thread reads,
// and how far short it is (negative) or how much room is left. A buffer is
// read once its session is lined up with the stream (it is then read every
// pass, sent or not); while no session is, the stream has not started or a
// seek emptied everything, and every buffer will be read from its start, so
// all of them count. A session not lined up while others play is not read
// until it is, and then drops its oldest PCM to match them: it holds
// nothing back (see _fit_unread_l). Among equals the last one the stream
// thread serves in a pass, so that when it has room the pass has made room
// in all. Called with m_pFeedLock held: lining up changes which buffers
// count, under the same lock.
long long CAVStreamer::_tightest_l(long n, bool* anyLinedUp, PAL_RINGBUF** tightest,
                                   unsigned long* need) {
    unsigned c = m_AVMusicInfo.NumChannels ? m_AVMusicInfo.NumChannels : 1;
    AV_RCV_SESS* sess = m_AVRcvSessInfo.AVRcvSess;
    *anyLinedUp = false;
    for (int i = 0; i < AV_MAX_RECEIVER && !*anyLinedUp; i++)
        *anyLinedUp = sess[i].bActive && sess[i].pFD.load() != nullptr && sess[i].bIsSync == 1;
    *tightest = nullptr;
    *need = 0;
    long long slack = 0;
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = sess[i];
        PAL_RINGBUF* rb = s.pFD;
        if (!s.bActive || rb == nullptr || (*anyLinedUp && s.bIsSync != 1)) continue;
        int conv = pick_conversion(s.ChannelType, c, m_AVMusicInfo.BytesPerSample);
        unsigned long len = converted_length(conv, n, c);
        long long left = (long long)Pal_RingBufAvailable(rb) - (long long)len;
        if (*tightest == nullptr || left <= slack) {
            *tightest = rb;
            slack = left;
            *need = len;
        }
    }
    return slack;
}

// A session that is not read yet while others play (connected but not
// playing, or not lined up since a seek) keeps only the newest PCM: its
// oldest bytes go to make room, so its buffer still ends where every other
// one does, which is what lining it up by fill levels relies on. What goes
// is what lining up would drop anyway.
void CAVStreamer::_fit_unread_l(int index, unsigned long len) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PAL_RINGBUF* rb = s.pFD;
    if (rb == nullptr || s.bIsSync == 1) return;
    unsigned long room = Pal_RingBufAvailable(rb);
    if (room < len) Pal_RingBufRead(rb, nullptr, len - room);
}

// Writes the chunk of n source bytes in origin into every active session's
// buffer, channel-filtered for each, once every buffer that is read has
// room for its share, so that all buffers always end at the same point of
// the content: the stream thread lines late receivers up by comparing fill
// levels. The slowest buffer that is read sets the pace; one that nobody
// reads never does. Returns FEED_ABANDONED when a pause, a seek or exit
// abandons the chunk (those must be seen however long a buffer stays
// full), FEED_NOBODY when no session has a buffer (the chunk is dropped).
int CAVStreamer::_feed_chunk(char* origin, long n, char* divide) {
    for (;;) {
        PalLock feed(m_pFeedLock);
        bool anyLinedUp = false;
        PAL_RINGBUF* tightest = nullptr;
        unsigned long need = 0;
        long long slack = _tightest_l(n, &anyLinedUp, &tightest, &need);
        if (tightest == nullptr || slack >= 0) {
            bool delivered = false;
            for (int i = 0; i < AV_MAX_RECEIVER; i++) {
                AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
                if (!s.bActive) continue;
                unsigned long len = 0;
                const char* out = _convert_for(i, origin, n, divide, &len);
                if (anyLinedUp) _fit_unread_l(i, len);
                if (len > 0) ReceiverMediaWrite((unsigned char)i, (char*)out, len);
                PAL_RINGBUF* rb = s.pFD;
                if (rb != nullptr) {
                    Pal_RingBufSetTimeStamp(rb, (unsigned int)m_nOffsetTime);
                    delivered = true;
                }
            }
            return delivered ? FEED_DONE : FEED_NOBODY;
        }
        feed.Unlock();
        if (m_bSerExit || _bpause || bSeekReqMusicSrcT) return FEED_ABANDONED;
        // Asleep until the stream thread has read room for this chunk and a
        // batch more, so that one wake moves several chunks; a seek, pause
        // or close signals the same semaphore, and a receiver lined up or
        // gone is seen at the bound, when every buffer and flag is looked at
        // again.
        if (Pal_RingBufNotifyRoom(tightest, need + AV_MUSIC_ROOM_BATCH, m_pMusicWakeSem) == 0)
            PAL_SemTimedWait(m_pMusicWakeSem, AV_MUSIC_WAIT_MS);
    }
}

// The pause between passes: ms at most, cut short by whatever the thread
// waits for (stream start, resume, seek, close).
void CAVStreamer::_music_idle(unsigned int ms) {
    PAL_SemTimedWait(m_pMusicWakeSem, ms);
}

void CAVStreamer::_wake_music_source() {
    PAL_SemSignal(m_pMusicWakeSem, 1);
}

// Some active session still holds PCM from before the seek (the stream
// thread has not emptied it yet).
bool CAVStreamer::_seek_pending() {
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        if (s.bActive && s.bIsSync == 1) return true;
    }
    return false;
}

void CAVStreamer::_music_seek() {
    bSeekReqMusicSrcT = false;
    bSeekReqRtpStreamT = true;
    debug_UI("xxxseek [MusicSourceThread] seek flag set");
    if (_is_mime("audio/mpeg")) {
        // Formed in 32 bits: offsets beyond 2147 s wrap, as they always have.
        int us = (int)((unsigned int)m_nOffsetTime.load() * 1000000u);
        if (m_pMP3Parser != nullptr) m_pMP3Parser->setSeekTo((long long)us);
    } else if (_is_mime("audio/x-wav")) {
        wav_seek(m_send_file, (unsigned int)m_nOffsetTime.load());
    }
    debug_UI("xxxseek [MusicSourceThread] source seek complete");
    // The stream thread empties every active buffer, clears its sync mark
    // and wakes this thread; the close wakes it too. Bounded: at the limit
    // the seek completes anyway, and the buffers are emptied by the stream
    // thread when it gets to them.
    unsigned int start = PAL_GetClock();
    while (!m_bSerExit && m_rtpWorker.Started() && _seek_pending()) {
        unsigned int waited = PAL_GetClock() - start;
        if (waited >= AV_SEEK_WAIT_MS) {
            debug_UI("xxxseek [MusicSourceThread] buffers not emptied within %d ms",
                     AV_SEEK_WAIT_MS);
            break;
        }
        _music_idle(AV_SEEK_WAIT_MS - waited);
    }
    _seek_done();
    debug_UI("xxxseek [MusicSourceThread] seek complete");
}

int CAVStreamer::MusicSourceThread(void* param) {
    CAVStreamer* self = (CAVStreamer*)param;
    // A decoder's priority on the phone, a step below the stream thread: a
    // buffer holds seconds, so this thread only needs its core soon.
    PAL_ThreadSetOwnPriority(PAL_THREAD_PRIO_AUDIO);
    MusicSrcBuffers* buf = new MusicSrcBuffers();
    long nReadSize = 0;
    int nCntReadEnd = 0;
    unsigned int unEndStartClk = 0;
    bool bStopReq = false;
    while (!self->m_bSerExit) {
        // Asleep until signalled (stream start, resume, seek, close), unless
        // a step below has work on a clock.
        unsigned int idle = AV_MUSIC_WAIT_MS;
        if (bStopReq) {
            if (self->bSeekReqMusicSrcT) {  // nothing left to move: acknowledge at once
                self->bSeekReqMusicSrcT = false;
                self->_seek_done();
            }
        } else if (self->m_bStreamReady) {
            if (self->bSeekReqMusicSrcT) {
                self->_music_seek();
                nCntReadEnd = 0;
            }
            if (!self->_bpause) {
                if (nCntReadEnd == 0) nReadSize = self->_read_chunk(buf->origin);
                if (nReadSize >= 1) {
                    // Paced by the buffers: the next chunk waits for room,
                    // not for a step. A pause, seek or close that abandons
                    // the chunk is handled at once.
                    int fed = self->_feed_chunk(buf->origin, nReadSize, buf->divide);
                    if (fed != FEED_NOBODY) continue;
                    // Nobody to deliver to: the chunk is dropped at the pace
                    // of the step.
                    idle = 5;
                } else if (self->_drained(nReadSize, &nCntReadEnd, &unEndStartClk)) {
                    self->_close_content();
                    self->_notify(AVMSG_SERVICE_STOP, self->m_groupId, 1, 0, 0);
                    bStopReq = true;
                    continue;  // straight to the next pass
                } else {
                    idle = 5;  // draining: the first receiver's queue is watched in steps
                }
            }
        }
        self->_music_idle(idle);
    }
    self->_close_content();
    delete buf;
    debug_UI("[MusicSourceThread] exit");  // the helper signals the close on the way out
    return 0;
}

long CAVStreamer::_read_chunk(char* origin) {
    if (_is_mime("audio/mpeg")) return Mp3ToPcm_FileRead(m_send_file, origin, AV_MP3_BUF_SIZE);
    // WAV reads half a buffer: a mono chunk is doubled to two channels.
    unsigned long n = _is_mime("audio/x-wav") ? AV_MP3_BUF_SIZE / 2 : AV_MP3_BUF_SIZE;
    return PAL_FileRead(m_send_file, origin, n);
}

// After the source ran dry: true when the content has ended, either because
// the first receiver's queue is down to less than a packet or because a full
// buffer's play time has passed since.
bool CAVStreamer::_drained(long nReadSize, int* nCntReadEnd, unsigned int* unEndStartClk) {
    if ((*nCntReadEnd)++ == 0) {
        debug_UI("[AVStreamer m_groupId : %d] MusicSourceThread : nReadSize = %d", m_groupId,
                 (int)nReadSize);
        *unEndStartClk = PAL_GetClock();
    } else {
        unsigned int rate = (unsigned int)m_AVMusicInfo.NumChannels * m_AVMusicInfo.BytesPerSample *
                            m_AVMusicInfo.SampleRate;
        unsigned int limit = rate ? 409600000u / rate : 0;
        unsigned int waited = PAL_GetClock() - *unEndStartClk;
        if (waited > limit) {
            debug_UI("[AVStreamer m_groupId : %d] MusicSourceThread :  wait time = %d", m_groupId,
                     (int)waited);
            return true;
        }
    }
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PAL_RINGBUF* rb = s.pFD;
        if (!s.bActive || rb == nullptr) continue;
        unsigned long freeSpace = Pal_RingBufAvailable(rb);
        if (RING_BUFFER_TOTAL_SIZE - freeSpace > 1399) return false;
        debug_UI("RING_BUFFER_TOTAL_SIZE %d  szValid %d", RING_BUFFER_TOTAL_SIZE, (int)freeSpace);
        return true;
    }
    return false;
}
