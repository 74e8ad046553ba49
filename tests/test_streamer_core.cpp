// The streamer core against scripted receivers on loopback: the control
// handshake byte for byte, hostile requests, the commands the streamer sends
// (settings, playback, the search and join invitations), when the stream
// starts and who is dropped, session release, the channel filters, and a
// close racing a receiver's exit. (What the packets carry is checked with
// emulated receivers in test_streamer_playback.cpp.)
#include <arpa/inet.h>

#include "streamer_harness.h"

namespace {

const unsigned short kTcpPort = StreamerTest::kTcpPort;

class StreamerCore : public StreamerTest {};

// A datagram to the streamer's multicast group from a receiver's address.
void SendToGroup(const char* from, const std::string& text) {
    int fd = rx_udp_bind(from, 0);
    struct sockaddr_in sa;
    rx_sockaddr("224.1.2.4", 21234, &sa);
    sendto(fd, text.data(), text.size(), 0, (struct sockaddr*)&sa, sizeof(sa));
    close(fd);
}

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

std::string Sdp(int bits, int rate, const char* title, int cseq) {
    std::string body = "v=0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 L" + std::to_string(bits) + "/" +
                       std::to_string(rate) + "/2\r\ni=" + title + "\r\n";
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
    for (auto& r : rx) {
        EXPECT_EQ("START\r\nRef: 127.0.0.17:5000\r\nRole: Front_Left\r\n\r\n",
                  r->Ask("CHANNEL\r\nSyncPort: 5000\r\n\r\n"));
    }
    ASSERT_TRUE(st->ReceiverMediaWrite(5, (char*)"abcd", 4));
    EXPECT_EQ(1, st->ReceiverRelease(5));
    EXPECT_EQ(8, Probe::MaxIdx(st));
    EXPECT_FALSE(Sess(5).bActive);
    EXPECT_FALSE(Sess(5).bIsPlayable);
    EXPECT_EQ(0u, Pal_RingBufUsed(Sess(5).pFD));  // emptied, kept for reuse
    EXPECT_EQ(0, Probe::Receivers(st).AVReceiver[5].bActive);
    EXPECT_EQ(3, Probe::SessionCount(st));
    EXPECT_EQ(7, Probe::ReceiverCount(st));
    EXPECT_TRUE(rx[3]->ClosedByPeer());
    EXPECT_EQ(1, st->ReceiverRelease(5));  // released once only
    EXPECT_EQ(7, Probe::ReceiverCount(st));

    EXPECT_EQ(1, st->ReceiverRelease(7));
    EXPECT_EQ(7, Probe::MaxIdx(st));
    EXPECT_FALSE(Sess(7).bRefRcv);
    EXPECT_TRUE(Sess(2).bRefRcv);
    EXPECT_FALSE(Sess(4).bRefRcv);

    // Receivers that never connected: a connected address is kept, a twice
    // listed one loses its lowest entry only, the top entry shrinks the bound.
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo("127.0.0.12"));
    EXPECT_EQ(1, st->ResetAcceptWaitReceiverInfo("127.0.0.50"));
    EXPECT_EQ(0, Probe::Receivers(st).AVReceiver[0].bActive);
    EXPECT_EQ(1, Probe::Receivers(st).AVReceiver[3].bActive);
    EXPECT_EQ(5, Probe::ReceiverCount(st));
    EXPECT_EQ(1, st->ResetAcceptWaitReceiverInfo("127.0.0.16"));
    EXPECT_EQ(6, Probe::MaxIdx(st));
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo("127.0.0.99"));
    EXPECT_EQ(0, st->ResetAcceptWaitReceiverInfo(nullptr));
    EXPECT_EQ(4, Probe::ReceiverCount(st));

    // Every release lowers the ready count: once all are gone, the next
    // CHANNEL report counts as the first and names itself.
    st->ReceiverRelease(2);
    st->ReceiverRelease(4);
    ScriptedReceiver next("127.0.0.11");
    ASSERT_TRUE(next.Connect(kTcpPort));
    EXPECT_EQ("START\r\nRef: 127.0.0.11:5001\r\nRole: Front_Left\r\n\r\n",
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

    std::vector<std::string> got = r1.Handshake(5000);
    ASSERT_EQ(5u, got.size());
    EXPECT_EQ("START\r\nRef: 127.0.0.2:5000\r\nRole: Front_Left\r\n\r\n", got[0]);
    EXPECT_EQ(Sdp(16, 44100, "Test Song", 1), got[1]);
    EXPECT_EQ(SetupReply(2, std::to_string(r1.m_rtpPort) + "-" + std::to_string(r1.m_rtpPort + 1)),
              got[2]);
    EXPECT_EQ("RTSP/1.0 200 OK\r\nCseq: 3\r\n\r\n", got[3]);
    EXPECT_EQ("VOLUME: 7\r\n\r\n", got[4]);
    EXPECT_EQ(AV_STREAMER_STATE_PLAY, Sess(0).ServerState);
    EXPECT_TRUE(Sess(0).bIsPlayable);
    // CSeq and ports cut to 16 bits like the receivers' own.
    EXPECT_EQ(Sdp(16, 44100, "Test Song", 70000 & 0xFFFF),
              r1.Ask("DESCRIBE\r\nCSeq: 70000\r\n\r\n"));
    EXPECT_EQ(0u, r1.Ask("DESCRIBE\r\nCSeq: 99999999999999999999999999\r\n\r\n")
                      .find("RTSP/1.0 200 OK\r\nCseq: 65535\r\n"));
    EXPECT_EQ(SetupReply(2, "34463-0"),
              r1.Ask("SETUP\r\nCSeq: 2\r\nTransport: client_port=99999-\r\n\r\n"));
    EXPECT_EQ(SetupReply(3, "0-0"), r1.Ask("SETUP\r\nCSeq: 3\r\nTransport: client_port=\r\n\r\n"));
    r1.Send("VOLUME_CHANGED\r\n\r\n");
    StreamerEvent vol;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_VOLUMECHANGED, 1, 5000, &vol));
    EXPECT_EQ(0, vol.a);
    EXPECT_EQ("127.0.0.2", vol.textB);
    SendToGroup("127.0.0.5", "JOIN " + std::string(100, '7') + "\r\nREQ_TS: 1\r\n\r\n");
    StreamerEvent found;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_FOUND, 1, 5000, &found));
    EXPECT_EQ(std::string(19, '7'), found.textA);
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(2000, 'n'));
    SendToGroup("127.0.0.5", "MASTERSEARCH\r\nNAME: " + std::string(300, 'n') + "\r\n\r\n");
    SendToGroup("127.0.0.5", std::string(1500, 'J'));

    // The second to report CHANNEL is told about the first.
    ASSERT_TRUE(r2.Connect(kTcpPort));
    EXPECT_EQ("START\r\nRef: 127.0.0.2:5000\r\nRole: Woofer\r\n\r\n",
              r2.Ask("CHANNEL\r\nSyncPort: 6000\r\n\r\n"));
    EXPECT_TRUE(Sess(0).bRefRcv);
    EXPECT_FALSE(Sess(1).bRefRcv);
    EXPECT_EQ(6000, Locked(1, [&] { return (int)Sess(1).uwClientSyncPort; }));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_START));

    // Keyword precedence: SETUP beats PLAY, DESCRIBE beats PLAY.
    EXPECT_EQ(SetupReply(4, "7000-7001"),
              r2.Ask("SETUP PLAY\r\nCSeq: 4\r\nTransport: RTP/AVP;unicast;client_port=7000-7001"
                     "\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_SETUP, Sess(1).ServerState);
    EXPECT_FALSE(Sess(1).bIsPlayable);
    EXPECT_EQ(Sdp(16, 44100, "Test Song", 5), r2.Ask("DESCRIBE PLAY\r\nCSeq: 5\r\n\r\n"));
    EXPECT_TRUE(StateBecomes(1, AV_STREAMER_STATE_SEND_SDP));

    // No CSeq, or CSeq 0: no reply, nothing changes.
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\n\r\n");
    EXPECT_TRUE(r2.Quiet(300));
    r2.Send("PLAY rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 0\r\n\r\n");
    EXPECT_TRUE(r2.Quiet(300));
    EXPECT_EQ(AV_STREAMER_STATE_SEND_SDP, Sess(1).ServerState);
    EXPECT_EQ("RTSP/1.0 200 OK\r\nCseq: 6\r\n\r\n", r2.Ask("PAUSE\r\nCSeq: 6\r\n\r\n"));
    EXPECT_EQ(AV_STREAMER_STATE_PAUSE, Sess(1).ServerState);

    // ALIVED and VOLUME_CHANGED fall through to the next keyword.
    EXPECT_EQ("RTSP/1.0 200 OK\r\nCseq: 7\r\n\r\n",
              r2.Ask("ALIVED\r\nVOLUME_CHANGED 12\r\nPLAY\r\nCSeq: 7\r\n\r\n"));
    EXPECT_EQ("VOLUME: 9\r\n\r\n", r2.Next());
    StreamerEvent ev;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_VOLUMECHANGED, 2, 5000, &ev));
    EXPECT_EQ(12, ev.a);
    EXPECT_EQ("127.0.0.3", ev.textB);
    EXPECT_NE(0u, Locked(1, [&] { return Sess(1).uwAliveClock; }));
    EXPECT_EQ(1, events.Count(AVMSG_RECEIVER_FOUND));
    EXPECT_EQ(0, events.Count(AVMSG_SERVICE_STOP));
    ScriptedReceiver third("127.0.0.2");  // every receiver has its session now
    ASSERT_TRUE(third.Connect(kTcpPort));
    EXPECT_TRUE(third.ClosedByPeer());

    // A JOIN's time stamp guards against an older LEAVE; TEARDOWN of the
    // last one ends the service.
    SendToGroup("127.0.0.3", "JOIN 127.0.0.3\r\nREQ_TS: 5000\r\n\r\n");
    found = StreamerEvent();
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_FOUND, 2, 5000, &found));
    EXPECT_EQ("127.0.0.3", found.textA);
    EXPECT_EQ((intptr_t)st, found.c);
    ASSERT_TRUE(WaitUntil([&] { return Locked(1, [&] { return Sess(1).ReqTs; }) == 5000; }));

    r2.Send("LEAVE\r\nREQ_TS: 4000\r\n\r\n");  // older than the JOIN: dropped
    EXPECT_FALSE(r2.ClosedByPeer(400));
    EXPECT_TRUE(Sess(1).bActive);
    EXPECT_EQ(0, events.Count(AVMSG_RECEIVER_LEAVE));

    r2.Send("LEAVE\r\nREQ_TS: 6000\r\n\r\n");
    StreamerEvent leave;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_LEAVE, 1, 5000, &leave));
    EXPECT_EQ("127.0.0.3", leave.textA);
    EXPECT_EQ(42, leave.b);
    EXPECT_TRUE(r2.ClosedByPeer());
    EXPECT_FALSE(Sess(1).bActive);
    EXPECT_EQ(AV_STREAMER_STATE_BYE, Sess(1).ServerState);
    EXPECT_EQ(0, events.Count(AVMSG_SERVICE_STOP));

    r1.Send("TEARDOWN rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 9\r\n\r\n");
    StreamerEvent reset, stop;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_RESET, 1, 5000, &reset));
    EXPECT_EQ("127.0.0.2", reset.textA);
    ASSERT_TRUE(events.WaitFor(AVMSG_SERVICE_STOP, 1, 5000, &stop));
    EXPECT_EQ(42, stop.a);
    EXPECT_TRUE(r1.ClosedByPeer());
    EXPECT_EQ(0, Probe::SessionCount(st));
    EXPECT_EQ(0, Probe::ReceiverCount(st));
}

