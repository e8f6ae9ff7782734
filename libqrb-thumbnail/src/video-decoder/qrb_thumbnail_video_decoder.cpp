// PLACEHOLDER (being replaced by the video work).
#include "qrb_thumbnail_video_decoder.h"
#include <unistd.h>
CQRBThumbnailVideoDecoder::CQRBThumbnailVideoDecoder() {}
CQRBThumbnailVideoDecoder::~CQRBThumbnailVideoDecoder() { Destroy(); }
bool CQRBThumbnailVideoDecoder::Create(int, CQRBThumbRequestList* list, CQRBThumbCache* cache) {
    if (!list || !cache) return false;
    m_pList = list; m_pCache = cache;
    return CQRBThread::Create("CQRBThumbnailVideoDecoder");
}
bool CQRBThumbnailVideoDecoder::Stop() { while (m_bBusy) usleep(10000); return true; }
void CQRBThumbnailVideoDecoder::Destroy() { if (!FlagCreate()) return; m_bStop = true; CQRBThread::Destroy(); }
void CQRBThumbnailVideoDecoder::t_Process() {
    while (!m_bStop) {
        _stRequestedItem r;
        if (!m_pList->GetForSingle(true, &r, false)) { usleep(50000); continue; }
        m_bBusy = true;
        m_pList->SendEvent(r.user_data, r.strURL, r.callback, nullptr, false);
        m_bBusy = false;
    }
}
