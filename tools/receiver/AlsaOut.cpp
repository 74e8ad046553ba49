// Plays the received stream on an ALSA device (see AlsaOut.h).
#include "AlsaOut.h"

#include <alsa/asoundlib.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <chrono>

#include "RxSocket.h"
#include "debug_UI.h"

namespace {

// What the device is asked for: 200 ms of buffer in 20 ms periods. The
// packets arrive about a second ahead, so the buffer only has to ride out
// scheduling hiccups (a busy machine); a short one makes pauses quick.
const unsigned int kBufferUs = 200000;
const unsigned int kPeriodUs = 20000;
// With no stream, or after a failed open, the thread sleeps this long at
// most before it looks again (an event wakes it earlier).
const int kIdleMs = 1000;
// A clock/delay reading that took longer than twice this was interrupted.
const long long kReadingUs = 100;
// Errors in a row (no good write between) before the device is reopened.
const int kMaxFailures = 8;
// A stream that ended is played out for at most this long.
const int kDrainMs = 3000;

snd_pcm_t* pcm_of(void* p) {
    return static_cast<snd_pcm_t*>(p);
}

}  // namespace

AlsaOut::AlsaOut(const char* device, PlayClock* clock)
    : m_clock(clock),
      m_exit(false),
      m_sched(new PlayScheduler()),
      m_rate(0),
      m_bits(0),
      m_active(false),
      m_draining(false),
      m_drainTail(0),
      m_pcm(nullptr),
      m_frameBytes(4),
      m_failures(0),
      m_reopenAfterPause(false) {
    rx_copy_text(m_device, sizeof(m_device), device && device[0] ? device : "default");
    memset(&m_stats, 0, sizeof(m_stats));
}

AlsaOut::~AlsaOut() {
    Stop();
    delete m_sched;
}

int AlsaOut::Start() {
    if (m_thread.joinable()) return 0;
    m_exit = false;
    m_thread = std::thread(&AlsaOut::_thread_main, this);
    return m_thread.joinable() ? 0 : -1;
}

