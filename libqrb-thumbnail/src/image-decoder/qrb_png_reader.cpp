// PNG through libpng: every colour type and bit depth is brought to 8-bit RGBA by libpng's
// transforms (palette and tRNS to alpha, grey to RGB, 16 bits rounded to 8, a filler where
// there is no alpha), split into alpha, red, green and blue planes and packed into the output
// by the planar CQRBImageUtil::ScaleARGBLinear. No gamma or background is applied.
//
// Rows are read one at a time and never kept whole: they go into the planes of a
// CQRBPlaneReducer, which keeps pictures up to its plane bound at their own size and reduces
// larger ones on the fly (box mean of each k x k cell for sequential files, its top-left pixel
// for interlaced ones, whose passes arrive out of row order). A file that declares a huge
// picture over a few bytes fails at its first missing row.
//
// libpng errors come back through our handler (png_longjmp to the guarded frame of the current
// step, which holds only C state); warnings are counted and capped.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_util.h"
#include "image-decoder/qrb_plane_reducer.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <algorithm>
#include <csetjmp>
#include <memory>
#include <new>
#include <vector>

#include <png.h>

namespace {

// png_set_user_limits: PNG allows 2^31 - 1; we take what JPEG allows.
constexpr png_uint_32 kMaxDimension = 65535;
// 2^27 pixels (e.g. 11585 x 11585). Every pixel of a PNG is inflated and unfiltered whatever
// the output size; beyond this a decode takes seconds.
constexpr uint64_t kMaxPixels = 1ull << 27;
// Ancillary chunks are discarded, but libpng still buffers each one it reads: 1 MiB each (the
// default is 8 MB), which also defuses compressed-text bombs.
constexpr png_alloc_size_t kMaxChunkBytes = 1u << 20;
constexpr int kMaxWarnings = 100;
constexpr int kLoggedWarnings = 3;

void DestroyPngRead(png_struct* png) { png_destroy_read_struct(&png, nullptr, nullptr); }
using ScopedPngRead = QRBScoped<png_struct, DestroyPngRead>;
// An info struct is freed through the read struct it belongs to, so its deleter holds that.
struct PngInfoDeleter {
    png_structp png;
    void operator()(png_info* info) const noexcept { png_destroy_info_struct(png, &info); }
};
using ScopedPngInfo = std::unique_ptr<png_info, PngInfoDeleter>;

struct PngErrorState {
    int warnings;
};

void PngError(png_structp png, png_const_charp message) {
    QRB_LOGW("libpng error: %s", message);
    png_longjmp(png, 1);
}

void PngWarning(png_structp png, png_const_charp message) {
    PngErrorState* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
    ++state->warnings;
    if (state->warnings <= kLoggedWarnings) QRB_LOGD("libpng warning: %s", message);
    if (state->warnings > kMaxWarnings) png_error(png, "too many warnings");
}

// Everything the guarded frames touch: C state and raw pointers owned by the caller.
struct PngJob {
    png_structp png;
    png_infop info;
    FILE* fp;
    png_uint_32 width;
    png_uint_32 height;
    int bitDepth;
    int colorType;
    int interlace;
    size_t rowBytes;
    unsigned char* row;         // rowBytes
    CQRBPlaneReducer* reducer;  // owned by the caller, outside the guarded frames
};

int GuardedReadInfo(PngJob* job, bool transform) {
    png_structp png = job->png;
    png_infop info = job->info;
    if (setjmp(png_jmpbuf(png))) return -1;
    png_init_io(png, job->fp);
    png_set_user_limits(png, kMaxDimension, kMaxDimension);
    png_set_chunk_malloc_max(png, kMaxChunkBytes);
    // Nothing but the image itself (and its palette and transparency) is wanted.
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
    png_read_info(png, info);
    png_get_IHDR(png, info, &job->width, &job->height, &job->bitDepth, &job->colorType,
                 &job->interlace, nullptr, nullptr);
    if (!transform) return 0;

    if (job->colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (job->colorType == PNG_COLOR_TYPE_GRAY && job->bitDepth < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
    if (job->bitDepth == 16) png_set_scale_16(png);  // rounded, not truncated
    if (job->colorType == PNG_COLOR_TYPE_GRAY || job->colorType == PNG_COLOR_TYPE_GRAY_ALPHA) {
        png_set_gray_to_rgb(png);
    }
    png_set_filler(png, 0xFF, PNG_FILLER_AFTER);  // only where no alpha exists by now
    // No png_set_interlace_handling: interlaced files are read pass by pass, each pass row
    // as it is stored, so that no whole-picture buffer is needed.
    png_read_update_info(png, info);
    job->rowBytes = png_get_rowbytes(png, info);
    return 0;
}

int GuardedReadSequential(PngJob* job) {
    png_structp png = job->png;
    if (setjmp(png_jmpbuf(png))) return -1;
    for (uint32_t y = 0; y < job->height; ++y) {
        png_read_row(png, job->row, nullptr);
        job->reducer->AddRow(job->row);
    }
    return 0;
}

int GuardedReadInterlaced(PngJob* job) {
    png_structp png = job->png;
    if (setjmp(png_jmpbuf(png))) return -1;
    for (int pass = 0; pass < 7; ++pass) {
        const uint32_t cols = PNG_PASS_COLS(job->width, pass);
        const uint32_t rows = PNG_PASS_ROWS(job->height, pass);
        if (cols == 0 || rows == 0) continue;  // libpng skips empty passes too
        for (uint32_t pr = 0; pr < rows; ++pr) {
            png_read_row(png, job->row, nullptr);
            const uint32_t y = PNG_ROW_FROM_PASS_ROW(pr, pass);
            const unsigned char* px = job->row;
            for (uint32_t pc = 0; pc < cols; ++pc, px += 4) {
                job->reducer->Put(PNG_COL_FROM_PASS_COL(pc, pass), y, px);
            }
        }
    }
    return 0;
}

// A read struct and its info struct, with our handlers.
bool CreatePng(PngErrorState* state, ScopedPngRead* png, ScopedPngInfo* info) {
    png->reset(png_create_read_struct(PNG_LIBPNG_VER_STRING, state, PngError, PngWarning));
    if (!*png) return false;
    *info = ScopedPngInfo(png_create_info_struct(png->get()), PngInfoDeleter{png->get()});
    return static_cast<bool>(*info);
}

}  // namespace

int CQRBImageDecoder::m_ParsePNGThumbInfo() {
    if (m_pPath == nullptr) return -1;
    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRB_LOGW("%s:   OPEN ERROR", m_pPath);
        return -1;
    }
    PngErrorState state{0};
    ScopedPngRead png;
    ScopedPngInfo info(nullptr, PngInfoDeleter{nullptr});
    if (!CreatePng(&state, &png, &info)) return -1;
    PngJob job{};
    job.png = png.get();
    job.info = info.get();
    job.fp = fp.get();
    if (GuardedReadInfo(&job, false) != 0) return -1;
    if (static_cast<uint64_t>(job.width) * job.height > kMaxPixels) {
        QRB_LOGW("PNG %u x %u exceeds %llu pixels", job.width, job.height,
                 static_cast<unsigned long long>(kMaxPixels));
        return -1;
    }
    m_uPNGWidth = m_uPictureWidth = job.width;
    m_uPNGHeight = m_uPictureHeight = job.height;
    m_nPNGColorType = job.colorType;
    m_nPNGBitDepth = job.bitDepth;
    m_nPNGInterlace = job.interlace;
    QRB_LOGD("PNG %u x %u, colour type %d, depth %d, interlace %d", job.width, job.height,
             job.colorType, job.bitDepth, job.interlace);
    return 0;
}

int CQRBImageDecoder::m_ReadPNGThumbnail(unsigned char* out) {
    const uint32_t outW = m_uOutputWidth;
    const uint32_t outH = m_uOutputHeight;
    if (out == nullptr || outW == 0 || outH == 0 || m_pPath == nullptr) return -1;
    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRB_LOGW("%s:   OPEN ERROR", m_pPath);
        return -1;
    }
    PngErrorState state{0};
    ScopedPngRead png;
    ScopedPngInfo info(nullptr, PngInfoDeleter{nullptr});
    if (!CreatePng(&state, &png, &info)) return -1;
    PngJob job{};
    job.png = png.get();
    job.info = info.get();
    job.fp = fp.get();
    if (GuardedReadInfo(&job, true) != 0) return -1;
    // The file may have changed since the header was parsed: everything is checked again.
    const uint32_t w = job.width;
    const uint32_t h = job.height;
    if (w == 0 || h == 0 || static_cast<uint64_t>(w) * h > kMaxPixels ||
        job.rowBytes != static_cast<size_t>(w) * 4) {
        QRB_LOGW("PNG %u x %u with %zu bytes a row refused", w, h, job.rowBytes);
        return -1;
    }

    std::vector<unsigned char> row;
    try {
        row.resize(job.rowBytes);
    } catch (const std::bad_alloc&) {
        QRB_LOGW("no memory for a row of %zu bytes", job.rowBytes);
        return -1;
    }
    CQRBPlaneReducer reducer;
    if (!reducer.Begin(w, h, outW, outH, job.interlace == PNG_INTERLACE_NONE, false)) return -1;
    job.row = row.data();
    job.reducer = &reducer;

    const int read = job.interlace == PNG_INTERLACE_NONE ? GuardedReadSequential(&job)
                                                         : GuardedReadInterlaced(&job);
    if (read != 0) return -1;
    return reducer.Finish(out, outW, outH) ? 0 : -1;
}
