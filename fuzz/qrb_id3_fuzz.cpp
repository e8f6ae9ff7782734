// The ID3 extractor on arbitrary bytes. It reads files, so each input is written to a scratch
// file first. Whatever it hands back must be bytes of the input: a picture no longer than the
// file (and than the limit it was given), from an ID3v2.2 or v2.3 tag; without a picture, the
// length is 0 and the result code one of the extractor's own.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "id3-extractor/qrb_id3_extractor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

std::string g_path;



void Check(const uint8_t* data, size_t size, uint32_t limit) {
    QRBID3Extractor extractor(limit);
    QRBID3* raw = nullptr;
    const int ret = extractor.Extract(g_path.c_str(), &raw);
    const std::unique_ptr<QRBID3> id3(raw);
    if (!id3) abort();
    if (ret != 0 && ret != QRB_ID3_ERR_NO_V1_TAG && ret != QRB_ID3_ERR_V1_READ &&
        ret != QRB_ID3_ERR_V1_SEEK) {
        abort();
    }
    if (!id3->HasImage()) {
        if (id3->uImageLength != 0) abort();
        return;
    }
    const uint32_t length = id3->uImageLength;
    if (ret != 0 || (id3->nVersion != 22 && id3->nVersion != 23)) abort();
    if (length <= 2 || length > size || length > limit) abort();
    if (memmem(data, size, id3->puImageBuf.get(), length) == nullptr) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // the extractor logs every rejection; keep the output readable
    g_path = qrbfuzz::ScratchRoot("id3") + "/input.mp3";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qrbfuzz::WriteNewFile(g_path, data, size);
    Check(data, size, QRBID3Extractor::kNoImageLimit);
    Check(data, size, 64);  // a caller's limit below most pictures
    return 0;
}
