// Runs the built qrb-thumb as a user would, on a scratch root.
#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class ToolBinary : public ::testing::Test {
protected:
    ToolRun Run(const std::vector<std::string>& args) {
        const std::string out = At("stdout.txt");
        const std::string err = At("stderr.txt");
        std::string command = Quote(QRB_THUMB_BINARY);
        for (const auto& arg : args) command += " " + Quote(arg);
        const int status = std::system((command + " >" + Quote(out) + " 2>" + Quote(err)).c_str());
        // A crash shows as 128 + signal, as a shell reports it.
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                qrbtest::ReadFileBytes(out), qrbtest::ReadFileBytes(err)};
    }
    nlohmann::json RunJson(std::vector<std::string> args, int exitCode) {
        args.insert(args.begin(), {"--json", "--timeout", "60", "-o", OutDir()});
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, exitCode) << run.err;
        return nlohmann::json::parse(run.out);
    }
    std::string At(const std::string& name) const { return root.Path() + "/" + name; }
    // Made with its parents by the tool; links to it must be percent-encoded.
    std::string OutDir() const { return At("thumbs/of \"to#day\""); }

    qrbtest::ScratchRoot root;
};

// 0 after --help, 2 for a refused command line (said on stderr, no report), 1 for a failed input.
TEST_F(ToolBinary, ExitCodesOfCommandLines) {
    const std::string gone = At("gone.jpg");
    const struct {
        std::vector<std::string> args;
        int exitCode;
    } rows[] = {
        {{"--help"}, 0},
        {{"-s", "0x0", gone}, 1},  // the item's own size
        {{}, 2},
        {{"-s", "4097x10", gone}, 2},
        {{"-s", "99999999999x1", gone}, 2},
        {{"-n", "6", gone}, 2},
        {{"--thumbnailer", "128", "file://" + gone}, 2},  // the URI and the file to write
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        const ToolRun run = Run(row.args);
        EXPECT_EQ(run.exitCode, row.exitCode) << run.err;
        if (row.exitCode == 0) {
            EXPECT_TRUE(Has(run.out, "Usage: qrb-thumb")) << run.out;
        } else if (row.exitCode == 2) {
            EXPECT_TRUE(run.out.empty() && !run.err.empty()) << run.out;
        }
    }
}

// One line per input with its kind and reason; the contact sheet shows names as text, not markup.
TEST_F(ToolBinary, EveryInputGetsOneLineWithItsKindAndReason) {
    const std::string jpegNamedMp3 = root.WriteFile("song.mp3", std::string("\xFF\xD8\xFF\xE0", 4));
    const struct {
        std::string input;
        const char* kind;
        const char* note;
    } rows[] = {
        {At("gone.jpg"), "picture", "no such file"},
        {At("<b>&\"x'.mp3"), "music", "no such file"},
        {At("gone.mp4"), "video", "media plug-ins missing"},  // none in this root
        {At("gone"), "unknown", "cannot tell what kind of media this is (name it with -k)"},
        {At("gone.jpg"), "picture", "no such file"},
        {jpegNamedMp3, "picture", ""},  // refused by the picture decoder
    };
    std::vector<std::string> args = {"-o", OutDir(), "--timeout", "60", "--sheet", At("i.html")};
    for (const auto& row : rows) args.push_back(row.input);
    const ToolRun run = Run(args);
    EXPECT_EQ(run.exitCode, 1) << run.err;
    std::vector<std::string> lines;
    std::istringstream out(run.out);
    for (std::string line; std::getline(out, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), std::size(rows)) << run.out;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string start = "FAIL " + rows[i].input + " (" + rows[i].kind + "): -, 0 frames";
        EXPECT_EQ(lines[i].rfind(start, 0), 0u) << lines[i];
        EXPECT_TRUE(Has(lines[i], std::string(" - ") + rows[i].note)) << lines[i];
    }
    EXPECT_FALSE(Has(lines.back(), "no such file")) << lines.back();
    EXPECT_TRUE(Has(run.err, "6 inputs: 0 ok, 6 failed")) << run.err;
    EXPECT_TRUE(std::filesystem::is_directory(OutDir()) && std::filesystem::is_empty(OutDir()));
    const std::string html = qrbtest::ReadFileBytes(At("i.html"));
    EXPECT_TRUE(Has(html, "&lt;b&gt;&amp;&quot;x&#39;.mp3") && !Has(html, "<b>&")) << html;
}

