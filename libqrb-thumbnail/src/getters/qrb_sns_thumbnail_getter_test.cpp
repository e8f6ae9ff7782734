// The SNS getter: downloaded bytes turned into a thumbnail through a temporary file. First the
// getter on its own, with JPEG bytes the tests make; then end to end, through the C interface
// (a picture on an SNS device, kind 11): a loopback server serves the bytes, the HTTP variant's
// download thread fetches them and its decode thread hands them to this getter.
#include "qrb_sns_thumbnail_getter.h"

#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail.h"
#include "qrb_web_picture_test_support.h"

#include "qrb_temp_file.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using qrbtest::CallbackRecorder;
using qrbtest::LoopbackHttpServer;
using qrbtest::RecordedResult;
using namespace qrbwebtest;

// Liveness bound only (sanitizer builds are slow): a hang fails instead of stalling.
constexpr std::chrono::seconds kWait(20);

// ---- the getter on its own

class QRBSnsThumbnailGetterTest : public ::testing::Test {
protected:
    boost::intrusive_ptr<CQRBThumbnailItem> Extract(std::string bytes, int width, int height) {
        return m_Getter.ExtractThumbnail(bytes, width, height);
    }

    // Counter values used since the test began (the counter is process-wide).
    int Used() const { return CQRBSNSThumbnailGetter::m_LastFileID() - m_Base; }
    // The temporary name of the k-th file this test makes.
    std::string Name(int k) const {
        return CQRBSNSThumbnailGetter::m_TempName(getpid(), m_Base + k);
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CQRBSNSThumbnailGetter m_Getter;
    const int m_Base = CQRBSNSThumbnailGetter::m_LastFileID();
};

TEST_F(QRBSnsThumbnailGetterTest, PathFormYieldsNullEvenForAPictureFile) {
    const std::string path =
        m_Root.WriteFile("pictures/a.jpg", qrbtest::MakeJpeg(GradientSpec(64, 48)));
    _stExtractInfo info;
    info.strURL = path;
    info.width = 32;
    info.height = 32;
    EXPECT_FALSE(m_Getter.ExtractThumbnail(info));
    info.strURL = "file://" + path;
    EXPECT_FALSE(m_Getter.ExtractThumbnail(info));
    EXPECT_FALSE(m_Log.Contains("Writing the data to flash"));
}

TEST_F(QRBSnsThumbnailGetterTest, UriIsReturnedUnchanged) {
    const char* uri = "http://127.0.0.1/a.jpg";
    EXPECT_EQ(m_Getter.T_CONVERTURITOPATH(uri), uri);
}

TEST_F(QRBSnsThumbnailGetterTest, EmptyBufferYieldsNullWithoutTouchingTheDisk) {
    EXPECT_FALSE(Extract("", 32, 32));
    EXPECT_FALSE(m_Log.Contains("Writing the data to flash"));
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(m_Root.CountEntries(QRB_DATA_DIR), 0);
}

TEST_F(QRBSnsThumbnailGetterTest, JpegBytesGiveTheRequestedSizeCroppedAroundTheCentre) {
    const qrbtest::JpegSpec spec = GradientSpec(128, 64);
    const std::string bytes = qrbtest::MakeJpeg(spec);
    ASSERT_FALSE(bytes.empty());

    const auto item = Extract(bytes, 32, 32);
    ASSERT_TRUE(item);
    const Raster got = FromItem(item);
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_EQ(item->GetSize(), 32 * 32 * 4);
    const Raster want = Expected(m_Root, bytes, 32, 32);
    ASSERT_EQ(want.width, 32);
    EXPECT_TRUE(got.pixels == want.pixels) << "not the decoder's raster cropped at its centre";

    // Independently of the decoder: the picture covers 32 x 32 at 64 x 32, so the crop starts
    // 16 decoded (32 source) columns in. Its left edge is a quarter of the way across the
    // gradient, its right edge three quarters; a crop from the left edge would start at 0.
    EXPECT_NEAR(RedAt(got, 0, 16), 32 * 255 / 127, 16);
    EXPECT_NEAR(RedAt(got, 31, 16), 94 * 255 / 127, 16);
    EXPECT_NEAR(GreenAt(got, 16, 0), 0, 16);
    EXPECT_NEAR(GreenAt(got, 16, 31), 62 * 255 / 63, 16);

    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("Writing Done ............."));
    EXPECT_TRUE(m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=0x"));
    EXPECT_TRUE(m_Log.Contains("Writing the data to flash ,path is " + Name(1) + "."));
    EXPECT_TRUE(DataFiles(m_Root).empty()) << "temporary file left behind";
}

TEST_F(QRBSnsThumbnailGetterTest, TemporaryFileIsNamedByProcessAndCounterInTheDataFolder) {
    EXPECT_EQ(CQRBSNSThumbnailGetter::m_TempName(4321, 7),
              m_Root.Resolve("/opt/usr/apps/orvale/data/432100007.jpg"));
    EXPECT_EQ(CQRBSNSThumbnailGetter::m_TempName(4321, 123456),
              m_Root.Resolve("/opt/usr/apps/orvale/data/4321123456.jpg"));

    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(40, 30));
    ASSERT_TRUE(Extract(bytes, 0, 0));
    ASSERT_TRUE(Extract(bytes, 0, 0));
    EXPECT_EQ(Used(), 2);
    for (int k : {1, 2}) {
        EXPECT_EQ(m_Log.Count("Writing the data to flash ,path is " + Name(k) + "."), 1) << k;
    }
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, ZeroRequestKeepsThePicturesOwnSize) {
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(72, 40));
    const Raster whole = FromItem(Extract(bytes, 0, 0));
    EXPECT_EQ(whole.width, 72);
    EXPECT_EQ(whole.height, 40);
    EXPECT_TRUE(whole.pixels == Expected(m_Root, bytes, 0, 0).pixels);

    // One side 0 takes the picture's own for that side; the result is not cropped to the other.
    const Raster oneSide = FromItem(Extract(bytes, 0, 10));
    EXPECT_EQ(oneSide.width, 72);
    EXPECT_EQ(oneSide.height, 40);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, RequestLargerThanThePictureIsCoveredThenCropped) {
    // The decoder enlarges a 64 x 48 picture to 128 x 96 to cover 96 x 96; the getter then
    // keeps the middle 96 columns.
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(64, 48));
    const auto item = Extract(bytes, 96, 96);
    const Raster got = FromItem(item);
    ASSERT_EQ(got.width, 96);
    ASSERT_EQ(got.height, 96);
    EXPECT_TRUE(got.pixels == Expected(m_Root, bytes, 96, 96).pixels);
    EXPECT_NEAR(RedAt(got, 0, 48), 8 * 255 / 63, 16);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, BytesThatAreNoPictureAreWrittenRefusedAndRemoved) {
    EXPECT_FALSE(Extract("<html><body>404 Not Found</body></html>", 32, 32));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=(nil)"));
    EXPECT_TRUE(DataFiles(m_Root).empty());

    std::string noise(3000, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 7 + 1);
    noise[0] = '\xFF';
    noise[1] = '\xD8';  // starts like a JPEG, and nothing after makes sense
    EXPECT_FALSE(Extract(noise, 32, 32));
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, JpegCutBeforeItsFrameHeaderIsRefused) {
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(64, 48));
    ASSERT_GT(bytes.size(), 200u);
    EXPECT_FALSE(Extract(bytes.substr(0, 40), 32, 32));
    EXPECT_FALSE(Extract(bytes.substr(0, 2), 32, 32));
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, JpegCutInsideItsImageDataKeepsTheDecodedPart) {
    // libjpeg ends a short scan as if the data stopped there, filling the rest with mid grey:
    // the upper rows of a half-sent picture still make a thumbnail of the requested size.
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(128, 64));
    const std::string half = bytes.substr(0, bytes.size() / 2);
    const Raster got = FromItem(Extract(half, 32, 32));
    ASSERT_EQ(got.width, 32);
    ASSERT_EQ(got.height, 32);
    EXPECT_TRUE(got.pixels == Expected(m_Root, half, 32, 32).pixels);
    EXPECT_NEAR(RedAt(got, 0, 0), 32 * 255 / 127, 16);  // the top row arrived
    EXPECT_NEAR(RedAt(got, 0, 31), 128, 8);             // the bottom row did not
    EXPECT_NEAR(GreenAt(got, 16, 31), 128, 8);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, LinkPlantedAtTheNextNameIsNotFollowed) {
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(64, 48));
    ASSERT_TRUE(Extract(bytes, 16, 16));  // makes the folder and uses counter 1
    ASSERT_EQ(Used(), 1);
    const PlantedLink planted = Plant(m_Root, Name(2), "target");

    const Raster got = FromItem(Extract(bytes, 16, 16));
    EXPECT_EQ(got.width, 16);
    EXPECT_EQ(got.height, 16);
    EXPECT_EQ(ReadAll(planted.target), "precious target") << "written through the link";
    EXPECT_TRUE(IsLinkTo(planted.link, planted.target)) << "the planted link was touched";
    EXPECT_TRUE(m_Log.Contains("Failed to create " + planted.link + "  file."));
    EXPECT_TRUE(m_Log.Contains("error no=17 desc: File exists"));
    // The name after it was used instead, and removed.
    EXPECT_EQ(Used(), 3);
    EXPECT_EQ(DataFiles(m_Root), std::set<std::string>{BaseName(planted.link)});
}

