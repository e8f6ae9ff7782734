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

    // The one result of request i (a test failure when there is not exactly one).
    RecordedResult One(int i) {
        const auto found = m_Recorder.For(m_Recorder.Tag(i));
        EXPECT_EQ(found.size(), 1u) << "request " << i;
        return found.size() == 1 ? found[0] : qrbtest::MissingResult();
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

// Bodies up to 5 MiB come whole (as given: a 404 or 500 page is a body like any other); a
// larger one is cut at the cap and fails.
TEST_F(QRBThumbHttpVariantTest, BufferRequestsGetTheBodyBytesUpToFiveMiB) {
    LoopbackHttpServer& server = NewServer();
    ServePattern(server);
    server.Http().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such picture", "text/plain");
    });
    server.Http().Get("/broken", [](const httplib::Request&, httplib::Response& res) {
        res.status = 500;
        res.set_content("server trouble", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    const struct {
        std::string path;
        int status;
        std::string body;
    } cases[] = {{"/bytes/70001", 0, PatternBytes(0, 70001)},
                 {"/bytes/5242880", 0, PatternBytes(0, 5242880)},  // exactly 5 MiB
                 {"/bytes/6291456", -1, ""},                       // 6 MiB
                 {"/missing", 0, "no such picture"},
                 {"/broken", 0, "server trouble"}};
    for (int i = 0; i < 5; ++i) RequestBuffer(server.Url(cases[i].path), m_Recorder.Tag(i));
    ASSERT_TRUE(m_Recorder.WaitForCount(5, kWait));
    thumbnail_finalize();
    for (int i = 0; i < 5; ++i) {
        const RecordedResult r = One(i);
        EXPECT_EQ(r.status, cases[i].status) << cases[i].path;
        EXPECT_EQ(r.url, server.Url(cases[i].path));
        EXPECT_EQ(r.bBuffer, cases[i].status == 0 ? 1 : 0) << cases[i].path;
        EXPECT_EQ(r.count, cases[i].status == 0 ? 1 : 0) << cases[i].path;
        EXPECT_EQ(r.sizes[0], static_cast<int>(cases[i].body.size())) << cases[i].path;
        EXPECT_TRUE(r.buffers[0] == cases[i].body) << cases[i].path;
    }
    EXPECT_TRUE(m_Log.Contains("Download file url=" + server.Url("/bytes/70001")));
    EXPECT_TRUE(m_Log.Contains("*********DownloadFileLenth 70001**********"));
    EXPECT_EQ(m_Log.Count("Not Fully Downloaded download size = "), 1);
}

TEST_F(QRBThumbHttpVariantTest, RunsAtMostTenTransfersAtOnce) {
    LoopbackHttpServer& server = NewServer();
    ServeGated(server);
    ASSERT_TRUE(server.Start());
    constexpr int kRequests = 12;
    for (int i = 0; i < kRequests; ++i)
        RequestBuffer(server.Url("/gate/" + std::to_string(i)), m_Recorder.Tag(i));

    // Ten transfers reach the server together and wait there. An eleventh must not start while
    // all ten are still running; a wrong one gets the time of several polling rounds to show.
    ASSERT_TRUE(m_Gate.WaitForStarted(10, kWait));
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
    for (int i = 0; i < kRequests; ++i) EXPECT_EQ(One(i).buffers[0], "gated " + std::to_string(i));
}

// Peers that never complete a handshake (TLS never answered, TCP never established; the total
// time-out far away) are ended by the connect time-out; silent and trickling responses by the
// total one.
TEST_F(QRBThumbHttpVariantTest, TimeoutsEndHangingPeersWithOneFailureEach) {
    // A bundle must be there, or the TLS transfer fails before it even connects.
    qrbtest::TestCertificateAuthority ca;
    WriteCaBundle(ca.CertificatePem());
    for (const bool connectPhase : {true, false}) {
        m_Log.Clear();
        CQRBThumbHttpRequest::SetTimeoutsForTesting(1, connectPhase ? 60 : 2);
        RawTcpPeer first(RawTcpPeer::Behaviour::Silent);
        RawTcpPeer second(connectPhase ? RawTcpPeer::Behaviour::NeverAccept
                                       : RawTcpPeer::Behaviour::TrickleBody);
        const int base = connectPhase ? 0 : 2;
        RequestBuffer(first.Url(connectPhase ? "https" : "http", "/pic.jpg"), m_Recorder.Tag(base));
        RequestBuffer(second.Url("http", "/pic.jpg"), m_Recorder.Tag(base + 1));
        ASSERT_TRUE(m_Recorder.WaitForCount(base + 2, kWait));
        EXPECT_TRUE(first.WaitForAccepted(1, kWait));
        EXPECT_EQ(One(base).status, -1);
        EXPECT_EQ(One(base + 1).status, -1);
        if (!connectPhase) {
            EXPECT_GT(second.BodyBytesSent(), 0) << "the slow body never started";
        }
        EXPECT_EQ(m_Log.Count("transfer failed: result=28 "), 2);
    }
}

// HTTPS is verified against the CA bundle under the root; a plain URL that merely mentions
// https is verified too, which for plain HTTP verifies nothing.
TEST_F(QRBThumbHttpVariantTest, HttpsNeedsTheIssuingCaAndTheRightHost) {
    qrbtest::TestCertificateAuthority ca("right CA");
    qrbtest::TestCertificateAuthority other("other CA");
    LoopbackHttpServer& good = NewTlsServer(ca.Issue("IP:127.0.0.1,DNS:localhost"));
    LoopbackHttpServer& misnamed = NewTlsServer(ca.Issue("DNS:elsewhere.invalid"));
    LoopbackHttpServer& plain = NewServer();
    for (LoopbackHttpServer* server : {&good, &misnamed, &plain}) {
        ServePattern(*server);
        ASSERT_TRUE(server->Start());
    }
    const struct {
        LoopbackHttpServer* server;
        const qrbtest::TestCertificateAuthority* bundle;  // null: none
        int status;
    } cases[] = {{&good, &other, -1},
                 {&good, nullptr, -1},
                 {&misnamed, &ca, -1},
                 {&good, &ca, 0},
                 {&plain, nullptr, 0}};
    for (int i = 0; i < 5; ++i) {
        std::remove(m_Root.Resolve("/opt/down/cert/ca.pem").c_str());
        if (cases[i].bundle != nullptr) WriteCaBundle(cases[i].bundle->CertificatePem());
        const std::string url =
            cases[i].server->Url("/bytes/" + std::to_string(10 + i) + "?next=https://x.invalid/");
        RequestBuffer(url, m_Recorder.Tag(i));
        ASSERT_TRUE(m_Recorder.WaitForCount(i + 1, kWait));
        EXPECT_EQ(One(i).status, cases[i].status) << "case " << i;
        if (cases[i].status == 0) EXPECT_TRUE(One(i).buffers[0] == PatternBytes(0, 10 + i));
    }
    EXPECT_FALSE(m_Log.Contains("It is NOT https,NOT verifies certificate."));
}

TEST_F(QRBThumbHttpVariantTest, BrokenTransfersFailExactlyOnce) {
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";
    RequestBuffer(refused, m_Recorder.Tag(0));
    RequestThumb(refused, m_Recorder.Tag(1));  // a thumbnail request fails in the same way
    ASSERT_TRUE(m_Recorder.WaitForCount(2, kWait));
    thumbnail_finalize();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(One(i).status, -1);
        EXPECT_EQ(One(i).count, 0);
    }
    EXPECT_EQ(m_Log.Count("pThumbItem is NULL"), 2);
    EXPECT_FALSE(m_Log.Contains("downloaded buffer of")) << "a failed download is not decoded";
}

// A peer that closes the connection before the length it declared: what came is logged and
// still delivered. A whole picture under a length 100 bytes too long decodes; a picture cut
// before its frame header fails in the decoder; a buffer request gets the bytes that came.
TEST_F(QRBThumbHttpVariantTest, ShortTransfersAreLoggedAndStillDelivered) {
    qrbtest::JpegSpec spec;
    spec.width = 120;
    spec.height = 60;
    const std::string whole = qrbtest::MakeJpeg(spec);
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

    const RecordedResult decoded = One(0);
    EXPECT_EQ(decoded.status, 0);
    ASSERT_EQ(decoded.buffers[0].size(), 40u * 30u * 4u);
    const auto* p = reinterpret_cast<const unsigned char*>(decoded.buffers[0].data());
    EXPECT_NEAR(p[2], spec.color.r, 12);
    EXPECT_NEAR(p[1], spec.color.g, 12);
    EXPECT_NEAR(p[0], spec.color.b, 12);
    EXPECT_EQ(p[3], 255);
    EXPECT_EQ(One(1).status, 0);
    EXPECT_TRUE(One(1).buffers[0] == whole) << "not the bytes that came";
    EXPECT_EQ(One(2).status, -1);
    EXPECT_TRUE(
        m_Log.Contains("downloaded buffer of 60 bytes, url=" + server.Url("/short/cut.jpg")));
    EXPECT_EQ(One(3).status, 0);
    EXPECT_EQ(One(3).buffers[0], std::string(1000, 'x'));

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
            const auto results = m_Recorder.For(m_Recorder.Tag(i));
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
