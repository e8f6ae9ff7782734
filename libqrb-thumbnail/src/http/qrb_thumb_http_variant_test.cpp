// The HTTP variant end to end: requests go in through the C interface (kind 11: a picture on an
// SNS device), the decode and download threads move them, and loopback servers that each test
// starts answer (or misbehave).
#include "qrb_thumb_http_request.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_http_imp.h"
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"
#include "qrb_test_tls.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using qrbtest::CallbackRecorder;
using qrbtest::LoopbackHttpServer;
using qrbtest::PatternBytes;
using qrbtest::RawTcpPeer;
using qrbtest::RecordedResult;

// Liveness bound for anything the library should finish: generous, since sanitizer builds are
// slow; a hang fails the test instead of stalling it.
constexpr std::chrono::seconds kWait(15);

// Server-side gate: handlers that pass through it count themselves in and wait for a permit
// (or for the gate to open) before answering.
class Gate {
public:
    void Pass() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        ++m_Started;
        ++m_InFlight;
        if (m_InFlight > m_MaxInFlight) m_MaxInFlight = m_InFlight;
        m_Cond.notify_all();
        // Bounded, so that a broken test never keeps a server thread for ever.
        m_Cond.wait_for(lock, std::chrono::seconds(30), [&] { return m_bOpen || m_Permits > 0; });
        if (!m_bOpen && m_Permits > 0) --m_Permits;
        --m_InFlight;
        m_Cond.notify_all();
    }
    bool WaitForStarted(int n, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, timeout, [&] { return m_Started >= n; });
    }
    void Permit(int n) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Permits += n;
        m_Cond.notify_all();
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bOpen = true;
        m_Cond.notify_all();
    }
    int Started() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Started;
    }
    int MaxInFlight() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_MaxInFlight;
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_Started = 0;
    int m_InFlight = 0;
    int m_MaxInFlight = 0;
    int m_Permits = 0;
    bool m_bOpen = false;
};

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return names;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names.push_back(name);
    }
    closedir(dir);
    return names;
}

// CPU time (user + system) this process has used so far.
std::chrono::microseconds ProcessCpuTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

bool HasThread(const std::string& name) {
    for (const auto& n : ThreadNames()) {
        if (n == name) return true;
    }
    return false;
}

class QRBThumbHttpVariantTest : public ::testing::Test {
protected:
    void TearDown() override {
        m_Gate.Open();
        thumbnail_finalize();
        // Servers go after the library, which may still have had transfers on them.
        m_Servers.clear();
        CQRBThumbHttpRequest::SetTimeoutsForTesting(CQRBThumbHttpRequest::kDefaultConnectTimeoutSec,
                                                    CQRBThumbHttpRequest::kDefaultTotalTimeoutSec);
    }

    // A plain server (or a TLS one presenting identity), not yet started: register handlers,
    // then Start().
    LoopbackHttpServer& NewServer() {
        m_Servers.emplace_back(new LoopbackHttpServer);
        return *m_Servers.back();
    }
    LoopbackHttpServer& NewTlsServer(const qrbtest::TestServerIdentity& identity) {
        m_Servers.emplace_back(new LoopbackHttpServer(identity));
        return *m_Servers.back();
    }

    void ServePattern(LoopbackHttpServer& server) {
        // /bytes/<n>: n pattern bytes, written in 16 KiB chunks.
        server.Http().Get(
            R"(/bytes/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
                const size_t total = std::stoul(req.matches[1]);
                res.set_content_provider(total, "application/octet-stream",
                                         [](size_t offset, size_t length, httplib::DataSink& sink) {
                                             const size_t chunk = std::min<size_t>(length, 16384);
                                             const std::string bytes = PatternBytes(offset, chunk);
                                             return sink.write(bytes.data(), bytes.size());
                                         });
            });
    }

    void ServeGated(LoopbackHttpServer& server) {
        server.Http().Get(R"(/gate/(\d+))",
                          [this](const httplib::Request& req, httplib::Response& res) {
                              m_Gate.Pass();
                              res.set_content("gated " + std::string(req.matches[1]), "text/plain");
                          });
    }

    void RequestBuffer(const std::string& url, void* tag) {
        thumbnail_request_http_buffer_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0, 0, 0,
                                            0, 1, &CallbackRecorder::Callback, tag);
    }
    void RequestThumb(const std::string& url, void* tag, int width = 0, int height = 0,
                      int useCache = 0) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0, width, height,
                                useCache, 1, &CallbackRecorder::Callback, tag);
    }

    CQRBThumbnailHttpImp* HttpVariant() {
        return dynamic_cast<CQRBThumbnailHttpImp*>(
            CQRBThumbnail::GetInstance()->Variant(CQRBThumbnail::SLOT_HTTP));
    }

    // Every result delivered for tag.
    std::vector<RecordedResult> ResultsFor(void* tag) {
        std::vector<RecordedResult> found;
        for (auto& r : m_Recorder.Results()) {
            if (r.user_data == tag) found.push_back(r);
        }
        return found;
    }

    void WriteCaBundle(const std::string& pem) { m_Root.WriteFile("opt/down/cert/ca.pem", pem); }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    Gate m_Gate;
    std::vector<std::unique_ptr<LoopbackHttpServer>> m_Servers;
};

