// The PNG path: files written with libpng in every colour type, bit depth and interlace mode
// (with and without tRNS), checked pixel by pixel; large files reduced on the fly; broken files;
// and the PngSuite corpus against its expected pixels.
//
// Pixel checks request twice the picture's size: the planar packer then samples the nearest
// pixel (output (2x, 2y) is picture (x, y)) instead of averaging 2 x 2 blocks.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;
using qrbpicturetest::ScratchDir;
using qrbtest::MakePng;
using qrbtest::PngSpec;

// Compares a decode at twice the size (nearest sampling) with `expected` at every pixel.
::testing::AssertionResult MatchesAtDoubleSize(
    const Raster& img, uint32_t w, uint32_t h,
    const std::function<void(uint32_t, uint32_t, uint8_t*)>& expected, int tolerance) {
    if (img.width != static_cast<int>(2 * w) || img.height != static_cast<int>(2 * h)) {
        return ::testing::AssertionFailure() << "size " << img.width << "x" << img.height;
    }
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            uint8_t want[4];
            expected(x, y, want);
            const uint8_t* p = img.At(2 * x, 2 * y);
            const int got[4] = {p[2], p[1], p[0], p[3]};
            for (int c = 0; c < 4; ++c) {
                if (std::abs(got[c] - want[c]) > tolerance) {
                    return ::testing::AssertionFailure()
                           << "pixel (" << x << ", " << y << ") channel " << c << " is " << got[c]
                           << ", wanted " << int(want[c]);
                }
            }
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult MatchesSpec(const Raster& img, const PngSpec& spec) {
    return MatchesAtDoubleSize(
        img, spec.width, spec.height,
        [&](uint32_t x, uint32_t y, uint8_t* rgba) { qrbtest::PngExpected(spec, x, y, rgba); }, 0);
}

// Every colour type at every depth it allows, then the three kinds of tRNS.
std::vector<PngSpec> AllKinds() {
    std::vector<PngSpec> specs;
    const std::pair<int, std::vector<int>> kinds[] = {{PNG_COLOR_TYPE_GRAY, {1, 2, 4, 8, 16}},
                                                      {PNG_COLOR_TYPE_RGB, {8, 16}},
                                                      {PNG_COLOR_TYPE_PALETTE, {1, 2, 4, 8}},
                                                      {PNG_COLOR_TYPE_GRAY_ALPHA, {8, 16}},
                                                      {PNG_COLOR_TYPE_RGB_ALPHA, {8, 16}}};
    for (const auto& [type, depths] : kinds) {
        for (int depth : depths) {
            PngSpec spec;
            spec.colorType = type;
            spec.bitDepth = depth;
            for (int i = 0; type == PNG_COLOR_TYPE_PALETTE && i < (1 << depth); ++i) {
                spec.palette.push_back({static_cast<png_byte>(i * 7),
                                        static_cast<png_byte>(255 - i),
                                        static_cast<png_byte>(i * 3 + 1)});
            }
            const int channels = qrbtest::PngChannels(type);
            spec.pixel = [channels, depth](uint32_t x, uint32_t y, uint16_t* s) {
                for (int c = 0; c < channels; ++c)
                    s[c] = static_cast<uint16_t>((x * 37 + y * 101 + c * 53 + x * y * 7) %
                                                 (1u << depth));
            };
            specs.push_back(spec);
        }
    }
    PngSpec palette;
    palette.colorType = PNG_COLOR_TYPE_PALETTE;
    palette.bitDepth = 4;
    for (int i = 0; i < 16; ++i) palette.palette.push_back({static_cast<png_byte>(i * 16), 9, 200});
    palette.paletteAlpha = {0, 17, 128, 255, 3};  // shorter than the palette: the rest opaque
    palette.pixel = [](uint32_t x, uint32_t y, uint16_t* s) { s[0] = (x + y) % 16; };
    PngSpec grey;
    grey.colorType = PNG_COLOR_TYPE_GRAY;
    grey.colorKey = true;
    grey.key.gray = 40;
    grey.pixel = [](uint32_t x, uint32_t y, uint16_t* s) { s[0] = (x * 10 + y * 30) % 120; };
    PngSpec rgb16;
    rgb16.bitDepth = 16;
    rgb16.colorKey = true;
    rgb16.key.red = 1000;
    rgb16.key.green = 2000;
    rgb16.key.blue = 3000;
    rgb16.pixel = [](uint32_t x, uint32_t y, uint16_t* s) {
        const bool keyed = (x + y) % 3 == 0;
        s[0] = keyed ? 1000 : static_cast<uint16_t>(x * 4000);
        s[1] = keyed ? 2000 : static_cast<uint16_t>(y * 5000);
        s[2] = keyed ? 3000 : 60000;
    };
    specs.insert(specs.end(), {palette, grey, rgb16});
    return specs;
}

class PngReaderTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        return "file://" + scratch.Write(name, bytes);
    }
    ScratchDir scratch;
    qrbtest::LogCapture log;
};

