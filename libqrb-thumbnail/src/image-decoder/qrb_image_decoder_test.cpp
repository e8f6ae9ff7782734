// The picture decoder on JPEG files from libjpeg or ImageMagick: source, size, scaling, failures.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace qrbpicturetest;
using qrbtest::JpegColor;
using qrbtest::JpegSpec;
using qrbtest::MakeJpeg;

// Every pixel within tolerance of c and opaque.
bool AllNear(const Raster& img, JpegColor c, int tolerance = 6) {
    for (size_t i = 0; i < img.pixels.size(); i += 4) {
        const uint8_t* p = &img.pixels[i];
        if (std::abs(p[2] - c.r) > tolerance || std::abs(p[1] - c.g) > tolerance ||
            std::abs(p[0] - c.b) > tolerance || p[3] != 255)
            return false;
    }
    return !img.Empty();
}

class ImageDecoderTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        return scratch.WriteFile(name, bytes);
    }
    ScratchRoot scratch;
    qrbtest::LogCapture log;
};

TEST_F(ImageDecoderTest, UriFormsReachTheFileAndFailuresSayWhy) {
    const std::string path = Write("a.jpg", MakeJpeg(JpegSpec{}));
    for (const std::string& uri : {"file://1" + path, "file://" + path, path})
        EXPECT_EQ(32, DecodePicture(uri, 32, 24).width) << uri;
    // Only behind file:// is the format sniffed: a bare path is taken for a JPEG.
    const std::string png = PictureFixture("stored_40x30.png");
    EXPECT_EQ(40, DecodePicture("file://" + png, 40, 30).width);
    const struct {
        std::string uri;
        const char* logged;
    } failures[] = {
        {png, "Parse false or it is not a jpg file"},
        {"file://" + scratch.Path() + "/missing.jpg", ":   OPEN ERROR"},
        {"file://" + Write("one.jpg", "\xFF"), "READ ERROR 1"},
        {"ptp://001;002;3", "INVALID WIDTH AND HEIGHT"},  // never decoded here
    };
    for (const auto& c : failures) {
        log.Clear();
        EXPECT_TRUE(DecodePicture(c.uri, 64, 64).Empty()) << c.uri;
        EXPECT_TRUE(log.Contains(c.logged)) << c.uri;
    }
    // Asked directly, a PTP object is answered 0 with nothing decoded, an HTTP picture fails.
    unsigned char pixel[4] = {7, 7, 7, 7};
    EXPECT_EQ(0, CQRBImageDecoder("ptp://001;002;3", 64, 64, 0, false).ExtractThumbnail(pixel));
    EXPECT_EQ(-1, CQRBImageDecoder("http://a.invalid/a", 64, 64, 0, false).ExtractThumbnail(pixel));
    EXPECT_EQ(7, pixel[0]);
    for (const char* logged : {"Read PTP thumbnail error! ", "Read HTTP image thumbnail error! "})
        EXPECT_TRUE(log.Contains(logged)) << logged;
    qrb_picture_thumb_param param;
    int w = 5, h = 5;
    EXPECT_EQ(nullptr, CQRBImageProcessor::GetThumbnailBuffer(nullptr, param, &w, &h, nullptr));
    EXPECT_EQ(0, w + h);
    EXPECT_TRUE(log.Contains("URL IS NULL"));
}

constexpr auto kExif = CQRBImageDecoder::kTypeExif;
constexpr auto kLarge = CQRBImageDecoder::kTypeLarge;
constexpr auto kFull = CQRBImageDecoder::kTypeFullDecoding;
constexpr auto kTooLarge = CQRBImageDecoder::kTypeTooLarge;

