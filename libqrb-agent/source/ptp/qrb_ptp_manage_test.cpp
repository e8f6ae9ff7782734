// The PTP manager against the simulated camera, through the real MTP client and libgphoto2.
#include "qrb_ptp_manage.h"

#include "mtp.h"
#include "qrb_test_files.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_log.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
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
    const _ptp_data_item* Named(const std::string& name) const {
        for (const auto& item : items) {
            if (item.strName == name) return &item;
        }
        return nullptr;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& item : items) names.push_back(item.strName);
        return names;
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
        camera.AddPath(second, "z.jpg", jpeg);
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

TEST_F(PtpManageTest, WholeListingWalksTheStorageInUseOnly) {
    Listing listing;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    // Folders first, then pictures, each by name; other files are not listed, and neither is
    // anything of the second storage ("MISC", "y.jpg", "z.jpg").
    EXPECT_EQ(listing.Names(), (std::vector<std::string>{"100TEST", "DCIM", "EMPTY", "a.jpg",
                                                         "b.jpg", "c.png", "d.bmp"}));
    const _ptp_data_item* folder = listing.Named("100TEST");
    const _ptp_data_item* a = listing.Named("a.jpg");
    ASSERT_TRUE(folder && a);
    EXPECT_EQ(folder->strType, "FOLDER");
    EXPECT_EQ(folder->strURI, "");
    EXPECT_EQ(a->strURI, "ptp://001;002;" + std::to_string(a->nObjectHandle));
    EXPECT_EQ(a->strAddress, "ptp://1/" + std::to_string(a->nObjectHandle));
    EXPECT_EQ(a->nParentHandle, folder->nObjectHandle);
    EXPECT_EQ(a->ullSize, jpeg.size());
    for (const auto& item : listing.items) EXPECT_EQ(item.nStorageID, 0x10001) << item.strName;
    EXPECT_EQ(listing.Named("c.png")->strType, "PNG");
    EXPECT_EQ(listing.Named("d.bmp")->strType, "BMP");
    EXPECT_TRUE(log.Contains("[ptp performance]Camera : 1, Storage : 65537"));
    EXPECT_TRUE(log.Contains("[ptp performance]after insert into data item"));
    EXPECT_TRUE(log.Contains("after lock"));
}

// The client's handle of a folder at the root of the camera's second storage, asked of the
// MTP client directly: the manager lists the storage in use only.
int SecondStorageFolder(const std::string& name) {
    int device = 0;
    int* storages = nullptr;
    int storageCount = 0;
    int* folders = nullptr;
    int folderCount = 0;
    int found = 0;
    if (mtp_initialize() != MTP_ERROR_NONE) return 0;
    if (mtp_get_device_handle_internal(1, 2, &device) == MTP_ERROR_NONE) {
        if (mtp_get_storage_ids(device, &storages, &storageCount) == MTP_ERROR_NONE &&
            storageCount > 1 &&
            mtp_get_object_handles(device, storages[1], MTP_FILETYPE_FOLDER, 0, &folders,
                                   &folderCount) == MTP_ERROR_NONE) {
            for (int i = 0; i < folderCount && found == 0; ++i) {
                mtp_object_info info{};
                if (mtp_objectinfo_get_object_info(device, folders[i], &info) == MTP_ERROR_NONE &&
                    name == info.filename) {
                    found = folders[i];
                }
            }
        }
        mtp_close_device(device);
    }
    std::free(storages);
    std::free(folders);
    mtp_deinitialize();
    return found;
}

TEST_F(PtpManageTest, FolderViewListsAFolderOfTheStorageInUse) {
    Listing all;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &all));
    const int misc = SecondStorageFolder("MISC");
    ASSERT_NE(misc, 0);
    struct Case {
        int parent;
        bool ok;
        std::vector<std::string> names;
    };
    for (const Case& c :
         {Case{0, true, {"DCIM"}},
          Case{all.Named("100TEST")->nObjectHandle, true, {"a.jpg", "b.jpg", "c.png", "d.bmp"}},
          Case{all.Named("EMPTY")->nObjectHandle, true, {}},
          // A folder of the other storage is no folder of the storage in use.
          Case{misc, false, {}}}) {
        log.Clear();
        Listing listing;
        EXPECT_EQ(manage.GetDataItem(1, 2, c.parent, &Listing::Collect, &listing), c.ok)
            << c.parent;
        EXPECT_EQ(listing.Names(), c.names) << c.parent;
        EXPECT_TRUE(log.Contains("CQRBPTPManage::GetDataItem folder view after lock"));
        if (!c.ok) {
            // The message's leading "%m" expands to the errno text.
            EXPECT_TRUE(log.Contains("tp_get_object_handles failed : -5")) << c.parent;
        }
    }
}

