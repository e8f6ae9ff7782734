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

// Rasters become PNGs named for their slots (one may be empty), a size mismatch is reported;
// encoded bytes are saved as they came, named for their signature.
TEST(ToolResultFiles, EveryImageIsWrittenNamedForItsSlot) {
    qrbtest::ScratchRoot root;
    const auto write = [&](const Answer& answer, const std::string& stem) {
        Outcome outcome;
        WriteAnswerFiles(answer, ImageFormat::Png, root.Path(), stem, &outcome);
        return outcome;
    };
    Answer answer = Answered(0);
    answer.width = 6;
    answer.height = 4;
    for (int slot : {0, 1, 3}) answer.images.push_back(Image(slot, std::string(6 * 4 * 4, 'a')));
    const Outcome o = write(answer, "clip.mp4");
    EXPECT_TRUE(o.ok) << o.note;
    const std::string at = root.Path() + "/";
    ASSERT_EQ(o.outputs, (std::vector<std::string>{at + "clip.mp4-0.png", at + "clip.mp4-1.png",
                                                   at + "clip.mp4-3.png"}));
    answer.images.push_back(Image(4, std::string(10, 'x')));
    const Outcome bad = write(answer, "odd");
    EXPECT_FALSE(bad.ok);
    EXPECT_EQ(bad.frames, 3);
    EXPECT_NE(bad.note.find("image 4"), std::string::npos) << bad.note;

    Answer encoded = Answered(0);
    encoded.encoded = true;
    const std::string png("\x89PNG\r\n\x1A\n rest", 13);
    encoded.images.push_back(Image(0, "\xFF\xD8\xFF\xE0 not really a picture"));
    encoded.images.push_back(Image(2, png));
    EXPECT_EQ(write(encoded, "item").outputs,
              (std::vector<std::string>{at + "item-0.jpg", at + "item-2.png"}));
    EXPECT_EQ(qrbtest::ReadFileBytes(at + "item-2.png"), png);
    EXPECT_EQ(root.CountEntries(""), 8);
}

}  // namespace
}  // namespace qrbthumb
