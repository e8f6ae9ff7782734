#include "qrb_ra_thumbnail_getter.h"

#include "qrb_thumb_http_request.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

std::atomic<int32_t> CQRBRAThumbnailGetter::m_lRAFileID{0};

namespace {

using ScopedCurl = QRBScoped<CURL, curl_easy_cleanup>;

}  // namespace

const char* CQRBRAThumbnailGetter::T_CONVERTURITOPATH(const char* uri) { return uri; }

std::string CQRBRAThumbnailGetter::m_TempName(int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "ra%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

bool CQRBRAThumbnailGetter::m_CreateDir(const char* path) { return t_CreateDir(path); }

bool CQRBRAThumbnailGetter::m_WriteFlashFile(QRBTempFile& file, const std::string& data) {
    return t_WriteFlashFile(
        file, [] { return m_TempName(static_cast<int>(getpid()), ++m_lRAFileID & INT32_MAX); },
        data.data(), data.size());
}

CQRBRAThumbnailGetter::CQRBRAThumbnailGetter() {
    // libcurl's global state, made once per process before the first easy handle (the HTTP
    // variant may not have made it yet); never torn down while the library is loaded.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t CQRBRAThumbnailGetter::receive(const char* data, size_t size, size_t nmemb,
                                      std::string* buffer) {
    return QRBReceiveCapped(data, size, nmemb, buffer, kMaxBodyBytes);
}

size_t CQRBRAThumbnailGetter::m_CurlWrite(char* data, size_t size, size_t nmemb, void* userp) {
    try {
        std::string* buffer = static_cast<std::string*>(userp);
        const size_t taken = receive(data, size, nmemb, buffer);
        // The transfer runs on the requesting worker: the reason lands on its request.
        if (taken == 0 && buffer != nullptr && buffer->size() > kMaxBodyBytes) {
            QRBNoteFailure(QRBFailure::kTooLarge);
        }
        return taken;
    } catch (...) {
        return 0;  // out of memory: abort this transfer rather than let libcurl unwind
    }
}

bool CQRBRAThumbnailGetter::m_DownLoadThumbnail(const std::string& url, std::string* buffer) {
    if (buffer == nullptr) return false;
    buffer->clear();
    ScopedCurl curl(curl_easy_init());
    if (!curl) {
        QRB_LOGW("curl_easy_init fail, url=%s", url.c_str());
        return false;
    }
    CURL* h = curl.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_HEADER, 0L);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSec);
    curl_easy_setopt(h, CURLOPT_TIMEOUT, kTotalTimeoutSec);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // Remote-access servers present certificates of their own making: not verified, by design.
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &CQRBRAThumbnailGetter::m_CurlWrite);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(buffer));
    curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    // Remote pictures only: a request URL must never make the library read local files or
    // speak other protocols on its behalf, redirects included.
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    // A declared length above the cap is refused before the body comes.
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxBodyBytes));
    const CURLcode res = curl_easy_perform(h);
    if (res != CURLE_OK) {
        if (res == CURLE_FILESIZE_EXCEEDED) {
            QRBNoteFailure(QRBFailure::kTooLarge);
        } else if (res == CURLE_OPERATION_TIMEDOUT) {
            QRBNoteFailure(QRBFailure::kTimedOut);
        } else {
            QRBNoteFailure(QRBFailure::kDownloadFailed, curl_easy_strerror(res));
        }
        QRB_LOGW("curl_easy_perform() failed: %s\n", curl_easy_strerror(res));
        return false;
    }
    // The HTTP status is not judged: an error page is a body like any other. Should it fail to
    // decode, the status is why.
    long status = 0;
    if (curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status >= 400) {
        QRBNoteFailure(QRBFailure::kDownloadFailed, "HTTP " + std::to_string(status));
    }
    return true;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBRAThumbnailGetter::m_DecodeThumbnail(
    std::string& buffer, int width, int height) {
    QRB_LOGD("ImageBuff.size()=%d", static_cast<int>(buffer.size()));
    return t_DecodeDownloaded(buffer, width, height, [&buffer](QRBTempFile& file) {
        return m_WriteFlashFile(file, buffer);
    });
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBRAThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    // This call's own buffer: the getter is shared by every worker of the single variant.
    std::string buffer;
    if (!m_DownLoadThumbnail(info.strURL, &buffer)) {
        QRB_LOGW("download error, url=%s", info.strURL.c_str());
        return nullptr;
    }
    return m_DecodeThumbnail(buffer, info.width, info.height);
}
