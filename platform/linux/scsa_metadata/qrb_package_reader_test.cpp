// The package reader: box headers, items in every item-table layout, misplaced and hostile
// metadata, and the extractor on real files (embedded files, files beside the package, files
// that are no package).
#include "qrb_box_reader.h"
#include "qrb_package_reader.h"
#include "scsa_metadata_extractor.h"

#include "qrb_test_box_writer.h"
#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace qrbtest;
using SCSA_DMP::MetaDataExtractor;
using Items = std::map<std::string, std::string>;

const std::string kUrn = "urn:dece:container:imageindex:";
const std::string kBox = "embedded-metadata.xml";

// name -> bytes of every listed item (order: the names in list order); parsed tells whether
// package metadata was found at all.
Items Contents(const std::string& file, bool* parsed, std::vector<std::string>* order = nullptr) {
    QRBMemoryByteSource source(file.data(), file.size());
    QRBPackageReader reader(source);
    *parsed = reader.Parse();
    Items out;
    for (const QRBPackageItem& item : reader.Items()) {
        if (order) order->push_back(item.name);
        std::string bytes(static_cast<size_t>(item.length), '\0');
        if (!reader.Read(item, reinterpret_cast<uint8_t*>(&bytes[0]))) bytes = "<unreadable>";
        out[item.name] = bytes;
    }
    return out;
}

// Meta children inside "moov", followed by "mdat" holding tail.
std::string InMoov(const std::vector<std::string>& children, const std::string& tail = "") {
    return FtypBox() + Box("moov", MetaBox(children)) + Box("mdat", tail);
}

TEST(PackageReaderTest, ReadsAHandWrittenPackage) {
    // moov(98) > meta(90): version/flags; hdlr(32) "cfmd"; iloc(30) version 0, 4-byte offset
    // and length, item 1 at 106 for 3 bytes; xml (16) "<a/>". Then mdat(11) "abc" at 106.
    const std::string file(
        "\0\0\0\x62moov"
        "\0\0\0\x5Ameta\0\0\0\0"
        "\0\0\0\x20hdlr\0\0\0\0\0\0\0\0cfmd\0\0\0\0\0\0\0\0\0\0\0\0"
        "\0\0\0\x1Eiloc\0\0\0\0\x44\x00\0\x01\0\x01\0\0\0\x01\0\0\0\x6A\0\0\0\x03"
        "\0\0\0\x10xml \0\0\0\0<a/>"
        "\0\0\0\x0Bmdatabc",
        98 + 11);
    bool parsed = false;
    std::vector<std::string> order;
    const Items items = Contents(file, &parsed, &order);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(order, (std::vector<std::string>{kUrn + "1", kBox}));
    EXPECT_EQ(items, (Items{{kUrn + "1", "abc"}, {kBox, "<a/>"}}));
}

TEST(PackageReaderTest, ItemsComeBackWholeInEveryTableLayout) {
    const int sizes[][3] = {{4, 4, 0}, {8, 8, 0}, {4, 8, 4}, {8, 4, 8}};  // offset, length, base
    int n = 0;
    for (int version = 0; version <= 2; ++version) {
        for (const auto& s : sizes) {
            for (int extents : {1, 3}) {
                PackageSpec spec;
                spec.layout.version = version;
                spec.layout.offsetSize = s[0];
                spec.layout.lengthSize = s[1];
                spec.layout.baseOffsetSize = s[2];
                spec.infeVersion = n++ % 4;
                spec.items = {{1, "poster.jpg", "image/jpeg", "POSTER-0123456789", false, extents},
                              {300, "chapter", "", "CHAPTER-zyxwvutsrq", false, extents}};
                if (version >= 1) spec.items.push_back({2, "", "", "IDAT-abcdefgh", true, extents});
                spec.hasXmlBox = true;
                spec.xml = "<Metadata/>";
                spec.mediaData = std::string(64, 'M');
                bool parsed = false;
                std::vector<std::string> order;
                const Items items = Contents(MakePackage(spec), &parsed, &order);
                Items want{{"poster.jpg", "POSTER-0123456789"},
                           {"chapter", "CHAPTER-zyxwvutsrq"},
                           {kBox, "<Metadata/>"}};
                if (version >= 1) want[kUrn + "2"] = "IDAT-abcdefgh";
                EXPECT_TRUE(parsed && items == want && order.front() == "poster.jpg" &&
                            order.back() == kBox)
                    << "iloc version " << version << ", field sizes " << s[0] << "/" << s[1] << "/"
                    << s[2] << ", " << extents << " extents";
            }
        }
    }
}

