// The media decoding functions of the table in qrb_thumbnail_ffmpeg_define.h, written over
// Debian's FFmpeg. The same sources are compiled into the two plug-in libraries (which export
// them as "gst_ffmpegapi_*", see platform/linux/gst-ffmpeg/) and into this library, where the
// direct grabber (m_GetFrame) calls them without going through the plug-ins.
//
// Every function has the prototype of its table entry; see the comments there. None throws.
// Inputs are hostile: what they may open, how long they may probe and how large a picture may
// be are limited here, once, for both callers.
#ifndef QRB_FFMPEG_API_IMPL_H
#define QRB_FFMPEG_API_IMPL_H

#include "video-decoder/qrb_ffmpeg_scoped.h"
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"

#include <cstdint>

namespace qrbffmpeg {

// No video this service shows is larger; 8192 x 8192 keeps one decoded picture and one ARGB
// raster of it well below half a gigabyte, and every byte count inside an int.
constexpr int kMaxSide = 8192;
constexpr int64_t kMaxPixels = static_cast<int64_t>(kMaxSide) * kMaxSide;

// Probing reads at most this much of a file, and this much of its duration, before the streams
// must be known: enough for every container we list, bounded for a crafted one.
constexpr int64_t kProbeBytes = 5 * 1000 * 1000;
constexpr int64_t kAnalyzeMicroseconds = 5 * 1000 * 1000;

// The containers a video thumbnail is taken from. Listing them keeps the demuxers that open
// further files on their own (HLS and DASH playlists, concat lists, IMF, image sequences) out of
// reach of a crafted file.
extern const char* const kVideoFormats;

// Opens a regular local file with the file protocol only, the listed containers and bounded
// probing. 0 and *context set, or a negative AVERROR and *context null. Device files and pipes
// are refused: reading them may never end. formats is a comma-separated whitelist of demuxers;
// interrupt, when given, is installed on the context (it must outlive it).
int OpenFormat(const char* path, const char* formats, AVFormatContext** context,
               const AVIOInterruptCB* interrupt = nullptr);

// Wraps an input already opened by the caller (the direct grabber's) the way open input does;
// closing the wrapper leaves that input open.
int AdoptInput(AVFormatContext* context, QRBFFmpegInput** input);

int OpenInput(const char* path, QRBFFmpegInput** input);
void CloseInput(QRBFFmpegInput** input);
int CodecOpen(AVCodecContext* context, const AVCodec* codec);
int CodecClose(AVCodecContext* context);
int DecodeVideo(AVCodecContext* context, AVFrame* frame, int* got_picture, const AVPacket* packet);
AVFrame* AllocFrame();
AVPacket* AllocPacket();
int SeekFrame(QRBFFmpegInput* input, int64_t timestamp_us);
int ReadFrame(QRBFFmpegInput* input, AVPacket* packet);
void InitPacket(AVPacket* packet);
void FreePacket(AVPacket* packet);
int PictureSize(int format, int width, int height);
int PictureFill(AVFrame* frame, const uint8_t* buffer, int format, int width, int height);
void FreeFrame(AVFrame** frame);
int SeekAvailable(QRBFFmpegInput* input);
void FlushBuffers(AVCodecContext* context);

SwsContext* SwsGetContext(int src_width, int src_height, int src_format, int dst_width,
                          int dst_height, int dst_format);
int SwsScale(SwsContext* context, const uint8_t* const src[], const int src_stride[],
             int src_slice_y, int src_slice_h, uint8_t* const dst[], const int dst_stride[]);
void SwsFreeContext(SwsContext* context);
int SwsSetSourceFrame(SwsContext* context, const AVFrame* source);

}  // namespace qrbffmpeg

#endif
