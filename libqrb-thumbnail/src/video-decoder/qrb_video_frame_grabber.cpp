#include "video-decoder/qrb_video_frame_grabber.h"

#include "image-decoder/qrb_image_util.h"
#include "qrb_log.h"
#include "qrb_thumb_image.h"
#include "video-decoder/qrb_ffmpeg_scoped.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <malloc.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

// Frames, inputs, opened codecs and scalers made through a media table are released through the
// same table; the packet object itself is released with av_packet_free (the table's contract).
struct ApiFrameFree {
    qrb_ffmpegapi_free_frame_fn free_frame;
    void operator()(AVFrame* frame) const noexcept {
        if (frame != nullptr) free_frame(&frame);
    }
};
using QRBApiFrame = std::unique_ptr<AVFrame, ApiFrameFree>;

struct ApiInputClose {
    qrb_ffmpegapi_close_input_fn close_input;
    void operator()(QRBFFmpegInput* input) const noexcept {
        if (input != nullptr) close_input(&input);
    }
};
using QRBApiInput = std::unique_ptr<QRBFFmpegInput, ApiInputClose>;

// An opened codec: closed at the end; the context itself belongs to the input.
struct ApiCodecClose {
    qrb_ffmpegapi_codec_close_fn codec_close;
    void operator()(AVCodecContext* context) const noexcept {
        if (context != nullptr) codec_close(context);
    }
};
using QRBApiOpenCodec = std::unique_ptr<AVCodecContext, ApiCodecClose>;

struct ApiSwsFree {
    qrb_ffmpegapi_sws_free_context_fn sws_free_context;
    void operator()(SwsContext* context) const noexcept {
        if (context != nullptr) sws_free_context(context);
    }
};
using QRBApiSwsContext = std::unique_ptr<SwsContext, ApiSwsFree>;

using QRBMallocBuffer = std::unique_ptr<unsigned char, decltype(&std::free)>;

// A picture this large keeps some 100 MiB of decoder state while it is decoded: the video
// workers decode such pictures one at a time, so that a batch of 4K videos stays within what
// one decode needs, and one core is no slower for it.
constexpr long long kLargePicturePixels = 2LL * 1920 * 1088;
struct LargeDecodeGate {
    std::mutex mutex;
    std::condition_variable freed;
    bool taken = false;

    static LargeDecodeGate& Get() {
        static LargeDecodeGate gate;
        return gate;
    }
};

// The fall-backs decode at most about this many 1080p pictures' worth of packets each (250
// packets of a 1080p stream, 62 of a 4K one, never fewer than 25): ten seconds of most video,
// a few seconds of processor time at worst.
constexpr long long kForwardBudgetPixels = 250LL * 1920 * 1088;
// How far before a position the first fall-back starts decoding: more than the key-frame
// distance of nearly every stream.
constexpr long long kBackOffUs = 5 * 1000 * 1000;
// How many packets a fall-back reads past while looking for its first key frame: a minute of
// most video.
constexpr int kSkippedPackets = 1500;

// A sample aspect ratio outside these bounds is no real one (a crafted stream's): square
// pixels are assumed instead of a picture thousands of pixels wide.
bool SensibleAspect(AVRational sar) {
    return sar.num > 0 && sar.den > 0 && sar.num <= 8LL * sar.den && sar.den <= 8LL * sar.num;
}

// A thumbnail at most a quarter of the picture's size on each side hides what the loop filter
// smooths; skipping it saves a fifth of the decoding.
bool ThumbnailIsSmall(int wantW, int wantH, int srcW, int srcH) {
    return wantW > 0 && wantH > 0 && 4LL * wantW <= srcW && 4LL * wantH <= srcH;
}

}  // namespace

struct QRBVideoFrameGrabber::Resources {
    QRBApiInput input;
    QRBApiOpenCodec codec;
    QRBApiFrame frame;
    QRBApiFrame held;  // the fall-backs' latest picture before the position
    QRBApiFrame scaled;
    QRBScopedPacket packet;
};

