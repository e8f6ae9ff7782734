/*
 * The media decoding table: the frame-grabbing functions that the video worker binds at run
 * time from the media framework's two FFmpeg plug-in libraries, "libgstffmpeg.so" (demuxing and
 * decoding) and "libgstffmpegscale.so" (scaling), both under the plug-in folder.
 *
 * The first half of this header is the plug-ins' interface, plain C: the opened-input record and
 * one function-pointer type per exported "gst_ffmpegapi_*" symbol. A plug-in library includes it
 * with QRB_FFMPEGAPI_PLUGIN defined, so that its definitions are checked against the
 * declarations at the end of the C part. The plug-ins are built over the same FFmpeg libraries
 * that this library links (Debian's FFmpeg 5.1), so the FFmpeg records that cross the interface
 * (AVCodecContext, AVCodec, AVFrame, AVPacket) have one layout on both sides. This project's
 * own plug-ins are in platform/linux/gst-ffmpeg/, over the implementation in
 * qrb_ffmpeg_api_impl.h.
 *
 * The second half is the process-wide table and its binding (C++). The table is written while a
 * video decoder is constructed and read by the video workers, which take a copy of it at the
 * start of every extraction (qrb_ffmpeg_api_snapshot). The binding and the copy hold one lock, so
 * a decoder built while another one extracts (as the tests do, and as the service could) never
 * lets a worker see half a table.
 */
#ifndef QRB_THUMBNAIL_FFMPEG_DEFINE_H
#define QRB_THUMBNAIL_FFMPEG_DEFINE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct AVCodec;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

/*
 * Output pixel formats, the plug-ins' own codes (not FFmpeg's AVPixelFormat numbers): the
 * format argument of picture size and picture fill, and the destination format of the scaler.
 * 0 is the library's 32-bit ARGB raster: 4 bytes a pixel, in memory blue, green, red, alpha
 * (FFmpeg's AV_PIX_FMT_BGRA), rows packed.
 */
#define QRB_FFMPEGAPI_FMT_ARGB 0

/*
 * One opened media file, made by open input and released by close input (which also releases
 * the codec context and the plug-in's format context). The library reads the plain fields and
 * passes the record back to the plug-in; it never frees any part of it itself.
 */
typedef struct QRBFFmpegInput {
    int64_t duration;       /* media duration in microseconds (AV_TIME_BASE), < 0 unknown */
    int width;              /* picture width of the video stream */
    int height;             /* picture height of the video stream */
    int video_stream_index; /* packets of other streams are skipped */
    int time_base_num;      /* the video stream's time base: packet and frame */
    int time_base_den;      /*   pts are in units of num / den seconds */
    struct AVCodecContext* codec_context;   /* filled from the stream's parameters; carries
                                               coded_width, coded_height and pix_fmt */
    const struct AVCodec* video_codec;      /* the decoder for the video stream */
    struct AVFormatContext* format_context; /* the plug-in's own; the library does not touch it */
    int64_t start_pts; /* the video stream's first timestamp, in its time base (0 when unknown):
                          frame positions are counted from it */
    int sar_num;       /* the container's sample aspect ratio (the shape of one stored pixel), */
    int sar_den;       /*   0 / 1 when it gives none: the decoded pictures' own then holds */
    int orientation;   /* how the display matrix turns the stored picture, as an EXIF
                          orientation: 1 upright, 6 a quarter turn clockwise, 3 a half turn,
                          8 a quarter turn anticlockwise, 2 / 4 / 5 / 7 their mirrored forms */
} QRBFFmpegInput;

/* Opens path and finds its video stream. 0 and *input set, or a negative error and *input
 * null. Only regular local files in the common video containers are opened (no network, no
 * playlists or manifests that reach other files), probing is bounded, and a video stream above
 * 8192 pixels on a side is refused. A file whose container gives no duration gets one measured
 * from its last timestamps or, for a bare stream without any, estimated from its size (it is
 * then sought by bytes, and its pictures are stamped from where they lie in the file). */
typedef int (*qrb_ffmpegapi_open_input_fn)(const char* path, QRBFFmpegInput** input);
/* Releases everything open input made and nulls *input. */
typedef void (*qrb_ffmpegapi_close_input_fn)(QRBFFmpegInput** input);
/* Opens the codec context with the codec; negative on failure. */
typedef int (*qrb_ffmpegapi_codec_open_fn)(struct AVCodecContext* context,
                                           const struct AVCodec* codec);
typedef int (*qrb_ffmpegapi_codec_close_fn)(struct AVCodecContext* context);
/* Feeds one packet and fetches a picture if one is complete: the number of bytes used (>= 0)
 * with *got_picture 0 or 1, or a negative error. */
