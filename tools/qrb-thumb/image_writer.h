// Writes a library raster (4 bytes a pixel: blue, green, red, alpha; rows packed, top row
// first) as an 8-bit RGBA PNG.
#ifndef QRB_THUMB_TOOL_PNG_WRITER_H
#define QRB_THUMB_TOOL_PNG_WRITER_H

#include <cstddef>
#include <string>

namespace qrbthumb {

// The raster must hold exactly width * height * 4 bytes. Returns false and says why in
// *error when the sizes disagree or the file cannot be written; no partial file is left.
bool WriteBgraPng(const std::string& path, const unsigned char* bgra, size_t bytes, int width,
                  int height, std::string* error);

}  // namespace qrbthumb

#endif
