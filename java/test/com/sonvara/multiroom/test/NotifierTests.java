package com.sonvara.multiroom.test;

import static java.util.Arrays.asList;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.lang.ref.WeakReference;
import java.nio.charset.StandardCharsets;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.stream.Collectors;

/**
 * The event notifier against Java objects, on the threads events come from:
 * callbacks and their arguments, attach and detach, references, missing
 * methods, a throwing listener, engine bytes that are not UTF-8.
 */
final class NotifierTests {
    private NotifierTests() {}

    static final String IP = "127.0.0.2";
    static final String MAC = "02:00:00:00:00:02";
    static final String NAME = "K\u00fcche \uD83C\uDFB5";

    // What one round of every event (see the probe) must deliver, in order.
    static final List<String> ALL = List.of("DeviceInfo|" + IP + "|" + MAC + "|1|3",
        "JoinDeviceInfo|7|" + IP + "|" + MAC + "|guid-0002|" + NAME, "ResetDeviceInfo|7|" + IP,
        "DieDeviceInfo|" + IP, "LeaveDeviceInfo|7|" + IP, "ContentsInfo|2|44100",
        "DeviceInfoByGroupId|7|" + IP + "|" + MAC + "|2|3|1|1", "ServiceStop|7|1",
        "DeviceSearchComplete|1", "PlayProgress|7|42",
        "ReceiverVolumeChanged|7|" + IP + "|" + MAC + "|guid-0002|bad?name|9");

    // The events of ALL named in names (or, with keep false, all the others).
    static List<String> events(boolean keep, String... names) {
        return ALL.stream()
            .filter(e -> asList(names).contains(e.substring(0, e.indexOf('|'))) == keep)
            .collect(Collectors.toList());
    }

    static List<String> repeat(int times, List<String> events) {
        return Collections.nCopies(times, events)
            .stream()
            .flatMap(List::stream)
            .collect(Collectors.toList());
    }

    // An application class without NotifyContentsInfo: the service stop, tied
    // to it, is silent too.
    static final class WithoutContentsInfo extends EventLog {
        void NotifyServiceStop(int g, int nextPlay) { add("ServiceStop", g, nextPlay); }
        void NotifyPlayProgress(int g, int sec) { add("PlayProgress", g, sec); }
    }

    // Without NotifyServiceStop: the content information still comes, and the
    // service stop is not called through a missing method. Its content
    // callback throws: the exception is cleared and later events still come.
    static final class WithoutServiceStop extends EventLog {
        void NotifyContentsInfo(int channels, int rate) {
            add("ContentsInfo", channels, rate);
            throw new IllegalStateException("thrown by the test");
        }
        void NoitfyDeviceSearchComplete(int ok) { add("DeviceSearchComplete", ok); }
    }

    static void run() throws Exception {
        SonvaraNativeMgr mgr = new SonvaraNativeMgr();
        EventLog log = new EventLog();
        mgr.setListener(log.listener());

        // A native thread is attached for each event and detached after it.
        NotifyProbe.fire(mgr, NotifyProbe.NATIVE_THREAD, 1);
        Check.eq("native thread: events", ALL, log.texts());
        List<Thread> threads = log.threads("");
        Check.eq("native thread: one attach per event", ALL.size(), new HashSet<>(threads).size());
        Check.ok("native thread: detached after each", threads.stream().noneMatch(Thread::isAlive));

        // A Java thread gets the events inline and stays attached between its
        // native calls; many events in one call (a blocking search does this)
        // do not pile up local references.
        log.clear();
        Thread worker = Scene.start("java-thread", () -> {
            NotifyProbe.fire(mgr, NotifyProbe.CALLER, 100);
            NotifyProbe.fire(mgr, NotifyProbe.CALLER, 1);
        });
        worker.join(Scene.WAIT_MS);
        Check.eq("Java thread: 101 rounds", repeat(101, ALL), log.texts());
        Check.ok("Java thread: all inline", log.threads("").stream().allMatch(t -> t == worker));

        // A missing method silences its own event (and what is tied to it).
        WithoutContentsInfo noContents = new WithoutContentsInfo();
        WithoutServiceStop noStop = new WithoutServiceStop();
        NotifyProbe.fire(noContents, NotifyProbe.CALLER, 1);
        NotifyProbe.fire(noStop, NotifyProbe.CALLER, 1);
        NotifyProbe.fire(noStop, NotifyProbe.NATIVE_THREAD, 1);
        Check.eq("missing methods: only the bound events",
            asList(events(true, "PlayProgress"),
                repeat(2, events(true, "ContentsInfo", "DeviceSearchComplete"))),
            asList(noContents.texts(), noStop.texts()));

        // Before the library knows its VM, an event only writes its line.
        log.clear();
        NotifyProbe.fire(mgr, NotifyProbe.NATIVE_THREAD_NO_VM, 1);
        Check.eq("VM missing: no events", List.of(), log.texts());

        engineText();
        WeakReference<Object> ref = bindAndRelease();
        for (int i = 0; i < 50 && ref.get() != null; i++) {
            System.gc();
            Thread.sleep(20);
        }
        Check.ok("application object collectable after its notifier went", ref.get() == null);
    }

    // Engine text reaches Java as the characters it encodes; bytes that are
    // not UTF-8 become '?' instead of upsetting the VM, and a long text is cut
    // on a character boundary.
    static void engineText() {
        String emoji = "\uD83C\uDFB5";
        String[][] cases = {
            // {expected, the engine's bytes as ISO-8859-1 characters}
            {NAME, new String(NAME.getBytes(StandardCharsets.UTF_8), StandardCharsets.ISO_8859_1)},
            {"a?b", "a\u00ffb"}, // a stray byte
            {"ab??", "ab\u00e2\u0082"}, // a sequence cut at the end
            {"??x", "\u00c0\u00afx"}, // an overlong encoding
            {"????", "\u00f4\u0090\u0080\u0080"}, // beyond U+10FFFF
            {"?", "\u0080"}, // a lone continuation byte
            {"n".repeat(1023), "n".repeat(5000)},
            // Cut before a character that would not fit (six bytes each, as a surrogate pair).
            {"x" + emoji.repeat(170),
                new String(("x" + emoji.repeat(400)).getBytes(StandardCharsets.UTF_8),
                    StandardCharsets.ISO_8859_1)},
        };
        for (String[] c : cases) {
            Check.eq("engine text", c[0],
                NotifyProbe.engineText(c[1].getBytes(StandardCharsets.ISO_8859_1)));
        }
    }

    // A notifier bound and deleted; the object must then be free to go.
    static WeakReference<Object> bindAndRelease() {
        Object target = new SonvaraNativeMgr();
        NotifyProbe.fire(target, NotifyProbe.CALLER, 0);
        return new WeakReference<>(target);
    }
}
