// HEIF, AVIF, WebP, GIF and TIFF through the one picture entry (GetThumbnailBuffer), from files
// made by heif-enc, cwebp, img2webp, ImageMagick, exiftool and vips
// (testdata/make_format_fixtures.sh), and from files the tests write with libheif and libtiff
// where no tool makes them: a HEIF turned by irot or mirrored by imir, a thumbnail or a reduced
// page that differs from the picture so that the test can see which one was decoded.
#include "image-decoder/qrb_picture_reader.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_exif_thumbnail_getter.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>
#include <libheif/heif.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

// x265, which only these tests use (libheif's HEVC encoder, to write HEIF files), keeps a few
// kilobytes per encoder until the process ends; LeakSanitizer builds are told it is not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;
using qrbpicturetest::ReadFileBytes;
using qrbpicturetest::ScratchDir;

std::string Fixture(const std::string& name) {
    return std::string("file://") + QRB_FORMAT_FIXTURE_DIR + "/" + name;
}

struct Rgb {
    int r, g, b;
};
constexpr Rgb kRed{255, 0, 0};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kBlue{0, 0, 255};
constexpr Rgb kWhite{255, 255, 255};
constexpr Rgb kYellow{255, 255, 0};
constexpr Rgb kCyan{0, 255, 255};
constexpr Rgb kMagenta{255, 0, 255};

// Colour and alpha at (x, y) within lossy tolerance; "" when they match, else what was found.
std::string Check(const Raster& r, int x, int y, Rgb want, int alpha = 255) {
    const uint8_t* p = r.At(x, y);  // blue, green, red, alpha
    const bool colour = std::abs(p[2] - want.r) < 48 && std::abs(p[1] - want.g) < 48 &&
                        std::abs(p[0] - want.b) < 48;
    const bool opaque = std::abs(p[3] - alpha) < 8;
    if ((colour || alpha == 0) && opaque) return "";
    return "(" + std::to_string(x) + "," + std::to_string(y) + ") is rgba " +
           std::to_string(p[2]) + "," + std::to_string(p[1]) + "," + std::to_string(p[0]) + "," +
           std::to_string(p[3]) + "; ";
}

// The four quadrant centres of a raster against four colours (and alphas).
std::string Quadrants(const Raster& r, Rgb tl, Rgb tr, Rgb bl, Rgb br,
                      const int alpha[4] = nullptr) {
    static const int kOpaque[4] = {255, 255, 255, 255};
    const int* a = alpha != nullptr ? alpha : kOpaque;
    const int w = r.width;
    const int h = r.height;
    return Check(r, w / 4, h / 4, tl, a[0]) + Check(r, 3 * w / 4, h / 4, tr, a[1]) +
           Check(r, w / 4, 3 * h / 4, bl, a[2]) + Check(r, 3 * w / 4, 3 * h / 4, br, a[3]);
}

std::string StoredQuadrants(const Raster& r, const int alpha[4] = nullptr) {
    return Quadrants(r, kRed, kGreen, kBlue, kWhite, alpha);
}

// ---- files the tests write

using PixelFn = std::function<Rgb(int x, int y, int w, int h)>;

Rgb QuadrantPixel(int x, int y, int w, int h) {
    if (y < h / 2) return x < w / 2 ? kRed : kGreen;
    return x < w / 2 ? kBlue : kWhite;
}

PixelFn Solid(Rgb c) {
    return [c](int, int, int, int) { return c; };
}

void FreeHeifImage(heif_image* image) { heif_image_release(image); }

heif_image* HeifPicture(int w, int h, const PixelFn& pixel) {
    heif_image* image = nullptr;
    if (heif_image_create(w, h, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image).code !=
        heif_error_Ok) {
        return nullptr;
    }
    heif_image_add_plane(image, heif_channel_interleaved, w, h, 8);
    int stride = 0;
    uint8_t* rows = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const Rgb c = pixel(x, y, w, h);
            uint8_t* p = rows + static_cast<size_t>(y) * stride + x * 3;
            p[0] = static_cast<uint8_t>(c.r);
            p[1] = static_cast<uint8_t>(c.g);
            p[2] = static_cast<uint8_t>(c.b);
        }
    }
    return image;
}

