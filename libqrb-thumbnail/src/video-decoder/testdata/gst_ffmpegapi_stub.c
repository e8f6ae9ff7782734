/*
 * Stand-ins for the media framework's FFmpeg plug-ins, for the binding tests only: they export
 * the "gst_ffmpegapi_*" names of one library (QRB_STUB_DECODER or QRB_STUB_SCALER), less the one
 * that QRB_STUB_OMIT_SEEK_AVAILABLE or QRB_STUB_OMIT_SWS_SCALE leaves out. The binding only looks
 * names up, so every stand-in aborts when called: a test that reaches one fails loudly.
 */
#include <stdlib.h>

#define STUB(name)   \
    void name(void); \
    __attribute__((visibility("default"))) void name(void) { abort(); }

#ifdef QRB_STUB_DECODER
STUB(gst_ffmpegapi_avformat_open_input)
STUB(gst_ffmpegapi_avformat_close_input)
STUB(gst_ffmpegapi_avcodec_open)
STUB(gst_ffmpegapi_avcodec_close)
STUB(gst_ffmpegapi_avcodec_decode_video2)
STUB(gst_ffmpegapi_avcodec_alloc_frame)
STUB(gst_ffmpegapi_avcodec_alloc_packet)
STUB(gst_ffmpegapi_av_seek_frame)
STUB(gst_ffmpegapi_av_read_frame)
STUB(gst_ffmpegapi_av_init_packet)
STUB(gst_ffmpegapi_av_free_packet)
STUB(gst_ffmpegapi_avpicture_get_size)
STUB(gst_ffmpegapi_avpicture_fill)
STUB(gst_ffmpegapi_avcodec_free_frame)
#ifndef QRB_STUB_OMIT_SEEK_AVAILABLE
STUB(gst_ffmpegapi_av_seek_available)
#endif
STUB(gst_ffmpegapi_avcodec_flush_buffers)
#endif

#ifdef QRB_STUB_SCALER
STUB(gst_ffmpegapi_sws_getContext)
#ifndef QRB_STUB_OMIT_SWS_SCALE
STUB(gst_ffmpegapi_sws_scale)
#endif
STUB(gst_ffmpegapi_sws_freeContext)
#endif
