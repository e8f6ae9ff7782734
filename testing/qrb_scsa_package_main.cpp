// Writes a content package with the tests' box writer:
//   qrb-make-scsa-package OUTPUT POSTER [TITLE]
// Its table of contents names its descriptive metadata, which names the poster (the picture
// file POSTER, stored in the package in two pieces) by item id.
#include "qrb_test_box_writer.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
    using namespace qrbtest;
    if (argc != 3 && argc != 4) {
        std::cerr << "usage: " << argv[0] << " OUTPUT POSTER [TITLE]\n";
        return 2;
    }
    std::ifstream in(argv[2], std::ios::binary);
    const std::string poster((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    if (poster.size() < 2) {
        std::cerr << "cannot read the poster " << argv[2] << "\n";
        return 1;
    }
    std::string title = argc == 4 ? argv[3] : "Sample Package";
    for (size_t at = 0; (at = title.find_first_of("&<>", at)) != std::string::npos; ++at)
        title.replace(at, 1, title[at] == '&' ? "&amp;" : title[at] == '<' ? "&lt;" : "&gt;");
    const std::string metadata =
        MetadataXml({{"ContentID", "urn:example:content:1"}, {"TitleDisplayUnlimited", title}},
                    {{0, 0, "urn:dece:container:imageindex:1", "poster.jpg"}});
    PackageSpec spec;
    spec.items = {{1, "", "image/jpeg", poster, false, 2},
                  {2, "TableOfContents.XML", "application/xml",
                   TableOfContentsXml("/metadata/descriptive.xml"), true, 1},
                  {3, "metadata/descriptive.xml", "application/xml", metadata, true, 1}};
    spec.hasXmlBox = true;
    spec.xml = metadata;
    spec.mediaData = std::string(256, '\0');  // stands in for the media samples
    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out << MakePackage(spec);
    out.close();
    if (!out) std::cerr << "cannot write " << argv[1] << "\n";
    return out ? 0 : 1;
}
