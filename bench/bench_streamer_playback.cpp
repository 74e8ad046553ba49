// Streamer playback timings and cost, with receiver emulators as peers.
//   scripts/netns-run build/bench/bench_streamer_playback [RUNS] [SECONDS]
// Part 1 (RUNS, default 20): time from AVStreamerOpen (search included) to
// the first RTP packet at each of 3 receivers, and from AVStreamerSeek to the
// first packet of the new position; median and max.
// Part 2 (SECONDS of a 5-minute 128 kbit/s MP3, default 300): CPU of the
// streamer's own threads (decode included) per second of audio to 1, 10 and
// 30 receivers, and its ratio to a bare sendto loop with the same pacing to
// the same receivers (the floor). The MP3 is made with sox and lame.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AVStreamer.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"
#include "bench_start.h"
#include "position_wav.h"
#include "streamer_probe.h"

namespace {

const unsigned short kTcp = 31554, kRtp = 35000, kGroupPort = 21234;

void nop_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

double now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

std::vector<std::unique_ptr<ReceiverEmulator>> start_receivers(int n) {
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
    for (int i = 0; i < n; i++) {
        ReceiverConfig cfg;
        std::string ip = "127.0.0." + std::to_string(2 + i);
        ReceiverConfigDefaults(&cfg, ip.c_str());
        cfg.discoveryPort = kGroupPort;
        cfg.timeSync = false;
        cfg.pcmLimitBytes = 8 << 20;
        rx.emplace_back(new ReceiverEmulator(cfg));
        rx.back()->Start();
    }
    return rx;
}

void fill(AV_RECEIVER_INFO* ri, AV_MUSIC_INFO* mi, int n, const char* path, const char* mime) {
    memset(ri, 0, sizeof(*ri));
    for (int i = 0; i < n; i++) {
        AV_RECEIVER& r = ri->AVReceiver[i];
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.0.%d", 2 + i);
        r.ChannelType = AV_CHANNEL_PARTY;
        r.bActive = 1;
    }
    ri->nAVReceiverCnt = (char)n;
    memset(mi, 0, sizeof(*mi));
    snprintf(mi->pMusicURI, sizeof(mi->pMusicURI), "%s", path);
    snprintf(mi->pMime, sizeof(mi->pMime), "%s", mime);
    mi->NumChannels = 2;
    mi->SampleRate = 44100;
}

// A 16-bit stereo WAV whose left channel counts frames (low 16 bits).
std::string position_wav(int seconds) {
    std::string path = "/tmp/bench_streamer_pos_" + std::to_string(getpid()) + ".wav";
    if (!position_wav_write(path, seconds)) path.clear();
    return path;
}

void report(const char* what, std::vector<double> v) {
    std::sort(v.begin(), v.end());
    printf("%-44s median %7.1f ms   max %7.1f ms   (%zu)\n", what, v[v.size() / 2], v.back(),
           v.size());
}

// The newest whole packet a receiver holds starts at frame target.
bool holds_frame(ReceiverEmulator* r, uint32_t target, size_t from) {
    std::vector<unsigned char> pcm = r->Pcm();
    for (size_t at = from; at + 4 <= pcm.size(); at += 1400) {
        uint16_t lr[2];
        memcpy(lr, pcm.data() + at, 4);
        if ((((uint32_t)lr[1] << 16) | lr[0]) == target) return true;
    }
    return false;
}

void part_timings(int runs) {
    std::string wav = position_wav(10);
    auto rx = start_receivers(3);
    std::vector<double> first, seek;
    for (int run = 0; run < runs; run++) {
        AV_RECEIVER_INFO ri;
        AV_MUSIC_INFO mi;
        fill(&ri, &mi, 3, wav.c_str(), "audio/x-wav");
        CAVStreamer st(nop_notify, nullptr, 1);
        std::vector<unsigned int> base(3);
        for (int i = 0; i < 3; i++) base[i] = rx[i]->Report().packets;
        if (st.AVStreamerInit(&ri, &mi, 0) != 0) return;
        double t0 = now_ms();
        if (st.AVStreamerOpen(kTcp, kRtp, "224.1.2.4:21234", 9, 0) != 0) return;
        std::vector<std::thread> waits;
        std::vector<double> got(3, -1);
        for (int i = 0; i < 3; i++)
            waits.emplace_back([&, i] {
                if (rx[i]->WaitForPackets(base[i] + 1, 10000)) got[i] = now_ms() - t0;
            });
        st.ReceiverSearch(&ri);
        for (auto& w : waits) w.join();
        for (double g : got)
            if (g >= 0) first.push_back(g);
        rx[0]->WaitForPackets(base[0] + 60, 5000);
        size_t from = rx[0]->Pcm().size();
        double t1 = now_ms();
        st.AVStreamerSeek(5);
        while (!holds_frame(rx[0].get(), 5 * 44100, from) && now_ms() - t1 < 5000)
            PAL_ThreadSleep(2);
        seek.push_back(now_ms() - t1);
        st.AVStreamerClose();
        for (auto& r : rx) r->WaitForDisconnect(3000);
    }
    unlink(wav.c_str());
    report("AVStreamerOpen -> first packet (3 receivers)", first);
    report("AVStreamerSeek -> first packet of new place", seek);
}

// CPU seconds of the listed threads of this process.
double tasks_cpu(const std::set<int>& tids) {
    double total = 0;
    long tick = sysconf(_SC_CLK_TCK);
    for (int tid : tids) {
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/task/%d/stat", tid);
        FILE* f = fopen(path, "r");
        if (!f) continue;
        char buf[1024];
        size_t n = fread(buf, 1, sizeof(buf) - 1, f);
        fclose(f);
        buf[n] = 0;
        const char* p = strrchr(buf, ')');
        unsigned long ut = 0, stt = 0;
        if (p &&
            sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &stt) == 2)
            total += (double)(ut + stt) / tick;
    }
    return total;
}

