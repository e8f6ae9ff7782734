// Real camera and tool JPEGs from the shared corpus: IFD1 thumbnails found where their tags say
// and of the length they say, uncompressed or empty IFD1 thumbnails ignored, and every file
// decoded or refused without harm. (The orientation samples are shown upright by the EXIF
// getter's corpus test.)
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_jpeg_header_parser.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_scoped.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

namespace {

using namespace qrbpicturetest;

TEST(JpegExifCorpusTest, Ifd1ThumbnailsAreWhereAndAsLongAsTheirTagsSayAndServe) {
    QRB_REQUIRE_CORPUS(corpus);
    const std::pair<const char*, uint64_t> cases[] = {
        {"ianare-exif-samples/jpg/Canon_40D.jpg", 1378},                 // II
        {"ianare-exif-samples/jpg/Fujifilm_FinePix6900ZOOM.jpg", 1428},  // MM
        // Compression says 1 (uncompressed), yet offset and length give a JPEG.
        {"ianare-exif-samples/jpg/Ricoh_Caplio_RR330.jpg", 1307},
        {"ianare-exif-samples/jpg/exif-org/kodak-dc240.jpg", 6934},  // MM
        {"taglib-sharp/sample_nikon2.jpg", 8430},                    // MM
    };
    for (const auto& [name, length] : cases) {
        const std::string path = corpus + "/" + name;
        const std::string bytes = ReadFileBytes(path);
        QRBScopedFile fp(std::fopen(path.c_str(), "rb"));
        QRBJpegHeaderInfo info;
        ASSERT_EQ(0, CQRBJpegHeaderParser::ParseMarkers(fp.get(), bytes.size(), &info)) << name;
        EXPECT_EQ(length, info.exifThumbSize) << name;
        EXPECT_EQ("\xFF\xD8", bytes.substr(info.exifThumbOffset, 2)) << name;
        CQRBImageDecoder decoder(("file://" + path).c_str(), 80, 60, 0, false);
        EXPECT_EQ(CQRBImageDecoder::kTypeExif, decoder.m_GetThumbnailType()) << name;
        EXPECT_FALSE(DecodePicture("file://" + path, 80, 60).Empty()) << name;
    }
    // Uncompressed or empty IFD1 thumbnails are none: the picture is decoded.
    for (const char* name : {"ianare-exif-samples/jpg/exif-org/sony-d700.jpg",
                             "ianare-exif-samples/jpg/tests/87_OSError.jpg"}) {
        const std::string url = "file://" + corpus + "/" + name;
        EXPECT_EQ(CQRBImageDecoder::kTypeFullDecoding,
                  CQRBImageDecoder(url.c_str(), 80, 60, 0, false).m_GetThumbnailType())
            << name;
        EXPECT_FALSE(DecodePicture(url, 80, 60).Empty()) << name;
    }
}

// Every JPEG of the corpus, with and without the embedded thumbnails: decoded or refused
// without harm. Files with broken EXIF still decode.
TEST(JpegExifCorpusTest, EveryCorpusJpegDecodesOrFailsCleanly) {
    QRB_REQUIRE_CORPUS(corpus);
    std::set<std::string> mustDecode;
    for (const char* name :
         {"ianare-exif-samples/jpg/invalid/image00971.jpg",
          "ianare-exif-samples/jpg/invalid/image01088.jpg",
          "ianare-exif-samples/jpg/invalid/image01137.jpg",
          "ianare-exif-samples/jpg/invalid/image01551.jpg",
          "ianare-exif-samples/jpg/invalid/image01713.jpg", "taglib-sharp/sample_recursive_ifd.jpg",
          "taglib-sharp/sample_invalidifdoffset.jpg", "pillow/invalid-exif.jpg",
          "pillow/exif-ifd-offset.jpg", "pillow/multiple_exif.jpg", "pillow/jpeg_ff00_header.jpg",
          "pillow/empty_gps_ifd.jpg"})
        mustDecode.insert(corpus + "/" + name);
    int files = 0, decoded = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(corpus)) {
        const std::string path = entry.path().string(), ext = entry.path().extension().string();
        if (!entry.is_regular_file() || (ext != ".jpg" && ext != ".jpeg")) continue;
        ++files;
        const bool must = mustDecode.erase(path) > 0;
        for (bool forceFull : {false, true}) {
            const Raster img = DecodePicture("file://" + path, 120, 90, forceFull);
            EXPECT_TRUE(!img.Empty() || !must) << path;
            if (img.Empty()) continue;
            // A decode covers the request and keeps the source's aspect within rounding.
            EXPECT_TRUE((img.width == 120 && img.height >= 90) ||
                        (img.height == 90 && img.width >= 120))
                << path << " " << img.width << "x" << img.height;
            ++decoded;
        }
    }
    ASSERT_GT(files, 50);
    EXPECT_TRUE(mustDecode.empty()) << *mustDecode.begin() << " not found";
    // Some tag-library samples have their scan data stripped; most files decode.
    EXPECT_GT(decoded, files);
}

}  // namespace
