package com.sonvara.multiroom.test;

import android.os.SystemClock;
import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;
import java.util.Set;

/** The native method table from Java: answers without an engine, bad strings, the GUID file. */
final class BridgeTests {
    private BridgeTests() {}

    static final int MGR_NULL = SonvaraNativeMgr.ERR_MGR_NULL;
    static final int BAD_STRING = SonvaraNativeMgr.ERR_GET_STRING_UTF;
    static final int MADE_UP = 0x5EED1234;
    /** The manager's answer when a group has no stream (PLURAFON_ERR_NO_STREAMER). */
    static final int NO_STREAMER = 265;

    static String[] log() {
        return NotifyProbe.takeLog();
    }

    static boolean logged(String[] lines, String line) {
        return Arrays.asList(lines).contains(line);
    }

    /** The lifecycle and GUID methods: they answer with or without an engine. */
    static final Set<String> LIFECYCLE = Set.of("initialize", "Finalize", "SaveGuid", "LoadGuid");

    /** The rest of the native method table, in a fixed order. */
    static List<Method> table() {
        List<Method> out = new ArrayList<>();
        for (Method f : SonvaraNativeMgr.class.getDeclaredMethods()) {
            if (Modifier.isNative(f.getModifiers()) && !LIFECYCLE.contains(f.getName())) out.add(f);
        }
        out.sort(Comparator.comparing(Method::toString));
        return out;
    }

    /** Arguments for f: every number n, every flag true, every text "127.0.0.2" but the nullAt-th. */
    static Object[] args(Method f, int n, int nullAt) {
        Class<?>[] p = f.getParameterTypes();
        Object[] a = new Object[p.length];
        for (int i = 0; i < p.length; i++) {
            a[i] = p[i] == String.class ? (i == nullAt ? null : "127.0.0.2") : p[i] == boolean.class ? true : n;
        }
        return a;
    }

    static Object call(SonvaraNativeMgr m, Method f, Object[] args) {
        try {
            Object got = f.invoke(m, args);
            return got instanceof String[] ? Arrays.asList((String[]) got) : got;
        } catch (ReflectiveOperationException e) {
            return e;
        }
    }

    /** A question: a getter (the content questions excepted) or a test of a flag. */
    static boolean question(Method f) {
        String n = f.getName();
        return f.getReturnType() != int.class || n.startsWith("Get") && !n.startsWith("GetContent");
    }

    /**
     * A question answers "nothing" (0, "" for group texts, null for device
     * texts, false), a command 256; the content questions count as commands.
     */
    static Object noEngineAnswer(Method f) {
        String n = f.getName();
        Class<?> t = f.getReturnType();
        if (t != int.class) {
            return t == boolean.class ? false : t == String.class && n.matches(".*(InGroup|GroupName)") ? "" : null;
        }
        if (n.equals("DebugPrintGroup") || n.equals("seekTo")) return -1;
        return question(f) || n.equals("Play") || n.equals("CreateGroup") ? 0 : MGR_NULL;
    }

    static void answersWithoutEngine(SonvaraNativeMgr m, String when) {
        for (Method f : table()) {
            Check.eq(when + ": " + f.getName(), noEngineAnswer(f), call(m, f, args(f, 1, -1)));
        }
    }

    /** A null string from Java is a failed conversion: code 2, or 0 from a question. */
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