// A video without pictures fails in the library's words; a good one is linked from the sheet.
TEST_F(ToolBinary, AVideoThatGivesNoFrameFailsWithTheLibrarysReason) {
    const std::filesystem::path plugins = root.Resolve("/usr/lib/gstreamer-1.0/");
    std::filesystem::create_directories(plugins);
    for (const char* name : {"libgstffmpeg.so", "libgstffmpegscale.so"}) {
        std::filesystem::copy_file(std::filesystem::path(QRB_MEDIA_PLUGIN_DIR) / name,
                                   plugins / name);
    }
    const std::string fixtures = QRB_VIDEO_FIXTURE_DIR;
    std::filesystem::create_directory(At("sheets"));
    const nlohmann::json report = RunJson(
        {"-s", "160x120", "-n", "2", "--sheet", At("sheets/index.html"),
         fixtures + "/no_pictures_h264_64x64_2s.mp4", fixtures + "/fade_h264_320x240_3s.mp4"},
        1);
    ASSERT_EQ(report.size(), 2u) << report.dump();
    EXPECT_EQ(report[0]["status"], "fail");
    EXPECT_EQ(report[0]["outputs"], nlohmann::json::array());
    EXPECT_EQ(report[0]["reason"], "no frame could be decoded");
    EXPECT_EQ(report[1]["status"], "ok") << report[1].dump();
    EXPECT_EQ(report[1]["width"], 160);
    const std::string frame = "/fade_h264_320x240_3s.mp4-1.png";
    EXPECT_EQ(report[1]["outputs"][1], OutDir() + frame);
    const std::string html = qrbtest::ReadFileBytes(At("sheets/index.html"));
    EXPECT_TRUE(Has(html, "<img src=\"../thumbs/of%20%22to%23day%22" + frame + "\"")) << html;
    EXPECT_TRUE(Has(html, "2 inputs: 1 ok, 1 failed")) << html;
}

// The JSON report stays valid whatever bytes a name holds: a bad one becomes U+FFFD.
TEST_F(ToolBinary, TheKindOptionNamesTheKindOfEveryInput) {
    const nlohmann::json report = RunJson({"-k", "ra", At("x\xff\n\"\\.jpg")}, 1);
    EXPECT_EQ(report[0]["input"], At("x\xEF\xBF\xBD\n\"\\.jpg"));
    EXPECT_EQ(report[0]["kind"], "ra");
    EXPECT_EQ(report[0]["media"], 1);
    EXPECT_EQ(report[0]["device"], 106);
}

// A web item asked for encoded is saved as downloaded; an unwritable contact sheet fails the run.
TEST_F(ToolBinary, AnEncodedWebItemIsSavedAsDownloaded) {
    const std::string jpeg("\xFF\xD8\xFF\xE0\0\x10JFIF\0 and then some bytes", 31);
    httplib::Server server;
    server.Get("/pics/beach.jpg", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(jpeg, "image/jpeg");
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port, 0);
    std::thread serving([&] { server.listen_after_bind(); });
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/pics/beach.jpg";
    const ToolRun run = Run({"--json", "--encoded", "--sheet", At("no/index.html"), "--timeout",
                             "60", "-o", OutDir(), url});
    server.stop();
    serving.join();

    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(Has(run.err, "no/index.html")) << run.err;
    const nlohmann::json report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report[0]["status"], "ok") << run.out;
    EXPECT_EQ(report[0]["device"], 104);
    EXPECT_EQ(report[0]["outputs"], nlohmann::json::array({OutDir() + "/beach.jpg.jpg"}));
    EXPECT_EQ(qrbtest::ReadFileBytes(OutDir() + "/beach.jpg.jpg"), jpeg);
}

}  // namespace
