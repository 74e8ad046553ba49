package com.sonvara.multiroom.test;

import android.os.SystemClock;
import com.sonvara.multiroom.SonvaraNativeMgr;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.function.Supplier;

/** The native method table from Java: answers without an engine, bad strings, the GUID file. */
final class BridgeTests {
    private BridgeTests() {}

    static final int MGR_NULL = SonvaraNativeMgr.ERR_MGR_NULL;
    static final int BAD_STRING = SonvaraNativeMgr.ERR_GET_STRING_UTF;
    static final int MADE_UP = 0x5EED1234;
    /** The manager's answer when a group has no stream (PLURAFON_ERR_NO_STREAMER). */
    static final int NO_STREAMER = 265;

    static void expect(String what, Object expected, Supplier<Object> call) {
        Object got = call.get();
        if (got instanceof String[]) got = Arrays.asList((String[]) got);
        Check.eq(what, expected, got);
    }

    static String[] log() {
        return NotifyProbe.takeLog();
    }

    static boolean logged(String[] lines, String line) {
        return Arrays.asList(lines).contains(line);
    }

    /** Every method of the table but the lifecycle and GUID ones, with no engine behind it. */
    static void answersWithoutEngine(SonvaraNativeMgr m, String when) {
        String w = when + ": ";
        int g = 1;
        expect(w + "Open", MGR_NULL, () -> m.Open(g, "/a.wav", "t", "audio/wav", 2, 44100, 5, 0, false));
        expect(w + "Play", 0, m::Play);
        expect(w + "Pause", MGR_NULL, () -> m.Pause(g));
        expect(w + "Resume", MGR_NULL, () -> m.Resume(g));
        expect(w + "Stop", MGR_NULL, () -> m.Stop(g, false));
        expect(w + "stopPlayer", MGR_NULL, () -> m.stopPlayer(g));
        expect(w + "CreateGroup", 0, () -> m.CreateGroup("living"));
        expect(w + "AddDevice", MGR_NULL, () -> m.AddDevice(g, "127.0.0.2", "m", 1, true));
        expect(w + "UpdateDeviceChannelType", MGR_NULL,
                () -> m.UpdateDeviceChannelType(g, "127.0.0.2", "m", 2));
        expect(w + "DeleteDevice", MGR_NULL, () -> m.DeleteDevice(g, "127.0.0.2", "m"));
        expect(w + "ReceiverIn", MGR_NULL, () -> m.ReceiverIn(g, "127.0.0.2", "m", 1, true));
        expect(w + "ReceiverOut", MGR_NULL, () -> m.ReceiverOut(g, "127.0.0.2", "m"));
        expect(w + "DevicePlay", MGR_NULL, () -> m.DevicePlay(g, "127.0.0.2", "m", 1, 5));
        expect(w + "ChangeGroupName", MGR_NULL, () -> m.ChangeGroupName(g, "x"));
        expect(w + "DeleteGroup", MGR_NULL, () -> m.DeleteGroup(g));
        expect(w + "SaveGroup", MGR_NULL, () -> m.SaveGroup("/tmp"));
        expect(w + "LoadGroup", MGR_NULL, () -> m.LoadGroup("/tmp"));
        expect(w + "GetGroupID", 0, () -> m.GetGroupID(0));
        expect(w + "GetGroupIDByName", 0, () -> m.GetGroupIDByName("living"));
        expect(w + "GetGroupName", "", () -> m.GetGroupName(0));
        expect(w + "IsContentValid", MGR_NULL, () -> m.IsContentValid("/a.wav", "audio/wav"));
        expect(w + "GetContentInfo", MGR_NULL, () -> m.GetContentInfo("/a.wav"));
        expect(w + "GetContentChannel", MGR_NULL, () -> m.GetContentChannel("/a.wav"));
        expect(w + "GetContentSampleRate", MGR_NULL, () -> m.GetContentSampleRate("/a.wav"));
        expect(w + "SearchDevice", MGR_NULL, m::SearchDevice);
        expect(w + "GetDeviceCountInGroup", 0, () -> m.GetDeviceCountInGroup(g));
        expect(w + "GetDeviceIpInGroup", "", () -> m.GetDeviceIpInGroup(g, 0));
        expect(w + "GetDeviceMacInGroup", "", () -> m.GetDeviceMacInGroup(g, 0));
        expect(w + "GetDeviceGuidInGroup", "", () -> m.GetDeviceGuidInGroup(g, 0));
        expect(w + "GetDeviceNameInGroup", "", () -> m.GetDeviceNameInGroup(g, 0));
        expect(w + "GetDeviceTypeInGroup", 0, () -> m.GetDeviceTypeInGroup(g, 0));
        expect(w + "IsDeviceServiceInGroup", false, () -> m.IsDeviceServiceInGroup(g, 0));
        expect(w + "GetDeviceStateInGroup", 0, () -> m.GetDeviceStateInGroup(g, 0));
        expect(w + "SetDeviceEnableInGroup", MGR_NULL,
                () -> m.SetDeviceEnableInGroup(g, "127.0.0.2", "m", true));
        expect(w + "ReceiverVolumeControl", MGR_NULL, () -> m.ReceiverVolumeControl(g, 5));
        expect(w + "ReceiverDeviceVolumeControl", MGR_NULL,
                () -> m.ReceiverDeviceVolumeControl("127.0.0.2", "m", 5));
        expect(w + "SetReceiverUITypeAll", MGR_NULL, () -> m.SetReceiverUITypeAll(g, 1));
        expect(w + "SetReceiverUIType", MGR_NULL, () -> m.SetReceiverUIType("127.0.0.2", "m", 1));
        expect(w + "AddMyDevice", MGR_NULL, () -> m.AddMyDevice(g));
        expect(w + "LoadMyDevice", MGR_NULL, m::LoadMyDevice);
        expect(w + "GetServiceDeviceList", null, m::GetServiceDeviceList);
        expect(w + "GetServiceGroupIdOfReceiver", 0, () -> m.GetServiceGroupIdOfReceiver("127.0.0.2"));
        expect(w + "SearchDeviceAsync", MGR_NULL, () -> m.SearchDeviceAsync(3));
        expect(w + "GetDeviceCount", 0, m::GetDeviceCount);
        expect(w + "GetDeviceHandle", 0, () -> m.GetDeviceHandle(0));
        expect(w + "GetDeviceIp", null, () -> m.GetDeviceIp(1));
        expect(w + "GetDeviceMac", null, () -> m.GetDeviceMac(1));
        expect(w + "GetDeviceGuid", null, () -> m.GetDeviceGuid(1));
        expect(w + "GetDeviceName", null, () -> m.GetDeviceName(1));
        expect(w + "GetDeviceReceiverType", 0, () -> m.GetDeviceReceiverType(1));
        expect(w + "GetDeviceVolume", 0, () -> m.GetDeviceVolume(1));
        expect(w + "DisconnectedWiFi", MGR_NULL, m::DisconnectedWiFi);
        expect(w + "ConnectedWiFi", MGR_NULL, m::ConnectedWiFi);
        expect(w + "DebugPrintGroup", -1, m::DebugPrintGroup);
        expect(w + "seekTo", -1, () -> m.seekTo(g, 10));
    }

