package com.sonvara.multiroom.test;

import static java.util.Arrays.asList;

import android.os.SystemClock;
import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.File;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;
import java.util.Set;

/**
 * The native method table from Java: every method's answers without an
 * engine, to null texts and to made-up ids (by reflection), the engine's life
 * cycle, groups and the GUID file through it, and the library's loading.
 */
final class BridgeTests {
    private BridgeTests() {}

    static final int MGR_NULL = SonvaraNativeMgr.ERR_MGR_NULL;
    static final int BAD_STRING = SonvaraNativeMgr.ERR_GET_STRING_UTF;
    static final int MADE_UP = 0x5EED1234;
    // The manager's answer when a group has no stream (PLURAFON_ERR_NO_STREAMER).
    static final int NO_STREAMER = 265;

    // The lifecycle and GUID methods: they answer with or without an engine.
    static final Set<String> LIFECYCLE = Set.of("initialize", "Finalize", "SaveGuid", "LoadGuid");

    // The rest of the native method table, in a fixed order.
    static List<Method> table() {
        List<Method> out = new ArrayList<>();
        for (Method f : SonvaraNativeMgr.class.getDeclaredMethods()) {
            if (Modifier.isNative(f.getModifiers()) && !LIFECYCLE.contains(f.getName())) out.add(f);
        }
        out.sort(Comparator.comparing(Method::toString));
        return out;
    }

    // Arguments for f: every number n, every flag true, every text "127.0.0.2" but the nullAt-th.
    static Object[] args(Method f, int n, int nullAt) {
        Class<?>[] p = f.getParameterTypes();
        Object[] a = new Object[p.length];
        for (int i = 0; i < p.length; i++) {
            a[i] = p[i] == boolean.class ? (Object) true : n;
            if (p[i] == String.class) a[i] = i == nullAt ? null : "127.0.0.2";
        }
        return a;
    }

    static Object call(SonvaraNativeMgr m, Method f, Object[] args) {
        try {
            return f.invoke(m, args);
        } catch (ReflectiveOperationException e) {
            return e;
        }
    }

    // A question: a getter (the content questions excepted) or a test of a flag.
    static boolean question(Method f) {
        String n = f.getName();
        return f.getReturnType() != int.class || n.startsWith("Get") && !n.startsWith("GetContent");
    }

    // A question answers "nothing" (0, "" for group texts, null for device
    // texts, false), a command 256; the content questions count as commands.
    static Object noEngineAnswer(Method f) {
        String n = f.getName();
        Class<?> t = f.getReturnType();
        if (t == boolean.class) return false;
        if (t != int.class) return n.matches(".*(InGroup|GroupName)") ? "" : null;
        if (n.equals("DebugPrintGroup") || n.equals("seekTo")) return -1;
        return question(f) || n.equals("Play") || n.equals("CreateGroup") ? 0 : MGR_NULL;
    }

    // Every method with every number id answers "nothing", as without an engine;
    // with one, only the questions that take a number are asked.
    static void answersNothing(SonvaraNativeMgr m, String when, boolean questions, int... ids) {
        for (int id : ids) {
            for (Method f : table()) {
                if (questions
                    && !(question(f) && asList(f.getParameterTypes()).contains(int.class))) {
                    continue;
                }
                Check.eq(when + " " + id + ": " + f.getName(), noEngineAnswer(f),
                    call(m, f, args(f, id, -1)));
            }
        }
    }

    // A null string from Java is a failed conversion: code 2, or 0 from a question.
    static void nullStrings(SonvaraNativeMgr m) {
        for (Method f : table()) {
            Class<?>[] p = f.getParameterTypes();
            for (int i = 0; i < p.length; i++) {
                if (p[i] != String.class) continue;
                Object want = question(f) || f.getName().equals("CreateGroup") ? 0 : BAD_STRING;
                Check.eq(f.getName() + " null text " + i, want, call(m, f, args(f, MADE_UP, i)));
            }
        }
    }

    // The phone's own record carries the GUID of the initialize that built the engine.
    static void thisPhone(SonvaraNativeMgr m, String guid) {
        Check.eq("LoadMyDevice", 0, m.LoadMyDevice());
        int h = m.GetDeviceHandle(0);
        Check.eq("the phone alone: its GUID, address and MAC, no handle past it",
            asList(1, guid, "127.0.0.1", true, 0),
            asList(m.GetDeviceCount(), m.GetDeviceGuid(h), m.GetDeviceIp(h),
                String.valueOf(m.GetDeviceMac(h)).matches("\\p{XDigit}{2}(:\\p{XDigit}{2}){5}"),
                m.GetDeviceHandle(1)));
    }

