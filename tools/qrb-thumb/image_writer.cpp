#include "image_writer.h"

#include "qrb_scoped.h"

#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <isa-l/igzip_lib.h>
#include <jpeglib.h>
#include <png.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qrbthumb {

namespace {

using ScopedBytes = std::unique_ptr<unsigned char[]>;

// ---- PNG -------------------------------------------------------------------------------------
//
// Deflate is nearly the whole cost of writing a PNG, and zlib's level 1 (what libpng and
// libspng both use) spends about 3 ms on a 320x240 photo: more than decoding it did. ISA-L's
// level 1 deflates the same rows in about a fifth of that time into files no bigger, so the
// rows are filtered and deflated here and libpng only frames the result (signature, IHDR,
// tEXt, IDAT, IEND, CRCs).

// One deflate call takes 32-bit sizes, and its output may outgrow its input by the headers of
// stored blocks.
constexpr size_t kMaxFilteredBytes = 0xF0000000u;
// Bounded for the reader's sake: a chunk may not exceed 2^31 - 1 bytes.
constexpr size_t kIdatBytes = size_t{1} << 20;

// Buffers kept from one image to the next on the same thread. Allocated afresh, their megabyte
// went back to the system at every free and page faults cost a fifth of each write.
struct DeflateScratch {
    isal_zstream stream;  // 80 KiB: too much for a worker thread's stack anyway
    unsigned char levelBuffer[ISAL_DEF_LVL1_DEFAULT];
    ScopedBytes filtered;
    size_t filteredCapacity = 0;
    ScopedBytes zlib;
    size_t zlibCapacity = 0;
};
// Beyond this a buffer is given back after the image: one poster must not pin its size.
constexpr size_t kKeptScratchBytes = size_t{8} << 20;

bool Reserve(ScopedBytes* buffer, size_t* capacity, size_t bytes) {
    if (*capacity >= bytes) return true;
    buffer->reset(new (std::nothrow) unsigned char[bytes]);
    *capacity = *buffer ? bytes : 0;
    return *capacity != 0;
}

void Release(ScopedBytes* buffer, size_t* capacity) {
    if (*capacity <= kKeptScratchBytes) return;
    buffer->reset();
    *capacity = 0;
}

DeflateScratch* ThreadScratch() {
    thread_local std::unique_ptr<DeflateScratch> scratch;
    if (!scratch) scratch.reset(new (std::nothrow) DeflateScratch);
    return scratch.get();
}

// Rows SUB-filtered (each byte minus the same byte of the pixel to its left) and swapped to
// RGBA. Of the filters we measured, SUB kept photos, line art and gradients small for the least
// time; unfiltered rows were cheaper still but made gradients seven times bigger.
void FilterRows(const unsigned char* bgra, size_t width, size_t height, unsigned char* out) {
    const size_t rowBytes = width * 4;
    for (size_t y = 0; y < height; ++y) {
        const unsigned char* s = bgra + y * rowBytes;
        unsigned char* d = out + y * (rowBytes + 1);
        *d++ = PNG_FILTER_VALUE_SUB;
        d[0] = s[2];
        d[1] = s[1];
        d[2] = s[0];
        d[3] = s[3];
        size_t x = 4;
#if defined(__SSE2__)
        // Four pixels at a time, which the compiler does not do at -O2: the pass drops from
        // about 70 to 12 us a 320x240 image. The scalar loop finishes the row.
        const __m128i greenAlpha = _mm_set1_epi32(static_cast<int>(0xFF00FF00u));
        const __m128i lowByte = _mm_set1_epi32(0xFF);
        for (; x + 16 <= rowBytes; x += 16) {
            const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x));
            const __m128i left = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x - 4));
            const __m128i diff = _mm_sub_epi8(here, left);
            const __m128i blueToRed = _mm_slli_epi32(_mm_and_si128(diff, lowByte), 16);
            const __m128i redToBlue = _mm_and_si128(_mm_srli_epi32(diff, 16), lowByte);
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(d + x),
                _mm_or_si128(_mm_and_si128(diff, greenAlpha), _mm_or_si128(blueToRed, redToBlue)));
        }