TEST_F(PngReaderTest, DecodesEveryColourTypeDepthInterlaceAndTransparency) {
    for (PngSpec spec : AllKinds()) {
        for (bool interlace : {false, true}) {
            spec.interlace = interlace;
            const Raster img =
                Decode(Write("t.png", MakePng(spec)), 2 * spec.width, 2 * spec.height);
            EXPECT_TRUE(MatchesSpec(img, spec))
                << "type " << spec.colorType << " depth " << spec.bitDepth << " key "
                << spec.colorKey << (interlace ? " interlaced" : "");
        }
    }
}

TEST_F(PngReaderTest, OwnSizeAndSmallerGoThroughThePlanarBoxRule) {
    PngSpec spec;
    spec.width = 8;
    spec.height = 4;
    spec.pixel = [](uint32_t x, uint32_t y, uint16_t* s) {
        s[0] = static_cast<uint16_t>(x * 30);
        s[1] = static_cast<uint16_t>(y * 60);
        s[2] = 7;
    };
    const std::string url = Write("box.png", MakePng(spec));
    // Own size: each pixel but the last row and column is the mean of its 2 x 2 block.
    const Raster own = Decode(url, 0, 0);
    ASSERT_EQ(8, own.width);
    ASSERT_EQ(4, own.height);
    EXPECT_EQ((0 + 30 + 0 + 30) / 4, own.At(0, 0)[2]);
    EXPECT_EQ((0 + 0 + 60 + 60) / 4, own.At(0, 0)[1]);
    EXPECT_EQ(7 * 30, own.At(7, 3)[2]);  // last column and row: copied
    EXPECT_EQ(3 * 60, own.At(7, 3)[1]);
    EXPECT_EQ(255, own.At(3, 2)[3]);
    const Raster half = Decode(url, 4, 2);  // 16.16 steps of 2
    ASSERT_EQ(4, half.width);
    EXPECT_EQ((60 + 90 + 60 + 90) / 4, half.At(1, 0)[2]);
}

TEST_F(PngReaderTest, BrokenFilesFailCleanly) {
    PngSpec spec;
    spec.width = 40;
    spec.height = 30;
    spec.compression = 0;  // stored blocks: the data is as long as the pixels
    spec.pixel = [](uint32_t x, uint32_t y, uint16_t* s) { s[0] = s[1] = s[2] = x ^ y; };
    const std::string good = MakePng(spec);
    ASSERT_EQ(80, Decode(Write("good.png", good), 80, 60).width);
    const size_t idat = good.find("IDAT");
    std::string flipped = good;
    flipped[idat + 100] ^= 0x10;
    const struct {
        std::string bytes;
        const char* logged;
    } cases[] = {
        {good.substr(0, idat + 200), "Read PNG thumbnail error! "},   // cut in the data
        {flipped, "libpng error: "},                                  // checksum fails
        {good.substr(0, 20), "Parse false or it is not a jpg file"},  // cut in the header
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_TRUE(Decode(Write("bad.png", c.bytes), 80, 60).Empty()) << c.logged;
        EXPECT_TRUE(log.Contains(c.logged));
    }
    // Every cut before the last image data fails, and none crashes; the end chunk itself is
    // not needed.
    const size_t end = good.rfind("IEND") - 4;
    for (size_t n = 2; n < end; n += 37) {
        EXPECT_TRUE(Decode(Write("any.png", good.substr(0, n)), 40, 30).Empty()) << n;
    }
    EXPECT_FALSE(Decode(Write("no-end.png", good.substr(0, end)), 40, 30).Empty());
}

