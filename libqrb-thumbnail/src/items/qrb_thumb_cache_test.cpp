// The size-bounded first-in-first-out result cache and its items.
#include "qrb_thumb_cache.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr int kMiB = 1024 * 1024;
using ItemPtr = boost::intrusive_ptr<CQRBThumbnailItem>;

// An item of one image `width` pixels wide that accounts for `bytes` (not its real pixels).
ItemPtr Item(const std::string& url, int bytes, int width = 1) {
    ItemPtr item(new CQRBThumbnailItem);
    item->SetURL(url);
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(width, 1, 4, width * 4, static_cast<unsigned char*>(calloc(width, 4)), 0);
    item->AddImage(image);
    item->SetSize(bytes);
    return item;
}

TEST(ThumbCacheTest, AdmissionEvictsTheOldestUntilTheNewItemFits) {
    const struct {
        std::vector<int> mib;  // items "a", "b", ... inserted in order, "a" looked up after each
        std::string kept;
    } cases[] = {
        {{4, 4, 4}, "bc"},  // the third evicts the first, though it was looked up; 8 MiB left
        {{6, 4}, "ab"},     // exactly 10 MiB: nothing goes
        {{1, 11}, "b"},     // never evicted by its own admission
    };
    for (const auto& c : cases) {
        CQRBThumbCache cache;
        ASSERT_TRUE(cache.Create());
        ItemPtr out;
        for (size_t i = 0; i < c.mib.size(); ++i) {
            cache.Insert(Item(std::string(1, 'a' + i), c.mib[i] * kMiB));
            cache.Get(0, "a", out);
        }
        std::string kept;
        long long total = 0;
        for (size_t i = 0; i < c.mib.size(); ++i)
            if (cache.Get(0, std::string(1, 'a' + i), out)) {
                kept += static_cast<char>('a' + i);
                total += c.mib[i] * kMiB;
            }
        EXPECT_EQ(c.kept, kept);
        EXPECT_EQ(total, cache.TotalSize()) << c.kept;
    }
}

TEST(ThumbCacheTest, SizedLookupOlderFirstAndClear) {
    CQRBThumbCache cache;
    ASSERT_TRUE(cache.Create());
    const ItemPtr item = Item("pic", 100, 32);
    item->AddImage(nullptr);
    item->SetData(std::string(50, 'd'));
    cache.Insert(item);
    EXPECT_EQ(250, cache.TotalSize()) << "data and every image";
    cache.Insert(Item("pic", 0, 32));
    ItemPtr out;
    EXPECT_TRUE(cache.Get(0, "pic", 32, 1, out));
    EXPECT_EQ(item, out) << "of two items of one URL, the older";
    EXPECT_FALSE(cache.Get(0, "pic", 16, 1, out));
    EXPECT_FALSE(cache.Get(5, "pic", 32, 1, out)) << "the id is part of the key";
    out.reset();
    cache.ClearAll();  // the cache lets go of the item
    EXPECT_EQ(1, item->RefCount());
    EXPECT_EQ(0, cache.TotalSize());
}

TEST(ThumbnailItemTest, HoldsAtMostFiveImagesAndAZeroFilledPreset) {
    ItemPtr item(new CQRBThumbnailItem);
    for (int i = 0; i < 5; ++i) item->AddImage(nullptr);
    EXPECT_FALSE(item->AddImage(nullptr));
    item->SetBufferPreset("long preset text");
    ASSERT_TRUE(item->SetBufferPreset("short"));
    EXPECT_EQ(0, std::memcmp(item->GetPreset(), "short\0\0\0\0\0\0", 12));
}

}  // namespace
