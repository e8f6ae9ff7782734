// The picture getter: the order of its steps on rasters built here, then real JPEG files that
// the tests write (libjpeg, with an EXIF block carrying the orientation and, where a test wants
// one, an embedded thumbnail), through the getter and the C interface; and the shared corpus's
// orientation samples when the corpus is present.
//
// The pictures show an upright scene of four coloured quadrants; each file stores it the way a
// camera held in the given orientation would, so the thumbnail is upright only when the getter
// applies the orientation correctly.
#include "qrb_exif_thumbnail_getter.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail_getter_factory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using qrbtest::Raster;

// A JPEG of an upright sw x sh scene stored for orient (0: no orientation tag; the byte order
// alternates with it), optionally with an embedded tw x th thumbnail showing the same scene
// with a black lower right quadrant.
std::string PictureFile(int orient, int sw, int sh, int tw = 0, int th = 0) {
    const bool sideways = orient >= 5 && orient <= 8;
    qrbtest::JpegSpec spec;
    spec.width = sideways ? sh : sw;
    spec.height = sideways ? sw : sh;
    spec.quality = 95;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    spec.storedFor = orient;
    spec.orientation = orient;
    spec.bigEndian = orient % 2 == 0;
    spec.thumbWidth = sideways ? th : tw;
    spec.thumbHeight = sideways ? tw : th;
    spec.thumbScene = true;
    spec.thumbColor = {0, 0, 0};
    return qrbtest::MakeJpeg(spec);
}

// Runs a getter on a file and returns its item's image (empty when none).
Raster Extract(CQRBThumbnailGetter& getter, const std::string& url, int w, int h) {
    _stExtractInfo info;
    info.strURL = url;
    info.width = w;
    info.height = h;
    return qrbtest::RasterOf(getter.ExtractThumbnail(info));
}

// ---- the steps after decoding

// Pixel (x, y) = (x & 255, y & 255, (x >> 8) | ((y >> 8) << 4), 255): every position distinct.
boost::intrusive_ptr<CQRBThumbImage> Positions(int w, int h) {
    auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            unsigned char* px = p + (static_cast<size_t>(y) * w + x) * 4;
            px[0] = static_cast<unsigned char>(x & 255);
            px[1] = static_cast<unsigned char>(y & 255);
            px[2] = static_cast<unsigned char>((x >> 8) | ((y >> 8) << 4));
            px[3] = 255;
        }
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 32, w * 4, p, 0);  // the image frees p
    return image;
}

// The source position recorded in pixel (x, y) of a raster made by Positions.
std::pair<int, int> PositionAt(const CQRBThumbImage& image, int x, int y) {
    const unsigned char* p =
        image.GetBuffer() + (static_cast<size_t>(y) * image.GetWidth() + x) * 4;
    return {p[0] | ((p[2] & 15) << 8), p[1] | ((p[2] >> 4) << 8)};
}

// Cover size and centre crop are tested on their own (image util, thumb image); what is the
// getter's is their order after the turn, and leaving a 0 x 0 request alone.
TEST(ExifGetterStepsTest, QuarterTurnComesBeforeTheCoverAndCentreCrop) {
    qrbtest::LogCapture log;
    auto image = Positions(426, 320);
    CQRBExifThumbnailGetter::BringToRequest(*image, 6, 320, 320);
    EXPECT_TRUE(log.Contains("outwidth=320, outheight=426"));
    EXPECT_FALSE(log.Contains(" in width:")) << "no scaling";
    EXPECT_TRUE(log.Contains("cropStartX=0, cropStartY=53, destWidth=320, destHeight=320"));
    ASSERT_EQ(image->GetWidth(), 320);
    ASSERT_EQ(image->GetHeight(), 320);
    // After a clockwise quarter turn, upright (x, y) shows source (y, 319 - x); the crop
    // starts 53 rows down.
    EXPECT_EQ(PositionAt(*image, 0, 0), std::make_pair(53, 319));
    EXPECT_EQ(PositionAt(*image, 319, 0), std::make_pair(53, 0));

    log.Clear();
    auto short_ = Positions(100, 50);
    CQRBExifThumbnailGetter::BringToRequest(*short_, 0, 320, 240);
    EXPECT_TRUE(log.Contains(" in width: 100, in height:50, out width: 480, out height: 240"));
    EXPECT_EQ(PositionAt(*short_, 0, 0), std::make_pair(80 * 100 / 480, 0));
}

