// The video and recording decoders through the C interface with this project's plug-ins, on
// ffmpeg-made fixtures (the fade ones go black to white: a frame's brightness tells its moment).
#include "video-decoder/qrb_ffmpeg_scoped.h"
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;
using qrbtest::RecordedResult;

constexpr auto kWait = 60s;
constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";
constexpr const char* kDataDir = "/opt/usr/apps/orvale/data/";

std::string VideoFixture(const std::string& name) {
    return std::string(QRB_VIDEO_FIXTURE_DIR) + "/" + name;
}

// The two media plug-ins (or the libraries given in their place; none for null) in root.
void InstallMediaPlugins(const qrbtest::ScratchRoot& root,
                         const char* decoder = QRB_MEDIA_PLUGIN_DECODER,
                         const char* scaler = QRB_MEDIA_PLUGIN_SCALER) {
    const fs::path dir = root.Resolve("/usr/lib/gstreamer-1.0/");
    fs::create_directories(dir);
    const auto options = fs::copy_options::overwrite_existing;
    if (decoder != nullptr) fs::copy_file(decoder, dir / "libgstffmpeg.so", options);
    if (scaler != nullptr) fs::copy_file(scaler, dir / "libgstffmpegscale.so", options);
}

// Mean of the blue, green and red bytes over a rectangle of a BGRA raster.
struct MeanColour {
    double b = 0, g = 0, r = 0;
    double Grey() const { return (b + g + r) / 3; }
};
MeanColour MeanOf(const std::string& bgra, int width, int x0, int y0, int x1, int y1) {
    MeanColour mean;
    const double n = static_cast<double>(x1 - x0) * (y1 - y0);
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            const size_t at = (static_cast<size_t>(y) * width + x) * 4;
            bgra.at(at + 3);  // throws outside the raster
            mean.b += static_cast<unsigned char>(bgra[at]) / n;
            mean.g += static_cast<unsigned char>(bgra[at + 1]) / n;
            mean.r += static_cast<unsigned char>(bgra[at + 2]) / n;
        }
    }
    return mean;
}

// A fixture's duration, key-frame times from the stream's start and first `keep` key frames.
struct MediaFacts {
    long long durationUs = -1;
    std::vector<double> keyTimesMs;
    std::vector<std::string> keyFrames;
};
MediaFacts ReadMediaFacts(const std::string& path, size_t keep = 0) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    QRBScopedFormatContext context(raw);
    const int index = avformat_find_stream_info(raw, nullptr) < 0
                          ? -1
                          : av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) throw std::runtime_error("no video stream in " + path);
    MediaFacts facts;
    facts.durationUs = context->duration;
    AVStream* stream = context->streams[index];
    const int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    QRBScopedPacket packet(av_packet_alloc());
    while (av_read_frame(context.get(), packet.get()) >= 0) {
        if (packet->stream_index == index && (packet->flags & AV_PKT_FLAG_KEY)) {
            if (packet->pts != AV_NOPTS_VALUE) {
                facts.keyTimesMs.push_back(
                    av_rescale_q(packet->pts - start, stream->time_base, {1, 1000000}) / 1000.0);
            }
            if (facts.keyFrames.size() < keep) {
                facts.keyFrames.emplace_back(reinterpret_cast<const char*>(packet->data),
                                             static_cast<size_t>(packet->size));
            }
        }
        av_packet_unref(packet.get());
    }
    if (facts.keyFrames.size() < keep) throw std::runtime_error("too few key frames");
    return facts;
}

// The quadrants fixture (red, green / blue, white) with the display matrix (a, b; c, d).
std::string TurnedQuadrants(const qrbtest::ScratchRoot& root, int a, int b, int c, int d) {
    std::string mp4 = qrbtest::ReadFileBytes(VideoFixture("quadrants_h264_320x240.mp4"));
    const size_t matrix = mp4.find("tkhd") + 4 + 40;
    const int values[] = {a, b, 0, c, d};
    for (int i = 0; i < 5; ++i) {
        mp4.replace(matrix + 4 * i, 4,
                    qrbtest::BigEndian(static_cast<uint32_t>(values[i]) << 16, 4));
    }
    return root.WriteFile("turned.mp4", mp4);
}

