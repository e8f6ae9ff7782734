// Cover art from FLAC, MP4, Ogg Vorbis, Opus, WavPack and Monkey's Audio: the songs are made by
// ffmpeg (testdata/make_cover_fixtures.sh); APE tags, which ffmpeg does not write with pictures,
// are appended by the tests from their byte layout. The music getter and the C interface then
// turn these songs into thumbnails.
#include "id3-extractor/qrb_tag_cover_extractor.h"

#include "qrb_id3_thumbnail_getter.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using namespace std::chrono_literals;

std::string FixturePath(const std::string& name) {
    return std::string(QRB_COVER_FIXTURE_DIR) + "/" + name;
}

std::string Bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Le32(uint32_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 24)};
}

// One binary APEv2 item: a description, a zero byte, the picture.
std::string ApeItem(const std::string& key, const std::string& picture) {
    const std::string value = "cover.jpg" + std::string(1, '\0') + picture;
    return Le32(static_cast<uint32_t>(value.size())) + Le32(1u << 1) + key + std::string(1, '\0') +
           value;
}

// An APEv2 tag (items and footer, no header), as it ends a file.
std::string ApeTag(const std::string& items, uint32_t count) {
    return items + "APETAGEX" + Le32(2000) + Le32(static_cast<uint32_t>(items.size()) + 32) +
           Le32(count) + Le32(0) + std::string(8, '\0');
}

QRBCoverContainer Sniff(const std::string& head) {
    return QRBTagCoverExtractor::Sniff(reinterpret_cast<const unsigned char*>(head.data()),
                                       head.size());
}

// An Ogg page header (27 bytes, one segment) in front of a packet start.
std::string OggStart(const std::string& packet) {
    return std::string("OggS\0\x02", 6) + std::string(20, '\0') + std::string(1, '\x01') +
           std::string(1, static_cast<char>(packet.size())) + packet;
}

TEST(TagCoverSniffTest, FirstBytesNameTheContainer) {
    const struct {
        std::string head;
        QRBCoverContainer want;
    } rows[] = {
        {"fLaC\0\0\0\x22", QRBCoverContainer::kFlac},
        {std::string("\0\0\0\x1C" "ftypM4A \0\0\0\0", 16), QRBCoverContainer::kMp4},
        {std::string("\0\0\0\x20" "ftypisom\0\0\x02\0", 16), QRBCoverContainer::kMp4},
        {OggStart("\x01vorbis\0\0\0\0"), QRBCoverContainer::kOggVorbis},
        {OggStart("OpusHead\x01\x02"), QRBCoverContainer::kOggOpus},
        {OggStart("\x7F" "FLAC\x01\0"), QRBCoverContainer::kOggFlac},
        {OggStart("Speex   1.2"), QRBCoverContainer::kOggSpeex},
        {"MAC \x96\x0f", QRBCoverContainer::kApe},
        {"wvpk\x20\0\0\0", QRBCoverContainer::kWavPack},
        // Theirs or nobody's: ID3 and ASF have their own readers, Theora is a video.
        {"ID3\x03\0\0\0\0\0\0", QRBCoverContainer::kNone},
        {"\x30\x26\xB2\x75\x8E\x66\xCF\x11", QRBCoverContainer::kNone},
        {OggStart("\x80theora\x03\x02"), QRBCoverContainer::kNone},
        {"\xFF\xFB\x90\x00", QRBCoverContainer::kNone},
        {"fLa", QRBCoverContainer::kNone},
        {"", QRBCoverContainer::kNone},
    };
    for (const auto& row : rows) EXPECT_EQ(row.want, Sniff(row.head)) << row.head;
}

struct SongCase {
    const char* song;
    QRBCoverContainer container;
    const char* cover;  // the picture file it must give, byte for byte; null for none
};

class TagCoverFixtureTest : public ::testing::TestWithParam<SongCase> {};

TEST_P(TagCoverFixtureTest, GivesTheFrontCoverByteForByte) {
    const SongCase& c = GetParam();
    const std::string path = FixturePath(c.song);
    ASSERT_EQ(c.container, QRBTagCoverExtractor::SniffFile(path.c_str()));
    std::string cover = "left over";
    const int ret = QRBTagCoverExtractor::Extract(path.c_str(), c.container, &cover);
    if (c.cover == nullptr) {
        EXPECT_EQ(-1, ret);
        EXPECT_TRUE(cover.empty());
        return;
    }
    ASSERT_EQ(0, ret);
    EXPECT_TRUE(cover == Bytes(FixturePath(c.cover))) << c.song << " gave " << cover.size()
                                                     << " bytes";
}

