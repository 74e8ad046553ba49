// PlurafonNotify: delivers the manager's events to the application's Java
// object (see PlurafonNotify.h for ownership and threads).
//
// Every event takes the same path: check its method id, find a JNIEnv for the
// calling thread (its own when the VM already knows it: the loading thread or
// any Java thread raising an event on its own stack; else attach it), convert
// the strings, call the void Java method, clear anything the Java side threw,
// drop the local string references (a thread may deliver many events inside
// one native call, e.g. a blocking search), and detach only a thread that was
// attached for the call: detaching a Java thread that is running Java code
// would pull the VM out from under it.
#include "PlurafonNotify.h"

#include "JniHelper.h"
#include "debug_UI.h"

JavaVM* PlurafonNotify::_lpvm = nullptr;
int PlurafonNotify::_vm_tid = 0;

namespace {
thread_local int tInCallback = 0;  // depth of events this thread is delivering
}

bool PlurafonNotify::InCallback() {
    return tInCallback > 0;
}

namespace {

// Java argument of one event parameter: numbers as they are, text as a
// java.lang.String.
jvalue toJava(JNIEnv*, int v) {
    jvalue j;
    j.i = v;
    return j;
}

jvalue toJava(JNIEnv* env, char* text) {
    jvalue j;
    j.l = jniNewStringUTF(env, text);
    return j;
}

// Whether the Java argument of a parameter of this type is a local reference.
constexpr bool isLocalRef(int) {
    return false;
}
constexpr bool isLocalRef(char*) {
    return true;
}

struct Callback {
    const char* name;
    const char* sig;
    void (PlurafonNotify::*set)(jmethodID);
};

// The Java methods, in the order the fields are declared. Only the search
// completion keeps the engine's "Noitfy" spelling on the Java side.
const Callback kCallbacks[] = {
    {"NotifyDeviceInfo", "(Ljava/lang/String;Ljava/lang/String;II)V",
     &PlurafonNotify::SetDeviceInfofn},
    {"NotifyJoinDeviceInfo",
     "(ILjava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)V",
     &PlurafonNotify::SetJoinDeviceInfofn},
    {"NotifyResetDeviceInfo", "(ILjava/lang/String;)V", &PlurafonNotify::SetResetDeviceInfofn},
    {"NotifyDieDeviceInfo", "(Ljava/lang/String;)V", &PlurafonNotify::SetDieDeviceInfofn},
    {"NotifyLeaveDeviceInfo", "(ILjava/lang/String;)V", &PlurafonNotify::SetLeaveDeviceInfofn},
    {"NotifyDeviceInfoByGroupId", "(ILjava/lang/String;Ljava/lang/String;IIII)V",
     &PlurafonNotify::SetDeviceInfoByGroupIdfn},
    {"NotifyContentsInfo", "(II)V", &PlurafonNotify::SetContentInfofn},
    {"NotifyServiceStop", "(II)V", &PlurafonNotify::SetServiceStopfn},
    {"NoitfyDeviceSearchComplete", "(I)V", &PlurafonNotify::SetDeviceSearchCompletefn},
    {"NotifyPlayProgress", "(II)V", &PlurafonNotify::SetPlayProgressfn},
    {"NotifyReceiverVolumeChanged",
     "(ILjava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;I)V",
     &PlurafonNotify::SetReceiverVolumeChangedfn},
};

}  // namespace

PlurafonNotify::PlurafonNotify()
    : _class(nullptr),
      _object(nullptr),
      _notifyDeviceInfoID(nullptr),
      _notifyJoinDeviceInfoID(nullptr),
      _notifyResetDeviceInfoID(nullptr),
      _notifyDieDeviceInfoID(nullptr),
      _notifyLeaveDeviceInfoID(nullptr),
      _notifyDeviceInfoByGroupIdID(nullptr),
      _notifyContentsInfoID(nullptr),
      _notifyServiceStopID(nullptr),
      _notifyDeviceSearchCompleteID(nullptr),
      _notifyPlayProgressID(nullptr),
      _notifyReceiverVolumeChangedID(nullptr) {}

