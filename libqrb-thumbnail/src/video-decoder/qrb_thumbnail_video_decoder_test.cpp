// The video thumbnail decoder. Through the C interface (media 0 on device 100 is kind 2), with
// the plug-ins this project builds, on videos the build made with ffmpeg
// (testdata/make_video_fixtures.sh) and MTA files built byte by byte: the fade fixtures go from
// black to white, so each frame's brightness tells the moment it was taken from. Outside it, one
// decoder at a time: the binding of the media decoding table against real shared libraries, a
// worker stopped mid-decode, and the video MTA file against hostile files. The centre crop of
// each frame is tested with the image; the temporary file and rename under every MTA write, with
// common/util's tests.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_mta_bytes.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_fake_control.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::BuildMta;
using qrbtest::CallbackRecorder;
using qrbtest::IntactVideoMta;
using qrbtest::MeanOf;
using qrbtest::MtaPixels;
using qrbtest::RecordedResult;
using qrbtest::VideoFixture;

constexpr auto kWait = 60s;
constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";

// Each test starts and ends with an empty table: it is process-wide.
class VideoDecoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }
    void TearDown() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }

    qrbtest::ScratchRoot root;  // before thumbnail_init, so every fixed path lands in it
    qrbtest::LogCapture log;
};

// ---------------------------------------------------------------------------------------------
// The binding: the plug-ins this project builds, linked again with one export hidden. The
// complete plug-ins bind in every grabber test.

struct BindCase {
    const char* name;
    const char* decoder;  // the library installed under each plug-in's name (null: none)
    const char* scaler;
    bool ready;
    const char* logged;
    bool scalerLookedUp;  // the first scaler lookup was made
    bool lastLookedUp;    // the binding went on to the last lookup
};

class BindingTest : public VideoDecoderTest, public ::testing::WithParamInterface<BindCase> {};

