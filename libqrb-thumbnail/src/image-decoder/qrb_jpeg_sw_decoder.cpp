// Software JPEG decoding with libjpeg (DCT scaling 1/2, 1/4, 1/8), for the whole picture, the
// EXIF thumbnail and the large thumbnail alike.
//
// Errors: our error manager's error_exit logs libjpeg's message and jumps back to the one
// guarded frame of the current step (setjmp lives in small functions that hold only C state;
// m_JpegSWDecoding owns the FILE* and the decompressor and releases them on every path).
//
// Memory. A baseline picture is read row by row: libjpeg's row buffers at the scale in use are
// all it holds (a few MiB at the widest). A progressive or other multi-scan picture also makes
// libjpeg keep the coefficients of the whole picture, 2 bytes a sample whatever the DCT scale
// (128 bytes a block, every component rounded up to whole MCUs): 69 MiB for a 12-megapixel
// 4:4:4 photo, 288 MiB for a 50-megapixel one. That buffer is computed here exactly as libjpeg
// will allocate it and
//  - refused above kMaxCoefficientBytes (any three-component picture of up to 2^26 pixels,
//    67 megapixels, fits at every subsampling; only a hostile header asks for more);
//  - taken from the process-wide whole-picture budget of the same size (QRBWholePictureBudget,
//    shared with HEIF decodes) before libjpeg allocates it, so that the memory of all decodes
//    in flight together stays within it: a decode that does not fit waits for the others;
//  - granted to libjpeg as its mem->max_memory_to_use, beside kRowMemory for everything else,
//    so that libjpeg itself fails a decode that would take more than was reckoned.
//
// Limits on time for hostile input (a file may declare 65500 x 65500 pixels over a few bytes):
//  - kMaxSourcePixels, kMaxDecodedPixels: how much picture a decode may walk through;
//  - kMaxScans, kMaxScanBlocks: a progress monitor ends files with endless scans;
//  - kMaxWarnings: corrupt data produces a warning per fault; past this many we give up.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_util.h"
#include "image-decoder/qrb_jpeg_memory_budget.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <memory>
#include <new>

#include <jpeglib.h>
#include <jerror.h>

// Defined here, beside the per-pixel loops that call it, so that the compiler can inline it.
void CQRBImageDecoder::m_WriteRGBData(const unsigned char* sample, int components,
                                      unsigned char* dst) {
    if (components == 1) {
        dst[0] = dst[1] = dst[2] = sample[0];
    } else {
        dst[0] = sample[2];
        dst[1] = sample[1];
        dst[2] = sample[0];
    }
    dst[3] = 255;
}

namespace {

// 2^29 pixels (e.g. 32768 x 16384). Every source pixel is entropy-decoded even at 1/8 scale;
// beyond this a decode takes many seconds, and no camera makes such pictures.
constexpr uint64_t kMaxSourcePixels = 1ull << 29;
// 2^26 pixels after DCT scaling: rows are sampled one at a time, so this bounds time (the
// inverse DCT and colour conversion of every decoded pixel), not memory. A 64-megapixel photo
// decodes at full scale; a 65500 x 65500 file does not, even at 1/8.
constexpr uint64_t kMaxDecodedPixels = 1ull << 26;
// libjpeg's allocations for one decode besides the coefficient buffer: the row buffers of the
// main, upsampling and colour-conversion stages at the widest picture take a few MiB.
constexpr long kRowMemory = 64L << 20;
// 384 MiB: the coefficients of a 2^26-pixel (67-megapixel) picture in three components at
// 4:4:4, twice as many pixels at 4:2:0. Also the process-wide budget of coefficient memory, so
// that the largest picture accepted can always be decoded, alone.
constexpr uint64_t kMaxCoefficientBytes = kQRBWholePictureBudgetBytes;
// Real progressive files have about ten scans; a thousand is an attack or garbage.
constexpr int kMaxScans = 1000;
// Each scan walks the blocks of its components again: more than 2^27 blocks in all (over 40
// passes over every component of the largest picture accepted, where encoders write about
// ten scans of one or three components) takes seconds and is ended.
constexpr uint64_t kMaxScanBlocks = 1ull << 27;
// Corrupt-data warnings before the decode is abandoned; the first few are logged.
constexpr int kMaxWarnings = 1000;
constexpr int kLoggedWarnings = 3;
constexpr size_t kSourceBufferSize = 4096;

// The coefficient memory of all decodes in flight.
CQRBJpegMemoryBudget& CoefficientBudget() { return QRBWholePictureBudget(); }

// Destroys the decompressor only: its storage lives in the caller's frame.
void DestroyDecompress(jpeg_decompress_struct* cinfo) { jpeg_destroy_decompress(cinfo); }
using ScopedDecompress = QRBScoped<jpeg_decompress_struct, DestroyDecompress>;

struct ErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
    int warnings;
};

