#include "id3-extractor/qrb_wma_extractor.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// Byte literals are laid out by hand, one field after another, with what each field means
// beside it; the formatter would put every piece on a line of its own.
// clang-format off
namespace {

using namespace qrbmusictest;

template <size_t N>
std::string Bytes(const char (&literal)[N]) {
    return std::string(literal, N - 1);
}

const std::string kPicture = Bytes("BM" "tiny picture");

std::string PictureDescriptor(const std::string& picture) {
    return Descriptor("WM/Picture", QRBWMAExtractor::kTypeBytes, WmPictureValue(picture));
}

class WmaExtractorTest : public ::testing::Test {
protected:
    bool Run(const std::string& bytes, const std::string& name = "song.wma") {
        const std::string path = root.WriteFile(name, bytes);
        QRBWMAExtractor extractor;
        QRBWMAContentDesc* raw = nullptr;
        const bool ok = extractor.Extract(path.c_str(), &raw);
        desc.reset(raw);
        return ok;
    }
    std::string Cover() const {
        if (!desc || desc->GETCOVERARTPOINTER() == nullptr) return std::string();
        return std::string(reinterpret_cast<const char*>(desc->GETCOVERARTPOINTER()),
                           desc->GetCoverArtSize());
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::unique_ptr<QRBWMAContentDesc> desc;
};

TEST_F(WmaExtractorTest, WmPictureInTheExtendedContentDescriptionIsTheCover) {
    const std::string file = Bytes(
        "\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C"  // Header Object
        "\x67\x00\x00\x00\x00\x00\x00\x00" "\x01\x00\x00\x00" "\x01\x02"    // 103 bytes, 1 object
        "\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50"  // Ext. Content Descr.
        "\x49\x00\x00\x00\x00\x00\x00\x00" "\x01\x00"                       // 73 bytes, 1 descr.
        "\x16\x00" "W\0M\0/\0P\0i\0c\0t\0u\0r\0e\0\0\0"                     // name, 22 bytes
        "\x01\x00" "\x13\x00"                                               // bytes, 19 of them:
        "\x03" "\x04\x00\x00\x00"                                           // type, size 4
        "b\0/\0\0\0" "x\0\0\0"                                              // MIME, description
        "\xAB\xCD\xEF\x01");                                                // the picture
    ASSERT_TRUE(Run(file));
    EXPECT_EQ(Cover(), Bytes("\xAB\xCD\xEF\x01"));
    EXPECT_TRUE(log.Contains("uImageSize=4"));
}

TEST_F(WmaExtractorTest, MissingFileIsAnOpenError) {
    QRBWMAExtractor extractor;
    QRBWMAContentDesc* raw = nullptr;
    EXPECT_FALSE(extractor.Extract((root.Path() + "/gone.wma").c_str(), &raw));
    delete raw;
    EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/gone.wma"));
}

// The object walk and the descriptor list: whether the list is accepted, and the cover that
// comes out. Deliberately, only values of 256 bytes or less are accepted, and any longer value,
// wherever it stands, takes the whole list with it; zero-sized, overflowing and oversized
// objects end the walk.
TEST_F(WmaExtractorTest, WalkGivesTheRightCoverOrNone) {
    std::string header30 = AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)})});
    std::string header31 = header30;
    header30.replace(16, 8, LittleEndian(30, 8));
    header31.replace(16, 8, LittleEndian(31, 8));  // the walk itself does not depend on it
    // A 200-byte value declaring 150 bytes of picture: the picture is value bytes 50..199,
    // whatever the MIME type and description say.
    std::string endOfValue = "\x03" + LittleEndian(150, 4) + std::string(45, '?');
    for (int i = 0; i < 150; ++i) endOfValue.push_back(static_cast<char>(i));
    const std::string second = Bytes("BM" "second");
    std::vector<std::string> count256;
    for (int i = 0; i < 255; ++i) {
        count256.push_back(Descriptor("N" + std::to_string(i), 5, LittleEndian(i, 2)));
    }
    count256.push_back(PictureDescriptor(kPicture));
    std::vector<std::string> count257(256, Descriptor("N", 5, LittleEndian(1, 2)));
    count257.push_back(PictureDescriptor(kPicture));
    // A count of 0 in front of real descriptors: nothing is read from that object, and the
    // walk goes on to the next object.
    std::string countZero = ExtContentDescription({PictureDescriptor(kPicture)});
    countZero.replace(24, 2, LittleEndian(0, 2));
    std::string truncated = header31;
    truncated.resize(truncated.size() - 3);
    const auto list = [](std::vector<std::string> d) { return AsfHeader({ExtContentDescription(d)}); };
    const struct {
        const char* what;
        std::string file;
        bool ok;
        std::string cover;
        const char* logged;
    } cases[] = {
        {"not ASF", "This is a text file, not a song.", false, "", "This is NOT a ASF format!"},
        {"shorter than a GUID", Bytes("\x30\x26\xB2\x75\x8E\x66"), false, "", "File Read Error"},
        {"header size 30", header30, false, "", "Extract Fail"},
        {"header size 31", header31, true, kPicture, ""},
        {"picture is the end of the value",
         list({Descriptor("WM/Picture", 1, endOfValue)}), true, endOfValue.substr(50),
         "uImageSize=150"},
        {"declared picture larger than the value",
         list({Descriptor("WM/Picture", 1, "\x03" + LittleEndian(201, 4) + std::string(195, 'p'))}),
         true, "", ""},
        {"later picture in the list",
         list({PictureDescriptor(kPicture), PictureDescriptor(second)}), true, second, ""},
        {"later picture in another object",
         AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)}),
                    ExtContentDescription({PictureDescriptor(second)})}), true, second, ""},
        {"value of 256 bytes",
         list({Descriptor("WM/Picture", 1, WmPictureValue(std::string(256 - 29, 'p'), "image/jpeg"))}),
         true, std::string(256 - 29, 'p'), ""},
        {"value of 257 bytes",
         list({Descriptor("WM/Picture", 1, WmPictureValue(std::string(257 - 29, 'p'), "image/jpeg"))}),
         false, "", "Extract Fail"},
        {"long value after the picture",
         list({PictureDescriptor(kPicture), Descriptor("WM/Lyrics", 0, Utf16(std::string(149, 'l')))}),
         false, "", "Extract Fail"},
        {"256 descriptors", list(count256), true, kPicture, ""},
        {"257 descriptors", list(count257), true, "", "descriptor count 257 ignored"},
        {"0 descriptors, then a picture",
         AsfHeader({countZero, ExtContentDescription({PictureDescriptor(Bytes("BM" "later"))})}),
         true, Bytes("BM" "later"), "descriptor count 0 ignored"},
        // Its size would bring the walk back to where it stands, for ever.
        {"zero-sized object",
         AsfHeader({DataGuid() + LittleEndian(0, 8), ExtContentDescription({PictureDescriptor(kPicture)})}),
         true, "", "object of 0 bytes at 30"},
        {"object size that would overflow",
         AsfHeader({DataGuid() + LittleEndian(0xFFFFFFFFFFFFFFF0ull, 8),
                    ExtContentDescription({PictureDescriptor(kPicture)})}), true, "", ""},
        {"object larger than the file",
         AsfHeader({DataGuid() + LittleEndian(1000, 8) + "data",
                    ExtContentDescription({PictureDescriptor(kPicture)})}), true, "", ""},
        {"objects after the header",
         AsfHeader({AsfObject(DataGuid(), "x")}) + ExtContentDescription({PictureDescriptor(kPicture)}),
         true, kPicture, ""},
        {"truncated descriptor", truncated, false, "", ""},
        {"name longer than the file",
         AsfHeader({AsfObject(ExtContentDescriptionGuid(), LittleEndian(1, 2) + LittleEndian(0xFFFF, 2) + "W")}),
         false, "", ""},
        {"empty name",
         AsfHeader({AsfObject(ExtContentDescriptionGuid(), LittleEndian(1, 2) + LittleEndian(0, 2) +
                                                               LittleEndian(1, 2) + LittleEndian(1, 2) + "x")}),
         false, "", ""},
        {"zero-length value", list({Descriptor("WM/Picture", 1, ""), PictureDescriptor(kPicture)}),
         false, "", ""},
        {"picture value too short for its size field",
         list({PictureDescriptor(kPicture), Descriptor("WM/Picture", 1, "\x03\x01")}), true, kPicture,
         ""},
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(Run(c.file), c.ok) << c.what;
        EXPECT_EQ(Cover(), c.cover) << c.what;
        EXPECT_EQ(desc->GetCoverArtSize(), c.cover.size()) << c.what;
        if (*c.logged) EXPECT_TRUE(log.Contains(c.logged)) << c.what;
    }
}

