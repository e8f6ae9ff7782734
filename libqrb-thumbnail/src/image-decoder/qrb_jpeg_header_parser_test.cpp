// The JPEG header walk and the EXIF directory walk, from byte literals: both byte orders, the
// orientation of IFD0 only, the IFD1 thumbnail's absolute position, the APP2 large thumbnail,
// and every way a hostile header could make a walk loop, stall or read out of bounds.
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_jpeg_header_parser.h"

#include "qrb_scoped.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string Bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values) s.push_back(static_cast<char>(v));
    return s;
}

const std::string kExifId("Exif\0\0", 6);

// --- EXIF blocks -------------------------------------------------------------------------

// clang-format off
// Intel order, IFD0 { Orientation = 6 }, no IFD1.
const std::string kIntelOrientation6 =
    kExifId + Bytes({'I', 'I', 0x2A, 0x00, 0x08, 0x00, 0x00, 0x00,           // TIFF header
                     0x01, 0x00,                                             // one entry
                     0x12, 0x01, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x00});                               // no IFD1

// Motorola order, IFD0 { Orientation = 8 }, no IFD1.
const std::string kMotorolaOrientation8 =
    kExifId + Bytes({'M', 'M', 0x00, 0x2A, 0x00, 0x00, 0x00, 0x08,
                     0x00, 0x01,
                     0x01, 0x12, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x08, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x00});

// Intel order: IFD0 { Orientation = 1 } -> IFD1 at 26 { Orientation = 8,
// JPEGInterchangeFormat = 0x40, JPEGInterchangeFormatLength = 0x20 }.
const std::string kIntelWithIfd1 =
    kExifId + Bytes({'I', 'I', 0x2A, 0x00, 0x08, 0x00, 0x00, 0x00,
                     0x01, 0x00,
                     0x12, 0x01, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
                     0x1A, 0x00, 0x00, 0x00,                                 // IFD1 at 26
                     0x03, 0x00,
                     0x12, 0x01, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
                     0x01, 0x02, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00,
                     0x02, 0x02, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x00});

// The same in Motorola order.
const std::string kMotorolaWithIfd1 =
    kExifId + Bytes({'M', 'M', 0x00, 0x2A, 0x00, 0x00, 0x00, 0x08,
                     0x00, 0x01,
                     0x01, 0x12, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x1A,
                     0x00, 0x03,
                     0x01, 0x12, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x08, 0x00, 0x00,
                     0x02, 0x01, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x40,
                     0x02, 0x02, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x20,
                     0x00, 0x00, 0x00, 0x00});

// clang-format on

QRBJpegHeaderInfo ParseExif(const std::string& payload, uint64_t payloadOffset = 100,
                            uint64_t fileSize = 1 << 20, bool* ok = nullptr) {
    QRBJpegHeaderInfo info;
    const bool result =
        CQRBJpegHeaderParser::ParseExif(reinterpret_cast<const unsigned char*>(payload.data()),
                                        payload.size(), payloadOffset, fileSize, &info);
    if (ok != nullptr) *ok = result;
    return info;
}

// Replaces the byte at `at` of s (a copy).
std::string Patch(std::string s, size_t at, std::initializer_list<int> values) {
    for (int v : values) s[at++] = static_cast<char>(v);
    return s;
}

class JpegExifParserTest : public ::testing::Test {
protected:
    qrbtest::LogCapture log;
};

