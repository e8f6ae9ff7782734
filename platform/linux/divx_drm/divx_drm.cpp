// No DRM engine exists on a host: no manager can be made, so no file counts as protected.
#include "divx_drm.h"

extern "C" int divx_drm_get_manager(const char* path, divx_drm_manager** manager) {
    (void)path;
    if (manager != nullptr) *manager = nullptr;
    return DIVX_DRM_ERROR_NOT_AVAILABLE;
}

extern "C" int divx_drm_open(divx_drm_manager* manager, const char* path) {
    (void)manager;
    (void)path;
    return -1;
}

extern "C" int divx_drm_close(divx_drm_manager* manager) {
    (void)manager;
    return 0;
}
