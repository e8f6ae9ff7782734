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
#include "qrb_byte_order.h"
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

int32_t S32(const unsigned char* p) { return static_cast<int32_t>(QRBReadLE32(p)); }

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
                FromMasks(QRBReadLE16(row + static_cast<size_t>(x) * 2), dst);
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
                FromMasks(QRBReadLE32(row + static_cast<size_t>(x) * 4), dst);
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

// The fields of the file and info headers this reader uses, as the file gives them.
struct HeaderFields {
    uint64_t dataOffset = 0;
    uint32_t headerSize = 0;
    bool core = false;   // OS/2 core header: 16-bit sizes, 3-byte palette entries
    bool os2v2 = false;  // OS/2 v2 header: code 4 means 24-bit run lengths
    int64_t width = 0;
    int64_t height = 0;  // negative: rows stored top-down
    uint32_t planes = 0;
    uint32_t bpp = 0;
    uint32_t compression = 0;
    uint32_t imageSize = 0;
    int64_t densityX = 0;
    int64_t densityY = 0;
    uint32_t colorsUsed = 0;
    unsigned char bytes[kMaxInfoHeaderSize] = {};  // the info header, zero past its end

    bool TopDown() const { return height < 0; }
    int64_t Rows() const { return TopDown() ? -height : height; }  // 64-bit: -INT32_MIN fits
};

void ResetPalette(unsigned char* palette) {
    for (int i = 0; i < CQRBPictureParser::kPaletteEntries; ++i) {
        unsigned char* entry = palette + i * 4;
        entry[0] = entry[1] = entry[2] = 0;
        entry[3] = 255;
    }
}

// The 14-byte file header and the info header's bytes, with their sizes checked against the
// file.
bool ReadHeaderBytes(FILE* fp, uint64_t fileSize, HeaderFields* f) {
    unsigned char fileHeader[kFileHeaderSize];
    unsigned char sizeField[4];
    if (fileSize < kFileHeaderSize + 12 || !SeekTo(fp, 0) ||
        !ReadExactly(fp, fileHeader, sizeof(fileHeader)) ||
        !ReadExactly(fp, sizeField, sizeof(sizeField))) {
        QRB_LOGW("BMP of %llu bytes is too short", static_cast<unsigned long long>(fileSize));
        return false;
    }
    if (fileHeader[0] != 'B' || fileHeader[1] != 'M') return false;
    const uint32_t declaredSize = QRBReadLE32(fileHeader + 2);
    f->dataOffset = QRBReadLE32(fileHeader + 10);
    // A smaller declared size is a common writer slip; a larger one means bytes are missing.
    if (declaredSize > fileSize) {
        QRB_LOGW("BMP declares %u bytes, the file has %llu", declaredSize,
                 static_cast<unsigned long long>(fileSize));
        return false;
    }
    f->headerSize = QRBReadLE32(sizeField);
    if (!KnownHeaderSize(f->headerSize) || kFileHeaderSize + f->headerSize > fileSize) {
        QRB_LOGW("BMP header size %u refused", f->headerSize);
        return false;
    }
    std::memcpy(f->bytes, sizeField, 4);
    return ReadExactly(fp, f->bytes + 4, f->headerSize - 4);
}

// Picks the fields out of the info header's bytes; fields a short header lacks stay 0.
void UnpackInfoHeader(HeaderFields* f) {
    const unsigned char* h = f->bytes;
    f->core = f->headerSize == 12;
    f->os2v2 = f->headerSize == 16 || f->headerSize == 64;
    if (f->core) {
        f->width = QRBReadLE16(h + 4);
        f->height = QRBReadLE16(h + 6);
        f->planes = QRBReadLE16(h + 8);
        f->bpp = QRBReadLE16(h + 10);
        return;
    }
    f->width = S32(h + 4);
    f->height = S32(h + 8);
    f->planes = QRBReadLE16(h + 12);
    f->bpp = QRBReadLE16(h + 14);
    if (f->headerSize >= 40) {  // the shortened OS/2 v2 header ends after the bit count
        f->compression = QRBReadLE32(h + 16);
        f->imageSize = QRBReadLE32(h + 20);
        f->densityX = S32(h + 24);
        f->densityY = S32(h + 28);
        f->colorsUsed = QRBReadLE32(h + 32);
    }
}

