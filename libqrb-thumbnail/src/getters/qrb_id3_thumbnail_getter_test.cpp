// The music getter: its helpers, the getter on its own, and songs through the C interface
// (media type music on local storage is kind 1, on a serial device kind 14).
#include "qrb_id3_thumbnail_getter.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_temp_file.h"
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

// A cover at the requested size, centre-cropped from the raster that covers the box: the
// corners checked lie inside the picture's quadrants (or halves), not at its left edge.
TEST_F(MusicGetterTest, CoversAreDecodedAndCentreCropped) {
    const struct {
        const char* name;
        std::string bytes;
        int w, h, outW, outH;
        const char* quadrants;
        const char* crop;  // logged, or "" for none
        bool id3;          // the ID3 path's temporary name, or the WMA path's
    } cases[] = {
        {"song.mp3", Mp3WithApic(QuadrantJpeg()), 50, 50, 50, 50, "RGWB",
         "cropStartX=25, cropStartY=0, destWidth=50, destHeight=50", true},
        {"v22.mp3", Id3Tag(2, V22Frame("PIC", PicBody(QuadrantJpeg()))) + kAudio, 40, 40, 40, 40,
         "RGWB", "cropStartX=", true},
        {"own.mp3", Mp3WithApic(QuadrantJpeg()), 0, 0, 200, 100, "RGWB", "", true},
        // Columns 2 to 5 of the 8 x 4 cover: two red, two green.
        {"song.wma", WmaWithPicture(HalvesBmp()), 4, 4, 4, 4, "RGGR", "cropStartX=", false},
    };
    for (const auto& c : cases) {
        log.Clear();
        auto item = Extract("file://" + root.WriteFile(c.name, c.bytes), c.w, c.h);
        ASSERT_TRUE(item) << c.name;
        ASSERT_EQ(item->GetImageCount(), 1);
        const auto& image = item->GetImages()[0];
        ASSERT_EQ(image->GetWidth(), c.outW) << c.name;
        ASSERT_EQ(image->GetHeight(), c.outH) << c.name;
        EXPECT_EQ(item->GetSize(), c.outW * c.outH * 4);
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(*image)), c.quadrants) << c.name;
        EXPECT_EQ(log.Contains(c.crop[0] ? c.crop : "cropStartX="), c.crop[0] != 0) << c.name;
        EXPECT_TRUE(log.Contains("Write JPG Buffer Succeed"));
        EXPECT_TRUE(log.Contains("MediaManager.GetThumbnailBuffer Succeed"));
        // Named after the process id (padded to five digits on the ID3 path), then removed.
        const int counter =
            std::stoi(LastTemporaryName().substr(LastTemporaryName().size() - 9, 5));
        EXPECT_EQ(LastTemporaryName(),
                  c.id3 ? CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), counter)
                        : CQRBID3ThumbnailGetter::m_WMATempName(getpid(), counter));
        EXPECT_EQ(TemporaryFiles(), 0);
    }
}

TEST_F(MusicGetterTest, SongsWithoutAUsableCoverGiveNoItemAndLeaveNoFile) {
    std::string cut = Mp3WithApic(QuadrantJpeg());
    cut.resize(300);  // the tag and its picture frame claim far more
    const std::pair<const char*, std::string> cases[] = {
        {"bad.mp3", Mp3WithApic("not a picture at all")},  // written, then refused
        {"cut.mp3", cut},
        {"plain.mp3", Id3Tag(3, V23Frame("TIT2", "\x03Song")) + kAudio},
        {"plain.wma", AsfHeader({AsfObject(DataGuid(), "x")})},
        // The same WMA bytes as a capitalised extension are looked at as an MP3.
        {"SONG.WMA", WmaWithPicture(HalvesBmp())},
    };
    for (const auto& [name, bytes] : cases) {
        EXPECT_FALSE(Extract(root.WriteFile(name, bytes), 50, 50)) << name;
    }
    EXPECT_FALSE(Extract(root.Path() + "/missing.mp3", 50, 50));
    EXPECT_EQ(log.Count("Writing the data to flash"), 1);
    EXPECT_TRUE(log.Contains("ID3Extractor.cpp activating..., file name ="));
    EXPECT_EQ(TemporaryFiles(), 0);
}

