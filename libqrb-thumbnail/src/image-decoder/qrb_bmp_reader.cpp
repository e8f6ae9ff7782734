// BMP, decoded by hand: 1, 2, 4 and 8-bit palettes, 16 and 32-bit pixels with default or
// explicit bit fields, 24-bit pixels, RLE8, RLE4 and OS/2 RLE24 with their escapes, rows
// bottom-up or top-down. Every pixel written is opaque (alpha 255), as every decoder of this
// service writes it: an alpha mask (V3 and later headers, ALPHABITFIELDS) is read with the
// header but its channel is not used.
//
// Rows are never held whole: output pixel (x, y) takes picture pixel (x * w / outW,
// y * h / outH). Uncompressed files are read only at the rows the output needs; run-length
// files are expanded one row at a time and each finished row goes to the output rows that
// take it. A run or a delta that would leave its row or the picture is an error, never a
// write: such a file fails as a whole. Pixels a run-length file skips (deltas, early line ends,
// data that stops short) are opaque black.
#include "image-decoder/qrb_bmp_reader.h"
#include "image-decoder/qrb_image_decoder.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

namespace {


constexpr uint64_t kFileHeaderSize = 14;
constexpr size_t kMaxInfoHeaderSize = 124;

uint32_t Le16(const unsigned char* p) { return p[0] | (p[1] << 8); }
uint32_t Le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
int32_t S32(const unsigned char* p) { return static_cast<int32_t>(Le32(p)); }

bool SeekTo(FILE* fp, uint64_t offset) {
    return fseeko(fp, static_cast<off_t>(offset), SEEK_SET) == 0;
}
bool ReadExactly(FILE* fp, unsigned char* buf, size_t n) { return std::fread(buf, 1, n, fp) == n; }

bool KnownHeaderSize(uint32_t size) {
    switch (size) {
        case 12:   // OS/2 core
        case 16:   // OS/2 v2, shortened
        case 40:   // Windows info
        case 52:   // with RGB masks
        case 56:   // with RGBA masks
        case 64:   // OS/2 v2
        case 108:  // V4
        case 124:  // V5
            return true;
        default:
            return false;
    }
}

// One colour channel of a 16- or 32-bit pixel: the contiguous run of mask bits from its lowest,
// scaled to 8 bits.
struct Channel {
    int shift = 0;
    int bits = 0;
    uint32_t max = 0;
};

Channel MakeChannel(uint32_t mask) {
    Channel c;
    if (mask == 0) return c;
    while (((mask >> c.shift) & 1u) == 0) ++c.shift;
    while (c.shift + c.bits < 32 && ((mask >> (c.shift + c.bits)) & 1u) != 0) ++c.bits;
    c.max = c.bits >= 32 ? 0xFFFFFFFFu : ((1u << c.bits) - 1);
    return c;
}

inline unsigned char Extract(uint32_t pixel, const Channel& c) {
    if (c.bits == 0) return 0;
    const uint32_t v = (pixel >> c.shift) & c.max;
    if (c.bits >= 8) return static_cast<unsigned char>(v >> (c.bits - 8));
    return static_cast<unsigned char>((v * 255 + c.max / 2) / c.max);
}

// How one stored pixel becomes blue, green, red, alpha.
struct PixelFormat {
    uint16_t bpp = 0;
    const unsigned char* palette = nullptr;  // 256 BGRA entries
    Channel red, green, blue;

    PixelFormat(const CQRBPictureParser::BMPInfo& info, const unsigned char* pal)
        : bpp(info.bitsPerPixel), palette(pal) {
        red = MakeChannel(info.mask[0]);
        green = MakeChannel(info.mask[1]);
        blue = MakeChannel(info.mask[2]);
    }

