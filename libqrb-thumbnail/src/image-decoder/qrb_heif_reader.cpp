// HEIF (HEVC-coded, every recent phone's photos) and AVIF (AV1-coded) through libheif.
//
// Source: the primary picture's embedded thumbnail when it is at least half the request in
// both directions (the smallest such one when there are several), the primary picture
// otherwise. libheif applies the file's own transforms (irot, imir, clap) while decoding, and
// the sizes used here are the transformed ones; the orientation tag of an EXIF block in the file
// is not applied on top, since the HEIF transforms supersede it.
//
// libheif offers no scaled decode: a picture is decoded whole, converted to 8-bit RGBA, then
// reduced into our planes and scaled to the output. Limits:
//  - libheif's own limit on a side (kMaxSide), checked while it reads the file's boxes, before
//    anything is decoded;
//  - kMaxPixels for the picture decoded, checked before decoding;
//  - the memory the decode will hold (about kBytesPerPixel a pixel) is taken from the
//    process-wide whole-picture budget before decoding, shared with multi-scan JPEGs; a decode
//    that does not fit waits, one above the whole budget is refused.
// Tiles are decoded on the calling thread (no decoding threads of libheif's own).
#include "image-decoder/qrb_jpeg_memory_budget.h"
#include "image-decoder/qrb_picture_reader.h"
#include "image-decoder/qrb_plane_reducer.h"
#include "qrb_byte_order.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <libheif/heif.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

// A side above this is refused by libheif while it reads the file (its default is 32768).
// Panoramas of phones stay below it.
constexpr int kMaxSide = 16384;
// 2^26 pixels (e.g. 8192 x 8192; a 48-megapixel phone photo is 8064 x 6048).
constexpr uint64_t kMaxPixels = 1ull << 26;
// What a decode holds per pixel at its peak, as measured: the codec's picture and libheif's copy
// of its planes (1.5 bytes each at 8-bit 4:2:0, up to 3 at 4:4:4) and libheif's RGBA
// conversion (4 bytes); 97 MiB for a 12-megapixel photo. Half as much again above 8 bits; one
// more byte for an alpha plane.
constexpr uint64_t kBytesPerPixel = 8;
constexpr uint64_t kBytesPerPixelDeep = 12;

void FreeContext(heif_context* ctx) { heif_context_free(ctx); }
using ScopedHeifContext = QRBScoped<heif_context, FreeContext>;
void FreeHandle(heif_image_handle* handle) { heif_image_handle_release(handle); }
using ScopedHeifHandle = QRBScoped<heif_image_handle, FreeHandle>;
void FreeImage(heif_image* image) { heif_image_release(image); }
using ScopedHeifImage = QRBScoped<heif_image, FreeImage>;
void FreeOptions(heif_decoding_options* options) { heif_decoding_options_free(options); }
using ScopedHeifOptions = QRBScoped<heif_decoding_options, FreeOptions>;

bool Failed(const heif_error& err, const char* what) {
    if (err.code == heif_error_Ok) return false;
    std::string message = err.message != nullptr ? err.message : "";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
        message.pop_back();  // libheif ends some messages with a line break
    }
    QRB_LOGW("HEIF %s: %s (%d.%d)", what, message.c_str(), err.code, err.subcode);
    const bool limit = err.subcode == heif_suberror_Security_limit_exceeded ||
                       err.code == heif_error_Memory_allocation_error;
    QRBNoteFailure(limit ? QRBFailure::kTooLarge : QRBFailure::kDamaged);
    return true;
}

// ---- Derived pictures that refer back to themselves
//
// libheif 1.15 decodes a grid or overlay picture by decoding the pictures its "dimg" references
// name, recursively, without looking for a cycle: a picture that names itself (or a loop of
// them) would recurse until the stack runs out. The file's item references are read here first
// and such a file is refused.

