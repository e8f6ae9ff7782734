#include "qrb_thumb_cache.h"

#include "qrb_thumbnail_getter.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

constexpr int kMiB = 1024 * 1024;

boost::intrusive_ptr<CQRBThumbnailItem> Item(const std::string& url, long long bytes, int width = 1,
                                             int height = 1) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->SetURL(url);
    item->SetRID(-1);
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(width, height, 4, width * 4, static_cast<unsigned char*>(malloc(4)), 0);
    item->AddImage(image);
    item->SetSize(static_cast<int>(bytes));  // what the item accounts for, not its real pixels
    return item;
}

class ThumbCacheTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(cache.Create()); }
    CQRBThumbCache cache;
};

TEST_F(ThumbCacheTest, ThirdFourMebibyteItemEvictsTheFirst) {
    cache.Insert(Item("a", 4 * kMiB));
    cache.Insert(Item("b", 4 * kMiB));
    EXPECT_EQ(cache.TotalSize(), 8 * kMiB);
    cache.Insert(Item("c", 4 * kMiB));
    EXPECT_EQ(cache.TotalSize(), 8 * kMiB);
    boost::intrusive_ptr<CQRBThumbnailItem> out;
    EXPECT_FALSE(cache.Get(-1, "a", out));
    EXPECT_TRUE(cache.Get(-1, "b", out));
    EXPECT_TRUE(cache.Get(-1, "c", out));
}

TEST_F(ThumbCacheTest, ItemFillingTheBudgetExactlyEvictsNothing) {
    cache.Insert(Item("a", 6 * kMiB));
    cache.Insert(Item("b", 4 * kMiB));
    EXPECT_EQ(cache.TotalSize(), CQRBThumbCache::kMaxBytes);
    EXPECT_EQ(cache.Count(), 2);
}

TEST_F(ThumbCacheTest, OversizeItemIsKeptAloneAndNeverEvictedByItsOwnAdmission) {
    cache.Insert(Item("a", 1 * kMiB));
    cache.Insert(Item("huge", 11 * kMiB));
    EXPECT_EQ(cache.Count(), 1);
    boost::intrusive_ptr<CQRBThumbnailItem> out;
    EXPECT_TRUE(cache.Get(-1, "huge", out));
}

TEST_F(ThumbCacheTest, LookupsDoNotRefreshEntries) {
    cache.Insert(Item("old", 5 * kMiB));
    cache.Insert(Item("new", 5 * kMiB));
    boost::intrusive_ptr<CQRBThumbnailItem> out;
    ASSERT_TRUE(cache.Get(-1, "old", out));
    cache.Insert(Item("newest", 1));
    EXPECT_FALSE(cache.Get(-1, "old", out)) << "first in, first out, even after a lookup";
    EXPECT_TRUE(cache.Get(-1, "new", out));
}

TEST_F(ThumbCacheTest, SizedLookupNeedsTheExactFirstImageSize) {
    cache.Insert(Item("pic", 100, 32, 16));
    boost::intrusive_ptr<CQRBThumbnailItem> out;
    EXPECT_TRUE(cache.Get(-1, "pic", 32, 16, out));
    EXPECT_FALSE(cache.Get(-1, "pic", 16, 16, out));
    EXPECT_FALSE(cache.Get(5, "pic", 32, 16, out)) << "the id is part of the key";
}

TEST_F(ThumbCacheTest, DuplicatesTakeTwoEntriesAndTheOlderIsFound) {
    auto first = Item("dup", 10);
    auto second = Item("dup", 10);
    cache.Insert(first);
    cache.Insert(second);
    EXPECT_EQ(cache.Count(), 2);
    boost::intrusive_ptr<CQRBThumbnailItem> out;
    ASSERT_TRUE(cache.Get(-1, "dup", out));
    EXPECT_EQ(out.get(), first.get());
}

TEST_F(ThumbCacheTest, NullItemChangesNothingAndClearReleasesEverything) {
    cache.Insert(nullptr);
    EXPECT_EQ(cache.Count(), 0);
    auto item = Item("held", 10);
    cache.Insert(item);
    EXPECT_EQ(item->RefCount(), 2);
    cache.ClearAll();
    EXPECT_EQ(item->RefCount(), 1);
    EXPECT_EQ(cache.TotalSize(), 0);
    cache.Destroy();
    EXPECT_FALSE(cache.FlagCreate());
}

TEST_F(ThumbCacheTest, ItemSizeCountsDataAndEveryImage) {
    auto item = Item("sz", 100);
    boost::intrusive_ptr<CQRBThumbImage> second(new CQRBThumbImage);
    item->AddImage(second);
    item->SetData(std::string(50, 'd'));
    EXPECT_EQ(item->CacheSize(), 250);
}

}  // namespace