TEST_F(QRBThumbHttpVariantTest, StartsDecodeThreadAndDownloadThread) {
    ASSERT_EQ(thumbnail_init(), 0);
    ASSERT_NE(HttpVariant(), nullptr);
    EXPECT_EQ(m_Log.Count("[Thumbnail Debug:][t_Create]"), 2);
    EXPECT_EQ(m_Log.Count("[bRet = 1]"), 2);
    EXPECT_TRUE(m_Log.WaitFor("[QRB][EST]t_Process begin", kWait));
    EXPECT_TRUE(HasThread("QRBThumbHttpDec"));
    EXPECT_TRUE(HasThread("QRBThumbHttpDL"));

    thumbnail_finalize();
    EXPECT_TRUE(m_Log.Contains("[QRB][EST]t_Process end"));
    EXPECT_FALSE(HasThread("QRBThumbHttpDec"));
    EXPECT_FALSE(HasThread("QRBThumbHttpDL"));
}

TEST_F(QRBThumbHttpVariantTest, BufferRequestGetsTheBodyBytes) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/bytes/70001");

    RequestBuffer(url, m_Recorder.Tag(0));
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    thumbnail_finalize();

    ASSERT_EQ(m_Recorder.Count(), 1u);
    const RecordedResult r = m_Recorder.Results()[0];
    EXPECT_EQ(r.user_data, m_Recorder.Tag(0));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, url);
    EXPECT_EQ(r.bBuffer, 1);
    EXPECT_EQ(r.count, 1);
    EXPECT_EQ(r.sizes[0], 70001);
    EXPECT_TRUE(r.buffers[0] == PatternBytes(0, 70001)) << "body bytes differ";
    EXPECT_TRUE(m_Log.Contains("Download file url=" + url));
    EXPECT_TRUE(m_Log.Contains("*********DownloadFileLenth 70001**********"));
    EXPECT_FALSE(m_Log.Contains("Not Fully Downloaded"));
}

TEST_F(QRBThumbHttpVariantTest, RunsAtMostTenTransfersAtOnce) {
    LoopbackHttpServer& server = NewServer();
    ServeGated(server);
    ASSERT_TRUE(server.Start());

    constexpr int kRequests = 12;
    for (int i = 0; i < kRequests; ++i)
        RequestBuffer(server.Url("/gate/" + std::to_string(i)), m_Recorder.Tag(i));

    // Ten transfers reach the server together and wait there.
    ASSERT_TRUE(m_Gate.WaitForStarted(10, kWait));
    // An eleventh must not start while all ten are still running; give a wrong one the time
    // of several polling rounds to show up.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(m_Gate.Started(), 10);
    EXPECT_EQ(m_Recorder.Count(), 0u);

    // One finishes: exactly one more starts.
    m_Gate.Permit(1);
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    ASSERT_TRUE(m_Gate.WaitForStarted(11, kWait));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(m_Gate.Started(), 11);

    m_Gate.Open();
    ASSERT_TRUE(m_Recorder.WaitForCount(kRequests, kWait));
    thumbnail_finalize();

    EXPECT_EQ(m_Gate.MaxInFlight(), 10);
    EXPECT_EQ(m_Gate.Started(), kRequests);
    for (int i = 0; i < kRequests; ++i) {
        const auto results = ResultsFor(m_Recorder.Tag(i));
        ASSERT_EQ(results.size(), 1u) << "request " << i;
        EXPECT_EQ(results[0].status, 0) << "request " << i;
        EXPECT_EQ(results[0].buffers[0], "gated " + std::to_string(i));
    }
}

