// Helpers for tests on real audio files: loading a fixture, an independent
// MPEG frame splitter (the oracle the parser and decoder are checked
// against), and the check of the fixtures' tones in decoded 16-bit PCM.
#ifndef AUDIO_CHECK_H
#define AUDIO_CHECK_H

#include <stdint.h>

#include <string>
#include <vector>

std::string fixture_path(const char* name);
std::vector<unsigned char> read_whole_file(const std::string& path);

// What scripts/make-fixtures recorded for an MPEG fixture (fixtures.txt):
// the audio frames ffprobe counts (an Info/Xing frame is not counted), the
// sampling rate and the channel count. False when the file is not listed.
bool fixture_facts(const char* name, long* frames, int* rate, int* channels);

// A file in the test's temporary directory, removed when the object goes.
// The name is made unique to the process (the directory is shared); the
// given name stays at its end, extension included.
struct TempFile {
    explicit TempFile(const char* name, const std::vector<unsigned char>& bytes);
    ~TempFile();
    std::string path;
};

struct MpegFrameRef {
    size_t offset;
    size_t size;
};
// Skips leading ID3v2 tags and walks the frames by their headers until the
// first byte that is not a frame start (ID3v1 or the end). MPEG-1 Layers I-III
// and MPEG-2/2.5 Layer III.
std::vector<MpegFrameRef> split_mpeg_frames(const std::vector<unsigned char>& file);

// The MPEG fixtures and what their encoder made: format, samples per frame,
// whether a Xing/Info frame comes first.
struct MpegFixture {
    const char* name;
    int channels;
    int rate;
    unsigned samplesPerFrame;
    bool infoFrame;
};
extern const MpegFixture kMpegFixtures[7];

// Expects the fixtures' sines in interleaved 16-bit PCM: 440 Hz on the first
// channel, 1000 Hz on the second, each at -6 dBFS; 0.1 s at either end (the
// encoder's delay and fade) is left out.
void expect_fixture_tones(const std::vector<int16_t>& pcm, int channels, int rate,
                          const std::string& what);

#endif
