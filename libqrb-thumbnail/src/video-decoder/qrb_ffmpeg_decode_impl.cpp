// Demuxing and decoding half of the media functions (the decoder plug-in's part).
#include "video-decoder/qrb_ffmpeg_api_impl.h"
#include "video-decoder/qrb_ffmpeg_scoped.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
}

#include <sys/stat.h>

#include <cerrno>
#include <cmath>

#include <algorithm>
#include <iterator>
#include <chrono>
#include <cstring>
#include <new>

namespace qrbffmpeg {

const char* const kVideoFormats =
    "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,avi,asf,flv,mpegts,mpeg,mpegvideo,m4v,h264,hevc,"
    "vc1,ogg,rm,dv,mxf,nut,wtv,mjpeg,yuv4mpegpipe";

namespace {

// A read that has not returned after this long is cut short: a crafted file can keep a demuxer
// scanning for its next packet, and a local file never needs nearly this much.
constexpr auto kReadDeadline = std::chrono::seconds(10);

using Clock = std::chrono::steady_clock;

struct Deadline {
    Clock::time_point at = Clock::time_point::max();
    void Arm() { at = Clock::now() + kReadDeadline; }
};

int DeadlinePassed(void* opaque) {
    return Clock::now() > static_cast<Deadline*>(opaque)->at ? 1 : 0;
}

// What open input hands out: the public record first, the owners behind it. The library sees
// only the record; close input turns it back into this. The codec context's opaque field points
// back here, so that the decode function finds the input its pictures come from.
struct Input : QRBFFmpegInput {
    Deadline deadline;
    QRBScopedFormatContext ownedFormat;  // null for an adopted input
    QRBScopedCodecContext codec;
    // A bare stream without timestamps: its clock is the byte position, its duration estimated
    // (see MeasureDuration), fileBytes its size.
    bool byteClock = false;
    int64_t fileBytes = 0;
    // Pictures the decoder has asked for during the current packet, and the one buffer its
    // stand-in references share (see GetBuffer).
    int picturesThisPacket = 0;
    QRBScopedFrame standIn{av_frame_alloc()};
};

// How the display matrix turns the stored picture, as an EXIF orientation (1 to 8), in the way
// FFmpeg's own command line reads the matrix: the angle first, then the signs that tell a
// mirrored form. Angles other than quarter turns are shown unturned.
int OrientationOf(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (data == nullptr || size < 9 * sizeof(int32_t)) return 1;
    int32_t m[9];
    std::memcpy(m, data, sizeof(m));
    double theta = -av_display_rotation_get(m);  // clockwise, in degrees
    if (std::isnan(theta)) return 1;
    theta -= 360 * std::floor(theta / 360 + 0.9 / 360);
    if (std::fabs(theta - 90) < 1) return m[3] > 0 ? 5 : 6;
    if (std::fabs(theta - 180) < 1) {
        const bool h = m[0] < 0;
        const bool v = m[4] < 0;
        return h && v ? 3 : h ? 2 : v ? 4 : 1;
    }
    if (std::fabs(theta - 270) < 1) return m[3] < 0 ? 7 : 8;
    if (std::fabs(theta) < 1) return m[4] < 0 ? 4 : 1;
    return 1;
}

// A duration for a container that gives none. With timestamps: the end of the last video packet
// in the file's last kTailBytes. Without any (a bare elementary stream): the file's size over
// the mean size of its first pictures, at the stream's frame rate, and the input's clock
// becomes the byte position. Reads at most kSamplePackets + kTailPackets packets; the grabber
// seeks before every position, so where this leaves the demuxer does not matter.
constexpr int kSamplePackets = 50;
constexpr int kTailPackets = 20000;
constexpr int64_t kTailBytes = 4 * 1024 * 1024;

void MeasureDuration(Input& input, AVFormatContext* context, const AVStream* stream) {
    const int64_t size = context->pb != nullptr ? avio_size(context->pb) : -1;
    if (size <= 0) return;
    QRBScopedPacket packet(av_packet_alloc());
    if (!packet) return;
    int pictures = 0;
    int64_t bytes = 0;
    bool stamped = false;
    for (int n = 0; n < kSamplePackets && av_read_frame(context, packet.get()) >= 0; ++n) {
        if (packet->stream_index == stream->index) {
            ++pictures;
            bytes += packet->size;
            stamped = stamped || packet->pts != AV_NOPTS_VALUE || packet->dts != AV_NOPTS_VALUE;
        }
        av_packet_unref(packet.get());
    }
    if (pictures == 0) return;
    if (!stamped) {
        AVRational rate = stream->avg_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) rate = {25, 1};
        const double frames = static_cast<double>(size) * pictures / std::max<int64_t>(bytes, 1);
        // At most a year: a crafted stream of one-byte pictures at a crawling rate stays a
        // number the clock can hold.
        const double us = std::min(frames * AV_TIME_BASE / av_q2d(rate), 365.0 * 86400 * 1e6);
        input.duration = static_cast<int64_t>(us);
        input.byteClock = true;
        input.fileBytes = size;
        return;
    }
    input.deadline.Arm();
    if (av_seek_frame(context, -1, std::max<int64_t>(0, size - kTailBytes), AVSEEK_FLAG_BYTE) < 0) {
        return;
    }
    int64_t end = AV_NOPTS_VALUE;
    for (int n = 0; n < kTailPackets && av_read_frame(context, packet.get()) >= 0; ++n) {
        const int64_t t = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (packet->stream_index == stream->index && t != AV_NOPTS_VALUE) {
            end = std::max(end, t + std::max<int64_t>(packet->duration, 0));
        }
        av_packet_unref(packet.get());
    }
    if (end == AV_NOPTS_VALUE || end <= input.start_pts) return;
    input.duration = av_rescale_q(end - input.start_pts, stream->time_base, AV_TIME_BASE_Q);
}

// Containers made of packets that the demuxer finds again from any byte (transport and program
// streams), where the first byte is the start.
bool StartsAtFirstByte(const AVFormatContext* context) {
    const char* name = context->iformat != nullptr ? context->iformat->name : "";
    return std::strcmp(name, "mpegts") == 0 || std::strcmp(name, "mpeg") == 0;
}

// What the decode function does to every picture before handing it out.
void Finish(AVCodecContext* context, AVFrame* frame) {
    const Input* input = static_cast<const Input*>(context->opaque);
    if (input != nullptr && input->byteClock && frame->best_effort_timestamp == AV_NOPTS_VALUE &&
        frame->pts == AV_NOPTS_VALUE && frame->pkt_pos >= 0 && input->fileBytes > 0 &&
        input->time_base_num > 0 && input->time_base_den > 0) {
        // Stamped from where the picture lies in the file, on the byte clock its seeks use.
        const int64_t us = av_rescale(frame->pkt_pos, input->duration, input->fileBytes);
        frame->pts = av_rescale_q(us, AV_TIME_BASE_Q,
                                  AVRational{input->time_base_num, input->time_base_den});
        frame->best_effort_timestamp = frame->pts;
    }
}

// Every picture the decoder asks for gets its own buffer, with one exception. An HEVC decoder
// told to decode key pictures only (skip_frame at AVDISCARD_NONKEY) still makes up a grey
// picture for each reference that an open GOP's key picture lists for the pictures leading it:
// four or more per key picture, 12 MiB each at 2160p. No key picture reads them and the leading
// pictures are skipped, so they share one buffer. The decoder asks for the key picture itself
// first in its packet; only the pictures after it are stand-ins.
int GetBuffer(AVCodecContext* context, AVFrame* frame, int flags) {
    Input* input = static_cast<Input*>(context->opaque);
    if (input == nullptr || !input->standIn || context->codec_id != AV_CODEC_ID_HEVC ||
        context->skip_frame < AVDISCARD_NONKEY || input->picturesThisPacket++ == 0) {
        return avcodec_default_get_buffer2(context, frame, flags);
    }
    AVFrame* shared = input->standIn.get();
    if (shared->buf[0] == nullptr || shared->width != frame->width ||
        shared->height != frame->height || shared->format != frame->format) {
        av_frame_unref(shared);
        shared->width = frame->width;
        shared->height = frame->height;
        shared->format = frame->format;
        const int ret = avcodec_default_get_buffer2(context, shared, flags);
        if (ret < 0) return ret;
    }
    for (int i = 0; i < AV_NUM_DATA_POINTERS && shared->buf[i] != nullptr; ++i) {
        frame->buf[i] = av_buffer_ref(shared->buf[i]);
        if (frame->buf[i] == nullptr) {
            for (AVBufferRef*& buffer : frame->buf) av_buffer_unref(&buffer);
            return AVERROR(ENOMEM);
        }
    }
    std::copy(std::begin(shared->data), std::end(shared->data), std::begin(frame->data));
    std::copy(std::begin(shared->linesize), std::end(shared->linesize),
              std::begin(frame->linesize));
    frame->extended_data = frame->data;
    return 0;
}

// The video stream to grab from: the best one by FFmpeg's measure unless that is a cover
// picture (an attached picture is a still image, not the video), else the first real one.
int PickVideoStream(AVFormatContext* context, const AVCodec** decoder) {
    int best = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, decoder, 0);
    if (best >= 0 && !(context->streams[best]->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
        return best;
    }
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        AVStream* stream = context->streams[i];
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (codec == nullptr) continue;
        *decoder = codec;
        return static_cast<int>(i);
    }
    return AVERROR_STREAM_NOT_FOUND;
}