    // Pixel x of a stored row (the caller keeps x inside the row).
    void Fetch(const unsigned char* row, uint32_t x, unsigned char* dst) const {
        switch (bpp) {
            case 1:
            case 2:
            case 4: {
                const uint64_t bit = static_cast<uint64_t>(x) * bpp;
                const unsigned shift = 8 - bpp - static_cast<unsigned>(bit % 8);
                const unsigned index = (row[bit / 8] >> shift) & ((1u << bpp) - 1);
                std::memcpy(dst, palette + index * 4, 4);
                return;
            }
            case 8:
                std::memcpy(dst, palette + row[x] * 4u, 4);
                return;
            case 16:
                FromMasks(Le16(row + static_cast<size_t>(x) * 2), dst);
                return;
            case 24: {
                const unsigned char* p = row + static_cast<size_t>(x) * 3;
                dst[0] = p[0];
                dst[1] = p[1];
                dst[2] = p[2];
                dst[3] = 255;
                return;
            }
            default:
                FromMasks(Le32(row + static_cast<size_t>(x) * 4), dst);
                return;
        }
    }

    void FromMasks(uint32_t pixel, unsigned char* dst) const {
        dst[0] = Extract(pixel, blue);
        dst[1] = Extract(pixel, green);
        dst[2] = Extract(pixel, red);
        dst[3] = 255;
    }
};

// Nearest sampling between picture and output: output column x takes picture column
// column[x]; picture row r feeds output rows [FirstRow(r), FirstRow(r + 1)).
class Sampler {
public:
    Sampler(uint32_t w, uint32_t h, uint32_t outW, uint32_t outH)
        : m_H(h), m_OutH(outH), m_Column(outW) {
        for (uint32_t x = 0; x < outW; ++x) {
            m_Column[x] = static_cast<uint32_t>(static_cast<uint64_t>(x) * w / outW);
        }
    }
    uint32_t SourceRow(uint32_t y) const {
        return static_cast<uint32_t>(static_cast<uint64_t>(y) * m_H / m_OutH);
    }
    uint32_t FirstRow(uint64_t r) const {
        return static_cast<uint32_t>((r * m_OutH + m_H - 1) / m_H);
    }
    const std::vector<uint32_t>& Columns() const { return m_Column; }

private:
    uint64_t m_H;
    uint64_t m_OutH;
    std::vector<uint32_t> m_Column;
};

// Reads the run-length data, at most `remaining` bytes of it, a block at a time.
class ByteReader {
public:
    ByteReader(FILE* fp, uint64_t remaining) : m_Fp(fp), m_Remaining(remaining) {}
    bool Next(unsigned char* byte) {
        if (m_Pos == m_Len) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(m_Remaining, sizeof(m_Buf)));
            m_Len = want > 0 ? std::fread(m_Buf, 1, want, m_Fp) : 0;
            m_Pos = 0;
            if (m_Len == 0) return false;
            m_Remaining -= m_Len;
        }
        *byte = m_Buf[m_Pos++];
        return true;
    }

private:
    FILE* m_Fp;
    uint64_t m_Remaining;
    unsigned char m_Buf[4096];
    size_t m_Len = 0;
    size_t m_Pos = 0;
};

}  // namespace

