// WAV files of received PCM (see RxWav.h).
#include "RxWav.h"

#include <string.h>

namespace {

void put_le(unsigned char* p, uint32_t v, int n) {
    for (int i = 0; i < n; i++) p[i] = (unsigned char)(v >> (8 * i));
}

}  // namespace

void rx_wav_header(unsigned char out[44], int rate, int channels, int bits, uint32_t dataBytes) {
    uint32_t blockAlign = (uint32_t)(channels * bits / 8);
    memcpy(out, "RIFF", 4);
    put_le(out + 4, 36 + dataBytes, 4);
    memcpy(out + 8, "WAVEfmt ", 8);
    put_le(out + 16, 16, 4);
    put_le(out + 20, 1, 2);  // PCM
    put_le(out + 22, (uint32_t)channels, 2);
    put_le(out + 24, (uint32_t)rate, 4);
    put_le(out + 28, (uint32_t)rate * blockAlign, 4);
    put_le(out + 32, blockAlign, 2);
    put_le(out + 34, (uint32_t)bits, 2);
    memcpy(out + 36, "data", 4);
    put_le(out + 40, dataBytes, 4);
}

int rx_wav_write(const char* path, int rate, int channels, int bits, const void* data,
                 uint32_t dataBytes) {
    FILE* f = rx_wav_open(path);
    if (!f) return -1;
    int ok = dataBytes == 0 || fwrite(data, 1, dataBytes, f) == dataBytes;
    int closed = rx_wav_close(f, rate, channels, bits, dataBytes);
    return ok && closed == 0 ? 0 : -1;
}

FILE* rx_wav_open(const char* path) {
    FILE* f = fopen(path, "wb");
    if (!f) return nullptr;
    unsigned char hdr[44];
    rx_wav_header(hdr, 44100, 2, 16, 0);
    if (fwrite(hdr, 1, sizeof(hdr), f) != sizeof(hdr)) {
        fclose(f);
        return nullptr;
    }
    return f;
}

int rx_wav_close(FILE* f, int rate, int channels, int bits, uint32_t dataBytes) {
    unsigned char hdr[44];
    rx_wav_header(hdr, rate, channels, bits, dataBytes);
    int ok = fseek(f, 0, SEEK_SET) == 0 && fwrite(hdr, 1, sizeof(hdr), f) == sizeof(hdr);
    if (fclose(f) != 0) ok = 0;
    return ok ? 0 : -1;
}
