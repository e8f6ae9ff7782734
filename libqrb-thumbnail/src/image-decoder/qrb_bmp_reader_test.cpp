// The BMP reader: files assembled byte by byte for every bit depth, bit-field layout, header
// kind and run-length escape; every header field a hostile file could lie in; and the BMP
// suites of the shared corpus against their reference renders.
#include "image-decoder/qrb_bmp_reader.h"
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;
using qrbpicturetest::ScratchDir;

using Bgra = std::array<uint8_t, 4>;

void Put16(std::string& s, uint32_t v) {
    s.push_back(static_cast<char>(v & 0xFF));
    s.push_back(static_cast<char>((v >> 8) & 0xFF));
}
void Put32(std::string& s, uint32_t v) {
    Put16(s, v & 0xFFFF);
    Put16(s, v >> 16);
}

// A BMP file, field by field. Sizes and offsets are computed unless overridden.
struct BmpSpec {
    uint32_t headerSize = 40;
    int32_t width = 5;
    int32_t height = 3;  // negative: top-down
    uint32_t planes = 1;
    uint32_t bpp = 24;
    uint32_t compression = 0;
    uint32_t colorsUsed = 0;
    int32_t density = 2835;
    std::vector<uint32_t> masks;  // inside V2+ headers, else after the 40-byte header
    std::vector<Bgra> palette;    // 4 bytes an entry (3 with the 12-byte header)
    std::string pixels;           // the pixel data as stored
    int64_t dataOffset = -1;      // computed when negative
    int64_t fileSizeField = -1;   // computed when negative
    int64_t imageSizeField = -1;  // pixels.size() when negative
};

std::string BuildBmp(const BmpSpec& spec) {
    std::string header;
    Put32(header, spec.headerSize);
    if (spec.headerSize == 12) {
        Put16(header, static_cast<uint32_t>(spec.width));
        Put16(header, static_cast<uint32_t>(spec.height));
        Put16(header, spec.planes);
        Put16(header, spec.bpp);
    } else {
        Put32(header, static_cast<uint32_t>(spec.width));
        Put32(header, static_cast<uint32_t>(spec.height));
        Put16(header, spec.planes);
        Put16(header, spec.bpp);
        Put32(header, spec.compression);
        Put32(header, static_cast<uint32_t>(spec.imageSizeField >= 0 ? spec.imageSizeField
                                                                     : spec.pixels.size()));
        Put32(header, static_cast<uint32_t>(spec.density));
        Put32(header, static_cast<uint32_t>(spec.density));
        Put32(header, spec.colorsUsed);
        Put32(header, 0);  // important colours
        for (size_t i = 0; header.size() < spec.headerSize; ++i) {
            // Masks sit right here in V2 and later headers; the rest is zero.
            if (spec.headerSize >= 52 && i < spec.masks.size() && header.size() < 56) {
                Put32(header, spec.masks[i]);
            } else {
                header.push_back('\0');
            }
        }
        header.resize(spec.headerSize);
    }
    std::string extra;
    if (spec.headerSize < 52) {
        for (uint32_t m : spec.masks) Put32(extra, m);
    }
    for (const Bgra& e : spec.palette) {
        extra.append(reinterpret_cast<const char*>(e.data()), spec.headerSize == 12 ? 3 : 4);
    }
    const uint32_t offset = static_cast<uint32_t>(
        spec.dataOffset >= 0 ? spec.dataOffset : 14 + header.size() + extra.size());
    std::string body = header + extra;
    // A gap before the pixels is filled; an offset far past them stays a lie.
    if (14 + body.size() < offset && offset - 14 - body.size() < 65536)
        body.resize(offset - 14, '\0');
    body += spec.pixels;
    std::string file = "BM";
    Put32(file,
          static_cast<uint32_t>(spec.fileSizeField >= 0 ? spec.fileSizeField : 14 + body.size()));
    Put32(file, 0);
    Put32(file, offset);
    return file + body;
}

