// Pictures of the RA kind: the item's URL names a remote picture that this getter downloads
// itself, synchronously, with one libcurl easy transfer on the calling worker; the bytes are
// then written to a temporary file in the data folder, decoded there by the picture decoder,
// centre-cropped to the requested size where the decoded raster is at least that large in both
// directions, and packed.
//
// The transfer: connecting may take 20 s and the whole transfer 40 s, so a worker is blocked
// for 40 s at most. Any transfer that completes counts, whatever its HTTP status (an error
// page is handed to the decoder, which refuses it); server certificates and host names are not
// verified. A remote-access source is a whole photo, so the body may be as large as a photo
// gets: the safety cap, 64 MiB, is several times what any camera writes, and only keeps a
// hostile server from filling memory. A body declared larger is refused before it arrives;
// one that grows past the cap is cut (the write callback refuses the next chunk, libcurl then
// fails the transfer with a write error). Either fails with the reason "too large".
//
// Temporary files are named "<data folder>ra<pid><counter %05d>.jpg". They are created
// exclusively and without following links (mode 0600), so a file or link planted at a
// predictable name is never written through; such a name is skipped for the next counter value,
// a few times at most, before the request fails. The file is removed on every path once
// created; nothing this getter did not create is ever removed.
//
// One instance serves all four workers of the single variant, so it keeps no per-request state:
// each download collects into a buffer of its own call, and the counter shared by all RA
// getters is atomic, so concurrent workers never share a name. Every failure yields a null
// item; the reason is logged where it happened.
#ifndef QRB_RA_THUMBNAIL_GETTER_H
#define QRB_RA_THUMBNAIL_GETTER_H

#include "qrb_thumbnail_getter.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

class QRBTempFile;

class CQRBRAThumbnailGetter : public CQRBThumbnailGetter {
public:
    // A body that already holds more than this many bytes takes no further chunk, and a body
    // declared larger is not fetched. The 5 MiB cap of the HTTP variant's transfers is not
    // this one: those are thumbnails, these are whole photos.
    static constexpr size_t kMaxBodyBytes = 64u << 20;
    static constexpr long kConnectTimeoutSec = 20;
    static constexpr long kTotalTimeoutSec = 40;
    CQRBRAThumbnailGetter();
    ~CQRBRAThumbnailGetter() override = default;
    CQRBRAThumbnailGetter(const CQRBRAThumbnailGetter&) = delete;
    CQRBRAThumbnailGetter& operator=(const CQRBRAThumbnailGetter&) = delete;

    // Downloads info.strURL and decodes it to info.width x info.height (0 x 0: the picture's
    // own size).
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Returns uri itself.
    const char* T_CONVERTURITOPATH(const char* uri) override;

    // Downloads url into *buffer (emptied first). True when the transfer completed.
    bool m_DownLoadThumbnail(const std::string& url, std::string* buffer);
    // The bytes of one picture, decoded and brought to width x height. An empty buffer yields
    // null without touching the disk.
    boost::intrusive_ptr<CQRBThumbnailItem> m_DecodeThumbnail(std::string& buffer, int width,
                                                              int height);

    // The write callback: 0 (abort) for a null argument or a buffer already past the cap,
    // otherwise appends size x nmemb bytes and returns that number.
    static size_t receive(const char* data, size_t size, size_t nmemb, std::string* buffer);

    // Makes every missing folder of path (0755). True when the folder exists afterwards.
    static bool m_CreateDir(const char* path);
    // Writes the downloaded bytes into a new temporary file under the next free name (the
    // shared counter advances for each name tried); the file goes when `file` does.
    static bool m_WriteFlashFile(QRBTempFile& file, const std::string& data);

    // The temporary file's path for a process id and counter value.
    static std::string m_TempName(int pid, int counter);
    // The counter value handed out last (0 before the first).
    static int32_t m_LastFileID() { return m_lRAFileID.load(); }

private:
    // libcurl calls its write function through a void* user pointer; this adapter has exactly
    // that type and forwards to receive.
    static size_t m_CurlWrite(char* data, size_t size, size_t nmemb, void* userp);

    // Shared by all RA getters; incremented before each use, never reset.
    static std::atomic<int32_t> m_lRAFileID;
};

#endif
