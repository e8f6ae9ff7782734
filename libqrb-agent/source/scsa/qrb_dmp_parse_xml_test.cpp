// The DMP XML parser on documents written here: both forms of the table of contents, the
// metadata walk with its handlers, prefixes, hostile and broken texts.
#include "qrb_dmp_parse_xml.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string Join(const std::vector<std::string>& texts) {
    std::string joined;
    for (size_t i = 0; i < texts.size(); ++i) joined += (i ? "|" : "") + texts[i];
    return joined;
}

std::string Toc(const std::string& path, const std::string& prefix = "toc:") {
    return "<?xml version=\"1.0\"?><" + prefix + "TableOfContents xmlns" +
           (prefix.empty() ? "" : ":" + prefix.substr(0, prefix.size() - 1)) + "=\"urn:x\"><" +
           prefix + "Other>skip</" + prefix + "Other><" + prefix + "DescriptiveMetadata>" + path +
           "</" + prefix + "DescriptiveMetadata></" + prefix + "TableOfContents>";
}

TEST(DmpParseXmlTest, TableOfContentsGivesTheDescriptivePathWithColonsEscaped) {
    const struct {
        const char* what;
        std::string xml;
        int result;
        std::string path;
        const char* log;
    } cases[] = {
        {"colons escaped one by one", Toc("urn:a:b/meta.xml"), 1, "urn%3Aa%3Ab/meta.xml",
         "CQRBDmpParseXml: succes to Parse XML = [1]"},
        {"no prefix", Toc("/meta.xml", ""), 1, "/meta.xml", "DescriptiveMetadata = [/meta.xml]"},
        {"another prefix", Toc("::", "x:"), 1, "%3A%3A", nullptr},
        {"trailing NULs", Toc("m.xml") + std::string(5, '\0'), 1, "m.xml", nullptr},
        {"no such element: empty path", "<TableOfContents><Other>a:b</Other></TableOfContents>", 1,
         "", "CQRBDmpParseXml: succes to Parse XML = [0]"},
        {"the first match wins, and the walk stops there",
         "<T><DescriptiveMetadata>first</DescriptiveMetadata><DescriptiveMetadata>second"
         "</DescriptiveMetadata><broken",
         1, "first", nullptr},
        {"broken before the element", "<T><Other></T><DescriptiveMetadata>x</DescriptiveMetadata>",
         0, "", "CQRBDmpParseXml: Fail to Parse XML = [-1]"},
        {"not XML", "plain words", 0, "", "CQRBDmpParseXml: Fail to Parse XML = [-1]"},
        {"empty text", std::string(3, '\0'), 0, "", "CQRBDmpParseXml: Fail to Parse XML = [-1]"},
        // The node after an empty element gives the path: here the text that follows it.
        {"empty element", "<T><DescriptiveMetadata/>after.xml<Other/></T>", 1, "after.xml",
         "CQRBDmpParseXml: DescriptiveMetadata = [after.xml]"},
        {"text above the size limit",
         Toc("m.xml") + std::string(CQRBDmpParseXml::kMaxXmlBytes, ' '), 0, "",
         "CQRBDmpParseXml: XML String from DMP is not xml !!!"},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        qrbtest::LogCapture log;
        std::string path = "stale";
        EXPECT_EQ(parser.ParseDMPTableOfContents(c.xml, path), c.result) << c.what;
        EXPECT_EQ(path, c.path) << c.what;
        if (c.log) {
            EXPECT_TRUE(log.Contains(c.log)) << c.what << ": " << c.log;
        }
    }
}

