#include "qrb_test_raw_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

int BoundSocket(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket");
    sockaddr_in addr = Loopback(0);
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        throw std::runtime_error("bind");
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

}  // namespace

RawTcpPeer::RawTcpPeer(Behaviour behaviour) : m_Behaviour(behaviour) {
    m_ListenFd = BoundSocket(&m_Port);
    if (m_Behaviour == Behaviour::NeverAccept) {
        // A backlog of 0 lets one connection complete; once it waits in the queue, the kernel
        // drops every further handshake, so a client's connect neither succeeds nor fails.
        if (listen(m_ListenFd, 0) != 0) throw std::runtime_error("listen");
        for (int i = 0; i < 2; ++i) {
            int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (filler < 0) throw std::runtime_error("socket");
            sockaddr_in addr = Loopback(m_Port);
            connect(filler, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));  // EINPROGRESS
            m_OpenFds.push_back(filler);
        }
        // Let the first handshake settle into the queue before any client tries.
        usleep(100000);
        return;
    }
    if (listen(m_ListenFd, 64) != 0) throw std::runtime_error("listen");
    m_Acceptor = std::thread([this] { m_AcceptLoop(); });
}

RawTcpPeer::~RawTcpPeer() {
    m_bStop = true;
    if (m_Acceptor.joinable()) m_Acceptor.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        workers.swap(m_Workers);
    }
    for (auto& worker : workers) worker.join();
    for (int fd : m_OpenFds) close(fd);
    if (m_ListenFd >= 0) close(m_ListenFd);
}

std::string RawTcpPeer::Url(const std::string& scheme, const std::string& path) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_Port) + path;
}

bool RawTcpPeer::WaitForAccepted(int n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [&] { return m_Accepted >= n; });
}

void RawTcpPeer::m_AcceptLoop() {
    while (!m_bStop) {
        pollfd p{m_ListenFd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        int fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Accepted;
        m_OpenFds.push_back(fd);
        if (m_Behaviour != Behaviour::Silent) m_Workers.emplace_back([this, fd] { m_Serve(fd); });
        m_Cond.notify_all();
    }
}

bool RawTcpPeer::m_ReadRequestHead(int fd) {
    std::string head;
    char buf[1024];
    for (int waited = 0; waited < 5000 && !m_bStop; waited += 50) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) return false;
        head.append(buf, static_cast<size_t>(n));
        if (head.find("\r\n\r\n") != std::string::npos) return true;
    }
    return false;
}

bool RawTcpPeer::m_SendAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

void RawTcpPeer::m_Serve(int fd) {
    if (!m_ReadRequestHead(fd)) return;
    if (m_Behaviour == Behaviour::DropMidBody) {
        if (!m_SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")) return;
        if (m_SendAll(fd, std::string(1000, 'x'))) m_BodyBytes += 1000;
        // The connection ends here, 99000 bytes short; the descriptor itself is closed with the
        // peer.
        shutdown(fd, SHUT_RDWR);
        return;
    }
    // TrickleBody
    if (!m_SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n")) return;
    while (!m_bStop) {
        if (!m_SendAll(fd, "y")) return;  // the client went away
        ++m_BodyBytes;
        usleep(100000);
    }
}

int UnusedLoopbackPort() {
    int port = -1;
    int fd = BoundSocket(&port);
    close(fd);  // never listened on: a connection there is refused
    return port;
}

}  // namespace qrbtest
