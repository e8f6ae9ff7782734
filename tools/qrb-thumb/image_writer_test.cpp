#include "png_writer.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace qrbthumb {
namespace {

struct DecodedPng {
    bool ok = false;
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    png_uint_32 fileFormat = 0;  // what the file holds, as libpng describes it
    std::vector<unsigned char> rgba;
};

// Reads back with libpng itself, asking for RGBA whatever the file holds.
DecodedPng ReadPng(const std::string& path) {
    DecodedPng out;
    png_image image;
    std::memset(&image, 0, sizeof(image));
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return out;
    out.width = image.width;
    out.height = image.height;
    out.fileFormat = image.format;
    image.format = PNG_FORMAT_RGBA;
    out.rgba.resize(PNG_IMAGE_SIZE(image));
    out.ok = png_image_finish_read(&image, nullptr, out.rgba.data(), 0, nullptr) != 0;
    png_image_free(&image);
    return out;
}

// A raster whose every byte differs from its neighbours, alpha included, so that a swapped,
// dropped or shifted channel or row shows.
std::vector<unsigned char> Raster(int width, int height) {
    std::vector<unsigned char> bgra(static_cast<size_t>(width) * height * 4);
    for (size_t i = 0; i < bgra.size(); ++i) bgra[i] = static_cast<unsigned char>(i * 37 + 11);
    return bgra;
}

class ToolPngWriter : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return root.Path() + "/" + name; }
    qrbtest::ScratchRoot root;
};

TEST_F(ToolPngWriter, WritesBgraAsRgbaThatReadsBackPixelForPixel) {
    const int width = 7, height = 5;
    const std::vector<unsigned char> bgra = Raster(width, height);
    std::string error;
    ASSERT_TRUE(WriteBgraPng(Path("t.png"), bgra.data(), bgra.size(), width, height, &error))
        << error;

    const DecodedPng png = ReadPng(Path("t.png"));
    ASSERT_TRUE(png.ok);
    EXPECT_EQ(png.width, 7u);
    EXPECT_EQ(png.height, 5u);
    EXPECT_EQ(png.fileFormat, static_cast<png_uint_32>(PNG_FORMAT_RGBA));
    ASSERT_EQ(png.rgba.size(), bgra.size());
    for (size_t p = 0; p < bgra.size(); p += 4) {
        ASSERT_EQ(png.rgba[p + 0], bgra[p + 2]) << "red of pixel " << p / 4;
        ASSERT_EQ(png.rgba[p + 1], bgra[p + 1]) << "green of pixel " << p / 4;
        ASSERT_EQ(png.rgba[p + 2], bgra[p + 0]) << "blue of pixel " << p / 4;
        ASSERT_EQ(png.rgba[p + 3], bgra[p + 3]) << "alpha of pixel " << p / 4;
    }
}

TEST_F(ToolPngWriter, OnePixelImage) {
    const unsigned char bgra[4] = {0x10, 0x20, 0x30, 0xFF};
    std::string error;
    ASSERT_TRUE(WriteBgraPng(Path("one.png"), bgra, 4, 1, 1, &error)) << error;
    const DecodedPng png = ReadPng(Path("one.png"));
    ASSERT_TRUE(png.ok);
    EXPECT_EQ(png.rgba, (std::vector<unsigned char>{0x30, 0x20, 0x10, 0xFF}));
}

TEST_F(ToolPngWriter, RefusesABufferThatIsNotWidthTimesHeightTimesFour) {
    const std::vector<unsigned char> bgra = Raster(4, 4);
    std::string error;
    EXPECT_FALSE(WriteBgraPng(Path("short.png"), bgra.data(), bgra.size() - 1, 4, 4, &error));
    EXPECT_NE(error.find("4x4"), std::string::npos) << error;
    EXPECT_FALSE(WriteBgraPng(Path("long.png"), bgra.data(), bgra.size(), 4, 3, &error));
    EXPECT_FALSE(WriteBgraPng(Path("zero.png"), bgra.data(), bgra.size(), 0, 4, &error));
    EXPECT_FALSE(WriteBgraPng(Path("null.png"), nullptr, 64, 4, 4, &error));
    // Sides whose product overflows must not wrap around to the buffer's size.
    EXPECT_FALSE(WriteBgraPng(Path("wrap.png"), bgra.data(), 0, 0x40000000, 0x40000000, &error));
    EXPECT_EQ(root.CountEntries(""), 0);
}

TEST_F(ToolPngWriter, ReportsAFolderThatCannotBeWritten) {
    const std::vector<unsigned char> bgra = Raster(2, 2);
    std::string error;
    EXPECT_FALSE(WriteBgraPng(Path("no-such-dir/t.png"), bgra.data(), bgra.size(), 2, 2, &error));
    EXPECT_NE(error.find("no-such-dir/t.png"), std::string::npos) << error;
}

TEST_F(ToolPngWriter, ReplacesAnOlderFile) {
    std::vector<unsigned char> bgra = Raster(3, 3);
    std::string error;
    ASSERT_TRUE(WriteBgraPng(Path("t.png"), bgra.data(), bgra.size(), 3, 3, &error));
    bgra.assign(bgra.size(), 0x7F);
    ASSERT_TRUE(WriteBgraPng(Path("t.png"), bgra.data(), bgra.size(), 3, 3, &error));
    const DecodedPng png = ReadPng(Path("t.png"));
    ASSERT_TRUE(png.ok);
    EXPECT_EQ(png.rgba, bgra);
}

}  // namespace
}  // namespace qrbthumb
