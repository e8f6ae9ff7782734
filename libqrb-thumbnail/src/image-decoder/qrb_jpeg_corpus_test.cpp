// Real camera and tool JPEGs from the shared corpus: IFD0 orientation in both byte orders (and
// never IFD1's), IFD1 thumbnails found where their tags say and of the length they say,
// uncompressed or empty IFD1 thumbnails ignored, broken EXIF walked to its end, and every file
// decoded or refused without harm.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_jpeg_header_parser.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_scoped.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using qrbpicturetest::Decode;
using qrbpicturetest::Raster;


// The header walk on a whole file.
bool Walk(const std::string& path, QRBJpegHeaderInfo* info) {
    QRBScopedFile fp(std::fopen(path.c_str(), "rb"));
    if (!fp) return false;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    return CQRBJpegHeaderParser::ParseMarkers(fp.get(), static_cast<uint64_t>(st.st_size), info) ==
           0;
}

TEST(JpegExifCorpusTest, OrientationComesFromIfd0InBothByteOrders) {
    QRB_REQUIRE_CORPUS(corpus);
    struct Case {
        std::string path;
        uint32_t orientation;
    };
    std::vector<Case> cases;
    for (int n = 1; n <= 8; ++n) {
        // portrait_1 is little-endian, the rest big-endian.
        cases.push_back(
            {"ianare-exif-samples/jpg/orientation/portrait_" + std::to_string(n) + ".jpg",
             uint32_t(n)});
        cases.push_back(
            {"recurser-exif-orientation-examples/Landscape_" + std::to_string(n) + ".jpg",
             uint32_t(n)});
    }
    for (int n : {2, 3, 4, 6, 8}) {  // little-endian
        cases.push_back({"pillow/hopper_orientation_" + std::to_string(n) + ".jpg", uint32_t(n)});
    }
    cases.push_back({"recurser-exif-orientation-examples/Landscape_0.jpg", 0});  // tag says 0
    cases.push_back({"recurser-exif-orientation-examples/Portrait_0.jpg", 0});
    cases.push_back({"pillow/orientation_rectangle.jpg", 8});
    cases.push_back({"pillow/hopper.jpg", 0});  // no EXIF
    // IFD0 says 1, IFD1 says 8: the picture is upright.
    cases.push_back({"ianare-exif-samples/jpg/Panasonic_DMC-FZ30.jpg", 1});
    // IFD0 says 6, IFD1 says 1.
    cases.push_back({"taglib-sharp/sample_bgo625367.jpg", 6});
    cases.push_back({"taglib-sharp/sample_recursive_ifd.jpg", 0});
    for (const Case& c : cases) {
        QRBJpegHeaderInfo info;
        ASSERT_TRUE(Walk(corpus + "/" + c.path, &info)) << c.path;
        EXPECT_EQ(c.orientation, info.orientation) << c.path;
        // The same through the processor, where the file decodes at all.
        const Raster img = Decode("file://" + corpus + "/" + c.path, 64, 64);
        if (!img.Empty()) {
            EXPECT_EQ(int(c.orientation), img.orientation) << c.path;
        }
    }
}

TEST(JpegExifCorpusTest, Ifd1ThumbnailsAreWhereAndAsLongAsTheirTagsSay) {
    QRB_REQUIRE_CORPUS(corpus);
    const struct {
        const char* path;
        uint64_t length;  // JPEGInterchangeFormatLength
    } cases[] = {
        {"ianare-exif-samples/jpg/Canon_40D.jpg", 1378},                 // II
        {"ianare-exif-samples/jpg/Nikon_D70.jpg", 1700},                 // II
        {"ianare-exif-samples/jpg/Fujifilm_FinePix6900ZOOM.jpg", 1428},  // MM
        {"ianare-exif-samples/jpg/Konica_Minolta_DiMAGE_Z3.jpg", 1234},  // MM
        {"ianare-exif-samples/jpg/long_description.jpg", 1322},          // MM
        {"ianare-exif-samples/jpg/Panasonic_DMC-FZ30.jpg", 1607},
        // Compression says 1 (uncompressed), yet offset and length give a JPEG.
        {"ianare-exif-samples/jpg/Ricoh_Caplio_RR330.jpg", 1307},
        {"ianare-exif-samples/jpg/exif-org/kodak-dc240.jpg", 6934},  // MM
        {"ianare-exif-samples/jpg/exif-org/canon-ixus.jpg", 5342},   // II
        {"taglib-sharp/sample_nikon2.jpg", 8430},                    // MM
    };
    for (const auto& c : cases) {
        const std::string path = corpus + "/" + c.path;
        QRBJpegHeaderInfo info;
        ASSERT_TRUE(Walk(path, &info)) << c.path;
        EXPECT_EQ(c.length, info.exifThumbSize) << c.path;
        const std::string bytes = qrbpicturetest::ReadFileBytes(path);
        ASSERT_LE(info.exifThumbOffset + info.exifThumbSize, bytes.size()) << c.path;
        EXPECT_EQ(std::string("\xFF\xD8", 2), bytes.substr(info.exifThumbOffset, 2)) << c.path;
        // A small request is served from it.
        CQRBImageDecoder decoder(("file://" + path).c_str(), 80, 60, 0, false);
        EXPECT_EQ(CQRBImageDecoder::kTypeExif, decoder.m_GetThumbnailType()) << c.path;
        EXPECT_GT(decoder.GetExifThumbnailWidth(), 0u) << c.path;
        EXPECT_FALSE(Decode("file://" + path, 80, 60).Empty()) << c.path;
    }
}

