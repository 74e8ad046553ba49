// Time synchronisation: the initiator (master) against the receiver-side
// client, on loopback inside the test namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <math.h>

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

// Synthetic exchanges for the estimator: the master's clock is the truth,
// the receiver's runs offsetUs ahead and drifts by ppm; each one-way delay is
// 30 us plus a uniform jitter; requests every 20 ms for the first 50, then
// every second. Every few ms the clock handed out is compared with the truth.
struct Lab {
    long long offsetUs = 37000;
    double ppm = 100;
    long long jitterUs = 0;
    int lossEvery = 0;  // every n-th exchange lost (0 = none)
    unsigned int seed = 1;

    long long Local(long long master) const {
        return master + offsetUs + (long long)llround((double)master * ppm * 1e-6);
    }
    long long Jitter() {
        seed = seed * 1103515245u + 12345u;
        return jitterUs ? (long long)((seed >> 8) % (unsigned int)jitterUs) : 0;
    }
    // Feeds exchanges for `seconds`; worst |error| after `settleS`, and whether
    // the clock handed out ever went backwards after acquisition.
    void Run(ClockEstimator* e, double seconds, double settleS, long long* worst, bool* backwards) {
        *worst = 0;
        *backwards = false;
        long long next = 0, lastOut = 0;
        int n = 0;
        for (long long t = 0; t < (long long)(seconds * 1e6); t += 5000) {
            while (next <= t) {
                long long f = 30 + Jitter(), b = 30 + Jitter();
                if (++n % (lossEvery ? lossEvery : 1 << 30) != 0)
                    e->AddExchange(Local(next), next + f, next + f + 5, Local(next + f + 5 + b));
                next += n < 50 ? 20000 : 1000000;
            }
            long long out = 0;
            if (!e->ToMaster(Local(t), &out)) continue;
            if (e->Status().acquired && out < lastOut) *backwards = true;
            lastOut = out;
            if (t >= (long long)(settleS * 1e6)) *worst = std::max(*worst, llabs(out - t));
        }
    }
};

TEST(ClockEstimator, FollowsOffsetAndDriftThroughJitterAndLossWithoutGoingBack) {
    struct {
        long long offsetUs;
        double ppm;
        long long jitterUs;
        int lossEvery;
        long long worstUs;
    } cases[] = {
        {37000, 100, 0, 0, 20},              // clean: the rounding of the stamps
        {-987654321, -80, 0, 3, 20},         // every third exchange lost
        {37000, 100, 2000, 0, 500},          // 0-2 ms one-way jitter each way
        {123456789012LL, 300, 2000, 7, 500}  // both, and a fast crystal
    };
    for (const auto& c : cases) {
        Lab lab;
        lab.offsetUs = c.offsetUs;
        lab.ppm = c.ppm;
        lab.jitterUs = c.jitterUs;
        lab.lossEvery = c.lossEvery;
        ClockEstimator e;
        long long worst = 0;
        bool backwards = false;
        lab.Run(&e, 90, 5, &worst, &backwards);
        SCOPED_TRACE(c.jitterUs);
        EXPECT_LE(worst, c.worstUs) << "offset " << c.offsetUs << " ppm " << c.ppm;
        EXPECT_FALSE(backwards);
        ClockEstimatorStatus st = e.Status();
        EXPECT_TRUE(st.acquired);
        EXPECT_NEAR(-c.ppm, st.driftPpm, c.jitterUs ? 5 : 1);
        EXPECT_EQ(0u, st.restarts);
    }
}

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