TEST_F(QRBThumbHttpVariantTest, CapsBodiesJustAboveFiveMiB) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string big = server.Url("/bytes/6291456");    // 6 MiB
    const std::string atCap = server.Url("/bytes/5242880");  // exactly 5 MiB
    const std::string small = server.Url("/bytes/4194304");  // 4 MiB

    RequestBuffer(big, m_Recorder.Tag(0));
    RequestBuffer(atCap, m_Recorder.Tag(1));
    RequestBuffer(small, m_Recorder.Tag(2));
    ASSERT_TRUE(m_Recorder.WaitForCount(3, kWait));
    thumbnail_finalize();

    const auto over = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(over.size(), 1u);
    EXPECT_EQ(over[0].status, -1);
    EXPECT_EQ(over[0].count, 0);
    EXPECT_EQ(over[0].buffers[0], "");
    EXPECT_TRUE(m_Log.Contains("Not Fully Downloaded download size = "));

    const auto exact = ResultsFor(m_Recorder.Tag(1));
    ASSERT_EQ(exact.size(), 1u);
    EXPECT_EQ(exact[0].status, 0);
    EXPECT_EQ(exact[0].sizes[0], 5242880);
    EXPECT_TRUE(exact[0].buffers[0] == PatternBytes(0, 5242880));

    const auto under = ResultsFor(m_Recorder.Tag(2));
    ASSERT_EQ(under.size(), 1u);
    EXPECT_EQ(under[0].status, 0);
    EXPECT_EQ(under[0].sizes[0], 4194304);
    EXPECT_TRUE(under[0].buffers[0] == PatternBytes(0, 4194304));
}

TEST_F(QRBThumbHttpVariantTest, ConnectTimeoutEndsAPeerThatNeverCompletesTheHandshake) {
    // Total time-out far away: only the connect time-out can end these within the wait.
    CQRBThumbHttpRequest::SetTimeoutsForTesting(1, 60);
    // A bundle must be there, or the TLS transfer fails before it even connects.
    qrbtest::TestCertificateAuthority ca;
    WriteCaBundle(ca.CertificatePem());
    RawTcpPeer silent(RawTcpPeer::Behaviour::Silent);     // TCP accepted, TLS never answered
    RawTcpPeer full(RawTcpPeer::Behaviour::NeverAccept);  // TCP never established
    const std::string tlsUrl = silent.Url("https", "/pic.jpg");
    const std::string tcpUrl = full.Url("http", "/pic.jpg");

    RequestBuffer(tlsUrl, m_Recorder.Tag(0));
    RequestBuffer(tcpUrl, m_Recorder.Tag(1));
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    EXPECT_TRUE(silent.WaitForAccepted(1, kWait));
    thumbnail_finalize();

    for (int i = 0; i < 2; ++i) {
        const auto results = ResultsFor(m_Recorder.Tag(i));
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].status, -1);
    }
    EXPECT_EQ(m_Log.Count("transfer failed: result=28 "), 2);
}

TEST_F(QRBThumbHttpVariantTest, TotalTimeoutEndsSilentAndSlowResponses) {
    CQRBThumbHttpRequest::SetTimeoutsForTesting(1, 2);
    RawTcpPeer silent(RawTcpPeer::Behaviour::Silent);
    RawTcpPeer slow(RawTcpPeer::Behaviour::TrickleBody);

    RequestBuffer(silent.Url("http", "/pic.jpg"), m_Recorder.Tag(0));
    RequestBuffer(slow.Url("http", "/pic.jpg"), m_Recorder.Tag(1));
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    thumbnail_finalize();

    for (int i = 0; i < 2; ++i) {
        const auto results = ResultsFor(m_Recorder.Tag(i));
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].status, -1);
    }
    EXPECT_GT(slow.BodyBytesSent(), 0) << "the slow body never started: not a total time-out";
    EXPECT_EQ(m_Log.Count("transfer failed: result=28 "), 2);
}

