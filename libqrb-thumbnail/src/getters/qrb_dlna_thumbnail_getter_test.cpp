// The DLNA getter through the C interface: the item's MTA file is downloaded from 127.0.0.1 to
// the local path its URI names and the five chapter pictures come back still encoded.
#include "dlna-helper/qrb_dlna_test_support.h"
#include "qrb_thumbnail.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_http_server.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_raw_peer.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

namespace {

using namespace qrbdlnatest;

// Six chapters, a URI of two fields and a failed download (missing, endless, cut short, a
// redirect loop, another scheme) each fail with one callback; a failed download keeps the file
// already there and leaves no temporary one. Each download waits for its own end.
TEST(DlnaGetterTest, FiveChaptersArriveAsJpegBytesAndAnythingElseFailsOnce) {
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::CallbackRecorder recorder;
    qrbtest::LoopbackHttpServer server;
    const std::vector<std::string> pictures = ChapterPictures(5);
    const std::string padding = "<Note>" + std::string(150000, 'n') + "</Note>";
    for (const auto& [path, body] : {std::make_pair("/five.mta", MtaXml(pictures, padding)),
                                     std::make_pair("/six.mta", MtaXml(ChapterPictures(6)))}) {
        server.Http().Get(path, [body = body](const httplib::Request&, httplib::Response& res) {
            res.set_content(body, "text/xml");
        });
    }
    server.Http().Get("/endless.mta", [](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("text/xml", [](size_t, httplib::DataSink& sink) {
            const std::string chunk(1 << 16, '<');
            return sink.write(chunk.data(), chunk.size());
        });
    });
    server.Http().Get("/loop.mta", [](const httplib::Request&, httplib::Response& res) {
        res.set_redirect("/loop.mta");
    });
    ASSERT_TRUE(server.Start());
    mkdir(root.Resolve("/dlna").c_str(), 0700);
    ASSERT_EQ(thumbnail_init(), 0);
    auto uri = [&](const std::string& name, bool mime = true) {
        return root.Resolve("/dlna/" + name) + ";" + server.Url("/" + name) +
               (mime ? ";text/xml" : "");
    };
    auto request = [&](const std::string& u) {
        return recorder.Request(u, MEDIA_TYPE_DLNA, DEV_TYPE_LOCAL, 160, 120, 0, 5);
    };

    const qrbtest::RecordedResult r = request(uri("five.mta"));
    ASSERT_EQ(r.count, 5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(r.buffers[i] == Decoded(pictures[i])) << "chapter " << i;
        EXPECT_EQ(r.timestamps[i], 60000LL * i) << i;
    }
    EXPECT_TRUE(log.Contains("MtaDownload param: uri[" + server.Url("/five.mta") +
                             "] , mimetype[text/xml] , dlpath[" + root.Resolve("/dlna/five.mta") +
                             "]"));
    qrbtest::RawTcpPeer dropper(qrbtest::RawTcpPeer::Behaviour::DropMidBody);
    const char* kept[] = {"missing.mta", "endless.mta", "drop.mta", "loop.mta", "ftp.mta"};
    for (const char* name : kept) root.WriteFile(std::string("dlna/") + name, "old");
    const std::pair<std::string, const char*> failing[] = {
        {uri("six.mta"), "decode dlnamta file fail"},
        {uri("five.mta", false), "Exception caught"},
        {uri("missing.mta"), "download dlnamta file fail"},
        {uri("endless.mta"), "download dlnamta file fail"},
        {root.Resolve("/dlna/drop.mta;") + dropper.Url("http", "/") + ";text/xml",
         "download dlnamta file fail"},
        {uri("loop.mta"), "download dlnamta file fail"},
        {root.Resolve("/dlna/ftp.mta;ftp://127.0.0.1/ftp.mta;text/xml"),
         "download dlnamta file fail"}};
    for (const auto& [u, message] : failing) {
        log.Clear();
        EXPECT_EQ(request(u).status, -1) << u;
        EXPECT_TRUE(log.Contains(message)) << u;
    }
    EXPECT_EQ(request(uri("five.mta")).count, 5);
    thumbnail_finalize();
    EXPECT_EQ(recorder.Count(), 9u) << "exactly one callback each";
    for (const char* name : kept)
        EXPECT_EQ(qrbtest::ReadFileBytes(root.Resolve("/dlna/") + name), "old");
    EXPECT_EQ(root.CountEntries("/dlna"), 7) << "a temporary file was left behind";
}

}  // namespace