PlurafonNotify::~PlurafonNotify() {
    if (_object != nullptr || _class != nullptr) DeleteRef();
}

void PlurafonNotify::SetVM(JavaVM* vm, int tid) {
    _lpvm = vm;
    _vm_tid = tid;
}

void PlurafonNotify::BindCallbacks(JNIEnv* env, jclass cls) {
    for (const Callback& cb : kCallbacks) {
        jmethodID id = env->GetMethodID(cls, cb.name, cb.sig);
        if (id == nullptr) {
            // The lookup left a NoSuchMethodError pending; a missing method
            // only means that event stays silent.
            env->ExceptionClear();
            continue;
        }
        (this->*cb.set)(id);
    }
}

int PlurafonNotify::SetObjectRef(JNIEnv* env, jobject thiz) {
    jclass cls = env->GetObjectClass(thiz);
    if (cls == nullptr) {
        debug_UI("fail env->GetObjectClass(thiz)");
        return 3;
    }
    _class = static_cast<jclass>(env->NewGlobalRef(cls));
    env->DeleteLocalRef(cls);
    if (_class == nullptr) {
        debug_UI("fail _class = env->NewGlobalRef");
        return 8;
    }
    _object = env->NewGlobalRef(thiz);
    if (_object == nullptr) {
        debug_UI("fail _object = env->NewGlobalRef");
        return 8;
    }
    return 0;
}

// Releases the references when the calling thread has an env. The class
// branch clears _object, not _class: this behaviour is kept as it stands, so
// _class keeps its old value after the release.
void PlurafonNotify::DeleteRef() {
    if (_lpvm == nullptr) return;
    JNIEnv* env = jniGetEnv(_lpvm);
    if (_object != nullptr) {
        if (env != nullptr) env->DeleteGlobalRef(_object);
        _object = nullptr;
    }
    if (_class != nullptr) {
        if (env != nullptr) env->DeleteGlobalRef(_class);
        _object = nullptr;
    }
}

template <typename... Args>
void PlurafonNotify::_call_java(jmethodID id, const char* vmMissingLine, Args... args) {
    if (_lpvm == nullptr) {
        debug_UI("%s", vmMissingLine);
        return;
    }
    bool attached = false;
    JNIEnv* env = jniEnvForCall(_lpvm, &attached);
    if (env == nullptr) return;

    // A braced list is evaluated left to right: strings are made in
    // parameter order.
    jvalue jargs[] = {toJava(env, args)..., jvalue()};
    const bool refs[] = {isLocalRef(args)..., false};
    tInCallback++;
    env->CallVoidMethodA(_object, id, jargs);
    tInCallback--;
    if (env->ExceptionCheck()) {
        // The engine thread cannot handle a Java exception; report and drop it
        // so the next JNI call on this thread is legal.
        debug_UI("PlurafonNotify: the Java callback threw; cleared");
        env->ExceptionDescribe();
        env->ExceptionClear();
    }
    for (size_t i = 0; i < sizeof...(Args); i++) {
        if (refs[i] && jargs[i].l != nullptr) env->DeleteLocalRef(jargs[i].l);
    }
    if (attached) _lpvm->DetachCurrentThread();
}

void PlurafonNotify::NotifyDeviceInfo(char* strIP, char* strMac, int idx, int tot) {
    debug_UI("PlurafonNotify::NotifyDeviceInfo()");
    if (_notifyDeviceInfoID == nullptr) return;
    _call_java(_notifyDeviceInfoID, "PlurafonNotify::NotifyDeviceInfo 0", strIP, strMac, idx, tot);
}

