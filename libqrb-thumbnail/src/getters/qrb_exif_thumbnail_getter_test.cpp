// The picture getter: its geometry on rasters built here, then real JPEG files that the tests
// write (libjpeg, with an EXIF block carrying the orientation and, where a test wants one, an
// embedded thumbnail), through the getter, the worker path and the C interface; and the shared
// corpus's orientation samples when the corpus is present.
//
// The pictures show an upright scene of four coloured quadrants; each file stores it the way a
// camera held in the given orientation would, so the thumbnail is upright only when the getter
// applies the orientation correctly.
#include "qrb_exif_thumbnail_getter.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_extractor.h"
#include "qrb_thumbnail_getter_factory.h"
#include "qrb_thumbnail_service.h"

#include <gtest/gtest.h>

#include <jpeglib.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

// ---- rasters and scenes

struct Rgb {
    int r, g, b;
};

constexpr Rgb kRed{220, 30, 30};
constexpr Rgb kGreen{30, 200, 30};
constexpr Rgb kBlue{30, 30, 220};
constexpr Rgb kWhite{235, 235, 235};
constexpr Rgb kBlack{15, 15, 15};

const char* ColourName(const Rgb& c) {
    if (c.r == kRed.r && c.g == kRed.g) return "red";
    if (c.g == kGreen.g && c.r == kGreen.r) return "green";
    if (c.b == kBlue.b && c.r == kBlue.r) return "blue";
    if (c.r == kWhite.r) return "white";
    return "black";
}

// Red upper left, green upper right, blue lower left, lowerRight in the fourth quadrant.
Rgb Quadrants(int x, int y, int w, int h, const Rgb& lowerRight) {
    const bool left = x < w / 2;
    const bool top = y < h / 2;
    if (top) return left ? kRed : kGreen;
    return left ? kBlue : lowerRight;
}

// The scene point (of an upright sw x sh scene) that a camera's stored pixel (x, y) shows, for
// each EXIF orientation, from the tag's definition (which side of the scene the stored rows and
// columns run along). Orientations 5 to 8 store the scene sh wide and sw high.
void StoredToScene(int orient, int x, int y, int sw, int sh, int* sx, int* sy) {
    switch (orient) {
        case 2:
            *sx = sw - 1 - x;
            *sy = y;
            break;  // rows start at the right
        case 3:
            *sx = sw - 1 - x;
            *sy = sh - 1 - y;
            break;  // upside down
        case 4:
            *sx = x;
            *sy = sh - 1 - y;
            break;  // rows from the bottom
        case 5:
            *sx = y;
            *sy = x;
            break;  // rows down the left side
        case 6:
            *sx = sw - 1 - y;
            *sy = x;
            break;  // rows down the right side
        case 7:
            *sx = sw - 1 - y;
            *sy = sh - 1 - x;
            break;  // rows up the right side
        case 8:
            *sx = y;
            *sy = sh - 1 - x;
            break;  // rows up the left side
        default:
            *sx = x;
            *sy = y;
            break;
    }
}

struct RgbRaster {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;  // 3 bytes a pixel
};

RgbRaster StoredScene(int orient, int sw, int sh, const Rgb& lowerRight) {
    RgbRaster r;
    const bool sideways = orient >= 5 && orient <= 8;
    r.width = sideways ? sh : sw;
    r.height = sideways ? sw : sh;
    r.rgb.resize(static_cast<size_t>(r.width) * r.height * 3);
    for (int y = 0; y < r.height; ++y)
        for (int x = 0; x < r.width; ++x) {
            int sx = 0, sy = 0;
            StoredToScene(orient, x, y, sw, sh, &sx, &sy);
            const Rgb c = Quadrants(sx, sy, sw, sh, lowerRight);
            unsigned char* p = &r.rgb[(static_cast<size_t>(y) * r.width + x) * 3];
            p[0] = static_cast<unsigned char>(c.r);
            p[1] = static_cast<unsigned char>(c.g);
            p[2] = static_cast<unsigned char>(c.b);
        }
    return r;
}

// ---- JPEG and EXIF writing

struct TestJpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