constexpr uint32_t FourCC(const char (&s)[5]) {
    return (static_cast<uint32_t>(static_cast<uint8_t>(s[0])) << 24) |
           (static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 8) |
           static_cast<uint32_t>(static_cast<uint8_t>(s[3]));
}
// Far above the item information of any real file (a few kilobytes, even for hundreds of tiles).
constexpr uint64_t kMaxMetaBytes = 16u << 20;

// Calls visit(type, payload, payloadSize) for each box in [p, p + size); false on a box that
// does not fit.
bool ForEachBox(const uint8_t* p, uint64_t size,
                const std::function<bool(uint32_t, const uint8_t*, uint64_t)>& visit) {
    uint64_t at = 0;
    while (size - at >= 8) {
        uint64_t boxSize = QRBReadBE32(p + at);
        const uint32_t type = QRBReadBE32(p + at + 4);
        uint64_t header = 8;
        if (boxSize == 1) {
            if (size - at < 16) return false;
            boxSize = QRBReadBE64(p + at + 8);
            header = 16;
        } else if (boxSize == 0) {
            boxSize = size - at;
        }
        if (boxSize < header || boxSize > size - at) return false;
        if (!visit(type, p + at + header, boxSize - header)) return false;
        at += boxSize;
    }
    return true;
}

// The "dimg" references of an "iref" payload (after its full-box header), as edges. They are
// read one after the other, ignoring each reference box's own size, as libheif reads them, so
// that no reference libheif follows is missed here.
void ReadDerivations(const uint8_t* p, uint64_t size, bool wideIds,
                     std::map<uint32_t, std::vector<uint32_t>>* edges) {
    const uint64_t idBytes = wideIds ? 4 : 2;
    auto id = [&](uint64_t at) { return wideIds ? QRBReadBE32(p + at) : QRBReadBE16(p + at); };
    uint64_t at = 0;
    while (size - at >= 8) {
        const uint64_t header = QRBReadBE32(p + at) == 1 ? 16 : 8;
        if (size - at < header) return;
        const bool derivation = QRBReadBE32(p + at + 4) == FourCC("dimg");
        at += header;
        if (size - at < idBytes + 2) return;
        const uint32_t from = id(at);
        const uint32_t count = QRBReadBE16(p + at + idBytes);
        at += idBytes + 2;
        for (uint32_t i = 0; i < count && size - at >= idBytes; ++i, at += idBytes) {
            if (derivation) (*edges)[from].push_back(id(at));
        }
    }
}

// Depth-first, with a stack of its own: a chain of a million references is a loop of the walk,
// not of the call stack.
bool HasCycle(const std::map<uint32_t, std::vector<uint32_t>>& edges) {
    std::map<uint32_t, int> state;  // 1 on the current path, 2 done
    for (const auto& entry : edges) {
        if (state[entry.first] != 0) continue;
        state[entry.first] = 1;
        std::vector<std::pair<uint32_t, size_t>> path{{entry.first, 0}};
        while (!path.empty()) {
            const uint32_t item = path.back().first;
            const auto found = edges.find(item);
            if (found == edges.end() || path.back().second >= found->second.size()) {
                state[item] = 2;
                path.pop_back();
                continue;
            }
            const uint32_t next = found->second[path.back().second++];
            int& mark = state[next];
            if (mark == 1) return true;
            if (mark == 0) {
                mark = 1;
                path.emplace_back(next, 0);
            }
        }
    }
    return false;
}

