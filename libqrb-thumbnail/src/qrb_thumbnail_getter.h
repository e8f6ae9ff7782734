// The base of every getter: it knows how to obtain the thumbnail of one kind of item. One
// instance per kind serves every worker, so a getter keeps no per-request state; counters that
// it does keep are guarded by its own mutex.
#ifndef QRB_THUMBNAIL_GETTER_H
#define QRB_THUMBNAIL_GETTER_H

#include "qrb_extract_info.h"
#include "qrb_thumb_image.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <string>

class CQRBThumbnailGetter {
public:
    virtual ~CQRBThumbnailGetter() = default;
    // The item for info, brought to the requested size, or null on every failure.
    virtual boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) = 0;
    // Turns a request URI into a local path.
    virtual const char* T_CONVERTURITOPATH(const char* uri) = 0;
    // The form for bytes already fetched (web pictures): null unless the kind supports it.
    virtual boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(std::string& buffer,
                                                                     int width, int height);

protected:
    // Wraps an image (already at the requested size) into a new item with RID 0.
    boost::intrusive_ptr<CQRBThumbnailItem> t_PackImage(boost::intrusive_ptr<CQRBThumbImage> image);
};

#endif
