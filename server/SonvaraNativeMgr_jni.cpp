// The Java bridge: the library's only way in from the application.
//
// Owns: the one PlurafonMgr and the one PlurafonNotify (from initialize to
// Finalize), the GUID file store (created on first use, kept for the life of
// the process) and a cached java.lang.String constructor for decoding names.
// Allocates: those objects, and per GetServiceDeviceList call a few 20-byte
// buffers freed before it returns.
// Threads: any Java thread. Every entry point but Play and
// UpdateDeviceChannelType holds _mgmutex for its call, so the manager sees
// one Java caller at a time. The manager's own threads raise events through
// PlurafonNotify without this lock, and the application's listener may call
// back in from there; so no entry point holds the lock while it waits for
// the engine's threads: Stop and seekTo wait for their streamer, and
// Finalize for the manager's end, with it released (see _call_mgr_waiting).
// What a caller sees meanwhile is the truth: the stopping group has no
// streamer, a finalizing engine no manager. A thread that already holds the
// lock (an event raised on the calling Java thread's own stack) enters
// again instead of waiting for itself.
// Locks: _mgmutex, the bridge's Mutex taken through autoLock (guards glpMgr,
// glpNotify, mGuidrw, the String constructor cache, _engine_waits,
// _finalizing, _wifi_closing, the sleepers' list and every manager call
// made from Java). It is the outermost lock.
#include <jni.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <initializer_list>
#include <new>

#include "Guidrw.h"
#include "JniHelper.h"
#include "Mutex.h"
#include "PlurafonNotify.h"
#include "SonvaraMgr.h"
#include "debug_UI.h"

#define ORVELLE_COMMON_ERR_GET_STRING_UTF 2
#define ORVELLE_SENDER_ERR_NO_CLASS 3
#define ORVELLE_SENDER_ERR_GUIDRW_ALLOC 17
#define ORVELLE_SENDER_ERR_MGR_NULL 256
#define ORVELLE_SENDER_ERR_MGR_ALLOC 257
#define ORVELLE_SENDER_ERR_NOTIFY_ALLOC 258
// initialize or Finalize called from inside an event while the engine would
// have to end the very thread that delivers it: refused, nothing changed.
#define ORVELLE_SENDER_ERR_IN_EVENT 280

#define GUID_BUF_LEN 40
#define SERVICE_IP_LEN 20

static const char* const kClassPathName = "com/sonvara/multiroom/SonvaraNativeMgr";

namespace {

// The string arguments of one call, obtained in order with GetStringUTFChars
// and released together when the call ends. Conversion stops at the first
// failure; a null reference from Java counts as a failure, not a crash.
class JStrings {
public:
    JStrings(JNIEnv* env, std::initializer_list<jstring> strs)
        : m_env(env), m_count(0), m_ok(true) {
        for (jstring js : strs) {
            if (m_count == kMax) break;
            const char* cs = js != nullptr ? env->GetStringUTFChars(js, nullptr) : nullptr;
            if (cs == nullptr) {
                // An out-of-memory error may be pending; the caller gets a code.
                if (js != nullptr) env->ExceptionClear();
                m_ok = false;
                break;
            }
            m_js[m_count] = js;
            m_cs[m_count] = cs;
            m_count++;
        }
    }
    ~JStrings() { Release(); }

    bool ok() const { return m_ok; }
    const char* operator[](int i) const { return i < m_count ? m_cs[i] : ""; }
    void Release() {
        while (m_count > 0) {
            m_count--;
            m_env->ReleaseStringUTFChars(m_js[m_count], m_cs[m_count]);
        }
    }

private:
    JStrings(const JStrings&) = delete;
    JStrings& operator=(const JStrings&) = delete;
    static const int kMax = 3;
    JNIEnv* m_env;
    jstring m_js[kMax];
    const char* m_cs[kMax];
    int m_count;
    bool m_ok;
};

// How an entry point answers when there is no manager or a string argument
// cannot be converted, and how it logs (exitFmt null: it does not log).
struct CallShape {
    jint noMgr;
    jint noMgrLogged;  // the value its exit line shows without a manager
    jint badString;
    const char* exitFmt;
    bool locked;
};

const CallShape kCode = {ORVELLE_SENDER_ERR_MGR_NULL, ORVELLE_SENDER_ERR_MGR_NULL,
                         ORVELLE_COMMON_ERR_GET_STRING_UTF, "%s--- Ret %u", true};
const CallShape kCodeSigned = {ORVELLE_SENDER_ERR_MGR_NULL, ORVELLE_SENDER_ERR_MGR_NULL,
                               ORVELLE_COMMON_ERR_GET_STRING_UTF, "%s--- Ret %d", true};
const CallShape kSeek = {-1, -1, ORVELLE_COMMON_ERR_GET_STRING_UTF, "%s--- Ret %d", true};
const CallShape kQuery = {0, 0, 0, nullptr, true};
const CallShape kCountInGroup = {0, ORVELLE_SENDER_ERR_MGR_NULL, 0, "%s--- Ret %u", true};
// Takes no lock and reads the manager pointer unguarded; kept as it stands.
const CallShape kUnlockedCode = {ORVELLE_SENDER_ERR_MGR_NULL, ORVELLE_SENDER_ERR_MGR_NULL,
                                 ORVELLE_COMMON_ERR_GET_STRING_UTF, "%s--- nRet %u", false};

}  // namespace

static std::atomic<PlurafonMgr*> glpMgr(nullptr);
static PlurafonNotify* glpNotify = nullptr;
// The bridge lock (recursive: see Mutex.h). A function that releases it
// part-way for a wait releases only its own take: a holder from an outer
// frame keeps it, and its wait is done with the lock held, as before.
static Mutex _mgmutex;

