// WAV head and sample position over platform file handles (ContentFile.h).
// The file is hostile: the head is probed before any length from it is used,
// and the chunk walk ends at the first short or failed read.
#include "ContentFile.h"

#include "PAL_File.h"

int ContentWaveReadHead(long fd, WaveFormat* fmt, long* nRead) {
    unsigned char head[WAVE_HEAD_LEN] = {0};
    *nRead = PAL_FileRead(fd, head, sizeof head);
    return ProbeWaveHead(head, *nRead > 0 ? (size_t)*nRead : 0, fmt);
}

bool ContentWaveSeekSamples(long fd, const WaveFormat& fmt, uint32_t* dataStart) {
    if (fmt.audioFormat != WAVE_FORMAT_EXTENSIBLE) {
        *dataStart = WAVE_HEAD_LEN + WAVE_CHUNK_HEAD_LEN;
        return PAL_FileSeek(fd, WAVE_CHUNK_HEAD_LEN, FSEEK_CURRENT) >= 0;
    }
    *dataStart = WAVE_HEAD_LEN + fmt.fmtSize - 16;
    if (PAL_FileSeek(fd, (long long)fmt.fmtSize - 16, FSEEK_CURRENT) < 0) return false;
    // The id and the size are read one after the other, and the position
    // counts both whatever the reads return; the walk goes on while both
    // reads gave something.
    long nId = 4, nSize = 4;
    while ((nId & nSize) != 0) {
        unsigned char id[4] = {0}, size[4] = {0};
        nId = PAL_FileRead(fd, id, sizeof id);
        *dataStart += 4;
        nSize = PAL_FileRead(fd, size, sizeof size);
        *dataStart += 4;
        if (nId < 0 || nSize < 0 || ProbeWaveIsDataChunk(id)) break;
        PAL_FileSeek(fd, ProbeLe32(size), FSEEK_CURRENT);
        *dataStart += ProbeLe32(size);
    }
    return true;
}
