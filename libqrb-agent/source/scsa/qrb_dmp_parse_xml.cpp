#define QRB_LOG_TAG "QRB-DMP"

#include "qrb_dmp_parse_xml.h"

#include "qrb_log.h"
#include "qrb_scoped.h"

#include <libxml/parser.h>
#include <libxml/xmlreader.h>

#include <cstdlib>
#include <cstring>

namespace {

using ScopedReader = QRBScoped<xmlTextReader, xmlFreeTextReader>;

constexpr int kElementStart = XML_READER_TYPE_ELEMENT;
constexpr int kElementEnd = XML_READER_TYPE_END_ELEMENT;

// Recover from what can be recovered; no network, and no entity substitution or DTD loading
// (XML_PARSE_NOENT and XML_PARSE_DTDLOAD stay off). The reader's complaints are answered by our
// own results, so libxml2 does not print them.
constexpr int kReaderOptions =
    XML_PARSE_RECOVER | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// The reader over xml after the common steps, or null (logged) when there is none to make.
ScopedReader OpenReader(std::string& xml) {
    xmlCheckVersion(20902);
    while (!xml.empty() && xml.back() == '\0') xml.pop_back();
    ScopedReader reader;
    // The reader takes an int length; nothing near that size is a metadata document. An empty
    // text gets its reader too: its first read fails, as for any text that is no document.
    if (xml.size() <= CQRBDmpParseXml::kMaxXmlBytes) {
        reader.reset(xmlReaderForMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                        kReaderOptions));
    }
    if (!reader) QRB_LOGW("CQRBDmpParseXml: XML String from DMP is not xml !!!");
    // libxml2's global state is left alone after the walk (no xmlCleanupParser): other
    // workers may be parsing at the same moment.
    return reader;
}

bool Named(xmlTextReaderPtr reader, int type, const char* name) {
    if (xmlTextReaderNodeType(reader) != type) return false;
    const xmlChar* local = xmlTextReaderConstLocalName(reader);
    return local != nullptr && std::strcmp(reinterpret_cast<const char*>(local), name) == 0;
}

const char* LocalName(xmlTextReaderPtr reader) {
    const xmlChar* local = xmlTextReaderConstLocalName(reader);
    return local ? reinterpret_cast<const char*>(local) : "";
}

// On an element start: reads one more node and gives its value, the element's text. An empty
// element (<X/>) has no text of its own, so the node read is whatever follows it (the
// whitespace before the next element, or the next element itself, which has no value and is
// then not seen as an element start by the walk): the reader loop as the format's readers
// have always run it. *hasValue tells a node without a value from an empty text.
int ReadText(xmlTextReaderPtr reader, std::string* text, bool* hasValue) {
    text->clear();
    *hasValue = false;
    const int ret = xmlTextReaderRead(reader);
    if (ret != 1) return ret;
    const xmlChar* value = xmlTextReaderConstValue(reader);
    if (value != nullptr) {
        text->assign(reinterpret_cast<const char*>(value));
        *hasValue = true;
    }
    return ret;
}

std::string* CommonField(_stDMPMetadata_common& c, const char* name) {
    static const struct {
        const char* name;
        std::string _stDMPMetadata_common::*field;
    } kFields[] = {
        {"ContentID", &_stDMPMetadata_common::strContentID},
        {"DECEMediaProfile", &_stDMPMetadata_common::strMediaProfile},
        {"RunLength", &_stDMPMetadata_common::strRunLength},
        {"Publisher", &_stDMPMetadata_common::strPublisher},
        {"TitleDisplay19", &_stDMPMetadata_common::strTitleDisplay19},
        {"TitleDisplay60", &_stDMPMetadata_common::strTitleDisplay60},
        {"TitleDisplayUnlimited", &_stDMPMetadata_common::strTitleDisplayUnlimited},
        {"TitleDisplaySort", &_stDMPMetadata_common::strTitleDisplaySort},
        {"Summary190", &_stDMPMetadata_common::strSummary190},
        {"Summary400", &_stDMPMetadata_common::strSummary400},
        {"Summary4000", &_stDMPMetadata_common::strSummary4000},
        {"DescriptionLanguage", &_stDMPMetadata_common::strDescriptionLanguage},
    };
    for (const auto& row : kFields) {
        if (std::strcmp(row.name, name) == 0) return &(c.*row.field);
    }
    return nullptr;
}