bool CQRBPictureParser::ParseBMPHeader(FILE* fp, uint64_t fileSize, BMPInfo* info,
                                       unsigned char* palette) {
    *info = BMPInfo();
    for (int i = 0; i < kPaletteEntries; ++i) {
        unsigned char* entry = palette + i * 4;
        entry[0] = entry[1] = entry[2] = 0;
        entry[3] = 255;
    }
    unsigned char fileHeader[kFileHeaderSize];
    unsigned char sizeField[4];
    if (fileSize < kFileHeaderSize + 12 || !SeekTo(fp, 0) ||
        !ReadExactly(fp, fileHeader, sizeof(fileHeader)) ||
        !ReadExactly(fp, sizeField, sizeof(sizeField))) {
        QRB_LOGW("BMP of %llu bytes is too short", static_cast<unsigned long long>(fileSize));
        return false;
    }
    if (fileHeader[0] != 'B' || fileHeader[1] != 'M') return false;
    const uint32_t declaredSize = Le32(fileHeader + 2);
    const uint64_t dataOffset = Le32(fileHeader + 10);
    // A smaller declared size is a common writer slip; a larger one means bytes are missing.
    if (declaredSize > fileSize) {
        QRB_LOGW("BMP declares %u bytes, the file has %llu", declaredSize,
                 static_cast<unsigned long long>(fileSize));
        return false;
    }
    const uint32_t headerSize = Le32(sizeField);
    if (!KnownHeaderSize(headerSize) || kFileHeaderSize + headerSize > fileSize) {
        QRB_LOGW("BMP header size %u refused", headerSize);
        return false;
    }
    unsigned char h[kMaxInfoHeaderSize];
    std::memset(h, 0, sizeof(h));
    std::memcpy(h, sizeField, 4);
    if (!ReadExactly(fp, h + 4, headerSize - 4)) return false;

    const bool core = headerSize == 12;
    const bool os2v2 = headerSize == 16 || headerSize == 64;
    int64_t width;
    int64_t height;
    uint32_t planes;
    uint32_t bpp;
    uint32_t compression = 0;
    uint32_t imageSize = 0;
    int64_t densityX = 0;
    int64_t densityY = 0;
    uint32_t colorsUsed = 0;
    if (core) {
        width = Le16(h + 4);
        height = Le16(h + 6);
        planes = Le16(h + 8);
        bpp = Le16(h + 10);
    } else {
        width = S32(h + 4);
        height = S32(h + 8);
        planes = Le16(h + 12);
        bpp = Le16(h + 14);
        if (headerSize >= 40) {  // the shortened OS/2 v2 header ends after the bit count
            compression = Le32(h + 16);
            imageSize = Le32(h + 20);
            densityX = S32(h + 24);
            densityY = S32(h + 28);
            colorsUsed = Le32(h + 32);
        }
    }
    if (planes != 1) {
        QRB_LOGW("BMP with %u planes refused", planes);
        return false;
    }
    const bool topDown = height < 0;
    const int64_t rows = topDown ? -height : height;  // 64-bit: -INT32_MIN fits
    if (width <= 0 || rows == 0 || width > kMaxDimension || rows > kMaxDimension ||
        static_cast<uint64_t>(width) * static_cast<uint64_t>(rows) > kMaxPixels) {
        QRB_LOGW("BMP %lld x %lld refused", static_cast<long long>(width),
                 static_cast<long long>(height));
        return false;
    }
    if (densityX > kMaxDensity || densityX < -kMaxDensity || densityY > kMaxDensity ||
        densityY < -kMaxDensity) {
        QRB_LOGW("BMP density %lld x %lld refused", static_cast<long long>(densityX),
                 static_cast<long long>(densityY));
        return false;
    }
    if (bpp != 1 && bpp != 2 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) {
        QRB_LOGW("BMP with %u bits per pixel refused", bpp);
        return false;
    }

    uint32_t kind;
    if (os2v2 && compression == 4 && bpp == 24) {
        kind = kCompressionRle24;
    } else if (compression == kCompressionRgb) {
        kind = kCompressionRgb;
    } else if (compression == kCompressionRle8 && bpp == 8) {
        kind = kCompressionRle8;
    } else if (compression == kCompressionRle4 && bpp == 4) {
        kind = kCompressionRle4;
    } else if (!os2v2 &&
               (compression == kCompressionBitFields ||
                compression == kCompressionAlphaBitFields) &&
               (bpp == 16 || bpp == 32)) {
        kind = compression;
    } else {
        // Embedded JPEG or PNG, OS/2 Huffman, or a code that does not fit the bit count.
        QRB_LOGW("BMP compression %u with %u bits per pixel refused", compression, bpp);
        return false;
    }
    const bool runLength =
        kind == kCompressionRle8 || kind == kCompressionRle4 || kind == kCompressionRle24;
    if (runLength && topDown) {
        QRB_LOGW("top-down run-length BMP refused");
        return false;
    }

    // Bit fields: inside V2 and later headers, else right after the 40-byte header.
    uint64_t masksAfterHeader = 0;
    if (bpp == 16) {
        info->mask[0] = 0x7C00;
        info->mask[1] = 0x03E0;
        info->mask[2] = 0x001F;
    } else if (bpp == 32) {
        info->mask[0] = 0x00FF0000;
        info->mask[1] = 0x0000FF00;
        info->mask[2] = 0x000000FF;
    }
    if (kind == kCompressionBitFields || kind == kCompressionAlphaBitFields) {
        const int count = kind == kCompressionAlphaBitFields ? 4 : 3;
        if (headerSize >= 52) {
            info->mask[0] = Le32(h + 40);
            info->mask[1] = Le32(h + 44);
            info->mask[2] = Le32(h + 48);
            if (headerSize >= 56) info->mask[3] = Le32(h + 52);
        } else {
            masksAfterHeader = 4u * count;
            unsigned char m[16];
            if (kFileHeaderSize + headerSize + masksAfterHeader > fileSize ||
                !ReadExactly(fp, m, static_cast<size_t>(masksAfterHeader))) {
                QRB_LOGW("BMP bit fields past the end of the file");
                return false;
            }
            for (int i = 0; i < count; ++i) info->mask[i] = Le32(m + 4 * i);
        }
    }

    const uint64_t paletteStart = kFileHeaderSize + headerSize + masksAfterHeader;
    if (dataOffset < paletteStart || dataOffset >= fileSize) {
        QRB_LOGW("BMP pixel data offset %llu refused", static_cast<unsigned long long>(dataOffset));
        return false;
    }
    if (bpp <= 8) {
        const uint64_t entrySize = core ? 3 : 4;
        if (colorsUsed != 0 && colorsUsed * entrySize > fileSize - paletteStart) {
            QRB_LOGW("BMP palette of %u colours is larger than the file", colorsUsed);
            return false;
        }
        const uint64_t wanted = colorsUsed != 0 ? colorsUsed : (1u << bpp);
        const uint64_t room = (dataOffset - paletteStart) / entrySize;
        const uint64_t n =
            std::min<uint64_t>({wanted, room, static_cast<uint64_t>(kPaletteEntries)});
        if (n == 0) {
            QRB_LOGW("BMP with %u bits per pixel has no palette", bpp);
            return false;
        }
        unsigned char raw[kPaletteEntries * 4];
        if (!SeekTo(fp, paletteStart) ||
            !ReadExactly(fp, raw, static_cast<size_t>(n * entrySize))) {
            return false;
        }
        for (uint64_t i = 0; i < n; ++i) {
            std::memcpy(palette + i * 4, raw + i * entrySize, 3);  // blue, green, red
            palette[i * 4 + 3] = 255;
        }
        info->paletteSize = static_cast<uint32_t>(n);
    }

    const uint64_t available = fileSize - dataOffset;
    if (imageSize > available) {
        QRB_LOGW("BMP declares %u bytes of pixels, the file holds %llu", imageSize,
                 static_cast<unsigned long long>(available));
        return false;
    }
    info->rowStride = (static_cast<uint64_t>(width) * bpp + 31) / 32 * 4;
    if (runLength) {
        info->dataSize = imageSize != 0 ? imageSize : available;
    } else {
        info->dataSize = info->rowStride * static_cast<uint64_t>(rows);
        if (info->dataSize > available) {
            QRB_LOGW("BMP needs %llu bytes of pixels, the file holds %llu",
                     static_cast<unsigned long long>(info->dataSize),
                     static_cast<unsigned long long>(available));
            return false;
        }
    }
    info->width = static_cast<uint32_t>(width);
    info->height = static_cast<uint32_t>(rows);
    info->topDown = topDown;
    info->bitsPerPixel = static_cast<uint16_t>(bpp);
    info->compression = kind;
    info->headerSize = headerSize;
    info->dataOffset = dataOffset;
    return true;
}

