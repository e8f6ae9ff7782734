// TIFF through libtiff's RGBA interface, which reads every photometric interpretation, bit
// depth, compression and layout libtiff knows (strips or tiles, contiguous or separate planes)
// into 8-bit RGBA.
//
// Source: the first page not marked reduced-resolution is the picture. A reduced-resolution
// page of the same picture (pyramids written as further pages or as SubIFDs of the first page,
// previews; its aspect ratio within 2% of the picture's)
// is used instead when it is at least half the request in both directions: the smallest such
// page that still covers the request, else the largest. The page's Orientation tag is handed to
// the caller, as a JPEG's EXIF orientation is.
//
// The page is read in bands of rows (a strip's or a tile row's height, fewer when that would
// take more than kMaxBandBytes) in the order they are stored, then reduced into our planes: the
// whole page is never held. libtiff's premultiplied alpha is brought back to straight alpha.
//
// Limits: at most kMaxPages pages are looked at; the page decoded may have kMaxPixels; libtiff
// may allocate at most kMaxSingleAlloc at once (a strip or tile decoded whole). Errors and
// warnings come to our handlers given with the open options of this handle only.
#include "image-decoder/qrb_picture_reader.h"
#include "image-decoder/qrb_plane_reducer.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <vector>

namespace {

// Reduced pages are rare beyond a handful; a chain longer than this is not walked further.
constexpr int kMaxPages = 64;
// 2^27 pixels, as for PNG: every pixel of the page is decoded whatever the output size.
constexpr uint64_t kMaxPixels = 1ull << 27;
// The band of rows converted at once: 8 MiB of RGBA.
constexpr uint64_t kMaxBandBytes = 8ull << 20;
// A strip or tile decoded whole; a writer that puts a large picture in one compressed strip
// still fits (a 12-megapixel RGB picture is 36 MiB).
constexpr tmsize_t kMaxSingleAlloc = 64 << 20;
constexpr int kLoggedWarnings = 3;

void CloseTiff(TIFF* tif) { TIFFClose(tif); }
using ScopedTiff = QRBScoped<TIFF, CloseTiff>;
void FreeOptions(TIFFOpenOptions* options) { TIFFOpenOptionsFree(options); }
using ScopedTiffOptions = QRBScoped<TIFFOpenOptions, FreeOptions>;

struct TiffMessages {
    int warnings = 0;
};

int OnTiffError(TIFF*, void*, const char* module, const char* fmt, va_list ap) {
    char text[256];
    std::vsnprintf(text, sizeof(text), fmt, ap);
    QRB_LOGW("libtiff error: %s: %s", module != nullptr ? module : "", text);
    return 1;  // handled: nothing goes to libtiff's process-wide handler
}

int OnTiffWarning(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
    TiffMessages* messages = static_cast<TiffMessages*>(user);
    if (++messages->warnings <= kLoggedWarnings) {
        char text[256];
        std::vsnprintf(text, sizeof(text), fmt, ap);
        QRB_LOGD("libtiff warning: %s: %s", module != nullptr ? module : "", text);
    }
    return 1;
}

struct Page {
    tdir_t index;        // in the main chain
    uint64_t subOffset;  // a SubIFD's file offset instead; 0 for pages of the main chain
    uint32_t width;
    uint32_t height;
    bool reduced;
    uint32_t orientation;  // 1..8, 0 when absent
};

// Same picture: aspect ratios within 2% of each other.
bool SameAspect(const Page& a, const Page& b) {
    const uint64_t x = static_cast<uint64_t>(a.width) * b.height;
    const uint64_t y = static_cast<uint64_t>(b.width) * a.height;
    const uint64_t diff = x > y ? x - y : y - x;
    return diff * 50 <= std::max(x, y);
}

class CQRBTiffReader : public CQRBPictureReader {
public:
    int Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) override;
    uint32_t PictureWidth() const override { return m_Picture.width; }
    uint32_t PictureHeight() const override { return m_Picture.height; }
    uint32_t SourceWidth() const override { return m_Source.width; }
    uint32_t SourceHeight() const override { return m_Source.height; }
    uint32_t Orientation() const override { return m_Source.orientation; }
    int Decode(unsigned char* out, uint32_t outW, uint32_t outH) override;

private:
    // The pages libtiff can read into RGBA: the main chain in file order, then the SubIFDs of
    // its first page.
    std::vector<Page> m_ListPages();
    // The current directory as a page; false when libtiff cannot read it into RGBA.
    bool m_ReadPage(Page* page);
    bool m_SelectPage(const Page& page);

