// A process-wide instance of T, made on first use. GetInstance may be called from any thread;
// ReleaseInstance destroys the instance and is for the end of the process (or of a test), when
// no other thread holds the pointer any more. A later GetInstance makes a fresh one.
#ifndef QRB_SINGLETON_H
#define QRB_SINGLETON_H

#include <mutex>

template <typename T>
class CQRBSingleton {
public:
    static T* GetInstance() {
        std::lock_guard<std::mutex> lock(m_Mutex());
        if (m_pInstance() == nullptr) m_pInstance() = new T;  // deleted by ReleaseInstance
        return m_pInstance();
    }

    static void ReleaseInstance() {
        std::lock_guard<std::mutex> lock(m_Mutex());
        delete m_pInstance();
        m_pInstance() = nullptr;
    }

private:
    static std::mutex& m_Mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static T*& m_pInstance() {
        static T* instance = nullptr;
        return instance;
    }
};

#endif