// Stored rows from a pixel function (bits packed from the top, rows padded to 4 bytes).
std::string PackRows(uint32_t width, uint32_t height, uint32_t bpp, bool topDown,
                     const std::function<uint32_t(uint32_t x, uint32_t y)>& value) {
    const size_t stride = (static_cast<size_t>(width) * bpp + 31) / 32 * 4;
    std::string data(stride * height, '\0');
    for (uint32_t r = 0; r < height; ++r) {
        const uint32_t y = topDown ? r : height - 1 - r;  // picture row stored at position r
        unsigned char* row = reinterpret_cast<unsigned char*>(&data[r * stride]);
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t v = value(x, y);
            const size_t bit = static_cast<size_t>(x) * bpp;
            if (bpp < 8) {
                row[bit / 8] |= static_cast<unsigned char>(v << (8 - bpp - bit % 8));
            } else {
                for (uint32_t b = 0; b < bpp / 8; ++b)
                    row[bit / 8 + b] = static_cast<unsigned char>(v >> (8 * b));
            }
        }
    }
    return data;
}

::testing::AssertionResult Matches(const Raster& img, int w, int h,
                                   const std::function<Bgra(int x, int y)>& expected) {
    if (img.Empty()) return ::testing::AssertionFailure() << "no raster";
    if (img.width != w || img.height != h) {
        return ::testing::AssertionFailure() << "size " << img.width << "x" << img.height;
    }
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const Bgra want = expected(x, y);
            if (std::memcmp(img.At(x, y), want.data(), 4) != 0) {
                const uint8_t* p = img.At(x, y);
                return ::testing::AssertionFailure()
                       << "pixel (" << x << ", " << y << ") BGRA " << int(p[0]) << "," << int(p[1])
                       << "," << int(p[2]) << "," << int(p[3]) << " wanted " << int(want[0]) << ","
                       << int(want[1]) << "," << int(want[2]) << "," << int(want[3]);
            }
        }
    }
    return ::testing::AssertionSuccess();
}

std::vector<Bgra> Palette(int n) {
    std::vector<Bgra> p;
    for (int i = 0; i < n; ++i) {
        p.push_back(Bgra{static_cast<uint8_t>(i * 13), static_cast<uint8_t>(255 - i),
                         static_cast<uint8_t>(i * 7 + 3), 0});
    }
    return p;
}

Bgra Opaque(Bgra c) {
    c[3] = 255;
    return c;
}

class BmpReaderTest : public ::testing::Test {
protected:
    Raster DecodeBmp(const BmpSpec& spec, int w = 0, int h = 0) {
        return Decode("file://" + scratch.Write("t.bmp", BuildBmp(spec)), w, h);
    }
    bool Refused(const BmpSpec& spec, const std::string& message) {
        log.Clear();
        const bool empty = DecodeBmp(spec).Empty();
        const bool said = log.Contains(message);
        EXPECT_TRUE(said) << "no \"" << message << "\"";
        return empty && said;
    }
    ScratchDir scratch;
    qrbtest::LogCapture log;
};

// --- Pixel formats ------------------------------------------------------------------------

TEST_F(BmpReaderTest, DecodesPalettesOfEveryDepthBothRowOrders) {
    for (uint32_t bpp : {1u, 2u, 4u, 8u}) {
        for (bool topDown : {false, true}) {
            BmpSpec spec;
            spec.width = 13;  // rows end inside a byte and need padding
            spec.height = topDown ? -5 : 5;
            spec.bpp = bpp;
            spec.palette = Palette(1 << bpp);
            auto index = [bpp](uint32_t x, uint32_t y) { return (x * 3 + y * 5) % (1u << bpp); };
            spec.pixels = PackRows(13, 5, bpp, topDown, index);
            EXPECT_TRUE(Matches(DecodeBmp(spec), 13, 5,
                                [&](int x, int y) { return Opaque(spec.palette[index(x, y)]); }))
                << bpp << (topDown ? " top-down" : "");
        }
    }
}

