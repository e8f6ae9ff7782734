// A cpp-httplib server on 127.0.0.1 at a port the kernel picks, plain or TLS, serving on its own
// thread. Register handlers through Http() before Start(); handlers that block must be released
// before the server is stopped (Stop joins the worker threads).
#ifndef QRB_TESTING_HTTP_SERVER_H
#define QRB_TESTING_HTTP_SERVER_H

#include "qrb_test_tls.h"

#include <httplib.h>

#include <memory>
#include <string>
#include <thread>

namespace qrbtest {

class LoopbackHttpServer {
public:
    // Enough worker threads for every transfer the download thread may run at once, and more.
    static constexpr size_t kWorkerThreads = 24;

    LoopbackHttpServer();
    // A TLS server presenting identity (copied; the caller may drop its own).
    explicit LoopbackHttpServer(const TestServerIdentity& identity);
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    httplib::Server& Http() { return *m_Server; }
    // Binds and starts serving; false when the server cannot bind or start within 5 s.
    bool Start();
    void Stop();

    int Port() const { return m_Port; }
    // "http://127.0.0.1:<port><path>" ("https://" for a TLS server).
    std::string Url(const std::string& path) const;

private:
    void m_Configure();

    std::unique_ptr<httplib::Server> m_Server;
    std::thread m_Thread;
    int m_Port = -1;
    bool m_bTls = false;
};

// length bytes of a fixed test pattern, starting at offset. The pattern holds every byte value
// (NUL included) and repeats only every 256 KiB, so a body that lost, repeated or shifted a
// smaller chunk compares unequal.
std::string PatternBytes(size_t offset, size_t length);

// Serves /bytes/<n> on server: n pattern bytes from offset 0, written in 16 KiB chunks.
void ServePatternBytes(LoopbackHttpServer& server);

}  // namespace qrbtest

#endif
