#include "image-decoder/qrb_image_decoder.h"

#include "image-decoder/qrb_image_util.h"

#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <cerrno>
#include <cstring>

namespace {


bool HasPrefix(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool IsReaderType(int type) {
    return type == CQRBImageDecoder::kTypeHeif || type == CQRBImageDecoder::kTypeWebp ||
           type == CQRBImageDecoder::kTypeGif || type == CQRBImageDecoder::kTypeTiff;
}

QRBPictureFormat ReaderFormat(int type) {
    switch (type) {
        case CQRBImageDecoder::kTypeHeif:
            return QRBPictureFormat::kHeif;
        case CQRBImageDecoder::kTypeWebp:
            return QRBPictureFormat::kWebp;
        case CQRBImageDecoder::kTypeGif:
            return QRBPictureFormat::kGif;
        case CQRBImageDecoder::kTypeTiff:
            return QRBPictureFormat::kTiff;
        default:
            return QRBPictureFormat::kOther;
    }
}

const char* ReaderName(int type) {
    switch (type) {
        case CQRBImageDecoder::kTypeHeif:
            return "HEIF";
        case CQRBImageDecoder::kTypeWebp:
            return "WebP";
        case CQRBImageDecoder::kTypeGif:
            return "GIF";
        default:
            return "TIFF";
    }
}

}  // namespace

CQRBImageDecoder::CQRBImageDecoder(const char* uri, int width, int height, int arg, bool forceFull)
    : m_uRequestWidth(static_cast<uint32_t>(width)),
      m_uRequestHeight(static_cast<uint32_t>(height)),
      m_nArg(arg) {
    m_pPath = M_CONVERTURITOPATH(uri);

    int ret = 0;
    if (m_nThumbnailType == kTypePng || m_nThumbnailType == kTypeBmp) {
        ret = m_nThumbnailType == kTypePng ? m_ParsePNGThumbInfo() : m_ParseBMPThumbInfo();
        if (ret == 0) {
            if (m_uRequestWidth == 0) m_uRequestWidth = m_uPictureWidth;
            if (m_uRequestHeight == 0) m_uRequestHeight = m_uPictureHeight;
            m_CalculateDimension(m_uPictureWidth, m_uPictureHeight);
        }
    } else if (IsReaderType(m_nThumbnailType)) {
        ret = m_OpenReader(forceFull);
    } else if (m_nThumbnailType != kTypePtp && m_nThumbnailType != kTypeHttp) {
        // A PTP object or an HTTP URI is no file of ours: its type stands and nothing is parsed.
        // The source is chosen on the request as given; only then does a zero side take the
        // picture's own size (so a 0 x 0 request on a photo with an EXIF thumbnail gets it).
        ret = m_ParsePictureHeader(forceFull);
        if (m_uRequestWidth == 0) m_uRequestWidth = m_uPictureWidth;
        if (m_uRequestHeight == 0) m_uRequestHeight = m_uPictureHeight;
        switch (m_nThumbnailType) {
            case kTypeFullDecoding:
                m_CalculateDimension(m_uPictureWidth, m_uPictureHeight);
                break;
            case kTypeLarge:
                m_CalculateDimension(m_uLargeWidth, m_uLargeHeight);
                break;
            case kTypeExif:
                m_CalculateDimension(m_uExifWidth, m_uExifHeight);
                break;
            default:
                m_CalculateDimension(0, 0);
                break;
        }
        if (m_uRequestWidth > kMaxRequest && m_uRequestHeight > kMaxRequest) {
            m_nThumbnailType = kTypeTooLarge;
        }
    }

    QRB_LOGD("THUMBNAIL TYPE[%d] RET[%d]", m_nThumbnailType, ret);
    if (ret == -1) {
        QRB_LOGW("Parse false or it is not a jpg file");
        m_bValid = false;
    }
}

CQRBImageDecoder::~CQRBImageDecoder() = default;

const char* CQRBImageDecoder::M_CONVERTURITOPATH(const char* uri) {
    if (uri == nullptr) return nullptr;
    const char* path;
    if (HasPrefix(uri, "file://1")) {
        path = uri + 8;  // the "1" goes with the prefix, deliberately
    } else if (HasPrefix(uri, "file://")) {
        path = uri + 7;
    } else if (HasPrefix(uri, "ptp://")) {
        m_nThumbnailType = kTypePtp;
        return uri + 6;
    } else if (HasPrefix(uri, "http://")) {
        m_nThumbnailType = kTypeHttp;
        return uri + 7;
    } else {
        return uri;  // a plain path is taken as it stands, without sniffing
    }

    QRBScopedFile fp(std::fopen(path, "rb"));
    if (!fp) {
        QRBNoteFileFailure(errno);
        QRB_LOGW("%s:   OPEN ERROR", path);
        return nullptr;
    }
    // Two bytes decide JPEG, PNG and BMP; the other formats need a few more, when the file has
    // them.
    unsigned char magic[kPictureSniffBytes] = {0};
    const size_t got = std::fread(magic, 1, sizeof(magic), fp.get());
    if (got < 2) {
        QRBNoteFailure(QRBFailure::kUnknownFormat);
        QRB_LOGW("READ ERROR %d", static_cast<int>(got));
        return nullptr;
    }
    if (magic[0] == 'B' && magic[1] == 'M') {
        m_nThumbnailType = kTypeBmp;
    } else if (magic[0] == 0x89 && magic[1] == 'P') {
        m_nThumbnailType = kTypePng;
    } else {
        switch (QRBSniffPictureFormat(magic, got)) {
            case QRBPictureFormat::kHeif:
                m_nThumbnailType = kTypeHeif;
                break;
            case QRBPictureFormat::kWebp:
                m_nThumbnailType = kTypeWebp;
                break;
            case QRBPictureFormat::kGif:
                m_nThumbnailType = kTypeGif;
                break;
            case QRBPictureFormat::kTiff:
                m_nThumbnailType = kTypeTiff;
                break;
            case QRBPictureFormat::kOther:
                break;  // JPEG assumed
        }
    }
    return path;
}

int CQRBImageDecoder::m_OpenReader(bool forceFull) {
    if (m_pPath == nullptr) return -1;
    m_pReader = QRBMakePictureReader(ReaderFormat(m_nThumbnailType));
    // A zero side of the request stands for the picture's own, as the reader sees it.
    if (!m_pReader ||
        m_pReader->Open(m_pPath, m_uRequestWidth, m_uRequestHeight, forceFull) != 0) {
        m_pReader.reset();
        return -1;
    }
    m_uPictureWidth = m_pReader->PictureWidth();
    m_uPictureHeight = m_pReader->PictureHeight();
    m_uOrientation = m_pReader->Orientation();
    if (m_uRequestWidth == 0) m_uRequestWidth = m_uPictureWidth;
    if (m_uRequestHeight == 0) m_uRequestHeight = m_uPictureHeight;
    m_CalculateDimension(m_pReader->SourceWidth(), m_pReader->SourceHeight());
    if (m_uRequestWidth > kMaxRequest && m_uRequestHeight > kMaxRequest) {
        m_nThumbnailType = kTypeTooLarge;
    }
    return 0;
}

void CQRBImageDecoder::m_SelectThumbnailType(bool forceFull) {
    if (forceFull) {
        m_nThumbnailType = kTypeFullDecoding;
        return;
    }
    // 64-bit so that doubling a 32-bit request cannot wrap.
    const uint64_t reqW = m_uRequestWidth;
    const uint64_t reqH = m_uRequestHeight;
    const uint64_t picW = m_uPictureWidth;
    const uint64_t picH = m_uPictureHeight;
    const bool hasLarge = m_uLargeWidth != 0 && m_uLargeHeight != 0;
    if (m_uExifWidth != 0 && m_uExifHeight != 0) {
        if (reqW < 2ull * m_uExifWidth && reqH < 2ull * m_uExifHeight) {
            m_nThumbnailType = kTypeExif;
        } else if (picW < 2 * reqW && picH < 2 * reqH) {
            m_nThumbnailType = kTypeFullDecoding;  // small enough to decode whole
        } else if (hasLarge) {
            // Deliberately the whole picture, not the large thumbnail.
            m_nThumbnailType = kTypeFullDecoding;
        } else {
            // The small EXIF thumbnail all the same, though it is less than half the request.
            m_nThumbnailType = kTypeExif;
        }
        return;
    }
    if (hasLarge && reqW < 2ull * m_uLargeWidth && reqH < 2ull * m_uLargeHeight) {
        m_nThumbnailType = kTypeLarge;
    } else {
        m_nThumbnailType = kTypeFullDecoding;
    }
}

void CQRBImageDecoder::m_CalculateDimension(uint32_t srcW, uint32_t srcH) {
    m_uOutputWidth = 0;
    m_uOutputHeight = 0;
    if (m_uRequestWidth == 0 || m_uRequestHeight == 0 || srcW == 0 || srcH == 0) return;
    uint64_t outW = 0;
    uint64_t outH = 0;
    CQRBImageUtil::CoverSize(srcW, srcH, m_uRequestWidth, m_uRequestHeight,
                             QRBCoverRounding::kExactProducts, &outW, &outH);
    // Each side is checked alone first: a quotient can be far beyond 64-bit products.
    if (outW > static_cast<uint64_t>(CQRBImageUtil::kMaxPixels) ||
        outH > static_cast<uint64_t>(CQRBImageUtil::kMaxPixels) ||
        !CQRBImageUtil::IsRasterSizeAllowed(static_cast<long long>(outW),
                                            static_cast<long long>(outH))) {
        QRB_LOGW("output %llu x %llu for a %u x %u source refused: more than %lld pixels",
                 static_cast<unsigned long long>(outW), static_cast<unsigned long long>(outH), srcW,
                 srcH, CQRBImageUtil::kMaxPixels);
        return;
    }
    m_uOutputWidth = static_cast<uint32_t>(outW);
    m_uOutputHeight = static_cast<uint32_t>(outH);
}

int CQRBImageDecoder::m_ScaleFactor(uint32_t srcW, uint32_t srcH) const {
    const uint64_t sW = srcW;
    const uint64_t sH = srcH;
    const uint64_t tW = m_uOutputWidth;
    const uint64_t tH = m_uOutputHeight;
    if (sW > 8 * tW && sH > 8 * tH) return 8;
    if (sW > 4 * tW && sH > 4 * tH) return 4;
    if (sW > 2 * tW && sH > 2 * tH) return 2;
    return 1;
}

int CQRBImageDecoder::ExtractThumbnail(unsigned char* out) {
    if (m_uRequestWidth == 0 || m_uRequestHeight == 0) {
        QRB_LOGW("invalid height or width!");
        return -1;
    }
    if (m_nThumbnailType < kTypeExif || m_nThumbnailType > kTypeHttp) return -1;

    switch (m_nThumbnailType) {
        case kTypeExif:
            if (m_ReadExifThumbnail(out) != kExifSuccess) {
                QRB_LOGW("Read exif thumbnail error! ");
                return -1;
            }
            return 0;
        case kTypeFullDecoding:
            if (m_ReadFullDecodingThumbnail(out) != kFullSuccess) {
                QRB_LOGW("Read full decoding thumbnail error! ");
                return -1;
            }
            return 0;
        case kTypeLarge:
            if (m_ReadLargeThumbnail(out) != kLargeSuccess) {
                QRB_LOGW("Read large thumbnail error! ");
                return -1;
            }
            return 0;
        case kTypePtp:
            // Logged as an error yet answered 0 with nothing decoded: deliberate asymmetry.
            QRB_LOGW("Read PTP thumbnail error! ");
            return 0;
        case kTypeBmp:
            if (m_ReadBMPThumbnail(out) != kBmpSuccess) {
                QRB_LOGW("Read BMP thumbnail error! ");
                return -1;
            }
            return 0;
        case kTypePng:
            if (m_ReadPNGThumbnail(out) != 0) {
                QRB_LOGW("Read PNG thumbnail error! ");
                return -1;
            }
            return 0;
        case kTypeHeif:
        case kTypeWebp:
        case kTypeGif:
        case kTypeTiff:
            if (!m_pReader || m_pReader->Decode(out, m_uOutputWidth, m_uOutputHeight) != 0) {
                QRB_LOGW("Read %s thumbnail error! ", ReaderName(m_nThumbnailType));
                return -1;
            }
            return 0;
        case kTypeTooLarge:
            QRBNoteFailure(QRBFailure::kTooLarge);
            QRB_LOGW("Read ReadHomePanleThumbnail error! ");
            return -1;
        case kTypeHttp:
            QRB_LOGW("Read HTTP image thumbnail error! ");
            return -1;
        default:
            return -1;
    }
}

int CQRBImageDecoder::m_DecideDecoder() const {
    return m_nThumbnailType == kTypePtp ? kDecoderPtp : kDecoderSoftware;
}

int CQRBImageDecoder::m_ReadExifThumbnail(unsigned char* out) {
    // The EXIF thumbnail is small: always decoded at full scale.
    return m_JpegSWDecoding(out, m_uExifOffset, 1) == 0 ? kExifSuccess : kExifFailure;
}

int CQRBImageDecoder::m_ReadFullDecodingThumbnail(unsigned char* out) {
    switch (m_DecideDecoder()) {
        case kDecoderSoftware: {
            const int scale = m_ScaleFactor(m_uPictureWidth, m_uPictureHeight);
            return m_JpegSWDecoding(out, 0, scale) == 0 ? kFullSuccess : kFullFailure;
        }
        case kDecoderPtp:
            return kFullFailure;  // a PTP object is never decoded here
        default:
            QRB_LOGW("CAN NOT FIND THUMBNAIL TYPE");
            return kFullFailure;
    }
}

int CQRBImageDecoder::m_ReadLargeThumbnail(unsigned char* out) {
    const int scale = m_ScaleFactor(m_uLargeWidth, m_uLargeHeight);
    return m_JpegSWDecoding(out, m_uLargeOffset, scale) == 0 ? kLargeSuccess : kLargeFailure;
}

uint64_t CQRBImageDecoder::m_SourceLength(uint64_t offset) const {
    if (offset != 0 && offset == m_uExifOffset) return m_uExifSize;
    if (offset != 0 && offset == m_uLargeOffset) return m_uLargeSize;
    return UINT64_MAX;
}