// Planes, size, density and bit count within what this reader accepts.
bool CheckPictureFields(const HeaderFields& f) {
    using Parser = CQRBPictureParser;
    if (f.planes != 1) {
        QRB_LOGW("BMP with %u planes refused", f.planes);
        return false;
    }
    const int64_t rows = f.Rows();
    if (f.width <= 0 || rows == 0 || f.width > Parser::kMaxDimension ||
        rows > Parser::kMaxDimension ||
        static_cast<uint64_t>(f.width) * static_cast<uint64_t>(rows) > Parser::kMaxPixels) {
        QRB_LOGW("BMP %lld x %lld refused", static_cast<long long>(f.width),
                 static_cast<long long>(f.height));
        return false;
    }
    if (f.densityX > Parser::kMaxDensity || f.densityX < -Parser::kMaxDensity ||
        f.densityY > Parser::kMaxDensity || f.densityY < -Parser::kMaxDensity) {
        QRB_LOGW("BMP density %lld x %lld refused", static_cast<long long>(f.densityX),
                 static_cast<long long>(f.densityY));
        return false;
    }
    const uint32_t bpp = f.bpp;
    if (bpp != 1 && bpp != 2 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) {
        QRB_LOGW("BMP with %u bits per pixel refused", bpp);
        return false;
    }
    return true;
}

bool IsRunLength(uint32_t kind) {
    return kind == CQRBPictureParser::kCompressionRle8 ||
           kind == CQRBPictureParser::kCompressionRle4 ||
           kind == CQRBPictureParser::kCompressionRle24;
}

// The pixel encoding (a CQRBPictureParser::kCompression* value) the compression code stands for
// at this bit count and header; false for one this reader does not decode.
bool ChooseEncoding(const HeaderFields& f, uint32_t* kind) {
    using Parser = CQRBPictureParser;
    const uint32_t compression = f.compression;
    const uint32_t bpp = f.bpp;
    if (f.os2v2 && compression == 4 && bpp == 24) {
        *kind = Parser::kCompressionRle24;
    } else if (compression == Parser::kCompressionRgb) {
        *kind = Parser::kCompressionRgb;
    } else if (compression == Parser::kCompressionRle8 && bpp == 8) {
        *kind = Parser::kCompressionRle8;
    } else if (compression == Parser::kCompressionRle4 && bpp == 4) {
        *kind = Parser::kCompressionRle4;
    } else if (!f.os2v2 &&
               (compression == Parser::kCompressionBitFields ||
                compression == Parser::kCompressionAlphaBitFields) &&
               (bpp == 16 || bpp == 32)) {
        *kind = compression;
    } else {
        // Embedded JPEG or PNG, OS/2 Huffman, or a code that does not fit the bit count.
        QRB_LOGW("BMP compression %u with %u bits per pixel refused", compression, bpp);
        return false;
    }
    if (IsRunLength(*kind) && f.TopDown()) {
        QRB_LOGW("top-down run-length BMP refused");
        return false;
    }
    return true;
}

// The channel masks of 16- and 32-bit pixels: the defaults, or the bit fields, which lie inside
// V2 and later headers, else right after the 40-byte header (*masksAfterHeader bytes of them).
bool ReadBitFields(FILE* fp, uint64_t fileSize, const HeaderFields& f, uint32_t kind,
                   uint32_t* mask, uint64_t* masksAfterHeader) {
    *masksAfterHeader = 0;
    if (f.bpp == 16) {
        mask[0] = 0x7C00;
        mask[1] = 0x03E0;
        mask[2] = 0x001F;
    } else if (f.bpp == 32) {
        mask[0] = 0x00FF0000;
        mask[1] = 0x0000FF00;
        mask[2] = 0x000000FF;
    }
    if (kind != CQRBPictureParser::kCompressionBitFields &&
        kind != CQRBPictureParser::kCompressionAlphaBitFields) {
        return true;
    }
    const int count = kind == CQRBPictureParser::kCompressionAlphaBitFields ? 4 : 3;
    if (f.headerSize >= 52) {
        mask[0] = QRBReadLE32(f.bytes + 40);
        mask[1] = QRBReadLE32(f.bytes + 44);
        mask[2] = QRBReadLE32(f.bytes + 48);
        if (f.headerSize >= 56) mask[3] = QRBReadLE32(f.bytes + 52);
        return true;
    }
    *masksAfterHeader = 4u * count;
    unsigned char m[16];
    if (kFileHeaderSize + f.headerSize + *masksAfterHeader > fileSize ||
        !ReadExactly(fp, m, static_cast<size_t>(*masksAfterHeader))) {
        QRB_LOGW("BMP bit fields past the end of the file");
        return false;
    }
    for (int i = 0; i < count; ++i) mask[i] = QRBReadLE32(m + 4 * i);
    return true;
}

