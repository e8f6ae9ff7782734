// The music getter: its helpers, the getter on its own, and songs through the C interface
// (media type music on local storage is kind 1, on a serial device kind 14).
#include "qrb_id3_thumbnail_getter.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_extractor.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_getter_factory.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace qrbmusictest;
using namespace std::chrono_literals;

const char kDataDir[] = "/opt/usr/apps/orvale/data/";

// A 200 x 100 cover: red top left, green top right, blue bottom left, white bottom right.
std::string QuadrantJpeg(int width = 200, int height = 100) {
    qrbtest::JpegSpec spec;
    spec.width = width;
    spec.height = height;
    spec.quality = 95;
    spec.pattern = qrbtest::JpegPattern::kQuadrants;
    return qrbtest::MakeJpeg(spec);
}

std::string Mp3WithApic(const std::string& picture) {
    return Id3Tag(3, V23Frame("TIT2", std::string("\0Song", 5)) +
                         V23Frame("APIC", ApicBody("image/jpeg", picture))) +
           kAudio;
}

// An 8 x 4 BMP, red on the left half, green on the right: 150 bytes, short enough for a
// "WM/Picture" value.
std::string HalvesBmp() {
    return Bmp(8, 4, [](int x, int) -> uint32_t { return x < 4 ? 0xFF0000u : 0x00FF00u; });
}

std::string WmaWithPicture(const std::string& picture) {
    return AsfHeader({ExtContentDescription(
               {Descriptor("WM/Picture", 1, WmPictureValue(picture, "image/bmp"))})}) +
           AsfObject(DataGuid(), kAudio);
}

// BGRA pixel checks with room for JPEG's approximations.
struct Pixel {
    int b, g, r;
};
Pixel At(const uint8_t* raster, int width, int x, int y) {
    const uint8_t* p = raster + (static_cast<size_t>(y) * width + x) * 4;
    return {p[0], p[1], p[2]};
}
bool IsRed(Pixel p) { return p.r > 200 && p.g < 60 && p.b < 60; }
bool IsGreen(Pixel p) { return p.g > 200 && p.r < 60 && p.b < 60; }
bool IsBlue(Pixel p) { return p.b > 200 && p.r < 60 && p.g < 60; }
bool IsWhite(Pixel p) { return p.r > 200 && p.g > 200 && p.b > 200; }

std::string Padded5(int value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%05d", value);
    return text;
}

class MusicGetterTest : public ::testing::Test {
protected:
    // Files named mus* in the data folder: the getter's temporary files.
    int TemporaryFiles() const {
        DIR* dir = opendir(root.Resolve(kDataDir).c_str());
        if (dir == nullptr) return 0;
        int n = 0;
        while (struct dirent* entry = readdir(dir)) {
            if (std::string(entry->d_name).rfind("mus", 0) == 0) ++n;
        }
        closedir(dir);
        return n;
    }
    boost::intrusive_ptr<CQRBThumbnailItem> Extract(const std::string& url, int w, int h) {
        _stExtractInfo info;
        info.strURL = url;
        info.width = w;
        info.height = h;
        return getter.ExtractThumbnail(info);
    }
    // The temporary file the last extraction wrote, from its log line.
    std::string LastTemporaryName() const {
        const std::string marker = "Writing the data to flash ,path is ";
        std::string name;
        for (const auto& line : log.Lines()) {
            const size_t at = line.find(marker);
            if (at == std::string::npos) continue;
            name = line.substr(at + marker.size());
            name = name.substr(0, name.find("....."));
        }
        return name;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBID3ThumbnailGetter getter;
};

TEST_F(MusicGetterTest, ExtensionIsTheTextAfterTheLastDotOfTheName) {
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music/song.mp3"), "mp3");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music/a.b.wma"), "wma");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("SONG.WMA"), "WMA");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music.d/song"), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("C:\\music.d\\song"), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music/song."), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music/song.mp3/"), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("/music/song.mp3\\"), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension("song"), "");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ExtractExtension(""), "");
}

TEST_F(MusicGetterTest, UriPrefixesAreStripped) {
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file://1/music/a.mp3"), "/music/a.mp3");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:///music/a.mp3"), "/music/a.mp3");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("/music/a.mp3"), "/music/a.mp3");
    EXPECT_EQ(getter.T_CONVERTURITOPATH(nullptr), nullptr);
}

TEST_F(MusicGetterTest, TemporaryNamesPadTheProcessIdOnlyOnTheId3Path) {
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ID3TempName(123, 7),
              root.Resolve(kDataDir) + "mus0012300007.jpg");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_WMATempName(123, 7),
              root.Resolve(kDataDir) + "mus12300007.jpg");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ID3TempName(4194304, 123456),
              root.Resolve(kDataDir) + "mus4194304123456.jpg");
}

