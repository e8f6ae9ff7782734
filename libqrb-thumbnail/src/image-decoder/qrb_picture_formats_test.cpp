// HEIF, AVIF, WebP, GIF and TIFF fixtures, and HEIF files no tool makes (irot/imir, a thumbnail
// unlike the picture) written with libheif.
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>
#include <libheif/heif.h>

#include <algorithm>
#include <string>

// x265 (libheif's HEVC encoder, used only here) keeps a few kilobytes per encoder to the end.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace {

using namespace qrbpicturetest;
using qrbtest::Quadrants;  // quadrant centres clockwise from the top left: upright is "RGWB"

// 640 x 480: the quadrants, or black.
heif_image* HeifPicture(bool quadrants) {
    static const uint8_t colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    heif_image* image = nullptr;
    heif_image_create(640, 480, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, 640, 480, 8);
    int stride = 0;
    uint8_t* rows = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x)
            for (int k = 0; k < 3; ++k)
                rows[y * stride + x * 3 + k] =
                    quadrants ? colours[(y >= 240) * 2 + (x >= 320)][k] : 0;
    return image;
}

// The quadrants recorded with `orientation` and a black thumbnail fitting thumbBox (0: none).
std::string MakeHeic(ScratchRoot& scratch, int orientation, int thumbBox) {
    const std::string path = scratch.Path() + "/o.heic";
    heif_context* ctx = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    heif_encoding_options* options = heif_encoding_options_alloc();
    options->image_orientation = static_cast<heif_orientation>(orientation);
    heif_image* picture = HeifPicture(true);
    heif_image* thumb = HeifPicture(false);
    heif_image_handle* handle = nullptr;
    heif_image_handle* thumbHandle = nullptr;
    const bool ok =
        heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder).code ==
            heif_error_Ok &&
        heif_encoder_set_lossy_quality(encoder, 90).code == heif_error_Ok &&
        heif_context_encode_image(ctx, picture, encoder, options, &handle).code == heif_error_Ok &&
        (thumbBox == 0 ||
         heif_context_encode_thumbnail(ctx, thumb, handle, encoder, options, thumbBox, &thumbHandle)
                 .code == heif_error_Ok) &&
        heif_context_write_to_file(ctx, path.c_str()).code == heif_error_Ok;
    for (heif_image_handle* h : {handle, thumbHandle})
        if (h != nullptr) heif_image_handle_release(h);
    heif_image_release(thumb);
    heif_image_release(picture);
    if (encoder != nullptr) heif_encoder_release(encoder);
    heif_encoding_options_free(options);
    heif_context_free(ctx);
    return ok ? "file://" + path : std::string();
}

// Every fixture at 160 x 120: quadrants, orientation, alpha 255, 128 (GIF: 255), 0, 255.
TEST(PictureFormatTest, EveryFixtureDecodesAsStoredAtTheRequestedSize) {
    for (const std::string name :
         {"quad.heic",        "quad_thumb.heic",       "quad_alpha.heic",   "quad_10bit.heic",
          "quad.avif",        "quad_alpha.avif",       "quad.webp",         "quad_lossless.webp",
          "quad_alpha.webp",  "quad_lossy_alpha.webp", "quad_orient6.webp", "quad_anim.webp",
          "quad.gif",         "quad_interlaced.gif",   "quad_alpha.gif",    "quad_anim.gif",
          "quad.tif",         "quad_lzw.tif",          "quad_tiled.tif",    "quad_jpeg.tif",
          "quad_16bit.tif",   "quad_cmyk.tif",         "quad_alpha.tif",    "quad_orient6.tif",
          "quad_pyramid.tif", "quad_subifd.tif"}) {
        const int orientation = name.find("orient6") != std::string::npos ? 6 : 0;
        const Raster r = DecodePicture(Fixture(name), 160, 120);
        ASSERT_EQ(160 * 120, r.width * r.height) << name;
        EXPECT_EQ(std::max(orientation, 1), std::max(r.orientation, 1)) << name;
        if (name.find("_alpha") == std::string::npos) {
            EXPECT_EQ("RGWB", Quadrants(r)) << name;
            continue;
        }
        EXPECT_EQ("RGW", Quadrants(r).substr(0, 3)) << name;  // bottom left is transparent
        const int alpha[4] = {r.At(40, 30)[3], r.At(120, 30)[3], r.At(40, 90)[3], r.At(120, 90)[3]};
        const int want[4] = {255, name.find(".gif") != std::string::npos ? 255 : 128, 0, 255};
        for (int i = 0; i < 4; ++i) EXPECT_NEAR(want[i], alpha[i], 8) << name << " quadrant " << i;
    }
}

