// The bilinear enlarger on rasters a few pixels wide, worked out by hand (the cover size is
// checked through the decoder's source table and the PTP getter, the box and nearest rules
// through ScaleARGB and the PNG tests).
#include "qrb_image_util.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

using Pixel = std::array<int, 4>;

TEST(ImageUtilTest, BilinearEnlargerBlendsColourKeepsAlphaAndStaysInside) {
    // Byte 0 of pixel i is v[i]; bytes 1 and 2 are 1 and 2; alpha is 100 + i.
    const struct {
        std::vector<int> v;
        int srcW, srcH, dstW, dstH, x, y;
        Pixel want;
    } cases[] = {
        // step 512: half-way both ways, 10-bit weights, truncated: (0 + 200) / 2 = 100 and
        // (100 + 51) / 2 = 75, then (100 + 75) / 2.
        {{0, 100, 200, 51}, 2, 2, 4, 4, 1, 1, {87, 1, 2, 103}},
        {{0, 100, 200, 51}, 2, 2, 4, 4, 3, 3, {51, 1, 2, 103}},  // the last stay on (1, 1)
        // The step comes from the widths: rows past a flat source are clamped to its last.
        {{0, 10, 20, 30, 40, 50, 60, 70}, 4, 2, 2, 4, 1, 3, {60, 1, 2, 107}},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> src;
        for (size_t i = 0; i < c.v.size(); ++i)
            src.insert(src.end(), {static_cast<unsigned char>(c.v[i]), 1, 2,
                                   static_cast<unsigned char>(100 + i)});
        std::vector<unsigned char> dst(c.dstW * c.dstH * 4, 0xAB);
        ASSERT_TRUE(CQRBImageUtil::ScaleARGBFromCubic(src.data(), c.srcW, c.srcH, c.dstW, c.dstH,
                                                      dst.data()));
        const unsigned char* p = &dst[(c.y * c.dstW + c.x) * 4];
        EXPECT_EQ(c.want, (Pixel{p[0], p[1], p[2], p[3]}))
            << c.srcW << "x" << c.srcH << " to " << c.dstW << "x" << c.dstH << " at " << c.x << ","
            << c.y;
    }
}

}  // namespace
