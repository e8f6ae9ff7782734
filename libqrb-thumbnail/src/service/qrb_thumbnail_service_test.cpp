// The service end to end (reserved kinds run a scripted getter), also under racing threads;
// after every test no thread or file descriptor is left behind.
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_getter.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumb_request_list.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_base_imp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <regex>
#include <thread>
#include <vector>

extern "C" qrb_thumbnail_callback qrb_c_callback_for_tests(void);

namespace {

using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;

TEST(RoutingTest, DeviceDecidesFirstThenMediaTypeThenKindGivesTheVariant) {
    auto type = [](int media, int dev) {
        return static_cast<int>(CQRBThumbnail::GetThumbnailType(static_cast<qrb_item_media_type>(media),
                                                                static_cast<qrb_extend_dev_type>(dev)));
    };
    const int media[] = {0, 1, 2, 3, 4, 5, 6, 99};
    const int ordinary[] = {2, 0, 1, 5, 17, 16, 10, 17};
    const int serial[] = {15, 13, 14, 5, 17, 16, 10, 17};
    for (int i = 0; i < 8; ++i) {
        for (int dev : {100, 105, 0, 119, -1}) EXPECT_EQ(type(media[i], dev), ordinary[i]) << media[i] << "," << dev;
        for (int dev : {107, 113}) EXPECT_EQ(type(media[i], dev), serial[i]) << media[i] << "," << dev;
        for (int dev : {103, 114}) EXPECT_EQ(type(media[i], dev), 6);
        for (int dev : {104, 118}) EXPECT_EQ(type(media[i], dev), 11);
        EXPECT_EQ(type(media[i], 106), 12);
    }
    const int variant[] = {1, 1, 0, 1, 1, 0, 0, 1, 1, 1, 1, 2, 0, 0, 0, 0, 1, 3, 3};
    for (int kind = 0; kind <= 18; ++kind) {
        EXPECT_EQ(CQRBThumbnail::m_GetThumbImpType(static_cast<qrb_media_thumbnail_type>(kind)), variant[kind])
            << kind;
    }
}

// A null callback removes a request silently; images fill their own slots, never read past.
TEST(RequestListTest, EventsFillTheResultOfTheirOwnRequest) {
    CQRBThumbRequestList list;
    ASSERT_TRUE(list.Create());
    CallbackRecorder recorder;
    _stRequestedItem request;
    request.eThumbnailType = THUMB_PICTURE;
    request.user_data = recorder.Tag(1);
    request.callback = &CallbackRecorder::Callback;
    for (const char* url : {"quiet", "ok"}) {
        request.strURL = url;
        list.Insert(request);
    }
    EXPECT_FALSE(list.SendEvent(recorder.Tag(1), "quiet", nullptr, nullptr, true));
    EXPECT_EQ(list.Size(), 1);
    auto image = [](int w, int h, int depth, long size, char fill, long long stamp) {
        auto* pixels = static_cast<unsigned char*>(malloc(size));
        std::memset(pixels, fill, size);
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(w, h, depth, w * 4, pixels, stamp);
        image->SetBufSize(size);
        return image;
    };
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->AddImage(image(2, 3, 4, 24, 0x11, 100));
    item->AddImage(nullptr);
    boost::intrusive_ptr<CQRBThumbImage> empty(new CQRBThumbImage);
    empty->Create(0, 0, 4, 0, nullptr, 5);
    empty->SetBufSize(77);
    item->AddImage(empty);
    item->AddImage(image(2, 1, 3, 6, 0x5a, 300));  // 2 x 1 at 3 bytes a pixel
    item->SetBufferPreset("preset text");
    ASSERT_TRUE(list.SendEvent(recorder.Tag(1), "ok", &CallbackRecorder::Callback, item, true));
    const auto r = recorder.Results().at(0);
    EXPECT_EQ(std::make_pair(r.status, r.count), std::make_pair(0, 2));
    EXPECT_EQ(r.width * 100 + r.height * 10 + r.depth, 213);
    EXPECT_EQ(r.buffers[0], std::string(24, '\x11'));
    EXPECT_TRUE(r.buffers[1].empty() && r.buffers[2].empty());
    EXPECT_EQ(r.sizes[2], 77);
    EXPECT_EQ(r.buffers[3], std::string(6, '\x5a') + std::string(2, '\0'));
    EXPECT_EQ(r.timestamps[3], 300);
    EXPECT_EQ(r.preset, "preset text");
    list.Destroy();
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        // ThreadSanitizer starts a helper thread at the first thread creation: count it in.
        std::thread([] {}).join();
        threadsBefore = qrbtest::ThreadCount();
        fdsBefore = qrbtest::OpenFileDescriptors();
        ASSERT_EQ(thumbnail_init(), 0);
        service = CQRBThumbnail::GetInstance();
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    void TearDown() override {
        if (getter) getter->OpenGate();  // never leave a worker blocked
        thumbnail_finalize();
        CQRBThumbFlyWeightFactroy::GetInstance()->Install(THUMB_RESERVED7, nullptr);
        EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore) << "a thread outlived finalize";
        EXPECT_EQ(qrbtest::OpenFileDescriptors(), fdsBefore) << "a file descriptor was left open";
    }

