// The getters of local files through the C interface, on files the tests write: pictures (kind
// 0 on the multi variant, kind 13 on a serial device on the single), songs (kinds 1 and 14) and
// SCSA packages (kind 16). Then the order of the picture getter's steps after decoding.
//
// Every picture shows four coloured quadrants (red, green / blue, white), so a thumbnail is
// right only when it is turned upright and cropped around its centre.
#include "qrb_exif_thumbnail_getter.h"
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
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace qrbmusictest;
using qrbtest::QuadrantJpeg;

const char kDataDir[] = "/opt/usr/apps/orvale/data/";

// A JPEG of an upright sw x sh scene stored for orient (0: no tag; the byte order alternates
// with it), optionally with an embedded tw x th thumbnail of the scene whose lower right
// quadrant is black.
std::string PictureFile(int orient, int sw, int sh, int tw = 0, int th = 0) {
    const bool sideways = orient >= 5 && orient <= 8;
    qrbtest::JpegSpec spec;
    spec.width = sideways ? sh : sw;
    spec.height = sideways ? sw : sh;
    spec.quality = 95;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    spec.storedFor = spec.orientation = orient;
    spec.bigEndian = orient % 2 == 0;
    spec.thumbWidth = sideways ? th : tw;
    spec.thumbHeight = sideways ? tw : th;
    spec.thumbScene = true;
    spec.thumbColor = {0, 0, 0};
    return qrbtest::MakeJpeg(spec);
}

std::string Mp3WithApic(const std::string& picture) {
    return Id3Tag(3, V23Frame("TIT2", std::string("\0Song", 5)) +
                         V23Frame("APIC", ApicBody("image/jpeg", picture))) +
           kAudio;
}

// An 8 x 4 BMP cover, red on the left half, green on the right.
std::string WmaWithHalves() {
    const std::string bmp =
        Bmp(8, 4, [](int x, int) -> uint32_t { return x < 4 ? 0xFF0000u : 0x00FF00u; });
    return AsfHeader({ExtContentDescription(
               {Descriptor("WM/Picture", 1, WmPictureValue(bmp, "image/bmp"))})}) +
           AsfObject(DataGuid(), kAudio);
}

