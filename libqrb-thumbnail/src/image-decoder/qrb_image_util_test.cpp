// The free-standing scalers on literal rasters a few pixels wide. Destinations are filled with
// a sentinel first, so that "left untouched" and "stopped early" are visible.
#include "qrb_image_util.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <vector>

namespace {

constexpr unsigned char kSentinel = 0xAB;

using Pixel = std::array<int, 4>;

std::vector<unsigned char> Sentinel(int w, int h) {
    return std::vector<unsigned char>(static_cast<size_t>(w) * h * 4, kSentinel);
}

Pixel At(const std::vector<unsigned char>& raster, int w, int x, int y) {
    const unsigned char* p = raster.data() + (static_cast<size_t>(y) * w + x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

// An interleaved raster from per-pixel byte quadruples given row by row.
std::vector<unsigned char> Raster(const std::vector<Pixel>& pixels) {
    std::vector<unsigned char> r;
    for (const auto& p : pixels)
        for (int c = 0; c < 4; ++c) r.push_back(static_cast<unsigned char>(p[c]));
    return r;
}

TEST(ImageUtilTest, MinAndTwoByTwoMean) {
    EXPECT_EQ(CQRBImageUtil::m_Min(-3, 2), -3);
    EXPECT_EQ(CQRBImageUtil::m_Min(7, 7), 7);
    EXPECT_EQ(CQRBImageUtil::m_Min(LONG_MAX, 0), 0);
    CQRBImageUtil util;
    EXPECT_EQ(util.m_Min(4, -9), -9);

    // 3 x 2 plane; the block at index 1 is 2, 255 over 5, 250.
    const unsigned char plane[] = {1, 2, 255, 4, 5, 250};
    EXPECT_EQ(average2(0, plane, 3), (1 + 2 + 4 + 5) >> 2);
    EXPECT_EQ(average2(1, plane, 3), (2 + 255 + 5 + 250) >> 2);
}

TEST(ImageUtilTest, RasterSizeLimitRefusesOverflowingAndAbsurdSizes) {
    EXPECT_TRUE(CQRBImageUtil::IsRasterSizeAllowed(1, 1));
    EXPECT_TRUE(CQRBImageUtil::IsRasterSizeAllowed(1 << 14, 1 << 14));  // exactly 2^28
    EXPECT_FALSE(CQRBImageUtil::IsRasterSizeAllowed(1 << 14, (1 << 14) + 1));
    EXPECT_FALSE(CQRBImageUtil::IsRasterSizeAllowed(70000, 70000));  // x 4 overflows int
    EXPECT_FALSE(CQRBImageUtil::IsRasterSizeAllowed(INT_MAX, INT_MAX));
    EXPECT_FALSE(CQRBImageUtil::IsRasterSizeAllowed(0, 5));
    EXPECT_FALSE(CQRBImageUtil::IsRasterSizeAllowed(-2, -2));
}

// ---- cover size

struct CoverCase {
    uint64_t srcW, srcH, boxW, boxH;
    uint64_t exactW, exactH;          // kExactProducts
    uint64_t truncatedW, truncatedH;  // kTruncatedQuotient
};

// Readable test names: "4000x3000 into 320x240".
void PrintTo(const CoverCase& c, std::ostream* os) {
    *os << c.srcW << "x" << c.srcH << " into " << c.boxW << "x" << c.boxH;
}

class CoverSizeTest : public ::testing::TestWithParam<CoverCase> {};

TEST_P(CoverSizeTest, KeepsTheAspectAndRoundsTheNamedWay) {
    const CoverCase c = GetParam();
    uint64_t w = 1;
    uint64_t h = 1;
    CQRBImageUtil::CoverSize(c.srcW, c.srcH, c.boxW, c.boxH, QRBCoverRounding::kExactProducts, &w,
                             &h);
    EXPECT_EQ(w, c.exactW);
    EXPECT_EQ(h, c.exactH);
    CQRBImageUtil::CoverSize(c.srcW, c.srcH, c.boxW, c.boxH, QRBCoverRounding::kTruncatedQuotient,
                             &w, &h);
    EXPECT_EQ(w, c.truncatedW);
    EXPECT_EQ(h, c.truncatedH);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CoverSizeTest,
    ::testing::Values(
        CoverCase{4000, 3000, 320, 320, 426, 320, 426, 320},  // wider than the box
        CoverCase{4000, 3000, 320, 180, 320, 240, 320, 240},  // taller than the box
        CoverCase{400, 300, 400, 300, 400, 300, 400, 300},    // the box itself
        // Where the two differ: the truncated quotient falls a pixel short of the box.
        CoverCase{133, 100, 160, 120, 160, 120, 159, 120},
        CoverCase{213, 160, 160, 120, 160, 120, 159, 120},
        CoverCase{100, 50, 320, 240, 480, 240, 480, 240},
        CoverCase{3000, 4000, 3840, 2160, 3840, 5120, 3840, 5120},
        CoverCase{20000, 1000, 1920, 1080, 21600, 1080, 21600, 1080},
        // Zero sides: no size at all, or a quotient by zero taken as 0.
        CoverCase{0, 3000, 320, 240, 0, 0, 0, 240}, CoverCase{4000, 3000, 0, 0, 0, 0, 0, 0},
        // 32-bit sides whose products need 64 bits.
        CoverCase{65535, 1, 4294967295u, 4294967295u, 281470681677825u, 4294967295u,
                  281470681677825u, 4294967295u}));

// ---- planar

struct Planes {
    std::vector<unsigned char> a, r, g, b;
};

// Per pixel: b = 10 * i, g = 10 * i + 1, r = 10 * i + 2, a = 200 + i for pixel index i.
Planes Numbered(int w, int h) {
    Planes p;
    for (int i = 0; i < w * h; ++i) {
        p.b.push_back(static_cast<unsigned char>(10 * i));
        p.g.push_back(static_cast<unsigned char>(10 * i + 1));
        p.r.push_back(static_cast<unsigned char>(10 * i + 2));
        p.a.push_back(static_cast<unsigned char>(200 + i));
    }
    return p;
}

TEST(ImageUtilTest, PlanarPacksBlueGreenRedAlphaInThatByteOrder) {
    Planes p = Numbered(2, 2);
    auto dst = Sentinel(3, 3);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 2, 2,
                                               3, 3, dst.data()));
    // Both directions grow: nearest sample, source column (x * 2) / 3 = 0, 0, 1.
    EXPECT_EQ(At(dst, 3, 0, 0), (Pixel{0, 1, 2, 200}));
    EXPECT_EQ(At(dst, 3, 1, 1), (Pixel{0, 1, 2, 200}));
    EXPECT_EQ(At(dst, 3, 2, 0), (Pixel{10, 11, 12, 201}));
    EXPECT_EQ(At(dst, 3, 2, 2), (Pixel{30, 31, 32, 203}));
    EXPECT_EQ(At(dst, 3, 0, 2), (Pixel{20, 21, 22, 202}));
}

TEST(ImageUtilTest, PlanarBoxRuleAveragesAllButTheLastRowAndColumn) {
    Planes p = Numbered(4, 4);
    auto dst = Sentinel(2, 2);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 4, 4,
                                               2, 2, dst.data()));
    // (0, 0): pixels 0, 1, 4, 5 -> b (0 + 10 + 40 + 50) / 4 = 25, a (200+201+204+205) / 4 = 202.
    EXPECT_EQ(At(dst, 2, 0, 0), (Pixel{25, 26, 27, 202}));
    EXPECT_EQ(At(dst, 2, 1, 0), (Pixel{20, 21, 22, 202}));  // pixel 2, copied
    EXPECT_EQ(At(dst, 2, 0, 1), (Pixel{80, 81, 82, 208}));  // pixel 8, copied
    EXPECT_EQ(At(dst, 2, 1, 1), (Pixel{100, 101, 102, 210}));

    // Same size is no shortcut here: the box rule still averages every pixel but the last
    // row and column.
    Planes q = Numbered(2, 2);
    auto same = Sentinel(2, 2);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBLinear(q.a.data(), q.r.data(), q.g.data(), q.b.data(), 2, 2,
                                               2, 2, same.data()));
    EXPECT_EQ(At(same, 2, 0, 0), (Pixel{15, 16, 17, 201}));
    EXPECT_EQ(At(same, 2, 1, 1), (Pixel{30, 31, 32, 203}));
}