// Fills the record and the codec context of an opened input whose streams are known.
int Describe(Input& input, AVFormatContext* context) {
    const AVCodec* decoder = nullptr;
    const int index = PickVideoStream(context, &decoder);
    if (index < 0 || decoder == nullptr) return AVERROR_STREAM_NOT_FOUND;
    AVStream* stream = context->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    if (par->width <= 0 || par->height <= 0 || par->width > kMaxSide || par->height > kMaxSide) {
        return AVERROR_INVALIDDATA;
    }

    QRBScopedCodecContext codec(avcodec_alloc_context3(decoder));
    if (!codec) return AVERROR(ENOMEM);
    int ret = avcodec_parameters_to_context(codec.get(), par);
    if (ret < 0) return ret;
    codec->pkt_timebase = stream->time_base;
    // A stream may change its size midway; the decoder refuses pictures above the limit too.
    codec->max_pixels = kMaxPixels;
    // One picture per position: a thread pool would cost more to start than it saves, and
    // frame threads would hold pictures back.
    codec->thread_count = 1;
    codec->thread_type = FF_THREAD_SLICE;  // never frame threads, which GetBuffer does not serve
    codec->get_buffer2 = GetBuffer;

    input.width = par->width;
    input.height = par->height;
    input.video_stream_index = index;
    input.time_base_num = stream->time_base.num;
    input.time_base_den = stream->time_base.den;
    input.start_pts = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    input.sar_num = stream->sample_aspect_ratio.num > 0 && stream->sample_aspect_ratio.den > 0
                        ? stream->sample_aspect_ratio.num
                        : 0;
    input.sar_den = input.sar_num > 0 ? stream->sample_aspect_ratio.den : 1;
    input.orientation = OrientationOf(stream);
    input.duration = context->duration;
    if (input.duration == AV_NOPTS_VALUE && stream->duration != AV_NOPTS_VALUE) {
        input.duration = av_rescale_q(stream->duration, stream->time_base, AV_TIME_BASE_Q);
    }
    if (input.duration == AV_NOPTS_VALUE) {
        input.duration = -1;
        MeasureDuration(input, context, stream);
    }
    input.video_codec = decoder;
    input.format_context = context;
    codec->opaque = &input;
    input.codec = std::move(codec);
    input.codec_context = input.codec.get();
    return 0;
}

