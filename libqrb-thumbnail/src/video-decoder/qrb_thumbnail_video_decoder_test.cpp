// The video worker: through the C interface on the single variant (media 0 on device 100 is
// kind 2), directly over a list and cache of the test's own, and its frame callback, DRM gate
// and file opening one by one. The media plug-ins are absent unless a case says otherwise, so
// video frames are never decoded here; five-frame results come from MTA files.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_mta_bytes.h"

#include "qrb_fake_control.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::BuildVideoMta;
using qrbtest::CallbackRecorder;
using qrbtest::IntactVideoMta;
using qrbtest::MtaFrame;
using qrbtest::MtaPixels;
using qrbtest::RecordedResult;

constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";
constexpr auto kWait = 20s;

// ---------------------------------------------------------------------------------------------
// Through the C interface.

class VideoDecoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override {
        thumbnail_finalize();
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }

    void Request(const std::string& url, qrb_item_media_type media, qrb_extend_dev_type dev,
                 int tag, unsigned char frames = 1, int width = 160, int height = 90,
                 int usedCache = 0) {
        thumbnail_request_async(url.c_str(), media, dev, 0, width, height, usedCache, frames,
                                &CallbackRecorder::Callback, rec.Tag(tag));
    }
    void RequestVideo(const std::string& url, int tag, unsigned char frames = 1) {
        Request(url, MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, tag, frames);
    }
    std::vector<RecordedResult> WaitForResults(size_t n) {
        EXPECT_TRUE(rec.WaitForCount(n, kWait)) << "only " << rec.Count() << " of " << n;
        return rec.Results();
    }
    void WriteMta(const std::string& id, const std::string& bytes) {
        root.WriteFile(std::string(kVideoDir).substr(1) + id + ".mta", bytes);
    }

    qrbtest::ScratchRoot root;  // before thumbnail_init, so every fixed path lands in it
    qrbtest::LogCapture log;
    CallbackRecorder rec;
};

TEST_F(VideoDecoderTest, EveryVideoRequestFailsWhenThePluginsAreMissing) {
    // The workers bind the table when they take their first video, not when the service starts.
    EXPECT_EQ(log.Count("dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed."), 0);
    RequestVideo("/media/a.mp4", 0);
    RequestVideo("/media/b.mkv", 1);
    RequestVideo("/media/c.avi", 2);
    auto results = WaitForResults(3);
    ASSERT_EQ(results.size(), 3u);
    for (const auto& r : results) {
        EXPECT_EQ(r.status, -1) << r.url;
        EXPECT_EQ(r.count, 0);
    }
    EXPECT_EQ(rec.PerUser().size(), 3u);
    EXPECT_EQ(log.Count("need Extract..."), 3);
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 3);
    EXPECT_EQ(log.Count("decode with arcplayer fail"), 3);
    EXPECT_EQ(log.Count("no need to flash"), 3);
    EXPECT_GE(log.Count("dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed."), 1);
    EXPECT_TRUE(fs::is_directory(root.Resolve(kVideoDir))) << "the worker makes the video folder";
}

TEST_F(VideoDecoderTest, FiveFrameRequestIsAnsweredFromAnIntactMtaFile) {
    // The service wiped the folder when it started; the file is written afterwards.
    const std::vector<uint32_t> stamps = {100000, 200000, 300000, 400000, 0xFFFFFFFFu};
    WriteMta("clip42", IntactVideoMta(4, 3, 4, stamps));
    Request("clip42;/media/movie.mp4", MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, 0, 5, 4, 3, 1);

    auto results = WaitForResults(1);
    ASSERT_EQ(results.size(), 1u);
    const RecordedResult& r = results[0];
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, "clip42;/media/movie.mp4");
    EXPECT_EQ(r.count, 5);
    EXPECT_EQ(r.width, 4);
    EXPECT_EQ(r.height, 3);
    EXPECT_EQ(r.depth, 4);
    const std::vector<long long> expectedStamps = {100000, 200000, 300000, 400000, -1};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(r.sizes[i], 48);
        EXPECT_EQ(r.buffers[i], MtaPixels(4, 3, 4, i));
        EXPECT_EQ(r.timestamps[i], expectedStamps[i]);
    }
    EXPECT_TRUE(log.Contains("parse mta success"));
    EXPECT_FALSE(log.Contains("need Extract..."));
    EXPECT_FALSE(log.Contains("Cache Found"));  // five-frame results bypass the cache
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0) << "nothing about the video itself was touched";
}