// The palette of a picture of up to 8 bits per pixel, from paletteStart up to the pixel data:
// at most the colours the header declares (all 2^bpp when it declares none) and at most
// kPaletteEntries. *entries receives how many were read.
bool ReadPalette(FILE* fp, uint64_t fileSize, const HeaderFields& f, uint64_t paletteStart,
                 unsigned char* palette, uint32_t* entries) {
    const uint64_t entrySize = f.core ? 3 : 4;
    if (f.colorsUsed != 0 && f.colorsUsed * entrySize > fileSize - paletteStart) {
        QRB_LOGW("BMP palette of %u colours is larger than the file", f.colorsUsed);
        return false;
    }
    const uint64_t wanted = f.colorsUsed != 0 ? f.colorsUsed : (1u << f.bpp);
    const uint64_t room = (f.dataOffset - paletteStart) / entrySize;
    const uint64_t n = std::min<uint64_t>(
        {wanted, room, static_cast<uint64_t>(CQRBPictureParser::kPaletteEntries)});
    if (n == 0) {
        QRB_LOGW("BMP with %u bits per pixel has no palette", f.bpp);
        return false;
    }
    unsigned char raw[CQRBPictureParser::kPaletteEntries * 4];
    if (!SeekTo(fp, paletteStart) || !ReadExactly(fp, raw, static_cast<size_t>(n * entrySize))) {
        return false;
    }
    for (uint64_t i = 0; i < n; ++i) {
        std::memcpy(palette + i * 4, raw + i * entrySize, 3);  // blue, green, red
        palette[i * 4 + 3] = 255;
    }
    *entries = static_cast<uint32_t>(n);
    return true;
}

// Where the pixel data lies and how many of its bytes the file holds: rowStride and dataSize.
bool MeasurePixelData(uint64_t fileSize, const HeaderFields& f, bool runLength,
                      CQRBPictureParser::BMPInfo* info) {
    const uint64_t available = fileSize - f.dataOffset;
    if (f.imageSize > available) {
        QRB_LOGW("BMP declares %u bytes of pixels, the file holds %llu", f.imageSize,
                 static_cast<unsigned long long>(available));
        return false;
    }
    info->rowStride = (static_cast<uint64_t>(f.width) * f.bpp + 31) / 32 * 4;
    if (runLength) {
        info->dataSize = f.imageSize != 0 ? f.imageSize : available;
        return true;
    }
    info->dataSize = info->rowStride * static_cast<uint64_t>(f.Rows());
    if (info->dataSize > available) {
        QRB_LOGW("BMP needs %llu bytes of pixels, the file holds %llu",
                 static_cast<unsigned long long>(info->dataSize),
                 static_cast<unsigned long long>(available));
        return false;
    }
    return true;
}

}  // namespace

