#include "qrb_test_raw_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace qrbtest {

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

bool SendAll(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

}  // namespace

int BoundLoopbackSocket(int* port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = Loopback(0);
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (fd >= 0) close(fd);
        throw std::runtime_error("cannot bind a socket on 127.0.0.1");
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

RawTcpPeer::RawTcpPeer(Behaviour behaviour) : m_Behaviour(behaviour) {
    m_ListenFd = BoundLoopbackSocket(&m_Port);
    const bool full = behaviour == Behaviour::NeverAccept;
    if (listen(m_ListenFd, full ? 0 : 64) != 0) throw std::runtime_error("listen");
    if (!full) {
        // The destructor shuts the listening socket down, which ends the wait in accept.
        m_Acceptor = std::thread([this] {
            for (int fd; (fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_OpenFds.push_back(fd);
                if (m_bStop) break;
                ++m_Accepted;
                if (m_Behaviour != Behaviour::Silent)
                    m_Workers.emplace_back([this, fd] { m_Serve(fd); });
                m_Cond.notify_all();
            }
        });
        return;
    }
    // A backlog of 0 lets one connection complete; once it waits in the queue, the kernel drops
    // every further handshake, so a client's connect neither succeeds nor fails.
    for (int i = 0; i < 2; ++i) {
        m_OpenFds.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_in addr = Loopback(m_Port);
        connect(m_OpenFds.back(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    }
    usleep(100000);  // the first handshake settles into the queue before any client tries
}

RawTcpPeer::~RawTcpPeer() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bStop = true;
        shutdown(m_ListenFd, SHUT_RDWR);
        for (int fd : m_OpenFds) shutdown(fd, SHUT_RDWR);
    }
    if (m_Acceptor.joinable()) m_Acceptor.join();
    for (auto& worker : m_Workers) worker.join();
    for (int fd : m_OpenFds) close(fd);
    close(m_ListenFd);
}

std::string RawTcpPeer::Url(const std::string& scheme, const std::string& path) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_Port) + path;
}

bool RawTcpPeer::WaitForAccepted(int n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [&] { return m_Accepted >= n; });
}

void RawTcpPeer::m_Serve(int fd) {
    std::string head;
    char buf[1024];
    for (ssize_t n = 0; head.find("\r\n\r\n") == std::string::npos; head.append(buf, n)) {
        if ((n = recv(fd, buf, sizeof(buf), 0)) <= 0) return;
    }
    if (m_Behaviour == Behaviour::DropMidBody) {
        if (SendAll(fd,
                    "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(1000, 'x')))
            m_BodyBytes += 1000;
        shutdown(fd, SHUT_RDWR);  // 99000 bytes short; the descriptor is closed with the peer
        return;
    }
    if (!SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n")) return;
    for (; !m_bStop && SendAll(fd, "y"); usleep(100000)) ++m_BodyBytes;
}

int UnusedLoopbackPort() {
    int port = -1;
    close(BoundLoopbackSocket(&port));  // never listened on: a connection there is refused
    return port;
}

}  // namespace qrbtest