    TiffMessages m_Messages;  // outlives the handle, which points at it
    ScopedTiff m_pTiff;
    Page m_Picture{};
    Page m_Source{};
};

bool CQRBTiffReader::m_ReadPage(Page* page) {
    TIFF* tif = m_pTiff.get();
    uint32_t subfile = 0;
    uint16_t orientation = 0;
    char message[1024];
    if (TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &page->width) != 1 ||
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &page->height) != 1 || page->width == 0 ||
        page->height == 0 || TIFFRGBAImageOK(tif, message) != 1) {
        return false;
    }
    page->reduced = TIFFGetField(tif, TIFFTAG_SUBFILETYPE, &subfile) == 1 &&
                    (subfile & FILETYPE_REDUCEDIMAGE) != 0;
    if (TIFFGetField(tif, TIFFTAG_ORIENTATION, &orientation) == 1 && orientation >= 1 &&
        orientation <= 8) {
        page->orientation = orientation;
    }
    return true;
}

std::vector<Page> CQRBTiffReader::m_ListPages() {
    std::vector<Page> pages;
    std::vector<uint64_t> subIfds;
    TIFF* tif = m_pTiff.get();
    tdir_t index = 0;
    do {
        if (index == 0) {
            uint16_t count = 0;
            uint64_t* offsets = nullptr;  // libtiff's own storage
            if (TIFFGetField(tif, TIFFTAG_SUBIFD, &count, &offsets) == 1 && offsets != nullptr) {
                subIfds.assign(offsets, offsets + std::min<uint16_t>(count, kMaxPages));
            }
        }
        Page page{index, 0, 0, 0, false, 0};
        if (m_ReadPage(&page)) pages.push_back(page);
        ++index;
    } while (index < kMaxPages && TIFFReadDirectory(tif) == 1);
    for (uint64_t offset : subIfds) {
        Page page{0, offset, 0, 0, false, 0};
        if (offset != 0 && TIFFSetSubDirectory(tif, offset) == 1 && m_ReadPage(&page)) {
            pages.push_back(page);
        }
    }
    return pages;
}

bool CQRBTiffReader::m_SelectPage(const Page& page) {
    TIFF* tif = m_pTiff.get();
    return page.subOffset != 0 ? TIFFSetSubDirectory(tif, page.subOffset) == 1
                               : TIFFSetDirectory(tif, page.index) == 1;
}

int CQRBTiffReader::Open(const char* path, uint32_t reqW, uint32_t reqH, bool wholePicture) {
    ScopedTiffOptions options(TIFFOpenOptionsAlloc());
    if (!options) return -1;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), kMaxSingleAlloc);
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), OnTiffError, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), OnTiffWarning, &m_Messages);
    // "m": read through the file descriptor, not a mapping of the whole file.
    m_pTiff.reset(TIFFOpenExt(path, "rm", options.get()));
    if (!m_pTiff) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("TIFF %s does not open", path);
        return -1;
    }
    const std::vector<Page> pages = m_ListPages();
    const auto main = std::find_if(pages.begin(), pages.end(), [](const Page& p) { return !p.reduced; });
    if (pages.empty() || main == pages.end()) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("TIFF without a page that can be read");
        return -1;
    }
    m_Picture = *main;
    if (reqW == 0) reqW = m_Picture.width;
    if (reqH == 0) reqH = m_Picture.height;
    m_Source = m_Picture;
    const Page* best = nullptr;
    for (const Page& page : pages) {
        if (wholePicture || !page.reduced || !SameAspect(page, m_Picture) ||
            !QRBServesRequest(page.width, page.height, reqW, reqH)) {
            continue;
        }
        const bool covers = page.width >= reqW && page.height >= reqH;
        if (best == nullptr) {
            best = &page;
            continue;
        }
        const bool bestCovers = best->width >= reqW && best->height >= reqH;
        const bool smaller = static_cast<uint64_t>(page.width) * page.height <
                             static_cast<uint64_t>(best->width) * best->height;
        // Prefer one that covers the request; among those the smallest, among the others the
        // largest.
        if ((covers && !bestCovers) || (covers == bestCovers && covers == smaller)) best = &page;
    }
    if (best != nullptr && static_cast<uint64_t>(best->width) * best->height <
                               static_cast<uint64_t>(m_Picture.width) * m_Picture.height) {
        m_Source = *best;
    }
    if (static_cast<uint64_t>(m_Source.width) * m_Source.height > kMaxPixels) {
        QRBNoteFailure(QRBFailure::kTooLarge);
        QRB_LOGW("TIFF page %u x %u exceeds %llu pixels", m_Source.width, m_Source.height,
                 static_cast<unsigned long long>(kMaxPixels));
        return -1;
    }
    QRB_LOGD("TIFF %u x %u, %zu page(s); page %u x %u chosen, orientation %u", m_Picture.width,
             m_Picture.height, pages.size(), m_Source.width, m_Source.height,
             m_Source.orientation);
    return 0;
}

