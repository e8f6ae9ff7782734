#include "qrb_thumb_request_list.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using qrbtest::CallbackRecorder;

class RequestListTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(list.Create()); }
    void TearDown() override { list.Destroy(); }

    _stRequestedItem Make(const std::string& url, void* user, qrb_media_thumbnail_type type = THUMB_PICTURE,
                          long long rid = -1) {
        _stRequestedItem item;
        item.strURL = url;
        item.RID = rid;
        item.eThumbnailType = type;
        item.user_data = user;
        item.callback = &CallbackRecorder::Callback;
        return item;
    }

    static boost::intrusive_ptr<CQRBThumbImage> Image(int w, int h, unsigned char fill, long long ts) {
        auto* pixels = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
        std::memset(pixels, fill, static_cast<size_t>(w) * h * 4);
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(w, h, 4, w * 4, pixels, ts);
        return image;
    }

    CQRBThumbRequestList list;
    CallbackRecorder recorder;
    qrbtest::LogCapture log;
};

TEST_F(RequestListTest, DuplicateKeyIsDroppedAndLeavesTheQueuedStateAlone) {
    list.Insert(Make("a", recorder.Tag(1)));
    _stRequestedItem taken;
    ASSERT_TRUE(list.GetForMulti(&taken));
    EXPECT_EQ(taken.state, ITEM_DECODING);
    list.Insert(Make("a", recorder.Tag(1)));
    EXPECT_EQ(list.Size(), 1);
    EXPECT_FALSE(list.GetForMulti(&taken)) << "the duplicate did not reset the state to waiting";
    list.Insert(Make("a", recorder.Tag(2)));
    EXPECT_EQ(list.Size(), 2) << "another user pointer is another request";
}

TEST_F(RequestListTest, RequestsWithAnIdAreKeyedByIdNotUrl) {
    list.Insert(Make("first", recorder.Tag(1), THUMB_PICTURE, 7));
    list.Insert(Make("second", recorder.Tag(1), THUMB_PICTURE, 7));
    ASSERT_EQ(list.Size(), 1);
    _stRequestedItem taken;
    ASSERT_TRUE(list.GetForMulti(&taken));
    EXPECT_EQ(taken.strURL, "first");
    list.Insert(Make("first", recorder.Tag(1)));  // no id: a different key
    EXPECT_EQ(list.Size(), 2);
}

TEST_F(RequestListTest, DeleteByUrlRemovesEveryUserAndDeleteByIdEveryUrl) {
    list.Insert(Make("x", recorder.Tag(1)));
    list.Insert(Make("x", recorder.Tag(2)));
    list.Insert(Make("y", recorder.Tag(1), THUMB_PICTURE, 5));
    list.Insert(Make("z", recorder.Tag(2), THUMB_PICTURE, 5));
    _stRequestedItem taken;
    ASSERT_TRUE(list.GetForMulti(&taken));  // "x" is being decoded: deleted all the same
    list.Delete(std::string("x"));
    EXPECT_EQ(list.Size(), 2);
    list.Delete(5LL);
    EXPECT_EQ(list.Size(), 0);
    list.Delete(std::string("unknown"));
}

TEST_F(RequestListTest, SingleWorkersSkipVideoAndRecordingsUnlessAllKindsAreWanted) {
    list.Insert(Make("v", recorder.Tag(1), THUMB_VIDEO));
    list.Insert(Make("r", recorder.Tag(1), THUMB_PVR));
    _stRequestedItem taken;
    EXPECT_FALSE(list.GetForSingle(false, &taken, false));
    list.Insert(Make("p", recorder.Tag(1), THUMB_PTP));
    ASSERT_TRUE(list.GetForSingle(false, &taken, false));
    EXPECT_EQ(taken.strURL, "p");
    EXPECT_EQ(taken.state, ITEM_DECODING_SINGLE);
    ASSERT_TRUE(list.GetForSingle(true, &taken, false));
    EXPECT_EQ(taken.strURL, "v");
    ASSERT_TRUE(list.GetForSingle(true, &taken, false));
    EXPECT_EQ(taken.strURL, "r");
    EXPECT_FALSE(list.GetForSingle(true, &taken, false));
}

