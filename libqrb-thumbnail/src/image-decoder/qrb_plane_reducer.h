// Gathers a decoded picture, row by row or pixel by pixel, into four 8-bit planes (alpha, red,
// green, blue) reduced by an integer factor k, then packs them into the output raster with the
// planar CQRBImageUtil::ScaleARGBLinear. The readers that produce rows (PNG, GIF, TIFF, and
// the whole-picture decodes of HEIF) use it so that no full-size ARGB raster of a large picture
// is ever made by us.
//
// Rows given in order from the top (AddRow) are reduced to the box mean of each k x k cell;
// pixels given out of order (Put: interlaced passes) keep the top-left pixel of each cell.
// The planes never exceed kMaxPlanePixels; a picture above that, or every picture when the
// reader asks for it (reduceSmall), is reduced as far as twice the output allows.
//
// One instance serves one decode on one thread. Rows are 4 bytes a pixel: red, green, blue,
// alpha. AddRow and Put never allocate and never fail, so readers may call them from inside a
// library's setjmp frame.
#ifndef QRB_PLANE_REDUCER_H
#define QRB_PLANE_REDUCER_H

#include <cstdint>
#include <memory>
#include <vector>

class CQRBPlaneReducer {
public:
    // 2^23 pixels (>= 3840 x 2160): the largest plane set kept, 32 MiB for the four planes.
    static constexpr uint64_t kMaxPlanePixels = 1ull << 23;
    // A k x k cell's sums of 8-bit samples fit 32 bits for k up to 4104.
    static constexpr uint32_t kMaxReduction = 256;

    // Plans and allocates planes for a width x height picture that ends as outW x outH (all
    // non-zero). inOrder: rows will come through AddRow, top to bottom; otherwise through Put.
    // reduceSmall: reduce as far as twice the output even when the picture fits the plane bound
    // (PNG keeps every pixel of such a picture). False, logged, when memory is short.
    bool Begin(uint32_t width, uint32_t height, uint32_t outW, uint32_t outH, bool inOrder,
               bool reduceSmall);

    uint32_t Factor() const { return m_k; }

    // The next row of the picture (width x 4 bytes), top to bottom.
    void AddRow(const unsigned char* rgba);
    // Pixel (x, y), in any order: kept when it is the top-left pixel of its cell.
    void Put(uint32_t x, uint32_t y, const unsigned char* rgba) {
        if (y % m_k != 0 || x % m_k != 0) return;
        Store(static_cast<size_t>(y / m_k) * m_planeW + x / m_k, rgba);
    }
    // A whole row y (width x 4 bytes) given out of order: its top-left pixels, as Put.
    void PutRow(uint32_t y, const unsigned char* rgba);

    // Packs the planes into out (outW x outH x 4 bytes, blue, green, red, alpha).
    bool Finish(unsigned char* out, uint32_t outW, uint32_t outH);

private:
    void Store(size_t at, const unsigned char* rgba) {
        m_r[at] = rgba[0];
        m_g[at] = rgba[1];
        m_b[at] = rgba[2];
        m_a[at] = rgba[3];
    }

    uint32_t m_width = 0;
    uint32_t m_height = 0;
    uint32_t m_k = 1;
    uint32_t m_planeW = 0;
    uint32_t m_planeH = 0;
    uint32_t m_nextRow = 0;
    std::unique_ptr<unsigned char[]> m_planes;  // a, r, g, b, planeW x planeH each
    unsigned char* m_a = nullptr;
    unsigned char* m_r = nullptr;
    unsigned char* m_g = nullptr;
    unsigned char* m_b = nullptr;
    std::vector<uint32_t> m_sums;  // planeW x 4, for rows in order with k > 1
};

#endif