INSTANTIATE_TEST_SUITE_P(
    Songs, TagCoverFixtureTest,
    ::testing::Values(SongCase{"song.flac", QRBCoverContainer::kFlac, "cover.jpg"},
                      SongCase{"two_covers.flac", QRBCoverContainer::kFlac, "cover.jpg"},
                      SongCase{"large.flac", QRBCoverContainer::kFlac, "large.jpg"},
                      SongCase{"song.m4a", QRBCoverContainer::kMp4, "cover.jpg"},
                      SongCase{"song_png.m4a", QRBCoverContainer::kMp4, "back.png"},
                      SongCase{"song.ogg", QRBCoverContainer::kOggVorbis, "cover.jpg"},
                      SongCase{"song.opus", QRBCoverContainer::kOggOpus, "cover.jpg"},
                      SongCase{"plain.flac", QRBCoverContainer::kFlac, nullptr},
                      SongCase{"plain.m4a", QRBCoverContainer::kMp4, nullptr},
                      SongCase{"plain.ogg", QRBCoverContainer::kOggVorbis, nullptr},
                      SongCase{"plain.wv", QRBCoverContainer::kWavPack, nullptr}),
    [](const ::testing::TestParamInfo<SongCase>& info) {
        std::string name = info.param.song;
        return name.replace(name.find('.'), 1, "_");
    });

class TagCoverFileTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        return root.WriteFile("music/" + name, bytes);
    }
    qrbtest::ScratchRoot root;
};

TEST_F(TagCoverFileTest, ApeTagsGiveTheFrontCoverElseAnyCover) {
    const std::string front = Bytes(FixturePath("cover.jpg"));
    const std::string back = Bytes(FixturePath("back.png"));
    const std::string wavpack = Bytes(FixturePath("plain.wv"));
    // Monkey's Audio: only the tags are read, so a descriptor's start is file enough.
    const std::string monkey = "MAC " + std::string("\x96\x0f\0\0", 4) + std::string(60, '\0');
    const struct {
        std::string name;
        std::string bytes;
        QRBCoverContainer container;
        const std::string* want;
    } rows[] = {
        {"front.wv",
         wavpack + ApeTag(ApeItem("Cover Art (Back)", back) + ApeItem("Cover Art (Front)", front), 2),
         QRBCoverContainer::kWavPack, &front},
        {"back.wv", wavpack + ApeTag(ApeItem("Cover Art (Back)", back), 1),
         QRBCoverContainer::kWavPack, &back},
        {"front.ape", monkey + ApeTag(ApeItem("Cover Art (Front)", front), 1),
         QRBCoverContainer::kApe, &front},
        {"none.ape", monkey, QRBCoverContainer::kApe, nullptr},
    };
    for (const auto& row : rows) {
        const std::string path = Write(row.name, row.bytes);
        ASSERT_EQ(row.container, QRBTagCoverExtractor::SniffFile(path.c_str())) << row.name;
        std::string cover;
        const int ret = QRBTagCoverExtractor::Extract(path.c_str(), row.container, &cover);
        if (row.want == nullptr) {
            EXPECT_EQ(-1, ret) << row.name;
        } else {
            EXPECT_EQ(0, ret) << row.name;
            EXPECT_TRUE(cover == *row.want) << row.name;
        }
    }
}

TEST_F(TagCoverFileTest, DamagedSongsGiveNoCoverAndNothingWorse) {
    const std::string flac = Bytes(FixturePath("song.flac"));
    const std::string m4a = Bytes(FixturePath("song.m4a"));
    const std::string ogg = Bytes(FixturePath("song.ogg"));
    std::string lyingAtom = m4a;  // the cover's data atom claims far more than the file holds
    const size_t data = lyingAtom.find("data", lyingAtom.find("covr"));
    ASSERT_NE(std::string::npos, data);
    lyingAtom.replace(data - 4, 4, std::string("\x7F\xFF\xFF\xF0", 4));
    const struct {
        std::string name;
        std::string bytes;
        QRBCoverContainer container;
    } rows[] = {
        {"cut.flac", flac.substr(0, flac.find("image/jpeg") + 200), QRBCoverContainer::kFlac},
        {"header.flac", flac.substr(0, 8), QRBCoverContainer::kFlac},
        {"cut.m4a", m4a.substr(0, m4a.size() / 3), QRBCoverContainer::kMp4},
        {"lying.m4a", lyingAtom, QRBCoverContainer::kMp4},
        {"cut.ogg", ogg.substr(0, 200), QRBCoverContainer::kOggVorbis},
        // Read as the wrong container.
        {"flac-as-mp4.m4a", flac, QRBCoverContainer::kMp4},
    };
    for (const auto& row : rows) {
        const std::string path = Write(row.name, row.bytes);
        std::string cover;
        const int ret = QRBTagCoverExtractor::Extract(path.c_str(), row.container, &cover);
        // What a damaged song gives is a cover or none; never more than its file holds.
        EXPECT_TRUE(ret == -1 || (ret == 0 && !cover.empty() && cover.size() < row.bytes.size()))
            << row.name;
        if (ret == -1) EXPECT_TRUE(cover.empty()) << row.name;
    }
    std::string cover;
    EXPECT_EQ(-1, QRBTagCoverExtractor::Extract((root.Path() + "/gone.flac").c_str(),
                                                QRBCoverContainer::kFlac, &cover));
}

