#include "qrb_thumbnail_video_decoder.h"

#include "divx_drm.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "video-decoder/qrb_ffmpeg_api_impl.h"
#include "video-decoder/qrb_ffmpeg_scoped.h"
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <vector>

namespace {

// Clears the busy flag however serving a request ends.
class BusyGuard {
public:
    explicit BusyGuard(std::atomic<bool>& flag) : m_Flag(flag) {}
    ~BusyGuard() { m_Flag = false; }
    BusyGuard(const BusyGuard&) = delete;
    BusyGuard& operator=(const BusyGuard&) = delete;

private:
    std::atomic<bool>& m_Flag;
};

void CloseDrmManager(divx_drm_manager* manager) { divx_drm_close(manager); }
using ScopedDrmManager = QRBScoped<divx_drm_manager, CloseDrmManager>;

void CloseStdioFile(FILE* file) { std::fclose(file); }
using ScopedStdioFile = QRBScoped<FILE, CloseStdioFile>;

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

// The direct grabber's table: this library's own FFmpeg functions, in the plug-ins' shapes.
const QRBFFmpegApi& DirectApi() {
    static const QRBFFmpegApi api = [] {
        QRBFFmpegApi t{};
        t.open_input = &qrbffmpeg::OpenInput;
        t.close_input = &qrbffmpeg::CloseInput;
        t.codec_open = &qrbffmpeg::CodecOpen;
        t.codec_close = &qrbffmpeg::CodecClose;
        t.decode_video = &qrbffmpeg::DecodeVideo;
        t.alloc_frame = &qrbffmpeg::AllocFrame;
        t.alloc_packet = &qrbffmpeg::AllocPacket;
        t.seek_frame = &qrbffmpeg::SeekFrame;
        t.read_frame = &qrbffmpeg::ReadFrame;
        t.init_packet = &qrbffmpeg::InitPacket;
        t.free_packet = &qrbffmpeg::FreePacket;
        t.picture_size = &qrbffmpeg::PictureSize;
        t.picture_fill = &qrbffmpeg::PictureFill;
        t.sws_get_context = &qrbffmpeg::SwsGetContext;
        t.sws_scale = &qrbffmpeg::SwsScale;
        t.sws_free_context = &qrbffmpeg::SwsFreeContext;
        t.free_frame = &qrbffmpeg::FreeFrame;
        t.seek_available = &qrbffmpeg::SeekAvailable;
        t.flush_buffers = &qrbffmpeg::FlushBuffers;
        return t;
    }();
    return api;
}

// The output size that covers width x height with the source's aspect ratio (the callback then
// crops the centre); 0 in either wanted side keeps the source size. 64-bit products: sides up
// to INT_MAX cannot overflow.
void CoverSize(long long srcW, long long srcH, long long w, long long h, long long* outW,
               long long* outH) {
    if (w == 0 || h == 0) {
        *outW = srcW;
        *outH = srcH;
    } else if (w * srcH < h * srcW) {
        *outW = h * srcW / srcH;
        *outH = h;
    } else if (w * srcH > h * srcW) {
        *outW = w;
        *outH = w * srcH / srcW;
    } else {
        *outW = w;
        *outH = h;
    }
}

}  // namespace

CQRBThumbnailVideoDecoder::CQRBThumbnailVideoDecoder() {
    m_CurrentRequest.strURL.clear();
    m_CurrentRequest.RID = 0;
    m_CurrentRequest.eThumbnailType = static_cast<qrb_media_thumbnail_type>(0);
    m_CurrentRequest.nOrientation = 0;
    m_CurrentRequest.width = 0;
    m_CurrentRequest.height = 0;
    m_CurrentRequest.callback = nullptr;
    m_CurrentRequest.state = ITEM_WAITING;
    m_CurrentRequest.bUsedCache = true;
    m_CurrentRequest.FrameCount = 1;
    m_CurrentRequest.user_data = nullptr;
    m_CurrentRequest.bRequestBuffer = false;
}

void CQRBThumbnailVideoDecoder::m_BindMedia() {
    std::call_once(m_MediaBound, [this] { qrb_init_ffmpeg_api(&m_bMediaReady); });
}