#endif
        for (; x < rowBytes; x += 4) {
            d[x + 0] = static_cast<unsigned char>(s[x + 2] - s[x - 2]);
            d[x + 1] = static_cast<unsigned char>(s[x + 1] - s[x - 3]);
            d[x + 2] = static_cast<unsigned char>(s[x + 0] - s[x - 4]);
            d[x + 3] = static_cast<unsigned char>(s[x + 3] - s[x - 1]);
        }
    }
}

// The image data as one zlib stream, in scratch->zlib (*zlibBytes of it).
bool DeflateImage(const unsigned char* bgra, size_t width, size_t height, DeflateScratch* scratch,
                  size_t* zlibBytes, std::string* error) {
    const size_t filteredBytes = (width * 4 + 1) * height;
    if (filteredBytes > kMaxFilteredBytes) {
        *error = "image of " + std::to_string(width) + "x" + std::to_string(height) +
                 " is too large for a PNG";
        return false;
    }
    // Room for the worst case, all stored blocks: 5 bytes a block of 64 KiB plus the wrapper.
    const size_t bound = filteredBytes + filteredBytes / 1024 + 1024;
    if (!Reserve(&scratch->filtered, &scratch->filteredCapacity, filteredBytes) ||
        !Reserve(&scratch->zlib, &scratch->zlibCapacity, bound)) {
        *error = "out of memory";
        return false;
    }
    FilterRows(bgra, width, height, scratch->filtered.get());

    isal_zstream& stream = scratch->stream;
    isal_deflate_stateless_init(&stream);
    stream.level = 1;
    stream.level_buf = scratch->levelBuffer;
    stream.level_buf_size = sizeof(scratch->levelBuffer);
    stream.hist_bits = 0;  // the full 32 KiB window: shorter ones bloat text and line art
    stream.gzip_flag = IGZIP_ZLIB;
    stream.next_in = scratch->filtered.get();
    stream.avail_in = static_cast<uint32_t>(filteredBytes);
    stream.next_out = scratch->zlib.get();
    stream.avail_out = static_cast<uint32_t>(bound);
    const int status = isal_deflate_stateless(&stream);
    if (status != COMP_OK) {
        *error = "deflate failed (ISA-L status " + std::to_string(status) + ")";
        return false;
    }
    *zlibBytes = stream.total_out;
    return true;
}

// The write struct is destroyed together with its info struct, which the deleter holds.
struct DestroyPngWrite {
    png_infop info = nullptr;
    void operator()(png_structp png) const noexcept {
        png_infop owned = info;
        png_destroy_write_struct(&png, &owned);
    }
};
using ScopedPngWrite = std::unique_ptr<png_struct, DestroyPngWrite>;

struct PngMessage {
    char text[200] = "";
};

[[noreturn]] void PngErrorExit(png_structp png, png_const_charp text) {
    auto* message = static_cast<PngMessage*>(png_get_error_ptr(png));
    std::snprintf(message->text, sizeof(message->text), "%s", text);
    png_longjmp(png, 1);
}

void PngIgnoreWarning(png_structp, png_const_charp) {}

// Everything the guarded frame touches: C state and raw pointers owned by the caller.
struct PngJob {
    png_structp png;
    png_infop info;
    std::FILE* file;
    png_uint_32 width;
    png_uint_32 height;
    png_textp text;
    int textCount;
    const unsigned char* zlib;
    size_t zlibBytes;
};