// An MTA file as the writers lay it out (stamps only in video files).
std::string MtaPixels(uint32_t width, uint32_t height, uint32_t depth, int seed) {
    std::string pixels(static_cast<size_t>(width) * height * depth, '\0');
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<char>((i * 7 + seed * 31 + 1) & 0xff);
    return pixels;
}
std::string BuildMta(uint32_t width, uint32_t height, uint32_t depth, uint32_t count,
                     const std::vector<std::string>& frames,
                     const std::vector<uint32_t>& stamps = {}) {
    using qrbtest::LittleEndian;
    std::string out("FSmta\0FW", 8);
    out += LittleEndian(width, 4) + "FH" + LittleEndian(height, 4) + "FD" + LittleEndian(depth, 4) +
           "FC" + LittleEndian(count, 4) + std::string(2, '\0');
    for (size_t i = 0; i < frames.size(); ++i) {
        out += 'F';
        out += static_cast<char>('0' + i);
        if (i < stamps.size()) out += LittleEndian(stamps[i], 4);
        out += frames[i];
    }
    return out + "FE";
}

// The media decoding table is process-wide: each test starts and ends with it empty.
class VideoDecoderTest : public ::testing::Test {
protected:
    VideoDecoderTest() { Reset(); }
    ~VideoDecoderTest() override { Reset(); }
    static void Reset() {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }

    qrbtest::ScratchRoot root;  // before thumbnail_init, so every fixed path lands in it
    qrbtest::LogCapture log;
};

struct BindCase {
    const char* name;
    const char* decoder;  // the library installed under each plug-in's name (null: none)
    const char* scaler;
    bool ready;
    const char* logged;
};
void PrintTo(const BindCase& c, std::ostream* os) { *os << c.name; }

class BindingTest : public VideoDecoderTest, public ::testing::WithParamInterface<BindCase> {};

// Without a complete table extraction fails before the file is touched.
TEST_P(BindingTest, BindsWhatThePluginsHaveAndExtractsOnlyWithACompleteTable) {
    const BindCase& c = GetParam();
    InstallMediaPlugins(root, c.decoder, c.scaler);
    CQRBThumbnailVideoDecoder decoder;
    EXPECT_EQ(decoder.MediaDecodingReady(), c.ready);
    EXPECT_EQ(log.Count(c.logged), 1);

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
                               "dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed."},
                      BindCase{"NoSeekAvailable", QRB_DECODER_WITHOUT_SEEK_AVAILABLE,
                               QRB_MEDIA_PLUGIN_SCALER, true, "initialize ffmpeg api success."},
                      BindCase{"NoScale", QRB_MEDIA_PLUGIN_DECODER, QRB_SCALER_WITHOUT_SCALE, false,
                               "get av sws scale func pointer failed"}),
    [](const ::testing::TestParamInfo<BindCase>& info) { return info.param.name; });

// The gated plug-in holds a worker at the first read after "get frame[2]" until told to stop.
CQRBThumbnailVideoDecoder* g_stopping = nullptr;
const qrbtest::LogCapture* g_gateLog = nullptr;
std::atomic<bool> g_held{false};

void GateRead() {
    if (g_stopping == nullptr || g_held || !g_gateLog->Contains("get frame[2]")) return;
    g_held = true;
    for (int i = 0; i < 20000 && !g_stopping->AbandonRequested(); ++i) {
        std::this_thread::sleep_for(1ms);
    }
}

