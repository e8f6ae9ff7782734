// Content packages (kind 16): the DMP source finds the package's first content with a picture
// it can read (always that content's first picture), the picture's bytes go to a temporary
// file in the data folder, the picture decoder turns the file into a raster covering the
// requested size, the centre is cropped to exactly that size (when the raster is at least that
// large in both directions and both sides are asked for) and the result is packed. The request
// URL is the package's path, as it stands.
//
// Temporary files are named "<data folder>scsa<pid><counter %05d>.jpg". They are created
// exclusively and without following links (mode 0600): a name that is taken, by a planted link
// or a left-over file, is skipped for the next counter value, a few times at most. The file is
// removed on every path once created; nothing else is ever removed.
//
// One instance serves every worker and keeps no per-request state; the counter is shared by all
// SCSA getters and atomic, so concurrent requests never share a name. Every failure gives a
// null item; the reason is logged where it happened.
#ifndef QRB_SCSA_THUMBNAIL_GETTER_H
#define QRB_SCSA_THUMBNAIL_GETTER_H

#include "qrb_thumbnail_getter.h"

#include <atomic>
#include <cstdint>
#include <string>

class QRBTempFile;

class CQRBSCSAThumbnailGetter : public CQRBThumbnailGetter {
public:
    CQRBSCSAThumbnailGetter() = default;
    ~CQRBSCSAThumbnailGetter() override = default;
    CQRBSCSAThumbnailGetter(const CQRBSCSAThumbnailGetter&) = delete;
    CQRBSCSAThumbnailGetter& operator=(const CQRBSCSAThumbnailGetter&) = delete;

    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Returns uri itself: the request names the package's path.
    const char* T_CONVERTURITOPATH(const char* uri) override { return uri; }

    // Writes the package's picture into a new temporary file under the next free name (the
    // shared counter advances for each name tried); the file goes when `file` does.
    static bool m_WriteFlashFile(QRBTempFile& file, const char* buffer, size_t size);
    // The temporary file's path for a process id and counter value.
    static std::string m_TempName(int pid, int counter);
    // The counter value handed out last (0 before the first).
    static int32_t m_LastFileID() { return m_lSCSAFileID.load(); }

private:
    // Shared by all SCSA getters; incremented once per name tried, never reset.
    static std::atomic<int32_t> m_lSCSAFileID;
};

#endif
