// The PNG path: files the tests write with libpng in every colour type, bit depth and interlace
// mode (with and without tRNS), checked pixel by pixel; large files reduced on the fly; broken
// files; and the PngSuite corpus against its expected pixels.
//
// Pixel checks request twice the picture's size: the planar packer then samples the nearest
// pixel (output (2x, 2y) is picture (x, y)) instead of averaging 2 x 2 blocks.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;
using qrbpicturetest::ScratchDir;

// --- A PNG writer for the tests ----------------------------------------------------------

struct PngSpec {
    uint32_t width = 13;
    uint32_t height = 11;
    int colorType = PNG_COLOR_TYPE_RGB;
    int bitDepth = 8;
    bool interlace = false;
    int compression = 6;
    std::vector<png_color> palette;
    std::vector<png_byte> paletteAlpha;  // tRNS of a palette
    bool colorKey = false;               // tRNS of grey or RGB
    png_color_16 key{};
    // Raw samples of pixel (x, y) in the file's own depth: grey, RGB, an index, plus alpha.
    std::function<void(uint32_t x, uint32_t y, uint16_t* samples)> pixel;
};

int Channels(int colorType) {
    switch (colorType) {
        case PNG_COLOR_TYPE_GRAY:
        case PNG_COLOR_TYPE_PALETTE:
            return 1;
        case PNG_COLOR_TYPE_GRAY_ALPHA:
            return 2;
        case PNG_COLOR_TYPE_RGB:
            return 3;
        default:
            return 4;
    }
}

void AppendData(png_structp png, png_bytep data, png_size_t length) {
    static_cast<std::string*>(png_get_io_ptr(png))
        ->append(reinterpret_cast<const char*>(data), length);
}
void FlushData(png_structp) {}
void WriteError(png_structp png, png_const_charp message) {
    ADD_FAILURE() << "libpng write: " << message;
    png_longjmp(png, 1);
}

// Packs one row of raw samples at the file's bit depth.
void PackRow(const PngSpec& spec, uint32_t y, uint32_t x0, uint32_t step,
             std::vector<png_byte>* row) {
    const int channels = Channels(spec.colorType);
    const int depth = spec.bitDepth;
    row->assign(static_cast<size_t>(spec.width) * channels * 2 + 8, 0);
    size_t bit = 0;
    for (uint32_t x = x0; x < spec.width; x += step) {
        uint16_t s[4] = {0, 0, 0, 0};
        spec.pixel(x, y, s);
        for (int c = 0; c < channels; ++c) {
            if (depth == 16) {
                (*row)[bit / 8] = static_cast<png_byte>(s[c] >> 8);
                (*row)[bit / 8 + 1] = static_cast<png_byte>(s[c] & 0xFF);
            } else {
                (*row)[bit / 8] |= static_cast<png_byte>(s[c] << (8 - depth - bit % 8));
            }
            bit += depth;
        }
    }
}

struct WriteJob {
    png_structp png;
    png_infop info;
    const PngSpec* spec;
    std::string* out;
    std::vector<png_byte>* row;
};

bool GuardedWrite(WriteJob* job) {
    if (setjmp(png_jmpbuf(job->png))) return false;
    const PngSpec& spec = *job->spec;
    png_set_write_fn(job->png, job->out, AppendData, FlushData);
    png_set_compression_level(job->png, spec.compression);
    png_set_IHDR(job->png, job->info, spec.width, spec.height, spec.bitDepth, spec.colorType,
                 spec.interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!spec.palette.empty()) {
        png_set_PLTE(job->png, job->info, spec.palette.data(),
                     static_cast<int>(spec.palette.size()));
    }
    if (!spec.paletteAlpha.empty()) {
        png_set_tRNS(job->png, job->info, spec.paletteAlpha.data(),
                     static_cast<int>(spec.paletteAlpha.size()), nullptr);
    } else if (spec.colorKey) {
        png_set_tRNS(job->png, job->info, nullptr, 0, &spec.key);
    }
    png_write_info(job->png, job->info);
    if (spec.interlace) {
        // Each pass row holds only that pass's pixels, packed.
        for (int pass = 0; pass < 7; ++pass) {
            if (PNG_PASS_COLS(spec.width, pass) == 0) continue;
            for (uint32_t r = 0; r < PNG_PASS_ROWS(spec.height, pass); ++r) {
                PackRow(spec, PNG_ROW_FROM_PASS_ROW(r, pass), PNG_PASS_START_COL(pass),
                        1u << PNG_PASS_COL_SHIFT(pass), job->row);
                png_write_row(job->png, job->row->data());
            }
        }
    } else {
        for (uint32_t y = 0; y < spec.height; ++y) {
            PackRow(spec, y, 0, 1, job->row);
            png_write_row(job->png, job->row->data());
        }
    }
    png_write_end(job->png, nullptr);
    return true;
}

