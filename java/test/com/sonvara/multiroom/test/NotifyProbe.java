package com.sonvara.multiroom.test;

/** Test-only native helper: a real event notifier driven against any object, and log capture. */
final class NotifyProbe {
    static {
        System.loadLibrary("SonvaraNotifyProbe_jni");
    }

    private NotifyProbe() {}

    /** A notifier bound to target's callback methods; 0 if it could not be made. */
    static native long create(Object target);

    /** Raises every event rounds times, on the calling thread or on one fresh native thread. */
    static native void fire(long notifier, boolean onNativeThread, int rounds);

    static void fire(long notifier, boolean onNativeThread) {
        fire(notifier, onNativeThread, 1);
    }

    static native void destroy(long notifier);

    /** Makes the notifiers behave as before the library was loaded (no VM known). */
    static native void setVmMissing(boolean missing);

    static native void captureLog(boolean on);

    /** The engine's log lines since the last call. */
    static native String[] takeLog();

    /** Raw engine bytes as the bridge turns them into a Java string. */
    static native String engineText(byte[] raw);
}
