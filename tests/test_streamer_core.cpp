// The streamer core against scripted receivers on loopback: the control
// handshake byte for byte, hostile requests, the commands the streamer sends
// (settings, playback, the search and join invitations), when the stream
// starts and who is dropped, session release, the channel filters, and a
// close racing a receiver's exit. (What the packets carry is checked with
// emulated receivers in test_streamer_playback.cpp.)
#include <arpa/inet.h>

#include <tuple>

#include "streamer_harness.h"

namespace {

const unsigned short kTcpPort = StreamerTest::kTcpPort;

class StreamerCore : public StreamerTest {
protected:
    // The bound of the used entries, the connected sessions, the listed
    // receivers.
    std::tuple<int, int, int> Counts() {
        return std::make_tuple(Probe::MaxIdx(st), Probe::SessionCount(st),
                               Probe::ReceiverCount(st));
    }
    AV_RECEIVER& Entry(int i) { return Probe::Receivers(st).AVReceiver[i]; }
};

// A datagram to the streamer's multicast group from a receiver's address.
void SendToGroup(const char* from, const std::string& text) {
    int fd = rx_udp_bind(from, 0);
    struct sockaddr_in sa;
    rx_sockaddr("224.1.2.4", 21234, &sa);
    sendto(fd, text.data(), text.size(), 0, (struct sockaddr*)&sa, sizeof(sa));
    close(fd);
}

// All datagrams that arrive on fd within ms; fd is closed.
std::vector<std::string> Datagrams(int fd, int ms) {
    std::vector<std::string> got;
    const unsigned int end = PAL_GetClock() + ms;
    char buf[2048];
    ssize_t n;
    while ((int)(end - PAL_GetClock()) > 0 &&
           rx_wait_readable(fd, (int)(end - PAL_GetClock())) == 1)
        if ((n = recv(fd, buf, sizeof(buf), 0)) > 0) got.emplace_back(buf, (size_t)n);
    close(fd);
    return got;
}

std::string Addr4(const char* ip) {
    in_addr_t a = inet_addr(ip);
    return std::string((const char*)&a, 4);
}

std::string Sdp(int cseq) {
    const std::string body =
        "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L16/44100/2\r\ni=Test Song\r\n";
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) +
           "\r\nContent-Type: application/sdp\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

// The SETUP reply for the client ports as the server read them.
std::string SetupReply(int cseq, const std::string& ports) {
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) +
           "\r\nTransport: RTP/AVP;unicast;client_port=" + ports +
           ";server_port=35000-35001\r\n\r\n";
}

std::string Start(const char* ref, const char* role) {
    return "START\r\nRef: " + std::string(ref) + "\r\nRole: " + role + "\r\n\r\n";
}

std::string Ok(int cseq) {
    return "RTSP/1.0 200 OK\r\nCseq: " + std::to_string(cseq) + "\r\n\r\n";
}

}  // namespace

