#include "qrb_thumbnail_pvr_decoder.h"

#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_byte_order.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"
#include "video-decoder/qrb_ffmpeg_api_impl.h"
#include "video-decoder/qrb_ffmpeg_scoped.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr size_t kHeaderBytes = 6 + 6 + 6 + 6 + 8;  // header, FW, FH, FD, FC
// The elementary-stream file's path is cut to this many characters.
constexpr size_t kMaxEsPath = 128;
const unsigned char kMagic[6] = {'F', 'S', 'm', 't', 'a', 0};

using PixelBuffer = std::unique_ptr<unsigned char, decltype(&std::free)>;

void PutU32(unsigned char* out, uint32_t value) {
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
}

void PutRecord(unsigned char* out, char a, char b, uint32_t value) {
    out[0] = static_cast<unsigned char>(a);
    out[1] = static_cast<unsigned char>(b);
    PutU32(out + 2, value);
}

// A decoder context for one key frame. One thread: a single picture does not pay for a pool.
QRBScopedCodecContext MakeCodecContext(const AVCodec* codec) {
    QRBScopedCodecContext context(avcodec_alloc_context3(codec));
    if (context) {
        context->max_pixels = qrbffmpeg::kMaxPixels;
        context->thread_count = 1;
    }
    return context;
}

// The elementary-stream file, opened with the raw H.264 demuxer: the file holds one H.264
// access unit by construction, so the demuxer is named rather than probed (a probe of a few
// kilobytes may not decide), and nothing else may open.
QRBScopedFormatContext OpenRawH264(const char* es_path) {
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        QRB_LOGW("ic_ptr pointer is NULL,file:%s.", es_path);
        return nullptr;
    }
    raw->probesize = qrbffmpeg::kProbeBytes;
    raw->max_analyze_duration = qrbffmpeg::kAnalyzeMicroseconds;
    QRBScopedDictionary options;
    av_dict_set(&options.dict, "protocol_whitelist", "file", 0);
    av_dict_set(&options.dict, "format_whitelist", "h264", 0);
    if (avformat_open_input(&raw, es_path, av_find_input_format("h264"), &options.dict) < 0) {
        QRB_LOGW("ic_ptr pointer is NULL,file:%s.", es_path);
        return nullptr;
    }
    return QRBScopedFormatContext(raw);
}

// A decoder opened for the first video stream of input, whose index goes to *videoIndex.
QRBScopedCodecContext OpenVideoDecoder(AVFormatContext* input, int* videoIndex) {
    for (unsigned i = 0; i < input->nb_streams && *videoIndex < 0; ++i) {
        if (input->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            *videoIndex = static_cast<int>(i);
        }
    }
    if (*videoIndex < 0) {
        QRB_LOGW("no video stream");
        return nullptr;
    }
    const AVCodecParameters* par = input->streams[*videoIndex]->codecpar;
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    QRBScopedCodecContext context = codec != nullptr ? MakeCodecContext(codec) : nullptr;
    if (!context || avcodec_parameters_to_context(context.get(), par) < 0) {
        QRB_LOGW("pVideoCodecCtx is null, codec_id=%d", static_cast<int>(par->codec_id));
        return nullptr;
    }
    context->max_pixels = qrbffmpeg::kMaxPixels;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) {
        QRB_LOGW("avcodec_open2 error");
        return nullptr;
    }
    return context;
}