    // A request of the reserved kind 7 (multi variant, scripted getter).
    void Scripted(const std::string& url, int user, bool cache = false, int w = 0, int h = 0, int frames = 1) {
        _stRequestedItem item;
        item.strURL = url;
        item.eThumbnailType = THUMB_RESERVED7;
        item.width = w;
        item.height = h;
        item.callback = &CallbackRecorder::Callback;
        item.bUsedCache = cache;
        item.FrameCount = static_cast<unsigned char>(frames);
        item.user_data = recorder.Tag(user);
        CQRBThumbnail::GetInstance()->RequestThumbnail(item, false);
    }
    void Picture(const std::string& path, int user) {
        thumbnail_request_async(path.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                                &CallbackRecorder::Callback, recorder.Tag(user));
    }
    // Occupies both general workers until the gate opens.
    void BlockMultiWorkers() {
        Scripted("block/gate:ok:1x1", 900);
        Scripted("block/gate:ok:1x1", 901);
        ASSERT_TRUE(getter->WaitForBlocked(2, 5000));
    }
    std::map<void*, int> Settled(size_t n) {
        EXPECT_TRUE(recorder.WaitForCount(n, 5s));
        std::this_thread::sleep_for(200ms);
        return recorder.PerUser();
    }
    // A quick request to one of the variants (scripted, missing picture, video, dead web port).
    void Post(int tag, std::mt19937& rng) {
        const int kind = static_cast<int>(rng() % 10);
        const std::string t = std::to_string(tag);
        if (kind < 4) {
            Scripted("stress/" + t + "/ok:4x4", tag, tag % 3 == 0);
            return;
        }
        const qrb_item_media_type media = kind == 7 || kind == 8 ? MEDIA_TYPE_VIDEO : MEDIA_TYPE_PICTURE;
        const qrb_extend_dev_type dev = kind == 9 ? DEV_TYPE_SNS : DEV_TYPE_LOCAL;
        const std::string url = kind < 7   ? "/stress/" + t + ".jpg"
                                : kind < 9 ? t + ";/stress/" + t + ".mp4"
                                           : "http://127.0.0.1:1/stress/" + t + ".jpg";
        thumbnail_request_async(url.c_str(), media, dev, 0, 8, 8, tag & 1, (tag & 1) ? 5 : 1,
                                &CallbackRecorder::Callback, recorder.Tag(tag));
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CallbackRecorder recorder;
    CQRBThumbnail* service = nullptr;
    qrbtest::ScriptedGetter* getter = nullptr;
    int threadsBefore = 0;
    int fdsBefore = 0;
};

// Finalize ends every thread; init wipes the video files of an earlier run and serves again.
TEST_F(ServiceTest, InitWipesVideoFilesAndServesAgain) {
    thumbnail_finalize();
    EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore) << "two multi, four video, two HTTP threads";
    root.WriteFile("opt/usr/apps/orvale/data/video/sub/old.mta", "old");
    root.WriteFile("opt/usr/apps/orvale/data/keep.txt", "kept");
    ASSERT_EQ(thumbnail_init(), 0);
    service = CQRBThumbnail::GetInstance();
    for (int slot = 0; slot < 3; ++slot) EXPECT_NE(service->Variant(slot), nullptr) << slot;
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/video/"), 0);
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/"), 1);
    EXPECT_EQ(thumbnail_init(), 0);
    EXPECT_EQ(CQRBThumbnail::GetInstance(), service) << "a second init is the same service";
    Scripted("i/ok:1x1", 1);
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    EXPECT_EQ(recorder.Results()[0].status, 0);
}

