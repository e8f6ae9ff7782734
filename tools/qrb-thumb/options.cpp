#include "options.h"

#include <CLI/CLI.hpp>

#include <cstdlib>

namespace qrbthumb {

namespace {

// "WxH" with both sides in 0..kMaxSide, and either both zero or both positive.
bool ParseSize(const std::string& text, int* width, int* height) {
    const size_t x = text.find_first_of("xX");
    if (x == std::string::npos || x == 0 || x + 1 == text.size()) return false;
    const std::string w = text.substr(0, x);
    const std::string h = text.substr(x + 1);
    auto digits = [](const std::string& s) {
        return s.size() <= 5 && s.find_first_not_of("0123456789") == std::string::npos;
    };
    if (!digits(w) || !digits(h)) return false;
    const int wv = std::atoi(w.c_str());
    const int hv = std::atoi(h.c_str());
    if (wv > kMaxSide || hv > kMaxSide || ((wv == 0) != (hv == 0))) return false;
    *width = wv;
    *height = hv;
    return true;
}

}  // namespace

int ParseOptions(int argc, const char* const* argv, ToolOptions* options, std::ostream& out,
                 std::ostream& err) {
    CLI::App app{
        "Makes thumbnails of pictures, songs, videos and network items through the "
        "qrb-thumbnail library, writes them as PNG and reports on every input."};
    app.name("qrb-thumb");

    std::string size = std::to_string(options->width) + "x" + std::to_string(options->height);
    app.add_option("-s,--size", size, "Thumbnail size WxH (0x0: the item's own size)")
        ->type_name("WxH")
        ->check([](const std::string& text) {
            int w = 0, h = 0;
            return ParseSize(text, &w, &h)
                       ? std::string()
                       : "expected WxH with sides up to " + std::to_string(kMaxSide) +
                             ", both zero or both positive";
        })
        ->capture_default_str();
    app.add_option("-n,--frames", options->frames, "Video frames per input (1 to 5)")
        ->check(CLI::Range(1, QRB_THUMB_MAX_IMAGES))
        ->capture_default_str();
    std::string kind;
    app.add_option("-k,--kind", kind, "Treat every input as this kind instead of guessing")
        ->check(CLI::IsMember(
            {"picture", "music", "video", "recording", "scsa", "dlna", "web", "ptp", "ra"}));
    app.add_option("-o,--output", options->outDir, "Folder for the images (made when missing)")
        ->type_name("DIR")
        ->capture_default_str();
    std::string format = "png";
    app.add_option("--format", format, "Image format of the thumbnails written")
        ->check(CLI::IsMember({"png", "jpg"}))
        ->capture_default_str();
    app.add_option("--thumbnailer", options->thumbnailerSize,
                   "Desktop thumbnailer mode: the inputs are the item's URI and the PNG file to "
                   "write; the thumbnail fits inside SIZE x SIZE")
        ->type_name("SIZE")
        ->check(CLI::Range(1, kMaxSide));
    app.add_flag("--cache", options->useCache, "Let the library answer from its cache");
    app.add_flag("--json", options->json, "Print a JSON array instead of one line per input");
    app.add_option("--sheet", options->sheetPath, "Write an HTML contact sheet to this file")
        ->type_name("FILE.html");
    app.add_option("--timeout", options->timeoutSeconds,
                   "Seconds to wait for each input's answer; unanswered by then, it fails")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    app.add_flag("--encoded", options->encoded,
                 "Ask for the item's encoded bytes where its kind delivers them (web items) and "
                 "save them as they are");
    app.add_flag("-v,--verbose", options->verbose,
                 "Show the library's log (QRB_LOG_LEVEL decides how much); quiet otherwise");
    app.add_option("INPUT", options->inputs,
                   "Paths, file:// or http(s):// URLs, ptp:// objects or path;mta-uri;mime "
                   "DLNA items")
        ->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e, out, err);
        return code == 0 ? kExitOk : kExitUsage;
    }
    ParseSize(size, &options->width, &options->height);  // checked above
    options->kind = KindFromName(kind);
    options->format = format == "jpg" ? ImageFormat::Jpeg : ImageFormat::Png;
    if (options->thumbnailerSize > 0 && options->inputs.size() != 2) {
        err << "qrb-thumb: --thumbnailer takes two arguments: the item's URI and the file to write\n";
        return kExitUsage;
    }
    return -1;
}

}  // namespace qrbthumb
