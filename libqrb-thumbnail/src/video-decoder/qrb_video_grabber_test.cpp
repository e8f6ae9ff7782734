// The frame grabber over the plug-ins this project builds, on videos the build made with
// ffmpeg (see testdata/make_video_fixtures.sh): through the C interface (media 0 on device 100
// is kind 2) and, where a rule is about sizes before the crop or about one grabber call, over
// a decoder directly. The fixtures fade in from black to white, so each frame's brightness
// tells the moment it was taken from.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_fake_control.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_service.h"
#include "qrb_thumbnail_single_imp.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <dlfcn.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;
using qrbtest::MeanOf;
using qrbtest::RecordedResult;
using qrbtest::VideoFixture;

constexpr auto kWait = 60s;
constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";

struct Clip {
    const char* name;
    int width;
    int height;
    double keySpacingMs;  // the encoder's key-frame distance
};

// The four codecs in four containers, and H.264 with B-frames in a transport stream.
const Clip kClips[] = {
    {"fade_h264_320x240_3s.mp4", 320, 240, 200},
    {"fade_hevc_320x240_3s.mkv", 320, 240, 200},
    {"fade_mpeg2_320x240_3s.ts", 320, 240, 200},
    {"fade_mpeg4_320x240_3s.avi", 320, 240, 200},
    {"fade_h264_640x360_3s_bframes.ts", 640, 360, 400},
};

// One frame as it reached the grabber's callback: the size before the crop, and the moment.
struct Grabbed {
    int width = 0;
    int height = 0;
    long long timestamp = 0;
};

// Frames before the crop: a callback that records and then hands on to the real one.
std::mutex g_grabbedMutex;
std::vector<Grabbed>* g_grabbed = nullptr;
bool RecordingCallback(_stRequestedItem request, unsigned char* argb, char* preset,
                       long long timestamp, int width, int height, void* user,
                       boost::intrusive_ptr<CQRBThumbnailItem> item) {
    {
        std::lock_guard<std::mutex> lock(g_grabbedMutex);
        if (g_grabbed != nullptr) g_grabbed->push_back({width, height, timestamp});
    }
    return CQRBThumbnailVideoDecoder::Video_Complete_Cb(request, argb, preset, timestamp, width,
                                                        height, user, item);
}

// Every image of a result checked against the fade: its brightness gives a moment that must be
// its own timestamp, near the position the grabber was sent to.
// A stream that states no duration is given its real one (durationMs); where two positions may
// share a key frame (key frames far apart), frames need not differ (distinct false).
void ExpectFramesFromPositions(const RecordedResult& r, const std::string& path, int frames,
                               double keySpacingMs, double durationMs = 0, bool distinct = true) {
    if (durationMs <= 0) durationMs = qrbtest::ReadMediaFacts(path).durationUs / 1000.0;
    ASSERT_EQ(r.count, frames);
    for (int i = 0; i < frames; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const double target = durationMs * (i + 1) / (frames + 1);
        const double stamp = static_cast<double>(r.timestamps[i]);
        // The frame is the first complete picture from the key frame at or before the target
        // (a transport stream's seek may land a little past it).
        EXPECT_GE(stamp, target - keySpacingMs - 60);
        EXPECT_LE(stamp, target + keySpacingMs + 60);
        const double seen = qrbtest::FadeMomentMs(
            MeanOf(r.buffers[i], r.width, 0, 0, r.width, r.height).Grey(), durationMs);
        EXPECT_NEAR(seen, stamp, 100.0) << "the picture is not the one of its timestamp";
        if (i > 0 && distinct) {
            EXPECT_GT(r.timestamps[i], r.timestamps[i - 1]);
        } else if (i > 0) {
            EXPECT_GE(r.timestamps[i], r.timestamps[i - 1]);
        }
        for (int j = 0; j < i && distinct; ++j) {
            EXPECT_NE(r.buffers[i], r.buffers[j]) << "same as frame " << j;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Through the C interface.

class VideoGrabberTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
        qrbtest::InstallMediaPlugins(root);
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override {
        thumbnail_finalize();
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }

    void RequestVideo(const std::string& url, int tag, unsigned char frames, int width,
                      int height) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, 0, width, height, 0,
                                frames, &CallbackRecorder::Callback, rec.Tag(tag));
    }
    // The results by tag, once n have arrived.
    std::map<void*, RecordedResult> WaitForResults(size_t n) {
        EXPECT_TRUE(rec.WaitForCount(n, kWait)) << "only " << rec.Count() << " of " << n;
        std::map<void*, RecordedResult> byTag;
        for (const RecordedResult& r : rec.Results()) byTag[r.user_data] = r;
        return byTag;
    }

    qrbtest::ScratchRoot root;  // before thumbnail_init, so every fixed path lands in it
    qrbtest::LogCapture log;
    CallbackRecorder rec;
};

TEST_F(VideoGrabberTest, FiveFramesComeFromEvenlySpacedPositionsInEveryCodecAndContainer) {
    EXPECT_EQ(log.Count("initialize ffmpeg api success."), 0) << "bound before the first video";
    const int n = static_cast<int>(std::size(kClips));
    for (int i = 0; i < n; ++i) {
        RequestVideo(VideoFixture(kClips[i].name), i, 5, kClips[i].width / 2, kClips[i].height / 2);
    }
    auto results = WaitForResults(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        SCOPED_TRACE(kClips[i].name);
        const RecordedResult& r = results[rec.Tag(i)];
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.width, kClips[i].width / 2);
        EXPECT_EQ(r.height, kClips[i].height / 2);
        EXPECT_EQ(r.depth, 4);
        for (int f = 0; f < 5; ++f) {
            EXPECT_EQ(r.sizes[f], kClips[i].width / 2 * kClips[i].height / 2 * 4);
        }
        ExpectFramesFromPositions(r, VideoFixture(kClips[i].name), 5, kClips[i].keySpacingMs);
    }
    // Each worker binds the plug-ins when it takes its first video.
    EXPECT_GE(log.Count("initialize ffmpeg api success."), 1);
    EXPECT_LE(log.Count("initialize ffmpeg api success."), CQRBThumbnailSingleImp::kWorkers);
    EXPECT_EQ(root.CountEntries(kVideoDir), 0) << "no media id, so no MTA file";
    EXPECT_FALSE(log.Contains("Decode Falied"));
}