// A throwing getter, six images asked, a missing file with a 5000-byte name: one answer each (a
// failure carries only the URL, cut to 4351 bytes); unserved kinds get none. The log line format.
TEST_F(ServiceTest, EveryServedRequestGetsExactlyOneAnswer) {
    thumbnail_request_async("/x.bin", MEDIA_TYPE_NONE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            qrb_c_callback_for_tests(), recorder.Tag(1));
    thumbnail_request_async("/x.bin", static_cast<qrb_item_media_type>(42), DEV_TYPE_SERIAL_FIRST, 0, 0, 0,
                            0, 1, &CallbackRecorder::Callback, recorder.Tag(2));
    Scripted("c/throw", 3);
    Scripted("b/frames", 4, false, 0, 0, 9);
    Picture("/" + std::string(5000, 'u'), 5);
    auto per = Settled(3);
    EXPECT_EQ(per.count(recorder.Tag(1)) + per.count(recorder.Tag(2)), 0u);
    EXPECT_EQ(per[recorder.Tag(3)], 1);
    EXPECT_EQ(per[recorder.Tag(4)], 1);
    EXPECT_EQ(per[recorder.Tag(5)], 1);
    for (const auto& r : recorder.Results()) {
        const bool six = r.user_data == recorder.Tag(4);
        EXPECT_EQ(std::make_pair(r.status, r.count), std::make_pair(six ? 0 : -1, six ? 5 : 0));
        if (r.user_data == recorder.Tag(5)) {
            EXPECT_EQ(r.url, "/" + std::string(4350, 'u'));
            EXPECT_EQ(r.width + r.sizes[0], 0);
        }
    }
    const std::regex format(R"(media_thumbnail\.cpp: Request\((\d+)\) > )" "\033"
                            R"(\[32m\[Request:\1\] \[Thread Id:\[\d+\]\] .*strUrl=/x\.bin.*)" "\033\\[0m");
    const auto lines = log.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&](const std::string& l) { return std::regex_match(l, format); }));
    const auto tags = log.Tags();
    EXPECT_NE(std::find(tags.begin(), tags.end(), "QRB-thumbnail"), tags.end());
}

// A key posted from eight threads is queued once; cancelled or cleared requests get no callback.
TEST_F(ServiceTest, DuplicatesAreQueuedOnceAndCancelledRequestsGetNoCallback) {
    BlockMultiWorkers();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) Picture("/queued.jpg", 1);
        });
    }
    for (auto& th : threads) th.join();
    Picture("/queued.jpg", 2);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 4);
    EXPECT_EQ(thumbnail_request_cancel("/queued.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL), 0);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 2) << "every user's request goes";
    service->CancelRequest(std::string("block/gate:ok:1x1"), THUMB_RESERVED7);
    EXPECT_EQ(thumbnail_request_cancel("/unknown", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL), 0);
    for (int i = 0; i < 20; ++i) Picture("/many" + std::to_string(i), 10 + i);
    EXPECT_EQ(thumbnail_request_cancel_all(), 0);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 0);
    Scripted("e/ok:1x1", 3);
    getter->OpenGate();
    auto per = Settled(1);
    ASSERT_EQ(recorder.Count(), 1u);
    EXPECT_EQ(per[recorder.Tag(3)], 1);
}

