// The DMP data store: every GetValue key, the current content, index checks, insertion and
// removal, and concurrent use.
#include "qrb_dmp_data.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// The text keys in the order of the record's fields: 13 of its own, then its picture's and its
// rating's.
const char* const kTextKeys[] = {
    "FILE_PATH",     "CONTENT_ID",   "PROFILE",         "RUNLENGTH",    "PUBLISHER",
    "TITLE_19",      "TITLE_60",     "TITLE_UNLIMITED", "TITLE_SORT",   "SUMMARY_190",
    "SUMMARY_400",   "SUMMARY_4000", "DESC_LANGUAGE",   "ENCODING",     "TRACK_REFERENCE",
    "STREAM_NAME",   "COUNTRY",      "SYSTEM",          "RATING_VALUE", "RATING_DESC",
    "ADULT_CONTENT",
};

// A record whose every text is the name of its key and a tag, so that a key reading another
// field shows; pictures i are (100 + i) x (50 + i).
_stDMPMETADATA Record(const std::string& tag, int images, int ratings) {
    _stDMPMETADATA m;
    std::string* own[] = {&m.strFilePath,
                          &m.common.strContentID,
                          &m.common.strMediaProfile,
                          &m.common.strRunLength,
                          &m.common.strPublisher,
                          &m.common.strTitleDisplay19,
                          &m.common.strTitleDisplay60,
                          &m.common.strTitleDisplayUnlimited,
                          &m.common.strTitleDisplaySort,
                          &m.common.strSummary190,
                          &m.common.strSummary400,
                          &m.common.strSummary4000,
                          &m.common.strDescriptionLanguage};
    for (int k = 0; k < 13; ++k) *own[k] = kTextKeys[k] + tag;
    for (int i = 0; i < images; ++i) {
        const std::string t = tag + "." + std::to_string(i);
        m.images.push_back(
            {100 + i, 50 + i, kTextKeys[13] + t, kTextKeys[14] + t, kTextKeys[15] + t});
    }
    for (int i = 0; i < ratings; ++i) {
        const std::string t = tag + "." + std::to_string(i);
        m.ratings.push_back({kTextKeys[16] + t, kTextKeys[17] + t, kTextKeys[18] + t,
                             kTextKeys[19] + t, kTextKeys[20] + t});
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

TEST(DmpDataTest, EveryKeyReadsItsOwnFieldOfTheCurrentContent) {
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> records{Record("#0", 1, 1), Record("#1", 3, 2)};
    data.InsertData("/p.uvu", records);
    qrbtest::LogCapture log;
    // Content 0, its first picture and first rating, until another picture is handed out.
    for (int k = 0; k < 21; ++k) {
        EXPECT_EQ(Text(data, "/p.uvu", kTextKeys[k]),
                  kTextKeys[k] + std::string(k < 13 ? "#0" : "#0.0"));
    }
    EXPECT_EQ(Number(data, "/p.uvu", "INDEX"), 0);
    EXPECT_EQ(Number(data, "/p.uvu", "WIDTH"), 100);
    EXPECT_EQ(Number(data, "/p.uvu", "HEIGHT"), 50);
    EXPECT_TRUE(log.Contains("DmpData: Get int type data: strField = [WIDTH], iValue = [100]"));
    EXPECT_TRUE(
        log.Contains("DmpData: Get int type data: strField = [SYSTEM], strValue = [SYSTEM#0.0]"));

    std::string picture, reference;
    ASSERT_TRUE(data.GetThumbnailData("/p.uvu", 1, 2, picture, reference));
    EXPECT_EQ(picture + " " + reference, "STREAM_NAME#1.2 TRACK_REFERENCE#1.2");
    EXPECT_TRUE(
        log.Contains("strImgPath = [STREAM_NAME#1.2], strTrackReference = [TRACK_REFERENCE#1.2]"));
    EXPECT_EQ(Number(data, "/p.uvu", "INDEX"), 1);
    EXPECT_EQ(Number(data, "/p.uvu", "WIDTH"), 102);
    EXPECT_EQ(Text(data, "/p.uvu", "TITLE_SORT"), "TITLE_SORT#1");
    EXPECT_EQ(Text(data, "/p.uvu", "ENCODING"), "ENCODING#1.2");
    EXPECT_EQ(Text(data, "/p.uvu", "COUNTRY"), "COUNTRY#1.0");

    // Another package becomes current: back to the first content.
    _stDMPMETADATA other = Record("#x", 1, 0);
    data.InsertData("/q.uvu", other);
    EXPECT_EQ(Text(data, "/q.uvu", "CONTENT_ID"), "CONTENT_ID#x");
    EXPECT_EQ(Number(data, "/p.uvu", "INDEX"), 0);
}

TEST(DmpDataTest, GetValueFailuresSayWhy) {
    CQRBDmpData data;
    qrbtest::LogCapture log;
    EXPECT_EQ(Text(data, "/p.uvu", "CONTENT_ID"), "<none>");
    EXPECT_TRUE(log.Contains("DmpData: m_MetaDataMap is empty !"));
    std::vector<_stDMPMETADATA> bare{Record("", 0, 0)}, none;
    bare[0].common.strSummary4000.clear();
    data.InsertData("/p.uvu", bare);
    data.InsertData("/empty.uvu", none);
    const struct {
        std::string path, key;
        bool text;
        const char* log;  // null: success
    } cases[] = {
        {"/p.uvu", "CONTENT_ID", true, nullptr},
        {"/nowhere.uvu", "CONTENT_ID", true, "DmpData: wrong file path = [/nowhere.uvu]"},
        {"/empty.uvu", "CONTENT_ID", true, "DmpData: file /empty.uvu has no data"},
        {"/p.uvu", "content_id", true, "DmpData: wrong strField = [content_id]"},
        {"/p.uvu", "WIDTH", true, "DmpData: wrong strField = [WIDTH]"},
        {"/p.uvu", "TITLE_19", false, "DmpData: wrong strField = [TITLE_19]"},
        {"/p.uvu", "SUMMARY_4000", true, "DmpData: Do not find data strField = [SUMMARY_4000]"},
        {"/p.uvu", "ENCODING", true, "DmpData: Do not find data strField = [ENCODING]"},
        {"/p.uvu", "ADULT_CONTENT", true, "DmpData: Do not find data strField = [ADULT_CONTENT]"},
        {"/p.uvu", "HEIGHT", false, "DmpData: Do not find data strField = [HEIGHT]"},
    };
    for (const auto& c : cases) {
        log.Clear();
        const bool ok =
            c.text ? Text(data, c.path, c.key) != "<none>" : Number(data, c.path, c.key) != -1;
        EXPECT_EQ(ok, c.log == nullptr) << c.path << " " << c.key;
        EXPECT_TRUE(c.log == nullptr || log.Contains(c.log)) << c.log;
    }
    log.Clear();
    EXPECT_FALSE(data.GetValue("/p.uvu", "INDEX", static_cast<int*>(nullptr)));
    EXPECT_FALSE(data.GetValue("/p.uvu", "CONTENT_ID", static_cast<char**>(nullptr)));
    EXPECT_EQ(log.Count("NULL == pValue"), 2);
}

TEST(DmpDataTest, IndexesAreCheckedBeforeAnyAccess) {
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> records{Record("#0", 2, 0), Record("#1", 0, 0)};
    data.InsertData("/p.uvu", records);
    qrbtest::LogCapture log;
    int count = -1;
    EXPECT_TRUE(data.GetThumbCount("/p.uvu", count) && count == 2);
    EXPECT_FALSE(data.GetThumbCount("/other.uvu", count) || count != 0);
    EXPECT_TRUE(
        log.Contains("DmpData: m_MetaDataMap.empty() || m_MetaDataMap[/other.uvu].empty()"));
    const struct {
        std::string path;
        int content, image;
        int images;  // GetThumbDataCount's count, -1: refused
        bool data;   // GetThumbnailData's answer
        const char* log;
    } cases[] = {
        {"/p.uvu", 0, 1, 2, true, "DmpData: iThumbSize = [2]"},
        {"/p.uvu", 1, 0, 0, false, "DmpData: iContentsIndex is Out of Range!! iThumbSize = [0]"},
        {"/p.uvu", 0, 2, 2, false, "DmpData: iContentsIndex is Out of Range!! iThumbSize = [2]"},
        {"/p.uvu", 0, -1, 2, false, "DmpData: iContentsIndex is Out of Range!! iThumbSize = [2]"},
        {"/p.uvu", 2, 0, -1, false, "DmpData: iContentsIndex is Out of Range!! iCountSize = [2]"},
        {"/p.uvu", -1, 0, -1, false, "DmpData: iContentsIndex is Out of Range!! iCountSize = [2]"},
        {"/other.uvu", 0, 0, -1, false,
         "DmpData: iContentsIndex is Out of Range!! iCountSize = [0]"},
    };
    for (const auto& c : cases) {
        log.Clear();
        int images = -1;
        EXPECT_EQ(data.GetThumbDataCount(c.path, c.content, images), c.images >= 0);
        EXPECT_EQ(images, c.images >= 0 ? c.images : 0);
        std::string picture = "stale", reference = "stale";
        EXPECT_EQ(data.GetThumbnailData(c.path, c.content, c.image, picture, reference), c.data);
        EXPECT_EQ(picture.empty(), !c.data);
        EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
}

TEST(DmpDataTest, InsertAppendsOrReplacesAndRemoveDrops) {
    CQRBDmpData data;
    qrbtest::LogCapture log;
    _stDMPMETADATA one = Record("#a", 0, 0);
    data.InsertData("/p.uvu", one);  // appends, to a package not stored yet too
    data.InsertData("/p.uvu", one);
    int count = 0;
    EXPECT_TRUE(data.GetThumbCount("/p.uvu", count) && count == 2);
    std::vector<_stDMPMETADATA> three{Record("#b", 0, 0), Record("#c", 0, 0), Record("#d", 0, 0)};
    data.InsertData("/p.uvu", three);  // replaces
    EXPECT_TRUE(data.GetThumbCount("/p.uvu", count) && count == 3);
    EXPECT_EQ(Text(data, "/p.uvu", "CONTENT_ID"), "CONTENT_ID#b");
    EXPECT_TRUE(data.FindPathExist("/p.uvu"));
    EXPECT_TRUE(data.RemoveData("/p.uvu"));
    EXPECT_FALSE(data.FindPathExist("/p.uvu"));
    EXPECT_FALSE(data.RemoveData("/p.uvu"));
    EXPECT_EQ(Text(data, "/p.uvu", "CONTENT_ID"), "<none>");
    for (const char* line : {"DmpData: bFind = [1]", "DmpData: bFind = [0]",
                             "DmpData: strFilePath = [/p.uvu]", "DmpData: Can not find path !"}) {
        EXPECT_TRUE(log.Contains(line)) << line;
    }
}

TEST(DmpDataTest, ReadersNeverSeeAPackageHalfReplaced) {
    // Writers replace a package by 1 or by 5 contents, over and over; readers must always see
    // one of the two whole versions.
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> small{Record("#s", 1, 1)};
    std::vector<_stDMPMETADATA> large(5, Record("#l", 1, 1));
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
