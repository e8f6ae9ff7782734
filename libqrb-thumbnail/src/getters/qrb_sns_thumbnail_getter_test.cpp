// The two getters that turn downloaded picture bytes into a thumbnail through a temporary file:
// SNS (kind 11, the HTTP variant has downloaded the bytes) and RA (kind 12, the getter downloads
// them itself). One suite runs over both: the getter on its own (RA fetches from a loopback
// server), then end to end through the C interface (SNS through the HTTP variant's download and
// decode threads, RA through a worker of the single variant). What only one kind does follows.
//
// Pictures are gradients, so that where a crop was taken from shows in the pixels; the expected
// thumbnail is the picture decoder's own raster of the same bytes, cropped around its centre.
#include "qrb_ra_thumbnail_getter.h"
#include "qrb_sns_thumbnail_getter.h"

#include "qrb_system_path.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_http_imp.h"
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using qrbtest::GradientJpeg;
using qrbtest::Raster;
using qrbtest::RasterOf;

struct WebKind {
    const char* name;
    qrb_media_thumbnail_type kind;
    qrb_extend_dev_type device;
    std::string (*tempName)(int pid, int counter);
    int32_t (*lastFileId)();
    const char* namePrefix;  // of the temporary files, after the data folder
};

const WebKind kSns{"Sns",
                   THUMB_SNS,
                   DEV_TYPE_SNS,
                   &CQRBSNSThumbnailGetter::m_TempName,
                   &CQRBSNSThumbnailGetter::m_LastFileID,
                   ""};
const WebKind kRa{"Ra",
                  THUMB_RA,
                  DEV_TYPE_RA,
                  &CQRBRAThumbnailGetter::m_TempName,
                  &CQRBRAThumbnailGetter::m_LastFileID,
                  "ra"};

void PrintTo(const WebKind& k, std::ostream* os) { *os << k.name; }

std::string HalfJpeg() {
    const std::string bytes = GradientJpeg(128, 64);
    return bytes.substr(0, bytes.size() / 2);
}

class WebPictureGetterTest : public ::testing::TestWithParam<WebKind> {
protected:
    void SetUp() override {
        m_Server.Http().Get(R"(/body/(\d+))",
                            [this](const httplib::Request& req, httplib::Response& res) {
                                ++m_Hits;
                                std::lock_guard<std::mutex> lock(m_Mutex);
                                res.set_content(m_Bodies[std::stoi(req.matches[1])], "image/jpeg");
                            });
        m_Server.Http().Get("/missing.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content("<html><body><h1>404 Not Found</h1></body></html>", "text/html");
        });
        ASSERT_TRUE(m_Server.Start());
    }
    void TearDown() override { thumbnail_finalize(); }

    // A URL on the loopback server whose body is bytes.
    std::string Serve(const std::string& bytes) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Bodies.push_back(bytes);
        return m_Server.Url("/body/" + std::to_string(m_Bodies.size() - 1));
    }

    // The getter of this kind on bytes: SNS takes them as given, RA downloads them.
    boost::intrusive_ptr<CQRBThumbnailItem> Extract(std::string bytes, int w, int h) {
        if (GetParam().kind == THUMB_SNS) return m_Sns.ExtractThumbnail(bytes, w, h);
        _stExtractInfo info;
        info.strURL = Serve(bytes);
        info.width = w;
        info.height = h;
        return m_Ra.ExtractThumbnail(info);
    }

    // The decoder's raster of bytes, asked the way the getters ask, centre-cropped.
    Raster Expected(const std::string& bytes, int w, int h) {
        const std::string path = m_Root.WriteFile("reference/picture.jpg", bytes);
        return qrbtest::CropCentre(qrbtest::DecodePicture("file://" + path, w, h, false, true), w,
                                   h);
    }

    int Used() const { return GetParam().lastFileId() - m_Base; }
    int DataFiles() const { return m_Root.CountEntries(QRB_DATA_DIR); }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    qrbtest::CallbackRecorder m_Recorder;
    std::mutex m_Mutex;
    std::vector<std::string> m_Bodies;
    std::atomic<int> m_Hits{0};  // outlives the server, whose handler counts into it
    qrbtest::LoopbackHttpServer m_Server;
    CQRBSNSThumbnailGetter m_Sns;
    CQRBRAThumbnailGetter m_Ra;
    const int m_Base = GetParam().lastFileId();
};

