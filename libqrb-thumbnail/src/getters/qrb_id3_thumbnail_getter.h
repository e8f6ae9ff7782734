// Songs: the cover art inside the file (the picture of an ID3v2.3 APIC or ID3v2.2 PIC frame, or
// the "WM/Picture" attribute of a WMA file) is written to a temporary file in the data folder,
// decoded there by the picture decoder, centre-cropped to the requested size and packed. The
// temporary file is created exclusively (a name planted in advance is never written through
// or reused: the next counter value is tried) and removed on every path. When no name could be
// written, the decode is still tried at the last one, and what it finds there is not removed.
//
// A file goes to the WMA extractor when its extension contains "wma" (lower case only: "SONG.WMA"
// is read for ID3 tags). Any other file whose first bytes announce a container TagLib reads
// (FLAC, MP4/M4A, Ogg Vorbis, Opus, Speex or FLAC, Monkey's Audio, WavPack) goes to the tag
// cover extractor, everything else to the ID3 extractor. ID3 and WMA covers longer than 524287
// bytes are refused; the containers' covers may have QRBTagCoverExtractor::kMaxCoverLength
// bytes. A request of 0 x 0 gets the cover at its own size.
//
// One instance serves every worker and keeps no per-request state; temporary names differ by
// process id and a counter shared by all music getters. Every failure gives a null item.
#ifndef QRB_ID3_THUMBNAIL_GETTER_H
#define QRB_ID3_THUMBNAIL_GETTER_H

#include "id3-extractor/qrb_tag_cover_extractor.h"
#include "qrb_thumbnail_getter.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

class QRBTempFile;

class CQRBID3ThumbnailGetter : public CQRBThumbnailGetter {
public:
    // The longest cover decoded, in bytes (512 KiB less one). Album art is a small picture; a
    // longer one is not even read from the file, so a hostile tag cannot make a worker hold
    // more than this.
    static constexpr uint32_t kMaxCoverLength = 0x7FFFF;

    CQRBID3ThumbnailGetter() = default;
    ~CQRBID3ThumbnailGetter() override = default;

    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    // Strips a leading "file://1" (the "1" deliberately too) or "file://"; anything else is
    // returned as it is. The result points into uri.
    const char* T_CONVERTURITOPATH(const char* uri) override;

    // The text after the last "." of the final path component; empty when the component has
    // no ".", ends with one, or the path ends with "/" or "\".
    static std::string m_ExtractExtension(const std::string& path);
    // Makes every missing folder of the first 256 characters of path (mode 0755), the last one
    // too. 0, or -1 when a mkdir fails.
    static int m_CreateDir(const char* path);
    // Writes length bytes into a new temporary file under the first free name nextName gives.
    // 1 written, 0 failed (nothing this call made is left); the file goes when `file` does.
    static int m_WriteFlashFile(QRBTempFile& file, const std::function<std::string()>& nextName,
                                const char* data, int length);

    // The temporary file names, under the data folder, for a process id and counter value.
    static std::string m_ID3TempName(int pid, int counter);
    static std::string m_WMATempName(int pid, int counter);

private:
    boost::intrusive_ptr<CQRBThumbnailItem> m_ID3Extract(const char* path, int width, int height);
    boost::intrusive_ptr<CQRBThumbnailItem> m_WMAExtract(const char* path, int width, int height);
    boost::intrusive_ptr<CQRBThumbnailItem> m_TagExtract(const char* path,
                                                         QRBCoverContainer container, int width,
                                                         int height);
    // The steps after extraction, shared by every kind of file: covers of 1 to maxLength bytes
    // are written under the WMA or the ID3 name pattern and decoded.
    boost::intrusive_ptr<CQRBThumbnailItem> m_DecodeCover(const unsigned char* data,
                                                          uint32_t length, uint32_t maxLength,
                                                          bool wma, int width, int height);

    // Shared by all music getters, incremented once for each temporary name.
    static std::atomic<uint32_t> m_lID3FileID;
};

#endif
