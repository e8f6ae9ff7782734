// The video MTA reader on arbitrary bytes. The reader takes its file by media id from the video
// folder, so each input is written there first. Whatever it accepts must hold 1 to 5 frames whose
// buffers have exactly the announced size, and must survive a write and a second read unchanged.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "qrb_system_path.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

CQRBThumbnailVideoDecoder* g_decoder = nullptr;  // lives for the whole run
std::string g_root;



}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // the reader logs every rejection; keep the fuzzer's output readable
    g_root = qrbfuzz::ScratchRoot("mta");
    setenv("QRB_ROOT", g_root.c_str(), 1);
    std::string dir = g_root;
    for (const char* part : {"/opt", "/usr", "/apps", "/orvale", "/data", "/video"}) {
        dir += part;
        mkdir(dir.c_str(), 0700);
    }
    // No plug-ins under the scratch root: the binding fails quickly and only file code runs.
    g_decoder = new CQRBThumbnailVideoDecoder;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qrbfuzz::WriteNewFile(CQRBThumbnailVideoDecoder::m_VideoMtaPath("input"), data, size);
    _stRequestedItem request;
    request.strURL = "input;/media/fuzz.mp4";
    request.eThumbnailType = THUMB_VIDEO;
    request.FrameCount = 5;
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    if (!g_decoder->m_ParseVideoMtaFile(request, "input", item)) {
        if (item->GetImageCount() != 0) abort();  // a rejected file leaves the item empty
        return 0;
    }

    const auto& images = item->GetImages();
    if (images.empty() || images.size() > QRB_THUMB_MAX_IMAGES) abort();
    for (const auto& image : images) {
        const long long bytes =
            static_cast<long long>(image->GetWidth()) * image->GetHeight() * image->GetDepth();
        if (image->GetBuffer() == nullptr || bytes <= 0 || bytes != image->GetBufSize()) abort();
        volatile unsigned char last = image->GetBuffer()[bytes - 1];  // ASan checks the extent
        (void)last;
    }

    std::string copy = CQRBThumbnailVideoDecoder::m_VideoMtaPath("copy");
    if (!g_decoder->m_WriteVideoMtaFile(copy, item)) abort();
    boost::intrusive_ptr<CQRBThumbnailItem> again(new CQRBThumbnailItem);
    if (!g_decoder->m_ParseVideoMtaFile(request, "copy", again)) abort();
    if (again->GetImageCount() != item->GetImageCount()) abort();
    for (int i = 0; i < item->GetImageCount(); ++i) {
        const auto& a = images[i];
        const auto& b = again->GetImages()[i];
        if (a->GetWidth() != b->GetWidth() || a->GetHeight() != b->GetHeight() ||
            a->GetDepth() != b->GetDepth() || a->GetTimeStamp() != b->GetTimeStamp() ||
            std::memcmp(a->GetBuffer(), b->GetBuffer(), static_cast<size_t>(a->GetBufSize())) !=
                0) {
            abort();
        }
    }
    return 0;
}
