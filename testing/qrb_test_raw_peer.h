// A misbehaving TCP peer on 127.0.0.1, written on raw sockets so that its faults are exact:
//  - Silent: accepts connections and never reads or writes (hangs a TLS handshake or an HTTP
//    response);
//  - DropMidBody: reads the request, answers 200 with a declared length of 100000 bytes, sends
//    1000 of them and closes the connection;
//  - TrickleBody: answers 200 with a declared length of 1000000 bytes and sends one byte every
//    100 ms for as long as the client stays;
//  - NeverAccept: a listening socket whose accept queue is already full, so that a new
//    connection is never established (the peer's kernel drops the handshake).
// Everything is closed and joined by the destructor.
#ifndef QRB_TESTING_RAW_PEER_H
#define QRB_TESTING_RAW_PEER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qrbtest {

class RawTcpPeer {
public:
    enum class Behaviour { Silent, DropMidBody, TrickleBody, NeverAccept };

    // Throws std::runtime_error when the socket cannot be set up.
    explicit RawTcpPeer(Behaviour behaviour);
    ~RawTcpPeer();
    RawTcpPeer(const RawTcpPeer&) = delete;
    RawTcpPeer& operator=(const RawTcpPeer&) = delete;

    // "<scheme>://127.0.0.1:<port><path>".
    std::string Url(const std::string& scheme, const std::string& path) const;

    bool WaitForAccepted(int n, std::chrono::milliseconds timeout) const;
    // Body bytes written so far, over all connections.
    long BodyBytesSent() const { return m_BodyBytes.load(); }

private:
    void m_AcceptLoop();
    void m_Serve(int fd);
    bool m_ReadRequestHead(int fd);
    bool m_SendAll(int fd, const std::string& bytes);

    Behaviour m_Behaviour;
    int m_ListenFd = -1;
    int m_Port = -1;
    std::atomic<bool> m_bStop{false};
    std::atomic<long> m_BodyBytes{0};
    std::thread m_Acceptor;

    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Cond;
    int m_Accepted = 0;
    std::vector<int> m_OpenFds;  // connections (and queue fillers) closed by the destructor
    std::vector<std::thread> m_Workers;
};

// A loopback port on which nothing listens (bound, then released).
int UnusedLoopbackPort();

}  // namespace qrbtest

#endif
