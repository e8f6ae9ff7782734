// Cover art: ID3 and ASF walks on byte layouts and other programs' files; the other containers
// through the C interface on songs made by ffmpeg (testdata/make_cover_fixtures.sh). Damaged
// and hostile songs are in fuzz/corpus/id3, asf and tag_cover.
#include "id3-extractor/qrb_id3_extractor.h"
#include "id3-extractor/qrb_music_test_support.h"
#include "id3-extractor/qrb_tag_cover_extractor.h"
#include "id3-extractor/qrb_wma_extractor.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

// clang-format off
namespace {

using namespace qrbmusictest;
using C = QRBCoverContainer;

template <size_t N>
std::string Bytes(const char (&literal)[N]) { return std::string(literal, N - 1); }

const std::string kJpegA = Bytes("\xFF\xD8" "first cover" "\xFF\xD9");
const std::string kJpegB = Bytes("\xFF\xD8" "second cover" "\xFF\xD9");
const std::string kJpegLarge = "\xFF\xD8" + std::string(200, 'j') + "\xFF\xD9";
const std::string kPicture("BM" "tiny picture");

enum Kind { kId3, kWma };

// The picture (or "") of the file at path; *ret: the ID3 result code, or for ASF 0 or -1.
std::string PictureOf(Kind kind, const std::string& path, int* ret) {
    if (kind == kId3) {
        QRBID3* raw = nullptr;
        *ret = QRBID3Extractor().Extract(path.c_str(), &raw);
        const std::unique_ptr<QRBID3> id3(raw);
        if (!id3->HasImage()) return id3->uImageLength == 0 ? "" : "<length without a picture>";
        return std::string(reinterpret_cast<const char*>(id3->puImageBuf.get()), id3->uImageLength);
    }
    QRBWMAContentDesc* raw = nullptr;
    *ret = QRBWMAExtractor().Extract(path.c_str(), &raw) ? 0 : -1;
    std::unique_ptr<QRBWMAContentDesc> desc(raw);
    if (!desc || desc->GETCOVERARTPOINTER() == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(desc->GETCOVERARTPOINTER()), desc->GetCoverArtSize());
}

std::string PictureDescriptor(const std::string& picture) {
    return Descriptor("WM/Picture", QRBWMAExtractor::kTypeBytes, WmPictureValue(picture));
}

// Which picture a file gives (or none), with the result code and the log line. An ID3 walk ends
// at frames that run past the tag or the file, padding and MIME types that are not images; what
// was found before stays. In ASF a value over 256 bytes anywhere takes the whole list with it.
TEST(MusicExtractorTest, WalkGivesTheRightPictureOrNone) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    const std::string apicA = V23Frame("APIC", ApicBody("image/jpeg", kJpegA));
    const std::string apicB = V23Frame("APIC", ApicBody("image/jpeg", kJpegB));
    const std::string link = V23Frame("APIC", ApicBody("-->", "http://example.test/cover.jpg"));
    const std::string title = V23Frame("TIT2", std::string("\0Hi!", 4));
    // The picture frame's body starts 21 bytes before the tag's end; 100 bytes of it are peeked.
    const std::string png = Bytes("\x89" "PNG" "\x0D\x0A\x1A\x0A");
    const std::string peekTag = Id3Tag(3, title + V23Frame("APIC", ApicBody("image/png", png)));
    const auto list = [](std::vector<std::string> d) { return AsfHeader({ExtContentDescription(d)}); };
    std::string header30 = list({PictureDescriptor(kPicture)});
    header30.replace(16, 8, LittleEndian(30, 8));  // below 31: refused
    // A 200-byte value declaring 150 bytes of picture: the picture is value bytes 50..199.
    std::string endOfValue = "\x03" + LittleEndian(150, 4) + std::string(45, '?');
    for (int i = 0; i < 150; ++i) endOfValue.push_back(static_cast<char>(i));
    std::vector<std::string> count257(256, Descriptor("N", 5, LittleEndian(1, 2)));
    count257.push_back(PictureDescriptor(kPicture));
    const std::string picture227(227, 'p');  // a value of 256 bytes with its header
    const struct {
        Kind kind;
        const char* what;
        std::string file;
        int ret;
        std::string picture;
        const char* logged;
    } cases[] = {
        {kId3, "v2.2 PIC JPG", Id3Tag(2, V22Frame("PIC", Bytes("\x00" "JPG" "\x03" "\x00") + kJpegA)) + kAudio, 0,
         kJpegA, "got validVersion PIC (v2.2)"},
        {kId3, "v2.2 PIC in another format", Id3Tag(2, V22Frame("PIC", Bytes("\x00" "PNG" "\x03" "\x00") + kJpegA)) +
         kAudio, QRB_ID3_ERR_NO_V1_TAG, "", ""},
        {kId3, "UTF-16 description ends at a zero pair",
         Id3Tag(3, V23Frame("APIC", Bytes("\x01" "image/jpeg" "\x00" "\x03" "\xFF\xFE" "c" "\x00"
                                          "\x00\x00") + kJpegA)) + kAudio, 0, kJpegA, ""},
        {kId3, "exactly 100 bytes left at the body", peekTag + std::string(79, 'a'), 0, png,
         "got validVersion PIC (v2.3)"},
        {kId3, "99 bytes left at the body", peekTag + std::string(78, 'a'), QRB_ID3_ERR_NO_V1_TAG, "", "READ ERROR"},
        {kId3, "last picture wins", Id3Tag(3, apicA + apicB) + kAudio, 0, kJpegB, ""},
        // Over 127 bytes, the synchsafe tag size and the plain frame size read differently.
        {kId3, "tag size synchsafe, frame size plain",
         Id3Tag(3, V23Frame("APIC", ApicBody("image/jpeg", kJpegLarge))) + apicB + kAudio, 0, kJpegLarge, ""},
        {kId3, "MIME type not an image", Id3Tag(3, apicA + link + apicB) + kAudio, 0, kJpegA, ""},
        {kId3, "frame larger than the tag's rest", Id3Tag(3, apicA + Bytes("TXXX" "\x00\x00\x00\xC8" "\x00\x00") +
         std::string(30, 'x') + apicB) + kAudio, 0, kJpegA, ""},
        {kId3, "picture of two bytes clears the earlier one",
         Id3Tag(3, apicA + V23Frame("APIC", ApicBody("image/jpeg", "\xFF\xD8"))) + std::string(100, 'x'),
         QRB_ID3_ERR_NO_V1_TAG, "", ""},
        // 190 bytes whose tag and picture frame claim about 256 MB: nothing of that size is made.
        {kId3, "picture size beyond the file",
         Bytes("ID3" "\x03\x00" "\x00" "\x7F\x7F\x7F\x7F" "APIC" "\x0F\xFF\xFF\x00" "\x00\x00"
               "\x00" "image/jpeg" "\x00" "\x03" "\x00" "\xFF\xD8\xFF\xE0" "JFIF" "\x00" "only this") +
             std::string(140, '.'), QRB_ID3_ERR_NO_V1_TAG, "", "runs past the end of the file"},
        {kId3, "ID3v1 tag after a tag without a picture", Id3Tag(3, title) + kAudio + "TAG" + std::string(125, ' '),
         0, "", ""},
        {kId3, "shorter than an ID3v1 tag", std::string(127, 'a'), QRB_ID3_ERR_V1_SEEK, "", ""},
        {kWma, "not ASF", "This is a text file, not a song.", -1, "", "This is NOT a ASF format!"},
        {kWma, "header size 30", header30, -1, "", "Extract Fail"},
        {kWma, "every value type keeps the list aligned",
         list({Descriptor("WM/AlbumTitle", 0, Utf16("Blue")), Descriptor("IsVBR", 2, LittleEndian(1, 4)),
               Descriptor("Duration", 4, LittleEndian(7, 8)), Descriptor("WM/GenreID", 5, LittleEndian(13, 2)),
               Descriptor("Unknown", 9, "abc"), PictureDescriptor(kPicture)}), 0, kPicture, ""},
        {kWma, "picture is the end of the value", list({Descriptor("WM/Picture", 1, endOfValue)}), 0,
         endOfValue.substr(50), "uImageSize=150"},
        {kWma, "later picture in another object", AsfHeader({ExtContentDescription({PictureDescriptor(kPicture)}),
                                                       ExtContentDescription({PictureDescriptor(kJpegB)})}),
         0, kJpegB, ""},
        {kWma, "value of 256 bytes", list({Descriptor("WM/Picture", 1, WmPictureValue(picture227, "image/jpeg"))}),
         0, picture227, ""},
        {kWma, "value of 257 bytes after the picture",
         list({PictureDescriptor(kPicture), Descriptor("WM/Lyrics", 1, std::string(257, 'l'))}), -1, "",
         "Extract Fail"},
        {kWma, "257 descriptors", list(count257), 0, "", "descriptor count 257 ignored"},
    };
    for (const auto& c : cases) {
        log.Clear();
        int ret = 1;
        EXPECT_EQ(PictureOf(c.kind, root.WriteFile(c.kind == kId3 ? "song.mp3" : "song.wma", c.file), &ret), c.picture) << c.what;
        EXPECT_EQ(ret, c.ret) << c.what;
        EXPECT_TRUE(!*c.logged || log.Contains(c.logged)) << c.what;
    }
    for (Kind kind : {kId3, kWma}) {
        log.Clear();
        int ret = 0;
        EXPECT_EQ(PictureOf(kind, root.Path() + "/none", &ret), "");
        EXPECT_EQ(ret, kind == kId3 ? QRB_ID3_ERR_FILE : -1);
        EXPECT_TRUE(log.Contains("File Open Error " + root.Path() + "/none"));
    }
}

