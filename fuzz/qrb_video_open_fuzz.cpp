// Video opening and frame grabbing on arbitrary bytes: the input is written to a file, opened
// the way the video worker opens a local video (the listed containers, bounded probing) and
// one or two frames are grabbed from it by the library's own grabber, which calls the same
// media functions the plug-ins export, at a request size taken from the input's last two
// bytes. Every image handed back must be whole, and no more than were asked for.
#include "dlog_sink.h"
#include "qrb_fuzz_scratch.h"
#include "qrb_requested_item.h"
#include "qrb_thumb_image.h"
#include "qrb_thumbnail_item.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

std::string g_path;
CQRBThumbnailVideoDecoder* g_decoder = nullptr;

// A stream that announces pictures larger than this is left alone: decoding one damaged
// picture of many megapixels takes seconds under the sanitizer, which would starve the run.
constexpr int64_t kMaxFuzzPixels = 1 << 20;

bool Small(const AVFormatContext* context) {
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVCodecParameters* par = context->streams[i]->codecpar;
        if (static_cast<int64_t>(par->width) * par->height > kMaxFuzzPixels) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    av_log_set_level(AV_LOG_QUIET);
    g_path = qrbfuzz::ScratchRoot("video-open") + "/input";
    g_decoder = new CQRBThumbnailVideoDecoder;  // kept for the life of the process
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    qrbfuzz::WriteNewFile(g_path, data, size);
    const int width = 1 + data[size - 2] % 64;
    const int height = 1 + data[size - 1] % 64;
    const int frames = 1 + data[size - 1] / 128;

    AVFormatContext* context = nullptr;
    if (!g_decoder->m_FFMpegInit(g_path.c_str(), &context)) {
        if (context != nullptr) abort();  // a failed open leaves nothing open
        return 0;
    }
    if (context == nullptr) abort();
    if (Small(context)) {
        _stRequestedItem request;
        request.strURL = g_path;
        boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
        g_decoder->m_GetFrame(context, frames, width, height,
                              &CQRBThumbnailVideoDecoder::Video_Complete_Cb, request, item,
                              nullptr);
        if (item->GetImageCount() > frames) abort();
        for (const auto& image : item->GetImages()) {
            const int w = image->GetWidth();
            const int h = image->GetHeight();
            if (w <= 0 || h <= 0 || image->GetBuffer() == nullptr) abort();
            volatile unsigned char last = image->GetBuffer()[static_cast<size_t>(w) * h * 4 - 1];
            (void)last;
        }
    }
    g_decoder->m_FFMpegDeInit(&context);
    return 0;
}
