// The recording (PVR) MTA reader on arbitrary bytes. Each input is written beside a ".srf" path
// and read back through the reader. Whatever it accepts must hold 1 to 5 frames whose buffers
// have exactly the announced size, and a file of 4-byte pixels must survive a write and a second
// read unchanged.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_root;



void FreeAll(_thumb_result& result) {
    for (auto*& buffer : result.pBuffer) {
        std::free(buffer);
        buffer = nullptr;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // the reader logs every rejection; keep the fuzzer's output readable
    g_root = qrbfuzz::ScratchRoot("pvr-mta");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qrbfuzz::WriteNewFile(g_root + "/input.mta", data, size);
    CQRBThumbanailPVRDecoder decoder;
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    if (decoder.ParsePvrMtaFile((g_root + "/input.srf").c_str(), &result) != 0) {
        for (auto* buffer : result.pBuffer) {
            if (buffer != nullptr) abort();  // a rejected file allocates nothing
        }
        return 0;
    }
    if (result.count < 1 || result.count > QRB_THUMB_MAX_IMAGES) abort();
    const long long bytes = static_cast<long long>(result.width) * result.height * result.depth;
    for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) {
        if ((i < result.count) != (result.pBuffer[i] != nullptr)) abort();
        if (i >= result.count) continue;
        if (bytes <= 0 || result.nBufSize[i] != bytes) abort();
        volatile unsigned char last = result.pBuffer[i][bytes - 1];  // ASan checks the extent
        (void)last;
    }

    if (result.depth == 4) {
        const std::string copy = g_root + "/copy.mta";
        if (decoder.m_SaveMtaFile(result.pBuffer, result.width, result.height, 4, result.count,
                                  copy.c_str()) != 0) {
            abort();
        }
        _thumb_result again;
        std::memset(&again, 0, sizeof(again));
        if (decoder.ParsePvrMtaFile((g_root + "/copy.srf").c_str(), &again) != 0) abort();
        if (again.count != result.count || again.width != result.width ||
            again.height != result.height) {
            abort();
        }
        for (int i = 0; i < result.count; ++i) {
            if (std::memcmp(again.pBuffer[i], result.pBuffer[i], static_cast<size_t>(bytes)) != 0) {
                abort();
            }
        }
        FreeAll(again);
    }
    FreeAll(result);
    return 0;
}