// Other programs' files, with the pictures their notes list: ID3v2.4 tags are not read, and ASF
// pictures over the 256-byte value limit give no cover, deliberately.
TEST(MusicCorpusTest, GivesThePictureOtherTagReadersFind) {
    QRB_REQUIRE_CORPUS(corpus);
    const struct {
        Kind kind;
        const char* path;
        uint32_t length;  // 0: no picture
        const char* start;
    } cases[] = {
        {kId3, "music-metadata/id3v2.2.mp3", 99738, "\xFF\xD8\xFF"},
        {kId3, "music-metadata/id3v2-utf16.mp3", 214219, "\xFF\xD8\xFF"},
        {kId3, "music-metadata/incomplete.mp3", 4044, "\xFF\xD8\xFF"},
        {kId3, "music-metadata/MusicBrainz - Beth Hart - Sinner's Prayer [id3v2.3].V2.mp3", 120291, "\x89PN"},
        {kId3, "music-metadata/id3v2.4.mp3", 0, ""},
        {kWma, "music-metadata/asf/elephant.asf", 0, ""},
    };
    for (const auto& c : cases) {
        int ret = 0;
        ASSERT_FALSE(qrbtest::ReadFileBytes(corpus + "/" + c.path).empty()) << c.path;
        const std::string picture = PictureOf(c.kind, corpus + "/" + c.path, &ret);
        EXPECT_EQ(picture.size(), c.length) << c.path;
        EXPECT_EQ(picture.substr(0, 3), c.start) << c.path;
    }
}
// clang-format on