TEST(ExifGetterStepsTest, OwnSizeRequestIsTurnedButNeitherScaledNorCropped) {
    qrbtest::LogCapture log;
    auto image = Positions(64, 48);
    const unsigned char* before = image->GetBuffer();
    CQRBExifThumbnailGetter::BringToRequest(*image, 1, 0, 0);
    EXPECT_EQ(image->GetBuffer(), before);
    auto turned = Positions(64, 48);
    CQRBExifThumbnailGetter::BringToRequest(*turned, 8, 0, 0);
    EXPECT_EQ(turned->GetWidth(), 48);
    EXPECT_EQ(turned->GetHeight(), 64);
    EXPECT_FALSE(log.Contains(" in width:"));
    EXPECT_FALSE(log.Contains("cropStartX"));
}

TEST(ExifGetterStepsTest, UriFormsBecomePaths) {
    CQRBExifThumbnailGetter getter(MEDIA_JPEG_EXTRACT_MODE0);
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file://1/tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:///tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("/tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:/tmp/a.jpg"), "file:/tmp/a.jpg");
}

// Kinds 0 and 13 mode 0, kind 3 mode 2, kind 4 mode 1; only mode 1 leaves the decoder's two
// flags clear.
TEST(ExifGetterFactoryTest, PictureKindsGetTheirExtractModesAndDecoderFlags) {
    const struct {
        qrb_media_thumbnail_type kind;
        _eMediaJPEGExtractMode mode;
    } rows[] = {{THUMB_PICTURE, MEDIA_JPEG_EXTRACT_MODE0},
                {THUMB_SERIAL_PICTURE, MEDIA_JPEG_EXTRACT_MODE0},
                {THUMB_PICTURE_MODE2, MEDIA_JPEG_EXTRACT_MODE2},
                {THUMB_PICTURE_MODE1, MEDIA_JPEG_EXTRACT_MODE1}};
    for (const auto& row : rows) {
        std::unique_ptr<CQRBThumbnailGetter> made(
            CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(row.kind));
        auto* exif = dynamic_cast<CQRBExifThumbnailGetter*>(made.get());
        ASSERT_NE(exif, nullptr) << row.kind;
        EXPECT_EQ(exif->GetExtractMode(), row.mode) << row.kind;
        const qrb_picture_thumb_param p = exif->MakeDecoderParam("file:///a.jpg", 320, 240);
        const int flags = row.mode == MEDIA_JPEG_EXTRACT_MODE1 ? 0 : 1;
        EXPECT_EQ(p.bModeFlag, flags) << row.kind;
        EXPECT_EQ(p.bDecoderFlag, flags) << row.kind;
        EXPECT_STREQ(p.path, "file:///a.jpg");
        EXPECT_EQ(p.width, 320);
        EXPECT_EQ(p.height, 240);
        EXPECT_FALSE(p.forceFull);
    }
}

// ---- real files through the getter

class ExifGetterFileTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        EXPECT_FALSE(bytes.empty()) << "could not make " << name;
        return root.WriteFile("pictures/" + name, bytes);
    }

    qrbtest::ScratchRoot root;
    CQRBExifThumbnailGetter getter{MEDIA_JPEG_EXTRACT_MODE0};
};

TEST_F(ExifGetterFileTest, EveryOrientationComesOutUprightAtExactlyTheRequestedSize) {
    const std::pair<int, int> requests[] = {{64, 48}, {40, 40}, {30, 60}, {0, 0}};
    for (int orient = 0; orient <= 8; ++orient) {
        const std::string path =
            Write("scene_" + std::to_string(orient) + ".jpg", PictureFile(orient, 160, 120));
        for (const auto& [w, h] : requests) {
            const Raster a = Extract(getter, path, w, h);
            ASSERT_EQ(a.width, w == 0 ? 160 : w) << "orientation " << orient;
            ASSERT_EQ(a.height, h == 0 ? 120 : h) << "orientation " << orient;
            EXPECT_EQ(qrbtest::Quadrants(a), "RGWB")
                << "orientation " << orient << ", " << w << "x" << h;
        }
    }
}

TEST_F(ExifGetterFileTest, EmbeddedThumbnailIsTurnedUprightToo) {
    for (int orient = 1; orient <= 8; ++orient) {
        const std::string path = Write("thumb_" + std::to_string(orient) + ".jpg",
                                       PictureFile(orient, 640, 480, 160, 120));
        // Under half the embedded thumbnail's size: the thumbnail (black quadrant) is used.
        const Raster small = Extract(getter, "file://" + path, 64, 48);
        ASSERT_EQ(small.width, 64) << orient;
        ASSERT_EQ(small.height, 48) << orient;
        EXPECT_EQ(qrbtest::Quadrants(small), "RGKB") << "orientation " << orient;
        // Twice its size or more, on a picture less than twice the request (compared as the
        // picture is stored, so square here): the whole picture (white quadrant).
        const Raster large = Extract(getter, "file://" + path, 400, 400);
        ASSERT_EQ(large.width, 400) << orient;
        ASSERT_EQ(large.height, 400) << orient;
        EXPECT_EQ(qrbtest::Quadrants(large), "RGWB") << "orientation " << orient;
    }
}

