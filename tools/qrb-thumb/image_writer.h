// Writes a library raster (4 bytes a pixel: blue, green, red, alpha; rows packed, top row
// first) as an 8-bit RGBA PNG or as a colour JPEG.
#ifndef QRB_THUMB_TOOL_IMAGE_WRITER_H
#define QRB_THUMB_TOOL_IMAGE_WRITER_H

#include <cstddef>
#include <string>
#include <vector>

namespace qrbthumb {

enum class ImageFormat { Png, Jpeg };

// A tEXt key/value pair written into a PNG (ignored for JPEG),
// e.g. {"Thumb::URI", "file:///a.jpg"}.
struct TextChunk {
    std::string key;
    std::string value;
};

// bgra holds exactly width*height*4 bytes. Returns false and says why in *error when the sizes
// disagree or the file cannot be written; no partial file is left.
bool WriteBgraImage(const std::string& path, ImageFormat format, const unsigned char* bgra,
                    size_t bytes, int width, int height, const std::vector<TextChunk>& text,
                    std::string* error);

// "png" or "jpg"
const char* ExtensionOf(ImageFormat format);

}  // namespace qrbthumb

#endif