TEST_F(StreamerCore, ReleaseShrinksTopOnlyAndHandsOverReference) {
    // Entries 0 and 3 share an address; 2, 4, 5 and 7 connect, 7 first.
    const char* ips[8] = {"127.0.0.50", "127.0.0.11", "127.0.0.12", "127.0.0.50",
                          "127.0.0.14", "127.0.0.15", "127.0.0.16", "127.0.0.17"};
    std::vector<RxSpec> listed;
    for (const char* ip : ips) listed.push_back({ip, AV_CHANNEL_FRONT_LEFT, 5});
    Open(listed);
    std::vector<std::unique_ptr<ScriptedReceiver>> rx =
        ConnectAll({ips[7], ips[2], ips[4], ips[5]});
    for (auto& r : rx)
        EXPECT_EQ(Start("127.0.0.17:5000", "Front_Left"),
                  r->Ask("CHANNEL\r\nSyncPort: 5000\r\n\r\n"));
    ASSERT_TRUE(st->ReceiverMediaWrite(5, (char*)"abcd", 4));
    EXPECT_EQ(1, st->ReceiverRelease(5));
    // Its queue emptied and kept for reuse; released once only.
    EXPECT_EQ(std::make_tuple(false, false, 0u, 0),
              std::make_tuple((bool)Sess(5).bActive, (bool)Sess(5).bIsPlayable,
                              Pal_RingBufUsed(Sess(5).pFD), (int)Entry(5).bActive));
    EXPECT_TRUE(rx[3]->ClosedByPeer());
    EXPECT_EQ(1, st->ReceiverRelease(5));
    EXPECT_EQ(std::make_tuple(8, 3, 7), Counts());

    EXPECT_EQ(1, st->ReceiverRelease(7));
    EXPECT_EQ(7, Probe::MaxIdx(st));
    EXPECT_EQ(std::make_tuple(false, true, false),
              std::make_tuple((bool)Sess(7).bRefRcv, (bool)Sess(2).bRefRcv, (bool)Sess(4).bRefRcv));

    // Receivers that never connected: a connected address is kept, a twice
    // listed one loses its lowest entry only, the top entry shrinks the bound.
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo("127.0.0.12"));
    EXPECT_EQ(1, st->ResetAcceptWaitReceiverInfo("127.0.0.50"));
    EXPECT_EQ(std::make_tuple(0, 1), std::make_tuple((int)Entry(0).bActive, (int)Entry(3).bActive));
    EXPECT_EQ(1, st->ResetAcceptWaitReceiverInfo("127.0.0.16"));
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo("127.0.0.99"));
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo(nullptr));
    EXPECT_EQ(std::make_tuple(6, 2, 4), Counts());

    // Every release lowers the ready count: once all are gone, the next
    // CHANNEL report counts as the first and names itself.
    st->ReceiverRelease(2);
    st->ReceiverRelease(4);
    ScriptedReceiver next("127.0.0.11");
    ASSERT_TRUE(next.Connect(kTcpPort));
    EXPECT_EQ(Start("127.0.0.11:5001", "Front_Left"),
              next.Ask("CHANNEL\r\nSyncPort: 5001\r\n\r\n"));
    EXPECT_TRUE(Sess(1).bRefRcv);
}

