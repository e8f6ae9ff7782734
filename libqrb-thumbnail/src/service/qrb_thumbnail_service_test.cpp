// The service end to end: routing, the variants' queues, the general workers, the cache and the
// event path, through the C interface where it reaches and the class interface where it does
// not (the reserved kinds run a scripted getter).
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_getter.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_base_imp.h"
#include "qrb_thumbnail_multi_imp.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

extern "C" qrb_thumbnail_callback qrb_c_callback_for_tests(void);

namespace {

using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(thumbnail_init(), 0);
        service = CQRBThumbnail::GetInstance();
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    void TearDown() override {
        if (getter) getter->OpenGate();  // never leave a worker blocked
        thumbnail_finalize();
        CQRBThumbFlyWeightFactroy::GetInstance()->Install(THUMB_RESERVED7, nullptr);
    }

    // A request of the reserved kind 7 (multi variant, scripted getter).
    void Scripted(const std::string& url, void* user, bool cache = false, int w = 0, int h = 0,
                  unsigned char frames = 1) {
        _stRequestedItem item;
        item.strURL = url;
        item.eThumbnailType = THUMB_RESERVED7;
        item.width = w;
        item.height = h;
        item.callback = &CallbackRecorder::Callback;
        item.bUsedCache = cache;
        item.FrameCount = frames;
        item.user_data = user;
        service->RequestThumbnail(item, false);
    }

    // Occupies both general workers until the gate opens.
    void BlockMultiWorkers() {
        Scripted("block/gate:ok:1x1", recorder.Tag(900));
        Scripted("block/gate:ok:1x1", recorder.Tag(901));
        ASSERT_TRUE(getter->WaitForBlocked(2, 5000));
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CallbackRecorder recorder;
    CQRBThumbnail* service = nullptr;
    qrbtest::ScriptedGetter* getter = nullptr;
};

TEST(RoutingTest, DeviceDecidesFirstThenMediaType) {
    auto type = [](int media, int dev) {
        return static_cast<int>(CQRBThumbnail::GetThumbnailType(static_cast<qrb_item_media_type>(media),
                                                                static_cast<qrb_extend_dev_type>(dev)));
    };
    const int media[] = {0, 1, 2, 3, 4, 5, 6, 99};
    const int ordinary[] = {2, 0, 1, 5, 17, 16, 10, 17};
    const int serial[] = {15, 13, 14, 5, 17, 16, 10, 17};
    for (int i = 0; i < 8; ++i) {
        for (int dev : {100, 101, 102, 105, 0, 119, -1}) EXPECT_EQ(type(media[i], dev), ordinary[i]) << media[i] << "," << dev;
        for (int dev = 107; dev <= 113; ++dev) EXPECT_EQ(type(media[i], dev), serial[i]) << media[i] << "," << dev;
        for (int dev : {103, 114}) EXPECT_EQ(type(media[i], dev), 6);
        for (int dev : {104, 115, 116, 117, 118}) EXPECT_EQ(type(media[i], dev), 11);
        EXPECT_EQ(type(media[i], 106), 12);
    }
}

TEST(RoutingTest, EachKindHasItsVariant) {
    const int expected[] = {1, 1, 0, 1, 1, 0, 0, 1, 1, 1, 1, 2, 0, 0, 0, 0, 1, 3, 3};
    for (int kind = 0; kind <= 18; ++kind) {
        EXPECT_EQ(CQRBThumbnail::m_GetThumbImpType(static_cast<qrb_media_thumbnail_type>(kind)), expected[kind])
            << kind;
    }
    EXPECT_EQ(CQRBThumbnail::m_GetThumbImpType(static_cast<qrb_media_thumbnail_type>(-3)), 3);
}

TEST_F(ServiceTest, InitStartsEveryVariantAndWipesTheVideoFolder) {
    EXPECT_NE(service->Variant(0), nullptr);
    EXPECT_NE(service->Variant(1), nullptr);
    EXPECT_NE(service->Variant(2), nullptr);
    EXPECT_EQ(static_cast<CQRBThumbnailMultiImp*>(service->Variant(1))->WorkerCount(), 2);
    struct stat st;
    EXPECT_EQ(stat(root.Resolve("/opt/usr/apps/orvale/data/").c_str(), &st), 0);
    EXPECT_TRUE(log.Contains("remove /opt/usr/apps/orvale/data/video/ success.!"));
    // A second init is the same service.
    EXPECT_EQ(thumbnail_init(), 0);
    EXPECT_EQ(CQRBThumbnail::GetInstance(), service);
}

TEST_F(ServiceTest, StartWipesVideoFilesOfAnEarlierRun) {
    thumbnail_finalize();
    root.WriteFile("opt/usr/apps/orvale/data/video/old.mta", "old");
    root.WriteFile("opt/usr/apps/orvale/data/video/sub/deeper.mta", "old");
    root.WriteFile("opt/usr/apps/orvale/data/keep.txt", "kept");
    ASSERT_EQ(thumbnail_init(), 0);
    service = CQRBThumbnail::GetInstance();
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/video/"), 0);
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/"), 1);
}

TEST_F(ServiceTest, SuccessfulRequestDeliversItsImages) {
    Scripted("a/ok:16x8:3", recorder.Tag(1));
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    auto r = recorder.Results()[0];
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.url, "a/ok:16x8:3");
    EXPECT_EQ(r.count, 3);
    EXPECT_EQ(r.width, 16);
    EXPECT_EQ(r.height, 8);
    ASSERT_EQ(r.buffers[2].size(), 16u * 8 * 4);
    EXPECT_EQ(static_cast<unsigned char>(r.buffers[2][(8 * 16 - 1) * 4 + 0]), 15);  // x of the last pixel
    EXPECT_EQ(static_cast<unsigned char>(r.buffers[2][2]), 2);                      // image index
    EXPECT_EQ(r.timestamps[1], 2000);
    EXPECT_TRUE(log.Contains("RequestedItem.szURI=a/ok:16x8:3, RequestedItem.eThumbnailType=7"));
}