TEST_F(RequestListTest, HttpDecodeTakesTheFirstWaitingOrDownloadedInOrder) {
    list.Insert(Make("busy", recorder.Tag(1)));
    list.Insert(Make("waiting", recorder.Tag(1)));
    list.Insert(Make("downloaded", recorder.Tag(1)));
    list.ChangeItemState(Make("busy", recorder.Tag(1)), ITEM_DECODING);
    list.ChangeItemState(Make("downloaded", recorder.Tag(1)), ITEM_DOWNLOADED);
    _stRequestedItem taken;
    ASSERT_TRUE(list.GetForHttpDecode(&taken));
    EXPECT_EQ(taken.strURL, "waiting");
    EXPECT_EQ(taken.state, ITEM_DECODING);
    ASSERT_TRUE(list.GetForHttpDecode(&taken));
    EXPECT_EQ(taken.strURL, "downloaded");
    EXPECT_EQ(taken.state, ITEM_DECODING_DOWNLOADED);
    EXPECT_FALSE(list.GetForHttpDecode(&taken));
}

TEST_F(RequestListTest, DownloadThreadTakesOnlyRequestsWaitingForDownload) {
    list.Insert(Make("a", recorder.Tag(1)));
    list.Insert(Make("b", recorder.Tag(1)));
    _stRequestedItem taken;
    EXPECT_FALSE(list.GetForHttpDownLoad(&taken));
    list.ChangeItemState(Make("b", recorder.Tag(1)), ITEM_WAIT_DOWNLOAD);
    list.ChangeItemState(Make("missing", recorder.Tag(1)), ITEM_WAIT_DOWNLOAD);
    ASSERT_TRUE(list.GetForHttpDownLoad(&taken));
    EXPECT_EQ(taken.strURL, "b");
    EXPECT_EQ(taken.state, ITEM_DOWNLOADING);
    EXPECT_FALSE(list.GetForHttpDownLoad(&taken));
}

TEST_F(RequestListTest, EventForARemovedRequestDeliversNothing) {
    list.Insert(Make("gone", recorder.Tag(1)));
    list.Delete(std::string("gone"));
    EXPECT_FALSE(list.SendEvent(recorder.Tag(1), "gone", &CallbackRecorder::Callback, nullptr, true));
    list.Insert(Make("cleared", recorder.Tag(1)));
    list.ClearAll();
    EXPECT_FALSE(list.SendEventWithBuffer(recorder.Tag(1), "cleared", &CallbackRecorder::Callback,
                                          nullptr, true));
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST_F(RequestListTest, NullCallbackRemovesTheRequestSilently) {
    list.Insert(Make("quiet", recorder.Tag(1)));
    EXPECT_FALSE(list.SendEvent(recorder.Tag(1), "quiet", nullptr, nullptr, true));
    EXPECT_EQ(list.Size(), 0);
}

TEST_F(RequestListTest, FailureCarriesOnlyTheUrl) {
    list.Insert(Make("bad", recorder.Tag(3)));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->AddImage(Image(2, 2, 9, 1));
    ASSERT_TRUE(list.SendEvent(recorder.Tag(3), "bad", &CallbackRecorder::Callback, item, false));
    auto results = recorder.Results();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].status, -1);
    EXPECT_EQ(results[0].url, "bad");
    EXPECT_EQ(results[0].count, 0);
    EXPECT_EQ(results[0].width, 0);
    EXPECT_TRUE(results[0].buffers[0].empty());
    EXPECT_TRUE(log.Contains("strURL=bad, decode fail"));
    EXPECT_TRUE(log.Contains("callback end"));
}

