// Hostile pictures: headers that declare huge pictures over a few bytes, genuine large
// pictures and bombs, endless scans and cut files. Each file is decoded in a fresh child
// process, which checks its own peak resident memory (getrusage ru_maxrss, before and after)
// against the 128 MiB the decoder promises to stay under, plus the whole-picture coefficients
// a progressive JPEG declares (accepted up to 384 MiB) or the picture libheif decodes whole;
// the parent checks the outcome. No timing is asserted (an alarm only turns a hang into a
// failure).
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_jpeg_writer.h"

#include <gif_lib.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
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

using namespace qrbpicturetest;
using qrbtest::JpegSpec;

// Sanitizers keep shadow memory beside every byte touched (TSan several times the
// application's own) and keep freed blocks resident: there only the growth counts, with room.
constexpr long kBoundKb = 128 * 1024;
constexpr long kSlack = QRB_SANITIZED ? 8 : 1;

enum Expect { kFails = 1, kDecodes = 2, kEither = 3 };

// Decodes url at w x h in a fresh process: "" when it met every expectation, else what not.
std::string DecodeInChild(const std::string& url, int w, int h, Expect expect, long allowanceKb) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(120);
        struct rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        qrb_picture_thumb_param param;
        param.width = w;
        param.height = h;
        int outW = 0, outH = 0;
        unsigned char* buffer =
            CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &outW, &outH, nullptr);
        getrusage(RUSAGE_SELF, &after);
        std::string report;
        const long growth = after.ru_maxrss - before.ru_maxrss;
        if (growth >= kSlack * (kBoundKb + allowanceKb))
            report += "grew " + std::to_string(growth) + " KiB; ";
        if (!QRB_SANITIZED && after.ru_maxrss >= kBoundKb + allowanceKb)
            report += "peak " + std::to_string(after.ru_maxrss) + " KiB; ";
        if (!(expect & (buffer != nullptr ? kDecodes : kFails)))
            report += buffer ? "decoded; " : "failed; ";
        std::free(buffer);
        _exit(write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size())
                  ? 0
                  : 1);
    }
    close(fds[1]);
    char text[256];
    const ssize_t n = pid > 0 ? read(fds[0], text, sizeof(text)) : -1;
    close(fds[0]);
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    if (pid < 0 || WIFSIGNALED(status) || WEXITSTATUS(status) != 0)
        return "child ended with status " + std::to_string(status);
    return std::string(text, n > 0 ? n : 0);
}

// One hostile or large file: its bytes (or a fixture's name), the request, what must happen,
// and the MiB allowed on top of the bound.
struct HostileCase {
    const char* name;
    std::function<std::string()> bytes;  // null: a fixture of make_picture_fixtures.sh
    Expect expect;
    int w = 320;
    int h = 240;
    long allowanceMiB = 0;
};

void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

class PictureHostileInputTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(PictureHostileInputTest, StaysWithinTheMemoryBoundAndEndsAsExpected) {
    const HostileCase& c = GetParam();
    ScratchRoot scratch;
    std::string url = "file://" + PictureFixture(c.name);
    if (c.bytes) {
        const std::string bytes = c.bytes();
        ASSERT_FALSE(bytes.empty());
        url = "file://" + scratch.WriteFile(c.name, bytes);
    }
    EXPECT_EQ("", DecodeInChild(url, c.w, c.h, c.expect, c.allowanceMiB * 1024));
}

// A 16 x 16 JPEG whose frame header says w x h, with junk (no markers) as its scan.
std::string JpegOverJunk(int w, int h, bool progressive, size_t junkBytes) {
    JpegSpec spec;
    spec.width = spec.height = 16;
    spec.progressive = progressive;
    const std::string bytes = JpegDeclaring(qrbtest::MakeJpeg(spec), w, h);
    const size_t sos = bytes.find("\xFF\xDA");
    std::string out = bytes.substr(0, sos + 2 + static_cast<unsigned char>(bytes[sos + 3]));
    for (uint32_t i = 0, x = 12345; i < junkBytes; ++i, x = x * 1103515245u + 12345u)
        out.push_back(static_cast<char>(x >> 24) == '\xFF' ? '\x7F' : static_cast<char>(x >> 24));
    return out;
}

