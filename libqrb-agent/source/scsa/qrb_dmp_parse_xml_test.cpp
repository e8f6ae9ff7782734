// The DMP XML parser: both forms of the table of contents and the metadata walk. Other broken
// and hostile texts are in fuzz/corpus/dmp_xml.
#include "qrb_dmp_parse_xml.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string Toc(const std::string& path, const std::string& prefix = "toc:") {
    return "<?xml version=\"1.0\"?><" + prefix + "TableOfContents xmlns" +
           (prefix.empty() ? "" : ":" + prefix.substr(0, prefix.size() - 1)) + "=\"urn:x\"><" +
           prefix + "Other>skip</" + prefix + "Other><" + prefix + "DescriptiveMetadata>" + path +
           "</" + prefix + "DescriptiveMetadata></" + prefix + "TableOfContents>";
}

TEST(DmpParseXmlTest, TableOfContentsGivesTheDescriptivePathInBothForms) {
    const std::vector<std::string> files{"poster.jpg", "pkg/meta.xml", "other/meta.xml"};
    const struct {
        const char* what;
        std::string xml;
        int result;
        std::string path;
        int index;  // of the second form; starts at 7
    } cases[] = {
        {"colons escaped one by one", Toc("urn:a:b/meta.xml"), 1, "urn%3Aa%3Ab/meta.xml", 7},
        {"no prefix; leading slash removed, substring match", Toc("/meta.xml", ""), 1, "/meta.xml",
         1},
        {"trailing NULs", Toc("pkg/meta.xml") + std::string(5, '\0'), 1, "pkg/meta.xml", 1},
        {"the first match wins, and the walk stops there",
         "<T><DescriptiveMetadata>other/meta.xml</DescriptiveMetadata><DescriptiveMetadata>x"
         "</DescriptiveMetadata><broken",
         1, "other/meta.xml", 2},
        // An empty path is found inside every name: the first one holds it.
        {"no such element: empty path", "<T><Other>a:b</Other></T>", 1, "", 0},
        {"broken before the element", "<T><Other></T><DescriptiveMetadata>x</DescriptiveMetadata>",
         0, "", 7},
        {"text above the size limit",
         Toc("m.xml") + std::string(CQRBDmpParseXml::kMaxXmlBytes, ' '), 0, "", 7},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        std::string path = "stale";
        int index = 7;
        EXPECT_EQ(parser.ParseDMPTableOfContents(c.xml, path), c.result) << c.what;
        EXPECT_EQ(path, c.path) << c.what;
        EXPECT_EQ(parser.ParseDMPTableOfContents(c.xml, files, index), c.result) << c.what;
        EXPECT_EQ(index, c.index) << c.what;
    }
}

std::string Fields(const _stDMPMETADATA& meta) {
    const _stDMPMetadata_common& c = meta.common;
    std::string out = c.strContentID + "|" + c.strMediaProfile + "|" + c.strPublisher + "|" +
                      c.strTitleDisplay60 + "|" + c.strDescriptionLanguage;
    for (const auto& i : meta.images) {
        out += " [" + std::to_string(i.nWidth) + "x" + std::to_string(i.nHeight) + " " +
               i.strEncoding + " " + i.strTrackReference + " " + i.strLocation + "]";
    }
    for (const auto& r : meta.ratings) {
        out += " (" + r.strCountry + " " + r.strSystem + " " + r.strValue + " " + r.strDescription +
               " " + r.strAdultContent + ")";
    }
    return out;
}

// Whatever the prefix; one poster per RequiredImages block (the last value of each field
// wins), then one image per Chapter; blocks and fields outside their parents are ignored.
const char kDocument[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<md:CoreMetadata xmlns:md="urn:x:md" xmlns:x="urn:x:other">
  <md:Basic><md:Publisher>outside ContentMetadata: ignored</md:Publisher></md:Basic>
  <md:ContentMetadata>
    <md:ContentID>urn:id:1</md:ContentID><x:DECEMediaProfile>HD</x:DECEMediaProfile>
    <md:Publisher>Studio &amp; Co</md:Publisher><md:TitleDisplay60></md:TitleDisplay60>
    <md:DescriptionLanguage>en</md:DescriptionLanguage><md:Unknown>not a field</md:Unknown>
  </md:ContentMetadata>
  <md:RequiredImages>
    <md:Width>640</md:Width><md:Height>360</md:Height><md:Width>1280</md:Width>
    <md:Encoding>image/jpeg</md:Encoding><md:TrackReference>urn:t:3</md:TrackReference>
    <md:Location>poster.jpg</md:Location>
  </md:RequiredImages>
  <md:Chapters>
    <md:Chapter><md:Width>10</md:Width><md:Location>c1.jpg</md:Location></md:Chapter>
    <md:Chapter><md:Image><md:Height>20</md:Height></md:Image><md:Location>c2.jpg</md:Location></md:Chapter>
  </md:Chapters>
  <md:Ratings>
    <md:Rating><md:country>US</md:country><md:System>MPAA</md:System><md:Value>PG</md:Value>
      <md:Description>mild</md:Description><md:AdultContent>false</md:AdultContent></md:Rating>
    <md:Rating><md:country>DE</md:country></md:Rating>
  </md:Ratings>
</md:CoreMetadata>)";

TEST(DmpParseXmlTest, MetadataWalkFillsTheRecordAndKeepsWhatCameBeforeAnError) {
    const std::string full =
        "urn:id:1|HD|Studio & Co||en [1280x360 image/jpeg urn:t:3 poster.jpg]"
        " [10x0   c1.jpg] [0x20   c2.jpg] (US MPAA PG mild false) (DE    )";
    const struct {
        const char* what;
        std::string xml;
        int result;
        std::string fields;
    } cases[] = {
        {"the document", kDocument, 0, full},
        {"chapters alone: one image each",
         "<Chapters><Chapter><Location>1</Location></Chapter><Chapter><Location>2</Location>"
         "</Chapter><Chapter><Location>3</Location></Chapter></Chapters>",
         0, "|||| [0x0   1] [0x0   2] [0x0   3]"},
        // The reader parses ahead in chunks: the error lies some kilobytes on, so that the
        // nodes before it have been handed out when it is met.
        {"error after the common part",
         "<M><ContentMetadata><ContentID>kept</ContentID></ContentMetadata>" +
             std::string(8192, ' ') + "<RequiredImages><Location>p</Location></Oops></M>",
         1, "kept||||"},
        {"a block without an end counts for none",
         "<M><RequiredImages/><Chapters><Chapter><Location>c</Location></Chapter></Chapters></M>",
         0, "||||"},
        {"entities are neither expanded nor fetched",
         "<?xml version=\"1.0\"?><!DOCTYPE M [<!ENTITY big \"EXPANDED\">"
         "<!ENTITY ext SYSTEM \"file:///etc/hostname\">]><M><ContentMetadata><ContentID>&big;"
         "</ContentID><Publisher>&ext;</Publisher></ContentMetadata></M>",
         0, "||||"},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        _stDMPMETADATA meta;
        meta.strFilePath = "left alone";
        EXPECT_EQ(parser.ParseDMPMetaData(c.xml, meta), c.result) << c.what;
        EXPECT_EQ(Fields(meta), c.fields) << c.what;
        EXPECT_EQ(meta.strFilePath, "left alone");
    }
}

}  // namespace