TEST_F(MusicGetterTest, CreateDirMakesEveryMissingFolder) {
    const std::string deep = root.Path() + "/a/b/c";
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_CreateDir(deep.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_CreateDir((deep + "/").c_str()), 0);  // already there
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_CreateDir("/"), 0);

    const std::string file = root.WriteFile("plain", "x");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_CreateDir((file + "/sub").c_str()), -1);
    EXPECT_TRUE(log.Contains("mkdir   error"));

    // Only the first 256 characters are looked at: the folder they end in is made, cut where
    // the cut falls, and nothing after it.
    const std::string base = root.Path() + "/long/";
    ASSERT_LT(base.size(), 200u);
    const std::string name(300 - base.size(), 'n');
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_CreateDir((base + name + "/tail").c_str()), 0);
    const std::string cut = (base + name).substr(0, 256);
    ASSERT_EQ(stat(cut.c_str(), &st), 0) << "the first 256 characters";
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(root.CountEntries("/long"), 1);
    EXPECT_EQ(root.CountEntries(cut.substr(root.Path().size())), 0);
}

TEST_F(MusicGetterTest, Mp3CoverIsDecodedAndCentreCropped) {
    const std::string song = root.WriteFile("music/song.mp3", Mp3WithApic(QuadrantJpeg()));
    auto item = Extract(song, 50, 50);
    ASSERT_TRUE(item);
    ASSERT_EQ(item->GetImageCount(), 1);
    const auto& image = item->GetImages()[0];
    ASSERT_EQ(image->GetWidth(), 50);
    ASSERT_EQ(image->GetHeight(), 50);
    EXPECT_EQ(item->GetSize(), 50 * 50 * 4);
    // The 100 x 50 raster that covers the box loses 25 columns on either side: the crop's
    // corners lie inside the four quadrants, not at the picture's left edge.
    const uint8_t* px = image->GetBuffer();
    EXPECT_TRUE(IsRed(At(px, 50, 5, 5)));
    EXPECT_TRUE(IsGreen(At(px, 50, 44, 5)));
    EXPECT_TRUE(IsBlue(At(px, 50, 5, 44)));
    EXPECT_TRUE(IsWhite(At(px, 50, 44, 44)));
    EXPECT_TRUE(log.Contains("Write JPG Buffer Succeed"));
    EXPECT_TRUE(log.Contains("MediaManager.GetThumbnailBuffer Succeed"));
    EXPECT_TRUE(log.Contains("cropStartX=25, cropStartY=0, destWidth=50, destHeight=50"));
    // Named after the process id (five digits at least) and removed after decoding.
    EXPECT_EQ(LastTemporaryName().rfind(root.Resolve(kDataDir) + "mus" + Padded5(getpid()), 0), 0u);
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, Id3v22CoverIsDecoded) {
    const std::string file = Id3Tag(2, V22Frame("PIC", PicBody(QuadrantJpeg()))) + kAudio;
    auto item = Extract("file://" + root.WriteFile("song.mp3", file), 40, 40);
    ASSERT_TRUE(item);
    const auto& image = item->GetImages()[0];
    ASSERT_EQ(image->GetWidth(), 40);
    ASSERT_EQ(image->GetHeight(), 40);
    EXPECT_TRUE(IsRed(At(image->GetBuffer(), 40, 4, 4)));
    EXPECT_TRUE(IsGreen(At(image->GetBuffer(), 40, 35, 4)));
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, RequestOfZeroByZeroKeepsTheCoversOwnSize) {
    auto item = Extract(root.WriteFile("song.mp3", Mp3WithApic(QuadrantJpeg())), 0, 0);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->GetImages()[0]->GetWidth(), 200);
    EXPECT_EQ(item->GetImages()[0]->GetHeight(), 100);
    EXPECT_FALSE(log.Contains("cropStartX="));
}

TEST_F(MusicGetterTest, WmaCoverIsDecodedAndCentreCropped) {
    const std::string song = root.WriteFile("song.wma", WmaWithPicture(HalvesBmp()));
    auto item = Extract(song, 4, 4);
    ASSERT_TRUE(item);
    const auto& image = item->GetImages()[0];
    ASSERT_EQ(image->GetWidth(), 4);
    ASSERT_EQ(image->GetHeight(), 4);
    // Columns 2 to 5 of the 8 x 4 cover: two red, two green.
    EXPECT_TRUE(IsRed(At(image->GetBuffer(), 4, 1, 2)));
    EXPECT_TRUE(IsGreen(At(image->GetBuffer(), 4, 2, 2)));
    EXPECT_EQ(
        LastTemporaryName().rfind(root.Resolve(kDataDir) + "mus" + std::to_string(getpid()), 0),
        0u);
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, ExtensionInCapitalsIsReadForId3Tags) {
    // The same WMA bytes: "song.wma" is a WMA file, "SONG.WMA" is looked at as an MP3.
    const std::string bytes = WmaWithPicture(HalvesBmp());
    EXPECT_TRUE(Extract(root.WriteFile("song.wma", bytes), 4, 4));
    log.Clear();
    EXPECT_FALSE(Extract(root.WriteFile("SONG.WMA", bytes), 4, 4));
    EXPECT_TRUE(log.Contains("ID3Extractor.cpp activating..., file name ="));
    EXPECT_FALSE(log.Contains("uImageSize="));
}

