// Shared by the music tests only (header-only, never built into the library): where the shared
// corpus is, reading files, and small builders for the byte layouts whose sizes are tedious to
// count by hand (ASF objects with 64-bit little-endian sizes, ID3 tags around a large picture,
// BMP pictures small enough for a "WM/Picture" value).
#ifndef QRB_MUSIC_TEST_SUPPORT_H
#define QRB_MUSIC_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qrbmusictest {

// The shared corpus beside the project (QRB_TEST_SOURCE_DIR is set by ctest), or "".
inline std::string CorpusDir() {
    const char* source = std::getenv("QRB_TEST_SOURCE_DIR");
    if (source == nullptr || *source == '\0') return std::string();
    const std::string dir = std::string(source) + "/../shared/corpus";
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::string();
    return dir;
}

#define QRB_REQUIRE_MUSIC_CORPUS(dir)                    \
    const std::string dir = ::qrbmusictest::CorpusDir(); \
    if (dir.empty()) GTEST_SKIP() << "shared corpus not found beside the project"

inline std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string LE(uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

inline std::string BE(uint64_t value, int bytes) {
    std::string out;
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

inline std::string Synchsafe(uint32_t value) {
    std::string out;
    for (int shift = 21; shift >= 0; shift -= 7)
        out.push_back(static_cast<char>((value >> shift) & 0x7F));
    return out;
}

// Stands in for the audio after a tag; its content does not matter to a tag reader. A song is
// longer than the 100 bytes a picture frame's header is looked for in, and than an ID3v1 tag,
// and does not end in "TAG".
inline const std::string kAudio(600, '\x55');

// ID3v2 tag (header and body) of major version `major`, its size counted from `body`.
inline std::string Id3Tag(int major, const std::string& body) {
    return std::string("ID3", 3) + static_cast<char>(major) + std::string(2, '\0') +
           Synchsafe(static_cast<uint32_t>(body.size())) + body;
}
inline std::string V23Frame(const std::string& id, const std::string& body) {
    return id + BE(body.size(), 4) + std::string(2, '\0') + body;
}
inline std::string V22Frame(const std::string& id, const std::string& body) {
    return id + BE(body.size(), 3) + body;
}
// An APIC body: Latin-1, the MIME type, front cover, an empty description.
inline std::string ApicBody(const std::string& mime, const std::string& picture) {
    return std::string(1, '\0') + mime + std::string(1, '\0') + '\x03' + std::string(1, '\0') +
           picture;
}
// A PIC body: Latin-1, "JPG", front cover, an empty description.
inline std::string PicBody(const std::string& picture) {
    return std::string(1, '\0') + "JPG" + '\x03' + std::string(1, '\0') + picture;
}

// ASF, little-endian throughout.
inline std::string Guid(const char (&bytes)[17]) { return std::string(bytes, 16); }
inline std::string HeaderGuid() {
    return Guid("\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C");
}
inline std::string ContentDescriptionGuid() {
    return Guid("\x33\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C");
}
inline std::string ExtContentDescriptionGuid() {
    return Guid("\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50");
}
// Any other object (the Data Object's GUID).
inline std::string DataGuid() {
    return Guid("\x36\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C");
}
inline std::string AsfObject(const std::string& guid, const std::string& body) {
    return guid + LE(24 + body.size(), 8) + body;
}
// A header object holding the given sub-objects.
inline std::string AsfHeader(const std::vector<std::string>& objects) {
    std::string body;
    for (const auto& o : objects) body += o;
    return HeaderGuid() + LE(30 + body.size(), 8) + LE(objects.size(), 4) + "\x01\x02" + body;
}
// ASCII (or Latin-1 bytes) as UTF-16LE, with a terminator when asked.
inline std::string Utf16(const std::string& text, bool terminate = true) {
    std::string out;
    for (unsigned char c : text) {
        out.push_back(static_cast<char>(c));
        out.push_back('\0');
    }
    if (terminate) out.append(2, '\0');
    return out;
}
inline std::string Descriptor(const std::string& name, int type, const std::string& value) {
    const std::string n = Utf16(name);
    return LE(n.size(), 2) + n + LE(type, 2) + LE(value.size(), 2) + value;
}
inline std::string ExtContentDescription(const std::vector<std::string>& descriptors) {
    std::string body = LE(descriptors.size(), 2);
    for (const auto& d : descriptors) body += d;
    return AsfObject(ExtContentDescriptionGuid(), body);
}
// A "WM/Picture" value: type, size, MIME type, description, picture.
inline std::string WmPictureValue(const std::string& picture, const std::string& mime = "image/bmp",
                                  const std::string& description = "") {
    return std::string(1, '\x03') + LE(picture.size(), 4) + Utf16(mime) + Utf16(description) +
           picture;
}

// A 24-bit bottom-up BMP of w x h whose pixel (x, y) has colour(x, y) = 0xRRGGBB.
template <typename ColourFn>
inline std::string Bmp(int w, int h, ColourFn colour) {
    const int stride = (w * 3 + 3) & ~3;
    const uint32_t pixels = static_cast<uint32_t>(stride * h);
    std::string out = "BM" + LE(54 + pixels, 4) + LE(0, 4) + LE(54, 4);
    out += LE(40, 4) + LE(w, 4) + LE(h, 4) + LE(1, 2) + LE(24, 2) + LE(0, 4) + LE(pixels, 4) +
           LE(2835, 4) + LE(2835, 4) + LE(0, 4) + LE(0, 4);
    for (int y = h - 1; y >= 0; --y) {
        std::string row;
        for (int x = 0; x < w; ++x) {
            const uint32_t c = colour(x, y);
            row.push_back(static_cast<char>(c & 0xFF));
            row.push_back(static_cast<char>((c >> 8) & 0xFF));
            row.push_back(static_cast<char>((c >> 16) & 0xFF));
        }
        row.resize(static_cast<size_t>(stride), '\0');
        out += row;
    }
    return out;
}

}  // namespace qrbmusictest

#endif
