#define QRB_LOG_TAG "QRB-DMP"

#include "qrb_package_reader.h"

#include "qrb_byte_order.h"
#include "qrb_log.h"
#include "scsa_metadata_extractor.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

namespace {

constexpr uint32_t kMoov = QRBFourCC("moov");
constexpr uint32_t kMeta = QRBFourCC("meta");
constexpr uint32_t kHdlr = QRBFourCC("hdlr");
constexpr uint32_t kXml = QRBFourCC("xml ");
constexpr uint32_t kIloc = QRBFourCC("iloc");
constexpr uint32_t kIdat = QRBFourCC("idat");
constexpr uint32_t kIinf = QRBFourCC("iinf");
constexpr uint32_t kInfe = QRBFourCC("infe");
constexpr uint32_t kMime = QRBFourCC("mime");
constexpr uint32_t kPackageHandler = QRBFourCC("cfmd");

// Calls visit(box) for the boxes in [begin, end) in order, at most maxBoxes of them, until
// visit answers false. A header that does not fit ends the walk: what follows it cannot be
// located.
template <typename Visit>
void ForEachBox(const QRBByteSource& source, uint64_t begin, uint64_t end, uint32_t maxBoxes,
                Visit visit) {
    uint64_t at = begin;
    for (uint32_t n = 0; at < end; ++n) {
        if (n == maxBoxes) {
            QRB_LOGW("more than %u boxes in one container; the rest are not read", maxBoxes);
            return;
        }
        QRBBoxHeader box;
        if (!QRBReadBoxHeader(source, at, end, &box)) {
            QRB_LOGD("malformed box at %llu (container ends at %llu)",
                     static_cast<unsigned long long>(at), static_cast<unsigned long long>(end));
            return;
        }
        if (!visit(box)) return;
        at = box.end;
    }
}

bool ValidFieldSize(unsigned bytes) { return bytes == 0 || bytes == 4 || bytes == 8; }

}  // namespace

bool QRBPackageReader::Parse() {
    m_Items.clear();
    const uint64_t size = m_Source.Size();
    QRBBoxHeader moov;
    QRBBoxHeader topMeta;
    bool haveMoov = false;
    bool haveMeta = false;
    ForEachBox(m_Source, 0, size, kMaxBoxesPerContainer, [&](const QRBBoxHeader& box) {
        if (box.type == kMoov && !haveMoov) {
            moov = box;
            haveMoov = true;
        } else if (box.type == kMeta && !haveMeta) {
            topMeta = box;
            haveMeta = true;
        }
        return !(haveMoov && haveMeta);
    });

    bool found = false;
    if (haveMoov) {
        ForEachBox(m_Source, moov.payload, moov.end, kMaxBoxesPerContainer,
                   [&](const QRBBoxHeader& box) {
                       if (box.type == kMeta && m_ParseMeta(box)) found = true;
                       return !found;
                   });
    }
    if (!found && haveMeta) found = m_ParseMeta(topMeta);
    if (!found) m_Items.clear();
    return found;
}

