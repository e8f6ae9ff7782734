#include "qrb_thumbnail_multi_imp.h"

#include "qrb_log.h"
#include "qrb_thumbnail_decoder.h"

CQRBThumbnailMultiImp::~CQRBThumbnailMultiImp() { t_Destroy(); }

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailMultiImp::RequestThumbnail(_stRequestedItem item,
                                                                                bool flag) {
    if (flag && m_pCache != nullptr) {
        boost::intrusive_ptr<CQRBThumbnailItem> hit;
        if (m_pCache->Get(item.RID, item.strURL, hit)) return hit;
    }
    m_RequestList.Insert(std::move(item));
    return nullptr;
}

bool CQRBThumbnailMultiImp::t_Create() {
    for (int n = 0; n < kWorkers; ++n) {
        CQRBThumbnailDecoder* worker = new CQRBThumbnailDecoder;
        if (worker->Create(n, &m_RequestList, m_pCache)) {
            m_Workers.push_back(worker);
            m_pLast = worker;
        } else {
            QRB_LOGW("decoder worker %d failed to start", n);
            delete worker;
        }
    }
    return true;
}

void CQRBThumbnailMultiImp::t_Destroy() {
    for (QRBThumbnailDecodeBsae*& worker : m_Workers) {
        worker->Destroy();
        delete worker;
        worker = nullptr;
    }
    m_Workers.clear();
    m_pLast = nullptr;
}

void CQRBThumbnailMultiImp::RequestStop() {
    for (QRBThumbnailDecodeBsae* worker : m_Workers) worker->RequestStop();
}