[[noreturn]] void JumpBack(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1);
}

void ErrorExit(j_common_ptr cinfo) {
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    QRB_LOGW("libjpeg error: %s", text);
    JumpBack(cinfo);
}

void EmitMessage(j_common_ptr cinfo, int level) {
    if (level >= 0) return;  // trace messages
    ErrorManager* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    ++err->warnings;
    ++err->pub.num_warnings;
    if (err->warnings <= kLoggedWarnings) {
        char text[JMSG_LENGTH_MAX];
        (*cinfo->err->format_message)(cinfo, text);
        QRB_LOGD("libjpeg warning: %s", text);
    }
    if (err->warnings > kMaxWarnings) {
        QRB_LOGW("more than %d corrupt-data warnings: decode abandoned", kMaxWarnings);
        JumpBack(cinfo);
    }
}

void OutputMessage(j_common_ptr) {}

// Reads [offset, offset + remaining) of a FILE*, so that an embedded thumbnail's decoder never
// reads into the picture around it. Past the end it supplies an EOI, as libjpeg's stdio
// source does, so that a truncated file still yields its decoded part.
struct FileSource {
    jpeg_source_mgr pub;
    FILE* fp;
    uint64_t remaining;
    JOCTET* buffer;
    bool startOfFile;
};

void InitSource(j_decompress_ptr cinfo) {
    reinterpret_cast<FileSource*>(cinfo->src)->startOfFile = true;
}

boolean FillInputBuffer(j_decompress_ptr cinfo) {
    FileSource* src = reinterpret_cast<FileSource*>(cinfo->src);
    const size_t want = static_cast<size_t>(std::min<uint64_t>(src->remaining, kSourceBufferSize));
    size_t got = want > 0 ? std::fread(src->buffer, 1, want, src->fp) : 0;
    if (got == 0) {
        if (src->startOfFile) ERREXIT(cinfo, JERR_INPUT_EMPTY);
        WARNMS(cinfo, JWRN_JPEG_EOF);
        src->buffer[0] = 0xFF;
        src->buffer[1] = JPEG_EOI;
        got = 2;
    } else {
        src->remaining -= got;
    }
    src->pub.next_input_byte = src->buffer;
    src->pub.bytes_in_buffer = got;
    src->startOfFile = false;
    return TRUE;
}

void SkipInputData(j_decompress_ptr cinfo, long count) {
    jpeg_source_mgr* src = cinfo->src;
    if (count <= 0) return;
    while (count > static_cast<long>(src->bytes_in_buffer)) {
        count -= static_cast<long>(src->bytes_in_buffer);
        FillInputBuffer(cinfo);  // never suspends: supplies an EOI at the end
    }
    src->next_input_byte += count;
    src->bytes_in_buffer -= static_cast<size_t>(count);
}

void TermSource(j_decompress_ptr) {}

struct Progress {
    jpeg_progress_mgr pub;
    int lastScan;           // the scan whose blocks were counted last
    uint64_t walkedBlocks;  // blocks of every scan begun so far, its own components only
};

void ProgressMonitor(j_common_ptr cinfo) {
    const j_decompress_ptr d = reinterpret_cast<j_decompress_ptr>(cinfo);
    Progress* progress = reinterpret_cast<Progress*>(cinfo->progress);
    if (d->input_scan_number != progress->lastScan) {
        progress->lastScan = d->input_scan_number;
        for (int i = 0; i < d->comps_in_scan && i < MAX_COMPS_IN_SCAN; ++i) {
            const jpeg_component_info* comp = d->cur_comp_info[i];
            if (comp == nullptr) continue;
            progress->walkedBlocks +=
                static_cast<uint64_t>(comp->width_in_blocks) * comp->height_in_blocks;
        }
    }
    if (d->input_scan_number > kMaxScans || progress->walkedBlocks > kMaxScanBlocks) {
        QRB_LOGW("scan %d, %llu blocks walked: decode abandoned", d->input_scan_number,
                 static_cast<unsigned long long>(progress->walkedBlocks));
        JumpBack(cinfo);
    }
}

