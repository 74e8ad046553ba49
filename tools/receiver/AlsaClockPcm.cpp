// A sound card without hardware: the ALSA PCM type "sonvara_clock", built as
// libasound_module_pcm_sonvara_clock.so. It takes 2-channel S16_LE or U8
// frames and consumes them at exactly the configured rate of the boot-time
// clock, as a real card's DMA would, and reports an underrun when it runs
// dry. Put behind ALSA's "file" plugin it makes a speaker whose output is a
// file with real-time pacing, so sonvara-receiver --play can be checked
// (written PCM and its timing) on a machine without a sound card:
//
//   pcm_type.sonvara_clock { lib "/path/to/libasound_module_pcm_sonvara_clock.so" }
//   pcm.!default { type file file "/tmp/speaker.wav" format "wav"
//                  slave.pcm { type sonvara_clock log "/tmp/speaker.starts" } }
//
// With `log`, each start appends "start <boot-time us> <frames consumed
// before>" to that file: frame k of the file then left the "speaker" at
// that time plus (k - frames before) / rate.
//
// Owns one timerfd (the poll descriptor: it ticks once per period while the
// stream runs). Runs on the calling application's threads under ALSA's own
// PCM lock; no threads or locks of its own. Linux only (timerfd).
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

namespace {

struct ClockPcm {
    snd_pcm_ioplug_t io;
    int timerFd;
    bool running;
    long long startUs;                  // boot time of the last start
    snd_pcm_uframes_t startHw;          // hw_ptr at the last start
    unsigned long long consumedBefore;  // frames consumed by the earlier starts
    char log[256];
};

long long boot_us() {
    struct timespec ts;
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return (long long)ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

// Frames consumed since the last start.
snd_pcm_uframes_t played(const ClockPcm* c) {
    return (snd_pcm_uframes_t)((boot_us() - c->startUs) * (long long)c->io.rate / 1000000LL);
}

int clock_start(snd_pcm_ioplug_t* io) {
    ClockPcm* c = static_cast<ClockPcm*>(io->private_data);
    c->startUs = boot_us();
    c->startHw = io->hw_ptr;
    c->running = true;
    long long periodNs = (long long)io->period_size * 1000000000LL / io->rate;
    struct itimerspec t;
    t.it_interval.tv_sec = t.it_value.tv_sec = (time_t)(periodNs / 1000000000LL);
    t.it_interval.tv_nsec = t.it_value.tv_nsec = (long)(periodNs % 1000000000LL);
    timerfd_settime(c->timerFd, 0, &t, nullptr);
    if (c->log[0]) {
        FILE* f = fopen(c->log, "a");
        if (f) {
            fprintf(f, "start %lld %llu\n", c->startUs, c->consumedBefore);
            fclose(f);
        }
    }
    return 0;
}

// The clock stops: counts what was played since the start.
void halt(ClockPcm* c, snd_pcm_ioplug_t* io) {
    if (c->running) {
        // Stopped early (drop): what the clock played; ran dry: all written.
        snd_pcm_uframes_t end = c->startHw + played(c);
        c->consumedBefore += (end < io->appl_ptr ? end : io->appl_ptr) - c->startHw;
    }
    c->running = false;
    struct itimerspec t;
    memset(&t, 0, sizeof(t));
    timerfd_settime(c->timerFd, 0, &t, nullptr);
}

int clock_stop(snd_pcm_ioplug_t* io) {
    halt(static_cast<ClockPcm*>(io->private_data), io);
    return 0;
}

// After an underrun ALSA prepares the stream again without a stop.
int clock_prepare(snd_pcm_ioplug_t* io) {
    halt(static_cast<ClockPcm*>(io->private_data), io);
    return 0;
}

snd_pcm_sframes_t clock_pointer(snd_pcm_ioplug_t* io) {
    ClockPcm* c = static_cast<ClockPcm*>(io->private_data);
    snd_pcm_uframes_t hw = io->hw_ptr;
    if (c->running) {
        hw = c->startHw + played(c);
        if (hw > io->appl_ptr) {
            if (io->state != SND_PCM_STATE_DRAINING) {  // ran dry
                halt(c, io);
                return -EPIPE;
            }
            hw = io->appl_ptr;
        }
    }
    return (snd_pcm_sframes_t)(hw % io->buffer_size);
}

snd_pcm_sframes_t clock_transfer(snd_pcm_ioplug_t*, const snd_pcm_channel_area_t*,
                                 snd_pcm_uframes_t, snd_pcm_uframes_t size) {
    return (snd_pcm_sframes_t)size;  // the frames "leave the speaker" as the clock runs
}

int clock_poll_revents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                       unsigned short* revents) {
    ClockPcm* c = static_cast<ClockPcm*>(io->private_data);
    unsigned long long ticks;
    if (nfds == 1 && (pfd[0].revents & POLLIN)) {
        ssize_t n = read(c->timerFd, &ticks, sizeof(ticks));
        (void)n;
    }
    *revents = (nfds == 1 && (pfd[0].revents & POLLIN)) ? POLLOUT : 0;
    return 0;
}

int clock_close(snd_pcm_ioplug_t* io) {
    ClockPcm* c = static_cast<ClockPcm*>(io->private_data);
    close(c->timerFd);
    free(c);
    return 0;
}

const snd_pcm_ioplug_callback_t kCallbacks = {
    clock_start, clock_stop, clock_pointer, clock_transfer, clock_close,
    nullptr,     nullptr,    nullptr,       clock_prepare,  nullptr,
    nullptr,     nullptr,    nullptr,       nullptr,        clock_poll_revents,
    nullptr,     nullptr,    nullptr,       nullptr,        nullptr,
};

int set_params(snd_pcm_ioplug_t* io) {
    static const unsigned int access[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
    static const unsigned int formats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_U8};
    int err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, access);
    if (err >= 0) err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 2, formats);
    if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 2, 2);
    if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, 8000, 192000);
    if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 64);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64, 1 << 20);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 256, 4 << 20);
    return err;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) SND_PCM_PLUGIN_DEFINE_FUNC(sonvara_clock) {
    (void)root;
    if (stream != SND_PCM_STREAM_PLAYBACK) return -EINVAL;
    ClockPcm* c = static_cast<ClockPcm*>(calloc(1, sizeof(ClockPcm)));
    if (!c) return -ENOMEM;
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf) {
        snd_config_t* n = snd_config_iterator_entry(i);
        const char* id = nullptr;
        const char* text = nullptr;
        if (snd_config_get_id(n, &id) < 0) continue;
        if (strcmp(id, "comment") == 0 || strcmp(id, "type") == 0 || strcmp(id, "hint") == 0)
            continue;
        if (strcmp(id, "log") == 0 && snd_config_get_string(n, &text) >= 0) {
            snprintf(c->log, sizeof(c->log), "%s", text);
            continue;
        }
        SNDERR("sonvara_clock: unknown field %s", id);
        free(c);
        return -EINVAL;
    }
    c->timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (c->timerFd < 0) {
        free(c);
        return -errno;
    }
    c->io.version = SND_PCM_IOPLUG_VERSION;
    c->io.name = "Sonvara clock-paced speaker";
    c->io.poll_fd = c->timerFd;
    c->io.poll_events = POLLIN;
    c->io.callback = &kCallbacks;
    c->io.private_data = c;
    int err = snd_pcm_ioplug_create(&c->io, name, stream, mode);
    if (err < 0) {
        close(c->timerFd);
        free(c);
        return err;
    }
    err = set_params(&c->io);
    if (err < 0) {
        snd_pcm_ioplug_delete(&c->io);
        return err;
    }
    *pcmp = c->io.pcm;
    return 0;
}

__attribute__((visibility("default"))) SND_PCM_PLUGIN_SYMBOL(sonvara_clock)
}
