package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.util.ArrayList;
import java.util.List;

/** Records every engine event as one text line, with the thread it arrived on. */
class EventLog implements SonvaraNativeMgr.Listener {
    static final class Event {
        final String text;
        final Thread thread;

        Event(String text, Thread thread) {
            this.text = text;
            this.thread = thread;
        }
    }

    private final List<Event> mEvents = new ArrayList<>();

    synchronized void add(Object... parts) {
        StringBuilder sb = new StringBuilder();
        for (Object p : parts) {
            if (sb.length() > 0) sb.append('|');
            sb.append(p);
        }
        mEvents.add(new Event(sb.toString(), Thread.currentThread()));
        notifyAll();
    }

    synchronized List<Event> events() {
        return new ArrayList<>(mEvents);
    }

    synchronized List<String> texts() {
        List<String> out = new ArrayList<>();
        for (Event e : mEvents) out.add(e.text);
        return out;
    }

    synchronized void clear() {
        mEvents.clear();
    }

    /** Waits until an event starting with prefix arrives; false after timeoutMs. */
    synchronized boolean await(String prefix, long timeoutMs) throws InterruptedException {
        long end = System.currentTimeMillis() + timeoutMs;
        while (true) {
            for (Event e : mEvents) {
                if (e.text.startsWith(prefix)) return true;
            }
            long left = end - System.currentTimeMillis();
            if (left <= 0) return false;
            wait(left);
        }
    }

    @Override
    public void onDeviceInfo(String ip, String mac, int idx, int tot) {
        add("DeviceInfo", ip, mac, idx, tot);
    }

    @Override
    public void onJoinDeviceInfo(int groupId, String ip, String mac, String guid, String name) {
        add("JoinDeviceInfo", groupId, ip, mac, guid, name);
    }

    @Override
    public void onResetDeviceInfo(int groupId, String ip) {
        add("ResetDeviceInfo", groupId, ip);
    }

    @Override
    public void onDieDeviceInfo(String ip) {
        add("DieDeviceInfo", ip);
    }

    @Override
    public void onLeaveDeviceInfo(int groupId, String ip) {
        add("LeaveDeviceInfo", groupId, ip);
    }

    @Override
    public void onDeviceInfoByGroupId(int groupId, String ip, String mac, int idx, int tot,
            int type, int isService) {
        add("DeviceInfoByGroupId", groupId, ip, mac, idx, tot, type, isService);
    }

    @Override
    public void onContentsInfo(int numChannel, int sampleRate) {
        add("ContentsInfo", numChannel, sampleRate);
    }

    @Override
    public void onServiceStop(int groupId, int nextPlay) {
        add("ServiceStop", groupId, nextPlay);
    }

    @Override
    public void onDeviceSearchComplete(int isSuccess) {
        add("DeviceSearchComplete", isSuccess);
    }

    @Override
    public void onPlayProgress(int groupId, int progressSec) {
        add("PlayProgress", groupId, progressSec);
    }

    @Override
    public void onReceiverVolumeChanged(int groupId, String ip, String mac, String guid,
            String name, int volume) {
        add("ReceiverVolumeChanged", groupId, ip, mac, guid, name, volume);
    }
}
