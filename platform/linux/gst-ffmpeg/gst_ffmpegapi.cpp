// libgstffmpeg.so: the decoder half of the media framework's FFmpeg plug-in interface, exported
// with C linkage under the names the video worker looks up. Each export forwards to the shared
// implementation (libqrb-thumbnail/src/video-decoder/qrb_ffmpeg_decode_impl.cpp), which this
// module carries a private copy of: everything but the exports is hidden, so the module never
// binds to the copy inside the library that loads it.
#define QRB_FFMPEGAPI_PLUGIN
#include "video-decoder/qrb_ffmpeg_api_impl.h"

#define QRB_PLUGIN_EXPORT __attribute__((visibility("default")))

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avformat_open_input(const char* path, QRBFFmpegInput** input) {
    return qrbffmpeg::OpenInput(path, input);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_avformat_close_input(QRBFFmpegInput** input) {
    qrbffmpeg::CloseInput(input);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avcodec_open(AVCodecContext* context, const AVCodec* codec) {
    return qrbffmpeg::CodecOpen(context, codec);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avcodec_close(AVCodecContext* context) {
    return qrbffmpeg::CodecClose(context);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avcodec_decode_video2(AVCodecContext* context, AVFrame* frame,
                                                          int* got_picture,
                                                          const AVPacket* packet) {
    return qrbffmpeg::DecodeVideo(context, frame, got_picture, packet);
}

QRB_PLUGIN_EXPORT AVFrame* gst_ffmpegapi_avcodec_alloc_frame(void) {
    return qrbffmpeg::AllocFrame();
}

QRB_PLUGIN_EXPORT AVPacket* gst_ffmpegapi_avcodec_alloc_packet(void) {
    return qrbffmpeg::AllocPacket();
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_av_seek_frame(QRBFFmpegInput* input, int64_t timestamp_us) {
    return qrbffmpeg::SeekFrame(input, timestamp_us);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_av_read_frame(QRBFFmpegInput* input, AVPacket* packet) {
    return qrbffmpeg::ReadFrame(input, packet);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_av_init_packet(AVPacket* packet) {
    qrbffmpeg::InitPacket(packet);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_av_free_packet(AVPacket* packet) {
    qrbffmpeg::FreePacket(packet);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avpicture_get_size(int format, int width, int height) {
    return qrbffmpeg::PictureSize(format, width, height);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_avpicture_fill(AVFrame* frame, const uint8_t* buffer,
                                                   int format, int width, int height) {
    return qrbffmpeg::PictureFill(frame, buffer, format, width, height);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_avcodec_free_frame(AVFrame** frame) {
    qrbffmpeg::FreeFrame(frame);
}

QRB_PLUGIN_EXPORT int gst_ffmpegapi_av_seek_available(QRBFFmpegInput* input) {
    return qrbffmpeg::SeekAvailable(input);
}

QRB_PLUGIN_EXPORT void gst_ffmpegapi_avcodec_flush_buffers(AVCodecContext* context) {
    qrbffmpeg::FlushBuffers(context);
}
