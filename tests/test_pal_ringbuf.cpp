// The ring buffer: whole-or-nothing transfers, the stamp / read-count rules
// the play position is built on, and a writer and a reader hammering it
// while a third thread resets it.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "PAL.h"

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

// A writer that sleeps until the reader made room, as the music source does,
// and a reader of RTP-sized blocks; every byte of a block holds its number,
// and the capacity is no multiple of the block, so transfers wrap mid-block.
// First the stream must arrive whole and in order (a lost wake would show as
// a time-out); then, with a third thread resetting the buffer, blocks may
// vanish but none may arrive torn or out of step with the blocks.
TEST(RingBuf, ThreadsKeepBlocksWholeAndInOrderThroughResets) {
    const unsigned long kBlock = 1400, kPhase = 12000;
    PAL_RINGBUF* rb = Pal_RingBufCreate(kBlock * 37 + 100);
    ASSERT_NE(nullptr, rb);
    PAL_SEM* room = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&room, 0));
    std::atomic<bool> stop{false}, resetting{false};
    std::atomic<int> lostWakes{0};
    std::atomic<unsigned long> resets{0};
    std::thread writer([&] {
        std::vector<unsigned char> block(kBlock);
        for (unsigned char seq = 0; !stop.load();) {
            memset(block.data(), seq, kBlock);
            if (Pal_RingBufWrite(rb, block.data(), kBlock) == 0) {
                seq++;
            } else if (Pal_RingBufNotifyRoom(rb, kBlock, room) == 0 &&
                       PAL_SemTimedWait(room, 10000) != 0) {
                lostWakes++;
            }
        }
    });
    std::thread resetter([&] {
        for (; !stop.load(); PAL_ThreadSleep(1)) {
            if (resetting.load()) {
                Pal_RingBufReset(rb);
                resets++;
            }
        }
    });
    std::vector<unsigned char> block(kBlock);
    unsigned long reads = 0, torn = 0, outOfOrder = 0, misaligned = 0;
    unsigned char expect = 0;
    unsigned int start = PAL_GetClock();
    while ((reads < 2 * kPhase || resets.load() < 20) && PAL_GetClock() - start < 60000) {
        if (Pal_RingBufRead(rb, block.data(), kBlock) != 0) {
            std::this_thread::yield();
            continue;
        }
        torn += memcmp(block.data(), block.data() + 1, kBlock - 1) != 0;
        outOfOrder += !resetting.load() && block[0] != expect;
        misaligned += Pal_RingBufUsed(rb) % kBlock != 0;
        expect = (unsigned char)(block[0] + 1);
        if (++reads == kPhase) {
            EXPECT_EQ(kPhase * kBlock, Pal_RingBufGetReadSize(rb));
            resetting = true;
        }
    }
    stop = true;
    Pal_RingBufReset(rb);  // wakes a writer waiting for room
    writer.join();
    resetter.join();
    PAL_SemDelete(room);
    EXPECT_GE(reads, 2 * kPhase);
    EXPECT_GE(resets.load(), 20ul);
    EXPECT_EQ(0, lostWakes.load());
    EXPECT_EQ(0ul, torn);
    EXPECT_EQ(0ul, outOfOrder);
    EXPECT_EQ(0ul, misaligned);
    Pal_RingBufClose(rb);
}
