// Shrinks a raster (4 bytes a pixel, rows packed) to fit inside a square box, keeping its aspect
// ratio, for the desktop thumbnailer mode: desktops show the whole picture, never a crop.
#ifndef QRB_THUMB_TOOL_FIT_SCALE_H
#define QRB_THUMB_TOOL_FIT_SCALE_H

#include <cstddef>
#include <vector>

namespace qrbthumb {

struct Raster {
    std::vector<unsigned char> pixels;
    int width = 0;
    int height = 0;
};

// The longer side becomes `box`; each output pixel is the average of the source pixels it
// covers, so fine detail turns into its mean colour instead of aliasing. A raster already
// inside the box is copied as it is. An empty raster gives an empty one.
Raster FitInside(const unsigned char* pixels, int width, int height, int box);

}  // namespace qrbthumb

#endif