// Decodes until the first picture of the stream comes out (at the end, what the decoder holds
// back for reordering is drained); true when frame holds it.
bool DecodeFirstPicture(AVFormatContext* input, AVCodecContext* context, int videoIndex,
                        AVPacket* packet, AVFrame* frame) {
    bool started = false;
    for (;;) {
        if (av_read_frame(input, packet) < 0) {
            return started && avcodec_send_packet(context, nullptr) >= 0 &&
                   avcodec_receive_frame(context, frame) == 0;
        }
        if (packet->stream_index != videoIndex) {
            av_packet_unref(packet);
            continue;
        }
        const int key = (packet->flags & AV_PKT_FLAG_KEY) != 0 ? 1 : 0;
        QRB_LOGD("packet.flags&AV_PKT_FLAG_KEY=%d, key_detected=%d", key, started ? 1 : 0);
        // The recorder handed this over as a key frame, so its first packet starts the decoding
        // even where the parser cannot tell (an I picture without a recovery point).
        started = true;
        const int frameFinished =
            avcodec_send_packet(context, packet) >= 0 && avcodec_receive_frame(context, frame) == 0
                ? 1
                : 0;
        QRB_LOGD("pFrame->key_frame, frameFinished=%d", frameFinished);
        av_packet_unref(packet);
        if (frameFinished != 0) return true;
    }
}

struct MtaHeader {
    uint32_t width, height, depth, count;
};

// The key-frame file's header: its magic, the four records and their bounds.
bool ReadMtaHeader(FILE* file, const std::string& path, MtaHeader* out) {
    unsigned char head[kHeaderBytes];
    if (std::fread(head, 1, sizeof(head), file) != sizeof(head) ||
        std::memcmp(head, kMagic, sizeof(kMagic)) != 0 || head[6] != 'F' || head[7] != 'W' ||
        head[12] != 'F' || head[13] != 'H' || head[18] != 'F' || head[19] != 'D' ||
        head[24] != 'F' || head[25] != 'C' || head[30] != 0 || head[31] != 0) {
        QRB_LOGW("mta file %s: bad header", path.c_str());
        return false;
    }
    *out = {QRBReadLE32(head + 8), QRBReadLE32(head + 14), QRBReadLE32(head + 20),
            QRBReadLE32(head + 26)};
    QRB_LOGD("image_width=%d, image_height=%d, image_depth=%d, frame_count=%d",
             static_cast<int>(out->width), static_cast<int>(out->height),
             static_cast<int>(out->depth), static_cast<int>(out->count));
    if (out->width < 1 || out->width > CQRBThumbanailPVRDecoder::kMaxFileSide || out->height < 1 ||
        out->height > CQRBThumbanailPVRDecoder::kMaxFileSide || out->depth < 1 ||
        out->depth > CQRBThumbanailPVRDecoder::kMaxFileDepth || out->count < 1 ||
        out->count > static_cast<uint32_t>(CQRBThumbanailPVRDecoder::kMaxFrames)) {
        QRB_LOGW("get width, height, depth, count fail");
        return false;
    }
    return true;
}

// The frames after the header, each behind its "F<n>" marker.
bool ReadMtaFrames(FILE* file, uint32_t count, unsigned long long frameBytes,
                   std::vector<PixelBuffer>* frames) {
    for (uint32_t i = 0; i < count; ++i) {
        unsigned char marker[2];
        if (std::fread(marker, 1, 2, file) != 2 || marker[0] != 'F' ||
            marker[1] != static_cast<unsigned char>('0' + i)) {
            QRB_LOGW("frame[%u] marker mismatch", i);
            return false;
        }
        PixelBuffer pixels(static_cast<unsigned char*>(std::malloc(frameBytes)), &std::free);
        if (!pixels || std::fread(pixels.get(), 1, frameBytes, file) != frameBytes) {
            QRB_LOGW("frame[%u] short", i);
            return false;
        }
        frames->push_back(std::move(pixels));
    }
    return true;
}

}  // namespace

bool CQRBThumbanailPVRDecoder::m_SplitSrfPath(const char* srf_path, std::string* base,
                                              std::string* name) {
    const std::string path = srf_path != nullptr ? srf_path : "";
    const size_t at = path.rfind(".srf");
    if (at == std::string::npos) {
        QRB_LOGW("the path is not srf path");
        return false;
    }
    const std::string cut = path.substr(0, at);
    if (name != nullptr) {
        const size_t slash = cut.rfind('/');
        if (slash == std::string::npos) {
            QRB_LOGW("the path is not correct");
            return false;
        }
        *name = cut.substr(slash + 1);
    }
    if (base != nullptr) *base = cut;
    return true;
}