TEST_F(VideoDecoderTest, CorruptMtaFilesAreRejectedAndTheRequestsFail) {
    std::string badMarkers = IntactVideoMta(2, 2, 4, {1, 2, 3, 4, 5});
    badMarkers[33] = '1';  // first frame marked as the second
    WriteMta("markers", badMarkers);
    WriteMta("deep", BuildVideoMta(2, 2, 11, 1, {{0, std::string(44, 'd')}}));
    WriteMta("liar", BuildVideoMta(10000, 10000, 10, 5, {{0, std::string(32, 'x')}}));
    WriteMta("many", BuildVideoMta(1, 1, 4, 200, {{0, "abcd"}}));
    RequestVideo("markers;/media/a.mp4", 0, 5);
    RequestVideo("deep;/media/b.mp4", 1, 5);
    RequestVideo("liar;/media/c.mp4", 2, 5);
    RequestVideo("many;/media/d.mp4", 3, 5);

    auto results = WaitForResults(4);
    for (const auto& r : results) EXPECT_EQ(r.status, -1) << r.url;
    EXPECT_TRUE(log.Contains("frame[0] marker mismatch"));
    EXPECT_TRUE(log.Contains("image_width=2, image_height=2, image_depth=11, frame_count=1"));
    EXPECT_TRUE(log.Contains("less than 5000000062 for 5 frames of 10000x10000x10"));
    EXPECT_TRUE(log.Contains("image_width=1, image_height=1, image_depth=4, frame_count=200"));
    EXPECT_EQ(log.Count("get width, height, depth, count fail"), 2);
    EXPECT_FALSE(log.Contains("parse mta success"));
    // Each falls back to extraction, which fails here; with no frames nothing is rewritten.
    EXPECT_EQ(log.Count("need Extract..."), 4);
    EXPECT_EQ(log.Count("there is no thumbnail to be saved."), 4);
    EXPECT_EQ(log.Count("WriteVideoMtaFile fail!"), 4);
}

TEST_F(VideoDecoderTest, ThreeBytePixelsAreDeliveredWithoutReadingPastTheBuffer) {
    std::vector<MtaFrame> frames;
    for (int i = 0; i < 2; ++i) frames.push_back({static_cast<uint32_t>(i), MtaPixels(2, 2, 3, i)});
    WriteMta("rgb", BuildVideoMta(2, 2, 3, 2, frames));
    RequestVideo("rgb;/media/rgb.mp4", 0, 5);
    auto results = WaitForResults(1);
    ASSERT_EQ(results.size(), 1u);
    const RecordedResult& r = results[0];
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.depth, 3);
    for (int i = 0; i < 2; ++i) {
        // The event path hands out width x height x 4 bytes; the 12 stored ones come first and
        // the rest reads as zero.
        ASSERT_EQ(r.buffers[i].size(), 16u);
        EXPECT_EQ(r.buffers[i].substr(0, 12), MtaPixels(2, 2, 3, i));
        EXPECT_EQ(r.buffers[i].substr(12), std::string(4, '\0'));
    }
}

TEST_F(VideoDecoderTest, FailedFiveFrameRequestWritesNoMtaFile) {
    RequestVideo("nothing;/media/none.mp4", 0, 5);
    auto results = WaitForResults(1);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, -1);
    EXPECT_TRUE(log.Contains("open " + root.Resolve(kVideoDir) + "nothing.mta fail"));
    EXPECT_TRUE(log.Contains("WriteVideoMtaFile fail!"));
    EXPECT_EQ(root.CountEntries(kVideoDir), 0);
}