// A decoder is built whatever the plug-ins; without a complete table every extraction fails its
// pointer check, before the file is touched. A missing seek-available passes the binding (the test
// after its lookup re-tests the seek pointer) and is caught by that check.
TEST_P(BindingTest, BindsWhatThePluginsHaveAndExtractsOnlyWithACompleteTable) {
    const BindCase& c = GetParam();
    qrbtest::InstallMediaPlugins(root, c.decoder, c.scaler);
    CQRBThumbnailVideoDecoder decoder;
    EXPECT_EQ(decoder.MediaDecodingReady(), c.ready);
    EXPECT_EQ(log.Count(c.logged), 1);
    EXPECT_EQ(g_QRBFFmpegApi.sws_get_context != nullptr, c.scalerLookedUp);
    EXPECT_EQ(g_QRBFFmpegApi.flush_buffers != nullptr, c.lastLookedUp);

    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem request;
    request.strURL = VideoFixture("fade_h264_320x240_3s.mp4");
    request.eThumbnailType = THUMB_VIDEO;
    request.FrameCount = 1;
    EXPECT_FALSE(
        decoder.Extract(request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, &decoder));
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 1);
    EXPECT_EQ(item->GetImageCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Plugins, BindingTest,
    ::testing::Values(BindCase{"Missing", nullptr, nullptr, false,
                               "dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed.", false,
                               false},
                      BindCase{"NoSeekAvailable", QRB_DECODER_WITHOUT_SEEK_AVAILABLE,
                               QRB_MEDIA_PLUGIN_SCALER, true, "initialize ffmpeg api success.", true, true},
                      BindCase{"NoScale", QRB_MEDIA_PLUGIN_DECODER, QRB_SCALER_WITHOUT_SCALE, false,
                               "get av sws scale func pointer failed", true, false}),
    [](const ::testing::TestParamInfo<BindCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// A worker over the test's own list and cache.

// Stop while a video is decoding: the decoder plug-in has a gate in front of its read function
// that holds the worker at the first read after "get frame[2]" until it has been told to stop.
// Stop waits until the request is answered; the worker then serves the next one in full.
CQRBThumbnailVideoDecoder* g_stopping = nullptr;
const qrbtest::LogCapture* g_gateLog = nullptr;
std::atomic<bool> g_held{false};

void GateRead() {
    if (g_stopping == nullptr || g_held || !g_gateLog->Contains("get frame[2]")) return;
    g_held = true;
    // Bounded: a worker never told to stop goes on, and the test fails on what it does next.
    for (int i = 0; i < 20000 && !g_stopping->AbandonRequested(); ++i) {
        std::this_thread::sleep_for(1ms);
    }
}

TEST_F(VideoDecoderTest, StopGivesUpTheVideoBeingDecodedAndTheWorkerServesOn) {
    qrbtest::InstallMediaPlugins(root, QRB_MEDIA_PLUGIN_GATED_DECODER);
    fs::create_directories(root.Resolve(kVideoDir));
    CallbackRecorder rec;
    CQRBThumbRequestList list;
    CQRBThumbCache cache;
    ASSERT_TRUE(list.Create() && cache.Create());
    CQRBThumbnailVideoDecoder decoder;  // binds the gated plug-in; destroyed before the list
    ASSERT_TRUE(decoder.MediaDecodingReady());
    ASSERT_TRUE(decoder.Create(0, &list, &cache));
    auto setGate = reinterpret_cast<void (*)(void (*)())>(
        dlsym(g_QRBFFmpegApi.decoder_library, "qrb_test_set_read_gate"));
    ASSERT_NE(setGate, nullptr);
    g_gateLog = &log;
    g_held = false;
    g_stopping = &decoder;
    setGate(&GateRead);
    _stRequestedItem request;
    request.strURL = "stopped;" + VideoFixture("fade_hevc_320x240_3s.mkv");
    request.eThumbnailType = THUMB_VIDEO;
    request.width = 8;
    request.height = 6;
    request.callback = &CallbackRecorder::Callback;
    request.FrameCount = 5;
    request.user_data = rec.Tag(0);
    list.Insert(request);
    ASSERT_TRUE(log.WaitFor("get frame[2]", kWait));
    while (!g_held) std::this_thread::sleep_for(1ms);

    decoder.Stop();
    ASSERT_EQ(rec.Count(), 1u);
    EXPECT_EQ(rec.Results()[0].status, -1);
    EXPECT_EQ(log.Count("stop requested, frame grabbing abandoned at frame[2]"), 1);
    EXPECT_FALSE(log.Contains("get frame[3]"));
    const std::string mta = root.Resolve(kVideoDir) + "stopped.mta";
    EXPECT_FALSE(fs::exists(mta)) << "two frames of five are kept for no later request";

    request.user_data = rec.Tag(1);
    list.Insert(request);
    ASSERT_TRUE(rec.WaitForCount(2, kWait));
    EXPECT_EQ(rec.Results()[1].count, 5);
    EXPECT_TRUE(fs::exists(mta));

    // Destroy, as finalize does, gives up a video being decoded too.
    log.Clear();
    g_held = false;
    request.strURL = "destroyed;" + VideoFixture("fade_hevc_320x240_3s.mkv");
    list.Insert(request);
    ASSERT_TRUE(log.WaitFor("get frame[2]", kWait));
    while (!g_held) std::this_thread::sleep_for(1ms);
    decoder.Destroy();
    EXPECT_EQ(log.Count("stop requested, frame grabbing abandoned at frame[2]"), 1);
    EXPECT_FALSE(log.Contains("get frame[3]"));
    EXPECT_FALSE(fs::exists(root.Resolve(kVideoDir) + "destroyed.mta"));
    g_stopping = nullptr;
}

// ---------------------------------------------------------------------------------------------
// The video MTA file, with a decoder built without plug-ins.

boost::intrusive_ptr<CQRBThumbImage> MakeImage(int w, int h, const std::string& pixels,
                                               long long stamp) {
    auto* buffer = static_cast<unsigned char*>(std::malloc(pixels.size()));
    std::memcpy(buffer, pixels.data(), pixels.size());
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 4, static_cast<long>(w) * 4, buffer, stamp);  // the image frees buffer
    image->SetBufSize(static_cast<long>(pixels.size()));
    return image;
}

// Every frame is stored at the first image's size (frames of a stream whose size changes differ):
// an item that would be read past a buffer's end is refused, and no file is left. A timestamp
// keeps its low 32 bits.
TEST_F(VideoDecoderTest, MtaWriterRefusesWhatCannotBeStored) {
    CQRBThumbnailVideoDecoder decoder;
    fs::create_directories(root.Resolve(kVideoDir));
    std::string path = root.Resolve(kVideoDir) + "clip.mta";
    auto write = [&](const std::vector<boost::intrusive_ptr<CQRBThumbImage>>& images) {
        boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
        for (const auto& image : images) source->AddImage(image);
        return decoder.m_WriteVideoMtaFile(path, source);
    };
    EXPECT_FALSE(write(
        {MakeImage(4, 4, std::string(64, 'a'), 0), MakeImage(2, 2, std::string(16, 'b'), 0)}));
    auto shortBuffer = MakeImage(4, 4, std::string(64, 'a'), 0);
    shortBuffer->SetBufSize(32);
    EXPECT_FALSE(write({shortBuffer}));
    EXPECT_EQ(root.CountEntries(kVideoDir), 0);

    ASSERT_TRUE(write({MakeImage(2, 2, MtaPixels(2, 2, 4, 0), 7),
                       MakeImage(2, 2, MtaPixels(2, 2, 4, 1), 0x100000010LL)}));
    EXPECT_EQ(qrbtest::ReadFileBytes(path), IntactVideoMta(2, 2, 4, {7, 0x10}));
}

TEST_F(VideoDecoderTest, MtaReaderRejectsCorruptLyingAndSpecialFiles) {
    CQRBThumbnailVideoDecoder decoder;
    _stRequestedItem request;
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    const std::string good = IntactVideoMta(2, 2, 4, {1, 2, 3});
    auto patched = [&good](size_t offset, char value) {
        std::string b = good;
        b[offset] = value;
        return b;
    };
    const std::string px(16, 'p');
    const struct {
        const char* name;
        std::string bytes;
        const char* reason;
    } cases[] = {
        {"bad magic", patched(1, 'X'), "mta header mismatch"},
        {"count tail not zero", patched(31, '\x01'), "mta record FC mismatch"},
        {"depth 11", BuildMta(2, 2, 11, 1, {std::string(44, 'd')}, {0}),
         "get width, height, depth, count fail"},
        {"frames out of order", patched(33, '1'), "frame[0] marker mismatch"},
        {"fewer frames than counted", BuildMta(2, 2, 4, 5, {px, px}, {0, 0}), "mta file size"},
        // 5 GB announced in a few bytes: refused before any frame is allocated.
        {"size lie", BuildMta(10000, 10000, 10, 5, {std::string(64, 'x')}, {1}),
         "less than 5000000062 for 5 frames of 10000x10000x10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log.Clear();
        root.WriteFile(std::string(kVideoDir).substr(1) + "clip.mta", c.bytes);
        EXPECT_FALSE(decoder.m_ParseVideoMtaFile(request, "clip", item));
        EXPECT_EQ(item->GetImageCount(), 0);
        EXPECT_TRUE(log.Contains(c.reason));
    }
    // A FIFO would block a reader that waits for a writer: it is refused at once.
    const std::string pipe = root.Resolve(kVideoDir) + "pipe.mta";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(decoder.m_ParseVideoMtaFile(request, "pipe", item));
    EXPECT_TRUE(log.Contains("open " + pipe + " fail"));
}

// ---------------------------------------------------------------------------------------------
// Through the C interface.

class VideoGrabberTest : public VideoDecoderTest {
protected:
    void SetUp() override {
        VideoDecoderTest::SetUp();
        qrbtest::InstallMediaPlugins(root);
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override {
        thumbnail_finalize();
        VideoDecoderTest::TearDown();
    }
    void RequestVideo(const std::string& url, int tag, int frames, int width, int height) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, 0, width, height, 0,
                                static_cast<unsigned char>(frames), &CallbackRecorder::Callback,
                                rec.Tag(tag));
    }
    // The results by tag, once n have arrived.
    std::map<void*, RecordedResult> WaitForResults(size_t n) {
        EXPECT_TRUE(rec.WaitForCount(n, kWait)) << "only " << rec.Count() << " of " << n;
        std::map<void*, RecordedResult> byTag;
        for (const RecordedResult& r : rec.Results()) byTag[r.user_data] = r;
        return byTag;
    }
    // The one result of a request for frames of path at width x height.
    RecordedResult Grab(const std::string& path, int frames, int width, int height) {
        const int tag = static_cast<int>(rec.Count());
        RequestVideo(path, tag, frames, width, height);
        return WaitForResults(static_cast<size_t>(tag + 1))[rec.Tag(tag)];
    }
    void WriteMta(const std::string& id, const std::string& bytes) {
        root.WriteFile(std::string(kVideoDir).substr(1) + id + ".mta", bytes);
    }

    CallbackRecorder rec;
};

// 1920 x 1080 with a red bar over its left 192 columns: a square is cut from the middle of the
// frame scaled to cover it (320 x 180), so the bar is cut away; a size whose cover would pass the
// limit (8193 x 4608) is refused before anything is allocated, a negative one before decoding.
TEST_F(VideoGrabberTest, FrameCoversTheRequestedBoxAndItsCentreIsKept) {
    const std::string clip = VideoFixture("bar_h264_1920x1080_2s.mp4");
    const RecordedResult square = Grab(clip, 1, 180, 180);
    ASSERT_EQ(square.count, 1);
    ASSERT_EQ(square.width, 180);
    ASSERT_EQ(square.height, 180);
    const auto left = MeanOf(square.buffers[0], 180, 0, 0, 4, 180);
    EXPECT_NEAR(left.r, left.b, 8) << "the bar lies in the columns cut away";
    EXPECT_EQ(Grab(clip, 1, 8193, 10).status, -1);
    EXPECT_TRUE(log.Contains("numBytes["));
    log.Clear();
    EXPECT_EQ(Grab(clip, 1, -5, 10).status, -1);
    EXPECT_TRUE(log.Contains("Invalid parameter..."));
    EXPECT_FALSE(log.Contains("decode begin"));
}

// 3840 x 2160 decodes only key frames: each frame is the picture of the key frame at or before
// its position, in H.264 and in HEVC with open GOPs (whose key pictures list references that
// are never decoded). 3840 x 2000 is not 4K.
TEST_F(VideoGrabberTest, FourKVideosDecodeKeyFramesOnly) {
    for (const char* name : {"fade_h264_3840x2160_2s.mkv", "fade_hevc_3840x2160_2s_open_gop.mkv"}) {
        SCOPED_TRACE(name);
        log.Clear();
        const std::string fourK = VideoFixture(name);
        const RecordedResult r = Grab(fourK, 5, 192, 108);
        ASSERT_EQ(r.status, 0);
        ASSERT_EQ(r.count, 5);
        EXPECT_EQ(log.Count("4K video: only key frames are decoded"), 1);
        const qrbtest::MediaFacts facts = qrbtest::ReadMediaFacts(fourK);
        const double durationMs = facts.durationUs / 1000.0;
        for (int i = 0; i < 5; ++i) {
            const double target = durationMs * (i + 1) / 6;
            double key = 0;
            for (double k : facts.keyTimesMs) key = k <= target ? k : key;
            EXPECT_NEAR(static_cast<double>(r.timestamps[i]), key, 1.0) << i;
            const double grey = MeanOf(r.buffers[i], 192, 0, 0, 192, 108).Grey();
            EXPECT_NEAR(grey / 255.0 * durationMs, key, 150.0) << "not the picture of frame " << i;
        }
    }
    log.Clear();
    EXPECT_EQ(Grab(VideoFixture("fade_h264_3840x2000_2s.mkv"), 5, 192, 100).count, 5);
    EXPECT_TRUE(log.Contains("width [3840], height[2000]"));
    EXPECT_FALSE(log.Contains("4K video"));
}

TEST_F(VideoGrabberTest, FrameCountZeroSucceedsWithoutAFrame) {
    const RecordedResult r = Grab(VideoFixture("fade_h264_320x240_3s.mp4"), 0, 160, 120);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 0);
    EXPECT_TRUE(log.Contains("release ffmpeg resource end"));
    EXPECT_FALSE(log.Contains("get frame["));
}

