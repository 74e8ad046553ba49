// Test-only JNI library for the JVM tests: drives a real PlurafonNotify
// against any Java object, from the calling thread or from a fresh native
// thread, and captures the engine's log lines so tests can read them.
//
// Owns: the notifiers it creates (handed to Java as a jlong, deleted by
// destroy) and the captured log lines. Threads: Java test threads and the
// native threads it starts and joins. Locks: gLogLock (guards gLog).
#include <jni.h>
#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "JniHelper.h"
#include "PlurafonNotify.h"
#include "debug_UI.h"

namespace {

pthread_mutex_t gLogLock = PTHREAD_MUTEX_INITIALIZER;
std::vector<std::string> gLog;  // guarded by gLogLock
JavaVM* gVm = nullptr;
int gLoaderTid = 0;

void captureSink(const char* line, void*) {
    pthread_mutex_lock(&gLogLock);
    gLog.emplace_back(line);
    pthread_mutex_unlock(&gLogLock);
}

PlurafonNotify* fromHandle(jlong h) {
    return reinterpret_cast<PlurafonNotify*>(static_cast<intptr_t>(h));
}

// Every event once, with arguments the Java side checks. The join carries a
// name outside ASCII and outside the basic plane, the volume event a name
// with a malformed byte.
void fireAll(PlurafonNotify* n) {
    char ip[] = "127.0.0.2";
    char mac[] = "02:00:00:00:00:02";
    char guid[] = "guid-0002";
    char name[] =
        "K\xC3\xBC"
        "che \xF0\x9F\x8E\xB5";
    char badName[] =
        "bad\xFF"
        "name";
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

struct FireJob {
    PlurafonNotify* notifier;
    int rounds;
};

void fireRounds(const FireJob* job) {
    for (int i = 0; i < job->rounds; i++) fireAll(job->notifier);
}

void* fireThread(void* arg) {
    fireRounds(static_cast<FireJob*>(arg));
    return nullptr;
}

jlong JNICALL create(JNIEnv* env, jclass, jobject target) {
    PlurafonNotify* n = new PlurafonNotify();
    if (n->SetObjectRef(env, target) != 0) {
        delete n;
        return 0;
    }
    jclass cls = env->GetObjectClass(target);
    n->BindCallbacks(env, cls);
    env->DeleteLocalRef(cls);
    return static_cast<jlong>(reinterpret_cast<intptr_t>(n));
}

void JNICALL fire(JNIEnv*, jclass, jlong h, jboolean onNativeThread, jint rounds) {
    FireJob job = {fromHandle(h), rounds};
    if (!onNativeThread) {
        fireRounds(&job);
        return;
    }
    pthread_t t;
    if (pthread_create(&t, nullptr, fireThread, &job) == 0) pthread_join(t, nullptr);
}

void JNICALL destroy(JNIEnv*, jclass, jlong h) {
    delete fromHandle(h);
}

void JNICALL setVmMissing(JNIEnv*, jclass, jboolean missing) {
    PlurafonNotify::SetVM(missing ? nullptr : gVm, gLoaderTid);
}

void JNICALL captureLog(JNIEnv*, jclass, jboolean on) {
    debug_UI_SetSink(on ? captureSink : nullptr, nullptr);
}

jobjectArray JNICALL takeLog(JNIEnv* env, jclass) {
    std::vector<std::string> lines;
    pthread_mutex_lock(&gLogLock);
    lines.swap(gLog);
    pthread_mutex_unlock(&gLogLock);
    jclass str = env->FindClass("java/lang/String");
    jobjectArray out = env->NewObjectArray(static_cast<jsize>(lines.size()), str, nullptr);
    for (size_t i = 0; out != nullptr && i < lines.size(); i++) {
        jstring s = jniNewStringUTF(env, lines[i].c_str());
        env->SetObjectArrayElement(out, static_cast<jsize>(i), s);
        env->DeleteLocalRef(s);
    }
    env->DeleteLocalRef(str);
    return out;
}

// Raw engine bytes through the bridge's text conversion.
jstring JNICALL engineText(JNIEnv* env, jclass, jbyteArray raw) {
    jsize len = env->GetArrayLength(raw);
    std::string text(static_cast<size_t>(len), '\0');
    env->GetByteArrayRegion(raw, 0, len, reinterpret_cast<jbyte*>(&text[0]));
    return jniNewStringUTF(env, text.c_str());
}

const JNINativeMethod kMethods[] = {
    {const_cast<char*>("create"), const_cast<char*>("(Ljava/lang/Object;)J"),
     reinterpret_cast<void*>(create)},
    {const_cast<char*>("fire"), const_cast<char*>("(JZI)V"), reinterpret_cast<void*>(fire)},
    {const_cast<char*>("destroy"), const_cast<char*>("(J)V"), reinterpret_cast<void*>(destroy)},
    {const_cast<char*>("setVmMissing"), const_cast<char*>("(Z)V"),
     reinterpret_cast<void*>(setVmMissing)},
    {const_cast<char*>("captureLog"), const_cast<char*>("(Z)V"),
     reinterpret_cast<void*>(captureLog)},
    {const_cast<char*>("takeLog"), const_cast<char*>("()[Ljava/lang/String;"),
     reinterpret_cast<void*>(takeLog)},
    {const_cast<char*>("engineText"), const_cast<char*>("([B)Ljava/lang/String;"),
     reinterpret_cast<void*>(engineText)},
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
