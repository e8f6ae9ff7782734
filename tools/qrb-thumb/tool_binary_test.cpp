// Runs the built qrb-thumb as a user would, on a scratch root.
#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class ToolBinary : public ::testing::Test {
protected:
    // env: assignments put in front of the command, e.g. "QRB_LOG_LEVEL=3".
    ToolRun Run(const std::vector<std::string>& args, const std::string& env = "") {
        const std::string out = root.Path() + "/stdout.txt";
        const std::string err = root.Path() + "/stderr.txt";
        std::string command = env + " " + Quote(QRB_THUMB_BINARY);
        for (const auto& arg : args) command += " " + Quote(arg);
        command += " >" + Quote(out) + " 2>" + Quote(err);
        const int status = std::system(command.c_str());
        ToolRun run;
        // A crash shows as 128 + signal, as a shell reports it.
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        run.out = qrbtest::ReadFileBytes(out);
        run.err = qrbtest::ReadFileBytes(err);
        return run;
    }
    std::string At(const std::string& name) const { return root.Path() + "/" + name; }
    // Made with its parents by the tool.
    std::string OutDir() const { return root.Path() + "/thumbs/of/today"; }

    qrbtest::ScratchRoot root;
};

TEST_F(ToolBinary, MissingFilesEachGetOneFailLineAndExitOne) {
    const std::vector<std::string> inputs = {At("gone.jpg"), At("gone.mp3"), At("gone.mp4"),
                                             At("gone-without-extension")};
    std::vector<std::string> args = {"-o", OutDir(), "--timeout", "60"};
    args.insert(args.end(), inputs.begin(), inputs.end());
    const ToolRun run = Run(args);
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_EQ(lines.size(), inputs.size()) << run.out;
    for (size_t i = 0; i < inputs.size(); ++i) {
        EXPECT_TRUE(StartsWith(lines[i], "FAIL " + inputs[i] + " (")) << lines[i];
    }
    EXPECT_NE(lines[0].find("(picture)"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("(music)"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("(video)"), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find("(unknown)"), std::string::npos) << lines[3];
    EXPECT_NE(run.err.find("4 inputs: 0 ok, 4 failed"), std::string::npos) << run.err;
    struct stat st;
    ASSERT_EQ(stat(OutDir().c_str(), &st), 0) << "the output folder is made with its parents";
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(root.CountEntries("/thumbs/of/today"), 0);
}

TEST_F(ToolBinary, JsonOutputIsOneWellFormedArray) {
    const ToolRun run =
        Run({"--json", "-o", OutDir(), At("a.jpg"), At("b \"quoted\".mp3"), At("c.mkv")});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    nlohmann::json parsed;
    ASSERT_NO_THROW(parsed = nlohmann::json::parse(run.out)) << run.out;
    ASSERT_TRUE(parsed.is_array());
    ASSERT_EQ(parsed.size(), 3u);
    EXPECT_EQ(parsed[1]["input"], At("b \"quoted\".mp3"));
    const char* kinds[] = {"picture", "music", "video"};
    const int media[] = {1, 2, 0};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(parsed[i]["status"], "fail");
        EXPECT_EQ(parsed[i]["kind"], kinds[i]);
        EXPECT_EQ(parsed[i]["media"], media[i]);
        EXPECT_EQ(parsed[i]["device"], 100);
        EXPECT_EQ(parsed[i]["outputs"], nlohmann::json::array());
        // What the library found: no files, and (in this root) no media plug-ins for videos.
        const char* reason = i == 2 ? "media plug-ins missing" : "no such file";
        EXPECT_EQ(parsed[i]["reason"], reason);
        EXPECT_EQ(parsed[i]["note"], reason);
    }
}

// A video that opens but never gives a picture is answered without images; the tool counts it
// as failed and says why in the library's words. A good video beside it comes out.
TEST_F(ToolBinary, AVideoThatGivesNoFrameFailsWithTheLibrarysReason) {
    // The media plug-ins the build made, where the library looks for them under the root.
    const std::filesystem::path plugins = root.Resolve("/usr/lib/gstreamer-1.0/");
    std::filesystem::create_directories(plugins);
    for (const char* name : {"libgstffmpeg.so", "libgstffmpegscale.so"}) {
        std::filesystem::copy_file(std::filesystem::path(QRB_MEDIA_PLUGIN_DIR) / name,
                                   plugins / name);
    }
    const std::string fixtures = QRB_VIDEO_FIXTURE_DIR;
    const std::string blank = fixtures + "/no_pictures_h264_64x64_2s.mp4";
    const std::string good = fixtures + "/fade_h264_320x240_3s.mp4";
    const ToolRun run = Run({"--json", "--timeout", "60", "-o", OutDir(), blank, good});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const nlohmann::json parsed = nlohmann::json::parse(run.out);
    ASSERT_EQ(parsed.size(), 2u) << run.out;
    EXPECT_EQ(parsed[0]["kind"], "video");
    EXPECT_EQ(parsed[0]["status"], "fail");
    EXPECT_EQ(parsed[0]["frames"], 0);
    EXPECT_EQ(parsed[0]["outputs"], nlohmann::json::array());
    EXPECT_EQ(parsed[0]["reason"], "no frame could be decoded");
    EXPECT_EQ(parsed[0]["note"], "no frame could be decoded");
    EXPECT_EQ(parsed[1]["status"], "ok") << parsed[1].dump();
    EXPECT_EQ(parsed[1]["frames"], 1);
    EXPECT_FALSE(parsed[1].contains("reason"));
    EXPECT_NE(run.err.find("2 inputs: 1 ok, 1 failed"), std::string::npos) << run.err;
}

TEST_F(ToolBinary, SignatureAndKindOverrideReachTheRequest) {
    const std::string jpegNamedMp3 = root.WriteFile("song.mp3", std::string("\xFF\xD8\xFF\xE0", 4));
    ToolRun run = Run({"--json", "-o", OutDir(), jpegNamedMp3});
    nlohmann::json parsed = nlohmann::json::parse(run.out);
    EXPECT_EQ(parsed[0]["kind"], "picture");
    EXPECT_EQ(parsed[0]["media"], 1);
    EXPECT_NE(parsed[0]["note"], "no such file");  // it exists; the library refused it

    run = Run({"--json", "-k", "ra", "-o", OutDir(), jpegNamedMp3});
    parsed = nlohmann::json::parse(run.out);
    EXPECT_EQ(parsed[0]["kind"], "ra");
    EXPECT_EQ(parsed[0]["device"], 106);
}

TEST_F(ToolBinary, UsageErrorsExitTwoWithoutAReportAndHelpExitsZero) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"-n", "9", "a.jpg"}, {"-s", "big", "a.jpg"}, {"-k", "movie", "a.jpg"}}) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, 2) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_FALSE(run.err.empty());
    }
    const ToolRun help = Run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Usage: qrb-thumb"), std::string::npos) << help.out;
}