// Five frames are kept in the MTA file as shown (a phone video turned upright by its display
// matrix stays upright) and served from it next time; a corrupt file is decoded again and
// rewritten.
TEST_F(VideoGrabberTest, FiveFramesAreKeptInAnMtaFileAndServedFromItNextTime) {
    const std::string turned = root.Path() + "/turned.mp4";
    qrbtest::WriteWithDisplayMatrix(VideoFixture("quadrants_h264_320x240.mp4"), turned, 0, -1, 1,
                                    0);
    const std::string url = "phone;" + turned;
    const std::string mta = root.Resolve(kVideoDir) + "phone.mta";
    const RecordedResult first = Grab(url, 5, 72, 96);
    ASSERT_EQ(first.count, 5);
    // Header, five frames of marker, timestamp and pixels, trailer.
    EXPECT_EQ(fs::file_size(mta), 32u + 5u * (2 + 4 + 72 * 96 * 4) + 2u);
    const std::string stored = qrbtest::ReadFileBytes(mta);
    // Quadrants red, green / blue, white turned a quarter anticlockwise.
    EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(first.buffers[0], 72, 96)), "GWBR");

    log.Clear();
    const RecordedResult second = Grab(url, 5, 72, 96);
    EXPECT_TRUE(log.Contains("parse mta success"));
    EXPECT_FALSE(log.Contains("decode begin"));
    EXPECT_EQ(second.buffers, first.buffers);
    EXPECT_EQ(second.timestamps, first.timestamps);

    root.WriteFile(mta.substr(root.Path().size() + 1), stored.substr(0, 40));
    log.Clear();
    EXPECT_EQ(Grab(url, 5, 72, 96).buffers, first.buffers);
    EXPECT_TRUE(log.Contains("decode begin"));
    EXPECT_EQ(qrbtest::ReadFileBytes(mta), stored);
}