// ---- through the music getter and the C interface

struct Rgb {
    int r, g, b;
};

bool Near(const uint8_t* px, Rgb want) {  // px: blue, green, red, alpha
    return std::abs(px[2] - want.r) < 48 && std::abs(px[1] - want.g) < 48 &&
           std::abs(px[0] - want.b) < 48 && px[3] == 255;
}

class TagCoverGetterTest : public ::testing::TestWithParam<const char*> {
protected:
    qrbtest::ScratchRoot root;
    CQRBID3ThumbnailGetter getter;
};

TEST_P(TagCoverGetterTest, SongCoverComesBackCroppedToTheRequest) {
    _stExtractInfo info;
    info.strURL = std::string("file://") + FixturePath(GetParam());
    info.width = 100;
    info.height = 100;
    const auto item = getter.ExtractThumbnail(info);
    ASSERT_TRUE(item && item->GetImageCount() == 1) << GetParam();
    const CQRBThumbImage& image = *item->GetImages()[0];
    ASSERT_EQ(100, image.GetWidth());
    ASSERT_EQ(100, image.GetHeight());
    // The 300 x 200 quadrants covered (150 x 100) and cropped at the centre (25, 0).
    const uint8_t* px = image.GetBuffer();
    EXPECT_TRUE(Near(px + (10 * 100 + 10) * 4, {255, 0, 0}));
    EXPECT_TRUE(Near(px + (10 * 100 + 90) * 4, {0, 255, 0}));
    EXPECT_TRUE(Near(px + (90 * 100 + 10) * 4, {0, 0, 255}));
    EXPECT_TRUE(Near(px + (90 * 100 + 90) * 4, {255, 255, 255}));
}

INSTANTIATE_TEST_SUITE_P(Songs, TagCoverGetterTest,
                         ::testing::Values("song.flac", "two_covers.flac", "song.m4a", "song.ogg",
                                           "song.opus"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             return name.replace(name.find('.'), 1, "_");
                         });

TEST(TagCoverLimitTest, ContainerCoversMayBeLongerThanId3Covers) {
    qrbtest::ScratchRoot root;
    CQRBID3ThumbnailGetter getter;
    _stExtractInfo info;
    info.strURL = FixturePath("large.flac");  // a cover of over 1 MB
    info.width = 64;
    info.height = 64;
    const auto item = getter.ExtractThumbnail(info);
    ASSERT_TRUE(item && item->GetImageCount() == 1);
    EXPECT_EQ(64, item->GetImages()[0]->GetWidth());
}

TEST(TagCoverServiceTest, SongsOfEveryContainerAnswerThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(0, thumbnail_init());
    const char* songs[] = {"song.flac", "song.m4a", "song.ogg", "song.opus", "plain.m4a"};
    for (int i = 0; i < 5; ++i) {
        const std::string path = FixturePath(songs[i]);
        thumbnail_request_async(path.c_str(), MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL, 0, 80, 60, 0, 1,
                                &qrbtest::CallbackRecorder::Callback, recorder.Tag(i));
    }
    EXPECT_TRUE(recorder.WaitForCount(5, 20s));
    thumbnail_finalize();
    for (const auto& r : recorder.Results()) {
        if (r.url.find("plain.m4a") != std::string::npos) {
            EXPECT_EQ(-1, r.status) << r.url;  // a song without a picture
        } else {
            EXPECT_EQ(0, r.status) << r.url;
            EXPECT_EQ(80, r.width) << r.url;
            EXPECT_EQ(60, r.height) << r.url;
        }
    }
}

}  // namespace
