// Test-only JNI library for the JVM tests: drives a real PlurafonNotify
// against any Java object, from the calling thread or from a fresh native
// thread, captures the engine's log lines so tests can read them, and hosts
// emulated receivers inside the test's JVM.
//
// Owns: the receivers it creates (handed to Java as a jlong, deleted by
// rxStop), one notifier for each fire call, and the captured log lines.
// Threads: Java test threads, the native threads it starts and joins, the
// receivers' workers.
// Locks: gLogLock (guards gLog).
#include <jni.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "JniHelper.h"
#include "PlurafonNotify.h"
#include "ReceiverEmulator.h"
#include "debug_UI.h"

namespace {

std::mutex gLogLock;
std::vector<std::string> gLog;  // guarded by gLogLock
JavaVM* gVm = nullptr;
int gLoaderTid = 0;

void captureSink(const char* line, void*) {
    std::lock_guard<std::mutex> hold(gLogLock);
    gLog.emplace_back(line);
}

// Every event once, with arguments the Java side checks. The join carries a
// name outside ASCII and outside the basic plane, the volume event a name
// with a malformed byte.
void fireAll(PlurafonNotify* n) {
    char ip[] = "127.0.0.2";
    char mac[] = "02:00:00:00:00:02";
    char guid[] = "guid-0002";
    char name[] = "K\303\274che \360\237\216\265";
    char badName[] = "bad\377name";
    n->NotifyDeviceInfo(ip, mac, 1, 3);
    n->NotifyJoinDeviceInfo(7, ip, mac, guid, name);
    n->NotifyResetDeviceInfo(7, ip);
    n->NotifyDieDeviceInfo(ip);
    n->NotifyLeaveDeviceInfo(7, ip);
    n->NotifyContentsInfo(2, 44100);
    n->NotifyDeviceInfoByGroupId(7, ip, mac, 2, 3, 1, 1);
    n->NotifyServiceStop(7, 1);
    n->NoitfyDeviceSearchComplete(1);
    n->NoitfyPlayProgress(7, 42);
    n->NoitfyReceiverVolumeChanged(7, ip, mac, guid, badName, 9);
}

// Binds a notifier to target's callback methods as the bridge does, raises
// every event rounds times on the calling thread or on one fresh native
// thread (there, as before the library was loaded, with no VM known if so
// asked), then deletes the notifier, which releases target.
enum FireOn { kCaller = 0, kNativeThread = 1, kNativeThreadNoVm = 2 };

void JNICALL fire(JNIEnv* env, jclass, jobject target, jint on, jint rounds) {
    PlurafonNotify n;
    if (n.SetObjectRef(env, target) != 0) return;
    jclass cls = env->GetObjectClass(target);
    n.BindCallbacks(env, cls);
    env->DeleteLocalRef(cls);
    auto fireRounds = [&n, rounds] {
        for (int i = 0; i < rounds; i++) fireAll(&n);
    };
    if (on == kCaller) {
        fireRounds();
        return;
    }
    if (on == kNativeThreadNoVm) PlurafonNotify::SetVM(nullptr, 0);
    std::thread(fireRounds).join();
    PlurafonNotify::SetVM(gVm, gLoaderTid);
}

void JNICALL captureLog(JNIEnv*, jclass, jboolean on) {
    debug_UI_SetSink(on ? captureSink : nullptr, nullptr);
}

// A Java String[] of the texts, through the bridge's conversion.
jobjectArray stringArray(JNIEnv* env, const std::vector<std::string>& texts) {
    jclass str = env->FindClass("java/lang/String");
    jobjectArray out = env->NewObjectArray(static_cast<jsize>(texts.size()), str, nullptr);
    for (size_t i = 0; out != nullptr && i < texts.size(); i++) {
        jstring s = jniNewStringUTF(env, texts[i].c_str());
        env->SetObjectArrayElement(out, static_cast<jsize>(i), s);
        env->DeleteLocalRef(s);
    }
    env->DeleteLocalRef(str);
    return out;
}

jobjectArray JNICALL takeLog(JNIEnv* env, jclass) {
    std::vector<std::string> lines;
    {
        std::lock_guard<std::mutex> hold(gLogLock);
        lines.swap(gLog);
    }
    return stringArray(env, lines);
}

// Raw engine bytes through the bridge's text conversion.
jstring JNICALL engineText(JNIEnv* env, jclass, jbyteArray raw) {
    jsize len = env->GetArrayLength(raw);
    std::string text(static_cast<size_t>(len), '\0');
    env->GetByteArrayRegion(raw, 0, len, reinterpret_cast<jbyte*>(&text[0]));
    return jniNewStringUTF(env, text.c_str());
}

ReceiverEmulator* rxFromHandle(jlong h) {
    return reinterpret_cast<ReceiverEmulator*>(static_cast<intptr_t>(h));
}

// A receiver on 127.0.0.last with the given name bytes and volume, started;
// 0 if it could not start.
jlong JNICALL rxStart(JNIEnv* env, jclass, jint last, jbyteArray name, jint volume) {
    char address[16];
    snprintf(address, sizeof(address), "127.0.0.%d", static_cast<int>(last & 0xff));
    ReceiverConfig cfg;
    ReceiverConfigDefaults(&cfg, address);
    jsize len = env->GetArrayLength(name);
    if (len > static_cast<jsize>(sizeof(cfg.name)) - 1) len = sizeof(cfg.name) - 1;
    memset(cfg.name, 0, sizeof(cfg.name));
    env->GetByteArrayRegion(name, 0, len, reinterpret_cast<jbyte*>(cfg.name));
    cfg.volume = volume;
    ReceiverEmulator* rx = new ReceiverEmulator(cfg);
    if (rx->Start() != 0) {
        delete rx;
        return 0;
    }
    return static_cast<jlong>(reinterpret_cast<intptr_t>(rx));
}

void JNICALL rxStop(JNIEnv*, jclass, jlong h) {
    delete rxFromHandle(h);
}

// {address, MAC, GUID} of a receiver.
jobjectArray JNICALL rxIdentity(JNIEnv* env, jclass, jlong h) {
    const ReceiverConfig& cfg = rxFromHandle(h)->Config();
    return stringArray(env, {cfg.address, cfg.mac, cfg.guid});
}

jint JNICALL rxSendExit(JNIEnv*, jclass, jlong h) {
    return rxFromHandle(h)->SendExit();
}

jint JNICALL rxSendJoin(JNIEnv*, jclass, jlong h) {
    return static_cast<jint>(rxFromHandle(h)->SendJoin());
}

// The role the START command named ("Front_Left", ...) once n packets have
// arrived; null if they did not within timeoutMs.
jstring JNICALL rxRoleOnceStreaming(JNIEnv* env, jclass, jlong h, jint n, jint timeoutMs) {
    ReceiverEmulator* rx = rxFromHandle(h);
    if (!rx->WaitForPackets(n, timeoutMs)) return nullptr;
    return jniNewStringUTF(env, rx->Report().startRole);
}

jint JNICALL rxSendVolumeChanged(JNIEnv*, jclass, jlong h, jint volume) {
    return rxFromHandle(h)->SendVolumeChanged(volume);
}

// Bytes the C heap has handed out, large blocks the allocator maps on their
// own (hblkhd: ring buffers, the emulators' audio) included; -1 where
// mallinfo2 is missing (off glibc, before glibc 2.33) or under
// AddressSanitizer (its own allocator).
jlong JNICALL nativeHeapBytes(JNIEnv*, jclass) {
#if defined(__SANITIZE_ADDRESS__) || !defined(__GLIBC__) || (__GLIBC__ == 2 && __GLIBC_MINOR__ < 33)
    return -1;
#else
    struct mallinfo2 mi = mallinfo2();
    return static_cast<jlong>(mi.uordblks) + static_cast<jlong>(mi.hblkhd);
#endif
}

#define PROBE_METHOD(name, sig) \
    { const_cast<char*>(#name), const_cast<char*>(sig), reinterpret_cast<void*>(name) }

const JNINativeMethod kMethods[] = {
    PROBE_METHOD(rxStart, "(I[BI)J"),
    PROBE_METHOD(rxStop, "(J)V"),
    PROBE_METHOD(rxIdentity, "(J)[Ljava/lang/String;"),
    PROBE_METHOD(rxSendExit, "(J)I"),
    PROBE_METHOD(rxSendJoin, "(J)I"),
    PROBE_METHOD(rxRoleOnceStreaming, "(JII)Ljava/lang/String;"),
    PROBE_METHOD(rxSendVolumeChanged, "(JI)I"),
    PROBE_METHOD(nativeHeapBytes, "()J"),
    PROBE_METHOD(fire, "(Ljava/lang/Object;II)V"),
    PROBE_METHOD(captureLog, "(Z)V"),
    PROBE_METHOD(takeLog, "()[Ljava/lang/String;"),
    PROBE_METHOD(engineText, "([B)Ljava/lang/String;"),
};

}  // namespace

extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void*) {
    JNIEnv* env = jniGetEnv(vm);
    if (env == nullptr) return -1;
    jclass cls = env->FindClass("com/sonvara/multiroom/test/NotifyProbe");
    if (cls == nullptr) return -1;
    jint rc = env->RegisterNatives(cls, kMethods, sizeof(kMethods) / sizeof(kMethods[0]));
    env->DeleteLocalRef(cls);
    if (rc < 0) return -1;
    gVm = vm;
    gLoaderTid = jniGetTid();
    PlurafonNotify::SetVM(vm, gLoaderTid);
    return JNI_VERSION_1_4;
}