    // Texts and flags both ways through the table: a non-ASCII group holding
    // the phone, taken out of service (no stream: the flag changes, the answer
    // says there is no streamer), through the group file and back.
    static void groups(SonvaraNativeMgr m) throws Exception {
        String name = "K\u00fcche \u00e9t\u00e9 \u6587";
        String dir = Files.createTempDirectory("sonvara-groups").toString();
        int g = m.CreateGroup(name);
        Check.eq("a group with the phone, in and out of service, saved, deleted, loaded",
            asList(0, g, name, "127.0.0.1", SonvaraNativeMgr.CHANNEL_PARTY, true, NO_STREAMER,
                false, 0, 0, 0, 1, 1),
            asList(m.AddMyDevice(g), m.GetGroupIDByName(name), m.GetGroupName(g),
                m.GetDeviceIpInGroup(g, 0), m.GetDeviceTypeInGroup(g, 0),
                m.IsDeviceServiceInGroup(g, 0),
                m.SetDeviceEnableInGroup(g, "127.0.0.1", m.GetDeviceMacInGroup(g, 0), false),
                m.IsDeviceServiceInGroup(g, 0), m.DebugPrintGroup(), m.SaveGroup(dir),
                m.DeleteGroup(g), m.LoadGroup(dir),
                m.GetDeviceCountInGroup(m.GetGroupIDByName(name))));
    }

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        m.setListener(new EventLog().listener());
        answersNothing(m, "before initialize", false, 1);
        Check.eq("Finalize without an engine, initialize with a null GUID", asList(0, BAD_STRING),
            asList(m.Finalize(), m.initialize(null)));
        answersNothing(m, "after a failed initialize", false, 1);
        Check.eq("initialize twice", asList(0, 0),
            asList(m.initialize("guid-first"), m.initialize("guid-second")));
        thisPhone(m, "guid-first"); // the second initialize kept the engine
        Check.ok("engine read the boot-time clock through JNI", SystemClock.callCount() > 0);
        groups(m);
        Check.eq("Play, no service devices", asList(0, 0),
            asList(m.Play(), m.GetServiceDeviceList().length));
        nullStrings(m);
        answersNothing(m, "made-up", true, MADE_UP, -1, Integer.MAX_VALUE, Integer.MIN_VALUE);
        Check.eq("Finalize", 0, m.Finalize());
        answersNothing(m, "after Finalize", false, 1);
        String longGuid = "guid-third-0123456789abcdefghijklmnopqrstuvwxyz";
        Check.eq("Finalize twice, initialize after Finalize", asList(0, 0),
            asList(m.Finalize(), m.initialize(longGuid)));
        thisPhone(m, longGuid.substring(0, 39));
        Check.eq("final Finalize", 0, m.Finalize());
        guidFile(m);
    }

    // The GUID file works with or without an engine.
    static void guidFile(SonvaraNativeMgr m) throws Exception {
        Path dir = Files.createTempDirectory("sonvara-guid");
        String file = dir.resolve("guid.txt").toString();
        String guid = "4f1c2a9e-0d3b-4e57-9a61-2c8b7f0e5d13";
        String longId = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
        Files.write(dir.resolve("empty-id.txt"), "\n".getBytes(StandardCharsets.US_ASCII));
        Check.eq("saved and loaded back, a long id cut to 39; null texts, a missing directory",
            asList(0, guid, 0, longId.substring(0, 39), BAD_STRING, BAD_STRING, true),
            asList(m.SaveGuid(file, guid), m.LoadGuid(file), m.SaveGuid(file, longId),
                m.LoadGuid(file), m.SaveGuid(null, "x"), m.SaveGuid(file, null),
                m.SaveGuid(dir.resolve("no/such/dir/guid.txt").toString(), "x") != 0));
        Check.eq("nothing loaded from an empty id, a missing file, a null path",
            asList(null, null, null),
            asList(m.LoadGuid(dir.resolve("empty-id.txt").toString()),
                m.LoadGuid(dir.resolve("none.txt").toString()), m.LoadGuid(null)));
        Check.eq("with an engine", asList(0, 0, "with-engine", 0),
            asList(m.initialize("guid-x"), m.SaveGuid(file, "with-engine"), m.LoadGuid(file),
                m.Finalize()));
    }

    // Runs inside a class loader that cannot see the application class.
    public static final class Isolated {
        public static String load(String path) {
            try {
                System.load(path);
                return null;
            } catch (UnsatisfiedLinkError e) {
                return String.valueOf(e.getMessage());
            }
        }
    }

    // Loading the library where the application class cannot be found fails
    // with its log lines; the application's own loader then loads it properly.
    static void onLoad() throws Exception {
        NotifyProbe.captureLog(true);
        NotifyProbe.takeLog();
        String lib = System.mapLibraryName(SonvaraNativeMgr.LIBRARY);
        File path = Arrays.stream(System.getProperty("java.library.path").split(File.pathSeparator))
                        .map(d -> new File(d, lib))
                        .filter(File::isFile)
                        .findFirst()
                        .orElseThrow();
        URL testJar = BridgeTests.class.getProtectionDomain().getCodeSource().getLocation();
        try (URLClassLoader isolated =
                 new URLClassLoader(new URL[] {testJar}, ClassLoader.getPlatformClassLoader())) {
            Method load = Class.forName(Isolated.class.getName(), true, isolated)
                              .getMethod("load", String.class);
            Check.ok("load without the application class fails",
                load.invoke(null, path.getAbsolutePath()) != null);
        }
        Check.eq("OnLoad log",
            asList("JNI_OnLoad  201304062145",
                "Native registration unable to find class 'com/sonvara/multiroom/SonvaraNativeMgr'",
                "registerNatives failed"),
            asList(NotifyProbe.takeLog()));
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        Check.eq("methods bound after a failed load, no engine yet", asList(0, MGR_NULL),
            asList(m.Play(), m.Pause(1)));
    }
}