TEST_F(WmaExtractorTest, EveryValueTypeKeepsTheListAligned) {
    const std::vector<std::string> descriptors = {
        Descriptor("WM/AlbumTitle", 0, Utf16("Blue")),
        Descriptor("WM/Year", 0, Utf16("2004")),
        Descriptor("IsVBR", 2, LittleEndian(1, 4)),
        Descriptor("WM/TrackNumber", 3, LittleEndian(7, 4)),
        Descriptor("Duration", 4, LittleEndian(0x1122334455667788ull, 8)),
        Descriptor("WM/GenreID", 5, LittleEndian(13, 2)),
        Descriptor("Unknown", 9, "abc"),
        Descriptor("WM/Genre", 0, Utf16("Jazz")),
        PictureDescriptor(kPicture),
    };
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription(descriptors)})));
    EXPECT_EQ(Cover(), kPicture);
    EXPECT_STREQ(desc->GETALBUM(), "Blue");
    EXPECT_STREQ(desc->GETGENRE(), "Jazz");
    EXPECT_EQ(desc->GetYear(), 2004);
    EXPECT_EQ(desc->GetTrackNumber(), 7);
    EXPECT_EQ(desc->GetGenreID(), 13);
}

TEST_F(WmaExtractorTest, StringValueIsReadUpToTwoHundredFiftyFourBytes) {
    // 128 UTF-16 units, no terminator: 127 of them are kept.
    const std::string album = Utf16(std::string(128, 'a'), false);
    ASSERT_EQ(album.size(), 256u);
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription(
        {Descriptor("WM/AlbumTitle", 0, album), PictureDescriptor(kPicture)})})));
    EXPECT_EQ(std::string(desc->GETALBUM()), std::string(127, 'a'));
    EXPECT_EQ(Cover(), kPicture);
}

