#include "image-decoder/qrb_plane_reducer.h"

#include "image-decoder/qrb_image_util.h"
#include "qrb_log.h"

#include <algorithm>
#include <new>

namespace {

uint32_t CeilDiv(uint32_t a, uint32_t b) { return (a + b - 1) / b; }

}  // namespace

bool CQRBPlaneReducer::Begin(uint32_t width, uint32_t height, uint32_t outW, uint32_t outH,
                             bool inOrder, bool reduceSmall) {
    if (width == 0 || height == 0 || outW == 0 || outH == 0) return false;
    m_width = width;
    m_height = height;
    m_nextRow = 0;
    uint32_t k = 1;
    const bool large = static_cast<uint64_t>(width) * height > kMaxPlanePixels;
    if (large || reduceSmall) {
        while (static_cast<uint64_t>(CeilDiv(width, k)) * CeilDiv(height, k) > kMaxPlanePixels) ++k;
        // Planes finer than twice the output add nothing the scaler would keep.
        const uint32_t coarse = std::min(width / (2 * outW), height / (2 * outH));
        k = std::min(std::max(k, coarse), kMaxReduction);
    }
    m_k = k;
    m_planeW = CeilDiv(width, k);
    m_planeH = CeilDiv(height, k);
    const size_t planeBytes = static_cast<size_t>(m_planeW) * m_planeH;
    try {
        m_planes.reset(new unsigned char[planeBytes * 4]());
        if (k > 1 && inOrder) m_sums.assign(m_planeW * 4ull, 0);
    } catch (const std::bad_alloc&) {
        QRB_LOGW("no memory for %u x %u planes", m_planeW, m_planeH);
        return false;
    }
    m_a = m_planes.get();
    m_r = m_a + planeBytes;
    m_g = m_r + planeBytes;
    m_b = m_g + planeBytes;
    return true;
}

void CQRBPlaneReducer::AddRow(const unsigned char* px) {
    const uint32_t y = m_nextRow;
    if (y >= m_height) return;
    ++m_nextRow;
    const uint32_t w = m_width;
    const uint32_t k = m_k;
    if (k == 1) {
        const size_t base = static_cast<size_t>(y) * m_planeW;
        for (uint32_t x = 0; x < w; ++x, px += 4) Store(base + x, px);
        return;
    }
    uint32_t* cell = m_sums.data();
    for (uint32_t x = 0, inCell = 0; x < w; ++x, px += 4) {
        cell[0] += px[0];
        cell[1] += px[1];
        cell[2] += px[2];
        cell[3] += px[3];
        if (++inCell == k) {
            inCell = 0;
            cell += 4;
        }
    }
    if (y % k != k - 1 && y != m_height - 1) return;
    // The band of rows of plane row y / k is complete (the last may be short).
    const uint32_t rows = y % k + 1;
    const size_t base = static_cast<size_t>(y / k) * m_planeW;
    for (uint32_t cx = 0; cx < m_planeW; ++cx) {
        const uint32_t cols = std::min(k, w - cx * k);
        const uint32_t n = cols * rows;
        uint32_t* s = m_sums.data() + static_cast<size_t>(cx) * 4;
        const unsigned char mean[4] = {
            static_cast<unsigned char>(s[0] / n), static_cast<unsigned char>(s[1] / n),
            static_cast<unsigned char>(s[2] / n), static_cast<unsigned char>(s[3] / n)};
        Store(base + cx, mean);
        s[0] = s[1] = s[2] = s[3] = 0;
    }
}

void CQRBPlaneReducer::PutRow(uint32_t y, const unsigned char* rgba) {
    if (y >= m_height || y % m_k != 0) return;
    const size_t base = static_cast<size_t>(y / m_k) * m_planeW;
    for (uint32_t x = 0, cx = 0; x < m_width; x += m_k, ++cx) {
        Store(base + cx, rgba + static_cast<size_t>(x) * 4);
    }
}

bool CQRBPlaneReducer::Finish(unsigned char* out, uint32_t outW, uint32_t outH) {
    if (out == nullptr || !m_planes) return false;
    return CQRBImageUtil::ScaleARGBLinear(m_a, m_r, m_g, m_b, static_cast<int>(m_planeW),
                                          static_cast<int>(m_planeH), static_cast<int>(outW),
                                          static_cast<int>(outH), out);
}