TEST(ImageUtilTest, PlanarBoxRuleClampsAtTheEdgeWhenOnlyOneDirectionGrows) {
    // 2 wide, 3 high to 4 wide, 2 high: stepX = 1/2, so output column 2 starts at source
    // column 1, the last; its box takes that column twice instead of reading past the row.
    Planes p = Numbered(2, 3);
    auto dst = Sentinel(4, 2);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 2, 3,
                                               4, 2, dst.data()));
    EXPECT_EQ(At(dst, 4, 2, 0), (Pixel{20, 21, 22, 202}));  // pixels 1, 1, 3, 3
    EXPECT_EQ(At(dst, 4, 1, 0), (Pixel{15, 16, 17, 201}));  // pixels 0, 1, 2, 3
    EXPECT_EQ(At(dst, 4, 3, 0), (Pixel{10, 11, 12, 201}));  // last column: pixel 1 copied

    // 1 wide: every box is at the right edge.
    Planes one = Numbered(1, 4);
    auto tall = Sentinel(2, 2);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBLinear(one.a.data(), one.r.data(), one.g.data(),
                                               one.b.data(), 1, 4, 2, 2, tall.data()));
    EXPECT_EQ(At(tall, 2, 0, 0), (Pixel{5, 6, 7, 200}));  // pixels 0, 0, 1, 1
}

