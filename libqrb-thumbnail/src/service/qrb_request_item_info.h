// The class-level request record: what a caller inside the process hands the service. It
// names the media and source types; the service routes it to a thumbnail type.
#ifndef QRB_REQUEST_ITEM_INFO_H
#define QRB_REQUEST_ITEM_INFO_H

#include "qrb_thumbnail.h"

#include <string>

struct _stRequestItemInfo {
    std::string strURL;
    long long RID = -1;
    qrb_item_media_type media = MEDIA_TYPE_NONE;
    qrb_extend_dev_type sourcetype = DEV_TYPE_LOCAL;
    int nOrientation = 0;
    int width = 0;
    int height = 0;
    qrb_thumbnail_callback callback = nullptr;
    bool bUsedCache = false;
    unsigned char FrameCount = 1;
};

#endif
