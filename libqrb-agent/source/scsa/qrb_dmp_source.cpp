#define QRB_LOG_TAG "QRB-DMP"

#include "qrb_dmp_source.h"

#include "qrb_dmp_data.h"
#include "qrb_dmp_parse_xml.h"
#include "qrb_log.h"
#include "qrb_singleton.h"
#include "qrb_util.h"

#include <algorithm>
#include <cstdlib>

namespace {

const char kTableOfContents[] = "tableofcontents.xml";

// A document that parsed into nothing at all: not a content.
bool IsEmpty(const _stDMPMETADATA& m) {
    const _stDMPMetadata_common& c = m.common;
    const std::string* texts[] = {
        &c.strContentID,
        &c.strMediaProfile,
        &c.strRunLength,
        &c.strPublisher,
        &c.strTitleDisplay19,
        &c.strTitleDisplay60,
        &c.strTitleDisplayUnlimited,
        &c.strTitleDisplaySort,
        &c.strSummary190,
        &c.strSummary400,
        &c.strSummary4000,
        &c.strDescriptionLanguage,
    };
    for (const std::string* text : texts) {
        if (!text->empty()) return false;
    }
    return m.images.empty() && m.ratings.empty();
}

}  // namespace

CQRBDmpSource::CQRBDmpSource() : m_pData(CQRBSingleton<CQRBDmpData>::GetInstance()) {}

bool CQRBDmpSource::m_IsStandAloneMeta() {
    const size_t dot = m_strCurFilePath.rfind('.');
    const std::string extension =
        dot == std::string::npos ? std::string() : m_strCurFilePath.substr(dot + 1);
    QRB_LOGD("File Extension is [%s]", extension.c_str());
    const std::string lower = CQRBUtil::ToLower(extension);
    QRB_LOGD("File Extension after CQRBUtil::ToLower [%s]", lower.c_str());
    return lower == "uvu" || lower == "uva" || lower == "uvt" || lower == "scsa";
}