typedef int (*qrb_ffmpegapi_decode_video_fn)(struct AVCodecContext* context, struct AVFrame* frame,
                                             int* got_picture, const struct AVPacket* packet);
typedef struct AVFrame* (*qrb_ffmpegapi_alloc_frame_fn)(void);
/* A blank packet. The packet object itself is released with av_packet_free by the library. */
typedef struct AVPacket* (*qrb_ffmpegapi_alloc_packet_fn)(void);
/* Seeks the video stream to the key frame at or before timestamp_us (microseconds). >= 0 on
 * success. */
typedef int (*qrb_ffmpegapi_seek_frame_fn)(QRBFFmpegInput* input, int64_t timestamp_us);
/* Reads the next packet of any stream; negative at the end or on error. */
typedef int (*qrb_ffmpegapi_read_frame_fn)(QRBFFmpegInput* input, struct AVPacket* packet);
/* Resets the packet to blank (its payload released). */
typedef void (*qrb_ffmpegapi_init_packet_fn)(struct AVPacket* packet);
/* Releases the packet's payload; the packet object stays usable. */
typedef void (*qrb_ffmpegapi_free_packet_fn)(struct AVPacket* packet);
/* Bytes needed for a picture of this output format and size; < 1 when impossible (also for a
 * side above 8192 pixels). */
typedef int (*qrb_ffmpegapi_picture_size_fn)(int format, int width, int height);
/* Points the frame's planes and strides into buffer for this output format and size;
 * negative on failure. */
typedef int (*qrb_ffmpegapi_picture_fill_fn)(struct AVFrame* frame, const uint8_t* buffer,
                                             int format, int width, int height);
/* A scaler from source size and source format (an FFmpeg AVPixelFormat, as the codec context
 * carries it) to destination size and output format; the flags are the plug-in's choice. Null on
 * failure. */
typedef struct SwsContext* (*qrb_ffmpegapi_sws_get_context_fn)(int src_width, int src_height,
                                                               int src_format, int dst_width,
                                                               int dst_height, int dst_format);
/* Scales a slice of rows; the number of output rows, <= 0 on failure. A scaler told of
 * high-dynamic-range or interlaced pictures (below) takes whole pictures only (slice 0 to the
 * height). */
typedef int (*qrb_ffmpegapi_sws_scale_fn)(struct SwsContext* context, const uint8_t* const src[],
                                          const int src_stride[], int src_slice_y, int src_slice_h,
                                          uint8_t* const dst[], const int dst_stride[]);
typedef void (*qrb_ffmpegapi_sws_free_context_fn)(struct SwsContext* context);
/* Releases the frame and nulls *frame. */
typedef void (*qrb_ffmpegapi_free_frame_fn)(struct AVFrame** frame);
/* 0 when the input can be seeked, non-zero when it cannot. */
typedef int (*qrb_ffmpegapi_seek_available_fn)(QRBFFmpegInput* input);
typedef void (*qrb_ffmpegapi_flush_buffers_fn)(struct AVCodecContext* context);
/* Not one of the table's nineteen, and optional: tells a scaler what the pictures it converts
 * are, by the decoded frame they come from (its matrix, range, transfer, primaries and light
 * levels, each falling back on the usual one for the picture's size when the stream does not
 * say), so that it converts them as a player shows them: with the stream's own matrix and
 * range, tone-mapped to BT.709 when they are PQ or HLG, and deinterlaced when the frame is
 * interlaced (the scaler then scales its own progressive copy of the frame, which must be the
 * one whose rows the scale is handed). 0 on success. Without it a scaler converts with the usual
 * matrix for the picture's size, limited range. */
typedef int (*qrb_ffmpegapi_sws_set_source_fn)(struct SwsContext* context,
                                               const struct AVFrame* source);

#ifdef QRB_FFMPEGAPI_PLUGIN
/* What the plug-in libraries export, with C linkage. libgstffmpeg.so: */
int gst_ffmpegapi_avformat_open_input(const char* path, QRBFFmpegInput** input);
void gst_ffmpegapi_avformat_close_input(QRBFFmpegInput** input);
int gst_ffmpegapi_avcodec_open(struct AVCodecContext* context, const struct AVCodec* codec);
int gst_ffmpegapi_avcodec_close(struct AVCodecContext* context);
int gst_ffmpegapi_avcodec_decode_video2(struct AVCodecContext* context, struct AVFrame* frame,
                                        int* got_picture, const struct AVPacket* packet);