TEST_F(VideoDecoderTest, SerialKindsAreServedOneAtATime) {
    const std::string dir = root.Path() + "/media/";
    Request(dir + "p.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_SERIAL_FIRST, 0);  // kind 13
    Request(dir + "m.mp3", MEDIA_TYPE_MUSIC, DEV_TYPE_SERIAL_FIRST, 1);    // kind 14
    Request(dir + "v.mp4", MEDIA_TYPE_VIDEO, DEV_TYPE_SERIAL_LAST, 2, 5);  // kind 15
    auto results = WaitForResults(3);
    std::this_thread::sleep_for(200ms);  // four poll periods: a second event would show by now
    EXPECT_EQ(rec.Count(), 3u);
    for (const auto& r : results) EXPECT_EQ(r.status, -1) << r.url;  // none of the files exists
    for (const auto& [user, n] : rec.PerUser()) EXPECT_EQ(n, 1);
    EXPECT_FALSE(log.Contains("is not served by the video decoder"));
    EXPECT_EQ(log.Count("need Extract..."), 1) << "the serial video is grabbed like any video";
}

TEST_F(VideoDecoderTest, RecordingPtpAndRaRequestsGoToTheExtractor) {
    const std::string dir = root.Path() + "/media/";
    Request(dir + "rec.srf", MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, 0);    // kind 5
    Request(dir + "cam.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_PTP, 1);  // kind 6
    Request(dir + "ra.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_RA, 2);    // kind 12
    auto results = WaitForResults(3);
    for (const auto& r : results) EXPECT_EQ(r.status, -1) << r.url;
    for (int kind : {5, 6, 12}) {
        EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=" + std::to_string(kind)));
    }
    EXPECT_FALSE(log.Contains("need Extract..."));
    EXPECT_FALSE(log.Contains("is not served by the video decoder"));
}

TEST_F(VideoDecoderTest, VideoUrlIsSplitIntoMediaIdAndPath) {
    qrbfake::DrmMarkProtected("/media/y.mp4");
    qrbfake::DrmMarkProtected("/media/plain.mp4");
    qrbfake::DrmMarkProtected("a;b;/media/x.mp4");
    RequestVideo("id;/media/y.mp4", 0);   // two parts: the second is the path
    RequestVideo("/media/plain.mp4", 1);  // one part: the whole URL
    RequestVideo("a;b;/media/x.mp4", 2);  // three parts: the whole URL as well
    auto results = WaitForResults(3);
    for (const auto& r : results) EXPECT_EQ(r.status, -1) << r.url;
    EXPECT_EQ(log.Count("it is drm file"), 3);
    EXPECT_FALSE(log.Contains("dlopen or dlsym fail"));
    EXPECT_TRUE(log.Contains("szURI:/media/y.mp4."));
    EXPECT_TRUE(log.Contains("szURI:a;b;/media/x.mp4."));
}

TEST_F(VideoDecoderTest, MediaIdThatWouldLeaveTheVideoFolderIsNotUsed) {
    root.WriteFile("opt/usr/apps/orvale/data/escape.mta", IntactVideoMta(1, 1, 4, {1}));
    RequestVideo("../escape;/media/z.mp4", 0, 5);
    auto results = WaitForResults(1);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, -1);
    EXPECT_TRUE(log.Contains("media id [../escape] is not a file name"));
    EXPECT_FALSE(log.Contains("parse mta success"));
    EXPECT_TRUE(log.Contains("media id empty!!"));
}

TEST_F(VideoDecoderTest, ProtectedFileIsRefusedBeforeDecoding) {
    qrbfake::DrmMarkProtected("/media/locked.mp4");
    RequestVideo("7;/media/locked.mp4", 0);
    auto results = WaitForResults(1);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, -1);
    EXPECT_TRUE(log.Contains("it is drm file"));
    EXPECT_FALSE(log.Contains("dlopen or dlsym fail"));
    EXPECT_FALSE(log.Contains("decode with arcplayer fail"));
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 1);
    EXPECT_EQ(qrbfake::DrmCloseCalls(), 1);
}

TEST_F(VideoDecoderTest, DrmManagerFailuresCountAsUnprotected) {
    qrbfake::DrmSetMode(qrbfake::DrmMode::kManagerError);
    RequestVideo("/media/e.mp4", 0);
    ASSERT_EQ(WaitForResults(1).size(), 1u);
    EXPECT_TRUE(log.Contains("can not get drm manager"));
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 1) << "the request went on towards decoding";

    qrbfake::DrmSetMode(qrbfake::DrmMode::kNullManager);
    RequestVideo("/media/n.mp4", 1);
    auto results = WaitForResults(2);
    EXPECT_TRUE(log.Contains("get drm manager return no error, but is null!!"));
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 2);
    for (const auto& r : results) EXPECT_EQ(r.status, -1);
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0);
}

// ---------------------------------------------------------------------------------------------
// One worker or several over the test's own list and cache.

