// The sender facade: null and stale handles get their fixed answers and
// touch nothing; a delete waits for calls in flight on the same handle;
// discovery objects come and go through their handles.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "AVRepDlna.h"
#include "thinSender.h"

namespace {

void ignore_events(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}
void ignore_dlna(intptr_t, intptr_t, intptr_t, intptr_t) {}

// Every streamer function with one handle: their answers, in a fixed order.
std::vector<int> StreamerAnswers(int h) {
    AV_MUSIC_INFO music = {};
    AV_RECEIVER rx = {};
    char ip[] = "127.0.0.2";
    return {AVSenderOpen(h, 1554, 15000, "224.1.2.4:1234", &music, nullptr, 5, 0),
            AVSenderClose(h),
            AVSenderSeek(h, 3),
            AVSenderPause(h),
            AVSenderResume(h),
            AVSenderStop(h),
            AVSenderStopNotify(h),
            AVSenderReceiverIn(h, rx),
            AVSenderReceiverOut(h, ip),
            AVSenderReceiverUpdateChannel(h, ip, AV_CHANNEL_CENTER),
            AVSenderReceiverVolumeControl(h, 3),
            AVSenderReceiverDeviceVolumeControl(h, ip, 3),
            AVSenderSetReceiverUIType(h, ip, 1),
            AVSenderSetReceiverUITypeAll(h, 1),
            AVSenderResetAcceptWaitReceiverInfo(h, ip),
            AVSenderIsStreamReceiverExist(h) ? 1 : 0,
            AVSenderDelete(h)};
}

// Most answer AVSENDER_ERR_NULL_STREAMER; a few AVSENDER_ERR_NULL_HANDLE.
const int H = AVSENDER_ERR_NULL_HANDLE, S = AVSENDER_ERR_NULL_STREAMER;
const std::vector<int> kNullStreamer = {H, S, S, H, H, S, H, S, S, H, S, S, S, S, S, 0, S};

std::vector<int> DlnaAnswers(int h) {
    AV_DEVICE_INFO devices = {};
    AV_DEVICE me;
    AV_CONTENT_INFO content;
    return {AVGetDeviceInfo(h, "224.1.2.4:1234", &devices, 100),
            AVGetMyDevice(h, &me),
            AVGetContentInfo(h, "/tmp/x.wav", &content),
            AVGetContentInfoFromMime(h, "/tmp/x.wav", "audio/x-wav", &content),
            AVSyncTrigOpen(h),
            AVSyncTrigClose(h),
            AVRepDlnaClose(h),
            AVRepDlnaOpen(h, "224.1.2.4:1234"),
            AVRepDlnaDelete(h)};
}

}  // namespace

TEST(ThinSender, NullAndStaleHandlesGetTheirFixedAnswers) {
    for (int h : {0, -1, 77777}) {
        EXPECT_EQ(kNullStreamer, StreamerAnswers(h)) << h;
        EXPECT_EQ(std::vector<int>(9, H), DlnaAnswers(h)) << h;
    }
    EXPECT_EQ(H, AVSenderCreate(nullptr, ignore_events, nullptr, 1));
    EXPECT_EQ(H, AVRepDlnaCreate(nullptr, "224.1.2.4:1234", ignore_dlna, nullptr));

    // A streamer: a null music description is refused before anything else;
    // it is found by its handle, never by a made-up one; once deleted, its
    // handle is as unknown as a made-up one, and not handed out again.
    int h = 0, h2 = 0;
    ASSERT_EQ(0, AVSenderCreate(&h, ignore_events, nullptr, 7));
    EXPECT_EQ(std::vector<int>({H, 0, TAV_PARAM_INVALID, h, 0, 0, 0}),
              std::vector<int>(
                  {AVSenderOpen(h, 1554, 15000, "224.1.2.4:1234", nullptr, nullptr, 5, 0),
                   AVSenderIsStreamReceiverExist(h) ? 1 : 0,
                   AVSenderReceiverDeviceVolumeControl(h, nullptr, 3), AVSenderHandleOf(h),
                   AVSenderHandleOf(h + 1000), AVSenderHandleOf((intptr_t)&h), AVSenderDelete(h)}));
    EXPECT_EQ(kNullStreamer, StreamerAnswers(h));
    EXPECT_EQ(0, AVSenderHandleOf(h));
    ASSERT_EQ(0, AVSenderCreate(&h2, ignore_events, nullptr, 8));
    EXPECT_NE(h, h2);
    EXPECT_EQ(0, AVSenderDelete(h2));

    // Discovery: a failed open takes the object with it.
    int d = 0;
    ASSERT_EQ(0, AVRepDlnaCreate(&d, "224.1.2.4:1234", ignore_dlna, nullptr));
    AV_DEVICE me = {};
    EXPECT_EQ(0, AVGetMyDevice(d, &me));
    EXPECT_NE('\0', me.pReceiverIP[0]);
    EXPECT_EQ(std::vector<int>({0, 0}),
              std::vector<int>({AVRepDlnaClose(d), AVRepDlnaOpen(d, "224.1.2.4:1234")}));
    EXPECT_NE(0, AVRepDlnaOpen(d, "no-port-here"));
    EXPECT_EQ(std::vector<int>(9, H), DlnaAnswers(d));

    AVRepDlnaSetGUID(std::string(45, 'g').c_str());
    EXPECT_EQ(std::string(39, 'g'), CAVRepDlna::mguid);
}

TEST(ThinSender, DeleteWaitsForCallsInFlight) {
    for (int round = 0; round < 20; round++) {
        int h = 0;
        ASSERT_EQ(0, AVSenderCreate(&h, ignore_events, nullptr, round));
        std::atomic<bool> go{false};
        std::atomic<int> calls{0};
        std::vector<std::thread> callers;
        for (int t = 0; t < 3; t++) {
            callers.emplace_back([&] {
                while (!go) std::this_thread::yield();
                char ip[] = "127.0.0.9";
                // Each call either finds the streamer whole or gets the null answer.
                while (AVSenderResetAcceptWaitReceiverInfo(h, ip) != S) calls++;
            });
        }
        go = true;
        while (calls < 10) std::this_thread::yield();
        EXPECT_EQ(0, AVSenderDelete(h));
        for (auto& t : callers) t.join();
        EXPECT_EQ(AVSENDER_ERR_NULL_STREAMER, AVSenderDelete(h));
    }
}
