// The contract of every worker thread a variant owns (the class name is spelled so,
// deliberately): it is created over its variant's list and the service's cache, reports every
// request it takes exactly once through the list's event path, and stops when asked.
#ifndef QRB_THUMBNAIL_DECODE_BASE_H
#define QRB_THUMBNAIL_DECODE_BASE_H

#include "qrb_failure.h"
#include "qrb_requested_item.h"
#include "qrb_thread.h"
#include "qrb_thumb_cache.h"
#include "qrb_thumb_request_list.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <atomic>
#include <functional>

class QRBThumbnailDecodeBsae : public CQRBThread {
public:
    virtual bool Create(CQRBThumbRequestList* list, CQRBThumbCache* cache);
    virtual bool Create(int n, CQRBThumbRequestList* list, CQRBThumbCache* cache);
    virtual bool Stop();
    virtual bool m_SendDoneEvent(const _stRequestedItem* req,
                                 boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok);
    virtual bool m_SendEventWithBuffer(const _stRequestedItem* req,
                                       boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok);

    // Asks the thread to leave its loop and wakes it if it is waiting for work; Destroy then
    // only waits for the request being served. The service asks every thread before joining
    // any, so that they all stop together.
    virtual void RequestStop();

protected:
    // The worker loop's head: true once take() has taken a request, waiting on the list while
    // there is none; false once a stop is asked. The list's change count is read before the stop
    // flag, so a stop or new work that comes in between ends the wait at once. A request taken
    // starts with no failure noted.
    template <typename Take>
    bool m_NextRequest(Take take) {
        for (;;) {
            const unsigned seen = m_pList->ChangeCount();
            if (m_bStop) return false;
            if (take()) {
                QRBClearFailure();
                return true;
            }
            m_WaitForWork(seen);
        }
    }
    // An idle worker's wait: until its list changes, a stop is asked, or the poll period ends.
    void m_WaitForWork(unsigned seen);
    // The worker boundary: runs serve for request and returns true when it returned. Whatever
    // it throws is logged and false comes back, so that the worker can still give the request
    // its one (failed) event.
    static bool t_ServeGuarded(const _stRequestedItem& request, const std::function<void()>& serve);
    // The event every worker sends: SendEvent of its list for req (nothing for a null req).
    bool t_SendEvent(const _stRequestedItem* req, boost::intrusive_ptr<CQRBThumbnailItem> item,
                     bool ok);

    // Written by the controlling thread, read by the worker between requests.
    std::atomic<bool> m_bStop{false};
    CQRBThumbRequestList* m_pList = nullptr;
    CQRBThumbCache* m_pCache = nullptr;
};

#endif
