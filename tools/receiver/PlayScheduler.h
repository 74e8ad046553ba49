// When each received frame leaves the speaker: the pure scheduling logic of
// a receiver that plays to a sound device (sonvara-receiver --play).
//
// Packets go in as they arrive (RTP sequence number, timestamp = master-clock
// millisecond at which the packet's first frame must leave the speaker, and
// 1400 payload bytes). The device asks for the next frames, saying when the
// first of them will leave the speaker (master clock now plus the device's
// delay). The scheduler answers with silence until the stream's first frame
// is due, starts on the exact frame, and afterwards keeps the written stream
// on time: small errors are corrected by repeating or skipping one frame at a
// time, spread out; large ones (an underrun, a stalled device, a clock step)
// at once, by skipping to the frame that is due or, when ahead, by silence
// until it is due (what was played is never played again).
//
// Timestamps carry whole milliseconds only, but the sequence number counts
// packets exactly, so every frame's time is taken from one anchor packet and
// its distance in frames; later packets refine the anchor's sub-millisecond
// part (each timestamp is the exact time rounded down) and a packet whose
// timestamp does not fit the anchor starts a new stream.
//
// Owns its packet queue (fixed slots) and counters; no threads, no locks, no
// clock: the caller serialises calls and supplies the times.
#ifndef PLAYSCHEDULER_H
#define PLAYSCHEDULER_H

#include <stddef.h>

struct PlaySchedulerConfig {
    int rate;                // frames per second (the SDP's rate)
    int frameBytes;          // 4 for 16-bit stereo, 2 for 8-bit stereo
    int deadbandUs;          // smoothed errors within this are left alone
    int correctEveryFrames;  // at least this many frames between two single-frame corrections
    int resyncUs;            // errors beyond this jump to the due frame at once
};

// 250 us dead band, one correction per 10 ms at most (up to 100 frames a
// second, 2.3 ms/s at 44.1 kHz: well beyond any two crystals' drift), jump
// beyond 20 ms.
void PlaySchedulerDefaults(PlaySchedulerConfig* cfg, int rate, int frameBytes);

struct PlayStats {
    unsigned long long framesOut;     // frames handed to the device
    unsigned long long audioFrames;   // of those, frames from packets
    unsigned long long silentFrames;  // of those, silence (before the start, gaps, pauses)
    unsigned int inserted;            // frames repeated to fall back in time
    unsigned int dropped;             // frames skipped to catch up
    unsigned int resyncs;             // jumps beyond the correction range
    unsigned long long resyncFrames;  // frames those jumps skipped or waited in silence
    unsigned int starts;              // times a stream started (first, after a reset)
    unsigned int anchors;             // times a packet started a new stream timeline
    unsigned int latePackets;         // arrived after their time had passed
    unsigned int overflowPackets;     // too far ahead for the queue
    unsigned int badPackets;          // wrong payload size
    long long startMasterUs;          // master time the last start's first frame left
    double lastErrorUs;               // smoothed error, + = ahead of time
};

class PlayScheduler {
public:
    enum { kSlots = 1024, kPacketBytes = 1400 };

    PlayScheduler();
    // New format (a new device): drops everything and zeroes the counters.
    void Configure(const PlaySchedulerConfig& cfg);
    // A new stream (new connection, the receiver was reset): forget the
    // queue and the timeline. Counters are kept.
    void Reset();
    // Drop what is queued. keepAfterJump: keep the packets from the latest
    // jump in the sequence onwards (a seek: its new packets may come before
    // the SEEK command); the timeline is kept either way.
    void Flush(bool keepAfterJump);
    // Queues one packet. 0, or -1 when it is not used (counted).
    int Push(unsigned short seq, unsigned int timestampMs, const unsigned char* payload,
             size_t len);
    // Writes `frames` frames to out. The frame written first leaves the
    // speaker delayFrames frames after master time masterNowUs.
    void Fill(long long masterNowUs, long delayFrames, unsigned char* out, int frames);

    // True while queued audio is still to be written (or the start is due).
    bool Pending() const;
    const PlayStats& Stats() const { return m_stats; }
    bool Playing() const { return m_playing; }

private:
    void _anchor(long long ext, unsigned int ts);
    bool _have(long long ext) const;
    void _emit(unsigned char* out);
    double _due_frame(long long masterNowUs, long delayFrames) const;

    PlaySchedulerConfig m_cfg;
    int m_framesPerPacket;
    // The queue: packet ext (extended sequence) sits in slot ext % kSlots.
    long long m_slotExt[kSlots];
    unsigned char m_slot[kSlots][kPacketBytes];
    bool m_haveSeq;
    long long m_lastExt;  // extended sequence of the newest packet
    long long m_jumpExt;  // first packet after the latest jump since the last flush, -1 none
    // Timeline: packet m_anchorExt's first frame leaves at master millisecond
    // m_anchorTs plus m_anchorFracUs.
    bool m_anchored;
    long long m_anchorExt;
    unsigned int m_anchorTs;
    double m_anchorFracUs;
    // Output.
    bool m_playing;
    long long m_pos;  // stream frame written next (0 = anchor packet's first)
    double m_err;     // smoothed error in frames, + = ahead
    bool m_correcting;
    int m_correctWait;
    long long m_holdFrames;   // silence still to write before m_pos (fell back after a jump)
    unsigned char m_last[8];  // the frame written last (repeated on insertion)
    PlayStats m_stats;
};

#endif
