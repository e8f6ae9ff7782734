// The JPEG marker walk and the EXIF directory walk on byte literals: both byte orders, IFD0's
// orientation, the embedded thumbnails' positions, and headers that would loop or overrun.
#include "image-decoder/qrb_jpeg_header_parser.h"

#include "qrb_scoped.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string Bytes(std::initializer_list<int> values) {
    return std::string(values.begin(), values.end());
}

// Replaces bytes of s from `at` (a copy).
std::string Patch(std::string s, size_t at, std::initializer_list<int> values) {
    for (int v : values) s[at++] = static_cast<char>(v);
    return s;
}

const std::string kExifId("Exif\0\0", 6);
// clang-format off
// Intel order, IFD0 { Orientation = 6 }, no IFD1.
const std::string kIntelOrientation6 = kExifId + Bytes({
    'I', 'I', 0x2A, 0, 0x08, 0, 0, 0,  0x01, 0,
    0x12, 0x01, 0x03, 0, 0x01, 0, 0, 0, 0x06, 0, 0, 0,  0, 0, 0, 0});
// Intel order: IFD0 { Orientation = 1 } -> IFD1 at 26 { Orientation = 8, thumbnail at 0x40 of
// 0x20 bytes }. IFD0's count at 6 + 8, its link at 6 + 22; IFD1's entries from 6 + 28.
const std::string kIntelWithIfd1 = kExifId + Bytes({
    'I', 'I', 0x2A, 0, 0x08, 0, 0, 0,  0x01, 0,
    0x12, 0x01, 0x03, 0, 0x01, 0, 0, 0, 0x01, 0, 0, 0,  0x1A, 0, 0, 0,  0x03, 0,
    0x12, 0x01, 0x03, 0, 0x01, 0, 0, 0, 0x08, 0, 0, 0,
    0x01, 0x02, 0x04, 0, 0x01, 0, 0, 0, 0x40, 0, 0, 0,
    0x02, 0x02, 0x04, 0, 0x01, 0, 0, 0, 0x20, 0, 0, 0,  0, 0, 0, 0});
// clang-format on

TEST(JpegExifParserTest, GivesOrientationAndThumbnailOnlyFromWhatIsThere) {
    qrbtest::LogCapture log;
    constexpr uint64_t kThumb = 106 + 0x40;
    const struct {
        const char* what;
        std::string block;
        uint64_t fileSize;
        bool ok;
        uint32_t orientation;
        uint64_t thumbOffset, thumbSize;  // 0, 0: no thumbnail
        const char* logged;
    } cases[] = {
        {"Intel", kIntelOrientation6, 1000, true, 6, 0, 0, "dwNum:[1], bIsInterOrder[1]"},
        // IFD0 says 1, IFD1 says 8: the picture's orientation is IFD0's.
        {"IFD1, Intel", kIntelWithIfd1, 1000, true, 1, kThumb, 0x20, ""},
        {"orientation 9 counts as absent", Patch(kIntelOrientation6, 24, {9}), 1000, true, 0, 0, 0,
         "m_InFileInfo.uOrientation [0], tmpOrientation[9]"},
        {"IFD1's orientation is never the picture's", Patch(kIntelWithIfd1, 16, {0x0E}), 1000, true,
         0, kThumb, 0x20, ""},
        {"thumbnail ending at the end of the file", kIntelWithIfd1, kThumb + 0x20, true, 1, kThumb,
         0x20, ""},
        {"thumbnail a byte past it", kIntelWithIfd1, kThumb + 0x1F, true, 1, 0, 0, ""},
        {"IFD0 past the block", Patch(kIntelOrientation6, 10, {0xFF, 0x7F}), 1000, false, 0, 0, 0,
         "Wrong EXIF Foramt or Wrong Information ~!!!"},
    };
    for (const auto& c : cases) {
        log.Clear();
        QRBJpegHeaderInfo info;  // the block read at 100: its TIFF header at 106
        EXPECT_EQ(c.ok, CQRBJpegHeaderParser::ParseExif(
                            reinterpret_cast<const unsigned char*>(c.block.data()), c.block.size(),
                            100, c.fileSize, &info))
            << c.what;
        EXPECT_EQ(c.orientation, info.orientation) << c.what;
        EXPECT_EQ(c.thumbOffset, info.exifThumbOffset) << c.what;
        EXPECT_EQ(c.thumbSize, info.exifThumbSize) << c.what;
        EXPECT_TRUE(!*c.logged || log.Contains(c.logged)) << c.what;
    }
}