// A caller sleeping, with the lock released, until the engine changes state
// (a Finalize or a Wi-Fi loss ends, an engine wait finishes): a semaphore of
// its own in a list guarded by the lock, so that every sleeper present at a
// wake-up gets it.
struct BridgeSleeper {
    PAL_SEM* sem;
    BridgeSleeper* next;
};
static BridgeSleeper* _sleepers = nullptr;
static int _engine_waits = 0;       // Stop and seekTo calls waiting with the lock released
static bool _finalizing = false;    // Finalize is ending the manager with the lock released
static bool _wifi_closing = false;  // DisconnectedWiFi is ending streams with the lock released
static JavaVM* gJvm = nullptr;
static int _vm_tid = 0;
static Guidrw* mGuidrw = nullptr;
static jmethodID mid_newString = nullptr;
static jclass class_String = nullptr;

// ---- conversions ----------------------------------------------------------

static jbyteArray cstr2jbyteArray(JNIEnv* env, const char* nativeStr) {
    jsize len = static_cast<jsize>(strlen(nativeStr));
    jbyteArray bytes = env->NewByteArray(len);
    if (bytes == nullptr) {
        env->ExceptionClear();
        return nullptr;
    }
    env->SetByteArrayRegion(bytes, 0, len, reinterpret_cast<const jbyte*>(nativeStr));
    return bytes;
}

// Fills the String constructor cache on first use. Whatever succeeded stays
// cached; the first caller fixes which constructor is cached.
static bool _string_ctor_cached(JNIEnv* env, const char* ctorSig) {
    if (class_String == nullptr) {
        jclass cls = env->FindClass("java/lang/String");
        if (cls == nullptr) {
            env->ExceptionClear();
            return false;
        }
        class_String = static_cast<jclass>(env->NewGlobalRef(cls));
        env->DeleteLocalRef(cls);
        if (class_String == nullptr) return false;
    }
    if (mid_newString == nullptr) {
        mid_newString = env->GetMethodID(class_String, "<init>", ctorSig);
        if (mid_newString == nullptr) {
            env->ExceptionClear();
            return false;
        }
    }
    return true;
}

static jstring _new_string_checked(JNIEnv* env, jobject obj) {
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        if (obj != nullptr) env->DeleteLocalRef(obj);
        return nullptr;
    }
    return static_cast<jstring>(obj);
}

static jstring javaNewStringEncoding(JNIEnv* env, jbyteArray javaBytes, const char* encoding) {
    if (javaBytes == nullptr || !_string_ctor_cached(env, "([BLjava/lang/String;)V")) {
        return nullptr;
    }
    jstring jenc = env->NewStringUTF(encoding);
    if (jenc == nullptr) {
        env->ExceptionClear();
        return nullptr;
    }
    jobject s = env->NewObject(class_String, mid_newString, javaBytes, jenc);
    env->DeleteLocalRef(jenc);
    return _new_string_checked(env, s);
}

// The platform-charset variant. No entry point uses it: it shares the
// constructor cache, so calling it first would break the UTF-8 decoding.
__attribute__((unused)) static jstring javaNewString(JNIEnv* env, jbyteArray javaBytes) {
    if (javaBytes == nullptr || !_string_ctor_cached(env, "([B)V")) return nullptr;
    return _new_string_checked(env, env->NewObject(class_String, mid_newString, javaBytes));
}

// A device name as Java text: its bytes decoded as UTF-8, so any bytes a
// receiver sent arrive as characters (malformed ones as U+FFFD).
static jstring _name_to_java(JNIEnv* env, const char* name) {
    jbyteArray bytes = cstr2jbyteArray(env, name);
    jstring s = javaNewStringEncoding(env, bytes, "UTF-8");
    if (bytes != nullptr) env->DeleteLocalRef(bytes);
    return s;
}

// ---- the boot-time clock handed to the manager ------------------------------

// Microseconds since boot from android.os.SystemClock.elapsedRealtime. A
// thread the VM knows uses its own env; any other thread is attached for the
// call and detached after a successful one (on the failure paths it stays
// attached, as the engine has always done).
static long long get_boottime_usec() {
    if (gJvm == nullptr) return 0;
    bool attached = false;
    JNIEnv* env = jniEnvForCall(gJvm, &attached);
    if (env == nullptr) return 0;

    long long usec = 0;
    bool ok = false;
    jclass cls = env->FindClass("android/os/SystemClock");
    jmethodID mid =
        cls != nullptr ? env->GetStaticMethodID(cls, "elapsedRealtime", "()J") : nullptr;
    if (mid != nullptr) {
        jlong ms = env->CallStaticLongMethod(cls, mid);
        ok = !env->ExceptionCheck();
        if (ok) usec = static_cast<long long>(ms) * 1000;
    }
    env->ExceptionClear();
    if (cls != nullptr) env->DeleteLocalRef(cls);
    if (ok && attached) gJvm->DetachCurrentThread();
    return usec;
}

// ---- the common shape of an entry point -------------------------------------

// Lock, check the manager, convert the strings in order, call, release the
// strings, log the result.
template <typename F>
static jint _call_mgr(JNIEnv* env, const char* name, const CallShape& shape,
                      std::initializer_list<jstring> strs, F op) {
    Mutex::Autolock autoLock(shape.locked ? &_mgmutex : nullptr);
    if (shape.exitFmt != nullptr) debug_UI("%s+++", name);
    PlurafonMgr* mgr = glpMgr.load();
    if (mgr == nullptr) {
        if (shape.exitFmt != nullptr) debug_UI(shape.exitFmt, name, shape.noMgrLogged);
        return shape.noMgr;
    }
    JStrings s(env, strs);
    if (!s.ok()) {
        if (shape.exitFmt != nullptr) debug_UI(shape.exitFmt, name, shape.badString);
        return shape.badString;
    }
    jint ret = op(mgr, s);
    s.Release();
    if (shape.exitFmt != nullptr) debug_UI(shape.exitFmt, name, ret);
    return ret;
}

// A query without string arguments or logs: the manager's answer or noMgr.
template <typename T, typename F>
static T _query_mgr(T noMgr, F op) {
    Mutex::Autolock autoLock(&_mgmutex);
    PlurafonMgr* mgr = glpMgr.load();
    return mgr != nullptr ? op(mgr) : noMgr;
}

enum NoText { kNullWhenNone, kEmptyWhenNone };