TEST(StreamerFilters, EveryRoleAndChannelCountPicksItsChannel) {
    CAVStreamer st(nullptr, nullptr, 1);
    // Source sample of frame k, channel c: 100 * k + c (+1 so none is 0).
    auto source = [](int channels, int frames) {
        std::vector<short> s((frames + 2) * channels);  // room for the kept over-reads
        for (size_t i = 0; i < s.size(); i++)
            s[i] = (short)(100 * (i / channels) + i % channels + 1);
        return s;
    };
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
        std::vector<short> src = source(c.channels, frames);
        std::vector<char> src8(src.size());
        for (size_t i = 0; i < src.size(); i++) src8[i] = (char)src[i];
        for (int type = 0; type < 8; type++) {
            AV_CHANNEL_TYPE t = (AV_CHANNEL_TYPE)type;
            std::vector<short> d1(2 * frames), d2(2 * frames);
            std::vector<char> d8(2 * frames);
            st.PcmChannelFilter(src.data(), frames, c.channels, t, d1.data());
            st.PcmChannelFilter2Channel(src.data(), frames, c.channels, t, d2.data());
            st.Pcm8BitChannelFilter2Channel(src8.data(), frames, c.channels, t, d8.data());
            for (int k = 0; k < frames; k++) {
                short pick = src[k * c.channels + c.chan[type]];
                SCOPED_TRACE("channels " + std::to_string(c.channels) + " type " +
                             std::to_string(type) + " frame " + std::to_string(k));
                EXPECT_EQ(pick, d2[2 * k]);
                EXPECT_EQ(pick, d2[2 * k + 1]);
                EXPECT_EQ((char)pick, d8[2 * k]);
                EXPECT_EQ((char)pick, d8[2 * k + 1]);
                if (t == AV_CHANNEL_PARTY) {
                    // First two source samples; on mono the right one is the
                    // next frame's.
                    EXPECT_EQ(src[k * c.channels], d1[2 * k]);
                    EXPECT_EQ(src[k * c.channels + 1], d1[2 * k + 1]);
                } else {
                    EXPECT_EQ(pick, d1[2 * k]);
                    EXPECT_EQ(pick, d1[2 * k + 1]);
                }
            }
        }
        std::vector<short> party(2 * frames);
        st.PcmPartyChannelFilter(src.data(), frames, c.channels, party.data());
        for (int k = 0; k < frames; k++) {
            EXPECT_EQ(src[k * c.channels], party[2 * k]);
            EXPECT_EQ(src[k * c.channels + 1], party[2 * k + 1]);
        }
    }
    // The frame counter is 16 bits: a call stops after 65535 frames.
    std::vector<short> big(70000 * 2, 7), out(70000 * 2, 0);
    st.PcmChannelFilter2Channel(big.data(), 70000, 2, AV_CHANNEL_FRONT_LEFT, out.data());
    EXPECT_EQ(7, out[2 * 65534 + 1]);
    EXPECT_EQ(0, out[2 * 65535]);
}