TEST_F(ExifGetterFileTest, SidewaysPictureIsCroppedFromACoverOfTheRequestAsStored) {
    // The decoder covers the request in the stored orientation; only then is the raster turned.
    // A 320 x 240 scene stored sideways (240 x 320) for 64 x 48 decodes at 64 x 85, turns to
    // 85 x 64, and its centre 64 x 48 is kept: the thumbnail shows the middle three quarters.
    qrbtest::LogCapture log;
    const std::string path = Write("sideways.jpg", PictureFile(6, 320, 240));
    const Raster a = Extract(getter, path, 64, 48);
    EXPECT_EQ(a.width, 64);
    EXPECT_EQ(a.height, 48);
    EXPECT_TRUE(log.Contains("outwidth=85, outheight=64"));
    EXPECT_FALSE(log.Contains(" in width:"));
    EXPECT_TRUE(log.Contains("cropStartX=10, cropStartY=8, destWidth=64, destHeight=48"));
    EXPECT_EQ(qrbtest::Quadrants(a), "RGWB");
    // 30 x 60 on the same picture: 45 x 60 turns to 60 x 45, which falls short of 60 rows and
    // is scaled to 80 x 60 before the crop.
    log.Clear();
    const Raster tall = Extract(getter, path, 30, 60);
    EXPECT_EQ(tall.width, 30);
    EXPECT_EQ(tall.height, 60);
    EXPECT_TRUE(log.Contains(" in width: 60, in height:45, out width: 80, out height: 60"));
    EXPECT_TRUE(log.Contains("cropStartX=25, cropStartY=0, destWidth=30, destHeight=60"));
    EXPECT_EQ(qrbtest::Quadrants(tall), "RGWB");
}

// Requests far above a thumbnail's size come back at exactly the size asked: only both sides
// above 4096 are refused. Every extract mode decodes the same picture.
TEST_F(ExifGetterFileTest, LargeRequestsAndEveryModeComeBackAtTheSizeAsked) {
    const struct {
        int orient, sw, sh, reqW, reqH;
    } cases[] = {{1, 3000, 4000, 3840, 2160},  // portrait on a 4K screen
                 {6, 3000, 4000, 3840, 2160},  // the same, stored sideways
                 {0, 8000, 400, 1920, 1080},   // a 20:1 panorama
                 {1, 400, 300, 4096, 4096}};
    for (const auto& c : cases) {
        const Raster a =
            Extract(getter, Write("large.jpg", PictureFile(c.orient, c.sw, c.sh)), c.reqW, c.reqH);
        ASSERT_EQ(a.width, c.reqW) << c.sw << "x" << c.sh;
        ASSERT_EQ(a.height, c.reqH) << c.sw << "x" << c.sh;
        EXPECT_EQ(qrbtest::Quadrants(a), "RGWB") << c.sw << "x" << c.sh;
    }
    const std::string path = Write("modes.jpg", PictureFile(8, 320, 240));
    for (auto mode :
         {MEDIA_JPEG_EXTRACT_MODE0, MEDIA_JPEG_EXTRACT_MODE1, MEDIA_JPEG_EXTRACT_MODE2}) {
        CQRBExifThumbnailGetter moded(mode);
        const Raster a = Extract(moded, path, 48, 48);
        ASSERT_EQ(a.width, 48) << mode;
        EXPECT_EQ(qrbtest::Quadrants(a), "RGWB") << mode;
    }
}

TEST_F(ExifGetterFileTest, MissingOrBrokenPicturesGiveNoItem) {
    const std::string whole = PictureFile(3, 320, 240);
    for (const std::string& url :
         {root.Path() + "/pictures/none.jpg", Write("text.jpg", "this is not a picture at all"),
          std::string(), std::string("file://")}) {
        EXPECT_EQ(Extract(getter, url, 64, 48).width, 0) << url;
    }
    // A truncated picture may decode partly or fail; either way nothing crashes, and an image
    // that does come back has the requested size.
    const Raster cut = Extract(getter, Write("cut.jpg", whole.substr(0, whole.size() / 3)), 64, 48);
    EXPECT_TRUE(cut.Empty() || cut.width == 64);
}

