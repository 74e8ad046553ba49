package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * A group playing a WAV file from Java to three emulated receivers, found
 * and grouped as the application does it (SessionTests): the roles they are
 * given, the service registry, progress on a native thread, a volume change
 * and a JOIN reported with their texts, the end of the content, Stop; then a
 * receiver leaving the network.
 */
final class PlaybackTests {
    private PlaybackTests() {}

    static final long WAIT_MS = 30_000;
    static final int SECONDS = 8;

    /** A 16-bit stereo 44.1 kHz WAV file: a tone on the left, another on the right. */
    static Path makeWav(Path dir, int seconds) throws IOException {
        int rate = 44100;
        int frames = rate * seconds;
        ByteBuffer b = ByteBuffer.allocate(44 + frames * 4).order(ByteOrder.LITTLE_ENDIAN);
        b.put("RIFF".getBytes()).putInt(36 + frames * 4).put("WAVE".getBytes());
        b.put("fmt ".getBytes()).putInt(16).putShort((short) 1).putShort((short) 2);
        b.putInt(rate).putInt(rate * 4).putShort((short) 4).putShort((short) 16);
        b.put("data".getBytes()).putInt(frames * 4);
        for (int i = 0; i < frames; i++) {
            b.putShort((short) (8000 * Math.sin(2 * Math.PI * 440 * i / rate)));
            b.putShort((short) (8000 * Math.sin(2 * Math.PI * 660 * i / rate)));
        }
        Path f = dir.resolve("tone.wav");
        try (OutputStream out = Files.newOutputStream(f)) {
            out.write(b.array());
        }
        return f;
    }

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        List<SessionTests.Speaker> speakers = SessionTests.threeSpeakers();
        List<SessionTests.Speaker> outsider = List.of(
                new SessionTests.Speaker("Garten \u00f6", 5, SonvaraNativeMgr.CHANNEL_PARTY));
        SessionTests.start(speakers);
        try {
            play(speakers, outsider);
        } finally {
            SessionTests.stop(speakers);
            SessionTests.stop(outsider);
        }
    }

    static void play(List<SessionTests.Speaker> speakers, List<SessionTests.Speaker> outsider)
            throws Exception {
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        EventLog log = new EventLog();
        m.setListener(log);
        Check.eq("initialize", 0, m.initialize("4f1c2a9e-playback"));
        Check.eq("ConnectedWiFi", 0, m.ConnectedWiFi());
        int g = m.CreateGroup("Erdgeschoss");
        Check.ok("CreateGroup", g != 0);
        Map<String, Integer> slot = SessionTests.findAndGroup(m, log, speakers, g);
        Path dir = Files.createTempDirectory("sonvara-play");
        Check.eq("SaveGroup", 0, m.SaveGroup(dir.toString()));
        Check.ok("group file written", Files.isRegularFile(dir.resolve("multi_group_play.ini")));

        // Content questions: the content-info query also reports to the listener.
        String file = makeWav(dir, SECONDS).toString();
        Check.eq("IsContentValid", 0, m.IsContentValid(file, "audio/x-wav"));
        Check.ok("IsContentValid rejects a missing file",
                m.IsContentValid(dir.resolve("none.wav").toString(), "audio/x-wav") != 0);
        Check.eq("GetContentChannel", 2, m.GetContentChannel(file));
        Check.eq("GetContentSampleRate", 44100, m.GetContentSampleRate(file));
        log.clear();
        m.GetContentInfo(file);
        Check.eq("contents event", List.of("ContentsInfo|2|44100"), log.texts());
        Check.eq("no service devices before playing", List.of(),
                List.of(m.GetServiceDeviceList()));

        log.clear();
        Check.eq("Open", 0, m.Open(g, file, "Ton \u00fc", "audio/x-wav", 2, 44100, 9, 0, false));
        for (SessionTests.Speaker s : speakers) {
            Check.ok("packets reach " + s.ip, NotifyProbe.rxWaitPackets(s.rx, 100, (int) WAIT_MS));
        }
        String[] roles = {"Front_Left", "Center", "Woofer"};
        for (int i = 0; i < speakers.size(); i++) {
            Check.eq("role of " + speakers.get(i).ip, roles[i], NotifyProbe.rxStartRole(speakers.get(i).rx));
        }
        Set<String> served = new HashSet<>(List.of(m.GetServiceDeviceList()));
        Set<String> ips = new HashSet<>();
        for (SessionTests.Speaker s : speakers) ips.add(s.ip);
        Check.eq("service devices", ips, served);
        Check.eq("service group of a receiver", g, m.GetServiceGroupIdOfReceiver(speakers.get(0).ip));

        // Progress each second, from the engine's stream thread.
        Check.ok("progress 2", log.await("PlayProgress|" + g + "|2", WAIT_MS));
        for (EventLog.Event e : log.events()) {
            if (!e.text.startsWith("PlayProgress|")) continue;
            Check.ok("progress off the Java thread", e.thread != Thread.currentThread());
            e.thread.join(5000); // the detach follows the event's return
            Check.ok("progress thread detached after the event", !e.thread.isAlive());
        }

        // Seek, pause, resume and volume from Java under a playing group, and
        // from inside events, are the reentry group's; what they do at the
        // receivers is checked by the manager's tests.
        SessionTests.Speaker first = speakers.get(0);
        NotifyProbe.rxSendVolumeChanged(first.rx, 6);
        // The name is the one the background search learnt.
        Check.ok("volume change reported", log.await("ReceiverVolumeChanged|" + g + "|" + first.ip
                + "|" + first.mac + "|" + first.guid + "|" + first.name + "|6", WAIT_MS));

        // A receiver outside the group asks to join the running stream.
        SessionTests.startAt(outsider, 5);
        SessionTests.Speaker joining = outsider.get(0);
        NotifyProbe.rxSendJoin(joining.rx);
        Check.ok("join reported", log.await("JoinDeviceInfo|0|" + joining.ip + "|" + joining.mac
                + "|" + joining.guid + "|" + joining.name, WAIT_MS));

        Check.ok("end of content", log.await("ServiceStop|" + g + "|", WAIT_MS));
        Check.eq("Stop", 0, m.Stop(g, false));
        Check.eq("no service devices after Stop", List.of(), List.of(m.GetServiceDeviceList()));
        for (SessionTests.Speaker s : speakers) {
            int[] r = NotifyProbe.rxReport(s.rx);
            Check.eq("no bad lengths at " + s.ip, 0, r[NotifyProbe.RX_BAD_LENGTH]);
        }
        SessionTests.leaveAndFinalize(m, log, speakers, g, slot);
    }
}
