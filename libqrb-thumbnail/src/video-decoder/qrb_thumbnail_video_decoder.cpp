#include "qrb_thumbnail_video_decoder.h"

#include "divx_drm.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "video-decoder/qrb_ffmpeg_api_impl.h"
#include "video-decoder/qrb_ffmpeg_scoped.h"
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_video_frame_grabber.h"

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
        t.sws_set_source = &qrbffmpeg::SwsSetSourceFrame;
        return t;
    }();
    return api;
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
        // Whatever happens inside, the request gets its one event.
        if (!t_ServeGuarded(request, [&] { ok = m_Serve(request, item); })) {
            ok = false;
            item = nullptr;
        }
        t_ServeGuarded(request, [&] { t_SendEvent(&request, item, ok); });
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
    item->StampRequest(request);
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

bool CQRBThumbnailVideoDecoder::m_GrabFrames(const QRBFFmpegApi& api, QRBFFmpegInput* input,
                                             _stRequestedItem& request,
                                             boost::intrusive_ptr<CQRBThumbnailItem> item,
                                             FrameCallback callback, void* user) {
    QRBVideoFrameGrabber grabber(api, input, request, std::move(item), callback, user,
                                 [this] { return AbandonRequested(); });
    return grabber.Run();
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
    image->CropCentre(request.width, request.height);
    if (!item->AddImage(image)) {
        QRB_LOGW("item already holds %d images; frame dropped", item->GetImageCount());
        return false;
    }
    item->SetSize(image->GetWidth() * image->GetHeight() * 4);
    item->StampRequest(request);
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
    // Written beside and renamed over the name: a link planted at the name is replaced, never
    // followed, and a failed write leaves what was there.
    QRBTempFile file;
    if (!m_CreateBeside(path, file)) {
        QRB_LOGW("Failed to create %s  file.\n", path);
        return false;
    }
    if (!file.Write(data, static_cast<size_t>(size)) || !file.Close()) {
        QRB_LOGW("write %s fail\n", path);
        return false;
    }
    return file.RenameTo(path);
}

uint32_t CQRBThumbnailVideoDecoder::m_TimeTick() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000);
}
