// Scratch files for the fuzz targets whose code reads files: one folder per process under
// TMPDIR, removed with everything in it when the process ends.
#ifndef QRB_FUZZ_SCRATCH_H
#define QRB_FUZZ_SCRATCH_H

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace qrbfuzz {

inline std::string& ScratchFolder() {
    static std::string folder;
    return folder;
}

inline int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return std::remove(path);
}

inline void RemoveScratch() {
    nftw(ScratchFolder().c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

// Makes "<TMPDIR>/qrb-<name>-fuzz-XXXXXX" on the first call and returns it. Aborts when it
// cannot: a fuzz run without its scratch folder would test nothing.
inline const std::string& ScratchRoot(const char* name) {
    std::string& folder = ScratchFolder();
    if (folder.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp && *tmp ? tmp : "/tmp") + "/qrb-" + name + "-fuzz-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) abort();
        folder = pattern;
        atexit(RemoveScratch);
    }
    return folder;
}

// Writes data as a new file at path; aborts when it cannot. A new file rather than a truncated
// one: rewriting a truncated file makes the file system flush it on close, which would
// dominate every run.
inline void WriteNewFile(const std::string& path, const uint8_t* data, size_t size) {
    std::remove(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) abort();
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n <= 0) abort();
        data += n;
        size -= static_cast<size_t>(n);
    }
    close(fd);
}

}  // namespace qrbfuzz

#endif
