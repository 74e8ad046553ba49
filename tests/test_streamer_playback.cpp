// A streamer's whole life through its own operations (init, open, search,
// play, seek, pause, join, leave, close) with receiver emulators as peers and
// real WAV / MP3 content.
#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <tuple>

#include "ReceiverEmulator.h"
#include "audio_check.h"
#include "position_wav.h"
#include "streamer_harness.h"

namespace {

const unsigned short kTcp = 31554, kRtp = 35000, kGroupPort = 21234;
const char* kUrl = "224.1.2.4:21234";
// Play() tells which step failed by adding these to its result.
const int kInitFailed = 1000, kOpenFailed = 2000;

// Position audio (position_wav.h) in a file of this process's own.
std::string PositionWav(int seconds) {
    std::string path = "/tmp/sonvara_position_" + std::to_string(seconds) + "s_" +
                       std::to_string(getpid()) + ".wav";
    if (!position_wav_write(path, seconds)) path.clear();
    return path;
}

// Frame index of a position-WAV frame as a party receiver gets it.
uint32_t FrameAt(const std::vector<unsigned char>& pcm, size_t byteOffset) {
    uint16_t lr[2];
    memcpy(lr, pcm.data() + byteOffset, 4);
    return ((uint32_t)lr[1] << 16) | lr[0];
}

// The first packet at or after byte `from` that starts with frame `frame`
// (the end when none does); from there on every packet goes on where the
// one before stopped.
size_t FindAndFollow(const std::vector<unsigned char>& pcm, size_t from, uint32_t frame) {
    size_t at = from;
    while (at < pcm.size() && FrameAt(pcm, at) != frame) at += 1400;
    for (size_t off = at + 1400; off + 4 <= pcm.size(); off += 1400)
        EXPECT_EQ(FrameAt(pcm, off - 4) + 1, FrameAt(pcm, off)) << off;
    return std::min(at, pcm.size());
}

// The expected stream of a receiver: source frames of width-byte samples,
// channel c on both sides (c >= 0) or the first two as they are (c < 0).
std::vector<unsigned char> Role(const std::vector<unsigned char>& src, int channels, int width,
                                int c) {
    std::vector<unsigned char> out;
    for (size_t k = 0; k < src.size() / (width * channels); k++) {
        const unsigned char* f = src.data() + k * width * channels;
        for (int side : {c < 0 ? 0 : c, c < 0 ? 1 : c})
            out.insert(out.end(), f + width * side, f + width * side + width);
    }
    return out;
}

// SEEK commands a receiver has had.
int Seeks(ReceiverEmulator* r) {
    std::vector<ReceiverCommand> c = r->Commands();
    return (int)std::count_if(c.begin(), c.end(), [](const ReceiverCommand& x) {
        return strcmp(x.keyword, "SEEK") == 0;
    });
}

int CountEntries(const char* dir) {
    DIR* d = opendir(dir);
    int n = 0;
    while (readdir(d) != nullptr) n++;
    closedir(d);
    return n;
}

class Playback : public ::testing::Test {
protected:
    void TearDown() override { Finish(); }
    // The streamer closed and deleted, the receivers stopped and unlisted.
    void Finish() {
        if (st != nullptr) st->AVStreamerClose();
        delete st;
        st = nullptr;
        for (auto& r : rx) r->Stop();
        rx.clear();
        ri = AV_RECEIVER_INFO{};
    }
    ReceiverEmulator* AddReceiver(const char* ip, AV_CHANNEL_TYPE type, bool listed = true) {
        ReceiverConfig cfg;
        ReceiverConfigDefaults(&cfg, ip);
        cfg.discoveryPort = kGroupPort;
        cfg.timeSync = false;
        rx.emplace_back(new ReceiverEmulator(cfg));
        EXPECT_EQ(0, rx.back()->Start());
        if (listed) ri.AVReceiver[(int)ri.nAVReceiverCnt++] = MakeReceiver(ip, type, 5);
        return rx.back().get();
    }
    // Init, open and search, as the sender facade does for one playback.
    int Play(const std::string& path, const char* mime, uint8_t channels, uint32_t rate,
             int offset = 0, const char* url = kUrl) {
        mi = AV_MUSIC_INFO{"", "Song", "", channels, rate, 0};
        snprintf(mi.pMusicURI, sizeof(mi.pMusicURI), "%s", path.c_str());
        snprintf(mi.pMime, sizeof(mi.pMime), "%s", mime);
        if (st == nullptr) st = new CAVStreamer(&EventLog::Notify, &events, 42);
        int ret = st->AVStreamerInit(&ri, &mi, offset);
        if (ret != 0) return kInitFailed + ret;
        ret = st->AVStreamerOpen(kTcp, kRtp, url, 9, offset);
        if (ret != 0) return kOpenFailed + ret;
        return st->ReceiverSearch(&ri);
    }
    // Checks a receiver got exactly the expected stream (whole packets of it,
    // then silence) with a clean handshake, well-formed packets and no loss.
    void ExpectStream(ReceiverEmulator* r, const std::vector<unsigned char>& expect) {
        SCOPED_TRACE(r->Config().address);
        const std::vector<unsigned char> got = r->Pcm();
        const size_t whole = expect.size() / 1400 * 1400;
        ASSERT_GE(got.size(), whole);
        EXPECT_TRUE(std::equal(expect.begin(), expect.begin() + (long)whole, got.begin()));
        EXPECT_TRUE(std::all_of(got.begin() + (long)whole, got.end(),
                                [](unsigned char b) { return b == 0; }));
        const ReceiverReport rep = r->Report();
        EXPECT_EQ(0u, rep.handshakeErrors + rep.badLength + rep.badVersion + rep.badPayloadType +
                          rep.badMarker + rep.seqGaps + rep.lostPackets + rep.outOfOrder +
                          rep.timestampErrors);
    }

