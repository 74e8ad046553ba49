package com.sonvara.multiroom.demo;

import com.sonvara.multiroom.SonvaraNativeMgr;

import java.io.File;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.UUID;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * What an app does with the engine, on a console: connect, search the
 * speakers, make a group with a role for each, save it, play a file to it with
 * a live progress bar, and stop. Used by scripts/demo against emulated
 * speakers; works the same against real ones.
 *
 * <p>Engine events arrive on engine threads. The listener only records them;
 * the main thread draws and makes every native call.
 */
public final class Demo {
    static final String[] ROLE_NAMES = {"None", "Front_Left", "Front_Right", "Center", "Woofer",
            "Rear_Left", "Rear_Right", "Party"};

    /** Options; see usage(). */
    static final class Options {
        String file;
        String dir = "out";
        String groupName = "Living room";
        int speakers = 4;
        List<Integer> roles = new ArrayList<>();
        int seekSec = -1;
        boolean pause;
        int durationSec;
        int volume = 10;
        int searchMs = 1500;
        int searchTries = 6;
    }

    /** A speaker as the search found it. */
    static final class Speaker {
        String ip;
        String mac;
        String name;
        int role;
    }

    /** Records what the engine reports; read by the main thread. */
    static final class Events implements SonvaraNativeMgr.Listener {
        final AtomicInteger progress = new AtomicInteger(-1);
        final AtomicInteger progressEvents = new AtomicInteger();
        final AtomicInteger searchResult = new AtomicInteger(-1);
        final AtomicInteger joins = new AtomicInteger();
        final AtomicInteger leaves = new AtomicInteger();
        volatile long firstProgressAtMs;
        volatile CountDownLatch searchDone = new CountDownLatch(1);
        final CountDownLatch serviceStop = new CountDownLatch(1);
        /** A permit per progress or end event: the play loop redraws on events, not on a timer. */
        final Semaphore changed = new Semaphore(0);
        volatile int stopGroup;

        /**
         * Waits up to ms for the next progress or the end of play; true once
         * the end was reported.
         */
        boolean awaitChange(long ms) throws InterruptedException {
            changed.tryAcquire(ms, TimeUnit.MILLISECONDS);
            changed.drainPermits();
            return serviceStop.getCount() == 0;
        }

        @Override
        public void onDeviceSearchComplete(int isSuccess) {
            searchResult.set(isSuccess);
            searchDone.countDown();
        }

        @Override
        public void onPlayProgress(int groupId, int progressSec) {
            if (progressEvents.getAndIncrement() == 0) firstProgressAtMs = System.currentTimeMillis();
            progress.set(progressSec);
            changed.release();
        }

        @Override
        public void onServiceStop(int groupId, int nextPlay) {
            stopGroup = groupId;
            serviceStop.countDown();
            changed.release();
        }

        @Override
        public void onJoinDeviceInfo(int groupId, String ip, String mac, String guid, String name) {
            joins.incrementAndGet();
        }

        @Override
        public void onLeaveDeviceInfo(int groupId, String ip) {
            leaves.incrementAndGet();
        }
    }

    /** A step that failed; its message says which part of the engine answered what. */
    static final class DemoFailure extends Exception {
        private static final long serialVersionUID = 1L;

        DemoFailure(String message) {
            super(message);
        }
    }

    private final Options opt;
    private final SonvaraNativeMgr mgr = new SonvaraNativeMgr();
    private final Events events = new Events();
    private final long startMs = System.currentTimeMillis();
    private final boolean interactive = System.console() != null;
    private int lastDrawn = Integer.MIN_VALUE;

    Demo(Options opt) {
        this.opt = opt;
    }

    public static void main(String[] args) {
        Options opt;
        try {
            opt = parse(args);
        } catch (IllegalArgumentException e) {
            System.err.println("demo: " + e.getMessage());
            usage();
            System.exit(2);
            return;
        }
        if (opt == null) {
            usage();
            return;
        }
        int rc;
        try {
            SonvaraNativeMgr.loadLibrary();
            rc = new Demo(opt).run();
        } catch (UnsatisfiedLinkError e) {
            System.err.println("demo: the Java bridge is missing from libSonvaraSender_jni ("
                    + e.getMessage() + ")");
            rc = 3;
        }
        System.exit(rc);
    }

