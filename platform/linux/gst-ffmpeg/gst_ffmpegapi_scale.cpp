// libgstffmpegscale.so: the scaler half of the media framework's FFmpeg plug-in interface. Like
// the decoder half, it forwards to a private copy of the shared implementation
// (libqrb-thumbnail/src/video-decoder/qrb_ffmpeg_scale_impl.cpp) and exports nothing else.
#define QRB_FFMPEGAPI_PLUGIN
#include "video-decoder/qrb_ffmpeg_api_impl.h"

#define QRB_PLUGIN_EXPORT __attribute__((visibility("default")))

QRB_PLUGIN_EXPORT SwsContext* gst_ffmpegapi_sws_getContext(int src_width, int src_height,
                                                           int src_format, int dst_width,
                                                           int dst_height, int dst_format) {
    return qrbffmpeg::SwsGetContext(src_width, src_height, src_format, dst_width, dst_height,
                                    dst_format);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_sws_scale(SwsContext* context, const uint8_t* const src[],
                                              const int src_stride[], int src_slice_y,
                                              int src_slice_h, uint8_t* const dst[],
                                              const int dst_stride[]) {
    return qrbffmpeg::SwsScale(context, src, src_stride, src_slice_y, src_slice_h, dst, dst_stride);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_sws_freeContext(SwsContext* context) {
    qrbffmpeg::SwsFreeContext(context);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_sws_setSourceFrame(SwsContext* context, const AVFrame* source) {
    return qrbffmpeg::SwsSetSourceFrame(context, source);
}
