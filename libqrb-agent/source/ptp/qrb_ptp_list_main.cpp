// qrb-ptp-list: lists the folders and pictures of a camera through the PTP manager, one line
// per item: type, URI (what a thumbnail request takes; "-" for a folder), object handle (what
// --folder takes), size in bytes and name, separated by tabs, in the listing's order.
//
//   qrb-ptp-list [--folder HANDLE] BUS DEVICE
//
// Without --folder the storage in use is listed at every depth; with it, what lies directly in
// that folder. Exits 0 when the listing worked, 1 when it did not (the library's log says why),
// 2 on a bad command line.
#include "qrb_ptp_manage.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool ParseNumber(const char* text, int* out) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < 0 || value > 0x7FFFFFFF) return false;
    *out = static_cast<int>(value);
    return true;
}

bool Print(_ptp_data_item& item, void*) {
    std::printf("%s\t%s\t%d\t%llu\t%s\n", item.strType.c_str(),
                item.strURI.empty() ? "-" : item.strURI.c_str(), item.nObjectHandle, item.ullSize,
                item.strName.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int folder = -1;
    int numbers[2];
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--folder" && i + 1 < argc) {
            if (!ParseNumber(argv[++i], &folder)) count = 3;
        } else if (count < 2 && ParseNumber(argv[i], &numbers[count])) {
            ++count;
        } else {
            count = 3;
        }
    }
    if (count != 2) {
        std::fprintf(stderr, "usage: qrb-ptp-list [--folder HANDLE] BUS DEVICE\n");
        return 2;
    }
    CQRBPTPManage manage;
    const bool ok = folder < 0 ? manage.GetDataItem(numbers[0], numbers[1], Print, nullptr)
                               : manage.GetDataItem(numbers[0], numbers[1], folder, Print, nullptr);
    return ok ? 0 : 1;
}
