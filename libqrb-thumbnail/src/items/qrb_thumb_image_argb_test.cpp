// The pixel operations of CQRBThumbImage (scale, rotate) on small rasters built here. Scaling is
// where the interleaved scaler's sampling rules (CQRBImageUtil::ScaleARGBLinear) are tested.
// Expected pixels are worked out by hand from the sampling rules, or, for whole-image checks,
// from a direct division that the fixed-point implementation must agree with on exact ratios.
#include "qrb_thumb_image.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <boost/intrusive_ptr.hpp>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using Pixel = std::array<int, 4>;  // bytes 0..3 of one pixel (blue, green, red, alpha)
using PixelFn = std::function<Pixel(int x, int y)>;

boost::intrusive_ptr<CQRBThumbImage> MakeImage(int w, int h, const PixelFn& fn) {
    auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Pixel v = fn(x, y);
            for (int c = 0; c < 4; ++c)
                p[(static_cast<size_t>(y) * w + x) * 4 + c] = static_cast<unsigned char>(v[c]);
        }
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 4, w * 4, p, 0);
    return image;
}

Pixel At(const CQRBThumbImage& image, int x, int y) {
    const unsigned char* p =
        image.GetBuffer() + (static_cast<size_t>(y) * image.GetWidth() + x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

// Column, row, a mix of both, and a falling alpha: every byte differs between neighbours.
Pixel Pattern(int x, int y) { return {x & 255, y & 255, (x * 7 + y * 13) & 255, 255 - (x & 127)}; }

Pixel Mean(const Pixel& a, const Pixel& b, const Pixel& c, const Pixel& d) {
    Pixel m{};
    for (int i = 0; i < 4; ++i) m[i] = (a[i] + b[i] + c[i] + d[i]) >> 2;
    return m;
}

// Raster as ids (byte 0) row by row, for the orientation tables.
std::vector<int> Ids(const CQRBThumbImage& image) {
    std::vector<int> ids;
    for (int y = 0; y < image.GetHeight(); ++y)
        for (int x = 0; x < image.GetWidth(); ++x) ids.push_back(At(image, x, y)[0]);
    return ids;
}

TEST(ArgbScaleTest, GrowingInBothDirectionsTakesNearestSamples) {
    qrbtest::LogCapture log;
    auto image = MakeImage(100, 50, Pattern);
    ASSERT_TRUE(image->ScaleARGB(200, 100));
    ASSERT_EQ(image->GetWidth(), 200);
    ASSERT_EQ(image->GetHeight(), 100);
    EXPECT_TRUE(log.Contains(" in width: 100, in height:50, out width: 200, out height: 100"));
    // (1, 1) would be a blend of four pixels under the box rule; here it is pixel (0, 0) itself.
    EXPECT_EQ(At(*image, 1, 1), (Pixel{0, 0, 0, 255}));
    EXPECT_EQ(At(*image, 3, 5), (Pixel{1, 2, 33, 254}));
    EXPECT_EQ(At(*image, 199, 99), (Pixel{99, 49, 50, 156}));
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 200; ++x)
            ASSERT_EQ(At(*image, x, y), Pattern(x * 100 / 200, y * 50 / 100)) << x << "," << y;
}

TEST(ArgbScaleTest, GrowingInOneDirectionAveragesTwoByTwoBoxes) {
    auto image = MakeImage(100, 50, Pattern);
    ASSERT_TRUE(image->ScaleARGB(200, 40));
    ASSERT_EQ(image->GetWidth(), 200);
    ASSERT_EQ(image->GetHeight(), 40);
    // stepX = 0.5, stepY = 1.25: (2, 0) blends source (1, 0), (2, 0), (1, 1), (2, 1).
    EXPECT_EQ(At(*image, 2, 0), (Pixel{1, 0, 17, 253}));
    // The last row and the last column copy their source pixel unaveraged.
    EXPECT_EQ(At(*image, 10, 39), Pattern(5, 48));
    EXPECT_EQ(At(*image, 199, 7), Pattern(99, 8));
    // Both ratios are exact in 16.16, so plain division gives the same source positions.
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 200; ++x) {
            const int sx = x * 100 / 200, sy = y * 50 / 40;
            const Pixel expected =
                (x == 199 || y == 39)
                    ? Pattern(sx, sy)
                    : Mean(Pattern(sx, sy), Pattern(std::min(sx + 1, 99), sy), Pattern(sx, sy + 1),
                           Pattern(std::min(sx + 1, 99), sy + 1));
            ASSERT_EQ(At(*image, x, y), expected) << x << "," << y;
        }
}

