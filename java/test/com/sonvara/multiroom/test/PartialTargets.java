package com.sonvara.multiroom.test;

/**
 * Application classes that lack callback methods. The engine binds callbacks
 * by name on the object's class, so a missing method must leave exactly its
 * event (and whatever the engine ties to it) silent.
 */
final class PartialTargets {
    private PartialTargets() {}

    /** No NotifyContentsInfo: the service stop, tied to it, is silent too. */
    static final class WithoutContentsInfo {
        final EventLog log = new EventLog();

        void NotifyDieDeviceInfo(String ip) {
            log.add("DieDeviceInfo", ip);
        }

        void NotifyServiceStop(int g, int nextPlay) {
            log.add("ServiceStop", g, nextPlay);
        }

        void NotifyPlayProgress(int g, int sec) {
            log.add("PlayProgress", g, sec);
        }
    }

    /** No NotifyServiceStop (nor most others): the content information still comes. */
    static final class WithoutServiceStop {
        final EventLog log = new EventLog();

        void NotifyContentsInfo(int channels, int rate) {
            log.add("ContentsInfo", channels, rate);
        }

        void NotifyLeaveDeviceInfo(int g, String ip) {
            log.add("LeaveDeviceInfo", g, ip);
        }
    }
}