bool CQRBPictureParser::ParseBMPHeader(FILE* fp, uint64_t fileSize, BMPInfo* info,
                                       unsigned char* palette) {
    *info = BMPInfo();
    ResetPalette(palette);
    HeaderFields f;
    if (!ReadHeaderBytes(fp, fileSize, &f)) return false;
    UnpackInfoHeader(&f);
    uint32_t kind = kCompressionRgb;
    uint64_t masksAfterHeader = 0;
    if (!CheckPictureFields(f) || !ChooseEncoding(f, &kind) ||
        !ReadBitFields(fp, fileSize, f, kind, info->mask, &masksAfterHeader)) {
        return false;
    }
    const uint64_t paletteStart = kFileHeaderSize + f.headerSize + masksAfterHeader;
    if (f.dataOffset < paletteStart || f.dataOffset >= fileSize) {
        QRB_LOGW("BMP pixel data offset %llu refused",
                 static_cast<unsigned long long>(f.dataOffset));
        return false;
    }
    if (f.bpp <= 8 && !ReadPalette(fp, fileSize, f, paletteStart, palette, &info->paletteSize)) {
        return false;
    }
    if (!MeasurePixelData(fileSize, f, IsRunLength(kind), info)) return false;
    info->width = static_cast<uint32_t>(f.width);
    info->height = static_cast<uint32_t>(f.Rows());
    info->topDown = f.TopDown();
    info->bitsPerPixel = static_cast<uint16_t>(f.bpp);
    info->compression = kind;
    info->headerSize = f.headerSize;
    info->dataOffset = f.dataOffset;
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

namespace {

// The picture row being expanded from run-length data, and the output rows each finished row
// goes to. The cursor (x, y) counts rows from the bottom, as they are stored; a run or literal
// is placed only after Fits() said it stays inside its row.
class RleCanvas {
public:
    RleCanvas(const CQRBPictureParser::BMPInfo& info, const unsigned char* palette,
              unsigned char* out, uint32_t outW, uint32_t outH)
        : m_W(info.width),
          m_H(info.height),
          m_Palette(palette),
          m_Out(out),
          m_OutW(outW),
          m_Sampler(info.width, info.height, outW, outH),
          m_Blank(static_cast<size_t>(info.width) * 4) {
        const size_t outPixels = static_cast<size_t>(outW) * outH;
        for (size_t i = 0; i < outPixels; ++i) std::memcpy(out + i * 4, kBlack, 4);
        for (size_t i = 0; i < m_W; ++i) std::memcpy(&m_Blank[i * 4], kBlack, 4);
        m_Pixels = m_Blank;
    }

    uint32_t X() const { return m_X; }
    uint64_t Y() const { return m_Y; }
    bool Fits(unsigned n) const { return m_Y < m_H && m_X + n <= m_W; }

    void Put(const unsigned char* bgra) {
        std::memcpy(m_Pixels.data() + static_cast<size_t>(m_X) * 4, bgra, 4);
        ++m_X;
        m_Dirty = true;
    }
    void PutIndex(unsigned index) { Put(m_Palette + index * 4u); }

    void EndLine() {
        Flush();
        ++m_Y;
        m_X = 0;
    }
    // Moves the cursor right and up; false when it leaves the picture.
    bool Move(unsigned dx, unsigned dy) {
        if (dy > 0) {
            Flush();
            m_Y += dy;
        }
        m_X += dx;
        return m_X <= m_W && m_Y <= m_H;
    }
    // Sends the current row to its output rows and starts a blank one.
    void Flush() {
        if (m_Y < m_H) {
            const uint64_t r = m_H - 1 - m_Y;
            for (uint32_t oy = m_Sampler.FirstRow(r); oy < m_Sampler.FirstRow(r + 1); ++oy) {
                unsigned char* dst = m_Out + static_cast<size_t>(oy) * m_OutW * 4;
                for (uint32_t column : m_Sampler.Columns()) {
                    std::memcpy(dst, m_Pixels.data() + static_cast<size_t>(column) * 4, 4);
                    dst += 4;
                }
            }
        }
        if (m_Dirty) std::copy(m_Blank.begin(), m_Blank.end(), m_Pixels.begin());
        m_Dirty = false;
    }

private:
    static constexpr unsigned char kBlack[4] = {0, 0, 0, 255};
    uint32_t m_W;
    uint64_t m_H;
    const unsigned char* m_Palette;
    unsigned char* m_Out;
    uint32_t m_OutW;
    Sampler m_Sampler;
    std::vector<unsigned char> m_Blank;
    std::vector<unsigned char> m_Pixels;
    bool m_Dirty = false;
    uint32_t m_X = 0;
    uint64_t m_Y = 0;
};

// What the expansion does after one record of run-length data.
enum class RleStep { kGoOn, kStop, kFail };

// A run of count pixels of one colour (for 4 bits, two alternating colours).
RleStep ExpandRun(ByteReader* in, RleCanvas* canvas, int bpp, unsigned count, unsigned char code) {
    if (!canvas->Fits(count)) {
        QRB_LOGW("BMP run of %u at (%u, %llu) leaves the picture", count, canvas->X(),
                 static_cast<unsigned long long>(canvas->Y()));
        return RleStep::kFail;
    }
    if (bpp == 24) {
        unsigned char g;
        unsigned char r;
        if (!in->Next(&g) || !in->Next(&r)) return RleStep::kStop;
        const unsigned char bgra[4] = {code, g, r, 255};
        for (unsigned i = 0; i < count; ++i) canvas->Put(bgra);
    } else if (bpp == 8) {
        for (unsigned i = 0; i < count; ++i) canvas->PutIndex(code);
    } else {
        for (unsigned i = 0; i < count; ++i) {
            canvas->PutIndex((i % 2 == 0) ? (code >> 4) : (code & 0x0F));
        }
    }
    return RleStep::kGoOn;
}

// Absolute mode: n pixels stored as they are, padded to a 16-bit boundary.
RleStep ExpandLiteral(ByteReader* in, RleCanvas* canvas, int bpp, unsigned n) {
    if (!canvas->Fits(n)) {
        QRB_LOGW("BMP literal of %u at (%u, %llu) leaves the picture", n, canvas->X(),
                 static_cast<unsigned long long>(canvas->Y()));
        return RleStep::kFail;
    }
    const unsigned bytes = bpp == 24 ? n * 3 : bpp == 8 ? n : (n + 1) / 2;
    unsigned char literal[255 * 3];
    unsigned got = 0;
    while (got < bytes && in->Next(&literal[got])) ++got;
    if (got < bytes) return RleStep::kStop;
    if (bytes % 2 != 0) {
        unsigned char pad;
        (void)in->Next(&pad);  // padding missing at the very end leaves the pixels whole
    }
    for (unsigned i = 0; i < n; ++i) {
        if (bpp == 24) {
            const unsigned char bgra[4] = {literal[i * 3], literal[i * 3 + 1], literal[i * 3 + 2],
                                           255};
            canvas->Put(bgra);
        } else if (bpp == 8) {
            canvas->PutIndex(literal[i]);
        } else {
            const unsigned char b = literal[i / 2];
            canvas->PutIndex((i % 2 == 0) ? (b >> 4) : (b & 0x0F));
        }
    }
    return RleStep::kGoOn;
}

// A record whose count is 0: end of line, end of bitmap, a delta, or a literal.
RleStep ExpandEscape(ByteReader* in, RleCanvas* canvas, int bpp, unsigned char code) {
    switch (code) {
        case 0:
            canvas->EndLine();
            return RleStep::kGoOn;
        case 1:
            return RleStep::kStop;
        case 2: {
            unsigned char dx;
            unsigned char dy;
            if (!in->Next(&dx) || !in->Next(&dy)) return RleStep::kStop;
            if (!canvas->Move(dx, dy)) {
                QRB_LOGW("BMP delta to (%u, %llu) leaves the picture", canvas->X(),
                         static_cast<unsigned long long>(canvas->Y()));
                return RleStep::kFail;
            }
            return RleStep::kGoOn;
        }
        default:
            return ExpandLiteral(in, canvas, bpp, code);
    }
}

}  // namespace

int CQRBImageDecoder::m_Decode_RLE(FILE* fp, unsigned char* out) {
    RleCanvas canvas(m_BMPInfo, m_pBMPPalette.get(), out, m_uOutputWidth, m_uOutputHeight);
    if (!SeekTo(fp, m_BMPInfo.dataOffset)) return -1;
    ByteReader in(fp, m_BMPInfo.dataSize);
    const int bpp = m_BMPInfo.bitsPerPixel;
    for (;;) {
        unsigned char count;
        unsigned char code;
        if (!in.Next(&count) || !in.Next(&code)) break;  // the data ends: keep what we have
        const RleStep step = count > 0 ? ExpandRun(&in, &canvas, bpp, count, code)
                                       : ExpandEscape(&in, &canvas, bpp, code);
        if (step == RleStep::kFail) return -1;
        if (step == RleStep::kStop) break;
    }
    canvas.Flush();
    return 0;
}
