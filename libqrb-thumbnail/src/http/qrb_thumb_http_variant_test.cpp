// The HTTP variant end to end: requests go in through the C interface (kind 11: a picture on an
// SNS device), the decode and download threads move them, and loopback servers answer (or
// misbehave).
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

// Liveness bound for anything the library should finish: generous, since sanitizer builds are
// slow; a hang fails the test instead of stalling it.
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

// Server-side gate: handlers count themselves in and wait for a permit or for the gate to open
// (bounded, so that a broken test never keeps a server thread for ever).
struct Gate {
    std::mutex mutex;
    std::condition_variable cond;
    int started = 0, permits = 0;
    bool open = false;

    void Pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++started;
        cond.notify_all();
        cond.wait_for(lock, std::chrono::seconds(30), [&] { return open || permits > 0; });
        if (!open && permits > 0) --permits;
    }
    // Waits until n handlers came in; the number that came.
    int WaitForStarted(int n, std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait_for(lock, timeout, [&] { return started >= n; });
        return started;
    }
    void Release(int n, bool all = false) {
        std::lock_guard<std::mutex> lock(mutex);
        permits += n;
        open = open || all;
        cond.notify_all();
    }
};

class QRBThumbHttpVariantTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::ServePatternBytes(m_Server);
        m_Server.Http().Get(
            R"(/gate/(\d+))", [this](const httplib::Request& req, httplib::Response& res) {
                m_Gate.Pass();
                res.set_content("gated " + std::string(req.matches[1]), "text/plain");
            });
        m_Server.Http().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content("no such picture", "text/plain");
        });
        // Peers that redirect (to themselves, to other schemes) or send a compressed body
        // unasked: nothing is followed or inflated.
        for (const auto& [path, to] :
             {std::pair{"/loop", "/loop"}, std::pair{"/to-file", "file:///etc/hostname"},
              std::pair{"/to-ftp", "ftp://127.0.0.1:1/a.jpg"}}) {
            m_Server.Http().Get(
                path, [to = std::string(to)](const httplib::Request&, httplib::Response& res) {
                    res.set_redirect(to);
                });
        }
        m_Server.Http().Get("/bomb.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Content-Encoding", "gzip");
            res.set_content(GzipBomb(), "image/jpeg");
        });
        m_Server.Http().Get("/pic.jpg", [this](const httplib::Request&, httplib::Response& res) {
            ++m_PictureHits;
            res.set_content(qrbtest::GradientJpeg(80, 60), "image/jpeg");
        });
    }
    void TearDown() override {
        m_Gate.Release(0, true);
        thumbnail_finalize();
        CQRBThumbHttpRequest::SetTimeoutsForTesting(CQRBThumbHttpRequest::kDefaultConnectTimeoutSec,
                                                    CQRBThumbHttpRequest::kDefaultTotalTimeoutSec);
    }

    // A URL on the fixture's server, started on first use (the thread count of the finalize
    // test must not see its threads come up).
    std::string Url(const std::string& path) {
        if (m_Server.Port() <= 0) EXPECT_TRUE(m_Server.Start());
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
    // The one result of request i (a test failure when there is not exactly one).
    RecordedResult One(int i) {
        const auto found = m_Recorder.For(m_Recorder.Tag(i));
        EXPECT_EQ(found.size(), 1u) << "request " << i;
        return found.size() == 1 ? found[0] : qrbtest::MissingResult();
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    Gate m_Gate;
    std::atomic<int> m_PictureHits{0};
    LoopbackHttpServer m_Server;
};

// Bodies up to 5 MiB come whole (as given: a 404 page or a redirect is a body like any other,
// a compressed body comes as sent, a body cut short is logged and still delivered); a larger
// one is cut at the cap and fails, as does a refused connection, once. Redirects are not
// followed, to other schemes least of all. As thumbnails, none of them is a picture.
TEST_F(QRBThumbHttpVariantTest, BufferRequestsGetTheBodyBytesUpToFiveMiB) {
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";
    RawTcpPeer dropper(RawTcpPeer::Behaviour::DropMidBody);  // 1000 of 100000 bytes
    const struct {
        std::string url;
        int status;
        std::string body;
    } cases[] = {{Url("/bytes/70001"), 0, PatternBytes(0, 70001)},
                 {Url("/bytes/5242880"), 0, PatternBytes(0, 5242880)},  // exactly 5 MiB
                 {Url("/bytes/6291456"), -1, ""},                       // 6 MiB
                 {Url("/missing"), 0, "no such picture"},
                 {refused, -1, ""},
                 {dropper.Url("http", "/a.jpg"), 0, std::string(1000, 'x')},
                 {Url("/loop"), 0, ""},
                 {Url("/to-file"), 0, ""},
                 {Url("/to-ftp"), 0, ""},
                 {Url("/bomb.jpg"), 0, GzipBomb()}};
    constexpr int kCases = sizeof(cases) / sizeof(cases[0]);
    ASSERT_GT(GzipBomb().size(), 1000u);
    for (int i = 0; i < kCases; ++i) RequestBuffer(cases[i].url, i);
    const std::string notPictures[] = {refused, dropper.Url("http", "/b.jpg"), Url("/to-file"),
                                       Url("/bomb.jpg")};
    for (int i = 0; i < 4; ++i) RequestThumb(notPictures[i], 20 + i);
    ASSERT_TRUE(m_Recorder.WaitForCount(kCases + 4, kWait));
    thumbnail_finalize();
    for (int i = 0; i < kCases; ++i) {
        const RecordedResult r = One(i);
        EXPECT_EQ(r.status, cases[i].status) << cases[i].url;
        EXPECT_EQ(r.bBuffer, cases[i].status == 0 ? 1 : 0) << cases[i].url;
        EXPECT_TRUE(r.buffers[0] == cases[i].body) << cases[i].url;
    }
    for (int i = 20; i < 24; ++i) EXPECT_EQ(One(i).status, -1) << notPictures[i - 20];
    EXPECT_TRUE(m_Log.Contains("*********DownloadFileLenth 70001**********"));
    EXPECT_EQ(m_Log.Count("*********Not Fully Downloaded download size = 1000**********"), 2);
}

// Ten transfers run at once, an eleventh starts only when one ends. Two of the running ten are
// cancelled: they are downloaded to their end and deliver nothing.
TEST_F(QRBThumbHttpVariantTest, RunsAtMostTenTransfersAtOnceAndCancelledOnesDeliverNothing) {
    constexpr int kRequests = 12;
    RequestThumb(Url("/gate/0"), 0);
    for (int i = 1; i < kRequests; ++i) RequestBuffer(Url("/gate/" + std::to_string(i)), i);
    // A wrong eleventh gets the time of several polling rounds to show.
    ASSERT_EQ(m_Gate.WaitForStarted(10), 10);
    EXPECT_EQ(m_Gate.WaitForStarted(11, std::chrono::milliseconds(600)), 10);
    thumbnail_request_cancel(Url("/gate/0").c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    thumbnail_request_cancel(Url("/gate/1").c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
    m_Gate.Release(1);
    ASSERT_EQ(m_Gate.WaitForStarted(11), 11);
    EXPECT_EQ(m_Gate.WaitForStarted(12, std::chrono::milliseconds(300)), 11);
    m_Gate.Release(0, true);
    ASSERT_TRUE(m_Recorder.WaitForCount(kRequests - 2, kWait));
    ASSERT_TRUE(m_Log.WaitFor(
        "request gone while downloading, bytes dropped, url=" + Url("/gate/0"), kWait));
    ASSERT_TRUE(m_Log.WaitFor(
        "result not delivered (request gone or no callback), url=" + Url("/gate/1"), kWait));
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), static_cast<size_t>(kRequests - 2));
    EXPECT_TRUE(m_Recorder.For(m_Recorder.Tag(0)).empty() &&
                m_Recorder.For(m_Recorder.Tag(1)).empty());
    for (int i = 2; i < kRequests; ++i) EXPECT_EQ(One(i).buffers[0], "gated " + std::to_string(i));
}

// Peers that never complete a handshake (TLS never answered, TCP never established; the total
// time-out far away) are ended by the connect time-out; silent and trickling responses by the
// total one. Either way each fails once, long before the test's own wait runs out.
TEST_F(QRBThumbHttpVariantTest, TimeoutsEndHangingPeersWithOneFailureEach) {
    qrbtest::TestCertificateAuthority ca;  // a bundle must be there, or TLS fails before connecting
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
        if (!connectPhase) {
            EXPECT_GT(second.BodyBytesSent(), 0) << "the slow body never started";
        }
    }
}

