// Cover art of MP3 files: the picture of the ID3v2.3 APIC frame or of the ID3v2.2 PIC frame,
// as the bytes the tag holds, with the version of the tag that supplied it.
//
// Only a tag at the start of the file is read (major version 3 or 2; other versions give no
// picture), frame by frame, as the tag's own sizes say. When several picture frames are present
// the last one wins. The first 100 bytes of a picture frame are read to find where its picture
// begins; a frame with fewer left in the file is a read error ("READ ERROR") that ends the walk.
// Where no ID3v2 picture is found, the ID3v1 tag at the end of the file is looked for; it
// carries no picture, but its absence is reported (the error codes below). The result's version
// is set from the ID3v2 header only (23 or 22), never from an ID3v1 tag.
//
// Hostile files: every size is checked against what is left of the tag and of the file before
// anything is allocated, so no allocation exceeds the file size (nor the picture limit given to
// the constructor); every step of a walk consumes bytes, so a walk ends. A truncated frame or a
// picture frame that is not an image ends the walk and keeps the picture found before.
//
// Reads the file with stdio only. An extractor keeps no state between calls beyond its limit:
// one instance may serve one call at a time; separate instances run in parallel.
#ifndef QRB_ID3_EXTRACTOR_H
#define QRB_ID3_EXTRACTOR_H

#include <cstdint>
#include <cstdio>
#include <memory>

// Result codes of QRBID3Extractor::Extract; 0 is success.
enum {
    QRB_ID3_ERR_FILE = -1,          // the file cannot be opened or measured
    QRB_ID3_ERR_NO_V1_TAG = -1307,  // no ID3v2 picture, and the last 128 bytes are not "TAG"
    QRB_ID3_ERR_V1_READ = -1313,    // no ID3v2 picture, and the ID3v1 tag cannot be read
    QRB_ID3_ERR_V1_SEEK = -1314,    // no ID3v2 picture, and the file is shorter than an ID3v1 tag
};

// The result of one extraction, or one tag version's share of it.
struct QRBID3 {
    // 1 = ID3v1, 22 = ID3v2.2, 23 = ID3v2.3, 0 = none. The result of an extraction carries the
    // ID3v2 header's version, 0 without one; the per-version records carry their own.
    int nVersion = 0;
    // The picture's bytes (allocated with new[], released by the record), null when none.
    std::unique_ptr<unsigned char[]> puImageBuf;
    uint32_t uImageLength = 0;

    bool HasImage() const { return puImageBuf != nullptr && uImageLength > 0; }
    void ClearImage() {
        puImageBuf.reset();
        uImageLength = 0;
    }
};

// The 10-byte header at the start of an ID3v2 tag.
struct MSTID3v2_Header {
    char identifier[3];  // "ID3"
    uint8_t major;       // 2 or 3 are read
    uint8_t revision;
    uint8_t flags;
    uint8_t size[4];  // synchsafe: 7 bits a byte, most significant first; excludes this header
};

// An ID3v2.3 frame header (10 bytes) and an ID3v2.2 frame header (6 bytes), decoded.
struct MSTID3v2_3_Frame {
    char id[5];     // four characters and a NUL
    uint32_t size;  // plain 32-bit big-endian (ID3v2.3 frame sizes are not synchsafe)
    uint8_t flags[2];
};
struct MSTID3v2_2_Frame {
    char id[4];     // three characters and a NUL
    uint32_t size;  // 24-bit big-endian
};

// The ID3v1 tag: the last 128 bytes of the file.
struct MSTId3v1Tag {
    char identifier[3];  // "TAG"
    char title[30];
    char artist[30];
    char album[30];
    char year[4];
    char comment[28];
    char zero;
    uint8_t track;
    uint8_t genre;
};

class QRBID3Extractor {
public:
    static constexpr uint32_t kNoImageLimit = UINT32_MAX;

    // Pictures longer than maxImageLength are not read: such a frame still replaces the picture
    // found before it (the last picture wins), but with nothing, so that a caller that refuses
    // long pictures sees the same outcome without their bytes ever being allocated.
    explicit QRBID3Extractor(uint32_t maxImageLength = kNoImageLimit)
        : m_uMaxImageLength(maxImageLength) {}

    // Extracts into a new record handed over in *out (the caller deletes it; it is handed over
    // whatever the result). 0 on success, else one of the QRB_ID3_ERR_ codes. Success does not
    // mean a picture: check (*out)->HasImage().
    int Extract(const char* path, QRBID3** out);
    int m_ExtractFromFilename(const char* path, QRBID3* result);

    // The synchsafe tag size of a header.
    static uint32_t m_CalculateTagTotalLength(const uint8_t size[4]);
    static uint32_t m_CalculateSize4(const uint8_t* p);
    static uint32_t m_CalculateSize3(const uint8_t* p);

    // The length of a picture frame's own header (text encoding, MIME type or image format,
    // picture type, description with its terminator) within the bytes peeked at its start, or
    // -1 when the frame does not hold an image ("image..." MIME type in ID3v2.3, "JPG" format in
    // ID3v2.2). Never more than peekLength.
    static long m_PictureHeaderLength(const unsigned char* peek, size_t peekLength, bool v22);
    // The ID3v1 tag read from the last 128 bytes: 0 with v1's version set to 1 when it begins
    // with "TAG", else QRB_ID3_ERR_NO_V1_TAG.
    static int m_GetID3v1Tag(const MSTId3v1Tag& tag, QRBID3* v1);

private:
    struct Reader;

    bool m_ReadV2Header(FILE* file, MSTID3v2_Header* header);
    int m_ReadV1Tags(FILE* file, QRBID3* v1);
    bool m_GetNextID3v23_Frame(FILE* file, MSTID3v2_3_Frame* frame);
    bool m_GetNextID3v22_Frame(FILE* file, MSTID3v2_2_Frame* frame);
    void m_GetID3v2_3Tag(Reader& reader, uint32_t tagSize, QRBID3* v23, uint32_t* consumed);
    void m_GetID3v2_2Tag(Reader& reader, uint32_t tagSize, QRBID3* v22, uint32_t* consumed);
    // A picture frame of frameSize bytes starting at the current position. false ends the walk.
    bool m_ReadPictureFrame(Reader& reader, uint32_t frameSize, bool v22, QRBID3* record);
    // Reads past length bytes through the work buffer. false at the end of the file.
    bool m_ReadData(FILE* file, unsigned char* work, size_t workSize, uint32_t length);
    bool m_ReadImageData(FILE* file, unsigned char* out, uint32_t length);
    void m_SetID3ValidValue(QRBID3* result, QRBID3* v23, QRBID3* v22, QRBID3* v1);

    const uint32_t m_uMaxImageLength;
};

#endif