bool CQRBThumbnailVideoDecoder::MediaDecodingReady() {
    m_BindMedia();
    return m_bMediaReady != 0;
}

CQRBThumbnailVideoDecoder::~CQRBThumbnailVideoDecoder() { Destroy(); }

bool CQRBThumbnailVideoDecoder::Create(int, CQRBThumbRequestList* list, CQRBThumbCache* cache) {
    if (list == nullptr || cache == nullptr) return false;
    m_pList = list;
    m_pCache = cache;
    if (!m_pExtractor) m_pExtractor.reset(new CQRBThumbnailExtractor);
    m_bStop = false;
    return CQRBThread::Create("CQRBThumbnailVideoDecoder");
}

bool CQRBThumbnailVideoDecoder::Stop() {
    if (m_bBusy) m_nAbandoned = m_nServing.load();
    while (m_bBusy) usleep(10000);
    // That request is answered; the next one is not to be given up.
    m_nAbandoned = UINT64_MAX;
    return true;
}

bool CQRBThumbnailVideoDecoder::AbandonRequested() const {
    return m_bStop.load() || m_nAbandoned.load() == m_nServing.load();
}

void CQRBThumbnailVideoDecoder::Destroy() {
    RequestStop();
    // Returns once t_Process has left its loop: after at most one poll, or after the request
    // being served is answered.
    CQRBThread::Destroy();
    m_pExtractor.reset();
}

void CQRBThumbnailVideoDecoder::t_Process() {
    _stRequestedItem request;
    // Busy is raised before the list is asked, so that a Stop that has just cleared the list
    // either sees this worker busy or knows it will find nothing.
    while (m_NextRequest([&] {
        m_bBusy = true;
        if (m_pList->GetForSingle(true, &request, false)) return true;
        m_bBusy = false;
        return false;
    })) {
        BusyGuard busy(m_bBusy);
        ++m_nServing;
        QRB_LOGD("RequestedItem.szURI=%s, RequestedItem.eThumbnailType=%d", request.strURL.c_str(),
                 static_cast<int>(request.eThumbnailType));
        boost::intrusive_ptr<CQRBThumbnailItem> item;
        bool ok = false;
        // The worker boundary: whatever happens inside, the request gets its one event.
        try {
            ok = m_Serve(request, item);
        } catch (const std::exception& e) {
            QRB_LOGW("Exception caught: %s, url=%s", e.what(), request.strURL.c_str());
            ok = false;
            item = nullptr;
        } catch (...) {
            QRB_LOGW("Exception caught, url=%s", request.strURL.c_str());
            ok = false;
            item = nullptr;
        }
        try {
            m_pList->SendEvent(request.user_data, request.strURL, request.callback, item, ok);
        } catch (...) {
            QRB_LOGW("Exception caught, url=%s", request.strURL.c_str());
        }
    }
    QRB_LOGD("t_Process end");
}

bool CQRBThumbnailVideoDecoder::m_Serve(const _stRequestedItem& request,
                                        boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    const qrb_media_thumbnail_type kind = request.eThumbnailType;
    // Items on storage that must be read one at a time (the serial kinds 13, 14 and 15) are
    // routed here precisely so that they are served one at a time: pictures and songs go to
    // their getters, videos are grabbed like any video.
    const bool video = kind == THUMB_VIDEO || kind == THUMB_SERIAL_VIDEO;
    const bool extracted = kind == THUMB_PVR || kind == THUMB_PTP || kind == THUMB_RA ||
                           kind == THUMB_SERIAL_PICTURE || kind == THUMB_SERIAL_MUSIC;
    if (!video && !extracted) {
        QRB_LOGW("thumbnail type %d is not served by the video decoder, url=%s",
                 static_cast<int>(kind), request.strURL.c_str());
        return false;
    }

    const bool cacheable = request.bUsedCache && request.FrameCount == 1;
    if (cacheable && m_FindInCache(request, item)) return true;

    bool ok = false;
    if (video) {
        ok = m_ServeVideo(request, item);
    } else {
        ok = m_pExtractor && m_pExtractor->ExtractThumb(request, item);
    }

    // An answer without images is not kept: the next request tries the file again.
    if (cacheable && ok && item && item->GetImageCount() > 0) {
        QRB_LOGD("Cache Insert");
        m_pCache->Insert(item);
    }
    return ok;
}