bool QRBPackageReader::m_ParseMeta(const QRBBoxHeader& meta) {
    // A "meta" box starts with a version and flags, all zero. Some writers leave them out;
    // there the first four bytes are the first child's size, which is never zero.
    uint64_t first = meta.payload;
    uint8_t versionAndFlags[4];
    if (meta.end - meta.payload >= 4 &&
        m_Source.ReadAt(meta.payload, versionAndFlags, sizeof(versionAndFlags)) &&
        std::memcmp(versionAndFlags, "\0\0\0\0", 4) == 0) {
        first += 4;
    }

    Table hdlr, xml, iloc, idat, iinf;
    ForEachBox(m_Source, first, meta.end, kMaxBoxesPerContainer, [&](const QRBBoxHeader& box) {
        Table* table = box.type == kHdlr   ? &hdlr
                       : box.type == kXml  ? &xml
                       : box.type == kIloc ? &iloc
                       : box.type == kIdat ? &idat
                       : box.type == kIinf ? &iinf
                                           : nullptr;
        if (table != nullptr && !table->present) {  // the first of each kind counts
            table->payload = box.payload;
            table->end = box.end;
            table->present = true;
        }
        return true;
    });

    // The handler: version and flags, a reserved word, then the handler type.
    uint8_t handler[4];
    if (!hdlr.present || hdlr.end - hdlr.payload < 12 ||
        !m_Source.ReadAt(hdlr.payload + 8, handler, sizeof(handler)) ||
        QRBReadBE32(handler) != kPackageHandler) {
        return false;
    }

    m_Items.clear();
    std::vector<QRBPackageItem> named;
    std::vector<uint8_t> bytes;
    if (iinf.present && m_ReadTable(iinf, &bytes)) m_ParseItemInfo(bytes, &named);
    if (iloc.present && m_ReadTable(iloc, &bytes)) m_ParseLocations(bytes, idat, named);

    // The document follows the box's version and flags.
    if (xml.present && xml.end - xml.payload > 4) {
        QRBPackageItem item;
        item.name = SCSA_DMP::MetaDataExtractor::XML_BOX_NAME;
        item.xmlBox = true;
        item.extents.push_back({xml.payload + 4, xml.end - xml.payload - 4});
        item.length = xml.end - xml.payload - 4;
        m_Items.push_back(std::move(item));
    }
    return true;
}

bool QRBPackageReader::m_ReadTable(const Table& table, std::vector<uint8_t>* bytes) const {
    const uint64_t size = table.end - table.payload;
    if (size > kMaxTableBytes) {
        QRB_LOGW("table of %llu bytes refused", static_cast<unsigned long long>(size));
        return false;
    }
    bytes->resize(static_cast<size_t>(size));
    return size == 0 || m_Source.ReadAt(table.payload, bytes->data(), bytes->size());
}

void QRBPackageReader::m_ParseItemInfo(const std::vector<uint8_t>& iinf,
                                       std::vector<QRBPackageItem>* named) const {
    QRBByteCursor head(iinf.data(), iinf.size());
    uint8_t version = 0;
    uint16_t count16 = 0;
    uint32_t count32 = 0;
    head.U8(&version);
    head.Skip(3);
    // The declared count is not trusted: the entries present are walked, kMaxItems at most.
    if (version == 0 ? !head.U16(&count16) : !head.U32(&count32)) return;

    std::unordered_set<uint32_t> seen;
    const QRBMemoryByteSource source(iinf.data(), iinf.size());
    ForEachBox(source, head.Position(), iinf.size(), kMaxItems, [&](const QRBBoxHeader& box) {
        if (box.type != kInfe) return true;
        QRBByteCursor entry(iinf.data() + box.payload, static_cast<size_t>(box.end - box.payload));
        uint8_t infeVersion = 0;
        entry.U8(&infeVersion);
        entry.Skip(3);
        QRBPackageItem item;
        uint16_t id16 = 0;
        uint32_t itemType = 0;
        if (infeVersion <= 1) {
            entry.U16(&id16);
            entry.Skip(2);  // protection index
            entry.CString(&item.name);
            entry.CString(&item.contentType);
            item.id = id16;
        } else if (infeVersion <= 3) {
            if (infeVersion == 2) {
                entry.U16(&id16);
                item.id = id16;
            } else {
                entry.U32(&item.id);
            }
            entry.Skip(2);  // protection index
            entry.U32(&itemType);
            entry.CString(&item.name);
            if (itemType == kMime) entry.CString(&item.contentType);
        } else {
            return true;  // a version this reader does not know
        }
        if (entry.Failed() || !seen.insert(item.id).second) return true;
        if (item.name.size() > kMaxNameBytes) item.name.clear();
        named->push_back(std::move(item));
        return true;
    });
}

namespace {

// The location table's version, the widths of its fields and its number of entries.
struct LocationLayout {
    uint8_t version = 0;
    unsigned offsetSize = 0;
    unsigned lengthSize = 0;
    unsigned baseSize = 0;
    unsigned indexSize = 0;
    uint32_t count = 0;

