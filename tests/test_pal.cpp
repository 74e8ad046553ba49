// The platform library on real files, threads and sockets: open modes,
// seeks and positioned reads, the GUID store and a media buffer's range;
// semaphores, the recursive mutex and threads in the engine's own pattern;
// the ring buffer's whole-or-nothing transfers and the stamp / read-count
// rules the play position is built on, then threads hammering it; the
// phone's network identity and the log line; sockets on loopback: the
// multicast group, unicast datagrams with their source, and a TCP control
// connection.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Guidrw.h"
#include "MediaBuffer.h"
#include "PAL.h"
#include "PAL_Worker.h"
#include "TempDir.h"

TEST(PalFile, ModesSeeksPositionedReadsGuidStoreAndBufferRange) {
    TempDir dir;
    const std::string p = dir.path + "/data.bin";
    char buf[40] = {0};
    EXPECT_LE(PAL_FileOpen(p.c_str(), FOPEN_READ, 0), 0);  // missing
    EXPECT_LE(PAL_FileOpen("/tmp", FOPEN_READ, 0), 0);     // a directory
    EXPECT_EQ(-1, PAL_FileRead(0, buf, 1));                // a value no open returns
    // Created; appended to whatever the position; overwritten in place
    // without being cut: "01XY456789abcdef".
    const std::pair<int, const char*> writes[] = {
        {FOPEN_CREATE, "0123456789"}, {FOPEN_APPEND, "abcdef"}, {FOPEN_READWRITE, "01XY"}};
    for (const auto& [mode, text] : writes) {
        long h = PAL_FileOpen(p.c_str(), mode, 0);
        ASSERT_GE(h, 1);
        EXPECT_EQ(0, PAL_FileSeek(h, 0, FSEEK_START));
        EXPECT_EQ((long)strlen(text), PAL_FileWrite(h, text, strlen(text)));
        EXPECT_EQ(0, PAL_FileClose(h));
    }
    long h = PAL_FileOpen(p.c_str(), FOPEN_READ, 0);
    ASSERT_GE(h, 1);
    EXPECT_EQ(16, PAL_FileSize(h));
    EXPECT_EQ(-1, PAL_FileWrite(h, "x", 1));  // opened for reading
    EXPECT_EQ(4, PAL_FileRead(h, buf, 4));
    // Positioned reads are short at the end and leave the position at 4.
    const std::pair<long long, const char*> reads[] = {{0, "01XY4567"}, {14, "ef"}, {16, ""}};
    for (const auto& [at, text] : reads) {
        memset(buf, 0, sizeof(buf));
        EXPECT_EQ((long)strlen(text), PAL_FileReadAt(h, at, buf, 8));
        EXPECT_STREQ(text, buf);
    }
    // The platform's numbering: START 0, END 1, CURRENT 2. Each row: offset,
    // origin, the position after (-1: refused, the position kept), the byte
    // a one-byte read then gives (0: none, at the end).
    const std::tuple<long, int, long, char> seeks[] = {
        {2, FSEEK_CURRENT, 6, '6'}, {-3, FSEEK_END, 13, 'd'},     {1, FSEEK_START, 1, '1'},
        {0, FSEEK_END, 16, 0},      {-100, FSEEK_CURRENT, -1, 0}, {0, 7, -1, 0}};
    for (const auto& [offset, origin, at, next] : seeks) {
        buf[0] = 0;
        EXPECT_EQ(at, PAL_FileSeek(h, offset, origin)) << origin;
        EXPECT_EQ(next ? 1 : 0, PAL_FileRead(h, buf, 1));
        EXPECT_EQ(next, buf[0]);
    }
    PAL_FileClose(h);

    // The GUID store keeps one line: read back as saved, nothing left of a
    // longer earlier one, cut at a line end; a hostile file is cut to the
    // caller's 40 bytes, CRLF stripped.
    Guidrw rw;
    const std::string g = dir.path + "/guid";
    memset(buf, 'z', sizeof(buf));
    EXPECT_NE(0, rw.LoadGuid(g.c_str(), buf));
    EXPECT_EQ(0, buf[0]);
    const std::tuple<bool, const char*, const char*> guids[] = {
        // saved?, text, read back
        {true, "6f1c2a90-1b7e-4c55-9d0e-3a8b7c6d5e4f", "6f1c2a90-1b7e-4c55-9d0e-3a8b7c6d5e4f"},
        {true, "short", "short"},
        {true, "first\nsecond", "first"},
        {false, "0123456789012345678901234567890123456789012345678901234567890\r\nsecond\n",
         "012345678901234567890123456789012345678"},
        {false, "abc\r\n", "abc"}};
    for (const auto& [save, text, loaded] : guids) {
        if (save) {
            ASSERT_EQ(0, rw.SaveGuid(g.c_str(), text));
        } else {
            FILE* out = fopen(g.c_str(), "w");
            ASSERT_NE(nullptr, out);
            fputs(text, out);
            fclose(out);
        }
        memset(buf, 'z', sizeof(buf));
        ASSERT_EQ(0, rw.LoadGuid(g.c_str(), buf));
        EXPECT_STREQ(loaded, buf);
    }

    // A media buffer's range stays inside its storage: past the end or
    // wrapping, a new range is ignored; exactly the storage is taken.
    MediaBuffer b(10240);
    ASSERT_NE(nullptr, b.data());
    const size_t ranges[][4] = {
        {4, 417, 4, 417}, {10000, 241, 4, 417}, {(size_t)-1, 2, 4, 417}, {0, 10240, 0, 10240}};
    for (const auto& r : ranges) {
        b.set_range(r[0], r[1]);
        EXPECT_EQ(r[2], b.range_offset());
        EXPECT_EQ(r[3], b.range_length());
    }
}

