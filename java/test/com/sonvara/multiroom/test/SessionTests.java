package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * What the application does around a playback, from Java, against emulated
 * receivers running inside this JVM: find them, read their names, build a
 * group with roles; afterwards hear of a receiver leaving the network. The
 * playback group runs these around its play.
 */
final class SessionTests {
    private SessionTests() {}

    static final long EVENT_WAIT_MS = 30_000;

    /** One emulated speaker and what the engine must report about it. */
    static final class Speaker {
        final String name;
        final int volume;
        final int role;
        long rx;
        String ip, mac, guid;

        Speaker(String name, int volume, int role) {
            this.name = name;
            this.volume = volume;
            this.role = role;
        }
    }

    /** Three speakers with names outside ASCII, their volumes and the roles they get. */
    static List<Speaker> threeSpeakers() {
        return List.of(new Speaker("Wohnzimmer links", 3, SonvaraNativeMgr.CHANNEL_FRONT_LEFT),
                new Speaker("K\u00fcche \uD83C\uDFB5", 7, SonvaraNativeMgr.CHANNEL_FRONT_RIGHT),
                new Speaker("\u5BDD\u5BA4 \u00e9t\u00e9", 11, SonvaraNativeMgr.CHANNEL_WOOFER));
    }

    /** Starts the speakers on 127.0.0.2, .3, ... in this JVM. */
    static void start(List<Speaker> speakers) {
        startAt(speakers, 2);
    }

    /** Starts the speakers on 127.0.0.first, first+1, ... */
    static void startAt(List<Speaker> speakers, int first) {
        for (int i = 0; i < speakers.size(); i++) {
            Speaker s = speakers.get(i);
            s.rx = NotifyProbe.rxStart("127.0.0." + (first + i), s.name.getBytes(StandardCharsets.UTF_8),
                    s.volume, 1);
            Check.ok("receiver " + i + " started", s.rx != 0);
            if (s.rx == 0) continue;
            String[] id = NotifyProbe.rxIdentity(s.rx);
            s.ip = id[0];
            s.mac = id[1];
            s.guid = id[2];
        }
    }

    static void stop(List<Speaker> speakers) {
        for (Speaker s : speakers) {
            if (s.rx != 0) NotifyProbe.rxStop(s.rx);
            s.rx = 0;
        }
    }

