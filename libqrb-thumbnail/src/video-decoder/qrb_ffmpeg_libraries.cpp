// FFmpeg is loaded when the library first calls it, not when the process starts. Linked
// directly, its four libraries and the hundred codec and device libraries beneath them cost
// every process about 30 ms of dynamic loading, which a run that makes no video thumbnail
// would pay for nothing; a desktop calls a thumbnailer once per file.
//
// Each FFmpeg function the library calls is defined here, hidden (no application sees these
// definitions), as a forwarder to the real function: the first call opens the library by the
// soname this build was made against and looks the symbol up; later calls go straight through.
// The libraries are never closed. The media plug-ins link FFmpeg themselves and do not use
// this file; FFmpeg's filters, which only some pictures need, are loaded by
// qrb_avfilter_loader.cpp, here and in the scaler plug-in alike.

#include "qrb_log.h"

// The C library headers FFmpeg's headers include come first, so that the pragma below hides
// only FFmpeg's declarations: a libc function first declared hidden could not be linked.
#include <dlfcn.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <math.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#pragma GCC visibility push(hidden)
extern "C" {
#include <libavutil/display.h>
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}
#pragma GCC visibility pop

#define QRB_SONAME(name, major) "lib" name ".so." AV_STRINGIFY(major)
#define AvUtil QRB_SONAME("avutil", LIBAVUTIL_VERSION_MAJOR)
#define AvCodec QRB_SONAME("avcodec", LIBAVCODEC_VERSION_MAJOR)
#define AvFormat QRB_SONAME("avformat", LIBAVFORMAT_VERSION_MAJOR)
#define SwScale QRB_SONAME("swscale", LIBSWSCALE_VERSION_MAJOR)

namespace {

// The FFmpeg libraries are dependencies of this library's package, as they would be if it were
// linked against them: without them there is nothing sensible to go on with. Each forwarder
// resolves once; opening a library already open only counts it again.
template <typename Fn>
Fn Resolve(const char* soname, const char* symbol) {
    void* library = dlopen(soname, RTLD_LAZY | RTLD_LOCAL);
    void* function = library != nullptr ? dlsym(library, symbol) : nullptr;
    if (function == nullptr) {
        const char* reason = dlerror();
        QRB_LOGW("the FFmpeg function %s cannot be found in %s: %s", symbol, soname,
                 reason ? reason : "");
        std::abort();
    }
    return reinterpret_cast<Fn>(function);
}

}  // namespace