// A text query: the manager's text as a Java string. Device names go through
// UTF-8 decoding; other texts through NewStringUTF.
template <typename F>
static jstring _text_query(JNIEnv* env, NoText none, bool isName, F op) {
    Mutex::Autolock autoLock(&_mgmutex);
    PlurafonMgr* mgr = glpMgr.load();
    const char* text = mgr != nullptr ? op(mgr) : nullptr;
    if (text == nullptr) return none == kEmptyWhenNone ? env->NewStringUTF("") : nullptr;
    return isName ? _name_to_java(env, text) : jniNewStringUTF(env, text);
}

// Holder of the lock (its one take): sleeps with it released until
// _wake_sleepers_l, then takes it back. Callers loop on their condition.
static void _sleep_l(Mutex::Autolock* autoLock) {
    BridgeSleeper me = {nullptr, _sleepers};
    if (!PAL_SemCreate(&me.sem, 0)) {
        // No semaphore (no memory): look again after a short sleep.
        autoLock->unlock();
        PAL_ThreadSleep(10);
        autoLock->lock();
        return;
    }
    _sleepers = &me;
    autoLock->unlock();
    PAL_SemWait(me.sem, 1);
    autoLock->lock();
    PAL_SemDelete(me.sem);
}

// Wakes every sleeper; each takes itself off the list by being woken.
static void _wake_sleepers_l() {
    for (BridgeSleeper* s = _sleepers; s != nullptr; s = s->next) PAL_SemSignal(s->sem, 1);
    _sleepers = nullptr;
}

// False when the engine is busy (*busy: a Finalize, a Wi-Fi loss) and this
// thread may not wait for it: it delivers an event, and the engine's work
// waits for the threads that deliver events. Otherwise waits, with the lock
// released, until it is done. (A thread that holds the lock from an outer
// frame is inside an event raised on its own stack, so it never sleeps.)
static bool _wait_while_l(Mutex::Autolock* autoLock, const bool* busy, const char* name) {
    while (*busy) {
        if (PlurafonNotify::InCallback()) {
            debug_UI("%s from inside an event while the engine is busy: refused", name);
            return false;
        }
        _sleep_l(autoLock);
    }
    return true;
}

// An entry point whose manager call waits for the engine's threads, in
// three phases: begin, under the lock, checks and takes what it ends (0,
// or the answer); wait runs with the lock released, so an event listener
// calling in from one of those threads gets the lock meanwhile; end, under
// the lock again, finishes. Finalize lets these calls finish
// (_engine_waits) before it ends the manager. With busy, one such call of
// its kind runs at a time: *busy is set while it waits, and a second one
// waits for it first (from inside an event it answers busyAnswer).
template <typename B, typename W, typename E>
static jint _call_mgr_waiting(const char* name, const CallShape& shape, bool* busy, jint busyAnswer,
                              B begin, W wait, E end) {
    Mutex::Autolock autoLock(&_mgmutex);
    debug_UI("%s+++", name);
    if (busy != nullptr && !_wait_while_l(&autoLock, busy, name)) {
        debug_UI(shape.exitFmt, name, busyAnswer);
        return busyAnswer;
    }
    PlurafonMgr* mgr = glpMgr.load();
    if (mgr == nullptr) {
        debug_UI(shape.exitFmt, name, shape.noMgrLogged);
        return shape.noMgr;
    }
    jint ret = begin(mgr);
    if (ret == 0) {
        _engine_waits++;
        if (busy != nullptr) *busy = true;
        autoLock.unlock();
        ret = wait(mgr);
        autoLock.lock();
        if (busy != nullptr) *busy = false;
        _engine_waits--;
        end(mgr);
        _wake_sleepers_l();
    }
    debug_UI(shape.exitFmt, name, ret);
    return ret;
}

static int _z(jboolean b) {
    return b ? 1 : 0;
}

// ---- lifecycle ----------------------------------------------------------------

static void _destroy_engine_l() {
    delete glpMgr.exchange(nullptr);
    delete glpNotify;
    glpNotify = nullptr;
}

static jint Java_SonvaraNativeMgr_initialize(JNIEnv* env, jobject thiz, jstring juuid) {
    Mutex::Autolock autoLock(&_mgmutex);
    debug_UI("Java_PlurafonMgr_Initialize+++");
    if (!_wait_while_l(&autoLock, &_finalizing, "Initialize")) return ORVELLE_SENDER_ERR_IN_EVENT;
    if (glpMgr.load() != nullptr && glpNotify != nullptr) {
        debug_UI("Java_PlurafonMgr_Initialize--- already init");
        return 0;
    }
    JStrings uuid(env, {juuid});
    if (!uuid.ok()) return ORVELLE_COMMON_ERR_GET_STRING_UTF;

    PlurafonMgr* mgr = new (std::nothrow) PlurafonMgr(uuid[0], get_boottime_usec);
    uuid.Release();
    if (mgr == nullptr) return ORVELLE_SENDER_ERR_MGR_ALLOC;
    glpMgr.store(mgr);
    int ret = mgr->initCheck();
    if (ret != 0) {
        debug_UI("glpMgr->initCheck fail");
        _destroy_engine_l();
        return ret;
    }
    glpNotify = new (std::nothrow) PlurafonNotify();
    if (glpNotify == nullptr) {
        _destroy_engine_l();
        return ORVELLE_SENDER_ERR_NOTIFY_ALLOC;
    }
    mgr->SetNoitfyObject(glpNotify);
    glpNotify->SetObjectRef(env, thiz);

    jclass cls = env->GetObjectClass(thiz);
    if (cls == nullptr) {
        debug_UI("env->GetObjectClass fail\n");
        _destroy_engine_l();
        return ORVELLE_SENDER_ERR_NO_CLASS;
    }
    glpNotify->BindCallbacks(env, cls);
    env->DeleteLocalRef(cls);
    debug_UI("Java_PlurafonMgr_Initialize---");
    return 0;
}

