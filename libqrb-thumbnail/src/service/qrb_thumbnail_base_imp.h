// An implementation variant: one request list and the worker threads that drain it. The
// service runs three side by side (single, multi, HTTP) and routes each kind to one of them.
#ifndef QRB_THUMBNAIL_BASE_IMP_H
#define QRB_THUMBNAIL_BASE_IMP_H

#include "qrb_requested_item.h"
#include "qrb_thumb_cache.h"
#include "qrb_thumb_request_list.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <string>

class CQRBThumbnailBaseImp {
public:
    CQRBThumbnailBaseImp() = default;
    virtual ~CQRBThumbnailBaseImp() = default;
    CQRBThumbnailBaseImp(const CQRBThumbnailBaseImp&) = delete;
    CQRBThumbnailBaseImp& operator=(const CQRBThumbnailBaseImp&) = delete;

    virtual bool Create(CQRBThumbCache* cache);
    virtual void Destroy();
    virtual boost::intrusive_ptr<CQRBThumbnailItem> RequestThumbnail(_stRequestedItem item, bool flag);
    virtual void ClearCache();
    virtual void ClearRequestList();
    virtual void CancelRequest(long long rid);
    virtual void CancelRequest(std::string url);
    virtual void StopThumbDecoding(bool sync);
    virtual void StopVideoThumbDecoding(std::string url, bool sync);
    virtual bool t_Create();
    virtual void t_Destroy();
    // Asks every worker thread to stop without waiting for any; Destroy then joins them.
    virtual void RequestStop();

    CQRBThumbRequestList* RequestList() { return &m_RequestList; }

protected:
    CQRBThumbCache* m_pCache = nullptr;
    CQRBThumbRequestList m_RequestList;
};

#endif