// Everything the guarded frames touch. C state and raw pointers only: a longjmp out of them
// skips no destructor.
struct DecodeJob {
    jpeg_decompress_struct* cinfo;
    ErrorManager* err;
    Progress* progress;
    FILE* fp;
    uint64_t limit;
    int scale;
    JSAMPARRAY row;
};

int GuardedReadHeader(DecodeJob* job) {
    jpeg_decompress_struct* cinfo = job->cinfo;
    if (setjmp(job->err->jump)) return -1;
    jpeg_create_decompress(cinfo);
    cinfo->mem->max_memory_to_use = kRowMemory;
    FileSource* src = static_cast<FileSource*>((*cinfo->mem->alloc_small)(
        reinterpret_cast<j_common_ptr>(cinfo), JPOOL_PERMANENT, sizeof(FileSource)));
    src->buffer = static_cast<JOCTET*>((*cinfo->mem->alloc_small)(
        reinterpret_cast<j_common_ptr>(cinfo), JPOOL_PERMANENT, kSourceBufferSize));
    src->fp = job->fp;
    src->remaining = job->limit;
    src->startOfFile = true;
    src->pub.init_source = InitSource;
    src->pub.fill_input_buffer = FillInputBuffer;
    src->pub.skip_input_data = SkipInputData;
    src->pub.resync_to_restart = jpeg_resync_to_restart;
    src->pub.term_source = TermSource;
    src->pub.bytes_in_buffer = 0;
    src->pub.next_input_byte = nullptr;
    cinfo->src = &src->pub;
    jpeg_read_header(cinfo, TRUE);
    return 0;
}

int GuardedCalcOutput(DecodeJob* job) {
    jpeg_decompress_struct* cinfo = job->cinfo;
    if (setjmp(job->err->jump)) return -1;
    cinfo->scale_num = 1;
    cinfo->scale_denom = static_cast<unsigned int>(job->scale);
    cinfo->dither_mode = JDITHER_ORDERED;
    jpeg_calc_output_dimensions(cinfo);
    return 0;
}

int GuardedStart(DecodeJob* job) {
    jpeg_decompress_struct* cinfo = job->cinfo;
    if (setjmp(job->err->jump)) return -1;
    cinfo->progress = &job->progress->pub;
    jpeg_start_decompress(cinfo);
    const JDIMENSION stride =
        cinfo->output_width * static_cast<JDIMENSION>(cinfo->output_components);
    job->row =
        (*cinfo->mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE, stride, 1);
    return 0;
}

// Decodes every row into raster (output_width x output_height x 4 bytes).
int GuardedReadAll(DecodeJob* job, unsigned char* raster) {
    jpeg_decompress_struct* cinfo = job->cinfo;
    if (setjmp(job->err->jump)) return -1;
    const int components = cinfo->output_components;
    unsigned char* dst = raster;
    while (cinfo->output_scanline < cinfo->output_height) {
        if (jpeg_read_scanlines(cinfo, job->row, 1) != 1) return -1;
        const JSAMPLE* sample = job->row[0];
        for (JDIMENSION x = 0; x < cinfo->output_width; ++x) {
            CQRBImageDecoder::m_WriteRGBData(sample, components, dst);
            sample += components;
            dst += 4;
        }
    }
    return 0;
}

