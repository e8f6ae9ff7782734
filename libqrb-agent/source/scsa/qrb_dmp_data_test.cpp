// The DMP data store: every GetValue key, index checks, and concurrent use.
#include "qrb_dmp_data.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// A record whose texts name their key and a tag, so that a key reading another field shows
// (one key of each part of the record); pictures i are (100 + i) x (50 + i).
_stDMPMETADATA Record(const std::string& tag, int images) {
    _stDMPMETADATA m;
    m.strFilePath = "FILE_PATH" + tag;
    m.common.strContentID = "CONTENT_ID" + tag;
    m.common.strTitleDisplaySort = "TITLE_SORT" + tag;
    m.common.strSummary4000 = "SUMMARY_4000" + tag;
    for (int i = 0; i < images; ++i) {
        const std::string t = tag + "." + std::to_string(i);
        m.images.push_back({100 + i, 50 + i, "", "TRACK_REFERENCE" + t, "STREAM_NAME" + t});
        m.ratings.push_back({"", "", "", "", "ADULT_CONTENT" + t});
    }
    return m;
}

// The text GetValue answers, or "<none>" (with the output left null).
std::string Text(CQRBDmpData& data, const std::string& path, const std::string& key) {
    char* value = nullptr;
    if (!data.GetValue(path, key, &value)) return value == nullptr ? "<none>" : "<set on failure>";
    std::string text = value;
    std::free(value);  // a malloc'ed copy: ASan reports a mismatch otherwise
    return text;
}

int Number(CQRBDmpData& data, const std::string& path, const std::string& key) {
    int value = -1;
    return data.GetValue(path, key, &value) ? value : -1;
}

TEST(DmpDataTest, KeysReadTheCurrentContentAndIndexesAreCheckedBeforeAnyAccess) {
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> records{Record("#0", 1), Record("#1", 3), Record("#2", 0)};
    data.InsertData("/p.uvu", records);
    // Content 0, its first picture and first rating, until another picture is handed out.
    for (const char* key : {"FILE_PATH", "CONTENT_ID", "SUMMARY_4000"})
        EXPECT_EQ(Text(data, "/p.uvu", key), key + std::string("#0"));
    for (const char* key : {"TRACK_REFERENCE", "STREAM_NAME", "ADULT_CONTENT"})
        EXPECT_EQ(Text(data, "/p.uvu", key), key + std::string("#0.0"));
    EXPECT_EQ(Number(data, "/p.uvu", "WIDTH") * 1000 + Number(data, "/p.uvu", "HEIGHT"), 100050);
    std::string picture, reference;
    ASSERT_TRUE(data.GetThumbnailData("/p.uvu", 1, 2, picture, reference));
    EXPECT_EQ(picture + " " + reference, "STREAM_NAME#1.2 TRACK_REFERENCE#1.2");
    EXPECT_EQ(Number(data, "/p.uvu", "WIDTH"), 102);
    EXPECT_EQ(Text(data, "/p.uvu", "TITLE_SORT"), "TITLE_SORT#1");
    qrbtest::LogCapture log;
    EXPECT_EQ(Text(data, "/nowhere.uvu", "CONTENT_ID"), "<none>");
    EXPECT_TRUE(log.Contains("DmpData: wrong file path = [/nowhere.uvu]"));
    EXPECT_EQ(Text(data, "/p.uvu", "WIDTH"), "<none>");  // a number, asked as text
    EXPECT_TRUE(log.Contains("DmpData: wrong strField = [WIDTH]"));
    const struct {
        std::string path;
        int content, image;
        int images;  // GetThumbDataCount's count, -1: refused
    } cases[] = {
        {"/p.uvu", 1, 2, 3},  {"/p.uvu", 2, 0, 0},   {"/p.uvu", 1, 3, 3},      {"/p.uvu", 0, -1, 1},
        {"/p.uvu", 3, 0, -1}, {"/p.uvu", -1, 0, -1}, {"/other.uvu", 0, 0, -1},
    };
    for (const auto& c : cases) {
        int images = -1;
        EXPECT_EQ(data.GetThumbDataCount(c.path, c.content, images), c.images >= 0);
        EXPECT_EQ(images, c.images >= 0 ? c.images : 0);
        const bool ok = c.image >= 0 && c.image < c.images;
        picture = reference = "stale";
        EXPECT_EQ(data.GetThumbnailData(c.path, c.content, c.image, picture, reference), ok);
        EXPECT_EQ(picture.empty(), !ok);
    }
}

TEST(DmpDataTest, ReadersNeverSeeAPackageHalfReplaced) {
    // Writers replace a package by 1 or by 5 contents, over and over; readers must always see
    // one of the two whole versions.
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> small{Record("#s", 1)};
    std::vector<_stDMPMETADATA> large(5, Record("#l", 1));
    data.InsertData("/p.uvu", small);
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> writers, readers;
    for (int w = 0; w < 2; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; !stop; ++i) data.InsertData("/p.uvu", (i + w) % 2 ? large : small);
        });
    }
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                int count = 0, images = 0;
                if (!data.GetThumbCount("/p.uvu", count) || (count != 1 && count != 5)) ++bad;
                const std::string id = Text(data, "/p.uvu", "CONTENT_ID");
                if (id != "CONTENT_ID#s" && id != "CONTENT_ID#l") ++bad;
                std::string picture, reference;
                data.GetThumbnailData("/p.uvu", i % 5, 0, picture, reference);
                if (data.GetThumbDataCount("/p.uvu", 0, images) && images != 1) ++bad;
            }
        });
    }
    for (auto& t : readers) t.join();
    stop = true;
    for (auto& t : writers) t.join();
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
