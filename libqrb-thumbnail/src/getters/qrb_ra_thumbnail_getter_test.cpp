// The RA getter: a remote picture downloaded synchronously with libcurl, then turned into a
// thumbnail through a temporary file. First the getter on its own against loopback servers
// (plain, TLS, and raw peers that misbehave); then end to end, through the C interface (a
// picture on an RA device, kind 12), served by a worker of the single variant.
#include "qrb_ra_thumbnail_getter.h"

#include "qrb_failure.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail.h"
#include "qrb_web_picture_test_support.h"

#include "qrb_temp_file.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"
#include "qrb_test_tls.h"

#include <gtest/gtest.h>

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using qrbtest::CallbackRecorder;
using qrbtest::LoopbackHttpServer;
using qrbtest::RawTcpPeer;
using qrbtest::RecordedResult;
using namespace qrbwebtest;

// Liveness bound only (sanitizer builds are slow): a hang fails instead of stalling.
constexpr std::chrono::seconds kWait(20);

const char kErrorPage[] =
    "<html><head><title>404 Not Found</title></head><body><h1>Not Found</h1></body></html>";

// Routes every test here uses: /pic/<w>x<h>.jpg (a gradient JPEG), /missing.jpg (404 with an
// HTML page), /moved.jpg (404, but the body is a picture), /text.jpg, /half.jpg (the first
// half of a JPEG), /cut.jpg (cut before its frame header), /empty.jpg, /bytes/<n> (n bytes).
void ServePictures(LoopbackHttpServer& server, std::atomic<int>* hits) {
    server.Http().Get(R"(/pic/(\d+)x(\d+)\.jpg)", [hits](const httplib::Request& req,
                                                         httplib::Response& res) {
        if (hits != nullptr) ++*hits;
        res.set_content(
            qrbtest::MakeJpeg(GradientSpec(std::stoi(req.matches[1]), std::stoi(req.matches[2]))),
            "image/jpeg");
    });
    server.Http().Get("/missing.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content(kErrorPage, "text/html");
    });
    server.Http().Get("/moved.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content(qrbtest::MakeJpeg(GradientSpec(64, 48)), "image/jpeg");
    });
    server.Http().Get("/text.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("this is a caption, not a picture", "text/plain");
    });
    server.Http().Get("/half.jpg", [](const httplib::Request&, httplib::Response& res) {
        const std::string bytes = qrbtest::MakeJpeg(GradientSpec(128, 64));
        res.set_content(bytes.substr(0, bytes.size() / 2), "image/jpeg");
    });
    server.Http().Get("/cut.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(qrbtest::MakeJpeg(GradientSpec(64, 48)).substr(0, 60), "image/jpeg");
    });
    server.Http().Get("/empty.jpg", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("", "image/jpeg");
    });
    server.Http().Get(R"(/bytes/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        const size_t total = std::stoul(req.matches[1]);
        res.set_content_provider(total, "application/octet-stream",
                                 [](size_t offset, size_t length, httplib::DataSink& sink) {
                                     const size_t chunk = std::min<size_t>(length, 16384);
                                     const std::string bytes = qrbtest::PatternBytes(offset, chunk);
                                     return sink.write(bytes.data(), bytes.size());
                                 });
    });
}

std::string HalfJpeg() {
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(128, 64));
    return bytes.substr(0, bytes.size() / 2);
}

// ---- the getter on its own

class QRBRaThumbnailGetterTest : public ::testing::Test {
protected:
    void SetUp() override {
        ServePictures(m_Server, &m_Hits);
        ASSERT_TRUE(m_Server.Start());
    }

    boost::intrusive_ptr<CQRBThumbnailItem> Extract(const std::string& url, int width, int height) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = width;
        info.height = height;
        return m_Getter.ExtractThumbnail(info);
    }

    // Counter values used since the test began (the counter is process-wide).
    int Used() const { return CQRBRAThumbnailGetter::m_LastFileID() - m_Base; }
    // The temporary name of the k-th file this test makes.
    std::string Name(int k) const {
        return CQRBRAThumbnailGetter::m_TempName(getpid(), m_Base + k);
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    std::atomic<int> m_Hits{0};  // outlives the server, whose handlers count into it
    LoopbackHttpServer m_Server;
    CQRBRAThumbnailGetter m_Getter;
    const int m_Base = CQRBRAThumbnailGetter::m_LastFileID();
};

