// The getters of local files (pictures, songs, SCSA packages) through the C interface. Every
// picture shows four quadrants (red, green / blue, white): right only when upright and centred.
#include "qrb_id3_thumbnail_getter.h"
#include "qrb_scsa_thumbnail_getter.h"

#include "id3-extractor/qrb_music_test_support.h"
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

#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace qrbmusictest;
using qrbtest::QuadrantJpeg;

const char kDataDir[] = "/opt/usr/apps/orvale/data/";

// An upright 160 x 120 scene (640 x 480 with a 160 x 120 embedded thumbnail whose lower right
// quadrant is black) stored for orient (0: no tag).
std::string PictureFile(int orient, bool thumbed) {
    const int w = orient >= 5 ? 120 : 160, h = 280 - w, k = thumbed ? 4 : 1;
    qrbtest::JpegSpec spec;
    spec.width = w * k;
    spec.height = h * k;
    spec.quality = 95;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    spec.storedFor = spec.orientation = orient;
    spec.bigEndian = orient % 2 == 0;
    spec.thumbWidth = thumbed ? w : 0;
    spec.thumbHeight = thumbed ? h : 0;
    spec.thumbScene = true;
    spec.thumbColor = {0, 0, 0};
    return qrbtest::MakeJpeg(spec);
}

std::string Mp3WithApic(const std::string& picture) {
    return Id3Tag(3, V23Frame("TIT2", std::string("\0Song", 5)) +
                         V23Frame("APIC", ApicBody("image/jpeg", picture))) +
           kAudio;
}

// Two contents: the table's, whose picture names an item that is not there, and the box's,
// whose picture is the package's poster (item 4).
std::string TwoContentPackage(const std::string& poster) {
    qrbtest::PackageSpec spec;
    spec.items = {
        {1, "TableOfContents.XML", "", qrbtest::TableOfContentsXml("descriptive.xml"), true, 1},
        {2, "descriptive.xml", "",
         qrbtest::MetadataXml({{"TitleDisplay19", "first"}},
                              {{200, 100, "urn:dece:container:imageindex:99", "missing.jpg"}}),
         true, 1},
        {4, "", "image/jpeg", poster, false, 3},
    };
    spec.hasXmlBox = true;
    spec.xml = qrbtest::MetadataXml({{"TitleDisplay19", "second"}}, {});
    return qrbtest::MakePackage(spec);
}

struct Row {
    std::string url;
    qrb_item_media_type media;
    qrb_extend_dev_type dev;
    int w, h, outW, outH;
    const char* quadrants;  // clockwise from the top left; "": fails once
};

