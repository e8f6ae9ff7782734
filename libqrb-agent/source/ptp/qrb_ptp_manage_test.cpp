// The PTP manager against the simulated camera, through the real MTP client and libgphoto2.
// Thumbnail downloads are tested through the PTP getter.
#include "qrb_ptp_manage.h"

#include "qrb_test_files.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qrbtest::PtpipResponder;

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
        qrbtest::JpegSpec spec;
        spec.thumbWidth = 32;
        spec.thumbHeight = 24;
        jpeg = qrbtest::MakeJpeg(spec);
        const uint32_t card = camera.AddStorage("Card");
        const uint32_t second = camera.AddStorage("Second");
        for (const char* path : {"DCIM/100TEST/b.jpg", "DCIM/100TEST/a.jpg"})
            camera.AddPath(card, path, jpeg);
        camera.AddPath(card, "DCIM/100TEST/c.png", "png");
        camera.AddPath(card, "DCIM/100TEST/d.bmp", "BM");
        camera.AddPath(card, "DCIM/100TEST/notes.txt", "text");
        camera.AddFolder(card, camera.Find(card, "DCIM"), "EMPTY");
        camera.AddPath(second, "MISC/y.jpg", jpeg);
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    PtpipResponder camera;
    std::string jpeg;
    CQRBPTPManage manage;
};

// Through the API: what the listing tool cannot show (the item's address and parent, a
// callback that stops the walk, a file asked for as a folder, whose message's leading "%m"
// expands to the errno text).
TEST_F(PtpManageTest, ListingsStopWhereTheCallbackOrTheCameraSays) {
    Listing all, file, stopped;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &all));
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
}

TEST_F(PtpManageTest, CameraIsReusedUntilAnotherIsAskedFor) {
    PtpipResponder other;
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
}

TEST_F(PtpManageTest, WholeFilesAreFoundByTheirPathOnAnyStorage) {
    const struct {
        std::string path;
        bool found;
    } cases[] = {
        {"DCIM/100TEST/a.jpg", true},           {"/MISC/y.jpg", true}, {"/DCIM/100TEST", false},
        {"/DCIM/../DCIM/100TEST/a.jpg", false}, {"", false},
    };
    for (const auto& c : cases) {
        char* buffer = nullptr;
        unsigned long size = 0;
        EXPECT_EQ(manage.DownloadFileToBuffer(1, 2, c.path, &buffer, &size), c.found) << c.path;
        EXPECT_EQ(std::string(buffer ? buffer : "", size), c.found ? jpeg : "") << c.path;
        std::free(buffer);
    }
}

// qrb-ptp-list, as a person runs it: each line's type, URI, handle, size and name.
std::vector<std::vector<std::string>> RunLister(const std::string& args, int* status) {
    // libgphoto2's drivers look leaked once unloaded (qrb_test_gphoto2.h), and the tool has no
    // suppressions of its own: a sanitizer build's leak check is off for it.
    const char* asan = std::getenv("ASAN_OPTIONS");
    const std::string command = "ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                                ":detect_leaks=0' '" QRB_PTP_LIST_BINARY "' " + args +
                                " 2>/dev/null";
    std::vector<std::vector<std::string>> lines;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[1024];
    while (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        std::istringstream in(std::string(buffer, std::strcspn(buffer, "\n")));
        lines.emplace_back();
        for (std::string field; std::getline(in, field, '\t');) lines.back().push_back(field);
    }
    *status = pipe ? pclose(pipe) : -1;
    return lines;
}

// Folders first, then pictures, each by name; other files are not listed, and neither is
// anything of the second storage. Each line gives the object's handle, so a folder found in
// the whole listing can be opened with --folder.
TEST_F(PtpManageTest, ListerShowsTheStorageInUseAndOpensAFolderByItsHandle) {
    int status = -1;
    std::string names, folder;
    for (const auto& line : RunLister("1 2", &status)) {
        ASSERT_EQ(line.size(), 5u);
        names += line[4] + " ";
        if (line[4] == "100TEST") folder = line[0] + " " + line[1] + " " + line[2];
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(names, "100TEST DCIM EMPTY a.jpg b.jpg c.png d.bmp ");
    ASSERT_EQ(folder.substr(0, 9), "FOLDER - ");
    std::string lines;
    for (const auto& line : RunLister("--folder " + folder.substr(9) + " 1 2", &status)) {
        lines += line[1] == "ptp://001;002;" + line[2]
                     ? line[0] + "/" + line[4] + "/" + line[3] + " "
                     : "?";
    }
    EXPECT_EQ(status, 0);
    const std::string size = std::to_string(jpeg.size());
    EXPECT_EQ(lines, "JPEG/a.jpg/" + size + " JPEG/b.jpg/" + size + " PNG/c.png/3 BMP/d.bmp/2 ");
    EXPECT_TRUE(RunLister("--folder 9999 1 2", &status).empty());
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

}  // namespace
