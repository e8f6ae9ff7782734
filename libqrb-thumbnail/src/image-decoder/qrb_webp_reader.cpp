// WebP through libwebp: the file is read into memory and taken apart by libwebp's demuxer; the
// first frame (the picture itself, or an animation's first frame at its own size) is decoded
// straight to the output size by libwebp's own scaler (an area average), in our byte order,
// alpha kept. The orientation of an EXIF chunk is handed to the caller, as a JPEG's is.
//
// Limits, checked before anything is decoded:
//  - kMaxFileBytes: the file is held whole while it is decoded;
//  - pixel counts by kind, since a lossless picture (and a lossy one's alpha) is held whole by
//    libwebp while a plain lossy one is decoded row by row: kMaxLosslessPixels,
//    kMaxAlphaPixels, kMaxLossyPixels. libwebp itself refuses sides above 16383.
#include "image-decoder/qrb_jpeg_header_parser.h"
#include "image-decoder/qrb_picture_reader.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/stat.h>

#include <webp/decode.h>
#include <webp/demux.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

// 32 MiB: a 12-megapixel lossy photo takes a few MiB, a lossless one of kMaxLosslessPixels
// rarely more than 20.
constexpr uint64_t kMaxFileBytes = 32ull << 20;
// 2^24 pixels (16.7 megapixels): libwebp holds a lossless picture whole, 4 bytes a pixel.
constexpr uint64_t kMaxLosslessPixels = 1ull << 24;
// 2^26 pixels: a lossy picture's alpha plane is held whole, 1 byte a pixel.
constexpr uint64_t kMaxAlphaPixels = 1ull << 26;
// 2^27 pixels, as for PNG: every pixel is decoded whatever the output size.
constexpr uint64_t kMaxLossyPixels = 1ull << 27;

void DeleteDemux(WebPDemuxer* demux) { WebPDemuxDelete(demux); }
using ScopedDemux = QRBScoped<WebPDemuxer, DeleteDemux>;

class CQRBWebpReader : public CQRBPictureReader {
public:
    int Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) override;
    uint32_t PictureWidth() const override { return m_uWidth; }
    uint32_t PictureHeight() const override { return m_uHeight; }
    uint32_t SourceWidth() const override { return m_uWidth; }
    uint32_t SourceHeight() const override { return m_uHeight; }
    uint32_t Orientation() const override { return m_uOrientation; }
    int Decode(unsigned char* out, uint32_t outW, uint32_t outH) override;

private:
    bool m_ReadFile(const char* path);
    void m_ReadOrientation();

    std::vector<uint8_t> m_Bytes;
    ScopedDemux m_pDemux;
    const uint8_t* m_pFrame = nullptr;  // the first frame's bitstream, inside m_Bytes
    size_t m_uFrameSize = 0;
    uint32_t m_uWidth = 0;
    uint32_t m_uHeight = 0;
    uint32_t m_uOrientation = 0;
};

bool CQRBWebpReader::m_ReadFile(const char* path) {
    QRBScopedFile fp(std::fopen(path, "rb"));
    struct stat st;
    if (!fp || fstat(fileno(fp.get()), &st) != 0) {
        QRBNoteFileFailure(errno);
        QRB_LOGW("%s:   OPEN ERROR", path);
        return false;
    }
    if (st.st_size <= 0 || static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("WebP file of %lld bytes refused (at most %llu)",
                 static_cast<long long>(st.st_size), static_cast<unsigned long long>(kMaxFileBytes));
        return false;
    }
    try {
        m_Bytes.resize(static_cast<size_t>(st.st_size));
    } catch (const std::bad_alloc&) {
        QRB_LOGW("no memory for a WebP file of %lld bytes", static_cast<long long>(st.st_size));
        return false;
    }
    if (std::fread(m_Bytes.data(), 1, m_Bytes.size(), fp.get()) != m_Bytes.size()) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("WebP file shorter than it was");
        return false;
    }
    return true;
}

