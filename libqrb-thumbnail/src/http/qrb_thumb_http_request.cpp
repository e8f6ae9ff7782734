#include "qrb_thumb_http_request.h"

#include "qrb_log.h"
#include "qrb_system_path.h"

#include <sys/times.h>

std::atomic<long> CQRBThumbHttpRequest::s_ConnectTimeoutSec{kDefaultConnectTimeoutSec};
std::atomic<long> CQRBThumbHttpRequest::s_TotalTimeoutSec{kDefaultTotalTimeoutSec};

CQRBThumbHttpRequest::CQRBThumbHttpRequest() {
    m_Request.RID = 0;
    m_Request.eThumbnailType = static_cast<qrb_media_thumbnail_type>(0);
    m_Request.state = static_cast<qrb_thumb_item_state>(0);
    m_Request.bUsedCache = true;
    m_Request.FrameCount = 1;
    m_Request.bRequestBuffer = false;
}

void CQRBThumbHttpRequest::SetTimeoutsForTesting(long connectSec, long totalSec) {
    s_ConnectTimeoutSec = connectSec;
    s_TotalTimeoutSec = totalSec;
}

bool CQRBThumbHttpRequest::Init(_stRequestedItem& request) {
    QRBScopedCurl curl(curl_easy_init());
    if (!curl) {
        QRB_LOGW("curl_easy_init fail, url=%s", request.strURL.c_str());
        return false;
    }
    m_pCurl = std::move(curl);
    m_Request = request;
    m_strDownloadBuff.clear();
    QRB_LOGD("============start strURL = %s tick = %lu==========\n", m_Request.strURL.c_str(),
             static_cast<unsigned long>(times(nullptr)));

    CURL* h = m_pCurl.get();
    curl_easy_setopt(h, CURLOPT_URL, m_Request.strURL.c_str());
    curl_easy_setopt(h, CURLOPT_HEADER, 0L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, s_ConnectTimeoutSec.load());
    curl_easy_setopt(h, CURLOPT_TIMEOUT, s_TotalTimeoutSec.load());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // A substring test on purpose, not a prefix test: any URL that mentions "https://" is
    // verified.
    if (m_Request.strURL.find("https://") != std::string::npos) {
        QRB_LOGD("It is https,NEED verifies the peer's certificate.\n");
        const std::string caBundle = QRBSystemPath(QRB_CA_BUNDLE);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(h, CURLOPT_CAINFO, caBundle.c_str());  // libcurl copies the string
    } else {
        QRB_LOGD("It is NOT https,NOT verifies certificate.\n");
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    }
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &CQRBThumbHttpRequest::m_CurlWrite);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(&m_strDownloadBuff));
    curl_easy_setopt(h, CURLOPT_PRIVATE, static_cast<void*>(this));
    curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    // Web pictures only: a request URL must never make the library read local files or speak
    // other protocols on its behalf, redirects included.
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    return true;
}

size_t QRBReceiveCapped(const char* data, size_t size, size_t nmemb, std::string* buffer,
                        size_t cap) {
    if (data == nullptr || buffer == nullptr || buffer->size() > cap) return 0;
    const size_t n = size * nmemb;
    buffer->append(data, n);
    return n;
}

size_t CQRBThumbHttpRequest::receive(const char* data, size_t size, size_t nmemb,
                                     std::string* buffer) {
    return QRBReceiveCapped(data, size, nmemb, buffer, kMaxBodyBytes);
}

size_t CQRBThumbHttpRequest::m_CurlWrite(char* data, size_t size, size_t nmemb, void* userp) {
    try {
        return receive(data, size, nmemb, static_cast<std::string*>(userp));
    } catch (...) {
        return 0;  // out of memory: abort this transfer rather than let libcurl unwind
    }
}