void AlsaOut::Stop() {
    {
        std::lock_guard<std::mutex> g(m_lock);
        m_exit = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

void AlsaOut::_error(const char* fmt, ...) {
    char text[128];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    debug_UI("[play] %s", text);
    std::lock_guard<std::mutex> g(m_lock);
    rx_copy_text(m_stats.lastError, sizeof(m_stats.lastError), text);
}

void AlsaOut::OnPlayFormat(int rate, int bits) {
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (rate != m_rate || bits != m_bits) {
            m_rate = rate;
            m_bits = bits;
            PlaySchedulerConfig cfg;
            PlaySchedulerDefaults(&cfg, rate, bits == 8 ? 2 : 4);
            m_sched->Configure(cfg);
        }
        m_active = true;
        m_draining = false;
    }
    m_wake.notify_all();
}

void AlsaOut::OnPlayEvent(int event) {
    {
        std::lock_guard<std::mutex> g(m_lock);
        switch (event) {
            case RX_PLAY_NEW_STREAM:
                m_sched->Reset();
                m_draining = false;
                break;
            case RX_PLAY_SEEK:
                m_sched->Flush(true);
                break;
            case RX_PLAY_PAUSE:
                m_sched->Flush(false);
                break;
            case RX_PLAY_STOP:  // what was sent is still played
                if (m_active && !m_draining) {
                    m_draining = true;
                    m_drainTail = 0;
                    m_drainEnd =
                        std::chrono::steady_clock::now() + std::chrono::milliseconds(kDrainMs);
                }
                break;
            default:  // RESUME: the packets say when to play again
                break;
        }
    }
    m_wake.notify_all();
}

void AlsaOut::OnPlayPacket(unsigned short seq, unsigned int timestamp, const unsigned char* payload,
                           int len) {
    std::lock_guard<std::mutex> g(m_lock);
    if (m_active) m_sched->Push(seq, timestamp, payload, len > 0 ? (size_t)len : 0);
}

AlsaOutStats AlsaOut::Stats() {
    std::lock_guard<std::mutex> g(m_lock);
    AlsaOutStats s = m_stats;
    s.play = m_sched->Stats();
    return s;
}

std::string AlsaOut::StatsJson() {
    AlsaOutStats s = Stats();
    char text[768];
    snprintf(text, sizeof(text),
             "\"play_frames\":%llu,\"play_audio_frames\":%llu,\"play_silent_frames\":%llu,"
             "\"play_inserted\":%u,\"play_dropped\":%u,\"play_resyncs\":%u,"
             "\"play_resync_frames\":%llu,\"play_starts\":%u,\"play_start_master_us\":%lld,"
             "\"play_late_packets\":%u,\"play_overflow_packets\":%u,\"play_error_us\":%.1f,"
             "\"play_opens\":%u,\"play_underruns\":%u,\"play_stalls\":%u,"
             "\"play_device_errors\":%u,\"play_buffer_frames\":%lu,\"play_period_frames\":%lu",
             s.play.framesOut, s.play.audioFrames, s.play.silentFrames, s.play.inserted,
             s.play.dropped, s.play.resyncs, s.play.resyncFrames, s.play.starts,
             s.play.startMasterUs, s.play.latePackets, s.play.overflowPackets, s.play.lastErrorUs,
             s.opens, s.underruns, s.stalls, s.deviceErrors, s.bufferFrames, s.periodFrames);
    return text;
}

bool AlsaOut::_open(int rate, int bits) {
    snd_pcm_t* pcm = nullptr;
    int err = snd_pcm_open(&pcm, m_device, SND_PCM_STREAM_PLAYBACK, 0);
    if (err < 0) {
        _error("cannot open ALSA device %s: %s", m_device, snd_strerror(err));
        return false;
    }
    snd_pcm_hw_params_t* hw;
    snd_pcm_hw_params_alloca(&hw);
    unsigned int bufferUs = kBufferUs, periodUs = kPeriodUs;
    snd_pcm_uframes_t buffer = 0, period = 0;
    const char* step = "the hardware parameters";
    bool ok = snd_pcm_hw_params_any(pcm, hw) >= 0 &&
              snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0 &&
              snd_pcm_hw_params_set_format(
                  pcm, hw, bits == 8 ? SND_PCM_FORMAT_U8 : SND_PCM_FORMAT_S16_LE) >= 0 &&
              snd_pcm_hw_params_set_channels(pcm, hw, 2) >= 0 &&
              snd_pcm_hw_params_set_rate_resample(pcm, hw, 1) >= 0 &&
              snd_pcm_hw_params_set_rate(pcm, hw, (unsigned int)rate, 0) >= 0 &&
              snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &bufferUs, nullptr) >= 0 &&
              snd_pcm_hw_params_set_period_time_near(pcm, hw, &periodUs, nullptr) >= 0 &&
              snd_pcm_hw_params(pcm, hw) >= 0 &&
              snd_pcm_hw_params_get_buffer_size(hw, &buffer) >= 0 &&
              snd_pcm_hw_params_get_period_size(hw, &period, nullptr) >= 0 && period > 0;
    if (ok) {
        // Start on the first write: the delay read before it is then the
        // time to the speaker of what it writes.
        step = "the software parameters";
        snd_pcm_sw_params_t* sw;
        snd_pcm_sw_params_alloca(&sw);
        ok = snd_pcm_sw_params_current(pcm, sw) >= 0 &&
             snd_pcm_sw_params_set_start_threshold(pcm, sw, 1) >= 0 &&
             snd_pcm_sw_params_set_avail_min(pcm, sw, period) >= 0 &&
             snd_pcm_sw_params(pcm, sw) >= 0 && snd_pcm_prepare(pcm) >= 0;
    }
    if (!ok) {
        _error("ALSA device %s refuses %s (2 channels, %d-bit, %d Hz)", m_device, step, bits, rate);
        snd_pcm_close(pcm);
        return false;
    }
    m_pcm = pcm;
    m_failures = 0;
    m_frameBytes = bits == 8 ? 2 : 4;
    m_buf.assign((size_t)buffer * (size_t)m_frameBytes, 0);
    debug_UI("[play] %s open: %d Hz, %d-bit, buffer %lu, period %lu frames", m_device, rate, bits,
             (unsigned long)buffer, (unsigned long)period);
    std::lock_guard<std::mutex> g(m_lock);
    m_stats.opens++;
    m_stats.rate = rate;
    m_stats.bits = bits;
    m_stats.bufferFrames = buffer;
    m_stats.periodFrames = period;
    return true;
}

void AlsaOut::_close() {
    if (!m_pcm) return;
    snd_pcm_drop(pcm_of(m_pcm));
    snd_pcm_close(pcm_of(m_pcm));
    m_pcm = nullptr;
    debug_UI("[play] %s closed", m_device);
    std::lock_guard<std::mutex> g(m_lock);
    m_stats.rate = m_stats.bits = 0;
}

