#include "qrb_test_root.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace qrbtest {

namespace {
int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

void MakeDirs(const std::string& dir) {
    std::string partial;
    for (size_t i = 0; i < dir.size(); ++i) {
        partial.push_back(dir[i]);
        if ((dir[i] == '/' || i + 1 == dir.size()) && partial != "/") mkdir(partial.c_str(), 0755);
    }
}

int CountDir(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return 0;
    int n = 0;
    while (struct dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") ++n;
    }
    closedir(dir);
    return n;
}
}  // namespace

ScratchRoot::ScratchRoot() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qrb-test-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_Path = pattern;
    const char* old = std::getenv("QRB_ROOT");
    m_HadOldRoot = old != nullptr;
    if (old) m_OldRoot = old;
    setenv("QRB_ROOT", m_Path.c_str(), 1);
}

ScratchRoot::~ScratchRoot() {
    nftw(m_Path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    if (m_HadOldRoot) setenv("QRB_ROOT", m_OldRoot.c_str(), 1);
    else unsetenv("QRB_ROOT");
}

std::string ScratchRoot::Resolve(const std::string& fixedPath) const { return m_Path + fixedPath; }

std::string ScratchRoot::WriteFile(const std::string& relative, const std::string& bytes) const {
    std::string path = m_Path + "/" + relative;
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

int ScratchRoot::CountEntries(const std::string& fixedPath) const { return CountDir(Resolve(fixedPath)); }

int OpenFileDescriptors() { return CountDir("/proc/self/fd") - 1; /* the listing's own fd */ }
int ThreadCount() { return CountDir("/proc/self/task"); }

}  // namespace qrbtest
