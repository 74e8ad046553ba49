// Shared by the MP3 benchmarks: a monotonic clock in seconds and the long
// test files, made at run time with sox and lame (scripts/setup --fixtures
// installs them) so that no large file is kept in the repository.
#ifndef BENCH_MP3_FILE_H
#define BENCH_MP3_FILE_H

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>

inline double bench_now_s() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Makes /tmp/<stem>.wav: `seconds` of a 440 Hz tone over pink noise, stereo
// 44.1 kHz 16-bit. Returns the path, or "" (with a message) when sox is
// missing.
inline std::string bench_make_wav(const char* stem, int seconds) {
    const std::string wav = std::string("/tmp/") + stem + ".wav";
    char cmd[1024];
    snprintf(cmd, sizeof cmd, "sox -n -r 44100 -b 16 -c 2 '%s' synth %d sine 440 pinknoise gain -8",
             wav.c_str(), seconds);
    if (system(cmd) != 0) {
        fprintf(stderr, "cannot make the test file (sox: scripts/setup --fixtures)\n");
        return "";
    }
    return wav;
}

// Makes /tmp/<stem>.mp3 from that tone, CBR 128 kbit/s, lame given
// lameExtra too. Returns the path, or "" (with a message).
inline std::string bench_make_mp3(const char* stem, int seconds, const char* lameExtra) {
    const std::string wav = bench_make_wav(stem, seconds);
    const std::string mp3 = std::string("/tmp/") + stem + ".mp3";
    if (wav.empty()) return "";
    char cmd[1024];
    snprintf(cmd, sizeof cmd, "lame --quiet -b 128 --cbr %s '%s' '%s'", lameExtra, wav.c_str(),
             mp3.c_str());
    int rc = system(cmd);
    remove(wav.c_str());
    if (rc != 0) {
        fprintf(stderr, "cannot make the test file (lame: scripts/setup --fixtures)\n");
        return "";
    }
    return mp3;
}

#endif
