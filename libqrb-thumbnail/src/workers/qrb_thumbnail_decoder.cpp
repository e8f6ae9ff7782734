#include "qrb_thumbnail_decoder.h"

#include "qrb_failure.h"
#include "qrb_log.h"

#include <cstdio>
#include <exception>

CQRBThumbnailDecoder::~CQRBThumbnailDecoder() { Destroy(); }

bool CQRBThumbnailDecoder::Create(int n, CQRBThumbRequestList* list, CQRBThumbCache* cache) {
    if (list == nullptr || cache == nullptr) return false;
    m_pList = list;
    m_pCache = cache;
    if (!m_pExtractor) m_pExtractor.reset(new CQRBThumbnailExtractor);
    char name[64];
    std::snprintf(name, sizeof(name), "QRBThumbDec%d", n);
    m_bStop = false;
    if (!CQRBThread::Create(name)) return false;
    m_nNumber = n;
    QRB_LOGD("=============Number = %d==============\n", n);
    return true;
}

void CQRBThumbnailDecoder::Destroy() {
    if (!FlagCreate()) return;
    QRB_LOGD("Destroy decoder %d", m_nNumber);
    RequestStop();
    CQRBThread::Destroy();
    m_pExtractor.reset();
}

bool CQRBThumbnailDecoder::m_SendDoneEvent(const _stRequestedItem* req,
                                           boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
    return t_SendEvent(req, std::move(item), ok);
}

void CQRBThumbnailDecoder::m_Serve(const _stRequestedItem& request) {
    QRB_LOGD("RequestedItem.szURI=%s, RequestedItem.eThumbnailType=%d", request.strURL.c_str(),
             static_cast<int>(request.eThumbnailType));
    boost::intrusive_ptr<CQRBThumbnailItem> item;
    bool result = false;
    if (request.bUsedCache) {
        bool bResult =
            m_pCache->Get(request.RID, request.strURL, request.width, request.height, item);
        QRB_LOGD("bResult=%d", bResult ? 1 : 0);
        if (bResult) {
            // A hit counts only with a first image present; an empty entry is a failure and is
            // deliberately not extracted again.
            const auto& images = item->GetImages();
            result = !images.empty() && images[0];
            m_SendDoneEvent(&request, item, result);
            return;
        }
    }
    result = m_pExtractor->ExtractThumb(request, item);
    if (!item) {
        m_SendDoneEvent(&request, nullptr, result);
        return;
    }
    if (request.bUsedCache) m_pCache->Insert(item);
    m_SendDoneEvent(&request, item, result);
}

void CQRBThumbnailDecoder::t_Process() {
    _stRequestedItem request;
    while (m_NextRequest([&] { return m_pList->GetForMulti(&request); })) {
        // Whatever a getter throws, the request still gets its one event.
        if (!t_ServeGuarded(request, [&] { m_Serve(request); })) {
            m_SendDoneEvent(&request, nullptr, false);
        }
    }
    QRB_LOGD("t_Process end");
}
