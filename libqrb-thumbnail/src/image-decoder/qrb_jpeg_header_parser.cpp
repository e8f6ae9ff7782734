#include "image-decoder/qrb_jpeg_header_parser.h"

#include "image-decoder/qrb_image_decoder.h"
#include "qrb_byte_order.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

constexpr int kMarkerSoi = 0xD8;
constexpr int kMarkerEoi = 0xD9;
constexpr int kMarkerSos = 0xDA;
constexpr int kMarkerApp1 = 0xE1;
constexpr int kMarkerApp2 = 0xE2;
constexpr unsigned kTagOrientation = 0x0112;
constexpr unsigned kTagJpegInterchangeFormat = 0x0201;
constexpr unsigned kTagJpegInterchangeFormatLength = 0x0202;
constexpr unsigned kTypeShort = 3;
constexpr unsigned kTypeLong = 4;
constexpr size_t kIfdEntrySize = 12;
// The smallest file that can hold SOI and one marker.
constexpr uint64_t kMinFileSize = 4;

bool IsSof012(int marker) { return marker >= 0xC0 && marker <= 0xC2; }
// Markers without a length field.
bool IsStandalone(int marker) { return marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7); }

bool SeekTo(FILE* fp, uint64_t offset) {
    return fseeko(fp, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool ReadExactly(FILE* fp, unsigned char* buf, size_t n) { return std::fread(buf, 1, n, fp) == n; }

// The next marker code after *pos, as libjpeg finds it: bytes other than 0xFF between segments
// are skipped, so are fill bytes, and FF 00 is no marker. -1 at the end of the file.
int NextMarker(FILE* fp, uint64_t* pos) {
    for (;;) {
        int c = std::fgetc(fp);
        if (c == EOF) return -1;
        ++*pos;
        if (c != 0xFF) continue;
        do {
            c = std::fgetc(fp);
            if (c == EOF) return -1;
            ++*pos;
        } while (c == 0xFF);
        if (c != 0) return c;
    }
}

// Reads the TIFF structure of an EXIF block in its byte order. Every read is inside the block;
// callers check offsets first.
class TiffReader {
public:
    TiffReader(const unsigned char* data, size_t size, bool little)
        : m_Data(data), m_Size(size), m_Little(little) {}
    size_t Size() const { return m_Size; }
    uint32_t U16(size_t at) const {
        return m_Little ? QRBReadLE16(m_Data + at) : QRBReadBE16(m_Data + at);
    }
    uint32_t U32(size_t at) const {
        return m_Little ? QRBReadLE32(m_Data + at) : QRBReadBE32(m_Data + at);
    }
    // Whether a directory can start at offset: its entry count must be inside the block.
    bool CanHoldDirectory(uint32_t offset) const {
        return offset >= 8 && m_Size >= 2 && offset <= m_Size - 2;
    }
    // Entries of the directory at offset that lie wholly inside the block.
    uint32_t EntriesInside(uint32_t offset) const {
        return static_cast<uint32_t>((m_Size - offset - 2) / kIfdEntrySize);
    }
    // The value of a SHORT or LONG entry with a count of at least 1; false for other types.
    bool Value(size_t entry, uint32_t* value) const {
        const uint32_t type = U16(entry + 2);
        if (U32(entry + 4) < 1) return false;
        if (type == kTypeShort) {
            *value = U16(entry + 8);  // a SHORT sits in the first half of the value field
            return true;
        }
        if (type == kTypeLong) {
            *value = U32(entry + 8);
            return true;
        }
        return false;
    }

private:
    const unsigned char* m_Data;
    size_t m_Size;
    bool m_Little;
};

}  // namespace

int CQRBJpegHeaderParser::ParseMarkers(FILE* fp, uint64_t fileSize, QRBJpegHeaderInfo* info) {
    *info = QRBJpegHeaderInfo();
    unsigned char soi[2];
    if (!SeekTo(fp, 0) || !ReadExactly(fp, soi, sizeof(soi))) {
        QRB_LOGW("ERROR FOR READ THE FILE, errno is: %d ", errno);
        return -1;
    }
    if (soi[0] != 0xFF || soi[1] != kMarkerSoi) {
        QRB_LOGW("no SOI at the start of the file");
        return -1;
    }

    uint64_t pos = 2;
    int segment = 0;
    for (; segment < kMaxSegments; ++segment) {
        const int marker = NextMarker(fp, &pos);
        if (marker < 0) break;
        if (marker == kMarkerSoi || IsStandalone(marker)) continue;
        if (marker == kMarkerEoi || marker == kMarkerSos) {
            QRB_LOGW("marker 0x%02X before any frame header", marker);
            return -1;
        }
        unsigned char lengthBytes[2];
        if (!ReadExactly(fp, lengthBytes, sizeof(lengthBytes))) break;
        pos += 2;
        const uint32_t length = QRBReadBE16(lengthBytes);
        if (length < 2) {
            QRB_LOGW("marker 0x%02X with length %u", marker, length);
            return -1;
        }
        const uint64_t payloadOffset = pos;
        const uint64_t payloadSize = length - 2;
        if (payloadOffset > fileSize || payloadSize > fileSize - payloadOffset) {
            QRB_LOGW("marker 0x%02X runs past the end of the file", marker);
            break;
        }

        if (IsSof012(marker)) {
            unsigned char frame[5];  // precision, height, width
            if (payloadSize < sizeof(frame) || !ReadExactly(fp, frame, sizeof(frame))) break;
            info->height = QRBReadBE16(frame + 1);
            info->width = QRBReadBE16(frame + 3);
            info->hasFrame = true;
            return 0;
        }
        if (marker == kMarkerApp1 && !info->hasExif) {
            if (payloadSize < 10) {
                QRB_LOGW("Error : exifbufsize < 10 failed###");
            } else {
                std::vector<unsigned char> payload(payloadSize);  // at most 65533 bytes
                if (!ReadExactly(fp, payload.data(), payload.size())) break;
                ParseExif(payload.data(), payload.size(), payloadOffset, fileSize, info);
            }
        } else if (marker == kMarkerApp2 && info->largeThumbSize == 0 && payloadSize >= 3) {
            unsigned char head[3];
            if (!ReadExactly(fp, head, sizeof(head))) break;
            if (head[0] == 0xFF && head[1] == kMarkerSoi && head[2] == 0xFF) {
                info->largeThumbOffset = payloadOffset;
                info->largeThumbSize = payloadSize;
            }
        }
        pos = payloadOffset + payloadSize;
        if (!SeekTo(fp, pos)) {
            QRB_LOGW("ERROR FOR SEEK THE FILE FROM SET, errno is: %d ", errno);
            return -1;
        }
    }
    if (segment == kMaxSegments) {
        QRB_LOGW("more than %d segments before the frame header", kMaxSegments);
    } else if (info->hasExif) {
        QRB_LOGW("Only exif header in this file, errno is : %d", errno);
    } else {
        QRB_LOGW("ERROR FOR READ THE FILE, errno is: %d ", errno);
    }
    return -1;
}

bool CQRBJpegHeaderParser::ParseExif(const unsigned char* payload, size_t size,
                                     uint64_t payloadOffset, uint64_t fileSize,
                                     QRBJpegHeaderInfo* info) {
    static const char kExifId[6] = {'E', 'x', 'i', 'f', 0, 0};
    if (size < sizeof(kExifId) || std::memcmp(payload, kExifId, sizeof(kExifId)) != 0) {
        return false;  // another APP1 (XMP, for one)
    }
    const unsigned char* tiff = payload + sizeof(kExifId);
    const size_t tiffSize = size - sizeof(kExifId);
    const uint64_t tiffBase = payloadOffset + sizeof(kExifId);  // EXIF offsets count from here
    if (tiffSize < 8 ||
        !((tiff[0] == 'I' && tiff[1] == 'I') || (tiff[0] == 'M' && tiff[1] == 'M'))) {
        QRB_LOGW("Wrong EXIF Foramt or Wrong Information ~!!!");
        return false;
    }
    const bool little = tiff[0] == 'I';
    const TiffReader r(tiff, tiffSize, little);
    const uint32_t ifd0 = r.U32(4);
    if (r.U16(2) != 42 || !r.CanHoldDirectory(ifd0)) {
        QRB_LOGW("Wrong EXIF Foramt or Wrong Information ~!!!");
        return false;
    }
    info->hasExif = true;

    // IFD0: the orientation of the picture itself.
    const uint32_t count0 = r.U16(ifd0);
    QRB_LOGD("dwNum:[%d], bIsInterOrder[%d]", static_cast<int>(count0), little ? 1 : 0);
    const uint32_t inside0 = r.EntriesInside(ifd0);
    const uint32_t entries0 = count0 < inside0 ? count0 : inside0;
    for (uint32_t i = 0; i < entries0; ++i) {
        const size_t entry = ifd0 + 2 + i * kIfdEntrySize;
        uint32_t value = 0;
        if (r.U16(entry) == kTagOrientation && r.Value(entry, &value)) {
            info->orientation = (value >= 1 && value <= 8) ? value : 0;
            QRB_LOGD("m_InFileInfo.uOrientation [%d], tmpOrientation[%d]",
                     static_cast<int>(info->orientation), static_cast<int>(value));
        }
    }
    if (count0 > inside0) {
        QRB_LOGW("IFD0 claims %u entries, the block holds %u", count0, inside0);
        return true;  // its link to IFD1 would lie outside the block
    }

    // IFD1, the thumbnail's directory: the only other directory read. Its orientation is the
    // thumbnail's own and is never taken for the picture. A link back to IFD0 (a cycle) or
    // outside the block ends the walk; nothing further is followed, so it always ends.
    const size_t link = ifd0 + 2 + static_cast<size_t>(count0) * kIfdEntrySize;
    if (link > tiffSize - 4) return true;
    const uint32_t ifd1 = r.U32(link);
    if (ifd1 == 0) return true;
    if (ifd1 == ifd0 || !r.CanHoldDirectory(ifd1)) {
        QRB_LOGW("IFD1 link %u ignored", ifd1);
        return true;
    }
    const uint32_t count1 = r.U16(ifd1);
    const uint32_t inside1 = r.EntriesInside(ifd1);
    const uint32_t entries1 = count1 < inside1 ? count1 : inside1;
    bool hasOffset = false;
    bool hasLength = false;
    uint32_t offset = 0;
    uint32_t length = 0;
    for (uint32_t i = 0; i < entries1; ++i) {
        const size_t entry = ifd1 + 2 + i * kIfdEntrySize;
        const uint32_t tag = r.U16(entry);
        if (tag == kTagJpegInterchangeFormat) hasOffset = r.Value(entry, &offset);
        if (tag == kTagJpegInterchangeFormatLength) hasLength = r.Value(entry, &length);
    }
    if (!hasOffset || !hasLength || length == 0) return true;
    const uint64_t start = tiffBase + offset;
    if (start >= fileSize || length > fileSize - start) {
        QRB_LOGW("EXIF thumbnail at %llu (+%u) lies outside the file of %llu bytes",
                 static_cast<unsigned long long>(start), length,
                 static_cast<unsigned long long>(fileSize));
        return true;
    }
    info->exifThumbOffset = start;
    info->exifThumbSize = length;
    return true;
}

int CQRBImageDecoder::m_ParsePictureSize(FILE* fp, uint64_t end, uint32_t* width,
                                         uint32_t* height) {
    const off_t start = ftello(fp);
    if (start < 0 || static_cast<uint64_t>(start) >= end) return -1;
    uint64_t pos = static_cast<uint64_t>(start);
    bool sawSoi = false;
    for (int segment = 0; segment < CQRBJpegHeaderParser::kMaxSegments; ++segment) {
        unsigned char code[2];
        if (end - pos < 2 || !ReadExactly(fp, code, sizeof(code))) return -1;
        pos += 2;
        if (code[0] != 0xFF) return -1;
        const int marker = code[1];
        if (marker == 0xFF) {
            // A fill byte: the marker code comes next. One byte forward all the same.
            --pos;
            if (!SeekTo(fp, pos)) return -1;
            continue;
        }
        if (marker == kMarkerSoi) {
            sawSoi = true;
            continue;
        }
        if (IsSof012(marker)) {
            unsigned char frame[7];  // length, precision, height, width
            if (end - pos < sizeof(frame) || !ReadExactly(fp, frame, sizeof(frame))) return -1;
            if (!sawSoi) return -1;
            *height = QRBReadBE16(frame + 3);
            *width = QRBReadBE16(frame + 5);
            return 0;
        }
        // EOI, or scan data, before any frame header: there is no size to find.
        if (marker == kMarkerEoi || marker == kMarkerSos) return -1;
        if (IsStandalone(marker)) continue;
        unsigned char lengthBytes[2];
        if (end - pos < 2 || !ReadExactly(fp, lengthBytes, sizeof(lengthBytes))) return -1;
        pos += 2;
        const uint32_t length = QRBReadBE16(lengthBytes);
        if (length < 2 || length - 2 > end - pos) return -1;
        pos += length - 2;
        if (!SeekTo(fp, pos)) return -1;
    }
    return -1;
}

int CQRBImageDecoder::m_ParsePictureHeader(bool forceFull) {
    if (m_pPath == nullptr) {
        QRB_LOGW("ERROR FOR OPEN THE FILE, errno is: %d ", ENOENT);
        return -1;
    }
    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRBNoteFileFailure(errno);
        QRB_LOGW("ERROR FOR OPEN THE FILE, errno is: %d ", errno);
        return -1;
    }
    // A file that does not even start like a JPEG is no damaged one: it is something else.
    unsigned char soi[2] = {0, 0};
    if (std::fread(soi, 1, sizeof(soi), fp.get()) != sizeof(soi) || soi[0] != 0xFF ||
        soi[1] != 0xD8) {
        QRBNoteFailure(QRBFailure::kUnknownFormat);
    }
    if (fseeko(fp.get(), 0, SEEK_END) != 0) {
        QRB_LOGW("ERROR FOR SEEK THE FILE FROM END, errno is: %d ", errno);
        return -1;
    }
    const off_t end = ftello(fp.get());
    if (end < 0 || static_cast<uint64_t>(end) < kMinFileSize) {
        QRB_LOGW("error - file size : %lu", static_cast<unsigned long>(end < 0 ? 0 : end));
        return -1;
    }
    const uint64_t fileSize = static_cast<uint64_t>(end);
    if (fseeko(fp.get(), 0, SEEK_SET) != 0) {
        QRB_LOGW("ERROR FOR SEEK THE FILE FROM SET, errno is: %d ", errno);
        return -1;
    }
    QRB_LOGD("PARSING PICTURE HEADER");

    QRBJpegHeaderInfo info;
    if (CQRBJpegHeaderParser::ParseMarkers(fp.get(), fileSize, &info) != 0) return -1;
    m_uPictureWidth = info.width;
    m_uPictureHeight = info.height;
    m_uOrientation = info.orientation;
    m_uExifOffset = info.exifThumbOffset;
    m_uExifSize = info.exifThumbSize;
    m_uLargeOffset = info.largeThumbOffset;
    m_uLargeSize = info.largeThumbSize;
    if (m_uExifSize != 0) m_ParseExifThumbnailHeader(fp.get(), fileSize);
    if (m_uLargeSize != 0) m_ParseLargeThumbnailHeader(fp.get(), fileSize);

    // The choice compares the request as given: a zero side takes the picture's own size only
    // after it (in the constructor).
    m_SelectThumbnailType(forceFull);
    return 0;
}

