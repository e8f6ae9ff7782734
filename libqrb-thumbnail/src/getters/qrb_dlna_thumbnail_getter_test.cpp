// The DLNA getter through the C interface: a DLNA item (media 6 on an ordinary device) routes to
// kind 10 on the multi variant, whose worker downloads the item's MTA file from 127.0.0.1 and
// answers with the five chapter pictures still encoded.
#include "qrb_dlna_thumbnail_getter.h"

#include "dlna-helper/qrb_dlna_test_support.h"
#include "qrb_thumbnail.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace {

using namespace qrbdlnatest;
using qrbtest::CallbackRecorder;
using qrbtest::RecordedResult;

class QRBDlnaThumbnailGetterTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir(m_Root.Resolve("/dlna").c_str(), 0700);
        std::vector<Chapter> gap = m_Chapters;
        gap[2].picture.clear();
        for (const auto& file : {std::make_pair("/five.mta", MtaXml(m_Chapters)),
                                 std::make_pair("/gap.mta", MtaXml(gap)),
                                 std::make_pair("/four.mta", MtaXml(PictureChapters(4))),
                                 std::make_pair("/six.mta", MtaXml(PictureChapters(6)))}) {
            const std::string body = file.second;
            m_Server.Http().Get(file.first,
                                [body](const httplib::Request&, httplib::Response& res) {
                                    res.set_content(body, "text/xml");
                                });
        }
        ASSERT_TRUE(m_Server.Start());
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override {
        thumbnail_finalize();
        m_Server.Stop();
    }

    std::string Local(const std::string& name) const { return m_Root.Resolve("/dlna/" + name); }
    // "local path;remote URI;MIME type".
    std::string Uri(const std::string& name) const {
        return Local(name) + ";" + m_Server.Url("/" + name) + ";text/xml";
    }
    RecordedResult Request(const std::string& uri) {
        return m_Recorder.Request(uri, MEDIA_TYPE_DLNA, DEV_TYPE_LOCAL, 160, 120, 0, 5);
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    CallbackRecorder m_Recorder;
    qrbtest::LoopbackHttpServer m_Server;
    const std::vector<Chapter> m_Chapters = PictureChapters(5);
};

TEST_F(QRBDlnaThumbnailGetterTest, FiveChaptersArriveAsJpegBytesWithTheirStartTimes) {
    const RecordedResult r = Request(Uri("five.mta"));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.url, Uri("five.mta"));
    EXPECT_EQ(r.count, 5);
    EXPECT_EQ(r.bBuffer + r.width + r.height + r.depth, 0) << "encoded slots carry no geometry";
    for (int i = 0; i < 5; ++i) {
        const std::string want = Decoded(m_Chapters[i].picture);
        EXPECT_EQ(r.sizes[i], static_cast<int>(want.size())) << i;
        EXPECT_TRUE(r.buffers[i] == want) << "chapter " << i << " is not its JPEG";
        EXPECT_EQ(r.timestamps[i], 60000LL * i) << i;
    }
    EXPECT_TRUE(m_Log.Contains("RequestedItem.eThumbnailType=10"));
    EXPECT_TRUE(m_Log.Contains("MtaDownload param: uri[" + m_Server.Url("/five.mta") +
                               "] , mimetype[text/xml] , dlpath[" + Local("five.mta") + "]"));
    EXPECT_EQ(m_Root.CountEntries("/dlna/"), 1) << "the MTA file stays where the URI put it";

    // A chapter without a picture leaves its slot empty; the others keep their slots.
    const RecordedResult gap = Request(Uri("gap.mta"));
    ASSERT_EQ(gap.status, 0);
    EXPECT_EQ(gap.count, 4);
    EXPECT_TRUE(gap.buffers[2].empty());
    EXPECT_EQ(gap.sizes[2], 0);
    EXPECT_TRUE(gap.buffers[4] == Decoded(m_Chapters[4].picture));
    EXPECT_EQ(gap.timestamps[4], 240000);
}

TEST_F(QRBDlnaThumbnailGetterTest, OtherChapterCountsAndFailedDownloadsFail) {
    for (const auto& c : {std::make_pair("four.mta", "decode dlnamta file fail"),
                          std::make_pair("six.mta", "decode dlnamta file fail"),
                          std::make_pair("missing.mta", "download dlnamta file fail")}) {
        m_Log.Clear();
        const RecordedResult r = Request(Uri(c.first));
        EXPECT_EQ(r.status, -1) << c.first;
        EXPECT_EQ(r.count, 0) << c.first;
        EXPECT_TRUE(m_Log.Contains(c.second)) << c.first;
    }
}

TEST_F(QRBDlnaThumbnailGetterTest, UriOfTwoFieldsEndsInOneFailedCallback) {
    const std::string uri = Local("five.mta") + ";" + m_Server.Url("/five.mta");
    _stExtractInfo info;
    info.strURL = uri;
    EXPECT_THROW(CQRBDLNAThumbnailGetter().ExtractThumbnail(info), std::out_of_range);

    m_Log.Clear();
    const RecordedResult r = Request(uri);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.url, uri);
    EXPECT_TRUE(m_Log.Contains("Exception caught"));
    EXPECT_FALSE(m_Log.Contains("MtaDownload param"));
    thumbnail_finalize();
    EXPECT_EQ(m_Recorder.Count(), 1u) << "exactly one callback";
}

}  // namespace