std::string Fixture(const std::string& name) {
    return qrbtest::ReadFileBytes(std::string(QRB_COVER_FIXTURE_DIR) + "/" + name);
}

// An APEv2 tag (binary items: a description, a zero byte, the picture; then the footer).
std::string ApeTag(const std::vector<std::pair<std::string, std::string>>& items) {
    std::string body;
    for (const auto& item : items) {
        const std::string value = "cover.jpg" + std::string(1, '\0') + item.second;
        body += LittleEndian(value.size(), 4) + LittleEndian(2, 4) + item.first +
                std::string(1, '\0') + value;
    }
    return body + "APETAGEX" + LittleEndian(2000, 4) + LittleEndian(body.size() + 32, 4) +
           LittleEndian(items.size(), 4) + std::string(12, '\0');
}

// Each song is recognised by its first bytes and shows its front cover through the C interface
// (cover.jpg reads "RGWB", back.png "BBBB", a back cover only without a front); a song without
// one, or a file that is no container of these (ID3 has its own reader, Theora is a video), fails.
TEST(TagCoverServiceTest, EachContainerShowsItsFrontCoverThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    const std::string front = Fixture("cover.jpg"), back = Fixture("back.png");
    const std::string monkey = "MAC " + std::string("\x96\x0f\0\0", 4) + std::string(60, '\0');
    const std::string zeros(100, '\0');
    const struct {
        const char* name;
        std::string bytes;
        C container;
        const char* quadrants;  // "" when the song has no cover
    } rows[] = {
        {"song.flac", Fixture("song.flac"), C::kFlac, "RGWB"},
        {"two_covers.flac", Fixture("two_covers.flac"), C::kFlac, "RGWB"},
        {"large.flac", Fixture("large.flac"), C::kFlac, "RGWB"},  // longer than an ID3 cover
        {"song.m4a", Fixture("song.m4a"), C::kMp4, "RGWB"},
        {"song.ogg", Fixture("song.ogg"), C::kOggVorbis, "RGWB"},
        {"song.opus", Fixture("song.opus"), C::kOggOpus, "RGWB"},
        {"plain.flac", Fixture("plain.flac"), C::kFlac, ""},
        {"front.wv",
         Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}, {"Cover Art (Front)", front}}),
         C::kWavPack, "RGWB"},
        {"back.wv", Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}}), C::kWavPack,
         "BBBB"},
        {"front.ape", monkey + ApeTag({{"Cover Art (Front)", front}}), C::kApe, "RGWB"},
        {"id3.mp3", std::string("ID3\x03\0\0\0\0\0\0", 10) + zeros, C::kNone, ""},
        {"theora.ogg",
         std::string("OggS\0\x02", 6) + std::string(20, '\0') + "\x01\x09\x80theora\x03\x02" +
             zeros,
         C::kNone, ""},
        {"short.flac", "fLa", C::kNone, ""},
    };
    ASSERT_EQ(0, thumbnail_init());
    qrbtest::CallbackRecorder recorder;
    for (const auto& row : rows) {
        const std::string path = root.WriteFile(std::string("music/") + row.name, row.bytes);
        EXPECT_EQ(row.container, QRBTagCoverExtractor::SniffFile(path.c_str())) << row.name;
        const auto r = recorder.Request(path, MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL, 80, 60);
        ASSERT_EQ(r.status, *row.quadrants ? 0 : -1) << row.name;
        if (r.status == 0) {
            EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], 80, 60)), row.quadrants)
                << row.name;
        }
    }
    thumbnail_finalize();
}

}  // namespace
