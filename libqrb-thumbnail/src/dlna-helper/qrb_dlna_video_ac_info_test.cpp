// The chapter records and the MTA loader: a chapter's thumbnail as URI or bytes (with the
// 16-bit URI length), and MTA documents from short literals, hostile ones included.
#include "qrb_dlna_video_ac_info.h"

#include "dlna-helper/qrb_dlna_test_support.h"

#include "qrb_test_http_server.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <string>

namespace {

using namespace qrbdlnatest;

signed char* Text(std::string& s) { return reinterpret_cast<signed char*>(&s[0]); }
std::string UriOf(QRBDlnaMediadata& chapter) {
    const signed char* uri = chapter.GetThumbnailURI();
    return uri == nullptr ? "<none>" : reinterpret_cast<const char*>(uri);
}
std::string StreamOf(QRBDlnaMediadata& chapter) {
    const unsigned char* data = nullptr;
    const unsigned long n = chapter.GetThumbnailStream(&data);
    return n == 0 ? "" : std::string(reinterpret_cast<const char*>(data), n);
}

TEST(QRBDlnaMediadataTest, LaterThumbnailDecidesTheKindAndUriLengthIs16Bits) {
    qrbtest::LogCapture log;
    QRBDlnaMediadata chapter;
    std::string uri = "http://server/chapter1.jpg";
    const std::string bytes("\xFF\xD8\x00\xFF\xD9", 5);
    ASSERT_EQ(chapter.PutThumbnailURI(Text(uri)), AC_OK);
    EXPECT_EQ(UriOf(chapter), uri);
    ASSERT_EQ(chapter.PutThumbnailStream(reinterpret_cast<const unsigned char*>(bytes.data()), 5),
              AC_OK);
    EXPECT_EQ(StreamOf(chapter), bytes);
    EXPECT_EQ(UriOf(chapter), "<none>") << "the bytes are the thumbnail now, though a URI is held";
    EXPECT_TRUE(log.Contains("Error:no data"));

    // Refusals leave what was there.
    std::string empty;
    EXPECT_EQ(chapter.PutThumbnailURI(nullptr), AC_INVALID_PARAMETER);
    EXPECT_EQ(chapter.PutThumbnailURI(Text(empty)), AC_INVALID_PARAMETER);
    EXPECT_EQ(chapter.PutThumbnailStream(nullptr, 4), AC_INVALID_PARAMETER);
    EXPECT_EQ(chapter.PutThumbnailStream(reinterpret_cast<const unsigned char*>(bytes.data()), 0),
              AC_INVALID_PARAMETER);
    EXPECT_EQ(log.Count("AC_INVALID_PARAMETER"), 4);
    EXPECT_EQ(StreamOf(chapter), bytes);
    EXPECT_EQ(chapter.GetThumbnailStream(nullptr), 0u);

    const struct {
        size_t length;
        long kept;  // characters stored; -1: refused
    } lengths[] = {{65535, 65535}, {65536, -1}, {65537, 1}, {65538, 2}};
    for (const auto& c : lengths) {
        QRBDlnaMediadata fresh;
        std::string longUri = "ht" + std::string(c.length - 2, 'p');
        EXPECT_EQ(fresh.PutThumbnailURI(Text(longUri)), c.kept < 0 ? AC_INVALID_PARAMETER : AC_OK);
        EXPECT_EQ(UriOf(fresh), c.kept < 0 ? "<none>" : longUri.substr(0, c.kept)) << c.length;
    }
}

class QRBDlnaVideoACInfoTest : public ::testing::Test {
protected:
    int Load(const std::string& text) {
        return m_Info.LoadVideoACInfo(m_Root.WriteFile("mta/item.mta", text).c_str());
    }
    std::string Stream(int index) {
        const unsigned char* data = nullptr;
        const unsigned long n = m_Info.GetVideoChapterThumbStream(index, &data);
        return n == 0 ? "" : std::string(reinterpret_cast<const char*>(data), n);
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    QRBDlnaVideoACInfo m_Info;
};

TEST_F(QRBDlnaVideoACInfoTest, ChaptersKeepFileOrderWithOrWithoutPictureAndPosition) {
    std::vector<Chapter> chapters = PictureChapters(5);
    chapters[1].picture.clear();
    chapters[3].timePoint.clear();
    chapters[4].timePoint = "-5";
    // Other elements around the segments are stepped over; the root's name is not checked.
    std::string xml = MtaXml(chapters, "<Note>first</Note>");
    xml.insert(xml.find("</ChapterSegment>") + 17, "<Note/><ChapterSegmentX/>");
    for (size_t at; (at = xml.find("MediaInformation>")) != std::string::npos;)
        xml.replace(at, 16, "AnyRoot");
    ASSERT_EQ(Load(xml), 0);

    ASSERT_EQ(m_Info.GetChapterNum(), 5);
    const unsigned int starts[] = {0, 60000, 120000, 0, static_cast<unsigned int>(-5)};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Stream(i), chapters[i].picture.empty() ? "" : Decoded(chapters[i].picture)) << i;
        EXPECT_EQ(m_Info.GetVideoChapterStartTime(i), starts[i]) << i;
    }
    EXPECT_TRUE(m_Log.Contains("duartion is 120000"));
    EXPECT_TRUE(
        m_Log.Contains("decode length " + std::to_string(Decoded(chapters[0].picture).size())));
    const unsigned char* untouched = reinterpret_cast<const unsigned char*>(&m_Log);
    const unsigned char* data = untouched;
    for (int index : {-1, 5}) {
        EXPECT_EQ(m_Info.GetVideoChapterThumbStream(index, &data), 0u) << index;
        EXPECT_EQ(m_Info.GetVideoChapterStartTime(index), 0u) << index;
    }
    EXPECT_EQ(data, untouched);

