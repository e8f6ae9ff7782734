// What only the RA getter does: its own synchronous download, against loopback servers (plain,
// TLS, and raw peers that misbehave). What it shares with the SNS getter is tested over both
// kinds in qrb_sns_thumbnail_getter_test.cpp.
#include "qrb_ra_thumbnail_getter.h"

#include "qrb_failure.h"
#include "qrb_system_path.h"

#include "qrb_test_files.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"
#include "qrb_test_tls.h"

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

using qrbtest::LoopbackHttpServer;

// /pic.jpg (a 64 x 48 picture under a 404 status), /empty, /bytes/<n> (n pattern bytes).
void Serve(LoopbackHttpServer& server) {
    server.Http().Get("/empty", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("", "text/plain");
    });
    server.Http().Get("/pic.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content(qrbtest::GradientJpeg(64, 48), "image/jpeg");
    });
    server.Http().Get(R"(/bytes/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content_provider(std::stoul(req.matches[1]), "application/octet-stream",
                                 [](size_t offset, size_t length, httplib::DataSink& sink) {
                                     const std::string bytes = qrbtest::PatternBytes(
                                         offset, std::min<size_t>(length, 16384));
                                     return sink.write(bytes.data(), bytes.size());
                                 });
    });
}

class RaGetterTest : public ::testing::Test {
protected:
    void SetUp() override {
        Serve(m_Server);
        ASSERT_TRUE(m_Server.Start());
    }
    boost::intrusive_ptr<CQRBThumbnailItem> Extract(const std::string& url, int w, int h) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = w;
        info.height = h;
        return m_Getter.ExtractThumbnail(info);
    }
    int Used() const { return CQRBRAThumbnailGetter::m_LastFileID() - m_Base; }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    LoopbackHttpServer m_Server;
    CQRBRAThumbnailGetter m_Getter;
    const int m_Base = CQRBRAThumbnailGetter::m_LastFileID();
};

TEST_F(RaGetterTest, ReceiveAppendsWholeChunksUntilTheBodyIsPastTheSafetyCap) {
    std::string buffer = "ab";
    const char data[] = {'c', '\0', 'd', 'e'};
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(data, 2, 2, &buffer), 4u);  // size x nmemb
    EXPECT_EQ(buffer, std::string("abc\0de", 6));
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(nullptr, 1, 4, &buffer), 0u);
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(data, 1, 4, nullptr), 0u);
    // At the cap one more chunk goes in; past it, none.
    const std::string chunk(16384, 'z');
    std::string atCap;
    atCap.reserve(CQRBRAThumbnailGetter::kMaxBodyBytes + chunk.size());  // no second copy
    atCap.assign(CQRBRAThumbnailGetter::kMaxBodyBytes, 'a');
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), chunk.size());
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), 0u);
    EXPECT_EQ(atCap.size(), CQRBRAThumbnailGetter::kMaxBodyBytes + chunk.size());
}

TEST_F(RaGetterTest, DownloadCollectsTheWholeBodyOfWebUrlsOnly) {
    std::string buffer = "stale bytes of an earlier download";
    ASSERT_TRUE(m_Getter.m_DownLoadThumbnail(m_Server.Url("/bytes/70001"), &buffer));
    EXPECT_TRUE(buffer == qrbtest::PatternBytes(0, 70001));
    ASSERT_TRUE(m_Getter.m_DownLoadThumbnail(m_Server.Url("/empty"), &buffer));
    EXPECT_TRUE(buffer.empty()) << "the buffer is emptied before each download";
    const std::string local = m_Root.WriteFile("secret.txt", "not for the network");
    EXPECT_FALSE(m_Getter.m_DownLoadThumbnail("file://" + local, &buffer));
    EXPECT_TRUE(buffer.empty());
}

// Any transfer that completes counts, whatever its status line; certificates and host names are
// not verified.
TEST_F(RaGetterTest, NeitherStatusNorCertificateIsJudged) {
    const auto item = Extract(m_Server.Url("/pic.jpg"), 16, 16);
    EXPECT_EQ(qrbtest::RasterOf(item).width, 16);
    qrbtest::TestCertificateAuthority ca("nobody trusts me");
    LoopbackHttpServer tls(ca.Issue("DNS:elsewhere.invalid"));
    Serve(tls);
    ASSERT_TRUE(tls.Start());
    ASSERT_EQ(tls.Url("/").rfind("https://", 0), 0u);
    EXPECT_EQ(qrbtest::RasterOf(Extract(tls.Url("/pic.jpg"), 20, 20)).height, 20);
    EXPECT_FALSE(m_Log.Contains("download error"));
}

TEST_F(RaGetterTest, BodyDeclaredBeyondTheSafetyCapIsNotFetched) {
    // One byte over the cap, declared: refused when the headers come, before the body.
    const std::string url =
        m_Server.Url("/bytes/" + std::to_string(CQRBRAThumbnailGetter::kMaxBodyBytes + 1));
    QRBClearFailure();
    EXPECT_FALSE(Extract(url, 32, 32));
    EXPECT_STREQ(QRBFailureText(), "too large");
    EXPECT_TRUE(m_Log.Contains("curl_easy_perform() failed: " +
                               std::string(curl_easy_strerror(CURLE_FILESIZE_EXCEEDED))));
    EXPECT_TRUE(m_Log.Contains("download error, url=" + url));
    EXPECT_EQ(Used(), 0);
}

TEST_F(RaGetterTest, FailedTransfersAreDownloadErrors) {
    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const std::string dropped = dropper.Url("http", "/pic.jpg");
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";
    EXPECT_FALSE(Extract(dropped, 32, 32));
    EXPECT_FALSE(Extract(refused, 32, 32));
    for (const auto& [url, code] : {std::make_pair(dropped, CURLE_PARTIAL_FILE),
                                    std::make_pair(refused, CURLE_COULDNT_CONNECT)}) {
        EXPECT_TRUE(m_Log.Contains("download error, url=" + url));
        EXPECT_TRUE(
            m_Log.Contains("curl_easy_perform() failed: " + std::string(curl_easy_strerror(code))));
    }
    EXPECT_EQ(dropper.BodyBytesSent(), 1000);
    EXPECT_EQ(Used(), 0);
}

// A photo as a camera writes it, larger than the HTTP variant's 5 MiB cap: about 7 MB of colour
// noise at 2400 x 1800, made by ImageMagick.
TEST_F(RaGetterTest, SevenMegabytePhotoComesBack) {
    const std::string path = m_Root.Path() + "/photo.jpg";
    const std::string convert =
        "convert -seed 17 -size 2400x1800 xc: -channel RGB +noise Random +channel -quality 90 '" +
        path + "'";
    ASSERT_EQ(std::system(convert.c_str()), 0);
    const std::string photo = qrbtest::ReadFileBytes(path);
    ASSERT_GT(photo.size(), 7000000u);
    LoopbackHttpServer server;
    server.Http().Get("/photo.jpg", [photo](const httplib::Request&, httplib::Response& res) {
        res.set_content(photo, "image/jpeg");
    });
    ASSERT_TRUE(server.Start());
    const qrbtest::Raster got = qrbtest::RasterOf(Extract(server.Url("/photo.jpg"), 320, 240));
    EXPECT_EQ(got.width, 320);
    EXPECT_EQ(got.height, 240);
    EXPECT_TRUE(m_Log.Contains("ImageBuff.size()=" + std::to_string(photo.size())));
    EXPECT_EQ(m_Root.CountEntries(QRB_DATA_DIR), 0);
}

}  // namespace