TEST_F(PtpManageTest, CallbackAnsweringFalseEndsTheWalk) {
    Listing listing;
    listing.stopAfter = 1;
    EXPECT_FALSE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    EXPECT_EQ(listing.Names(), (std::vector<std::string>{"100TEST", "DCIM"}));
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
    EXPECT_EQ(log.Count("release old camera, new one ,nBusID : 1, nDeviceID : 2"), 1);
    EXPECT_EQ(log.Count("Camera found, return directly"), 1);
    EXPECT_TRUE(log.Contains("dev_list bus_location : 1,device_number: 2 ."));
    EXPECT_TRUE(log.Contains("[ptp performance]get device handle success"));
    EXPECT_TRUE(log.Contains("dev_list->device_num : 2"));
    EXPECT_EQ(camera.SessionsOpened(), 1);

    Listing others;
    ASSERT_TRUE(manage.GetDataItem(1, 3, &Listing::Collect, &others));
    EXPECT_EQ(others.Names(), std::vector<std::string>{"o.jpg"});
    EXPECT_EQ(others.items[0].strURI,
              "ptp://001;003;" + std::to_string(others.items[0].nObjectHandle));
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    // The first camera was closed for the second and opened again: a new session.
    EXPECT_EQ(log.Count("release old camera, new one ,nBusID : 1, nDeviceID : 3"), 1);
    EXPECT_EQ(log.Count("release old camera, new one ,nBusID : 1, nDeviceID : 2"), 2);
    EXPECT_EQ(camera.SessionsOpened(), 2);
}

TEST_F(PtpManageTest, RefusalsAreLoggedWhereTheyHappen) {
    Listing all;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &all));
    const int a = all.Named("a.jpg")->nObjectHandle;
    const std::string dest = root.Path() + "/t.jpg";
    char* buffer = nullptr;
    unsigned long size = 0;
    Listing listing;
    struct Case {
        std::function<bool()> call;
        std::vector<std::string> messages;
    };
    const std::vector<Case> cases = {
        {[&] { return manage.GetDataItem(-1, 2, &Listing::Collect, &listing); },
         {"nBusID or nDeviceID param error", "can not find camera"}},
        {[&] { return manage.GetDataItem(1, 9, 0, &Listing::Collect, &listing); },
         {"dev_list bus_location : 1,device_number: 2 .", "can not find camera"}},
        {[&] { return manage.DownloadExif(1, 2, "", dest); },
         {"Please check param, strFilePath or strDownloadPath is empty"}},
        {[&] { return manage.DownloadExif(1, 2, "5", ""); },
         {"Please check param, strFilePath or strDownloadPath is empty"}},
        {[&] { return manage.DownloadFileToBuffer(1, 2, "", &buffer, &size); },
         {"Please check param, strFilePath is empty"}},
        {[&] { return manage.DownloadExif(1, 9, "5", dest); }, {"Can not find camera"}},
        {[&] { return manage.DownloadFileToBuffer(2, 2, "/z.jpg", &buffer, &size); },
         {"Can not find camera"}},
        {[&] { return manage.DownloadExif(1, 2, "9999", dest); },
         {"object_handle : 9999", "mtp_get_thumbnail error: -5"}},
        // An unknown folder, and a file as the folder: the message's leading "%m" expands to
        // the errno text.
        {[&] { return manage.GetDataItem(1, 2, 9999, &Listing::Collect, &listing); },
         {"tp_get_object_handles failed : -5"}},
        {[&] { return manage.GetDataItem(1, 2, a, &Listing::Collect, &listing); },
         {"tp_get_object_handles failed : -5"}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        log.Clear();
        EXPECT_FALSE(cases[i].call()) << i;
        const std::vector<std::string> lines = log.Lines();
        const std::vector<std::string> tags = log.Tags();
        for (const std::string& message : cases[i].messages) {
            auto it = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.find(message) != std::string::npos;
            });
            ASSERT_NE(it, lines.end()) << i << " " << message;
            EXPECT_EQ(tags[static_cast<size_t>(it - lines.begin())], "QRB-LOCAL") << message;
        }
    }
    EXPECT_TRUE(listing.items.empty());
    EXPECT_EQ(buffer, nullptr);
}