int CQRBImageDecoder::m_ParseExifThumbnailHeader(FILE* fp, uint64_t fileSize) {
    uint32_t w = 0;
    uint32_t h = 0;
    if (m_uExifOffset + m_uExifSize > fileSize ||
        fseeko(fp, static_cast<off_t>(m_uExifOffset), SEEK_SET) != 0 ||
        m_ParsePictureSize(fp, m_uExifOffset + m_uExifSize, &w, &h) != 0) {
        QRB_LOGW("EXIF thumbnail at %llu has no readable size",
                 static_cast<unsigned long long>(m_uExifOffset));
        m_uExifWidth = m_uExifHeight = 0;
        return -1;
    }
    m_uExifWidth = w;
    m_uExifHeight = h;
    return 0;
}

int CQRBImageDecoder::m_ParseLargeThumbnailHeader(FILE* fp, uint64_t fileSize) {
    uint32_t w = 0;
    uint32_t h = 0;
    if (m_uLargeOffset + m_uLargeSize > fileSize ||
        fseeko(fp, static_cast<off_t>(m_uLargeOffset), SEEK_SET) != 0 ||
        m_ParsePictureSize(fp, m_uLargeOffset + m_uLargeSize, &w, &h) != 0) {
        QRB_LOGW("large thumbnail at %llu has no readable size",
                 static_cast<unsigned long long>(m_uLargeOffset));
        m_uLargeWidth = m_uLargeHeight = 0;
        return -1;
    }
    m_uLargeWidth = w;
    m_uLargeHeight = h;
    return 0;
}
