// The WMA (ASF) extractor on arbitrary bytes. It reads files, so each input is written to a
// scratch file first. A cover it hands back must be bytes of the input and no longer than an
// accepted value (256 bytes); a failed extraction leaves no cover; the texts are valid C strings.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "id3-extractor/qrb_wma_extractor.h"

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



}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    g_path = qrbfuzz::ScratchRoot("asf") + "/input.wma";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qrbfuzz::WriteNewFile(g_path, data, size);
    QRBWMAExtractor extractor;
    QRBWMAContentDesc* raw = nullptr;
    const bool ok = extractor.Extract(g_path.c_str(), &raw);
    const std::unique_ptr<QRBWMAContentDesc> desc(raw);
    if (!desc) abort();
    const uint32_t length = desc->GetCoverArtSize();
    if (!ok && length != 0) abort();
    if ((length == 0) != (desc->GETCOVERARTPOINTER() == nullptr)) abort();
    if (length > QRBWMAExtractor::kMaxValueLength || length > size) abort();
    if (length > 0 && memmem(data, size, desc->GETCOVERARTPOINTER(), length) == nullptr) abort();
    // Every text is terminated within a bounded length (touching it lets ASan check).
    for (const char* text :
         {desc->GETTITLE(), desc->GETARTIST(), desc->GETALBUM(), desc->GETGENRE()}) {
        if (std::strlen(text) > 3 * 65536) abort();
    }
    return 0;
}
