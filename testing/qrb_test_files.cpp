#include "qrb_test_files.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace qrbtest {

std::string CorpusDir() {
    const char* source = std::getenv("QRB_TEST_SOURCE_DIR");
    if (source == nullptr || *source == '\0') return std::string();
    const std::string dir = std::string(source) + "/../shared/corpus";
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? dir : std::string();
}

std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> ListDir(const std::string& dir, const std::string& suffix) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                names.push_back(name);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string LittleEndian(uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

std::string BigEndian(uint64_t value, int bytes) {
    std::string out;
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

}  // namespace qrbtest
