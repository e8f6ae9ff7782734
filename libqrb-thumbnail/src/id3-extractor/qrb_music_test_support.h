// Builders for the music tests' byte layouts (header-only): ID3 tags, ASF objects with 64-bit
// little-endian sizes, and BMP pictures small enough for a "WM/Picture" value.
#ifndef QRB_MUSIC_TEST_SUPPORT_H
#define QRB_MUSIC_TEST_SUPPORT_H

#include "qrb_test_files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrbmusictest {

using qrbtest::BigEndian;
using qrbtest::LittleEndian;

// Stands in for the audio after a tag: longer than a picture frame's peek and an ID3v1 tag,
// and not ending in "TAG".
inline const std::string kAudio(600, '\x55');

// ID3v2 tag of major version `major`, its synchsafe size counted from `body`.
inline std::string Id3Tag(int major, const std::string& body) {
    std::string tag = std::string("ID3", 3) + static_cast<char>(major) + std::string(2, '\0');
    for (int shift = 21; shift >= 0; shift -= 7)
        tag.push_back(static_cast<char>((body.size() >> shift) & 0x7F));
    return tag + body;
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

// ASF: the Extended Content Description and Data objects' GUIDs.
inline std::string ExtContentDescriptionGuid() {
    return std::string("\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50", 16);
}
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
    return std::string("\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16) +
           LittleEndian(30 + body.size(), 8) + LittleEndian(objects.size(), 4) + "\x01\x02" + body;
}
// ASCII as UTF-16LE, zero-terminated.
inline std::string Utf16(const std::string& text) {
    std::string out;
    for (unsigned char c : text) out += std::string(1, static_cast<char>(c)) + '\0';
    return out + std::string(2, '\0');
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
// A "WM/Picture" value: type, size, MIME type, an empty description, picture.
inline std::string WmPictureValue(const std::string& picture,
                                  const std::string& mime = "image/bmp") {
    return std::string(1, '\x03') + LittleEndian(picture.size(), 4) + Utf16(mime) + Utf16("") +
           picture;
}

// A 24-bit bottom-up BMP of w x h whose pixel (x, y) has colour(x, y) = 0xRRGGBB.
template <typename ColourFn>
inline std::string Bmp(int w, int h, ColourFn colour) {
    const int stride = (w * 3 + 3) & ~3;
    const uint32_t pixels = static_cast<uint32_t>(stride * h);
    std::string out = "BM" + LittleEndian(54 + pixels, 4) + LittleEndian(0, 4) +
                      LittleEndian(54, 4) + LittleEndian(40, 4) + LittleEndian(w, 4) +
                      LittleEndian(h, 4) + LittleEndian(1, 2) + LittleEndian(24, 2) +
                      LittleEndian(0, 4) + LittleEndian(pixels, 4) + LittleEndian(2835, 4) +
                      LittleEndian(2835, 4) + LittleEndian(0, 8);
    for (int y = h - 1; y >= 0; --y) {
        std::string row;
        for (int x = 0; x < w; ++x) row += LittleEndian(colour(x, y), 3);  // blue, green, red
        row.resize(static_cast<size_t>(stride), '\0');
        out += row;
    }
    return out;
}

}  // namespace qrbmusictest

#endif