// HTTPS is verified against the CA bundle under the root; a plain URL that merely mentions
// https is verified too, which for plain HTTP verifies nothing. An expired certificate fails.
TEST_F(QRBThumbHttpVariantTest, HttpsNeedsTheIssuingCaAndTheRightHost) {
    qrbtest::TestCertificateAuthority ca("right CA");
    qrbtest::TestCertificateAuthority other("other CA");
    LoopbackHttpServer good(ca.Issue("IP:127.0.0.1,DNS:localhost"));
    LoopbackHttpServer misnamed(ca.Issue("DNS:elsewhere.invalid"));
    LoopbackHttpServer expired(ca.Issue("IP:127.0.0.1,DNS:localhost", true));
    Url("/");
    for (LoopbackHttpServer* server : {&good, &misnamed, &expired}) {
        qrbtest::ServePatternBytes(*server);
        ASSERT_TRUE(server->Start());
    }
    const struct {
        LoopbackHttpServer* server;
        const qrbtest::TestCertificateAuthority* bundle;  // null: none
        int status;
    } cases[] = {{&good, &other, -1},
                 {&misnamed, &ca, -1},
                 {&expired, &ca, -1},
                 {&good, &ca, 0},
                 {&m_Server, nullptr, 0}};
    for (int i = 0; i < 5; ++i) {
        std::remove(m_Root.Resolve("/opt/down/cert/ca.pem").c_str());
        if (cases[i].bundle)
            m_Root.WriteFile("opt/down/cert/ca.pem", cases[i].bundle->CertificatePem());
        RequestBuffer(
            cases[i].server->Url("/bytes/" + std::to_string(10 + i) + "?next=https://x.invalid/"),
            i);
        ASSERT_TRUE(m_Recorder.WaitForCount(i + 1, kWait));
        EXPECT_EQ(One(i).status, cases[i].status) << "case " << i;
        EXPECT_EQ(One(i).buffers[0], cases[i].status == 0 ? PatternBytes(0, 10 + i) : "")
            << "case " << i;
    }
    EXPECT_FALSE(m_Log.Contains("It is NOT https,NOT verifies certificate."));
}

// A decoded thumbnail is cached for callers that ask for it; one without the cache flag is
// served afresh. Remote device icons (kinds above 1) are HTTP requests keyed by id.
TEST_F(QRBThumbHttpVariantTest, DecodedThumbnailsAreCachedAndDeviceIconsReachTheDecoder) {
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string url = Url("/pic.jpg");
    const auto first = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 20, 20, 1);
    const auto second = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 20, 20, 1);
    EXPECT_EQ(second.status, 0);
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

// Finalize stops hanging transfers (default time-outs: they would hang for 20 s), answers each
// still-listed request once as failed, and leaves no thread or descriptor behind.
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
