package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Many Java threads calling every native method at once, with real and
 * made-up ids and texts: the library must neither crash, deadlock nor misuse
 * JNI. Answers are checked only where any answer but one is a fault.
 */
final class StressTests {
    private StressTests() {}

    static final int THREADS = 8;
    static final int CALLS = 1000;
    static final long DEADLINE_MS = 240_000;

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        m.setListener(new EventLog().listener());
        Check.eq("initialize", 0, m.initialize("guid-stress"));
        String dir = Files.createTempDirectory("sonvara-stress").toString();
        int[] groups = {m.CreateGroup("stress-a"), m.CreateGroup("stress-b")};

        AtomicInteger wrong = new AtomicInteger();
        List<Method> all = new ArrayList<>(BridgeTests.table());
        all.removeIf(f -> SLOW.contains(f.getName()));
        hammer("steady engine", all, m, groups, dir, wrong);
        Check.eq("steady engine: impossible answers", 0, wrong.get());

        // The same while another thread takes the engine down and up again;
        // the unlocked UpdateDeviceChannelType is left out of this phase.
        all.removeIf(f -> f.getName().equals("UpdateDeviceChannelType"));
        Thread cycler = new Thread(() -> {
            for (int i = 0; i < 4; i++) {
                m.Finalize();
                m.initialize("guid-cycle-" + i);
            }
        }, "engine-cycler");
        cycler.start();
        hammer("engine cycling", all, m, groups, dir, wrong);
        cycler.join(DEADLINE_MS);
        Check.ok("engine cycler finished", !cycler.isAlive());
        Check.eq("Finalize", 0, m.Finalize());
    }

    /** Searches and network changes take seconds each: not for a hammer. */
    static final Set<String> SLOW = Set.of("SearchDevice", "SearchDeviceAsync", "ConnectedWiFi",
            "DisconnectedWiFi", "LoadGroup");

    /**
     * Calls method f picked by r with arguments picked by r: the test's
     * groups or made-up ids, texts null, addresses, MACs or the scratch
     * directory. Play must answer 0 and a service list hold no null.
     */
    static void call(SonvaraNativeMgr m, Method f, int r, int[] groups, String dir,
            AtomicInteger wrong) throws ReflectiveOperationException {
        Class<?>[] p = f.getParameterTypes();
        Object[] a = new Object[p.length];
        for (int i = 0; i < p.length; i++) {
            int k = (r >>> (8 + 3 * i)) & 7;
            String[] texts = {null, "127.0.0." + k, mac(r), dir, "stress-a"};
            a[i] = p[i] == String.class ? texts[k % texts.length]
                    : p[i] == boolean.class ? k < 4 : i == 0 ? pick(groups, r) : r & 63;
        }
        Object got = f.invoke(m, a);
        if (f.getName().equals("Play") && !got.equals(0)) wrong.incrementAndGet();
        if (got instanceof String[] && Arrays.asList((String[]) got).contains(null)) wrong.incrementAndGet();
    }

    static int pick(int[] groups, int r) {
        int k = Math.floorMod(r, groups.length + 1);
        return k < groups.length ? groups[k] : r;
    }

    static String mac(int r) {
        return String.format("02:00:00:00:00:%02x", r & 0xff);
    }

    /** Prints every Java thread's stack and ends the VM: the engine is stuck. */
    static void dumpAndHalt(String why) {
        System.out.println("FAIL " + why);
        for (Map.Entry<Thread, StackTraceElement[]> e : Thread.getAllStackTraces().entrySet()) {
            System.out.println(e.getKey().getName());
            for (StackTraceElement s : e.getValue()) System.out.println("    at " + s);
        }
        Runtime.getRuntime().halt(1);
    }

    static void hammer(String what, List<Method> calls, SonvaraNativeMgr m, int[] groups,
            String dir, AtomicInteger wrong) throws Exception {
        AtomicInteger done = new AtomicInteger();
        List<Thread> threads = new ArrayList<>();
        List<Throwable> errors = new ArrayList<>();
        for (int t = 0; t < THREADS; t++) {
            final long seed = 1000L + t;
            Thread th = new Thread(() -> {
                Random rnd = new Random(seed);
                try {
                    for (int i = 0; i < CALLS; i++) {
                        int r = rnd.nextInt();
                        call(m, calls.get(Math.floorMod(r, calls.size())), r, groups, dir, wrong);
                        done.incrementAndGet();
                    }
                } catch (Throwable e) {
                    synchronized (errors) {
                        errors.add(e);
                    }
                }
            }, "caller-" + t);
            threads.add(th);
            th.start();
        }
        long end = System.currentTimeMillis() + DEADLINE_MS;
        for (Thread th : threads) th.join(Math.max(1, end - System.currentTimeMillis()));
        boolean stuck = threads.stream().anyMatch(Thread::isAlive);
        if (stuck) {
            dumpAndHalt(what + ": callers still running after " + DEADLINE_MS / 1000
                    + " s (deadlock?)");
        }
        for (Throwable e : errors) e.printStackTrace(System.out);
        Check.eq(what + ": Java exceptions", 0, errors.size());
        Check.eq(what + ": calls completed", THREADS * CALLS, done.get());
    }
}
