// What every MTP entry point holds while it talks to libgphoto2.
//
// CMtpCallScope:
//  - the client's one lock. libgphoto2 is not thread-safe (a camera, its port and the shared
//    lists have no locks of their own), so every call into it, and the client's tables, are
//    under this lock;
//  - a UTF-8 character set for this thread only (uselocale). libgphoto2 converts the
//    camera's UTF-16 names to the character set of the current locale, fixed when a camera is
//    opened; under the "C" locale every non-ASCII letter would become "?". A thread locale
//    leaves the application's own setlocale untouched;
//  - SIGPIPE blocked in this thread. libgphoto2 writes to a network camera's sockets with
//    plain write(); once the camera has hung up, that raises SIGPIPE, whose default action
//    ends the process. Blocking it in the calling thread (and discarding the one the call
//    caused, if any) turns it into an EPIPE failure of the write, without changing the
//    process's disposition behind the application's back.
//
// CMtpCallDeadline bounds one call on a networked camera. libgphoto2 reads a PTP/IP camera's
// sockets with blocking read() and no timeout of its own, so a camera that stops answering
// would hold the caller (and, through the lock, every other caller) for ever. While the
// deadline lives, a helper thread waits; if the call has not finished in time, it shuts down
// every socket of this process connected to the camera's address, which makes the blocked
// read return end-of-stream and the call fail. A camera whose sockets were shut down must be
// closed and opened again (Fired() says so).
#ifndef QRB_PLATFORM_MTP_CALL_SCOPE_H
#define QRB_PLATFORM_MTP_CALL_SCOPE_H

#include <locale.h>
#include <netinet/in.h>
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <thread>

class CMtpCallScope {
public:
    explicit CMtpCallScope(std::mutex& lock);
    ~CMtpCallScope();
    CMtpCallScope(const CMtpCallScope&) = delete;
    CMtpCallScope& operator=(const CMtpCallScope&) = delete;

private:
    std::lock_guard<std::mutex> m_Lock;
    locale_t m_OldLocale = nullptr;
    sigset_t m_OldMask;
    bool m_bPipeWasPending = false;
};

class CMtpCallDeadline {
public:
    // A timeout of 0 or less, or a zero address, arms nothing.
    CMtpCallDeadline(const sockaddr_in& peer, int timeoutMs);
    ~CMtpCallDeadline();
    CMtpCallDeadline(const CMtpCallDeadline&) = delete;
    CMtpCallDeadline& operator=(const CMtpCallDeadline&) = delete;

    bool Fired();

    // Shuts down every socket of this process whose peer is addr; the number shut down.
    static int ShutDownSocketsTo(const sockaddr_in& addr);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bDone = false;
    bool m_bFired = false;
    std::thread m_Thread;
};

#endif
