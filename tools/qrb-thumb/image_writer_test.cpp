#include "image_writer.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace qrbthumb {
namespace {

// Output of an ImageMagick command: files are read back by a decoder the writer does not use.
std::string Magick(const std::string& command) {
    std::string out;
    std::FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    char buffer[65536];
    for (size_t n; pipe && (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
        out.append(buffer, n);
    if (pipe) pclose(pipe);
    return out;
}

// Gentle ramps (JPEG keeps them within a few levels), red and blue apart, alpha falling to 0.
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

// PNG keeps every pixel, its alpha and the text; JPEG is composited onto black, within 8 levels.
TEST(ToolImageWriter, ReadsBackAsWritten) {
    qrbtest::ScratchRoot root;
    for (const ImageFormat format : {ImageFormat::Png, ImageFormat::Jpeg}) {
        for (const auto& [width, height] :
             {std::make_pair(1, 1), std::make_pair(7, 5), std::make_pair(320, 240)}) {
            const std::string path = root.Path() + "/t." + ExtensionOf(format);
            SCOPED_TRACE(path + " " + std::to_string(width) + "x" + std::to_string(height));
            const std::vector<unsigned char> bgra = Raster(width, height);
            std::string error;
            ASSERT_TRUE(WriteBgraImage(path, format, bgra.data(), bgra.size(), width, height,
                                       {{"Thumb::URI", "file:///a%20b.jpg"}}, &error))
                << error;
            int w = 0, h = 0;
            std::istringstream(Magick("identify -format '%w %h' " + path)) >> w >> h;
            ASSERT_EQ(std::make_pair(w, h), std::make_pair(width, height));
            const std::string rgba = Magick("convert " + path + " -depth 8 rgba:-");
            ASSERT_EQ(rgba.size(), bgra.size());
            const bool png = format == ImageFormat::Png;
            int worst = 0;
            for (size_t p = 0; p < bgra.size(); p += 4) {
                const int a = bgra[p + 3];
                for (int c = 0; c < 3; ++c) {  // red, green, blue
                    const int expected = png ? bgra[p + 2 - c] : (bgra[p + 2 - c] * a + 127) / 255;
                    worst = std::max(worst,
                                     std::abs(static_cast<unsigned char>(rgba[p + c]) - expected));
                }
                ASSERT_EQ(static_cast<unsigned char>(rgba[p + 3]), png ? a : 255) << p / 4;
            }
            EXPECT_LE(worst, png ? 0 : 8);
            if (png) {
                EXPECT_EQ(Magick("identify -format '%[Thumb::URI]' " + path), "file:///a%20b.jpg");
            }
        }
    }
}

// A refused image says why and leaves no file, also when it fails after the file was started.
TEST(ToolImageWriter, RefusalsSayWhyAndLeaveNoFile) {
    qrbtest::ScratchRoot root;
    const std::vector<unsigned char> bgra = Raster(4, 4);
    const struct {
        const char* file;
        int width;
        int height;
        size_t bytes;
        const char* key;
        const char* reason;
    } rows[] = {
        {"t.png", 4, 4, 63, "k", "4x4"},
        // Sides whose product overflows must not wrap around to the size.
        {"t.png", 1 << 30, 1 << 30, 0, "k", "4 bytes a pixel"},
        {"no/t.jpg", 4, 4, 64, "k", "no/t.jpg"},
        {"t.png", 4, 4, 64, "", "keyword"},  // found out while writing
    };
    for (const auto& r : rows) {
        const ImageFormat format =
            std::strstr(r.file, ".png") ? ImageFormat::Png : ImageFormat::Jpeg;
        std::string error;
        EXPECT_FALSE(WriteBgraImage(root.Path() + "/" + r.file, format, bgra.data(), r.bytes,
                                    r.width, r.height, {{r.key, "v"}}, &error));
        EXPECT_NE(error.find(r.reason), std::string::npos) << error;
        EXPECT_EQ(root.CountEntries(""), 0) << r.reason;
    }
}

}  // namespace
}  // namespace qrbthumb
