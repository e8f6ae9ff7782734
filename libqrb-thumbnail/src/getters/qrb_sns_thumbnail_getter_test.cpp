// The two getters that turn downloaded picture bytes into a thumbnail through a temporary file:
// SNS (kind 11, the HTTP variant has downloaded the bytes) and RA (kind 12, the getter downloads
// them itself). One suite runs over both through the C interface against a loopback server;
// then what only RA does: its own download, and its workers sharing one getter.
//
// Pictures are gradients, so that where a crop was taken from shows in the pixels; the expected
// thumbnail is the picture decoder's own raster of the same bytes, cropped around its centre.
#include "qrb_ra_thumbnail_getter.h"
#include "qrb_sns_thumbnail_getter.h"

#include "qrb_failure.h"
#include "qrb_system_path.h"
#include "qrb_thumbnail.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"
#include "qrb_test_tls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>

namespace {

using qrbtest::GradientJpeg;
using qrbtest::LoopbackHttpServer;
using qrbtest::RasterOf;

// /gradient/<w>/<h>: a picture; /missing.jpg: an error page; /empty; /pic.jpg:
// a picture under a 404 status; /bytes/<n>: n pattern bytes.
void Serve(LoopbackHttpServer& server) {
    auto body = [](int status, std::string bytes) {
        return [status, bytes](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(bytes, "image/jpeg");
        };
    };
    server.Http().Get(R"(/gradient/(\d+)/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content(GradientJpeg(std::stoi(req.matches[1]), std::stoi(req.matches[2])), "image/jpeg");
    });
    server.Http().Get("/missing.jpg", body(404, "<html><body><h1>404 Not Found</h1></body></html>"));
    server.Http().Get("/empty", body(200, ""));
    server.Http().Get("/pic.jpg", body(404, GradientJpeg(64, 48)));
    server.Http().Get(R"(/bytes/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content_provider(std::stoul(req.matches[1]), "application/octet-stream",
                                 [](size_t offset, size_t length, httplib::DataSink& sink) {
                                     const std::string bytes =
                                         qrbtest::PatternBytes(offset, std::min<size_t>(length, 16384));
                                     return sink.write(bytes.data(), bytes.size());
                                 });
    });
}

class WebGetterTest : public ::testing::Test {
protected:
    void SetUp() override {
        Serve(m_Server);
        ASSERT_TRUE(m_Server.Start());
    }
    void TearDown() override { thumbnail_finalize(); }

    // The decoder's raster of a w x h gradient asked at reqW x reqH, the way the getters ask,
    // centre-cropped.
    std::string Expected(int w, int h, int reqW, int reqH) {
        const std::string path = m_Root.WriteFile("reference/picture.jpg", GradientJpeg(w, h));
        return qrbtest::CropCentre(qrbtest::DecodePicture("file://" + path, reqW, reqH, false, true),
                                   reqW, reqH)
            .Bytes();
    }
    int DataFiles() const { return m_Root.CountEntries(QRB_DATA_DIR); }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    qrbtest::CallbackRecorder m_Recorder;
    LoopbackHttpServer m_Server;
};

struct WebKind {
    const char* name;
    qrb_media_thumbnail_type kind;
    qrb_extend_dev_type device;
    std::string (*tempName)(int pid, int counter);
    int32_t (*lastFileId)();
    const char* namePrefix;  // of the temporary files, after the data folder
};

void PrintTo(const WebKind& k, std::ostream* os) { *os << k.name; }

class WebPictureGetterTest : public WebGetterTest, public ::testing::WithParamInterface<WebKind> {};

// Cropped around the centre (a 0 request, or one above the decoded size, is not cropped) after
// a trip through a temporary file. An error page and an empty body each fail once; the empty
// body is never written.
TEST_P(WebPictureGetterTest, RequestThroughTheCInterfaceComesBackCroppedOrFailsOnce) {
    ASSERT_EQ(thumbnail_init(), 0);
    const int base = GetParam().lastFileId();
    const struct {
        int picW, picH, reqW, reqH, outW, outH;
    } cases[] = {{128, 64, 32, 32, 32, 32}, {72, 40, 0, 10, 72, 40}, {64, 48, 96, 96, 96, 96}};
    for (const auto& c : cases) {
        const std::string url =
            m_Server.Url("/gradient/" + std::to_string(c.picW) + "/" + std::to_string(c.picH));
        const auto r = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, GetParam().device, c.reqW, c.reqH);
        ASSERT_EQ(r.width, c.outW) << c.reqW << "x" << c.reqH;
        ASSERT_EQ(r.height, c.outH) << c.reqW << "x" << c.reqH;
        EXPECT_TRUE(r.buffers[0] == Expected(c.picW, c.picH, c.reqW, c.reqH)) << c.reqW;
    }
    EXPECT_TRUE(m_Log.Contains("RequestedItem.eThumbnailType=" + std::to_string(GetParam().kind)));
    EXPECT_TRUE(m_Log.Contains("Writing the data to flash ,path is " +
                               GetParam().tempName(getpid(), base + 1) + "."));
    EXPECT_EQ(GetParam().tempName(4321, 7),
              m_Root.Resolve(std::string(QRB_DATA_DIR) + GetParam().namePrefix + "432100007.jpg"));
    m_Log.Clear();
    for (const char* failing : {"/missing.jpg", "/empty"}) {
        EXPECT_EQ(m_Recorder.Request(m_Server.Url(failing), MEDIA_TYPE_PICTURE, GetParam().device, 32, 32)
                      .status,
                  -1)
            << failing;
    }
    EXPECT_EQ(m_Log.Count("Write JPG Buffer Succeed"), 1) << "the empty body is never written";
    EXPECT_EQ(DataFiles(), 0) << "temporary file left behind";
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, WebPictureGetterTest,
    ::testing::Values(WebKind{"Sns", THUMB_SNS, DEV_TYPE_SNS, &CQRBSNSThumbnailGetter::m_TempName,
                              &CQRBSNSThumbnailGetter::m_LastFileID, ""},
                      WebKind{"Ra", THUMB_RA, DEV_TYPE_RA, &CQRBRAThumbnailGetter::m_TempName,
                              &CQRBRAThumbnailGetter::m_LastFileID, "ra"}),
    [](const ::testing::TestParamInfo<WebKind>& info) { return std::string(info.param.name); });

