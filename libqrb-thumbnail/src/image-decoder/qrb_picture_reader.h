// The picture formats read through a library of their own beside JPEG, PNG and BMP: HEIF and
// AVIF (libheif), WebP (libwebp), GIF (giflib) and TIFF (libtiff). CQRBImageDecoder recognises
// them from their first bytes (QRBSniffPictureFormat; the name is never looked at) and hands
// the file to the reader for the format, which:
//  1. Open: reads the headers, refuses what is over its limits (pixel counts before anything
//     the size of the picture is allocated), and chooses the source for a request (an embedded
//     thumbnail or a reduced-resolution page when it is at least half the request in both
//     directions, as with a JPEG's EXIF thumbnail; the whole picture otherwise);
//  2. Decode: decodes that source into the caller's raster of outW x outH (which covers the
//     request with the source's aspect ratio), 4 bytes a pixel, blue, green, red, alpha, alpha
//     as the file gives it (255 where it has none).
//
// A reader serves one request on one thread. Failures are logged where they happen; library
// errors come back as return values (libraries that report through callbacks get our own
// handlers, per handle, never process-wide ones).
#ifndef QRB_PICTURE_READER_H
#define QRB_PICTURE_READER_H

#include <cstddef>
#include <cstdint>
#include <memory>

enum class QRBPictureFormat { kOther, kHeif, kWebp, kGif, kTiff };

// Bytes QRBSniffPictureFormat wants to see (an ISO base media file's type box with its brands).
constexpr size_t kPictureSniffBytes = 64;

// The format the first bytes of a file announce; kOther for everything else (JPEG, PNG and BMP
// included: the picture decoder recognises those itself).
QRBPictureFormat QRBSniffPictureFormat(const unsigned char* head, size_t size);

class CQRBPictureReader {
public:
    virtual ~CQRBPictureReader() = default;

    // Reads the headers of the file at path and chooses the source for a request of
    // reqW x reqH (a zero side stands for the picture's own); wholePicture skips every
    // embedded thumbnail and reduced page. 0, or -1 with the reason logged (and noted: too
    // large, damaged).
    virtual int Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) = 0;
    // After Open: the picture's own size, as shown (after any rotation the format applies
    // itself), and the size of the chosen source, which the output size is computed from.
    virtual uint32_t PictureWidth() const = 0;
    virtual uint32_t PictureHeight() const = 0;
    virtual uint32_t SourceWidth() const = 0;
    virtual uint32_t SourceHeight() const = 0;
    // The EXIF orientation (1..8) the caller still has to apply; 0 when there is none.
    virtual uint32_t Orientation() const { return 0; }
    // Decodes the chosen source into out (outW x outH x 4 bytes). 0 or -1.
    virtual int Decode(unsigned char* out, uint32_t outW, uint32_t outH) = 0;
};

std::unique_ptr<CQRBPictureReader> QRBMakePictureReader(QRBPictureFormat format);

// One maker per format, each beside its reader.
std::unique_ptr<CQRBPictureReader> QRBMakeHeifReader();
std::unique_ptr<CQRBPictureReader> QRBMakeWebpReader();
std::unique_ptr<CQRBPictureReader> QRBMakeGifReader();
std::unique_ptr<CQRBPictureReader> QRBMakeTiffReader();

// The half-the-request rule of embedded thumbnails: a source of srcW x srcH serves a request of
// reqW x reqH when the request is less than twice the source in both directions.
inline bool QRBServesRequest(uint32_t srcW, uint32_t srcH, uint32_t reqW, uint32_t reqH) {
    return srcW != 0 && srcH != 0 && reqW < 2ull * srcW && reqH < 2ull * srcH;
}

#endif
