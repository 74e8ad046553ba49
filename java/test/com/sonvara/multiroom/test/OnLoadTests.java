package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.io.File;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.Arrays;

/** Loading the library where the application class cannot be found, then where it can. */
final class OnLoadTests {
    private OnLoadTests() {}

    /** Runs inside a class loader that cannot see the application class. */
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

    static String libraryPath() {
        String file = System.mapLibraryName(SonvaraNativeMgr.LIBRARY);
        for (String dir : System.getProperty("java.library.path").split(File.pathSeparator)) {
            File f = new File(dir, file);
            if (f.isFile()) return f.getAbsolutePath();
        }
        throw new IllegalStateException(file + " not on java.library.path");
    }

    static void run() throws Exception {
        NotifyProbe.captureLog(true);
        NotifyProbe.takeLog();
        URL testJar = OnLoadTests.class.getProtectionDomain().getCodeSource().getLocation();
        try (URLClassLoader isolated =
                        new URLClassLoader(new URL[] {testJar}, ClassLoader.getPlatformClassLoader())) {
            Class<?> c = Class.forName(Isolated.class.getName(), true, isolated);
            Method load = c.getMethod("load", String.class);
            Object error = load.invoke(null, libraryPath());
            Check.ok("load without the application class fails", error != null);
        }
        String cls = "com/sonvara/multiroom/SonvaraNativeMgr";
        Check.eq("OnLoad log", Arrays.asList("JNI_OnLoad  201304062145",
                        "Native registration unable to find class '" + cls + "'",
                        "registerNatives failed"),
                Arrays.asList(NotifyProbe.takeLog()));

        // The application's own loader then loads it properly.
        SonvaraNativeMgr.loadLibrary();
        SonvaraNativeMgr m = new SonvaraNativeMgr();
        Check.eq("methods bound after a failed load", 0, m.Play());
        Check.eq("no engine yet", BridgeTests.MGR_NULL, m.Pause(1));
        NotifyProbe.captureLog(false);
    }
}
