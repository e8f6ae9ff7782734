// Baseline JPEG files for tests, written with libjpeg into memory, row by row, with an optional
// APP1 EXIF block (either byte order; IFD0 Orientation; an IFD1 JPEG thumbnail) and an optional
// APP2 segment holding a larger JPEG. A request libjpeg refuses aborts, saying why.
#ifndef QRB_TESTING_JPEG_WRITER_H
#define QRB_TESTING_JPEG_WRITER_H

#include <cstdint>
#include <string>

namespace qrbtest {

struct JpegColor {
    uint8_t r = 0;
    uint8_t g = 0;
    uint8_t b = 0;
};

enum class JpegPattern {
    kSolid,      // every pixel is `color`
    kQuadrants,  // top left red, top right green, bottom left blue, bottom right white
    kGradient,   // red grows left to right, green top to bottom, blue is color.b
};

struct JpegSpec {
    int width = 64;
    int height = 48;
    int quality = 90;
    JpegPattern pattern = JpegPattern::kSolid;
    JpegColor color{200, 40, 40};
    JpegColor lowerRight{255, 255, 255};  // the fourth quadrant of kQuadrants
    // The pattern is an upright scene that a camera held in this EXIF orientation stores: the
    // stored pixel (x, y) shows the scene point the tag's definition says. For 5 to 8 the
    // scene is height wide and width high. 0 or 1: stored upright.
    int storedFor = 0;

    // APP1 EXIF, written when a field below asks for it.
    bool bigEndian = false;  // "MM" instead of "II"
    int orientation = 0;     // IFD0 Orientation tag, 0 = no tag (any other value is written as is)
    int thumbWidth = 0;      // IFD1 JPEG thumbnail (solid thumbColor); 0 = no IFD1
    int thumbHeight = 0;
    JpegColor thumbColor{40, 200, 40};
    bool thumbScene = false;  // the thumbnail shows the picture's pattern, stored the same way,
                              // with thumbColor in the fourth quadrant (else solid thumbColor)

    // APP2 segment whose payload is a whole JPEG (solid largeThumbColor), as the picture
    // decoder's large embedded thumbnail. 0 = none. Its encoding must fit one segment (64 KiB).
    int largeThumbWidth = 0;
    int largeThumbHeight = 0;
    JpegColor largeThumbColor{40, 40, 200};
};

std::string MakeJpeg(const JpegSpec& spec);
// A width x height gradient (red grows left to right, green top to bottom, blue 100) at
// quality 95: where a crop was taken from shows in its pixels.
std::string GradientJpeg(int width, int height);
// A width x height picture of four quadrants (red, green / blue, white) at quality 95.
std::string QuadrantJpeg(int width, int height);

// The APP1 EXIF segment MakeJpeg writes for spec (marker and length included), for tests that
// assemble files by hand. thumbnail is the IFD1 JPEG (may be empty).
std::string ExifSegment(const JpegSpec& spec, const std::string& thumbnail);

// Width and height from a JPEG's first frame header (SOF0 to SOF2); false when there is none.
bool JpegFrameSize(const std::string& jpeg, uint32_t* width, uint32_t* height);

}  // namespace qrbtest

#endif
