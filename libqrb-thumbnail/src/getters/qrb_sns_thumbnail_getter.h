// Pictures of the SNS kind, whose encoded bytes the HTTP variant has already downloaded: the
// bytes are written to a temporary file in the data folder, decoded there by the picture
// decoder, centre-cropped to the requested size where the decoded raster is at least that large
// in both directions, and packed. Only the buffer form serves requests; the path form yields
// null, since an SNS item is never a local file.
//
// Temporary files are named "<data folder><pid><counter %05d>.jpg". They are created
// exclusively and without following links (mode 0600), so a file or link planted at a
// predictable name is never written through; such a name is skipped for the next counter value,
// a few times at most, before the request fails. The file is removed on every path once
// created; nothing this getter did not create is ever removed.
//
// One instance serves the decode thread (and any other caller) without per-request state: the
// counter is shared by all SNS getters and atomic, so concurrent callers never share a name.
// Every failure yields a null item; the reason is logged where it happened.
#ifndef QRB_SNS_THUMBNAIL_GETTER_H
#define QRB_SNS_THUMBNAIL_GETTER_H

#include "qrb_thumbnail_getter.h"

#include <atomic>
#include <cstdint>
#include <string>

class QRBTempFile;

class CQRBSNSThumbnailGetter : public CQRBThumbnailGetter {
public:
    CQRBSNSThumbnailGetter() = default;
    ~CQRBSNSThumbnailGetter() override = default;
    CQRBSNSThumbnailGetter(const CQRBSNSThumbnailGetter&) = delete;
    CQRBSNSThumbnailGetter& operator=(const CQRBSNSThumbnailGetter&) = delete;

    // Always null: the SNS kind is served through the buffer form only.
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // The downloaded bytes of one picture, decoded and brought to width x height (0 x 0: the
    // picture's own size). An empty buffer yields null without touching the disk.
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(std::string& buffer, int width,
                                                             int height) override;
    // Returns uri itself.
    const char* T_CONVERTURITOPATH(const char* uri) override;

    // Makes every missing folder of path (0755). True when the folder exists afterwards.
    static bool m_CreateDir(const char* path);
    // Writes the downloaded bytes into a new temporary file under the next free name (the
    // shared counter advances for each name tried); the file goes when `file` does.
    static bool m_WriteFlashFile(QRBTempFile& file, const std::string& data);

    // The temporary file's path for a process id and counter value.
    static std::string m_TempName(int pid, int counter);
    // The counter value handed out last (0 before the first).
    static int32_t m_LastFileID() { return m_lSNSFileID.load(); }

private:
    // Shared by all SNS getters; incremented before each use, never reset.
    static std::atomic<int32_t> m_lSNSFileID;
};

#endif