TEST_F(StreamerCore, HandshakeIsExactHostileRequestsDisturbNobodyAndLeavesAreGuarded) {
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 7}, {"127.0.0.3", AV_CHANNEL_WOOFER, 9}});
    ScriptedReceiver r1("127.0.0.2"), r2("127.0.0.3"), stranger("127.0.0.9");
    ASSERT_TRUE(stranger.Connect(kTcpPort));
    EXPECT_TRUE(stranger.ClosedByPeer());
    ASSERT_TRUE(r1.Connect(kTcpPort));
    ASSERT_TRUE(WaitUntil([&] { return Sess(0).bActive.load(); }));
    ScriptedReceiver twice("127.0.0.2");  // must not take over its own live session
    ASSERT_TRUE(twice.Connect(kTcpPort));
    EXPECT_TRUE(twice.ClosedByPeer());
    std::string junk(1023, 'x');
    for (size_t i = 0; i < junk.size(); i++) junk[i] = (char)(1 + (i * 131) % 250);
    r1.Send(junk);
    r1.Send(std::string(3000, 'A'));  // longer than one read
    EXPECT_TRUE(r1.Quiet(300));

    const std::string ports = std::to_string(r1.m_rtpPort) + "-" + std::to_string(r1.m_rtpPort + 1);
    EXPECT_EQ(std::vector<std::string>({Start("127.0.0.2:5000", "Front_Left"), Sdp(1),
                                        SetupReply(2, ports), Ok(3), "VOLUME: 7\r\n\r\n"}),
              r1.Handshake(5000));
    EXPECT_EQ(AV_STREAMER_STATE_PLAY, Sess(0).ServerState);
    EXPECT_TRUE(Sess(0).bIsPlayable);
    // CSeq and ports cut to 16 bits like the receivers' own.
    EXPECT_EQ(Sdp(70000 & 0xFFFF), r1.Ask("DESCRIBE\r\nCSeq: 70000\r\n\r\n"));
    EXPECT_EQ(0u, r1.Ask("DESCRIBE\r\nCSeq: 99999999999999999999999999\r\n\r\n")
                      .find("RTSP/1.0 200 OK\r\nCseq: 65535\r\n"));
    EXPECT_EQ(SetupReply(2, "34463-0"),
              r1.Ask("SETUP\r\nCSeq: 2\r\nTransport: client_port=99999-\r\n\r\n"));
    EXPECT_EQ(SetupReply(3, "0-0"), r1.Ask("SETUP\r\nCSeq: 3\r\nTransport: client_port=\r\n\r\n"));
    r1.Send("VOLUME_CHANGED\r\n\r\n");
    EXPECT_TRUE(events.WaitFor("Volume", 1, 5000));
    const std::string join = "JOIN " + std::string(100, '7') + "\r\nREQ_TS: 1\r\n\r\n";
    SendToGroup("127.0.0.5", join);
    EXPECT_TRUE(events.WaitFor("Found", 1, 5000));
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(2000, 'n'));
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(300, 'n') + "\r\n\r\n");
    SendToGroup("127.0.0.5", std::string(1500, 'J'));

    // The second to report CHANNEL is told about the first.
    ASSERT_TRUE(r2.Connect(kTcpPort));
    EXPECT_EQ(Start("127.0.0.2:5000", "Woofer"), r2.Ask("CHANNEL\r\nSyncPort: 6000\r\n\r\n"));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_START));

    // Keyword precedence: SETUP beats PLAY, DESCRIBE beats PLAY.
    EXPECT_EQ(SetupReply(4, "7000-7001"),
              r2.Ask("SETUP PLAY\r\nCSeq: 4\r\nTransport: RTP/AVP;unicast;client_port=7000-7001"
                     "\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_SETUP, Sess(1).ServerState);
    EXPECT_FALSE(Sess(1).bIsPlayable);
    EXPECT_EQ(Sdp(5), r2.Ask("DESCRIBE PLAY\r\nCSeq: 5\r\n\r\n"));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_SEND_SDP));

    // No CSeq, or CSeq 0: no reply, nothing changes.
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\n\r\n");
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 0\r\n\r\n");
    EXPECT_TRUE(r2.Quiet(300));
    EXPECT_EQ(AV_STREAMER_STATE_SEND_SDP, Sess(1).ServerState);
    EXPECT_EQ(Ok(6), r2.Ask("PAUSE\r\nCSeq: 6\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_PAUSE, Sess(1).ServerState);

    // ALIVED and VOLUME_CHANGED fall through to the next keyword.
    EXPECT_EQ(Ok(7), r2.Ask("ALIVED\r\nVOLUME_CHANGED 12\r\nPLAY\r\nCSeq: 7\r\n\r\n"));
    EXPECT_EQ("VOLUME: 9\r\n\r\n", r2.Next());
    EXPECT_TRUE(events.WaitFor("Volume", 2, 5000));
    EXPECT_NE(0u, Probe::Locked(st, 1, [&] { return Sess(1).uwAliveClock; }));
    ScriptedReceiver third("127.0.0.2");  // every receiver has its session now
    ASSERT_TRUE(third.Connect(kTcpPort));
    EXPECT_TRUE(third.ClosedByPeer());

    // A JOIN's time stamp guards against an older LEAVE; TEARDOWN of the
    // last one ends the service.
    const std::string rejoin = "JOIN 127.0.0.3\r\nREQ_TS: 5000\r\n\r\n";
    SendToGroup("127.0.0.3", rejoin);
    EXPECT_TRUE(events.WaitFor("Found", 2, 5000));
    r2.Send("LEAVE\r\nREQ_TS: 4000\r\n\r\n");  // older than the JOIN: dropped
    EXPECT_FALSE(r2.ClosedByPeer(400));
    r2.Send("LEAVE\r\nREQ_TS: 6000\r\n\r\n");
    EXPECT_TRUE(r2.ClosedByPeer());
    EXPECT_EQ(std::make_tuple(false, AV_STREAMER_STATE_BYE),
              std::make_tuple((bool)Sess(1).bActive, (int)Sess(1).ServerState));
    r1.Send("TEARDOWN rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 9\r\n\r\n");
    EXPECT_TRUE(r1.ClosedByPeer());
    EXPECT_TRUE(events.WaitFor("Stop", 1, 5000));
    // One event per JOIN (the address cut to its field), none for the
    // other datagrams, and the service stopped by the last one out only.
    EXPECT_EQ(std::vector<std::string>({"Volume 0 127.0.0.2",
                                        "Found " + std::string(19, '7') + " " + join,
                                        "Volume 12 127.0.0.3", "Found 127.0.0.3 " + rejoin,
                                        "Leave 127.0.0.3 42", "Reset 127.0.0.2 0", "Stop 42 0"}),
              events.All());
    EXPECT_EQ(std::make_tuple(0, 0),
              std::make_tuple(Probe::SessionCount(st), Probe::ReceiverCount(st)));
}

TEST(StreamerFilters, EveryRoleAndChannelCountPicksItsChannel) {
    CAVStreamer st(nullptr, nullptr, 1);
    // Expected source channel per role (index = AV_CHANNEL_TYPE) and count.
    struct Case {
        int channels;
        int chan[8];
    } cases[] = {
        {1, {0, 0, 0, 0, 0, 0, 0, 0}}, {2, {0, 0, 1, 0, 0, 0, 0, 0}}, {4, {0, 0, 1, 0, 0, 4, 5, 0}},
        {5, {0, 0, 1, 0, 0, 4, 5, 0}}, {6, {0, 0, 1, 2, 3, 4, 5, 0}},
    };
    const int frames = 8;
    for (const Case& c : cases) {
        // Source sample of frame k, channel c: 100 * k + c (+1 so none is 0),
        // with room for the kept over-reads.
        std::vector<short> src((frames + 2) * c.channels);
        for (size_t i = 0; i < src.size(); i++)
            src[i] = (short)(100 * (i / c.channels) + i % c.channels + 1);
        std::vector<char> src8(src.begin(), src.end());
        // The party filter: the first two source samples (on mono the right
        // one is the next frame's).
        std::vector<short> party(2 * frames), firstTwo(2 * frames);
        for (int k = 0; k < 2 * frames; k++) firstTwo[k] = src[k / 2 * c.channels + k % 2];
        st.PcmPartyChannelFilter(src.data(), frames, c.channels, party.data());
        EXPECT_EQ(firstTwo, party) << c.channels;
        for (int type = 0; type < 8; type++) {
            SCOPED_TRACE("channels " + std::to_string(c.channels) + " type " +
                         std::to_string(type));
            const AV_CHANNEL_TYPE t = (AV_CHANNEL_TYPE)type;
            std::vector<short> pick(2 * frames), d1(2 * frames), d2(2 * frames);
            std::vector<char> d8(2 * frames);
            for (int k = 0; k < 2 * frames; k++) pick[k] = src[k / 2 * c.channels + c.chan[type]];
            st.PcmChannelFilter(src.data(), frames, c.channels, t, d1.data());
            st.PcmChannelFilter2Channel(src.data(), frames, c.channels, t, d2.data());
            st.Pcm8BitChannelFilter2Channel(src8.data(), frames, c.channels, t, d8.data());
            EXPECT_EQ(t == AV_CHANNEL_PARTY ? firstTwo : pick, d1);
            EXPECT_EQ(pick, d2);
            EXPECT_EQ(std::vector<char>(pick.begin(), pick.end()), d8);
        }
    }
    // The frame counter is 16 bits: a call stops after 65535 frames.
    std::vector<short> big(70000 * 2, 7), out(70000 * 2, 0);
    st.PcmChannelFilter2Channel(big.data(), 70000, 2, AV_CHANNEL_FRONT_LEFT, out.data());
    EXPECT_EQ(std::make_tuple(7, 0), std::make_tuple(out[2 * 65534 + 1], out[2 * 65535]));
}

TEST_F(StreamerCore, AnAbsentReceiverDelaysTheStartTwoSecondsAndIsDroppedAtFive) {
    const unsigned int search = PAL_GetClock();
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1}, {"127.0.0.3", AV_CHANNEL_FRONT_RIGHT, 2}});
    for (int i = 0; i < 2; i++)
        Probe::Locked(st, i, [&] {
            Entry(i).bIsSync = 1;
            return Entry(i).SearchTs = search;
        });
    ScriptedReceiver r1("127.0.0.2");
    ASSERT_TRUE(r1.Connect(kTcpPort));
    static char pcm[16384];  // the line-up wants 14001 bytes queued
    ASSERT_TRUE(st->ReceiverMediaWrite(0, pcm, sizeof(pcm)));
    ASSERT_EQ(5u, r1.Handshake().size());
    ASSERT_EQ(1412u, r1.Rtp(10000));  // started without the absent one ...
    EXPECT_GE(PAL_GetClock() - search, 2000u);
    // ... which loses its sync, and later its entry, after the event.
    auto synced = [&](int i) {
        return Probe::Locked(st, i, [&] { return (int)Entry(i).bIsSync; });
    };
    EXPECT_TRUE(WaitUntil([&] { return synced(1) == 0; }, 3000));
    EXPECT_EQ(1, synced(0));
    ASSERT_TRUE(events.WaitFor("Reset", 1, 15000));
    EXPECT_GE(PAL_GetClock() - search, 5000u);
    EXPECT_TRUE(WaitUntil([&] { return Counts() == std::make_tuple(1, 1, 1); }, 3000));
    EXPECT_EQ(std::vector<std::string>({"Reset 127.0.0.3 0"}), events.All());
}