// The manager goes first: its threads may still report through the notifier
// until it is gone. Both are deleted with the lock released, since the
// manager's end waits for threads whose event listeners may call in; such a
// call finds no manager. A Finalize from inside an event is refused: the
// manager's end would wait for the thread making it.
static jint Java_SonvaraNativeMgr_Finalize(JNIEnv*, jobject) {
    Mutex::Autolock autoLock(&_mgmutex);
    debug_UI("Java_PlurafonMgr_Finalize+++");
    if (PlurafonNotify::InCallback()) {
        debug_UI("Java_PlurafonMgr_Finalize--- refused inside an event");
        return ORVELLE_SENDER_ERR_IN_EVENT;
    }
    _wait_while_l(&autoLock, &_finalizing, "Finalize");
    while (_engine_waits > 0) _sleep_l(&autoLock);
    PlurafonMgr* mgr = glpMgr.exchange(nullptr);
    PlurafonNotify* notify = glpNotify;
    glpNotify = nullptr;
    _finalizing = true;
    autoLock.unlock();
    delete mgr;
    delete notify;
    autoLock.lock();
    _finalizing = false;
    _wake_sleepers_l();
    debug_UI("Java_PlurafonMgr_Finalize---");
    return 0;
}

// ---- playback -------------------------------------------------------------------

// The strings are obtained as source, mime, title and passed as source,
// title, mime.
static jint Java_SonvaraNativeMgr_Open(JNIEnv* env, jobject, jint group_id, jstring strSource,
                                       jstring strTitle, jstring strMime, jint channel_count,
                                       jint sampleRate, jint nVolume, jint offset_time,
                                       jboolean bReuse) {
    return _call_mgr(env, "Open", kCode, {strSource, strMime, strTitle},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->Open(group_id, s[0], s[2], s[1], channel_count, sampleRate,
                                        nVolume, offset_time, _z(bReuse));
                     });
}

// Playback starts through Open; Play answers 0 in any state and takes no lock.
static jint Java_SonvaraNativeMgr_Play(JNIEnv*, jobject) {
    return 0;
}

static jint Java_SonvaraNativeMgr_Pause(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(env, "Pause", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->Pause(group_id); });
}

static jint Java_SonvaraNativeMgr_Resume(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(env, "Resume", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->Resume(group_id); });
}

static jint Java_SonvaraNativeMgr_Stop(JNIEnv*, jobject, jint group_id, jboolean bReuse) {
    int handle = 0;
    return _call_mgr_waiting(
        "Stop", kCode, nullptr, 0, [&](PlurafonMgr* m) { return m->StopBegin(group_id, &handle); },
        [&](PlurafonMgr*) {
            PlurafonMgr::StopStreamer(handle);
            return 0;
        },
        [&](PlurafonMgr* m) { m->StopEnd(group_id, _z(bReuse)); });
}

static jint Java_SonvaraNativeMgr_stopPlayer(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(env, "stopPlayer", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->stopPlayer(group_id); });
}

static jint Java_SonvaraNativeMgr_seekTo(JNIEnv*, jobject, jint group_id, jint progress) {
    int handle = 0;
    return _call_mgr_waiting(
        "seekTo", kSeek, nullptr, 0,
        [&](PlurafonMgr* m) { return m->SeekBegin(group_id, progress, &handle); },
        [&](PlurafonMgr*) { return PlurafonMgr::SeekStreamer(handle, progress); },
        [&](PlurafonMgr*) {});
}

// ---- groups and members -----------------------------------------------------

// Answers the new group's id, or 0 on either failure.
static jint Java_SonvaraNativeMgr_CreateGroup(JNIEnv* env, jobject, jstring strGroupName) {
    Mutex::Autolock autoLock(&_mgmutex);
    debug_UI("CreateGroup+++");
    PlurafonMgr* mgr = glpMgr.load();
    if (mgr == nullptr) {
        debug_UI("[Java_SonvaraNativeMgr_CreateGroup] ORVELLE_SENDER_ERR_MGR_NULL");
        return 0;
    }
    JStrings s(env, {strGroupName});
    if (!s.ok()) {
        debug_UI("CreateGroup--- ORVELLE_COMMON_ERR_GET_STRING_UTF");
        return 0;
    }
    jint ret = mgr->CreateGroup(s[0]);
    s.Release();
    debug_UI("CreateGroup---");
    return ret;
}

static jint Java_SonvaraNativeMgr_AddDevice(JNIEnv* env, jobject, jint group_id,
                                            jstring strDeviceInfo, jstring strDeviceMac, jint type,
                                            jboolean bIsService) {
    return _call_mgr(env, "AddDevice", kCode, {strDeviceInfo, strDeviceMac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->AddDevice(group_id, s[0], s[1], type, _z(bIsService));
                     });
}

static jint Java_SonvaraNativeMgr_UpdateDeviceChannelType(JNIEnv* env, jobject, jint group_id,
                                                          jstring strDeviceInfo,
                                                          jstring strDeviceMac, jint type) {
    return _call_mgr(env, "UpdateDeviceChannelType", kUnlockedCode, {strDeviceInfo, strDeviceMac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->UpdateDeviceChannelType(group_id, s[0], s[1], type);
                     });
}

static jint Java_SonvaraNativeMgr_DeleteDevice(JNIEnv* env, jobject, jint group_id,
                                               jstring strDeviceInfo, jstring strDeviceMac) {
    return _call_mgr(
        env, "DeleteDevice", kCode, {strDeviceInfo, strDeviceMac},
        [&](PlurafonMgr* m, const JStrings& s) { return m->DeleteDevice(group_id, s[0], s[1]); });
}

static jint Java_SonvaraNativeMgr_ReceiverIn(JNIEnv* env, jobject, jint group_id,
                                             jstring strDeviceInfo, jstring strReceiverMac,
                                             jint type, jboolean bIsService) {
    return _call_mgr(env, "ReceiverIn", kCode, {strDeviceInfo, strReceiverMac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->ReceiverIn(group_id, s[0], s[1], type, _z(bIsService));
                     });
}

