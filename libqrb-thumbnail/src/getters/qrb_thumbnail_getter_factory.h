// Makes the getter for a thumbnail kind. The class name is spelled so deliberately.
#ifndef QRB_THUMBNAIL_GETTER_FACTORY_H
#define QRB_THUMBNAIL_GETTER_FACTORY_H

#include "qrb_thumbnail.h"
#include "qrb_thumbnail_getter.h"

class CQRBThumbnailGetterFactroy {
public:
    static CQRBThumbnailGetterFactroy* GetInstance();
    // A new getter (owned by the caller), or null for kinds without one.
    CQRBThumbnailGetter* CreateThumbnailGetter(qrb_media_thumbnail_type type);

private:
    CQRBThumbnailGetterFactroy() = default;
};

#endif