TEST(JpegExifCorpusTest, UncompressedOrEmptyIfd1ThumbnailsAreNoThumbnail) {
    QRB_REQUIRE_CORPUS(corpus);
    for (const char* name : {"ianare-exif-samples/jpg/exif-org/kodak-dc210.jpg",
                             "ianare-exif-samples/jpg/exif-org/sony-d700.jpg",
                             "ianare-exif-samples/jpg/tests/87_OSError.jpg"}) {
        const std::string path = corpus + "/" + name;
        if (qrbpicturetest::ReadFileBytes(path).empty()) continue;  // not in every corpus cut
        QRBJpegHeaderInfo info;
        ASSERT_TRUE(Walk(path, &info)) << name;
        EXPECT_TRUE(info.hasExif) << name;
        EXPECT_EQ(0u, info.exifThumbSize) << name;
        CQRBImageDecoder decoder(("file://" + path).c_str(), 80, 60, 0, false);
        EXPECT_EQ(CQRBImageDecoder::kTypeFullDecoding, decoder.m_GetThumbnailType()) << name;
        EXPECT_FALSE(Decode("file://" + path, 80, 60).Empty()) << name;
    }
}

TEST(JpegExifCorpusTest, BrokenExifEndsAndTheFileStillDecodes) {
    QRB_REQUIRE_CORPUS(corpus);
    const char* files[] = {
        "ianare-exif-samples/jpg/invalid/image00971.jpg",
        "ianare-exif-samples/jpg/invalid/image01088.jpg",
        "ianare-exif-samples/jpg/invalid/image01137.jpg",
        "ianare-exif-samples/jpg/invalid/image01551.jpg",
        "ianare-exif-samples/jpg/invalid/image01713.jpg",
        "taglib-sharp/sample_recursive_ifd.jpg",
        "taglib-sharp/sample_invalidifdoffset.jpg",
        "pillow/invalid-exif.jpg",
        "pillow/exif-ifd-offset.jpg",
        "pillow/multiple_exif.jpg",
        "pillow/jpeg_ff00_header.jpg",
        "pillow/empty_gps_ifd.jpg",
    };
    for (const char* name : files) {
        QRBJpegHeaderInfo info;
        EXPECT_TRUE(Walk(corpus + "/" + name, &info)) << name;
        EXPECT_GT(info.width, 0u) << name;
        EXPECT_FALSE(Decode("file://" + corpus + "/" + name, 64, 64).Empty()) << name;
    }
}

void CollectJpegs(const std::string& dir, std::vector<std::string>* out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = dir + "/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            CollectJpegs(path, out);
        } else if (name.size() > 4 && (name.compare(name.size() - 4, 4, ".jpg") == 0 ||
                                       name.compare(name.size() - 5, 5, ".jpeg") == 0)) {
            out->push_back(path);
        }
    }
    closedir(d);
}

TEST(JpegExifCorpusTest, EveryCorpusJpegDecodesOrFailsCleanly) {
    QRB_REQUIRE_CORPUS(corpus);
    std::vector<std::string> files;
    CollectJpegs(corpus, &files);
    std::sort(files.begin(), files.end());
    ASSERT_GT(files.size(), 50u);
    int decoded = 0;
    for (const std::string& path : files) {
        for (bool forceFull : {false, true}) {
            const Raster img = Decode("file://" + path, 120, 90, forceFull);
            if (img.Empty()) continue;
            // A decode covers the request and keeps the source's aspect within rounding.
            EXPECT_TRUE((img.width == 120 && img.height >= 90) ||
                        (img.height == 90 && img.width >= 120))
                << path << " " << img.width << "x" << img.height;
            ++decoded;
        }
    }
    // Some tag-library samples have their scan data stripped; most files decode.
    EXPECT_GT(decoded, static_cast<int>(files.size()));
    std::printf("corpus JPEGs: %zu files, %d of %zu decodes succeeded\n", files.size(), decoded,
                files.size() * 2);
}

}  // namespace