// Direct sampling: output pixel (x, y) is decoded pixel ((int)(x * ratioX), (int)(y * ratioY));
// rows in between are read and dropped one at a time.
int GuardedSample(DecodeJob* job, unsigned char* out, int outW, int outH) {
    jpeg_decompress_struct* cinfo = job->cinfo;
    if (setjmp(job->err->jump)) return -1;
    const int components = cinfo->output_components;
    const int scaledW = static_cast<int>(cinfo->output_width);
    const int scaledH = static_cast<int>(cinfo->output_height);
    const double ratioY = static_cast<double>(scaledH) / outH;
    const double ratioX = static_cast<double>(scaledW) / outW;
    unsigned char* dst = out;
    for (int y = 0; y < outH; ++y) {
        const int wanted = std::min(static_cast<int>(y * ratioY), scaledH - 1);
        while (static_cast<int>(cinfo->output_scanline) <= wanted) {
            if (jpeg_read_scanlines(cinfo, job->row, 1) != 1) return -1;
        }
        const JSAMPLE* row = job->row[0];
        for (int x = 0; x < outW; ++x) {
            const int sx = std::min(static_cast<int>(x * ratioX), scaledW - 1);
            CQRBImageDecoder::m_WriteRGBData(row + static_cast<size_t>(sx) * components, components,
                                             dst);
            dst += 4;
        }
    }
    return 0;
}

// Bytes of the whole-picture coefficient buffer a multi-scan decode allocates: every
// component's blocks rounded up to whole MCUs, as libjpeg's coefficient controller asks its
// memory manager for them, whatever the DCT scale.
uint64_t CoefficientBytes(const jpeg_decompress_struct* cinfo) {
    uint64_t blocks = 0;
    for (int c = 0; c < cinfo->num_components; ++c) {
        const jpeg_component_info* comp = &cinfo->comp_info[c];
        const uint64_t h = static_cast<uint64_t>(comp->h_samp_factor > 0 ? comp->h_samp_factor : 1);
        const uint64_t v = static_cast<uint64_t>(comp->v_samp_factor > 0 ? comp->v_samp_factor : 1);
        const uint64_t wide = (comp->width_in_blocks + h - 1) / h * h;
        const uint64_t high = (comp->height_in_blocks + v - 1) / v * v;
        blocks += wide * high;
    }
    return blocks * sizeof(JBLOCK);
}

// Our error manager (errors jump back, warnings are counted) and the progress monitor that ends
// endless scans.
void InstallHandlers(jpeg_decompress_struct* storage, ErrorManager* err, Progress* progress) {
    std::memset(err, 0, sizeof(*err));
    storage->err = jpeg_std_error(&err->pub);
    err->pub.error_exit = ErrorExit;
    err->pub.emit_message = EmitMessage;
    err->pub.output_message = OutputMessage;
    std::memset(progress, 0, sizeof(*progress));
    progress->pub.progress_monitor = ProgressMonitor;
    progress->lastScan = -1;
}

// Refuses a picture with more pixels than a decode may walk through, or whose coefficients
// (multi-scan files only; *coefficientBytes, 0 for others) would take more than the budget.
bool CheckSourceLimits(jpeg_decompress_struct* cinfo, uint64_t* coefficientBytes) {
    const uint64_t sourcePixels = static_cast<uint64_t>(cinfo->image_width) * cinfo->image_height;
    if (sourcePixels > kMaxSourcePixels) {
        QRB_LOGW("picture %u x %u exceeds %llu pixels", cinfo->image_width, cinfo->image_height,
                 static_cast<unsigned long long>(kMaxSourcePixels));
        return false;
    }
    *coefficientBytes = jpeg_has_multiple_scans(cinfo) ? CoefficientBytes(cinfo) : 0;
    if (*coefficientBytes > kMaxCoefficientBytes) {
        QRB_LOGW("multi-scan picture %u x %u needs %llu bytes of coefficients", cinfo->image_width,
                 cinfo->image_height, static_cast<unsigned long long>(*coefficientBytes));
        return false;
    }
    return true;
}

// Refuses output this decoder cannot convert (only grey, three-component and four-component
// (CMYK, YCCK) output can be) or too many pixels after DCT scaling.
bool CheckOutputLimits(const jpeg_decompress_struct& cinfo, int scale) {
    const int components = cinfo.output_components;
    if (components != 1 && components != 3 && components != 4) {
        QRB_LOGW("cannot convert %d components", components);
        return false;
    }
    const uint64_t decodedPixels = static_cast<uint64_t>(cinfo.output_width) * cinfo.output_height;
    if (decodedPixels > kMaxDecodedPixels) {
        QRB_LOGW("decoded size %u x %u at 1/%d exceeds %llu pixels", cinfo.output_width,
                 cinfo.output_height, scale, static_cast<unsigned long long>(kMaxDecodedPixels));
        return false;
    }
    return true;
}