TEST(SnsGetterTest, PathFormYieldsNullEvenForAPictureFile) {
    qrbtest::ScratchRoot root;
    _stExtractInfo info;
    info.strURL = "file://" + root.WriteFile("pictures/a.jpg", GradientJpeg(64, 48));
    info.width = info.height = 32;
    EXPECT_FALSE(CQRBSNSThumbnailGetter().ExtractThumbnail(info));
}

// ---- what only RA does

using RaGetterTest = WebGetterTest;

// The single variant's four workers share one getter: each request keeps its own bytes and its
// own temporary name.
TEST_F(RaGetterTest, ConcurrentRequestsNeverShareANameOrBytes) {
    ASSERT_EQ(thumbnail_init(), 0);
    const int base = CQRBRAThumbnailGetter::m_LastFileID();
    constexpr int kRequests = 12;
    for (int i = 0; i < kRequests; ++i) {
        const std::string url = m_Server.Url("/gradient/" + std::to_string(40 + 8 * (i % 4)) + "/30");
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_RA, 0, 20, 20, 0, 1,
                                &qrbtest::CallbackRecorder::Callback, m_Recorder.Tag(i));
    }
    ASSERT_TRUE(m_Recorder.WaitForCount(kRequests, std::chrono::seconds(60)));
    for (int i = 0; i < kRequests; ++i) {
        const auto r = m_Recorder.For(m_Recorder.Tag(i));
        ASSERT_EQ(r.size(), 1u);
        EXPECT_TRUE(r[0].buffers[0] == Expected(40 + 8 * (i % 4), 30, 20, 20)) << i;
    }
    EXPECT_EQ(CQRBRAThumbnailGetter::m_LastFileID() - base, kRequests);
    EXPECT_EQ(m_Log.Count("Failed to create"), 0);
    EXPECT_EQ(DataFiles(), 0);
}

// Any transfer that completes counts, whatever its status line; certificates and host names are
// not verified; only web URLs are fetched; transfers that break are download errors.
TEST_F(RaGetterTest, OnlyTheTransferItselfIsJudged) {
    CQRBRAThumbnailGetter getter;
    auto extract = [&](const std::string& url) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = info.height = 16;
        return RasterOf(getter.ExtractThumbnail(info)).width;
    };
    EXPECT_EQ(extract(m_Server.Url("/pic.jpg")), 16);
    qrbtest::TestCertificateAuthority ca("nobody trusts me");
    LoopbackHttpServer tls(ca.Issue("DNS:elsewhere.invalid"));
    Serve(tls);
    ASSERT_TRUE(tls.Start());
    EXPECT_EQ(extract(tls.Url("/pic.jpg")), 16);
    EXPECT_FALSE(m_Log.Contains("download error"));
    std::string buffer;
    EXPECT_FALSE(getter.m_DownLoadThumbnail("file://" + m_Root.WriteFile("secret.txt", "local"), &buffer));
    EXPECT_TRUE(buffer.empty());

    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    for (const std::string& url : {dropper.Url("http", "/pic.jpg"),
                                   "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort())}) {
        EXPECT_EQ(extract(url), 0) << url;
        EXPECT_TRUE(m_Log.Contains("download error, url=" + url));
    }
}

// A body larger than the HTTP variant's 5 MiB comes whole; one declared beyond the getter's
// own cap is refused before its body, and a streamed one stops growing once past it.
TEST_F(RaGetterTest, BodyIsBoundedBySafetyCapOnly) {
    CQRBRAThumbnailGetter getter;
    std::string buffer = "stale bytes of an earlier download";
    ASSERT_TRUE(getter.m_DownLoadThumbnail(m_Server.Url("/bytes/7000001"), &buffer));
    EXPECT_TRUE(buffer == qrbtest::PatternBytes(0, 7000001));

    _stExtractInfo info;
    info.strURL = m_Server.Url("/bytes/" + std::to_string(CQRBRAThumbnailGetter::kMaxBodyBytes + 1));
    QRBClearFailure();
    EXPECT_FALSE(getter.ExtractThumbnail(info));
    EXPECT_STREQ(QRBFailureText(), "too large");
    EXPECT_TRUE(m_Log.Contains("download error, url=" + info.strURL));

    const std::string chunk(16384, 'z');
    std::string atCap;
    atCap.reserve(CQRBRAThumbnailGetter::kMaxBodyBytes + chunk.size());
    atCap.assign(CQRBRAThumbnailGetter::kMaxBodyBytes, 'a');
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), chunk.size());
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), 0u);
}

}  // namespace
