// libFuzzer target: a WAV file from a phone through the streamer's WAV
// reader: the 36-byte head checks, the extensible chunk walk, reads and the
// time seek, then the info query on the same file.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "AVStreamer.h"

namespace {

void no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

const char* scratch_path() {
    static char path[64];
    if (path[0] == 0) snprintf(path, sizeof path, "/tmp/fuzz_wavheader_%d.wav", (int)getpid());
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SONVARA_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* f = fopen(scratch_path(), "wb");
    if (f == nullptr) return 0;
    if (size > 0) fwrite(data, 1, size, f);
    fclose(f);

    static CAVStreamer* s = new CAVStreamer(no_notify, nullptr, 1);
    const long fd = s->Wav_FileOpen(scratch_path());
    if (fd >= 1) {
        char buf[6144];
        s->Wav_FileRead(fd, buf, sizeof buf);
        s->m_AVMusicInfo.SampleRate = s->m_ContentInfo.SampleRate;
        s->m_AVMusicInfo.NumChannels = s->m_ContentInfo.NumChannels;
        s->wav_seek(fd, size > 0 ? data[0] : 0);
        s->Wav_FileRead(fd, buf, sizeof buf);
        s->Wav_FileClose(fd);
    }
    AV_CONTENT_INFO info = {0, 0};
    s->GetWaveInfo(scratch_path(), &info);
    return 0;
}