TEST_F(ServiceTest, FrameCountAboveFiveIsServedAsFive) {
    // The C layer bounds the frame count it queues...
    thumbnail_request_async("/nine.mp4", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 9,
                            &CallbackRecorder::Callback, recorder.Tag(1));
    EXPECT_TRUE(log.Contains("URL = /nine.mp4, RID = -1, eThumbnailType = 0, nOrientation = 0, "
                             "width = 0, height = 0, bUsedCache = 0, FrameCount=5"));
    // ...and an item never holds more than five images, whatever a getter is asked for.
    Scripted("b/frames", recorder.Tag(2), false, 0, 0, 9);
    ASSERT_TRUE(recorder.WaitForCount(2, 5s));
    for (const auto& r : recorder.Results()) {
        if (r.user_data == recorder.Tag(2)) EXPECT_EQ(r.count, 5);
    }
}

TEST_F(ServiceTest, ThrowingGetterStillGetsExactlyOneFailure) {
    Scripted("c/throw", recorder.Tag(1));
    Scripted("c/ok:1x1", recorder.Tag(2));
    ASSERT_TRUE(recorder.WaitForCount(2, 5s));
    std::this_thread::sleep_for(100ms);
    auto per = recorder.PerUser();
    EXPECT_EQ(per[recorder.Tag(1)], 1);
    EXPECT_EQ(per[recorder.Tag(2)], 1);
    for (const auto& r : recorder.Results()) EXPECT_EQ(r.status, r.user_data == recorder.Tag(1) ? -1 : 0);
    EXPECT_TRUE(log.Contains("Exception caught"));
}

TEST_F(ServiceTest, UnroutedRequestGetsNoCallback) {
    thumbnail_request_async("/x.bin", MEDIA_TYPE_NONE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(1));
    thumbnail_request_async("/x.bin", static_cast<qrb_item_media_type>(42), DEV_TYPE_SERIAL_FIRST, 0,
                            0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(2));
    Scripted("d/ok:1x1", recorder.Tag(3));  // served after the two above would have been
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(recorder.Count(), 1u);
    EXPECT_EQ(recorder.Results()[0].user_data, recorder.Tag(3));
}