// Waits for coefficientBytes of the process-wide budget (into *grant) and lets libjpeg take
// that much beside its row buffers.
void ReserveCoefficients(jpeg_decompress_struct* cinfo, uint64_t coefficientBytes,
                         CQRBJpegMemoryBudget::Grant* grant) {
    if (coefficientBytes == 0) return;
    QRB_LOGD("multi-scan picture %u x %u: %llu bytes of coefficients", cinfo->image_width,
             cinfo->image_height, static_cast<unsigned long long>(coefficientBytes));
    *grant = CoefficientBudget().Acquire(coefficientBytes);
    cinfo->mem->max_memory_to_use = kRowMemory + static_cast<long>(coefficientBytes);
}

// Writes the started decode into out (outW x outH).
int DecodeIntoOutput(DecodeJob* job, unsigned char* out, int outW, int outH) {
    const int scaledW = static_cast<int>(job->cinfo->output_width);
    const int scaledH = static_cast<int>(job->cinfo->output_height);
    if (scaledW >= outW || scaledH >= outH) return GuardedSample(job, out, outW, outH);
    // Smaller than the output both ways: decode whole, then enlarge. The raster is smaller
    // than the output, which is itself bounded.
    std::unique_ptr<unsigned char[]> raster(
        new (std::nothrow) unsigned char[static_cast<size_t>(scaledW) * scaledH * 4]);
    if (!raster) return -1;
    if (GuardedReadAll(job, raster.get()) != 0) return -1;
    const bool scaled =
        CQRBImageUtil::ScaleARGBFromCubic(raster.get(), scaledW, scaledH, outW, outH, out);
    return scaled ? 0 : -1;
}

}  // namespace

int CQRBImageDecoder::m_JpegSWDecoding(unsigned char* out, uint64_t offset, int scale) {
    const int outW = static_cast<int>(m_uOutputWidth);
    const int outH = static_cast<int>(m_uOutputHeight);
    if (out == nullptr || outW <= 0 || outH <= 0 || m_pPath == nullptr) return -1;

    QRBScopedFile fp(std::fopen(m_pPath, "rb"));
    if (!fp) {
        QRB_LOGW("%s:   OPEN ERROR", m_pPath);
        return -1;
    }
    if (fseeko(fp.get(), static_cast<off_t>(offset), SEEK_SET) != 0) {
        QRB_LOGW("ERROR FOR SEEK THE FILE FROM SET, errno is: %d ", errno);
        return -1;
    }

    jpeg_decompress_struct storage;
    std::memset(&storage, 0, sizeof(storage));  // destroying a never-created one is harmless
    ErrorManager err;
    Progress progress;
    InstallHandlers(&storage, &err, &progress);
    // Declared before the decompressor, so that its bytes go back only once libjpeg has freed
    // them.
    CQRBJpegMemoryBudget::Grant coefficients;
    ScopedDecompress cinfo(&storage);

    DecodeJob job{cinfo.get(), &err, &progress, fp.get(), m_SourceLength(offset), scale, nullptr};
    uint64_t coefficientBytes = 0;
    if (GuardedReadHeader(&job) != 0 || !CheckSourceLimits(&storage, &coefficientBytes) ||
        GuardedCalcOutput(&job) != 0 || !CheckOutputLimits(storage, scale)) {
        return -1;
    }
    ReserveCoefficients(&storage, coefficientBytes, &coefficients);
    if (GuardedStart(&job) != 0) return -1;
    const int scaledW = static_cast<int>(storage.output_width);
    const int scaledH = static_cast<int>(storage.output_height);
    QRB_LOGD("decodeheight=%d, decodewidth=%d, uScaledHeight=%d, uScaledWidth=%d",
             static_cast<int>(storage.image_height), static_cast<int>(storage.image_width), scaledH,
             scaledW);
    if (scaledW <= 0 || scaledH <= 0) return -1;
    if (DecodeIntoOutput(&job, out, outW, outH) != 0) return -1;
    // Every output row is written; the rest of the file holds nothing the output needs, so the
    // decode is ended here rather than read to its end.
    jpeg_abort_decompress(&storage);
    return 0;
}