TEST_F(QRBThumbHttpVariantTest, HttpsVerifiesThePeerAgainstTheCaBundleUnderTheRoot) {
    qrbtest::TestCertificateAuthority ca;
    WriteCaBundle(ca.CertificatePem());
    LoopbackHttpServer& server = NewTlsServer(ca.Issue("IP:127.0.0.1,DNS:localhost"));
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/bytes/3000");
    ASSERT_EQ(url.rfind("https://", 0), 0u);

    RequestBuffer(url, m_Recorder.Tag(0));
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    thumbnail_finalize();

    const auto results = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, 0);
    EXPECT_TRUE(results[0].buffers[0] == PatternBytes(0, 3000));
    EXPECT_TRUE(m_Log.Contains("It is https,NEED verifies the peer's certificate."));
}

TEST_F(QRBThumbHttpVariantTest, HttpsFailsWithoutTheIssuingCaOrForAnotherHost) {
    qrbtest::TestCertificateAuthority ca("right CA");
    qrbtest::TestCertificateAuthority other("other CA");
    LoopbackHttpServer& good = NewTlsServer(ca.Issue("IP:127.0.0.1"));
    LoopbackHttpServer& misnamed = NewTlsServer(ca.Issue("DNS:elsewhere.invalid"));
    ServePattern(good);
    ServePattern(misnamed);
    ASSERT_TRUE(good.Start());
    ASSERT_TRUE(misnamed.Start());

    // The bundle names another authority.
    WriteCaBundle(other.CertificatePem());
    RequestBuffer(good.Url("/bytes/10"), m_Recorder.Tag(0));
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));

    // No bundle at all.
    ASSERT_EQ(std::remove(m_Root.Resolve("/opt/down/cert/ca.pem").c_str()), 0);
    RequestBuffer(good.Url("/bytes/11"), m_Recorder.Tag(1));
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));

    // The right authority, but the certificate is for another host name.
    WriteCaBundle(ca.CertificatePem());
    RequestBuffer(misnamed.Url("/bytes/12"), m_Recorder.Tag(2));
    ASSERT_TRUE(m_Recorder.WaitForCount(3, kWait));

    // Control: the right authority and the right name.
    RequestBuffer(good.Url("/bytes/13"), m_Recorder.Tag(3));
    ASSERT_TRUE(m_Recorder.WaitForCount(4, kWait));
    thumbnail_finalize();

    for (int i = 0; i < 3; ++i) {
        const auto results = ResultsFor(m_Recorder.Tag(i));
        ASSERT_EQ(results.size(), 1u) << "case " << i;
        EXPECT_EQ(results[0].status, -1) << "case " << i;
    }
    const auto control = ResultsFor(m_Recorder.Tag(3));
    ASSERT_EQ(control.size(), 1u);
    EXPECT_EQ(control[0].status, 0);
    EXPECT_TRUE(control[0].buffers[0] == PatternBytes(0, 13));
}

TEST_F(QRBThumbHttpVariantTest, PlainUrlMentioningHttpsIsTreatedAsHttps) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/bytes/64?next=https://example.invalid/");

    RequestBuffer(url, m_Recorder.Tag(0));
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    thumbnail_finalize();

    // The scheme stays http, so the verification options have nothing to verify.
    const auto results = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, 0);
    EXPECT_TRUE(results[0].buffers[0] == PatternBytes(0, 64));
    EXPECT_TRUE(m_Log.Contains("It is https,NEED verifies the peer's certificate."));
    EXPECT_FALSE(m_Log.Contains("It is NOT https,NOT verifies certificate."));
}

TEST_F(QRBThumbHttpVariantTest, HttpStatusCodesAreNotJudged) {
    LoopbackHttpServer& server = NewServer();
    server.Http().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such picture", "text/plain");
    });
    server.Http().Get("/broken", [](const httplib::Request&, httplib::Response& res) {
        res.status = 500;
        res.set_content("server trouble", "text/plain");
    });
    ASSERT_TRUE(server.Start());

    RequestBuffer(server.Url("/missing"), m_Recorder.Tag(0));
    RequestBuffer(server.Url("/broken"), m_Recorder.Tag(1));
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    thumbnail_finalize();

    const auto missing = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(missing.size(), 1u);
    EXPECT_EQ(missing[0].status, 0);
    EXPECT_EQ(missing[0].bBuffer, 1);
    EXPECT_EQ(missing[0].buffers[0], "no such picture");
    const auto broken = ResultsFor(m_Recorder.Tag(1));
    ASSERT_EQ(broken.size(), 1u);
    EXPECT_EQ(broken[0].status, 0);
    EXPECT_EQ(broken[0].buffers[0], "server trouble");
}

