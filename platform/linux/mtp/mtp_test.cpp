// The MTP client against the simulated camera: real libgphoto2 over PTP/IP on 127.0.0.1.
// Listings are tested through the PTP manager; thumbnail faults, hang-ups and slow cameras
// through the PTP getter.
#include "mtp.h"

#include "qrb_test_files.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
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
        const uint32_t card = camera.AddStorage("Card");
        camera.AddPath(card, "DCIM/100TEST/a.jpg", jpeg);
        camera.AddPath(card, "DCIM/100TEST/c.png", std::string("\x89PNG\r\n\x1a\n", 8));
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
        ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
        ASSERT_EQ(mtp_get_device_handle_internal(1, 2, &device), MTP_ERROR_NONE);
        folder = Child(Child(0, "DCIM"), "100TEST");
        a = Child(folder, "a.jpg");
        ASSERT_GT(a, 0);
    }
    void TearDown() override { mtp_deinitialize(); }

    std::vector<int> Handles(int parent, int* ret = nullptr) {
        int* raw = nullptr;
        int count = 0;
        const int r =
            mtp_get_object_handles(device, 0x10001, MTP_FILETYPE_ALL, parent, &raw, &count);
        if (ret != nullptr) *ret = r;
        std::vector<int> out(raw, raw + count);
        std::free(raw);
        return out;
    }
    // The client handle of the object named name in folder parent (0: the storage's root).
    int Child(int parent, const std::string& name) {
        for (int handle : Handles(parent)) {
            mtp_object_info info{};
            mtp_objectinfo_get_object_info(device, handle, &info);
            if (name == info.filename) return handle;
        }
        return 0;
    }
    std::string Dest() const { return root.Resolve("/out/thumb.jpg"); }

    qrbtest::ScratchRoot root;
    qrbtest::PtpipResponder camera;
    std::string jpeg;
    int device = 0, folder = 0, a = 0;
};

TEST_F(MtpClientTest, ThumbnailReplacesThePathOnlyWhenComplete) {
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
    EXPECT_EQ(mtp_get_thumbnail(device, Child(folder, "c.png"), Dest().c_str()),
              MTP_ERROR_NO_THUMBNAIL);
    EXPECT_EQ(mtp_get_thumbnail(device, 9999, Dest().c_str()), MTP_ERROR_INVALID_OBJECT_HANDLE);
}

// libgphoto2 is not thread-safe: the client's one lock must make calls from several workers
// at once come out as if made one after another (run under TSan in CI too).
TEST_F(MtpClientTest, CallsFromSeveralThreadsAtOnceAllSucceed) {
    ASSERT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    const std::string want = qrbtest::ReadFileBytes(Dest());
    std::vector<std::future<int>> workers;
    for (int t = 0; t < 3; ++t) {
        workers.push_back(std::async(std::launch::async, [&, t] {
            int failures = 0;
            const std::string dest = root.Resolve("/out/thread-" + std::to_string(t) + ".jpg");
            for (int i = 0; i < 10; ++i) {
                int ret = MTP_ERROR_GENERAL;
                failures += Handles(folder, &ret).size() != 2 || ret != MTP_ERROR_NONE;
                failures += mtp_get_thumbnail(device, a, dest.c_str()) != MTP_ERROR_NONE ||
                            qrbtest::ReadFileBytes(dest) != want;
            }
            return failures;
        }));
    }
    for (auto& worker : workers) EXPECT_EQ(worker.get(), 0);
    EXPECT_EQ(root.CountEntries("/out"), 4);  // one thumbnail per thread, no temporary left
}

}  // namespace
