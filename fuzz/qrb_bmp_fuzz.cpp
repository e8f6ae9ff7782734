// The BMP header parser and reader on arbitrary bytes. The input is parsed from memory (every
// accepted size and offset must lie inside it) and then decoded from a file through the
// picture decoder at a request size taken from its last two bytes; a decoded raster must be
// whole.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "image-decoder/qrb_bmp_reader.h"
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_processor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    g_path = qrbfuzz::ScratchRoot("bmp") + "/input.bmp";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0) {
        std::vector<uint8_t> copy(data, data + size);
        FILE* fp = fmemopen(copy.data(), copy.size(), "rb");
        if (fp != nullptr) {
            CQRBPictureParser::BMPInfo info;
            std::vector<unsigned char> palette(CQRBPictureParser::kPaletteEntries * 4);
            if (CQRBPictureParser::ParseBMPHeader(fp, size, &info, palette.data())) {
                if (info.width == 0 || info.height == 0 ||
                    info.width > CQRBPictureParser::kMaxDimension ||
                    info.height > CQRBPictureParser::kMaxDimension ||
                    static_cast<uint64_t>(info.width) * info.height >
                        CQRBPictureParser::kMaxPixels ||
                    info.dataOffset >= size || info.dataSize > size - info.dataOffset ||
                    info.paletteSize > CQRBPictureParser::kPaletteEntries) {
                    abort();
                }
            }
            std::fclose(fp);
        }
    }

    // Anything else would be taken for a JPEG, which the other target covers.
    if (size < 2 || data[0] != 'B' || data[1] != 'M') return 0;
    qrbfuzz::WriteNewFile(g_path, data, size);
    const std::string url = "file://" + g_path;
    qrb_picture_thumb_param param;
    param.width = size >= 2 ? 1 + data[size - 2] % 128 : 0;
    param.height = size >= 1 ? 1 + data[size - 1] % 128 : 0;
    // A very wide or tall picture covering the request gives an output of hundreds of
    // megapixels, which the decoder allows but which would make each run take seconds.
    {
        const CQRBImageDecoder probe(url.c_str(), param.width, param.height, 0, false);
        if (static_cast<uint64_t>(probe.GetOutputWidth()) * probe.GetOutputHeight() > (1u << 22)) {
            return 0;
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
    return 0;
}
