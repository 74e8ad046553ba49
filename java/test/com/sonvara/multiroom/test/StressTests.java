package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.IntConsumer;

/**
 * Many Java threads calling at once, with real and made-up ids: the library
 * must neither crash, deadlock nor misuse JNI. Content is not checked here;
 * answers are checked only where any answer but one is a fault.
 */
final class StressTests {
    private StressTests() {}

    static final int THREADS = 8;
    static final int CALLS = 1000;
    static final long DEADLINE_MS = 240_000;

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        m.setListener(new EventLog());
        Check.eq("initialize", 0, m.initialize("guid-stress"));
        String dir = Files.createTempDirectory("sonvara-stress").toString();
        int[] groups = {m.CreateGroup("stress-a"), m.CreateGroup("stress-b")};

        AtomicInteger wrong = new AtomicInteger();
        List<IntConsumer> mix = mixedCalls(m, groups, dir, wrong);
        hammer("steady engine", mix);
        Check.eq("steady engine: impossible answers", 0, wrong.get());

        // The same while another thread takes the engine down and up again;
        // the unlocked UpdateDeviceChannelType is left out of this phase.
        List<IntConsumer> lockedOnly = new ArrayList<>(mix);
        lockedOnly.remove(0);
        Thread cycler = new Thread(() -> {
            for (int i = 0; i < 4; i++) {
                m.Finalize();
                m.initialize("guid-cycle-" + i);
            }
        }, "engine-cycler");
        cycler.start();
        hammer("engine cycling", lockedOnly);
        cycler.join(DEADLINE_MS);
        Check.ok("engine cycler finished", !cycler.isAlive());
        Check.eq("Finalize", 0, m.Finalize());
    }

    /** Calls picked by an int; the first must stay UpdateDeviceChannelType. */
    static List<IntConsumer> mixedCalls(SonvaraNativeMgr m, int[] groups, String dir,
            AtomicInteger wrong) {
        List<IntConsumer> c = new ArrayList<>();
        c.add(r -> m.UpdateDeviceChannelType(pick(groups, r), "127.0.0." + (r & 7), mac(r), r & 7));
        c.add(r -> m.GetDeviceIp(r));
        c.add(r -> m.GetDeviceName(r));
        c.add(r -> m.GetDeviceMac(r ^ 0x55));
        c.add(r -> m.GetDeviceGuid(m.GetDeviceHandle(r & 3)));
        c.add(r -> m.GetGroupName(pick(groups, r)));
        c.add(r -> m.GetDeviceNameInGroup(pick(groups, r), r & 3));
        c.add(r -> m.GetDeviceIpInGroup(pick(groups, r), r));
        c.add(r -> m.GetDeviceCountInGroup(pick(groups, r)));
        c.add(r -> m.IsDeviceServiceInGroup(pick(groups, r), r & 1));
        c.add(r -> m.AddDevice(pick(groups, r), "127.0.0." + (2 + (r & 3)), mac(r), 7, true));
        c.add(r -> m.DeleteDevice(pick(groups, r), "127.0.0.9", mac(r)));
        c.add(r -> m.ReceiverVolumeControl(pick(groups, r), r & 15));
        c.add(r -> m.ReceiverDeviceVolumeControl("127.0.0." + (r & 7), mac(r), r & 15));
        c.add(r -> m.seekTo(r, r & 63));
        c.add(r -> m.Pause(r));
        c.add(r -> m.Resume(r));
        c.add(r -> m.DeleteGroup(r | 0x40000000));
        c.add(r -> {
            if (m.Play() != 0) wrong.incrementAndGet();
        });
        c.add(r -> {
            String[] list = m.GetServiceDeviceList();
            if (list != null) {
                for (String s : list) {
                    if (s == null) wrong.incrementAndGet();
                }
            }
        });
        c.add(r -> m.GetGroupIDByName((r & 1) == 0 ? "stress-a" : null));
        c.add(r -> m.ChangeGroupName(r, "renamed-" + r));
        c.add(r -> m.SaveGroup(dir));
        c.add(r -> m.GetDeviceCount());
        c.add(r -> m.DebugPrintGroup());
        c.add(r -> m.IsContentValid("/no/such/file-" + r + ".wav", "audio/wav"));
        c.add(r -> m.Open(r, null, "t", "audio/wav", 2, 44100, 5, 0, false));
        c.add(r -> m.LoadGuid(dir + "/none"));
        return c;
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

    static void hammer(String what, List<IntConsumer> calls) throws Exception {
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
                        calls.get(Math.floorMod(r >>> 3, calls.size())).accept(r);
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