#define QRB_FORWARD(library, type, name, params, args)                                     \
    extern "C" type name params {                                                          \
        static const auto real = Resolve<type(*) params>(library, #name);                  \
        return real args;                                                                  \
    }

QRB_FORWARD(AvUtil, void, av_dict_free, (AVDictionary * *m), (m))
QRB_FORWARD(AvUtil, int, av_dict_set,
            (AVDictionary * *pm, const char* key, const char* value, int flags),
            (pm, key, value, flags))
QRB_FORWARD(AvUtil, AVFrame*, av_frame_alloc, (void), ())
QRB_FORWARD(AvUtil, void, av_frame_free, (AVFrame * *frame), (frame))
QRB_FORWARD(AvUtil, int, av_image_fill_arrays,
            (uint8_t * dst_data[4], int dst_linesize[4], const uint8_t* src,
             enum AVPixelFormat pix_fmt, int width, int height, int align),
            (dst_data, dst_linesize, src, pix_fmt, width, height, align))
QRB_FORWARD(AvUtil, int, av_image_get_buffer_size,
            (enum AVPixelFormat pix_fmt, int width, int height, int align),
            (pix_fmt, width, height, align))
QRB_FORWARD(AvUtil, const AVPixFmtDescriptor*, av_pix_fmt_desc_get, (enum AVPixelFormat pix_fmt),
            (pix_fmt))
QRB_FORWARD(AvUtil, int64_t, av_rescale_q, (int64_t a, AVRational bq, AVRational cq), (a, bq, cq))
QRB_FORWARD(AvUtil, int64_t, av_rescale, (int64_t a, int64_t b, int64_t c), (a, b, c))
QRB_FORWARD(AvUtil, char*, av_strdup, (const char* s), (s))
QRB_FORWARD(AvUtil, AVFrame*, av_frame_clone, (const AVFrame* src), (src))
QRB_FORWARD(AvUtil, void, av_frame_unref, (AVFrame * frame), (frame))
QRB_FORWARD(AvUtil, AVBufferRef*, av_buffer_ref, (const AVBufferRef* buf), (buf))
QRB_FORWARD(AvUtil, void, av_buffer_unref, (AVBufferRef * *buf), (buf))
QRB_FORWARD(AvUtil, void, av_frame_move_ref, (AVFrame * dst, AVFrame* src), (dst, src))
QRB_FORWARD(AvUtil, int, av_frame_get_buffer, (AVFrame * frame, int align), (frame, align))
QRB_FORWARD(AvUtil, int, av_frame_make_writable, (AVFrame * frame), (frame))
QRB_FORWARD(AvUtil, AVFrameSideData*, av_frame_get_side_data,
            (const AVFrame* frame, enum AVFrameSideDataType type), (frame, type))
QRB_FORWARD(AvUtil, void, av_image_copy_plane,
            (uint8_t * dst, int dst_linesize, const uint8_t* src, int src_linesize, int bytewidth,
             int height),
            (dst, dst_linesize, src, src_linesize, bytewidth, height))
QRB_FORWARD(AvUtil, double, av_display_rotation_get, (const int32_t matrix[9]), (matrix))

QRB_FORWARD(AvCodec, int, av_new_packet, (AVPacket * pkt, int size), (pkt, size))
QRB_FORWARD(AvCodec, AVPacket*, av_packet_alloc, (void), ())
QRB_FORWARD(AvCodec, void, av_packet_free, (AVPacket * *pkt), (pkt))
QRB_FORWARD(AvCodec, void, av_packet_unref, (AVPacket * pkt), (pkt))
QRB_FORWARD(AvCodec, AVCodecContext*, avcodec_alloc_context3, (const AVCodec* codec), (codec))
QRB_FORWARD(AvCodec, int, avcodec_close, (AVCodecContext * avctx), (avctx))
QRB_FORWARD(AvCodec, const AVCodec*, avcodec_find_decoder, (enum AVCodecID id), (id))
QRB_FORWARD(AvCodec, void, avcodec_flush_buffers, (AVCodecContext * avctx), (avctx))
QRB_FORWARD(AvCodec, int, avcodec_default_get_buffer2,
            (AVCodecContext * s, AVFrame* frame, int flags), (s, frame, flags))
QRB_FORWARD(AvCodec, void, avcodec_free_context, (AVCodecContext * *avctx), (avctx))
QRB_FORWARD(AvCodec, int, avcodec_open2,
            (AVCodecContext * avctx, const AVCodec* codec, AVDictionary** options),
            (avctx, codec, options))
QRB_FORWARD(AvCodec, int, avcodec_parameters_to_context,
            (AVCodecContext * codec, const AVCodecParameters* par), (codec, par))
QRB_FORWARD(AvCodec, int, avcodec_receive_frame, (AVCodecContext * avctx, AVFrame* frame),
            (avctx, frame))
QRB_FORWARD(AvCodec, int, avcodec_send_packet, (AVCodecContext * avctx, const AVPacket* avpkt),
            (avctx, avpkt))

QRB_FORWARD(AvFormat, int, av_find_best_stream,
            (AVFormatContext * ic, enum AVMediaType type, int wanted_stream_nb, int related_stream,
             const AVCodec** decoder_ret, int flags),
            (ic, type, wanted_stream_nb, related_stream, decoder_ret, flags))
QRB_FORWARD(AvFormat, const AVInputFormat*, av_find_input_format, (const char* short_name),
            (short_name))
QRB_FORWARD(AvFormat, int, av_read_frame, (AVFormatContext * s, AVPacket* pkt), (s, pkt))
QRB_FORWARD(AvFormat, int, av_seek_frame,
            (AVFormatContext * s, int stream_index, int64_t timestamp, int flags),
            (s, stream_index, timestamp, flags))
QRB_FORWARD(AvFormat, AVFormatContext*, avformat_alloc_context, (void), ())
QRB_FORWARD(AvFormat, uint8_t*, av_stream_get_side_data,
            (const AVStream* stream, enum AVPacketSideDataType type, size_t* size),
            (stream, type, size))
QRB_FORWARD(AvFormat, int64_t, avio_size, (AVIOContext * s), (s))
QRB_FORWARD(AvFormat, void, avformat_close_input, (AVFormatContext * *s), (s))
QRB_FORWARD(AvFormat, int, avformat_find_stream_info, (AVFormatContext * ic, AVDictionary** options),
            (ic, options))
QRB_FORWARD(AvFormat, int, avformat_open_input,
            (AVFormatContext * *ps, const char* url, const AVInputFormat* fmt,
             AVDictionary** options),
            (ps, url, fmt, options))

QRB_FORWARD(SwScale, void, sws_freeContext, (struct SwsContext * swsContext), (swsContext))
QRB_FORWARD(SwScale, struct SwsContext*, sws_getContext,
            (int srcW, int srcH, enum AVPixelFormat srcFormat, int dstW, int dstH,
             enum AVPixelFormat dstFormat, int flags, SwsFilter* srcFilter, SwsFilter* dstFilter,
             const double* param),
            (srcW, srcH, srcFormat, dstW, dstH, dstFormat, flags, srcFilter, dstFilter, param))
QRB_FORWARD(SwScale, int, sws_scale,
            (struct SwsContext * c, const uint8_t* const srcSlice[], const int srcStride[],
             int srcSliceY, int srcSliceH, uint8_t* const dst[], const int dstStride[]),
            (c, srcSlice, srcStride, srcSliceY, srcSliceH, dst, dstStride))
QRB_FORWARD(SwScale, const int*, sws_getCoefficients, (int colorspace), (colorspace))
QRB_FORWARD(SwScale, int, sws_setColorspaceDetails,
            (struct SwsContext * c, const int inv_table[4], int srcRange, const int table[4],
             int dstRange, int brightness, int contrast, int saturation),
            (c, inv_table, srcRange, table, dstRange, brightness, contrast, saturation))