std::string WritePng(const PngSpec& spec) {
    std::string out;
    std::vector<png_byte> row;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, WriteError, nullptr);
    png_infop info = png_create_info_struct(png);
    WriteJob job{png, info, &spec, &out, &row};
    const bool ok = GuardedWrite(&job);
    png_destroy_write_struct(&png, &info);
    return ok ? out : std::string();
}

// What the decoder must make of pixel (x, y): 8-bit RGBA after libpng's expansion.
void Expected(const PngSpec& spec, uint32_t x, uint32_t y, uint8_t rgba[4]) {
    uint16_t s[4] = {0, 0, 0, 0};
    spec.pixel(x, y, s);
    const int depth = spec.bitDepth;
    auto to8 = [depth](uint16_t v) -> uint8_t {
        if (depth == 16) return static_cast<uint8_t>((v * 255u + 32767u) / 65535u);
        return static_cast<uint8_t>(v * 255 / ((1 << depth) - 1));
    };
    switch (spec.colorType) {
        case PNG_COLOR_TYPE_PALETTE: {
            const png_color c =
                s[0] < spec.palette.size() ? spec.palette[s[0]] : png_color{0, 0, 0};
            rgba[0] = c.red;
            rgba[1] = c.green;
            rgba[2] = c.blue;
            rgba[3] = s[0] < spec.paletteAlpha.size() ? spec.paletteAlpha[s[0]] : 255;
            return;
        }
        case PNG_COLOR_TYPE_GRAY:
        case PNG_COLOR_TYPE_GRAY_ALPHA:
            rgba[0] = rgba[1] = rgba[2] = to8(s[0]);
            rgba[3] = spec.colorType == PNG_COLOR_TYPE_GRAY_ALPHA ? to8(s[1])
                      : (spec.colorKey && s[0] == spec.key.gray)  ? 0
                                                                  : 255;
            return;
        default:
            rgba[0] = to8(s[0]);
            rgba[1] = to8(s[1]);
            rgba[2] = to8(s[2]);
            rgba[3] = spec.colorType == PNG_COLOR_TYPE_RGB_ALPHA ? to8(s[3])
                      : (spec.colorKey && s[0] == spec.key.red && s[1] == spec.key.green &&
                         s[2] == spec.key.blue)
                          ? 0
                          : 255;
            return;
    }
}

// Compares a decode at twice the size (nearest sampling) with `expected` at every pixel.
::testing::AssertionResult MatchesAtDoubleSize(
    const Raster& img, uint32_t w, uint32_t h,
    const std::function<void(uint32_t, uint32_t, uint8_t*)>& expected, int tolerance) {
    if (img.Empty()) return ::testing::AssertionFailure() << "no raster";
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
                           << "pixel (" << x << ", " << y << ") RGBA " << got[0] << "," << got[1]
                           << "," << got[2] << "," << got[3] << " wanted " << int(want[0]) << ","
                           << int(want[1]) << "," << int(want[2]) << "," << int(want[3]);
                }
            }
        }
    }
    return ::testing::AssertionSuccess();
}

uint16_t Varied(uint32_t x, uint32_t y, int c, int depth) {
    return static_cast<uint16_t>((x * 37 + y * 101 + c * 53 + x * y * 7) % (1u << depth));
}

class PngReaderTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        return "file://" + scratch.Write(name, bytes);
    }
    ScratchDir scratch;
    qrbtest::LogCapture log;
};