TEST_F(StreamerCore, AnAbsentReceiverDelaysTheStartTwoSecondsAndIsDroppedAtFive) {
    unsigned int search = NowMs();
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1}, {"127.0.0.3", AV_CHANNEL_FRONT_RIGHT, 2}});
    for (int i = 0; i < 2; i++) {
        PAL_MutexLock(Sess(i)._lpmutex, 1);
        Probe::Receivers(st).AVReceiver[i].SearchTs = search;
        Probe::Receivers(st).AVReceiver[i].bIsSync = 1;
        PAL_MutexUnLock(Sess(i)._lpmutex);
    }
    ScriptedReceiver r1("127.0.0.2");
    ASSERT_TRUE(r1.Connect(kTcpPort));
    static char pcm[16384];  // the line-up wants 14001 bytes queued
    ASSERT_TRUE(st->ReceiverMediaWrite(0, pcm, sizeof(pcm)));
    ASSERT_EQ(5u, r1.Handshake().size());
    ASSERT_EQ(1412u, r1.Rtp(10000).size());  // started without the absent one ...
    EXPECT_GE(NowMs() - search, 2000u);
    // ... which loses its sync, and later its entry, after the event.
    EXPECT_TRUE(WaitUntil(
        [&] { return Locked(1, [&] { return Probe::Receivers(st).AVReceiver[1].bIsSync; }) == 0; },
        3000));
    EXPECT_EQ(1, Locked(0, [&] { return Probe::Receivers(st).AVReceiver[0].bIsSync; }));
    StreamerEvent reset;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_RESET, 1, 15000, &reset));
    EXPECT_GE(NowMs() - search, 5000u);
    EXPECT_EQ("127.0.0.3", reset.textA);
    EXPECT_TRUE(WaitUntil([&] { return Probe::ReceiverCount(st) == 1; }, 3000));
    EXPECT_TRUE(WaitUntil([&] { return Probe::MaxIdx(st) == 1; }, 3000));
    EXPECT_EQ(0, events.Count(AVMSG_SERVICE_STOP));
}