TEST_F(VideoGrabberTest, OneFrameIsTakenFromTheMiddle) {
    RequestVideo(VideoFixture("fade_hevc_320x240_3s.mkv"), 0, 1, 80, 60);
    RequestVideo(VideoFixture("fade_mpeg2_320x240_3s.ts"), 1, 3, 80, 60);
    auto results = WaitForResults(2);
    const RecordedResult& one = results[rec.Tag(0)];
    ASSERT_EQ(one.status, 0);
    ASSERT_EQ(one.count, 1);
    EXPECT_EQ(one.width, 80);
    EXPECT_EQ(one.height, 60);
    ExpectFramesFromPositions(one, VideoFixture("fade_hevc_320x240_3s.mkv"), 1, 200);
    const RecordedResult& three = results[rec.Tag(1)];
    ASSERT_EQ(three.status, 0);
    ExpectFramesFromPositions(three, VideoFixture("fade_mpeg2_320x240_3s.ts"), 3, 200);
}

TEST_F(VideoGrabberTest, FrameCoversTheRequestedBoxAndItsCentreIsKept) {
    // 1920 x 1080 with a red bar over its left 192 columns.
    const std::string clip = VideoFixture("bar_h264_1920x1080_2s.mp4");
    RequestVideo(clip, 0, 1, 320, 180);  // the same shape: all of the picture, bar included
    RequestVideo(clip, 1, 1, 180, 180);  // square: 320 x 180 cut to its middle 180 columns
    RequestVideo(clip, 2, 1, 200, 100);  // wider: 200 x 112 cut to rows 6 to 105
    auto results = WaitForResults(3);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(results[rec.Tag(i)].status, 0) << i;

    const RecordedResult& same = results[rec.Tag(0)];
    ASSERT_EQ(same.width, 320);
    ASSERT_EQ(same.height, 180);
    const auto bar = MeanOf(same.buffers[0], 320, 2, 0, 28, 180);
    EXPECT_GT(bar.r, 200);
    EXPECT_LT(bar.g, 60);
    EXPECT_LT(bar.b, 60);
    const auto rest = MeanOf(same.buffers[0], 320, 40, 0, 320, 180);
    EXPECT_NEAR(rest.r, rest.b, 8) << "grey right of the bar";

    const RecordedResult& square = results[rec.Tag(1)];
    ASSERT_EQ(square.width, 180);
    ASSERT_EQ(square.height, 180);
    const auto left = MeanOf(square.buffers[0], 180, 0, 0, 4, 180);
    EXPECT_NEAR(left.r, left.b, 8) << "the bar lies in the columns cut away";

    const RecordedResult& wide = results[rec.Tag(2)];
    ASSERT_EQ(wide.width, 200);
    ASSERT_EQ(wide.height, 100);
    const auto wideBar = MeanOf(wide.buffers[0], 200, 1, 0, 17, 100);
    EXPECT_GT(wideBar.r, 200);
    EXPECT_LT(wideBar.b, 60);
}

TEST_F(VideoGrabberTest, ZeroSizeKeepsThePictureSize) {
    RequestVideo(VideoFixture("fade_mpeg4_320x240_3s.avi"), 0, 2, 0, 0);
    auto results = WaitForResults(1);
    const RecordedResult& r = results[rec.Tag(0)];
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.width, 320);
    EXPECT_EQ(r.height, 240);
    EXPECT_EQ(r.sizes[0], 320 * 240 * 4);
}

TEST_F(VideoGrabberTest, FourKVideosDecodeKeyFramesOnly) {
    const std::string fourK = VideoFixture("fade_h264_3840x2160_2s.mkv");
    const std::string nearly = VideoFixture("fade_h264_3840x2000_2s.mkv");
    RequestVideo(fourK, 0, 5, 192, 108);
    auto results = WaitForResults(1);
    const RecordedResult& r = results[rec.Tag(0)];
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.count, 5);
    EXPECT_EQ(r.width, 192);
    EXPECT_EQ(r.height, 108);
    EXPECT_TRUE(log.Contains("width [3840], height[2160]"));
    EXPECT_EQ(log.Count("4K video: only key frames are decoded"), 1);
    // Each frame is the key frame at or before its position, exactly.
    const qrbtest::MediaFacts facts = qrbtest::ReadMediaFacts(fourK);
    const double durationMs = facts.durationUs / 1000.0;
    for (int i = 0; i < 5; ++i) {
        const double target = durationMs * (i + 1) / 6;
        double key = 0;
        for (double k : facts.keyTimesMs) {
            if (k <= target) key = k;
        }
        EXPECT_NEAR(static_cast<double>(r.timestamps[i]), key, 1.0) << i;
    }

    log.Clear();
    RequestVideo(nearly, 1, 5, 192, 100);
    results = WaitForResults(2);
    ASSERT_EQ(results[rec.Tag(1)].status, 0);
    EXPECT_EQ(results[rec.Tag(1)].count, 5);
    EXPECT_TRUE(log.Contains("width [3840], height[2000]"));
    EXPECT_FALSE(log.Contains("4K video")) << "3840 x 2000 is not 4K";
}

TEST_F(VideoGrabberTest, FrameCountZeroSucceedsWithoutAFrame) {
    RequestVideo(VideoFixture("fade_h264_320x240_3s.mp4"), 0, 0, 160, 120);
    auto results = WaitForResults(1);
    const RecordedResult& r = results[rec.Tag(0)];
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 0);
    EXPECT_TRUE(log.Contains("decode begin"));
    EXPECT_TRUE(log.Contains("release ffmpeg resource end"));
    EXPECT_FALSE(log.Contains("get frame["));
}

