// A 16-bit stereo 44.1 kHz WAV whose frames tell their position: left is the
// frame index (low 16 bits), right its high bits. Tests and benchmarks use it
// to see which part of the content a receiver got, after seeks and joins.
#ifndef POSITION_WAV_H
#define POSITION_WAV_H

#include <stdint.h>
#include <stdio.h>

#include <string>

#include "RxWav.h"

// Writes `seconds` of position audio to path; false when it cannot.
inline bool position_wav_write(const std::string& path, int seconds) {
    uint32_t frames = 44100u * (uint32_t)seconds;
    FILE* f = rx_wav_open(path.c_str());
    if (!f) return false;
    bool ok = true;
    for (uint32_t k = 0; ok && k < frames; k++) {
        uint16_t lr[2] = {(uint16_t)k, (uint16_t)(k >> 16)};
        ok = fwrite(lr, 2, 2, f) == 2;
    }
    return rx_wav_close(f, 44100, 2, 16, frames * 4) == 0 && ok;
}

#endif
