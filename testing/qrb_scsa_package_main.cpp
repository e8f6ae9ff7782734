// Writes content packages with the tests' box writer.
//
//   qrb-make-scsa-package OUTPUT POSTER [TITLE]
//       a package whose table of contents names its descriptive metadata, which names the
//       poster (the picture file POSTER, stored in the package in two pieces) by item id
//   qrb-make-scsa-package --fuzz-seeds DIR
//       the seed corpus of the package reader's fuzz target: well-formed packages in every
//       table layout, and hostile ones
#include "qrb_test_box_writer.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace qrbtest;

const std::string kUrn = "urn:dece:container:imageindex:";

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) std::cerr << "cannot write " << path << "\n";
    return static_cast<bool>(out);
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

std::string Package(const std::string& poster, const std::string& title) {
    std::string metadata = MetadataXml(
        {{"ContentID", "urn:example:content:1"},
         {"TitleDisplay19", Escape(title.substr(0, 19))},
         {"TitleDisplayUnlimited", Escape(title)},
         {"Summary190", "A sample content package made for the thumbnail service's demo."}},
        {{0, 0, kUrn + "1", "poster.jpg"}});
    const std::string ratings =
        "  <md:Ratings><md:Rating><md:country>US</md:country><md:System>MPAA</md:System>"
        "<md:Value>G</md:Value></md:Rating></md:Ratings>\n";
    metadata.insert(metadata.rfind("</md:Metadata>"), ratings);
    PackageSpec spec;
    spec.items = {
        {1, "", "image/jpeg", poster, false, 2},
        {2, "TableOfContents.XML", "application/xml",
         TableOfContentsXml("/metadata/descriptive.xml"), true, 1},
        {3, "metadata/descriptive.xml", "application/xml", metadata, true, 1},
    };
    spec.hasXmlBox = true;
    spec.xml = metadata;
    spec.moovChildrenBefore = {Box("mvhd", std::string(100, '\0'))};
    spec.mediaData = std::string(256, '\0');  // stands in for the media samples
    return MakePackage(spec);
}

std::vector<std::pair<std::string, std::string>> Seeds() {
    const std::string jpeg("\xFF\xD8\xFF\xE0\0\x10JFIF\0\x01\x01\0\0\x01\0\x01\0\0\xFF\xD9", 22);
    const std::string xml =
        MetadataXml({{"TitleDisplay19", "Seed"}}, {{8, 8, kUrn + "1", "p.jpg"}});
    std::vector<std::pair<std::string, std::string>> seeds;
    for (int version = 0; version <= 2; ++version) {
        PackageSpec spec;
        spec.layout.version = version;
        spec.layout.offsetSize = version == 2 ? 8 : 4;
        spec.layout.lengthSize = version == 0 ? 4 : 8;
        spec.layout.baseOffsetSize = version == 1 ? 4 : 0;
        spec.infeVersion = version + 1;
        spec.items.push_back({1, "", "image/jpeg", jpeg, false, 3});
        if (version > 0)
            spec.items.push_back(
                {2, "TableOfContents.XML", "", TableOfContentsXml("d.xml"), true, 1});
        if (version > 0) spec.items.push_back({3, "d.xml", "", xml, true, 2});
        spec.hasXmlBox = true;
        spec.xml = xml;
        seeds.push_back({"iloc_v" + std::to_string(version) + ".uvu", MakePackage(spec)});
    }
    PackageSpec top;
    top.metaAtTopLevel = true;
    top.items = {{7, "poster.jpg", "", jpeg, false, 1}};
    seeds.push_back({"meta_at_top_level.uvu", MakePackage(top)});

    IlocLayout wide;
    wide.offsetSize = wide.lengthSize = wide.baseOffsetSize = 8;
    auto entry = [](uint32_t id, int method, uint64_t base, std::vector<IlocExtent> extents) {
        IlocEntry e;
        e.id = id;
        e.method = method;
        e.baseOffset = base;
        e.extents = std::move(extents);
        return e;
    };
    auto inMoov = [](const std::vector<std::string>& children) {
        return FtypBox() + Box("moov", MetaBox(children)) + Box("mdat", "0123456789");
    };
    seeds.push_back({"child_overruns_meta.uvu",
                     inMoov({HdlrBox("cfmd"), BoxDeclaring(4000, "iloc", std::string(20, '\0')),
                             XmlBox("<a/>")})});
    seeds.push_back({"large_size_moov.uvu",
                     FtypBox() + LargeBox("moov", MetaBox({HdlrBox("cfmd"), XmlBox(xml)}))});
    seeds.push_back(
        {"idat_size_zero.uvu", inMoov({HdlrBox("cfmd"), IlocBox(wide, {entry(1, 1, 0, {{1, 3}})}),
                                       BoxDeclaring(0, "idat", "abcdef")})});
    seeds.push_back(
        {"offsets_wrap_around.uvu",
         inMoov({HdlrBox("cfmd"), IlocBox(wide, {entry(1, 0, UINT64_MAX - 4, {{16, 8}}),
                                                 entry(2, 0, 0, {{0, 1ull << 40}})})})});
    IlocLayout counted = wide;
    counted.version = 2;
    counted.declaredCount = 0xFFFFFFFF;
    IlocEntry extents = entry(1, 1, 0, {{0, 1}});
    extents.declaredExtents = 0xFFFF;
    seeds.push_back({"counts_far_above_entries.uvu",
                     inMoov({HdlrBox("cfmd"), IlocBox(counted, {extents}), Box("idat", "x"),
                             IinfBox(1, {InfeBox(3, 1, "n", "t")}, 0xFFFFFFFF)})});
    seeds.push_back({"other_handler.uvu", inMoov({HdlrBox("pict"), XmlBox(xml)})});
    return seeds;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--fuzz-seeds") {
        for (const auto& seed : Seeds()) {
            if (!WriteFile(std::string(argv[2]) + "/" + seed.first, seed.second)) return 1;
        }
        return 0;
    }
    if (argc != 3 && argc != 4) {
        std::cerr << "usage: " << argv[0] << " OUTPUT POSTER [TITLE]\n"
                  << "       " << argv[0] << " --fuzz-seeds DIR\n";
        return 2;
    }
    std::ifstream in(argv[2], std::ios::binary);
    const std::string poster((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    if (!in || poster.size() < 2) {
        std::cerr << "cannot read the poster " << argv[2] << "\n";
        return 1;
    }
    return WriteFile(argv[1], Package(poster, argc == 4 ? argv[3] : "Sample Package")) ? 0 : 1;
}