    static void usage() {
        System.err.println("usage: Demo --file FILE [--dir DIR] [--speakers N] [--roles R,R,...]\n"
                + "            [--seek SEC] [--pause] [--duration SEC] [--group NAME]\n"
                + "  plays FILE (.mp3/.wav) to the speakers found on the network.\n"
                + "  --speakers  how many speakers to wait for (default 4)\n"
                + "  --roles     role of each speaker in address order: Front_Left,\n"
                + "              Front_Right, Center, Woofer, Rear_Left, Rear_Right, Party\n"
                + "              (default Front_Left,Front_Right,Woofer,Party, then Party)\n"
                + "  --seek      jump to SEC once playing;  --pause  pause 2 s once playing\n"
                + "  --duration  length of FILE in seconds, for the progress bar\n"
                + "  --volume    0-15 (default 10);  --search-ms  search time (default 1500)\n"
                + "  --dir       where the group file and the GUID file go (default out)");
    }

    static Options parse(String[] args) {
        Options o = new Options();
        for (int i = 0; i < args.length; i++) {
            String a = args[i];
            if (a.equals("--help") || a.equals("-h")) return null;
            if (a.equals("--pause")) {
                o.pause = true;
                continue;
            }
            if (i + 1 >= args.length) throw new IllegalArgumentException(a + " needs a value");
            String v = args[++i];
            switch (a) {
                case "--file": o.file = v; break;
                case "--dir": o.dir = v; break;
                case "--group": o.groupName = v; break;
                case "--speakers": o.speakers = number(a, v, 1, 30); break;
                case "--seek": o.seekSec = number(a, v, 0, 86400); break;
                case "--duration": o.durationSec = number(a, v, 0, 86400); break;
                case "--volume": o.volume = number(a, v, 0, 15); break;
                case "--search-ms": o.searchMs = number(a, v, 100, 60000); break;
                case "--roles":
                    for (String r : v.split(",")) o.roles.add(role(r.trim()));
                    break;
                default: throw new IllegalArgumentException("unknown option " + a);
            }
        }
        if (o.file == null) throw new IllegalArgumentException("--file is required");
        return o;
    }

    static int number(String name, String v, int min, int max) {
        try {
            int n = Integer.parseInt(v);
            if (n >= min && n <= max) return n;
        } catch (NumberFormatException e) {
            // reported below
        }
        throw new IllegalArgumentException(name + " wants a number from " + min + " to " + max);
    }

    static int role(String name) {
        for (int i = 1; i < ROLE_NAMES.length; i++) {
            if (ROLE_NAMES[i].equalsIgnoreCase(name)) return i;
        }
        throw new IllegalArgumentException("unknown role '" + name + "'");
    }

    static int defaultRole(int index) {
        final int[] room = {SonvaraNativeMgr.CHANNEL_FRONT_LEFT, SonvaraNativeMgr.CHANNEL_FRONT_RIGHT,
                SonvaraNativeMgr.CHANNEL_WOOFER, SonvaraNativeMgr.CHANNEL_PARTY};
        return index < room.length ? room[index] : SonvaraNativeMgr.CHANNEL_PARTY;
    }

    static String mimeOf(String path) {
        String p = path.toLowerCase(Locale.ROOT);
        if (p.endsWith(".mp3")) return "audio/mpeg";
        if (p.endsWith(".wav")) return "audio/x-wav";
        return "";
    }

    /** Fails with a message naming the call and the part of the engine behind it. */
    static void check(String call, int result, String part) throws DemoFailure {
        if (result == 0) return;
        String why;
        switch (result) {
            case SonvaraNativeMgr.ERR_MGR_NULL: why = "no manager (initialize failed)"; break;
            case 7: why = "not ready: " + part + " is not written yet"; break;
            case 100: why = "content not supported"; break;
            case 259: why = "no member of the group can play"; break;
            case 263: why = "the streamer could not initialise (" + part + ")"; break;
            case 264: why = "the streamer could not open its servers (" + part + ")"; break;
            default: why = "failed in " + part; break;
        }
        throw new DemoFailure(call + " returned " + result + ": " + why);
    }

    void say(String text) {
        System.out.printf("[%5.1f s] %s%n", (System.currentTimeMillis() - startMs) / 1000.0, text);
        System.out.flush();
    }

