// What the tool says about each input: one line per input for people, or a JSON array for
// programs. Both are built from the same record, so they never disagree.
#ifndef QRB_THUMB_TOOL_REPORT_H
#define QRB_THUMB_TOOL_REPORT_H

#include <string>
#include <vector>

namespace qrbthumb {

struct Outcome {
    std::string input;
    std::string kind;  // KindName of the kind used
    int media = 0;     // the media and device types requested (meaningless for kind unknown)
    int device = 0;
    bool ok = false;
    int width = 0;  // size of the images delivered; 0 x 0 when none
    int height = 0;
    int frames = 0;                    // images written
    long long milliseconds = 0;        // from posting the request to its answer (or giving up)
    std::vector<std::string> outputs;  // files written, as paths the user can open
    std::string note;                  // why it failed, or what was odd; empty when nothing
    std::string reason;                // why the library failed it, in its words; empty else
};

// "ok   photo.jpg (picture): 320x240, 1 frame, 14 ms -> out/photo.jpg.0.png"
// "FAIL song.mp3 (music): -, 0 frames, 3 ms - no image in the library's answer"
std::string FormatLine(const Outcome& outcome);

// A JSON array with one object per outcome, in order. Bytes that are not UTF-8 in names
// are replaced rather than refused.
std::string FormatJson(const std::vector<Outcome>& outcomes);

// "3 inputs: 1 ok, 2 failed"
std::string FormatSummary(const std::vector<Outcome>& outcomes);

}  // namespace qrbthumb

#endif
