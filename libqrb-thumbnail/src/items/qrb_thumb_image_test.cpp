#include "qrb_thumb_image.h"

#include "qrb_test_getter.h"
#include "qrb_test_log.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_getter_factory.h"
#include "qrb_thumbnail_item.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Pixel (x, y) = (x, y, 7, 255).
boost::intrusive_ptr<CQRBThumbImage> Gradient(int w, int h) {
    auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(w) * h * 4));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            unsigned char* px = p + (static_cast<size_t>(y) * w + x) * 4;
            px[0] = static_cast<unsigned char>(x);
            px[1] = static_cast<unsigned char>(y);
            px[2] = 7;
            px[3] = 255;
        }
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 4, w * 4, p, 0);
    return image;
}

TEST(ThumbImageTest, CentreCropKeepsTheMiddlePixels) {
    qrbtest::LogCapture log;
    auto image = Gradient(200, 112);
    ASSERT_TRUE(image->CropARGB(0, 6, 200, 100));
    EXPECT_EQ(image->GetWidth(), 200);
    EXPECT_EQ(image->GetHeight(), 100);
    const unsigned char* p = image->GetBuffer();
    EXPECT_EQ(p[1], 6) << "row 0 of the crop is source row 6";
    EXPECT_EQ(p[(99 * 200 + 199) * 4 + 0], 199);
    EXPECT_EQ(p[(99 * 200 + 199) * 4 + 1], 105);
    EXPECT_TRUE(log.Contains("cropStartX=0, cropStartY=6, destWidth=200, destHeight=100"));
}

// The one centre crop every kind uses: only a request that fits inside the raster both ways
// and has no zero side crops, around ((w - width) / 2, (h - height) / 2).
TEST(ThumbImageTest, CentreCropOnlyWhenTheRequestFitsInside) {
    for (auto [w, h] : {std::pair{7, 2}, {2, 5}, {0, 2}, {2, 0}, {0, 0}, {-2, 2}}) {
        auto image = Gradient(6, 4);
        EXPECT_FALSE(image->CropCentre(w, h)) << w << " x " << h;
        EXPECT_EQ(image->GetWidth() * 10 + image->GetHeight(), 64) << w << " x " << h;
    }
    auto image = Gradient(6, 4);
    ASSERT_TRUE(image->CropCentre(3, 2));
    ASSERT_EQ(image->GetWidth() * 10 + image->GetHeight(), 32);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) {
            EXPECT_EQ(image->GetBuffer()[(y * 3 + x) * 4 + 0], 1 + x);
            EXPECT_EQ(image->GetBuffer()[(y * 3 + x) * 4 + 1], 1 + y);
        }
}

TEST(ThumbImageTest, FullSizeCropIsANoOpWhateverTheOrigin) {
    auto image = Gradient(8, 8);
    const unsigned char* before = image->GetBuffer();
    EXPECT_TRUE(image->CropARGB(10, 10, 8, 8));
    EXPECT_EQ(image->GetBuffer(), before);
}

TEST(ThumbImageTest, CropRefusesBadArgumentsAndFarEdgesOutsideTheSource) {
    qrbtest::LogCapture log;
    auto image = Gradient(10, 10);
    EXPECT_FALSE(image->CropARGB(-1, 0, 5, 5));
    EXPECT_FALSE(image->CropARGB(0, 0, 0, 5));
    EXPECT_TRUE(log.Contains("invalid parameter"));
    EXPECT_FALSE(image->CropARGB(0, 0, 11, 5));
    EXPECT_TRUE(log.Contains("srcWidth<destWidth or srcHeight<destHeight"));
    EXPECT_FALSE(image->CropARGB(6, 0, 5, 5)) << "the far edge would be column 10";
    EXPECT_FALSE(image->CropARGB(0, 2147483000, 5, 5));
    EXPECT_EQ(image->GetWidth(), 10);
    CQRBThumbImage empty;
    EXPECT_FALSE(empty.CropARGB(0, 0, 1, 1));
}

