// CQRBThumbImage's scale and crop on small rasters; expected pixels worked out by hand.
#include "qrb_thumb_image.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace {

using Pixel = std::array<int, 4>;  // bytes 0..3 of one pixel

// Column, row, a mix of both, and a falling alpha: every byte differs between neighbours.
Pixel Pattern(int x, int y) { return {x & 255, y & 255, (x * 7 + y * 13) & 255, 255 - (x & 127)}; }

boost::intrusive_ptr<CQRBThumbImage> MakeImage(int w, int h) {
    auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
    for (int i = 0; i < w * h * 4; ++i)
        p[i] = static_cast<unsigned char>(Pattern(i / 4 % w, i / 4 / w)[i % 4]);
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
        {100, 50, 200, 100, 199, 99, Pattern(99, 49)},  // nearest: no blend
        {100, 50, 200, 40, 2, 0, {1, 0, 17, 253}},      // mean of (1, 0), (2, 0), (1, 1), (2, 1)
        // Boxes starting on the last source column or row take it twice, never reading past.
        {100, 50, 200, 40, 198, 0, {99, 0, 187, 156}},
        {200, 50, 100, 100, 0, 98, {0, 49, 128, 254}},
    };
    for (const auto& c : cases) {
        auto image = MakeImage(c.srcW, c.srcH);
        ASSERT_TRUE(image->ScaleARGB(c.dstW, c.dstH));
        ASSERT_EQ(c.dstW * 1000 + c.dstH, image->GetWidth() * 1000 + image->GetHeight());
        EXPECT_EQ(c.want, At(*image, c.x, c.y)) << c.srcW << "x" << c.srcH << " to " << c.dstW
                                                << "x" << c.dstH << " at " << c.x << "," << c.y;
    }
}

// Bad or absurd targets are refused and leave the image as it was.
TEST(ThumbImageTest, ScaleAndCropTakeOnlyWhatFitsTheSource) {
    auto image = MakeImage(10, 10);
    const unsigned char* before = image->GetBuffer();
    for (auto [w, h] : {std::pair{0, 4}, {6, -1}, {1 << 15, 1 << 15}, {70000, 70000}})
        EXPECT_FALSE(image->ScaleARGB(w, h)) << w << "x" << h;
    EXPECT_EQ(before, image->GetBuffer());
    for (auto [x, y, w, h] : {std::array{-1, 0, 5, 5}, {0, 0, 11, 5}, {0, 2147483000, 5, 5}})
        EXPECT_FALSE(image->CropARGB(x, y, w, h)) << x << "," << y << " " << w << "x" << h;
    EXPECT_TRUE(image->CropARGB(10, 10, 10, 10)) << "its own size: nothing to do";
    EXPECT_FALSE(image->CropCentre(11, 2));
    ASSERT_TRUE(image->CropCentre(6, 4));
    EXPECT_EQ(6 * 1000 + 4, image->GetWidth() * 1000 + image->GetHeight());
    EXPECT_EQ(Pattern(2, 3), At(*image, 0, 0));
    EXPECT_EQ(Pattern(7, 6), At(*image, 5, 3));
}

}  // namespace