// A file the DRM library opens is refused undecoded; when the library cannot say, it is decoded.
TEST_F(VideoGrabberTest, ProtectedVideoIsRefusedAndDrmFailuresCountAsUnprotected) {
    const std::string clip = VideoFixture("fade_h264_320x240_3s.mp4");
    qrbfake::DrmMarkProtected(clip);
    EXPECT_EQ(Grab(clip, 1, 80, 60).status, -1);
    EXPECT_TRUE(log.Contains("it is drm file"));
    EXPECT_FALSE(log.Contains("decode begin"));
    EXPECT_EQ(qrbfake::DrmCloseCalls(), qrbfake::DrmOpenCalls()) << "the manager is closed";

    qrbfake::DrmSetMode(qrbfake::DrmMode::kManagerError);
    EXPECT_EQ(Grab(clip, 1, 80, 60).count, 1);
    EXPECT_TRUE(log.Contains("can not get drm manager"));
}

// Files that are not videos to grab from, and videos that give no picture: each is answered,
// and soon, with no file left open. A file that cannot be opened fails; one that opens and gives
// no frame at any position succeeds without images.
TEST_F(VideoGrabberTest, BrokenAndForeignInputsAreAnsweredWithinSeconds) {
    const std::string good = VideoFixture("fade_h264_320x240_3s.mp4");
    const std::string goodBytes = qrbtest::ReadFileBytes(good);
    root.WriteFile("media/clip.mp4", goodBytes);
    const std::string pipe = root.Path() + "/media/pipe.ts";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const struct {
        std::string path;
        int status, count;
    } inputs[] = {
        {root.WriteFile("media/cut.mp4", goodBytes.substr(0, goodBytes.size() * 2 / 5)), -1, 0},
        // No pictures under key flags: each position decodes until its attempts run out.
        {VideoFixture("no_pictures_h264_64x64_10s_one_key.nut"), 0, 0},
        {VideoFixture("tone_aac_2s.m4a"), -1, 0},
        {pipe, -1, 0},
        // A playlist whose entry is a good local video: following it would succeed.
        {root.WriteFile("media/list.mp4", "ffconcat version 1.0\nfile clip.mp4\n"), -1, 0},
        // Wider than the limit (8192), as raw frames: refused before any decoding.
        {root.WriteFile("media/wide.y4m", "YUV4MPEG2 W8200 H16 F5:1 Ip A1:1 C420jpeg\nFRAME\n" +
                                              std::string(8200 * 16 * 3 / 2, '\x80')),
         -1, 0},
    };
    const int n = static_cast<int>(std::size(inputs));
    qrbtest::ReadMediaFacts(good);  // FFmpeg's first use in the process opens sockets it keeps
    const int fds = qrbtest::OpenFileDescriptors();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) RequestVideo(inputs[i].path, i, 5, 80, 60);
    auto results = WaitForResults(static_cast<size_t>(n));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(results[rec.Tag(i)].status, inputs[i].status) << inputs[i].path;
        EXPECT_EQ(results[rec.Tag(i)].count, inputs[i].count) << inputs[i].path;
    }
    // Every position of the file without pictures gives up after its 201 attempts.
    EXPECT_EQ(log.Count("Decode Falied: len < 0") + log.Count("decode not finished."), 5 * 201);
    EXPECT_EQ(log.Count("no frame could be grabbed from "), 1);
    // A worker closes its input just after it has answered: it is given a moment.
    for (int i = 0; i < 100 && qrbtest::OpenFileDescriptors() != fds; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(qrbtest::OpenFileDescriptors(), fds) << "a file was left open";
}

