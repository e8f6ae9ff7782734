// The exported ASF MTA helper: decoding MTA files into five chapters, and downloading through the
// media-sharing service from 127.0.0.1 (a server that can hold a body half sent, and a raw peer
// that drops the connection).
#include "qrb_thumbnail.h"

#include "dlna-helper/qrb_dlna_test_support.h"

#include "qrb_test_files.h"
#include "qrb_test_http_server.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <string>

namespace {

using namespace qrbdlnatest;
using namespace std::chrono_literals;

constexpr auto kWait = 20s;  // liveness bound only: a hang fails instead of stalling

TEST(QRBDlnaAsfDecodeTest, ExactlyFiveChaptersDecodeAndAnyOtherCountGivesTwo) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::vector<Chapter> five = PictureChapters(5);
    five[2].picture.clear();  // a segment without "KeyFrame": an empty picture, not a failure
    const std::string path = root.WriteFile("five.mta", MtaXml(five));
    thumb_asf_mta_info_s* infos = nullptr;
    int count = 0;
    ASSERT_EQ(qrb_dlna_asf_mta_decode(path.c_str(), &infos, &count), QRB_DLNA_MTA_OK);
    ASSERT_EQ(count, 5);
    for (int i = 0; i < 5; ++i) {
        ASSERT_NE(infos[i].stream, nullptr) << i;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(infos[i].stream), infos[i].size),
                  five[i].picture.empty() ? "" : Decoded(five[i].picture))
            << i;
        EXPECT_EQ(infos[i].start_time, 60000 * i) << i;
    }
    EXPECT_EQ(qrb_dlna_asf_mta_free(infos, count), 0);
    EXPECT_EQ(log.Count("qrb_asf_mta_free"), 5);

    for (int chapters : {0, 4, 6}) {
        const std::string other = root.WriteFile("other.mta", MtaXml(PictureChapters(chapters)));
        EXPECT_EQ(qrb_dlna_asf_mta_decode(other.c_str(), &infos, &count), QRB_DLNA_MTA_UNREADABLE)
            << chapters;
        EXPECT_EQ(infos, nullptr) << chapters;
    }
    EXPECT_EQ(log.Count("LoadVideoACInfo Failed !!!"), 3);
    EXPECT_EQ(qrb_dlna_asf_mta_decode(root.Resolve("/none.mta").c_str(), &infos, &count),
              QRB_DLNA_MTA_UNREADABLE);
    EXPECT_EQ(qrb_dlna_asf_mta_decode(path.c_str(), nullptr, &count), QRB_DLNA_MTA_UNREADABLE);
    EXPECT_EQ(qrb_dlna_asf_mta_free(nullptr, 5), 0);
}

// A door that server handlers wait at until the test opens it.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bOpen = true;
        m_Cond.notify_all();
    }
    bool Pass() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        ++m_nWaiting;
        m_Cond.notify_all();
        return m_Cond.wait_for(lock, kWait, [this] { return m_bOpen; });
    }
    bool WaitForWaiting() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, kWait, [&] { return m_nWaiting > 0; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bOpen = false;
    int m_nWaiting = 0;
};

class QRBDlnaAsfDownloadTest : public ::testing::Test {
protected:
    static constexpr size_t kBody = 150000;

    void SetUp() override {
        mkdir(m_Root.Resolve("/dl").c_str(), 0700);
        m_Server.Http().Get("/item.mta",
                            [this](const httplib::Request& req, httplib::Response& res) {
                                std::lock_guard<std::mutex> lock(m_Mutex);
                                m_Accept = req.get_header_value("Accept");
                                res.set_content(qrbtest::PatternBytes(0, kBody), "text/xml");
                            });
        m_Server.Http().Get("/missing.mta", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content("<html>not here</html>", "text/html");
        });
        // The first half at once, the rest when the gate opens.
        m_Server.Http().Get("/held.mta", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(
                kBody, "text/xml", [this](size_t offset, size_t, httplib::DataSink& sink) {
                    if (offset >= kBody / 2 && !m_Gate.Pass()) return false;
                    const std::string bytes = qrbtest::PatternBytes(offset, kBody / 2);
                    return sink.write(bytes.data(), bytes.size());
                });
        });
        ASSERT_TRUE(m_Server.Start());
    }
    void TearDown() override {
        m_Gate.Open();  // never leave a handler waiting
        m_Server.Stop();
    }

    std::string Path(const std::string& name) const { return m_Root.Resolve("/dl/" + name); }
    std::future<int> Start(const std::string& uri, const std::string& name) {
        const std::string path = Path(name);
        return std::async(std::launch::async, [uri, path] {
            return qrb_dlna_asf_mta_download(uri.c_str(), "text/xml", path.c_str(), nullptr);
        });
    }
    int Download(const std::string& uri, const std::string& name) {
        auto result = Start(uri, name);
        return result.wait_for(kWait) == std::future_status::ready ? result.get() : -99;
    }

    qrbtest::ScratchRoot m_Root;
    qrbtest::LogCapture m_Log;
    Gate m_Gate;
    qrbtest::LoopbackHttpServer m_Server;
    std::mutex m_Mutex;
    std::string m_Accept;  // of the last request for /item.mta
};