bool CQRBThumbnailVideoDecoder::m_FindInCache(const _stRequestedItem& request,
                                              boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    boost::intrusive_ptr<CQRBThumbnailItem> cached;
    // A result of another size is no answer; without a wanted size any size is.
    bool found =
        (request.width != 0 && request.height != 0)
            ? m_pCache->Get(request.RID, request.strURL, request.width, request.height, cached)
            : m_pCache->Get(request.RID, request.strURL, cached);
    if (found && (cached->GetImages().empty() || !cached->GetImages()[0])) found = false;
    QRB_LOGD("Cache Found=%d", found ? 1 : 0);
    if (!found) return false;

    const boost::intrusive_ptr<CQRBThumbImage>& image = cached->GetImages()[0];
    item = new CQRBThumbnailItem;
    item->AddImage(image);
    item->SetSize(image->GetWidth() * image->GetHeight() * 4);
    item->SetRID(request.RID);
    item->SetThumbnailType(request.eThumbnailType);
    item->SetURL(request.strURL);
    item->SetUsedCache(request.bUsedCache);
    return true;
}

void CQRBThumbnailVideoDecoder::m_MakeVideoFolder() {
    const std::string folder = QRBSystemPath(QRB_VIDEO_DIR);
    if (access(folder.c_str(), F_OK) == 0) return;
    if (mkdir(folder.c_str(), 0777) != 0) {
        QRB_LOGW("mkdir() [%s] failed.", QRB_VIDEO_DIR);
    }
}

bool CQRBThumbnailVideoDecoder::m_ServeVideo(const _stRequestedItem& request,
                                             boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    std::string mediaId;
    std::string path;
    m_SplitVideoURL(request.strURL, &mediaId, &path);
    QRB_LOGD("szURI:%s.", path.c_str());
    m_MakeVideoFolder();

    item = new CQRBThumbnailItem;
    if (request.FrameCount == 5) {
        _stRequestedItem copy = request;
        if (m_ParseVideoMtaFile(copy, mediaId, item)) return true;
    }

    QRB_LOGD("need Extract...");
    bool ok = false;
    try {
        ok = Extract(request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, this);
    } catch (const std::exception& e) {
        QRB_LOGW("Exception caught: %s", e.what());
        ok = false;
    } catch (...) {
        QRB_LOGW("Exception caught");
        ok = false;
    }

    // The grabber has tried every position: the request succeeds however many of them gave a
    // frame. One that opens but gives none is answered without images, and says why.
    if (ok && request.FrameCount > 0 && item->GetImageCount() == 0) {
        QRBNoteFailure(QRBFailure::kNoFrame);
        QRB_LOGW("no frame could be grabbed from %s", path.c_str());
    }

    if (request.FrameCount == 5 && AbandonRequested()) {
        // Whatever the item holds is a part of the frames; it must not be served later as all.
        QRB_LOGD("no need to flash");
    } else if (request.FrameCount == 5) {
        if (mediaId.empty()) {
            // A file without a media id could never be read back; none is written.
            QRB_LOGD("media id empty!!\n");
        } else {
            std::string mtaPath = m_VideoMtaPath(mediaId);
            if (m_WriteVideoMtaFile(mtaPath, item)) {
                QRB_LOGD("WriteVideoMtaFile success.\n");
            } else {
                QRB_LOGW("WriteVideoMtaFile fail!\n");
            }
        }
    } else {
        QRB_LOGD("no need to flash");
    }
    return ok;
}

void CQRBThumbnailVideoDecoder::m_SplitVideoURL(const std::string& url, std::string* mediaId,
                                                std::string* path) {
    std::vector<std::string> parts;
    boost::algorithm::split(parts, url, boost::algorithm::is_any_of(";"));
    std::string id;
    std::string file = url;
    if (parts.size() == 2) {
        id = parts[0];
        file = parts[1];
    }
    if (id.find('/') != std::string::npos) {
        QRB_LOGW("media id [%s] is not a file name; no MTA file for it", id.c_str());
        id.clear();
    }
    if (mediaId != nullptr) *mediaId = id;
    if (path != nullptr) *path = file;
}

