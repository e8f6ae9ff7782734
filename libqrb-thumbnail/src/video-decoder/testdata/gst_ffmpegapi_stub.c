/*
 * Stand-ins for the media framework's FFmpeg plug-ins, for the binding tests only: they export
 * the "gst_ffmpegapi_*" symbols (or all but one of them, as the build chooses) so that the
 * binding can be exercised against real shared libraries. The binding only looks symbols up;
 * a test that reaches any of these functions is wrong, so each one aborts.
 *
 * QRB_STUB_DECODER builds the decoder library, QRB_STUB_SCALER the scaler library;
 * QRB_STUB_OMIT_SEEK_AVAILABLE and QRB_STUB_OMIT_SWS_SCALE leave one symbol out.
 */
#define QRB_FFMPEGAPI_PLUGIN
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"

#include <stdio.h>
#include <stdlib.h>

#define QRB_STUB_EXPORT __attribute__((visibility("default")))

static void NeverCalled(const char* name) {
    fprintf(stderr, "stub plug-in function %s was called\n", name);
    abort();
}

#ifdef QRB_STUB_DECODER
QRB_STUB_EXPORT int gst_ffmpegapi_avformat_open_input(const char* path, QRBFFmpegInput** input) {
    (void)path;
    (void)input;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT void gst_ffmpegapi_avformat_close_input(QRBFFmpegInput** input) {
    (void)input;
    NeverCalled(__func__);
}
QRB_STUB_EXPORT int gst_ffmpegapi_avcodec_open(struct AVCodecContext* context,
                                               const struct AVCodec* codec) {
    (void)context;
    (void)codec;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT int gst_ffmpegapi_avcodec_close(struct AVCodecContext* context) {
    (void)context;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT int gst_ffmpegapi_avcodec_decode_video2(struct AVCodecContext* context,
                                                        struct AVFrame* frame, int* got_picture,
                                                        const struct AVPacket* packet) {
    (void)context;
    (void)frame;
    (void)got_picture;
    (void)packet;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT struct AVFrame* gst_ffmpegapi_avcodec_alloc_frame(void) {
    NeverCalled(__func__);
    return NULL;
}
QRB_STUB_EXPORT struct AVPacket* gst_ffmpegapi_avcodec_alloc_packet(void) {
    NeverCalled(__func__);
    return NULL;
}
QRB_STUB_EXPORT int gst_ffmpegapi_av_seek_frame(QRBFFmpegInput* input, int64_t timestamp_us) {
    (void)input;
    (void)timestamp_us;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT int gst_ffmpegapi_av_read_frame(QRBFFmpegInput* input, struct AVPacket* packet) {
    (void)input;
    (void)packet;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT void gst_ffmpegapi_av_init_packet(struct AVPacket* packet) {
    (void)packet;
    NeverCalled(__func__);
}
QRB_STUB_EXPORT void gst_ffmpegapi_av_free_packet(struct AVPacket* packet) {
    (void)packet;
    NeverCalled(__func__);
}
QRB_STUB_EXPORT int gst_ffmpegapi_avpicture_get_size(int format, int width, int height) {
    (void)format;
    (void)width;
    (void)height;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT int gst_ffmpegapi_avpicture_fill(struct AVFrame* frame, const uint8_t* buffer,
                                                 int format, int width, int height) {
    (void)frame;
    (void)buffer;
    (void)format;
    (void)width;
    (void)height;
    NeverCalled(__func__);
    return -1;
}
QRB_STUB_EXPORT void gst_ffmpegapi_avcodec_free_frame(struct AVFrame** frame) {
    (void)frame;
    NeverCalled(__func__);
}
#ifndef QRB_STUB_OMIT_SEEK_AVAILABLE
QRB_STUB_EXPORT int gst_ffmpegapi_av_seek_available(QRBFFmpegInput* input) {
    (void)input;
    NeverCalled(__func__);
    return -1;
}
#endif
QRB_STUB_EXPORT void gst_ffmpegapi_avcodec_flush_buffers(struct AVCodecContext* context) {
    (void)context;
    NeverCalled(__func__);
}
#endif /* QRB_STUB_DECODER */

#ifdef QRB_STUB_SCALER
QRB_STUB_EXPORT struct SwsContext* gst_ffmpegapi_sws_getContext(int src_width, int src_height,
                                                                int src_format, int dst_width,
                                                                int dst_height, int dst_format) {
    (void)src_width;
    (void)src_height;
    (void)src_format;
    (void)dst_width;
    (void)dst_height;
    (void)dst_format;
    NeverCalled(__func__);
    return NULL;
}
#ifndef QRB_STUB_OMIT_SWS_SCALE
QRB_STUB_EXPORT int gst_ffmpegapi_sws_scale(struct SwsContext* context, const uint8_t* const src[],
                                            const int src_stride[], int src_slice_y,
                                            int src_slice_h, uint8_t* const dst[],
                                            const int dst_stride[]) {
    (void)context;
    (void)src;
    (void)src_stride;
    (void)src_slice_y;
    (void)src_slice_h;
    (void)dst;
    (void)dst_stride;
    NeverCalled(__func__);
    return -1;
}
#endif
QRB_STUB_EXPORT void gst_ffmpegapi_sws_freeContext(struct SwsContext* context) {
    (void)context;
    NeverCalled(__func__);
}
#endif /* QRB_STUB_SCALER */