// True when the file's derived pictures refer back to themselves.
bool DerivationsLoop(const char* path) {
    QRBScopedFile file(std::fopen(path, "rb"));
    if (!file) return false;  // libheif reports it
    std::vector<uint8_t> meta;
    for (;;) {
        uint8_t head[16];
        if (std::fread(head, 1, 8, file.get()) != 8) return false;
        uint64_t boxSize = QRBReadBE32(head);
        uint64_t header = 8;
        if (boxSize == 1) {
            if (std::fread(head + 8, 1, 8, file.get()) != 8) return false;
            boxSize = QRBReadBE64(head + 8);
            header = 16;
        }
        if (boxSize != 0 && boxSize < header) return false;
        if (QRBReadBE32(head + 4) == FourCC("meta")) {
            if (boxSize == 0 || boxSize - header > kMaxMetaBytes) return false;
            meta.resize(boxSize - header);
            if (std::fread(meta.data(), 1, meta.size(), file.get()) != meta.size()) return false;
            break;
        }
        if (boxSize == 0 ||
            std::fseek(file.get(), static_cast<long>(boxSize - header), SEEK_CUR) != 0) {
            return false;
        }
    }
    if (meta.size() < 4) return false;
    std::map<uint32_t, std::vector<uint32_t>> edges;
    ForEachBox(meta.data() + 4, meta.size() - 4, [&](uint32_t type, const uint8_t* q, uint64_t n) {
        if (type == FourCC("iref") && n >= 4) ReadDerivations(q + 4, n - 4, q[0] != 0, &edges);
        return true;
    });
    return HasCycle(edges);
}

uint32_t Side(int value) { return value > 0 ? static_cast<uint32_t>(value) : 0; }

class CQRBHeifReader : public CQRBPictureReader {
public:
    int Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) override;
    uint32_t PictureWidth() const override { return m_uPictureWidth; }
    uint32_t PictureHeight() const override { return m_uPictureHeight; }
    uint32_t SourceWidth() const override { return m_uSourceWidth; }
    uint32_t SourceHeight() const override { return m_uSourceHeight; }
    int Decode(unsigned char* out, uint32_t outW, uint32_t outH) override;

private:
    // Picks the smallest thumbnail that serves reqW x reqH into m_pSource, if any.
    void m_ChooseThumbnail(uint32_t reqW, uint32_t reqH);

    ScopedHeifContext m_pContext;
    ScopedHeifHandle m_pPrimary;
    ScopedHeifHandle m_pSource;  // a thumbnail, or null for the primary picture
    uint32_t m_uPictureWidth = 0;
    uint32_t m_uPictureHeight = 0;
    uint32_t m_uSourceWidth = 0;
    uint32_t m_uSourceHeight = 0;
};

int CQRBHeifReader::Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) {
    if (DerivationsLoop(path)) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("HEIF: a derived picture refers back to itself");
        return -1;
    }
    m_pContext.reset(heif_context_alloc());
    if (!m_pContext) return -1;
    heif_context_set_maximum_image_size_limit(m_pContext.get(), kMaxSide);
    heif_context_set_max_decoding_threads(m_pContext.get(), 0);
    if (Failed(heif_context_read_from_file(m_pContext.get(), path, nullptr), "read")) return -1;
    heif_image_handle* primary = nullptr;
    if (Failed(heif_context_get_primary_image_handle(m_pContext.get(), &primary), "primary")) {
        return -1;
    }
    m_pPrimary.reset(primary);
    m_uPictureWidth = Side(heif_image_handle_get_width(primary));
    m_uPictureHeight = Side(heif_image_handle_get_height(primary));
    if (m_uPictureWidth == 0 || m_uPictureHeight == 0) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("HEIF picture without a size");
        return -1;
    }
    QRB_LOGD("HEIF %u x %u, %d thumbnail(s)", m_uPictureWidth, m_uPictureHeight,
             heif_image_handle_get_number_of_thumbnails(primary));
    if (!wholePicture) {
        m_ChooseThumbnail(reqW != 0 ? reqW : m_uPictureWidth, reqH != 0 ? reqH : m_uPictureHeight);
    }
    if (m_pSource) return 0;
    // Only the primary picture is limited here: a huge one with a thumbnail that serves is fine.
    if (static_cast<uint64_t>(m_uPictureWidth) * m_uPictureHeight > kMaxPixels) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("HEIF %u x %u exceeds %llu pixels", m_uPictureWidth, m_uPictureHeight,
                 static_cast<unsigned long long>(kMaxPixels));
        return -1;
    }
    m_uSourceWidth = m_uPictureWidth;
    m_uSourceHeight = m_uPictureHeight;
    return 0;
}