TEST_F(MusicGetterTest, CoverOfTheLimitIsDecodedAndOneByteMoreIsRefused) {
    std::string cover = QuadrantJpeg(64, 32);
    const size_t jpegSize = cover.size();
    ASSERT_LT(jpegSize, CQRBID3ThumbnailGetter::kMaxCoverLength);
    cover.resize(CQRBID3ThumbnailGetter::kMaxCoverLength, '\0');  // bytes after the end marker
    ASSERT_EQ(cover.size(), 524287u);
    EXPECT_TRUE(Extract(root.WriteFile("limit.mp3", Mp3WithApic(cover)), 16, 16));

    cover.push_back('\0');
    log.Clear();
    EXPECT_FALSE(Extract(root.WriteFile("over.mp3", Mp3WithApic(cover)), 16, 16));
    EXPECT_FALSE(log.Contains("Writing the data to flash"));  // refused before any file exists
    EXPECT_TRUE(log.Contains("picture of 524288 bytes is over the limit of 524287"));
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, TemporaryFileIsRemovedWhenTheCoverDoesNotDecode) {
    auto item = Extract(root.WriteFile("song.mp3", Mp3WithApic("not a picture at all")), 50, 50);
    EXPECT_FALSE(item);
    EXPECT_TRUE(log.Contains("Write JPG Buffer Succeed"));
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, PlantedLinkAtTheNextNameIsNeitherFollowedNorRemoved) {
    const std::string song = root.WriteFile("song.mp3", Mp3WithApic(QuadrantJpeg()));
    ASSERT_TRUE(Extract(song, 20, 20));
    const std::string first = LastTemporaryName();
    const std::string prefix = root.Resolve(kDataDir) + "mus" + Padded5(getpid());
    ASSERT_EQ(first.rfind(prefix, 0), 0u);
    const int counter = std::stoi(first.substr(prefix.size(), 5));

    // Whoever plants a link at the next name gets nothing written through it.
    const std::string victim = root.WriteFile("victim", "precious");
    const std::string next = CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), counter + 1);
    ASSERT_EQ(symlink(victim.c_str(), next.c_str()), 0);
    log.Clear();
    EXPECT_TRUE(Extract(song, 20, 20));
    EXPECT_TRUE(log.Contains("Failed to create " + next + "  file."));
    EXPECT_EQ(LastTemporaryName(), CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), counter + 2));
    EXPECT_EQ(ReadFileBytes(victim), "precious");
    struct stat st;
    EXPECT_EQ(lstat(next.c_str(), &st), 0);  // not ours to remove
    EXPECT_EQ(TemporaryFiles(), 1);
}

TEST_F(MusicGetterTest, FailedWriteStillGoesOnToTheDecode) {
    const std::string song = root.WriteFile("song.mp3", Mp3WithApic(QuadrantJpeg()));
    ASSERT_TRUE(Extract(song, 20, 20));
    const std::string prefix = root.Resolve(kDataDir) + "mus" + Padded5(getpid());
    const int counter = std::stoi(LastTemporaryName().substr(prefix.size(), 5));

    // Every name the getter may try next is taken (by folders: even root cannot write them).
    std::vector<std::string> taken;
    for (int i = 1; i <= 8; ++i) {
        taken.push_back(CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), counter + i));
        ASSERT_EQ(mkdir(taken.back().c_str(), 0700), 0);
    }
    log.Clear();
    EXPECT_FALSE(Extract(song, 20, 20));
    const std::vector<std::string> lines = log.Lines();
    const auto failed = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("Write JPG Buffer fail") != std::string::npos;
    });
    ASSERT_NE(failed, lines.end());
    // The decoder was asked, after the failed write, for the last name tried.
    EXPECT_NE(std::find_if(failed, lines.end(),
                           [](const std::string& line) {
                               return line.find("INVALID WIDTH AND HEIGHT") != std::string::npos;
                           }),
              lines.end());
    for (const std::string& name : taken) {
        struct stat st;
        EXPECT_EQ(stat(name.c_str(), &st), 0) << name << " is not the getter's to remove";
    }
}