struct Gate {
    std::mutex mutex;
    std::condition_variable cond;
    bool entered = false;
    bool released = false;
};
Gate* g_gate = nullptr;

int BlockingCallback(int, _thumb_result* result, void*) {
    for (auto* buffer : result->pBuffer) free(buffer);
    free(result->buffer_preset);
    std::unique_lock<std::mutex> lock(g_gate->mutex);
    g_gate->entered = true;
    g_gate->cond.notify_all();
    g_gate->cond.wait(lock, [] { return g_gate->released; });
    return 0;
}

class VideoWorkerTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
        fs::create_directories(root.Resolve("/opt/usr/apps/orvale/data/"));
        ASSERT_TRUE(list.Create());
        ASSERT_TRUE(cache.Create());
    }
    void TearDown() override {
        for (auto& decoder : decoders) decoder->Destroy();
        decoders.clear();
        list.Destroy();
        cache.Destroy();
        g_QRBFFmpegApi = QRBFFmpegApi{};
    }

    CQRBThumbnailVideoDecoder& Start() {
        decoders.emplace_back(new CQRBThumbnailVideoDecoder);
        EXPECT_TRUE(decoders.back()->Create(static_cast<int>(decoders.size()) - 1, &list, &cache));
        return *decoders.back();
    }

    _stRequestedItem Make(const std::string& url, qrb_media_thumbnail_type kind, int tag) {
        _stRequestedItem r;
        r.strURL = url;
        r.RID = -1;
        r.eThumbnailType = kind;
        r.width = 8;
        r.height = 6;
        r.callback = &CallbackRecorder::Callback;
        r.FrameCount = 1;
        r.user_data = rec.Tag(tag);
        return r;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CallbackRecorder rec;
    CQRBThumbRequestList list;
    CQRBThumbCache cache;
    std::vector<std::unique_ptr<CQRBThumbnailVideoDecoder>> decoders;
};

boost::intrusive_ptr<CQRBThumbnailItem> CachedItem(const std::string& url, int w, int h,
                                                   const std::string& pixels) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    unsigned char* buffer = static_cast<unsigned char*>(std::malloc(pixels.size()));
    std::memcpy(buffer, pixels.data(), pixels.size());
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 4, w * 4, buffer, 1234);
    image->SetBufSize(static_cast<long>(pixels.size()));
    item->AddImage(image);
    item->SetRID(-1);
    item->SetURL(url);
    item->SetThumbnailType(THUMB_VIDEO);
    item->SetSize(w * h * 4);
    return item;
}

TEST_F(VideoWorkerTest, CachedFrameIsServedWithoutExtracting) {
    const std::string pixels = MtaPixels(8, 6, 4, 3);
    cache.Insert(CachedItem("/media/cached.mp4", 8, 6, pixels));
    _stRequestedItem sameSize = Make("/media/cached.mp4", THUMB_VIDEO, 0);
    sameSize.bUsedCache = true;
    list.Insert(sameSize);
    _stRequestedItem anySize = Make("/media/cached.mp4", THUMB_VIDEO, 1);
    anySize.bUsedCache = true;
    anySize.width = anySize.height = 0;
    list.Insert(anySize);
    Start();

    ASSERT_TRUE(rec.WaitForCount(2, kWait));
    for (const auto& r : rec.Results()) {
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.count, 1);
        EXPECT_EQ(r.buffers[0], pixels);
        EXPECT_EQ(r.timestamps[0], 1234);
    }
    EXPECT_EQ(log.Count("Cache Found=1"), 2);
    EXPECT_FALSE(log.Contains("need Extract..."));
}

TEST_F(VideoWorkerTest, CachedFrameOfAnotherSizeIsNoAnswer) {
    cache.Insert(CachedItem("/media/cached.mp4", 8, 6, MtaPixels(8, 6, 4, 0)));
    _stRequestedItem request = Make("/media/cached.mp4", THUMB_VIDEO, 0);
    request.bUsedCache = true;
    request.width = 4;
    request.height = 3;
    list.Insert(request);
    Start();
    ASSERT_TRUE(rec.WaitForCount(1, kWait));
    EXPECT_EQ(rec.Results()[0].status, -1);
    EXPECT_TRUE(log.Contains("Cache Found=0"));
    EXPECT_TRUE(log.Contains("need Extract..."));
    EXPECT_EQ(cache.Count(), 1) << "a failure is not cached";
}

