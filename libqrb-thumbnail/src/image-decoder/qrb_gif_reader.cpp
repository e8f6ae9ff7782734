// GIF through giflib's record interface: only the first frame is read, line by line, and never
// kept whole. It is placed on the logical screen (the canvas) where the file puts it; the
// canvas outside it and the frame's transparent colour are transparent (alpha 0), as a viewer
// shows a first frame. Rows go into a CQRBPlaneReducer in order, or, for an interlaced frame,
// in the order of its four passes.
//
// Limits, checked before anything the size of the picture is allocated: kMaxPixels for the
// canvas and for the frame (whose rows are decoded even where they fall outside the canvas);
// giflib itself allocates nothing larger than a colour map and a line of the frame.
#include "image-decoder/qrb_picture_reader.h"
#include "image-decoder/qrb_plane_reducer.h"
#include "qrb_failure.h"
#include "qrb_log.h"

#include <gif_lib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace {

// 2^27 pixels, as for PNG: every pixel of the frame is decompressed whatever the output size.
constexpr uint64_t kMaxPixels = 1ull << 27;

struct GifCloser {
    void operator()(GifFileType* gif) const noexcept {
        int error = 0;
        DGifCloseFile(gif, &error);
    }
};
using ScopedGif = std::unique_ptr<GifFileType, GifCloser>;

bool Failed(int result, const GifFileType* gif, const char* what) {
    if (result != GIF_ERROR) return false;
    const char* text = GifErrorString(gif->Error);
    QRB_LOGW("GIF %s: %s", what, text != nullptr ? text : "unknown error");
    QRBNoteFailure(QRBFailure::kDamaged);
    return true;
}

class CQRBGifReader : public CQRBPictureReader {
public:
    int Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) override;
    uint32_t PictureWidth() const override { return m_uWidth; }
    uint32_t PictureHeight() const override { return m_uHeight; }
    uint32_t SourceWidth() const override { return m_uWidth; }
    uint32_t SourceHeight() const override { return m_uHeight; }
    int Decode(unsigned char* out, uint32_t outW, uint32_t outH) override;

private:
    // Reads records up to the first frame's descriptor; its transparent colour into
    // *transparent (-1 for none). 0 or -1.
    int m_SeekFirstFrame(int* transparent);
    // The first frame's colours once its place and size are sane; null, with the reason noted,
    // otherwise.
    const ColorMapObject* m_FrameColours() const;

    ScopedGif m_pGif;
    uint32_t m_uWidth = 0;
    uint32_t m_uHeight = 0;
};

int CQRBGifReader::Open(const char* path, uint32_t, uint32_t, bool) {
    int error = 0;
    m_pGif.reset(DGifOpenFileName(path, &error));
    if (!m_pGif) {
        const char* text = GifErrorString(error);
        QRB_LOGW("GIF open: %s", text != nullptr ? text : "unknown error");
        QRBNoteFailure(QRBFailure::kDamaged);
        return -1;
    }
    if (m_pGif->SWidth <= 0 || m_pGif->SHeight <= 0) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("GIF without a canvas size");
        return -1;
    }
    m_uWidth = static_cast<uint32_t>(m_pGif->SWidth);
    m_uHeight = static_cast<uint32_t>(m_pGif->SHeight);
    if (static_cast<uint64_t>(m_uWidth) * m_uHeight > kMaxPixels) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("GIF %u x %u exceeds %llu pixels", m_uWidth, m_uHeight,
                 static_cast<unsigned long long>(kMaxPixels));
        return -1;
    }
    QRB_LOGD("GIF %u x %u", m_uWidth, m_uHeight);
    return 0;
}

int CQRBGifReader::m_SeekFirstFrame(int* transparent) {
    GifFileType* gif = m_pGif.get();
    *transparent = -1;
    for (;;) {
        GifRecordType type = UNDEFINED_RECORD_TYPE;
        if (Failed(DGifGetRecordType(gif, &type), gif, "record")) return -1;
        if (type == IMAGE_DESC_RECORD_TYPE) {
            return Failed(DGifGetImageDesc(gif), gif, "frame") ? -1 : 0;
        }
        if (type == TERMINATE_RECORD_TYPE) {
            QRBNoteFailure(QRBFailure::kDamaged);
            QRB_LOGW("GIF without a frame");
            return -1;
        }
        if (type != EXTENSION_RECORD_TYPE) continue;
        int code = 0;
        GifByteType* block = nullptr;
        if (Failed(DGifGetExtension(gif, &code, &block), gif, "extension")) return -1;
        if (code == GRAPHICS_EXT_FUNC_CODE && block != nullptr) {
            GraphicsControlBlock gcb;
            if (DGifExtensionToGCB(block[0], block + 1, &gcb) == GIF_OK) {
                *transparent = gcb.TransparentColor;
            }
        }
        while (block != nullptr) {
            if (Failed(DGifGetExtensionNext(gif, &block), gif, "extension")) return -1;
        }
    }
}