TEST_F(QRBRaThumbnailGetterTest, ReceiveAppendsWholeChunksAndRefusesNullArguments) {
    std::string buffer = "ab";
    const char data[] = {'c', '\0', 'd', 'e'};
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(data, 1, 4, &buffer), 4u);
    EXPECT_EQ(buffer, std::string("abc\0de", 6));
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(data, 2, 2, &buffer), 4u);  // size x nmemb
    EXPECT_EQ(buffer.size(), 10u);
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(nullptr, 1, 4, &buffer), 0u);
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(data, 1, 4, nullptr), 0u);
    EXPECT_EQ(buffer.size(), 10u);
}

TEST_F(QRBRaThumbnailGetterTest, ReceiveRefusesChunksOnceTheBodyIsPastTheSafetyCap) {
    // Far above the HTTP variant's 5 MiB: a remote-access source is a whole photo.
    EXPECT_EQ(CQRBRAThumbnailGetter::kMaxBodyBytes, 64u * 1024 * 1024);
    const std::string chunk(16384, 'z');
    std::string atCap;
    atCap.reserve(CQRBRAThumbnailGetter::kMaxBodyBytes + chunk.size());  // no second copy
    atCap.assign(CQRBRAThumbnailGetter::kMaxBodyBytes, 'a');
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), chunk.size());
    EXPECT_EQ(CQRBRAThumbnailGetter::receive(chunk.data(), 1, chunk.size(), &atCap), 0u);
    EXPECT_EQ(atCap.size(), CQRBRAThumbnailGetter::kMaxBodyBytes + chunk.size());
}

TEST_F(QRBRaThumbnailGetterTest, DownloadCollectsTheWholeBody) {
    std::string buffer = "stale bytes of an earlier download";
    ASSERT_TRUE(m_Getter.m_DownLoadThumbnail(m_Server.Url("/bytes/70001"), &buffer));
    EXPECT_TRUE(buffer == qrbtest::PatternBytes(0, 70001));
    ASSERT_TRUE(m_Getter.m_DownLoadThumbnail(m_Server.Url("/empty.jpg"), &buffer));
    EXPECT_TRUE(buffer.empty()) << "the buffer is emptied before each download";
}

TEST_F(QRBRaThumbnailGetterTest, OnlyWebUrlsAreFetched) {
    std::string local = m_Root.WriteFile("secret.txt", "not for the network");
    std::string buffer;
    EXPECT_FALSE(m_Getter.m_DownLoadThumbnail("file://" + local, &buffer));
    EXPECT_TRUE(buffer.empty());
}

TEST_F(QRBRaThumbnailGetterTest, PictureComesBackAtTheRequestedSizeCroppedAroundTheCentre) {
    const auto item = Extract(m_Server.Url("/pic/128x64.jpg"), 32, 32);
    ASSERT_TRUE(item);
    const Raster got = FromItem(item);
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_EQ(item->GetSize(), 32 * 32 * 4);
    const Raster want = Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(128, 64)), 32, 32);
    ASSERT_EQ(want.width, 32);
    EXPECT_TRUE(got.pixels == want.pixels) << "not the decoder's raster cropped at its centre";
    // The crop starts a quarter of the way across the gradient, not at its left edge.
    EXPECT_NEAR(RedAt(got, 0, 16), 32 * 255 / 127, 16);
    EXPECT_NEAR(RedAt(got, 31, 16), 94 * 255 / 127, 16);

    EXPECT_TRUE(m_Log.Contains("ImageBuff.size()=" +
                               std::to_string(qrbtest::MakeJpeg(GradientSpec(128, 64)).size())));
    EXPECT_TRUE(m_Log.Contains("Writing the data to flash ,path is " + Name(1) + "."));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=0x"));
    EXPECT_TRUE(DataFiles(m_Root).empty()) << "temporary file left behind";
}

TEST_F(QRBRaThumbnailGetterTest, TemporaryFileIsNamedWithItsPrefixProcessAndCounter) {
    EXPECT_EQ(CQRBRAThumbnailGetter::m_TempName(4321, 7),
              m_Root.Resolve("/opt/usr/apps/orvale/data/ra432100007.jpg"));
    EXPECT_EQ(CQRBRAThumbnailGetter::m_TempName(4321, 123456),
              m_Root.Resolve("/opt/usr/apps/orvale/data/ra4321123456.jpg"));
}

