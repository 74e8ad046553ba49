package com.sonvara.multiroom.test;

/** Test-only native helper: a real event notifier driven against any object, and log capture. */
final class NotifyProbe {
    static { System.loadLibrary("SonvaraNotifyProbe_jni"); }

    private NotifyProbe() {}

    // A notifier bound to target's callback methods; 0 if it could not be made.
    static native long create(Object target);
    // Raises every event rounds times, on the calling thread or on one fresh native thread.
    static native void fire(long notifier, boolean onNativeThread, int rounds);
    static native void destroy(long notifier);
    // Makes the notifiers behave as before the library was loaded (no VM known).
    static native void setVmMissing(boolean missing);
    static native void captureLog(boolean on);
    // The engine's log lines since the last call.
    static native String[] takeLog();
    // Raw engine bytes as the bridge turns them into a Java string.
    static native String engineText(byte[] raw);

    // An emulated receiver on address (127.0.0.2, ...), started; 0 if it could not start.
    static native long rxStart(String address, byte[] nameUtf8, int volume, int master);
    static native void rxStop(long receiver);
    // {address, MAC, GUID}.
    static native String[] rxIdentity(long receiver);
    // Announces on the group that this receiver leaves the network.
    static native int rxSendExit(long receiver);
    static native int rxSendJoin(long receiver);
    // Tells the sender this receiver's volume changed on the device.
    static native int rxSendVolumeChanged(long receiver, int volume);
    static native boolean rxWaitPackets(long receiver, int n, int timeoutMs);
    // The role the sender gave this receiver ("Front_Left", ...).
    static native String rxStartRole(long receiver);
    // Bytes the C heap has handed out (mallinfo2), or -1 where that is not known.
    static native long nativeHeapBytes();
}
