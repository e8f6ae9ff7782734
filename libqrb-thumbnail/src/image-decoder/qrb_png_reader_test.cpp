// The PNG path: broken files, large files reduced row by row, PngSuite against its pixels.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace qrbpicturetest;

class PngReaderTest : public ::testing::Test {
protected:
    std::string Write(const std::string& bytes) {
        return "file://" + scratch.WriteFile("t.png", bytes);
    }
    ScratchRoot scratch;
    qrbtest::LogCapture log;
};

TEST_F(PngReaderTest, BrokenFilesFailAndSayWhy) {
    const std::string good = ReadFileBytes(PictureFixture("stored_40x30.png"));
    const size_t idat = good.find("IDAT");
    std::string flipped = good;
    flipped[idat + 100] ^= 0x10;
    const struct {
        std::string bytes;
        const char* logged;
    } cases[] = {
        {good.substr(0, idat + 200), "Read PNG thumbnail error! "},   // cut in the data
        {flipped, "Read PNG thumbnail error! "},                      // checksum fails
        {good.substr(0, 20), "Parse false or it is not a jpg file"},  // cut in the header
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_TRUE(DecodePicture(Write(c.bytes), 80, 60).Empty()) << c.logged;
        EXPECT_TRUE(log.Contains(c.logged)) << c.logged;
    }
    // The end chunk itself is not needed.
    EXPECT_FALSE(DecodePicture(Write(good.substr(0, good.rfind("IEND") - 4)), 40, 30).Empty());
}

// Over the 8-megapixel plane limit: the checkerboard top left averages to mid grey.
TEST_F(PngReaderTest, LargePicturesAreReducedRowByRow) {
    for (const char* file : {"checker_4000x3000.png", "checker_4000x3000_interlaced.png"}) {
        const Raster img = DecodePicture("file://" + PictureFixture(file), 400, 300);
        ASSERT_EQ(400 * 300, img.width * img.height);
        EXPECT_NEAR(127, img.At(100, 75)[1], 2) << file;
        EXPECT_EQ("RWG", qrbtest::Quadrants(img).substr(1)) << file;
    }
}

// Every number in a JSON file, in order.
std::vector<int> JsonNumbers(const std::string& path) {
    std::string text = ReadFileBytes(path);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; }, ' ');
    std::istringstream in(text);
    return std::vector<int>(std::istream_iterator<int>(in), std::istream_iterator<int>());
}

// Each file at twice its size (output (2x, 2y) is picture (x, y)) against its expected pixels.
TEST(PngCorpusTest, PngSuiteMatchesItsExpectedPixelsAndBrokenFilesFail) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/lunapaint-pngsuite/";
    int checked = 0;
    int broken = 0;
    for (const std::string& name : qrbtest::ListDir(dir + "png", ".png")) {
        const std::string url = "file://" + dir + "png/" + name;
        if (name[0] == 'x') {  // deliberately broken
            EXPECT_TRUE(DecodePicture(url, 32, 32).Empty()) << name;
            ++broken;
            continue;
        }
        const std::string stem = name.substr(0, name.size() - 4);
        CQRBImageDecoder probe(url.c_str(), 0, 0, 0, false);
        const int w = probe.GetPictureWidth(), h = probe.GetPictureHeight();
        const Raster img = DecodePicture(url, 2 * w, 2 * h);
        ASSERT_EQ(4 * w * h, img.width * img.height) << name;
        // 16-bit files: within one step of their 8-bit rendering.
        std::vector<int> want = JsonNumbers(dir + "json/" + stem + "_to8.json");
        bool sixteen = !want.empty();
        if (!sixteen) want = JsonNumbers(dir + "json/" + stem + ".json");
        if (want.empty()) continue;
        if (*std::max_element(want.begin(), want.end()) > 255) {
            sixteen = true;
            for (int& v : want) v = (v * 255 + 32767) / 65535;
        }
        ASSERT_EQ(static_cast<size_t>(w) * h * 4, want.size()) << name;
        int worst = 0;
        for (int i = 0; i < w * h; ++i) {
            const uint8_t* p = img.At(2 * (i % w), 2 * (i / w));
            const int* rgba = &want[i * 4];
            worst = std::max(worst, std::abs(p[3] - rgba[3]));
            if (rgba[3] == 0) continue;  // wholly transparent: its colour means nothing
            for (int c = 0; c < 3; ++c) worst = std::max(worst, std::abs(p[2 - c] - rgba[c]));
        }
        EXPECT_LE(worst, sixteen ? 1 : 0) << name;
        ++checked;
    }
    EXPECT_GT(checked, 100);
    EXPECT_GE(broken, 9);
    // Text bombs are never inflated; broken files from elsewhere fail.
    EXPECT_FALSE(
        DecodePicture("file://" + corpus + "/pillow/png_decompression_dos.png", 64, 64).Empty());
    for (const char* f : {"pillow/broken.png", "pillow/truncated_image.png"})
        EXPECT_TRUE(DecodePicture("file://" + corpus + "/" + f, 64, 64).Empty()) << f;
}

}  // namespace
