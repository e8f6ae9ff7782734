// Cover art of WMA (ASF) files: the picture of the "WM/Picture" attribute in the Extended
// Content Description Object of the file's header, in a QRBWMAContentDesc record together with
// the album, genre, year and track attributes found beside it and the title and author of the
// Content Description Object.
//
// Only short attribute values are accepted, deliberately: a descriptor list holding any value
// of more than 256 bytes is dropped as a whole, so a "WM/Picture" larger than that yields no
// cover art. Covers of that size are small pictures made for this purpose.
//
// Hostile files: object sizes below an object header end the walk (a zero size would never
// move on), as do sizes that run past the end of the file or would overflow; names are checked
// against what is left of the file before they are allocated, values are at most 256 bytes,
// descriptor counts above 256 are ignored. Every step consumes bytes, so a walk ends.
//
// Reads the file with stdio only; all multi-byte fields of the file are little-endian. An
// extractor keeps no state between calls: one instance serves one call at a time.
#ifndef QRB_WMA_EXTRACTOR_H
#define QRB_WMA_EXTRACTOR_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// What the extractor found. Copyable; the cover art is owned.
class QRBWMAContentDesc {
public:
    const char* GETTITLE() const { return m_strTitle.c_str(); }
    const char* GETALBUM() const { return m_strAlbum.c_str(); }
    const char* GETARTIST() const { return m_strArtist.c_str(); }
    const char* GETGENRE() const { return m_strGenre.c_str(); }
    short GetGenreID() const { return m_sGenreID; }
    unsigned short GetYear() const { return m_usYear; }
    unsigned short GetTrackNumber() const { return m_usTrackNumber; }
    unsigned short GetTotalTracks() const { return m_usTotalTracks; }
    uint32_t GetCoverArtSize() const { return static_cast<uint32_t>(m_CoverArt.size()); }
    // The cover's bytes, or null when there is none.
    const unsigned char* GETCOVERARTPOINTER() const {
        return m_CoverArt.empty() ? nullptr : m_CoverArt.data();
    }

    void SetTitle(const std::string& text) { m_strTitle = text; }
    void SetAlbum(const std::string& text) { m_strAlbum = text; }
    void SetArtist(const std::string& text) { m_strArtist = text; }
    void SetGenre(const std::string& text) { m_strGenre = text; }
    void SetGenreID(short id) { m_sGenreID = id; }
    void SetYear(unsigned short year) { m_usYear = year; }
    void SetTrackNumber(unsigned short track) { m_usTrackNumber = track; }
    void SetTotalTracks(unsigned short total) { m_usTotalTracks = total; }
    // Copies size bytes into a new buffer that replaces the old one.
    void SetCoverArt(const char* data, unsigned long size);

    // Forgets everything.
    void Clear();
    // Releases the cover art.
    void t_Destroy();

private:
    std::string m_strTitle;
    std::string m_strAlbum;
    std::string m_strArtist;
    std::string m_strGenre;
    short m_sGenreID = 0;
    unsigned short m_usYear = 0;
    unsigned short m_usTrackNumber = 0;
    unsigned short m_usTotalTracks = 0;
    std::vector<unsigned char> m_CoverArt;
};

class QRBWMAExtractor {
public:
    // Value data types of a content descriptor.
    enum {
        kTypeString = 0,  // UTF-16LE, zero-terminated
        kTypeBytes = 1,
        kTypeBool = 2,   // 32-bit
        kTypeDword = 3,  // 32-bit
        kTypeQword = 4,  // 64-bit
        kTypeWord = 5,   // 16-bit
    };
    // Longest value accepted; see the file comment.
    static constexpr uint16_t kMaxValueLength = 256;
    // A string value is read up to this many bytes (127 UTF-16 units and room for a
    // terminator); the rest of a longer one is passed over.
    static constexpr size_t kMaxStringBytes = 254;
    // Descriptor counts above this are not read at all.
    static constexpr uint16_t kMaxDescriptorCount = 256;

    // One content descriptor.
    struct stDescriptor {
        std::string name;  // UTF-8
        uint16_t valueType = 0;
        uint16_t valueLength = 0;
        std::string text;                  // type 0, UTF-8
        std::vector<unsigned char> bytes;  // type 1, exactly valueLength bytes
        uint64_t number = 0;               // types 2 to 5
    };

    // Extracts into a new record handed over in *out (the caller deletes it; it is handed over
    // whatever the result). false, after "Extract Fail", when the file is not ASF or its
    // descriptors cannot be read. Success does not mean a cover: check GetCoverArtSize().
    bool Extract(const char* path, QRBWMAContentDesc** out);
    int m_ExtractFromFilename(const char* path, QRBWMAContentDesc* desc);
    // The descriptor list at the current position (after an object header). 0 also when the
    // count is out of range and the list is ignored; -1 when a descriptor cannot be read.
    int m_ExtractFromExtContentDesc(FILE* file, QRBWMAContentDesc* desc);
    int m_GetExtContentDesc(FILE* file, stDescriptor* descriptors, unsigned short count);

    // UTF-16 code units (host order, up to a zero unit) to UTF-8, unit by unit: below 0x80
    // one byte, below 0x800 two, otherwise three; surrogate pairs are not combined. room is the
    // size of out; the output is always terminated, and conversion stops at the first unit that
    // does not fit. Returns the bytes written, terminator excluded.
    static int m_ConvertWStringToString_UTF8(unsigned char* out, const unsigned short* in,
                                             int room);
    // One unit into out, which has room bytes left: the bytes written, 0 when it does not fit.
    static int m_ConvertOneWcharToUTF8(unsigned char* out, unsigned short ch, int room);

    static bool m_IsLittleEndian();
    // File order (little-endian) to host order: the identity on a little-endian host.
    static uint16_t m_ConvertToLittleEndian(uint16_t value);
    static uint32_t m_ConvertToLittleEndian(uint32_t value);
    static uint64_t m_ConvertToLittleEndian(uint64_t value);
    // A zero-terminated UTF-16 string, in place.
    static void m_ConvertToLittleEndian(unsigned short* text);

private:
    int m_ReadContentDescription(FILE* file, uint64_t bodySize, QRBWMAContentDesc* desc);
    static void m_ApplyDescriptor(const stDescriptor& d, QRBWMAContentDesc* desc);
};

#endif