TEST_F(VideoWorkerTest, InvalidParametersAreRefused) {
    _stRequestedItem request = Make("/media/neg.mp4", THUMB_VIDEO, 0);
    request.width = -1;
    list.Insert(request);
    Start();
    ASSERT_TRUE(rec.WaitForCount(1, kWait));
    EXPECT_EQ(rec.Results()[0].status, -1);
    EXPECT_TRUE(log.Contains("Invalid parameter..."));
    EXPECT_EQ(qrbfake::DrmOpenCalls() + qrbfake::DrmCloseCalls(), 0);

    CQRBThumbnailVideoDecoder& decoder = *decoders[0];
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem empty = Make("", THUMB_VIDEO, 1);
    EXPECT_FALSE(
        decoder.Extract(empty, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, nullptr));
    _stRequestedItem fine = Make("/media/fine.mp4", THUMB_VIDEO, 2);
    EXPECT_FALSE(decoder.Extract(fine, item, nullptr, nullptr));
    EXPECT_EQ(log.Count("Invalid parameter..."), 3);
}

TEST_F(VideoWorkerTest, EveryTakenRequestGetsExactlyOneEvent) {
    const qrb_media_thumbnail_type kinds[] = {THUMB_VIDEO,          THUMB_PVR,
                                              THUMB_SERIAL_PICTURE, THUMB_SERIAL_MUSIC,
                                              THUMB_SERIAL_VIDEO,   THUMB_RA};
    constexpr int kRequests = 36;
    for (int i = 0; i < kRequests; ++i) {
        _stRequestedItem r = Make("/media/mixed" + std::to_string(i) + ".mp4", kinds[i % 6], i);
        r.FrameCount = (i % 4 == 0) ? 5 : 1;
        r.bUsedCache = (i % 3 == 0);
        if (i % 7 == 0) r.width = -5;
        list.Insert(r);
    }
    for (int i = 0; i < 4; ++i) Start();
    ASSERT_TRUE(rec.WaitForCount(kRequests, kWait));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(rec.Count(), static_cast<size_t>(kRequests));
    auto perUser = rec.PerUser();
    EXPECT_EQ(perUser.size(), static_cast<size_t>(kRequests));
    for (const auto& [user, n] : perUser) EXPECT_EQ(n, 1);
    EXPECT_EQ(list.Size(), 0);
}

TEST_F(VideoWorkerTest, StopWaitsForTheRequestBeingServed) {
    Gate gate;
    g_gate = &gate;
    _stRequestedItem request = Make("/media/slow.mp4", THUMB_SERIAL_VIDEO, 0);
    request.callback = &BlockingCallback;
    list.Insert(request);
    CQRBThumbnailVideoDecoder& decoder = Start();
    {
        std::unique_lock<std::mutex> lock(gate.mutex);
        ASSERT_TRUE(gate.cond.wait_for(lock, kWait, [&] { return gate.entered; }));
    }
    EXPECT_TRUE(decoder.Busy());
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        decoder.Stop();
        stopped = true;
    });
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(stopped) << "Stop returned while the request was still being answered";
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.released = true;
    }
    gate.cond.notify_all();
    stopper.join();
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(decoder.Busy());
    g_gate = nullptr;
}

TEST_F(VideoWorkerTest, StopReturnsWhileIdleAndLeavesTheThreadRunning) {
    CQRBThumbnailVideoDecoder& decoder = Start();
    EXPECT_TRUE(decoder.Stop());
    EXPECT_TRUE(decoder.FlagCreate());
    list.Insert(Make("/media/after-stop.mp4", THUMB_SERIAL_MUSIC, 0));
    ASSERT_TRUE(rec.WaitForCount(1, kWait)) << "the worker still serves after Stop";
}

TEST_F(VideoWorkerTest, DestroyEndsTheThreadWithinBoundedTime) {
    CQRBThumbnailVideoDecoder& decoder = Start();
    // Counted once the worker runs (a sanitizer may add a thread of its own at the first start).
    const int running = qrbtest::ThreadCount();
    const auto start = std::chrono::steady_clock::now();
    decoder.Destroy();
    // The worker sees the stop flag after at most one 50 ms poll; the bound is generous.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_FALSE(decoder.FlagCreate());
    EXPECT_EQ(qrbtest::ThreadCount(), running - 1);
    EXPECT_TRUE(log.Contains("t_Process end"));
    decoder.Destroy();  // a second time does nothing
}

