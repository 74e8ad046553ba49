// The ring buffer under real threads: whole-or-nothing transfers, a writer
// and a reader hammering it, resets under load, and the stamp / read-count
// rules the play position is built on.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "PAL.h"

namespace {

// Deterministic byte stream: byte i of the stream.
unsigned char stream_byte(unsigned long long i) {
    return (unsigned char)((i * 131u + (i >> 9)) & 0xff);
}

}  // namespace

TEST(RingBuf, TransfersAreWholeOrNothingAndWrapCorrectly) {
    PAL_RINGBUF* rb = Pal_RingBufCreate(10);
    ASSERT_NE(nullptr, rb);
    EXPECT_EQ(10ul, Pal_RingBufAvailable(rb));
    EXPECT_EQ(-1, Pal_RingBufWrite(rb, "0123456789A", 11));  // larger than capacity
    EXPECT_EQ(0ul, Pal_RingBufUsed(rb));

    ASSERT_EQ(0, Pal_RingBufWrite(rb, "abcdefg", 7));
    EXPECT_EQ(3ul, Pal_RingBufAvailable(rb));
    EXPECT_EQ(-1, Pal_RingBufWrite(rb, "wxyz", 4));  // does not fit: nothing written
    EXPECT_EQ(7ul, Pal_RingBufUsed(rb));

    char out[16] = {0};
    EXPECT_EQ(-1, Pal_RingBufRead(rb, out, 8));  // fewer held: nothing consumed
    EXPECT_EQ(7ul, Pal_RingBufUsed(rb));
    ASSERT_EQ(0, Pal_RingBufRead(rb, out, 5));
    EXPECT_EQ(0, memcmp(out, "abcde", 5));

    // Next write crosses the end of the storage.
    ASSERT_EQ(0, Pal_RingBufWrite(rb, "hijklmno", 8));
    EXPECT_EQ(0ul, Pal_RingBufAvailable(rb));
    EXPECT_EQ(-1, Pal_RingBufWrite(rb, "p", 1));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 2));  // discard "fg"
    ASSERT_EQ(0, Pal_RingBufRead(rb, out, 8));
    EXPECT_EQ(0, memcmp(out, "hijklmno", 8));
    EXPECT_EQ(15ul, Pal_RingBufGetReadSize(rb));
    Pal_RingBufClose(rb);

    EXPECT_EQ(nullptr, Pal_RingBufCreate(0));
    EXPECT_EQ(-1, Pal_RingBufWrite(nullptr, "a", 1));
    EXPECT_EQ(-1, Pal_RingBufRead(nullptr, out, 1));
}

TEST(RingBuf, StampAndReadCountFollowTheSeekRules) {
    PAL_RINGBUF* rb = Pal_RingBufCreate(4096);
    ASSERT_NE(nullptr, rb);
    char block[1000];
    memset(block, 7, sizeof(block));
    EXPECT_EQ(0u, Pal_RingBufGetTimeStamp(rb));

    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 400));
    Pal_RingBufSetTimeStamp(rb, 0);  // same stamp: the count goes on
    EXPECT_EQ(400ul, Pal_RingBufGetReadSize(rb));

    Pal_RingBufSetTimeStamp(rb, 30);  // a seek to 30 s restarts the count
    EXPECT_EQ(30u, Pal_RingBufGetTimeStamp(rb));
    EXPECT_EQ(0ul, Pal_RingBufGetReadSize(rb));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 300));
    Pal_RingBufSetTimeStamp(rb, 30);  // stamped again each pass with the same value
    EXPECT_EQ(300ul, Pal_RingBufGetReadSize(rb));

    Pal_RingBufReset(rb);  // empties, restarts the count, keeps the stamp
    EXPECT_EQ(0ul, Pal_RingBufUsed(rb));
    EXPECT_EQ(0ul, Pal_RingBufGetReadSize(rb));
    EXPECT_EQ(30u, Pal_RingBufGetTimeStamp(rb));

    Pal_RingBufSetSync(rb, 12, 88200);
    EXPECT_EQ(12u, Pal_RingBufGetTimeStamp(rb));
    EXPECT_EQ(88200ul, Pal_RingBufGetReadSize(rb));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 100));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 100));
    EXPECT_EQ(88300ul, Pal_RingBufGetReadSize(rb));

    // A wake for room fires once, on the read or reset that makes the room.
    PAL_SEM* room = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&room, 0));
    EXPECT_EQ(1, Pal_RingBufNotifyRoom(rb, 4096, room));  // already empty
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    EXPECT_EQ(0, Pal_RingBufNotifyRoom(rb, 2500, room));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 1000));  // 2096 free: not yet
    EXPECT_EQ(-1, PAL_SemWait(room, 0));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 1000));  // 3096 free
    EXPECT_EQ(0, PAL_SemWait(room, 0));
    ASSERT_EQ(0, Pal_RingBufRead(rb, nullptr, 1000));  // disarmed: no second wake
    EXPECT_EQ(-1, PAL_SemWait(room, 0));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    EXPECT_EQ(0, Pal_RingBufNotifyRoom(rb, 4000, room));
    Pal_RingBufReset(rb);
    EXPECT_EQ(0, PAL_SemWait(room, 0));
    ASSERT_EQ(0, Pal_RingBufWrite(rb, block, 1000));
    EXPECT_EQ(0, Pal_RingBufNotifyRoom(rb, 4000, room));
    EXPECT_EQ(-1, Pal_RingBufNotifyRoom(rb, 0, nullptr));  // disarms
    Pal_RingBufReset(rb);
    EXPECT_EQ(-1, PAL_SemWait(room, 0));
    PAL_SemDelete(room);
    Pal_RingBufClose(rb);
}

