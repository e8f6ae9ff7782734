// Recent results for callers that set bUsedCache, bounded by total size (10 MiB). Eviction is
// strictly first-in first-out on purpose: a lookup does not refresh an entry. Duplicates are
// not looked for. One mutex guards the list and the total; all variants share the cache.
#ifndef QRB_THUMB_CACHE_H
#define QRB_THUMB_CACHE_H

#include "qrb_mutex.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <list>
#include <string>

class CQRBThumbCache {
public:
    static constexpr long long kMaxBytes = 10485760;

    CQRBThumbCache() = default;
    ~CQRBThumbCache();
    CQRBThumbCache(const CQRBThumbCache&) = delete;
    CQRBThumbCache& operator=(const CQRBThumbCache&) = delete;

    bool Create();
    bool FlagCreate() const { return m_bCreated; }
    void Insert(boost::intrusive_ptr<CQRBThumbnailItem> item);
    bool Get(long long rid, std::string url, boost::intrusive_ptr<CQRBThumbnailItem>& out);
    bool Get(long long rid, std::string url, int width, int height,
             boost::intrusive_ptr<CQRBThumbnailItem>& out);
    void ClearAll();
    void Destroy();

    long long TotalSize();
    int Count();

private:
    bool m_bCreated = false;
    std::list<boost::intrusive_ptr<CQRBThumbnailItem>> m_Items;  // oldest first
    CQRBMutex m_Mutex;
    long long m_llTotal = 0;
};

#endif