void OnTestJpegError(j_common_ptr cinfo) {
    longjmp(reinterpret_cast<TestJpegError*>(cinfo->err)->jump, 1);
}

// Only C state lives in this frame, so the jump back from libjpeg skips no destructor. The
// encoded bytes are malloc'ed by libjpeg's memory destination and freed by the caller.
bool CompressFrame(const RgbRaster& raster, unsigned char** mem, unsigned long* size) {
    jpeg_compress_struct cinfo;
    TestJpegError err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = OnTestJpegError;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, mem, size);
    cinfo.image_width = static_cast<JDIMENSION>(raster.width);
    cinfo.image_height = static_cast<JDIMENSION>(raster.height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 95, TRUE);
    cinfo.write_JFIF_header = FALSE;  // the EXIF segment is the first after SOI, as cameras write
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<unsigned char*>(
            &raster.rgb[static_cast<size_t>(cinfo.next_scanline) * raster.width * 3]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

std::string EncodeJpeg(const RgbRaster& raster) {
    unsigned char* mem = nullptr;
    unsigned long size = 0;
    const bool ok = CompressFrame(raster, &mem, &size);
    std::unique_ptr<unsigned char, decltype(&free)> owned(mem, &free);
    if (!ok || mem == nullptr) return std::string();
    return std::string(reinterpret_cast<char*>(mem), size);
}

// Byte writer for TIFF structures in either byte order.
class TiffWriter {
public:
    explicit TiffWriter(bool bigEndian) : m_Big(bigEndian) {}
    void U16(unsigned v) {
        if (m_Big)
            Put({v >> 8, v});
        else
            Put({v, v >> 8});
    }
    void U32(unsigned long v) {
        if (m_Big)
            Put({v >> 24, v >> 16, v >> 8, v});
        else
            Put({v, v >> 8, v >> 16, v >> 24});
    }
    // One 12-byte directory entry; a SHORT value sits in the first two bytes of its field.
    void Entry(unsigned tag, unsigned type, unsigned long value) {
        U16(tag);
        U16(type);
        U32(1);
        if (type == 3) {
            U16(static_cast<unsigned>(value));
            U16(0);
        } else {
            U32(value);
        }
    }
    void Bytes(const std::string& s) { m_Out += s; }
    const std::string& Out() const { return m_Out; }

private:
    void Put(std::initializer_list<unsigned long> bytes) {
        for (unsigned long b : bytes) m_Out.push_back(static_cast<char>(b & 0xFF));
    }
    bool m_Big;
    std::string m_Out;
};

// An APP1 segment: "Exif\0\0", a TIFF header, IFD0 with the orientation (when non-zero) and,
// when thumbnail is not empty, IFD1 pointing at it as a JPEG interchange stream.
std::string ExifSegment(int orient, bool bigEndian, const std::string& thumbnail) {
    TiffWriter t(bigEndian);
    t.Bytes(bigEndian ? "MM" : "II");
    t.U16(42);
    t.U32(8);
    const unsigned ifd0Entries = orient != 0 ? 1 : 0;
    const unsigned long ifd1Offset = 8 + 2 + 12 * ifd0Entries + 4;
    t.U16(ifd0Entries);
    if (orient != 0) t.Entry(0x0112, 3, static_cast<unsigned long>(orient));
    t.U32(thumbnail.empty() ? 0 : ifd1Offset);
    if (!thumbnail.empty()) {
        const unsigned long thumbOffset = ifd1Offset + 2 + 12 * 3 + 4;
        t.U16(3);
        t.Entry(0x0103, 3, 6);  // compression: JPEG
        t.Entry(0x0201, 4, thumbOffset);
        t.Entry(0x0202, 4, thumbnail.size());
        t.U32(0);
        t.Bytes(thumbnail);
    }
    const std::string payload = std::string("Exif\0\0", 6) + t.Out();
    const size_t length = payload.size() + 2;
    std::string segment = "\xFF\xE1";
    segment.push_back(static_cast<char>((length >> 8) & 0xFF));
    segment.push_back(static_cast<char>(length & 0xFF));
    return segment + payload;
}

// A JPEG of an upright sw x sh scene stored for orient (0: no orientation tag), optionally with
// an embedded thumbnail of tw x th showing the same scene with a black lower right quadrant.
std::string PictureFile(int orient, int sw, int sh, int tw = 0, int th = 0) {
    const std::string main = EncodeJpeg(StoredScene(orient, sw, sh, kWhite));
    const std::string thumb =
        tw > 0 ? EncodeJpeg(StoredScene(orient, tw, th, kBlack)) : std::string();
    if (main.size() < 2 || (tw > 0 && thumb.empty())) return std::string();
    if (orient == 0 && thumb.empty()) return main;
    return main.substr(0, 2) + ExifSegment(orient, orient % 2 == 0, thumb) + main.substr(2);
}

// ---- reading results

struct Argb {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> bytes;  // blue, green, red, alpha
};

Argb FromImage(const CQRBThumbImage& image) {
    Argb a;
    a.width = image.GetWidth();
    a.height = image.GetHeight();
    a.bytes.assign(image.GetBuffer(),
                   image.GetBuffer() + static_cast<size_t>(a.width) * a.height * 4);
    return a;
}

// The palette colour nearest to the mean of a 3 x 3 patch around (x, y).
Rgb Classify(const Argb& a, int x, int y) {
    long r = 0, g = 0, b = 0;
    int n = 0;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            const int px = std::min(std::max(x + dx, 0), a.width - 1);
            const int py = std::min(std::max(y + dy, 0), a.height - 1);
            const unsigned char* p = &a.bytes[(static_cast<size_t>(py) * a.width + px) * 4];
            b += p[0];
            g += p[1];
            r += p[2];
            ++n;
        }
    const Rgb palette[] = {kRed, kGreen, kBlue, kWhite, kBlack};
    Rgb best = palette[0];
    long bestDistance = -1;
    for (const Rgb& c : palette) {
        const long dr = r / n - c.r, dg = g / n - c.g, db = b / n - c.b;
        const long d = dr * dr + dg * dg + db * db;
        if (bestDistance < 0 || d < bestDistance) {
            bestDistance = d;
            best = c;
        }
    }
    return best;
}