TEST_F(RequestListTest, ImagesFillTheirOwnSlotsAndTheLastImageGivesTheSize) {
    list.Insert(Make("ok", recorder.Tag(1)));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->AddImage(Image(2, 3, 0x11, 100));
    item->AddImage(nullptr);  // a missing image uses up its slot
    boost::intrusive_ptr<CQRBThumbImage> empty(new CQRBThumbImage);
    empty->Create(0, 0, 4, 0, nullptr, 5);
    empty->SetBufSize(77);
    item->AddImage(empty);  // no buffer: its size is its own buffer size, slot left null
    item->AddImage(Image(4, 1, 0x22, 300));
    item->SetBufferPreset("preset text");
    ASSERT_TRUE(list.SendEvent(recorder.Tag(1), "ok", &CallbackRecorder::Callback, item, true));
    auto r = recorder.Results().at(0);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.width, 4);
    EXPECT_EQ(r.height, 1);
    EXPECT_EQ(r.depth, 4);
    EXPECT_EQ(r.buffers[0], std::string(24, '\x11'));
    EXPECT_TRUE(r.buffers[1].empty());
    EXPECT_TRUE(r.buffers[2].empty());
    EXPECT_EQ(r.sizes[2], 77);
    EXPECT_EQ(r.buffers[3], std::string(16, '\x22'));
    EXPECT_EQ(r.timestamps[0], 100);
    EXPECT_EQ(r.timestamps[3], 300);
    EXPECT_EQ(r.bBuffer, 0);
    EXPECT_TRUE(r.hadPreset);
    EXPECT_EQ(r.preset, "preset text");
    EXPECT_EQ(list.Size(), 0);
}

TEST_F(RequestListTest, ImageSmallerThanItsRasterIsNeverReadPastItsBuffer) {
    list.Insert(Make("short", recorder.Tag(1)));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    auto* pixels = static_cast<unsigned char*>(malloc(6));  // 2 x 1 at 3 bytes a pixel
    std::memset(pixels, 0x5a, 6);
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(2, 1, 3, 8, pixels, 0);
    image->SetBufSize(6);
    item->AddImage(image);
    ASSERT_TRUE(list.SendEvent(recorder.Tag(1), "short", &CallbackRecorder::Callback, item, true));
    auto r = recorder.Results().at(0);
    ASSERT_EQ(r.sizes[0], 8);
    EXPECT_EQ(r.buffers[0], std::string(6, '\x5a') + std::string(2, '\0'));
}

TEST_F(RequestListTest, LongUrlIsCutTo4351Bytes) {
    std::string url(5000, 'u');
    list.Insert(Make(url, recorder.Tag(1)));
    ASSERT_TRUE(list.SendEvent(recorder.Tag(1), url, &CallbackRecorder::Callback, nullptr, false));
    EXPECT_EQ(recorder.Results().at(0).url, std::string(4351, 'u'));
}

TEST_F(RequestListTest, BufferDeliveryHandsOverTheEncodedBytes) {
    list.Insert(Make("buf", recorder.Tag(1)));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    std::string bytes("\xff\xd8\x00\x01jpeg", 8);
    item->SetData(bytes);
    ASSERT_TRUE(list.SendEventWithBuffer(recorder.Tag(1), "buf", &CallbackRecorder::Callback, item, true));
    auto r = recorder.Results().at(0);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.bBuffer, 1);
    EXPECT_EQ(r.count, 1);
    EXPECT_EQ(r.buffers[0], bytes);
    EXPECT_EQ(r.sizes[0], 8);
}

TEST_F(RequestListTest, EventMatchesUrlAndUserPointerOnly) {
    list.Insert(Make("same", recorder.Tag(1), THUMB_PICTURE, 3));
    list.Insert(Make("same", recorder.Tag(2), THUMB_PICTURE, 4));
    ASSERT_TRUE(list.SendEvent(recorder.Tag(2), "same", &CallbackRecorder::Callback, nullptr, false));
    EXPECT_EQ(recorder.Results().at(0).user_data, recorder.Tag(2));
    _stRequestedItem left;
    ASSERT_TRUE(list.GetForMulti(&left));
    EXPECT_EQ(left.RID, 3);
}

}  // namespace
