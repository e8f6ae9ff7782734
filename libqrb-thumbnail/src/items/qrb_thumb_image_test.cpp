// The pixel operations of CQRBThumbImage (scale, crop, rotate) on small rasters built here;
// expected pixels are worked out by hand from the sampling rules.
#include "qrb_thumb_image.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <vector>

namespace {

using Pixel = std::array<int, 4>;  // bytes 0..3 of one pixel

// Column, row, a mix of both, and a falling alpha: every byte differs between neighbours.
Pixel Pattern(int x, int y) { return {x & 255, y & 255, (x * 7 + y * 13) & 255, 255 - (x & 127)}; }
// Ids 1, 2, 3, ... row by row in byte 0.
Pixel Ids(int x, int y) { return {1 + y * 3 + x, 0, 0, 255}; }

boost::intrusive_ptr<CQRBThumbImage> MakeImage(int w, int h, Pixel (*fn)(int, int) = Pattern) {
    auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
    for (int i = 0; i < w * h * 4; ++i)
        p[i] = static_cast<unsigned char>(fn(i / 4 % w, i / 4 / w)[i % 4]);
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 4, w * 4, p, 0);
    return image;
}

Pixel At(const CQRBThumbImage& image, int x, int y) {
    const unsigned char* p =
        image.GetBuffer() + (static_cast<size_t>(y) * image.GetWidth() + x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

TEST(ThumbImageTest, ScaleSamplesNearestWhenGrowingBothWaysElseAveragesBoxes) {
    const struct {
        int srcW, srcH, dstW, dstH, x, y;
        Pixel want;
    } cases[] = {
        {100, 50, 200, 100, 1, 1, Pattern(0, 0)},  // nearest: no blend
        {100, 50, 200, 100, 199, 99, Pattern(99, 49)},
        {100, 50, 200, 40, 2, 0, {1, 0, 17, 253}},   // mean of (1, 0), (2, 0), (1, 1), (2, 1)
        {100, 50, 200, 40, 10, 39, Pattern(5, 48)},  // last row: copied
        {100, 50, 200, 40, 199, 7, Pattern(99, 8)},  // last column: copied
        // Boxes starting on the last source column or row take it twice, never reading past.
        {100, 50, 200, 40, 198, 0, {99, 0, 187, 156}},
        {200, 50, 100, 100, 0, 98, {0, 49, 128, 254}},
        {3, 3, 1, 1, 0, 0, Pattern(0, 0)},
    };
    for (const auto& c : cases) {
        auto image = MakeImage(c.srcW, c.srcH);
        ASSERT_TRUE(image->ScaleARGB(c.dstW, c.dstH));
        ASSERT_EQ(c.dstW * 1000 + c.dstH, image->GetWidth() * 1000 + image->GetHeight());
        EXPECT_EQ(c.want, At(*image, c.x, c.y)) << c.srcW << "x" << c.srcH << " to " << c.dstW
                                                << "x" << c.dstH << " at " << c.x << "," << c.y;
    }
}

TEST(ThumbImageTest, ScaleRefusesBadOrAbsurdTargetsAndKeepsTheImage) {
    auto image = MakeImage(6, 4);
    const unsigned char* before = image->GetBuffer();
    for (auto [w, h] : {std::pair{0, 4}, {6, -1}, {1 << 15, 1 << 15}, {70000, 70000}})
        EXPECT_FALSE(image->ScaleARGB(w, h)) << w << "x" << h;
    EXPECT_EQ(before, image->GetBuffer());
    EXPECT_EQ(6, image->GetWidth());
}

TEST(ThumbImageTest, CropTakesOnlyWhatLiesInsideTheSource) {
    auto image = MakeImage(10, 10);
    for (auto [x, y, w, h] : {std::array{-1, 0, 5, 5},
                              {0, 0, 0, 5},
                              {0, 0, 11, 5},
                              {6, 0, 5, 5},
                              {0, 2147483000, 5, 5}})
        EXPECT_FALSE(image->CropARGB(x, y, w, h)) << x << "," << y << " " << w << "x" << h;
    EXPECT_TRUE(image->CropARGB(10, 10, 10, 10)) << "its own size: nothing to do";
    EXPECT_FALSE(image->CropCentre(11, 2));
    ASSERT_TRUE(image->CropCentre(6, 4));
    EXPECT_EQ(6, image->GetWidth());
    EXPECT_EQ(4, image->GetHeight());
    EXPECT_EQ(Pattern(2, 3), At(*image, 0, 0));
    EXPECT_EQ(Pattern(7, 6), At(*image, 5, 3));
}

TEST(ThumbImageTest, RotateGivesEveryOrientationsRaster) {
    // Source 3 x 2:  1 2 3
    //                4 5 6
    const std::vector<int> want[] = {
        {},
        {1, 2, 3, 4, 5, 6},
        {3, 2, 1, 6, 5, 4},  // mirror
        {6, 5, 4, 3, 2, 1},
        {4, 5, 6, 1, 2, 3},
        {1, 4, 2, 5, 3, 6},  // transpose
        {4, 1, 5, 2, 6, 3},  // a quarter turn clockwise: the left column bottom to top on top
        {6, 3, 5, 2, 4, 1},  // transverse
        {3, 6, 2, 5, 1, 4},
    };
    for (int orient = 1; orient <= 8; ++orient) {
        auto image = MakeImage(3, 2, Ids);
        ASSERT_TRUE(image->RotateARGB(orient));
        EXPECT_EQ(orient >= 5 ? 2 : 3, image->GetWidth()) << orient;
        std::vector<int> ids;
        for (int i = 0; i < 6; ++i) ids.push_back(image->GetBuffer()[i * 4]);
        EXPECT_EQ(want[orient], ids) << "orientation " << orient;
    }
    auto image = MakeImage(3, 2, Ids);
    EXPECT_FALSE(image->RotateARGB(0));
    EXPECT_FALSE(image->RotateARGB(9));
    EXPECT_FALSE(CQRBThumbImage().RotateARGB(6)) << "not created";
}

}  // namespace