static jint Java_SonvaraNativeMgr_ReceiverOut(JNIEnv* env, jobject, jint group_id,
                                              jstring strDeviceInfo, jstring strReceiverMac) {
    return _call_mgr(
        env, "ReceiverOut", kCode, {strDeviceInfo, strReceiverMac},
        [&](PlurafonMgr* m, const JStrings& s) { return m->ReceiverOut(group_id, s[0], s[1]); });
}

static jint Java_SonvaraNativeMgr_DevicePlay(JNIEnv* env, jobject, jint group_id,
                                             jstring strDeviceInfo, jstring strReceiverMac,
                                             jint type, jint volume) {
    return _call_mgr(env, "DevicePlay", kCode, {strDeviceInfo, strReceiverMac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->DevicePlay(group_id, s[0], s[1], type, volume);
                     });
}

static jint Java_SonvaraNativeMgr_ChangeGroupName(JNIEnv* env, jobject, jint group_id,
                                                  jstring strGroupName) {
    return _call_mgr(
        env, "ChangeGroupName", kCode, {strGroupName},
        [&](PlurafonMgr* m, const JStrings& s) { return m->ChangeGroupName(group_id, s[0]); });
}

static jint Java_SonvaraNativeMgr_DeleteGroup(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(env, "DeleteGroup", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->DeleteGroup(group_id); });
}

static jint Java_SonvaraNativeMgr_SaveGroup(JNIEnv* env, jobject, jstring jpath) {
    return _call_mgr(env, "SaveGroup", kCode, {jpath},
                     [&](PlurafonMgr* m, const JStrings& s) { return m->SaveGroup(s[0]); });
}

static jint Java_SonvaraNativeMgr_LoadGroup(JNIEnv* env, jobject, jstring jpath) {
    return _call_mgr(env, "LoadGroup", kCode, {jpath},
                     [&](PlurafonMgr* m, const JStrings& s) { return m->LoadGroup(s[0]); });
}

static jint Java_SonvaraNativeMgr_GetGroupID(JNIEnv*, jobject, jint idx) {
    return _query_mgr<jint>(0, [&](PlurafonMgr* m) { return m->GetGroupID(idx); });
}

static jint Java_SonvaraNativeMgr_GetGroupIDByName(JNIEnv* env, jobject, jstring group_namex) {
    return _call_mgr(env, "GetGroupIDByName", kQuery, {group_namex},
                     [&](PlurafonMgr* m, const JStrings& s) { return m->GetGroupIDByName(s[0]); });
}

static jstring Java_SonvaraNativeMgr_GetGroupName(JNIEnv* env, jobject, jint idx) {
    return _text_query(env, kEmptyWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetGroupName(idx); });
}

