// Scaling half of the media functions (the scaler plug-in's part).
#include "video-decoder/qrb_ffmpeg_api_impl.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace qrbffmpeg {

SwsContext* SwsGetContext(int src_width, int src_height, int src_format, int dst_width,
                          int dst_height, int dst_format) {
    if (dst_format != QRB_FFMPEGAPI_FMT_ARGB) return nullptr;
    if (src_width <= 0 || src_height <= 0 || src_width > kMaxSide || src_height > kMaxSide ||
        dst_width <= 0 || dst_height <= 0 || dst_width > kMaxSide || dst_height > kMaxSide) {
        return nullptr;
    }
    const AVPixelFormat source = static_cast<AVPixelFormat>(src_format);
    if (av_pix_fmt_desc_get(source) == nullptr) return nullptr;
    // Bilinear: a thumbnail is mostly a strong reduction, where it averages enough, and it
    // costs a fraction of the sharper filters.
    return sws_getContext(src_width, src_height, source, dst_width, dst_height, AV_PIX_FMT_BGRA,
                          SWS_BILINEAR, nullptr, nullptr, nullptr);
}

int SwsScale(SwsContext* context, const uint8_t* const src[], const int src_stride[],
             int src_slice_y, int src_slice_h, uint8_t* const dst[], const int dst_stride[]) {
    if (context == nullptr || src == nullptr || src_stride == nullptr || dst == nullptr ||
        dst_stride == nullptr) {
        return -1;
    }
    return sws_scale(context, src, src_stride, src_slice_y, src_slice_h, dst, dst_stride);
}

void SwsFreeContext(SwsContext* context) { sws_freeContext(context); }

}  // namespace qrbffmpeg