TEST_F(ToolBinary, ContactSheetListsEveryInputEscaped) {
    const std::string sheet = At("sheet/index.html");
    mkdir(At("sheet").c_str(), 0755);
    const ToolRun run =
        Run({"--sheet", sheet, "-o", OutDir(), At("<b>&\"x'.jpg"), At("plain.png")});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const std::string html = qrbtest::ReadFileBytes(sheet);
    EXPECT_NE(html.find("&lt;b&gt;&amp;&quot;x&#39;.jpg"), std::string::npos) << html;
    EXPECT_EQ(html.find("<b>&"), std::string::npos);
    EXPECT_NE(html.find("plain.png"), std::string::npos);
    EXPECT_NE(html.find("2 inputs: 0 ok, 2 failed"), std::string::npos);
    // A sheet that cannot be written fails the run.
    const ToolRun unwritable =
        Run({"--sheet", At("no/such/dir/index.html"), "-o", OutDir(), "-k", "picture", At("x")});
    EXPECT_EQ(unwritable.exitCode, 1);
    EXPECT_NE(unwritable.err.find("no/such/dir/index.html"), std::string::npos) << unwritable.err;
}

TEST_F(ToolBinary, TheLibraryStaysQuietUnlessVerbose) {
    // Debug level: the library logs every request it takes.
    const ToolRun quiet = Run({"-o", OutDir(), At("x.jpg")}, "QRB_LOG_LEVEL=3");
    for (const auto& line : Lines(quiet.err)) {
        EXPECT_TRUE(StartsWith(line, "qrb-thumb: ")) << line;
    }
    const ToolRun verbose = Run({"-v", "-o", OutDir(), At("x.jpg")}, "QRB_LOG_LEVEL=3");
    size_t library = 0;
    for (const auto& line : Lines(verbose.err)) library += StartsWith(line, "qrb-thumb: ") ? 0 : 1;
    EXPECT_GT(library, 0u) << verbose.err;
}

// The one kind that answers with content today: a web item asked for as encoded bytes comes
// back as downloaded, and the tool saves it untouched under the item's name.
TEST_F(ToolBinary, AnEncodedWebItemIsSavedAsDownloaded) {
    const std::string jpeg("\xFF\xD8\xFF\xE0\0\x10JFIF\0 and then some bytes", 31);
    httplib::Server server;
    server.Get("/pics/beach.jpg", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(jpeg, "image/jpeg");
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port, 0);
    std::thread serving([&] { server.listen_after_bind(); });
    // Connections made before the loop runs wait in the listen backlog, so no wait is needed.

    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/pics/beach.jpg";
    const ToolRun run = Run({"--encoded", "--json", "--timeout", "60", "-o", OutDir(), url});
    server.stop();
    serving.join();

    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const nlohmann::json parsed = nlohmann::json::parse(run.out);
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed[0]["status"], "ok");
    EXPECT_EQ(parsed[0]["kind"], "web");
    EXPECT_EQ(parsed[0]["device"], 104);
    EXPECT_EQ(parsed[0]["frames"], 1);
    EXPECT_EQ(parsed[0]["outputs"], nlohmann::json::array({OutDir() + "/beach.jpg.jpg"}));
    EXPECT_EQ(qrbtest::ReadFileBytes(OutDir() + "/beach.jpg.jpg"), jpeg);
}

}  // namespace
