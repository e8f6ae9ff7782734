#define QRB_LOG_TAG "QRB-DLNA"
#include "qrb_dlna_video_ac_info.h"

#include "qrb_log.h"
#include "qrb_scoped.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace {

using ScopedXmlParser = QRBScoped<xmlParserCtxt, xmlFreeParserCtxt>;
using ScopedXmlDoc = QRBScoped<xmlDoc, xmlFreeDoc>;
void FreeXmlText(xmlChar* text) { xmlFree(text); }
using ScopedXmlText = QRBScoped<xmlChar, FreeXmlText>;

// How much of the file's text the load log shows: the whole text is mostly base64.
constexpr size_t kLoggedTextBytes = 64;

// Never the network, never an external entity or a DTD (neither is asked for), no entity
// substitution, and libxml2's default size limits (no XML_PARSE_HUGE): an entity that
// amplifies, such as the "billion laughs", is refused by libxml2's own guard. Errors are
// reported by the caller's log line, not on stderr.
constexpr int kParseOptions =
    XML_PARSE_NONET | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

xmlNode* FindElement(xmlNode* node, const char* name) {
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE &&
            xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0) {
            return node;
        }
    }
    return nullptr;
}

xmlNode* FindChild(xmlNode* parent, const char* name) {
    return parent != nullptr ? FindElement(parent->children, name) : nullptr;
}

// The element's own text. Entity references are skipped rather than expanded: a picture's
// base64 never needs one.
std::string TextOf(xmlNode* element) {
    std::string text;
    for (xmlNode* child = element->children; child != nullptr; child = child->next) {
        if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) &&
            child->content != nullptr) {
            text += reinterpret_cast<const char*>(child->content);
        }
    }
    return text;
}

// Reads the whole file; false when it is not a regular file (a FIFO would block the worker),
// cannot be read, or passes the size bound.
bool ReadWholeFile(const char* path, std::string* text) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        QRB_LOGW("cannot read %s as a file", path);
        if (fd >= 0) close(fd);
        return false;
    }
    QRBScopedFile file(fdopen(fd, "rb"));
    if (!file) {
        close(fd);
        QRB_LOGW("cannot open %s: %s", path, std::strerror(errno));
        return false;
    }
    char chunk[64 * 1024];
    size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof(chunk), file.get())) > 0) {
        if (static_cast<long>(text->size() + n) > QRBDlnaVideoACInfo::kMaxMtaBytes) {
            QRB_LOGW("%s is larger than %ld bytes", path, QRBDlnaVideoACInfo::kMaxMtaBytes);
            return false;
        }
        text->append(chunk, n);
    }
    if (std::ferror(file.get())) {
        QRB_LOGW("cannot read %s", path);
        return false;
    }
    return true;
}

}  // namespace

// ---- QRBDlnaMediadata

QRBDlnaMediadata::~QRBDlnaMediadata() {
    delete[] m_pThumbnailURI;
    delete[] m_pThumbnailStream;
}

QRBDlnaACResult QRBDlnaMediadata::PutThumbnailURI(signed char* uri) {
    const unsigned short length =
        uri != nullptr
            ? static_cast<unsigned short>(std::strlen(reinterpret_cast<const char*>(uri)))
            : 0;
    if (length == 0) {
        QRB_LOGW("AC_INVALID_PARAMETER");
        return AC_INVALID_PARAMETER;
    }
    signed char* copy = new signed char[length + 1];
    std::memcpy(copy, uri, length);
    copy[length] = 0;
    delete[] m_pThumbnailURI;
    m_pThumbnailURI = copy;
    m_nThumbnailKind = 0;
    return AC_OK;
}

QRBDlnaACResult QRBDlnaMediadata::PutThumbnailStream(const unsigned char* data,
                                                     unsigned long length) {
    if (data == nullptr || length == 0 || length > UINT_MAX) {
        QRB_LOGW("AC_INVALID_PARAMETER");
        return AC_INVALID_PARAMETER;
    }
    unsigned char* copy = new unsigned char[length];
    std::memcpy(copy, data, length);
    delete[] m_pThumbnailStream;
    m_pThumbnailStream = copy;
    m_uStreamLength = static_cast<unsigned int>(length);
    m_nThumbnailKind = 1;
    return AC_OK;
}

signed char* QRBDlnaMediadata::GetThumbnailURI() {
    if (m_nThumbnailKind != 0 || m_pThumbnailURI == nullptr) {
        QRB_LOGW("Error:no data");
        return nullptr;
    }
    return m_pThumbnailURI;
}

unsigned long QRBDlnaMediadata::GetThumbnailStream(const unsigned char** data) {
    if (data == nullptr) {
        QRB_LOGW("GetThumbnailStream: no place for the stream pointer");
        return 0;
    }
    *data = m_pThumbnailStream;
    return m_pThumbnailStream != nullptr ? m_uStreamLength : 0;
}