TEST_F(WmaExtractorTest, NonAsciiNamesAndTextsBecomeUtf8) {
    // "Café ♪" in UTF-16LE: é is U+00E9, ♪ is U+266A.
    const std::string title = Bytes("C\0a\0f\0\xE9\0 \0\x6A\x26\0\0");
    const std::string author = Utf16("Ann");
    const std::string cd = AsfObject(ContentDescriptionGuid(),
                                     LittleEndian(title.size(), 2) + LittleEndian(author.size(), 2) + LittleEndian(0, 2) +
                                         LittleEndian(0, 2) + LittleEndian(0, 2) + title + author);
    ASSERT_TRUE(Run(AsfHeader({cd, ExtContentDescription({PictureDescriptor(kPicture)})})));
    EXPECT_STREQ(desc->GETTITLE(), "Caf\xC3\xA9 \xE2\x99\xAA");
    EXPECT_STREQ(desc->GETARTIST(), "Ann");
    EXPECT_EQ(Cover(), kPicture);
}

TEST(WmaUtf8Test, EachUnitTakesOneTwoOrThreeBytesOrNothingWhenItDoesNotFit) {
    const struct {
        unsigned short unit;
        int room;
        std::string bytes;
    } cases[] = {{'A', 4, "A"},
                 {0x7F, 4, "\x7F"},
                 {0x80, 4, "\xC2\x80"},
                 {0x7FF, 4, "\xDF\xBF"},
                 {0x800, 4, "\xE0\xA0\x80"},
                 {0x20AC, 4, "\xE2\x82\xAC"},
                 {0x20AC, 2, ""},
                 {0xE9, 1, ""},
                 {'A', 0, ""}};
    for (const auto& c : cases) {
        unsigned char out[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, c.unit, c.room),
                  static_cast<int>(c.bytes.size())) << c.unit;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 4), c.bytes + std::string(4 - c.bytes.size(), 'x'))
            << c.unit;
    }
}

TEST(WmaUtf8Test, StringStopsAtTheFirstUnitThatDoesNotFitAndPairsAreNotCombined) {
    const unsigned short text[] = {'a', 0xE9, 0x20AC, 'b', 0};
    unsigned char out[16];
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, text, sizeof(out)), 7);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "a\xC3\xA9\xE2\x82\xAC" "b");
    // Room for 'a', é and the terminator, not for the euro sign.
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, text, 5), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "a\xC3\xA9");
    const unsigned short pair[] = {0xD83D, 0xDE00, 0};  // U+1F600 as a pair
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, pair, sizeof(out)), 6);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "\xED\xA0\xBD\xED\xB8\x80");
}

TEST(WmaByteOrderTest, FileOrderIsLittleEndian) {
    const unsigned char raw[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    uint16_t v16;
    uint32_t v32;
    uint64_t v64;
    std::memcpy(&v16, raw, 2);
    std::memcpy(&v32, raw, 4);
    std::memcpy(&v64, raw, 8);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertToLittleEndian(v16), 0x0201);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertToLittleEndian(v32), 0x04030201u);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertToLittleEndian(v64), 0x0807060504030201ull);
}

