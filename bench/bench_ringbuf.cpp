// Ring buffer throughput: one writer thread and one reader thread moving a
// fixed amount of data through one buffer, as the music source and the RTP
// thread do, for a few block sizes. Prints MB/s (1 MB = 10^6 bytes) and how
// often each side found the buffer full or empty.
//   bench_ringbuf [MEGABYTES]   (default 4096 per case)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "PAL.h"

namespace {

struct CASE {
    const char* name;
    unsigned long capacity;
    unsigned long writeBlock;
    unsigned long readBlock;
};

double now_sec() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Moves total bytes through the buffer; returns the seconds taken, or a
// negative value when the data came out wrong.
double run_case(const CASE& c, unsigned long long total, unsigned long long* fullHits,
                unsigned long long* emptyHits) {
    PAL_RINGBUF* rb = Pal_RingBufCreate(c.capacity);
    if (!rb) return -1;
    *fullHits = 0;
    *emptyHits = 0;
    double t0 = now_sec();
    std::thread writer([&] {
        std::vector<unsigned char> block(c.writeBlock);
        unsigned long long sent = 0;
        unsigned char tag = 0;
        while (sent < total) {
            unsigned long n =
                (unsigned long)std::min<unsigned long long>(c.writeBlock, total - sent);
            block[0] = tag;
            if (Pal_RingBufWrite(rb, block.data(), n) == 0) {
                sent += n;
                tag++;
            } else {
                (*fullHits)++;
                std::this_thread::yield();
            }
        }
    });
    std::vector<unsigned char> block(c.readBlock);
    unsigned long long got = 0;
    while (got < total) {
        unsigned long n = (unsigned long)std::min<unsigned long long>(c.readBlock, total - got);
        if (Pal_RingBufRead(rb, block.data(), n) == 0) {
            got += n;
        } else {
            (*emptyHits)++;
            std::this_thread::yield();
        }
    }
    writer.join();
    double secs = now_sec() - t0;
    bool ok = Pal_RingBufGetReadSize(rb) == (unsigned long)total;
    Pal_RingBufClose(rb);
    return ok ? secs : -1;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long long mb = argc > 1 ? strtoull(argv[1], nullptr, 10) : 4096;
    if (mb == 0 || mb > 65536) mb = 4096;
    const unsigned long long total = mb * 1000000ull;
    const CASE cases[] = {
        {"engine: 409600 B buffer, 4608 B writes, 1400 B reads", 409600, 4608, 1400},
        {"large blocks: 4 MiB buffer, 64 KiB writes and reads", 4u << 20, 65536, 65536},
        {"small blocks: 409600 B buffer, 256 B writes and reads", 409600, 256, 256},
    };
    printf("bench_ringbuf: one writer thread, one reader thread, %llu MB per case\n", mb);
    int status = 0;
    for (const CASE& c : cases) {
        unsigned long long full = 0, empty = 0;
        double secs = run_case(c, total, &full, &empty);
        if (secs <= 0) {
            printf("  %-56s FAILED\n", c.name);
            status = 1;
            continue;
        }
        printf("  %-56s %8.0f MB/s  (%.2f s; writer found it full %llu times, reader empty %llu)\n",
               c.name, total / 1e6 / secs, secs, full, empty);
    }
    return status;
}
