// The picture getter: the order of its steps after decoding, then JPEG files the tests write
// (libjpeg, with an EXIF orientation and, where wanted, an embedded thumbnail) through the C
// interface.
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

#include <chrono>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

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

// The worked cases: the turn comes before the cover and the centre crop; a 0 x 0 request is
// turned but neither scaled nor cropped.
TEST(ExifGetterStepsTest, TurnThenCoverThenCentreCrop) {
    const struct {
        int w, h, orient, reqW, reqH, outW, outH;
        const char* crop;  // logged, or "" for none
    } rows[] = {
        {426, 320, 1, 320, 320, 320, 320, "cropStartX=53, cropStartY=0, destWidth=320, destHeight=320"},
        {426, 320, 6, 320, 320, 320, 320, "cropStartX=0, cropStartY=53, destWidth=320, destHeight=320"},
        // Covered at 480 x 240 first.
        {100, 50, 0, 320, 240, 320, 240, "cropStartX=80, cropStartY=0, destWidth=320, destHeight=240"},
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

// Every orientation comes out upright through the C interface (a local picture is kind 0 on the
// multi variant, one on a serial device kind 13 on the single), through every URI form, at the
// requested size (0 x 0: the picture's own); an embedded thumbnail (under half its size is asked
// for, so it is used) is turned too. Missing and broken pictures fail once.
TEST(ExifGetterTest, EveryOrientationComesOutUprightThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    struct Row {
        std::string url;
        int w, h;
        const char* quadrants;  // "": fails
    };
    std::vector<Row> rows = {{root.Path() + "/pictures/none.jpg", 64, 48, ""},
                             {root.WriteFile("pictures/text.jpg", "not a picture at all"), 64, 48, ""},
                             {"file://", 64, 48, ""}};
    const std::pair<const char*, std::pair<int, int>> forms[] = {{"", {64, 48}}, {"file://", {30, 60}},
                                                                 {"file://1", {0, 0}}};
    for (int orient = 0; orient <= 8; ++orient) {
        const std::string name = "pictures/" + std::to_string(orient);
        const auto& [form, size] = forms[orient % 3];
        rows.push_back({form + root.WriteFile(name + ".jpg", PictureFile(orient, 160, 120)), size.first,
                        size.second, "RGWB"});
        if (orient) rows.push_back({root.WriteFile(name + "_thumb.jpg", PictureFile(orient, 640, 480, 160, 120)),
                                    64, 48, "RGKB"});
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        thumbnail_request_async(rows[i].url.c_str(), MEDIA_TYPE_PICTURE, i % 2 ? DEV_TYPE_LOCAL : DEV_TYPE_SERIAL_FIRST,
                                0, rows[i].w, rows[i].h, 0, 1, &qrbtest::CallbackRecorder::Callback,
                                recorder.Tag(static_cast<int>(i)));
    }
    ASSERT_TRUE(recorder.WaitForCount(rows.size(), std::chrono::seconds(60)));
    thumbnail_finalize();
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto r = recorder.For(recorder.Tag(static_cast<int>(i)));
        ASSERT_EQ(r.size(), 1u) << rows[i].url;
        EXPECT_EQ(r[0].status, *rows[i].quadrants ? 0 : -1) << rows[i].url;
        if (!*rows[i].quadrants) continue;
        EXPECT_EQ(r[0].width, rows[i].w ? rows[i].w : 160) << rows[i].url;
        EXPECT_EQ(r[0].height, rows[i].w ? rows[i].h : 120) << rows[i].url;
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r[0].buffers[0], r[0].width, r[0].height)), rows[i].quadrants)
            << rows[i].url << " at " << rows[i].w << "x" << rows[i].h;
    }
}

}  // namespace
