// Rasters as the library makes them (bytes blue, green, red, alpha) for tests.
#ifndef QRB_TESTING_PICTURE_H
#define QRB_TESTING_PICTURE_H

#include "qrb_thumbnail_item.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrbtest {

struct Raster {
    int width = 0;
    int height = 0;
    int orientation = -1;  // as the decoder reported it (DecodePicture only)
    std::vector<uint8_t> pixels;

    bool Empty() const { return pixels.empty(); }
    const uint8_t* At(int x, int y) const {
        return pixels.data() + (static_cast<size_t>(y) * width + x) * 4;
    }
    std::string Bytes() const { return std::string(pixels.begin(), pixels.end()); }
};

// CQRBImageProcessor::GetThumbnailBuffer on url (the library's buffer is freed). decoderFlags
// sets bModeFlag and bDecoderFlag, as the getters other than picture mode 1 ask.
Raster DecodePicture(const std::string& url, int width, int height, bool forceFull = false,
                     bool decoderFlags = false);
// A copy of an item's only image (empty for no item or several images).
Raster RasterOf(const boost::intrusive_ptr<CQRBThumbnailItem>& item);
// Pixels of a result buffer of width x height.
Raster RasterOf(const std::string& bytes, int width, int height);
// The colours nearest each quadrant's centre, clockwise from the top left, as letters (R, G, B,
// W white, K black): an upright qrbtest::JpegPattern::kQuadrants picture reads "RGWB".
std::string Quadrants(const Raster& r);
// The centre width x height of a raster (the raster itself when it is not larger both ways).
Raster CropCentre(const Raster& in, int width, int height);
// A file read with libpng's simplified API, in the decoder's byte order.
bool ReadPng(const std::string& path, Raster* out);

}  // namespace qrbtest

#endif
