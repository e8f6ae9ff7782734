// Local pictures (JPEG with or without an embedded thumbnail, PNG, BMP): the picture decoder
// makes a raster that covers the requested box, this getter turns it upright by the picture's
// EXIF orientation, brings it to cover the box again, crops the centre to exactly the requested
// size and packs it. A request of 0 x 0 gets the picture at its own size, upright (made from
// its EXIF thumbnail when it has one: the decoder chooses the source before the size).
//
// One instance per extract mode serves every worker; it keeps no per-request state. Every
// failure gives a null item (the decoder logs why).
#ifndef QRB_EXIF_THUMBNAIL_GETTER_H
#define QRB_EXIF_THUMBNAIL_GETTER_H

#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_thumbnail_getter.h"

// How the getter asks the decoder for a picture. Mode 1 leaves the decoder's two mode flags at
// 0; the other modes set both to 1. The getter factory picks the mode by thumbnail kind:
// pictures (0) and serial-device pictures (13) mode 0, kind 3 mode 2, kind 4 mode 1.
enum _eMediaJPEGExtractMode {
    MEDIA_JPEG_EXTRACT_MODE0 = 0,
    MEDIA_JPEG_EXTRACT_MODE1 = 1,
    MEDIA_JPEG_EXTRACT_MODE2 = 2,
};

class CQRBExifThumbnailGetter : public CQRBThumbnailGetter {
public:
    explicit CQRBExifThumbnailGetter(_eMediaJPEGExtractMode mode);
    ~CQRBExifThumbnailGetter() override;

    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Strips a leading "file://1" (the "1" deliberately too) or "file://"; anything else is
    // returned as it is. The result points into uri.
    const char* T_CONVERTURITOPATH(const char* uri) override;

    _eMediaJPEGExtractMode GetExtractMode() const { return m_eExtractMode; }
    // What this getter asks of the decoder for url at width x height: no forced full decode,
    // the two mode flags 1 unless the mode is 1. The record points into url.
    qrb_picture_thumb_param MakeDecoderParam(const char* url, int width, int height) const;

    // The steps after decoding, on their own: turn image upright by orientation (values above
    // 1), scale it, keeping its aspect ratio, to cover width x height where it falls short in
    // either direction, then crop the centre to width x height. A request of 0 x 0 (the
    // picture's own size) is neither scaled nor cropped; the crop needs both sides. A step that
    // fails leaves the image as it was and the rest go on.
    static void BringToRequest(CQRBThumbImage& image, int orientation, int width, int height);

private:
    const _eMediaJPEGExtractMode m_eExtractMode;
};

#endif