    uint64_t ExtentBytes() const { return indexSize + offsetSize + lengthSize; }
};

bool ReadLocationLayout(QRBByteCursor* c, LocationLayout* layout) {
    uint8_t sizes = 0;
    uint8_t moreSizes = 0;
    c->U8(&layout->version);
    c->Skip(3);
    c->U8(&sizes);
    c->U8(&moreSizes);
    const uint8_t version = layout->version;
    layout->offsetSize = sizes >> 4;
    layout->lengthSize = sizes & 15;
    layout->baseSize = moreSizes >> 4;
    layout->indexSize = version >= 1 ? (moreSizes & 15) : 0;
    if (version < 2) {
        uint16_t count16 = 0;
        c->U16(&count16);
        layout->count = count16;
    } else {
        c->U32(&layout->count);
    }
    if (c->Failed() || version > 2 || !ValidFieldSize(layout->offsetSize) ||
        !ValidFieldSize(layout->lengthSize) || !ValidFieldSize(layout->baseSize) ||
        !ValidFieldSize(layout->indexSize)) {
        QRB_LOGW("item location table refused (version %u)", version);
        return false;
    }
    return true;
}

// The fields of one location entry that come before its extents.
struct LocationEntry {
    uint32_t id = 0;
    uint16_t method = 0;  // construction method
    uint16_t dataReference = 0;
    uint64_t base = 0;
    uint16_t extentCount = 0;
};

bool ReadLocationEntry(QRBByteCursor* c, const LocationLayout& layout, LocationEntry* entry) {
    if (layout.version < 2) {
        uint16_t id16 = 0;
        c->U16(&id16);
        entry->id = id16;
    } else {
        c->U32(&entry->id);
    }
    if (layout.version >= 1) c->U16(&entry->method);
    c->U16(&entry->dataReference);
    c->Number(layout.baseSize, &entry->base);
    c->U16(&entry->extentCount);
    entry->method &= 15;
    return !c->Failed();
}

// Reads the extentCount extents of an entry into item while it stays usable; resolve(offset,
// length, &extent) places one in the source. Answers whether the item is still usable; the
// caller checks the cursor.
template <typename Resolve>
bool ReadExtents(QRBByteCursor* c, const LocationLayout& layout, uint16_t extentCount, bool usable,
                 Resolve resolve, QRBPackageItem* item) {
    for (uint16_t e = 0; e < extentCount; ++e) {
        uint64_t index = 0;
        uint64_t offset = 0;
        uint64_t length = 0;
        c->Number(layout.indexSize, &index);  // names a referenced item, only for method 2
        c->Number(layout.offsetSize, &offset);
        c->Number(layout.lengthSize, &length);
        if (c->Failed()) break;
        QRBPackageExtent extent;
        if (!usable || !resolve(offset, length, &extent) ||
            extent.length > UINT64_MAX - item->length) {
            usable = false;
            continue;
        }
        item->length += extent.length;
        item->extents.push_back(extent);
    }
    return usable;
}

// The name and content type the item info gives the item's id; an item it does not name is
// listed as ITEM_NAME_PREFIX and its id.
void NameItem(const std::unordered_map<uint32_t, const QRBPackageItem*>& names,
              QRBPackageItem* item) {
    const auto it = names.find(item->id);
    if (it != names.end() && !it->second->name.empty()) {
        item->name = it->second->name;
        item->contentType = it->second->contentType;
    } else {
        item->name = SCSA_DMP::MetaDataExtractor::ITEM_NAME_PREFIX + std::to_string(item->id);
        if (it != names.end()) item->contentType = it->second->contentType;
    }
}

}  // namespace