TEST_F(QRBRaThumbnailGetterTest, ZeroRequestKeepsThePicturesOwnSize) {
    const Raster whole = FromItem(Extract(m_Server.Url("/pic/72x40.jpg"), 0, 0));
    EXPECT_EQ(whole.width, 72);
    EXPECT_EQ(whole.height, 40);
    EXPECT_TRUE(whole.pixels ==
                Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(72, 40)), 0, 0).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThumbnailGetterTest, RequestLargerThanThePictureIsCoveredThenCropped) {
    const Raster got = FromItem(Extract(m_Server.Url("/pic/64x48.jpg"), 96, 96));
    ASSERT_EQ(got.width, 96);
    ASSERT_EQ(got.height, 96);
    EXPECT_TRUE(got.pixels ==
                Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(64, 48)), 96, 96).pixels);
}

TEST_F(QRBRaThumbnailGetterTest, HttpStatusIsNotJudged) {
    // An error page is written and handed to the decoder, which refuses it.
    EXPECT_FALSE(Extract(m_Server.Url("/missing.jpg"), 32, 32));
    EXPECT_TRUE(m_Log.Contains("ImageBuff.size()=" + std::to_string(sizeof(kErrorPage) - 1)));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("pucThumbBuffer=(nil)"));
    EXPECT_FALSE(m_Log.Contains("download error"));
    // A picture is a picture, whatever the status line says.
    const Raster got = FromItem(Extract(m_Server.Url("/moved.jpg"), 16, 16));
    EXPECT_EQ(got.width, 16);
    EXPECT_EQ(got.height, 16);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThumbnailGetterTest, CertificatesAndHostNamesAreNotVerified) {
    // A certificate from an authority nobody trusts, for another host.
    qrbtest::TestCertificateAuthority ca("nobody trusts me");
    LoopbackHttpServer tls(ca.Issue("DNS:elsewhere.invalid"));
    ServePictures(tls, nullptr);
    ASSERT_TRUE(tls.Start());
    const std::string url = tls.Url("/pic/40x30.jpg");
    ASSERT_EQ(url.rfind("https://", 0), 0u);
    const Raster got = FromItem(Extract(url, 20, 20));
    EXPECT_EQ(got.width, 20);
    EXPECT_EQ(got.height, 20);
}

TEST_F(QRBRaThumbnailGetterTest, NonPictureAndHeaderlessBodiesFailAndLeaveNoFile) {
    EXPECT_FALSE(Extract(m_Server.Url("/text.jpg"), 32, 32));
    EXPECT_FALSE(Extract(m_Server.Url("/cut.jpg"), 32, 32));
    EXPECT_EQ(m_Log.Count("Write JPG Buffer Succeed"), 2);
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThumbnailGetterTest, JpegCutInsideItsImageDataKeepsTheDecodedPart) {
    const Raster got = FromItem(Extract(m_Server.Url("/half.jpg"), 32, 32));
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_TRUE(got.pixels == Expected(m_Root, HalfJpeg(), 32, 32).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThumbnailGetterTest, EmptyBodyFailsWithoutAFile) {
    EXPECT_FALSE(Extract(m_Server.Url("/empty.jpg"), 32, 32));
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_FALSE(m_Log.Contains("Writing the data to flash"));
    EXPECT_EQ(Used(), 0);
}

TEST_F(QRBRaThumbnailGetterTest, BodyDeclaredBeyondTheSafetyCapIsNotFetched) {
    // One byte over the cap, declared: refused when the headers come, before the body.
    const std::string url =
        m_Server.Url("/bytes/" + std::to_string(CQRBRAThumbnailGetter::kMaxBodyBytes + 1));
    QRBClearFailure();
    EXPECT_FALSE(Extract(url, 32, 32));
    EXPECT_STREQ(QRBFailureText(), "too large");
    EXPECT_TRUE(m_Log.Contains("curl_easy_perform() failed: " +
                               std::string(curl_easy_strerror(CURLE_FILESIZE_EXCEEDED))));
    EXPECT_TRUE(m_Log.Contains("download error, url=" + url));
    EXPECT_FALSE(m_Log.Contains("Writing the data to flash"));
    EXPECT_EQ(Used(), 0);
}

TEST_F(QRBRaThumbnailGetterTest, FailedTransfersAreDownloadErrors) {
    RawTcpPeer dropper(RawTcpPeer::Behaviour::DropMidBody);
    const std::string dropped = dropper.Url("http", "/pic.jpg");
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/pic.jpg";
    EXPECT_FALSE(Extract(dropped, 32, 32));
    EXPECT_FALSE(Extract(refused, 32, 32));
    EXPECT_TRUE(m_Log.Contains("download error, url=" + dropped));
    EXPECT_TRUE(m_Log.Contains("download error, url=" + refused));
    EXPECT_TRUE(m_Log.Contains("curl_easy_perform() failed: " +
                               std::string(curl_easy_strerror(CURLE_PARTIAL_FILE))));
    EXPECT_TRUE(m_Log.Contains("curl_easy_perform() failed: " +
                               std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT))));
    EXPECT_EQ(dropper.BodyBytesSent(), 1000);
    EXPECT_EQ(Used(), 0);
}

