// Hostile pictures: headers that declare huge pictures over a few bytes, genuine large
// pictures, endless progressive scans, truncation, zero-length markers and directory cycles.
// Each file is decoded in a fresh child process, which checks its own peak resident memory
// (getrusage ru_maxrss, before and after) against the 128 MiB the decoder promises to stay
// under, plus, for a progressive JPEG, the whole-picture coefficients it declares (which the
// decoder accepts up to 384 MiB); the parent checks the outcome. This bounds memory, not
// speed: no timing is asserted (an alarm only turns a hang into a failure).
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_jpeg_writer.h"
#include "qrb_test_picture.h"

#include <gif_lib.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tiffio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QRB_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QRB_SANITIZED 1
#endif
#endif
#ifndef QRB_SANITIZED
#define QRB_SANITIZED 0
#endif

namespace {

using qrbpicturetest::PngChunk;
using qrbpicturetest::PngWithHeader;
using qrbpicturetest::ScratchDir;
using qrbpicturetest::ReadFileBytes;
using qrbtest::JpegSpec;
using qrbtest::MakeJpeg;

constexpr long kMemoryBoundKb = 128 * 1024;
// Sanitizers keep shadow memory beside every byte the decoder touches (TSan several times the
// application's own), so there the growth may be that much larger; a decoder that tried to
// hold a declared 30000 x 30000 picture would still be caught.
constexpr long kGrowthBoundKb = QRB_SANITIZED ? 8 * kMemoryBoundKb : kMemoryBoundKb;

enum class Expect { kFails, kDecodes, kEither };

// Child exit codes, as bits.
constexpr int kGrewTooMuch = 1;
constexpr int kPeakTooHigh = 2;
constexpr int kDecodedUnexpectedly = 4;
constexpr int kFailedUnexpectedly = 8;

// Decodes url at w x h in a fresh process. 0 when the child met every expectation.
int DecodeInChild(const std::string& url, int w, int h, Expect expect, long allowanceKb,
                  long* growthKb, long* peakKb) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        close(fds[0]);
        alarm(120);  // a hang fails the test instead of stalling it
        struct rusage before;
        getrusage(RUSAGE_SELF, &before);
        qrb_picture_thumb_param param;
        param.width = w;
        param.height = h;
        int outW = 0;
        int outH = 0;
        unsigned char* buffer =
            CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &outW, &outH, nullptr);
        const bool decoded = buffer != nullptr;
        struct rusage after;
        getrusage(RUSAGE_SELF, &after);
        std::free(buffer);
        const long growth = after.ru_maxrss - before.ru_maxrss;
        int code = 0;
        if (growth >= kGrowthBoundKb + (QRB_SANITIZED ? 8 : 1) * allowanceKb) code |= kGrewTooMuch;
        // Sanitizers keep shadow memory and freed blocks resident: only the growth counts there.
        if (!QRB_SANITIZED && after.ru_maxrss >= kMemoryBoundKb + allowanceKb) code |= kPeakTooHigh;
        if (expect == Expect::kFails && decoded) code |= kDecodedUnexpectedly;
        if (expect == Expect::kDecodes && !decoded) code |= kFailedUnexpectedly;
        const long report[2] = {growth, after.ru_maxrss};
        if (write(fds[1], report, sizeof(report)) != sizeof(report)) code |= 64;
        _exit(code);
    }
    close(fds[1]);
    long report[2] = {-1, -1};
    if (read(fds[0], report, sizeof(report)) != sizeof(report)) report[0] = report[1] = -1;
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    *growthKb = report[0];
    *peakKb = report[1];
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