// Through the C interface: a local picture (kind 0) on the multi variant, a serial-device one
// (kind 13) on the one-at-a-time single variant.
TEST_F(ExifGetterFileTest, PictureRequestsThroughTheCInterfaceComeBackUpright) {
    ASSERT_EQ(thumbnail_init(), 0);
    qrbtest::CallbackRecorder recorder;
    const std::string path = Write("c_7.jpg", PictureFile(7, 320, 240));
    for (qrb_extend_dev_type dev : {DEV_TYPE_LOCAL, DEV_TYPE_SERIAL_FIRST}) {
        const auto r = recorder.Request(path, MEDIA_TYPE_PICTURE, dev, 64, 48);
        ASSERT_EQ(r.status, 0) << dev;
        ASSERT_EQ(r.count, 1);
        ASSERT_EQ(r.buffers[0].size(), 64u * 48 * 4);
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], 64, 48)), "RGWB") << dev;
    }
    thumbnail_finalize();
}

// ---- the shared corpus

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Mean absolute difference per colour byte of two rasters of one size.
double MeanDifference(const Raster& a, const Raster& b) {
    long long sum = 0, n = 0;
    for (size_t i = 0; i < a.pixels.size() && i < b.pixels.size(); ++i) {
        if (i % 4 == 3) continue;
        sum += std::abs(static_cast<int>(a.pixels[i]) - static_cast<int>(b.pixels[i]));
        ++n;
    }
    return n ? static_cast<double>(sum) / n : 255.0;
}

// The raster seen through one of the eight symmetries of a rectangle: (x, y) of the result
// shows (x, y) of a after an optional transposition (square rasters only), then optional
// swaps of left and right and of top and bottom.
Raster Symmetry(const Raster& a, bool transpose, bool flipX, bool flipY) {
    Raster m = a;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x) {
            int sx = flipX ? a.width - 1 - x : x;
            int sy = flipY ? a.height - 1 - y : y;
            if (transpose) std::swap(sx, sy);
            std::memcpy(&m.pixels[(static_cast<size_t>(y) * a.width + x) * 4],
                        &a.pixels[(static_cast<size_t>(sy) * a.width + sx) * 4], 4);
        }
    return m;
}

// Each sample shows one photograph, stored for its orientation, with its number drawn large
// on it, so no two thumbnails are equal. Corrected, a sample must match the upright sample 1
// better, by a clear margin, than any other symmetry of it would (all eight for a square
// request; the four that keep the shape otherwise). Non-square requests are checked for the
// samples stored upright or upside down only: a sideways sample is cropped from a larger
// cover (see SidewaysPictureIsCroppedFromACoverOfTheRequestAsStored), so it is not the same
// view as sample 1.
void CheckCorpusSet(CQRBThumbnailGetter& getter, const std::string& dir, const std::string& prefix,
                    int w, int h, int first) {
    const std::string reference = dir + "/" + prefix + "1.jpg";
    if (!Exists(reference)) return;
    const Raster upright = Extract(getter, reference, w, h);
    ASSERT_EQ(upright.width, w) << reference;
    ASSERT_EQ(upright.height, h) << reference;
    for (int n = first; n <= 8; ++n) {
        const std::string path = dir + "/" + prefix + std::to_string(n) + ".jpg";
        if (!Exists(path) || (w != h && n >= 5)) continue;
        const Raster a = Extract(getter, path, w, h);
        ASSERT_EQ(a.width, w) << path;
        ASSERT_EQ(a.height, h) << path;
        const double same = MeanDifference(upright, a);
        for (int t = 1; t < (w == h ? 8 : 4); ++t) {
            const double other = MeanDifference(upright, Symmetry(a, t & 4, t & 1, t & 2));
            EXPECT_LT(same, 0.8 * other) << path << " at " << w << "x" << h << ", symmetry " << t;
        }
    }
}

TEST(ExifGetterCorpusTest, OrientationSamplesComeOutUpright) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string landscapes = corpus + "/recurser-exif-orientation-examples";
    const std::string portraits = corpus + "/ianare-exif-samples/jpg/orientation";
    if (!Exists(landscapes + "/Landscape_1.jpg") && !Exists(portraits + "/portrait_1.jpg")) {
        GTEST_SKIP() << "the corpus has no orientation samples";
    }
    CQRBExifThumbnailGetter getter(MEDIA_JPEG_EXTRACT_MODE0);
    // Shown 1800 x 1200 and 450 x 600. Sets whose upright sample is missing are passed over.
    CheckCorpusSet(getter, landscapes, "Landscape_", 90, 90, 0);
    CheckCorpusSet(getter, landscapes, "Landscape_", 150, 100, 0);
    CheckCorpusSet(getter, portraits, "portrait_", 80, 80, 1);
    CheckCorpusSet(getter, portraits, "portrait_", 90, 120, 1);
    CheckCorpusSet(getter, portraits, "landscape_", 60, 60, 1);
}

}  // namespace
