// One queued request, as the C interface fills it and the request list keeps it. Its key is
// (strURL, user_data) when RID is -1, else (RID, user_data).
#ifndef QRB_REQUESTED_ITEM_H
#define QRB_REQUESTED_ITEM_H

#include "qrb_thumbnail.h"

#include <string>

struct _stRequestedItem {
    std::string strURL;
    long long RID = -1;
    qrb_media_thumbnail_type eThumbnailType = THUMB_NONE;
    int nOrientation = 0;
    int width = 0;
    int height = 0;
    qrb_thumbnail_callback callback = nullptr;
    qrb_thumb_item_state state = ITEM_WAITING;
    bool bUsedCache = false;
    unsigned char FrameCount = 1;
    void* user_data = nullptr;
    bool bRequestBuffer = false;

    bool SameKey(const _stRequestedItem& other) const {
        if (user_data != other.user_data) return false;
        if (RID == -1) return other.RID == -1 && strURL == other.strURL;
        return RID == other.RID;
    }
};

#endif