TEST_F(PngReaderTest, LargePicturesAreReducedRowByRow) {
    // 4000 x 3000 = 12 megapixels, over the 8-megapixel plane limit.
    PngSpec spec;
    spec.width = 4000;
    spec.height = 3000;
    spec.compression = 1;
    spec.pixel = [](uint32_t x, uint32_t y, uint16_t* s) {
        const bool right = x >= 2000;
        const bool bottom = y >= 1500;
        // A fine checkerboard in the top left quadrant: its box mean is mid grey.
        if (!right && !bottom) {
            s[0] = s[1] = s[2] = ((x + y) % 2) ? 255 : 0;
            return;
        }
        s[0] = right ? 255 : 0;
        s[1] = bottom ? 255 : 0;
        s[2] = right && bottom ? 255 : 0;
    };
    const Raster img = Decode(Write("large.png", MakePng(spec)), 400, 300);
    ASSERT_EQ(400, img.width);
    ASSERT_EQ(300, img.height);
    EXPECT_NEAR(127, img.At(100, 75)[2], 2);
    EXPECT_NEAR(127, img.At(100, 75)[1], 2);
    EXPECT_EQ(255, img.At(300, 75)[2]);
    EXPECT_EQ(0, img.At(300, 75)[1]);
    EXPECT_EQ(0, img.At(100, 225)[2]);
    EXPECT_EQ(255, img.At(100, 225)[1]);
    EXPECT_EQ(255, img.At(300, 225)[0]);
    // Interlaced: cells take their top-left pixel, whose checkerboard square is black.
    spec.interlace = true;
    const Raster adam7 = Decode(Write("large-i.png", MakePng(spec)), 400, 300);
    ASSERT_EQ(400, adam7.width);
    EXPECT_EQ(255, adam7.At(300, 75)[2]);
    EXPECT_EQ(255, adam7.At(100, 225)[1]);
    EXPECT_EQ(255, adam7.At(300, 225)[0]);
}

TEST_F(PngReaderTest, OversizedOrEmptyPicturesFailFast) {
    using qrbtest::PngChunk;
    using qrbtest::PngWithHeader;
    const std::string junk = PngChunk("IDAT", std::string(64, '\x5A')) + PngChunk("IEND", "");
    const struct {
        uint32_t w, h;
        std::string rest;
        const char* logged;
    } cases[] = {
        {20000, 20000, junk, "PNG 20000 x 20000 exceeds"},   // the header parse refuses it
        {70000, 10, junk, "libpng error: "},                 // libpng refuses the width
        {10000, 10000, junk, "Read PNG thumbnail error! "},  // allowed; the first row fails
        {100, 100, PngChunk("IEND", ""), "libpng error: "},  // no data at all
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_TRUE(Decode(Write("p.png", PngWithHeader(c.w, c.h, c.rest)), 320, 240).Empty());
        EXPECT_TRUE(log.Contains(c.logged)) << c.w << "x" << c.h;
    }
}

// --- corpus ------------------------------------------------------------------------------

std::vector<int> ReadJsonNumbers(const std::string& path) {
    const std::string text = qrbtest::ReadFileBytes(path);
    std::vector<int> values;
    int current = -1;
    for (char c : text + " ") {
        if (c >= '0' && c <= '9') {
            current = (current < 0 ? 0 : current * 10) + (c - '0');
        } else if (current >= 0) {
            values.push_back(current);
            current = -1;
        }
    }
    return values;
}