TEST_F(BmpReaderTest, DecodesDirectColourDepths) {
    auto rgb = [](uint32_t x, uint32_t y) {
        return Bgra{uint8_t(x * 40), uint8_t(y * 60), uint8_t(200 - x), 255};
    };
    // 24 bits: blue, green, red.
    BmpSpec b24;
    b24.bpp = 24;
    b24.pixels = PackRows(5, 3, 24, false, [&](uint32_t x, uint32_t y) {
        const Bgra c = rgb(x, y);
        return uint32_t(c[0]) | (uint32_t(c[1]) << 8) | (uint32_t(c[2]) << 16);
    });
    EXPECT_TRUE(Matches(DecodeBmp(b24), 5, 3, [&](int x, int y) { return rgb(x, y); }));

    // 32 bits without bit fields: X8R8G8B8, the top byte ignored.
    BmpSpec b32;
    b32.bpp = 32;
    b32.height = -3;
    b32.pixels = PackRows(5, 3, 32, true, [&](uint32_t x, uint32_t y) {
        const Bgra c = rgb(x, y);
        return uint32_t(c[0]) | (uint32_t(c[1]) << 8) | (uint32_t(c[2]) << 16) | 0x12000000u;
    });
    EXPECT_TRUE(Matches(DecodeBmp(b32), 5, 3, [&](int x, int y) { return rgb(x, y); }));

    // 16 bits without bit fields: X1R5G5B5, each 5-bit value scaled to 8 bits.
    BmpSpec b16;
    b16.bpp = 16;
    b16.pixels = PackRows(5, 3, 16, false, [](uint32_t x, uint32_t y) {
        return (x * 7u << 10) | (y * 9u << 5) | 31u | 0x8000u;
    });
    EXPECT_TRUE(Matches(DecodeBmp(b16), 5, 3, [](int x, int y) {
        auto s = [](uint32_t v) { return uint8_t((v * 255 + 15) / 31); };
        return Bgra{255, s(y * 9), s(x * 7), 255};
    }));
}

TEST_F(BmpReaderTest, BitFieldsInEveryPlaceTheyCanBe) {
    // 16-bit 5-6-5 after an info header.
    BmpSpec rgb565;
    rgb565.bpp = 16;
    rgb565.compression = 3;
    rgb565.masks = {0xF800, 0x07E0, 0x001F};
    rgb565.pixels = PackRows(5, 3, 16, false, [](uint32_t x, uint32_t y) {
        return (x * 6u << 11) | (y * 20u << 5) | 7u;
    });
    EXPECT_TRUE(Matches(DecodeBmp(rgb565), 5, 3, [](int x, int y) {
        return Bgra{uint8_t((7 * 255 + 15) / 31), uint8_t((y * 20 * 255 + 31) / 63),
                    uint8_t((x * 6 * 255 + 15) / 31), 255};
    }));

    // 32-bit 10-10-10 fields: more than 8 bits keep their top 8.
    BmpSpec deep;
    deep.bpp = 32;
    deep.compression = 3;
    deep.masks = {0x3FF00000, 0x000FFC00, 0x000003FF};
    deep.pixels = PackRows(5, 3, 32, false, [](uint32_t x, uint32_t y) {
        return (x * 200u << 20) | (y * 300u << 10) | 1023u;
    });
    EXPECT_TRUE(Matches(DecodeBmp(deep), 5, 3, [](int x, int y) {
        return Bgra{255, uint8_t(y * 300 >> 2), uint8_t(x * 200 >> 2), 255};
    }));

    // 32-bit pixels with an alpha channel (a V3, V4 or V5 header's alpha mask, ALPHABITFIELDS
    // after an info header, BI_RGB under a V5 header) or without one (plain bit fields after an
    // info header, whatever the top byte): the colour comes through and every pixel is opaque.
    auto rgba = [](uint32_t x, uint32_t y) {
        return (uint32_t(x * 50) << 24) | (y << 16) | (7u << 8) | 9u;
    };
    auto opaque = [](int, int y) { return Bgra{9, 7, uint8_t(y), 255}; };
    for (uint32_t headerSize : {56u, 108u, 124u}) {
        for (uint32_t compression : {0u, 3u}) {
            BmpSpec v5;
            v5.headerSize = headerSize;
            v5.bpp = 32;
            v5.compression = compression;
            v5.masks = {0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000};
            v5.pixels = PackRows(5, 3, 32, false, rgba);
            EXPECT_TRUE(Matches(DecodeBmp(v5), 5, 3, opaque)) << headerSize << "/" << compression;
        }
    }
    BmpSpec abf;
    abf.bpp = 32;
    abf.compression = 6;
    abf.masks = {0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000};
    abf.pixels = PackRows(5, 3, 32, false, rgba);
    EXPECT_TRUE(Matches(DecodeBmp(abf), 5, 3, opaque));
    BmpSpec noAlpha = abf;
    noAlpha.compression = 3;
    noAlpha.masks.pop_back();
    EXPECT_TRUE(Matches(DecodeBmp(noAlpha), 5, 3, opaque));
    // A zero mask gives a zero channel.
    BmpSpec zero = noAlpha;
    zero.masks = {0x00FF0000, 0, 0x000000FF};
    EXPECT_TRUE(Matches(DecodeBmp(zero), 5, 3, [](int, int y) {
        return Bgra{9, 0, uint8_t(y), 255};
    }));
}

