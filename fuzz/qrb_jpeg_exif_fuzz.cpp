// The JPEG header walk, the EXIF directory walk and the picture decoder on arbitrary bytes.
// The same input is read three ways: as an APP1 payload (EXIF walk alone), as a whole file
// (marker walk, embedded-JPEG size walk) and through CQRBImageDecoder (selection and, for
// pictures small enough to keep the fuzzer fast, a libjpeg decode). Whatever is accepted must
// stay inside the input, and every walk must end.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "image-decoder/qrb_image_decoder.h"
#include "image-decoder/qrb_image_util.h"
#include "image-decoder/qrb_jpeg_header_parser.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // every rejection is logged; keep the fuzzer's output readable
    g_path = qrbfuzz::ScratchRoot("jpeg-exif") + "/input.jpg";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // 1. As the payload of an APP1 segment that starts at file offset 6.
    {
        QRBJpegHeaderInfo info;
        const uint64_t fileSize = size + 6 + 4096;
        if (CQRBJpegHeaderParser::ParseExif(data, size, 6, fileSize, &info)) {
            if (info.orientation > 8) abort();
            if (info.exifThumbSize != 0 && (info.exifThumbOffset < 12 ||
                                            info.exifThumbOffset + info.exifThumbSize > fileSize)) {
                abort();
            }
        }
    }

    // 2. As a whole file, from memory.
    if (size > 0) {
        std::vector<uint8_t> copy(data, data + size);
        FILE* fp = fmemopen(copy.data(), copy.size(), "rb");
        if (fp != nullptr) {
            QRBJpegHeaderInfo info;
            if (CQRBJpegHeaderParser::ParseMarkers(fp, size, &info) == 0) {
                if (!info.hasFrame) abort();
                if (info.exifThumbOffset + info.exifThumbSize > size) abort();
                if (info.largeThumbOffset + info.largeThumbSize > size) abort();
                uint32_t w = 0;
                uint32_t h = 0;
                if (info.exifThumbSize != 0 &&
                    fseeko(fp, static_cast<off_t>(info.exifThumbOffset), SEEK_SET) == 0) {
                    CQRBImageDecoder::m_ParsePictureSize(
                        fp, info.exifThumbOffset + info.exifThumbSize, &w, &h);
                }
            }
            uint32_t w = 0;
            uint32_t h = 0;
            if (fseeko(fp, 0, SEEK_SET) == 0)
                CQRBImageDecoder::m_ParsePictureSize(fp, size, &w, &h);
            std::fclose(fp);
        }
    }

    // 3. Through the decoder, from a file.
    qrbfuzz::WriteNewFile(g_path, data, size);
    const int request = size > 0 ? 1 + data[size - 1] % 96 : 32;
    CQRBImageDecoder decoder(g_path.c_str(), request, request * 3 / 4 + 1, 0, false);
    const uint64_t outW = decoder.GetOutputWidth();
    const uint64_t outH = decoder.GetOutputHeight();
    if (outW * outH > static_cast<uint64_t>(CQRBImageUtil::kMaxPixels)) abort();
    // A full decode of a picture of hundreds of megapixels, or an output of as many, is allowed
    // by the decoder but would make each run take seconds; the fuzzer decodes only small ones.
    const uint64_t pixels =
        static_cast<uint64_t>(decoder.GetPictureWidth()) * decoder.GetPictureHeight();
    if (decoder.IsValid() && outW > 0 && outH > 0 && pixels <= (1u << 22) &&
        outW * outH <= (1u << 22)) {
        std::vector<unsigned char> out(outW * outH * 4);
        if (decoder.ExtractThumbnail(out.data()) == 0) {
            volatile unsigned char last = out.back();  // the whole raster was written to
            (void)last;
        }
    }
    return 0;
}
