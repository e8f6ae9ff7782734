#include "qrb_thumb_http_parking.h"

#include <algorithm>

void CQRBThumbHttpParking::Park(const _stRequestedItem& request, std::string bytes,
                                long httpStatus) {
    Entry entry;
    entry.key.strURL = request.strURL;
    entry.key.RID = request.RID;
    entry.key.user_data = request.user_data;
    entry.bytes = std::move(bytes);
    entry.httpStatus = httpStatus;
    CQRBAutoLock lock(m_Mutex);
    for (auto& parked : m_Entries) {
        if (parked.key.SameKey(entry.key)) {
            parked = std::move(entry);
            return;
        }
    }
    m_Entries.push_back(std::move(entry));
}

bool CQRBThumbHttpParking::Take(const _stRequestedItem& request, std::string* out,
                                long* httpStatus) {
    CQRBAutoLock lock(m_Mutex);
    for (auto it = m_Entries.begin(); it != m_Entries.end(); ++it) {
        if (!it->key.SameKey(request)) continue;
        if (out != nullptr) *out = std::move(it->bytes);
        if (httpStatus != nullptr) *httpStatus = it->httpStatus;
        m_Entries.erase(it);
        return true;
    }
    return false;
}

bool CQRBThumbHttpParking::Drop(const _stRequestedItem& request) { return Take(request, nullptr); }

int CQRBThumbHttpParking::DropURL(const std::string& url) {
    CQRBAutoLock lock(m_Mutex);
    const size_t before = m_Entries.size();
    m_Entries.erase(std::remove_if(m_Entries.begin(), m_Entries.end(),
                                   [&](const Entry& e) { return e.key.strURL == url; }),
                    m_Entries.end());
    return static_cast<int>(before - m_Entries.size());
}

int CQRBThumbHttpParking::DropRID(long long rid) {
    CQRBAutoLock lock(m_Mutex);
    const size_t before = m_Entries.size();
    m_Entries.erase(std::remove_if(m_Entries.begin(), m_Entries.end(),
                                   [&](const Entry& e) { return e.key.RID == rid; }),
                    m_Entries.end());
    return static_cast<int>(before - m_Entries.size());
}

void CQRBThumbHttpParking::Clear() {
    std::vector<Entry> gone;
    {
        CQRBAutoLock lock(m_Mutex);
        gone.swap(m_Entries);
    }
    // Up to several MiB each: freed outside the lock.
}

int CQRBThumbHttpParking::Count() {
    CQRBAutoLock lock(m_Mutex);
    return static_cast<int>(m_Entries.size());
}

long long CQRBThumbHttpParking::TotalBytes() {
    CQRBAutoLock lock(m_Mutex);
    long long total = 0;
    for (const auto& e : m_Entries) total += static_cast<long long>(e.bytes.size());
    return total;
}
