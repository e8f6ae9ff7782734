#include "qrb_thumb_http_decoder.h"

#include "qrb_failure.h"
#include "qrb_log.h"

#include <exception>

CQRBThumbHttpDecoder::CQRBThumbHttpDecoder(CQRBThumbHttpParking* parking) : m_pParking(parking) {}

CQRBThumbHttpDecoder::~CQRBThumbHttpDecoder() { Destroy(); }

bool CQRBThumbHttpDecoder::Create(CQRBThumbRequestList* list, CQRBThumbCache* cache) {
    if (list == nullptr || cache == nullptr || m_pParking == nullptr) {
        QRB_LOGW("[%s][create failed]", __func__);
        return false;
    }
    m_pList = list;
    m_pCache = cache;
    if (!m_pExtractor) m_pExtractor.reset(new CQRBThumbnailExtractor);
    m_bStop = false;
    if (!CQRBThread::Create("QRBThumbHttpDec")) {
        QRB_LOGW("[%s][create failed]", __func__);
        return false;
    }
    return true;
}

void CQRBThumbHttpDecoder::Destroy() {
    if (!FlagCreate()) return;
    QRB_LOGD("[%s][%d]", __func__, __LINE__);
    RequestStop();
    CQRBThread::Destroy();
    m_pExtractor.reset();
}

bool CQRBThumbHttpDecoder::m_SendDoneEvent(const _stRequestedItem* req,
                                           boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
    return t_SendEvent(req, std::move(item), ok);
}

bool CQRBThumbHttpDecoder::m_AnswerFromCache(const _stRequestedItem& request) {
    // The cache holds decoded thumbnails, which a buffer request does not want.
    if (!request.bUsedCache || request.bRequestBuffer) return false;
    boost::intrusive_ptr<CQRBThumbnailItem> item;
    if (!m_pCache->Get(request.RID, request.strURL, request.width, request.height, item))
        return false;
    QRB_LOGD("bResult=%d", 1);
    const auto& images = item->GetImages();
    m_SendDoneEvent(&request, item, !images.empty() && images[0]);
    return true;
}

void CQRBThumbHttpDecoder::m_Decode(const _stRequestedItem& request, std::string& bytes) {
    boost::intrusive_ptr<CQRBThumbnailItem> item;
    const bool result = m_pExtractor->ExtractThumb(request, bytes, item);
    if (item && request.bUsedCache) m_pCache->Insert(item);
    m_SendDoneEvent(&request, item, result && item);
}

void CQRBThumbHttpDecoder::m_Serve(const _stRequestedItem& request) {
    QRB_LOGD("RequestedItem.szURI=%s, RequestedItem.eThumbnailType=%d, state=%d",
             request.strURL.c_str(), static_cast<int>(request.eThumbnailType),
             static_cast<int>(request.state));
    std::string bytes;
    long httpStatus = 0;
    const bool parked = m_pParking->Take(request, &bytes, &httpStatus);
    // An error page is no picture: should it fail to decode, the status is why.
    if (parked && httpStatus >= 400) {
        QRBNoteFailure(QRBFailure::kDownloadFailed, "HTTP " + std::to_string(httpStatus));
    }

    if (request.state == ITEM_DECODING && !parked) {
        if (m_AnswerFromCache(request)) return;
        m_pList->ChangeItemState(request, ITEM_WAIT_DOWNLOAD);
        return;
    }
    if (!parked) {
        // Downloaded, but its bytes are gone: they went with a cancel that raced the download.
        QRB_LOGW("no downloaded buffer, url=%s", request.strURL.c_str());
        m_SendDoneEvent(&request, nullptr, false);
        return;
    }
    QRB_LOGD("downloaded buffer of %d bytes, url=%s", static_cast<int>(bytes.size()),
             request.strURL.c_str());
    m_Decode(request, bytes);
}

void CQRBThumbHttpDecoder::t_Process() {
    _stRequestedItem request;
    while (m_NextRequest([&] { return m_pList->GetForHttpDecode(&request); })) {
        // Whatever a getter throws, the request still gets its one event.
        if (!t_ServeGuarded(request, [&] { m_Serve(request); })) {
            m_pParking->Drop(request);
            m_SendDoneEvent(&request, nullptr, false);
        }
    }
    QRB_LOGD("t_Process end");
}
