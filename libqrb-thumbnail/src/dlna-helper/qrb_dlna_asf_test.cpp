// The exported MTA download through the media-sharing service from 127.0.0.1.
#include "qrb_thumbnail.h"

#include "qrb_test_files.h"
#include "qrb_test_http_server.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

namespace {

// Downloads in turn each wait for their own completion (progress calls wake no one); a failed
// one keeps the old file and leaves no temporary one.
TEST(QRBDlnaAsfDownloadTest, DownloadsCompleteInTurnAndFailuresKeepTheOldFile) {
    const std::string body = qrbtest::PatternBytes(0, 150000);
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::LoopbackHttpServer server;
    server.Http().Get("/item.mta", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(body, "text/xml");
    });
    ASSERT_TRUE(server.Start());
    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    ASSERT_EQ(mkdir((root.Path() + "/dl").c_str(), 0700), 0);
    const std::string path = root.Path() + "/dl/item.mta";
    auto download = [&](const std::string& uri) {
        return qrb_dlna_asf_mta_download(uri.c_str(), "text/xml", path.c_str(), nullptr);
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(download(server.Url("/item.mta")), 0) << i;
        EXPECT_TRUE(qrbtest::ReadFileBytes(path) == body) << i;
    }
    EXPECT_EQ(log.Count("Download Complete"), 3);
    root.WriteFile("dl/item.mta", "old");
    // ftp is refused before a transfer starts, so it reports no transfer error.
    for (const std::string& uri : {server.Url("/missing.mta"), dropper.Url("http", "/item.mta"),
                                   std::string("ftp://127.0.0.1/item.mta")}) {
        log.Clear();
        EXPECT_EQ(download(uri), -1) << uri;
        EXPECT_EQ(qrbtest::ReadFileBytes(path), "old") << uri;
        EXPECT_EQ(log.Contains("DOWNLOAD_STATUS_ERROR"), uri[0] == 'h') << uri;
    }
    EXPECT_EQ(root.CountEntries("/dl/"), 1) << "a temporary file was left behind";
}

}  // namespace
