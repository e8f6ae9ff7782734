// The BMP header parser and reader on arbitrary bytes. The input is parsed from memory (every
// accepted size and offset must lie inside it) and then decoded from a file through the
// picture decoder at a request size taken from its last two bytes; a decoded raster must be
// whole.
#include "dlog_sink.h"
#include "qrb_fuzz_picture.h"
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
    qrbfuzz::DecodeAsPicture(g_path, data, size);
    return 0;
}
