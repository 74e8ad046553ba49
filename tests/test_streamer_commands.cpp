// Commands the streamer sends to its receivers, against scripted receivers on
// loopback: the SEARCH invitation (multicast and unicast), join, seek,
// pause, resume, stop, quit, clock and alive. (Leave: test_streamer_playback.)
#include <arpa/inet.h>

#include "streamer_harness.h"

namespace {

class StreamerCommands : public StreamerTest {
protected:
    // Connects one scripted receiver per address and waits for the sessions.
    void ConnectAll(std::vector<std::unique_ptr<ScriptedReceiver>>& rx,
                    const std::vector<const char*>& ips) {
        for (const char* ip : ips) {
            rx.emplace_back(new ScriptedReceiver(ip));
            ASSERT_TRUE(rx.back()->Connect(kTcpPort));
        }
        ASSERT_TRUE(WaitUntil([&] { return Probe::SessionCount(st) == (int)ips.size(); }));
    }
};

// All datagrams that arrive on fd within ms.
std::vector<std::string> Datagrams(int fd, int ms) {
    std::vector<std::string> got;
    unsigned int end = NowMs() + ms;
    while ((int)(end - NowMs()) > 0) {
        if (rx_wait_readable(fd, (int)(end - NowMs())) != 1) break;
        char buf[2048];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n > 0) got.emplace_back(buf, (size_t)n);
    }
    return got;
}

std::string Addr4(const char* ip) {
    in_addr_t a = inet_addr(ip);
    return std::string((const char*)&a, 4);
}

}  // namespace

TEST_F(StreamerCommands, SearchAndJoinsInviteByMulticastAndUnicastUpToThirty) {
    CAVStreamer::SetGUID("0123456789abcdef0123456789abcdef0123456789");  // 42 characters
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"not-an-address", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.4", AV_CHANNEL_PARTY, 3}});
    int listener = rx_udp_group("224.1.2.4", 21234, "127.0.0.9");
    ASSERT_GE(listener, 0);
    unsigned int before = NowMs();
    EXPECT_EQ(0, st->ReceiverSearch(&Probe::Receivers(st)));
    std::vector<std::string> got = Datagrams(listener, 1000);
    close(listener);
    ASSERT_EQ(8u, got.size());
    uint32_t reqTs = Probe::Receivers(st).AVReceiver[0].SearchTs;
    EXPECT_GE(reqTs, before);
    for (int i = 1; i < 3; i++) EXPECT_EQ(reqTs, Probe::Receivers(st).AVReceiver[i].SearchTs);
    std::string text = "SEARCH\r\nGUID: 0123456789abcdef0123456789abcdef0123456\r\nREQ_TS: " +
                       std::to_string(reqTs) + "\r\nServer: 127.0.0.1:31554\r\nClient: ";
    for (const std::string& d : got) EXPECT_EQ(text + Addr4("127.0.0.2") + Addr4("127.0.0.4"), d);

    // A join takes the first free slot and is invited by unicast only.
    int joiner = rx_udp_bind("127.0.0.7", 21234);
    ASSERT_GE(joiner, 0);
    AV_RECEIVER r;
    memset(&r, 0, sizeof(r));
    snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.0.7");
    r.ChannelType = AV_CHANNEL_WOOFER;
    unsigned int t0 = NowMs();
    EXPECT_EQ(0, st->AVStreamerReceiverIn(r));
    got = Datagrams(joiner, 400);
    close(joiner);
    EXPECT_LT(NowMs() - t0, 2000u);
    ASSERT_EQ(8u, got.size());
    AV_RECEIVER& e = Probe::Receivers(st).AVReceiver[3];
    EXPECT_STREQ("127.0.0.7", e.pReceiverIP);
    EXPECT_EQ(1, e.bActive);
    EXPECT_EQ(AV_CHANNEL_WOOFER, e.ChannelType);
    EXPECT_EQ(4, Probe::ReceiverCount(st));
    EXPECT_EQ(4, Probe::MaxIdx(st));
    EXPECT_EQ("SEARCH\r\nGUID: 0123456789abcdef0123456789abcdef0123456\r\nREQ_TS: " +
                  std::to_string(e.SearchTs) +
                  "\r\nServer: 127.0.0.1:31554\r\nClient: " + Addr4("127.0.0.7"),
              got[0]);

    // The joined receiver connects like any other.
    ScriptedReceiver late("127.0.0.7");
    ASSERT_TRUE(late.Connect(kTcpPort));
    ASSERT_TRUE(WaitUntil([&] { return Sess(3).bActive.load(); }));

    // A join stamping its entry just after the server read its clock: the
    // newer stamp is not yet due, not 49 days overdue.
    Locked(0, [&] { return Probe::Receivers(st).AVReceiver[0].SearchTs = NowMs() + 3000; });
    PAL_ThreadSleep(600);  // the server checks every 200 ms
    EXPECT_EQ(4, Probe::ReceiverCount(st));

    for (int i = 4; i < AV_MAX_RECEIVER; i++) {
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.2.%d", i);
        EXPECT_EQ(0, st->AVStreamerReceiverIn(r));
    }
    snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "127.0.3.1");
    EXPECT_EQ(AV_ERR_NO_FREE_SLOT, st->AVStreamerReceiverIn(r));
    EXPECT_EQ(30, Probe::ReceiverCount(st));
}

