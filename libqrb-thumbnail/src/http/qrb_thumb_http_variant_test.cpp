// The HTTP variant end to end: requests through the C interface, loopback servers that answer
// or misbehave.
#include "qrb_thumb_http_request.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"
#include "qrb_test_tls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

namespace {

using qrbtest::CallbackRecorder;
using qrbtest::LoopbackHttpServer;
using qrbtest::PatternBytes;
using qrbtest::RawTcpPeer;
using qrbtest::RecordedResult;

// Liveness bound only (sanitizer builds are slow): a hang fails instead of stalling.
constexpr std::chrono::seconds kWait(15);

// 16 MiB of zeros, compressed by gzip (about 16 KiB): over the 5 MiB cap were it inflated.
const std::string& GzipBomb() {
    static const std::string bomb = [] {
        std::string out(1 << 20, '\0');
        FILE* gzip = popen("head -c 16777216 /dev/zero | gzip -9", "r");
        out.resize(gzip ? fread(&out[0], 1, out.size(), gzip) : 0);
        if (gzip) pclose(gzip);
        return out;
    }();
    return bomb;
}

// Server-side gate: handlers count themselves in and wait (bounded) for a permit; -1: open.
struct Gate {
    std::mutex mutex;
    std::condition_variable cond;
    int started = 0, permits = 0;

    void Pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++started;
        cond.notify_all();
        cond.wait_for(lock, std::chrono::seconds(30), [&] { return permits != 0; });
        permits -= permits > 0;
    }
    // The number of handlers that came in, once n did or the time ran out.
    int WaitForStarted(int n, std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait_for(lock, timeout, [&] { return started >= n; });
        return started;
    }
    void Release(int n) {
        std::lock_guard<std::mutex> lock(mutex);
        permits = n < 0 ? -1 : permits + n;
        cond.notify_all();
    }
};

class QRBThumbHttpVariantTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::ServePatternBytes(m_Server);
        auto& http = m_Server.Http();
        http.Get(R"(/gate/(\d+))", [this](const httplib::Request& req, httplib::Response& res) {
            m_Gate.Pass();
            res.set_content("gated " + std::string(req.matches[1]), "text/plain");
        });
        http.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content("no such picture", "text/plain");
        });
        for (const auto& [path, to] :
             {std::pair{"/loop", "/loop"}, std::pair{"/to-file", "file:///etc/hostname"},
              std::pair{"/to-ftp", "ftp://127.0.0.1:1/a.jpg"}}) {
            http.Get(path, [to = std::string(to)](const httplib::Request&, httplib::Response& res) {
                res.set_redirect(to);
            });
        }
        http.Get("/bomb.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Content-Encoding", "gzip");
            res.set_content(GzipBomb(), "image/jpeg");
        });
        http.Get("/pic.jpg", [this](const httplib::Request&, httplib::Response& res) {
            ++m_PictureHits;
            res.set_content(qrbtest::GradientJpeg(80, 60), "image/jpeg");
        });
    }
    void TearDown() override {
        m_Gate.Release(-1);
        thumbnail_finalize();
        CQRBThumbHttpRequest::SetTimeoutsForTesting(CQRBThumbHttpRequest::kDefaultConnectTimeoutSec,
                                                    CQRBThumbHttpRequest::kDefaultTotalTimeoutSec);
    }

    // Started on first use: the finalize test counts threads.
    std::string Url(const std::string& path) {
        if (m_Server.Port() <= 0) {
            EXPECT_TRUE(m_Server.Start());
        }
        return m_Server.Url(path);
    }
    void RequestBuffer(const std::string& url, int i) {
        thumbnail_request_http_buffer_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0, 0, 0,
                                            0, 1, &CallbackRecorder::Callback, m_Recorder.Tag(i));
    }
    void RequestThumb(const std::string& url, int i) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0, 40, 30, 0, 1,
                                &CallbackRecorder::Callback, m_Recorder.Tag(i));
    }
    RecordedResult One(int i) { return m_Recorder.One(i); }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    Gate m_Gate;
    std::atomic<int> m_PictureHits{0};
    LoopbackHttpServer m_Server;
};