TEST_F(PtpManageTest, DownloadsAThumbnailAndAWholeFile) {
    Listing all;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &all));
    const int a = all.Named("a.jpg")->nObjectHandle;
    const std::string dest = root.Path() + "/t.jpg";
    ASSERT_TRUE(manage.DownloadExif(1, 2, std::to_string(a), dest));
    const std::string thumb = qrbtest::ReadFileBytes(dest);
    EXPECT_EQ(thumb.substr(0, 2), "\xFF\xD8");
    EXPECT_LT(thumb.size(), jpeg.size());  // the camera's small picture, not the file
    EXPECT_TRUE(log.Contains("object_handle : " + std::to_string(a)));

    struct Case {
        std::string path;
        bool found;
    };
    for (const Case& c :
         {Case{"/DCIM/100TEST/a.jpg", true}, Case{"DCIM/100TEST/a.jpg", true}, Case{"/z.jpg", true},
          Case{"/MISC/y.jpg", true}, Case{"/DCIM/100TEST/missing.jpg", false},
          Case{"/DCIM/100TEST", false}, Case{"/DCIM/../DCIM/100TEST/a.jpg", false}}) {
        char* buffer = nullptr;
        unsigned long size = 0;
        EXPECT_EQ(manage.DownloadFileToBuffer(1, 2, c.path, &buffer, &size), c.found) << c.path;
        EXPECT_EQ(std::string(buffer ? buffer : "", size), c.found ? jpeg : "") << c.path;
        std::free(buffer);
    }
    EXPECT_TRUE(log.Contains("strFolderPath=/DCIM/100TEST"));
    EXPECT_TRUE(log.Contains("strFileName=a.jpg"));
    EXPECT_TRUE(log.Contains("[ptp performance]after open"));
    EXPECT_TRUE(log.Contains("[ptp performance]before close"));
}

TEST_F(PtpManageTest, ListsThousandsOfObjects) {
    PtpipResponder big;
    const uint32_t storage = big.AddStorage("Big");
    big.AddPath(storage, "DCIM/BULK/IMG_0000.JPG", jpeg);
    const uint32_t folder = big.Find(storage, "DCIM/BULK");
    for (int i = 1; i < 2500; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "IMG_%04d.JPG", 2500 - i);
        big.AddFile(storage, folder, name, jpeg);
    }
    ASSERT_TRUE(big.Start());
    setenv("QRB_PTPIP_CAMERA", big.Address().c_str(), 1);
    Listing listing;
    ASSERT_TRUE(manage.GetDataItem(1, 2, &Listing::Collect, &listing));
    ASSERT_EQ(listing.items.size(), 2502u);
    EXPECT_EQ(listing.items[2].strName, "IMG_0000.JPG");
    EXPECT_EQ(listing.items.back().strName, "IMG_2499.JPG");
    EXPECT_TRUE(std::is_sorted(listing.items.begin(), listing.items.end()));
}

// qrb-ptp-list, as a person runs it: each line gives the object's handle, so a folder found in
// the whole listing can be opened with --folder.
struct ListedLine {
    std::string type, uri, handle, size, name;
};

std::vector<ListedLine> RunLister(const std::string& args, int* status) {
    // libgphoto2's drivers look leaked once unloaded (qrb_test_gphoto2.h), and the tool has no
    // suppressions of its own: a sanitizer build's leak check is off for it.
    const char* asan = std::getenv("ASAN_OPTIONS");
    const std::string command = "ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                                ":detect_leaks=0' '" QRB_PTP_LIST_BINARY "' " + args +
                                " 2>/dev/null";
    std::vector<ListedLine> lines;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return lines;
    char buffer[1024];
    while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        std::vector<std::string> fields{""};
        for (const char* p = buffer; *p != '\0' && *p != '\n'; ++p) {
            if (*p == '\t') {
                fields.emplace_back();
            } else {
                fields.back() += *p;
            }
        }
        if (fields.size() == 5)
            lines.push_back({fields[0], fields[1], fields[2], fields[3], fields[4]});
    }
    *status = pclose(pipe);
    return lines;
}

TEST_F(PtpManageTest, ListerPrintsEachObjectsHandleForItsFolderOption) {
    int status = -1;
    const std::vector<ListedLine> all = RunLister("1 2", &status);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(all.size(), 7u);
    const ListedLine* folder = nullptr;
    for (const ListedLine& line : all) {
        if (line.name == "100TEST") folder = &line;
        if (line.type == "FOLDER") {
            EXPECT_EQ(line.uri, "-") << line.name;
        } else {
            EXPECT_EQ(line.uri, "ptp://001;002;" + line.handle) << line.name;
        }
    }
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(folder->type, "FOLDER");

    const std::vector<ListedLine> inside =
        RunLister("--folder " + folder->handle + " 1 2", &status);
    EXPECT_EQ(status, 0);
    std::vector<std::string> names;
    for (const ListedLine& line : inside) names.push_back(line.name);
    ASSERT_EQ(names, (std::vector<std::string>{"a.jpg", "b.jpg", "c.png", "d.bmp"}));
    EXPECT_EQ(inside[0].size, std::to_string(jpeg.size()));

    // A handle that names no folder of the storage: the listing fails.
    EXPECT_TRUE(RunLister("--folder 9999 1 2", &status).empty());
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

}  // namespace