// Stop and Destroy give up the video being decoded, keeping no part of an MTA file.
TEST_F(VideoDecoderTest, StopGivesUpTheVideoBeingDecodedAndTheWorkerServesOn) {
    InstallMediaPlugins(root, QRB_MEDIA_PLUGIN_GATED_DECODER);
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
    g_stopping = &decoder;
    setGate(&GateRead);
    _stRequestedItem request;
    request.eThumbnailType = THUMB_VIDEO;
    request.width = 8;
    request.height = 6;
    request.callback = &CallbackRecorder::Callback;
    request.FrameCount = 5;
    auto holdAtFrame2 = [&](const std::string& id, int tag) {
        log.Clear();
        g_held = false;
        request.strURL = id + ";" + VideoFixture("fade_hevc_320x240_3s.mkv");
        request.user_data = rec.Tag(tag);
        list.Insert(request);
        ASSERT_TRUE(log.WaitFor("get frame[2]", kWait));
        while (!g_held) std::this_thread::sleep_for(1ms);
    };
    auto checkAbandoned = [&](const std::string& id) {
        EXPECT_EQ(log.Count("stop requested, frame grabbing abandoned at frame[2]"), 1);
        EXPECT_FALSE(log.Contains("get frame[3]"));
        EXPECT_FALSE(fs::exists(root.Resolve(kVideoDir) + id + ".mta"));
    };
    holdAtFrame2("stopped", 0);
    decoder.Stop();
    ASSERT_EQ(rec.Count(), 1u);
    EXPECT_EQ(rec.Results()[0].status, -1);
    checkAbandoned("stopped");

    request.user_data = rec.Tag(1);
    list.Insert(request);
    ASSERT_TRUE(rec.WaitForCount(2, kWait));
    EXPECT_EQ(rec.Results()[1].count, 5);
    EXPECT_TRUE(fs::exists(root.Resolve(kVideoDir) + "stopped.mta"));

    holdAtFrame2("destroyed", 2);
    decoder.Destroy();
    checkAbandoned("destroyed");
    g_stopping = nullptr;
}

class VideoGrabberTest : public VideoDecoderTest {
protected:
    void SetUp() override {
        InstallMediaPlugins(root);
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override { thumbnail_finalize(); }
    void RequestVideo(const std::string& url, int tag, int frames, int width, int height) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, 0, width, height, 0,
                                static_cast<unsigned char>(frames), &CallbackRecorder::Callback,
                                rec.Tag(tag));
    }
    RecordedResult Grab(const std::string& path, int frames, int width, int height) {
        const int tag = static_cast<int>(rec.Count());
        RequestVideo(path, tag, frames, width, height);
        EXPECT_TRUE(rec.WaitForCount(static_cast<size_t>(tag + 1), kWait));
        return ResultOf(tag);
    }
    RecordedResult ResultOf(int tag) {
        for (const RecordedResult& r : rec.Results()) {
            if (r.user_data == rec.Tag(tag)) return r;
        }
        return {};
    }

    CallbackRecorder rec;
};

// A square is cut from the middle of the frame scaled to cover it (the red bar on the left goes);
// a size past the limit or negative is refused, no frame asked is success without frames.
TEST_F(VideoGrabberTest, FrameCoversTheRequestedBoxAndItsCentreIsKept) {
    const std::string clip = VideoFixture("bar_h264_1920x1080_2s.mp4");
    const RecordedResult square = Grab(clip, 1, 180, 180);
    ASSERT_EQ(square.count, 1);
    ASSERT_EQ(std::make_pair(square.width, square.height), std::make_pair(180, 180));
    const auto left = MeanOf(square.buffers[0], 180, 0, 0, 4, 180);
    EXPECT_NEAR(left.r, left.b, 8) << "the bar lies in the columns cut away";
    EXPECT_EQ(Grab(clip, 1, 8193, 10).status, -1);
    EXPECT_TRUE(log.Contains("numBytes["));
    log.Clear();
    EXPECT_EQ(Grab(clip, 1, -5, 10).status, -1);
    EXPECT_TRUE(log.Contains("Invalid parameter..."));
    EXPECT_FALSE(log.Contains("decode begin"));
    const RecordedResult none = Grab(clip, 0, 160, 120);
    EXPECT_EQ(std::make_pair(none.status, none.count), std::make_pair(0, 0));
    EXPECT_FALSE(log.Contains("get frame["));
}

