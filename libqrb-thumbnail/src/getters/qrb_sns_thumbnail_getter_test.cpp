// The getters that decode downloaded bytes through a temporary file: SNS (the HTTP variant
// downloads) and RA (downloads itself), through the C interface against a loopback server.
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
#include <cstdio>
#include <string>

namespace {

using qrbtest::LoopbackHttpServer;
using qrbtest::QuadrantJpeg;

// /pic.jpg: a picture under a 404 status; /padded.jpg: one followed by 7 MB of zeros.
void Serve(LoopbackHttpServer& server) {
    auto body = [](int status, std::string bytes) {
        return [status, bytes](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(bytes, "image/jpeg");
        };
    };
    server.Http().Get(
        R"(/quad/(\d+)/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(QuadrantJpeg(std::stoi(req.matches[1]), std::stoi(req.matches[2])),
                            "image/jpeg");
        });
    server.Http().Get("/missing.jpg",
                      body(404, "<html><body><h1>404 Not Found</h1></body></html>"));
    server.Http().Get("/empty", body(200, ""));
    server.Http().Get("/pic.jpg", body(404, QuadrantJpeg(64, 48)));
    server.Http().Get("/padded.jpg", body(200, QuadrantJpeg(64, 48) + std::string(7000000, '\0')));
    server.Http().Get("/endless", [](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("image/jpeg", [](size_t, httplib::DataSink& sink) {
            const std::string chunk(1 << 16, 'z');
            return sink.write(chunk.data(), chunk.size());
        });
    });
    qrbtest::ServePatternBytes(server);
}

// Centre-cropped (not when a side is 0 or above the decoded size); an error page and an empty
// body (never written) fail once. Every row twice at once, each with a temporary name of its own.
// RA alone judges only its transfer: any status, past 5 MiB, TLS unverified; local URLs, broken
// transfers and bodies past its own cap (declared or streamed) are download errors.
TEST(WebGetterTest, RequestsComeBackCroppedOrFailOnceAndRaJudgesOnlyTheTransfer) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    LoopbackHttpServer server;
    Serve(server);
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(thumbnail_init(), 0);
    const struct {
        qrb_media_thumbnail_type kind;
        qrb_extend_dev_type device;
        int32_t (*lastFileId)();
        const char* namePrefix;  // of the temporary files, after the data folder
    } kinds[] = {{THUMB_SNS, DEV_TYPE_SNS, &CQRBSNSThumbnailGetter::m_LastFileID, ""},
                 {THUMB_RA, DEV_TYPE_RA, &CQRBRAThumbnailGetter::m_LastFileID, "ra"}};
    const struct {
        std::string path;
        int reqW, reqH, outW, outH;  // outW 0: fails
    } cases[] = {{"/quad/128/64", 32, 32, 32, 32},
                 {"/quad/72/40", 0, 10, 72, 40},
                 {"/quad/64/48", 96, 96, 96, 96},
                 {"/missing.jpg", 32, 32, 0, 0},
                 {"/empty", 32, 32, 0, 0}};
    constexpr int kRows = 2 * sizeof(cases) / sizeof(cases[0]);
    for (const auto& k : kinds) {
        log.Clear();
        const int base = k.lastFileId(), tag = k.kind * kRows;
        for (int i = 0; i < kRows; ++i) {
            const auto& c = cases[i % (kRows / 2)];
            thumbnail_request_async(server.Url(c.path).c_str(), MEDIA_TYPE_PICTURE, k.device, 0,
                                    c.reqW, c.reqH, 0, 1, &qrbtest::CallbackRecorder::Callback,
                                    recorder.Tag(tag + i));
        }
        ASSERT_TRUE(recorder.WaitForCount((&k - kinds + 1) * kRows, std::chrono::seconds(60)));
        for (int i = 0; i < kRows; ++i) {
            const auto& c = cases[i % (kRows / 2)];
            const auto r = recorder.One(tag + i);
            EXPECT_EQ(r.status, c.outW ? 0 : -1) << k.kind << c.path;
            if (c.outW == 0) continue;
            ASSERT_EQ(std::make_pair(r.width, r.height), std::make_pair(c.outW, c.outH));
            EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.outW, c.outH)), "RGWB")
                << c.path;
        }
        char name[64];
        snprintf(name, sizeof(name), "%s%d%05d.jpg", k.namePrefix, getpid(), base + 1);
        EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=" + std::to_string(k.kind)));
        EXPECT_TRUE(log.Contains("Writing the data to flash ,path is " +
                                 root.Resolve(QRB_DATA_DIR) + name + "."));
        EXPECT_EQ(log.Count("Write JPG Buffer Succeed"), 8) << "the empty body is never written";
        EXPECT_EQ(k.lastFileId() - base, 8) << "a name of its own for each written body";
        EXPECT_EQ(root.CountEntries(QRB_DATA_DIR), 0) << "temporary file left behind";
    }
    thumbnail_finalize();

    qrbtest::TestCertificateAuthority ca("nobody trusts me");
    LoopbackHttpServer tls(ca.Issue("DNS:elsewhere.invalid"));
    Serve(tls);
    ASSERT_TRUE(tls.Start());
    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const struct {
        std::string url;
        int width;  // 0: fails
    } raCases[] = {
        {server.Url("/pic.jpg"), 16},
        {tls.Url("/pic.jpg"), 16},
        {server.Url("/padded.jpg"), 16},
        {"file://" + root.WriteFile("local.jpg", QuadrantJpeg(64, 48)), 0},
        {dropper.Url("http", "/pic.jpg"), 0},
        {"http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()), 0},
        {server.Url("/bytes/" + std::to_string(CQRBRAThumbnailGetter::kMaxBodyBytes + 1)), 0},
        {server.Url("/endless"), 0},
    };
    CQRBRAThumbnailGetter getter;
    for (const auto& c : raCases) {
        _stExtractInfo info;
        info.strURL = c.url;
        info.width = info.height = 16;
        EXPECT_EQ(qrbtest::RasterOf(getter.ExtractThumbnail(info)).width, c.width) << c.url;
        EXPECT_EQ(log.Contains("download error, url=" + c.url), c.width == 0) << c.url;
    }
}

}  // namespace