bool CQRBThumbnailVideoDecoder::Extract(_stRequestedItem request,
                                        boost::intrusive_ptr<CQRBThumbnailItem> item,
                                        FrameCallback callback, void* user) {
    if (request.strURL.empty() || request.width < 0 || request.height < 0 || callback == nullptr) {
        QRB_LOGW("Invalid parameter...");
        return false;
    }
    m_CurrentRequest = request;
    std::string path;
    m_SplitVideoURL(request.strURL, nullptr, &path);

    if (m_CheckDrm(path.c_str())) return false;

    if (!m_GetFrameFromArcplayer(m_CurrentRequest, item, callback, user)) {
        QRBNoteFailure(QRBFailure::kNoFrame);
        QRB_LOGW("decode with arcplayer fail");
        return false;
    }
    return true;
}

bool CQRBThumbnailVideoDecoder::m_GetFrameFromArcplayer(
    _stRequestedItem& request, boost::intrusive_ptr<CQRBThumbnailItem> item, FrameCallback callback,
    void* user) {
    m_BindMedia();
    // One copy for the whole extraction: a decoder built meanwhile rewrites the table.
    const QRBFFmpegApi api = qrb_ffmpeg_api_snapshot();
    if (!qrb_check_ffmpeg_api(api)) {
        QRBNoteFailure(QRBFailure::kNoPlugins);
        QRB_LOGW("dlopen or dlsym fail");
        return false;
    }
    QRB_LOGD("decode begin");
    std::string path;
    m_SplitVideoURL(request.strURL, nullptr, &path);
    QRBFFmpegInput* input = nullptr;
    const int ret = api.open_input(path.c_str(), &input);
    if (input == nullptr) {
        // The plug-in answers a negative errno for files it cannot open at all.
        if (ret == AVERROR(ENOENT) || ret == AVERROR(ENOTDIR) || ret == AVERROR(EACCES) ||
            ret == AVERROR(EPERM)) {
            QRBNoteFileFailure(-ret);
        } else {
            QRBNoteFailure(QRBFailure::kUnknownFormat);
        }
        QRB_LOGW("ic_ptr pointer is NULL,file:%s.", path.c_str());
        QRB_LOGD("open input: %d", ret);
        return false;
    }
    return m_GrabFrames(api, input, request, item, callback, user);
}

