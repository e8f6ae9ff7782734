// qrb-pvr-record: a stand-in for the television's recorder, for hosts without one. It does what
// the recorder does while it records: hands key frames of the recording to set_pvr_key_frame,
// which keeps their thumbnails beside the ".srf" file. Here the recording is a transport stream
// (MPEG-2 or H.264 video) already on disk, and the key frames are picked evenly over it.
//
//   qrb-pvr-record RECORDING.srf [FRAMES [WIDTH HEIGHT]]     (defaults: 5 frames of 320 x 180)
//
// Uses the public C header only, like any application of the library. Exit status 0 on success.
#include "qrb_thumbnail.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

struct CloseInput {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};

int Usage() {
    std::fprintf(stderr, "usage: qrb-pvr-record RECORDING.srf [FRAMES [WIDTH HEIGHT]]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3 && argc != 5) return Usage();
    const std::string path = argv[1];
    const int frames = argc >= 3 ? std::atoi(argv[2]) : 5;
    const int width = argc == 5 ? std::atoi(argv[3]) : 320;
    const int height = argc == 5 ? std::atoi(argv[4]) : 180;
    if (frames < 1 || frames > QRB_THUMB_MAX_IMAGES || width < 1 || height < 1) return Usage();

    // The recording is read as a transport stream whatever its name.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* raw = nullptr;
    const int opened =
        avformat_open_input(&raw, path.c_str(), av_find_input_format("mpegts"), &options);
    av_dict_free(&options);
    if (opened < 0) {
        std::fprintf(stderr, "qrb-pvr-record: cannot read %s as a transport stream\n",
                     path.c_str());
        return 1;
    }
    std::unique_ptr<AVFormatContext, CloseInput> input(raw);
    if (avformat_find_stream_info(input.get(), nullptr) < 0) return 1;
    const int video = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video < 0) {
        std::fprintf(stderr, "qrb-pvr-record: %s has no video\n", path.c_str());
        return 1;
    }
    int encodeType = 0;
    switch (input->streams[video]->codecpar->codec_id) {
        case AV_CODEC_ID_MPEG2VIDEO:
            encodeType = 1;
            break;
        case AV_CODEC_ID_H264:
            encodeType = 2;
            break;
        default:
            std::fprintf(stderr, "qrb-pvr-record: only MPEG-2 and H.264 recordings\n");
            return 1;
    }

    // Every key frame, then an even pick of them.
    std::vector<std::string> keys;
    std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        if (packet->stream_index == video && (packet->flags & AV_PKT_FLAG_KEY)) {
            keys.emplace_back(reinterpret_cast<const char*>(packet->data),
                              static_cast<size_t>(packet->size));
        }
        av_packet_unref(packet.get());
    }
    if (static_cast<int>(keys.size()) < frames) {
        std::fprintf(stderr, "qrb-pvr-record: %zu key frames, %d wanted\n", keys.size(), frames);
        return 1;
    }
    std::vector<_key_frame> handed(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const std::string& key = keys[keys.size() * static_cast<size_t>(i) / frames];
        handed[i].buffer = reinterpret_cast<const unsigned char*>(key.data());
        handed[i].buffer_size = static_cast<int>(key.size());
        handed[i].encode_type = encodeType;
    }
    if (set_pvr_key_frame(handed.data(), frames, width, height, path.c_str()) != 0) {
        std::fprintf(stderr, "qrb-pvr-record: set_pvr_key_frame failed for %s\n", path.c_str());
        return 1;
    }
    std::printf("qrb-pvr-record: %d key frames of %s kept at %dx%d\n", frames, path.c_str(), width,
                height);
    return 0;
}
