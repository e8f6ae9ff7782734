// One download of the HTTP variant: a libcurl easy handle configured for one request's URL, the
// response body collected in memory, and a copy of the request so that the body finds its way
// back to it. The download thread adds the handle to its multi handle; the handle's private
// pointer leads back to this object. Used by the download thread only; reference counted so
// that whoever holds it keeps the handle alive.
//
// Limits on what a peer can make us hold or wait for: the body is cut once it has passed
// 5 MiB (the write callback refuses the next chunk, so libcurl aborts the transfer with a write
// error); connecting may take 10 s and the whole transfer 20 s.
#ifndef QRB_THUMB_HTTP_REQUEST_H
#define QRB_THUMB_HTTP_REQUEST_H

#include "qrb_intrusive_ptr_base.h"
#include "qrb_requested_item.h"
#include "qrb_scoped.h"

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <string>

using QRBScopedCurl = QRBScoped<CURL, curl_easy_cleanup>;

// Appends a chunk of a body to buffer unless the body is already past cap: the one write path
// of the library's downloads. Tested before appending, so a body may end up to one chunk above
// the cap. Returns the bytes taken (0 ends the transfer).
size_t QRBReceiveCapped(const char* data, size_t size, size_t nmemb, std::string* buffer,
                        size_t cap);

class CQRBThumbHttpRequest : public QRB_IntrusivePtr_Base<CQRBThumbHttpRequest> {
public:
    // A body that already holds more than this many bytes takes no further chunk.
    static constexpr size_t kMaxBodyBytes = 5242880;
    static constexpr long kDefaultConnectTimeoutSec = 10;
    static constexpr long kDefaultTotalTimeoutSec = 20;

    CQRBThumbHttpRequest();
    ~CQRBThumbHttpRequest() override = default;
    CQRBThumbHttpRequest(const CQRBThumbHttpRequest&) = delete;
    CQRBThumbHttpRequest& operator=(const CQRBThumbHttpRequest&) = delete;

    // Makes and configures the easy handle; false only when libcurl cannot make one (the
    // request is then not copied).
    bool Init(_stRequestedItem& request);
    CURL* GetCurlHandle() const { return m_pCurl.get(); }
    _stRequestedItem GetRequestItem() const { return m_Request; }
    std::string GetDownloadBuff() const { return m_strDownloadBuff; }
    // Moves the body out (the download thread's way of avoiding a 5 MiB copy).
    std::string TakeDownloadBuff() { return std::move(m_strDownloadBuff); }
    size_t DownloadedBytes() const { return m_strDownloadBuff.size(); }

    // The write callback: 0 (abort) for a null argument or a buffer already past the cap,
    // otherwise appends size x nmemb bytes and returns that number.
    static size_t receive(const char* data, size_t size, size_t nmemb, std::string* buffer);

    // Test hook: lets tests shorten both time-outs; handles made afterwards use them.
    static void SetTimeoutsForTesting(long connectSec, long totalSec);
    static long ConnectTimeoutSec() { return s_ConnectTimeoutSec.load(); }
    static long TotalTimeoutSec() { return s_TotalTimeoutSec.load(); }

private:
    // libcurl calls its write function through a void* user pointer; this adapter has exactly
    // that type and forwards to receive.
    static size_t m_CurlWrite(char* data, size_t size, size_t nmemb, void* userp);

    QRBScopedCurl m_pCurl;
    std::string m_strDownloadBuff;
    _stRequestedItem m_Request;

    static std::atomic<long> s_ConnectTimeoutSec;
    static std::atomic<long> s_TotalTimeoutSec;
};

#endif