TEST_F(VideoWorkerTest, CreateRefusesANullListOrCache) {
    const int before = qrbtest::ThreadCount();
    CQRBThumbnailVideoDecoder decoder;
    EXPECT_FALSE(decoder.Create(0, nullptr, &cache));
    EXPECT_FALSE(decoder.Create(0, &list, nullptr));
    EXPECT_FALSE(decoder.FlagCreate());
    EXPECT_EQ(qrbtest::ThreadCount(), before);
}

// ---------------------------------------------------------------------------------------------
// The frame callback.

unsigned char* RowNumbered(int w, int h) {
    // Each pixel holds (x, y, 0, 255) in the low bytes, so a crop origin can be read back.
    unsigned char* buffer =
        static_cast<unsigned char*>(std::malloc(static_cast<size_t>(w) * h * 4));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            unsigned char* p = buffer + (static_cast<size_t>(y) * w + x) * 4;
            p[0] = static_cast<unsigned char>(x);
            p[1] = static_cast<unsigned char>(y);
            p[2] = 0;
            p[3] = 255;
        }
    }
    return buffer;
}

class VideoFrameCallbackTest : public ::testing::Test {
protected:
    VideoFrameCallbackTest() : item(new CQRBThumbnailItem) {
        request.strURL = "9;/media/frame.mp4";
        request.RID = 31;
        request.eThumbnailType = THUMB_VIDEO;
        request.bUsedCache = true;
    }
    bool Frame(unsigned char* buffer, int w, int h, long long stamp = 0, char* preset = nullptr) {
        return CQRBThumbnailVideoDecoder::Video_Complete_Cb(request, buffer, preset, stamp, w, h,
                                                            nullptr, item);
    }

    qrbtest::LogCapture log;
    _stRequestedItem request;
    boost::intrusive_ptr<CQRBThumbnailItem> item;
};

TEST_F(VideoFrameCallbackTest, CropsTheCentreOfAFrameThatCoversTheRequest) {
    // 1920 x 1080 asked as 200 x 100 is scaled to 200 x 112, then cropped at y = 6.
    request.width = 200;
    request.height = 100;
    ASSERT_TRUE(Frame(RowNumbered(200, 112), 200, 112, 4004000));
    ASSERT_EQ(item->GetImageCount(), 1);
    const auto& image = item->GetImages()[0];
    EXPECT_EQ(image->GetWidth(), 200);
    EXPECT_EQ(image->GetHeight(), 100);
    EXPECT_EQ(image->GetDepth(), 4);
    EXPECT_EQ(image->GetTimeStamp(), 4004000);
    const unsigned char* p = image->GetBuffer();
    EXPECT_EQ(p[0], 0);
    EXPECT_EQ(p[1], 6) << "first row is source row 6";
    const unsigned char* last = p + (99 * 200 + 199) * 4;
    EXPECT_EQ(last[0], 199);
    EXPECT_EQ(last[1], 105);
    EXPECT_EQ(item->GetSize(), 200 * 100 * 4);
    EXPECT_EQ(item->GetRID(), 31);
    EXPECT_EQ(item->GetURL(), "9;/media/frame.mp4");
    EXPECT_EQ(item->GetThumbnailType(), THUMB_VIDEO);
    EXPECT_TRUE(item->GetUsedCache());
}

TEST_F(VideoFrameCallbackTest, CropsBothAxesWithIntegerHalves) {
    request.width = 10;
    request.height = 4;
    ASSERT_TRUE(Frame(RowNumbered(15, 9), 15, 9));
    const auto& image = item->GetImages()[0];
    EXPECT_EQ(image->GetWidth(), 10);
    EXPECT_EQ(image->GetHeight(), 4);
    EXPECT_EQ(image->GetBuffer()[0], 2);  // (15 - 10) / 2
    EXPECT_EQ(image->GetBuffer()[1], 2);  // (9 - 4) / 2
}