// Five frames kept in the MTA file as shown are served from it; a corrupt file is rewritten.
TEST_F(VideoGrabberTest, FiveFramesAreKeptInAnMtaFileAndServedFromItNextTime) {
    const std::string url = "phone;" + TurnedQuadrants(root, 0, -1, 1, 0);
    const std::string mta = root.Resolve(kVideoDir) + "phone.mta";
    const RecordedResult first = Grab(url, 5, 72, 96);
    ASSERT_EQ(first.count, 5);
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

// Foreign inputs fail, a video with no picture succeeds without images; none leaves a file open.
TEST_F(VideoGrabberTest, BrokenAndForeignInputsAreAnsweredAndLeaveNoFileOpen) {
    const std::string good = VideoFixture("fade_h264_320x240_3s.mp4");
    root.WriteFile("media/clip.mp4", qrbtest::ReadFileBytes(good));
    const std::string pipe = root.Path() + "/media/pipe.ts";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::pair<std::string, int> inputs[] = {
        {VideoFixture("no_pictures_h264_64x64_10s_one_key.nut"), 0},
        {VideoFixture("tone_aac_2s.m4a"), -1},
        {pipe, -1},
        {root.WriteFile("media/list.mp4", "ffconcat version 1.0\nfile clip.mp4\n"), -1},
    };
    const int n = static_cast<int>(std::size(inputs));
    ReadMediaFacts(good);  // FFmpeg's first use in the process opens sockets it keeps
    const int fds = qrbtest::OpenFileDescriptors();
    for (int i = 0; i < n; ++i) RequestVideo(inputs[i].first, i, 5, 80, 60);
    ASSERT_TRUE(rec.WaitForCount(static_cast<size_t>(n), kWait));
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(ResultOf(i).status, inputs[i].second) << inputs[i].first;
        EXPECT_EQ(ResultOf(i).count, 0) << inputs[i].first;
    }
    EXPECT_EQ(log.Count("Decode Falied: len < 0") + log.Count("decode not finished."), 5 * 201);
    EXPECT_EQ(log.Count("no frame could be grabbed from "), 1);
    for (int i = 0; i < 100 && qrbtest::OpenFileDescriptors() != fds; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(qrbtest::OpenFileDescriptors(), fds) << "a file was left open";
}

// "id;path" names an MTA file by the id (never outside the video folder); other URLs are paths.
// Three-byte pixels are handed out padded to four; a size lie and a FIFO are refused.
TEST_F(VideoGrabberTest, MediaIdNamesAnMtaFileOfAnyDepthAndLyingFilesAreRefused) {
    const std::string dir = std::string(kVideoDir).substr(1);
    root.WriteFile(
        dir + "rgb.mta",
        BuildMta(2, 2, 3, 2, {MtaPixels(2, 2, 3, 0), MtaPixels(2, 2, 3, 1)}, {100000, ~0u}));
    const RecordedResult r = Grab("rgb;/media/rgb.mp4", 5, 2, 2);
    ASSERT_EQ(r.count, 2);
    EXPECT_EQ(r.depth, 3);
    EXPECT_EQ(r.timestamps[0], 100000);
    EXPECT_EQ(r.timestamps[1], -1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(r.buffers[i], MtaPixels(2, 2, 3, i) + std::string(4, '\0'));
    }
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0) << "nothing about the video itself was touched";

    root.WriteFile(dir + "lie.mta", BuildMta(10000, 10000, 10, 5, {std::string(64, 'x')}, {1}));
    ASSERT_EQ(mkfifo((root.Resolve(kVideoDir) + "pipe.mta").c_str(), 0600), 0);
    root.WriteFile("opt/usr/apps/orvale/data/escape.mta", BuildMta(1, 1, 4, 1, {"pppp"}, {1}));
    const std::pair<const char*, std::string> refused[] = {
        {"lie;/m.mp4", "less than 5000000062 for 5 frames of 10000x10000x10"},
        {"pipe;/m.mp4", "open " + root.Resolve(kVideoDir) + "pipe.mta fail"},
        {"id;/media/y.mp4", "open " + root.Resolve(kVideoDir) + "id.mta fail"},
        {"id;/media/y.mp4", "szURI:/media/y.mp4."},
        {"/media/plain.mp4", "szURI:/media/plain.mp4."},
        {"a;b;/media/x.mp4", "szURI:a;b;/media/x.mp4."},
        {"../escape;/media/z.mp4", "media id [../escape] is not a file name"}};
    for (const auto& [url, logged] : refused) {
        EXPECT_EQ(Grab(url, 5, 2, 2).status, -1) << url;
        EXPECT_TRUE(log.Contains(logged)) << logged;
    }
    EXPECT_FALSE(fs::exists(root.Resolve(kVideoDir) + "id.mta")) << "a failed request keeps none";
    EXPECT_EQ(log.Count("parse mta success"), 1);
}

