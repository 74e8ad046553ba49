// The sound card of sonvara-receiver --play: plays the received stream on an
// ALSA device at the time the shared clock says.
//
// Owns the ALSA PCM handle, a PlayScheduler and one play thread. The
// receiver's worker hands over the format, the stream events and the packets
// (ReceiverPlaySink); the play thread opens the device when a stream's format
// is known, keeps it fed (silence where the scheduler has no audio) and
// closes it when the stream has ended (BYE or the connection closed) and
// what was queued has been played: at most 3 s after the end. Before each write it reads the
// device's delay (snd_pcm_delay) and the master clock, so the scheduler knows when the next frame
// will leave the speaker. Locks: m_lock guards the scheduler and the requested state; it is held
// only to queue a packet or fill one write's frames, never across an ALSA
// call or a wait. Waits: snd_pcm_wait is bounded by a buffer's time plus
// 200 ms (a device that takes nothing that long is restarted); a device that
// fails 8 times without a good write is closed and opened again after 1 s;
// with no stream the thread sleeps until one begins.
#ifndef ALSAOUT_H
#define ALSAOUT_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlayScheduler.h"
#include "ReceiverEmulator.h"

// The master clock as the player reads it.
class PlayClock {
public:
    virtual ~PlayClock() {}
    // Master clock now in microseconds; false while there is no estimate.
    virtual bool MasterNowUs(long long* masterUs) = 0;
};

struct AlsaOutStats {
    PlayStats play;             // the scheduler's counters
    unsigned int opens;         // times the device was opened
    unsigned int underruns;     // the device ran dry and was restarted
    unsigned int stalls;        // the device took nothing for a whole bound: restarted
    unsigned int deviceErrors;  // open or write failures other than underruns
    int rate, bits;             // format of the open device (0 = closed)
    unsigned long bufferFrames, periodFrames;
    char lastError[128];
};

class AlsaOut : public ReceiverPlaySink {
public:
    // device: ALSA PCM name ("default", "hw:0", ...); clock: not owned.
    AlsaOut(const char* device, PlayClock* clock);
    ~AlsaOut() override;  // Stop()s
    int Start();          // 0, or -1 when the play thread cannot start
    void Stop();          // closes the device, joins the thread
    AlsaOutStats Stats();
    // The counters as JSON members ("play_inserted":3,...), no braces.
    std::string StatsJson();

    void OnPlayFormat(int rate, int bits) override;
    void OnPlayEvent(int event) override;
    void OnPlayPacket(unsigned short seq, unsigned int timestamp, const unsigned char* payload,
                      int len) override;

private:
    void _thread_main();
    bool _open(int rate, int bits);
    void _close();
    void _play_once();
    void _recover(long err, const char* what);
    void _error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    char m_device[128];
    PlayClock* m_clock;
    std::thread m_thread;
    std::atomic<bool> m_exit;

    std::mutex m_lock;  // guards everything down to the play thread's own state
    std::condition_variable m_wake;
    PlayScheduler* m_sched;
    int m_rate, m_bits;  // the stream's format, from its SDP
    bool m_active;       // a stream is on: the device should be open
    bool m_draining;     // the stream ended: play what is queued, then close
    std::chrono::steady_clock::time_point m_drainEnd;  // close by then in any case
    unsigned long m_drainTail;                         // frames written with nothing queued
    AlsaOutStats m_stats;

    // Play thread only.
    void* m_pcm;  // snd_pcm_t
    int m_frameBytes;
    std::vector<unsigned char> m_buf;
    int m_failures;           // device errors since the last good write
    bool m_reopenAfterPause;  // closed after repeated errors: wait before opening
};

#endif
