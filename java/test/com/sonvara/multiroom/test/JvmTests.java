package com.sonvara.multiroom.test;

import java.util.Map;

/**
 * {@code JvmTests <group>} runs one group of JVM tests and exits 0 when every
 * check passed; run under -Xcheck:jni, whose warnings the test driver fails.
 */
public final class JvmTests {
    private JvmTests() {}

    interface Group {
        void run() throws Exception;
    }

    static final Map<String, Group> GROUPS =
        Map.of("notifier", NotifierTests::run, "lifecycle", BridgeTests::run, "onload",
            BridgeTests::onLoad, "playback", PlaybackTests::run, "soak", PlaybackTests::runSoak);

    public static void main(String[] args) throws Exception {
        Group group = args.length == 1 ? GROUPS.get(args[0]) : null;
        if (group == null) {
            System.out.println("usage: JvmTests " + String.join("|", GROUPS.keySet()));
            System.exit(2);
        }
        group.run();
        System.out.println(
            args[0] + ": " + Check.checks() + " checks, " + Check.failures() + " failures");
        // Exit explicitly: engine threads the VM knows of must not keep it alive.
        System.exit(Check.failures() == 0 ? 0 : 1);
    }
}
