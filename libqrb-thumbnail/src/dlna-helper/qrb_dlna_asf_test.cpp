// The exported MTA download through the media-sharing service from 127.0.0.1 (and a raw peer
// that drops the connection). Decoding is tested through the DLNA getter.
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

// Every download reports progress before it ends: had a progress call woken its caller or
// counted towards the shared completion signal, a caller would answer -1 (its result as it
// starts) or come back before its own file is in place, here or in the downloads after it.
TEST(QRBDlnaAsfDownloadTest, DownloadsCompleteInTurnAndFailuresKeepTheOldFile) {
    constexpr size_t kBody = 150000;
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::LoopbackHttpServer server;
    server.Http().Get("/item.mta", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(qrbtest::PatternBytes(0, kBody), "text/xml");
    });
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(mkdir((root.Path() + "/dl").c_str(), 0700), 0);
    const std::string path = root.Path() + "/dl/item.mta";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(qrb_dlna_asf_mta_download(server.Url("/item.mta").c_str(), "text/xml",
                                            path.c_str(), nullptr),
                  0)
            << i;
        EXPECT_TRUE(qrbtest::ReadFileBytes(path) == qrbtest::PatternBytes(0, kBody)) << i;
    }
    EXPECT_EQ(root.CountEntries("/dl/"), 1) << "a temporary file was left behind";
    EXPECT_EQ(log.Count("Download Complete"), 3);

    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const struct {
        std::string uri;
        bool refused;  // never accepted, so never called back
    } cases[] = {
        {server.Url("/missing.mta"), false},
        {dropper.Url("http", "/item.mta"), false},
        {"ftp://127.0.0.1/item.mta", true},
    };
    root.WriteFile("dl/item.mta", "old");
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(qrb_dlna_asf_mta_download(c.uri.c_str(), "text/xml", path.c_str(), nullptr), -1)
            << c.uri;
        EXPECT_EQ(qrbtest::ReadFileBytes(path), "old") << c.uri;
        EXPECT_EQ(root.CountEntries("/dl/"), 1) << c.uri;
        EXPECT_EQ(log.Contains("DOWNLOAD_STATUS_ERROR"), !c.refused) << c.uri;
    }
}

}  // namespace