bool CQRBThumbnailVideoDecoder::m_GrabFrames(const QRBFFmpegApi& api, QRBFFmpegInput* rawInput,
                                             _stRequestedItem& request,
                                             boost::intrusive_ptr<CQRBThumbnailItem> item,
                                             FrameCallback callback, void* user) {
    QRBApiInput input(rawInput, ApiInputClose{api.close_input});
    if (api.seek_available(input.get()) != 0) {
        QRB_LOGW("ffmpeg_av_seek_frame_available fail!");
        return false;
    }
    // Both sides must reach 4K: a 3840 x 2000 picture is decoded like any other.
    const bool is4K = input->width >= 3840 && input->height >= 2160;
    QRB_LOGD("width [%d], height[%d]\n", input->width, input->height);
    if (is4K) QRB_LOGD("4K video: only key frames are decoded");
    AVCodecContext* context = input->codec_context;
    if (context == nullptr) {
        QRB_LOGW("codec_context pointer is NULL\n");
        return false;
    }
    if (input->video_codec == nullptr) {
        QRB_LOGW("video_codec pointer is NULL\n");
        return false;
    }
    if (api.codec_open(context, input->video_codec) < 0) {
        QRB_LOGW("ffmpeg_avcodec_open2 error");
        return false;
    }
    QRBApiOpenCodec codec(context, ApiCodecClose{api.codec_close});

    QRBApiFrame frame(api.alloc_frame(), ApiFrameFree{api.free_frame});
    QRBApiFrame scaled(api.alloc_frame(), ApiFrameFree{api.free_frame});
    if (!frame || !scaled) {
        QRB_LOGW("alloc frame error");
        return false;
    }
    QRBScopedPacket packet(api.alloc_packet());
    if (!packet) {
        QRB_LOGW("ffmpeg_avcodec_alloc_packet fail!");
        return false;
    }
    // An unknown length (-1) has no positions to spread over. A container that says 0 still
    // has its pictures: every position is then the start.
    const long long duration = input->duration;
    if (duration < 0) {
        QRB_LOGW("duration [%lld] error", duration);
        return false;
    }

    const int frameCount = request.FrameCount;
    const long long step = duration / (frameCount + 1);
    const AVRational timeBase = {input->time_base_num > 0 ? input->time_base_num : 1,
                                 input->time_base_den > 0 ? input->time_base_den : 1};
    bool ok = true;
    for (int i = 0; i < frameCount && ok; ++i) {
        if (AbandonRequested()) {
            QRB_LOGW("stop requested, frame grabbing abandoned at frame[%d]", i);
            ok = false;
            break;
        }
        QRB_LOGD("get frame[%d]", i);
        const long long target = step * (i + 1);
        if (api.seek_frame(input.get(), target) < 0) {
            // Read on from where the demuxer stands: the frame comes out late, not wrong.
            QRB_LOGW("seek to %lld failed", target);
        }
        api.init_packet(packet.get());

        int attempts = 0;
        int decoded = 0;
        int skipped = 0;
        bool got = false;
        while (!got) {
            if (AbandonRequested()) break;
            if (api.read_frame(input.get(), packet.get()) < 0) {
                api.free_packet(packet.get());
                QRB_LOGD("bFind:%d,frame:%d", got ? 1 : 0, i);
                break;
            }
            if (packet->stream_index != input->video_stream_index) {
                api.free_packet(packet.get());
                api.init_packet(packet.get());
                continue;
            }
            // Decoding starts at a key frame and then follows the packets until a picture is
            // complete; a 4K video decodes key frames only, the others cost too much.
            const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
            if (is4K ? !key : (!key && decoded == 0)) {
                ++skipped;
                api.free_packet(packet.get());
                api.init_packet(packet.get());
                continue;
            }
            int gotPicture = 0;
            const int len = api.decode_video(context, frame.get(), &gotPicture, packet.get());
            ++decoded;
            if (len < 0) {
                ++attempts;
                QRB_LOGW("Decode Falied: len < 0");
                api.free_packet(packet.get());
                if (attempts < 201) {
                    api.init_packet(packet.get());
                    continue;
                }
                break;
            }
            if (gotPicture == 0) {
                ++attempts;
                QRB_LOGD("frame:[%d] decode not finished.", i);
                api.free_packet(packet.get());
                if (attempts > 200) break;
                api.init_packet(packet.get());
                continue;
            }
            got = true;
        }
        QRB_LOGD("frame[%d]: %d packets decoded, %d skipped", i, decoded, skipped);
        if (AbandonRequested()) {
            QRB_LOGW("stop requested, frame grabbing abandoned at frame[%d]", i);
            ok = false;
            break;
        }
        // Between positions the decoder forgets what it held, whether or not this position gave
        // a picture: the next one starts from another key frame.
        if (frameCount > i + 1) api.flush_buffers(context);
        api.free_packet(packet.get());
        if (!got) continue;
        QRB_LOGD("pts=%lld,dts:%lld", static_cast<long long>(frame->pts),
                 static_cast<long long>(frame->pkt_dts));

        // The decoded picture's own size and format, not the stream's: a stream may change
        // them midway, and the scaler must read exactly what the frame holds.
        const int srcW = frame->width;
        const int srcH = frame->height;
        long long outW = 0;
        long long outH = 0;
        CoverSize(srcW, srcH, request.width, request.height, &outW, &outH);
        const int numBytes = (outW > 0 && outH > 0 && outW <= INT_MAX && outH <= INT_MAX)
                                 ? api.picture_size(QRB_FFMPEGAPI_FMT_ARGB, static_cast<int>(outW),
                                                    static_cast<int>(outH))
                                 : -1;
        if (numBytes < 1) {
            QRB_LOGW("numBytes[%d]\n", numBytes);
            ok = false;
            break;
        }
        QRBMallocBuffer buffer(static_cast<unsigned char*>(std::malloc(numBytes)), &std::free);
        if (!buffer) {
            QRB_LOGW("malloc fail!");
            ok = false;
            break;
        }
        long long pts = frame->best_effort_timestamp;
        if (pts == AV_NOPTS_VALUE) pts = frame->pts;
        if (pts == AV_NOPTS_VALUE) pts = input->start_pts;
        // Milliseconds from the start of the video stream.
        const long long timestamp = av_rescale_q(pts - input->start_pts, timeBase, {1, 1000});
        if (api.picture_fill(scaled.get(), buffer.get(), QRB_FFMPEGAPI_FMT_ARGB,
                             static_cast<int>(outW), static_cast<int>(outH)) < 0) {
            QRB_LOGW("ffmpeg_av_picture_fill fail!");
            ok = false;
            break;
        }
        QRBApiSwsContext sws(api.sws_get_context(srcW, srcH, frame->format, static_cast<int>(outW),
                                                 static_cast<int>(outH), QRB_FFMPEGAPI_FMT_ARGB),
                             ApiSwsFree{api.sws_free_context});
        if (!sws) {
            QRB_LOGW("ffmpeg_av_sws_getcontent fail!");
            ok = false;
            break;
        }
        QRB_LOGD("begin to scale");
        if (api.sws_scale(sws.get(), frame->data, frame->linesize, 0, srcH, scaled->data,
                          scaled->linesize) <= 0) {
            QRB_LOGW("ffmpeg_av_sws_scale fail!");
            ok = false;
            break;
        }
        sws.reset();
        QRB_LOGD(
            "success get video thumbnail:frame=%d,coded_width=%d,coded_height=%d,timestamp:%lld,"
            "frame_data[%p].",
            i, srcW, srcH, timestamp, static_cast<void*>(buffer.get()));
        // The callback owns the buffer from here on, whatever it answers.
        callback(request, buffer.release(), nullptr, timestamp, static_cast<int>(outW),
                 static_cast<int>(outH), user, item);
    }

    QRB_LOGD("release ffmpeg resource begin");
    scaled.reset();
    frame.reset();
    packet.reset();
    codec.reset();
    input.reset();
    QRB_LOGD("release ffmpeg resource end");
    return ok;
}