int CQRBThumbanailPVRDecoder::SetPvrKeyFrame(_key_frame* frames, int frame_count, int request_width,
                                             int request_height, const char* srf_path) {
    QRB_LOGD("frame_count=%d, request_width=%d, request_height=%d, srf_path=%s", frame_count,
             request_width, request_height, srf_path != nullptr ? srf_path : "(null)");
    if (frames == nullptr || frame_count < 1 || frame_count > kMaxFrames || request_width < 1 ||
        request_height < 1 || request_width > kMaxRequestSide || request_height > kMaxRequestSide) {
        QRB_LOGW("parameter error");
        return -1;
    }
    QRB_LOGD("frame[0]: buffer=%p, buffer_size=%d, encode_type=%d",
             static_cast<const void*>(frames[0].buffer), frames[0].buffer_size,
             frames[0].encode_type);
    std::string base;
    std::string name;
    if (!m_SplitSrfPath(srf_path, &base, &name)) return -1;
    QRB_LOGD("strSrfFileName=%s", name.c_str());

    std::vector<PixelBuffer> outputs;
    outputs.reserve(static_cast<size_t>(frame_count));
    for (int i = 0; i < frame_count; ++i) {
        const _key_frame& key = frames[i];
        unsigned char* out = nullptr;
        int outSize = 0;
        int ret = -1;
        if (key.buffer == nullptr || key.buffer_size <= 0 || key.buffer_size > kMaxKeyFrameBytes) {
            QRB_LOGW("frame[%d]: buffer=%p, buffer_size=%d refused", i,
                     static_cast<const void*>(key.buffer), key.buffer_size);
        } else if (key.encode_type == 2) {
            // "<data folder><recording>-<frame>.es", cut to 128 characters. A long recording
            // name loses the frame's number and the extension; the frames still never meet,
            // since each file goes before the next frame is written, and the demuxer is named,
            // not guessed from the extension.
            std::string fixed = QRB_DATA_DIR + name + "-" + std::to_string(i) + ".es";
            if (fixed.size() > kMaxEsPath) fixed.resize(kMaxEsPath);
            const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
            const std::string esPath = QRBSystemPath(fixed.c_str());
            m_CreateDir(dataDir.c_str());
            QRBTempFile es;  // removed whether or not decoding works
            if (m_WriteFlashFile(es, esPath, reinterpret_cast<const char*>(key.buffer),
                                 key.buffer_size)) {
                ret = m_DecodeFrameForH264_1080i(key.buffer, key.buffer_size, key.encode_type,
                                                 request_width, request_height, &out, &outSize,
                                                 esPath.c_str());
            }
        } else {
            ret = m_DecodeFrame(key.buffer, key.buffer_size, key.encode_type, request_width,
                                request_height, &out, &outSize);
        }
        PixelBuffer owned(out, &std::free);
        if (ret != 0 || !owned) {
            QRB_LOGW("m_DecodeFrame fail");
            return -1;
        }
        outputs.push_back(std::move(owned));
    }

    const std::string mtaPath = base + ".mta";
    QRB_LOGD("strMtaPath = %s", mtaPath.c_str());
    std::vector<unsigned char*> buffers;
    for (const PixelBuffer& buffer : outputs) buffers.push_back(buffer.get());
    if (m_SaveMtaFile(buffers.data(), request_width, request_height, 4, frame_count,
                      mtaPath.c_str()) != 0) {
        QRB_LOGW("m_SaveMtaFile fail");
        return -1;
    }
    return 0;
}

