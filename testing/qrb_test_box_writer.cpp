#include "qrb_test_box_writer.h"

#include <stdexcept>

namespace qrbtest {

std::string BoxDeclaring(uint32_t size, const std::string& type, const std::string& payload) {
    if (type.size() != 4) throw std::invalid_argument("box type must have four characters");
    return BigEndian(size, 4) + type + payload;
}

std::string Box(const std::string& type, const std::string& payload) {
    return BoxDeclaring(static_cast<uint32_t>(8 + payload.size()), type, payload);
}

std::string LargeBox(const std::string& type, const std::string& payload) {
    return BoxDeclaring(1, type, BigEndian(16 + payload.size(), 8) + payload);
}

std::string FullBox(const std::string& type, int version, uint32_t flags,
                    const std::string& payload) {
    return Box(type, BigEndian(static_cast<uint64_t>(version), 1) + BigEndian(flags, 3) + payload);
}

std::string IlocBox(const IlocLayout& l, const std::vector<IlocEntry>& entries) {
    std::string p;
    p += BigEndian(static_cast<uint64_t>((l.offsetSize << 4) | l.lengthSize), 1);
    p += BigEndian(
        static_cast<uint64_t>((l.baseOffsetSize << 4) | (l.version >= 1 ? l.indexSize : 0)), 1);
    const uint64_t count =
        l.declaredCount >= 0 ? static_cast<uint64_t>(l.declaredCount) : entries.size();
    p += BigEndian(count, l.version < 2 ? 2 : 4);
    for (const IlocEntry& e : entries) {
        p += BigEndian(e.id, l.version < 2 ? 2 : 4);
        if (l.version >= 1) p += BigEndian(static_cast<uint64_t>(e.method & 15), 2);
        p += BigEndian(e.dataReference, 2);
        p += BigEndian(e.baseOffset, l.baseOffsetSize);
        const uint64_t extents =
            e.declaredExtents >= 0 ? static_cast<uint64_t>(e.declaredExtents) : e.extents.size();
        p += BigEndian(extents, 2);
        for (const IlocExtent& x : e.extents) {
            if (l.version >= 1 && l.indexSize > 0) p += BigEndian(x.index, l.indexSize);
            p += BigEndian(x.offset, l.offsetSize);
            p += BigEndian(x.length, l.lengthSize);
        }
    }
    return FullBox("iloc", l.version, 0, p);
}

std::string InfeBox(int version, uint32_t id, const std::string& name,
                    const std::string& contentType) {
    std::string p;
    if (version <= 1) {
        p = BigEndian(id, 2) + BigEndian(0, 2) + name + '\0' + contentType + '\0';
    } else {
        p = BigEndian(id, version == 2 ? 2 : 4) + BigEndian(0, 2) + "mime" + name + '\0' +
            contentType + '\0';
    }
    return FullBox("infe", version, 0, p);
}

std::string IinfBox(int version, const std::vector<std::string>& entries, int64_t declaredCount) {
    const uint64_t count =
        declaredCount >= 0 ? static_cast<uint64_t>(declaredCount) : entries.size();
    std::string p = BigEndian(count, version == 0 ? 2 : 4);
    for (const std::string& entry : entries) p += entry;
    return FullBox("iinf", version, 0, p);
}

std::string HdlrBox(const std::string& handler) {
    return FullBox("hdlr", 0, 0, BigEndian(0, 4) + handler + std::string(12, '\0') + "meta" + '\0');
}

std::string XmlBox(const std::string& text) { return FullBox("xml ", 0, 0, text); }

std::string MetaBox(const std::vector<std::string>& children) {
    std::string p;
    for (const std::string& child : children) p += child;
    return FullBox("meta", 0, 0, p);
}

std::string FtypBox() { return Box("ftyp", "isom" + BigEndian(0, 4) + "isom" + "iso2"); }

namespace {

// Splits data into n pieces of nearly equal size (the last takes the rest).
std::vector<std::string> Pieces(const std::string& data, int n) {
    if (n < 1 || static_cast<size_t>(n) > data.size()) {
        throw std::invalid_argument("an item needs at least one byte per extent");
    }
    std::vector<std::string> pieces;
    const size_t step = data.size() / static_cast<size_t>(n);
    for (int i = 0; i < n; ++i) {
        const size_t at = static_cast<size_t>(i) * step;
        pieces.push_back(i + 1 == n ? data.substr(at) : data.substr(at, step));
    }
    return pieces;
}

// Everything but "mdat", with items in the file placed from mdatPayload on.
std::string LayOut(const PackageSpec& spec, uint64_t mdatPayload, std::string* mdat) {
    const IlocLayout& l = spec.layout;
    std::string idat;
    mdat->clear();
    std::vector<IlocEntry> entries;
    std::vector<std::string> infes;
    for (const PackageItem& item : spec.items) {
        if (item.inIdat && l.version == 0) {
            throw std::invalid_argument("items in idat need an iloc of version 1 or 2");
        }
        const std::vector<std::string> pieces = Pieces(item.data, item.extents);
        std::string& store = item.inIdat ? idat : *mdat;
        IlocEntry entry;
        entry.id = item.id;
        entry.method = item.inIdat ? 1 : 0;
        const bool based = !item.inIdat && l.baseOffsetSize > 0;
        entry.baseOffset = based ? mdatPayload : 0;
        const uint64_t origin = item.inIdat || based ? 0 : mdatPayload;
        // Written last piece first; the table lists them first piece first.
        std::vector<uint64_t> at(pieces.size());
        for (size_t i = pieces.size(); i-- > 0;) {
            at[i] = origin + store.size();
            store += pieces[i];
        }
        for (size_t i = 0; i < pieces.size(); ++i) {
            IlocExtent x;
            x.offset = at[i];
            x.length = pieces[i].size();
            entry.extents.push_back(x);
        }
        entries.push_back(entry);
        if (!item.name.empty()) {
            infes.push_back(InfeBox(spec.infeVersion, item.id, item.name, item.contentType));
        }
    }
    *mdat += spec.mediaData;

    std::vector<std::string> children{HdlrBox(spec.handler), IinfBox(0, infes),
                                      IlocBox(l, entries)};
    if (!idat.empty()) children.push_back(Box("idat", idat));
    if (spec.hasXmlBox) children.push_back(XmlBox(spec.xml));
    const std::string meta = MetaBox(children);
    std::string moovPayload;
    for (const std::string& child : spec.moovChildrenBefore) moovPayload += child;
    if (!spec.metaAtTopLevel) moovPayload += meta;
    return FtypBox() + Box("moov", moovPayload) + (spec.metaAtTopLevel ? meta : std::string());
}

}  // namespace

std::string MakePackage(const PackageSpec& spec) {
    const IlocLayout& l = spec.layout;
    if ((l.offsetSize != 4 && l.offsetSize != 8) || (l.lengthSize != 4 && l.lengthSize != 8)) {
        throw std::invalid_argument("MakePackage writes offsets and lengths of 4 or 8 bytes");
    }
    // The tables have fixed widths: their size does not depend on where "mdat" starts.
    std::string mdat;
    const uint64_t headSize = LayOut(spec, 0, &mdat).size();
    const std::string head = LayOut(spec, headSize + 8, &mdat);
    return head + Box("mdat", mdat);
}

std::string MetadataXml(const std::vector<std::pair<std::string, std::string>>& common,
                        const std::vector<PosterRef>& posters) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<md:Metadata "
        "xmlns:md=\"urn:example:metadata\">\n  <md:ContentMetadata>\n";
    for (const auto& field : common) {
        xml += "    <md:" + field.first + ">" + field.second + "</md:" + field.first + ">\n";
    }
    xml += "  </md:ContentMetadata>\n";
    for (const PosterRef& p : posters) {
        xml += "  <md:RequiredImages>\n    <md:Width>" + std::to_string(p.width) +
               "</md:Width>\n    <md:Height>" + std::to_string(p.height) +
               "</md:Height>\n    <md:Encoding>image/jpeg</md:Encoding>\n";
        if (!p.trackReference.empty()) {
            xml += "    <md:TrackReference>" + p.trackReference + "</md:TrackReference>\n";
        }
        xml += "    <md:Location>" + p.location + "</md:Location>\n  </md:RequiredImages>\n";
    }
    return xml + "</md:Metadata>\n";
}

std::string TableOfContentsXml(const std::string& path) {
    return "<?xml version=\"1.0\"?>\n<toc:TableOfContents xmlns:toc=\"urn:example:toc\">\n"
           "  <toc:DescriptiveMetadata>" +
           path + "</toc:DescriptiveMetadata>\n</toc:TableOfContents>\n";
}

}  // namespace qrbtest
