// Small JNI helpers shared by the Java bridge (SonvaraNativeMgr_jni) and its
// event notifier (PlurafonNotify): the calling thread's kernel id, thread
// attachment that compiles against both the Android and the desktop jni.h,
// and a NewStringUTF that never hands the VM malformed text.
//
// Allocates nothing on the heap; any thread may call these; no locks.
#ifndef JNIHELPER_H
#define JNIHELPER_H

#include <jni.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

// Kernel thread id of the caller (bionic and glibc alike).
inline int jniGetTid() {
    return static_cast<int>(syscall(SYS_gettid));
}

inline JNIEnv* jniGetEnv(JavaVM* vm) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_4) != JNI_OK) return nullptr;
    return env;
}

// Attaches the calling thread (no name, no group); null on failure.
inline JNIEnv* jniAttachCurrentThread(JavaVM* vm) {
    JNIEnv* env = nullptr;
#ifdef __ANDROID__
    jint rc = vm->AttachCurrentThread(&env, nullptr);
#else
    jint rc = vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
#endif
    return rc == JNI_OK ? env : nullptr;
}

// The calling thread's env for one call into Java: its own when the VM knows
// the thread (the loading thread, or a Java thread calling back on its own
// stack), else the thread is attached and *attached says the caller must
// detach it afterwards. Null when neither works.
inline JNIEnv* jniEnvForCall(JavaVM* vm, bool* attached) {
    JNIEnv* env = jniGetEnv(vm);
    *attached = env == nullptr;
    return env != nullptr ? env : jniAttachCurrentThread(vm);
}

// Rewrites UTF-8 text into the VM's modified UTF-8: characters outside the
// basic plane become surrogate pairs and every byte that does not start a
// well-formed sequence becomes '?'. Receiver names and the like come from the
// network, and a checking VM aborts the process on malformed NewStringUTF
// input. The result is cut at a character boundary to fit cap-1 bytes.
inline void jniToModifiedUtf8(const char* in, char* out, size_t cap) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(in);
    size_t o = 0;
    while (*s != 0) {
        unsigned char b = s[0];
        size_t len = 1;
        unsigned long cp = 0;
        if (b < 0x80) {
            cp = b;
        } else if (b >= 0xC2 && b <= 0xDF) {
            len = 2;
            cp = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            len = 3;
            cp = b & 0x0F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            len = 4;
            cp = b & 0x07;
        } else {
            len = 0;
        }
        for (size_t i = 1; i < len; i++) {
            if ((s[i] & 0xC0) != 0x80) {
                len = 0;
                break;
            }
            cp = (cp << 6) | (s[i] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))) len = 0;

        unsigned char enc[6];
        size_t n = 0;
        if (len == 0) {
            enc[n++] = '?';
            len = 1;
        } else if (len < 4) {
            for (size_t i = 0; i < len; i++) enc[n++] = s[i];
        } else {
            unsigned long v = cp - 0x10000;
            unsigned long units[2] = {0xD800 + (v >> 10), 0xDC00 + (v & 0x3FF)};
            for (unsigned long u : units) {
                enc[n++] = static_cast<unsigned char>(0xE0 | (u >> 12));
                enc[n++] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
                enc[n++] = static_cast<unsigned char>(0x80 | (u & 0x3F));
            }
        }
        if (o + n > cap - 1) break;
        for (size_t i = 0; i < n; i++) out[o++] = static_cast<char>(enc[i]);
        s += len;
    }
    out[o] = '\0';
}

// NewStringUTF for engine text (at most a few hundred bytes; longer text is
// cut). Null text gives a null reference, as NewStringUTF(NULL) does.
inline jstring jniNewStringUTF(JNIEnv* env, const char* text) {
    if (text == nullptr) return nullptr;
    char buf[1024];
    jniToModifiedUtf8(text, buf, sizeof(buf));
    return env->NewStringUTF(buf);
}

#endif