TEST_F(VideoFrameCallbackTest, FrameThatDoesNotCoverTheRequestIsKeptWhole) {
    for (auto size : {std::pair<int, int>{0, 0}, {400, 50}, {100, 300}, {0, 20}}) {
        item = new CQRBThumbnailItem;
        request.width = size.first;
        request.height = size.second;
        ASSERT_TRUE(Frame(RowNumbered(120, 60), 120, 60));
        EXPECT_EQ(item->GetImages()[0]->GetWidth(), 120);
        EXPECT_EQ(item->GetImages()[0]->GetHeight(), 60);
        EXPECT_EQ(item->GetSize(), 120 * 60 * 4);
    }
}

TEST_F(VideoFrameCallbackTest, PresetIsCopiedIntoTheItem) {
    char preset[] = "brightness=3";
    EXPECT_FALSE(Frame(nullptr, 10, 10, 0, preset)) << "no frame, but the preset is kept";
    ASSERT_NE(item->GetPreset(), nullptr);
    EXPECT_STREQ(item->GetPreset(), "brightness=3");
    EXPECT_EQ(item->GetPreset()[QRB_THUMB_PRESET_SIZE - 1], '\0');
    EXPECT_TRUE(log.Contains("preset is : [brightness=3]####"));

    char second[] = "x";
    ASSERT_TRUE(Frame(RowNumbered(2, 2), 2, 2, 0, second));
    EXPECT_STREQ(item->GetPreset(), "x");
    EXPECT_EQ(item->GetPreset()[5], '\0') << "refilled with zeros before the copy";
}

TEST_F(VideoFrameCallbackTest, RefusesMissingBufferSizeOrItem) {
    EXPECT_FALSE(Frame(nullptr, 4, 4));
    EXPECT_FALSE(Frame(RowNumbered(4, 4), 0, 4));  // the buffer is freed, not leaked
    EXPECT_FALSE(Frame(RowNumbered(4, 4), 4, 0));
    EXPECT_FALSE(Frame(RowNumbered(4, 4), -4, 4));
    EXPECT_EQ(item->GetImageCount(), 0);
    EXPECT_FALSE(CQRBThumbnailVideoDecoder::Video_Complete_Cb(request, RowNumbered(4, 4), nullptr,
                                                              0, 4, 4, nullptr, nullptr));
}

TEST_F(VideoFrameCallbackTest, ItemHoldsAtMostFiveFrames) {
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(Frame(RowNumbered(2, 2), 2, 2, i));
    EXPECT_FALSE(Frame(RowNumbered(2, 2), 2, 2, 5));
    ASSERT_EQ(item->GetImageCount(), 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(item->GetImages()[i]->GetTimeStamp(), i);
}

// ---------------------------------------------------------------------------------------------
// The DRM gate with the platform double.

class DrmGateTest : public ::testing::Test {
protected:
    void SetUp() override { qrbfake::DrmReset(); }
    void TearDown() override { qrbfake::DrmReset(); }
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBThumbnailVideoDecoder decoder;
};

TEST_F(DrmGateTest, FileTheDrmLibraryOpensIsProtected) {
    qrbfake::DrmMarkProtected("/media/locked.avi");
    EXPECT_TRUE(decoder.m_CheckDrm("/media/locked.avi"));
    EXPECT_TRUE(log.Contains("it is drm file"));
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 1);
    EXPECT_EQ(qrbfake::DrmCloseCalls(), 1);
}

TEST_F(DrmGateTest, OtherFilesAreNotProtectedAndTheManagerIsStillClosed) {
    qrbfake::DrmMarkProtected("/media/locked.avi");
    EXPECT_FALSE(decoder.m_CheckDrm("/media/open.avi"));
    EXPECT_FALSE(log.Contains("it is drm file"));
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 1);
    EXPECT_EQ(qrbfake::DrmCloseCalls(), 1);
}

TEST_F(DrmGateTest, ManagerErrorMeansNotProtected) {
    qrbfake::DrmSetMode(qrbfake::DrmMode::kManagerError);
    qrbfake::DrmMarkProtected("/media/locked.avi");
    EXPECT_FALSE(decoder.m_CheckDrm("/media/locked.avi"));
    EXPECT_TRUE(log.Contains("can not get drm manager"));
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0);
}