// Empty when the raster shows the upright scene (quadrant centres in place); otherwise what
// was found where.
std::string UprightProblem(const Argb& a, const Rgb& lowerRight) {
    if (a.width < 4 || a.height < 4) return "raster too small";
    std::string problem;
    const struct {
        int x, y;
        Rgb want;
        const char* where;
    } checks[] = {
        {a.width / 4, a.height / 4, kRed, "upper left"},
        {3 * a.width / 4, a.height / 4, kGreen, "upper right"},
        {a.width / 4, 3 * a.height / 4, kBlue, "lower left"},
        {3 * a.width / 4, 3 * a.height / 4, lowerRight, "lower right"},
    };
    for (const auto& c : checks) {
        const Rgb got = Classify(a, c.x, c.y);
        if (got.r != c.want.r || got.g != c.want.g || got.b != c.want.b) {
            problem += std::string(c.where) + " is " + ColourName(got) + " (want " +
                       ColourName(c.want) + "); ";
        }
    }
    return problem;
}

// Runs a getter on a file and returns the first image of its item (width 0 when none).
Argb Extract(CQRBThumbnailGetter& getter, const std::string& url, int w, int h) {
    _stExtractInfo info;
    info.strURL = url;
    info.width = w;
    info.height = h;
    auto item = getter.ExtractThumbnail(info);
    if (!item || item->GetImages().empty() || !item->GetImages()[0]) return Argb();
    return FromImage(*item->GetImages()[0]);
}

// ---- geometry

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
    image->Create(w, h, 32, w * 4, p, 0);
    return image;
}

// The source position recorded in pixel (x, y) of a raster made by Positions.
std::pair<int, int> PositionAt(const CQRBThumbImage& image, int x, int y) {
    const unsigned char* p =
        image.GetBuffer() + (static_cast<size_t>(y) * image.GetWidth() + x) * 4;
    return {p[0] | ((p[2] & 15) << 8), p[1] | ((p[2] >> 4) << 8)};
}

