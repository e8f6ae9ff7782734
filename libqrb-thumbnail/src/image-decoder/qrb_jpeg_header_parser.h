// The JPEG header walk: markers from SOI to the first frame header, the EXIF block of the first
// APP1 "Exif" segment (IFD0 orientation, IFD1 thumbnail position) and the large thumbnail of
// the first APP2 segment that holds one. (The size walk of an embedded JPEG is the decoder's
// m_ParsePictureSize, beside its callers in qrb_jpeg_header_parser.cpp.)
//
// Large thumbnail layout: an APP2 segment whose payload is itself a whole JPEG, starting with
// its SOI (FF D8 FF) right after the segment length. The thumbnail starts at that SOI and runs
// to the segment's end (so it is at most 65533 bytes). APP2 segments that start otherwise (ICC
// profiles, multi-picture indexes) are skipped.
//
// Every walk is bounded by the file size, moves forward by at least one byte per step and
// gives up on lengths below 2; the EXIF walk reads at most two directories (IFD0 and the IFD1
// it links to, never IFD0 again) within the segment. Stateless; safe from several threads.
#ifndef QRB_JPEG_HEADER_PARSER_H
#define QRB_JPEG_HEADER_PARSER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct QRBJpegHeaderInfo {
    uint32_t width = 0;  // from the first SOF0, SOF1 or SOF2
    uint32_t height = 0;
    bool hasFrame = false;
    bool hasExif = false;      // an APP1 "Exif" block with a readable TIFF header was found
    uint32_t orientation = 0;  // IFD0 Orientation 1..8; 0 when absent or out of range
    // IFD1 JPEGInterchangeFormat (absolute: TIFF header start + offset) and
    // JPEGInterchangeFormatLength; both 0 unless the range is non-empty and inside the file.
    uint64_t exifThumbOffset = 0;
    uint64_t exifThumbSize = 0;
    // The APP2 embedded JPEG; both 0 when there is none.
    uint64_t largeThumbOffset = 0;
    uint64_t largeThumbSize = 0;
};

class CQRBJpegHeaderParser {
public:
    // More segments than this before the frame header means the file is not a photo worth
    // reading (cameras write a dozen): the walk stops there instead of seeking forever.
    static constexpr int kMaxSegments = 4096;

    // Walks fp (fileSize bytes, read from offset 0) from SOI to the first SOF0..SOF2 and fills
    // info. 0 on success; -1 when the file is no JPEG or ends (or reaches its scan) without a
    // frame header. Broken EXIF is logged and ignored, never fatal.
    static int ParseMarkers(FILE* fp, uint64_t fileSize, QRBJpegHeaderInfo* info);

    // The payload of an APP1 segment (after its length field), which starts at file offset
    // payloadOffset. Fills hasExif, orientation and the IFD1 thumbnail fields of info; false,
    // leaving them untouched, when the block is not EXIF or its TIFF header is unreadable.
    static bool ParseExif(const unsigned char* payload, size_t size, uint64_t payloadOffset,
                          uint64_t fileSize, QRBJpegHeaderInfo* info);
};

#endif
