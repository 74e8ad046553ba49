// WAV files of received PCM: the 44-byte RIFF/WAVE PCM header and a
// streaming writer whose header is completed when it is closed. No threads;
// one writer per file.
#ifndef RXWAV_H
#define RXWAV_H

#include <stdint.h>
#include <stdio.h>

// Fills out[44] with a canonical PCM header.
void rx_wav_header(unsigned char out[44], int rate, int channels, int bits, uint32_t dataBytes);

// Writes a whole file. 0 on success, -1 on failure.
int rx_wav_write(const char* path, int rate, int channels, int bits, const void* data,
                 uint32_t dataBytes);

// Streaming: open writes a provisional header; close rewrites it with the
// final format and size. Null / -1 on failure.
FILE* rx_wav_open(const char* path);
int rx_wav_close(FILE* f, int rate, int channels, int bits, uint32_t dataBytes);

#endif
