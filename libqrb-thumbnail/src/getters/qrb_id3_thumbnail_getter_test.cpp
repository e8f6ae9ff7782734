// The music getter on songs the tests assemble, through the C interface.
#include "qrb_id3_thumbnail_getter.h"

#include "id3-extractor/qrb_music_test_support.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

using namespace qrbmusictest;

const char kDataDir[] = "/opt/usr/apps/orvale/data/";

std::string Mp3WithApic(const std::string& picture) {
    return Id3Tag(3, V23Frame("TIT2", std::string("\0Song", 5)) +
                         V23Frame("APIC", ApicBody("image/jpeg", picture))) +
           kAudio;
}

// An 8 x 4 BMP cover, red on the left half, green on the right.
std::string WmaWithHalves() {
    const std::string bmp =
        Bmp(8, 4, [](int x, int) -> uint32_t { return x < 4 ? 0xFF0000u : 0x00FF00u; });
    return AsfHeader({ExtContentDescription(
               {Descriptor("WM/Picture", 1, WmPictureValue(bmp, "image/bmp"))})}) +
           AsfObject(DataGuid(), kAudio);
}

// Through the C interface (a local song is kind 1 on the multi variant, one on a serial device
// kind 14 on the single variant): centre-cropped from the raster that covers the box (0 x 0:
// uncropped), through a temporary file named after the process id (padded to five digits on the
// ID3 path only) and removed. A cover of 524287 bytes is the largest taken; songs without a
// usable cover fail once and leave no file (a capitalised WMA extension is looked at as an MP3).
TEST(MusicGetterTest, CoversAreDecodedAndCentreCroppedOrFailOnce) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    ASSERT_EQ(thumbnail_init(), 0);
    std::string limit = qrbtest::QuadrantJpeg(64, 32);
    limit.resize(CQRBID3ThumbnailGetter::kMaxCoverLength, '\0');  // bytes after the end marker
    ASSERT_EQ(limit.size(), 524287u);
    std::string cut = Mp3WithApic(qrbtest::QuadrantJpeg(200, 100));
    cut.resize(300);  // the tag and its picture frame claim far more
    const struct {
        const char* name;
        std::string bytes;
        qrb_extend_dev_type dev;
        int w, h, outW, outH;  // outW 0: fails
        const char* quadrants;
    } cases[] = {
        {"song.mp3", Mp3WithApic(qrbtest::QuadrantJpeg(200, 100)), DEV_TYPE_LOCAL, 50, 50, 50, 50, "RGWB"},
        {"own.mp3", Mp3WithApic(qrbtest::QuadrantJpeg(200, 100)), DEV_TYPE_SERIAL_FIRST, 0, 0, 200, 100, "RGWB"},
        {"song.wma", WmaWithHalves(), DEV_TYPE_LOCAL, 4, 4, 4, 4, "RGGR"},  // columns 2 to 5 of 8
        {"limit.mp3", Mp3WithApic(limit), DEV_TYPE_LOCAL, 16, 16, 16, 16, "RGWB"},
        {"over.mp3", Mp3WithApic(limit + '\0'), DEV_TYPE_LOCAL, 16, 16, 0, 0, ""},
        {"bad.mp3", Mp3WithApic("not a picture at all"), DEV_TYPE_LOCAL, 16, 16, 0, 0, ""},
        {"cut.mp3", cut, DEV_TYPE_LOCAL, 16, 16, 0, 0, ""},
        {"SONG.WMA", WmaWithHalves(), DEV_TYPE_LOCAL, 16, 16, 0, 0, ""},
    };
    for (const auto& c : cases) {
        const auto r = recorder.Request(root.WriteFile("music/" + std::string(c.name), c.bytes), MEDIA_TYPE_MUSIC,
                                        c.dev, c.w, c.h);
        EXPECT_EQ(r.status, c.outW ? 0 : -1) << c.name;
        if (c.outW == 0) continue;
        ASSERT_EQ(r.width, c.outW) << c.name;
        ASSERT_EQ(r.height, c.outH) << c.name;
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.outW, c.outH)), c.quadrants) << c.name;
    }
    thumbnail_finalize();
    EXPECT_TRUE(log.Contains("picture of 524288 bytes is over the limit of 524287"));
    EXPECT_EQ(log.Count("Writing the data to flash"), 5) << "the covers taken and the bad picture";
    for (const std::string& name : {CQRBID3ThumbnailGetter::m_ID3TempName(getpid(), 0),
                                    CQRBID3ThumbnailGetter::m_WMATempName(getpid(), 0)}) {
        EXPECT_TRUE(log.Contains("Writing the data to flash ,path is " + name.substr(0, name.size() - 9)));
    }
    EXPECT_EQ(root.CountEntries(kDataDir), 0);
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_ID3TempName(123, 7), root.Resolve(kDataDir) + "mus0012300007.jpg");
    EXPECT_EQ(CQRBID3ThumbnailGetter::m_WMATempName(123, 7), root.Resolve(kDataDir) + "mus12300007.jpg");
}

}  // namespace
