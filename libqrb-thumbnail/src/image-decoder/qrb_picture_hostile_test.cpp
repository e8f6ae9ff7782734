// Large pictures and bombs, each decoded in a child that checks its peak memory against the
// 128 MiB bound (plus a progressive JPEG's coefficients or a whole libheif picture).
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_test_support.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using namespace qrbpicturetest;

// Under sanitizers or memcheck (shadow memory, freed blocks kept) only the growth counts, with room.
constexpr long kBoundKb = 128 * 1024;
constexpr long kSlack = QRB_SANITIZED ? 8 : 1;

enum Expect { kFails = 1, kDecodes = 2, kEither = 3 };

// Decodes url at w x h; exits 0 when memory and outcome met the expectations, else says why.
[[noreturn]] void DecodeAndExit(const std::string& url, int w, int h, Expect expect,
                                long allowanceKb) {
    alarm(120);
    rusage before, after;
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
        report += buffer ? "decoded" : "failed";
    std::free(buffer);
    std::fprintf(stderr, "%s\n", report.c_str());
    _exit(report.empty() ? 0 : 1);
}

struct HostileCase {
    const char* dir;
    const char* name;
    Expect expect;
    int w = 320;
    int h = 240;
    long allowanceMiB = 0;
};

void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

class PictureHostileInputTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(PictureHostileInputTest, StaysWithinTheMemoryBoundAndEndsAsExpected) {
    const HostileCase& c = GetParam();
    const std::string url = std::string("file://") + c.dir + "/" + c.name;
    ASSERT_FALSE(ReadFileBytes(url.substr(7)).empty()) << url;
    EXPECT_EXIT(DecodeAndExit(url, c.w, c.h, c.expect, c.allowanceMiB * 1024),
                ::testing::ExitedWithCode(0), "");
}

constexpr const char* kJpegs = QRB_PICTURE_FIXTURE_DIR;
constexpr const char* kFormats = QRB_FORMAT_FIXTURE_DIR;
constexpr const char* kCorpus = QRB_FUZZ_CORPUS_DIR;

INSTANTIATE_TEST_SUITE_P(
    Files, PictureHostileInputTest,
    ::testing::Values(
        // Valid data under the pixel bound that stops after a few rows.
        HostileCase{kCorpus, "png/data_short_of_10000x10000.png", kFails},
        // 183 MiB as one raster: the planes stay within their own bound, even at 4096 x 3072.
        HostileCase{kJpegs, "large_8000x6000.png", kDecodes, 4096, 3072},
        HostileCase{kCorpus, "bmp/rle8_16000x16000.bmp", kDecodes},
        // Coefficients of 16000 x 16000 (732 MiB) are refused, those of 8000 x 8000 allowed.
        HostileCase{kCorpus, "jpeg/progressive_16000_over_junk.jpg", kFails},
        HostileCase{kCorpus, "jpeg/progressive_8000_over_junk.jpg", kEither, 320, 240, 184},
        HostileCase{kJpegs, "progressive_420_6000x4000.jpg", kDecodes, 320, 240, 69},
        HostileCase{kJpegs, "progressive_444_8688x5792.jpg", kDecodes, 320, 240, 288},
        // Thousands of scans are refused; a few hundred legal ones are let through.
        HostileCase{kCorpus, "jpeg/progressive_5000_scans.jpg", kFails, 16, 16},
        HostileCase{kCorpus, "jpeg/sequential_5000_scans.jpg", kFails, 16, 16},
        HostileCase{kCorpus, "jpeg/sequential_500_scans.jpg", kDecodes, 16, 16},
        HostileCase{kCorpus, "gif/screen_12000x12000.gif", kFails},
        HostileCase{kFormats, "black_12000x12000.tif", kFails},
        HostileCase{kFormats, "black_8000x8000_one_strip.tif", kFails},  // libtiff gets 64 MiB
        // A frame far larger than its canvas: only what lies on the canvas is kept.
        HostileCase{kCorpus, "gif/frame_10000_on_64.gif", kDecodes, 64, 64},
        HostileCase{kFormats, "large_4000x3000.heic", kDecodes, 320, 240, 92}));

}  // namespace