TEST_P(WebPictureGetterTest, FactoryMakesTheGetterAndUrisStayAsTheyAre) {
    CQRBThumbnailGetter* getter =
        CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(GetParam().kind);
    ASSERT_NE(getter, nullptr);
    EXPECT_EQ(GetParam().kind == THUMB_SNS,
              dynamic_cast<CQRBSNSThumbnailGetter*>(getter) != nullptr);
    EXPECT_EQ(GetParam().kind == THUMB_RA, dynamic_cast<CQRBRAThumbnailGetter*>(getter) != nullptr);
    EXPECT_EQ(CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(GetParam().kind), getter);
    const char* uri = "http://127.0.0.1/a.jpg";
    EXPECT_EQ(getter->T_CONVERTURITOPATH(uri), uri);
    // Temporary files: "<data folder><prefix><pid><counter %05d>.jpg".
    EXPECT_EQ(GetParam().tempName(4321, 7),
              m_Root.Resolve(std::string(QRB_DATA_DIR) + GetParam().namePrefix + "432100007.jpg"));
    EXPECT_EQ(GetParam().tempName(4321, 123456),
              m_Root.Resolve(std::string(QRB_DATA_DIR) + GetParam().namePrefix + "4321123456.jpg"));
}

TEST_P(WebPictureGetterTest, PictureComesBackAtTheRequestedSizeCroppedAroundTheCentre) {
    const std::string bytes = GradientJpeg(128, 64);
    const auto item = Extract(bytes, 32, 32);
    const Raster got = RasterOf(item);
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_EQ(item->GetSize(), 32 * 32 * 4);
    EXPECT_TRUE(got.pixels == Expected(bytes, 32, 32).pixels) << "not the decoder's raster cropped";
    // Independently of the decoder: 64 x 32 covers 32 x 32, so the crop starts 16 decoded (32
    // source) columns in, a quarter of the way across the gradient; its right edge is three
    // quarters across. A crop from the left edge would start at 0.
    EXPECT_NEAR(got.At(0, 16)[2], 32 * 255 / 127, 16);
    EXPECT_NEAR(got.At(31, 16)[2], 94 * 255 / 127, 16);
    EXPECT_NEAR(got.At(16, 0)[1], 0, 16);
    EXPECT_NEAR(got.At(16, 31)[1], 62 * 255 / 63, 16);

    EXPECT_TRUE(m_Log.Contains("Writing the data to flash ,path is " +
                               GetParam().tempName(getpid(), m_Base + 1) + "."));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=0x"));
    EXPECT_EQ(DataFiles(), 0) << "temporary file left behind";
}

// Requests of the picture's own size, of one side 0, and larger than the picture.
TEST_P(WebPictureGetterTest, ZeroRequestKeepsTheSizeAndLargerOnesAreCoveredThenCropped) {
    const struct {
        int picW, picH, reqW, reqH, outW, outH;
    } cases[] = {{72, 40, 0, 0, 72, 40}, {72, 40, 0, 10, 72, 40}, {64, 48, 96, 96, 96, 96}};
    for (const auto& c : cases) {
        const std::string bytes = GradientJpeg(c.picW, c.picH);
        const Raster got = RasterOf(Extract(bytes, c.reqW, c.reqH));
        EXPECT_EQ(got.width, c.outW) << c.reqW << "x" << c.reqH;
        EXPECT_EQ(got.height, c.outH) << c.reqW << "x" << c.reqH;
        EXPECT_TRUE(got.pixels == Expected(bytes, c.reqW, c.reqH).pixels);
    }
    EXPECT_EQ(DataFiles(), 0);
}

