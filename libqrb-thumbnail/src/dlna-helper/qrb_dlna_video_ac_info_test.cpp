// The MTA loader and its base64 decoder; whole files of five chapters go through the DLNA getter.
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

// Bytes after a URI win over it; the URI's length is kept in 16 bits (65536 characters: none).
TEST(QRBDlnaMediadataTest, StreamAfterAUriWinsAndTheUriLengthIsSixteenBits) {
    qrbtest::LogCapture log;
    QRBDlnaMediadata chapter;
    std::string uri(65536, 'p');
    EXPECT_EQ(chapter.PutThumbnailURI(reinterpret_cast<signed char*>(&uri[0])),
              AC_INVALID_PARAMETER);
    uri += 'q';
    ASSERT_EQ(chapter.PutThumbnailURI(reinterpret_cast<signed char*>(&uri[0])), AC_OK);
    EXPECT_STREQ(reinterpret_cast<const char*>(chapter.GetThumbnailURI()), "p");
    const unsigned char bytes[] = {0xFF, 0xD8, 0xFF, 0xD9};
    ASSERT_EQ(chapter.PutThumbnailStream(bytes, sizeof(bytes)), AC_OK);
    const unsigned char* data = nullptr;
    EXPECT_EQ(chapter.GetThumbnailStream(&data), sizeof(bytes));
    EXPECT_EQ(chapter.GetThumbnailURI(), nullptr);
    EXPECT_TRUE(log.Contains("Error:no data"));
}

// Entities are never expanded (nor files or servers read); other elements are stepped over;
// characters outside the base64 alphabet are folded into the bytes, not skipped.
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
    const std::string chapter =
        "<r><ContentInformation><Chaptering><ChapterSegment><KeyFrame><InlineMedia>";
    const std::string end =
        "</InlineMedia></KeyFrame></ChapterSegment></Chaptering></ContentInformation></r>";
    const std::string secret = root.WriteFile("secret.txt", "c2VjcmV0");
    std::string steppedOver = MtaXml(ChapterPictures(3), "<Note>first</Note>");
    steppedOver.insert(steppedOver.find("</ChapterSegment>") + 17, "<Note/><ChapterSegmentX/>");
    for (size_t at; (at = steppedOver.find("MediaInformation>")) != std::string::npos;)
        steppedOver.replace(at, 16, "AnyRoot");  // the root's name is not checked
    std::string huge = MtaXml(ChapterPictures(5));
    huge.insert(huge.find("<MediaInformation>") + 18,
                std::string(QRBDlnaVideoACInfo::kMaxMtaBytes, ' '));
    const struct {
        std::string text;
        int chapters;  // 0: refused
        const char* reason;
        std::string stream;  // of the first chapter
    } cases[] = {
        {"", 0, "mta string IS NULL", ""},
        {"<!DOCTYPE r [<!ENTITY a \"&b;&b;\"><!ENTITY b \"&a;\">]>" + chapter + "&a;" + end, 0,
         "XML Parsing error", ""},
        // Only the first "ContentInformation" counts.
        {"<r><ContentInformation/><ContentInformation><Chaptering><ChapterSegment/></Chaptering>"
         "</ContentInformation></r>",
         0, "Cannot get pChapteringNode by XML", ""},
        {"<!DOCTYPE r [<!ENTITY local SYSTEM \"file://" + secret + "\"><!ENTITY remote SYSTEM \"" +
             server.Url("/entity") + "\"><!ENTITY % dtd SYSTEM \"" + server.Url("/dtd") +
             "\">%dtd;]>" + chapter + "QUJD&local;&remote;" + end,
         1, "decode length 3", "ABC"},
        {chapter + "QUJD\nQUJD" + end, 1, "decode length 6", std::string("ABC\xFD\x05\x09", 6)},
        {huge, 0, "is larger than", ""},
        {steppedOver, 3, "duartion is 120000", Decoded(ChapterPictures(1)[0])},
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
}

}  // namespace
