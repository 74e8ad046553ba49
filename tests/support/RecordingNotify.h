// RecordingNotify: an xPlurafonNotify for C++ callers and tests. Every event
// becomes one line of text ("Join 0 127.0.0.2 aa:01 g-1 Kitchen"), kept in
// arrival order; a test can wait for a line to appear.
//
// Threads: events arrive on any thread. Locks: m_mutex guards m_lines.
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
    void NotifyDeviceInfo(char* strIP, char* strMac, int idx, int tot) override {
        add("Device " + s(strIP) + " " + s(strMac) + " " + n(idx) + " " + n(tot));
    }
    void NotifyJoinDeviceInfo(int groupId, char* strIP, char* strMac, char* strGuid,
                              char* strDeviceName) override {
        add("Join " + n(groupId) + " " + s(strIP) + " " + s(strMac) + " " + s(strGuid) + " " +
            s(strDeviceName));
    }
    void NotifyResetDeviceInfo(int groupId, char* strIP) override {
        add("Reset " + n(groupId) + " " + s(strIP));
    }
    void NotifyDieDeviceInfo(char* strIP) override { add("Die " + s(strIP)); }
    void NotifyLeaveDeviceInfo(int groupId, char* strIP) override {
        add("Leave " + n(groupId) + " " + s(strIP));
    }
    void NotifyContentsInfo(int nNumChannel, int nSampleRate) override {
        add("Contents " + n(nNumChannel) + " " + n(nSampleRate));
    }
    void NotifyDeviceInfoByGroupId(int groupId, char* strIP, char* strMac, int idx, int tot,
                                   int type, int bIsService) override {
        add("DeviceByGroup " + n(groupId) + " " + s(strIP) + " " + s(strMac) + " " + n(idx) + " " +
            n(tot) + " " + n(type) + " " + n(bIsService));
    }
    void NotifyServiceStop(int groupId, int bNextPlay) override {
        add("ServiceStop " + n(groupId) + " " + n(bNextPlay));
        call(m_onServiceStop, groupId);
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
    void NoitfyDeviceSearchComplete(int bIsSuccess) override {
        add("SearchComplete " + n(bIsSuccess));
    }
    void NoitfyPlayProgress(int groupId, int progress) override {
        add("Progress " + n(groupId) + " " + n(progress));
        call(m_onProgress, groupId);
    }
    void NoitfyReceiverVolumeChanged(int groupId, char* strIP, char* strMac, char* strGuid,
                                     char* strDeviceName, int volume) override {
        add("Volume " + n(groupId) + " " + s(strIP) + " " + s(strMac) + " " + s(strGuid) + " " +
            s(strDeviceName) + " " + n(volume));
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
    static std::string s(const char* text) { return text ? text : "(null)"; }
    static std::string n(int v) { return std::to_string(v); }
    int count_l(const std::string& prefix) {
        int c = 0;
        for (auto& l : m_lines) c += l.compare(0, prefix.size(), prefix) == 0;
        return c;
    }
    void call(const std::function<void(int)>& member, int groupId) {
        std::function<void(int)> hook;
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            hook = member;
        }
        if (hook) hook(groupId);  // on the event's own thread, as a listener works
    }
    void add(const std::string& line) {
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
