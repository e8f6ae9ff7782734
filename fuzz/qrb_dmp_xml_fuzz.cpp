// The DMP XML parser on arbitrary text, through its three entry points: results stay within
// their values, a failed table of contents gives no path, an escaped path holds no ":", and a
// found index names an entry of the list (the first when no descriptive metadata is named).
#include "dlog_sink.h"
#include "scsa/qrb_dmp_parse_xml.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // every rejection is logged; keep the output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string xml(reinterpret_cast<const char*>(data), size);
    CQRBDmpParseXml parser;

    std::string path = "stale";
    const int toc = parser.ParseDMPTableOfContents(xml, path);
    if (toc != 0 && toc != 1) abort();
    if ((toc == 0 && !path.empty()) || path.find(':') != std::string::npos) abort();

    const std::vector<std::string> files{"TableOfContents.XML", "meta/descriptive.xml",
                                         "urn%3Aa%3Ab/d.xml", "poster.jpg"};
    int index = -1;
    const int second = parser.ParseDMPTableOfContents(xml, files, index);
    if (second != toc || index < -1 || index >= static_cast<int>(files.size())) abort();
    // A table of contents that names no descriptive metadata gives the first entry.
    if (index >= 0 && !path.empty() &&
        files[index].find(path[0] == '/' ? path.substr(1) : path) == std::string::npos) {
        abort();
    }
    if (index > 0 && path.empty()) abort();

    _stDMPMETADATA meta;
    const int result = parser.ParseDMPMetaData(xml, meta);
    if (result != 0 && result != 1) abort();
    if (!meta.strFilePath.empty()) abort();  // the parser never fills it
    return 0;
}
