package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.lang.ref.WeakReference;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/** The event notifier against real Java objects, on the threads events really come from. */
final class NotifierTests {
    private NotifierTests() {}

    static final String IP = "127.0.0.2";
    static final String MAC = "02:00:00:00:00:02";
    static final String NAME = "K\u00fcche \uD83C\uDFB5";

    /** What one round of every event (see the probe) must deliver, in order. */
    static final List<String> ALL = List.of(
            "DeviceInfo|" + IP + "|" + MAC + "|1|3",
            "JoinDeviceInfo|7|" + IP + "|" + MAC + "|guid-0002|" + NAME,
            "ResetDeviceInfo|7|" + IP,
            "DieDeviceInfo|" + IP,
            "LeaveDeviceInfo|7|" + IP,
            "ContentsInfo|2|44100",
            "DeviceInfoByGroupId|7|" + IP + "|" + MAC + "|2|3|1|1",
            "ServiceStop|7|1",
            "DeviceSearchComplete|1",
            "PlayProgress|7|42",
            "ReceiverVolumeChanged|7|" + IP + "|" + MAC + "|guid-0002|bad?name|9");

    static List<String> only(String... prefixes) {
        List<String> out = new ArrayList<>(ALL);
        out.removeAll(allExcept(prefixes));
        return out;
    }

    static List<String> allExcept(String... prefixes) {
        List<String> out = new ArrayList<>();
        for (String e : ALL) {
            boolean drop = false;
            for (String p : prefixes) drop |= e.startsWith(p + "|");
            if (!drop) out.add(e);
        }
        return out;
    }

    static void run() throws Exception {
        appClassOnEveryKindOfThread();
        missingCallbacks();
        throwingListener();
        vmMissing();
        engineText();
        releasesTheObject();
    }

    // The application class: on the loading thread events arrive inline; on a
    // native thread each event is its own attach, detached afterwards; on a
    // second Java thread the thread stays usable after the event.
    static void appClassOnEveryKindOfThread() throws Exception {
        SonvaraNativeMgr mgr = new SonvaraNativeMgr();
        EventLog log = new EventLog();
        mgr.setListener(log.listener());
        long n = NotifyProbe.create(mgr);
        Check.ok("create notifier", n != 0);

        NotifyProbe.fire(n, false);
        Check.eq("loading thread: events", ALL, log.texts());
        for (EventLog.Event e : log.events()) {
            Check.eq("loading thread: thread of " + e.text, Thread.currentThread(), e.thread);
        }

        log.clear();
        NotifyProbe.fire(n, true);
        Check.eq("native thread: events", ALL, log.texts());
        Set<Thread> threads = new HashSet<>();
        for (EventLog.Event e : log.events()) {
            threads.add(e.thread);
            Check.ok("native thread: not the caller for " + e.text, e.thread != Thread.currentThread());
            Check.ok("native thread: detached after " + e.text, !e.thread.isAlive());
        }
        Check.eq("native thread: one attach per event", ALL.size(), threads.size());

        log.clear();
        final int[] afterwards = {-1};
        Thread worker = new Thread(() -> {
            NotifyProbe.fire(n, false);
            // Still attached: more JNI calls work.
            afterwards[0] = NotifyProbe.takeLog().length >= 0 ? 1 : 0;
            NotifyProbe.fire(n, false);
        }, "second-java-thread");
        worker.start();
        worker.join(60_000);
        List<String> twice = new ArrayList<>(ALL);
        twice.addAll(ALL);
        Check.eq("second Java thread: events", twice, log.texts());
        Check.eq("second Java thread: usable after an event", 1, afterwards[0]);
        for (EventLog.Event e : log.events()) {
            Check.eq("second Java thread: thread of " + e.text, worker, e.thread);
        }

        // Many events inside one native call of the loading thread (a blocking
        // search does this) must not pile up local references.
        log.clear();
        NotifyProbe.fire(n, false, 100);
        Check.eq("100 rounds in one native call", 100 * ALL.size(), log.texts().size());
        NotifyProbe.destroy(n);
    }

    // A missing method silences its own event; a missing NotifyContentsInfo
    // also silences the service stop, which is tied to it.
    static void missingCallbacks() {
        for (boolean nativeThread : new boolean[] {false, true}) {
            PartialTargets.WithoutContentsInfo noContents = new PartialTargets.WithoutContentsInfo();
            PartialTargets.WithoutServiceStop noStop = new PartialTargets.WithoutServiceStop();
            long a = NotifyProbe.create(noContents);
            long b = NotifyProbe.create(noStop);
            NotifyProbe.fire(a, nativeThread);
            NotifyProbe.fire(b, nativeThread);
            NotifyProbe.destroy(a);
            NotifyProbe.destroy(b);
            Check.eq("no NotifyContentsInfo (native " + nativeThread + ")",
                    only("DieDeviceInfo", "PlayProgress"), noContents.log.texts());
            Check.eq("no NotifyServiceStop (native " + nativeThread + ")",
                    only("LeaveDeviceInfo", "ContentsInfo"), noStop.log.texts());
        }
    }