// A file of three-byte pixels: the event hands out width x height x 4 bytes, the stored ones
// then zeros, and reads nothing past the buffer. The stored stamp is a signed 32-bit value.
TEST_F(VideoGrabberTest, FiveFrameRequestIsAnsweredFromAnMtaFileOfAnyDepth) {
    WriteMta("rgb",
             qrbtest::BuildMta(2, 2, 3, 2,
                               {qrbtest::MtaPixels(2, 2, 3, 0), qrbtest::MtaPixels(2, 2, 3, 1)},
                               {100000, ~0u}));
    const RecordedResult r = Grab("rgb;/media/rgb.mp4", 5, 2, 2);
    ASSERT_EQ(r.count, 2);
    EXPECT_EQ(r.depth, 3);
    EXPECT_EQ(r.timestamps[0], 100000);
    EXPECT_EQ(r.timestamps[1], -1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(r.buffers[i], qrbtest::MtaPixels(2, 2, 3, i) + std::string(4, '\0'));
    }
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0) << "nothing about the video itself was touched";
}

// A one-frame result asked with the cache is kept; the same URL at its size or at none is then
// answered from the cache undecoded, at another size decoded again.
TEST_F(VideoGrabberTest, CachedFrameIsServedUndecodedAtItsOwnSize) {
    const std::string clip = VideoFixture("fade_h264_320x240_3s.mp4");
    auto request = [&](int w, int h) {
        return rec.Request(clip, MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, w, h, 1, 1);
    };
    const RecordedResult first = request(80, 60);
    ASSERT_EQ(first.count, 1);
    log.Clear();
    EXPECT_EQ(request(80, 60).buffers, first.buffers);
    EXPECT_EQ(request(0, 0).buffers, first.buffers);
    EXPECT_EQ(log.Count("Cache Found=1"), 2);
    EXPECT_FALSE(log.Contains("decode begin"));
    EXPECT_EQ(request(40, 30).width, 40);
    EXPECT_TRUE(log.Contains("decode begin"));
}