namespace {

// A worker's body the engine's way: it re-takes the lock it holds, as a
// helper does (the mutex is recursive), then sleeps until its owner asks it
// to end, which the exit descriptor tells it long before the poll's bound.
struct WORK {
    PalWorker worker;
    PAL_MUTEX* lock = nullptr;
    std::atomic<int> rounds{0};
};

int work_body(void* arg) {
    WORK* w = static_cast<WORK*>(arg);
    for (struct pollfd p = {w->worker.ExitFd(), POLLIN, 0}; !w->worker.Exiting();
         poll(&p, 1, 20000)) {
        PalLock outer(w->lock), inner(w->lock);
        w->rounds++;
    }
    return 0;
}

int self_releasing_body(void* arg) {
    std::atomic<PAL_THREAD>* self = static_cast<std::atomic<PAL_THREAD>*>(arg);
    while (self->load() == nullptr) PAL_ThreadSleep(1);
    PAL_ThreadExit(self->load());
    return 0;
}

}  // namespace

TEST(ThreadSync, SemaphoresWorkersJoinsPriorityAndSleepUntil) {
    PAL_SEM* s = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&s, 2));
    EXPECT_EQ(0, PAL_SemWait(s, 0));
    EXPECT_EQ(0, PAL_SemWait(s, 1));
    EXPECT_EQ(-1, PAL_SemWait(s, 0));
    unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(-1, PAL_SemTimedWait(s, 100));
    EXPECT_GE(PAL_GetClock() - t0, 95u);

    WORK w;
    ASSERT_NE(0, PAL_MutexCreate(&w.lock));
    ASSERT_EQ(PalWorker::kStarted, w.worker.Start("test", work_body, &w, PalWorker::kExitFd));
    EXPECT_EQ(PalWorker::kNoThread, w.worker.Start("test", work_body, &w));  // runs already
    for (int i = 0; i < 2000 && w.rounds.load() == 0; i++) PAL_ThreadSleep(5);
    t0 = PAL_GetClock();
    w.worker.Stop(30000);
    EXPECT_LT(PAL_GetClock() - t0, 15000u) << "the exit descriptor did not wake the body";
    EXPECT_EQ(1, w.rounds.load());
    EXPECT_FALSE(w.worker.Started());
    PAL_MutexDelete(w.lock);

    // Joining without waiting tells a running thread (here one blocked on
    // the semaphore) from an ended one.
    PAL_THREAD th = nullptr;
    auto wait_on = [](void* sem) { return PAL_SemWait(static_cast<PAL_SEM*>(sem), 1); };
    ASSERT_NE(0, PAL_ThreadCreate(&th, wait_on, s, PAL_THREAD_PRIO_TIMESHARE));
    EXPECT_EQ(1, PAL_ThreadJoin(th, 0));
    EXPECT_EQ(0, PAL_SemSignal(s, 1));
    EXPECT_EQ(0, PAL_ThreadJoin(th, 1));
    PAL_ThreadExit(th);
    PAL_SemDelete(s);

    // A thread may release its own handle: it detaches and frees itself.
    // Given time to finish, leak checkers see the record freed.
    static std::atomic<PAL_THREAD> s_handle;  // outlives the thread
    s_handle = nullptr;
    ASSERT_NE(0, PAL_ThreadCreate(&th, self_releasing_body, &s_handle, PAL_THREAD_PRIO_TIMESHARE));
    s_handle = th;

    // A raised priority is the calling thread's alone; refused, the thread
    // keeps the one it had.
    int mine = getpriority(PRIO_PROCESS, 0), granted = -1, got = 100;
    std::thread([&] {
        granted = PAL_ThreadSetOwnPriority(PAL_THREAD_PRIO_URGENT_AUDIO);
        got = getpriority(PRIO_PROCESS, 0);
    }).join();
    EXPECT_EQ(granted == 1 ? -19 : mine, got);
    EXPECT_EQ(mine, getpriority(PRIO_PROCESS, 0));

    // Sleeping until a deadline wakes at it, never before; deadlines already
    // passed, also across the clock's wrap, return at once.
    for (int i = 0; i < 5; i++) {
        unsigned int deadline = PAL_GetClock() + 7 + i;
        PAL_ThreadSleepUntil(deadline);
        EXPECT_GE((int)(PAL_GetClock() - deadline), 0);
    }
    unsigned int start = PAL_GetClock();
    PAL_ThreadSleepUntil(start - 5);
    PAL_ThreadSleepUntil(start + 0x80000001u);
    EXPECT_LT(PAL_GetClock() - start, 1000u);
    PAL_ThreadSleep(200);  // the self-releasing thread is done
}

