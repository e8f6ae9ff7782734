// Recordings: the getter decodes nothing itself. It reads the PVR MTA file that the recorder had
// written beside the ".srf" recording through set_pvr_key_frame, brings each stored frame to the
// requested size and returns up to the requested number of them as the item's images.
//
// One instance serves every worker; it keeps no per-request state. Every failure (no file, a
// malformed one, frames that are not 4-byte rasters) gives a null item; every stored frame is
// freed, used or not.
#ifndef QRB_PVR_THUMBNAIL_GETTER_H
#define QRB_PVR_THUMBNAIL_GETTER_H

#include "qrb_thumbnail_getter.h"

class CQRBPVRThumbnailGetter : public CQRBThumbnailGetter {
public:
    // Images of the requested width x height (the stored size when either is 0), created with
    // depth argument 32 and a row-stride argument of 4 x height (sic: it equals the true row
    // length only for square thumbnails; kept as the image records have always carried it).
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Strips a leading "file://"; anything else is returned as it is. The result points into
    // uri.
    const char* T_CONVERTURITOPATH(const char* uri) override;
};

#endif
