// The base of every worker thread: a GLib thread whose start and end are both synchronous.
// Create returns once the new thread runs; Destroy returns once t_Process has returned and the
// thread has been joined. Destroy does not make t_Process leave its loop: a derived class sets
// its own stop flag first. Thread_id() is -1 (all bits set) while there is no thread.
#ifndef QRB_COMMON_THREAD_H
#define QRB_COMMON_THREAD_H

#include "qrb_mutex.h"

#include <glib.h>

#include <atomic>
#include <cstdint>

class CQRBThread {
public:
    CQRBThread();
    virtual void Destroy();
    virtual GThread* Thread_id();
    virtual void* Thread_join();
    virtual ~CQRBThread();
    virtual void t_Process();

    bool Create(const char* name);
    bool FlagCreate() const { return m_bCreated.load(); }

private:
    // A counting semaphore from a mutex, a counter and a condition.
    struct Semaphore {
        CQRBMutex mutex;
        int count = 0;
        CQRBCond cond;
        void Post();
        void Wait();
    };

    static gpointer _Process(gpointer arg);
    // The handle while there is no thread: -1, all bits set.
    static GThread* NoThread() { return reinterpret_cast<GThread*>(~static_cast<uintptr_t>(0)); }

    GThread* m_pThread;
    std::atomic<bool> m_bCreated;
    Semaphore m_Start;
    Semaphore m_End;
};

#endif
