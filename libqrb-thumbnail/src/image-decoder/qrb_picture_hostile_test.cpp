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

#include <gtest/gtest.h>
#include <sys/resource.h>
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

}  // namespace
