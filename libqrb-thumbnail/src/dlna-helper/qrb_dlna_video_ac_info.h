// What an MTA file says about a video's chapters: QRBDlnaMediadata is one chapter (its position
// and its thumbnail, as a URI or as bytes), QRBDlnaVideoACInfo the chapters of one file in file
// order, with the loader of the file. Neither is shared between threads.
#ifndef QRB_DLNA_VIDEO_AC_INFO_H
#define QRB_DLNA_VIDEO_AC_INFO_H

#include "qrb_dlna_base64.h"

#include <memory>
#include <string>
#include <vector>

struct _xmlNode;  // libxml2's element node

// Result codes of the chapter records: 0, or 0x8001 as a 16-bit value for a bad argument.
typedef short QRBDlnaACResult;
#define AC_OK 0
#define AC_INVALID_PARAMETER static_cast<QRBDlnaACResult>(0x8001)

// Kinds of chapter position; nothing in this system sets or reads them.
enum tagMEDIA_POSITION_TYPE { MEDIA_POSITION_TYPE_NONE = 0, MEDIA_POSITION_TYPE_TIME = 1 };

class QRBDlnaMediadata {
public:
    QRBDlnaMediadata() = default;
    virtual ~QRBDlnaMediadata();
    QRBDlnaMediadata(const QRBDlnaMediadata&) = delete;
    QRBDlnaMediadata& operator=(const QRBDlnaMediadata&) = delete;

    void PutMPType(tagMEDIA_POSITION_TYPE type) { m_eMPType = type; }
    void PutMPStartPoint(unsigned long start) { m_uStartPoint = static_cast<unsigned int>(start); }
    void PutMPDuration(unsigned long duration) {
        m_uDuration = static_cast<unsigned int>(duration);
    }
    tagMEDIA_POSITION_TYPE GetMPType() const { return m_eMPType; }
    unsigned int GetMPStartPoint() const { return m_uStartPoint; }
    unsigned int GetMPDuration() const { return m_uDuration; }

    // Keeps a copy of the URI and makes the URI the chapter's thumbnail. The length is taken as
    // a 16-bit number (so 65536 characters count as none and 65537 as one): the record's length
    // field has always been that wide, and the copy holds that many characters.
    QRBDlnaACResult PutThumbnailURI(signed char* uri);
    // Keeps a copy of the bytes and makes them the chapter's thumbnail.
    QRBDlnaACResult PutThumbnailStream(const unsigned char* data, unsigned long length);
    // The URI while it is the chapter's thumbnail, otherwise null ("Error:no data").
    signed char* GetThumbnailURI();
    // Points *data at the bytes (owned by the chapter) and returns their length; 0 without.
    unsigned long GetThumbnailStream(const unsigned char** data);

private:
    tagMEDIA_POSITION_TYPE m_eMPType = MEDIA_POSITION_TYPE_NONE;
    unsigned int m_uStartPoint = 0;
    unsigned int m_uDuration = 0;
    int m_nThumbnailKind = 0;                     // 0: the URI is the thumbnail, 1: the bytes are
    signed char* m_pThumbnailURI = nullptr;       // array new, owned
    unsigned char* m_pThumbnailStream = nullptr;  // array new, owned
    unsigned int m_uStreamLength = 0;
};

class QRBDlnaVideoACInfo {
public:
    QRBDlnaVideoACInfo() { m_Initialize(); }
    ~QRBDlnaVideoACInfo() { m_Terminate(); }
    QRBDlnaVideoACInfo(const QRBDlnaVideoACInfo&) = delete;
    QRBDlnaVideoACInfo& operator=(const QRBDlnaVideoACInfo&) = delete;

    // Reads the MTA file at path and replaces the chapters with its own; 0 on success, -1 when
    // the file is missing, too large, not XML, or lacks the chapter elements.
    int LoadVideoACInfo(const char* path);
    int GetChapterNum() const { return static_cast<int>(m_Chapters.size()); }
    // The chapter's thumbnail bytes (owned by this object) and their length; 0 out of range.
    unsigned long GetVideoChapterThumbStream(int index, const unsigned char** data);
    // The chapter's start point; 0 out of range.
    unsigned int GetVideoChapterStartTime(int index);

    // Files larger than this are refused before parsing: five small pictures in base64 take a
    // few hundred kilobytes, and the bound keeps a hostile file from costing more memory than
    // a few times its size.
    static constexpr long kMaxMtaBytes = 16L * 1024 * 1024;

private:
    void m_Initialize();
    void m_Terminate();
    bool m_ParseMtaXML(const std::string& text);
    void m_ParseChapter(_xmlNode* segment);

    std::vector<std::unique_ptr<QRBDlnaMediadata>> m_Chapters;
    QRBDlnaBase64EnDecoder m_Base64;
};

#endif
