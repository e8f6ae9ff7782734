#include "qrb_thumb_request_list.h"

#include "qrb_log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

bool CQRBThumbRequestList::Create() {
    CQRBAutoLock lock(m_Mutex);
    m_Queue.clear();
    return true;
}

void CQRBThumbRequestList::Destroy() { ClearAll(); }

void CQRBThumbRequestList::Insert(_stRequestedItem item) {
    CQRBAutoLock lock(m_Mutex);
    for (const auto& queued : m_Queue) {
        if (queued.SameKey(item)) return;  // duplicates are dropped, whatever their state
    }
    m_Queue.push_back(std::move(item));
    m_Changed();
}

template <typename Next>
bool CQRBThumbRequestList::m_TakeFirst(_stRequestedItem* out, Next next) {
    if (out == nullptr) return false;
    CQRBAutoLock lock(m_Mutex);
    for (auto& queued : m_Queue) {
        const int state = next(queued);
        if (state < 0) continue;
        queued.state = static_cast<qrb_thumb_item_state>(state);
        *out = queued;
        return true;
    }
    return false;
}

bool CQRBThumbRequestList::GetForSingle(bool all, _stRequestedItem* out, bool /*flag*/) {
    return m_TakeFirst(out, [all](const _stRequestedItem& queued) {
        if (queued.state != ITEM_WAITING) return -1;
        const bool video =
            queued.eThumbnailType == THUMB_VIDEO || queued.eThumbnailType == THUMB_PVR;
        return all || !video ? int{ITEM_DECODING_SINGLE} : -1;
    });
}

bool CQRBThumbRequestList::GetForMulti(_stRequestedItem* out) {
    return m_TakeFirst(out, [](const _stRequestedItem& queued) {
        return queued.state == ITEM_WAITING ? int{ITEM_DECODING} : -1;
    });
}

bool CQRBThumbRequestList::GetForHttpDecode(_stRequestedItem* out) {
    return m_TakeFirst(out, [](const _stRequestedItem& queued) {
        if (queued.state == ITEM_WAITING) return int{ITEM_DECODING};
        if (queued.state == ITEM_DOWNLOADED) return int{ITEM_DECODING_DOWNLOADED};
        return -1;
    });
}

bool CQRBThumbRequestList::GetForHttpDownLoad(_stRequestedItem* out) {
    return m_TakeFirst(out, [](const _stRequestedItem& queued) {
        return queued.state == ITEM_WAIT_DOWNLOAD ? int{ITEM_DOWNLOADING} : -1;
    });
}

void CQRBThumbRequestList::ChangeItemState(_stRequestedItem item, qrb_thumb_item_state state) {
    CQRBAutoLock lock(m_Mutex);
    for (auto& queued : m_Queue) {
        if (queued.SameKey(item)) {
            queued.state = state;
            m_Changed();
            return;
        }
    }
}

void CQRBThumbRequestList::Delete(std::string url) {
    CQRBAutoLock lock(m_Mutex);
    m_Queue.erase(std::remove_if(m_Queue.begin(), m_Queue.end(),
                                 [&](const _stRequestedItem& r) { return r.strURL == url; }),
                  m_Queue.end());
}

void CQRBThumbRequestList::Delete(long long rid) {
    CQRBAutoLock lock(m_Mutex);
    m_Queue.erase(std::remove_if(m_Queue.begin(), m_Queue.end(),
                                 [&](const _stRequestedItem& r) { return r.RID == rid; }),
                  m_Queue.end());
}

void CQRBThumbRequestList::ClearAll() {
    CQRBAutoLock lock(m_Mutex);
    m_Queue.clear();
}

void CQRBThumbRequestList::m_Changed() {
    ++m_nChanges;
    m_Changes.Broadcast();
}

unsigned CQRBThumbRequestList::ChangeCount() {
    CQRBAutoLock lock(m_Mutex);
    return m_nChanges;
}

void CQRBThumbRequestList::WaitForChange(unsigned seen, int timeoutMs) {
    const gint64 end = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
    CQRBAutoLock lock(m_Mutex);
    while (m_nChanges == seen) {
        if (!m_Changes.WaitUntil(m_Mutex, end)) return;
    }
}

void CQRBThumbRequestList::WakeWorkers() {
    CQRBAutoLock lock(m_Mutex);
    m_Changed();
}

bool CQRBThumbRequestList::Contains(const _stRequestedItem& key) {
    CQRBAutoLock lock(m_Mutex);
    for (const auto& queued : m_Queue) {
        if (queued.SameKey(key)) return true;
    }
    return false;
}

int CQRBThumbRequestList::Size() {
    CQRBAutoLock lock(m_Mutex);
    return static_cast<int>(m_Queue.size());
}