TEST_F(QRBRaThumbnailGetterTest, ConcurrentWorkersNeverShareANameOrABuffer) {
    // One getter serves every worker of the single variant: each download must stay its own.
    constexpr int kThreads = 4;
    constexpr int kEach = 3;
    std::vector<Raster> want;
    for (int t = 0; t < kThreads; ++t) {
        want.push_back(Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(40 + 8 * t, 30)), 20, 20));
    }
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string url = m_Server.Url("/pic/" + std::to_string(40 + 8 * t) + "x30.jpg");
            for (int i = 0; i < kEach; ++i) {
                if (FromItem(Extract(url, 20, 20)).pixels == want[t].pixels) ++good;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kThreads * kEach);
    EXPECT_EQ(Used(), kThreads * kEach);
    EXPECT_EQ(m_Log.Count("Failed to create"), 0);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThumbnailGetterTest, FactoryMakesThisGetterForKindTwelve) {
    CQRBThumbnailGetter* getter = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_RA);
    ASSERT_NE(getter, nullptr);
    EXPECT_NE(dynamic_cast<CQRBRAThumbnailGetter*>(getter), nullptr);
    EXPECT_EQ(CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_RA), getter);
    const char* uri = "http://127.0.0.1/a.jpg";
    EXPECT_EQ(getter->T_CONVERTURITOPATH(uri), uri);
}

// ---- end to end through the single variant

class QRBRaThroughSingleVariantTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(thumbnail_init(), 0);
        ServePictures(m_Server, &m_Hits);
        ASSERT_TRUE(m_Server.Start());
    }
    void TearDown() override {
        thumbnail_finalize();
        m_Server.Stop();
    }

    // One request, waited for; its one result.
    RecordedResult Request(const std::string& path, int width, int height) {
        const size_t before = m_Recorder.Count();
        void* tag = m_Recorder.Tag(static_cast<int>(before));
        thumbnail_request_async(m_Server.Url(path).c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_RA, 0,
                                width, height, 0, 1, &CallbackRecorder::Callback, tag);
        EXPECT_TRUE(m_Recorder.WaitForCount(before + 1, kWait)) << path;
        std::vector<RecordedResult> mine;
        for (const auto& r : m_Recorder.Results()) {
            if (r.user_data == tag) mine.push_back(r);
        }
        EXPECT_EQ(mine.size(), 1u) << path;
        return mine.empty() ? RecordedResult{} : mine[0];
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    std::atomic<int> m_Hits{0};  // outlives the server, whose handlers count into it
    LoopbackHttpServer m_Server;
};

TEST_F(QRBRaThroughSingleVariantTest, PictureArrivesAtTheRequestedSizeCroppedAroundTheCentre) {
    const RecordedResult r = Request("/pic/128x64.jpg", 32, 32);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, m_Server.Url("/pic/128x64.jpg"));
    EXPECT_EQ(r.count, 1);
    EXPECT_EQ(r.width, 32);
    EXPECT_EQ(r.height, 32);
    EXPECT_EQ(r.sizes[0], 32 * 32 * 4);
    EXPECT_TRUE(r.buffers[0] ==
                Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(128, 64)), 32, 32).pixels);
    EXPECT_TRUE(
        m_Log.Contains("RequestedItem.szURI=" + r.url + ", RequestedItem.eThumbnailType=12"));
    EXPECT_EQ(m_Hits.load(), 1);
    EXPECT_TRUE(DataFiles(m_Root).empty()) << "temporary file left behind";
}

