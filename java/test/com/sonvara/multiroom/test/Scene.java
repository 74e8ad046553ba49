package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * The engine with a group of three speakers found by a blocking search, each
 * in its role: emulators in this JVM, or receiver processes of their own.
 */
final class Scene implements AutoCloseable {
    static final long WAIT_MS = 30_000;

    // One speaker and what the engine must report about it.
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

        // Starts it as an emulator in this JVM on 127.0.0.last.
        void start(int last) {
            rx = NotifyProbe.rxStart(last, name.getBytes(StandardCharsets.UTF_8), volume);
            Check.ok("receiver " + last + " started", rx != 0);
            String[] id = rx == 0 ? new String[3] : NotifyProbe.rxIdentity(rx);
            ip = id[0];
            mac = id[1];
            guid = id[2];
        }

        void stop() {
            if (rx != 0) NotifyProbe.rxStop(rx);
            rx = 0;
        }
    }

    final SonvaraNativeMgr m = new SonvaraNativeMgr();
    // Names outside ASCII, in every UTF-8 length.
    final List<Speaker> speakers =
        List.of(new Speaker("Wohnzimmer links", 3, SonvaraNativeMgr.CHANNEL_FRONT_LEFT),
            new Speaker("K\u00fcche \uD83C\uDFB5", 7, SonvaraNativeMgr.CHANNEL_FRONT_RIGHT),
            new Speaker("\u5BDD\u5BA4 \u00e9t\u00e9", 11, SonvaraNativeMgr.CHANNEL_WOOFER));
    final List<Process> processes = new ArrayList<>();
    final Path dir = Files.createTempDirectory("sonvara-scene");
    final int group;

    Scene(EventLog log, boolean asProcesses) throws Exception {
        String cmd = System.getenv("SONVARA_RECEIVER");
        for (int i = 0; i < speakers.size(); i++) {
            if (!asProcesses) {
                speakers.get(i).start(2 + i);
                continue;
            }
            processes.add(new ProcessBuilder(cmd, "--address", "127.0.0." + (2 + i), "--quiet")
                              .redirectOutput(ProcessBuilder.Redirect.DISCARD)
                              .redirectError(ProcessBuilder.Redirect.DISCARD)
                              .start());
        }
        m.setListener(log.listener());
        Check.eq("initialize, ConnectedWiFi", List.of(0, 0),
            List.of(m.initialize("4f1c2a9e-scene"), m.ConnectedWiFi()));
        group = m.CreateGroup("Erdgeschoss");
        // A receiver process may still be starting: search until all answered.
        long end = System.currentTimeMillis() + WAIT_MS;
        do {
            Check.eq("SearchDevice", 0, m.SearchDevice());
        } while (m.GetDeviceCount() < speakers.size() && System.currentTimeMillis() < end);
        for (int i = 0; i < m.GetDeviceCount(); i++) {
            int h = m.GetDeviceHandle(i);
            String ip = m.GetDeviceIp(h);
            Check.eq("AddDevice", 0,
                m.AddDevice(group, ip, m.GetDeviceMac(h), speakerAt(ip).role, true));
        }
        Check.eq("group of three", 3, m.GetDeviceCountInGroup(group));
    }

    // The speaker on 127.0.0.2, .3 or .4.
    Speaker speakerAt(String ip) {
        return speakers.get(Integer.parseInt(ip.substring("127.0.0.".length())) - 2);
    }

    // Where the speaker at ip sits in the group; -1 if it is no member.
    int slot(String ip) {
        for (int i = 0; i < m.GetDeviceCountInGroup(group); i++) {
            if (ip.equals(m.GetDeviceIpInGroup(group, i))) return i;
        }
        return -1;
    }

    // A 16-bit stereo 44.1 kHz WAV file: a tone on the left, another on the right.
    String wav(int seconds) throws IOException {
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
        return Files.write(dir.resolve("tone_" + seconds + ".wav"), b.array()).toString();
    }

    int open(String file) {
        return m.Open(group, file, "Ton \u00fc", "audio/x-wav", 2, 44100, 9, 0, false);
    }

    @Override
    public void close() {
        m.Finalize();
        for (Speaker s : speakers) s.stop();
        for (Process p : processes) p.destroyForcibly();
    }

    // A number from the environment, else the fallback.
    static int env(String variable, int fallback) {
        String v = System.getenv(variable);
        return v == null ? fallback : Integer.parseInt(v);
    }

    // A started thread running body; an exception it throws is a failure.
    static Thread start(String name, JvmTests.Group body) {
        Thread t = new Thread(() -> {
            try {
                body.run();
            } catch (Exception e) {
                e.printStackTrace(System.out);
                Check.eq(name + " ended by an exception", null, e);
            }
        }, name);
        t.start();
        return t;
    }

    // Waits for the threads to end while they make progress; when progress
    // stays put for WAIT_MS, prints every Java thread's stack and ends the VM:
    // the engine is stuck.
    static void watch(String what, AtomicInteger progress, List<Thread> threads)
        throws InterruptedException {
        for (Thread t : threads) {
            for (int seen = -1; t.isAlive() && seen != progress.get();) {
                seen = progress.get();
                t.join(WAIT_MS);
            }
            if (!t.isAlive()) continue;
            System.out.println("FAIL " + what + ": no progress in " + WAIT_MS / 1000 + " s");
            for (Map.Entry<Thread, StackTraceElement[]> e : Thread.getAllStackTraces().entrySet()) {
                System.out.println(e.getKey().getName());
                for (StackTraceElement s : e.getValue()) System.out.println("    at " + s);
            }
            Runtime.getRuntime().halt(1);
        }
    }
}
