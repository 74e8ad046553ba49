package com.sonvara.multiroom.test;

/** Test-only native helper: a real event notifier driven against any object, and log capture. */
final class NotifyProbe {
    static { System.loadLibrary("SonvaraNotifyProbe_jni"); }

    private NotifyProbe() {}

    // Where fire raises the events: on the calling thread, on one fresh native
    // thread, or on one with no VM known (as before the library was loaded).
    static final int CALLER = 0;
    static final int NATIVE_THREAD = 1;
    static final int NATIVE_THREAD_NO_VM = 2;

    // Binds a real notifier to target's callback methods, raises every event
    // rounds times where asked, then deletes the notifier.
    static native void fire(Object target, int on, int rounds);
    static native void captureLog(boolean on);
    // The engine's log lines since the last call.
    static native String[] takeLog();
    // Raw engine bytes as the bridge turns them into a Java string.
    static native String engineText(byte[] raw);

    // An emulated receiver on 127.0.0.last, started; 0 if it could not start.
    static native long rxStart(int last, byte[] nameUtf8, int volume);
    static native void rxStop(long receiver);
    // {address, MAC, GUID}.
    static native String[] rxIdentity(long receiver);
    // Announces on the group that this receiver leaves the network.
    static native int rxSendExit(long receiver);
    static native int rxSendJoin(long receiver);
    // Tells the sender this receiver's volume changed on the device.
    static native int rxSendVolumeChanged(long receiver, int volume);
    // The role the sender gave this receiver ("Front_Left", ...) once n
    // packets have arrived; null if they did not within timeoutMs.
    static native String rxRoleOnceStreaming(long receiver, int n, int timeoutMs);
    // Bytes the C heap has handed out (mallinfo2), or -1 where that is not known.
    static native long nativeHeapBytes();
}