// Where the metadata may sit, box headers and item tables whose answers are fixed; other
// broken headers and tables are in fuzz/corpus/scsa_box, whose target checks every extent.
TEST(PackageReaderTest, MisplacedAndHostileMetadataIsBoundedAndCheckedBeforeUse) {
    const std::string data = "0123456789";  // the "mdat" payload
    IlocLayout wide;                        // version 1, 8-byte fields, base offsets
    wide.offsetSize = wide.lengthSize = wide.baseOffsetSize = 8;
    auto entry = [](uint32_t id, int method, std::vector<IlocExtent> extents) {
        return IlocEntry{id, method, 0, 0, std::move(extents)};
    };
    // Meta with the items of method 0 based at the start of "mdat".
    auto withItems = [&](IlocLayout l, std::vector<IlocEntry> entries) {
        std::vector<std::string> children{HdlrBox("cfmd"), IlocBox(l, entries)};
        const uint64_t mdat = InMoov(children).size();  // the table's size does not change
        for (auto& e : entries) e.baseOffset += e.method == 0 ? mdat : 0;
        children[1] = IlocBox(l, entries);
        return InMoov(children, data);
    };
    // A meta whose one item lies in its own "idat", so that the meta can sit anywhere.
    auto metaWith = [&](const std::string& handler) {
        return MetaBox(
            {HdlrBox(handler), IlocBox(IlocLayout(), {entry(1, 1, {{0, 2}})}), Box("idat", "it")});
    };
    IlocLayout manyItems = wide;
    manyItems.version = 2;
    manyItems.declaredCount = 0xFFFFFFFF;
    std::string crowded;
    for (uint32_t i = 0; i < QRBPackageReader::kMaxBoxesPerContainer; ++i)
        crowded += Box("free", "");
    const std::string bigTable = FullBox("iloc", 1, 0,
                                         BigEndian(0x8880, 2) + BigEndian(0, 2) +
                                             std::string(QRBPackageReader::kMaxTableBytes, '\0'));
    const Items idatItem{{kUrn + "1", "it"}};
    const Items none;

    const struct {
        const char* what;
        std::string file;
        bool parsed;
        Items items;
    } cases[] = {
        // clang-format off
        {"meta in moov", Box("moov", metaWith("cfmd")), true, idatItem},
        {"meta at the top level", Box("moov", "") + metaWith("cfmd"), true, idatItem},
        {"another handler", Box("moov", metaWith("pict")), false, none},
        {"meta one level too deep", Box("moov", Box("udta", metaWith("cfmd"))), false, none},
        {"meta behind more boxes than a walk takes", Box("moov", crowded + metaWith("cfmd")), false, none},
        {"64-bit size", InMoov({HdlrBox("cfmd"), LargeBox("xml ", std::string(4, '\0') + "x")}), true, {{kBox, "x"}}},
        {"a child overrunning meta ends its walk",
         InMoov({HdlrBox("cfmd"), BoxDeclaring(1000, "iloc", std::string(20, '\0')), XmlBox("x")}), true, none},
        {"idat of size 0 runs to the end of meta",
         InMoov({HdlrBox("cfmd"), IlocBox(wide, {entry(1, 1, {{2, 3}})}), BoxDeclaring(0, "idat", "abcdef")}),
         true, {{kUrn + "1", "cde"}}},
        {"table above the size limit", InMoov({HdlrBox("cfmd"), bigTable, XmlBox("x")}), true, {{kBox, "x"}}},
        {"base and offset wrapping around", withItems(wide, {entry(1, 0, {{UINT64_MAX - 2, 4}})}), true, none},
        {"length 0 runs to the end of the file", withItems(wide, {entry(1, 0, {{6, 0}})}), true,
         {{kUrn + "1", "6789"}}},
        {"item count far above the entries",
         withItems(manyItems, {entry(1, 0, {{0, 1}}), entry(2, 0, {{1, 1}})}), true,
         {{kUrn + "1", "0"}, {kUrn + "2", "1"}}},
        {"a repeated id: the first counts", withItems(wide, {entry(1, 0, {{0, 1}}), entry(1, 0, {{5, 1}})}),
         true, {{kUrn + "1", "0"}}},
        // clang-format on
    };
    for (const auto& c : cases) {
        bool parsed = false;
        const Items items = Contents(c.file, &parsed);
        EXPECT_EQ(parsed, c.parsed) << c.what;
        EXPECT_EQ(items, c.items) << c.what;
    }
}