// Exactly two parts: the first names the MTA file, the second is the path; otherwise the whole
// URL is the path. A media id that would leave the video folder names no file.
TEST_F(VideoGrabberTest, VideoUrlIsSplitIntoMediaIdAndPath) {
    root.WriteFile("opt/usr/apps/orvale/data/escape.mta", qrbtest::IntactVideoMta(1, 1, 4, {1}));
    for (const char* url :
         {"id;/media/y.mp4", "/media/plain.mp4", "a;b;/media/x.mp4", "../escape;/media/z.mp4"}) {
        EXPECT_EQ(Grab(url, 5, 16, 16).status, -1);
    }
    EXPECT_TRUE(log.Contains("szURI:/media/y.mp4."));
    EXPECT_TRUE(log.Contains("szURI:/media/plain.mp4."));
    EXPECT_TRUE(log.Contains("szURI:a;b;/media/x.mp4."));
    EXPECT_TRUE(log.Contains("open " + root.Resolve(kVideoDir) + "id.mta fail"));
    EXPECT_EQ(root.CountEntries(kVideoDir), 0) << "a failed request keeps no MTA file";
    EXPECT_TRUE(log.Contains("media id [../escape] is not a file name"));
    EXPECT_FALSE(log.Contains("parse mta success"));
}

// ---------------------------------------------------------------------------------------------
// Frames as a player shows them: colours, HDR, geometry, and a picture at every position.

struct Rgb {
    int r, g, b;
};

template <typename Param>
class VideoShownTest : public VideoGrabberTest, public ::testing::WithParamInterface<Param> {};

// Colours at points of a frame: the mean of the 8 x 8 square around (fx, fy) x the frame's size.
struct Probe {
    double fx, fy;
    Rgb want;
    double tolerance;
};
struct ColourCase {
    const char* file;
    int a, b, c, d;     // a display matrix to give a copy (all 0: the file as it is)
    int doviBase;       // a Dolby Vision profile 8 copy with this base compatibility (0: none)
    int width, height;  // as shown
    std::vector<Probe> probes;
    const char* quadrants;  // for the quadrants file: their colours clockwise from the top left
};
void PrintTo(const ColourCase& c, std::ostream* os) {
    *os << c.file << " " << c.a << c.b << c.c << c.d;
}

// Three patches (red, green, blue of middling strength) coded with a matrix and range and tagged
// so, at a size whose usual matrix is the other one, or untagged at a size whose usual matrix
// they were coded with: decoded with the wrong matrix, the green patch is 10 to 20 off in red.
const std::vector<Probe> kPatches = {{1 / 6.0, 0.5, {200, 40, 80}, 5},
                                     {0.5, 0.5, {30, 190, 61}, 5},
                                     {5 / 6.0, 0.5, {60, 80, 220}, 5}};
// SMPTE bars made into PQ and HLG pictures with SDR white at HDR reference white come back as the
// SDR bars (75 %): unmapped, PQ white is some 60 levels darker and HLG colours washed out.
const std::vector<Probe> kBars = {
    {1 / 14.0, 1 / 3.0, {191, 191, 191}, 6}, {3 / 14.0, 1 / 3.0, {192, 192, 1}, 24},
    {5 / 14.0, 1 / 3.0, {0, 191, 190}, 24},  {7 / 14.0, 1 / 3.0, {0, 191, 0}, 24},
    {9 / 14.0, 1 / 3.0, {191, 0, 192}, 24},  {11 / 14.0, 1 / 3.0, {191, 0, 1}, 24},
    {13 / 14.0, 1 / 3.0, {0, 1, 192}, 24}};
