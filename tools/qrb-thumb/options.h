// The command line of qrb-thumb:
//   qrb-thumb [-s WxH] [-n FRAMES] [-k KIND] [-o DIR] [--format png|jpg] [--cache] [--json]
//             [--sheet FILE.html] [--timeout SECONDS] [--encoded] [-v] INPUT...
//   qrb-thumb --thumbnailer SIZE INPUT-URI OUTPUT.png    (as desktop file managers call it)
#ifndef QRB_THUMB_TOOL_OPTIONS_H
#define QRB_THUMB_TOOL_OPTIONS_H

#include "image_writer.h"
#include "media_kind.h"

#include <ostream>
#include <string>
#include <vector>

namespace qrbthumb {

// Exit codes: every input succeeded; at least one failed (or the run could not start);
// the command line was wrong.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// The largest side -s accepts. Five frames of 4096 x 4096 BGRA are 320 MiB already; beyond
// that a typing mistake would only exhaust memory.
constexpr int kMaxSide = 4096;

struct ToolOptions {
    int width = 320;  // 0 x 0 asks for the picture's own size
    int height = 240;
    int frames = 1;                       // video frames wanted; the library serves at most five
    MediaKind kind = MediaKind::Unknown;  // Unknown: guess per input
    std::string outDir = ".";
    bool useCache = false;
    bool json = false;
    std::string sheetPath;        // empty: no contact sheet
    double timeoutSeconds = 120;  // for each input, from its request; unanswered by then, it fails
    ImageFormat format = ImageFormat::Png;
    // Above 0: the desktop thumbnailer mode. inputs then holds the item's URI and the PNG file to
    // write, and the thumbnail keeps the item's aspect ratio inside SIZE x SIZE.
    int thumbnailerSize = 0;
    bool encoded = false;         // ask for encoded bytes where the kind delivers them
    bool verbose = false;         // leave the library's log threshold as the environment sets it
    std::vector<std::string> inputs;
};

// Parses argv into *options. Returns -1 when the run should go on; otherwise the exit code to
// end with: kExitOk after --help (printed to out), kExitUsage after a usage error (explained
// on err).
int ParseOptions(int argc, const char* const* argv, ToolOptions* options, std::ostream& out,
                 std::ostream& err);

}  // namespace qrbthumb

#endif