TEST_F(QRBSnsThumbnailGetterTest, EveryCandidateNameTakenFailsCleanly) {
    std::vector<PlantedLink> planted;
    for (int i = 1; i <= QRBTempFile::kNameAttempts; ++i) {
        planted.push_back(Plant(m_Root, Name(i), "t" + std::to_string(i)));
    }
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(64, 48));
    EXPECT_FALSE(Extract(bytes, 16, 16));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer fail"));
    EXPECT_FALSE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_EQ(m_Log.Count("error no=17 desc: File exists"),
              QRBTempFile::kNameAttempts);
    for (const auto& p : planted) {
        EXPECT_EQ(ReadAll(p.target), "precious " + BaseName(p.target));
        EXPECT_TRUE(IsLinkTo(p.link, p.target));
    }
    EXPECT_EQ(DataFiles(m_Root).size(), planted.size());

    // The counter has moved past them: the next request is served.
    EXPECT_TRUE(Extract(bytes, 16, 16));
    EXPECT_EQ(DataFiles(m_Root).size(), planted.size());
}

TEST_F(QRBSnsThumbnailGetterTest, MissingDataFolderIsMade) {
    ASSERT_EQ(m_Root.CountEntries("/opt"), 0);
    ASSERT_TRUE(Extract(qrbtest::MakeJpeg(GradientSpec(20, 20)), 10, 10));
    struct stat st;
    ASSERT_EQ(stat(m_Root.Resolve(QRB_DATA_DIR).c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, DataFolderThatIsNoFolderFailsWithTheReason) {
    // A file where the data folder should be: nothing can be created in it.
    m_Root.WriteFile("opt/usr/apps/orvale/data", "not a folder");
    EXPECT_FALSE(Extract(qrbtest::MakeJpeg(GradientSpec(20, 20)), 10, 10));
    EXPECT_TRUE(m_Log.Contains("error no=20 desc: Not a directory"));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer fail"));
    EXPECT_EQ(Used(), 1) << "a hopeless name is not retried";
    EXPECT_EQ(ReadAll(m_Root.Resolve("/opt/usr/apps/orvale/data")), "not a folder");
}

TEST_F(QRBSnsThumbnailGetterTest, ConcurrentCallersNeverShareAName) {
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(96, 64));
    const Raster want = Expected(m_Root, bytes, 24, 24);
    constexpr int kThreads = 6;
    constexpr int kEach = 4;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                std::string copy = bytes;
                if (FromItem(m_Getter.ExtractThumbnail(copy, 24, 24)).pixels == want.pixels) ++good;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kThreads * kEach);
    EXPECT_EQ(Used(), kThreads * kEach);
    std::set<std::string> paths;
    const std::string prefix = "Writing the data to flash ,path is ";
    for (const auto& line : m_Log.Lines()) {
        const size_t at = line.find(prefix);
        if (at != std::string::npos)
            paths.insert(
                line.substr(at + prefix.size(), line.find("....", at) - at - prefix.size()));
    }
    EXPECT_EQ(paths.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(m_Log.Count("Failed to create"), 0);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThumbnailGetterTest, FactoryMakesThisGetterForKindEleven) {
    CQRBThumbnailGetter* getter = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_SNS);
    ASSERT_NE(getter, nullptr);
    EXPECT_NE(dynamic_cast<CQRBSNSThumbnailGetter*>(getter), nullptr);
    EXPECT_EQ(CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_SNS), getter);
}