    /** With an engine, a question about a made-up id, index or handle answers "nothing" too. */
    static void madeUpIds(SonvaraNativeMgr m) {
        for (int id : new int[] {MADE_UP, -1, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            for (Method f : table()) {
                if (!question(f) || !Arrays.asList(f.getParameterTypes()).contains(int.class)) continue;
                Check.eq("made-up " + id + ": " + f.getName(), noEngineAnswer(f), call(m, f, args(f, id, -1)));
            }
        }
    }

    /** The phone's own record carries the GUID of the initialize that built the engine. */
    static void thisPhone(SonvaraNativeMgr m, String guid) {
        Check.eq("LoadMyDevice", 0, m.LoadMyDevice());
        Check.eq("one device: the phone", 1, m.GetDeviceCount());
        int h = m.GetDeviceHandle(0);
        Check.ok("phone handle", h != 0);
        Check.eq("phone GUID", guid, m.GetDeviceGuid(h));
        Check.eq("phone address in the private namespace", "127.0.0.1", m.GetDeviceIp(h));
        Check.ok("phone MAC", m.GetDeviceMac(h) != null && !m.GetDeviceMac(h).isEmpty());
        Check.eq("no handle past the end", 0, m.GetDeviceHandle(1));
    }

    /** Groups through the table: texts both ways, booleans both ways, the group file. */
    static void groups(SonvaraNativeMgr m) {
        String name = "K\u00fcche \u00e9t\u00e9 \u6587";
        int g = m.CreateGroup(name);
        Check.ok("CreateGroup id", g != 0);
        Check.eq("GetGroupIDByName (non-ASCII)", g, m.GetGroupIDByName(name));
        Check.eq("GetGroupName (non-ASCII)", name, m.GetGroupName(g));
        Check.eq("AddMyDevice", 0, m.AddMyDevice(g));
        Check.eq("members", 1, m.GetDeviceCountInGroup(g));
        Check.eq("member address", "127.0.0.1", m.GetDeviceIpInGroup(g, 0));
        Check.eq("member role party", SonvaraNativeMgr.CHANNEL_PARTY, m.GetDeviceTypeInGroup(g, 0));
        Check.eq("member in service", true, m.IsDeviceServiceInGroup(g, 0));
        String mac = m.GetDeviceMacInGroup(g, 0);
        // No stream: the flag changes and the answer says there is no streamer.
        Check.eq("take the member out of service", NO_STREAMER,
                m.SetDeviceEnableInGroup(g, "127.0.0.1", mac, false));
        Check.eq("member out of service", false, m.IsDeviceServiceInGroup(g, 0));
        Check.eq("DebugPrintGroup", 0, m.DebugPrintGroup());
        try {
            String dir = Files.createTempDirectory("sonvara-groups").toString();
            Check.eq("SaveGroup", 0, m.SaveGroup(dir));
            Check.eq("DeleteGroup", 0, m.DeleteGroup(g));
            Check.eq("deleted group is unknown", "", m.GetGroupName(g));
            Check.eq("LoadGroup answers the group count", 1, m.LoadGroup(dir));
        } catch (java.io.IOException e) {
            Check.eq("temporary directory", null, e);
        }
        int back = m.GetGroupIDByName(name);
        Check.ok("group back from the file", back != 0);
        Check.eq("its member back", 1, m.GetDeviceCountInGroup(back));
        Check.eq("DeleteGroup after load", 0, m.DeleteGroup(back));
    }

    static void run() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        NotifyProbe.captureLog(true);
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        m.setListener(new EventLog().listener());

        log();
        answersWithoutEngine(m, "before initialize");
        String[] lines = log();
        Check.ok("count in group logs 256", logged(lines, "GetDeviceCountInGroup--- Ret 256"));
        Check.ok("code call logs 256", logged(lines, "DeleteGroup--- Ret 256"));
        Check.ok("CreateGroup names the missing manager",
                logged(lines, "[Java_SonvaraNativeMgr_CreateGroup] ORVELLE_SENDER_ERR_MGR_NULL"));
        Check.eq("Finalize without initialize", 0, m.Finalize());
        Check.eq("initialize with a null GUID", BAD_STRING, m.initialize(null));
        answersWithoutEngine(m, "after a failed initialize");

        Check.eq("initialize", 0, m.initialize("guid-first"));
        Check.eq("initialize again", 0, m.initialize("guid-second"));
        Check.ok("second initialize keeps the engine",
                logged(log(), "Java_PlurafonMgr_Initialize--- already init"));
        Check.ok("engine read the boot-time clock through JNI", SystemClock.callCount() > 0);
        thisPhone(m, "guid-first");
        groups(m);
        Check.eq("Play", 0, m.Play());
        Check.eq("no service devices", 0, m.GetServiceDeviceList().length);
        nullStrings(m);
        lines = log();
        Check.ok("string failure logged with 2", logged(lines, "AddDevice--- Ret 2"));
        Check.ok("CreateGroup string failure logged",
                logged(lines, "CreateGroup--- ORVELLE_COMMON_ERR_GET_STRING_UTF"));
        madeUpIds(m);

        Check.eq("Finalize", 0, m.Finalize());
        answersWithoutEngine(m, "after Finalize");
        Check.eq("Finalize twice", 0, m.Finalize());
        String longGuid = "guid-third-0123456789abcdefghijklmnopqrstuvwxyz";
        Check.eq("initialize after Finalize", 0, m.initialize(longGuid));
        Check.eq("engine back after re-initialize", 0, m.GetServiceDeviceList().length);
        thisPhone(m, longGuid.substring(0, 39));
        Check.eq("final Finalize", 0, m.Finalize());
        NotifyProbe.captureLog(false);
        guidFile(m);
    }

    static void guidFile(SonvaraNativeMgr m) throws Exception {
        Path dir = Files.createTempDirectory("sonvara-guid");
        String file = dir.resolve("guid.txt").toString();

        // The GUID file works with or without an engine.
        Check.eq("save", 0, m.SaveGuid(file, "4f1c2a9e-0d3b-4e57-9a61-2c8b7f0e5d13"));
        Check.eq("load", "4f1c2a9e-0d3b-4e57-9a61-2c8b7f0e5d13", m.LoadGuid(file));

        String longId = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
        Check.eq("save long", 0, m.SaveGuid(file, longId));
        Check.eq("load long is cut to 39", longId.substring(0, 39), m.LoadGuid(file));

        Files.write(dir.resolve("empty-id.txt"), "\n".getBytes(StandardCharsets.US_ASCII));
        Check.eq("empty id", null, m.LoadGuid(dir.resolve("empty-id.txt").toString()));
        Check.eq("missing file", null, m.LoadGuid(dir.resolve("none.txt").toString()));
        Check.ok("save into a missing directory fails",
                m.SaveGuid(dir.resolve("no/such/dir/guid.txt").toString(), "x") != 0);
        Check.eq("save null path", BAD_STRING, m.SaveGuid(null, "x"));
        Check.eq("save null id", BAD_STRING, m.SaveGuid(file, null));
        Check.eq("load null path", null, m.LoadGuid(null));

        Check.eq("initialize", 0, m.initialize("guid-x"));
        Check.eq("save with an engine", 0, m.SaveGuid(file, "with-engine"));
        Check.eq("load with an engine", "with-engine", m.LoadGuid(file));
        Check.eq("Finalize", 0, m.Finalize());
    }
}
