#define QRB_LOG_TAG "QRB-DMP"

#include "qrb_dmp_data.h"

#include "qrb_log.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace {

// The text keys of GetValue, in the order of the record's fields.
const char* const kTextKeys[] = {
    "FILE_PATH",     "CONTENT_ID",   "PROFILE",         "RUNLENGTH",    "PUBLISHER",
    "TITLE_19",      "TITLE_60",     "TITLE_UNLIMITED", "TITLE_SORT",   "SUMMARY_190",
    "SUMMARY_400",   "SUMMARY_4000", "DESC_LANGUAGE",   "ENCODING",     "TRACK_REFERENCE",
    "STREAM_NAME",   "COUNTRY",      "SYSTEM",          "RATING_VALUE", "RATING_DESC",
    "ADULT_CONTENT",
};
constexpr size_t kTextKeyCount = sizeof(kTextKeys) / sizeof(kTextKeys[0]);

// The record's texts in the order of kTextKeys: its own, its picture's (image, which may be
// null) and its first rating's; null where the record has no picture or no rating.
std::array<const std::string*, kTextKeyCount> Texts(const _stDMPMETADATA& m,
                                                    const _stDMPMetadata_image* i) {
    const _stDMPMetadata_common& c = m.common;
    const _stDMPMetadata_rating* r = m.ratings.empty() ? nullptr : &m.ratings.front();
    return {{
        &m.strFilePath,
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
        i ? &i->strEncoding : nullptr,
        i ? &i->strTrackReference : nullptr,
        i ? &i->strLocation : nullptr,
        r ? &r->strCountry : nullptr,
        r ? &r->strSystem : nullptr,
        r ? &r->strValue : nullptr,
        r ? &r->strDescription : nullptr,
        r ? &r->strAdultContent : nullptr,
    }};
}

}  // namespace

bool CQRBDmpData::m_FindData(const std::string& path) {
    if (m_MetaDataMap.empty()) {
        QRB_LOGD("DmpData: m_MetaDataMap is empty !");
        m_Current = m_MetaDataMap.end();
        return false;
    }
    const Map::iterator found = m_MetaDataMap.find(path);
    if (found == m_MetaDataMap.end()) {
        QRB_LOGD("DmpData: Can not find path, New File path !");
        return false;
    }
    QRB_LOGD("DmpData: Exists File path [%s]!", path.c_str());
    if (found != m_Current) {
        m_Current = found;
        m_nCurrentContent = 0;
        m_nCurrentImage = 0;
    }
    return true;
}

void CQRBDmpData::InsertData(std::string path, std::vector<_stDMPMETADATA>& records) {
    CQRBAutoLock lock(m_Mutex);
    std::vector<_stDMPMETADATA>& stored = m_MetaDataMap[path];
    stored = records;
    if (m_Current != m_MetaDataMap.end() && m_Current->first == path) {
        m_nCurrentContent = 0;
        m_nCurrentImage = 0;
    }
}

void CQRBDmpData::InsertData(std::string path, _stDMPMETADATA& record) {
    CQRBAutoLock lock(m_Mutex);
    m_MetaDataMap[path].push_back(record);
}

bool CQRBDmpData::RemoveData(std::string path) {
    CQRBAutoLock lock(m_Mutex);
    QRB_LOGD("DmpData: strFilePath = [%s]", path.c_str());
    const Map::iterator found = m_MetaDataMap.find(path);
    if (found == m_MetaDataMap.end()) {
        QRB_LOGD("DmpData: Can not find path !");
        return false;
    }
    if (found == m_Current) m_Current = m_MetaDataMap.end();
    m_MetaDataMap.erase(found);
    return true;
}

bool CQRBDmpData::FindPathExist(std::string path) {
    CQRBAutoLock lock(m_Mutex);
    const bool found = m_MetaDataMap.find(path) != m_MetaDataMap.end();
    QRB_LOGD("DmpData: bFind = [%d]", found ? 1 : 0);
    return found;
}

bool CQRBDmpData::GetThumbCount(std::string path, int& count) {
    CQRBAutoLock lock(m_Mutex);
    count = 0;
    if (!m_FindData(path) || m_Current->second.empty()) {
        QRB_LOGD("DmpData: m_MetaDataMap.empty() || m_MetaDataMap[%s].empty()", path.c_str());
        return false;
    }
    count = static_cast<int>(m_Current->second.size());
    QRB_LOGD("DmpData: Content Size = [%d]", count);
    return true;
}

bool CQRBDmpData::GetThumbDataCount(std::string path, int content, int& count) {
    CQRBAutoLock lock(m_Mutex);
    QRB_LOGD("DmpData: strFilePath = [%s], iContentIndex = [%d]", path.c_str(), content);
    count = 0;
    // An unknown package has no contents: every index is out of its range.
    const int contents = m_FindData(path) ? static_cast<int>(m_Current->second.size()) : 0;
    if (content < 0 || content >= contents) {
        QRB_LOGW("DmpData: iContentsIndex is Out of Range!! iCountSize = [%d]", contents);
        return false;
    }
    count = static_cast<int>(m_Current->second[content].images.size());
    QRB_LOGD("DmpData: iThumbSize = [%d]", count);
    return true;
}