TEST_F(StreamerCore, DroppingTheLastReceiverStopsTheService) {
    Open({{"127.0.0.5", AV_CHANNEL_PARTY, 1}});
    Probe::Locked(st, 0, [&] { return Entry(0).SearchTs = PAL_GetClock() - 4800; });
    ASSERT_TRUE(events.WaitFor("Stop", 1, 10000));
    EXPECT_EQ(std::vector<std::string>({"Reset 127.0.0.5 0", "Stop 42 0"}), events.All());
    EXPECT_EQ(std::make_tuple(0, 0, 0), Counts());
}

TEST_F(StreamerCore, CommandsAreExactReachEveryMatchingSessionAndFollowTheStateTable) {
    // One address twice (two emulated receivers on one host) and a third.
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"127.0.0.2", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.3", AV_CHANNEL_WOOFER, 3}});
    std::vector<std::unique_ptr<ScriptedReceiver>> rx =
        ConnectAll({"127.0.0.2", "127.0.0.2", "127.0.0.3"});

    EXPECT_EQ(0, st->SetReceiverUIType("127.0.0.2", 4));
    EXPECT_EQ(0, st->ReceiverDeviceVolumeControl("127.0.0.2", 11));
    EXPECT_EQ(0, st->SetReceiverUITypeAll(2));
    EXPECT_EQ(0, st->ReceiverVolumeControl(20));
    EXPECT_EQ(15, Entry(2)._volume);
    EXPECT_EQ(0, st->ReceiverVolumeControl(-3));
    EXPECT_EQ(1, st->ReceiverVolume(2, 40));  // the single-session form is not clamped
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_WOOFER));  // unchanged
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_REAR_LEFT));
    EXPECT_EQ(AV_CHANNEL_REAR_LEFT, Sess(2).ChannelType.load());
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_FOUND,
              st->ReceiverUpdateChannelType("127.0.0.77", AV_CHANNEL_PARTY));
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_FOUND, st->ReceiverUpdateChannelType(nullptr, AV_CHANNEL_PARTY));
    // Without a connection the single-session forms report success.
    EXPECT_EQ(1, st->SetReceiverUIType(5, 1));
    EXPECT_EQ(1, st->ReceiverAddStart(5));
    EXPECT_EQ(AV_STREAMER_STATE_NA, Sess(5).ServerState);

    // Not yet open: pause, resume and seek are refused, stop is silent.
    st->AVStreamerPause();
    st->AVStreamerResume();
    st->AVStreamerSeek(5);
    st->AVStreamerStop();
    EXPECT_FALSE(st->canAction(-1));
    EXPECT_FALSE(st->canAction(STREAM_ACTION_MAX));

    st->SetStreamState(STREAM_STATE_OPEN);
    st->AVStreamerPause();
    EXPECT_EQ(STREAM_STATE_PAUSE, st->GetStreamState());
    st->AVStreamerPause();  // not allowed twice
    st->AVStreamerResume();
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());
    // No stream thread yet: the seek does not wait for the music source.
    st->AVStreamerSeek(30);
    EXPECT_EQ(STREAM_STATE_RESUME, st->GetStreamState());

    EXPECT_TRUE(st->SendReqClock(2));
    EXPECT_TRUE(st->ReceiverAlive(0));
    EXPECT_FALSE(st->SendReqClock(7));  // no connection
    // A session put into CLOCK takes its next text as the clock answer.
    Sess(2).ServerState = AV_STREAMER_STATE_CLOCK;
    rx[2]->Send("Clock: 123456\r\n\r\n");
    EXPECT_TRUE(StateBecomes(2, AV_STREAMER_STATE_PLAY));

    st->AVSenderStopNotify();
    st->AVStreamerStop();
    EXPECT_EQ(STREAM_STATE_STOP, st->GetStreamState());
    EXPECT_EQ(3, Probe::SessionCount(st));  // sessions stay until they answer
    st->AVStreamerSeek(1);                  // refused after stop

    // What each receiver got, in order, and nothing else.
    auto got = [&](int i) {
        std::vector<std::string> texts;
        for (std::string m; !(m = rx[i]->Next(300)).empty();)
            texts.push_back(m.substr(0, m.size() - 4));
        return texts;
    };
    const std::vector<std::string> both = {"UITYPE: 4",  "VOLUME: 11", "UITYPE: 2", "VOLUME: 15",
                                           "VOLUME: -3", "PAUSE",      "RESUME",    "SEEK"};
    std::vector<std::string> first = both, second = both;
    first.insert(first.end(), {"ALIVE", "QUIT_SENDER", "BYE RTSP/1.0"});
    second.insert(second.end(), {"QUIT_SENDER", "BYE RTSP/1.0"});
    EXPECT_EQ(first, got(0));
    EXPECT_EQ(second, got(1));
    EXPECT_EQ(std::vector<std::string>({"UITYPE: 2", "VOLUME: 15", "VOLUME: -3", "VOLUME: 40",
                                        "DEVICETYPE: 5", "PAUSE", "RESUME", "SEEK",
                                        "CLOCK RTSP/1.0", "QUIT_SENDER", "BYE RTSP/1.0"}),
              got(2));
}