// A JPEG whose frame header says w x h, followed by junk instead of image data.
std::string JpegOverJunk(int w, int h, bool progressive, size_t junkBytes) {
    JpegSpec spec;
    spec.width = 16;
    spec.height = 16;
    spec.progressive = progressive;
    std::string bytes = MakeJpeg(spec);
    const size_t sof = bytes.find(progressive ? "\xFF\xC2" : "\xFF\xC0");
    bytes[sof + 5] = static_cast<char>(h >> 8);
    bytes[sof + 6] = static_cast<char>(h & 0xFF);
    bytes[sof + 7] = static_cast<char>(w >> 8);
    bytes[sof + 8] = static_cast<char>(w & 0xFF);
    const size_t sos = bytes.find("\xFF\xDA");
    const size_t scanStart = sos + 2 +
                             ((static_cast<unsigned char>(bytes[sos + 2]) << 8) |
                              static_cast<unsigned char>(bytes[sos + 3]));
    std::string junk;
    uint32_t x = 12345;
    for (size_t i = 0; i < junkBytes; ++i) {
        x = x * 1103515245u + 12345u;
        const char c = static_cast<char>(x >> 24);
        junk.push_back(c == '\xFF' ? '\x7F' : c);  // no markers in the junk
    }
    return bytes.substr(0, scanStart) + junk;
}

// A tiny multi-scan JPEG whose last scan is repeated `copies` times before its EOI. Repeated
// progressive scans break the progression (a warning for every coefficient); repeated
// sequential scans are legal, so only the scan count can stop them.
std::string EndlessScans(int copies, bool progressive) {
    JpegSpec spec;
    spec.width = 16;
    spec.height = 16;
    spec.progressive = progressive;
    spec.sequentialScans = !progressive;
    const std::string bytes = MakeJpeg(spec);
    const size_t lastSos = bytes.rfind("\xFF\xDA");
    const size_t eoi = bytes.rfind("\xFF\xD9");
    const std::string scan = bytes.substr(lastSos, eoi - lastSos);
    std::string out = bytes.substr(0, eoi);
    for (int i = 0; i < copies; ++i) out += scan;
    return out + bytes.substr(eoi);
}

// A genuine large PNG (fast compression, a few colours).
std::string LargePng(uint32_t w, uint32_t h) {
    qrbtest::PngSpec spec;
    spec.width = w;
    spec.height = h;
    spec.compression = 1;
    spec.pixel = [w, h](uint32_t x, uint32_t y, uint16_t* s) {
        s[0] = x < w / 2 ? 255 : 0;
        s[1] = y < h / 2 ? 255 : 0;
        s[2] = 64;
    };
    return qrbtest::MakePng(spec);
}

// A BMP info header declaring w x h at bpp with the given compression and data.
std::string BmpOver(int32_t w, int32_t h, uint32_t bpp, uint32_t compression,
                    const std::string& data) {
    using qrbtest::LittleEndian;
    std::string palette;
    for (uint32_t i = 0; bpp <= 8 && i < (1u << bpp); ++i)
        palette += LittleEndian(i * 0x010101u, 4);
    const uint32_t offset = 14 + 40 + static_cast<uint32_t>(palette.size());
    const std::string header = LittleEndian(40, 4) + LittleEndian(static_cast<uint32_t>(w), 4) +
                               LittleEndian(static_cast<uint32_t>(h), 4) + LittleEndian(1, 2) +
                               LittleEndian(bpp, 2) + LittleEndian(compression, 4) +
                               LittleEndian(0, 4) + LittleEndian(2835, 4) + LittleEndian(2835, 4) +
                               LittleEndian(0, 8);
    return "BM" + LittleEndian(0, 8) + LittleEndian(offset, 4) + header + palette + data;
}

std::string Describe(int code) {
    std::string s;
    if (code & kGrewTooMuch) s += " resident memory grew past the bound;";
    if (code & kPeakTooHigh) s += " peak resident memory past 128 MiB and the coefficients;";
    if (code & kDecodedUnexpectedly) s += " decoded but should have failed;";
    if (code & kFailedUnexpectedly) s += " failed but should have decoded;";
    if (code >= 128) s += " killed by signal " + std::to_string(code - 128);
    return s;
}

// One hostile or large file: its bytes (or a fixture's name), the request, what must happen,
// and the whole-picture coefficients a progressive file declares, allowed on top of the bound.
struct HostileCase {
    const char* name;
    std::function<std::string()> bytes;  // null: name is a fixture of make_picture_fixtures.sh
    Expect expect;
    int w = 320;
    int h = 240;
    long coefficientMiB = 0;
};

void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

