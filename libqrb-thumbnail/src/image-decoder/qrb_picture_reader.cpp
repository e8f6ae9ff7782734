#include "image-decoder/qrb_picture_reader.h"

#include <libheif/heif.h>

#include <climits>
#include <cstring>

namespace {

bool HasBytes(const unsigned char* head, size_t size, size_t offset, const char* bytes, size_t n) {
    return size >= offset + n && std::memcmp(head + offset, bytes, n) == 0;
}

}  // namespace

QRBPictureFormat QRBSniffPictureFormat(const unsigned char* head, size_t size) {
    if (HasBytes(head, size, 0, "GIF87a", 6) || HasBytes(head, size, 0, "GIF89a", 6)) {
        return QRBPictureFormat::kGif;
    }
    if (HasBytes(head, size, 0, "RIFF", 4) && HasBytes(head, size, 8, "WEBP", 4)) {
        return QRBPictureFormat::kWebp;
    }
    // Classic TIFF (42) and BigTIFF (43), in either byte order.
    if (HasBytes(head, size, 0, "II*\0", 4) || HasBytes(head, size, 0, "MM\0*", 4) ||
        HasBytes(head, size, 0, "II+\0", 4) || HasBytes(head, size, 0, "MM\0+", 4)) {
        return QRBPictureFormat::kTiff;
    }
    // An ISO base media file is a HEIF (or AVIF) picture when libheif's brand check does not
    // rule it out; videos and songs in the same container are left alone.
    if (HasBytes(head, size, 4, "ftyp", 4) && size >= 12) {
        const int n = size > INT_MAX ? INT_MAX : static_cast<int>(size);
        if (heif_check_filetype(head, n) != heif_filetype_no) return QRBPictureFormat::kHeif;
    }
    return QRBPictureFormat::kOther;
}

std::unique_ptr<CQRBPictureReader> QRBMakePictureReader(QRBPictureFormat format) {
    switch (format) {
        case QRBPictureFormat::kHeif:
            return QRBMakeHeifReader();
        case QRBPictureFormat::kWebp:
            return QRBMakeWebpReader();
        case QRBPictureFormat::kGif:
            return QRBMakeGifReader();
        case QRBPictureFormat::kTiff:
            return QRBMakeTiffReader();
        case QRBPictureFormat::kOther:
            break;
    }
    return nullptr;
}
