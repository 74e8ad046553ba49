// The Java bridge's process-wide lock and its scoped holder.
//
// Owns: one pthread mutex (mMutex), made when the object is constructed and
// destroyed with it; the bridge keeps one as a static object, so the
// library's load makes it and its unload ends it.
// The mutex is recursive: an event raised on a calling Java thread's own
// stack may reach the application's listener, which may call back in; that
// thread takes the lock again instead of waiting for itself.
// Mutex::Autolock holds it for one scope. unlock() and lock() release and
// retake this holder's own take part-way (a wait done without the lock); a
// holder from an outer frame keeps the mutex throughout.
// Threads: any.
#ifndef SONVARA_MUTEX_H
#define SONVARA_MUTEX_H

#include <pthread.h>

class Mutex {
public:
    Mutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mMutex, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~Mutex() { pthread_mutex_destroy(&mMutex); }
    // 0 when taken (or released), an error number otherwise.
    int lock() { return pthread_mutex_lock(&mMutex); }
    int unlock() { return pthread_mutex_unlock(&mMutex); }
    int tryLock() { return pthread_mutex_trylock(&mMutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // A null mutex is neither taken nor released (a call that takes no lock).
    class Autolock {
    public:
        explicit Autolock(Mutex* m) : m_mutex(m), m_held(false) { lock(); }
        ~Autolock() { unlock(); }
        void unlock() {
            if (m_held) m_mutex->unlock();
            m_held = false;
        }
        void lock() {
            if (!m_held && m_mutex != nullptr) m_held = m_mutex->lock() == 0;
        }
        Autolock(const Autolock&) = delete;
        Autolock& operator=(const Autolock&) = delete;

    private:
        Mutex* m_mutex;
        bool m_held;
    };

private:
    pthread_mutex_t mMutex;
};

#endif