class PictureHostileInputTest : public ::testing::TestWithParam<HostileCase> {
protected:
    ScratchDir scratch;
};

TEST_P(PictureHostileInputTest, StaysWithinTheMemoryBoundAndEndsAsExpected) {
    const HostileCase& c = GetParam();
    std::string url = std::string("file://") + QRB_PICTURE_FIXTURE_DIR + "/" + c.name;
    if (c.bytes) {
        const std::string bytes = c.bytes();
        ASSERT_FALSE(bytes.empty());
        url = "file://" + scratch.Write(c.name, bytes);
    }
    long growthKb = -1;
    long peakKb = -1;
    const int code =
        DecodeInChild(url, c.w, c.h, c.expect, c.coefficientMiB * 1024, &growthKb, &peakKb);
    EXPECT_EQ(0, code) << Describe(code) << " (growth " << growthKb << " KiB, peak " << peakKb
                       << " KiB)";
    std::printf("%-28s resident growth %ld KiB, peak %ld KiB\n", c.name, growthKb, peakKb);
}

std::string PngJunk() { return PngChunk("IDAT", std::string(4096, '\x33')) + PngChunk("IEND", ""); }

// A 640 x 480 JPEG with an 80 x 60 EXIF thumbnail, for cuts and patches.
std::string PhotoWithThumb() {
    JpegSpec spec;
    spec.width = 640;
    spec.height = 480;
    spec.thumbWidth = 80;
    spec.thumbHeight = 60;
    return MakeJpeg(spec);
}