TEST_F(TimeSync, ClientLearnsTheMasterAndEstimatesItsClockWithinOneMillisecond) {
    StartMaster(millisecond_clock);  // the phone's clock has millisecond steps
    TimeSyncClient client;
    TimeSyncClientConfig cfg;
    TimeSyncClientDefaults(&cfg, "127.0.0.2");  // no master address given
    cfg.clock = shifted_clock;
    ASSERT_EQ(0, client.Start(cfg));
    PAL_ThreadSleep(100);
    EXPECT_EQ(0u, client.Stats().responses);
    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 500000));
    ASSERT_TRUE(WaitResponses(client, 20));
    for (int i = 0; i < 5; i++) {
        long long estimate = 0;
        ASSERT_TRUE(client.MasterNowUs(&estimate));
        long long master = PAL_GetBootTimeUsec();  // same clock, microseconds
        EXPECT_LT(llabs(estimate - master), 1000)
            << "estimate " << estimate << " master " << master;
        PAL_ThreadSleep(30);
    }
    long long m1 = 0;
    ASSERT_TRUE(client.MasterNowUs(&m1));
    unsigned int ms = TimeSyncInitiator_GetCurrentClock();
    EXPECT_LE(llabs((long long)ms - m1 / 1000), 2);
    TimeSyncClientStats st = client.Stats();
    EXPECT_EQ(0u, st.malformed);
    EXPECT_GT(st.announces, 0u);
    EXPECT_LT(llabs(st.lastOffsetUs + kArtificialOffsetUs), 1000);
    client.Stop();
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
    ASSERT_EQ(0, TimeSyncInitiator_StartSync(20000, 40000, 100000));
    PAL_ThreadSleep(500);
    int during = 0;
    while (rx_wait_readable(sock, 0) == 1) {
        unsigned char buf[64];
        if (recv(sock, buf, sizeof(buf), 0) > 0) during++;
    }
    EXPECT_GE(during, 4);
    TimeSyncInitiator_StopSync();
    PAL_ThreadSleep(250);
    while (rx_wait_readable(sock, 0) == 1) {
        unsigned char buf[64];
        recv(sock, buf, sizeof(buf), 0);
    }
    EXPECT_EQ(0, rx_wait_readable(sock, 400));
    close(sock);
}

TEST_F(TimeSync, ClientFollowsAMasterThatRestartsWithAnotherClock) {
    StartMaster(PAL_GetBootTimeUsec);
    TimeSyncClient client;
    TimeSyncClientConfig cfg;
    TimeSyncClientDefaults(&cfg, "127.0.0.6");
    rx_copy_text(cfg.masterAddr, sizeof(cfg.masterAddr), "127.0.0.1");
    cfg.fastIntervalMs = 10;
    cfg.fastCount = 1000;  // keep asking quickly through the restart
    ASSERT_EQ(0, client.Start(cfg));
    ASSERT_TRUE(WaitResponses(client, 10));
    TimeSyncInitiator_Delete();
    StartMaster(foreign_clock);  // 5 s ahead of the boot clock
    unsigned int before = client.Stats().responses;
    ASSERT_TRUE(WaitResponses(client, before + 10));
    long long estimate = 0;
    ASSERT_TRUE(client.MasterNowUs(&estimate));
    EXPECT_LT(llabs(estimate - (PAL_GetBootTimeUsec() + 5000000)), 1000);
    EXPECT_EQ(1u, client.Stats().clockSteps);
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
    unsigned char bad[4][TSW_REQUEST_LEN];
    for (auto& b : bad) memcpy(b, good, sizeof(good));
    bad[0][0] = 'X';                                                  // magic
    bad[1][4] = 2;                                                    // version
    bad[2][5] = TSW_TYPE_RESPONSE;                                    // type
    size_t lens[4] = {sizeof(good), sizeof(good), sizeof(good), 10};  // last: truncated
    for (int i = 0; i < 4; i++) {
        sendto(sock, bad[i], lens[i], 0, (struct sockaddr*)&master, sizeof(master));
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

TEST_F(TimeSync, MasterClockFollowsTheClockHandedIn) {
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - PAL_GetBootTimeUsec() / 1000),
              1);  // before Create: the boot clock
    StartMaster(foreign_clock);
    long long expect = (PAL_GetBootTimeUsec() + 5000000) / 1000;
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - expect), 2);
    // Create again while running is refused; after Delete it is allowed.
    EXPECT_EQ(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          PAL_GetBootTimeUsec));
    TimeSyncInitiator_Delete();
    EXPECT_EQ(-1, TimeSyncInitiator_SyncOnce(20000, 100000));  // not started
    // A reading that came back late is not taken for an offset.
    ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          late_first_clock));
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - PAL_GetBootTimeUsec() / 1000),
              2);
}

}  // namespace
