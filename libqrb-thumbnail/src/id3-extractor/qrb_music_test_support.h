// Shared by the music tests only (header-only, never built into the library): builders for the
// byte layouts whose sizes are tedious to count by hand (ASF objects with 64-bit little-endian
// sizes, ID3 tags around a large picture, BMP pictures small enough for a "WM/Picture" value).
#ifndef QRB_MUSIC_TEST_SUPPORT_H
#define QRB_MUSIC_TEST_SUPPORT_H

#include "qrb_test_files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrbmusictest {

using qrbtest::BigEndian;
using qrbtest::LittleEndian;

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
    return id + BigEndian(body.size(), 4) + std::string(2, '\0') + body;
}
inline std::string V22Frame(const std::string& id, const std::string& body) {
    return id + BigEndian(body.size(), 3) + body;
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
inline std::string HeaderGuid() {
    return std::string("\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
}
inline std::string ExtContentDescriptionGuid() {
    return std::string("\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50", 16);
}
// Any other object (the Data Object's GUID).
inline std::string DataGuid() {
    return std::string("\x36\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
}
inline std::string AsfObject(const std::string& guid, const std::string& body) {
    return guid + LittleEndian(24 + body.size(), 8) + body;
}
// A header object holding the given sub-objects.
inline std::string AsfHeader(const std::vector<std::string>& objects) {
    std::string body;
    for (const auto& o : objects) body += o;
    return HeaderGuid() + LittleEndian(30 + body.size(), 8) + LittleEndian(objects.size(), 4) +
           "\x01\x02" + body;
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
    return LittleEndian(n.size(), 2) + n + LittleEndian(type, 2) + LittleEndian(value.size(), 2) +
           value;
}
inline std::string ExtContentDescription(const std::vector<std::string>& descriptors) {
    std::string body = LittleEndian(descriptors.size(), 2);
    for (const auto& d : descriptors) body += d;
    return AsfObject(ExtContentDescriptionGuid(), body);
}
// A "WM/Picture" value: type, size, MIME type, description, picture.
inline std::string WmPictureValue(const std::string& picture, const std::string& mime = "image/bmp",
                                  const std::string& description = "") {
    return std::string(1, '\x03') + LittleEndian(picture.size(), 4) + Utf16(mime) +
           Utf16(description) + picture;
}

// A 24-bit bottom-up BMP of w x h whose pixel (x, y) has colour(x, y) = 0xRRGGBB.
template <typename ColourFn>
inline std::string Bmp(int w, int h, ColourFn colour) {
    const int stride = (w * 3 + 3) & ~3;
    const uint32_t pixels = static_cast<uint32_t>(stride * h);
    std::string out =
        "BM" + LittleEndian(54 + pixels, 4) + LittleEndian(0, 4) + LittleEndian(54, 4);
    out += LittleEndian(40, 4) + LittleEndian(w, 4) + LittleEndian(h, 4) + LittleEndian(1, 2) +
           LittleEndian(24, 2) + LittleEndian(0, 4) + LittleEndian(pixels, 4) +
           LittleEndian(2835, 4) + LittleEndian(2835, 4) + LittleEndian(0, 8);
    for (int y = h - 1; y >= 0; --y) {
        std::string row;
        for (int x = 0; x < w; ++x) {
            const uint32_t c = colour(x, y);
            row += LittleEndian(c, 3);  // blue, green, red
        }
        row.resize(static_cast<size_t>(stride), '\0');
        out += row;
    }
    return out;
}

}  // namespace qrbmusictest

#endif