TEST(ArgbScaleTest, BoxRuleNeverReadsPastTheSourceEdgeWhenOneDirectionGrows) {
    // Width grows, height shrinks: output column 198 starts its box at source column 99, the
    // last one. Its right-hand neighbour does not exist; the edge column is taken twice rather
    // than the first pixel of the next row.
    auto wide = MakeImage(100, 50, Pattern);
    ASSERT_TRUE(wide->ScaleARGB(200, 40));
    EXPECT_EQ(At(*wide, 198, 0), (Pixel{99, 0, 187, 156}));

    // Height grows, width shrinks: output row 98 starts at source row 49, the last one. Reading
    // the row below it would run off the end of the raster.
    auto tall = MakeImage(200, 50, Pattern);
    ASSERT_TRUE(tall->ScaleARGB(100, 100));
    EXPECT_EQ(At(*tall, 0, 98),
              Mean(Pattern(0, 49), Pattern(1, 49), Pattern(0, 49), Pattern(1, 49)));
    EXPECT_EQ(At(*tall, 0, 97),
              Mean(Pattern(0, 48), Pattern(1, 48), Pattern(0, 49), Pattern(1, 49)));
}

TEST(ArgbScaleTest, ShrinkingFourByFourAveragesTheUpperLeftBoxOnly) {
    // Byte 0 holds the literal values; the other bytes are constant.
    const int v[4][4] = {
        {10, 20, 30, 40}, {50, 61, 70, 80}, {90, 100, 110, 120}, {130, 140, 150, 160}};
    auto image = MakeImage(4, 4, [&](int x, int y) { return Pixel{v[y][x], 1, 2, 3}; });
    ASSERT_TRUE(image->ScaleARGB(2, 2));
    EXPECT_EQ(At(*image, 0, 0)[0], 35);  // (10 + 20 + 50 + 61) >> 2
    EXPECT_EQ(At(*image, 1, 0)[0], 30);  // last column: source (2, 0) copied
    EXPECT_EQ(At(*image, 0, 1)[0], 90);  // last row: source (0, 2) copied
    EXPECT_EQ(At(*image, 1, 1)[0], 110);
    EXPECT_EQ(At(*image, 0, 0)[3], 3);
}

TEST(ArgbScaleTest, OnePixelTargetCopiesTheFirstSourcePixel) {
    auto image = MakeImage(3, 3, [](int x, int y) { return Pixel{100 + x, 50 * y, 9, 200}; });
    ASSERT_TRUE(image->ScaleARGB(1, 1));
    EXPECT_EQ(image->GetWidth(), 1);
    EXPECT_EQ(At(*image, 0, 0), (Pixel{100, 0, 9, 200}));
}

TEST(ArgbScaleTest, CurrentSizeIsANoOp) {
    auto image = MakeImage(5, 4, Pattern);
    const unsigned char* before = image->GetBuffer();
    EXPECT_TRUE(image->ScaleARGB(5, 4));
    EXPECT_EQ(image->GetBuffer(), before);
}

TEST(ArgbScaleTest, RefusesBadTargetsAndLeavesTheImageAsItWas) {
    auto image = MakeImage(6, 4, Pattern);
    const unsigned char* before = image->GetBuffer();
    EXPECT_FALSE(image->ScaleARGB(0, 4));
    EXPECT_FALSE(image->ScaleARGB(6, -1));
    // 2^30 pixels, and a size whose byte count does not fit in 32 bits: refused, not wrapped.
    EXPECT_FALSE(image->ScaleARGB(1 << 15, 1 << 15));
    EXPECT_FALSE(image->ScaleARGB(70000, 70000));
    EXPECT_EQ(image->GetBuffer(), before);
    EXPECT_EQ(image->GetWidth(), 6);
    EXPECT_EQ(image->GetHeight(), 4);

    CQRBThumbImage notCreated;
    EXPECT_FALSE(notCreated.ScaleARGB(2, 2));
    CQRBThumbImage noBuffer;
    noBuffer.Create(4, 4, 4, 16, nullptr, 0);
    EXPECT_FALSE(noBuffer.ScaleARGB(2, 2));
}

// Source 3 x 2, ids 1..6:   1 2 3
//                           4 5 6
// and what each EXIF orientation makes of it, worked out by hand.
struct OrientationCase {
    int orient;
    int width;
    int height;
    std::vector<int> ids;
};

