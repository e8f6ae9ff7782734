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

TEST_F(WmaExtractorTest, FileThatIsNotAsfIsRefused) {
    EXPECT_FALSE(Run("This is a text file, not a song."));
    EXPECT_TRUE(log.Contains("This is NOT a ASF format!"));
    EXPECT_TRUE(log.Contains("Extract Fail"));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, FileShorterThanAGuidIsAReadError) {
    EXPECT_FALSE(Run(Bytes("\x30\x26\xB2\x75\x8E\x66")));
    EXPECT_TRUE(log.Contains("File Read Error"));
}

TEST_F(WmaExtractorTest, MissingFileIsAnOpenError) {
    QRBWMAExtractor extractor;
    QRBWMAContentDesc* raw = nullptr;
    EXPECT_FALSE(extractor.Extract((root.Path() + "/gone.wma").c_str(), &raw));
    delete raw;
    EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/gone.wma"));
}

TEST_F(WmaExtractorTest, HeaderSizeBelowThirtyOneIsRefused) {
    std::string file = AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)})});
    file.replace(16, 8, LE(30, 8));
    EXPECT_FALSE(Run(file));
    file.replace(16, 8, LE(31, 8));  // the walk itself does not depend on it
    EXPECT_TRUE(Run(file));
    EXPECT_EQ(Cover(), kPicture);
}

TEST_F(WmaExtractorTest, PictureIsTheEndOfTheValueWhateverComesBefore) {
    // 200-byte value declaring 150 bytes of picture: the picture is value bytes 50..199, and
    // the MIME type and description are not parsed to find it.
    std::string value = "\x03" + LE(150, 4) + std::string(45, '?');
    for (int i = 0; i < 150; ++i) value.push_back(static_cast<char>(i));
    ASSERT_EQ(value.size(), 200u);
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription({Descriptor("WM/Picture", 1, value)})})));
    EXPECT_EQ(Cover(), value.substr(50));
    EXPECT_TRUE(log.Contains("uImageSize=150"));
}

TEST_F(WmaExtractorTest, DeclaredPictureLargerThanTheValueGivesNoCover) {
    const std::string value = "\x03" + LE(201, 4) + std::string(195, 'p');
    EXPECT_TRUE(Run(AsfHeader({ExtContentDescription({Descriptor("WM/Picture", 1, value)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, LaterPictureReplacesTheEarlierOne) {
    const std::string second = Bytes("BM" "second");
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription(
        {PictureDescriptor(kPicture), PictureDescriptor(second)})})));
    EXPECT_EQ(Cover(), second);

    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)}),
                               ExtContentDescription({PictureDescriptor(second)})})));
    EXPECT_EQ(Cover(), second);
}

