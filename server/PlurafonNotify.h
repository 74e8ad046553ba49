// PlurafonNotify: the manager's event sink on the Java side. Each event is
// delivered by calling a void method of the Java object that initialised the
// engine.
//
// Owns: two JNI global references (the object and its class), released by the
// destructor when it runs on a thread the VM knows. Allocates nothing else.
// Threads: events arrive on any engine thread; the thread that loaded the
// library uses its own JNIEnv, every other thread is attached for the one call
// and detached after it. Takes no lock: concurrent CallVoidMethod calls from
// different attached threads are safe in the VM.
#ifndef PLURAFONNOTIFY_H
#define PLURAFONNOTIFY_H

#include <jni.h>

#include "xPlurafonNotify.h"

class PlurafonNotify : public xPlurafonNotify {
public:
    PlurafonNotify();
    virtual ~PlurafonNotify();

    virtual void NotifyDeviceInfo(char* strIP, char* strMac, int idx, int tot);
    virtual void NotifyJoinDeviceInfo(int groupId, char* strIP, char* strMac, char* strGuid,
                                      char* strDeviceName);
    virtual void NotifyResetDeviceInfo(int groupId, char* strIP);
    virtual void NotifyDieDeviceInfo(char* strIP);
    virtual void NotifyLeaveDeviceInfo(int groupId, char* strIP);
    virtual void NotifyContentsInfo(int nNumChannel, int nSampleRate);
    virtual void NotifyDeviceInfoByGroupId(int groupId, char* strIP, char* strMac, int idx, int tot,
                                           int type, int bIsService);
    virtual void NotifyServiceStop(int groupId, int bNextPlay);
    virtual void NoitfyDeviceSearchComplete(int bIsSuccess);
    virtual void NoitfyPlayProgress(int groupId, int progress);
    virtual void NoitfyReceiverVolumeChanged(int groupId, char* strIP, char* strMac, char* strGuid,
                                             char* strDeviceName, int volume);

    static void SetVM(JavaVM* vm, int tid);
    // True on a thread while it delivers an event into Java: the bridge must
    // not make a call from there wait for the engine to end that thread.
    static bool InCallback();

    void SetDeviceInfofn(jmethodID id) { _notifyDeviceInfoID = id; }
    void SetJoinDeviceInfofn(jmethodID id) { _notifyJoinDeviceInfoID = id; }
    void SetResetDeviceInfofn(jmethodID id) { _notifyResetDeviceInfoID = id; }
    void SetDieDeviceInfofn(jmethodID id) { _notifyDieDeviceInfoID = id; }
    void SetLeaveDeviceInfofn(jmethodID id) { _notifyLeaveDeviceInfoID = id; }
    void SetDeviceInfoByGroupIdfn(jmethodID id) { _notifyDeviceInfoByGroupIdID = id; }
    void SetContentInfofn(jmethodID id) { _notifyContentsInfoID = id; }
    void SetServiceStopfn(jmethodID id) { _notifyServiceStopID = id; }
    void SetDeviceSearchCompletefn(jmethodID id) { _notifyDeviceSearchCompleteID = id; }
    void SetPlayProgressfn(jmethodID id) { _notifyPlayProgressID = id; }
    void SetReceiverVolumeChangedfn(jmethodID id) { _notifyReceiverVolumeChangedID = id; }

    // Looks up the eleven Java callback methods on cls and stores each one
    // found; a method the class lacks leaves its event silent.
    void BindCallbacks(JNIEnv* env, jclass cls);

    // Keeps global references to thiz and its class. 0, 3 (no class) or 8
    // (no global reference). Called once per notifier.
    int SetObjectRef(JNIEnv* env, jobject thiz);
    void DeleteRef();

    static JavaVM* _lpvm;
    static int _vm_tid;

private:
    template <typename... Args>
    void _call_java(jmethodID id, const char* vmMissingLine, Args... args);

    jclass _class;
    jobject _object;
    jmethodID _notifyDeviceInfoID;
    jmethodID _notifyJoinDeviceInfoID;
    jmethodID _notifyResetDeviceInfoID;
    jmethodID _notifyDieDeviceInfoID;
    jmethodID _notifyLeaveDeviceInfoID;
    jmethodID _notifyDeviceInfoByGroupIdID;
    jmethodID _notifyContentsInfoID;
    jmethodID _notifyServiceStopID;
    jmethodID _notifyDeviceSearchCompleteID;
    jmethodID _notifyPlayProgressID;
    jmethodID _notifyReceiverVolumeChangedID;
};

#endif
