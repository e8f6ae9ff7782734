// Video MTA files built byte by byte, independently of the library's writer, for the tests of
// the reader and of the worker that serves five-frame requests from such files.
#ifndef QRB_VIDEO_MTA_BYTES_H
#define QRB_VIDEO_MTA_BYTES_H

#include <cstdint>
#include <string>
#include <vector>

namespace qrbtest {

struct MtaFrame {
    uint32_t stamp = 0;  // the stored low 32 bits of the timestamp
    std::string pixels;  // W x H x D bytes
};

inline void AppendU32(std::string& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((value >> shift) & 0xff));
}

inline std::string MtaRecord(char a, char b, uint32_t value) {
    std::string record{a, b};
    AppendU32(record, value);
    return record;
}

// Pixels that differ per frame and per byte, so that a swapped or shifted frame shows.
inline std::string MtaPixels(uint32_t width, uint32_t height, uint32_t depth, int seed) {
    std::string pixels(static_cast<size_t>(width) * height * depth, '\0');
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<char>((i * 7 + seed * 31 + 1) & 0xff);
    return pixels;
}

// A file as the writer lays it out: header, size records, count, frames with markers '0' + i,
// and (optionally) the trailer. The count record holds `count`, whatever the number of frames.
inline std::string BuildVideoMta(uint32_t width, uint32_t height, uint32_t depth, uint32_t count,
                                 const std::vector<MtaFrame>& frames, bool trailer = true) {
    std::string out("FSmta", 5);
    out.push_back('\0');
    out += MtaRecord('F', 'W', width);
    out += MtaRecord('F', 'H', height);
    out += MtaRecord('F', 'D', depth);
    out += MtaRecord('F', 'C', count);
    out.push_back('\0');
    out.push_back('\0');
    for (size_t i = 0; i < frames.size(); ++i) {
        out.push_back('F');
        out.push_back(static_cast<char>('0' + i));
        AppendU32(out, frames[i].stamp);
        out += frames[i].pixels;
    }
    if (trailer) out += "FE";
    return out;
}

// An intact file of n frames of width x height x depth; frame i has stamp stamps[i].
inline std::string IntactVideoMta(uint32_t width, uint32_t height, uint32_t depth,
                                  const std::vector<uint32_t>& stamps) {
    std::vector<MtaFrame> frames;
    for (size_t i = 0; i < stamps.size(); ++i) {
        frames.push_back({stamps[i], MtaPixels(width, height, depth, static_cast<int>(i))});
    }
    return BuildVideoMta(width, height, depth, static_cast<uint32_t>(stamps.size()), frames);
}

}  // namespace qrbtest

#endif