// The frames are kept as they were shown: a phone video turned upright by its display matrix is
// read back from the MTA file upright, exactly as decoded.
TEST_F(VideoGrabberTest, FiveFramesAreKeptInAnMtaFileAndServedFromItNextTime) {
    const std::string turned = root.Path() + "/turned.mp4";
    qrbtest::WriteWithDisplayMatrix(VideoFixture("quadrants_h264_320x240.mp4"), turned, 0, -1, 1,
                                    0);
    struct Case {
        std::string id, path;
        int width, height;
    };
    const Case cases[] = {{"clip7", VideoFixture("fade_mpeg2_320x240_3s.ts"), 96, 72},
                          {"phone", turned, 72, 96}};
    int tag = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        const std::string url = c.id + ";" + c.path;
        log.Clear();
        RequestVideo(url, tag, 5, c.width, c.height);
        auto first = WaitForResults(static_cast<size_t>(tag + 1))[rec.Tag(tag)];
        ++tag;
        ASSERT_EQ(first.status, 0);
        ASSERT_EQ(first.count, 5);
        EXPECT_TRUE(log.Contains("WriteVideoMtaFile success."));
        const std::string mta = root.Resolve(kVideoDir) + c.id + ".mta";
        ASSERT_TRUE(fs::exists(mta));
        // Header, five frames of marker, timestamp and pixels, trailer.
        EXPECT_EQ(fs::file_size(mta), 32u + 5u * (2 + 4 + c.width * c.height * 4) + 2u);

        log.Clear();
        RequestVideo(url, tag, 5, c.width, c.height);
        auto second = WaitForResults(static_cast<size_t>(tag + 1))[rec.Tag(tag)];
        ++tag;
        ASSERT_EQ(second.status, 0);
        EXPECT_TRUE(log.Contains("parse mta success"));
        EXPECT_FALSE(log.Contains("need Extract..."));
        EXPECT_FALSE(log.Contains("decode begin"));
        ASSERT_EQ(second.count, 5);
        EXPECT_EQ(second.width, c.width);
        EXPECT_EQ(second.height, c.height);
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(second.buffers[i], first.buffers[i]) << i;
            EXPECT_EQ(second.timestamps[i], first.timestamps[i]) << i;
        }
    }
    // The phone's frames are upright: turned a quarter anticlockwise, green is top left.
    const RecordedResult phone = rec.Results().back();
    const auto topLeft = MeanOf(phone.buffers[0], 72, 4, 4, 30, 40);
    EXPECT_GT(topLeft.g, 200);
    EXPECT_LT(topLeft.r, 60);
}

TEST_F(VideoGrabberTest, ProtectedVideoIsRefusedAndDrmFailuresCountAsUnprotected) {
    const std::string clip = VideoFixture("fade_h264_320x240_3s.mp4");
    qrbfake::DrmMarkProtected(clip);
    RequestVideo(clip, 0, 1, 80, 60);
    auto results = WaitForResults(1);
    EXPECT_EQ(results[rec.Tag(0)].status, -1);
    EXPECT_TRUE(log.Contains("it is drm file"));
    EXPECT_FALSE(log.Contains("decode begin")) << "a protected file is not decoded";

    // The same file, once the DRM library cannot say: decoded.
    qrbfake::DrmSetMode(qrbfake::DrmMode::kManagerError);
    RequestVideo(clip, 1, 1, 80, 60);
    results = WaitForResults(2);
    EXPECT_EQ(results[rec.Tag(1)].status, 0);
    EXPECT_TRUE(log.Contains("can not get drm manager"));

    qrbfake::DrmSetMode(qrbfake::DrmMode::kNullManager);
    RequestVideo(clip, 2, 1, 80, 60);
    results = WaitForResults(3);
    EXPECT_EQ(results[rec.Tag(2)].status, 0);
    EXPECT_EQ(results[rec.Tag(2)].count, 1);
    EXPECT_TRUE(log.Contains("get drm manager return no error, but is null!!"));
}

