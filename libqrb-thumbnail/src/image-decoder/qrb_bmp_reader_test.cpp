// The BMP reader: run-length expansion, refusals, the shared corpus against reference renders.
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace qrbpicturetest;

std::string Patch(std::string bytes, size_t at, uint32_t value) {
    return bytes.replace(at, 4, LittleEndian(value, 4));
}

class BmpReaderTest : public ::testing::Test {
protected:
    Raster Decode(const std::string& bytes, int w = 0, int h = 0) {
        return DecodePicture("file://" + scratch.WriteFile("t.bmp", bytes), w, h);
    }
    ScratchRoot scratch;
    qrbtest::LogCapture log;
};

TEST_F(BmpReaderTest, ExpandsRle8RunsLiteralsLineEndsAndDeltas) {
    // Bottom row: run of 3 x 1, literal 2 3 4 (padded), line end. Delta (2, 1) up to the third
    // row from the bottom: run of 2 x 5, line end. Top row: run of 8 x 6, end of bitmap.
    const std::string data("\3\1\0\3\2\3\4\0\0\0\0\2\2\1\2\5\0\0\x8\6\0\1", 22);
    const int want[4][8] = {{6, 6, 6, 6, 6, 6, 6, 6},
                            {0, 0, 5, 5, 0, 0, 0, 0},
                            {0, 0, 0, 0, 0, 0, 0, 0},
                            {1, 1, 1, 2, 3, 4, 0, 0}};
    const Raster img = Decode(BmpFile(8, 4, 8, 1, data));
    ASSERT_EQ(8 * 4 * 4u, img.pixels.size());
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x)  // grey palette; skipped pixels opaque black
            EXPECT_EQ((std::vector<int>{want[y][x], want[y][x], want[y][x], 255}),
                      std::vector<int>(img.At(x, y), img.At(x, y) + 4))
                << x << "," << y;
}

TEST_F(BmpReaderTest, RefusesHeadersAndRunsThatLieAndSaysWhy) {
    const std::string valid = BmpFile(5, 3, 8, 0, std::string(24, '\1'));
    ASSERT_FALSE(Decode(valid).Empty());
    const struct {
        std::string bytes;
        const char* logged;
    } cases[] = {
        {Patch(valid, 18, 70000), "BMP 70000 x 3 refused"},
        {valid.substr(0, valid.size() - 9), "BMP needs 24 bytes of pixels, the file holds 15"},
        {BmpFile(8, 4, 8, 1, std::string("\x9\1\0\1", 4)),
         "BMP run of 9 at (0, 0) leaves the picture"},
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_TRUE(Decode(c.bytes).Empty()) << c.logged;
        EXPECT_TRUE(log.Contains(c.logged)) << c.logged;
    }
}

// Decoded at the reference's size: opaque, colours within `tolerance` where the reference has any.
::testing::AssertionResult MatchesReference(const std::string& bmp, const std::string& png,
                                            int tolerance = 0) {
    Raster want;
    if (!qrbtest::ReadPng(png, &want)) return ::testing::AssertionFailure() << "no " << png;
    const Raster img = DecodePicture("file://" + bmp, want.width, want.height);
    if (img.width != want.width || img.height != want.height)
        return ::testing::AssertionFailure() << "size " << img.width << "x" << img.height;
    for (size_t i = 0; i < img.pixels.size(); ++i) {
        const int got = img.pixels[i], ref = want.pixels[i];
        const bool ok =
            i % 4 == 3 ? got == 255 : (want.pixels[i | 3] == 0 || std::abs(got - ref) <= tolerance);
        if (!ok)
            return ::testing::AssertionFailure()
                   << "byte " << i << " is " << got << ", wanted " << ref;
    }
    return ::testing::AssertionSuccess();
}

// Pillow's and image-rs's good BMP files match their reference renders; bad ones fail.
TEST(BmpCorpusTest, GoodFilesMatchTheReferenceRendersAndBadOnesFail) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/pillow/bmp/";
    const std::vector<std::string> good = qrbtest::ListDir(dir + "g", ".bmp");
    for (const std::string& name : good) {
        const std::string head = name.substr(0, 4);
        std::string ref = head == "pal1" || head == "pal4" || head == "pal8" ? head : "rgb24";
        for (const std::string exact : {"pal8w124", "pal8w126", "rgb16-565", "rgb16"})
            if (name == exact + ".bmp") ref = exact;
        EXPECT_TRUE(MatchesReference(dir + "g/" + name, dir + "html/" + ref + ".png", 1)) << name;
    }
    EXPECT_EQ(15u, good.size());
    const std::string rs = corpus + "/image-rs/images/bmp/images/";
    int checked = 0;
    for (const std::string& name : qrbtest::ListDir(rs, ".bmp")) {
        const std::string reference = corpus + "/image-rs/reference/bmp/images/" + name + ".png";
        if (ReadFileBytes(reference).empty()) continue;
        EXPECT_TRUE(MatchesReference(rs + name, reference)) << name;
        ++checked;
    }
    EXPECT_EQ(25, checked);
    std::vector<std::string> bad = {rs + "imagemagick_invalid_run_length_issue_2321.bmp",
                                    rs + "lenient/rle_overflow.bmp"};
    for (const std::string& name : qrbtest::ListDir(dir + "b", ".bmp"))
        bad.push_back(dir + "b/" + name);
    EXPECT_EQ(11u, bad.size());
    for (const std::string& path : bad)
        EXPECT_TRUE(DecodePicture("file://" + path, 64, 64).Empty()) << path;
}

}  // namespace