// All rows at once: each answered once, upright, centre-cropped, no temporary file left. Every
// orientation through every URI form (0 x 0: own size; an embedded thumbnail is used under half
// its size); a song cover of 524287 bytes is the largest taken, a capitalised WMA extension is
// read as an MP3; a package's first content fails on its picture and the second's is taken.
TEST(LocalGettersTest, EveryKindComesOutUprightAndCentreCroppedOrFailsOnce) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    const auto file = [&](const std::string& name, const std::string& bytes) {
        return root.WriteFile("f/" + name, bytes);
    };
    const auto kPic = MEDIA_TYPE_PICTURE, kSong = MEDIA_TYPE_MUSIC, kPack = MEDIA_TYPE_SCSA;
    const auto kLocal = DEV_TYPE_LOCAL, kSerial = DEV_TYPE_SERIAL_FIRST;
    std::vector<Row> rows = {{root.Path() + "/f/none.jpg", kPic, kLocal, 64, 48, 0, 0, ""},
                             {file("text.jpg", "not a picture"), kPic, kLocal, 64, 48, 0, 0, ""},
                             {"file://", kPic, kSerial, 64, 48, 0, 0, ""}};
    const std::pair<const char*, std::pair<int, int>> forms[] = {
        {"", {64, 48}}, {"file://", {30, 60}}, {"file://1", {0, 0}}};
    for (int orient = 0; orient <= 8; ++orient) {
        const auto& [form, size] = forms[orient % 3];
        const auto [w, h] = size;
        const auto dev = orient % 2 ? kLocal : kSerial;
        const std::string name = std::to_string(orient);
        rows.push_back({form + file(name + ".jpg", PictureFile(orient, false)), kPic, dev, w, h,
                        w ? w : 160, w ? h : 120, "RGWB"});
        if (orient)
            rows.push_back({file(name + "t.jpg", PictureFile(orient, true)), kPic, dev, 64, 48, 64,
                            48, "RGKB"});
    }
    const std::string mp3 = Mp3WithApic(QuadrantJpeg(200, 100));
    std::string limit = QuadrantJpeg(64, 32);
    limit.resize(CQRBID3ThumbnailGetter::kMaxCoverLength, '\0');  // bytes after the end marker
    const std::string package = file("film.uvu", TwoContentPackage(QuadrantJpeg(200, 100)));
    const std::string wma =
        AsfHeader({ExtContentDescription({Descriptor(
            "WM/Picture", 1,
            WmPictureValue(Bmp(8, 4, [](int x, int) { return x < 4 ? 0xFF0000u : 0x00FF00u; }),
                           "image/bmp"))})}) +
        AsfObject(DataGuid(), kAudio);  // 8 x 4, red left half, green right half
    rows.insert(rows.end(),
                {{file("song.mp3", mp3), kSong, kLocal, 50, 50, 50, 50, "RGWB"},
                 {file("own.mp3", mp3), kSong, kSerial, 0, 0, 200, 100, "RGWB"},
                 {file("song.wma", wma), kSong, kLocal, 4, 4, 4, 4, "RGGR"},  // columns 2 to 5
                 {file("limit.mp3", Mp3WithApic(limit)), kSong, kLocal, 16, 16, 16, 16, "RGWB"},
                 {file("over.mp3", Mp3WithApic(limit + '\0')), kSong, kLocal, 16, 16, 0, 0, ""},
                 {file("bad.mp3", Mp3WithApic("not a picture")), kSong, kLocal, 16, 16, 0, 0, ""},
                 {file("SONG.WMA", wma), kSong, kLocal, 16, 16, 0, 0, ""},
                 {package, kPack, kLocal, 30, 80, 30, 80, "RGWB"},
                 {package, kPack, kLocal, 0, 10, 200, 100, "RGWB"},  // one side: not cropped
                 {file("broken.uvu", TwoContentPackage("\xFF\xD8\xFF\xE0no picture")), kPack,
                  kLocal, 60, 40, 0, 0, ""}});
    for (size_t i = 0; i < rows.size(); ++i) {
        thumbnail_request_async(rows[i].url.c_str(), rows[i].media, rows[i].dev, 0, rows[i].w,
                                rows[i].h, 0, 1, &qrbtest::CallbackRecorder::Callback,
                                recorder.Tag(static_cast<int>(i)));
    }
    ASSERT_TRUE(recorder.WaitForCount(rows.size(), std::chrono::seconds(60)));
    thumbnail_finalize();
    CQRBSingleton<CQRBDmpData>::ReleaseInstance();
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& c = rows[i];
        const auto r = recorder.One(static_cast<int>(i));
        EXPECT_EQ(r.status, *c.quadrants ? 0 : -1) << c.url;
        if (!*c.quadrants) continue;
        ASSERT_EQ(std::make_pair(r.width, r.height), std::make_pair(c.outW, c.outH)) << c.url;
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.outW, c.outH)), c.quadrants)
            << c.url << " at " << c.w << "x" << c.h;
    }
    EXPECT_TRUE(log.Contains("picture of 524288 bytes is over the limit of 524287"));
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=16"));
    // 160 x 120, turned first where stored sideways, covers 30 x 60 at 80 x 60.
    EXPECT_TRUE(log.Contains("cropStartX=25, cropStartY=0, destWidth=30, destHeight=60"));
    // Written, then removed: four covers, the bad picture, two posters and the broken one.
    EXPECT_EQ(log.Count("Writing the data to flash"), 8);
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "temporary file left behind";
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ID3TempName(123, 7),
              root.Resolve(kDataDir) + "mus0012300007.jpg");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_WMATempName(123, 7),
              root.Resolve(kDataDir) + "mus12300007.jpg");
    EXPECT_EQ(CQRBSCSAThumbnailGetter::m_TempName(4321, 7),
              root.Resolve(kDataDir) + "scsa432100007.jpg");
}

}  // namespace