TEST_F(PngReaderTest, DecodesEveryColourTypeDepthAndInterlace) {
    const struct {
        int colorType;
        std::vector<int> depths;
    } kinds[] = {{PNG_COLOR_TYPE_GRAY, {1, 2, 4, 8, 16}},
                 {PNG_COLOR_TYPE_RGB, {8, 16}},
                 {PNG_COLOR_TYPE_PALETTE, {1, 2, 4, 8}},
                 {PNG_COLOR_TYPE_GRAY_ALPHA, {8, 16}},
                 {PNG_COLOR_TYPE_RGB_ALPHA, {8, 16}}};
    for (const auto& kind : kinds) {
        for (int depth : kind.depths) {
            for (bool interlace : {false, true}) {
                PngSpec spec;
                spec.colorType = kind.colorType;
                spec.bitDepth = depth;
                spec.interlace = interlace;
                const int channels = Channels(spec.colorType);
                if (spec.colorType == PNG_COLOR_TYPE_PALETTE) {
                    for (int i = 0; i < (1 << depth); ++i) {
                        spec.palette.push_back(png_color{static_cast<png_byte>(i * 7),
                                                         static_cast<png_byte>(255 - i),
                                                         static_cast<png_byte>(i * 3 + 1)});
                    }
                }
                spec.pixel = [channels, depth](uint32_t x, uint32_t y, uint16_t* s) {
                    for (int c = 0; c < channels; ++c) s[c] = Varied(x, y, c, depth);
                };
                const std::string what = "type " + std::to_string(spec.colorType) + " depth " +
                                         std::to_string(depth) + (interlace ? " interlaced" : "");
                const std::string url = Write("t.png", WritePng(spec));
                const Raster img = Decode(url, 2 * spec.width, 2 * spec.height);
                EXPECT_TRUE(MatchesAtDoubleSize(
                    img, spec.width, spec.height,
                    [&](uint32_t x, uint32_t y, uint8_t* rgba) { Expected(spec, x, y, rgba); }, 0))
                    << what;
            }
        }
    }
}

