// CQRBImageDecoder turns one picture file into an ARGB raster (blue, green, red, alpha; rows
// packed, top row first) of about the requested size. Construction converts the URI, parses the
// headers, chooses the source (a JPEG's EXIF thumbnail, its large APP2 thumbnail or the whole
// picture; a PNG; a BMP; for HEIF, AVIF, WebP, GIF and TIFF what their reader chooses, see
// qrb_picture_reader.h) and computes the output size, which covers the requested box with the
// source's aspect ratio. ExtractThumbnail then decodes into a caller-owned buffer of
// output width x output height x 4 bytes.
//
// One decoder serves one request on one thread (it lives on a worker's stack); decoders of
// different files may run at once. Every failure is logged where it happens and answered -1;
// libjpeg and libpng errors come back through our own handlers and never end the process.
//
// The code is split by concept: this file's .cpp (construction, URI, source selection,
// dispatch, output size), qrb_jpeg_header_parser.cpp (marker and EXIF walk),
// qrb_jpeg_sw_decoder.cpp (libjpeg), qrb_png_reader.cpp (libpng) and qrb_bmp_reader.cpp; the
// other formats have a reader object each (qrb_heif_reader.cpp, qrb_webp_reader.cpp,
// qrb_gif_reader.cpp, qrb_tiff_reader.cpp).
#ifndef QRB_IMAGE_DECODER_H
#define QRB_IMAGE_DECODER_H

#include "image-decoder/qrb_bmp_reader.h"
#include "image-decoder/qrb_picture_reader.h"

#include <cstdint>
#include <cstdio>
#include <memory>

class CQRBImageDecoder {
public:
    // Thumbnail type codes (the decoder's state, m_GetThumbnailType()).
    static constexpr int kTypeUnknown = 0;
    static constexpr int kTypeExif = 11;          // the EXIF (IFD1) thumbnail of a JPEG
    static constexpr int kTypeFullDecoding = 12;  // the whole JPEG
    static constexpr int kTypeLarge = 13;         // the large APP2 thumbnail
    static constexpr int kTypePtp = 15;           // a "ptp://" object: never decoded here
    static constexpr int kTypeBmp = 16;
    static constexpr int kTypePng = 17;
    static constexpr int kTypeTooLarge = 18;  // both requested dimensions above 4096
    // Formats read through a reader of their own (qrb_picture_reader.h).
    static constexpr int kTypeHeif = 40;  // HEIF and AVIF
    static constexpr int kTypeWebp = 41;
    static constexpr int kTypeGif = 42;
    static constexpr int kTypeTiff = 43;
    static constexpr int kTypeHttp = 90;  // an "http://" URI: never decoded here

    // Reader results.
    static constexpr int kExifSuccess = 21;
    static constexpr int kExifFailure = 22;
    static constexpr int kFullSuccess = 23;
    static constexpr int kFullFailure = 24;
    static constexpr int kLargeSuccess = 25;
    static constexpr int kLargeFailure = 26;
    static constexpr int kBmpSuccess = 29;
    // m_DecideDecoder results.
    static constexpr int kDecoderPtp = 31;
    static constexpr int kDecoderSoftware = 32;

    // Requests larger than this in both directions are refused (type 18) before any decoding;
    // one side above it is an ordinary request.
    static constexpr uint32_t kMaxRequest = 4096;
    // The output raster is bounded by the one raster bound, CQRBImageUtil::kMaxPixels (2^28
    // pixels, 1 GiB): a cover box beyond it (a 65535 x 1 picture covering 4096 x 4096) gives an
    // output size of 0 x 0, and the request fails, instead of an allocation that cannot be met.
    // Ordinary large outputs (3840 x 5120 for a portrait photo at 3840 x 2160, 21600 x 1080 for
    // a 20:1 panorama at 1920 x 1080) are far below it.

    CQRBImageDecoder(const char* uri, int width, int height, int arg, bool forceFull);
    ~CQRBImageDecoder();
    CQRBImageDecoder(const CQRBImageDecoder&) = delete;
    CQRBImageDecoder& operator=(const CQRBImageDecoder&) = delete;

    // Decodes into out (output width x height x 4 bytes, owned by the caller). 0 or -1.
    int ExtractThumbnail(unsigned char* out);
    int m_GetThumbnailType() const { return m_nThumbnailType; }