    /**
     * Searches (blocking, then in the background) and builds group g of the
     * speakers with their roles, the second changed to centre afterwards.
     * Answers where each speaker sits in the group.
     */
    static Map<String, Integer> findAndGroup(SonvaraNativeMgr m, EventLog log,
            List<Speaker> speakers, int g) throws Exception {
        // Blocking search: one NotifyDeviceInfo per receiver, inline on this thread.
        log.clear();
        Check.eq("SearchDevice", 0, m.SearchDevice());
        Map<String, Speaker> byIp = new HashMap<>();
        for (Speaker s : speakers) byIp.put(s.ip, s);
        Set<Integer> indexes = new HashSet<>();
        List<EventLog.Event> found = log.events();
        Check.eq("one device event per receiver", speakers.size(), found.size());
        for (EventLog.Event e : found) {
            String[] f = e.text.split("\\|");
            Speaker s = byIp.get(f[1]);
            Check.ok("device event names a receiver: " + e.text, s != null && f[0].equals("DeviceInfo"));
            if (s != null) Check.eq("device event MAC", s.mac, f[2]);
            indexes.add(Integer.parseInt(f[3]));
            Check.eq("device event total", String.valueOf(speakers.size()), f[4]);
            Check.eq("device event thread", Thread.currentThread(), e.thread);
        }
        Check.eq("device event indexes", Set.of(0, 1, 2), indexes);

        // A second search reports nobody again.
        log.clear();
        Check.eq("SearchDevice again", 0, m.SearchDevice());
        Check.eq("already reported devices stay quiet", List.of(), log.texts());

        // Background search: the completion arrives on the engine's own
        // thread; afterwards the registry holds names, volumes and types.
        Check.eq("SearchDeviceAsync", 0, m.SearchDeviceAsync(2000));
        Check.ok("search completion", log.await("DeviceSearchComplete|", EVENT_WAIT_MS));
        List<EventLog.Event> done = log.events();
        if (!done.isEmpty()) {
            Check.eq("search succeeded", "DeviceSearchComplete|1", done.get(0).text);
            Check.ok("completion on an engine thread", done.get(0).thread != Thread.currentThread());
        }
        Map<String, Integer> handles = new HashMap<>();
        for (int i = 0; i < m.GetDeviceCount(); i++) {
            int h = m.GetDeviceHandle(i);
            handles.put(m.GetDeviceMac(h), h);
        }
        for (Speaker s : speakers) {
            Integer h = handles.get(s.mac);
            Check.ok("registry knows " + s.ip, h != null);
            if (h == null) continue;
            Check.eq("ip of " + s.mac, s.ip, m.GetDeviceIp(h));
            Check.eq("guid of " + s.ip, s.guid, m.GetDeviceGuid(h));
            Check.eq("UTF-8 name of " + s.ip, s.name, m.GetDeviceName(h));
            Check.eq("volume of " + s.ip, s.volume, m.GetDeviceVolume(h));
            Check.eq("type of " + s.ip, 1, m.GetDeviceReceiverType(h));
        }

        // The group with roles.
        for (Speaker s : speakers) {
            Check.eq("AddDevice " + s.ip, 0, m.AddDevice(g, s.ip, s.mac, s.role, true));
        }
        Check.eq("members", speakers.size(), m.GetDeviceCountInGroup(g));
        Map<String, Integer> slot = new HashMap<>();
        for (int i = 0; i < speakers.size(); i++) {
            String ip = m.GetDeviceIpInGroup(g, i);
            Speaker s = byIp.get(ip);
            Check.ok("member " + i + " is a receiver", s != null);
            if (s == null) continue;
            slot.put(ip, i);
            Check.eq("member name " + ip, s.name, m.GetDeviceNameInGroup(g, i));
            Check.eq("member guid " + ip, s.guid, m.GetDeviceGuidInGroup(g, i));
            Check.eq("member mac " + ip, s.mac, m.GetDeviceMacInGroup(g, i));
            Check.eq("member role " + ip, s.role, m.GetDeviceTypeInGroup(g, i));
            Check.eq("member in service " + ip, true, m.IsDeviceServiceInGroup(g, i));
        }
        Speaker second = speakers.get(1);
        Check.eq("UpdateDeviceChannelType", 0, m.UpdateDeviceChannelType(g, second.ip, second.mac,
                SonvaraNativeMgr.CHANNEL_CENTER));
        Integer secondSlot = slot.get(second.ip);
        if (secondSlot != null) {
            Check.eq("new role", SonvaraNativeMgr.CHANNEL_CENTER,
                    m.GetDeviceTypeInGroup(g, secondSlot));
        }
        return slot;
    }

    /**
     * The last speaker leaves the network: the discovery thread reports it
     * and its membership turns off. Then the engine goes and stays quiet.
     */
    static void leaveAndFinalize(SonvaraNativeMgr m, EventLog log, List<Speaker> speakers, int g,
            Map<String, Integer> slot) throws Exception {
        log.clear();
        Speaker leaving = speakers.get(speakers.size() - 1);
        Check.eq("EXIT sent", true, NotifyProbe.rxSendExit(leaving.rx) >= 0);
        Check.ok("die event", log.await("DieDeviceInfo|" + leaving.ip, EVENT_WAIT_MS));
        for (EventLog.Event e : log.events()) {
            if (e.text.startsWith("DieDeviceInfo|")) {
                Check.ok("die event on an engine thread", e.thread != Thread.currentThread());
            }
        }
        Integer leavingSlot = slot.get(leaving.ip);
        if (leavingSlot != null) {
            Check.eq("member off after EXIT", 2, m.GetDeviceStateInGroup(g, leavingSlot));
        }
        Check.eq("DisconnectedWiFi", 0, m.DisconnectedWiFi());
        Check.eq("Finalize", 0, m.Finalize());
        List<String> after = new ArrayList<>(log.texts());
        Thread.sleep(1000);
        Check.eq("engine quiet after Finalize", after, log.texts());
    }
}