TEST(PictureFormatTest, SizeRulesAreThoseOfEveryPicture) {
    for (const char* file : {"quad.heic", "quad.webp", "quad.gif", "quad.tif"}) {
        const std::string url = Fixture(file);
        const struct {
            int reqW, reqH, outW, outH;
        } sizes[] = {{320, 320, 426, 320}, {0, 0, 640, 480}, {1280, 960, 1280, 960}};
        for (const auto& s : sizes) {
            const Raster r = DecodePicture(url, s.reqW, s.reqH);
            EXPECT_EQ(s.outW * 10000 + s.outH, r.width * 10000 + r.height)
                << file << " at " << s.reqW;
            EXPECT_EQ("RGWB", Quadrants(r)) << file << " at " << s.reqW;
        }
        EXPECT_TRUE(DecodePicture(url, 5000, 5000).Empty()) << file;
    }
    // The name never decides.
    ScratchRoot scratch;
    const std::string webp =
        scratch.WriteFile("really-a-webp.jpg", ReadFileBytes(Fixture("quad.webp").substr(7)));
    EXPECT_EQ("RGWB", Quadrants(DecodePicture("file://" + webp, 160, 120)));
    qrbtest::JpegSpec spec;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    const std::string jpeg = scratch.WriteFile("really-a-jpeg.heic", qrbtest::MakeJpeg(spec));
    EXPECT_EQ("RGWB", Quadrants(DecodePicture("file://" + jpeg, 32, 24)));
}

TEST(PictureFormatTest, GifFrameSitsOnItsCanvasWithTheRestTransparent) {
    // An 800 x 600 canvas with the 640 x 480 quadrants at (80, 60); at 200 x 150, a quarter.
    const Raster r = DecodePicture(Fixture("quad_offset.gif"), 200, 150);
    ASSERT_EQ(200 * 150, r.width * r.height);
    EXPECT_EQ(0, r.At(5, 5)[3] + r.At(195, 145)[3]);
    qrbtest::Raster inner = qrbtest::CropCentre(r, 160, 120);
    EXPECT_EQ("RGWB", Quadrants(inner));
}

TEST(PictureFormatTest, TiffReducedPageThatServesIsDecodedInsteadOfThePicture) {
    // Reduced pages: black at half size, a red square (another picture), blue at a quarter.
    const std::string url = Fixture("quad_pages.tif");
    EXPECT_EQ("RGWB", Quadrants(DecodePicture(url, 160, 120, true))) << "forceFull skips them";
    const struct {
        int w, h;
        const char* want;
    } rows[] = {
        {160, 120, "BBBB"},  // the smallest page that covers the request
        {100, 75, "BBBB"},   // the square is another picture's shape
        {300, 200, "KKKK"},  // covered by the half page only
        {400, 300, "KKKK"},  // nothing covers it: the largest page that serves
        {640, 480, "RGWB"},  // no reduced page serves
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.want, Quadrants(DecodePicture(url, row.w, row.h))) << row.w;
    for (const char* file : {"quad_pyramid.tif", "quad_subifd.tif"}) {  // pages as tools write them
        qrbtest::LogCapture log;
        EXPECT_EQ("RGWB", Quadrants(DecodePicture(Fixture(file), 160, 120))) << file;
        EXPECT_TRUE(log.Contains("page 160 x 120 chosen")) << file;
    }
}

// irot/imir are applied while decoding; a black 200 x 150 thumbnail serves under twice its size.
TEST(PictureFormatTest, HeifTransformsAndThumbnail) {
    ScratchRoot scratch;
    const struct {
        int orientation, thumbBox, reqW, reqH, forceFull, w, h;
        const char* want;
    } rows[] = {
        {2, 0, 0, 0, false, 640, 480, "GRBW"},    // imir: left and right swapped
        {6, 0, 0, 0, false, 480, 640, "BRGW"},    // a quarter turn clockwise
        {1, 200, 399, 299, false, 0, 0, "KKKK"},  // 0: size not checked
        {1, 200, 160, 120, true, 0, 0, "RGWB"},  {1, 200, 400, 299, false, 0, 0, "RGWB"},
        {1, 200, 0, 0, false, 640, 480, "RGWB"},
    };
    for (const auto& row : rows) {
        const std::string url = MakeHeic(scratch, row.orientation, row.thumbBox);
        const Raster r = DecodePicture(url, row.reqW, row.reqH, row.forceFull);
        EXPECT_TRUE(!row.w || row.w * 10000 + row.h == r.width * 10000 + r.height) << r.width;
        EXPECT_EQ(0, r.orientation) << "nothing is left to turn";
        EXPECT_EQ(row.want, Quadrants(r)) << row.orientation << " at " << row.reqW;
    }
}

}  // namespace