// A cached one-frame result serves its own size and size 0 undecoded, not another size.
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

// The mean colour of the 8 x 8 square around (fx, fy) x the frame's size.
struct Probe {
    double fx, fy;
    int r, g, b;
    double tolerance;
};
struct ColourCase {
    const char* file;
    int a, b, c, d;     // a display matrix to give a copy (all 0: the file as it is)
    int width, height;  // as shown
    std::vector<Probe> probes;
    const char* quadrants;    // for the quadrants file: their colours clockwise from the top left
    bool interlaced = false;  // a bar moving 16 pixels between fields: combs unless deinterlaced
};
void PrintTo(const ColourCase& c, std::ostream* os) {
    *os << c.file << " " << c.a << c.b << c.c << c.d;
}

// Red, green, blue patches: with the wrong matrix the green one is 10 to 20 off in red.
const std::vector<Probe> kPatches = {
    {1 / 6.0, 0.5, 200, 40, 80, 5}, {0.5, 0.5, 30, 190, 61, 5}, {5 / 6.0, 0.5, 60, 80, 220, 5}};
// PQ and HLG bars come back as the SDR bars (unmapped, PQ white is some 60 levels darker).
const std::vector<Probe> kBars = {
    {1 / 14.0, 1 / 3.0, 191, 191, 191, 6}, {3 / 14.0, 1 / 3.0, 192, 192, 1, 24},
    {5 / 14.0, 1 / 3.0, 0, 191, 190, 24},  {7 / 14.0, 1 / 3.0, 0, 191, 0, 24},
    {9 / 14.0, 1 / 3.0, 191, 0, 192, 24},  {11 / 14.0, 1 / 3.0, 191, 0, 1, 24},
    {13 / 14.0, 1 / 3.0, 0, 1, 192, 24}};
// A white square 100 wide in the middle of black, as shown.
std::vector<Probe> Square(int width) {
    const double in = 44.0 / width, out = 58.0 / width;
    return {{0.5 - in, 0.5, 255, 255, 255, 30},
            {0.5 + in, 0.5, 255, 255, 255, 30},
            {0.5 - out, 0.5, 0, 0, 0, 30},
            {0.5 + out, 0.5, 0, 0, 0, 30}};
}

class VideoColourTest : public VideoGrabberTest,
                        public ::testing::WithParamInterface<ColourCase> {};