TEST_F(BmpReaderTest, ReadsOs2Headers) {
    BmpSpec core;
    core.headerSize = 12;
    core.bpp = 8;
    core.palette = Palette(20);
    auto index = [](uint32_t x, uint32_t y) { return (x + 4 * y) % 20; };
    core.pixels = PackRows(5, 3, 8, false, index);
    EXPECT_TRUE(Matches(DecodeBmp(core), 5, 3,
                        [&](int x, int y) { return Opaque(core.palette[index(x, y)]); }));

    BmpSpec v2 = core;
    v2.headerSize = 64;
    v2.colorsUsed = 20;
    EXPECT_TRUE(Matches(DecodeBmp(v2), 5, 3,
                        [&](int x, int y) { return Opaque(v2.palette[index(x, y)]); }));
}

TEST_F(BmpReaderTest, IndicesBeyondThePaletteAreOpaqueBlack) {
    BmpSpec spec;
    spec.bpp = 8;
    spec.palette = Palette(2);
    spec.colorsUsed = 2;
    spec.pixels = PackRows(5, 3, 8, false, [](uint32_t x, uint32_t) { return x * 60; });
    EXPECT_TRUE(Matches(DecodeBmp(spec), 5, 3, [&](int x, int) {
        return x == 0 ? Opaque(spec.palette[0]) : Bgra{0, 0, 0, 255};
    }));
}

TEST_F(BmpReaderTest, SamplesStraightIntoTheOutputSize) {
    BmpSpec spec;
    spec.width = 100;
    spec.height = 50;
    spec.bpp = 24;
    spec.pixels = PackRows(100, 50, 24, false, [](uint32_t x, uint32_t y) { return x | (y << 8); });
    // 10 x 5: output (x, y) is picture (10 x, 10 y), exactly.
    EXPECT_TRUE(Matches(DecodeBmp(spec, 10, 5), 10, 5, [](int x, int y) {
        return Bgra{uint8_t(10 * x), uint8_t(10 * y), 0, 255};
    }));
    // 200 x 100: each picture pixel twice in both directions.
    EXPECT_TRUE(Matches(DecodeBmp(spec, 200, 100), 200, 100, [](int x, int y) {
        return Bgra{uint8_t(x / 2), uint8_t(y / 2), 0, 255};
    }));
    // The output covers the request with the picture's aspect: 64 x 32 for 64 x 20.
    const Raster img = DecodeBmp(spec, 64, 20);
    EXPECT_EQ(64, img.width);
    EXPECT_EQ(32, img.height);
}

// --- Run lengths -------------------------------------------------------------------------

std::string Ops(std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s.push_back(static_cast<char>(b));
    return s;
}

BmpSpec Rle(uint32_t bpp, const std::string& data, int width = 8, int height = 4) {
    BmpSpec spec;
    spec.width = width;
    spec.height = height;
    spec.bpp = bpp;
    spec.compression = bpp == 8 ? 1 : bpp == 4 ? 2 : 4;
    if (bpp == 24) spec.headerSize = 64;  // OS/2's 24-bit run lengths
    if (bpp <= 8) spec.palette = Palette(16);
    spec.pixels = data;
    return spec;
}

const Bgra kSkipped{0, 0, 0, 255};  // what a run-length file skips: opaque black

TEST_F(BmpReaderTest, ExpandsRle8RunsLiteralsLineEndsAndDeltas) {
    // Rows are stored bottom first. Bottom row: run of 3 x 1, literal 2 3 4 (padded), EOL.
    // Next row: delta (2, 1) moves up to the third row from the bottom, run of 2 x 5, EOL.
    // Then top row: run of 8 x 6, end of bitmap.
    const std::string data =
        Ops({3, 1, 0, 3, 2, 3, 4, 0, 0, 0, 0, 2, 2, 1, 2, 5, 0, 0, 8, 6, 0, 1});
    const BmpSpec spec = Rle(8, data);
    const std::vector<std::vector<int>> want = {
        {6, 6, 6, 6, 6, 6, 6, 6},
        {-1, -1, 5, 5, -1, -1, -1, -1},
        {-1, -1, -1, -1, -1, -1, -1, -1},
        {1, 1, 1, 2, 3, 4, -1, -1},
    };
    EXPECT_TRUE(Matches(DecodeBmp(spec), 8, 4, [&](int x, int y) {
        const int i = want[y][x];
        return i < 0 ? kSkipped : Opaque(spec.palette[i]);
    }));
}