TEST(WmaContentDescTest, SetCoverArtCopiesAndReplaces) {
    QRBWMAContentDesc desc;
    std::string bytes = "abc";
    desc.SetCoverArt(bytes.data(), bytes.size());
    bytes[0] = 'z';
    ASSERT_EQ(desc.GetCoverArtSize(), 3u);
    EXPECT_EQ(desc.GETCOVERARTPOINTER()[0], 'a');
    QRBWMAContentDesc copy = desc;
    desc.SetCoverArt("wxyz1", 5);
    EXPECT_EQ(desc.GetCoverArtSize(), 5u);
    EXPECT_EQ(copy.GetCoverArtSize(), 3u);
    desc.t_Destroy();
    EXPECT_EQ(desc.GETCOVERARTPOINTER(), nullptr);
    copy.SetAlbum("x");
    copy.Clear();
    EXPECT_STREQ(copy.GETALBUM(), "");
    EXPECT_EQ(copy.GetCoverArtSize(), 0u);
}

// Files written by other programs. Their pictures, where they have one, are several kilobytes:
// over the 256-byte value limit, so no cover comes out of them, deliberately.
class WmaCorpusTest : public ::testing::Test {
protected:
    bool Extract(const std::string& path) {
        QRBWMAExtractor extractor;
        QRBWMAContentDesc* raw = nullptr;
        const bool ok = extractor.Extract(path.c_str(), &raw);
        desc.reset(raw);
        return ok;
    }
    std::unique_ptr<QRBWMAContentDesc> desc;
};

TEST_F(WmaCorpusTest, OtherProgramsFilesGiveNoCover) {
    QRB_REQUIRE_CORPUS(corpus);
    for (const char* name :
         {"jaudiotagger/testdata/test1.wma", "jaudiotagger/testdata/test6.wma"}) {
        EXPECT_FALSE(Extract(corpus + "/" + name)) << name << ": a picture over the value limit";
        EXPECT_EQ(desc->GetCoverArtSize(), 0u) << name;
    }
    for (const char* name :
         {"jaudiotagger/testdata/test7.wma", "mutagen/silence-1.wma", "mutagen/silence-2.wma",
          "mutagen/issue_29.wma", "taglib/lossless.wma", "taglib/real_example.wma",
          "taglib-sharp/sample.wma", "music-metadata/asf/asf.wma",
          "music-metadata/asf/elephant.asf",
          "music-metadata/asf/max-numberOfObjectHeaders.wma",
          "music-metadata/MusicBrainz - Beth Hart - Sinner's Prayer.wma"}) {
        ASSERT_FALSE(qrbtest::ReadFileBytes(corpus + "/" + name).empty()) << name;
        Extract(corpus + "/" + name);
        ASSERT_NE(desc, nullptr);
        EXPECT_EQ(desc->GetCoverArtSize(), 0u) << name << ": no picture in its descriptors";
    }
}

TEST_F(WmaCorpusTest, RealHeaderWithASmallPictureAddedGivesThatPicture) {
    QRB_REQUIRE_CORPUS(corpus);
    qrbtest::ScratchRoot root;
    // A real file's header objects, with one more object (a short WM/Picture) put in front of
    // them: header size and object count grow accordingly.
    std::string file = qrbtest::ReadFileBytes(corpus + "/mutagen/silence-1.wma");
    ASSERT_GT(file.size(), 30u);
    const std::string object = ExtContentDescription({PictureDescriptor(kPicture)});
    uint64_t headerSize = 0;
    uint32_t count = 0;
    for (int i = 7; i >= 0; --i) {
        headerSize = (headerSize << 8) | static_cast<unsigned char>(file[16 + i]);
    }
    for (int i = 3; i >= 0; --i) count = (count << 8) | static_cast<unsigned char>(file[24 + i]);
    file.replace(16, 8, LittleEndian(headerSize + object.size(), 8));
    file.replace(24, 4, LittleEndian(count + 1, 4));
    file.insert(30, object);
    ASSERT_TRUE(Extract(root.WriteFile("real.wma", file)));
    ASSERT_EQ(desc->GetCoverArtSize(), kPicture.size());
    EXPECT_EQ(
        std::string(reinterpret_cast<const char*>(desc->GETCOVERARTPOINTER()), kPicture.size()),
        kPicture);
    EXPECT_STRNE(desc->GETTITLE(), "");  // the file's own Content Description is read too
}

}  // namespace
// clang-format on