static jint Java_SonvaraNativeMgr_GetDeviceCountInGroup(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(
        env, "GetDeviceCountInGroup", kCountInGroup, {},
        [&](PlurafonMgr* m, const JStrings&) { return m->GetDeviceCountInGroup(group_id); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceIpInGroup(JNIEnv* env, jobject, jint group_id,
                                                        jint idx) {
    return _text_query(env, kEmptyWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceIpInGroup(group_id, idx); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceMacInGroup(JNIEnv* env, jobject, jint group_id,
                                                         jint idx) {
    return _text_query(env, kEmptyWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceMacInGroup(group_id, idx); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceGuidInGroup(JNIEnv* env, jobject, jint group_id,
                                                          jint idx) {
    return _text_query(env, kEmptyWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceGuidInGroup(group_id, idx); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceNameInGroup(JNIEnv* env, jobject, jint group_id,
                                                          jint idx) {
    return _text_query(env, kEmptyWhenNone, true,
                       [&](PlurafonMgr* m) { return m->GetDeviceNameInGroup(group_id, idx); });
}

static jint Java_SonvaraNativeMgr_GetDeviceTypeInGroup(JNIEnv*, jobject, jint group_id, jint idx) {
    return _query_mgr<jint>(0,
                            [&](PlurafonMgr* m) { return m->GetDeviceTypeInGroup(group_id, idx); });
}

static jboolean Java_SonvaraNativeMgr_IsDeviceServiceInGroup(JNIEnv*, jobject, jint group_id,
                                                             jint idx) {
    return _query_mgr<jboolean>(JNI_FALSE, [&](PlurafonMgr* m) {
        return m->IsDeviceServiceInGroup(group_id, idx) != 0 ? JNI_TRUE : JNI_FALSE;
    });
}

static jint Java_SonvaraNativeMgr_GetDeviceStateInGroup(JNIEnv*, jobject, jint group_id, jint idx) {
    return _query_mgr<jint>(
        0, [&](PlurafonMgr* m) { return m->GetDeviceStateInGroup(group_id, idx); });
}

// Deliberately left out of the registration table: Java cannot reach it.
__attribute__((unused)) static jboolean Java_SonvaraNativeMgr_GetDeviceServiceIsPlayInGroup(
    JNIEnv*, jobject, jint group_id, jint idx) {
    return _query_mgr<jboolean>(0, [&](PlurafonMgr* m) {
        return static_cast<jboolean>(m->GetDeviceServiceIsPlayInGroup(group_id, idx) & 0xFF);
    });
}

static jint Java_SonvaraNativeMgr_SetDeviceEnableInGroup(JNIEnv* env, jobject, jint group_id,
                                                         jstring strDeviceInfo,
                                                         jstring strReceiverMac,
                                                         jboolean bIsService) {
    return _call_mgr(env, "SetDeviceEnableInGroup", kCode, {strDeviceInfo, strReceiverMac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->SetDeviceEnableInGroup(group_id, s[0], s[1], _z(bIsService));
                     });
}

static jint Java_SonvaraNativeMgr_DebugPrintGroup(JNIEnv*, jobject) {
    return _query_mgr<jint>(-1, [&](PlurafonMgr* m) { return m->_debug_print_all_group(); });
}

// ---- content ------------------------------------------------------------------

static jint Java_SonvaraNativeMgr_IsContentValid(JNIEnv* env, jobject, jstring strSourceUrl,
                                                 jstring strMime) {
    return _call_mgr(
        env, "IsContentValid", kCode, {strSourceUrl, strMime},
        [&](PlurafonMgr* m, const JStrings& s) { return m->IsContentValidFromMime(s[0], s[1]); });
}

static jint Java_SonvaraNativeMgr_GetContentInfo(JNIEnv* env, jobject, jstring strSourceUrl) {
    return _call_mgr(env, "GetContentInfo", kCode, {strSourceUrl},
                     [&](PlurafonMgr* m, const JStrings& s) { return m->GetContentInfo(s[0]); });
}

static jint Java_SonvaraNativeMgr_GetContentChannel(JNIEnv* env, jobject, jstring strSourceUrl) {
    return _call_mgr(env, "GetContentChannel", kCode, {strSourceUrl},
                     [&](PlurafonMgr* m, const JStrings& s) { return m->GetContentChannel(s[0]); });
}

static jint Java_SonvaraNativeMgr_GetContentSampleRate(JNIEnv* env, jobject, jstring strSourceUrl) {
    return _call_mgr(
        env, "GetContentSampleRate", kCode, {strSourceUrl},
        [&](PlurafonMgr* m, const JStrings& s) { return m->GetContentSampleRate(s[0]); });
}

// ---- search, receivers, this phone ------------------------------------------

static jint Java_SonvaraNativeMgr_SearchDevice(JNIEnv* env, jobject) {
    return _call_mgr(env, "SearchDevice", kCodeSigned, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->SearchDevice(true); });
}

static jint Java_SonvaraNativeMgr_SearchDeviceAsync(JNIEnv* env, jobject, jint search_time) {
    return _call_mgr(
        env, "SearchDeviceAsync", kCodeSigned, {},
        [&](PlurafonMgr* m, const JStrings&) { return m->SearchDeviceAsync(search_time); });
}

static jint Java_SonvaraNativeMgr_ReceiverVolumeControl(JNIEnv* env, jobject, jint group_id,
                                                        jint nReceiverVolumn) {
    return _call_mgr(env, "ReceiverVolumeControl", kCode, {}, [&](PlurafonMgr* m, const JStrings&) {
        return m->ReceiverVolumeControl(group_id, nReceiverVolumn);
    });
}

static jint Java_SonvaraNativeMgr_ReceiverDeviceVolumeControl(JNIEnv* env, jobject, jstring ip,
                                                              jstring mac, jint nReceiverVolumn) {
    return _call_mgr(env, "ReceiverDeviceVolumeControl", kCode, {ip, mac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->ReceiverDeviceVolumeControl(s[0], s[1], nReceiverVolumn);
                     });
}

static jint Java_SonvaraNativeMgr_SetReceiverUITypeAll(JNIEnv* env, jobject, jint group_id,
                                                       jint nUIType) {
    return _call_mgr(env, "SetReceiverUITypeAll", kCode, {}, [&](PlurafonMgr* m, const JStrings&) {
        return m->SetReceiverUITypeAll(group_id, nUIType);
    });
}

static jint Java_SonvaraNativeMgr_SetReceiverUIType(JNIEnv* env, jobject, jstring ip, jstring mac,
                                                    jint nUIType) {
    return _call_mgr(env, "SetReceiverUIType", kCode, {ip, mac},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->SetReceiverUIType(s[0], s[1], nUIType);
                     });
}

static jint Java_SonvaraNativeMgr_AddMyDevice(JNIEnv* env, jobject, jint group_id) {
    return _call_mgr(env, "AddMyDevice", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->AddMyDevice(group_id); });
}

static jint Java_SonvaraNativeMgr_LoadMyDevice(JNIEnv* env, jobject) {
    return _call_mgr(env, "LoadMyDevice", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->LoadMyDevice(); });
}

// Stops every playing group and closes discovery with the lock released
// (their threads' events may call in; they find the groups stopped). A
// second loss reported meanwhile waits for the first; from inside an event
// that the first waits for, it answers 0 at once: the loss is being dealt
// with.
static jint Java_SonvaraNativeMgr_DisconnectedWiFi(JNIEnv*, jobject) {
    MGR_WIFI_LOSS loss;
    return _call_mgr_waiting(
        "DisconnectedWiFi", kCode, &_wifi_closing, 0,
        [&](PlurafonMgr* m) {
            m->DisconnectBegin(&loss);
            return 0;
        },
        [&](PlurafonMgr*) {
            PlurafonMgr::DisconnectWait(&loss);
            return 0;
        },
        [&](PlurafonMgr* m) { m->DisconnectEnd(&loss); });
}

// Opens discovery only after a Wi-Fi loss under way has closed it; from
// inside an event that loss waits for, it is refused.
static jint Java_SonvaraNativeMgr_ConnectedWiFi(JNIEnv* env, jobject) {
    Mutex::Autolock autoLock(&_mgmutex);
    if (!_wait_while_l(&autoLock, &_wifi_closing, "ConnectedWiFi"))
        return ORVELLE_SENDER_ERR_IN_EVENT;
    return _call_mgr(env, "ConnectedWiFi", kCode, {},
                     [&](PlurafonMgr* m, const JStrings&) { return m->ConnectedWiFi(); });
}

// ---- service devices ----------------------------------------------------------

// The IPs of the receivers being served, as a String[]; null without a
// manager. The registry only shrinks outside Java calls (which hold the
// lock), so the count taken first bounds what the list copy writes.
static jobjectArray Java_SonvaraNativeMgr_GetServiceDeviceList(JNIEnv* env, jobject) {
    Mutex::Autolock autoLock(&_mgmutex);
    debug_UI("Java_SonvaraNativeMgr_GetServiceDeviceList+++");
    PlurafonMgr* mgr = glpMgr.load();
    if (mgr == nullptr) return nullptr;

    int n = mgr->ServiceDeviceGetCntList();
    if (n < 0) n = 0;
    char** bufs = static_cast<char**>(calloc(n > 0 ? n : 1, sizeof(char*)));
    bool filled = bufs != nullptr;
    for (int i = 0; filled && i < n; i++) {
        bufs[i] = static_cast<char*>(calloc(1, SERVICE_IP_LEN));
        filled = bufs[i] != nullptr;
    }
    jobjectArray result = nullptr;
    if (filled) {
        mgr->ServiceDeviceGetList(bufs);
        jclass strClass = env->FindClass("java/lang/String");
        jstring empty = env->NewStringUTF("");
        if (strClass != nullptr && empty != nullptr) {
            result = env->NewObjectArray(n, strClass, empty);
        }
        env->ExceptionClear();
        for (int i = 0; result != nullptr && i < n; i++) {
            bufs[i][SERVICE_IP_LEN - 1] = '\0';
            jstring ip = jniNewStringUTF(env, bufs[i]);
            env->SetObjectArrayElement(result, i, ip);
            if (ip != nullptr) env->DeleteLocalRef(ip);
        }
        if (empty != nullptr) env->DeleteLocalRef(empty);
        if (strClass != nullptr) env->DeleteLocalRef(strClass);
    }
    for (int i = 0; bufs != nullptr && i < n; i++) free(bufs[i]);
    free(bufs);
    debug_UI("Java_SonvaraNativeMgr_GetServiceDeviceList---");
    return result;
}

static jint Java_SonvaraNativeMgr_GetServiceGroupIdOfReceiver(JNIEnv* env, jobject,
                                                              jstring strDeviceIP) {
    return _call_mgr(env, "GetServiceGroupIdOfReceiver", kQuery, {strDeviceIP},
                     [&](PlurafonMgr* m, const JStrings& s) {
                         return m->ServiceDeviceGetGroupIdOfReceiver(s[0]);
                     });
}

// ---- known devices by handle ------------------------------------------------

static jint Java_SonvaraNativeMgr_GetDeviceCount(JNIEnv*, jobject) {
    return _query_mgr<jint>(0, [&](PlurafonMgr* m) { return m->GetDeviceCount(); });
}

static jint Java_SonvaraNativeMgr_GetDeviceHandle(JNIEnv*, jobject, jint index) {
    return _query_mgr<jint>(0, [&](PlurafonMgr* m) { return m->GetDeviceHandle(index); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceIp(JNIEnv* env, jobject, jint inst) {
    return _text_query(env, kNullWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceIp(inst); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceMac(JNIEnv* env, jobject, jint inst) {
    return _text_query(env, kNullWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceMac(inst); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceGuid(JNIEnv* env, jobject, jint inst) {
    return _text_query(env, kNullWhenNone, false,
                       [&](PlurafonMgr* m) { return m->GetDeviceGuid(inst); });
}

static jstring Java_SonvaraNativeMgr_GetDeviceName(JNIEnv* env, jobject, jint inst) {
    return _text_query(env, kNullWhenNone, true,
                       [&](PlurafonMgr* m) { return m->GetDeviceName(inst); });
}

static jint Java_SonvaraNativeMgr_GetDeviceReceiverType(JNIEnv*, jobject, jint inst) {
    return _query_mgr<jint>(0, [&](PlurafonMgr* m) { return m->GetDeviceReceiverType(inst); });
}

static jint Java_SonvaraNativeMgr_GetDeviceVolume(JNIEnv*, jobject, jint inst) {
    return _query_mgr<jint>(0, [&](PlurafonMgr* m) { return m->GetDeviceVolume(inst); });
}

// ---- GUID file ------------------------------------------------------------------

static bool _guidrw_ready_l() {
    if (mGuidrw == nullptr) mGuidrw = new (std::nothrow) Guidrw();
    return mGuidrw != nullptr;
}

static jint Java_SonvaraNativeMgr_SaveGuid(JNIEnv* env, jobject, jstring jpath, jstring juuid) {
    debug_UI("SaveGuid+++");
    Mutex::Autolock autoLock(&_mgmutex);
    if (!_guidrw_ready_l()) {
        debug_UI("SaveGuid--- Ret %u", ORVELLE_SENDER_ERR_GUIDRW_ALLOC);
        return ORVELLE_SENDER_ERR_GUIDRW_ALLOC;
    }
    JStrings s(env, {jpath, juuid});
    if (!s.ok()) return ORVELLE_COMMON_ERR_GET_STRING_UTF;
    return mGuidrw->SaveGuid(s[0], s[1]);
}

static jstring Java_SonvaraNativeMgr_LoadGuid(JNIEnv* env, jobject, jstring jpath) {
    debug_UI("LoadGuid+++");
    Mutex::Autolock autoLock(&_mgmutex);
    if (!_guidrw_ready_l()) {
        debug_UI("LoadGuid--- Ret %u", ORVELLE_SENDER_ERR_GUIDRW_ALLOC);
        return nullptr;
    }
    JStrings s(env, {jpath});
    if (!s.ok()) {
        debug_UI("LoadGuid--- Ret %u", ORVELLE_COMMON_ERR_GET_STRING_UTF);
        return nullptr;
    }
    char guid[GUID_BUF_LEN];
    memset(guid, 0, sizeof(guid));
    int ret = mGuidrw->LoadGuid(s[0], guid);
    s.Release();
    guid[GUID_BUF_LEN - 1] = '\0';
    if (ret != 0) {
        debug_UI("LoadGuid--- Ret %d", ret);
        return nullptr;
    }
    debug_UI("load guid from file id: %s +++", guid);
    jstring result = guid[0] != '\0' ? jniNewStringUTF(env, guid) : nullptr;
    debug_UI("LoadGuid---");
    return result;
}

// ---- registration -------------------------------------------------------------

#define NATIVE(name, sig)                                         \
    {                                                             \
        const_cast<char*>(#name), const_cast<char*>(sig),         \
            reinterpret_cast<void*>(Java_SonvaraNativeMgr_##name) \
    }

static const JNINativeMethod gMethods[] = {
    NATIVE(initialize, "(Ljava/lang/String;)I"),
    NATIVE(Finalize, "()I"),
    NATIVE(Open, "(ILjava/lang/String;Ljava/lang/String;Ljava/lang/String;IIIIZ)I"),
    NATIVE(Play, "()I"),
    NATIVE(Pause, "(I)I"),
    NATIVE(Resume, "(I)I"),
    NATIVE(Stop, "(IZ)I"),
    NATIVE(stopPlayer, "(I)I"),
    NATIVE(CreateGroup, "(Ljava/lang/String;)I"),
    NATIVE(AddDevice, "(ILjava/lang/String;Ljava/lang/String;IZ)I"),
    NATIVE(UpdateDeviceChannelType, "(ILjava/lang/String;Ljava/lang/String;I)I"),
    NATIVE(DeleteDevice, "(ILjava/lang/String;Ljava/lang/String;)I"),
    NATIVE(ReceiverIn, "(ILjava/lang/String;Ljava/lang/String;IZ)I"),
    NATIVE(ReceiverOut, "(ILjava/lang/String;Ljava/lang/String;)I"),
    NATIVE(DevicePlay, "(ILjava/lang/String;Ljava/lang/String;II)I"),
    NATIVE(ChangeGroupName, "(ILjava/lang/String;)I"),
    NATIVE(DeleteGroup, "(I)I"),
    NATIVE(SaveGroup, "(Ljava/lang/String;)I"),
    NATIVE(LoadGroup, "(Ljava/lang/String;)I"),
    NATIVE(GetGroupID, "(I)I"),
    NATIVE(GetGroupIDByName, "(Ljava/lang/String;)I"),
    NATIVE(GetGroupName, "(I)Ljava/lang/String;"),
    NATIVE(IsContentValid, "(Ljava/lang/String;Ljava/lang/String;)I"),
    NATIVE(GetContentInfo, "(Ljava/lang/String;)I"),
    NATIVE(GetContentChannel, "(Ljava/lang/String;)I"),
    NATIVE(GetContentSampleRate, "(Ljava/lang/String;)I"),
    NATIVE(SearchDevice, "()I"),
    NATIVE(GetDeviceCountInGroup, "(I)I"),
    NATIVE(GetDeviceIpInGroup, "(II)Ljava/lang/String;"),
    NATIVE(GetDeviceMacInGroup, "(II)Ljava/lang/String;"),
    NATIVE(GetDeviceGuidInGroup, "(II)Ljava/lang/String;"),
    NATIVE(GetDeviceNameInGroup, "(II)Ljava/lang/String;"),
    NATIVE(GetDeviceTypeInGroup, "(II)I"),
    NATIVE(IsDeviceServiceInGroup, "(II)Z"),
    NATIVE(GetDeviceStateInGroup, "(II)I"),
    NATIVE(SetDeviceEnableInGroup, "(ILjava/lang/String;Ljava/lang/String;Z)I"),
    NATIVE(ReceiverVolumeControl, "(II)I"),
    NATIVE(ReceiverDeviceVolumeControl, "(Ljava/lang/String;Ljava/lang/String;I)I"),
    NATIVE(SetReceiverUITypeAll, "(II)I"),
    NATIVE(SetReceiverUIType, "(Ljava/lang/String;Ljava/lang/String;I)I"),
    NATIVE(AddMyDevice, "(I)I"),
    NATIVE(LoadMyDevice, "()I"),
    NATIVE(GetServiceDeviceList, "()[Ljava/lang/String;"),
    NATIVE(GetServiceGroupIdOfReceiver, "(Ljava/lang/String;)I"),
    NATIVE(SearchDeviceAsync, "(I)I"),
    NATIVE(GetDeviceCount, "()I"),
    NATIVE(GetDeviceHandle, "(I)I"),
    NATIVE(GetDeviceIp, "(I)Ljava/lang/String;"),
    NATIVE(GetDeviceMac, "(I)Ljava/lang/String;"),
    NATIVE(GetDeviceGuid, "(I)Ljava/lang/String;"),
    NATIVE(GetDeviceName, "(I)Ljava/lang/String;"),
    NATIVE(GetDeviceReceiverType, "(I)I"),
    NATIVE(GetDeviceVolume, "(I)I"),
    NATIVE(DisconnectedWiFi, "()I"),
    NATIVE(ConnectedWiFi, "()I"),
    NATIVE(DebugPrintGroup, "()I"),
    NATIVE(SaveGuid, "(Ljava/lang/String;Ljava/lang/String;)I"),
    NATIVE(LoadGuid, "(Ljava/lang/String;)Ljava/lang/String;"),
    NATIVE(seekTo, "(II)I"),
};

static_assert(sizeof(gMethods) / sizeof(gMethods[0]) == 59, "the application class has 59 natives");
// Group ids and device handles cross the boundary as jint and live as int.
static_assert(sizeof(jint) == sizeof(int), "a jint holds an int handle and back");

static int registerNatives(JNIEnv* env) {
    jclass clazz = env->FindClass(kClassPathName);
    if (clazz == nullptr) {
        env->ExceptionClear();
        debug_UI("Native registration unable to find class '%s'", kClassPathName);
        return JNI_FALSE;
    }
    jint rc = env->RegisterNatives(clazz, gMethods, sizeof(gMethods) / sizeof(gMethods[0]));
    env->DeleteLocalRef(clazz);
    if (rc < 0) {
        env->ExceptionClear();
        debug_UI("RegisterNatives failed for '%s'", kClassPathName);
        return JNI_FALSE;
    }
    return JNI_TRUE;
}

extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void*) {
    debug_UI("JNI_OnLoad  201304062145");
    JNIEnv* env = jniGetEnv(vm);
    if (env == nullptr) {
        debug_UI("GetEnv failed");
        return -1;
    }
    if (!registerNatives(env)) {
        debug_UI("registerNatives failed");
        return -1;
    }
    gJvm = vm;
    _vm_tid = jniGetTid();
    PlurafonNotify::SetVM(vm, _vm_tid);
    return JNI_VERSION_1_4;
}

extern "C" JNIEXPORT void JNI_OnUnload(JavaVM*, void*) {
    debug_UI("JNI_OnUnload");
}
