#include "qrb_test_gphoto2.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

int KeepDriversIn(const char* dir) {
    DIR* d = opendir(dir);
    if (d == nullptr) return 0;
    int kept = 0;
    while (struct dirent* entry = readdir(d)) {
        const size_t n = std::strlen(entry->d_name);
        if (n < 4 || std::strcmp(entry->d_name + n - 3, ".so") != 0) continue;
        const std::string path = std::string(dir) + "/" + entry->d_name;
        // Never closed: RTLD_NODELETE keeps the driver mapped whatever libgphoto2 does.
        if (dlopen(path.c_str(), RTLD_NOW | RTLD_NODELETE | RTLD_LOCAL) != nullptr) ++kept;
    }
    closedir(d);
    return kept;
}

}  // namespace

// What libgphoto2's drivers and libusb allocate and never free, whoever calls them: the
// device list of every USB scan, and a name the PTP driver copies on the way to a thumbnail
// the camera does not have. Only allocations made by these modules themselves are matched;
// handles the client gets from libgphoto2 itself are still checked.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libusb_get_device_list\nleak:ptp2.so\n";
}

namespace qrbtest {

int KeepCameraDriversLoaded() {
    static std::once_flag once;
    static int kept = 0;
    std::call_once(once, [] {
        kept = KeepDriversIn(QRB_GPHOTO2_CAMLIBS) + KeepDriversIn(QRB_GPHOTO2_IOLIBS);
    });
    return kept;
}

void PrepareCameraTest(const std::string& scratch) {
    KeepCameraDriversLoaded();
    const std::string home = scratch + "/home";
    mkdir(home.c_str(), 0700);
    setenv("HOME", home.c_str(), 1);
}

}  // namespace qrbtest