TEST_F(DrmGateTest, NullManagerWithoutErrorMeansNotProtected) {
    qrbfake::DrmSetMode(qrbfake::DrmMode::kNullManager);
    qrbfake::DrmMarkProtected("/media/locked.avi");
    EXPECT_FALSE(decoder.m_CheckDrm("/media/locked.avi"));
    EXPECT_TRUE(log.Contains("get drm manager return no error, but is null!!"));
    EXPECT_EQ(qrbfake::DrmOpenCalls(), 0);
    EXPECT_EQ(qrbfake::DrmCloseCalls(), 0);
}

// ---------------------------------------------------------------------------------------------
// Opening a file with FFmpeg directly, and the small file helpers.

std::string TinyY4m() {
    std::string out = "YUV4MPEG2 W16 H8 F25:1 Ip A1:1 C420jpeg\n";
    for (int frame = 0; frame < 2; ++frame) out += "FRAME\n" + std::string(16 * 8 * 3 / 2, '\x80');
    return out;
}

class VideoFileTest : public ::testing::Test {
protected:
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBThumbnailVideoDecoder decoder;
};

TEST_F(VideoFileTest, OpensALocalVideoAndClosesIt) {
    const std::string path = root.WriteFile("media/clip.y4m", TinyY4m());
    AVFormatContext* context = nullptr;
    ASSERT_TRUE(decoder.m_FFMpegInit(path.c_str(), &context));
    ASSERT_NE(context, nullptr);
    ASSERT_EQ(context->nb_streams, 1u);
    EXPECT_EQ(context->streams[0]->codecpar->width, 16);
    EXPECT_EQ(context->streams[0]->codecpar->height, 8);
    EXPECT_TRUE(decoder.m_FFMpegDeInit(&context));
    EXPECT_EQ(context, nullptr);
    EXPECT_TRUE(decoder.m_FFMpegDeInit(nullptr));
}

TEST_F(VideoFileTest, RefusesWhatIsNotALocalVideo) {
    const std::string text = root.WriteFile("media/notes.txt", "just some words, no video\n");
    root.WriteFile("media/clip.y4m", TinyY4m());
    // A playlist that would make the demuxer open another file on its own.
    const std::string playlist =
        root.WriteFile("media/list.ffconcat", "ffconcat version 1.0\nfile clip.y4m\n");
    // The same video offered by a server that answers: it must never be asked.
    qrbtest::LoopbackHttpServer server;
    std::atomic<int> hits{0};
    const std::string video = TinyY4m();
    server.Http().Get(".*", [&](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content(video, "video/x-yuv4mpegpipe");
    });
    ASSERT_TRUE(server.Start());
    for (const std::string& url : {text, playlist, server.Url("/clip.y4m"),
                                   root.Path() + "/absent.mp4"}) {
        SCOPED_TRACE(url);
        log.Clear();
        AVFormatContext* context = nullptr;
        EXPECT_FALSE(decoder.m_FFMpegInit(url.c_str(), &context));
        EXPECT_EQ(context, nullptr);
        EXPECT_TRUE(log.Contains("error : avformat_open_input failed nRet="));
    }
    EXPECT_EQ(hits.load(), 0);
    EXPECT_FALSE(decoder.m_FFMpegInit(nullptr, nullptr));
}

TEST_F(VideoFileTest, FileHelpers) {
    const std::string path = root.WriteFile("media/here.mp4", "x");
    EXPECT_TRUE(decoder.m_IsFileExist(path.c_str()));
    EXPECT_TRUE(decoder.m_IsFileExist(("file://" + path).c_str()));
    EXPECT_FALSE(decoder.m_IsFileExist((root.Path() + "/media/gone.mp4").c_str()));
    EXPECT_TRUE(log.Contains("file [" + root.Path() + "/media/gone.mp4] not found."));

    const std::string flash = root.Path() + "/media/flash.bin";
    ASSERT_TRUE(decoder.m_WriteFlashFile(flash.c_str(), "abc\0def", 7));
    std::ifstream in(flash, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, std::string("abc\0def", 7));
    const std::string nowhere = root.Path() + "/missing/flash.bin";
    EXPECT_FALSE(decoder.m_WriteFlashFile(nowhere.c_str(), "abc", 3));
    EXPECT_TRUE(log.Contains("Failed to create " + nowhere + "  file."));

    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const uint32_t tick = CQRBThumbnailVideoDecoder::m_TimeTick();
    EXPECT_LT(static_cast<uint32_t>(tick - static_cast<uint32_t>(now)), 5000u);
}

}  // namespace
