// Content packages for tests: single boxes, and MakePackage ("ftyp", "moov" > "meta", "mdat"),
// which stores an item's pieces last first: only extents joined in table order give it back.
#ifndef QRB_TESTING_BOX_WRITER_H
#define QRB_TESTING_BOX_WRITER_H

#include "qrb_test_files.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qrbtest {

// A box with a 32-bit size computed from the payload.
std::string Box(const std::string& type, const std::string& payload);
// A box whose 32-bit size field says `size`, whatever the payload.
std::string BoxDeclaring(uint32_t size, const std::string& type, const std::string& payload);
// A box with size field 1 and the 64-bit size computed from the payload.
std::string LargeBox(const std::string& type, const std::string& payload);
// A box whose payload starts with a version and 24 bits of flags (0).
std::string FullBox(const std::string& type, int version, const std::string& payload);

struct IlocExtent {
    uint64_t offset = 0, length = 0;
};

struct IlocEntry {
    uint32_t id = 0;
    int method = 0;  // 0 in the file, 1 in "idat" (written for versions 1 and 2 only)
    uint64_t baseOffset = 0;
    std::vector<IlocExtent> extents;
};

struct IlocLayout {
    int version = 1;  // 0, 1 or 2
    int offsetSize = 4, lengthSize = 4, baseOffsetSize = 0;
};

std::string IlocBox(const IlocLayout& layout, const std::vector<IlocEntry>& entries);
std::string HdlrBox(const std::string& handler);
std::string XmlBox(const std::string& text);
std::string MetaBox(const std::vector<std::string>& children);
std::string FtypBox();

struct PackageItem {
    uint32_t id = 0;
    std::string name;  // the "infe" name; empty: the item has no "infe" entry
    std::string contentType;
    std::string data;  // at least `extents` bytes
    bool inIdat = false;
    int extents = 1;
};

struct PackageSpec {
    std::vector<PackageItem> items;
    bool hasXmlBox = false;
    std::string xml;  // the "xml " box's text
    // With a base offset size, items in the file are given the start of "mdat" as base.
    IlocLayout layout;
    int infeVersion = 2;
    std::string mediaData;  // more bytes in "mdat", after the items' pieces
};

std::string MakePackage(const PackageSpec& spec);

// A package document: the given ContentMetadata texts, one RequiredImages block per poster.
struct PosterRef {
    int width = 0, height = 0;
    std::string trackReference, location;
};
std::string MetadataXml(const std::vector<std::pair<std::string, std::string>>& common,
                        const std::vector<PosterRef>& posters);
// A table of contents naming the descriptive metadata at path.
std::string TableOfContentsXml(const std::string& path);

}  // namespace qrbtest

#endif