bool CQRBDmpSource::m_HasTableOfContentsXML(const std::vector<std::string>& files, int& index) {
    const size_t suffix = sizeof(kTableOfContents) - 1;
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string name = CQRBUtil::ToLower(files[i]);
        if (name.size() >= suffix &&
            name.compare(name.size() - suffix, suffix, kTableOfContents) == 0 &&
            (name.size() == suffix || name[name.size() - suffix - 1] == '/')) {
            index = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

bool CQRBDmpSource::m_HasPoster(const std::vector<std::string>& files, int& index) {
    for (size_t i = 0; i < files.size(); ++i) {
        int type = SCSA_DMP::FILE_TYPE_OTHER;
        if (m_Extractor.GetFileType(m_strCurFilePath, files[i], type) &&
            type == SCSA_DMP::FILE_TYPE_PICTURE) {
            index = static_cast<int>(i);
            QRB_LOGD("DmpSource: m_HasPoster index = [%d]", index);
            return true;
        }
    }
    return false;
}

void CQRBDmpSource::m_Complete(const std::vector<std::string>& files, _stDMPMETADATA& record) {
    record.strFilePath = m_strCurFilePath;
    int poster = -1;
    if (!record.images.empty() || !m_HasPoster(files, poster)) return;
    QRB_LOGD("DmpSource: Poster Path = [%s]", files[poster].c_str());
    _stDMPMetadata_image image;
    image.strTrackReference = files[poster];
    image.strLocation = files[poster];
    record.images.push_back(image);
}

bool CQRBDmpSource::m_MakeMetadataFromSFF(const std::vector<std::string>& files,
                                          _stDMPMETADATA& record, std::string& document) {
    QRB_LOGD("DmpSource: m_strCurFilePath = [%s], vEmbeddedFileList.size() = [%d]",
             m_strCurFilePath.c_str(), static_cast<int>(files.size()));
    if (files.empty()) {
        QRB_LOGW("vEmbeddedFileList.empty()");
        return false;
    }
    document = SCSA_DMP::MetaDataExtractor::XML_BOX_NAME;
    if (std::find(files.begin(), files.end(), document) == files.end()) {
        QRB_LOGD("DmpSource: %s has no metadata box", m_strCurFilePath.c_str());
        return false;
    }
    std::string xml;
    if (!m_Extractor.GetXMLFromSFF(m_strCurFilePath, document, xml)) return false;
    CQRBDmpParseXml parser;
    if (parser.ParseDMPMetaData(xml, record) != 0 || IsEmpty(record)) {
        QRB_LOGW("DmpSource: metadata box of %s yields no content", m_strCurFilePath.c_str());
        return false;
    }
    m_Complete(files, record);
    return true;
}

bool CQRBDmpSource::m_GetMeteData(const std::vector<std::string>& files, _stDMPMETADATA& record,
                                  std::string& document) {
    int toc = -1;
    if (!m_HasTableOfContentsXML(files, toc)) {
        QRB_LOGD("DmpSource: %s has not TableOfContents.XML file", m_strCurFilePath.c_str());
        return false;
    }
    std::string tocXml;
    if (!m_Extractor.GetXMLFromSFF(m_strCurFilePath, files[toc], tocXml)) return false;
    CQRBDmpParseXml parser;
    int index = -1;
    if (parser.ParseDMPTableOfContents(tocXml, files, index) != 1) return false;

    std::string xml;
    if (index >= 0) {
        document = files[index];
        if (!m_Extractor.GetXMLFromSFF(m_strCurFilePath, document, xml)) return false;
    } else {
        QRB_LOGW("DmpSource: iMetadataXML is not exist");
        // Not embedded: a document beside the package, by the path the table gives.
        if (parser.ParseDMPTableOfContents(tocXml, document) != 1 || document.empty()) {
            return false;
        }
        if (document[0] == '/') document.erase(0, 1);
        if (!m_Extractor.GetXML(m_strCurFilePath, document, xml)) return false;
    }
    if (parser.ParseDMPMetaData(xml, record) != 0 || IsEmpty(record)) {
        QRB_LOGW("DmpSource: GetMetaData has failed");
        return false;
    }
    m_Complete(files, record);
    return true;
}

bool CQRBDmpSource::MoveToIndex(std::string path) {
    m_strCurFilePath = path;
    if (m_pData->FindPathExist(path)) {
        QRB_LOGD("DmpSource: Path Exists !");
        return true;
    }
    if (!m_IsStandAloneMeta()) {
        QRB_LOGW("DmpSource: %s is not a content package", path.c_str());
        return false;
    }
    std::vector<std::string> files;
    if (!m_Extractor.GetFileList(path, files)) {
        QRB_LOGW("DmpSource: GetFileList error!");
        return false;
    }
    if (files.empty()) {
        QRB_LOGW("DmpSource: GetFileList no data, vEmbeddedFileList.empty()!");
        return false;
    }
    for (size_t i = 0; i < files.size(); ++i) {
        QRB_LOGD("vEmbeddedFileList[%d] = [%s]", static_cast<int>(i), files[i].c_str());
    }

    _stDMPMETADATA fromBox;
    _stDMPMETADATA fromTable;
    std::string boxDocument;
    std::string tableDocument;
    const bool bRet1 = m_MakeMetadataFromSFF(files, fromBox, boxDocument);
    const bool bRet2 = m_GetMeteData(files, fromTable, tableDocument);
    QRB_LOGD("bRet1 = [%d], bRet2 = [%d]", bRet1 ? 1 : 0, bRet2 ? 1 : 0);

    std::vector<_stDMPMETADATA> records;
    if (bRet2) records.push_back(fromTable);
    if (bRet1 && !(bRet2 && tableDocument == boxDocument)) records.push_back(fromBox);
    if (records.empty()) return false;
    m_pData->InsertData(path, records);
    return true;
}

bool CQRBDmpSource::GetThumbCount(std::string path, int& count) {
    const bool ret = m_pData->GetThumbCount(path, count);
    QRB_LOGD("DmpSource: bRet = [%d], iContentCount = [%d]", ret ? 1 : 0, count);
    return ret;
}

bool CQRBDmpSource::GetThumbImageCount(std::string path, int content, int& count) {
    const bool ret = m_pData->GetThumbDataCount(path, content, count);
    QRB_LOGD("DmpSource: bRet = [%d], iImageCount = [%d]", ret ? 1 : 0, count);
    return ret;
}

bool CQRBDmpSource::GetThumbImage(std::string path, int content, int image,
                                  unsigned long long& size, char** buffer) {
    QRB_LOGD("DmpSource: strFilePath = [%s], iContentsIndex = [%d], iImageIndex = [%d]",
             path.c_str(), content, image);
    size = 0;
    if (buffer == nullptr) return false;
    *buffer = nullptr;
    if (path.empty()) {
        QRB_LOGW("DmpSource: strFilePath is empty(), no metedata");
        return false;
    }
    std::string picturePath;
    std::string trackReference;
    if (!m_pData->GetThumbnailData(path, content, image, picturePath, trackReference)) {
        QRB_LOGW("DmpSource: Get thumbnai data failed");
        return false;
    }
    bool ok;
    if (!trackReference.empty()) {
        QRB_LOGD("DmpSource: MetaDataExtractor::GetImageBufferFromSFF strImgFilePath = [%s]",
                 picturePath.c_str());
        ok = m_Extractor.GetImageBufferFromSFF(path, picturePath, trackReference, size, buffer);
    } else {
        QRB_LOGD("DmpSource: MetaDataExtractor::GetImageBuffer strImgFilePath = [%s]",
                 picturePath.c_str());
        ok = m_Extractor.GetImageBuffer(path, picturePath, size, buffer);
    }
    QRB_LOGD("DmpSource: ullBuffSize = [%llu], pImageBuf = [%p]", size,
             static_cast<void*>(*buffer));
    if (!ok) {
        QRB_LOGW("DmpSource: dmp-manager get image buffer fail");
        return false;
    }
    return true;
}

bool CQRBDmpSource::GetValue(std::string field, int* value) {
    QRB_LOGD("DmpSource: strField = [%s]", field.c_str());
    return m_pData->GetValue(m_strCurFilePath, field, value);
}

bool CQRBDmpSource::GetValue(std::string field, char** value) {
    QRB_LOGD("DmpSource: strField = [%s]", field.c_str());
    return m_pData->GetValue(m_strCurFilePath, field, value);
}
