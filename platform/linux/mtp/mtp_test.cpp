// The MTP client against the simulated camera: real libgphoto2 over PTP/IP on 127.0.0.1.
// HOME points at a scratch folder (libgphoto2 keeps a settings file there). SIGPIPE keeps its
// default action, so a client write to a camera that hung up would end the test process.
#include "mtp.h"
#include "mtp_object_table.h"

#include "qrb_test_files.h"
#include "qrb_test_gphoto2.h"
#include "qrb_test_jpeg_writer.h"
#include "qrb_test_ptpip_responder.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

using qrbtest::PtpipResponder;
using ThumbFault = PtpipResponder::ThumbFault;

// Width x height of a JPEG's first frame header, "" when there is none.
std::string JpegSize(const std::string& jpeg) {
    uint32_t w = 0, h = 0;
    return qrbtest::JpegFrameSize(jpeg, &w, &h) ? std::to_string(w) + "x" + std::to_string(h) : "";
}

class MtpClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        qrbtest::PrepareCameraTest(root.Path());
        mkdir(root.Resolve("/out").c_str(), 0700);
        qrbtest::JpegSpec spec;
        spec.width = 320;
        spec.height = 240;
        spec.thumbWidth = 160;
        spec.thumbHeight = 120;
        jpeg = qrbtest::MakeJpeg(spec);
        card = camera.AddStorage("Card");
        second = camera.AddStorage("Second");
        picture = camera.AddPath(card, "DCIM/100TEST/a.jpg", jpeg);
        camera.AddPath(card, "DCIM/100TEST/b \xC3\x9C\xC3\xAF.jpg", jpeg);  // "b Üï.jpg"
        camera.AddPath(card, "DCIM/100TEST/c.png", std::string("\x89PNG\r\n\x1a\n", 8));
        camera.AddPath(card, "DCIM/100TEST/notes.txt", "text");
        camera.AddPath(second, "other.jpg", jpeg);
        ASSERT_TRUE(camera.Start());
        setenv("QRB_PTPIP_CAMERA", camera.Address().c_str(), 1);
        ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
    }
    void TearDown() override {
        mtp_deinitialize();
        camera.Stop();
    }

    int Open() {
        int device = 0;
        EXPECT_EQ(mtp_get_device_handle_internal(1, 2, &device), MTP_ERROR_NONE);
        return device;
    }
    static std::vector<int> Handles(int device, int storage, int type, int parent,
                                    int* ret = nullptr) {
        int* raw = nullptr;
        int count = 0;
        const int r = mtp_get_object_handles(device, storage, static_cast<mtp_filetype_e>(type),
                                             parent, &raw, &count);
        if (ret != nullptr) *ret = r;
        std::vector<int> out(raw, raw + count);
        std::free(raw);
        return out;
    }
    static mtp_object_info Info(int device, int handle) {
        mtp_object_info info{};
        EXPECT_EQ(mtp_objectinfo_get_object_info(device, handle, &info), MTP_ERROR_NONE);
        return info;
    }
    // The client handle of the object at a "/"-separated path of a storage.
    static int Find(int device, int storage, const std::string& path) {
        int parent = 0;
        size_t start = 0;
        while (start <= path.size()) {
            const size_t end = std::min(path.find('/', start), path.size());
            const std::string part = path.substr(start, end - start);
            int found = 0;
            for (int h : Handles(device, storage, MTP_FILETYPE_ALL, parent)) {
                if (part == Info(device, h).filename) found = h;
            }
            if (found == 0) return 0;
            parent = found;
            start = end + 1;
        }
        return parent;
    }
    std::string Dest() const { return root.Resolve("/out/thumb.jpg"); }
    int LeftInOut() const { return root.CountEntries("/out"); }

    qrbtest::ScratchRoot root;
    PtpipResponder camera;
    std::string jpeg;
    uint32_t card = 0;
    uint32_t second = 0;
    uint32_t picture = 0;
};

TEST(MtpObjectTable, NumbersAddressableNamesOnceAndForAll) {
    CMtpObjectTable table;
    EXPECT_EQ(table.Intern(1, 0, "/store_00010001", "DCIM", true), 1);
    EXPECT_EQ(table.Intern(1, 1, "/store_00010001/DCIM", "a.jpg", false), 2);
    EXPECT_EQ(table.Intern(1, 0, "/store_00010001/", "DCIM", true), 1);  // the same path
    for (const char* bad : {"", ".", "..", "x/y.jpg", "/"}) {
        EXPECT_EQ(table.Intern(1, 0, "/store_00010001", bad, false), 0) << bad;
    }
    EXPECT_EQ(table.Intern(1, 0, "/s", std::string(256, 'n'), false), 0);
    EXPECT_EQ(table.Find(2)->Path(), "/store_00010001/DCIM/a.jpg");
    EXPECT_EQ(table.Find(2)->parent, 1);
    EXPECT_EQ(table.Find(0), nullptr);
    EXPECT_EQ(table.Find(3), nullptr);
}

