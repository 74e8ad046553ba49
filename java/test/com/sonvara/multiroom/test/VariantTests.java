package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.file.Files;
import java.util.List;

/**
 * The application class built without one callback method (run with such a
 * build of SonvaraNativeMgr on the class path): a short group playback in
 * which exactly the events tied to the missing method stay silent.
 */
final class VariantTests {
    private VariantTests() {}

    static final long WAIT_MS = 30_000;

    static boolean has(String method) {
        for (java.lang.reflect.Method m : SonvaraNativeMgr.class.getDeclaredMethods()) {
            if (m.getName().equals(method)) return true;
        }
        return false;
    }

    static long count(EventLog log, String prefix) {
        return log.texts().stream().filter(t -> t.startsWith(prefix)).count();
    }

    static void run(String missing) throws Exception {
        Check.ok("the class under test lacks " + missing, !has(missing));
        SonvaraNativeMgr.loadLibrary();
        List<SessionTests.Speaker> speakers = SessionTests.threeSpeakers().subList(0, 2);
        SessionTests.start(speakers);
        try {
            play(speakers, missing);
        } finally {
            SessionTests.stop(speakers);
        }
    }

    static void play(List<SessionTests.Speaker> speakers, String missing) throws Exception {
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        EventLog log = new EventLog();
        m.setListener(log);
        Check.eq("initialize", 0, m.initialize("guid-variant"));
        Check.eq("ConnectedWiFi", 0, m.ConnectedWiFi());
        Check.eq("SearchDevice", 0, m.SearchDevice());
        Check.eq("device events", (long) speakers.size(), count(log, "DeviceInfo|"));
        int g = m.CreateGroup("variant");
        for (SessionTests.Speaker s : speakers) {
            Check.eq("AddDevice " + s.ip, 0, m.AddDevice(g, s.ip, s.mac, s.role, true));
        }
        String wav = PlaybackTests.makeWav(Files.createTempDirectory("sonvara-variant"), 3).toString();
        m.GetContentInfo(wav);
        Check.eq("Open", 0, m.Open(g, wav, "t", "audio/x-wav", 2, 44100, 5, 0, false));
        boolean noProgress = missing.equals("NotifyPlayProgress");
        // The end of the 3 s content: the service stop itself, or (when it is
        // silenced) the last progress and time for the stop to have come.
        if (noProgress) {
            Check.ok("service stop", log.await("ServiceStop|" + g + "|", WAIT_MS));
        } else {
            Check.ok("progress", log.await("PlayProgress|" + g + "|2", WAIT_MS));
            Thread.sleep(3000);
        }
        Check.eq("progress events", noProgress, count(log, "PlayProgress|") == 0);
        Check.eq("contents event", noProgress ? 1L : 0L, count(log, "ContentsInfo|"));
        // Without NotifyContentsInfo the service stop is silent too.
        Check.eq("service stop", noProgress ? 1L : 0L, count(log, "ServiceStop|" + g + "|"));
        Check.eq("Stop", 0, m.Stop(g, false));
        Check.eq("Finalize", 0, m.Finalize());
    }
}