    EventLog events;
    CAVStreamer* st = nullptr;
    AV_RECEIVER_INFO ri{};
    AV_MUSIC_INFO mi{};
    std::vector<std::unique_ptr<ReceiverEmulator>> rx;
};

}  // namespace

TEST_F(Playback, EveryRoleGetsItsChannelsBitExactAndPaced) {
    const std::string mp3 = fixture_path("sine_mono_44k.mp3");
    std::vector<unsigned char> decoded;  // the reference: the streamer's own MP3 reader
    {
        CAVStreamer ref(nullptr, nullptr, 0);
        long fd = ref.Mp3ToPcm_FileOpen(mp3.c_str());
        ASSERT_GE(fd, 1);
        std::vector<char> frame(AV_MP3_BUF_SIZE);
        for (long n; (n = ref.Mp3ToPcm_FileRead(fd, frame.data(), frame.size())) >= 0;)
            decoded.insert(decoded.end(), frame.begin(), frame.begin() + n);
        ref.Mp3ToPcm_FileClose(fd);
    }
    ASSERT_GT(decoded.size(), 100000u);
    // The control port is taken: each server drifts upwards and the SEARCH
    // tells the receivers where.
    int blocker = socket(AF_INET, SOCK_STREAM, 0), one = 1;
    setsockopt(blocker, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in sa;
    rx_sockaddr("0.0.0.0", kTcp, &sa);
    ASSERT_EQ(0, bind(blocker, (struct sockaddr*)&sa, sizeof(sa)));
    ASSERT_EQ(0, listen(blocker, 1));
    const struct {
        const char* file;
        const char* mime;
        int channels, rate, width;
    } cases[] = {
        {"wav16_stereo_44k.wav", "audio/x-wav", 2, 44100, 2},
        {"wav8_mono_8k.wav", "audio/x-wav", 1, 8000, 1},  // mono: doubled to both sides
        {"sine_mono_44k.mp3", "audio/mpeg", 1, 44100, 2},
    };
    const AV_CHANNEL_TYPE roles[3] = {AV_CHANNEL_FRONT_LEFT, AV_CHANNEL_FRONT_RIGHT,
                                      AV_CHANNEL_PARTY};
    const char* ips[3] = {"127.0.0.2", "127.0.0.3", "127.0.0.4"};
    const int stereoPick[3] = {0, 1, -1};
    int played = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        for (int i = 0; i < 3; i++) AddReceiver(ips[i], roles[i]);
        const unsigned int t0 = PAL_GetClock();
        ASSERT_EQ(0, Play(fixture_path(c.file), c.mime, (uint8_t)c.channels, (uint32_t)c.rate));
        ASSERT_TRUE(events.WaitFor("Stop 42 1", ++played, 20000)) << "the end of the content";
        const unsigned int elapsed = PAL_GetClock() - t0;
        PAL_ThreadSleep(300);
        std::vector<unsigned char> src = decoded;
        if (strcmp(c.mime, "audio/mpeg") != 0) {
            src = read_whole_file(fixture_path(c.file));
            src.erase(src.begin(), src.begin() + 44);  // the header
        }
        for (int i = 0; i < 3; i++)
            ExpectStream(rx[i].get(),
                         Role(src, c.channels, c.width, c.channels == 1 ? 0 : stereoPick[i]));
        // Paced by the clock: no faster than the audio plays.
        EXPECT_GE(elapsed * 10ull,
                  src.size() * 2 / c.channels * 9000ull / (2ull * c.rate * c.width));
        const ReceiverReport rep = rx[0]->Report();
        EXPECT_EQ(std::make_tuple(8 * c.width, c.rate), std::make_tuple(rep.sdpBits, rep.sdpRate));
        EXPECT_GT(rep.serverPort, kTcp);
        EXPECT_STREQ("Front_Right", rx[1]->Report().startRole);
        // After the end a seek is acknowledged at once and still announced.
        const unsigned int t1 = PAL_GetClock();
        st->AVStreamerSeek(2);
        EXPECT_LT(PAL_GetClock() - t1, 1000u);
        EXPECT_TRUE(WaitUntil([&] { return Seeks(rx[0].get()) == 1; }));
        Finish();  // the next case: a new streamer and new receivers, as the manager does
    }
    close(blocker);
}