TEST_F(MtpClientTest, SimulatedCamerasAppearUnderFixedNumbersInTheOrderGiven) {
    PtpipResponder other;
    other.AddStorage("Other");
    ASSERT_TRUE(other.Start());
    setenv("QRB_PTPIP_CAMERA", (camera.Address() + ",not-an-address," + other.Address()).c_str(),
           1);
    mtp_device_list* list = nullptr;
    ASSERT_EQ(mtp_get_device_list(&list), MTP_ERROR_NONE);
    std::set<std::pair<int, int>> numbers;
    for (int i = 0; i < list->device_num; ++i) {
        numbers.insert({list->devices[i].bus_location, list->devices[i].device_number});
    }
    mtp_destroy_device_list(list);
    // The malformed entry keeps its place: the third camera is device 4.
    EXPECT_EQ(numbers, (std::set<std::pair<int, int>>{{1, 2}, {1, 4}}));

    int first = 0;
    int third = 0;
    ASSERT_EQ(mtp_get_device_handle_internal(1, 2, &first), MTP_ERROR_NONE);
    ASSERT_EQ(mtp_get_device_handle_internal(1, 4, &third), MTP_ERROR_NONE);
    EXPECT_NE(first, third);
    EXPECT_EQ(camera.Connections(), 1);
    EXPECT_EQ(other.Connections(), 1);
    int none = 0;
    EXPECT_EQ(mtp_get_device_handle_internal(1, 3, &none), MTP_ERROR_NO_DEVICE);
}

TEST_F(MtpClientTest, ObjectsGetSmallHandlesWithFoldersAsParents) {
    const int device = Open();
    int* raw = nullptr;
    int count = 0;
    ASSERT_EQ(mtp_get_storage_ids(device, &raw, &count), MTP_ERROR_NONE);
    EXPECT_EQ(std::vector<int>(raw, raw + count), (std::vector<int>{0x10001, 0x20001}));
    std::free(raw);

    const int dcim = Find(device, 0x10001, "DCIM");
    const int folder = Find(device, 0x10001, "DCIM/100TEST");
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    const int other = Find(device, 0x20001, "other.jpg");
    // Eight objects on the camera; the client's numbers are its own, not the camera's.
    for (int h : {dcim, folder, a, other}) {
        EXPECT_GE(h, 1);
        EXPECT_LE(h, 8);
    }
    EXPECT_EQ(std::set<int>({dcim, folder, a, other}).size(), 4u);

    const mtp_object_info f = Info(device, folder);
    EXPECT_EQ(f.file_type, MTP_FILETYPE_FOLDER);
    EXPECT_EQ(f.parent_object_handle, dcim);
    EXPECT_EQ(Info(device, dcim).parent_object_handle, 0);
    const mtp_object_info p = Info(device, a);
    EXPECT_EQ(p.file_type, MTP_FILETYPE_JPEG);
    EXPECT_EQ(p.parent_object_handle, folder);
    EXPECT_EQ(p.storage_id, 0x10001);
    EXPECT_EQ(p.size, jpeg.size());
    EXPECT_EQ(Info(device, other).storage_id, 0x20001);
    // Names survive as UTF-8.
    EXPECT_NE(Find(device, 0x10001, "DCIM/100TEST/b \xC3\x9C\xC3\xAF.jpg"), 0);
}

TEST_F(MtpClientTest, ListingsFilterByFileType) {
    const int device = Open();
    const int folder = Find(device, 0x10001, "DCIM/100TEST");
    struct Case {
        int type;
        size_t count;
    };
    for (const Case& c :
         {Case{MTP_FILETYPE_ALL, 4}, Case{MTP_FILETYPE_JPEG, 2}, Case{MTP_FILETYPE_PNG, 1},
          Case{MTP_FILETYPE_BMP, 0}, Case{MTP_FILETYPE_OTHER, 1}, Case{MTP_FILETYPE_FOLDER, 0}}) {
        int ret = -100;
        const std::vector<int> handles = Handles(device, 0x10001, c.type, folder, &ret);
        EXPECT_EQ(ret, MTP_ERROR_NONE) << c.type;
        EXPECT_EQ(handles.size(), c.count) << c.type;
        for (int h : handles) {
            if (c.type != MTP_FILETYPE_ALL) {
                EXPECT_EQ(Info(device, h).file_type, c.type);
            }
        }
    }
    EXPECT_EQ(Handles(device, 0x10001, MTP_FILETYPE_FOLDER, 0).size(), 1u);
    int ret = 0;
    Handles(device, 0x10001, 7, folder, &ret);
    EXPECT_EQ(ret, MTP_ERROR_INVALID_PARAMETER);
    Handles(device, 0x20001, MTP_FILETYPE_ALL, folder, &ret);  // a folder of another storage
    EXPECT_EQ(ret, MTP_ERROR_INVALID_OBJECT_HANDLE);
}