struct AVFrame* gst_ffmpegapi_avcodec_alloc_frame(void);
struct AVPacket* gst_ffmpegapi_avcodec_alloc_packet(void);
int gst_ffmpegapi_av_seek_frame(QRBFFmpegInput* input, int64_t timestamp_us);
int gst_ffmpegapi_av_read_frame(QRBFFmpegInput* input, struct AVPacket* packet);
void gst_ffmpegapi_av_init_packet(struct AVPacket* packet);
void gst_ffmpegapi_av_free_packet(struct AVPacket* packet);
int gst_ffmpegapi_avpicture_get_size(int format, int width, int height);
int gst_ffmpegapi_avpicture_fill(struct AVFrame* frame, const uint8_t* buffer, int format,
                                 int width, int height);
void gst_ffmpegapi_avcodec_free_frame(struct AVFrame** frame);
int gst_ffmpegapi_av_seek_available(QRBFFmpegInput* input);
void gst_ffmpegapi_avcodec_flush_buffers(struct AVCodecContext* context);
/* libgstffmpegscale.so: */
struct SwsContext* gst_ffmpegapi_sws_getContext(int src_width, int src_height, int src_format,
                                                int dst_width, int dst_height, int dst_format);
int gst_ffmpegapi_sws_scale(struct SwsContext* context, const uint8_t* const src[],
                            const int src_stride[], int src_slice_y, int src_slice_h,
                            uint8_t* const dst[], const int dst_stride[]);
void gst_ffmpegapi_sws_freeContext(struct SwsContext* context);
int gst_ffmpegapi_sws_setSourceFrame(struct SwsContext* context, const struct AVFrame* source);
#endif

/*
 * The table, members in lookup order after the two library handles. Each entry is a plain
 * function pointer; null means not bound.
 */
typedef struct QRBFFmpegApi {
    void* decoder_library;
    void* scaler_library;
    qrb_ffmpegapi_open_input_fn open_input;
    qrb_ffmpegapi_close_input_fn close_input;
    qrb_ffmpegapi_codec_open_fn codec_open;
    qrb_ffmpegapi_codec_close_fn codec_close;
    qrb_ffmpegapi_decode_video_fn decode_video;
    qrb_ffmpegapi_alloc_frame_fn alloc_frame;
    qrb_ffmpegapi_alloc_packet_fn alloc_packet;
    qrb_ffmpegapi_seek_frame_fn seek_frame;
    qrb_ffmpegapi_read_frame_fn read_frame;
    qrb_ffmpegapi_init_packet_fn init_packet;
    qrb_ffmpegapi_free_packet_fn free_packet;
    qrb_ffmpegapi_picture_size_fn picture_size;
    qrb_ffmpegapi_picture_fill_fn picture_fill;
    qrb_ffmpegapi_sws_get_context_fn sws_get_context;
    qrb_ffmpegapi_sws_scale_fn sws_scale;
    qrb_ffmpegapi_sws_free_context_fn sws_free_context;
    qrb_ffmpegapi_free_frame_fn free_frame;
    qrb_ffmpegapi_seek_available_fn seek_available;
    qrb_ffmpegapi_flush_buffers_fn flush_buffers;
    /* Looked up after the nineteen, in the scaler library; null when the plug-in lacks it,
       which neither stops the binding nor fails the check. */
    qrb_ffmpegapi_sws_set_source_fn sws_set_source;
} QRBFFmpegApi;

#ifdef __cplusplus
}

#include <string>

/* The one table of the process. Rebinding overwrites it; nothing ever clears it. */
extern QRBFFmpegApi g_QRBFFmpegApi;

/* Where the plug-ins are looked for: under QRB_ROOT when it is set; else the device's fixed
   folder when it holds them; else the "gstreamer-1.0/" folder beside this library, where an
   installation on a host puts them. */
std::string QRBFFmpegPluginFolder();
std::string QRBFFmpegDecoderLibraryPath();
std::string QRBFFmpegScalerLibraryPath();

/*
 * Binds the table: clears *ready, opens both plug-ins (lazy binding) and looks every symbol up
 * in table order, stopping at the first one missing with its message. *ready becomes 1 only
 * after a complete binding. Never throws. The libraries are deliberately never closed: the
 * table's pointers point into them for the life of the process.
 */
void qrb_init_ffmpeg_api(unsigned char* ready);

/* A consistent copy of the table, for one extraction. */
QRBFFmpegApi qrb_ffmpeg_api_snapshot();

/*
 * The grabber's check before every extraction: true when all nineteen functions are bound. The
 * ready flag is not consulted, since a binding may report ready without the seek-available
 * function.
 */
bool qrb_check_ffmpeg_api(const QRBFFmpegApi& api);
#endif

#endif
