// The manager's event interface. The manager (PlurafonMgr) reports what
// happens to devices, groups and playback through it; the Java bridge
// implements it (PlurafonNotify) by calling the application's Java object,
// and C++ callers and tests may implement it too.
//
// Calls arrive on any thread: the application's, the manager's search and
// stop threads, the streamers' and discovery's threads. The order of the
// operations is part of the interface and is kept. The "Noitfy" spelling
// belongs to the interface.
#ifndef XPLURAFONNOTIFY_H
#define XPLURAFONNOTIFY_H

class xPlurafonNotify {
public:
    virtual ~xPlurafonNotify() {}
    virtual void NotifyDeviceInfo(char* strIP, char* strMac, int idx, int tot) = 0;
    virtual void NotifyJoinDeviceInfo(int groupId, char* strIP, char* strMac, char* strGuid,
                                      char* strDeviceName) = 0;
    virtual void NotifyResetDeviceInfo(int groupId, char* strIP) = 0;
    virtual void NotifyDieDeviceInfo(char* strIP) = 0;
    virtual void NotifyLeaveDeviceInfo(int groupId, char* strIP) = 0;
    virtual void NotifyContentsInfo(int nNumChannel, int nSampleRate) = 0;
    virtual void NotifyDeviceInfoByGroupId(int groupId, char* strIP, char* strMac, int idx, int tot,
                                           int type, int bIsService) = 0;
    virtual void NotifyServiceStop(int groupId, int bNextPlay) = 0;
    virtual void NoitfyDeviceSearchComplete(int bIsSuccess) = 0;
    virtual void NoitfyPlayProgress(int groupId, int progress) = 0;
    virtual void NoitfyReceiverVolumeChanged(int groupId, char* strIP, char* strMac, char* strGuid,
                                             char* strDeviceName, int volume) = 0;
};

#endif