TEST_P(VideoColourTest, FrameIsShownInItsColoursAndTurn) {
    const ColourCase& c = GetParam();
    const std::string path =
        c.a != 0 || c.b != 0 ? TurnedQuadrants(root, c.a, c.b, c.c, c.d) : VideoFixture(c.file);
    const RecordedResult r = Grab(path, 1, 0, 0);
    ASSERT_EQ(r.count, 1);
    ASSERT_EQ(std::make_pair(r.width, r.height), std::make_pair(c.width, c.height));
    if (c.quadrants != nullptr) {
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.width, c.height)),
                  c.quadrants);
    }
    for (const Probe& p : c.probes) {
        const int x = static_cast<int>(p.fx * c.width);
        const int y = static_cast<int>(p.fy * c.height);
        const auto seen = MeanOf(r.buffers[0], c.width, x - 4, y - 4, x + 4, y + 4);
        SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
        EXPECT_NEAR(seen.r, p.r, p.tolerance);
        EXPECT_NEAR(seen.g, p.g, p.tolerance);
        EXPECT_NEAR(seen.b, p.b, p.tolerance);
    }
    if (c.interlaced) {
        auto at = [&](int x, int y) {
            return static_cast<unsigned char>(r.buffers[0][(y * c.width + x) * 4 + 1]);
        };
        int bar = 0;
        for (int x = 0; x < c.width; ++x) bar += at(x, c.height / 2) > 128;
        EXPECT_GT(bar, 30) << "the bar is shown";
        double comb = 0;  // about 20 with the fields woven together
        for (int y = 1; y + 1 < c.height; y += 2) {
            for (int x = 0; x < c.width; ++x)
                comb += std::abs(2 * at(x, y) - at(x, y - 1) - at(x, y + 1));
        }
        EXPECT_LT(comb / ((c.height / 2 - 1) * c.width), 2.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    MatrixRangeHdrTurnsAndFields, VideoColourTest,
    ::testing::Values(
        ColourCase{"patches_bt601_tv_1280x720.mp4", 0, 0, 0, 0, 1284, 720, kPatches, nullptr},
        ColourCase{"patches_bt2020_tv_640x360.mkv", 0, 0, 0, 0, 642, 360, kPatches, nullptr},
        ColourCase{"patches_untagged_1280x720.mp4", 0, 0, 0, 0, 1284, 720, kPatches, nullptr},
        ColourCase{"bars_pq_mastered_320x180.mkv", 0, 0, 0, 0, 320, 180, kBars, nullptr},
        ColourCase{"bars_pq_320x180.mkv", 0, 0, 0, 0, 320, 180, kBars, nullptr},
        ColourCase{"bars_hlg_320x180.mkv", 0, 0, 0, 0, 320, 180, kBars, nullptr},
        ColourCase{"quadrants_h264_320x240.mp4", 0, 1, -1, 0, 240, 320, {}, "BRGW"},
        ColourCase{"quadrants_h264_320x240.mp4", 0, 1, 1, 0, 240, 320, {}, "RBWG"},
        ColourCase{"square_h264_720x576_sar64x45.mp4", 0, 0, 0, 0, 1024, 576, Square(1024),
                   nullptr},
        ColourCase{"square_mpeg2_720x576_sar16x15.ts", 0, 0, 0, 0, 768, 576, Square(768), nullptr},
        ColourCase{"moving_bar_h264_720x576i.ts", 0, 0, 0, 0, 720, 576, {}, nullptr, true},
        ColourCase{"moving_bar_mpeg2_720x576i.ts", 0, 0, 0, 0, 720, 576, {}, nullptr, true}));

// Every codec and container, one key frame, open GOP, no duration: each frame is the picture of
// its timestamp, near its position; 4K (not 3840x2000) gives the key frame at or before it.
struct PositionCase {
    const char* file;
    int frames;
    double keySpacingMs;
    double durationMs;  // the real one, for a stream that does not state it
    bool distinct;      // false where two positions may share a far key frame
    bool keyOnly = false;
    const char* logged = nullptr;
};
void PrintTo(const PositionCase& c, std::ostream* os) { *os << c.file; }
class VideoPositionTest : public VideoGrabberTest,
                          public ::testing::WithParamInterface<PositionCase> {};

TEST_P(VideoPositionTest, EveryPositionGivesThePictureOfItsMoment) {
    const PositionCase& c = GetParam();
    const std::string path = VideoFixture(c.file);
    const RecordedResult r = Grab(path, c.frames, 64, 48);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(std::make_pair(r.width, r.height), std::make_pair(64, 48));
    EXPECT_EQ(r.sizes.at(0), 64 * 48 * 4);
    EXPECT_EQ(log.Count("4K video: only key frames are decoded"), c.keyOnly ? 1 : 0);
    EXPECT_TRUE(c.logged == nullptr || log.Contains(c.logged));
    const MediaFacts facts = c.durationMs > 0 ? MediaFacts{} : ReadMediaFacts(path);
    const double durationMs = c.durationMs > 0 ? c.durationMs : facts.durationUs / 1000.0;
    ASSERT_EQ(r.count, c.frames);
    for (int i = 0; i < c.frames; ++i) {
        const double stamp = static_cast<double>(r.timestamps[i]);
        const double target = durationMs * (i + 1) / (c.frames + 1);
        double key = 0;
        for (double k : facts.keyTimesMs) key = k <= target ? k : key;
        if (c.keyOnly) {
            EXPECT_NEAR(stamp, key, 1.0) << i;
        }
        EXPECT_NEAR(stamp, target, c.keySpacingMs + 60) << i;
        const double grey = MeanOf(r.buffers[i], 64, 0, 0, 64, 48).Grey();
        EXPECT_NEAR(grey / 255.0 * durationMs, stamp, c.keyOnly ? 150.0 : 100.0)
            << "not the picture of frame " << i;
        if (i > 0) EXPECT_GE(r.timestamps[i], r.timestamps[i - 1] + (c.distinct ? 1 : 0));
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
                      PositionCase{"fade_h264_320x240_3s.h264", 5, 200, 3000, true},
                      PositionCase{"fade_h264_3840x2160_2s.mkv", 5, 600, 0, false, true},
                      PositionCase{"fade_hevc_3840x2160_2s_open_gop.mkv", 5, 600, 0, false, true},
                      PositionCase{"fade_h264_3840x2000_2s.mkv", 5, 600, 0, false, false,
                                   "width [3840], height[2000]"}));

std::vector<_key_frame> KeyFrames(const MediaFacts& facts, int encodeType) {
    std::vector<_key_frame> frames;
    for (const std::string& unit : facts.keyFrames) {
        frames.push_back({reinterpret_cast<const unsigned char*>(unit.data()),
                          static_cast<int>(unit.size()),
                          encodeType,
                          {}});
    }
    return frames;
}

struct Parsed {
    int status = -1, width = 0, height = 0, depth = 0, count = 0;
    std::vector<std::string> frames;
};
Parsed Parse(const std::string& srf) {
    _thumb_result result{};
    const int status = parse_pvr_mta_file(srf.c_str(), &result);
    Parsed parsed{status, result.width, result.height, result.depth, result.count, {}};
    for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) {
        if (result.pBuffer[i] == nullptr) continue;
        parsed.frames.emplace_back(reinterpret_cast<char*>(result.pBuffer[i]),
                                   static_cast<size_t>(result.nBufSize[i]));
        std::free(result.pBuffer[i]);
    }
    return parsed;
}

