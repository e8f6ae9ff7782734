#include "id3-extractor/qrb_wma_extractor.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

// clang-format off
namespace {

using namespace qrbmusictest;

const std::string kPicture("BM" "tiny picture");

std::string PictureDescriptor(const std::string& picture) {
    return Descriptor("WM/Picture", QRBWMAExtractor::kTypeBytes, WmPictureValue(picture));
}

// The cover of the file at path ("" for none); *ok: whether Extract succeeded.
std::string Cover(const std::string& path, bool* ok) {
    QRBWMAContentDesc* raw = nullptr;
    *ok = QRBWMAExtractor().Extract(path.c_str(), &raw);
    std::unique_ptr<QRBWMAContentDesc> desc(raw);
    if (!desc || desc->GETCOVERARTPOINTER() == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(desc->GETCOVERARTPOINTER()), desc->GetCoverArtSize());
}

// Whether the descriptor list is accepted, and the cover that comes out. Deliberately, a value
// over 256 bytes anywhere takes the whole list with it. Broken objects and descriptors (zero or
// overflowing sizes, cut-short lists, long names) are in fuzz/corpus/asf.
TEST(WmaExtractorTest, WalkGivesTheRightCoverOrNone) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    const auto list = [](std::vector<std::string> d) { return AsfHeader({ExtContentDescription(d)}); };
    std::string header30 = list({PictureDescriptor(kPicture)});
    header30.replace(16, 8, LittleEndian(30, 8));  // below 31: refused
    // A 200-byte value declaring 150 bytes of picture: the picture is value bytes 50..199.
    std::string endOfValue = "\x03" + LittleEndian(150, 4) + std::string(45, '?');
    for (int i = 0; i < 150; ++i) endOfValue.push_back(static_cast<char>(i));
    const std::string second("BM" "second");
    std::vector<std::string> count257(256, Descriptor("N", 5, LittleEndian(1, 2)));
    count257.push_back(PictureDescriptor(kPicture));
    const std::string picture227(227, 'p');  // a value of 256 bytes with its header
    const struct {
        const char* what;
        std::string file;
        bool ok;
        std::string cover;
        const char* logged;
    } cases[] = {
        {"not ASF", "This is a text file, not a song.", false, "", "This is NOT a ASF format!"},
        {"header size 30", header30, false, "", "Extract Fail"},
        {"every value type keeps the list aligned",
         list({Descriptor("WM/AlbumTitle", 0, Utf16("Blue")), Descriptor("IsVBR", 2, LittleEndian(1, 4)),
               Descriptor("Duration", 4, LittleEndian(7, 8)), Descriptor("WM/GenreID", 5, LittleEndian(13, 2)),
               Descriptor("Unknown", 9, "abc"), PictureDescriptor(kPicture)}), true, kPicture, ""},
        {"picture is the end of the value", list({Descriptor("WM/Picture", 1, endOfValue)}), true,
         endOfValue.substr(50), "uImageSize=150"},
        {"declared picture larger than the value",
         list({Descriptor("WM/Picture", 1, "\x03" + LittleEndian(201, 4) + std::string(195, 'p'))}), true, "", ""},
        {"later picture in another object", AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)}),
                                                       ExtContentDescription({PictureDescriptor(second)})}),
         true, second, ""},
        {"value of 256 bytes", list({Descriptor("WM/Picture", 1, WmPictureValue(picture227, "image/jpeg"))}),
         true, picture227, ""},
        {"value of 257 bytes after the picture",
         list({PictureDescriptor(kPicture), Descriptor("WM/Lyrics", 1, std::string(257, 'l'))}), false, "",
         "Extract Fail"},
        {"257 descriptors", list(count257), true, "", "descriptor count 257 ignored"},
    };
    for (const auto& c : cases) {
        log.Clear();
        bool ok = !c.ok;
        EXPECT_EQ(Cover(root.WriteFile("song.wma", c.file), &ok), c.cover) << c.what;
        EXPECT_EQ(ok, c.ok) << c.what;
        EXPECT_TRUE(!*c.logged || log.Contains(c.logged)) << c.what;
    }
    bool ok = true;
    EXPECT_EQ(Cover(root.Path() + "/gone.wma", &ok), "");
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/gone.wma"));
}

// Files written by other programs: their pictures are over the 256-byte value limit, so no
// cover comes out, deliberately; a small picture added to a real header comes out.
TEST(WmaCorpusTest, RealFilesGiveNoCoverUntilASmallPictureIsAdded) {
    QRB_REQUIRE_CORPUS(corpus);
    bool ok = true;
    for (const char* name : {"jaudiotagger/testdata/test1.wma", "taglib/lossless.wma",
                             "music-metadata/asf/elephant.asf"}) {
        ASSERT_FALSE(qrbtest::ReadFileBytes(corpus + "/" + name).empty()) << name;
        EXPECT_EQ(Cover(corpus + "/" + name, &ok), "") << name;
    }
    qrbtest::ScratchRoot root;
    std::string file = qrbtest::ReadFileBytes(corpus + "/mutagen/silence-1.wma");
    ASSERT_GT(file.size(), 30u);
    // One more object in front of the header's own: header size and object count grow.
    const std::string object = ExtContentDescription({PictureDescriptor(kPicture)});
    uint64_t headerSize = 0;
    for (int i = 7; i >= 0; --i) headerSize = (headerSize << 8) | static_cast<unsigned char>(file[16 + i]);
    file.replace(16, 8, LittleEndian(headerSize + object.size(), 8));
    file[24] = static_cast<char>(file[24] + 1);  // the object count's low byte
    file.insert(30, object);
    EXPECT_EQ(Cover(root.WriteFile("real.wma", file), &ok), kPicture);
    EXPECT_TRUE(ok);
}

}  // namespace
// clang-format on