const ColorMapObject* CQRBGifReader::m_FrameColours() const {
    const GifImageDesc& frame = m_pGif->Image;
    const ColorMapObject* map = frame.ColorMap != nullptr ? frame.ColorMap : m_pGif->SColorMap;
    if (frame.Width <= 0 || frame.Height <= 0 || frame.Left < 0 || frame.Top < 0 ||
        map == nullptr || map->Colors == nullptr) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("GIF frame %d x %d at (%d, %d) without colours", frame.Width, frame.Height,
                 frame.Left, frame.Top);
        return nullptr;
    }
    if (static_cast<uint64_t>(frame.Width) * static_cast<uint64_t>(frame.Height) > kMaxPixels) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("GIF frame %d x %d exceeds %llu pixels", frame.Width, frame.Height,
                 static_cast<unsigned long long>(kMaxPixels));
        return nullptr;
    }
    return map;
}

int CQRBGifReader::Decode(unsigned char* out, uint32_t outW, uint32_t outH) {
    if (out == nullptr || !m_pGif) return -1;
    int transparent = -1;
    if (m_SeekFirstFrame(&transparent) != 0) return -1;
    const ColorMapObject* map = m_FrameColours();
    if (map == nullptr) return -1;
    const GifImageDesc& frame = m_pGif->Image;
    const uint32_t fw = static_cast<uint32_t>(frame.Width);
    const uint32_t fh = static_cast<uint32_t>(frame.Height);
    const uint32_t left = static_cast<uint32_t>(frame.Left);
    const uint32_t top = static_cast<uint32_t>(frame.Top);
    // The part of each frame row that lies on the canvas.
    const uint32_t visibleW = left < m_uWidth ? std::min(fw, m_uWidth - left) : 0;

    std::vector<GifPixelType> line;
    std::vector<unsigned char> row;  // one canvas row, red, green, blue, alpha
    CQRBPlaneReducer reducer;
    try {
        line.resize(fw);
        row.assign(static_cast<size_t>(m_uWidth) * 4, 0);
    } catch (const std::bad_alloc&) {
        QRB_LOGW("no memory for a GIF row");
        return -1;
    }
    if (!reducer.Begin(m_uWidth, m_uHeight, outW, outH, !frame.Interlace, true)) return -1;

    // Colours of one frame row into the canvas row; the rest of the canvas row stays clear.
    const auto paint = [&]() {
        unsigned char* px = row.data() + static_cast<size_t>(left) * 4;
        for (uint32_t x = 0; x < visibleW; ++x, px += 4) {
            const int index = line[x];
            if (index == transparent || index >= map->ColorCount) {
                std::memset(px, 0, 4);
                continue;
            }
            const GifColorType& c = map->Colors[index];
            px[0] = c.Red;
            px[1] = c.Green;
            px[2] = c.Blue;
            px[3] = 255;
        }
    };
    const std::vector<unsigned char> clear(row);

    if (!frame.Interlace) {
        for (uint32_t y = 0; y < top && y < m_uHeight; ++y) reducer.AddRow(clear.data());
        // Rows below the canvas are never needed: the decode stops at the canvas's last row.
        const uint32_t rows = top < m_uHeight ? std::min(fh, m_uHeight - top) : 0;
        for (uint32_t r = 0; r < rows; ++r) {
            if (Failed(DGifGetLine(m_pGif.get(), line.data(), static_cast<int>(fw)),
                       m_pGif.get(), "line")) {
                return -1;
            }
            paint();
            reducer.AddRow(row.data());
        }
        for (uint32_t y = top + rows; y < m_uHeight; ++y) reducer.AddRow(clear.data());
    } else {
        // The four passes of an interlaced frame; rows outside the canvas are read and dropped.
        static const uint32_t kStart[4] = {0, 4, 2, 1};
        static const uint32_t kStep[4] = {8, 8, 4, 2};
        for (int pass = 0; pass < 4; ++pass) {
            for (uint32_t r = kStart[pass]; r < fh; r += kStep[pass]) {
                if (Failed(DGifGetLine(m_pGif.get(), line.data(), static_cast<int>(fw)),
                           m_pGif.get(), "line")) {
                    return -1;
                }
                paint();
                reducer.PutRow(top + r, row.data());
            }
        }
    }
    return reducer.Finish(out, outW, outH) ? 0 : -1;
}

}  // namespace

std::unique_ptr<CQRBPictureReader> QRBMakeGifReader() {
    return std::make_unique<CQRBGifReader>();
}
