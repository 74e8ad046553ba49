package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * One whole session from Java against emulated receivers in this JVM: find
 * them (blocking and background searches, their names and volumes), group
 * them, play a WAV file to its end (roles, the service registry, progress on
 * a native thread, a volume change and a JOIN with their texts), then many
 * plays under a listener that calls back in (ReentryTests), then a receiver
 * leaving the network and the engine going quiet.
 */
final class PlaybackTests {
    private PlaybackTests() {}

    static final long WAIT_MS = Scene.WAIT_MS;

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        ReentryTests.Reentrant log = new ReentryTests.Reentrant();
        Scene.Speaker outsider = new Scene.Speaker("Garten \u00f6", 5, SonvaraNativeMgr.CHANNEL_PARTY);
        try (Scene sc = new Scene(log, false)) {
            discovery(sc, log);
            play(sc, log, outsider);
            ReentryTests.rounds(sc, log);
            leave(sc, log);
        } finally {
            outsider.stop();
        }
    }

    /** What the searches report and the registry and group hold afterwards. */
    static void discovery(Scene sc, EventLog log) throws Exception {
        SonvaraNativeMgr m = sc.m;
        // The scene's blocking search: one device event per receiver, inline.
        Set<String> found = new HashSet<>();
        Set<Integer> indexes = new HashSet<>();
        for (EventLog.Event e : log.events()) {
            String[] f = e.text.split("\\|");
            found.add(f[0] + "|" + f[1] + "|" + f[2] + "|" + f[4]);
            indexes.add(Integer.parseInt(f[3]));
            Check.eq("device event thread", Thread.currentThread(), e.thread);
        }
        Set<String> want = new HashSet<>();
        for (Scene.Speaker s : sc.speakers) want.add("DeviceInfo|" + s.ip + "|" + s.mac + "|3");
        Check.eq("one device event per receiver", want, found);
        Check.eq("device event indexes", Set.of(0, 1, 2), indexes);
        log.clear();
        Check.eq("SearchDevice again", 0, m.SearchDevice());
        Check.eq("already reported devices stay quiet", List.of(), log.texts());

        // Background search: the completion arrives on the engine's own
        // thread; afterwards the registry holds names, volumes and types.
        Check.eq("SearchDeviceAsync", 0, m.SearchDeviceAsync(2000));
        Check.ok("search completion", log.await("DeviceSearchComplete|", WAIT_MS));
        for (EventLog.Event e : log.events()) {
            Check.eq("search succeeded", "DeviceSearchComplete|1", e.text);
            Check.ok("completion on an engine thread", e.thread != Thread.currentThread());
        }
        for (int i = 0; i < m.GetDeviceCount(); i++) {
            int h = m.GetDeviceHandle(i);
            Scene.Speaker s = sc.speakerAt(m.GetDeviceIp(h));
            Check.eq("mac of " + s.ip, s.mac, m.GetDeviceMac(h));
            Check.eq("guid of " + s.ip, s.guid, m.GetDeviceGuid(h));
            Check.eq("UTF-8 name of " + s.ip, s.name, m.GetDeviceName(h));
            Check.eq("volume of " + s.ip, s.volume, m.GetDeviceVolume(h));
            Check.eq("type of " + s.ip, 1, m.GetDeviceReceiverType(h));
        }
        // Texts out of the group (their conversion is shared with the registry's).
        Scene.Speaker second = sc.speakers.get(1);
        int i = sc.slot(second.ip);
        Check.eq("member name", second.name, m.GetDeviceNameInGroup(sc.group, i));
        Check.eq("member guid", second.guid, m.GetDeviceGuidInGroup(sc.group, i));
        Check.eq("member role", second.role, m.GetDeviceTypeInGroup(sc.group, i));
        Check.eq("UpdateDeviceChannelType", 0, m.UpdateDeviceChannelType(sc.group, second.ip,
                second.mac, SonvaraNativeMgr.CHANNEL_CENTER));
        Check.eq("new role", SonvaraNativeMgr.CHANNEL_CENTER, m.GetDeviceTypeInGroup(sc.group, i));
    }

    static void play(Scene sc, EventLog log, Scene.Speaker outsider) throws Exception {
        SonvaraNativeMgr m = sc.m;
        int g = sc.group;
        Check.eq("SaveGroup", 0, m.SaveGroup(sc.dir.toString()));
        Check.ok("group file written", Files.isRegularFile(sc.dir.resolve("multi_group_play.ini")));

        // Content questions: the content-info query also reports to the listener.
        String file = sc.wav(8);
        Check.eq("IsContentValid", 0, m.IsContentValid(file, "audio/x-wav"));
        Check.ok("IsContentValid rejects a missing file", m.IsContentValid(file + ".none", "audio/x-wav") != 0);
        Check.eq("GetContentChannel", 2, m.GetContentChannel(file));
        Check.eq("GetContentSampleRate", 44100, m.GetContentSampleRate(file));
        log.clear();
        m.GetContentInfo(file);
        Check.eq("contents event", List.of("ContentsInfo|2|44100"), log.texts());
        Check.eq("no service devices before playing", List.of(), List.of(m.GetServiceDeviceList()));

        log.clear();
        Check.eq("Open", 0, sc.open(file));
        Set<String> ips = new HashSet<>();
        String[] roles = {"Front_Left", "Center", "Woofer"};
        for (int i = 0; i < sc.speakers.size(); i++) {
            Scene.Speaker s = sc.speakers.get(i);
            Check.ok("packets reach " + s.ip, NotifyProbe.rxWaitPackets(s.rx, 100, (int) WAIT_MS));
            Check.eq("role of " + s.ip, roles[i], NotifyProbe.rxStartRole(s.rx));
            ips.add(s.ip);
        }
        Check.eq("service devices", ips, new HashSet<>(List.of(m.GetServiceDeviceList())));
        Check.eq("service group of a receiver", g, m.GetServiceGroupIdOfReceiver(sc.speakers.get(0).ip));

        // Progress each second, from one of the engine's own threads.
        Check.ok("progress 2", log.await("PlayProgress|" + g + "|2", WAIT_MS));
        for (EventLog.Event e : log.events()) {
            if (!e.text.startsWith("PlayProgress|")) continue;
            Check.ok("progress off the Java thread", e.thread != Thread.currentThread());
            e.thread.join(5000); // the detach follows the event's return
            Check.ok("progress thread detached after the event", !e.thread.isAlive());
        }

        // The name is the one the background search learnt.
        Scene.Speaker first = sc.speakers.get(0);
        NotifyProbe.rxSendVolumeChanged(first.rx, 6);
        Check.ok("volume change reported", log.await("ReceiverVolumeChanged|" + g + "|" + first.ip
                + "|" + first.mac + "|" + first.guid + "|" + first.name + "|6", WAIT_MS));

        // A receiver outside the group asks to join the running stream.
        outsider.start(5);
        NotifyProbe.rxSendJoin(outsider.rx);
        Check.ok("join reported", log.await("JoinDeviceInfo|0|" + outsider.ip + "|" + outsider.mac
                + "|" + outsider.guid + "|" + outsider.name, WAIT_MS));

        Check.ok("end of content", log.await("ServiceStop|" + g + "|", WAIT_MS));
        Check.eq("Stop", 0, m.Stop(g, false));
        Check.eq("no service devices after Stop", List.of(), List.of(m.GetServiceDeviceList()));
    }

    /**
     * The last speaker leaves the network: the discovery thread reports it
     * and its membership turns off. Then the engine goes and stays quiet.
     */
    static void leave(Scene sc, EventLog log) throws Exception {
        log.clear();
        Scene.Speaker leaving = sc.speakers.get(sc.speakers.size() - 1);
        int slot = sc.slot(leaving.ip); // an absent member has no address
        Check.eq("SearchDevice", 0, sc.m.SearchDevice()); // back after the rounds' Wi-Fi loss
        Check.ok("member present before EXIT", sc.m.GetDeviceStateInGroup(sc.group, slot) != 2);
        Check.eq("EXIT sent", true, NotifyProbe.rxSendExit(leaving.rx) >= 0);
        Check.ok("die event", log.await("DieDeviceInfo|" + leaving.ip, WAIT_MS));
        for (EventLog.Event e : log.events()) {
            if (e.text.startsWith("DieDeviceInfo|")) {
                Check.ok("die event on an engine thread", e.thread != Thread.currentThread());
            }
        }
        Check.eq("member off after EXIT", 2, sc.m.GetDeviceStateInGroup(sc.group, slot));
        Check.eq("DisconnectedWiFi", 0, sc.m.DisconnectedWiFi());
        Check.eq("Finalize", 0, sc.m.Finalize());
        List<String> after = new ArrayList<>(log.texts());
        Thread.sleep(1000);
        Check.eq("engine quiet after Finalize", after, log.texts());
    }
}
