// Camera and tool JPEGs of the shared corpus: IFD1 thumbnails found where and as long as their
// tags say, uncompressed or empty ones ignored, broken EXIF no obstacle to the picture.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_jpeg_header_parser.h"
#include "image-decoder/qrb_picture_test_support.h"

#include "qrb_scoped.h"

#include <gtest/gtest.h>

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

// Files with broken EXIF (loops, bad offsets, several blocks) still decode.
TEST(JpegExifCorpusTest, BrokenExifDoesNotStopTheDecode) {
    QRB_REQUIRE_CORPUS(corpus);
    for (const char* name :
         {"ianare-exif-samples/jpg/invalid/image00971.jpg", "taglib-sharp/sample_recursive_ifd.jpg",
          "taglib-sharp/sample_invalidifdoffset.jpg", "pillow/multiple_exif.jpg",
          "pillow/jpeg_ff00_header.jpg", "pillow/empty_gps_ifd.jpg"})
        for (bool forceFull : {false, true})
            EXPECT_FALSE(DecodePicture("file://" + corpus + "/" + name, 120, 90, forceFull).Empty())
                << name;
}

}  // namespace