TEST_F(Playback, PauseSeekJoinAndLeaveMoveTheAudioAndTheProgress) {
    std::string path = PositionWav(20);
    ReceiverEmulator* a = AddReceiver("127.0.0.2", AV_CHANNEL_PARTY);
    ReceiverEmulator* b = AddReceiver("127.0.0.3", AV_CHANNEL_PARTY);
    ReceiverEmulator* joiner = AddReceiver("127.0.0.4", AV_CHANNEL_PARTY, false);
    ASSERT_EQ(0, Play(path, "audio/x-wav", 2, 44100, 1));  // starts 1 s in
    ASSERT_TRUE(a->WaitForPackets(60, 10000));
    EXPECT_EQ(44100u, FrameAt(a->Pcm(), 0));

    st->AVStreamerPause();
    ASSERT_TRUE(a->WaitForCommand("PAUSE", 3000));
    ASSERT_TRUE(b->WaitForCommand("PAUSE", 3000));
    PAL_ThreadSleep(100);
    unsigned int pausedAt = a->Report().packets;
    PAL_ThreadSleep(500);
    EXPECT_EQ(pausedAt, a->Report().packets);  // no audio while paused
    st->AVStreamerResume();
    ASSERT_TRUE(a->WaitForCommand("RESUME", 3000));
    ASSERT_TRUE(a->WaitForPackets(pausedAt + 20, 5000));
    // The sequence ran on while paused, and the only jump is the one the
    // pause explains; the audio itself goes on where it stopped.
    EXPECT_EQ(std::make_tuple(true, 0u),
              std::make_tuple(a->Report().expectedGaps >= 1, a->Report().seqGaps));
    EXPECT_EQ(0u, FindAndFollow(a->Pcm(), 0, 44100));

    // Seek while playing, and again to the same offset: after each SEEK the
    // audio starts at the new position and progress follows it.
    for (int round = 0; round < 2; round++) {
        size_t before = a->Pcm().size();
        st->AVStreamerSeek(5);
        ASSERT_TRUE(WaitUntil([&] { return Seeks(a) == round + 1 && Seeks(b) == round + 1; }));
        ASSERT_TRUE(a->WaitForPackets(a->Report().packets + 40, 5000));
        const std::vector<unsigned char> pcm = a->Pcm();
        ASSERT_LT(FindAndFollow(pcm, before, 5u * 44100), pcm.size()) << "round " << round;
        ASSERT_TRUE(WaitUntil(
            [&] {
                std::vector<std::string> all = events.All();
                int second = 0;
                return !all.empty() && sscanf(all.back().c_str(), "Progress 42 %d", &second) == 1 &&
                       second >= 5;
            },
            5000));
    }

    // Seek while paused is allowed by the state table; after resume the audio
    // comes from the new place.
    st->AVStreamerPause();
    size_t before = a->Pcm().size();
    st->AVStreamerSeek(7);
    st->AVStreamerResume();
    ASSERT_TRUE(a->WaitForPackets(a->Report().packets + 20, 5000));
    std::vector<unsigned char> pcm = a->Pcm();
    EXPECT_LT(FindAndFollow(pcm, before, 7u * 44100), pcm.size());

    // Leave with the acknowledgement (the emulator answers BYE).
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.2"));
    EXPECT_TRUE(a->WaitForDisconnect(3000));
    EXPECT_EQ(1, Probe::ReceiverCount(st));

    // Join: searched by unicast, takes the freed lower slot, connects, and
    // is lined up with the one playing above it.
    EXPECT_EQ(0, st->AVStreamerReceiverIn(MakeReceiver("127.0.0.4", AV_CHANNEL_PARTY, 3)));
    EXPECT_STREQ("127.0.0.4", Probe::Receivers(st).AVReceiver[0].pReceiverIP);
    ASSERT_TRUE(joiner->WaitForHandshake(RX_HS_PLAYING, 5000));
    ASSERT_TRUE(joiner->WaitForPackets(50, 15000));
    EXPECT_GE(joiner->Report().searchesForMe, 1u);
    // Held still by a pause, both have the packets of the same last pass:
    // the same sequence number carries the same position.
    st->AVStreamerPause();
    ASSERT_TRUE(joiner->WaitForCommand("PAUSE", 3000));
    PAL_ThreadSleep(200);
    std::vector<unsigned char> pb = b->Pcm(), pj = joiner->Pcm();
    EXPECT_EQ(std::make_tuple(b->Report().lastSeq, FrameAt(pb, pb.size() - 1400)),
              std::make_tuple(joiner->Report().lastSeq, FrameAt(pj, pj.size() - 1400)));
    st->AVStreamerResume();

    // Leave without an acknowledgement: released after a second; the last
    // one out ends the service with 0.
    b->SetAnswerBye(false);
    unsigned int t0 = PAL_GetClock();
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.3"));
    EXPECT_GE(PAL_GetClock() - t0, 900u);
    EXPECT_TRUE(b->WaitForDisconnect(3000));
    EXPECT_EQ(0, st->AVStreamerReceiverOut("127.0.0.4"));
    EXPECT_EQ(AV_ERR_RECEIVER_NOT_ACTIVE, st->AVStreamerReceiverOut("127.0.0.4"));
    EXPECT_TRUE(events.WaitFor("Stop 42 0", 1, 3000));
    EXPECT_EQ(0, Probe::ReceiverCount(st));
    unlink(path.c_str());
}

