// Chapter pictures of DLNA video items. The request URI is three fields joined by ";": the local
// path to download the item's MTA side file to, the file's URI on the server, and its MIME type.
// The getter downloads the file (blocking its worker until the download ends), decodes its five
// chapters and hands them back still encoded: one image per chapter, in chapter order, whose
// buffer is the JPEG bytes (buffer size = byte count, width, height and depth 0) and whose time
// stamp is the chapter's start. The requested size is not used. The downloaded file is left at
// its path.
//
// One instance serves both general workers, so the destination path of a request lives on that
// request's stack, never in the getter. Every failure yields a null item, except a URI of fewer
// than three fields: it raises std::out_of_range out of ExtractThumbnail, which the worker turns
// into a failed request.
#ifndef QRB_DLNA_THUMBNAIL_GETTER_H
#define QRB_DLNA_THUMBNAIL_GETTER_H

#include "qrb_thumbnail.h"
#include "qrb_thumbnail_getter.h"

#include <string>

class CQRBDLNAThumbnailGetter : public CQRBThumbnailGetter {
public:
    // Chapters an MTA file holds, and images an item of this kind carries.
    static constexpr int kChapters = 5;

    CQRBDLNAThumbnailGetter() = default;
    ~CQRBDLNAThumbnailGetter() override = default;
    CQRBDLNAThumbnailGetter(const CQRBDLNAThumbnailGetter&) = delete;
    CQRBDLNAThumbnailGetter& operator=(const CQRBDLNAThumbnailGetter&) = delete;

    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Returns uri itself: the URI is split, not turned into a path.
    const char* T_CONVERTURITOPATH(const char* uri) override { return uri; }

    // Downloads field 1 of uri to field 0 with the MIME type of field 2; *dstPath receives
    // field 0. True when the file now lies there. Throws std::out_of_range when uri has fewer
    // than three fields.
    bool DlnaMtaDownload(const char* uri, std::string* dstPath);
    // qrb_dlna_asf_mta_decode, true on success.
    bool DlnaMtaDecode(const char* path, thumb_asf_mta_info_s** infos, int& count);
    void DlnaMtaFree(thumb_asf_mta_info_s* infos, int count);
};

#endif