const Rgb kWhite{255, 255, 255}, kBlack{0, 0, 0};
// A white square 100 wide in the middle of a black picture as shown: white 44 pixels either side
// of the middle, black 58 pixels away.
std::vector<Probe> Square(int width) {
    const double in = 44.0 / width, out = 58.0 / width;
    return {{0.5 - in, 0.5, kWhite, 30},
            {0.5 + in, 0.5, kWhite, 30},
            {0.5 - out, 0.5, kBlack, 30},
            {0.5 + out, 0.5, kBlack, 30}};
}

class VideoColourTest : public VideoShownTest<ColourCase> {};

TEST_P(VideoColourTest, FrameIsShownInItsColoursAndTurn) {
    const ColourCase& c = GetParam();
    std::string path = VideoFixture(c.file);
    if (c.a != 0 || c.b != 0) {
        qrbtest::WriteWithDisplayMatrix(path, root.Path() + "/turned.mp4", c.a, c.b, c.c, c.d);
        path = root.Path() + "/turned.mp4";
    } else if (c.doviBase != 0) {
        qrbtest::WriteWithDolbyVision(path, root.Path() + "/dovi.mp4", 8, c.doviBase);
        path = root.Path() + "/dovi.mp4";
        ASSERT_EQ(qrbtest::DolbyVisionProfile(path), 8);
    }
    const RecordedResult r = Grab(path, 1, 0, 0);
    ASSERT_EQ(r.count, 1);
    ASSERT_EQ(r.width, c.width);
    ASSERT_EQ(r.height, c.height);
    if (c.quadrants != nullptr) {
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.width, c.height)),
                  c.quadrants);
    }
    for (const Probe& p : c.probes) {
        const int x = static_cast<int>(p.fx * c.width);
        const int y = static_cast<int>(p.fy * c.height);
        const auto seen = MeanOf(r.buffers[0], c.width, x - 4, y - 4, x + 4, y + 4);
        SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
        EXPECT_NEAR(seen.r, p.want.r, p.tolerance);
        EXPECT_NEAR(seen.g, p.want.g, p.tolerance);
        EXPECT_NEAR(seen.b, p.want.b, p.tolerance);
    }
}

INSTANTIATE_TEST_SUITE_P(
    MatrixRangeHdrAndTurns, VideoColourTest,
    ::testing::Values(
        ColourCase{"patches_bt601_tv_1280x720.mp4", 0, 0, 0, 0, 0, 1284, 720, kPatches, nullptr},
        ColourCase{"patches_bt2020_tv_640x360.mkv", 0, 0, 0, 0, 0, 642, 360, kPatches, nullptr},
        ColourCase{"patches_untagged_1280x720.mp4", 0, 0, 0, 0, 0, 1284, 720, kPatches, nullptr},
        ColourCase{"bars_pq_mastered_320x180.mkv", 0, 0, 0, 0, 0, 320, 180, kBars, nullptr},
        ColourCase{"bars_hlg_320x180.mkv", 0, 0, 0, 0, 0, 320, 180, kBars, nullptr},
        ColourCase{"bars_pq_320x180.mkv", 0, 0, 0, 0, 1, 320, 180, kBars,
                   nullptr},  // Dolby Vision 8.1
        // Quadrants red, green / blue, white as the display matrix (a, b; c, d) shows them: a
        // point (x, y) is shown at (a x + c y, b x + d y), y downwards.
        ColourCase{"quadrants_h264_320x240.mp4", 0, 1, -1, 0, 0, 240, 320, {}, "BRGW"},
        ColourCase{"quadrants_h264_320x240.mp4", 0, 1, 1, 0, 0, 240, 320, {}, "RBWG"},
        // PAL pictures (720 x 576) shown 16:9 and 4:3 at their shown width, the square square.
        ColourCase{"square_h264_720x576_sar64x45.mp4", 0, 0, 0, 0, 0, 1024, 576, Square(1024),
                   nullptr},
        ColourCase{"square_mpeg2_720x576_sar16x15.ts", 0, 0, 0, 0, 0, 768, 576, Square(768),
                   nullptr}));

// A bar crossing the picture moves 16 pixels between its two fields: woven together, every other
// row is out of step (comb lines, an energy of about 20); deinterlaced, none is.
class VideoInterlaceTest : public VideoShownTest<const char*> {};

