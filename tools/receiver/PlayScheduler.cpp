// Scheduling of received frames onto a sound device (see PlayScheduler.h).
#include "PlayScheduler.h"

#include <math.h>
#include <string.h>

namespace {

// Floor division for a possibly negative frame position.
long long floor_div(long long a, long long b) {
    long long q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// A timestamp that disagrees with the timeline by more than this starts a
// new one (rounding down to whole milliseconds accounts for up to 1 ms).
const double kAnchorSlackUs = 2000.0;

}  // namespace

void PlaySchedulerDefaults(PlaySchedulerConfig* cfg, int rate, int frameBytes) {
    cfg->rate = rate;
    cfg->frameBytes = frameBytes;
    cfg->deadbandUs = 250;
    cfg->correctEveryFrames = rate / 100;
    cfg->resyncUs = 20000;
}

PlayScheduler::PlayScheduler() {
    PlaySchedulerConfig cfg;
    PlaySchedulerDefaults(&cfg, 44100, 4);
    Configure(cfg);
}

void PlayScheduler::Configure(const PlaySchedulerConfig& cfg) {
    m_cfg = cfg;
    if (m_cfg.rate <= 0) m_cfg.rate = 44100;
    // One frame is 2 channels of 1 or 2 bytes; a packet holds whole frames.
    if (m_cfg.frameBytes != 2 && m_cfg.frameBytes != 4) m_cfg.frameBytes = 4;
    if (m_cfg.correctEveryFrames < 1) m_cfg.correctEveryFrames = 1;
    m_framesPerPacket = kPacketBytes / m_cfg.frameBytes;
    memset(&m_stats, 0, sizeof(m_stats));
    Reset();
}

void PlayScheduler::Reset() {
    for (long long& e : m_slotExt) e = -1;
    m_haveSeq = false;
    m_lastExt = 0;
    m_jumpExt = -1;
    m_anchored = false;
    m_anchorExt = 0;
    m_anchorTs = 0;
    m_anchorFracUs = 0;
    m_playing = false;
    m_pos = 0;
    m_err = 0;
    m_correcting = false;
    m_correctWait = 0;
    m_holdFrames = 0;
    memset(m_last, 0, sizeof(m_last));
}

void PlayScheduler::Flush(bool keepAfterJump) {
    for (long long& e : m_slotExt) {
        if (!keepAfterJump || m_jumpExt < 0 || e < m_jumpExt) e = -1;
    }
    m_jumpExt = -1;
}

void PlayScheduler::_anchor(long long ext, unsigned int ts) {
    for (long long& e : m_slotExt) e = -1;  // queued packets belong to the old timeline
    m_anchored = true;
    m_lastExt = ext;  // a new timeline: older numbers belong to the old one
    m_anchorExt = ext;
    m_anchorTs = ts;
    m_anchorFracUs = 0;
    m_jumpExt = -1;
    m_playing = false;
    m_stats.anchors++;
}

int PlayScheduler::Push(unsigned short seq, unsigned int timestampMs, const unsigned char* payload,
                        size_t len) {
    if (len != (size_t)kPacketBytes || !payload) {
        m_stats.badPackets++;
        return -1;
    }
    // Extended sequence number: kept far from zero so that older packets
    // stay positive.
    long long ext = m_haveSeq ? m_lastExt + (short)(unsigned short)(seq - (unsigned short)m_lastExt)
                              : (1LL << 32) + seq;
    if (m_haveSeq && ext > m_lastExt + 1) m_jumpExt = ext;
    if (!m_haveSeq || ext > m_lastExt) m_lastExt = ext;
    m_haveSeq = true;
    if (!m_anchored) {
        _anchor(ext, timestampMs);
    } else {
        // Each timestamp is its exact time rounded down, so it bounds the
        // anchor's sub-millisecond part from below.
        double offsetUs = (double)(ext - m_anchorExt) * m_framesPerPacket * 1e6 / m_cfg.rate;
        double lower = (double)(int)(timestampMs - m_anchorTs) * 1000.0 - offsetUs;
        if (lower > m_anchorFracUs + kAnchorSlackUs || lower < m_anchorFracUs - kAnchorSlackUs) {
            _anchor(ext, timestampMs);
        } else if (lower > m_anchorFracUs && lower < m_anchorFracUs + 1000.0) {
            m_anchorFracUs = lower;
        }
    }
    long long first = m_playing ? m_anchorExt + floor_div(m_pos, m_framesPerPacket) : m_anchorExt;
    if (ext < first) {
        m_stats.latePackets++;
        return -1;
    }
    if (ext - first >= kSlots) {
        m_stats.overflowPackets++;
        return -1;
    }
    int slot = (int)(ext % kSlots);
    m_slotExt[slot] = ext;
    memcpy(m_slot[slot], payload, kPacketBytes);
    return 0;
}

bool PlayScheduler::Pending() const {
    if (!m_anchored) return false;
    return !m_playing || m_anchorExt + floor_div(m_pos, m_framesPerPacket) <= m_lastExt;
}

bool PlayScheduler::_have(long long ext) const {
    return ext >= 0 && m_slotExt[ext % kSlots] == ext;
}

double PlayScheduler::_due_frame(long long masterNowUs, long delayFrames) const {
    long long at = masterNowUs + (long long)delayFrames * 1000000LL / m_cfg.rate;
    long long ms = floor_div(at, 1000);
    double relUs = (double)(int)((unsigned int)ms - m_anchorTs) * 1000.0 +
                   (double)(at - ms * 1000) - m_anchorFracUs;
    return relUs * m_cfg.rate / 1e6;
}

void PlayScheduler::_emit(unsigned char* out) {
    const int fb = m_cfg.frameBytes;
    long long pkt = floor_div(m_pos, m_framesPerPacket);
    long long ext = m_anchorExt + pkt;
    if (_have(ext)) {
        memcpy(out, m_slot[ext % kSlots] + (m_pos - pkt * m_framesPerPacket) * fb, (size_t)fb);
        m_stats.audioFrames++;
    } else {
        memset(out, 0, (size_t)fb);
        m_stats.silentFrames++;
    }
    memcpy(m_last, out, (size_t)fb);
    m_pos++;
}

void PlayScheduler::Fill(long long masterNowUs, long delayFrames, unsigned char* out, int frames) {
    const int fb = m_cfg.frameBytes;
    if (frames <= 0) return;
    m_stats.framesOut += (unsigned long long)frames;
    if (!m_anchored) {
        memset(out, 0, (size_t)frames * fb);
        m_stats.silentFrames += (unsigned long long)frames;
        return;
    }
    double due = _due_frame(masterNowUs, delayFrames);
    if (!m_playing) {
        // Silence up to the first frame's exact place, or start late on the
        // frame that is due now.
        long long lead = due < 0 ? llround(-due) : 0;
        if (lead >= frames) {
            memset(out, 0, (size_t)frames * fb);
            m_stats.silentFrames += (unsigned long long)frames;
            return;
        }
        memset(out, 0, (size_t)lead * fb);
        m_stats.silentFrames += (unsigned long long)lead;
        out += lead * fb;
        frames -= (int)lead;
        m_pos = due < 0 ? 0 : llround(due);
        m_playing = true;
        m_err = 0;
        m_correcting = false;
        m_correctWait = 0;
        m_holdFrames = 0;
        m_stats.starts++;
        m_stats.startMasterUs = masterNowUs + (delayFrames + lead) * 1000000LL / m_cfg.rate;
    } else {
        double err = (double)(m_pos - m_holdFrames) - due;
        if (fabs(err) * 1e6 / m_cfg.rate > m_cfg.resyncUs) {
            m_stats.resyncs++;
            m_stats.resyncFrames += (unsigned long long)llround(fabs(err));
            if (err > 0) {
                m_holdFrames += llround(err);
            } else {
                m_pos = llround(due);
            }
            m_err = 0;
            m_correcting = false;
        } else {
            m_err += (err - m_err) / 8;
        }
    }
    m_stats.lastErrorUs = m_err * 1e6 / m_cfg.rate;
    const double band = (double)m_cfg.deadbandUs * m_cfg.rate / 1e6;
    for (int i = 0; i < frames; i++, out += fb) {
        if (m_holdFrames > 0) {
            m_holdFrames--;
            memset(out, 0, (size_t)fb);
            m_stats.silentFrames++;
            continue;
        }
        if (m_correctWait > 0) m_correctWait--;
        if (fabs(m_err) > band) m_correcting = true;
        if (fabs(m_err) < 1.0) m_correcting = false;
        if (m_correcting && m_correctWait == 0) {
            m_correctWait = m_cfg.correctEveryFrames;
            if (m_err > 0) {  // ahead of time: repeat the last frame
                memcpy(out, m_last, (size_t)fb);
                m_err -= 1;
                m_stats.inserted++;
                m_stats.audioFrames++;
                continue;
            }
            m_pos++;  // behind: skip one
            m_err += 1;
            m_stats.dropped++;
        }
        _emit(out);
    }
}
