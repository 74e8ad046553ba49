// Shared by the sender benchmarks: the floor, a bare loop that does nothing
// but the streamer's pacing rule (a pass every 2 ms; on a due pass one
// 1412-byte sendto per receiver and 1400 bytes more of the stream) for 44.1
// kHz stereo 16-bit. What any sender of this stream must at least spend.
#ifndef BENCH_FLOOR_H
#define BENCH_FLOOR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include "PAL_Clock.h"

// Sends to the n addresses from the n sockets for `seconds` (for ever when
// 0); returns the stream bytes the clock passed.
inline unsigned long long bench_floor_loop(const int* socks, const struct sockaddr_in* to, int n,
                                           const unsigned char* pkt, double seconds) {
    unsigned int start = PAL_GetClock();
    unsigned long long sent = 0;
    while (seconds <= 0 || PAL_GetClock() - start < seconds * 1000) {
        unsigned long long due = sent * 1000 / 176400;
        if (PAL_GetClock() - start >= due) {
            for (int i = 0; i < n; i++)
                sendto(socks[i], pkt, 1412, 0, (const struct sockaddr*)&to[i], sizeof(to[i]));
            sent += 1400;
        }
        PAL_ThreadSleep(2);
    }
    return sent;
}

#endif
