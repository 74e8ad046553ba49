// See audio_check.h.
#include "audio_check.h"

#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "ContentProbe.h"

std::string fixture_path(const char* name) {
    return std::string(SONVARA_FIXTURES_DIR "/") + name;
}

std::vector<unsigned char> read_whole_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

bool fixture_facts(const char* name, long* frames, int* rate, int* channels) {
    std::ifstream in(fixture_path("fixtures.txt"));
    for (std::string listed; in >> listed >> *frames >> *rate >> *channels;) {
        if (listed == name) return true;
    }
    return false;
}

TempFile::TempFile(const char* name, const std::vector<unsigned char>& bytes)
    : path(testing::TempDir() + "sonvara_" + std::to_string(getpid()) + "_" + name) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return;
    if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
}

TempFile::~TempFile() {
    remove(path.c_str());
}

std::vector<MpegFrameRef> split_mpeg_frames(const std::vector<unsigned char>& file) {
    std::vector<MpegFrameRef> frames;
    size_t pos = 0;
    while (pos + 10 <= file.size() && file[pos] == 'I' && file[pos + 1] == 'D' &&
           file[pos + 2] == '3') {
        pos += 10 + ((file[pos + 6] & 0x7F) << 21 | (file[pos + 7] & 0x7F) << 14 |
                     (file[pos + 8] & 0x7F) << 7 | (file[pos + 9] & 0x7F));
    }
    while (pos + 4 <= file.size()) {
        MpegFrame f;
        const size_t n = ProbeMpegBytes(&file[pos], &f) ? f.frameSize : 0;
        if (n == 0 || pos + n > file.size()) break;
        frames.push_back({pos, n});
        pos += n;
    }
    return frames;
}

const MpegFixture kMpegFixtures[7] = {
    {"sine_cbr128_id3.mp3", 2, 44100, 1152, false}, {"sine_cbr128_info.mp3", 2, 44100, 1152, true},
    {"sine_mono_44k.mp3", 1, 44100, 1152, true},    {"sine_mono_22k.mp3", 1, 22050, 576, false},
    {"sine_stereo_11k.mp3", 2, 11025, 576, true},   {"sine_vbr_xing.mp3", 2, 44100, 1152, true},
    {"sine_layer2.mp2", 2, 44100, 1152, false},
};

// Each channel's frequency, from the spacing of its rising zero crossings,
// and its level (the sines' peak is 0.5 of full scale).
void expect_fixture_tones(const std::vector<int16_t>& pcm, int channels, int rate,
                          const std::string& what) {
    const double kFreqs[2] = {440.0, 1000.0}, kRms = 0.5 * 32767.0 / 1.4142135623730951;
    const size_t perChannel = pcm.size() / channels, skip = rate / 10;
    ASSERT_GT(perChannel, 3 * skip) << what;
    for (int ch = 0; ch < channels; ch++) {
        double sum2 = 0, first = -1, last = -1;
        long crossings = 0;
        for (size_t i = skip; i < perChannel - skip; i++) {
            const double v = pcm[i * channels + ch], p = pcm[(i - 1) * channels + ch];
            sum2 += v * v;
            if (p < 0 && v >= 0) {
                last = (i - 1) + (-p) / (v - p);
                if (first < 0) first = last;
                crossings++;
            }
        }
        const double frequency =
            (crossings > 1 && last > first) ? (crossings - 1) * rate / (last - first) : 0;
        EXPECT_NEAR(frequency, kFreqs[ch], kFreqs[ch] * 0.005) << what << " channel " << ch;
        EXPECT_NEAR(sqrt(sum2 / (perChannel - 2 * skip)), kRms, kRms * 0.08)
            << what << " channel " << ch;
    }
}
