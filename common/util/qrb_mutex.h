// The one lock wrapper of the library: a GLib mutex (and condition) whose every lock, unlock and
// wait is announced to ThreadSanitizer. GLib implements its mutexes on futexes that the
// sanitizer does not intercept, so without these annotations it would report races on data
// that the mutex in fact protects.
#ifndef QRB_COMMON_MUTEX_H
#define QRB_COMMON_MUTEX_H

#include <glib.h>

#if defined(__SANITIZE_THREAD__)
#define QRB_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QRB_TSAN 1
#endif
#endif

#ifdef QRB_TSAN
#include <sanitizer/tsan_interface.h>
#endif

class CQRBMutex {
public:
    CQRBMutex() {
        g_mutex_init(&m_Mutex);
#ifdef QRB_TSAN
        __tsan_mutex_create(&m_Mutex, 0);
#endif
    }
    ~CQRBMutex() {
#ifdef QRB_TSAN
        __tsan_mutex_destroy(&m_Mutex, 0);
#endif
        g_mutex_clear(&m_Mutex);
    }
    CQRBMutex(const CQRBMutex&) = delete;
    CQRBMutex& operator=(const CQRBMutex&) = delete;

    void Lock() {
#ifdef QRB_TSAN
        __tsan_mutex_pre_lock(&m_Mutex, 0);
#endif
        g_mutex_lock(&m_Mutex);
#ifdef QRB_TSAN
        __tsan_mutex_post_lock(&m_Mutex, 0, 0);
#endif
    }
    void Unlock() {
#ifdef QRB_TSAN
        __tsan_mutex_pre_unlock(&m_Mutex, 0);
#endif
        g_mutex_unlock(&m_Mutex);
#ifdef QRB_TSAN
        __tsan_mutex_post_unlock(&m_Mutex, 0);
#endif
    }

private:
    friend class CQRBCond;
    GMutex m_Mutex;
};

// Holds a CQRBMutex for one scope.
class CQRBAutoLock {
public:
    explicit CQRBAutoLock(CQRBMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~CQRBAutoLock() { m_Mutex.Unlock(); }
    CQRBAutoLock(const CQRBAutoLock&) = delete;
    CQRBAutoLock& operator=(const CQRBAutoLock&) = delete;

private:
    CQRBMutex& m_Mutex;
};

class CQRBCond {
public:
    CQRBCond() { g_cond_init(&m_Cond); }
    ~CQRBCond() { g_cond_clear(&m_Cond); }
    CQRBCond(const CQRBCond&) = delete;
    CQRBCond& operator=(const CQRBCond&) = delete;

    void Signal() { g_cond_signal(&m_Cond); }
    void Broadcast() { g_cond_broadcast(&m_Cond); }

    // The caller holds mutex; it is released while waiting and held again on return.
    void Wait(CQRBMutex& mutex) {
#ifdef QRB_TSAN
        __tsan_mutex_pre_unlock(&mutex.m_Mutex, 0);
        __tsan_mutex_post_unlock(&mutex.m_Mutex, 0);
#endif
        g_cond_wait(&m_Cond, &mutex.m_Mutex);
#ifdef QRB_TSAN
        __tsan_mutex_pre_lock(&mutex.m_Mutex, 0);
        __tsan_mutex_post_lock(&mutex.m_Mutex, 0, 0);
#endif
    }

    // As Wait, but gives up at endTime (g_get_monotonic_time's clock); false when it did.
    bool WaitUntil(CQRBMutex& mutex, gint64 endTime) {
#ifdef QRB_TSAN
        __tsan_mutex_pre_unlock(&mutex.m_Mutex, 0);
        __tsan_mutex_post_unlock(&mutex.m_Mutex, 0);
#endif
        const bool signalled = g_cond_wait_until(&m_Cond, &mutex.m_Mutex, endTime);
#ifdef QRB_TSAN
        __tsan_mutex_pre_lock(&mutex.m_Mutex, 0);
        __tsan_mutex_post_lock(&mutex.m_Mutex, 0, 0);
#endif
        return signalled;
    }

private:
    GCond m_Cond;
};

#endif
