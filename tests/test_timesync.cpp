// Time synchronisation: the initiator (master) against the receiver-side
// client, on loopback inside the test namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ClockEstimator.h"
#include "PAL_Clock.h"
#include "RxSocket.h"
#include "TimeSyncClient.h"
#include "TimeSyncInitiator.h"
#include "TimeSyncWire.h"

namespace {

const long long kArtificialOffsetUs = 7654321987LL;

long long shifted_clock(void*) {
    return PAL_GetBootTimeUsec() + kArtificialOffsetUs;
}
long long millisecond_clock() {
    return PAL_GetBootTimeUsec() / 1000 * 1000;
}
long long foreign_clock() {
    return PAL_GetBootTimeUsec() + 5000000;
}
// The boot clock, whose first reading reaches its caller 20 ms late, as when
// the reading thread loses its core right after reading.
int g_lateClockCalls = 0;
long long late_first_clock() {
    long long now = PAL_GetBootTimeUsec();
    if (g_lateClockCalls++ == 0) PAL_ThreadSleep(20);
    return now;
}

}  // namespace

TEST(ClockEstimator, RefusesImpossibleStampsOutvotesALiarAndFollowsARealJump) {
    ClockEstimator e;
    long long out = 0;
    EXPECT_FALSE(e.ToMaster(0, &out));
    const long long big = 1LL << 62;
    long long bad[][4] = {
        {1000, 500, 400, 1100},     // master answered before it heard
        {1000, 500, 600, 900},      // arrived before it left
        {1000, 500, 501, 3000000},  // three seconds of queueing
        {0, -big, big, 1},          // beyond any clock
        {1000, 800, 1200, 1300},    // the master held it longer than the trip
    };
    for (auto& b : bad) EXPECT_EQ(CE_REJECTED, e.AddExchange(b[0], b[1], b[2], b[3]));
    EXPECT_EQ(5u, e.Status().rejected);
    EXPECT_FALSE(e.Status().have);
    // Twenty honest exchanges: master = local - 1000, 20 us each way.
    long long t = 1000000;
    for (int i = 0; i < 20; i++, t += 20000)
        ASSERT_EQ(CE_USED, e.AddExchange(t, t - 980, t - 975, t + 45));
    ASSERT_TRUE(e.ToMaster(t, &out));
    EXPECT_LE(llabs(out - (t - 1000)), 3);
    // A liar: tight bounds 300 us off. It is outvoted, so the clock holds.
    EXPECT_EQ(CE_USED, e.AddExchange(t, t - 680, t - 675, t + 45));
    t += 20000;
    ASSERT_TRUE(e.ToMaster(t, &out));
    EXPECT_LE(llabs(out - (t - 1000)), 3);
    // One exchange a second off is held back; a second agreeing one is a
    // master that restarted with another clock: the estimate follows it.
    EXPECT_EQ(CE_REJECTED, e.AddExchange(t, t + 999020, t + 999025, t + 45));
    t += 20000;
    EXPECT_EQ(CE_RESTARTED, e.AddExchange(t, t + 999020, t + 999025, t + 45));
    ASSERT_TRUE(e.ToMaster(t, &out));
    EXPECT_LE(llabs(out - (t + 999000)), 3);
    EXPECT_EQ(1u, e.Status().restarts);
    // Local time running backwards is refused.
    EXPECT_EQ(CE_REJECTED, e.AddExchange(t - 50000, t + 999020, t + 999025, t - 49955));
}

class TimeSync : public ::testing::Test {
protected:
    void StartMaster(TIMESYNC_CLOCK_FUNC clock) {
        ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                              clock));
        ASSERT_EQ(0, TimeSyncInitiator_Start());
    }
    void TearDown() override { TimeSyncInitiator_Delete(); }

    // Waits until the client has used at least n responses.
    static bool WaitResponses(TimeSyncClient& c, unsigned int n) {
        for (int i = 0; i < 500; i++) {
            if (c.Stats().responses >= n) return true;
            PAL_ThreadSleep(10);
        }
        return false;
    }
};

TEST_F(TimeSync, ClientLearnsTheMasterAndFollowsItThroughARestart) {
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - PAL_GetBootTimeUsec() / 1000),
              1);                    // before Create: the boot clock
    StartMaster(millisecond_clock);  // the phone's clock has millisecond steps
    TimeSyncClient client;
    TimeSyncClientConfig cfg;
    TimeSyncClientDefaults(&cfg, "127.0.0.2");  // no master address given
    cfg.clock = shifted_clock;
    cfg.fastIntervalMs = 10;
    cfg.fastCount = 1000;  // keep asking quickly through the restart
    ASSERT_EQ(0, client.Start(cfg));
    PAL_ThreadSleep(100);
    EXPECT_EQ(0u, client.Stats().responses);
    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 500000));
    ASSERT_TRUE(WaitResponses(client, 20));
    // The master's clock is the boot clock in whole milliseconds; the client
    // finds it to within one.
    long long m1 = 0;
    ASSERT_TRUE(client.MasterNowUs(&m1));
    EXPECT_LT(llabs(m1 - PAL_GetBootTimeUsec()), 1000) << m1;
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - m1 / 1000), 2);
    TimeSyncClientStats st = client.Stats();
    EXPECT_EQ(0u, st.malformed);
    EXPECT_GT(st.announces, 0u);
    EXPECT_LT(llabs(st.lastOffsetUs + kArtificialOffsetUs), 1000);

    // Create again while running is refused; after Delete it is allowed. The
    // master comes back with a clock 5 s ahead: the client follows it.
    EXPECT_EQ(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          PAL_GetBootTimeUsec));
    TimeSyncInitiator_Delete();
    EXPECT_EQ(-1, TimeSyncInitiator_SyncOnce(20000, 100000));  // not started
    StartMaster(foreign_clock);
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() -
                    (PAL_GetBootTimeUsec() + 5000000) / 1000),
              2);
    ASSERT_TRUE(WaitResponses(client, client.Stats().responses + 10));
    ASSERT_TRUE(client.MasterNowUs(&m1));
    EXPECT_LT(llabs(m1 - (PAL_GetBootTimeUsec() + 5000000)), 1000);
    EXPECT_EQ(1u, client.Stats().clockSteps);
    client.Stop();

    // A reading that came back late is not taken for an offset.
    TimeSyncInitiator_Delete();
    ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          late_first_clock));
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - PAL_GetBootTimeUsec() / 1000),
              2);
}

