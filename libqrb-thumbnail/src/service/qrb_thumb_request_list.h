// The queue each variant owns. Callers insert at the back; workers take the first eligible
// request and mark it with a state instead of removing it; the event path removes it and calls
// the caller's callback with the list's lock held. Cancelling is removal: a worker that finishes
// a request no longer listed delivers nothing.
//
// Idle workers wait on the list rather than sleep: every change that may give one of them work
// (an insert, a state change) and every stop wakes them at once, and the wait is bounded so that
// an idle worker still looks at its queue at least every kIdlePollMs.
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

    // Longest wait of an idle worker between two looks at its queue.
    static constexpr int kIdlePollMs = 50;
    // A worker reads the count before asking for work and, finding none, waits with it: a
    // change made in between ends the wait at once, so no wake-up is lost.
    unsigned ChangeCount();
    void WaitForChange(unsigned seen, int timeoutMs = kIdlePollMs);
    // Wakes every waiting worker (they are being stopped).
    void WakeWorkers();

    // True while a request with this key is listed (any state).
    bool Contains(const _stRequestedItem& key);
    int Size();

private:
    // Takes the first queued request to which next gives a new state (not -1): moves it to
    // that state and copies it to out.
    template <typename Next>
    bool m_TakeFirst(_stRequestedItem* out, Next next);
    // Removes the request's entry and calls its callback once: -1 when !ok, otherwise 0 with
    // the result fill() made. False when the request was gone or has no callback.
    template <typename Fill>
    bool m_Deliver(void* user_data, const std::string& url, qrb_thumbnail_callback callback,
                   bool ok, Fill fill);
    // The item's images (at most five) and preset text, copied into result.
    static void m_FillImages(_thumb_result& result,
                             const boost::intrusive_ptr<CQRBThumbnailItem>& item);
    // Finds, removes and answers the request (url, user_data); false when it is gone.
    bool m_TakeForEvent(void* user_data, const std::string& url);
    static void m_CopyURL(_thumb_result& result, const std::string& url);

    // Called with m_Mutex held.
    void m_Changed();

    std::deque<_stRequestedItem> m_Queue;
    CQRBMutex m_Mutex;
    CQRBCond m_Changes;
    unsigned m_nChanges = 0;
};

#endif
