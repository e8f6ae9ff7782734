#include "qrb_image_util.h"

#include "qrb_log.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr int kBytesPerPixel = 4;

// Byte offset of pixel (x, y) in a packed raster of the given width.
inline size_t PixelOffset(int64_t x, int64_t y, int width) {
    return (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
           kBytesPerPixel;
}

// Steps through source positions x * src / dst for x = 0, 1, ... without dividing per pixel.
// Only used where src < dst, so the position advances by at most one per step.
class NearestWalk {
public:
    NearestWalk(int src, int dst) : m_Src(src), m_Dst(dst) {}
    int Position() const { return m_Pos; }
    void Next() {
        m_Rem += m_Src;
        while (m_Rem >= m_Dst) {
            m_Rem -= m_Dst;
            ++m_Pos;
        }
    }

private:
    int64_t m_Src;
    int64_t m_Dst;
    int64_t m_Rem = 0;
    int m_Pos = 0;
};

bool UsesNearestSample(int srcW, int srcH, int dstW, int dstH) {
    return srcW < dstW && srcH < dstH;
}

// 16.16 step of the box rule. 64-bit: srcW << 16 leaves 32 bits for widths above 32767.
inline int64_t BoxStep(int src, int dst) { return (static_cast<int64_t>(src) << 16) / dst; }

}  // namespace

int average2(long index, const unsigned char* plane, long stride) {
    return (plane[index] + plane[index + 1] + plane[index + stride] + plane[index + stride + 1]) >>
           2;
}

bool CQRBImageUtil::IsRasterSizeAllowed(long long width, long long height) {
    return width > 0 && height > 0 && width <= kMaxPixels && height <= kMaxPixels &&
           width * height <= kMaxPixels;
}

void CQRBImageUtil::CoverSize(uint64_t srcW, uint64_t srcH, uint64_t boxW, uint64_t boxH,
                              QRBCoverRounding rounding, uint64_t* outW, uint64_t* outH) {
    if (rounding == QRBCoverRounding::kExactProducts) {
        *outW = 0;
        *outH = 0;
        if (srcW == 0 || srcH == 0 || boxW == 0 || boxH == 0) return;
        if (boxW * srcH < boxH * srcW) {  // wider than the box: the height decides
            *outW = boxH * srcW / srcH;
            *outH = boxH;
        } else if (boxW * srcH == boxH * srcW) {
            *outW = boxW;
            *outH = boxH;
        } else {
            *outW = boxW;
            *outH = boxW * srcH / srcW;
        }
        return;
    }
    const uint64_t t = srcW != 0 ? srcH * boxW / srcW : 0;
    if (boxH >= t) {
        *outW = srcH != 0 ? srcW * boxH / srcH : 0;
        *outH = boxH;
    } else {
        *outW = boxW;
        *outH = t;
    }
}

bool CQRBImageUtil::ScaleARGBLinear(unsigned char* a, unsigned char* r, unsigned char* g,
                                    unsigned char* b, int srcW, int srcH, int dstW, int dstH,
                                    unsigned char* dst) {
    if (dstW == 0 || dstH == 0 || a == nullptr || r == nullptr || g == nullptr || b == nullptr) {
        return false;
    }
    QRB_LOGD("srcW=%d, srcH=%d, dstW=%d, dstH=%d", srcW, srcH, dstW, dstH);
    // An empty source is allowed (the index stop below writes nothing); a negative or huge one
    // would address memory before or far beyond the planes.
    if (dst == nullptr || !IsRasterSizeAllowed(dstW, dstH) || srcW < 0 || srcH < 0 ||
        static_cast<long long>(srcW) * srcH > kMaxPixels) {
        QRB_LOGW("param error");
        return false;
    }
    const int64_t srcPixels = static_cast<int64_t>(srcW) * srcH;
    unsigned char* out = dst;

    if (UsesNearestSample(srcW, srcH, dstW, dstH)) {
        NearestWalk row(srcH, dstH);
        for (int y = 0; y < dstH; ++y, row.Next()) {
            NearestWalk col(srcW, dstW);
            for (int x = 0; x < dstW; ++x, col.Next()) {
                const int64_t i = static_cast<int64_t>(row.Position()) * srcW + col.Position();
                // The index check of the box rule, kept here too: with an empty source every
                // index is already past the end.
                if (i >= srcPixels) return true;
                out[0] = b[i];
                out[1] = g[i];
                out[2] = r[i];
                out[3] = a[i];
                out += kBytesPerPixel;
            }
        }
        return true;
    }

    const int64_t stepX = BoxStep(srcW, dstW);
    const int64_t stepY = BoxStep(srcH, dstH);
    int64_t fy = 0;
    for (int y = 0; y < dstH; ++y, fy += stepY) {
        const int64_t sy = fy >> 16;
        int64_t fx = 0;
        for (int x = 0; x < dstW; ++x, fx += stepX) {
            const int64_t sx = fx >> 16;
            const int64_t i = sy * srcW + sx;
            if (i >= srcPixels) return true;
            if (x >= dstW - 1 || y >= dstH - 1) {
                out[0] = b[i];
                out[1] = g[i];
                out[2] = r[i];
                out[3] = a[i];
            } else if (sx + 1 < srcW && sy + 1 < srcH) {
                out[0] = static_cast<unsigned char>(average2(i, b, srcW));
                out[1] = static_cast<unsigned char>(average2(i, g, srcW));
                out[2] = static_cast<unsigned char>(average2(i, r, srcW));
                out[3] = static_cast<unsigned char>(average2(i, a, srcW));
            } else {
                // Only when one direction grows: the block's far column or row would lie one
                // past the source's edge, so the edge is taken twice instead.
                const int64_t dx = sx + 1 < srcW ? 1 : 0;
                const int64_t dy = sy + 1 < srcH ? srcW : 0;
                const unsigned char* planes[4] = {b, g, r, a};
                for (int c = 0; c < 4; ++c) {
                    const unsigned char* p = planes[c];
                    out[c] = static_cast<unsigned char>(
                        (p[i] + p[i + dx] + p[i + dy] + p[i + dy + dx]) >> 2);
                }
            }
            out += kBytesPerPixel;
        }
    }
    return true;
}

