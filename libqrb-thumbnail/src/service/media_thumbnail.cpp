// The exported C functions: thin adapters that fill the request record and forward to the
// service. No exception crosses this boundary: each is caught, logged, and answered as the
// function's failure value.
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_requested_item.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_service.h"
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"

#include <exception>
#include <new>
#include <string>

#define QRB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// At most five images are ever delivered: the result record has five slots.
unsigned char ClampFrameCount(unsigned char frames) {
    return frames > QRB_THUMB_MAX_IMAGES ? QRB_THUMB_MAX_IMAGES : frames;
}

int Request(const char* url, qrb_item_media_type media, qrb_extend_dev_type dev, int nOrientation,
            int width, int height, int bUsedCache, unsigned char FrameCount,
            qrb_thumbnail_callback callback, void* user_data, bool bRequestBuffer) {
    try {
        std::string strUrl = url ? url : "";
        QRB_LOGD("strUrl=%s", strUrl.c_str());
        CQRBThumbnail* service = CQRBThumbnail::GetInstance();
        _stRequestedItem item;
        item.strURL = strUrl;
        item.RID = -1;
        item.eThumbnailType = CQRBThumbnail::GetThumbnailType(media, dev);
        item.nOrientation = nOrientation;
        item.width = width;
        item.height = height;
        item.callback = callback;
        item.state = ITEM_WAITING;
        item.bUsedCache = bUsedCache != 0;
        item.FrameCount = ClampFrameCount(FrameCount);
        item.user_data = user_data;
        item.bRequestBuffer = bRequestBuffer;
        // A cached hit handed back here is released unused.
        service->RequestThumbnail(std::move(item), false);
    } catch (const std::exception& e) {
        QRB_LOGW("request failed: %s", e.what());
    } catch (...) {
        QRB_LOGW("request failed");
    }
    return 0;
}

}  // namespace

QRB_EXPORT int thumbnail_init(void) {
    try {
        return CQRBThumbnail::GetInstance() != nullptr ? 0 : -1;
    } catch (...) {
        QRB_LOGW("thumbnail_init failed");
        return -1;
    }
}

QRB_EXPORT int thumbnail_request_async(const char* url, qrb_item_media_type media,
                                       qrb_extend_dev_type dev, int nOrientation, int width,
                                       int height, int bUsedCache, unsigned char FrameCount,
                                       qrb_thumbnail_callback callback, void* user_data) {
    return Request(url, media, dev, nOrientation, width, height, bUsedCache, FrameCount, callback,
                   user_data, false);
}

QRB_EXPORT int thumbnail_request_http_buffer_async(const char* url, qrb_item_media_type media,
                                                   qrb_extend_dev_type dev, int nOrientation,
                                                   int width, int height, int bUsedCache,
                                                   unsigned char FrameCount,
                                                   qrb_thumbnail_callback callback,
                                                   void* user_data) {
    return Request(url, media, dev, nOrientation, width, height, bUsedCache, FrameCount, callback,
                   user_data, true);
}

QRB_EXPORT int thumbnail_request_cancel(const char* url, qrb_item_media_type media,
                                        qrb_extend_dev_type dev) {
    try {
        CQRBThumbnail::GetInstance()->CancelRequest(std::string(url ? url : ""),
                                                    CQRBThumbnail::GetThumbnailType(media, dev));
    } catch (...) {
        QRB_LOGW("cancel failed");
    }
    return 0;
}

QRB_EXPORT int thumbnail_request_cancel_all(void) {
    try {
        CQRBThumbnail::GetInstance()->ClearRequestList();
    } catch (...) {
        QRB_LOGW("cancel all failed");
    }
    return 0;
}

QRB_EXPORT void thumbnail_stop_ptp_decode_sync(void) {
    try {
        CQRBThumbnail::GetInstance()->StopPTPThumbDecoding(true);
    } catch (...) {
        QRB_LOGW("stop failed");
    }
}

// Remote-access pictures run on the same one-at-a-time worker as PTP, so they deliberately
// share its stop path.
QRB_EXPORT void thumbnail_stop_ra_decode_sync(void) {
    try {
        CQRBThumbnail::GetInstance()->StopPTPThumbDecoding(true);
    } catch (...) {
        QRB_LOGW("stop failed");
    }
}

QRB_EXPORT int thumbnail_finalize(void) {
    try {
        CQRBThumbnail::ReleaseInstance();
    } catch (...) {
        QRB_LOGW("thumbnail_finalize failed");
    }
    return 0;
}

QRB_EXPORT const char* thumbnail_failure_reason(void) { return QRBFailureText(); }

// The recording functions run on the caller's thread with a decoder of their own; they need no
// service.
QRB_EXPORT int set_pvr_key_frame(void* frames, int frame_count, int request_width,
                                 int request_height, const char* srf_path) {
    QRB_LOGD("entering set_pvr_key_frame");
    try {
        CQRBThumbanailPVRDecoder decoder;
        return decoder.SetPvrKeyFrame(static_cast<_key_frame*>(frames), frame_count,
                                      request_width, request_height, srf_path);
    } catch (const std::exception& e) {
        QRB_LOGW("set_pvr_key_frame failed: %s", e.what());
    } catch (...) {
        QRB_LOGW("set_pvr_key_frame failed");
    }
    return -1;
}

QRB_EXPORT int parse_pvr_mta_file(const char* srf_path, void* result) {
    QRB_LOGD("entering parse_pvr_mta_file");
    try {
        CQRBThumbanailPVRDecoder decoder;
        return decoder.ParsePvrMtaFile(srf_path, static_cast<_thumb_result*>(result));
    } catch (const std::exception& e) {
        QRB_LOGW("parse_pvr_mta_file failed: %s", e.what());
    } catch (...) {
        QRB_LOGW("parse_pvr_mta_file failed");
    }
    return -1;
}
