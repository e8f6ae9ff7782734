#include "result_files.h"

#include "qrb_test_files.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qrbthumb {
namespace {

LibraryBuffer Malloced(const std::string& bytes) {
    LibraryBuffer buffer(static_cast<unsigned char*>(std::malloc(bytes.size() ? bytes.size() : 1)));
    std::memcpy(buffer.get(), bytes.data(), bytes.size());
    return buffer;
}

DeliveredImage Image(int slot, const std::string& bytes) {
    DeliveredImage image;
    image.bytes = Malloced(bytes);
    image.size = bytes.size();
    image.slot = slot;
    return image;
}

Answer Raster(int width, int height, std::initializer_list<int> slots) {
    Answer answer;
    answer.answered = true;
    answer.status = 0;
    answer.width = width;
    answer.height = height;
    answer.elapsed = std::chrono::milliseconds(21);
    for (int slot : slots) {
        answer.images.push_back(
            Image(slot, std::string(static_cast<size_t>(width) * height * 4, char('a' + slot))));
    }
    return answer;
}

bool PngOfSize(const std::string& path, int width, int height) {
    qrbtest::Raster png;
    return qrbtest::ReadPng(path, &png) && png.width == width && png.height == height;
}

TEST(ToolResultFiles, StemIsTheLastSegmentMadeSafe) {
    EXPECT_EQ(StemOf("/media/photos/beach.jpg"), "beach.jpg");
    EXPECT_EQ(StemOf("file:///media/beach.jpg"), "beach.jpg");
    EXPECT_EQ(StemOf("relative/dir/"), "dir");
    EXPECT_EQ(StemOf("http://host/a/pic.jpg?size=big#top"), "pic.jpg");
    EXPECT_EQ(StemOf("https://host.example/"), "host.example");
    EXPECT_EQ(StemOf("/odd/na://me.jpg"), "me.jpg");
    EXPECT_EQ(StemOf("ptp://001;002;3"), "001_002_3");
    EXPECT_EQ(StemOf("/m/clip.mp4;http://srv/clip.mta;video/mp4"), "clip.mp4");
    EXPECT_EQ(StemOf("my <holiday> & \"more\".jpg"), "my__holiday_____more_.jpg");
    EXPECT_EQ(StemOf("caf\xC3\xA9.jpg"), "caf__.jpg");
    EXPECT_EQ(StemOf(".hidden"), "_hidden");
    EXPECT_EQ(StemOf(".."), "_.");
    EXPECT_EQ(StemOf(""), "input");
    EXPECT_EQ(StemOf("/"), "input");
    EXPECT_EQ(StemOf(std::string(500, 'n')).size(), 200u);
}

TEST(ToolResultFiles, StemsStayUniqueAcrossInputsWithTheSameName) {
    // "~" never survives in a name, so a numbered stem cannot meet an input's own.
    EXPECT_EQ(UniqueStems({"a/x.jpg", "b/x.jpg", "x.jpg", "y.jpg", "x.jpg~2"}),
              (std::vector<std::string>{"x.jpg", "x.jpg~2", "x.jpg~3", "y.jpg", "x.jpg_2"}));
}

TEST(ToolResultFiles, EncodedExtensionFollowsTheSignature) {
    auto ext = [](const std::string& bytes) {
        return std::string(
            EncodedExtension(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
    };
    EXPECT_EQ(ext("\xFF\xD8\xFF\xE1"), "jpg");
    EXPECT_EQ(ext(std::string("\x89PNG\r\n\x1A\n", 8)), "png");
    EXPECT_EQ(ext("GIF89a..."), "gif");
    EXPECT_EQ(ext(std::string("RIFF\x10\0\0\0WEBPVP8 ", 16)), "webp");
    EXPECT_EQ(ext("BM...."), "bmp");
    EXPECT_EQ(ext(std::string("II*\0\x08\0\0\0", 8)), "tif");
    EXPECT_EQ(ext(std::string("\0\0\0\x18" "ftypheic", 12)), "heic");
    EXPECT_EQ(ext(std::string("\0\0\0\x1C" "ftypavif", 12)), "avif");
    EXPECT_EQ(ext(std::string("\0\0\0\x18" "ftypisom", 12)), "bin");
    EXPECT_EQ(ext("<html>"), "bin");
    EXPECT_EQ(ext(""), "bin");
    EXPECT_EQ(ext("\xFF\xD8"), "bin");  // cut short
}

class ToolResultFilesWrite : public ::testing::Test {
protected:
    Outcome Write(const Answer& answer, const std::string& stem = "clip.mp4") {
        Outcome outcome;
        WriteAnswerFiles(answer, ImageFormat::Png, root.Path(), stem, &outcome);
        return outcome;
    }
    std::string Path(const std::string& name) const { return root.Path() + "/" + name; }
    qrbtest::ScratchRoot root;
};

TEST_F(ToolResultFilesWrite, EveryRasterBecomesAPngNamedForItsSlot) {
    // The library may leave a slot empty; names follow the slots, not a running count.
    const Outcome o = Write(Raster(6, 4, {0, 1, 3}));
    EXPECT_TRUE(o.ok) << o.note;
    EXPECT_EQ(o.frames, 3);
    EXPECT_EQ(o.width, 6);
    EXPECT_EQ(o.height, 4);
    EXPECT_EQ(o.milliseconds, 21);
    EXPECT_EQ(o.note, "");
    ASSERT_EQ(o.outputs, (std::vector<std::string>{Path("clip.mp4-0.png"), Path("clip.mp4-1.png"),
                                                   Path("clip.mp4-3.png")}));
    for (const auto& file : o.outputs) EXPECT_TRUE(PngOfSize(file, 6, 4)) << file;
    EXPECT_EQ(root.CountEntries(""), 3);
}

TEST_F(ToolResultFilesWrite, AnImageOfAnotherSizeIsReportedNotGuessed) {
    Answer answer = Raster(4, 4, {0});
    answer.images.push_back(Image(1, std::string(10, 'x')));
    const Outcome o = Write(answer);
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.frames, 1);
    EXPECT_EQ(o.outputs, (std::vector<std::string>{Path("clip.mp4-0.png")}));
    EXPECT_NE(o.note.find("image 1"), std::string::npos) << o.note;
    EXPECT_EQ(root.CountEntries(""), 1);
}

TEST_F(ToolResultFilesWrite, EncodedBytesAreSavedAsTheyCame) {
    Answer answer;
    answer.answered = true;
    answer.status = 0;
    answer.encoded = true;
    const std::string jpeg("\xFF\xD8\xFF\xE0 not really a picture\0\x01", 26);
    answer.images.push_back(Image(0, jpeg));
    const Outcome o = Write(answer, "pic");
    EXPECT_TRUE(o.ok) << o.note;
    EXPECT_EQ(o.frames, 1);
    EXPECT_EQ(o.width, 0);  // encoded bytes carry no size the tool knows
    ASSERT_EQ(o.outputs, (std::vector<std::string>{Path("pic.jpg")}));
    EXPECT_EQ(qrbtest::ReadFileBytes(Path("pic.jpg")), jpeg);

    // Several encoded pictures (a DLNA item's chapters) are told apart by their slot.
    const std::string png("\x89PNG\r\n\x1A\n rest", 13);
    answer.images.push_back(Image(2, png));
    const Outcome two = Write(answer, "item");
    EXPECT_TRUE(two.ok) << two.note;
    EXPECT_EQ(two.frames, 2);
    ASSERT_EQ(two.outputs, (std::vector<std::string>{Path("item-0.jpg"), Path("item-2.png")}));
    EXPECT_EQ(qrbtest::ReadFileBytes(Path("item-0.jpg")), jpeg);
    EXPECT_EQ(qrbtest::ReadFileBytes(Path("item-2.png")), png);
}

TEST_F(ToolResultFilesWrite, FailureUnansweredAndEmptyAnswersWriteNothingAndSayWhy) {
    Answer failed;
    failed.answered = true;
    failed.status = -1;
    failed.elapsed = std::chrono::milliseconds(5);
    Outcome o = Write(failed);
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.milliseconds, 5);
    EXPECT_NE(o.note.find("status -1"), std::string::npos) << o.note;

    Answer silent;
    silent.elapsed = std::chrono::milliseconds(3000);
    o = Write(silent);
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.milliseconds, 3000);
    EXPECT_NE(o.note.find("time-out"), std::string::npos) << o.note;

    Answer empty;
    empty.answered = true;
    empty.status = 0;
    o = Write(empty);
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.frames, 0);
    EXPECT_NE(o.note.find("no image"), std::string::npos) << o.note;
    EXPECT_EQ(o.reason, "");

    // The library said why it had nothing (a video that gave no frame): its words are the note.
    empty.reason = "no frame could be decoded";
    o = Write(empty);
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.note, "no frame could be decoded");
    EXPECT_EQ(o.reason, "no frame could be decoded");

    EXPECT_EQ(root.CountEntries(""), 0);
}

TEST_F(ToolResultFilesWrite, AFolderThatCannotBeWrittenFailsTheInput) {
    Outcome outcome;
    WriteAnswerFiles(Raster(2, 2, {0}), ImageFormat::Png, root.Path() + "/not-there", "a", &outcome);
    EXPECT_FALSE(outcome.ok);
    EXPECT_TRUE(outcome.outputs.empty());
    EXPECT_NE(outcome.note.find("not-there"), std::string::npos) << outcome.note;
}

}  // namespace
}  // namespace qrbthumb