    int run() {
        int groupId = 0;
        int rc = 0;
        boolean initialized = false;
        try {
            File dir = new File(opt.dir);
            if (!dir.isDirectory() && !dir.mkdirs()) throw new DemoFailure("cannot make " + dir);
            mgr.setListener(events);
            String guid = identity(dir);
            check("initialize", mgr.initialize(guid), "the manager");
            initialized = true;
            say("engine up, this phone is " + guid);
            check("ConnectedWiFi", mgr.ConnectedWiFi(), "discovery");
            List<Speaker> found = search();
            groupId = makeGroup(found, dir);
            play(groupId);
        } catch (DemoFailure e) {
            endBar();
            System.err.println("demo: " + e.getMessage());
            rc = 1;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            rc = 1;
        } finally {
            if (groupId != 0) {
                int r = mgr.Stop(groupId, false);
                say("stopped (Stop returned " + r + ")");
            }
            if (initialized) mgr.Finalize();
        }
        report(rc);
        return rc;
    }

    /** The phone's GUID, kept in DIR/guid.txt across runs like an app keeps it. */
    String identity(File dir) {
        String path = new File(dir, "guid.txt").getPath();
        String guid = mgr.LoadGuid(path);
        if (guid == null || guid.isEmpty()) {
            guid = UUID.randomUUID().toString();
            mgr.SaveGuid(path, guid);
        }
        return guid;
    }

    List<Speaker> search() throws DemoFailure, InterruptedException {
        List<Speaker> found = new ArrayList<>();
        for (int attempt = 1; attempt <= opt.searchTries && found.size() < opt.speakers; attempt++) {
            events.searchDone = new CountDownLatch(1);
            check("SearchDeviceAsync", mgr.SearchDeviceAsync(opt.searchMs), "the manager's search");
            if (!events.searchDone.await(opt.searchMs + 10000L, TimeUnit.MILLISECONDS)) {
                throw new DemoFailure("the search never reported completion");
            }
            found = listSpeakers();
            say("search " + attempt + ": " + found.size() + " speaker(s)");
        }
        if (found.isEmpty()) throw new DemoFailure("no speaker answered the search");
        found.sort((a, b) -> compareIp(a.ip, b.ip));
        if (found.size() > opt.speakers) found = new ArrayList<>(found.subList(0, opt.speakers));
        System.out.println("Speakers found:");
        for (int i = 0; i < found.size(); i++) {
            Speaker s = found.get(i);
            s.role = i < opt.roles.size() ? opt.roles.get(i) : defaultRole(i);
            System.out.printf("  %-10s %-18s %-28s -> %s%n", s.ip, s.mac, '"' + s.name + '"',
                    ROLE_NAMES[s.role]);
        }
        return found;
    }

    List<Speaker> listSpeakers() {
        List<Speaker> list = new ArrayList<>();
        int n = mgr.GetDeviceCount();
        for (int i = 0; i < n; i++) {
            int h = mgr.GetDeviceHandle(i);
            Speaker s = new Speaker();
            s.ip = mgr.GetDeviceIp(h);
            s.mac = mgr.GetDeviceMac(h);
            s.name = mgr.GetDeviceName(h);
            if (s.ip == null || s.mac == null || s.ip.equals("127.0.0.1")) continue;  // the phone
            if (s.name == null) s.name = "";
            list.add(s);
        }
        return list;
    }

    static int compareIp(String a, String b) {
        String[] x = a.split("\\.");
        String[] y = b.split("\\.");
        for (int i = 0; i < Math.min(x.length, y.length); i++) {
            int c;
            try {
                c = Integer.compare(Integer.parseInt(x[i]), Integer.parseInt(y[i]));
            } catch (NumberFormatException e) {
                c = x[i].compareTo(y[i]);
            }
            if (c != 0) return c;
        }
        return Integer.compare(x.length, y.length);
    }

    int makeGroup(List<Speaker> speakers, File dir) throws DemoFailure {
        int old = mgr.GetGroupIDByName(opt.groupName);
        if (old != 0) mgr.DeleteGroup(old);
        int groupId = mgr.CreateGroup(opt.groupName);
        if (groupId == 0) throw new DemoFailure("CreateGroup returned 0");
        for (Speaker s : speakers) {
            check("AddDevice " + s.ip, mgr.AddDevice(groupId, s.ip, s.mac, s.role, true),
                    "the manager's groups");
        }
        check("SaveGroup", mgr.SaveGroup(dir.getPath()), "the group store");
        File saved = new File(dir, "multi_group_play.ini");
        say("group \"" + opt.groupName + "\" (id " + groupId + ") with "
                + mgr.GetDeviceCountInGroup(groupId) + " members, saved to " + saved.getPath());
        showFile(saved, 12);
        return groupId;
    }

