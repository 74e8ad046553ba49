package com.sonvara.multiroom.test;

/**
 * Application classes that lack one callback method each. The engine binds
 * callbacks by name on the object's class, so a missing method must leave
 * exactly its event (and whatever the engine ties to it) silent.
 */
final class PartialTargets {
    private PartialTargets() {}

    /** The nine callbacks every variant has. */
    abstract static class Base {
        final EventLog log = new EventLog();

        void NotifyDeviceInfo(String ip, String mac, int idx, int tot) {
            log.onDeviceInfo(ip, mac, idx, tot);
        }

        void NotifyJoinDeviceInfo(int g, String ip, String mac, String guid, String name) {
            log.onJoinDeviceInfo(g, ip, mac, guid, name);
        }

        void NotifyResetDeviceInfo(int g, String ip) {
            log.onResetDeviceInfo(g, ip);
        }

        void NotifyDieDeviceInfo(String ip) {
            log.onDieDeviceInfo(ip);
        }

        void NotifyLeaveDeviceInfo(int g, String ip) {
            log.onLeaveDeviceInfo(g, ip);
        }

        void NotifyDeviceInfoByGroupId(int g, String ip, String mac, int idx, int tot, int type,
                int isService) {
            log.onDeviceInfoByGroupId(g, ip, mac, idx, tot, type, isService);
        }

        void NotifyServiceStop(int g, int nextPlay) {
            log.onServiceStop(g, nextPlay);
        }

        void NoitfyDeviceSearchComplete(int ok) {
            log.onDeviceSearchComplete(ok);
        }

        void NotifyReceiverVolumeChanged(int g, String ip, String mac, String guid, String name,
                int volume) {
            log.onReceiverVolumeChanged(g, ip, mac, guid, name, volume);
        }
    }

    static final class WithoutPlayProgress extends Base {
        void NotifyContentsInfo(int channels, int rate) {
            log.onContentsInfo(channels, rate);
        }
    }

    static final class WithoutContentsInfo extends Base {
        void NotifyPlayProgress(int g, int sec) {
            log.onPlayProgress(g, sec);
        }
    }

    /** Every callback present, but the listener throws from the first event. */
    static final class Throwing extends Base {
        void NotifyContentsInfo(int channels, int rate) {
            log.onContentsInfo(channels, rate);
        }

        void NotifyPlayProgress(int g, int sec) {
            log.onPlayProgress(g, sec);
        }

        @Override
        void NotifyDeviceInfo(String ip, String mac, int idx, int tot) {
            throw new IllegalStateException("listener failure (expected by the test)");
        }
    }
}
