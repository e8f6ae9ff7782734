#include "qrb_thumbnail_service.h"

#include "qrb_log.h"
#include "qrb_mutex.h"
#include "qrb_system_path.h"
#include "qrb_thumbnail_base_imp.h"
#include "qrb_thumbnail_http_imp.h"
#include "qrb_thumbnail_multi_imp.h"
#include "qrb_thumbnail_single_imp.h"
#include "qrb_util.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

std::atomic<CQRBThumbnail*> CQRBThumbnail::m_pInstance{nullptr};
// Never destroyed: creation may be asked for at any time, even while the process exits.
CQRBMutex& CQRBThumbnail::m_Mutex = *new CQRBMutex;

CQRBThumbnail* CQRBThumbnail::GetInstance() {
    CQRBThumbnail* instance = m_pInstance.load(std::memory_order_acquire);
    if (instance != nullptr) return instance;
    CQRBAutoLock lock(m_Mutex);
    instance = m_pInstance.load(std::memory_order_acquire);
    if (instance == nullptr) {
        instance = new CQRBThumbnail;
        instance->m_Create();
        m_pInstance.store(instance, std::memory_order_release);
    }
    return instance;
}

void CQRBThumbnail::ReleaseInstance() {
    CQRBThumbnail* instance = m_pInstance.exchange(nullptr);
    delete instance;
}

CQRBThumbnail::CQRBThumbnail() : m_pImp{nullptr, nullptr, nullptr} {}

CQRBThumbnail::~CQRBThumbnail() {
    QRB_LOGD("~CQRBThumbnail");
    m_Destroy();
}

void CQRBThumbnail::m_WipeVideoFolder() {
    // Removed without a shell: the path is never interpreted by anything but the file system.
    const std::string video = QRBSystemPath(QRB_VIDEO_DIR);
    struct stat st;
    int rc = 0;
    if (lstat(video.c_str(), &st) == 0) {
        rc = QRBRemoveTree(video);
    }
    if (rc != 0) {
        QRB_LOGW("rm %s fail,errno:%d!", QRB_VIDEO_DIR, errno);
    } else {
        QRB_LOGD("remove %s success.!", QRB_VIDEO_DIR);
    }
}

void CQRBThumbnail::m_Create() {
    m_Cache.Create();
    QRBOpenDataFolder();
    m_pImp[SLOT_SINGLE] = new CQRBThumbnailSingleImp;
    m_pImp[SLOT_MULTI] = new CQRBThumbnailMultiImp;
    m_pImp[SLOT_HTTP] = new CQRBThumbnailHttpImp;
    for (int slot = 0; slot < 3; ++slot) {
        if (!m_pImp[slot]->Create(&m_Cache)) {
            QRB_LOGW("variant %d failed to start", slot);
            delete m_pImp[slot];
            m_pImp[slot] = nullptr;
        }
    }
    m_WipeVideoFolder();
}

void CQRBThumbnail::m_Destroy() {
    // Every thread is asked first, so that they all wind down together instead of one variant
    // after another.
    for (CQRBThumbnailBaseImp* imp : m_pImp) {
        if (imp != nullptr) imp->RequestStop();
    }
    for (int slot = 0; slot < 3; ++slot) {
        if (m_pImp[slot] == nullptr) continue;
        m_pImp[slot]->Destroy();
        delete m_pImp[slot];
        m_pImp[slot] = nullptr;
    }
    m_Cache.Destroy();
    // Last: no thread is left that could still write into a scratch folder.
    QRBCloseDataFolder();
    QRB_LOGD("m_Destroy end");
}

qrb_media_thumbnail_type CQRBThumbnail::GetThumbnailType(qrb_item_media_type media,
                                                         qrb_extend_dev_type dev) {
    // The device decides first: a camera, a social network or remote access each have one kind
    // whatever the media; a serial device has kinds of its own for pictures, songs and videos.
    // Applications pass any number: compared as ints, never held as an enumerator.
    const int d = static_cast<int>(dev);
    switch (d) {
        case DEV_TYPE_PTP:
        case DEV_TYPE_PTP_EXT:
            return THUMB_PTP;
        case DEV_TYPE_SNS:
        case DEV_TYPE_SNS_EXT1:
        case DEV_TYPE_SNS_EXT2:
        case DEV_TYPE_SNS_EXT3:
        case DEV_TYPE_SNS_EXT4:
            return THUMB_SNS;
        case DEV_TYPE_RA:
            return THUMB_RA;
        default:
            break;
    }
    const bool serial = d >= DEV_TYPE_SERIAL_FIRST && d <= DEV_TYPE_SERIAL_LAST;
    switch (static_cast<int>(media)) {
        case MEDIA_TYPE_VIDEO: return serial ? THUMB_SERIAL_VIDEO : THUMB_VIDEO;
        case MEDIA_TYPE_PICTURE: return serial ? THUMB_SERIAL_PICTURE : THUMB_PICTURE;
        case MEDIA_TYPE_MUSIC: return serial ? THUMB_SERIAL_MUSIC : THUMB_MUSIC;
        case MEDIA_TYPE_PVR: return THUMB_PVR;
        case MEDIA_TYPE_SCSA: return THUMB_SCSA;
        case MEDIA_TYPE_DLNA: return THUMB_DLNA;
        default: return THUMB_NONE;
    }
}

