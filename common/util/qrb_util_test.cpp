// The common utilities: files, locks, shared memory, folders, settings, ids, temporary files.
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <regex>
#include <set>

namespace {

class QRBUtilTest : public ::testing::Test {
protected:
    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
};

TEST_F(QRBUtilTest, SavedFilesReadBackAndOnesLockedByAnotherProcessAreRefusedAtOnce) {
    const std::string path = root.Path() + "/file.bin";
    ASSERT_TRUE(CQRBUtil::SaveAsFile("a much longer first content", 27, path));
    ASSERT_TRUE(CQRBUtil::SaveAsFile("short", 5, path));
    std::string content;
    ASSERT_TRUE(CQRBUtil::ReadFile(path, content));
    EXPECT_EQ(content, "short");
    EXPECT_FALSE(CQRBUtil::ReadFile(root.Path() + "/missing", content));
    EXPECT_TRUE(log.Contains("FAILED TO open"));
    EXPECT_FALSE(CQRBUtil::ReadFile(root.WriteFile("empty", ""), content));
    int ready[2];  // record locks exclude other processes only: the lock is taken in a child
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        CQRBUtil::m_WriteLock(open(path.c_str(), O_RDWR), 0, SEEK_SET, 0);
        if (write(ready[1], "r", 1) != 1) _exit(1);
        sleep(5);
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_FALSE(CQRBUtil::ReadFile(path, content));
    EXPECT_TRUE(log.Contains("FAILED TO mReadLock"));
    EXPECT_FALSE(CQRBUtil::SaveAsFile("y", 1, path));
    EXPECT_TRUE(log.Contains("FAILED TO mWriteLock"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

std::string LengthWord(uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

// A shared-memory blob (a length word, then the bytes) moves into a file; one shorter than its
// word says stops the process before anything reaches the file.
TEST_F(QRBUtilTest, WriteFileMovesASharedMemoryBlobIntoAFileOnlyWhenWhole) {
    const std::string name = "/qrb-util-test-" + std::to_string(getpid());
    const std::string path = root.Path() + "/from-shm";
    const auto put = [&](const std::string& blob) {
        const int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
        ASSERT_EQ(write(fd, blob.data(), blob.size()), static_cast<ssize_t>(blob.size()));
        close(fd);
    };
    for (const std::string& blob : {LengthWord(100) + std::string(93, 'b'),
                                    std::string("\x05\x00", 2), LengthWord(0xFFFFFFFFu) + "x"}) {
        put(blob);
        EXPECT_DEATH(CQRBUtil::WriteFile(name.c_str(), path.c_str()), "Assertion .* failed");
        struct stat st;
        EXPECT_NE(stat(path.c_str(), &st), 0) << "no file, not even part of one";
        shm_unlink(name.c_str());
    }
    put(LengthWord(6) + "blob!!");
    ASSERT_TRUE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    EXPECT_EQ(qrbtest::ReadFileBytes(path), "blob!!");
    EXPECT_LT(shm_open(name.c_str(), O_RDONLY, 0), 0) << "the shared memory object is unlinked";
    EXPECT_FALSE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    EXPECT_TRUE(log.Contains("shm_open"));
}

TEST_F(QRBUtilTest, MakeDirsMakesEveryMissingFolderWithItsMode) {
    const mode_t oldMask = umask(022);
    const std::string base = root.Path() + "/a";
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b//c/", 0777, true), nullptr);
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b/c/d", 0777, false), nullptr);  // no trailing '/'
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b/c/d", 0777, false), nullptr);  // already there
    struct stat st;
    ASSERT_EQ(stat((base + "/b/c").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);  // the umask undone
    ASSERT_EQ(stat((base + "/b/c/d").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);  // the umask kept
    umask(oldMask);
    ASSERT_TRUE(CQRBUtil::SaveAsFile("x", 1, base + "/file"));
    EXPECT_STREQ(CQRBUtil::MakeDirs(base + "/file/sub", 0755, true), "mkdir");
}

TEST_F(QRBUtilTest, SettingsRoundTripThroughTheStore) {
    int value = 0;
    EXPECT_FALSE(CQRBUtil::GetVConfigValueInt("db/test/missing", &value));
    EXPECT_TRUE(log.Contains("Unexpected error code: -1"));
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("db/test/value", -42));
    ASSERT_TRUE(CQRBUtil::GetVConfigValueInt("db/test/value", &value));
    EXPECT_EQ(value, -42);
    // Keys are file names inside the store: names that could mean another folder are refused.
    EXPECT_FALSE(CQRBUtil::SetVConfigValueInt("..", 1));
    EXPECT_FALSE(CQRBUtil::SetVConfigValueInt("bad key", 1));
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("../inside", 7));
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/vconf/"), 2);
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/"), 1);
    EXPECT_FALSE(CQRBUtil::IsSupportFamilyTv());
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("system_info/524", 1));
    EXPECT_TRUE(CQRBUtil::IsSupportFamilyTv());
}

TEST_F(QRBUtilTest, UuidsAreDistinctAndWellFormed) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 20; ++i) {
        char a[37], b[37];
        EXPECT_EQ(qrb_uuid_time(a) + qrb_uuid_random(b), 0);
        const std::string g = CQRBUtil::GetUUID();
        for (const std::string& id : {std::string(a), std::string(b), g}) {
            EXPECT_TRUE(std::regex_match(id, form)) << id;
            seen.insert(id);
        }
        EXPECT_EQ(std::string(1, a[14]) + b[14] + g[14], "144") << "time, random, random";
    }
    EXPECT_EQ(seen.size(), 60u);
}

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Whatever stands at a predictable name stays as it was, the file goes to the next name with
// mode 0600, and it is gone when the object goes.
TEST_F(QRBUtilTest, TempFilePassesOverWhatStandsAtANameAndRemovesItsFile) {
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

// A temporary file gives up when every name is taken or the folder refuses; one kept or renamed
// stays, and one whose write fails is removed.
TEST_F(QRBUtilTest, TempFileGivesUpStaysWhenKeptOrRenamedAndGoesWhenAWriteFails) {
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