TEST_P(WebPictureGetterTest, BytesThatAreNoPictureAreWrittenRefusedAndRemoved) {
    std::string noise(3000, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 7 + 1);
    noise.replace(0, 2, "\xFF\xD8");  // starts like a JPEG, and nothing after makes sense
    const std::string jpeg = GradientJpeg(64, 48);
    for (const std::string& bytes : {std::string("<html><body>404 Not Found</body></html>"), noise,
                                     jpeg.substr(0, 40), jpeg.substr(0, 2)}) {
        m_Log.Clear();
        EXPECT_FALSE(Extract(bytes, 32, 32)) << bytes.size();
        EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
        EXPECT_TRUE(
            m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=(nil)"));
        EXPECT_EQ(DataFiles(), 0);
    }
}

TEST_P(WebPictureGetterTest, EmptyBytesYieldNullWithoutTouchingTheDisk) {
    EXPECT_FALSE(Extract("", 32, 32));
    EXPECT_FALSE(m_Log.Contains("Writing the data to flash"));
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(m_Root.CountEntries("/opt"), 0);
}

TEST_P(WebPictureGetterTest, JpegCutInsideItsImageDataKeepsTheDecodedPart) {
    // libjpeg ends a short scan as if the data stopped there, filling the rest with mid grey:
    // the upper rows of a half-sent picture still make a thumbnail of the requested size.
    const Raster got = RasterOf(Extract(HalfJpeg(), 32, 32));
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_TRUE(got.pixels == Expected(HalfJpeg(), 32, 32).pixels);
    EXPECT_NEAR(got.At(0, 0)[2], 32 * 255 / 127, 16);  // the top row arrived
    EXPECT_NEAR(got.At(0, 31)[2], 128, 8);             // the bottom row did not
    EXPECT_EQ(DataFiles(), 0);
}

// One getter serves every caller, so each call keeps its own bytes and its own name.
TEST_P(WebPictureGetterTest, ConcurrentCallersNeverShareANameOrBytes) {
    constexpr int kThreads = 4;
    constexpr int kEach = 3;
    std::vector<std::string> pictures;
    std::vector<Raster> want;
    for (int t = 0; t < kThreads; ++t) {
        pictures.push_back(GradientJpeg(40 + 8 * t, 30));
        want.push_back(Expected(pictures.back(), 20, 20));
    }
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                if (RasterOf(Extract(pictures[t], 20, 20)).pixels == want[t].pixels) ++good;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kThreads * kEach);
    EXPECT_EQ(Used(), kThreads * kEach);
    EXPECT_EQ(m_Log.Count("Failed to create"), 0);
    EXPECT_EQ(DataFiles(), 0);
}

// ---- end to end through the C interface

TEST_P(WebPictureGetterTest, RequestThroughTheCInterfaceComesBackCroppedOrFailsOnce) {
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string bytes = GradientJpeg(128, 64);
    const std::string url = Serve(bytes);
    const auto r = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, GetParam().device, 32, 32);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, url);
    EXPECT_EQ(r.bBuffer, 0);
    EXPECT_EQ(r.count, 1);
    ASSERT_EQ(r.width, 32);
    ASSERT_EQ(r.height, 32);
    EXPECT_EQ(r.sizes[0], 32 * 32 * 4);
    EXPECT_TRUE(r.buffers[0] == Expected(bytes, 32, 32).Bytes());
    EXPECT_TRUE(m_Log.Contains("RequestedItem.szURI=" + url + ", RequestedItem.eThumbnailType=" +
                               std::to_string(GetParam().kind)));

    const auto larger = m_Recorder.Request(Serve(GradientJpeg(40, 30)), MEDIA_TYPE_PICTURE,
                                           GetParam().device, 100, 100);
    EXPECT_EQ(larger.width, 100);
    EXPECT_TRUE(larger.buffers[0] == Expected(GradientJpeg(40, 30), 100, 100).Bytes());
    const auto half =
        m_Recorder.Request(Serve(HalfJpeg()), MEDIA_TYPE_PICTURE, GetParam().device, 32, 32);
    EXPECT_TRUE(half.buffers[0] == Expected(HalfJpeg(), 32, 32).Bytes());

    // An error page, text, a JPEG cut before its frame header and an empty body all fail.
    m_Log.Clear();
    for (const std::string& failing :
         {m_Server.Url("/missing.jpg"), Serve("this is a caption, not a picture"),
          Serve(GradientJpeg(64, 48).substr(0, 60)), Serve("")}) {
        const auto f = m_Recorder.Request(failing, MEDIA_TYPE_PICTURE, GetParam().device, 32, 32);
        EXPECT_EQ(f.status, -1) << failing;
        EXPECT_EQ(f.count, 0) << failing;
    }
    // Every transfer completed; three bodies were written and refused, the empty one was not
    // written at all.
    EXPECT_FALSE(m_Log.Contains("download error"));
    EXPECT_EQ(m_Log.Count("Write JPG Buffer Succeed"), 3);
    EXPECT_EQ(DataFiles(), 0) << "temporary file left behind";
}