int CQRBThumbanailPVRDecoder::m_DecodeFrame(const unsigned char* buffer, int size, int encode_type,
                                            int width, int height, unsigned char** out,
                                            int* outSize) {
    QRB_LOGD("buffer_size=%d, encode_type=%d", size, encode_type);
    if (buffer == nullptr || size <= 0 || out == nullptr || outSize == nullptr) return -1;
    // No av_register_all: FFmpeg 5 registers its codecs itself.
    AVCodecID id = AV_CODEC_ID_NONE;
    if (encode_type == 1) id = AV_CODEC_ID_MPEG2VIDEO;
    if (encode_type == 2) id = AV_CODEC_ID_H264;
    const AVCodec* codec = id != AV_CODEC_ID_NONE ? avcodec_find_decoder(id) : nullptr;
    if (codec == nullptr) {
        QRB_LOGW("Codec not found");
        return -1;
    }
    // The packet copies the key frame and ends in the zero padding the decoders read ahead into.
    QRBScopedPacket packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), size) < 0) {
        QRB_LOGW("alloc packet error");
        return -1;
    }
    std::memcpy(packet->data, buffer, static_cast<size_t>(size));
    packet->flags |= AV_PKT_FLAG_KEY;

    QRBScopedCodecContext context = MakeCodecContext(codec);
    if (!context) {
        QRB_LOGW("alloc codec context error");
        return -1;
    }
    if (avcodec_open2(context.get(), codec, nullptr) < 0) {
        QRB_LOGW("avcodec_open2 error");
        return -1;
    }
    QRBScopedFrame frame(av_frame_alloc());
    if (!frame) {
        QRB_LOGW("alloc frame error\n");
        return -1;
    }
    return m_DecodeFrameWithFFmpeg(context.get(), frame.get(), packet.get(), width, height, out,
                                   outSize);
}

int CQRBThumbanailPVRDecoder::m_DecodeFrameWithFFmpeg(AVCodecContext* context, AVFrame* frame,
                                                      AVPacket* packet, int width, int height,
                                                      unsigned char** out, int* outSize) {
    if (context == nullptr || frame == nullptr || packet == nullptr) return -1;
    int got = 0;
    int ret = avcodec_send_packet(context, packet);
    if (ret >= 0) {
        ret = avcodec_receive_frame(context, frame);
        if (ret == 0) got = 1;
    }
    if (got == 0 && (ret >= 0 || ret == AVERROR(EAGAIN))) {
        // The second call: the end of the input lets a decoder that holds pictures back for
        // reordering hand out the one it has.
        avcodec_send_packet(context, nullptr);
        ret = avcodec_receive_frame(context, frame);
        if (ret == 0) got = 1;
    }
    if (got == 0 && ret < 0 && ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        QRB_LOGW("Error while decoding frame");
        return -1;
    }
    if (got == 0) {
        QRB_LOGW("Got frame fail");
        return -1;
    }
    QRB_LOGD("got_frame=%d", got);
    return m_ScaleFrame(frame, width, height, out, outSize);
}

int CQRBThumbanailPVRDecoder::m_ScaleFrame(const AVFrame* frame, int width, int height,
                                           unsigned char** out, int* outSize) {
    // The picture's own size: the codec context's after a decode, and the one its planes have.
    const int srcW = frame->width;
    const int srcH = frame->height;
    QRB_LOGD("coded_width=%d, coded_height=%d\n", srcW, srcH);
    if (srcW <= 0 || srcH <= 0 || srcW > qrbffmpeg::kMaxSide || srcH > qrbffmpeg::kMaxSide) {
        QRB_LOGW("picture size %dx%d refused", srcW, srcH);
        return -1;
    }
    const int bytes = av_image_get_buffer_size(AV_PIX_FMT_BGRA, width, height, 1);
    if (bytes <= 0) {
        QRB_LOGW("avpicture_get_size fail");
        return -1;
    }
    PixelBuffer buffer(QRBAllocScalerOutput(static_cast<size_t>(bytes)), &std::free);
    if (!buffer) {
        QRB_LOGW("malloc fail");
        return -1;
    }
    uint8_t* dst[4] = {};
    int dstStride[4] = {};
    if (av_image_fill_arrays(dst, dstStride, buffer.get(), AV_PIX_FMT_BGRA, width, height, 1) < 0) {
        QRB_LOGW("avpicture_fill fail");
        return -1;
    }
    // Stretched to exactly the requested size: the recorder asks for the shape it shows.
    QRBScopedSwsContext sws(sws_getContext(srcW, srcH, static_cast<AVPixelFormat>(frame->format),
                                           width, height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                           nullptr, nullptr));
    if (!sws) {
        QRB_LOGW("sws_getContext fail");
        return -1;
    }
    if (sws_scale(sws.get(), frame->data, frame->linesize, 0, srcH, dst, dstStride) <= 0) {
        QRB_LOGW("sws_scale fail");
        return -1;
    }
    *out = buffer.release();
    *outSize = bytes;
    return 0;
}

