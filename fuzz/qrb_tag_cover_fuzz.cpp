// Cover extraction through TagLib on arbitrary bytes: the container is the one the first bytes
// announce, or, for inputs that announce none, one chosen by the first byte, so that every
// TagLib reader sees every input. Whatever comes back must be bytes of the input and within the
// cover limit; a failure leaves no cover.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "id3-extractor/qrb_tag_cover_extractor.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_path;

constexpr QRBCoverContainer kContainers[] = {
    QRBCoverContainer::kFlac,     QRBCoverContainer::kMp4,      QRBCoverContainer::kOggVorbis,
    QRBCoverContainer::kOggOpus,  QRBCoverContainer::kOggFlac,  QRBCoverContainer::kOggSpeex,
    QRBCoverContainer::kApe,      QRBCoverContainer::kWavPack};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    g_path = qrbfuzz::ScratchRoot("tag-cover") + "/input";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    qrbfuzz::WriteNewFile(g_path, data, size);
    QRBCoverContainer container = QRBTagCoverExtractor::SniffFile(g_path.c_str());
    if (container == QRBCoverContainer::kNone) {
        container = kContainers[data[0] % (sizeof(kContainers) / sizeof(kContainers[0]))];
    }
    std::string cover = "left over";
    const int ret = QRBTagCoverExtractor::Extract(g_path.c_str(), container, &cover);
    if (ret != 0) {
        if (ret != -1 || !cover.empty()) abort();
        return 0;
    }
    if (cover.empty() || cover.size() > QRBTagCoverExtractor::kMaxCoverLength) abort();
    // Every container but Ogg stores the picture as it is; Ogg stores it in base64.
    const bool ogg = container == QRBCoverContainer::kOggVorbis ||
                     container == QRBCoverContainer::kOggOpus ||
                     container == QRBCoverContainer::kOggFlac ||
                     container == QRBCoverContainer::kOggSpeex;
    if (!ogg && (cover.size() > size || memmem(data, size, cover.data(), cover.size()) == nullptr)) {
        abort();
    }
    return 0;
}