std::string* RatingField(_stDMPMetadata_rating& r, const char* name) {
    if (std::strcmp(name, "country") == 0) return &r.strCountry;
    if (std::strcmp(name, "System") == 0) return &r.strSystem;
    if (std::strcmp(name, "Value") == 0) return &r.strValue;
    if (std::strcmp(name, "Description") == 0) return &r.strDescription;
    if (std::strcmp(name, "AdultContent") == 0) return &r.strAdultContent;
    return nullptr;
}

// The number a track reference ends with ("...:12" gives 12), 0 when it ends otherwise.
int TrailingNumber(const std::string& text) {
    const size_t colon = text.rfind(':');
    const char* digits = text.c_str() + (colon == std::string::npos ? 0 : colon + 1);
    return static_cast<int>(std::strtol(digits, nullptr, 10));
}

}  // namespace

int CQRBDmpParseXml::m_ParseTableOfContents(std::string& xml, std::string& descriptive) {
    descriptive.clear();
    QRB_LOGD("TableOfContents strXML : \n%s\n", xml.c_str());
    ScopedReader reader = OpenReader(xml);
    if (!reader) return 0;
    bool found = false;
    int ret;
    while ((ret = xmlTextReaderRead(reader.get())) == 1) {
        ret = m_processTableOfContentsNode(reader.get(), descriptive, found);
        if (ret != 1 || found) break;
    }
    if (ret < 0) {
        QRB_LOGW("CQRBDmpParseXml: Fail to Parse XML = [%d]", ret);
        descriptive.clear();
        return 0;
    }
    QRB_LOGD("CQRBDmpParseXml: succes to Parse XML = [%d]", ret);
    for (size_t at = descriptive.find(':'); at != std::string::npos;
         at = descriptive.find(':', at)) {
        descriptive.replace(at, 1, "%3A");
    }
    return 1;
}

int CQRBDmpParseXml::ParseDMPTableOfContents(std::string xml, std::string& descriptive) {
    return m_ParseTableOfContents(xml, descriptive);
}

int CQRBDmpParseXml::ParseDMPTableOfContents(std::string xml, std::vector<std::string> files,
                                             int& index) {
    std::string path;
    if (m_ParseTableOfContents(xml, path) != 1) return 0;
    if (!path.empty() && path[0] == '/') path.erase(0, 1);
    QRB_LOGD("DescriptiveMetadata = [%s]", path.c_str());
    // An empty path (a table without the element) is found inside the first name.
    for (size_t i = 0; i < files.size(); ++i) {
        if (files[i].find(path) != std::string::npos) {
            index = static_cast<int>(i);
            break;
        }
    }
    return 1;
}

int CQRBDmpParseXml::m_processTableOfContentsNode(_xmlTextReader* reader, std::string& path,
                                                  bool& found) {
    if (!Named(reader, kElementStart, "DescriptiveMetadata")) return 1;
    bool hasValue = false;
    const int ret = ReadText(reader, &path, &hasValue);
    found = true;
    QRB_LOGD("CQRBDmpParseXml: DescriptiveMetadata = [%s]", path.c_str());
    return ret;
}

int CQRBDmpParseXml::ParseDMPMetaData(std::string xml, _stDMPMETADATA& meta) {
    ScopedReader reader = OpenReader(xml);
    if (!reader) return 0;
    int ret;
    while ((ret = xmlTextReaderRead(reader.get())) == 1) {
        ret = m_processMateDataNode(reader.get(), meta);
        if (ret != 1) break;
    }
    if (ret < 0) {
        QRB_LOGW("CQRBDmpParseXml: Fail to Parse XML");
        return 1;
    }
    return 0;
}

int CQRBDmpParseXml::m_processMateDataNode(_xmlTextReader* reader, _stDMPMETADATA& meta) {
    if (xmlTextReaderNodeType(reader) != kElementStart) return 1;
    const char* name = LocalName(reader);
    if (std::strcmp(name, "ContentMetadata") == 0) {
        return m_processCommonMetaData(reader, meta.common);
    }
    if (std::strcmp(name, "RequiredImages") == 0) {
        return m_processRequiredImageData(reader, meta.images);
    }
    if (std::strcmp(name, "Chapters") == 0) return m_processChapterImageData(reader, meta.images);
    if (std::strcmp(name, "Ratings") == 0) return m_processRatingData(reader, meta.ratings);
    return 1;
}