// A tiny multi-scan JPEG whose last scan is repeated `copies` times. Repeated progressive scans
// break the progression; repeated sequential ones are legal: only the scan count stops them.
std::string EndlessScans(int copies, bool progressive) {
    JpegSpec spec;
    spec.width = spec.height = 16;
    spec.progressive = progressive;
    spec.sequentialScans = !progressive;
    const std::string bytes = qrbtest::MakeJpeg(spec);
    const size_t last = bytes.rfind("\xFF\xDA"), eoi = bytes.rfind("\xFF\xD9");
    std::string out = bytes.substr(0, eoi);
    for (int i = 0; i < copies; ++i) out += bytes.substr(last, eoi - last);
    return out + bytes.substr(eoi);
}

std::string FormatFixture(const char* name) { return ReadFileBytes(Fixture(name).substr(7)); }
std::string Half(const std::string& bytes) { return bytes.substr(0, bytes.size() / 2); }

// Every "ispe" box (a HEIF item's stored size) saying w x h.
std::string HeifDeclaring(std::string bytes, uint32_t w, uint32_t h) {
    for (size_t at = bytes.find("ispe"); at != std::string::npos && at + 16 <= bytes.size();
         at = bytes.find("ispe", at + 4))
        bytes.replace(at + 8, 8, qrbtest::BigEndian(w, 4) + qrbtest::BigEndian(h, 4));
    return bytes;
}

int AppendGif(GifFileType* gif, const GifByteType* data, int n) {
    static_cast<std::string*>(gif->UserData)->append(reinterpret_cast<const char*>(data), n);
    return n;
}

// A genuine GIF of one colour: a canvas of w x h and one frame of fw x fh, written row by row.
std::string FlatGif(int w, int h, int fw, int fh, bool interlaced) {
    std::string out;
    int error = 0;
    GifFileType* gif = EGifOpen(&out, AppendGif, &error);
    GifColorType colours[2] = {{200, 40, 40}, {0, 0, 0}};
    ColorMapObject* map = GifMakeMapObject(2, colours);
    bool ok = EGifPutScreenDesc(gif, w, h, 1, 0, map) == GIF_OK &&
              EGifPutImageDesc(gif, 0, 0, fw, fh, interlaced, nullptr) == GIF_OK;
    std::vector<GifPixelType> line(fw, 0);
    for (int y = 0; ok && y < fh; ++y) ok = EGifPutLine(gif, line.data(), fw) == GIF_OK;
    GifFreeMapObject(map);
    return EGifCloseFile(gif, &error) == GIF_OK && ok ? out : std::string();
}

