#include "id3-extractor/qrb_id3_extractor.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <string>

// Byte literals are laid out by hand, one field after another, with what each field means
// beside it; the formatter would put every piece on a line of its own.
// clang-format off
namespace {

using namespace qrbmusictest;

template <size_t N>
std::string Bytes(const char (&literal)[N]) {
    return std::string(literal, N - 1);
}

// Pictures small enough to read at a glance; what matters is that exactly these bytes come back.
const std::string kJpegA = Bytes("\xFF\xD8" "first cover" "\xFF\xD9");
const std::string kJpegB = Bytes("\xFF\xD8" "second cover" "\xFF\xD9");

class Id3ExtractorTest : public ::testing::Test {
protected:
    // Extracts from a file holding bytes; the result record stays in `result`.
    int Run(const std::string& bytes, uint32_t limit = QRBID3Extractor::kNoImageLimit) {
        const std::string path = root.WriteFile("song.mp3", bytes);
        QRBID3Extractor extractor(limit);
        QRBID3* raw = nullptr;
        const int ret = extractor.Extract(path.c_str(), &raw);
        result.reset(raw);
        return ret;
    }
    std::string Picture() const {
        if (!result || !result->HasImage()) return std::string();
        return std::string(reinterpret_cast<const char*>(result->puImageBuf.get()),
                           result->uImageLength);
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::unique_ptr<QRBID3> result;
};

TEST_F(Id3ExtractorTest, TagSizeIsSynchsafeAndFrameSizesPlainBigEndian) {
    const uint8_t size[4] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(QRBID3Extractor::m_CalculateTagTotalLength(size), 0x200000u + 2 * 16384 + 3 * 128 + 4);
    const uint8_t highBitsSet[4] = {0x80, 0x80, 0x81, 0xFF};
    EXPECT_EQ(QRBID3Extractor::m_CalculateTagTotalLength(highBitsSet), 128u + 0x7F);
    const uint8_t four[4] = {0x00, 0x00, 0x01, 0x00};
    EXPECT_EQ(QRBID3Extractor::m_CalculateSize4(four), 256u);  // synchsafe would read 128
    const uint8_t three[3] = {0x01, 0x80, 0x02};
    EXPECT_EQ(QRBID3Extractor::m_CalculateSize3(three), 0x018002u);
}

TEST_F(Id3ExtractorTest, V23ApicAfterATextFrameGivesItsPicture) {
    const std::string tag = Bytes(
        "ID3" "\x03\x00" "\x00" "\x00\x00\x00\x2D"            // v2.3, tag size 45
        "TIT2" "\x00\x00\x00\x04" "\x00\x00" "\x00" "Hi!"     // 14 bytes
        "APIC" "\x00\x00\x00\x15" "\x00\x00"                  // 10 bytes, body of 21
        "\x00" "image/png" "\x00" "\x03" "\x00"               // Latin-1, MIME, front, ""
        "\x89" "PNG" "\x0D\x0A\x1A\x0A");                     // the 8-byte picture
    // The first 100 bytes of the picture frame's body are read to find its picture: with fewer
    // left in the file the frame is a read error, however small it is.
    const struct {
        const char* what;
        std::string after;
        int ret;
        bool picture;
    } cases[] = {
        {"audio follows", kAudio, 0, true},
        {"exactly 100 bytes left at the body", std::string(79, 'a'), 0, true},
        {"99 bytes left at the body", std::string(78, 'a'), QRB_ID3_ERR_NO_V1_TAG, false},
        {"the file ends with the frame", "", QRB_ID3_ERR_V1_SEEK, false},
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(Run(tag + c.after), c.ret) << c.what;
        EXPECT_EQ(result->nVersion, 23) << c.what;
        EXPECT_EQ(Picture(), c.picture ? Bytes("\x89" "PNG" "\x0D\x0A\x1A\x0A") : "") << c.what;
        EXPECT_EQ(log.Contains("got validVersion PIC (v2.3)"), c.picture) << c.what;
        EXPECT_EQ(log.Contains("ulContentLength:13"), c.picture) << c.what;
        EXPECT_EQ(log.Contains("READ ERROR"), !c.picture) << c.what;
    }
}

// The description ends with one zero byte in Latin-1 and UTF-8, with a zero pair in UTF-16
// (with a byte-order mark, or big-endian). The pictures start with bytes that make a wrong
// terminator visible: a single-byte scan stops inside a UTF-16 unit, a pair scan runs on.
struct EncodingCase {
    const char* name;
    std::string description;  // encoding byte, MIME, picture type and description
};

class Id3EncodingTest : public Id3ExtractorTest,
                        public ::testing::WithParamInterface<EncodingCase> {};

TEST_P(Id3EncodingTest, ApicDescriptionIsSkippedForEveryTextEncoding) {
    ASSERT_EQ(Run(Id3Tag(3, V23Frame("APIC", GetParam().description + kJpegA)) + kAudio), 0);
    EXPECT_EQ(Picture(), kJpegA);
}

INSTANTIATE_TEST_SUITE_P(
    Encodings, Id3EncodingTest,
    ::testing::Values(
        EncodingCase{"Latin1", Bytes("\x00" "image/jpeg" "\x00" "\x03" "cover" "\x00")},
        EncodingCase{"Latin1Empty", Bytes("\x00" "image/jpeg" "\x00" "\x03" "\x00")},
        EncodingCase{"Utf16Bom", Bytes("\x01" "image/jpeg" "\x00" "\x03" "\xFF\xFE" "c" "\x00"
                                       "o" "\x00" "\x00\x00")},
        EncodingCase{"Utf16BomEmpty", Bytes("\x01" "image/jpeg" "\x00" "\x03" "\x00\x00")},
        EncodingCase{"Utf16BigEndian", Bytes("\x02" "image/jpeg" "\x00" "\x03" "\x00" "c"
                                             "\x00" "o" "\x00\x00")},
        EncodingCase{"Utf8", Bytes("\x03" "image/jpeg" "\x00" "\x03" "caf" "\xC3\xA9" "\x00")},
        EncodingCase{"Utf8Empty", Bytes("\x03" "image/jpeg" "\x00" "\x03" "\x00")}),
    [](const ::testing::TestParamInfo<EncodingCase>& info) {
        return std::string(info.param.name);
    });

// The tag walk: which picture a file gives (or none), with the result code. Pictures over the
// caller's limit, frames that would overflow or run past the tag or the file, and padding all
// end the walk; what was found before stays unless a later picture frame replaced it.
TEST_F(Id3ExtractorTest, WalkGivesTheRightPictureOrNone) {
    constexpr int kAnyResult = -1000;
    const std::string v22Jpg = Bytes(
        "ID3" "\x02\x00" "\x00" "\x00\x00\x00\x20"            // v2.2, tag size 32
        "TT2" "\x00\x00\x04" "\x00" "Hi!"                     // 10 bytes
        "PIC" "\x00\x00\x10"                                  // 6 bytes, body of 16
        "\x00" "JPG" "\x03" "\x00"                            // Latin-1, format, front, ""
        "\xFF\xD8" "pic22!" "\xFF\xD9");                      // the 10-byte picture
    const std::string apicA = V23Frame("APIC", ApicBody("image/jpeg", kJpegA));
    const std::string apicB = V23Frame("APIC", ApicBody("image/jpeg", kJpegB));
    const std::string link = V23Frame("APIC", ApicBody("-->", "http://example.test/cover.jpg"));
    // The second picture frame says 5000 bytes, the tag agrees, the file ends after 110.
    std::string cutFrame = V23Frame("APIC", ApicBody("image/jpeg", std::string(5000, 'p')));
    cutFrame.resize(120);
    // Only the first 100 bytes of a picture frame are examined for its header; a description
    // running past them is taken to end there.
    const std::string longHeader =
        Bytes("\x00" "image/jpeg" "\x00" "\x03") + std::string(120, 'd') + std::string(1, '\0');
    const struct {
        const char* what;
        std::string file;
        int ret;
        std::string picture;
        const char* logged;
        uint32_t limit;
    } cases[] = {
        {"v2.2 PIC JPG", v22Jpg + kAudio, 0, Bytes("\xFF\xD8" "pic22!" "\xFF\xD9"),
         "got validVersion PIC (v2.2)"},
        {"v2.2 PIC in another format",
         Id3Tag(2, V22Frame("PIC", Bytes("\x00" "PNG" "\x03" "\x00") + kJpegA)) + kAudio,
         QRB_ID3_ERR_NO_V1_TAG, "", "picture frame without an image (format is not JPG)"},
        {"v2.2 UTF-16 description",
         Id3Tag(2, V22Frame("PIC", Bytes("\x01" "JPG" "\x03" "\xFF\xFE" "A" "\x00" "\x00\x00") +
                                       kJpegA)) + kAudio, 0, kJpegA, ""},
        {"last picture wins", Id3Tag(3, apicA + apicB) + kAudio, 0, kJpegB, ""},
        {"padding ends the walk", Id3Tag(3, apicA + std::string(12, '\0') + apicB) + kAudio, 0,
         kJpegA, ""},
        {"zero-sized frame skipped",
         Id3Tag(3, Bytes("TIT2" "\x00\x00\x00\x00" "\x00\x00") + apicA) + kAudio, 0, kJpegA, ""},
        {"MIME type not an image", Id3Tag(3, apicA + link + apicB) + kAudio, 0, kJpegA, ""},
        {"linked picture alone", Id3Tag(3, link) + std::string(100, 'x'), QRB_ID3_ERR_NO_V1_TAG, "",
         ""},
        // TXXX claims 200 bytes of a tag that has 40 left.
        {"frame larger than the tag's rest",
         Id3Tag(3, apicA + Bytes("TXXX" "\x00\x00\x00\xC8" "\x00\x00") + std::string(30, 'x') +
                       apicB) + kAudio, 0, kJpegA, ""},
        // Added to the bytes consumed it would wrap around.
        {"frame size that would overflow",
         Id3Tag(3, apicA + Bytes("APIC" "\xFF\xFF\xFF\xF6" "\x00\x00") + std::string(40, 'x')) +
             kAudio, 0, kJpegA, "frame APIC of 4294967286 bytes does not fit"},
        {"v2.2 walk keeps the last picture, stops at padding",
         Id3Tag(2, V22Frame("PIC", PicBody(kJpegA)) + V22Frame("TT2", std::string("\0Hi", 3)) +
                       V22Frame("PIC", PicBody(kJpegB)) + std::string(8, '\0') +
                       V22Frame("PIC", PicBody(kJpegA))) + kAudio, 0, kJpegB, ""},
        {"v2.2 frame larger than the tag's rest",
         Id3Tag(2, V22Frame("PIC", PicBody(kJpegA)) + Bytes("TT2" "\x00\x01\x00") +
                       std::string(20, 'x') + V22Frame("PIC", PicBody(kJpegB))) + kAudio, 0,
         kJpegA, ""},
        {"picture of two bytes clears the earlier one",
         Id3Tag(3, apicA + V23Frame("APIC", ApicBody("image/jpeg", "\xFF\xD8"))) +
             std::string(100, 'x'), kAnyResult, "", ""},
        {"truncated picture keeps the one before",
         Bytes("ID3" "\x03\x00" "\x00") + Synchsafe(apicA.size() + cutFrame.size() + 5000) + apicA +
             cutFrame, 0, kJpegA, ""},
        // A file of 190 bytes whose tag and picture frame claim about 256 MB: nothing of that
        // size is allocated (the limit check comes first).
        {"picture size beyond the file",
         Bytes("ID3" "\x03\x00" "\x00" "\x7F\x7F\x7F\x7F" "APIC" "\x0F\xFF\xFF\x00" "\x00\x00"
               "\x00" "image/jpeg" "\x00" "\x03" "\x00" "\xFF\xD8\xFF\xE0" "JFIF" "\x00" "only this") +
             std::string(140, '.'), QRB_ID3_ERR_NO_V1_TAG, "", "runs past the end of the file"},
        {"huge non-picture frame",
         Bytes("ID3" "\x03\x00" "\x00" "\x7F\x7F\x7F\x7F" "PRIV" "\x0F\xFF\xFF\x00" "\x00\x00"
               "owner"), QRB_ID3_ERR_V1_SEEK, "", ""},
        {"description past the peek", Id3Tag(3, V23Frame("APIC", longHeader + kJpegA)), 0,
         (longHeader + kJpegA).substr(100), "ulContentLength:100"},
        {"picture over the caller's limit",
         Id3Tag(3, apicA + V23Frame("APIC", ApicBody("image/jpeg", std::string(64, 'p')))) +
             std::string(128, '\0'), kAnyResult, "", "picture of 64 bytes is over the limit of 63",
         63},
        {"picture at the caller's limit",
         Id3Tag(3, V23Frame("APIC", ApicBody("image/jpeg", std::string(64, 'p')))) + kAudio, 0,
         std::string(64, 'p'), "", 64},
        {"ID3v2.4 is not read", Id3Tag(4, apicA) + std::string(100, 'x'), QRB_ID3_ERR_NO_V1_TAG, "",
         ""},
        {"no tag at all", std::string(300, 'a'), QRB_ID3_ERR_NO_V1_TAG, "", ""},
        {"shorter than an ID3v1 tag", std::string(127, 'a'), QRB_ID3_ERR_V1_SEEK, "", ""},
        {"truncated ID3 header", Bytes("ID3" "\x03\x00"), QRB_ID3_ERR_V1_SEEK, "", ""},
    };
    for (const auto& c : cases) {
        log.Clear();
        const int ret = Run(c.file, c.limit ? c.limit : QRBID3Extractor::kNoImageLimit);
        if (c.ret != kAnyResult) EXPECT_EQ(ret, c.ret) << c.what;
        EXPECT_EQ(Picture(), c.picture) << c.what;
        EXPECT_EQ(result->HasImage(), !c.picture.empty()) << c.what;
        if (c.picture.empty()) EXPECT_EQ(result->uImageLength, 0u) << c.what;
        if (*c.logged) EXPECT_TRUE(log.Contains(c.logged)) << c.what;
    }
}

TEST_F(Id3ExtractorTest, Id3v1TagIsFoundWithoutAPicture) {
    const std::string v1 = Bytes("TAG") + std::string(125, ' ');
    // The ID3v1 tag is reported through the result code; the result's version is the ID3v2
    // header's alone.
    const struct {
        const char* what;
        std::string file;
        int version;
    } cases[] = {
        {"ID3v1 only", std::string(50, 'a') + v1, 0},
        {"ID3v2.3 tag without a picture, then ID3v1",
         Id3Tag(3, V23Frame("TIT2", std::string("\0Song", 5))) + kAudio + v1, 23},
        {"ID3v2.4 tag, then ID3v1", Id3Tag(4, V23Frame("TIT2", std::string("\0Song", 5))) + v1, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Run(c.file), 0) << c.what;
        EXPECT_EQ(result->nVersion, c.version) << c.what;
        EXPECT_FALSE(result->HasImage()) << c.what;
    }
}

TEST_F(Id3ExtractorTest, Id3v1TagIsRecognisedByItsIdentifier) {
    MSTId3v1Tag tag;
    std::memcpy(&tag, (Bytes("TAG") + std::string(125, 'x')).data(), sizeof(tag));
    QRBID3 v1;
    EXPECT_EQ(QRBID3Extractor::m_GetID3v1Tag(tag, &v1), 0);
    EXPECT_EQ(v1.nVersion, 1);
    std::memcpy(&tag, (Bytes("TAX") + std::string(125, 'x')).data(), sizeof(tag));
    QRBID3 none;
    EXPECT_EQ(QRBID3Extractor::m_GetID3v1Tag(tag, &none), QRB_ID3_ERR_NO_V1_TAG);
    EXPECT_EQ(none.nVersion, 0);
}

TEST_F(Id3ExtractorTest, MissingFileIsAnError) {
    QRBID3Extractor extractor;
    QRBID3* raw = nullptr;
    EXPECT_EQ(extractor.Extract((root.Path() + "/none.mp3").c_str(), &raw), QRB_ID3_ERR_FILE);
    std::unique_ptr<QRBID3> owned(raw);
    ASSERT_NE(owned, nullptr);
    EXPECT_FALSE(owned->HasImage());
    EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/none.mp3"));
}

// Files written by other programs, with the pictures their notes (corpus SOURCES.md) list.
// Only ID3v2.3 APIC and ID3v2.2 PIC "JPG" frames at the start of a file are read, so the
// notes' other pictures (ID3v2.4, PIC "PNG", compressed frames, tags after junk or after
// another tag) are, by design, not found.
struct CorpusCase {
    const char* path;
    int version;       // of the supplying tag; 0 when no picture is expected
    uint32_t length;   // picture bytes per the notes
    const char* kind;  // "jpeg" or "png"
};

class Id3CorpusTest : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(Id3CorpusTest, GivesThePictureOtherTagReadersFind) {
    QRB_REQUIRE_CORPUS(corpus);
    const CorpusCase& c = GetParam();
    const std::string path = corpus + "/" + c.path;
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    QRBID3Extractor extractor;
    QRBID3* raw = nullptr;
    const int ret = extractor.Extract(path.c_str(), &raw);
    std::unique_ptr<QRBID3> id3(raw);
    ASSERT_NE(id3, nullptr);
    if (c.version == 0) {
        EXPECT_FALSE(id3->HasImage()) << c.path;
        return;
    }
    EXPECT_EQ(ret, 0);
    ASSERT_TRUE(id3->HasImage()) << c.path;
    EXPECT_EQ(id3->nVersion, c.version);
    ASSERT_EQ(id3->uImageLength, c.length);
    const std::string picture(reinterpret_cast<const char*>(id3->puImageBuf.get()), c.length);
    // Both ends of the picture: its signature first, its end marker last.
    if (std::string(c.kind) == "png") {
        EXPECT_EQ(picture.substr(0, 8), Bytes("\x89" "PNG" "\x0D\x0A\x1A\x0A"));
        EXPECT_EQ(picture.substr(c.length - 8), Bytes("IEND" "\xAE\x42\x60\x82"));
    } else {
        EXPECT_EQ(picture.substr(0, 3), Bytes("\xFF\xD8\xFF"));
        EXPECT_NE(picture.find(Bytes("\xFF\xD9"), c.length - 16), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Corpus, Id3CorpusTest,
    ::testing::Values(
        CorpusCase{"music-metadata/id3v2.2.mp3", 22, 99738, "jpeg"},
        CorpusCase{"music-metadata/mp3/issue-641.mp3", 22, 37279, "jpeg"},
        CorpusCase{"music-metadata/id3v2.3.mp3", 23, 80938, "jpeg"},
        CorpusCase{"music-metadata/id3v2-utf16.mp3", 23, 214219, "jpeg"},
        CorpusCase{"music-metadata/id3-multi-01.mp3", 23, 216542, "jpeg"},
        CorpusCase{"music-metadata/incomplete.mp3", 23, 4044, "jpeg"},
        CorpusCase{"music-metadata/29 - Dominator.mp3", 23, 440418, "jpeg"},
        CorpusCase{"music-metadata/issue_77_empty_tag.mp3", 23, 75130, "jpeg"},
        // Front JPEG then back PNG: the last picture wins.
        CorpusCase{"music-metadata/MusicBrainz - Beth Hart - Sinner's Prayer [id3v2.3].V2.mp3", 23,
                   120291, "png"},
        CorpusCase{"hachoir/marc_kravetz.mp3", 23, 22827, "jpeg"},
        CorpusCase{"androidx-media/mp3/bear-id3.mp3", 23, 38946, "jpeg"},
        CorpusCase{"rust-id3/id3v23.id3", 23, 26523, "png"},
        CorpusCase{"rust-id3/picard-2.12.3-id3v23-utf16.id3", 23, 49564, "jpeg"},
        CorpusCase{"jaudiotagger/testtagdata/Issue73.id3", 23, 41621, "png"},
        CorpusCase{"jaudiotagger/testtagdata/Issue80.id3", 23, 7906, "jpeg"},
        CorpusCase{"music-metadata/issue_66.mp3", 0, 0, ""},              // PIC "PNG"
        CorpusCase{"taglib/itunes10.mp3", 0, 0, ""},                      // PIC "PNG"
        CorpusCase{"music-metadata/id3v2.4.mp3", 0, 0, ""},               // ID3v2.4
        CorpusCase{"music-metadata/mp3/herbal-tea-GRP1.mp3", 0, 0, ""},   // ID3v2.4
        CorpusCase{"taglib/005411.id3", 0, 0, ""},                        // ID3v2.4
        CorpusCase{"taglib/duplicate_id3v2.mp3", 0, 0, ""},               // APIC in the second tag
        CorpusCase{"taglib/garbage.mp3", 0, 0, ""},                       // tag after junk
        CorpusCase{"jaudiotagger/testtagdata/Issue98-2.id3", 0, 0, ""},   // compressed APIC
        CorpusCase{"music-metadata/mp3/empty-picture-tag.mp3", 0, 0, ""}, // empty APIC
        CorpusCase{"mutagen/emptyfile.mp3", 0, 0, ""},
        CorpusCase{"mutagen/silence-44-s.mp3", 0, 0, ""}),
    [](const ::testing::TestParamInfo<CorpusCase>& info) {
        std::string name = info.param.path;
        name = name.substr(name.find('/') + 1);
        for (char& c : name) {
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        }
        return name;
    });

TEST(Id3CorpusV1Test, Id3v1OnlyFilesReportTheirTag) {
    QRB_REQUIRE_CORPUS(corpus);
    for (const char* name : {"dhowden-tag/sample_usascii_v1.mp3",
                             "dhowden-tag/sample_utf8_v1.1.mp3",
                             "mutagen/silence-44-s-v1.mp3", "rust-id3/id3v1.id3"}) {
        QRBID3Extractor extractor;
        QRBID3* raw = nullptr;
        EXPECT_EQ(extractor.Extract((corpus + "/" + name).c_str(), &raw), 0) << name;
        std::unique_ptr<QRBID3> id3(raw);
        EXPECT_EQ(id3->nVersion, 0) << name << ": no ID3v2 header, so no version";
        EXPECT_FALSE(id3->HasImage()) << name;
    }
    QRBID3Extractor extractor;
    QRBID3* raw = nullptr;
    EXPECT_EQ(extractor.Extract((corpus + "/mutagen/emptyfile.mp3").c_str(), &raw),
              QRB_ID3_ERR_V1_SEEK);
    delete raw;
}

}  // namespace
// clang-format on