TEST_F(QRBThumbHttpVariantTest, BrokenTransfersFailExactlyOnce) {
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";

    RequestBuffer(refused, m_Recorder.Tag(0));
    RequestThumb(refused, m_Recorder.Tag(1));  // a thumbnail request fails in the same way
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    thumbnail_finalize();

    for (int i = 0; i < 2; ++i) {
        const auto results = ResultsFor(m_Recorder.Tag(i));
        ASSERT_EQ(results.size(), 1u) << "case " << i;
        EXPECT_EQ(results[0].status, -1) << "case " << i;
        EXPECT_EQ(results[0].count, 0) << "case " << i;
    }
    EXPECT_EQ(m_Log.Count("pThumbItem is NULL"), 2);
    // A failed download never reaches the decode thread.
    EXPECT_FALSE(m_Log.Contains("downloaded buffer of"));
}

// A peer that closes the connection before the length it declared: what came is logged and
// still delivered. A whole picture under a length 100 bytes too long decodes; a picture cut
// before its frame header fails in the decoder; a buffer request gets the bytes that came.
TEST_F(QRBThumbHttpVariantTest, ShortTransfersAreLoggedAndStillDelivered) {
    qrbtest::JpegSpec spec;
    spec.width = 120;
    spec.height = 60;
    const std::string whole = qrbtest::MakeJpeg(spec);
    ASSERT_FALSE(whole.empty());
    const std::string cut = whole.substr(0, 60);
    LoopbackHttpServer& server = NewServer();
    // Copies of their own in the handler: the server thread may outlive this scope.
    server.Http().Get(R"(/short/(whole|cut)\.jpg)", [whole, cut](const httplib::Request& req,
                                                                 httplib::Response& res) {
        const std::string body = req.matches[1] == "whole" ? whole : cut;
        // Declared as the whole picture and 100 bytes more; once the body is out, the provider
        // gives up and the server closes the connection.
        res.set_content_provider(whole.size() + 100, "image/jpeg",
                                 [body](size_t offset, size_t length, httplib::DataSink& sink) {
                                     return offset < body.size() &&
                                            sink.write(body.data() + offset,
                                                       std::min(length, body.size() - offset));
                                 });
    });
    ASSERT_TRUE(server.Start());
    RawTcpPeer dropper(RawTcpPeer::Behaviour::DropMidBody);  // 1000 of 100000 bytes

    RequestThumb(server.Url("/short/whole.jpg"), m_Recorder.Tag(0), 40, 30);
    RequestBuffer(server.Url("/short/whole.jpg"), m_Recorder.Tag(1));
    RequestThumb(server.Url("/short/cut.jpg"), m_Recorder.Tag(2), 40, 30);
    RequestBuffer(dropper.Url("http", "/pic.jpg"), m_Recorder.Tag(3));
    ASSERT_TRUE(m_Recorder.WaitForCount(4, kWait));
    thumbnail_finalize();

    const auto decoded = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(decoded.size(), 1u);
    EXPECT_EQ(decoded[0].status, 0);
    EXPECT_EQ(decoded[0].count, 1);
    EXPECT_EQ(decoded[0].width, 40);
    EXPECT_EQ(decoded[0].height, 30);
    ASSERT_EQ(decoded[0].buffers[0].size(), 40u * 30u * 4u);
    const auto* p = reinterpret_cast<const unsigned char*>(decoded[0].buffers[0].data());
    EXPECT_NEAR(p[2], spec.color.r, 12);
    EXPECT_NEAR(p[1], spec.color.g, 12);
    EXPECT_NEAR(p[0], spec.color.b, 12);

    const auto bytes = ResultsFor(m_Recorder.Tag(1));
    ASSERT_EQ(bytes.size(), 1u);
    EXPECT_EQ(bytes[0].status, 0);
    EXPECT_EQ(bytes[0].bBuffer, 1);
    EXPECT_TRUE(bytes[0].buffers[0] == whole) << "not the bytes that came";

    const auto cutResult = ResultsFor(m_Recorder.Tag(2));
    ASSERT_EQ(cutResult.size(), 1u);
    EXPECT_EQ(cutResult[0].status, -1);
    EXPECT_EQ(cutResult[0].count, 0);
    EXPECT_TRUE(
        m_Log.Contains("downloaded buffer of 60 bytes, url=" + server.Url("/short/cut.jpg")));

    const auto dropped = ResultsFor(m_Recorder.Tag(3));
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_EQ(dropped[0].status, 0);
    EXPECT_EQ(dropped[0].buffers[0], std::string(1000, 'x'));
    EXPECT_EQ(dropper.BodyBytesSent(), 1000);

    const std::string shortOf = "*********Not Fully Downloaded download size = ";
    EXPECT_EQ(m_Log.Count(shortOf + std::to_string(whole.size()) + "**********"), 2);
    EXPECT_EQ(m_Log.Count(shortOf + "60**********"), 1);
    EXPECT_EQ(m_Log.Count(shortOf + "1000**********"), 1);
    EXPECT_EQ(m_Log.Count("*********DownloadFileLenth " + std::to_string(whole.size() + 100) +
                          "**********"),
              3);
    EXPECT_FALSE(m_Log.Contains("pThumbItem is NULL"));
    EXPECT_FALSE(m_Log.Contains("transfer failed"));
}