// Photos declaring w x h with EXIF and APP2 thumbnails (0: none): the source and output size.
TEST_F(ImageDecoderTest, ChoosesTheSourceAndOutputSize) {
    const struct {
        int w, h, thumbW, thumbH, largeW, largeH, reqW, reqH, forceFull, type, outW, outH;
    } cases[] = {
        // The small EXIF thumbnail is taken even at twice its size when nothing else qualifies.
        {4000, 3000, 160, 120, 0, 0, 320, 240, false, kExif, 320, 240},
        {500, 400, 160, 120, 0, 0, 320, 240, false, kFull, 320, 256},  // under twice
        // A large thumbnail beside an EXIF one: full decode; alone, it serves under twice its size.
        {4000, 3000, 160, 120, 640, 480, 400, 300, false, kFull, 400, 300},
        {4000, 3000, 160, 120, 640, 480, 200, 150, false, kExif, 200, 150},
        {4000, 3000, 0, 0, 640, 480, 1279, 959, false, kLarge, 1279, 959},
        {4000, 3000, 0, 0, 640, 480, 1280, 960, false, kFull, 1280, 960},
        {4000, 3000, 160, 120, 640, 480, 160, 120, true, kFull, 160, 120},
        // Requests above 4096 both ways are refused; one way above is still a request.
        {4000, 3000, 160, 120, 0, 0, 5000, 5000, false, kTooLarge, 6666, 5000},
        {4000, 3000, 160, 120, 0, 0, 4097, 100, false, kExif, 4097, 3072},
        {20000, 1000, 0, 0, 0, 0, 1920, 1080, false, kFull, 21600, 1080},  // a panorama
        {65535, 1, 0, 0, 0, 0, 0, 0, false, kFull, 65535, 1},              // its own size
        // Covers of absurd size are refused (one raster bound, 2^28 pixels), not wrapped.
        {65535, 1, 0, 0, 0, 0, 4096, 4096, false, kFull, 0, 0},
        {65535, 1, 0, 0, 0, 0, -320, 240, false, kFull, 0, 0},
    };
    for (const auto& c : cases) {
        JpegSpec spec;
        spec.thumbWidth = c.thumbW;
        spec.thumbHeight = c.thumbH;
        spec.largeThumbWidth = c.largeW;
        spec.largeThumbHeight = c.largeH;
        const std::string path = Write("big.jpg", JpegDeclaring(MakeJpeg(spec), c.w, c.h));
        SCOPED_TRACE(::testing::Message()
                     << c.w << "x" << c.h << " at " << c.reqW << "x" << c.reqH);
        log.Clear();
        CQRBImageDecoder decoder(path.c_str(), c.reqW, c.reqH, 0, c.forceFull);
        EXPECT_EQ(c.type, decoder.m_GetThumbnailType());
        EXPECT_TRUE(log.Contains("THUMBNAIL TYPE[" + std::to_string(c.type) + "] RET["));
        EXPECT_EQ(c.outW * 100000LL + c.outH,
                  decoder.GetOutputWidth() * 100000LL + decoder.GetOutputHeight());
        if (c.type == kTooLarge) {
            unsigned char out[16];
            EXPECT_EQ(-1, decoder.ExtractThumbnail(out));
            EXPECT_TRUE(log.Contains("Read ReadHomePanleThumbnail error! "));
        }
        if (c.outW == 0 && c.reqW > 0) {
            EXPECT_TRUE(DecodePicture(path, c.reqW, c.reqH).Empty());
            EXPECT_TRUE(log.Contains("refused: more than 268435456 pixels"));
        }
    }
}

TEST_F(ImageDecoderTest, ScalesByTheDctAsMuchAsTheSourceAllowsAndEnlargesSmallOnes) {
    const struct {
        const char* file;
        int w, h, reqW, reqH, outW, outH;
        const char* logged;
    } cases[] = {
        {nullptr, 4000, 3000, 320, 320, 426, 320,
         "decodeheight=3000, decodewidth=4000, uScaledHeight=375, uScaledWidth=500"},    // 1/8
        {nullptr, 400, 300, 80, 60, 80, 60, "uScaledHeight=75, uScaledWidth=100"},       // 1/4
        {nullptr, 400, 300, 150, 112, 150, 112, "uScaledHeight=150, uScaledWidth=200"},  // 1/2
        {nullptr, 400, 300, 200, 150, 200, 150, "uScaledHeight=300, uScaledWidth=400"},  // not 1/2
        {nullptr, 32, 24, 128, 96, 128, 96, "uScaledHeight=24, uScaledWidth=32"},        // enlarged
        {"progressive_444_4000x3000.jpg", 0, 0, 0, 0, 4000, 3000, "bytes of coefficients"},
        {"progressive_422_6000x4000.jpg", 0, 0, 320, 240, 360, 240, "bytes of coefficients"},
        {"progressive_420_6000x4000.jpg", 0, 0, 4096, 4096, 6144, 4096, "bytes of coefficients"},
    };
    for (const auto& c : cases) {
        JpegSpec spec{c.w, c.h, 50};
        spec.pattern = qrbtest::JpegPattern::kQuadrants;
        const std::string path = c.file ? PictureFixture(c.file) : Write("q.jpg", MakeJpeg(spec));
        log.Clear();
        const Raster img = DecodePicture(path, c.reqW, c.reqH);
        EXPECT_EQ(c.outW * 10000 + c.outH, img.width * 10000 + img.height) << path;
        EXPECT_TRUE(log.Contains(c.logged)) << c.logged;
        EXPECT_EQ("RGWB", qrbtest::Quadrants(img)) << path << " at " << c.reqW;
    }
}

