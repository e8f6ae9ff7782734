#include "contact_sheet.h"

#include "qrb_scoped.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace qrbthumb {

namespace fs = std::filesystem;

namespace {

std::string PercentEncode(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if ((u < 0x80 && std::isalnum(u)) || c == '-' || c == '.' || c == '_' || c == '~' ||
            c == '/') {
            out += c;
        } else {
            out += '%';
            out += kHex[u >> 4];
            out += kHex[u & 15];
        }
    }
    return out;
}

const char kHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>qrb-thumb contact sheet</title>
<style>
body { font-family: sans-serif; margin: 1em; background: #f4f4f4; }
.grid { display: flex; flex-wrap: wrap; gap: 12px; }
.card { background: #fff; border: 1px solid #ccc; padding: 8px; width: 340px; }
.card.fail { border-color: #c33; }
.frames img { max-width: 320px; max-height: 240px; margin: 2px; background: #ddd; }
.name { font-weight: bold; word-break: break-all; }
.fail .status { color: #c33; }
.note { color: #666; font-size: small; }
</style>
</head>
<body>
)";

}  // namespace

std::string HtmlEscape(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string RelativeHref(const std::string& sheetPath, const std::string& filePath) {
    std::error_code ec;
    const fs::path page = fs::absolute(sheetPath, ec).lexically_normal();
    const fs::path file = fs::absolute(filePath, ec).lexically_normal();
    fs::path relative = file.lexically_relative(page.parent_path());
    if (relative.empty()) relative = file;
    return PercentEncode(relative.generic_string());
}

std::string RenderContactSheet(const std::vector<Outcome>& outcomes, const std::string& sheetPath) {
    std::string html = kHead;
    html += "<h1>qrb-thumb contact sheet</h1>\n<p>" + HtmlEscape(FormatSummary(outcomes)) +
            "</p>\n<div class=\"grid\">\n";
    for (const auto& o : outcomes) {
        html += o.ok ? "<div class=\"card ok\">\n" : "<div class=\"card fail\">\n";
        html += "<div class=\"frames\">";
        for (const auto& file : o.outputs) {
            const std::string href = HtmlEscape(RelativeHref(sheetPath, file));
            html += "<a href=\"" + href + "\"><img src=\"" + href + "\" alt=\"" +
                    HtmlEscape(o.input) + "\"></a>";
        }
        html += "</div>\n";
        html += "<div class=\"name\">" + HtmlEscape(o.input) + "</div>\n";
        html += "<div class=\"status\">" + std::string(o.ok ? "ok" : "FAIL") + " &middot; " +
                HtmlEscape(o.kind) + " &middot; ";
        html += (o.width > 0 && o.height > 0)
                    ? std::to_string(o.width) + "&times;" + std::to_string(o.height)
                    : std::string("no size");
        html += " &middot; " + std::to_string(o.frames) + (o.frames == 1 ? " frame" : " frames") +
                " &middot; " + std::to_string(o.milliseconds) + " ms</div>\n";
        if (!o.note.empty()) html += "<div class=\"note\">" + HtmlEscape(o.note) + "</div>\n";
        html += "</div>\n";
    }
    html += "</div>\n</body>\n</html>\n";
    return html;
}

bool WriteContactSheet(const std::vector<Outcome>& outcomes, const std::string& sheetPath,
                       std::string* error) {
    const std::string html = RenderContactSheet(outcomes, sheetPath);
    QRBScopedFile file(std::fopen(sheetPath.c_str(), "w"));
    if (!file) {
        *error = "cannot create " + sheetPath + ": " + std::strerror(errno);
        return false;
    }
    const bool written = std::fwrite(html.data(), 1, html.size(), file.get()) == html.size();
    if (!(std::fclose(file.release()) == 0 && written)) {
        *error = "cannot write " + sheetPath + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace qrbthumb