bool CQRBThumbnailVideoDecoder::m_GetFrame(AVFormatContext* context, int frameCount, int width,
                                           int height, FrameCallback callback,
                                           _stRequestedItem& request,
                                           boost::intrusive_ptr<CQRBThumbnailItem> item,
                                           void* user) {
    if (context == nullptr || callback == nullptr || frameCount < 0 || frameCount > 255 ||
        width < 0 || height < 0) {
        QRB_LOGW("Invalid parameter...");
        return false;
    }
    QRB_LOGD("decode begin");
    QRBFFmpegInput* input = nullptr;
    const int ret = qrbffmpeg::AdoptInput(context, &input);
    if (input == nullptr) {
        QRB_LOGW("failed to find av stream. maybe corrupted data.\n");
        QRB_LOGD("adopt input: %d", ret);
        return false;
    }
    _stRequestedItem wanted = request;
    wanted.FrameCount = static_cast<unsigned char>(frameCount);
    wanted.width = width;
    wanted.height = height;
    return m_GrabFrames(DirectApi(), input, wanted, item, callback, user);
}

bool CQRBThumbnailVideoDecoder::m_FFMpegInit(const char* url, AVFormatContext** context) {
    if (url == nullptr || context == nullptr) return false;
    *context = nullptr;
    // No av_register_all: FFmpeg 5 registers its formats itself.
    int nRet = qrbffmpeg::OpenFormat(url, qrbffmpeg::kVideoFormats, context);
    if (nRet != 0) {
        QRB_LOGW("error : avformat_open_input failed nRet=%d", nRet);
        *context = nullptr;
        return false;
    }
    if (*context == nullptr) {
        QRB_LOGW("failed to find av stream. maybe corrupted data.\n");
        return false;
    }
    return true;
}