TEST_F(BmpReaderTest, ExpandsRle4NibblesInBothModes) {
    // Bottom row: run of 5 alternating 1,2; literal of 3 nibbles 7,8,9 (2 bytes, padded to
    // even already); EOL. Second row: literal of 5 nibbles (3 bytes + 1 pad); EOB.
    const std::string data =
        Ops({5, 0x12, 0, 3, 0x78, 0x90, 0, 0, 0, 5, 0xAB, 0xCD, 0xE0, 0, 0, 1});
    const BmpSpec spec = Rle(4, data);
    const std::vector<std::vector<int>> want = {
        {-1, -1, -1, -1, -1, -1, -1, -1},
        {-1, -1, -1, -1, -1, -1, -1, -1},
        {10, 11, 12, 13, 14, -1, -1, -1},
        {1, 2, 1, 2, 1, 7, 8, 9},
    };
    EXPECT_TRUE(Matches(DecodeBmp(spec), 8, 4, [&](int x, int y) {
        const int i = want[y][x];
        return i < 0 ? kSkipped : Opaque(spec.palette[i]);
    }));
}

TEST_F(BmpReaderTest, ExpandsOs2Rle24) {
    // Run of 4 (blue 10, green 20, red 30); literal of 3 pixels (9 bytes + pad); end.
    const std::string data = Ops({4, 10, 20, 30, 0, 3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 1});
    const BmpSpec spec = Rle(24, data, 7, 1);
    EXPECT_TRUE(Matches(DecodeBmp(spec), 7, 1, [](int x, int) {
        if (x < 4) return Bgra{10, 20, 30, 255};
        return Bgra{uint8_t(3 * (x - 4) + 1), uint8_t(3 * (x - 4) + 2), uint8_t(3 * (x - 4) + 3),
                    255};
    }));
}

