// The picture decoder tests' helpers: fixture paths, files declaring sizes they do not hold.
#ifndef QRB_PICTURE_TEST_SUPPORT_H
#define QRB_PICTURE_TEST_SUPPORT_H

#include "qrb_test_files.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <string>

namespace qrbpicturetest {

using namespace qrbtest;

// A file of testdata/make_picture_fixtures.sh as a path, of make_format_fixtures.sh as a URL.
inline std::string PictureFixture(const std::string& name) {
    return std::string(QRB_PICTURE_FIXTURE_DIR) + "/" + name;
}

inline std::string Fixture(const std::string& name) {
    return std::string("file://") + QRB_FORMAT_FIXTURE_DIR + "/" + name;
}

// The JPEG with its frame header (not an APP segment's thumbnail's) saying w x h.
inline std::string JpegDeclaring(std::string bytes, int w, int h) {
    const size_t sof = qrbtest::JpegFrameHeader(bytes);
    if (sof == std::string::npos) return std::string();
    return bytes.replace(sof + 5, 4, qrbtest::BigEndian(h, 2) + qrbtest::BigEndian(w, 2));
}

// A BMP with a 40-byte info header, a grey palette up to 8 bits, data, sizes left 0 (unknown).
inline std::string BmpFile(int32_t w, int32_t h, uint32_t bpp, uint32_t compression,
                           const std::string& data) {
    std::string palette;
    for (uint32_t i = 0; bpp <= 8 && i < (1u << bpp); ++i)
        palette += LittleEndian(i * 0x010101u, 4);
    return "BM" + LittleEndian(0, 8) + LittleEndian(54 + palette.size(), 4) + LittleEndian(40, 4) +
           LittleEndian(static_cast<uint32_t>(w), 4) + LittleEndian(static_cast<uint32_t>(h), 4) +
           LittleEndian(1, 2) + LittleEndian(bpp, 2) + LittleEndian(compression, 4) +
           LittleEndian(0, 4) + LittleEndian(2835, 4) + LittleEndian(2835, 4) + LittleEndian(0, 8) +
           palette + data;
}

}  // namespace qrbpicturetest

#endif
