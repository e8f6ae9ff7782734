#include "qrb_thumb_image.h"

#include "image-decoder/qrb_image_util.h"
#include "qrb_log.h"

#include <cassert>
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

CQRBThumbImage::~CQRBThumbImage() { ReleaseBuffer(); }

bool CQRBThumbImage::Create(long width, long height, long depth, long fourth,
                            unsigned char* buffer, long long timestamp) {
    if (m_pBuffer != nullptr && m_pBuffer != buffer) free(m_pBuffer);
    m_nWidth = static_cast<int>(width);
    m_nHeight = static_cast<int>(height);
    m_nDepth = static_cast<int>(depth);
    m_nFourth = static_cast<int>(fourth);
    m_pBuffer = buffer;
    m_llTimeStamp = timestamp;
    m_bCreated = true;
    return true;
}

void CQRBThumbImage::Destroy() {
    m_bCreated = false;
    ReleaseBuffer();
}

void CQRBThumbImage::ReleaseBuffer() {
    free(m_pBuffer);
    m_pBuffer = nullptr;
    m_nWidth = 0;
    m_nHeight = 0;
    m_nDepth = 0;
    m_nFourth = 0;
    m_llTimeStamp = 0;
}

bool CQRBThumbImage::ScaleARGB(int width, int height) {
    if (width <= 0 || height <= 0 || !m_bCreated) return false;
    QRB_LOGD(" in width: %d, in height:%d, out width: %d, out height: %d", m_nWidth, m_nHeight,
             width, height);
    if (width == m_nWidth && height == m_nHeight) return true;
    if (m_pBuffer == nullptr) return false;
    if (!CQRBImageUtil::IsRasterSizeAllowed(width, height)) {
        QRB_LOGW("refused: %d x %d is more than %lld pixels", width, height,
                 CQRBImageUtil::kMaxPixels);
        return false;
    }
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    unsigned char* pARGBOut = static_cast<unsigned char*>(malloc(bytes));
    assert(pARGBOut);
    if (pARGBOut == nullptr) abort();
    if (!CQRBImageUtil::ScaleARGBLinear(m_pBuffer, m_nWidth, m_nHeight, width, height, pARGBOut)) {
        free(pARGBOut);
        return false;
    }
    free(m_pBuffer);
    m_pBuffer = pARGBOut;
    m_nWidth = width;
    m_nHeight = height;
    if (m_nBufSize > 0) m_nBufSize = static_cast<int>(bytes);
    return true;
}

bool CQRBThumbImage::CropARGB(int startX, int startY, int width, int height) {
    QRB_LOGD("cropStartX=%d, cropStartY=%d, destWidth=%d, destHeight=%d", startX, startY, width,
             height);
    if (startX < 0 || startY < 0 || width <= 0 || height <= 0 || m_pBuffer == nullptr ||
        !m_bCreated) {
        QRB_LOGW("invalid parameter");
        return false;
    }
    if (width == m_nWidth && height == m_nHeight) return true;
    if (m_nWidth < width || m_nHeight < height) {
        QRB_LOGW("srcWidth<destWidth or srcHeight<destHeight");
        return false;
    }
    // The far edge is checked too: a crop reaching past the source would read outside it.
    if (static_cast<int64_t>(startX) + width > m_nWidth ||
        static_cast<int64_t>(startY) + height > m_nHeight) {
        QRB_LOGW("invalid parameter");
        return false;
    }
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    unsigned char* pDst = static_cast<unsigned char*>(malloc(rowBytes * static_cast<size_t>(height)));
    assert(pDst);
    if (pDst == nullptr) abort();
    const size_t srcStride = static_cast<size_t>(m_nWidth) * 4;
    const unsigned char* src = m_pBuffer + static_cast<size_t>(startY) * srcStride +
                               static_cast<size_t>(startX) * 4;
    for (int y = 0; y < height; ++y) {
        std::memcpy(pDst + static_cast<size_t>(y) * rowBytes, src + static_cast<size_t>(y) * srcStride,
                    rowBytes);
    }
    free(m_pBuffer);
    m_pBuffer = pDst;
    m_nWidth = width;
    m_nHeight = height;
    if (m_nBufSize > 0) m_nBufSize = static_cast<int>(rowBytes * static_cast<size_t>(height));
    return true;
}

