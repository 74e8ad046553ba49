package com.sonvara.multiroom.test;

/**
 * Entry of the JVM tests: {@code JvmTests <group>} runs one group and exits 0
 * when every check passed, 1 otherwise. Run with -Xcheck:jni so that any JNI
 * misuse by the library aborts the run or prints a warning the test driver
 * treats as a failure.
 */
public final class JvmTests {
    private JvmTests() {}

    public static void main(String[] args) throws Exception {
        if (args.length < 1) {
            System.out.println("usage: JvmTests notifier|lifecycle|onload|playback|stress|soak");
            System.exit(2);
        }
        switch (args[0]) {
            case "notifier":
                NotifierTests.run();
                break;
            case "lifecycle":
                BridgeTests.run();
                break;
            case "onload":
                OnLoadTests.run();
                break;
            case "playback":
                PlaybackTests.run();
                break;
            case "stress":
                StressTests.run();
                break;
            case "soak":
                ReentryTests.runSoak();
                break;
            default:
                System.out.println("unknown group " + args[0]);
                System.exit(2);
        }
        System.out.println(args[0] + ": " + Check.checks() + " checks, " + Check.failures()
                + " failures");
        // Exit explicitly: engine threads the VM knows of must not keep it alive.
        System.exit(Check.failures() == 0 ? 0 : 1);
    }
}