// ---- end to end through the HTTP variant

class QRBSnsThroughHttpVariantTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(thumbnail_init(), 0);
        m_Server.Http().Get(R"(/pic/(\d+)x(\d+)\.jpg)", [this](const httplib::Request& req,
                                                               httplib::Response& res) {
            ++m_Hits;
            res.set_content(qrbtest::MakeJpeg(
                                GradientSpec(std::stoi(req.matches[1]), std::stoi(req.matches[2]))),
                            "image/jpeg");
        });
        m_Server.Http().Get("/missing.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content(
                "<html><head><title>404 Not Found</title></head><body><h1>Not Found"
                "</h1></body></html>",
                "text/html");
        });
        m_Server.Http().Get("/text.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("this is a caption, not a picture", "text/plain");
        });
        m_Server.Http().Get("/cut.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(qrbtest::MakeJpeg(GradientSpec(64, 48)).substr(0, 60), "image/jpeg");
        });
        m_Server.Http().Get("/half.jpg", [](const httplib::Request&, httplib::Response& res) {
            const std::string bytes = qrbtest::MakeJpeg(GradientSpec(128, 64));
            res.set_content(bytes.substr(0, bytes.size() / 2), "image/jpeg");
        });
        m_Server.Http().Get("/empty.jpg", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("", "image/jpeg");
        });
        ASSERT_TRUE(m_Server.Start());
    }
    void TearDown() override {
        thumbnail_finalize();
        m_Server.Stop();
    }

    // One request, waited for; its one result.
    RecordedResult Request(const std::string& path, int width, int height, int useCache = 0) {
        const size_t before = m_Recorder.Count();
        void* tag = m_Recorder.Tag(static_cast<int>(before));
        thumbnail_request_async(m_Server.Url(path).c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0,
                                width, height, useCache, 1, &CallbackRecorder::Callback, tag);
        EXPECT_TRUE(m_Recorder.WaitForCount(before + 1, kWait)) << path;
        std::vector<RecordedResult> mine;
        for (const auto& r : m_Recorder.Results()) {
            if (r.user_data == tag) mine.push_back(r);
        }
        EXPECT_EQ(mine.size(), 1u) << path;
        return mine.empty() ? RecordedResult{} : mine[0];
    }

    Raster ExpectedFor(int picW, int picH, int width, int height) {
        return Expected(m_Root, qrbtest::MakeJpeg(GradientSpec(picW, picH)), width, height);
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    std::atomic<int> m_Hits{0};  // outlives the server, whose handlers count into it
    LoopbackHttpServer m_Server;
};

