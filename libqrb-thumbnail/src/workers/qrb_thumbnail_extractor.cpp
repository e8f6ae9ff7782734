#include "qrb_thumbnail_extractor.h"

#include "qrb_log.h"
#include "qrb_thumb_flyweight_factory.h"

CQRBThumbnailGetter* CQRBThumbnailExtractor::m_GetterFor(const _stRequestedItem& req) {
    CQRBThumbnailGetter* getter =
        CQRBThumbFlyWeightFactroy::GetInstance()->GetFlyWeight(req.eThumbnailType);
    if (getter == nullptr) {
        QRB_LOGW("no getter for thumbnail type %d, url=%s", static_cast<int>(req.eThumbnailType),
                 req.strURL.c_str());
    }
    return getter;
}

bool CQRBThumbnailExtractor::ExtractThumb(_stRequestedItem req,
                                          boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    CQRBThumbnailGetter* getter = m_GetterFor(req);
    if (getter == nullptr) {
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
    item->StampRequest(req);  // the cache finds it by (RID, URL) later
    return true;
}

bool CQRBThumbnailExtractor::ExtractThumb(_stRequestedItem req, std::string& buffer,
                                          boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    CQRBThumbnailGetter* getter = m_GetterFor(req);
    if (getter == nullptr) {
        item = nullptr;
        return false;
    }
    item = getter->ExtractThumbnail(buffer, req.width, req.height);
    if (!item) return false;
    item->StampRequest(req);  // the cache finds it by (RID, URL) later
    return true;
}
