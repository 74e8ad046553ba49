package com.sonvara.multiroom.test;

import static java.util.Arrays.asList;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.File;
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.Collectors;

/**
 * One whole session against emulated receivers in this JVM: search, group,
 * play to the end; many plays (some ended by a Wi-Fi loss) under a listener
 * that calls back in, beside callers hammering every native method; a
 * receiver leaving; the callers again while the engine goes down and up.
 * The soak plays against receiver processes and finds descriptors, threads
 * and the native heap back where they were.
 */
final class PlaybackTests {
    private PlaybackTests() {}

    static final long WAIT_MS = Scene.WAIT_MS;
    static final int CALLERS = 8;
    static final int CALLS = 1000;
    // Searches and network changes take seconds each: not for a hammer.
    static final Set<String> SLOW = Set.of(
        "SearchDevice", "SearchDeviceAsync", "ConnectedWiFi", "DisconnectedWiFi", "LoadGroup");

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        Reentrant log = new Reentrant();
        Scene.Speaker outsider =
            new Scene.Speaker("Garten \u00f6", 5, SonvaraNativeMgr.CHANNEL_PARTY);
        try (Scene sc = new Scene(log, false)) {
            discovery(sc, log);
            play(sc, log, outsider);
            rounds(sc, log);
            leave(sc, log);
            cycling(sc.m, sc.dir.toString());
        } finally {
            outsider.stop();
        }
    }

    // Every question of the table (getters and flags).
    static final List<Method> QUESTIONS =
        BridgeTests.table().stream().filter(BridgeTests::question).collect(Collectors.toList());

    // Calls into the engine from inside every event it receives (a volume
    // change, every question about its group, a pause now and then), after a
    // moment's work, so that the other thread's Stop, seek or pause is
    // usually under way by then.
    static final class Reentrant extends EventLog {
        volatile SonvaraNativeMgr mgr;
        volatile int group;
        final AtomicInteger calls = new AtomicInteger();

        @Override
        void add(Object... parts) {
            super.add(parts);
            SonvaraNativeMgr m = mgr;
            if (m == null) return;
            LockSupport.parkNanos(5_000_000);
            int g = group;
            if (calls.get() == 0) {
                Check.eq("Finalize inside an event", SonvaraNativeMgr.ERR_IN_EVENT, m.Finalize());
            }
            m.ReceiverVolumeControl(g, 5);
            for (Method f : QUESTIONS) BridgeTests.call(m, f, BridgeTests.args(f, g, -1));
            if ((calls.incrementAndGet() & 3) == 0) {
                m.Pause(g);
                m.Resume(g);
            }
        }
    }

    // Plays the scene's group again and again from a second thread, which
    // seeks, pauses, resumes and stops (or reports Wi-Fi lost) as soon as the
    // stream reports, while the listener calls in from inside every event and
    // the callers hammer the table on groups of their own.
    static void rounds(Scene sc, Reentrant log) throws Exception {
        String file = sc.wav(30);
        log.group = sc.group;
        log.mgr = sc.m;
        int rounds = Scene.env("SONVARA_REENTRY_ROUNDS", 40);
        AtomicInteger done = new AtomicInteger();
        long start = System.currentTimeMillis();
        Thread player = Scene.start("player", () -> {
            for (int r = 0; r < rounds; r++, done.incrementAndGet()) {
                log.clear();
                Check.eq("Open in round " + r, 0, sc.open(file));
                log.await("PlayProgress", WAIT_MS);
                sc.m.seekTo(sc.group, 1 + r % 20);
                sc.m.Pause(sc.group);
                sc.m.seekTo(sc.group, 2 + r % 20);
                sc.m.Resume(sc.group);
                log.clear();
                log.await("PlayProgress", WAIT_MS);
                if (r % 4 != 3) {
                    Check.eq("Stop in round " + r, 0, sc.m.Stop(sc.group, false));
                    continue;
                }
                // Wi-Fi lost mid-play: the group stops while its receivers'
                // leave events call in.
                Check.eq("Wi-Fi lost in round " + r + ": stopped by the loss, back",
                    asList(0, BridgeTests.NO_STREAMER, 0),
                    asList(
                        sc.m.DisconnectedWiFi(), sc.m.Stop(sc.group, false), sc.m.ConnectedWiFi()));
            }
        });
        int[] groups = {sc.m.CreateGroup("stress-a"), sc.m.CreateGroup("stress-b")};
        hammer("beside the rounds", hammerable(), sc.m, groups, sc.dir.toString());
        // Stuck: no round ended for WAIT_MS (a round takes about a second).
        Scene.watch("reentry", done, List.of(player));
        System.out.println("reentry: " + rounds + " rounds in "
            + (System.currentTimeMillis() - start) / 1000 + " s, " + log.calls.get()
            + " events called back");
        Check.ok("events called back", log.calls.get() > 0);
        log.mgr = null;
        log.clear();
    }

    // With the engine gone, the callers again (calls after its end answer
    // cleanly) while another thread takes it down and up. The unlocked
    // UpdateDeviceChannelType is left out: it may not race an engine's end.
    static void cycling(SonvaraNativeMgr m, String dir) throws Exception {
        Thread cycler = Scene.start("engine-cycler", () -> {
            for (int i = 0; i < 4; i++) {
                m.Finalize();
                m.initialize("guid-cycle-" + i);
                m.AddMyDevice(m.CreateGroup("cycle")); // a new engine makes the phone's record
            }
        });
        hammer("engine cycling", hammerable("UpdateDeviceChannelType"), m, new int[] {1, 2}, dir);
        cycler.join(WAIT_MS);
        Check.eq("engine cycler finished, Finalize", asList(false, 0),
            asList(cycler.isAlive(), m.Finalize()));
    }

    // The native methods for the callers: all but the slow ones and those named.
    static List<Method> hammerable(String... leftOut) {
        List<Method> calls = new ArrayList<>(BridgeTests.table());
        calls.removeIf(f -> SLOW.contains(f.getName()) || asList(leftOut).contains(f.getName()));
        return calls;
    }

    // Callers each calling CALLS methods picked at random with arguments
    // picked at random: the given groups or made-up ids, texts null,
    // addresses, MACs or the scratch directory. Play must answer 0 and a
    // service list hold no null.
    static void hammer(String what, List<Method> calls, SonvaraNativeMgr m, int[] groups,
        String dir) throws Exception {
        AtomicInteger done = new AtomicInteger();
        AtomicInteger wrong = new AtomicInteger();
        List<Thread> callers = new ArrayList<>();
        for (int t = 0; t < CALLERS; t++) {
            Random rnd = new Random(1000L + t);
            callers.add(Scene.start("caller-" + t, () -> {
                for (int i = 0; i < CALLS; i++, done.incrementAndGet()) {
                    int r = rnd.nextInt();
                    Method f = calls.get(Math.floorMod(r, calls.size()));
                    Class<?>[] p = f.getParameterTypes();
                    Object[] a = new Object[p.length];
                    for (int j = 0; j < p.length; j++) {
                        int k = (r >>> (8 + 3 * j)) & 7;
                        String[] texts = {null, "127.0.0." + k,
                            String.format("02:00:00:00:00:%02x", r & 0xff), dir, "stress-a"};
                        a[j] = j > 0 ? r & 63 : k < groups.length ? groups[k] : r;
                        if (p[j] != int.class)
                            a[j] = p[j] == String.class ? texts[k % texts.length] : k < 4;
                    }
                    Object got = f.invoke(m, a);
                    boolean nullInList =
                        got instanceof String[] && asList((String[]) got).contains(null);
                    if (nullInList || f.getName().equals("Play") && !got.equals(0))
                        wrong.incrementAndGet();
                }
            }));
        }
        Scene.watch(what, done, callers);
        Check.eq(what + ": calls completed, impossible answers", asList(CALLERS * CALLS, 0),
            asList(done.get(), wrong.get()));
    }

    // Threads of the process but the VM's compiler threads, which come and go.
    static int threads() throws Exception {
        int n = 0;
        for (String t : new File("/proc/self/task").list()) {
            try {
                if (!Files.readString(Path.of("/proc/self/task", t, "comm"))
                         .contains("CompilerThre"))
                    n++;
            } catch (java.io.IOException gone) {
                // ended while listed
            }
        }
        return n;
    }

    static void runSoak() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        int cycles = Scene.env("SONVARA_SOAK_CYCLES", 16);
        int playMs = Scene.env("SONVARA_SOAK_PLAY_MS", 300);
        int warmup = Math.max(8, cycles / 5);
        EventLog log = new EventLog();
        // SONVARA_SOAK_IN_JVM=1 hosts the receivers in this JVM instead: what
        // they keep of the audio then counts in this process's numbers.
        try (Scene st = new Scene(log, System.getenv("SONVARA_SOAK_IN_JVM") == null)) {
            String file = st.wav(10);
            long heap0 = 0;
            List<Integer> before = List.of();
            for (int c = 0; c < cycles; c++) {
                if (c == warmup) {
                    before = List.of(new File("/proc/self/fd").list().length, threads());
                    heap0 = NotifyProbe.nativeHeapBytes();
                }
                Check.eq("Open in cycle " + c, 0, st.open(file));
                Thread.sleep(playMs);
                Check.eq("Stop in cycle " + c, 0, st.m.Stop(st.group, false));
                log.clear();
            }
            long heap1 = NotifyProbe.nativeHeapBytes();
            System.out.println("soak: " + cycles + " cycles of " + playMs + " ms; after warm-up ("
                + warmup + ") native heap " + heap0 + " -> " + heap1 + " bytes, Java heap used "
                + (Runtime.getRuntime().totalMemory() - Runtime.getRuntime().freeMemory()));
            Check.eq("descriptors and threads back", before,
                List.of(new File("/proc/self/fd").list().length, threads()));
            if (heap0 > 0) Check.ok("native heap flat within 1 MB", heap1 - heap0 < (1 << 20));
        }
    }

    // Whether every event whose text starts with prefix arrived on the calling thread.
    static boolean onCaller(EventLog log, String prefix) {
        return log.threads(prefix).stream().allMatch(t -> t == Thread.currentThread());
    }

    // What the searches report and the registry and group hold afterwards.
    static void discovery(Scene sc, EventLog log) throws Exception {
        SonvaraNativeMgr m = sc.m;
        // The scene's blocking search: one device event per receiver, inline.
        Set<String> want =
            sc.speakers.stream().map(s -> "DeviceInfo|" + s.ip).collect(Collectors.toSet());
        Check.eq("device events of the blocking search, on the caller", asList(want, 3, true),
            asList(log.texts()
                       .stream()
                       .map(t -> t.replaceFirst("^(DeviceInfo\\|[^|]*)\\|.*", "$1"))
                       .collect(Collectors.toSet()),
                log.texts().size(), onCaller(log, "")));
        log.clear();
        Check.eq("a second search: the devices already reported stay quiet", asList(0, List.of()),
            asList(m.SearchDevice(), log.texts()));

        // Background search: the completion arrives on the engine's own
        // thread; afterwards the registry holds names, volumes and types.
        Check.eq("SearchDeviceAsync", 0, m.SearchDeviceAsync(2000));
        Check.ok("search completion", log.await("DeviceSearchComplete|", WAIT_MS));
        Check.eq("search succeeded, on an engine thread",
            asList(List.of("DeviceSearchComplete|1"), false),
            asList(log.texts(), onCaller(log, "")));
        for (int i = 0; i < m.GetDeviceCount(); i++) {
            int h = m.GetDeviceHandle(i);
            Scene.Speaker s = sc.speakerAt(m.GetDeviceIp(h));
            Check.eq("registry: MAC, GUID, UTF-8 name, volume, type of " + s.ip,
                asList(s.mac, s.guid, s.name, s.volume, 1),
                asList(m.GetDeviceMac(h), m.GetDeviceGuid(h), m.GetDeviceName(h),
                    m.GetDeviceVolume(h), m.GetDeviceReceiverType(h)));
        }
        // Texts out of the group (their conversion is shared with the registry's).
        Scene.Speaker second = sc.speakers.get(1);
        int i = sc.slot(second.ip);
        Check.eq("member name, GUID, role; a new role",
            asList(second.name, second.guid, second.role, 0, SonvaraNativeMgr.CHANNEL_CENTER),
            asList(m.GetDeviceNameInGroup(sc.group, i), m.GetDeviceGuidInGroup(sc.group, i),
                m.GetDeviceTypeInGroup(sc.group, i),
                m.UpdateDeviceChannelType(
                    sc.group, second.ip, second.mac, SonvaraNativeMgr.CHANNEL_CENTER),
                m.GetDeviceTypeInGroup(sc.group, i)));
    }

    static void play(Scene sc, EventLog log, Scene.Speaker outsider) throws Exception {
        SonvaraNativeMgr m = sc.m;
        int g = sc.group;
        // Content questions: the content-info query also reports to the listener.
        String file = sc.wav(8);
        log.clear();
        Check.eq("content valid, its channels and rate; no service devices yet",
            asList(0, 2, 44100, 0),
            asList(m.IsContentValid(file, "audio/x-wav"), m.GetContentChannel(file),
                m.GetContentSampleRate(file), m.GetServiceDeviceList().length));
        m.GetContentInfo(file);
        Check.eq("contents event", List.of("ContentsInfo|2|44100"), log.texts());

        log.clear();
        Check.eq("Open", 0, sc.open(file));
        String[] roles = {"Front_Left", "Center", "Woofer"};
        for (int i = 0; i < sc.speakers.size(); i++) {
            Scene.Speaker s = sc.speakers.get(i);
            Check.eq("role of " + s.ip + ", packets arriving", roles[i],
                NotifyProbe.rxRoleOnceStreaming(s.rx, 100, (int) WAIT_MS));
        }
        Check.eq("service devices, the service group of one",
            asList(sc.speakers.stream().map(s -> s.ip).collect(Collectors.toSet()), g),
            asList(new HashSet<>(asList(m.GetServiceDeviceList())),
                m.GetServiceGroupIdOfReceiver(sc.speakers.get(0).ip)));

        // Progress each second, from one of the engine's own threads, detached
        // once the event has returned.
        Check.ok("progress 2", log.await("PlayProgress|" + g + "|2", WAIT_MS));
        for (Thread t : log.threads("PlayProgress|")) {
            t.join(5000);
            Check.ok("progress off the Java thread, detached after the event",
                t != Thread.currentThread() && !t.isAlive());
        }

        // The name is the one the background search learnt.
        Scene.Speaker first = sc.speakers.get(0);
        NotifyProbe.rxSendVolumeChanged(first.rx, 6);
        Check.ok("volume change reported",
            log.await("ReceiverVolumeChanged|" + g + "|" + first.ip + "|" + first.mac + "|"
                    + first.guid + "|" + first.name + "|6",
                WAIT_MS));

        // A receiver outside the group asks to join the running stream.
        outsider.start(5);
        NotifyProbe.rxSendJoin(outsider.rx);
        Check.ok("join reported",
            log.await("JoinDeviceInfo|0|" + outsider.ip + "|" + outsider.mac + "|" + outsider.guid
                    + "|" + outsider.name,
                WAIT_MS));

        Check.ok("end of content", log.await("ServiceStop|" + g + "|", WAIT_MS));
        Check.eq("Stop, then no service devices", asList(0, 0),
            asList(m.Stop(g, false), m.GetServiceDeviceList().length));
    }

    // The last speaker leaves the network: the discovery thread reports it
    // and its membership turns off. Then the engine goes and stays quiet.
    static void leave(Scene sc, EventLog log) throws Exception {
        log.clear();
        Scene.Speaker leaving = sc.speakers.get(sc.speakers.size() - 1);
        int slot = sc.slot(leaving.ip); // an absent member has no address
        Check.eq("SearchDevice", 0, sc.m.SearchDevice()); // back after the rounds' Wi-Fi loss
        Check.ok("member present before EXIT", sc.m.GetDeviceStateInGroup(sc.group, slot) != 2);
        Check.ok("EXIT sent", NotifyProbe.rxSendExit(leaving.rx) >= 0);
        Check.ok("die event", log.await("DieDeviceInfo|" + leaving.ip, WAIT_MS));
        Check.eq("die event on an engine thread, member off, DisconnectedWiFi, Finalize",
            asList(false, 2, 0, 0),
            asList(onCaller(log, "DieDeviceInfo|"), sc.m.GetDeviceStateInGroup(sc.group, slot),
                sc.m.DisconnectedWiFi(), sc.m.Finalize()));
        List<String> after = log.texts();
        Thread.sleep(1000);
        Check.eq("engine quiet after Finalize", after, log.texts());
    }
}