// A HEIC of the quadrants at w x h recorded with `orientation` (irot/imir), with a thumbnail of
// one colour fitting thumbBox when thumbBox is non-zero. Empty when libheif refused.
std::string MakeHeic(ScratchDir& scratch, const std::string& name, int w, int h, int orientation,
                     int thumbBox = 0, Rgb thumbColour = kYellow) {
    const std::string path = scratch.Path() + "/" + name;
    heif_context* ctx = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    heif_encoding_options* options = heif_encoding_options_alloc();
    heif_image* picture = HeifPicture(w, h, QuadrantPixel);
    heif_image* thumb = thumbBox != 0 ? HeifPicture(w, h, Solid(thumbColour)) : nullptr;
    bool ok = picture != nullptr && (thumbBox == 0 || thumb != nullptr) &&
              heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder).code ==
                  heif_error_Ok;
    heif_image_handle* handle = nullptr;
    if (ok) {
        heif_encoder_set_lossy_quality(encoder, 90);
        options->image_orientation = static_cast<heif_orientation>(orientation);
        ok = heif_context_encode_image(ctx, picture, encoder, options, &handle).code ==
             heif_error_Ok;
    }
    if (ok && thumb != nullptr) {
        heif_image_handle* thumbHandle = nullptr;
        ok = heif_context_encode_thumbnail(ctx, thumb, handle, encoder, options, thumbBox,
                                           &thumbHandle)
                     .code == heif_error_Ok &&
             thumbHandle != nullptr;
        if (thumbHandle != nullptr) heif_image_handle_release(thumbHandle);
    }
    ok = ok && heif_context_write_to_file(ctx, path.c_str()).code == heif_error_Ok;
    if (handle != nullptr) heif_image_handle_release(handle);
    if (thumb != nullptr) FreeHeifImage(thumb);
    if (picture != nullptr) FreeHeifImage(picture);
    if (encoder != nullptr) heif_encoder_release(encoder);
    heif_encoding_options_free(options);
    heif_context_free(ctx);
    return ok ? scratch.Write(name, ReadFileBytes(path)) : std::string();
}

struct TiffPage {
    int width;
    int height;
    bool reduced;
    PixelFn pixel;
};

// A TIFF of RGB pages, uncompressed, in the order given.
std::string MakeTiff(ScratchDir& scratch, const std::string& name,
                     const std::vector<TiffPage>& pages) {
    const std::string path = scratch.Path() + "/" + name;
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    if (tif == nullptr) return std::string();
    for (const TiffPage& page : pages) {
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 16);
        if (page.reduced) TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE);
        std::vector<uint8_t> row(static_cast<size_t>(page.width) * 3);
        for (int y = 0; y < page.height; ++y) {
            for (int x = 0; x < page.width; ++x) {
                const Rgb c = page.pixel(x, y, page.width, page.height);
                row[x * 3] = static_cast<uint8_t>(c.r);
                row[x * 3 + 1] = static_cast<uint8_t>(c.g);
                row[x * 3 + 2] = static_cast<uint8_t>(c.b);
            }
            TIFFWriteScanline(tif, row.data(), static_cast<uint32_t>(y), 0);
        }
        TIFFWriteDirectory(tif);
    }
    TIFFClose(tif);
    return scratch.Write(name, ReadFileBytes(path));
}

// ---- the first bytes decide

TEST(PictureFormatSniffTest, FirstBytesNameTheFormat) {
    const struct {
        std::string head;
        QRBPictureFormat want;
    } rows[] = {
        {"GIF89a\x80\x02\xE0\x01", QRBPictureFormat::kGif},
        {"GIF87a\x10\x00\x10\x00", QRBPictureFormat::kGif},
        {std::string("RIFF\x24\0\0\0WEBPVP8 ", 16), QRBPictureFormat::kWebp},
        {std::string("II*\0\x08\0\0\0", 8), QRBPictureFormat::kTiff},
        {std::string("MM\0*\0\0\0\x08", 8), QRBPictureFormat::kTiff},
        {std::string("II+\0\x08\0\0\0", 8), QRBPictureFormat::kTiff},  // BigTIFF
        {std::string("\0\0\0\x18" "ftypheic\0\0\0\0mif1heic", 24), QRBPictureFormat::kHeif},
        {std::string("\0\0\0\x1C" "ftypavif\0\0\0\0avifmif1miaf", 28), QRBPictureFormat::kHeif},
        {std::string("\0\0\0\x18" "ftypmif1\0\0\0\0mif1heic", 24), QRBPictureFormat::kHeif},
        // The same container holding a video or a song is no picture of these formats.
        {std::string("\0\0\0\x18" "ftypisom\0\0\x02\0isommp41", 24), QRBPictureFormat::kOther},
        {std::string("\0\0\0\x18" "ftypM4A \0\0\0\0M4A mp42", 24), QRBPictureFormat::kOther},
        {std::string("RIFF\x24\0\0\0WAVEfmt ", 16), QRBPictureFormat::kOther},
        {"\xFF\xD8\xFF\xE0", QRBPictureFormat::kOther},
        {"\x89PNG\r\n\x1A\n", QRBPictureFormat::kOther},
        {"GIF8", QRBPictureFormat::kOther},  // too short to tell
        {"", QRBPictureFormat::kOther},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.want,
                  QRBSniffPictureFormat(reinterpret_cast<const unsigned char*>(row.head.data()),
                                        row.head.size()))
            << row.head;
    }
}

