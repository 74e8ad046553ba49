package com.sonvara.multiroom;

/**
 * The application's handle on the native multi-room sender engine.
 *
 * <p>Every {@code native} method below is bound by the library's registration
 * table when {@link #loadLibrary()} loads {@code libSonvaraSender_jni}; the
 * engine reports back by calling the {@code Notify...} methods of the object
 * that called {@link #initialize(String)}. Those calls arrive on engine
 * threads (search, control, stream threads), never on the UI thread, so a
 * {@link Listener} must hand work over to its own thread before touching UI.
 *
 * <p>Native calls are serialised inside the library; they may be made from any
 * thread, but a listener must not call back into this class synchronously.
 */
public class SonvaraNativeMgr {
    public static final String LIBRARY = "SonvaraSender_jni";

    /** Result: a string argument could not be converted. */
    public static final int ERR_GET_STRING_UTF = 2;
    /** Result: {@link #initialize(String)} has not run (or {@link #Finalize()} has). */
    public static final int ERR_MGR_NULL = 256;
    /**
     * Result: refused from inside an event, because the engine would have to
     * end the very thread delivering it: {@link #Finalize()} from a listener,
     * {@link #initialize(String)} while a {@code Finalize} runs, or
     * {@link #ConnectedWiFi()} while a {@code DisconnectedWiFi} runs. Nothing
     * changed; call again from a thread of your own.
     */
    public static final int ERR_IN_EVENT = 280;

    /** Channel roles of a receiver in a group. */
    public static final int CHANNEL_NA = 0;
    public static final int CHANNEL_FRONT_LEFT = 1;
    public static final int CHANNEL_FRONT_RIGHT = 2;
    public static final int CHANNEL_CENTER = 3;
    public static final int CHANNEL_WOOFER = 4;
    public static final int CHANNEL_REAR_LEFT = 5;
    public static final int CHANNEL_REAR_RIGHT = 6;
    public static final int CHANNEL_PARTY = 7;

    /** Engine events. Every method has an empty default so a screen implements what it shows. */
    public interface Listener {
        default void onDeviceInfo(String ip, String mac, int idx, int tot) {}

        default void onJoinDeviceInfo(int groupId, String ip, String mac, String guid,
                String deviceName) {}

        default void onResetDeviceInfo(int groupId, String ip) {}

        default void onDieDeviceInfo(String ip) {}

        default void onLeaveDeviceInfo(int groupId, String ip) {}

        default void onDeviceInfoByGroupId(int groupId, String ip, String mac, int idx, int tot,
                int type, int isService) {}

        default void onContentsInfo(int numChannel, int sampleRate) {}

        default void onServiceStop(int groupId, int nextPlay) {}

        default void onDeviceSearchComplete(int isSuccess) {}

        default void onPlayProgress(int groupId, int progressSec) {}

        default void onReceiverVolumeChanged(int groupId, String ip, String mac, String guid,
                String deviceName, int volume) {}
    }

    private static boolean sLoaded;

    /** Loads the engine once per process; later calls do nothing. */
    public static synchronized void loadLibrary() {
        if (!sLoaded) {
            System.loadLibrary(LIBRARY);
            sLoaded = true;
        }
    }

    private volatile Listener mListener;

    public void setListener(Listener listener) {
        mListener = listener;
    }

    // Lifecycle
    public native int initialize(String uuid);
    public native int Finalize();

    // Playback of a group
    public native int Open(int groupId, String source, String title, String mime,
            int channelCount, int sampleRate, int volume, int offsetTime, boolean reuse);
    public native int Play();
    public native int Pause(int groupId);
    public native int Resume(int groupId);
    public native int Stop(int groupId, boolean reuse);
    public native int stopPlayer(int groupId);

    // Groups and their members
    public native int CreateGroup(String groupName);
    public native int AddDevice(int groupId, String deviceIp, String deviceMac, int type,
            boolean isService);
    public native int UpdateDeviceChannelType(int groupId, String deviceIp, String deviceMac,
            int type);
    public native int DeleteDevice(int groupId, String deviceIp, String deviceMac);
    public native int ReceiverIn(int groupId, String deviceIp, String receiverMac, int type,
            boolean isService);
    public native int ReceiverOut(int groupId, String deviceIp, String receiverMac);
    public native int DevicePlay(int groupId, String deviceIp, String receiverMac, int type,
            int volume);
    public native int ChangeGroupName(int groupId, String groupName);
    public native int DeleteGroup(int groupId);
    public native int SaveGroup(String dirPath);
    public native int LoadGroup(String dirPath);
    public native int GetGroupID(int idx);
    public native int GetGroupIDByName(String groupName);
    public native String GetGroupName(int idx);

