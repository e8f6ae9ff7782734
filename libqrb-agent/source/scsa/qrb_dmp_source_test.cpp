// The DMP source on packages written by the tests: which paths are packages, packages with and
// without a table of contents, documents and pictures beside the package, the store, failures.
#include "qrb_dmp_source.h"

#include "qrb_dmp_data.h"
#include "qrb_singleton.h"

#include "qrb_test_box_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace qrbtest;

const std::string kUrn = "urn:dece:container:imageindex:";
const std::string kBoxName = SCSA_DMP::MetaDataExtractor::XML_BOX_NAME;
const std::string kPosterBytes("\xFF\xD8\xFF\xE0poster", 10);
const std::string kChapterBytes(
    "\xFF\xD8\xFF\xE0"
    "chapter",
    11);

class DmpSourceTest : public ::testing::Test {
protected:
    void TearDown() override { CQRBSingleton<CQRBDmpData>::ReleaseInstance(); }

    std::string Write(const std::string& relative, const PackageSpec& spec) {
        return root.WriteFile(relative, MakePackage(spec));
    }
    std::string Text(const std::string& key) {
        char* value = nullptr;
        if (!source.GetValue(key, &value)) return "<none>";
        std::string text = value;
        std::free(value);
        return text;
    }
    // The bytes of one picture, or "<none>".
    std::string Picture(const std::string& path, int content, int image) {
        unsigned long long size = 0;
        char* buffer = nullptr;
        if (!source.GetThumbImage(path, content, image, size, &buffer)) return "<none>";
        std::string bytes(buffer, static_cast<size_t>(size));
        std::free(buffer);
        return bytes;
    }
    int Contents(const std::string& path) {
        int count = -1;
        return source.GetThumbCount(path, count) ? count : 0;
    }

    ScratchRoot root;
    LogCapture log;
    CQRBDmpSource source;
};

// A package described only by its metadata box, whose poster is its first picture.
PackageSpec BoxOnly(const std::string& title) {
    PackageSpec spec;
    spec.items = {{1, "notes.txt", "", "plain notes", false, 1},
                  {2, "poster.jpg", "image/jpeg", kPosterBytes, false, 2},
                  {3, "other.jpg", "", kChapterBytes, true, 1}};
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"TitleDisplay19", title}, {"Publisher", "Studio"}}, {});
    return spec;
}

TEST_F(DmpSourceTest, OnlyPackageExtensionsAreRead) {
    const struct {
        std::string name, lowered;
        bool package;
    } cases[] = {
        {"a.uvu", "uvu", true},      {"b.UVA", "uva", true},
        {"c.Uvt", "uvt", true},      {"d.scsa", "scsa", true},
        {"e.mp4", "mp4", false},     {"noext", "", false},
        {"f.uvu.bak", "bak", false}, {"dir.uvu/inner", "uvu/inner", false},
    };
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(source.MoveToIndex(Write(c.name, BoxOnly("t"))), c.package) << c.name;
        EXPECT_TRUE(log.Contains("File Extension after CQRBUtil::ToLower [" + c.lowered + "]"))
            << c.name;
        EXPECT_EQ(log.Contains("vEmbeddedFileList[0] = [notes.txt]"), c.package) << c.name;
    }
}

TEST_F(DmpSourceTest, WithoutTableOfContentsTheBoxAndThePosterMakeTheContent) {
    const std::string path = Write("movie.uvu", BoxOnly("Box Title"));
    ASSERT_TRUE(source.MoveToIndex(path));
    int images = -1;
    EXPECT_TRUE(Contents(path) == 1 && source.GetThumbImageCount(path, 0, images) && images == 1);
    EXPECT_EQ(Picture(path, 0, 0), kPosterBytes);
    EXPECT_EQ(Text("TITLE_19") + "|" + Text("PUBLISHER") + "|" + Text("TRACK_REFERENCE"),
              "Box Title|Studio|poster.jpg");
    EXPECT_EQ(Text("FILE_PATH"), path);
    for (const char* line :
         {"has not TableOfContents.XML file", "bRet1 = [1], bRet2 = [0]",
          "DmpSource: m_HasPoster index = [1]", "DmpSource: Poster Path = [poster.jpg]",
          "DmpSource: bRet = [1], iImageCount = [1]", "DmpSource: strField = [FILE_PATH]",
          "DmpSource: MetaDataExtractor::GetImageBufferFromSFF strImgFilePath = [poster.jpg]"}) {
        EXPECT_TRUE(log.Contains(line)) << line;
    }

    // Stored now: asked again, the package is not read again, even once it is gone.
    ASSERT_EQ(unlink(path.c_str()), 0);
    log.Clear();
    CQRBDmpSource again;
    EXPECT_TRUE(again.MoveToIndex(path));
    EXPECT_TRUE(log.Contains("DmpSource: Path Exists !"));
    EXPECT_FALSE(log.Contains("vEmbeddedFileList"));
}

