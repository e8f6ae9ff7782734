// The one control header of the platform test doubles; only tests include it.
#ifndef QRB_PLATFORM_FAKE_CONTROL_H
#define QRB_PLATFORM_FAKE_CONTROL_H

#include <string>

namespace qrbfake {

// How the fake DRM library answers divx_drm_get_manager.
enum class DrmMode {
    kProtectMarked,  // a manager for every file; divx_drm_open succeeds for marked files only
    kManagerError,   // divx_drm_get_manager answers an error
    kNullManager     // divx_drm_get_manager answers no error but a null manager
};

void DrmSetMode(DrmMode mode);
// Marks path as a protected file.
void DrmMarkProtected(const std::string& path);
void DrmReset();
// How many times divx_drm_open and divx_drm_close were called since the last reset.
int DrmOpenCalls();
int DrmCloseCalls();

}  // namespace qrbfake

#endif
