#include "qrb_thumbnail_decode_base.h"

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