TEST_F(BmpReaderTest, RunsThatLeaveTheirRowOrThePictureFailTheFile) {
    const struct {
        const char* what;
        std::string data;
        const char* message;
    } cases[] = {
        {"run past the row", Ops({9, 1, 0, 1}), "BMP run of 9 at (0, 0) leaves the picture"},
        {"run after a full row", Ops({8, 1, 1, 1, 0, 1}),
         "BMP run of 1 at (8, 0) leaves the picture"},
        {"literal past the row", Ops({6, 1, 0, 3, 1, 2, 3, 0}),
         "BMP literal of 3 at (6, 0) leaves the picture"},
        {"delta past the right edge", Ops({0, 2, 9, 0, 0, 1}),
         "BMP delta to (9, 0) leaves the picture"},
        {"delta past the top", Ops({0, 2, 0, 5, 0, 1}), "BMP delta to (0, 5) leaves the picture"},
        {"rows after the last", Ops({0, 0, 0, 0, 0, 0, 0, 0, 1, 1}),
         "BMP run of 1 at (0, 4) leaves the picture"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(Refused(Rle(8, c.data), c.message)) << c.what;
    }
}

TEST_F(BmpReaderTest, RunLengthDataMayEndEarlyOrCloseWithAnExtraLineEnd) {
    // No end-of-bitmap: what was expanded stays.
    EXPECT_TRUE(Matches(DecodeBmp(Rle(8, Ops({8, 2}))), 8, 4,
                        [](int, int y) { return y == 3 ? Opaque(Palette(16)[2]) : kSkipped; }));
    // Cut inside a literal, a run and a delta.
    for (const std::string& cut : {Ops({0, 5, 1, 2}), Ops({4}), Ops({0, 2, 1})}) {
        EXPECT_FALSE(DecodeBmp(Rle(8, cut)).Empty());
    }
    // A line end after the top row, then the end: harmless.
    EXPECT_FALSE(
        DecodeBmp(Rle(8, Ops({8, 1, 0, 0, 8, 1, 0, 0, 8, 1, 0, 0, 8, 1, 0, 0, 0, 1}))).Empty());
}

// --- Header checks ------------------------------------------------------------------------

BmpSpec Valid8() {
    BmpSpec spec;
    spec.bpp = 8;
    spec.palette = Palette(4);
    spec.colorsUsed = 4;
    spec.pixels = PackRows(5, 3, 8, false, [](uint32_t x, uint32_t) { return x % 4; });
    return spec;
}

TEST_F(BmpReaderTest, RefusesHeadersThatLie) {
    ASSERT_FALSE(DecodeBmp(Valid8()).Empty());
    BmpSpec s;
    // clang-format off
    s = Valid8(); s.headerSize = 66;                 EXPECT_TRUE(Refused(s, "BMP header size 66 refused"));
    s = Valid8(); s.planes = 2;                      EXPECT_TRUE(Refused(s, "BMP with 2 planes refused"));
    s = Valid8(); s.bpp = 3;                         EXPECT_TRUE(Refused(s, "BMP with 3 bits per pixel refused"));
    s = Valid8(); s.width = 0;                       EXPECT_TRUE(Refused(s, "BMP 0 x 3 refused"));
    s = Valid8(); s.width = -5;                      EXPECT_TRUE(Refused(s, "BMP -5 x 3 refused"));
    s = Valid8(); s.height = 0;                      EXPECT_TRUE(Refused(s, "BMP 5 x 0 refused"));
    s = Valid8(); s.height = INT32_MIN;              EXPECT_TRUE(Refused(s, "refused"));
    s = Valid8(); s.width = 70000;                   EXPECT_TRUE(Refused(s, "BMP 70000 x 3 refused"));
    s = Valid8(); s.width = 30000; s.height = 30000; EXPECT_TRUE(Refused(s, "BMP 30000 x 30000 refused"));
    s = Valid8(); s.density = 30000000;              EXPECT_TRUE(Refused(s, "BMP density 30000000 x 30000000 refused"));
    s = Valid8(); s.colorsUsed = 305402420;          EXPECT_TRUE(Refused(s, "BMP palette of 305402420 colours is larger than the file"));
    s = Valid8(); s.dataOffset = 20;                 EXPECT_TRUE(Refused(s, "BMP pixel data offset 20 refused"));
    s = Valid8(); s.dataOffset = 1 << 30;            EXPECT_TRUE(Refused(s, "BMP pixel data offset 1073741824 refused"));
    s = Valid8(); s.pixels.resize(15);               EXPECT_TRUE(Refused(s, "BMP needs 24 bytes of pixels, the file holds 15"));
    s = Valid8(); s.imageSizeField = 1 << 30;        EXPECT_TRUE(Refused(s, "BMP declares 1073741824 bytes of pixels"));
    s = Valid8(); s.fileSizeField = 1 << 30;         EXPECT_TRUE(Refused(s, "BMP declares 1073741824 bytes, the file has"));
    s = Valid8(); s.compression = 2;                 EXPECT_TRUE(Refused(s, "BMP compression 2 with 8 bits per pixel refused"));
    s = Valid8(); s.compression = 4;                 EXPECT_TRUE(Refused(s, "BMP compression 4 with 8 bits per pixel refused"));
    s = Rle(8, Ops({0, 1})); s.height = -4;          EXPECT_TRUE(Refused(s, "top-down run-length BMP refused"));
    s = Valid8(); s.palette.clear(); s.colorsUsed = 0;
    s.dataOffset = 54;                               EXPECT_TRUE(Refused(s, "BMP with 8 bits per pixel has no palette"));
    // clang-format on
}

TEST_F(BmpReaderTest, MasksPastTheEndOfTheFileAreRefused) {
    // A 40-byte header claiming bit fields, in a file that ends where the masks would be.
    BmpSpec spec;
    spec.bpp = 32;
    spec.compression = 3;
    spec.fileSizeField = 0;
    std::string bytes = BuildBmp(spec).substr(0, 14 + 40 + 6);
    EXPECT_TRUE(Decode("file://" + scratch.Write("m.bmp", bytes), 0, 0).Empty());
    EXPECT_TRUE(log.Contains("BMP bit fields past the end of the file"));
}

TEST_F(BmpReaderTest, EveryTruncationFailsOrDecodesSafely) {
    for (const BmpSpec& spec :
         {Valid8(), Rle(8, Ops({3, 1, 0, 3, 2, 3, 4, 0, 0, 0, 0, 2, 2, 1, 2, 5, 0, 0, 0, 1}))}) {
        const std::string bytes = BuildBmp(spec);
        const size_t dataStart = bytes.size() - spec.pixels.size();
        for (size_t n = 0; n < bytes.size(); ++n) {
            const Raster img =
                Decode("file://" + scratch.Write("cut.bmp", bytes.substr(0, n)), 0, 0);
            // Headers and palette must be whole; uncompressed rows must be whole.
            if (n < dataStart || spec.compression == 0) {
                EXPECT_TRUE(img.Empty()) << n;
            }
        }
    }
}

TEST(BmpHeaderParserTest, ReportsWhatItRead) {
    BmpSpec spec;
    spec.headerSize = 124;
    spec.width = 7;
    spec.height = -2;
    spec.bpp = 16;
    spec.compression = 3;
    spec.masks = {0xF800, 0x07E0, 0x001F, 0};
    spec.pixels = PackRows(7, 2, 16, true, [](uint32_t, uint32_t) { return 0u; });
    const std::string bytes = BuildBmp(spec);
    FILE* fp = fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb");
    ASSERT_NE(nullptr, fp);
    CQRBPictureParser::BMPInfo info;
    unsigned char palette[CQRBPictureParser::kPaletteEntries * 4];
    const bool ok = CQRBPictureParser::ParseBMPHeader(fp, bytes.size(), &info, palette);
    std::fclose(fp);
    ASSERT_TRUE(ok);
    EXPECT_EQ(7u, info.width);
    EXPECT_EQ(2u, info.height);
    EXPECT_TRUE(info.topDown);
    EXPECT_EQ(16, info.bitsPerPixel);
    EXPECT_EQ(CQRBPictureParser::kCompressionBitFields, info.compression);
    EXPECT_EQ(0u, info.paletteSize);
    EXPECT_EQ(14u + 124u, info.dataOffset);
    EXPECT_EQ(16u, info.rowStride);
    EXPECT_EQ(0xF800u, info.mask[0]);
    EXPECT_EQ(0x001Fu, info.mask[2]);
}

// --- Corpus -------------------------------------------------------------------------------

std::vector<std::string> ListBmps(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".bmp") == 0)
                names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Compares a decode at the picture's own size (exact sampling) with a reference render, within