TEST_F(QRBSnsThroughHttpVariantTest, PictureArrivesAtTheRequestedSizeCroppedAroundTheCentre) {
    const RecordedResult r = Request("/pic/128x64.jpg", 32, 32);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, m_Server.Url("/pic/128x64.jpg"));
    EXPECT_EQ(r.bBuffer, 0);
    EXPECT_EQ(r.width, 32);
    EXPECT_EQ(r.height, 32);
    EXPECT_EQ(r.sizes[0], 32 * 32 * 4);
    const Raster want = ExpectedFor(128, 64, 32, 32);
    ASSERT_EQ(want.width, 32);
    EXPECT_TRUE(r.buffers[0] == want.pixels);
    // Downloaded on the download thread, decoded on the decode thread.
    EXPECT_TRUE(m_Log.Contains("Download file url=" + r.url));
    EXPECT_TRUE(m_Log.Contains("RequestedItem.szURI=" + r.url +
                               ", RequestedItem.eThumbnailType=11, state=5"));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(DataFiles(m_Root).empty()) << "temporary file left behind";
}

TEST_F(QRBSnsThroughHttpVariantTest, ZeroRequestGetsThePictureAndLargerOnesAreCovered) {
    const RecordedResult whole = Request("/pic/50x30.jpg", 0, 0);
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.width, 50);
    EXPECT_EQ(whole.height, 30);
    EXPECT_TRUE(whole.buffers[0] == ExpectedFor(50, 30, 0, 0).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());

    const RecordedResult larger = Request("/pic/40x30.jpg", 100, 100);
    EXPECT_EQ(larger.status, 0);
    EXPECT_EQ(larger.width, 100);
    EXPECT_EQ(larger.height, 100);
    EXPECT_TRUE(larger.buffers[0] == ExpectedFor(40, 30, 100, 100).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThroughHttpVariantTest, ErrorPageFails) {
    const RecordedResult r = Request("/missing.jpg", 32, 32);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.count, 0);
    // The page reached the getter, which wrote it and had the decoder refuse it.
    EXPECT_TRUE(m_Log.Contains("downloaded buffer of"));
    EXPECT_TRUE(m_Log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(m_Log.Contains("pucThumbBuffer=(nil)"));
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThroughHttpVariantTest, NonPictureTruncatedAndEmptyBodiesFail) {
    for (const char* path : {"/text.jpg", "/cut.jpg", "/empty.jpg"}) {
        const RecordedResult r = Request(path, 32, 32);
        EXPECT_EQ(r.status, -1) << path;
        EXPECT_EQ(r.count, 0) << path;
        EXPECT_TRUE(DataFiles(m_Root).empty()) << path;
    }
    EXPECT_TRUE(m_Log.Contains("downloaded buffer of 0 bytes, url=" + m_Server.Url("/empty.jpg")));
    // The empty body is refused before a file is made: two files for the three requests.
    EXPECT_EQ(m_Log.Count("Writing the data to flash"), 2);
    EXPECT_EQ(m_Recorder.Count(), 3u);
}