    // Content
    public native int IsContentValid(String sourceUrl, String mime);
    public native int GetContentInfo(String sourceUrl);
    public native int GetContentChannel(String sourceUrl);
    public native int GetContentSampleRate(String sourceUrl);

    // Members of a group, by index
    public native int SearchDevice();
    public native int GetDeviceCountInGroup(int groupId);
    public native String GetDeviceIpInGroup(int groupId, int idx);
    public native String GetDeviceMacInGroup(int groupId, int idx);
    public native String GetDeviceGuidInGroup(int groupId, int idx);
    public native String GetDeviceNameInGroup(int groupId, int idx);
    public native int GetDeviceTypeInGroup(int groupId, int idx);
    public native boolean IsDeviceServiceInGroup(int groupId, int idx);
    public native int GetDeviceStateInGroup(int groupId, int idx);
    public native int SetDeviceEnableInGroup(int groupId, String deviceIp, String receiverMac,
            boolean isService);

    // Receiver settings
    public native int ReceiverVolumeControl(int groupId, int volume);
    public native int ReceiverDeviceVolumeControl(String ip, String mac, int volume);
    public native int SetReceiverUITypeAll(int groupId, int uiType);
    public native int SetReceiverUIType(String ip, String mac, int uiType);

    // This phone as a device, service devices
    public native int AddMyDevice(int groupId);
    public native int LoadMyDevice();
    public native String[] GetServiceDeviceList();
    public native int GetServiceGroupIdOfReceiver(String deviceIp);

    // Known devices, by handle
    public native int SearchDeviceAsync(int searchTime);
    public native int GetDeviceCount();
    public native int GetDeviceHandle(int index);
    public native String GetDeviceIp(int handle);
    public native String GetDeviceMac(int handle);
    public native String GetDeviceGuid(int handle);
    public native String GetDeviceName(int handle);
    public native int GetDeviceReceiverType(int handle);
    public native int GetDeviceVolume(int handle);

    // Network state, diagnostics, identity, seeking
    public native int DisconnectedWiFi();
    public native int ConnectedWiFi();
    public native int DebugPrintGroup();
    public native int SaveGuid(String path, String uuid);
    public native String LoadGuid(String path);
    public native int seekTo(int groupId, int progressSec);

    // Called by the engine on its own threads (names and signatures are bound by the library).
    void NotifyDeviceInfo(String ip, String mac, int idx, int tot) {
        Listener l = mListener;
        if (l != null) l.onDeviceInfo(ip, mac, idx, tot);
    }

    void NotifyJoinDeviceInfo(int groupId, String ip, String mac, String guid, String name) {
        Listener l = mListener;
        if (l != null) l.onJoinDeviceInfo(groupId, ip, mac, guid, name);
    }

    void NotifyResetDeviceInfo(int groupId, String ip) {
        Listener l = mListener;
        if (l != null) l.onResetDeviceInfo(groupId, ip);
    }

    void NotifyDieDeviceInfo(String ip) {
        Listener l = mListener;
        if (l != null) l.onDieDeviceInfo(ip);
    }

    void NotifyLeaveDeviceInfo(int groupId, String ip) {
        Listener l = mListener;
        if (l != null) l.onLeaveDeviceInfo(groupId, ip);
    }

    void NotifyDeviceInfoByGroupId(int groupId, String ip, String mac, int idx, int tot,
            int type, int isService) {
        Listener l = mListener;
        if (l != null) l.onDeviceInfoByGroupId(groupId, ip, mac, idx, tot, type, isService);
    }

    void NotifyContentsInfo(int numChannel, int sampleRate) {
        Listener l = mListener;
        if (l != null) l.onContentsInfo(numChannel, sampleRate);
    }

    void NotifyServiceStop(int groupId, int nextPlay) {
        Listener l = mListener;
        if (l != null) l.onServiceStop(groupId, nextPlay);
    }

    // The engine spells this one "Noitfy"; the name must match.
    void NoitfyDeviceSearchComplete(int isSuccess) {
        Listener l = mListener;
        if (l != null) l.onDeviceSearchComplete(isSuccess);
    }

    void NotifyPlayProgress(int groupId, int progressSec) {
        Listener l = mListener;
        if (l != null) l.onPlayProgress(groupId, progressSec);
    }

    void NotifyReceiverVolumeChanged(int groupId, String ip, String mac, String guid,
            String name, int volume) {
        Listener l = mListener;
        if (l != null) l.onReceiverVolumeChanged(groupId, ip, mac, guid, name, volume);
    }
}
