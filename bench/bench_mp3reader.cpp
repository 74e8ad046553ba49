// The streamer's MP3 reader end to end: a 5-minute 128 kbit/s MP3 parsed and
// decoded frame by frame through Mp3ToPcm_FileRead. Reports the real-time
// factor, the ratio to `mpg123 -t` on the same file in the same run, and the
// read system calls per frame (from /proc/self/io).
//   bench_mp3reader [seconds]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "AVStreamer.h"
#include "bench_mp3_file.h"

namespace {

// Read system calls this process has made so far; -1 where unknown.
long long read_syscalls() {
    FILE* f = fopen("/proc/self/io", "r");
    if (f == nullptr) return -1;
    char line[128];
    long long n = -1;
    while (fgets(line, sizeof line, f) != nullptr) {
        if (sscanf(line, "syscr: %lld", &n) == 1) break;
    }
    fclose(f);
    return n;
}

void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 300;
    const std::string mp3 = bench_make_mp3("bench_mp3reader", seconds, "--add-id3v2 --tt Bench");
    if (mp3.empty()) return 1;
    CAVStreamer s(no_notify, nullptr, 1);
    std::vector<char> out(AV_MP3_BUF_SIZE);
    double best = 1e9;
    long frames = 0;
    unsigned long long bytes = 0;
    long long calls = -1;
    for (int round = 0; round < 3; round++) {
        const long fd = s.Mp3ToPcm_FileOpen(mp3.c_str());
        if (fd < 1) return 1;
        frames = 0;
        bytes = 0;
        const long long c0 = read_syscalls();
        const double t0 = bench_now_s();
        long n;
        while ((n = s.Mp3ToPcm_FileRead(fd, out.data(), out.size())) > 0) {
            frames++;
            bytes += n;
        }
        const double t = bench_now_s() - t0;
        const long long c1 = read_syscalls();
        if (c0 >= 0 && c1 >= 0) calls = c1 - c0;
        s.Mp3ToPcm_FileClose(fd);
        if (t < best) best = t;
    }
    double ref = 1e9;
    for (int i = 0; i < 3; i++) {
        const double t0 = bench_now_s();
        if (system(("mpg123 -q -t '" + mp3 + "'").c_str()) != 0) ref = -1;
        const double t = bench_now_s() - t0;
        if (ref > 0 && t < ref) ref = t;
    }
    const double audio = bytes / 4.0 / 44100.0;
    printf("file: %s, %ld frames, %.1f s of audio\n", mp3.c_str(), frames, audio);
    printf("Mp3ToPcm_FileRead: %.3f s, %.0fx real time\n", best, audio / best);
    if (ref > 0) {
        printf("mpg123 -t:         %.3f s, %.0fx real time\n", ref, audio / ref);
        printf("ratio reader / mpg123: %.2f (target <= 1.30)\n", best / ref);
    }
    if (calls >= 0)
        printf("read system calls per frame: %.2f (target <= 2)\n", (double)calls / frames);
    remove(mp3.c_str());
    return 0;
}