QRBVideoFrameGrabber::QRBVideoFrameGrabber(const QRBFFmpegApi& api, QRBFFmpegInput* input,
                                           const _stRequestedItem& request,
                                           boost::intrusive_ptr<CQRBThumbnailItem> item,
                                           FrameCallback callback, void* user,
                                           std::function<bool()> abandoned)
    : m_Api(api),
      m_Request(request),
      m_Item(std::move(item)),
      m_Callback(callback),
      m_User(user),
      m_Abandoned(std::move(abandoned)),
      m_Res(new Resources{QRBApiInput(input, ApiInputClose{api.close_input}),
                          QRBApiOpenCodec(nullptr, ApiCodecClose{api.codec_close}),
                          QRBApiFrame(nullptr, ApiFrameFree{api.free_frame}),
                          QRBApiFrame(nullptr, ApiFrameFree{api.free_frame}),
                          QRBApiFrame(nullptr, ApiFrameFree{api.free_frame}), nullptr}) {}

QRBVideoFrameGrabber::~QRBVideoFrameGrabber() {
    QRB_LOGD("release ffmpeg resource begin");
    m_Res->scaled.reset();
    m_Res->held.reset();
    m_Res->frame.reset();
    m_Res->packet.reset();
    m_Res->codec.reset();
    m_Res->input.reset();
    // Each worker thread allocates from its own malloc arena, which keeps what a large decode
    // freed: four workers taking turns would hold four decoders' worth. Handed back now.
    if (m_HoldsLargeDecode) malloc_trim(0);
    m_FreeLargeDecode();
    QRB_LOGD("release ffmpeg resource end");
}

bool QRBVideoFrameGrabber::Run() {
    if (!m_Open()) return false;
    const int frameCount = m_Request.FrameCount;
    for (int i = 0; i < frameCount; ++i) {
        if (m_Abandoned()) {
            QRB_LOGW("stop requested, frame grabbing abandoned at frame[%d]", i);
            return false;
        }
        AVFrame* picture = m_TakePosition(i);
        if (m_Abandoned()) {
            QRB_LOGW("stop requested, frame grabbing abandoned at frame[%d]", i);
            return false;
        }
        // Between positions the decoder forgets what it held, whether or not this position
        // gave a picture: the next one starts from another key frame.
        if (frameCount > i + 1) m_Api.flush_buffers(m_Res->codec.get());
        m_Api.free_packet(m_Res->packet.get());
        if (picture != nullptr && !m_Deliver(i, picture)) return false;
    }
    return true;
}

bool QRBVideoFrameGrabber::m_Open() {
    QRBFFmpegInput* input = m_Res->input.get();
    if (m_Api.seek_available(input) != 0) {
        QRB_LOGW("ffmpeg_av_seek_frame_available fail!");
        return false;
    }
    // Both sides must reach 4K: a 3840 x 2000 picture is decoded like any other.
    m_Is4K = input->width >= 3840 && input->height >= 2160;
    QRB_LOGD("width [%d], height[%d]\n", input->width, input->height);
    if (m_Is4K) QRB_LOGD("4K video: only key frames are decoded");
    if (!m_OpenCodec()) return false;

    m_Res->frame.reset(m_Api.alloc_frame());
    m_Res->held.reset(m_Api.alloc_frame());
    m_Res->scaled.reset(m_Api.alloc_frame());
    if (!m_Res->frame || !m_Res->held || !m_Res->scaled) {
        QRB_LOGW("alloc frame error");
        return false;
    }
    m_Res->packet.reset(m_Api.alloc_packet());
    if (!m_Res->packet) {
        QRB_LOGW("ffmpeg_avcodec_alloc_packet fail!");
        return false;
    }
    // A length nobody could tell, not even the plug-in from the file's last timestamps or its
    // size, leaves no positions to spread over: every position is then the start, as for a
    // container that says 0.
    long long duration = input->duration;
    if (duration < 0) {
        QRB_LOGW("duration [%lld] error", duration);
        duration = 0;
    }
    m_Step = duration / (m_Request.FrameCount + 1);
    const long long pixels = static_cast<long long>(input->width) * input->height;
    m_ForwardBudget = static_cast<int>(
        std::max(25LL, std::min(250LL, kForwardBudgetPixels / std::max(pixels, 1LL))));
    return true;
}

