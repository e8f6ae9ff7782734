#include "qrb_video_test_support.h"

#include "video-decoder/qrb_ffmpeg_scoped.h"

extern "C" {
#include <libavutil/dovi_meta.h>
}

#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace qrbtest {

namespace fs = std::filesystem;

std::string VideoFixture(const std::string& name) {
    return std::string(QRB_VIDEO_FIXTURE_DIR) + "/" + name;
}

void InstallMediaPlugins(const ScratchRoot& root, const char* decoder, const char* scaler) {
    const fs::path dir = root.Resolve("/usr/lib/gstreamer-1.0/");
    fs::create_directories(dir);
    const auto options = fs::copy_options::overwrite_existing;
    if (decoder != nullptr) fs::copy_file(decoder, dir / "libgstffmpeg.so", options);
    if (scaler != nullptr) fs::copy_file(scaler, dir / "libgstffmpegscale.so", options);
}

MeanColour MeanOf(const std::string& bgra, int width, int x0, int y0, int x1, int y1) {
    MeanColour mean;
    double n = 0;
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            const size_t at = (static_cast<size_t>(y) * width + x) * 4;
            if (at + 3 >= bgra.size()) throw std::out_of_range("pixel outside the raster");
            mean.b += static_cast<unsigned char>(bgra[at]);
            mean.g += static_cast<unsigned char>(bgra[at + 1]);
            mean.r += static_cast<unsigned char>(bgra[at + 2]);
            n += 1;
        }
    }
    if (n > 0) {
        mean.b /= n;
        mean.g /= n;
        mean.r /= n;
    }
    return mean;
}

namespace {

QRBScopedFormatContext OpenForTest(const std::string& path) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    QRBScopedFormatContext context(raw);
    if (avformat_find_stream_info(context.get(), nullptr) < 0) {
        throw std::runtime_error("no stream information in " + path);
    }
    return context;
}

int VideoStream(AVFormatContext* context) {
    const int index = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) throw std::runtime_error("no video stream");
    return index;
}

}  // namespace

MediaFacts ReadMediaFacts(const std::string& path) {
    QRBScopedFormatContext context = OpenForTest(path);
    MediaFacts facts;
    facts.durationUs = context->duration;
    const int index = VideoStream(context.get());
    AVStream* stream = context->streams[index];
    const int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    QRBScopedPacket packet(av_packet_alloc());
    while (av_read_frame(context.get(), packet.get()) >= 0) {
        if (packet->stream_index == index && (packet->flags & AV_PKT_FLAG_KEY) &&
            packet->pts != AV_NOPTS_VALUE) {
            facts.keyTimesMs.push_back(static_cast<double>(av_rescale_q(
                                           packet->pts - start, stream->time_base, {1, 1000000})) /
                                       1000.0);
        }
        av_packet_unref(packet.get());
    }
    return facts;
}

std::vector<std::string> CutKeyFrames(const std::string& path, int count) {
    QRBScopedFormatContext context = OpenForTest(path);
    const int index = VideoStream(context.get());
    std::vector<std::string> frames;
    QRBScopedPacket packet(av_packet_alloc());
    while (static_cast<int>(frames.size()) < count &&
           av_read_frame(context.get(), packet.get()) >= 0) {
        if (packet->stream_index == index && (packet->flags & AV_PKT_FLAG_KEY)) {
            frames.emplace_back(reinterpret_cast<const char*>(packet->data),
                                static_cast<size_t>(packet->size));
        }
        av_packet_unref(packet.get());
    }
    if (static_cast<int>(frames.size()) < count) throw std::runtime_error("too few key frames");
    return frames;
}

namespace {

// Stream side data to attach to a copy: its type and bytes.
struct SideData {
    AVPacketSideDataType type;
    std::string bytes;
};

// src's video stream copied into dst's container with the side data attached, the muxer allowed
// what its format's unofficial extensions need.
void CopyVideoStream(const std::string& src, const std::string& dst,
                     const std::vector<SideData>& sideData) {
    QRBScopedFormatContext input = OpenForTest(src);
    const int index = VideoStream(input.get());
    AVFormatContext* raw = nullptr;
    if (avformat_alloc_output_context2(&raw, nullptr, nullptr, dst.c_str()) < 0) {
        throw std::runtime_error("no muxer for " + dst);
    }
    std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> output(
        raw, [](AVFormatContext* c) {
            if (c->pb != nullptr) avio_closep(&c->pb);
            avformat_free_context(c);
        });
    AVStream* out = avformat_new_stream(output.get(), nullptr);
    avcodec_parameters_copy(out->codecpar, input->streams[index]->codecpar);
    out->codecpar->codec_tag = 0;
    out->time_base = input->streams[index]->time_base;
    for (const SideData& data : sideData) {
        uint8_t* side = av_stream_new_side_data(out, data.type, data.bytes.size());
        if (side == nullptr) throw std::runtime_error("no memory");
        std::memcpy(side, data.bytes.data(), data.bytes.size());
    }
    output->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    if (avio_open(&output->pb, dst.c_str(), AVIO_FLAG_WRITE) < 0 ||
        avformat_write_header(output.get(), nullptr) < 0) {
        throw std::runtime_error("cannot write " + dst);
    }
    QRBScopedPacket packet(av_packet_alloc());
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        if (packet->stream_index == index) {
            packet->stream_index = 0;
            packet->pos = -1;
            av_packet_rescale_ts(packet.get(), input->streams[index]->time_base, out->time_base);
            av_interleaved_write_frame(output.get(), packet.get());
        }
        av_packet_unref(packet.get());
    }
    av_write_trailer(output.get());
}

}  // namespace

void WriteWithDisplayMatrix(const std::string& src, const std::string& dst, int a, int b, int c,
                            int d) {
    const int32_t one = 1 << 16;
    const int32_t matrix[9] = {a * one, b * one, 0, c * one, d * one, 0, 0, 0, 1 << 30};
    CopyVideoStream(src, dst,
                    {{AV_PKT_DATA_DISPLAYMATRIX,
                      std::string(reinterpret_cast<const char*>(matrix), sizeof(matrix))}});
}

void WriteWithDolbyVision(const std::string& src, const std::string& dst, int profile,
                          int compatibility) {
    size_t size = 0;
    std::unique_ptr<AVDOVIDecoderConfigurationRecord, void (*)(void*)> record(av_dovi_alloc(&size),
                                                                              &av_free);
    if (!record) throw std::runtime_error("no memory");
    record->dv_version_major = 1;
    record->dv_profile = static_cast<uint8_t>(profile);
    record->dv_level = 1;
    record->rpu_present_flag = 1;
    record->bl_present_flag = 1;
    record->dv_bl_signal_compatibility_id = static_cast<uint8_t>(compatibility);
    CopyVideoStream(
        src, dst,
        {{AV_PKT_DATA_DOVI_CONF, std::string(reinterpret_cast<const char*>(record.get()), size)}});
}

int DolbyVisionProfile(const std::string& path) {
    QRBScopedFormatContext context = OpenForTest(path);
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(context->streams[VideoStream(context.get())],
                                                  AV_PKT_DATA_DOVI_CONF, &size);
    if (data == nullptr || size < sizeof(AVDOVIDecoderConfigurationRecord)) return -1;
    return reinterpret_cast<const AVDOVIDecoderConfigurationRecord*>(data)->dv_profile;
}

}  // namespace qrbtest
