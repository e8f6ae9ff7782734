#include "fit_scale.h"

#include <algorithm>
#include <cstdint>

namespace qrbthumb {

Raster FitInside(const unsigned char* pixels, int width, int height, int box) {
    Raster out;
    if (pixels == nullptr || width <= 0 || height <= 0 || box <= 0) return out;
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    if (width <= box && height <= box) {
        out.pixels.assign(pixels, pixels + rowBytes * static_cast<size_t>(height));
        out.width = width;
        out.height = height;
        return out;
    }
    const int64_t longer = std::max(width, height);
    out.width = std::max<int>(1, static_cast<int>((int64_t{width} * box + longer / 2) / longer));
    out.height = std::max<int>(1, static_cast<int>((int64_t{height} * box + longer / 2) / longer));
    out.pixels.resize(static_cast<size_t>(out.width) * out.height * 4);

    for (int y = 0; y < out.height; ++y) {
        const int y0 = static_cast<int>(int64_t{y} * height / out.height);
        const int y1 = std::max(y0 + 1, static_cast<int>(int64_t{y + 1} * height / out.height));
        for (int x = 0; x < out.width; ++x) {
            const int x0 = static_cast<int>(int64_t{x} * width / out.width);
            const int x1 = std::max(x0 + 1, static_cast<int>(int64_t{x + 1} * width / out.width));
            uint64_t sum[4] = {0, 0, 0, 0};
            for (int sy = y0; sy < y1; ++sy) {
                const unsigned char* p = pixels + static_cast<size_t>(sy) * rowBytes + size_t(x0) * 4;
                for (int sx = x0; sx < x1; ++sx, p += 4) {
                    for (int c = 0; c < 4; ++c) sum[c] += p[c];
                }
            }
            const uint64_t n = uint64_t(y1 - y0) * uint64_t(x1 - x0);
            unsigned char* q = &out.pixels[(static_cast<size_t>(y) * out.width + x) * 4];
            for (int c = 0; c < 4; ++c) q[c] = static_cast<unsigned char>((sum[c] + n / 2) / n);
        }
    }
    return out;
}

}  // namespace qrbthumb