TEST(ImageUtilTest, PlanarStopsOnceTheSourceIndexReachesTheEnd) {
    // An empty source: the first index is already srcW x srcH, so nothing is written, under
    // the box rule (0 x 5 to 2 x 2) and under the nearest rule (3 x 0 to 4 x 4) alike.
    Planes p = Numbered(3, 5);
    auto dst = Sentinel(4, 4);
    EXPECT_TRUE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 0, 5,
                                               2, 2, dst.data()));
    EXPECT_EQ(dst, Sentinel(4, 4));
    EXPECT_TRUE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 3, 0,
                                               4, 4, dst.data()));
    EXPECT_EQ(dst, Sentinel(4, 4));
}

TEST(ImageUtilTest, PlanarRefusesAZeroTargetMissingPlanesAndNegativeSources) {
    Planes p = Numbered(2, 2);
    auto dst = Sentinel(2, 2);
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 2,
                                                2, 0, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), 2,
                                                2, 2, 0, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(nullptr, p.r.data(), p.g.data(), p.b.data(), 2, 2,
                                                2, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), nullptr, p.b.data(), 2, 2,
                                                2, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(p.a.data(), p.r.data(), p.g.data(), p.b.data(), -2,
                                                -2, 2, 2, dst.data()));
    EXPECT_EQ(dst, Sentinel(2, 2));
}

// ---- interleaved (its sampling rules are checked pixel by pixel through CQRBThumbImage's
// ScaleARGB, its one caller, in items/qrb_thumb_image_argb_test.cpp)

TEST(ImageUtilTest, InterleavedSameSizeLeavesTheDestinationUntouched) {
    auto src = Raster({{1, 2, 3, 4}, {5, 6, 7, 8}});
    auto dst = Sentinel(2, 1);
    EXPECT_TRUE(CQRBImageUtil::ScaleARGBLinear(src.data(), 2, 1, 2, 1, dst.data()));
    EXPECT_EQ(dst, Sentinel(2, 1));
}