TEST(RingBuf, WriterAndReaderThreadsKeepTheStreamIntact) {
    const unsigned long kCapacity = 409600;
    const unsigned long long kTotal = 16ull * 1024 * 1024;
    PAL_RINGBUF* rb = Pal_RingBufCreate(kCapacity);
    ASSERT_NE(nullptr, rb);

    // The writer sleeps until the reader made room, as the music source does;
    // a lost wake would show as a time-out (the reader never stops reading).
    PAL_SEM* room = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&room, 0));
    std::atomic<int> lostWakes{0};
    std::thread writer([&] {
        std::vector<unsigned char> chunk(4608);  // one decoded MP3 frame of stereo PCM
        unsigned long long pos = 0;
        while (pos < kTotal) {
            unsigned long n =
                (unsigned long)std::min<unsigned long long>(chunk.size() - (pos % 7), kTotal - pos);
            for (unsigned long i = 0; i < n; i++) chunk[i] = stream_byte(pos + i);
            if (Pal_RingBufWrite(rb, chunk.data(), n) == 0) {
                pos += n;
            } else if (Pal_RingBufNotifyRoom(rb, n, room) == 0 &&
                       PAL_SemTimedWait(room, 10000) != 0) {
                lostWakes++;
            }
        }
    });
    unsigned long long got = 0;
    unsigned long long mismatches = 0;
    std::vector<unsigned char> pkt(1400);  // one RTP payload
    while (got < kTotal) {
        unsigned long n = (unsigned long)std::min<unsigned long long>(pkt.size(), kTotal - got);
        if (Pal_RingBufRead(rb, pkt.data(), n) != 0) {
            std::this_thread::yield();
            continue;
        }
        for (unsigned long i = 0; i < n; i++) mismatches += pkt[i] != stream_byte(got + i);
        got += n;
    }
    writer.join();
    PAL_SemDelete(room);
    EXPECT_EQ(0, lostWakes.load());
    EXPECT_EQ(0ull, mismatches);
    EXPECT_EQ(0ul, Pal_RingBufUsed(rb));
    EXPECT_EQ((unsigned long)kTotal, Pal_RingBufGetReadSize(rb));
    Pal_RingBufClose(rb);
}

// Writer blocks carry their own sequence number in every byte, so a reader
// can tell a torn block (part old, part new) from whole ones even while a
// third thread resets the buffer.
TEST(RingBuf, ResetUnderLoadNeverTearsABlock) {
    const unsigned long kBlock = 1400;
    PAL_RINGBUF* rb = Pal_RingBufCreate(kBlock * 37);
    ASSERT_NE(nullptr, rb);
    std::atomic<bool> stop(false);
    std::atomic<unsigned long> resets(0);

    std::thread writer([&] {
        std::vector<unsigned char> block(kBlock);
        unsigned char seq = 0;
        while (!stop.load()) {
            memset(block.data(), seq, kBlock);
            if (Pal_RingBufWrite(rb, block.data(), kBlock) == 0) seq++;
        }
    });
    std::thread resetter([&] {
        while (!stop.load()) {
            Pal_RingBufReset(rb);
            resets++;
            PAL_ThreadSleep(1);
        }
    });
    std::vector<unsigned char> block(kBlock);
    unsigned long reads = 0;
    unsigned long torn = 0;
    unsigned int start = PAL_GetClock();
    while (reads < 20000 && PAL_GetClock() - start < 20000) {
        if (Pal_RingBufRead(rb, block.data(), kBlock) != 0) continue;
        reads++;
        for (unsigned long i = 1; i < kBlock; i++) {
            if (block[i] != block[0]) {
                torn++;
                break;
            }
        }
        // Reads must stay aligned to blocks, whatever the resets did.
        EXPECT_EQ(0ul, Pal_RingBufUsed(rb) % kBlock);
    }
    stop = true;
    writer.join();
    resetter.join();
    EXPECT_GT(reads, 100ul);
    EXPECT_GT(resets.load(), 10ul);
    EXPECT_EQ(0ul, torn);
    Pal_RingBufClose(rb);
}