// The only frame that holds libpng's jump target; nothing with a destructor lives in it.
bool FramePngGuarded(const PngJob& job) {
    if (setjmp(png_jmpbuf(job.png))) return false;
    png_init_io(job.png, job.file);
    png_set_IHDR(job.png, job.info, job.width, job.height, 8, PNG_COLOR_TYPE_RGB_ALPHA,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (job.textCount > 0) png_set_text(job.png, job.info, job.text, job.textCount);
    png_write_info(job.png, job.info);
    // libpng never saw the rows, so png_write_end() would refuse to close the file: the last
    // two chunks go out as raw chunks too.
    for (size_t at = 0; at < job.zlibBytes; at += kIdatBytes) {
        const size_t n = job.zlibBytes - at < kIdatBytes ? job.zlibBytes - at : kIdatBytes;
        png_write_chunk(job.png, reinterpret_cast<png_const_bytep>("IDAT"), job.zlib + at, n);
    }
    png_write_chunk(job.png, reinterpret_cast<png_const_bytep>("IEND"), nullptr, 0);
    return true;
}

bool FramePng(std::FILE* file, size_t width, size_t height, const std::vector<TextChunk>& text,
              const unsigned char* zlib, size_t zlibBytes, std::string* error) {
    // libpng copies the pairs when they are set; it wants mutable pointers but writes nothing.
    std::vector<png_text> chunks(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        chunks[i].compression = PNG_TEXT_COMPRESSION_NONE;
        chunks[i].key = const_cast<char*>(text[i].key.c_str());
        chunks[i].text = const_cast<char*>(text[i].value.c_str());
        chunks[i].text_length = text[i].value.size();
    }

    PngMessage message;
    ScopedPngWrite png(
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, &PngErrorExit, &PngIgnoreWarning));
    if (png) png.get_deleter().info = png_create_info_struct(png.get());
    if (!png || !png.get_deleter().info) {
        *error = "out of memory";
        return false;
    }
    const PngJob job{png.get(),
                     png.get_deleter().info,
                     file,
                     static_cast<png_uint_32>(width),
                     static_cast<png_uint_32>(height),
                     chunks.data(),
                     static_cast<int>(chunks.size()),
                     zlib,
                     zlibBytes};
    if (!FramePngGuarded(job)) {
        *error = std::string("PNG encoding failed: ") + message.text;
        return false;
    }
    return true;
}

bool WritePng(std::FILE* file, const unsigned char* bgra, size_t width, size_t height,
              const std::vector<TextChunk>& text, std::string* error) {
    DeflateScratch* scratch = ThreadScratch();
    if (scratch == nullptr) {
        *error = "out of memory";
        return false;
    }
    size_t zlibBytes = 0;
    const bool ok = DeflateImage(bgra, width, height, scratch, &zlibBytes, error) &&
                    FramePng(file, width, height, text, scratch->zlib.get(), zlibBytes, error);
    Release(&scratch->filtered, &scratch->filteredCapacity);
    Release(&scratch->zlib, &scratch->zlibCapacity);
    return ok;
}

// ---- JPEG ------------------------------------------------------------------------------------

constexpr int kJpegQuality = 85;