TEST_F(MusicGetterTest, FrameLargerThanTheFileGivesNoItem) {
    std::string file = Mp3WithApic(QuadrantJpeg());
    file.resize(300);  // the tag and its picture frame claim far more
    EXPECT_FALSE(Extract(root.WriteFile("cut.mp3", file), 50, 50));
    EXPECT_FALSE(log.Contains("Writing the data to flash"));
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, SongWithoutCoverGivesNoItem) {
    EXPECT_FALSE(Extract(
        root.WriteFile("plain.mp3", Id3Tag(3, V23Frame("TIT2", "\x03Song")) + kAudio), 50, 50));
    EXPECT_FALSE(Extract(root.Path() + "/missing.mp3", 50, 50));
    EXPECT_FALSE(
        Extract(root.WriteFile("plain.wma", AsfHeader({AsfObject(DataGuid(), "x")})), 50, 50));
}

TEST(MusicGetterFactoryTest, KindsOneAndFourteenHaveTheMusicGetter) {
    for (qrb_media_thumbnail_type kind : {THUMB_MUSIC, THUMB_SERIAL_MUSIC}) {
        std::unique_ptr<CQRBThumbnailGetter> made(
            CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(kind));
        EXPECT_NE(dynamic_cast<CQRBID3ThumbnailGetter*>(made.get()), nullptr) << kind;
        CQRBThumbnailGetter* shared = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(kind);
        EXPECT_NE(dynamic_cast<CQRBID3ThumbnailGetter*>(shared), nullptr) << kind;
        EXPECT_EQ(CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(kind), shared);
    }
}

// Through the C interface, as an application asks.
class MusicServiceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(thumbnail_init(), 0); }
    void TearDown() override { thumbnail_finalize(); }

    qrbtest::RecordedResult Request(const std::string& url, qrb_extend_dev_type dev, int w, int h) {
        const size_t before = recorder.Count();
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_MUSIC, dev, 0, w, h, 0, 1,
                                &qrbtest::CallbackRecorder::Callback,
                                recorder.Tag(static_cast<int>(before)));
        EXPECT_TRUE(recorder.WaitForCount(before + 1, 10s));
        const auto results = recorder.Results();
        return results.empty() ? qrbtest::RecordedResult() : results.back();
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
};

TEST_F(MusicServiceTest, LocalSongGetsItsCoverAsKindOne) {
    const std::string song = root.WriteFile("music/song.mp3", Mp3WithApic(QuadrantJpeg()));
    const auto r = Request(song, DEV_TYPE_LOCAL, 50, 50);
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.width, 50);
    ASSERT_EQ(r.height, 50);
    ASSERT_EQ(r.buffers.size() > 0 ? r.buffers[0].size() : 0u, 50u * 50 * 4);
    const auto* px = reinterpret_cast<const uint8_t*>(r.buffers[0].data());
    EXPECT_TRUE(IsRed(At(px, 50, 5, 5)));
    EXPECT_TRUE(IsWhite(At(px, 50, 44, 44)));
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=1"));
    EXPECT_TRUE(log.WaitFor("MediaManager.GetThumbnailBuffer Succeed", 1s));
}

TEST_F(MusicServiceTest, SongOnASerialDeviceIsServedOnTheSingleVariant) {
    // The serial device range moves music to the one-at-a-time single variant, whose workers
    // hand it to the music getter.
    const std::string song = root.WriteFile("music/song.wma", WmaWithPicture(HalvesBmp()));
    const auto r = Request("file://" + song, DEV_TYPE_SERIAL_FIRST, 4, 4);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 4);
    EXPECT_EQ(r.height, 4);
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=14") || log.Contains("eThumbnailType = 14"));
    EXPECT_FALSE(log.Contains("is not served by the video decoder"));
    EXPECT_TRUE(log.Contains("uImageSize=150"));
}

TEST_F(MusicServiceTest, KindFourteenRequestIsServedByTheMusicGetter) {
    // What a worker that serves kind 14 runs: the shared getter of that kind.
    const std::string song = root.WriteFile("music/song.wma", WmaWithPicture(HalvesBmp()));
    _stRequestedItem request;
    request.strURL = "file://" + song;
    request.eThumbnailType = THUMB_SERIAL_MUSIC;
    request.width = 4;
    request.height = 4;
    boost::intrusive_ptr<CQRBThumbnailItem> item;
    CQRBThumbnailExtractor extractor;
    ASSERT_TRUE(extractor.ExtractThumb(request, item));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->GetThumbnailType(), THUMB_SERIAL_MUSIC);
    EXPECT_EQ(item->GetImages()[0]->GetWidth(), 4);
    EXPECT_EQ(item->GetImages()[0]->GetHeight(), 4);
    EXPECT_TRUE(log.Contains("uImageSize=150"));
}

TEST_F(MusicServiceTest, SongWithoutCoverAnswersMinusOne) {
    const std::string song = root.WriteFile("plain.mp3", std::string(400, 'a'));
    const auto r = Request(song, DEV_TYPE_LOCAL, 50, 50);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.count, 0);
}

}  // namespace
