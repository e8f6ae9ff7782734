// A DRM library double: files that a test marks are protected; the error and null-manager
// answers can be chosen.
#include "divx_drm.h"
#include "qrb_fake_control.h"

#include <mutex>
#include <set>
#include <string>

struct divx_drm_manager {
    std::string path;
};

namespace {
std::mutex g_mutex;
qrbfake::DrmMode g_mode = qrbfake::DrmMode::kProtectMarked;
std::set<std::string> g_protected;
int g_opens = 0;
int g_closes = 0;
}  // namespace

namespace qrbfake {
void DrmSetMode(DrmMode mode) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_mode = mode;
}
void DrmMarkProtected(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_protected.insert(path);
}
void DrmReset() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_mode = DrmMode::kProtectMarked;
    g_protected.clear();
    g_opens = 0;
    g_closes = 0;
}
int DrmOpenCalls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_opens;
}
int DrmCloseCalls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_closes;
}
}  // namespace qrbfake

extern "C" int divx_drm_get_manager(const char* path, divx_drm_manager** manager) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (manager == nullptr) return DIVX_DRM_ERROR_NOT_AVAILABLE;
    *manager = nullptr;
    switch (g_mode) {
        case qrbfake::DrmMode::kManagerError: return DIVX_DRM_ERROR_NOT_AVAILABLE;
        case qrbfake::DrmMode::kNullManager: return DIVX_DRM_ERROR_NONE;
        case qrbfake::DrmMode::kProtectMarked: break;
    }
    *manager = new divx_drm_manager{path ? path : ""};  // freed by divx_drm_close
    return DIVX_DRM_ERROR_NONE;
}

extern "C" int divx_drm_open(divx_drm_manager* manager, const char* path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_opens;
    if (manager == nullptr || path == nullptr) return -1;
    return g_protected.count(path) ? 0 : -1;
}

extern "C" int divx_drm_close(divx_drm_manager* manager) {
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_closes;
    delete manager;
    return 0;
}
