// The one picture-decoding entry for every getter that holds a picture file (JPEG, PNG, BMP):
// it returns an ARGB raster (blue, green, red, alpha; rows packed, top row first) that covers
// the requested box with the picture's aspect ratio, overflowing it in one direction; getters
// crop the surplus. Stateless and safe to call from several workers at once.
#ifndef QRB_IMAGE_PROCESSOR_H
#define QRB_IMAGE_PROCESSOR_H

#include "image-decoder/qrb_picture_thumb_param.h"

class CQRBImageProcessor {
public:
    // url is a path or a "file://" URI; param gives the requested size (0 = the picture's own)
    // and forceFull. Returns a malloc'ed raster of *width x *height x 4 bytes that the caller
    // frees, or null with *width = *height = 0 (and *orientation = 0) on every failure.
    // *orientation receives the EXIF orientation (1..8, 0 when absent); orientation may be null.
    static unsigned char* GetThumbnailBuffer(const char* url, const qrb_picture_thumb_param& param,
                                             int* width, int* height, int* orientation);
};

#endif
