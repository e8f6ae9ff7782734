#include "qrb_util.h"

#include "qrb_intrusive_ptr_base.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
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
    std::string path = root.Path() + "/file.bin";
    ASSERT_TRUE(CQRBUtil::SaveAsFile("a much longer first content", 27, path));
    ASSERT_TRUE(CQRBUtil::SaveAsFile("short", 5, path));
    std::string content;
    ASSERT_TRUE(CQRBUtil::ReadFile(path, content));
    EXPECT_EQ(content, "short");
    EXPECT_TRUE(log.Contains("UUID file size is 5"));
}

TEST_F(QRBUtilTest, ReadFileOfMissingOrEmptyFileFails) {
    std::string content;
    EXPECT_FALSE(CQRBUtil::ReadFile(root.Path() + "/missing", content));
    EXPECT_TRUE(log.Contains("FAILED TO open"));
    std::string empty = root.WriteFile("empty", "");
    EXPECT_FALSE(CQRBUtil::ReadFile(empty, content));
}

TEST_F(QRBUtilTest, WriteLockedFileIsRefusedWithoutWaiting) {
    std::string path = root.WriteFile("locked", "x");
    // Record locks exclude other processes only, so the lock is taken in a child.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    if (child == 0) {
        int fd = open(path.c_str(), O_RDWR);
        CQRBUtil::m_WriteLock(fd, 0, SEEK_SET, 0);
        char c = 'r';
        if (write(ready[1], &c, 1) != 1) _exit(1);
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

TEST_F(QRBUtilTest, WriteFileMovesASharedMemoryBlobIntoAFile) {
    std::string name = "/qrb-util-test-" + std::to_string(getpid());
    int fd = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    uint32_t length = 6;
    ASSERT_EQ(write(fd, &length, 4), 4);
    ASSERT_EQ(write(fd, "blob!!", 6), 6);
    close(fd);
    std::string path = root.Path() + "/from-shm";
    ASSERT_TRUE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    std::string content;
    ASSERT_TRUE(CQRBUtil::ReadFile(path, content));
    EXPECT_EQ(content, "blob!!");
    EXPECT_LT(shm_open(name.c_str(), O_RDONLY, 0), 0) << "the shared memory object is unlinked";
    EXPECT_FALSE(CQRBUtil::WriteFile(name.c_str(), path.c_str()));
    EXPECT_TRUE(log.Contains("shm_open"));
}

// Writes a blob into a new shared-memory object: the length word, then the bytes that follow
// it (which may be fewer than the word says).
void WriteBlob(const std::string& name, const std::string& lengthWord, const std::string& bytes) {
    int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    ASSERT_GE(fd, 0) << name;
    const std::string blob = lengthWord + bytes;
    ASSERT_EQ(write(fd, blob.data(), blob.size()), static_cast<ssize_t>(blob.size()));
    close(fd);
}

std::string LengthWord(uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

// A blob shorter than its length word says is a broken contract with its writer: the process
// stops, in every build type, before anything reaches the file.
TEST_F(QRBUtilTest, CutShortSharedMemoryBlobStopsTheProcessBeforeAnythingIsWritten) {
    const struct {
        const char* what;
        std::string lengthWord;
        std::string bytes;
    } cases[] = {
        {"seven bytes short", LengthWord(100), std::string(93, 'b')},
        {"length word cut", std::string("\x05\x00", 2), ""},
        {"length far beyond the object", LengthWord(0xFFFFFFFFu), "only these"},
    };
    const std::string name = "/qrb-util-short-" + std::to_string(getpid());
    const std::string path = root.Path() + "/from-shm";
    for (const auto& c : cases) {
        shm_unlink(name.c_str());
        WriteBlob(name, c.lengthWord, c.bytes);
        EXPECT_DEATH(CQRBUtil::WriteFile(name.c_str(), path.c_str()), "Assertion .* failed")
            << c.what;
        struct stat st;
        EXPECT_NE(stat(path.c_str(), &st), 0) << c.what << ": no file, not even part of one";
        shm_unlink(name.c_str());
    }
}

struct Counted : QRB_IntrusivePtr_Base<Counted> {};

// The argument errors the utilities and the reference count name are assertions that stop the
// process whatever the build type.
TEST(QRBAssertionTest, ArgumentErrorsStopTheProcessInEveryBuildType) {
    const struct {
        const char* what;
        std::function<void()> call;
    } cases[] = {
        {"IsFileExist(null)", [] { CQRBUtil::IsFileExist(nullptr); }},
        {"RemoveFile(null)", [] { CQRBUtil::RemoveFile(nullptr); }},
        {"WriteFile(null, path)", [] { CQRBUtil::WriteFile(nullptr, "/tmp/x"); }},
        {"WriteFile(name, null)", [] { CQRBUtil::WriteFile("/qrb-none", nullptr); }},
        {"AssignValue(null)", [] { CQRBUtil::AssignValue(nullptr, "x"); }},
        {"AssignValueByCStyle(null)", [] { CQRBUtil::AssignValueByCStyle(nullptr, "x"); }},
        {"release of null", [] { intrusive_ptr_release(static_cast<Counted*>(nullptr)); }},
        {"release past zero",
         [] {
             Counted* object = new Counted;  // never deleted: the count never reaches zero
             intrusive_ptr_release(object);  // 0 -> -1, without the reference it gives back
             intrusive_ptr_add_ref(object);
         }},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(c.call(), "Assertion .* failed") << c.what;
    }
}

TEST_F(QRBUtilTest, PathHelpers) {
    EXPECT_EQ(CQRBUtil::GetFileExtension("/a/b.c/song.mp3"), "mp3");
    EXPECT_EQ(CQRBUtil::GetFileExtension("/a/noext"), "");
    EXPECT_EQ(CQRBUtil::GetFileName("/a/b/song.mp3"), "song.mp3");
    EXPECT_EQ(CQRBUtil::GetFileName("plain"), "plain");
    EXPECT_EQ(CQRBUtil::GetFileNameWithoutExt("/a/b/song.tar.gz"), "song.tar");
    EXPECT_EQ(CQRBUtil::GetFileName(nullptr), "");
    EXPECT_TRUE(log.Contains("szPath == NULL"));
    EXPECT_EQ(CQRBUtil::ToLower("Feature.UVU"), "feature.uvu");
    EXPECT_EQ(CQRBUtil::ToLower("\xC3\x89t\xC3\xA9 SCSA"), "\xC3\x89t\xC3\xA9 scsa")
        << "only ASCII";
}

TEST_F(QRBUtilTest, MakeDirsMakesEveryMissingFolderWithItsMode) {
    const mode_t oldMask = umask(022);
    const std::string base = root.Path() + "/a";
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b//c/", 0777, true), nullptr);
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b/c/d", 0777, false), nullptr);  // no trailing '/'
    EXPECT_EQ(CQRBUtil::MakeDirs(base + "/b/c/d", 0777, false), nullptr);  // already there
    struct stat st;
    ASSERT_EQ(stat((base + "/b/c").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0777u);  // the umask undone
    ASSERT_EQ(stat((base + "/b/c/d").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);  // the umask kept
    umask(oldMask);

    // A file where a folder should be: mkdir fails and says so.
    ASSERT_TRUE(CQRBUtil::SaveAsFile("x", 1, base + "/file"));
    EXPECT_STREQ(CQRBUtil::MakeDirs(base + "/file/sub", 0755, true), "mkdir");
}

TEST_F(QRBUtilTest, AssignValueReplacesTheString) {
    char* text = nullptr;
    CQRBUtil::AssignValue(&text, "first");
    CQRBUtil::AssignValue(&text, "second");
    EXPECT_STREQ(text, "second");
    delete[] text;
    char* ctext = nullptr;
    CQRBUtil::AssignValueByCStyle(&ctext, "one");
    CQRBUtil::AssignValueByCStyle(&ctext, "two");
    EXPECT_STREQ(ctext, "two");
    free(ctext);
}

TEST_F(QRBUtilTest, SplitToDoubleStopsAtCapacity) {
    char text[] = "1.5, 2;-3 x 4e1";
    double values[3] = {0, 0, 0};
    int count = 3;
    ASSERT_TRUE(CQRBUtil::SplitToDouble(text, values, &count));
    EXPECT_EQ(count, 3);
    EXPECT_DOUBLE_EQ(values[0], 1.5);
    EXPECT_DOUBLE_EQ(values[1], 2);
    EXPECT_DOUBLE_EQ(values[2], -3);
}

TEST_F(QRBUtilTest, SettingsRoundTripThroughTheStore) {
    int value = 0;
    EXPECT_FALSE(CQRBUtil::GetVConfigValueInt("db/test/missing", &value));
    EXPECT_TRUE(log.Contains("Unexpected error code: -1"));
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("db/test/value", -42));
    ASSERT_TRUE(CQRBUtil::GetVConfigValueInt("db/test/value", &value));
    EXPECT_EQ(value, -42);
    EXPECT_FALSE(CQRBUtil::GetVConfigValueInt(nullptr, &value));
    EXPECT_TRUE(log.Contains("Arguments key or value is NULL"));
    // Keys map to file names inside the store: "/" is kept inside the name, and names that
    // could mean another folder are refused.
    EXPECT_FALSE(CQRBUtil::SetVConfigValueInt("..", 1));
    EXPECT_FALSE(CQRBUtil::SetVConfigValueInt("bad key", 1));
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("../inside", 7));
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/data/vconf/"), 2);
    EXPECT_EQ(root.CountEntries("/opt/usr/apps/orvale/"), 1);
}

TEST_F(QRBUtilTest, FamilyTvFlagComesFromSystemInformation) {
    EXPECT_FALSE(CQRBUtil::IsSupportFamilyTv());
    EXPECT_TRUE(log.Contains("Get familytv Support failed"));
    ASSERT_TRUE(CQRBUtil::SetVConfigValueInt("system_info/524", 1));
    EXPECT_TRUE(CQRBUtil::IsSupportFamilyTv());
    EXPECT_TRUE(log.Contains("FamilyTv Support : [1]"));
}

TEST_F(QRBUtilTest, CurrentSystemTimeIsWallClockMilliseconds) {
    long long before = static_cast<long long>(time(nullptr)) * 1000;
    long long now = CQRBUtil::GetCurrentSystemTime();
    EXPECT_GE(now, before - 1000);
    EXPECT_LE(now, before + 2000);
}

TEST_F(QRBUtilTest, UuidsAreDistinctAndWellFormed) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 50; ++i) {
        char a[37], b[37];
        EXPECT_EQ(qrb_uuid_time(a), 0);
        EXPECT_EQ(qrb_uuid_random(b), 0);
        EXPECT_TRUE(std::regex_match(a, form)) << a;
        EXPECT_TRUE(std::regex_match(b, form)) << b;
        EXPECT_EQ(b[14], '4') << "random UUIDs are version 4";
        EXPECT_EQ(a[14], '1') << "time UUIDs are version 1";
        seen.insert(a);
        seen.insert(b);
        std::string g = CQRBUtil::GetUUID();
        EXPECT_TRUE(std::regex_match(g, form)) << g;
        seen.insert(g);
    }
    EXPECT_EQ(seen.size(), 150u);
    EXPECT_TRUE(log.Contains("generate uuid="));
}

}  // namespace
