package com.sonvara.multiroom.test;

import java.util.Objects;

/** Minimal assertions from any thread: failures are counted and printed, the run goes on. */
final class Check {
    private static int sFailures;
    private static int sChecks;

    private Check() {}

    static synchronized void eq(String what, Object expected, Object actual) {
        sChecks++;
        if (!Objects.equals(expected, actual)) {
            sFailures++;
            System.out.println(
                "FAIL " + what + ": expected <" + expected + "> got <" + actual + ">");
        }
    }

    static void ok(String what, boolean cond) { eq(what, true, cond); }

    static synchronized int failures() { return sFailures; }

    static synchronized int checks() { return sChecks; }
}
