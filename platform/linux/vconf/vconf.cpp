// The settings store on a host: one small text file per key under
// $QRB_ROOT/opt/usr/apps/orvale/data/vconf/, replaced atomically (write a temporary file,
// fsync, rename) so that a reader never sees a half-written value.
#include "vconf.h"

#include "qrb_system_path.h"
#include "qrb_temp_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Keys look like "db/menu/picture/x"; anything that could leave the store folder is refused.
bool KeyToPath(const char* key, std::string* path) {
    if (key == nullptr || *key == '\0') return false;
    std::string name;
    for (const char* p = key; *p; ++p) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
        if (c == '/')
            c = '#';
        else if (!ok)
            return false;
        name.push_back(c);
    }
    if (name == "." || name == "..") return false;
    *path = QRBRootedPath(QRB_VCONF_DIR) + name;
    return true;
}

bool MakeDirs(const std::string& dir) {
    std::string partial;
    for (size_t i = 0; i < dir.size(); ++i) {
        partial.push_back(dir[i]);
        if (dir[i] == '/' || i + 1 == dir.size()) {
            if (partial == "/") continue;
            if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int vconf_get_int(const char* key, int* value) {
    std::string path;
    if (value == nullptr || !KeyToPath(key, &path)) return VCONF_ERROR;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return VCONF_ERROR;
    char buf[32] = {0};
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0) return VCONF_ERROR;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(buf, &end, 10);
    if (end == buf || errno != 0 || v < INT_MIN || v > INT_MAX) return VCONF_ERROR;
    *value = static_cast<int>(v);
    return VCONF_OK;
}

extern "C" int vconf_set_int(const char* key, int value) {
    std::string path;
    if (!KeyToPath(key, &path)) return VCONF_ERROR;
    if (!MakeDirs(QRBRootedPath(QRB_VCONF_DIR))) return VCONF_ERROR;
    const std::string text = std::to_string(value) + "\n";
    QRBTempFile file;
    const bool ok = file.CreateBeside(path) && file.Write(text.data(), text.size()) &&
                    file.Sync() && file.RenameTo(path);
    return ok ? VCONF_OK : VCONF_ERROR;
}