TEST_F(Playback, OpenAndInitFailuresGiveTheirCodes) {
    AddReceiver("127.0.0.2", AV_CHANNEL_PARTY);
    const std::string wav = fixture_path("wav16_stereo_44k.wav");
    auto retry = [&](const char* file, const char* mime, const char* url) {
        if (st != nullptr) st->AVStreamerClose();
        return Play(file, mime, 2, 44100, 0, url);
    };
    EXPECT_EQ(kInitFailed + AV_ERR_CONTENT_OPEN,
              retry("/nonexistent/song.wav", "audio/x-wav", kUrl));
    EXPECT_EQ(kInitFailed + AV_ERR_CONTENT_OPEN,
              retry("/nonexistent/song.mp3", "audio/mpeg", kUrl));
    st->AVStreamerClose();
    EXPECT_EQ(AV_ERR_NO_MUSIC_INFO, st->AVStreamerInit(&ri, nullptr, 0));
    // Another type is read as raw PCM; then the open's own checks.
    EXPECT_EQ(kOpenFailed + AV_ERR_MULTICAST_URL, retry(wav.c_str(), "audio/L16", "224.1.2.4"));
    setenv("SONVARA_IFACE", "nosuch0", 1);
    EXPECT_EQ(kOpenFailed + AV_ERR_NO_NETWORK_ADDRESS, retry(wav.c_str(), "audio/L16", kUrl));
    unsetenv("SONVARA_IFACE");
    EXPECT_EQ(0, retry(wav.c_str(), "audio/L16", kUrl));
    EXPECT_EQ(AV_ERR_INIT_REFUSED, st->AVStreamerInit(&ri, &mi, 0));
    EXPECT_EQ(AV_ERR_OPEN_REFUSED, st->AVStreamerOpen(kTcp, kRtp, kUrl, 9, 0));
}