// A 10-byte ring buffer through a script of calls, each followed by a look
// at what it holds, its read count, its stamp and whether the writer's wake
// fired: transfers whole or nothing, wrapping at the end of the storage; the
// same stamp changes nothing, another restarts the count, a reset restarts
// it and keeps the stamp; a wake for room fires once, on the read or reset
// that makes the room.
TEST(RingBuf, TransfersWholeOrNothingStampCountAndWakeRules) {
    PAL_RINGBUF* rb = Pal_RingBufCreate(10);
    ASSERT_NE(nullptr, rb);
    PAL_SEM* room = nullptr;
    ASSERT_NE(0, PAL_SemCreate(&room, 0));
    const struct {
        char call;         // w write, r read (null text: discard n), s stamp n,
                           // y sync n/count, z reset, n wake at n free, d disarm
        const char* text;  // bytes written, or the bytes a read must give
        unsigned long n;
        int rc;
        unsigned long used, count;
        unsigned int stamp;
        bool woken;
    } steps[] = {
        {'w', "0123456789A", 0, -1, 0, 0, 0, false},  // larger than the capacity
        {'w', "abcdefg", 0, 0, 7, 0, 0, false},
        {'w', "wxyz", 0, -1, 7, 0, 0, false},      // does not fit: nothing written
        {'r', "abcdefgh", 0, -1, 7, 0, 0, false},  // fewer held: nothing consumed
        {'r', "abcde", 0, 0, 2, 5, 0, false},
        {'w', "hijklmno", 0, 0, 10, 5, 0, false},  // crosses the end of the storage
        {'w', "p", 0, -1, 10, 5, 0, false},
        {'r', nullptr, 2, 0, 8, 7, 0, false},  // discards "fg"
        {'r', "hijklmno", 0, 0, 0, 15, 0, false},
        {'s', nullptr, 0, 0, 0, 15, 0, false},   // the same stamp: the count goes on
        {'s', nullptr, 30, 0, 0, 0, 30, false},  // a seek to 30 s restarts the count
        {'w', "abc", 0, 0, 3, 0, 30, false},
        {'r', "abc", 0, 0, 0, 3, 30, false},
        {'s', nullptr, 30, 0, 0, 3, 30, false},  // stamped again each pass, same value
        {'w', "xy", 0, 0, 2, 3, 30, false},
        {'z', nullptr, 0, 0, 0, 0, 30, false},
        {'y', nullptr, 12, 0, 0, 88200, 12, false},  // a late receiver lined up with another
        {'n', nullptr, 10, 1, 0, 88200, 12, false},  // already empty: nothing armed
        {'w', "123456789", 0, 0, 9, 88200, 12, false},
        {'n', nullptr, 6, 0, 9, 88200, 12, false},
        {'r', nullptr, 3, 0, 6, 88203, 12, false},  // 4 free: not yet
        {'r', nullptr, 3, 0, 3, 88206, 12, true},
        {'r', nullptr, 3, 0, 0, 88209, 12, false},  // disarmed: no second wake
        {'w', "123456789", 0, 0, 9, 88209, 12, false},
        {'n', nullptr, 7, 0, 9, 88209, 12, false},
        {'z', nullptr, 0, 0, 0, 0, 12, true},
        {'w', "123456789", 0, 0, 9, 0, 12, false},
        {'n', nullptr, 7, 0, 9, 0, 12, false},
        {'d', nullptr, 0, -1, 9, 0, 12, false},
        {'z', nullptr, 0, 0, 0, 0, 12, false},
    };
    for (const auto& s : steps) {
        const unsigned long len = s.text ? strlen(s.text) : s.n;
        char out[16] = {0};
        int rc = 0;
        if (s.call == 'w') rc = Pal_RingBufWrite(rb, s.text, len);
        if (s.call == 'r') rc = Pal_RingBufRead(rb, s.text ? out : nullptr, len);
        if (s.call == 's') Pal_RingBufSetTimeStamp(rb, (unsigned int)s.n);
        if (s.call == 'y') Pal_RingBufSetSync(rb, (unsigned int)s.n, s.count);
        if (s.call == 'z') Pal_RingBufReset(rb);
        if (s.call == 'n') rc = Pal_RingBufNotifyRoom(rb, s.n, room);
        if (s.call == 'd') rc = Pal_RingBufNotifyRoom(rb, 0, nullptr);
        SCOPED_TRACE(std::string(1, s.call) + " " + (s.text ? s.text : std::to_string(s.n)));
        EXPECT_EQ(s.rc, rc);
        if (s.call == 'r' && s.text && rc == 0) {
            EXPECT_EQ(0, memcmp(out, s.text, len));
        }
        EXPECT_EQ(s.used, Pal_RingBufUsed(rb));
        EXPECT_EQ(10 - s.used, Pal_RingBufAvailable(rb));
        EXPECT_EQ(s.count, Pal_RingBufGetReadSize(rb));
        EXPECT_EQ(s.stamp, Pal_RingBufGetTimeStamp(rb));
        EXPECT_EQ(s.woken ? 0 : -1, PAL_SemWait(room, 0));
    }
    PAL_SemDelete(room);
    Pal_RingBufClose(rb);
    EXPECT_EQ(nullptr, Pal_RingBufCreate(0));
    char one;
    EXPECT_EQ(-1, Pal_RingBufWrite(nullptr, "a", 1));
    EXPECT_EQ(-1, Pal_RingBufRead(nullptr, &one, 1));
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
    std::atomic<unsigned long> resets{0}, lostWakes{0};
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
    unsigned long reads = 0, faults = 0;  // torn, out of order or misaligned
    unsigned char expect = 0;
    unsigned int start = PAL_GetClock();
    while ((reads < 2 * kPhase || resets.load() < 20) && PAL_GetClock() - start < 60000) {
        if (Pal_RingBufRead(rb, block.data(), kBlock) != 0) {
            std::this_thread::yield();
            continue;
        }
        faults += memcmp(block.data(), block.data() + 1, kBlock - 1) != 0;
        faults += !resetting.load() && block[0] != expect;
        faults += Pal_RingBufUsed(rb) % kBlock != 0;
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
    Pal_RingBufClose(rb);
    EXPECT_GE(reads, 2 * kPhase);
    EXPECT_GE(resets.load(), 20ul);
    EXPECT_EQ(0ul, lostWakes.load());
    EXPECT_EQ(0ul, faults);
}

// Inside the test namespace (only lo, which the rig itself makes sure of)
// the phone's identity falls back to lo, as does naming it; a named
// interface that does not exist is an error, not a guess.
TEST(NetworkIdentity, LoopbackFallbackOverrideAndAMissingInterface) {
    char mac[20], ip[20];
    const char* ifaces[][2] = {{nullptr, "127.0.0.1"},
                               {"lo", "127.0.0.1"},
                               {"wlan-missing-and-far-too-long-for-a-name", ""}};
    for (const auto& c : ifaces) {
        if (c[0]) {
            setenv("SONVARA_IFACE", c[0], 1);
        } else {
            unsetenv("SONVARA_IFACE");
        }
        memset(ip, 'x', sizeof(ip));
        EXPECT_EQ(c[1][0] != 0, GetNICInfo(mac, ip) != 0) << c[1];
        EXPECT_STREQ(c[1], ip);
        if (!c[0]) {
            EXPECT_STREQ("00:00:00:00:00:00", mac);
        }
    }
    unsetenv("SONVARA_IFACE");
    EXPECT_EQ(0, GetNICInfo(nullptr, ip));
    EXPECT_STREQ("", gmasterip);
}

TEST(DebugUi, OneWholeLinePerCallAndARateLimitedFault) {
    std::vector<std::string> lines;  // only this thread logs while the sink is set
    debug_UI_SetSink(
        [](const char* line, void* ctx) {
            static_cast<std::vector<std::string>*>(ctx)->push_back(line);
        },
        &lines);
    debug_UI("[AVStreamer m_groupId : %d] ServerOpen() Start", 3);
    debug_UI("DeleteGroup--- Ret %u\n", 259u);
    debug_UI("%s", std::string(5000, 'q').c_str());
    // A fault met on every packet: the first line, then only a count once a
    // second (the line's text unchanged).
    DEBUG_UI_RATE rate = {0, 0, 0};
    unsigned int start = PAL_GetClock();
    for (int calls = 0; lines.size() < 6 && PAL_GetClock() - start < 10000; PAL_ThreadSleep(2))
        debug_UI_Rate(&rate, "nRcv : %d, Pal_RingBufRead Error", calls++ % 3);
    debug_UI_SetSink(nullptr, nullptr);
    debug_UI("not captured");

    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ("[AVStreamer m_groupId : 3] ServerOpen() Start", lines[0]);
    EXPECT_EQ("DeleteGroup--- Ret 259", lines[1]);
    EXPECT_GT(lines[2].size(), 500u);
    EXPECT_LT(lines[2].size(), 5000u);
    EXPECT_EQ("nRcv : 0, Pal_RingBufRead Error", lines[3]);
    // However slow the machine, at most one count and one line per second.
    unsigned int held = 0;
    EXPECT_LE(lines.size(), 3u + 1u + 2u * ((PAL_GetClock() - start) / 1000u));
    for (size_t i = 4; i + 1 < lines.size(); i += 2) {
        EXPECT_EQ(1, sscanf(lines[i].c_str(), "(%u more of the next line in", &held)) << lines[i];
        EXPECT_NE(std::string::npos, lines[i + 1].find(", Pal_RingBufRead Error"));
    }
    EXPECT_GT(held, 0u);
}

namespace {

const char* kGroup = "224.1.2.4";
const char* kPhone = "127.0.0.1";

bool readable(int sock, int ms) {
    struct pollfd pfd = {sock, POLLIN, 0};
    return poll(&pfd, 1, ms) == 1;
}

// A datagram socket on port: a member of the group, or a unicast one.
int udp_socket(unsigned short port, bool group) {
    int s = PAL_SockCreate(PAL_SOCK_UDP);
    EXPECT_EQ(0, PAL_SockServerOpen(s, group ? kGroup : kPhone, port, PAL_SOCK_UDP,
                                    group ? PAL_NET_MULTI : PAL_NET_UNI));
    if (group) {
        EXPECT_EQ(0, PAL_SockJoinGroup(s, kGroup, kPhone));
    }
    return s;
}

}  // namespace

// The group as discovery uses it (the sender never joins, it only names
// the interface); a unicast datagram to the same port is not the group's,
// and of two unicast sockets sharing the port (two streamers) the kernel
// hands it to one, with its source.
TEST(PalSocket, GroupAndUnicastDatagramsWithTheirSource) {
    const unsigned short port = 41234;
    int a = udp_socket(port, true), b = udp_socket(port, true);
    int uni[2] = {udp_socket(port, false), udp_socket(port, false)};
    int tx = PAL_SockCreate(PAL_SOCK_UDP);
    ASSERT_EQ(0, PAL_SockOpen(tx, "127.0.0.3", 9090, PAL_SOCK_UDP, PAL_NET_UNI));
    ASSERT_EQ(0, PAL_SockSetMulticastIf(tx, kPhone));
    ASSERT_EQ(6, PAL_SockWrite(tx, PAL_SOCK_UDP, "SEARCH", 6, kGroup, port));
    std::vector<unsigned char> dgram(1412), in(2000);
    for (int s : {a, b}) {
        ASSERT_TRUE(readable(s, 5000));
        EXPECT_EQ(6, PAL_SockRead(s, PAL_SOCK_UDP, in.data(), (int)in.size()));
        EXPECT_EQ(0, memcmp(in.data(), "SEARCH", 6));
    }
    for (size_t i = 0; i < dgram.size(); i++) dgram[i] = (unsigned char)i;
    ASSERT_EQ(1412, PAL_SockWrite(tx, PAL_SOCK_UDP, dgram.data(), 1412, kPhone, port));
    struct pollfd pfds[2] = {{uni[0], POLLIN, 0}, {uni[1], POLLIN, 0}};
    ASSERT_EQ(1, poll(pfds, 2, 5000));
    char fromIp[20];
    memset(fromIp, 'x', sizeof(fromIp));
    unsigned short fromPort = 0;
    ASSERT_EQ(1412, PAL_SockRecvFrom((pfds[0].revents & POLLIN) ? uni[0] : uni[1], in.data(),
                                     (int)in.size(), fromIp, &fromPort));
    EXPECT_EQ(0, memcmp(in.data(), dgram.data(), 1412));
    EXPECT_STREQ("127.0.0.3", fromIp);
    EXPECT_EQ(9090, fromPort);
    // A destination resolved once, as the RTP path keeps it, must be an address.
    PAL_SOCK_DEST dest;
    EXPECT_FALSE(readable(a, 200));
    EXPECT_EQ(-1, PAL_SockDestSet(&dest, "127.0.0.300", 15000));
    EXPECT_EQ(-1, PAL_SockDestSet(&dest, nullptr, 15000));
    // Non-blocking with nothing queued: -1 at once.
    ASSERT_EQ(0, PAL_SetBlockingMode(uni[0], 0));
    EXPECT_EQ(-1, PAL_SockRead(uni[0], PAL_SOCK_UDP, in.data(), 10));
    EXPECT_EQ(-1, PAL_SockRecvFrom(uni[0], in.data(), 10, nullptr, nullptr));
    // Leaving works once; a group socket needs the group's address.
    EXPECT_EQ(0, PAL_SockLeaveGroup(b, kGroup, kPhone));
    EXPECT_EQ(-1, PAL_SockLeaveGroup(b, kGroup, kPhone));
    int nogroup = PAL_SockCreate(PAL_SOCK_UDP);
    EXPECT_EQ(-1, PAL_SockServerOpen(nogroup, nullptr, port, PAL_SOCK_UDP, PAL_NET_MULTI));
    for (int s : {a, b, tx, uni[0], uni[1], nogroup}) EXPECT_EQ(0, PAL_SockClose(s));
}

TEST(PalSocket, TcpControlConnection) {
    // A second listener on a busy port fails (the control server then moves
    // to another port).
    int srv = PAL_SockCreate(PAL_SOCK_TCP), busy = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_EQ(0, PAL_SockServerOpen(srv, nullptr, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    EXPECT_EQ(-1, PAL_SockServerOpen(busy, nullptr, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    EXPECT_EQ(0, PAL_SockServerOpen(busy, nullptr, 1555, PAL_SOCK_TCP, PAL_NET_UNI));
    PAL_SockClose(busy);
    int cli = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_EQ(0, PAL_SockOpen(cli, kPhone, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    ASSERT_TRUE(readable(srv, 5000));
    int conn = accept(srv, nullptr, nullptr);
    ASSERT_GE(conn, 0);

    // A big write from a non-blocking socket still goes out whole.
    std::vector<char> big(4 * 1024 * 1024), in(big.size());
    for (size_t i = 0; i < big.size(); i++) big[i] = (char)(i * 7);
    ASSERT_EQ(0, PAL_SetBlockingMode(conn, 0));
    size_t received = 0;
    std::thread reader([&] {
        for (int n = 1; n > 0 && received < big.size() && readable(cli, 10000); received += n)
            n = std::max(0, PAL_SockRead(cli, PAL_SOCK_TCP, &in[received],
                                         (int)std::min<size_t>(65536, in.size() - received)));
    });
    EXPECT_EQ((int)big.size(),
              PAL_SockWrite(conn, PAL_SOCK_TCP, big.data(), (int)big.size(), nullptr, 0));
    reader.join();
    EXPECT_TRUE(big == in);

    // The peer goes away: reads see 0, writes fail without killing us.
    PAL_SockClose(cli);
    char buf[64];
    ASSERT_EQ(0, PAL_SetBlockingMode(conn, 1));
    ASSERT_TRUE(readable(conn, 5000));
    EXPECT_EQ(0, PAL_SockRead(conn, PAL_SOCK_TCP, buf, sizeof(buf)));
    int rc = 0;
    for (int i = 0; i < 10 && rc != -1; i++, PAL_ThreadSleep(20))
        rc = PAL_SockWrite(conn, PAL_SOCK_TCP, "ALIVE\r\n", 7, nullptr, 0);
    EXPECT_EQ(-1, rc);
    PAL_SockClose(conn);
    PAL_SockClose(srv);
}
