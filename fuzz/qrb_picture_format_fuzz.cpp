// One picture format read through its library (libheif, libwebp, giflib, libtiff), as every
// getter reaches it: GetThumbnailBuffer on a file. Built once per format (QRB_FUZZ_FORMAT names
// the QRBPictureFormat): inputs whose first bytes announce another format are left to the
// other targets. The request size comes from the input's last two bytes; a decoded raster must
// be whole, a failure must report 0 x 0.
#include "dlog_sink.h"
#include "qrb_fuzz_picture.h"
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_reader.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#ifndef QRB_FUZZ_FORMAT
#error "QRB_FUZZ_FORMAT must name the QRBPictureFormat this target reads"
#endif

namespace {

constexpr QRBPictureFormat kFormat = QRBPictureFormat::QRB_FUZZ_FORMAT;
std::string g_path;

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
    if (QRBSniffPictureFormat(data, size) != kFormat) return 0;
    qrbfuzz::DecodeAsPicture(g_path, data, size);
    return 0;
}