TEST(ThumbImageTest, ReleaseBufferForgetsTheRaster) {
    auto image = Gradient(3, 2);
    EXPECT_EQ(image->GetBytesPerLine(), 12);
    image->ReleaseBuffer();
    EXPECT_EQ(image->GetBuffer(), nullptr);
    EXPECT_EQ(image->GetWidth(), 0);
    EXPECT_TRUE(image->FlagCreate());
    image->Destroy();
    EXPECT_FALSE(image->FlagCreate());
}

TEST(ThumbnailItemTest, HoldsAtMostFiveImages) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(item->AddImage(Gradient(1, 1)));
    EXPECT_FALSE(item->AddImage(Gradient(1, 1)));
    EXPECT_EQ(item->GetImageCount(), 5);
}

TEST(ThumbnailItemTest, ReferencesKeepImagesAliveUntilTheLastGoes) {
    auto image = Gradient(1, 1);
    {
        boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
        item->AddImage(image);
        EXPECT_EQ(image->RefCount(), 2);
    }
    EXPECT_EQ(image->RefCount(), 1);
}

TEST(ThumbnailItemTest, PresetIsAZeroFilledCopy) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    EXPECT_EQ(item->GetPreset(), nullptr);
    ASSERT_TRUE(item->SetBufferPreset("long preset text"));
    ASSERT_TRUE(item->SetBufferPreset("short"));
    EXPECT_STREQ(item->GetPreset(), "short");
    EXPECT_EQ(item->GetPreset()[10], '\0');
}

class PackingGetter : public CQRBThumbnailGetter {
public:
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo) override { return nullptr; }
    const char* T_CONVERTURITOPATH(const char* uri) override { return uri; }
    using CQRBThumbnailGetter::ExtractThumbnail;
    using CQRBThumbnailGetter::t_PackImage;
};

TEST(GetterTest, PackingWrapsTheImageAndAccountsForItsRaster) {
    PackingGetter getter;
    auto item = getter.t_PackImage(Gradient(30, 20));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->GetRID(), 0);
    EXPECT_EQ(item->GetImageCount(), 1);
    EXPECT_EQ(item->GetSize(), 30 * 20 * 4);
    auto empty = getter.t_PackImage(nullptr);
    EXPECT_EQ(empty->GetImageCount(), 1);
    EXPECT_EQ(empty->GetSize(), 0);
    std::string bytes = "x";
    EXPECT_FALSE(getter.ExtractThumbnail(bytes, 1, 1)) << "no buffer form unless a kind has one";
}

TEST(GetterFactoryTest, VideoAndOutOfRangeKindsHaveNoGetter) {
    auto* flyweights = CQRBThumbFlyWeightFactroy::GetInstance();
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_VIDEO), nullptr);
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_VIDEO), nullptr);
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_NONE), nullptr);
    EXPECT_EQ(flyweights->GetFlyWeight(static_cast<qrb_media_thumbnail_type>(-1)), nullptr);
    for (int kind : {2, 7, 8, 9, 15, 17, 40}) {
        std::unique_ptr<CQRBThumbnailGetter> made(CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(
            static_cast<qrb_media_thumbnail_type>(kind)));
        EXPECT_EQ(made, nullptr) << kind;
    }
}

TEST(GetterFactoryTest, SharedGetterIsMadeOnceAndReturnedEveryTime) {
    auto* installed = qrbtest::InstallScriptedGetter(THUMB_RESERVED8);
    auto* flyweights = CQRBThumbFlyWeightFactroy::GetInstance();
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_RESERVED8), installed);
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_RESERVED8), installed);
    flyweights->Install(THUMB_RESERVED8, nullptr);
    EXPECT_EQ(flyweights->GetFlyWeight(THUMB_RESERVED8), nullptr) << "asked again, still none";
}

}  // namespace