bool CQRBThumbnailVideoDecoder::m_FFMpegDeInit(AVFormatContext** context) {
    if (context != nullptr) avformat_close_input(context);
    return true;
}

bool CQRBThumbnailVideoDecoder::Video_Complete_Cb(_stRequestedItem request, unsigned char* argb,
                                                  char* preset, long long timestamp, int width,
                                                  int height, void* user,
                                                  boost::intrusive_ptr<CQRBThumbnailItem> item) {
    // From here on the buffer is ours: it becomes the image's, or it is freed.
    std::unique_ptr<unsigned char, decltype(&std::free)> buffer(argb, &std::free);
    if (!item) return false;
    if (preset != nullptr) {
        if (!item->SetBufferPreset(preset)) {
            QRB_LOGW("SetBufferPreset failed ####\n");
        } else {
            QRB_LOGD("preset is : [%s]####\n", item->GetPreset());
        }
    }
    if (!buffer || width <= 0 || height <= 0) return false;
    const long long bytes = static_cast<long long>(width) * height * 4;
    if (bytes > INT_MAX) {
        QRB_LOGW("frame %dx%d too large", width, height);
        return false;
    }

    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    bool created =
        image->Create(width, height, 4, static_cast<long>(width) * 4, buffer.release(), timestamp);
    image->SetBufSize(static_cast<long>(bytes));
    if (request.width != 0 && request.width <= image->GetWidth() && request.height != 0 &&
        request.height <= image->GetHeight()) {
        image->CropARGB((image->GetWidth() - request.width) / 2,
                        (image->GetHeight() - request.height) / 2, request.width, request.height);
    }
    if (!item->AddImage(image)) {
        QRB_LOGW("item already holds %d images; frame dropped", item->GetImageCount());
        return false;
    }
    item->SetSize(image->GetWidth() * image->GetHeight() * 4);
    item->SetRID(request.RID);
    item->SetThumbnailType(request.eThumbnailType);
    item->SetURL(request.strURL);
    item->SetUsedCache(request.bUsedCache);
    return created;
}

bool CQRBThumbnailVideoDecoder::m_CheckDrm(const char* path) {
    if (path == nullptr) return false;
    divx_drm_manager* raw = nullptr;
    int error = divx_drm_get_manager(path, &raw);
    if (error != DIVX_DRM_ERROR_NONE) {
        QRB_LOGW("can not get drm manager");
        return false;
    }
    if (raw == nullptr) {
        QRB_LOGW("get drm manager return no error, but is null!!");
        return false;
    }
    ScopedDrmManager manager(raw);  // always closed, whatever open answers
    if (divx_drm_open(manager.get(), path) == 0) {
        QRBNoteFailure(QRBFailure::kProtected);
        QRB_LOGI("it is drm file");
        return true;
    }
    return false;
}

bool CQRBThumbnailVideoDecoder::m_IsFileExist(const char* path) {
    if (path == nullptr) return false;
    std::string file = path;
    static const std::string kScheme = "file://";
    if (file.compare(0, kScheme.size(), kScheme) == 0) file.erase(0, kScheme.size());
    if (access(file.c_str(), R_OK) != 0) {
        QRB_LOGW("file [%s] not found.\n", file.c_str());
        return false;
    }
    return true;
}

bool CQRBThumbnailVideoDecoder::m_WriteFlashFile(const char* path, const char* data, int size) {
    if (path == nullptr || (data == nullptr && size > 0) || size < 0) return false;
    // A link planted at the name is not followed.
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    ScopedStdioFile file(fd >= 0 ? fdopen(fd, "wb") : nullptr);
    if (!file) {
        if (fd >= 0) close(fd);
        QRB_LOGW("Failed to create %s  file.\n", path);
        return false;
    }
    if (size > 0 &&
        std::fwrite(data, 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) {
        QRB_LOGW("write %s fail\n", path);
        return false;
    }
    return std::fclose(file.release()) == 0;
}

uint32_t CQRBThumbnailVideoDecoder::m_TimeTick() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000);
}