bool CQRBImageUtil::ScaleARGBLinear(unsigned char* src, int srcW, int srcH, int dstW, int dstH,
                                    unsigned char* dst) {
    if (dstW <= 0 || dstH <= 0 || srcW <= 0 || srcH <= 0 || src == nullptr || dst == nullptr ||
        !IsRasterSizeAllowed(srcW, srcH) || !IsRasterSizeAllowed(dstW, dstH)) {
        QRB_LOGW("param error");
        return false;
    }
    if (srcW == dstW && srcH == dstH) return true;

    unsigned char* out = dst;
    if (UsesNearestSample(srcW, srcH, dstW, dstH)) {
        NearestWalk row(srcH, dstH);
        for (int y = 0; y < dstH; ++y, row.Next()) {
            NearestWalk col(srcW, dstW);
            for (int x = 0; x < dstW; ++x, col.Next()) {
                std::memcpy(out, src + PixelOffset(col.Position(), row.Position(), srcW),
                            kBytesPerPixel);
                out += kBytesPerPixel;
            }
        }
        return true;
    }

    const int64_t stepX = BoxStep(srcW, dstW);
    const int64_t stepY = BoxStep(srcH, dstH);
    const size_t srcStride = static_cast<size_t>(srcW) * kBytesPerPixel;
    int64_t fy = 0;
    for (int y = 0; y < dstH; ++y, fy += stepY) {
        const int64_t sy = fy >> 16;
        // Where only one direction grows, the row or column after the block's first can lie one
        // past the source's edge; the edge is then taken twice instead of reading beyond it.
        const size_t down = sy + 1 < srcH ? srcStride : 0;
        int64_t fx = 0;
        for (int x = 0; x < dstW; ++x, fx += stepX) {
            const int64_t sx = fx >> 16;
            const unsigned char* p00 = src + PixelOffset(sx, sy, srcW);
            if (x >= dstW - 1 || y >= dstH - 1) {
                std::memcpy(out, p00, kBytesPerPixel);
            } else {
                const size_t right = sx + 1 < srcW ? kBytesPerPixel : 0;
                const unsigned char* p01 = p00 + right;
                const unsigned char* p10 = p00 + down;
                const unsigned char* p11 = p10 + right;
                for (int c = 0; c < kBytesPerPixel; ++c) {
                    out[c] = static_cast<unsigned char>((p00[c] + p01[c] + p10[c] + p11[c]) >> 2);
                }
            }
            out += kBytesPerPixel;
        }
    }
    return true;
}

bool CQRBImageUtil::ScaleARGBFromCubic(unsigned char* src, int srcW, int srcH, int dstW, int dstH,
                                       unsigned char* dst) {
    if (dstW <= 0 || dstH <= 0 || src == nullptr || dst == nullptr ||
        !IsRasterSizeAllowed(srcW, srcH) || !IsRasterSizeAllowed(dstW, dstH)) {
        QRB_LOGW("param error");
        return false;
    }
    if (srcW == dstW && srcH == dstH) return true;

    // The horizontal ratio serves both directions. With a target taller, for its width, than
    // the source, y0 would walk past the source's last row, so positions are clamped to the
    // source: a clamped row or column is the edge itself, its neighbour (the same) weighted 0.
    const int64_t step = (static_cast<int64_t>(srcW) << 10) / dstW;
    unsigned char* out = dst;
    int64_t fy = 0;
    for (int y = 0; y < dstH; ++y, fy += step) {
        int64_t y0 = fy >> 10;
        int wy = static_cast<int>(fy - (y0 << 10));
        if (y0 > srcH - 1) {
            y0 = srcH - 1;
            wy = 0;
        }
        const int64_t y1 = m_Min(srcH - 1, static_cast<long>(y0 + 1));
        int64_t fx = 0;
        for (int x = 0; x < dstW; ++x, fx += step) {
            int64_t x0 = fx >> 10;
            int wx = static_cast<int>(fx - (x0 << 10));
            if (x0 > srcW - 1) {
                x0 = srcW - 1;
                wx = 0;
            }
            const int64_t x1 = m_Min(srcW - 1, static_cast<long>(x0 + 1));
            const unsigned char* p00 = src + PixelOffset(x0, y0, srcW);
            const unsigned char* p01 = src + PixelOffset(x1, y0, srcW);
            const unsigned char* p10 = src + PixelOffset(x0, y1, srcW);
            const unsigned char* p11 = src + PixelOffset(x1, y1, srcW);
            for (int c = 0; c < 3; ++c) {
                const int left = (wy * p10[c] + (1024 - wy) * p00[c]) >> 10;
                const int right = (wy * p11[c] + (1024 - wy) * p01[c]) >> 10;
                out[c] = static_cast<unsigned char>((wx * right + (1024 - wx) * left) >> 10);
            }
            out[3] = p11[3];
            out += kBytesPerPixel;
        }
    }
    return true;
}
