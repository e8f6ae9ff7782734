// Shared by the tests of the getters that decode downloaded pictures (SNS, RA); header-only,
// never built into the library. Pictures are gradients (red grows left to right, green top to
// bottom), so that where a crop was taken from shows in the pixels; the expected thumbnail is
// the picture decoder's own raster of the same bytes, cropped around its centre by the test.
#ifndef QRB_WEB_PICTURE_TEST_SUPPORT_H
#define QRB_WEB_PICTURE_TEST_SUPPORT_H

#include "image-decoder/qrb_image_processor.h"
#include "qrb_system_path.h"
#include "qrb_thumbnail_item.h"

#include "qrb_test_jpeg_writer.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace qrbwebtest {

struct Raster {
    int width = 0;
    int height = 0;
    std::string pixels;  // blue, green, red, alpha
};

inline qrbtest::JpegSpec GradientSpec(int width, int height) {
    qrbtest::JpegSpec spec;
    spec.width = width;
    spec.height = height;
    spec.quality = 95;
    spec.pattern = qrbtest::JpegPattern::kGradient;
    spec.color = {0, 0, 100};
    return spec;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The test's own centre crop, for the expected thumbnail.
inline Raster CropCentre(const Raster& in, int width, int height) {
    if (width == 0 || height == 0 || width > in.width || height > in.height) return in;
    Raster out;
    out.width = width;
    out.height = height;
    const int x0 = (in.width - width) / 2;
    const int y0 = (in.height - height) / 2;
    for (int y = 0; y < height; ++y) {
        out.pixels.append(in.pixels, (static_cast<size_t>(y0 + y) * in.width + x0) * 4,
                          static_cast<size_t>(width) * 4);
    }
    return out;
}

// What the getter should hand back for bytes at width x height: the decoder's raster of them
// (asked the way the getter asks), centre-cropped.
inline Raster Expected(const qrbtest::ScratchRoot& root, const std::string& bytes, int width,
                       int height) {
    const std::string path = root.WriteFile("reference/picture.jpg", bytes);
    const std::string url = "file://" + path;
    qrb_picture_thumb_param param;
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    param.bModeFlag = 1;
    param.bDecoderFlag = 1;
    Raster decoded;
    unsigned char* buffer = CQRBImageProcessor::GetThumbnailBuffer(
        url.c_str(), param, &decoded.width, &decoded.height, nullptr);
    if (buffer == nullptr) return decoded;
    decoded.pixels.assign(reinterpret_cast<char*>(buffer),
                          static_cast<size_t>(decoded.width) * decoded.height * 4);
    std::free(buffer);  // the decoder's raster is the caller's to free
    return CropCentre(decoded, width, height);
}

inline Raster FromItem(const boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    Raster r;
    if (!item || item->GetImages().size() != 1 || !item->GetImages()[0]) return r;
    const auto& image = item->GetImages()[0];
    r.width = image->GetWidth();
    r.height = image->GetHeight();
    r.pixels.assign(reinterpret_cast<const char*>(image->GetBuffer()),
                    static_cast<size_t>(r.width) * r.height * 4);
    return r;
}

// Red and green of pixel (x, y) of a raster.
inline int RedAt(const Raster& r, int x, int y) {
    return static_cast<unsigned char>(r.pixels[(static_cast<size_t>(y) * r.width + x) * 4 + 2]);
}
inline int GreenAt(const Raster& r, int x, int y) {
    return static_cast<unsigned char>(r.pixels[(static_cast<size_t>(y) * r.width + x) * 4 + 1]);
}

// Names of the files in the data folder (links included, folders not).
inline std::set<std::string> DataFiles(const qrbtest::ScratchRoot& root) {
    std::set<std::string> names;
    const std::string dir = root.Resolve(QRB_DATA_DIR);
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent* entry = readdir(d)) {
        struct stat st;
        const std::string path = dir + entry->d_name;
        if (lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) names.insert(entry->d_name);
    }
    closedir(d);
    return names;
}

inline std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// A link planted at path, pointing at a file outside the data folder that holds
// "precious <tag>".
struct PlantedLink {
    std::string link;
    std::string target;
};
inline PlantedLink Plant(const qrbtest::ScratchRoot& root, const std::string& link,
                         const std::string& tag) {
    PlantedLink p;
    p.link = link;
    p.target = root.WriteFile("elsewhere/" + tag, "precious " + tag);
    std::filesystem::create_directories(root.Resolve(QRB_DATA_DIR));
    EXPECT_EQ(symlink(p.target.c_str(), link.c_str()), 0) << link;
    return p;
}

inline bool IsLinkTo(const std::string& link, const std::string& target) {
    char buf[4096];
    const ssize_t n = readlink(link.c_str(), buf, sizeof(buf));
    return n > 0 && std::string(buf, static_cast<size_t>(n)) == target;
}

}  // namespace qrbwebtest

#endif