TEST(DmpParseXmlTest, SecondFormFindsTheFirstFileNameHoldingThePath) {
    const std::vector<std::string> files{"poster.jpg", "pkg/meta.xml", "other/meta.xml",
                                         "urn%3Aa%3Ab/d.xml"};
    const struct {
        const char* what;
        std::string xml;
        int result;
        int index;  // starts at 7
    } cases[] = {
        {"leading slash removed, substring match", Toc("/meta.xml"), 1, 1},
        {"the first holder wins", Toc("meta.xml"), 1, 1},
        {"a longer path", Toc("other/meta.xml"), 1, 2},
        {"escaped colons match escaped names", Toc("urn:a:b/d.xml"), 1, 3},
        {"no holder: index kept, still a success", Toc("/absent.xml"), 1, 7},
        // An empty path is found inside every name: the first one holds it.
        {"empty path: the first name", Toc(""), 1, 0},
        {"no such element: the first name", "<TableOfContents><Other>a</Other></TableOfContents>",
         1, 0},
        {"not XML", "{}", 0, 7},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        int index = 7;
        EXPECT_EQ(parser.ParseDMPTableOfContents(c.xml, files, index), c.result) << c.what;
        EXPECT_EQ(index, c.index) << c.what;
    }
    int index = 7;
    EXPECT_EQ(parser.ParseDMPTableOfContents(Toc(""), {}, index), 1);
    EXPECT_EQ(index, 7) << "no names: nothing holds even an empty path";
}

const char kDocument[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<md:CoreMetadata xmlns:md="urn:x:md" xmlns:x="urn:x:other">
  <md:Basic><md:Title>outside ContentMetadata: ignored</md:Title></md:Basic>
  <md:ContentMetadata>
    <md:ContentID>urn:id:1</md:ContentID>
    <x:DECEMediaProfile>HD</x:DECEMediaProfile>
    <RunLength>PT1H30M</RunLength>
    <md:Publisher>Studio &amp; Co</md:Publisher>
    <md:TitleDisplay19>Short</md:TitleDisplay19>
    <md:TitleDisplay60></md:TitleDisplay60>
    <md:TitleDisplayUnlimited>The Long Title</md:TitleDisplayUnlimited>
    <md:TitleDisplaySort>Long Title, The</md:TitleDisplaySort>
    <md:Summary190>s190</md:Summary190>
    <md:Summary400>s400</md:Summary400>
    <md:Summary4000>s4000</md:Summary4000>
    <md:DescriptionLanguage>en</md:DescriptionLanguage>
    <md:Unknown>not a field</md:Unknown>
  </md:ContentMetadata>
  <md:RequiredImages>
    <md:Width>640</md:Width>
    <md:Height>360</md:Height>
    <md:Width>1280</md:Width>
    <md:Encoding>image/jpeg</md:Encoding>
    <md:TrackReference>urn:dece:container:imageindex:3</md:TrackReference>
    <md:Location>poster.jpg</md:Location>
  </md:RequiredImages>
  <md:RequiredImages><md:Location>second.jpg</md:Location></md:RequiredImages>
  <md:Chapters>
    <md:Chapter><md:Width>10</md:Width><md:Location>c1.jpg</md:Location></md:Chapter>
    <md:Chapter><md:Image><md:Height>20</md:Height></md:Image><md:Location>c2.jpg</md:Location></md:Chapter>
  </md:Chapters>
  <md:Ratings>
    <md:Rating><md:country>US</md:country><md:System>MPAA</md:System><md:Value>PG</md:Value>
      <md:Description>mild</md:Description><md:AdultContent>false</md:AdultContent></md:Rating>
    <md:Rating><md:country>DE</md:country><md:Value>12</md:Value></md:Rating>
  </md:Ratings>
</md:CoreMetadata>)";