    /** A null string from Java is a failed conversion: code 2 (or 0 / null by kind). */
    static void nullStrings(SonvaraNativeMgr m) {
        int g = MADE_UP;
        expect("Open null source", BAD_STRING, () -> m.Open(g, null, "t", "audio/wav", 2, 44100, 5, 0, false));
        expect("Open null title", BAD_STRING, () -> m.Open(g, "/a.wav", null, "audio/wav", 2, 44100, 5, 0, false));
        expect("Open null mime", BAD_STRING, () -> m.Open(g, "/a.wav", "t", null, 2, 44100, 5, 0, false));
        expect("CreateGroup null", 0, () -> m.CreateGroup(null));
        expect("AddDevice null mac", BAD_STRING, () -> m.AddDevice(g, "127.0.0.2", null, 1, true));
        expect("UpdateDeviceChannelType null ip", BAD_STRING,
                () -> m.UpdateDeviceChannelType(g, null, "m", 2));
        expect("DeleteDevice null ip", BAD_STRING, () -> m.DeleteDevice(g, null, "m"));
        expect("ReceiverIn null mac", BAD_STRING, () -> m.ReceiverIn(g, "127.0.0.2", null, 1, true));
        expect("ReceiverOut null", BAD_STRING, () -> m.ReceiverOut(g, null, null));
        expect("DevicePlay null mac", BAD_STRING, () -> m.DevicePlay(g, "127.0.0.2", null, 1, 5));
        expect("ChangeGroupName null", BAD_STRING, () -> m.ChangeGroupName(g, null));
        expect("SaveGroup null", BAD_STRING, () -> m.SaveGroup(null));
        expect("LoadGroup null", BAD_STRING, () -> m.LoadGroup(null));
        expect("GetGroupIDByName null", 0, () -> m.GetGroupIDByName(null));
        expect("IsContentValid null mime", BAD_STRING, () -> m.IsContentValid("/a.wav", null));
        expect("GetContentInfo null", BAD_STRING, () -> m.GetContentInfo(null));
        expect("GetContentChannel null", BAD_STRING, () -> m.GetContentChannel(null));
        expect("GetContentSampleRate null", BAD_STRING, () -> m.GetContentSampleRate(null));
        expect("SetDeviceEnableInGroup null mac", BAD_STRING,
                () -> m.SetDeviceEnableInGroup(g, "127.0.0.2", null, true));
        expect("ReceiverDeviceVolumeControl null ip", BAD_STRING,
                () -> m.ReceiverDeviceVolumeControl(null, "m", 5));
        expect("SetReceiverUIType null mac", BAD_STRING, () -> m.SetReceiverUIType("127.0.0.2", null, 1));
        expect("GetServiceGroupIdOfReceiver null", 0, () -> m.GetServiceGroupIdOfReceiver(null));
    }