struct PvrCase {
    const char* fixture;
    int encodeType;  // 1 MPEG-2, decoded from memory; 2 H.264, through an ".es" file
    int count, width, height;
};
void PrintTo(const PvrCase& c, std::ostream* os) { *os << c.fixture; }

class PvrKeyFrameTest : public VideoGrabberTest, public ::testing::WithParamInterface<PvrCase> {};

// Key frames are stored beside the ".srf" (links replaced, not written through; no ".es" left),
// parsed back as their pictures and served scaled.
TEST_P(PvrKeyFrameTest, KeyFramesAreStoredAndServed) {
    const PvrCase& c = GetParam();
    const std::string srf = root.Path() + "/rec/show.srf", mta = root.Path() + "/rec/show.mta";
    fs::create_directories(root.Path() + "/rec");
    const std::string victim = root.WriteFile("victim.txt", "keep me");
    fs::create_symlink(victim, mta);
    if (c.encodeType == 2) {
        fs::create_directories(root.Resolve(kDataDir));
        fs::create_symlink(victim, root.Resolve(kDataDir) + "show-0.es");
    }
    const MediaFacts facts = ReadMediaFacts(VideoFixture(c.fixture), c.count);
    std::vector<_key_frame> keys = KeyFrames(facts, c.encodeType);
    ASSERT_EQ(set_pvr_key_frame(keys.data(), c.count, c.width, c.height, srf.c_str()), 0);
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "keep me");
    EXPECT_FALSE(fs::is_symlink(mta));
    EXPECT_EQ(log.Contains("write to " + root.Resolve(kDataDir) + "show-0.es success"),
              c.encodeType == 2);
    EXPECT_EQ(root.CountEntries(kDataDir), 0);
    EXPECT_EQ(fs::file_size(mta), 32u + c.count * (2u + c.width * c.height * 4) + 2u);

    const Parsed parsed = Parse(srf);
    ASSERT_EQ(parsed.status, 0);
    EXPECT_EQ(std::make_pair(parsed.width, parsed.height), std::make_pair(c.width, c.height));
    EXPECT_EQ(parsed.depth, 4);
    ASSERT_EQ(parsed.count, c.count);
    ASSERT_EQ(parsed.frames.size(), static_cast<size_t>(c.count));
    const int w = c.width / 2, h = c.height / 2;
    const RecordedResult served = rec.Request(srf, MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, w, h, 0, 4);
    ASSERT_EQ(served.count, std::min(4, c.count));
    EXPECT_EQ(served.depth, 32);
    for (int i = 0; i < c.count; ++i) {
        const double grey = MeanOf(parsed.frames[i], c.width, 0, 0, c.width, c.height).Grey();
        EXPECT_NEAR(grey / 255.0 * facts.durationUs / 1000.0, facts.keyTimesMs[i], 80.0) << i;
        EXPECT_EQ(static_cast<unsigned char>(parsed.frames[i][3]), 255) << "opaque";
        if (i < served.count)
            EXPECT_NEAR(MeanOf(served.buffers[i], w, 0, 0, w, h).Grey(), grey, 3.0);
    }
}

