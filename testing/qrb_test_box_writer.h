// Content packages for tests, written box by box. Two levels:
//  - single boxes, with every field the reader looks at under the test's control (declared
//    sizes and counts included), for hand-assembled and hostile files;
//  - MakePackage, which lays out a whole well-formed package: "ftyp", then "moov" holding a
//    "meta" box (handler, item information, item locations, "idat", "xml "), then "mdat".
//    Items stored in pieces have their pieces written in reverse order, so that only a reader
//    that joins extents in table order gets the bytes back.
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
// A box whose 32-bit size field says `size`, whatever the payload (0 and 1 included: the
// 64-bit size of a size-1 box is then the caller's to put at the front of payload).
std::string BoxDeclaring(uint32_t size, const std::string& type, const std::string& payload);
// A box with size field 1 and the 64-bit size computed from the payload.
std::string LargeBox(const std::string& type, const std::string& payload);
// A box whose payload starts with a version and 24 bits of flags.
std::string FullBox(const std::string& type, int version, uint32_t flags,
                    const std::string& payload);

struct IlocExtent {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t index = 0;  // written only when the layout's index size is not 0
};

struct IlocEntry {
    uint32_t id = 0;
    int method = 0;  // 0 in the file, 1 in "idat" (written for versions 1 and 2 only)
    uint16_t dataReference = 0;
    uint64_t baseOffset = 0;
    std::vector<IlocExtent> extents;
    int declaredExtents = -1;  // the extent count written; -1: the number of extents
};

struct IlocLayout {
    int version = 1;  // 0, 1 or 2
    int offsetSize = 4;
    int lengthSize = 4;
    int baseOffsetSize = 0;
    int indexSize = 0;
    int64_t declaredCount = -1;  // the item count written; -1: the number of entries
};

std::string IlocBox(const IlocLayout& layout, const std::vector<IlocEntry>& entries);
// An "infe" entry: versions 0 and 1 name and type the item directly; 2 and 3 give it the item
// type "mime" (so that the content type is written) and 3 a 32-bit id.
std::string InfeBox(int version, uint32_t id, const std::string& name,
                    const std::string& contentType);
// An "iinf" box around entries; the count written is declaredCount, or the number of entries.
std::string IinfBox(int version, const std::vector<std::string>& entries,
                    int64_t declaredCount = -1);
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
    std::string xml;
    // Offset and length sizes must be 4 or 8 here; with a base offset size, items in the file
    // are given the start of "mdat" as base and offsets from it.
    IlocLayout layout;
    int infeVersion = 2;
    std::string handler = "cfmd";
    bool metaAtTopLevel = false;                  // "meta" beside "moov" instead of inside it
    std::vector<std::string> moovChildrenBefore;  // e.g. stand-ins for tracks
    std::string mediaData;                        // more bytes in "mdat", after the items' pieces
};

std::string MakePackage(const PackageSpec& spec);

// A small package document: the common texts of ContentMetadata that are given (name, value
// pairs), then one RequiredImages block per poster reference (width x height, track reference,
// location).
struct PosterRef {
    int width = 0;
    int height = 0;
    std::string trackReference;
    std::string location;
};
std::string MetadataXml(const std::vector<std::pair<std::string, std::string>>& common,
                        const std::vector<PosterRef>& posters);
// A table of contents naming the descriptive metadata at path.
std::string TableOfContentsXml(const std::string& path);

}  // namespace qrbtest

#endif