// A cached result is served without extracting; another size or no cache flag extracts.
TEST_F(ServiceTest, CachedResultIsServedWithoutExtractingAgain) {
    Scripted("g/ok:8x4", 1, true, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    Scripted("g/ok:8x4", 1, true, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(2, 5s));
    EXPECT_EQ(getter->calls, 1) << "the second answer came from the cache";
    EXPECT_EQ(recorder.Results()[1].width, 8);
    Scripted("g/ok:8x4", 1, true, 4, 4);
    Scripted("g/ok:8x4", 2, false, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(4, 5s));
    EXPECT_EQ(getter->calls, 3);
    EXPECT_EQ(service->Cache()->Count(), 2);
}

// Icon type 1: kind 9 with orientation 1 on the multi variant, keyed and cancelled by id.
TEST_F(ServiceTest, DeviceIconsAreKeyedByIdOnTheirVariant) {
    auto* icons = qrbtest::InstallScriptedGetter(THUMB_RESERVED9);
    BlockMultiWorkers();
    const std::pair<const char*, int> posted[] = {{"icon/ok:2x2", 3}, {"other-url", 3}, {"icon/ok:2x2", 4}};
    for (const auto& [url, id] : posted)
        service->RequestDeviceIcon(url, id, static_cast<qrb_device_icon_type>(1),
                                   &CallbackRecorder::Callback, false, false);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 4) << "the second of id 3 is a duplicate";
    service->CancelRequest(4LL, THUMB_RESERVED9);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 3);
    getter->OpenGate();
    for (int i = 0; i < 500 && icons->calls == 0; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(icons->calls, 1);
    EXPECT_EQ(icons->lastOrientation, 1);
    CQRBThumbFlyWeightFactroy::GetInstance()->Install(THUMB_RESERVED9, nullptr);
}

// Stopping PTP decoding empties the single variant's queue without callbacks (taken ones fail).
TEST_F(ServiceTest, StoppingPtpDecodingEmptiesTheSingleQueueSilently) {
    for (int i = 0; i < 50; ++i) {
        thumbnail_request_async(("/v" + std::to_string(i) + ".mp4").c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL,
                                0, 0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(i));
        thumbnail_request_async(("/r" + std::to_string(i) + ".srf").c_str(), MEDIA_TYPE_PVR, DEV_TYPE_LOCAL,
                                0, 0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(1000 + i));
    }
    const size_t before = recorder.Count();
    thumbnail_stop_ptp_decode_sync();
    EXPECT_EQ(service->Variant(0)->RequestList()->Size(), 0);
    std::this_thread::sleep_for(300ms);
    EXPECT_LE(recorder.Count(), before + 4);
    for (const auto& r : recorder.Results()) EXPECT_EQ(r.status, -1);
}

// Posters and cancel-all race the workers, then finalize: no callback after it, none twice.
TEST_F(ServiceTest, CancelsAndInitFinalizeCyclesUnderLoad) {
    int tag = 0;
    for (int cycle = 0; cycle < 15; ++cycle, tag += 300) {
        std::atomic<bool> done{false};
        std::thread clearer([&] {
            while (!done) {
                thumbnail_request_cancel_all();
                std::this_thread::sleep_for(std::chrono::milliseconds(cycle % 5));
            }
        });
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, base = tag + t * 100, seed = cycle * 10 + t] {
                std::mt19937 rng(static_cast<unsigned>(seed));
                for (int i = 0; i < 100; ++i) Post(base + i, rng);
            });
        }
        for (auto& th : threads) th.join();
        done = true;
        clearer.join();
        thumbnail_finalize();
        const size_t after = recorder.Count();
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(recorder.Count(), after) << "a callback arrived after finalize";
        ASSERT_EQ(thumbnail_init(), 0);
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    auto per = Settled(0);
    for (const auto& entry : per) EXPECT_LE(entry.second, 1);
}

}  // namespace
