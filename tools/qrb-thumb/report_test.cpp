#include "report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace qrbthumb {
namespace {

Outcome Done() {
    Outcome o;
    o.input = "photos/beach.jpg";
    o.kind = "picture";
    o.media = 1;
    o.device = 100;
    o.ok = true;
    o.width = 320;
    o.height = 240;
    o.frames = 1;
    o.milliseconds = 14;
    o.outputs = {"out/beach.jpg-0.png"};
    return o;
}

Outcome Failed() {
    Outcome o;
    o.input = "gone.mp3";
    o.kind = "music";
    o.media = 2;
    o.device = 100;
    o.milliseconds = 3;
    o.note = "no such file";
    return o;
}

TEST(ToolReport, LineOfASuccessGivesSizeFramesTimeAndFiles) {
    EXPECT_EQ(FormatLine(Done()),
              "ok   photos/beach.jpg (picture): 320x240, 1 frame, 14 ms -> out/beach.jpg-0.png");
    Outcome video = Done();
    video.kind = "video";
    video.frames = 2;
    video.outputs = {"a-0.png", "a-1.png"};
    EXPECT_EQ(FormatLine(video),
              "ok   photos/beach.jpg (video): 320x240, 2 frames, 14 ms -> a-0.png a-1.png");
}

TEST(ToolReport, LineOfAFailureStartsWithFailAndGivesTheReason) {
    EXPECT_EQ(FormatLine(Failed()), "FAIL gone.mp3 (music): -, 0 frames, 3 ms - no such file");
}

TEST(ToolReport, JsonHoldsEveryFieldOfEveryOutcomeInOrder) {
    const nlohmann::json parsed = nlohmann::json::parse(FormatJson({Done(), Failed()}));
    ASSERT_TRUE(parsed.is_array());
    ASSERT_EQ(parsed.size(), 2u);
    const auto& ok = parsed[0];
    EXPECT_EQ(ok["input"], "photos/beach.jpg");
    EXPECT_EQ(ok["kind"], "picture");
    EXPECT_EQ(ok["media"], 1);
    EXPECT_EQ(ok["device"], 100);
    EXPECT_EQ(ok["status"], "ok");
    EXPECT_EQ(ok["width"], 320);
    EXPECT_EQ(ok["height"], 240);
    EXPECT_EQ(ok["frames"], 1);
    EXPECT_EQ(ok["milliseconds"], 14);
    EXPECT_EQ(ok["outputs"], nlohmann::json::array({"out/beach.jpg-0.png"}));
    EXPECT_FALSE(ok.contains("note"));
    const auto& failed = parsed[1];
    EXPECT_EQ(failed["status"], "fail");
    EXPECT_EQ(failed["note"], "no such file");
    EXPECT_EQ(failed["outputs"], nlohmann::json::array());
}

TEST(ToolReport, JsonOfNoInputsIsAnEmptyArray) {
    EXPECT_EQ(nlohmann::json::parse(FormatJson({})), nlohmann::json::array());
}

TEST(ToolReport, JsonEscapesQuotesAndControlCharactersAndSurvivesBadUtf8) {
    Outcome o = Failed();
    o.input = "a \"quoted\"\n\\name\xff.mp3";
    std::string text;
    ASSERT_NO_THROW(text = FormatJson({o}));
    const nlohmann::json parsed = nlohmann::json::parse(text);
    // The valid part is kept; the invalid byte becomes U+FFFD.
    EXPECT_EQ(parsed[0]["input"], "a \"quoted\"\n\\name\xEF\xBF\xBD.mp3");
}

TEST(ToolReport, SummaryCountsSuccessesAndFailures) {
    EXPECT_EQ(FormatSummary({Done(), Failed(), Failed()}), "3 inputs: 1 ok, 2 failed");
    EXPECT_EQ(FormatSummary({Done()}), "1 input: 1 ok, 0 failed");
}

}  // namespace
}  // namespace qrbthumb