std::set<int> tasks() {
    std::set<int> out;
    DIR* d = opendir("/proc/self/task");
    for (struct dirent* e; (e = readdir(d)) != nullptr;)
        if (e->d_name[0] != '.') out.insert(atoi(e->d_name));
    closedir(d);
    return out;
}

// The bare loop in its own thread: pacing rule and sendto, nothing else.
double floor_cpu(const std::vector<std::unique_ptr<ReceiverEmulator>>& rx, double seconds,
                 double* audioS) {
    double cpu = 0;
    std::thread t([&] {
        std::vector<int> socks;
        std::vector<struct sockaddr_in> to(rx.size());
        for (size_t i = 0; i < rx.size(); i++) {
            socks.push_back(socket(AF_INET, SOCK_DGRAM, 0));
            rx_sockaddr(rx[i]->Config().address, rx[i]->RtpPort(), &to[i]);
        }
        unsigned char pkt[1412] = {0x80, 0xE0};
        struct timespec c0, c1;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
        unsigned int start = PAL_GetClock();
        unsigned long long sent = 0;
        while (PAL_GetClock() - start < seconds * 1000) {
            if (PAL_GetClock() - start >= sent * 1000 / 176400) {
                for (size_t i = 0; i < socks.size(); i++)
                    sendto(socks[i], pkt, sizeof(pkt), 0, (struct sockaddr*)&to[i], sizeof(to[i]));
                sent += 1400;
            }
            PAL_ThreadSleep(2);
        }
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
        cpu = (c1.tv_sec - c0.tv_sec) + (c1.tv_nsec - c0.tv_nsec) / 1e9;
        for (int s : socks) close(s);
        *audioS = sent / 176400.0;
    });
    t.join();
    return cpu;
}

void part_cpu(double seconds) {
    std::string wav = "/tmp/bench_streamer_5min_" + std::to_string(getpid()) + ".wav";
    std::string mp3 = "/tmp/bench_streamer_5min_" + std::to_string(getpid()) + ".mp3";
    std::string cmd = "sox -n -r 44100 -b 16 -c 2 " + wav +
                      " synth 300 sine 440 sine 1000 gain -6 && lame --quiet --cbr -b 128 " + wav +
                      " " + mp3;
    if (system(cmd.c_str()) != 0) {
        printf("part 2 skipped: sox and lame are needed to make the MP3\n");
        return;
    }
    unlink(wav.c_str());
    printf("receivers  sender ms/s-audio (decode incl.)  floor ms/s-audio  ratio\n");
    for (int n : {1, 10, 30}) {
        auto rx = start_receivers(n);
        std::set<int> before = tasks();
        AV_RECEIVER_INFO ri;
        AV_MUSIC_INFO mi;
        fill(&ri, &mi, n, mp3.c_str(), "audio/mpeg");
        CAVStreamer st(nop_notify, nullptr, 1);
        if (st.AVStreamerInit(&ri, &mi, 0) != 0 ||
            st.AVStreamerOpen(kTcp, kRtp, "224.1.2.4:21234", 9, 0) != 0)
            return;
        st.ReceiverSearch(&ri);
        for (auto& r : rx) r->WaitForPackets(100, 10000);
        std::set<int> mine;
        for (int tid : tasks())
            if (!before.count(tid)) mine.insert(tid);
        double c0 = tasks_cpu(mine);
        uint32_t sz0 = CAVStreamerProbe::SentBytes(&st);
        PAL_ThreadSleep((unsigned int)(seconds * 1000));
        double c1 = tasks_cpu(mine);
        uint32_t sz1 = CAVStreamerProbe::SentBytes(&st);
        double audio = (sz1 - sz0) / 176400.0;
        st.AVStreamerClose();
        double floorAudio = 0;
        double floor = floor_cpu(rx, seconds, &floorAudio);
        double senderMs = (c1 - c0) * 1000 / audio, floorMs = floor * 1000 / floorAudio;
        printf("%9d  %32.2f  %16.2f  %5.2f\n", n, senderMs, floorMs, senderMs / floorMs);
        fflush(stdout);
        for (auto& r : rx) r->Stop();
    }
    unlink(mp3.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (!bench_start(argv[0])) return 2;
    int runs = argc > 1 ? atoi(argv[1]) : 20;
    double seconds = argc > 2 ? atof(argv[2]) : 300;
    part_timings(runs);
    part_cpu(seconds);
    return 0;
}
