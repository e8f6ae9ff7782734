// One ARGB raster (4 bytes a pixel: blue, green, red, alpha; rows packed, top row first),
// reference counted so that the cache, a worker and the event path may share it. The image
// owns its buffer and releases it with free().
#ifndef QRB_THUMB_IMAGE_H
#define QRB_THUMB_IMAGE_H

#include "qrb_intrusive_ptr_base.h"

class CQRBThumbImage : public QRB_IntrusivePtr_Base<CQRBThumbImage> {
public:
    CQRBThumbImage() = default;
    ~CQRBThumbImage() override;
    CQRBThumbImage(const CQRBThumbImage&) = delete;
    CQRBThumbImage& operator=(const CQRBThumbImage&) = delete;

    // Takes ownership of buffer (malloc'ed). Always true.
    bool Create(long width, long height, long depth, long fourth, unsigned char* buffer,
                long long timestamp);
    void Destroy();
    bool FlagCreate() const { return m_bCreated; }

    unsigned char* GetBuffer() const { return m_pBuffer; }
    int GetWidth() const { return m_nWidth; }
    int GetHeight() const { return m_nHeight; }
    int GetDepth() const { return m_nDepth; }
    int GetFourth() const { return m_nFourth; }
    long long GetTimeStamp() const { return m_llTimeStamp; }
    int GetBufSize() const { return m_nBufSize; }
    void SetBufSize(long size) { m_nBufSize = static_cast<int>(size); }
    int GetBytesPerLine() const { return m_nDepth * m_nWidth; }
    void ReleaseBuffer();

    // The pixel operations below replace the raster by a new one on success (the old buffer is
    // freed once, after the new one is complete) and leave the image unchanged on failure. Not
    // for two threads at once. Running out of memory in ScaleARGB or CropARGB ends the process:
    // a thumbnail worker has no sensible way on without its raster.

    // Resamples to width x height (nearest sample when both directions grow, the 2 x 2 box
    // rule otherwise; see CQRBImageUtil). The current size is a no-op.
    bool ScaleARGB(int width, int height);
    // Keeps width x height pixels from (startX, startY). A full-size crop is a no-op whatever
    // the origin. A crop whose far edge lies outside the source is refused rather than read.
    bool CropARGB(int startX, int startY, int width, int height);
    // The centre crop every kind uses: to width x height at ((w - width) / 2, (h - height) / 2)
    // when both are non-zero and the image is at least that large both ways; otherwise the image
    // stays as it is (false).
    bool CropCentre(int width, int height);
    // Scales to the smallest size that covers width x height with the picture's aspect, sides
    // rounded as the truncated quotient of the getters (CQRBImageUtil::CoverSize). False, the
    // image unchanged, when that size is empty or beyond int.
    bool ScaleToCoverTruncated(int width, int height);
    // Turns the raster upright for an EXIF orientation (1 to 8); 1 is a no-op, anything else
    // outside 1..8 is refused. 5 to 8 swap width and height.
    bool RotateARGB(int orient);

private:
    bool m_bCreated = false;
    unsigned char* m_pBuffer = nullptr;
    int m_nWidth = 0;
    int m_nHeight = 0;
    int m_nDepth = 0;
    int m_nFourth = 0;
    long long m_llTimeStamp = 0;
    int m_nBufSize = 0;
};

#endif