// Bodies up to 5 MiB come as sent (a 404 page, a redirect's empty body, gzip uninflated, a
// body cut short is logged and delivered); a larger one or a refused connection fails once.
// HTTPS is verified against the CA bundle under the root (foreign CA, wrong host, expired:
// fail); a plain URL that mentions https stays plain.
TEST_F(QRBThumbHttpVariantTest, BufferRequestsGetTheBodyBytesUpToFiveMiB) {
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";
    RawTcpPeer dropper(RawTcpPeer::Behaviour::DropMidBody);  // 1000 of 100000 bytes
    qrbtest::TestCertificateAuthority ca("right CA"), other("other CA");
    m_Root.WriteFile("opt/down/cert/ca.pem", ca.CertificatePem());
    LoopbackHttpServer good(ca.Issue("IP:127.0.0.1,DNS:localhost"));
    LoopbackHttpServer foreign(other.Issue("IP:127.0.0.1,DNS:localhost"));
    LoopbackHttpServer misnamed(ca.Issue("DNS:elsewhere.invalid"));
    LoopbackHttpServer expired(ca.Issue("IP:127.0.0.1,DNS:localhost", true));
    for (LoopbackHttpServer* server : {&good, &foreign, &misnamed, &expired}) {
        qrbtest::ServePatternBytes(*server);
        ASSERT_TRUE(server->Start());
    }
    const struct {
        std::string url;
        int status;
        std::string body;
    } cases[] = {{Url("/bytes/70001?next=https://x.invalid/"), 0, PatternBytes(0, 70001)},
                 {Url("/bytes/5242880"), 0, PatternBytes(0, 5242880)},  // exactly 5 MiB
                 {Url("/bytes/6291456"), -1, ""},                       // 6 MiB
                 {Url("/missing"), 0, "no such picture"},
                 {refused, -1, ""},
                 {dropper.Url("http", "/a.jpg"), 0, std::string(1000, 'x')},
                 {Url("/loop"), 0, ""},
                 {Url("/to-file"), 0, ""},
                 {Url("/to-ftp"), 0, ""},
                 {Url("/bomb.jpg"), 0, GzipBomb()},
                 {good.Url("/bytes/10"), 0, PatternBytes(0, 10)},
                 {foreign.Url("/bytes/11"), -1, ""},
                 {misnamed.Url("/bytes/12"), -1, ""},
                 {expired.Url("/bytes/13"), -1, ""}};
    constexpr int kCases = sizeof(cases) / sizeof(cases[0]);
    ASSERT_GT(GzipBomb().size(), 1000u);
    for (int i = 0; i < kCases; ++i) RequestBuffer(cases[i].url, i);
    // As thumbnails, neither is a picture.
    RequestThumb(dropper.Url("http", "/b.jpg"), kCases);
    RequestThumb(Url("/bomb.jpg"), kCases + 1);
    ASSERT_TRUE(m_Recorder.WaitForCount(kCases + 2, kWait));
    thumbnail_finalize();
    for (int i = 0; i < kCases; ++i) {
        const RecordedResult r = One(i);
        EXPECT_EQ(r.status, cases[i].status) << cases[i].url;
        EXPECT_EQ(r.bBuffer, cases[i].status == 0 ? 1 : 0) << cases[i].url;
        EXPECT_TRUE(r.buffers[0] == cases[i].body) << cases[i].url;
    }
    EXPECT_EQ(One(kCases).status + One(kCases + 1).status, -2);
    EXPECT_TRUE(m_Log.Contains("*********DownloadFileLenth 70001**********"));
    EXPECT_EQ(m_Log.Count("*********Not Fully Downloaded download size = 1000**********"), 2);
    EXPECT_EQ(m_Log.Count("It is https,NEED verifies the peer's certificate."), 5);
}

// Ten transfers at once, an eleventh when one ends; cancelled ones run to their end and deliver
// nothing.
TEST_F(QRBThumbHttpVariantTest, RunsAtMostTenTransfersAtOnceAndCancelledOnesDeliverNothing) {
    constexpr int kRequests = 12;
    RequestThumb(Url("/gate/0"), 0);
    for (int i = 1; i < kRequests; ++i) RequestBuffer(Url("/gate/" + std::to_string(i)), i);
    ASSERT_EQ(m_Gate.WaitForStarted(10), 10);
    EXPECT_EQ(m_Gate.WaitForStarted(11, std::chrono::milliseconds(600)), 10);
    thumbnail_request_cancel(Url("/gate/0").c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    thumbnail_request_cancel(Url("/gate/1").c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    m_Gate.Release(1);
    ASSERT_EQ(m_Gate.WaitForStarted(11), 11);
    EXPECT_EQ(m_Gate.WaitForStarted(12, std::chrono::milliseconds(300)), 11);
    m_Gate.Release(-1);
    ASSERT_TRUE(m_Recorder.WaitForCount(kRequests - 2, kWait));
    ASSERT_TRUE(m_Log.WaitFor(
        "request gone while downloading, bytes dropped, url=" + Url("/gate/0"), kWait));
    ASSERT_TRUE(m_Log.WaitFor(
        "result not delivered (request gone or no callback), url=" + Url("/gate/1"), kWait));
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), static_cast<size_t>(kRequests - 2));
    for (int i = 2; i < kRequests; ++i) EXPECT_EQ(One(i).buffers[0], "gated " + std::to_string(i));
}

