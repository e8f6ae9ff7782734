#include "qrb_thumbnail_item.h"

#include <cstdlib>
#include <cstring>

CQRBThumbnailItem::~CQRBThumbnailItem() {
    m_Images.clear();
    free(m_pPreset);
}

bool CQRBThumbnailItem::AddImage(const boost::intrusive_ptr<CQRBThumbImage>& image) {
    if (m_Images.size() >= QRB_THUMB_MAX_IMAGES) return false;
    m_Images.push_back(image);
    return true;
}

bool CQRBThumbnailItem::SetBufferPreset(const char* text) {
    if (m_pPreset == nullptr) {
        m_pPreset = static_cast<char*>(malloc(QRB_THUMB_PRESET_SIZE));
        if (m_pPreset == nullptr) return false;
    }
    std::memset(m_pPreset, 0, QRB_THUMB_PRESET_SIZE);
    if (text != nullptr) std::strncpy(m_pPreset, text, QRB_THUMB_PRESET_SIZE - 1);
    return true;
}

long long CQRBThumbnailItem::CacheSize() const {
    return static_cast<long long>(m_strData.size()) +
           static_cast<long long>(m_nSize) * static_cast<long long>(m_Images.size());
}
