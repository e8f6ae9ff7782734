// One request's result: up to five images (one per frame), the encoded bytes of buffer
// delivery, and an optional 4096-byte preset text. Reference counted: the cache, a worker and
// the event path may hold it at once. Filled by one worker before it is shared; read-only after.
#ifndef QRB_THUMBNAIL_ITEM_H
#define QRB_THUMBNAIL_ITEM_H

#include "qrb_intrusive_ptr_base.h"
#include "qrb_requested_item.h"
#include "qrb_thumb_image.h"
#include "qrb_thumbnail.h"

#include <boost/intrusive_ptr.hpp>

#include <string>
#include <vector>

class CQRBThumbnailItem : public QRB_IntrusivePtr_Base<CQRBThumbnailItem> {
public:
    CQRBThumbnailItem() = default;
    ~CQRBThumbnailItem() override;
    CQRBThumbnailItem(const CQRBThumbnailItem&) = delete;
    CQRBThumbnailItem& operator=(const CQRBThumbnailItem&) = delete;

    long long GetRID() const { return m_RID; }
    void SetRID(long long rid) { m_RID = rid; }
    qrb_media_thumbnail_type GetThumbnailType() const { return m_eThumbnailType; }
    void SetThumbnailType(qrb_media_thumbnail_type type) { m_eThumbnailType = type; }
    bool GetUsedCache() const { return m_bUsedCache; }
    void SetUsedCache(bool used) { m_bUsedCache = used; }
    int GetSize() const { return m_nSize; }
    void SetSize(int size) { m_nSize = size; }
    const std::string& GetURL() const { return m_strURL; }
    void SetURL(const std::string& url) { m_strURL = url; }
    // The one way a result is stamped with the request it answers: its id, kind, URL and
    // whether the caller uses the cache.
    void StampRequest(const _stRequestedItem& request) {
        m_strURL = request.strURL;
        SetRID(request.RID);
        SetThumbnailType(request.eThumbnailType);
        m_bUsedCache = request.bUsedCache;
    }
    const std::string& GetData() const { return m_strData; }
    void SetData(const std::string& data) { m_strData = data; }

    // Appends an image (possibly null). Refuses past QRB_THUMB_MAX_IMAGES: the result record
    // has room for five and its filling loop relies on that bound.
    bool AddImage(const boost::intrusive_ptr<CQRBThumbImage>& image);
    const std::vector<boost::intrusive_ptr<CQRBThumbImage>>& GetImages() const { return m_Images; }
    int GetImageCount() const { return static_cast<int>(m_Images.size()); }

    // The preset text, or null. SetBufferPreset copies up to 4096 bytes into a zero-filled
    // buffer allocated on first use; false when that allocation fails.
    const char* GetPreset() const { return m_pPreset; }
    bool SetBufferPreset(const char* text);

    // Bytes this item accounts for in the cache.
    long long CacheSize() const;

private:
    long long m_RID = 0;
    qrb_media_thumbnail_type m_eThumbnailType = THUMB_NONE;
    bool m_bUsedCache = false;
    int m_nSize = 0;
    std::string m_strURL;
    std::vector<boost::intrusive_ptr<CQRBThumbImage>> m_Images;
    std::string m_strData;
    char* m_pPreset = nullptr;  // malloc'ed; freed by the destructor
};

#endif
