// A 16-bit stereo 44.1 kHz WAV whose frames tell their position: left is the
// frame index (low 16 bits), right its high bits. Tests and benchmarks use it
// to see which part of the content a receiver got, after seeks and joins.
#ifndef POSITION_WAV_H
#define POSITION_WAV_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

// Writes `seconds` of position audio to path; false when it cannot.
inline bool position_wav_write(const std::string& path, int seconds) {
    uint32_t frames = 44100u * (uint32_t)seconds, data = frames * 4, riff = 36 + data;
    unsigned char head[44] = {'R', 'I', 'F',  'F',  0,   0,   0,    0,    'W', 'A', 'V',
                              'E', 'f', 'm',  't',  ' ', 16,  0,    0,    0,   1,   0,
                              2,   0,   0x44, 0xAC, 0,   0,   0x10, 0xB1, 2,   0,   4,
                              0,   16,  0,    'd',  'a', 't', 'a',  0,    0,   0,   0};
    memcpy(head + 4, &riff, 4);
    memcpy(head + 40, &data, 4);
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(head, 1, 44, f) == 44;
    for (uint32_t k = 0; ok && k < frames; k++) {
        uint16_t lr[2] = {(uint16_t)k, (uint16_t)(k >> 16)};
        ok = fwrite(lr, 2, 2, f) == 2;
    }
    return fclose(f) == 0 && ok;
}

#endif