TEST(ExifGetterGeometryTest, RasterThatCoversTheBoxIsOnlyCroppedAtTheCentre) {
    qrbtest::LogCapture log;
    auto image = Positions(426, 320);
    CQRBExifThumbnailGetter::BringToRequest(*image, 1, 320, 320);
    EXPECT_EQ(image->GetWidth(), 320);
    EXPECT_EQ(image->GetHeight(), 320);
    EXPECT_FALSE(log.Contains(" in width:")) << "no scaling";
    EXPECT_TRUE(log.Contains("cropStartX=53, cropStartY=0, destWidth=320, destHeight=320"));
    EXPECT_EQ(PositionAt(*image, 0, 0), std::make_pair(53, 0));
    EXPECT_EQ(PositionAt(*image, 319, 319), std::make_pair(372, 319));
}

TEST(ExifGetterGeometryTest, QuarterTurnComesBeforeTheCentreCrop) {
    qrbtest::LogCapture log;
    auto image = Positions(426, 320);
    CQRBExifThumbnailGetter::BringToRequest(*image, 6, 320, 320);
    EXPECT_TRUE(log.Contains("outwidth=320, outheight=426"));
    EXPECT_FALSE(log.Contains(" in width:"));
    EXPECT_TRUE(log.Contains("cropStartX=0, cropStartY=53, destWidth=320, destHeight=320"));
    ASSERT_EQ(image->GetWidth(), 320);
    ASSERT_EQ(image->GetHeight(), 320);
    // After a clockwise quarter turn, upright (x, y) shows source (y, 319 - x); the crop
    // starts 53 rows down.
    EXPECT_EQ(PositionAt(*image, 0, 0), std::make_pair(53, 319));
    EXPECT_EQ(PositionAt(*image, 319, 0), std::make_pair(53, 0));
}

TEST(ExifGetterGeometryTest, ShortRasterIsScaledToCoverThenCropped) {
    qrbtest::LogCapture log;
    auto image = Positions(100, 50);
    CQRBExifThumbnailGetter::BringToRequest(*image, 0, 320, 240);
    // h1 = 50 * 320 / 100 = 160 < 240, so the height decides: 480 x 240.
    EXPECT_TRUE(log.Contains(" in width: 100, in height:50, out width: 480, out height: 240"));
    EXPECT_TRUE(log.Contains("cropStartX=80, cropStartY=0, destWidth=320, destHeight=240"));
    EXPECT_EQ(image->GetWidth(), 320);
    EXPECT_EQ(image->GetHeight(), 240);
    EXPECT_EQ(PositionAt(*image, 0, 0), std::make_pair(80 * 100 / 480, 0));
}

TEST(ExifGetterGeometryTest, TallRasterIsScaledByItsWidth) {
    qrbtest::LogCapture log;
    auto image = Positions(50, 200);
    CQRBExifThumbnailGetter::BringToRequest(*image, 1, 100, 100);
    // h1 = 200 * 100 / 50 = 400 > 100: 100 x 400, then rows 150..249.
    EXPECT_TRUE(log.Contains("out width: 100, out height: 400"));
    EXPECT_TRUE(log.Contains("cropStartX=0, cropStartY=150, destWidth=100, destHeight=100"));
    EXPECT_EQ(image->GetWidth(), 100);
    EXPECT_EQ(image->GetHeight(), 100);
}

TEST(ExifGetterGeometryTest, OwnSizeRequestIsNeitherScaledNorCropped) {
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

TEST(ExifGetterGeometryTest, UriFormsBecomePaths) {
    CQRBExifThumbnailGetter getter(MEDIA_JPEG_EXTRACT_MODE0);
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file://1/tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:///tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("/tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:/tmp/a.jpg"), "file:/tmp/a.jpg");
}

TEST(ExifGetterFactoryTest, PictureKindsGetTheirExtractModes) {
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
    }
}

