// Fuzzes the streamer's MP3 reader, and the frame parser and decoder under
// it, as a phone's file reaches them: open (ID3 skipping, resync, Xing
// reading), the header scan of get_mp3_info, reads of one decoded frame
// each, parser seeks by table or bit rate to targets taken from the input,
// the byte seek of mp3_seek, a restart of the walk, and close. (The info
// query GetMp3Info is that open, one read and the close.)
//
// Input: the file's bytes; its last eight bytes also give the seek targets
// (negative ones included), its last two the seconds of the byte seek.
// Every read hands out at most the reader's output area (it goes into a
// buffer exactly that size) and reports 1 or 2 channels and an MPEG sampling
// rate; close releases the parser.
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "AVStreamer.h"
#include "MP3Parser.h"
#include "PAL_File.h"
#include "fuzz_support.h"
#include "streamer_probe.h"

namespace {

void _no_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}

// Up to `frames` reads; each must fit the output area and leave the format
// of what it decoded where the info query takes it from.
void _read_frames(CAVStreamer* st, long fd, int frames) {
    static const uint32_t kRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
    std::unique_ptr<char[]> pcm(new char[AV_MP3_BUF_SIZE]);
    for (long n;
         frames-- > 0 && (n = st->Mp3ToPcm_FileRead(fd, pcm.get(), AV_MP3_BUF_SIZE)) >= 0;) {
        const AV_CONTENT_INFO& info = CAVStreamerProbe::Content(st);
        fuzz_require(n > 0 && n <= AV_MP3_BUF_SIZE &&
                     (info.NumChannels == 1 || info.NumChannels == 2) &&
                     std::count(kRates, kRates + 9, info.SampleRate) == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = fuzz_write_scratch("fuzz_mp3reader", data, size);
    if (path == nullptr) return 0;
    unsigned long long bits = 0;
    for (size_t i = 0; i < 8 && i < size; i++) bits = (bits << 8) | data[size - 1 - i];
    const unsigned int seconds = size >= 2 ? (unsigned)data[size - 2] << 8 | data[size - 1] : 0;

    std::unique_ptr<CAVStreamer> st(new CAVStreamer(_no_notify, nullptr, 1));
    const long fd = st->Mp3ToPcm_FileOpen(path);
    if (fd < 1) return 0;
    MP3Parser* p = CAVStreamerProbe::Parser(st.get());
    st->get_mp3_info(fd);
    _read_frames(st.get(), fd, 16);

    // Seeks as AVStreamerInit and the music source ask for them
    // (microseconds formed in 32 bits), and to anything else.
    const long long target = (long long)bits;
    for (long long t :
         {(long long)(int)(seconds * 1000000u), 0LL, target, target % 600000000LL,
          (long long)(0ULL - bits), (long long)p->mDuration / 2, (long long)p->mDuration + 1}) {
        p->setSeekTo(t);
        _read_frames(st.get(), fd, 4);
    }
    st->mp3_seek(fd, seconds);
    _read_frames(st.get(), fd, 4);
    p->start();
    _read_frames(st.get(), fd, 8);

    st->Mp3ToPcm_FileClose(fd);
    fuzz_require(CAVStreamerProbe::Parser(st.get()) == nullptr);
    return 0;
}