int CQRBImageDecoder::m_ParseBMPThumbInfo() {
    if (m_pPath == nullptr) return -1;
    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRB_LOGW("%s:   OPEN ERROR", m_pPath);
        return -1;
    }
    if (fseeko(fp.get(), 0, SEEK_END) != 0) return -1;
    const off_t end = ftello(fp.get());
    if (end < 0) return -1;
    m_pBMPPalette.reset(new (std::nothrow) unsigned char[CQRBPictureParser::kPaletteEntries * 4]);
    if (!m_pBMPPalette) return -1;
    if (!CQRBPictureParser::ParseBMPHeader(fp.get(), static_cast<uint64_t>(end), &m_BMPInfo,
                                           m_pBMPPalette.get())) {
        return -1;
    }
    m_uPictureWidth = m_BMPInfo.width;
    m_uPictureHeight = m_BMPInfo.height;
    QRB_LOGD("BMP %u x %u, %u bits, compression %u, %u colours", m_BMPInfo.width, m_BMPInfo.height,
             m_BMPInfo.bitsPerPixel, m_BMPInfo.compression, m_BMPInfo.paletteSize);
    return 0;
}

int CQRBImageDecoder::m_ReadBMPThumbnail(unsigned char* out) {
    if (out == nullptr || m_uOutputWidth == 0 || m_uOutputHeight == 0 || m_pPath == nullptr ||
        !m_pBMPPalette || m_BMPInfo.width == 0) {
        return -1;
    }
    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRB_LOGW("%s:   OPEN ERROR", m_pPath);
        return -1;
    }
    const uint32_t kind = m_BMPInfo.compression;
    const bool runLength = kind == CQRBPictureParser::kCompressionRle8 ||
                           kind == CQRBPictureParser::kCompressionRle4 ||
                           kind == CQRBPictureParser::kCompressionRle24;
    const int ret = runLength ? m_Decode_RLE(fp.get(), out) : m_ExtractBMPThumbnail(fp.get(), out);
    return ret == 0 ? kBmpSuccess : -1;
}