struct JpegError {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

// libjpeg's own handler would exit the process.
[[noreturn]] void JpegErrorExit(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<JpegError*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

// Warnings would go to stderr, in the middle of the tool's own report.
void JpegIgnoreMessage(j_common_ptr) {}

// Destroys the compressor only: its storage lives in the caller's frame.
struct DestroyCompress {
    void operator()(jpeg_compress_struct* cinfo) const noexcept { jpeg_destroy_compress(cinfo); }
};
using ScopedCompress = std::unique_ptr<jpeg_compress_struct, DestroyCompress>;

// Everything the guarded frame touches: C state and raw pointers owned by the caller.
struct JpegJob {
    jpeg_compress_struct* cinfo;
    JpegError* err;
    std::FILE* file;
    const unsigned char* bgra;
    JDIMENSION width;
    JDIMENSION height;
    unsigned char* row;  // width * 4 bytes
};

// The only frame that holds libjpeg's jump target; nothing with a destructor lives in it.
bool CompressJpegGuarded(const JpegJob& job) {
    jpeg_compress_struct* cinfo = job.cinfo;
    if (setjmp(job.err->jump)) return false;
    jpeg_create_compress(cinfo);
    jpeg_stdio_dest(cinfo, job.file);
    cinfo->image_width = job.width;
    cinfo->image_height = job.height;
    cinfo->input_components = 4;
    cinfo->in_color_space = JCS_EXT_BGRX;  // the raster's own order: no conversion pass
    jpeg_set_defaults(cinfo);
    jpeg_set_quality(cinfo, kJpegQuality, TRUE);
    // 4:2:0, the chroma sampling every decoder handles at full speed.
    cinfo->comp_info[0].h_samp_factor = 2;
    cinfo->comp_info[0].v_samp_factor = 2;
    for (int c = 1; c < cinfo->num_components; ++c) {
        cinfo->comp_info[c].h_samp_factor = 1;
        cinfo->comp_info[c].v_samp_factor = 1;
    }
    jpeg_start_compress(cinfo, TRUE);
    const size_t rowBytes = static_cast<size_t>(job.width) * 4;
    while (cinfo->next_scanline < cinfo->image_height) {
        // A JPEG has no alpha: each pixel is composited onto black, so what was transparent
        // comes out black rather than showing colours that were never meant to be seen.
        const unsigned char* s = job.bgra + cinfo->next_scanline * rowBytes;
        for (size_t i = 0; i < rowBytes; i += 4) {
            const unsigned a = s[i + 3];
            job.row[i + 0] = static_cast<unsigned char>((s[i + 0] * a + 127) / 255);
            job.row[i + 1] = static_cast<unsigned char>((s[i + 1] * a + 127) / 255);
            job.row[i + 2] = static_cast<unsigned char>((s[i + 2] * a + 127) / 255);
        }
        JSAMPROW rows[1] = {job.row};
        jpeg_write_scanlines(cinfo, rows, 1);
    }
    jpeg_finish_compress(cinfo);
    return true;
}

bool WriteJpeg(std::FILE* file, const unsigned char* bgra, size_t width, size_t height,
               std::string* error) {
    if (width > JPEG_MAX_DIMENSION || height > JPEG_MAX_DIMENSION) {
        *error = "image of " + std::to_string(width) + "x" + std::to_string(height) +
                 " is too large for a JPEG";
        return false;
    }
    ScopedBytes row(new (std::nothrow) unsigned char[width * 4]);
    if (!row) {
        *error = "out of memory";
        return false;
    }
    jpeg_compress_struct storage;
    std::memset(&storage, 0, sizeof(storage));  // destroying a never-created one is harmless
    JpegError err;
    std::memset(&err, 0, sizeof(err));
    storage.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = JpegErrorExit;
    err.pub.output_message = JpegIgnoreMessage;
    ScopedCompress cinfo(&storage);
    const JpegJob job{cinfo.get(),
                      &err,
                      file,
                      bgra,
                      static_cast<JDIMENSION>(width),
                      static_cast<JDIMENSION>(height),
                      row.get()};
    if (!CompressJpegGuarded(job)) {
        *error = std::string("JPEG encoding failed: ") + err.message;
        return false;
    }
    return true;
}

}  // namespace

bool WriteBgraImage(const std::string& path, ImageFormat format, const unsigned char* bgra,
                    size_t bytes, int width, int height, const std::vector<TextChunk>& text,
                    std::string* error) {
    if (bgra == nullptr || width <= 0 || height <= 0) {
        *error = "empty image";
        return false;
    }
    // Checked without overflowing: sides whose product wraps must not match the buffer.
    const size_t w = static_cast<size_t>(width);
    const size_t h = static_cast<size_t>(height);
    if (w > std::numeric_limits<size_t>::max() / 4 / h || w * h * 4 != bytes) {
        *error = "image of " + std::to_string(bytes) + " bytes is not " + std::to_string(width) +
                 "x" + std::to_string(height) + " at 4 bytes a pixel";
        return false;
    }

    QRBScopedFile file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    bool ok = format == ImageFormat::Png ? WritePng(file.get(), bgra, w, h, text, error)
                                         : WriteJpeg(file.get(), bgra, w, h, error);
    // A full disk shows only when the buffered bytes are flushed.
    const bool closed = std::fclose(file.release()) == 0;
    if (ok && !closed) {
        ok = false;
        *error = "cannot write " + path + ": " + std::strerror(errno);
    }
    if (!ok) std::remove(path.c_str());
    return ok;
}

const char* ExtensionOf(ImageFormat format) { return format == ImageFormat::Png ? "png" : "jpg"; }

}  // namespace qrbthumb