// Grey gives R = G = B; CMYK and YCCK give their first three samples unconverted.
TEST_F(ImageDecoderTest, DecodesEveryColourModel) {
    const std::pair<const char*, JpegColor> cases[] = {{"colour_rgb.jpg", {200, 40, 40}},
                                                       {"colour_grey.jpg", {92, 92, 92}},
                                                       {"colour_ycck.jpg", {255, 51, 52}}};
    for (const auto& [file, want] : cases)
        for (int scale : {1, 2})  // at the picture's size, and DCT-scaled
            EXPECT_TRUE(
                AllNear(DecodePicture(PictureFixture(file), 48 / scale, 32 / scale), want, 4))
                << file << " at 1/" << scale;
}

TEST_F(ImageDecoderTest, DecodesTheSourceItChoseAndReportsOrientation) {
    JpegSpec spec{1600, 1200, 50};
    spec.color = {255, 0, 0};
    spec.thumbWidth = 160;
    spec.thumbHeight = 120;
    spec.thumbColor = {0, 255, 0};
    spec.orientation = 6;
    const std::string path = Write("t.jpg", MakeJpeg(spec));
    EXPECT_TRUE(AllNear(DecodePicture(path, 160, 120), {0, 255, 0}));        // EXIF thumbnail
    EXPECT_TRUE(AllNear(DecodePicture(path, 160, 120, true), {255, 0, 0}));  // forced
    EXPECT_TRUE(AllNear(DecodePicture(path, 801, 601), {255, 0, 0}));        // under twice
    EXPECT_EQ(6, DecodePicture(path, 800, 600).orientation);
    // A zero request chooses the EXIF thumbnail, enlarged to the picture's size.
    const Raster own = DecodePicture(path, 0, 0);
    EXPECT_EQ(1600 * 10000 + 1200, own.width * 10000 + own.height);
    EXPECT_TRUE(AllNear(own, {0, 255, 0}));

    JpegSpec large{1600, 1200, 50};
    large.largeThumbWidth = 640;
    large.largeThumbHeight = 480;
    large.largeThumbColor = {0, 0, 255};
    log.Clear();
    EXPECT_TRUE(AllNear(DecodePicture(Write("large.jpg", MakeJpeg(large)), 300, 225), {0, 0, 255}));
    EXPECT_TRUE(log.Contains("uScaledHeight=240, uScaledWidth=320"));  // 640 x 480 at 1/2
    // A frame header of height 0 (size left to a later DNL marker): nothing to request.
    CQRBImageDecoder decoder(Write("zero.jpg", JpegDeclaring(MakeJpeg(JpegSpec{}), 64, 0)).c_str(),
                             0, 0, 0, false);
    unsigned char out[16];
    EXPECT_EQ(-1, decoder.ExtractThumbnail(out));
    EXPECT_TRUE(log.Contains("invalid height or width!"));
}

TEST_F(ImageDecoderTest, BrokenFilesFailOrYieldWhatLibjpegDecoded) {
    JpegSpec spec{640, 480, 50};
    spec.thumbWidth = 160;
    spec.thumbHeight = 120;
    // An IFD1 range ending before the thumbnail's scan: no reading on into the picture.
    const std::string thumb = MakeJpeg(JpegSpec{160, 120, 50});
    const std::string main = MakeJpeg(JpegSpec{640, 480, 50});
    const std::string cut = Write(
        "cut-thumb.jpg", main.substr(0, 2) +
                             qrbtest::ExifSegment(spec, thumb.substr(0, thumb.find("\xFF\xDA"))) +
                             main.substr(2));
    EXPECT_EQ(kExif, CQRBImageDecoder(cut.c_str(), 160, 120, 0, false).m_GetThumbnailType());
    EXPECT_TRUE(DecodePicture(cut, 160, 120).Empty());
    EXPECT_TRUE(log.Contains("Read exif thumbnail error! "));
    // A thumbnail without a readable frame header is none: the picture is decoded.
    std::string noSize = MakeJpeg(spec);
    noSize[noSize.find("\xFF\xC0") + 1] = '\xC3';  // the thumbnail's frame header comes first
    EXPECT_TRUE(AllNear(DecodePicture(Write("no-size.jpg", noSize), 160, 120), spec.color));

    const std::string bytes = MakeJpeg(JpegSpec{128, 96, 50});
    const size_t sos = bytes.find("\xFF\xDA");
    log.Clear();
    EXPECT_TRUE(DecodePicture(Write("headers.jpg", bytes.substr(0, sos)), 64, 48).Empty());
    for (const char* logged : {"libjpeg error: ", "Read full decoding thumbnail error! ",
                               "THUMBNAIL EXTRACTION HAS FAILED"})
        EXPECT_TRUE(log.Contains(logged)) << logged;
    // Half the scan: a truncated photo still yields its decoded part, as libjpeg allows.
    EXPECT_FALSE(
        DecodePicture(Write("half.jpg", bytes.substr(0, sos + (bytes.size() - sos) / 2)), 128, 96)
            .Empty());
}

}  // namespace
