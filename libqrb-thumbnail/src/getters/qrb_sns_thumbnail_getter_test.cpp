// The two getters that turn downloaded picture bytes into a thumbnail through a temporary file:
// SNS (kind 11, the HTTP variant has downloaded the bytes) and RA (kind 12, the getter downloads
// them itself). One suite runs over both through the C interface against a loopback server;
// then what only RA does: its own download, and its workers sharing one getter.
//
// Pictures are gradients, so that where a crop was taken from shows in the pixels; the expected
// thumbnail is the picture decoder's own raster of the same bytes, cropped around its centre.
#include "qrb_ra_thumbnail_getter.h"
#include "qrb_sns_thumbnail_getter.h"

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

// /gradient/<w>/<h>: a picture; /missing.jpg: an error page; /empty; /pic.jpg: a picture under
// a 404 status; /padded.jpg: a picture followed by 7 MB of zeros; /endless: a body streamed
// without end; /bytes/<n>: n pattern bytes.
void Serve(LoopbackHttpServer& server) {
    auto body = [](int status, std::string bytes) {
        return [status, bytes](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(bytes, "image/jpeg");
        };
    };
    server.Http().Get(
        R"(/gradient/(\d+)/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(GradientJpeg(std::stoi(req.matches[1]), std::stoi(req.matches[2])),
                            "image/jpeg");
        });
    server.Http().Get("/missing.jpg",
                      body(404, "<html><body><h1>404 Not Found</h1></body></html>"));
    server.Http().Get("/empty", body(200, ""));
    server.Http().Get("/pic.jpg", body(404, GradientJpeg(64, 48)));
    server.Http().Get("/padded.jpg", body(200, GradientJpeg(64, 48) + std::string(7000000, '\0')));
    server.Http().Get("/endless", [](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("image/jpeg", [](size_t, httplib::DataSink& sink) {
            const std::string chunk(1 << 16, 'z');
            return sink.write(chunk.data(), chunk.size());
        });
    });
    qrbtest::ServePatternBytes(server);
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
        return qrbtest::CropCentre(
                   qrbtest::DecodePicture("file://" + path, reqW, reqH, false, true), reqW, reqH)
            .Bytes();
    }

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
// body is never written. Every row goes twice at once: RA's four workers share one getter, and
// each request keeps its own bytes and its own temporary name.
TEST_P(WebPictureGetterTest, RequestsThroughTheCInterfaceComeBackCroppedOrFailOnce) {
    ASSERT_EQ(thumbnail_init(), 0);
    const int base = GetParam().lastFileId();
    const struct {
        std::string path;
        int picW, picH, reqW, reqH, outW, outH;  // outW 0: fails
    } cases[] = {{"/gradient/128/64", 128, 64, 32, 32, 32, 32},
                 {"/gradient/72/40", 72, 40, 0, 10, 72, 40},
                 {"/gradient/64/48", 64, 48, 96, 96, 96, 96},
                 {"/missing.jpg", 0, 0, 32, 32, 0, 0},
                 {"/empty", 0, 0, 32, 32, 0, 0}};
    constexpr int kCases = sizeof(cases) / sizeof(cases[0]);
    for (int i = 0; i < 2 * kCases; ++i) {
        const auto& c = cases[i % kCases];
        thumbnail_request_async(m_Server.Url(c.path).c_str(), MEDIA_TYPE_PICTURE, GetParam().device,
                                0, c.reqW, c.reqH, 0, 1, &qrbtest::CallbackRecorder::Callback,
                                m_Recorder.Tag(i));
    }
    ASSERT_TRUE(m_Recorder.WaitForCount(2 * kCases, std::chrono::seconds(60)));
    for (int i = 0; i < 2 * kCases; ++i) {
        const auto& c = cases[i % kCases];
        const auto r = m_Recorder.For(m_Recorder.Tag(i));
        ASSERT_EQ(r.size(), 1u) << c.path;
        EXPECT_EQ(r[0].status, c.outW ? 0 : -1) << c.path;
        if (c.outW == 0) continue;
        ASSERT_EQ(r[0].width, c.outW) << c.path;
        ASSERT_EQ(r[0].height, c.outH) << c.path;
        EXPECT_TRUE(r[0].buffers[0] == Expected(c.picW, c.picH, c.reqW, c.reqH)) << c.path;
    }
    EXPECT_TRUE(m_Log.Contains("RequestedItem.eThumbnailType=" + std::to_string(GetParam().kind)));
    EXPECT_TRUE(m_Log.Contains("Writing the data to flash ,path is " +
                               GetParam().tempName(getpid(), base + 1) + "."));
    EXPECT_EQ(GetParam().tempName(4321, 7),
              m_Root.Resolve(std::string(QRB_DATA_DIR) + GetParam().namePrefix + "432100007.jpg"));
    EXPECT_EQ(m_Log.Count("Write JPG Buffer Succeed"), 8) << "the empty body is never written";
    EXPECT_EQ(GetParam().lastFileId() - base, 8) << "a name of its own for each written body";
    EXPECT_EQ(m_Root.CountEntries(QRB_DATA_DIR), 0) << "temporary file left behind";
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

// RA downloads for itself: any transfer that completes counts, whatever its status line, and
// its body is not held to the HTTP variant's 5 MiB; certificates and host names are not
// verified. Only web URLs are fetched; transfers that break, and bodies past the getter's own
// safety cap (declared or streamed), are download errors.
TEST_F(WebGetterTest, RaJudgesOnlyTheTransferItself) {
    qrbtest::TestCertificateAuthority ca("nobody trusts me");
    LoopbackHttpServer tls(ca.Issue("DNS:elsewhere.invalid"));
    Serve(tls);
    ASSERT_TRUE(tls.Start());
    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const struct {
        std::string url;
        int width;  // 0: fails
    } cases[] = {
        {m_Server.Url("/pic.jpg"), 16},
        {tls.Url("/pic.jpg"), 16},
        {m_Server.Url("/padded.jpg"), 16},
        {"file://" + m_Root.WriteFile("local.jpg", GradientJpeg(64, 48)), 0},
        {dropper.Url("http", "/pic.jpg"), 0},
        {"http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()), 0},
        {m_Server.Url("/bytes/" + std::to_string(CQRBRAThumbnailGetter::kMaxBodyBytes + 1)), 0},
        {m_Server.Url("/endless"), 0},
    };
    CQRBRAThumbnailGetter getter;
    for (const auto& c : cases) {
        _stExtractInfo info;
        info.strURL = c.url;
        info.width = info.height = 16;
        EXPECT_EQ(RasterOf(getter.ExtractThumbnail(info)).width, c.width) << c.url;
        EXPECT_EQ(m_Log.Contains("download error, url=" + c.url), c.width == 0) << c.url;
    }
}

}  // namespace
