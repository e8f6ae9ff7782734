#include "progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

namespace qrbthumb {
namespace {

struct CloseFile {
    void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};

std::string Contents(std::FILE* f) {
    std::fflush(f);
    std::rewind(f);
    std::string text;
    char buffer[256];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0) text.append(buffer, n);
    return text;
}

TEST(ToolProgress, DisabledWritesNothing) {
    std::unique_ptr<std::FILE, CloseFile> f(std::tmpfile());
    ASSERT_TRUE(f);
    {
        ProgressLine line(f.get(), false, 3);
        line.Show(1, 0);
        line.Show(3, 1);
    }
    EXPECT_EQ(Contents(f.get()), "");
}

TEST(ToolProgress, RedrawsInPlaceAndErasesItselfAtTheEnd) {
    std::unique_ptr<std::FILE, CloseFile> f(std::tmpfile());
    ASSERT_TRUE(f);
    {
        ProgressLine line(f.get(), true, 3);
        line.Show(0, 0);
        line.Show(2, 1);
    }
    EXPECT_EQ(Contents(f.get()),
              "\rqrb-thumb: 0/3 answered, 0 failed\033[K"
              "\rqrb-thumb: 2/3 answered, 1 failed\033[K"
              "\r\033[K");
}

TEST(ToolProgress, NothingToEraseWhenNothingWasShown) {
    std::unique_ptr<std::FILE, CloseFile> f(std::tmpfile());
    ASSERT_TRUE(f);
    {
        ProgressLine line(f.get(), true, 0);
        line.Finish();
    }
    EXPECT_EQ(Contents(f.get()), "");
}

}  // namespace
}  // namespace qrbthumb
