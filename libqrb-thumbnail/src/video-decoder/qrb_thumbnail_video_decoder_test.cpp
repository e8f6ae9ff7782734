// One video decoder at a time, outside the C interface: the binding of the media decoding table
// against real shared libraries, the worker over a list and cache of the test's own, and the
// video MTA file against hostile files. What the worker answers through the C interface is
// tested with real videos in qrb_video_grabber_test.cpp; the centre crop of each frame, with the
// image's tests; the temporary file and rename under every MTA write, with common/util's tests.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_mta_bytes.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_fake_control.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::BuildMta;
using qrbtest::CallbackRecorder;
using qrbtest::IntactVideoMta;
using qrbtest::MtaPixels;
using qrbtest::VideoFixture;

constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";
constexpr auto kWait = 20s;

// Each test starts and ends with an empty table: it is process-wide.
class VideoDecoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }
    void TearDown() override { g_QRBFFmpegApi = QRBFFmpegApi{}; }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
};

// ---------------------------------------------------------------------------------------------
// The binding: stand-ins for the plug-ins with one name left out (each stand-in aborts when
// called, so a test that reaches one fails loudly). The plug-ins this project builds bind in
// every grabber test.

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
                      BindCase{"NoSeekAvailable", QRB_STUB_DECODER_NO_SEEK_AVAILABLE,
                               QRB_STUB_SCALER, true, "initialize ffmpeg api success.", true, true},
                      BindCase{"NoScale", QRB_STUB_DECODER, QRB_STUB_SCALER_NO_SCALE, false,
                               "get av sws scale func pointer failed", true, false}),
    [](const ::testing::TestParamInfo<BindCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Workers over the test's own list and cache.

class VideoWorkerTest : public VideoDecoderTest {
protected:
    void SetUp() override {
        VideoDecoderTest::SetUp();
        ASSERT_TRUE(list.Create());
        ASSERT_TRUE(cache.Create());
    }
    void TearDown() override {
        for (auto& decoder : decoders) decoder->Destroy();
        list.Destroy();
        cache.Destroy();
        VideoDecoderTest::TearDown();
    }
    CQRBThumbnailVideoDecoder& Start() {
        decoders.emplace_back(new CQRBThumbnailVideoDecoder);
        EXPECT_TRUE(decoders.back()->Create(static_cast<int>(decoders.size()) - 1, &list, &cache));
        return *decoders.back();
    }
    _stRequestedItem Make(const std::string& url, qrb_media_thumbnail_type kind, int tag) {
        _stRequestedItem r;
        r.strURL = url;
        r.eThumbnailType = kind;
        r.width = 8;
        r.height = 6;
        r.callback = &CallbackRecorder::Callback;
        r.FrameCount = 1;
        r.user_data = rec.Tag(tag);
        return r;
    }

    CallbackRecorder rec;
    CQRBThumbRequestList list;
    CQRBThumbCache cache;
    std::vector<std::unique_ptr<CQRBThumbnailVideoDecoder>> decoders;
};

TEST_F(VideoWorkerTest, EveryTakenRequestGetsExactlyOneEvent) {
    const qrb_media_thumbnail_type kinds[] = {THUMB_VIDEO,          THUMB_PVR,
                                              THUMB_SERIAL_PICTURE, THUMB_SERIAL_MUSIC,
                                              THUMB_SERIAL_VIDEO,   THUMB_RA};
    constexpr int kRequests = 36;
    for (int i = 0; i < kRequests; ++i) {
        _stRequestedItem r = Make("/media/mixed" + std::to_string(i) + ".mp4", kinds[i % 6], i);
        r.FrameCount = (i % 4 == 0) ? 5 : 1;
        r.bUsedCache = (i % 3 == 0);
        if (i % 7 == 0) r.width = -5;  // refused: "Invalid parameter..."
        list.Insert(r);
    }
    for (int i = 0; i < 4; ++i) Start();
    ASSERT_TRUE(rec.WaitForCount(kRequests, kWait));
    std::this_thread::sleep_for(200ms);  // four poll periods: a second event would show by now
    EXPECT_EQ(rec.Count(), static_cast<size_t>(kRequests));
    EXPECT_EQ(rec.PerUser().size(), static_cast<size_t>(kRequests));
    EXPECT_EQ(list.Size(), 0);
    EXPECT_EQ(log.Count("Invalid parameter..."), 2) << "the video kinds' negative widths";
}

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

TEST_F(VideoWorkerTest, StopGivesUpTheVideoBeingDecodedAndTheWorkerServesOn) {
    qrbtest::InstallMediaPlugins(root, QRB_MEDIA_PLUGIN_GATED_DECODER);
    fs::create_directories(root.Resolve(kVideoDir));
    CQRBThumbnailVideoDecoder& decoder = Start();
    ASSERT_TRUE(decoder.MediaDecodingReady());
    auto setGate = reinterpret_cast<void (*)(void (*)())>(
        dlsym(g_QRBFFmpegApi.decoder_library, "qrb_test_set_read_gate"));
    ASSERT_NE(setGate, nullptr);
    g_gateLog = &log;
    g_held = false;
    g_stopping = &decoder;
    setGate(&GateRead);
    _stRequestedItem request =
        Make("stopped;" + VideoFixture("fade_hevc_320x240_3s.mkv"), THUMB_VIDEO, 0);
    request.FrameCount = 5;
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

TEST_F(VideoWorkerTest, DestroyEndsTheThread) {
    CQRBThumbnailVideoDecoder& decoder = Start();
    // Counted once the worker runs (a sanitizer may add a thread of its own at the first start).
    const int running = qrbtest::ThreadCount();
    decoder.Destroy();
    EXPECT_EQ(qrbtest::ThreadCount(), running - 1);
    decoder.Destroy();  // a second time does nothing
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
        {"width 10001", BuildMta(10001, 1, 1, 1, {px}, {0}),
         "get width, height, depth, count fail"},
        {"frames out of order", patched(33, '1'), "frame[0] marker mismatch"},
        {"fewer frames than counted", BuildMta(2, 2, 4, 5, {px, px}, {0, 0}), "mta file size"},
        // 5 GB announced in a few bytes: refused before any frame is allocated.
        {"size lie", BuildMta(10000, 10000, 10, 5, {std::string(64, 'x')}, {1}),
         "less than 5000000062 for 5 frames of 10000x10000x10"},
        {"empty file", "", "too short"},
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

}  // namespace