// MP4 and Matroska headers give every stream's size and the duration. Probing such a file
// (avformat_find_stream_info) decodes pictures on top of that, which for a single thumbnail
// costs about as much as the thumbnail itself, so it is left out when the header was enough.
// Other containers (a transport stream has no header to speak of) are probed.
bool HeaderIsEnough(const AVFormatContext* context) {
    if (context->duration == AV_NOPTS_VALUE || context->duration <= 0) return false;
    const char* name = context->iformat != nullptr ? context->iformat->name : "";
    if (std::strstr(name, "mp4") == nullptr && std::strstr(name, "matroska") == nullptr) {
        return false;
    }
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        const AVCodecParameters* par = stream->codecpar;
        if (par->codec_type == AVMEDIA_TYPE_VIDEO &&
            !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC) && par->width > 0 &&
            par->height > 0 && par->codec_id != AV_CODEC_ID_NONE) {
            return true;
        }
    }
    return false;
}

}  // namespace

int OpenFormat(const char* path, const char* formats, AVFormatContext** context,
               const AVIOInterruptCB* interrupt) {
    if (context == nullptr) return AVERROR(EINVAL);
    *context = nullptr;
    if (path == nullptr) return AVERROR(EINVAL);
    struct stat st;
    if (stat(path, &st) != 0) return AVERROR(errno != 0 ? errno : ENOENT);
    if (!S_ISREG(st.st_mode)) return AVERROR(EINVAL);

    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) return AVERROR(ENOMEM);
    raw->probesize = kProbeBytes;
    raw->max_analyze_duration = kAnalyzeMicroseconds;
    if (interrupt != nullptr) raw->interrupt_callback = *interrupt;

    QRBScopedDictionary options;
    av_dict_set(&options.dict, "protocol_whitelist", "file", 0);
    av_dict_set(&options.dict, "format_whitelist", formats, 0);
    // avformat_open_input frees the context itself when it fails.
    const int ret = avformat_open_input(&raw, path, nullptr, &options.dict);
    if (ret < 0) return ret;
    *context = raw;
    return 0;
}

