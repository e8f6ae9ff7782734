// The PTP getter through the C interface against the simulated camera over the real MTP client
// and libgphoto2. EXIF thumbnails show four quadrants (red, green / blue, white), stored upright
// or turned with their own orientation.
#include "qrb_ptp_thumbnail_getter.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_picture.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"
#include "qrb_system_path.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <string>

namespace {

using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;
using qrbtest::PtpipResponder;
using ThumbFault = PtpipResponder::ThumbFault;

// A picture whose EXIF thumbnail is w x h as stored, tagged with orientation (0: no tag).
std::string PictureWithThumbnail(int w, int h, int orientation) {
    qrbtest::JpegSpec thumb;
    thumb.width = w;
    thumb.height = h;
    thumb.pattern = qrbtest::JpegPattern::kQuadrants;
    thumb.orientation = orientation;
    qrbtest::JpegSpec picture;
    picture.width = 640;
    picture.height = 480;
    const std::string body = qrbtest::MakeJpeg(picture);
    return "\xFF\xD8" + qrbtest::ExifSegment(picture, qrbtest::MakeJpeg(thumb)) + body.substr(2);
}

class PtpGetterTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::PrepareCameraTest(root.Path());
        setenv("QRB_PTPIP_TIMEOUT_MS", "3000", 1);
        const uint32_t card = camera.AddStorage("Card");
        upright =
            camera.AddPath(card, "DCIM/100TEST/upright.jpg", PictureWithThumbnail(160, 120, 0));
        camera.AddPath(card, "DCIM/100TEST/turned.jpg", PictureWithThumbnail(120, 160, 6));
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
        ASSERT_TRUE(manage.GetDataItem(1, 2, &PtpGetterTest::Collect, this));
        ASSERT_EQ(thumbnail_init(), 0);
    }
    void TearDown() override { thumbnail_finalize(); }

    static bool Collect(_ptp_data_item& item, void* self) {
        static_cast<PtpGetterTest*>(self)->uris[item.strName] = item.strURI;
        return true;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    PtpipResponder camera;
    CQRBPTPManage manage;
    CallbackRecorder recorder;
    std::map<std::string, std::string> uris;
    uint32_t upright = 0;
};

// Every row twice at once: one getter serves four workers, each request with a temporary name
// of its own, removed when answered.
TEST_F(PtpGetterTest, ThumbnailsAreTurnedScaledAndCroppedOrFailOnce) {
    const std::string object = uris["upright.jpg"].substr(std::strlen("ptp://001;002;"));
    uris["fields"] = "ptp://;;1;;;2;" + object + ";extra";  // fields are read as strtok reads them
    const struct {
        std::string name;
        int w, h;
        qrb_extend_dev_type dev;
        int outW, outH;
        std::string quadrants;  // clockwise from the top left
    } cases[] = {
        {"upright.jpg", 320, 180, DEV_TYPE_PTP_EXT, 320, 180, "RGWB"},
        {"fields", 0, 0, DEV_TYPE_PTP, 160, 120, "RGWB"},
        // Orientation 6, decoded at 160 x 213, turned: 159 x 120 (integer division), not cropped.
        {"turned.jpg", 160, 120, DEV_TYPE_PTP, 159, 120, "BRGW"},
    };
    for (int i = 0; i < 6; ++i) {
        const auto& c = cases[i % 3];
        thumbnail_request_async(uris[c.name].c_str(), MEDIA_TYPE_PICTURE, c.dev, 0, c.w, c.h, 0, 1,
                                &CallbackRecorder::Callback, recorder.Tag(i));
    }
    ASSERT_TRUE(recorder.WaitForCount(6, 60s));
    for (int i = 0; i < 6; ++i) {
        const auto& c = cases[i % 3];
        const auto r = recorder.One(i);
        ASSERT_EQ(std::make_pair(r.width, r.height), std::make_pair(c.outW, c.outH)) << c.name;
        EXPECT_EQ(qrbtest::Quadrants(qrbtest::RasterOf(r.buffers[0], c.outW, c.outH)), c.quadrants)
            << c.name << " " << c.w << "x" << c.h;
    }
    EXPECT_FALSE(log.Contains("Failed to create"));
    EXPECT_EQ(root.CountEntries(QRB_DATA_DIR), 0);

    // Every failure (the camera hanging up, stalling or lying, a bad URI) ends in one callback,
    // leaves nothing behind, and the next request is served.
    const std::string good = uris["upright.jpg"];
    const struct {
        const char* what;
        std::function<void()> arrange;
        std::string uri;
    } faults[] = {
        {"hang-up", [&] { camera.HangUpDuringNextTransfers(1); }, good},
        {"unknown handle", [] {}, "ptp://001;002;65537"},
        {"not ptp", [] {}, "file:///tmp/a.jpg"},
        {"broken JPEG", [&] { camera.SetThumbFault(upright, ThumbFault::kBrokenJpeg); }, good},
        {"slow", [&] { camera.SetResponseDelay(10min); }, good},
        {"length over", [&] { camera.SetThumbFault(upright, ThumbFault::kLengthOver); }, good},
        {"length under", [&] { camera.SetThumbFault(upright, ThumbFault::kLengthUnder); }, good},
    };
    for (const auto& c : faults) {
        c.arrange();
        const size_t before = recorder.Count();
        EXPECT_EQ(recorder.Request(c.uri, MEDIA_TYPE_PICTURE, DEV_TYPE_PTP, 80, 60).status, -1)
            << c.what;
        EXPECT_EQ(root.CountEntries(QRB_DATA_DIR), 0) << c.what;
        camera.SetThumbFault(upright, ThumbFault::kNone);
        camera.SetResponseDelay(0ms);
        EXPECT_EQ(recorder.Request(good, MEDIA_TYPE_PICTURE, DEV_TYPE_PTP, 80, 60).status, 0)
            << c.what;
        EXPECT_EQ(recorder.Count(), before + 2) << c.what;
    }
    EXPECT_TRUE(log.Contains("object_handle : 65537"));
    EXPECT_TRUE(log.Contains("Please check params, strURI=file:///tmp/a.jpg"));
}

}  // namespace