TEST_F(StreamerCore, DroppingTheLastReceiverStopsTheService) {
    Open({{"127.0.0.5", AV_CHANNEL_PARTY, 1}});
    PAL_MutexLock(Sess(0)._lpmutex, 1);
    Probe::Receivers(st).AVReceiver[0].SearchTs = NowMs() - 4800;
    PAL_MutexUnLock(Sess(0)._lpmutex);
    StreamerEvent reset, stop;
    ASSERT_TRUE(events.WaitFor(AVMSG_RECEIVER_RESET, 1, 10000, &reset));
    EXPECT_EQ("127.0.0.5", reset.textA);
    ASSERT_TRUE(events.WaitFor(AVMSG_SERVICE_STOP, 1, 5000, &stop));
    EXPECT_EQ(42, stop.a);
    EXPECT_EQ(0, Probe::ReceiverCount(st));
    EXPECT_EQ(0, Probe::MaxIdx(st));
}

TEST_F(StreamerCore, CommandsAreExactReachEveryMatchingSessionAndFollowTheStateTable) {
    // One address twice (two emulated receivers on one host) and a third.
    Open({{"127.0.0.2", AV_CHANNEL_FRONT_LEFT, 1},
          {"127.0.0.2", AV_CHANNEL_FRONT_RIGHT, 2},
          {"127.0.0.3", AV_CHANNEL_WOOFER, 3}});
    std::vector<std::unique_ptr<ScriptedReceiver>> rx =
        ConnectAll({"127.0.0.2", "127.0.0.2", "127.0.0.3"});
    // text reaches the receivers listed in who, and nothing the others.
    auto expectAll = [&](const std::string& text, std::vector<int> who) {
        for (int i = 0; i < 3; i++) {
            if (std::find(who.begin(), who.end(), i) != who.end())
                EXPECT_EQ(text, rx[i]->Next()) << "receiver " << i;
            else
                EXPECT_TRUE(rx[i]->Quiet(150)) << "receiver " << i;
        }
    };

    EXPECT_EQ(0, st->SetReceiverUIType("127.0.0.2", 4));
    expectAll("UITYPE: 4\r\n\r\n", {0, 1});
    EXPECT_EQ(0, st->ReceiverDeviceVolumeControl("127.0.0.2", 11));
    expectAll("VOLUME: 11\r\n\r\n", {0, 1});
    EXPECT_EQ(0, st->SetReceiverUITypeAll(2));
    expectAll("UITYPE: 2\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(0, st->ReceiverVolumeControl(20));
    expectAll("VOLUME: 15\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(15, Probe::Receivers(st).AVReceiver[2]._volume);
    EXPECT_EQ(0, st->ReceiverVolumeControl(-3));
    expectAll("VOLUME: -3\r\n\r\n", {0, 1, 2});
    EXPECT_EQ(1, st->ReceiverVolume(2, 40));  // the single-session form is not clamped
    expectAll("VOLUME: 40\r\n\r\n", {2});
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_WOOFER));
    expectAll("", {});
    EXPECT_EQ(0, st->ReceiverUpdateChannelType("127.0.0.3", AV_CHANNEL_REAR_LEFT));
    expectAll("DEVICETYPE: 5\r\n\r\n", {2});
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

TEST_F(StreamerCore, SearchAndJoinsInviteByMulticastAndUnicastUpToThirty) {
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
    AV_RECEIVER r = MakeReceiver("127.0.0.7", AV_CHANNEL_WOOFER, 5);
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
        ASSERT_EQ(1412u, rx.Rtp(5000).size());
        std::thread exitPath([&] { s->AVStreamerReceiverOut("127.0.0.2"); });
        if (round % 2) PAL_ThreadSleep(round % 7);
        Probe::CloseServer(s);
        exitPath.join();
        delete s;
    }
}
