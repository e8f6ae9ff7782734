// Finds what a content package embeds. The package metadata is a "meta" box whose handler is
// "cfmd", among the children of "moov" (or, failing that, at the top level of the file). Its
// children say where everything lies:
//   "xml "  the metadata document, as text after the box's version and flags;
//   "iloc"  the item location table (versions 0, 1 and 2): per item, extents in the file
//           (construction method 0) or in the "idat" box (method 1);
//   "idat"  bytes that items of method 1 point into;
//   "iinf"  item information: per item id, an "infe" entry with a name and a content type.
// Only the boxes on the way to these are read; media data is skipped by its size, never read.
//
// Hostile files. The walk is not recursive: it descends a fixed path (top level, "moov",
// "meta", "iinf"), so nesting is bounded by construction. Each container is walked for at most
// kMaxBoxesPerContainer children; a child that overruns its parent ends that walk. At most
// kMaxItems items and kMaxExtentsPerItem extents per item are taken. The tables ("iloc",
// "iinf", "hdlr") are read into memory only up to kMaxTableBytes. Every extent must lie inside
// the file (or the "idat" box) with all sums checked for overflow; an item with any bad extent,
// another file's data (a data reference other than 0) or an unsupported construction method is
// left out. Item lengths are totals of their extents and may exceed the file (extents may
// overlap), so callers compare them with their own limits before allocating.
//
// One reader serves one thread; it keeps a reference to its source, which must outlive it.
#ifndef QRB_SCSA_PACKAGE_READER_H
#define QRB_SCSA_PACKAGE_READER_H

#include "qrb_box_reader.h"

#include <cstdint>
#include <string>
#include <vector>

struct QRBPackageExtent {
    uint64_t offset = 0;  // in the source
    uint64_t length = 0;
};

struct QRBPackageItem {
    std::string name;  // as listed
    uint32_t id = 0;   // the item id; 0 for the "xml " box
    bool xmlBox = false;
    std::string contentType;                // from "infe"; may be empty
    std::vector<QRBPackageExtent> extents;  // in the order the bytes are joined
    uint64_t length = 0;                    // the sum of the extents, at least 1
};

class QRBPackageReader {
public:
    // A real package's "moov" holds a header and a handful of tracks; thousands of children
    // mean a file built to make the walk slow.
    static constexpr uint32_t kMaxBoxesPerContainer = 4096;
    // A package embeds a poster, chapter pictures and a few documents: tens of items.
    static constexpr uint32_t kMaxItems = 1024;
    // Pictures are stored whole or in a few pieces.
    static constexpr uint32_t kMaxExtentsPerItem = 256;
    // The tables of kMaxItems items fit in far less.
    static constexpr uint64_t kMaxTableBytes = 1u << 20;
    // Longer item names are not used: the item is listed by its id.
    static constexpr size_t kMaxNameBytes = 1024;

    explicit QRBPackageReader(const QRBByteSource& source) : m_Source(source) {}

    // Finds the package metadata and lists its items. False when the source has none.
    bool Parse();

    // Items in the order of the location table, then the "xml " box (when present).
    const std::vector<QRBPackageItem>& Items() const { return m_Items; }

    // The first item listed as name; failing that, for a name of the form ITEM_NAME_PREFIX and
    // a decimal id, the item with that id. Null when there is none.
    const QRBPackageItem* Find(const std::string& name) const;

    // Reads all of item's bytes into out, which holds at least item.length bytes.
    bool Read(const QRBPackageItem& item, uint8_t* out) const;
    // The first bytes of item, at most n of them; empty when they cannot be read.
    std::string Head(const QRBPackageItem& item, size_t n) const;

private:
    struct Table {
        uint64_t payload = 0;
        uint64_t end = 0;
        bool present = false;
    };

    bool m_ParseMeta(const QRBBoxHeader& meta);
    bool m_ReadTable(const Table& table, std::vector<uint8_t>* bytes) const;
    void m_ParseItemInfo(const std::vector<uint8_t>& iinf,
                         std::vector<QRBPackageItem>* named) const;
    void m_ParseLocations(const std::vector<uint8_t>& iloc, const Table& idat,
                          const std::vector<QRBPackageItem>& named);
    bool m_ResolveExtent(int method, uint64_t base, uint64_t offset, uint64_t length,
                         const Table& idat, QRBPackageExtent* extent) const;

    const QRBByteSource& m_Source;
    std::vector<QRBPackageItem> m_Items;
};

#endif
