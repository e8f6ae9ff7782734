// The picture decoder end to end on JPEG files the tests write with libjpeg: URI forms, the
// choice between EXIF thumbnail, large thumbnail and full decode, the output size, DCT scaling,
// direct sampling and enlargement, grey/CMYK/YCCK conversion, orientation, and its failures.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;
using qrbpicturetest::ScratchDir;
using qrbtest::JpegColor;
using qrbtest::JpegPattern;
using qrbtest::JpegSpec;
using qrbtest::MakeJpeg;

// Rewrites the size in the first SOF0/SOF2 of a JPEG: for tests that only parse headers, a
// 64 x 48 file can pass for a 4000 x 3000 one.
std::string WithFrameSize(std::string bytes, int width, int height) {
    for (size_t i = 2; i + 9 < bytes.size(); ++i) {
        const unsigned char a = static_cast<unsigned char>(bytes[i]);
        const unsigned char b = static_cast<unsigned char>(bytes[i + 1]);
        if (a == 0xFF && (b == 0xC0 || b == 0xC2)) {
            bytes[i + 5] = static_cast<char>(height >> 8);
            bytes[i + 6] = static_cast<char>(height & 0xFF);
            bytes[i + 7] = static_cast<char>(width >> 8);
            bytes[i + 8] = static_cast<char>(width & 0xFF);
            return bytes;
        }
        if (a == 0xFF && b >= 0xE0 && b <= 0xFE) {  // skip segments (thumbnails live in them)
            i += 1 + ((static_cast<unsigned char>(bytes[i + 2]) << 8) |
                      static_cast<unsigned char>(bytes[i + 3]));
        }
    }
    ADD_FAILURE() << "no frame header";
    return bytes;
}

