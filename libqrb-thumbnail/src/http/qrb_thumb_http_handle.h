// The HTTP variant's download thread. It takes requests waiting for download (ITEM_WAIT_DOWNLOAD)
// from the variant's list and runs up to ten transfers at once on one libcurl multi handle.
// A finished transfer is answered through the list: a buffer request (bRequestBuffer) gets the
// body through SendEventWithBuffer; any other request gets its body parked with the variant
// and moves to ITEM_DOWNLOADED for the decode thread. A transfer that ends short of its
// declared length (the peer closed the connection early) is logged and still delivered: a cut
// picture then fails in the decoder. A transfer that libcurl ends with any other error
// (time-out, refused or reset connection, the 5 MiB cap) is answered with status -1. HTTP
// status codes are not judged: any completed transfer counts.
//
// Threads: Create and Destroy run on the controlling thread; everything else, including the
// application's callbacks, on the download thread, which alone owns the multi handle and the
// active transfers. The list is touched only through its own locked operations.
//
// Stopping: RequestStop (or Destroy) sets the stop flag and wakes the thread, whether it waits
// for work or for socket activity, so the loop sees it at once even while peers are silent. Transfers still running then are removed unfinished and their
// requests answered with status -1 if they are still listed.
#ifndef QRB_THUMB_HTTP_HANDLE_H
#define QRB_THUMB_HTTP_HANDLE_H

#include "qrb_mutex.h"
#include "qrb_scoped.h"
#include "qrb_thumb_http_parking.h"
#include "qrb_thumb_http_request.h"
#include "qrb_thumbnail_decode_base.h"

#include <curl/curl.h>

#include <boost/intrusive_ptr.hpp>

#include <vector>

inline void QRBCurlMultiCleanup(CURLM* multi) { curl_multi_cleanup(multi); }
using QRBScopedCurlMulti = QRBScoped<CURLM, QRBCurlMultiCleanup>;

class CQRBThumbHttpHandle : public QRBThumbnailDecodeBsae {
public:
    // Parallel transfers, and connections the multi handle keeps.
    static constexpr size_t kMaxTransfers = 10;
    static constexpr long kMaxConnects = 10;
    // Longest wait for socket activity between two rounds of work; bounds how long a stop or a
    // newly queued request waits while transfers are in flight.
    static constexpr int kPollMs = 50;

    // parking (not owned) must outlive the thread.
    explicit CQRBThumbHttpHandle(CQRBThumbHttpParking* parking);
    ~CQRBThumbHttpHandle() override;
    CQRBThumbHttpHandle(const CQRBThumbHttpHandle&) = delete;
    CQRBThumbHttpHandle& operator=(const CQRBThumbHttpHandle&) = delete;

    using QRBThumbnailDecodeBsae::Create;
    bool Create(CQRBThumbRequestList* list, CQRBThumbCache* cache) override;
    void Destroy() override;
    void RequestStop() override;
    void t_Process() override;
    bool m_SendDoneEvent(const _stRequestedItem* req, boost::intrusive_ptr<CQRBThumbnailItem> item,
                         bool ok) override;
    bool m_SendEventWithBuffer(const _stRequestedItem* req,
                               boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) override;

private:
    // Fills free transfer slots from the list; true while any transfer is active.
    bool m_ProcessJob();
    // Starts a transfer for item; its easy handle, or null on failure.
    CURL* m_AddHandle(_stRequestedItem item);
    // Takes the transfer off the multi handle and the active list and releases its request.
    void m_RemoveHandle(unsigned long handle);
    // Answers the transfer's request with status -1.
    void m_SendEvent(unsigned long handle);

    void m_ReadMessages();
    void m_OnTransferDone(CURL* easy, CURLcode result);
    CQRBThumbHttpRequest* m_FindActive(CURL* easy);
    void m_StopAll();

    CQRBThumbHttpParking* m_pParking;
    QRBScopedCurlMulti m_pMulti;  // made and released by t_Process, under m_MultiMutex
    CQRBMutex m_MultiMutex;       // lets RequestStop wake the multi handle from another thread
    long m_nAnsweredStatus = 0;   // HTTP status of the transfer being answered (its thread only)
    // Declared after the multi handle: requests (and their easy handles) go first.
    std::vector<boost::intrusive_ptr<CQRBThumbHttpRequest>> m_Active;
};

#endif
