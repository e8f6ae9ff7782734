// A fuzz target's entry without libFuzzer, for the normal build's tests: every file of the
// folders (or the files) named on the command line is read into a buffer of its exact size and
// passed once to LLVMFuzzerTestOneInput, so that every input a fuzz run kept, crash
// reproducers included, is run again by `make test` (and under the sanitizers in their
// builds). A target's own checks abort; this fails as well when it was given no input at all.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Collect(const std::string& path, std::vector<std::string>* files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(path + "/" + name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) Collect(name, files);
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) Collect(argv[i], &files);
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in),
                                      std::istreambuf_iterator<char>()};
        // A buffer of exactly the input's size, as libFuzzer gives it: a read past the end is
        // a read outside the allocation.
        std::vector<uint8_t> input(bytes.begin(), bytes.end());
        input.shrink_to_fit();
        std::fprintf(stderr, "%s (%zu bytes)\n", file.c_str(), input.size());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::fprintf(stderr, "%zu inputs run\n", files.size());
    return files.empty() ? 1 : 0;
}
