// The system's fixed absolute paths, and the one function that resolves them.
//
// On a device the paths are used as written. On a host, tests, the demo and benchmarks set the
// environment variable QRB_ROOT to a scratch folder, which is then put in front of every fixed
// path, so nothing outside that folder is touched. Log texts keep the fixed paths as written.
#ifndef QRB_COMMON_SYSTEM_PATH_H
#define QRB_COMMON_SYSTEM_PATH_H

#include <cstdlib>
#include <string>

#define QRB_DATA_DIR "/opt/usr/apps/orvale/data/"
#define QRB_VIDEO_DIR "/opt/usr/apps/orvale/data/video/"
#define QRB_VCONF_DIR "/opt/usr/apps/orvale/data/vconf/"
#define QRB_GST_PLUGIN_DIR "/usr/lib/gstreamer-1.0/"
#define QRB_CA_BUNDLE "/opt/down/cert/ca.pem"

// Read on every call (not cached) so that a test may point QRB_ROOT elsewhere between cases.
inline std::string QRBSystemPath(const char* fixedPath) {
    const char* root = std::getenv("QRB_ROOT");
    std::string path = (root != nullptr) ? root : "";
    while (!path.empty() && path.back() == '/') path.pop_back();
    path += fixedPath;
    return path;
}

#endif