TEST(ExifGetterFactoryTest, OnlyModeOneLeavesTheDecoderFlagsClear) {
    for (auto mode :
         {MEDIA_JPEG_EXTRACT_MODE0, MEDIA_JPEG_EXTRACT_MODE1, MEDIA_JPEG_EXTRACT_MODE2}) {
        CQRBExifThumbnailGetter getter(mode);
        const qrb_picture_thumb_param p = getter.MakeDecoderParam("file:///a.jpg", 320, 240);
        const int want = mode == MEDIA_JPEG_EXTRACT_MODE1 ? 0 : 1;
        EXPECT_EQ(p.bModeFlag, want) << mode;
        EXPECT_EQ(p.bDecoderFlag, want) << mode;
        EXPECT_STREQ(p.path, "file:///a.jpg");
        EXPECT_EQ(p.width, 320);
        EXPECT_EQ(p.height, 240);
        EXPECT_FALSE(p.forceFull);
        EXPECT_EQ(p.reserved0 | p.reserved1 | p.reserved2 | p.reserved3 | p.reserved4, 0);
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
    const std::pair<int, int> requests[] = {{64, 48}, {40, 40}, {30, 60}};
    for (int orient = 0; orient <= 8; ++orient) {
        const std::string path =
            Write("scene_" + std::to_string(orient) + ".jpg", PictureFile(orient, 320, 240));
        for (const auto& [w, h] : requests) {
            const Argb a = Extract(getter, path, w, h);
            ASSERT_EQ(a.width, w) << "orientation " << orient;
            ASSERT_EQ(a.height, h) << "orientation " << orient;
            EXPECT_EQ(UprightProblem(a, kWhite), "")
                << "orientation " << orient << ", " << w << "x" << h;
        }
    }
}

TEST_F(ExifGetterFileTest, EmbeddedThumbnailIsTurnedUprightToo) {
    for (int orient = 1; orient <= 8; ++orient) {
        const std::string path = Write("thumb_" + std::to_string(orient) + ".jpg",
                                       PictureFile(orient, 640, 480, 160, 120));
        // Under half the embedded thumbnail's size: the thumbnail (black quadrant) is used.
        const Argb small = Extract(getter, "file://" + path, 64, 48);
        ASSERT_EQ(small.width, 64) << orient;
        ASSERT_EQ(small.height, 48) << orient;
        EXPECT_EQ(UprightProblem(small, kBlack), "") << "orientation " << orient;
        // Twice its size or more, on a picture less than twice the request (compared as the
        // picture is stored, so square here): the whole picture (white quadrant).
        const Argb large = Extract(getter, "file://" + path, 400, 400);
        ASSERT_EQ(large.width, 400) << orient;
        ASSERT_EQ(large.height, 400) << orient;
        EXPECT_EQ(UprightProblem(large, kWhite), "") << "orientation " << orient;
    }
}

TEST_F(ExifGetterFileTest, SidewaysPictureIsCroppedFromACoverOfTheRequestAsStored) {
    // The decoder covers the request in the stored orientation; only then is the raster turned.
    // A 320 x 240 scene stored sideways (240 x 320) for 64 x 48 decodes at 64 x 85, turns to
    // 85 x 64, and its centre 64 x 48 is kept: the thumbnail shows the middle three quarters.
    qrbtest::LogCapture log;
    const std::string path = Write("sideways.jpg", PictureFile(6, 320, 240));
    const Argb a = Extract(getter, path, 64, 48);
    EXPECT_EQ(a.width, 64);
    EXPECT_EQ(a.height, 48);
    EXPECT_TRUE(log.Contains("outwidth=85, outheight=64"));
    EXPECT_FALSE(log.Contains(" in width:"));
    EXPECT_TRUE(log.Contains("cropStartX=10, cropStartY=8, destWidth=64, destHeight=48"));
    EXPECT_EQ(UprightProblem(a, kWhite), "");

    // 30 x 60 on the same picture: 45 x 60 turns to 60 x 45, which falls short of 60 rows and
    // is scaled to 80 x 60 before the crop.
    log.Clear();
    const Argb tall = Extract(getter, path, 30, 60);
    EXPECT_EQ(tall.width, 30);
    EXPECT_EQ(tall.height, 60);
    EXPECT_TRUE(log.Contains(" in width: 60, in height:45, out width: 80, out height: 60"));
    EXPECT_TRUE(log.Contains("cropStartX=25, cropStartY=0, destWidth=30, destHeight=60"));
    EXPECT_EQ(UprightProblem(tall, kWhite), "");
}

TEST_F(ExifGetterFileTest, OwnSizeRequestGivesThePictureUprightAtItsOwnSize) {
    const std::string sideways = Write("own6.jpg", PictureFile(6, 160, 120));
    const Argb a = Extract(getter, sideways, 0, 0);
    EXPECT_EQ(a.width, 160);
    EXPECT_EQ(a.height, 120);
    EXPECT_EQ(UprightProblem(a, kWhite), "");
    const std::string plain = Write("own1.jpg", PictureFile(1, 96, 72));
    const Argb b = Extract(getter, "file://1" + plain, 0, 0);
    EXPECT_EQ(b.width, 96);
    EXPECT_EQ(b.height, 72);
    EXPECT_EQ(UprightProblem(b, kWhite), "");
}

// Requests far above a thumbnail's size come back at exactly the size asked: only both sides
// above 4096 are refused.
struct LargeRequest {
    int orient, sw, sh;  // the scene, stored for orient
    int reqW, reqH;
};

void PrintTo(const LargeRequest& c, std::ostream* os) {
    *os << c.sw << "x" << c.sh << " orientation " << c.orient << " at " << c.reqW << "x" << c.reqH;
}

class ExifGetterLargeRequestTest : public ExifGetterFileTest,
                                   public ::testing::WithParamInterface<LargeRequest> {};

TEST_P(ExifGetterLargeRequestTest, ComesBackAtTheSizeAsked) {
    const LargeRequest c = GetParam();
    const std::string path = Write("large.jpg", PictureFile(c.orient, c.sw, c.sh));
    const Argb a = Extract(getter, path, c.reqW, c.reqH);
    ASSERT_EQ(a.width, c.reqW);
    ASSERT_EQ(a.height, c.reqH);
    EXPECT_EQ(UprightProblem(a, kWhite), "");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, ExifGetterLargeRequestTest,
    ::testing::Values(LargeRequest{1, 3000, 4000, 3840, 2160},  // portrait on a 4K screen
                      LargeRequest{6, 3000, 4000, 3840, 2160},  // the same, stored sideways
                      LargeRequest{0, 8000, 400, 1920, 1080},   // a 20:1 panorama
                      LargeRequest{1, 400, 300, 4096, 4096}));

TEST_F(ExifGetterFileTest, MissingOrBrokenPicturesGiveNoItem) {
    _stExtractInfo info;
    info.width = 64;
    info.height = 48;
    info.strURL = root.Path() + "/pictures/none.jpg";
    EXPECT_FALSE(getter.ExtractThumbnail(info));
    info.strURL = Write("text.jpg", "this is not a picture at all");
    EXPECT_FALSE(getter.ExtractThumbnail(info));
    const std::string whole = PictureFile(3, 320, 240);
    info.strURL = Write("cut.jpg", whole.substr(0, whole.size() / 3));
    // A truncated picture may decode partly or fail; either way nothing crashes, and an
    // image that does come back has the requested size.
    auto item = getter.ExtractThumbnail(info);
    if (item) {
        ASSERT_FALSE(item->GetImages().empty());
        EXPECT_EQ(item->GetImages()[0]->GetWidth(), 64);
    }
    info.strURL = "";
    EXPECT_FALSE(getter.ExtractThumbnail(info));
    info.strURL = "file://";
    EXPECT_FALSE(getter.ExtractThumbnail(info));
}

TEST_F(ExifGetterFileTest, EveryModeDecodesTheSamePicture) {
    const std::string path = Write("modes.jpg", PictureFile(8, 320, 240));
    for (auto mode :
         {MEDIA_JPEG_EXTRACT_MODE0, MEDIA_JPEG_EXTRACT_MODE1, MEDIA_JPEG_EXTRACT_MODE2}) {
        CQRBExifThumbnailGetter moded(mode);
        const Argb a = Extract(moded, path, 48, 48);
        ASSERT_EQ(a.width, 48) << mode;
        EXPECT_EQ(UprightProblem(a, kWhite), "") << mode;
    }
}

// ---- the worker path and the C interface

class ExifGetterServiceTest : public ExifGetterFileTest {
protected:
    void SetUp() override {
        ASSERT_EQ(thumbnail_init(), 0);
        service = CQRBThumbnail::GetInstance();
    }
    void TearDown() override { thumbnail_finalize(); }

    const qrbtest::RecordedResult* For(const std::vector<qrbtest::RecordedResult>& results,
                                       void* tag) {
        for (const auto& r : results)
            if (r.user_data == tag) return &r;
        return nullptr;
    }

    static Argb FromResult(const qrbtest::RecordedResult& r) {
        Argb a;
        a.width = r.width;
        a.height = r.height;
        if (!r.buffers.empty()) a.bytes.assign(r.buffers[0].begin(), r.buffers[0].end());
        return a;
    }

    qrbtest::CallbackRecorder recorder;
    CQRBThumbnail* service = nullptr;
};

TEST_F(ExifGetterServiceTest, PictureRequestsThroughTheCInterfaceComeBackUpright) {
    for (int orient = 1; orient <= 8; ++orient) {
        const std::string path =
            Write("c_" + std::to_string(orient) + ".jpg", PictureFile(orient, 320, 240));
        thumbnail_request_async(path.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 64, 48, 0, 1,
                                &qrbtest::CallbackRecorder::Callback, recorder.Tag(orient));
    }
    const std::string own = Write("c_own.jpg", PictureFile(5, 120, 90));
    thumbnail_request_async(("file://" + own).c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0,
                            0, 1, &qrbtest::CallbackRecorder::Callback, recorder.Tag(20));
    ASSERT_TRUE(recorder.WaitForCount(9, 60s));
    const auto results = recorder.Results();
    for (int orient = 1; orient <= 8; ++orient) {
        const auto* r = For(results, recorder.Tag(orient));
        ASSERT_NE(r, nullptr) << orient;
        ASSERT_EQ(r->status, 0) << orient;
        ASSERT_EQ(r->width, 64) << orient;
        ASSERT_EQ(r->height, 48) << orient;
        ASSERT_EQ(r->count, 1) << orient;
        ASSERT_EQ(r->buffers[0].size(), 64u * 48 * 4) << orient;
        EXPECT_EQ(UprightProblem(FromResult(*r), kWhite), "") << "orientation " << orient;
    }
    const auto* r = For(results, recorder.Tag(20));
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r->status, 0);
    EXPECT_EQ(r->width, 120);
    EXPECT_EQ(r->height, 90);
    EXPECT_EQ(UprightProblem(FromResult(*r), kWhite), "");
}