bool CQRBThumbRequestList::m_TakeForEvent(void* user_data, const std::string& url) {
    for (auto it = m_Queue.begin(); it != m_Queue.end(); ++it) {
        if (it->strURL == url && it->user_data == user_data) {
            m_Queue.erase(it);
            return true;
        }
    }
    return false;
}

void CQRBThumbRequestList::m_CopyURL(_thumb_result& result, const std::string& url) {
    size_t n = std::min(url.size(), static_cast<size_t>(QRB_THUMB_URL_MAX - 1));
    std::memcpy(result.szURL, url.data(), n);
    result.szURL[n] = '\0';
}

template <typename Fill>
bool CQRBThumbRequestList::m_Deliver(void* user_data, const std::string& url,
                                     qrb_thumbnail_callback callback, bool ok, Fill fill) {
    CQRBAutoLock lock(m_Mutex);
    if (!m_TakeForEvent(user_data, url)) return false;
    if (callback == nullptr) return false;

    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    m_CopyURL(result, url);
    if (!ok) {
        QRB_LOGD("strURL=%s, decode fail", url.c_str());
        callback(-1, &result, user_data);
        QRB_LOGD("callback end");
        return true;
    }
    fill(result);
    QRB_LOGD("strURL=%s", url.c_str());
    callback(0, &result, user_data);
    QRB_LOGD("callback end");
    return true;
}

void CQRBThumbRequestList::m_FillImages(_thumb_result& result,
                                        const boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    if (item && item->GetPreset() != nullptr) {
        result.buffer_preset = static_cast<char*>(malloc(QRB_THUMB_PRESET_SIZE));
        if (result.buffer_preset != nullptr) {
            std::memcpy(result.buffer_preset, item->GetPreset(), QRB_THUMB_PRESET_SIZE);
            QRB_LOGD("result.buffer_preset : [%s]###\n", result.buffer_preset);
        }
    }

    if (item) {
        const auto& images = item->GetImages();
        // The item never holds more than five images; the bound is kept here as well.
        const size_t n = std::min(images.size(), static_cast<size_t>(QRB_THUMB_MAX_IMAGES));
        for (size_t i = 0; i < n; ++i) {
            const auto& image = images[i];
            if (!image) continue;
            result.width = image->GetWidth();
            result.height = image->GetHeight();
            result.depth = image->GetDepth();
            long long size =
                (image->GetWidth() != 0 || image->GetHeight() != 0)
                    ? static_cast<long long>(image->GetWidth()) * image->GetHeight() * 4
                    : image->GetBufSize();
            if (size < 0 || size > 0x7fffffff) size = 0;
            result.nBufSize[i] = static_cast<int>(size);
            if (image->GetBuffer() == nullptr || size == 0) continue;
            unsigned char* copy = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
            if (copy == nullptr) continue;
            // An image whose recorded buffer is smaller than width x height x 4 (a raster of
            // fewer bytes a pixel) is copied only as far as it goes; the rest reads as zero.
            long long available = image->GetBufSize() > 0 ? image->GetBufSize() : size;
            long long n_copy = std::min(size, available);
            std::memcpy(copy, image->GetBuffer(), static_cast<size_t>(n_copy));
            if (n_copy < size) std::memset(copy + n_copy, 0, static_cast<size_t>(size - n_copy));
            result.pBuffer[i] = copy;
            result.count++;
            result.timestamp[i] = image->GetTimeStamp();
        }
    }
}

bool CQRBThumbRequestList::SendEvent(void* user_data, std::string url,
                                     qrb_thumbnail_callback callback,
                                     boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
    return m_Deliver(user_data, url, callback, ok,
                     [&item](_thumb_result& result) { m_FillImages(result, item); });
}

bool CQRBThumbRequestList::SendEventWithBuffer(void* user_data, std::string url,
                                               qrb_thumbnail_callback callback,
                                               boost::intrusive_ptr<CQRBThumbnailItem> item,
                                               bool ok) {
    return m_Deliver(user_data, url, callback, ok, [&item](_thumb_result& result) {
        if (item) {
            const std::string& data = item->GetData();
            unsigned char* copy =
                static_cast<unsigned char*>(malloc(data.size() ? data.size() : 1));
            if (copy == nullptr) {
                QRB_LOGW("malloc fail, size=%d", static_cast<int>(data.size()));
            } else {
                if (!data.empty()) std::memcpy(copy, data.data(), data.size());
                result.pBuffer[0] = copy;
                result.nBufSize[0] = static_cast<int>(data.size());
            }
        }
        result.count = 1;
        result.bBuffer = 1;
    });
}
