// BMP headers: the 14-byte file header, the OS/2 core (12 bytes), OS/2 v2 (16 or 64 bytes) and
// Windows info headers (40, 52, 56, 108, 124 bytes), bit-field masks and the palette. Every
// size, offset and count is checked against the file before anything is allocated from it;
// the pixel rows themselves are read by CQRBImageDecoder (qrb_bmp_reader.cpp).
#ifndef QRB_BMP_READER_H
#define QRB_BMP_READER_H

#include <cstdint>
#include <cstdio>

class CQRBPictureParser {
public:
    // Compression codes as the file gives them, except kCompressionRle24, which stands for the
    // OS/2 v2 header's code 4 (24-bit run lengths); Windows' code 4 (an embedded JPEG) and
    // 5 (PNG) are refused.
    static constexpr uint32_t kCompressionRgb = 0;
    static constexpr uint32_t kCompressionRle8 = 1;
    static constexpr uint32_t kCompressionRle4 = 2;
    static constexpr uint32_t kCompressionBitFields = 3;
    static constexpr uint32_t kCompressionAlphaBitFields = 6;
    static constexpr uint32_t kCompressionRle24 = 0x100;

    // A BMP wider or taller than this is refused: 65535 is JPEG's own bound and far beyond any
    // picture this service shows; together with kMaxPixels it keeps one decoded row (at most
    // 256 KiB) and every byte offset of the pixel data well inside 64 bits.
    static constexpr uint32_t kMaxDimension = 65535;
    // 2^28 pixels (a 16384 x 16384 picture). Rows are sampled straight into the output, so the
    // bound is about time, not memory: an RLE file can declare a huge picture in a few bytes.
    static constexpr uint64_t kMaxPixels = 1ull << 28;
    // Pixels per metre beyond 1,000,000 (25,400 dpi) are written by no device: a header that
    // claims them is corrupt, and the rest of it is not trusted either.
    static constexpr int32_t kMaxDensity = 1000000;

    struct BMPInfo {
        uint32_t width = 0;
        uint32_t height = 0;   // rows, whatever their order
        bool topDown = false;  // negative height in the file: first row on top
        uint16_t bitsPerPixel = 0;
        uint32_t compression = kCompressionRgb;
        uint32_t paletteSize = 0;  // entries read into the palette (0..256)
        uint32_t headerSize = 0;
        uint64_t dataOffset = 0;  // first byte of the pixel data
        uint64_t dataSize = 0;    // bytes of pixel data present in the file from dataOffset
        uint64_t rowStride = 0;   // bytes per stored row (uncompressed data)
        // Red, green, blue and alpha masks of 16- and 32-bit bit-field pixels. The alpha mask is
        // kept as the header gives it; the decoder writes every pixel opaque all the same.
        uint32_t mask[4] = {};
    };

    static constexpr int kPaletteEntries = 256;
    // Reads and checks the headers of the BMP file fp of fileSize bytes. palette receives
    // kPaletteEntries entries of 4 bytes (blue, green, red, 255); entries the file does not
    // give are opaque black. False, with the reason logged, for anything that is not a BMP this
    // decoder can read safely.
    static bool ParseBMPHeader(FILE* fp, uint64_t fileSize, BMPInfo* info, unsigned char* palette);
};

#endif