TEST_F(ExifGetterServiceTest, ModeKindsThroughTheClassInterface) {
    const std::string path = Write("modes.jpg", PictureFile(6, 320, 240));
    int tag = 0;
    for (auto kind : {THUMB_PICTURE_MODE2, THUMB_PICTURE_MODE1}) {
        _stRequestedItem item;
        item.strURL = path;
        item.eThumbnailType = kind;
        item.width = 50;
        item.height = 50;
        item.callback = &qrbtest::CallbackRecorder::Callback;
        item.user_data = recorder.Tag(++tag);
        service->RequestThumbnail(item, false);
    }
    ASSERT_TRUE(recorder.WaitForCount(2, 30s));
    for (const auto& r : recorder.Results()) {
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.width, 50);
        EXPECT_EQ(r.height, 50);
        EXPECT_EQ(UprightProblem(FromResult(r), kWhite), "");
    }
}

TEST_F(ExifGetterServiceTest, FailedPictureIsReportedWithStatusMinusOne) {
    const std::string path = root.Path() + "/pictures/absent.jpg";
    thumbnail_request_async(path.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 64, 48, 0, 1,
                            &qrbtest::CallbackRecorder::Callback, recorder.Tag(1));
    ASSERT_TRUE(recorder.WaitForCount(1, 30s));
    EXPECT_EQ(recorder.Results()[0].status, -1);
    EXPECT_EQ(recorder.Results()[0].url, path);
}

