// The picture decoder's entry as the library's getters call it, for the picture fuzz targets:
// the input is written to a file and decoded through GetThumbnailBuffer at a request size taken
// from its last two bytes. A raster that comes back must be as large as it says; a failure must
// report no size.
#ifndef QRB_FUZZ_PICTURE_H
#define QRB_FUZZ_PICTURE_H

#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"
#include "qrb_fuzz_scratch.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace qrbfuzz {

inline void DecodeAsPicture(const std::string& path, const uint8_t* data, size_t size) {
    if (size < 2) return;
    WriteNewFile(path, data, size);
    const std::string url = "file://" + path;
    qrb_picture_thumb_param param;
    param.width = 1 + data[size - 2] % 128;
    param.height = 1 + data[size - 1] % 128;
    // A very wide or tall picture covering the request gives an output of hundreds of
    // megapixels, which the decoder allows but which would make each run take seconds.
    {
        const CQRBImageDecoder probe(url.c_str(), param.width, param.height, 0, false);
        if (static_cast<uint64_t>(probe.GetOutputWidth()) * probe.GetOutputHeight() > (1u << 22)) {
            return;
        }
    }
    int w = 0;
    int h = 0;
    unsigned char* out =
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &w, &h, nullptr);
    if (out != nullptr) {
        if (w <= 0 || h <= 0) abort();
        volatile unsigned char last = out[static_cast<size_t>(w) * h * 4 - 1];
        (void)last;
        std::free(out);  // the caller frees the raster
    } else if (w != 0 || h != 0) {
        abort();
    }
}

}  // namespace qrbfuzz

#endif
