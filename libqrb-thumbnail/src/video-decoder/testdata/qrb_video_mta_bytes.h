// Video and recording MTA files built byte by byte, independently of the library's writers.
#ifndef QRB_VIDEO_MTA_BYTES_H
#define QRB_VIDEO_MTA_BYTES_H

#include "qrb_test_files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrbtest {

// Pixels that differ per frame and per byte, so that a swapped or shifted frame shows.
inline std::string MtaPixels(uint32_t width, uint32_t height, uint32_t depth, int seed) {
    std::string pixels(static_cast<size_t>(width) * height * depth, '\0');
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<char>((i * 7 + seed * 31 + 1) & 0xff);
    return pixels;
}

// A file as the writers lay it out: header, size records, the count record (`count`, whatever
// the number of frames), frames with markers '0' + i, each with its stamp when stamps are given
// (video files; recording files have none), then the trailer.
inline std::string BuildMta(uint32_t width, uint32_t height, uint32_t depth, uint32_t count,
                            const std::vector<std::string>& frames,
                            const std::vector<uint32_t>& stamps = {}) {
    std::string out("FSmta\0FW", 8);
    out += LittleEndian(width, 4) + "FH" + LittleEndian(height, 4) + "FD" + LittleEndian(depth, 4) +
           "FC" + LittleEndian(count, 4) + std::string(2, '\0');
    for (size_t i = 0; i < frames.size(); ++i) {
        out += 'F';
        out += static_cast<char>('0' + i);
        if (i < stamps.size()) out += LittleEndian(stamps[i], 4);
        out += frames[i];
    }
    return out + "FE";
}

// An intact video file of one frame of MtaPixels(…, i) per stamp.
inline std::string IntactVideoMta(uint32_t width, uint32_t height, uint32_t depth,
                                  const std::vector<uint32_t>& stamps) {
    std::vector<std::string> frames;
    for (size_t i = 0; i < stamps.size(); ++i)
        frames.push_back(MtaPixels(width, height, depth, static_cast<int>(i)));
    return BuildMta(width, height, depth, static_cast<uint32_t>(stamps.size()), frames, stamps);
}

}  // namespace qrbtest

#endif