int Walk(const std::string& bytes, QRBJpegHeaderInfo* info) {
    QRBScopedFile fp(fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb"));
    return fp ? CQRBJpegHeaderParser::ParseMarkers(fp.get(), bytes.size(), info) : -2;
}

// SOF0 of 160 x 120, a scan, SOI and EOI.
const std::string kSof0 = Bytes({0xFF, 0xC0, 0, 0x0B, 0x08, 0, 0x78, 0, 0xA0, 1, 1, 0x11, 0});
const std::string kSos = Bytes({0xFF, 0xDA, 0, 0x08, 1, 1, 0, 0, 0x3F, 0});
const std::string kSoi = Bytes({0xFF, 0xD8});
const std::string kEoi = Bytes({0xFF, 0xD9});

std::string Segment(int marker, const std::string& payload) {
    return Bytes({0xFF, marker}) + qrbtest::BigEndian(payload.size() + 2, 2) + payload;
}

TEST(JpegMarkerWalkTest, FindsTheFirstFrameOrFailsSayingWhy) {
    qrbtest::LogCapture log;
    std::string sof3 = kSof0;
    sof3[1] = '\xC3';
    const struct {
        const char* what;
        std::string bytes;
        int ret;  // 0: the frame of 160 x 120 was found
        const char* logged;
    } cases[] = {
        {"fill bytes, standalone markers, garbage",
         kSoi + Bytes({0xFF, 0xFF}) + Segment(0xFE, "x") + Bytes({0x12, 0xFF, 0, 0xFF, 0xD3}) +
             kSof0,
         0, ""},
        {"short EXIF", kSoi + Segment(0xE1, "Exif\0") + kSof0, 0,
         "Error : exifbufsize < 10 failed###"},
        {"broken EXIF", kSoi + Segment(0xE1, kExifId + std::string("XX*\0\x08\0\0\0", 8)) + kSof0,
         0, "Wrong EXIF Foramt or Wrong Information ~!!!"},
        {"lossless frame", kSoi + sof3 + kSos + kEoi, -1, "marker 0xDA before any frame header"},
        {"one byte", kSoi.substr(0, 1), -1, "ERROR FOR READ THE FILE, errno is:"},
        {"EXIF then nothing", kSoi + Segment(0xE1, kIntelOrientation6), -1,
         "Only exif header in this file, errno is : "},
    };
    for (const auto& c : cases) {
        log.Clear();
        QRBJpegHeaderInfo info;
        EXPECT_EQ(c.ret, Walk(c.bytes, &info)) << c.what;
        EXPECT_TRUE(c.ret != 0 || info.width * 1000 + info.height == 160120) << c.what;
        EXPECT_TRUE(!*c.logged || log.Contains(c.logged)) << c.what;
    }
}

TEST(JpegMarkerWalkTest, FindsTheEmbeddedJpegsWhereTheyLieInTheFile) {
    // APP1 payload at 6, TIFF header at 12; IFD1's offset 0x50 points at a JPEG placed there.
    const std::string thumb = kSoi + kSof0 + kEoi;
    std::string exif = Patch(kIntelWithIfd1, 6 + 48, {0x50});
    exif.resize(6 + 0x50, '\0');
    exif = Patch(exif + thumb, 6 + 60, {static_cast<int>(thumb.size())});
    // Only the first EXIF block counts; an APP2 segment holding a JPEG is the large thumbnail.
    const std::string icc = Segment(0xE2, std::string("ICC_PROFILE\0\x01\x01", 14) + "profile");
    const std::string bytes = kSoi + Segment(0xE1, exif) + Segment(0xE1, kIntelOrientation6) + icc +
                              Segment(0xE2, thumb) + kSof0 + kSos + kEoi;
    QRBJpegHeaderInfo info;
    ASSERT_EQ(0, Walk(bytes, &info));
    EXPECT_EQ(1u, info.orientation);
    EXPECT_EQ(12u + 0x50u, info.exifThumbOffset);
    EXPECT_EQ(thumb, bytes.substr(info.exifThumbOffset, info.exifThumbSize));
    EXPECT_EQ(thumb, bytes.substr(info.largeThumbOffset, info.largeThumbSize));
}

}  // namespace