int CQRBThumbanailPVRDecoder::m_DecodeFrameForH264_1080i(const unsigned char* buffer, int size,
                                                         int encode_type, int width, int height,
                                                         unsigned char** out, int* outSize,
                                                         const char* es_path) {
    QRB_LOGD("decode begin");
    if (es_path == nullptr || out == nullptr || outSize == nullptr) return -1;
    QRB_LOGD("buffer_size=%d, encode_type=%d", size, encode_type);
    (void)buffer;

    QRBScopedFormatContext input = OpenRawH264(es_path);
    if (!input) return -1;
    int videoIndex = -1;
    QRBScopedCodecContext context = OpenVideoDecoder(input.get(), &videoIndex);
    QRBScopedFrame frame(av_frame_alloc());
    QRBScopedPacket packet(av_packet_alloc());
    if (!context) return -1;
    if (!frame || !packet) {
        QRB_LOGW("alloc frame error\n");
        return -1;
    }
    if (!DecodeFirstPicture(input.get(), context.get(), videoIndex, packet.get(), frame.get())) {
        QRB_LOGW("Got frame fail");
        return -1;
    }
    return m_ScaleFrame(frame.get(), width, height, out, outSize);
}

int CQRBThumbanailPVRDecoder::m_SaveMtaFile(unsigned char** buffers, int width, int height,
                                            int depth, int count, const char* path) {
    if (buffers == nullptr || path == nullptr || width < 1 || height < 1 || depth < 1 ||
        count < 1 || count > kMaxFrames) {
        QRB_LOGW("m_SaveMtaFile: parameter error");
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        if (buffers[i] == nullptr) {
            QRB_LOGW("m_SaveMtaFile: frame[%d] missing", i);
            return -1;
        }
    }
    // Written under a temporary name beside the final one and renamed when complete: a reader
    // never sees half a file, and a link planted at either name is never written through.
    static std::atomic<unsigned> s_Counter{0};
    QRBTempFile file;
    if (!file.Create([path] {
            return std::string(path) + "." + std::to_string(getpid()) + "-" +
                   std::to_string(++s_Counter);
        })) {
        QRB_LOGW("Failed to create %s  file.\n", path);
        return -1;
    }
    fchmod(file.Fd(), 0644);

    unsigned char head[kHeaderBytes] = {};
    std::memcpy(head, kMagic, sizeof(kMagic));
    PutRecord(head + 6, 'F', 'W', static_cast<uint32_t>(width));
    PutRecord(head + 12, 'F', 'H', static_cast<uint32_t>(height));
    PutRecord(head + 18, 'F', 'D', static_cast<uint32_t>(depth));
    PutRecord(head + 24, 'F', 'C', static_cast<uint32_t>(count));  // two zero bytes follow
    bool ok = file.Write(head, sizeof(head));
    const size_t frameBytes =
        static_cast<size_t>(width) * static_cast<size_t>(height) * static_cast<size_t>(depth);
    for (int i = 0; ok && i < count; ++i) {
        const unsigned char marker[2] = {'F', static_cast<unsigned char>('0' + i)};
        ok = file.Write(marker, 2) && file.Write(buffers[i], frameBytes);
    }
    const unsigned char trailer[2] = {'F', 'E'};
    ok = ok && file.Write(trailer, 2) && file.Close();
    if (!ok) {
        QRB_LOGW("write %s fail", path);
        return -1;
    }
    if (!file.RenameTo(path)) {
        QRB_LOGW("Failed to create %s  file.\n", path);
        return -1;
    }
    QRB_LOGD("write to %s success", path);
    return 0;
}