TEST_F(TimeSync, AnnouncementsFollowTheScheduleAndNameTheMaster) {
    StartMaster(PAL_GetBootTimeUsec);
    int sock = rx_udp_group("224.1.2.4", 1235, "127.0.0.3");
    ASSERT_GE(sock, 0);
    // Nothing is announced before a burst or a stream asks for it.
    EXPECT_EQ(0, rx_wait_readable(sock, 300));

    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 200000));
    int heard = 0;
    unsigned int lastSeq = 0;
    long long first = PAL_GetBootTimeUsec();
    while (rx_wait_readable(sock, 400) == 1) {
        unsigned char buf[64];
        ssize_t n = recv(sock, buf, sizeof(buf), 0);
        TswAnnounce a;
        ASSERT_EQ(0, tsw_get_announce(buf, (size_t)n, &a));
        EXPECT_EQ(inet_addr("127.0.0.1"), a.masterAddr);
        EXPECT_EQ(1235, a.port);
        EXPECT_GT(a.seq, lastSeq);
        EXPECT_LT(llabs(a.masterUs - PAL_GetBootTimeUsec()), 200000);
        lastSeq = a.seq;
        heard++;
    }
    long long span = PAL_GetBootTimeUsec() - first;
    // ~11 in 200 ms at 20 ms; generous bounds for a loaded machine.
    EXPECT_GE(heard, 5);
    EXPECT_LE(heard, 13);
    EXPECT_LT(span, 1500000);

    // A stream keeps announcing at the steady pace until StopSync.
    auto drain = [sock]() {
        int n = 0;
        for (unsigned char buf[64]; rx_wait_readable(sock, 0) == 1;)
            n += recv(sock, buf, sizeof(buf), 0) > 0;
        return n;
    };
    ASSERT_EQ(0, TimeSyncInitiator_StartSync(20000, 40000, 100000));
    PAL_ThreadSleep(500);
    EXPECT_GE(drain(), 4);
    TimeSyncInitiator_StopSync();
    PAL_ThreadSleep(250);
    drain();
    EXPECT_EQ(0, rx_wait_readable(sock, 400));
    close(sock);
}

TEST_F(TimeSync, MalformedRequestsAreIgnoredAndGoodOnesStillAnswered) {
    StartMaster(PAL_GetBootTimeUsec);
    int sock = rx_udp_bind("127.0.0.5", 0);
    ASSERT_GE(sock, 0);
    struct sockaddr_in master;
    ASSERT_TRUE(rx_sockaddr("127.0.0.1", 1235, &master));
    unsigned char good[TSW_REQUEST_LEN];
    TswRequest req = {77, 123456789LL};
    tsw_put_request(good, &req);
    // A wrong magic, version or type, and a truncated request.
    const struct {
        int at, value;
        size_t len;
    } bad[] = {{0, 'X', sizeof(good)},
               {4, 2, sizeof(good)},
               {5, TSW_TYPE_RESPONSE, sizeof(good)},
               {0, good[0], 10}};
    for (const auto& b : bad) {
        unsigned char d[TSW_REQUEST_LEN];
        memcpy(d, good, sizeof(d));
        d[b.at] = (unsigned char)b.value;
        sendto(sock, d, b.len, 0, (struct sockaddr*)&master, sizeof(master));
    }
    EXPECT_EQ(0, rx_wait_readable(sock, 300));
    long long before = PAL_GetBootTimeUsec();
    sendto(sock, good, sizeof(good), 0, (struct sockaddr*)&master, sizeof(master));
    ASSERT_EQ(1, rx_wait_readable(sock, 2000));
    unsigned char buf[128];
    ssize_t n = recv(sock, buf, sizeof(buf), 0);
    long long after = PAL_GetBootTimeUsec();
    TswResponse res;
    ASSERT_EQ(0, tsw_get_response(buf, (size_t)n, &res));
    EXPECT_EQ(77u, res.id);
    EXPECT_EQ(123456789LL, res.t1);
    EXPECT_GE(res.t2, before);
    EXPECT_LE(res.t2, res.t3);
    EXPECT_LE(res.t3, after);
    close(sock);
}