// Files that are not videos to grab from, and videos that give no picture: each is answered,
// and soon. A file that cannot be opened fails; one that opens, is tried at every position
// (fall-backs included) and gives no frame succeeds without images; a container that says it
// lasts nothing still gives its frames, all from the start, and a bare stream with no length
// gives its frames spread over the length its size suggests.
TEST_F(VideoGrabberTest, BrokenAndForeignInputsAreAnsweredWithinSeconds) {
    const std::string media = root.Path() + "/media/";
    fs::create_directories(media);
    const std::string good = VideoFixture("fade_h264_320x240_3s.mp4");
    const std::string goodBytes = qrbtest::ReadWholeFile(good);
    fs::copy_file(good, media + "clip.mp4");

    struct Input {
        std::string path;
        int status;
        int count;
    };
    std::vector<Input> inputs;
    // Cut before its index (the index of an ffmpeg MP4 is at the end).
    inputs.push_back({media + "truncated.mp4", -1, 0});
    qrbtest::WriteWholeFile(inputs.back().path, goodBytes.substr(0, goodBytes.size() * 2 / 5));
    // Well-formed containers whose pictures are all zero bytes: no picture ever comes out. In
    // Matroska the demuxer's parser finds no key frame among them, so nothing is decoded; NUT
    // keeps the key frame's flag, so each position decodes until its attempts run out.
    const std::string oneKey = VideoFixture("fade_h264_64x64_10s_one_key.mkv");
    inputs.push_back({media + "blank-pictures.mkv", 0, 0});
    qrbtest::WriteBlankedVideoCopy(oneKey, inputs.back().path);
    inputs.push_back({media + "blank-pictures.nut", 0, 0});
    qrbtest::WriteBlankedVideoCopy(oneKey, inputs.back().path);
    // No container, so no duration and no timestamps: sought by bytes, its length estimated.
    inputs.push_back({VideoFixture("fade_h264_320x240_3s.h264"), 0, 5});
    // A header saying the video lasts nothing: every position is the start.
    const std::string zero = media + "zero-duration.mp4";
    inputs.push_back({zero, 0, 5});
    qrbtest::WriteWholeFile(zero, qrbtest::ZeroMp4Durations(goodBytes));
    // Sound only, text, a pipe and a device.
    inputs.push_back({VideoFixture("tone_aac_2s.m4a"), -1, 0});
    inputs.push_back({media + "notes.mp4", -1, 0});
    qrbtest::WriteWholeFile(inputs.back().path, "these are words, not pictures\n");
    inputs.push_back({media + "pipe.ts", -1, 0});
    ASSERT_EQ(mkfifo(inputs.back().path.c_str(), 0600), 0);
    inputs.push_back({"/dev/zero", -1, 0});
    // Playlists whose entries are a good local video: following them would succeed.
    inputs.push_back({media + "list.m3u8", -1, 0});
    qrbtest::WriteWholeFile(inputs.back().path,
                            "#EXTM3U\n#EXT-X-TARGETDURATION:3\n#EXTINF:3.0,\nclip.mp4\n"
                            "#EXT-X-ENDLIST\n");
    inputs.push_back({media + "list.ffconcat", -1, 0});
    qrbtest::WriteWholeFile(inputs.back().path, "ffconcat version 1.0\nfile clip.mp4\n");
    inputs.push_back({media + "list.mp4", -1, 0});  // the same text under a video's name
    qrbtest::WriteWholeFile(inputs.back().path, "ffconcat version 1.0\nfile clip.mp4\n");
    // A picture wider than the limit (8192), as raw frames: refused before any decoding.
    inputs.push_back({media + "wide.y4m", -1, 0});
    qrbtest::WriteWholeFile(inputs.back().path,
                            "YUV4MPEG2 W8200 H16 F5:1 Ip A1:1 C420jpeg\nFRAME\n" +
                                std::string(8200 * 16 * 3 / 2, '\x80'));

    const int fds = qrbtest::OpenFileDescriptors();
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < inputs.size(); ++i) {
        RequestVideo(inputs[i].path, static_cast<int>(i), 5, 80, 60);
    }
    auto results = WaitForResults(inputs.size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    for (size_t i = 0; i < inputs.size(); ++i) {
        const RecordedResult& r = results[rec.Tag(static_cast<int>(i))];
        EXPECT_EQ(r.status, inputs[i].status) << inputs[i].path;
        EXPECT_EQ(r.count, inputs[i].count) << inputs[i].path;
    }
    EXPECT_EQ(log.Count("ic_ptr pointer is NULL,file:"), 9);
    EXPECT_FALSE(log.Contains("duration [-1] error")) << "the plug-in measures what is unknown";
    EXPECT_FALSE(log.Contains("duration [0] error"));
    // The blank pictures: in NUT every position gives up after its 201 attempts; each blank
    // file is answered without a frame, and the log says so.
    EXPECT_EQ(log.Count("Decode Falied: len < 0") + log.Count("decode not finished."), 5 * 201);
    EXPECT_TRUE(log.Contains("no frame could be grabbed from " + inputs[1].path));
    EXPECT_TRUE(log.Contains("no frame could be grabbed from " + inputs[2].path));
    EXPECT_EQ(log.Count("no frame could be grabbed from "), 2);
    // The zero-length file's frames all come from the start, the black of the fade.
    const RecordedResult& fromStart = results[rec.Tag(4)];
    const long long firstKeyMs =
        static_cast<long long>(qrbtest::ReadMediaFacts(good).keyTimesMs.front());
    for (int f = 0; f < fromStart.count; ++f) {
        EXPECT_EQ(fromStart.timestamps[f], firstKeyMs) << f;
        EXPECT_LT(MeanOf(fromStart.buffers[f], 80, 0, 0, 80, 60).Grey(), 16) << f;
    }
    EXPECT_EQ(root.CountEntries(kVideoDir), 0) << "no media id, so no MTA file";
    EXPECT_EQ(qrbtest::OpenFileDescriptors(), fds) << "a file was left open";
}

// ---------------------------------------------------------------------------------------------
// Frames as a player shows them: colours, HDR, geometry, and a picture at every position. Each
// table is one test per row, through the C interface, on files the build made with ffmpeg.

class VideoShownTest : public VideoGrabberTest {
protected:
    // The one result of a request for frames of path at width x height.
    RecordedResult Grab(const std::string& path, int frames, int width, int height) {
        RequestVideo(path, 0, static_cast<unsigned char>(frames), width, height);
        return WaitForResults(1)[rec.Tag(0)];
    }
};

struct Rgb {
    int r, g, b;
};

void ExpectColourNear(const qrbtest::MeanColour& seen, Rgb want, double tolerance) {
    EXPECT_NEAR(seen.r, want.r, tolerance);
    EXPECT_NEAR(seen.g, want.g, tolerance);
    EXPECT_NEAR(seen.b, want.b, tolerance);
}

// Matrix and range. Three patches (red, green, blue of middling strength) side by side, coded
// with a matrix and range and tagged so, at a size whose usual matrix is the other one (a BT.601
// file at 1280 x 720, a BT.709 one at 640 x 360), or untagged at a size whose usual matrix they
// were coded with. Decoded with the wrong matrix, the green patch is 10 to 20 off in red.
struct ColourCase {
    const char* file;
    int width;  // three patches of a third each
    int height;
};

void PrintTo(const ColourCase& c, std::ostream* os) { *os << c.file; }

class VideoColourTest : public VideoShownTest, public ::testing::WithParamInterface<ColourCase> {};