// Handshakes never completed (TLS, TCP) end at the connect time-out, silent and trickling
// responses at the total one: one failure each.
TEST_F(QRBThumbHttpVariantTest, TimeoutsEndHangingPeersWithOneFailureEach) {
    qrbtest::TestCertificateAuthority ca;  // without a bundle TLS fails before connecting
    m_Root.WriteFile("opt/down/cert/ca.pem", ca.CertificatePem());
    for (const bool connectPhase : {true, false}) {
        CQRBThumbHttpRequest::SetTimeoutsForTesting(1, connectPhase ? 60 : 2);
        RawTcpPeer first(RawTcpPeer::Behaviour::Silent);
        RawTcpPeer second(connectPhase ? RawTcpPeer::Behaviour::NeverAccept
                                       : RawTcpPeer::Behaviour::TrickleBody);
        const int base = connectPhase ? 0 : 2;
        RequestBuffer(first.Url(connectPhase ? "https" : "http", "/pic.jpg"), base);
        RequestBuffer(second.Url("http", "/pic.jpg"), base + 1);
        ASSERT_TRUE(m_Recorder.WaitForCount(base + 2, kWait));
        EXPECT_EQ(One(base).status, -1);
        EXPECT_EQ(One(base + 1).status, -1);
        EXPECT_TRUE(connectPhase || second.BodyBytesSent() > 0) << "the slow body never started";
    }
}

// Decoded thumbnails are cached when asked; remote device icons (type 5) go to the decoder.
TEST_F(QRBThumbHttpVariantTest, DecodedThumbnailsAreCachedAndDeviceIconsReachTheDecoder) {
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string url = Url("/pic.jpg");
    const auto first = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 20, 20, 1);
    const auto second = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 20, 20, 1);
    EXPECT_TRUE(first.buffers[0] == second.buffers[0]);
    EXPECT_EQ(m_PictureHits.load(), 1) << "the second answer should come from the cache";
    EXPECT_EQ(m_Recorder.Request(url, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 20, 20).status, 0);
    EXPECT_EQ(m_PictureHits.load(), 2);

    const std::string icon = Url("/bytes/777");
    CQRBThumbnail::GetInstance()->RequestDeviceIcon(icon, 31, static_cast<qrb_device_icon_type>(5),
                                                    &CallbackRecorder::Callback, false, false);
    ASSERT_TRUE(m_Log.WaitFor("strURL=" + icon + ", decode fail", kWait));
    EXPECT_TRUE(
        m_Log.Contains("RequestedItem.szURI=" + icon + ", RequestedItem.eThumbnailType=11"));
    EXPECT_TRUE(m_Log.Contains("downloaded buffer of 777 bytes, url=" + icon));
}

// Finalize stops hanging transfers, answers each once as failed, leaves no thread or descriptor.
TEST_F(QRBThumbHttpVariantTest, FinalizeWhileTransfersHangReturnsPromptly) {
    const int fdsBefore = qrbtest::OpenFileDescriptors();
    {
        RawTcpPeer silent(RawTcpPeer::Behaviour::Silent);
        const int threadsBefore = qrbtest::ThreadCount();
        for (int i = 0; i < 3; ++i)
            RequestBuffer(silent.Url("http", "/hang/" + std::to_string(i)), i);
        RequestThumb(silent.Url("http", "/hang/thumb"), 3);
        ASSERT_TRUE(silent.WaitForAccepted(4, kWait));
        const auto start = std::chrono::steady_clock::now();
        thumbnail_finalize();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        for (int i = 0; i < 4; ++i) EXPECT_EQ(One(i).status, -1);
        EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore);
    }
    EXPECT_EQ(qrbtest::OpenFileDescriptors(), fdsBefore);
}

}  // namespace
