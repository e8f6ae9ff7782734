#include "qrb_test_http_server.h"

#include <algorithm>
#include <chrono>

#if defined(__SANITIZE_THREAD__)
// cpp-httplib comes as an uninstrumented shared library. Its function-local static regular
// expressions are built behind an initialisation guard whose fast path the sanitizer cannot
// see, so their first use from two server threads at once is reported as a race inside the
// library. Only the calls the library itself makes into intercepted functions are ignored;
// handler code of the tests, which runs on the same threads, is still checked.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif

namespace qrbtest {

LoopbackHttpServer::LoopbackHttpServer() : m_Server(new httplib::Server) { m_Configure(); }

LoopbackHttpServer::LoopbackHttpServer(const TestServerIdentity& identity)
    : m_Server(new httplib::SSLServer(identity.cert.get(), identity.key.get())), m_bTls(true) {
    m_Configure();
}

LoopbackHttpServer::~LoopbackHttpServer() { Stop(); }

void LoopbackHttpServer::m_Configure() {
    m_Server->new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    // One request per connection, so that no worker lingers on an idle keep-alive at Stop.
    m_Server->set_keep_alive_max_count(1);
}

bool LoopbackHttpServer::Start() {
    if (!m_Server->is_valid()) return false;
    m_Port = m_Server->bind_to_any_port("127.0.0.1");
    if (m_Port <= 0) return false;
    m_Thread = std::thread([this] { m_Server->listen_after_bind(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_Server->is_running()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void LoopbackHttpServer::Stop() {
    if (!m_Thread.joinable()) return;
    m_Server->stop();
    m_Thread.join();
}

std::string LoopbackHttpServer::Url(const std::string& path) const {
    return std::string(m_bTls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_Port) + path;
}

std::string PatternBytes(size_t offset, size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        const size_t at = offset + i;
        bytes[i] = static_cast<char>((at * 131 + at / 1024) & 0xff);
    }
    return bytes;
}

void ServePatternBytes(LoopbackHttpServer& server) {
    server.Http().Get(R"(/bytes/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content_provider(std::stoul(req.matches[1]), "application/octet-stream",
                                 [](size_t offset, size_t length, httplib::DataSink& sink) {
                                     const std::string bytes =
                                         PatternBytes(offset, std::min<size_t>(length, 16384));
                                     return sink.write(bytes.data(), bytes.size());
                                 });
    });
}

}  // namespace qrbtest
