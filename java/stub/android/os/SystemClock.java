package android.os;

/**
 * Off-Android stand-in for the platform clock the engine reads through JNI.
 * Counts its callers so tests can see the engine really asked.
 */
public final class SystemClock {
    private static final java.util.concurrent.atomic.AtomicLong sCalls =
            new java.util.concurrent.atomic.AtomicLong();

    private SystemClock() {}

    /** Milliseconds of a monotonic clock (since boot on Linux). */
    public static long elapsedRealtime() {
        sCalls.incrementAndGet();
        return System.nanoTime() / 1_000_000L;
    }

    public static long callCount() {
        return sCalls.get();
    }
}