TEST_F(ExifGetterServiceTest, SerialDevicePicturesUseThePictureGetter) {
    // Media 1 on a serial device (107..113) is kind 13, whose getter is the picture getter in
    // mode 0; a worker's extractor runs it like any other kind.
    ASSERT_EQ(CQRBThumbnail::GetThumbnailType(MEDIA_TYPE_PICTURE, DEV_TYPE_SERIAL_FIRST),
              THUMB_SERIAL_PICTURE);
    auto* shared = dynamic_cast<CQRBExifThumbnailGetter*>(
        CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(THUMB_SERIAL_PICTURE));
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->GetExtractMode(), MEDIA_JPEG_EXTRACT_MODE0);

    const std::string path = Write("serial.jpg", PictureFile(7, 320, 240));
    _stRequestedItem request;
    request.strURL = path;
    request.RID = 77;
    request.eThumbnailType = THUMB_SERIAL_PICTURE;
    request.width = 64;
    request.height = 64;
    boost::intrusive_ptr<CQRBThumbnailItem> item;
    CQRBThumbnailExtractor extractor;
    ASSERT_TRUE(extractor.ExtractThumb(request, item));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->GetRID(), 77);
    EXPECT_EQ(item->GetSize(), 64 * 64 * 4);
    const Argb a = FromImage(*item->GetImages()[0]);
    EXPECT_EQ(a.width, 64);
    EXPECT_EQ(UprightProblem(a, kWhite), "");

    // Through the C interface the serial range reaches the one-at-a-time variant, whose
    // workers run the same getter.
    thumbnail_request_async(path.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SERIAL_FIRST, 0, 48, 32, 0,
                            1, &qrbtest::CallbackRecorder::Callback, recorder.Tag(5));
    ASSERT_TRUE(recorder.WaitForCount(1, 30s));
    const auto r = recorder.Results()[0];
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 48);
    EXPECT_EQ(r.height, 32);
}