TEST_F(MusicGetterTest, CoverOfTheLimitIsDecodedAndOneByteMoreIsRefused) {
    std::string cover = QuadrantJpeg(64, 32);
    cover.resize(CQRBID3ThumbnailGetter::kMaxCoverLength, '\0');  // bytes after the end marker
    ASSERT_EQ(cover.size(), 524287u);
    EXPECT_TRUE(Extract(root.WriteFile("limit.mp3", Mp3WithApic(cover)), 16, 16));
    cover.push_back('\0');
    log.Clear();
    EXPECT_FALSE(Extract(root.WriteFile("over.mp3", Mp3WithApic(cover)), 16, 16));
    EXPECT_FALSE(log.Contains("Writing the data to flash"));  // refused before any file exists
    EXPECT_TRUE(log.Contains("picture of 524288 bytes is over the limit of 524287"));
}

TEST_F(MusicGetterTest, FailedWriteStillGoesOnToTheDecode) {
    const std::string song = root.WriteFile("song.mp3", Mp3WithApic(QuadrantJpeg()));
    ASSERT_TRUE(Extract(song, 20, 20));
    const std::string last = LastTemporaryName();
    const int counter = std::stoi(last.substr(last.size() - 9, 5));
    // Every name the getter may try next is taken (by folders: even root cannot write them).
    for (int i = 1; i <= QRBTempFile::kNameAttempts; ++i) {
        ASSERT_EQ(mkdir(CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), counter + i).c_str(), 0700),
                  0);
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
}

TEST(MusicGetterFactoryTest, KindsOneAndFourteenHaveTheMusicGetter) {
    for (qrb_media_thumbnail_type kind : {THUMB_MUSIC, THUMB_SERIAL_MUSIC}) {
        std::unique_ptr<CQRBThumbnailGetter> made(
            CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(kind));
        EXPECT_NE(dynamic_cast<CQRBID3ThumbnailGetter*>(made.get()), nullptr) << kind;
        CQRBThumbnailGetter* shared = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(kind);
        EXPECT_NE(dynamic_cast<CQRBID3ThumbnailGetter*>(shared), nullptr) << kind;
    }
}

// Through the C interface: a local song is kind 1 on the multi variant; a song on a serial
// device is kind 14 on the one-at-a-time single variant, whose workers hand it to this getter.
TEST(MusicServiceTest, SongsGetTheirCoversThroughTheCInterface) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    const auto local =
        recorder.Request(root.WriteFile("music/song.mp3", Mp3WithApic(QuadrantJpeg())),
                         MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL, 50, 50);
    EXPECT_EQ(local.status, 0);
    ASSERT_EQ(local.buffers[0].size(), 50u * 50 * 4);
    EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(local.buffers[0], 50, 50)), "RGWB");
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=1"));

    const auto serial =
        recorder.Request("file://" + root.WriteFile("music/song.wma", WmaWithPicture(HalvesBmp())),
                         MEDIA_TYPE_MUSIC, DEV_TYPE_SERIAL_FIRST, 4, 4);
    EXPECT_EQ(serial.status, 0);
    EXPECT_EQ(serial.width, 4);
    EXPECT_TRUE(log.Contains("uImageSize=150"));
    EXPECT_FALSE(log.Contains("is not served by the video decoder"));

    const auto none = recorder.Request(root.WriteFile("plain.mp3", std::string(400, 'a')),
                                       MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL, 50, 50);
    EXPECT_EQ(none.status, -1);
    EXPECT_EQ(none.count, 0);
    thumbnail_finalize();
}

}  // namespace