// `tolerance` a channel (the BMP suite's renders round some palette entries differently).
::testing::AssertionResult MatchesReference(const std::string& bmp, const std::string& png,
                                            int tolerance = 0) {
    Raster reference;
    if (!qrbpicturetest::ReadReferencePng(png, &reference)) {
        return ::testing::AssertionFailure() << "reference unreadable: " << png;
    }
    const Raster img = Decode("file://" + bmp, reference.width, reference.height);
    return Matches(img, reference.width, reference.height, [&](int x, int y) {
        const uint8_t* p = reference.At(x, y);
        const uint8_t* q = img.At(x, y);
        // Every pixel we write is opaque, whatever alpha the reference shows; the colour is the
        // reference's, except where it leaves a pixel fully transparent and so has none.
        Bgra c{p[0], p[1], p[2], 255};
        for (int i = 0; i < 3; ++i) {
            if (std::abs(c[i] - q[i]) <= tolerance || p[3] == 0) c[i] = q[i];
        }
        return c;
    });
}

TEST(BmpSuiteCorpusTest, GoodFilesMatchTheReferenceRenders) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/pillow/bmp/";
    // Every file of g/ draws the same picture; the renders differ by palette and depth.
    auto referenceFor = [](const std::string& name) -> std::string {
        for (const char* exact : {"pal8w124", "pal8w126", "rgb16-565", "rgb16"}) {
            if (name == std::string(exact) + ".bmp") return exact;
        }
        if (name.rfind("pal1", 0) == 0) return "pal1";
        if (name.rfind("pal4", 0) == 0) return "pal4";
        if (name.rfind("pal8", 0) == 0) return "pal8";
        return "rgb24";
    };
    int checked = 0;
    for (const std::string& name : ListBmps(dir + "g")) {
        EXPECT_TRUE(
            MatchesReference(dir + "g/" + name, dir + "html/" + referenceFor(name) + ".png", 1))
            << name;
        ++checked;
    }
    EXPECT_EQ(15, checked);
}

TEST(BmpSuiteCorpusTest, BadFilesFailAndQuestionableOnesAreSafe) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/pillow/bmp/";
    int bad = 0;
    for (const std::string& name : ListBmps(dir + "b")) {
        EXPECT_TRUE(Decode("file://" + dir + "b/" + name, 64, 64).Empty()) << name;
        ++bad;
    }
    EXPECT_EQ(9, bad);
    // Questionable files: either answer is acceptable, but a decode must have the size asked.
    int decoded = 0;
    for (const std::string& name : ListBmps(dir + "q")) {
        const Raster img = Decode("file://" + dir + "q/" + name, 0, 0);
        if (img.Empty()) continue;
        EXPECT_EQ(127, img.width) << name;
        EXPECT_EQ(64, img.height) << name;
        ++decoded;
    }
    EXPECT_GE(decoded, 12);
}

