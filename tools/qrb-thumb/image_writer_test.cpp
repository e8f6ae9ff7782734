#include "image_writer.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

namespace qrbthumb {
namespace {

struct ClosePipe {
    void operator()(std::FILE* f) const noexcept { pclose(f); }
};
using ScopedPipe = std::unique_ptr<std::FILE, ClosePipe>;

// Output of an ImageMagick command: files are read back by a decoder the writer does not use.
std::string Magick(const std::string& command) {
    std::string out;
    ScopedPipe pipe(popen((command + " 2>/dev/null").c_str(), "r"));
    char buffer[65536];
    for (size_t n; pipe && (n = std::fread(buffer, 1, sizeof(buffer), pipe.get())) > 0;) {
        out.append(buffer, n);
    }
    return out;
}

// Ramps as gentle at every size as across a 320x240 thumbnail (JPEG keeps them within a few
// levels), red and blue apart everywhere so a swap shows, alpha falling to 0 on row 239.
std::vector<unsigned char> Raster(int width, int height) {
    std::vector<unsigned char> bgra;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int fx = x * 160 / 319, fy = y * 150 / 239;
            bgra.insert(bgra.end(),
                        {static_cast<unsigned char>(220 - fx), static_cast<unsigned char>(60 + fy),
                         static_cast<unsigned char>(40 + fx),
                         static_cast<unsigned char>(255 - y * 255 / 239)});
        }
    }
    return bgra;
}

class ToolImageWriter : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return root.Path() + "/" + name; }
    qrbtest::ScratchRoot root;
};

class ToolImageWriterRoundTrip
    : public ToolImageWriter,
      public ::testing::WithParamInterface<std::tuple<ImageFormat, std::pair<int, int>>> {};

TEST_P(ToolImageWriterRoundTrip, ReadsBackAsWritten) {
    const auto [format, size] = GetParam();
    const auto [width, height] = size;
    const std::vector<unsigned char> bgra = Raster(width, height);
    const std::string path = Path(std::string("t.") + ExtensionOf(format));
    const std::vector<TextChunk> text = {{"Thumb::URI", "file:///a%20b.jpg"},
                                         {"Thumb::MTime", "1700000000"}};
    std::string error;
    ASSERT_TRUE(WriteBgraImage(path, format, bgra.data(), bgra.size(), width, height, text, &error))
        << error;

    int w = 0, h = 0;
    std::string colorType;  // the PNG header's: 6 is RGBA
    std::istringstream(Magick("identify -format '%w %h %[png:IHDR.color-type-orig]' " + path)) >>
        w >> h >> colorType;
    ASSERT_EQ(std::make_pair(w, h), size);
    const std::string rgba = Magick("convert " + path + " -depth 8 rgba:-");
    ASSERT_EQ(rgba.size(), bgra.size());
    const bool png = format == ImageFormat::Png;
    int worst = 0;
    for (size_t p = 0; p < bgra.size(); p += 4) {
        const int a = bgra[p + 3];
        for (int c = 0; c < 3; ++c) {  // red, green, blue; a JPEG's composited onto black
            const int expected = png ? bgra[p + 2 - c] : (bgra[p + 2 - c] * a + 127) / 255;
            worst = std::max(worst, std::abs(static_cast<unsigned char>(rgba[p + c]) - expected));
        }
        ASSERT_EQ(static_cast<unsigned char>(rgba[p + 3]), png ? a : 255) << "pixel " << p / 4;
    }
    if (png) {
        EXPECT_EQ(worst, 0);
        EXPECT_EQ(colorType, "6");
        EXPECT_EQ(Magick("identify -format '%[Thumb::URI]|%[Thumb::MTime]' " + path),
                  "file:///a%20b.jpg|1700000000");
    } else {
        EXPECT_LE(worst, 8);
    }
}

INSTANTIATE_TEST_SUITE_P(
    FormatsAndSizes, ToolImageWriterRoundTrip,
    ::testing::Combine(::testing::Values(ImageFormat::Png, ImageFormat::Jpeg),
                       ::testing::Values(std::make_pair(1, 1), std::make_pair(7, 5),
                                         std::make_pair(33, 2), std::make_pair(320, 240))),
    [](const auto& info) {
        const auto size = std::get<1>(info.param);
        return std::string(ExtensionOf(std::get<0>(info.param))) + "_" +
               std::to_string(size.first) + "x" + std::to_string(size.second);
    });

struct Refusal {
    const char* name;
    ImageFormat format;
    const char* file;
    int width;
    int height;
    size_t bytes;  // of a 4x4 raster
    const char* key;
    const char* reason;  // part of the error
};

class ToolImageWriterRefusal : public ToolImageWriter,
                               public ::testing::WithParamInterface<Refusal> {};

TEST_P(ToolImageWriterRefusal, LeavesNoFile) {
    const Refusal& r = GetParam();
    const std::vector<unsigned char> bgra = Raster(4, 4);
    const unsigned char* pixels = std::string(r.name) == "NoBuffer" ? nullptr : bgra.data();
    std::string error;
    EXPECT_FALSE(WriteBgraImage(Path(r.file), r.format, pixels, r.bytes, r.width, r.height,
                                {{r.key, "v"}}, &error));
    EXPECT_NE(error.find(r.reason), std::string::npos) << error;
    EXPECT_EQ(root.CountEntries(""), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ToolImageWriterRefusal,
    ::testing::Values(Refusal{"Short", ImageFormat::Png, "t.png", 4, 4, 63, "k", "4x4"},
                      Refusal{"Long", ImageFormat::Jpeg, "t.jpg", 4, 3, 64, "k", "4x3"},
                      Refusal{"ZeroWidth", ImageFormat::Png, "t.png", 0, 4, 64, "k", "empty"},
                      Refusal{"NoBuffer", ImageFormat::Jpeg, "t.jpg", 4, 4, 64, "k", "empty"},
                      // Sides whose product overflows must not wrap around to the size.
                      Refusal{"Wraps", ImageFormat::Png, "t.png", 1 << 30, 1 << 30, 0, "k",
                              "4 bytes a pixel"},
                      Refusal{"NoFolder", ImageFormat::Jpeg, "no/t.jpg", 4, 4, 64, "k", "no/t.jpg"},
                      // Fails after the file was started: what was written goes.
                      Refusal{"EmptyKey", ImageFormat::Png, "t.png", 4, 4, 64, "", "keyword"}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; });

}  // namespace
}  // namespace qrbthumb