// A photo as a camera writes it, larger than the HTTP variant's 5 MiB cap: about 7 MB of colour
// noise at 2400 x 1800, made by ImageMagick.
TEST_F(QRBRaThroughSingleVariantTest, SevenMegabytePhotoComesBack) {
    const std::string path = m_Root.Path() + "/photo.jpg";
    const std::string convert =
        "convert -seed 17 -size 2400x1800 xc: -channel RGB +noise Random +channel -quality 90 '" +
        path + "'";
    ASSERT_EQ(std::system(convert.c_str()), 0);
    const std::string photo = ReadAll(path);
    ASSERT_GT(photo.size(), 7000000u);
    ASSERT_LT(photo.size(), CQRBRAThumbnailGetter::kMaxBodyBytes);
    LoopbackHttpServer server;
    server.Http().Get("/photo.jpg", [photo](const httplib::Request&, httplib::Response& res) {
        res.set_content(photo, "image/jpeg");
    });
    ASSERT_TRUE(server.Start());

    const size_t before = m_Recorder.Count();
    thumbnail_request_async(server.Url("/photo.jpg").c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_RA, 0,
                            320, 240, 0, 1, &CallbackRecorder::Callback, m_Recorder.Tag(0));
    ASSERT_TRUE(m_Recorder.WaitForCount(before + 1, kWait));
    const RecordedResult r = m_Recorder.Results().back();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 320);
    EXPECT_EQ(r.height, 240);
    EXPECT_TRUE(r.buffers[0] == Expected(m_Root, photo, 320, 240).pixels);
    EXPECT_TRUE(m_Log.Contains("ImageBuff.size()=" + std::to_string(photo.size())));
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThroughSingleVariantTest, ZeroRequestGetsThePictureAndLargerOnesAreCovered) {
    const RecordedResult whole = Request("/pic/50x30.jpg", 0, 0);
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.width, 50);
    EXPECT_EQ(whole.height, 30);
    EXPECT_TRUE(whole.buffers[0] ==
                Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(50, 30)), 0, 0).pixels);
    const RecordedResult larger = Request("/pic/40x30.jpg", 100, 100);
    EXPECT_EQ(larger.status, 0);
    EXPECT_EQ(larger.width, 100);
    EXPECT_EQ(larger.height, 100);
    EXPECT_TRUE(larger.buffers[0] ==
                Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(40, 30)), 100, 100).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThroughSingleVariantTest, ErrorPageNonPictureCutAndEmptyBodiesFail) {
    for (const char* path : {"/missing.jpg", "/text.jpg", "/cut.jpg", "/empty.jpg"}) {
        const RecordedResult r = Request(path, 32, 32);
        EXPECT_EQ(r.status, -1) << path;
        EXPECT_EQ(r.count, 0) << path;
        EXPECT_TRUE(DataFiles(m_Root).empty()) << path;
    }
    // Every transfer completed; three bodies were written and refused, the empty one was not
    // written at all.
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_EQ(m_Log.Count("Write JPG Buffer Succeed"), 3);
    EXPECT_EQ(m_Recorder.Count(), 4u);
}

TEST_F(QRBRaThroughSingleVariantTest, JpegCutInsideItsImageDataStillMakesAThumbnail) {
    const RecordedResult r = Request("/half.jpg", 32, 32);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 32);
    EXPECT_EQ(r.height, 32);
    EXPECT_TRUE(r.buffers[0] == Expected(m_Root, HalfJpeg(), 32, 32).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBRaThroughSingleVariantTest, LinkPlantedAtThePredictableNameIsNotFollowed) {
    const PlantedLink planted = Plant(
        m_Root,
        CQRBRAThumbnailGetter::m_TempName(getpid(), CQRBRAThumbnailGetter::m_LastFileID() + 1),
        "victim");
    const RecordedResult r = Request("/pic/64x48.jpg", 16, 16);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 16);
    EXPECT_EQ(r.height, 16);
    EXPECT_EQ(ReadAll(planted.target), "precious victim");
    EXPECT_TRUE(IsLinkTo(planted.link, planted.target));
    EXPECT_EQ(DataFiles(m_Root), std::set<std::string>{BaseName(planted.link)});
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), 1u) << "exactly one callback";
}

TEST_F(QRBRaThroughSingleVariantTest, WorkersServeSeveralRequestsAtOnce) {
    constexpr int kRequests = 8;
    for (int i = 0; i < kRequests; ++i) {
        const std::string url = m_Server.Url("/pic/" + std::to_string(40 + 4 * i) + "x30.jpg");
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_RA, 0, 20, 20, 0, 1,
                                &CallbackRecorder::Callback, m_Recorder.Tag(i));
    }
    ASSERT_TRUE(m_Recorder.WaitForCount(kRequests, kWait));
    thumbnail_finalize();
    ASSERT_EQ(m_Recorder.Count(), static_cast<size_t>(kRequests));
    for (const auto& r : m_Recorder.Results()) {
        const int i = static_cast<int>(static_cast<char*>(r.user_data) -
                                       static_cast<char*>(m_Recorder.Tag(0)));
        EXPECT_EQ(r.status, 0) << i;
        EXPECT_TRUE(
            r.buffers[0] ==
            Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(40 + 4 * i, 30)), 20, 20).pixels)
            << i;
    }
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

}  // namespace
