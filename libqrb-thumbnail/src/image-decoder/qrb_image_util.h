// Free-standing ARGB scalers for callers that hold a decoded picture and a destination of their
// own: the picture decoder (planes from PNG, the small raster of a scaled-down JPEG decode) and
// the recording getter. Rasters are 4 bytes a pixel (blue, green, red, alpha), rows packed,
// top row first. The class has no state: its operations may be called on an instance or on the
// class, from any thread. None of them allocates: dst must hold dstW x dstH x 4 bytes.
// Integer arithmetic only (16.16 fixed point for the box rule, 10-bit fractions for the
// bilinear scaler).
//
// Resampling rules shared with CQRBThumbImage::ScaleARGB:
//  - nearest sample, only when the target is larger than the source in both directions:
//    dst (x, y) = src (x * srcW / dstW, y * srcH / dstH);
//  - box sample in every other case: dst (x, y) is the truncated mean of the 2 x 2 block at
//    src (sx, sy) with sx = (x * stepX) >> 16, stepX = (srcW << 16) / dstW (likewise y); the
//    last output row and column copy src (sx, sy) unaveraged.
#ifndef QRB_IMAGE_UTIL_H
#define QRB_IMAGE_UTIL_H

#include <cstdint>

// How a cover size is rounded. Both keep the source's aspect ratio and give one side exactly;
// they differ in how they pick the side that is given exactly:
//  - kExactProducts compares boxW x srcH with boxH x srcW, so the result never falls short of
//    the box (the picture decoder's output size: 133 x 100 covering 160 x 120 is 160 x 120);
//  - kTruncatedQuotient first computes t = srcH x boxW / srcW (truncated) and takes the box's
//    height when boxH >= t, as the getters that bring a decoded raster to the request do; it
//    can fall one pixel short (133 x 100 or 213 x 160 into 160 x 120 give 159 x 120), and then
//    the getter does not crop.
enum class QRBCoverRounding { kExactProducts, kTruncatedQuotient };

// Truncated mean of the 2 x 2 block of one 8-bit plane at plane[index], plane[index + 1],
// plane[index + stride] and plane[index + stride + 1]. The caller keeps all four inside.
int average2(long index, const unsigned char* plane, long stride);

class CQRBImageUtil {
public:
    // Rasters above this many pixels (1 GiB of ARGB) are refused rather than allocated or
    // indexed: no picture this service shows comes near it, and below it every byte offset of
    // a raster fits comfortably in 64 bits and every pixel index in 32.
    static constexpr long long kMaxPixels = 1LL << 28;
    // True when width x height is a raster these operations accept: both positive and at most
    // kMaxPixels pixels together.
    static bool IsRasterSizeAllowed(long long width, long long height);

    // The size with the aspect ratio of srcW x srcH that covers boxW x boxH, rounded the given
    // way (unsigned 64-bit arithmetic: no product of two 32-bit sides wraps). kExactProducts
    // gives 0 x 0 when any side is 0; kTruncatedQuotient gives 0 for a quotient by zero. The
    // result may be far larger than any raster: callers check it with IsRasterSizeAllowed.
    static void CoverSize(uint64_t srcW, uint64_t srcH, uint64_t boxW, uint64_t boxH,
                          QRBCoverRounding rounding, uint64_t* outW, uint64_t* outH);

    static long m_Min(long a, long b) { return a < b ? a : b; }

    // Packs four planes of srcW x srcH bytes into dst (byte 0 from b, 1 from g, 2 from r,
    // 3 from a) while resampling. False for a zero target or a missing plane. A source index
    // that reaches srcW x srcH ends the work early with true, leaving the rest of dst as it
    // was (an empty source writes nothing).
    static bool ScaleARGBLinear(unsigned char* a, unsigned char* r, unsigned char* g,
                                unsigned char* b, int srcW, int srcH, int dstW, int dstH,
                                unsigned char* dst);

    // Resamples an interleaved raster into dst. With equal sizes it returns true and leaves dst
    // untouched, deliberately: such a caller keeps using its own source buffer.
    static bool ScaleARGBLinear(unsigned char* src, int srcW, int srcH, int dstW, int dstH,
                                unsigned char* dst);

    // Enlarges a small decode by bilinear interpolation (10-bit weights) into dst; alpha is
    // copied, not blended. One step, (srcW << 10) / dstW, serves both directions: callers pass a
    // target of the source's aspect ratio. Equal sizes: true, dst untouched.
    static bool ScaleARGBFromCubic(unsigned char* src, int srcW, int srcH, int dstW, int dstH,
                                   unsigned char* dst);
};

#endif
