// RecordingNotify: an xPlurafonNotify for C++ callers and tests. Every event
// becomes one line of text, its kind and then its arguments ("Join 0
// 127.0.0.2 aa:01 g-1 Kitchen"), kept in arrival order; a test can wait for
// a line to appear.
//
// Threads: events arrive on any thread. Locks: m_mutex guards m_lines and
// the hooks.
#ifndef RECORDINGNOTIFY_H
#define RECORDINGNOTIFY_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "xPlurafonNotify.h"

class RecordingNotify : public xPlurafonNotify {
public:
    void NotifyDeviceInfo(char* ip, char* mac, int idx, int tot) override {
        add("Device", ip, mac, idx, tot);
    }
    void NotifyJoinDeviceInfo(int g, char* ip, char* mac, char* guid, char* name) override {
        add("Join", g, ip, mac, guid, name);
    }
    void NotifyResetDeviceInfo(int g, char* ip) override { add("Reset", g, ip); }
    void NotifyDieDeviceInfo(char* ip) override { add("Die", ip); }
    void NotifyLeaveDeviceInfo(int g, char* ip) override { add("Leave", g, ip); }
    void NotifyContentsInfo(int channels, int rate) override { add("Contents", channels, rate); }
    void NotifyDeviceInfoByGroupId(int g, char* ip, char* mac, int idx, int tot, int type,
                                   int bIsService) override {
        add("DeviceByGroup", g, ip, mac, idx, tot, type, bIsService);
    }
    void NotifyServiceStop(int g, int bNextPlay) override {
        add("ServiceStop", g, bNextPlay);
        call(m_onServiceStop, g);
    }
    // What the listener does after recording a ServiceStop or a Progress
    // (null: nothing).
    void OnServiceStop(std::function<void(int groupId)> hook) {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_onServiceStop = hook;
    }
    void OnProgress(std::function<void(int groupId)> hook) {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_onProgress = hook;
    }
    void NoitfyDeviceSearchComplete(int bIsSuccess) override { add("SearchComplete", bIsSuccess); }
    void NoitfyPlayProgress(int g, int progress) override {
        add("Progress", g, progress);
        call(m_onProgress, g);
    }
    void NoitfyReceiverVolumeChanged(int g, char* ip, char* mac, char* guid, char* name,
                                     int volume) override {
        add("Volume", g, ip, mac, guid, name, volume);
    }

    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> hold(m_mutex);
        return m_lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_lines.clear();
    }
    // Lines that start with prefix.
    int Count(const std::string& prefix) {
        std::lock_guard<std::mutex> hold(m_mutex);
        return count_l(prefix);
    }
    // Waits until at least want lines start with prefix.
    bool WaitFor(const std::string& prefix, int want = 1, int timeoutMs = 15000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return count_l(prefix) >= want; });
    }

private:
    static std::string text(const char* s) { return s ? s : "(null)"; }
    static std::string text(int v) { return std::to_string(v); }
    int count_l(const std::string& prefix) {
        int c = 0;
        for (auto& l : m_lines) c += l.compare(0, prefix.size(), prefix) == 0;
        return c;
    }
    void call(const std::function<void(int)>& member, int g) {
        std::function<void(int)> hook;
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            hook = member;
        }
        if (hook) hook(g);  // on the event's own thread, as a listener works
    }
    template <class... Args>
    void add(const char* kind, Args... args) {
        std::string line = kind;
        for (const std::string& a : {text(args)...}) line += " " + a;
        std::lock_guard<std::mutex> hold(m_mutex);
        m_lines.push_back(line);
        m_changed.notify_all();
    }

    std::mutex m_mutex;  // guards m_lines and the hooks
    std::condition_variable m_changed;
    std::vector<std::string> m_lines;
    std::function<void(int)> m_onServiceStop;
    std::function<void(int)> m_onProgress;
};

#endif