TEST_P(VideoColourTest, PatchesComeBackInTheColoursTheyWereMadeIn) {
    const ColourCase& c = GetParam();
    const RecordedResult r = Grab(VideoFixture(c.file), 1, 0, 0);
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.count, 1);
    ASSERT_EQ(r.width, c.width);
    ASSERT_EQ(r.height, c.height);
    const Rgb patches[3] = {{200, 40, 80}, {30, 190, 61}, {60, 80, 220}};
    const int third = c.width / 3;
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE("patch " + std::to_string(k));
        const int x = third * k + third / 2;
        ExpectColourNear(MeanOf(r.buffers[0], r.width, x - 8, c.height / 2 - 8, x + 8,
                                c.height / 2 + 8),
                         patches[k], 5.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    MatrixAndRange, VideoColourTest,
    ::testing::Values(ColourCase{"patches_bt601_tv_1280x720.mp4", 1284, 720},
                      ColourCase{"patches_bt601_pc_1280x720.mp4", 1284, 720},
                      ColourCase{"patches_bt709_tv_640x360.mp4", 642, 360},
                      ColourCase{"patches_bt709_pc_640x360.mp4", 642, 360},
                      ColourCase{"patches_bt2020_tv_640x360.mkv", 642, 360},
                      ColourCase{"patches_bt2020_pc_640x360.mkv", 642, 360},
                      ColourCase{"patches_untagged_640x360.mp4", 642, 360},
                      ColourCase{"patches_untagged_1280x720.mp4", 1284, 720}),
    [](const ::testing::TestParamInfo<ColourCase>& info) {
        std::string name = info.param.file;
        name = name.substr(0, name.find('.'));
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

// HDR to SDR. SMPTE bars made into PQ and HLG pictures with SDR white at HDR reference white
// come back close to the SDR bars they were made from; shown without tone mapping, their white
// would be some 60 levels darker (PQ) or their colours washed out.
class VideoHdrTest : public VideoShownTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(VideoHdrTest, BarsAtReferenceWhiteComeBackAsTheSdrBars) {
    const RecordedResult r = Grab(VideoFixture(GetParam()), 1, 0, 0);
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.count, 1);
    ASSERT_EQ(r.width, 320);
    ASSERT_EQ(r.height, 180);
    const std::string sdr = qrbtest::ReadWholeFile(VideoFixture("bars_sdr_320x180.rgb"));
    ASSERT_EQ(sdr.size(), 320u * 180 * 3);
    auto want = [&](int x, int y) {
        const size_t at = (static_cast<size_t>(y) * 320 + x) * 3;
        return Rgb{static_cast<unsigned char>(sdr[at]), static_cast<unsigned char>(sdr[at + 1]),
                   static_cast<unsigned char>(sdr[at + 2])};
    };
    // The seven bars of the top two thirds, each at its centre.
    double total = 0;
    for (int k = 0; k < 7; ++k) {
        SCOPED_TRACE("bar " + std::to_string(k));
        const int x = (2 * k + 1) * 320 / 14;
        const qrbtest::MeanColour seen = MeanOf(r.buffers[0], 320, x - 4, 40, x + 4, 80);
        const Rgb w = want(x, 60);
        // The 75 % white bar is kept as it was; colours within what 10-bit PQ and HLG keep.
        ExpectColourNear(seen, w, k == 0 ? 6.0 : 24.0);
        total += std::abs(seen.r - w.r) + std::abs(seen.g - w.g) + std::abs(seen.b - w.b);
    }
    EXPECT_LT(total / 21, 10.0) << "mean difference over the bars";
}

INSTANTIATE_TEST_SUITE_P(PqAndHlg, VideoHdrTest,
                         ::testing::Values("bars_pq_320x180.mkv", "bars_hlg_320x180.mkv",
                                           "bars_pq_mastered_320x180.mkv"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             return name.substr(0, name.find('.'));
                         });

// Dolby Vision profile 8 (here 8.1 and 8.4): the base layer is HDR10 or HLG, and is what is
// shown, exactly as the same stream without the Dolby Vision record.
TEST_F(VideoShownTest, DolbyVisionProfileEightShowsItsBaseLayer) {
    const struct {
        const char* base;
        int compatibility;
    } cases[] = {{"bars_pq_320x180.mkv", 1}, {"bars_hlg_320x180.mkv", 4}};
    int tag = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.base);
        const std::string dovi = root.Path() + "/dovi-" + std::to_string(tag) + ".mp4";
        qrbtest::WriteWithDolbyVision(VideoFixture(c.base), dovi, 8, c.compatibility);
        ASSERT_EQ(qrbtest::DolbyVisionProfile(dovi), 8);
        RequestVideo(VideoFixture(c.base), tag, 1, 0, 0);
        RequestVideo(dovi, tag + 1, 1, 0, 0);
        auto results = WaitForResults(static_cast<size_t>(tag + 2));
        const RecordedResult& base = results[rec.Tag(tag)];
        const RecordedResult& dv = results[rec.Tag(tag + 1)];
        tag += 2;
        ASSERT_EQ(base.status, 0);
        ASSERT_EQ(dv.status, 0);
        ASSERT_EQ(dv.count, 1);
        EXPECT_EQ(dv.buffers[0], base.buffers[0]);
        // Tone-mapped, not shown flat: the 75 % white bar is as the SDR bars have it.
        EXPECT_NEAR(MeanOf(dv.buffers[0], 320, 18, 40, 26, 80).Grey(), 191, 6);
    }
}

// The display matrix. Quadrants red, green / blue, white, shown as the matrix (a, b; c, d) turns
// or mirrors them: a point (x, y) is shown at (a x + c y, b x + d y), y downwards.
struct TurnCase {
    const char* name;
    int a, b, c, d;
    Rgb topLeft, topRight, bottomLeft, bottomRight;
};
const Rgb kRed{255, 0, 0}, kGreen{0, 255, 0}, kBlue{0, 0, 255}, kWhite{255, 255, 255};

void PrintTo(const TurnCase& t, std::ostream* os) {
    *os << t.name << " (" << t.a << ", " << t.b << "; " << t.c << ", " << t.d << ")";
}

class VideoTurnTest : public VideoShownTest, public ::testing::WithParamInterface<TurnCase> {};

TEST_P(VideoTurnTest, PictureIsShownTheWayItsDisplayMatrixTurnsIt) {
    const TurnCase& t = GetParam();
    const std::string path = root.Path() + "/turned.mp4";
    qrbtest::WriteWithDisplayMatrix(VideoFixture("quadrants_h264_320x240.mp4"), path, t.a, t.b,
                                    t.c, t.d);
    const RecordedResult r = Grab(path, 1, 0, 0);
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.count, 1);
    const bool quarter = t.a == 0;
    ASSERT_EQ(r.width, quarter ? 240 : 320);
    ASSERT_EQ(r.height, quarter ? 320 : 240);
    const int w = r.width;
    const int h = r.height;
    ExpectColourNear(MeanOf(r.buffers[0], w, 10, 10, 30, 30), t.topLeft, 12);
    ExpectColourNear(MeanOf(r.buffers[0], w, w - 30, 10, w - 10, 30), t.topRight, 12);
    ExpectColourNear(MeanOf(r.buffers[0], w, 10, h - 30, 30, h - 10), t.bottomLeft, 12);
    ExpectColourNear(MeanOf(r.buffers[0], w, w - 30, h - 30, w - 10, h - 10), t.bottomRight, 12);
}

