// Cover art from FLAC, MP4, Ogg Vorbis, Opus, WavPack and Monkey's Audio: the songs are made by
// ffmpeg (testdata/make_cover_fixtures.sh); APE tags, which ffmpeg does not write with pictures,
// are appended by the tests from their byte layout.
#include "id3-extractor/qrb_tag_cover_extractor.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

using namespace std::chrono_literals;
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

// Each song is recognised by its first bytes and gives its front cover byte for byte (or
// none); damaged songs give no more than their file holds; other files are no container.
TEST(TagCoverExtractTest, GivesTheFrontCoverByteForByte) {
    qrbtest::ScratchRoot root;
    const std::string front = Fixture("cover.jpg"), back = Fixture("back.png");
    const std::string flac = Fixture("song.flac"), m4a = Fixture("song.m4a");
    std::string lyingAtom = m4a;  // the cover's data atom claims far more than the file holds
    lyingAtom.replace(lyingAtom.find("data", lyingAtom.find("covr")) - 4, 4, "\x7F\xFF\xFF\xF0");
    const std::string kZeros(100, '\0');
    const std::string ogg = std::string("OggS\0\x02", 6) + std::string(20, '\0') + "\x01";
    const std::string monkey = "MAC " + std::string("\x96\x0f\0\0", 4) + std::string(60, '\0');
    const struct {
        const char* name;
        std::string bytes;
        C container;
        std::string want;  // "" for none; "?" a damaged song
    } rows[] = {
        {"song.flac", flac, C::kFlac, front},
        {"two_covers.flac", Fixture("two_covers.flac"), C::kFlac, front},
        {"large.flac", Fixture("large.flac"), C::kFlac, Fixture("large.jpg")},
        {"song.m4a", m4a, C::kMp4, front},
        {"song_png.m4a", Fixture("song_png.m4a"), C::kMp4, back},
        {"song.ogg", Fixture("song.ogg"), C::kOggVorbis, front},
        {"song.opus", Fixture("song.opus"), C::kOggOpus, front},
        {"plain.flac", Fixture("plain.flac"), C::kFlac, ""},
        {"plain.m4a", Fixture("plain.m4a"), C::kMp4, ""},
        {"front.wv",
         Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}, {"Cover Art (Front)", front}}),
         C::kWavPack, front},
        {"back.wv", Fixture("plain.wv") + ApeTag({{"Cover Art (Back)", back}}), C::kWavPack, back},
        {"front.ape", monkey + ApeTag({{"Cover Art (Front)", front}}), C::kApe, front},
        {"none.ape", monkey, C::kApe, ""},
        {"cut.flac", flac.substr(0, flac.find("image/jpeg") + 200), C::kFlac, "?"},
        {"cut.m4a", m4a.substr(0, m4a.size() / 3), C::kMp4, "?"},
        {"lying.m4a", lyingAtom, C::kMp4, "?"},
        {"cut.ogg", Fixture("song.ogg").substr(0, 200), C::kOggVorbis, "?"},
        {"flac-as-mp4.m4a", flac, C::kMp4, "?"},  // read as the wrong container
        // Others' to read (ID3 has its own reader, Theora is a video) or too short to tell.
        {"id3.mp3", std::string("ID3\x03\0\0\0\0\0\0", 10) + kZeros, C::kNone, ""},
        {"theora.ogg", ogg + "\x09\x80theora\x03\x02" + kZeros, C::kNone, ""},
        {"short.flac", "fLa", C::kNone, ""},
    };
    for (const auto& row : rows) {
        const std::string path = root.WriteFile(std::string("music/") + row.name, row.bytes);
        std::string cover = "left over";
        if (row.want != "?") {
            EXPECT_EQ(row.container, QRBTagCoverExtractor::SniffFile(path.c_str())) << row.name;
        }
        if (row.container == C::kNone) continue;
        const int ret = QRBTagCoverExtractor::Extract(path.c_str(), row.container, &cover);
        if (row.want == "?") {
            EXPECT_TRUE(ret == -1 ||
                        (ret == 0 && !cover.empty() && cover.size() < row.bytes.size()))
                << row.name;
        } else {
            EXPECT_EQ(ret, row.want.empty() ? -1 : 0) << row.name;
            EXPECT_TRUE(cover == row.want) << row.name << " gave " << cover.size() << " bytes";
        }
        EXPECT_TRUE(ret != -1 || cover.empty()) << row.name;
    }
}

TEST(TagCoverServiceTest, SongsOfEveryContainerAnswerThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(0, thumbnail_init());
    // large.flac's cover is over 1 MB: container covers may be longer than ID3 covers.
    const char* songs[] = {"song.flac", "large.flac", "song.m4a",
                           "song.ogg",  "song.opus",  "plain.m4a"};
    for (int i = 0; i < 6; ++i) {
        thumbnail_request_async(FixturePath(songs[i]).c_str(), MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL, 0,
                                80, 60, 0, 1, &qrbtest::CallbackRecorder::Callback,
                                recorder.Tag(i));
    }
    EXPECT_TRUE(recorder.WaitForCount(6, 20s));
    thumbnail_finalize();
    for (const auto& r : recorder.Results()) {
        const bool none = r.url.find("plain.m4a") != std::string::npos;  // no picture
        EXPECT_EQ(none ? -1 : 0, r.status) << r.url;
        EXPECT_TRUE(none || (r.width == 80 && r.height == 60)) << r.url;
    }
}

}  // namespace
