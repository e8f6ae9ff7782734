// The DMP parser (broken and hostile texts are in fuzz/corpus/dmp_xml), data store and source.
#include "qrb_dmp_data.h"
#include "qrb_dmp_parse_xml.h"
#include "qrb_dmp_source.h"
#include "qrb_singleton.h"

#include "qrb_test_box_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qrbtest;

std::string Toc(const std::string& path) {
    return "<?xml version=\"1.0\"?><toc:TableOfContents "
           "xmlns:toc=\"urn:x\"><toc:Other>skip</toc:Other>"
           "<toc:DescriptiveMetadata>" +
           path + "</toc:DescriptiveMetadata></toc:TableOfContents>";
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
        {"no prefix; leading slash removed, substring match",
         "<T><Other>x</Other><DescriptiveMetadata>/meta.xml</DescriptiveMetadata></T>", 1,
         "/meta.xml", 1},
        {"trailing NULs", Toc("pkg/meta.xml") + std::string(5, '\0'), 1, "pkg/meta.xml", 1},
        {"the first match wins, and the walk stops there",
         "<T><DescriptiveMetadata>other/meta.xml</DescriptiveMetadata><DescriptiveMetadata>x"
         "</DescriptiveMetadata><broken",
         1, "other/meta.xml", 2},
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

// Any prefix; one poster per RequiredImages block (a field's last value wins), then one image
// per Chapter; blocks and fields outside their parents are ignored.
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
        // The error lies kilobytes on: the reader has handed out the nodes before it.
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
        EXPECT_EQ(parser.ParseDMPMetaData(c.xml, meta), c.result) << c.what;
        EXPECT_EQ(Fields(meta), c.fields) << c.what;
    }
}

// Texts name their key and a tag; pictures i are (100 + i) x (50 + i).
_stDMPMETADATA Record(const std::string& tag, int images) {
    _stDMPMETADATA m;
    m.strFilePath = "FILE_PATH" + tag;
    m.common.strContentID = "CONTENT_ID" + tag;
    m.common.strTitleDisplaySort = "TITLE_SORT" + tag;
    m.common.strSummary4000 = "SUMMARY_4000" + tag;
    for (int i = 0; i < images; ++i) {
        const std::string t = tag + "." + std::to_string(i);
        m.images.push_back({100 + i, 50 + i, "", "TRACK_REFERENCE" + t, "STREAM_NAME" + t});
        m.ratings.push_back({"", "", "", "", "ADULT_CONTENT" + t});
    }
    return m;
}

// The text GetValue answers, or "<none>" (with the output left null).
std::string Text(CQRBDmpData& data, const std::string& path, const std::string& key) {
    char* value = nullptr;
    if (!data.GetValue(path, key, &value)) return value == nullptr ? "<none>" : "<set on failure>";
    std::string text = value;
    std::free(value);
    return text;
}