    // An exception thrown by the application is cleared; later events still come.
    static void throwingListener() {
        SonvaraNativeMgr target = new SonvaraNativeMgr();
        EventLog log = new EventLog() {
            @Override
            synchronized void add(Object... parts) {
                if (parts[0].equals("DeviceInfo")) {
                    throw new IllegalStateException("listener failure (expected by the test)");
                }
                super.add(parts);
            }
        };
        target.setListener(log.listener());
        long n = NotifyProbe.create(target);
        NotifyProbe.captureLog(true);
        NotifyProbe.takeLog();
        NotifyProbe.fire(n, false);
        NotifyProbe.fire(n, true);
        String[] lines = NotifyProbe.takeLog();
        NotifyProbe.captureLog(false);
        NotifyProbe.destroy(n);
        List<String> twice = new ArrayList<>(allExcept("DeviceInfo"));
        twice.addAll(allExcept("DeviceInfo"));
        Check.eq("events after a throwing listener", twice, log.texts());
        long cleared = Arrays.stream(lines).filter(l -> l.contains("callback threw")).count();
        Check.eq("thrown exceptions reported", 2L, cleared);
    }

    // Before the library knows its VM, every event only writes its line.
    static void vmMissing() {
        SonvaraNativeMgr mgr = new SonvaraNativeMgr();
        EventLog log = new EventLog();
        mgr.setListener(log.listener());
        long n = NotifyProbe.create(mgr);
        NotifyProbe.captureLog(true);
        NotifyProbe.takeLog();
        NotifyProbe.setVmMissing(true);
        NotifyProbe.fire(n, true);
        NotifyProbe.setVmMissing(false);
        String[] lines = NotifyProbe.takeLog();
        NotifyProbe.captureLog(false);
        NotifyProbe.destroy(n);
        // Each event leaves its line ("... 0": nothing attached) and nothing else.
        long logged = Arrays.stream(lines).filter(l -> l.endsWith(" 0")).count();
        Check.eq("VM missing: one line per event", (long) ALL.size(), logged);
        Check.eq("VM missing: no events", List.of(), log.texts());
    }

    static String text(byte[] b) {
        return NotifyProbe.engineText(b);
    }

    static byte[] bytes(int... v) {
        byte[] b = new byte[v.length];
        for (int i = 0; i < v.length; i++) b[i] = (byte) v[i];
        return b;
    }

    // Engine text reaches Java as the characters it encodes; bytes that are
    // not UTF-8 become '?' instead of upsetting the VM.
    static void engineText() {
        Check.eq("ascii", "192.168.0.7", text("192.168.0.7".getBytes(StandardCharsets.US_ASCII)));
        Check.eq("two, three and four byte characters", NAME, text(NAME.getBytes(StandardCharsets.UTF_8)));
        Check.eq("stray byte", "a?b", text(bytes('a', 0xFF, 'b')));
        Check.eq("cut sequence at the end", "ab??", text(bytes('a', 'b', 0xE2, 0x82)));
        Check.eq("overlong encoding", "??x", text(bytes(0xC0, 0xAF, 'x')));
        Check.eq("beyond U+10FFFF", "????", text(bytes(0xF4, 0x90, 0x80, 0x80)));
        Check.eq("lone continuation", "?", text(bytes(0x80)));
        byte[] longName = new byte[5000];
        Arrays.fill(longName, (byte) 'n');
        Check.eq("long text is cut", 1023, text(longName).length());
        byte[] longEmoji = ("x" + "\uD83C\uDFB5".repeat(400)).getBytes(StandardCharsets.UTF_8);
        String cut = text(longEmoji);
        Check.ok("long text cut on a character boundary",
                !Character.isHighSurrogate(cut.charAt(cut.length() - 1)));
    }

    // Destroying a notifier releases its reference to the application object.
    static void releasesTheObject() throws Exception {
        WeakReference<Object> ref = bindAndDestroy();
        for (int i = 0; i < 50 && ref.get() != null; i++) {
            System.gc();
            Thread.sleep(20);
        }
        Check.ok("application object collectable after destroy", ref.get() == null);
    }

    static WeakReference<Object> bindAndDestroy() {
        Object target = new SonvaraNativeMgr();
        long n = NotifyProbe.create(target);
        NotifyProbe.destroy(n);
        return new WeakReference<>(target);
    }
}
