#define QRB_LOG_TAG "QRB-COMMON"
#include "qrb_system_path.h"

#include "qrb_log.h"
#include "qrb_util.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

// Written when the service starts and stops, read by every getter naming a scratch file.
std::mutex g_Mutex;
std::string g_Scratch;

bool WritableFolder(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           access(path.c_str(), W_OK | X_OK) == 0;
}

std::string ParentOf(std::string folder) {
    while (!folder.empty() && folder.back() == '/') folder.pop_back();
    const size_t slash = folder.rfind('/');
    return slash == std::string::npos ? std::string() : folder.substr(0, slash + 1);
}

std::string MakeScratch() {
    const char* candidates[] = {std::getenv("XDG_RUNTIME_DIR"), std::getenv("TMPDIR"), "/tmp"};
    for (const char* base : candidates) {
        if (base == nullptr || base[0] != '/' || !WritableFolder(base)) continue;
        std::string pattern = std::string(base) + "/qrb-thumbnail-XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) return pattern + "/";  // mkdtemp makes it 0700
    }
    return std::string();
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

std::string QRBSystemPath(const char* fixedPath) {
    static const size_t kDataDirLength = std::strlen(QRB_DATA_DIR);
    if (std::strncmp(fixedPath, QRB_DATA_DIR, kDataDirLength) == 0) {
        std::lock_guard<std::mutex> lock(g_Mutex);
        if (!g_Scratch.empty()) return g_Scratch + (fixedPath + kDataDirLength);
    }
    return QRBRootedPath(fixedPath);
}

bool QRBOpenDataFolder() {
    const std::string fixed = QRBRootedPath(QRB_DATA_DIR);
    if (std::getenv("QRB_ROOT") != nullptr || WritableFolder(fixed)) {
        if (CQRBUtil::MakeDirs(fixed, 0777, false) == nullptr) return true;
        QRB_LOGW("mkdir() [%s] failed.", QRB_DATA_DIR);
        return false;
    }
    // Only the last level is made here: a host without the application's folder gets none of
    // the device's tree, even when the process could make it.
    if (WritableFolder(ParentOf(fixed)) && mkdir(fixed.c_str(), 0777) == 0) return true;

    std::string scratch = MakeScratch();
    if (scratch.empty()) {
        QRB_LOGW("mkdir() [%s] failed, and no scratch folder could be made.", QRB_DATA_DIR);
        return false;
    }
    QRB_LOGI("%s cannot be used; scratch files go to %s until the service stops", QRB_DATA_DIR,
             scratch.c_str());
    std::lock_guard<std::mutex> lock(g_Mutex);
    g_Scratch = std::move(scratch);
    return true;
}

void QRBCloseDataFolder() {
    std::string scratch;
    {
        std::lock_guard<std::mutex> lock(g_Mutex);
        scratch.swap(g_Scratch);
    }
    if (!scratch.empty() && QRBRemoveTree(scratch) != 0) {
        QRB_LOGW("removing the scratch folder %s failed, errno:%d", scratch.c_str(), errno);
    }
}

std::string QRBScratchDataFolder() {
    std::lock_guard<std::mutex> lock(g_Mutex);
    return g_Scratch;
}

int QRBRemoveTree(const std::string& path) {
    return nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}