// ---- QRBDlnaVideoACInfo

void QRBDlnaVideoACInfo::m_Initialize() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
    m_Base64.Initialize();
}

void QRBDlnaVideoACInfo::m_Terminate() { m_Chapters.clear(); }

unsigned long QRBDlnaVideoACInfo::GetVideoChapterThumbStream(int index,
                                                             const unsigned char** data) {
    if (index < 0 || index >= GetChapterNum()) {
        QRB_LOGW("chapter %d out of range (%d chapters)", index, GetChapterNum());
        return 0;
    }
    return m_Chapters[index]->GetThumbnailStream(data);
}

unsigned int QRBDlnaVideoACInfo::GetVideoChapterStartTime(int index) {
    if (index < 0 || index >= GetChapterNum()) {
        QRB_LOGW("chapter %d out of range (%d chapters)", index, GetChapterNum());
        return 0;
    }
    return m_Chapters[index]->GetMPStartPoint();
}

int QRBDlnaVideoACInfo::LoadVideoACInfo(const char* path) {
    QRB_LOGD("entring\tLoadVideoACInfo zpVideoACInfoURI[%s]!!!", path != nullptr ? path : "(null)");
    m_Terminate();
    if (path == nullptr || access(path, F_OK) != 0) {
        QRB_LOGW("Error:%s not exist", path != nullptr ? path : "(null)");
        return -1;
    }
    std::string text;
    if (!ReadWholeFile(path, &text)) return -1;
    QRB_LOGD("mtaFilePath[%s], tmp[%s]###", path, text.substr(0, kLoggedTextBytes).c_str());
    QRB_LOGD("entring\tm_ParseMtaXML !!!");
    const bool parsed = m_ParseMtaXML(text);
    QRB_LOGD("out\tm_ParseMtaXML !!!");
    if (!parsed) m_Terminate();
    return parsed ? 0 : -1;
}

bool QRBDlnaVideoACInfo::m_ParseMtaXML(const std::string& text) {
    if (text.empty()) {
        QRB_LOGW("mta string IS NULL");
        return false;
    }
    ScopedXmlParser parser(xmlNewParserCtxt());
    if (!parser) {
        QRB_LOGW("XML Parsing error");
        return false;
    }
    // The size bound of the loader keeps the length within an int.
    ScopedXmlDoc doc(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()),
                                       nullptr, nullptr, kParseOptions));
    if (!doc) {
        QRB_LOGW("XML Parsing error");
        return false;
    }
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) {
        QRB_LOGW("Cannot get XML root");
        return false;
    }
    // The root's own name is not checked: servers name it differently.
    xmlNode* contentInfo = FindChild(root, "ContentInformation");
    if (contentInfo == nullptr) {
        QRB_LOGW("Cannot get pContentInfoNode by XML");
        return false;
    }
    xmlNode* chaptering = FindChild(contentInfo, "Chaptering");
    if (chaptering == nullptr) {
        QRB_LOGW("Cannot get pChapteringNode by XML");
        return false;
    }
    xmlNode* segment = FindChild(chaptering, "ChapterSegment");
    if (segment == nullptr) {
        QRB_LOGW("Cannot get pChapterSegmentNode by XML");
        return false;
    }
    for (; segment != nullptr; segment = FindElement(segment->next, "ChapterSegment")) {
        m_ParseChapter(segment);
    }
    return true;
}

void QRBDlnaVideoACInfo::m_ParseChapter(_xmlNode* segment) {
    // Every segment becomes a chapter, whether or not it holds a picture or a position.
    m_Chapters.push_back(std::make_unique<QRBDlnaMediadata>());
    QRBDlnaMediadata* chapter = m_Chapters.back().get();

    xmlNode* media = FindChild(FindChild(segment, "KeyFrame"), "InlineMedia");
    if (media != nullptr) {
        std::string base64 = TextOf(media);
        QRB_LOGD("buffer length %d", static_cast<int>(base64.size()));
        unsigned char* bytes = nullptr;
        const unsigned long length = m_Base64.DecodeBase64(
            reinterpret_cast<signed char*>(&base64[0]), base64.size(), &bytes);
        QRB_LOGD("decode length %d", static_cast<int>(length));
        if (length > 0) chapter->PutThumbnailStream(bytes, length);
        delete[] bytes;
    }

    xmlNode* position = FindChild(segment, "MediaPosition");
    if (position != nullptr) {
        xmlNode* time = FindChild(position, "MediaTime");
        ScopedXmlText point(time != nullptr
                                ? xmlGetProp(time, reinterpret_cast<const xmlChar*>("timePoint"))
                                : nullptr);
        if (point) {
            const char* value = reinterpret_cast<const char*>(point.get());
            QRB_LOGD("duartion is %s", value);
            chapter->PutMPStartPoint(static_cast<unsigned long>(std::strtol(value, nullptr, 10)));
        }
    }
}
