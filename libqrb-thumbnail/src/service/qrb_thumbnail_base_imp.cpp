#include "qrb_thumbnail_base_imp.h"

bool CQRBThumbnailBaseImp::Create(CQRBThumbCache* cache) {
    if (cache == nullptr || !cache->FlagCreate()) return false;
    m_pCache = cache;
    if (!m_RequestList.Create()) return false;
    return t_Create();
}

void CQRBThumbnailBaseImp::Destroy() {
    t_Destroy();
    m_pCache = nullptr;
    m_RequestList.Destroy();
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailBaseImp::RequestThumbnail(_stRequestedItem item,
                                                                               bool) {
    m_RequestList.Insert(std::move(item));
    return nullptr;
}

void CQRBThumbnailBaseImp::ClearCache() {
    if (m_pCache) m_pCache->ClearAll();
}

void CQRBThumbnailBaseImp::ClearRequestList() { m_RequestList.ClearAll(); }
void CQRBThumbnailBaseImp::CancelRequest(long long rid) { m_RequestList.Delete(rid); }
void CQRBThumbnailBaseImp::CancelRequest(std::string url) { m_RequestList.Delete(std::move(url)); }
void CQRBThumbnailBaseImp::StopThumbDecoding(bool) {}
void CQRBThumbnailBaseImp::StopVideoThumbDecoding(std::string, bool) {}
// The base has no threads of its own: the list alone is its success.
bool CQRBThumbnailBaseImp::t_Create() { return true; }
void CQRBThumbnailBaseImp::t_Destroy() {}
void CQRBThumbnailBaseImp::RequestStop() {}
