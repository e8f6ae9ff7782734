// What the video and recording tests share: the fixture videos the build made (see
// make_video_fixtures.sh), the plug-ins installed into a scratch root, and small tools that read
// real media with FFmpeg to tell the tests what to expect (durations, key-frame times, the key
// frames themselves) or to give copies the side data a phone or an HDR file carries.
#ifndef QRB_VIDEO_TEST_SUPPORT_H
#define QRB_VIDEO_TEST_SUPPORT_H

#include "qrb_test_root.h"

#include <string>
#include <vector>

namespace qrbtest {

// Full path of a fixture video made by the build.
std::string VideoFixture(const std::string& name);

// Copies the two media plug-ins the build made, or the libraries given in their place (none for
// null), into root's plug-in folder under the plug-ins' names.
void InstallMediaPlugins(const ScratchRoot& root, const char* decoder = QRB_MEDIA_PLUGIN_DECODER,
                         const char* scaler = QRB_MEDIA_PLUGIN_SCALER);

// Mean of the blue, green and red bytes over a rectangle of a BGRA raster.
struct MeanColour {
    double b = 0;
    double g = 0;
    double r = 0;
    double Grey() const { return (b + g + r) / 3; }
};
MeanColour MeanOf(const std::string& bgra, int width, int x0, int y0, int x1, int y1);

struct MediaFacts {
    long long durationUs = -1;       // the container's, as FFmpeg reads it
    std::vector<double> keyTimesMs;  // video key frames, from the stream's start
};
MediaFacts ReadMediaFacts(const std::string& path);

// The first count key-frame packets of the video stream of a transport stream, as a recorder
// hands them over: one coded picture each, with the headers it carries in the stream.
std::vector<std::string> CutKeyFrames(const std::string& path, int count);

// A copy of src whose video stream carries the display matrix (a, b, 0; c, d, 0; 0, 0, 1): a
// point (x, y) of the stored picture is shown at (a x + c y, b x + d y), y downwards, as a
// phone's or an editor's turn and mirror record it.
void WriteWithDisplayMatrix(const std::string& src, const std::string& dst, int a, int b, int c,
                            int d);

// A copy of src in an MP4 file whose video stream carries a Dolby Vision configuration record
// of this profile and base-layer compatibility (1 HDR10, 4 HLG), as such a file states it.
void WriteWithDolbyVision(const std::string& src, const std::string& dst, int profile,
                          int compatibility);
// The Dolby Vision profile a file's video stream states, -1 for none.
int DolbyVisionProfile(const std::string& path);

}  // namespace qrbtest

#endif
