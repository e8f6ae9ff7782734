// Runs the shared getter of a request's kind and hands back its item.
#ifndef QRB_THUMBNAIL_EXTRACTOR_H
#define QRB_THUMBNAIL_EXTRACTOR_H

#include "qrb_requested_item.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <string>

class CQRBThumbnailGetter;

class CQRBThumbnailExtractor {
public:
    // The getter's item (null on failure) replaces item; true when one came back. The item
    // carries the request's URL, RID, kind and cache flag.
    bool ExtractThumb(_stRequestedItem req, boost::intrusive_ptr<CQRBThumbnailItem>& item);
    // The same for bytes already downloaded (the HTTP variant's decode thread).
    bool ExtractThumb(_stRequestedItem req, std::string& buffer,
                      boost::intrusive_ptr<CQRBThumbnailItem>& item);

private:
    // The shared getter of the request's kind; null (logged) when it has none.
    static CQRBThumbnailGetter* m_GetterFor(const _stRequestedItem& req);
};

#endif
