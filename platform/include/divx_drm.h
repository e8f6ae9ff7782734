// The DRM library that tells whether a video file is protected.
#ifndef QRB_PLATFORM_DIVX_DRM_H
#define QRB_PLATFORM_DIVX_DRM_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct divx_drm_manager divx_drm_manager;

#define DIVX_DRM_ERROR_NONE 0
#define DIVX_DRM_ERROR_NOT_AVAILABLE 1

// Makes a manager for path. Returns DIVX_DRM_ERROR_NONE and sets *manager (which may still be
// NULL), or an error code.
int divx_drm_get_manager(const char* path, divx_drm_manager** manager);
// 0 when the manager can open path as a protected file.
int divx_drm_open(divx_drm_manager* manager, const char* path);
// Releases what divx_drm_open and divx_drm_get_manager set up.
int divx_drm_close(divx_drm_manager* manager);

#ifdef __cplusplus
}
#endif

#endif