INSTANTIATE_TEST_SUITE_P(Recordings, PvrKeyFrameTest,
                         ::testing::Values(PvrCase{"fade_mpeg2_720x576i_2s.ts", 1, 3, 160, 90},
                                           PvrCase{"fade_h264_720x576i_2s.ts", 2, 2, 96, 96},
                                           PvrCase{"fade_h264_640x360_3s_bframes.ts", 2, 5, 64,
                                                   36}));

// Bad arguments, an unknown codec or a noise frame: -1, no file left. The reader takes the limits
// (five frames, depth 10, no trailer) only; three-byte pixels give no recording thumbnail.
TEST_F(VideoGrabberTest, RecordingsRefuseWhatCannotBeStoredOrServed) {
    const std::string srf = root.Path() + "/rec/show.srf";
    fs::create_directories(root.Path() + "/rec");
    const MediaFacts facts = ReadMediaFacts(VideoFixture("fade_mpeg2_320x240_3s.ts"), 5);
    std::vector<_key_frame> frames = KeyFrames(facts, 1);
    frames.push_back(frames[0]);  // a sixth
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 6, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 0, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(log.Count("parameter error"), 2);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 16, 16, (root.Path() + "/rec/a.ts").c_str()), -1);
    EXPECT_TRUE(log.Contains("the path is not srf path"));
    frames[0].encode_type = 3;
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 16, 16, srf.c_str()), -1);
    EXPECT_TRUE(log.Contains("Codec not found"));
    const std::string noise(4096, '\x5a');
    for (int type : {1, 2}) {
        frames = KeyFrames(facts, 1);
        frames[1].buffer = reinterpret_cast<const unsigned char*>(noise.data());
        frames[1].buffer_size = static_cast<int>(noise.size());
        frames[1].encode_type = type;
        EXPECT_EQ(set_pvr_key_frame(frames.data(), 2, 16, 16, srf.c_str()), -1);
    }
    EXPECT_EQ(log.Count("m_DecodeFrame fail"), 3) << "the unknown codec and both noise frames";
    EXPECT_EQ(root.CountEntries(kDataDir), 0);
    EXPECT_EQ(root.CountEntries("/rec"), 0);

    log.Clear();
    root.WriteFile("rec/six.mta", BuildMta(2, 2, 4, 6, std::vector<std::string>(6, "0123")));
    EXPECT_EQ(Parse(root.Path() + "/rec/six.srf").status, -1);
    EXPECT_TRUE(log.Contains("get width, height, depth, count fail"));
    EXPECT_EQ(Parse(root.Path() + "/rec/six.ts").status, -1);
    EXPECT_TRUE(log.Contains("the path is not srf path"));
    EXPECT_EQ(parse_pvr_mta_file(srf.c_str(), nullptr), -1);
    const std::string edge = BuildMta(1, 1, 10, 5, std::vector<std::string>(5, "0123456789"));
    root.WriteFile("rec/edge.mta", edge.substr(0, edge.size() - 2));
    const Parsed parsed = Parse(root.Path() + "/rec/edge.srf");
    EXPECT_EQ(std::make_pair(parsed.status, parsed.count), std::make_pair(0, 5));
    EXPECT_EQ(parsed.frames.at(4), "0123456789");
    root.WriteFile("rec/rgb.mta", BuildMta(2, 2, 3, 1, {std::string(12, 'x')}));
    for (const char* name : {"/rec/none.srf", "/rec/rgb.srf"}) {
        EXPECT_EQ(rec.Request(root.Path() + name, MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, 16, 16).status,
                  -1);
    }
}

}  // namespace