bool QRBVideoFrameGrabber::m_OpenCodec() {
    QRBFFmpegInput* input = m_Res->input.get();
    AVCodecContext* context = input->codec_context;
    if (context == nullptr) {
        QRB_LOGW("codec_context pointer is NULL\n");
        return false;
    }
    if (input->video_codec == nullptr) {
        QRB_LOGW("video_codec pointer is NULL\n");
        return false;
    }
    if (static_cast<long long>(input->width) * input->height > kLargePicturePixels &&
        !m_WaitForLargeDecode()) {
        QRB_LOGW("stop requested, frame grabbing abandoned at frame[%d]", 0);
        return false;
    }
    if (ThumbnailIsSmall(m_Request.width, m_Request.height, input->width, input->height)) {
        context->skip_loop_filter = AVDISCARD_ALL;
    }
    // Of a 4K stream only key pictures are decoded. An HEVC decoder told so keeps no buffers
    // for the references of the pictures that lead an open GOP's key picture (the media
    // functions let them share one), and film grain, invisible at thumbnail size, is not
    // applied into a picture of its own.
    if (m_Is4K && input->video_codec->id == AV_CODEC_ID_HEVC) {
        context->skip_frame = AVDISCARD_NONKEY;
        context->export_side_data |= AV_CODEC_EXPORT_DATA_FILM_GRAIN;
    }
    if (m_Api.codec_open(context, input->video_codec) < 0) {
        QRB_LOGW("ffmpeg_avcodec_open2 error");
        return false;
    }
    m_Res->codec.reset(context);
    return true;
}

bool QRBVideoFrameGrabber::m_WaitForLargeDecode() {
    LargeDecodeGate& gate = LargeDecodeGate::Get();
    std::unique_lock<std::mutex> lock(gate.mutex);
    // Woken when the gate is freed; a worker told to stop notices within 20 ms.
    while (gate.taken) {
        if (m_Abandoned()) return false;
        gate.freed.wait_for(lock, std::chrono::milliseconds(20));
    }
    gate.taken = true;
    m_HoldsLargeDecode = true;
    return true;
}

void QRBVideoFrameGrabber::m_FreeLargeDecode() {
    if (!m_HoldsLargeDecode) return;
    LargeDecodeGate& gate = LargeDecodeGate::Get();
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.taken = false;
    }
    gate.freed.notify_one();
    m_HoldsLargeDecode = false;
}

AVFrame* QRBVideoFrameGrabber::m_TakePosition(int i) {
    QRB_LOGD("get frame[%d]", i);
    const long long target = m_Step * (i + 1);
    if (m_Api.seek_frame(m_Res->input.get(), target) < 0) {
        // Read on from where the demuxer stands: the frame comes out late, not wrong.
        QRB_LOGW("seek to %lld failed", target);
    }
    m_Api.init_packet(m_Res->packet.get());
    if (m_ReadFromKeyFrame(i)) return m_Res->frame.get();
    if (m_Abandoned()) return nullptr;
    return m_FallBack(i, target);
}