int CQRBTiffReader::Decode(unsigned char* out, uint32_t outW, uint32_t outH) {
    if (out == nullptr || !m_pTiff) return -1;
    TIFF* tif = m_pTiff.get();
    if (!m_SelectPage(m_Source)) return -1;
    TIFFRGBAImage img;
    char message[1024];
    if (TIFFRGBAImageBegin(&img, tif, 1, message) != 1) {
        QRBNoteFailure(QRBFailure::kDamaged);
        QRB_LOGW("TIFF page does not convert: %s", message);
        return -1;
    }
    // Ends the conversion state on every way out.
    const std::unique_ptr<TIFFRGBAImage, void (*)(TIFFRGBAImage*)> end(&img, TIFFRGBAImageEnd);
    const uint32_t w = img.width;
    const uint32_t h = img.height;
    if (w != m_Source.width || h != m_Source.height) return -1;  // changed since Open
    // Rows come out as stored, top to bottom; the caller applies the orientation.
    img.req_orientation = img.orientation;

    uint32_t band = 0;
    if (TIFFIsTiled(tif)) {
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &band);
    } else {
        TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &band);
    }
    const uint64_t rowBytes = static_cast<uint64_t>(w) * 4;
    const uint64_t fit = std::max<uint64_t>(1, kMaxBandBytes / rowBytes);
    if (band == 0 || band > fit) {
        // Multiples of 16 rows keep subsampled chroma (at most 4 rows a sample) whole.
        band = static_cast<uint32_t>(fit >= 16 ? fit - fit % 16 : fit);
    }
    band = std::min(band, h);

    std::vector<uint32_t> raster;
    std::vector<unsigned char> row;
    CQRBPlaneReducer reducer;
    try {
        raster.resize(static_cast<size_t>(w) * band);
        row.resize(static_cast<size_t>(rowBytes));
    } catch (const std::bad_alloc&) {
        QRB_LOGW("no memory for a band of %u rows of %u pixels", band, w);
        return -1;
    }
    if (!reducer.Begin(w, h, outW, outH, true, true)) return -1;
    for (uint32_t y = 0; y < h; y += band) {
        const uint32_t n = std::min(band, h - y);
        img.row_offset = static_cast<int>(y);
        img.col_offset = 0;
        if (TIFFRGBAImageGet(&img, raster.data(), w, n) != 1) {
            QRBNoteFailure(QRBFailure::kDamaged);
            QRB_LOGW("TIFF rows %u to %u do not decode", y, y + n - 1);
            return -1;
        }
        for (uint32_t r = 0; r < n; ++r) {
            const uint32_t* px = raster.data() + static_cast<size_t>(r) * w;
            unsigned char* dst = row.data();
            for (uint32_t x = 0; x < w; ++x, dst += 4) {
                const uint32_t p = px[x];
                const uint32_t a = TIFFGetA(p);
                uint32_t red = TIFFGetR(p);
                uint32_t green = TIFFGetG(p);
                uint32_t blue = TIFFGetB(p);
                if (a != 255 && a != 0) {  // libtiff premultiplies; straight alpha here
                    red = std::min<uint32_t>(255, (red * 255 + a / 2) / a);
                    green = std::min<uint32_t>(255, (green * 255 + a / 2) / a);
                    blue = std::min<uint32_t>(255, (blue * 255 + a / 2) / a);
                }
                dst[0] = static_cast<unsigned char>(red);
                dst[1] = static_cast<unsigned char>(green);
                dst[2] = static_cast<unsigned char>(blue);
                dst[3] = static_cast<unsigned char>(a);
            }
            reducer.AddRow(row.data());
        }
    }
    return reducer.Finish(out, outW, outH) ? 0 : -1;
}

}  // namespace

std::unique_ptr<CQRBPictureReader> QRBMakeTiffReader() {
    return std::make_unique<CQRBTiffReader>();
}
