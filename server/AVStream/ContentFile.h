// The file side of the content probe (common/ContentProbe.h): reads a WAV
// file's head and moves to its samples, one way for discovery's content
// information and for the streamer's WAV reader, so both call the same files
// playable.
//
// Works on a platform file handle it does not own; no state, no locks; runs
// on the caller's thread.
#ifndef CONTENTFILE_H
#define CONTENTFILE_H

#include <stdint.h>

#include "ContentProbe.h"

// Reads the head at the handle's position (the file's start) and probes it:
// a WAVE_PROBE_* result, *fmt filled when the head was complete, *nRead the
// read's result.
int ContentWaveReadHead(long fd, WaveFormat* fmt, long* nRead);

// From just behind the head, moves the handle to the first sample byte and
// sets *dataStart to that offset. Plain PCM takes on trust that the 16-byte
// fmt chunk is followed by the data chunk's header, deliberately: no chunk
// is looked for. The extensible format walks the chunks after the fmt chunk
// to "data"; a walk that reaches the end of the file without it is not an
// error. False when the handle cannot be moved.
bool ContentWaveSeekSamples(long fd, const WaveFormat& fmt, uint32_t* dataStart);

#endif