TEST(PngSuiteCorpusTest, ValidFilesMatchTheirExpectedPixelsAndBrokenOnesFail) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/lunapaint-pngsuite/";
    int checked = 0;
    int broken = 0;
    for (const std::string& name : qrbtest::ListDir(dir + "png", ".png")) {
        const std::string url = "file://" + dir + "png/" + name;
        if (name[0] == 'x') {  // deliberately broken
            EXPECT_TRUE(Decode(url, 32, 32).Empty()) << name;
            ++broken;
            continue;
        }
        const std::string stem = name.substr(0, name.size() - 4);
        CQRBImageDecoder probe(url.c_str(), 0, 0, 0, false);
        ASSERT_TRUE(probe.IsValid()) << name;
        const uint32_t w = probe.GetPictureWidth();
        const uint32_t h = probe.GetPictureHeight();
        Raster img = Decode(url, 2 * w, 2 * h);
        ASSERT_FALSE(img.Empty()) << name;
        // 16-bit files have an 8-bit rendering of their own, rounded a little differently from
        // libpng's scaling in a few pixels: they are held to within one step. Some only have
        // 16-bit expectations, brought to 8 bits here.
        std::vector<int> want = ReadJsonNumbers(dir + "json/" + stem + "_to8.json");
        bool sixteen = !want.empty();
        if (!sixteen) want = ReadJsonNumbers(dir + "json/" + stem + ".json");
        if (want.empty()) continue;
        if (*std::max_element(want.begin(), want.end()) > 255) {
            sixteen = true;
            for (int& v : want) v = (v * 255 + 32767) / 65535;
        }
        ASSERT_EQ(static_cast<size_t>(w) * h * 4, want.size()) << name;
        // Where a pixel is wholly transparent its colour means nothing: only alpha counts.
        for (uint32_t i = 0; i < w * h; ++i) {
            if (want[i * 4 + 3] != 0) continue;
            uint8_t* p =
                &img.pixels[(static_cast<size_t>(2 * (i / w)) * img.width + 2 * (i % w)) * 4];
            for (int c = 0; c < 3; ++c) p[2 - c] = static_cast<uint8_t>(want[i * 4 + c]);
        }
        EXPECT_TRUE(MatchesAtDoubleSize(
            img, w, h,
            [&](uint32_t x, uint32_t y, uint8_t* rgba) {
                for (int c = 0; c < 4; ++c)
                    rgba[c] = static_cast<uint8_t>(want[(y * w + x) * 4 + c]);
            },
            sixteen ? 1 : 0))
            << name;
        ++checked;
    }
    EXPECT_GT(checked, 100);
    EXPECT_GE(broken, 9);
}

TEST(PngCorpusTest, OtherProjectsFilesDecodeOrFailCleanly) {
    QRB_REQUIRE_CORPUS(corpus);
    const char* decodes[] = {
        "pillow/1_trns.png",
        "pillow/l_trns.png",
        "pillow/p_trns_single.png",
        "pillow/rgb_trns.png",
        "pillow/tRNS_null_1x1.png",
        "pillow/p_16.png",
        "pillow/padded_idat.png",
        "pillow/hopper.png",
        "pillow/hopper_idat_after_image_end.png",
        "pillow/pil123rgba.png",
        "pillow/png_decompression_dos.png",  // its text bombs are never inflated
        "pillow/tiff_16bit_RGBa_target.png",
        "pillow/tiny.png",
        "pillow/uncompressed_l.png",
        "pillow/itxt_chunks.png",
        "pillow/exif_imagemagick_orientation.png",
        "pillow/apng/single_frame.png",
        "hachoir/logo-kubuntu.png",
        "androidx-media/png/media3test.png"};
    for (const char* f : decodes)
        EXPECT_FALSE(Decode("file://" + corpus + "/" + f, 64, 64).Empty()) << f;
    for (const char* f : {"pillow/broken.png", "pillow/truncated_image.png"}) {
        EXPECT_TRUE(Decode("file://" + corpus + "/" + f, 64, 64).Empty()) << f;
    }
    // Against libpng's own simplified reader (no gamma in this file).
    Raster reference;
    ASSERT_TRUE(qrbtest::ReadPng(corpus + "/pillow/hopper.png", &reference));
    const Raster img = Decode("file://" + corpus + "/pillow/hopper.png", 2 * reference.width,
                              2 * reference.height);
    EXPECT_TRUE(MatchesAtDoubleSize(
        img, reference.width, reference.height,
        [&](uint32_t x, uint32_t y, uint8_t* rgba) {
            const uint8_t* p = reference.At(x, y);
            rgba[0] = p[2];
            rgba[1] = p[1];
            rgba[2] = p[0];
            rgba[3] = p[3];
        },
        1));
}

}  // namespace