const std::string kJpeg("\xFF\xD8\xFF\xE0 jpeg", 9);
const std::string kPng("\x89PNG\r\n\x1A\n png", 12);

// The picture's bytes, or "<none>"; checks that a failure hands back nothing.
std::string Picture(bool ok, unsigned long long size, char* buffer) {
    std::string bytes = ok ? std::string(buffer, static_cast<size_t>(size)) : "<none>";
    if (!ok && (buffer != nullptr || size != 0)) bytes = "<left set>";
    std::free(buffer);
    return bytes;
}

TEST(PackageExtractorTest, ListsTypesAndReadsEmbeddedFiles) {
    ScratchRoot root;
    MetaDataExtractor extractor;
    PackageSpec spec;
    spec.items = {
        {1, "poster.jpg", "image/jpeg", kJpeg, false, 2},
        {2, "", "", kPng, true, 1},
        {4, "meta/d.xml", "", "\xEF\xBB\xBF  <?xml version='1.0'?><a/>", true, 1},
        {5, "notes", "text/xml", "not really", false, 1},
        {6, "blob", "", "BM but no bitmap", false, 1},
    };
    spec.hasXmlBox = true;
    spec.xml = "<Metadata/>";
    const std::string package = root.WriteFile("pkg/movie.uvu", MakePackage(spec));
    std::vector<std::string> files;
    ASSERT_TRUE(extractor.GetFileList(package, files));
    const std::vector<std::string> names{"poster.jpg", kUrn + "2", "meta/d.xml",
                                         "notes",      "blob",     kBox};
    EXPECT_EQ(files, names);
    const int types[] = {2, 2, 1, 1, 0, 1};
    for (size_t i = 0; i < names.size(); ++i) {
        int type = -1;
        EXPECT_TRUE(extractor.GetFileType(package, names[i], type) && type == types[i]) << names[i];
    }
    std::string xml;
    EXPECT_TRUE(extractor.GetXMLFromSFF(package, kBox, xml) && xml == "<Metadata/>");
    EXPECT_FALSE(extractor.GetXMLFromSFF(package, "missing.xml", xml) || !xml.empty());
    // By track reference (a listed name, or the id form for any item), else by location.
    const struct {
        std::string location, reference, bytes;
    } pictures[] = {
        {"", "poster.jpg", kJpeg},
        {"", kUrn + "02", kPng},
        {"poster.jpg", kUrn + "77", kJpeg},
        {"", kUrn + "2x", "<none>"},
        {"", kUrn + "99999999999", "<none>"},
    };
    for (const auto& p : pictures) {
        unsigned long long size = 99;
        char* buffer = reinterpret_cast<char*>(&size);
        const bool ok =
            extractor.GetImageBufferFromSFF(package, p.location, p.reference, size, &buffer);
        EXPECT_EQ(Picture(ok, size, buffer), p.bytes) << p.location << " / " << p.reference;
    }
}