INSTANTIATE_TEST_SUITE_P(
    TurnsAndMirrors, VideoTurnTest,
    ::testing::Values(TurnCase{"QuarterClockwise", 0, 1, -1, 0, kBlue, kRed, kWhite, kGreen},
                      TurnCase{"QuarterAnticlockwise", 0, -1, 1, 0, kGreen, kWhite, kRed, kBlue},
                      TurnCase{"HalfTurn", -1, 0, 0, -1, kWhite, kBlue, kGreen, kRed},
                      TurnCase{"MirroredLeftRight", -1, 0, 0, 1, kGreen, kRed, kWhite, kBlue},
                      TurnCase{"MirroredTopBottom", 1, 0, 0, -1, kBlue, kWhite, kRed, kGreen},
                      TurnCase{"Transposed", 0, 1, 1, 0, kRed, kBlue, kGreen, kWhite},
                      TurnCase{"Transversed", 0, -1, -1, 0, kWhite, kGreen, kBlue, kRed}),
    [](const ::testing::TestParamInfo<TurnCase>& info) { return info.param.name; });

// The sample aspect ratio. PAL pictures (720 x 576) shown 16:9 and 4:3, each with a square in
// the middle as shown: at its own size the frame is shown wide, and the square is square.
struct AspectCase {
    const char* file;
    int shownWidth;
};

void PrintTo(const AspectCase& c, std::ostream* os) { *os << c.file; }

class VideoAspectTest : public VideoShownTest, public ::testing::WithParamInterface<AspectCase> {};

// The length of the white run through (x, y) along one axis.
int WhiteRun(const std::string& bgra, int width, int x, int y, bool across, int limit) {
    auto white = [&](int px, int py) {
        return static_cast<unsigned char>(bgra[(static_cast<size_t>(py) * width + px) * 4 + 1]) >
               128;
    };
    int run = 0;
    for (int k = 0; k < limit; ++k) {
        if (across ? white(k, y) : white(x, k)) ++run;
    }
    return run;
}

TEST_P(VideoAspectTest, StoredPixelsAreShownInTheirShape) {
    const AspectCase& c = GetParam();
    const RecordedResult whole = Grab(VideoFixture(c.file), 1, 0, 0);
    ASSERT_EQ(whole.status, 0);
    ASSERT_EQ(whole.count, 1);
    EXPECT_EQ(whole.width, c.shownWidth);
    EXPECT_EQ(whole.height, 576);
    const int across = WhiteRun(whole.buffers[0], whole.width, 0, 288, true, whole.width);
    const int down = WhiteRun(whole.buffers[0], whole.width, whole.width / 2, 0, false, 576);
    EXPECT_NEAR(across, 100, 4);
    EXPECT_NEAR(down, 100, 4);
}

INSTANTIATE_TEST_SUITE_P(Anamorphic, VideoAspectTest,
                         ::testing::Values(AspectCase{"square_h264_720x576_sar64x45.mp4", 1024},
                                           AspectCase{"square_mpeg2_720x576_sar16x15.ts", 768}),
                         [](const ::testing::TestParamInfo<AspectCase>& info) {
                             return std::string(info.param.file).substr(0, 12) + "_" +
                                    std::to_string(info.param.shownWidth);
                         });

// Interlaced broadcast. A bar crossing the picture moves 16 pixels between its two fields: woven
// together, every other row is out of step (comb lines); deinterlaced, no row is.
class VideoInterlaceTest : public VideoShownTest,
                           public ::testing::WithParamInterface<const char*> {};

// Mean of |2 row[y] - row[y - 1] - row[y + 1]| over the odd rows, on green: 0 for a picture
// without combs, about 20 for this bar woven from its two fields.
double CombEnergy(const std::string& bgra, int width, int height) {
    auto at = [&](int x, int y) {
        return static_cast<int>(static_cast<unsigned char>(
            bgra[(static_cast<size_t>(y) * width + x) * 4 + 1]));
    };
    double total = 0;
    long count = 0;
    for (int y = 1; y + 1 < height; y += 2) {
        for (int x = 0; x < width; ++x, ++count) {
            total += std::abs(2 * at(x, y) - at(x, y - 1) - at(x, y + 1));
        }
    }
    return count > 0 ? total / count : 0;
}

TEST_P(VideoInterlaceTest, FieldsAreMadeIntoOneProgressivePicture) {
    const RecordedResult r = Grab(VideoFixture(GetParam()), 3, 0, 0);
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.count, 3);
    ASSERT_EQ(r.width, 720);
    ASSERT_EQ(r.height, 576);
    for (int i = 0; i < r.count; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        EXPECT_GT(WhiteRun(r.buffers[i], 720, 0, 288, true, 720), 30) << "the bar is shown";
        EXPECT_LT(CombEnergy(r.buffers[i], 720, 576), 2.0);
    }
}

INSTANTIATE_TEST_SUITE_P(Broadcast, VideoInterlaceTest,
                         ::testing::Values("moving_bar_h264_720x576i.ts",
                                           "moving_bar_mpeg2_720x576i.ts"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param).substr(11, 5);
                         });

// A picture at every position. Streams whose key frame at or before a position cannot be reached
// or decoded there, and streams that state no duration, still give all five frames, each the
// picture of its moment (the fade tells) near its position.
struct NeverEmptyCase {
    const char* file;
    double keySpacingMs;
    double durationMs;  // the real one, for a stream that does not state it
    bool distinct;      // false where two positions may share a far key frame
};

void PrintTo(const NeverEmptyCase& c, std::ostream* os) { *os << c.file; }

class VideoNeverEmptyTest : public VideoShownTest,
                            public ::testing::WithParamInterface<NeverEmptyCase> {};

TEST_P(VideoNeverEmptyTest, EveryPositionGivesThePictureOfItsMoment) {
    const NeverEmptyCase& c = GetParam();
    const RecordedResult r = Grab(VideoFixture(c.file), 5, 64, 48);
    ASSERT_EQ(r.status, 0);
    ExpectFramesFromPositions(r, VideoFixture(c.file), 5, c.keySpacingMs, c.durationMs,
                              c.distinct);
    EXPECT_FALSE(log.Contains("no frame could be grabbed"));
}

