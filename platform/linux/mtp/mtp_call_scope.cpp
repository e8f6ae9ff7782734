#include "mtp_call_scope.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

// The first UTF-8 locale the system has; null when there is none (names then stay ASCII).
// Made once and kept for the life of the process: threads switch to it by reference.
locale_t Utf8Locale() {
    static const locale_t locale = [] {
        for (const char* name : {"C.UTF-8", "C.utf8", "en_US.UTF-8"}) {
            locale_t l = newlocale(LC_CTYPE_MASK, name, static_cast<locale_t>(nullptr));
            if (l != static_cast<locale_t>(nullptr)) return l;
        }
        return static_cast<locale_t>(nullptr);
    }();
    return locale;
}

bool PipePending() {
    sigset_t pending;
    sigemptyset(&pending);
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

CMtpCallScope::CMtpCallScope(std::mutex& lock) : m_Lock(lock) {
    if (locale_t utf8 = Utf8Locale()) m_OldLocale = uselocale(utf8);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &m_OldMask);
    // One that was pending already is the application's business: it is left alone.
    m_bPipeWasPending = PipePending();
}

CMtpCallScope::~CMtpCallScope() {
    if (!m_bPipeWasPending && PipePending()) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        const timespec now{0, 0};
        sigtimedwait(&pipe, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &m_OldMask, nullptr);
    if (m_OldLocale != nullptr) uselocale(m_OldLocale);
}

CMtpCallDeadline::CMtpCallDeadline(const sockaddr_in& peer, int timeoutMs) {
    if (timeoutMs <= 0 || peer.sin_port == 0) return;
    m_Thread = std::thread([this, peer, timeoutMs] {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_Cond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_bDone; }))
            return;
        m_bFired = true;
        ShutDownSocketsTo(peer);
    });
}

CMtpCallDeadline::~CMtpCallDeadline() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bDone = true;
    }
    m_Cond.notify_all();
    if (m_Thread.joinable()) m_Thread.join();
}

bool CMtpCallDeadline::Fired() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_bFired;
}

int CMtpCallDeadline::ShutDownSocketsTo(const sockaddr_in& addr) {
    // The kernel's TCP table names the connections to the camera by socket inode, and this
    // process's descriptor table names each descriptor's inode; neither read touches a
    // descriptor, so descriptors other threads are opening and closing meanwhile are left
    // alone. A descriptor reused between the two reads is shut down only if it, too, is a
    // connection to the camera.
    std::set<std::string> inodes;
    char remote[32];
    std::snprintf(remote, sizeof(remote), "%08X:%04X", static_cast<unsigned>(addr.sin_addr.s_addr),
                  static_cast<unsigned>(ntohs(addr.sin_port)));
    std::ifstream tcp("/proc/self/net/tcp");
    std::string line;
    std::getline(tcp, line);  // the column titles
    while (std::getline(tcp, line)) {
        std::istringstream fields(line);
        std::string slot, local, rem, state, queues, timer, retransmits, uid, timeout, inode;
        if (fields >> slot >> local >> rem >> state >> queues >> timer >> retransmits >> uid >>
                timeout >> inode &&
            rem == remote) {
            inodes.insert("socket:[" + inode + "]");
        }
    }
    if (inodes.empty()) return 0;

    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    int count = 0;
    while (struct dirent* entry = readdir(dir)) {
        char target[64];
        const ssize_t n = readlinkat(dirfd(dir), entry->d_name, target, sizeof(target) - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (inodes.count(target) == 0) continue;
        if (shutdown(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)), SHUT_RDWR) == 0)
            ++count;
    }
    closedir(dir);
    return count;
}
