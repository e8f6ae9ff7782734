// Photos on a camera attached over PTP: the camera's own small JPEG of the object is copied to
// a temporary file through the PTP manager, decoded by the picture decoder, turned upright by
// its EXIF orientation, scaled to fill the requested box, cropped to the box's centre and
// packed. Request URIs are "ptp://BUS;DEVICE;OBJECT" (decimal; the listing's items carry
// "ptp://%03d;%03d;%d").
//
// Temporary files are "<data folder>ptp<pid><counter %05d>.jpg". The name is claimed by
// creating the file exclusively and without following links (mode 0600), so a file or link
// planted at a predictable name is never written through; such a name is skipped for the next
// counter value, a few times at most. The claimed file is removed on every path.
//
// One instance serves every worker: it keeps no per-request state. The counter is
// process-wide and changed only under its mutex, so concurrent requests never share a name;
// the camera itself is serialised by the manager's lock. Every failure gives a null item.
#ifndef QRB_PTP_THUMBNAIL_GETTER_H
#define QRB_PTP_THUMBNAIL_GETTER_H

#include "qrb_mutex.h"
#include "qrb_ptp_manage.h"
#include "qrb_thumbnail_getter.h"

#include <cstdint>
#include <string>

class CQRBPTPThumbnailGetter : public CQRBThumbnailGetter {
public:

    CQRBPTPThumbnailGetter() = default;
    ~CQRBPTPThumbnailGetter() override = default;
    CQRBPTPThumbnailGetter(const CQRBPTPThumbnailGetter&) = delete;
    CQRBPTPThumbnailGetter& operator=(const CQRBPTPThumbnailGetter&) = delete;

    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // The text after "ptp://" (pointing into uri), or null for any other URI.
    const char* T_CONVERTURITOPATH(const char* uri) override;

    // The EXIF orientation of a JPEG file: the first Orientation tag found in IFD 0, IFD 1,
    // the Exif, GPS and interoperability IFDs, in that order.
    static bool m_GetRotation(const char* path, int& rotation);
    // Makes every missing folder of path (0755). True when the folder exists afterwards.
    static bool m_CreateDir(const char* path);
    // Scales image, keeping its aspect ratio, so that it fills width x height (integer
    // division, so it may fall a pixel short), then crops the centre to exactly that when it
    // covers the box. A request side of 0 leaves the image as it is.
    static void m_FillAndCrop(CQRBThumbImage& image, int width, int height);

    // The temporary file's path for a process id and counter value.
    static std::string m_TempName(int pid, int32_t counter);
    // The counter value handed out last (0 before the first).
    static int32_t m_LastFileID();

private:
    CQRBPTPManage m_PtpManage;

    static CQRBMutex m_FileIDMutex;
    static int32_t m_lPTPFileID;  // guarded by m_FileIDMutex; incremented before each use
};

#endif
