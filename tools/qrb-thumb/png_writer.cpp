#include "png_writer.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace qrbthumb {

namespace {

struct CloseFile {
    void operator()(std::FILE* f) const noexcept {
        if (f) std::fclose(f);
    }
};
using ScopedFile = std::unique_ptr<std::FILE, CloseFile>;

// png_image keeps its own write state in image.opaque; libpng frees it when a write ends,
// successful or not, and png_image_free is safe to call again whatever happened.
struct ScopedPngImage {
    png_image image;
    ScopedPngImage() {
        std::memset(&image, 0, sizeof(image));
        image.version = PNG_IMAGE_VERSION;
    }
    ~ScopedPngImage() { png_image_free(&image); }
    ScopedPngImage(const ScopedPngImage&) = delete;
    ScopedPngImage& operator=(const ScopedPngImage&) = delete;
};

}  // namespace

bool WriteBgraPng(const std::string& path, const unsigned char* bgra, size_t bytes, int width,
                  int height, std::string* error) {
    // The raster's size is checked without overflowing; a row's stride must fit libpng's
    // signed 32-bit stride.
    if (bgra == nullptr || width <= 0 || height <= 0) {
        *error = "empty image";
        return false;
    }
    const size_t w = static_cast<size_t>(width);
    const size_t h = static_cast<size_t>(height);
    if (w > std::numeric_limits<size_t>::max() / 4 / h || w * h * 4 != bytes ||
        w * 4 > static_cast<size_t>(std::numeric_limits<png_int_32>::max())) {
        *error = "image of " + std::to_string(bytes) + " bytes is not " + std::to_string(width) +
                 "x" + std::to_string(height) + " at 4 bytes a pixel";
        return false;
    }

    ScopedFile file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    ScopedPngImage png;
    png.image.width = static_cast<png_uint_32>(width);
    png.image.height = static_cast<png_uint_32>(height);
    png.image.format = PNG_FORMAT_BGRA;  // stored as RGBA; libpng swaps the channels
    bool ok = png_image_write_to_stdio(&png.image, file.get(), 0, bgra,
                                       static_cast<png_int_32>(width) * 4, nullptr) != 0;
    if (!ok) *error = std::string("PNG encoding failed: ") + png.image.message;
    // A full disk shows only when the buffered bytes are flushed.
    const bool closed = std::fclose(file.release()) == 0;
    if (ok && !closed) {
        ok = false;
        *error = "cannot write " + path + ": " + std::strerror(errno);
    }
    if (!ok) std::remove(path.c_str());
    return ok;
}

}  // namespace qrbthumb
