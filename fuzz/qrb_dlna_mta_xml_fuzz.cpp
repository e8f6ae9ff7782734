// The DLNA MTA loader and qrb_dlna_asf_mta_decode on arbitrary bytes. Both read files, so each
// input is written to a scratch file first. A loaded file has at least one chapter and every
// chapter's picture lies within its stated length; the decode succeeds exactly for five chapters
// and hands out five entries whose pictures match the loader's.
#include "dlna-helper/qrb_dlna_video_ac_info.h"
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "qrb_thumbnail.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_path;



}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // every rejection is logged; keep the fuzzer's output readable
    g_path = qrbfuzz::ScratchRoot("dlna-mta") + "/input.mta";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qrbfuzz::WriteNewFile(g_path, data, size);
    QRBDlnaVideoACInfo info;
    const bool loaded = info.LoadVideoACInfo(g_path.c_str()) == 0;
    if (loaded != (info.GetChapterNum() > 0)) abort();
    for (int i = 0; i < info.GetChapterNum(); ++i) {
        const unsigned char* bytes = nullptr;
        const unsigned long length = info.GetVideoChapterThumbStream(i, &bytes);
        // Base64 makes at most three bytes of four characters of the input.
        if (length > size) abort();
        if (length > 0) {
            volatile unsigned char last = bytes[length - 1];  // ASan checks the extent
            (void)last;
        }
    }

    thumb_asf_mta_info_s* infos = nullptr;
    int count = 0;
    const int code = qrb_dlna_asf_mta_decode(g_path.c_str(), &infos, &count);
    if ((code == QRB_DLNA_MTA_OK) != (info.GetChapterNum() == 5)) abort();
    if (code != QRB_DLNA_MTA_OK) {
        if (code != QRB_DLNA_MTA_UNREADABLE || infos != nullptr) abort();
        return 0;
    }
    if (count != 5 || infos == nullptr) abort();
    for (int i = 0; i < 5; ++i) {
        const unsigned char* bytes = nullptr;
        const unsigned long length = info.GetVideoChapterThumbStream(i, &bytes);
        if (infos[i].stream == nullptr || infos[i].size != static_cast<int>(length)) abort();
        if (length > 0 && std::memcmp(infos[i].stream, bytes, length) != 0) abort();
        if (infos[i].start_time != static_cast<int>(info.GetVideoChapterStartTime(i))) abort();
    }
    qrb_dlna_asf_mta_free(infos, count);
    return 0;
}
