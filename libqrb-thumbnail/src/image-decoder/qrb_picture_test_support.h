// Shared by the picture decoder's tests only (header-only, never built into the library):
// where the shared corpus is, decoding through CQRBImageProcessor into an owned raster,
// reading reference renders with libpng's simplified API, and scratch files.
#ifndef QRB_PICTURE_TEST_SUPPORT_H
#define QRB_PICTURE_TEST_SUPPORT_H

#include "image-decoder/qrb_image_processor.h"

#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qrbpicturetest {

// The shared corpus beside the project (QRB_TEST_SOURCE_DIR is set by ctest), or "" when it
// is not there.
inline std::string CorpusDir() {
    const char* source = std::getenv("QRB_TEST_SOURCE_DIR");
    if (source == nullptr || *source == '\0') return std::string();
    const std::string dir = std::string(source) + "/../shared/corpus";
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::string();
    return dir;
}

#define QRB_REQUIRE_CORPUS(dir)                            \
    const std::string dir = ::qrbpicturetest::CorpusDir(); \
    if (dir.empty()) GTEST_SKIP() << "shared corpus not found beside the project"

inline std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// An ARGB raster as the decoder produces it: bytes blue, green, red, alpha.
struct Raster {
    int width = 0;
    int height = 0;
    int orientation = -1;
    std::vector<uint8_t> pixels;

    bool Empty() const { return pixels.empty(); }
    const uint8_t* At(int x, int y) const {
        return pixels.data() + (static_cast<size_t>(y) * width + x) * 4;
    }
};

// GetThumbnailBuffer on url, copying the result and freeing the library's buffer.
inline Raster Decode(const std::string& url, int width, int height, bool forceFull = false) {
    qrb_picture_thumb_param param;
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    param.forceFull = forceFull;
    Raster r;
    int orientation = -1;
    unsigned char* buffer = CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &r.width,
                                                                   &r.height, &orientation);
    r.orientation = orientation;
    if (buffer != nullptr) {
        r.pixels.assign(buffer, buffer + static_cast<size_t>(r.width) * r.height * 4);
        std::free(buffer);  // the caller frees the decoder's raster
    }
    return r;
}

// A reference render read with libpng's simplified API, converted to the decoder's byte order
// (blue, green, red, alpha).
inline bool ReadReferencePng(const std::string& path, Raster* out) {
    png_image image;
    std::memset(&image, 0, sizeof(image));
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = PNG_FORMAT_BGRA;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
        png_image_free(&image);
        return false;
    }
    out->width = static_cast<int>(image.width);
    out->height = static_cast<int>(image.height);
    out->pixels.swap(pixels);
    return true;
}

// CRC-32 as PNG chunks use it.
inline uint32_t Crc32(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char b : bytes) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return crc ^ 0xFFFFFFFFu;
}

inline std::string BigEndian32(uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
}

// One PNG chunk with a correct checksum.
inline std::string PngChunk(const std::string& type, const std::string& data) {
    return BigEndian32(static_cast<uint32_t>(data.size())) + type + data +
           BigEndian32(Crc32(type + data));
}

// A PNG signature and a valid IHDR for the given size (8-bit RGB), followed by `rest`.
inline std::string PngWithHeader(uint32_t width, uint32_t height, const std::string& rest) {
    const std::string ihdr =
        BigEndian32(width) + BigEndian32(height) + std::string("\x08\x02\0\0\0", 5);
    return std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) + rest;
}

// A scratch folder removed with everything in it when the object dies.
class ScratchDir {
public:
    ScratchDir() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qrb-picture-XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) m_Path = pattern;
    }
    ~ScratchDir() {
        for (const std::string& f : m_Files) unlink(f.c_str());
        if (!m_Path.empty()) rmdir(m_Path.c_str());
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    // Writes bytes to a file in the folder and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) {
        const std::string path = m_Path + "/" + name;
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        m_Files.push_back(path);
        return path;
    }
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
    std::vector<std::string> m_Files;
};

}  // namespace qrbpicturetest

#endif