TEST_F(QRBSnsThroughHttpVariantTest, JpegCutInsideItsImageDataStillMakesAThumbnail) {
    const RecordedResult r = Request("/half.jpg", 32, 32);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 32);
    EXPECT_EQ(r.height, 32);
    const std::string bytes = qrbtest::MakeJpeg(GradientSpec(128, 64));
    EXPECT_TRUE(r.buffers[0] == Expected(m_Root, bytes.substr(0, bytes.size() / 2), 32, 32).pixels);
    EXPECT_TRUE(DataFiles(m_Root).empty());
}

TEST_F(QRBSnsThroughHttpVariantTest, LinkPlantedAtThePredictableNameIsNotFollowed) {
    // The name the next SNS file of this process would get.
    const PlantedLink planted = Plant(
        m_Root,
        CQRBSNSThumbnailGetter::m_TempName(getpid(), CQRBSNSThumbnailGetter::m_LastFileID() + 1),
        "victim");

    const RecordedResult r = Request("/pic/64x48.jpg", 16, 16);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 16);
    EXPECT_EQ(r.height, 16);
    EXPECT_TRUE(r.buffers[0] == ExpectedFor(64, 48, 16, 16).pixels);
    EXPECT_EQ(ReadAll(planted.target), "precious victim");
    EXPECT_TRUE(IsLinkTo(planted.link, planted.target));
    EXPECT_EQ(DataFiles(m_Root), std::set<std::string>{BaseName(planted.link)});
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), 1u) << "exactly one callback";
}

TEST_F(QRBSnsThroughHttpVariantTest, DecodedThumbnailIsCachedForCallersThatAskForIt) {
    const RecordedResult first = Request("/pic/80x60.jpg", 20, 20, /*useCache=*/1);
    const RecordedResult second = Request("/pic/80x60.jpg", 20, 20, /*useCache=*/1);
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.width, 20);
    EXPECT_TRUE(first.buffers[0] == second.buffers[0]);
    EXPECT_EQ(m_Hits.load(), 1) << "the second answer should come from the cache";
}

}  // namespace