INSTANTIATE_TEST_SUITE_P(
    Files, PictureHostileInputTest,
    ::testing::Values(
        HostileCase{"png-30000.png", [] { return PngWithHeader(30000, 30000, PngJunk()); },
                    Expect::kFails},
        // Under the pixel bound (100 megapixels), the junk fails the first row.
        HostileCase{"png-10000.png", [] { return PngWithHeader(10000, 10000, PngJunk()); },
                    Expect::kFails},
        // Valid compressed data that stops after a few rows.
        HostileCase{"png-short-data.png",
                    [] { return PngWithHeader(10000, 10000, LargePng(10000, 8).substr(8 + 25)); },
                    Expect::kFails},
        // 8000 x 6000: 183 MiB as one ARGB raster, which the decoder must never allocate; even
        // for a 4096 x 3072 output (48 MiB) the planes stay within their own bound.
        HostileCase{"png-large.png", [] { return LargePng(8000, 6000); }, Expect::kDecodes},
        HostileCase{"png-large-big-output.png", [] { return LargePng(8000, 6000); },
                    Expect::kDecodes, 4096, 3072},
        HostileCase{"bmp-30000.bmp",
                    [] { return BmpOver(30000, 30000, 24, 0, std::string(64, '\x10')); },
                    Expect::kFails},
        HostileCase{"bmp-30000-topdown.bmp",
                    [] { return BmpOver(30000, -30000, 32, 0, std::string(64, '\x10')); },
                    Expect::kFails},
        // Run-length data can declare a big picture in a few bytes: decoded (mostly black).
        HostileCase{"bmp-rle-16000.bmp",
                    [] {
                        return BmpOver(16000, 16000, 8, 1,
                                       std::string("\x05\x07\0\0\0\x02\xFF\xFF\x05\x07\0\x01", 12));
                    },
                    Expect::kDecodes},
        HostileCase{"bmp-3000000.bmp", [] { return BmpOver(3000000, 2000000, 24, 0, ""); },
                    Expect::kFails},
        HostileCase{"jpeg-65500.jpg", [] { return JpegOverJunk(65500, 65500, false, 4096); },
                    Expect::kFails},
        HostileCase{"jpeg-65500-progressive.jpg",
                    [] { return JpegOverJunk(65500, 65500, true, 4096); }, Expect::kFails},
        // Whole-picture coefficients of 16000 x 16000 at 4:2:0 would take 732 MiB: refused up
        // front. Those of 8000 x 8000 (184 MiB) are allowed: libjpeg works through the junk.
        HostileCase{"jpeg-16000-progressive.jpg",
                    [] { return JpegOverJunk(16000, 16000, true, 4096); }, Expect::kFails},
        HostileCase{"jpeg-8000-progressive.jpg",
                    [] { return JpegOverJunk(8000, 8000, true, 4096); }, Expect::kEither, 320, 240,
                    184},
        // Inside every bound: libjpeg works through the junk, with warnings.
        HostileCase{"jpeg-12000-junk.jpg", [] { return JpegOverJunk(12000, 9000, false, 1 << 16); },
                    Expect::kEither},
        // Genuine progressive photos; the coefficients, 128 bytes a block, MCU-rounded.
        HostileCase{"progressive_444_4000x3000.jpg", nullptr, Expect::kDecodes, 320, 240,
                    69},  // 3 x 500 x 375 blocks
        HostileCase{"progressive_422_6000x4000.jpg", nullptr, Expect::kDecodes, 320, 240,
                    92},  // 750 x 500 + 2 x 375 x 500
        HostileCase{"progressive_420_6000x4000.jpg", nullptr, Expect::kDecodes, 320, 240,
                    69},  // 750 x 500 + 2 x 375 x 250
        HostileCase{"progressive_444_8688x5792.jpg", nullptr, Expect::kDecodes, 320, 240,
                    288},  // 3 x 1086 x 724
        // Thousands of scans are refused; a few hundred legal ones are let through.
        HostileCase{"jpeg-5000-progressive.jpg", [] { return EndlessScans(5000, true); },
                    Expect::kFails, 16, 16},
        HostileCase{"jpeg-5000-sequential.jpg", [] { return EndlessScans(5000, false); },
                    Expect::kFails, 16, 16},
        HostileCase{"jpeg-500-sequential.jpg", [] { return EndlessScans(500, false); },
                    Expect::kDecodes, 16, 16},
        HostileCase{"jpeg-cut-3.jpg", [] { return PhotoWithThumb().substr(0, 3); },
                    Expect::kEither},
        HostileCase{"jpeg-cut-40.jpg", [] { return PhotoWithThumb().substr(0, 40); },
                    Expect::kEither},
        HostileCase{"jpeg-cut-third.jpg",
                    [] {
                        const std::string j = PhotoWithThumb();
                        return j.substr(0, j.size() / 3);
                    },
                    Expect::kEither},
        HostileCase{"jpeg-cut-before-eoi.jpg",
                    [] {
                        const std::string j = PhotoWithThumb();
                        return j.substr(0, j.size() - 2);
                    },
                    Expect::kEither},
        // A zero-length marker right after SOI.
        HostileCase{
            "jpeg-zero-marker.jpg",
            [] { return std::string("\xFF\xD8\xFF\xE0\0\0", 6) + PhotoWithThumb().substr(2); },
            Expect::kFails},
        // IFD0 (no entries here) linking to itself: no thumbnail, the picture is decoded.
        HostileCase{"jpeg-ifd-cycle.jpg",
                    [] {
                        std::string j = PhotoWithThumb();
                        j[j.find("Exif") + 6 + 10] = 8;  // the link right after IFD0's count
                        return j;
                    },
                    Expect::kDecodes, 64, 48},
        HostileCase{"png-cut.png", [] { return LargePng(300, 200).substr(0, 500); },
                    Expect::kFails},
        HostileCase{"bmp-cut.bmp",
                    [] { return BmpOver(300, 200, 24, 0, std::string(1000, '\x40')); },
                    Expect::kFails}));

// ---- HEIF, AVIF, WebP, GIF and TIFF (testdata/make_format_fixtures.sh, patched or cut)

std::string BE32(uint32_t v) { return qrbtest::BigEndian(v, 4); }
std::string LE16(uint32_t v) { return qrbtest::LittleEndian(v, 2); }
std::string LE32(uint32_t v) { return qrbtest::LittleEndian(v, 4); }

std::string Half(const std::string& bytes) { return bytes.substr(0, bytes.size() / 2); }

std::string FormatFixture(const char* name) {
    return ReadFileBytes(std::string(QRB_FORMAT_FIXTURE_DIR) + "/" + name);
}

