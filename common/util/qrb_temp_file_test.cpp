#include "qrb_temp_file.h"

#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// What stands at the first name the namer gives before the file is made.
enum class Planted { Nothing, File, LinkToVictim, DanglingLink, Fifo };

struct Case {
    const char* name;
    Planted planted;
};

class TempFileTest : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        folder = root.Path();
        victim = folder + "/victim";
        std::ofstream(victim) << "precious";
    }
    // Names first, second, ... in the scratch folder.
    std::function<std::string()> Namer() {
        return [this] { return folder + "/name" + std::to_string(++counter); };
    }
    void Plant(Planted what, const std::string& path) {
        switch (what) {
            case Planted::Nothing:
                break;
            case Planted::File:
                std::ofstream(path) << "someone else's";
                break;
            case Planted::LinkToVictim:
                ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
                break;
            case Planted::DanglingLink:
                ASSERT_EQ(symlink((folder + "/nowhere").c_str(), path.c_str()), 0);
                break;
            case Planted::Fifo:
                ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
                break;
        }
    }

    qrbtest::ScratchRoot root;
    std::string folder, victim;
    int counter = 0;
};

// Whatever stands at a predictable name stays as it was, the file goes to the next name with
// mode 0600, and it is gone when the object goes.
TEST_P(TempFileTest, PassesOverWhatStandsAtANameAndRemovesItsFile) {
    const std::string first = folder + "/name1";
    Plant(GetParam().planted, first);
    std::string path;
    {
        QRBTempFile file;
        ASSERT_TRUE(file.WriteWhole(Namer(), "bytes", 5));
        path = file.Path();
        EXPECT_EQ(path, GetParam().planted == Planted::Nothing ? first : folder + "/name2");
        EXPECT_EQ(qrbtest::ReadFileBytes(path), "bytes");
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    }
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "precious");
    EXPECT_EQ(Exists(first), GetParam().planted != Planted::Nothing);
    EXPECT_FALSE(Exists(folder + "/nowhere"));
}

INSTANTIATE_TEST_SUITE_P(
    Planted, TempFileTest,
    ::testing::Values(Case{"Nothing", Planted::Nothing}, Case{"File", Planted::File},
                      Case{"LinkToVictim", Planted::LinkToVictim},
                      Case{"DanglingLink", Planted::DanglingLink}, Case{"Fifo", Planted::Fifo}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(TempFile, GivesUpWhenEveryNameIsTakenOrTheFolderRefuses) {
    qrbtest::ScratchRoot root;
    const std::string taken = root.Path() + "/taken";
    std::ofstream(taken) << "x";
    QRBTempFile file;
    int asked = 0;
    EXPECT_FALSE(file.Create(
        [&] {
            ++asked;
            return taken;
        },
        3));
    EXPECT_EQ(file.Error(), EEXIST);
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(qrbtest::ReadFileBytes(taken), "x");

    // Any other failure is not retried.
    asked = 0;
    EXPECT_FALSE(file.Create([&] {
        ++asked;
        return root.Path() + "/missing/name";
    }));
    EXPECT_EQ(file.Error(), ENOENT);
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(file.Path().empty());
}

TEST(TempFile, KeptOrRenamedFilesStayAndAFailedWriteLeavesNothing) {
    qrbtest::ScratchRoot root;
    const std::string kept = root.Path() + "/kept", final = root.Path() + "/final";
    std::ofstream(final) << "old";
    {
        QRBTempFile a, b;
        ASSERT_TRUE(a.CreateAt(kept));
        ASSERT_TRUE(a.Write("k", 1));
        a.Keep();
        ASSERT_TRUE(b.CreateAt(root.Path() + "/part"));
        ASSERT_TRUE(b.Write("new", 3));
        ASSERT_TRUE(b.RenameTo(final));
    }
    EXPECT_EQ(qrbtest::ReadFileBytes(kept), "k");
    EXPECT_EQ(qrbtest::ReadFileBytes(final), "new");
    EXPECT_FALSE(Exists(root.Path() + "/part"));

    // Writing to /dev/full stands for a full disk: the file that was made is removed.
    {
        QRBTempFile full;
        ASSERT_TRUE(full.CreateAt(root.Path() + "/full"));
        const int device = open("/dev/full", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(device, 0);
        ASSERT_EQ(dup2(device, full.Fd()), full.Fd());
        close(device);
        EXPECT_FALSE(full.Write("x", 1));
        EXPECT_EQ(full.Error(), ENOSPC);
    }
    EXPECT_FALSE(Exists(root.Path() + "/full"));
}

}  // namespace