// ---- every fixture at 160 x 120

struct FixtureCase {
    const char* file;
    int orientation;  // what the decoder reports; 1 and none (0) are both upright
    bool alpha;       // alpha 255, 128, 0, 255 by quadrant (GIF, all or nothing: 255, 255, 0, 255)
};

class PictureFormatFixtureTest : public ::testing::TestWithParam<FixtureCase> {};

TEST_P(PictureFormatFixtureTest, DecodesTheQuadrantsAsStoredAtTheRequestedSize) {
    const FixtureCase& c = GetParam();
    const Raster r = Decode(Fixture(c.file), 160, 120);
    ASSERT_FALSE(r.Empty()) << c.file;
    EXPECT_EQ(160, r.width);
    EXPECT_EQ(120, r.height);
    EXPECT_EQ(std::max(c.orientation, 1), std::max(r.orientation, 1));
    const bool gif = std::string(c.file).find(".gif") != std::string::npos;
    const int translucent[4] = {255, gif ? 255 : 128, 0, 255};
    EXPECT_EQ("", StoredQuadrants(r, c.alpha ? translucent : nullptr)) << c.file;
}

INSTANTIATE_TEST_SUITE_P(
    Files, PictureFormatFixtureTest,
    ::testing::Values(
        FixtureCase{"quad.heic", 0, false}, FixtureCase{"quad_thumb.heic", 0, false},
        FixtureCase{"quad_alpha.heic", 0, true}, FixtureCase{"quad_10bit.heic", 0, false},
        FixtureCase{"quad.avif", 0, false}, FixtureCase{"quad_alpha.avif", 0, true},
        FixtureCase{"quad.webp", 0, false}, FixtureCase{"quad_lossless.webp", 0, false},
        FixtureCase{"quad_alpha.webp", 0, true}, FixtureCase{"quad_lossy_alpha.webp", 0, true},
        FixtureCase{"quad_orient6.webp", 6, false}, FixtureCase{"quad_anim.webp", 0, false},
        FixtureCase{"quad.gif", 0, false}, FixtureCase{"quad_interlaced.gif", 0, false},
        FixtureCase{"quad_alpha.gif", 0, true}, FixtureCase{"quad_anim.gif", 0, false},
        FixtureCase{"quad.tif", 0, false}, FixtureCase{"quad_lzw.tif", 0, false},
        FixtureCase{"quad_tiled.tif", 0, false}, FixtureCase{"quad_jpeg.tif", 0, false},
        FixtureCase{"quad_16bit.tif", 0, false}, FixtureCase{"quad_cmyk.tif", 0, false},
        FixtureCase{"quad_alpha.tif", 0, true}, FixtureCase{"quad_orient6.tif", 6, false},
        FixtureCase{"quad_pyramid.tif", 0, false}, FixtureCase{"quad_subifd.tif", 0, false}),
    [](const ::testing::TestParamInfo<FixtureCase>& info) {
        std::string name = info.param.file;
        for (char& ch : name) {
            if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
        }
        return name;
    });

// ---- size rules shared with JPEG, PNG and BMP

class PictureFormatGeometryTest : public ::testing::TestWithParam<const char*> {};