bool QRBVideoFrameGrabber::m_ReadFromKeyFrame(int i) {
    AVPacket* packet = m_Res->packet.get();
    int attempts = 0;
    int decoded = 0;
    int skipped = 0;
    bool got = false;
    while (!got) {
        if (m_Abandoned()) break;
        if (!m_ReadVideoPacket()) {
            QRB_LOGD("bFind:%d,frame:%d", got ? 1 : 0, i);
            break;
        }
        // Decoding starts at a key frame and then follows the packets until a picture is
        // complete; a 4K video decodes key frames only, the others cost too much.
        const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        if (m_Is4K ? !key : (!key && decoded == 0)) {
            ++skipped;
            m_Api.free_packet(packet);
            m_Api.init_packet(packet);
            continue;
        }
        int gotPicture = 0;
        const int len =
            m_Api.decode_video(m_Res->codec.get(), m_Res->frame.get(), &gotPicture, packet);
        ++decoded;
        if (len < 0) {
            ++attempts;
            QRB_LOGW("Decode Falied: len < 0");
            m_Api.free_packet(packet);
            if (attempts < 201) {
                m_Api.init_packet(packet);
                continue;
            }
            break;
        }
        if (gotPicture == 0 && m_Is4K && m_Drain()) gotPicture = 1;
        if (gotPicture == 0) {
            ++attempts;
            QRB_LOGD("frame:[%d] decode not finished.", i);
            m_Api.free_packet(packet);
            if (attempts > 200) break;
            m_Api.init_packet(packet);
            continue;
        }
        got = true;
    }
    QRB_LOGD("frame[%d]: %d packets decoded, %d skipped", i, decoded, skipped);
    return got;
}

bool QRBVideoFrameGrabber::m_Drain() {
    // A decoder that reorders pictures holds a key frame back until later ones arrive; of a 4K
    // video only key frames are decoded, each a costly one, so the held picture is asked for
    // at once instead. Without one, the decoder is made ready for the next packet again.
    AVCodecContext* codec = m_Res->codec.get();
    int gotPicture = 0;
    if (m_Api.decode_video(codec, m_Res->frame.get(), &gotPicture, nullptr) >= 0 &&
        gotPicture != 0) {
        return true;
    }
    m_Api.flush_buffers(codec);
    return false;
}

AVFrame* QRBVideoFrameGrabber::m_FallBack(int i, long long targetUs) {
    const long long starts[2] = {targetUs > kBackOffUs ? targetUs - kBackOffUs : -1, 0};
    for (long long from : starts) {
        if (from < 0 || m_Abandoned()) continue;
        QRB_LOGW("frame[%d]: no picture from the key frame at %lld ms; decoding from %lld ms on",
                 i, targetUs / 1000, from / 1000);
        m_Api.flush_buffers(m_Res->codec.get());
        if (m_Api.seek_frame(m_Res->input.get(), from) < 0) continue;
        AVFrame* picture = m_DecodeOnward(targetUs);
        if (picture != nullptr) return picture;
    }
    return nullptr;
}

AVFrame* QRBVideoFrameGrabber::m_DecodeOnward(long long targetUs) {
    AVCodecContext* codec = m_Res->codec.get();
    AVPacket* packet = m_Res->packet.get();
    // Every picture is decoded now, so the loop filter keeps references whole for the ones
    // after them.
    const int skipLoopFilter = codec->skip_loop_filter;
    const int skipFrame = codec->skip_frame;
    if (skipLoopFilter == AVDISCARD_ALL) codec->skip_loop_filter = AVDISCARD_NONREF;
    codec->skip_frame = AVDISCARD_DEFAULT;
    bool keyed = false;
    bool haveHeld = false;
    bool draining = false;
    AVFrame* answer = nullptr;
    // Packets before the first key frame are read, not decoded: bounded apart.
    int skipped = 0;
    for (int n = 0; n < m_ForwardBudget && skipped < kSkippedPackets && answer == nullptr &&
                    !m_Abandoned();) {
        if (!draining && !m_ReadVideoPacket()) draining = true;
        if (!draining && !keyed && !(packet->flags & AV_PKT_FLAG_KEY)) {
            ++skipped;
            continue;
        }
        keyed = true;
        ++n;
        int gotPicture = 0;
        const int len = m_Api.decode_video(codec, m_Res->frame.get(), &gotPicture,
                                           draining ? nullptr : packet);
        m_Api.free_packet(packet);
        if (len < 0 || gotPicture == 0) {
            if (draining) break;  // nothing more held back in the decoder
            continue;
        }
        const long long at = m_PictureTimeUs(m_Res->frame.get());
        if (at < 0 || at >= targetUs) {
            answer = m_Res->frame.get();
        } else {
            // The latest picture before the position so far: kept while the next is decoded.
            std::swap(m_Res->frame, m_Res->held);
            haveHeld = true;
        }
    }
    codec->skip_loop_filter = static_cast<AVDiscard>(skipLoopFilter);
    codec->skip_frame = static_cast<AVDiscard>(skipFrame);
    if (answer == nullptr && haveHeld) answer = m_Res->held.get();
    return answer;
}

