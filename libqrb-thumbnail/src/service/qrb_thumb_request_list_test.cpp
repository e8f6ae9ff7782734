#include "qrb_thumb_request_list.h"

#include "qrb_test_callbacks.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using qrbtest::CallbackRecorder;

class RequestListTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(list.Create()); }
    void TearDown() override { list.Destroy(); }

    _stRequestedItem Make(const std::string& url, int user, qrb_media_thumbnail_type type = THUMB_PICTURE,
                          long long rid = -1) {
        _stRequestedItem item;
        item.strURL = url;
        item.RID = rid;
        item.eThumbnailType = type;
        item.user_data = recorder.Tag(user);
        item.callback = &CallbackRecorder::Callback;
        return item;
    }
    // A w x h image over fill bytes (w x h x 4 of them, or bufSize).
    static boost::intrusive_ptr<CQRBThumbImage> Image(int w, int h, unsigned char fill, long long ts,
                                                      int depth = 4, int bufSize = 0) {
        const size_t size = bufSize ? bufSize : static_cast<size_t>(w) * h * 4;
        auto* pixels = static_cast<unsigned char*>(malloc(size));
        std::memset(pixels, fill, size);
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(w, h, depth, w * 4, pixels, ts);
        if (bufSize) image->SetBufSize(bufSize);
        return image;
    }
    bool Send(const std::string& url, int user, boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
        return list.SendEvent(recorder.Tag(user), url, &CallbackRecorder::Callback, item, ok);
    }

    CQRBThumbRequestList list;
    CallbackRecorder recorder;
};

// Keys are (URL or id, user); a duplicate is dropped. Delete by URL or id takes every user's. The
// single variant's workers skip video and recordings unless they want every kind.
TEST_F(RequestListTest, RequestsAreKeyedTakenAndDeleted) {
    list.Insert(Make("a", 1));
    _stRequestedItem taken;
    ASSERT_TRUE(list.GetForMulti(&taken));
    EXPECT_EQ(taken.state, ITEM_DECODING);
    list.Insert(Make("a", 1));
    EXPECT_FALSE(list.GetForMulti(&taken)) << "the duplicate reset the state to waiting";
    list.Insert(Make("a", 2));
    list.Insert(Make("first", 1, THUMB_PICTURE, 7));
    list.Insert(Make("second", 1, THUMB_PICTURE, 7));
    list.Insert(Make("first", 2, THUMB_PICTURE, 7));
    EXPECT_EQ(list.Size(), 4);
    list.Delete(std::string("a"));
    EXPECT_EQ(list.Size(), 2);
    ASSERT_TRUE(list.GetForMulti(&taken));
    EXPECT_EQ(taken.strURL, "first");
    list.Delete(7LL);
    EXPECT_EQ(list.Size(), 0);

    list.Insert(Make("v", 1, THUMB_VIDEO));
    list.Insert(Make("r", 1, THUMB_PVR));
    EXPECT_FALSE(list.GetForSingle(false, &taken, false)) << "video and recordings are skipped";
    list.Insert(Make("p", 1, THUMB_PTP));
    ASSERT_TRUE(list.GetForSingle(false, &taken, false));
    EXPECT_EQ(taken.strURL + ":" + std::to_string(static_cast<int>(taken.state)), "p:6");
    ASSERT_TRUE(list.GetForSingle(true, &taken, false));
    EXPECT_EQ(taken.strURL, "v");
}

// A null callback removes the request silently. Images fill their own slots, the last gives the
// geometry, and one shorter than its raster is never read past.
TEST_F(RequestListTest, EventsFillTheResultOfTheirOwnRequest) {
    list.Insert(Make("quiet", 1));
    EXPECT_FALSE(list.SendEvent(recorder.Tag(1), "quiet", nullptr, nullptr, true));
    EXPECT_EQ(list.Size(), 0);

    list.Insert(Make("ok", 1));
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->AddImage(Image(2, 3, 0x11, 100));
    item->AddImage(nullptr);
    boost::intrusive_ptr<CQRBThumbImage> empty(new CQRBThumbImage);
    empty->Create(0, 0, 4, 0, nullptr, 5);
    empty->SetBufSize(77);
    item->AddImage(empty);
    item->AddImage(Image(2, 1, 0x5a, 300, 3, 6));  // 2 x 1 at 3 bytes a pixel
    item->SetBufferPreset("preset text");
    ASSERT_TRUE(Send("ok", 1, item, true));
    const auto r = recorder.Results().at(0);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.width * 100 + r.height * 10 + r.depth, 213);
    EXPECT_EQ(r.buffers[0], std::string(24, '\x11'));
    EXPECT_TRUE(r.buffers[1].empty() && r.buffers[2].empty());
    EXPECT_EQ(r.sizes[2], 77);
    EXPECT_EQ(r.buffers[3], std::string(6, '\x5a') + std::string(2, '\0'));
    EXPECT_EQ(r.timestamps[3], 300);
    EXPECT_EQ(r.preset, "preset text");
}

}  // namespace
