// The system's fixed absolute paths, and the functions that resolve them.
//
// On a device the paths are used as written. On a host, tests, the demo and benchmarks set the
// environment variable QRB_ROOT to a scratch folder, which is then put in front of every fixed
// path, so nothing outside that folder is touched. Log texts keep the fixed paths as written.
//
// Installed on a desktop, nobody sets QRB_ROOT and the fixed data folder usually cannot be
// made: the service then works in a private scratch folder of its own (QRBOpenDataFolder) and
// every path inside the data folder follows it.
#ifndef QRB_COMMON_SYSTEM_PATH_H
#define QRB_COMMON_SYSTEM_PATH_H

#include <cstdlib>
#include <string>

#define QRB_DATA_DIR "/opt/usr/apps/orvale/data/"
#define QRB_VIDEO_DIR "/opt/usr/apps/orvale/data/video/"
#define QRB_VCONF_DIR "/opt/usr/apps/orvale/data/vconf/"
#define QRB_GST_PLUGIN_DIR "/usr/lib/gstreamer-1.0/"
#define QRB_CA_BUNDLE "/opt/down/cert/ca.pem"

// The fixed path under QRB_ROOT when it is set. Read on every call (not cached) so that a test
// may point QRB_ROOT elsewhere between cases.
inline std::string QRBRootedPath(const char* fixedPath) {
    const char* root = std::getenv("QRB_ROOT");
    std::string path = (root != nullptr) ? root : "";
    while (!path.empty() && path.back() == '/') path.pop_back();
    path += fixedPath;
    return path;
}

// QRBRootedPath, except that a path inside the data folder lands in the scratch folder while
// one is in use.
std::string QRBSystemPath(const char* fixedPath);

// Decides where the data folder is, and makes it. With QRB_ROOT set, or where the fixed folder
// exists and is writable, or where only its last level is missing (as on a device, where the
// application's own folder exists), the fixed folder is used. Otherwise a private folder
// (mode 0700) is made under $XDG_RUNTIME_DIR, $TMPDIR or /tmp. False when no folder could be
// made.
bool QRBOpenDataFolder();

// Removes the scratch folder and everything in it, if one is in use; the fixed folder stays.
void QRBCloseDataFolder();

// The scratch folder in use (ending in '/'), or empty when the fixed folder is.
std::string QRBScratchDataFolder();

// Removes a folder and everything below it without following links; 0 or -1 with errno set.
int QRBRemoveTree(const std::string& path);

#endif