bool QRBVideoFrameGrabber::m_ReadVideoPacket() {
    QRBFFmpegInput* input = m_Res->input.get();
    AVPacket* packet = m_Res->packet.get();
    for (;;) {
        m_Api.init_packet(packet);
        if (m_Api.read_frame(input, packet) < 0) {
            m_Api.free_packet(packet);
            return false;
        }
        if (packet->stream_index == input->video_stream_index) return true;
        m_Api.free_packet(packet);
    }
}

long long QRBVideoFrameGrabber::m_PictureTimeUs(const AVFrame* picture) const {
    const QRBFFmpegInput* input = m_Res->input.get();
    long long pts = picture->best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) pts = picture->pts;
    if (pts == AV_NOPTS_VALUE || input->time_base_num <= 0 || input->time_base_den <= 0) return -1;
    return av_rescale_q(pts - input->start_pts, {input->time_base_num, input->time_base_den},
                        {1, 1000000});
}

void QRBVideoFrameGrabber::m_ShownSize(const AVFrame* picture, long long* width,
                                       long long* height) const {
    const QRBFFmpegInput* input = m_Res->input.get();
    // The container's shape of a pixel first, as players take it; else the stream's own.
    AVRational sar = {input->sar_num, input->sar_den};
    if (!SensibleAspect(sar)) sar = picture->sample_aspect_ratio;
    long long w = picture->width;
    if (SensibleAspect(sar) && sar.num != sar.den) {
        w = std::max(1LL, (static_cast<long long>(picture->width) * sar.num + sar.den / 2) / sar.den);
    }
    const bool turned = input->orientation >= 5 && input->orientation <= 8;
    *width = turned ? picture->height : w;
    *height = turned ? w : picture->height;
}

bool QRBVideoFrameGrabber::m_Deliver(int i, AVFrame* picture) {
    const QRBFFmpegInput* input = m_Res->input.get();
    QRB_LOGD("pts=%lld,dts:%lld", static_cast<long long>(picture->pts),
             static_cast<long long>(picture->pkt_dts));
    // The size the picture is shown at, covering the wanted box (the callback then crops the
    // centre); a wanted side of 0 keeps the shown size.
    long long shownW = 0;
    long long shownH = 0;
    m_ShownSize(picture, &shownW, &shownH);
    uint64_t outW = static_cast<uint64_t>(shownW);
    uint64_t outH = static_cast<uint64_t>(shownH);
    if (m_Request.width > 0 && m_Request.height > 0) {
        CQRBImageUtil::CoverSize(outW, outH, static_cast<uint64_t>(m_Request.width),
                                 static_cast<uint64_t>(m_Request.height),
                                 QRBCoverRounding::kExactProducts, &outW, &outH);
    }
    const bool fits = outW > 0 && outH > 0 && outW <= INT_MAX && outH <= INT_MAX;
    const int width = fits ? static_cast<int>(outW) : 0;
    const int height = fits ? static_cast<int>(outH) : 0;
    const bool turned = input->orientation >= 5 && input->orientation <= 8;
    unsigned char* argb = m_Scale(picture, turned ? height : width, turned ? width : height);
    if (argb == nullptr) return false;
    argb = m_Turn(argb, turned ? height : width, turned ? width : height);
    if (argb == nullptr) return false;

    long long pts = picture->best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) pts = picture->pts;
    if (pts == AV_NOPTS_VALUE) pts = input->start_pts;
    const AVRational timeBase = {input->time_base_num > 0 ? input->time_base_num : 1,
                                 input->time_base_den > 0 ? input->time_base_den : 1};
    // Milliseconds from the start of the video stream.
    const long long timestamp = av_rescale_q(pts - input->start_pts, timeBase, {1, 1000});
    QRB_LOGD(
        "success get video thumbnail:frame=%d,coded_width=%d,coded_height=%d,timestamp:%lld,"
        "frame_data[%p].",
        i, picture->width, picture->height, timestamp, static_cast<void*>(argb));
    // The callback owns the buffer from here on, whatever it answers.
    m_Callback(m_Request, argb, nullptr, timestamp, width, height, m_User, m_Item);
    return true;
}

