// The phone's network identity, the log line, and the small helpers.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "PAL.h"
#include "TempDir.h"
#include "audio_check.h"
#include "netns_rig.h"

namespace {

struct CAPTURE {
    std::mutex lock;
    std::vector<std::string> lines;
};

void capture_line(const char* line, void* ctx) {
    CAPTURE* c = static_cast<CAPTURE*>(ctx);
    std::lock_guard<std::mutex> g(c->lock);
    c->lines.push_back(line);
}

}  // namespace

TEST(NicInfo, OverrideAndLoopbackFallback) {
    char mac[20];
    char ip[20];
    // The namespace has nothing but lo: the fallback picks it, as does naming
    // it; a named interface that does not exist is an error, not a guess.
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

TEST(Clock, SleepUntilWakesAtTheDeadlineNeverBefore) {
    for (int i = 0; i < 5; i++) {
        unsigned int deadline = PAL_GetClock() + 7 + i;
        PAL_ThreadSleepUntil(deadline);
        EXPECT_GE((int)(PAL_GetClock() - deadline), 0);
    }
    // Deadlines already passed, also across the clock's wrap, return at once.
    unsigned int start = PAL_GetClock();
    PAL_ThreadSleepUntil(start - 5);
    PAL_ThreadSleepUntil(start + 0x80000001u);
    EXPECT_LT(PAL_GetClock() - start, 1000u);
}

TEST(DebugUi, OneWholeLinePerCallToTheSink) {
    CAPTURE cap;
    debug_UI_SetSink(capture_line, &cap);
    debug_UI("[AVStreamer m_groupId : %d] ServerOpen() Start", 3);
    debug_UI("DeleteGroup--- Ret %u\n", 259u);
    std::string longText(5000, 'q');
    debug_UI("%s", longText.c_str());
    // A fault met on every packet: the first line, then only a count once a
    // second (the line's text unchanged).
    DEBUG_UI_RATE rate = {0, 0, 0};
    unsigned int start = PAL_GetClock();
    int calls = 0;
    while (cap.lines.size() < 6 && PAL_GetClock() - start < 10000) {
        debug_UI_Rate(&rate, "nRcv : %d, Pal_RingBufRead Error", calls++ % 3);
        PAL_ThreadSleep(2);
    }
    debug_UI_SetSink(nullptr, nullptr);
    debug_UI("not captured");

    ASSERT_GE(cap.lines.size(), 6u);
    EXPECT_EQ("[AVStreamer m_groupId : 3] ServerOpen() Start", cap.lines[0]);
    EXPECT_EQ("DeleteGroup--- Ret 259", cap.lines[1]);
    EXPECT_GT(cap.lines[2].size(), 500u);
    EXPECT_LT(cap.lines[2].size(), 5000u);
    EXPECT_EQ("nRcv : 0, Pal_RingBufRead Error", cap.lines[3]);
    // However slow the machine, at most one count and one line per second.
    unsigned int held = 0;
    EXPECT_LE(cap.lines.size(), 3u + 1u + 2u * ((PAL_GetClock() - start) / 1000u));
    for (size_t i = 4; i + 1 < cap.lines.size(); i += 2) {
        EXPECT_EQ(1, sscanf(cap.lines[i].c_str(), "(%u more of the next line in", &held))
            << cap.lines[i];
        EXPECT_NE(std::string::npos, cap.lines[i + 1].find(", Pal_RingBufRead Error"));
    }
    EXPECT_GT(held, 0u);
}

// Run only as a child of the next test (the log target is chosen once per
// process, so each target needs a fresh process).
TEST(DebugUi, DISABLED_ChildLogsTwoLines) {
    debug_UI("PlurafonMgr::CreateGroup+++");
    debug_UI("PlurafonMgr::CreateGroup---");
}

TEST(DebugUi, LogTargetComesFromTheEnvironment) {
    TempDir dir;
    std::string path = dir.path + "/engine.log";
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    ASSERT_GT(n, 0);
    self[n] = 0;
    for (const char* target : {path.c_str(), "off"}) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            setenv("SONVARA_LOG", target, 1);
            const char* args[] = {sonvara_emulator(), self, "--gtest_also_run_disabled_tests",
                                  "--gtest_filter=DebugUi.DISABLED_ChildLogsTwoLines", nullptr};
            const char** argv = args[0] ? args : args + 1;
            execv(argv[0], const_cast<char* const*>(argv));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::vector<unsigned char> text = read_whole_file(path);
    EXPECT_EQ("PlurafonMgr::CreateGroup+++\nPlurafonMgr::CreateGroup---\n",
              std::string(text.begin(), text.end()));
}