TEST_F(DmpSourceTest, TableOfContentsContentComesFirstThenTheBox) {
    PackageSpec spec;
    spec.items = {
        {1, "pkg/TableOfContents.XML", "", TableOfContentsXml("/meta/descriptive.xml"), true, 1},
        {2, "pkg/meta/descriptive.xml", "",
         MetadataXml({{"TitleDisplay19", "From the table"}},
                     {{640, 360, kUrn + "7", "posters/main.jpg"}, {320, 180, kUrn + "8", "c.jpg"}}),
         false, 2},
        {7, "", "", kPosterBytes, false, 1},
        {8, "", "", kChapterBytes, true, 1},
    };
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"TitleDisplay19", "From the box"}}, {});
    const std::string path = Write("movie.uvt", spec);
    ASSERT_TRUE(source.MoveToIndex(path));
    EXPECT_TRUE(log.Contains("bRet1 = [1], bRet2 = [1]"));
    EXPECT_TRUE(log.Contains("DescriptiveMetadata = [meta/descriptive.xml]"));
    ASSERT_EQ(Contents(path), 2);
    // The table's document names two pictures and gets no poster besides; the box's gets one.
    for (int content : {0, 1}) {
        int images = -1;
        EXPECT_TRUE(source.GetThumbImageCount(path, content, images) && images == 2 - content);
    }

    // Values follow the content whose picture was handed out last.
    int width = 0, index = -1;
    EXPECT_EQ(Picture(path, 0, 1), kChapterBytes);
    EXPECT_EQ(Text("TITLE_19"), "From the table");
    EXPECT_TRUE(source.GetValue("WIDTH", &width) && width == 320);
    // The box names no picture: it takes the package's first picture, item 7.
    EXPECT_EQ(Picture(path, 1, 0), kPosterBytes);
    EXPECT_EQ(Text("TITLE_19") + "|" + Text("TRACK_REFERENCE"), "From the box|" + kUrn + "7");
    EXPECT_TRUE(source.GetValue("INDEX", &index) && index == 1);

    // A table of contents naming the box itself gives one content, not the same one twice.
    spec.items[0].data = TableOfContentsXml(kBoxName);
    const std::string single = Write("single.uvt", spec);
    ASSERT_TRUE(source.MoveToIndex(single));
    EXPECT_EQ(Contents(single), 1);
    EXPECT_EQ(Picture(single, 0, 0), kPosterBytes);
    EXPECT_EQ(Text("TITLE_19"), "From the box");
}

TEST_F(DmpSourceTest, DescriptiveMetadataAndPicturesBesideThePackage) {
    root.WriteFile("shelf/side/meta.xml",
                   MetadataXml({{"ContentID", "beside"}}, {{1, 1, "", "side/poster.jpg"}}));
    root.WriteFile("shelf/side/poster.jpg", kPosterBytes);
    root.WriteFile("outside.xml", MetadataXml({{"ContentID", "outside"}}, {}));
    const struct {
        const char* toc;
        bool found;
    } cases[] = {
        {"/side/meta.xml", true},
        {"side/meta.xml", true},
        {"../outside.xml", false},
        {"side/missing.xml", false},
    };
    int n = 0;
    for (const auto& c : cases) {
        log.Clear();
        PackageSpec spec;
        spec.items = {{1, "TableOfContents.XML", "", TableOfContentsXml(c.toc), false, 1}};
        const std::string path = Write("shelf/m" + std::to_string(n++) + ".uvu", spec);
        EXPECT_EQ(source.MoveToIndex(path), c.found) << c.toc;
        EXPECT_TRUE(log.Contains("DmpSource: iMetadataXML is not exist")) << c.toc;
        if (!c.found) continue;
        EXPECT_EQ(Picture(path, 0, 0), kPosterBytes);
        EXPECT_TRUE(log.Contains(
            "DmpSource: MetaDataExtractor::GetImageBuffer strImgFilePath = [side/poster.jpg]"));
        EXPECT_EQ(Text("CONTENT_ID"), "beside");
    }
}

TEST_F(DmpSourceTest, FailuresSayWhy) {
    PackageSpec empty, pictureOnly, notXml = BoxOnly(""), brokenTable = BoxOnly("x");
    pictureOnly.items = {{1, "poster.jpg", "", kPosterBytes, false, 1}};
    notXml.xml = "this is not a document";
    brokenTable.hasXmlBox = false;
    brokenTable.items.push_back(
        {9, "TableOfContents.xml", "", TableOfContentsXml("d.xml"), false, 1});
    brokenTable.items.push_back({10, "d.xml", "", "<M><ContentMetadata></Broken>", false, 1});
    const struct {
        const char* what;
        std::string bytes;
        const char* log;
    } packages[] = {
        {"no package", "plain text", "DmpSource: GetFileList error!"},
        {"no embedded files", MakePackage(empty),
         "DmpSource: GetFileList no data, vEmbeddedFileList.empty()!"},
        {"a picture and no document", MakePackage(pictureOnly), "bRet1 = [0], bRet2 = [0]"},
        {"a box that is no document", MakePackage(notXml), "bRet1 = [0], bRet2 = [0]"},
        {"a broken descriptive document", MakePackage(brokenTable),
         "DmpSource: GetMetaData has failed"},
    };
    int n = 0;
    for (const auto& c : packages) {
        log.Clear();
        const std::string path = root.WriteFile("bad" + std::to_string(n++) + ".uvu", c.bytes);
        EXPECT_FALSE(source.MoveToIndex(path)) << c.what;
        EXPECT_TRUE(log.Contains(c.log)) << c.what;
        EXPECT_EQ(Contents(path), 0) << c.what;
    }

    PackageSpec spec;
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"ContentID", "c"}}, {{1, 1, kUrn + "5", "gone.jpg"}});
    const std::string path = Write("p.uvu", spec);
    ASSERT_TRUE(source.MoveToIndex(path));
    const struct {
        std::string path;
        int content;
        const char* log;
    } pictures[] = {
        {"", 0, "DmpSource: strFilePath is empty(), no metedata"},
        {path, 1, "DmpSource: Get thumbnai data failed"},
        {path, 0, "DmpSource: dmp-manager get image buffer fail"},
    };
    for (const auto& c : pictures) {
        log.Clear();
        EXPECT_EQ(Picture(c.path, c.content, 0), "<none>") << c.log;
        EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
    EXPECT_TRUE(log.Contains("DmpSource: ullBuffSize = [0], pImageBuf = [(nil)]"));
}

}  // namespace