unsigned char* QRBVideoFrameGrabber::m_Scale(AVFrame* picture, int width, int height) {
    const int numBytes =
        width > 0 && height > 0 ? m_Api.picture_size(QRB_FFMPEGAPI_FMT_ARGB, width, height) : -1;
    if (numBytes < 1) {
        QRB_LOGW("numBytes[%d]\n", numBytes);
        return nullptr;
    }
    QRBMallocBuffer buffer(QRBAllocScalerOutput(static_cast<size_t>(numBytes)), &std::free);
    if (!buffer) {
        QRB_LOGW("malloc fail!");
        return nullptr;
    }
    AVFrame* scaled = m_Res->scaled.get();
    if (m_Api.picture_fill(scaled, buffer.get(), QRB_FFMPEGAPI_FMT_ARGB, width, height) < 0) {
        QRB_LOGW("ffmpeg_av_picture_fill fail!");
        return nullptr;
    }
    // The decoded picture's own size and format, not the stream's: a stream may change them
    // midway, and the scaler must read exactly what the picture holds.
    QRBApiSwsContext sws(m_Api.sws_get_context(picture->width, picture->height, picture->format,
                                               width, height, QRB_FFMPEGAPI_FMT_ARGB),
                         ApiSwsFree{m_Api.sws_free_context});
    if (!sws) {
        QRB_LOGW("ffmpeg_av_sws_getcontent fail!");
        return nullptr;
    }
    // The stream's own colours; a scaler without the call keeps the usual ones for the size.
    if (m_Api.sws_set_source != nullptr && m_Api.sws_set_source(sws.get(), picture) < 0) {
        QRB_LOGD("the scaler took no source description");
    }
    QRB_LOGD("begin to scale");
    if (m_Api.sws_scale(sws.get(), picture->data, picture->linesize, 0, picture->height,
                        scaled->data, scaled->linesize) <= 0) {
        QRB_LOGW("ffmpeg_av_sws_scale fail!");
        return nullptr;
    }
    return buffer.release();
}

unsigned char* QRBVideoFrameGrabber::m_Turn(unsigned char* argb, int width, int height) {
    const int orientation = m_Res->input->orientation;
    if (orientation < 2 || orientation > 8) return argb;
    // The ARGB operations' own rotation, on a copy handed back (the image frees its buffer).
    CQRBThumbImage image;
    image.Create(width, height, 4, static_cast<long>(width) * 4, argb, 0);
    if (!image.RotateARGB(orientation)) {
        QRB_LOGW("frame of %dx%d cannot be turned for orientation %d", width, height, orientation);
        return nullptr;
    }
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    unsigned char* turned = static_cast<unsigned char*>(std::malloc(bytes));
    if (turned == nullptr) {
        QRB_LOGW("malloc fail!");
        return nullptr;
    }
    std::memcpy(turned, image.GetBuffer(), bytes);
    return turned;
}