// Every "ispe" box (a HEIF item's stored size) saying w x h.
std::string HeifDeclaring(std::string bytes, uint32_t w, uint32_t h) {
    for (size_t at = bytes.find("ispe"); at != std::string::npos && at + 16 <= bytes.size();
         at = bytes.find("ispe", at + 4)) {
        bytes.replace(at + 8, 8, BE32(w) + BE32(h));
    }
    return bytes;
}

// A simple lossy WebP (cwebp's) whose key frame says w x h.
std::string WebpDeclaring(std::string bytes, uint32_t w, uint32_t h) {
    if (bytes.compare(12, 4, "VP8 ") != 0) return std::string();
    bytes.replace(26, 4, LE16(w & 0x3FFF) + LE16(h & 0x3FFF));
    return bytes;
}

// A lossless WebP whose bitstream header says w x h.
std::string LosslessWebpDeclaring(std::string bytes, uint32_t w, uint32_t h) {
    if (bytes.compare(12, 4, "VP8L") != 0) return std::string();
    const uint32_t bits = (w - 1) | ((h - 1) << 14);  // alpha and version bits left 0
    bytes.replace(21, 4, LE32(bits));
    return bytes;
}

// A GIF whose logical screen says w x h.
std::string GifDeclaring(std::string bytes, uint32_t w, uint32_t h) {
    bytes.replace(6, 4, LE16(w) + LE16(h));
    return bytes;
}

int AppendGif(GifFileType* gif, const GifByteType* data, int n) {
    static_cast<std::string*>(gif->UserData)->append(reinterpret_cast<const char*>(data), n);
    return n;
}

// A genuine GIF of one colour: a canvas of w x h and one frame of fw x fh, written row by row
// (a few hundred KiB for a hundred megapixels).
std::string FlatGif(int w, int h, int fw, int fh, bool interlaced) {
    std::string out;
    int error = 0;
    GifFileType* gif = EGifOpen(&out, AppendGif, &error);
    if (gif == nullptr) return std::string();
    GifColorType colours[2] = {{200, 40, 40}, {0, 0, 0}};
    ColorMapObject* map = GifMakeMapObject(2, colours);
    bool ok = EGifPutScreenDesc(gif, w, h, 1, 0, map) == GIF_OK &&
              EGifPutImageDesc(gif, 0, 0, fw, fh, interlaced, nullptr) == GIF_OK;
    std::vector<GifPixelType> line(static_cast<size_t>(fw), 0);
    for (int y = 0; ok && y < fh; ++y) ok = EGifPutLine(gif, line.data(), fw) == GIF_OK;
    GifFreeMapObject(map);
    ok = EGifCloseFile(gif, &error) == GIF_OK && ok;
    return ok ? out : std::string();
}

// A TIFF header declaring w x h grey pixels in one strip of 16 bytes.
std::string TiffDeclaring(uint32_t w, uint32_t h) {
    const auto entry = [](uint16_t tag, uint16_t type, uint32_t value) {
        return LE16(tag) + LE16(type) + LE32(1) + (type == 3 ? LE16(value) + LE16(0) : LE32(value));
    };
    const uint32_t data = 8 + 2 + 9 * 12 + 4;
    const std::string ifd = LE16(9) + entry(256, 4, w) + entry(257, 4, h) + entry(258, 3, 8) +
                            entry(259, 3, 1) + entry(262, 3, 1) + entry(273, 4, data) +
                            entry(277, 3, 1) + entry(278, 4, h) + entry(279, 4, 16) + LE32(0);
    return std::string("II*\0", 4) + LE32(8) + ifd + std::string(16, '\x40');
}

// A genuine deflate-compressed TIFF of w x h zero samples in strips of `rowsPerStrip` rows.
std::string FlatTiff(ScratchDir& scratch, const std::string& name, uint32_t w, uint32_t h,
                     uint16_t samples, uint32_t rowsPerStrip) {
    const std::string path = scratch.Path() + "/" + name + ".tmp";
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    if (tif == nullptr) return std::string();
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, samples == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tif, TIFFTAG_ZIPQUALITY, 1);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
    std::vector<uint8_t> row(static_cast<size_t>(w) * samples, 0);
    bool ok = true;
    for (uint32_t y = 0; ok && y < h; ++y) ok = TIFFWriteScanline(tif, row.data(), y, 0) == 1;
    TIFFClose(tif);
    std::string bytes = ok ? ReadFileBytes(path) : std::string();
    unlink(path.c_str());
    return bytes;
}