// Every pixel within tolerance of (r, g, b) and opaque.
::testing::AssertionResult AllNear(const Raster& img, JpegColor c, int tolerance) {
    if (img.Empty()) return ::testing::AssertionFailure() << "no raster";
    for (int y = 0; y < img.height; ++y) {
        for (int x = 0; x < img.width; ++x) {
            const uint8_t* p = img.At(x, y);
            if (std::abs(p[2] - c.r) > tolerance || std::abs(p[1] - c.g) > tolerance ||
                std::abs(p[0] - c.b) > tolerance || p[3] != 255) {
                return ::testing::AssertionFailure()
                       << "pixel (" << x << ", " << y << ") is BGRA " << int(p[0]) << ","
                       << int(p[1]) << "," << int(p[2]) << "," << int(p[3]) << ", wanted RGB "
                       << int(c.r) << "," << int(c.g) << "," << int(c.b);
            }
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult Near(const Raster& img, int x, int y, JpegColor c, int tolerance) {
    const uint8_t* p = img.At(x, y);
    if (std::abs(p[2] - c.r) > tolerance || std::abs(p[1] - c.g) > tolerance ||
        std::abs(p[0] - c.b) > tolerance || p[3] != 255) {
        return ::testing::AssertionFailure()
               << "pixel (" << x << ", " << y << ") is RGB " << int(p[2]) << "," << int(p[1]) << ","
               << int(p[0]) << " alpha " << int(p[3]);
    }
    return ::testing::AssertionSuccess();
}

const JpegColor kRed{255, 0, 0};
const JpegColor kGreen{0, 255, 0};
const JpegColor kBlue{0, 0, 255};
const JpegColor kWhite{255, 255, 255};

class ImageDecoderTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        return scratch.Write(name, bytes);
    }
    std::string WriteJpeg(const std::string& name, const JpegSpec& spec) {
        const std::string bytes = MakeJpeg(spec);
        EXPECT_FALSE(bytes.empty());
        return Write(name, bytes);
    }
    ScratchDir scratch;
    qrbtest::LogCapture log;
};

// --- URI forms and sniffing --------------------------------------------------------------

TEST_F(ImageDecoderTest, FileUriWithTheOneQuirkOpensThePathAfterIt) {
    const std::string path = WriteJpeg("a.jpg", JpegSpec{});
    const std::string uri = "file://1" + path;
    CQRBImageDecoder decoder(uri.c_str(), 32, 24, 0, false);
    EXPECT_STREQ(path.c_str(), decoder.GetPath());
    EXPECT_TRUE(decoder.IsValid());
    const Raster img = Decode(uri, 32, 24);
    EXPECT_EQ(32, img.width);
    EXPECT_EQ(24, img.height);
    // The plain form and a bare path reach the same file.
    EXPECT_STREQ(path.c_str(),
                 CQRBImageDecoder(("file://" + path).c_str(), 8, 8, 0, false).GetPath());
    EXPECT_STREQ(path.c_str(), CQRBImageDecoder(path.c_str(), 8, 8, 0, false).GetPath());
    EXPECT_EQ(32, Decode(path, 32, 24).width);
}

TEST_F(ImageDecoderTest, SniffsBmpAndPngOnlyBehindFileUris) {
    const std::string png = Write("p.png", std::string("\x89PNG\r\n\x1a\n", 8));
    const std::string bmp = Write("b.bmp", "BM......");
    EXPECT_EQ(CQRBImageDecoder::kTypePng,
              CQRBImageDecoder(("file://" + png).c_str(), 8, 8, 0, false).m_GetThumbnailType());
    EXPECT_EQ(CQRBImageDecoder::kTypeBmp,
              CQRBImageDecoder(("file://" + bmp).c_str(), 8, 8, 0, false).m_GetThumbnailType());
    // A bare path is taken for a JPEG as it stands: this PNG then fails its JPEG parse.
    log.Clear();
    CQRBImageDecoder bare(png.c_str(), 8, 8, 0, false);
    EXPECT_FALSE(bare.IsValid());
    EXPECT_TRUE(log.Contains("Parse false or it is not a jpg file"));
}

TEST_F(ImageDecoderTest, PtpAndHttpUrisAreNeverDecodedHere) {
    CQRBImageDecoder ptp("ptp://001;002;3", 64, 64, 0, false);
    EXPECT_EQ(CQRBImageDecoder::kTypePtp, ptp.m_GetThumbnailType());
    EXPECT_STREQ("001;002;3", ptp.GetPath());
    unsigned char pixel[4] = {7, 7, 7, 7};
    EXPECT_EQ(0, ptp.ExtractThumbnail(pixel));  // answered 0 with nothing decoded
    EXPECT_EQ(7, pixel[0]);
    EXPECT_TRUE(log.Contains("Read PTP thumbnail error! "));

    CQRBImageDecoder http("http://example.invalid/a.jpg", 64, 64, 0, false);
    EXPECT_EQ(CQRBImageDecoder::kTypeHttp, http.m_GetThumbnailType());
    EXPECT_STREQ("example.invalid/a.jpg", http.GetPath());
    EXPECT_EQ(-1, http.ExtractThumbnail(pixel));
    EXPECT_TRUE(log.Contains("Read HTTP image thumbnail error! "));

    // Through the processor neither yields a raster.
    EXPECT_TRUE(Decode("ptp://001;002;3", 64, 64).Empty());
    EXPECT_TRUE(Decode("http://example.invalid/a.jpg", 64, 64).Empty());
    EXPECT_TRUE(log.Contains("INVALID WIDTH AND HEIGHT"));
}

TEST_F(ImageDecoderTest, UnreadableFilesFailWithTheirMessages) {
    const std::string missing = scratch.Path() + "/missing.jpg";
    CQRBImageDecoder absent(("file://" + missing).c_str(), 8, 8, 0, false);
    EXPECT_EQ(nullptr, absent.GetPath());
    EXPECT_FALSE(absent.IsValid());
    EXPECT_TRUE(log.Contains(missing + ":   OPEN ERROR"));
    EXPECT_TRUE(log.Contains("ERROR FOR OPEN THE FILE, errno is: "));

    const std::string one = Write("one.jpg", "\xFF");
    CQRBImageDecoder tiny(("file://" + one).c_str(), 8, 8, 0, false);
    EXPECT_FALSE(tiny.IsValid());
    EXPECT_TRUE(log.Contains("READ ERROR 1"));

    const std::string three = Write("three.jpg", "\xFF\xD8\xFF");
    EXPECT_FALSE(CQRBImageDecoder(three.c_str(), 8, 8, 0, false).IsValid());
    EXPECT_TRUE(log.Contains("error - file size : 3"));

    qrb_picture_thumb_param param;
    int w = 5;
    int h = 5;
    EXPECT_EQ(nullptr, CQRBImageProcessor::GetThumbnailBuffer(nullptr, param, &w, &h, nullptr));
    EXPECT_EQ(0, w);
    EXPECT_EQ(0, h);
    EXPECT_TRUE(log.Contains("URL IS NULL"));
}

// --- Source selection ---------------------------------------------------------------------

// Header-only stand-ins for big photos (the frame header says w x h) with an EXIF thumbnail
// and a large APP2 thumbnail of the given sizes (0: none).
struct SourceCase {
    int w, h, thumbW, thumbH, largeW, largeH;
    int reqW, reqH;
    bool forceFull;
    int type;
    unsigned outW, outH;  // 0: not checked
};

void PrintTo(const SourceCase& c, std::ostream* os) {
    *os << c.w << "x" << c.h << " thumb " << c.thumbW << " large " << c.largeW << " at " << c.reqW
        << "x" << c.reqH << (c.forceFull ? " forced" : "");
}

class ImageDecoderSourceTest : public ImageDecoderTest,
                               public ::testing::WithParamInterface<SourceCase> {};

TEST_P(ImageDecoderSourceTest, ChoosesTheSourceAndOutputSize) {
    const SourceCase c = GetParam();
    JpegSpec spec;
    spec.thumbWidth = c.thumbW;
    spec.thumbHeight = c.thumbH;
    spec.largeThumbWidth = c.largeW;
    spec.largeThumbHeight = c.largeH;
    const std::string path = Write("big.jpg", WithFrameSize(MakeJpeg(spec), c.w, c.h));
    CQRBImageDecoder decoder(path.c_str(), c.reqW, c.reqH, 0, c.forceFull);
    EXPECT_EQ(c.type, decoder.m_GetThumbnailType());
    EXPECT_TRUE(log.Contains("THUMBNAIL TYPE[" + std::to_string(c.type) + "] RET["));
    EXPECT_EQ(static_cast<unsigned>(c.thumbW), decoder.GetExifThumbnailWidth());
    EXPECT_EQ(static_cast<unsigned>(c.largeW), decoder.GetLargeThumbnailWidth());
    if (c.outW != 0) {
        EXPECT_EQ(c.outW, decoder.GetOutputWidth());
        EXPECT_EQ(c.outH, decoder.GetOutputHeight());
    }
    if (c.type == CQRBImageDecoder::kTypeTooLarge) {
        std::vector<unsigned char> out(16);
        EXPECT_EQ(-1, decoder.ExtractThumbnail(out.data()));
        EXPECT_TRUE(log.Contains("Read ReadHomePanleThumbnail error! "));
        EXPECT_TRUE(Decode(path, c.reqW, c.reqH).Empty());
    }
}

constexpr auto kExif = CQRBImageDecoder::kTypeExif;
constexpr auto kLarge = CQRBImageDecoder::kTypeLarge;
constexpr auto kFull = CQRBImageDecoder::kTypeFullDecoding;

INSTANTIATE_TEST_SUITE_P(
    Sources, ImageDecoderSourceTest,
    ::testing::Values(
        // The small EXIF thumbnail is taken even at or above twice its size when nothing
        // else qualifies; the output covers the request with the thumbnail's aspect.
        SourceCase{4000, 3000, 160, 120, 0, 0, 320, 240, false, kExif, 320, 240},
        SourceCase{4000, 3000, 160, 120, 0, 0, 300, 200, false, kExif, 300, 225},
        // A picture under twice the request is decoded whole.
        SourceCase{500, 400, 160, 120, 0, 0, 320, 240, false, kFull, 320, 256},
        // A large thumbnail beside an EXIF one means a full decode, unless the request is under
        // twice the EXIF thumbnail.
        SourceCase{4000, 3000, 160, 120, 640, 480, 400, 300, false, kFull, 0, 0},
        SourceCase{4000, 3000, 160, 120, 640, 480, 200, 150, false, kExif, 0, 0},
        // A large thumbnail alone serves requests under twice its size.
        SourceCase{4000, 3000, 0, 0, 640, 480, 1279, 959, false, kLarge, 1279, 959},
        SourceCase{4000, 3000, 0, 0, 640, 480, 1280, 960, false, kFull, 0, 0},
        // Forcing a full decode skips every embedded thumbnail.
        SourceCase{4000, 3000, 160, 120, 640, 480, 160, 120, true, kFull, 160, 120},
        // Requests above 4096 both ways are refused; one way above is still a request.
        SourceCase{4000, 3000, 160, 120, 0, 0, 5000, 5000, false, CQRBImageDecoder::kTypeTooLarge,
                   0, 0},
        SourceCase{4000, 3000, 160, 120, 0, 0, 4097, 100, false, kExif, 0, 0}));

TEST_F(ImageDecoderTest, ZeroRequestTakesThePicturesOwnSize) {
    const std::string path = WriteJpeg("own.jpg", JpegSpec{});
    const Raster img = Decode(path, 0, 0);
    EXPECT_EQ(64, img.width);
    EXPECT_EQ(48, img.height);
    EXPECT_TRUE(AllNear(img, JpegSpec{}.color, 3));

    // The source is chosen on the request as given (0 is below twice any thumbnail), and only
    // then does the request take the picture's size: the EXIF thumbnail, enlarged to it.
    JpegSpec withThumb;
    withThumb.width = 640;
    withThumb.height = 480;
    withThumb.thumbWidth = 160;
    withThumb.thumbHeight = 120;
    const std::string photo = WriteJpeg("own-thumb.jpg", withThumb);
    EXPECT_EQ(CQRBImageDecoder::kTypeExif,
              CQRBImageDecoder(photo.c_str(), 0, 0, 0, false).m_GetThumbnailType());
    const Raster fromThumb = Decode(photo, 0, 0);
    EXPECT_EQ(640, fromThumb.width);
    EXPECT_EQ(480, fromThumb.height);
    EXPECT_TRUE(AllNear(fromThumb, withThumb.thumbColor, 6));

    // A frame header of height 0 (size left to a later DNL marker): nothing to request.
    const std::string zero = Write("zero.jpg", WithFrameSize(MakeJpeg(JpegSpec{}), 64, 0));
    CQRBImageDecoder decoder(zero.c_str(), 0, 0, 0, false);
    EXPECT_EQ(0u, decoder.GetOutputWidth());
    std::vector<unsigned char> out(16);
    EXPECT_EQ(-1, decoder.ExtractThumbnail(out.data()));
    EXPECT_TRUE(log.Contains("invalid height or width!"));
}

// --- Output size --------------------------------------------------------------------------

// The output covers the request with the picture's aspect, overflowing it in one direction,
// whatever its size: one raster bound (2^28 pixels) refuses only absurd covers, computed
// without wrapping.
struct OutputSizeCase {
    int srcW, srcH, reqW, reqH;
    unsigned outW, outH;  // 0 x 0: refused
};

void PrintTo(const OutputSizeCase& c, std::ostream* os) {
    *os << c.srcW << "x" << c.srcH << " at " << c.reqW << "x" << c.reqH;
}

class ImageDecoderOutputSizeTest : public ImageDecoderTest,
                                   public ::testing::WithParamInterface<OutputSizeCase> {};

TEST_P(ImageDecoderOutputSizeTest, ExtremeAspectRatiosCannotOverflowTheOutputSize) {
    const OutputSizeCase c = GetParam();
    const std::string path =
        Write("extreme.jpg", WithFrameSize(MakeJpeg(JpegSpec{}), c.srcW, c.srcH));
    CQRBImageDecoder decoder(path.c_str(), c.reqW, c.reqH, 0, false);
    EXPECT_EQ(c.outW, decoder.GetOutputWidth());
    EXPECT_EQ(c.outH, decoder.GetOutputHeight());
    EXPECT_NE(CQRBImageDecoder::kTypeTooLarge, decoder.m_GetThumbnailType());
    if (c.outW == 0 && c.reqW > 0) {
        EXPECT_TRUE(Decode(path, c.reqW, c.reqH).Empty());
        EXPECT_TRUE(log.Contains("refused: more than 268435456 pixels"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ImageDecoderOutputSizeTest,
    ::testing::Values(
        OutputSizeCase{4000, 3000, 320, 320, 426, 320},  // overflows in width
        OutputSizeCase{4000, 3000, 320, 100, 320, 240},  // overflows in height
        OutputSizeCase{4000, 3000, 400, 300, 400, 300},  // same aspect: the request itself
        OutputSizeCase{4000, 3000, 1, 1, 1, 1}, OutputSizeCase{4000, 3000, 4096, 1, 4096, 3072},
        // Large requests come out at their cover size.
        OutputSizeCase{3000, 4000, 3840, 2160, 3840, 5120},    // a portrait photo on a 4K screen
        OutputSizeCase{20000, 1000, 1920, 1080, 21600, 1080},  // a 20:1 panorama
        OutputSizeCase{4000, 3000, 4096, 4096, 5461, 4096},
        OutputSizeCase{65535, 1, 0, 0, 65535, 1},  // its own size
        // 65535 x 1 covering 4096 x 4096 would be 268 million pixels wide; 1 x 65535 covering
        // 320 x 240 would be 21 million rows: refused, not wrapped.
        OutputSizeCase{65535, 1, 4096, 4096, 0, 0}, OutputSizeCase{1, 65535, 320, 240, 0, 0},
        OutputSizeCase{65535, 1, -320, 240, 0, 0}));  // a negative request is no size at all

// --- Decoding -----------------------------------------------------------------------------

TEST_F(ImageDecoderTest, DecodesA4000x3000PhotoAt426x320WithOneEighthScale) {
    JpegSpec spec;
    spec.width = 4000;
    spec.height = 3000;
    spec.quality = 50;
    spec.pattern = JpegPattern::kQuadrants;
    const std::string path = WriteJpeg("photo.jpg", spec);
    const Raster img = Decode(path, 320, 320);
    ASSERT_EQ(426, img.width);
    ASSERT_EQ(320, img.height);
    EXPECT_TRUE(
        log.Contains("decodeheight=3000, decodewidth=4000, uScaledHeight=375, uScaledWidth=500"));
    EXPECT_TRUE(Near(img, 100, 80, kRed, 8));
    EXPECT_TRUE(Near(img, 320, 80, kGreen, 8));
    EXPECT_TRUE(Near(img, 100, 240, kBlue, 8));
    EXPECT_TRUE(Near(img, 320, 240, kWhite, 8));
}

// Progressive photos as ImageMagick writes them (testdata/make_picture_fixtures.sh), in every
// common subsampling and up to 50 megapixels, decode at small, large and their own sizes.
struct ProgressiveCase {
    const char* file;
    int reqW, reqH;
    int outW, outH;
};

void PrintTo(const ProgressiveCase& c, std::ostream* os) {
    *os << c.file << " at " << c.reqW << "x" << c.reqH;
}

class ProgressivePhotoTest : public ImageDecoderTest,
                             public ::testing::WithParamInterface<ProgressiveCase> {};

TEST_P(ProgressivePhotoTest, DecodesAtTheRequestedSize) {
    const ProgressiveCase c = GetParam();
    const std::string path = std::string(QRB_PICTURE_FIXTURE_DIR) + "/" + c.file;
    const Raster img = Decode(path, c.reqW, c.reqH);
    ASSERT_EQ(c.outW, img.width) << c.file;
    ASSERT_EQ(c.outH, img.height) << c.file;
    EXPECT_TRUE(log.Contains("bytes of coefficients")) << "decoded as multi-scan";
    EXPECT_FALSE(log.Contains(" needs ")) << "no coefficient refusal";
    const int w = img.width;
    const int h = img.height;
    EXPECT_TRUE(Near(img, w / 4, h / 4, kRed, 12));
    EXPECT_TRUE(Near(img, w * 3 / 4, h / 4, kGreen, 12));
    EXPECT_TRUE(Near(img, w / 4, h * 3 / 4, kBlue, 12));
    EXPECT_TRUE(Near(img, w * 3 / 4, h * 3 / 4, kWhite, 12));
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, ProgressivePhotoTest,
    ::testing::Values(ProgressiveCase{"progressive_444_4000x3000.jpg", 320, 240, 320, 240},
                      ProgressiveCase{"progressive_444_4000x3000.jpg", 1920, 1080, 1920, 1440},
                      ProgressiveCase{"progressive_444_4000x3000.jpg", 0, 0, 4000, 3000},
                      ProgressiveCase{"progressive_422_6000x4000.jpg", 320, 240, 360, 240},
                      ProgressiveCase{"progressive_420_6000x4000.jpg", 320, 240, 360, 240},
                      ProgressiveCase{"progressive_420_6000x4000.jpg", 4096, 4096, 6144, 4096},
                      ProgressiveCase{"progressive_444_8688x5792.jpg", 320, 240, 360, 240}));

TEST_F(ImageDecoderTest, ScaleFactorFollowsHowMuchLargerTheSourceIs) {
    JpegSpec spec;
    spec.width = 400;
    spec.height = 300;
    spec.pattern = JpegPattern::kQuadrants;
    const std::string path = WriteJpeg("q.jpg", spec);
    struct Case {
        int reqW;
        const char* scaled;
    } cases[] = {{40, "uScaledHeight=38, uScaledWidth=50"},     // 400 > 8 x 40
                 {80, "uScaledHeight=75, uScaledWidth=100"},    // 400 > 4 x 80
                 {150, "uScaledHeight=150, uScaledWidth=200"},  // 400 > 2 x 150
                 {200, "uScaledHeight=300, uScaledWidth=400"}};
    for (const Case& c : cases) {
        log.Clear();
        const Raster img = Decode(path, c.reqW, c.reqW * 3 / 4);
        ASSERT_EQ(c.reqW, img.width);
        EXPECT_TRUE(log.Contains(c.scaled)) << c.reqW;
        EXPECT_TRUE(Near(img, img.width / 4, img.height / 4, kRed, 10)) << c.reqW;
        EXPECT_TRUE(Near(img, img.width * 3 / 4, img.height * 3 / 4, kWhite, 10)) << c.reqW;
    }
}

TEST_F(ImageDecoderTest, SmallPicturesAreEnlargedBilinearly) {
    JpegSpec spec;
    spec.width = 32;
    spec.height = 24;
    spec.pattern = JpegPattern::kQuadrants;
    const std::string path = WriteJpeg("small.jpg", spec);
    const Raster img = Decode(path, 128, 96);
    ASSERT_EQ(128, img.width);
    ASSERT_EQ(96, img.height);
    EXPECT_TRUE(Near(img, 10, 10, kRed, 10));
    EXPECT_TRUE(Near(img, 110, 10, kGreen, 10));
    EXPECT_TRUE(Near(img, 10, 85, kBlue, 10));
    EXPECT_TRUE(Near(img, 110, 85, kWhite, 10));
    // Blended across the vertical edge: neither pure red nor pure green.
    const uint8_t* edge = img.At(63, 10);
    EXPECT_GT(edge[2], 20);
    EXPECT_GT(edge[1], 20);
}

TEST_F(ImageDecoderTest, DecodesEveryColourModel) {
    struct Case {
        const char* name;
        bool progressive, grey, cmyk, ycck;
        JpegColor expected;
    } cases[] = {
        {"baseline", false, false, false, false, {200, 40, 40}},
        {"progressive", true, false, false, false, {200, 40, 40}},
        {"grey", false, true, false, false, {92, 92, 92}},  // luma of (200, 40, 40)
        {"grey-progressive", true, true, false, false, {92, 92, 92}},
        {"cmyk", false, false, true, false, {200, 40, 40}},  // first three bytes, unconverted
        {"ycck", false, false, true, true, {200, 40, 40}},
    };
    for (const Case& c : cases) {
        JpegSpec spec;
        spec.width = 48;
        spec.height = 32;
        spec.progressive = c.progressive;
        spec.grey = c.grey;
        spec.cmyk = c.cmyk;
        spec.ycck = c.ycck;
        const std::string path = WriteJpeg(std::string(c.name) + ".jpg", spec);
        EXPECT_TRUE(AllNear(Decode(path, 48, 32), c.expected, 4)) << c.name;
        EXPECT_TRUE(AllNear(Decode(path, 24, 16), c.expected, 4)) << c.name;
    }
}

TEST_F(ImageDecoderTest, UsesTheSourceItChose) {
    JpegSpec spec;
    spec.width = 1600;
    spec.height = 1200;
    spec.quality = 50;
    spec.color = {255, 0, 0};
    spec.thumbWidth = 160;
    spec.thumbHeight = 120;
    spec.thumbColor = {0, 255, 0};
    for (bool big : {false, true}) {
        spec.bigEndian = big;
        const std::string path = WriteJpeg(big ? "mm.jpg" : "ii.jpg", spec);
        EXPECT_TRUE(AllNear(Decode(path, 160, 120), kGreen, 6)) << big;      // EXIF thumbnail
        EXPECT_TRUE(AllNear(Decode(path, 160, 120, true), kRed, 6)) << big;  // forced full
        // Twice this request exceeds the picture: decoded whole. At 800 x 600 it would not.
        EXPECT_TRUE(AllNear(Decode(path, 801, 601), kRed, 6)) << big;
        EXPECT_TRUE(AllNear(Decode(path, 800, 600), kGreen, 6)) << big;
    }

    JpegSpec large;
    large.width = 1600;
    large.height = 1200;
    large.quality = 50;
    large.color = {255, 0, 0};
    large.largeThumbWidth = 640;
    large.largeThumbHeight = 480;
    large.largeThumbColor = {0, 0, 255};
    const std::string path = WriteJpeg("large.jpg", large);
    CQRBImageDecoder decoder(path.c_str(), 320, 240, 0, false);
    EXPECT_EQ(CQRBImageDecoder::kTypeLarge, decoder.m_GetThumbnailType());
    log.Clear();
    EXPECT_TRUE(AllNear(Decode(path, 320, 240), kBlue, 6));
    EXPECT_TRUE(log.Contains("uScaledHeight=480, uScaledWidth=640"));  // not more than twice
    log.Clear();
    EXPECT_TRUE(AllNear(Decode(path, 300, 225), kBlue, 6));
    EXPECT_TRUE(log.Contains("uScaledHeight=240, uScaledWidth=320"));  // 640 x 480 at 1/2
}

// The walk itself is tested on byte literals (both byte orders); here the orientation of IFD0,
// never the thumbnail's own, reaches the decoder's answer.
TEST_F(ImageDecoderTest, ReportsIfd0Orientation) {
    for (int orientation : {0, 1, 3, 6, 8, 9}) {
        JpegSpec spec;
        spec.orientation = orientation;
        spec.thumbWidth = 16;
        spec.thumbHeight = 12;
        spec.thumbOrientation = orientation == 3 ? 6 : 3;  // never the picture's
        const Raster img = Decode(WriteJpeg("o.jpg", spec), 64, 48);
        ASSERT_FALSE(img.Empty());
        EXPECT_EQ(orientation == 9 ? 0 : orientation, img.orientation);  // out of range: 0
    }
}

TEST_F(ImageDecoderTest, BrokenEmbeddedThumbnailFailsTheRequestItWasChosenFor) {
    JpegSpec spec;
    spec.width = 640;
    spec.height = 480;
    spec.thumbWidth = 160;
    spec.thumbHeight = 120;
    // The IFD1 range ends right before the thumbnail's scan: its size is readable, its pixels
    // are not, and the decoder must not read on into the picture around it.
    JpegSpec thumbSpec;
    thumbSpec.width = 160;
    thumbSpec.height = 120;
    const std::string thumb = MakeJpeg(thumbSpec);
    const std::string headersOnly = thumb.substr(0, thumb.find("\xFF\xDA"));
    JpegSpec plain = spec;
    plain.thumbWidth = plain.thumbHeight = 0;
    const std::string main = MakeJpeg(plain);
    const std::string path =
        Write("cut-thumb.jpg",
              main.substr(0, 2) + qrbtest::ExifSegment(spec, headersOnly) + main.substr(2));
    CQRBImageDecoder decoder(path.c_str(), 160, 120, 0, false);
    EXPECT_EQ(160u, decoder.GetExifThumbnailWidth());
    EXPECT_EQ(CQRBImageDecoder::kTypeExif, decoder.m_GetThumbnailType());
    EXPECT_TRUE(Decode(path, 160, 120).Empty());
    EXPECT_TRUE(log.Contains("Read exif thumbnail error! "));

    // A thumbnail whose frame header is unreadable is no thumbnail: the picture is decoded.
    std::string noSize = MakeJpeg(spec);
    const size_t sof = noSize.find("\xFF\xC0");  // the thumbnail's frame header comes first
    noSize[sof + 1] = '\xC3';
    const std::string fallback = Write("thumb-without-size.jpg", noSize);
    CQRBImageDecoder fallbackDecoder(fallback.c_str(), 160, 120, 0, false);
    EXPECT_EQ(0u, fallbackDecoder.GetExifThumbnailWidth());
    EXPECT_EQ(CQRBImageDecoder::kTypeFullDecoding, fallbackDecoder.m_GetThumbnailType());
    EXPECT_TRUE(AllNear(Decode(fallback, 160, 120), spec.color, 6));
}

TEST_F(ImageDecoderTest, LibjpegErrorsComeBackAsFailures) {
    JpegSpec spec;
    spec.width = 128;
    spec.height = 96;
    const std::string bytes = MakeJpeg(spec);
    const size_t sos = bytes.find("\xFF\xDA");
    ASSERT_NE(std::string::npos, sos);

    // Headers only: libjpeg finds no scan and errors out; the process goes on.
    const std::string headers = Write("headers.jpg", bytes.substr(0, sos));
    EXPECT_TRUE(Decode(headers, 64, 48).Empty());
    EXPECT_TRUE(log.Contains("libjpeg error: "));
    EXPECT_TRUE(log.Contains("Read full decoding thumbnail error! "));
    EXPECT_TRUE(log.Contains("THUMBNAIL EXTRACTION HAS FAILED"));

    // Half the scan: a truncated photo still yields its decoded part, as libjpeg allows.
    const std::string half = Write("half.jpg", bytes.substr(0, sos + (bytes.size() - sos) / 2));
    const Raster img = Decode(half, 128, 96);
    ASSERT_FALSE(img.Empty());
    EXPECT_TRUE(Near(img, 5, 5, spec.color, 4));
    EXPECT_TRUE(log.Contains("libjpeg warning: "));

    // A quantisation table reference that does not exist.
    std::string badTable = bytes;
    const size_t sof = badTable.find("\xFF\xC0");
    badTable[sof + 12] = '\x03';  // first component's quantisation table
    EXPECT_TRUE(Decode(Write("bad-table.jpg", badTable), 64, 48).Empty());
}

}  // namespace