void CQRBWebpReader::m_ReadOrientation() {
    if ((WebPDemuxGetI(m_pDemux.get(), WEBP_FF_FORMAT_FLAGS) & EXIF_FLAG) == 0) return;
    WebPChunkIterator chunk;
    if (!WebPDemuxGetChunk(m_pDemux.get(), "EXIF", 1, &chunk)) return;
    // The chunk holds the EXIF block's TIFF header and directories; some writers put the APP1
    // block's "Exif\0\0" in front, as a JPEG has it, which the EXIF walk expects.
    static const char kExifId[6] = {'E', 'x', 'i', 'f', 0, 0};
    std::string block(reinterpret_cast<const char*>(chunk.chunk.bytes), chunk.chunk.size);
    WebPDemuxReleaseChunkIterator(&chunk);
    if (block.compare(0, sizeof(kExifId), kExifId, sizeof(kExifId)) != 0) {
        block.insert(0, kExifId, sizeof(kExifId));
    }
    QRBJpegHeaderInfo info;
    if (CQRBJpegHeaderParser::ParseExif(reinterpret_cast<const unsigned char*>(block.data()),
                                        block.size(), 0, block.size(), &info)) {
        m_uOrientation = info.orientation;
    }
}

int CQRBWebpReader::Open(const char* path, uint32_t, uint32_t, bool) {
    if (!m_ReadFile(path)) return -1;
    const WebPData data = {m_Bytes.data(), m_Bytes.size()};
    m_pDemux.reset(WebPDemux(&data));
    WebPIterator frame;
    if (!m_pDemux || !WebPDemuxGetFrame(m_pDemux.get(), 1, &frame)) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("WebP file that does not parse (cut short or damaged)");
        return -1;
    }
    m_pFrame = frame.fragment.bytes;
    m_uFrameSize = frame.fragment.size;
    WebPDemuxReleaseIterator(&frame);

    WebPBitstreamFeatures features;
    if (WebPGetFeatures(m_pFrame, m_uFrameSize, &features) != VP8_STATUS_OK ||
        features.width <= 0 || features.height <= 0) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("WebP frame without a readable header");
        return -1;
    }
    m_uWidth = static_cast<uint32_t>(features.width);
    m_uHeight = static_cast<uint32_t>(features.height);
    const uint64_t pixels = static_cast<uint64_t>(m_uWidth) * m_uHeight;
    const bool lossless = features.format == 2;
    const uint64_t limit =
        lossless ? kMaxLosslessPixels : features.has_alpha ? kMaxAlphaPixels : kMaxLossyPixels;
    if (pixels > limit) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("WebP %u x %u (%s%s) exceeds %llu pixels", m_uWidth, m_uHeight,
                 lossless ? "lossless" : "lossy", features.has_alpha ? ", alpha" : "",
                 static_cast<unsigned long long>(limit));
        return -1;
    }
    m_ReadOrientation();
    QRB_LOGD("WebP %u x %u, %s, alpha %d, animation %d, orientation %u", m_uWidth, m_uHeight,
             lossless ? "lossless" : "lossy", features.has_alpha, features.has_animation,
             m_uOrientation);
    return 0;
}

int CQRBWebpReader::Decode(unsigned char* out, uint32_t outW, uint32_t outH) {
    if (out == nullptr || m_pFrame == nullptr || outW == 0 || outH == 0) return -1;
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config)) return -1;
    config.options.use_scaling = 1;
    config.options.scaled_width = static_cast<int>(outW);
    config.options.scaled_height = static_cast<int>(outH);
    config.output.colorspace = MODE_BGRA;  // our byte order, alpha not premultiplied
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = out;
    config.output.u.RGBA.stride = static_cast<int>(outW * 4);
    config.output.u.RGBA.size = static_cast<size_t>(outW) * outH * 4;
    const VP8StatusCode status = WebPDecode(m_pFrame, m_uFrameSize, &config);
    WebPFreeDecBuffer(&config.output);  // frees nothing of ours: the memory is external
    if (status != VP8_STATUS_OK) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("WebP decode failed (%d)", static_cast<int>(status));
        return -1;
    }
    return 0;
}

}  // namespace

std::unique_ptr<CQRBPictureReader> QRBMakeWebpReader() {
    return std::make_unique<CQRBWebpReader>();
}