void QRBPackageReader::m_ParseLocations(const std::vector<uint8_t>& iloc, const Table& idat,
                                        const std::vector<QRBPackageItem>& named) {
    QRBByteCursor c(iloc.data(), iloc.size());
    LocationLayout layout;
    if (!ReadLocationLayout(&c, &layout)) return;

    std::unordered_map<uint32_t, const QRBPackageItem*> names;
    for (const QRBPackageItem& item : named) names.emplace(item.id, &item);
    std::unordered_set<uint32_t> taken;

    for (uint32_t n = 0; n < layout.count && n < kMaxItems; ++n) {
        LocationEntry entry;
        if (!ReadLocationEntry(&c, layout, &entry)) break;
        if (entry.extentCount > kMaxExtentsPerItem) {
            // Stepped over whole, so that the entries after it are still found.
            c.Skip(entry.extentCount * layout.ExtentBytes());
            if (c.Failed()) break;
            QRB_LOGW("item %u has %u extents; left out", entry.id, entry.extentCount);
            continue;
        }
        const bool supported = entry.dataReference == 0 &&
                               (entry.method == 0 || (entry.method == 1 && idat.present)) &&
                               entry.extentCount > 0;
        QRBPackageItem item;
        item.id = entry.id;
        const auto resolve = [&](uint64_t offset, uint64_t length, QRBPackageExtent* extent) {
            return m_ResolveExtent(entry.method, entry.base, offset, length, idat, extent);
        };
        const bool usable = ReadExtents(&c, layout, entry.extentCount, supported, resolve, &item);
        if (c.Failed()) break;
        if (!usable) {
            QRB_LOGD("item %u left out (method %u, data reference %u)", entry.id, entry.method,
                     entry.dataReference);
            continue;
        }
        if (!taken.insert(entry.id).second) continue;  // the first entry of an id counts
        NameItem(names, &item);
        m_Items.push_back(std::move(item));
    }
}

bool QRBPackageReader::m_ResolveExtent(int method, uint64_t base, uint64_t offset, uint64_t length,
                                       const Table& idat, QRBPackageExtent* extent) const {
    const uint64_t begin = method == 0 ? 0 : idat.payload;
    const uint64_t size = method == 0 ? m_Source.Size() : idat.end - idat.payload;
    if (base > UINT64_MAX - offset) return false;
    const uint64_t start = base + offset;
    if (start > size) return false;
    // A length of 0 stands for the rest of the file (or of the "idat" box).
    const uint64_t take = length == 0 ? size - start : length;
    if (take == 0 || take > size - start) return false;
    extent->offset = begin + start;
    extent->length = take;
    return true;
}

const QRBPackageItem* QRBPackageReader::Find(const std::string& name) const {
    for (const QRBPackageItem& item : m_Items) {
        if (item.name == name) return &item;
    }
    const std::string prefix = SCSA_DMP::MetaDataExtractor::ITEM_NAME_PREFIX;
    if (name.size() <= prefix.size() || name.size() > prefix.size() + 10 ||
        name.compare(0, prefix.size(), prefix) != 0) {
        return nullptr;
    }
    uint64_t id = 0;
    for (size_t i = prefix.size(); i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') return nullptr;
        id = id * 10 + static_cast<uint64_t>(name[i] - '0');
    }
    if (id > UINT32_MAX) return nullptr;
    for (const QRBPackageItem& item : m_Items) {
        if (!item.xmlBox && item.id == id) return &item;
    }
    return nullptr;
}

bool QRBPackageReader::Read(const QRBPackageItem& item, uint8_t* out) const {
    size_t at = 0;
    for (const QRBPackageExtent& extent : item.extents) {
        if (!m_Source.ReadAt(extent.offset, out + at, static_cast<size_t>(extent.length))) {
            return false;
        }
        at += static_cast<size_t>(extent.length);
    }
    return true;
}

std::string QRBPackageReader::Head(const QRBPackageItem& item, size_t n) const {
    std::string head;
    for (const QRBPackageExtent& extent : item.extents) {
        if (head.size() == n) break;
        const size_t take = static_cast<size_t>(std::min<uint64_t>(extent.length, n - head.size()));
        const size_t at = head.size();
        head.resize(at + take);
        if (!m_Source.ReadAt(extent.offset, &head[at], take)) return std::string();
    }
    return head;
}
