#include "qrb_util.h"

#include "qrb_intrusive_ptr_base.h"
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

TEST_F(QRBUtilTest, SaveAsFileReplacesContentAndReadFileReadsItBack) {
    const std::string path = root.Path() + "/file.bin";
    ASSERT_TRUE(CQRBUtil::SaveAsFile("a much longer first content", 27, path));
    ASSERT_TRUE(CQRBUtil::SaveAsFile("short", 5, path));
    std::string content;
    ASSERT_TRUE(CQRBUtil::ReadFile(path, content));
    EXPECT_EQ(content, "short");
    EXPECT_FALSE(CQRBUtil::ReadFile(root.Path() + "/missing", content));
    EXPECT_TRUE(log.Contains("FAILED TO open"));
    EXPECT_FALSE(CQRBUtil::ReadFile(root.WriteFile("empty", ""), content));
}

TEST_F(QRBUtilTest, FileLockedByAnotherProcessIsRefusedWithoutWaiting) {
    const std::string path = root.WriteFile("locked", "x");
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
    std::string content;
    EXPECT_FALSE(CQRBUtil::ReadFile(path, content));
    EXPECT_TRUE(log.Contains("FAILED TO mReadLock"));
    EXPECT_FALSE(CQRBUtil::SaveAsFile("y", 1, path));
    EXPECT_TRUE(log.Contains("FAILED TO mWriteLock"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

// A shared-memory blob: a length word, then the bytes (which may be fewer than it says).
void WriteBlob(const std::string& name, const std::string& blob) {
    const int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    ASSERT_GE(fd, 0) << name;
    ASSERT_EQ(write(fd, blob.data(), blob.size()), static_cast<ssize_t>(blob.size()));
    close(fd);
}

std::string LengthWord(uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

TEST_F(QRBUtilTest, WriteFileMovesASharedMemoryBlobIntoAFile) {
    const std::string name = "/qrb-util-test-" + std::to_string(getpid());
    const std::string path = root.Path() + "/from-shm";
    WriteBlob(name, LengthWord(6) + "blob!!");
    ASSERT_TRUE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    EXPECT_EQ(qrbtest::ReadFileBytes(path), "blob!!");
    EXPECT_LT(shm_open(name.c_str(), O_RDONLY, 0), 0) << "the shared memory object is unlinked";
    EXPECT_FALSE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    EXPECT_TRUE(log.Contains("shm_open"));
}

// A blob shorter than its length word says stops the process, in every build type, before
// anything reaches the file.
TEST_F(QRBUtilTest, CutShortSharedMemoryBlobStopsTheProcessBeforeAnythingIsWritten) {
    const std::string name = "/qrb-util-short-" + std::to_string(getpid());
    const std::string path = root.Path() + "/from-shm";
    for (const std::string& blob : {LengthWord(100) + std::string(93, 'b'),
                                    std::string("\x05\x00", 2), LengthWord(0xFFFFFFFFu) + "x"}) {
        shm_unlink(name.c_str());
        WriteBlob(name, blob);
        EXPECT_DEATH(CQRBUtil::WriteFile(name.c_str(), path.c_str()), "Assertion .* failed");
        struct stat st;
        EXPECT_NE(stat(path.c_str(), &st), 0) << "no file, not even part of one";
        shm_unlink(name.c_str());
    }
}

struct Counted : QRB_IntrusivePtr_Base<Counted> {};

TEST(QRBAssertionTest, ArgumentErrorsStopTheProcessInEveryBuildType) {
    const std::function<void()> calls[] = {
        [] { CQRBUtil::IsFileExist(nullptr); },
        [] { CQRBUtil::WriteFile("/qrb-none", nullptr); },
        [] { CQRBUtil::AssignValueByCStyle(nullptr, "x"); },
        [] {
            Counted* object = new Counted;  // never deleted: the count never reaches zero
            intrusive_ptr_release(object);  // 0 -> -1, without the reference it gives back
            intrusive_ptr_add_ref(object);
        },
    };
    for (const auto& call : calls) EXPECT_DEATH(call(), "Assertion .* failed");
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
    // Keys map to file names inside the store: "/" is kept inside the name, and names that
    // could mean another folder are refused.
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

}  // namespace
