// The process-wide service behind the C interface (implemented in qrb_thumbnail.cpp; the
// header has its own name because qrb_thumbnail.h is the public C header). It owns the result cache and the three
// variants (slot 0 single, 1 multi, 2 HTTP), decides the kind of every request and which
// variant serves it, and forwards requests, cancels, clears and stops. ReleaseInstance takes
// no lock: no other thread may be inside the service while it runs.
#ifndef QRB_THUMBNAIL_SERVICE_H
#define QRB_THUMBNAIL_SERVICE_H

#include "qrb_mutex.h"
#include "qrb_request_item_info.h"
#include "qrb_requested_item.h"
#include "qrb_thumb_cache.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <atomic>
#include <string>

class CQRBThumbnailBaseImp;

class CQRBThumbnail {
public:
    enum { SLOT_SINGLE = 0, SLOT_MULTI = 1, SLOT_HTTP = 2, SLOT_NONE = 3 };

    static CQRBThumbnail* GetInstance();
    static void ReleaseInstance();

    // Guards the creation of the service (GetInstance's slow path); nothing else takes it.
    static CQRBMutex& m_Mutex;

    static qrb_media_thumbnail_type GetThumbnailType(qrb_item_media_type media, qrb_extend_dev_type dev);
    static int m_GetThumbImpType(qrb_media_thumbnail_type type);

    boost::intrusive_ptr<CQRBThumbnailItem> RequestThumbnail(_stRequestedItem item, bool flag);
    boost::intrusive_ptr<CQRBThumbnailItem> RequestThumbnail(_stRequestItemInfo info, bool flag);
    boost::intrusive_ptr<CQRBThumbnailItem> RequestDeviceIcon(std::string url, int id,
                                                              qrb_device_icon_type icon,
                                                              qrb_thumbnail_callback callback,
                                                              bool bUsedCache, bool flag);
    void CancelRequest(std::string url, qrb_media_thumbnail_type type);
    void CancelRequest(long long rid, qrb_media_thumbnail_type type);
    void ClearRequestList();
    void ClearCache();
    void StopPTPThumbDecoding(bool sync);
    void StopVideoThumbDecoding(std::string url, bool sync);

    // The variant in a slot (null when it failed to start), and the cache.
    CQRBThumbnailBaseImp* Variant(int slot) { return (slot >= 0 && slot < 3) ? m_pImp[slot] : nullptr; }
    CQRBThumbCache* Cache() { return &m_Cache; }

private:
    CQRBThumbnail();
    ~CQRBThumbnail();
    CQRBThumbnail(const CQRBThumbnail&) = delete;
    CQRBThumbnail& operator=(const CQRBThumbnail&) = delete;

    void m_Create();
    void m_Destroy();
    static void m_WipeVideoFolder();

    CQRBThumbCache m_Cache;  // first constructed, last destroyed
    CQRBThumbnailBaseImp* m_pImp[3];

    static std::atomic<CQRBThumbnail*> m_pInstance;
};

#endif