int OpenInput(const char* path, QRBFFmpegInput** input) {
    if (input == nullptr) return AVERROR(EINVAL);
    *input = nullptr;
    Input* made = new (std::nothrow) Input();
    if (made == nullptr) return AVERROR(ENOMEM);
    std::unique_ptr<Input> owner(made);

    AVIOInterruptCB interrupt = {&DeadlinePassed, &owner->deadline};
    owner->deadline.Arm();
    AVFormatContext* context = nullptr;
    int ret = OpenFormat(path, kVideoFormats, &context, &interrupt);
    if (ret < 0) return ret;
    owner->ownedFormat.reset(context);
    owner->deadline.Arm();
    if (!HeaderIsEnough(context)) {
        ret = avformat_find_stream_info(context, nullptr);
        if (ret < 0) return ret;
    }
    ret = Describe(*owner, context);
    if (ret < 0) return ret;
    *input = owner.release();
    return 0;
}

int AdoptInput(AVFormatContext* context, QRBFFmpegInput** input) {
    if (input == nullptr) return AVERROR(EINVAL);
    *input = nullptr;
    if (context == nullptr) return AVERROR(EINVAL);
    std::unique_ptr<Input> owner(new (std::nothrow) Input());
    if (!owner) return AVERROR(ENOMEM);
    int ret = 0;
    if (!HeaderIsEnough(context)) {
        ret = avformat_find_stream_info(context, nullptr);
        if (ret < 0) return ret;
    }
    ret = Describe(*owner, context);
    if (ret < 0) return ret;
    *input = owner.release();
    return 0;
}

void CloseInput(QRBFFmpegInput** input) {
    if (input == nullptr || *input == nullptr) return;
    // The codec context goes before the format context that its stream belongs to.
    std::unique_ptr<Input> owner(static_cast<Input*>(*input));
    owner->codec.reset();
    owner->ownedFormat.reset();
    *input = nullptr;
}

int CodecOpen(AVCodecContext* context, const AVCodec* codec) {
    if (context == nullptr || codec == nullptr) return AVERROR(EINVAL);
    return avcodec_open2(context, codec, nullptr);
}

int CodecClose(AVCodecContext* context) {
    if (context == nullptr) return AVERROR(EINVAL);
    return avcodec_close(context);
}

int DecodeVideo(AVCodecContext* context, AVFrame* frame, int* got_picture, const AVPacket* packet) {
    if (context == nullptr || frame == nullptr || got_picture == nullptr) return AVERROR(EINVAL);
    *got_picture = 0;
    if (context->opaque != nullptr) static_cast<Input*>(context->opaque)->picturesThisPacket = 0;
    int ret = avcodec_send_packet(context, packet);
    if (ret == AVERROR(EAGAIN)) {
        // A picture is waiting and the packet was not taken: hand the picture out; the packet
        // counts as used, as the one-call decoders did.
        ret = avcodec_receive_frame(context, frame);
        if (ret < 0) return ret;
        Finish(context, frame);
        *got_picture = 1;
        return 0;
    }
    if (ret < 0 && ret != AVERROR_EOF) return ret;
    ret = avcodec_receive_frame(context, frame);
    if (ret == 0) {
        Finish(context, frame);
        *got_picture = 1;
    } else if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        return ret;
    }
    return packet != nullptr ? packet->size : 0;
}