TEST(PackageExtractorTest, OversizedDocumentsAndPicturesAreRefusedByTheirDeclaredLength) {
    ScratchRoot root;
    MetaDataExtractor extractor;
    // Overlapping extents declare far more than the file holds.
    const std::string chunk(128 * 1024, 'x');
    auto overlapping = [&](uint32_t id, uint64_t total) {
        IlocEntry e;
        e.id = id;
        e.method = 1;
        for (uint64_t got = 0; got < total; got += chunk.size())
            e.extents.push_back({0, chunk.size()});
        return e;
    };
    const uint64_t xmlLimit = MetaDataExtractor::MAX_XML_BYTES;
    const std::string package = root.WriteFile(
        "big.uvu",
        InMoov({HdlrBox("cfmd"),
                IlocBox(IlocLayout(), {overlapping(1, xmlLimit), overlapping(2, xmlLimit + 1),
                                       overlapping(3, MetaDataExtractor::MAX_IMAGE_BYTES + 1)}),
                Box("idat", chunk)}));
    std::string xml;
    EXPECT_TRUE(extractor.GetXMLFromSFF(package, kUrn + "1", xml) && xml.size() == xmlLimit);
    EXPECT_FALSE(extractor.GetXMLFromSFF(package, kUrn + "2", xml));
    unsigned long long size = 0;
    char* buffer = nullptr;
    const bool ok = extractor.GetImageBufferFromSFF(package, "", kUrn + "3", size, &buffer);
    EXPECT_EQ(Picture(ok, size, buffer), "<none>");
}

TEST(PackageExtractorTest, FilesBesideThePackageStayInsideItsFolder) {
    ScratchRoot root;
    MetaDataExtractor extractor;
    const std::string package = root.WriteFile("shelf/movie.uvu", "not read for files beside it");
    root.WriteFile("shelf/side/poster.jpg", kJpeg);
    root.WriteFile("outside.jpg", kJpeg);
    const std::string shelf = root.Path() + "/shelf";
    ASSERT_EQ(symlink((shelf + "/side/poster.jpg").c_str(), (shelf + "/link.jpg").c_str()), 0);
    ASSERT_EQ(symlink((shelf + "/side").c_str(), (shelf + "/linkdir").c_str()), 0);
    ASSERT_EQ(mkfifo((shelf + "/fifo").c_str(), 0600), 0);
    for (const std::string& relative :
         {std::string("./side//poster.jpg"), std::string("../outside.jpg"),
          root.Path() + "/outside.jpg", std::string("side/../side/poster.jpg"),
          std::string("link.jpg"), std::string("linkdir/poster.jpg"), std::string("fifo"),
          std::string("side")}) {
        const bool ok = relative[0] == '.' && relative[1] == '/';
        unsigned long long size = 0;
        char* buffer = nullptr;
        const bool read = extractor.GetImageBuffer(package, relative, size, &buffer);
        EXPECT_EQ(Picture(read, size, buffer), ok ? kJpeg : "<none>") << relative;
        std::string xml = "stale";
        EXPECT_EQ(extractor.GetXML(package, relative, xml), ok) << relative;
        EXPECT_EQ(xml, ok ? kJpeg : "") << relative;
    }
}

TEST(PackageExtractorTest, NoPackageIsRefusedAndAReplacedFileIsReadAgain) {
    ScratchRoot root;
    MetaDataExtractor extractor;
    std::vector<std::string> paths = {
        root.WriteFile("text.uvu", "just some text, not boxes"),
        root.WriteFile("video.uvu", FtypBox() + Box("moov", Box("mvhd", std::string(100, '\0')))),
        root.Path(),
    };
    // Real media files from the shared corpus, when it is there: walked, never mistaken.
    const std::string corpus = CorpusDir() + "/androidx-media/mp4";
    for (const std::string& name : ListDir(CorpusDir().empty() ? "" : corpus, ".mp4"))
        paths.push_back(corpus + "/" + name);
    for (const std::string& path : paths) {
        std::vector<std::string> files{"stale"};
        EXPECT_FALSE(extractor.GetFileList(path, files) || !files.empty()) << path;
    }
    // A new file under the name (another inode, as a rename into place makes) is read anew.
    PackageSpec first, second;
    first.items = {{1, "first.jpg", "", kJpeg, false, 1}};
    second.items = {{1, "second.png", "", kPng, false, 1}};
    const std::string path = root.WriteFile("swap.uvu", MakePackage(first));
    std::vector<std::string> files;
    EXPECT_TRUE(extractor.GetFileList(path, files) &&
                files == std::vector<std::string>{"first.jpg"});
    ASSERT_EQ(rename(root.WriteFile("swap.tmp", MakePackage(second)).c_str(), path.c_str()), 0);
    EXPECT_TRUE(extractor.GetFileList(path, files) &&
                files == std::vector<std::string>{"second.png"});
}

}  // namespace