INSTANTIATE_TEST_SUITE_P(
    Files, PictureHostileInputTest,
    ::testing::Values(
        HostileCase{"png-30000.png",
                    [] {
                        return qrbtest::PngWithHeader(
                            30000, 30000, qrbtest::PngChunk("IDAT", std::string(4096, '3')));
                    },
                    kFails},
        // Valid compressed data under the pixel bound that stops after a few rows.
        HostileCase{
            "png-short-data.png",
            [] {
                return qrbtest::PngWithHeader(
                    10000, 10000, ReadFileBytes(PictureFixture("strip_10000x8.png")).substr(8 + 25));
            },
            kFails},
        // 8000 x 6000 is 183 MiB as one ARGB raster: the planes stay within their own bound,
        // even for a 4096 x 3072 output (48 MiB).
        HostileCase{"large_8000x6000.png", nullptr, kDecodes, 4096, 3072},
        HostileCase{"bmp-30000.bmp",
                    [] { return BmpFile(30000, 30000, 24, 0, std::string(64, '\x10')); }, kFails},
        // Run-length data declares a big picture in a few bytes: decoded (mostly black).
        HostileCase{"bmp-rle-16000.bmp",
                    [] {
                        return BmpFile(16000, 16000, 8, 1,
                                       std::string("\x05\x07\0\0\0\x02\xFF\xFF\x05\x07\0\x01", 12));
                    },
                    kDecodes},
        HostileCase{"jpeg-65500.jpg", [] { return JpegOverJunk(65500, 65500, false, 4096); },
                    kFails},
        // Whole-picture coefficients of 16000 x 16000 would take 732 MiB: refused up front.
        // Those of 8000 x 8000 (184 MiB) are allowed; libjpeg works through the junk.
        HostileCase{"jpeg-16000-progressive.jpg",
                    [] { return JpegOverJunk(16000, 16000, true, 4096); }, kFails},
        HostileCase{"jpeg-8000-progressive.jpg",
                    [] { return JpegOverJunk(8000, 8000, true, 4096); }, kEither, 320, 240, 184},
        HostileCase{"jpeg-12000-junk.jpg", [] { return JpegOverJunk(12000, 9000, false, 1 << 16); },
                    kEither},
        // Genuine progressive photos, with their coefficients (128 bytes a block, MCU-rounded).
        HostileCase{"progressive_420_6000x4000.jpg", nullptr, kDecodes, 320, 240, 69},
        HostileCase{"progressive_444_8688x5792.jpg", nullptr, kDecodes, 320, 240, 288},
        // Thousands of scans are refused; a few hundred legal ones are let through.
        HostileCase{"jpeg-5000-progressive.jpg", [] { return EndlessScans(5000, true); }, kFails,
                    16, 16},
        HostileCase{"jpeg-5000-sequential.jpg", [] { return EndlessScans(5000, false); }, kFails,
                    16, 16},
        HostileCase{"jpeg-500-sequential.jpg", [] { return EndlessScans(500, false); }, kDecodes,
                    16, 16},
        // libheif's own limit on a side, then ours on pixels.
        HostileCase{"heif-12000.heic",
                    [] { return HeifDeclaring(FormatFixture("quad.heic"), 12000, 12000); }, kFails},
        HostileCase{"avif-65535.avif",
                    [] { return HeifDeclaring(FormatFixture("quad.avif"), 65535, 65535); }, kFails},
        HostileCase{
            "webp-16383.webp",
            [] {
                return FormatFixture("quad.webp").replace(26, 4, LittleEndian(16383 * 0x10001u, 4));
            },
            kFails},
        HostileCase{"gif-bomb-12000.gif", [] { return FlatGif(12000, 12000, 12000, 12000, false); },
                    kFails},
        HostileCase{"bomb.tif", [] { return FormatFixture("black_12000x12000.tif"); }, kFails},
        // One compressed strip of 192 MiB: libtiff is allowed 64 MiB at once.
        HostileCase{"one-strip.tif", [] { return FormatFixture("black_8000x8000_one_strip.tif"); },
                    kFails},
        // A frame far larger than its 64 x 64 canvas: only what lies on the canvas is read, or,
        // interlaced, every row is decoded one at a time and dropped.
        HostileCase{"gif-frame-bomb.gif", [] { return FlatGif(64, 64, 10000, 10000, false); },
                    kDecodes, 64, 64},
        HostileCase{"gif-frame-bomb-interlaced.gif",
                    [] { return FlatGif(64, 64, 10000, 10000, true); }, kDecodes, 64, 64},
        HostileCase{"cut-quad.heic", [] { return Half(FormatFixture("quad.heic")); }, kFails},
        HostileCase{"cut-quad_lzw.tif", [] { return Half(FormatFixture("quad_lzw.tif")); }, kFails},
        // libheif decodes a picture whole: about 8 bytes a pixel of a 12-megapixel photo.
        HostileCase{"large_4000x3000.heic", [] { return FormatFixture("large_4000x3000.heic"); },
                    kDecodes, 320, 240, 92}));

}  // namespace
