// libFuzzer target: a WAV file from a phone through the streamer's WAV
// reader: the 36-byte head checks, the extensible chunk walk, reads and the
// time seek, then the info query on the same file.
#include <stdint.h>

#include "AVStreamer.h"
#include "fuzz_support.h"
#include "streamer_probe.h"

static void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = fuzz_write_scratch("fuzz_wavheader", data, size);
    if (path == nullptr) return 0;

    static CAVStreamer* s = new CAVStreamer(no_notify, nullptr, 1);
    const long fd = s->Wav_FileOpen(path);
    if (fd >= 1) {
        char buf[6144];
        s->Wav_FileRead(fd, buf, sizeof buf);
        CAVStreamerProbe::Music(s).SampleRate = CAVStreamerProbe::Content(s).SampleRate;
        CAVStreamerProbe::Music(s).NumChannels = CAVStreamerProbe::Content(s).NumChannels;
        s->wav_seek(fd, size > 0 ? data[0] : 0);
        s->Wav_FileRead(fd, buf, sizeof buf);
        s->Wav_FileClose(fd);
    }
    AV_CONTENT_INFO info = {};
    s->GetWaveInfo(path, &info);
    return 0;
}
