// The MTP client against the simulated camera: real libgphoto2 over PTP/IP on 127.0.0.1.
// HOME points at a scratch folder (libgphoto2 keeps a settings file there). SIGPIPE keeps its
// default action, so a client write to a camera that hung up would end the test process.
// Thumbnail faults, hang-ups and slow cameras are tested through the PTP getter.
#include "mtp.h"

#include "qrb_test_files.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <set>
#include <string>
#include <vector>

namespace {

class MtpClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::PrepareCameraTest(root.Path());
        mkdir(root.Resolve("/out").c_str(), 0700);
        qrbtest::JpegSpec spec;
        spec.thumbWidth = 160;
        spec.thumbHeight = 120;
        jpeg = qrbtest::MakeJpeg(spec);
        card = camera.AddStorage("Card");
        camera.AddPath(card, "DCIM/100TEST/a.jpg", jpeg);
        camera.AddPath(card, "DCIM/100TEST/b \xC3\x9C\xC3\xAF.jpg", jpeg);  // "b Üï.jpg"
        camera.AddPath(card, "DCIM/100TEST/c.png", std::string("\x89PNG\r\n\x1a\n", 8));
        camera.AddPath(card, "DCIM/100TEST/notes.txt", "text");
        camera.AddPath(camera.AddStorage("Second"), "other.jpg", jpeg);
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
        ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
    }
    void TearDown() override { mtp_deinitialize(); }
    void Open() {
        ASSERT_EQ(mtp_get_device_handle_internal(1, 2, &device), MTP_ERROR_NONE);
        folder = Find("DCIM/100TEST");
        a = Find("DCIM/100TEST/a.jpg");
        ASSERT_GT(a, 0);
    }

    std::vector<int> Handles(int type, int parent, int* ret = nullptr, int storage = 0x10001) {
        int* raw = nullptr;
        int count = 0;
        const int r = mtp_get_object_handles(device, storage, static_cast<mtp_filetype_e>(type),
                                             parent, &raw, &count);
        if (ret != nullptr) *ret = r;
        std::vector<int> out(raw, raw + count);
        std::free(raw);
        return out;
    }
    std::string Name(int handle) {
        mtp_object_info info{};
        mtp_objectinfo_get_object_info(device, handle, &info);
        return info.filename;
    }
    // The client handle of the object at a "/"-separated path of the first storage.
    int Find(const std::string& path) {
        int parent = 0;
        for (size_t start = 0; start <= path.size() && parent >= 0;) {
            const size_t end = std::min(path.find('/', start), path.size());
            const std::vector<int> all = Handles(MTP_FILETYPE_ALL, parent);
            const auto it = std::find_if(all.begin(), all.end(), [&](int h) {
                return Name(h) == path.substr(start, end - start);
            });
            parent = it == all.end() ? -1 : *it;
            start = end + 1;
        }
        return std::max(parent, 0);
    }
    std::string Dest() const { return root.Resolve("/out/thumb.jpg"); }

    qrbtest::ScratchRoot root;
    qrbtest::PtpipResponder camera;
    std::string jpeg;
    uint32_t card = 0;
    int device = 0, folder = 0, a = 0;
};

TEST_F(MtpClientTest, ListingsFilterByTypeAndLeaveOutNamesThatCannotBeAddressed) {
    for (const char* name : {"x/y.jpg", "..", "."})
        camera.AddFile(card, camera.Find(card, "DCIM/100TEST"), name, jpeg);
    Open();
    const struct {
        int type;
        std::set<std::string> names;
    } cases[] = {
        {MTP_FILETYPE_ALL, {"a.jpg", "b \xC3\x9C\xC3\xAF.jpg", "c.png", "notes.txt"}},
        {MTP_FILETYPE_JPEG, {"a.jpg", "b \xC3\x9C\xC3\xAF.jpg"}},
        {MTP_FILETYPE_OTHER, {"notes.txt"}},
        {MTP_FILETYPE_FOLDER, {}},
    };
    for (const auto& c : cases) {
        int ret = -100;
        std::set<std::string> names;
        for (int h : Handles(c.type, folder, &ret)) names.insert(Name(h));
        EXPECT_EQ(ret, MTP_ERROR_NONE) << c.type;
        EXPECT_EQ(names, c.names) << c.type;
    }
    int ret = 0;
    Handles(7, folder, &ret);
    EXPECT_EQ(ret, MTP_ERROR_INVALID_PARAMETER);
    Handles(MTP_FILETYPE_ALL, folder, &ret, 0x20001);  // a folder of another storage
    EXPECT_EQ(ret, MTP_ERROR_INVALID_OBJECT_HANDLE);
    EXPECT_EQ(mtp_get_thumbnail(device, 9999, Dest().c_str()), MTP_ERROR_INVALID_OBJECT_HANDLE);
    EXPECT_EQ(mtp_get_thumbnail(device + 100, a, Dest().c_str()), MTP_ERROR_NO_DEVICE);
}

