// The MTA loader and its base64 decoder, from short literals, hostile documents included.
// Whole files of five chapters are tested through the DLNA getter.
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

// A chapter's thumbnail is a URI or bytes, whichever came last (a URI still held is not
// answered); the URI keeps its length in 16 bits, so 65536 characters count as none.
TEST(QRBDlnaMediadataTest, StreamAfterAUriWinsAndTheUriLengthIsSixteenBits) {
    qrbtest::LogCapture log;
    QRBDlnaMediadata chapter;
    std::string uri(65536, 'p');
    EXPECT_EQ(chapter.PutThumbnailURI(reinterpret_cast<signed char*>(&uri[0])),
              AC_INVALID_PARAMETER);
    uri += 'q';
    ASSERT_EQ(chapter.PutThumbnailURI(reinterpret_cast<signed char*>(&uri[0])), AC_OK);
    EXPECT_STREQ(reinterpret_cast<const char*>(chapter.GetThumbnailURI()), "p");
    uri.resize(65535);
    ASSERT_EQ(chapter.PutThumbnailURI(reinterpret_cast<signed char*>(&uri[0])), AC_OK);
    EXPECT_EQ(reinterpret_cast<const char*>(chapter.GetThumbnailURI()), uri);
    const unsigned char bytes[] = {0xFF, 0xD8, 0xFF, 0xD9};
    ASSERT_EQ(chapter.PutThumbnailStream(bytes, sizeof(bytes)), AC_OK);
    const unsigned char* data = nullptr;
    EXPECT_EQ(chapter.GetThumbnailStream(&data), sizeof(bytes));
    log.Clear();
    EXPECT_EQ(chapter.GetThumbnailURI(), nullptr);
    EXPECT_TRUE(log.Contains("Error:no data"));
}

// Documents as the loader answers them: hostile ones (entities that would expand a billion
// times, or read a file, or fetch from a server) and ones without the chapter path fail or are
// read without expanding anything; other elements are stepped over. The base64 decoder folds
// characters outside the alphabet ("=" and line breaks too) into the bytes instead of skipping
// them.
TEST(QRBDlnaVideoACInfoTest, DocumentsAreReadWithoutExpandingAnythingOrFailWithTheirReason) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::LoopbackHttpServer server;
    std::atomic<int> hits{0};
    server.Http().Get(".*", [&](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content("QUJD", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    std::string laughs = "<!DOCTYPE r [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    const std::string chapter =
        "<r><ContentInformation><Chaptering><ChapterSegment><KeyFrame><InlineMedia>";
    const std::string end =
        "</InlineMedia></KeyFrame></ChapterSegment></Chaptering></ContentInformation></r>";
    const std::string secret = root.WriteFile("secret.txt", "c2VjcmV0");  // base64 of "secret"
    std::string steppedOver = MtaXml(PictureChapters(3), "<Note>first</Note>");
    steppedOver.insert(steppedOver.find("</ChapterSegment>") + 17, "<Note/><ChapterSegmentX/>");
    for (size_t at; (at = steppedOver.find("MediaInformation>")) != std::string::npos;)
        steppedOver.replace(at, 16, "AnyRoot");  // the root's name is not checked
    const struct {
        std::string text;
        int chapters;  // 0: refused
        const char* reason;
        std::string stream;  // of the first chapter
    } cases[] = {
        {"", 0, "mta string IS NULL"},
        {laughs + "]>" + chapter + "&l9;" + end, 0, "XML Parsing error"},
        // Only the first "ContentInformation" counts.
        {"<r><ContentInformation/><ContentInformation><Chaptering><ChapterSegment/></Chaptering>"
         "</ContentInformation></r>",
         0, "Cannot get pChapteringNode by XML"},
        {"<r><ContentInformation><Chaptering><Chapter/></Chaptering></ContentInformation></r>", 0,
         "Cannot get pChapterSegmentNode by XML"},
        // The references stay unexpanded and are skipped: only the element's own text counts.
        {"<!DOCTYPE r [<!ENTITY local SYSTEM \"file://" + secret + "\"><!ENTITY remote SYSTEM \"" +
             server.Url("/entity") + "\"><!ENTITY % dtd SYSTEM \"" + server.Url("/dtd") +
             "\">%dtd;]>" + chapter + "QUJD&local;&remote;" + end,
         1, "decode length 3", "ABC"},
        {chapter + "QUI=" + end, 1, "decode length 3", std::string("AB\xFF", 3)},
        {chapter + "QUJD\nQUJD" + end, 1, "decode length 6", std::string("ABC\xFD\x05\x09", 6)},
        {steppedOver, 3, "duartion is 120000", Decoded(PictureChapters(1)[0].picture)},
    };
    QRBDlnaVideoACInfo info;
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(info.LoadVideoACInfo(root.WriteFile("item.mta", c.text).c_str()),
                  c.chapters ? 0 : -1)
            << c.reason;
        EXPECT_EQ(info.GetChapterNum(), c.chapters) << c.reason;
        EXPECT_TRUE(log.Contains(c.reason)) << c.reason;
        const unsigned char* data = nullptr;
        const unsigned long n = info.GetVideoChapterThumbStream(0, &data);
        EXPECT_TRUE(std::string(reinterpret_cast<const char*>(data), data ? n : 0) == c.stream)
            << c.reason;
    }
    EXPECT_EQ(hits.load(), 0);
    const unsigned char* data = reinterpret_cast<const unsigned char*>(&log);
    EXPECT_EQ(info.GetVideoChapterThumbStream(3, &data) + info.GetVideoChapterStartTime(-1), 0u);
    EXPECT_EQ(data, reinterpret_cast<const unsigned char*>(&log)) << "an index out of range";

    const std::string fifo = root.Path() + "/fifo.mta";  // opening it for reading would block
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(info.LoadVideoACInfo(fifo.c_str()), -1);
    EXPECT_EQ(info.LoadVideoACInfo(root.Path().c_str()), -1);
    std::string huge = MtaXml(PictureChapters(5));  // past the size bound: not even parsed
    huge.insert(huge.find("<MediaInformation>") + 18,
                std::string(QRBDlnaVideoACInfo::kMaxMtaBytes, ' '));
    log.Clear();
    EXPECT_EQ(info.LoadVideoACInfo(root.WriteFile("huge.mta", huge).c_str()), -1);
    EXPECT_FALSE(log.Contains("entring\tm_ParseMtaXML !!!"));
}

}  // namespace
