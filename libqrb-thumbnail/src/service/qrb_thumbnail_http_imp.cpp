#include "qrb_thumbnail_http_imp.h"

#include "qrb_log.h"

CQRBThumbnailHttpImp::~CQRBThumbnailHttpImp() { t_Destroy(); }

// In each of these the list goes first and the parked bytes after: the download thread checks
// the list after parking, so between the two every parked body is dropped by one side.
void CQRBThumbnailHttpImp::ClearRequestList() {
    m_RequestList.ClearAll();
    m_Parking.Clear();
}

void CQRBThumbnailHttpImp::CancelRequest(long long rid) {
    m_RequestList.Delete(rid);
    m_Parking.DropRID(rid);
}

void CQRBThumbnailHttpImp::CancelRequest(std::string url) {
    m_RequestList.Delete(url);
    m_Parking.DropURL(url);
}

bool CQRBThumbnailHttpImp::t_Create() {
    m_pDecoder.reset(new CQRBThumbHttpDecoder(&m_Parking));
    bool bRet = m_pDecoder->Create(&m_RequestList, m_pCache);
    if (bRet) {
        QRB_LOGD("[Thumbnail Debug:][%s][%d][bRet = %d]\n", __func__, __LINE__, 1);
    } else {
        QRB_LOGW("[Thumbnail Debug:][%s][%d][bRet = %d]\n", __func__, __LINE__, 0);
    }
    const bool decoderStarted = bRet;

    m_pHandle.reset(new CQRBThumbHttpHandle(&m_Parking));
    bRet = m_pHandle->Create(&m_RequestList, m_pCache);
    if (bRet) {
        QRB_LOGD("[Thumbnail Debug:][%s][%d][bRet = %d]\n", __func__, __LINE__, 1);
    } else {
        QRB_LOGW("[Thumbnail Debug:][%s][%d][bRet = %d]\n", __func__, __LINE__, 0);
    }

    if (decoderStarted && bRet) return true;
    t_Destroy();
    return false;
}

void CQRBThumbnailHttpImp::t_Destroy() {
    if (m_pDecoder) {
        m_pDecoder->Destroy();
        m_pDecoder.reset();
    }
    if (m_pHandle) {
        m_pHandle->Destroy();
        m_pHandle.reset();
    }
    m_Parking.Clear();
}

void CQRBThumbnailHttpImp::RequestStop() {
    if (m_pDecoder) m_pDecoder->RequestStop();
    if (m_pHandle) m_pHandle->RequestStop();
}
