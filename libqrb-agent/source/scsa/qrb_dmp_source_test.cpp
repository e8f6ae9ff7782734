// The DMP source on packages written by the tests.
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

const std::string kPoster("\xFF\xD8\xFF\xE0poster", 10);

class DmpSourceTest : public ::testing::Test {
protected:
    void TearDown() override { CQRBSingleton<CQRBDmpData>::ReleaseInstance(); }

    std::string Text(const std::string& key) {
        char* value = nullptr;
        if (!source.GetValue(key, &value)) return "<none>";
        std::string text = value;
        std::free(value);
        return text;
    }
    // The bytes of the first content's picture, or "<none>".
    std::string Picture(const std::string& path) {
        unsigned long long size = 0;
        char* buffer = nullptr;
        if (!source.GetThumbImage(path, 0, 0, size, &buffer)) return "<none>";
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
                  {2, "poster.jpg", "image/jpeg", kPoster, false, 2},
                  {3, "other.jpg", "", "\xFF\xD8\xFF\xE0 chapter", true, 1}};
    spec.hasXmlBox = true;
    spec.xml = MetadataXml({{"TitleDisplay19", title}}, {});
    return spec;
}

TEST_F(DmpSourceTest, PackagesAreReadOnceAndTheBoxAndThePosterMakeTheContent) {
    for (const char* name : {"b.UVA", "f.uvu.bak", "dir.uvu/inner"}) {  // by extension, any case
        EXPECT_EQ(source.MoveToIndex(root.WriteFile(name, MakePackage(BoxOnly("t")))), *name == 'b')
            << name;
    }
    const std::string path = root.WriteFile("movie.uvu", MakePackage(BoxOnly("Box Title")));
    ASSERT_TRUE(source.MoveToIndex(path));
    int images = -1;
    EXPECT_TRUE(Contents(path) == 1 && source.GetThumbImageCount(path, 0, images) && images == 1);
    EXPECT_EQ(Picture(path), kPoster);
    EXPECT_EQ(Text("TITLE_19") + "|" + Text("TRACK_REFERENCE") + "|" + Text("FILE_PATH"),
              "Box Title|poster.jpg|" + path);
    // Stored now: asked again, the package is not read again, even once it is gone.
    ASSERT_EQ(unlink(path.c_str()), 0);
    log.Clear();
    EXPECT_TRUE(CQRBDmpSource().MoveToIndex(path));
    EXPECT_TRUE(log.Contains("DmpSource: Path Exists !"));
}

// A table of contents naming the box, or a document beside the package (its poster beside it
// too), gives one content; failures say why.
TEST_F(DmpSourceTest, PackagesGiveTheirContentsOrSayWhyNot) {
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
    const struct {
        std::string bytes;
        const char* log;  // "" for the package that is read
    } packages[] = {
        {MakePackage(byToc), ""},
        {MakePackage(beside), ""},
        {MakePackage(empty), "DmpSource: GetFileList no data, vEmbeddedFileList.empty()!"},
        {MakePackage(notXml), "bRet1 = [0], bRet2 = [0]"},
        {MakePackage(brokenTable), "DmpSource: GetMetaData has failed"},
    };
    int n = 0;
    for (const auto& c : packages) {
        const bool ok = *c.log == '\0';
        const std::string path = root.WriteFile("p" + std::to_string(n++) + ".uvu", c.bytes);
        EXPECT_EQ(source.MoveToIndex(path), ok) << c.log;
        EXPECT_TRUE(ok || log.Contains(c.log)) << c.log;
        EXPECT_EQ(Contents(path), ok ? 1 : 0) << c.log;
        EXPECT_EQ(Picture(path), ok ? kPoster : "<none>") << c.log;
    }
}

}  // namespace