TEST_P(PictureFormatGeometryTest, OutputCoversTheRequestWithThePicturesAspect) {
    const std::string url = Fixture(GetParam());
    const Raster square = Decode(url, 320, 320);
    EXPECT_EQ(426, square.width);
    EXPECT_EQ(320, square.height);
    EXPECT_EQ("", StoredQuadrants(square));
    // 0 x 0: the picture's own size.
    const Raster own = Decode(url, 0, 0);
    EXPECT_EQ(640, own.width);
    EXPECT_EQ(480, own.height);
    EXPECT_EQ("", StoredQuadrants(own));
    // Larger than the picture: enlarged.
    const Raster large = Decode(url, 1280, 960);
    EXPECT_EQ(1280, large.width);
    EXPECT_EQ(960, large.height);
    EXPECT_EQ("", StoredQuadrants(large));
    // Both sides above 4096 are refused, as for every picture.
    EXPECT_TRUE(Decode(url, 5000, 5000).Empty());
}

INSTANTIATE_TEST_SUITE_P(Formats, PictureFormatGeometryTest,
                         ::testing::Values("quad.heic", "quad.avif", "quad.webp",
                                           "quad_lossless.webp", "quad.gif", "quad.tif"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             return name.replace(name.find('.'), 1, "_");
                         });

TEST(PictureFormatTest, GifFrameSitsOnItsCanvasWithTheRestTransparent) {
    // An 800 x 600 canvas with the 640 x 480 quadrants at (80, 60); at 200 x 150, a quarter.
    const Raster r = Decode(Fixture("quad_offset.gif"), 200, 150);
    ASSERT_EQ(200, r.width);
    ASSERT_EQ(150, r.height);
    EXPECT_EQ("", Check(r, 5, 5, kRed, 0) + Check(r, 195, 145, kRed, 0));
    EXPECT_EQ("", Check(r, 60, 45, kRed) + Check(r, 140, 45, kGreen) + Check(r, 60, 105, kBlue) +
                      Check(r, 140, 105, kWhite));
}

TEST(PictureFormatTest, TheNameNeverDecides) {
    ScratchDir scratch;
    const std::string webp =
        scratch.Write("really-a-webp.jpg", ReadFileBytes(Fixture("quad.webp").substr(7)));
    EXPECT_EQ("", StoredQuadrants(Decode("file://" + webp, 160, 120)));
    qrbtest::JpegSpec spec;
    spec.width = 640;
    spec.height = 480;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    const std::string jpeg = scratch.Write("really-a-jpeg.heic", qrbtest::MakeJpeg(spec));
    EXPECT_EQ("", StoredQuadrants(Decode("file://" + jpeg, 160, 120)));
}

// ---- which source is decoded

TEST(PictureFormatSourceTest, HeifThumbnailServesRequestsUpToTwiceItsSize) {
    ScratchDir scratch;
    // 640 x 480 quadrants with a yellow 200 x 150 thumbnail.
    const std::string path = MakeHeic(scratch, "thumb.heic", 640, 480, 1, 200);
    ASSERT_FALSE(path.empty());
    const std::string url = "file://" + path;
    const struct {
        int w, h;
        bool thumbnail;
    } rows[] = {
        {160, 120, true}, {300, 200, true}, {399, 299, true},
        {400, 299, false},  // 400 is not less than twice 200
        {0, 0, false},      // the picture's own size
    };
    EXPECT_EQ("", StoredQuadrants(Decode(url, 160, 120, true))) << "forceFull skips it";
    for (const auto& row : rows) {
        const Raster r = Decode(url, row.w, row.h);
        ASSERT_FALSE(r.Empty()) << row.w << "x" << row.h;
        if (row.thumbnail) {
            EXPECT_EQ("", Quadrants(r, kYellow, kYellow, kYellow, kYellow)) << row.w;
        } else {
            EXPECT_EQ("", StoredQuadrants(r)) << row.w;
        }
    }
}

