#include "id3-extractor/qrb_id3_extractor.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

// Byte literals are laid out by hand, one field after another.
// clang-format off
namespace {

using namespace qrbmusictest;

template <size_t N>
std::string Bytes(const char (&literal)[N]) { return std::string(literal, N - 1); }

const std::string kJpegA = Bytes("\xFF\xD8" "first cover" "\xFF\xD9");
const std::string kJpegB = Bytes("\xFF\xD8" "second cover" "\xFF\xD9");
const std::string kJpegLarge = "\xFF\xD8" + std::string(200, 'j') + "\xFF\xD9";

// The picture (or "") and the result code of the file at path.
std::string PictureOf(const std::string& path, int* ret) {
    QRBID3* raw = nullptr;
    *ret = QRBID3Extractor().Extract(path.c_str(), &raw);
    const std::unique_ptr<QRBID3> id3(raw);
    if (!id3->HasImage()) return id3->uImageLength == 0 ? "" : "<length without a picture>";
    return std::string(reinterpret_cast<const char*>(id3->puImageBuf.get()), id3->uImageLength);
}

// Which picture a file gives (or none), with the result code and the log line. Frames that run
// past the tag or the file, padding and MIME types that are not images end the walk; what was
// found before stays. Overflowing sizes are in fuzz/corpus/id3.
TEST(Id3ExtractorTest, WalkGivesTheRightPictureOrNone) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    const std::string apicA = V23Frame("APIC", ApicBody("image/jpeg", kJpegA));
    const std::string apicB = V23Frame("APIC", ApicBody("image/jpeg", kJpegB));
    const std::string link = V23Frame("APIC", ApicBody("-->", "http://example.test/cover.jpg"));
    const std::string title = V23Frame("TIT2", std::string("\0Hi!", 4));
    // The picture frame's body starts 21 bytes before the tag's end; 100 bytes of it are peeked.
    const std::string png = Bytes("\x89" "PNG" "\x0D\x0A\x1A\x0A");
    const std::string peekTag = Id3Tag(3, title + V23Frame("APIC", ApicBody("image/png", png)));
    const struct {
        const char* what;
        std::string file;
        int ret;
        std::string picture;
        const char* logged;
    } cases[] = {
        {"v2.2 PIC JPG", Id3Tag(2, V22Frame("PIC", Bytes("\x00" "JPG" "\x03" "\x00") + kJpegA)) + kAudio, 0,
         kJpegA, "got validVersion PIC (v2.2)"},
        {"v2.2 PIC in another format", Id3Tag(2, V22Frame("PIC", Bytes("\x00" "PNG" "\x03" "\x00") + kJpegA)) +
         kAudio, QRB_ID3_ERR_NO_V1_TAG, "", ""},
        {"UTF-16 description ends at a zero pair",
         Id3Tag(3, V23Frame("APIC", Bytes("\x01" "image/jpeg" "\x00" "\x03" "\xFF\xFE" "c" "\x00"
                                          "\x00\x00") + kJpegA)) + kAudio, 0, kJpegA, ""},
        {"exactly 100 bytes left at the body", peekTag + std::string(79, 'a'), 0, png,
         "got validVersion PIC (v2.3)"},
        {"99 bytes left at the body", peekTag + std::string(78, 'a'), QRB_ID3_ERR_NO_V1_TAG, "", "READ ERROR"},
        {"last picture wins", Id3Tag(3, apicA + apicB) + kAudio, 0, kJpegB, ""},
        // Over 127 bytes, the synchsafe tag size and the plain frame size read differently.
        {"tag size synchsafe, frame size plain",
         Id3Tag(3, V23Frame("APIC", ApicBody("image/jpeg", kJpegLarge))) + apicB + kAudio, 0, kJpegLarge, ""},
        {"padding ends the walk", Id3Tag(3, apicA + std::string(12, '\0') + apicB) + kAudio, 0, kJpegA, ""},
        {"MIME type not an image", Id3Tag(3, apicA + link + apicB) + kAudio, 0, kJpegA, ""},
        {"frame larger than the tag's rest", Id3Tag(3, apicA + Bytes("TXXX" "\x00\x00\x00\xC8" "\x00\x00") +
         std::string(30, 'x') + apicB) + kAudio, 0, kJpegA, ""},
        {"picture of two bytes clears the earlier one",
         Id3Tag(3, apicA + V23Frame("APIC", ApicBody("image/jpeg", "\xFF\xD8"))) + std::string(100, 'x'),
         QRB_ID3_ERR_NO_V1_TAG, "", ""},
        // 190 bytes whose tag and picture frame claim about 256 MB: nothing of that size is made.
        {"picture size beyond the file",
         Bytes("ID3" "\x03\x00" "\x00" "\x7F\x7F\x7F\x7F" "APIC" "\x0F\xFF\xFF\x00" "\x00\x00"
               "\x00" "image/jpeg" "\x00" "\x03" "\x00" "\xFF\xD8\xFF\xE0" "JFIF" "\x00" "only this") +
             std::string(140, '.'), QRB_ID3_ERR_NO_V1_TAG, "", "runs past the end of the file"},
        {"ID3v1 tag after a tag without a picture", Id3Tag(3, title) + kAudio + "TAG" + std::string(125, ' '),
         0, "", ""},
        {"shorter than an ID3v1 tag", std::string(127, 'a'), QRB_ID3_ERR_V1_SEEK, "", ""},
    };
    for (const auto& c : cases) {
        log.Clear();
        int ret = 1;
        EXPECT_EQ(PictureOf(root.WriteFile("song.mp3", c.file), &ret), c.picture) << c.what;
        EXPECT_EQ(ret, c.ret) << c.what;
        EXPECT_TRUE(!*c.logged || log.Contains(c.logged)) << c.what;
    }
    int ret = 0;
    EXPECT_EQ(PictureOf(root.Path() + "/none.mp3", &ret), "");
    EXPECT_EQ(ret, QRB_ID3_ERR_FILE);
    EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/none.mp3"));
}

// Files written by other programs, with the pictures their notes (corpus SOURCES.md) list; the
// last picture wins, and ID3v2.4 tags are not read.
TEST(Id3CorpusTest, GivesThePictureOtherTagReadersFind) {
    QRB_REQUIRE_CORPUS(corpus);
    const struct {
        const char* path;
        uint32_t length;  // 0: no picture
        const char* start;
    } cases[] = {
        {"music-metadata/id3v2.2.mp3", 99738, "\xFF\xD8\xFF"},
        {"music-metadata/id3v2-utf16.mp3", 214219, "\xFF\xD8\xFF"},
        {"music-metadata/incomplete.mp3", 4044, "\xFF\xD8\xFF"},
        {"music-metadata/MusicBrainz - Beth Hart - Sinner's Prayer [id3v2.3].V2.mp3", 120291, "\x89PN"},
        {"music-metadata/id3v2.4.mp3", 0, ""},
    };
    for (const auto& c : cases) {
        int ret = 0;
        const std::string picture = PictureOf(corpus + "/" + c.path, &ret);
        EXPECT_EQ(picture.size(), c.length) << c.path;
        EXPECT_EQ(picture.substr(0, 3), c.start) << c.path;
    }
}

}  // namespace
// clang-format on