TEST_F(JpegExifParserTest, ReadsIfd0OrientationInBothByteOrders) {
    bool ok = false;
    EXPECT_EQ(6u, ParseExif(kIntelOrientation6, 100, 1 << 20, &ok).orientation);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(log.Contains("dwNum:[1], bIsInterOrder[1]"));
    EXPECT_TRUE(log.Contains("m_InFileInfo.uOrientation [6], tmpOrientation[6]"));
    const QRBJpegHeaderInfo motorola = ParseExif(kMotorolaOrientation8, 100, 1 << 20, &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(motorola.hasExif);
    EXPECT_EQ(8u, motorola.orientation);
    EXPECT_EQ(0u, motorola.exifThumbSize);
    EXPECT_TRUE(log.Contains("dwNum:[1], bIsInterOrder[0]"));
}

// Offsets in kIntelWithIfd1: IFD0's entry count at 6 + 8, its link at 6 + 22; IFD1 at 6 + 26,
// its entries (orientation, thumbnail offset, thumbnail length) 12 bytes apart from 6 + 28,
// its link at 6 + 64. A block read at 100 puts the TIFF header at 106.
struct ExifCase {
    const char* what;
    std::string block;
    uint64_t fileSize;
    bool ok;
    uint32_t orientation;
    uint64_t thumbOffset;  // 0 with thumbSize 0: no thumbnail
    uint64_t thumbSize;
    const char* logged;
};

void PrintTo(const ExifCase& c, std::ostream* os) { *os << c.what; }

class JpegExifBlockTest : public JpegExifParserTest,
                          public ::testing::WithParamInterface<ExifCase> {};

TEST_P(JpegExifBlockTest, GivesOrientationAndThumbnailOnlyFromWhatIsThere) {
    const ExifCase& c = GetParam();
    bool ok = !c.ok;
    const QRBJpegHeaderInfo info = ParseExif(c.block, 100, c.fileSize, &ok);
    EXPECT_EQ(c.ok, ok);
    EXPECT_EQ(c.orientation, info.orientation);
    EXPECT_EQ(c.thumbOffset, info.exifThumbOffset);
    EXPECT_EQ(c.thumbSize, info.exifThumbSize);
    if (*c.logged) EXPECT_TRUE(log.Contains(c.logged));
}

constexpr uint64_t kThumb = 106 + 0x40;

INSTANTIATE_TEST_SUITE_P(
    Blocks, JpegExifBlockTest,
    ::testing::Values(
        // IFD0 says 1, IFD1 says 8: the picture's orientation is IFD0's.
        ExifCase{"IFD1 thumbnail, Intel", kIntelWithIfd1, 1000, true, 1, kThumb, 0x20, ""},
        ExifCase{"IFD1 thumbnail, Motorola", kMotorolaWithIfd1, 1000, true, 1, kThumb, 0x20, ""},
        ExifCase{"orientation 9 counts as absent", Patch(kIntelOrientation6, 24, {0x09}), 1000,
                 true, 0, 0, 0, "m_InFileInfo.uOrientation [0], tmpOrientation[9]"},
        ExifCase{"orientation 0", Patch(kIntelOrientation6, 24, {0x00}), 1000, true, 0, 0, 0, ""},
        ExifCase{"a LONG orientation is read",
                 Patch(kIntelOrientation6, 18,
                       {0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00}),
                 1000, true, 3, 0, 0, ""},
        ExifCase{"an ASCII orientation is none", Patch(kIntelOrientation6, 18, {0x02}), 1000, true,
                 0, 0, 0, ""},
        // IFD0's only entry renamed: the picture has no orientation, although IFD1 carries one.
        ExifCase{"IFD1's orientation is never the picture's",
                 Patch(kIntelWithIfd1, 16, {0x0E, 0x01}), 1000, true, 0, kThumb, 0x20, ""},
        ExifCase{"thumbnail ending at the end of the file", kIntelWithIfd1, kThumb + 0x20, true, 1,
                 kThumb, 0x20, ""},
        ExifCase{"thumbnail a byte past the file", kIntelWithIfd1, kThumb + 0x20 - 1, true, 1, 0, 0,
                 ""},
        ExifCase{"thumbnail offset near 2^32 does not wrap",
                 Patch(kIntelWithIfd1, 6 + 26 + 2 + 12 + 8, {0xF0, 0xFF, 0xFF, 0xFF}), 1000, true,
                 1, 0, 0, ""},
        ExifCase{"zero-length thumbnail", Patch(kIntelWithIfd1, 6 + 26 + 2 + 24 + 8, {0x00}), 1000,
                 true, 1, 0, 0, ""},
        ExifCase{"offset without length", Patch(kIntelWithIfd1, 6 + 26 + 2 + 24, {0x99}), 1000,
                 true, 1, 0, 0, ""},
        ExifCase{"length without offset", Patch(kIntelWithIfd1, 6 + 26 + 2 + 12, {0x99}), 1000,
                 true, 1, 0, 0, ""},
        ExifCase{
            "SHORT-typed thumbnail tags",
            Patch(Patch(kIntelWithIfd1, 6 + 26 + 2 + 12 + 2, {0x03}), 6 + 26 + 2 + 24 + 2, {0x03}),
            1000, true, 1, kThumb, 0x20, ""},
        ExifCase{"IFD0 linking to itself", Patch(kIntelWithIfd1, 6 + 22, {0x08}), 1000, true, 1, 0,
                 0, "IFD1 link 8 ignored"},
        // Its own entries are read once, the link is not followed.
        ExifCase{"IFD1 linking back to IFD0", Patch(kIntelWithIfd1, 6 + 26 + 2 + 36, {0x08}), 1000,
                 true, 1, kThumb, 0x20, ""},
        // One entry is really there; the link would lie past the block.
        ExifCase{"IFD0 claiming 65535 entries", Patch(kIntelWithIfd1, 6 + 8, {0xFF, 0xFF}), 1000,
                 true, 1, 0, 0, "IFD0 claims 65535 entries"},
        ExifCase{"IFD1 claiming 65535 entries", Patch(kIntelWithIfd1, 6 + 26, {0xFF, 0xFF}), 1000,
                 true, 1, kThumb, 0x20, ""},
        ExifCase{"IFD0 past the block", Patch(kIntelOrientation6, 6 + 4, {0xFF, 0x7F}), 1000, false,
                 0, 0, 0, "Wrong EXIF Foramt or Wrong Information ~!!!"},
        ExifCase{"IFD0 inside the header", Patch(kIntelOrientation6, 6 + 4, {0x02}), 1000, false, 0,
                 0, 0, ""},
        ExifCase{"IFD1 past the block", Patch(kIntelWithIfd1, 6 + 22, {0xF0, 0x0F}), 1000, true, 1,
                 0, 0, ""},
        ExifCase{"XMP, not EXIF", std::string("http://ns.adobe.com/xap/1.0/\0", 29), 1000, false, 0,
                 0, 0, ""},
        ExifCase{"no byte order", Patch(kIntelOrientation6, 6, {'I', 'M'}), 1000, false, 0, 0, 0,
                 ""},
        ExifCase{"not 42", Patch(kIntelOrientation6, 8, {0x2B}), 1000, false, 0, 0, 0, ""},
        ExifCase{"TIFF header cut short", kIntelOrientation6.substr(0, 6 + 7), 1000, false, 0, 0, 0,
                 ""}));

TEST_F(JpegExifParserTest, EveryTruncationOfABlockIsSafe) {
    // Cut at every length: no read past the end (ASan checks), and only complete data counts.
    for (const std::string& block : {kIntelWithIfd1, kMotorolaWithIfd1}) {
        for (size_t n = 0; n <= block.size(); ++n) {
            const std::string cut = block.substr(0, n);
            QRBJpegHeaderInfo info = ParseExif(cut, 100, 1000);
            if (n < block.size() - 4) {
                EXPECT_EQ(0u, info.exifThumbSize) << n;
            }
        }
    }
}

// --- Marker walk -------------------------------------------------------------------------

int Walk(const std::string& bytes, QRBJpegHeaderInfo* info) {
    QRBScopedFile fp(fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb"));
    if (!fp) return -2;
    return CQRBJpegHeaderParser::ParseMarkers(fp.get(), bytes.size(), info);
}

// SOF0 of 160 x 120, then a scan.
const std::string kSof0 =
    Bytes({0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x00, 0x78, 0x00, 0xA0, 0x01, 0x01, 0x11, 0x00});
const std::string kSos = Bytes({0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
const std::string kSoi = Bytes({0xFF, 0xD8});
const std::string kEoi = Bytes({0xFF, 0xD9});

std::string Segment(int marker, const std::string& payload) {
    const size_t length = payload.size() + 2;
    return Bytes({0xFF, marker, static_cast<int>(length >> 8), static_cast<int>(length & 0xFF)}) +
           payload;
}

class JpegMarkerWalkTest : public ::testing::Test {
protected:
    qrbtest::LogCapture log;
    QRBJpegHeaderInfo info;
};

TEST_F(JpegMarkerWalkTest, ReadsTheFirstFrameHeader) {
    EXPECT_EQ(0, Walk(kSoi + Segment(0xE0, "JFIF\0abcdefghi") + kSof0 + kSos + kEoi, &info));
    EXPECT_TRUE(info.hasFrame);
    EXPECT_EQ(160u, info.width);
    EXPECT_EQ(120u, info.height);
    // SOF1 and SOF2 count as frame headers too.
    for (int sof : {0xC1, 0xC2}) {
        std::string frame = kSof0;
        frame[1] = static_cast<char>(sof);
        EXPECT_EQ(0, Walk(kSoi + frame + kSos, &info));
        EXPECT_EQ(160u, info.width);
    }
}

TEST_F(JpegMarkerWalkTest, OtherFrameTypesLeaveNoSize) {
    std::string lossless = kSof0;
    lossless[1] = static_cast<char>(0xC3);
    EXPECT_EQ(-1, Walk(kSoi + lossless + kSos + kEoi, &info));
    EXPECT_FALSE(info.hasFrame);
    EXPECT_TRUE(log.Contains("marker 0xDA before any frame header"));
}

TEST_F(JpegMarkerWalkTest, RefusesWhatIsNoJpeg) {
    EXPECT_EQ(-1, Walk(std::string("\x89PNG\r\n\x1a\n", 8), &info));
    EXPECT_EQ(-1, Walk(kSoi.substr(0, 1), &info));
    EXPECT_TRUE(log.Contains("ERROR FOR READ THE FILE, errno is:"));
    EXPECT_EQ(-1, Walk(kSoi + kEoi, &info));
}

TEST_F(JpegMarkerWalkTest, LengthsBelowTwoEndTheWalk) {
    for (int length : {0, 1}) {
        log.Clear();
        EXPECT_EQ(-1, Walk(kSoi + Bytes({0xFF, 0xE0, 0x00, length}) + kSof0, &info));
        EXPECT_TRUE(log.Contains("marker 0xE0 with length " + std::to_string(length)));
    }
    // Length 2 is an empty segment: legal, and the walk goes on.
    EXPECT_EQ(0, Walk(kSoi + Bytes({0xFF, 0xE0, 0x00, 0x02}) + kSof0, &info));
}

TEST_F(JpegMarkerWalkTest, SegmentsRunningPastTheEndFail) {
    EXPECT_EQ(-1, Walk(kSoi + Bytes({0xFF, 0xE1, 0xFF, 0xFF, 'E', 'x'}), &info));
    EXPECT_TRUE(log.Contains("marker 0xE1 runs past the end of the file"));
    // A frame header cut inside its fields.
    EXPECT_EQ(-1, Walk(kSoi + kSof0.substr(0, 7), &info));
}

TEST_F(JpegMarkerWalkTest, SkipsFillBytesStandaloneMarkersAndGarbage) {
    const std::string bytes = kSoi + Bytes({0xFF, 0xFF, 0xFF}) + Segment(0xFE, "note") +
                              Bytes({0x12, 0x34, 0xFF, 0x00, 0xFF, 0xD3, 0xFF, 0x01}) + kSof0;
    EXPECT_EQ(0, Walk(bytes, &info));
    EXPECT_EQ(120u, info.height);
}

TEST_F(JpegMarkerWalkTest, ManySegmentsBeforeTheFrameAreRefused) {
    std::string bytes = kSoi;
    for (int i = 0; i < CQRBJpegHeaderParser::kMaxSegments + 10; ++i)
        bytes += Bytes({0xFF, 0xFE, 0x00, 0x02});
    EXPECT_EQ(-1, Walk(bytes + kSof0, &info));
    EXPECT_TRUE(log.Contains("segments before the frame header"));
    // A few hundred are fine.
    std::string fewer = kSoi;
    for (int i = 0; i < 300; ++i) fewer += Bytes({0xFF, 0xFE, 0x00, 0x02});
    EXPECT_EQ(0, Walk(fewer + kSof0, &info));
}

TEST_F(JpegMarkerWalkTest, ReadsTheFirstExifBlockOnly) {
    const std::string first = Patch(kIntelOrientation6, 24, {0x03});
    const std::string bytes =
        kSoi + Segment(0xE1, first) + Segment(0xE1, kIntelOrientation6) + kSof0;
    EXPECT_EQ(0, Walk(bytes, &info));
    EXPECT_EQ(3u, info.orientation);
}

TEST_F(JpegMarkerWalkTest, ThumbnailOffsetCountsFromTheTiffHeaderInTheFile) {
    // APP1 payload starts at 2 (SOI) + 4 (marker, length) = 6; TIFF header at 12. The IFD1
    // offset 0x50 then points at a real embedded JPEG placed right there.
    std::string payload = Patch(kIntelWithIfd1, 6 + 26 + 2 + 12 + 8, {0x50});
    payload.resize(6 + 0x50, '\0');
    const std::string thumb = kSoi + kSof0 + kEoi;
    payload += thumb;
    payload = Patch(payload, 6 + 26 + 2 + 24 + 8, {static_cast<int>(thumb.size())});
    const std::string bytes = kSoi + Segment(0xE1, payload) + kSof0;
    ASSERT_EQ(0, Walk(bytes, &info));
    EXPECT_EQ(12u + 0x50u, info.exifThumbOffset);
    EXPECT_EQ(thumb.size(), info.exifThumbSize);
    EXPECT_EQ(thumb, bytes.substr(info.exifThumbOffset, info.exifThumbSize));
}

TEST_F(JpegMarkerWalkTest, ShortOrBrokenExifIsLoggedAndSkipped) {
    EXPECT_EQ(0, Walk(kSoi + Segment(0xE1, "Exif\0") + kSof0, &info));
    EXPECT_TRUE(log.Contains("Error : exifbufsize < 10 failed###"));
    EXPECT_FALSE(info.hasExif);
    EXPECT_EQ(
        0, Walk(kSoi + Segment(0xE1, kExifId + std::string("XX*\0\x08\0\0\0", 8)) + kSof0, &info));
    EXPECT_TRUE(log.Contains("Wrong EXIF Foramt or Wrong Information ~!!!"));
    EXPECT_EQ(160u, info.width);
}

TEST_F(JpegMarkerWalkTest, FileEndingAfterItsExifBlockSaysSo) {
    EXPECT_EQ(-1, Walk(kSoi + Segment(0xE1, kIntelOrientation6), &info));
    EXPECT_TRUE(log.Contains("Only exif header in this file, errno is : "));
}

TEST_F(JpegMarkerWalkTest, App2HoldingAJpegIsTheLargeThumbnail) {
    const std::string embedded = kSoi + kSof0 + kEoi;
    const std::string icc = Segment(0xE2, std::string("ICC_PROFILE\0\x01\x01", 14) + "profile");
    const std::string bytes =
        kSoi + icc + Segment(0xE2, embedded) + Segment(0xE2, kSoi + Bytes({0xFF, 0xD9})) + kSof0;
    ASSERT_EQ(0, Walk(bytes, &info));
    EXPECT_EQ(2u + icc.size() + 4u, info.largeThumbOffset);  // where its SOI is
    EXPECT_EQ(embedded.size(), info.largeThumbSize);
    EXPECT_EQ(embedded, bytes.substr(info.largeThumbOffset, info.largeThumbSize));
}

TEST_F(JpegMarkerWalkTest, EveryTruncationOfAFileEnds) {
    std::string exif = kIntelWithIfd1;
    exif.resize(6 + 0x60, '\0');
    const std::string bytes =
        kSoi + Segment(0xE1, exif) + Segment(0xE2, kSoi + kSof0 + kEoi) + kSof0 + kSos + kEoi;
    for (size_t n = 0; n < bytes.size(); ++n) {
        const int ret = Walk(bytes.substr(0, n), &info);
        // Only a cut after the whole frame header may succeed.
        if (n < bytes.size() - kSos.size() - kEoi.size()) {
            EXPECT_EQ(-1, ret) << n;
        }
    }
}

// --- Size of an embedded JPEG ------------------------------------------------------------

int PictureSize(const std::string& bytes, uint64_t offset, uint64_t end, uint32_t* w, uint32_t* h) {
    QRBScopedFile fp(fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb"));
    if (!fp) return -2;
    // As the decoder's callers do: seek to the embedded JPEG first.
    if (fseeko(fp.get(), static_cast<off_t>(offset), SEEK_SET) != 0) return -2;
    return CQRBImageDecoder::m_ParsePictureSize(fp.get(), end, w, h);
}

TEST(JpegPictureSizeTest, FindsTheFrameOfAnEmbeddedJpeg) {
    const std::string prefix = "padding!";
    const std::string bytes = prefix + kSoi + Segment(0xDB, std::string(65, '\1')) + kSof0 + kEoi;
    uint32_t w = 0;
    uint32_t h = 0;
    ASSERT_EQ(0, PictureSize(bytes, prefix.size(), bytes.size(), &w, &h));
    EXPECT_EQ(160u, w);
    EXPECT_EQ(120u, h);
    // With a fill byte before a marker.
    const std::string filled = kSoi + Bytes({0xFF}) + kSof0;
    ASSERT_EQ(0, PictureSize(filled, 0, filled.size(), &w, &h));
}

TEST(JpegPictureSizeTest, NeedsSoiAndAFrameInsideItsRange) {
    uint32_t w = 0;
    uint32_t h = 0;
    EXPECT_EQ(-1, PictureSize(kSof0 + kEoi, 0, 15, &w, &h));         // no SOI
    EXPECT_EQ(-1, PictureSize(kSoi + kEoi + kSof0, 0, 19, &w, &h));  // EOI first
    EXPECT_EQ(-1, PictureSize(kSoi + kSos + kSof0, 0, 25, &w, &h));  // scan first
    const std::string whole = kSoi + kSof0;
    EXPECT_EQ(-1, PictureSize(whole, 0, 10, &w, &h));  // range ends early
    EXPECT_EQ(-1, PictureSize(whole, 5, 5, &w, &h));   // empty range
    EXPECT_EQ(-1, PictureSize(kSoi + Bytes({0xFF, 0xE0, 0x00, 0x00}) + kSof0, 0, 23, &w, &h));
    EXPECT_EQ(-1, PictureSize(kSoi + Bytes({0xFF, 0xE0, 0x40, 0x00}) + kSof0, 0, 23, &w, &h));
    EXPECT_EQ(-1, PictureSize(kSoi + Bytes({0x00, 0x00}) + kSof0, 0, 23, &w, &h));
}

}  // namespace