AVFrame* AllocFrame() { return av_frame_alloc(); }

AVPacket* AllocPacket() { return av_packet_alloc(); }

int SeekFrame(QRBFFmpegInput* input, int64_t timestamp_us) {
    if (input == nullptr || input->format_context == nullptr) return AVERROR(EINVAL);
    Input* self = static_cast<Input*>(input);
    AVFormatContext* context = input->format_context;
    if (self->byteClock) {
        // No timestamps to seek by: the same share of the file as of the duration.
        const int64_t clamped = std::max<int64_t>(0, std::min(timestamp_us, input->duration));
        const int64_t pos =
            input->duration > 0 ? av_rescale(clamped, self->fileBytes, input->duration) : 0;
        self->deadline.Arm();
        return av_seek_frame(context, -1, pos, AVSEEK_FLAG_BYTE);
    }
    if (timestamp_us <= 0 && StartsAtFirstByte(context)) {
        // A transport or program stream starts at its first byte: a search by timestamp goes by
        // decoding times and may land past the first key frame.
        self->deadline.Arm();
        if (av_seek_frame(context, -1, 0, AVSEEK_FLAG_BYTE) >= 0) return 0;
    }
    const AVRational timeBase = {input->time_base_num, input->time_base_den};
    const int64_t target = av_rescale_q(timestamp_us, AV_TIME_BASE_Q, timeBase) + input->start_pts;
    self->deadline.Arm();
    int ret = av_seek_frame(context, input->video_stream_index, target, AVSEEK_FLAG_BACKWARD);
    if (ret < 0) {
        // Some demuxers only seek on the whole file's clock.
        const int64_t start = context->start_time != AV_NOPTS_VALUE ? context->start_time : 0;
        self->deadline.Arm();
        ret = av_seek_frame(context, -1, timestamp_us + start, AVSEEK_FLAG_BACKWARD);
    }
    return ret;
}

int ReadFrame(QRBFFmpegInput* input, AVPacket* packet) {
    if (input == nullptr || input->format_context == nullptr || packet == nullptr) {
        return AVERROR(EINVAL);
    }
    // A packet still holding data would leak it: av_read_frame overwrites without releasing.
    av_packet_unref(packet);
    static_cast<Input*>(input)->deadline.Arm();
    return av_read_frame(input->format_context, packet);
}

void InitPacket(AVPacket* packet) {
    if (packet != nullptr) av_packet_unref(packet);
}

void FreePacket(AVPacket* packet) {
    if (packet != nullptr) av_packet_unref(packet);
}

int PictureSize(int format, int width, int height) {
    if (format != QRB_FFMPEGAPI_FMT_ARGB) return AVERROR(EINVAL);
    if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) {
        return AVERROR(EINVAL);
    }
    return av_image_get_buffer_size(AV_PIX_FMT_BGRA, width, height, 1);
}

int PictureFill(AVFrame* frame, const uint8_t* buffer, int format, int width, int height) {
    if (frame == nullptr || buffer == nullptr) return AVERROR(EINVAL);
    const int size = PictureSize(format, width, height);
    if (size < 0) return size;
    const int ret = av_image_fill_arrays(frame->data, frame->linesize, buffer, AV_PIX_FMT_BGRA,
                                         width, height, 1);
    if (ret < 0) return ret;
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_BGRA;
    return ret;
}

void FreeFrame(AVFrame** frame) { av_frame_free(frame); }

int SeekAvailable(QRBFFmpegInput* input) {
    if (input == nullptr || input->format_context == nullptr) return -1;
    AVIOContext* io = input->format_context->pb;
    return (io != nullptr && (io->seekable & AVIO_SEEKABLE_NORMAL)) ? 0 : 1;
}

void FlushBuffers(AVCodecContext* context) {
    if (context != nullptr) avcodec_flush_buffers(context);
}

}  // namespace qrbffmpeg