TEST(PictureFormatSourceTest, TiffReducedPageThatServesIsDecodedInsteadOfThePicture) {
    ScratchDir scratch;
    // The picture, then reduced pages: yellow at half size, cyan at a quarter, and a magenta
    // square that is not the same picture.
    const std::string url = "file://" + MakeTiff(scratch, "pages.tif",
                                                 {{640, 480, false, QuadrantPixel},
                                                  {320, 240, true, Solid(kYellow)},
                                                  {100, 100, true, Solid(kMagenta)},
                                                  {160, 120, true, Solid(kCyan)}});
    const struct {
        int w, h;
        Rgb want;  // kRed: the picture itself
    } rows[] = {
        {160, 120, kCyan},    // the smallest page that covers the request
        {100, 75, kCyan},     // magenta is another picture's shape
        {300, 200, kYellow},  // covered by yellow only (cyan serves, but short of it)
        {400, 300, kYellow},  // nothing covers it: the largest page that serves
        {640, 480, kRed},     // no reduced page serves
        {0, 0, kRed},
    };
    EXPECT_EQ("", StoredQuadrants(Decode(url, 160, 120, true))) << "forceFull skips them";
    for (const auto& row : rows) {
        const Raster r = Decode(url, row.w, row.h);
        ASSERT_FALSE(r.Empty()) << row.w << "x" << row.h;
        if (row.want.r == kRed.r && row.want.g == kRed.g && row.want.b == kRed.b) {
            EXPECT_EQ("", StoredQuadrants(r)) << row.w;
        } else {
            EXPECT_EQ("", Quadrants(r, row.want, row.want, row.want, row.want)) << row.w;
        }
    }
}

TEST(PictureFormatSourceTest, PyramidPagesOfToolsAreFound) {
    for (const char* file : {"quad_pyramid.tif", "quad_subifd.tif"}) {
        qrbtest::LogCapture log;
        const Raster r = Decode(Fixture(file), 160, 120);
        EXPECT_EQ("", StoredQuadrants(r)) << file;
        EXPECT_TRUE(log.Contains("page 160 x 120 chosen")) << file;
    }
}

// ---- orientation

TEST(PictureFormatOrientationTest, HeifTransformsAreAppliedWhileDecoding) {
    ScratchDir scratch;
    const struct {
        int orientation;
        int w, h;
        Rgb tl, tr, bl, br;
    } rows[] = {
        {1, 640, 480, kRed, kGreen, kBlue, kWhite},
        {2, 640, 480, kGreen, kRed, kWhite, kBlue},  // imir: left and right swapped
        {3, 640, 480, kWhite, kBlue, kGreen, kRed},  // irot 180
        {6, 480, 640, kBlue, kRed, kWhite, kGreen},  // a quarter turn clockwise
        {8, 480, 640, kGreen, kWhite, kRed, kBlue},  // a quarter turn counter-clockwise
    };
    for (const auto& row : rows) {
        const std::string path = MakeHeic(scratch, "o" + std::to_string(row.orientation) + ".heic",
                                          640, 480, row.orientation);
        ASSERT_FALSE(path.empty());
        const Raster r = Decode("file://" + path, 0, 0);
        EXPECT_EQ(row.w, r.width) << row.orientation;
        EXPECT_EQ(row.h, r.height) << row.orientation;
        EXPECT_EQ(0, r.orientation) << "nothing is left to turn";
        EXPECT_EQ("", Quadrants(r, row.tl, row.tr, row.bl, row.br)) << row.orientation;
    }
}

TEST(PictureFormatOrientationTest, PictureGetterShowsEveryFormatUpright) {
    ScratchDir scratch;
    const std::string heic = MakeHeic(scratch, "o6.heic", 640, 480, 6);
    ASSERT_FALSE(heic.empty());
    CQRBExifThumbnailGetter getter(MEDIA_JPEG_EXTRACT_MODE1);
    for (const std::string& url :
         {Fixture("quad_orient6.webp"), Fixture("quad_orient6.tif"), "file://" + heic}) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = 160;
        info.height = 120;
        const auto item = getter.ExtractThumbnail(info);
        ASSERT_TRUE(item && !item->GetImages().empty()) << url;
        const CQRBThumbImage& image = *item->GetImages()[0];
        Raster r;
        r.width = image.GetWidth();
        r.height = image.GetHeight();
        r.pixels.assign(image.GetBuffer(), image.GetBuffer() + r.width * r.height * 4);
        ASSERT_EQ(160, r.width) << url;
        ASSERT_EQ(120, r.height) << url;
        // Turned clockwise (480 x 640), covered (160 x 213) and cropped at the centre.
        EXPECT_EQ("", Check(r, 40, 20, kBlue) + Check(r, 120, 20, kRed) +
                          Check(r, 40, 100, kWhite) + Check(r, 120, 100, kGreen))
            << url;
    }
}

}  // namespace
