// A misbehaving TCP peer on 127.0.0.1, on raw sockets so that its faults are exact:
//  - Silent: accepts connections and never reads or writes (hangs a TLS handshake or a response);
//  - DropMidBody: answers 200 declaring 100000 bytes, sends 1000 of them and hangs up;
//  - TrickleBody: answers 200 declaring 1000000 bytes and sends one byte every 100 ms for as
//    long as the client stays;
//  - NeverAccept: its accept queue is already full, so a new connection is never established.
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

    explicit RawTcpPeer(Behaviour behaviour);  // throws std::runtime_error when it cannot listen
    ~RawTcpPeer();

    // "<scheme>://127.0.0.1:<port><path>".
    std::string Url(const std::string& scheme, const std::string& path) const;
    bool WaitForAccepted(int n, std::chrono::milliseconds timeout) const;
    long BodyBytesSent() const { return m_BodyBytes.load(); }  // over all connections

private:
    void m_Serve(int fd);

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

// A socket bound to a free port of 127.0.0.1, not yet listening; throws std::runtime_error.
int BoundLoopbackSocket(int* port);
// A loopback port on which nothing listens (bound, then released).
int UnusedLoopbackPort();

}  // namespace qrbtest

#endif
