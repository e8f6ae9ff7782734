// Cover art from FLAC, MP4, Ogg Vorbis, Opus, WavPack and Monkey's Audio: the songs are made by
// ffmpeg (testdata/make_cover_fixtures.sh); APE tags, which ffmpeg does not write with pictures,
// are appended from their byte layout. Damaged songs are in fuzz/corpus/tag_cover.
#include "id3-extractor/qrb_tag_cover_extractor.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using C = QRBCoverContainer;

std::string Fixture(const std::string& name) {
    return qrbtest::ReadFileBytes(std::string(QRB_COVER_FIXTURE_DIR) + "/" + name);
}

// An APEv2 tag (binary items: a description, a zero byte, the picture; then the footer).
std::string ApeTag(const std::vector<std::pair<std::string, std::string>>& items) {
    std::string body;
    for (const auto& item : items) {
        const std::string value = "cover.jpg" + std::string(1, '\0') + item.second;
        body += qrbtest::LittleEndian(value.size(), 4) + qrbtest::LittleEndian(2, 4) + item.first +
                std::string(1, '\0') + value;
    }
    return body + "APETAGEX" + qrbtest::LittleEndian(2000, 4) +
           qrbtest::LittleEndian(body.size() + 32, 4) + qrbtest::LittleEndian(items.size(), 4) +
           std::string(12, '\0');
}

// Each song is recognised by its first bytes and shows its front cover through the C interface
// (cover.jpg reads "RGWB", back.png "BBBB", a back cover only when there is no front); a song
// without one, or a file that is no container of these (ID3 has its own reader, Theora is a
// video), fails.
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
        {"plain.m4a", Fixture("plain.m4a"), C::kMp4, ""},
        {"front.wv",
         Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}, {"Cover Art (Front)", front}}),
         C::kWavPack, "RGWB"},
        {"back.wv", Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}}), C::kWavPack,
         "BBBB"},
        {"front.ape", monkey + ApeTag({{"Cover Art (Front)", front}}), C::kApe, "RGWB"},
        {"none.ape", monkey, C::kApe, ""},
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