TEST_F(StreamerCore, SearchAndJoinsInviteByMulticastAndUnicastUpToThirty) {
    CAVStreamer::SetGUID("0123456789abcdef0123456789abcdef0123456789");  // 42 characters
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"not-an-address", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.4", AV_CHANNEL_PARTY, 3}});
    const std::string search =
        "SEARCH\r\nGUID: 0123456789abcdef0123456789abcdef0123456\r\nREQ_TS: ";
    const std::string server = "\r\nServer: 127.0.0.1:31554\r\nClient: ";
    int listener = rx_udp_group("224.1.2.4", 21234, "127.0.0.9");
    ASSERT_GE(listener, 0);
    const unsigned int before = PAL_GetClock();
    EXPECT_EQ(0, st->ReceiverSearch(&Probe::Receivers(st)));
    const uint32_t reqTs = Entry(0).SearchTs;
    EXPECT_GE(reqTs, before);
    EXPECT_EQ(std::make_tuple(reqTs, reqTs), std::make_tuple(Entry(1).SearchTs, Entry(2).SearchTs));
    EXPECT_EQ(std::vector<std::string>(8, search + std::to_string(reqTs) + server +
                                              Addr4("127.0.0.2") + Addr4("127.0.0.4")),
              Datagrams(listener, 1000));

    // A join takes the first free slot and is invited by unicast only.
    int joiner = rx_udp_bind("127.0.0.7", 21234);
    ASSERT_GE(joiner, 0);
    AV_RECEIVER r = MakeReceiver("127.0.0.7", AV_CHANNEL_WOOFER, 5);
    const unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(0, st->AVStreamerReceiverIn(r));
    const std::vector<std::string> got = Datagrams(joiner, 400);
    EXPECT_LT(PAL_GetClock() - t0, 2000u);
    AV_RECEIVER& e = Entry(3);
    EXPECT_EQ(std::make_tuple(std::string("127.0.0.7"), 1, AV_CHANNEL_WOOFER),
              std::make_tuple(std::string(e.pReceiverIP), (int)e.bActive, e.ChannelType));
    EXPECT_EQ(std::make_tuple(4, 0, 4), Counts());
    EXPECT_EQ(std::vector<std::string>(
                  8, search + std::to_string(e.SearchTs) + server + Addr4("127.0.0.7")),
              got);

    // A join stamping its entry just after the server read its clock: the
    // newer stamp is not yet due, not 49 days overdue.
    Probe::Locked(st, 0, [&] { return Entry(0).SearchTs = PAL_GetClock() + 3000; });
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

// Discovery's EXIT handling takes a receiver out of its stream (a leave that
// waits for BYE_ACK) while the application closes that stream: the two meet
// on the session mutexes, the queue and the connection, in every order.
TEST_F(StreamerCore, CloseRacingAnExitOfAPlayingMemberIsSafe) {
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
        ASSERT_EQ(1412u, rx.Rtp(5000));
        std::thread exitPath([&] { s->AVStreamerReceiverOut("127.0.0.2"); });
        if (round % 2) PAL_ThreadSleep(round % 7);
        Probe::CloseServer(s);
        exitPath.join();
        delete s;
    }
}
