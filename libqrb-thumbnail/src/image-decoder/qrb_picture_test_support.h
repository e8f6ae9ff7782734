// The picture decoder's tests' names for the shared fixtures (testing/), and a scratch folder
// that writes picture files.
#ifndef QRB_PICTURE_TEST_SUPPORT_H
#define QRB_PICTURE_TEST_SUPPORT_H

#include "qrb_test_files.h"
#include "qrb_test_picture.h"
#include "qrb_test_root.h"

#include <string>

namespace qrbpicturetest {

using qrbtest::CorpusDir;
using qrbtest::PngChunk;
using qrbtest::PngWithHeader;
using qrbtest::Raster;
using qrbtest::ReadFileBytes;

inline Raster Decode(const std::string& url, int width, int height, bool forceFull = false) {
    return qrbtest::DecodePicture(url, width, height, forceFull);
}
inline bool ReadReferencePng(const std::string& path, Raster* out) {
    return qrbtest::ReadPng(path, out);
}

class ScratchDir : public qrbtest::ScratchRoot {
public:
    // Writes bytes to a file in the folder and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) {
        return WriteFile(name, bytes);
    }
};

}  // namespace qrbpicturetest

#endif