    /** The first lines of a small text file the engine wrote, indented. */
    static void showFile(File f, int maxLines) {
        try (java.io.BufferedReader r = java.nio.file.Files.newBufferedReader(f.toPath(),
                     java.nio.charset.StandardCharsets.ISO_8859_1)) {
            String line;
            for (int i = 0; i < maxLines && (line = r.readLine()) != null; i++) {
                System.out.println("    | " + (line.length() > 100 ? line.substring(0, 100) : line));
            }
        } catch (java.io.IOException e) {
            System.out.println("    (cannot read " + f + ": " + e.getMessage() + ")");
        }
    }

    void play(int groupId) throws DemoFailure, InterruptedException {
        String path = new File(opt.file).getAbsolutePath();
        String mime = mimeOf(path);
        int channels = mgr.GetContentChannel(path);
        int rate = mgr.GetContentSampleRate(path);
        say("content " + path + ": " + mime + ", " + channels + " channel(s), " + rate + " Hz");
        String title = new File(path).getName();
        check("Open", mgr.Open(groupId, path, title, mime, channels, rate, opt.volume, 0, false),
                "the streamer");
        say("playing to the group");
        boolean seekDone = opt.seekSec < 0;
        boolean pauseDone = !opt.pause;
        long limitMs = (opt.durationSec > 0 ? opt.durationSec : 120) * 1000L + 20000L;
        long began = System.currentTimeMillis();
        // Progress comes once a second; the bound keeps the time limits below
        // checked when none comes.
        while (!events.awaitChange(1000)) {
            int pos = events.progress.get();
            drawBar(pos);
            if (!seekDone && pos >= 1) {
                seekDone = true;
                endBar();
                check("seekTo", mgr.seekTo(groupId, opt.seekSec), "the streamer's seek");
                say("seek to " + opt.seekSec + " s");
            }
            if (!pauseDone && pos >= 1) {
                pauseDone = true;
                endBar();
                check("Pause", mgr.Pause(groupId), "the streamer's pause");
                say("paused for 2 s");
                Thread.sleep(2000);
                check("Resume", mgr.Resume(groupId), "the streamer's resume");
                say("resumed");
            }
            if (System.currentTimeMillis() - began > limitMs) {
                throw new DemoFailure("the end of the content was never reported");
            }
            if (events.progressEvents.get() == 0 && System.currentTimeMillis() - began > 15000) {
                throw new DemoFailure("no play progress after 15 s: no speaker is receiving");
            }
        }
        drawBar(events.progress.get());
        endBar();
        say("end of content reported (NotifyServiceStop for group " + events.stopGroup + ")");
    }

    /**
     * Draws the bar when the position changed: in place on a terminal, one
     * line per second into a log.
     */
    void drawBar(int pos) {
        if (pos == lastDrawn) return;
        lastDrawn = pos;
        final int width = 40;
        int dur = opt.durationSec;
        int shown = Math.max(pos, 0);
        int filled = dur > 0 ? Math.min(width, shown * width / dur) : 0;
        StringBuilder bar = new StringBuilder(interactive ? "\r  [" : "  [");
        for (int i = 0; i < width; i++) bar.append(i < filled ? '#' : dur > 0 ? '.' : ' ');
        bar.append(String.format("] %d:%02d", shown / 60, shown % 60));
        if (dur > 0) bar.append(String.format(" / %d:%02d", dur / 60, dur % 60));
        if (!interactive) bar.append('\n');
        System.out.print(bar);
        System.out.flush();
    }

    /** Ends the bar's line before other output. */
    void endBar() {
        if (interactive && lastDrawn != Integer.MIN_VALUE) System.out.println();
        lastDrawn = Integer.MIN_VALUE;
    }

    void report(int rc) {
        System.out.println("App report:");
        System.out.printf("  result              %s%n", rc == 0 ? "played to the end" : "FAILED");
        System.out.printf("  progress events     %d (last position %d s)%n",
                events.progressEvents.get(), events.progress.get());
        if (events.firstProgressAtMs != 0) {
            System.out.printf("  first progress at   %.1f s%n",
                    (events.firstProgressAtMs - startMs) / 1000.0);
        }
        System.out.printf("  joins / leaves      %d / %d%n", events.joins.get(), events.leaves.get());
        System.out.printf("  total time          %.1f s%n",
                (System.currentTimeMillis() - startMs) / 1000.0);
    }
}