TEST_F(QRBThumbHttpVariantTest, DownloadedBytesReachTheDecodeThread) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/bytes/12345");

    RequestThumb(url, m_Recorder.Tag(0), 64, 48);
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    CQRBThumbnailHttpImp* imp = HttpVariant();
    ASSERT_NE(imp, nullptr);
    EXPECT_EQ(imp->ParkedCount(), 0) << "answered requests keep no bytes";
    thumbnail_finalize();

    // Taken again from ITEM_DOWNLOADED (now ITEM_DECODING_DOWNLOADED) with every byte.
    EXPECT_TRUE(m_Log.Contains("RequestedItem.szURI=" + url +
                               ", RequestedItem.eThumbnailType=11, state=5"));
    EXPECT_TRUE(m_Log.Contains("downloaded buffer of 12345 bytes, url=" + url));
    // The SNS getter wrote the bytes out and the picture decoder refused them: no picture.
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=(nil)"));
    EXPECT_FALSE(m_Log.Contains("no getter for thumbnail type 11"));
    const auto results = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, -1);
    EXPECT_EQ(results[0].bBuffer, 0);
}

TEST_F(QRBThumbHttpVariantTest, DownloadedPictureBecomesAThumbnailOfTheRequestedSize) {
    LoopbackHttpServer& server = NewServer();
    qrbtest::JpegSpec spec;
    spec.width = 120;
    spec.height = 60;
    const std::string jpeg = qrbtest::MakeJpeg(spec);
    ASSERT_FALSE(jpeg.empty());
    // A copy of its own in the handler: the server thread may outlive this scope.
    server.Http().Get("/pic.jpg", [jpeg](const httplib::Request&, httplib::Response& res) {
        res.set_content(jpeg, "image/jpeg");
    });
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/pic.jpg");

    RequestThumb(url, m_Recorder.Tag(0), 40, 30);
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    EXPECT_EQ(HttpVariant()->ParkedCount(), 0);
    thumbnail_finalize();

    EXPECT_TRUE(m_Log.Contains("downloaded buffer of " + std::to_string(jpeg.size()) +
                               " bytes, url=" + url));
    const auto results = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, 0);
    EXPECT_EQ(results[0].bBuffer, 0);
    EXPECT_EQ(results[0].count, 1);
    EXPECT_EQ(results[0].width, 40);
    EXPECT_EQ(results[0].height, 30);
    EXPECT_EQ(results[0].sizes[0], 40 * 30 * 4);
    // A solid picture: every pixel of the thumbnail has its colour (bytes blue, green, red).
    ASSERT_EQ(results[0].buffers[0].size(), 40u * 30u * 4u);
    const auto* p = reinterpret_cast<const unsigned char*>(results[0].buffers[0].data());
    EXPECT_NEAR(p[2], spec.color.r, 12);
    EXPECT_NEAR(p[1], spec.color.g, 12);
    EXPECT_NEAR(p[0], spec.color.b, 12);
    EXPECT_EQ(p[3], 255);
}

