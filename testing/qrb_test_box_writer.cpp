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

std::string FullBox(const std::string& type, int version, const std::string& payload) {
    return Box(type, BigEndian(static_cast<uint64_t>(version), 1) + BigEndian(0, 3) + payload);
}

std::string IlocBox(const IlocLayout& l, const std::vector<IlocEntry>& entries) {
    std::string p = BigEndian(static_cast<uint64_t>((l.offsetSize << 4) | l.lengthSize), 1) +
                    BigEndian(static_cast<uint64_t>(l.baseOffsetSize << 4), 1) +
                    BigEndian(entries.size(), l.version < 2 ? 2 : 4);
    for (const IlocEntry& e : entries) {
        p += BigEndian(e.id, l.version < 2 ? 2 : 4);
        if (l.version >= 1) p += BigEndian(static_cast<uint64_t>(e.method & 15), 2);
        p += BigEndian(0, 2);  // data reference
        p += BigEndian(e.baseOffset, l.baseOffsetSize);
        p += BigEndian(e.extents.size(), 2);
        for (const IlocExtent& x : e.extents)
            p += BigEndian(x.offset, l.offsetSize) + BigEndian(x.length, l.lengthSize);
    }
    return FullBox("iloc", l.version, p);
}

std::string HdlrBox(const std::string& handler) {
    return FullBox("hdlr", 0, BigEndian(0, 4) + handler + std::string(12, '\0') + "meta" + '\0');
}

std::string XmlBox(const std::string& text) { return FullBox("xml ", 0, text); }

std::string MetaBox(const std::vector<std::string>& children) {
    std::string p;
    for (const std::string& child : children) p += child;
    return FullBox("meta", 0, p);
}

std::string FtypBox() { return Box("ftyp", "isom" + BigEndian(0, 4) + "isom" + "iso2"); }

namespace {

// An "infe" entry: versions 2 and 3 are "mime" items, whose content type counts; 3: a 32-bit id.
std::string InfeBox(int version, uint32_t id, const std::string& name,
                    const std::string& contentType) {
    return FullBox("infe", version,
                   BigEndian(id, version == 3 ? 4 : 2) + BigEndian(0, 2) +
                       (version >= 2 ? "mime" : "") + name + '\0' + contentType + '\0');
}

// Everything but "mdat", with items in the file placed from mdatPayload on.
std::string LayOut(const PackageSpec& spec, uint64_t mdatPayload, std::string* mdat) {
    const IlocLayout& l = spec.layout;
    std::string idat;
    mdat->clear();
    std::vector<IlocEntry> entries;
    std::vector<std::string> infes;
    for (const PackageItem& item : spec.items) {
        const size_t n = static_cast<size_t>(item.extents);
        if ((item.inIdat && l.version == 0) || n < 1 || n > item.data.size()) {
            throw std::invalid_argument("idat needs iloc version 1 or 2, extents one byte each");
        }
        std::string& store = item.inIdat ? idat : *mdat;
        const bool based = !item.inIdat && l.baseOffsetSize > 0;
        const uint64_t origin = item.inIdat || based ? 0 : mdatPayload;
        IlocEntry entry{item.id, item.inIdat ? 1 : 0, based ? mdatPayload : 0, {}};
        // Nearly equal pieces (the last takes the rest), stored last first, listed first first.
        const size_t step = item.data.size() / n;
        entry.extents.resize(n);
        for (size_t i = n; i-- > 0;) {
            const std::string piece =
                item.data.substr(i * step, i + 1 == n ? std::string::npos : step);
            entry.extents[i] = {origin + store.size(), piece.size()};
            store += piece;
        }
        entries.push_back(entry);
        if (!item.name.empty())
            infes.push_back(InfeBox(spec.infeVersion, item.id, item.name, item.contentType));
    }
    *mdat += spec.mediaData;
    std::string iinf = BigEndian(infes.size(), 2);
    for (const std::string& infe : infes) iinf += infe;
    std::vector<std::string> children{HdlrBox("cfmd"), FullBox("iinf", 0, iinf),
                                      IlocBox(l, entries)};
    if (!idat.empty()) children.push_back(Box("idat", idat));
    if (spec.hasXmlBox) children.push_back(XmlBox(spec.xml));
    return FtypBox() + Box("moov", MetaBox(children));
}

}  // namespace

std::string MakePackage(const PackageSpec& spec) {
    // The tables have fixed widths: their size does not depend on where "mdat" starts.
    std::string mdat;
    const std::string head = LayOut(spec, LayOut(spec, 0, &mdat).size() + 8, &mdat);
    return head + Box("mdat", mdat);
}

std::string MetadataXml(const std::vector<std::pair<std::string, std::string>>& common,
                        const std::vector<PosterRef>& posters) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<md:Metadata "
        "xmlns:md=\"urn:example:metadata\"><md:ContentMetadata>";
    for (const auto& f : common) xml += "<md:" + f.first + ">" + f.second + "</md:" + f.first + ">";
    xml += "</md:ContentMetadata>";
    for (const PosterRef& p : posters) {
        xml += "<md:RequiredImages><md:Width>" + std::to_string(p.width) +
               "</md:Width><md:Height>" + std::to_string(p.height) +
               "</md:Height><md:Encoding>image/jpeg</md:Encoding>";
        if (!p.trackReference.empty())
            xml += "<md:TrackReference>" + p.trackReference + "</md:TrackReference>";
        xml += "<md:Location>" + p.location + "</md:Location></md:RequiredImages>";
    }
    return xml + "</md:Metadata>\n";
}

std::string TableOfContentsXml(const std::string& path) {
    return "<?xml version=\"1.0\"?>\n<toc:TableOfContents xmlns:toc=\"urn:example:toc\"><toc:"
           "DescriptiveMetadata>" +
           path + "</toc:DescriptiveMetadata></toc:TableOfContents>\n";
}

}  // namespace qrbtest