int CQRBImageDecoder::m_ExtractBMPThumbnail(FILE* fp, unsigned char* out) {
    const CQRBPictureParser::BMPInfo& info = m_BMPInfo;
    const PixelFormat format(info, m_pBMPPalette.get());
    const Sampler sampler(info.width, info.height, m_uOutputWidth, m_uOutputHeight);
    std::vector<unsigned char> row(static_cast<size_t>(info.rowStride));  // at most 256 KiB
    uint64_t loaded = UINT64_MAX;
    unsigned char* dst = out;
    for (uint32_t y = 0; y < m_uOutputHeight; ++y) {
        const uint32_t r = sampler.SourceRow(y);
        const uint64_t stored = info.topDown ? r : info.height - 1 - r;
        if (stored != loaded) {
            if (!SeekTo(fp, info.dataOffset + stored * info.rowStride) ||
                !ReadExactly(fp, row.data(), row.size())) {
                QRB_LOGW("BMP row %llu unreadable", static_cast<unsigned long long>(stored));
                return -1;
            }
            loaded = stored;
        }
        for (uint32_t column : sampler.Columns()) {
            format.Fetch(row.data(), column, dst);
            dst += 4;
        }
    }
    return 0;
}

int CQRBImageDecoder::m_Decode_RLE(FILE* fp, unsigned char* out) {
    const CQRBPictureParser::BMPInfo& info = m_BMPInfo;
    const uint32_t w = info.width;
    const uint32_t h = info.height;
    const uint32_t outW = m_uOutputWidth;
    const unsigned char* palette = m_pBMPPalette.get();
    const Sampler sampler(w, h, outW, m_uOutputHeight);
    static const unsigned char kBlack[4] = {0, 0, 0, 255};
    const size_t outPixels = static_cast<size_t>(outW) * m_uOutputHeight;
    for (size_t i = 0; i < outPixels; ++i) std::memcpy(out + i * 4, kBlack, 4);
    if (!SeekTo(fp, info.dataOffset)) return -1;
    ByteReader in(fp, info.dataSize);

    std::vector<unsigned char> blank(static_cast<size_t>(w) * 4);
    for (size_t i = 0; i < w; ++i) std::memcpy(&blank[i * 4], kBlack, 4);
    std::vector<unsigned char> pixels = blank;  // the row being expanded
    bool dirty = false;
    uint32_t x = 0;
    uint64_t y = 0;  // rows counted from the bottom, as stored
    // Sends the current row to its output rows and starts a blank one.
    auto flush = [&]() {
        if (y < h) {
            const uint64_t r = h - 1 - y;
            for (uint32_t oy = sampler.FirstRow(r); oy < sampler.FirstRow(r + 1); ++oy) {
                unsigned char* dst = out + static_cast<size_t>(oy) * outW * 4;
                for (uint32_t column : sampler.Columns()) {
                    std::memcpy(dst, pixels.data() + static_cast<size_t>(column) * 4, 4);
                    dst += 4;
                }
            }
        }
        if (dirty) std::copy(blank.begin(), blank.end(), pixels.begin());
        dirty = false;
    };
    auto put = [&](const unsigned char* bgra) {
        std::memcpy(pixels.data() + static_cast<size_t>(x) * 4, bgra, 4);
        ++x;
    };
    const int bpp = info.bitsPerPixel;

    for (;;) {
        unsigned char count;
        unsigned char code;
        if (!in.Next(&count) || !in.Next(&code)) break;  // the data ends: keep what we have
        if (count > 0) {
            // A run of count pixels.
            if (y >= h || x + static_cast<uint32_t>(count) > w) {
                QRB_LOGW("BMP run of %u at (%u, %llu) leaves the picture", count, x,
                         static_cast<unsigned long long>(y));
                return -1;
            }
            if (bpp == 24) {
                unsigned char g;
                unsigned char r;
                if (!in.Next(&g) || !in.Next(&r)) break;
                const unsigned char bgra[4] = {code, g, r, 255};
                for (unsigned i = 0; i < count; ++i) put(bgra);
            } else if (bpp == 8) {
                for (unsigned i = 0; i < count; ++i) put(palette + code * 4u);
            } else {
                for (unsigned i = 0; i < count; ++i) {
                    put(palette + ((i % 2 == 0) ? (code >> 4) : (code & 0x0F)) * 4u);
                }
            }
            dirty = true;
            continue;
        }
        if (code == 0) {  // end of line
            flush();
            ++y;
            x = 0;
            continue;
        }
        if (code == 1) break;  // end of bitmap
        if (code == 2) {       // delta
            unsigned char dx;
            unsigned char dy;
            if (!in.Next(&dx) || !in.Next(&dy)) break;
            if (dy > 0) {
                flush();
                y += dy;
            }
            x += dx;
            if (x > w || y > h) {
                QRB_LOGW("BMP delta to (%u, %llu) leaves the picture", x,
                         static_cast<unsigned long long>(y));
                return -1;
            }
            continue;
        }
        // Absolute mode: `code` pixels stored as they are, padded to a 16-bit boundary.
        const unsigned n = code;
        if (y >= h || x + n > w) {
            QRB_LOGW("BMP literal of %u at (%u, %llu) leaves the picture", n, x,
                     static_cast<unsigned long long>(y));
            return -1;
        }
        const unsigned bytes = bpp == 24 ? n * 3 : bpp == 8 ? n : (n + 1) / 2;
        unsigned char literal[255 * 3];
        unsigned got = 0;
        while (got < bytes && in.Next(&literal[got])) ++got;
        if (got < bytes) break;
        if (bytes % 2 != 0) {
            unsigned char pad;
            (void)in.Next(&pad);  // padding missing at the very end leaves the pixels whole
        }
        for (unsigned i = 0; i < n; ++i) {
            if (bpp == 24) {
                const unsigned char bgra[4] = {literal[i * 3], literal[i * 3 + 1],
                                               literal[i * 3 + 2], 255};
                put(bgra);
            } else if (bpp == 8) {
                put(palette + literal[i] * 4u);
            } else {
                const unsigned char b = literal[i / 2];
                put(palette + ((i % 2 == 0) ? (b >> 4) : (b & 0x0F)) * 4u);
            }
        }
        dirty = true;
    }
    flush();
    return 0;
}