TEST(DmpDataTest, KeysReadTheCurrentContentAndIndexesAreCheckedBeforeAnyAccess) {
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> records{Record("#0", 1), Record("#1", 3), Record("#2", 0)};
    data.InsertData("/p.uvu", records);
    // Content 0, its first picture and first rating, until another picture is handed out.
    for (const char* key : {"FILE_PATH", "CONTENT_ID", "SUMMARY_4000"})
        EXPECT_EQ(Text(data, "/p.uvu", key), key + std::string("#0"));
    for (const char* key : {"TRACK_REFERENCE", "STREAM_NAME", "ADULT_CONTENT"})
        EXPECT_EQ(Text(data, "/p.uvu", key), key + std::string("#0.0"));
    std::string picture, reference;
    ASSERT_TRUE(data.GetThumbnailData("/p.uvu", 1, 2, picture, reference));
    EXPECT_EQ(picture + " " + reference, "STREAM_NAME#1.2 TRACK_REFERENCE#1.2");
    int width = -1;
    EXPECT_TRUE(data.GetValue("/p.uvu", "WIDTH", &width) && width == 102);
    EXPECT_EQ(Text(data, "/p.uvu", "TITLE_SORT"), "TITLE_SORT#1");
    LogCapture log;
    EXPECT_EQ(Text(data, "/nowhere.uvu", "CONTENT_ID"), "<none>");
    EXPECT_TRUE(log.Contains("DmpData: wrong file path = [/nowhere.uvu]"));
    EXPECT_EQ(Text(data, "/p.uvu", "WIDTH"), "<none>");  // a number, asked as text
    EXPECT_TRUE(log.Contains("DmpData: wrong strField = [WIDTH]"));
    const struct {
        std::string path;
        int content, image;
        int images;  // GetThumbDataCount's count, -1: refused
    } cases[] = {
        {"/p.uvu", 1, 2, 3},  {"/p.uvu", 2, 0, 0},   {"/p.uvu", 1, 3, 3},      {"/p.uvu", 0, -1, 1},
        {"/p.uvu", 3, 0, -1}, {"/p.uvu", -1, 0, -1}, {"/other.uvu", 0, 0, -1},
    };
    for (const auto& c : cases) {
        int images = -1;
        EXPECT_EQ(data.GetThumbDataCount(c.path, c.content, images), c.images >= 0);
        EXPECT_EQ(images, c.images >= 0 ? c.images : 0);
        const bool ok = c.image >= 0 && c.image < c.images;
        picture = reference = "stale";
        EXPECT_EQ(data.GetThumbnailData(c.path, c.content, c.image, picture, reference), ok);
        EXPECT_EQ(picture.empty(), !ok);
    }
}

TEST(DmpDataTest, ReadersNeverSeeAPackageHalfReplaced) {
    // Writers replace a package by 1 or by 5 contents; readers see one whole version or the other.
    CQRBDmpData data;
    std::vector<_stDMPMETADATA> small{Record("#s", 1)};
    std::vector<_stDMPMETADATA> large(5, Record("#l", 1));
    data.InsertData("/p.uvu", small);
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> writers, readers;
    for (int w = 0; w < 2; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; !stop; ++i) data.InsertData("/p.uvu", (i + w) % 2 ? large : small);
        });
    }
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                int count = 0, images = 0;
                if (!data.GetThumbCount("/p.uvu", count) || (count != 1 && count != 5)) ++bad;
                const std::string id = Text(data, "/p.uvu", "CONTENT_ID");
                if (id != "CONTENT_ID#s" && id != "CONTENT_ID#l") ++bad;
                std::string picture, reference;
                data.GetThumbnailData("/p.uvu", i % 5, 0, picture, reference);
                if (data.GetThumbDataCount("/p.uvu", 0, images) && images != 1) ++bad;
            }
        });
    }
    for (auto& t : readers) t.join();
    stop = true;
    for (auto& t : writers) t.join();
    EXPECT_EQ(bad.load(), 0);
}

const std::string kPoster("\xFF\xD8\xFF\xE0poster", 10);

// A package described only by its metadata box, whose poster is its first picture.
PackageSpec BoxOnly(const std::string& title) {
    PackageSpec spec;
    spec.items = {{1, "notes.txt", "", "plain notes", false, 1},
                  {2, "poster.jpg", "image/jpeg", kPoster, false, 2},
                  {3, "other.jpg", "", "\xFF\xD8\xFF\xE0 chapter", true, 1}};
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"TitleDisplay19", title}}, {});
    return spec;
}