TEST_F(WmaExtractorTest, ValueOfTwoHundredFiftySixBytesIsAccepted) {
    const std::string value = WmPictureValue(std::string(256 - 5 - 22 - 2, 'p'), "image/jpeg");
    ASSERT_EQ(value.size(), 256u);
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription({Descriptor("WM/Picture", 1, value)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 256u - 29);
}

TEST_F(WmaExtractorTest, ValueLongerThanTwoHundredFiftySixBytesDropsTheWholeList) {
    // Deliberate: only short values are accepted, so a large picture yields no cover, and any
    // long value, wherever it stands, takes the whole list with it.
    const std::string longPicture = WmPictureValue(std::string(257 - 29, 'p'), "image/jpeg");
    ASSERT_EQ(longPicture.size(), 257u);
    EXPECT_FALSE(
        Run(AsfHeader({ExtContentDescription({Descriptor("WM/Picture", 1, longPicture)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);

    const std::string lyrics = Utf16(std::string(149, 'l'));  // 300 bytes
    EXPECT_FALSE(Run(AsfHeader({ExtContentDescription(
        {PictureDescriptor(kPicture), Descriptor("WM/Lyrics", 0, lyrics)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
    EXPECT_TRUE(log.Contains("Extract Fail"));
}

TEST_F(WmaExtractorTest, DescriptorCountOfTwoHundredFiftySixIsRead) {
    std::vector<std::string> descriptors;
    for (int i = 0; i < 255; ++i) {
        descriptors.push_back(Descriptor("N" + std::to_string(i), 5, LE(i, 2)));
    }
    descriptors.push_back(PictureDescriptor(kPicture));
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription(descriptors)})));
    EXPECT_EQ(Cover(), kPicture);
}

TEST_F(WmaExtractorTest, DescriptorCountsOfZeroAndAboveTwoHundredFiftySixAreIgnored) {
    std::vector<std::string> descriptors(256, Descriptor("N", 5, LE(1, 2)));
    descriptors.push_back(PictureDescriptor(kPicture));
    EXPECT_TRUE(Run(AsfHeader({ExtContentDescription(descriptors)})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
    EXPECT_TRUE(log.Contains("descriptor count 257 ignored"));

    // A count of 0 in front of real descriptors: nothing is read from that object, and the
    // walk goes on to the next object.
    std::string empty = ExtContentDescription({PictureDescriptor(kPicture)});
    empty.replace(24, 2, LE(0, 2));
    const std::string later = ExtContentDescription({PictureDescriptor(Bytes("BM" "later"))});
    EXPECT_TRUE(Run(AsfHeader({empty, later})));
    EXPECT_EQ(Cover(), Bytes("BM" "later"));
    EXPECT_TRUE(log.Contains("descriptor count 0 ignored"));
}

TEST_F(WmaExtractorTest, EveryValueTypeKeepsTheListAligned) {
    const std::vector<std::string> descriptors = {
        Descriptor("WM/AlbumTitle", 0, Utf16("Blue")),
        Descriptor("WM/Year", 0, Utf16("2004")),
        Descriptor("IsVBR", 2, LE(1, 4)),
        Descriptor("WM/TrackNumber", 3, LE(7, 4)),
        Descriptor("Duration", 4, LE(0x1122334455667788ull, 8)),
        Descriptor("WM/GenreID", 5, LE(13, 2)),
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
                                     LE(title.size(), 2) + LE(author.size(), 2) + LE(0, 2) +
                                         LE(0, 2) + LE(0, 2) + title + author);
    ASSERT_TRUE(Run(AsfHeader({cd, ExtContentDescription({PictureDescriptor(kPicture)})})));
    EXPECT_STREQ(desc->GETTITLE(), "Caf\xC3\xA9 \xE2\x99\xAA");
    EXPECT_STREQ(desc->GETARTIST(), "Ann");
    EXPECT_EQ(Cover(), kPicture);
}

TEST_F(WmaExtractorTest, ZeroSizedObjectEndsTheWalk) {
    // Its size would bring the walk back to where it stands, for ever.
    const std::string zero = DataGuid() + LE(0, 8);
    EXPECT_TRUE(Run(AsfHeader({zero, ExtContentDescription({PictureDescriptor(kPicture)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
    EXPECT_TRUE(log.Contains("object of 0 bytes at 30"));
}

TEST_F(WmaExtractorTest, ObjectSizeThatWouldOverflowEndsTheWalk) {
    const std::string huge = DataGuid() + LE(0xFFFFFFFFFFFFFFF0ull, 8);
    EXPECT_TRUE(Run(AsfHeader({huge, ExtContentDescription({PictureDescriptor(kPicture)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, ObjectLargerThanTheFileEndsTheWalk) {
    const std::string big = DataGuid() + LE(1000, 8) + "data";
    EXPECT_TRUE(Run(AsfHeader({big, ExtContentDescription({PictureDescriptor(kPicture)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, ObjectsAfterTheHeaderAreWalkedToo) {
    // The walk goes on past the header object to the end of the file.
    const std::string file = AsfHeader({AsfObject(DataGuid(), "x")}) +
                             ExtContentDescription({PictureDescriptor(kPicture)});
    EXPECT_TRUE(Run(file));
    EXPECT_EQ(Cover(), kPicture);
}

TEST_F(WmaExtractorTest, TruncatedDescriptorFailsTheList) {
    std::string file = AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)})});
    file.resize(file.size() - 3);
    EXPECT_FALSE(Run(file));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, NameLongerThanTheFileFailsBeforeItIsAllocated) {
    const std::string object =
        AsfObject(ExtContentDescriptionGuid(), LE(1, 2) + LE(0xFFFF, 2) + "W");
    EXPECT_FALSE(Run(AsfHeader({object})));
}

TEST_F(WmaExtractorTest, EmptyNameFailsTheList) {
    const std::string object =
        AsfObject(ExtContentDescriptionGuid(), LE(1, 2) + LE(0, 2) + LE(1, 2) + LE(1, 2) + "x");
    EXPECT_FALSE(Run(AsfHeader({object})));
}

TEST_F(WmaExtractorTest, ZeroLengthValueFailsTheList) {
    EXPECT_FALSE(Run(AsfHeader({ExtContentDescription(
        {Descriptor("WM/Picture", 1, ""), PictureDescriptor(kPicture)})})));
    EXPECT_EQ(desc->GetCoverArtSize(), 0u);
}

TEST_F(WmaExtractorTest, PictureValueTooShortForItsSizeFieldIsPassedOver) {
    ASSERT_TRUE(Run(AsfHeader({ExtContentDescription(
        {PictureDescriptor(kPicture), Descriptor("WM/Picture", 1, "\x03\x01")})})));
    EXPECT_EQ(Cover(), kPicture);
}

TEST(WmaUtf8Test, EachUnitTakesOneTwoOrThreeBytes) {
    unsigned char out[4] = {};
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 'A', 4), 1);
    EXPECT_EQ(out[0], 'A');
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x7F, 4), 1);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x80, 4), 2);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 2), "\xC2\x80");
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x7FF, 4), 2);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 2), "\xDF\xBF");
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x800, 4), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 3), "\xE0\xA0\x80");
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x20AC, 4), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 3), "\xE2\x82\xAC");
}

TEST(WmaUtf8Test, UnitThatDoesNotFitWritesNothing) {
    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0x20AC, 2), 0);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 0xE9, 1), 0);
    EXPECT_EQ(QRBWMAExtractor::m_ConvertOneWcharToUTF8(out, 'A', 0), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 4), "xxxx");
}