void CQRBHeifReader::m_ChooseThumbnail(uint32_t reqW, uint32_t reqH) {
    const int count = heif_image_handle_get_number_of_thumbnails(m_pPrimary.get());
    if (count <= 0) return;
    std::vector<heif_item_id> ids(static_cast<size_t>(count));
    const int listed =
        heif_image_handle_get_list_of_thumbnail_IDs(m_pPrimary.get(), ids.data(), count);
    for (int i = 0; i < listed; ++i) {
        heif_image_handle* raw = nullptr;
        if (heif_image_handle_get_thumbnail(m_pPrimary.get(), ids[i], &raw).code != heif_error_Ok) {
            continue;
        }
        ScopedHeifHandle thumb(raw);
        const uint32_t w = Side(heif_image_handle_get_width(raw));
        const uint32_t h = Side(heif_image_handle_get_height(raw));
        if (!QRBServesRequest(w, h, reqW, reqH) || static_cast<uint64_t>(w) * h > kMaxPixels) {
            continue;
        }
        if (m_pSource && static_cast<uint64_t>(w) * h >=
                             static_cast<uint64_t>(m_uSourceWidth) * m_uSourceHeight) {
            continue;
        }
        m_pSource = std::move(thumb);
        m_uSourceWidth = w;
        m_uSourceHeight = h;
    }
    if (m_pSource) QRB_LOGD("HEIF thumbnail %u x %u chosen", m_uSourceWidth, m_uSourceHeight);
}

int CQRBHeifReader::Decode(unsigned char* out, uint32_t outW, uint32_t outH) {
    if (out == nullptr || !m_pPrimary) return -1;
    heif_image_handle* source = m_pSource ? m_pSource.get() : m_pPrimary.get();
    const uint64_t pixels = static_cast<uint64_t>(m_uSourceWidth) * m_uSourceHeight;
    uint64_t perPixel =
        heif_image_handle_get_luma_bits_per_pixel(source) > 8 ? kBytesPerPixelDeep : kBytesPerPixel;
    if (heif_image_handle_has_alpha_channel(source)) ++perPixel;
    const uint64_t bytes = pixels * perPixel;
    if (bytes > kQRBWholePictureBudgetBytes) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("HEIF %u x %u would take %llu bytes to decode", m_uSourceWidth, m_uSourceHeight,
                 static_cast<unsigned long long>(bytes));
        return -1;
    }
    const CQRBJpegMemoryBudget::Grant grant = QRBWholePictureBudget().Acquire(bytes);

    ScopedHeifOptions options(heif_decoding_options_alloc());
    if (!options) return -1;
    options->ignore_transformations = 0;  // irot, imir and clap are applied
    options->convert_hdr_to_8bit = 1;
    heif_image* raw = nullptr;
    if (Failed(heif_decode_image(source, &raw, heif_colorspace_RGB, heif_chroma_interleaved_RGBA,
                                 options.get()),
               "decode")) {
        return -1;
    }
    ScopedHeifImage image(raw);
    const uint32_t w = Side(heif_image_get_width(raw, heif_channel_interleaved));
    const uint32_t h = Side(heif_image_get_height(raw, heif_channel_interleaved));
    int stride = 0;
    const uint8_t* rows = heif_image_get_plane_readonly(raw, heif_channel_interleaved, &stride);
    if (rows == nullptr || w == 0 || h == 0 || stride < 0 ||
        static_cast<uint64_t>(stride) < static_cast<uint64_t>(w) * 4) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("HEIF decode gave no usable picture");
        return -1;
    }
    CQRBPlaneReducer reducer;
    if (!reducer.Begin(w, h, outW, outH, true, true)) return -1;
    for (uint32_t y = 0; y < h; ++y) reducer.AddRow(rows + static_cast<size_t>(y) * stride);
    image.reset();  // the planes hold what the output needs
    return reducer.Finish(out, outW, outH) ? 0 : -1;
}

}  // namespace

std::unique_ptr<CQRBPictureReader> QRBMakeHeifReader() {
    return std::make_unique<CQRBHeifReader>();
}
