#include "qrb_temp_file.h"

#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Whatever stands at a predictable name stays as it was, the file goes to the next name with
// mode 0600, and it is gone when the object goes.
TEST(TempFile, PassesOverWhatStandsAtANameAndRemovesItsFile) {
    qrbtest::ScratchRoot root;
    const std::string folder = root.Path(), first = folder + "/name1";
    const std::string victim = root.WriteFile("victim", "precious");
    const struct {
        const char* what;
        std::function<int()> plant;  // 0 on success
    } cases[] = {
        {"nothing", [] { return 0; }},
        {"a file", [&] { return root.WriteFile("name1", "someone else's").empty() ? -1 : 0; }},
        {"a link to a victim", [&] { return symlink(victim.c_str(), first.c_str()); }},
        {"a dangling link", [&] { return symlink((folder + "/nowhere").c_str(), first.c_str()); }},
        {"a fifo", [&] { return mkfifo(first.c_str(), 0600); }},
    };
    for (const auto& c : cases) {
        unlink(first.c_str());
        ASSERT_EQ(c.plant(), 0) << c.what;
        const bool planted = Exists(first);
        int counter = 0;
        std::string path;
        {
            QRBTempFile file;
            ASSERT_TRUE(file.WriteWhole(
                [&] { return folder + "/name" + std::to_string(++counter); }, "bytes", 5));
            path = file.Path();
            EXPECT_EQ(path, planted ? folder + "/name2" : first) << c.what;
            EXPECT_EQ(qrbtest::ReadFileBytes(path), "bytes") << c.what;
            struct stat st;
            ASSERT_EQ(stat(path.c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, 0600u) << c.what;
        }
        EXPECT_FALSE(Exists(path)) << c.what;
        EXPECT_EQ(Exists(first), planted) << c.what;
        EXPECT_EQ(qrbtest::ReadFileBytes(victim), "precious") << c.what;
        EXPECT_FALSE(Exists(folder + "/nowhere")) << c.what;
    }
}

TEST(TempFile, GivesUpWhenEveryNameIsTakenOrTheFolderRefuses) {
    qrbtest::ScratchRoot root;
    const std::string taken = root.WriteFile("taken", "x");
    QRBTempFile file;
    int asked = 0;
    EXPECT_FALSE(file.Create([&] { return ++asked, taken; }, 3));
    EXPECT_EQ(file.Error(), EEXIST);
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(qrbtest::ReadFileBytes(taken), "x");
    asked = 0;  // any other failure is not retried
    EXPECT_FALSE(file.Create([&] { return ++asked, root.Path() + "/missing/name"; }));
    EXPECT_EQ(file.Error(), ENOENT);
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(file.Path().empty());
}

TEST(TempFile, KeptOrRenamedFilesStayAndAFailedWriteLeavesNothing) {
    qrbtest::ScratchRoot root;
    const std::string kept = root.Path() + "/kept", final = root.WriteFile("final", "old");
    {
        QRBTempFile a, b;
        ASSERT_TRUE(a.CreateAt(kept) && a.Write("k", 1));
        a.Keep();
        ASSERT_TRUE(b.CreateAt(root.Path() + "/part") && b.Write("new", 3));
        ASSERT_TRUE(b.RenameTo(final));
    }
    EXPECT_EQ(qrbtest::ReadFileBytes(kept), "k");
    EXPECT_EQ(qrbtest::ReadFileBytes(final), "new");
    EXPECT_FALSE(Exists(root.Path() + "/part"));
    {  // writing to /dev/full stands for a full disk: the file that was made is removed
        QRBTempFile full;
        ASSERT_TRUE(full.CreateAt(root.Path() + "/full"));
        const int device = open("/dev/full", O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(dup2(device, full.Fd()), full.Fd());
        close(device);
        EXPECT_FALSE(full.Write("x", 1));
        EXPECT_EQ(full.Error(), ENOSPC);
    }
    EXPECT_FALSE(Exists(root.Path() + "/full"));
}

}  // namespace