void PlurafonNotify::NotifyJoinDeviceInfo(int groupId, char* strIP, char* strMac, char* strGuid,
                                          char* strDeviceName) {
    debug_UI("PlurafonNotify::NotifyJoinDeviceInfo()");
    if (_notifyJoinDeviceInfoID == nullptr) return;
    _call_java(_notifyJoinDeviceInfoID, "PlurafonNotify::NotifyJoinDeviceInfo 0", groupId, strIP,
               strMac, strGuid, strDeviceName);
}

void PlurafonNotify::NotifyResetDeviceInfo(int groupId, char* strIP) {
    debug_UI("PlurafonNotify::NotifyResetDeviceInfo()");
    if (_notifyResetDeviceInfoID == nullptr) return;
    _call_java(_notifyResetDeviceInfoID, "PlurafonNotify::NotifyResetDeviceInfo 0", groupId, strIP);
}

void PlurafonNotify::NotifyDieDeviceInfo(char* strIP) {
    debug_UI("PlurafonNotify::NotifyDieDeviceInfo()");
    if (_notifyDieDeviceInfoID == nullptr) return;
    _call_java(_notifyDieDeviceInfoID, "PlurafonNotify::NotifyDieDeviceInfo 0", strIP);
}

void PlurafonNotify::NotifyLeaveDeviceInfo(int groupId, char* strIP) {
    debug_UI("PlurafonNotify::NotifyLeaveDeviceInfo()");
    if (_notifyLeaveDeviceInfoID == nullptr) return;
    _call_java(_notifyLeaveDeviceInfoID, "PlurafonNotify::NotifyLeaveDeviceInfo 0", groupId, strIP);
}

// Its VM-missing line shares the device-info text; kept as it stands.
void PlurafonNotify::NotifyContentsInfo(int nNumChannel, int nSampleRate) {
    if (_notifyContentsInfoID == nullptr) return;
    _call_java(_notifyContentsInfoID, "PlurafonNotify::NotifyDeviceInfo 0", nNumChannel,
               nSampleRate);
}

void PlurafonNotify::NotifyDeviceInfoByGroupId(int groupId, char* strIP, char* strMac, int idx,
                                               int tot, int type, int bIsService) {
    debug_UI("PlurafonNotify::NotifyDeviceInfoByGroupId()");
    if (_notifyDeviceInfoByGroupIdID == nullptr) return;
    _call_java(_notifyDeviceInfoByGroupIdID, "PlurafonNotify::NotifyDeviceInfoByGroupId 0", groupId,
               strIP, strMac, idx, tot, type, bIsService);
}

// Gated on the contents-info method, not its own: a Java class without
// NotifyContentsInfo never hears of a stopped service. Kept as it stands; the
// second test only keeps a class that lacks NotifyServiceStop from crashing.
void PlurafonNotify::NotifyServiceStop(int groupId, int bNextPlay) {
    if (_notifyContentsInfoID == nullptr || _notifyServiceStopID == nullptr) return;
    _call_java(_notifyServiceStopID, "PlurafonNotify::NotifyServiceStop 0", groupId, bNextPlay);
}

void PlurafonNotify::NoitfyDeviceSearchComplete(int bIsSuccess) {
    if (_notifyDeviceSearchCompleteID == nullptr) return;
    _call_java(_notifyDeviceSearchCompleteID, "PlurafonNotify::NoitfyDeviceSearchComplete 0",
               bIsSuccess);
}

void PlurafonNotify::NoitfyPlayProgress(int groupId, int progress) {
    if (_notifyPlayProgressID == nullptr) return;
    _call_java(_notifyPlayProgressID, "PlurafonNotify::NoitfyPlayProgress 0", groupId, progress);
}

void PlurafonNotify::NoitfyReceiverVolumeChanged(int groupId, char* strIP, char* strMac,
                                                 char* strGuid, char* strDeviceName, int volume) {
    if (_notifyReceiverVolumeChangedID == nullptr) return;
    _call_java(_notifyReceiverVolumeChangedID, "PlurafonNotify::NoitfyReceiverVolumeChanged 0",
               groupId, strIP, strMac, strGuid, strDeviceName, volume);
}