TEST_F(MtpClientTest, ThumbnailReplacesThePathOnlyWhenComplete) {
    Open();
    // A link planted at the destination is replaced, never written through.
    const std::string victim = root.WriteFile("out/victim", "keep");
    ASSERT_EQ(symlink(victim.c_str(), Dest().c_str()), 0);
    ASSERT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    struct stat st;
    ASSERT_EQ(lstat(Dest().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    uint32_t w = 0, h = 0;  // the EXIF thumbnail, not the picture
    EXPECT_TRUE(qrbtest::JpegFrameSize(qrbtest::ReadFileBytes(Dest()), &w, &h) && w == 160 &&
                h == 120);
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "keep");
    EXPECT_EQ(root.CountEntries("/out"), 2);  // the thumbnail and the victim: no temporary left
    EXPECT_EQ(mtp_get_thumbnail(device, Find("DCIM/100TEST/c.png"), Dest().c_str()),
              MTP_ERROR_NO_THUMBNAIL);
    unsigned char* data = nullptr;
    unsigned long size = 0;
    ASSERT_EQ(mtp_get_object(device, a, &data, &size), MTP_ERROR_NONE);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), jpeg);
    std::free(data);
}

// libgphoto2 is not thread-safe: the client's one lock must make calls from several workers
// at once come out as if made one after another (run under TSan in CI too).
TEST_F(MtpClientTest, CallsFromSeveralThreadsAtOnceAllSucceed) {
    Open();
    ASSERT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    const std::string want = qrbtest::ReadFileBytes(Dest());
    std::vector<std::future<int>> workers;
    for (int t = 0; t < 3; ++t) {
        workers.push_back(std::async(std::launch::async, [&, t] {
            int failures = 0;
            const std::string dest = root.Resolve("/out/thread-" + std::to_string(t) + ".jpg");
            for (int i = 0; i < 10; ++i) {
                int ret = MTP_ERROR_GENERAL;
                failures +=
                    Handles(MTP_FILETYPE_ALL, folder, &ret).size() != 4 || ret != MTP_ERROR_NONE;
                failures += mtp_get_thumbnail(device, a, dest.c_str()) != MTP_ERROR_NONE ||
                            qrbtest::ReadFileBytes(dest) != want;
            }
            return failures;
        }));
    }
    for (auto& worker : workers) EXPECT_EQ(worker.get(), 0);
    EXPECT_EQ(root.CountEntries("/out"), 4);  // one thumbnail per thread, no temporary left
}

TEST_F(MtpClientTest, ClosedDevicesAndUninitialisedCallsAreRefused) {
    Open();
    ASSERT_EQ(mtp_close_device(device), MTP_ERROR_NONE);
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NO_DEVICE);
    EXPECT_EQ(mtp_close_device(device), MTP_ERROR_NO_DEVICE);
    int again = 0;  // opened again: the same device handle and object numbers
    ASSERT_EQ(mtp_get_device_handle_internal(1, 2, &again), MTP_ERROR_NONE);
    EXPECT_EQ(again, device);
    EXPECT_EQ(Find("DCIM/100TEST/a.jpg"), a);
    ASSERT_EQ(mtp_deinitialize(), MTP_ERROR_NONE);
    mtp_device_list* list = nullptr;
    EXPECT_EQ(mtp_get_device_list(&list), MTP_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NOT_INITIALIZED);
    ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
}

}  // namespace