bool CQRBThumbImage::ScaleToCoverTruncated(int width, int height) {
    uint64_t w = 0;
    uint64_t h = 0;
    CQRBImageUtil::CoverSize(static_cast<uint64_t>(std::max(m_nWidth, 0)),
                             static_cast<uint64_t>(std::max(m_nHeight, 0)),
                             static_cast<uint64_t>(std::max(width, 0)),
                             static_cast<uint64_t>(std::max(height, 0)),
                             QRBCoverRounding::kTruncatedQuotient, &w, &h);
    if (w == 0 || w > INT_MAX || h == 0 || h > INT_MAX) return false;
    return ScaleARGB(static_cast<int>(w), static_cast<int>(h));
}

bool CQRBThumbImage::CropCentre(int width, int height) {
    if (width == 0 || height == 0 || m_nWidth < width || m_nHeight < height) return false;
    return CropARGB((m_nWidth - width) / 2, (m_nHeight - height) / 2, width, height);
}

namespace {

// Quarter turns clockwise, then whether left and right are swapped, per EXIF orientation.
struct OrientationStep {
    int quarterTurns;
    bool mirror;
};
constexpr OrientationStep kOrientationSteps[9] = {
    {0, false},  // 0: not an orientation
    {0, false},  // 1: upright
    {0, true},   // 2: horizontal mirror
    {2, false},  // 3: upside down
    {2, true},   // 4: vertical mirror
    {1, true},   // 5: transpose
    {1, false},  // 6: quarter turn clockwise
    {3, true},   // 7: transverse
    {3, false},  // 8: quarter turn counter-clockwise
};

}  // namespace

bool CQRBThumbImage::RotateARGB(int orient) {
    QRB_LOGD("nOrient: %d", orient);
    if (!m_bCreated) {
        QRB_LOGW("not create");
        return false;
    }
    if (orient < 1 || orient > 8) return false;
    if (orient == 1) return true;
    if (m_pBuffer == nullptr || !CQRBImageUtil::IsRasterSizeAllowed(m_nWidth, m_nHeight)) {
        QRB_LOGW("no raster to rotate: %d x %d, buffer %p", m_nWidth, m_nHeight,
                 static_cast<void*>(m_pBuffer));
        return false;
    }
    const OrientationStep step = kOrientationSteps[orient];
    const size_t W = static_cast<size_t>(m_nWidth);
    const size_t H = static_cast<size_t>(m_nHeight);
    const size_t pixels = W * H;
    unsigned char* pDst = static_cast<unsigned char*>(malloc(pixels * 4));
    if (pDst == nullptr) {
        QRB_LOGW("malloc fail");
        return false;
    }

    const unsigned char* src = m_pBuffer;
    switch (step.quarterTurns) {
        case 1:  // (x, y) -> (H - 1 - y, x) in an H-wide raster
            for (size_t y = 0; y < H; ++y)
                for (size_t x = 0; x < W; ++x)
                    std::memcpy(pDst + (x * H + (H - 1 - y)) * 4, src + (y * W + x) * 4, 4);
            break;
        case 2:
            for (size_t i = 0; i < pixels; ++i)
                std::memcpy(pDst + (pixels - 1 - i) * 4, src + i * 4, 4);
            break;
        case 3:  // (x, y) -> (y, W - 1 - x) in an H-wide raster
            for (size_t y = 0; y < H; ++y)
                for (size_t x = 0; x < W; ++x)
                    std::memcpy(pDst + ((W - 1 - x) * H + y) * 4, src + (y * W + x) * 4, 4);
            break;
        default:
            std::memcpy(pDst, src, pixels * 4);
            break;
    }

    const bool swapsSides = step.quarterTurns == 1 || step.quarterTurns == 3;
    const size_t rowWidth = swapsSides ? H : W;
    const size_t rows = swapsSides ? W : H;
    if (step.mirror) {
        unsigned char tmp[4];
        for (size_t y = 0; y < rows; ++y) {
            unsigned char* row = pDst + y * rowWidth * 4;
            for (size_t k = 0; k < rowWidth / 2; ++k) {
                unsigned char* left = row + k * 4;
                unsigned char* right = row + (rowWidth - 1 - k) * 4;
                std::memcpy(tmp, left, 4);
                std::memcpy(left, right, 4);
                std::memcpy(right, tmp, 4);
            }
        }
    }

    free(m_pBuffer);
    m_pBuffer = pDst;
    if (swapsSides) {
        m_nWidth = static_cast<int>(H);
        m_nHeight = static_cast<int>(W);
    }
    return true;
}