    bool IsValid() const { return m_bValid; }
    uint32_t GetOutputWidth() const { return m_uOutputWidth; }
    uint32_t GetOutputHeight() const { return m_uOutputHeight; }
    // EXIF orientation of IFD0, 1..8; 0 when absent.
    uint32_t GetOrientation() const { return m_uOrientation; }
    // The size of the JPEG whose SOI is at fp's current position, walking its markers no
    // further than file offset end: SOI, then markers up to the first SOF0..SOF2. 0 with
    // *width, *height set; -1 when no SOI or no size is found inside the range.
    static int m_ParsePictureSize(FILE* fp, uint64_t end, uint32_t* width, uint32_t* height);
    // One output pixel (blue, green, red, 255) from one decoded sample of `components` bytes:
    // grey gives R = G = B; CMYK and YCCK (decoded to CMYK) use their first three bytes
    // unconverted; anything else is read as R, G, B.
    static void m_WriteRGBData(const unsigned char* sample, int components, unsigned char* dst);

    // The picture's own size (JPEG frame header, PNG or BMP header).
    uint32_t GetPictureWidth() const { return m_uPictureWidth; }
    uint32_t GetPictureHeight() const { return m_uPictureHeight; }
    uint32_t GetExifThumbnailWidth() const { return m_uExifWidth; }
    uint32_t GetExifThumbnailHeight() const { return m_uExifHeight; }
    uint32_t GetLargeThumbnailWidth() const { return m_uLargeWidth; }
    uint32_t GetLargeThumbnailHeight() const { return m_uLargeHeight; }
    // The path after URI conversion; null when the file could not be opened.
    const char* GetPath() const { return m_pPath; }

private:
    const char* M_CONVERTURITOPATH(const char* uri);
    int m_ParsePictureHeader(bool forceFull);
    int m_ParseExifThumbnailHeader(FILE* fp, uint64_t fileSize);
    int m_ParseLargeThumbnailHeader(FILE* fp, uint64_t fileSize);
    void m_SelectThumbnailType(bool forceFull);
    void m_CalculateDimension(uint32_t srcW, uint32_t srcH);
    int m_ScaleFactor(uint32_t srcW, uint32_t srcH) const;

    int m_ReadExifThumbnail(unsigned char* out);
    int m_ReadFullDecodingThumbnail(unsigned char* out);
    int m_ReadLargeThumbnail(unsigned char* out);
    int m_DecideDecoder() const;
    // Decodes the JPEG that starts at offset of the file (0: the picture; otherwise an
    // embedded thumbnail's offset) at scale 1/scale into out. 0 or -1.
    int m_JpegSWDecoding(unsigned char* out, uint64_t offset, int scale);
    // The bytes that belong to the JPEG at offset: an embedded thumbnail's recorded length, so
    // that its decoder never reads into the picture around it, or everything to the end.
    uint64_t m_SourceLength(uint64_t offset) const;

    int m_ParsePNGThumbInfo();
    int m_ReadPNGThumbnail(unsigned char* out);

    // The formats with a reader: opens it and fills the sizes. 0 or -1.
    int m_OpenReader(bool forceFull);

    int m_ParseBMPThumbInfo();
    int m_ReadBMPThumbnail(unsigned char* out);
    int m_ExtractBMPThumbnail(FILE* fp, unsigned char* out);
    int m_Decode_RLE(FILE* fp, unsigned char* out);

    uint32_t m_uPictureWidth = 0;
    uint32_t m_uPictureHeight = 0;
    uint32_t m_uOutputWidth = 0;
    uint32_t m_uOutputHeight = 0;
    uint32_t m_uExifWidth = 0;
    uint32_t m_uExifHeight = 0;
    uint64_t m_uExifOffset = 0;
    uint64_t m_uExifSize = 0;
    uint32_t m_uLargeWidth = 0;
    uint32_t m_uLargeHeight = 0;
    uint64_t m_uLargeOffset = 0;
    uint64_t m_uLargeSize = 0;
    uint32_t m_uOrientation = 0;
    const char* m_pPath = nullptr;  // points into the caller's URI string
    uint32_t m_uRequestWidth = 0;
    uint32_t m_uRequestHeight = 0;
    bool m_bValid = true;
    int m_nThumbnailType = kTypeUnknown;
    int m_nArg = 0;  // kept as given; no decision reads it

    uint32_t m_uPNGWidth = 0;
    uint32_t m_uPNGHeight = 0;
    int m_nPNGColorType = 0;
    int m_nPNGBitDepth = 0;
    int m_nPNGInterlace = 0;

    CQRBPictureParser::BMPInfo m_BMPInfo;
    std::unique_ptr<unsigned char[]> m_pBMPPalette;  // kPaletteEntries x 4 bytes

    std::unique_ptr<CQRBPictureReader> m_pReader;  // HEIF, WebP, GIF, TIFF
};

#endif
