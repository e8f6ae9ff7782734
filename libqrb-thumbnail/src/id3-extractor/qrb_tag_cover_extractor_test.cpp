// Cover art from FLAC, MP4, Ogg Vorbis, Opus, WavPack and Monkey's Audio: the songs are made by
// ffmpeg (testdata/make_cover_fixtures.sh); APE tags, which ffmpeg does not write with pictures,
// are appended by the tests from their byte layout.
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

std::string FixturePath(const std::string& name) {
    return std::string(QRB_COVER_FIXTURE_DIR) + "/" + name;
}
std::string Fixture(const std::string& name) { return qrbtest::ReadFileBytes(FixturePath(name)); }

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

const std::string kMonkey = "MAC " + std::string("\x96\x0f\0\0", 4) + std::string(60, '\0');

// Each song is recognised by its first bytes and shows its front cover through the C interface
// (cover.jpg reads "RGWB", back.png "BBBB", a back cover only when there is no front); a song
// without one fails.
TEST(TagCoverServiceTest, EachContainerShowsItsFrontCoverThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    const std::string front = Fixture("cover.jpg"), back = Fixture("back.png");
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
        {"front.ape", kMonkey + ApeTag({{"Cover Art (Front)", front}}), C::kApe, "RGWB"},
        {"none.ape", kMonkey, C::kApe, ""},
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

// Damaged songs give no more than their file holds; files that are no container are left alone.
TEST(TagCoverExtractTest, DamagedSongsAreBoundedAndOtherFilesAreNoContainer) {
    qrbtest::ScratchRoot root;
    const std::string flac = Fixture("song.flac"), m4a = Fixture("song.m4a");
    std::string lyingAtom = m4a;  // the cover's data atom claims far more than the file holds
    lyingAtom.replace(lyingAtom.find("data", lyingAtom.find("covr")) - 4, 4, "\x7F\xFF\xFF\xF0");
    const std::string kZeros(100, '\0');
    const std::string ogg = std::string("OggS\0\x02", 6) + std::string(20, '\0') + "\x01";
    const struct {
        const char* name;
        std::string bytes;
        C container;
    } rows[] = {
        {"cut.flac", flac.substr(0, flac.find("image/jpeg") + 200), C::kFlac},
        {"cut.m4a", m4a.substr(0, m4a.size() / 3), C::kMp4},
        {"lying.m4a", lyingAtom, C::kMp4},
        {"cut.ogg", Fixture("song.ogg").substr(0, 200), C::kOggVorbis},
        {"flac-as-mp4.m4a", flac, C::kMp4},  // read as the wrong container
        // Others' to read (ID3 has its own reader, Theora is a video) or too short to tell.
        {"id3.mp3", std::string("ID3\x03\0\0\0\0\0\0", 10) + kZeros, C::kNone},
        {"theora.ogg", ogg + "\x09\x80theora\x03\x02" + kZeros, C::kNone},
        {"short.flac", "fLa", C::kNone},
    };
    for (const auto& row : rows) {
        const std::string path = root.WriteFile(row.name, row.bytes);
        if (row.container == C::kNone) {
            EXPECT_EQ(C::kNone, QRBTagCoverExtractor::SniffFile(path.c_str())) << row.name;
            continue;
        }
        std::string cover = "left over";
        const int ret = QRBTagCoverExtractor::Extract(path.c_str(), row.container, &cover);
        EXPECT_TRUE(ret == -1 ? cover.empty() : !cover.empty() && cover.size() < row.bytes.size())
            << row.name;
    }
}

}  // namespace