TEST(WmaUtf8Test, StringStopsAtTheFirstUnitThatDoesNotFitAndIsTerminated) {
    const unsigned short text[] = {'a', 0xE9, 0x20AC, 'b', 0};
    unsigned char out[16];
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, text, sizeof(out)), 7);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "a\xC3\xA9\xE2\x82\xAC" "b");
    // Room for 'a', é and the terminator, not for the euro sign.
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, text, 5), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "a\xC3\xA9");
}

TEST(WmaUtf8Test, SurrogatePairsAreNotCombined) {
    const unsigned short text[] = {0xD83D, 0xDE00, 0};  // U+1F600 as a pair
    unsigned char out[16];
    EXPECT_EQ(QRBWMAExtractor::m_ConvertWStringToString_UTF8(out, text, sizeof(out)), 6);
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

TEST_F(WmaCorpusTest, PicturesOverTheValueLimitGiveNoCover) {
    QRB_REQUIRE_MUSIC_CORPUS(corpus);
    for (const char* name :
         {"jaudiotagger/testdata/test1.wma", "jaudiotagger/testdata/test6.wma"}) {
        EXPECT_FALSE(Extract(corpus + "/" + name)) << name;
        EXPECT_EQ(desc->GetCoverArtSize(), 0u) << name;
    }
}

TEST_F(WmaCorpusTest, FilesWithoutAPictureInTheirDescriptorsGiveNoCover) {
    QRB_REQUIRE_MUSIC_CORPUS(corpus);
    for (const char* name :
         {"jaudiotagger/testdata/test7.wma", "mutagen/silence-1.wma", "mutagen/silence-2.wma",
          "mutagen/issue_29.wma", "taglib/lossless.wma", "taglib/real_example.wma",
          "taglib-sharp/sample.wma", "music-metadata/asf/asf.wma",
          "music-metadata/asf/elephant.asf",
          "music-metadata/asf/max-numberOfObjectHeaders.wma",
          "music-metadata/MusicBrainz - Beth Hart - Sinner's Prayer.wma"}) {
        ASSERT_FALSE(ReadFileBytes(corpus + "/" + name).empty()) << name;
        Extract(corpus + "/" + name);
        ASSERT_NE(desc, nullptr);
        EXPECT_EQ(desc->GetCoverArtSize(), 0u) << name;
    }
}

TEST_F(WmaCorpusTest, RealHeaderWithASmallPictureAddedGivesThatPicture) {
    QRB_REQUIRE_MUSIC_CORPUS(corpus);
    qrbtest::ScratchRoot root;
    // A real file's header objects, with one more object (a short WM/Picture) put in front of
    // them: header size and object count grow accordingly.
    std::string file = ReadFileBytes(corpus + "/mutagen/silence-1.wma");
    ASSERT_GT(file.size(), 30u);
    const std::string object = ExtContentDescription({PictureDescriptor(kPicture)});
    uint64_t headerSize = 0;
    uint32_t count = 0;
    for (int i = 7; i >= 0; --i) {
        headerSize = (headerSize << 8) | static_cast<unsigned char>(file[16 + i]);
    }
    for (int i = 3; i >= 0; --i) count = (count << 8) | static_cast<unsigned char>(file[24 + i]);
    file.replace(16, 8, LE(headerSize + object.size(), 8));
    file.replace(24, 4, LE(count + 1, 4));
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
