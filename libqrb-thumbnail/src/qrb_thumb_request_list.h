// The queue each variant owns. Callers insert at the back; workers take the first eligible
// request and mark it with a state instead of removing it; the event path removes it and calls
// the caller's callback with the list's lock held. Cancelling is removal: a worker that finishes
// a request no longer listed delivers nothing.
#ifndef QRB_THUMB_REQUEST_LIST_H
#define QRB_THUMB_REQUEST_LIST_H

#include "qrb_mutex.h"
#include "qrb_requested_item.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <deque>
#include <string>

class CQRBThumbRequestList {
public:
    CQRBThumbRequestList() = default;
    ~CQRBThumbRequestList() = default;
    CQRBThumbRequestList(const CQRBThumbRequestList&) = delete;
    CQRBThumbRequestList& operator=(const CQRBThumbRequestList&) = delete;

    bool Create();
    void Destroy();
    void Insert(_stRequestedItem item);
    // `flag` is accepted and not used.
    bool GetForSingle(bool all, _stRequestedItem* out, bool flag);
    bool GetForMulti(_stRequestedItem* out);
    bool GetForHttpDecode(_stRequestedItem* out);
    bool GetForHttpDownLoad(_stRequestedItem* out);
    void ChangeItemState(_stRequestedItem item, qrb_thumb_item_state state);
    void Delete(std::string url);
    void Delete(long long rid);
    void ClearAll();
    bool SendEvent(void* user_data, std::string url, qrb_thumbnail_callback callback,
                   boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok);
    bool SendEventWithBuffer(void* user_data, std::string url, qrb_thumbnail_callback callback,
                             boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok);

    // True while a request with this key is listed (any state).
    bool Contains(const _stRequestedItem& key);
    int Size();

private:
    // Finds, removes and answers the request (url, user_data); false when it is gone.
    bool m_TakeForEvent(void* user_data, const std::string& url);
    static void m_CopyURL(_thumb_result& result, const std::string& url);

    std::deque<_stRequestedItem> m_Queue;
    CQRBMutex m_Mutex;
};

#endif