// Two contents: the table's, whose picture names an item that is not there, and the box's,
// whose picture is the package's poster (item 4).
std::string TwoContentPackage(const std::string& poster) {
    const std::string urn = "urn:dece:container:imageindex:";
    qrbtest::PackageSpec spec;
    spec.items = {
        {1, "TableOfContents.XML", "", qrbtest::TableOfContentsXml("descriptive.xml"), true, 1},
        {2, "descriptive.xml", "",
         qrbtest::MetadataXml({{"TitleDisplay19", "first"}},
                              {{200, 100, urn + "99", "missing.jpg"}}),
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

// All rows go at once; each is answered once, upright, at its size, and no temporary file stays.
// Pictures: every orientation through every URI form at the requested size (0 x 0: the picture's
// own); an embedded thumbnail (under half its size is asked for, so it is used) is turned too.
// Songs: the cover is centre-cropped from the raster that covers the box (0 x 0: uncropped); one
// of 524287 bytes is the largest taken; a capitalised WMA extension is looked at as an MP3.
// Packages: the first content fails on its picture and the second's is taken.
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
        rows.push_back({form + file(name + ".jpg", PictureFile(orient, 160, 120)), kPic, dev, w, h,
                        w ? w : 160, w ? h : 120, "RGWB"});
        const std::string thumbed = file(name + "t.jpg", PictureFile(orient, 640, 480, 160, 120));
        if (orient) rows.push_back({thumbed, kPic, dev, 64, 48, 64, 48, "RGKB"});
    }
    const std::string mp3 = Mp3WithApic(QuadrantJpeg(200, 100));
    std::string limit = QuadrantJpeg(64, 32);
    limit.resize(CQRBID3ThumbnailGetter::kMaxCoverLength, '\0');  // bytes after the end marker
    ASSERT_EQ(limit.size(), 524287u);
    const std::string package = file("film.uvu", TwoContentPackage(QuadrantJpeg(200, 100)));
    const std::string broken = TwoContentPackage(std::string("\xFF\xD8\xFF\xE0", 4) + "no picture");
    rows.insert(rows.end(),
                {{file("song.mp3", mp3), kSong, kLocal, 50, 50, 50, 50, "RGWB"},
                 {file("own.mp3", mp3), kSong, kSerial, 0, 0, 200, 100, "RGWB"},
                 // Columns 2 to 5 of 8.
                 {file("song.wma", WmaWithHalves()), kSong, kLocal, 4, 4, 4, 4, "RGGR"},
                 {file("limit.mp3", Mp3WithApic(limit)), kSong, kLocal, 16, 16, 16, 16, "RGWB"},
                 {file("over.mp3", Mp3WithApic(limit + '\0')), kSong, kLocal, 16, 16, 0, 0, ""},
                 {file("bad.mp3", Mp3WithApic("not a picture")), kSong, kLocal, 16, 16, 0, 0, ""},
                 // The tag and its picture frame claim far more.
                 {file("cut.mp3", mp3.substr(0, 300)), kSong, kLocal, 16, 16, 0, 0, ""},
                 {file("SONG.WMA", WmaWithHalves()), kSong, kLocal, 16, 16, 0, 0, ""},
                 // The decoder covers the poster keeping its 2:1 shape; without both sides asked
                 // for, nothing is cropped.
                 {package, kPack, kLocal, 50, 50, 50, 50, "RGWB"},
                 {package, kPack, kLocal, 30, 80, 30, 80, "RGWB"},
                 {package, kPack, kLocal, 0, 10, 200, 100, "RGWB"},
                 {file("broken.uvu", broken), kPack, kLocal, 60, 40, 0, 0, ""},
                 {file("text.uvu", "no boxes here"), kPack, kLocal, 60, 40, 0, 0, ""}});
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
        const auto r = recorder.For(recorder.Tag(static_cast<int>(i)));
        ASSERT_EQ(r.size(), 1u) << c.url;
        EXPECT_EQ(r[0].status, *c.quadrants ? 0 : -1) << c.url;
        if (!*c.quadrants) continue;
        ASSERT_EQ(r[0].width, c.outW) << c.url << " at " << c.w << "x" << c.h;
        ASSERT_EQ(r[0].height, c.outH) << c.url << " at " << c.w << "x" << c.h;
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r[0].buffers[0], c.outW, c.outH)),
                  c.quadrants)
            << c.url << " at " << c.w << "x" << c.h;
    }
    EXPECT_TRUE(log.Contains("picture of 524288 bytes is over the limit of 524287"));
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=16"));
    // Written: four covers, the bad picture, three posters and the broken one; then removed.
    EXPECT_EQ(log.Count("Writing the data to flash"), 9);
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "temporary file left behind";
    for (const std::string& name : {CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), 0),
                                    CQRBID3ThumbnailGetter::m_WMATempName(getpid(), 0)}) {
        EXPECT_TRUE(
            log.Contains("Writing the data to flash ,path is " + name.substr(0, name.size() - 9)));
    }
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ID3TempName(123, 7),
              root.Resolve(kDataDir) + "mus0012300007.jpg");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_WMATempName(123, 7),
              root.Resolve(kDataDir) + "mus12300007.jpg");
    EXPECT_EQ(CQRBSCSAThumbnailGetter::m_TempName(4321, 7),
              root.Resolve(kDataDir) + "scsa432100007.jpg");
}

// The worked cases: the turn comes before the cover and the centre crop; a 0 x 0 request is
// turned but neither scaled nor cropped.
TEST(ExifGetterStepsTest, TurnThenCoverThenCentreCrop) {
    const struct {
        int w, h, orient, reqW, reqH, outW, outH;
        const char* crop;  // logged, or "" for none
    } rows[] = {
        {426, 320, 1, 320, 320, 320, 320,
         "cropStartX=53, cropStartY=0, destWidth=320, destHeight=320"},
        {426, 320, 6, 320, 320, 320, 320,
         "cropStartX=0, cropStartY=53, destWidth=320, destHeight=320"},
        // Covered at 480 x 240 first.
        {100, 50, 0, 320, 240, 320, 240,
         "cropStartX=80, cropStartY=0, destWidth=320, destHeight=240"},
        {64, 48, 8, 0, 0, 48, 64, ""},
    };
    for (const auto& r : rows) {
        qrbtest::LogCapture log;
        auto* pixels = static_cast<unsigned char*>(calloc(static_cast<size_t>(r.w) * r.h, 4));
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(r.w, r.h, 32, r.w * 4, pixels, 0);  // the image frees the pixels
        CQRBExifThumbnailGetter::BringToRequest(*image, r.orient, r.reqW, r.reqH);
        EXPECT_EQ(image->GetWidth(), r.outW) << r.w << "x" << r.h;
        EXPECT_EQ(image->GetHeight(), r.outH) << r.w << "x" << r.h;
        EXPECT_EQ(log.Contains(*r.crop ? r.crop : "cropStartX"), *r.crop != 0) << r.w;
    }
}

}  // namespace