bool CQRBDmpData::GetThumbnailData(std::string path, int content, int image,
                                   std::string& picturePath, std::string& trackReference) {
    CQRBAutoLock lock(m_Mutex);
    picturePath.clear();
    trackReference.clear();
    const int contents = m_FindData(path) ? static_cast<int>(m_Current->second.size()) : 0;
    if (content < 0 || content >= contents) {
        QRB_LOGW("DmpData: iContentsIndex is Out of Range!! iCountSize = [%d]", contents);
        return false;
    }
    const std::vector<_stDMPMetadata_image>& images = m_Current->second[content].images;
    if (image < 0 || image >= static_cast<int>(images.size())) {
        QRB_LOGW("DmpData: iContentsIndex is Out of Range!! iThumbSize = [%d]",
                 static_cast<int>(images.size()));
        return false;
    }
    picturePath = images[image].strLocation;
    trackReference = images[image].strTrackReference;
    m_nCurrentContent = content;
    m_nCurrentImage = image;
    QRB_LOGD("strImgPath = [%s], strTrackReference = [%s]", picturePath.c_str(),
             trackReference.c_str());
    return true;
}

const _stDMPMETADATA* CQRBDmpData::m_CurrentRecord(const std::string& path, const void* value) {
    if (value == nullptr) {
        QRB_LOGW("NULL == pValue");
        return nullptr;
    }
    if (!m_FindData(path)) {
        QRB_LOGW("DmpData: wrong file path = [%s]", path.c_str());
        return nullptr;
    }
    const std::vector<_stDMPMETADATA>& records = m_Current->second;
    if (records.empty()) {
        QRB_LOGW("DmpData: file %s has no data", path.c_str());
        return nullptr;
    }
    // A package replaced by fewer contents since: back to its first.
    if (m_nCurrentContent >= static_cast<int>(records.size())) {
        m_nCurrentContent = 0;
        m_nCurrentImage = 0;
    }
    return &records[m_nCurrentContent];
}

bool CQRBDmpData::GetValue(std::string path, std::string field, int* value) {
    CQRBAutoLock lock(m_Mutex);
    const _stDMPMETADATA* record = m_CurrentRecord(path, value);
    if (record == nullptr) return false;
    const bool index = field == "INDEX";
    if (!index && field != "WIDTH" && field != "HEIGHT") {
        QRB_LOGW("DmpData: wrong strField = [%s]", field.c_str());
        return false;
    }
    if (index) {
        *value = m_nCurrentContent;
    } else {
        if (record->images.empty()) {
            QRB_LOGW("DmpData: Do not find data strField = [%s]", field.c_str());
            return false;
        }
        const size_t at = static_cast<size_t>(m_nCurrentImage) < record->images.size()
                              ? static_cast<size_t>(m_nCurrentImage)
                              : 0;
        *value = field == "WIDTH" ? record->images[at].nWidth : record->images[at].nHeight;
    }
    QRB_LOGD("DmpData: Get int type data: strField = [%s], iValue = [%d]", field.c_str(), *value);
    return true;
}

bool CQRBDmpData::GetValue(std::string path, std::string field, char** value) {
    CQRBAutoLock lock(m_Mutex);
    const _stDMPMETADATA* record = m_CurrentRecord(path, value);
    if (record == nullptr) return false;
    *value = nullptr;
    size_t key = 0;
    while (key < kTextKeyCount && field != kTextKeys[key]) ++key;
    if (key == kTextKeyCount) {
        QRB_LOGW("DmpData: wrong strField = [%s]", field.c_str());
        return false;
    }
    const _stDMPMetadata_image* image = nullptr;
    if (!record->images.empty()) {
        image = &record->images[static_cast<size_t>(m_nCurrentImage) < record->images.size()
                                    ? static_cast<size_t>(m_nCurrentImage)
                                    : 0];
    }
    const std::string* text = Texts(*record, image)[key];
    if (text == nullptr || text->empty()) {
        QRB_LOGW("DmpData: Do not find data strField = [%s]", field.c_str());
        return false;
    }
    // Released by the caller with free().
    char* copy = static_cast<char*>(std::malloc(text->size() + 1));
    if (copy == nullptr) {
        QRB_LOGW("DmpData: Do not find data strField = [%s]", field.c_str());
        return false;
    }
    std::memcpy(copy, text->c_str(), text->size() + 1);
    *value = copy;
    QRB_LOGD("DmpData: Get int type data: strField = [%s], strValue = [%s]", field.c_str(), copy);
    return true;
}
