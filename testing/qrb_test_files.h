// Files and bytes for tests: the shared corpus beside the project, whole-file reads, folder
// listings, and integers laid out as byte literals.
#ifndef QRB_TESTING_FILES_H
#define QRB_TESTING_FILES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qrbtest {

// The shared corpus beside the project (QRB_TEST_SOURCE_DIR is set by ctest), or "" when it
// is not there.
std::string CorpusDir();

// Skips the test when the shared corpus is missing; otherwise declares `dir` as its path.
#define QRB_REQUIRE_CORPUS(dir)                     \
    const std::string dir = ::qrbtest::CorpusDir(); \
    if (dir.empty()) GTEST_SKIP() << "shared corpus not found beside the project"

// The whole file ("" when it cannot be read).
std::string ReadFileBytes(const std::string& path);
// Names in dir ending in suffix, sorted.
std::vector<std::string> ListDir(const std::string& dir, const std::string& suffix);

// value as `bytes` little- or big-endian bytes (0 to 8).
std::string LittleEndian(uint64_t value, int bytes);
std::string BigEndian(uint64_t value, int bytes);

}  // namespace qrbtest

#endif
