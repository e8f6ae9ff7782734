// PLACEHOLDER (being replaced by the HTTP work): the HTTP variant.
#ifndef QRB_THUMBNAIL_HTTP_IMP_H
#define QRB_THUMBNAIL_HTTP_IMP_H
#include "qrb_thumbnail_base_imp.h"
class CQRBThumbnailHttpImp : public CQRBThumbnailBaseImp {};
#endif