TEST_P(VideoInterlaceTest, FieldsAreMadeIntoOneProgressivePicture) {
    const RecordedResult r = Grab(VideoFixture(GetParam()), 3, 0, 0);
    ASSERT_EQ(r.count, 3);
    ASSERT_EQ(r.width, 720);
    ASSERT_EQ(r.height, 576);
    for (int i = 0; i < r.count; ++i) {
        const std::string& bgra = r.buffers[i];
        auto at = [&](int x, int y) {
            return static_cast<unsigned char>(bgra[(y * 720 + x) * 4 + 1]);
        };
        int bar = 0;
        for (int x = 0; x < 720; ++x) bar += at(x, 288) > 128;
        EXPECT_GT(bar, 30) << "the bar is shown";
        double comb = 0;
        for (int y = 1; y + 1 < 576; y += 2) {
            for (int x = 0; x < 720; ++x)
                comb += std::abs(2 * at(x, y) - at(x, y - 1) - at(x, y + 1));
        }
        EXPECT_LT(comb / (287 * 720), 2.0);
    }
}

INSTANTIATE_TEST_SUITE_P(Broadcast, VideoInterlaceTest,
                         ::testing::Values("moving_bar_h264_720x576i.ts",
                                           "moving_bar_mpeg2_720x576i.ts"));

// Frames come from evenly spaced positions in every codec and container, each the picture of its
// moment. Streams whose key frame at or before a position cannot be reached or decoded there (one
// key frame, an open GOP), and streams that state no duration, still give every frame asked.
struct PositionCase {
    const char* file;
    int frames;
    double keySpacingMs;
    double durationMs;  // the real one, for a stream that does not state it
    bool distinct;      // false where two positions may share a far key frame
};
void PrintTo(const PositionCase& c, std::ostream* os) { *os << c.file; }
class VideoPositionTest : public VideoShownTest<PositionCase> {};

// Each frame's brightness gives a moment that must be its own timestamp, near its position (the
// first complete picture from the key frame at or before it; a transport stream's seek may land
// a little past it).
TEST_P(VideoPositionTest, EveryPositionGivesThePictureOfItsMoment) {
    const PositionCase& c = GetParam();
    const std::string path = VideoFixture(c.file);
    const RecordedResult r = Grab(path, c.frames, 64, 48);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 64);
    EXPECT_EQ(r.height, 48);
    EXPECT_EQ(r.sizes.at(0), 64 * 48 * 4);
    const double durationMs =
        c.durationMs > 0 ? c.durationMs : qrbtest::ReadMediaFacts(path).durationUs / 1000.0;
    ASSERT_EQ(r.count, c.frames);
    for (int i = 0; i < c.frames; ++i) {
        const double stamp = static_cast<double>(r.timestamps[i]);
        EXPECT_NEAR(stamp, durationMs * (i + 1) / (c.frames + 1), c.keySpacingMs + 60) << i;
        const double grey = MeanOf(r.buffers[i], 64, 0, 0, 64, 48).Grey();
        EXPECT_NEAR(grey / 255.0 * durationMs, stamp, 100.0) << "not the picture of frame " << i;
        if (i > 0) {
            EXPECT_GE(r.timestamps[i], r.timestamps[i - 1] + (c.distinct ? 1 : 0));
        }
    }
    EXPECT_EQ(root.CountEntries(kVideoDir), 0) << "no media id, so no MTA file";
}

INSTANTIATE_TEST_SUITE_P(
    CodecsAndFallBacks, VideoPositionTest,
    ::testing::Values(PositionCase{"fade_h264_320x240_3s.mp4", 5, 200, 0, true},
                      PositionCase{"fade_hevc_320x240_3s.mkv", 1, 200, 0, true},
                      PositionCase{"fade_mpeg2_320x240_3s.ts", 3, 200, 0, true},
                      PositionCase{"fade_mpeg4_320x240_3s.avi", 5, 200, 0, true},
                      PositionCase{"fade_h264_640x360_3s_bframes.ts", 5, 400, 0, true},
                      PositionCase{"fade_h264_320x240_3s_one_key.ts", 5, 40, 0, true},
                      PositionCase{"fade_hevc_320x240_6s_open_gop.ts", 5, 2000, 0, false},
                      PositionCase{"fade_h264_320x240_3s_no_duration.mkv", 5, 400, 3000, true},
                      PositionCase{"fade_h264_320x240_3s.h264", 5, 200, 3000, true}));

}  // namespace
