#include "qrb_thumb_cache.h"

#include "qrb_log.h"

CQRBThumbCache::~CQRBThumbCache() { ClearAll(); }

bool CQRBThumbCache::Create() {
    CQRBAutoLock lock(m_Mutex);
    m_Items.clear();
    m_llTotal = 0;
    m_bCreated = true;
    return true;
}

void CQRBThumbCache::Insert(boost::intrusive_ptr<CQRBThumbnailItem> item) {
    if (!item) return;
    const long long size = item->CacheSize();
    CQRBAutoLock lock(m_Mutex);
    m_llTotal += size;
    if (m_llTotal > kMaxBytes) {
        long long excess = m_llTotal - kMaxBytes;
        // The new item is not in the list yet, so it is never evicted by its own admission.
        while (excess > 0 && !m_Items.empty()) {
            long long oldest = m_Items.front()->CacheSize();
            excess -= oldest;
            m_llTotal -= oldest;
            m_Items.pop_front();
        }
    }
    m_Items.push_back(item);
}

bool CQRBThumbCache::Get(long long rid, std::string url,
                         boost::intrusive_ptr<CQRBThumbnailItem>& out) {
    CQRBAutoLock lock(m_Mutex);
    for (const auto& item : m_Items) {
        if (item->GetRID() == rid && item->GetURL() == url) {
            out = item;
            return true;
        }
    }
    return false;
}

bool CQRBThumbCache::Get(long long rid, std::string url, int width, int height,
                         boost::intrusive_ptr<CQRBThumbnailItem>& out) {
    CQRBAutoLock lock(m_Mutex);
    for (const auto& item : m_Items) {
        if (item->GetRID() != rid || item->GetURL() != url) continue;
        const auto& images = item->GetImages();
        if (images.empty() || !images[0]) continue;
        if (images[0]->GetWidth() == width && images[0]->GetHeight() == height) {
            out = item;
            return true;
        }
    }
    return false;
}

void CQRBThumbCache::ClearAll() {
    CQRBAutoLock lock(m_Mutex);
    m_Items.clear();
    m_llTotal = 0;
}

void CQRBThumbCache::Destroy() {
    ClearAll();
    m_bCreated = false;
}

long long CQRBThumbCache::TotalSize() {
    CQRBAutoLock lock(m_Mutex);
    return m_llTotal;
}

int CQRBThumbCache::Count() {
    CQRBAutoLock lock(m_Mutex);
    return static_cast<int>(m_Items.size());
}