TEST_F(Playback, RepeatedLivesLeaveNoThreadDescriptorOrMemoryBehind) {
    ReceiverEmulator* r = AddReceiver("127.0.0.2", AV_CHANNEL_FRONT_LEFT);
    st = new CAVStreamer(&EventLog::Notify, &events, 42);
    auto life = [&](const char* file, const char* mime) {
        ASSERT_EQ(0, Play(fixture_path(file), mime, 2, 44100));
        unsigned int packets = r->Report().packets;
        ASSERT_TRUE(r->WaitForPackets(packets + 3, 10000));
        st->AVStreamerClose();
        ASSERT_TRUE(r->WaitForDisconnect(3000));
    };
    // The first lives warm up the allocator and the emulator.
    life("wav16_stereo_44k.wav", "audio/x-wav");
    life("sine_cbr128_id3.mp3", "audio/mpeg");
    int threads = CountEntries("/proc/self/task"), fds = CountEntries("/proc/self/fd");
    size_t heap = mallinfo2().uordblks;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int kLives = 40;  // the sanitizers slow every life several times over
#else
    const int kLives = 200;
#endif
    for (int i = 0; i < kLives; i++)
        life(i % 2 ? "sine_cbr128_id3.mp3" : "wav16_stereo_44k.wav",
             i % 2 ? "audio/mpeg" : "audio/x-wav");
    // Under qemu-user a joined thread may stay listed a moment longer (the
    // emulator wakes the joiner before its host thread is gone); a leaked
    // one stays for good.
    EXPECT_TRUE(WaitUntil([&] { return CountEntries("/proc/self/task") == threads; }, 5000))
        << CountEntries("/proc/self/task") << " threads, " << threads << " before";
    EXPECT_EQ(fds, CountEntries("/proc/self/fd"));
    // The emulator keeps what it receives; allow for that, not for a leak
    // per life.
    size_t kept = r->Pcm().size();
    EXPECT_LT(mallinfo2().uordblks, heap + kept + 256 * 1024);
}
