// The SCSA getter on packages written by the tests, through the C interface (media type 5 on
// local storage is kind 16, served by the multi variant's workers).
#include "qrb_scsa_thumbnail_getter.h"

#include "qrb_thumbnail.h"
#include "scsa/qrb_dmp_data.h"
#include "scsa/qrb_singleton.h"

#include "qrb_test_box_writer.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qrbtest;

const std::string kUrn = "urn:dece:container:imageindex:";
const char kDataDir[] = "/opt/usr/apps/orvale/data/";

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

// Each request tries the first content, fails on it and takes the second's picture, which
// the decoder covers keeping its 2:1 shape and the getter crops around the centre, so all four
// quadrants show (a crop from the left edge would lose two). Without both sides asked for,
// nothing is cropped. A package whose picture the decoder refuses, and a file that is no
// package, fail; no temporary file stays.
TEST(ScsaGetterTest, FirstContentWithAPictureIsCentreCroppedThroughTheCInterface) {
    ScratchRoot root;
    LogCapture log;
    CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string package = root.WriteFile("films/film.uvu", TwoContentPackage(QuadrantJpeg(200, 100)));
    const int cases[][4] = {{50, 50, 50, 50}, {30, 80, 30, 80}, {0, 10, 200, 100}};
    for (const auto& c : cases) {
        const RecordedResult r = recorder.Request(package, MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL, c[0], c[1]);
        ASSERT_EQ(r.width, c[2]) << c[0] << "x" << c[1];
        ASSERT_EQ(r.height, c[3]) << c[0] << "x" << c[1];
        EXPECT_EQ(Quadrants(RasterOf(r.buffers[0], c[2], c[3])), "RGWB") << c[0] << "x" << c[1];
    }
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=16"));
    EXPECT_EQ(CQRBSCSAThumbnailGetter::m_TempName(4321, 7), root.Resolve(kDataDir) + "scsa432100007.jpg");
    for (const std::string& failing :
         {root.WriteFile("broken.uvu", TwoContentPackage(std::string("\xFF\xD8\xFF\xE0", 4) + "no picture")),
          root.WriteFile("text.uvu", "no boxes here")}) {
        EXPECT_EQ(recorder.Request(failing, MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL, 60, 40).status, -1) << failing;
    }
    EXPECT_EQ(log.Count("Write JPG Buffer Succeed"), 4) << "the broken picture was written too";
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "temporary file left behind";
    thumbnail_finalize();
    CQRBSingleton<CQRBDmpData>::ReleaseInstance();
}

}  // namespace
