#include "qrb_thumbnail_extractor.h"

#include "qrb_log.h"
#include "qrb_thumb_flyweight_factory.h"

void CQRBThumbnailExtractor::m_Stamp(const _stRequestedItem& req, CQRBThumbnailItem* item) {
    // Stamped so that the cache can find the item by (RID, URL) for this request later.
    item->SetRID(req.RID);
    item->SetURL(req.strURL);
    item->SetThumbnailType(req.eThumbnailType);
    item->SetUsedCache(req.bUsedCache);
}

bool CQRBThumbnailExtractor::ExtractThumb(_stRequestedItem req,
                                          boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    CQRBThumbnailGetter* getter = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(req.eThumbnailType);
    if (getter == nullptr) {
        QRB_LOGW("no getter for thumbnail type %d, url=%s", static_cast<int>(req.eThumbnailType),
                 req.strURL.c_str());
        item = nullptr;
        return false;
    }
    _stExtractInfo info;
    info.strURL = req.strURL;
    info.width = req.width;
    info.height = req.height;
    info.nOrientation = req.nOrientation;
    info.FrameCount = req.FrameCount;
    item = getter->ExtractThumbnail(info);
    if (!item) return false;
    m_Stamp(req, item.get());
    return true;
}

bool CQRBThumbnailExtractor::ExtractThumb(_stRequestedItem req, std::string& buffer,
                                          boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    CQRBThumbnailGetter* getter = CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(req.eThumbnailType);
    if (getter == nullptr) {
        QRB_LOGW("no getter for thumbnail type %d, url=%s", static_cast<int>(req.eThumbnailType),
                 req.strURL.c_str());
        item = nullptr;
        return false;
    }
    item = getter->ExtractThumbnail(buffer, req.width, req.height);
    if (!item) return false;
    m_Stamp(req, item.get());
    return true;
}