int CQRBDmpParseXml::m_processCommonMetaData(_xmlTextReader* reader,
                                             _stDMPMetadata_common& common) {
    int ret;
    while ((ret = xmlTextReaderRead(reader)) == 1) {
        if (Named(reader, kElementEnd, "ContentMetadata")) break;
        if (xmlTextReaderNodeType(reader) != kElementStart) continue;
        std::string* field = CommonField(common, LocalName(reader));
        if (field == nullptr) continue;
        std::string text;
        bool hasValue = false;
        ret = ReadText(reader, &text, &hasValue);
        if (ret != 1) break;
        if (hasValue) *field = text;
    }
    return ret;
}

int CQRBDmpParseXml::m_ReadImage(_xmlTextReader* reader, const char* end,
                                 _stDMPMetadata_image& image) {
    int ret;
    while ((ret = xmlTextReaderRead(reader)) == 1) {
        if (Named(reader, kElementEnd, end)) break;
        if (xmlTextReaderNodeType(reader) != kElementStart) continue;
        const char* name = LocalName(reader);
        const bool width = std::strcmp(name, "Width") == 0;
        const bool height = std::strcmp(name, "Height") == 0;
        std::string* text = std::strcmp(name, "Encoding") == 0         ? &image.strEncoding
                            : std::strcmp(name, "TrackReference") == 0 ? &image.strTrackReference
                            : std::strcmp(name, "Location") == 0       ? &image.strLocation
                                                                       : nullptr;
        if (!width && !height && text == nullptr) continue;
        std::string value;
        bool hasValue = false;
        ret = ReadText(reader, &value, &hasValue);
        if (ret != 1) break;
        // The last value seen wins, also over an earlier one.
        if (width) image.nWidth = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
        if (height) image.nHeight = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
        if (text != nullptr) *text = value;
    }
    return ret;
}

int CQRBDmpParseXml::m_processRequiredImageData(_xmlTextReader* reader,
                                                std::vector<_stDMPMetadata_image>& images) {
    // One poster per block, deliberately: a block naming several pictures yields one, with the
    // last value of each field.
    _stDMPMetadata_image image;
    const int ret = m_ReadImage(reader, "RequiredImages", image);
    if (ret != 1) return ret;  // a block cut short by the end of the document counts for none
    images.push_back(image);
    QRB_LOGD("image.nWidth = [%d], image.nHeight = [%d]", image.nWidth, image.nHeight);
    // The reference is shown by the number it ends with (the item it names).
    QRB_LOGD("image.strEncoding = [%s], image.strTrackReference = [%d]", image.strEncoding.c_str(),
             TrailingNumber(image.strTrackReference));
    return ret;
}

int CQRBDmpParseXml::m_processChapterImageData(_xmlTextReader* reader,
                                               std::vector<_stDMPMetadata_image>& images) {
    int ret;
    while ((ret = xmlTextReaderRead(reader)) == 1) {
        if (Named(reader, kElementEnd, "Chapters")) break;
        if (!Named(reader, kElementStart, "Chapter")) continue;
        _stDMPMetadata_image image;
        ret = m_ReadImage(reader, "Chapter", image);
        if (ret != 1) break;
        images.push_back(image);
    }
    return ret;
}

int CQRBDmpParseXml::m_processRatingData(_xmlTextReader* reader,
                                         std::vector<_stDMPMetadata_rating>& ratings) {
    int ret;
    while ((ret = xmlTextReaderRead(reader)) == 1) {
        if (Named(reader, kElementEnd, "Ratings")) break;
        if (!Named(reader, kElementStart, "Rating")) continue;
        _stDMPMetadata_rating rating;
        while ((ret = xmlTextReaderRead(reader)) == 1) {
            if (Named(reader, kElementEnd, "Rating")) break;
            if (xmlTextReaderNodeType(reader) != kElementStart) continue;
            std::string* field = RatingField(rating, LocalName(reader));
            if (field == nullptr) continue;
            bool hasValue = false;
            ret = ReadText(reader, field, &hasValue);
            if (ret != 1) break;
        }
        if (ret != 1) break;
        ratings.push_back(rating);
    }
    return ret;
}