// libheif's own limit on a side, then ours on pixels; bombs refused from the header or walked a
// row at a time; cut files; a phone photo within its decoded picture.
INSTANTIATE_TEST_SUITE_P(
    LibraryFormats, PictureHostileInputTest,
    ::testing::Values(
        HostileCase{"heif-65535.heic",
                    [] { return HeifDeclaring(FormatFixture("quad.heic"), 65535, 65535); },
                    Expect::kFails},
        HostileCase{"heif-12000.heic",
                    [] { return HeifDeclaring(FormatFixture("quad.heic"), 12000, 12000); },
                    Expect::kFails},
        HostileCase{"avif-65535.avif",
                    [] { return HeifDeclaring(FormatFixture("quad.avif"), 65535, 65535); },
                    Expect::kFails},
        HostileCase{"webp-16383.webp",
                    [] { return WebpDeclaring(FormatFixture("quad.webp"), 16383, 16383); },
                    Expect::kFails},
        HostileCase{"webp-lossless-16000.webp",
                    [] {
                        return LosslessWebpDeclaring(FormatFixture("quad_lossless.webp"), 16000,
                                                     16000);
                    },
                    Expect::kFails},
        HostileCase{"gif-65535.gif",
                    [] { return GifDeclaring(FormatFixture("quad.gif"), 65535, 65535); },
                    Expect::kFails},
        HostileCase{"tiff-65535.tif", [] { return TiffDeclaring(65535, 65535); }, Expect::kFails},
        HostileCase{"gif-bomb-12000.gif", [] { return FlatGif(12000, 12000, 12000, 12000, false); },
                    Expect::kFails},
        HostileCase{"tiff-bomb-12000.tif",
                    [] {
                        ScratchDir scratch;
                        return FlatTiff(scratch, "tb", 12000, 12000, 1, 256);
                    },
                    Expect::kFails},
        // One compressed strip of 192 MiB: libtiff is allowed 64 MiB at once.
        HostileCase{"tiff-one-strip-8000.tif",
                    [] {
                        ScratchDir scratch;
                        return FlatTiff(scratch, "ts", 8000, 8000, 3, 8000);
                    },
                    Expect::kFails},
        // A frame far larger than its 64 x 64 canvas: only what lies on the canvas is read, or,
        // interlaced, every row is decoded one at a time and dropped.
        HostileCase{"gif-frame-bomb.gif", [] { return FlatGif(64, 64, 10000, 10000, false); },
                    Expect::kDecodes, 64, 64},
        HostileCase{"gif-frame-bomb-interlaced.gif",
                    [] { return FlatGif(64, 64, 10000, 10000, true); }, Expect::kDecodes, 64, 64},
        HostileCase{"cut-quad.heic", [] { return Half(FormatFixture("quad.heic")); },
                    Expect::kFails},
        HostileCase{"cut-quad.avif", [] { return Half(FormatFixture("quad.avif")); },
                    Expect::kFails},
        HostileCase{"cut-quad.webp", [] { return Half(FormatFixture("quad.webp")); },
                    Expect::kFails},
        HostileCase{"cut-quad_lossless.webp",
                    [] { return Half(FormatFixture("quad_lossless.webp")); }, Expect::kFails},
        HostileCase{"cut-quad_interlaced.gif",
                    [] { return Half(FormatFixture("quad_interlaced.gif")); }, Expect::kFails},
        HostileCase{"cut-quad_lzw.tif", [] { return Half(FormatFixture("quad_lzw.tif")); },
                    Expect::kFails},
        // libheif decodes a picture whole: about 8 bytes a pixel of a 12-megapixel photo.
        HostileCase{"large_4000x3000.heic",
                    [] { return FormatFixture("large_4000x3000.heic"); }, Expect::kDecodes, 320,
                    240, 92}));

}  // namespace