int CQRBThumbanailPVRDecoder::ParsePvrMtaFile(const char* srf_path, _thumb_result* result) {
    if (result == nullptr) {
        QRB_LOGW("thumb_result is NULL");
        return -1;
    }
    std::string base;
    if (!m_SplitSrfPath(srf_path, &base, nullptr)) return -1;
    const std::string path = base + ".mta";

    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (fd >= 0) close(fd);
        if (access(srf_path, R_OK) != 0) {
            QRBNoteFileFailure(errno);
        } else {
            QRBNoteFailure(QRBFailure::kNoKeyFrames);
        }
        QRB_LOGW("mta file not exist");
        return -1;
    }
    QRBScopedFile file(fdopen(fd, "rb"));
    if (!file) {
        close(fd);
        QRB_LOGW("mta file not exist");
        return -1;
    }

    MtaHeader head;
    if (!ReadMtaHeader(file.get(), path, &head)) return -1;
    // Every frame the header promises must be in the file before anything is allocated: a
    // header alone cannot make the reader ask for gigabytes.
    const uint32_t width = head.width, height = head.height, depth = head.depth;
    const uint32_t count = head.count;
    const unsigned long long frameBytes = static_cast<unsigned long long>(width) * height * depth;
    const unsigned long long needed = kHeaderBytes + count * (2 + frameBytes);
    if (static_cast<unsigned long long>(st.st_size) < needed) {
        QRB_LOGW("mta file holds %lld bytes, less than %llu for %u frames of %ux%ux%u",
                 static_cast<long long>(st.st_size), needed, count, width, height, depth);
        return -1;
    }
    std::vector<PixelBuffer> frames;
    if (!ReadMtaFrames(file.get(), count, frameBytes, &frames)) return -1;

    result->width = static_cast<int>(width);
    result->height = static_cast<int>(height);
    result->depth = static_cast<int>(depth);
    result->count = static_cast<int>(count);
    for (uint32_t i = 0; i < count; ++i) {
        // The caller frees these (the C interface's contract).
        result->pBuffer[i] = frames[i].release();
        result->nBufSize[i] = static_cast<int>(frameBytes);
    }
    return 0;
}

bool CQRBThumbanailPVRDecoder::m_CreateDir(const char* path) {
    if (path == nullptr || *path == '\0') return false;
    // Recordings' folders are shared with the recorder: 0777 exactly, whatever the umask.
    if (const char* failed = CQRBUtil::MakeDirs(path, 0777, true)) {
        QRB_LOGW("%s   error", failed);
        return false;
    }
    return true;
}

bool CQRBThumbanailPVRDecoder::m_WriteFlashFile(QRBTempFile& file, const std::string& path,
                                                const char* data, int size) {
    if (size < 0 || (data == nullptr && size > 0)) return false;
    // A file at the name was left by a call that did not end (the process died): the name is
    // this recording's frame, and unlink removes a planted link itself, never its target.
    if (!file.CreateAt(path) && file.Error() == EEXIST) {
        unlink(path.c_str());
        file.CreateAt(path);
    }
    if (file.Path().empty() || !file.Write(data, static_cast<size_t>(size)) || !file.Close()) {
        file.Remove();
        QRB_LOGW("Failed to create %s  file.\n", path.c_str());
        return false;
    }
    QRB_LOGD("write to %s success", path.c_str());
    return true;
}