TEST(DmpParseXmlTest, MetadataWalkFillsEveryFieldWhateverThePrefix) {
    CQRBDmpParseXml parser;
    qrbtest::LogCapture log;
    _stDMPMETADATA meta;
    meta.strFilePath = "left alone";
    ASSERT_EQ(parser.ParseDMPMetaData(kDocument, meta), 0);
    EXPECT_EQ(meta.strFilePath, "left alone");

    const _stDMPMetadata_common& c = meta.common;
    EXPECT_EQ(Join({c.strContentID, c.strMediaProfile, c.strRunLength, c.strPublisher,
                    c.strTitleDisplay19, c.strTitleDisplay60, c.strTitleDisplayUnlimited,
                    c.strTitleDisplaySort, c.strSummary190, c.strSummary400, c.strSummary4000,
                    c.strDescriptionLanguage}),
              "urn:id:1|HD|PT1H30M|Studio & Co|Short||The Long Title|Long Title, The|s190|s400|"
              "s4000|en");
    // One poster per RequiredImages block (the last Width wins), then one image per Chapter.
    std::vector<std::string> images;
    for (const auto& i : meta.images) {
        images.push_back(Join({std::to_string(i.nWidth), std::to_string(i.nHeight), i.strEncoding,
                               i.strTrackReference, i.strLocation}));
    }
    EXPECT_EQ(images, (std::vector<std::string>{
                          "1280|360|image/jpeg|urn:dece:container:imageindex:3|poster.jpg",
                          "0|0|||second.jpg", "10|0|||c1.jpg", "0|20|||c2.jpg"}));
    std::vector<std::string> ratings;
    for (const auto& r : meta.ratings) {
        ratings.push_back(
            Join({r.strCountry, r.strSystem, r.strValue, r.strDescription, r.strAdultContent}));
    }
    EXPECT_EQ(ratings, (std::vector<std::string>{"US|MPAA|PG|mild|false", "DE||12||"}));

    EXPECT_TRUE(log.Contains("image.nWidth = [1280], image.nHeight = [360]"));
    EXPECT_TRUE(log.Contains("image.strEncoding = [image/jpeg], image.strTrackReference = [3]"));
    EXPECT_EQ(log.Count("image.nWidth = ["), 2);  // logged for the RequiredImages blocks only
}

TEST(DmpParseXmlTest, BrokenAndHostileTexts) {
    const std::string withNuls = std::string(kDocument) + std::string(4, '\0');
    const struct {
        const char* what;
        std::string xml;
        int result;
        std::string contentId;
        size_t images;
        const char* log;
    } cases[] = {
        {"trailing NULs are dropped", withNuls, 0, "urn:id:1", 4, nullptr},
        {"chapters alone: one image each",
         "<Chapters><Chapter><Location>1</Location></Chapter><Chapter><Location>2</Location>"
         "</Chapter><Chapter><Location>3</Location></Chapter></Chapters>",
         0, "", 3, nullptr},
        {"text above the size limit",
         "<M><ContentMetadata><ContentID>x</ContentID></ContentMetadata>" +
             std::string(CQRBDmpParseXml::kMaxXmlBytes, ' ') + "</M>",
         0, "", 0, "CQRBDmpParseXml: XML String from DMP is not xml !!!"},
        {"an empty text fails to parse", "", 1, "", 0, "CQRBDmpParseXml: Fail to Parse XML"},
        {"only NULs: an empty text", std::string(8, '\0'), 1, "", 0,
         "CQRBDmpParseXml: Fail to Parse XML"},
        {"text that is no document", "ContentID=1", 1, "", 0, "CQRBDmpParseXml: Fail to Parse XML"},
        // The reader parses ahead in chunks: the error lies some kilobytes on, so that the
        // nodes before it have been handed out when it is met.
        {"error after the common part: what came before stays",
         "<M><ContentMetadata><ContentID>kept</ContentID></ContentMetadata>" +
             std::string(8192, ' ') + "<RequiredImages><Location>p</Location></Oops></M>",
         1, "kept", 0, "CQRBDmpParseXml: Fail to Parse XML"},
        {"a block cut short by the end of the text counts for none",
         "<RequiredImages><Location>p</Location>", 1, "", 0, nullptr},
        {"entities are neither expanded nor fetched",
         "<?xml version=\"1.0\"?><!DOCTYPE M [<!ENTITY big \"EXPANDED\">"
         "<!ENTITY ext SYSTEM \"file:///etc/hostname\">]>"
         "<M><ContentMetadata><ContentID>&big;</ContentID><Publisher>&ext;</Publisher>"
         "</ContentMetadata></M>",
         0, "", 0, nullptr},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        qrbtest::LogCapture log;
        _stDMPMETADATA meta;
        EXPECT_EQ(parser.ParseDMPMetaData(c.xml, meta), c.result) << c.what;
        EXPECT_EQ(meta.common.strContentID, c.contentId) << c.what;
        EXPECT_EQ(meta.images.size(), c.images) << c.what;
        if (c.log) {
            EXPECT_TRUE(log.Contains(c.log)) << c.what;
        }
        // The external entity names a file that exists: had it been read, the publisher would
        // hold the file's text.
        if (std::string(c.what) == "entities are neither expanded nor fetched") {
            EXPECT_EQ(meta.common.strPublisher, "");
        }
    }
}

