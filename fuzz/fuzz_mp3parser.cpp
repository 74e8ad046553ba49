// libFuzzer target: an MP3 file from a phone, as hostile as it gets, through
// the frame parser: construction (ID3 skipping, resync, Xing reading), a
// frame walk, and seeks by table or bit rate to targets taken from the input.
// Every frame handed out goes through the decoder, as the MP3 reader does.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "MP3Decoder.h"
#include "MP3Parser.h"
#include "MediaBuffer.h"
#include "PAL_File.h"
#include "fuzz_support.h"

namespace {

MP3Decoder* decoder() {
    static MP3Decoder* dec = nullptr;
    if (dec == nullptr) {
        dec = new MP3Decoder();
        if (!dec->MP3Dec_Create()) __builtin_trap();
    }
    return dec;
}

void walk(MP3Parser& p, int max_frames) {
    static unsigned char pcm[12288];
    MediaBuffer* buf = nullptr;
    for (int i = 0; i < max_frames && p.read(&buf) == 0; i++) {
        if (buf->range_length() > buf->size()) __builtin_trap();
        if (p.mOptions & 1u) decoder()->MP3Dec_Reset();
        p.clearSeekTo();
        MP3DEC_DATA d = {static_cast<unsigned char*>(buf->data()),
                         (unsigned)buf->range_length(),
                         0,
                         pcm,
                         sizeof pcm,
                         0};
        decoder()->MP3Dec_Decode(&d);
        if (d.dstUsed > sizeof pcm) __builtin_trap();
    }
    p.clearSeekTo();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = fuzz_write_scratch("fuzz_mp3parser", data, size);
    if (path == nullptr) return 0;
    const long fd = PAL_FileOpen(path, FOPEN_READ, 0);
    if (fd < 1) return 0;

    decoder()->MP3Dec_Reset();
    MP3Parser* p = new MP3Parser(fd);
    int channels = 0, rate = 0;
    p->GetFileInfo(&channels, &rate);
    walk(*p, 64);
    // Seek targets from the last bytes of the input, negative ones included.
    unsigned long long bits = 0;
    for (size_t i = 0; i < 8 && i < size; i++) bits = (bits << 8) | data[size - 1 - i];
    const long long target = (long long)bits, negated = (long long)(0ULL - bits);
    const long long targets[] = {0,       target,           target % 600000000LL,
                                 negated, p->mDuration / 2, p->mDuration + 1};
    for (long long t : targets) {
        p->setSeekTo(t);
        walk(*p, 8);
    }
    p->start();
    walk(*p, 16);
    delete p;

    long bytes = 0;
    long long duration = 0;
    char toc[MP3_TOC_ENTRIES];
    parse_xing_header(fd, 0, &bytes, toc, &duration);
    PAL_FileClose(fd);
    return 0;
}
