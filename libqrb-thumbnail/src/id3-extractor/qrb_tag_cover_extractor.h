// Cover art of songs in the containers whose tags TagLib reads: FLAC (PICTURE blocks, and
// pictures in its Vorbis comment), MP4/M4A ("covr" items), Ogg Vorbis, Opus, Speex and FLAC in
// Ogg (METADATA_BLOCK_PICTURE comments), Monkey's Audio and WavPack (APE tag items
// "Cover Art (Front)", then any other "Cover Art" item). ID3 and WMA files keep their own
// readers (QRBID3Extractor, QRBWMAExtractor); this one never reads them.
//
// The container is recognised from the file's first bytes (QRBSniffCoverContainer), never from
// its name. Of several pictures the front cover is taken, else the first one.
//
// TagLib reads through a stream that refuses any single read longer than kMaxReadBytes, so a
// lying size field costs no more than that; pictures longer than kMaxCoverLength are refused.
// Stateless; safe from several threads (each call opens its own TagLib objects).
#ifndef QRB_TAG_COVER_EXTRACTOR_H
#define QRB_TAG_COVER_EXTRACTOR_H

#include <cstddef>
#include <cstdint>
#include <string>

enum class QRBCoverContainer { kNone, kFlac, kMp4, kOggVorbis, kOggOpus, kOggFlac, kOggSpeex,
                               kApe, kWavPack };

class QRBTagCoverExtractor {
public:
    // 16 MiB: a shop's 3000 x 3000 cover is a few MiB; FLAC's own field cannot say more.
    static constexpr uint32_t kMaxCoverLength = 16u << 20;
    // The longest single read TagLib may make: a cover, or a tag, at its largest.
    static constexpr unsigned long kMaxReadBytes = 32ul << 20;
    // First bytes QRBSniffCoverContainer wants (an Ogg stream's first packet header included).
    static constexpr size_t kSniffBytes = 64;

    // The container the first bytes of a file announce; kNone for everything else (ID3-tagged
    // MP3, ASF, pictures, anything unknown).
    static QRBCoverContainer Sniff(const unsigned char* head, size_t size);
    // Sniff on the first bytes of the file at path; kNone when it cannot be read.
    static QRBCoverContainer SniffFile(const char* path);

    // The cover's bytes (an encoded picture) from the file at path, read as `container`, into
    // *cover. 0 found; -1 no cover, no such container or an unreadable file (logged).
    static int Extract(const char* path, QRBCoverContainer container, std::string* cover);
};

#endif