TEST(ImageUtilTest, InterleavedRefusesBadParameters) {
    qrbtest::LogCapture log;
    auto src = Raster({{1, 2, 3, 4}});
    auto dst = Sentinel(2, 2);
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(src.data(), 0, 1, 2, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(src.data(), 1, 1, 2, -2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(nullptr, 1, 1, 2, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(src.data(), 1, 1, 2, 2, nullptr));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBLinear(src.data(), 1, 1, 70000, 70000, dst.data()));
    EXPECT_EQ(log.Count("param error"), 5);
    EXPECT_EQ(dst, Sentinel(2, 2));
}

// ---- bilinear

// 4 x 4; byte 0 = 10 * (row * 4 + column), byte 1 its double, byte 2 = 255 - byte 0,
// alpha = 100 + row * 4 + column.
std::vector<unsigned char> FourByFour() {
    std::vector<Pixel> px;
    for (int i = 0; i < 16; ++i) px.push_back({10 * i, (20 * i) & 255, 255 - 10 * i, 100 + i});
    return Raster(px);
}

TEST(ImageUtilTest, CubicFourByFourToTwoByTwoLandsOnWholePixels) {
    auto src = FourByFour();
    auto dst = Sentinel(2, 2);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 4, 4, 2, 2, dst.data()));
    // step = 2048: (1, 1) blends rows 2, 3 and columns 2, 3 with weight 0, so its colour is
    // P[2][2] (pixel 10) and its alpha P[3][3] (pixel 15).
    EXPECT_EQ(At(dst, 2, 1, 1), (Pixel{100, 200, 155, 115}));
    EXPECT_EQ(At(dst, 2, 0, 0), (Pixel{0, 0, 255, 105}));     // colour P[0][0], alpha P[1][1]
    EXPECT_EQ(At(dst, 2, 1, 0), (Pixel{20, 40, 235, 107}));   // colour P[0][2], alpha P[1][3]
    EXPECT_EQ(At(dst, 2, 0, 1), (Pixel{80, 160, 175, 113}));  // colour P[2][0], alpha P[3][1]
}

TEST(ImageUtilTest, CubicBlendsWithTenBitWeightsAndTruncates) {
    // 2 x 2 to 4 x 4: step = 512, half a source pixel per output pixel.
    auto src = Raster({{0, 0, 0, 1}, {100, 0, 0, 2}, {200, 0, 0, 3}, {51, 0, 0, 4}});
    auto dst = Sentinel(4, 4);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 2, 2, 4, 4, dst.data()));
    EXPECT_EQ(At(dst, 4, 1, 0)[0], 50);   // half-way between 0 and 100
    EXPECT_EQ(At(dst, 4, 0, 1)[0], 100);  // half-way between 0 and 200
    // left = (0 + 200) / 2 = 100, right = (100 + 51) / 2 = 75 (truncated), then (100 + 75) / 2.
    EXPECT_EQ(At(dst, 4, 1, 1)[0], 87);
    EXPECT_EQ(At(dst, 4, 3, 3)[0], 51);  // the last column and row stay on pixel (1, 1)
    EXPECT_EQ(At(dst, 4, 0, 0)[3], 4);   // alpha is P[y1][x1], never blended
    EXPECT_EQ(At(dst, 4, 3, 3)[3], 4);
}

TEST(ImageUtilTest, CubicStaysInsideASourceFlatterThanItsTarget) {
    // The step comes from the widths alone: 4 x 2 to 2 x 4 walks y0 to 2, 4 and 6, past the
    // source's two rows. Those rows are clamped to the last one.
    std::vector<Pixel> px;
    for (int i = 0; i < 8; ++i) px.push_back({10 * i, 1, 2, 100 + i});
    auto src = Raster(px);
    auto dst = Sentinel(2, 4);
    ASSERT_TRUE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 4, 2, 2, 4, dst.data()));
    EXPECT_EQ(At(dst, 2, 0, 0), (Pixel{0, 1, 2, 105}));
    for (int y = 1; y < 4; ++y) {
        EXPECT_EQ(At(dst, 2, 0, y), (Pixel{40, 1, 2, 105}))
            << y;  // row 1, column 0 (alpha: column 1)
        EXPECT_EQ(At(dst, 2, 1, y), (Pixel{60, 1, 2, 107}))
            << y;  // row 1, column 2 (alpha: column 3)
    }
}

TEST(ImageUtilTest, CubicSameSizeAndBadParameters) {
    qrbtest::LogCapture log;
    auto src = FourByFour();
    auto dst = Sentinel(4, 4);
    EXPECT_TRUE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 4, 4, 4, 4, dst.data()));
    EXPECT_EQ(dst, Sentinel(4, 4));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 4, 4, 0, 4, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBFromCubic(nullptr, 4, 4, 2, 2, dst.data()));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 4, 4, 2, 2, nullptr));
    EXPECT_FALSE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), 0, 4, 2, 2, dst.data()));
    EXPECT_EQ(log.Count("param error"), 4);
    EXPECT_EQ(dst, Sentinel(4, 4));
}

}  // namespace