TEST(DmpSourceTest, PackagesAreReadOnceAndGiveTheirContentsOrSayWhyNot) {
    ScratchRoot root;
    LogCapture log;
    CQRBDmpSource source;
    const auto picture = [&](const std::string& path) {  // of the first content, or "<none>"
        unsigned long long size = 0;
        char* buffer = nullptr;
        if (!source.GetThumbImage(path, 0, 0, size, &buffer)) return std::string("<none>");
        std::string bytes(buffer, static_cast<size_t>(size));
        std::free(buffer);
        return bytes;
    };
    const auto contents = [&](const std::string& path) {
        int count = -1;
        return source.GetThumbCount(path, count) ? count : 0;
    };
    for (const char* name : {"b.UVA", "f.uvu.bak", "dir.uvu/inner"}) {  // by extension, any case
        EXPECT_EQ(source.MoveToIndex(root.WriteFile(name, MakePackage(BoxOnly("t")))), *name == 'b')
            << name;
    }
    const std::string path = root.WriteFile("movie.uvu", MakePackage(BoxOnly("Box Title")));
    ASSERT_TRUE(source.MoveToIndex(path));
    int images = -1;
    EXPECT_TRUE(contents(path) == 1 && source.GetThumbImageCount(path, 0, images) && images == 1);
    EXPECT_EQ(picture(path), kPoster);
    std::string texts;
    for (const char* key : {"TITLE_19", "TRACK_REFERENCE", "FILE_PATH"}) {
        char* value = nullptr;
        texts += source.GetValue(key, &value) ? std::string(value) + "|" : "<none>|";
        std::free(value);
    }
    EXPECT_EQ(texts, "Box Title|poster.jpg|" + path + "|");
    // Stored now: asked again, the package is not read again, even once it is gone.
    ASSERT_EQ(unlink(path.c_str()), 0);
    log.Clear();
    EXPECT_TRUE(CQRBDmpSource().MoveToIndex(path));
    EXPECT_TRUE(log.Contains("DmpSource: Path Exists !"));
    // A table of contents naming the box, or a document beside the package (its poster beside
    // it too), gives one content; failures say why.
    root.WriteFile("side/meta.xml",
                   MetadataXml({{"ContentID", "beside"}}, {{1, 1, "", "side/poster.jpg"}}));
    root.WriteFile("side/poster.jpg", kPoster);
    PackageSpec byToc = BoxOnly("t"), beside, empty, notXml = BoxOnly(""),
                brokenTable = BoxOnly("x");
    byToc.items.push_back({9, "TableOfContents.XML", "",
                           TableOfContentsXml(SCSA_DMP::MetaDataExtractor::XML_BOX_NAME), true, 1});
    beside.items = {{1, "TableOfContents.XML", "", TableOfContentsXml("/side/meta.xml"), false, 1}};
    notXml.xml = "this is not a document";
    brokenTable.hasXmlBox = false;
    brokenTable.items.push_back(
        {9, "TableOfContents.xml", "", TableOfContentsXml("d.xml"), false, 1});
    brokenTable.items.push_back({10, "d.xml", "", "<M><ContentMetadata></Broken>", false, 1});
    const std::pair<std::string, std::string> packages[] = {
        // bytes, log ("": it is read)
        {MakePackage(byToc), ""},
        {MakePackage(beside), ""},
        {MakePackage(empty), "DmpSource: GetFileList no data, vEmbeddedFileList.empty()!"},
        {MakePackage(notXml), "bRet1 = [0], bRet2 = [0]"},
        {MakePackage(brokenTable), "DmpSource: GetMetaData has failed"},
    };
    int n = 0;
    for (const auto& [bytes, logged] : packages) {
        const bool ok = logged.empty();
        const std::string path = root.WriteFile("p" + std::to_string(n++) + ".uvu", bytes);
        EXPECT_EQ(source.MoveToIndex(path), ok) << logged;
        EXPECT_TRUE(ok || log.Contains(logged)) << logged;
        EXPECT_EQ(contents(path), ok ? 1 : 0) << logged;
        EXPECT_EQ(picture(path), ok ? kPoster : "<none>") << logged;
    }
    CQRBSingleton<CQRBDmpData>::ReleaseInstance();
}

}  // namespace