// ---- the shared corpus

std::string CorpusDir() {
    const char* source = std::getenv("QRB_TEST_SOURCE_DIR");
    if (source == nullptr || *source == '\0') return std::string();
    const std::string dir = std::string(source) + "/../shared/corpus";
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? dir : std::string();
}

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Mean absolute difference per colour byte of two rasters of one size.
double MeanDifference(const Argb& a, const Argb& b) {
    long long sum = 0, n = 0;
    for (size_t i = 0; i < a.bytes.size() && i < b.bytes.size(); ++i) {
        if (i % 4 == 3) continue;
        sum += std::abs(static_cast<int>(a.bytes[i]) - static_cast<int>(b.bytes[i]));
        ++n;
    }
    return n ? static_cast<double>(sum) / n : 255.0;
}

// The raster seen through one of the eight symmetries of a rectangle: (x, y) of the result
// shows (x, y) of a after an optional transposition (square rasters only), then optional
// swaps of left and right and of top and bottom.
Argb Symmetry(const Argb& a, bool transpose, bool flipX, bool flipY) {
    Argb m = a;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x) {
            int sx = flipX ? a.width - 1 - x : x;
            int sy = flipY ? a.height - 1 - y : y;
            if (transpose) std::swap(sx, sy);
            std::memcpy(&m.bytes[(static_cast<size_t>(y) * a.width + x) * 4],
                        &a.bytes[(static_cast<size_t>(sy) * a.width + sx) * 4], 4);
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
    const Argb upright = Extract(getter, reference, w, h);
    ASSERT_EQ(upright.width, w) << reference;
    ASSERT_EQ(upright.height, h) << reference;
    for (int n = first; n <= 8; ++n) {
        const std::string path = dir + "/" + prefix + std::to_string(n) + ".jpg";
        if (!Exists(path) || (w != h && n >= 5)) continue;
        const Argb a = Extract(getter, path, w, h);
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
    const std::string corpus = CorpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside the project";
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