TEST_F(PngReaderTest, TransparencyChunksBecomeAlpha) {
    PngSpec palette;
    palette.colorType = PNG_COLOR_TYPE_PALETTE;
    palette.bitDepth = 4;
    for (int i = 0; i < 16; ++i)
        palette.palette.push_back(png_color{static_cast<png_byte>(i * 16), 9, 200});
    palette.paletteAlpha = {0, 17, 128, 255, 3};  // shorter than the palette: the rest opaque
    palette.pixel = [](uint32_t x, uint32_t y, uint16_t* s) { s[0] = (x + y) % 16; };

    PngSpec grey;
    grey.colorType = PNG_COLOR_TYPE_GRAY;
    grey.bitDepth = 8;
    grey.colorKey = true;
    grey.key.gray = 40;
    grey.pixel = [](uint32_t x, uint32_t y, uint16_t* s) {
        s[0] = static_cast<uint16_t>((x * 10 + y * 30) % 120);
    };

    PngSpec rgb16;
    rgb16.colorType = PNG_COLOR_TYPE_RGB;
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

    for (PngSpec* spec : {&palette, &grey, &rgb16}) {
        for (bool interlace : {false, true}) {
            spec->interlace = interlace;
            const Raster img =
                Decode(Write("trns.png", WritePng(*spec)), 2 * spec->width, 2 * spec->height);
            EXPECT_TRUE(MatchesAtDoubleSize(
                img, spec->width, spec->height,
                [&](uint32_t x, uint32_t y, uint8_t* rgba) { Expected(*spec, x, y, rgba); }, 0))
                << "colour type " << spec->colorType << (interlace ? " interlaced" : "");
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
    const std::string url = Write("box.png", WritePng(spec));
    // Own size: each pixel but the last row and column is the mean of its 2 x 2 block.
    const Raster own = Decode(url, 0, 0);
    ASSERT_EQ(8, own.width);
    ASSERT_EQ(4, own.height);
    EXPECT_EQ((0 + 30 + 0 + 30) / 4, own.At(0, 0)[2]);
    EXPECT_EQ((0 + 0 + 60 + 60) / 4, own.At(0, 0)[1]);
    EXPECT_EQ(7 * 30, own.At(7, 3)[2]);  // last column and row: copied
    EXPECT_EQ(3 * 60, own.At(7, 3)[1]);
    EXPECT_EQ(255, own.At(3, 2)[3]);
    // Half size: 16.16 steps of 2.
    const Raster half = Decode(url, 4, 2);
    ASSERT_EQ(4, half.width);
    EXPECT_EQ((60 + 90 + 60 + 90) / 4, half.At(1, 0)[2]);
}

TEST_F(PngReaderTest, BrokenFilesFailCleanly) {
    PngSpec spec;
    spec.width = 40;
    spec.height = 30;
    spec.compression = 0;  // stored blocks: the data is as long as the pixels
    spec.pixel = [](uint32_t x, uint32_t y, uint16_t* s) {
        s[0] = s[1] = s[2] = static_cast<uint16_t>(x ^ y);
    };
    const std::string good = WritePng(spec);
    ASSERT_EQ(80, Decode(Write("good.png", good), 80, 60).width);

    const size_t idat = good.find("IDAT");
    ASSERT_NE(std::string::npos, idat);
    // Cut inside the image data.
    EXPECT_TRUE(Decode(Write("cut.png", good.substr(0, idat + 200)), 80, 60).Empty());
    EXPECT_TRUE(log.Contains("Read PNG thumbnail error! "));
    // One flipped bit in the image data: its checksum fails.
    std::string flipped = good;
    flipped[idat + 100] ^= 0x10;
    EXPECT_TRUE(Decode(Write("crc.png", flipped), 80, 60).Empty());
    EXPECT_TRUE(log.Contains("libpng error: "));
    // Cut inside the header: the header parse fails.
    EXPECT_TRUE(Decode(Write("head.png", good.substr(0, 20)), 80, 60).Empty());
    EXPECT_TRUE(log.Contains("Parse false or it is not a jpg file"));
    // Every cut before the last image data fails, and none crashes.
    const size_t end = good.rfind("IEND") - 4;
    for (size_t n = 2; n < end; n += 37) {
        EXPECT_TRUE(Decode(Write("any.png", good.substr(0, n)), 40, 30).Empty()) << n;
    }
    // The end chunk itself is not needed.
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
    const std::string url = Write("large.png", WritePng(spec));
    const Raster img = Decode(url, 400, 300);
    ASSERT_EQ(400, img.width);
    ASSERT_EQ(300, img.height);
    const uint8_t* grey = img.At(100, 75);
    EXPECT_NEAR(127, grey[2], 2);
    EXPECT_NEAR(127, grey[1], 2);
    const uint8_t* red = img.At(300, 75);
    EXPECT_EQ(255, red[2]);
    EXPECT_EQ(0, red[1]);
    const uint8_t* green = img.At(100, 225);
    EXPECT_EQ(0, green[2]);
    EXPECT_EQ(255, green[1]);
    const uint8_t* white = img.At(300, 225);
    EXPECT_EQ(255, white[0]);

    // Interlaced: cells take their top-left pixel, whose checkerboard square is black.
    spec.interlace = true;
    const Raster adam7 = Decode(Write("large-i.png", WritePng(spec)), 400, 300);
    ASSERT_EQ(400, adam7.width);
    EXPECT_EQ(255, adam7.At(300, 75)[2]);
    EXPECT_EQ(255, adam7.At(100, 225)[1]);
    EXPECT_EQ(255, adam7.At(300, 225)[0]);
}

TEST_F(PngReaderTest, OversizedOrEmptyPicturesFailFast) {
    using qrbpicturetest::PngChunk;
    using qrbpicturetest::PngWithHeader;
    // Above the pixel bound: refused by the header parse, before any row.
    const std::string junk = PngChunk("IDAT", std::string(64, '\x5A')) + PngChunk("IEND", "");
    EXPECT_TRUE(Decode(Write("huge.png", PngWithHeader(20000, 20000, junk)), 320, 240).Empty());
    EXPECT_TRUE(log.Contains("PNG 20000 x 20000 exceeds"));
    // Above the width bound: libpng itself refuses the header.
    log.Clear();
    EXPECT_TRUE(Decode(Write("wide.png", PngWithHeader(70000, 10, junk)), 320, 240).Empty());
    EXPECT_TRUE(log.Contains("libpng error: "));
    // 100 megapixels are allowed, but these carry junk for data: the first row fails.
    log.Clear();
    EXPECT_TRUE(Decode(Write("junk.png", PngWithHeader(10000, 10000, junk)), 320, 240).Empty());
    EXPECT_TRUE(log.Contains("Read PNG thumbnail error! "));
    // And a picture with no data at all.
    const std::string none = PngChunk("IEND", "");
    EXPECT_TRUE(Decode(Write("none.png", PngWithHeader(100, 100, none)), 320, 240).Empty());
}

// --- PngSuite ----------------------------------------------------------------------------

std::vector<std::string> ListDir(const std::string& dir, const std::string& suffix) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                names.push_back(name);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<int> ReadJsonNumbers(const std::string& path) {
    const std::string text = qrbpicturetest::ReadFileBytes(path);
    std::vector<int> values;
    int current = -1;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            current = (current < 0 ? 0 : current * 10) + (c - '0');
        } else if (current >= 0) {
            values.push_back(current);
            current = -1;
        }
    }
    if (current >= 0) values.push_back(current);
    return values;
}

