// MP3 decode speed through MP3Decoder, frame by frame, beside the mpg123
// player's own decode (`mpg123 -t`) of the same file in the same run.
// Makes a 5-minute 128 kbit/s stereo MP3 in /tmp (bench_mp3_file.h).
//   bench_mp3dec [seconds]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "bench_mp3_file.h"

namespace {

bool load(const std::string& path, std::vector<unsigned char>* out) {
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    unsigned char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    fclose(f);
    return true;
}

double best_of_3(const std::string& cmd) {
    double best = 1e9;
    for (int i = 0; i < 3; i++) {
        const double t0 = bench_now_s();
        if (system(cmd.c_str()) != 0) return -1;
        const double t = bench_now_s() - t0;
        if (t < best) best = t;
    }
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 300;
    const std::string mp3 = bench_make_mp3("bench_mp3dec", seconds, "");
    if (mp3.empty()) return 1;
    std::vector<unsigned char> file;
    if (!load(mp3, &file)) return 1;
    // Frame starts, by the parser's own header decoding.
    std::vector<size_t> starts, sizes;
    for (size_t pos = 0; pos + 4 <= file.size();) {
        unsigned long size = 0;
        const unsigned long h = (unsigned long)file[pos] << 24 | file[pos + 1] << 16 |
                                file[pos + 2] << 8 | file[pos + 3];
        if (!get_mp3_frame_size(h, &size, nullptr, nullptr, nullptr) || pos + size > file.size())
            break;
        starts.push_back(pos);
        sizes.push_back(size);
        pos += size;
    }

    std::vector<unsigned char> pcm(12288);
    double best = 1e9;
    unsigned long long samples = 0;
    for (int round = 0; round < 3; round++) {
        MP3Decoder dec;
        if (!dec.MP3Dec_Create()) return 1;
        samples = 0;
        const double t0 = bench_now_s();
        for (size_t i = 0; i < starts.size(); i++) {
            MP3DEC_DATA d = {&file[starts[i]], (unsigned)sizes[i],   0,
                             pcm.data(),       (unsigned)pcm.size(), 0};
            if (!dec.MP3Dec_Decode(&d)) return 1;
            samples += d.dstUsed / 4;
        }
        const double t = bench_now_s() - t0;
        if (t < best) best = t;
    }
    const double audio = samples / 44100.0;
    const double ref = best_of_3("mpg123 -q -t '" + mp3 + "'");
    printf("file: %s, %zu frames, %.1f s of audio\n", mp3.c_str(), starts.size(), audio);
    printf("MP3Decoder frame by frame: %.3f s, %.0fx real time\n", best, audio / best);
    if (ref > 0) {
        printf("mpg123 -t:                 %.3f s, %.0fx real time\n", ref, audio / ref);
        printf("ratio MP3Decoder / mpg123: %.2f (target <= 1.30)\n", best / ref);
    }
    remove(mp3.c_str());
    return 0;
}