TEST_F(ServiceTest, DuplicateWhileQueuedGivesOneCallbackAndAnotherUserGivesTwo) {
    BlockMultiWorkers();
    thumbnail_request_async("/dup.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(1));
    thumbnail_request_async("/dup.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(1));
    thumbnail_request_async("/dup.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(2));
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 4);
    getter->OpenGate();
    ASSERT_TRUE(recorder.WaitForCount(4, 5s));
    std::this_thread::sleep_for(150ms);
    auto per = recorder.PerUser();
    EXPECT_EQ(per[recorder.Tag(1)], 1);
    EXPECT_EQ(per[recorder.Tag(2)], 1);
    EXPECT_EQ(recorder.Count(), 4u);
}

TEST_F(ServiceTest, CancelledRequestsGetNoCallbackWhetherQueuedOrBeingDecoded) {
    BlockMultiWorkers();
    thumbnail_request_async("/queued.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(1));
    thumbnail_request_async("/queued.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            &CallbackRecorder::Callback, recorder.Tag(2));
    EXPECT_EQ(thumbnail_request_cancel("/queued.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL), 0);
    // The two blocked requests are being decoded: cancelling them drops their results.
    service->CancelRequest(std::string("block/gate:ok:1x1"), THUMB_RESERVED7);
    EXPECT_EQ(thumbnail_request_cancel("/unknown", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL), 0);
    Scripted("e/ok:1x1", recorder.Tag(3));
    getter->OpenGate();
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(recorder.Count(), 1u);
    EXPECT_EQ(recorder.Results()[0].user_data, recorder.Tag(3));
}

TEST_F(ServiceTest, CancelByIdRemovesRequestsOfThatId) {
    BlockMultiWorkers();
    _stRequestedItem item;
    item.strURL = "f/ok:1x1";
    item.RID = 77;
    item.eThumbnailType = THUMB_RESERVED7;
    item.callback = &CallbackRecorder::Callback;
    item.user_data = recorder.Tag(1);
    service->RequestThumbnail(item, false);
    service->CancelRequest(77LL, THUMB_RESERVED7);
    service->CancelRequest(77LL, THUMB_NONE);  // no variant: nothing happens
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 2);
}

TEST_F(ServiceTest, CancelAllClearsEveryQueueWithoutCallbacks) {
    BlockMultiWorkers();
    for (int i = 0; i < 20; ++i) {
        thumbnail_request_async(("/many" + std::to_string(i)).c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL,
                                0, 0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(i));
    }
    EXPECT_EQ(thumbnail_request_cancel_all(), 0);
    getter->OpenGate();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 0);
}

TEST_F(ServiceTest, CachedResultIsServedWithoutExtractingAgain) {
    Scripted("g/ok:8x4", recorder.Tag(1), true, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    EXPECT_EQ(getter->calls, 1);
    EXPECT_EQ(service->Cache()->Count(), 1);
    Scripted("g/ok:8x4", recorder.Tag(1), true, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(2, 5s));
    EXPECT_EQ(getter->calls, 1) << "the second answer came from the cache";
    auto r = recorder.Results()[1];
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.width, 8);
    EXPECT_TRUE(log.Contains("bResult=1"));
    // Another size is another entry; a caller without the cache flag always extracts.
    Scripted("g/ok:8x4", recorder.Tag(1), true, 4, 4);
    Scripted("g/ok:8x4", recorder.Tag(2), false, 8, 4);
    ASSERT_TRUE(recorder.WaitForCount(4, 5s));
    EXPECT_EQ(getter->calls, 3);
    EXPECT_EQ(service->Cache()->Count(), 2) << "results are cached only for callers using the cache";
    // The class interface's flag answers a cached hit directly.
    _stRequestedItem direct;
    direct.strURL = "g/ok:8x4";
    direct.eThumbnailType = THUMB_RESERVED7;
    direct.RID = -1;
    auto hit = service->RequestThumbnail(direct, true);
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->GetImageCount(), 1);
}

TEST_F(ServiceTest, CachedEntryWhoseImageHasNoPixelsIsStillAHit) {
    boost::intrusive_ptr<CQRBThumbnailItem> cached(new CQRBThumbnailItem);
    cached->SetURL("h/ok:1x1");
    cached->SetRID(-1);
    boost::intrusive_ptr<CQRBThumbImage> blank(new CQRBThumbImage);
    blank->Create(2, 2, 4, 8, nullptr, 0);
    cached->AddImage(blank);
    service->Cache()->Insert(cached);
    Scripted("h/ok:1x1", recorder.Tag(1), true, 2, 2);
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    EXPECT_EQ(recorder.Results()[0].status, 0) << "an entry with a first image counts as a hit";
    EXPECT_EQ(getter->calls, 0);
}

TEST_F(ServiceTest, DeviceIconsAreKeyedByIdOnTheirVariant) {
    auto* icons = qrbtest::InstallScriptedGetter(THUMB_RESERVED9);
    BlockMultiWorkers();
    service->RequestDeviceIcon("icon/ok:2x2", 3, static_cast<qrb_device_icon_type>(1),
                               &CallbackRecorder::Callback, false, false);
    service->RequestDeviceIcon("other-url", 3, static_cast<qrb_device_icon_type>(1),
                               &CallbackRecorder::Callback, false, false);  // same id: a duplicate
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 3);
    // Remote icons (kinds above 1) go to the HTTP variant: QRBThumbHttpVariantTest.
    getter->OpenGate();
    ASSERT_TRUE(recorder.WaitForCount(2, 5s));
    for (int i = 0; i < 100 && icons->calls == 0; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(icons->calls, 1);
    EXPECT_EQ(icons->lastOrientation, 1);
    CQRBThumbFlyWeightFactroy::GetInstance()->Install(THUMB_RESERVED9, nullptr);
}

TEST_F(ServiceTest, StoppingPtpDecodingEmptiesTheSingleQueueSilently) {
    service->StopPTPThumbDecoding(true);  // idle: returns at once
    for (int i = 0; i < 50; ++i) {
        thumbnail_request_async(("/v" + std::to_string(i) + ".mp4").c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL,
                                0, 0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(i));
        thumbnail_request_async(("/r" + std::to_string(i) + ".srf").c_str(), MEDIA_TYPE_PVR, DEV_TYPE_LOCAL,
                                0, 0, 0, 0, 1, &CallbackRecorder::Callback, recorder.Tag(1000 + i));
    }
    size_t before = recorder.Count();
    thumbnail_stop_ptp_decode_sync();
    EXPECT_EQ(service->Variant(0)->RequestList()->Size(), 0);
    thumbnail_stop_ra_decode_sync();
    // Only requests already taken by a worker may still answer; at most four are.
    std::this_thread::sleep_for(300ms);
    EXPECT_LE(recorder.Count(), before + 4);
    for (const auto& r : recorder.Results()) EXPECT_EQ(r.status, -1);
}

TEST_F(ServiceTest, FinalizeAndInitAgainServeNewRequests) {
    int threadsBefore = qrbtest::ThreadCount();
    thumbnail_finalize();
    EXPECT_TRUE(log.Contains("m_Destroy end"));
    EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore - 8) << "two multi, four video, two HTTP threads";
    // Creating it again waits for the creation mutex.
    std::atomic<bool> created{false};
    std::thread init;
    {
        CQRBAutoLock hold(CQRBThumbnail::m_Mutex);
        init = std::thread([&] {
            EXPECT_EQ(thumbnail_init(), 0);
            created = true;
        });
        std::this_thread::sleep_for(100ms);
        EXPECT_FALSE(created) << "the service was made without its creation mutex";
    }
    init.join();
    EXPECT_TRUE(created);
    service = CQRBThumbnail::GetInstance();
    Scripted("i/ok:1x1", recorder.Tag(1));
    ASSERT_TRUE(recorder.WaitForCount(1, 5s));
    EXPECT_EQ(recorder.Results()[0].status, 0);
}

TEST_F(ServiceTest, RequestFromTheClassRecordIsRoutedFirst) {
    _stRequestItemInfo info;
    info.strURL = "/class.jpg";
    info.media = MEDIA_TYPE_PICTURE;
    info.sourcetype = DEV_TYPE_LOCAL;
    info.callback = &CallbackRecorder::Callback;
    service->RequestThumbnail(info, false);
    info.media = MEDIA_TYPE_NONE;
    EXPECT_FALSE(service->RequestThumbnail(info, false));
    EXPECT_TRUE(log.Contains("media = 1, sourcetype = 100"));
    EXPECT_TRUE(log.Contains("URL = /class.jpg, RID = -1, eThumbnailType = 0"));
    // It carries a null user pointer and reaches the worker like any picture request.
    EXPECT_TRUE(log.WaitFor("strURL=/class.jpg, decode fail", 5000ms));
}

TEST_F(ServiceTest, MessagesCarryTheModuleTagAndThePrefix) {
    thumbnail_request_async("/tagged.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                            qrb_c_callback_for_tests(), nullptr);
    ASSERT_TRUE(log.WaitFor("strUrl=/tagged.jpg", 1000ms));
    for (const auto& line : log.Lines()) {
        if (line.find("strUrl=/tagged.jpg") == std::string::npos) continue;
        EXPECT_EQ(line.rfind("media_thumbnail.cpp: Request(", 0), 0u) << line;
        EXPECT_NE(line.find(" > \033[32m[Request:"), std::string::npos) << line;
        EXPECT_NE(line.find("] [Thread Id:["), std::string::npos) << line;
        EXPECT_EQ(line.substr(line.size() - 4), "\033[0m");
    }
    auto tags = log.Tags();
    EXPECT_NE(std::find(tags.begin(), tags.end(), "QRB-thumbnail"), tags.end());
}

}  // namespace