INSTANTIATE_TEST_SUITE_P(
    FallBacks, VideoNeverEmptyTest,
    ::testing::Values(NeverEmptyCase{"fade_h264_320x240_3s_one_key.ts", 40, 0, true},
                      NeverEmptyCase{"fade_hevc_320x240_6s_open_gop.ts", 2000, 0, false},
                      NeverEmptyCase{"fade_h264_320x240_3s_no_duration.mkv", 400, 3000, true},
                      NeverEmptyCase{"fade_h264_320x240_3s.h264", 200, 3000, true}),
    [](const ::testing::TestParamInfo<NeverEmptyCase>& info) {
        std::string name = std::string(info.param.file).substr(5);
        for (char& ch : name) {
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        }
        return name;
    });

// ---------------------------------------------------------------------------------------------
// Giving up while a video is decoding. The decoder plug-in is one with a gate in front of its
// read function: the gate holds the worker at the first packet read after a chosen message until
// the worker has been told to stop, so the stop always lands mid-decode.

struct ReadGate {
    const qrbtest::LogCapture* log = nullptr;
    std::string after;              // hold at the first read once this has been logged
    std::function<void()> onHold;   // called once, on the held thread, as the hold begins
    std::function<bool()> release;  // polled while holding
    std::mutex mutex;
    std::condition_variable cond;
    bool held = false;
};
ReadGate* g_readGate = nullptr;

void GateRead() {
    ReadGate* gate = g_readGate;
    if (gate == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(gate->mutex);
        if (gate->held || !gate->log->Contains(gate->after)) return;
        if (gate->onHold) gate->onHold();
        gate->held = true;
        gate->cond.notify_all();
    }
    // Bounded: a worker never told to stop goes on after a while, and the test then fails on
    // what it does next.
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (!gate->release() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(1ms);
    }
}

class VideoGrabberStopTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        const fs::path dir = root.Resolve("/usr/lib/gstreamer-1.0/");
        fs::create_directories(dir);
        fs::copy_file(QRB_MEDIA_PLUGIN_GATED_DECODER, dir / "libgstffmpeg.so");
        fs::copy_file(QRB_MEDIA_PLUGIN_SCALER, dir / "libgstffmpegscale.so");
        fs::create_directories(root.Resolve(kVideoDir));
        gate.log = &log;
        g_readGate = &gate;
    }
    void TearDown() override {
        g_readGate = nullptr;
        g_QRBFFmpegApi = QRBFFmpegApi{};
    }
    // Binds the plug-ins (as a decoder's first video does) and closes the gate in them.
    void InstallGate() {
        qrb_init_ffmpeg_api(nullptr);
        ASSERT_NE(g_QRBFFmpegApi.decoder_library, nullptr);
        auto set = reinterpret_cast<void (*)(void (*)())>(
            dlsym(g_QRBFFmpegApi.decoder_library, "qrb_test_set_read_gate"));
        ASSERT_NE(set, nullptr);
        set(&GateRead);
    }
    bool WaitUntilHeld() {
        std::unique_lock<std::mutex> lock(gate.mutex);
        return gate.cond.wait_for(lock, 30s, [&] { return gate.held; });
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    ReadGate gate;
    CallbackRecorder rec;
};

TEST_F(VideoGrabberStopTest, FinalizeGivesUpTheVideoBeingDecoded) {
    ASSERT_EQ(thumbnail_init(), 0);
    InstallGate();
    auto* single = static_cast<CQRBThumbnailSingleImp*>(CQRBThumbnail::GetInstance()->Variant(0));
    ASSERT_NE(single, nullptr);
    std::vector<CQRBThumbnailVideoDecoder*> workers;
    for (int i = 0; i < CQRBThumbnailSingleImp::kWorkers; ++i) workers.push_back(single->Worker(i));
    // Finalize tells the workers to stop (and deletes them) one after the other; the one holding
    // the video (the gate runs on its thread) goes on once it has been told.
    CQRBThumbnailVideoDecoder* holder = nullptr;
    gate.after = "get frame[1]";
    gate.onHold = [&] {
        for (CQRBThumbnailVideoDecoder* w : workers) {
            if (w->Thread_id() == g_thread_self()) holder = w;
        }
    };
    gate.release = [&] { return holder != nullptr && holder->AbandonRequested(); };
    thumbnail_request_async(VideoFixture("fade_h264_320x240_3s.mp4").c_str(), MEDIA_TYPE_VIDEO,
                            DEV_TYPE_LOCAL, 0, 80, 60, 0, 5, &CallbackRecorder::Callback,
                            rec.Tag(0));
    ASSERT_TRUE(WaitUntilHeld());

    const auto start = std::chrono::steady_clock::now();
    thumbnail_finalize();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_EQ(log.Count("stop requested, frame grabbing abandoned at frame[1]"), 1);
    EXPECT_FALSE(log.Contains("get frame[2]")) << "the grabber went on after being told to stop";
    EXPECT_TRUE(log.Contains("release ffmpeg resource end"));
    EXPECT_LE(rec.Count(), 1u);
    for (const auto& r : rec.Results()) EXPECT_EQ(r.status, -1);
}

TEST_F(VideoGrabberStopTest, StopGivesUpTheVideoAndTheWorkerServesOn) {
    CQRBThumbRequestList list;
    CQRBThumbCache cache;
    ASSERT_TRUE(list.Create());
    ASSERT_TRUE(cache.Create());
    CQRBThumbnailVideoDecoder decoder;
    InstallGate();
    gate.after = "get frame[2]";
    gate.release = [&] { return decoder.AbandonRequested(); };
    _stRequestedItem request;
    request.strURL = "stopped;" + VideoFixture("fade_hevc_320x240_3s.mkv");
    request.eThumbnailType = THUMB_VIDEO;
    request.width = 80;
    request.height = 60;
    request.FrameCount = 5;
    request.callback = &CallbackRecorder::Callback;
    request.user_data = rec.Tag(0);
    list.Insert(request);
    ASSERT_TRUE(decoder.Create(0, &list, &cache));
    ASSERT_TRUE(WaitUntilHeld());

    const auto start = std::chrono::steady_clock::now();
    decoder.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    ASSERT_TRUE(rec.WaitForCount(1, kWait));
    EXPECT_EQ(rec.Results()[0].status, -1);
    EXPECT_EQ(log.Count("stop requested, frame grabbing abandoned at frame[2]"), 1);
    EXPECT_FALSE(log.Contains("get frame[3]"));
    // Two frames of five are no five-frame result: nothing is kept for a later request.
    EXPECT_FALSE(fs::exists(root.Resolve(kVideoDir) + "stopped.mta"));

    // Only that request was given up: the worker serves the next one in full.
    EXPECT_FALSE(decoder.AbandonRequested());
    request.user_data = rec.Tag(1);
    list.Insert(request);
    ASSERT_TRUE(rec.WaitForCount(2, kWait));
    EXPECT_EQ(rec.Results()[1].status, 0);
    EXPECT_EQ(rec.Results()[1].count, 5);
    EXPECT_TRUE(fs::exists(root.Resolve(kVideoDir) + "stopped.mta"));
    decoder.Destroy();
    list.Destroy();
    cache.Destroy();
}

