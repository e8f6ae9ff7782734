#include "result_files.h"

#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace qrbthumb {
namespace {

DeliveredImage Image(int slot, const std::string& bytes) {
    DeliveredImage image;
    image.bytes.reset(static_cast<unsigned char*>(std::malloc(bytes.size() + 1)));
    std::memcpy(image.bytes.get(), bytes.data(), bytes.size());
    image.size = bytes.size();
    image.slot = slot;
    return image;
}

Answer Answered(int status) {
    Answer answer;
    answer.answered = true;
    answer.status = status;
    return answer;
}

TEST(ToolResultFiles, FileNamesAreTheInputsLastSegmentMadeSafeAndUnique) {
    const std::pair<const char*, const char*> rows[] = {
        {"http://host/a/pic.jpg?size=big#top", "pic.jpg"},
        {"ptp://001;002;3", "001_002_3"},
        {"my <holiday> & \"more\".jpg", "my__holiday_____more_.jpg"},
        {"caf\xC3\xA9.jpg", "caf__.jpg"},
        {"..", "_."},
        {"/", "input"},
    };
    for (const auto& [input, stem] : rows) EXPECT_EQ(StemOf(input), stem) << input;
    EXPECT_EQ(StemOf(std::string(500, 'n')).size(), 200u);
    // "~" never survives in a name, so a numbered stem cannot meet an input's own.
    EXPECT_EQ(UniqueStems({"a/x.jpg", "b/x.jpg", "x.jpg", "y.jpg", "x.jpg~2"}),
              (std::vector<std::string>{"x.jpg", "x.jpg~2", "x.jpg~3", "y.jpg", "x.jpg_2"}));
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
    Answer answer = Answered(0);
    answer.width = 6;
    answer.height = 4;
    for (int slot : {0, 1, 3}) answer.images.push_back(Image(slot, std::string(6 * 4 * 4, 'a')));
    const Outcome o = Write(answer);
    EXPECT_TRUE(o.ok) << o.note;
    EXPECT_EQ(o.frames, 3);
    ASSERT_EQ(o.outputs, (std::vector<std::string>{Path("clip.mp4-0.png"), Path("clip.mp4-1.png"),
                                                   Path("clip.mp4-3.png")}));

    // An image of another size than the answer gives is reported, not guessed at.
    answer.images.push_back(Image(4, std::string(10, 'x')));
    const Outcome bad = Write(answer, "odd");
    EXPECT_FALSE(bad.ok);
    EXPECT_EQ(bad.frames, 3);
    EXPECT_NE(bad.note.find("image 4"), std::string::npos) << bad.note;
    EXPECT_EQ(root.CountEntries(""), 6);
}

// Several encoded pictures (a DLNA item's chapters) are saved as they came, told apart by their
// slot and named for their signature. (One keeps the plain name.)
TEST_F(ToolResultFilesWrite, EncodedBytesAreSavedAsTheyCame) {
    Answer answer = Answered(0);
    answer.encoded = true;
    const std::string jpeg("\xFF\xD8\xFF\xE0 not really a picture\0\x01", 26);
    const std::string png("\x89PNG\r\n\x1A\n rest", 13);
    answer.images.push_back(Image(0, jpeg));
    answer.images.push_back(Image(2, png));
    const Outcome o = Write(answer, "item");
    EXPECT_TRUE(o.ok) << o.note;
    ASSERT_EQ(o.outputs, (std::vector<std::string>{Path("item-0.jpg"), Path("item-2.png")}));
    EXPECT_EQ(qrbtest::ReadFileBytes(Path("item-0.jpg")), jpeg);
    EXPECT_EQ(qrbtest::ReadFileBytes(Path("item-2.png")), png);
}

}  // namespace
}  // namespace qrbthumb
