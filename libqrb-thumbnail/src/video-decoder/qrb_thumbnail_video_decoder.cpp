#include "qrb_thumbnail_video_decoder.h"

#include "divx_drm.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
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

// av_dict_free takes the address of the pointer, so the dictionary is held by value here.
struct ScopedDictionary {
    AVDictionary* dict = nullptr;
    ScopedDictionary() = default;
    ScopedDictionary(const ScopedDictionary&) = delete;
    ScopedDictionary& operator=(const ScopedDictionary&) = delete;
    ~ScopedDictionary() { av_dict_free(&dict); }
};

// The containers a video thumbnail is taken from. Listing them keeps the demuxers that open
// further files on their own (playlists such as HLS or concat, IMF, DASH manifests, image
// sequences) out of reach of a crafted file.
constexpr const char* kVideoFormats =
    "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,avi,asf,flv,mpegts,mpeg,mpegvideo,m4v,h264,hevc,"
    "vc1,ogg,rm,dv,mxf,nut,wtv,mjpeg,yuv4mpegpipe";

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
    qrb_init_ffmpeg_api(&m_bMediaReady);
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
    while (m_bBusy) usleep(10000);
    return true;
}

void CQRBThumbnailVideoDecoder::Destroy() {
    m_bStop = true;
    // Returns once t_Process has left its loop: after at most one poll, or after the request
    // being served is answered.
    CQRBThread::Destroy();
    m_pExtractor.reset();
}

void CQRBThumbnailVideoDecoder::t_Process() {
    while (!m_bStop) {
        _stRequestedItem request;
        // Raised before the list is asked, so that a Stop that has just cleared the list either
        // sees this worker busy or knows it will find nothing.
        m_bBusy = true;
        if (!m_pList->GetForSingle(true, &request, false)) {
            m_bBusy = false;
            usleep(50000);
            continue;
        }
        BusyGuard busy(m_bBusy);
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

    if (cacheable && ok && item) {
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

    if (request.FrameCount == 5) {
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
        QRB_LOGW("decode with arcplayer fail");
        return false;
    }
    return true;
}

bool CQRBThumbnailVideoDecoder::m_GetFrameFromArcplayer(
    _stRequestedItem& request, boost::intrusive_ptr<CQRBThumbnailItem> item, FrameCallback callback,
    void* user) {
    if (!qrb_check_ffmpeg_api(g_QRBFFmpegApi)) {
        QRB_LOGW("dlopen or dlsym fail");
        return false;
    }
    // The decoding loop over the bound table (seek positions, packet reading, scaling, one
    // callback per frame) is not written yet; it comes with the plug-in libraries. Until then a
    // complete table still yields no frames, and the request fails rather than pretending.
    QRB_LOGW("frame grabbing over the media plug-ins is not available yet, url=%s",
             request.strURL.c_str());
    return false;
}

bool CQRBThumbnailVideoDecoder::m_FFMpegInit(const char* url, AVFormatContext** context) {
    if (url == nullptr || context == nullptr) return false;
    *context = nullptr;
    // No av_register_all: FFmpeg 5 registers its formats itself.
    ScopedDictionary options;
    av_dict_set(&options.dict, "protocol_whitelist", "file", 0);
    av_dict_set(&options.dict, "format_whitelist", kVideoFormats, 0);
    int nRet = avformat_open_input(context, url, nullptr, &options.dict);
    if (nRet != 0) {
        QRB_LOGW("error : avformat_open_input failed nRet=%d", nRet);
        *context = nullptr;  // avformat_open_input frees the context on failure
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