TEST_P(WebPictureGetterTest, DecodedThumbnailIsCachedForCallersThatAskForIt) {
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string url = Serve(GradientJpeg(80, 60));
    const auto first = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, GetParam().device, 20, 20, 1);
    const auto second = m_Recorder.Request(url, MEDIA_TYPE_PICTURE, GetParam().device, 20, 20, 1);
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.width, 20);
    EXPECT_TRUE(first.buffers[0] == second.buffers[0]);
    EXPECT_EQ(m_Hits.load(), 1) << "the second answer should come from the cache";
    // A caller without the cache flag is always served afresh.
    EXPECT_EQ(m_Recorder.Request(url, MEDIA_TYPE_PICTURE, GetParam().device, 20, 20).status, 0);
    EXPECT_EQ(m_Hits.load(), 2);
}

INSTANTIATE_TEST_SUITE_P(Kinds, WebPictureGetterTest, ::testing::Values(kSns, kRa),
                         [](const ::testing::TestParamInfo<WebKind>& info) {
                             return std::string(info.param.name);
                         });

// ---- what only SNS does

TEST(SnsGetterTest, PathFormYieldsNullEvenForAPictureFile) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBSNSThumbnailGetter getter;
    const std::string path = root.WriteFile("pictures/a.jpg", GradientJpeg(64, 48));
    _stExtractInfo info;
    info.width = 32;
    info.height = 32;
    for (const std::string& url : {path, "file://" + path}) {
        info.strURL = url;
        EXPECT_FALSE(getter.ExtractThumbnail(info));
    }
    EXPECT_FALSE(log.Contains("Writing the data to flash"));
}

TEST(SnsGetterTest, DownloadedBytesAreDecodedOnTheHttpVariantsDecodeThread) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    qrbtest::LoopbackHttpServer server;
    const std::string jpeg = GradientJpeg(64, 48);
    server.Http().Get("/pic.jpg", [jpeg](const httplib::Request&, httplib::Response& res) {
        res.set_content(jpeg, "image/jpeg");
    });
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(thumbnail_init(), 0);
    const auto r =
        recorder.Request(server.Url("/pic.jpg"), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 16, 16);
    auto* http = dynamic_cast<CQRBThumbnailHttpImp*>(
        CQRBThumbnail::GetInstance()->Variant(CQRBThumbnail::SLOT_HTTP));
    ASSERT_NE(http, nullptr);
    EXPECT_EQ(http->ParkedCount(), 0) << "answered requests keep no bytes";
    thumbnail_finalize();
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(log.Contains("Download file url=" + r.url));
    EXPECT_TRUE(log.Contains("downloaded buffer of " + std::to_string(jpeg.size()) +
                             " bytes, url=" + r.url));
    EXPECT_TRUE(log.Contains("RequestedItem.szURI=" + r.url +
                             ", RequestedItem.eThumbnailType=11, state=5"));
}

}  // namespace