TEST_F(StreamerCommands, PlaybackCommandsFollowTheStateTableAndBroadcastRules) {
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"127.0.0.3", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.4", AV_CHANNEL_PARTY, 3}});
    std::vector<std::unique_ptr<ScriptedReceiver>> rx;
    ConnectAll(rx, {"127.0.0.2", "127.0.0.3", "127.0.0.4"});
    auto expectAll = [&](const std::string& text, std::vector<int> who) {
        for (int i = 0; i < 3; i++) {
            if (std::find(who.begin(), who.end(), i) != who.end())
                EXPECT_EQ(text, rx[i]->Next()) << "receiver " << i;
            else
                EXPECT_TRUE(rx[i]->Quiet(150)) << "receiver " << i;
        }
    };

    // Not yet open: pause, resume and seek are refused, stop is silent.
    st->AVStreamerPause();
    st->AVStreamerResume();
    st->AVStreamerSeek(5);
    st->AVStreamerStop();
    expectAll("", {});
    EXPECT_FALSE(st->canAction(-1));
    EXPECT_FALSE(st->canAction(STREAM_ACTION_MAX));

    st->SetStreamState(STREAM_STATE_OPEN);
    st->AVStreamerPause();
    expectAll("PAUSE\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(STREAM_STATE_PAUSE, st->GetStreamState());
    st->AVStreamerPause();  // not allowed twice
    expectAll("", {});
    st->AVStreamerResume();
    expectAll("RESUME\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());

    // No stream thread yet: the seek does not wait for the music source.
    st->AVStreamerSeek(30);
    expectAll("SEEK\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());

    EXPECT_TRUE(st->SendReqClock(2));
    expectAll("CLOCK RTSP/1.0\r\n\r\n", {2});
    EXPECT_TRUE(st->ReceiverAlive(0));
    expectAll("ALIVE\r\n\r\n", {0});
    EXPECT_FALSE(st->SendReqClock(7));  // no connection
    // A session put into CLOCK takes its next text as the clock answer.
    Sess(2).ServerState = AV_STREAMER_STATE_CLOCK;
    rx[2]->Send("Clock: 123456\r\n\r\n");
    EXPECT_TRUE(StateBecomes(2, AV_STREAMER_STATE_PLAY));

    st->AVSenderStopNotify();
    expectAll("QUIT_SENDER\r\n\r\n", {0, 1, 2});
    st->AVStreamerStop();
    expectAll("BYE RTSP/1.0\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(STREAM_STATE_STOP, st->GetStreamState());
    EXPECT_EQ(3, Probe::SessionCount(st));  // sessions stay until they answer
    st->AVStreamerSeek(1);                  // refused after stop
    expectAll("", {});
}

// Discovery's EXIT handling takes a receiver out of its stream (a leave that
// waits for BYE_ACK) while the application closes that stream: the two meet
// on the session mutexes, the queue and the connection, in every order.
TEST_F(StreamerCommands, CloseRacingAnExitOfAPlayingMemberIsSafe) {
#if defined(__SANITIZE_THREAD__)
    const int kRounds = 500;
#else
    const int kRounds = 50;  // the ThreadSanitizer build runs the full 500
#endif
    for (int round = 0; round < kRounds; round++) {
        CAVStreamer* s = new CAVStreamer(&EventLog::Notify, &events, 42);
        ASSERT_EQ(0, StartServer(s, {{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1}}, kTcpPort, kRtpPort));
        ScriptedReceiver rx("127.0.0.2");
        ASSERT_TRUE(rx.Connect(kTcpPort));
        ASSERT_EQ(5u, rx.Handshake().size());
        // Fed enough to start: the stream thread runs once the packets come.
        static char pcm[16384];
        ASSERT_TRUE(s->ReceiverMediaWrite(0, pcm, sizeof(pcm)));
        ASSERT_EQ(1412u, rx.Rtp(5000).size());
        std::thread exitPath([&] { s->AVStreamerReceiverOut("127.0.0.2"); });
        if (round % 2) PAL_ThreadSleep(round % 7);
        Probe::CloseServer(s);
        exitPath.join();
        delete s;
    }
}