// ---------------------------------------------------------------------------------------------
// One decoder, called directly.

class VideoGrabberDirectTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbtest::InstallMediaPlugins(root);
        decoder.reset(new CQRBThumbnailVideoDecoder);
        ASSERT_TRUE(decoder->MediaDecodingReady());
        std::lock_guard<std::mutex> lock(g_grabbedMutex);
        g_grabbed = &grabbed;
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(g_grabbedMutex);
            g_grabbed = nullptr;
        }
        decoder.reset();
        g_QRBFFmpegApi = QRBFFmpegApi{};
    }
    _stRequestedItem Request(const std::string& clip, int frames, int width, int height) {
        _stRequestedItem r;
        r.strURL = VideoFixture(clip);
        r.eThumbnailType = THUMB_VIDEO;
        r.FrameCount = static_cast<unsigned char>(frames);
        r.width = width;
        r.height = height;
        return r;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::unique_ptr<CQRBThumbnailVideoDecoder> decoder;
    std::vector<Grabbed> grabbed;
};

TEST_F(VideoGrabberDirectTest, OutputSizeCoversTheRequestBeforeTheCrop) {
    struct Case {
        int w, h, scaledW, scaledH;
    };
    // 1920 x 1080: wider asks scale to the width, taller ones to the height.
    const Case cases[] = {{200, 100, 200, 112}, {100, 200, 355, 200}, {320, 180, 320, 180},
                          {0, 0, 1920, 1080},   {0, 50, 1920, 1080},  {1, 1, 1, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        grabbed.clear();
        boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
        _stRequestedItem request = Request("bar_h264_1920x1080_2s.mp4", 1, c.w, c.h);
        ASSERT_TRUE(decoder->m_GetFrameFromArcplayer(request, item, &RecordingCallback, nullptr));
        ASSERT_EQ(grabbed.size(), 1u);
        EXPECT_EQ(grabbed[0].width, c.scaledW);
        EXPECT_EQ(grabbed[0].height, c.scaledH);
        ASSERT_EQ(item->GetImageCount(), 1);
        const bool cropped = c.w != 0 && c.h != 0;
        EXPECT_EQ(item->GetImages()[0]->GetWidth(), cropped ? c.w : c.scaledW);
        EXPECT_EQ(item->GetImages()[0]->GetHeight(), cropped ? c.h : c.scaledH);
    }
}

TEST_F(VideoGrabberDirectTest, DirectGrabberTakesTheSameFramesAsThePlugins) {
    const std::string clip = "fade_mpeg4_320x240_3s.avi";
    boost::intrusive_ptr<CQRBThumbnailItem> viaPlugins(new CQRBThumbnailItem);
    _stRequestedItem request = Request(clip, 3, 80, 60);
    ASSERT_TRUE(decoder->m_GetFrameFromArcplayer(
        request, viaPlugins, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, nullptr));
    ASSERT_EQ(viaPlugins->GetImageCount(), 3);

    // The direct grabber works without the plug-ins.
    g_QRBFFmpegApi = QRBFFmpegApi{};
    AVFormatContext* context = nullptr;
    ASSERT_TRUE(decoder->m_FFMpegInit(VideoFixture(clip).c_str(), &context));
    boost::intrusive_ptr<CQRBThumbnailItem> direct(new CQRBThumbnailItem);
    ASSERT_TRUE(decoder->m_GetFrame(context, 3, 80, 60,
                                    &CQRBThumbnailVideoDecoder::Video_Complete_Cb, request, direct,
                                    nullptr));
    ASSERT_NE(context, nullptr) << "the input stays with the caller";
    EXPECT_TRUE(decoder->m_FFMpegDeInit(&context));
    ASSERT_EQ(direct->GetImageCount(), 3);
    for (int i = 0; i < 3; ++i) {
        const auto& a = viaPlugins->GetImages()[i];
        const auto& b = direct->GetImages()[i];
        EXPECT_EQ(a->GetTimeStamp(), b->GetTimeStamp());
        ASSERT_EQ(b->GetWidth(), 80);
        ASSERT_EQ(b->GetHeight(), 60);
        EXPECT_EQ(std::memcmp(a->GetBuffer(), b->GetBuffer(), 80 * 60 * 4), 0) << i;
    }
}

TEST_F(VideoGrabberDirectTest, DirectGrabberRefusesAnInputWithoutVideo) {
    AVFormatContext* context = nullptr;
    ASSERT_TRUE(decoder->m_FFMpegInit(VideoFixture("tone_aac_2s.m4a").c_str(), &context));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem request = Request("tone_aac_2s.m4a", 1, 80, 60);
    EXPECT_FALSE(decoder->m_GetFrame(
        context, 1, 80, 60, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, request, item, nullptr));
    EXPECT_TRUE(log.Contains("failed to find av stream. maybe corrupted data."));
    EXPECT_TRUE(decoder->m_FFMpegDeInit(&context));
    EXPECT_EQ(item->GetImageCount(), 0);
}

TEST_F(VideoGrabberDirectTest, PictureAboveTheSizeLimitIsNotScaled) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    // 8193 wide covers a 1920 x 1080 frame only at 8193 x 4608: refused before allocating.
    _stRequestedItem request = Request("bar_h264_1920x1080_2s.mp4", 1, 8193, 10);
    EXPECT_FALSE(decoder->m_GetFrameFromArcplayer(request, item, &RecordingCallback, nullptr));
    EXPECT_TRUE(grabbed.empty());
    EXPECT_TRUE(log.Contains("numBytes["));
    EXPECT_TRUE(log.Contains("release ffmpeg resource end"));
}

}  // namespace