TEST_F(QRBThumbHttpVariantTest, DeviceIconKeyedByIdReachesTheDecodeThread) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/bytes/777");

    // Icon kinds other than 0 and 1 are HTTP requests keyed by id, with a null user pointer.
    CQRBThumbnail::GetInstance()->RequestDeviceIcon(url, 31, static_cast<qrb_device_icon_type>(5),
                                                    &CallbackRecorder::Callback, false, false);
    ASSERT_TRUE(m_Log.WaitFor("strURL=" + url + ", decode fail", kWait));
    EXPECT_TRUE(m_Log.Contains("downloaded buffer of 777 bytes, url=" + url));
    EXPECT_EQ(HttpVariant()->ParkedCount(), 0);
    EXPECT_EQ(HttpVariant()->RequestList()->Size(), 0);
}

TEST_F(QRBThumbHttpVariantTest, CachedThumbnailIsServedWithoutDownloading) {
    LoopbackHttpServer& server = NewServer();
    std::atomic<int> hits{0};
    server.Http().Get("/counted", [&hits](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content("not a picture", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    const std::string url = server.Url("/counted");

    const std::string pixels = PatternBytes(0, 2 * 2 * 4);
    unsigned char* buffer =
        static_cast<unsigned char*>(malloc(pixels.size()));  // the image frees it
    ASSERT_NE(buffer, nullptr);
    std::memcpy(buffer, pixels.data(), pixels.size());
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(2, 2, 32, 8, buffer, 0);
    image->SetBufSize(static_cast<long>(pixels.size()));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->SetRID(-1);
    item->SetURL(url);
    item->AddImage(image);
    CQRBThumbnail::GetInstance()->Cache()->Insert(item);

    RequestThumb(url, m_Recorder.Tag(0), 2, 2, /*useCache=*/1);
    ASSERT_TRUE(m_Recorder.WaitForCount(1, kWait));
    // Without the cache flag the same URL is fetched (and fails to decode: it is no picture).
    RequestThumb(url, m_Recorder.Tag(1), 2, 2, /*useCache=*/0);
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    thumbnail_finalize();

    const auto cached = ResultsFor(m_Recorder.Tag(0));
    ASSERT_EQ(cached.size(), 1u);
    EXPECT_EQ(cached[0].status, 0);
    EXPECT_EQ(cached[0].count, 1);
    EXPECT_EQ(cached[0].width, 2);
    EXPECT_EQ(cached[0].height, 2);
    EXPECT_EQ(cached[0].buffers[0], pixels);
    const auto fetched = ResultsFor(m_Recorder.Tag(1));
    ASSERT_EQ(fetched.size(), 1u);
    EXPECT_EQ(fetched[0].status, -1);
    EXPECT_EQ(hits.load(), 1) << "only the request without the cache flag may reach the server";
}

TEST_F(QRBThumbHttpVariantTest, CancelAndClearDropParkedBytes) {
    CQRBThumbnailHttpImp* imp = HttpVariant();
    ASSERT_NE(imp, nullptr);
    // Requests held in ITEM_DOWNLOADING, which neither thread takes, with bytes parked for them
    // as the download thread would.
    auto listed = [&](const std::string& url, long long rid) {
        _stRequestedItem request;
        request.strURL = url;
        request.RID = rid;
        request.eThumbnailType = THUMB_SNS;
        request.state = ITEM_DOWNLOADING;
        request.callback = &CallbackRecorder::Callback;
        request.user_data = m_Recorder.Tag(static_cast<int>(rid < 0 ? url.size() : rid));
        imp->RequestList()->Insert(request);
        imp->Parking()->Park(request, "downloaded " + url);
        return request;
    };
    const auto a = listed("http://127.0.0.1:9/a.jpg", -1);
    const auto b = listed("http://127.0.0.1:9/b.jpg", 77);
    const auto c = listed("http://127.0.0.1:9/cc.jpg", -1);
    const auto d = listed("http://127.0.0.1:9/ddd.jpg", -1);
    ASSERT_EQ(imp->ParkedCount(), 4);
    ASSERT_EQ(imp->RequestList()->Size(), 4);

    thumbnail_request_cancel(a.strURL.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    EXPECT_FALSE(imp->RequestList()->Contains(a));
    EXPECT_EQ(imp->ParkedCount(), 3);
    std::string out;
    EXPECT_FALSE(imp->Parking()->Take(a, &out));

    CQRBThumbnail::GetInstance()->CancelRequest(77LL, THUMB_SNS);
    EXPECT_FALSE(imp->RequestList()->Contains(b));
    EXPECT_EQ(imp->ParkedCount(), 2);

    thumbnail_request_cancel_all();
    EXPECT_EQ(imp->RequestList()->Size(), 0);
    EXPECT_EQ(imp->ParkedCount(), 0);
    EXPECT_FALSE(imp->Parking()->Take(c, &out));
    EXPECT_FALSE(imp->Parking()->Take(d, &out));

    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), 0u);
}

TEST_F(QRBThumbHttpVariantTest, CancelWhileDownloadingDeliversNothing) {
    LoopbackHttpServer& server = NewServer();
    ServeGated(server);
    ASSERT_TRUE(server.Start());
    const std::string thumbUrl = server.Url("/gate/1");
    const std::string bufferUrl = server.Url("/gate/2");

    RequestThumb(thumbUrl, m_Recorder.Tag(0));
    RequestBuffer(bufferUrl, m_Recorder.Tag(1));
    ASSERT_TRUE(m_Gate.WaitForStarted(2, kWait));
    thumbnail_request_cancel(thumbUrl.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    thumbnail_request_cancel(bufferUrl.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    m_Gate.Open();

    // Both transfers run to their end, then find their requests gone.
    ASSERT_TRUE(
        m_Log.WaitFor("request gone while downloading, bytes dropped, url=" + thumbUrl, kWait));
    ASSERT_TRUE(m_Log.WaitFor(
        "result not delivered (request gone or no callback), url=" + bufferUrl, kWait));
    EXPECT_TRUE(m_Log.Contains("Download file url=" + thumbUrl));
    EXPECT_TRUE(m_Log.Contains("Download file url=" + bufferUrl));
    EXPECT_EQ(HttpVariant()->ParkedCount(), 0);
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), 0u);
}

TEST_F(QRBThumbHttpVariantTest, WaitsOnSocketsInsteadOfSpinningWhileTransfersHang) {
    RawTcpPeer silent(RawTcpPeer::Behaviour::Silent);
    RequestBuffer(silent.Url("http", "/hang"), m_Recorder.Tag(0));
    ASSERT_TRUE(silent.WaitForAccepted(1, kWait));

    // A second of a transfer that gets nothing: a loop that spun on the multi handle would
    // burn the whole second; waiting on the socket costs next to nothing.
    const auto cpuBefore = ProcessCpuTime();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long long cpuUsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(ProcessCpuTime() - cpuBefore).count();
    EXPECT_LT(cpuUsedMs, 300) << "CPU milliseconds used during one second of waiting";
    EXPECT_EQ(m_Recorder.Count(), 0u);
}

TEST_F(QRBThumbHttpVariantTest, FinalizeWhileTransfersHangReturnsPromptly) {
    const int fdsBefore = qrbtest::OpenFileDescriptors();
    {
        RawTcpPeer silent(RawTcpPeer::Behaviour::Silent);
        const int threadsBefore = qrbtest::ThreadCount();
        // Default time-outs: these transfers would hang for 20 s.
        for (int i = 0; i < 3; ++i)
            RequestBuffer(silent.Url("http", "/hang/" + std::to_string(i)), m_Recorder.Tag(i));
        RequestThumb(silent.Url("http", "/hang/thumb"), m_Recorder.Tag(3));
        ASSERT_TRUE(silent.WaitForAccepted(4, kWait));

        const auto start = std::chrono::steady_clock::now();
        thumbnail_finalize();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_LT(elapsed, std::chrono::seconds(5)) << "finalize waited for the hanging transfers";

        // Requests still listed when their transfers were stopped are answered once, as failed.
        for (int i = 0; i < 4; ++i) {
            const auto results = ResultsFor(m_Recorder.Tag(i));
            ASSERT_EQ(results.size(), 1u) << "request " << i;
            EXPECT_EQ(results[0].status, -1);
        }
        EXPECT_EQ(m_Log.Count("transfer stopped before its end"), 4);
        EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore);
    }
    // Every socket and handle of the transfers is gone with the service.
    EXPECT_EQ(qrbtest::OpenFileDescriptors(), fdsBefore);
}

}  // namespace
