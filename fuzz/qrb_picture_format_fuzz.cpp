// One picture format as every getter reaches it: GetThumbnailBuffer on a file. JPEG and PNG go
// through the decoder's own readers (libjpeg, libpng), the others through their libraries
// (libheif, libwebp, giflib, libtiff). Built once per format (QRB_FUZZ_FORMAT names it):
// inputs whose first bytes announce another format are left to the other targets. The request
// size comes from the input's last two bytes; a decoded raster must be whole, a failure must
// report 0 x 0.
#include "dlog_sink.h"
#include "qrb_fuzz_picture.h"
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_reader.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#ifndef QRB_FUZZ_FORMAT
#error "QRB_FUZZ_FORMAT must name the format this target reads"
#endif

namespace {

// The formats the decoder recognises by itself from two bytes, and those of the readers.
enum class Format { kJpeg, kPng, kHeif, kWebp, kGif, kTiff };
constexpr Format kFormat = Format::QRB_FUZZ_FORMAT;
std::string g_path;

bool Announced(const uint8_t* data, size_t size) {
    switch (kFormat) {
        case Format::kJpeg:
            return size >= 2 && data[0] == 0xFF && data[1] == 0xD8;
        case Format::kPng:
            return size >= 2 && data[0] == 0x89 && data[1] == 'P';
        case Format::kHeif:
            return QRBSniffPictureFormat(data, size) == QRBPictureFormat::kHeif;
        case Format::kWebp:
            return QRBSniffPictureFormat(data, size) == QRBPictureFormat::kWebp;
        case Format::kGif:
            return QRBSniffPictureFormat(data, size) == QRBPictureFormat::kGif;
        case Format::kTiff:
            return QRBSniffPictureFormat(data, size) == QRBPictureFormat::kTiff;
    }
    return false;
}

}  // namespace

// libheif 1.15's AV1 decoder glue does not release the data it handed dav1d when dav1d rejects a
// damaged stream (40 bytes per damaged AVIF, inside libdav1d's allocations): the library's
// leak, not one of ours, so it is not reported.
extern "C" const char* __lsan_default_suppressions() { return "leak:libdav1d.so\n"; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    g_path = qrbfuzz::ScratchRoot("picture-format") + "/input";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!Announced(data, size)) return 0;
    qrbfuzz::DecodeAsPicture(g_path, data, size);
    return 0;
}