// An empty element has no text and no end element, so the walk takes the node after it: a
// text field takes whatever follows, a block reads on to the next end element of its name.
TEST(DmpParseXmlTest, EmptyElementsTakeWhatFollowsThem) {
    const struct {
        const char* what;
        std::string xml;
        std::string common;  // ContentID|Summary190
        std::vector<std::string> images;
        std::vector<std::string> ratings;  // countries
    } cases[] = {
        {"a text field takes the next element, which the walk then passes over",
         "<M><ContentMetadata><Summary190/><ContentID>next</ContentID></ContentMetadata></M>",
         "|",
         {},
         {}},
        {"a text field takes the whitespace after it",
         "<M><ContentMetadata><Summary190/>\n  <ContentID>next</ContentID></ContentMetadata></M>",
         "next|\n  ",
         {},
         {}},
        {"a text field takes the text after it",
         "<M><ContentMetadata><Summary190/>loose<ContentID>id</ContentID></ContentMetadata></M>",
         "id|loose",
         {},
         {}},
        {"a number takes the next element's missing value, and that element is passed over",
         "<RequiredImages><Width>7</Width><Width/><Height>9</Height></RequiredImages>",
         "|",
         {"0|0|"},
         {}},
        {"a chapter reads on into the next one",
         "<Chapters><Chapter><Location>1</Location></Chapter><Chapter/>"
         "<Chapter><Width>3</Width><Location>3</Location></Chapter></Chapters>",
         "|",
         {"0|0|1", "3|0|3"},
         {}},
        {"a poster block reads on to the next block's end",
         "<M><RequiredImages/><Chapters><Chapter><Location>c</Location></Chapter></Chapters>"
         "<RequiredImages><Width>5</Width></RequiredImages></M>",
         "|",
         {"5|0|c"},
         {}},
        {"a poster block without a later end counts for none",
         "<M><RequiredImages/><Chapters><Chapter><Location>c</Location></Chapter></Chapters></M>",
         "|",
         {},
         {}},
        {"the common block reads on to the end, past every other block",
         "<M><ContentMetadata/><RequiredImages><Location>p</Location></RequiredImages>"
         "<ContentID>late</ContentID></M>",
         "late|",
         {},
         {}},
        {"a rating reads on into the next one",
         "<Ratings><Rating/><Rating><country>DE</country></Rating><Rating><country>US</country>"
         "</Rating></Ratings>",
         "|",
         {},
         {"DE", "US"}},
    };
    CQRBDmpParseXml parser;
    for (const auto& c : cases) {
        _stDMPMETADATA meta;
        EXPECT_EQ(parser.ParseDMPMetaData(c.xml, meta), 0) << c.what;
        EXPECT_EQ(meta.common.strContentID + "|" + meta.common.strSummary190, c.common) << c.what;
        std::vector<std::string> images;
        for (const auto& i : meta.images) {
            images.push_back(
                Join({std::to_string(i.nWidth), std::to_string(i.nHeight), i.strLocation}));
        }
        EXPECT_EQ(images, c.images) << c.what;
        std::vector<std::string> ratings;
        for (const auto& r : meta.ratings) ratings.push_back(r.strCountry);
        EXPECT_EQ(ratings, c.ratings) << c.what;
    }
}

}  // namespace
