// What the tool shows: the report lines, the JSON report, the contact sheet.
#include "contact_sheet.h"
#include "report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <utility>

namespace qrbthumb {
namespace {

Outcome Made(const std::string& input, std::vector<std::string> outputs) {
    Outcome o;
    o.input = input;
    o.kind = "video";
    o.ok = true;
    o.width = 160;
    o.height = 120;
    o.frames = static_cast<int>(outputs.size());
    o.milliseconds = 14;
    o.outputs = std::move(outputs);
    return o;
}

Outcome Failed(const std::string& input, const std::string& note) {
    Outcome o;
    o.input = input;
    o.note = note;
    return o;
}

TEST(ToolReport, ALineOfASuccessAndTheSummary) {
    EXPECT_EQ(FormatLine(Made("v.mp4", {"a-0.png", "a-1.png"})),
              "ok   v.mp4 (video): 160x120, 2 frames, 14 ms -> a-0.png a-1.png");
    EXPECT_EQ(FormatSummary({Made("v.mp4", {"a-0.png"})}), "1 input: 1 ok, 0 failed");
}

TEST(ToolReport, JsonSurvivesControlCharactersAndBadUtf8) {
    std::string text;
    ASSERT_NO_THROW(text = FormatJson({Failed("a \"quoted\"\n\\name\xff.mp3", "x")}));
    // The valid part is kept; the invalid byte becomes U+FFFD.
    EXPECT_EQ(nlohmann::json::parse(text)[0]["input"], "a \"quoted\"\n\\name\xEF\xBF\xBD.mp3");
}

TEST(ToolContactSheet, NamesWithMarkupAreEscapedEverywhereTheyAppear) {
    const std::string html = RenderContactSheet(
        {Failed("<script>alert(\"x\")</script>&'.mp3", "no such <file>")}, "/d/index.html");
    EXPECT_EQ(html.find("<script>"), std::string::npos);
    EXPECT_EQ(html.find("<file>"), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt;&amp;&#39;.mp3"),
              std::string::npos);
    EXPECT_NE(html.find("no such &lt;file&gt;"), std::string::npos);
}

// Links are relative to the page and percent-encode what a URL cannot carry.
TEST(ToolContactSheet, LinksAreRelativeAndEncoded) {
    const struct {
        const char* page;
        const char* file;
        const char* href;
    } rows[] = {
        {"/d/sheets/index.html", "/d/thumbs/a.png", "../thumbs/a.png"},
        {"index.html", "out/a.png", "out/a.png"},  // both relative, as the user typed them
        {"/d/index.html", "/d/my thumbs/a#1?.png", "my%20thumbs/a%231%3F.png"},
        {"/d/index.html", "/d/\"<&>'.png", "%22%3C%26%3E%27.png"},
    };
    for (const auto& row : rows) EXPECT_EQ(RelativeHref(row.page, row.file), row.href) << row.file;
}

}  // namespace
}  // namespace qrbthumb
