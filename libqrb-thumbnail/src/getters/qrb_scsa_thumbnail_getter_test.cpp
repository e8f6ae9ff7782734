// The SCSA getter on packages written by the tests: which content's picture is taken, the
// centre crop, the temporary file; then packages through the C interface (media type 5 on
// local storage is kind 16, served by the multi variant's workers).
#include "qrb_scsa_thumbnail_getter.h"

#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_getter_factory.h"
#include "scsa/qrb_dmp_data.h"
#include "scsa/qrb_singleton.h"

#include "qrb_test_box_writer.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace qrbtest;
using namespace std::chrono_literals;

const std::string kUrn = "urn:dece:container:imageindex:";
const char kDataDir[] = "/opt/usr/apps/orvale/data/";

// 200 x 100: red top left, green top right, blue bottom left, white bottom right.
std::string QuadrantJpeg() {
    JpegSpec spec;
    spec.width = 200;
    spec.height = 100;
    spec.quality = 95;
    spec.pattern = JpegPattern::kQuadrants;
    return MakeJpeg(spec);
}

// Two contents: the table's, whose picture names an item that is not there, and the box's,
// whose picture is the package's poster (item 4).
std::string TwoContentPackage(const std::string& poster) {
    PackageSpec spec;
    spec.items = {
        {1, "TableOfContents.XML", "", TableOfContentsXml("descriptive.xml"), true, 1},
        {2, "descriptive.xml", "",
         MetadataXml({{"TitleDisplay19", "first"}}, {{200, 100, kUrn + "99", "missing.jpg"}}), true,
         1},
        {4, "", "image/jpeg", poster, false, 3},
    };
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"TitleDisplay19", "second"}}, {});
    return MakePackage(spec);
}

class ScsaGetterTest : public ::testing::Test {
protected:
    void TearDown() override { CQRBSingleton<CQRBDmpData>::ReleaseInstance(); }

    boost::intrusive_ptr<CQRBThumbnailItem> Extract(const std::string& url, int w, int h) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = w;
        info.height = h;
        return getter.ExtractThumbnail(info);
    }

    ScratchRoot root;
    LogCapture log;
    CQRBSCSAThumbnailGetter getter;
};

TEST_F(ScsaGetterTest, FirstContentWithAPictureWinsAndItsCentreIsCropped) {
    const std::string package =
        root.WriteFile("movies/film.uvu", TwoContentPackage(QuadrantJpeg()));
    const int before = CQRBSCSAThumbnailGetter::m_LastFileID();
    // The decoder covers the request keeping the 2:1 shape (50 x 50 at 100 x 50); the crop keeps
    // the centre, so all four quadrants show. A crop from the left edge would lose two. Without
    // both sides asked for, nothing is cropped.
    const int cases[][4] = {{50, 50, 50, 50},
                            {30, 80, 30, 80},
                            {400, 400, 400, 400},
                            {0, 0, 200, 100},
                            {0, 10, 200, 100}};
    for (const auto& c : cases) {
        const auto item = Extract(package, c[0], c[1]);
        ASSERT_TRUE(item) << c[0] << "x" << c[1];
        const auto& image = item->GetImages().at(0);
        EXPECT_TRUE(image->GetWidth() == c[2] && image->GetHeight() == c[3] &&
                    item->GetSize() == c[2] * c[3] * 4)
            << c[0] << "x" << c[1];
        EXPECT_EQ(Quadrants(RasterOf(*image)), "RGWB") << c[0] << "x" << c[1];
    }
    // Each request tried the first content, failed on it and took the second.
    EXPECT_EQ(log.Count("nCount=2"), 5);
    EXPECT_EQ(log.Count("dmpSourceObj.GetThumbImage fail"), 5);
    EXPECT_EQ(log.Count("MediaManager.GetThumbnailBuffer Succeed"), 5);
    char first[512];
    std::snprintf(first, sizeof(first), "%sscsa%d%05d.jpg", root.Resolve(kDataDir).c_str(),
                  static_cast<int>(getpid()), before + 1);
    EXPECT_EQ(CQRBSCSAThumbnailGetter::m_TempName(getpid(), before + 1), first);
    EXPECT_TRUE(log.Contains(std::string("Writing the data to flash ,path is ") + first + "."));
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "temporary file left behind";
}

TEST_F(ScsaGetterTest, FailuresGiveNoItem) {
    PackageSpec noPicture;
    noPicture.hasXmlBox = true;
    noPicture.xml = MetadataXml({{"ContentID", "c"}}, {{1, 1, kUrn + "3", "x.jpg"}});
    const struct {
        std::string url;
        const char* log;
    } cases[] = {
        // Written, then refused by the decoder: the temporary file goes all the same.
        {root.WriteFile("broken.uvu",
                        TwoContentPackage(std::string("\xFF\xD8\xFF\xE0", 4) + "no picture")),
         "Write JPG Buffer Succeed"},
        {"", "url empty"},
        {root.WriteFile("text.uvu", "no boxes here"), "dmpSourceObj.MoveToIndex fail"},
        {root.WriteFile("none.uvu", MakePackage(noPicture)), "dmpSourceObj.GetThumbImage fail"},
        {root.Path() + "/missing.uvu", "dmpSourceObj.MoveToIndex fail"},
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_FALSE(Extract(c.url, 10, 10)) << c.url;
        EXPECT_TRUE(log.Contains(c.log)) << c.url;
        // Only the broken picture was written.
        EXPECT_EQ(log.Contains("Writing the data to flash"),
                  c.url.find("broken") != std::string::npos);
    }
    EXPECT_EQ(root.CountEntries(kDataDir), 0);
}

TEST(ScsaGetterFactoryTest, KindSixteenHasTheScsaGetter) {
    std::unique_ptr<CQRBThumbnailGetter> made(
        CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(THUMB_SCSA));
    EXPECT_NE(dynamic_cast<CQRBSCSAThumbnailGetter*>(made.get()), nullptr);
    CQRBThumbnailGetter* shared =
        CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_SCSA);
    EXPECT_NE(dynamic_cast<CQRBSCSAThumbnailGetter*>(shared), nullptr);
    EXPECT_EQ(CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_SCSA), shared);
}

TEST(ScsaServiceTest, PackagesAreKindSixteenOnTheMultiVariant) {
    ScratchRoot root;
    LogCapture log;
    CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string package = root.WriteFile("films/film.uvu", TwoContentPackage(QuadrantJpeg()));
    const RecordedResult r = recorder.Request(package, MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL, 60, 40);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(Quadrants(RasterOf(r.buffers[0], 60, 40)), "RGWB");
    // The multi variant's general workers run it, with the SCSA getter.
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=16"));
    EXPECT_TRUE(log.Contains("start scsa decode"));
    const RecordedResult broken = recorder.Request(root.WriteFile("broken.uvu", "not a package"),
                                                   MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL, 60, 40);
    EXPECT_EQ(broken.status, -1);
    EXPECT_EQ(broken.count, 0);
    thumbnail_finalize();
    CQRBSingleton<CQRBDmpData>::ReleaseInstance();
}

}  // namespace
