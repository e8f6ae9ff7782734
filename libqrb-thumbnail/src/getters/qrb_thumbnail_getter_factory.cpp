#include "qrb_thumbnail_getter_factory.h"

#include "qrb_dlna_thumbnail_getter.h"
#include "qrb_exif_thumbnail_getter.h"
#include "qrb_id3_thumbnail_getter.h"
#include "qrb_log.h"
#include "qrb_ptp_thumbnail_getter.h"
#include "qrb_pvr_thumbnail_getter.h"
#include "qrb_ra_thumbnail_getter.h"
#include "qrb_scsa_thumbnail_getter.h"
#include "qrb_sns_thumbnail_getter.h"

CQRBThumbnailGetterFactroy* CQRBThumbnailGetterFactroy::GetInstance() {
    static CQRBThumbnailGetterFactroy instance;  // thread-safe initialisation
    return &instance;
}

CQRBThumbnailGetter* CQRBThumbnailGetterFactroy::CreateThumbnailGetter(
    qrb_media_thumbnail_type type) {
    switch (type) {
        // One row per kind, kept as a table.
        // clang-format off
        case THUMB_PICTURE: case THUMB_SERIAL_PICTURE: return new CQRBExifThumbnailGetter(MEDIA_JPEG_EXTRACT_MODE0);
        case THUMB_PICTURE_MODE2: return new CQRBExifThumbnailGetter(MEDIA_JPEG_EXTRACT_MODE2);
        case THUMB_PICTURE_MODE1: return new CQRBExifThumbnailGetter(MEDIA_JPEG_EXTRACT_MODE1);
        case THUMB_MUSIC: case THUMB_SERIAL_MUSIC: return new CQRBID3ThumbnailGetter;
        case THUMB_PVR: return new CQRBPVRThumbnailGetter;
        case THUMB_PTP: return new CQRBPTPThumbnailGetter;
        case THUMB_DLNA: return new CQRBDLNAThumbnailGetter;
        case THUMB_SNS: return new CQRBSNSThumbnailGetter;
        case THUMB_RA: return new CQRBRAThumbnailGetter;
        case THUMB_SCSA: return new CQRBSCSAThumbnailGetter;
        // clang-format on
        // Video kinds (2, 15) are served by the video decoder threads, the reserved kinds by
        // nobody. The getters of the other kinds are added here as they are built.
        default:
            QRB_LOGD("no getter for thumbnail type %d", static_cast<int>(type));
            return nullptr;
    }
}
