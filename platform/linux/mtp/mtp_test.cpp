// The MTP client against the simulated camera: real libgphoto2 over PTP/IP on 127.0.0.1.
// Listings are tested through the PTP manager; calls from several workers at once, thumbnail
// faults, hang-ups and slow cameras through the PTP getter.
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
#include <string>

namespace {

// The thumbnail replaces the path only when complete: a link planted there is replaced, never
// written through, and no temporary is left.
TEST(MtpClientTest, ThumbnailReplacesThePathOnlyWhenComplete) {
    qrbtest::ScratchRoot root;
    qrbtest::PrepareCameraTest(root.Path());
    qrbtest::JpegSpec spec;
    spec.thumbWidth = 160;
    spec.thumbHeight = 120;
    qrbtest::PtpipResponder camera;
    const uint32_t card = camera.AddStorage("Card");
    camera.AddPath(card, "DCIM/100TEST/a.jpg", qrbtest::MakeJpeg(spec));
    camera.AddPath(card, "DCIM/100TEST/c.png", std::string("\x89PNG\r\n\x1a\n", 8));
    ASSERT_TRUE(camera.Start());
    setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
    int device = 0;
    ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
    ASSERT_EQ(mtp_get_device_handle_internal(1, 2, &device), MTP_ERROR_NONE);
    // The client handle of the object named name in folder parent (0: the storage's root).
    const auto child = [&](int parent, const std::string& name) {
        int* handles = nullptr;
        int count = 0, found = 0;
        mtp_get_object_handles(device, 0x10001, MTP_FILETYPE_ALL, parent, &handles, &count);
        for (int i = 0; i < count && found == 0; ++i) {
            mtp_object_info info{};
            mtp_objectinfo_get_object_info(device, handles[i], &info);
            if (name == info.filename) found = handles[i];
        }
        std::free(handles);
        return found;
    };
    const int folder = child(child(0, "DCIM"), "100TEST");
    const std::string victim = root.WriteFile("out/victim", "keep");
    const std::string dest = root.Resolve("/out/thumb.jpg");
    ASSERT_EQ(symlink(victim.c_str(), dest.c_str()), 0);
    ASSERT_EQ(mtp_get_thumbnail(device, child(folder, "a.jpg"), dest.c_str()), MTP_ERROR_NONE);
    struct stat st;
    ASSERT_EQ(lstat(dest.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    uint32_t w = 0, h = 0;  // the EXIF thumbnail, not the picture
    EXPECT_TRUE(qrbtest::JpegFrameSize(qrbtest::ReadFileBytes(dest), &w, &h) && w == 160 &&
                h == 120);
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "keep");
    EXPECT_EQ(root.CountEntries("/out"), 2);  // the thumbnail and the victim
    EXPECT_EQ(mtp_get_thumbnail(device, child(folder, "c.png"), dest.c_str()),
              MTP_ERROR_NO_THUMBNAIL);
    EXPECT_EQ(mtp_get_thumbnail(device, 9999, dest.c_str()), MTP_ERROR_INVALID_OBJECT_HANDLE);
    mtp_deinitialize();
}

}  // namespace