TEST_F(MtpClientTest, NamesThatCannotBeAddressedAreNotListed) {
    const uint32_t folder = camera.Find(card, "DCIM/100TEST");
    for (const char* name : {"x/y.jpg", "..", "."}) camera.AddFile(card, folder, name, jpeg);
    const int device = Open();
    const int mine = Find(device, 0x10001, "DCIM/100TEST");
    std::set<std::string> names;
    for (int h : Handles(device, 0x10001, MTP_FILETYPE_ALL, mine))
        names.insert(Info(device, h).filename);
    EXPECT_EQ(names,
              (std::set<std::string>{"a.jpg", "b \xC3\x9C\xC3\xAF.jpg", "c.png", "notes.txt"}));
}

TEST_F(MtpClientTest, UnknownHandlesAreRefusedWithoutTouchingTheCamera) {
    const int device = Open();
    const int folder = Find(device, 0x10001, "DCIM/100TEST");
    const int before = camera.TotalOperations();
    mtp_object_info info{};
    unsigned char* data = nullptr;
    unsigned long size = 0;
    for (int handle : {0, -1, 9999}) {
        EXPECT_EQ(mtp_objectinfo_get_object_info(device, handle, &info),
                  MTP_ERROR_INVALID_OBJECT_HANDLE);
        EXPECT_EQ(mtp_get_thumbnail(device, handle, Dest().c_str()),
                  MTP_ERROR_INVALID_OBJECT_HANDLE);
        EXPECT_EQ(mtp_get_object(device, handle, &data, &size), MTP_ERROR_INVALID_OBJECT_HANDLE);
    }
    int ret = 0;
    Handles(device, 0x10001, MTP_FILETYPE_ALL, 9999, &ret);
    EXPECT_EQ(ret, MTP_ERROR_INVALID_OBJECT_HANDLE);
    // A folder has no thumbnail and no bytes.
    EXPECT_EQ(mtp_get_thumbnail(device, folder, Dest().c_str()), MTP_ERROR_INVALID_OBJECT_HANDLE);
    EXPECT_EQ(mtp_get_object(device, folder, &data, &size), MTP_ERROR_INVALID_OBJECT_HANDLE);
    EXPECT_EQ(mtp_get_thumbnail(device + 100, 1, Dest().c_str()), MTP_ERROR_NO_DEVICE);
    EXPECT_EQ(camera.TotalOperations(), before);
    EXPECT_EQ(access(Dest().c_str(), F_OK), -1);
}

TEST_F(MtpClientTest, ThumbnailReplacesThePathOnlyWhenComplete) {
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    // A link planted at the destination is replaced, never written through.
    const std::string victim = root.WriteFile("out/victim", "keep");
    ASSERT_EQ(symlink(victim.c_str(), Dest().c_str()), 0);
    ASSERT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    struct stat st;
    ASSERT_EQ(lstat(Dest().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(JpegSize(qrbtest::ReadFileBytes(Dest())),
              "160x120");  // the EXIF thumbnail, not the picture
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "keep");
    EXPECT_EQ(LeftInOut(), 2);  // the thumbnail and the victim: no temporary left

    unsigned char* data = nullptr;
    unsigned long size = 0;
    ASSERT_EQ(mtp_get_object(device, a, &data, &size), MTP_ERROR_NONE);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), jpeg);
    std::free(data);
}

// libgphoto2 is not thread-safe: the client's one lock must make calls from several workers
// at once come out as if made one after another (run under TSan in CI too).
TEST_F(MtpClientTest, CallsFromSeveralThreadsAtOnceAllSucceed) {
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    const int folder = Find(device, 0x10001, "DCIM/100TEST");
    ASSERT_GT(a, 0);
    const size_t listed = Handles(device, 0x10001, MTP_FILETYPE_ALL, folder).size();
    std::vector<std::future<int>> workers;
    for (int t = 0; t < 3; ++t) {
        workers.push_back(std::async(std::launch::async, [&, t] {
            int failures = 0;
            const std::string dest = root.Resolve("/out/thread-" + std::to_string(t) + ".jpg");
            for (int i = 0; i < 10; ++i) {
                int ret = MTP_ERROR_GENERAL;
                if (Handles(device, 0x10001, MTP_FILETYPE_ALL, folder, &ret).size() != listed ||
                    ret != MTP_ERROR_NONE) {
                    ++failures;
                }
                if (mtp_get_thumbnail(device, a, dest.c_str()) != MTP_ERROR_NONE ||
                    JpegSize(qrbtest::ReadFileBytes(dest)) != "160x120") {
                    ++failures;
                }
            }
            return failures;
        }));
    }
    for (auto& worker : workers) EXPECT_EQ(worker.get(), 0);
    EXPECT_EQ(LeftInOut(), 3);  // one thumbnail per thread, no temporary left
}