TEST(PngSuiteCorpusTest, ValidFilesMatchTheirExpectedPixels) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/lunapaint-pngsuite/";
    int checked = 0;
    for (const std::string& name : ListDir(dir + "png", ".png")) {
        if (name[0] == 'x') continue;  // deliberately broken: the next test
        const std::string stem = name.substr(0, name.size() - 4);
        CQRBImageDecoder probe(("file://" + dir + "png/" + name).c_str(), 0, 0, 0, false);
        ASSERT_TRUE(probe.IsValid()) << name;
        const uint32_t w = probe.GetPictureWidth();
        const uint32_t h = probe.GetPictureHeight();
        const Raster img = Decode("file://" + dir + "png/" + name, 2 * w, 2 * h);
        ASSERT_FALSE(img.Empty()) << name;
        // 16-bit files have an 8-bit rendering of their own, rounded a little differently from
        // libpng's scaling in a few pixels: they are held to within one step.
        std::string json = dir + "json/" + stem + "_to8.json";
        bool sixteen = !qrbpicturetest::ReadFileBytes(json).empty();
        if (!sixteen) json = dir + "json/" + stem + ".json";
        std::vector<int> want = ReadJsonNumbers(json);
        if (want.empty()) continue;
        // Some 16-bit files only have 16-bit expectations: brought to 8 bits here.
        if (*std::max_element(want.begin(), want.end()) > 255) {
            sixteen = true;
            for (int& v : want) v = (v * 255 + 32767) / 65535;
        }
        ASSERT_EQ(static_cast<size_t>(w) * h * 4, want.size()) << name;
        // Where a pixel is wholly transparent its colour means nothing (the reference renders
        // keep their own); only alpha is compared there.
        Raster seen = img;
        for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x) {
                if (want[(y * w + x) * 4 + 3] != 0) continue;
                uint8_t* p = &seen.pixels[(static_cast<size_t>(2 * y) * seen.width + 2 * x) * 4];
                p[2] = static_cast<uint8_t>(want[(y * w + x) * 4]);
                p[1] = static_cast<uint8_t>(want[(y * w + x) * 4 + 1]);
                p[0] = static_cast<uint8_t>(want[(y * w + x) * 4 + 2]);
            }
        }
        EXPECT_TRUE(MatchesAtDoubleSize(
            seen, w, h,
            [&](uint32_t x, uint32_t y, uint8_t* rgba) {
                for (int c = 0; c < 4; ++c) {
                    rgba[c] = static_cast<uint8_t>(want[(y * w + x) * 4 + c]);
                }
            },
            sixteen ? 1 : 0))
            << name;
        ++checked;
    }
    EXPECT_GT(checked, 100);
}

TEST(PngSuiteCorpusTest, DeliberatelyBrokenFilesFail) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::string dir = corpus + "/lunapaint-pngsuite/png/";
    int broken = 0;
    for (const std::string& name : ListDir(dir, ".png")) {
        if (name[0] != 'x') continue;
        EXPECT_TRUE(Decode("file://" + dir + name, 32, 32).Empty()) << name;
        ++broken;
    }
    EXPECT_GE(broken, 9);
}

TEST(PngCorpusTest, OtherProjectsFilesDecodeOrFailCleanly) {
    QRB_REQUIRE_CORPUS(corpus);
    const struct {
        const char* path;
        bool decodes;
    } files[] = {
        {"pillow/1_trns.png", true},
        {"pillow/l_trns.png", true},
        {"pillow/p_trns_single.png", true},
        {"pillow/rgb_trns.png", true},
        {"pillow/tRNS_null_1x1.png", true},
        {"pillow/p_16.png", true},
        {"pillow/padded_idat.png", true},
        {"pillow/hopper.png", true},
        {"pillow/hopper_idat_after_image_end.png", true},
        {"pillow/pil123rgba.png", true},
        {"pillow/png_decompression_dos.png", true},  // its text bombs are never inflated
        {"pillow/tiff_16bit_RGBa_target.png", true},
        {"pillow/tiny.png", true},
        {"pillow/uncompressed_l.png", true},
        {"pillow/itxt_chunks.png", true},
        {"pillow/exif_imagemagick_orientation.png", true},
        {"pillow/apng/single_frame.png", true},
        {"pillow/broken.png", false},
        {"pillow/truncated_image.png", false},
        {"hachoir/logo-kubuntu.png", true},
        {"androidx-media/png/media3test.png", true},
    };
    for (const auto& f : files) {
        const Raster img = Decode("file://" + corpus + "/" + f.path, 64, 64);
        EXPECT_EQ(f.decodes, !img.Empty()) << f.path;
    }
    // Against a reference decode by libpng's own simplified reader (no gamma in these files).
    Raster reference;
    ASSERT_TRUE(qrbpicturetest::ReadReferencePng(corpus + "/pillow/hopper.png", &reference));
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