int CQRBThumbnail::m_GetThumbImpType(qrb_media_thumbnail_type type) {
    switch (static_cast<int>(type)) {
        // Local files and devices, decoded by a pool of workers.
        case THUMB_PICTURE:
        case THUMB_MUSIC:
        case THUMB_PICTURE_MODE2:
        case THUMB_PICTURE_MODE1:
        case THUMB_RESERVED7:
        case THUMB_RESERVED8:
        case THUMB_RESERVED9:
        case THUMB_DLNA:
        case THUMB_SCSA:
            return SLOT_MULTI;
        // One worker each: videos, recordings, cameras, remote access and serial devices.
        case THUMB_VIDEO:
        case THUMB_PVR:
        case THUMB_PTP:
        case THUMB_RA:
        case THUMB_SERIAL_PICTURE:
        case THUMB_SERIAL_MUSIC:
        case THUMB_SERIAL_VIDEO:
            return SLOT_SINGLE;
        case THUMB_SNS:
            return SLOT_HTTP;
        default:
            return SLOT_NONE;
    }
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnail::RequestThumbnail(_stRequestedItem item,
                                                                        bool flag) {
    QRB_LOGD("URL = %s, RID = %lld, eThumbnailType = %d, nOrientation = %d, width = %d, height = %d, "
             "bUsedCache = %d, FrameCount=%d, user_data=%p, bRequestBuffer=%d",
             item.strURL.c_str(), item.RID, static_cast<int>(item.eThumbnailType), item.nOrientation,
             item.width, item.height, item.bUsedCache ? 1 : 0, static_cast<int>(item.FrameCount),
             item.user_data, item.bRequestBuffer ? 1 : 0);
    const int slot = m_GetThumbImpType(item.eThumbnailType);
    if (slot == SLOT_NONE || m_pImp[slot] == nullptr) return nullptr;
    return m_pImp[slot]->RequestThumbnail(std::move(item), flag);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnail::RequestThumbnail(_stRequestItemInfo info,
                                                                        bool flag) {
    QRB_LOGD("URL = %s, RID = %lld, media = %d, sourcetype = %d, nOrientation = %d, width = %d, "
             "height = %d, bUsedCache = %d, FrameCount=%d",
             info.strURL.c_str(), info.RID, static_cast<int>(info.media),
             static_cast<int>(info.sourcetype), info.nOrientation, info.width, info.height,
             info.bUsedCache ? 1 : 0, static_cast<int>(info.FrameCount));
    const qrb_media_thumbnail_type type = GetThumbnailType(info.media, info.sourcetype);
    if (type == THUMB_NONE) return nullptr;
    _stRequestedItem item;
    item.strURL = info.strURL;
    item.RID = info.RID;
    item.eThumbnailType = type;
    item.nOrientation = info.nOrientation;
    item.width = info.width;
    item.height = info.height;
    item.callback = info.callback;
    item.state = ITEM_WAITING;
    item.bUsedCache = info.bUsedCache;
    item.FrameCount = info.FrameCount;
    item.user_data = nullptr;
    item.bRequestBuffer = false;
    return RequestThumbnail(std::move(item), flag);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnail::RequestDeviceIcon(
    std::string url, int id, qrb_device_icon_type icon, qrb_thumbnail_callback callback,
    bool bUsedCache, bool flag) {
    _stRequestedItem item;
    item.strURL = std::move(url);
    item.RID = static_cast<long long>(id);
    item.width = 0;
    item.height = 0;
    item.callback = callback;
    item.state = ITEM_WAITING;
    item.bUsedCache = bUsedCache;
    item.FrameCount = 1;
    item.user_data = nullptr;
    item.bRequestBuffer = false;
    int slot;
    if (icon == 0 || icon == 1) {
        item.eThumbnailType = THUMB_RESERVED9;
        item.nOrientation = static_cast<int>(icon);
        slot = SLOT_MULTI;
    } else {
        item.eThumbnailType = THUMB_SNS;
        item.nOrientation = 0;
        slot = SLOT_HTTP;
    }
    if (m_pImp[slot] == nullptr) return nullptr;
    return m_pImp[slot]->RequestThumbnail(std::move(item), flag);
}

void CQRBThumbnail::CancelRequest(std::string url, qrb_media_thumbnail_type type) {
    QRB_LOGD("strURL=%s", url.c_str());
    const int slot = m_GetThumbImpType(type);
    if (slot == SLOT_NONE || m_pImp[slot] == nullptr) return;
    m_pImp[slot]->CancelRequest(std::move(url));
}

void CQRBThumbnail::CancelRequest(long long rid, qrb_media_thumbnail_type type) {
    const int slot = m_GetThumbImpType(type);
    if (slot == SLOT_NONE || m_pImp[slot] == nullptr) return;
    m_pImp[slot]->CancelRequest(rid);
}

void CQRBThumbnail::ClearRequestList() {
    for (CQRBThumbnailBaseImp* imp : m_pImp) {
        if (imp != nullptr) imp->ClearRequestList();
    }
}

void CQRBThumbnail::ClearCache() { m_Cache.ClearAll(); }

void CQRBThumbnail::StopPTPThumbDecoding(bool sync) {
    if (m_pImp[SLOT_SINGLE] != nullptr) m_pImp[SLOT_SINGLE]->StopThumbDecoding(sync);
}

void CQRBThumbnail::StopVideoThumbDecoding(std::string url, bool sync) {
    if (m_pImp[SLOT_SINGLE] != nullptr) m_pImp[SLOT_SINGLE]->StopVideoThumbDecoding(std::move(url), sync);
}