TEST(BmpImageRsCorpusTest, FilesWithReferencesMatchThem) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/image-rs/images/bmp/images/";
    const std::string refs = corpus + "/image-rs/reference/bmp/images/";
    int checked = 0;
    for (const std::string& name : ListBmps(dir)) {
        const std::string reference = refs + name + ".png";
        if (qrbpicturetest::ReadFileBytes(reference).empty()) continue;
        EXPECT_TRUE(MatchesReference(dir + name, reference)) << name;
        ++checked;
    }
    EXPECT_EQ(25, checked);
    // Without references: runs that overflow their row fail the file; odd masks are read.
    EXPECT_TRUE(
        Decode("file://" + dir + "imagemagick_invalid_run_length_issue_2321.bmp", 32, 32).Empty());
    EXPECT_TRUE(Decode("file://" + dir + "lenient/rle_overflow.bmp", 32, 32).Empty());
    EXPECT_FALSE(Decode("file://" + dir + "lenient/rgb16-880.bmp", 32, 32).Empty());
}

TEST(BmpCorpusTest, OtherFilesDecodeOrFailAsTheyShould) {
    QRB_REQUIRE_CORPUS(corpus);
    const struct {
        const char* path;
        bool decodes;
    } files[] = {
        {"pillow/hopper.bmp", true},       {"pillow/hopper_rle8_grayscale.bmp", true},
        {"pillow/rgb32bf-abgr.bmp", true}, {"pillow/l2rgb_read.bmp", false},
        {"hachoir/article01.bmp", true},
    };
    for (const auto& f : files) {
        EXPECT_EQ(f.decodes, !Decode("file://" + corpus + "/" + f.path, 64, 64).Empty()) << f.path;
    }
    // The bottom-up and top-down encodings of one picture decode to the same pixels.
    const std::string g = corpus + "/pillow/bmp/g/";
    const Raster up = Decode("file://" + g + "pal8.bmp", 127, 64);
    const Raster down = Decode("file://" + g + "pal8topdown.bmp", 127, 64);
    ASSERT_FALSE(up.Empty());
    EXPECT_EQ(up.pixels, down.pixels);
}

TEST(BmpCorpusTest, PngSuiteConversionsMatchTheirExpectedPixels) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/lunapaint-pngsuite/";
    int checked = 0;
    for (const std::string& name : ListBmps(dir + "bmp")) {
        const std::string stem = name.substr(0, name.size() - 4);
        // The conversions hold 8 bits a channel: compared with the 8-bit expectations.
        std::string json = qrbpicturetest::ReadFileBytes(dir + "json/" + stem + "_to8.json");
        if (json.empty()) json = qrbpicturetest::ReadFileBytes(dir + "json/" + stem + ".json");
        std::vector<int> want;
        int v = -1;
        for (char c : json) {
            if (c >= '0' && c <= '9') {
                v = (v < 0 ? 0 : v * 10) + (c - '0');
            } else if (v >= 0) {
                want.push_back(v);
                v = -1;
            }
        }
        if (want.empty() || *std::max_element(want.begin(), want.end()) > 255) continue;
        const Raster img = Decode("file://" + dir + "bmp/" + name, 0, 0);
        ASSERT_FALSE(img.Empty()) << name;
        ASSERT_EQ(want.size(), img.pixels.size()) << name;
        // Every pixel is opaque, whatever alpha the expectation gives; a pixel it leaves fully
        // transparent has no colour to compare.
        int worst = 0;
        for (size_t i = 0; i < want.size(); i += 4) {
            const uint8_t* p = &img.pixels[i];
            worst = std::max(worst, 255 - p[3]);
            if (want[i + 3] == 0) continue;
            worst = std::max({worst, std::abs(p[2] - want[i]), std::abs(p[1] - want[i + 1]),
                              std::abs(p[0] - want[i + 2])});
        }
        EXPECT_LE(worst, 1) << name;
        ++checked;
    }
    EXPECT_GE(checked, 8);
}

}  // namespace
