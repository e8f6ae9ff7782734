// Ownership of FFmpeg handles: one std::unique_ptr alias per handle type, for the code in this
// folder that calls FFmpeg directly (the media functions, the direct grabber, the recording
// decoder). FFmpeg's own release functions take the address of the pointer; the wrappers below
// adapt them to the QRBScoped shape.
#ifndef QRB_FFMPEG_SCOPED_H
#define QRB_FFMPEG_SCOPED_H

#include "qrb_scoped.h"

#include <cstdlib>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

inline void QRBCloseFormatContext(AVFormatContext* context) { avformat_close_input(&context); }
inline void QRBFreeCodecContext(AVCodecContext* context) { avcodec_free_context(&context); }
inline void QRBFreeAVFrame(AVFrame* frame) { av_frame_free(&frame); }
inline void QRBFreeAVPacket(AVPacket* packet) { av_packet_free(&packet); }

// An input opened with avformat_open_input.
using QRBScopedFormatContext = QRBScoped<AVFormatContext, QRBCloseFormatContext>;
using QRBScopedCodecContext = QRBScoped<AVCodecContext, QRBFreeCodecContext>;
using QRBScopedFrame = QRBScoped<AVFrame, QRBFreeAVFrame>;
using QRBScopedPacket = QRBScoped<AVPacket, QRBFreeAVPacket>;
using QRBScopedSwsContext = QRBScoped<SwsContext, sws_freeContext>;

// A malloc'ed buffer for swscale to write a packed picture of `bytes` into. The scaler writes
// whole groups of pixels: on a narrow picture (2 wide, say) it writes past the end of each row,
// and past the buffer after the last one. The slack takes that.
inline unsigned char* QRBAllocScalerOutput(size_t bytes) {
    constexpr size_t kScalerSlack = 64;
    return static_cast<unsigned char*>(std::malloc(bytes + kScalerSlack));
}

// av_dict_free takes the address of the pointer, so the dictionary is held by value.
struct QRBScopedDictionary {
    AVDictionary* dict = nullptr;
    QRBScopedDictionary() = default;
    QRBScopedDictionary(const QRBScopedDictionary&) = delete;
    QRBScopedDictionary& operator=(const QRBScopedDictionary&) = delete;
    ~QRBScopedDictionary() { av_dict_free(&dict); }
};

#endif
