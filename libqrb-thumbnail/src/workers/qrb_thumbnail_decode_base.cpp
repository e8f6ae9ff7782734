#include "qrb_thumbnail_decode_base.h"

#include "qrb_log.h"

#include <exception>

bool QRBThumbnailDecodeBsae::Create(CQRBThumbRequestList*, CQRBThumbCache*) { return false; }
bool QRBThumbnailDecodeBsae::Create(int, CQRBThumbRequestList*, CQRBThumbCache*) { return false; }
bool QRBThumbnailDecodeBsae::Stop() { return false; }
bool QRBThumbnailDecodeBsae::m_SendDoneEvent(const _stRequestedItem*,
                                             boost::intrusive_ptr<CQRBThumbnailItem>, bool) {
    return false;
}
bool QRBThumbnailDecodeBsae::m_SendEventWithBuffer(const _stRequestedItem*,
                                                   boost::intrusive_ptr<CQRBThumbnailItem>, bool) {
    return false;
}

void QRBThumbnailDecodeBsae::RequestStop() {
    m_bStop = true;
    if (m_pList != nullptr) m_pList->WakeWorkers();
}

void QRBThumbnailDecodeBsae::m_WaitForWork(unsigned seen) {
    if (m_pList != nullptr) m_pList->WaitForChange(seen);
}

bool QRBThumbnailDecodeBsae::t_ServeGuarded(const _stRequestedItem& request,
                                            const std::function<void()>& serve) {
    try {
        serve();
        return true;
    } catch (const std::exception& e) {
        QRB_LOGW("Exception caught: %s, url=%s", e.what(), request.strURL.c_str());
    } catch (...) {
        QRB_LOGW("Exception caught, url=%s", request.strURL.c_str());
    }
    return false;
}

bool QRBThumbnailDecodeBsae::t_SendEvent(const _stRequestedItem* req,
                                         boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
    if (req == nullptr || m_pList == nullptr) return false;
    return m_pList->SendEvent(req->user_data, req->strURL, req->callback, item, ok);
}
