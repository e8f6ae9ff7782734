// The picture getter: the order of its steps after decoding, then JPEG files the tests write
// (libjpeg, with an EXIF orientation and, where wanted, an embedded thumbnail) through the
// getter and the C interface.
//
// The pictures show an upright scene of four coloured quadrants stored the way a camera held
// in the given orientation would, so a thumbnail is upright only when the orientation is
// applied correctly.
#include "qrb_exif_thumbnail_getter.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using qrbtest::Raster;

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

Raster Extract(CQRBThumbnailGetter& getter, const std::string& url, int w, int h) {
    _stExtractInfo info;
    info.strURL = url;
    info.width = w;
    info.height = h;
    return qrbtest::RasterOf(getter.ExtractThumbnail(info));
}

// The worked cases: the turn comes before the cover and the centre crop; a 0 x 0 request is
// turned but neither scaled nor cropped.
TEST(ExifGetterStepsTest, TurnThenCoverThenCentreCrop) {
    const struct {
        int w, h, orient, reqW, reqH, outW, outH;
        const char* scale;  // logged, or "" for none
        const char* crop;
    } rows[] = {
        {426, 320, 1, 320, 320, 320, 320, "",
         "cropStartX=53, cropStartY=0, destWidth=320, destHeight=320"},
        {426, 320, 6, 320, 320, 320, 320, "",
         "cropStartX=0, cropStartY=53, destWidth=320, destHeight=320"},
        {100, 50, 0, 320, 240, 320, 240, " in width: 100, in height:50, out width: 480, out height: 240",
         "cropStartX=80, cropStartY=0, destWidth=320, destHeight=240"},
        {64, 48, 8, 0, 0, 48, 64, "", ""},
    };
    for (const auto& r : rows) {
        qrbtest::LogCapture log;
        auto* pixels = static_cast<unsigned char*>(calloc(static_cast<size_t>(r.w) * r.h, 4));
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(r.w, r.h, 32, r.w * 4, pixels, 0);  // the image frees the pixels
        CQRBExifThumbnailGetter::BringToRequest(*image, r.orient, r.reqW, r.reqH);
        EXPECT_EQ(image->GetWidth(), r.outW) << r.w << "x" << r.h;
        EXPECT_EQ(image->GetHeight(), r.outH) << r.w << "x" << r.h;
        EXPECT_EQ(log.Contains(*r.scale ? r.scale : " in width:"), *r.scale != 0) << r.w;
        EXPECT_EQ(log.Contains(*r.crop ? r.crop : "cropStartX"), *r.crop != 0) << r.w;
    }
}

class ExifGetterFileTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        EXPECT_FALSE(bytes.empty()) << "could not make " << name;
        return root.WriteFile("pictures/" + name, bytes);
    }

    qrbtest::ScratchRoot root;
    CQRBExifThumbnailGetter getter{MEDIA_JPEG_EXTRACT_MODE0};
};

// Every orientation, through every URI form, at the requested size (0 x 0: the picture's own);
// an embedded thumbnail (under half its size is asked for, so it is used) is turned too.
TEST_F(ExifGetterFileTest, EveryOrientationComesOutUpright) {
    for (int orient = 0; orient <= 8; ++orient) {
        const std::string path =
            Write("scene_" + std::to_string(orient) + ".jpg", PictureFile(orient, 160, 120));
        const struct {
            std::string url;
            int w, h;
        } requests[] = {{path, 64, 48}, {"file://" + path, 30, 60}, {"file://1" + path, 0, 0}};
        for (const auto& q : requests) {
            const Raster a = Extract(getter, q.url, q.w, q.h);
            ASSERT_EQ(a.width, q.w == 0 ? 160 : q.w) << q.url;
            ASSERT_EQ(a.height, q.h == 0 ? 120 : q.h) << q.url;
            EXPECT_EQ(qrbtest::Quadrants(a), "RGWB") << q.url << " at " << q.w << "x" << q.h;
        }
        if (orient == 0) continue;
        const std::string withThumb = Write("thumb_" + std::to_string(orient) + ".jpg",
                                            PictureFile(orient, 640, 480, 160, 120));
        const Raster small = Extract(getter, withThumb, 64, 48);
        ASSERT_EQ(small.width, 64);
        EXPECT_EQ(qrbtest::Quadrants(small), "RGKB") << "orientation " << orient;
    }
}

TEST_F(ExifGetterFileTest, MissingOrBrokenPicturesGiveNoItem) {
    for (const std::string& url : {root.Path() + "/pictures/none.jpg",
                                   Write("text.jpg", "this is not a picture at all"),
                                   std::string(), std::string("file://")}) {
        EXPECT_TRUE(Extract(getter, url, 64, 48).Empty()) << url;
    }
    // A truncated picture may decode partly or fail; an image that comes back has the size.
    const std::string whole = PictureFile(3, 320, 240);
    const Raster cut = Extract(getter, Write("cut.jpg", whole.substr(0, whole.size() / 3)), 64, 48);
    EXPECT_TRUE(cut.Empty() || (cut.width == 64 && cut.height == 48));
}

// A local picture (kind 0) on the multi variant, a serial-device one (kind 13) on the single.
TEST_F(ExifGetterFileTest, PictureRequestsThroughTheCInterfaceComeBackUpright) {
    ASSERT_EQ(thumbnail_init(), 0);
    qrbtest::CallbackRecorder recorder;
    const std::string path = Write("c_7.jpg", PictureFile(7, 320, 240));
    for (qrb_extend_dev_type dev : {DEV_TYPE_LOCAL, DEV_TYPE_SERIAL_FIRST}) {
        const auto r = recorder.Request(path, MEDIA_TYPE_PICTURE, dev, 64, 48);
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], 64, 48)), "RGWB") << dev;
    }
    thumbnail_finalize();
}

}  // namespace
