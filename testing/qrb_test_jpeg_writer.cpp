#include "qrb_test_jpeg_writer.h"

#include "qrb_test_files.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <jpeglib.h>

namespace qrbtest {

namespace {

// A request libjpeg refuses is a fault of the test: say why and stop.
void WriterErrorExit(j_common_ptr cinfo) {
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    std::fprintf(stderr, "test JPEG writer: %s\n", text);
    std::abort();
}

// The colour MakeJpeg gives pixel (x, y) of the picture it writes, before compression.
JpegColor PatternColor(const JpegSpec& spec, int x, int y) {
    const bool sideways = spec.storedFor >= 5 && spec.storedFor <= 8;
    const int w = sideways ? spec.height : spec.width;  // the scene's size
    const int h = sideways ? spec.width : spec.height;
    // The scene point stored at (x, y), from which side the stored rows and columns run along.
    const int mirrorX[9] = {0, 0, 1, 1, 0, 0, 1, 1, 0};
    const int mirrorY[9] = {0, 0, 0, 1, 1, 0, 0, 1, 1};
    const int o = spec.storedFor >= 0 && spec.storedFor <= 8 ? spec.storedFor : 0;
    int sx = sideways ? y : x;
    int sy = sideways ? x : y;
    if (mirrorX[o]) sx = w - 1 - sx;
    if (mirrorY[o]) sy = h - 1 - sy;
    switch (spec.pattern) {
        case JpegPattern::kSolid:
            return spec.color;
        case JpegPattern::kQuadrants: {
            const bool right = sx >= w / 2;
            if (sy < h / 2) return right ? JpegColor{0, 255, 0} : JpegColor{255, 0, 0};
            return right ? spec.lowerRight : JpegColor{0, 0, 255};
        }
        case JpegPattern::kGradient:
            return JpegColor{static_cast<uint8_t>(sx * 255 / std::max(w - 1, 1)),
                             static_cast<uint8_t>(sy * 255 / std::max(h - 1, 1)), spec.color.b};
    }
    return spec.color;
}

}  // namespace

std::string ExifSegment(const JpegSpec& spec, const std::string& thumbnail) {
    std::string tiff = spec.bigEndian ? "MM" : "II";
    const auto put = [&](uint64_t v, int bytes) {
        tiff += spec.bigEndian ? BigEndian(v, bytes) : LittleEndian(v, bytes);
    };
    // Entries of tag, type (3 SHORT, 4 LONG) and one value; a SHORT fills the field's first half.
    using Ifd = std::vector<std::array<uint32_t, 3>>;
    const auto putIfd = [&](const Ifd& entries, uint32_t next) {
        put(entries.size(), 2);
        for (const auto& [tag, type, value] : entries) {
            put(tag, 2);
            put(type, 2);
            put(1, 4);
            put(value, type == 3 ? 2 : 4);
            if (type == 3) put(0, 2);
        }
        put(next, 4);
    };
    Ifd ifd0;
    if (spec.orientation != 0) ifd0.push_back({0x0112, 3, static_cast<uint32_t>(spec.orientation)});
    const uint32_t ifd1Offset = 8 + 2 + 12 * static_cast<uint32_t>(ifd0.size()) + 4;
    put(42, 2);
    put(8, 4);
    putIfd(ifd0, thumbnail.empty() ? 0 : ifd1Offset);
    if (!thumbnail.empty()) {
        const uint32_t dataOffset = ifd1Offset + 2 + 12 * 3 + 4;
        putIfd({{0x0103, 3, 6},
                {0x0201, 4, dataOffset},  // JPEG compression, at dataOffset
                {0x0202, 4, static_cast<uint32_t>(thumbnail.size())}},
               0);
        tiff += thumbnail;
    }
    const std::string payload = std::string("Exif\0\0", 6) + tiff;
    return "\xFF\xE1" + BigEndian(payload.size() + 2, 2) + payload;
}

std::string MakeJpeg(const JpegSpec& spec) {
    if (spec.width <= 0 || spec.height <= 0) return std::string();
    std::string thumbnail;
    if (spec.thumbWidth > 0 && spec.thumbHeight > 0) {
        thumbnail = MakeJpeg({spec.thumbWidth, spec.thumbHeight, 90,
                              spec.thumbScene ? spec.pattern : JpegPattern::kSolid, spec.thumbColor,
                              spec.thumbColor, spec.storedFor});
    }
    // libjpeg writes marker and length.
    const std::string app1 = spec.orientation != 0 || !thumbnail.empty()
                                 ? ExifSegment(spec, thumbnail).substr(4)
                                 : std::string();
    const std::string app2 = spec.largeThumbWidth > 0 && spec.largeThumbHeight > 0
                                 ? MakeJpeg({spec.largeThumbWidth, spec.largeThumbHeight, 90,
                                             JpegPattern::kSolid, spec.largeThumbColor})
                                 : std::string();

    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    err.error_exit = WriterErrorExit;
    jpeg_create_compress(&cinfo);
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    jpeg_mem_dest(&cinfo, &out, &outSize);
    cinfo.image_width = static_cast<JDIMENSION>(spec.width);
    cinfo.image_height = static_cast<JDIMENSION>(spec.height);
    cinfo.in_color_space = JCS_RGB;
    cinfo.input_components = 3;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, spec.quality, TRUE);
    // An EXIF file starts with its APP1, as cameras write it.
    cinfo.write_JFIF_header = app1.empty();
    jpeg_start_compress(&cinfo, TRUE);
    const auto marker = [&](int n, const std::string& s) {
        if (!s.empty())
            jpeg_write_marker(&cinfo, JPEG_APP0 + n, reinterpret_cast<const JOCTET*>(s.data()),
                              static_cast<unsigned int>(s.size()));
    };
    marker(1, app1);
    marker(2, app2);
    std::vector<unsigned char> row(static_cast<size_t>(spec.width) * 3);
    while (cinfo.next_scanline < cinfo.image_height) {
        for (int x = 0; x < spec.width; ++x) {
            const JpegColor c = PatternColor(spec, x, static_cast<int>(cinfo.next_scanline));
            row[x * 3] = c.r;
            row[x * 3 + 1] = c.g;
            row[x * 3 + 2] = c.b;
        }
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&cinfo, rows, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::string bytes(reinterpret_cast<const char*>(out), outSize);
    std::free(out);  // jpeg_mem_dest's buffer is malloc'ed and ours to free
    return bytes;
}

std::string GradientJpeg(int width, int height) {
    return MakeJpeg({width, height, 95, JpegPattern::kGradient, {0, 0, 100}});
}

std::string QuadrantJpeg(int width, int height) {
    return MakeJpeg({width, height, 95, JpegPattern::kQuadrants});
}

size_t JpegFrameHeader(const std::string& jpeg) {
    const auto at = [&](size_t i) { return static_cast<uint8_t>(jpeg[i]); };
    if (jpeg.size() < 4 || at(0) != 0xFF || at(1) != 0xD8) return std::string::npos;
    for (size_t i = 2; i + 4 <= jpeg.size() && at(i) == 0xFF;) {
        const size_t length = at(i + 2) << 8 | at(i + 3);
        if (at(i + 1) >= 0xC0 && at(i + 1) <= 0xC2 && i + 9 <= jpeg.size()) return i;
        if (at(i + 1) == 0xDA || length < 2) break;
        i += 2 + length;
    }
    return std::string::npos;
}

bool JpegFrameSize(const std::string& jpeg, uint32_t* width, uint32_t* height) {
    const size_t sof = JpegFrameHeader(jpeg);
    if (sof == std::string::npos) return false;
    const auto at = [&](size_t i) { return static_cast<uint8_t>(jpeg[sof + i]); };
    *height = at(5) << 8 | at(6);
    *width = at(7) << 8 | at(8);
    return true;
}

}  // namespace qrbtest