TEST(ArgbRotateTest, EveryOrientationGivesItsHandComputedRaster) {
    const OrientationCase cases[] = {
        {1, 3, 2, {1, 2, 3, 4, 5, 6}},
        {2, 3, 2, {3, 2, 1, 6, 5, 4}},  // mirror: the middle column stays
        {3, 3, 2, {6, 5, 4, 3, 2, 1}},
        {4, 3, 2, {4, 5, 6, 1, 2, 3}},
        {5, 2, 3, {1, 4, 2, 5, 3, 6}},  // transpose
        {6, 2, 3, {4, 1, 5, 2, 6, 3}},
        {7, 2, 3, {6, 3, 5, 2, 4, 1}},  // transverse
        {8, 2, 3, {3, 6, 2, 5, 1, 4}},
    };
    for (const auto& c : cases) {
        auto image = MakeImage(3, 2, [](int x, int y) { return Pixel{1 + y * 3 + x, 0, 0, 255}; });
        ASSERT_TRUE(image->RotateARGB(c.orient)) << c.orient;
        EXPECT_EQ(image->GetWidth(), c.width) << c.orient;
        EXPECT_EQ(image->GetHeight(), c.height) << c.orient;
        EXPECT_EQ(Ids(*image), c.ids) << "orientation " << c.orient;
    }
}

TEST(ArgbRotateTest, QuarterTurnPutsTheLeftColumnBottomToTopOnTop) {
    qrbtest::LogCapture log;
    auto image = MakeImage(4, 2, [](int x, int y) { return Pixel{x, y, 40 + x + 4 * y, 255}; });
    ASSERT_TRUE(image->RotateARGB(6));
    ASSERT_EQ(image->GetWidth(), 2);
    ASSERT_EQ(image->GetHeight(), 4);
    EXPECT_EQ(At(*image, 0, 0), (Pixel{0, 1, 44, 255}));
    EXPECT_EQ(At(*image, 1, 0), (Pixel{0, 0, 40, 255}));
    EXPECT_EQ(At(*image, 0, 3), (Pixel{3, 1, 47, 255}));
    EXPECT_EQ(At(*image, 1, 3), (Pixel{3, 0, 43, 255}));
    EXPECT_TRUE(log.Contains("nOrient: 6"));
}

TEST(ArgbRotateTest, ValuesOutsideOneToEightAreRefusedAndOneChangesNothing) {
    auto image = MakeImage(4, 2, Pattern);
    const unsigned char* before = image->GetBuffer();
    const std::vector<int> ids = Ids(*image);
    EXPECT_FALSE(image->RotateARGB(9));
    EXPECT_FALSE(image->RotateARGB(0));
    EXPECT_FALSE(image->RotateARGB(-6));
    EXPECT_TRUE(image->RotateARGB(1));
    EXPECT_EQ(image->GetBuffer(), before);
    EXPECT_EQ(image->GetWidth(), 4);
    EXPECT_EQ(Ids(*image), ids);
}

TEST(ArgbRotateTest, ImageThatIsNotCreatedIsRefused) {
    qrbtest::LogCapture log;
    CQRBThumbImage image;
    EXPECT_FALSE(image.RotateARGB(3));
    EXPECT_TRUE(log.Contains("not create"));
    CQRBThumbImage noBuffer;
    noBuffer.Create(4, 4, 4, 16, nullptr, 0);
    EXPECT_FALSE(noBuffer.RotateARGB(6));
    EXPECT_EQ(noBuffer.GetWidth(), 4);
}

TEST(ArgbRotateTest, QuarterTurnsOfALargerRasterKeepEveryPixel) {
    // 7 x 5 with odd sides: four clockwise quarter turns come back to the start; two make 3.
    auto image = MakeImage(7, 5, Pattern);
    auto half = MakeImage(7, 5, Pattern);
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(image->RotateARGB(6));
    EXPECT_EQ(image->GetWidth(), 7);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) ASSERT_EQ(At(*image, x, y), Pattern(x, y));
    ASSERT_TRUE(half->RotateARGB(6));
    ASSERT_TRUE(half->RotateARGB(6));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) ASSERT_EQ(At(*half, x, y), Pattern(6 - x, 4 - y));
    // 6 followed by 8 undoes itself.
    ASSERT_TRUE(half->RotateARGB(8));
    ASSERT_TRUE(half->RotateARGB(6));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) ASSERT_EQ(At(*half, x, y), Pattern(6 - x, 4 - y));
}

}  // namespace
