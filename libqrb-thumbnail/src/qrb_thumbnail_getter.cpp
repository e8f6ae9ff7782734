#include "qrb_thumbnail_getter.h"

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailGetter::ExtractThumbnail(std::string&, int,
                                                                               int) {
    return nullptr;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailGetter::t_PackImage(
    boost::intrusive_ptr<CQRBThumbImage> image) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->SetRID(0);
    item->AddImage(image);
    if (image) {
        item->SetSize(image->GetWidth() * image->GetHeight() * 4);
    }
    return item;
}
