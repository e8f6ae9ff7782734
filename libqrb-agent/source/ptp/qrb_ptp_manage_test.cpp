// The PTP manager against the simulated camera, through the real MTP client and libgphoto2.
#include "qrb_ptp_manage.h"

#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Listing {
    std::vector<_ptp_data_item> items;
    int stopAfter = -1;  // the callback answers false on this item (0-based)

    static bool Collect(_ptp_data_item& item, void* self) {
        auto* listing = static_cast<Listing*>(self);
        listing->items.push_back(item);
        return static_cast<int>(listing->items.size()) - 1 != listing->stopAfter;
    }
    const _ptp_data_item& Named(const std::string& name) const {
        for (const auto& item : items) {
            if (item.strName == name) return item;
        }
        throw std::runtime_error("not listed: " + name);
    }
};

class PtpManageTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::PrepareCameraTest(root.Path());
        jpeg = qrbtest::MakeJpeg(qrbtest::JpegSpec());
        const uint32_t card = camera.AddStorage("Card");
        for (const char* path : {"DCIM/100TEST/b.jpg", "DCIM/100TEST/a.jpg"})
            camera.AddPath(card, path, jpeg);
        camera.AddPath(card, "DCIM/100TEST/c.png", "png");
        camera.AddPath(card, "DCIM/100TEST/d.bmp", "BM");
        camera.AddPath(card, "DCIM/100TEST/notes.txt", "text");
        for (const char* name : {"x/y.jpg", "..", "."})  // names that cannot be addressed
            camera.AddFile(card, camera.Find(card, "DCIM/100TEST"), name, jpeg);
        camera.AddFolder(card, camera.Find(card, "DCIM"), "EMPTY");
        camera.AddPath(camera.AddStorage("Second"), "MISC/y.jpg", jpeg);
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    qrbtest::PtpipResponder camera;
    std::string jpeg;
    CQRBPTPManage manage;
};

// Folders first, then pictures, each by name; other files, names that cannot be addressed and
// the second storage are not listed. A file asked for as a folder fails with a message whose
// leading "%m" expands to the errno text; a callback answering false stops the walk.
TEST_F(PtpManageTest, ListingsStopWhereTheCallbackOrTheCameraSaysAndTheListerShowsThem) {
    Listing all, file, stopped;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &all));
    std::string names;
    for (const auto& item : all.items) names += item.strName + " ";
    EXPECT_EQ(names, "100TEST DCIM EMPTY a.jpg b.jpg c.png d.bmp ");
    const _ptp_data_item& a = all.Named("a.jpg");
    EXPECT_EQ(a.strAddress, "ptp://1/" + std::to_string(a.nObjectHandle));
    EXPECT_EQ(a.nParentHandle, all.Named("100TEST").nObjectHandle);
    EXPECT_FALSE(manage.GetDataItem(1, 2, a.nObjectHandle, &Listing::Collect, &file));
    EXPECT_TRUE(file.items.empty());
    EXPECT_TRUE(log.Contains("tp_get_object_handles failed : -5"));
    stopped.stopAfter = 1;
    EXPECT_FALSE(manage.GetDataItem(1, 2, &Listing::Collect, &stopped));
    EXPECT_EQ(stopped.items.size(), 2u);
    EXPECT_EQ(log.Count("Error in CallBack"), 1);
    // qrb-ptp-list as a person runs it: a folder by its handle gives a line per picture; a folder
    // that is not there, exit status 1.
    const auto line = [&](const char* type, const std::string& name, size_t size) {
        const std::string handle = std::to_string(all.Named(name).nObjectHandle);
        return std::string(type) + "\tptp://001;002;" + handle + "\t" + handle + "\t" +
               std::to_string(size) + "\t" + name + "\n";
    };
    const std::pair<std::string, std::string> runs[] = {
        {std::to_string(all.Named("100TEST").nObjectHandle),
         line("JPEG", "a.jpg", jpeg.size()) + line("JPEG", "b.jpg", jpeg.size()) +
             line("PNG", "c.png", 3) + line("BMP", "d.bmp", 2)},
        {"9999", ""}};
    for (const auto& [folder, want] : runs) {
        // libgphoto2's drivers look leaked once unloaded (qrb_test_gphoto2.h): no leak check here.
        const char* asan = std::getenv("ASAN_OPTIONS");
        const std::string command = "ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                                    ":detect_leaks=0' '" QRB_PTP_LIST_BINARY "' --folder " +
                                    folder + " 1 2 2>/dev/null";
        FILE* pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string out;
        char buffer[1024];
        while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) out += buffer;
        EXPECT_EQ(WEXITSTATUS(pclose(pipe)), want.empty() ? 1 : 0) << folder;
        EXPECT_EQ(out, want);
    }
}

// The camera is reused until another is asked for; files are found by path on any storage.
TEST_F(PtpManageTest, CameraIsReusedUntilAnotherIsAskedForAndFilesAreFoundByTheirPath) {
    qrbtest::PtpipResponder other;
    other.AddPath(other.AddStorage("Other"), "o.jpg", jpeg);
    ASSERT_TRUE(other.Start());
    setenv("QRB_PTPIP_CAMERA", (camera.Address() + "," + other.Address()).c_str(), 1);
    Listing listing;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    EXPECT_EQ(log.Count("Camera found, return directly"), 1);
    EXPECT_EQ(camera.SessionsOpened(), 1);
    ASSERT_TRUE(manage.GetDataItem(1, 3, &Listing::Collect, &listing));
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    EXPECT_EQ(camera.SessionsOpened(), 2) << "the first camera was closed for the second";
    log.Clear();
    EXPECT_FALSE(manage.GetDataItem(-1, 2, &Listing::Collect, &listing));
    EXPECT_TRUE(log.Contains("nBusID or nDeviceID param error"));
    EXPECT_FALSE(manage.DownloadExif(1, 9, "5", root.Path() + "/t.jpg"));
    EXPECT_TRUE(log.Contains("Can not find camera"));
    const std::pair<std::string, bool> cases[] = {
        // path, found
        {"DCIM/100TEST/a.jpg", true},           {"/MISC/y.jpg", true}, {"/DCIM/100TEST", false},
        {"/DCIM/../DCIM/100TEST/a.jpg", false}, {"", false},
    };
    for (const auto& c : cases) {
        char* buffer = nullptr;
        unsigned long size = 0;
        EXPECT_EQ(manage.DownloadFileToBuffer(1, 2, c.first, &buffer, &size), c.second) << c.first;
        EXPECT_EQ(std::string(buffer ? buffer : "", size), c.second ? jpeg : "") << c.first;
        std::free(buffer);
    }
}

}  // namespace