TEST_F(MtpClientTest, UnusableThumbnailsAreRefusedAndLeaveNothingBehind) {
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    const int png = Find(device, 0x10001, "DCIM/100TEST/c.png");
    EXPECT_EQ(mtp_get_thumbnail(device, png, Dest().c_str()), MTP_ERROR_NO_THUMBNAIL);
    for (ThumbFault fault : {ThumbFault::kMissing, ThumbFault::kEmpty, ThumbFault::kNotJpeg}) {
        camera.SetThumbFault(picture, fault);
        EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NO_THUMBNAIL)
            << static_cast<int>(fault);
        EXPECT_EQ(LeftInOut(), 0) << static_cast<int>(fault);
    }
    camera.SetThumbFault(picture, ThumbFault::kNone);
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    // An object gone from the camera since it was numbered.
    camera.RemoveObject(picture);
    EXPECT_NE(mtp_get_thumbnail(device, a, (Dest() + "2").c_str()), MTP_ERROR_NONE);
    EXPECT_EQ(LeftInOut(), 1);
    // The camera answered throughout: one connection.
    EXPECT_EQ(camera.Connections(), 1);
}

TEST_F(MtpClientTest, CameraThatHangsUpIsOpenedAgainOnTheNextCall) {
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    unsigned char* data = nullptr;
    unsigned long size = 0;
    for (bool thumbnail : {true, false}) {
        camera.HangUpDuringNextTransfers(1);
        const int ret = thumbnail ? mtp_get_thumbnail(device, a, Dest().c_str())
                                  : mtp_get_object(device, a, &data, &size);
        EXPECT_EQ(ret, MTP_ERROR_IO);
        EXPECT_EQ(LeftInOut(), 0);
    }
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
    EXPECT_EQ(camera.Connections(), 3);
    // Numbers survive the reconnections.
    EXPECT_EQ(Find(device, 0x10001, "DCIM/100TEST/a.jpg"), a);
}

TEST_F(MtpClientTest, CameraThatStopsAnsweringIsCutOffAtTheDeadline) {
    setenv("QRB_PTPIP_TIMEOUT_MS", "500", 1);
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    camera.SetResponseDelay(std::chrono::minutes(10));
    auto call = std::async(std::launch::async,
                           [&] { return mtp_get_thumbnail(device, a, Dest().c_str()); });
    ASSERT_EQ(call.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(call.get(), MTP_ERROR_IO);
    camera.SetResponseDelay(std::chrono::milliseconds(0));
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NONE);
}

TEST_F(MtpClientTest, ThousandsOfObjectsAreNumbered) {
    ASSERT_NE(camera.AddPath(second, "DCIM/BULK/x.jpg", jpeg), 0u);
    const uint32_t bulk = camera.Find(second, "DCIM/BULK");
    for (int i = 0; i < 2999; ++i)
        camera.AddFile(second, bulk, "IMG_" + std::to_string(i) + ".JPG", jpeg);
    const int device = Open();
    const int mine = Find(device, 0x20001, "DCIM/BULK");
    const std::vector<int> handles = Handles(device, 0x20001, MTP_FILETYPE_JPEG, mine);
    EXPECT_EQ(handles.size(), 3000u);
    EXPECT_EQ(std::set<int>(handles.begin(), handles.end()).size(), 3000u);
    EXPECT_LE(*std::max_element(handles.begin(), handles.end()), 3010);
}

TEST_F(MtpClientTest, ClosedDevicesAndUninitialisedCallsAreRefused) {
    const int device = Open();
    const int a = Find(device, 0x10001, "DCIM/100TEST/a.jpg");
    ASSERT_EQ(mtp_close_device(device), MTP_ERROR_NONE);
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NO_DEVICE);
    EXPECT_EQ(mtp_close_device(device), MTP_ERROR_NO_DEVICE);
    // Opened again: the same device handle and object numbers.
    EXPECT_EQ(Open(), device);
    EXPECT_EQ(Find(device, 0x10001, "DCIM/100TEST/a.jpg"), a);
    ASSERT_EQ(mtp_deinitialize(), MTP_ERROR_NONE);
    mtp_device_list* list = nullptr;
    EXPECT_EQ(mtp_get_device_list(&list), MTP_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(mtp_get_thumbnail(device, a, Dest().c_str()), MTP_ERROR_NOT_INITIALIZED);
    ASSERT_EQ(mtp_initialize(), MTP_ERROR_NONE);
}

}  // namespace
