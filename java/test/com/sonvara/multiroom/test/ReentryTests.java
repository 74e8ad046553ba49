package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.File;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * The engine against an application that calls back into it: a listener that
 * calls native methods from inside every event while another Java thread
 * plays, pauses, seeks and stops, or reports Wi-Fi lost (no deadlock; run
 * in the playback group's scene), and a soak of many plays in
 * one process (descriptors, threads and native heap back where they were).
 */
final class ReentryTests {
    private ReentryTests() {}

    static final long WAIT_MS = Scene.WAIT_MS;

    /**
     * Calls into the engine from inside every event it receives, after a
     * moment's work, so that the other thread's Stop, seek or pause is
     * usually under way by then.
     */
    static final class Reentrant extends EventLog {
        volatile SonvaraNativeMgr mgr;
        volatile int group;
        final AtomicInteger calls = new AtomicInteger();

        @Override
        void add(Object... parts) {
            super.add(parts);
            SonvaraNativeMgr m = mgr;
            if (m == null) return;
            try {
                Thread.sleep(5);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            int g = group;
            if (calls.get() == 0) {
                Check.eq("Finalize inside an event", SonvaraNativeMgr.ERR_IN_EVENT, m.Finalize());
            }
            m.ReceiverVolumeControl(g, 5);
            m.GetDeviceCount();
            m.GetServiceDeviceList();
            m.GetGroupName(g);
            m.GetDeviceCountInGroup(g);
            if ((calls.incrementAndGet() & 3) == 0) {
                m.Pause(g);
                m.Resume(g);
            }
        }
    }

    static int rounds(String variable, int fallback) {
        String v = System.getenv(variable);
        return v == null ? fallback : Integer.parseInt(v);
    }

    /**
     * Plays the scene's group again and again from a second thread, which
     * seeks, pauses, resumes and stops (or reports Wi-Fi lost) as soon as the
     * stream reports, while the listener calls in from inside every event.
     */
    static void rounds(Scene sc, Reentrant log) throws Exception {
        String file = sc.wav(30);
        log.group = sc.group;
        log.mgr = sc.m;
        int rounds = rounds("SONVARA_REENTRY_ROUNDS", 40);
        AtomicInteger done = new AtomicInteger();
        Thread player = new Thread(() -> {
            try {
                for (int r = 0; r < rounds; r++) {
                    log.clear();
                    Check.eq("Open in round " + r, 0, sc.open(file));
                    log.await("PlayProgress", WAIT_MS);
                    sc.m.seekTo(sc.group, 1 + r % 20);
                    sc.m.Pause(sc.group);
                    sc.m.seekTo(sc.group, 2 + r % 20);
                    sc.m.Resume(sc.group);
                    log.clear();
                    log.await("PlayProgress", WAIT_MS);
                    if (r % 4 == 3) {
                        // Wi-Fi lost mid-play: the group stops while its
                        // receivers' leave events call in.
                        Check.eq("DisconnectedWiFi in round " + r, 0, sc.m.DisconnectedWiFi());
                        Check.eq("stopped by the loss", 265, sc.m.Stop(sc.group, false));
                        Check.eq("ConnectedWiFi in round " + r, 0, sc.m.ConnectedWiFi());
                    } else {
                        Check.eq("Stop in round " + r, 0, sc.m.Stop(sc.group, false));
                    }
                    done.incrementAndGet();
                }
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }, "player");
        long start = System.currentTimeMillis();
        player.start();
        // Stuck: no round ended for WAIT_MS (a round takes about a second).
        for (int seen = -1; player.isAlive(); ) {
            seen = done.get();
            player.join(WAIT_MS);
            if (player.isAlive() && done.get() == seen) {
                StressTests.dumpAndHalt("reentry: no round ended in " + WAIT_MS / 1000 + " s");
            }
        }
        System.out.println("reentry: " + rounds + " rounds in "
                + (System.currentTimeMillis() - start) / 1000 + " s, " + log.calls.get()
                + " events called back");
        Check.ok("events called back", log.calls.get() > 0);
        log.mgr = null;
        log.clear();
    }

    static int entries(String dir) {
        String[] names = new File(dir).list();
        return names == null ? -1 : names.length;
    }

    /** Threads of the process but the VM's compiler threads, which come and go. */
    static int threads() throws Exception {
        int n = 0;
        String[] tids = new File("/proc/self/task").list();
        for (String t : tids == null ? new String[0] : tids) {
            try {
                String name = Files.readString(Path.of("/proc/self/task", t, "comm"));
                if (!name.contains("CompilerThre")) n++;
            } catch (java.io.IOException gone) {
                // ended while listed
            }
        }
        return n;
    }

    static void runSoak() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        int cycles = rounds("SONVARA_SOAK_CYCLES", 16);
        int playMs = rounds("SONVARA_SOAK_PLAY_MS", 300);
        int warmup = Math.max(8, cycles / 5);
        EventLog log = new EventLog();
        // SONVARA_SOAK_IN_JVM=1 hosts the receivers in this JVM instead: what
        // they keep of the audio then counts in this process's numbers.
        try (Scene st = new Scene(log, System.getenv("SONVARA_SOAK_IN_JVM") == null)) {
            String file = st.wav(10);
            long heap0 = 0;
            int fds0 = 0, threads0 = 0;
            long heapMax = 0;
            for (int c = 0; c < cycles; c++) {
                if (c == warmup) {
                    fds0 = entries("/proc/self/fd");
                    threads0 = threads();
                    heap0 = NotifyProbe.nativeHeapBytes();
                }
                Check.eq("Open in cycle " + c, 0, st.open(file));
                Thread.sleep(playMs);
                Check.eq("Stop in cycle " + c, 0, st.m.Stop(st.group, false));
                log.clear();
                if (c >= warmup) heapMax = Math.max(heapMax, NotifyProbe.nativeHeapBytes());
            }
            long heap1 = NotifyProbe.nativeHeapBytes();
            System.out.println("soak: " + cycles + " cycles of " + playMs + " ms; after warm-up ("
                    + warmup + ") native heap " + heap0 + " -> " + heap1 + " bytes (peak "
                    + heapMax + "), Java heap used "
                    + (Runtime.getRuntime().totalMemory() - Runtime.getRuntime().freeMemory()));
            Check.eq("descriptors back", fds0, entries("/proc/self/fd"));
            Check.eq("threads back", threads0, threads());
            if (heap0 > 0) Check.ok("native heap flat within 1 MB", heap1 - heap0 < (1 << 20));
        }
    }
}