void AlsaOut::_recover(long err, const char* what) {
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (err == -EPIPE) {
            m_stats.underruns++;
        } else {
            m_stats.deviceErrors++;
        }
    }
    // The scheduler sees the lost time in the next delay reading and skips
    // to the frame that is due then. A device that fails again and again
    // without a single good write is closed and opened again a while later.
    if (err != -EPIPE) _error("%s on %s: %s", what, m_device, snd_strerror((int)err));
    int r = ++m_failures >= kMaxFailures ? -1 : snd_pcm_recover(pcm_of(m_pcm), (int)err, 1);
    if (r < 0) {
        _error("%s keeps failing (%s): closed, opened again in %d ms", m_device, what, kIdleMs);
        _close();
        m_reopenAfterPause = true;
    }
}

void AlsaOut::_play_once() {
    snd_pcm_t* pcm = pcm_of(m_pcm);
    unsigned long period, buffer;
    int rate;
    {
        std::lock_guard<std::mutex> g(m_lock);
        period = m_stats.periodFrames;
        buffer = m_stats.bufferFrames;
        rate = m_stats.rate;
    }
    snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm);
    if (avail < 0) {
        _recover(avail, "avail");
        return;
    }
    if ((unsigned long)avail < period) {
        // Sleeps until a period is free. A device that frees nothing for a
        // whole buffer plus 200 ms is stuck: it is restarted.
        int boundMs = (int)(buffer * 1000 / (unsigned long)rate) + 200;
        int r = snd_pcm_wait(pcm, boundMs);
        if (r == 0) {
            {
                std::lock_guard<std::mutex> g(m_lock);
                m_stats.stalls++;
            }
            _error("%s took nothing for %d ms: restarted", m_device, boundMs);
            snd_pcm_drop(pcm);
            snd_pcm_prepare(pcm);
        } else if (r < 0) {
            _recover(r, "wait");
        }
        return;
    }
    unsigned long frames = (unsigned long)avail;
    if (frames > buffer) frames = buffer;
    frames -= frames % period;
    // The delay and the clock are read together: a reading this thread was
    // preempted in the middle of is taken again (three tries, then the last).
    snd_pcm_sframes_t delay = 0;
    long long master = 0, after = 0;
    bool have = false;
    for (int attempt = 0; attempt < 3; attempt++) {
        have = m_clock && m_clock->MasterNowUs(&master);
        int err = snd_pcm_delay(pcm, &delay);
        if (err < 0) {
            _recover(err, "delay");
            return;
        }
        if (!have || !m_clock->MasterNowUs(&after)) break;
        master += (after - master) / 2;
        if (after - master < kReadingUs) break;
    }
    {
        std::lock_guard<std::mutex> g(m_lock);
        if (have) {
            m_sched->Fill(master, (long)delay, m_buf.data(), (int)frames);
        } else {
            memset(m_buf.data(), 0, frames * (unsigned long)m_frameBytes);  // no clock yet
        }
        // An ended stream: once nothing is queued, one more buffer of
        // silence lets the last audio leave the speaker before the close.
        if (m_draining) {
            bool more = m_sched->Pending() && std::chrono::steady_clock::now() < m_drainEnd;
            m_drainTail = more ? 0 : m_drainTail + frames;
            if (m_drainTail >= buffer) {
                m_draining = false;
                m_active = false;
                m_sched->Reset();
            }
        }
    }
    snd_pcm_sframes_t w = snd_pcm_writei(pcm, m_buf.data(), frames);
    if (w < 0) {
        _recover(w, "write");
    } else {
        m_failures = 0;
    }
}

void AlsaOut::_thread_main() {
    while (!m_exit) {
        int rate, bits;
        bool active;
        {
            std::unique_lock<std::mutex> g(m_lock);
            if (!m_active && !m_pcm) {
                m_wake.wait_for(g, std::chrono::milliseconds(kIdleMs),
                                [&] { return m_exit || m_active; });
            }
            // A stream that ended while the device could not play it.
            if (m_draining && std::chrono::steady_clock::now() >
                                  m_drainEnd + std::chrono::milliseconds(kIdleMs)) {
                m_draining = false;
                m_active = false;
                m_sched->Reset();
            }
            rate = m_rate;
            bits = m_bits;
            active = m_active && !m_exit;
        }
        if (!active) {
            _close();
            continue;
        }
        if (m_pcm && (m_stats.rate != rate || m_stats.bits != bits)) _close();
        bool pause = m_reopenAfterPause;
        m_reopenAfterPause = false;
        if (!m_pcm && (pause || !_open(rate, bits))) {
            // Tried again after a pause, or at once when the stream changes.
            std::unique_lock<std::mutex> g(m_lock);
            m_wake.wait_for(g, std::chrono::milliseconds(kIdleMs), [&] {
                return m_exit || !m_active || m_rate != rate || m_bits != bits;
            });
            continue;
        }
        _play_once();
    }
    _close();
}
