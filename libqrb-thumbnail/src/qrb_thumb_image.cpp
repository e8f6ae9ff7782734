#include "qrb_thumb_image.h"

#include "qrb_log.h"

#include <cassert>
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