TEST_F(QRBDlnaAsfDownloadTest, CompletedDownloadLiesAtThePathAndFailuresKeepTheOldFile) {
    EXPECT_EQ(Download(m_Server.Url("/item.mta"), "item.mta"), 0);
    EXPECT_TRUE(qrbtest::ReadFileBytes(Path("item.mta")) == qrbtest::PatternBytes(0, kBody));
    EXPECT_EQ(m_Root.CountEntries("/dl/"), 1) << "the temporary file was left behind";
    EXPECT_TRUE(m_Log.Contains("Download Complete"));
    EXPECT_TRUE(m_Log.Contains("received " + std::to_string(kBody) + " /" + std::to_string(kBody)));
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        EXPECT_EQ(m_Accept, "text/xml");
    }

    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const struct {
        std::string uri;
        bool refused;  // never accepted, so never called back
    } cases[] = {
        {m_Server.Url("/missing.mta"), false},
        {dropper.Url("http", "/item.mta"), false},
        {"http://127.0.0.1:" + std::to_string(qrbtest::UnusedLoopbackPort()) + "/item.mta", false},
        {"ftp://127.0.0.1/item.mta", true},
        {"127.0.0.1/item.mta", true},
    };
    m_Root.WriteFile("dl/item.mta", "old");
    for (const auto& c : cases) {
        m_Log.Clear();
        EXPECT_EQ(Download(c.uri, "item.mta"), -1) << c.uri;
        EXPECT_EQ(qrbtest::ReadFileBytes(Path("item.mta")), "old") << c.uri;
        EXPECT_EQ(m_Root.CountEntries("/dl/"), 1) << c.uri;
        EXPECT_EQ(m_Log.Contains("DOWNLOAD_STATUS_ERROR"), !c.refused) << c.uri;
        EXPECT_EQ(m_Log.Contains("asf_provider_download error: -1 "), c.refused) << c.uri;
    }
    EXPECT_EQ(qrb_dlna_asf_mta_download(nullptr, "text/xml", Path("x").c_str(), nullptr), -1);
}

TEST_F(QRBDlnaAsfDownloadTest, ProgressNeitherWakesTheCallerNorLeavesACountBehind) {
    auto held = Start(m_Server.Url("/held.mta"), "held.mta");
    ASSERT_TRUE(m_Gate.WaitForWaiting());
    ASSERT_TRUE(m_Log.WaitFor(",state 2\t", kWait));
    // A progress call that woke the caller would have it answer by now, without its file.
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(held.wait_for(0s), std::future_status::timeout);
    m_Gate.Open();
    ASSERT_EQ(held.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(held.get(), 0);
    EXPECT_TRUE(qrbtest::ReadFileBytes(Path("held.mta")) == qrbtest::PatternBytes(0, kBody));

    // Had the progress calls counted, the next callers would be released before their own
    // downloads end and answer -1.
    for (const char* name : {"next1.mta", "next2.mta"}) {
        EXPECT_EQ(Download(m_Server.Url("/item.mta"), name), 0) << name;
        EXPECT_TRUE(qrbtest::ReadFileBytes(Path(name)) == qrbtest::PatternBytes(0, kBody)) << name;
    }
}

TEST_F(QRBDlnaAsfDownloadTest, TwoDownloadsInFlightShareOneCompletionSignal) {
    // The held download waits first; the quick one completes meanwhile and releases whichever
    // caller wakes first. If that is the held one, it answers -1 at once and its download
    // reports later, into a context its caller has let go of.
    auto held = Start(m_Server.Url("/held.mta"), "held.mta");
    ASSERT_TRUE(m_Gate.WaitForWaiting());
    ASSERT_TRUE(m_Log.WaitFor("sSem take()...", kWait));
    auto quick = Start(m_Server.Url("/item.mta"), "quick.mta");
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (held.wait_for(10ms) != std::future_status::ready &&
           quick.wait_for(0s) != std::future_status::ready) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
    const bool heldFirst = held.wait_for(0s) == std::future_status::ready;
    EXPECT_NE(heldFirst, quick.wait_for(0s) == std::future_status::ready) << "both released";
    RecordProperty("held_caller_released_first", heldFirst ? 1 : 0);
    if (heldFirst) EXPECT_EQ(held.get(), -1) << "released before its own download reported";

    m_Gate.Open();
    ASSERT_EQ(quick.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(quick.get(), 0);
    if (!heldFirst) {
        ASSERT_EQ(held.wait_for(kWait), std::future_status::ready);
        EXPECT_EQ(held.get(), 0);
    }
    // Two releases need two completions: both downloads have reported.
    EXPECT_EQ(m_Log.Count("Download Complete"), 2);
    EXPECT_TRUE(qrbtest::ReadFileBytes(Path("held.mta")) == qrbtest::PatternBytes(0, kBody));
    EXPECT_TRUE(qrbtest::ReadFileBytes(Path("quick.mta")) == qrbtest::PatternBytes(0, kBody));
}

}  // namespace
