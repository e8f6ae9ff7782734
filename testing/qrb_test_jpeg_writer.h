// Baseline JPEG files for tests written with libjpeg, with optional EXIF (either byte order,
// orientation, an IFD1 thumbnail) and APP2 thumbnails. A request libjpeg refuses aborts.
#ifndef QRB_TESTING_JPEG_WRITER_H
#define QRB_TESTING_JPEG_WRITER_H

#include <cstdint>
#include <string>

namespace qrbtest {

struct JpegColor {
    uint8_t r = 0, g = 0, b = 0;
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
    // The pattern is an upright scene as a camera held in this EXIF orientation stores it (for
    // 5 to 8 the scene is height wide and width high). 0 or 1: stored upright.
    int storedFor = 0;
    // APP1 EXIF, written when a field below asks for it.
    bool bigEndian = false;  // "MM" instead of "II"
    int orientation = 0;     // IFD0 Orientation tag, 0 = no tag (any other value is written as is)
    int thumbWidth = 0;      // IFD1 JPEG thumbnail (solid thumbColor); 0 = no IFD1
    int thumbHeight = 0;
    JpegColor thumbColor{40, 200, 40};
    bool thumbScene = false;  // the picture's pattern with thumbColor in the fourth quadrant
    // APP2 segment holding a whole JPEG (solid largeThumbColor) of up to 64 KiB; 0 = none.
    int largeThumbWidth = 0;
    int largeThumbHeight = 0;
    JpegColor largeThumbColor{40, 40, 200};
};

std::string MakeJpeg(const JpegSpec& spec);
// kGradient (blue 100) and kQuadrants pictures at quality 95.
std::string GradientJpeg(int width, int height);
std::string QuadrantJpeg(int width, int height);
// The APP1 segment MakeJpeg writes (marker and length included) with thumbnail as IFD1's JPEG.
std::string ExifSegment(const JpegSpec& spec, const std::string& thumbnail);
// Where a JPEG's first frame header (SOF0 to SOF2) starts, walking its segments (so never one
// inside an APP segment's thumbnail); npos when there is none.
size_t JpegFrameHeader(const std::string& jpeg);
// Width and height from that frame header; false when there is none.
bool JpegFrameSize(const std::string& jpeg, uint32_t* width, uint32_t* height);

}  // namespace qrbtest

#endif
