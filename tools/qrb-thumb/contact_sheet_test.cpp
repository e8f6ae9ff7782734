#include "contact_sheet.h"

#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace qrbthumb {
namespace {

size_t Occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

Outcome Made(const std::string& input, std::vector<std::string> outputs) {
    Outcome o;
    o.input = input;
    o.kind = "picture";
    o.ok = true;
    o.width = 160;
    o.height = 120;
    o.frames = static_cast<int>(outputs.size());
    o.milliseconds = 9;
    o.outputs = std::move(outputs);
    return o;
}

TEST(ToolContactSheet, HtmlEscapeCoversMarkupAndBothQuotes) {
    EXPECT_EQ(HtmlEscape("<b>&\"x'"), "&lt;b&gt;&amp;&quot;x&#39;");
    EXPECT_EQ(HtmlEscape("plain name.jpg"), "plain name.jpg");
    EXPECT_EQ(HtmlEscape("&amp;"), "&amp;amp;");
}

TEST(ToolContactSheet, LinksAreRelativeToThePagesFolder) {
    EXPECT_EQ(RelativeHref("/d/index.html", "/d/thumbs/a.png"), "thumbs/a.png");
    EXPECT_EQ(RelativeHref("/d/sheets/index.html", "/d/thumbs/a.png"), "../thumbs/a.png");
    EXPECT_EQ(RelativeHref("/d/index.html", "/d/a.png"), "a.png");
    EXPECT_EQ(RelativeHref("/d/./x/../index.html", "/d/t/a.png"), "t/a.png");
}

TEST(ToolContactSheet, LinksPercentEncodeWhatAUrlCannotCarry) {
    EXPECT_EQ(RelativeHref("/d/index.html", "/d/my thumbs/a#1?.png"), "my%20thumbs/a%231%3F.png");
    EXPECT_EQ(RelativeHref("/d/index.html", "/d/\"<&>'.png"), "%22%3C%26%3E%27.png");
    EXPECT_EQ(RelativeHref("/d/index.html", "/d/caf\xC3\xA9.png"), "caf%C3%A9.png");
}

TEST(ToolContactSheet, RelativeLinksFromARelativePageName) {
    // Both names relative to the working folder, as a user types them.
    EXPECT_EQ(RelativeHref("out/index.html", "out/t/a.png"), "t/a.png");
    EXPECT_EQ(RelativeHref("index.html", "out/a.png"), "out/a.png");
}

TEST(ToolContactSheet, NamesWithMarkupAreEscapedEverywhereTheyAppear) {
    const std::string evil = "<script>alert(\"x\")</script>&'.jpg";
    Outcome failed;
    failed.input = evil;
    failed.kind = "picture";
    failed.note = "no such <file>";
    const std::string html = RenderContactSheet({failed}, "/d/index.html");
    EXPECT_EQ(html.find("<script>"), std::string::npos);
    EXPECT_EQ(html.find("no such <file>"), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt;&amp;&#39;.jpg"),
              std::string::npos);
    EXPECT_NE(html.find("no such &lt;file&gt;"), std::string::npos);
    EXPECT_NE(html.find("FAIL"), std::string::npos);
}

TEST(ToolContactSheet, EachImageIsShownAndLinkedWithStatusAndSize) {
    const std::string html = RenderContactSheet(
        {Made("/m/a.jpg", {"/d/t/a-0.png"}), Made("/m/v.mp4", {"/d/t/v-0.png", "/d/t/v-1.png"})},
        "/d/index.html");
    EXPECT_EQ(Occurrences(html, "<img src=\""), 3u);
    EXPECT_NE(html.find("<a href=\"t/a-0.png\"><img src=\"t/a-0.png\""), std::string::npos);
    EXPECT_NE(html.find("src=\"t/v-1.png\""), std::string::npos);
    EXPECT_EQ(Occurrences(html, "class=\"card ok\""), 2u);
    EXPECT_NE(html.find("160&times;120"), std::string::npos);
    EXPECT_NE(html.find("2 inputs: 2 ok, 0 failed"), std::string::npos);
    EXPECT_EQ(html.rfind("</html>\n"), html.size() - 8);
}

TEST(ToolContactSheet, WritesThePageAndReportsAnUnwritableOne) {
    qrbtest::ScratchRoot root;
    const std::string page = root.Path() + "/index.html";
    std::string error;
    ASSERT_TRUE(WriteContactSheet({Made("a.jpg", {root.Path() + "/a.png"})}, page, &error));
    EXPECT_EQ(qrbtest::ReadFileBytes(page), RenderContactSheet({Made("a.jpg", {root.Path() + "/a.png"})}, page));
    EXPECT_FALSE(WriteContactSheet({}, root.Path() + "/missing/index.html", &error));
    EXPECT_NE(error.find("missing/index.html"), std::string::npos);
}

}  // namespace
}  // namespace qrbthumb
