#include "png_writer.h"

#include <png.h>

#include <cerrno>
#include <csetjmp>
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

// One write's libpng state, destroyed on every path. libpng reports errors by longjmp to the
// point set in Write(); nothing with a destructor lives between that point and the calls.
struct PngWrite {
    png_structp png = nullptr;
    png_infop info = nullptr;
    char message[200] = "";
    PngWrite() {
        png = png_create_write_struct(PNG_LIBPNG_VER_STRING, this, &OnError, &OnWarning);
        if (png) info = png_create_info_struct(png);
    }
    ~PngWrite() { png_destroy_write_struct(&png, &info); }
    PngWrite(const PngWrite&) = delete;
    PngWrite& operator=(const PngWrite&) = delete;

    static void OnError(png_structp png, png_const_charp text) {
        auto* self = static_cast<PngWrite*>(png_get_error_ptr(png));
        std::snprintf(self->message, sizeof(self->message), "%s", text);
        png_longjmp(png, 1);
    }
    static void OnWarning(png_structp, png_const_charp) {}

    bool Write(std::FILE* file, const unsigned char* bgra, png_uint_32 width, png_uint_32 height) {
        if (!png || !info) {
            std::snprintf(message, sizeof(message), "out of memory");
            return false;
        }
        if (setjmp(png_jmpbuf(png))) return false;
        png_init_io(png, file);
        png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        // Light deflate and one cheap filter: with libpng's defaults (every filter tried on
        // every row, level 6) writing a thumbnail costs several times what decoding it did,
        // for files about a tenth smaller.
        png_set_compression_level(png, 1);
        png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
        png_write_info(png, info);
        png_set_bgr(png);  // stored as RGBA
        for (png_uint_32 y = 0; y < height; ++y) {
            png_write_row(png, bgra + static_cast<size_t>(y) * width * 4);
        }
        png_write_end(png, nullptr);
        return true;
    }
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
    PngWrite png;
    bool ok = png.Write(file.get(), bgra, static_cast<png_uint_32>(width),
                        static_cast<png_uint_32>(height));
    if (!ok) *error = std::string("PNG encoding failed: ") + png.message;
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
