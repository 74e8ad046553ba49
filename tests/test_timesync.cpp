// Time synchronisation: the receiver's clock estimator on made-up
// exchanges, then the initiator (master) against a receiver-side client and
// a raw socket on loopback inside the test namespace.
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

bool start_master(TIMESYNC_CLOCK_FUNC clock) {
    return TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"), clock) &&
           TimeSyncInitiator_Start() == 0;
}

// |the master's clock now - expectedUs| in ms.
long long master_off_ms(long long expectedUs) {
    return llabs((long long)TimeSyncInitiator_GetCurrentClock() - expectedUs / 1000);
}

// Waits until the client has used at least n responses.
bool wait_responses(TimeSyncClient& c, unsigned int n) {
    for (int i = 0; i < 500 && c.Stats().responses < n; i++) PAL_ThreadSleep(10);
    return c.Stats().responses >= n;
}

// Announcements arriving on sock each within waitMs of the last, each
// checked to name the master.
int drain_announcements(int sock, int waitMs) {
    int n = 0;
    for (unsigned int lastSeq = 0; rx_wait_readable(sock, waitMs) == 1; n++) {
        unsigned char buf[64];
        TswAnnounce a;
        EXPECT_EQ(0, tsw_get_announce(buf, (size_t)recv(sock, buf, sizeof(buf), 0), &a));
        EXPECT_EQ(inet_addr("127.0.0.1"), a.masterAddr);
        EXPECT_EQ(1235, a.port);
        EXPECT_GT(a.seq, lastSeq);
        const long long now = PAL_GetBootTimeUsec();  // queued up to 0.5 s
        EXPECT_TRUE(a.masterUs <= now && a.masterUs > now - 1000000) << now - a.masterUs;
        lastSeq = a.seq;
    }
    return n;
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
    // Twenty honest exchanges (master = local - 1000, 20 us each way), then
    // a liar with tight bounds 300 us off, which is outvoted: the clock holds.
    long long t = 1000000;
    for (int i = 0; i < 21; i++, t += 20000)
        ASSERT_EQ(CE_USED,
                  e.AddExchange(t, t - (i < 20 ? 980 : 680), t - (i < 20 ? 975 : 675), t + 45));
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

// The master through its life: before Create its clock is the boot clock;
// started, it announces nothing until a burst or a stream asks for it; a
// burst follows its schedule and a client learns the master's millisecond
// clock from it to within one (which it can only with every answer's id
// and stamps right); a stream
// announces until StopSync; a master that restarts with a clock 5 s ahead
// is followed; a clock reading that came back late is not taken for an
// offset.
TEST(TimeSync, MasterAnnouncesAnswersAndIsFollowedThroughARestart) {
    EXPECT_LE(master_off_ms(PAL_GetBootTimeUsec()), 1);
    ASSERT_TRUE(start_master(millisecond_clock));
    TimeSyncClient client;
    TimeSyncClientConfig cfg;
    TimeSyncClientDefaults(&cfg, "127.0.0.2");  // no master address given
    cfg.clock = shifted_clock;
    cfg.fastIntervalMs = 10;
    cfg.fastCount = 1000;  // keep asking quickly through the restart
    ASSERT_EQ(0, client.Start(cfg));
    int group = rx_udp_group("224.1.2.4", 1235, "127.0.0.3");
    ASSERT_GE(group, 0);
    EXPECT_EQ(0, drain_announcements(group, 300));
    EXPECT_EQ(0u, client.Stats().responses);

    // ~11 in 200 ms at 20 ms; generous bounds for a loaded machine.
    long long first = PAL_GetBootTimeUsec();
    ASSERT_EQ(0, TimeSyncInitiator_SyncOnce(20000, 200000));
    int heard = drain_announcements(group, 400);
    EXPECT_GE(heard, 5);
    EXPECT_LE(heard, 13);
    EXPECT_LT(PAL_GetBootTimeUsec() - first, 1500000);
    ASSERT_TRUE(wait_responses(client, 20));
    long long m1 = 0;
    ASSERT_TRUE(client.MasterNowUs(&m1));
    EXPECT_LT(llabs(m1 - PAL_GetBootTimeUsec()), 1000) << m1;
    EXPECT_LE(llabs((long long)TimeSyncInitiator_GetCurrentClock() - m1 / 1000), 2);
    TimeSyncClientStats st = client.Stats();
    EXPECT_EQ(0u, st.malformed);
    EXPECT_GT(st.announces, 0u);
    EXPECT_LT(llabs(st.lastOffsetUs + kArtificialOffsetUs), 1000);

    ASSERT_EQ(0, TimeSyncInitiator_StartSync(20000, 40000, 100000));
    PAL_ThreadSleep(500);
    EXPECT_GE(drain_announcements(group, 0), 4);
    TimeSyncInitiator_StopSync();
    PAL_ThreadSleep(250);
    drain_announcements(group, 0);
    EXPECT_EQ(0, rx_wait_readable(group, 400));
    close(group);

    // Create again while running is refused; after Delete it is allowed.
    EXPECT_FALSE(start_master(PAL_GetBootTimeUsec));
    TimeSyncInitiator_Delete();
    EXPECT_EQ(-1, TimeSyncInitiator_SyncOnce(20000, 100000));  // not started
    ASSERT_TRUE(start_master(foreign_clock));
    EXPECT_LE(master_off_ms(foreign_clock()), 2);
    ASSERT_TRUE(wait_responses(client, client.Stats().responses + 10));
    ASSERT_TRUE(client.MasterNowUs(&m1));
    EXPECT_LT(llabs(m1 - foreign_clock()), 1000);
    EXPECT_EQ(1u, client.Stats().clockSteps);
    client.Stop();
    TimeSyncInitiator_Delete();

    ASSERT_NE(0, TimeSyncInitiator_Create(inet_addr("224.1.2.4"), 1235, inet_addr("127.0.0.1"),
                                          late_first_clock));
    EXPECT_LE(master_off_ms(PAL_GetBootTimeUsec()), 2);
    TimeSyncInitiator_Delete();
}
