#define QRB_LOG_TAG "QRB-COMMON"
#include "qrb_thread.h"

#include "qrb_log.h"

void CQRBThread::Semaphore::Post() {
    CQRBAutoLock lock(mutex);
    ++count;
    cond.Signal();
}

void CQRBThread::Semaphore::Wait() {
    CQRBAutoLock lock(mutex);
    while (count < 1) cond.Wait(mutex);
    --count;
}

CQRBThread::CQRBThread() : m_pThread(NoThread()), m_bCreated(false) {}

CQRBThread::~CQRBThread() {
    // A thread still running here would call into a destroyed object; the owner must have
    // stopped it. Joining is the last safe thing to do if it did not.
    if (m_pThread != NoThread()) {
        g_thread_join(m_pThread);
        m_pThread = NoThread();
    }
}

bool CQRBThread::Create(const char* name) {
    if (name == nullptr) return false;
    if (m_pThread != NoThread()) return false;
    GError* error = nullptr;
    GThread* thread = g_thread_try_new(name, &CQRBThread::_Process, this, &error);
    if (thread == nullptr) {
        QRB_LOGW("thread create fail: %d %d %s", error ? static_cast<int>(error->domain) : 0,
                 error ? error->code : 0, error ? error->message : "");
        if (error) g_error_free(error);
        return false;
    }
    if (error) g_error_free(error);
    m_pThread = thread;
    m_bCreated = true;
    m_Start.Wait();
    return true;
}

void CQRBThread::Destroy() {
    if (m_pThread == NoThread()) return;
    m_End.Wait();
    // Joined rather than only unreferenced, so that no thread outlives Destroy.
    g_thread_join(m_pThread);
    m_pThread = NoThread();
    m_bCreated = false;
}

GThread* CQRBThread::Thread_id() { return m_pThread; }

void* CQRBThread::Thread_join() {
    if (m_pThread == NoThread()) return nullptr;
    void* result = g_thread_join(m_pThread);
    m_pThread = NoThread();
    return result;
}

void CQRBThread::t_Process() {}

gpointer CQRBThread::_Process(gpointer arg) {
    if (arg == nullptr) return nullptr;
    CQRBThread* self = static_cast<CQRBThread*>(arg);
    self->m_Start.Post();
    self->t_Process();
    self->m_End.Post();
    return nullptr;
}