    /** Made-up ids and handles get the not-found answers. */
    static void madeUpIds(SonvaraNativeMgr m) {
        for (int id : new int[] {MADE_UP, -1, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            String w = "made-up " + id + ": ";
            expect(w + "GetDeviceIp", null, () -> m.GetDeviceIp(id));
            expect(w + "GetDeviceMac", null, () -> m.GetDeviceMac(id));
            expect(w + "GetDeviceGuid", null, () -> m.GetDeviceGuid(id));
            expect(w + "GetDeviceName", null, () -> m.GetDeviceName(id));
            expect(w + "GetGroupName", "", () -> m.GetGroupName(id));
            expect(w + "GetDeviceIpInGroup", "", () -> m.GetDeviceIpInGroup(id, 0));
            expect(w + "GetDeviceNameInGroup", "", () -> m.GetDeviceNameInGroup(id, id));
            expect(w + "GetDeviceCountInGroup", 0, () -> m.GetDeviceCountInGroup(id));
            expect(w + "IsDeviceServiceInGroup", false, () -> m.IsDeviceServiceInGroup(id, 0));
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
        Check.eq("member past the end", "", m.GetDeviceIpInGroup(g, 1));
        String mac = m.GetDeviceMacInGroup(g, 0);
        // No stream: the flag changes and the answer says there is no streamer.
        Check.eq("take the member out of service", NO_STREAMER,
                m.SetDeviceEnableInGroup(g, "127.0.0.1", mac, false));
        Check.eq("member out of service", false, m.IsDeviceServiceInGroup(g, 0));
        Check.eq("DebugPrintGroup", 0, m.DebugPrintGroup());
        try {
            String dir = java.nio.file.Files.createTempDirectory("sonvara-groups").toString();
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

    static void runLifecycle() {
        SonvaraNativeMgr.loadLibrary();
        NotifyProbe.captureLog(true);
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        m.setListener(new EventLog());

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
        expect("Play", 0, m::Play);
        expect("no service devices", java.util.List.of(), m::GetServiceDeviceList);
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
        expect("engine back after re-initialize", java.util.List.of(), m::GetServiceDeviceList);
        thisPhone(m, longGuid.substring(0, 39));
        Check.eq("final Finalize", 0, m.Finalize());
        NotifyProbe.captureLog(false);
    }

    static void runGuid() throws Exception {
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        Path dir = Files.createTempDirectory("sonvara-guid");
        String file = dir.resolve("guid.txt").toString();

        // The GUID file works with or without an engine.
        Check.eq("save", 0, m.SaveGuid(file, "4f1c2a9e-0d3b-4e57-9a61-2c8b7f0e5d13"));
        Check.eq("load", "4f1c2a9e-0d3b-4e57-9a61-2c8b7f0e5d13", m.LoadGuid(file));
        Check.eq("save replaces", 0, m.SaveGuid(file, "second"));
        Check.eq("load replaced", "second", m.LoadGuid(file));

        String longId = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
        Check.eq("save long", 0, m.SaveGuid(file, longId));
        Check.eq("load long is cut to 39", longId.substring(0, 39), m.LoadGuid(file));

        Files.write(dir.resolve("empty-id.txt"), "\n".getBytes(StandardCharsets.US_ASCII));
        Check.eq("empty id", null, m.LoadGuid(dir.resolve("empty-id.txt").toString()));
        Files.write(dir.resolve("empty.txt"), new byte[0]);
        Check.eq("empty file", null, m.LoadGuid(dir.resolve("empty.txt").toString()));
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