    ASSERT_EQ(Load(MtaXml(PictureChapters(2))), 0);
    EXPECT_EQ(m_Info.GetChapterNum(), 2) << "a second load replaces the chapters";
}

TEST_F(QRBDlnaVideoACInfoTest, FilesWithoutTheChapterPathFailWithTheirReason) {
    std::string laughs = "<!DOCTYPE r [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    laughs +=
        "]><r><ContentInformation><Chaptering><ChapterSegment><KeyFrame><InlineMedia>&l9;"
        "</InlineMedia></KeyFrame></ChapterSegment></Chaptering></ContentInformation></r>";
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"", "mta string IS NULL"},
        {"<r><ContentInformation>", "XML Parsing error"},
        {laughs, "XML Parsing error"},
        {"<r><Chaptering><ChapterSegment/></Chaptering></r>", "Cannot get pContentInfoNode by XML"},
        // Only the first "ContentInformation" counts.
        {"<r><ContentInformation/><ContentInformation><Chaptering><ChapterSegment/></Chaptering>"
         "</ContentInformation></r>",
         "Cannot get pChapteringNode by XML"},
        {"<r><ContentInformation><Chaptering><Chapter/></Chaptering></ContentInformation></r>",
         "Cannot get pChapterSegmentNode by XML"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Load(MtaXml(PictureChapters(5))), 0);
        m_Log.Clear();
        EXPECT_EQ(Load(c.text), -1) << c.reason;
        EXPECT_EQ(m_Info.GetChapterNum(), 0) << c.reason;
        EXPECT_TRUE(m_Log.Contains(c.reason)) << c.reason;
    }
    const std::string missing = m_Root.Resolve("/no/such.mta");
    EXPECT_EQ(m_Info.LoadVideoACInfo(missing.c_str()), -1);
    EXPECT_TRUE(m_Log.Contains("Error:" + missing + " not exist"));
    const std::string fifo = m_Root.Resolve("/fifo.mta");  // opening it for reading would block
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(m_Info.LoadVideoACInfo(fifo.c_str()), -1);
    EXPECT_EQ(m_Info.LoadVideoACInfo(m_Root.Path().c_str()), -1);
    // Past the size bound the file is not even parsed.
    std::string huge = MtaXml(PictureChapters(5));
    huge.insert(huge.find("<MediaInformation>") + 18,
                std::string(QRBDlnaVideoACInfo::kMaxMtaBytes, ' '));
    m_Log.Clear();
    EXPECT_EQ(Load(huge), -1);
    EXPECT_FALSE(m_Log.Contains("entring\tm_ParseMtaXML !!!"));
}

TEST_F(QRBDlnaVideoACInfoTest, ExternalEntitiesAreNeitherFetchedNorRead) {
    qrbtest::LoopbackHttpServer server;
    std::atomic<int> hits{0};
    server.Http().Get(".*", [&](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content("QUJD", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    const std::string secret = m_Root.WriteFile("secret.txt", "c2VjcmV0");  // base64 of "secret"
    const std::string xml = "<!DOCTYPE r [<!ENTITY local SYSTEM \"file://" + secret +
                            "\"><!ENTITY remote SYSTEM \"" + server.Url("/entity") +
                            "\"><!ENTITY % dtd SYSTEM \"" + server.Url("/dtd") +
                            "\">%dtd;]>"
                            "<r><ContentInformation><Chaptering><ChapterSegment><KeyFrame>"
                            "<InlineMedia>QUJD&local;&remote;</InlineMedia></KeyFrame>"
                            "</ChapterSegment></Chaptering></ContentInformation></r>";
    // The references stay unexpanded and are skipped: only the element's own text is decoded.
    EXPECT_EQ(Load(xml), 0);
    EXPECT_EQ(hits.load(), 0);
    ASSERT_EQ(m_Info.GetChapterNum(), 1);
    EXPECT_EQ(Stream(0), "ABC");
}

}  // namespace
